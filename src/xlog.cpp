/* SPDX-License-Identifier: MIT */
#include "xlog.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

#include "cancel_shield.h"
#include "ending.h"
#include "handles.h"
#include "mutex_lock.h"
#include "sync_file.h"
#include "time_text.h"
#include "xconf.h"
#include "xstdio.h"
#include "xstring.h"
#include "xwrap.h"

namespace {

using keel::cancel_shield;
using keel::mutex_lock;
using keel::put_text;
using keel::put_time;
using keel::unique_cstr;

struct log_level_desc {
    std::uint64_t level;
    const char *english;
    const char *chinese;
};

/* Row 0 belongs to dumps; a level's row is its number of trailing zero bits plus one. */
constexpr log_level_desc log_level_descs[] = {
    {0x0, "Dump.0", "打印.0"},           {0x1, "Emergency.1", "紧急.1"},
    {0x2, "Alert.2", "警报.2"},          {0x4, "Critical.3", "关键.3"},
    {0x8, "Error.4", "错误.4"},          {0x10, "Warning.5", "警告.5"},
    {0x20, "Notice.6", "通知.6"},        {0x40, "Info.7", "信息.7"},
    {0x80, "Debug.8", "调试.8"},         {0x100, "Debug-0", "调试-0"},
    {0x200, "Debug-1", "调试-1"},        {0x400, "Debug-2", "调试-2"},
    {0x800, "Debug-3", "调试-3"},        {0x1000, "Debug-4", "调试-4"},
    {0x2000, "Debug-5", "调试-5"},       {0x4000, "Debug-6", "调试-6"},
    {0x8000, "Debug-7", "调试-7"},       {0x10000, "Debug-8", "调试-8"},
    {0x20000, "Debug-9", "调试-9"},      {0x40000, "Debug-10", "调试-10"},
    {0x80000, "Debug-11", "调试-11"},    {0x100000, "Debug-12", "调试-12"},
    {0x200000, "Debug-13", "调试-13"},   {0x400000, "Debug-14", "调试-14"},
    {0x800000, "Debug-15", "调试-15"},   {0x1000000, "Debug-16", "调试-16"},
    {0x2000000, "Debug-17", "调试-17"},  {0x4000000, "Debug-18", "调试-18"},
    {0x8000000, "Debug-19", "调试-19"},  {0x10000000, "Debug-20", "调试-20"},
    {0x20000000, "Debug-21", "调试-21"}, {0x40000000, "Debug-22", "调试-22"},
    {0x80000000, "Debug-23", "调试-23"},
};

/* The settings change only in log_init() and log_destroy(), which overlap with no other call. */
struct log_settings {
    std::uint64_t nlogs = 0; /* 0: not set up, records go to standard output */
    std::uint64_t wrmax = 5000;
    std::int32_t lang = 0;
    std::uint64_t mask = 0xffffffff;
    std::uint64_t rename_gap = 10000;
    std::int32_t singleton = 1;
};

log_settings settings;
char *fdir;

/* One of each per log; a log's mutex guards its stream, path and counter. */
FILE **fptrs;
char **fpaths;
std::uint64_t *fcounters;
pthread_mutex_t *fmtxs;

pthread_mutex_t stdout_mutex = PTHREAD_MUTEX_INITIALIZER;

/* Makes one log_open() or log_close() at a time, so that the search for a path and the taking of a
 * slot are one step: one path is never open in two logs. Taken before any log's mutex. */
pthread_mutex_t slots_mutex = PTHREAD_MUTEX_INITIALIZER;

/* ---- Forks ---------------------------------------------------------------------------------- */

/* A child has of its parent's threads only the one that forked: a mutex that another held would
 * stay locked there for ever, over a file half rotated. So the thread that forks takes them all, as
 * far as it gets them: a log may be a FIFO that nobody reads, and a signal handler that forks may
 * have interrupted this very thread in a call. Those the child makes anew. */

thread_local std::uint32_t taken_for_fork; // a bit for each, in this order

template <class Operation>
void for_each_mutex(Operation operate) {
    std::uint32_t bit = 1;
    operate(slots_mutex, bit);
    for (std::uint64_t slot = 0; fmtxs != nullptr && slot < settings.nlogs; slot++)
        operate(fmtxs[slot], bit <<= 1);
    operate(stdout_mutex, bit << 1);
    operate(keel::local_time_mutex, bit << 2);
}

void before_fork() {
    constexpr long patience = 100'000'000; // nanoseconds, for all together
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_nsec += patience;
    deadline.tv_sec += deadline.tv_nsec / 1'000'000'000;
    deadline.tv_nsec %= 1'000'000'000;
    for_each_mutex([&](pthread_mutex_t &mutex, std::uint32_t bit) {
        if (pthread_mutex_timedlock(&mutex, &deadline) == 0)
            taken_for_fork |= bit;
    });
}

void after_fork() {
    const std::uint32_t taken = std::exchange(taken_for_fork, 0);
    for_each_mutex([=](pthread_mutex_t &mutex, std::uint32_t bit) {
        if ((taken & bit) != 0)
            pthread_mutex_unlock(&mutex);
    });
}

void after_fork_in_child() {
    const std::uint32_t taken = std::exchange(taken_for_fork, 0);
    for_each_mutex([=](pthread_mutex_t &mutex, std::uint32_t bit) {
        if ((taken & bit) != 0)
            pthread_mutex_unlock(&mutex);
        else
            pthread_mutex_init(&mutex, nullptr);
    });
}

/* Before all that is registered by hosts, whose own handlers are outside of these then, and may
 * log. */
[[gnu::constructor(101)]] void guard_forks() {
    pthread_atfork(before_fork, after_fork, after_fork_in_child);
}

/* ---- Records -------------------------------------------------------------------------------- */

/* "[2024-03-05 14:07:09.042] [Emergency.1] --> " takes 44, a year of ten digits six more. */
constexpr std::size_t prefix_size = 64;

char *put_prefix(char *end, const log_level_desc &level) {
    const bool english = settings.lang == 0;
    const char *name = english ? level.english : level.chinese;
    const std::size_t width = english ? 11 : 5;
    const std::size_t length = std::strlen(name);
    *end++ = '[';
    end = put_time(end, keel::local_now(), '-', ' ', ':');
    end = put_text(end, "] [", 3);
    for (std::size_t i = length; i < width; i++)
        *end++ = ' ';
    end = put_text(end, name, length);
    return put_text(end, "] ", 2);
}

/* As std::to_chars() does it. */
std::to_chars_result put_string(char *end, char *limit, const char *text) {
    const auto room = static_cast<std::size_t>(limit - end);
    const std::size_t length = text == nullptr ? room : strnlen(text, room);
    if (length == room)
        return {limit, std::errc::value_too_large};
    return {put_text(end, text, length), std::errc()};
}

/* What vsnprintf() would print, in less than half its time, for the formats of most records: "%d",
 * "%u", "%x", each with an "l" or a "z" if need be, and "%s". Null where there is anything else in
 * `format` or no room before `limit`; what has been put is to be overwritten then. */
[[gnu::format(printf, 3, 0)]] char *put_plain(char *end, char *limit, const char *format,
                                              va_list arguments) {
    for (; *format != '\0'; format++) {
        if (end == limit)
            return nullptr;
        if (*format != '%') {
            *end++ = *format;
            continue;
        }
        const bool wide = format[1] == 'l' || format[1] == 'z';
        format += wide ? 2 : 1;
        std::to_chars_result put;
        if (*format == 'd')
            put =
                std::to_chars(end, limit, wide ? va_arg(arguments, long) : va_arg(arguments, int));
        else if (*format == 'u')
            put = std::to_chars(
                end, limit, wide ? va_arg(arguments, unsigned long) : va_arg(arguments, unsigned));
        else if (*format == 'x')
            put = std::to_chars(
                end, limit, wide ? va_arg(arguments, unsigned long) : va_arg(arguments, unsigned),
                16);
        else if (*format == 's' && !wide)
            put = put_string(end, limit, va_arg(arguments, const char *));
        else
            return nullptr;
        if (put.ec != std::errc())
            return nullptr;
        end = put.ptr;
    }
    return end;
}

/* Formatted before any lock is taken, and in one piece, so that it is written at once. */
class record {
  public:
    [[gnu::format(printf, 3, 0)]] record(const log_level_desc &level, const char *format,
                                         va_list arguments) {
        const int reason = errno; // for a "%m"
        char *message = put_prefix(small_, level);
        va_list again;
        va_copy(again, arguments);
        const char *end = put_plain(message, small_ + sizeof small_ - 1, format, arguments);
        if (end != nullptr) {
            printed_ = static_cast<int>(end - message);
            length_ = static_cast<std::size_t>(end - small_);
        } else {
            errno = reason;
            print(message, format, again);
        }
        if (printed_ >= 0)
            add_newline(format);
        va_end(again);
    }

    char *text() { return large_ == nullptr ? small_ : large_.get(); }
    std::size_t length() const { return length_; }
    int printed() const { return printed_; } /* characters of the message; -1: it failed */

  private:
    /* Whatever printf() knows, and of any length. */
    [[gnu::format(printf, 3, 0)]] void print(char *message, const char *format, va_list arguments) {
        const int reason = errno;
        const auto prefix = static_cast<std::size_t>(message - small_);
        va_list again;
        va_copy(again, arguments);
        printed_ = std::vsnprintf(message, sizeof small_ - prefix, format, arguments);
        if (printed_ >= 0) {
            length_ = prefix + static_cast<std::size_t>(printed_);
            if (length_ >= sizeof small_) {
                errno = reason;
                print_large(prefix, format, again);
            }
        }
        va_end(again);
    }

    /* Anew, the prefix copied. Without memory for it there is no record. */
    [[gnu::format(printf, 3, 0)]] void print_large(std::size_t prefix, const char *format,
                                                   va_list arguments) {
        large_.reset(static_cast<char *>(std::malloc(length_ + 1)));
        if (large_ == nullptr) {
            printed_ = -1;
            return;
        }
        std::memcpy(large_.get(), small_, prefix);
        const std::size_t room = length_ + 1 - prefix;
        printed_ = std::vsnprintf(large_.get() + prefix, room, format, arguments);
        length_ = prefix + std::min(static_cast<std::size_t>(std::max(printed_, 0)), room - 1);
    }

    /* In place of the terminator. What the format ends in decides, not what it printed. */
    void add_newline(const char *format) {
        const std::size_t length = std::strlen(format);
        if (length == 0 || format[length - 1] != '\n')
            text()[length_++] = '\n';
    }

    char small_[2048];
    unique_cstr large_;
    std::size_t length_ = 0;
    int printed_ = -1;
};

bool set_up() {
    return settings.nlogs != 0;
}

bool valid_log(int id) {
    return id >= 0 && static_cast<std::uint64_t>(id) < settings.nlogs;
}

/* ---- Files ---------------------------------------------------------------------------------- */

/* "/var/log/app.log" becomes "/var/log/app_2024.03.05_14.07.09.042.log". */
unique_cstr archive_path(const char *path) {
    char stamp[32];
    stamp[0] = '_';
    *put_time(stamp + 1, keel::local_now(), '.', '_', '.') = '\0';
    const char *ending = std::strrchr(path, '.');
    if (ending == nullptr)
        return nullptr;
    return unique_cstr(strdup_insert(path, static_cast<std::size_t>(ending - path), stamp));
}

/* Tells whether the file is out of the way. */
bool log_rename(const char *path) {
    if (path == nullptr) {
        std::fputs("log_rename error:fpath_old is NULL.", stderr);
        return true;
    }
    for (;;) {
        const unique_cstr archive = archive_path(path);
        if (archive == nullptr)
            keel::end_process(1);
        if (fexist(archive.get(), 0) == 0) { // never overwritten: the next millisecond is another
            usleep(static_cast<useconds_t>(settings.rename_gap));
            continue;
        }
        if (std::rename(path, archive.get()) == 0)
            return true;
        std::fprintf(stderr, "log_rename error:%s->%s\n", path, archive.get());
        return false;
    }
}

/* A file that could not be archived is continued rather than emptied. */
FILE *open_log_file(const char *path, bool archived) {
    keel::unique_fd file =
        keel::open_sync(path, O_WRONLY | O_CREAT | (archived ? O_TRUNC : O_APPEND));
    FILE *stream = file ? fdopen(file.get(), "w") : nullptr;
    if (stream != nullptr)
        file.release();
    return stream;
}

void close_stream(FILE *&stream) {
    if (stream != nullptr)
        std::fclose(std::exchange(stream, nullptr));
}

void forget_path(std::uint64_t slot) {
    std::free(std::exchange(fpaths[slot], nullptr));
}

/* Counts a record that was handed to the file, whether or not the disk took it, and rotates a full
 * file. One that cannot be opened again leaves its log without a file; records are refused then. */
void count_record_locked(int id) {
    if (++fcounters[id] < settings.wrmax)
        return;
    close_stream(fptrs[id]);
    const bool archived = log_rename(fpaths[id]);
    fptrs[id] = open_log_file(fpaths[id], archived);
    fcounters[id] = 0;
}

/* Behind what the host has printed. A host may also have put a stream without a descriptor in place
 * of its standard output. */
bool write_to_stdout(const char *text, std::size_t length) {
    if (std::fflush(stdout) != 0)
        return false;
    const int descriptor = fileno(stdout);
    if (descriptor != -1)
        return keel::write_all(descriptor, text, length);
    return std::fwrite(text, 1, length, stdout) == length && std::fflush(stdout) == 0;
}

/* The one way out for a record. The shield is for the file that may be half rotated, and for the
 * host's standard output. */
bool write_record(int id, const char *text, std::size_t length) {
    const cancel_shield shield;
    const mutex_lock lock(set_up() ? fmtxs[id] : stdout_mutex, 200);
    if (!set_up())
        return write_to_stdout(text, length);
    if (fptrs[id] == nullptr)
        return false;
    const bool written = keel::write_all(fileno(fptrs[id]), text, length);
    count_record_locked(id);
    return written;
}

[[gnu::noinline, gnu::format(printf, 3, 0)]] int
print_record(int id, std::uint32_t level, const char *format, va_list arguments) {
    record line(log_level_descs[std::countr_zero(level) + 1], format, arguments);
    if (line.printed() < 0 || !write_record(id, line.text(), line.length()))
        return -1;
    /* Less four on purpose: callers only ask whether it is -1. */
    return line.printed() - 4;
}

int dump_record(int id, const void *data, std::size_t length) {
    const cancel_shield shield; // around the stream in memory
    char *text = nullptr;
    std::size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    if (stream == nullptr)
        return -1;
    char prefix[prefix_size];
    char *end = put_text(put_prefix(prefix, log_level_descs[0]), "--> ", 4);
    std::fwrite(prefix, 1, static_cast<std::size_t>(end - prefix), stream);
    const int dumped = hexdump(stream, data, length);
    const bool printed = std::ferror(stream) == 0; // it fails where memory runs out
    const bool made = std::fclose(stream) == 0 && printed;
    const unique_cstr owned(text);
    return made && write_record(id, text, size) ? dumped : -1;
}

/* ---- Setting up ----------------------------------------------------------------------------- */

/* Takes a field that counts, clamped, and tells the caller what took effect. */
template <class T>
void apply(const log_conf &conf, std::uint32_t bit, T &field, T low, T high, T &setting) {
    if ((conf.flags & bit) == 0)
        return;
    field = std::clamp(field, low, high);
    setting = field;
}

void apply_switch(const log_conf &conf, std::uint32_t bit, std::int32_t &field,
                  std::int32_t &setting) {
    if ((conf.flags & bit) == 0)
        return;
    field = field != 0 ? 1 : 0;
    setting = field;
}

void apply_conf(log_conf &conf) {
    using u64 = std::uint64_t;
    apply<u64>(conf, LOG_CONF_NLOGS, conf.nlogs, 1, 20, settings.nlogs);
    apply<u64>(conf, LOG_CONF_WRMAX, conf.wrmax, 1000, 30000, settings.wrmax);
    apply_switch(conf, LOG_CONF_LANG, conf.lang, settings.lang);
    apply<u64>(conf, LOG_CONF_MASK, conf.mask, 0, 0xffffffff, settings.mask);
    apply<u64>(conf, LOG_CONF_RENAME_GAP, conf.rename_gap, 1000, 1000000, settings.rename_gap);
    apply_switch(conf, LOG_CONF_SINGLETON, conf.singleton, settings.singleton);
}

template <class T>
bool allocate(T *&array) {
    array = static_cast<T *>(std::calloc(settings.nlogs, sizeof(T)));
    return array != nullptr;
}

bool allocate_slots() {
    if (!allocate(fptrs) || !allocate(fpaths) || !allocate(fcounters) || !allocate(fmtxs))
        return false;
    std::for_each_n(fmtxs, settings.nlogs,
                    [](auto &mutex) { Pthread_mutex_init(&mutex, nullptr); });
    return true;
}

int set_up_in(char *const argv[], const char *directory) {
    if (argv == nullptr || argv[0] == nullptr || fexist(directory, 1) != 0)
        return -1;
    fdir = fpath_dup(directory, nullptr);
    if (fdir == nullptr || !allocate_slots())
        return -1;
    const char *slash = std::strrchr(argv[0], '/');
    return log_open(slash == nullptr ? argv[0] : slash + 1);
}

/* The file's name, with the process id in it unless one process at a time bears the name. */
unique_cstr file_name(const char *name) {
    const bool ends_in_log = strrcmp(name, ".log") == 0;
    if (settings.singleton != 0)
        return unique_cstr(strdup_cat(name, ends_in_log ? "" : ".log", nullptr));
    if (!ends_in_log)
        return unique_cstr(strdup_catf("%s.%d.log", name, getpid()));
    const char *ending = std::strrchr(name, '.');
    const unique_cstr tag(strdup_catf(".%d", getpid()));
    if (ending == nullptr || tag == nullptr)
        return nullptr;
    return unique_cstr(strdup_insert(name, static_cast<std::size_t>(ending - name), tag.get()));
}

int fpath_compar(const void *key, const void *element) {
    const char *const *path = static_cast<const char *const *>(element);
    if (path == nullptr || *path == nullptr)
        return -1;
    return std::strcmp(static_cast<const char *>(key), *path);
}

bool held_by_a_slot(const char *path) {
    return std::any_of(fpaths, fpaths + settings.nlogs,
                       [=](char *const &held) { return fpath_compar(path, &held) == 0; });
}

/* Opens `path` in the first slot without a file and takes it over. */
int open_in_free_slot(unique_cstr path, bool archived) {
    for (std::uint64_t slot = 0; slot < settings.nlogs; slot++) {
        const mutex_lock lock(fmtxs[slot]);
        if (fptrs[slot] != nullptr)
            continue;
        fptrs[slot] = open_log_file(path.get(), archived);
        if (fptrs[slot] == nullptr)
            continue;
        forget_path(slot); // a rotation that could not open its file again has left one
        fpaths[slot] = path.release();
        fcounters[slot] = 0;
        return static_cast<int>(slot);
    }
    return -1;
}

} // namespace

int log_print(int id, std::uint32_t level, const char *format, ...) {
    /* The mask first: most records of a busy service are filtered, and nothing else decides more.
     */
    if ((level & settings.mask) == 0 || !std::has_single_bit(level))
        return -1;
    if (format == nullptr || (set_up() && !valid_log(id)))
        return -1;
    va_list arguments;
    va_start(arguments, format);
    const int result = print_record(id, level, format, arguments);
    va_end(arguments);
    pthread_testcancel(); // or a thread that does nothing but log could never be cancelled
    return result;
}

int log_dump(int id, const void *data, std::size_t length) {
    if (data == nullptr || length == 0 || (set_up() && !valid_log(id)))
        return -1;
    const int result = dump_record(id, data, length);
    pthread_testcancel();
    return result;
}

int log_init(char *const argv[], const char *directory, log_conf *conf) {
    if (set_up())
        return -1;
    settings.nlogs = 1;
    if (conf != nullptr)
        apply_conf(*conf);
    const int result = set_up_in(argv, directory);
    if (result == -1)
        log_destroy();
    return result;
}

int log_open(const char *name) {
    if (!set_up() || name == nullptr || *name == '\0')
        return -1;
    const cancel_shield shield;
    const mutex_lock lock(slots_mutex);
    const unique_cstr file = file_name(name);
    unique_cstr path(file == nullptr ? nullptr : fpath_dup(fdir, file.get()));
    if (path == nullptr || held_by_a_slot(path.get()))
        return -1;
    const bool archived = fexist(path.get(), 0) != 0 || log_rename(path.get());
    return open_in_free_slot(std::move(path), archived);
}

int log_close(int id) {
    if (!set_up())
        return 0;
    if (id < 1 || !valid_log(id))
        return -1;
    const cancel_shield shield;
    const mutex_lock slots(slots_mutex);
    const mutex_lock lock(fmtxs[id]);
    close_stream(fptrs[id]);
    log_rename(fpaths[id]);
    forget_path(static_cast<std::uint64_t>(id));
    fcounters[id] = 0;
    return 0;
}

int log_destroy() {
    if (!set_up())
        return 0;
    const cancel_shield shield;
    /* An array is missing where log_init() ran out of memory; the mutexes are made last. */
    for (std::uint64_t slot = 0; fmtxs != nullptr && slot < settings.nlogs; slot++) {
        close_stream(fptrs[slot]);
        if (fpaths[slot] != nullptr)
            log_rename(fpaths[slot]);
        forget_path(slot);
        Pthread_mutex_destroy(&fmtxs[slot]);
    }
    std::free(std::exchange(fdir, nullptr));
    std::free(std::exchange(fptrs, nullptr));
    std::free(std::exchange(fpaths, nullptr));
    std::free(std::exchange(fcounters, nullptr));
    std::free(std::exchange(fmtxs, nullptr));
    settings = log_settings();
    return 0;
}

/* SPDX-License-Identifier: MIT */
#include "xfsproc.h"

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <mntent.h>
#include <net/if.h>
#include <span>
#include <string_view>
#include <sys/statfs.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

#include "announce.h"
#include "cancel_shield.h"
#include "char_class.h"
#include "ending.h"
#include "handles.h"
#include "line_buffer.h"
#include "xmemory.h"
#include "xnet.h"
#include "xstdio.h"
#include "xstring.h"

sys_stat ss;

const char *const proc_operate_error_message[11] = {
    "No error.",
    "Failed restart.",
    "Failed start.",
    "Failed stop.",
    "Failed create.",
    "Failed remove.",
    "Process is running.",
    "Process is stopped.",
    "Process is not exist.",
    "Process is exist.",
    "Error.",
};

namespace {

using keel::unique_fd;
using keel::unique_file;

/* ---- Text of the kernel ---------------------------------------------------------------------- */

/* A line, or as much of it as counts. */
using kernel_line = char[2048];

/* rewind() alone may go on serving the text that the stream has buffered; the flush drops it. */
void read_afresh(FILE *stream) {
    std::rewind(stream);
    std::fflush(stream);
}

unique_file open_kernel_file(const char *path) {
    return keel::stream_on(keel::open_uncancelled(path, O_RDONLY), "r");
}

/* A kernel file for one reading: the caller's stream, or one of its own, with its buffer. */
class kernel_file {
  public:
    kernel_file(FILE *given, const char *path) : stream_(given) {
        if (given != nullptr) {
            read_afresh(given);
            return;
        }
        own_ = open_kernel_file(path);
        stream_ = own_.get();
        if (stream_ != nullptr)
            std::setvbuf(stream_, buffer_, _IOFBF, sizeof buffer_);
    }

    explicit operator bool() const { return stream_ != nullptr; }
    FILE *stream() const { return stream_; }
    bool next(kernel_line &line) { return std::fgets(line, sizeof line, stream_) != nullptr; }

  private:
    char buffer_[4096];
    unique_file own_;
    FILE *stream_;
};

const char *skip_spaces(const char *text) {
    const keel::char_class classes;
    while (classes.space(*text))
        text++;
    return text;
}

/* What does not fit is cut off, what is left is zeroed. */
template <std::size_t Size>
void store_text(char (&field)[Size], std::string_view text) {
    const std::size_t length = std::min(text.size(), Size - 1);
    std::memcpy(field, text.data(), length);
    std::memset(field + length, 0, Size - length);
}

/* Takes the first word of `text`. */
template <std::size_t Size>
bool take_word(const char *&text, char (&field)[Size]) {
    const keel::char_class classes;
    const char *begin = skip_spaces(text);
    for (text = begin; *text != '\0' && !classes.space(*text);)
        text++;
    if (text == begin)
        return false;
    store_text(field, {begin, text});
    return true;
}

/* Takes the first number of `text`; where there is none, `value` stays. */
template <class Number>
bool take_number(const char *&text, Number &value) {
    char *end = nullptr;
    const auto bits = std::is_signed_v<Number>
                          ? static_cast<std::uint64_t>(std::strtoll(text, &end, 10))
                          : std::strtoull(text, &end, 10);
    if (end == text)
        return false;
    value = static_cast<Number>(bits);
    text = end;
    return true;
}

/* Takes one number after the other, up to one that is missing. */
template <class... Numbers>
bool take_numbers(const char *&text, Numbers &...values) {
    return (take_number(text, values) && ...);
}

/* A memory figure and the name that the kernel gives it. */
struct mem_figure {
    const char *name;
    std::uint64_t *value;
};

int meminfo_compar(const void *left, const void *right) {
    const char *l = static_cast<const mem_figure *>(left)->name;
    const char *r = static_cast<const mem_figure *>(right)->name;
    if (*l != *r) // most differ at once, and want no call
        return static_cast<unsigned char>(*l) - static_cast<unsigned char>(*r);
    return std::strcmp(l, r);
}

/* Stores what a line such as "MemFree:  300 kB" tells, if it is one of the figures, which are
 * sorted by name. Cuts the line. */
void store_figure(char *line, std::span<const mem_figure> figures) {
    char *colon = std::strchr(line, ':');
    if (colon == nullptr)
        return;
    *colon = '\0';
    const mem_figure wanted = {line, nullptr};
    const void *found =
        std::bsearch(&wanted, figures.data(), figures.size(), sizeof wanted, meminfo_compar);
    if (found != nullptr)
        *static_cast<const mem_figure *>(found)->value = std::strtoul(colon + 1, nullptr, 0);
}

/* ---- Readers --------------------------------------------------------------------------------- */

std::int64_t difference(std::int64_t left, std::int64_t right) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(left) -
                                     static_cast<std::uint64_t>(right));
}

/* Takes name and traffic from a line with a colon in it. */
void take_traffic(const char *line, net_dev_stat &to) {
    const char *colon = std::strchr(line, ':');
    if (colon == line)
        return;
    store_text(to.name, {skip_spaces(line), colon});
    const char *text = colon + 1;
    std::uint64_t skipped = 0;
    take_numbers(text, to.rx_bytes, to.rx_packets, skipped, skipped, skipped, skipped, skipped,
                 skipped, to.tx_bytes, to.tx_packets);
}

bool is_any_of(const char *name, std::span<char *const> names) {
    return std::any_of(names.begin(), names.end(), [name](const char *one) {
        return one != nullptr && std::strcmp(name, one) == 0;
    });
}

/* What the system does not tell stays as it was. */
void take_state(net_dev_stat &to) {
    get_if_flags(to.name, &to.flags);
    to.prev_state = to.state;
    if ((to.flags & IFF_RUNNING) != 0) {
        to.state = 1;
        get_if_addr(to.name, &to.addr);
        get_if_netmask(to.name, &to.netmask);
    } else {
        to.state = 2;
        to.addr = to.netmask = 0;
    }
}

/* Whether it is a whole disk, and of a kind that counts. */
int diskstats_valid(unsigned major, int minor) {
    switch (major) {
    case 3: // IDE
    case 22:
    case 33:
    case 34:
    case 56:
    case 57:
    case 88:
    case 89:
    case 90:
    case 91:
        return (minor & 63) == 0;
    case 8: // SCSI
        return (minor & 15) == 0;
    default:
        return ((major >= 65 && major <= 71) || (major >= 128 && major <= 135)) &&
               (minor & 15) == 0;
    }
}

void take_disk(const char *line, disk_stat &to) {
    std::uint64_t in_progress = 0;
    if (take_numbers(line, to.major, to.minor) && take_word(line, to.name))
        take_numbers(line, to.reads, to.reads_merged, to.sectors_read, to.read_ms, to.writes,
                     to.writes_merged, to.sectors_written, to.write_ms, in_progress, to.io_ms,
                     to.weighted_io_ms);
}

struct close_mount_table {
    void operator()(FILE *table) const {
        const keel::cancel_shield shield;
        endmntent(table);
    }
};

using unique_mount_table = std::unique_ptr<FILE, close_mount_table>;

unique_mount_table open_mount_table() {
    const keel::cancel_shield shield;
    return unique_mount_table(setmntent("/etc/mtab", "r"));
}

/* ---- The snapshot ---------------------------------------------------------------------------- */

/* Opened at the first call and kept, with the line buffer that all share. */
FILE *fp_proc_stat, *fp_proc_uptime, *fp_proc_meminfo, *fp_proc_cpuinfo;
char *buf;
int size;

/* A kernel file comes in one read when the stream's buffer holds it; the default is 1 KB. */
constexpr std::size_t stream_buffer = 32768;

void open_kept(FILE *&stream, const char *path) {
    stream = open_kernel_file(path).release();
    if (stream == nullptr)
        keel::end_process(1);
    std::setvbuf(stream, static_cast<char *>(xmalloc(0, stream_buffer)), _IOFBF, stream_buffer);
}

void open_or_rewind(FILE *&stream, const char *path) {
    if (stream == nullptr)
        return open_kept(stream, path);
    read_afresh(stream);
}

char *next_line(FILE *stream) {
    return _fgets(&buf, &size, stream, nullptr);
}

void parse_or_exit(bool parsed) {
    if (!parsed)
        keel::end_process(1);
}

/* The kernel writes a point whatever the locale's decimal separator is. */
bool take_seconds(const char *&text, double &value) {
    static const locale_t standard = newlocale(LC_ALL_MASK, "C", nullptr); // takes no memory
    char *end = nullptr;
    value = strtod_l(text, &end, standard);
    return std::exchange(text, end) != end;
}

void parse_cpu_line(const char *line, cpu_usage &cpu) {
    parse_or_exit(take_word(line, cpu.name));
    for (cpu_counter &counter : cpu.counters)
        parse_or_exit(take_number(line, counter.cur));
}

/* The sum is made without a sign, so that no counters, however wild, overflow it. */
void measure_interval(cpu_usage &cpu) {
    std::uint64_t total = 0;
    for (int k = 0; k < CPU_COUNTERS; k++) {
        cpu_counter &counter = cpu.counters[k];
        const auto delta = static_cast<std::int64_t>(counter.cur - counter.prev);
        /* A counter goes backwards when its processor was taken away and came back. */
        cpu.delta[k] = std::max<std::int64_t>(delta, 0);
        total += static_cast<std::uint64_t>(cpu.delta[k]);
        counter.prev = counter.cur;
    }
    cpu.total = std::max<std::int64_t>(static_cast<std::int64_t>(total), 1);
    cpu.usage = static_cast<double>(cpu.total - cpu.delta[CPU_IDLE]) * 100.0 /
                static_cast<double>(cpu.total);
}

void read_cpus() {
    open_or_rewind(fp_proc_stat, "/proc/stat");
    std::uint64_t filled = 0;
    while (next_line(fp_proc_stat) != nullptr && std::strstr(buf, "cpu") != nullptr) {
        parse_or_exit(filled < SYS_STAT_CPUS);
        parse_cpu_line(buf, ss.cpu[filled]);
        measure_interval(ss.cpu[filled]);
        filled++;
    }
    ss.ncpu = filled;
}

void read_uptime() {
    open_or_rewind(fp_proc_uptime, "/proc/uptime");
    parse_or_exit(next_line(fp_proc_uptime) != nullptr);
    const char *text = buf;
    parse_or_exit(take_seconds(text, ss.uptime) && take_seconds(text, ss.idle));
}

double percentage(std::uint64_t part, std::uint64_t whole) {
    return 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

void read_memory() {
    static constexpr mem_figure figures[] = {
        {"Buffers", &ss.buffers},     {"Cached", &ss.cached},          {"MemFree", &ss.mem_free},
        {"MemTotal", &ss.mem_total},  {"SwapCached", &ss.swap_cached}, {"SwapFree", &ss.swap_free},
        {"SwapTotal", &ss.swap_total}};
    open_or_rewind(fp_proc_meminfo, "/proc/meminfo");
    while (next_line(fp_proc_meminfo) != nullptr)
        store_figure(buf, figures);
    ss.mem_used = ss.mem_total - ss.mem_free - ss.buffers - ss.cached;
    ss.swap_used = ss.swap_total - ss.swap_free;
    ss.mem_usage = percentage(ss.mem_used, ss.mem_total);
    ss.swap_usage = percentage(ss.swap_used, ss.swap_total);
}

void count_processors() {
    open_kept(fp_proc_cpuinfo, "/proc/cpuinfo");
    while (next_line(fp_proc_cpuinfo) != nullptr)
        ss.nprocessors += std::strstr(buf, "processor") != nullptr;
}

/* ---- Processes ------------------------------------------------------------------------------- */

struct close_directory {
    void operator()(DIR *directory) const { closedir(directory); }
};

using unique_dir = std::unique_ptr<DIR, close_directory>;

/* The processes there are, one after the other. */
class process_walk {
  public:
    process_walk() : directory_(opendir("/proc")) {
        if (directory_ == nullptr)
            keel::end_process(1);
    }

    bool next() {
        do
            entry_ = readdir(directory_.get());
        while (entry_ != nullptr && (*entry_->d_name < '0' || *entry_->d_name > '9'));
        return entry_ != nullptr;
    }

    const char *name() const { return entry_->d_name; }
    pid_t pid() const { return static_cast<pid_t>(std::strtoul(name(), nullptr, 0)); }

  private:
    unique_dir directory_;
    const dirent *entry_ = nullptr;
};

/* A file of a process. */
struct proc_path {
    proc_path(pid_t pid, const char *file) {
        std::snprintf(text, sizeof text, "/proc/%d/%s", pid, file);
    }
    proc_path(const char *process, const char *file) {
        std::snprintf(text, sizeof text, "/proc/%s/%s", process, file);
    }
    char text[NAME_MAX + 16];
};

/* The processes that were found: all count, as many as there is room for are stored. */
class found_pids {
  public:
    found_pids(pid_t *pids, std::size_t capacity)
        : pids_(pids), capacity_(pids != nullptr ? capacity : 0) {}

    void add(pid_t pid) {
        if (count_ < capacity_)
            pids_[count_] = pid;
        count_++;
    }

    int count() const { return static_cast<int>(count_); }

  private:
    pid_t *pids_;
    std::size_t capacity_;
    std::size_t count_ = 0;
};

/* Where a path leads to in the end. */
class resolved_path {
  public:
    explicit resolved_path(const char *path)
        : found_(path != nullptr && realpath(path, text_) != nullptr) {}

    explicit operator bool() const { return found_; }

    /* Whether one of the descriptors in the directory `descriptors` is open on it. */
    bool is_open_in(const proc_path &descriptors) const {
        const unique_dir directory(opendir(descriptors.text));
        if (directory == nullptr)
            return false;
        char link[PATH_MAX];
        while (const dirent *entry = readdir(directory.get())) {
            if (*entry->d_name == '.')
                continue;
            const ssize_t length =
                readlinkat(dirfd(directory.get()), entry->d_name, link, sizeof link - 1);
            if (length != -1 && std::string_view(link, static_cast<std::size_t>(length)) == text_)
                return true;
        }
        return false;
    }

  private:
    char text_[PATH_MAX];
    bool found_;
};

/* A process's arguments, each with a NUL byte behind it. */
unique_fd open_arguments(pid_t pid) {
    return keel::open_uncancelled(proc_path(pid, "cmdline").text, O_RDONLY);
}

bool is_cut(const char *arguments, ssize_t length, std::size_t capacity) {
    return static_cast<std::size_t>(length) == capacity && arguments[length - 1] != '\0';
}

/* The last NUL byte stays, and ends the whole. */
void join_arguments(char *arguments, ssize_t length) {
    if (length > 0 && arguments[length - 1] == '\0')
        length--;
    std::replace(arguments, arguments + length, '\0', ' ');
}

/* The process is called like its program: by the base name of its first word. */
void name_process(proc_info &process) {
    std::string_view word = process.cmdline;
    word = word.substr(0, word.find(' '));
    store_text(process.name, word.substr(word.rfind('/') + 1));
}

bool take_process(const char *text, proc_stat &to) {
    if (*text == '\0')
        return false;
    to.state = static_cast<unsigned char>(*text++);
    return take_numbers(text, to.ppid, to.pgrp, to.session, to.tty_nr, to.tpgid, to.flags,
                        to.minflt, to.cminflt, to.majflt, to.cmajflt, to.utime, to.stime, to.cutime,
                        to.cstime, to.priority, to.nice, to.num_threads, to.itrealvalue,
                        to.starttime, to.vsize, to.rss);
}

/* The ticks from one reading to the next. */
template <class Ticks>
std::int64_t take_delta(Ticks now, Ticks &prev) {
    const auto delta = static_cast<std::int64_t>(static_cast<std::uint64_t>(now) -
                                                 static_cast<std::uint64_t>(prev));
    prev = now;
    return std::max<std::int64_t>(delta, 0);
}

void measure_interval(proc_stat &process) {
    process.delta_utime = take_delta(process.utime, process.prev_utime);
    process.delta_stime = take_delta(process.stime, process.prev_stime);
    process.delta_cutime = take_delta(process.cutime, process.prev_cutime);
    process.delta_cstime = take_delta(process.cstime, process.prev_cstime);
    std::uint64_t total = 0;
    for (const std::int64_t delta :
         {process.delta_utime, process.delta_stime, process.delta_cutime, process.delta_cstime})
        total += static_cast<std::uint64_t>(delta);
    process.delta_total = static_cast<std::int64_t>(total);
}

template <std::size_t Size>
bool read_link(const proc_path &path, char (&target)[Size]) {
    return readlink(path.text, target, Size - 1) != -1;
}

/* When the system was started, in seconds since the epoch; 0 where it does not tell. */
std::uint64_t boot_seconds() {
    const kernel_file file(nullptr, "/proc/stat");
    std::uint64_t seconds = 0;
    if (!file)
        return seconds;
    keel::line_buffer lines;
    while (const char *line = lines.read(file.stream())) {
        char key[8];
        if (!std::string_view(line).starts_with("btime"))
            continue;
        if (take_word(line, key))
            take_number(line, seconds);
        break;
    }
    return seconds;
}

bool java_runs(const char *cmdline, const char *name) {
    static constexpr std::string_view option = " -jar ";
    const char *jar = std::strstr(cmdline, option.data());
    if (jar != nullptr)
        return std::strlen(jar) > option.size() && std::strcmp(jar + option.size(), name) == 0;
    char argument[2048];
    std::snprintf(argument, sizeof argument, " %s", name);
    return std::strstr(cmdline, argument) != nullptr;
}

/* Whether a process, by its command line alone, cannot be called `name`: one read, where a snapshot
 * takes many. Where that read fails the snapshot may say why. */
bool is_surely_not(pid_t pid, const char *name) {
    proc_info process;
    const unique_fd file = open_arguments(pid);
    if (!file)
        return false;
    const ssize_t length = read(file.get(), process.cmdline, sizeof process.cmdline);
    if (length == -1 || is_cut(process.cmdline, length, sizeof process.cmdline))
        return false;
    process.cmdline[std::min<std::size_t>(static_cast<std::size_t>(length),
                                          sizeof process.cmdline - 1)] = '\0';
    join_arguments(process.cmdline, length);
    name_process(process);
    return pname_cmp(&process, name) != 0;
}

bool is_called(pid_t pid, const char *name) {
    proc_info process;
    return !is_surely_not(pid, name) && proc_snapshot(pid, &process) == 0 &&
           pname_cmp(&process, name) == 0;
}

/* ---- The monitor ----------------------------------------------------------------------------- */

/* "name, directory, command", taken apart. */
class process_spec {
  public:
    explicit process_spec(const char *spec) {
        store_text(text_, spec);
        char *rest = nullptr;
        char *token = strtok_r(text_, ",", &rest);
        for (const char **part : {&name, &cwd, &cmdline}) {
            if (token == nullptr)
                return;
            *part = strtrim2(token);
            token = strtok_r(nullptr, ",", &rest);
        }
    }
    process_spec(const process_spec &) = delete;
    process_spec &operator=(const process_spec &) = delete;

    const char *name = "";
    const char *cwd = "";
    const char *cmdline = "";

  private:
    char text_[2048];
};

proc_node *find_node(const proc_list &list, const char *name) {
    proc_node *node = list.match != nullptr ? list.head : nullptr;
    while (node != nullptr && list.match(&name, &node->data) != 0)
        node = node->next;
    return node;
}

/* Puts a node before `next`, at the end where that is null. */
void insert_node(proc_list &list, proc_node *node, proc_node *next) {
    node->next = next;
    node->prev = next != nullptr ? next->prev : list.tail;
    (node->prev != nullptr ? node->prev->next : list.head) = node;
    (next != nullptr ? next->prev : list.tail) = node;
    list.count++;
}

void unlink_node(proc_list &list, const proc_node *node) {
    (node->prev != nullptr ? node->prev->next : list.head) = node->next;
    (node->next != nullptr ? node->next->prev : list.tail) = node->prev;
    list.count--;
}

void delete_node(const proc_list &list, proc_node *node) {
    if (list.free != nullptr)
        list.free(&node->data);
    std::free(node);
}

template <class Block>
Block *new_block(const char *function) {
    auto *block = static_cast<Block *>(std::calloc(1, sizeof(Block)));
    if (block == nullptr)
        keel::end_explained(function);
    return block;
}

int create_item(proc_list &list, const process_spec &spec) {
    auto *item = static_cast<proc_monitor_item *>(xcalloc(0, sizeof(proc_monitor_item)));
    store_text(item->name, spec.name);
    store_text(item->info.cwd, spec.cwd);
    store_text(item->info.cmdline, spec.cmdline);
    auto *node = new_block<proc_node>("proc_monitor_operate");
    if (list.copy != nullptr)
        list.copy(&node->data, item);
    else
        node->data = item;
    proc_node *next = list.order != nullptr ? list.head : nullptr;
    while (next != nullptr && list.order(&node->data, &next->data) > 0)
        next = next->next;
    insert_node(list, node, next);
    return 0;
}

/* Results of operations, and indices of their messages. */
enum result {
    done,
    failed_restart,
    failed_start,
    failed_stop,
    is_running = 6,
    is_stopped,
    does_not_exist,
    exists,
    wrong
};

int start_settled(proc_monitor_item &item, int failed) {
    return proc_start(&item) == 0 ? done : failed;
}

int restart(proc_monitor_item &item) {
    if (item.run_status != PROC_RUNNING && item.run_status != PROC_NOT_RUNNING)
        return failed_restart;
    if (item.run_status == PROC_RUNNING && proc_stop(item.info.pid) != 0)
        return failed_restart;
    return start_settled(item, failed_restart);
}

int start(proc_monitor_item &item) {
    switch (item.run_status) {
    case PROC_UNKNOWN:
    case PROC_STOPPED:
        return failed_start;
    case PROC_RESTARTED:
    case PROC_STARTED:
    case PROC_RUNNING:
        return is_running;
    case PROC_NOT_RUNNING:
        return start_settled(item, failed_start);
    default:
        return exists;
    }
}

int stop(const proc_monitor_item &item) {
    switch (item.run_status) {
    case PROC_UNKNOWN:
    case PROC_RESTARTED:
    case PROC_STARTED:
        return failed_stop;
    case PROC_STOPPED:
    case PROC_NOT_RUNNING:
        return is_stopped;
    case PROC_RUNNING:
        return proc_stop(item.info.pid) == 0 ? done : failed_stop;
    default:
        return exists;
    }
}

int operate_on(proc_list &list, proc_node *node, unsigned op) {
    auto &item = *static_cast<proc_monitor_item *>(node->data);
    switch (op) {
    case PROC_OP_RESTART:
        return restart(item);
    case PROC_OP_START:
        return start(item);
    case PROC_OP_STOP:
        return stop(item);
    case PROC_OP_CREATE:
        return exists;
    case PROC_OP_REMOVE:
        unlink_node(list, node);
        delete_node(list, node);
        return done;
    default:
        return done;
    }
}

/* Takes a line of the configuration. A separator of NUL stands in no line. */
void configure(proc_monitor &monitor, char *line, char separator) {
    line[std::strcspn(line, "#")] = '\0';
    strtrim4(line, separator);
    char *cut = separator != '\0' ? std::strchr(line, separator) : nullptr;
    if (cut == nullptr)
        return;
    *cut = '\0';
    const char *spec = cut + 1;
    if (std::string_view(line).starts_with("proc") &&
        proc_monitor_operate(&monitor, spec, PROC_OP_CREATE) != done)
        keel::announce(stderr, "proc%c%s already exist.\n", separator, spec);
}

void refresh(proc_monitor_item &item) {
    const std::int32_t before = item.info.pid;
    pid_t pid = 0;
    if (find_pid_by_name(item.name, &pid, 1) < 1 || proc_snapshot(pid, &item.info) != 0) {
        item.info.state = 0;
        item.info.pid = 0;
        item.info.start_time = 0;
    }
    item.run_status = static_cast<std::uint32_t>(proc_run_status(item.info.pid, before));
}

} // namespace

int uptime1(uptime_val *out) {
    if (out == nullptr)
        return -1;
    char line[512] = "";
    const kernel_file file(nullptr, "/proc/uptime");
    if (!file || std::fgets(line, sizeof line, file.stream()) == nullptr)
        return -1;
    std::int64_t seconds = 0;
    std::int64_t fraction = 0;
    if (std::sscanf(line, "%" SCNd64 ".%" SCNd64, &seconds, &fraction) != 2)
        return -1;
    out->sec = seconds;
    out->nsec = static_cast<std::int64_t>(static_cast<std::uint64_t>(fraction) * 1'000'000);
    return 0;
}

int boottime1(boot_time *out) {
    uptime_val up{};
    timespec now{};
    if (out == nullptr || uptime1(&up) == -1 || clock_gettime(CLOCK_REALTIME, &now) == -1)
        return -1;
    const bool borrows = now.tv_nsec < up.nsec;
    out->sec = difference(now.tv_sec - (borrows ? 1 : 0), up.sec);
    out->nsec = difference(now.tv_nsec + (borrows ? 1'000'000'000 : 0), up.nsec);
    return 0;
}

int cpuinfo(FILE *fp, std::uint64_t *count) {
    if (count == nullptr)
        return -1;
    kernel_file file(fp, "/proc/cpuinfo");
    if (!file)
        return -1;
    *count = 0;
    for (kernel_line line; file.next(line);)
        *count += std::string_view(line).starts_with("processor\t:");
    return 0;
}

int cpustat(FILE *fp, cpu_stat *out) {
    if (out == nullptr)
        return -1;
    kernel_file file(fp, "/proc/stat");
    if (!file)
        return -1;
    *out = {};
    for (kernel_line line; file.next(line);) {
        if (!std::string_view(line).starts_with("cpu "))
            continue;
        const char *text = line + 4;
        take_numbers(text, out->user, out->nice, out->system, out->idle, out->iowait, out->irq,
                     out->softirq, out->steal, out->guest);
        break;
    }
    return 0;
}

int meminfo(FILE *fp, mem_stat *out) {
    if (out == nullptr)
        return -1;
    kernel_file file(fp, "/proc/meminfo");
    if (!file)
        return -1;
    *out = {};
    const mem_figure figures[] = {{"Buffers", &out->buffers},    {"Cached", &out->cached},
                                  {"MemFree", &out->mem_free},   {"MemTotal", &out->mem_total},
                                  {"SwapFree", &out->swap_free}, {"SwapTotal", &out->swap_total}};
    for (kernel_line line; file.next(line);)
        store_figure(line, figures);
    out->mem_used = out->mem_total - out->mem_free;
    out->swap_used = out->swap_total - out->swap_free;
    return 0;
}

int net_dev(FILE *fp, net_dev_stat *arr, std::size_t cap, char **names, std::size_t nnames) {
    kernel_file file(fp, "/proc/net/dev");
    if (!file)
        return -1;
    const std::span<char *const> wanted(names, names != nullptr ? nnames : 0);
    const std::size_t capacity = arr != nullptr ? cap : 0;
    std::size_t count = 0;
    for (kernel_line line; file.next(line);) {
        if (std::strchr(line, ':') == nullptr || std::strstr(line, "lo") != nullptr)
            continue;
        if (count < capacity) {
            net_dev_stat &record = arr[count];
            take_traffic(line, record);
            record.name[sizeof record.name - 1] = '\0'; // in a record that was never zeroed
            strtrim1(record.name);
            if (!wanted.empty() && !is_any_of(record.name, wanted))
                continue;
            take_state(record);
        }
        count++;
    }
    return static_cast<int>(count);
}

int net_dev_info(FILE *fp, const char *ifname, net_dev_stat *out) {
    if (ifname == nullptr || out == nullptr)
        return -1;
    kernel_file file(fp, "/proc/net/dev");
    if (!file)
        return -1;
    char key[18];
    std::snprintf(key, sizeof key, "%s:", ifname);
    for (kernel_line line; file.next(line);)
        if (std::strchr(line, ':') != nullptr &&
            std::string_view(strtrim1(line)).starts_with(key)) {
            take_traffic(line, *out);
            return 0;
        }
    return -1;
}

int diskstats(FILE *fp, disk_stat *arr, std::size_t cap) {
    kernel_file file(fp, "/proc/diskstats");
    if (!file)
        return -1;
    const std::size_t capacity = arr != nullptr ? cap : 0;
    std::fill_n(arr, capacity, disk_stat{});
    std::size_t count = 0;
    for (kernel_line line; file.next(line);) {
        disk_stat disk{};
        take_disk(line, disk);
        if (disk.reads == 0 || diskstats_valid(disk.major, static_cast<int>(disk.minor)) == 0)
            continue;
        if (count < capacity)
            arr[count] = disk;
        count++;
    }
    return static_cast<int>(count);
}

int fstab(mount_stat *arr, std::size_t cap) {
    const unique_mount_table table = open_mount_table();
    if (table == nullptr)
        return -1;
    const std::size_t capacity = arr != nullptr ? cap : 0;
    mount_stat scratch;
    std::size_t count = 0;
    for (;;) {
        mount_stat &record = count < capacity ? arr[count] : scratch;
        record = {};
        if (getmntent_r(table.get(), &record.ent, record.strbuf, sizeof record.strbuf) == nullptr)
            break;
        if (statfs(record.ent.mnt_dir, &record.fs) == 0 && record.fs.f_blocks != 0)
            count++;
    }
    return static_cast<int>(capacity != 0 ? std::min(count, capacity) : count);
}

int get_system_stat() {
    read_cpus();
    read_uptime();
    read_memory();
    if (fp_proc_cpuinfo == nullptr)
        count_processors();
    return 0;
}

int fuser(const char *path, pid_t *pids, std::size_t cap) {
    const resolved_path file(path);
    if (!file)
        return -1;
    found_pids found(pids, cap);
    for (process_walk walk; walk.next();)
        if (file.is_open_in({walk.pid(), "fd"}))
            found.add(walk.pid());
    return found.count();
}

int finuse(const char *path) {
    const resolved_path file(path);
    if (!file)
        return -1;
    for (process_walk walk; walk.next();)
        if (file.is_open_in({walk.name(), "fd"}))
            return 1;
    return 0;
}

char *get_cmdline_by_pid(pid_t pid, char *buffer, std::size_t capacity) {
    if (pid < 1 || buffer == nullptr || capacity == 0) {
        keel::announce(stderr, "%s: illegal parameter.\n", __func__);
        return nullptr;
    }
    const unique_fd file = open_arguments(pid);
    if (!file) {
        keel::explain("get_cmdline_by_pid OPEN");
        return nullptr;
    }
    std::memset(buffer, 0, capacity);
    const ssize_t length = read(file.get(), buffer, capacity);
    if (length == -1) {
        keel::explain("get_cmdline_by_pid READ");
        return nullptr;
    }
    if (is_cut(buffer, length, capacity)) {
        keel::announce(stderr, "%s READ: buffer too small.\n", __func__);
        return nullptr;
    }
    join_arguments(buffer, length);
    return buffer;
}

int get_stat_by_pid(pid_t pid, proc_stat *st) {
    if (st == nullptr)
        return -1;
    const kernel_file file(nullptr, proc_path(pid, "stat").text);
    keel::line_buffer lines;
    const char *line = file ? lines.read(file.stream()) : nullptr;
    const char *name_end = line != nullptr ? std::strchr(line, ')') : nullptr;
    if (name_end == nullptr)
        return -1;
    if (!take_process(name_end + strnlen(name_end, 2), *st))
        return 1;
    measure_interval(*st);
    return 0;
}

int proc_snapshot(pid_t pid, proc_info *out) {
    proc_info process{};
    proc_stat stat{};
    if (pid < 1 || out == nullptr || !read_link({pid, "cwd"}, process.cwd) ||
        !read_link({pid, "exe"}, process.exe) ||
        get_cmdline_by_pid(pid, process.cmdline, sizeof process.cmdline) == nullptr ||
        get_stat_by_pid(pid, &stat) != 0)
        return -1;
    name_process(process);
    process.state = stat.state;
    process.pid = pid;
    process.start_time =
        stat.starttime / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK)) + boot_seconds();
    *out = process;
    return 0;
}

int pname_cmp(const proc_info *p, const char *name) {
    if (p == nullptr || name == nullptr)
        return -1;
    const bool matches = std::strcmp(p->name, "java") == 0 ? java_runs(p->cmdline, name)
                                                           : std::strcmp(p->name, name) == 0;
    return matches ? 0 : -1;
}

int find_pid_by_name(const char *name, pid_t *pids, std::size_t cap) {
    found_pids found(pids, cap);
    for (process_walk walk; walk.next();)
        if (is_called(walk.pid(), name))
            found.add(walk.pid());
    return found.count();
}

int pkill(const char *name) {
    int count = 0;
    for (process_walk walk; walk.next();) {
        const pid_t pid = walk.pid();
        if (!is_called(pid, name))
            continue;
        count++;
        for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGKILL})
            kill(pid, signal);
    }
    return count;
}

int get_process_stat(proc_stat *st, const sys_stat *sys, int mode) {
    if (st == nullptr || sys == nullptr)
        return 0;
    const auto hz = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    const long page_kb = sysconf(_SC_PAGESIZE) / 1024;
    const bool fits = sys->uptime >= 0 && sys->uptime < 0x1p64; // "not a number" does not
    st->run_seconds = (fits ? static_cast<std::uint64_t>(sys->uptime) : 0) - st->starttime / hz;
    st->mem_usage = static_cast<double>(st->rss) * 100.0 * static_cast<double>(page_kb) /
                    static_cast<double>(sys->mem_total);
    st->cpu_usage = 0;
    if (mode == 0)
        st->cpu_usage =
            static_cast<double>(sys->nprocessors) *
            (static_cast<double>(st->delta_total) * 100.0 / static_cast<double>(sys->cpu[0].total));
    if (mode == 1 && st->run_seconds != 0) {
        const std::uint64_t seconds =
            (st->utime + st->stime + static_cast<std::uint64_t>(st->cutime) +
             static_cast<std::uint64_t>(st->cstime)) /
            hz;
        st->cpu_usage = 100.0 * static_cast<double>(seconds) / static_cast<double>(st->run_seconds);
    }
    return 0;
}

int proc_monitor_init(proc_monitor *m, const char *path, char sep) {
    if (m == nullptr)
        return -1;
    const unique_file file = keel::open_to_read(path);
    if (file == nullptr)
        return -1;
    m->list = new_block<proc_list>("proc_monitor_init");
    m->list->match = proc_info_compar;
    m->list->free = proc_info_free;
    m->destroy = proc_monitor_destroy;
    m->refresh = proc_monitor_refresh;
    m->search = proc_monitor_search;
    m->operate = proc_monitor_operate;
    for (kernel_line line; std::fgets(line, sizeof line, file.get()) != nullptr;)
        configure(*m, line, sep);
    return 0;
}

int proc_monitor_destroy(proc_monitor *m) {
    if (m == nullptr || m->list == nullptr)
        return 0;
    proc_node *next = nullptr;
    for (proc_node *node = m->list->head; node != nullptr; node = next) {
        next = node->next;
        delete_node(*m->list, node);
    }
    std::free(std::exchange(m->list, nullptr));
    return 0;
}

int proc_monitor_refresh(proc_monitor *m) {
    if (m == nullptr || m->list == nullptr)
        return 0;
    for (proc_node *node = m->list->head; node != nullptr; node = node->next)
        refresh(*static_cast<proc_monitor_item *>(node->data));
    return 0;
}

proc_monitor_item *proc_monitor_search(proc_monitor *m, const char *name) {
    if (m == nullptr || m->list == nullptr || name == nullptr)
        return nullptr;
    const proc_node *node = find_node(*m->list, name);
    return node != nullptr ? static_cast<proc_monitor_item *>(node->data) : nullptr;
}

int proc_monitor_operate(proc_monitor *m, const char *spec, unsigned op) {
    if (m == nullptr || m->list == nullptr || spec == nullptr)
        return wrong;
    const process_spec parts(spec);
    if (*parts.name == '\0')
        return wrong;
    proc_node *node = find_node(*m->list, parts.name);
    if (node != nullptr)
        return operate_on(*m->list, node, op);
    return op == PROC_OP_CREATE ? create_item(*m->list, parts) : does_not_exist;
}

int proc_run_status(int now_pid, int prev_pid) {
    if (now_pid == prev_pid)
        return now_pid != 0 ? PROC_RUNNING : PROC_NOT_RUNNING;
    if (prev_pid == 0)
        return PROC_STARTED;
    return now_pid == 0 ? PROC_STOPPED : PROC_RESTARTED;
}

int proc_start(proc_monitor_item *item) {
    if (item == nullptr || *item->info.cwd == '\0' || *item->info.cmdline == '\0')
        return -1;
    char command[2048];
    const int length =
        std::snprintf(command, sizeof command, "%s/%s", item->info.cwd, item->info.cmdline);
    if (length >= static_cast<int>(sizeof command)) // another command than the one that was meant
        return -1;
    const keel::cancel_shield shield; // a cancelled wait would leave the process behind
    FILE *process = popen(command, "re");
    return process != nullptr ? pclose(process) : -1;
}

int proc_stop(pid_t pid) {
    return kill(pid, SIGKILL);
}

int proc_info_compar(const void *a, const void *b) {
    return std::strcmp(*static_cast<const char *const *>(a), *static_cast<const char *const *>(b));
}

void proc_info_free(void **p) {
    xfree(0, *p);
}

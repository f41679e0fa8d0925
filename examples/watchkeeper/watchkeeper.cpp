/* SPDX-License-Identifier: MIT */
/*
 * watchkeeper - the watch on a host.
 *
 * Every few seconds it takes a snapshot of the host and logs one line: how busy each processor is,
 * how full memory and swap are, how long the host has been up. Less often it sums up what it saw,
 * and deletes the oldest files of directories whose disk is too full. A timer has its pooled
 * workers do all that, and reports on standard output. It supervises other processes: their changes
 * of state are logged, and what is absent is started. Over UDP it answers "status", "rotate" and
 * "ping" of those whom it trusts, and sends a sign of life. SIGTERM and SIGINT end the service, and
 * the log is archived. `watchkeeper --help` shows the usage, watchkeeper.ini beside this file the
 * settings, which `watchkeeper --set` changes.
 */
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cinttypes>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <getopt.h>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include <xconf.h>
#include <xfsproc.h>
#include <xgetopt.h>
#include <xini.h>
#include <xlog.h>
#include <xsocket.h>
#include <xstring.h>
#include <xtime.h>
#include <xudpcomm.h>

namespace {

constexpr int bad_usage = 2;

enum level : std::uint32_t { critical = 0x4, warning = 0x10, notice = 0x20, info = 0x40 };

struct thresholds {
    long cpu;
    long memory;
    long swap;
};

/* Seconds from one run of each task to the next. */
struct intervals {
    long snapshot = 1;
    long summary = 60;
    long cleanup = 60;
    long heartbeat = 10;
    long watch = 1;
};

/* Which processes are supervised, and how eagerly they are started. */
struct supervision {
    std::string processes; /* the file that names them; none where this is empty */
    long starts = 6;       /* of one process in a minute, at most */
    long pause = 2;        /* seconds behind a start; twice as long behind each further one */
};

/* An IPv4 address and a port; "no_place" where nothing was given. */
using place = sockaddr_in;
constexpr place no_place{};

bool is_given(const place &where) {
    return where.sin_family == AF_INET;
}

struct clean_directory {
    std::string path;
    fs_limit limit;
};

struct settings {
    intervals tasks;
    std::string directory = "log";
    log_conf log{};
    thresholds warn{80, 85, 50};
    thresholds crit{101, 95, 90};
    std::vector<clean_directory> cleanup{};
    supervision watch{};
    place listen = no_place;
    place heartbeat = no_place;
    std::vector<in_addr_t> allowed{htonl(INADDR_LOOPBACK)};
};

[[noreturn]] [[gnu::format(printf, 1, 2)]] void complain(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::fputs("watchkeeper: ", stderr);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
    std::exit(bad_usage);
}

/* ---- Settings ------------------------------------------------------------------------------- */

/* Decimal, or hexadecimal behind "0x". */
long number(const char *what, const char *text, long low, long high) {
    char *end = nullptr;
    const long value = std::strtol(text, &end, std::strncmp(text, "0x", 2) == 0 ? 16 : 10);
    if (end == text || *end != '\0' || value < low || value > high)
        complain("%s = \"%s\" is not a number from %ld to %ld", what, text, low, high);
    return value;
}

std::int32_t language(const char *text) {
    if (std::strcmp(text, "english") != 0 && std::strcmp(text, "chinese") != 0)
        complain("log::language = \"%s\" is neither english nor chinese", text);
    return text[0] == 'c' ? 1 : 0;
}

/* Limits of a directory, such as "90 %, 1.5 GB, 7 days": the highest use of its disk, the lowest
 * free space there, how young a file is kept at least. */
fs_limit limits(const ini_entry &entry) {
    fs_limit limit{};
    std::istringstream fields(entry.value);
    for (std::string field; std::getline(fields, field, ',');) {
        float amount = -1;
        char unit[8] = "";
        std::sscanf(field.c_str(), "%f %7s", &amount, unit);
        if (amount >= 0 && amount <= 100 && std::strcmp(unit, "%") == 0) {
            limit.flags |= FS_LIMIT_USAGE;
            limit.max_usage = static_cast<std::uint32_t>(amount);
        } else if (amount >= 0 && std::strcmp(unit, "GB") == 0) {
            limit.flags |= FS_LIMIT_FREE;
            limit.min_free = amount;
        } else if (amount >= 0 && std::strcmp(unit, "days") == 0) {
            limit.flags |= FS_LIMIT_AGE;
            limit.min_age = amount;
        } else {
            complain("%s = \"%s\" is not like \"90 %%, 1.5 GB, 7 days\"", entry.key, entry.value);
        }
    }
    return limit;
}

/* "ADDRESS:PORT". */
place address_and_port(const char *what, const char *text) {
    char ip[16] = "";
    unsigned short port = 0;
    int length = 0;
    in_addr checked{};
    if (std::sscanf(text, "%15[0-9.]:%hu%n", ip, &port, &length) != 2 || text[length] != '\0' ||
        inet_pton(AF_INET, ip, &checked) != 1)
        complain("%s = \"%s\" is not like 127.0.0.1:7400", what, text);
    xsockaddr made{};
    socket_addr(&made.sa, AF_INET, ip, port);
    return made.in;
}

/* Addresses between commas. */
std::vector<in_addr_t> addresses(const ini_entry &entry) {
    std::vector<in_addr_t> all;
    std::istringstream list(entry.value);
    for (std::string one; std::getline(list, one, ',');) {
        in_addr address{};
        if (inet_pton(AF_INET, strtrim1(one.data()), &address) != 1)
            complain("%s = \"%s\" is not like 127.0.0.1, 10.0.0.5", entry.key, entry.value);
        all.push_back(address.s_addr);
    }
    return all;
}

/* Takes one entry of the settings file. A name that nobody knows is a slip of the pen, and better
 * said than ignored. */
void take(settings &to, const ini_entry &entry) {
    const std::string key = entry.key;
    const auto value = [&](long low, long high) {
        return number(entry.key, entry.value, low, high);
    };
    if (key == "tasks::snapshot")
        to.tasks.snapshot = value(1, 86400);
    else if (key == "tasks::summary")
        to.tasks.summary = value(1, 86400);
    else if (key == "cleanup::interval")
        to.tasks.cleanup = value(1, 86400);
    else if (key.starts_with("cleanup::/"))
        to.cleanup.push_back({key.substr(std::strlen("cleanup::")), limits(entry)});
    else if (key == "watch::processes")
        to.watch.processes = entry.value;
    else if (key == "watch::interval")
        to.tasks.watch = value(1, 86400);
    else if (key == "watch::starts")
        to.watch.starts = value(1, 60);
    else if (key == "watch::pause")
        to.watch.pause = value(1, 3600);
    else if (key == "remote::listen")
        to.listen = address_and_port(entry.key, entry.value);
    else if (key == "remote::allow")
        to.allowed = addresses(entry);
    else if (key == "remote::heartbeat")
        to.heartbeat = address_and_port(entry.key, entry.value);
    else if (key == "remote::interval")
        to.tasks.heartbeat = value(1, 86400);
    else if (key == "log::directory")
        to.directory = entry.value;
    else if (key == "log::levels")
        to.log.mask = static_cast<std::uint64_t>(value(0, 0xffffffff));
    else if (key == "log::records")
        to.log.wrmax = static_cast<std::uint64_t>(value(1000, 30000));
    else if (key == "log::language")
        to.log.lang = language(entry.value);
    else if (key == "warning::cpu")
        to.warn.cpu = value(0, 101);
    else if (key == "warning::memory")
        to.warn.memory = value(0, 101);
    else if (key == "warning::swap")
        to.warn.swap = value(0, 101);
    else if (key == "critical::cpu")
        to.crit.cpu = value(0, 101);
    else if (key == "critical::memory")
        to.crit.memory = value(0, 101);
    else if (key == "critical::swap")
        to.crit.swap = value(0, 101);
    else
        complain("there is no setting \"%s\"", entry.key);
}

settings read_settings(const char *path) {
    ini_table file = {nullptr, 0};
    if (fexist(path, 1) == 0 || ini_load(&file, path, "=") == -1)
        complain("cannot read the settings in \"%s\"", path);
    settings read;
    read.log.mask = 0xff;
    read.log.wrmax = 5000;
    read.log.flags = LOG_CONF_MASK | LOG_CONF_WRMAX | LOG_CONF_LANG;
    std::for_each_n(file.entries, file.count, [&](const ini_entry &entry) { take(read, entry); });
    ini_unload(&file);
    if (fexist(read.directory.c_str(), 1) != 0)
        complain("log::directory = \"%s\" is not a directory", read.directory.c_str());
    for (const clean_directory &clean : read.cleanup)
        if (fexist(clean.path.c_str(), 1) != 0)
            complain("cleanup::%s is not a directory", clean.path.c_str());
    const std::string &processes = read.watch.processes;
    if (!processes.empty() && fexist(processes.c_str(), 0) != 0)
        complain("watch::processes = \"%s\" is not a file", processes.c_str());
    return read;
}

/* ---- Changing a setting --------------------------------------------------------------------- */

/* A setting as it is given with --set: "section.key=value". */
struct new_setting {
    std::string section;
    std::string key;
    std::string value;

    explicit new_setting(const std::string &text) {
        const std::size_t dot = text.find('.');
        const std::size_t equals = text.find('=', dot);
        if (dot == text.npos || equals == text.npos || text.find_first_of("#\n") != text.npos)
            complain("--set \"%s\" is not like \"section.key=value\"", text.c_str());
        section = text.substr(0, dot);
        key = text.substr(dot + 1, equals - dot - 1);
        value = text.substr(equals + 1);
    }
};

std::string trimmed(std::string_view text) {
    std::string copy(text);
    return strtrim2(copy.data());
}

/* The lines of a settings file, to be changed where they stand: comments and the order stay. */
class settings_lines {
  public:
    explicit settings_lines(std::istream &file) {
        for (std::string line; std::getline(file, line);)
            lines_.push_back(line);
    }

    void set(const new_setting &setting) {
        std::size_t last = 0; /* behind the last line of the section that is not blank */
        bool inside = false;
        bool found = false;
        for (std::size_t i = 0; i < lines_.size(); i++) {
            const std::string line = trimmed(without_comment(lines_[i]));
            if (line.starts_with('[') || line.starts_with('{'))
                inside = line.substr(1, line.find_first_of("]}") - 1) == setting.section;
            if (!inside || trimmed(lines_[i]).empty())
                continue;
            last = i + 1;
            const std::size_t equals = line.find('=');
            if (equals != line.npos && trimmed(line.substr(0, equals)) == setting.key) {
                replace_value(lines_[i], setting.value);
                found = true;
            }
        }
        if (found)
            return;
        if (last == 0) {
            lines_.insert(lines_.end(), {"", '[' + setting.section + ']'});
            last = lines_.size();
        }
        lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(last),
                      setting.key + " = " + setting.value);
    }

    std::string text() const {
        std::string all;
        for (const std::string &line : lines_)
            all += line + '\n';
        return all;
    }

  private:
    static std::string_view without_comment(std::string_view line) {
        return line.substr(0, line.find('#'));
    }

    /* A comment behind the value keeps its column where there is room. */
    static void replace_value(std::string &line, const std::string &value) {
        const std::size_t comment = line.find('#');
        std::string changed = line.substr(0, line.find('=') + 1) + ' ' + value;
        if (comment != line.npos) {
            changed.resize(std::max(changed.size() + 1, comment), ' ');
            changed += line.substr(comment);
        }
        line = changed;
    }

    std::vector<std::string> lines_;
};

/* Changes settings in their file. The new file is whole and on the disk before it takes the old
 * one's place. */
void change_settings(const char *path, const std::vector<new_setting> &changes) {
    for (const new_setting &change : changes) {
        settings checked;
        std::string key = change.section + "::" + change.key;
        std::string value = change.value;
        take(checked, {key.data(), value.data()});
    }
    std::ifstream file(path);
    settings_lines lines(file);
    if (fexist(path, 0) != 0 || !file.eof())
        complain("cannot read the settings in \"%s\"", path);
    for (const new_setting &change : changes)
        lines.set(change);
    const std::string text = lines.text();
    const std::string side = std::string(path) + ".new";
    if (file_cover(side.c_str(), "%s", text.c_str()) != static_cast<int>(text.size()) ||
        std::rename(side.c_str(), path) != 0)
        complain("cannot change \"%s\": %s", path, strerror(errno));
}

/* ---- The log -------------------------------------------------------------------------------- */

/* Open for as long as it lives. Any thread writes; rotate() archives the file and begins a new one,
 * for which nobody may write. */
class journal {
  public:
    journal(char **arguments, const settings &set)
        : arguments_(arguments), directory_(set.directory), conf_(set.log) {
        if (log_init(arguments_, directory_.c_str(), &conf_) == -1)
            complain("cannot log in \"%s\"", directory_.c_str());
    }
    ~journal() { log_destroy(); }
    journal(const journal &) = delete;
    journal &operator=(const journal &) = delete;

    [[gnu::format(printf, 3, 4)]] void write(level level, const char *format, ...) {
        char *text = nullptr;
        va_list arguments;
        va_start(arguments, format);
        const int length = vasprintf(&text, format, arguments);
        va_end(arguments);
        const std::unique_ptr<char, decltype(&std::free)> owner(length < 0 ? nullptr : text,
                                                                &std::free);
        const std::shared_lock writing(lock_);
        if (owner != nullptr)
            log_print(0, level, "%s", owner.get());
    }

    bool rotate() {
        const std::unique_lock nobody_writes(lock_);
        log_destroy();
        return log_init(arguments_, directory_.c_str(), &conf_) == 0;
    }

  private:
    char **arguments_;
    std::string directory_;
    log_conf conf_;
    std::shared_mutex lock_;
};

/* ---- The watch ------------------------------------------------------------------------------ */

std::int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1000} + now.tv_nsec / 1'000'000;
}

/* A supervised process, as the status shows it. */
struct watched {
    std::string name;
    std::uint32_t status = PROC_UNKNOWN;
    pid_t pid = 0;
    proc_stat use{};
};

/* What the tasks share. A task that takes longer than its interval runs beside itself, and the
 * library's snapshot is for one thread at a time. */
struct watch {
    const settings &set;
    journal &log;
    const std::int64_t begin = monotonic_ms();
    std::mutex lock{};
    std::uint64_t looks = 0;
    double busiest_cpu = 0; /* since the last summary */
    double fullest_memory = 0;
    std::vector<watched> processes{};
    std::mutex cleaning{};
    udpcomm *endpoint = nullptr;
    std::atomic<std::uint64_t> answered = 0;
    std::atomic<std::uint64_t> ignored = 0;
};

double busiest_cpu() {
    double busiest = 0;
    for (std::uint64_t i = 1; i < ss.ncpu; i++)
        busiest = std::max(busiest, ss.cpu[i].usage);
    return busiest;
}

/* A host without swap has no percentage of it in use; "not a number" reaches no threshold. */
bool reached(const thresholds &limits) {
    return busiest_cpu() >= static_cast<double>(limits.cpu) ||
           ss.mem_usage >= static_cast<double>(limits.memory) ||
           ss.swap_usage >= static_cast<double>(limits.swap);
}

level level_of_snapshot(const settings &set) {
    if (reached(set.crit))
        return critical;
    return reached(set.warn) ? warning : info;
}

/* A line that is put together; a task that is cancelled meanwhile frees it. */
struct line {
    ~line() { std::free(text); }
    char *text = nullptr;
};

void describe_uptime(line &to, std::uint64_t seconds) {
    astrcatf(&to.text, "up %" PRIu64 "d %02" PRIu64 ":%02" PRIu64 ":%02" PRIu64, seconds / 86400,
             seconds / 3600 % 24, seconds / 60 % 60, seconds % 60);
}

void describe_snapshot(line &to) {
    astrcatf(&to.text, "cpu %.1f%%", ss.cpu[0].usage);
    for (std::uint64_t i = 1; i < ss.ncpu; i++)
        astrcatf(&to.text, ", %s %.1f%%", ss.cpu[i].name, ss.cpu[i].usage);
    const auto gigabytes = [](std::uint64_t kilobytes) {
        return static_cast<double>(kilobytes) / (1024 * 1024);
    };
    astrcatf(&to.text, "; memory %.1f%% of %.1f GB", ss.mem_usage, gigabytes(ss.mem_total));
    if (std::isnan(ss.swap_usage))
        astrcatf(&to.text, "; no swap");
    else
        astrcatf(&to.text, "; swap %.1f%% of %.1f GB", ss.swap_usage, gigabytes(ss.swap_total));
    astrcatf(&to.text, "; ");
    describe_uptime(to, static_cast<std::uint64_t>(ss.uptime));
}

/* What the processes use is measured over the same time as the processors, and so right behind it.
 */
void measure(std::vector<watched> &processes) {
    for (watched &process : processes)
        if (process.pid != 0 && get_stat_by_pid(process.pid, &process.use) == 0)
            get_process_stat(&process.use, &ss, 0);
}

/* Task: a look at the host. */
void *snapshot(void *watch_) {
    watch &self = *static_cast<watch *>(watch_);
    const std::lock_guard guard(self.lock);
    get_system_stat();
    measure(self.processes);
    line described;
    describe_snapshot(described);
    const bool first = self.looks++ == 0;
    if (!first) // whose processors are counted since the host was started
        self.busiest_cpu = std::max(self.busiest_cpu, busiest_cpu());
    self.fullest_memory = std::max(self.fullest_memory, ss.mem_usage);
    self.log.write(level_of_snapshot(self.set), "%s%s", described.text,
                   first ? " (processors since boot)" : "");
    return nullptr;
}

/* Task: what was seen since its last run. */
void *summary(void *watch_) {
    watch &self = *static_cast<watch *>(watch_);
    const std::lock_guard guard(self.lock);
    self.log.write(info,
                   "%" PRIu64 " looks so far; since the last summary the busiest processor "
                   "was at %.1f%%, memory at %.1f%%",
                   self.looks, self.busiest_cpu, self.fullest_memory);
    self.busiest_cpu = 0;
    self.fullest_memory = 0;
    return nullptr;
}

/* Makes room on the disk of one directory, and tells what came of it. */
void clean_up(journal &log, const clean_directory &clean) {
    const char *path = clean.path.c_str();
    unsigned before = 0;
    unsigned after = 0;
    float free_gb = 0;
    if (get_fs_info(path, &before, &free_gb) == -1) {
        log.write(warning, "cannot measure the disk of %s", path);
        return;
    }
    if (check_fs_info(path, &clean.limit) == 0)
        return;
    const int result = fcleanup(path, &clean.limit);
    get_fs_info(path, &after, &free_gb);
    log.write(result == 0 ? notice : warning,
              "%s %s: its disk was %u%% full and is %u%%, %.1f GB free",
              result == 0 ? "cleaned up" : "cannot make room in", path, before, after,
              static_cast<double>(free_gb));
}

/* Task: clean-ups. The library does one at a time; a run that meets another one leaves it to it. */
void *clean_directories(void *watch_) {
    watch &self = *static_cast<watch *>(watch_);
    const std::unique_lock guard(self.cleaning, std::try_to_lock);
    if (guard.owns_lock())
        for (const clean_directory &clean : self.set.cleanup)
            clean_up(self.log, clean);
    return nullptr;
}

/* ---- Supervision ---------------------------------------------------------------------------- */

constexpr const char *status_words[] = {"unknown", "restarted", "started",
                                        "stopped", "running",   "not running"};

/* When one process may be started again: less and less often while it does not stay. */
class pacing {
  public:
    bool permits(std::int64_t now, const supervision &set) {
        while (!starts_.empty() && now - starts_.front() >= minute)
            starts_.pop_front();
        return now >= next_ && std::ssize(starts_) < set.starts;
    }

    /* Tells the pause in seconds. */
    long started(std::int64_t now, const supervision &set) {
        pause_ = pause_ == 0 ? set.pause : std::min(2 * pause_, longest_pause);
        next_ = now + pause_ * 1000;
        starts_.push_back(now);
        return pause_;
    }

    void runs(std::int64_t now) {
        if (now - next_ >= minute)
            pause_ = 0;
    }

  private:
    static constexpr std::int64_t minute = 60'000;
    static constexpr long longest_pause = 3600;

    std::deque<std::int64_t> starts_; /* in the last minute */
    std::int64_t next_ = 0;
    long pause_ = 0;
};

/* The monitor and what comes of it. One task at a time; what others see of it is in the watch. */
class supervisor {
  public:
    explicit supervisor(watch &shared) : shared_(shared) {
        const std::string &path = set().processes;
        if (proc_monitor_init(&monitor_, path.c_str(), '=') != 0)
            complain("cannot read \"%s\"", path.c_str());
        for (const proc_node *node = monitor_.list->head; node != nullptr; node = node->next)
            shared_.processes.push_back({.name = item(node).name});
        pacing_.resize(shared_.processes.size());
    }
    ~supervisor() { monitor_.destroy(&monitor_); }
    supervisor(const supervisor &) = delete;
    supervisor &operator=(const supervisor &) = delete;

    /* A run that meets another one leaves it to it. */
    void supervise() {
        const std::unique_lock guard(lock_, std::try_to_lock);
        if (!guard.owns_lock())
            return;
        refresh();
        if (start_absent()) // and show at once what came of it
            refresh();
    }

  private:
    const supervision &set() const { return shared_.set.watch; }

    static const proc_monitor_item &item(const proc_node *node) {
        return *static_cast<proc_monitor_item *>(node->data);
    }

    void refresh() {
        monitor_.refresh(&monitor_);
        auto seen = shared_.processes.begin();
        for (const proc_node *node = monitor_.list->head; node != nullptr; node = node->next)
            take(item(node), *seen++);
    }

    void take(const proc_monitor_item &now, watched &seen) {
        if (now.run_status == seen.status && now.info.pid == seen.pid)
            return;
        if (now.info.pid != 0)
            shared_.log.write(notice, "%s: %s, pid %d", now.name, status_words[now.run_status],
                              now.info.pid);
        else
            shared_.log.write(notice, "%s: %s", now.name, status_words[now.run_status]);
        const std::lock_guard guard(shared_.lock);
        if (now.info.pid != seen.pid) {
            seen.use = {};
            get_stat_by_pid(now.info.pid, &seen.use); // what it used before does not count
        }
        seen.pid = now.info.pid;
        seen.status = now.run_status;
    }

    /* Tells whether it started any. */
    bool start_absent() {
        const std::int64_t now = monotonic_ms();
        bool any = false;
        auto pace = pacing_.begin();
        for (const proc_node *node = monitor_.list->head; node != nullptr; node = node->next) {
            pacing &pacing = *pace++;
            if (item(node).run_status == PROC_RUNNING)
                pacing.runs(now);
            if (is_absent(item(node)) && pacing.permits(now, set())) {
                start(item(node), pacing.started(now, set()));
                any = true;
            }
        }
        return any;
    }

    /* One without a command is only watched. */
    static bool is_absent(const proc_monitor_item &process) {
        return process.run_status == PROC_NOT_RUNNING && *process.info.cmdline != '\0';
    }

    void start(const proc_monitor_item &process, long pause) {
        shared_.log.write(notice, "%s: starting it, and not again within %ld s", process.name,
                          pause);
        const int result = monitor_.operate(&monitor_, process.name, PROC_OP_START);
        if (result != 0)
            shared_.log.write(warning, "%s: %s", process.name, proc_operate_error_message[result]);
    }

    watch &shared_;
    proc_monitor monitor_{};
    std::vector<pacing> pacing_;
    std::mutex lock_;
};

/* Task: the processes that are supervised. */
void *supervise(void *supervisor_) {
    static_cast<supervisor *>(supervisor_)->supervise();
    return nullptr;
}

/* ---- Who asks from elsewhere ---------------------------------------------------------------- */

/* One line, such as "cpu0    [########------------]  40.1%". */
void describe_bar(line &to, const char *name, double percent) {
    constexpr int width = 40;
    char bar[width + 1];
    std::memset(bar, '-', width);
    std::memset(bar, '#', static_cast<std::size_t>(std::clamp(percent, 0.0, 100.0) * width / 100));
    bar[width] = '\0';
    astrcatf(&to.text, "%-8s [%s] %5.1f%%\n", name, bar, percent);
}

void describe_process(line &to, const watched &process) {
    astrcatf(&to.text, "%-15.15s %-11s", process.name.c_str(), status_words[process.status]);
    if (process.pid != 0) {
        astrcatf(&to.text, " pid %-7d cpu %5.1f%%  memory %4.1f%%  ", process.pid,
                 process.use.cpu_usage, process.use.mem_usage);
        describe_uptime(to, process.use.run_seconds);
    }
    astrcatf(&to.text, "\n");
}

/* One screen of text. */
void describe_status(line &to, watch &self) {
    constexpr std::uint64_t most_cpus = 24;
    constexpr std::size_t most_processes = 20;
    const std::lock_guard guard(self.lock);
    const std::int64_t up = (monotonic_ms() - self.begin) / 1000;
    astrcatf(&to.text, "watchkeeper, up %" PRId64 " s, %" PRIu64 " looks\n", up, self.looks);
    for (std::uint64_t i = 1; i < std::min(ss.ncpu, most_cpus + 1); i++)
        describe_bar(to, ss.cpu[i].name, ss.cpu[i].usage);
    if (ss.ncpu > most_cpus + 1)
        astrcatf(&to.text, "... and %" PRIu64 " more\n", ss.ncpu - most_cpus - 1);
    describe_bar(to, "memory", ss.mem_usage);
    if (!std::isnan(ss.swap_usage))
        describe_bar(to, "swap", ss.swap_usage);
    const std::vector<watched> &processes = self.processes;
    for (std::size_t i = 0; i < std::min(processes.size(), most_processes); i++)
        describe_process(to, processes[i]);
    if (processes.size() > most_processes)
        astrcatf(&to.text, "... and %zu more\n", processes.size() - most_processes);
    const intervals &every = self.set.tasks;
    astrcatf(&to.text, "tasks: snapshot every %ld s, summary every %ld s", every.snapshot,
             every.summary);
    if (!self.set.cleanup.empty())
        astrcatf(&to.text, ", clean-up of %zu directories every %ld s", self.set.cleanup.size(),
                 every.cleanup);
    if (!processes.empty())
        astrcatf(&to.text, ", %zu processes looked for every %ld s", processes.size(), every.watch);
    astrcatf(&to.text, "\nrequests: %" PRIu64 " answered, %" PRIu64 " ignored\n",
             self.answered.load(), self.ignored.load());
}

/* The answer to a request; empty where it is none. */
void answer(line &to, watch &self, const char *request) {
    if (std::strcmp(request, "ping") == 0)
        astrcatf(&to.text, "pong\n");
    else if (std::strcmp(request, "status") == 0)
        describe_status(to, self);
    else if (std::strcmp(request, "rotate") == 0)
        astrcatf(&to.text, "%s\n", self.log.rotate() ? "rotated" : "cannot rotate");
}

bool is_allowed(const settings &set, const sockaddr_in &peer) {
    return std::count(set.allowed.begin(), set.allowed.end(), peer.sin_addr.s_addr) > 0;
}

/* Runs for each datagram. Strangers get no answer, and neither do words that are unknown or too
 * long. */
std::int64_t take_request(udpcomm *endpoint, char *data, std::size_t size, sockaddr *peer) {
    constexpr std::size_t longest = 64;
    watch &self = *static_cast<watch *>(endpoint->arg);
    line text;
    const xsockaddr from = endpoint->peer;
    if (size <= longest && is_allowed(self.set, from.in))
        answer(text, self, strtrim1(data));
    if (text.text == nullptr) {
        self.ignored++;
        return 0;
    }
    self.answered++;
    return udpcomm_send(endpoint, text.text, std::strlen(text.text), peer);
}

/* Task: a sign of life. */
void *heartbeat(void *watch_) {
    watch &self = *static_cast<watch *>(watch_);
    char host[65] = "";
    gethostname(host, sizeof host - 1);
    line text;
    {
        const std::lock_guard guard(self.lock);
        astrcatf(&text.text, "%s watchkeeper up %" PRId64 " s, busiest cpu %.1f%%, memory %.1f%%\n",
                 host, (monotonic_ms() - self.begin) / 1000, busiest_cpu(), ss.mem_usage);
    }
    xsockaddr to{};
    to.in = self.set.heartbeat;
    if (text.text != nullptr)
        udpcomm_send(self.endpoint, text.text, std::strlen(text.text), &to.sa);
    return nullptr;
}

/* The service's endpoint, where its settings ask for one, for as long as this lives. */
class reachable {
  public:
    explicit reachable(watch &self) : self_(self) {
        if (!is_given(self.set.listen) && !is_given(self.set.heartbeat))
            return;
        char ip[INET_ADDRSTRLEN] = "0.0.0.0";
        if (is_given(self.set.listen))
            inet_ntop(AF_INET, &self.set.listen.sin_addr, ip, sizeof ip);
        self.endpoint = udpcomm_open(AF_INET, ip, ntohs(self.set.listen.sin_port));
        started_ = udpcomm_start(self.endpoint, take_request, &self) == 0;
        if (as_asked() && is_given(self.set.listen))
            self.log.write(notice, "answering on %s:%d", ip, port());
    }
    ~reachable() {
        if (started_)
            udpcomm_close(self_.endpoint);
    }
    reachable(const reachable &) = delete;
    reachable &operator=(const reachable &) = delete;

    bool as_asked() const { return self_.endpoint == nullptr || (started_ && port() != 0); }

  private:
    /* 0 where it could not be bound. */
    int port() const {
        xsockaddr local{};
        socklen_t length = sizeof local;
        getsockname(self_.endpoint->sock->fd, &local.sa, &length);
        return ntohs(local.in.sin_port);
    }

    watch &self_;
    bool started_ = false;
};

/* Asks another watchkeeper; prints its answer. The program's exit status. */
int ask_status(const place &where) {
    xsocket *socket = socket_open(AF_INET, SOCK_DGRAM, 0);
    if (socket == nullptr)
        return 1;
    const timeval patience = {2, 0};
    setsockopt(socket->fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    xsockaddr to{};
    to.in = where;
    char text[4096];
    ssize_t length = -1;
    if (connect(socket->fd, &to.sa, sizeof to.in) == 0 && send(socket->fd, "status", 6, 0) == 6)
        length = recv(socket->fd, text, sizeof text, 0);
    if (length >= 0)
        std::fwrite(text, 1, static_cast<std::size_t>(length), stdout);
    else
        std::fprintf(stderr, "watchkeeper: no answer: %s\n", strerror(errno));
    socket_close(socket);
    return length >= 0 ? 0 : 1;
}

bool repeat(timer &clock, thread_routine task, void *arg, long seconds) {
    const std::int64_t milliseconds = seconds * 1000;
    return clock.schedule(&clock, task, arg, milliseconds, -1, milliseconds) != -1;
}

/* ---- The service ---------------------------------------------------------------------------- */

/* Sleeps until a signal to end, for `seconds` at most (0: without limit); tells the signal, or 0.
 * The signals are blocked, so that none is missed and none reaches a worker. */
int wait_for_end(long seconds, const sigset_t &ending) {
    const std::int64_t end = seconds == 0 ? INT64_MAX : monotonic_ms() + seconds * 1000;
    for (;;) {
        const std::int64_t left = std::max<std::int64_t>(end - monotonic_ms(), 0);
        const timespec time = {left / 1000, left % 1000 * 1'000'000};
        const int signal = sigtimedwait(&ending, nullptr, &time);
        if (signal > 0)
            return signal;
        if (monotonic_ms() >= end)
            return 0;
    }
}

/* Without a supervisor nothing is supervised. */
bool start_tasks(timer &clock, watch &shared, supervisor *processes) {
    const settings &set = shared.set;
    return clock.start(&clock, snapshot, &shared, 0) == 0 &&
           repeat(clock, snapshot, &shared, set.tasks.snapshot) &&
           repeat(clock, summary, &shared, set.tasks.summary) &&
           (processes == nullptr || repeat(clock, supervise, processes, set.tasks.watch)) &&
           (set.cleanup.empty() || repeat(clock, clean_directories, &shared, set.tasks.cleanup)) &&
           (!is_given(set.heartbeat) || repeat(clock, heartbeat, &shared, set.tasks.heartbeat));
}

/* Tells whether the watch could be kept at all. */
bool keep_watch(const settings &set, journal &log, long seconds, const sigset_t &ending) {
    watch shared{.set = set, .log = log};
    std::optional<supervisor> processes;
    if (!set.watch.processes.empty())
        processes.emplace(shared);
    const reachable endpoint(shared);
    if (!endpoint.as_asked()) {
        std::fputs("watchkeeper: cannot listen as remote::listen asks\n", stderr);
        return false;
    }
    timer *clock = timer_new();
    if (clock == nullptr)
        return false;
    const bool started = start_tasks(*clock, shared, processes ? &*processes : nullptr);
    const int signal = started ? wait_for_end(seconds, ending) : 0;
    clock->del(clock); // cancels what runs
    if (signal != 0)
        log.write(notice, "ended by %s", strsignal(signal));
    else if (started)
        log.write(notice, "ended after %ld seconds", seconds);
    else
        std::fputs("watchkeeper: cannot start its timer\n", stderr);
    return started;
}

/* ---- The command line ----------------------------------------------------------------------- */

constexpr char usage_text[] =
    "usage: watchkeeper [--seconds N] SETTINGS\n"
    "       watchkeeper --set SECTION.KEY=VALUE... SETTINGS\n"
    "       watchkeeper --status ADDRESS:PORT\n"
    "Watches this host and logs what it sees, as the file SETTINGS says.\n"
    "  --seconds N              end after N seconds\n"
    "  --set SECTION.KEY=VALUE  change a setting in the file, and end\n"
    "  --status ADDRESS:PORT    show the status of one that runs, and end\n"
    "  --help                   show this\n";

struct command_line {
    const char *path = nullptr;
    long seconds = 0;
    place asked = no_place;
    std::vector<new_setting> changes{};
    char **arguments = nullptr;
    int taken = 1; /* of them by the program's name, the options and their values */
};

/* xgetopt() hands nothing through to its handler. */
command_line given;

int take_option(int option, int) {
    if (option == 'h') {
        std::fputs(usage_text, stdout);
        std::exit(0);
    }
    const bool value_apart = optarg == given.arguments[optind - 1];
    given.taken += value_apart ? 2 : 1;
    if (option == 's')
        given.seconds = number("--seconds", optarg, 1, 366L * 86400);
    else if (option == 'a')
        given.asked = address_and_port("--status", optarg);
    else
        given.changes.emplace_back(optarg);
    return 0;
}

void parse(int argc, char *argv[]) {
    constexpr option options[] = {{"seconds", required_argument, nullptr, 's'},
                                  {"set", required_argument, nullptr, 'e'},
                                  {"status", required_argument, nullptr, 'a'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {nullptr, 0, nullptr, 0}};
    given.arguments = argv;
    xgetopt(argc, argv, nullptr, options, take_option, usage_text);
    if (is_given(given.asked) && argc == given.taken)
        return;
    if (argc - given.taken != 1)
        complain("give one settings file\n%s", usage_text);
    given.path = argv[argc - 1]; /* xgetopt() moves what is no option to the end */
}

} // namespace

int main(int argc, char *argv[]) {
    parse(argc, argv);
    if (given.path == nullptr)
        return ask_status(given.asked);
    if (!given.changes.empty()) {
        change_settings(given.path, given.changes);
        return 0;
    }
    const settings set = read_settings(given.path);

    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigprocmask(SIG_BLOCK, &ending, nullptr);

    journal log(argv, set);
    log.write(notice, "watching, every %ld s", set.tasks.snapshot);
    return keep_watch(set, log, given.seconds, ending) ? 0 : 1;
}

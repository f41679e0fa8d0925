/* SPDX-License-Identifier: MIT */
/*
 * watchkeeper - the watch on a host.
 *
 * Every interval it takes a snapshot of the host and logs one line: how busy each processor is,
 * how full memory and swap are, how long the host has been up. SIGTERM and SIGINT end it, and the
 * log is archived. `watchkeeper --help` shows the usage, watchkeeper.ini beside this file the
 * settings.
 */
#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <iterator>
#include <string>

#include <xconf.h>
#include <xfsproc.h>
#include <xini.h>
#include <xlog.h>
#include <xstring.h>

namespace {

constexpr int bad_usage = 2;

enum level : std::uint32_t { critical = 0x4, warning = 0x10, notice = 0x20, info = 0x40 };

struct thresholds {
    long cpu;
    long memory;
    long swap;
};

struct settings {
    long interval = 1;
    std::string directory = "log";
    log_conf log{};
    thresholds warn{80, 85, 50};
    thresholds crit{101, 95, 90};
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

long number(const char *what, const char *text, long low, long high) {
    char *end = nullptr;
    const long value = std::strtol(text, &end, 0);
    if (end == text || *end != '\0' || value < low || value > high)
        complain("%s = \"%s\" is not a number from %ld to %ld", what, text, low, high);
    return value;
}

std::int32_t language(const char *text) {
    if (std::strcmp(text, "english") != 0 && std::strcmp(text, "chinese") != 0)
        complain("log::language = \"%s\" is neither english nor chinese", text);
    return text[0] == 'c' ? 1 : 0;
}

/* Takes one entry of the settings file. A name that nobody knows is a slip of the pen, and better
 * said than ignored. */
void take(settings &to, const ini_entry &entry) {
    const std::string key = entry.key;
    const auto value = [&](long low, long high) {
        return number(entry.key, entry.value, low, high);
    };
    if (key == "service::interval")
        to.interval = value(1, 3600);
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
    if (ini_load(&file, path, "=") == -1)
        complain("cannot read the settings in \"%s\"", path);
    settings read;
    read.log.mask = 0xff;
    read.log.wrmax = 5000;
    read.log.flags = LOG_CONF_MASK | LOG_CONF_WRMAX | LOG_CONF_LANG;
    std::for_each_n(file.entries, file.count, [&](const ini_entry &entry) { take(read, entry); });
    ini_unload(&file);
    if (fexist(read.directory.c_str(), 1) != 0)
        complain("log::directory = \"%s\" is not a directory", read.directory.c_str());
    return read;
}

/* ---- A look at the host --------------------------------------------------------------------- */

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

void log_snapshot(const settings &set, const char *span) {
    get_system_stat();
    char *line = nullptr;
    astrcatf(&line, "cpu %.1f%%", ss.cpu[0].usage);
    for (std::uint64_t i = 1; i < ss.ncpu; i++)
        astrcatf(&line, ", %s %.1f%%", ss.cpu[i].name, ss.cpu[i].usage);
    const auto gigabytes = [](std::uint64_t kilobytes) {
        return static_cast<double>(kilobytes) / (1024 * 1024);
    };
    astrcatf(&line, "; memory %.1f%% of %.1f GB", ss.mem_usage, gigabytes(ss.mem_total));
    if (std::isnan(ss.swap_usage))
        astrcatf(&line, "; no swap");
    else
        astrcatf(&line, "; swap %.1f%% of %.1f GB", ss.swap_usage, gigabytes(ss.swap_total));
    const long up = static_cast<long>(ss.uptime);
    astrcatf(&line, "; up %ldd %02ld:%02ld:%02ld%s", up / 86400, up / 3600 % 24, up / 60 % 60,
             up % 60, span);
    log_print(0, level_of_snapshot(set), "%s", line);
    std::free(line);
}

/* ---- The service ---------------------------------------------------------------------------- */

std::int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1000} + now.tv_nsec / 1'000'000;
}

/* Sleeps until `deadline` or a signal to end; tells the signal, or 0. The signals are blocked, so
 * none is missed while the service works. */
int wait_until(std::int64_t deadline, const sigset_t &ending) {
    for (;;) {
        const std::int64_t left = std::max<std::int64_t>(deadline - monotonic_ms(), 0);
        const timespec time = {left / 1000, left % 1000 * 1'000'000};
        const int signal = sigtimedwait(&ending, nullptr, &time);
        if (signal > 0)
            return signal;
        if (monotonic_ms() >= deadline)
            return 0;
    }
}

/* `seconds` 0: without limit. */
void keep_watch(const settings &set, long seconds, const sigset_t &ending) {
    const std::int64_t start = monotonic_ms();
    const std::int64_t end = seconds == 0 ? INT64_MAX : start + seconds * 1000;
    log_snapshot(set, " (processors since boot)");
    for (std::int64_t next = start + set.interval * 1000; next <= end;
         next += set.interval * 1000) {
        if (const int signal = wait_until(next, ending)) {
            log_print(0, notice, "ended by %s", strsignal(signal));
            return;
        }
        log_snapshot(set, "");
    }
    wait_until(end, ending);
    log_print(0, notice, "ended after %ld seconds", seconds);
}

struct command_line {
    const char *path;
    long seconds = 0;
};

command_line parse(int argc, char *argv[]) {
    constexpr char usage[] = "usage: watchkeeper [--seconds N] SETTINGS\n"
                             "Watches this host and logs what it sees, as SETTINGS says.\n"
                             "  --seconds N  end after N seconds\n";
    constexpr option options[] = {{"seconds", required_argument, nullptr, 's'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {nullptr, 0, nullptr, 0}};
    command_line given{};
    for (int option; (option = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (option == 'h') {
            std::fputs(usage, stdout);
            std::exit(0);
        }
        if (option != 's')
            std::exit(bad_usage); // getopt_long() has said why
        given.seconds = number("--seconds", optarg, 1, 366L * 86400);
    }
    if (argc - optind != 1)
        complain("give one settings file\n%s", usage);
    given.path = argv[optind];
    return given;
}

} // namespace

int main(int argc, char *argv[]) {
    const command_line given = parse(argc, argv);
    settings set = read_settings(given.path);

    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigprocmask(SIG_BLOCK, &ending, nullptr);

    if (log_init(argv, set.directory.c_str(), &set.log) == -1)
        complain("cannot log in \"%s\"", set.directory.c_str());
    log_print(0, notice, "watching, every %ld s", set.interval);
    keep_watch(set, given.seconds, ending);
    return log_destroy();
}

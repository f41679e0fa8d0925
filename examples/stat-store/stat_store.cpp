/* SPDX-License-Identifier: MIT */
/*
 * stat-store - the figures of a host, kept in a database.
 *
 * Every few seconds it takes a snapshot of the host and writes it as one row of a MySQL or MariaDB
 * table, which it makes where there is none. A server that is gone, or not there yet, ends nothing:
 * the rows meanwhile are lost, which standard error tells, and the first one that can be written
 * goes through a new connection. SIGTERM and SIGINT end it. `stat-store --help` shows the usage,
 * stat_store.ini beside this file the settings.
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
#include <string>
#include <unistd.h>

#include <xconf.h>
#include <xdb_mysql.h>
#include <xfsproc.h>
#include <xgetopt.h>
#include <xini.h>

namespace {

constexpr int bad_usage = 2;

/* A server that does not answer holds up the end of the program no longer. */
constexpr unsigned patience = 10; /* seconds */

struct settings {
    MySQLConfig server{};
    std::string table = "host_stat";
    long interval = 60; /* seconds from one row to the next */
};

[[gnu::format(printf, 1, 2)]] void say(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::fputs("stat-store: ", stderr);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
}

/* ---- Settings ------------------------------------------------------------------------------- */

long number(const char *what, const char *text, long low, long high) {
    char *end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < low || value > high) {
        say("%s = \"%s\" is not a number from %ld to %ld", what, text, low, high);
        std::exit(bad_usage);
    }
    return value;
}

template <std::size_t Size>
void copy(char (&field)[Size], const ini_entry &entry) {
    const std::size_t length = std::strlen(entry.value);
    if (length >= Size) {
        say("%s is longer than %zu characters", entry.key, Size - 1);
        std::exit(bad_usage);
    }
    std::memcpy(field, entry.value, length + 1);
}

/* A name that needs no quoting. */
std::string table_name(const ini_entry &entry) {
    std::string name = entry.value;
    if (name.empty() || name.size() > 64 ||
        name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_") !=
            name.npos) {
        say("%s = \"%s\" is not a name of letters, digits and \"_\"", entry.key, entry.value);
        std::exit(bad_usage);
    }
    return name;
}

void take(settings &to, const ini_entry &entry) {
    const std::string key = entry.key;
    if (key == "mysql::host")
        copy(to.server.host, entry);
    else if (key == "mysql::port")
        to.server.port = static_cast<std::uint32_t>(number(entry.key, entry.value, 0, 65535));
    else if (key == "mysql::socket")
        copy(to.server.unix_socket, entry);
    else if (key == "mysql::user")
        copy(to.server.user, entry);
    else if (key == "mysql::password")
        copy(to.server.passwd, entry);
    else if (key == "mysql::database")
        copy(to.server.db, entry);
    else if (key == "mysql::table")
        to.table = table_name(entry);
    else if (key == "store::interval")
        to.interval = number(entry.key, entry.value, 1, 86400);
    else {
        say("there is no setting \"%s\"", entry.key);
        std::exit(bad_usage);
    }
}

settings read_settings(const char *path) {
    ini_table file = {nullptr, 0};
    if (fexist(path, 1) == 0 || ini_load(&file, path, "=") == -1) {
        say("cannot read the settings in \"%s\"", path);
        std::exit(bad_usage);
    }
    settings read;
    std::for_each_n(file.entries, file.count, [&](const ini_entry &entry) { take(read, entry); });
    ini_unload(&file);
    if (read.server.db[0] == '\0') {
        say("mysql::database is missing");
        std::exit(bad_usage);
    }
    return read;
}

/* ---- The table ------------------------------------------------------------------------------ */

constexpr char columns[] = R"( (
    taken DATETIME(3) NOT NULL COMMENT 'universal time',
    host VARCHAR(64) NOT NULL,
    uptime DOUBLE NOT NULL COMMENT 'seconds',
    cpu DOUBLE COMMENT 'per cent in use, of all processors together',
    memory DOUBLE COMMENT 'per cent in use',
    swap DOUBLE COMMENT 'per cent in use',
    memory_total BIGINT UNSIGNED NOT NULL COMMENT 'kB',
    memory_used BIGINT UNSIGNED NOT NULL COMMENT 'kB',
    swap_total BIGINT UNSIGNED NOT NULL COMMENT 'kB',
    swap_used BIGINT UNSIGNED NOT NULL COMMENT 'kB',
    INDEX (taken)
))";

/* There is no percentage of a swap space that is not there. */
std::string sql(double value) {
    return std::isfinite(value) ? std::to_string(value) : "NULL";
}

std::string sql_time_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    char seconds[sizeof "'2024-03-05 14:07:09."];
    std::strftime(seconds, sizeof seconds, "'%F %T.", &parts);
    const std::string milliseconds = std::to_string(1000 + now.tv_nsec / 1'000'000).substr(1);
    return seconds + milliseconds + "'";
}

/* The connection, and the table behind it. The client library makes a connection that was lost anew
 * by itself, as its settings ask, but not the first one. */
class store {
  public:
    explicit store(const settings &set) : table_('`' + set.table + '`') {
        MySQLConfig config = set.server;
        config.reconnect = 1;
        config.client_flag = CLIENT_REMEMBER_OPTIONS; // also after a first try that fails
        ready_ = MySQLConnectionInit(&connection_, &config) == 0;
        for (const mysql_option limit :
             {MYSQL_OPT_CONNECT_TIMEOUT, MYSQL_OPT_READ_TIMEOUT, MYSQL_OPT_WRITE_TIMEOUT})
            if (ready_)
                mysql_options(&connection_.handle, limit, &patience);
    }
    ~store() {
        if (ready_)
            connection_.destroy(&connection_);
    }
    store(const store &) = delete;
    store &operator=(const store &) = delete;

    bool is_ready() const { return ready_; }

    /* Writes the snapshot; tells whether it is there. What fails, the library has told. */
    bool write() {
        connected_ = connected_ || connection_.connect(&connection_) == 0;
        has_table_ =
            has_table_ || (connected_ && run("CREATE TABLE IF NOT EXISTS " + table_ + columns));
        has_table_ = has_table_ && run("INSERT INTO " + table_ + " VALUES (" + row() + ')');
        return has_table_;
    }

  private:
    bool run(const std::string &statement) {
        return connection_.execSQL(&connection_, statement.data(), statement.size(), nullptr,
                                   nullptr) == 0;
    }

    std::string row() {
        std::string all = sql_time_now() + ", " + host();
        for (const double value : {ss.uptime, ss.cpu[0].usage, ss.mem_usage, ss.swap_usage})
            all += ", " + sql(value);
        for (const std::uint64_t value : {ss.mem_total, ss.mem_used, ss.swap_total, ss.swap_used})
            all += ", " + std::to_string(value);
        return all;
    }

    std::string host() {
        char name[65] = "";
        gethostname(name, sizeof name - 1);
        char escaped[2 * sizeof name];
        mysql_real_escape_string(&connection_.handle, escaped, name, std::strlen(name));
        return '\'' + std::string(escaped) + '\'';
    }

    MySQLConnection connection_;
    std::string table_;
    bool ready_ = false;
    bool connected_ = false;
    bool has_table_ = false; /* as far as anybody knows: a server may come back without */
};

/* ---- The service ---------------------------------------------------------------------------- */

std::int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1000} + now.tv_nsec / 1'000'000;
}

/* Sleeps until then or until a signal to end, which it tells; else 0. The signals are blocked, so
 * that none is missed. */
int wait_until(std::int64_t then, const sigset_t &ending) {
    for (;;) {
        const std::int64_t left = std::max<std::int64_t>(then - monotonic_ms(), 0);
        const timespec time = {left / 1000, left % 1000 * 1'000'000};
        const int signal = sigtimedwait(&ending, nullptr, &time);
        if (signal > 0 || (signal == -1 && left == 0))
            return std::max(signal, 0);
    }
}

/* A snapshot every interval, until `count` rows are written (0: without limit) or a signal comes.
 */
void store_rows(store &rows, const settings &set, long count, const sigset_t &ending) {
    bool failing = true;
    std::int64_t due = monotonic_ms();
    for (long written = 0; count == 0 || written < count;) {
        if (const int signal = wait_until(due, ending); signal != 0)
            return say("ended by %s", strsignal(signal));
        get_system_stat();
        const bool stored = rows.write();
        if (stored && failing)
            say("writing to %s.%s, every %ld s", set.server.db, set.table.c_str(), set.interval);
        else if (!stored)
            say("a row is lost; the next try is in %ld s", set.interval);
        failing = !stored;
        written += stored ? 1 : 0;
        due = std::max(due + set.interval * 1000, monotonic_ms());
    }
    say("ended after %ld rows", count);
}

/* ---- The command line ----------------------------------------------------------------------- */

constexpr char usage_text[] =
    "usage: stat-store [--count N] SETTINGS\n"
    "Writes figures of this host to a database, as the file SETTINGS says.\n"
    "  --count N   end after N rows\n"
    "  --help      show this\n";

struct command_line {
    long count = 0;
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
    given.taken += optarg == given.arguments[optind - 1] ? 2 : 1;
    given.count = number("--count", optarg, 1, 1'000'000'000);
    return 0;
}

} // namespace

int main(int argc, char *argv[]) {
    constexpr option options[] = {{"count", required_argument, nullptr, 'c'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {nullptr, 0, nullptr, 0}};
    given.arguments = argv;
    xgetopt(argc, argv, nullptr, options, take_option, usage_text);
    if (argc - given.taken != 1) {
        say("give one settings file\n%s", usage_text);
        return bad_usage;
    }
    const settings set = read_settings(argv[argc - 1]); // xgetopt() moves it to the end

    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigprocmask(SIG_BLOCK, &ending, nullptr);

    store rows(set);
    if (!rows.is_ready()) {
        say("cannot begin: out of memory");
        return 1;
    }
    store_rows(rows, set, given.count, ending);
    return 0;
}

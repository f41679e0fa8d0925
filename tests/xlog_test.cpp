/* SPDX-License-Identifier: MIT */
#include "xlog.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "cancelled.h"
#include "child.h"
#include "descriptors.h"
#include "log_home.h"
#include "small_disk.h"

namespace {

using namespace keel_test;
using std::filesystem::exists;

/* Hidden from the compiler, which knows what a format must not be. */
int (*volatile print)(int, std::uint32_t, const char *, ...) = log_print;

constexpr std::uint32_t error = 0x8;
constexpr std::uint32_t info = 0x40;

const std::string rule = std::string(78, '-') + "\n";
const std::string dump_of_ping = "--> HexDump(4/4)\n" + rule +
                                 " ~ BOOM ~ |  0  1  2  3  4  5  6  7  8  9  A  B  C  D  E  F |\n" +
                                 rule + " 00000000 | 50 49 4e 47" + std::string(36, ' ') +
                                 " | PING\n" + rule;

/* A record of several lines. */
std::string without_first_stamp(const std::string &text) {
    const std::size_t end = text.find('\n');
    return without_stamp(text.substr(0, end)) + text.substr(std::min(end, text.size()));
}

/* What a child process that runs `body` puts on standard output, as records of one line. */
std::string printed_by(const std::function<void()> &body) {
    const child_result result = run_in_child(body);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    return without_stamps(result.out);
}

/* Records go to standard output, and all settings are back at their defaults. */
void expect_not_set_up() {
    EXPECT_EQ(printed_by([] { log_print(7, 0x80000000, "x"); }), "[   Debug-23] x\n");
    EXPECT_EQ(log_open("other"), -1);
    EXPECT_EQ(log_close(0), 0);
}

void print_numbers(int id, int from, int to) {
    for (int number = from; number < to; number++)
        ASSERT_EQ(print(id, info, "%08d", number), 4);
}

std::string numbers(int from, int to) {
    std::string text;
    char line[40];
    for (int number = from; number < to; number++) {
        std::snprintf(line, sizeof line, "[     Info.7] %08d\n", number);
        text += line;
    }
    return text;
}

/* The level of each bit as it stands in a record. */
std::vector<std::string> levels_in(bool chinese) {
    std::vector<std::string> levels = {"[Emergency.1] ", "[    Alert.2] ", "[ Critical.3] ",
                                       "[    Error.4] ", "[  Warning.5] ", "[   Notice.6] ",
                                       "[     Info.7] ", "[    Debug.8] "};
    if (chinese)
        levels = {"[紧急.1] ", "[警报.2] ", "[关键.3] ", "[错误.4] ",
                  "[警告.5] ", "[通知.6] ", "[信息.7] ", "[调试.8] "};
    for (int i = 0; i < 24; i++) {
        const std::string padding = i < 10 ? "    " : "   ";
        levels.push_back(chinese ? "[调试-" + std::to_string(i) + "] "
                                 : "[" + padding + "Debug-" + std::to_string(i) + "] ");
    }
    return levels;
}

void print_all_levels() {
    for (unsigned bit = 0; bit < 32; bit++)
        EXPECT_EQ(log_print(0, 1U << bit, "bit %u", bit), bit < 10 ? 1 : 2);
}

std::string all_levels_in(bool chinese) {
    std::string text;
    unsigned bit = 0;
    for (const std::string &level : levels_in(chinese))
        text += level + "bit " + std::to_string(bit++) + "\n";
    return text;
}

class Xlog : public testing::Test {
  protected:
    log_home home;
};

/* ---- Standard output ------------------------------------------------------------------------ */

TEST_F(Xlog, BeforeSetUpRecordsGoToStandardOutputWhateverTheId) {
    for (const int id : {INT_MIN, -1, 0, 1, 7, INT_MAX}) {
        EXPECT_EQ(printed_by([=] { std::printf("%d", log_print(id, error, "x")); }),
                  "[    Error.4] x\nno time stamp: -3");
        EXPECT_EQ(without_first_stamp(run_in_child([=] { log_dump(id, "PING", 4); }).out),
                  "[     Dump.0] " + dump_of_ping);
    }
}

TEST_F(Xlog, BeforeSetUpThereIsNothingToOpenOrClose) {
    for (const char *name : {"app", "app.log", "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(log_open(name), -1);
    for (const int id : {INT_MIN, -1, 0, 1, 7, INT_MAX})
        EXPECT_EQ(log_close(id), 0);
    EXPECT_EQ(log_destroy(), 0);
    expect_not_set_up();
}

TEST_F(Xlog, StandardOutputKeepsTheOrderOfTheHostsOwnText) {
    const child_result result = run_in_child([] {
        std::fputs("before\n", stdout);
        log_print(0, error, "record");
        std::fputs("between\n", stdout);
        log_dump(0, "PING", 4);
        std::fputs("after\n", stdout);
    });
    const std::vector<std::string> lines = split(result.out);
    ASSERT_EQ(lines.size(), 10U);
    EXPECT_EQ(lines[0], "before");
    EXPECT_EQ(without_stamp(lines[1]), "[    Error.4] record");
    EXPECT_EQ(lines[2], "between");
    EXPECT_EQ(without_stamp(lines[3]), "[     Dump.0] --> HexDump(4/4)");
    EXPECT_EQ(lines[9], "after");
}

TEST_F(Xlog, AStreamInPlaceOfStandardOutputGetsTheRecords) {
    const child_result result = run_in_child([] {
        char *text = nullptr;
        std::size_t size = 0;
        stdout = open_memstream(&text, &size);
        log_print(0, error, "in memory");
        [[maybe_unused]] const auto written = write(STDOUT_FILENO, text, size);
    });
    EXPECT_EQ(without_stamps(result.out), "[    Error.4] in memory\n");
}

TEST_F(Xlog, StandardOutputThatTakesNothingFailsRecords) {
    const auto both_fail = [] {
        return log_print(0, error, "x") == -1 && log_dump(0, "PING", 4) == -1;
    };
    const child_result full = run_in_child([=] {
        dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
        _exit(both_fail() ? 42 : 1);
    });
    EXPECT_EQ(full.status, 42);
    const child_result closed = run_in_child([=] {
        close(STDOUT_FILENO);
        _exit(both_fail() ? 42 : 1);
    });
    EXPECT_EQ(closed.status, 42);
}

/* ---- Levels --------------------------------------------------------------------------------- */

TEST_F(Xlog, LevelsBearTheirEnglishNames) {
    EXPECT_EQ(printed_by(print_all_levels), all_levels_in(false));
    ASSERT_EQ(home.set_up(), 0);
    print_all_levels();
    EXPECT_EQ(without_stamps(home.content("app.log")), all_levels_in(false));
}

TEST_F(Xlog, LevelsBearTheirChineseNames) {
    log_conf conf = conf_with(LOG_CONF_LANG);
    conf.lang = 1;
    ASSERT_EQ(home.set_up(&conf), 0);
    print_all_levels();
    EXPECT_EQ(log_dump(0, "PING", 4), 4);
    const std::string text = home.content("app.log");
    const std::size_t dump = text.rfind("[打印.0] ");
    ASSERT_NE(dump, text.npos);
    EXPECT_EQ(without_stamps(text.substr(0, dump - time_stamp_size)), all_levels_in(true));
    EXPECT_EQ(text.substr(dump), "[打印.0] " + dump_of_ping);
}

void try_all_that_is_no_level() {
    std::vector<std::uint32_t> levels = {0, UINT32_MAX, 0x7, 0xf0};
    for (unsigned high = 1; high < 32; high++)
        for (unsigned low = 0; low < high; low++)
            levels.push_back(1U << high | 1U << low);
    for (const std::uint32_t level : levels)
        ASSERT_EQ(log_print(0, level, "x"), -1) << level;
}

TEST_F(Xlog, ALevelIsExactlyOneBit) {
    EXPECT_EQ(printed_by(try_all_that_is_no_level), "");
    ASSERT_EQ(home.set_up(), 0);
    try_all_that_is_no_level();
    EXPECT_EQ(home.content("app.log"), "");
}

TEST_F(Xlog, TheMaskFiltersLevelsAndNeverDumps) {
    struct row {
        std::uint64_t mask, effective;
    };
    constexpr row rows[] = {
        {0x7, 0x7},
        {0, 0},
        {0x80000000, 0x80000000},
        {0xaaaaaaaa, 0xaaaaaaaa},
        {0xffffffff, 0xffffffff},
        {0x100000000, 0xffffffff},
        {UINT64_MAX, 0xffffffff},
    };
    for (const row &r : rows) {
        log_conf conf = conf_with(LOG_CONF_MASK);
        conf.mask = r.mask;
        ASSERT_EQ(home.set_up(&conf), 0);
        std::string expected;
        for (unsigned bit = 0; bit < 32; bit++) {
            const bool passes = (r.effective >> bit & 1) != 0;
            EXPECT_EQ(log_print(0, 1U << bit, "x"), passes ? -3 : -1) << r.mask << " " << bit;
            if (passes)
                expected += levels_in(false)[bit] + "x\n";
        }
        EXPECT_EQ(without_stamps(home.content("app.log")), expected);
        EXPECT_EQ(log_dump(0, "PING", 4), 4);
        EXPECT_NE(home.content("app.log").find("[     Dump.0] " + dump_of_ping), std::string::npos);
        log_destroy();
    }
}

/* ---- Messages ------------------------------------------------------------------------------- */

TEST_F(Xlog, TheFormatDecidesOverTheNewlineAndTheResultIsFourLess) {
    struct row {
        const char *format, *argument, *message;
        int result;
    };
    constexpr row rows[] = {
        {"x", "", "x\n", -3},
        {"", "", "\n", -4},
        {"\n", "", "\n", -3},
        {"%s", "", "\n", -4},
        {"abc", "", "abc\n", -1}, // not a refusal
        {"disk full", "", "disk full\n", 5},
        {"a\n", "", "a\n", -2},
        {"%s", "a\n", "a\n\n", -2},
        {"%s\n", "a\n", "a\n\n", -1},
        {"%s\n", "a", "a\n", -2},
        {"a\nb", "", "a\nb\n", -1},
        {"%s%%", "100", "100%\n", 0},
        {"a\r", "", "a\r\n", -2},
    };
    for (const row &r : rows) {
        ASSERT_EQ(home.set_up(), 0);
        EXPECT_EQ(print(0, error, r.format, r.argument), r.result) << r.format;
        EXPECT_EQ(home.content("app.log").substr(time_stamp_size),
                  std::string("[    Error.4] ") + r.message);
        log_destroy();
    }
}

/* With the same value for each directive. */
template <class Value>
void expect_as_printf(log_home &home, const std::vector<const char *> &formats,
                      const std::vector<Value> &values) {
    int (*volatile format_text)(char *, std::size_t, const char *, ...) = std::snprintf;
    ASSERT_EQ(home.set_up(), 0);
    std::string expected;
    for (const char *format : formats) {
        for (const Value value : values) {
            char message[200];
            const int length = format_text(message, sizeof message, format, value, value);
            EXPECT_EQ(print(0, error, format, value, value), length - 4) << format;
            expected += "[    Error.4] " + std::string(message) + "\n";
        }
    }
    EXPECT_EQ(without_stamps(home.content("app.log")), expected);
    log_destroy();
}

TEST_F(Xlog, MessagesAreThoseOfPrintf) {
    expect_as_printf<int>(home,
                          {"%d", "%i", "%u", "%x", "%X", "%o", "%d%d", "%d of %u", "%%%d%%", "%5d",
                           "%-5d|", "%05d", "%+d", "% d", "%.3d", "%#x", "%hd", "%hhu",
                           "%2$d %1$d"},
                          {0, 1, -1, 10, 255, 4711, INT_MAX, INT_MIN});
    expect_as_printf<long>(home,
                           {"%ld", "%li", "%lu", "%lx", "%zd", "%zu", "%zx", "%lld", "%llu", "%jd",
                            "%td", "%ld %lu", "%20ld", "%zu bytes at %lx"},
                           {0, 1, -1, 4711, INT_MAX, UINT_MAX, LONG_MAX, LONG_MIN});
    expect_as_printf<const char *>(home, {"%s", "%s and %s", "%5s", "%-5s|", "%.2s", "<%s>%%"},
                                   {"", "x", "text", "100%", "%d", "\xff\xc3", nullptr});
}

TEST_F(Xlog, MessagesOfAnyLengthArriveWhole) {
    ASSERT_EQ(home.set_up(), 0);
    std::string expected;
    for (const std::size_t size : {2000U, 2007U, 2008U, 2009U, 4096U, 65536U, 1U << 20}) {
        for (const std::size_t length : {size - 1, size, size + 1}) {
            const std::string message(length, static_cast<char>('a' + length % 26));
            const int result = static_cast<int>(length) - 4;
            EXPECT_EQ(log_print(0, error, "%s", message.c_str()), result);
            EXPECT_EQ(log_print(0, error, "%s\n", message.c_str()), result + 1);
            expected += "[    Error.4] " + message + "\n";
            expected += "[    Error.4] " + message + "\n";
        }
    }
    EXPECT_TRUE(without_stamps(home.content("app.log")) == expected); // too long to be shown
}

TEST_F(Xlog, AnyByteMayBeLogged) {
    ASSERT_EQ(home.set_up(), 0);
    EXPECT_EQ(log_print(0, error, "a%cb\x7f\xff", 0), 1);
    EXPECT_EQ(home.content("app.log").substr(time_stamp_size),
              std::string("[    Error.4] a\0b\x7f\xff\n", 20));
}

TEST_F(Xlog, AFormatThatFailsIsRefused) {
    ASSERT_EQ(home.set_up(), 0);
    const wchar_t impossible[] = {static_cast<wchar_t>(0x7fffffff), 0};
    EXPECT_EQ(print(0, error, nullptr), -1);
    EXPECT_EQ(print(0, error, "text %ls", impossible), -1);
    EXPECT_EQ(print(0, error, "%2147483648d", 1), -1);
    EXPECT_EQ(home.content("app.log"), "");
    EXPECT_EQ(printed_by([] { print(0, error, nullptr); }), "");
    EXPECT_EQ(log_print(0, error, "x"), -3);
}

TEST_F(Xlog, PercentMShowsTheCallersError) {
    const std::string reason = std::strerror(EDOM);
    const std::string blanks(3000, ' ');
    /* Looking for this time zone fails with an error of its own. */
    const std::string out = printed_by([] {
        setenv("TZ", ":/no/such/zone", 1);
        errno = EDOM;
        print(0, error, "%m");
        errno = EDOM;
        print(0, error, "%m%3000s", "");
    });
    EXPECT_EQ(out, "[    Error.4] " + reason + "\n[    Error.4] " + reason + blanks + "\n");
}

std::string local_time_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm fields{};
    localtime_r(&now.tv_sec, &fields);
    char text[80];
    const std::size_t length = std::strftime(text, sizeof text, "[%F %T", &fields);
    std::snprintf(text + length, sizeof text - length, ".%.3ld] ", now.tv_nsec / 1000000);
    return text;
}

TEST_F(Xlog, RecordsBearTheLocalTime) {
    ASSERT_EQ(home.set_up(), 0);
    const std::string before = local_time_now();
    log_print(0, error, "x");
    log_dump(0, "PING", 4);
    const std::string after = local_time_now();
    const std::vector<std::string> lines = split(home.content("app.log"));
    for (const std::size_t record : {0U, 1U}) {
        const std::string stamp = lines.at(record).substr(0, time_stamp_size);
        EXPECT_TRUE(is_time_stamp(stamp)) << stamp;
        EXPECT_LE(before, stamp);
        EXPECT_LE(stamp, after);
    }
}

/* ---- Dumps ---------------------------------------------------------------------------------- */

TEST_F(Xlog, ADumpIsOneRecord) {
    ASSERT_EQ(home.set_up(), 0);
    EXPECT_EQ(log_dump(0, "PING", 4), 4);
    EXPECT_EQ(without_first_stamp(home.content("app.log")), "[     Dump.0] " + dump_of_ping);
}

TEST_F(Xlog, ADumpOfAnySizeArrivesWhole) {
    ASSERT_EQ(home.set_up(), 0);
    const std::string bytes(100000, 'P');
    EXPECT_EQ(log_dump(0, bytes.data(), bytes.size()), 100000);
    const std::vector<std::string> lines = split(home.content("app.log"));
    ASSERT_EQ(lines.size(), 4 + 100000 / 16 + 1);
    EXPECT_EQ(without_stamp(lines[0]), "[     Dump.0] --> HexDump(100000/100000)");
    EXPECT_EQ(lines[4 + 100000 / 16 - 1].substr(0, 14), " 00018690 | 50");
    EXPECT_EQ(lines.back() + "\n", rule);
}

TEST_F(Xlog, NothingIsNotDumped) {
    const auto try_all = [] {
        EXPECT_EQ(log_dump(0, nullptr, 4), -1);
        EXPECT_EQ(log_dump(0, "PING", 0), -1);
        EXPECT_EQ(log_dump(0, nullptr, 0), -1);
    };
    EXPECT_EQ(printed_by(try_all), "");
    ASSERT_EQ(home.set_up(), 0);
    try_all();
    EXPECT_EQ(home.content("app.log"), "");
}

/* ---- Which log ------------------------------------------------------------------------------ */

TEST_F(Xlog, RecordsOfLogsThatAreNotThereAreRefused) {
    log_conf conf = conf_of_slots(3);
    ASSERT_EQ(home.set_up(&conf), 0);
    for (const int id : {INT_MIN, -1, 1, 2, 3, 20, INT_MAX}) { // 1 and 2 have no file
        EXPECT_EQ(log_print(id, error, "x"), -1) << id;
        EXPECT_EQ(log_dump(id, "PING", 4), -1) << id;
    }
    EXPECT_EQ(home.content("app.log"), "");
}

TEST_F(Xlog, EachLogHasItsFile) {
    log_conf conf = conf_of_slots(3);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("one"), 1);
    EXPECT_EQ(log_open("two"), 2);
    for (int id = 0; id < 3; id++)
        EXPECT_EQ(log_print(id, error, "record of %d", id), 7);
    EXPECT_EQ(without_stamps(home.content("app.log")), "[    Error.4] record of 0\n");
    EXPECT_EQ(without_stamps(home.content("one.log")), "[    Error.4] record of 1\n");
    EXPECT_EQ(without_stamps(home.content("two.log")), "[    Error.4] record of 2\n");
}

/* ---- Setting up ----------------------------------------------------------------------------- */

TEST_F(Xlog, TheMainLogIsNamedAfterTheProgram) {
    const std::string pid = std::to_string(getpid());
    struct row {
        std::string program, file;
        int singleton;
    };
    const row rows[] = {
        {"/usr/bin/agent", "agent.log", 1},
        {"agent", "agent.log", 1},
        {"./a.out", "a.out.log", 1},
        {"bin/agent.log", "agent.log", 1},
        {"/usr/bin/agent", "agent." + pid + ".log", 0},
        {"agent.log", "agent." + pid + ".log", 0},
    };
    for (const row &r : rows) {
        const log_home own;
        log_conf conf = conf_with(LOG_CONF_SINGLETON);
        conf.singleton = r.singleton;
        EXPECT_EQ(own.set_up(&conf, r.program), 0);
        EXPECT_EQ(own.dir().names(), std::vector<std::string>{r.file});
        log_destroy();
    }
}

TEST_F(Xlog, ADirectoryMayEndInASlash) {
    char program[] = "app";
    char *const argv[] = {program, nullptr};
    EXPECT_EQ(log_init(argv, (home / "").c_str(), nullptr), 0);
    EXPECT_EQ(log_print(0, error, "x"), -3);
    EXPECT_EQ(without_stamps(home.content("app.log")), "[    Error.4] x\n");
    EXPECT_EQ(descriptors_of(home / "app.log").size(), 1U);
}

TEST_F(Xlog, OnlyTheFirstArgumentIsRead) {
    char program[] = "app";
    char *const argv[] = {program}; // no null behind it
    EXPECT_EQ(log_init(argv, home.dir().path().c_str(), nullptr), 0);
}

TEST_F(Xlog, SettingUpFailsWithoutADirectory) {
    write_file(home / "file", "");
    std::filesystem::create_directory(home / "directory");
    std::filesystem::create_directory_symlink(home / "directory", home / "link");
    char program[] = "app";
    char *const argv[] = {program, nullptr};
    const std::string paths[] = {home / "missing", home / "file", home / "link", ""};
    for (const std::string &path : paths) {
        log_conf conf = conf_with(LOG_CONF_NLOGS | LOG_CONF_MASK | LOG_CONF_LANG);
        conf.nlogs = 50;
        conf.mask = 1;
        conf.lang = -3;
        EXPECT_EQ(log_init(argv, path.c_str(), &conf), -1) << path;
        EXPECT_EQ(conf.nlogs, 20U);
        EXPECT_EQ(conf.lang, 1);
        expect_not_set_up();
    }
    EXPECT_EQ(log_init(argv, nullptr, nullptr), -1);
    expect_not_set_up();
    EXPECT_EQ(home.set_up(), 0); // and succeeds next
}

TEST_F(Xlog, SettingUpFailsWithoutAProgramName) {
    char empty[] = "";
    char no_name[] = "/usr/bin/";
    char *const none[] = {nullptr};
    char *const empty_argv[] = {empty, nullptr};
    char *const no_name_argv[] = {no_name, nullptr};
    char *const *const all[] = {nullptr, none, empty_argv, no_name_argv};
    for (char *const *argv : all) {
        EXPECT_EQ(log_init(argv, home.dir().path().c_str(), nullptr), -1);
        expect_not_set_up();
    }
    EXPECT_EQ(home.dir().names(), std::vector<std::string>{});
}

TEST_F(Xlog, SettingUpFailsWhereTheFileCannotBeOpened) {
    std::filesystem::create_directory(home / "app.log");
    const auto before = count_descriptors();
    log_conf conf = conf_with(LOG_CONF_NLOGS | LOG_CONF_MASK);
    conf.nlogs = 20;
    conf.mask = 1;
    EXPECT_EQ(home.set_up(&conf), -1);
    expect_not_set_up();
    EXPECT_EQ(count_descriptors(), before);
    EXPECT_EQ(home.dir().names(), std::vector<std::string>{"app.log"});
}

TEST_F(Xlog, ASecondSettingUpIsRefusedWithoutHarm) {
    ASSERT_EQ(home.set_up(), 0);
    log_print(0, error, "one");
    const log_home other;
    log_conf conf = conf_of_slots(50);
    EXPECT_EQ(other.set_up(&conf, "other"), -1);
    EXPECT_EQ(home.set_up(nullptr, "other"), -1);
    EXPECT_EQ(conf.nlogs, 50U);
    EXPECT_EQ(log_print(0, error, "two"), -1); // three characters: -1, and written
    EXPECT_EQ(without_stamps(home.content("app.log")), "[    Error.4] one\n[    Error.4] two\n");
    EXPECT_EQ(log_open("further"), -1);
    EXPECT_EQ(other.dir().names(), std::vector<std::string>{});
    EXPECT_EQ(home.dir().names(), std::vector<std::string>{"app.log"});
}

/* ---- Settings ------------------------------------------------------------------------------- */

/* None of its fields counts, and none is in its range. */
log_conf unlikely_conf() {
    log_conf conf{};
    conf.nlogs = 777;
    conf.wrmax = 777;
    conf.lang = 777;
    conf.mask = 0xabcdef0123456789;
    conf.rename_gap = 777;
    conf.singleton = 777;
    return conf;
}

void expect_same(const log_conf &conf, const log_conf &expected) {
    EXPECT_EQ(conf.flags, expected.flags);
    EXPECT_EQ(conf.nlogs, expected.nlogs);
    EXPECT_EQ(conf.wrmax, expected.wrmax);
    EXPECT_EQ(conf.lang, expected.lang);
    EXPECT_EQ(conf.mask, expected.mask);
    EXPECT_EQ(conf.rename_gap, expected.rename_gap);
    EXPECT_EQ(conf.singleton, expected.singleton);
}

template <typename T>
struct clamped_field {
    std::uint32_t flag;
    T log_conf::*field;
    T given, effective;
};

/* That field alone is changed, and only where its flag is set. */
template <typename T>
void expect_clamped(const log_home &home, const clamped_field<T> &row) {
    SCOPED_TRACE(testing::Message() << "flag " << row.flag << " of " << row.given);
    log_conf conf = unlikely_conf();
    conf.*row.field = row.given;
    log_conf expected = conf;
    ASSERT_EQ(home.set_up(&conf), 0);
    log_destroy();
    expect_same(conf, expected);

    expected.flags = conf.flags = row.flag;
    expected.*row.field = row.effective;
    ASSERT_EQ(home.set_up(&conf), 0);
    log_destroy();
    expect_same(conf, expected);
}

TEST_F(Xlog, SettingsAreClampedAndWrittenBack) {
    constexpr clamped_field<std::uint64_t> numbers[] = {
        {0x1, &log_conf::nlogs, 0, 1},
        {0x1, &log_conf::nlogs, 1, 1},
        {0x1, &log_conf::nlogs, 20, 20},
        {0x1, &log_conf::nlogs, 21, 20},
        {0x1, &log_conf::nlogs, 50, 20},
        {0x1, &log_conf::nlogs, UINT64_MAX, 20},
        {0x2, &log_conf::wrmax, 0, 1000},
        {0x2, &log_conf::wrmax, 10, 1000},
        {0x2, &log_conf::wrmax, 999, 1000},
        {0x2, &log_conf::wrmax, 1000, 1000},
        {0x2, &log_conf::wrmax, 1001, 1001},
        {0x2, &log_conf::wrmax, 30000, 30000},
        {0x2, &log_conf::wrmax, 30001, 30000},
        {0x2, &log_conf::wrmax, UINT64_MAX, 30000},
        {0x8, &log_conf::mask, 0, 0},
        {0x8, &log_conf::mask, 0x7, 0x7},
        {0x8, &log_conf::mask, 0xffffffff, 0xffffffff},
        {0x8, &log_conf::mask, 0x100000000, 0xffffffff},
        {0x8, &log_conf::mask, UINT64_MAX, 0xffffffff},
        {0x10, &log_conf::rename_gap, 0, 1000},
        {0x10, &log_conf::rename_gap, 999, 1000},
        {0x10, &log_conf::rename_gap, 1000, 1000},
        {0x10, &log_conf::rename_gap, 1000000, 1000000},
        {0x10, &log_conf::rename_gap, 1000001, 1000000},
        {0x10, &log_conf::rename_gap, UINT64_MAX, 1000000},
    };
    constexpr clamped_field<std::int32_t> switches[] = {
        {0x4, &log_conf::lang, 0, 0},
        {0x4, &log_conf::lang, 1, 1},
        {0x4, &log_conf::lang, 2, 1},
        {0x4, &log_conf::lang, -1, 1},
        {0x4, &log_conf::lang, INT32_MIN, 1},
        {0x20, &log_conf::singleton, 0, 0},
        {0x20, &log_conf::singleton, 1, 1},
        {0x20, &log_conf::singleton, -1, 1},
        {0x20, &log_conf::singleton, INT32_MAX, 1},
    };
    for (const auto &row : numbers)
        expect_clamped(home, row);
    for (const auto &row : switches)
        expect_clamped(home, row);
}

TEST_F(Xlog, UnknownFlagsChangeNothing) {
    log_conf conf = unlikely_conf();
    conf.flags = ~0x3fU;
    const log_conf expected = conf;
    ASSERT_EQ(home.set_up(&conf), 0);
    expect_same(conf, expected);
    EXPECT_EQ(log_open("other"), -1);
}

TEST_F(Xlog, ByDefaultThereIsOneLogInEnglishWithAllLevels) {
    log_conf ignored = unlikely_conf();
    for (log_conf *conf : {static_cast<log_conf *>(nullptr), &ignored}) {
        ASSERT_EQ(home.set_up(conf), 0);
        EXPECT_EQ(log_open("other"), -1);
        EXPECT_EQ(log_print(1, error, "x"), -1);
        print_all_levels();
        EXPECT_EQ(without_stamps(home.content("app.log")), all_levels_in(false));
        log_destroy();
    }
}

TEST_F(Xlog, ByDefaultAFileHoldsFiveThousandRecords) {
    ASSERT_EQ(home.set_up(), 0);
    print_numbers(0, 0, 4999);
    EXPECT_EQ(home.archives("app").size(), 0U);
    print_numbers(0, 4999, 5000);
    EXPECT_EQ(home.archives("app").size(), 1U);
    EXPECT_EQ(home.content("app.log"), "");
}

TEST_F(Xlog, TwentyLogsAreTheMost) {
    log_conf conf = conf_of_slots(20);
    ASSERT_EQ(home.set_up(&conf), 0);
    for (int id = 1; id < 20; id++)
        EXPECT_EQ(log_open(("log" + std::to_string(id)).c_str()), id);
    EXPECT_EQ(log_open("another"), -1);
    for (int id = 0; id < 20; id++)
        EXPECT_EQ(log_print(id, error, "x"), -3);
}

/* ---- Opening -------------------------------------------------------------------------------- */

/* What log_open() made of a name, in a process that ends at once: it archives nothing. */
std::string file_opened_as(const char *name, int singleton) {
    const log_home own;
    const child_result result = run_in_child([&] {
        log_conf conf = conf_with(LOG_CONF_NLOGS | LOG_CONF_SINGLETON);
        conf.nlogs = 2;
        conf.singleton = singleton;
        own.set_up(&conf, "main");
        unlink((own / own.dir().names().at(0)).c_str());
        std::printf("%d ", getpid());
        std::printf("%d", log_open(name));
    });
    const auto names = own.dir().names();
    std::string file = names.empty() ? "nothing" : names.at(0);
    const std::string pid = result.out.substr(0, result.out.find(' '));
    EXPECT_EQ(result.out, pid + (names.empty() ? " -1" : " 1")) << name;
    return std::regex_replace(file, std::regex("\\." + pid + "(?=\\.)"), ".PID");
}

TEST_F(Xlog, AFileBearsTheNameAndEndsInLog) {
    struct row {
        const char *name, *alone, *among_others;
    };
    constexpr row rows[] = {
        {"app", "app.log", "app.PID.log"},
        {"app.log", "app.log", "app.PID.log"},
        {"a.b", "a.b.log", "a.b.PID.log"},
        {"a.b.log", "a.b.log", "a.b.PID.log"},
        {"app.LOG", "app.LOG.log", "app.LOG.PID.log"},
        {"catalog", "catalog.log", "catalog.PID.log"},
        {"app.", "app..log", "app..PID.log"},
        {".log", ".log", ".PID.log"},
        {".log.log", ".log.log", ".log.PID.log"},
        /* Tails of ".log" count as ending in it, and have no "." to take the process id. */
        {"log", "log", "nothing"},
        {"og", "og", "nothing"},
        {"g", "g", "nothing"},
    };
    for (const row &r : rows) {
        EXPECT_EQ(file_opened_as(r.name, 1), r.alone) << r.name;
        EXPECT_EQ(file_opened_as(r.name, 0), r.among_others) << r.name;
    }
}

TEST_F(Xlog, NamesThatMakeNoFileAreRefused) {
    log_conf conf = conf_of_slots(3);
    ASSERT_EQ(home.set_up(&conf), 0);
    const auto before = count_descriptors();
    EXPECT_EQ(log_open(nullptr), -1);
    EXPECT_EQ(log_open(""), -1);
    EXPECT_EQ(log_open("no/such/directory"), -1);
    EXPECT_EQ(log_open(std::string(252, 'x').c_str()), -1);
    EXPECT_EQ(log_open(std::string(100000, 'x').c_str()), -1);
    EXPECT_EQ(count_descriptors(), before);
    EXPECT_EQ(log_open("other"), 1);
}

TEST_F(Xlog, AFileIsOpenInOneLogOnly) {
    log_conf conf = conf_of_slots(3);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("other"), 1);
    log_print(1, error, "x");
    for (const char *name : {"app", "app.log", "other", "other.log"})
        EXPECT_EQ(log_open(name), -1) << name;
    log_print(1, error, "y");
    EXPECT_EQ(without_stamps(home.content("other.log")), "[    Error.4] x\n[    Error.4] y\n");
    EXPECT_EQ(home.dir().names(), (std::vector<std::string>{"app.log", "other.log"}));
    EXPECT_EQ(log_open("third"), 2);
}

TEST_F(Xlog, AnExistingFileIsArchivedFirst) {
    write_file(home / "app.log", "from before\n");
    write_file(home / "other.log", "");
    log_conf conf = conf_of_slots(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("other"), 1);
    ASSERT_EQ(home.archives("app").size(), 1U);
    EXPECT_EQ(home.content(home.archives("app")[0]), "from before\n");
    EXPECT_EQ(home.archives("other").size(), 1U);
    EXPECT_EQ(home.content("app.log"), "");
}

TEST_F(Xlog, WithoutAFreeLogNothingIsCreated) {
    log_conf conf = conf_of_slots(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("one"), 1);
    write_file(home / "present.log", "text");
    EXPECT_EQ(log_open("two"), -1);
    EXPECT_EQ(log_open("present"), -1);
    EXPECT_FALSE(exists(home / "two.log"));
    EXPECT_FALSE(exists(home / "present.log")); // archived before a log was looked for
    EXPECT_EQ(home.archives("present").size(), 1U);
}

TEST_F(Xlog, TheFirstFreeLogIsTaken) {
    log_conf conf = conf_of_slots(4);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("one"), 1);
    EXPECT_EQ(log_open("two"), 2);
    EXPECT_EQ(log_close(1), 0);
    EXPECT_EQ(log_open("three"), 1);
    EXPECT_EQ(log_open("one"), 3);
    log_print(1, error, "x");
    EXPECT_EQ(without_stamps(home.content("three.log")), "[    Error.4] x\n");
}

void expect_live(const std::string &path) {
    const std::vector<int> descriptors = descriptors_of(path);
    ASSERT_EQ(descriptors.size(), 1U) << path;
    EXPECT_EQ(fcntl(descriptors[0], F_GETFL) & O_SYNC, O_SYNC) << path;
    EXPECT_EQ(fcntl(descriptors[0], F_GETFL) & O_ACCMODE, O_WRONLY) << path;
    EXPECT_EQ(fcntl(descriptors[0], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << path;
}

TEST_F(Xlog, FilesAreSynchronousAndCloseOnExec) {
    log_conf conf = conf_of_short_files(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("other"), 1);
    expect_live(home / "app.log");
    expect_live(home / "other.log");
    print_numbers(0, 0, fewest_records); // rotates
    expect_live(home / "app.log");
    log_close(1);
    EXPECT_EQ(log_open("other"), 1);
    expect_live(home / "other.log");
}

TEST_F(Xlog, AProgramStartedMeanwhileDoesNotHoldTheFiles) {
    log_conf conf = conf_of_slots(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("other"), 1);
    const int kept = open((home / "kept").c_str(), O_WRONLY | O_CREAT, 0600);
    FILE *listing = popen("ls -l /proc/self/fd", "re");
    ASSERT_NE(listing, nullptr);
    std::string text;
    for (int c; (c = std::fgetc(listing)) != EOF;)
        text += static_cast<char>(c);
    pclose(listing);
    close(kept);
    EXPECT_NE(text.find(home / "kept"), text.npos) << text;
    EXPECT_EQ(text.find(home / "app.log"), text.npos) << text;
    EXPECT_EQ(text.find(home / "other.log"), text.npos) << text;
}

/* ---- Closing -------------------------------------------------------------------------------- */

TEST_F(Xlog, ClosingArchivesTheFile) {
    log_conf conf = conf_of_slots(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("other"), 1);
    log_print(1, error, "x");
    EXPECT_EQ(log_close(1), 0);
    EXPECT_FALSE(exists(home / "other.log"));
    ASSERT_EQ(home.archives("other").size(), 1U);
    EXPECT_EQ(without_stamps(home.content(home.archives("other")[0])), "[    Error.4] x\n");
    EXPECT_EQ(log_print(1, error, "y"), -1);
    EXPECT_EQ(log_dump(1, "PING", 4), -1);
    EXPECT_EQ(log_open("other"), 1);
    EXPECT_EQ(home.content("other.log"), "");
}

TEST_F(Xlog, TheMainLogAndNumbersOutOfRangeAreNotClosed) {
    log_conf conf = conf_of_slots(3);
    ASSERT_EQ(home.set_up(&conf), 0);
    for (const int id : {INT_MIN, -1, 0, 3, 4, 20, INT_MAX})
        EXPECT_EQ(log_close(id), -1) << id;
    EXPECT_EQ(log_print(0, error, "x"), -3);
    EXPECT_EQ(home.archives("app").size(), 0U);
}

TEST_F(Xlog, ClosingALogWithoutAFileSaysSo) {
    const child_result result = run_in_child([&] {
        log_conf conf = conf_of_slots(2);
        home.set_up(&conf);
        std::printf("%d", log_close(1));
    });
    const std::string message = "log_rename error:fpath_old is NULL.";
    EXPECT_EQ(result, (child_result{0, 0, "0", message}));
}

/* Standard error of a child process that must end well, with a message for one file. */
void expect_rename_error(const std::function<void()> &body, const std::string &path,
                         const std::string &archive) {
    const child_result result = run_in_child(body);
    EXPECT_EQ(result.status, 0);
    const std::string stamp = R"(_\d{4}\.\d\d\.\d\d_\d\d\.\d\d\.\d\d\.\d{3})";
    EXPECT_TRUE(std::regex_match(
        result.err, std::regex("log_rename error:" + path + "->" + archive + stamp + "\\..*\n")))
        << result.err;
}

TEST_F(Xlog, AFileThatIsGoneCannotBeArchivedAndThatIsSaid) {
    const auto close_other = [&] {
        log_conf conf = conf_of_slots(2);
        home.set_up(&conf);
        log_open("other");
        unlink((home / "other.log").c_str());
        std::printf("%d", log_close(1));
        _exit((std::fflush(stdout), log_open("other") == 1 ? 0 : 1));
    };
    expect_rename_error(close_other, home / "other.log", home / "other");
    const auto destroy = [&] {
        home.set_up();
        unlink((home / "app.log").c_str());
        _exit(log_destroy());
    };
    expect_rename_error(destroy, home / "app.log", home / "app");
}

/* The stamp makes the archive's name longer than a file system takes. */
TEST_F(Xlog, AFileThatCannotBeArchivedIsContinued) {
    const std::string name(240, 'n');
    const std::string file = name + ".log";
    const auto fill = [&] {
        log_conf conf = conf_of_short_files(2);
        if (home.set_up(&conf) != 0 || log_open(name.c_str()) != 1)
            _exit(42);
        for (std::uint64_t i = 0; i < conf.wrmax + 3; i++)
            log_print(1, error, "record");
        log_close(1);
        if (log_open(name.c_str()) != 1)
            _exit(43);
        log_print(1, error, "last");
    };
    const child_result result = run_in_child(fill);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err.find("log_rename error:" + (home / file) + "->"), 0U) << result.err;
    std::string expected;
    for (int i = 0; i < fewest_records + 3; i++)
        expected += "[    Error.4] record\n";
    EXPECT_EQ(without_stamps(home.content(file)), expected + "[    Error.4] last\n");
}

/* Only a name that is a tail of ".log" makes such a path. */
TEST_F(Xlog, APathWithoutADotEndsTheProcess) {
    ASSERT_EQ(home.dir().path().find('.'), std::string::npos);
    const auto open_it = [&] {
        log_conf conf = conf_of_slots(2);
        if (home.set_up(&conf) != 0 || log_open("log") != 1)
            _exit(42);
    };
    EXPECT_EQ(run_in_child([&] { open_it(), log_close(1); }), exited(1));
    EXPECT_EQ(run_in_child(open_it), exited(1)); // the file exists now, and is archived first
    unlink((home / "log").c_str());
    EXPECT_EQ(run_in_child([&] { open_it(), log_destroy(); }), exited(1));
    EXPECT_TRUE(exists(home / "log"));
}

TEST_F(Xlog, TheLastDotMayStandInTheDirectory) {
    const std::string directory = home / "logs.d";
    std::filesystem::create_directory(directory);
    const auto body = [&] {
        char program[] = "log";
        char *const argv[] = {program, nullptr};
        if (log_init(argv, directory.c_str(), nullptr) != 0)
            _exit(42);
        log_destroy();
    };
    expect_rename_error(body, directory + "/log", home / "logs");
}

TEST_F(Xlog, DestroyingArchivesAllAndRestoresTheDefaults) {
    const auto before = count_descriptors();
    log_conf conf = conf_with(0x3f);
    conf.nlogs = 3;
    conf.lang = 1;
    conf.mask = 0x40;
    ASSERT_EQ(home.set_up(&conf), 0);
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(log_open("other"), 1);
    log_print(0, info, "main");
    log_print(1, info, "other");
    EXPECT_EQ(log_destroy(), 0);
    for (const char *name : {"app", "other"}) {
        const auto archives = home.archives(name + ("." + pid));
        ASSERT_EQ(archives.size(), 1U) << name;
        EXPECT_NE(home.content(archives[0]).find("[信息.7] "), std::string::npos);
    }
    EXPECT_EQ(home.dir().names().size(), 2U);
    EXPECT_EQ(count_descriptors(), before);
    expect_not_set_up();
    EXPECT_EQ(log_destroy(), 0);

    ASSERT_EQ(home.set_up(), 0); // with the defaults
    EXPECT_EQ(log_open("other"), -1);
    EXPECT_EQ(log_print(0, error, "x"), -3);
    EXPECT_EQ(without_stamps(home.content("app.log")), "[    Error.4] x\n");
}

TEST_F(Xlog, LoggingMayBeSetUpAndDestroyedAgainAndAgain) {
    const auto before = count_descriptors();
    for (int round = 0; round < 20; round++) {
        log_conf conf = conf_of_short_files(5);
        ASSERT_EQ(home.set_up(&conf), 0);
        EXPECT_EQ(log_open("other"), 1);
        log_print(0, error, "x");
        EXPECT_EQ(log_destroy(), 0);
    }
    EXPECT_EQ(home.archives("app").size(), 20U);
    EXPECT_EQ(home.archives("other").size(), 20U);
    EXPECT_EQ(count_descriptors(), before);
}

/* ---- Rotation ------------------------------------------------------------------------------- */

TEST_F(Xlog, AFullFileIsArchivedAndTheNextRecordBeginsAnEmptyOne) {
    log_conf conf = conf_of_short_files(1);
    ASSERT_EQ(home.set_up(&conf), 0);
    print_numbers(0, 0, 999);
    EXPECT_EQ(home.archives("app").size(), 0U);
    print_numbers(0, 999, 1000);
    EXPECT_EQ(home.archives("app").size(), 1U);
    EXPECT_EQ(home.content("app.log"), "");
    print_numbers(0, 1000, 2500);
    ASSERT_EQ(home.archives("app").size(), 2U);
    EXPECT_EQ(without_stamps(home.content(home.archives("app")[0])), numbers(0, 1000));
    EXPECT_EQ(without_stamps(home.content(home.archives("app")[1])), numbers(1000, 2000));
    EXPECT_EQ(without_stamps(home.content("app.log")), numbers(2000, 2500));
}

TEST_F(Xlog, DumpsCountTowardRotationAndRefusedRecordsDoNot) {
    log_conf conf = conf_of_short_files(1);
    conf.flags |= LOG_CONF_MASK;
    conf.mask = 0xff;
    ASSERT_EQ(home.set_up(&conf), 0);
    for (int i = 0; i < 499; i++) {
        EXPECT_EQ(log_dump(0, "PING", 4), 4);
        EXPECT_EQ(log_dump(0, nullptr, 4), -1);
        EXPECT_EQ(log_print(0, 0x100, "masked"), -1);
        EXPECT_EQ(log_print(0, 0x3, "no level"), -1);
        EXPECT_EQ(print(0, 0x1, nullptr), -1);
    }
    print_numbers(0, 0, 500);
    EXPECT_EQ(home.archives("app").size(), 0U);
    EXPECT_EQ(log_dump(0, "PING", 4), 4);
    EXPECT_EQ(home.archives("app").size(), 1U);
    EXPECT_EQ(home.content("app.log"), "");
}

TEST_F(Xlog, EachFileIsCountedFromItsOpening) {
    log_conf conf = conf_of_short_files(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("other"), 1);
    print_numbers(1, 0, 999);
    print_numbers(0, 0, 999);
    EXPECT_EQ(log_close(1), 0);
    EXPECT_EQ(log_open("other"), 1);
    print_numbers(1, 0, 999);
    EXPECT_EQ(home.archives("other").size(), 1U); // that of the closing
    EXPECT_EQ(home.archives("app").size(), 0U);
    print_numbers(1, 999, 1000);
    EXPECT_EQ(home.archives("other").size(), 2U);
}

/* Runs `body` where no file can be opened. */
void without_descriptors(const std::function<void()> &body) {
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit none = {0, former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    body();
    setrlimit(RLIMIT_NOFILE, &former);
}

/* Log `id` has no file after this: its full one is archived, and no other could be opened. Tells
 * whether that last record counts as written and those that follow are refused. */
bool rotate_in_vain(int id) {
    for (int i = 1; i < fewest_records; i++)
        log_print(id, error, "x");
    int last = 0;
    without_descriptors([&] { last = log_print(id, error, "x"); });
    return last == -3 && log_print(id, error, "x") == -1 && log_dump(id, "PING", 4) == -1;
}

TEST_F(Xlog, ALogWhoseFileCannotBeOpenedAgainRefusesRecords) {
    const auto body = [&] {
        log_conf conf = conf_of_short_files(2);
        home.set_up(&conf);
        const bool refused = rotate_in_vain(0);
        _exit(log_destroy() == 0 && refused ? 0 : 42);
    };
    expect_rename_error(body, home / "app.log", home / "app");
    EXPECT_EQ(home.archives("app").size(), 1U);
    EXPECT_EQ(split(home.everything("app")).size(), 1000U);
    EXPECT_FALSE(exists(home / "app.log"));
}

TEST_F(Xlog, ALogThatLostItsFileCanBeOpenedAgain) {
    log_conf conf = conf_of_short_files(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_TRUE(rotate_in_vain(0));
    EXPECT_EQ(log_open("app"), -1); // still its own path
    EXPECT_EQ(log_open("other"), 0);
    EXPECT_EQ(log_print(0, error, "x"), -3);
    EXPECT_EQ(log_destroy(), 0);
    EXPECT_EQ(without_stamps(home.everything("other")), "[    Error.4] x\n");
}

TEST_F(Xlog, ALogThatLostItsFileCanBeClosed) {
    const auto body = [&] {
        log_conf conf = conf_of_short_files(2);
        home.set_up(&conf);
        log_open("other");
        const bool refused = rotate_in_vain(1);
        log_close(1);
        _exit(refused && log_open("other") == 1 && log_print(1, error, "x") == -3 ? 0 : 42);
    };
    expect_rename_error(body, home / "other.log", home / "other");
}

TEST_F(Xlog, OnAFullDiskRecordsFailAndStillCount) {
    if (!can_mount())
        GTEST_SKIP() << "mounting needs root";
    on_small_disk(home.dir().path(), "16k", [&] {
        log_conf conf = conf_of_short_files(1);
        ASSERT_EQ(home.set_up(&conf), 0);
        int written = 0;
        while (written < 200 && log_print(0, error, "%0200d", written) != -1)
            written++;
        EXPECT_GE(written, 16);
        EXPECT_LT(written, 200);
        EXPECT_EQ(log_dump(0, "PING", 4), -1);
        for (int i = written + 3; i < fewest_records; i++)
            EXPECT_EQ(log_print(0, error, "%0200d", i), -1);
        EXPECT_EQ(home.archives("app").size(), 0U);
        EXPECT_EQ(log_print(0, error, "%0200d", 0), -1);
        ASSERT_EQ(home.archives("app").size(), 1U);
        EXPECT_EQ(home.content("app.log"), "");

        EXPECT_EQ(log_print(0, error, "%0200d", 0), -1);
        unlink((home / home.archives("app")[0]).c_str());
        EXPECT_EQ(log_print(0, error, "%0200d", 0), 196); // there is room again
        log_destroy();
    });
}

/* ---- Threads -------------------------------------------------------------------------------- */

void on_threads(int count, const std::function<void(int)> &body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; i++)
        threads.emplace_back(body, i);
    for (std::thread &thread : threads)
        thread.join();
}

/* Every number of each of these threads stands there once, in the order in which it was written. */
void expect_sequences(const std::string &text, const std::vector<int> &threads, int count) {
    std::vector<int> next(10);
    for (const std::string &line : split(text)) {
        int thread = 0;
        int number = 0;
        int length = 0;
        const std::string record = without_stamp(line);
        ASSERT_EQ(std::sscanf(record.c_str(), "[     Info.7] %1d:%5d%n", &thread, &number, &length),
                  2)
            << record;
        ASSERT_EQ(static_cast<std::size_t>(length), record.size());
        ASSERT_EQ(number, next[static_cast<std::size_t>(thread)]++) << record;
    }
    for (const int thread : threads)
        EXPECT_EQ(next[static_cast<std::size_t>(thread)], count) << thread;
}

TEST_F(Xlog, RotationLosesAndDoublesNothingOfManyThreadsInOneLog) {
    log_conf conf = conf_of_short_files(1);
    ASSERT_EQ(home.set_up(&conf), 0);
    constexpr int count = 1100;
    on_threads(4, [](int thread) {
        for (int number = 0; number < count; number++)
            EXPECT_EQ(log_print(0, info, "%d:%05d", thread, number), 3);
    });
    EXPECT_EQ(home.archives("app").size(), 4U);
    for (const std::string &archive : home.archives("app"))
        EXPECT_EQ(split(home.content(archive)).size(), 1000U);
    expect_sequences(home.everything("app"), {0, 1, 2, 3}, count);
}

TEST_F(Xlog, RotationLosesAndDoublesNothingInSeveralLogs) {
    log_conf conf = conf_of_short_files(3);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("one"), 1);
    EXPECT_EQ(log_open("two"), 2);
    constexpr int count = 800;
    on_threads(6, [](int thread) {
        for (int number = 0; number < count; number++)
            EXPECT_EQ(log_print(thread % 3, info, "%d:%05d", thread, number), 3);
    });
    const char *const names[] = {"app", "one", "two"};
    for (int id = 0; id < 3; id++) {
        const std::string name = names[id];
        EXPECT_EQ(home.archives(name).size(), 1U);
        expect_sequences(home.everything(name), {id, id + 3}, count);
    }
}

/* Threads that write records of one letter each, longer than the logger's own buffer. */
constexpr std::size_t letters = 9000;

void print_letters() {
    on_threads(4, [](int thread) {
        const std::string text(letters, static_cast<char>('a' + thread));
        for (int i = 0; i < 100; i++)
            EXPECT_EQ(log_print(0, info, "%s", text.c_str()), static_cast<int>(letters) - 4);
    });
}

void expect_whole_letters(const std::string &text) {
    std::array<int, 4> found{};
    for (const std::string &line : split(text)) {
        const std::string message = without_stamp(line).substr(14);
        ASSERT_EQ(message, std::string(letters, message.at(0)));
        found.at(static_cast<std::size_t>(message.at(0) - 'a'))++;
    }
    EXPECT_EQ(found, (std::array<int, 4>{100, 100, 100, 100}));
}

TEST_F(Xlog, RecordsOfSeveralThreadsNeverMix) {
    expect_whole_letters(run_in_child(print_letters).out);
    ASSERT_EQ(home.set_up(), 0);
    print_letters();
    expect_whole_letters(home.content("app.log"));
}

TEST_F(Xlog, LogsMayBeOpenedAndClosedWhileOthersAreWritten) {
    log_conf conf = conf_of_short_files(4);
    ASSERT_EQ(home.set_up(&conf), 0);
    std::atomic<int> opened{0};
    on_threads(4, [&](int thread) {
        const std::string name = "log" + std::to_string(thread % 2);
        for (int i = 0; i < 50; i++) {
            EXPECT_EQ(log_print(0, info, "%d:%05d", thread, i), 3);
            const int id = log_open(name.c_str()); // held by one thread at a time
            if (id == -1)
                continue;
            opened++;
            EXPECT_EQ(log_print(id, info, "%s", name.c_str()), 0);
            EXPECT_EQ(log_close(id), 0);
        }
    });
    expect_sequences(home.everything("app"), {0, 1, 2, 3}, 50);
    const auto records = split(home.everything("log0") + home.everything("log1"));
    EXPECT_EQ(records.size(), static_cast<std::size_t>(opened));
}

/* ---- Cancelled threads ---------------------------------------------------------------------- */

TEST_F(Xlog, AThreadThatIsCancelledWritesItsRecordAndEnds) {
    ASSERT_EQ(home.set_up(), 0);
    EXPECT_TRUE(run_cancelled([] {
        for (;;)
            log_print(0, error, "%s", "whole");
    }));
    EXPECT_EQ(without_stamps(home.content("app.log")), "[    Error.4] whole\n");
    EXPECT_TRUE(run_cancelled([] {
        for (;;)
            log_print(0, error, "%04000d", 0);
    }));
    EXPECT_EQ(split(home.content("app.log")).size(), 2U);
    EXPECT_TRUE(run_cancelled([] {
        for (;;)
            log_dump(0, "PING", 4);
    }));
    EXPECT_EQ(split(home.content("app.log")).size(), 8U);
    EXPECT_EQ(log_print(0, error, "x"), -3);
}

TEST_F(Xlog, AThreadThatIsCancelledOpensAndClosesCompletely) {
    const auto before = count_descriptors();
    log_conf conf = conf_of_slots(2);
    EXPECT_TRUE(run_cancelled([&] { home.set_up(&conf); }));
    EXPECT_EQ(log_print(0, error, "x"), -3);
    EXPECT_TRUE(run_cancelled([] { log_open("other"); }));
    EXPECT_EQ(log_print(1, error, "x"), -3);
    EXPECT_TRUE(run_cancelled([] { log_close(1); }));
    EXPECT_EQ(log_print(1, error, "x"), -1);
    EXPECT_EQ(log_open("other"), 1);
    EXPECT_TRUE(run_cancelled([] { log_destroy(); }));
    EXPECT_EQ(home.archives("app").size(), 1U);
    EXPECT_EQ(home.archives("other").size(), 2U);
    expect_not_set_up();
    EXPECT_EQ(count_descriptors(), before);
}

TEST_F(Xlog, CancelledWritersLeaveTheLogWholeAndUsable) {
    log_conf conf = conf_of_short_files(1);
    ASSERT_EQ(home.set_up(&conf), 0);
    const auto before = count_descriptors();
    std::atomic<int> next{0};
    for (int round = 0; round < 300; round++) {
        const int enough = next + round % 8;
        const auto cancel = [&](pthread_t writer) {
            while (next < enough)
                std::this_thread::yield();
            pthread_cancel(writer);
        };
        EXPECT_TRUE(ends_cancelled(
            [&] {
                for (;;)
                    print(0, info, "%08d", next++);
            },
            cancel));
    }
    const int last = next;
    print_numbers(0, last, last + 1);
    EXPECT_TRUE(without_stamps(home.everything("app")) == numbers(0, last + 1));
    EXPECT_EQ(count_descriptors(), before);
}

} // namespace

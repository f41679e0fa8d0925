/* SPDX-License-Identifier: MIT */
#include "xfsproc.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "caught_output.h"
#include "child.h"
#include "descriptors.h"
#include "fake_proc.h"
#include "heap.h"
#include "lies_at.h"
#include "own_processes.h"
#include "processes.h"
#include "temp_dir.h"
#include "waiting.h"

namespace {

using keel_test::caught_stream;
using keel_test::child_result;
using keel_test::content_of;
using keel_test::copy_program;
using keel_test::count_descriptors;
using keel_test::eventually;
using keel_test::exited;
using keel_test::fake_proc;
using keel_test::fake_process;
using keel_test::forbid_descriptors;
using keel_test::heap_in_use;
using keel_test::process;
using keel_test::run_in_child;
using keel_test::run_with_own_processes;
using keel_test::temp_dir;
using keel_test::unique_program_name;
using keel_test::write_file;
using std::string;

namespace fs = std::filesystem;

/* ---- The records ---------------------------------------------------------------------------- */

LIES_AT(proc_stat, state, std::uint32_t, 0);
LIES_AT(proc_stat, ppid, std::int32_t, 4);
LIES_AT(proc_stat, pgrp, std::int32_t, 8);
LIES_AT(proc_stat, session, std::int32_t, 12);
LIES_AT(proc_stat, tty_nr, std::int32_t, 16);
LIES_AT(proc_stat, tpgid, std::int32_t, 20);
LIES_AT(proc_stat, flags, std::uint32_t, 24);
LIES_AT(proc_stat, minflt, std::uint64_t, 32);
LIES_AT(proc_stat, cminflt, std::uint64_t, 40);
LIES_AT(proc_stat, majflt, std::uint64_t, 48);
LIES_AT(proc_stat, cmajflt, std::uint64_t, 56);
LIES_AT(proc_stat, utime, std::uint64_t, 64);
LIES_AT(proc_stat, prev_utime, std::uint64_t, 72);
LIES_AT(proc_stat, stime, std::uint64_t, 80);
LIES_AT(proc_stat, prev_stime, std::uint64_t, 88);
LIES_AT(proc_stat, cutime, std::int64_t, 96);
LIES_AT(proc_stat, prev_cutime, std::int64_t, 104);
LIES_AT(proc_stat, cstime, std::int64_t, 112);
LIES_AT(proc_stat, prev_cstime, std::int64_t, 120);
LIES_AT(proc_stat, priority, std::int64_t, 128);
LIES_AT(proc_stat, nice, std::int64_t, 136);
LIES_AT(proc_stat, num_threads, std::int64_t, 144);
LIES_AT(proc_stat, itrealvalue, std::int64_t, 152);
LIES_AT(proc_stat, starttime, std::uint64_t, 160);
LIES_AT(proc_stat, vsize, std::uint64_t, 168);
LIES_AT(proc_stat, rss, std::int64_t, 176);
LIES_AT(proc_stat, delta_utime, std::int64_t, 184);
LIES_AT(proc_stat, delta_stime, std::int64_t, 192);
LIES_AT(proc_stat, delta_cutime, std::int64_t, 200);
LIES_AT(proc_stat, delta_cstime, std::int64_t, 208);
LIES_AT(proc_stat, delta_total, std::int64_t, 216);
LIES_AT(proc_stat, cpu_usage, double, 224);
LIES_AT(proc_stat, mem_usage, double, 232);
LIES_AT(proc_stat, run_seconds, std::uint64_t, 240);
static_assert(sizeof(proc_stat) == 248);

LIES_AT(proc_info, name, char[256], 0);
LIES_AT(proc_info, cwd, char[1024], 256);
LIES_AT(proc_info, exe, char[1024], 1280);
LIES_AT(proc_info, cmdline, char[2048], 2304);
LIES_AT(proc_info, state, std::uint32_t, 4352);
LIES_AT(proc_info, pid, std::int32_t, 4356);
LIES_AT(proc_info, start_time, std::uint64_t, 4360);
static_assert(sizeof(proc_info) == 4368);

/* A record that shows what is written to it. */
template <class Record>
Record filled_record() {
    Record record;
    std::memset(&record, 0x5a, sizeof record);
    return record;
}

template <class Record>
bool is_untouched(const Record &record) {
    const string bytes(reinterpret_cast<const char *>(&record), sizeof record);
    return bytes == string(sizeof record, 0x5a);
}

/* ---- What all tests use --------------------------------------------------------------------- */

/* A child that says nothing and ends with 0 has met all that is expected in it. */
const child_result as_expected = {0, 0, "", ""};

constexpr char open_failed[] = "get_cmdline_by_pid OPEN: No such file or directory\n";
constexpr char read_failed[] = "get_cmdline_by_pid READ: Is a directory\n";
constexpr char too_small[] = "get_cmdline_by_pid READ: buffer too small.\n";
constexpr char illegal[] = "get_cmdline_by_pid: illegal parameter.\n";

/* An identifier that the kernel gives to none. */
constexpr pid_t no_process = std::numeric_limits<pid_t>::max();

using pid_set = std::multiset<pid_t>;

/* All that a search finds, with an array that it fits into. */
pid_set found_by(const std::function<int(pid_t *, std::size_t)> &search) {
    std::vector<pid_t> pids(static_cast<std::size_t>(std::max(0, search(nullptr, 0))) + 1000);
    const int count = search(pids.data(), pids.size());
    EXPECT_GE(count, 0);
    pids.resize(static_cast<std::size_t>(std::max(0, count)));
    return {pids.begin(), pids.end()};
}

pid_set called(const string &name) {
    return found_by(
        [&](pid_t *p, std::size_t cap) { return find_pid_by_name(name.c_str(), p, cap); });
}

pid_set users_of(const string &path) {
    return found_by([&](pid_t *p, std::size_t cap) { return fuser(path.c_str(), p, cap); });
}

/* Everything about /proc that real processes do not show. */
class FakeProc : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "laying a directory over /proc needs root";
    }

    /* All expectations in the body hold, and nothing is said. */
    void expect(const std::function<void()> &body, const string &err = "",
                const string &what = "") const {
        EXPECT_EQ(proc.show(body), (child_result{0, 0, "", err})) << what;
    }

    fake_proc proc;
};

/* Programs of a test's own. */
class Processes : public testing::Test {
  protected:
    /* A process of a copy of `sleep` under this name. */
    process sleeper(const string &name) const {
        return {copy_program("/bin/sleep", dir / name), {dir / name, "1000"}};
    }

    temp_dir dir;
};

class KernelThreads : public testing::Test {
  protected:
    void SetUp() override {
        if (content_of("/proc/2/comm") != "kthreadd\n")
            GTEST_SKIP() << "the kernel's own processes are hidden here";
    }
};

/* ---- Command lines -------------------------------------------------------------------------- */

string cmdline_of(pid_t pid) {
    char buffer[4096];
    return get_cmdline_by_pid(pid, buffer, sizeof buffer) == buffer ? buffer : "(none)";
}

TEST(CommandLine, JoinsTheArgumentsByBlanks) {
    const struct {
        std::vector<string> arguments;
        const char *cmdline;
    } rows[] = {
        {{"sleep", "1000"}, "sleep 1000"},
        {{"/any/name", "1000"}, "/any/name 1000"},
        {{"sleep", "--", "1000", "1000"}, "sleep -- 1000 1000"},
        {{"two words", "1000"}, "two words 1000"},
        {{"", "1000"}, " 1000"},
        {{"tab\tline\n\x01\xff", "1000"}, "tab\tline\n\x01\xff 1000"},
    };
    for (const auto &r : rows)
        EXPECT_EQ(cmdline_of(process("/bin/sleep", r.arguments).pid()), r.cmdline);
}

TEST(CommandLine, EmptyArgumentsLeaveTheirBlanks) {
    const process perl("/usr/bin/perl", {"perl", "-e", "sleep 1000", "", "", ""});
    EXPECT_EQ(cmdline_of(perl.pid()), "perl -e sleep 1000   ");
}

TEST(CommandLine, OfThisProcess) {
    string raw = content_of("/proc/self/cmdline");
    raw.pop_back();
    std::replace(raw.begin(), raw.end(), '\0', ' ');
    EXPECT_EQ(cmdline_of(getpid()), raw);
}

TEST_F(KernelThreads, HaveAnEmptyCommandLine) {
    char buffer[] = "before";
    EXPECT_EQ(get_cmdline_by_pid(2, buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(get_cmdline_by_pid(2, buffer, 1), buffer);
}

TEST(CommandLine, OfAZombieIsEmpty) {
    const process zombie([] {});
    zombie.await_end();
    EXPECT_EQ(cmdline_of(zombie.pid()), "");
}

TEST(CommandLine, NeedsARoomThatIsLongEnough) {
    const process sleeper("/bin/sleep", {"sleep", "1000"});
    for (const std::size_t size : {1U, 5U, 7U, 10U, 11U, 12U, 32U})
        EXPECT_EQ(run_in_child([&] {
                      char buffer[32];
                      const bool fits = size >= sizeof "sleep 1000";
                      const char *expected = fits ? buffer : nullptr;
                      EXPECT_EQ(get_cmdline_by_pid(sleeper.pid(), buffer, size), expected);
                      if (fits) {
                          EXPECT_STREQ(buffer, "sleep 1000");
                      }
                  }),
                  exited(0, size < sizeof "sleep 1000" ? too_small : ""))
            << size;
}

/* A first argument that fits alone, with its NUL byte, cannot be told from a whole command line. */
TEST(CommandLine, ThatIsCutBehindAnArgumentIsTakenForWhole) {
    const process sleeper("/bin/sleep", {"sleep", "1000"});
    char buffer[6];
    EXPECT_EQ(get_cmdline_by_pid(sleeper.pid(), buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "sleep");
}

TEST(CommandLine, IllegalParametersAreReported) {
    const auto refuses = [](pid_t pid, bool with_buffer, std::size_t size) {
        EXPECT_EQ(run_in_child([=] {
                      char buffer[] = "before";
                      EXPECT_EQ(get_cmdline_by_pid(pid, with_buffer ? buffer : nullptr, size),
                                nullptr);
                      EXPECT_STREQ(buffer, "before");
                  }),
                  exited(0, illegal))
            << pid << " " << with_buffer << " " << size;
    };
    refuses(0, true, 7);
    refuses(-1, true, 7);
    refuses(std::numeric_limits<pid_t>::min(), true, 7);
    refuses(getpid(), false, 7);
    refuses(getpid(), true, 0);
    refuses(no_process, false, 0);
}

TEST(CommandLine, OfAProcessThatIsGone) {
    EXPECT_EQ(run_in_child([] {
                  char buffer[] = "before";
                  EXPECT_EQ(get_cmdline_by_pid(no_process, buffer, sizeof buffer), nullptr);
                  EXPECT_STREQ(buffer, "before");
              }),
              exited(0, open_failed));
}

TEST_F(FakeProc, ACommandLineThatCannotBeReadIsReported) {
    proc.lay("7");
    proc.remove("7/cmdline");
    fs::create_directory(proc / "7/cmdline");
    expect(
        [] {
            char buffer[] = "before";
            EXPECT_EQ(get_cmdline_by_pid(7, buffer, sizeof buffer), nullptr);
            EXPECT_EQ(string(buffer, sizeof buffer), string(sizeof buffer, '\0'));
        },
        read_failed);
}

TEST_F(FakeProc, CommandLinesInEveryShape) {
    const struct {
        string content;
        std::size_t size;
        const char *text; /* null: the buffer is too small */
    } rows[] = {
        {"", 1, ""},
        {"", 100, ""},
        {{"\0", 1}, 1, ""},
        {{"\0", 1}, 2, ""},
        {{"\0\0\0", 3}, 3, "  "},
        {{"\0\0\0", 3}, 2, " "},
        {{"a\0", 2}, 2, "a"},
        {"a", 2, "a"},
        {"a", 1, nullptr},
        {"ab", 1, nullptr},
        {{"a\0b\0", 4}, 4, "a b"},
        {{"a\0b", 3}, 4, "a b"},
        {{"a\0b", 3}, 3, nullptr},
        {{"a\0b\0", 4}, 3, nullptr},
        {{"a\0b\0", 4}, 2, "a"},
        {{"a\0b\0", 4}, 1, nullptr},
        {"a title of its own", 19, "a title of its own"},
        {"a title of its own", 18, nullptr},
        {{"a\nb\0c\n", 6}, 64, "a\nb c\n"},
    };
    for (const auto &r : rows) {
        proc.lay("7", {.cmdline = r.content});
        expect(
            [&] {
                std::vector<char> room(r.size + 8, '#');
                const char *expected = r.text != nullptr ? room.data() : nullptr;
                EXPECT_EQ(get_cmdline_by_pid(7, room.data(), r.size), expected);
                string bytes = r.text != nullptr ? r.text : r.content.substr(0, r.size);
                bytes.resize(r.size, '\0');
                EXPECT_EQ(string(room.begin(), room.end()), bytes + "########");
            },
            r.text != nullptr ? "" : too_small, testing::PrintToString(r.content));
    }
}

/* ---- Statistics ----------------------------------------------------------------------------- */

constexpr std::size_t item_count = 22;
using stat_items = std::array<std::uint64_t, item_count>;

stat_items items_of(const proc_stat &s) {
    const auto bits = [](auto value) { return static_cast<std::uint64_t>(value); };
    return {s.state,
            bits(s.ppid),
            bits(s.pgrp),
            bits(s.session),
            bits(s.tty_nr),
            bits(s.tpgid),
            s.flags,
            s.minflt,
            s.cminflt,
            s.majflt,
            s.cmajflt,
            s.utime,
            s.stime,
            bits(s.cutime),
            bits(s.cstime),
            bits(s.priority),
            bits(s.nice),
            bits(s.num_threads),
            bits(s.itrealvalue),
            s.starttime,
            s.vsize,
            bits(s.rss)};
}

/* A line of the first `count` items: S, 101, 102, ... */
string stat_line(std::size_t count = item_count, const string &name = "prog") {
    string line = "7 (" + name + ") ";
    for (std::size_t i = 0; i < count; i++)
        line += i == 0 ? "S" : " " + std::to_string(100 + i);
    return line;
}

stat_items stat_line_items(std::size_t count = item_count) {
    stat_items items = items_of(filled_record<proc_stat>());
    for (std::size_t i = 0; i < count; i++)
        items[i] = i == 0 ? 'S' : 100 + i;
    return items;
}

/* As the C library's scanner reads it. */
int plain_stat(const string &line, proc_stat &to) {
    const auto name_end = line.find(')');
    if (name_end == line.npos)
        return -1;
    char state = 0;
    const int items = std::sscanf(
        line.c_str() + std::min(name_end + 2, line.size()),
        "%c %d %d %d %d %d %u %lu %lu %lu %lu %lu %lu %ld %ld %ld %ld %ld %ld %lu %lu %ld", &state,
        &to.ppid, &to.pgrp, &to.session, &to.tty_nr, &to.tpgid, &to.flags, &to.minflt, &to.cminflt,
        &to.majflt, &to.cmajflt, &to.utime, &to.stime, &to.cutime, &to.cstime, &to.priority,
        &to.nice, &to.num_threads, &to.itrealvalue, &to.starttime, &to.vsize, &to.rss);
    if (items > 0)
        to.state = static_cast<unsigned char>(state);
    return items == item_count ? 0 : 1;
}

TEST_F(FakeProc, AStatLineGivesTwentyTwoItems) {
    for (const char *behind : {"", "\n", " 200 300 x\n", "\nanother line\n"}) {
        proc.lay("7", {.stat = stat_line() + behind});
        expect([] {
            proc_stat st{};
            EXPECT_EQ(get_stat_by_pid(7, &st), 0);
            EXPECT_EQ(items_of(st), stat_line_items());
            EXPECT_EQ(st.cpu_usage, 0.0);
            EXPECT_EQ(st.mem_usage, 0.0);
            EXPECT_EQ(st.run_seconds, 0U);
        });
    }
}

void expect_first_items(std::size_t count) {
    const auto before = filled_record<proc_stat>();
    auto st = before;
    EXPECT_EQ(get_stat_by_pid(7, &st), 1);
    EXPECT_EQ(items_of(st), stat_line_items(count));
    EXPECT_EQ(st.prev_utime, before.prev_utime);
    EXPECT_EQ(st.prev_stime, before.prev_stime);
    EXPECT_EQ(st.prev_cutime, before.prev_cutime);
    EXPECT_EQ(st.prev_cstime, before.prev_cstime);
    EXPECT_EQ(std::memcmp(&st.delta_utime, &before.delta_utime,
                          sizeof st - offsetof(proc_stat, delta_utime)),
              0);
}

TEST_F(FakeProc, AStatLineThatEndsEarlyGivesWhatItHas) {
    proc.lay("7");
    expect([this] {
        for (std::size_t count = 0; count < item_count; count++)
            for (const char *behind : {"", "\n", " x 1 2 3 4\n", " - 5\n"}) {
                if (count == 0 && *behind != '\0')
                    continue; // any character is a state
                write_file(proc / "7/stat", stat_line(count) + behind);
                expect_first_items(count);
                ASSERT_FALSE(HasFailure()) << stat_line(count) << behind;
            }
    });
}

TEST_F(FakeProc, NamesInAStatLine) {
    const struct {
        string name;
        int result;
    } rows[] = {
        {"", 0},
        {"two words", 0},
        {"a (b", 0},
        {"((((", 0},
        {string(300, 'n'), 0},
        {string(100'000, 'n'), 0},
        {"a) b (c", 1},
        {"a)", 1},
        {")", 1},
        {"a\nb", -1},
    };
    for (const auto &r : rows) {
        proc.lay("7", {.stat = stat_line(item_count, r.name) + "\n"});
        expect(
            [&] {
                auto st = filled_record<proc_stat>();
                EXPECT_EQ(get_stat_by_pid(7, &st), r.result);
                EXPECT_EQ(is_untouched(st), r.result == -1);
                if (r.result == 0) {
                    EXPECT_EQ(items_of(st), stat_line_items());
                }
            },
            "", r.name.substr(0, 100));
    }
    proc.lay("7", {.stat = stat_line(item_count, "a) b (c") + "\n"});
    expect([] {
        auto st = filled_record<proc_stat>();
        EXPECT_EQ(get_stat_by_pid(7, &st), 1);
        EXPECT_EQ(st.state, static_cast<std::uint32_t>('b')) << "two characters behind the first )";
        EXPECT_EQ(st.ppid, filled_record<proc_stat>().ppid);
    });
}

TEST_F(FakeProc, WithoutTheEndOfANameThereIsNoStatistics) {
    for (const char *text : {"", "\n", "7", "7 (prog", "7 (prog S 1 2 3\n", "\n7 (prog) S 1 2\n"}) {
        proc.lay("7", {.stat = text});
        expect(
            [] {
                auto st = filled_record<proc_stat>();
                EXPECT_EQ(get_stat_by_pid(7, &st), -1);
                EXPECT_TRUE(is_untouched(st));
            },
            "", text);
    }
    for (const char *text : {"7 (prog)", "7 (prog) ", ")", ") ", "7 (prog)\n"}) {
        proc.lay("7", {.stat = text});
        expect(
            [] {
                auto st = filled_record<proc_stat>();
                EXPECT_EQ(get_stat_by_pid(7, &st), 1);
                EXPECT_TRUE(is_untouched(st));
            },
            "", text);
    }
}

TEST_F(FakeProc, AStatFileThatIsMissingOrADirectory) {
    proc.lay("7");
    proc.remove("7/stat");
    const auto body = [] {
        auto st = filled_record<proc_stat>();
        for (const pid_t pid : {7, 8, 0, -1, no_process, std::numeric_limits<pid_t>::min()})
            EXPECT_EQ(get_stat_by_pid(pid, &st), -1) << pid;
        EXPECT_TRUE(is_untouched(st));
        EXPECT_EQ(get_stat_by_pid(7, nullptr), -1);
    };
    expect(body);
    fs::create_directory(proc / "7/stat");
    expect(body);
}

TEST_F(FakeProc, AStateIsOneByte) {
    for (const char state : {'R', 'Z', '?', ' ', '\x7f', '\x80', '\xff'}) {
        string line = stat_line();
        line[line.find('S')] = state;
        proc.lay("7", {.stat = line});
        expect([=] {
            auto st = filled_record<proc_stat>();
            EXPECT_EQ(get_stat_by_pid(7, &st), 0);
            EXPECT_EQ(st.state, static_cast<unsigned char>(state));
        });
    }
}

string random_number(std::mt19937 &random) {
    static const char *const odd[] = {"0",
                                      "-1",
                                      "+5",
                                      "007",
                                      "0x1f",
                                      "2147483647",
                                      "2147483648",
                                      "-2147483648",
                                      "4294967295",
                                      "4294967296",
                                      "1e3",
                                      "1.5",
                                      "-",
                                      "x",
                                      "9223372036854775807",
                                      "9223372036854775808",
                                      "-9223372036854775808",
                                      "-9223372036854775809",
                                      "18446744073709551615",
                                      "18446744073709551616",
                                      "99999999999999999999999",
                                      "-99999999999999999999999"};
    return random() % 4 == 0 ? odd[random() % std::size(odd)] : std::to_string(random());
}

string random_stat(std::mt19937 &random) {
    string line = "7 (prog)" + string(random() % 20 != 0, ' ') + "S";
    for (auto left = random() % 3 == 0 ? random() % 30 : 21; left > 0; left--)
        line += string(random() % 10 == 0 ? random() % 3 : 1, " \t\v"[random() % 3]) +
                random_number(random);
    return line + (random() % 2 == 0 ? "\n" : "");
}

TEST_F(FakeProc, NumbersAreReadAsTheScannerReadsThem) {
    proc.lay("7");
    expect([this] {
        std::mt19937 random(20'240'401);
        int complete = 0;
        for (int i = 0; i < 1000; i++) {
            const string line = random_stat(random);
            write_file(proc / "7/stat", line);
            auto st = filled_record<proc_stat>();
            auto plain = st;
            const int result = get_stat_by_pid(7, &st);
            ASSERT_EQ(result, plain_stat(line, plain)) << line;
            ASSERT_EQ(items_of(st), items_of(plain)) << line;
            complete += result == 0;
        }
        EXPECT_GT(complete, 100);
        EXPECT_LT(complete, 900);
    });
}

/* The four times of a process, as they stand in the line. */
using times = std::array<string, 4>;

string line_of(const times &t) {
    return "7 (prog) S 1 2 3 4 5 6 7 8 9 10 " + t[0] + " " + t[1] + " " + t[2] + " " + t[3] +
           " 20 0 1 0 100 200 300\n";
}

using four = std::array<std::int64_t, 4>;

four deltas_of(const proc_stat &st) {
    return {st.delta_utime, st.delta_stime, st.delta_cutime, st.delta_cstime};
}

stat_items times_of(const proc_stat &st, bool before) {
    if (before)
        return {st.prev_utime, st.prev_stime, static_cast<std::uint64_t>(st.prev_cutime),
                static_cast<std::uint64_t>(st.prev_cstime)};
    return {st.utime, st.stime, static_cast<std::uint64_t>(st.cutime),
            static_cast<std::uint64_t>(st.cstime)};
}

TEST_F(FakeProc, ARecordReadTwiceHoldsTheTicksInBetween) {
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    const struct {
        times first;
        times second;
        four delta;
        std::int64_t total;
    } rows[] = {
        {{"0", "0", "0", "0"}, {"1", "20", "300", "4000"}, {1, 20, 300, 4000}, 4321},
        {{"5", "6", "7", "8"}, {"5", "6", "7", "8"}, {0, 0, 0, 0}, 0},
        {{"5", "6", "7", "8"}, {"4", "16", "6", "18"}, {0, 10, 0, 10}, 20},
        {{"9", "9", "9", "9"}, {"0", "0", "0", "0"}, {0, 0, 0, 0}, 0},
        {{"0", "0", "-10", "-20"}, {"0", "0", "5", "-30"}, {0, 0, 15, 0}, 15},
        {{"18446744073709551615", "0", "0", "0"}, {"5", "0", "0", "0"}, {6, 0, 0, 0}, 6},
        {{"0", "0", "0", "0"},
         {"9223372036854775808", "9223372036854775807", "0", "1"},
         {0, most, 0, 1},
         std::numeric_limits<std::int64_t>::min()},
        {{"0", "0", "-1", "0"},
         {"0", "0", "9223372036854775807", "0"},
         {0, 0, 0, 0},
         0}, // 2^63 ticks are less than none
    };
    proc.lay("7");
    expect([&] {
        for (const auto &r : rows) {
            proc_stat st{};
            write_file(proc / "7/stat", line_of(r.first));
            EXPECT_EQ(get_stat_by_pid(7, &st), 0);
            EXPECT_EQ(times_of(st, true), times_of(st, false));
            write_file(proc / "7/stat", line_of(r.second));
            EXPECT_EQ(get_stat_by_pid(7, &st), 0);
            EXPECT_EQ(deltas_of(st), r.delta) << line_of(r.second);
            EXPECT_EQ(st.delta_total, r.total) << line_of(r.second);
            EXPECT_EQ(times_of(st, true), times_of(st, false));
            EXPECT_EQ(get_stat_by_pid(7, &st), 0);
            EXPECT_EQ(deltas_of(st), (four{})) << "no tick counts twice";
            EXPECT_EQ(st.delta_total, 0);
        }
    });
}

TEST_F(FakeProc, TheFirstReadingHoldsTheTicksSinceTheStart) {
    proc.lay("7", {.stat = line_of({"1", "20", "300", "4000"})});
    expect([] {
        proc_stat st{};
        EXPECT_EQ(get_stat_by_pid(7, &st), 0);
        EXPECT_EQ(deltas_of(st), (four{1, 20, 300, 4000}));
        EXPECT_EQ(st.delta_total, 4321);
    });
}

TEST_F(FakeProc, AReadingThatFailsIsPassedOverByTheNextOne) {
    proc.lay("7", {.stat = line_of({"10", "10", "10", "10"})});
    expect([this] {
        proc_stat st{};
        EXPECT_EQ(get_stat_by_pid(7, &st), 0);
        write_file(proc / "7/stat", line_of({"15", "15", "15", "x"}));
        EXPECT_EQ(get_stat_by_pid(7, &st), 1);
        EXPECT_EQ(st.utime, 15U);
        EXPECT_EQ(st.prev_utime, 10U);
        EXPECT_EQ(deltas_of(st), (four{10, 10, 10, 10}));
        write_file(proc / "7/stat", "");
        EXPECT_EQ(get_stat_by_pid(7, &st), -1);
        write_file(proc / "7/stat", line_of({"17", "18", "19", "20"}));
        EXPECT_EQ(get_stat_by_pid(7, &st), 0);
        EXPECT_EQ(deltas_of(st), (four{7, 8, 9, 10}));
    });
}

TEST(Statistics, OfThisProcess) {
    proc_stat st{};
    ASSERT_EQ(get_stat_by_pid(getpid(), &st), 0);
    EXPECT_EQ(st.state, static_cast<std::uint32_t>('R'));
    EXPECT_EQ(st.ppid, getppid());
    EXPECT_EQ(st.pgrp, getpgrp());
    EXPECT_EQ(st.session, getsid(0));
    EXPECT_EQ(st.nice, getpriority(PRIO_PROCESS, 0));
    EXPECT_GT(st.starttime, 0U);
    EXPECT_GT(st.rss, 0);
    EXPECT_GT(st.vsize, static_cast<std::uint64_t>(st.rss));
    EXPECT_GE(st.num_threads, 1);
}

TEST(Statistics, OfAZombie) {
    const process zombie([] {});
    zombie.await_end();
    proc_stat st{};
    EXPECT_EQ(get_stat_by_pid(zombie.pid(), &st), 0);
    EXPECT_EQ(st.state, static_cast<std::uint32_t>('Z'));
    EXPECT_EQ(st.ppid, getpid());
    EXPECT_EQ(st.vsize, 0U);
}

TEST(Statistics, OfAProcessThatWasStopped) {
    process sleeper("/bin/sleep", {"sleep", "1000"});
    kill(sleeper.pid(), SIGSTOP);
    proc_stat st{};
    EXPECT_TRUE(
        eventually([&] { return get_stat_by_pid(sleeper.pid(), &st) == 0 && st.state == 'T'; }));
}

TEST_F(KernelThreads, HaveStatistics) {
    proc_stat st{};
    EXPECT_EQ(get_stat_by_pid(2, &st), 0);
    EXPECT_EQ(st.ppid, 0);
    EXPECT_EQ(st.rss, 0);
}

/* ---- Snapshots ------------------------------------------------------------------------------ */

std::uint64_t boot_time() {
    std::istringstream text(content_of("/proc/stat"));
    for (string line; std::getline(text, line);)
        if (line.rfind("btime ", 0) == 0)
            return std::stoull(line.substr(6));
    return 0;
}

TEST_F(Processes, ASnapshotShowsAProcess) {
    const string program = copy_program("/bin/sleep", dir / "naps");
    const auto before = static_cast<std::uint64_t>(time(nullptr));
    const process sleeper(program, {"some/where/else", "1000"}, dir.path());
    auto seen = filled_record<proc_info>();
    proc_stat st{};
    ASSERT_EQ(proc_snapshot(sleeper.pid(), &seen), 0);
    ASSERT_EQ(get_stat_by_pid(sleeper.pid(), &st), 0);

    proc_info expected{};
    std::strcpy(expected.name, "else");
    std::strcpy(expected.cwd, dir.path().c_str());
    std::strcpy(expected.exe, program.c_str());
    std::strcpy(expected.cmdline, "some/where/else 1000");
    expected.state = seen.state;
    expected.pid = sleeper.pid();
    expected.start_time =
        st.starttime / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK)) + boot_time();
    EXPECT_EQ(std::memcmp(&seen, &expected, sizeof seen), 0) << "the rest of the fields is zero";
    EXPECT_NE(string("RSD").find(static_cast<char>(seen.state)), string::npos);
    EXPECT_NEAR(static_cast<double>(seen.start_time), static_cast<double>(before), 60.0)
        << "seconds since the epoch";
}

TEST(ASnapshot, OfAShell) {
    const process shell("/bin/sh", {"-sh", "-c", "sleep 1000; exit 0"});
    proc_info seen{};
    ASSERT_EQ(proc_snapshot(shell.pid(), &seen), 0);
    EXPECT_STREQ(seen.name, "-sh");
    EXPECT_STREQ(seen.cmdline, "-sh -c sleep 1000; exit 0");
    EXPECT_STREQ(seen.cwd, "/");
    EXPECT_TRUE(called("-sh").contains(shell.pid()));
    EXPECT_FALSE(called("sh").contains(shell.pid()));
}

TEST_F(Processes, AScriptIsCalledLikeItsShell) {
    const string script = dir / unique_program_name("script");
    write_file(script, "#!/bin/sh\nwhile :; do sleep 1; done\n");
    chmod(script.c_str(), 0700);
    const process running(script, {"ignored"});
    proc_info seen{};
    ASSERT_EQ(proc_snapshot(running.pid(), &seen), 0);
    EXPECT_STREQ(seen.name, "sh");
    EXPECT_EQ(seen.cmdline, "/bin/sh " + script);
    EXPECT_TRUE(called("sh").contains(running.pid()));
    EXPECT_TRUE(called(fs::path(script).filename()).empty());
}

TEST(ASnapshot, OfNoProcessFails) {
    const process zombie([] {});
    zombie.await_end();
    for (const pid_t pid : {0, -1, std::numeric_limits<pid_t>::min(), no_process, zombie.pid()})
        EXPECT_EQ(run_in_child([pid] {
                      auto seen = filled_record<proc_info>();
                      EXPECT_EQ(proc_snapshot(pid, &seen), -1);
                      EXPECT_TRUE(is_untouched(seen));
                  }),
                  as_expected)
            << pid;
    EXPECT_EQ(run_in_child([] { EXPECT_EQ(proc_snapshot(getpid(), nullptr), -1); }), as_expected);
}

TEST_F(KernelThreads, AreInNoSnapshotAndNeverFound) {
    EXPECT_EQ(run_in_child([] {
                  auto seen = filled_record<proc_info>();
                  EXPECT_EQ(proc_snapshot(2, &seen), -1);
                  EXPECT_TRUE(is_untouched(seen));
              }),
              as_expected);
    for (const char *name : {"kthreadd", "[kthreadd]", ""})
        EXPECT_FALSE(called(name).contains(2)) << name;
}

TEST_F(FakeProc, ASnapshotNeedsAllItsParts) {
    const struct {
        const char *missing;
        const char *err;
    } rows[] = {{"cwd", ""}, {"exe", ""}, {"cmdline", open_failed}, {"stat", ""}};
    for (const auto &r : rows) {
        proc.lay("7");
        proc.remove(string("7/") + r.missing);
        expect(
            [] {
                auto seen = filled_record<proc_info>();
                EXPECT_EQ(proc_snapshot(7, &seen), -1);
                EXPECT_TRUE(is_untouched(seen));
            },
            r.err, r.missing);
        proc.remove("7/cmdline");
        proc.remove("7/cwd");
        expect([] { EXPECT_EQ(proc_snapshot(7, nullptr), -1); });
        expect([] {
            proc_info seen{};
            EXPECT_EQ(proc_snapshot(7, &seen), -1) << "nothing is said where the links are missing";
        });
    }
}

TEST_F(FakeProc, ASnapshotNeedsAWholeStatLine) {
    for (const string &line : {stat_line(21), stat_line(22, "a) b (c"), string(), string("7 (p")}) {
        proc.lay("7", {.stat = line});
        expect([] {
            auto seen = filled_record<proc_info>();
            EXPECT_EQ(proc_snapshot(7, &seen), -1);
            EXPECT_TRUE(is_untouched(seen));
        });
    }
}

TEST_F(FakeProc, LongLinksAreCut) {
    for (const std::size_t length : {1U, 1022U, 1023U, 1024U, 1025U, 4000U}) {
        const string cwd(length, 'c');
        const string exe(length, 'e');
        proc.lay("7", {.cwd = cwd, .exe = exe});
        expect([&] {
            auto seen = filled_record<proc_info>();
            EXPECT_EQ(proc_snapshot(7, &seen), 0);
            EXPECT_EQ(seen.cwd, cwd.substr(0, 1023));
            EXPECT_EQ(seen.exe, exe.substr(0, 1023));
            EXPECT_STREQ(seen.name, "prog");
        });
    }
}

TEST_F(FakeProc, TheNameIsTheBaseNameOfTheFirstWord) {
    const string n = string(300, 'n');
    const struct {
        string cmdline;
        string name;
    } rows[] = {
        {"prog", "prog"},
        {{"prog\0-x\0", 8}, "prog"},
        {"/opt/bin/prog", "prog"},
        {"./prog -x /a/b", "prog"},
        {"a//prog", "prog"},
        {"prog/", ""},
        {"/", ""},
        {"", ""},
        {" /opt/prog", ""},
        {{"\0prog\0", 6}, ""},
        {"/opt/two words", "two"},
        {"/opt/my programs/prog", "my"},
        {"-sh", "-sh"},
        {"sshd: root@pts/0", "sshd:"},
        {"/usr/sbin/prog: worker 1", "prog:"},
        {"tab\tbed", "tab\tbed"},
        {n.substr(0, 255), n.substr(0, 255)},
        {n.substr(0, 256) + " -x", n.substr(0, 255)},
        {"/" + n, n.substr(0, 255)},
        {n + "/prog", "prog"},
        {string(2047, 'n'), n.substr(0, 255)},
    };
    for (const auto &r : rows) {
        proc.lay("7", {.cmdline = r.cmdline});
        expect(
            [&] {
                auto seen = filled_record<proc_info>();
                EXPECT_EQ(proc_snapshot(7, &seen), 0);
                EXPECT_EQ(seen.name, r.name);
                EXPECT_EQ(std::count(seen.name + r.name.size(), std::end(seen.name), '\0'),
                          static_cast<std::ptrdiff_t>(sizeof seen.name - r.name.size()));
            },
            "", r.cmdline);
    }
}

TEST_F(FakeProc, ACommandLineIsTakenWholeOrNotAtAll) {
    const string x = string(3000, 'x');
    const struct {
        string cmdline;
        int result;
    } rows[] = {
        {x.substr(0, 2046) + '\0', 0},  {x.substr(0, 2047), 0},
        {x.substr(0, 2047) + '\0', 0},  {x.substr(0, 2048), -1},
        {x.substr(0, 2048) + '\0', -1}, {x, -1},
    };
    for (const auto &r : rows) {
        proc.lay("7", {.cmdline = r.cmdline});
        expect(
            [&] {
                auto seen = filled_record<proc_info>();
                EXPECT_EQ(proc_snapshot(7, &seen), r.result);
                if (r.result == 0) {
                    EXPECT_STREQ(seen.cmdline, r.cmdline.c_str());
                } else {
                    EXPECT_TRUE(is_untouched(seen));
                }
            },
            r.result == 0 ? "" : too_small, std::to_string(r.cmdline.size()));
    }
}

TEST_F(FakeProc, TheStartIsCountedFromTheBootTime) {
    const auto hz = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    const struct {
        const char *stat;
        std::uint64_t boot;
    } rows[] = {
        {"cpu 1\nbtime 1700000000\nprocesses 5\n", 1'700'000'000},
        {"btime 1700000000", 1'700'000'000},
        {"btime\t \t77\n", 77},
        {"btime12 5\n", 5},
        {"btimes_and_a_word_that_is_long 5\n", 5},
        {"btime 18446744073709551615\n", std::numeric_limits<std::uint64_t>::max()},
        {"btime 1\nbtime 2\n", 1},
        {"btime x\nbtime 2\n", 0},
        {"btime\n", 0},
        {"btime", 0},
        {"xbtime 5\n btime 6\nBTIME 7\nbtim 8\n", 0},
        {"", 0},
    };
    proc.lay("7");
    expect([&] {
        for (const auto &r : rows)
            for (const std::uint64_t ticks : {std::uint64_t{0}, hz - 1, hz, 100 * hz + hz / 2}) {
                write_file(proc / "7/stat", "7 (prog) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 "
                                            "17 18 " +
                                                std::to_string(ticks) + " 20 21\n");
                write_file(proc / "stat", r.stat);
                proc_info seen{};
                EXPECT_EQ(proc_snapshot(7, &seen), 0);
                EXPECT_EQ(seen.start_time, ticks / hz + r.boot) << r.stat;
            }
    });
    proc.remove("stat");
    expect([=] {
        proc_info seen{};
        EXPECT_EQ(proc_snapshot(7, &seen), 0);
        EXPECT_EQ(seen.start_time, 100U) << "no boot time is 0";
    });
}

/* ---- Names ---------------------------------------------------------------------------------- */

proc_info info_of(const string &name, const string &cmdline) {
    proc_info info{};
    std::strcpy(info.name, name.c_str());
    std::strcpy(info.cmdline, cmdline.c_str());
    return info;
}

TEST(Name, OfAProgramIsExact) {
    const string n(255, 'n');
    const struct {
        string program;
        string name;
        int result;
    } rows[] = {
        {"prog", "prog", 0},
        {"prog", "pro", -1},
        {"prog", "progs", -1},
        {"prog", "Prog", -1},
        {"prog", "", -1},
        {"prog", "/opt/bin/prog", -1},
        {"prog", "prog ", -1},
        {"prog", "prog -x", -1},
        {"", "", 0},
        {"", "prog", -1},
        {n, n, 0},
        {n, n + "n", -1},
        {"javac", "javac", 0},
        {"Java", "Main", -1},
        {"jav", "jav", 0},
        {"xjava", "Main", -1},
    };
    for (const auto &r : rows) {
        const proc_info info = info_of(r.program, "/opt/bin/prog -jar Main prog");
        EXPECT_EQ(pname_cmp(&info, r.name.c_str()), r.result) << r.program << " " << r.name;
    }
}

TEST(Name, OfAJavaProgramIsThatOfItsJarOrItsMainClass) {
    const string main(2046, 'x');
    const struct {
        string cmdline;
        string name;
        int result;
    } rows[] = {
        {"java -jar /opt/app.jar", "/opt/app.jar", 0},
        {"java -jar /opt/app.jar", "app.jar", -1},
        {"java -jar /opt/app.jar", "/opt/app", -1},
        {"java -jar /opt/app.jar", "/opt/app.jar ", -1},
        {"java -jar /opt/app.jar", " /opt/app.jar", -1},
        {"java -jar /opt/app.jar", "java", -1},
        {"java -jar /opt/app.jar", "", -1},
        {"java -jar /opt/app.jar -x y", "/opt/app.jar", -1},
        {"java -jar /opt/app.jar -x y", "/opt/app.jar -x y", 0},
        {"java -jar /opt/app.jar -x y", "/opt/app.jar -x", -1},
        {"java -Xmx1g -jar app.jar", "app.jar", 0},
        {"java -cp x -jar app.jar", "x", -1},
        {"java -jar a", "a", 0},
        {"java -jar ", "", -1}, // six characters, and no more
        {"java -jar ", "-jar", -1},
        {"java -jar  ", " ", 0},
        {"java -jar  a.jar", "a.jar", -1},
        {"java -jar  a.jar", " a.jar", 0},
        {"java -jar a -jar b", "a -jar b", 0},
        {"java -jar a -jar b", "b", -1},
        {"java -jar", "-jar", 0}, // not closed by a blank: an argument as any other
        {"java -jar", "", 0},
        {"java -jars app.jar", "app.jar", 0},
        {"java x-jar app.jar", "app.jar", 0},
        {"-jar app.jar", "app.jar", 0},
        {"java -cp x com.Main", "com.Main", 0},
        {"java -cp x com.Main", "x", 0},
        {"java -cp x com.Main", "-cp", 0},
        {"java -cp x com.Main", "com.Ma", 0},
        {"java -cp x com.Main", "Main", -1},
        {"java -cp x com.Main", "om.Main", -1},
        {"java -cp x com.Main", "com.Main2", -1},
        {"java -cp x com.Main", "x com.Main", 0},
        {"java -cp x com.Main -d", "com.Main -d", 0},
        {"java -cp x com.Main -d", "com.Main", 0},
        {"java -cp com.Main com.Main", "com.Main", 0},
        {"java -cp x com.Main", "java", -1},
        {"java -cp x com.Main", "", 0},
        {"java", "java", -1},
        {"java", "", -1},
        {"java ", "", 0},
        {"", "", -1},
        {" " + main, main, 0},
        {" " + main, main + "yz", 0}, // compared as far as a command line goes
        {" " + main, main.substr(1) + "y", -1},
    };
    for (const auto &r : rows) {
        const proc_info info = info_of("java", r.cmdline);
        EXPECT_EQ(pname_cmp(&info, r.name.c_str()), r.result) << r.cmdline << ": " << r.name;
    }
}

TEST(Name, ThatIsNullMatchesNothing) {
    for (const char *program : {"", "prog", "java"}) {
        const proc_info info = info_of(program, "java -jar ");
        EXPECT_EQ(pname_cmp(&info, nullptr), -1);
    }
    EXPECT_EQ(pname_cmp(nullptr, "prog"), -1);
    EXPECT_EQ(pname_cmp(nullptr, nullptr), -1);
}

/* ---- Search by name ------------------------------------------------------------------------- */

TEST_F(Processes, AreFoundByTheirName) {
    const string name = unique_program_name("found");
    EXPECT_TRUE(called(name).empty());
    process first = sleeper(name);
    EXPECT_EQ(called(name), (pid_set{first.pid()}));
    const process second = {dir / name, {name, "1000"}, dir.path()};
    const process other = {dir / name, {name + "x", "1000"}};
    EXPECT_EQ(called(name), (pid_set{first.pid(), second.pid()}));
    EXPECT_TRUE(called(name.substr(1)).empty());
    EXPECT_TRUE(called(dir / name).empty());
    EXPECT_TRUE(called(name + " 1000").empty());
    first.kill();
    EXPECT_EQ(called(name), (pid_set{second.pid()}));
}

TEST_F(Processes, AreCountedBeyondTheCapacity) {
    const string name = unique_program_name("counted");
    const process three[] = {
        sleeper(name), {dir / name, {name, "1000"}}, {dir / name, {name, "9"}}};
    kill(three[2].pid(), SIGSTOP);
    const pid_set all = {three[0].pid(), three[1].pid(), three[2].pid()};
    for (const std::size_t capacity : {0U, 1U, 2U, 3U, 4U}) {
        pid_t pids[5] = {-7, -7, -7, -7, -7};
        EXPECT_EQ(find_pid_by_name(name.c_str(), pids, capacity), 3);
        for (std::size_t i = 0; i < 5; i++)
            EXPECT_EQ(all.contains(pids[i]), i < std::min<std::size_t>(capacity, 3)) << capacity;
        EXPECT_EQ(std::set<pid_t>(pids, pids + std::min<std::size_t>(capacity, 3)).size(),
                  std::min<std::size_t>(capacity, 3));
        EXPECT_EQ(find_pid_by_name(name.c_str(), nullptr, capacity), 3);
    }
}

TEST(Search, FindsItsCallerToo) {
    proc_info self{};
    ASSERT_EQ(proc_snapshot(getpid(), &self), 0);
    EXPECT_TRUE(called(self.name).contains(getpid()));
}

TEST(Search, ForNoNameFindsNothing) {
    EXPECT_EQ(find_pid_by_name(nullptr, nullptr, 0), 0);
    EXPECT_EQ(pkill(nullptr), 0);
    EXPECT_EQ(pkill(unique_program_name("nobody").c_str()), 0);
}

TEST(Search, FindsNoZombie) {
    proc_info self{};
    ASSERT_EQ(proc_snapshot(getpid(), &self), 0);
    const process zombie([] {});
    zombie.await_end();
    EXPECT_FALSE(called(self.name).contains(zombie.pid()));
    EXPECT_FALSE(called("").contains(zombie.pid()));
}

TEST_F(Processes, WithABracketInTheirNameAreNotUnderstood) {
    const process odd = sleeper("a) b (c");
    EXPECT_EQ(content_of("/proc/" + std::to_string(odd.pid()) + "/comm"), "a) b (c\n");
    EXPECT_EQ(run_in_child([&] {
                  proc_stat st{};
                  EXPECT_EQ(get_stat_by_pid(odd.pid(), &st), 1);
                  auto seen = filled_record<proc_info>();
                  EXPECT_EQ(proc_snapshot(odd.pid(), &seen), -1);
                  EXPECT_TRUE(is_untouched(seen));
                  EXPECT_EQ(cmdline_of(odd.pid()), dir / "a) b (c 1000");
              }),
              as_expected);
    for (const char *name : {"a) b (c", "a)", "a"})
        EXPECT_FALSE(called(name).contains(odd.pid())) << name;
}

TEST_F(Processes, WithOtherOddNamesAreUnderstood) {
    const string unique = unique_program_name("odd");
    for (const string &behind : {string(" and blanks"), string("((("), string(20, 'x') + ")"}) {
        const process odd = sleeper(unique + behind);
        const string name = behind[0] == ' ' ? unique : unique + behind;
        proc_stat st{};
        EXPECT_EQ(get_stat_by_pid(odd.pid(), &st), 0) << name;
        EXPECT_EQ(st.ppid, getpid());
        EXPECT_EQ(called(name), (pid_set{odd.pid()})) << name;
    }
    const process blank = sleeper("a b (c");
    proc_info seen{};
    EXPECT_EQ(proc_snapshot(blank.pid(), &seen), 0);
    EXPECT_STREQ(seen.name, "a");
}

TEST_F(Processes, WhoseCommandLineIsTooLongAreReportedAndNotFound) {
    const string name = unique_program_name("long");
    const process talker(copy_program("/usr/bin/perl", dir / name),
                         {name, "-e", "sleep 1000", string(3000, 'x')});
    const child_result search =
        run_in_child([&] { EXPECT_EQ(find_pid_by_name(name.c_str(), nullptr, 0), 0); });
    EXPECT_EQ(search.out, "");
    EXPECT_NE(search.err.find(too_small), string::npos) << search.err;
    EXPECT_EQ(run_in_child([&] {
                  auto seen = filled_record<proc_info>();
                  EXPECT_EQ(proc_snapshot(talker.pid(), &seen), -1);
                  EXPECT_TRUE(is_untouched(seen));
              }),
              exited(0, too_small));
}

/* A Java virtual machine that runs a program which waits. */
class Java : public Processes {
  protected:
    void SetUp() override {
        if (access("/usr/bin/java", X_OK) != 0)
            GTEST_SKIP() << "there is no Java here";
    }

    static process run(std::vector<string> arguments) {
        arguments.insert(arguments.begin(), {"/usr/bin/java", "-XX:-UsePerfData"});
        process java("/usr/bin/java", arguments);
        proc_stat st{};
        EXPECT_TRUE(eventually(
            [&] { return get_stat_by_pid(java.pid(), &st) == 0 && st.num_threads > 9; }));
        return java;
    }

    static constexpr char main_class[] = "sun.rmi.registry.RegistryImpl";
};

TEST_F(Java, IsFoundByItsMainClass) {
    const string path = dir / "classes";
    const process java = run({"-cp", path, main_class, "0"});
    proc_info seen{};
    ASSERT_EQ(proc_snapshot(java.pid(), &seen), 0);
    EXPECT_STREQ(seen.name, "java");
    for (const string &name : {string(main_class), main_class + string(" 0"), string("-cp")})
        EXPECT_TRUE(called(name).contains(java.pid())) << name;
    for (const char *name : {"java", "/usr/bin/java", "RegistryImpl", "sun.rmi.Other"})
        EXPECT_FALSE(called(name).contains(java.pid())) << name;
    EXPECT_EQ(called(path), (pid_set{java.pid()}));
}

TEST_F(Java, IsFoundByItsJar) {
    const string jar = dir / "app.jar";
    const string make = "python3 -c 'import sys, zipfile; zipfile.ZipFile(sys.argv[1], \"w\")"
                        ".writestr(\"META-INF/MANIFEST.MF\", \"Manifest-Version: 1.0\\n"
                        "Main-Class: " +
                        string(main_class) + "\\n\")' " + jar;
    ASSERT_EQ(std::system(make.c_str()), 0);
    process java = run({"-jar", jar, "0"});
    EXPECT_EQ(called(jar + " 0"), (pid_set{java.pid()}));
    for (const string &name : {jar, string("app.jar"), string("app.jar 0"), string(main_class),
                               string("java"), string("-jar")})
        EXPECT_FALSE(called(name).contains(java.pid())) << name;
    EXPECT_EQ(pkill((jar + " 0").c_str()), 1);
    java.wait();
    EXPECT_TRUE(called(jar + " 0").empty());
}

/* ---- The walk ------------------------------------------------------------------------------- */

/* The processes in the directory /proc, in its order. */
std::vector<pid_t> all_entries() {
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir("/proc"), closedir);
    std::vector<pid_t> pids;
    while (const dirent *entry = readdir(directory.get()))
        if (std::strchr("0123456789", *entry->d_name) != nullptr)
            pids.push_back(static_cast<pid_t>(std::strtoul(entry->d_name, nullptr, 0)));
    return pids;
}

bool is_called(pid_t pid, const string &name) {
    proc_info seen{};
    return proc_snapshot(pid, &seen) == 0 && pname_cmp(&seen, name.c_str()) == 0;
}

/* A search as it is defined: by a snapshot of each. */
pid_set plainly_called(const string &name) {
    pid_set found;
    for (const pid_t pid : all_entries())
        if (is_called(pid, name))
            found.insert(pid);
    return found;
}

std::set<string> names_on_this_machine() {
    std::set<string> names;
    for (const pid_t pid : all_entries()) {
        proc_info seen{};
        if (proc_snapshot(pid, &seen) == 0)
            names.insert(seen.name);
    }
    return names;
}

/* Others come and go meanwhile: what is there before and after is found; what is found is there, or
 * has gone. */
TEST(Search, AgreesWithASnapshotOfEveryProcess) {
    const caught_stream messages(stderr);
    std::set<string> names = names_on_this_machine();
    EXPECT_GE(names.size(), 2U);
    for (const string &name : names) {
        const pid_set before = plainly_called(name);
        const pid_set found = called(name);
        const pid_set after = plainly_called(name);
        for (const pid_t pid : before)
            EXPECT_TRUE(found.contains(pid) || !after.contains(pid)) << name << " " << pid;
        for (const pid_t pid : found)
            EXPECT_TRUE(before.contains(pid) || after.contains(pid) || !is_called(pid, name))
                << name << " " << pid;
    }
}

fake_process random_process(std::mt19937 &random) {
    static const string cmdlines[] = {{"/bin/prog\0-x\0", 13},
                                      {"prog\0", 5},
                                      {"java\0-jar\0prog\0", 15},
                                      {"/usr/bin/java\0-cp\0x\0prog\0", 24},
                                      {"java\0-jar\0other\0prog\0", 21},
                                      {"", 0},
                                      "prog: a title",
                                      "progs",
                                      string(2047, 'y'),
                                      "/bin/prog " + string(2100, 'x'),
                                      "other " + string(3000, 'x'),
                                      string("prog\0", 5) + string(2042, 'z') + '\0'};
    return {.cmdline = cmdlines[random() % std::size(cmdlines)],
            .stat = random() % 4 == 0 ? stat_line(random() % 23) : stat_line()};
}

/* What a search finds and says, by its definition and by the library. */
TEST_F(FakeProc, ASearchFindsAndSaysWhatSnapshotsDo) {
    std::mt19937 random(20'240'402);
    for (int i = 1; i <= 300; i++) {
        const string entry = std::to_string(i);
        proc.lay(entry, random_process(random));
        for (const char *file : {"/cwd", "/exe", "/cmdline", "/stat", "/fd"})
            if (random() % 20 == 0)
                proc.remove(entry + file);
        if (random() % 20 == 0) {
            proc.remove(entry + "/cmdline");
            fs::create_directory(proc / (entry + "/cmdline"));
        }
    }
    proc.lay("12abc");
    proc.lay("007");
    for (const char *name : {"prog", "other prog", "other", "", "yyy", "prog:", "-jar", "none"}) {
        const child_result plainly = proc.show([name] {
            for (const pid_t pid : plainly_called(name))
                std::printf("%d\n", pid);
        });
        const child_result found = proc.show([name] {
            std::vector<pid_t> pids(400);
            const int count = find_pid_by_name(name, pids.data(), pids.size());
            std::sort(pids.begin(), pids.begin() + count);
            for (int i = 0; i < count; i++)
                std::printf("%d\n", pids[static_cast<std::size_t>(i)]);
        });
        EXPECT_EQ(found, plainly) << name;
        EXPECT_NE(plainly.err.find(too_small), string::npos);
        EXPECT_NE(plainly.err.find(open_failed), string::npos);
        EXPECT_NE(plainly.err.find(read_failed), string::npos);
    }
}

TEST_F(FakeProc, AnEntryIsAProcessWhenItBeginsWithADigit) {
    const temp_dir dir;
    write_file(dir / "file", "");
    const fake_process user = {.descriptors = {{"3", dir / "file"}}};
    for (const char *entry : {"x7", "-7", "+7", " 7", ".7", "self", "sys"})
        proc.lay(entry, user);
    const auto count_all = [&](int by_name, int by_file, int in_use) {
        expect([=, &dir] {
            EXPECT_EQ(find_pid_by_name("prog", nullptr, 0), by_name);
            EXPECT_EQ(fuser((dir / "file").c_str(), nullptr, 0), by_file);
            EXPECT_EQ(finuse((dir / "file").c_str()), in_use);
        });
    };
    count_all(0, 0, 0);
    proc.lay("12abc", user); // a process 12, whose own entry is not there
    count_all(0, 0, 1);
    proc.lay("12", user);
    count_all(2, 2, 1);
    proc.lay("010", user); // octal: 8
    count_all(2, 2, 1);
    proc.lay("8", user);
    count_all(4, 4, 1);
    proc.lay("0x20", user);
    proc.lay("32", user);
    count_all(6, 6, 1);
    const pid_set expected = {8, 8, 12, 12, 32, 32};
    expect([&] {
        EXPECT_EQ(called("prog"), expected);
        EXPECT_EQ(users_of(dir / "file"), expected);
    });
}

TEST_F(FakeProc, EntriesMayHaveTheLongestNames) {
    const temp_dir dir;
    write_file(dir / "file", "");
    proc.lay("1" + string(254, 'x'), {.descriptors = {{"3", dir / "file"}}});
    expect([&] {
        EXPECT_EQ(finuse((dir / "file").c_str()), 1);
        EXPECT_EQ(fuser((dir / "file").c_str(), nullptr, 0), 0) << "process 1 is not there";
        EXPECT_EQ(find_pid_by_name("prog", nullptr, 0), 0);
    });
}

/* Zero and less are groups of processes to kill(). */
TEST_F(FakeProc, EntriesThatAreNoIdentifierAreNotSearched) {
    for (const char *entry : {"0", "00", "0x", "08", "4294967295", "4294967296", "2147483648",
                              "99999999999999999999999"})
        proc.lay(entry);
    expect([] { EXPECT_EQ(find_pid_by_name("prog", nullptr, 0), 0); });
}

TEST_F(FakeProc, ProcessesThatVanishArePassedOver) {
    const temp_dir dir;
    write_file(dir / "file", "");
    for (const char *entry : {"1", "2", "3"})
        proc.lay(entry, {.descriptors = {{"3", dir / "file"}}});
    for (const char *entry : {"4", "5"})
        fs::create_directory(proc / entry);
    fs::create_symlink("gone", proc / "6");
    write_file(proc / "7", "no directory");
    proc.remove("2");
    fs::create_directory(proc / "2");
    expect([&] {
        EXPECT_EQ(called("prog"), (pid_set{1, 3}));
        EXPECT_EQ(users_of(dir / "file"), (pid_set{1, 3}));
        EXPECT_EQ(finuse((dir / "file").c_str()), 1);
    });
}

/* The walks, each with a path or name that it can search for. */
const std::pair<const char *, std::function<void()>> walks[] = {
    {"fuser", [] { fuser("/", nullptr, 0); }},
    {"finuse", [] { finuse("/"); }},
    {"find_pid_by_name", [] { find_pid_by_name("none", nullptr, 0); }},
    {"pkill", [] { pkill("none"); }},
};

TEST_F(FakeProc, WithoutProcAWalkEndsTheProcess) {
    const temp_dir empty;
    const auto below_empty_root = [&](const std::function<void()> &body) {
        return run_in_child([&] {
            if (chroot(empty.path().c_str()) != 0 || chdir("/") != 0)
                _exit(99);
            std::printf("text");
            body();
        });
    };
    for (const auto &[name, walk] : walks)
        EXPECT_EQ(below_empty_root(walk), (child_result{1, 0, "text", ""})) << name;
    EXPECT_EQ(below_empty_root([] {
                  EXPECT_EQ(fuser("/none", nullptr, 0), -1);
                  EXPECT_EQ(finuse("/none"), -1);
              }),
              (child_result{0, 0, "text", ""}))
        << "there is nothing to walk for";
}

TEST(Walk, WithoutADescriptorEndsTheProcess) {
    for (const auto &[name, walk] : walks)
        EXPECT_EQ(run_in_child([&walk = walk] {
                      forbid_descriptors();
                      walk();
                  }),
                  exited(1))
            << name;
}

TEST_F(Processes, ThatComeAndGoDoNotDisturbAWalk) {
    const string name = unique_program_name("steady");
    const process steady = sleeper(name);
    proc_info self{};
    ASSERT_EQ(proc_snapshot(getpid(), &self), 0);
    const auto storm = [] {
        for (;;)
            if (const pid_t child = fork(); child == 0)
                _exit(0);
            else
                waitpid(child, nullptr, 0);
    };
    const process storms[] = {process(storm), process(storm)};
    const int held = open((dir / "held").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const caught_stream messages(stderr); // of those that went just then
    for (int i = 0; i < 10; i++) {
        ASSERT_EQ(called(name), (pid_set{steady.pid()}));
        ASSERT_EQ(users_of(dir / "held"), (pid_set{getpid()}));
        ASSERT_EQ(finuse((dir / "held").c_str()), 1);
        const pid_set family = called(self.name);
        for (const pid_t pid : {getpid(), storms[0].pid(), storms[1].pid()})
            ASSERT_EQ(family.count(pid), 1U);
    }
    close(held);
}

TEST_F(Processes, TwoThousandOfThem) {
    const string name = unique_program_name("crowd");
    copy_program("/bin/sleep", dir / name);
    std::vector<process> crowd;
    pid_set pids;
    for (int i = 0; i < 2000; i++)
        pids.insert(crowd.emplace_back(dir / name, std::vector<string>{name, "1000"}).pid());
    EXPECT_EQ(called(name), pids);
    const auto heap = heap_in_use();
    const auto descriptors = count_descriptors();
    pid_t some[100];
    EXPECT_EQ(find_pid_by_name(name.c_str(), some, 100), 2000);
    EXPECT_TRUE(std::all_of(std::begin(some), std::end(some),
                            [&](pid_t pid) { return pids.contains(pid); }));
    EXPECT_GE(fuser("/dev/null", some, 100), 2000) << "their standard streams";
    EXPECT_EQ(fuser((dir / name).c_str(), some, 100), 0) << "running a program is not using it";
    EXPECT_LE(heap_in_use(), heap + 10'000);
    EXPECT_EQ(count_descriptors(), descriptors);
    EXPECT_EQ(pkill(name.c_str()), 2000);
    for (process &one : crowd)
        EXPECT_TRUE(WIFSIGNALED(one.wait()));
}

/* Among processes of its own alone, so that none that comes or goes makes a difference. */
TEST_F(Processes, NothingIsLeftBehindAThousandWalks) {
    const auto body = [this] {
        const process steady = sleeper("steady");
        write_file(dir / "unused", "");
        const auto walk = [&](int rounds) {
            for (int i = 0; i < rounds; i++) {
                EXPECT_EQ(find_pid_by_name("steady", nullptr, 0), 1);
                EXPECT_EQ(fuser((dir / "unused").c_str(), nullptr, 0), 0);
                EXPECT_EQ(finuse((dir / "unused").c_str()), 0);
                EXPECT_EQ(finuse("/dev/null"), 1) << "left in the middle";
                EXPECT_EQ(pkill("absent"), 0);
            }
        };
        const auto descriptors = count_descriptors();
        walk(100); // until the allocator keeps no more of what it got back
        const auto heap = heap_in_use();
        walk(1000);
        EXPECT_LT(heap_in_use(), heap + 1000) << "not a byte a walk";
        EXPECT_EQ(count_descriptors(), descriptors);
    };
    EXPECT_EQ(run_with_own_processes(body), (child_result{0, 0, "", ""}));
}

TEST_F(FakeProc, NothingIsLeftBehindFailures) {
    proc.lay("1", {.cmdline = string(3000, 'x')});
    proc.lay("2", {.stat = stat_line(5)});
    proc.lay("3", {.stat = ""});
    proc.lay("4");
    proc.remove("4/cmdline");
    fs::create_directory(proc / "4/cmdline");
    proc.lay("5");
    proc.lay("self");
    expect([] {
        const caught_stream messages(stderr);
        const auto look = [] {
            for (const pid_t pid : {1, 2, 3, 4, 5, 6}) {
                proc_info seen{};
                proc_stat st{};
                EXPECT_EQ(proc_snapshot(pid, &seen), pid == 5 ? 0 : -1);
                get_stat_by_pid(pid, &st);
            }
            EXPECT_EQ(find_pid_by_name("prog", nullptr, 0), 1);
        };
        look();
        const auto heap = heap_in_use();
        const int next = open("/", O_RDONLY | O_CLOEXEC);
        close(next);
        for (int i = 0; i < 1000; i++)
            look();
        EXPECT_LT(heap_in_use(), heap + 1000);
        const int again = open("/", O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(again, next) << "the lowest descriptor that is free";
        close(again);
    });
}

TEST_F(Processes, AreLookedAtByManyThreads) {
    const string name = unique_program_name("threads");
    const process steady = sleeper(name);
    write_file(dir / "file", "");
    const int held = open((dir / "file").c_str(), O_RDONLY | O_CLOEXEC);
    const caught_stream messages(stderr);
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; i++)
            threads.emplace_back([&] {
                for (int turn = 0; turn < 20; turn++) {
                    pid_t pid = 0;
                    proc_info seen{};
                    EXPECT_EQ(find_pid_by_name(name.c_str(), &pid, 1), 1);
                    EXPECT_EQ(pid, steady.pid());
                    EXPECT_EQ(fuser((dir / "file").c_str(), &pid, 1), 1);
                    EXPECT_EQ(pid, getpid());
                    EXPECT_EQ(proc_snapshot(steady.pid(), &seen), 0);
                    EXPECT_EQ(pname_cmp(&seen, name.c_str()), 0);
                }
            });
    }
    close(held);
}

/* ---- Kills ---------------------------------------------------------------------------------- */

struct sent_signal {
    pid_t to;
    int signal;
    bool operator==(const sent_signal &) const = default;
};

void PrintTo(const sent_signal &sent, std::ostream *stream) {
    *stream << sent.signal << " to " << sent.to;
}

/* The signals that pkill() sends, from a child whose system calls are traced. `behind_each` runs
 * while the child is held behind one. The child's exit status is pkill()'s result. */
std::vector<sent_signal> trace_pkill(const string &name, int &result,
                                     const std::function<void(int)> &behind_each = {}) {
    const pid_t killer = fork();
    if (killer == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        _exit(pkill(name.c_str()));
    }
    std::vector<sent_signal> sent;
    int status = 0;
    waitpid(killer, &status, 0);
    ptrace(PTRACE_SETOPTIONS, killer, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    for (bool inside = false; WIFSTOPPED(status); waitpid(killer, &status, 0)) {
        __ptrace_syscall_info call{};
        if (WSTOPSIG(status) == (SIGTRAP | 0x80))
            ptrace(PTRACE_GET_SYSCALL_INFO, killer, sizeof call, &call);
        if (call.op == PTRACE_SYSCALL_INFO_ENTRY && call.entry.nr == SYS_kill) {
            sent.push_back(
                {static_cast<pid_t>(call.entry.args[0]), static_cast<int>(call.entry.args[1])});
            inside = true;
            if (sent.back().to < 1)
                kill(killer, SIGKILL); // never let it get at a group, or at all there are
        } else if (std::exchange(inside, false) && behind_each) {
            behind_each(sent.back().signal);
        }
        ptrace(PTRACE_SYSCALL, killer, nullptr, nullptr);
    }
    result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return sent;
}

/* The target writes down what it catches; the kill is held back until it has. */
TEST_F(Processes, GetFourSignalsInTheirOrder) {
    const string name = unique_program_name("target");
    const string script = "open F, '>>', $ARGV[0];"
                          "$SIG{$_} = sub { syswrite F, \"$_[0] \" } for qw(TERM INT HUP);"
                          "syswrite F, 'ready ';"
                          "select undef, undef, undef, 0.01 while 1;";
    process target(copy_program("/usr/bin/perl", dir / name), {name, "-e", script, dir / "log"});
    ASSERT_TRUE(eventually([&] { return content_of(dir / "log") == "ready "; }));
    const std::map<int, string> logged = {
        {SIGTERM, "ready TERM "}, {SIGINT, "ready TERM INT "}, {SIGHUP, "ready TERM INT HUP "}};
    int result = 0;
    const auto sent = trace_pkill(name, result, [&](int signal) {
        if (signal == SIGKILL)
            return target.await_end();
        EXPECT_TRUE(eventually([&] { return content_of(dir / "log") == logged.at(signal); }))
            << content_of(dir / "log");
    });
    const pid_t pid = target.pid();
    ASSERT_EQ(sent, (std::vector<sent_signal>{
                        {pid, SIGTERM}, {pid, SIGINT}, {pid, SIGHUP}, {pid, SIGKILL}}));
    EXPECT_EQ(result, 1);
    const int status = target.wait();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST_F(Processes, OfANameAreAllKilledWhateverTheyIgnore) {
    const string name = unique_program_name("stubborn");
    copy_program("/usr/bin/perl", dir / name);
    const string script = "open F, '>>', $ARGV[0]; $SIG{$_} = 'IGNORE' for qw(TERM INT HUP);"
                          "syswrite F, '.'; sleep while 1";
    process stubborn[] = {{dir / name, {name, "-e", script, dir / "log"}},
                          {dir / name, {name, "-e", script, dir / "log"}},
                          {dir / name, {name, "-e", script, dir / "log"}}};
    process other(dir / name, {name + "x", "-e", script, dir / "log"});
    ASSERT_TRUE(eventually([&] { return content_of(dir / "log") == "...."; }));
    kill(stubborn[1].pid(), SIGSTOP);
    int result = 0;
    ASSERT_EQ(trace_pkill(name, result).size(), 12U);
    EXPECT_EQ(result, 3);
    for (process &one : stubborn)
        EXPECT_EQ(WTERMSIG(one.wait()), SIGKILL);
    EXPECT_EQ(::kill(other.pid(), 0), 0);
    EXPECT_EQ(called(name + "x"), (pid_set{other.pid()}));
    EXPECT_EQ(pkill(name.c_str()), 0);
}

TEST_F(FakeProc, WhatCannotBeSignalledCountsToo) {
    proc.lay(std::to_string(no_process));
    proc.lay("0");
    proc.lay("4294967295");
    expect([] {
        int result = 0;
        EXPECT_EQ(trace_pkill("prog", result), (std::vector<sent_signal>{{no_process, SIGTERM},
                                                                         {no_process, SIGINT},
                                                                         {no_process, SIGHUP},
                                                                         {no_process, SIGKILL}}));
        EXPECT_EQ(result, 1);
    });
}

/* A default action comes before the call that sends the signal returns. */
TEST_F(FakeProc, ItsCallerIsKilledToo) {
    EXPECT_EQ(proc.show([this] {
        proc.lay(std::to_string(getpid()));
        pkill("prog");
    }),
              (child_result{-1, SIGTERM, "", ""}));
}

/* ---- Open files ----------------------------------------------------------------------------- */

/* A file that this process has open. */
class open_file {
  public:
    explicit open_file(const string &path, int flags = O_RDWR | O_CREAT)
        : descriptor_(open(path.c_str(), flags | O_CLOEXEC, 0600)) {}
    ~open_file() { close(descriptor_); }
    open_file(const open_file &) = delete;
    open_file &operator=(const open_file &) = delete;

  private:
    int descriptor_;
};

void pause_for_ever() {
    for (;;)
        pause();
}

void expect_users(const string &path, const pid_set &pids) {
    EXPECT_EQ(users_of(path), pids) << path;
    EXPECT_EQ(finuse(path.c_str()), !pids.empty()) << path;
}

class OpenFiles : public Processes {
  protected:
    const string file = dir / "file";
    const pid_set me = {getpid()};
    const pid_set nobody = {};
};

TEST_F(OpenFiles, HaveUsers) {
    write_file(file, "");
    expect_users(file, nobody);
    {
        const open_file first(file);
        expect_users(file, me);
        const process second(pause_for_ever);
        expect_users(file, {getpid(), second.pid()});
        const open_file other(dir / "other");
        expect_users(dir / "other", me);
        const process third(pause_for_ever);
        expect_users(file, {getpid(), second.pid(), third.pid()});
        expect_users(dir / "other", {getpid(), third.pid()});
    }
    expect_users(file, nobody);
}

TEST_F(OpenFiles, CountBeyondTheCapacity) {
    const open_file held(file);
    const process second(pause_for_ever);
    const process third(pause_for_ever);
    const pid_set all = {getpid(), second.pid(), third.pid()};
    for (const std::size_t capacity : {0U, 1U, 2U, 3U, 4U}) {
        pid_t pids[5] = {-7, -7, -7, -7, -7};
        EXPECT_EQ(fuser(file.c_str(), pids, capacity), 3);
        for (std::size_t i = 0; i < 5; i++)
            EXPECT_EQ(all.contains(pids[i]), i < std::min<std::size_t>(capacity, 3)) << capacity;
        EXPECT_EQ(fuser(file.c_str(), nullptr, capacity), 3);
    }
}

TEST_F(OpenFiles, CountAProcessOnce) {
    const open_file first(file);
    const open_file second(file, O_RDONLY);
    const open_file third(file, O_WRONLY | O_APPEND);
    expect_users(file, me);
}

/* The one that counts is opened last, behind a thousand others, and a thousand times. */
TEST_F(OpenFiles, AreFoundAmongManyDescriptors) {
    write_file(file, "");
    EXPECT_EQ(run_in_child([&] {
                  rlimit descriptors{};
                  getrlimit(RLIMIT_NOFILE, &descriptors);
                  descriptors.rlim_cur = descriptors.rlim_max;
                  setrlimit(RLIMIT_NOFILE, &descriptors);
                  int last = 0;
                  for (int i = 0; i < 1000; i++)
                      last = open("/dev/null", O_RDONLY | O_CLOEXEC);
                  EXPECT_GE(last, 1000);
                  expect_users(file, {});
                  for (int i = 0; i < 1000; i++)
                      last = open(file.c_str(), O_RDONLY | O_CLOEXEC);
                  EXPECT_GE(last, 2000);
                  expect_users(file, {getpid()});
              }),
              as_expected);
}

TEST_F(OpenFiles, ThatAreDeletedHaveNoPath) {
    const open_file held(file);
    fs::remove(file);
    EXPECT_EQ(fuser(file.c_str(), nullptr, 0), -1);
    EXPECT_EQ(finuse(file.c_str()), -1);
    write_file(file, "another");
    expect_users(file, nobody);
    write_file(file + " (deleted)", "by chance called like it");
    expect_users(file + " (deleted)", me);
}

TEST_F(OpenFiles, AreFoundUnderTheirNewName) {
    const open_file held(file);
    fs::rename(file, dir / "renamed");
    expect_users(dir / "renamed", me);
}

TEST_F(OpenFiles, AreFoundByTheNameTheyWereOpenedBy) {
    const open_file held(file);
    fs::create_hard_link(file, dir / "hard");
    expect_users(dir / "hard", nobody);
    const open_file other(dir / "hard");
    expect_users(dir / "hard", me);
}

TEST_F(OpenFiles, AreFoundThroughLinks) {
    fs::create_directory(dir / "real");
    const open_file held(dir / "real/held");
    fs::create_directory_symlink(dir / "real", dir / "linked");
    fs::create_symlink("linked/held", dir / "link");
    fs::create_symlink("link", dir / "link2");
    for (const char *path : {"real/held", "linked/held", "link", "link2", "real//held",
                             "./real/./held", "real/../linked/held"})
        expect_users(dir / path, me);
    const open_file through(dir / "link");
    expect_users(dir / "real/held", me);
}

TEST_F(OpenFiles, AreFoundByRelativePaths) {
    EXPECT_EQ(run_in_child([&] {
                  const open_file held(file);
                  fs::create_directory(dir / "sub");
                  ASSERT_EQ(chdir((dir / "sub").c_str()), 0);
                  expect_users("../file", {getpid()});
                  ASSERT_EQ(chdir(".."), 0);
                  expect_users("file", {getpid()});
                  expect_users("./sub/../file", {getpid()});
              }),
              as_expected);
}

TEST_F(OpenFiles, OfEveryKind) {
    const open_file directory(dir.path(), O_RDONLY | O_DIRECTORY);
    expect_users(dir.path(), me);
    expect_users(dir.path() + "/", me);
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    expect_users(dir / "fifo", nobody);
    const open_file fifo(dir / "fifo");
    expect_users(dir / "fifo", me);
    ASSERT_EQ(mkfifo((dir / "unread").c_str(), 0600), 0);
    expect_users(dir / "unread", nobody);
    for (const char *name : {"two words", "line\nfeed", "\xe6\x96\x87", "a (b) c"}) {
        const open_file odd(dir / name);
        expect_users(dir / name, me);
    }
    const string longest(255, 'n');
    const open_file long_name(dir / longest);
    expect_users(dir / longest, me);
}

TEST_F(OpenFiles, Devices) {
    const open_file null("/dev/null", O_RDWR);
    const process user = sleeper("user"); // whose standard streams are on it
    EXPECT_EQ(users_of("/dev/null").count(user.pid()), 1U);
    EXPECT_EQ(users_of("/dev/null").count(getpid()), 1U);
    EXPECT_EQ(finuse("/dev/null"), 1);
}

/* Neither a mapping nor the program nor the directory of a process is a descriptor. */
TEST_F(OpenFiles, OtherUsesDoNotCount) {
    fs::create_directory(dir / "sub");
    const process user(copy_program("/bin/sleep", file), {"sleep", "1000"}, dir / "sub");
    expect_users(file, nobody);
    expect_users(dir / "sub", nobody);
    write_file(dir / "mapped", "text");
    const int descriptor = open((dir / "mapped").c_str(), O_RDONLY | O_CLOEXEC);
    void *mapped = mmap(nullptr, 4, PROT_READ, MAP_SHARED, descriptor, 0);
    expect_users(dir / "mapped", me);
    close(descriptor);
    expect_users(dir / "mapped", nobody);
    munmap(mapped, 4);
}

TEST_F(OpenFiles, AWalkSeesItself) {
    EXPECT_TRUE(users_of("/proc").contains(getpid()));
    EXPECT_EQ(finuse("/proc"), 1);
}

TEST_F(OpenFiles, WithoutAPathThereAreNone) {
    write_file(file, "");
    fs::create_symlink("nowhere", dir / "dangling");
    fs::create_symlink("loop", dir / "loop");
    for (const string &path : {string(), dir / "none", file + "/x", dir / "dangling", dir / "loop",
                               "/" + string(5000, 'x'), dir / string(256, 'n')}) {
        pid_t pid = -7;
        EXPECT_EQ(fuser(path.c_str(), &pid, 1), -1) << path;
        EXPECT_EQ(pid, -7);
        EXPECT_EQ(finuse(path.c_str()), -1) << path;
    }
    EXPECT_EQ(fuser(nullptr, nullptr, 0), -1);
    EXPECT_EQ(finuse(nullptr), -1);
}

TEST_F(FakeProc, DescriptorsAreComparedByTheirLinks) {
    const temp_dir dir;
    const string file = dir / "file";
    write_file(file, "");
    proc.lay("1", {.descriptors = {{"0", file}, {"1", file}, {"2", file}}});
    proc.lay("2", {.descriptors = {{"0", file + "x"}, {"1", file.substr(1)}, {"2", file + "/"}}});
    proc.lay("3", {.descriptors = {{"0", file + " (deleted)"}, {"1", dir / "./file"}}});
    proc.lay("4", {.descriptors = {{"0", string(4000, 'x')}, {"1", "pipe:[1]"}, {"2", file}}});
    proc.lay("5", {.descriptors = {{"1", file}}});
    write_file(proc / "5/fd/0", "no link");
    fs::create_directory(proc / "5/fd/2");
    proc.lay("6", {.descriptors = {{"name", file}}});
    proc.lay("7");
    proc.remove("7/fd");
    proc.lay("8");
    proc.remove("8/fd");
    write_file(proc / "8/fd", file);
    expect([&] { expect_users(file, {1, 4, 5, 6}); });
}

/* The first one it meets is enough: it is not even looked whether there are others. */
TEST_F(FakeProc, AFileInUseIsFoundWhereverItsUserIs) {
    const temp_dir dir;
    write_file(dir / "file", "");
    for (int user = 1; user <= 6; user++) {
        for (int i = 1; i <= 6; i++)
            proc.lay(std::to_string(i), {.descriptors = {{"0", i == user ? dir / "file" : "x"}}});
        expect([&] { expect_users(dir / "file", {user}); });
    }
}

/* ---- Usage ---------------------------------------------------------------------------------- */

const auto hz = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
const double page_kb = static_cast<double>(sysconf(_SC_PAGESIZE) / 1024);

/* A machine of four processors that has been up for 1000.75 seconds. */
std::unique_ptr<sys_stat> some_machine() {
    auto machine = std::make_unique<sys_stat>();
    machine->nprocessors = 4;
    machine->uptime = 1000.75;
    machine->mem_total = 1'000'000;
    machine->cpu[0].total = 4000;
    return machine;
}

TEST(Usage, OfMemoryIsItsShareOfAll) {
    const auto machine = some_machine();
    const struct {
        std::int64_t rss;
        std::uint64_t total;
    } rows[] = {{0, 1000}, {1, 1000}, {250, 1000}, {12'345, 3'333'333}, {-1, 7}, {1, 1}};
    for (const auto &r : rows)
        for (const int mode : {0, 1, 2, -1}) {
            proc_stat st{};
            st.rss = r.rss;
            machine->mem_total = r.total;
            EXPECT_EQ(get_process_stat(&st, machine.get(), mode), 0);
            EXPECT_DOUBLE_EQ(st.mem_usage, static_cast<double>(r.rss) * 100.0 * page_kb /
                                               static_cast<double>(r.total));
        }
    machine->mem_total = 0;
    proc_stat st{};
    st.rss = 1;
    get_process_stat(&st, machine.get(), 2);
    EXPECT_TRUE(std::isinf(st.mem_usage));
    st.rss = 0;
    get_process_stat(&st, machine.get(), 2);
    EXPECT_TRUE(std::isnan(st.mem_usage));
}

TEST(Usage, CountsWholeSeconds) {
    const auto machine = some_machine();
    const struct {
        double uptime;
        std::uint64_t start;
        std::uint64_t seconds;
    } rows[] = {
        {1000.75, 0, 1000},
        {1000.75, hz - 1, 1000},
        {1000.75, hz, 999},
        {1000.0, 999 * hz + hz - 1, 1},
        {1000.99, 1000 * hz, 0},
        {1000.99, 1001 * hz, std::numeric_limits<std::uint64_t>::max()}, // has no sign
        {-1.0, 0, 0}, // what is no time since boot is none
        {std::numeric_limits<double>::quiet_NaN(), 0, 0},
        {std::numeric_limits<double>::infinity(), 0, 0},
    };
    for (const auto &r : rows)
        for (const int mode : {0, 1, 2, -1}) {
            proc_stat st{};
            st.starttime = r.start;
            machine->uptime = r.uptime;
            EXPECT_EQ(get_process_stat(&st, machine.get(), mode), 0);
            EXPECT_EQ(st.run_seconds, r.seconds) << r.uptime << " " << r.start;
        }
}

TEST(Usage, OfTheLastIntervalIsScaledToOneProcessor) {
    const auto machine = some_machine();
    const struct {
        std::uint64_t processors;
        std::int64_t total;
        std::int64_t delta;
        double usage;
    } rows[] = {
        {4, 4000, 0, 0.0},    {4, 4000, 1000, 100.0},     {4, 4000, 4000, 400.0},
        {1, 1000, 500, 50.0}, {2, 3, 1, 2 * (100.0 / 3)}, {0, 1000, 500, 0.0},
        {128, 1, 1, 12800.0},
    };
    for (const auto &r : rows) {
        proc_stat st{};
        st.delta_total = r.delta;
        st.utime = st.starttime = 5000; // which do not matter
        machine->nprocessors = r.processors;
        machine->cpu[0].total = r.total;
        EXPECT_EQ(get_process_stat(&st, machine.get(), 0), 0);
        EXPECT_DOUBLE_EQ(st.cpu_usage, r.usage);
    }
}

TEST(Usage, SinceTheStartCountsChildrenAndWholeSeconds) {
    const auto machine = some_machine(); // up for 1000 seconds
    const struct {
        std::array<std::uint64_t, 2> own;
        std::array<std::int64_t, 2> children;
        std::uint64_t start; /* seconds */
        double usage;
    } rows[] = {
        {{100 * hz, 0}, {0, 0}, 0, 10.0},
        {{100 * hz, 200 * hz},
         {300, 400},
         0,
         100.0 * static_cast<double>((300 * hz + 700) / hz) / 1000},
        {{hz, hz}, {static_cast<std::int64_t>(hz), static_cast<std::int64_t>(hz)}, 990, 40.0},
        {{hz - 1, 0}, {0, 0}, 990, 0.0},                                       // not a whole second
        {{hz / 2, hz / 4}, {static_cast<std::int64_t>(hz / 4), 0}, 990, 10.0}, // one together
        {{2 * hz - 1, 0}, {0, 0}, 997, 100.0 / 3},
        {{10 * hz, 0}, {-5 * static_cast<std::int64_t>(hz), 0}, 990, 50.0},
        {{50 * hz, 0}, {0, 0}, 999, 5000.0},
        {{50 * hz, 0}, {0, 0}, 1000, 0.0}, // younger than a second
    };
    for (const auto &r : rows) {
        auto st = filled_record<proc_stat>();
        st.utime = r.own[0];
        st.stime = r.own[1];
        st.cutime = r.children[0];
        st.cstime = r.children[1];
        st.starttime = r.start * hz;
        EXPECT_EQ(get_process_stat(&st, machine.get(), 1), 0);
        EXPECT_DOUBLE_EQ(st.cpu_usage, r.usage) << r.own[0] << " " << r.start;
    }
}

TEST(Usage, InAnyOtherModeIsNone) {
    const auto machine = some_machine();
    for (const int mode :
         {2, -1, 3, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        auto st = filled_record<proc_stat>();
        const auto before = st;
        EXPECT_EQ(get_process_stat(&st, machine.get(), mode), 0);
        EXPECT_EQ(st.cpu_usage, 0.0);
        EXPECT_EQ(std::memcmp(&st, &before, offsetof(proc_stat, cpu_usage)), 0)
            << "nothing else is touched";
    }
}

TEST(Usage, WithoutRecordsChangesNothing) {
    const auto machine = some_machine();
    auto st = filled_record<proc_stat>();
    for (const int mode : {0, 1, 2}) {
        EXPECT_EQ(get_process_stat(&st, nullptr, mode), 0);
        EXPECT_TRUE(is_untouched(st));
        EXPECT_EQ(get_process_stat(nullptr, machine.get(), mode), 0);
        EXPECT_EQ(get_process_stat(nullptr, nullptr, mode), 0);
    }
}

TEST(Usage, OfAProcessThatHasJustBeenStartedIsNone) {
    get_system_stat();
    proc_stat st{};
    const process young([] {
        for (;;)
            keel_test::spin(1000);
    });
    ASSERT_EQ(get_stat_by_pid(young.pid(), &st), 0);
    ss.uptime = static_cast<double>(st.starttime / hz) + 0.99;
    st.utime = 1000 * hz;
    get_process_stat(&st, &ss, 1);
    EXPECT_EQ(st.run_seconds, 0U);
    EXPECT_EQ(st.cpu_usage, 0.0);
}

/* What ps tells of a process. */
struct ps_figures {
    double seconds;
    double kb;
    double memory;
    double cpu_seconds;
};

ps_figures ps_of(pid_t pid) {
    const string command =
        "ps -o etimes=,rss=,pmem=,cputimes= -p " + std::to_string(pid) + " 2>/dev/null";
    const std::unique_ptr<FILE, int (*)(FILE *)> ps(popen(command.c_str(), "re"), pclose);
    ps_figures figures{};
    EXPECT_EQ(std::fscanf(ps.get(), "%lf %lf %lf %lf", &figures.seconds, &figures.kb,
                          &figures.memory, &figures.cpu_seconds),
              4);
    return figures;
}

/* A process with 256 MiB of memory that uses a processor as well as it can. */
void be_busy() {
    mmap(nullptr, 256 << 20, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1,
         0);
    for (;;)
        keel_test::spin(1000);
}

/* Two looks of ps enclose the library's. Both tell whole seconds: one of tolerance; the kernel
 * counts pages for each processor by itself: 2 MiB; ps tells tenths of a percent. */
TEST(Usage, AgreesWithPs) {
    if (std::system("ps -p 1 >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "there is no ps here";
    const process busy(be_busy);
    proc_stat st{};
    ASSERT_TRUE(eventually([&] {
        return get_stat_by_pid(busy.pid(), &st) == 0 &&
               static_cast<double>(st.rss) * page_kb > 256 * 1024 && st.utime + st.stime > 2 * hz;
    }));
    const ps_figures before = ps_of(busy.pid());
    get_system_stat();
    ASSERT_EQ(get_stat_by_pid(busy.pid(), &st), 0);
    get_process_stat(&st, &ss, 1);
    const ps_figures after = ps_of(busy.pid());

    const auto run = static_cast<double>(st.run_seconds);
    EXPECT_GE(run, before.seconds - 1);
    EXPECT_LE(run, after.seconds + 1);
    EXPECT_NEAR(static_cast<double>(st.rss) * page_kb, after.kb, 2048);
    EXPECT_NEAR(st.mem_usage, after.memory,
                0.11 + 100.0 * 2048 / static_cast<double>(ss.mem_total));
    EXPECT_GE(st.cpu_usage, 100.0 * before.cpu_seconds / run);
    EXPECT_LE(st.cpu_usage, 100.0 * after.cpu_seconds / run);
    EXPECT_GT(st.cpu_usage, 0.0);
}

double seconds_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/* Against the process's own clock, over an interval in which it works for a second. The processors
 * together pass as many ticks as there are processors and time: 20 % of tolerance, for idle ones
 * that the kernel counts late. */
TEST(Usage, OfAnIntervalAgreesWithTheClocks) {
    const process busy([] {
        for (;;)
            keel_test::spin(1000);
    });
    clockid_t clock = 0;
    ASSERT_EQ(clock_getcpuclockid(busy.pid(), &clock), 0);
    proc_stat st{};
    get_system_stat();
    get_stat_by_pid(busy.pid(), &st);
    const double wall = seconds_of(CLOCK_MONOTONIC);
    const double used = seconds_of(clock);
    ASSERT_TRUE(eventually([&] { return seconds_of(clock) > used + 1; }));
    get_system_stat();
    ASSERT_EQ(get_stat_by_pid(busy.pid(), &st), 0);
    const double expected =
        100.0 * (seconds_of(clock) - used) / (seconds_of(CLOCK_MONOTONIC) - wall);
    get_process_stat(&st, &ss, 0);
    EXPECT_NEAR(st.cpu_usage, expected, 0.2 * expected);
    EXPECT_NEAR(static_cast<double>(st.delta_total), static_cast<double>(hz),
                0.5 * static_cast<double>(hz));
}

} // namespace

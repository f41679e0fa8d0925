/* SPDX-License-Identifier: MIT */
#include "xfsproc.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "descriptors.h"
#include "fake_files.h"
#include "heap.h"
#include "lies_at.h"
#include "temp_dir.h"

namespace {

using keel_test::child_result;
using keel_test::content_of;
using keel_test::count_descriptors;
using keel_test::descriptors_of;
using keel_test::exited;
using keel_test::fake_files;
using keel_test::heap_in_use;
using keel_test::run_in_child;
using keel_test::run_with_fakes;
using keel_test::temp_dir;
using keel_test::write_file;
using std::string;

constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();

/* ---- The records ---------------------------------------------------------------------------- */

LIES_AT(cpu_counter, cur, std::uint64_t, 0);
LIES_AT(cpu_counter, prev, std::uint64_t, 8);
static_assert(sizeof(cpu_counter) == 16);

LIES_AT(cpu_usage, name, char[32], 0);
LIES_AT(cpu_usage, usage, double, 32);
LIES_AT(cpu_usage, counters, cpu_counter[9], 40);
LIES_AT(cpu_usage, delta, std::int64_t[9], 184);
LIES_AT(cpu_usage, total, std::int64_t, 256);
static_assert(sizeof(cpu_usage) == 264);

constexpr std::size_t behind_cpus = 16 + 128 * sizeof(cpu_usage);
LIES_AT(sys_stat, nprocessors, std::uint64_t, 0);
LIES_AT(sys_stat, ncpu, std::uint64_t, 8);
LIES_AT(sys_stat, cpu, cpu_usage[128], 16);
LIES_AT(sys_stat, uptime, double, behind_cpus);
LIES_AT(sys_stat, idle, double, behind_cpus + 8);
LIES_AT(sys_stat, mem_usage, double, behind_cpus + 16);
LIES_AT(sys_stat, swap_usage, double, behind_cpus + 24);
LIES_AT(sys_stat, mem_total, std::uint64_t, behind_cpus + 32);
LIES_AT(sys_stat, mem_free, std::uint64_t, behind_cpus + 40);
LIES_AT(sys_stat, mem_used, std::uint64_t, behind_cpus + 48);
LIES_AT(sys_stat, buffers, std::uint64_t, behind_cpus + 56);
LIES_AT(sys_stat, cached, std::uint64_t, behind_cpus + 64);
LIES_AT(sys_stat, swap_total, std::uint64_t, behind_cpus + 72);
LIES_AT(sys_stat, swap_free, std::uint64_t, behind_cpus + 80);
LIES_AT(sys_stat, swap_used, std::uint64_t, behind_cpus + 88);
LIES_AT(sys_stat, swap_cached, std::uint64_t, behind_cpus + 96);
static_assert(sizeof(sys_stat) == behind_cpus + 104);

static_assert(CPU_USER == 0 && CPU_NICE == 1 && CPU_SYSTEM == 2 && CPU_IDLE == 3 &&
              CPU_IOWAIT == 4 && CPU_IRQ == 5 && CPU_SOFTIRQ == 6 && CPU_STEAL == 7 &&
              CPU_GUEST == 8 && CPU_COUNTERS == 9 && SYS_STAT_CPUS == 128);

/* ---- Fake machines -------------------------------------------------------------------------- */

using ticks = std::array<std::uint64_t, CPU_COUNTERS>;

string cpu_line(const string &name, const ticks &counters) {
    string line = name;
    for (const std::uint64_t counter : counters)
        line += " " + std::to_string(counter);
    return line + " 77\n"; // newer kernels print a tenth
}

constexpr char no_cpu[] = "intr 1 2 3\nctxt 5\n";

/* The kernel files of a machine. */
class machine {
  public:
    explicit machine(fake_files &files) : files_(files) {
        stat(cpu_line("cpu", {100, 10, 50, 800, 20, 5, 5, 10, 0}) +
             cpu_line("cpu0", {100, 10, 50, 800, 20, 5, 5, 10, 0}) + no_cpu);
        uptime("100.25 90.50\n");
        meminfo("MemTotal:       1000 kB\nMemFree:         300 kB\nMemAvailable:    900 kB\n"
                "Buffers:         100 kB\nCached:          200 kB\nSwapCached:        7 kB\n"
                "SwapTotal:       400 kB\nSwapFree:        300 kB\n");
        cpuinfo("processor\t: 0\nmodel name\t: x\n\nprocessor\t: 1\nmodel name\t: x\n");
    }

    void stat(const string &text) { files_.lay("/proc/stat", text); }
    void uptime(const string &text) { files_.lay("/proc/uptime", text); }
    void meminfo(const string &text) { files_.lay("/proc/meminfo", text); }
    void cpuinfo(const string &text) { files_.lay("/proc/cpuinfo", text); }
    void block(const string &path) { files_.block(path); }

  private:
    fake_files &files_;
};

/* The record and the streams are the process's, so every look at them takes a child. One that says
 * nothing and ends with 0 has met all that is expected in it. */
const child_result as_expected = {0, 0, "", ""};

child_result run_on_machine(const std::function<void(machine &)> &body) {
    return run_with_fakes([&](fake_files &files) {
        machine fake(files);
        body(fake);
    });
}

void on_machine(const std::function<void(machine &)> &body, const string &what = "") {
    EXPECT_EQ(run_on_machine(body), as_expected) << what;
}

/* The last call of the body ends the process, without a word. */
void ends_on_machine(const std::function<void(machine &)> &body, const string &what = "") {
    EXPECT_EQ(run_on_machine(body), exited(1)) << what;
}

class Snapshot : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "laying files over those of the kernel needs root";
    }
};

void expect_cpu(const cpu_usage &cpu, const string &name, const ticks &before, const ticks &now) {
    EXPECT_EQ(cpu.name, name);
    std::int64_t total = 0;
    for (std::size_t k = 0; k < CPU_COUNTERS; k++) {
        EXPECT_EQ(cpu.counters[k].cur, now[k]) << name << " " << k;
        EXPECT_EQ(cpu.counters[k].prev, now[k]) << name << " " << k;
        const std::int64_t delta =
            now[k] > before[k] ? static_cast<std::int64_t>(now[k] - before[k]) : 0;
        EXPECT_EQ(cpu.delta[k], delta) << name << " " << k;
        total += delta;
    }
    total = std::max<std::int64_t>(total, 1);
    EXPECT_EQ(cpu.total, total) << name;
    EXPECT_DOUBLE_EQ(cpu.usage, static_cast<double>(total - cpu.delta[CPU_IDLE]) * 100.0 /
                                    static_cast<double>(total))
        << name;
}

/* ---- The machine that this runs on ---------------------------------------------------------- */

TEST(SnapshotRecord, IsZeroBeforeTheFirstCall) {
    const sys_stat zero{};
    EXPECT_EQ(std::memcmp(&ss, &zero, sizeof ss), 0);
}

std::vector<string> lines_with(const string &path, const string &word) {
    std::istringstream text(content_of(path));
    std::vector<string> found;
    for (string line; std::getline(text, line);)
        if (line.find(word) != line.npos)
            found.push_back(line);
    return found;
}

double first_number(const string &path) {
    return std::stod(content_of(path));
}

void expect_this_machine() {
    const auto cpus = lines_with("/proc/stat", "cpu");
    const double up_before = first_number("/proc/uptime");
    for (int call = 0; call < 3; call++)
        ASSERT_EQ(get_system_stat(), 0);
    const double up_after = first_number("/proc/uptime");

    EXPECT_EQ(ss.nprocessors, lines_with("/proc/cpuinfo", "processor").size());
    EXPECT_EQ(ss.ncpu, cpus.size());
    for (std::uint64_t i = 0; i < ss.ncpu; i++) {
        const cpu_usage &cpu = ss.cpu[i];
        EXPECT_EQ(cpu.name, cpus[i].substr(0, cpus[i].find(' ')));
        EXPECT_GE(cpu.counters[CPU_USER].cur, std::stoull(cpus[i].substr(cpus[i].find(' '))));
        EXPECT_GE(cpu.usage, 0.0);
        EXPECT_LE(cpu.usage, 100.0);
        EXPECT_GE(cpu.total, 1);
    }
    EXPECT_LE(up_before, ss.uptime);
    EXPECT_LE(ss.uptime, up_after);
    EXPECT_GT(ss.idle, 0.0);
    const string total = lines_with("/proc/meminfo", "MemTotal:").at(0);
    EXPECT_EQ(ss.mem_total, std::stoull(total.substr(total.find(':') + 1)));
    EXPECT_EQ(ss.mem_used, ss.mem_total - ss.mem_free - ss.buffers - ss.cached);
    EXPECT_EQ(ss.swap_used, ss.swap_total - ss.swap_free);
    EXPECT_GT(ss.mem_free, 0U);
    EXPECT_LT(ss.mem_free, ss.mem_total);
}

TEST(SnapshotRecord, ShowsThisMachine) {
    EXPECT_EQ(run_in_child(expect_this_machine), as_expected);
}

/* ---- Processors ----------------------------------------------------------------------------- */

TEST_F(Snapshot, TheFirstCallMeasuresSinceBoot) {
    on_machine([](machine &) {
        EXPECT_EQ(get_system_stat(), 0);
        EXPECT_EQ(ss.ncpu, 2U);
        expect_cpu(ss.cpu[0], "cpu", {}, {100, 10, 50, 800, 20, 5, 5, 10, 0});
        expect_cpu(ss.cpu[1], "cpu0", {}, {100, 10, 50, 800, 20, 5, 5, 10, 0});
        EXPECT_EQ(ss.cpu[0].total, 1000);
        EXPECT_EQ(ss.cpu[0].usage, 20.0);
        EXPECT_EQ(ss.cpu[2].name[0], '\0');
        EXPECT_EQ(ss.cpu[2].total, 0);
    });
}

TEST_F(Snapshot, FurtherCallsMeasureTheInterval) {
    const ticks first = {100, 10, 50, 800, 20, 5, 5, 10, 0};
    const struct {
        const char *name;
        ticks second;
        std::int64_t total;
        double usage;
    } rows[] = {
        {"half idle", {150, 10, 50, 850, 20, 5, 5, 10, 0}, 100, 50.0},
        {"all idle", {100, 10, 50, 900, 20, 5, 5, 10, 0}, 100, 0.0},
        {"one idle tick", {100, 10, 50, 801, 20, 5, 5, 10, 0}, 1, 0.0},
        {"waiting is busy", {100, 10, 50, 800, 40, 5, 5, 10, 0}, 20, 100.0},
        {"stolen and guest time are busy", {100, 10, 50, 850, 20, 5, 5, 35, 25}, 100, 50.0},
        {"interrupts are busy", {100, 10, 50, 801, 20, 6, 7, 10, 0}, 4, 75.0},
        {"each counts", {101, 12, 53, 804, 25, 11, 12, 18, 9}, 45, 100.0 * 41 / 45},
        {"no ticks", first, 1, 100.0},
        {"one goes backwards", {50, 10, 50, 850, 70, 5, 5, 10, 0}, 100, 50.0},
        {"idle goes backwards", {150, 10, 50, 700, 20, 5, 5, 10, 0}, 50, 100.0},
        {"all go backwards", {}, 1, 100.0},
    };
    for (const auto &r : rows)
        on_machine(
            [&](machine &fake) {
                fake.stat(cpu_line("cpu", first) + cpu_line("cpu0", first));
                get_system_stat();
                fake.stat(cpu_line("cpu", r.second) + cpu_line("cpu0", {}));
                get_system_stat();
                expect_cpu(ss.cpu[0], "cpu", first, r.second);
                expect_cpu(ss.cpu[1], "cpu0", first, {});
                EXPECT_EQ(ss.cpu[0].total, r.total);
                EXPECT_DOUBLE_EQ(ss.cpu[0].usage, r.usage);
            },
            r.name);
}

TEST_F(Snapshot, ACounterThatWentBackwardsGoesOnFromThere) {
    on_machine([](machine &fake) {
        for (const std::uint64_t user : {1000U, 20U, 50U}) {
            fake.stat(cpu_line("cpu", {user, 0, 0, 0, 0, 0, 0, 0, 0}));
            get_system_stat();
        }
        EXPECT_EQ(ss.cpu[0].delta[CPU_USER], 30);
        EXPECT_EQ(ss.cpu[0].total, 30);
    });
}

/* A difference counts as a signed number, and their sum has no bits to spare. */
TEST_F(Snapshot, WildCounters) {
    constexpr std::uint64_t half = most / 2;
    on_machine([](machine &fake) {
        fake.stat(cpu_line("cpu", {half, half + 1, most, 3, 0, 0, 0, 0, 0}));
        get_system_stat();
        EXPECT_EQ(ss.cpu[0].delta[0], std::numeric_limits<std::int64_t>::max());
        EXPECT_EQ(ss.cpu[0].delta[1], 0) << "2^63 ticks are less than none";
        EXPECT_EQ(ss.cpu[0].delta[2], 0);
        EXPECT_EQ(ss.cpu[0].delta[3], 3);
        EXPECT_EQ(ss.cpu[0].counters[2].cur, most);
        EXPECT_EQ(ss.cpu[0].total, 1) << "the sum is negative";
        fake.stat(cpu_line("cpu", {half, half + 1, 5, 3, 0, 0, 0, 0, 0}));
        get_system_stat();
        EXPECT_EQ(ss.cpu[0].delta[2], 6) << "5 follows 2^64 - 1 by six";
        EXPECT_EQ(ss.cpu[0].total, 6);
        EXPECT_EQ(ss.cpu[0].usage, 100.0);
    });
}

string cpu_lines(int count) {
    string text;
    for (int i = 0; i < count; i++)
        text += cpu_line(i == 0 ? "cpu" : "cpu" + std::to_string(i - 1),
                         {static_cast<std::uint64_t>(i), 2, 3, 4, 5, 6, 7, 8, 9});
    return text;
}

TEST_F(Snapshot, HoldsAsManyProcessorLinesAsThereIsRoomFor) {
    for (const int count : {1, 2, 127, 128})
        on_machine([&](machine &fake) {
            fake.stat(cpu_lines(count) + no_cpu);
            for (int call = 0; call < 3; call++)
                get_system_stat();
            EXPECT_EQ(ss.ncpu, static_cast<std::uint64_t>(count));
            EXPECT_EQ(ss.cpu[count - 1].counters[CPU_USER].cur,
                      static_cast<std::uint64_t>(count - 1));
            EXPECT_EQ(ss.uptime, 100.25);
        });
}

TEST_F(Snapshot, OneProcessorLineMoreEndsTheProcess) {
    for (const char *last : {"", no_cpu})
        ends_on_machine([&](machine &fake) {
            fake.stat(cpu_lines(129) + last);
            get_system_stat();
        });
    ends_on_machine([&](machine &fake) {
        fake.stat(cpu_lines(128) + "cpu of any kind\n");
        get_system_stat();
    });
    ends_on_machine(
        [](machine &fake) {
            get_system_stat();
            fake.stat(cpu_lines(129));
            get_system_stat();
        },
        "also later");
}

TEST_F(Snapshot, ReadsCounterLinesAsTheyCome) {
    const struct {
        const char *line;
        const char *name;
        ticks counters;
    } rows[] = {
        {"cpu 1 2 3 4 5 6 7 8 9", "cpu", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"cpu 1 2 3 4 5 6 7 8 9 10\n", "cpu", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"cpu 1 2 3 4 5 6 7 8 9 ten eleven\n", "cpu", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"cpu 1 2 3 4 5 6 7 8 9ten\n", "cpu", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"cpu 1 2 3 4 5 6 7 8 9\r\n", "cpu", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {" \tcpu\t1\t2  3 4 5 6 7 8 9 \n", "cpu", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"xcpux 1 2 3 4 5 6 7 8 9\n", "xcpux", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"none 1 2 3 4 5 6 7 8 9 cpu\n", "none", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"cpu 010 2 3 4 5 6 7 8 9\n", "cpu", {10, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"cpu +1 2 3 4 5 6 7 8 9\n", "cpu", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"cpu 1 2 3 4 5 6 7 8 -1\n", "cpu", {1, 2, 3, 4, 5, 6, 7, 8, most}},
        {"cpu 1 2 3 4 5 6 7 8 18446744073709551615\n", "cpu", {1, 2, 3, 4, 5, 6, 7, 8, most}},
        {"cpu 1 2 3 4 5 6 7 8 18446744073709551616\n", "cpu", {1, 2, 3, 4, 5, 6, 7, 8, most}},
        {"cpu1 2 3 4 5 6 7 8 9 10\n", "cpu1", {2, 3, 4, 5, 6, 7, 8, 9, 10}},
    };
    for (const auto &r : rows)
        on_machine(
            [&](machine &fake) {
                fake.stat(r.line);
                get_system_stat();
                EXPECT_EQ(ss.ncpu, 1U);
                EXPECT_STREQ(ss.cpu[0].name, r.name);
                for (std::size_t k = 0; k < CPU_COUNTERS; k++)
                    EXPECT_EQ(ss.cpu[0].counters[k].cur, r.counters[k]) << k;
            },
            r.line);
}

TEST_F(Snapshot, MalformedProcessorLinesEndTheProcess) {
    for (const char *line : {
             "cpu",
             "cpu\n",
             "cpu 1 2 3 4 5 6 7 8",
             "cpu 1 2 3 4 5 6 7 8\n",
             "cpu 1 2 3 4 5 6 7 8\n9",
             "cpu 1 2 3 4 5 6 7 8 x",
             "cpu x 2 3 4 5 6 7 8 9\n",
             "cpu 1 2 3 four 5 6 7 8 9\n",
             "cpu 0x1 2 3 4 5 6 7 8 9\n",
             "cpu 1.5 2 3 4 5 6 7 8 9\n",
             "cpu 1,2 3 4 5 6 7 8 9\n",
             "cpu + 2 3 4 5 6 7 8 9 10\n",
             "cpu: 1 2 3 4 5 6 7 8 : 9\n",
             "intr cpu 1 2 3 4 5 6 7 8 9\n",
             "cpu 1 2 3 4 5 6 7 8 9\ncpu0 1 2 3\n",
         })
        ends_on_machine(
            [&](machine &fake) {
                fake.stat(line);
                get_system_stat();
            },
            line);
}

TEST_F(Snapshot, LongNamesAreCutToTheirField) {
    for (const std::size_t length : {30U, 31U, 32U, 40U, 1000U, 100'000U})
        on_machine([&](machine &fake) {
            const string name = "cpu" + string(length - 3, 'x');
            const ticks counters = {1, 2, 3, 4, 5, 6, 7, 8, 9};
            fake.stat(cpu_line(name, counters) + cpu_line(name, counters));
            get_system_stat();
            EXPECT_EQ(ss.ncpu, 2U);
            expect_cpu(ss.cpu[0], name.substr(0, 31), {}, counters);
            expect_cpu(ss.cpu[1], name.substr(0, 31), {}, counters);
        });
}

TEST_F(Snapshot, StopsAtTheFirstLineOfAnotherKind) {
    on_machine([](machine &fake) {
        fake.stat(cpu_line("cpu", {1}) + "intr 1\n" + cpu_line("cpu0", {1}) + "cpu malformed\n");
        get_system_stat();
        EXPECT_EQ(ss.ncpu, 1U);
        EXPECT_STREQ(ss.cpu[1].name, "");
        fake.stat(cpu_line("cpu", {1}) + "\n" + cpu_line("cpu0", {1}));
        get_system_stat();
        EXPECT_EQ(ss.ncpu, 1U);
    });
}

TEST_F(Snapshot, AFileMayHaveNoProcessorLine) {
    for (const string text : {"", "\n", "intr 1 2 3\ncpu 1 2 3 4 5 6 7 8 9\n", "CPU 1\n"})
        on_machine([&](machine &fake) {
            for (int call = 0; call < 3; call++) {
                fake.stat(text);
                get_system_stat();
                EXPECT_EQ(ss.ncpu, 0U);
                EXPECT_EQ(ss.uptime, 100.25) << "the rest is read";
            }
            fake.stat(cpu_lines(3));
            get_system_stat();
            EXPECT_EQ(ss.ncpu, 3U);
        });
}

TEST_F(Snapshot, EntriesBehindTheLastLineStayStale) {
    on_machine([](machine &fake) {
        const ticks then = {1, 2, 3, 4, 5, 6, 7, 8, 9};
        fake.stat(cpu_line("cpu", then) + cpu_line("cpu0", then) + cpu_line("cpu1", then));
        get_system_stat();
        fake.stat(cpu_line("cpu", then));
        get_system_stat();
        EXPECT_EQ(ss.ncpu, 1U);
        expect_cpu(ss.cpu[1], "cpu0", {}, then);
        expect_cpu(ss.cpu[2], "cpu1", {}, then);
        const ticks now = {11, 12, 13, 14, 15, 16, 17, 18, 19};
        fake.stat(cpu_line("cpu", then) + cpu_line("other_cpu", now));
        get_system_stat();
        expect_cpu(ss.cpu[1], "other_cpu", then, now);
        expect_cpu(ss.cpu[2], "cpu1", {}, then);
    });
}

/* ---- Uptime --------------------------------------------------------------------------------- */

constexpr double infinite = std::numeric_limits<double>::infinity();

TEST_F(Snapshot, ReadsBothNumbersOfTheUptime) {
    const struct {
        const char *text;
        double uptime;
        double idle;
    } rows[] = {
        {"100.25 90.50\n", 100.25, 90.5},
        {"100.25 90.50", 100.25, 90.5},
        {"350735.47 234388.90\n", 350735.47, 234388.90},
        {"0.00 0.00\n", 0.0, 0.0},
        {"7 8\n", 7.0, 8.0},
        {" \t7.5\t 8.5 9.5 more\n", 7.5, 8.5},
        {"7.5 8.5x\n", 7.5, 8.5},
        {"-7.5 +8.5\n", -7.5, 8.5},
        {"+.5 8.\n", 0.5, 8.0},
        {"1e3 2E-1\n", 1000.0, 0.2},
        {"0x10 0x1p-1\n", 16.0, 0.5},
        {"1e999 inf\n", infinite, infinite},
        {"7.5.5 9\n", 7.5, 0.5},
        {"1.0 2.0\n3.0 4.0\n", 1.0, 2.0},
    };
    for (const auto &r : rows)
        on_machine(
            [&](machine &fake) {
                fake.uptime(r.text);
                get_system_stat();
                EXPECT_EQ(ss.uptime, r.uptime);
                EXPECT_EQ(ss.idle, r.idle);
            },
            r.text);
}

TEST_F(Snapshot, AnUptimeWithoutThemEndsTheProcess) {
    for (const char *text : {"", "\n", "12.5\n", "12.5", "up 12.5 3.5\n", "12.5 x\n", "12.5, 3.5\n",
                             "12,5 3,5\n", "\n1.0 2.0\n", "- 1 2\n", ". .\n"})
        ends_on_machine(
            [&](machine &fake) {
                fake.uptime(text);
                get_system_stat();
            },
            text);
    ends_on_machine(
        [&](machine &fake) {
            get_system_stat();
            fake.uptime("");
            get_system_stat();
        },
        "also later");
}

/* A locale that differs from the standard one in its decimal comma. */
void use_decimal_comma(const temp_dir &dir) {
    write_file(dir / "comma", "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\n"
                              "grouping 3;3\nEND LC_NUMERIC\n");
    const string compile = "localedef --no-archive -c -i " + (dir / "comma") + " " +
                           (dir / "xx_XX") + " >/dev/null 2>&1";
    [[maybe_unused]] const int warned = std::system(compile.c_str());
    setenv("LOCPATH", dir.path().c_str(), 1);
    ASSERT_NE(std::setlocale(LC_NUMERIC, "xx_XX"), nullptr) << "no locale was made";
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");
}

TEST_F(Snapshot, ReadsPointsWhateverTheLocaleWrites) {
    const temp_dir dir;
    on_machine([&](machine &fake) {
        use_decimal_comma(dir);
        fake.uptime("1000.25 900.50\n");
        get_system_stat();
        EXPECT_EQ(ss.uptime, 1000.25);
        EXPECT_EQ(ss.idle, 900.5);
        EXPECT_EQ(ss.cpu[0].usage, 20.0);
        EXPECT_EQ(ss.mem_usage, 40.0);
    });
}

/* ---- Memory --------------------------------------------------------------------------------- */

void expect_memory(std::uint64_t total, std::uint64_t free, std::uint64_t buffers,
                   std::uint64_t cached) {
    EXPECT_EQ(ss.mem_total, total);
    EXPECT_EQ(ss.mem_free, free);
    EXPECT_EQ(ss.buffers, buffers);
    EXPECT_EQ(ss.cached, cached);
    EXPECT_EQ(ss.mem_used, total - free - buffers - cached);
    EXPECT_EQ(ss.mem_usage, 100.0 * static_cast<double>(ss.mem_used) / static_cast<double>(total));
}

void expect_swap(std::uint64_t total, std::uint64_t free, std::uint64_t cached) {
    EXPECT_EQ(ss.swap_total, total);
    EXPECT_EQ(ss.swap_free, free);
    EXPECT_EQ(ss.swap_cached, cached);
    EXPECT_EQ(ss.swap_used, total - free);
    EXPECT_EQ(ss.swap_usage,
              100.0 * static_cast<double>(ss.swap_used) / static_cast<double>(total));
}

TEST_F(Snapshot, MemoryInUseIsWhatIsLeft) {
    on_machine([](machine &) {
        get_system_stat();
        expect_memory(1000, 300, 100, 200);
        EXPECT_EQ(ss.mem_used, 400U);
        EXPECT_EQ(ss.mem_usage, 40.0);
        expect_swap(400, 300, 7);
        EXPECT_EQ(ss.swap_used, 100U);
        EXPECT_EQ(ss.swap_usage, 25.0);
    });
}

TEST_F(Snapshot, MemoryKeysComeInAnyOrderAndAlone) {
    on_machine([](machine &fake) {
        fake.meminfo("SwapTotal: 1\nSwapFree: 2\nSwapCached: 3\nMemFree: 4\nMemTotal: 5\n"
                     "Cached: 6\nBuffers: 7\n");
        get_system_stat();
        expect_memory(5, 4, 7, 6);
        expect_swap(1, 2, 3);
        fake.meminfo("Cached: 60\n");
        get_system_stat();
        expect_memory(5, 4, 7, 60);
        expect_swap(1, 2, 3);
    });
}

TEST_F(Snapshot, MissingMemoryKeysKeepTheirFigures) {
    for (const char *text : {"", "\n", "nothing of the kind\n", "Active: 5\n"})
        on_machine([&](machine &fake) {
            get_system_stat();
            fake.meminfo(text);
            get_system_stat();
            expect_memory(1000, 300, 100, 200);
            expect_swap(400, 300, 7);
        });
}

TEST_F(Snapshot, OnlyTheExactMemoryKeysCount) {
    on_machine([](machine &fake) {
        get_system_stat();
        fake.meminfo("Memtotal: 1\nMEMTOTAL: 1\nMemTotal : 1\n MemTotal: 1\nMemTota: 1\n"
                     "MemTotals: 1\nXMemTotal: 1\nMemTotal 1\nMemTotal\n: 1\n:::\nCachedX: 1\n"
                     "Swap: 1\nzzz: 1\nA: 1\n\nMemFree(x): 1\n");
        get_system_stat();
        expect_memory(1000, 300, 100, 200);
        expect_swap(400, 300, 7);
    });
}

TEST_F(Snapshot, MemoryFiguresInEveryNotation) {
    const struct {
        const char *line;
        std::uint64_t figure;
    } rows[] = {
        {"MemTotal: 12 kB\n", 12},
        {"MemTotal:12", 12},
        {"MemTotal: \t 12\r\n", 12},
        {"MemTotal: 0x1F kB\n", 31},
        {"MemTotal: 010 kB\n", 8},
        {"MemTotal: 09 kB\n", 0},
        {"MemTotal: +5\n", 5},
        {"MemTotal: 12:13\n", 12},
        {"MemTotal: kB\n", 0},
        {"MemTotal:\n", 0},
        {"MemTotal:", 0},
        {"MemTotal: -1\n", most},
        {"MemTotal: 18446744073709551615\n", most},
        {"MemTotal: 99999999999999999999\n", most},
        {"MemTotal: 1\nMemTotal: 2\n", 2},
    };
    for (const auto &r : rows)
        on_machine(
            [&](machine &fake) {
                fake.meminfo(r.line);
                get_system_stat();
                EXPECT_EQ(ss.mem_total, r.figure);
            },
            r.line);
}

TEST_F(Snapshot, MemoryInUseHasNoSign) {
    on_machine([](machine &fake) {
        fake.meminfo("MemTotal: 100\nMemFree: 80\nBuffers: 20\nCached: 1\nSwapTotal: 1\n"
                     "SwapFree: 2\n");
        get_system_stat();
        EXPECT_EQ(ss.mem_used, most);
        EXPECT_EQ(ss.mem_usage, 100.0 * static_cast<double>(most) / 100.0);
        EXPECT_EQ(ss.swap_used, most);
        EXPECT_EQ(ss.swap_usage, 100.0 * static_cast<double>(most));
    });
}

TEST_F(Snapshot, WithoutMemoryOrSwapTheirUsageIsNoNumber) {
    on_machine([](machine &fake) {
        fake.meminfo("MemTotal: 100\nMemFree: 50\nSwapTotal: 0 kB\nSwapFree: 0 kB\n");
        get_system_stat();
        EXPECT_EQ(ss.mem_usage, 50.0);
        EXPECT_EQ(ss.swap_used, 0U);
        EXPECT_TRUE(std::isnan(ss.swap_usage));
        fake.meminfo("MemTotal: 0\nMemFree: 0\nSwapFree: 1\n");
        get_system_stat();
        EXPECT_TRUE(std::isnan(ss.mem_usage));
        EXPECT_EQ(ss.swap_usage, infinite);
    });
}

/* ---- Processors in /proc/cpuinfo ------------------------------------------------------------ */

TEST_F(Snapshot, ProcessorsAreCountedOnce) {
    on_machine([](machine &fake) {
        fake.cpuinfo("processor: 0\nthe processor and the processor\nProcessor\nprocesso\n"
                     "xprocessorx");
        get_system_stat();
        EXPECT_EQ(ss.nprocessors, 3U);
        fake.cpuinfo("processor\nprocessor\nprocessor\nprocessor\n");
        get_system_stat();
        EXPECT_EQ(ss.nprocessors, 3U);
        ss.nprocessors = 50;
        get_system_stat();
        EXPECT_EQ(ss.nprocessors, 50U);
    });
}

TEST_F(Snapshot, ThereMayBeNoProcessors) {
    on_machine([](machine &fake) {
        fake.cpuinfo("");
        get_system_stat();
        EXPECT_EQ(ss.nprocessors, 0U);
        fake.cpuinfo("processor\n");
        get_system_stat();
        EXPECT_EQ(ss.nprocessors, 0U) << "counted as none";
    });
}

/* ---- The files ------------------------------------------------------------------------------ */

constexpr const char *kernel_files[] = {"/proc/stat", "/proc/uptime", "/proc/meminfo",
                                        "/proc/cpuinfo"};

TEST_F(Snapshot, AFileThatCannotBeOpenedEndsTheProcess) {
    for (const char *path : kernel_files)
        ends_on_machine(
            [&](machine &fake) {
                fake.block(path);
                get_system_stat();
            },
            path);
}

TEST_F(Snapshot, KeptFilesNeedNotBeOpenedAgain) {
    on_machine([](machine &fake) {
        get_system_stat();
        for (const char *path : kernel_files)
            fake.block(path);
        get_system_stat();
        EXPECT_EQ(ss.ncpu, 2U);
        EXPECT_EQ(ss.cpu[0].total, 1);
    });
}

/* Text that a kept stream may have read ahead: of all lengths, shorter and longer than before, and
 * with lines longer than any buffer. */
string further_lines(std::mt19937 &random, const string &begin) {
    string text;
    for (auto left = random() % 3 == 0 ? 0 : random() % 60; left > 0; left--)
        text += begin + string(random() % (random() % 20 == 0 ? 40'000 : 300), 'x') + "\n";
    return text;
}

ticks random_ticks(std::mt19937 &random) {
    ticks counters;
    for (std::uint64_t &counter : counters)
        counter = random() % 1'000'000;
    return counters;
}

TEST_F(Snapshot, EveryCallSeesFreshFigures) {
    on_machine([](machine &fake) {
        std::mt19937 random(20'240'305);
        std::vector<ticks> before(SYS_STAT_CPUS);
        for (std::uint64_t call = 1; call <= 300; call++) {
            std::vector<ticks> now(random() % (random() % 4 == 0 ? 129 : 5));
            std::generate(now.begin(), now.end(), [&] { return random_ticks(random); });
            string stat;
            for (std::size_t i = 0; i < now.size(); i++)
                stat += cpu_line("cpu" + std::to_string(call + i), now[i]);
            fake.stat(stat + further_lines(random, "intr "));
            const string n = std::to_string(call);
            fake.uptime(n + ".5 " + n + ".25\n" + further_lines(random, "1 2 "));
            fake.meminfo(further_lines(random, "A:") + "MemTotal: 1" + n + " kB\nMemFree: " + n +
                         "\nBuffers: 2" + n + "\n" + further_lines(random, "MemTotal ") +
                         "Cached: 3" + n + "\nSwapTotal: 4" + n + "\nSwapFree: 5" + n +
                         "\nSwapCached: 6" + n + "\n");
            get_system_stat();
            ASSERT_EQ(ss.ncpu, now.size()) << call;
            for (std::size_t i = 0; i < now.size(); i++)
                expect_cpu(ss.cpu[i], "cpu" + std::to_string(call + i), before[i], now[i]);
            std::copy(now.begin(), now.end(), before.begin());
            ASSERT_EQ(ss.uptime, static_cast<double>(call) + 0.5);
            ASSERT_EQ(ss.idle, static_cast<double>(call) + 0.25);
            expect_memory(std::stoull("1" + n), call, std::stoull("2" + n), std::stoull("3" + n));
            expect_swap(std::stoull("4" + n), std::stoull("5" + n), std::stoull("6" + n));
            ASSERT_FALSE(HasFailure()) << call;
        }
    });
}

void expect_four_kept_streams() {
    const auto before = count_descriptors();
    get_system_stat();
    EXPECT_EQ(count_descriptors(), before + 4);
    for (const char *path : kernel_files) {
        const std::vector<int> kept = descriptors_of(path);
        ASSERT_EQ(kept.size(), 1U) << path;
        EXPECT_NE(fcntl(kept[0], F_GETFD) & FD_CLOEXEC, 0) << path;
    }
    const auto call_often = [](int count) {
        for (int call = 0; call < count; call++)
            get_system_stat();
    };
    call_often(100); // until the allocator keeps no more of what it got back
    const std::size_t heap = heap_in_use();
    call_often(10'000);
    EXPECT_EQ(count_descriptors(), before + 4);
    EXPECT_LT(heap_in_use(), heap + 10'000) << "not a byte a call";
}

TEST(SnapshotStreams, AreFourAndStayFour) {
    EXPECT_EQ(run_in_child(expect_four_kept_streams), as_expected);
}

} // namespace

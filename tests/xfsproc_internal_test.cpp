/* SPDX-License-Identifier: MIT */
#include "xfsproc.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <utility>

#include "allocation_faults.h"
#include "caught_output.h"
#include "child.h"
#include "fake_files.h"
#include "processes.h"
#include "temp_dir.h"

namespace {

/* What the wall clock answers; the system's own answer where there is neither. */
const timespec *time_told;
int clock_error;

/* The flags of the descriptor of the last pipe to a command. */
int pipe_flags;

/* What happens once a directory has been looked through. */
std::function<void()> when_closed;

} // namespace

extern "C" { // NOLINTBEGIN: the linker's names
int __real_clock_gettime(clockid_t clock, timespec *time);
int __wrap_clock_gettime(clockid_t clock, timespec *time);

/* The thread sanitizer asks while it gets ready, before its instrumentation works. */
#ifdef __clang__
__attribute__((disable_sanitizer_instrumentation))
#endif
int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    if (clock != CLOCK_REALTIME || (time_told == nullptr && clock_error == 0))
        return __real_clock_gettime(clock, time);
    if (clock_error != 0) {
        errno = clock_error;
        return -1;
    }
    *time = *time_told;
    return 0;
}

FILE *__real_popen(const char *command, const char *mode);
FILE *__wrap_popen(const char *command, const char *mode);

FILE *__wrap_popen(const char *command, const char *mode) {
    FILE *stream = __real_popen(command, mode);
    pipe_flags = stream != nullptr ? fcntl(fileno(stream), F_GETFD) : -1;
    return stream;
}

int __real_closedir(DIR *directory);
int __wrap_closedir(DIR *directory);

int __wrap_closedir(DIR *directory) {
    const int result = __real_closedir(directory);
    if (when_closed)
        std::exchange(when_closed, nullptr)();
    return result;
}
} // NOLINTEND

namespace {

using keel_test::caught_stream;
using keel_test::child_result;
using keel_test::exited;
using keel_test::failing_allocation;
using keel_test::fake_files;
using keel_test::process;
using keel_test::run_in_child;
using keel_test::run_with_fakes;
using keel_test::temp_dir;
using keel_test::unique_program_name;
using keel_test::write_file;

const child_result as_expected = {0, 0, "", ""};

TEST(BootTime, IsTheClockLessTheUptime) {
    const struct {
        const char *uptime;
        timespec now;
        boot_time boot;
    } rows[] = {
        {"100.47 1.00\n", {1000, 500'000'000}, {900, 453'000'000}},
        {"100.47 1.00\n", {1000, 47'000'001}, {900, 1}},
        {"100.47 1.00\n", {1000, 47'000'000}, {900, 0}},
        {"100.47 1.00\n", {1000, 46'999'999}, {899, 999'999'999}},
        {"100.47 1.00\n", {1000, 0}, {899, 953'000'000}},
        {"100.00 1.00\n", {1000, 0}, {900, 0}},
        {"5000.00 1.00\n", {1000, 0}, {-4000, 0}},
        {"100.5000\n", {1000, 0}, {899, -4'000'000'000}},
        {"-9223372036854775808.0\n", {1000, 0}, {INT64_MIN + 1000, 0}},
    };
    for (const auto &row : rows)
        EXPECT_EQ(run_with_fakes([&](fake_files &files) {
                      files.lay("/proc/uptime", row.uptime);
                      time_told = &row.now;
                      boot_time boot{};
                      EXPECT_EQ(boottime1(&boot), 0);
                      EXPECT_EQ(boot.sec, row.boot.sec) << row.uptime;
                      EXPECT_EQ(boot.nsec, row.boot.nsec) << row.uptime;
                  }),
                  as_expected);
}

TEST(BootTime, NeedsTheClock) {
    EXPECT_EQ(run_in_child([] {
                  clock_error = EINVAL;
                  boot_time boot = {7, 8};
                  EXPECT_EQ(boottime1(&boot), -1);
                  EXPECT_EQ(boot.sec, 7);
                  EXPECT_EQ(boot.nsec, 8);
              }),
              as_expected);
}

/* An allocation of theirs would fail. */
TEST(ReaderMemory, KeptStreamsAreReadWithoutAny) {
    FILE *files[] = {std::fopen("/proc/cpuinfo", "r"), std::fopen("/proc/stat", "r"),
                     std::fopen("/proc/meminfo", "r"), std::fopen("/proc/net/dev", "r"),
                     std::fopen("/proc/diskstats", "r")};
    char line[80];
    for (FILE *file : files) // a stream has its buffer with its first line
        ASSERT_NE(std::fgets(line, sizeof line, file), nullptr);
    std::uint64_t count = 0;
    cpu_stat cpu{};
    mem_stat memory{};
    net_dev_stat net{};
    disk_stat disk{};
    const failing_allocation failing(1);
    EXPECT_EQ(cpuinfo(files[0], &count), 0);
    EXPECT_EQ(cpustat(files[1], &cpu), 0);
    EXPECT_EQ(meminfo(files[2], &memory), 0);
    EXPECT_GE(net_dev(files[3], &net, 0, nullptr, 0), 0);
    EXPECT_EQ(net_dev_info(files[3], "lo", &net), 0);
    EXPECT_GE(diskstats(files[4], &disk, 1), 0);
    EXPECT_FALSE(failing.happened());
    for (FILE *file : files)
        std::fclose(file);
}

/* A stream's buffer comes from the checked allocation, the line buffer from the line reader. */
TEST(SnapshotMemory, TheFirstCallEndsWithoutIt) {
    constexpr int no_failure = 77;
    int without_line = 0;
    int without_memory = 0;
    for (int n = 1;; n++) {
        const child_result ending = run_in_child([n] {
            const failing_allocation failing(n);
            get_system_stat();
            if (!failing.happened())
                _exit(no_failure);
        });
        if (ending.status == no_failure)
            break;
        EXPECT_TRUE(ending == exited(1) || ending == exited(255, "No memory!!!\n"))
            << n << ": " << testing::PrintToString(ending);
        without_line += ending == exited(1);
        without_memory += ending.status == 255;
    }
    EXPECT_GE(without_line, 1);
    EXPECT_GE(without_memory, 1);
}

/* ---- The monitor ---------------------------------------------------------------------------- */

TEST(MonitorMemory, EachAllocationEndsInItsOwnWay) {
    const temp_dir directory;
    write_file(directory / "conf", "proc1=a,/d,x\n");
    const auto made_without = [&](int n) {
        return run_in_child([&] {
            const failing_allocation failing(n);
            proc_monitor made{};
            EXPECT_EQ(proc_monitor_init(&made, (directory / "conf").c_str(), '='), 0);
            EXPECT_FALSE(failing.happened());
        });
    };
    EXPECT_EQ(made_without(1), exited(1, "proc_monitor_init: Cannot allocate memory\n")) << "list";
    EXPECT_EQ(made_without(2), exited(255, "No memory!!!\n")) << "item";
    EXPECT_EQ(made_without(3), exited(1, "proc_monitor_operate: Cannot allocate memory\n"))
        << "node";
    EXPECT_EQ(made_without(4), as_expected);
}

TEST(MonitorMemory, OnlyCreateAndRefreshNeedAny) {
    proc_monitor made{};
    ASSERT_EQ(proc_monitor_init(&made, "/dev/null", '='), 0);
    ASSERT_EQ(proc_monitor_operate(&made, "a", PROC_OP_CREATE), 0);
    const failing_allocation failing(1);
    EXPECT_NE(proc_monitor_search(&made, "a"), nullptr);
    for (const unsigned operation : {PROC_OP_START, PROC_OP_STOP, PROC_OP_RESTART, PROC_OP_CREATE})
        EXPECT_NE(proc_monitor_operate(&made, "a", operation), 0);
    EXPECT_EQ(proc_monitor_operate(&made, "a", PROC_OP_REMOVE), 0);
    EXPECT_EQ(proc_monitor_destroy(&made), 0);
    EXPECT_FALSE(failing.happened());
}

TEST(ProcStart, ItsPipeIsNotInherited) {
    proc_monitor_item item{"", {"", "/bin", "", "true", 0, 0, 0}, 0};
    pipe_flags = 0;
    EXPECT_EQ(proc_start(&item), 0);
    EXPECT_EQ(pipe_flags, FD_CLOEXEC) << "by what another thread starts meanwhile";
}

TEST(MonitorRefresh, AProcessThatEndsOnceItIsFoundIsGone) {
    const std::string name = unique_program_name("fading");
    const caught_stream remarks(stderr);
    proc_monitor made{};
    ASSERT_EQ(proc_monitor_init(&made, "/dev/null", '='), 0);
    ASSERT_EQ(proc_monitor_operate(&made, name.c_str(), PROC_OP_CREATE), 0);
    const proc_monitor_item *item = proc_monitor_search(&made, name.c_str());
    process fellow("/bin/sleep", {name, "1000"}, "/tmp");
    proc_monitor_refresh(&made);
    ASSERT_EQ(item->info.pid, fellow.pid());
    bool found = false;
    when_closed = [&] {
        found = std::filesystem::exists("/proc/" + std::to_string(fellow.pid()));
        fellow.kill();
    };
    proc_monitor_refresh(&made);
    EXPECT_TRUE(found);
    EXPECT_EQ(item->run_status, static_cast<std::uint32_t>(PROC_STOPPED));
    EXPECT_EQ(item->info.pid, 0);
    EXPECT_EQ(item->info.state, 0U);
    EXPECT_EQ(item->info.start_time, 0U);
    EXPECT_STREQ(item->info.cwd, "/tmp");
    EXPECT_EQ(item->info.cmdline, name + " 1000");
    EXPECT_EQ(proc_monitor_destroy(&made), 0);
}

} // namespace

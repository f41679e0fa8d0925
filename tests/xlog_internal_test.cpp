/* SPDX-License-Identifier: MIT */
#include "xlog.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "allocation_faults.h"
#include "cancelled.h"
#include "child.h"
#include "descriptors.h"
#include "log_home.h"
#include "system_calls.h"

namespace {

using namespace keel_test;

constexpr std::uint32_t error = 0x8;
constexpr std::size_t prefix_size = sizeof "[2024-03-05 14:07:09.042] [    Error.4] " - 1;

constexpr timespec afternoon = {1709647629, 42'999'999}; // 2024-03-05 14:07:09 UTC

void set_time_zone(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
}

class XlogInternal : public testing::Test {
  protected:
    XlogInternal() { set_time_zone("UTC"); }
    ~XlogInternal() override {
        unsetenv("TZ");
        tzset();
    }

    /* The clock shows `now`, and moves only where somebody sleeps. */
    void stop_the_clock() {
        calls->clock = [this] { return now; };
        calls->usleep = [this](useconds_t microseconds) {
            slept.push_back(microseconds);
            now.tv_nsec += 1000L * static_cast<long>(microseconds);
            now.tv_sec += now.tv_nsec / 1'000'000'000;
            now.tv_nsec %= 1'000'000'000;
        };
    }

    log_home home;
    interception calls;
    timespec now = afternoon;
    std::vector<useconds_t> slept;
};

/* ---- Time ----------------------------------------------------------------------------------- */

TEST_F(XlogInternal, RecordsBearTheTimeToTheMillisecondCutOff) {
    struct row {
        timespec time;
        const char *stamp;
    };
    constexpr row rows[] = {
        {afternoon, "[2024-03-05 14:07:09.042]"},
        {{0, 0}, "[1970-01-01 00:00:00.000]"},
        {{0, 999'999}, "[1970-01-01 00:00:00.000]"},
        {{0, 1'000'000}, "[1970-01-01 00:00:00.001]"},
        {{1709251199, 999'999'999}, "[2024-02-29 23:59:59.999]"},
        {{2147483648, 500'000'000}, "[2038-01-19 03:14:08.500]"},
        {{4102444799, 9'999'999}, "[2099-12-31 23:59:59.009]"},
    };
    stop_the_clock();
    ASSERT_EQ(home.set_up(), 0);
    std::string expected;
    for (const row &r : rows) {
        now = r.time;
        log_print(0, error, "disk full");
        expected += r.stamp + std::string(" [    Error.4] disk full\n");
    }
    EXPECT_EQ(home.content("app.log"), expected);
}

TEST_F(XlogInternal, AChangeOfTheTimeZoneShowsInTheNextRecord) {
    stop_the_clock();
    log_conf conf = conf_of_slots(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("other"), 1);
    log_print(0, error, "x");
    set_time_zone("EAST-5:30");
    log_print(0, error, "x");
    log_close(1);
    set_time_zone("WEST+15");
    log_print(0, error, "x");
    EXPECT_EQ(home.content("app.log"), "[2024-03-05 14:07:09.042] [    Error.4] x\n"
                                       "[2024-03-05 19:37:09.042] [    Error.4] x\n"
                                       "[2024-03-04 23:07:09.042] [    Error.4] x\n");
    EXPECT_EQ(home.archives("other"),
              std::vector<std::string>{"other_2024.03.05_19.37.09.042.log"});
}

TEST_F(XlogInternal, SummerTimeBeginsByItself) {
    stop_the_clock();
    set_time_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    ASSERT_EQ(home.set_up(), 0);
    for (const time_t second : {1711846799, 1711846800}) {
        now = {second, 0};
        log_print(0, error, "x");
    }
    EXPECT_EQ(home.content("app.log"), "[2024-03-31 01:59:59.000] [    Error.4] x\n"
                                       "[2024-03-31 03:00:00.000] [    Error.4] x\n");
}

/* ---- Archives ------------------------------------------------------------------------------- */

TEST_F(XlogInternal, AnArchiveBearsTheTimeOfItsMaking) {
    stop_the_clock();
    ASSERT_EQ(home.set_up(), 0);
    log_destroy();
    EXPECT_EQ(home.dir().names(), std::vector<std::string>{"app_2024.03.05_14.07.09.042.log"});
    EXPECT_EQ(slept, std::vector<useconds_t>{});
}

TEST_F(XlogInternal, ArchivesOfOneMillisecondGetTwoNames) {
    stop_the_clock();
    for (const char *text : {"one", "two", "three"}) {
        ASSERT_EQ(home.set_up(), 0);
        log_print(0, error, "%s", text);
        now = afternoon;
        log_destroy();
    }
    /* The third finds the names of both others taken. */
    EXPECT_EQ(slept, (std::vector<useconds_t>{10000, 10000, 10000}));
    EXPECT_EQ(home.dir().names(), (std::vector<std::string>{"app_2024.03.05_14.07.09.042.log",
                                                            "app_2024.03.05_14.07.09.052.log",
                                                            "app_2024.03.05_14.07.09.062.log"}));
    EXPECT_EQ(without_stamps(home.everything("app")),
              "[    Error.4] one\n[    Error.4] two\n[    Error.4] three\n");
}

TEST_F(XlogInternal, ArchivesOfOneMillisecondWaitAsLongAsSet) {
    struct row {
        std::uint64_t gap;
        const char *archive;
    };
    constexpr row rows[] = {
        {1, "app_2024.03.05_14.07.09.043.log"}, // at least a millisecond
        {5000, "app_2024.03.05_14.07.09.047.log"},
        {1000000, "app_2024.03.05_14.07.10.042.log"},
        {5000000, "app_2024.03.05_14.07.10.042.log"}, // at most a second
    };
    stop_the_clock();
    for (const row &r : rows) {
        const log_home own;
        write_file(own / "app_2024.03.05_14.07.09.042.log", "taken");
        log_conf conf = conf_with(LOG_CONF_RENAME_GAP);
        conf.rename_gap = r.gap;
        now = afternoon;
        slept.clear();
        ASSERT_EQ(own.set_up(&conf), 0);
        log_destroy();
        EXPECT_EQ(slept, std::vector<useconds_t>{static_cast<useconds_t>(conf.rename_gap)});
        EXPECT_EQ(own.archives("app").at(1), r.archive);
        EXPECT_EQ(own.content("app_2024.03.05_14.07.09.042.log"), "taken");
    }
}

TEST_F(XlogInternal, RotationsOfOneMillisecondOverwriteNothing) {
    stop_the_clock();
    log_conf conf = conf_of_short_files(1);
    ASSERT_EQ(home.set_up(&conf), 0);
    std::string expected;
    for (int i = 0; i < 3 * fewest_records; i++) {
        log_print(0, error, "%d", i);
        expected += "[    Error.4] " + std::to_string(i) + "\n";
    }
    EXPECT_EQ(home.archives("app").size(), 3U);
    EXPECT_TRUE(without_stamps(home.everything("app")) == expected);
}

/* ---- Writing -------------------------------------------------------------------------------- */

TEST_F(XlogInternal, ARecordIsOneWrite) {
    std::vector<std::string> writes;
    calls->write = [&](int descriptor, const char *text, std::size_t length) -> ssize_t {
        writes.emplace_back(text, length);
        return descriptor == STDOUT_FILENO ? static_cast<ssize_t>(length)
                                           : __real_write(descriptor, text, length);
    };
    const auto print_all_sizes = [&] {
        for (const std::size_t size : {42U, 2046U, 2047U, 2048U, 2049U, 2050U, 65536U, 1U << 20}) {
            const std::string message(size - prefix_size - 1, 'x');
            const std::string record = "[    Error.4] " + message + "\n";
            for (const bool own_newline : {false, true}) {
                writes.clear();
                EXPECT_NE(own_newline ? log_print(0, error, "%s\n", message.c_str())
                                      : log_print(0, error, "%s", message.c_str()),
                          -1);
                ASSERT_EQ(writes.size(), 1U) << size;
                EXPECT_TRUE(writes[0].size() == size && without_stamp(writes[0]) == record);
            }
        }
        const std::string block(1U << 20, 'x');
        for (const std::size_t size : {1U, 16U, 1000U, 1U << 20}) {
            writes.clear();
            EXPECT_EQ(log_dump(0, block.data(), size), static_cast<int>(size));
            ASSERT_EQ(writes.size(), 1U) << size;
            EXPECT_EQ(split(writes[0]).size(), 5 + (size + 15) / 16);
        }
    };
    print_all_sizes();
    ASSERT_EQ(home.set_up(), 0);
    print_all_sizes();
}

TEST_F(XlogInternal, ARecordIsWholeThroughShortAndInterruptedWrites) {
    ASSERT_EQ(home.set_up(), 0);
    int turn = 0;
    calls->write = [&](int descriptor, const char *text, std::size_t length) -> ssize_t {
        if (turn++ % 2 == 0) {
            errno = EINTR;
            return -1;
        }
        return __real_write(descriptor, text, std::min<std::size_t>(length, 7));
    };
    EXPECT_EQ(log_print(0, error, "disk full"), 5);
    EXPECT_EQ(without_stamps(home.content("app.log")), "[    Error.4] disk full\n");
}

TEST_F(XlogInternal, ARecordThatCannotBeWrittenFailsAndCounts) {
    log_conf conf = conf_of_short_files(1);
    ASSERT_EQ(home.set_up(&conf), 0);
    calls->write = [](int, const char *, std::size_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    for (int i = 0; i < fewest_records; i++) {
        EXPECT_EQ(home.archives("app").size(), 0U);
        EXPECT_EQ(i % 2 == 0 ? log_print(0, error, "x") : log_dump(0, "PING", 4), -1);
    }
    EXPECT_EQ(home.archives("app").size(), 1U);
    calls->write = nullptr;
    EXPECT_EQ(log_print(0, error, "x"), -3);
    EXPECT_EQ(without_stamps(home.everything("app")), "[    Error.4] x\n");
}

/* Log 1 is written only once log 0 has been. */
TEST_F(XlogInternal, LogsDoNotBlockEachOther) {
    log_conf conf = conf_of_slots(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    ASSERT_EQ(log_open("other"), 1);
    const int slow = descriptors_of(home / "other.log").at(0);
    std::promise<void> reached;
    std::promise<void> written;
    calls->write = [&, go_on = written.get_future().share()](int descriptor, const char *text,
                                                             std::size_t length) {
        if (descriptor == slow) {
            reached.set_value();
            go_on.wait();
        }
        return __real_write(descriptor, text, length);
    };
    std::thread writer([] { EXPECT_EQ(log_print(1, error, "x"), -3); });
    reached.get_future().wait();
    EXPECT_EQ(log_print(0, error, "x"), -3);
    EXPECT_EQ(home.content("other.log"), "");
    written.set_value();
    writer.join();
    EXPECT_EQ(without_stamps(home.content("other.log")), "[    Error.4] x\n");
}

/* ---- Opening -------------------------------------------------------------------------------- */

TEST_F(XlogInternal, EveryFileThatIsOpenedIsMadeSynchronous) {
    std::vector<int> flags;
    calls->set_fl = [&](int descriptor, int added) {
        flags.push_back(added);
        EXPECT_EQ(fcntl(descriptor, F_GETFL) & O_SYNC, O_SYNC);
        return flags.size() == 2 ? -1 : __real_set_fl(descriptor, added); // -1 does no harm
    };
    log_conf conf = conf_of_short_files(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    EXPECT_EQ(log_open("other"), 1);
    EXPECT_EQ(log_print(1, error, "x"), -3);
    EXPECT_EQ(flags, (std::vector<int>{O_SYNC, O_SYNC}));
    for (int i = 0; i < fewest_records; i++)
        log_print(0, error, "x"); // rotates
    EXPECT_EQ(flags, (std::vector<int>{O_SYNC, O_SYNC, O_SYNC}));
}

TEST_F(XlogInternal, AFileThatBecomesNoStreamIsClosed) {
    log_conf conf = conf_of_slots(3);
    ASSERT_EQ(home.set_up(&conf), 0);
    const auto before = count_descriptors();
    int tries = 0;
    calls->fdopen = [&](int, const char *) -> FILE * {
        tries++;
        return nullptr;
    };
    EXPECT_EQ(log_open("other"), -1);
    EXPECT_EQ(tries, 2); // each free log in turn
    EXPECT_EQ(count_descriptors(), before);
    calls->fdopen = nullptr;
    EXPECT_EQ(log_open("other"), 1);
    EXPECT_EQ(log_print(1, error, "x"), -3);
}

TEST_F(XlogInternal, SettingUpWithoutMemoryFailsAndCanBeTriedAgain) {
    for (const int singleton : {0, 1}) {
        log_conf conf = conf_with(LOG_CONF_NLOGS | LOG_CONF_SINGLETON);
        conf.nlogs = 20;
        conf.singleton = singleton;
        int n = 1;
        for (;; n++) {
            const failing_allocation fault(n);
            const int result = home.set_up(&conf, "app.log");
            if (!fault.happened()) {
                EXPECT_EQ(result, 0);
                break;
            }
            EXPECT_EQ(result, -1) << n;
            EXPECT_EQ(log_open("other"), -1);
        }
        EXPECT_GE(n, 8); // directory, four arrays, name, path
        EXPECT_EQ(log_print(0, error, "x"), -3);
        EXPECT_EQ(log_open("other"), 1);
        log_destroy();
    }
    EXPECT_EQ(home.dir().names().size(), 4U);
}

TEST_F(XlogInternal, OpeningWithoutMemoryFails) {
    log_conf conf = conf_of_slots(2);
    ASSERT_EQ(home.set_up(&conf), 0);
    int n = 1;
    for (;; n++) {
        const failing_allocation fault(n);
        const int result = log_open("other");
        if (!fault.happened()) {
            EXPECT_EQ(result, 1);
            break;
        }
        EXPECT_EQ(result, -1) << n;
    }
    EXPECT_EQ(n, 3); // name, path
    EXPECT_EQ(home.archives("other").size(), 0U);
}

TEST_F(XlogInternal, WithoutMemoryForAnArchivesNameTheProcessEnds) {
    const auto body = [&] {
        home.set_up();
        const failing_allocation fault(1);
        log_destroy();
    };
    EXPECT_EQ(run_in_child(body), exited(1));
}

TEST_F(XlogInternal, WithoutMemoryALongRecordIsRefused) {
    ASSERT_EQ(home.set_up(), 0);
    {
        const failing_allocation fault(1);
        EXPECT_EQ(log_print(0, error, "short"), 1);
        EXPECT_EQ(log_print(0, error, "%04000d", 0), -1);
    }
    EXPECT_EQ(log_print(0, error, "after"), 1);
    EXPECT_EQ(without_stamps(home.content("app.log")),
              "[    Error.4] short\n[    Error.4] after\n");
}

/* ---- Cancellation in the middle ---------------------------------------------------------------
 */

TEST_F(XlogInternal, CancelledInAWriteARecordIsStillWholeAndTheFileRotated) {
    log_conf conf = conf_of_short_files(1);
    ASSERT_EQ(home.set_up(&conf), 0);
    for (int i = 1; i < fewest_records; i++)
        log_print(0, error, "%04000d", 0);
    calls->write = [](int descriptor, const char *text, std::size_t length) {
        pthread_cancel(pthread_self());
        return __real_write(descriptor, text, std::min<std::size_t>(length, 1000));
    };
    EXPECT_TRUE(ends_cancelled([] {
        log_print(0, error, "%04000d", 0);
        ADD_FAILURE() << "not cancelled";
    }));
    EXPECT_EQ(home.content("app.log"), "");
    EXPECT_TRUE(ends_cancelled([] {
        log_dump(0, "PING", 4);
        ADD_FAILURE() << "not cancelled";
    }));
    EXPECT_EQ(split(home.content("app.log")).size(), 6U);
    calls->write = nullptr;
    EXPECT_EQ(log_print(0, error, "x"), -3);
    EXPECT_EQ(split(home.content(home.archives("app").at(0))).size(), 1000U);
}

TEST_F(XlogInternal, CancelledWhileItWaitsForANameAnArchiveIsStillMade) {
    stop_the_clock();
    calls->usleep = [this](useconds_t) {
        now.tv_sec++;
        pthread_cancel(pthread_self());
    };
    log_conf conf = conf_of_slots(2);
    const auto before = count_descriptors();
    ASSERT_EQ(home.set_up(&conf), 0);
    ASSERT_EQ(log_open("other"), 1);
    for (const char *name : {"app", "other"})
        for (const char *second : {"09", "11"})
            write_file(home / name + ("_2024.03.05_14.07." + std::string(second)) + ".042.log", "");
    EXPECT_TRUE(ends_cancelled([] { log_close(1); }));
    EXPECT_EQ(home.archives("other").size(), 3U);
    now.tv_sec = afternoon.tv_sec;
    EXPECT_TRUE(ends_cancelled([] { log_destroy(); }));
    EXPECT_EQ(home.archives("app").size(), 3U);
    EXPECT_EQ(count_descriptors(), before);
    EXPECT_EQ(log_open("other"), -1); // not set up
}

} // namespace

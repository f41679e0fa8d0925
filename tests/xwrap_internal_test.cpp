/* SPDX-License-Identifier: MIT */
#include "xwrap.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <utility>
#include <vector>

#include "allocation_faults.h"
#include "child.h"
#include "explained.h"

/* What the wrapped routines do in place of the system's. Empty: their calls go through. */
namespace {

struct stand_in {
    std::vector<int> timed_waits;    // the error of each timed wait, 0 for none
    const timespec *now = nullptr;   // the time on the clock
    std::vector<clockid_t> clocks;   // the clocks that were read
    std::vector<timespec> deadlines; // of the timed waits
};

stand_in system_;
std::atomic<int> failure;       // the error of the next semaphore, mutex or clock call
std::atomic<int> interruptions; // of true waits

/* The first call fails, not those of the test framework while the process ends. */
int take_failure() {
    return failure.exchange(0);
}

int failed(int error) {
    errno = error;
    return -1;
}

int counted(int result) {
    if (result == -1 && errno == EINTR)
        interruptions++;
    return result;
}

} // namespace

extern "C" { // NOLINTBEGIN: the linker's names
int __real_sem_init(sem_t *semaphore, int shared, unsigned value);
int __real_sem_destroy(sem_t *semaphore);
int __real_sem_post(sem_t *semaphore);
int __real_sem_wait(sem_t *semaphore);
int __real_sem_trywait(sem_t *semaphore);
int __real_sem_timedwait(sem_t *semaphore, const timespec *deadline);
int __real_clock_gettime(clockid_t clock, timespec *time);
int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __real_pthread_mutex_trylock(pthread_mutex_t *mutex);

int __wrap_sem_init(sem_t *semaphore, int shared, unsigned value);
int __wrap_sem_destroy(sem_t *semaphore);
int __wrap_sem_post(sem_t *semaphore);
int __wrap_sem_wait(sem_t *semaphore);
int __wrap_sem_trywait(sem_t *semaphore);
int __wrap_sem_timedwait(sem_t *semaphore, const timespec *deadline);
int __wrap_clock_gettime(clockid_t clock, timespec *time);
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_trylock(pthread_mutex_t *mutex);

int __wrap_sem_init(sem_t *semaphore, int shared, unsigned value) {
    const int error = take_failure();
    return error != 0 ? failed(error) : __real_sem_init(semaphore, shared, value);
}

int __wrap_sem_destroy(sem_t *semaphore) {
    const int error = take_failure();
    return error != 0 ? failed(error) : __real_sem_destroy(semaphore);
}

int __wrap_sem_post(sem_t *semaphore) {
    const int error = take_failure();
    return error != 0 ? failed(error) : __real_sem_post(semaphore);
}

int __wrap_sem_wait(sem_t *semaphore) {
    const int error = take_failure();
    return error != 0 ? failed(error) : counted(__real_sem_wait(semaphore));
}

int __wrap_sem_trywait(sem_t *semaphore) {
    const int error = take_failure();
    return error != 0 ? failed(error) : __real_sem_trywait(semaphore);
}

int __wrap_sem_timedwait(sem_t *semaphore, const timespec *deadline) {
    system_.deadlines.push_back(*deadline);
    if (system_.timed_waits.empty())
        return counted(__real_sem_timedwait(semaphore, deadline));
    const int error = system_.timed_waits.front();
    system_.timed_waits.erase(system_.timed_waits.begin());
    return error == 0 ? 0 : failed(error);
}

int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    if (const int error = take_failure())
        return failed(error);
    system_.clocks.push_back(clock);
    if (system_.now == nullptr)
        return __real_clock_gettime(clock, time);
    *time = *system_.now;
    return 0;
}

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
    const int error = take_failure();
    return error != 0 ? error : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex) {
    const int error = take_failure();
    return error != 0 ? error : __real_pthread_mutex_destroy(mutex);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    const int error = take_failure();
    return error != 0 ? error : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    const int error = take_failure();
    return error != 0 ? error : __real_pthread_mutex_unlock(mutex);
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t *mutex) {
    const int error = take_failure();
    return error != 0 ? error : __real_pthread_mutex_trylock(mutex);
}
} // NOLINTEND

namespace {

using keel_test::ending_after;
using keel_test::exited;
using keel_test::explained;
using keel_test::failing_allocation;
using keel_test::run_in_child;

class XwrapInternal : public testing::Test {
  protected:
    XwrapInternal() { reset(); }
    ~XwrapInternal() override { reset(); }

  private:
    static void reset() {
        system_ = {};
        failure = 0;
    }
};

using Allocation = XwrapInternal;
using Semaphores = XwrapInternal;
using SemTimedwait = XwrapInternal;
using Mutexes = XwrapInternal;

/* A call of the library, the routine that it wraps, and the error that is not fatal to it. */
struct wrapped_call {
    const char *routine;
    std::function<int()> call;
    int pardoned = 0;
};

constexpr int errors[] = {EPERM,  EINTR,   EAGAIN,    EBUSY,     EINVAL,
                          ENOMEM, EDEADLK, ETIMEDOUT, EOWNERDEAD};

/* How `call` ends where the system's part fails with `error`. */
keel_test::child_result ending_with(int error, const std::function<int()> &call) {
    return ending_after(ENOENT, [&] {
        failure = error;
        call();
    });
}

void expect_fatal(const wrapped_call &row) {
    for (const int error : errors) {
        if (error != row.pardoned) {
            EXPECT_EQ(ending_with(error, row.call), explained(row.routine, error));
        }
    }
}

/* Allocation */

TEST_F(Allocation, EndsWithoutMemoryForACopyOrACommand) {
    const auto no_copy = [] {
        const failing_allocation first(1);
        Strdup("text");
    };
    const auto no_command = [] {
        const failing_allocation first(1);
        Systemf("exit %d", 0);
    };
    EXPECT_EQ(run_in_child(no_copy), explained("strdup", ENOMEM));
    EXPECT_EQ(run_in_child(no_command), explained("Systemf", ENOMEM));
}

/* Semaphores */

TEST_F(Semaphores, EndForEveryErrorThatIsNotAResult) {
    sem_t counted;
    Sem_init(&counted, 0, 0);
    const wrapped_call calls[] = {
        {"sem_init", [&] { return Sem_init(&counted, 0, 0); }},
        {"sem_destroy", [&] { return Sem_destroy(&counted); }},
        {"sem_post", [&] { return Sem_post(&counted); }},
        {"sem_wait", [&] { return Sem_wait(&counted); }, EINTR},
        {"sem_trywait", [&] { return Sem_trywait(&counted); }, EAGAIN},
        {"clock_gettime", [&] { return Sem_timedwait(&counted, 0); }},
    };
    for (const auto &row : calls)
        expect_fatal(row);
    Sem_destroy(&counted);
}

/* The result of `wait` for `semaphore` on a thread that signals wake from it thrice, and that gets
 * what it waits for only then. */
int interrupted_wait(sem_t *semaphore, const std::function<int()> &wait) {
    struct sigaction action {};
    struct sigaction former {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &former);
    interruptions = 0;
    std::atomic<bool> returned = false;
    int result = -2;
    std::thread waiter([&] {
        result = wait();
        returned = true;
    });
    while (interruptions < 3 && !returned) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    Sem_post(semaphore);
    waiter.join();
    sigaction(SIGUSR1, &former, nullptr);
    return result;
}

TEST_F(Semaphores, AreWaitedForThroughSignals) {
    sem_t ready;
    Sem_init(&ready, 0, 0);
    EXPECT_EQ(interrupted_wait(&ready, [&] { return Sem_wait(&ready); }), 0);
    EXPECT_GE(interruptions, 3);
    EXPECT_EQ(Sem_trywait(&ready), -1) << "one was taken";
    Sem_destroy(&ready);
}

bool operator==(const timespec &one, const timespec &other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

TEST_F(SemTimedwait, KeepsItsDeadlineThroughSignals) {
    sem_t ready;
    Sem_init(&ready, 0, 0);
    EXPECT_EQ(interrupted_wait(&ready, [&] { return Sem_timedwait(&ready, 600); }), 0);
    EXPECT_GE(interruptions, 3);
    EXPECT_EQ(system_.clocks, std::vector<clockid_t>{CLOCK_REALTIME});
    ASSERT_GE(system_.deadlines.size(), 4U);
    for (const timespec &deadline : system_.deadlines)
        EXPECT_TRUE(deadline == system_.deadlines[0]);
    Sem_destroy(&ready);
}

TEST_F(SemTimedwait, AddsWholeSecondsToTheClock) {
    sem_t none;
    Sem_init(&none, 0, 0);
    const struct {
        timespec now;
        std::int64_t seconds;
        timespec deadline;
    } rows[] = {
        {{1000, 0}, 0, {1000, 0}},
        {{1000, 999'999'999}, 5, {1005, 999'999'999}},
        {{1000, 1}, INT32_MAX + std::int64_t{1}, {2'147'484'648, 1}},
        {{1000, 7}, -1, {999, 7}},
        {{1000, 7}, INT64_MIN, {INT64_MIN + 1000, 7}},
        {{1000, 7}, INT64_MAX - 1000, {INT64_MAX, 7}},
        {{1000, 7}, INT64_MAX - 999, {INT64_MAX, 7}}, // as late as a deadline can be
        {{1000, 7}, INT64_MAX, {INT64_MAX, 7}},
    };
    for (const auto &row : rows) {
        system_ = {};
        system_.now = &row.now;
        system_.timed_waits = {EINTR, EINTR, ETIMEDOUT};
        EXPECT_EQ(Sem_timedwait(&none, row.seconds), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_EQ(system_.clocks.size(), 1U);
        EXPECT_EQ(system_.deadlines.size(), 3U);
        for (const timespec &deadline : system_.deadlines)
            EXPECT_TRUE(deadline == row.deadline) << row.seconds;
    }
    Sem_destroy(&none);
}

TEST_F(SemTimedwait, EndsForEveryErrorThatIsNotAResult) {
    sem_t none;
    Sem_init(&none, 0, 0);
    for (const int error : {EINVAL, EAGAIN, EIO}) {
        const auto failing = [&] {
            system_.timed_waits = {EINTR, error};
            Sem_timedwait(&none, 0);
        };
        EXPECT_EQ(run_in_child(failing), explained("sem_timedwait", error));
    }
    Sem_destroy(&none);
}

/* Mutexes */

TEST_F(Mutexes, ExplainTheErrorNumberThatTheRoutineReturned) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const wrapped_call calls[] = {
        {"pthread_mutex_init", [&] { return Pthread_mutex_init(&mutex, nullptr); }},
        {"pthread_mutex_destroy", [&] { return Pthread_mutex_destroy(&mutex); }},
        {"pthread_mutex_lock", [&] { return Pthread_mutex_lock(&mutex); }},
        {"pthread_mutex_unlock", [&] { return Pthread_mutex_unlock(&mutex); }},
        {"pthread_mutex_trylock", [&] { return Pthread_mutex_trylock(&mutex); }, EBUSY},
    };
    for (const auto &row : calls)
        expect_fatal(row);
    EXPECT_EQ(ending_with(EBUSY, calls[4].call), exited(0));
}

} // namespace

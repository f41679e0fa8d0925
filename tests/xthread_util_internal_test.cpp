/* SPDX-License-Identifier: MIT */
#include "xthread_util.h"

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <sys/time.h>
#include <vector>

/* The stand-ins below write down what they are called with, and answer as told. */
namespace {

struct stand_in {
    std::vector<std::string> calls;
    std::string refused; // the call that fails, if any
    timeval now{};
    int wait_result = 0;
    pthread_cond_t *condition = nullptr;
    pthread_mutex_t *mutex = nullptr;
    timespec deadline{};

    int answer(const std::string &call) {
        calls.push_back(call);
        return call == refused ? EINVAL : 0;
    }
};

stand_in system_;

} // namespace

extern "C" { // NOLINTBEGIN: the linker's names
int __wrap_gettimeofday(timeval *time, void *zone);
int __wrap_pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                  const timespec *deadline);
int __wrap_pthread_attr_init(pthread_attr_t *attributes);
int __wrap_pthread_attr_destroy(pthread_attr_t *attributes);
int __wrap_pthread_attr_setdetachstate(pthread_attr_t *attributes, int state);
int __wrap_pthread_attr_setscope(pthread_attr_t *attributes, int scope);
int __real_gettimeofday(timeval *time, void *zone);

/* The test's own frame reads the time too. */
int __wrap_gettimeofday(timeval *time, void *zone) {
    if (system_.now.tv_sec == 0)
        return __real_gettimeofday(time, zone);
    system_.calls.push_back(zone == nullptr ? "clock" : "clock of a zone");
    *time = system_.now;
    return 0;
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                  const timespec *deadline) {
    system_.calls.push_back("wait");
    system_.condition = condition;
    system_.mutex = mutex;
    system_.deadline = *deadline;
    return system_.wait_result;
}

int __wrap_pthread_attr_init(pthread_attr_t *) {
    return system_.answer("init");
}

int __wrap_pthread_attr_destroy(pthread_attr_t *) {
    return system_.answer("destroy");
}

int __wrap_pthread_attr_setdetachstate(pthread_attr_t *, int state) {
    return system_.answer(state == PTHREAD_CREATE_DETACHED ? "detached" : "joinable");
}

int __wrap_pthread_attr_setscope(pthread_attr_t *, int scope) {
    return system_.answer(scope == PTHREAD_SCOPE_SYSTEM ? "system scope" : "process scope");
}
} // NOLINTEND

namespace {

using call_list = std::vector<std::string>;

class XthreadUtilInternal : public testing::Test {
  protected:
    XthreadUtilInternal() { system_ = {}; }
    ~XthreadUtilInternal() override { system_ = {}; }
};

using CondTimedwait = XthreadUtilInternal;
using AttrInit = XthreadUtilInternal;

pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

TEST_F(CondTimedwait, WaitsUntilTheClockHasGoneOnByTheMilliseconds) {
    const struct {
        timeval now;
        std::int64_t milliseconds;
        timespec deadline;
    } rows[] = {
        {{1, 0}, 0, {1, 0}},
        {{1, 999'999}, 0, {1, 999'999'000}},
        {{1, 0}, 1, {1, 1'000'000}},
        {{1, 0}, 999, {1, 999'000'000}},
        {{1, 0}, 1000, {2, 0}},
        {{1, 999'999}, 1, {2, 999'000}},
        {{1, 1000}, 999, {2, 0}},
        {{1, 999}, 999, {1, 999'999'000}},
        {{10, 999'999}, 1999, {12, 998'999'000}},
        {{1'700'000'000, 123'456}, 86'400'000, {1'700'086'400, 123'456'000}},
        {{1'700'000'000, 0}, INT64_C(0x100000000), {1'704'294'967, 296'000'000}},
        {{1'700'000'000, 999'999}, INT64_MAX, {INT64_MAX / 1000 + 1'700'000'001, 806'999'000}},
    };
    for (const auto &row : rows) {
        system_ = {};
        system_.now = row.now;
        EXPECT_EQ(cond_timedwait(&condition, &mutex, row.milliseconds), 0);
        EXPECT_EQ(system_.deadline.tv_sec, row.deadline.tv_sec) << row.milliseconds;
        EXPECT_EQ(system_.deadline.tv_nsec, row.deadline.tv_nsec) << row.milliseconds;
        EXPECT_EQ(system_.condition, &condition);
        EXPECT_EQ(system_.mutex, &mutex);
        EXPECT_EQ(system_.calls, (call_list{"clock", "wait"}));
    }
}

TEST_F(CondTimedwait, ReturnsWhatTheWaitReturned) {
    for (const int result : {0, ETIMEDOUT, EPERM, EINVAL, ENOTRECOVERABLE}) {
        system_.wait_result = result;
        EXPECT_EQ(cond_timedwait(&condition, &mutex, 5), result);
    }
}

TEST_F(CondTimedwait, TouchesNothingForUnusableArguments) {
    system_.now = {1, 0};
    EXPECT_EQ(cond_timedwait(nullptr, &mutex, 5), -1);
    EXPECT_EQ(cond_timedwait(&condition, nullptr, 5), -1);
    EXPECT_EQ(cond_timedwait(nullptr, nullptr, 5), -1);
    EXPECT_EQ(cond_timedwait(&condition, &mutex, -1), -1);
    EXPECT_EQ(cond_timedwait(&condition, &mutex, INT64_MIN), -1);
    EXPECT_EQ(system_.calls, call_list{});
}

TEST_F(AttrInit, SetsWhatIsAskedForAndNoMore) {
    pthread_attr_t attributes;
    const struct {
        int detached, system_scope;
        call_list calls;
    } rows[] = {
        {0, 0, {"init"}},
        {1, 0, {"init", "detached"}},
        {0, 1, {"init", "system scope"}},
        {1, 1, {"init", "detached", "system scope"}},
        {2, 0, {"init"}},
        {0, 2, {"init"}},
        {-1, -1, {"init"}},
        {INT32_MAX, INT32_MIN, {"init"}},
    };
    for (const auto &row : rows) {
        system_ = {};
        EXPECT_EQ(attr_init(&attributes, row.detached, row.system_scope), 0);
        EXPECT_EQ(system_.calls, row.calls) << row.detached << " " << row.system_scope;
    }
}

TEST_F(AttrInit, LeavesNothingBehindWhereTheSystemRefuses) {
    pthread_attr_t attributes;
    const struct {
        const char *refused;
        int detached, system_scope;
        call_list calls;
    } rows[] = {
        {"init", 1, 1, {"init"}},
        {"detached", 1, 1, {"init", "detached", "destroy"}},
        {"detached", 1, 0, {"init", "detached", "destroy"}},
        {"system scope", 1, 1, {"init", "detached", "system scope", "destroy"}},
        {"system scope", 0, 1, {"init", "system scope", "destroy"}},
    };
    for (const auto &row : rows) {
        system_ = {};
        system_.refused = row.refused;
        EXPECT_EQ(attr_init(&attributes, row.detached, row.system_scope), -1);
        EXPECT_EQ(system_.calls, row.calls);
    }
}

TEST_F(AttrInit, AsksTheSystemForNothingWithoutAttributes) {
    EXPECT_EQ(attr_init(nullptr, 1, 1), -1);
    EXPECT_EQ(system_.calls, call_list{});
}

} // namespace

/* SPDX-License-Identifier: MIT */
#include "xthread_util.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

#include "child.h"

namespace {

using keel_test::exited;
using keel_test::run_in_child;

class CondTimedwait : public testing::Test {
  protected:
    CondTimedwait() { pthread_mutex_lock(&mutex); }
    ~CondTimedwait() override { pthread_mutex_unlock(&mutex); }

    /* Whether this thread has the mutex, as others see it. */
    bool holds_mutex() {
        int error = 0;
        std::thread([&] {
            error = pthread_mutex_trylock(&mutex);
            if (error == 0)
                pthread_mutex_unlock(&mutex);
        }).join();
        return error == EBUSY;
    }

    /* Waits, however often woken for no reason, until `flag` is set or a wait ends otherwise. */
    int wait_for(const bool &flag, std::int64_t milliseconds) {
        int result = 0;
        while (!flag && result == 0)
            result = cond_timedwait(&condition, &mutex, milliseconds);
        return result;
    }

    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
};

TEST_F(CondTimedwait, TimesOutAtOnceWithoutTime) {
    const bool never = false;
    EXPECT_EQ(wait_for(never, 0), ETIMEDOUT);
    EXPECT_TRUE(holds_mutex());
}

TEST_F(CondTimedwait, TimesOutWhenTheMillisecondsHavePassed) {
    timeval before{};
    timeval after{};
    timeval passed{};
    int result = 0;
    while (result == 0) {
        gettimeofday(&before, nullptr);
        result = cond_timedwait(&condition, &mutex, 50);
    }
    gettimeofday(&after, nullptr);
    timersub(&after, &before, &passed);
    EXPECT_EQ(result, ETIMEDOUT);
    EXPECT_TRUE(passed.tv_sec > 0 || passed.tv_usec >= 50'000);
    EXPECT_TRUE(holds_mutex());
}

TEST_F(CondTimedwait, EndsWhenSignalled) {
    for (const std::int64_t milliseconds : {INT64_C(600'000), INT64_C(0x100000000), INT64_MAX}) {
        bool changed = false;
        std::thread other([&] { // gets the mutex only once the wait gives it up
            pthread_mutex_lock(&mutex);
            changed = true;
            pthread_cond_signal(&condition);
            pthread_mutex_unlock(&mutex);
        });
        EXPECT_EQ(wait_for(changed, milliseconds), 0) << milliseconds;
        EXPECT_TRUE(changed);
        EXPECT_TRUE(holds_mutex());
        pthread_mutex_unlock(&mutex);
        other.join();
        pthread_mutex_lock(&mutex);
    }
}

TEST_F(CondTimedwait, DoesNotWaitForUnusableArguments) {
    const auto keeps_quiet = [this] {
        if (cond_timedwait(&condition, &mutex, -1) != -1 ||
            cond_timedwait(&condition, &mutex, INT64_MIN) != -1 ||
            cond_timedwait(nullptr, &mutex, INT64_MAX) != -1 ||
            cond_timedwait(&condition, nullptr, INT64_MAX) != -1 ||
            cond_timedwait(nullptr, nullptr, 0) != -1)
            _exit(7);
    };
    EXPECT_EQ(run_in_child(keeps_quiet), exited(0));
    EXPECT_TRUE(holds_mutex());
}

struct settings {
    int detach_state, scope, inheritance, policy, priority;
    std::size_t stack_size, guard_size;

    bool operator==(const settings &) const = default;
};

settings settings_of(const pthread_attr_t &attributes) {
    settings all{};
    sched_param parameter{};
    pthread_attr_getdetachstate(&attributes, &all.detach_state);
    pthread_attr_getscope(&attributes, &all.scope);
    pthread_attr_getinheritsched(&attributes, &all.inheritance);
    pthread_attr_getschedpolicy(&attributes, &all.policy);
    pthread_attr_getschedparam(&attributes, &parameter);
    all.priority = parameter.sched_priority;
    pthread_attr_getstacksize(&attributes, &all.stack_size);
    pthread_attr_getguardsize(&attributes, &all.guard_size);
    return all;
}

settings default_settings() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    const settings all = settings_of(attributes);
    pthread_attr_destroy(&attributes);
    return all;
}

TEST(AttrInit, CountsAFlagOnlyWhereItIsOne) {
    const settings defaults = default_settings();
    for (const int detached : {1, 0, 2, -1, INT_MAX, INT_MIN}) {
        for (const int system_scope : {1, 0, 2, -1}) {
            settings expected = defaults;
            if (detached == 1)
                expected.detach_state = PTHREAD_CREATE_DETACHED;
            if (system_scope == 1)
                expected.scope = PTHREAD_SCOPE_SYSTEM;
            pthread_attr_t attributes;
            EXPECT_EQ(attr_init(&attributes, detached, system_scope), 0);
            EXPECT_TRUE(settings_of(attributes) == expected) << detached << " " << system_scope;
            EXPECT_EQ(pthread_attr_destroy(&attributes), 0);
        }
    }
    EXPECT_EQ(defaults.detach_state, PTHREAD_CREATE_JOINABLE);
}

TEST(AttrInit, StartsThreads) {
    static sem_t done;
    sem_init(&done, 0, 0);
    const auto post = [](void *argument) {
        sem_post(&done);
        return argument;
    };
    for (const int detached : {0, 1}) {
        pthread_attr_t attributes;
        ASSERT_EQ(attr_init(&attributes, detached, 1), 0);
        pthread_t thread{};
        ASSERT_EQ(pthread_create(&thread, &attributes, post, &done), 0);
        pthread_attr_destroy(&attributes);
        sem_wait(&done);
        void *result = nullptr;
        if (detached == 0) {
            EXPECT_EQ(pthread_join(thread, &result), 0);
            EXPECT_EQ(result, &done);
        }
    }
}

TEST(AttrInit, RefusesNull) {
    for (const int flag : {0, 1})
        EXPECT_EQ(attr_init(nullptr, flag, flag), -1);
}

} // namespace

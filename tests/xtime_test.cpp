/* SPDX-License-Identifier: MIT */
#include "xtime.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <pthread.h>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include "child.h"
#include "threads.h"
#include "timers.h"
#include "waiting.h"
#include "workers.h"

namespace {

using keel_test::add_text;
using keel_test::cancel_text;
using keel_test::child_result;
using keel_test::count_threads;
using keel_test::eventually;
using keel_test::execute_text;
using keel_test::exited;
using keel_test::gate;
using keel_test::hour;
using keel_test::id_warning;
using keel_test::number;
using keel_test::owned_timer;
using keel_test::pool_watch;
using keel_test::post_task;
using keel_test::run_in_child;
using keel_test::semaphore;
using keel_test::spin;
using keel_test::start_text;
using keel_test::text_of;
using keel_test::Timers;
using keel_test::watchdog;

using TimerTexts = keel_test::LeavesNothing;
using TimerStress = Timers;

void *do_nothing(void *arg) {
    return arg;
}

void *count_up(void *counter) {
    ++*static_cast<std::atomic<int> *>(counter);
    return nullptr;
}

std::int64_t nanoseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

std::int64_t nanoseconds_of(const timertask &task) {
    return task.sec * 1'000'000'000 + task.nsec;
}

/* ---- Records ----------------------------------------------------------------------------------
 */

TEST(TimerRecords, HaveTheirFieldsInOrder) {
    EXPECT_EQ(offsetof(timertask, start_routine), 0U);
    EXPECT_EQ(offsetof(timertask, arg), 8U);
    EXPECT_EQ(offsetof(timertask, sec), 16U);
    EXPECT_EQ(offsetof(timertask, nsec), 24U);
    EXPECT_EQ(offsetof(timertask, due), 32U);
    EXPECT_EQ(offsetof(timertask, timer), 64U);
    EXPECT_EQ(offsetof(timertask, msec), 72U);
    EXPECT_EQ(offsetof(timertask, times), 80U);
    EXPECT_EQ(offsetof(timertask, gap), 88U);
    EXPECT_EQ(offsetof(timertask, id), 96U);
    EXPECT_EQ(sizeof(timertask), 104U);

    EXPECT_EQ(offsetof(timer_list, head), 0U);
    EXPECT_EQ(offsetof(timer_list, tail), 8U);
    EXPECT_EQ(offsetof(timer_list, count), 16U);
    EXPECT_EQ(offsetof(timer_list, destroy), 24U);
    EXPECT_EQ(offsetof(timer_list, copy), 32U);
    EXPECT_EQ(offsetof(timer_list, compare), 40U);
    EXPECT_EQ(sizeof(timer_list), 48U);

    EXPECT_EQ(offsetof(timer_node, prev), 0U);
    EXPECT_EQ(offsetof(timer_node, next), 8U);
    EXPECT_EQ(offsetof(timer_node, data), 16U);
    EXPECT_EQ(sizeof(timer_node), 24U);

    EXPECT_EQ(offsetof(timer, lock), 0U);
    EXPECT_EQ(offsetof(timer, wakeup), 40U);
    EXPECT_EQ(offsetof(timer, ids), 88U);
    EXPECT_EQ(offsetof(timer, pool), 96U);
    EXPECT_EQ(offsetof(timer, thread), 104U);
    EXPECT_EQ(offsetof(timer, ready), 112U);
    EXPECT_EQ(offsetof(timer, tasks), 120U);
    EXPECT_EQ(offsetof(timer, start), 128U);
    EXPECT_EQ(offsetof(timer, schedule), 136U);
    EXPECT_EQ(offsetof(timer, cancel), 144U);
    EXPECT_EQ(offsetof(timer, del), 152U);
    EXPECT_EQ(sizeof(timer), 160U);
}

TEST_F(Timers, ANewTimerHasNothingToDo) {
    const owned_timer clock;
    ASSERT_NE(clock.get(), nullptr);
    EXPECT_TRUE(clock.is_sound());
    EXPECT_EQ(clock.count(), 0U);
    for (const timer_list *list : {clock->ready, clock->tasks}) {
        EXPECT_EQ(list->destroy, timertask_del);
        EXPECT_EQ(list->copy, nullptr);
    }
    EXPECT_EQ(clock->ready->compare, nullptr);
    EXPECT_EQ(clock->tasks->compare, timertask_sort);
    EXPECT_NE(clock->ids->args, nullptr);
    EXPECT_EQ(clock->ids->arg_free, nullptr);
    EXPECT_EQ(clock->start, timer_start);
    EXPECT_EQ(clock->schedule, timer_schedule);
    EXPECT_EQ(clock->cancel, timer_cancel);
    EXPECT_EQ(clock->del, timer_del);
}

TEST_F(Timers, ANewTimerHasAThreadAndAPoolOfItsOwn) {
    const owned_timer clock;
    EXPECT_EQ(clock->thread->routine, timer_run);
    EXPECT_EQ(clock->thread->arg, clock.get());
    int detached = -1;
    pthread_attr_getdetachstate(&clock->thread->attr, &detached);
    EXPECT_EQ(detached, PTHREAD_CREATE_DETACHED);

    EXPECT_EQ(clock->pool->pool.min, 10U);
    EXPECT_EQ(clock->pool->pool.max, 20U);
    EXPECT_TRUE(pool_watch(clock->pool).settles(10));
}

TEST_F(Timers, ThePoolTakes32788TasksAndNoMore) {
    std::array<gate, 10> gates; // nobody comes back, to see that more workers are needed
    const owned_timer clock;
    pool_watch watch(clock->pool);
    ASSERT_TRUE(watch.settles(gates.size()));
    watch.hold_each(gates);
    int taken = 0;
    while (taken < 40'000 && timer_exec(clock.get(), do_nothing, nullptr) == 0)
        taken++;
    EXPECT_EQ(taken, 32'788);
}

TEST_F(TimerTexts, EachNewTimerWarnsOfItsIdentifiers) {
    const child_result result = run_in_child([] {
        const watchdog limit;
        timer_del(timer_new());
        timer_del(timer_new());
    });
    EXPECT_EQ(result, exited(0, id_warning + id_warning));
}

TEST_F(Timers, NobodyDeletesNull) {
    EXPECT_EQ(timer_del(nullptr), -1);
    EXPECT_EQ(timertask_new(nullptr, nullptr, nullptr, 1, 1, 0), nullptr);
    timertask_del(nullptr);
    timer *clock = timer_new();
    EXPECT_EQ(clock->del(clock), 0);
}

TEST_F(Timers, UnlockUnlocks) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    timer_unlock(&mutex);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
    pthread_mutex_unlock(&mutex);
}

/* ---- Arguments --------------------------------------------------------------------------------
 */

struct request {
    std::int64_t msec;
    std::int32_t times;
    std::int64_t gap;
};

TEST_F(TimerTexts, WhatCannotBeScheduledIsRefusedWithoutAWord) {
    const request rows[] = {
        {0, 1, 0},
        {-1, 1, 0},
        {INT64_MIN, 1, 0},
        {0, -1, 5},
        {-1, 3, 5},
        {5, 0, 5},
        {5, 0, 0},
        {5, -2, 5},
        {5, INT32_MIN, 5},
        {5, -1, 0},
        {5, -1, -1},
        {5, -1, INT64_MIN},
        {5, 2, 0},
        {5, 2, -1},
        {5, 3, 0},
        {5, INT32_MAX, 0},
        {5, 3, INT64_MIN},
        {INT64_MAX, 0, 1},
        {INT64_MAX, 2, INT64_MIN},
    };
    const child_result result = run_in_child([&] {
        const watchdog limit;
        const owned_timer clock;
        bool ok = true;
        for (const request &row : rows) {
            ok &= timer_schedule(clock.get(), do_nothing, nullptr, row.msec, row.times, row.gap) ==
                  -1;
            ok &= timer_schedule(nullptr, do_nothing, nullptr, row.msec, row.times, row.gap) == -1;
        }
        ok &= timer_schedule(clock.get(), nullptr, nullptr, 5, 1, 0) == -1;
        ok &= timer_schedule(nullptr, do_nothing, nullptr, 5, 1, 0) == -1;
        ok &= timer_start(nullptr, do_nothing, nullptr, 5) == -1;
        ok &= timer_start(nullptr, do_nothing, nullptr, 0) == -1;
        ok &= timer_start(clock.get(), nullptr, nullptr, 5) == -1;
        ok &= timer_start(clock.get(), nullptr, nullptr, 0) == -1;
        ok &= timer_start(clock.get(), do_nothing, nullptr, -1) == -1;
        ok &= timer_start(clock.get(), do_nothing, nullptr, INT64_MIN) == -1;
        ok &= timer_exec(nullptr, do_nothing, nullptr) == -1;
        ok &= timer_exec(clock.get(), nullptr, nullptr) == -1;
        for (const int id : {0, -1, 1, 32767, 32768, 65536, INT32_MAX, INT32_MIN}) {
            ok &= timer_cancel(clock.get(), id) == -1;
            ok &= timer_cancel(nullptr, id) == -1;
        }
        ok &= clock.is_sound() && clock.count() == 0 && clock->ids->last == 0xffffffff;
        if (!ok)
            _exit(1);
    });
    EXPECT_EQ(result, exited(0, id_warning));
}

TEST_F(Timers, WhatCanBeScheduledGetsAnIdentifier) {
    const request rows[] = {
        {hour, 1, 0},          {hour, 1, -1}, {hour, 1, INT64_MIN},
        {hour, 1, INT64_MAX},  {hour, 2, 1},  {hour, -1, 1},
        {hour, -1, INT64_MAX}, {hour, 3, 1},  {hour, INT32_MAX, INT64_MAX},
        {24 * hour, 1, 0},
    };
    const owned_timer clock;
    int id = 0;
    for (const request &row : rows) {
        const std::int64_t earliest = nanoseconds_now() + row.msec * 1'000'000;
        ASSERT_EQ(clock->schedule(clock.get(), count_up, &id, row.msec, row.times, row.gap), id);
        const std::int64_t latest = nanoseconds_now() + row.msec * 1'000'000;
        const timertask task = clock.task(id);
        EXPECT_EQ(task.start_routine, count_up);
        EXPECT_EQ(task.arg, &id);
        EXPECT_EQ(task.timer, clock.get());
        EXPECT_EQ(task.msec, row.msec);
        EXPECT_EQ(task.times, row.times);
        EXPECT_EQ(task.gap, row.gap);
        EXPECT_EQ(task.id, id);
        EXPECT_LE(earliest, nanoseconds_of(task));
        EXPECT_LE(nanoseconds_of(task), latest);
        EXPECT_LT(task.nsec, 1'000'000'000);
        EXPECT_EQ(task.due, text_of(task.sec, task.nsec));
        id++;
    }
    EXPECT_TRUE(clock.is_sound());
    EXPECT_EQ(clock.count(), std::size(rows));
}

TEST_F(Timers, TheLongestDelayIsOneLikeAnyOther) {
    const owned_timer clock;
    const std::int64_t earliest = nanoseconds_now() / 1'000'000'000 + INT64_MAX / 1000;
    const int id = timer_schedule(clock.get(), do_nothing, nullptr, INT64_MAX, 1, 0);
    ASSERT_EQ(id, 0);
    const timertask task = clock.task(id);
    EXPECT_GE(task.sec, earliest);
    EXPECT_LE(task.sec, earliest + 600);
    EXPECT_EQ(task.due, text_of(task.sec, task.nsec)) << "a year of nine digits";
    EXPECT_EQ(timer_cancel(clock.get(), id), 0);
}

TEST_F(Timers, StartSchedulesOneRun) {
    owned_timer clock;
    EXPECT_EQ(clock->start(clock.get(), do_nothing, &clock, hour), 0);
    EXPECT_EQ(clock->start(clock.get(), do_nothing, &clock, hour), 1) << "an identifier";
    const timertask task = clock.task(1);
    EXPECT_EQ(task.times, 1);
    EXPECT_EQ(task.gap, 0);
    EXPECT_EQ(task.msec, hour);
    EXPECT_EQ(task.arg, &clock);
}

TEST_F(Timers, StartWithoutADelayRunsAtOnce) {
    semaphore done;
    const owned_timer clock;
    EXPECT_EQ(clock->start(clock.get(), do_nothing, nullptr, hour), 0);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(clock->start(clock.get(), post_task, &done, 0), 0) << "no identifier";
    done.wait(3);
    EXPECT_EQ(clock.count(), 1U);
}

/* ---- Tasks ------------------------------------------------------------------------------------
 */

TEST_F(Timers, ATaskIsMadeUnderTheLock) {
    const owned_timer clock;
    timertask *task = clock.locked(
        [&] { return timertask_new(clock.get(), do_nothing, number(7), 1500, -1, 250); });
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->start_routine, do_nothing);
    EXPECT_EQ(task->arg, number(7));
    EXPECT_EQ(task->timer, clock.get());
    EXPECT_EQ(task->msec, 1500);
    EXPECT_EQ(task->times, -1);
    EXPECT_EQ(task->gap, 250);
    EXPECT_EQ(task->id, 0);
    EXPECT_EQ(task->due, text_of(task->sec, task->nsec));
    EXPECT_EQ(clock.count(), 0U) << "made, not scheduled";
    EXPECT_EQ(timer_cancel(clock.get(), 0), -1) << "nothing is bound to it";
    timertask_del(&task);
    EXPECT_EQ(task, nullptr);
    EXPECT_EQ(timer_start(clock.get(), do_nothing, nullptr, hour), 1) << "0 is in use";
}

TEST_F(Timers, SortingIsTheDifferenceIn32Bits) {
    constexpr std::int64_t two31 = std::int64_t{1} << 31;
    const struct {
        std::int64_t sec_a, nsec_a, sec_b, nsec_b;
        std::int32_t order;
    } rows[] = {
        {5, 5, 5, 5, 0},
        {5, 0, 6, 999'999'999, -1},
        {6, 0, 5, 999'999'999, 1},
        {1'700'000'000, 0, 1'700'003'600, 0, -3600},
        {5, 0, 5, 999'999'999, -999'999'999},
        {5, 999'999'999, 5, 0, 999'999'999},
        {5, 7, 5, 8, -1},
        {0, 0, two31 - 1, 0, INT32_MIN + 1},
        {two31 - 1, 0, 0, 0, INT32_MAX},
        {two31, 0, 0, 0, INT32_MIN}, // from here on the wrong way round
        {0, 0, two31, 0, INT32_MIN},
        {0, 0, two31 + 1, 0, INT32_MAX},
        {two31 + 1, 0, 0, 0, INT32_MIN + 1},
        {3'000'000'000, 0, 0, 0, -1'294'967'296},
        {2 * two31, 5, 0, 1, 0},
        {2 * two31 + 3, 0, 0, 0, 3},
        {-1, 0, 1, 0, -2},
        {INT64_MAX, 0, INT64_MIN, 0, -1},
        {INT64_MIN, 0, INT64_MAX, 0, 1},
    };
    for (const auto &row : rows) {
        timertask a{};
        timertask b{};
        std::tie(a.sec, a.nsec, b.sec, b.nsec) =
            std::tie(row.sec_a, row.nsec_a, row.sec_b, row.nsec_b);
        timertask *one = &a;
        timertask *other = &b;
        EXPECT_EQ(timertask_sort(&one, &other), row.order) << row.sec_a << " " << row.sec_b;
        EXPECT_EQ(timertask_sort(&one, &one), 0);
    }
}

TEST_F(Timers, TheEarliestTaskIsFirst) {
    const owned_timer clock;
    for (const int hours : {5, 2, 9, 1, 7, 3})
        timer_start(clock.get(), do_nothing, nullptr, hours * hour);
    EXPECT_EQ(clock.ids(), (std::vector<int>{3, 1, 5, 0, 4, 2}));
    EXPECT_TRUE(clock.is_sound());
    for (const int id : {5, 3, 2}) { // in the middle, the first, the last
        EXPECT_EQ(clock->cancel(clock.get(), id), 0);
        EXPECT_TRUE(clock.is_sound());
    }
    EXPECT_EQ(clock.ids(), (std::vector<int>{1, 0, 4}));
    for (const int id : {0, 1, 4})
        EXPECT_EQ(clock->cancel(clock.get(), id), 0);
    EXPECT_TRUE(clock.is_sound());
    EXPECT_EQ(clock.count(), 0U);
}

std::atomic<int> destroyed_tasks;

void count_destroyed(timertask **task) {
    ++destroyed_tasks;
    timertask_del(task);
}

TEST_F(Timers, EachTaskIsDestroyedOnce) {
    semaphore done;
    owned_timer clock;
    destroyed_tasks = 0;
    clock.locked([&] { return clock->tasks->destroy = count_destroyed; });
    timer_start(clock.get(), post_task, &done, hour);
    clock.make_all_due();
    EXPECT_TRUE(eventually([&] { return clock.count() == 0; }));
    EXPECT_EQ(destroyed_tasks, 1) << "it has run out";
    done.wait();
    timer_cancel(clock.get(), timer_start(clock.get(), do_nothing, nullptr, hour));
    EXPECT_EQ(destroyed_tasks, 2);
    timer_start(clock.get(), do_nothing, nullptr, hour);
    timer_start(clock.get(), do_nothing, nullptr, 2 * hour);
    EXPECT_EQ(clock.del(), 0);
    EXPECT_EQ(destroyed_tasks, 4);
}

struct {
    timertask **data;
    timertask *item;
} copied;

void note_copy(timertask **data, timertask **item) {
    copied = {data, *item};
    *data = *item;
}

TEST_F(Timers, ACopyFunctionPutsTheTaskIntoItsNode) {
    const owned_timer clock;
    EXPECT_EQ(clock->tasks->copy, nullptr);
    clock.locked([&] { return clock->tasks->copy = note_copy; });
    const int id = timer_start(clock.get(), do_nothing, nullptr, hour);
    timer_node *node = clock.locked([&] { return clock.node_of(id); });
    EXPECT_EQ(copied.data, &node->data);
    EXPECT_EQ(copied.item, node->data);
    EXPECT_EQ(copied.item->id, id);
}

/* ---- Identifiers ------------------------------------------------------------------------------
 */

TEST_F(Timers, IdentifiersAreGivenInRotation) {
    const owned_timer clock;
    const auto schedule = [&] { return timer_start(clock.get(), do_nothing, nullptr, hour); };
    for (int id = 0; id < 3; id++)
        EXPECT_EQ(schedule(), id);
    EXPECT_EQ(timer_cancel(clock.get(), 1), 0);
    EXPECT_EQ(timer_cancel(clock.get(), 1), -1);
    EXPECT_EQ(schedule(), 3) << "1 is not soon used again";
    for (int id = 4; id < 32768; id++) {
        ASSERT_EQ(schedule(), id);
        ASSERT_EQ(timer_cancel(clock.get(), id), 0);
    }
    EXPECT_EQ(schedule(), 1);
    EXPECT_EQ(schedule(), 4);
    EXPECT_TRUE(clock.is_sound());
}

TEST_F(TimerTexts, The32769thTaskIsRefused) {
    const std::string none_left = "timertask_new : There has no timer id now.\n";
    const child_result result = run_in_child([] {
        const watchdog limit;
        const owned_timer clock;
        const auto schedule = [&] { return timer_start(clock.get(), do_nothing, nullptr, hour); };
        bool ok = true;
        for (int id = 0; id < 32768; id++)
            ok &= schedule() == id;
        ok &= schedule() == -1;
        ok &= clock.locked([&] {
            return timertask_new(clock.get(), do_nothing, nullptr, hour, 1, 0);
        }) == nullptr;
        ok &= clock.count() == 32768 && clock.is_sound();
        ok &= timer_cancel(clock.get(), 77) == 0 && timer_cancel(clock.get(), 5) == 0;
        ok &= schedule() == 5 && schedule() == 77 && schedule() == -1;
        ok &= timer_cancel(clock.get(), 3) == 0 && schedule() == 3;
        ok &= clock.count() == 32768 && clock.is_sound();
        if (!ok)
            _exit(1);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, id_warning + none_left + none_left + none_left);
}

TEST_F(Timers, ATaskThatHasRunOutGivesItsIdentifierBack) {
    std::atomic<int> runs = 0;
    const owned_timer clock;
    const int once = timer_start(clock.get(), count_up, &runs, 1);
    EXPECT_TRUE(eventually([&] { return runs == 1; }));
    EXPECT_EQ(clock.locked([&] { return clock->ids->free; }), 32768U);
    EXPECT_EQ(timer_cancel(clock.get(), once), -1);
}

TEST_F(Timers, AnEndlessTaskIsCancelledOnce) {
    semaphore ran;
    const owned_timer clock;
    const int id = timer_schedule(clock.get(), post_task, &ran, 1, -1, 1);
    ran.wait(20);
    EXPECT_EQ(clock.ids(), std::vector<int>{id});
    EXPECT_EQ(clock.task(id).times, -1);
    EXPECT_EQ(timer_cancel(clock.get(), id), 0);
    EXPECT_EQ(timer_cancel(clock.get(), id), -1);
    EXPECT_EQ(clock.count(), 0U);
}

/* ---- Runs -------------------------------------------------------------------------------------
 */

TEST_F(Timers, ATaskRunsAsManyTimesAsItWasToldTo) {
    for (const int times : {1, 2, 3, 25}) {
        std::atomic<int> handed = 0;
        std::atomic<int> runs = 0;
        owned_timer clock;
        clock.hand_over_to([&, pool = clock->pool](thread_routine routine, void *arg) {
            handed++;
            return threadpool_exec(pool, routine, arg);
        });
        const int id = timer_schedule(clock.get(), count_up, &runs, 1, times, 1);
        EXPECT_TRUE(eventually([&] { return clock.count() == 0; }));
        EXPECT_TRUE(eventually([&] { return runs == times; }));
        EXPECT_EQ(timer_cancel(clock.get(), id), -1);
        EXPECT_EQ(clock.del(), 0);
        EXPECT_EQ(handed, times);
        EXPECT_EQ(runs, times);
    }
}

TEST_F(Timers, EachRunCountsAndSetsTheNextDueTime) {
    semaphore ran;
    const owned_timer clock;
    const int id = timer_schedule(clock.get(), post_task, &ran, hour, 3, 2 * hour);
    timer_node *node = clock.locked([&] { return clock.node_of(id); });
    for (const int left : {2, 1}) {
        const std::int64_t earliest = nanoseconds_now() + 2 * hour * 1'000'000;
        clock.make_all_due();
        ran.wait();
        const timertask task = clock.task(id);
        const std::int64_t latest = nanoseconds_now() + 2 * hour * 1'000'000;
        EXPECT_EQ(task.times, left);
        EXPECT_LE(earliest, nanoseconds_of(task));
        EXPECT_LE(nanoseconds_of(task), latest);
        EXPECT_EQ(task.due, text_of(task.sec, task.nsec));
        EXPECT_EQ(task.msec, hour);
        EXPECT_EQ(task.gap, 2 * hour);
        EXPECT_EQ(clock.locked([&] { return clock.node_of(id); }), node);
        EXPECT_TRUE(clock.is_sound());
    }
    clock.make_all_due();
    ran.wait();
    EXPECT_EQ(clock.count(), 0U);
}

struct timed_run {
    semaphore done;
    std::int64_t at = 0;

    static void *note(void *self) {
        static_cast<timed_run *>(self)->at = nanoseconds_now();
        return post_task(&static_cast<timed_run *>(self)->done);
    }
};

TEST_F(Timers, NothingRunsBeforeItIsDue) {
    std::array<timed_run, 3> runs;
    const owned_timer clock;
    for (std::int64_t milliseconds = 1; timed_run & run : runs) {
        const std::int64_t earliest = nanoseconds_now() + milliseconds * 1'000'000;
        timer_start(clock.get(), timed_run::note, &run, milliseconds);
        run.done.wait();
        EXPECT_GE(run.at, earliest);
        milliseconds += 7;
    }
}

TEST_F(Timers, AnEarlierTaskShortensTheSleep) {
    semaphore ran;
    const owned_timer clock;
    timer_start(clock.get(), do_nothing, nullptr, hour);
    for (int i = 0; i < 20; i++) {
        timer_start(clock.get(), post_task, &ran, 2);
        ran.wait(); // an hour, were the thread not woken
    }
    EXPECT_EQ(clock.ids(), std::vector<int>{0});
}

TEST_F(Timers, ASlowRoutineDelaysNoOther) {
    std::array<gate, 5> slow;
    const owned_timer clock;
    for (gate &at : slow)
        timer_start(clock.get(), gate::task, &at, 1);
    for (gate &at : slow)
        at.wait_until_reached();
    semaphore ran;
    timer_schedule(clock.get(), post_task, &ran, 1, 5, 1);
    ran.wait(5);
    for (gate &at : slow)
        at.open();
}

TEST_F(Timers, ARoutineOutlivesTheCancellationOfItsTask) {
    gate at;
    const owned_timer clock;
    const int id = timer_schedule(clock.get(), gate::task, &at, 1, -1, hour);
    at.wait_until_reached();
    EXPECT_EQ(timer_cancel(clock.get(), id), 0);
    at.open();
    EXPECT_TRUE(pool_watch(clock->pool).settles(10)) << "it has returned";
}

TEST_F(Timers, DeletionCancelsWhatRunsAndDropsTheRest) {
    struct scene {
        std::atomic<int> entered = 0;
        std::atomic<int> left = 0;
        semaphore never;

        static void leave(void *self) { ++static_cast<scene *>(self)->left; }
        static void *stay(void *self) {
            pthread_cleanup_push(leave, self);
            ++static_cast<scene *>(self)->entered;
            static_cast<scene *>(self)->never.wait();
            pthread_cleanup_pop(1);
            return nullptr;
        }
    } scene;
    owned_timer clock;
    for (int i = 0; i < 30; i++)
        timer_start(clock.get(), scene::stay, &scene, i % 2);
    EXPECT_TRUE(eventually([&] { return scene.entered >= 10; }));
    timer_schedule(clock.get(), do_nothing, nullptr, hour, -1, hour);
    EXPECT_EQ(clock.del(), 0);
    EXPECT_EQ(scene.left, scene.entered);
    EXPECT_LE(scene.entered, 20) << "no more than there may be workers";
}

TEST_F(Timers, ExecGivesTheResultOfThePool) {
    const owned_timer clock;
    for (const int result : {0, -1, 7}) {
        clock.hand_over_to([=](thread_routine, void *) { return result; });
        EXPECT_EQ(timer_exec(clock.get(), do_nothing, nullptr), result);
        EXPECT_EQ(timer_start(clock.get(), do_nothing, nullptr, 0), result);
    }
}

/* ---- What is printed --------------------------------------------------------------------------
 */

TEST_F(TimerTexts, SchedulingAndCancellingAreReported) {
    void *const arg = number(0xABCDEF);
    const child_result result = run_in_child([=] {
        const watchdog limit;
        const owned_timer clock;
        timer_schedule(clock.get(), do_nothing, arg, hour, 3, 20);
        timer_schedule(clock.get(), do_nothing, nullptr, INT64_MAX, -1, INT64_MAX);
        timer_start(clock.get(), do_nothing, arg, 2 * hour);
        timer_schedule(clock.get(), do_nothing, arg, hour, 1, -5);
        timer_cancel(clock.get(), 1);
        timer_cancel(clock.get(), 1);
        timer_cancel(clock.get(), 3);
    });
    EXPECT_EQ(result, (child_result{0, 0,
                                    add_text(0, 3, hour, 20, do_nothing, arg) +
                                        add_text(1, -1, INT64_MAX, INT64_MAX, do_nothing, nullptr) +
                                        add_text(2, 1, 2 * hour, 0, do_nothing, arg) +
                                        add_text(3, 1, hour, -5, do_nothing, arg) + cancel_text(1) +
                                        cancel_text(3),
                                    id_warning}));
}

TEST_F(TimerTexts, RunsAreReported) {
    static semaphore ran;
    const child_result result = run_in_child([] {
        const watchdog limit;
        const owned_timer clock;
        timer_start(clock.get(), post_task, &ran, 0);
        ran.wait();
        clock->schedule(clock.get(), post_task, &ran, hour, 2, hour);
        for (int i = 0; i < 2; i++) {
            clock.make_all_due();
            ran.wait();
            clock.count(); // the report is under the lock
        }
    });
    EXPECT_EQ(
        result,
        (child_result{0, 0,
                      execute_text(post_task, &ran) + add_text(0, 2, hour, hour, post_task, &ran) +
                          start_text(0, post_task, &ran) + start_text(0, post_task, &ran),
                      id_warning}));
}

/* The run counts all the same. */
TEST_F(TimerTexts, ARefusedRunIsReported) {
    const std::string refused = "timer_run : can't execute timer task.\n";
    const child_result result = run_in_child([] {
        const watchdog limit;
        const owned_timer clock;
        clock.hand_over_to([](thread_routine, void *) { return -1; });
        timer_start(clock.get(), do_nothing, nullptr, 0);
        timer_schedule(clock.get(), do_nothing, nullptr, hour, 3, hour);
        for (const int left : {2, 1}) {
            clock.make_all_due();
            if (!eventually([&] { return clock.task(0).times == left; }))
                _exit(1);
        }
        clock.make_all_due();
        if (!eventually([&] { return clock.count() == 0; }) || timer_cancel(clock.get(), 0) != -1)
            _exit(1);
    });
    EXPECT_EQ(result, (child_result{0, 0, add_text(0, 3, hour, hour, do_nothing, nullptr),
                                    id_warning + refused + refused + refused}));
}

/* How often each kind of report is in the text; "torn" where something else is. */
std::map<std::string, int> reports_in(const std::string &text) {
    const std::map<std::string, std::vector<std::string>> kinds = {
        {"Add timer task.", {"id ", "times ", "msec ", "gap ", "start_routine ", "arg "}},
        {"Start timer task.", {"id ", "start_routine ", "arg "}},
        {"Execute timer task.", {"start_routine ", "arg "}},
    };
    std::map<std::string, int> found;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("Cancel timer task(") && line.ends_with(").")) {
            found["Cancel"]++;
            continue;
        }
        const auto kind = kinds.find(line);
        if (kind == kinds.end()) {
            found["torn"]++;
            continue;
        }
        found[line]++;
        for (const std::string &name : kind->second)
            if (!std::getline(lines, line) || !line.starts_with(name) ||
                line.substr(13, 3) != " = ")
                found["torn"]++;
    }
    return found;
}

TEST_F(TimerTexts, ReportsOfManyThreadsAreWhole) {
    static semaphore ran;
    constexpr int turns = 150;
    for (const bool buffered : {true, false}) {
        const child_result result = run_in_child([=] {
            const watchdog limit;
            if (!buffered)
                std::setvbuf(stdout, nullptr, _IONBF, 0);
            const owned_timer clock;
            const auto work = [&] {
                for (int i = 0; i < turns; i++) {
                    timer_start(clock.get(), post_task, &ran, 1 + i % 3);
                    timer_cancel(clock.get(), timer_start(clock.get(), do_nothing, &ran, hour));
                    timer_start(clock.get(), post_task, &ran, 0);
                }
            };
            {
                std::vector<std::jthread> threads;
                for (int i = 0; i < 4; i++)
                    threads.emplace_back(work);
            }
            ran.wait(4 * turns * 2);
            clock.count();
        });
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, id_warning);
        const std::map<std::string, int> all = {{"Add timer task.", 4 * turns * 2},
                                                {"Start timer task.", 4 * turns},
                                                {"Execute timer task.", 4 * turns},
                                                {"Cancel", 4 * turns}};
        EXPECT_EQ(reports_in(result.out), all);
        EXPECT_TRUE(result.out.ends_with('\n'));
    }
}

/* ---- All at once ------------------------------------------------------------------------------
 */

/* Routines that use the timer they run on. */
struct busy_scene {
    timer *clock = nullptr;
    std::atomic<int> endless = -1;
    std::atomic<int> himself = -1;
    std::atomic<int> runs = 0;
    semaphore first_run;

    static busy_scene &of(void *self) { return *static_cast<busy_scene *>(self); }

    static void *tick(void *self) {
        if (of(self).runs++ == 0)
            of(self).first_run.post();
        return nullptr;
    }
    static void *cancel_himself(void *self) {
        timer_cancel(of(self).clock, of(self).himself);
        return tick(self);
    }
    static void *cancel_other(void *self) {
        timer_cancel(of(self).clock, of(self).endless);
        return tick(self);
    }
    static void *schedule_more(void *self) {
        timer_start(of(self).clock, tick, self, 1);
        timer_start(of(self).clock, tick, self, 0);
        timer_schedule(of(self).clock, tick, self, 1, 2, 1);
        return tick(self);
    }
    static void *sleep_long(void *self) {
        tick(self);
        semaphore never;
        never.wait();
        return nullptr;
    }

    void begin() {
        timer_schedule(clock, schedule_more, this, 1, -1, 1);
        himself = timer_schedule(clock, cancel_himself, this, 1, -1, 1);
        endless = timer_schedule(clock, tick, this, 1, -1, 1);
        timer_schedule(clock, cancel_other, this, 2, 2, 1);
        timer_start(clock, sleep_long, this, 1);
        timer_schedule(clock, tick, this, hour, -1, hour);
    }
};

TEST_F(TimerStress, ATimerIsDeletedByAnyOtherThreadWhileItsTasksRun) {
    const std::ptrdiff_t threads = count_threads();
    const int rounds = keel_test::rounds(1000);
    for (int i = 0; i < rounds; i++) {
        busy_scene scene;
        scene.clock = timer_new();
        ASSERT_NE(scene.clock, nullptr);
        scene.begin();
        if (i % 2 == 0)
            scene.first_run.wait();
        spin(static_cast<unsigned>(i * 7919 % 200'000));
        int result = -1;
        std::jthread([&] { result = timer_del(scene.clock); }).join();
        ASSERT_EQ(result, 0);
        if (i % 100 == 0) {
            ASSERT_TRUE(eventually([&] { return count_threads() == threads; })) << i;
        }
    }
}

TEST_F(TimerStress, RoutinesUseTheirTimer) {
    busy_scene scene;
    const owned_timer clock;
    scene.clock = clock.get();
    scene.begin();
    EXPECT_TRUE(eventually([&] { return scene.runs >= 300; }));
    EXPECT_TRUE(clock.is_sound());
    const auto is_gone = [&](int id) {
        return clock.locked([&] { return clock.node_of(id) == nullptr; });
    };
    EXPECT_TRUE(eventually([&] { return is_gone(scene.himself); }));
    EXPECT_TRUE(eventually([&] { return is_gone(scene.endless); }));
}

/* Whoever is cancelled in time never runs; everybody else does, once. */
TEST_F(TimerStress, CancellingRacesWithFiring) {
    constexpr std::size_t each = 1000;
    constexpr std::size_t all = 3 * each;
    const auto runs = std::make_unique<std::array<std::atomic<int>, all>>();
    const owned_timer clock;
    std::array<bool, all> cancelled{};
    const auto work = [&](std::size_t from) {
        std::minstd_rand random(static_cast<unsigned>(from) + 1);
        std::array<int, 4> ids{};
        for (std::size_t i = from; i < from + each; i += ids.size()) {
            for (std::size_t k = 0; k < ids.size(); k++)
                ids[k] = timer_start(clock.get(), count_up, &(*runs)[i + k], 1);
            spin(static_cast<unsigned>(random() % 2'000'000));
            for (std::size_t k = 0; k < ids.size(); k++)
                cancelled[i + k] = timer_cancel(clock.get(), ids[k]) == 0;
        }
    };
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < 3; i++)
            threads.emplace_back(work, i * each);
    }
    EXPECT_TRUE(eventually([&] { return clock.count() == 0; }));
    const auto pending = [&] {
        std::ptrdiff_t missing = 0;
        for (std::size_t i = 0; i < all; i++)
            missing += (cancelled[i] ? 0 : 1) - (*runs)[i];
        return missing;
    };
    EXPECT_TRUE(eventually([&] { return pending() == 0; }));
    for (std::size_t i = 0; i < all; i++)
        ASSERT_EQ((*runs)[i], cancelled[i] ? 0 : 1) << i;
    EXPECT_TRUE(clock.is_sound());
}

TEST_F(TimerStress, TheListIsSoundWhateverHappens) {
    std::atomic<int> runs = 0;
    const owned_timer clock;
    std::atomic<bool> over = false;
    const auto work = [&](unsigned seed) {
        std::minstd_rand numbers(seed);
        const auto random = [&] { return static_cast<int>(numbers() % 1000); };
        std::vector<int> mine;
        while (!over) {
            if (mine.size() < 40) {
                const int times = random() % 3 + 1;
                mine.push_back(timer_schedule(clock.get(), count_up, &runs, 1 + random() % 5,
                                              times == 3 ? -1 : times, 1 + random() % 5));
            } else {
                std::swap(mine[numbers() % mine.size()], mine.back());
                timer_cancel(clock.get(), mine.back());
                mine.pop_back();
            }
        }
        for (const int id : mine)
            timer_cancel(clock.get(), id);
    };
    {
        std::vector<std::jthread> threads;
        for (unsigned seed = 1; seed <= 2; seed++)
            threads.emplace_back(work, seed);
        for (int i = 0; i < 1000 || runs < 100; i++)
            EXPECT_TRUE(clock.is_sound());
        over = true;
    }
    EXPECT_TRUE(clock.is_sound());
}

} // namespace

/* SPDX-License-Identifier: MIT */
#include "xtime.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "leaves_nothing.h"
#include "waiting.h"

namespace {

using keel_test::child_result;
using keel_test::eventually;
using keel_test::LeavesNothing;
using keel_test::run_in_child;
using keel_test::sanitized;
using std::string;

constexpr char remark[] =
    "This is an id producer with binding, no argument auto free function warning.\n";
constexpr std::int64_t an_hour = 3'600'000;

using Timer = LeavesNothing;

struct owned_timer {
    ~owned_timer() { EXPECT_EQ(clock->del(clock), 0); }
    timer *operator->() const { return clock; }
    timer *clock = timer_new();
};

keel_test::semaphore ran;

void *note(void *) {
    ran.post();
    return nullptr;
}

void *nothing(void *) {
    return nullptr;
}

/* The identifiers of the scheduled tasks, in their order. Checks the list's links on the way. */
std::vector<int> order_of(timer *clock) {
    std::vector<int> ids;
    pthread_mutex_lock(&clock->lock);
    const timer_node *before = nullptr;
    for (timer_node *node = clock->tasks->head; node != nullptr; node = node->next) {
        EXPECT_EQ(node->prev, before);
        EXPECT_EQ(clock->ids->args[node->data->id], node);
        EXPECT_EQ(node->data->timer, clock);
        ids.push_back(node->data->id);
        before = node;
    }
    EXPECT_EQ(clock->tasks->tail, before);
    EXPECT_EQ(clock->tasks->count, ids.size());
    EXPECT_EQ(clock->ready->count, 0U);
    pthread_mutex_unlock(&clock->lock);
    return ids;
}

TEST_F(Timer, StartsWithWhatItNeeds) {
    const owned_timer clock;
    ASSERT_NE(clock.clock, nullptr);
    EXPECT_EQ(clock->start, timer_start);
    EXPECT_EQ(clock->schedule, timer_schedule);
    EXPECT_EQ(clock->cancel, timer_cancel);
    EXPECT_EQ(clock->del, timer_del);
    EXPECT_EQ(clock->ready->compare, nullptr);
    EXPECT_EQ(clock->tasks->compare, timertask_sort);
    for (const timer_list *list : {clock->ready, clock->tasks}) {
        EXPECT_EQ(list->destroy, timertask_del);
        EXPECT_EQ(list->copy, nullptr);
    }
    EXPECT_NE(clock->ids->args, nullptr);
    EXPECT_EQ(clock->ids->arg_free, nullptr);
    EXPECT_EQ(clock->thread->routine, timer_run);
    EXPECT_EQ(clock->thread->arg, clock.clock);
    EXPECT_EQ(clock->pool->pool.min, 10U);
    EXPECT_EQ(clock->pool->pool.max, 20U);
    EXPECT_EQ(clock->pool->queue->fifo->step, 100U);
    EXPECT_EQ(clock->pool->queue->fifo->max, 32788U);
}

TEST_F(Timer, RecordsKeepTheirFieldsInOrder) {
    const std::size_t task[] = {offsetof(timertask, start_routine), offsetof(timertask, arg),
                                offsetof(timertask, sec),           offsetof(timertask, nsec),
                                offsetof(timertask, due),           offsetof(timertask, timer),
                                offsetof(timertask, msec),          offsetof(timertask, times),
                                offsetof(timertask, gap),           offsetof(timertask, id)};
    const std::size_t expected[] = {0, 8, 16, 24, 32, 64, 72, 80, 88, 96};
    for (std::size_t i = 0; i < std::size(task); i++)
        EXPECT_EQ(task[i], expected[i]) << i;
    EXPECT_EQ(offsetof(timer_list, tail), 8U);
    EXPECT_EQ(offsetof(timer_list, count), 16U);
    EXPECT_EQ(offsetof(timer_list, destroy), 24U);
    EXPECT_EQ(offsetof(timer_list, copy), 32U);
    EXPECT_EQ(offsetof(timer_list, compare), 40U);
    EXPECT_EQ(offsetof(timer_node, next), 8U);
    EXPECT_EQ(offsetof(timer_node, data), 16U);
}

TEST_F(Timer, RefusesWhatCannotBeScheduled) {
    const owned_timer clock;
    const struct {
        thread_routine routine;
        std::int64_t msec;
        std::int32_t times;
        std::int64_t gap;
        bool accepted;
    } rows[] = {
        {nullptr, an_hour, 1, 0, false},  {nothing, 0, 1, 0, false},
        {nothing, -1, 1, 0, false},       {nothing, INT64_MIN, 1, 0, false},
        {nothing, an_hour, 0, 1, false},  {nothing, an_hour, -2, 1, false},
        {nothing, an_hour, 3, 0, false},  {nothing, an_hour, 2, -1, false},
        {nothing, an_hour, -1, 0, false}, {nothing, an_hour, 1, 0, true},
        {nothing, an_hour, 1, -1, true},  {nothing, an_hour, 2, 1, true},
        {nothing, an_hour, -1, 1, true},  {nothing, INT64_MAX, 1, 0, true},
    };
    int accepted = 0;
    for (const auto &row : rows) {
        const int id =
            timer_schedule(clock.clock, row.routine, nullptr, row.msec, row.times, row.gap);
        EXPECT_EQ(id, row.accepted ? accepted : -1)
            << row.msec << " " << row.times << " " << row.gap;
        accepted += row.accepted ? 1 : 0;
    }
    EXPECT_EQ(timer_schedule(nullptr, nothing, nullptr, 1, 1, 0), -1);
    EXPECT_EQ(timer_start(nullptr, nothing, nullptr, 1), -1);
    EXPECT_EQ(timer_start(nullptr, nothing, nullptr, 0), -1);
    EXPECT_EQ(timer_start(clock.clock, nullptr, nullptr, 0), -1);
    EXPECT_EQ(timer_start(clock.clock, nothing, nullptr, -5), -1);
    EXPECT_EQ(timer_exec(nullptr, nothing, nullptr), -1);
    EXPECT_EQ(timer_exec(clock.clock, nullptr, nullptr), -1);
    EXPECT_EQ(timer_cancel(nullptr, 0), -1);
    for (const int id : {-1, 32768, INT32_MAX, INT32_MIN, 32767, accepted})
        EXPECT_EQ(timer_cancel(clock.clock, id), -1) << id;
    EXPECT_EQ(timer_del(nullptr), -1);
    EXPECT_EQ(order_of(clock.clock).size(), static_cast<std::size_t>(accepted));
}

TEST_F(Timer, ATaskKnowsWhatItIs) {
    const owned_timer clock;
    timespec before{};
    clock_gettime(CLOCK_REALTIME, &before);
    int argument = 0;
    ASSERT_EQ(clock->schedule(clock.clock, nothing, &argument, 90'061'500, 5, 250), 0);
    timespec after{};
    clock_gettime(CLOCK_REALTIME, &after);
    pthread_mutex_lock(&clock->lock);
    const timertask &task = *clock->tasks->head->data;
    EXPECT_EQ(task.start_routine, nothing);
    EXPECT_EQ(task.arg, &argument);
    EXPECT_EQ(task.msec, 90'061'500);
    EXPECT_EQ(task.times, 5);
    EXPECT_EQ(task.gap, 250);
    EXPECT_EQ(task.id, 0);
    const auto nanoseconds = [](std::int64_t sec, std::int64_t nsec) {
        return sec * 1'000'000'000 + nsec;
    };
    const std::int64_t due = nanoseconds(task.sec, task.nsec) - 90'061'500'000'000;
    EXPECT_GE(task.nsec, 0);
    EXPECT_LT(task.nsec, 1'000'000'000);
    EXPECT_GE(due, nanoseconds(before.tv_sec, before.tv_nsec));
    EXPECT_LE(due, nanoseconds(after.tv_sec, after.tv_nsec));
    tm fields{};
    localtime_r(&task.sec, &fields);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%F %T", &fields);
    std::snprintf(text + length, sizeof text - length, ".%.3d",
                  static_cast<int>(task.nsec / 1'000'000));
    EXPECT_STREQ(task.due, text);
    pthread_mutex_unlock(&clock->lock);
}

TEST_F(Timer, TheLongestDelayStillHasAText) {
    const owned_timer clock;
    ASSERT_EQ(clock->schedule(clock.clock, nothing, nullptr, INT64_MAX, 1, 0), 0);
    pthread_mutex_lock(&clock->lock);
    const string due = clock->tasks->head->data->due;
    pthread_mutex_unlock(&clock->lock);
    EXPECT_TRUE(std::regex_match(due, std::regex("29227\\d{4}-\\d\\d-\\d\\d [0-9:]{8}\\.\\d{3}")))
        << due;
}

TEST_F(Timer, OrdersByDueTime) {
    const struct {
        std::int64_t a_sec, a_nsec, b_sec, b_nsec;
        std::int32_t expected;
    } rows[] = {
        {5, 0, 5, 0, 0},
        {5, 0, 7, 0, -2},
        {7, 0, 5, 999'999'999, 2},
        {5, 10, 5, 30, -20},
        {5, 999'999'999, 5, 0, 999'999'999},
        {0x80000000, 0, 0, 0, INT32_MIN}, // 68 years apart: the wrong way round
        {0, 0, 0x80000000, 0, INT32_MIN},
        {0x100000000, 0, 0, 0, 0},
    };
    for (const auto &row : rows) {
        timertask a{};
        timertask b{};
        a.sec = row.a_sec;
        a.nsec = row.a_nsec;
        b.sec = row.b_sec;
        b.nsec = row.b_nsec;
        timertask *left = &a;
        timertask *right = &b;
        EXPECT_EQ(timertask_sort(&left, &right), row.expected) << row.a_sec << " " << row.b_sec;
    }
}

TEST_F(Timer, RunsAsOftenAsAsked) {
    const owned_timer clock;
    const int id = clock->schedule(clock.clock, note, nullptr, 1, 3, 1);
    ASSERT_EQ(id, 0);
    ran.wait(3);
    EXPECT_TRUE(eventually([&] { return order_of(clock.clock).empty(); }));
    EXPECT_EQ(clock->cancel(clock.clock, id), -1);
    EXPECT_EQ(clock->ids->free, 32768U);
}

TEST_F(Timer, ATaskWithoutEndKeepsItsIdentifier) {
    const owned_timer clock;
    const int id = clock->schedule(clock.clock, note, nullptr, 1, -1, 1);
    ran.wait(20);
    EXPECT_EQ(order_of(clock.clock), std::vector<int>{id});
    EXPECT_EQ(clock->cancel(clock.clock, id), 0);
    EXPECT_EQ(clock->cancel(clock.clock, id), -1);
    EXPECT_EQ(order_of(clock.clock), std::vector<int>{});
}

TEST_F(Timer, RunsAtOnceWithoutADelay) {
    const owned_timer clock;
    EXPECT_EQ(clock->start(clock.clock, note, nullptr, 0), 0);
    EXPECT_EQ(clock->start(clock.clock, note, nullptr, 0), 0) << "no identifier";
    EXPECT_EQ(clock->start(clock.clock, note, nullptr, 1), 0) << "the first identifier";
    ran.wait(3);
}

TEST_F(Timer, AnEarlierTaskWakesItsThread) {
    const owned_timer clock;
    clock->schedule(clock.clock, nothing, nullptr, an_hour, 1, 0);
    clock->schedule(clock.clock, note, nullptr, 20, 1, 0);
    ran.wait();
    EXPECT_EQ(order_of(clock.clock), std::vector<int>{0});
}

TEST_F(Timer, RefusesTheTaskBeyondItsIdentifiers) {
    const child_result result = run_in_child([] {
        std::freopen("/dev/null", "w", stdout);
        timer *clock = timer_new();
        for (int i = 0; i < 32768; i++)
            if (clock->schedule(clock, nothing, nullptr, an_hour + i, 1, 0) != i)
                _exit(1);
        if (clock->schedule(clock, nothing, nullptr, an_hour, 1, 0) != -1 ||
            clock->cancel(clock, 100) != 0 ||
            clock->schedule(clock, nothing, nullptr, an_hour, 1, 0) != 100)
            _exit(2);
        clock->del(clock);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, string(remark) + "timertask_new : There has no timer id now.\n");
}

string address(const void *pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%lX", reinterpret_cast<unsigned long>(pointer));
    return text;
}

TEST_F(Timer, ReportsWhatItDoes) {
    static int argument;
    static keel_test::semaphore done;
    const thread_routine routine = [](void *) -> void * {
        done.post();
        return nullptr;
    };
    const child_result result = run_in_child([=] {
        timer *clock = timer_new();
        clock->start(clock, routine, &argument, 0);
        done.wait();
        clock->schedule(clock, routine, nullptr, an_hour, -1, 77);
        clock->cancel(clock, 0);
        clock->schedule(clock, routine, &argument, 1, 1, 0);
        done.wait();
        eventually([&] { return order_of(clock).empty(); });
        clock->del(clock);
    });
    const string where = "start_routine = " + address(reinterpret_cast<const void *>(routine)) +
                         "\narg           = ";
    const string with_argument = where + address(&argument) + "\n";
    EXPECT_EQ(result.err, remark);
    const string add = "Add timer task.\nid            = 1\ntimes         = 1\nmsec          = 1\n"
                       "gap           = 0\n" +
                       with_argument;
    const string start = "Start timer task.\nid            = 1\n" + with_argument;
    const string before = "Execute timer task.\n" + with_argument +
                          "Add timer task.\nid            = 0\ntimes         = -1\n"
                          "msec          = 3600000\ngap           = 77\n" +
                          where + "0x0\nCancel timer task(0).\n";
    /* The task may run before its scheduling is reported. */
    EXPECT_TRUE(result.out == before + add + start || result.out == before + start + add)
        << result.out;
}

/* A pool that refuses. */
int refuse(threadpool *, thread_routine, void *) {
    return -1;
}

TEST_F(Timer, ARefusedRunCountsAllTheSame) {
    const child_result result = run_in_child([] {
        std::freopen("/dev/null", "w", stdout);
        timer *clock = timer_new();
        pthread_mutex_lock(&clock->lock);
        clock->pool->exec = refuse;
        pthread_mutex_unlock(&clock->lock);
        if (clock->start(clock, nothing, nullptr, 0) != -1)
            _exit(1);
        clock->schedule(clock, nothing, nullptr, 1, 2, 1);
        eventually([&] { return order_of(clock).empty(); });
        clock->del(clock);
    });
    EXPECT_EQ(result.status, 0);
    const string line = "timer_run : can't execute timer task.\n";
    EXPECT_EQ(result.err, remark + line + line);
}

/* What the pool was handed, in order. The timer's thread calls it with the lock held. */
std::vector<void *> handed;

int keep(threadpool *, thread_routine, void *arg) {
    handed.push_back(arg);
    return 0;
}

TEST_F(Timer, TheNewestOfEqualTasksGoesFirst) {
    const owned_timer clock;
    handed.clear();
    int arguments[5];
    pthread_mutex_lock(&clock->lock);
    clock->pool->exec = keep;
    pthread_mutex_unlock(&clock->lock);
    for (int &argument : arguments)
        clock->schedule(clock.clock, nothing, &argument, an_hour, 1, 0);
    std::vector<void *> expected;
    pthread_mutex_lock(&clock->lock);
    for (timer_node *node = clock->tasks->head; node != nullptr; node = node->next)
        node->data->sec = node->data->nsec = 0; // all are due
    for (timer_node *node = clock->tasks->head; node != nullptr; node = node->next)
        expected.push_back(node->data->arg);
    pthread_cond_signal(&clock->wakeup);
    pthread_mutex_unlock(&clock->lock);
    EXPECT_TRUE(eventually([&] { return order_of(clock.clock).empty(); }));
    EXPECT_EQ(handed, expected);
}

/* ---- Load -------------------------------------------------------------------------------------
 */

TEST_F(Timer, KeepsThePlainOrderThroughAnyChanges) {
    const owned_timer clock;
    std::mt19937 random(11);
    std::vector<int> live;
    for (int i = 0; i < 20'000; i++) {
        if (live.empty() || random() % 3 != 0) {
            live.push_back(clock->schedule(clock.clock, nothing, nullptr,
                                           an_hour + static_cast<int>(random() % 50), 1, 0));
        } else {
            const std::size_t victim = random() % live.size();
            ASSERT_EQ(clock->cancel(clock.clock, live[victim]), 0);
            live.erase(live.begin() + static_cast<std::ptrdiff_t>(victim));
        }
    }
    EXPECT_EQ(order_of(clock.clock).size(), live.size());
    pthread_mutex_lock(&clock->lock);
    for (timer_node *node = clock->tasks->head; node->next != nullptr; node = node->next)
        EXPECT_LE(timertask_sort(&node->data, &node->next->data), 0);
    pthread_mutex_unlock(&clock->lock);
}

TEST_F(Timer, IsDeletedWhileItsTasksRun) {
    const int rounds = sanitized ? 150 : 1'000;
    for (int round = 0; round < rounds; round++) {
        timer *clock = timer_new();
        ASSERT_NE(clock, nullptr);
        for (int i = 0; i < 8; i++)
            clock->schedule(clock, nothing, nullptr, 1 + i % 3, -1, 1);
        keel_test::spin(static_cast<unsigned>(round) * 3'000U % 4'000'000U);
        std::thread([=] { EXPECT_EQ(clock->del(clock), 0); }).join();
    }
}

TEST_F(Timer, TasksScheduleAndCancelOthers) {
    static std::atomic<timer *> shared;
    static std::atomic<int> runs;
    runs = 0;
    const owned_timer clock;
    shared = clock.clock;
    const thread_routine busy = [](void *) -> void * {
        const int number = runs++;
        const int id = timer_schedule(shared, nothing, nullptr, 1 + number % 5, 2, 1);
        timer_cancel(shared, (id + number * 7) % 64);
        timer_cancel(shared, id);
        return nullptr;
    };
    std::vector<std::jthread> others;
    for (int t = 0; t < 3; t++)
        others.emplace_back([&, busy] {
            for (int i = 0; i < 1'000; i++) {
                const int id = clock->schedule(clock.clock, busy, nullptr, 1 + i % 4, 3, 1);
                if (i % 2 == 0)
                    clock->cancel(clock.clock, id);
            }
        });
    others.clear();
    EXPECT_TRUE(eventually([&] { return order_of(clock.clock).empty(); }));
    EXPECT_GT(runs, 0);
    pthread_mutex_lock(&clock->lock);
    EXPECT_EQ(clock->ids->free, 32768U);
    pthread_mutex_unlock(&clock->lock);
}

TEST_F(Timer, ReportsAreWholeAlsoFromManyThreads) {
    const child_result result = run_in_child([] {
        timer *clock = timer_new();
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; t++)
            threads.emplace_back([=] {
                for (int i = 0; i < 500; i++)
                    clock->cancel(clock, clock->schedule(clock, nothing, nullptr, an_hour, 1, 0));
            });
        threads.clear();
        clock->del(clock);
    });
    const std::regex report("Add timer task\\.\nid            = \\d+\ntimes         = 1\n"
                            "msec          = 3600000\ngap           = 0\n"
                            "start_routine = 0x[0-9A-F]+\narg           = 0x0\n|"
                            "Cancel timer task\\(\\d+\\)\\.\n");
    int reports = 0;
    for (string::const_iterator at = result.out.begin(); at != result.out.end(); reports++) {
        std::smatch match;
        ASSERT_TRUE(std::regex_search(at, result.out.end(), match, report,
                                      std::regex_constants::match_continuous));
        at = match[0].second;
    }
    EXPECT_EQ(reports, 4'000);
}

} // namespace

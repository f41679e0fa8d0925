/* SPDX-License-Identifier: MIT */
#include "xtime.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <new>
#include <pthread.h>
#include <random>
#include <semaphore.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "allocation_faults.h"
#include "child.h"
#include "explained.h"
#include "threads.h"
#include "timers.h"
#include "waiting.h"
#include "workers.h"

/* The stand-ins below tell the time, watch the timer's thread sleep, and refuse what they are told
 * to. */
namespace {

constexpr std::int64_t millisecond = 1'000'000; // nanoseconds
constexpr std::int64_t second = 1000 * millisecond;

/* Nanoseconds since the epoch; 0: the system's own time. */
std::atomic<std::int64_t> time_told;

/* The timer's thread, as its condition sees it. */
struct {
    std::atomic<pthread_cond_t *> condition = nullptr;
    std::atomic<int> sleeps = 0; // begun, under the lock
    std::atomic<int> signals = 0;
    std::atomic<std::int64_t> deadline = 0; // nanoseconds; -1: none

    void note(const pthread_cond_t *which, std::int64_t until) {
        if (which != condition)
            return;
        deadline = until;
        sleeps++;
    }
} sleeper;

enum call { mutex_init, cond_init, sem_init_, attr_init_, create, calls };

struct {
    std::array<std::atomic<int>, calls> made{};
    std::atomic<int> refused = calls;
    std::atomic<int> turn = 0;                       // which call of them; 0: each
    std::array<std::atomic<const void *>, 256> kept; // what was made and not undone yet

    void refuse(call which, int at) {
        for (std::atomic<int> &count : made)
            count = 0;
        for (std::atomic<const void *> &place : kept)
            place = nullptr;
        refused = which;
        turn = at;
    }

    bool refuses(call which, const void *object) {
        const int now = ++made[which];
        if (which == refused && (turn == 0 || turn == now))
            return true;
        replace(nullptr, object);
        return false;
    }

    /* There are those that nobody made by a call. */
    void undo(const void *object) { replace(object, nullptr); }

    bool all_undone() const {
        return std::all_of(kept.begin(), kept.end(),
                           [](const auto &place) { return place == nullptr; });
    }

  private:
    void replace(const void *former, const void *now) {
        for (std::atomic<const void *> &place : kept)
            if (const void *expected = former; place.compare_exchange_strong(expected, now))
                return;
    }
} system_;

} // namespace

extern "C" {                          // NOLINTBEGIN: the linker's names
void *__wrap__Znwm(std::size_t size); // operator new
int __wrap_clock_gettime(clockid_t clock, timespec *time);
int __wrap_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *mutex);
int __wrap_pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                  const timespec *deadline);
int __wrap_pthread_cond_signal(pthread_cond_t *condition);
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __wrap_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes);
int __wrap_pthread_cond_destroy(pthread_cond_t *condition);
int __wrap_sem_init(sem_t *semaphore, int shared, unsigned value);
int __wrap_sem_destroy(sem_t *semaphore);
int __wrap_pthread_attr_init(pthread_attr_t *attributes);
int __wrap_pthread_attr_destroy(pthread_attr_t *attributes);
int __wrap_pthread_create(pthread_t *handle, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument);

void *__real__Znwm(std::size_t size);
int __real_clock_gettime(clockid_t clock, timespec *time);
int __real_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *mutex);
int __real_pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                  const timespec *deadline);
int __real_pthread_cond_signal(pthread_cond_t *condition);
int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __real_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes);
int __real_pthread_cond_destroy(pthread_cond_t *condition);
int __real_sem_init(sem_t *semaphore, int shared, unsigned value);
int __real_sem_destroy(sem_t *semaphore);
int __real_pthread_attr_init(pthread_attr_t *attributes);
int __real_pthread_attr_destroy(pthread_attr_t *attributes);
int __real_pthread_create(pthread_t *handle, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument);

void *__wrap__Znwm(std::size_t size) {
    if (keel_test::allocation_fails())
        throw std::bad_alloc();
    return __real__Znwm(size);
}

int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    const std::int64_t told = time_told;
    if (clock != CLOCK_REALTIME || told == 0)
        return __real_clock_gettime(clock, time);
    *time = {told / second, told % second};
    return 0;
}

int __wrap_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *mutex) {
    sleeper.note(condition, -1);
    return __real_pthread_cond_wait(condition, mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                  const timespec *deadline) {
    sleeper.note(condition, deadline->tv_sec * second + deadline->tv_nsec);
    return __real_pthread_cond_timedwait(condition, mutex, deadline);
}

int __wrap_pthread_cond_signal(pthread_cond_t *condition) {
    if (condition == sleeper.condition)
        sleeper.signals++;
    return __real_pthread_cond_signal(condition);
}

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
    return system_.refuses(mutex_init, mutex) ? ENOMEM
                                              : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex) {
    system_.undo(mutex);
    return __real_pthread_mutex_destroy(mutex);
}

int __wrap_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes) {
    return system_.refuses(cond_init, condition) ? ENOMEM
                                                 : __real_pthread_cond_init(condition, attributes);
}

int __wrap_pthread_cond_destroy(pthread_cond_t *condition) {
    system_.undo(condition);
    return __real_pthread_cond_destroy(condition);
}

int __wrap_sem_init(sem_t *semaphore, int shared, unsigned value) {
    if (!system_.refuses(sem_init_, semaphore))
        return __real_sem_init(semaphore, shared, value);
    errno = ENOSPC;
    return -1;
}

int __wrap_sem_destroy(sem_t *semaphore) {
    system_.undo(semaphore);
    return __real_sem_destroy(semaphore);
}

int __wrap_pthread_attr_init(pthread_attr_t *attributes) {
    return system_.refuses(attr_init_, attributes) ? ENOMEM : __real_pthread_attr_init(attributes);
}

int __wrap_pthread_attr_destroy(pthread_attr_t *attributes) {
    system_.undo(attributes);
    return __real_pthread_attr_destroy(attributes);
}

int __wrap_pthread_create(pthread_t *handle, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument) {
    return system_.refuses(create, nullptr)
               ? EAGAIN
               : __real_pthread_create(handle, attributes, routine, argument);
}
} // NOLINTEND

namespace {

using keel_test::add_text;
using keel_test::child_result;
using keel_test::eventually;
using keel_test::exited;
using keel_test::explained;
using keel_test::failing_allocation;
using keel_test::hour;
using keel_test::id_warning;
using keel_test::number;
using keel_test::owned_timer;
using keel_test::post_task;
using keel_test::run_in_child;
using keel_test::text_of;
using keel_test::value_of;
using keel_test::watchdog;

void *do_nothing(void *arg) {
    return arg;
}

/* A timer whose time is told, and passes only when it is said to. It lies far ahead of the system's
 * own, by which the timer's thread sleeps: that never wakes by itself. */
class told_timer : public owned_timer {
  public:
    explicit told_timer(std::int64_t begin = 4'000'000'000 * second) {
        time_told = begin;
        sleeper.sleeps = 0;
        sleeper.signals = 0;
        sleeper.condition = &get()->wakeup;
        hand_over_to([this](thread_routine, void *arg) { return take(arg); });
    }
    ~told_timer() {
        del();
        sleeper.condition = nullptr;
        time_told = 0;
    }

    /* What happens at each run, on the timer's thread, and what exec() gives. */
    std::function<int()> at_run = [] { return 0; };

    /* How long each run takes to hand over. */
    std::int64_t hand_over_time = 0;

    /* Lets time pass, and the timer's thread do what is to be done, until it sleeps again. */
    bool pass(std::int64_t nanoseconds) {
        const int before = locked([&] {
            time_told += nanoseconds;
            __real_pthread_cond_signal(&get()->wakeup);
            return sleeper.sleeps.load();
        });
        return eventually([&] { return sleeper.sleeps > before; });
    }

    /* The arguments of the runs so far. */
    std::vector<std::uintptr_t> runs() {
        return locked([&] { return std::exchange(runs_, {}); });
    }

    int schedule(std::uintptr_t arg, std::int64_t msec, std::int32_t times = 1,
                 std::int64_t gap = 0) {
        return timer_schedule(get(), do_nothing, number(arg), msec, times, gap);
    }

  private:
    int take(void *arg) {
        runs_.push_back(reinterpret_cast<std::uintptr_t>(arg));
        time_told += hand_over_time;
        return at_run();
    }

    std::vector<std::uintptr_t> runs_;
};

using runs = std::vector<std::uintptr_t>;

using TimersAtATime = keel_test::Timers;
using TimerFaults = TimersAtATime;
using TimerTexts = keel_test::LeavesNothing;

/* ---- Due times --------------------------------------------------------------------------------
 */

TEST_F(TimersAtATime, DueTimesHaveWholeSecondsAndTheRest) {
    const struct {
        std::int64_t sec, nsec, msec, due_sec, due_nsec;
    } rows[] = {
        {4'000'000'000, 0, 1, 4'000'000'000, 1'000'000},
        {4'000'000'000, 0, 999, 4'000'000'000, 999'000'000},
        {4'000'000'000, 0, 1000, 4'000'000'001, 0},
        {4'000'000'000, 999'999'999, 1, 4'000'000'001, 999'999},
        {4'000'000'000, 998'999'999, 1, 4'000'000'000, 999'999'999},
        {4'000'000'000, 999'000'000, 1, 4'000'000'001, 0},
        {4'000'000'000, 999'999'999, 999, 4'000'000'001, 998'999'999},
        {4'000'000'000, 500'000'000, 61'500, 4'000'000'062, 0},
        {4'000'000'000, 1, INT64_MAX, 9'223'376'036'854'775, 807'000'001},
    };
    for (const auto &row : rows) {
        told_timer clock(row.sec * second + row.nsec);
        const timertask task = clock.task(clock.schedule(1, row.msec));
        EXPECT_EQ(task.sec, row.due_sec) << row.msec;
        EXPECT_EQ(task.nsec, row.due_nsec) << row.msec;
        EXPECT_EQ(task.due, text_of(row.due_sec, row.due_nsec));
    }
}

TEST_F(TimerTexts, TheDueTimesTextIsInLocalTime) {
    const struct {
        const char *zone;
        std::string due;
    } rows[] = {
        {"UTC0", "2024-03-05 14:07:09.042"},
        {"ABC-5:30", "2024-03-05 19:37:09.042"},
        {"ABC11", "2024-03-05 03:07:09.042"},
        {"ABC-14", "2024-03-06 04:07:09.042"},
    };
    for (const auto &row : rows) {
        const child_result result = run_in_child([&] {
            const watchdog limit;
            setenv("TZ", row.zone, 1);
            tzset();
            const owned_timer clock;
            timertask *task = clock.locked([&] {
                time_told = 1'709'647'628'043 * millisecond - 1; // the rest is cut off, not rounded
                timertask *made = timertask_new(clock.get(), do_nothing, nullptr, 1000, 1, 0);
                time_told = 0;
                return made;
            });
            if (task->due != row.due)
                _exit(1);
        });
        EXPECT_EQ(result, exited(0, id_warning)) << row.zone;
    }
}

/* ---- Rounds -----------------------------------------------------------------------------------
 */

TEST_F(TimersAtATime, OfTasksDueAtTheSameMomentTheNewestIsFirst) {
    told_timer clock;
    for (std::uintptr_t arg = 1; arg <= 5; arg++)
        clock.schedule(arg, 10);
    clock.schedule(6, 9);
    clock.schedule(7, 11);
    EXPECT_EQ(clock.ids(), (std::vector<int>{5, 4, 3, 2, 1, 0, 6}));
    ASSERT_TRUE(clock.pass(9 * millisecond - 1));
    EXPECT_EQ(clock.runs(), runs{});
    ASSERT_TRUE(clock.pass(1));
    EXPECT_EQ(clock.runs(), runs{6}) << "what is due now is due";
    ASSERT_TRUE(clock.pass(millisecond));
    EXPECT_EQ(clock.runs(), (runs{5, 4, 3, 2, 1}));
    ASSERT_TRUE(clock.pass(hour * millisecond));
    EXPECT_EQ(clock.runs(), runs{7});
    EXPECT_EQ(clock.count(), 0U);
}

TEST_F(TimersAtATime, TasksAgainDueTogetherChangePlaces) {
    told_timer clock;
    for (std::uintptr_t arg = 1; arg <= 3; arg++)
        clock.schedule(arg, 10, -1, 5);
    ASSERT_TRUE(clock.pass(10 * millisecond));
    EXPECT_EQ(clock.runs(), (runs{3, 2, 1}));
    EXPECT_EQ(clock.ids(), (std::vector<int>{0, 1, 2})) << "the last one back is the newest";
    ASSERT_TRUE(clock.pass(5 * millisecond));
    EXPECT_EQ(clock.runs(), (runs{1, 2, 3}));
}

TEST_F(TimersAtATime, ARepeatedTaskDriftsByWhatItIsLate) {
    told_timer clock;
    clock.hand_over_time = 30 * millisecond;
    const std::int64_t begin = time_told;
    const int id = clock.schedule(1, 10, 3, 100);
    timer_node *node = clock.locked([&] { return clock.node_of(id); });
    ASSERT_TRUE(clock.pass(17 * millisecond)); // 7 late, 30 for the hand-over
    EXPECT_EQ(clock.runs(), runs{1});
    const timertask task = clock.task(id);
    EXPECT_EQ(task.sec * second + task.nsec, begin + (17 + 30 + 100) * millisecond);
    EXPECT_EQ(task.due, text_of(task.sec, task.nsec));
    EXPECT_EQ(task.times, 2);
    EXPECT_EQ(task.msec, 10);
    EXPECT_EQ(clock.locked([&] { return clock.node_of(id); }), node);
    EXPECT_EQ(sleeper.deadline, task.sec * second + task.nsec) << "it sleeps until then";
    EXPECT_TRUE(clock.is_sound());
    ASSERT_TRUE(clock.pass(hour * millisecond));
    EXPECT_EQ(clock.runs(), runs{1}) << "what was missed is not made up for";
}

/* The hand-over takes longer than the gap: both are due again before the round is over. */
TEST_F(TimersAtATime, ATaskRunsOnceARound) {
    told_timer clock;
    clock.hand_over_time = 5 * millisecond;
    std::vector<std::uint64_t> set_aside;
    clock.at_run = [&] {
        set_aside.push_back(clock->ready->count);
        EXPECT_EQ(clock->tasks->count + clock->ready->count, set_aside.size() <= 5 ? 2U : 1U);
        return 0;
    };
    clock.schedule(1, 10, 3, 1);
    clock.schedule(2, 10, 3, 1);
    ASSERT_TRUE(clock.pass(10 * millisecond));
    EXPECT_EQ(clock.runs(), (runs{2, 1, 2, 1, 2, 1}));
    EXPECT_EQ(set_aside, (std::vector<std::uint64_t>{0, 1, 0, 1, 0, 0})) << "three rounds";
    EXPECT_EQ(clock.count(), 0U);
    EXPECT_TRUE(clock.is_sound());
}

TEST_F(TimersAtATime, ARoundEndsAtTheFirstTaskThatIsNotDue) {
    told_timer clock;
    for (std::uintptr_t arg = 1; arg <= 4; arg++)
        clock.schedule(arg, static_cast<std::int64_t>(arg));
    ASSERT_TRUE(clock.pass(2 * millisecond));
    EXPECT_EQ(clock.runs(), (runs{1, 2}));
    EXPECT_EQ(clock.ids(), (std::vector<int>{2, 3}));
}

TEST_F(TimersAtATime, ARefusedRunCounts) {
    told_timer clock;
    clock.at_run = [] { return -1; };
    const int id = clock.schedule(1, 1, 2, 1);
    ASSERT_TRUE(clock.pass(millisecond));
    EXPECT_EQ(clock.task(id).times, 1);
    ASSERT_TRUE(clock.pass(millisecond));
    EXPECT_EQ(clock.runs(), (runs{1, 1}));
    EXPECT_EQ(clock.count(), 0U);
    EXPECT_TRUE(clock.is_sound()) << "its identifier is free again";
}

/* ---- The thread's sleep -----------------------------------------------------------------------
 */

TEST_F(TimersAtATime, TheThreadSleepsUntilTheEarliestTaskIsDue) {
    told_timer clock;
    ASSERT_TRUE(clock.pass(0));
    EXPECT_EQ(sleeper.deadline, -1) << "there is none";
    const std::int64_t now = time_told;
    const struct {
        std::int64_t msec, earliest;
        bool wakes;
    } rows[] = {
        {500, 500, true},  {900, 500, false}, {501, 500, false}, {300, 300, true},
        {400, 300, false}, {300, 300, true},  {1, 1, true},
    };
    for (const auto &row : rows) {
        const int slept = sleeper.sleeps;
        const int signalled = sleeper.signals;
        ASSERT_GE(clock.schedule(1, row.msec), 0);
        EXPECT_EQ(sleeper.signals - signalled, row.wakes ? 1 : 0) << row.msec;
        if (row.wakes) {
            EXPECT_TRUE(eventually([&] { return sleeper.sleeps > slept; }));
        }
        EXPECT_EQ(sleeper.deadline, now + row.earliest * millisecond) << row.msec;
    }
    EXPECT_EQ(clock.runs(), runs{});
}

/* ---- The list beside a plain walk -------------------------------------------------------------
 */

/* What a timer does, said plainly. */
class plain_timer {
  public:
    void schedule(timertask task) {
        set_due(task, task.msec);
        insert(task);
    }

    bool cancel(int id) {
        return std::erase_if(tasks, [=](const timertask &task) { return task.id == id; }) == 1;
    }

    void pass(std::int64_t nanoseconds, runs &done) {
        now += nanoseconds;
        std::vector<timertask> ready;
        while (!tasks.empty() && due(tasks[0]) <= now) {
            timertask task = tasks[0];
            tasks.erase(tasks.begin());
            done.push_back(reinterpret_cast<std::uintptr_t>(task.arg));
            if (task.times != -1 && --task.times == 0)
                continue;
            set_due(task, task.gap);
            ready.push_back(task);
        }
        for (const timertask &task : ready)
            insert(task);
    }

    static std::int64_t due(const timertask &task) { return task.sec * second + task.nsec; }

    std::int64_t now = time_told;
    std::vector<timertask> tasks;

  private:
    void set_due(timertask &task, std::int64_t milliseconds) const {
        task.sec = (now + milliseconds * millisecond) / second;
        task.nsec = (now + milliseconds * millisecond) % second;
    }

    void insert(timertask task) {
        std::size_t i = 0;
        for (; i < tasks.size(); i++) {
            timertask *one = &task;
            timertask *other = &tasks[i];
            if (timertask_sort(&one, &other) <= 0)
                break;
        }
        tasks.insert(tasks.begin() + static_cast<std::ptrdiff_t>(i), task);
    }
};

bool is_same(const timertask &a, const timertask &b) {
    return a.id == b.id && a.arg == b.arg && a.sec == b.sec && a.nsec == b.nsec &&
           a.times == b.times;
}

TEST_F(TimersAtATime, TheListIsThatOfAPlainWalk) {
    constexpr std::array<std::int64_t, 8> delays = {1, 1, 2, 3, 4, 999, 1000, hour};
    constexpr std::array<std::int64_t, 4> gaps = {1, 2, 3, 1000};
    constexpr std::array<std::int32_t, 4> counts = {1, 1, 3, -1};
    for (const unsigned seed : {1U, 2U, 3U}) {
        std::mt19937 numbers(seed);
        const auto below = [&](std::size_t limit) { return numbers() % limit; };
        told_timer clock(4'000'000'000 * second - 7 * millisecond);
        plain_timer plain;
        runs done;
        for (std::uintptr_t step = 1; step <= 3000; step++) {
            const std::size_t what = below(10);
            if (what < 5 && plain.tasks.size() < 200) {
                timertask task{};
                task.arg = number(step);
                task.msec = delays[below(delays.size())];
                task.times = counts[below(counts.size())];
                task.gap = gaps[below(gaps.size())];
                const int signalled = sleeper.signals;
                task.id = clock.schedule(step, task.msec, task.times, task.gap);
                plain.schedule(task);
                const bool wakes = plain.tasks[0].id == task.id;
                ASSERT_EQ(sleeper.signals - signalled, wakes ? 1 : 0) << step;
            } else if (what < 8) {
                const int id = below(4) == 0 || plain.tasks.empty()
                                   ? static_cast<int>(below(40'000))
                                   : plain.tasks[below(plain.tasks.size())].id;
                ASSERT_EQ(timer_cancel(clock.get(), id), plain.cancel(id) ? 0 : -1) << step;
            } else {
                const std::int64_t time = static_cast<std::int64_t>(below(4)) * millisecond;
                ASSERT_TRUE(clock.pass(time));
                plain.pass(time, done);
                ASSERT_EQ(clock.runs(), std::exchange(done, {})) << step;
            }
            const std::vector<timertask> tasks = clock.tasks();
            ASSERT_TRUE(std::equal(tasks.begin(), tasks.end(), plain.tasks.begin(),
                                   plain.tasks.end(), is_same))
                << "seed " << seed << ", step " << step;
            ASSERT_TRUE(clock.is_sound()) << step;
        }
    }
}

/* ---- A thread that is cancelled in the middle of a round --------------------------------------
 */

/* It has run the first task, which waits to be put back, and not the second. */
class halfway : public told_timer {
  public:
    halfway() {
        at_run = [] {
            pthread_cancel(pthread_self());
            return 0;
        };
        schedule(2, hour + 1, -1, hour);
        schedule(1, hour, -1, hour);
        locked([&] {
            time_told += 2 * hour * millisecond;
            return __real_pthread_cond_signal(&get()->wakeup);
        });
    }

    bool has_ended() const {
        return eventually([&] { return value_of(get()->thread->necrology) == 1; });
    }
};

TEST_F(TimersAtATime, ACancelledThreadLeavesTheLock) {
    halfway clock;
    ASSERT_TRUE(clock.has_ended());
    EXPECT_EQ(pthread_mutex_trylock(&clock->lock), 0);
    pthread_mutex_unlock(&clock->lock);
    EXPECT_EQ(clock.runs(), runs{1});
    EXPECT_EQ(clock->ready->count, 1U);
    EXPECT_EQ(clock->tasks->count, 1U);
    EXPECT_EQ(clock.del(), 0);
}

/* A routine may still run, and cancel what it likes. */
TEST_F(TimersAtATime, ATaskIsCancelledThatWaitsToBePutBack) {
    for (const bool waiting_first : {true, false}) {
        halfway clock;
        ASSERT_TRUE(clock.has_ended());
        const int other = clock.schedule(3, 1);
        for (const int id : waiting_first ? std::array{1, 0} : std::array{0, 1}) {
            EXPECT_EQ(timer_cancel(clock.get(), id), 0);
            EXPECT_EQ(timer_cancel(clock.get(), id), -1);
        }
        EXPECT_EQ(clock.ids(), std::vector<int>{other});
        EXPECT_TRUE(clock.is_sound());
        EXPECT_EQ(clock.del(), 0);
    }
}

/* ---- Timers that cannot be made ---------------------------------------------------------------
 */

const std::string no_worker = "thread_new_for_pool : error.\nthreadpool_new : error.\n";

struct refusal {
    call which;
    int turn;
    std::string said;
};

std::vector<refusal> refusals() {
    std::string no_workers;
    for (int i = 0; i < 10; i++)
        no_workers += no_worker;
    return {
        {mutex_init, 1, ""},      // the timer's own
        {cond_init, 1, ""},       //
        {sem_init_, 1, ""},       // the thread's
        {attr_init_, 1, ""},      //
        {sem_init_, 2, ""},       // the pool's
        {cond_init, 2, ""},       // its queue's
        {cond_init, 3, ""},       //
        {create, 11, id_warning}, // the thread, behind ten workers
        {create, 0, no_workers + id_warning},
    };
}

TEST_F(TimerFaults, ATimerThatCannotBeMadeLeavesNothing) {
    for (const refusal &row : refusals()) {
        system_.refuse(row.which, row.turn);
        timer *clock = timer_new();
        EXPECT_EQ(clock, nullptr) << row.which << " " << row.turn;
        system_.refused = calls;
        EXPECT_TRUE(system_.all_undone()) << row.which << " " << row.turn;
        timer_del(clock);
    }
} // and a search for leaks finds none

TEST_F(TimerTexts, ATimerThatCannotBeMadeSaysNoMoreThanItsParts) {
    for (const refusal &row : refusals()) {
        const child_result result = run_in_child([&] {
            const watchdog limit;
            system_.refuse(row.which, row.turn);
            if (timer_new() != nullptr)
                _exit(1);
        });
        EXPECT_EQ(result, exited(0, row.said)) << row.which << " " << row.turn;
    }
}

TEST_F(TimerFaults, ATimerUndoesAllThatItMade) {
    system_.refuse(calls, 0);
    timer *clock = timer_new();
    timer_start(clock, do_nothing, nullptr, hour);
    EXPECT_FALSE(system_.all_undone());
    EXPECT_EQ(timer_del(clock), 0);
    EXPECT_TRUE(system_.all_undone());
}

/* ---- Memory that runs out ---------------------------------------------------------------------
 */

TEST_F(TimerTexts, ANewTimerEndsTheProcessWhereverMemoryRunsOut) {
    const std::string no_memory = "No memory!!!\n";
    const child_result of_lists = explained("timer_new", ENOMEM);
    std::vector<child_result> endings;
    for (int n = 1; n < 200; n++) {
        const child_result ending = run_in_child([n] {
            const watchdog limit;
            const failing_allocation fault(n);
            timer *clock = timer_new();
            if (!fault.happened() && timer_del(clock) == 0)
                _exit(77);
        });
        if (ending.status == 77)
            break;
        endings.push_back(ending);
    }
    const auto count = [&](int status, const std::string &text) {
        return std::count(endings.begin(), endings.end(), exited(status, text));
    };
    EXPECT_EQ(count(1, id_warning + of_lists.err), 2) << "the lists";
    EXPECT_EQ(count(1, explained("threadpool_new", ENOMEM).err), 2) << "the pool's table";
    EXPECT_EQ(count(255, no_memory), static_cast<std::ptrdiff_t>(endings.size()) - 4);
    EXPECT_GE(endings.size(), 4U + 14U) << "the timer, its thread, its pool, the ten workers, ids";
}

TEST_F(TimerTexts, SchedulingEndsTheProcessWhereverMemoryRunsOut) {
    const std::string added = add_text(0, 1, hour, 0, do_nothing, nullptr);
    const auto schedule = [](int n) {
        return run_in_child([n] {
            const watchdog limit;
            timer *clock = timer_new();
            failing_allocation fault(n);
            timer_start(clock, do_nothing, nullptr, hour);
            if (fault.happened())
                _exit(1);
            _exit(timer_del(clock) == 0 ? 77 : 2);
        });
    };
    const std::string explanation = explained("timer_schedule", ENOMEM).err;
    EXPECT_EQ(schedule(1), exited(255, id_warning + "No memory!!!\n")) << "the task";
    EXPECT_EQ(schedule(2), exited(1, id_warning + explanation)) << "its node";
    int more = 3;
    while (schedule(more) == exited(1, id_warning + explanation))
        more++;
    EXPECT_EQ(schedule(more).status, 77);
}

TEST_F(TimerTexts, ARepeatedTaskNeedsNoMoreMemory) {
    const child_result result = run_in_child([] {
        const watchdog limit;
        stdout = std::fopen("/dev/null", "w");
        told_timer clock;
        for (std::uintptr_t arg = 1; arg <= 20; arg++)
            clock.schedule(arg, 1, -1, 1);
        bool ok = clock.pass(millisecond) && clock.pass(millisecond);
        ok &= clock.runs().size() == 40;
        clock.hand_over_to([](thread_routine, void *) { return 0; });
        clock.locked([] { return keel_test::allocations_left = 1; });
        ok &= clock.pass(millisecond) && clock.pass(millisecond);
        ok &= clock.locked([] { return std::exchange(keel_test::allocations_left, 0); }) == 1;
        ok &= clock.is_sound() && clock.count() == 20;
        if (!ok)
            _exit(1);
    });
    EXPECT_EQ(result, exited(0, id_warning));
}

} // namespace

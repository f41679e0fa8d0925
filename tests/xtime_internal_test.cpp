/* SPDX-License-Identifier: MIT */
#include "xtime.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <gtest/gtest.h>
#include <random>
#include <vector>

#include "allocation_faults.h"
#include "child.h"
#include "explained.h"
#include "leaves_nothing.h"

/* What stands in for the system's calls. */
namespace {
std::atomic<const timespec *> frozen;     // the time on the wall clock, unless null
std::atomic<int> calls_before_refusal{0}; // the n-th call of those below fails; 0: none does

bool refused() {
    return calls_before_refusal > 0 && --calls_before_refusal == 0;
}
} // namespace

extern "C" { // NOLINTBEGIN: the linker's names
int __real_clock_gettime(clockid_t clock, timespec *time);
int __real_pthread_create(pthread_t *made, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *arg);
int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __real_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes);

int __wrap_clock_gettime(clockid_t clock, timespec *time);
int __wrap_pthread_create(pthread_t *made, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *arg);
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __wrap_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes);

int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    if (const timespec *now = frozen) {
        *time = *now;
        return 0;
    }
    return __real_clock_gettime(clock, time);
}

int __wrap_pthread_create(pthread_t *made, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *arg) {
    return refused() ? EAGAIN : __real_pthread_create(made, attributes, routine, arg);
}

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
    return refused() ? EAGAIN : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes) {
    return refused() ? EAGAIN : __real_pthread_cond_init(condition, attributes);
}
} // NOLINTEND

namespace {

using keel_test::child_result;
using keel_test::exited;
using keel_test::explained;
using keel_test::failing_allocation;
using keel_test::LeavesNothing;
using keel_test::run_in_child;

using TimerInternal = LeavesNothing;

constexpr int an_hour = 3'600'000;

void *nothing(void *) {
    return nullptr;
}

/* The list as it comes about by walking: from the head on while the new task is due later. */
class plain_list {
  public:
    void insert(int id, std::int64_t due) {
        auto place = tasks_.begin();
        while (place != tasks_.end() && due > place->due)
            ++place;
        tasks_.insert(place, {id, due});
    }
    void remove(std::size_t index) {
        tasks_.erase(tasks_.begin() + static_cast<std::ptrdiff_t>(index));
    }
    int id(std::size_t index) const { return tasks_[index].id; }
    std::size_t size() const { return tasks_.size(); }
    std::vector<int> ids() const {
        std::vector<int> all;
        for (const auto &listed : tasks_)
            all.push_back(listed.id);
        return all;
    }

  private:
    struct task {
        int id;
        std::int64_t due;
    };
    std::vector<task> tasks_;
};

std::vector<int> ids_of(timer *clock) {
    std::vector<int> ids;
    pthread_mutex_lock(&clock->lock);
    for (const timer_node *node = clock->tasks->head; node != nullptr; node = node->next)
        ids.push_back(node->data->id);
    std::vector<int> reversed;
    for (const timer_node *node = clock->tasks->tail; node != nullptr; node = node->prev)
        reversed.insert(reversed.begin(), node->data->id);
    EXPECT_EQ(reversed, ids);
    pthread_mutex_unlock(&clock->lock);
    return ids;
}

/* The clock stands still, so that many tasks are due at the same moment. */
TEST_F(TimerInternal, PutsTasksWhereAWalkWouldPutThem) {
    timer *clock = timer_new();
    timespec now{};
    __real_clock_gettime(CLOCK_REALTIME, &now);
    now.tv_nsec = 999'000'000;
    frozen = &now;
    plain_list plain;
    std::mt19937 random(5);
    for (int i = 0; i < 6'000; i++) {
        const bool filling = i / 1'000 % 2 == 0;
        if (plain.size() == 0 || random() % 10 < (filling ? 8U : 3U)) {
            const int due = an_hour + static_cast<int>(random() % 20);
            plain.insert(clock->schedule(clock, nothing, nullptr, due, 1, 0), due);
        } else {
            const std::size_t victim = random() % plain.size();
            ASSERT_EQ(clock->cancel(clock, plain.id(victim)), 0);
            plain.remove(victim);
        }
        if (i % 100 == 0) {
            ASSERT_EQ(ids_of(clock), plain.ids());
        }
    }
    EXPECT_EQ(ids_of(clock), plain.ids());
    frozen = nullptr;
    clock->del(clock);
}

/* Its two locks, its thread's, and those of its pool, its pool's queue and its thread's start. A
 * worker that the system refuses is only missing. */
TEST_F(TimerInternal, IsNullWhereTheSystemRefuses) {
    int nulls = 0;
    for (int n = 1; n < 40; n++) {
        calls_before_refusal = n;
        timer *clock = timer_new();
        calls_before_refusal = 0;
        if (clock == nullptr)
            nulls++;
        else
            clock->del(clock);
    }
    EXPECT_GE(nulls, 7) << "lock, wakeup, the pool's lock, four in its queue, the thread";
}

/* Each allocation in turn, until there are no more. */
TEST_F(TimerInternal, EndsTheProcessWithoutMemory) {
    int of_pool = 0;
    int of_timer = 0;
    for (int n = 1;; n++) {
        const child_result result = run_in_child([=] {
            const failing_allocation fault(n);
            timer_new();
            _exit(fault.happened() ? 42 : 0);
        });
        if (result.status == 0)
            break;
        const bool of_lists = result.err.ends_with("timer_new: Cannot allocate memory\n");
        const bool of_table = result.err.ends_with("threadpool_new: Cannot allocate memory\n");
        of_timer += of_lists ? 1 : 0;
        of_pool += of_table ? 1 : 0;
        EXPECT_EQ(result.status, of_lists || of_table ? 1 : 255) << n;
        EXPECT_TRUE(of_lists || of_table || result.err.ends_with("No memory!!!\n")) << result.err;
        ASSERT_LT(n, 1'000);
    }
    EXPECT_EQ(of_pool, 2);
    EXPECT_EQ(of_timer, 2);
}

TEST_F(TimerInternal, ATaskWithoutMemoryEndsTheProcess) {
    for (int n = 1; n <= 2; n++) {
        const child_result result = run_in_child([=] {
            timer *clock = timer_new();
            const failing_allocation fault(n);
            clock->schedule(clock, nothing, nullptr, an_hour, 1, 0);
        });
        const child_result expected =
            n == 1 ? exited(255, "No memory!!!\n") : explained("timer_schedule", ENOMEM);
        EXPECT_EQ(result.status, expected.status) << n;
        EXPECT_TRUE(result.err.ends_with(expected.err)) << result.err;
    }
}

} // namespace

/* SPDX-License-Identifier: MIT */
#include "xqueue.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <pthread.h>
#include <string>
#include <vector>

#include "cancelled.h"
#include "explained.h"
#include "queue_items.h"
#include "queue_pop.h"
#include "threads.h"

/* What the stand-ins below are asked, and what they answer. They do the work as well, but for an
 * initialisation or a lock that is refused. */
namespace {

struct call {
    std::string routine;
    const void *object;

    bool operator==(const call &) const = default;
};

struct stand_in {
    std::vector<call> calls;
    std::size_t refused = 0; // which call fails, from 1 on; none with 0
    bool with_attributes = false;

    /* Where this is set, a wait does this instead, and ends with what it returns. */
    std::function<int(pthread_cond_t *, pthread_mutex_t *, std::int64_t)> wait;

    int answer(const char *routine, const void *object) {
        calls.push_back({routine, object});
        return calls.size() == refused ? EAGAIN : 0;
    }
};

stand_in *watched; // by one thread at a time

/* Whatever the calls in the scope are. */
class watch {
  public:
    explicit watch(stand_in &system) { watched = &system; }
    ~watch() { watched = nullptr; }
    watch(const watch &) = delete;
    watch &operator=(const watch &) = delete;
};

} // namespace

extern "C" { // NOLINTBEGIN: the linker's names
int __real_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes);
int __real_pthread_cond_destroy(pthread_cond_t *condition);
int __real_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *mutex);
int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __real_pthread_mutex_trylock(pthread_mutex_t *mutex);
int __real_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                          std::int64_t milliseconds);
int __wrap_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes);
int __wrap_pthread_cond_destroy(pthread_cond_t *condition);
int __wrap_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *mutex);
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_trylock(pthread_mutex_t *mutex);
int __wrap_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                          std::int64_t milliseconds);

int __wrap_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes) {
    if (watched == nullptr)
        return __real_pthread_cond_init(condition, attributes);
    watched->with_attributes |= attributes != nullptr;
    const int error = watched->answer("cond init", condition);
    return error != 0 ? error : __real_pthread_cond_init(condition, attributes);
}

int __wrap_pthread_cond_destroy(pthread_cond_t *condition) {
    const int result = __real_pthread_cond_destroy(condition);
    return watched == nullptr ? result : watched->answer("cond destroy", condition);
}

int __wrap_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *mutex) {
    return watched == nullptr ? __real_pthread_cond_wait(condition, mutex)
                              : watched->wait(condition, mutex, -1);
}

int __wrap_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                          std::int64_t milliseconds) {
    return watched == nullptr ? __real_cond_timedwait(condition, mutex, milliseconds)
                              : watched->wait(condition, mutex, milliseconds);
}

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
    if (watched == nullptr)
        return __real_pthread_mutex_init(mutex, attributes);
    watched->with_attributes |= attributes != nullptr;
    const int error = watched->answer("mutex init", mutex);
    return error != 0 ? error : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex) {
    const int result = __real_pthread_mutex_destroy(mutex);
    return watched == nullptr ? result : watched->answer("mutex destroy", mutex);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    if (watched == nullptr)
        return __real_pthread_mutex_lock(mutex);
    const int error = watched->answer("lock", mutex);
    return error != 0 ? error : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t *mutex) {
    if (watched == nullptr)
        return __real_pthread_mutex_trylock(mutex);
    const int error = watched->answer("lock", mutex);
    return error != 0 ? error : __real_pthread_mutex_trylock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    const int result = __real_pthread_mutex_unlock(mutex);
    return watched == nullptr ? result : watched->answer("unlock", mutex);
}
} // NOLINTEND

namespace {

using keel_test::explained;
using keel_test::fixed_queue;
using keel_test::is_free;
using keel_test::locks_are_free;
using keel_test::new_queue;
using keel_test::number_item;
using keel_test::plain_copy;
using keel_test::pop_number;
using keel_test::push_number;
using keel_test::run_in_child;
using keel_test::unique_queue;
using keel_test::watchdog;
using keel_test::worker;

using call_list = std::vector<call>;

constexpr ring_queue_param three_slots = {3, 0, 0, 0, 0};

TEST(QueueNew, MakesItsLocksInOrder) {
    stand_in system;
    ring_queue *queue = nullptr;
    {
        const watch scope(system);
        queue = queue_new(&three_slots);
    }
    const unique_queue owned(queue);
    EXPECT_EQ(system.calls, (call_list{{"cond init", &queue->not_empty},
                                       {"cond init", &queue->not_full},
                                       {"mutex init", &queue->rd_lock},
                                       {"mutex init", &queue->wr_lock}}));
    EXPECT_FALSE(system.with_attributes);
}

bool is_init(const call &one) {
    return one.routine.ends_with(" init");
}

/* What undoes an initialisation. */
call undoing(const call &init) {
    return {init.routine.substr(0, init.routine.find(' ')) + " destroy", init.object};
}

TEST(QueueNew, LeavesNothingBehindWhereTheSystemRefuses) {
    for (std::size_t refused = 1; refused <= 4; refused++) {
        stand_in system;
        system.refused = refused;
        ring_queue *queue = nullptr;
        {
            const watch scope(system);
            queue = queue_new(&three_slots);
        }
        EXPECT_EQ(queue, nullptr) << refused;
        ASSERT_EQ(system.calls.size(), refused + refused - 1);
        call_list left;
        for (const call &one : system.calls)
            if (is_init(one))
                left.push_back(undoing(one));
        ASSERT_EQ(left.size(), refused);
        left.pop_back(); // was never made
        for (std::size_t i = refused; i < system.calls.size(); i++)
            left.erase(std::remove(left.begin(), left.end(), system.calls[i]), left.end());
        EXPECT_TRUE(left.empty()) << refused;
    }
}

TEST(QueueDel, FreesTheRestWhereAStepFails) {
    for (const std::uint64_t slot_size : {0U, 16U})
        for (std::size_t refused = 0; refused <= 4; refused++) {
            const ring_queue_param param = {3, slot_size, 0, 0, 0};
            ring_queue *queue = queue_new(&param);
            ASSERT_TRUE(push_number(queue, 1, 0));
            const call_list expected = {{"cond destroy", &queue->not_empty},
                                        {"cond destroy", &queue->not_full},
                                        {"mutex destroy", &queue->rd_lock},
                                        {"mutex destroy", &queue->wr_lock}};
            stand_in system;
            system.refused = refused;
            const watch scope(system);
            EXPECT_EQ(queue_del(queue), refused == 0 ? 0 : -1) << refused;
            EXPECT_EQ(system.calls, expected) << refused;
        }
}

TEST(QueueUnlock, LetsThePopsGoOnFirst) {
    const unique_queue queue = fixed_queue(1);
    stand_in system;
    const watch scope(system);
    EXPECT_EQ(queue->lock(queue.get()), 0);
    EXPECT_EQ(system.calls, (call_list{{"lock", &queue->rd_lock}, {"lock", &queue->wr_lock}}));
    system.calls.clear();
    EXPECT_EQ(queue->unlock(queue.get()), 0);
    EXPECT_EQ(system.calls, (call_list{{"unlock", &queue->rd_lock}, {"unlock", &queue->wr_lock}}));
}

TEST(Queue, TakesNoLockForWhatItRefuses) {
    const unique_queue queue = fixed_queue(1, 8);
    number_item item(1);
    void *nothing = nullptr;
    stand_in system;
    const watch scope(system);
    for (const std::int64_t timeout : {INT64_C(-2), INT64_MIN}) {
        EXPECT_EQ(queue_push(queue.get(), item.item(), timeout, plain_copy), -1);
        EXPECT_EQ(queue_pop(queue.get(), item.item(), timeout, plain_copy), -1);
    }
    EXPECT_EQ(queue_push(queue.get(), &nothing, 0, plain_copy), -1);
    EXPECT_EQ(queue_push(queue.get(), nullptr, 0, plain_copy), -1);
    EXPECT_EQ(queue_pop(queue.get(), nullptr, 0, plain_copy), -1);
    EXPECT_EQ(system.calls, call_list{});
}

TEST(QueueSlotsResize, TakesNoLock) {
    const unique_queue queue = fixed_queue(2, 8);
    stand_in system;
    const watch scope(system);
    EXPECT_EQ(queue_slots_resize(queue.get(), 16), 0);
    EXPECT_EQ(system.calls, call_list{});
}

TEST(Queue, EndsWithALockThatCannotBeHad) {
    const auto ending_of = [](std::size_t refused, const std::function<void(ring_queue *)> &use) {
        return run_in_child([&] {
            ring_queue *queue = queue_new(&three_slots);
            push_number(queue, 1, 0);
            stand_in system;
            system.refused = refused;
            const watch scope(system);
            use(queue);
        });
    };
    const auto push = [](ring_queue *queue) {
        int thing = 0;
        void *item = &thing;
        queue_push(queue, &item, 0);
    };
    const auto pop = [](ring_queue *queue) {
        void *item = nullptr;
        queue_pop(queue, &item, 0);
    };
    const auto no_lock = explained("pthread_mutex_lock", EAGAIN);
    const auto no_unlock = explained("pthread_mutex_unlock", EAGAIN);
    EXPECT_EQ(ending_of(1, push), no_lock);
    EXPECT_EQ(ending_of(2, push), no_unlock);
    EXPECT_EQ(ending_of(1, pop), no_lock);
    EXPECT_EQ(ending_of(2, pop), no_unlock);
    EXPECT_EQ(ending_of(1, queue_lock), no_lock);
    EXPECT_EQ(ending_of(2, queue_lock), explained("pthread_mutex_trylock", EAGAIN));
    const auto lock_and_unlock = [](ring_queue *queue) {
        queue_lock(queue);
        queue_unlock(queue);
    };
    EXPECT_EQ(ending_of(3, lock_and_unlock), no_unlock);
    EXPECT_EQ(ending_of(4, lock_and_unlock), no_unlock);
}

/* A wait on one side of a queue that is stuck there: a full one that is pushed to, or an empty one
 * that is popped from. What happens during the wait is up to the test. */
class StuckQueue : public testing::TestWithParam<bool> {
  protected:
    StuckQueue() {
        if (pushes()) {
            EXPECT_TRUE(push_number(queue.get(), 1, 0));
        }
    }

    static bool pushes() { return GetParam(); }

    pthread_cond_t *condition() const { return pushes() ? &queue->not_full : &queue->not_empty; }
    pthread_mutex_t *lock() const { return pushes() ? &queue->wr_lock : &queue->rd_lock; }

    /* The operation that has to wait. */
    bool get_through(std::int64_t timeout) const {
        return pushes() ? push_number(queue.get(), 2, timeout)
                        : pop_number(queue.get(), timeout) == 2;
    }

    /* What another thread does that makes it possible. */
    bool make_way() const {
        return pushes() ? pop_number(queue.get(), 0) == 1 : push_number(queue.get(), 2, 0);
    }

    bool still_stuck() const { return queue->fifo->count == (pushes() ? 1U : 0U); }

    /* Has a wait, its lock released meanwhile, do what `during` says for the n-th one. */
    void on_wait(std::int64_t timeout, const std::function<int(int)> &during) {
        system.wait = [this, timeout, during](pthread_cond_t *waited_on, pthread_mutex_t *mutex,
                                              std::int64_t milliseconds) {
            EXPECT_EQ(waited_on, condition());
            EXPECT_EQ(mutex, lock());
            EXPECT_EQ(milliseconds, timeout);
            EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
            const int result = during(++waits);
            EXPECT_EQ(pthread_mutex_lock(mutex), 0);
            return result;
        };
    }

    const unique_queue queue = fixed_queue(1);
    stand_in system;
    int waits = 0;
};

INSTANTIATE_TEST_SUITE_P(, StuckQueue, testing::Bool(),
                         [](const auto &parameter) { return parameter.param ? "Push" : "Pop"; });

TEST_P(StuckQueue, WaitsOnceForATimeAndNotAgain) {
    on_wait(1234, [](int) { return 0; }); // woken for no reason
    const watch scope(system);
    EXPECT_FALSE(get_through(1234));
    EXPECT_EQ(waits, 1);
    EXPECT_TRUE(still_stuck());
    EXPECT_TRUE(locks_are_free(queue.get()));
}

TEST_P(StuckQueue, GetsThroughWhereWokenForAReason) {
    on_wait(INT64_MAX, [this](int) {
        EXPECT_TRUE(make_way());
        return 0;
    });
    const watch scope(system);
    EXPECT_TRUE(get_through(INT64_MAX));
    EXPECT_EQ(waits, 1);
    EXPECT_TRUE(locks_are_free(queue.get()));
}

TEST_P(StuckQueue, GivesUpWhereTheWaitFailedWhateverHappenedMeanwhile) {
    for (const int error : {ETIMEDOUT, EINVAL, EPERM, -1}) {
        waits = 0;
        on_wait(5, [this, error](int) {
            EXPECT_TRUE(make_way());
            return error;
        });
        const watch scope(system);
        EXPECT_FALSE(get_through(5));
        EXPECT_EQ(waits, 1);
        EXPECT_FALSE(still_stuck());
        EXPECT_TRUE(locks_are_free(queue.get()));
        EXPECT_TRUE(get_through(0)); // as it was
        if (pushes()) {
            EXPECT_EQ(pop_number(queue.get(), 0), 2U);
            EXPECT_TRUE(push_number(queue.get(), 1, 0));
        }
    }
}

TEST_P(StuckQueue, WaitsOnAndOnWithoutATimeLimit) {
    on_wait(-1, [this](int wait) {
        if (wait == 5) {
            EXPECT_TRUE(make_way());
        }
        return 0;
    });
    const watch scope(system);
    EXPECT_TRUE(get_through(-1));
    EXPECT_EQ(waits, 5);
    EXPECT_TRUE(locks_are_free(queue.get()));
}

TEST_P(StuckQueue, DoesNotWaitWithoutTime) {
    on_wait(0, [](int) { return 0; });
    const watch scope(system);
    EXPECT_FALSE(get_through(0));
    EXPECT_EQ(waits, 0);
}

/* Whoever makes way just then must not be done with it before the waiter sleeps. */
TEST_P(StuckQueue, IsNotForgottenOnItsWayToSleep) {
    const watchdog scope;
    for (const std::int64_t timeout : {INT64_C(-1), INT64_C(600'000)}) {
        std::optional<worker> other;
        system.wait = [&](pthread_cond_t *waited_on, pthread_mutex_t *mutex,
                          std::int64_t milliseconds) {
            watched = nullptr;
            other.emplace([this] { EXPECT_TRUE(make_way()); });
            other->falls_asleep();
            return milliseconds < 0 ? __real_pthread_cond_wait(waited_on, mutex)
                                    : __real_cond_timedwait(waited_on, mutex, milliseconds);
        };
        const watch waits_on(system);
        EXPECT_TRUE(get_through(timeout));
        other.reset();
        if (pushes()) {
            EXPECT_EQ(pop_number(queue.get(), 0), 2U);
            EXPECT_TRUE(push_number(queue.get(), 1, 0));
        }
    }
}

/* What a thread sees of its queue's read lock when it is cancelled in a pop, and releases then. */
class handler {
  public:
    handler(pthread_mutex_t &lock, bool &was_held) : lock_(lock), was_held_(was_held) {}
    ~handler() {
        if (!armed_)
            return;
        was_held_ = !is_free(lock_);
        pthread_mutex_unlock(&lock_);
    }
    handler(const handler &) = delete;
    handler &operator=(const handler &) = delete;

    void disarm() { armed_ = false; }

  private:
    pthread_mutex_t &lock_;
    bool &was_held_;
    bool armed_ = true;
};

TEST(PopLeavingLock, LeavesTheLockToTheHandlerOfACancelledThread) {
    const watchdog scope;
    for (const std::int64_t timeout : {INT64_C(-1), INT64_C(600'000)}) {
        const unique_queue queue = fixed_queue(1);
        bool was_held = false;
        bool returned = false;
        worker waiter([&] {
            handler unlock(queue->rd_lock, was_held);
            void *item = nullptr;
            keel::pop_leaving_lock(*queue, &item, timeout);
            unlock.disarm();
            returned = true;
        });
        ASSERT_TRUE(waiter.falls_asleep());
        waiter.cancel();
        EXPECT_TRUE(waiter.join());
        EXPECT_FALSE(returned);
        EXPECT_TRUE(was_held);
        EXPECT_TRUE(is_free(queue->rd_lock));
        EXPECT_TRUE(push_number(queue.get(), 3, 0)); // nobody is counted as waiting any more
        EXPECT_EQ(pop_number(queue.get(), 0), 3U);
    }
}

TEST(PopLeavingLock, IsAPopOtherwise) {
    const watchdog scope;
    const unique_queue queue = fixed_queue(1, 8);
    number_item out(0);
    void *nothing = nullptr;
    EXPECT_EQ(keel::pop_leaving_lock(*queue, out.item(), 0, plain_copy), -1);
    EXPECT_EQ(keel::pop_leaving_lock(*queue, out.item(), 20, plain_copy), -1);
    EXPECT_TRUE(is_free(queue->rd_lock));
    ASSERT_TRUE(push_number(queue.get(), 1, 0));
    EXPECT_EQ(keel::pop_leaving_lock(*queue, &nothing, 0, plain_copy), -1);
    EXPECT_TRUE(is_free(queue->rd_lock));

    bool pushed = false;
    worker pusher([&] { pushed = push_number(queue.get(), 2, -1); });
    ASSERT_TRUE(pusher.falls_asleep());
    EXPECT_EQ(keel::pop_leaving_lock(*queue, out.item(), -1, plain_copy), 0);
    EXPECT_EQ(out.number(), 1U);
    pusher.join(); // woken
    EXPECT_TRUE(pushed);
    EXPECT_EQ(keel::pop_leaving_lock(*queue, out.item(), -1, plain_copy), 0);
    EXPECT_EQ(out.number(), 2U);
    EXPECT_TRUE(is_free(queue->rd_lock));
}

} // namespace

/* SPDX-License-Identifier: MIT */
#include "xthread.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sched.h>
#include <string>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "explained.h"
#include "leaves_nothing.h"
#include "waiting.h"
#include "workers.h"

namespace {

using keel_test::bare_pool;
using keel_test::busy;
using keel_test::count_threads;
using keel_test::eventually;
using keel_test::explained;
using keel_test::gate;
using keel_test::give_back;
using keel_test::has_ended;
using keel_test::hung;
using keel_test::idle;
using keel_test::LeavesNothing;
using keel_test::none;
using keel_test::numbers;
using keel_test::pool_watch;
using keel_test::post_task;
using keel_test::run_in_child;
using keel_test::sanitized;
using keel_test::semaphore;
using keel_test::spin;
using keel_test::state_of;
using keel_test::stopped;
using keel_test::uncancellable;
using keel_test::value_of;
using keel_test::wait_for_more;

using Threadpool = LeavesNothing;
using ThreadpoolStress = LeavesNothing;

/* ---- Records and tables -----------------------------------------------------------------------
 */

using operation = int (*)(thread *);

static_assert(offsetof(threadpool, pool) == 0);
static_assert(offsetof(threadpool, lock) == sizeof(pool));
static_assert(offsetof(threadpool, necrology) ==
              offsetof(threadpool, lock) + sizeof(pthread_mutex_t));
static_assert(offsetof(threadpool, threads) == offsetof(threadpool, necrology) + sizeof(sem_t));
static_assert(offsetof(threadpool, queue) == offsetof(threadpool, threads) + 8);
static_assert(offsetof(threadpool, state) == offsetof(threadpool, queue) + 8);
static_assert(offsetof(threadpool, exec) == offsetof(threadpool, state) + 8);
static_assert(offsetof(threadpool, del) == offsetof(threadpool, exec) + 8);
static_assert(sizeof(threadpool) == offsetof(threadpool, del) + 8);
static_assert(std::is_same_v<decltype(threadpool::state), std::int32_t>);

static_assert(offsetof(threadpool_task, routine) == 0);
static_assert(offsetof(threadpool_task, arg) == 8);
static_assert(sizeof(threadpool_task) == 16);

static_assert(std::is_same_v<decltype(vector::empty), std::uint32_t>);
static_assert(std::is_same_v<decltype(vector::top), std::int32_t>);
static_assert(std::is_same_v<decltype(vector::first), std::int32_t>);
static_assert(std::is_same_v<decltype(vector::next_free), std::int32_t>);
static_assert(std::is_same_v<decltype(vector::capacity), std::uint64_t>);
static_assert(std::is_same_v<decltype(vector::nfree), std::uint64_t>);
static_assert(std::is_same_v<decltype(vector::destroy), operation>);
static_assert(offsetof(vector, empty) == 0 && offsetof(vector, top) == 4);
static_assert(offsetof(vector, first) == 8 && offsetof(vector, next_free) == 12);
static_assert(offsetof(vector, items) == 16 && offsetof(vector, capacity) == 24);
static_assert(offsetof(vector, nfree) == 32 && offsetof(vector, destroy) == 40);

TEST_F(Threadpool, StatesHaveTheirTexts) {
    EXPECT_EQ(threadpool_stat_descs[0].code, 0);
    EXPECT_STREQ(threadpool_stat_descs[0].text, "Active");
    EXPECT_EQ(threadpool_stat_descs[1].code, 1);
    EXPECT_STREQ(threadpool_stat_descs[1].text, "Inactive");
    static_assert(sizeof threadpool_stat_descs == 2 * sizeof(stat_desc));
}

/* ---- Workers ------------------------------------------------------------------------------------
 */

TEST_F(Threadpool, AWorkerOfItsOwnWaitsAndIsStopped) {
    bare_pool workers;
    thread *self = thread_new_for_pool(workers.get());
    ASSERT_NE(self, nullptr);
    int detach_state = -1;
    pthread_attr_getdetachstate(&self->attr, &detach_state);
    EXPECT_EQ(detach_state, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(self->pool, workers.get());
    EXPECT_EQ(self->routine, thread_run_for_pool);
    EXPECT_EQ(self->arg, self);
    EXPECT_TRUE(eventually([&] { return state_of(*self) == hung; }));
    EXPECT_EQ(thread_del_for_pool(self), 0);
    EXPECT_TRUE(workers.is_unlocked());
    EXPECT_EQ(value_of(workers->necrology), 0);
    EXPECT_EQ(workers->pool.idle, 4U);
}

/* The queue's lock says so when it is given back twice, or by a worker that does not hold it. */
TEST_F(Threadpool, CancelledWaitersGiveTheQueuesLockBackOnce) {
    bare_pool workers;
    for (int round = 0; round < 20; round++) {
        std::vector<thread *> waiting;
        for (int i = 0; i < 8; i++)
            waiting.push_back(thread_new_for_pool(workers.get()));
        for (std::size_t i = 0; i < waiting.size() - 1; i++) {
            const bool wherever_it_is = round % 2 == 1;
            EXPECT_TRUE(
                eventually([&] { return wherever_it_is || state_of(*waiting[i]) == hung; }));
            EXPECT_EQ(thread_del_for_pool(waiting[i]), 0);
        }
        EXPECT_TRUE(workers.is_unlocked());
        semaphore done;
        EXPECT_EQ(threadpool_exec(workers.get(), post_task, &done), 0);
        done.wait(); // the last one goes on popping
        EXPECT_EQ(thread_del_for_pool(waiting.back()), 0);
    }
}

TEST_F(Threadpool, AWorkerGoesThroughItsStates) {
    bare_pool workers;
    gate at;
    thread *self = thread_new_for_pool(workers.get());
    ASSERT_NE(self, nullptr);
    EXPECT_TRUE(eventually([&] { return state_of(*self) == hung; }));
    threadpool_exec(workers.get(), gate::task, &at);
    at.wait_until_reached();
    EXPECT_EQ(state_of(*self), busy);
    EXPECT_TRUE(workers.is_unlocked());
    at.open();
    EXPECT_TRUE(eventually([&] { return state_of(*self) == hung; }));
    threadpool_exec(workers.get(), thread_exit_for_pool, nullptr);
    EXPECT_TRUE(has_ended(self));
    EXPECT_EQ(value_of(workers->necrology), 1) << "announced to the pool";
    EXPECT_EQ(thread_stop(self), 0);
    EXPECT_EQ(self->state, stopped);
    EXPECT_EQ(self->retval, nullptr);
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(Threadpool, ExitForPoolEndsTheThreadWhoseRecordItIsGiven) {
    bare_pool workers;
    const struct {
        threadpool *pool;
        int posts;
    } rows[] = {{nullptr, 0}, {workers.get(), 1}};
    for (const auto &row : rows) {
        thread *self = thread_new(0);
        self->pool = row.pool;
        ASSERT_EQ(thread_start(self, thread_exit_for_pool, self), 0);
        void *result = none;
        EXPECT_EQ(thread_join(self, &result), 0);
        EXPECT_EQ(result, nullptr);
        EXPECT_EQ(self->retval, nullptr);
        EXPECT_EQ(self->state, stopped);
        EXPECT_EQ(value_of(workers->necrology), row.posts);
        EXPECT_EQ(thread_trystop(self), 0);
        thread_del(self);
    }
}

TEST_F(Threadpool, AWorkerOfAnInactivePoolEndsAtOnce) {
    bare_pool workers;
    workers->state = 1;
    thread *self = thread_new_for_pool(workers.get());
    EXPECT_TRUE(has_ended(self));
    EXPECT_EQ(thread_trystop(self), 0);
    EXPECT_EQ(self->state, stopped);
    EXPECT_EQ(self->retval, nullptr);
    EXPECT_EQ(value_of(workers->necrology), 0) << "not announced";
    EXPECT_EQ(thread_del(self), 0);
    EXPECT_EQ(pthread_mutex_trylock(&workers->lock), 0);
    pthread_mutex_unlock(&workers->lock);
}

/* The pool goes inactive while a worker waits, or runs a task: the task it takes then never runs.
 */
TEST_F(Threadpool, AWorkerNoticesAnInactivePoolBeforeAndAfterATask) {
    for (const bool in_task : {false, true}) {
        bare_pool workers;
        gate at;
        semaphore ran;
        thread *self = thread_new_for_pool(workers.get());
        EXPECT_TRUE(eventually([&] { return state_of(*self) == hung; }));
        if (in_task) {
            threadpool_exec(workers.get(), gate::task, &at);
            at.wait_until_reached();
        }
        pool_watch(workers.get()).locked([&] { return workers->state = 1; });
        threadpool_exec(workers.get(), post_task, &ran);
        at.open();
        EXPECT_TRUE(has_ended(self));
        EXPECT_EQ(thread_del_for_pool(self), 0);
        EXPECT_EQ(workers->pool.idle, in_task ? 3U : 4U);
        EXPECT_EQ(workers->queue->fifo->count, in_task ? 1U : 0U);
        EXPECT_TRUE(workers.is_unlocked());
    }
}

/* ---- Pools --------------------------------------------------------------------------------------
 */

TEST_F(Threadpool, RefusesUnusableBoundsSilently) {
    const auto refused = [] {
        const bool ok = threadpool_new(5, 10, 4, 4, 16) == nullptr &&
                        threadpool_new(0, 10, 4, 4, 16) == nullptr &&
                        threadpool_new(0, 0, 4, 4, 16) == nullptr &&
                        threadpool_new(6, 5, 4, 4, 16) == nullptr &&
                        threadpool_new(UINT64_MAX, 6, 4, 4, 16) == nullptr;
        _exit(ok ? 0 : 1);
    };
    EXPECT_EQ(run_in_child(refused), keel_test::exited(0));
}

TEST_F(Threadpool, RefusesNull) {
    EXPECT_EQ(threadpool_exec(nullptr, give_back, nullptr), -1);
    EXPECT_EQ(threadpool_del(nullptr), -1);
    const auto refused = [] { _exit(thread_new_for_pool(nullptr) == nullptr ? 0 : 1); };
    EXPECT_EQ(run_in_child(refused), keel_test::exited(0, "thread_new_for_pool : error.\n"));
}

TEST_F(Threadpool, EndsWithoutMemoryForItsTable) {
    const auto huge = [](std::uint64_t workers) {
        return run_in_child([&] {
            keel_test::limit_memory();
            threadpool_new(workers, workers, 1, 1, 1);
        });
    };
    EXPECT_EQ(huge(std::uint64_t{1} << 32), explained("threadpool_new", ENOMEM));
    EXPECT_EQ(huge(std::uint64_t{1} << 61), explained("threadpool_new", ENOMEM));
    EXPECT_EQ(huge(UINT64_MAX), explained("threadpool_new", ENOMEM));
}

TEST_F(Threadpool, StartsItsWorkersAndCountsThemIdle) {
    const std::ptrdiff_t before = count_threads();
    threadpool *workers = threadpool_new(6, 12, 4, 8, 64);
    ASSERT_NE(workers, nullptr);
    pool_watch watch(workers);
    EXPECT_EQ(watch.sizes(), (numbers{6, 6}));
    EXPECT_EQ(watch.table(), (numbers{0, 6, 0, 6, 6, 0}));
    EXPECT_TRUE(watch.settles(6));
    EXPECT_EQ(watch.sizes(), (numbers{6, 6}));
    EXPECT_EQ(watch.table(), (numbers{0, 6, 0, 6, 6, 0}));
    EXPECT_EQ(count_threads(), before + 6);
    EXPECT_EQ(workers->pool.max, 12U);
    EXPECT_EQ(workers->pool.min, 6U);
    EXPECT_EQ(workers->pool.step, 2U);
    EXPECT_EQ(workers->pool.low, 2U);
    EXPECT_EQ(workers->pool.high, 4U);
    EXPECT_EQ(watch.deaths(), 0);
    EXPECT_EQ(workers->state, 0);
    EXPECT_EQ(workers->exec, threadpool_exec);
    EXPECT_EQ(workers->del, threadpool_del);
    EXPECT_EQ(workers->threads->destroy, thread_del_for_pool);
    EXPECT_EQ(workers->queue->fifo->capacity, 4U);
    EXPECT_EQ(workers->queue->fifo->slot_size, 16U);
    EXPECT_EQ(workers->queue->fifo->expandable, 1);
    EXPECT_EQ(workers->queue->fifo->step, 8U);
    EXPECT_EQ(workers->queue->fifo->max, 64U);
    EXPECT_EQ(workers->del(workers), 0);
}

struct counter {
    std::atomic<int> calls = 0;

    static void *task(void *self) {
        static_cast<counter *>(self)->calls++;
        return nullptr;
    }
};

TEST_F(Threadpool, RunsEachTaskOnce) {
    constexpr int tasks = sanitized ? 20'000 : 100'000;
    threadpool *workers = threadpool_new(6, 12, 1, 16, tasks);
    counter count;
    for (int i = 0; i < tasks; i++)
        ASSERT_EQ(workers->exec(workers, counter::task, &count), 0);
    EXPECT_TRUE(eventually([&] { return count.calls == tasks; }));
    EXPECT_EQ(threadpool_del(workers), 0);
    EXPECT_EQ(count.calls, tasks);
}

struct relay {
    threadpool *workers = nullptr;
    int left = 0;
    semaphore done;

    static void *task(void *self) {
        auto &at = *static_cast<relay *>(self);
        if (at.left-- == 0)
            at.done.post();
        else
            threadpool_exec(at.workers, task, self);
        return nullptr;
    }
};

TEST_F(Threadpool, TakesTasksFromItsOwnWorkers) {
    relay at;
    at.workers = threadpool_new(6, 6, 1, 1, 4);
    at.left = 1000;
    ASSERT_EQ(threadpool_exec(at.workers, relay::task, &at), 0);
    at.done.wait();
    EXPECT_EQ(at.left, -1);
    EXPECT_EQ(threadpool_del(at.workers), 0);
}

TEST_F(Threadpool, RefusesTasksWithoutARoutineOrRoom) {
    threadpool *workers = threadpool_new(6, 6, 2, 2, 5);
    pool_watch watch(workers);
    ASSERT_TRUE(watch.settles(6));
    std::array<gate, 6> gates;
    watch.hold_each(gates);
    counter count;
    const auto length = [&] {
        queue_lock(workers->queue);
        const numbers both = {static_cast<std::int64_t>(workers->queue->fifo->count),
                              static_cast<std::int64_t>(workers->queue->fifo->capacity)};
        queue_unlock(workers->queue);
        return both;
    };
    EXPECT_EQ(threadpool_exec(workers, nullptr, &count), -1);
    EXPECT_EQ(length(), (numbers{0, 2}));
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(threadpool_exec(workers, counter::task, &count), 0);
    EXPECT_EQ(length(), (numbers{5, 5})) << "grown to its ceiling";
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(threadpool_exec(workers, counter::task, &count), -1);
    EXPECT_EQ(length(), (numbers{5, 5}));
    gates[0].open();
    EXPECT_TRUE(watch.settles(1));
    EXPECT_EQ(count.calls, 5);
    EXPECT_EQ(threadpool_exec(workers, counter::task, &count), 0);
    EXPECT_EQ(threadpool_del(workers), 0);
}

/* ---- Growing and shrinking ----------------------------------------------------------------------
 */

/* A pool whose first workers all wait. */
class settled_pool {
  public:
    settled_pool(std::uint64_t min, std::uint64_t max)
        : pool_(threadpool_new(min, max, 64, 64, 1024)), watch_(pool_) {
        EXPECT_TRUE(watch_.settles(min));
    }
    ~settled_pool() { EXPECT_EQ(threadpool_del(pool_), 0); }
    settled_pool(const settled_pool &) = delete;
    settled_pool &operator=(const settled_pool &) = delete;

    pool_watch *operator->() { return &watch_; }
    threadpool *get() { return pool_; }

    void retire_one() { EXPECT_EQ(threadpool_exec(pool_, thread_exit_for_pool, nullptr), 0); }

  private:
    threadpool *pool_;
    pool_watch watch_;
};

TEST_F(Threadpool, GrowsWhereFewerThanLowAreIdle) {
    std::array<gate, 5> gates; // outlives the workers
    settled_pool workers(6, 12);
    for (std::size_t held = 0; held < 4; held++)
        workers->hold(gates[held]);
    EXPECT_EQ(workers->sizes(), (numbers{6, 2}));
    EXPECT_TRUE(workers->pass(2));
    EXPECT_EQ(workers->sizes(), (numbers{6, 2})) << "just enough";
    workers->hold(gates[4]);
    EXPECT_EQ(workers->sizes(), (numbers{6, 1})) << "nobody has come back to see";
    EXPECT_TRUE(workers->pass(3));
    EXPECT_EQ(workers->sizes(), (numbers{8, 3}));
    EXPECT_EQ(workers->table(), (numbers{0, 8, 0, 8, 12, 4}));
    EXPECT_TRUE(workers->pass(3));
    EXPECT_EQ(workers->sizes(), (numbers{8, 3}));
}

TEST_F(Threadpool, GrowsToItsMaximumAndNoFurther) {
    std::array<gate, 8> gates;
    settled_pool workers(6, 9);
    for (std::size_t held = 0; held < 5; held++)
        workers->hold(gates[held]);
    EXPECT_TRUE(workers->pass(3));
    EXPECT_EQ(workers->sizes(), (numbers{8, 3}));
    workers->hold(gates[5]);
    workers->hold(gates[6]);
    EXPECT_TRUE(workers->pass(2));
    EXPECT_EQ(workers->sizes(), (numbers{9, 2})) << "one more is all there may be";
    EXPECT_EQ(workers->table(), (numbers{0, 9, 0, 9, 12, 3}));
    workers->hold(gates[7]);
    EXPECT_TRUE(workers->pass(1));
    EXPECT_EQ(workers->sizes(), (numbers{9, 1}));
    EXPECT_EQ(workers->table(), (numbers{0, 9, 0, 9, 12, 3}));
}

TEST_F(Threadpool, DoesNotGrowWhereMinimumAndMaximumAreOne) {
    std::array<gate, 5> gates;
    settled_pool workers(6, 6);
    workers->hold_each(gates);
    EXPECT_TRUE(workers->pass(1));
    EXPECT_EQ(workers->sizes(), (numbers{6, 1}));
    EXPECT_EQ(workers->table(), (numbers{0, 6, 0, 6, 6, 0}));
}

/* Each retirement is counted off twice: where it is decided, and where the exit task is taken. */
TEST_F(Threadpool, RetiresWhereMoreThanHighAreIdle) {
    std::array<gate, 5> gates;
    settled_pool workers(6, 12);
    workers->hold_each(gates);
    EXPECT_TRUE(workers->pass(3));
    EXPECT_EQ(workers->sizes(), (numbers{8, 3}));
    EXPECT_TRUE(workers->release(gates[0], 4));
    EXPECT_EQ(workers->sizes(), (numbers{8, 4})) << "not too many yet";
    EXPECT_TRUE(workers->release(gates[1], 3, 2));
    EXPECT_EQ(workers->sizes(), (numbers{6, 1}));
    EXPECT_EQ(workers->table(), (numbers{0, 8, 0, 8, 12, 4})) << "nobody has come back since";
    EXPECT_EQ(workers->deaths(), 2);
    const numbers freed = workers->ended();
    ASSERT_EQ(freed.size(), 2U);

    workers->set_sizes(6, 3, 12); // enough of them: the next pass only reaps
    EXPECT_TRUE(workers->pass(3));
    EXPECT_EQ(workers->sizes(), (numbers{6, 3}));
    EXPECT_EQ(workers->deaths(), 0);
    EXPECT_EQ(workers->occupied().size(), 6U);
    const numbers table = workers->table();
    EXPECT_EQ(table[3], freed[0]) << "the lowest free place";
    EXPECT_EQ(table[5], 6);

    workers->set_sizes(6, 1, 12);
    EXPECT_TRUE(workers->pass(5));
    EXPECT_EQ(workers->sizes(), (numbers{8, 3}));
    EXPECT_EQ(workers->occupied(), (numbers{0, 1, 2, 3, 4, 5, 6, 7})) << "both places again";
    EXPECT_EQ(workers->table(), (numbers{0, 8, 0, 8, 12, 4}));
}

TEST_F(Threadpool, RetiresNoMoreThanItsMinimumAllows) {
    std::array<gate, 5> gates;
    settled_pool workers(6, 7);
    workers->hold_each(gates);
    EXPECT_TRUE(workers->pass(2));
    EXPECT_EQ(workers->sizes(), (numbers{7, 2}));
    EXPECT_TRUE(workers->release(gates[0], 3));
    EXPECT_TRUE(workers->release(gates[1], 4));
    EXPECT_EQ(workers->sizes(), (numbers{7, 4}));
    EXPECT_TRUE(workers->release(gates[2], 4, 1));
    EXPECT_EQ(workers->sizes(), (numbers{6, 3}));
    EXPECT_EQ(workers->deaths(), 1);
}

/* Idle workers are counted without a sign: below none there are very many. */
TEST_F(Threadpool, CountsBelowNoneIdleAsVeryMany) {
    settled_pool workers(6, 12);
    workers->set_sizes(6, 0, 12);
    gate at;
    workers->hold(at);
    EXPECT_EQ(workers->sizes(), (numbers{6, -1}));
    EXPECT_TRUE(workers->pass(5));
    EXPECT_EQ(workers->sizes(), (numbers{6, -1})) << "as few as there may be already";
    at.open();
    EXPECT_TRUE(workers->settles(8)) << "none idle is few again";
    EXPECT_EQ(workers->sizes(), (numbers{8, 2}));
}

/* ---- The table ----------------------------------------------------------------------------------
 */

/* All workers of a pool, each held at a gate of its own. */
class held_workers {
  public:
    explicit held_workers(settled_pool &workers) : workers_(workers) {
        workers_->hold_each(gates_);
        for (gate &at : gates_)
            by_index_[static_cast<std::size_t>(workers_->index_of(at))] = &at;
    }

    /* Has the worker at this place of the table take its leave, the only one that can. It comes
     * back once more, and reaps, before it does. */
    bool retire(std::size_t index) {
        workers_.retire_one();
        by_index_[index]->open();
        return eventually(
            [&] { return workers_->ended() == numbers{static_cast<std::int64_t>(index)}; });
    }

    bool release(std::size_t index) { return workers_->release(*by_index_[index], 1); }

  private:
    settled_pool &workers_;
    std::array<gate, 6> gates_;
    std::array<gate *, 6> by_index_{};
};

TEST_F(Threadpool, ReapsIntoATableOfHolesAndFillsThemFromBelow) {
    settled_pool workers(6, 6);
    held_workers held(workers);
    EXPECT_EQ(workers->table(), (numbers{0, 6, 0, 6, 6, 0}));
    EXPECT_TRUE(held.retire(2));
    EXPECT_EQ(workers->table(), (numbers{0, 6, 0, 6, 6, 0})) << "not reaped yet";
    EXPECT_EQ(workers->deaths(), 1);
    EXPECT_TRUE(held.retire(0));
    EXPECT_EQ(workers->table(), (numbers{0, 6, 0, 2, 6, 1})) << "2 is free";
    EXPECT_TRUE(held.retire(5));
    EXPECT_EQ(workers->table(), (numbers{0, 6, 1, 0, 6, 2})) << "0 and 2";
    EXPECT_TRUE(held.retire(4));
    EXPECT_EQ(workers->table(), (numbers{0, 5, 1, 0, 6, 3})) << "0, 2 and 5";
    EXPECT_TRUE(held.retire(3));
    EXPECT_EQ(workers->table(), (numbers{0, 4, 1, 0, 6, 4})) << "0, 2, 4 and 5";
    EXPECT_EQ(workers->deaths(), 1);
    EXPECT_TRUE(held.release(1));
    EXPECT_EQ(workers->table(), (numbers{0, 2, 1, 0, 6, 5})) << "all but 1";
    EXPECT_EQ(workers->deaths(), 0);
    EXPECT_EQ(workers->sizes(), (numbers{6, 1})) << "an exit is counted off once";

    workers->set_sizes(1, 1, 12);
    EXPECT_TRUE(workers->pass(3));
    EXPECT_EQ(workers->table(), (numbers{0, 3, 0, 3, 6, 3})) << "0 and 2 are filled";
    EXPECT_EQ(workers->occupied(), (numbers{0, 1, 2}));
    workers->set_sizes(1, 1, 12);
    EXPECT_TRUE(workers->pass(5));
    workers->set_sizes(1, 1, 12);
    EXPECT_TRUE(workers->pass(7));
    EXPECT_EQ(workers->table(), (numbers{0, 7, 0, 7, 12, 5})) << "doubled";
}

TEST_F(Threadpool, ReapsATableEmptyByAWorkerOutsideIt) {
    settled_pool workers(6, 6);
    for (int i = 0; i < 6; i++)
        workers.retire_one();
    EXPECT_TRUE(workers->settles(0, 6));
    EXPECT_EQ(workers->deaths(), 6);
    thread *stranger = thread_new_for_pool(workers.get());
    EXPECT_TRUE(eventually([&] { return workers->deaths() == 0; }));
    EXPECT_EQ(workers->table(), (numbers{0, 0, -1, 0, 6, 6}));
    EXPECT_EQ(workers->occupied(), numbers{});
    EXPECT_EQ(thread_del_for_pool(stranger), 0);
}

void *end_thread(void *) {
    pthread_exit(nullptr);
}

/* Who ends otherwise than by an exit task announces nothing, and is found with the next who does.
 */
TEST_F(Threadpool, ReapsWhoeverHasEndedOnceADeathIsAnnounced) {
    settled_pool workers(6, 6);
    ASSERT_EQ(threadpool_exec(workers.get(), end_thread, nullptr), 0);
    EXPECT_TRUE(workers->settles(5, 1));
    EXPECT_EQ(workers->deaths(), 0);
    EXPECT_TRUE(workers->pass(5, 1)) << "nothing to look for";
    workers.retire_one();
    EXPECT_TRUE(workers->settles(4, 2));
    EXPECT_EQ(workers->deaths(), 1);
    EXPECT_TRUE(workers->pass(4));
    EXPECT_EQ(workers->deaths(), 0);
    EXPECT_EQ(workers->occupied().size(), 4U);
    EXPECT_EQ(workers->sizes(), (numbers{6, 4}));
}

/* ---- What pools say -----------------------------------------------------------------------------
 */

TEST_F(Threadpool, SaysWhenExitTasksDoNotFit) {
    const auto crowded = [] {
        const keel_test::watchdog watchdog;
        threadpool *workers = threadpool_new(6, 12, 1, 1, 1);
        pool_watch watch(workers);
        bool ok = watch.settles(6);
        std::array<gate, 6> gates;
        gate last;
        watch.hold_each(gates);
        ok &= threadpool_exec(workers, gate::task, &last) == 0;
        watch.set_sizes(9, 5, 12);
        gates[0].open();
        last.wait_until_reached();
        ok &= watch.sizes() == numbers{7, 3}; // decided all the same; one took the last task
        ok &= watch.ended().empty();
        ok &= threadpool_del(workers) == 0;
        _exit(ok ? 0 : 1);
    };
    const std::string refused = "thread_run_for_pool : can't push thread exit task.\n";
    EXPECT_EQ(run_in_child(crowded), keel_test::exited(0, refused + refused));
}

/* ---- Deleting pools -----------------------------------------------------------------------------
 */

struct cancelled_task {
    semaphore reached;
    std::atomic<int> cancelled = 0;

    static void note(void *self) { static_cast<cancelled_task *>(self)->cancelled++; }

    static void *task(void *self) {
        pthread_cleanup_push(note, self);
        wait_for_more(&static_cast<cancelled_task *>(self)->reached);
        pthread_cleanup_pop(0);
        return nullptr;
    }
};

TEST_F(Threadpool, DeletionCancelsRunningTasksAndDropsQueuedOnes) {
    cancelled_task running;
    counter queued;
    threadpool *workers = threadpool_new(6, 6, 4, 4, 64);
    for (int i = 0; i < 6; i++)
        ASSERT_EQ(threadpool_exec(workers, cancelled_task::task, &running), 0);
    running.reached.wait(6);
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(threadpool_exec(workers, counter::task, &queued), 0);
    EXPECT_EQ(threadpool_del(workers), 0);
    EXPECT_EQ(running.cancelled, 6);
    EXPECT_EQ(queued.calls, 0);
}

TEST_F(Threadpool, DeletionTakesWorkersWhoseTaskTurnedCancellationOff) {
    threadpool *workers = threadpool_new(6, 6, 4, 4, 16);
    semaphore done;
    const auto turn_off = [](void *posted) -> void * {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        static_cast<semaphore *>(posted)->post();
        return nullptr;
    };
    EXPECT_EQ(threadpool_exec(workers, turn_off, &done), 0);
    done.wait();
    EXPECT_EQ(threadpool_del(workers), 0);
}

TEST_F(Threadpool, DeletionWaitsForATaskThatCannotBeCancelled) {
    uncancellable running;
    counter queued;
    threadpool *workers = threadpool_new(6, 6, 4, 4, 64);
    pool_watch watch(workers);
    std::array<gate, 5> gates;
    watch.hold_each(gates);
    ASSERT_EQ(threadpool_exec(workers, uncancellable::routine, &running), 0);
    running.reached.wait();
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(threadpool_exec(workers, counter::task, &queued), 0);
    EXPECT_EQ(threadpool_del(workers), 0);
    EXPECT_TRUE(running.finished);
    EXPECT_EQ(queued.calls, 0) << "its worker leaves then";
}

TEST_F(Threadpool, DeletionTakesWorkersInEveryState) {
    gate at;
    threadpool *workers = threadpool_new(6, 6, 4, 4, 64);
    pool_watch watch(workers);
    ASSERT_TRUE(watch.settles(6));
    threadpool_exec(workers, thread_exit_for_pool, nullptr);
    threadpool_exec(workers, end_thread, nullptr);
    ASSERT_TRUE(watch.settles(4, 2));
    watch.hold(at);
    EXPECT_EQ(threadpool_del(workers), 0);

    EXPECT_EQ(threadpool_del(threadpool_new(6, 6, 0, 0, 0)), 0) << "not even begun";
}

/* ---- Stress -----------------------------------------------------------------------------------
 */

/* Tasks that must not run any more once their pool is deleted. */
struct mortal_tasks {
    std::atomic<bool> deleted = false;
    std::atomic<int> late = 0;

    static void *task(void *self) {
        auto &at = *static_cast<mortal_tasks *>(self);
        spin(10'000);
        pthread_testcancel();
        sched_yield();
        if (at.deleted)
            at.late++;
        return nullptr;
    }
};

/* A pool that has grown is deleted while some of its workers retire, others run and tasks are
 * queued. Returns whether all went well, and counts the decisions to retire that were seen. */
bool delete_under_load(std::minstd_rand &random, std::atomic<int> &retirements) {
    std::array<gate, 5> gates;
    mortal_tasks tasks;
    threadpool *workers = threadpool_new(6, 12, 1, 4, 64);
    pool_watch watch(workers);
    watch.hold_each(gates);
    bool ok = eventually([&] {
        semaphore done;
        threadpool_exec(workers, post_task, &done);
        done.wait();
        return watch.sizes()[0] > 6;
    });
    for (gate &at : gates)
        at.open();
    for (unsigned i = static_cast<unsigned>(random()) % 20; i > 0; i--)
        threadpool_exec(workers, mortal_tasks::task, &tasks);
    spin(static_cast<unsigned>(random()) % 500'000);
    if (watch.sizes()[0] == 6)
        retirements++;
    ok &= threadpool_del(workers) == 0;
    tasks.deleted = true;
    return ok && tasks.late == 0;
}

TEST_F(ThreadpoolStress, DeletionUnderLoadWhileWorkersRetire) {
    const int rounds = keel_test::rounds(sanitized ? 2000 : 6000);
    std::atomic<int> retirements = 0;
    std::atomic<int> wrong = 0;
    {
        std::vector<std::jthread> deleting;
        for (std::uint32_t seed = 1; seed <= 2; seed++)
            deleting.emplace_back([&, seed] {
                std::minstd_rand random(seed);
                for (int i = 0; i < rounds / 2; i++)
                    wrong += delete_under_load(random, retirements) ? 0 : 1;
            });
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(retirements, 0);
    RecordProperty("retirements", retirements);
}

/* Workers that come and are cancelled, wherever they happen to be, while others go on popping: no
 * task is lost, but for those that are cancelled within. */
TEST_F(ThreadpoolStress, CancelledWaitersHoldNobodyUp) {
    constexpr int rounds = sanitized ? 5000 : 20'000;
    threadpool *workers = threadpool_new(6, 6, 16, 16, 1 << 20);
    counter count;
    std::minstd_rand random(1);
    int tasks = 0;
    for (int i = 0; i < rounds; i++) {
        thread *passing = thread_new_for_pool(workers);
        ASSERT_NE(passing, nullptr);
        for (unsigned left = static_cast<unsigned>(random()) % 4; left > 0; left--, tasks++)
            ASSERT_EQ(threadpool_exec(workers, counter::task, &count), 0);
        spin(static_cast<unsigned>(random()) % 100'000);
        ASSERT_EQ(thread_del_for_pool(passing), 0);
    }
    EXPECT_TRUE(eventually([&] { return count.calls == tasks; }));
    EXPECT_EQ(threadpool_del(workers), 0);
}

/* Pools that breathe: bursts of work make them grow, quiet makes them shrink, over and over. */
TEST_F(ThreadpoolStress, GrowsAndShrinksUnderBursts) {
    constexpr int bursts = sanitized ? 200 : 500;
    threadpool *workers = threadpool_new(6, 24, 16, 16, 1 << 20);
    pool_watch watch(workers);
    mortal_tasks tasks;
    counter count;
    int run = 0;
    std::int64_t least = 24;
    std::int64_t most = 6;
    for (int i = 0; i < bursts; i++) {
        for (int j = 0; j < 100; j++, run++) {
            ASSERT_EQ(threadpool_exec(workers, mortal_tasks::task, &tasks), 0);
            ASSERT_EQ(threadpool_exec(workers, counter::task, &count), 0);
        }
        ASSERT_TRUE(eventually([&] { return count.calls == run; }));
        const std::int64_t total = watch.sizes()[0];
        least = std::min(least, total);
        most = std::max(most, total);
    }
    EXPECT_EQ(threadpool_del(workers), 0);
    EXPECT_GE(least, 6);
    EXPECT_LE(most, 24);
}

} // namespace

/* SPDX-License-Identifier: MIT */
#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <unistd.h>
#include <vector>

#include "waiting.h"
#include "xthread.h"

namespace keel_test {

enum state : std::int32_t { idle, busy, hung, stopped };

/* The result of a thread that has none yet. */
inline void *const none = reinterpret_cast<void *>(-1);

inline void *number(std::uintptr_t value) {
    return reinterpret_cast<void *>(value);
}

/* The state is written by the thread itself, without a lock. */
inline std::int32_t state_of(thread &self) {
    return std::atomic_ref(self.state).load();
}

inline bool has_ended(thread *self) {
    return eventually([&] { return value_of(self->necrology) == 1; });
}

inline void *give_back(void *arg) {
    return arg;
}

/* Posts the semaphore it is given, and waits to be cancelled. */
inline void *wait_for_more(void *reached) {
    static_cast<semaphore *>(reached)->post();
    semaphore never;
    never.wait();
    return reached;
}

/* Runs for a while in which it cannot be cancelled, and returns 5. */
struct uncancellable {
    semaphore reached;
    std::atomic<bool> finished = false;

    static void *routine(void *self) {
        auto &at = *static_cast<uncancellable *>(self);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        at.reached.post();
        usleep(20'000);
        at.finished = true;
        return number(5);
    }
};

/* A task that keeps its worker busy until it is let go. */
class gate {
  public:
    static void *task(void *self) {
        gate &at = *static_cast<gate *>(self);
        at.worker_ = pthread_self();
        at.reached_.post();
        at.open_.wait();
        return nullptr;
    }

    void wait_until_reached() { reached_.wait(); }
    void open() { open_.post(); }

    /* The worker that has reached it. */
    pthread_t worker() const { return worker_; }

  private:
    semaphore reached_;
    semaphore open_;
    pthread_t worker_{};
};

/* A task that posts the semaphore it is given. */
inline void *post_task(void *done) {
    static_cast<semaphore *>(done)->post();
    return nullptr;
}

using numbers = std::vector<std::int64_t>;

/* Looks at a pool from outside, under its lock. */
class pool_watch {
  public:
    explicit pool_watch(threadpool *watched) : pool_(*watched) {}

    template <class Body>
    auto locked(const Body &body) {
        pthread_mutex_lock(&pool_.lock);
        auto result = body();
        pthread_mutex_unlock(&pool_.lock);
        return result;
    }

    /* {total, idle} */
    numbers sizes() {
        return locked([&] { return numbers{number(pool_.pool.total), number(pool_.pool.idle)}; });
    }

    /* What pool_resize() will find. */
    void set_sizes(std::uint64_t total, std::uint64_t idle, std::uint64_t max) {
        locked([&] {
            pool_.pool.total = total;
            pool_.pool.idle = idle;
            pool_.pool.max = max;
            return 0;
        });
    }

    /* {empty, top, first, next_free, capacity, nfree} */
    numbers table() {
        return locked([&] {
            const vector &table = *pool_.threads;
            return numbers{
                table.empty,        table.top, table.first, table.next_free, number(table.capacity),
                number(table.nfree)};
        });
    }

    /* The occupied places of the table, in which nothing else is left. */
    numbers occupied() {
        return indices([](thread &) { return true; });
    }

    /* Where the table holds workers that wait for a task. */
    numbers waiting() {
        return indices(
            [](thread &one) { return value_of(one.necrology) == 0 && state_of(one) == hung; });
    }

    /* Where it holds workers that have ended. */
    numbers ended() {
        return indices([](thread &one) { return value_of(one.necrology) > 0; });
    }

    /* Whether it comes to this: so many workers wait for a task, and so many have ended and are not
     * freed yet. */
    bool settles(std::size_t waiting_ones, std::size_t ended_ones = 0) {
        return eventually(
            [&] { return waiting().size() == waiting_ones && ended().size() == ended_ones; });
    }

    /* Where the table holds the worker that is at `at`. */
    std::int64_t index_of(const gate &at) {
        const numbers found =
            indices([&](thread &one) { return pthread_equal(one.tid, at.worker()) != 0; });
        return found.size() == 1 ? found[0] : -1;
    }

    int deaths() { return value_of(pool_.necrology); }

    /* Has a worker come to the gate. */
    void hold(gate &at) {
        threadpool_exec(&pool_, gate::task, &at);
        at.wait_until_reached();
    }

    template <class Gates>
    void hold_each(Gates &gates) {
        for (gate &at : gates)
            hold(at);
    }

    /* Has a worker run a task and come back for more: true once it and those it may have started
     * wait again, so many in all. */
    bool pass(std::size_t waiting_ones, std::size_t ended_ones = 0) {
        semaphore done;
        threadpool_exec(&pool_, post_task, &done);
        done.wait();
        return settles(waiting_ones, ended_ones);
    }

    /* Lets the worker at the gate go on: true once it waits as well. */
    bool release(gate &at, std::size_t waiting_ones, std::size_t ended_ones = 0) {
        at.open();
        return settles(waiting_ones, ended_ones);
    }

  private:
    static std::int64_t number(std::uint64_t value) { return static_cast<std::int64_t>(value); }

    template <class Which>
    numbers indices(const Which &which) {
        return locked([&] {
            numbers found;
            for (std::uint64_t i = 0; i < pool_.threads->capacity; i++) {
                auto *worker = static_cast<thread *>(pool_.threads->items[i]);
                if (worker != nullptr && which(*worker))
                    found.push_back(number(i));
            }
            return found;
        });
    }

    threadpool &pool_;
};

/* The record of a pool without workers, for those that a test starts itself. It neither grows nor
 * shrinks. Giving back its queue's read lock twice, or another's, ends the process. */
class bare_pool {
  public:
    bare_pool() {
        pool_create(&pool_.pool, 6, 6);
        pool_.pool.idle = 4;
        pthread_mutex_init(&pool_.lock, nullptr);
        sem_init(&pool_.necrology, 0, 0);
        const ring_queue_param param = {16, sizeof(threadpool_task), 1, 16, 1024};
        pool_.queue = queue_new(&param);
        pool_.threads = &table_;
        watch_unlocks();
    }
    ~bare_pool() {
        queue_del(pool_.queue);
        sem_destroy(&pool_.necrology);
        pthread_mutex_destroy(&pool_.lock);
    }
    bare_pool(const bare_pool &) = delete;
    bare_pool &operator=(const bare_pool &) = delete;

    threadpool *operator->() { return &pool_; }
    threadpool *get() { return &pool_; }

    pthread_mutex_t *read_lock() { return &pool_.queue->rd_lock; }

    /* Whether the queue's read lock can be had. */
    bool is_unlocked() {
        if (pthread_mutex_trylock(read_lock()) != 0)
            return false;
        pthread_mutex_unlock(read_lock());
        return true;
    }

  private:
    void watch_unlocks() {
        pthread_mutexattr_t checking;
        pthread_mutexattr_init(&checking);
        pthread_mutexattr_settype(&checking, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_destroy(read_lock());
        pthread_mutex_init(read_lock(), &checking);
        pthread_mutexattr_destroy(&checking);
    }

    threadpool pool_{};
    vector table_{.empty = 1,
                  .top = 0,
                  .first = -1,
                  .next_free = 0,
                  .items = nullptr,
                  .capacity = 0,
                  .nfree = 0,
                  .destroy = nullptr};
};

} // namespace keel_test

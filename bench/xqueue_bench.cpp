/* SPDX-License-Identifier: MIT */
/* The ring queue between threads, and on one. */
#include <atomic>
#include <boost/thread/sync_bounded_queue.hpp>
#include <cstdint>
#include <cstdio>
#include <glib.h>
#include <memory>
#include <pthread.h>
#include <string>
#include <tbb/concurrent_queue.h>
#include <thread>
#include <vector>
#include <xqueue.h>

#include "table.h"

using bench::job;
using bench::require;

namespace {

constexpr std::uint64_t slots = 1024;
constexpr int items_per_run = 400'000;

/* An item that is copied. */
struct pair {
    std::uint64_t first;
    std::uint64_t second;
};

void *pointer(int i) {
    return reinterpret_cast<void *>(static_cast<std::uintptr_t>(i) + 1);
}

struct keel_queue {
    explicit keel_queue(std::uint64_t slot_size) {
        const ring_queue_param param = {slots, slot_size, 0, 0, 0};
        queue = queue_new(&param);
    }
    ~keel_queue() { queue->del(queue); }
    keel_queue(const keel_queue &) = delete;
    keel_queue &operator=(const keel_queue &) = delete;

    ring_queue *queue;
};

struct keel_pointers : keel_queue {
    keel_pointers() : keel_queue(0) {}
    void push(int i) const {
        void *item = pointer(i);
        require(queue->push(queue, &item, -1) == 0, "push failed");
    }
    void pop() const {
        void *item = nullptr;
        require(queue->pop(queue, &item, -1) == 0, "pop failed");
    }
};

struct keel_pairs : keel_queue {
    keel_pairs() : keel_queue(sizeof(pair)) {}
    void push(int i) const {
        pair item = {static_cast<std::uint64_t>(i), 0};
        void *place = &item;
        require(queue->push(queue, &place, -1, nullptr) == 0, "push failed");
    }
    void pop() const {
        pair item = {};
        void *place = &item;
        require(queue->pop(queue, &place, -1, nullptr) == 0, "pop failed");
    }
};

template <class Item>
struct tbb_queue {
    tbb_queue() { queue.set_capacity(slots); }
    void push(int i) {
        if constexpr (std::is_pointer_v<Item>)
            queue.push(pointer(i));
        else
            queue.push({static_cast<std::uint64_t>(i), 0});
    }
    void pop() {
        Item item{};
        queue.pop(item);
    }
    tbb::concurrent_bounded_queue<Item> queue;
};

struct boost_queue {
    void push(int i) { queue.push_back(pointer(i)); }
    void pop() {
        void *item = nullptr;
        queue.pull_front(item);
    }
    boost::sync_bounded_queue<void *> queue{slots};
};

/* Knows no bound. */
struct glib_queue {
    ~glib_queue() { g_async_queue_unref(queue); }
    void push(int i) const { g_async_queue_push(queue, pointer(i)); }
    void pop() const { g_async_queue_pop(queue); }
    GAsyncQueue *queue = g_async_queue_new();
};

/* What no queue with a lock for each side and a shared count can do without. */
struct locks_alone {
    ~locks_alone() {
        pthread_mutex_destroy(&writers);
        pthread_mutex_destroy(&readers);
    }
    void push(int) {
        pthread_mutex_lock(&writers);
        count.fetch_add(1);
        pthread_mutex_unlock(&writers);
    }
    void pop() {
        pthread_mutex_lock(&readers);
        count.fetch_sub(1);
        pthread_mutex_unlock(&readers);
    }
    alignas(64) pthread_mutex_t writers = PTHREAD_MUTEX_INITIALIZER;
    alignas(64) pthread_mutex_t readers = PTHREAD_MUTEX_INITIALIZER;
    alignas(64) std::atomic<std::uint64_t> count = 0;
};

/* `threads` of each kind share the items. */
template <class Queue>
auto between_threads(int threads) {
    return [=] {
        return job{.run = [queue = std::make_shared<Queue>(), threads] {
            const int share = items_per_run / threads;
            std::vector<std::jthread> workers;
            for (int t = 0; t < threads; t++) {
                workers.emplace_back([&queue, share] {
                    for (int i = 0; i < share; i++)
                        queue->push(i);
                });
                workers.emplace_back([&queue, share] {
                    for (int i = 0; i < share; i++)
                        queue->pop();
                });
            }
        }};
    };
}

template <class Queue>
auto on_one_thread() {
    return [] {
        return job{.run = [queue = std::make_shared<Queue>()] {
            for (int i = 0; i < items_per_run; i++) {
                queue->push(i);
                queue->pop();
            }
        }};
    };
}

bench::table pointers(int threads, double tbb_bar, double glib_bar) {
    const std::string both = std::to_string(threads);
    return {
        .title = "Ring queue of 1,024 pointers, waiting, producers/consumers " + both + "/" + both,
        .item = "item",
        .items = items_per_run,
        .floor = "the count, which both sides change for each item, in the cache of one CPU at a "
                 "time",
        .contenders = {
            {"keel ring queue", between_threads<keel_pointers>(threads)},
            {"TBB concurrent_bounded_queue", between_threads<tbb_queue<void *>>(threads), tbb_bar},
            {"Boost sync_bounded_queue", between_threads<boost_queue>(threads), 0.9},
            {"GLib GAsyncQueue, which has no bound", between_threads<glib_queue>(threads),
             glib_bar},
            {"two mutexes and a count alone", between_threads<locks_alone>(threads)}}};
}

bench::table copies() {
    return {
        .title = "Ring queue of 1,024 copies of 16 bytes, waiting, producers/consumers 1/1",
        .item = "item",
        .items = items_per_run,
        .floor = "as above",
        .contenders = {{"keel ring queue", between_threads<keel_pairs>(1)},
                       {"TBB concurrent_bounded_queue", between_threads<tbb_queue<pair>>(1), 0.9}}};
}

bench::table uncontended() {
    return {.title = "Ring queue, one thread pushes and pops",
            .item = "push and pop",
            .items = items_per_run,
            .floor = "two mutexes, each locked and unlocked, and two atomic additions",
            .contenders = {{"keel ring queue", on_one_thread<keel_pointers>()},
                           {"two mutexes and a count alone", on_one_thread<locks_alone>(), 1.25},
                           {"TBB concurrent_bounded_queue", on_one_thread<tbb_queue<void *>>()},
                           {"Boost sync_bounded_queue", on_one_thread<boost_queue>()}}};
}

} // namespace

int main(int argc, char *argv[]) {
    std::printf("memory: %zu bytes a slot of pointers, %zu a slot of 16-byte copies\n",
                sizeof(void *), sizeof(void *) + 32); // with what the allocator adds
    return bench::measure(argc, argv,
                          {pointers(1, 0.9, 0), pointers(2, 0, 0.5), copies(), uncontended()});
}

/* SPDX-License-Identifier: MIT */
/* Messages of bytes between two threads. */
#include <array>
#include <cstdio>
#include <memory>
#include <semaphore.h>
#include <string>
#include <tbb/concurrent_queue.h>
#include <thread>
#include <xqueue2.h>

#include "table.h"

using bench::job;
using bench::require;

namespace {

constexpr std::uint64_t slots = 1024;
constexpr int messages = 100'000;
constexpr std::size_t longest = 4096;

struct keel_queue {
    keel_queue() { queue_init(&queue, slots); }
    ~keel_queue() { queue_destroy(&queue); }
    keel_queue(const keel_queue &) = delete;
    keel_queue &operator=(const keel_queue &) = delete;

    void put(const char *text, std::size_t size) { queue_put(&queue, text, size); }
    void get(std::size_t size) {
        std::array<char, longest> text;
        require(queue_get(&queue, text.data(), text.size()) == static_cast<ssize_t>(size),
                "queue_get failed");
    }
    blocking_queue queue;
};

struct tbb_strings {
    tbb_strings() { queue.set_capacity(slots); }
    void put(const char *text, std::size_t size) { queue.push(std::string(text, size)); }
    void get(std::size_t size) {
        std::string text;
        queue.pop(text);
        require(text.size() == size, "pop failed");
    }
    tbb::concurrent_bounded_queue<std::string> queue;
};

/* A message's way through the queue without the message: two semaphores, two mutexes and an index,
 * in the record's own order. */
struct steps_alone {
    steps_alone() { queue_init(&queue, slots); }
    ~steps_alone() { queue_destroy(&queue); }
    steps_alone(const steps_alone &) = delete;
    steps_alone &operator=(const steps_alone &) = delete;

    void put(const char *, std::size_t) {
        sem_wait(&queue.vacant);
        pthread_mutex_lock(&queue.wr_lock);
        queue.wr = (queue.wr + 1) % slots;
        pthread_mutex_unlock(&queue.wr_lock);
        sem_post(&queue.filled);
    }
    void get(std::size_t) {
        sem_wait(&queue.filled);
        pthread_mutex_lock(&queue.rd_lock);
        queue.rd = (queue.rd + 1) % slots;
        pthread_mutex_unlock(&queue.rd_lock);
        sem_post(&queue.vacant);
    }
    blocking_queue queue;
};

template <class Queue>
auto between_threads(std::size_t size) {
    return [=] {
        return job{.run = [queue = std::make_shared<Queue>(), size] {
            const std::string text(size, 'x');
            std::jthread consumer([&] {
                for (int i = 0; i < messages; i++)
                    queue->get(size);
            });
            for (int i = 0; i < messages; i++)
                queue->put(text.data(), size);
        }};
    };
}

bench::table sized(const char *size_text, std::size_t size, double bar) {
    return {
        .title = std::string("Blocking queue, messages of ") + size_text +
                 ", one producer, one consumer",
        .item = "message",
        .items = messages,
        .floor =
            "two semaphores and two mutexes for each message, side by side in the caller's record",
        .contenders = {
            {"keel blocking queue", between_threads<keel_queue>(size)},
            {"TBB concurrent_bounded_queue of strings", between_threads<tbb_strings>(size), bar},
            {"its semaphores and locks alone", between_threads<steps_alone>(size)}}};
}

} // namespace

int main(int argc, char *argv[]) {
    std::printf("memory: %zu bytes a slot, and the longest message that it has held\n",
                sizeof(blocking_queue_slot));
    return bench::measure(argc, argv, {sized("64 bytes", 64, 1.2), sized("4 KB", longest, 0.5)});
}

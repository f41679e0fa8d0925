/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <pthread.h>
#include <utility>

#include "xqueue.h"

namespace keel_test {

constexpr fifo_slot_function plain_copy = nullptr;

struct delete_queue {
    void operator()(ring_queue *queue) const { queue->del(queue); }
};

using unique_queue = std::unique_ptr<ring_queue, delete_queue>;

inline unique_queue new_queue(const ring_queue_param &param) {
    return unique_queue(queue_new(&param));
}

/* That never grows. */
inline unique_queue fixed_queue(std::uint64_t slots, std::uint64_t slot_size = 0) {
    return new_queue({slots, slot_size, 0, 0, 0});
}

/* A block that holds a number, for a queue whose items have `slot_size` bytes. */
inline void *number_block(std::uint64_t number, std::uint64_t slot_size = 0) {
    void *block = std::calloc(1, slot_size < sizeof number ? sizeof number : slot_size);
    std::memcpy(block, &number, sizeof number);
    return block;
}

/* An item of a test: a number, in a block that is freed if its item is not moved away. */
class number_item {
  public:
    explicit number_item(std::uint64_t number, std::uint64_t slot_size = 0)
        : block_(number_block(number, slot_size)) {}
    ~number_item() { std::free(block_); }
    number_item(const number_item &) = delete;
    number_item &operator=(const number_item &) = delete;

    void **item() { return &block_; }
    bool moved() const { return block_ == nullptr; }
    std::uint64_t number() const {
        std::uint64_t number = 0;
        std::memcpy(&number, block_, sizeof number);
        return number;
    }

  private:
    void *block_;
};

inline bool push_number(ring_queue *queue, std::uint64_t number, std::int64_t timeout) {
    number_item item(number, queue->fifo->slot_size);
    return queue->push(queue, item.item(), timeout, plain_copy) == 0;
}

/* None where nothing could be taken. */
inline std::optional<std::uint64_t> pop_number(ring_queue *queue, std::int64_t timeout) {
    const std::uint64_t slot_size = queue->fifo->slot_size;
    number_item item(0, slot_size);
    if (slot_size == 0)
        std::free(std::exchange(*item.item(), nullptr));
    if (queue->pop(queue, item.item(), timeout, plain_copy) != 0)
        return {};
    return item.number();
}

/* Held by nobody, this thread included. */
inline bool is_free(pthread_mutex_t &mutex) {
    if (pthread_mutex_trylock(&mutex) != 0)
        return false;
    pthread_mutex_unlock(&mutex);
    return true;
}

inline bool locks_are_free(ring_queue *queue) {
    return is_free(queue->rd_lock) && is_free(queue->wr_lock);
}

} // namespace keel_test

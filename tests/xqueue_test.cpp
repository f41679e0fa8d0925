/* SPDX-License-Identifier: MIT */
#include "xqueue.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <sys/time.h>
#include <type_traits>
#include <utility>
#include <vector>

#include "queue_items.h"
#include "threads.h"
#include "waiting.h"

namespace {

using keel_test::fixed_queue;
using keel_test::is_free;
using keel_test::locks_are_free;
using keel_test::new_queue;
using keel_test::number_item;
using keel_test::plain_copy;
using keel_test::pop_number;
using keel_test::push_number;
using keel_test::run_cancelled;
using keel_test::spin;
using keel_test::unique_queue;
using keel_test::watchdog;
using keel_test::worker;

std::vector<std::uint64_t> pop_all(ring_queue *queue) {
    std::vector<std::uint64_t> numbers;
    while (const auto number = pop_number(queue, 0))
        numbers.push_back(*number);
    return numbers;
}

std::vector<std::uint64_t> numbers_from(std::uint64_t first, std::uint64_t count) {
    std::vector<std::uint64_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

TEST(Queue, RecordsHaveTheirFieldsInPlace) {
    const struct {
        std::size_t offset, expected;
    } rows[] = {
        {offsetof(ring_queue_param, nslots), 0},
        {offsetof(ring_queue_param, slot_size), 8},
        {offsetof(ring_queue_param, expandable), 16},
        {offsetof(ring_queue_param, step), 24},
        {offsetof(ring_queue_param, max), 32},
        {sizeof(ring_queue_param), 40},
        {offsetof(ring_queue, fifo), 0},
        {offsetof(ring_queue, not_empty), 8},
        {offsetof(ring_queue, not_full), 56},
        {offsetof(ring_queue, rd_lock), 104},
        {offsetof(ring_queue, wr_lock), 144},
        {offsetof(ring_queue, del), 184},
        {offsetof(ring_queue, pop), 192},
        {offsetof(ring_queue, push), 200},
        {offsetof(ring_queue, lock), 208},
        {offsetof(ring_queue, unlock), 216},
        {offsetof(ring_queue, slots_resize), 224},
        {sizeof(ring_queue), 232},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.offset, row.expected);
    static_assert(std::is_same_v<decltype(ring_queue_param::nslots), std::uint64_t>);
    static_assert(std::is_same_v<decltype(ring_queue_param::slot_size), std::uint64_t>);
    static_assert(std::is_same_v<decltype(ring_queue_param::expandable), std::int32_t>);
    static_assert(std::is_same_v<decltype(ring_queue_param::step), std::uint64_t>);
    static_assert(std::is_same_v<decltype(ring_queue_param::max), std::uint64_t>);
    static_assert(std::is_same_v<decltype(ring_queue::fifo), fifo *>);
}

TEST(QueueNew, FillsItsTableOfOperations) {
    const unique_queue queue = fixed_queue(1);
    EXPECT_EQ(queue->del, &queue_del);
    EXPECT_EQ(queue->pop, static_cast<decltype(queue->pop)>(&queue_pop));
    EXPECT_EQ(queue->push, static_cast<decltype(queue->push)>(&queue_push));
    EXPECT_EQ(queue->lock, &queue_lock);
    EXPECT_EQ(queue->unlock, &queue_unlock);
    EXPECT_EQ(queue->slots_resize, &queue_slots_resize);
}

TEST(QueueNew, MakesTheRingThatIsAskedFor) {
    const struct {
        ring_queue_param param;
        std::uint64_t capacity;
        std::int32_t expandable;
        std::uint64_t step;
    } rows[] = {
        {{0, 0, 0, 0, 0}, 1, 0, 0},   {{0, 8, 1, 0, 0}, 1, 0, 0},
        {{1, 0, 0, 0, 0}, 1, 0, 0},   {{4, 0, 1, 10, 6}, 4, 1, 2},
        {{4, 24, 1, 10, 6}, 4, 1, 2}, {{4, 0, 1, 0, 6}, 4, 1, 1},
        {{4, 0, 1, 2, 4}, 4, 0, 2},   {{4, 1, 2, 2, 8}, 4, 2, 2},
        {{3, 0, -1, 2, 8}, 3, -1, 2}, {{1000, 1, 0, 0, 9}, 1000, 0, 0},
    };
    for (const auto &row : rows) {
        const unique_queue queue = new_queue(row.param);
        const fifo &ring = *queue->fifo;
        EXPECT_EQ(ring.capacity, row.capacity);
        EXPECT_EQ(ring.slot_size, row.param.slot_size);
        EXPECT_EQ(ring.expandable, row.expandable);
        EXPECT_EQ(ring.step, row.step);
        EXPECT_EQ(ring.max, row.param.max);
        EXPECT_EQ(ring.count, 0U);
        for (std::uint64_t slot = 0; slot < ring.capacity; slot++)
            EXPECT_EQ(ring.slots[slot] != nullptr, ring.slot_size != 0);
        EXPECT_TRUE(locks_are_free(queue.get()));
    }
}

TEST(Queue, ReportsNull) {
    const unique_queue queue = fixed_queue(1);
    int thing = 0;
    void *item = &thing;
    void *nothing = nullptr;
    EXPECT_EQ(queue_new(nullptr), nullptr);
    EXPECT_EQ(queue_del(nullptr), -1);
    EXPECT_EQ(queue_lock(nullptr), -1);
    EXPECT_EQ(queue_unlock(nullptr), -1);
    EXPECT_EQ(queue_slots_resize(nullptr, 0), -1);
    EXPECT_EQ(queue_slots_resize(nullptr, 8), -1);
    for (const std::int64_t timeout : {-1, 0, 1}) {
        EXPECT_EQ(queue_push(static_cast<ring_queue *>(nullptr), &item, timeout), -1);
        EXPECT_EQ(queue_push(queue.get(), nullptr, timeout), -1);
        EXPECT_EQ(queue_push(queue.get(), &nothing, timeout), -1);
        EXPECT_EQ(queue_pop(static_cast<ring_queue *>(nullptr), &item, timeout), -1);
        EXPECT_EQ(queue_pop(queue.get(), nullptr, timeout), -1);
    }
    EXPECT_EQ(item, &thing);
    EXPECT_EQ(queue->fifo->count, 0U);
    EXPECT_TRUE(locks_are_free(queue.get()));
}

TEST(Queue, RefusesNullBuffersOfSizedItems) {
    const unique_queue queue = fixed_queue(2, 8);
    void *nothing = nullptr;
    EXPECT_EQ(queue->push(queue.get(), &nothing, -1, plain_copy), -1);
    EXPECT_EQ(queue->fifo->count, 0U);
    ASSERT_TRUE(push_number(queue.get(), 7, 0));
    EXPECT_EQ(queue->pop(queue.get(), &nothing, -1, plain_copy), -1);
    EXPECT_EQ(queue->fifo->count, 1U);
    EXPECT_TRUE(locks_are_free(queue.get()));
    EXPECT_EQ(pop_number(queue.get(), 0), 7U);
}

TEST(Queue, MovesPointersInAndOut) {
    const unique_queue queue = fixed_queue(2);
    int thing = 0;
    int other = 0;
    void *item = &thing;
    ASSERT_EQ(queue->push(queue.get(), &item, 0), 0);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(queue->fifo->slots[0], &thing);
    item = &other; // is overwritten
    ASSERT_EQ(queue->pop(queue.get(), &item, 0), 0);
    EXPECT_EQ(item, &thing);
    EXPECT_EQ(queue->fifo->slots[0], nullptr);
}

TEST(Queue, CopiesSizedItems) {
    for (const std::size_t size : {1U, 3U, 8U, 100U}) {
        const unique_queue queue = fixed_queue(2, size);
        std::string in = std::string(size, 'i') + "more";
        std::string out = std::string(size, 'o') + "more";
        void *item = in.data();
        ASSERT_EQ(queue->push(queue.get(), &item, 0, plain_copy), 0);
        EXPECT_EQ(item, in.data());
        EXPECT_EQ(in, std::string(size, 'i') + "more");
        in.assign(in.size(), 'x'); // the queue has its own
        item = out.data();
        ASSERT_EQ(queue->pop(queue.get(), &item, 0, plain_copy), 0);
        EXPECT_EQ(item, out.data());
        EXPECT_EQ(out, std::string(size, 'i') + "more");
    }
}

struct copy_call {
    void **dst;
    void **src;
    std::uint64_t size;
    int number;
    const char *text;
};
copy_call last_copy;

/* Copies backwards; what it returns is nobody's business. */
void *copy_reversed(void **dst, void **src, std::uint64_t size, std::va_list ap) {
    const int number = va_arg(ap, int);
    last_copy = {dst, src, size, number, va_arg(ap, const char *)};
    const auto *from = static_cast<const char *>(*src);
    std::reverse_copy(from, from + size, static_cast<char *>(*dst));
    return nullptr;
}

TEST(Queue, LeavesTheCopyToAFunction) {
    const fifo_slot_function copy = copy_reversed;
    const unique_queue queue = fixed_queue(2, 3);
    char in[] = "abc";
    char out[] = "---";
    void *item = in;
    const char *text = "text";
    ASSERT_EQ(queue->push(queue.get(), &item, 0, copy, 42, text), 0);
    EXPECT_EQ(last_copy.dst, &queue->fifo->slots[0]);
    EXPECT_EQ(last_copy.src, &item);
    EXPECT_EQ(last_copy.size, 3U);
    EXPECT_EQ(last_copy.number, 42);
    EXPECT_EQ(last_copy.text, text);
    ASSERT_EQ(queue->push(queue.get(), &item, 0, plain_copy), 0);

    item = out;
    ASSERT_EQ(queue->pop(queue.get(), &item, 0, plain_copy), 0);
    EXPECT_STREQ(out, "cba");
    ASSERT_EQ(queue->pop(queue.get(), &item, 0, copy, 43, text), 0);
    EXPECT_STREQ(out, "cba"); // "abc", turned round on the way out
    EXPECT_EQ(last_copy.dst, &item);
    EXPECT_EQ(last_copy.src, &queue->fifo->slots[1]);
    EXPECT_EQ(last_copy.size, 3U);
    EXPECT_EQ(last_copy.number, 43);
    EXPECT_EQ(last_copy.text, text);
}

TEST(Queue, FailsAtOnceWithoutTime) {
    for (const std::uint64_t slot_size : {0U, 8U}) {
        const unique_queue queue = fixed_queue(2, slot_size);
        number_item out(9, slot_size);
        void *const untouched = *out.item();
        EXPECT_EQ(queue->pop(queue.get(), out.item(), 0, plain_copy), -1);
        EXPECT_EQ(*out.item(), untouched);
        EXPECT_EQ(out.number(), 9U);

        EXPECT_TRUE(push_number(queue.get(), 0, 0));
        EXPECT_TRUE(push_number(queue.get(), 1, 0));
        EXPECT_EQ(queue->push(queue.get(), out.item(), 0, plain_copy), -1);
        EXPECT_EQ(*out.item(), untouched);
        EXPECT_TRUE(locks_are_free(queue.get()));
        EXPECT_EQ(pop_all(queue.get()), numbers_from(0, 2));
    }
}

/* Seconds that `act` takes on the wall clock. */
double seconds_of(const std::function<void()> &act) {
    timeval before{};
    timeval after{};
    timeval passed{};
    gettimeofday(&before, nullptr);
    act();
    gettimeofday(&after, nullptr);
    timersub(&after, &before, &passed);
    return static_cast<double>(passed.tv_sec) + static_cast<double>(passed.tv_usec) / 1e6;
}

TEST(Queue, GivesUpWhenTheMillisecondsHavePassed) {
    const watchdog scope;
    const unique_queue queue = fixed_queue(1);
    for (const std::int64_t milliseconds : {1, 50, 120}) {
        const double least = static_cast<double>(milliseconds) / 1000;
        EXPECT_GE(seconds_of([&] { EXPECT_FALSE(pop_number(queue.get(), milliseconds)); }), least);
        ASSERT_TRUE(push_number(queue.get(), 1, milliseconds));
        const auto push = [&] { EXPECT_FALSE(push_number(queue.get(), 2, milliseconds)); };
        EXPECT_GE(seconds_of(push), least);
        EXPECT_TRUE(locks_are_free(queue.get()));
        EXPECT_EQ(pop_number(queue.get(), milliseconds), 1U);
    }
}

constexpr std::int64_t waiting_timeouts[] = {-1, 600'000, INT64_C(0x100000000), INT64_MAX};

TEST(QueuePush, WaitsForAPop) {
    const watchdog scope;
    for (const std::int64_t timeout : waiting_timeouts) {
        const unique_queue queue = fixed_queue(1);
        ASSERT_TRUE(push_number(queue.get(), 1, timeout));
        std::atomic<bool> pushed = false;
        worker pusher([&] { pushed = push_number(queue.get(), 2, timeout); });
        ASSERT_TRUE(pusher.falls_asleep());
        EXPECT_FALSE(pushed);
        EXPECT_EQ(pop_number(queue.get(), 0), 1U);
        pusher.join();
        EXPECT_TRUE(pushed);
        EXPECT_EQ(pop_number(queue.get(), 0), 2U);
    }
}

TEST(QueuePop, WaitsForAPush) {
    const watchdog scope;
    for (const std::int64_t timeout : waiting_timeouts) {
        const unique_queue queue = fixed_queue(1);
        std::optional<std::uint64_t> popped;
        worker popper([&] { popped = pop_number(queue.get(), timeout); });
        ASSERT_TRUE(popper.falls_asleep());
        EXPECT_TRUE(push_number(queue.get(), 1, 0));
        popper.join();
        EXPECT_EQ(popped, 1U);
    }
}

TEST(Queue, RefusesATimeoutWhileAnotherHoldsTheLocks) {
    const watchdog scope;
    const unique_queue queue = fixed_queue(2, 8);
    ASSERT_TRUE(push_number(queue.get(), 1, 0));
    ASSERT_EQ(queue->lock(queue.get()), 0);
    number_item item(2, 8);
    worker([&] {
        void *nothing = nullptr;
        for (const std::int64_t timeout : {INT64_C(-2), INT64_C(-1000), INT64_MIN}) {
            EXPECT_EQ(queue->push(queue.get(), item.item(), timeout, plain_copy), -1);
            EXPECT_EQ(queue->pop(queue.get(), item.item(), timeout, plain_copy), -1);
        }
        EXPECT_EQ(queue->push(queue.get(), nullptr, -1, plain_copy), -1);
        EXPECT_EQ(queue->push(queue.get(), &nothing, -1, plain_copy), -1);
        EXPECT_EQ(queue->pop(queue.get(), nullptr, -1, plain_copy), -1);
    }).join();
    EXPECT_EQ(item.number(), 2U);
    EXPECT_EQ(queue->fifo->count, 1U);
    ASSERT_EQ(queue->unlock(queue.get()), 0);
    EXPECT_EQ(pop_all(queue.get()), numbers_from(1, 1));
}

TEST(QueuePush, GrowsAFullRingWithoutWaiting) {
    const struct {
        ring_queue_param param;
        std::vector<std::uint64_t> capacities; // after each push with success
    } rows[] = {
        {{1, 0, 1, 1, 3}, {1, 2, 3}},
        {{1, 0, 1, 2, 4}, {1, 3, 3, 4}},
        {{2, 0, 1, 100, 5}, {2, 2, 5, 5, 5}},
        {{0, 0, 1, 0, 2}, {1, 2}},
        {{3, 0, 1, 2, 3}, {3, 3, 3}},                    // at its maximum from the start
        {{1, 0, 0, 1, 3}, {1}},                          // not by wish
        {{1, 0, 2, 1, 3}, {1}},                          // only 1 is the wish
        {{1, 0, -1, 1, 3}, {1}},                         //
        {{1, 0, 1, UINT64_C(1) << 32, UINT64_MAX}, {1}}, // as signed 32-bit number: no growth
    };
    for (auto row : rows)
        for (const std::uint64_t slot_size : {0U, 16U})
            for (const std::int64_t timeout : {0, 1, -1}) {
                row.param.slot_size = slot_size;
                const unique_queue queue = new_queue(row.param);
                std::uint64_t pushed = 0;
                for (const std::uint64_t capacity : row.capacities) {
                    ASSERT_TRUE(push_number(queue.get(), pushed++, timeout));
                    EXPECT_EQ(queue->fifo->capacity, capacity);
                }
                EXPECT_FALSE(push_number(queue.get(), pushed, std::max<std::int64_t>(timeout, 0)));
                EXPECT_EQ(queue->fifo->capacity, row.capacities.back());
                EXPECT_NE(queue->fifo->expandable, 1);
                EXPECT_EQ(pop_all(queue.get()), numbers_from(0, pushed));
            }
}

TEST(Queue, IsAQueueWhateverHappens) {
    for (const std::uint64_t slot_size : {0U, 8U, 33U})
        for (unsigned seed = 0; seed < 100; seed++) {
            std::mt19937 random(seed);
            const std::uint64_t init = 1 + random() % 5;
            const std::uint64_t step = random() % 4;
            const std::uint64_t max = std::max<std::uint64_t>(init, random() % 30);
            const unique_queue queue = new_queue({init, slot_size, 1, step, max});
            std::deque<std::uint64_t> reference;
            for (std::uint64_t i = 0; i < 400; i++) {
                if (random() % 9 < 5) {
                    const bool room = reference.size() < max;
                    ASSERT_EQ(push_number(queue.get(), i, 0), room);
                    if (room)
                        reference.push_back(i);
                } else if (reference.empty()) {
                    ASSERT_FALSE(pop_number(queue.get(), 0));
                } else {
                    ASSERT_EQ(pop_number(queue.get(), 0), reference.front());
                    reference.pop_front();
                }
                const fifo &ring = *queue->fifo;
                ASSERT_EQ(ring.count, reference.size());
                ASSERT_EQ(ring.wr, (ring.rd + ring.count) % ring.capacity);
                ASSERT_LE(ring.capacity, max);
            }
            const std::vector<std::uint64_t> rest(reference.begin(), reference.end());
            ASSERT_EQ(pop_all(queue.get()), rest);
        }
}

TEST(QueueDel, FreesWhatIsStillInside) {
    for (const std::uint64_t slot_size : {0U, 16U})
        for (std::uint64_t held = 0; held <= 5; held++) {
            const ring_queue_param param = {2, slot_size, 1, 1, 5};
            ring_queue *queue = queue_new(&param);
            for (std::uint64_t i = 0; i < held; i++)
                ASSERT_TRUE(push_number(queue, i, 0));
            EXPECT_EQ(queue->del(queue), 0);
        }
}

TEST(QueueLock, HoldsBackPushesAndPops) {
    const watchdog scope;
    const unique_queue queue = fixed_queue(2);
    ASSERT_TRUE(push_number(queue.get(), 1, 0));
    ASSERT_EQ(queue->lock(queue.get()), 0);
    EXPECT_FALSE(is_free(queue->rd_lock));
    EXPECT_FALSE(is_free(queue->wr_lock));
    std::atomic<bool> pushed = false;
    std::optional<std::uint64_t> popped;
    worker pusher([&] { pushed = push_number(queue.get(), 2, 0); });
    worker popper([&] { popped = pop_number(queue.get(), 0); });
    EXPECT_TRUE(pusher.falls_asleep());
    EXPECT_TRUE(popper.falls_asleep());
    EXPECT_EQ(queue->fifo->count, 1U);
    ASSERT_EQ(queue->unlock(queue.get()), 0);
    pusher.join();
    popper.join();
    EXPECT_TRUE(pushed);
    EXPECT_EQ(popped, 1U);
    EXPECT_TRUE(locks_are_free(queue.get()));
    EXPECT_EQ(pop_all(queue.get()), numbers_from(2, 1));
}

TEST(QueueLock, LetsTheCallerChangeTheQueue) {
    const unique_queue queue = fixed_queue(3, 8);
    for (std::uint64_t i = 0; i < 3; i++)
        ASSERT_TRUE(push_number(queue.get(), i, 0));
    EXPECT_EQ(pop_number(queue.get(), 0), 0U);
    queue->lock(queue.get());
    fifo_slots_resize(queue->fifo, 16); // which discards the rest
    queue->unlock(queue.get());
    EXPECT_FALSE(pop_number(queue.get(), 0));
    for (std::uint64_t i = 0; i < 3; i++)
        EXPECT_TRUE(push_number(queue.get(), i, 0));
    queue->lock(queue.get());
    queue->fifo->wr = (queue->fifo->rd + 1) % queue->fifo->capacity; // only the oldest is left
    queue->fifo->count = 1;
    queue->unlock(queue.get());
    EXPECT_EQ(pop_all(queue.get()), numbers_from(0, 1));
}

TEST(QueueSlotsResize, DoesWhatTheRingDoes) {
    for (const std::uint64_t size : {1U, 8U, 100U}) {
        const unique_queue queue = fixed_queue(4, 8);
        for (std::uint64_t i = 0; i < 3; i++)
            ASSERT_TRUE(push_number(queue.get(), i, 0));
        EXPECT_EQ(pop_number(queue.get(), 0), 0U);
        EXPECT_EQ(queue->slots_resize(queue.get(), size), 0);
        EXPECT_EQ(queue->fifo->slot_size, size);
        EXPECT_EQ(queue->fifo->count, size == 8 ? 2U : 0U);
        if (size == 8) {
            EXPECT_EQ(pop_all(queue.get()), numbers_from(1, 2));
            continue;
        }
        EXPECT_FALSE(pop_number(queue.get(), 0));
        for (std::uint64_t i = 0; i < 5; i++)
            EXPECT_EQ(push_number(queue.get(), i, 0), i < 4);
        EXPECT_EQ(pop_all(queue.get()), numbers_from(0, 4));
    }
}

TEST(QueueSlotsResize, TurnsPointerSlotsIntoBuffers) {
    const unique_queue queue = fixed_queue(4);
    for (std::uint64_t i = 0; i < 3; i++)
        ASSERT_TRUE(push_number(queue.get(), i, 0));
    EXPECT_EQ(queue->slots_resize(queue.get(), 24), 0);
    EXPECT_FALSE(pop_number(queue.get(), 0));
    EXPECT_TRUE(push_number(queue.get(), 5, 0));
    EXPECT_EQ(pop_all(queue.get()), numbers_from(5, 1));
}

TEST(QueueSlotsResize, ToNothingReleasesTheSlots) {
    const unique_queue queue = fixed_queue(2);
    ASSERT_TRUE(push_number(queue.get(), 1, 0));
    EXPECT_EQ(queue->slots_resize(queue.get(), 0), 0);
    EXPECT_EQ(queue->fifo->slots[0], nullptr);
    EXPECT_EQ(queue->fifo->count, 1U);
}

TEST(QueueSlotsResize, TakesNoLock) {
    const watchdog scope;
    const unique_queue queue = fixed_queue(2, 8);
    ASSERT_EQ(queue->lock(queue.get()), 0);
    worker([&] { EXPECT_EQ(queue->slots_resize(queue.get(), 16), 0); }).join();
    ASSERT_EQ(queue->unlock(queue.get()), 0);
    EXPECT_EQ(queue->fifo->slot_size, 16U);
}

TEST(Is2power32, TellsThePowersOfTwo) {
    for (unsigned shift = 0; shift < 32; shift++) {
        const std::uint32_t power = UINT32_C(1) << shift;
        EXPECT_EQ(is2power32(power), 1) << power;
        if (shift > 1) {
            EXPECT_EQ(is2power32(power - 1), 0) << power;
            EXPECT_EQ(is2power32(power + 1), 0) << power;
            EXPECT_EQ(is2power32(power | UINT32_C(0x80000001)), 0) << power;
        }
    }
    for (const std::uint32_t number : {UINT32_C(0), UINT32_C(6), UINT32_MAX, UINT32_MAX - 1})
        EXPECT_EQ(is2power32(number), 0) << number;
}

/* Cancellation. */

TEST(QueueCancelled, InAPushLeavesTheItemWithItsOwner) {
    const watchdog scope;
    for (const std::uint64_t slot_size : {0U, 8U})
        for (const std::int64_t timeout : waiting_timeouts) {
            const unique_queue queue = fixed_queue(1, slot_size);
            ASSERT_TRUE(push_number(queue.get(), 1, 0));
            number_item item(2, slot_size);
            bool returned = false;
            worker pusher([&] {
                queue->push(queue.get(), item.item(), timeout, plain_copy);
                returned = true;
            });
            ASSERT_TRUE(pusher.falls_asleep());
            pusher.cancel();
            EXPECT_TRUE(pusher.join());
            EXPECT_FALSE(returned);
            ASSERT_FALSE(item.moved());
            EXPECT_EQ(item.number(), 2U);
            EXPECT_TRUE(locks_are_free(queue.get()));
            EXPECT_EQ(pop_all(queue.get()), numbers_from(1, 1));
            EXPECT_EQ(queue->push(queue.get(), item.item(), 0, plain_copy), 0);
            EXPECT_EQ(pop_all(queue.get()), numbers_from(2, 1));
        }
}

TEST(QueueCancelled, InAPopLeavesTheQueueToOthers) {
    const watchdog scope;
    for (const std::uint64_t slot_size : {0U, 8U})
        for (const std::int64_t timeout : waiting_timeouts) {
            const unique_queue queue = fixed_queue(1, slot_size);
            number_item out(9, slot_size);
            bool returned = false;
            worker popper([&] {
                queue->pop(queue.get(), out.item(), timeout, plain_copy);
                returned = true;
            });
            ASSERT_TRUE(popper.falls_asleep());
            popper.cancel();
            EXPECT_TRUE(popper.join());
            EXPECT_FALSE(returned);
            EXPECT_EQ(out.number(), 9U);
            EXPECT_TRUE(locks_are_free(queue.get()));
            EXPECT_TRUE(push_number(queue.get(), 1, 0));
            EXPECT_EQ(pop_all(queue.get()), numbers_from(1, 1));
        }
}

TEST(QueueCancelled, OnlyWhereItWouldWait) {
    const unique_queue queue = fixed_queue(2);
    int steps = 0;
    EXPECT_TRUE(run_cancelled([&] {
        steps += push_number(queue.get(), 1, -1);
        steps += push_number(queue.get(), 2, 1000);
        steps += !push_number(queue.get(), 3, 0);
        steps += pop_number(queue.get(), -1) == 1;
        steps += pop_number(queue.get(), 1000) == 2;
        steps += !pop_number(queue.get(), 0);
        pop_number(queue.get(), -1);
        steps = -1;
    }));
    EXPECT_EQ(steps, 6);
    EXPECT_TRUE(locks_are_free(queue.get()));
}

/* Many threads. An item is the number of its producer and its own number there. */

constexpr std::uint64_t item_of(std::uint64_t producer, std::uint64_t number) {
    return producer << 32 | number;
}

/* What has come out of a queue: from each producer everything, once. */
class ledger {
  public:
    ledger(std::size_t producers, std::uint64_t items_each) {
        for (std::size_t i = 0; i < producers; i++)
            times_.emplace_back(items_each);
    }

    void add(std::uint64_t item) {
        auto &of_producer = times_.at(item >> 32);
        of_producer.at(item & UINT32_MAX).fetch_add(1, std::memory_order_relaxed);
        total_.fetch_add(1, std::memory_order_relaxed);
    }

    std::uint64_t total() const { return total_; }

    bool all_once() const {
        for (const auto &of_producer : times_)
            for (const auto &times : of_producer)
                if (times != 1)
                    return false;
        return true;
    }

  private:
    std::deque<std::deque<std::atomic<int>>> times_;
    std::atomic<std::uint64_t> total_ = 0;
};

/* Whether one consumer gets the items of each producer in their order. */
class order_check {
  public:
    explicit order_check(std::size_t producers) : next_(producers) {}

    void add(std::uint64_t item) {
        std::uint64_t &next = next_.at(item >> 32);
        in_order_ = in_order_ && (item & UINT32_MAX) >= next;
        next = (item & UINT32_MAX) + 1;
    }

    bool in_order() const { return in_order_; }

  private:
    std::vector<std::uint64_t> next_;
    bool in_order_ = true;
};

struct transfer {
    ring_queue_param param;
    std::size_t producers, consumers;
    std::uint64_t items_each;
    std::size_t timed = 0;  // of the producers and of the consumers, so many wait 1 ms at a time
    bool inspected = false; // by a thread that locks the queue over and over
};

/* Every thread in it leaves only with its work done, so that a wake-up that is lost hangs it. */
class transfer_run {
  public:
    explicit transfer_run(const transfer &plan)
        : plan_(plan), queue_(new_queue(plan.param)), ledger_(plan.producers, plan.items_each) {}

    void run() {
        std::list<worker> workers;
        std::optional<worker> inspector;
        if (plan_.inspected)
            inspector.emplace([this] { inspect(); });
        for (std::size_t i = 0; i < plan_.consumers; i++)
            workers.emplace_back([this, i] { consume(timeout_of(i)); });
        for (std::size_t i = 0; i < plan_.producers; i++)
            workers.emplace_back([this, i] { produce(i, timeout_of(i)); });
        workers.clear();
        done_ = true;
        inspector.reset();
        EXPECT_TRUE(ledger_.all_once());
        EXPECT_TRUE(in_order_);
        EXPECT_TRUE(sound_);
        EXPECT_EQ(queue_->fifo->count, 0U);
    }

  private:
    std::int64_t timeout_of(std::size_t thread) const { return thread < plan_.timed ? 1 : -1; }

    void produce(std::size_t producer, std::int64_t timeout) {
        for (std::uint64_t i = 0; i < plan_.items_each; i++)
            while (!push_number(queue_.get(), item_of(producer, i), timeout))
                EXPECT_GT(timeout, 0);
    }

    void consume(std::int64_t timeout) {
        const std::uint64_t all = plan_.producers * plan_.items_each;
        order_check order(plan_.producers);
        while (tickets_.fetch_add(1) < all) {
            std::optional<std::uint64_t> item;
            while (!(item = pop_number(queue_.get(), timeout)))
                EXPECT_GT(timeout, 0);
            ledger_.add(*item);
            order.add(*item);
        }
        if (!order.in_order())
            in_order_ = false;
    }

    void inspect() {
        for (; !done_; sched_yield()) {
            queue_->lock(queue_.get());
            const fifo &ring = *queue_->fifo;
            if (ring.count > ring.capacity || ring.wr != (ring.rd + ring.count) % ring.capacity)
                sound_ = false;
            queue_->unlock(queue_.get());
        }
    }

    const transfer plan_;
    const unique_queue queue_;
    ledger ledger_;
    std::atomic<std::uint64_t> tickets_ = 0;
    std::atomic<bool> in_order_ = true;
    std::atomic<bool> sound_ = true;
    std::atomic<bool> done_ = false;
};

void run_all(const std::vector<transfer> &plans) {
    for (const transfer &plan : plans) {
        SCOPED_TRACE(testing::Message()
                     << plan.param.nslots << " slots, " << plan.producers << " producers, "
                     << plan.consumers << " consumers, slot size " << plan.param.slot_size);
        transfer_run(plan).run();
    }
}

TEST(QueueStress, FixedRingsLoseNobody) {
    const watchdog scope;
    std::vector<transfer> plans;
    for (const std::uint64_t slots : {1U, 2U, 3U})
        for (const std::uint64_t slot_size : {0U, 8U}) {
            const ring_queue_param param = {slots, slot_size, 0, 0, 0};
            plans.push_back({param, 1, 1, 10'000});
            plans.push_back({param, 1, 6, 5'000});
            plans.push_back({param, 6, 1, 1'000});
            plans.push_back({param, 4, 4, 2'000});
        }
    run_all(plans);
}

TEST(QueueStress, GrowingRingsLoseNobody) {
    const watchdog scope;
    std::vector<transfer> plans;
    for (int round = 0; round < 30; round++)
        for (const std::uint64_t slot_size : {0U, 8U}) {
            plans.push_back({{1, slot_size, 1, 1, 3}, 3, 3, 100});
            plans.push_back({{1, slot_size, 1, 3, 40}, 4, 2, 100});
            plans.push_back({{2, slot_size, 1, 2, 400}, 2, 4, 200});
        }
    run_all(plans);
}

TEST(QueueStress, TimedWaitersTakeNoWakeUpsAway) {
    const watchdog scope;
    std::vector<transfer> plans;
    for (const std::uint64_t slots : {1U, 2U, 3U}) {
        plans.push_back({{slots, 0, 0, 0, 0}, 4, 4, 1'500, 2});
        plans.push_back({{slots, 8, 0, 0, 0}, 2, 6, 2'000, 1});
        plans.push_back({{slots, 0, 0, 0, 0}, 5, 2, 1'000, 1});
        plans.push_back({{slots, 0, 1, 1, 5}, 4, 4, 1'000, 3});
    }
    run_all(plans);
}

TEST(QueueStress, LockingHoldsNobodyUpForGood) {
    const watchdog scope;
    std::vector<transfer> plans;
    for (int round = 0; round < 20; round++)
        for (const std::uint64_t slots : {1U, 3U}) {
            plans.push_back({{slots, 0, 0, 0, 0}, 3, 3, 200, 0, true});
            plans.push_back({{slots, 8, 1, 1, 60}, 3, 2, 200, 1, true});
        }
    run_all(plans);
}

/* Balls go round between two queues. With fewer balls than players most of these sleep, and one
 * whose wake-up is lost is lost with its turns. */
void play_ping_pong(std::size_t players_each, std::uint64_t balls, int turns) {
    const unique_queue ping = fixed_queue(balls);
    const unique_queue pong = fixed_queue(balls);
    const auto play = [turns](ring_queue *from, ring_queue *to) {
        for (int i = 0; i < turns; i++) {
            const auto ball = pop_number(from, -1);
            EXPECT_TRUE(ball && push_number(to, *ball, -1));
        }
    };
    for (std::uint64_t ball = 0; ball < balls; ball++)
        ASSERT_TRUE(push_number(ping.get(), ball, 0));
    std::list<worker> players;
    for (std::size_t i = 0; i < players_each; i++) {
        players.emplace_back([&] { play(ping.get(), pong.get()); });
        players.emplace_back([&] { play(pong.get(), ping.get()); });
    }
    players.clear();
    std::vector<std::uint64_t> left = pop_all(ping.get());
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, numbers_from(0, balls));
    EXPECT_FALSE(pop_number(pong.get(), 0));
}

TEST(QueueStress, PingPongGoesOn) {
    const watchdog scope;
    play_ping_pong(1, 1, 40'000);
    play_ping_pong(4, 1, 3'000);
    play_ping_pong(4, 2, 4'000);
    play_ping_pong(5, 3, 4'000);
}

/* Two threads that begin each round at the same moment, as far as the system allows. */
class round_start {
  public:
    /* Of the one that says whether there is another round. */
    bool announce(bool another) {
        if (!another)
            last_ = announced_;
        meet();
        announced_++;
        return another;
    }

    /* Of the other one. */
    bool another() {
        meet();
        return joined_++ != last_;
    }

  private:
    void meet() {
        const std::uint64_t both = (arrived_.fetch_add(1) / 2 + 1) * 2;
        for (unsigned turn = 1; arrived_ < both; turn++)
            if (turn % 1'000 == 0) // the other one may need this processor
                sched_yield();
    }

    std::atomic<std::uint64_t> arrived_ = 0;
    std::atomic<std::uint64_t> last_ = UINT64_MAX;
    std::uint64_t announced_ = 0;
    std::uint64_t joined_ = 0;
};

/* In each round one thread has to wait, and the other one makes way at about the moment when the
 * first one has seen that it must wait and is on its way to sleep. It takes aim by how long the
 * former waits took: short ones met the first thread still awake, so that it may come later. */
void wake_on_the_way_to_sleep(bool pushes_wait) {
    using clock = std::chrono::steady_clock;
    const unique_queue queue = fixed_queue(1, 8);
    const auto push = [&](std::int64_t timeout) {
        EXPECT_TRUE(push_number(queue.get(), 1, timeout));
    };
    const auto pop = [&](std::int64_t timeout) { EXPECT_EQ(pop_number(queue.get(), timeout), 1U); };
    if (pushes_wait)
        push(0);
    round_start start;
    std::atomic<bool> slept = false;
    worker waiter([&] {
        while (start.another()) {
            const auto begin = clock::now();
            pushes_wait ? push(-1) : pop(-1);
            slept = clock::now() - begin > std::chrono::microseconds(5);
        }
    });
    std::minstd_rand random(1);
    unsigned turns = 0;
    const auto end = clock::now() + std::chrono::milliseconds(1'500);
    while (start.announce(clock::now() < end)) {
        const unsigned step = 1 + static_cast<unsigned>(random() >> 8) % 32;
        turns = slept ? turns - std::min(turns, step) : turns + step;
        spin(turns);
        pushes_wait ? pop(0) : push(0);
    }
}

TEST(QueueStress, NobodyIsForgottenOnTheWayToSleep) {
    const watchdog scope;
    for (const bool pushes_wait : {false, true})
        wake_on_the_way_to_sleep(pushes_wait);
}

TEST(QueueStress, GrowthAndLockingDoNotBlockEachOther) {
    const watchdog scope;
    constexpr int rounds = 5'000;
    constexpr std::uint64_t slots = 24;
    unique_queue queue;
    round_start start;
    std::atomic<bool> pushed = false;
    worker pusher([&] {
        while (start.another()) {
            for (std::uint64_t i = 0; i < slots; i++)
                EXPECT_TRUE(push_number(queue.get(), i, -1));
            pushed = true;
        }
    });
    for (int round = 0;; round++) {
        queue = new_queue({1, 8, 1, 1, slots});
        pushed = false;
        if (!start.announce(round < rounds))
            break;
        for (unsigned turn = 0; turn < slots; turn++) {
            EXPECT_EQ(queue->lock(queue.get()), 0);
            EXPECT_LE(queue->fifo->count, queue->fifo->capacity);
            EXPECT_EQ(queue->unlock(queue.get()), 0);
            spin(turn * 10); // which lets the pusher in
        }
        while (!pushed)
            sched_yield();
        EXPECT_EQ(queue->fifo->capacity, slots);
        EXPECT_EQ(queue->fifo->count, slots);
    }
}

/* Threads that work on one queue while others of their kind are cancelled at any time, and
 * replaced. Of each producer one thread at a time is alive: it goes on where the former one ended.
 */
class cancelled_transfer {
  public:
    cancelled_transfer(const ring_queue_param &param, std::size_t lanes, std::uint64_t items_each,
                       unsigned seed)
        : queue_(new_queue(param)), items_each_(items_each), random_(seed), next_(lanes),
          ledger_(lanes, items_each) {
        for (std::size_t lane = 0; lane < lanes; lane++) {
            start_producer(producers_.emplace_back(), lane);
            start_consumer(consumers_.emplace_back());
        }
    }

    /* Cancels one thread after the other until everything is through. */
    void run() {
        const std::uint64_t all = items_each_ * next_.size();
        while (ledger_.total() < all) {
            const std::size_t lane = random_() % next_.size();
            const bool producer = random_() % 2 != 0;
            auto &victim = (producer ? producers_ : consumers_)[lane];
            if (random_() % 4 != 0) // the others are met wherever they are
                victim->falls_asleep();
            victim->cancel();
            victim->join();
            if (producer)
                start_producer(victim, lane);
            else
                start_consumer(victim);
            go_on_without_cancelling();
        }
        for (auto &consumer : consumers_)
            consumer->cancel();
        consumers_.clear();
        producers_.clear();
        EXPECT_TRUE(ledger_.all_once());
        EXPECT_EQ(queue_->fifo->count, 0U);
        EXPECT_TRUE(locks_are_free(queue_.get()));
    }

  private:
    using slot = std::unique_ptr<worker>;

    /* Those who are alive get some items through, or are forgotten. */
    void go_on_without_cancelling() {
        const std::uint64_t all = items_each_ * next_.size();
        const std::uint64_t goal = std::min(all, ledger_.total() + random_() % 20);
        while (ledger_.total() < goal)
            sched_yield();
    }

    /* Between a push and its note there is nowhere to be cancelled. */
    void start_producer(slot &place, std::size_t lane) {
        place = std::make_unique<worker>([this, lane] {
            for (std::uint64_t &next = next_[lane]; next < items_each_; next++) {
                number_item item(item_of(lane, next), queue_->fifo->slot_size);
                while (queue_->push(queue_.get(), item.item(), timeout_of(next), plain_copy) != 0)
                    pthread_testcancel();
            }
        });
    }

    void start_consumer(slot &place) {
        place = std::make_unique<worker>([this] {
            for (std::uint64_t i = 0;; i++)
                if (const auto item = pop_number(queue_.get(), timeout_of(i)))
                    ledger_.add(*item);
        });
    }

    /* Now and then a short one. */
    static std::int64_t timeout_of(std::uint64_t turn) { return turn % 5 == 4 ? 1 : -1; }

    const unique_queue queue_;
    const std::uint64_t items_each_;
    std::mt19937 random_;
    std::vector<std::uint64_t> next_; // to be pushed, by producer
    ledger ledger_;
    std::vector<slot> producers_;
    std::vector<slot> consumers_;
};

TEST(QueueStress, CancelledWaitersTakeNothingWithThem) {
    const watchdog scope;
    unsigned seed = 1;
    for (const std::uint64_t slot_size : {0U, 8U})
        for (const std::uint64_t slots : {1U, 2U, 3U}) {
            SCOPED_TRACE(testing::Message() << slots << " slots of size " << slot_size);
            cancelled_transfer({slots, slot_size, 0, 0, 0}, 4, 400, seed++).run();
            cancelled_transfer({slots, slot_size, 1, 1, slots + 2}, 3, 400, seed++).run();
        }
}

} // namespace

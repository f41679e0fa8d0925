/* SPDX-License-Identifier: MIT */
#include "xfifo.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "child.h"

namespace {

using keel_test::exited;
using keel_test::run_in_child;

constexpr fifo_slot_function plain_copy = nullptr;

/* Calls a slot function with a list of what stands behind `size`. */
void *call_slot_function(fifo_slot_function function, void **dst, void **src, std::uint64_t size,
                         ...) {
    std::va_list ap;
    va_start(ap, size);
    void *result = function(dst, src, size, ap);
    va_end(ap);
    return result;
}

/* A ring of numbers, put in and taken out as the ring's user does. */
class number_ring {
  public:
    number_ring(std::uint64_t init, std::int32_t expandable, std::uint64_t step, std::uint64_t max,
                std::uint64_t slot_size = 0)
        : ring_(fifo_new(init, expandable, step, max)) {
        if (slot_size != 0) {
            EXPECT_EQ(fifo_slots_resize(ring_, slot_size), 0);
        }
    }
    ~number_ring() {
        EXPECT_EQ(fifo_slots_resize(ring_, 0), 0);
        EXPECT_EQ(fifo_del(ring_), 0);
    }
    number_ring(const number_ring &) = delete;
    number_ring &operator=(const number_ring &) = delete;

    fifo *get() const { return ring_; }
    fifo *operator->() const { return ring_; }
    bool full() const { return ring_->count == ring_->capacity; }

    void put(std::uint64_t number) {
        void *item = block_of(number);
        void *const former = item;
        call_slot_function(ring_->write, &ring_->slots[ring_->wr], &item, ring_->slot_size,
                           plain_copy);
        EXPECT_EQ(item, ring_->slot_size == 0 ? nullptr : former);
        std::free(item);
        ring_->wr = (ring_->wr + 1) % ring_->capacity;
        ring_->count++;
    }

    std::uint64_t take() {
        void *item = ring_->slot_size == 0 ? nullptr : block_of(0);
        void **slot = &ring_->slots[ring_->rd];
        void *const former = *slot;
        call_slot_function(ring_->read, &item, slot, ring_->slot_size, plain_copy);
        EXPECT_EQ(*slot, ring_->slot_size == 0 ? nullptr : former);
        std::uint64_t number = 0;
        std::memcpy(&number, item, sizeof number);
        std::free(item);
        ring_->rd = (ring_->rd + 1) % ring_->capacity;
        ring_->count--;
        return number;
    }

    /* Full, with the oldest item in slot `rd`: the numbers from `first` on. */
    void fill_from(std::uint64_t rd, std::uint64_t first = 0) {
        for (std::uint64_t i = 0; i < rd; i++) {
            put(first);
            take();
        }
        while (!full())
            put(first++);
    }

    std::vector<std::uint64_t> take_all() {
        std::vector<std::uint64_t> numbers;
        while (ring_->count != 0)
            numbers.push_back(take());
        return numbers;
    }

  private:
    void *block_of(std::uint64_t number) const {
        void *block = std::calloc(1, std::max<std::uint64_t>(ring_->slot_size, sizeof number));
        std::memcpy(block, &number, sizeof number);
        return block;
    }

    fifo *ring_;
};

std::vector<std::uint64_t> numbers_from(std::uint64_t first, std::uint64_t count) {
    std::vector<std::uint64_t> numbers;
    for (std::uint64_t i = 0; i < count; i++)
        numbers.push_back(first + i);
    return numbers;
}

bool same_record(const fifo &one, const fifo &other) {
    return one.wr == other.wr && one.rd == other.rd && one.count == other.count &&
           one.capacity == other.capacity && one.slot_size == other.slot_size &&
           one.slots == other.slots && one.expandable == other.expandable &&
           one.step == other.step && one.max == other.max && one.read == other.read &&
           one.write == other.write;
}

TEST(Fifo, RecordHasItsFieldsInPlace) {
    const struct {
        std::size_t offset, expected;
    } rows[] = {
        {offsetof(fifo, wr), 0},          {offsetof(fifo, rd), 8},
        {offsetof(fifo, count), 16},      {offsetof(fifo, capacity), 24},
        {offsetof(fifo, slot_size), 32},  {offsetof(fifo, slots), 40},
        {offsetof(fifo, expandable), 48}, {offsetof(fifo, step), 56},
        {offsetof(fifo, max), 64},        {offsetof(fifo, read), 72},
        {offsetof(fifo, write), 80},      {sizeof(fifo), 88},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.offset, row.expected);
    static_assert(std::is_same_v<decltype(fifo::wr), std::uint64_t>);
    static_assert(std::is_same_v<decltype(fifo::rd), std::uint64_t>);
    static_assert(std::is_same_v<decltype(fifo::count), std::uint64_t>);
    static_assert(std::is_same_v<decltype(fifo::capacity), std::uint64_t>);
    static_assert(std::is_same_v<decltype(fifo::slot_size), std::uint64_t>);
    static_assert(std::is_same_v<decltype(fifo::slots), void **>);
    static_assert(std::is_same_v<decltype(fifo::expandable), std::int32_t>);
    static_assert(std::is_same_v<decltype(fifo::step), std::uint64_t>);
    static_assert(std::is_same_v<decltype(fifo::max), std::uint64_t>);
    static_assert(std::is_same_v<decltype(&fifo_slot_rdwr), fifo_slot_function>);
    static_assert(std::is_same_v<decltype(fifo::read), fifo_slot_function>);
    static_assert(std::is_same_v<decltype(fifo::write), fifo_slot_function>);
}

TEST(FifoNew, SettlesHowItMayGrow) {
    const struct {
        std::uint64_t init;
        std::int32_t expandable;
        std::uint64_t step, max;
        std::uint64_t capacity;
        std::int32_t expandable_then;
        std::uint64_t step_then;
    } rows[] = {
        {0, 1, 0, 0, 1, 0, 0},  // 0 slots count as 1
        {0, 1, 5, 1, 1, 0, 5},  // no room above that one
        {0, 1, 5, 2, 1, 1, 1},  // room for one more
        {1, 1, 0, 2, 1, 1, 1},  // a step of 0 counts as 1
        {4, 1, 10, 6, 4, 1, 2}, // a step is bounded by the room
        {4, 1, 2, 6, 4, 1, 2},  //
        {4, 1, 1, 6, 4, 1, 1},  //
        {4, 1, 0, 6, 4, 1, 1},  //
        {4, 1, 2, 4, 4, 0, 2},  // without room it is fixed, the step stays as given
        {4, 1, 0, 4, 4, 0, 0},  //
        {4, 1, UINT64_MAX, 3, 4, 0, UINT64_MAX},
        {4, 0, 10, 6, 4, 0, 2},        // fixed by wish
        {4, 2, 10, 6, 4, 2, 2},        // only 1 means that it may grow, but the flag is kept
        {4, -1, 1, 6, 4, -1, 1},       //
        {4, INT32_MIN, 1, 4, 4, 0, 1}, //
        {1, 1, UINT64_MAX, UINT64_MAX, 1, 1, UINT64_MAX - 1},
    };
    for (const auto &row : rows) {
        const number_ring ring(row.init, row.expandable, row.step, row.max);
        const std::string where = "init " + std::to_string(row.init) + ", step " +
                                  std::to_string(row.step) + ", max " + std::to_string(row.max);
        EXPECT_EQ(ring->capacity, row.capacity) << where;
        EXPECT_EQ(ring->expandable, row.expandable_then) << where;
        EXPECT_EQ(ring->step, row.step_then) << where;
        EXPECT_EQ(ring->max, row.max) << where;
    }
}

TEST(FifoNew, BeginsEmptyWithPointerSlots) {
    for (int i = 0; i < 10; i++) { // the later ones may lie where others have been
        const number_ring ring(5, 1, 2, 9);
        EXPECT_EQ(ring->wr, 0U);
        EXPECT_EQ(ring->rd, 0U);
        EXPECT_EQ(ring->count, 0U);
        EXPECT_EQ(ring->slot_size, 0U);
        EXPECT_EQ(ring->read, &fifo_slot_rdwr);
        EXPECT_EQ(ring->write, &fifo_slot_rdwr);
        for (std::uint64_t slot = 0; slot < 5; slot++)
            EXPECT_EQ(ring->slots[slot], nullptr);
    }
}

TEST(Fifo, EndsWithoutMemory) {
    constexpr std::uint64_t wrapping = UINT64_MAX / sizeof(void *) + 2; // times 8: as good as 1
    const auto no_memory = exited(255, "No memory!!!\n");
    for (const std::uint64_t slots : {UINT64_MAX, wrapping, UINT64_C(1) << 60})
        EXPECT_EQ(run_in_child([&] { fifo_new(slots, 0, 0, 0); }), no_memory) << slots;
    const auto huge_buffers = [] { fifo_slots_resize(fifo_new(1, 0, 0, 0), PTRDIFF_MAX); };
    EXPECT_EQ(run_in_child(huge_buffers), no_memory);
}

TEST(Fifo, ReportsNull) {
    EXPECT_EQ(fifo_del(nullptr), -1);
    EXPECT_EQ(fifo_expand(nullptr), -1);
    for (const std::uint64_t size : {UINT64_C(0), UINT64_C(1), UINT64_MAX})
        EXPECT_EQ(fifo_slots_resize(nullptr, size), -1);
}

TEST(FifoDel, LeavesWhatTheSlotsHoldAlone) {
    fifo *ring = fifo_new(2, 0, 0, 0);
    void *item = std::calloc(1, 8);
    ring->slots[0] = item;
    EXPECT_EQ(fifo_del(ring), 0);
    std::memset(item, 1, 8);
    std::free(item);
}

TEST(FifoSlotRdwr, MovesAPointer) {
    int thing = 0;
    int former = 0;
    for (void *const held : {static_cast<void *>(&former), static_cast<void *>(nullptr)}) {
        void *src = &thing;
        void *dst = held;
        EXPECT_EQ(call_slot_function(fifo_slot_rdwr, &dst, &src, 0), &src);
        EXPECT_EQ(dst, &thing);
        EXPECT_EQ(src, nullptr);
    }
}

TEST(FifoSlotRdwr, FetchesNothingForAPointer) {
    int thing = 0;
    void *src = &thing;
    void *dst = nullptr;
    const auto then_fetch = [](void **to, void **from, std::uint64_t size, std::va_list ap) {
        fifo_slot_rdwr(to, from, size, ap);
        return va_arg(ap, void *);
    };
    int next = 0;
    EXPECT_EQ(call_slot_function(then_fetch, &dst, &src, 0, &next), &next);
    EXPECT_EQ(dst, &thing);
}

TEST(FifoSlotRdwr, CopiesAsManyBytesAsTheSlotHas) {
    for (const std::size_t size : {1U, 2U, 7U, 8U, 9U, 63U}) {
        std::vector<char> from(64, 'f');
        std::vector<char> to(64, 't');
        void *src = from.data();
        void *dst = to.data();
        EXPECT_EQ(call_slot_function(fifo_slot_rdwr, &dst, &src, size, plain_copy), &src);
        EXPECT_EQ(src, from.data());
        EXPECT_EQ(dst, to.data());
        EXPECT_EQ(std::string(to.begin(), to.end()),
                  std::string(size, 'f') + std::string(64 - size, 't'));
        EXPECT_EQ(std::string(from.begin(), from.end()), std::string(64, 'f'));
    }
}

struct seen_call {
    void **dst;
    void **src;
    std::uint64_t size;
    int first;
    const char *second;
};
seen_call seen;
int its_result;

void *own_copy(void **dst, void **src, std::uint64_t size, std::va_list ap) {
    const int first = va_arg(ap, int);
    seen = {dst, src, size, first, va_arg(ap, const char *)};
    return &its_result;
}

TEST(FifoSlotRdwr, LeavesTheCopyToAFunction) {
    char from[] = "from";
    char to[] = "to--";
    void *src = from;
    void *dst = to;
    const char *text = "text";
    const fifo_slot_function copy = own_copy;
    EXPECT_EQ(call_slot_function(fifo_slot_rdwr, &dst, &src, 4, copy, 42, text), &its_result);
    EXPECT_EQ(seen.dst, &dst);
    EXPECT_EQ(seen.src, &src);
    EXPECT_EQ(seen.size, 4U);
    EXPECT_EQ(seen.first, 42);
    EXPECT_EQ(seen.second, text);
    EXPECT_STREQ(to, "to--");
    EXPECT_STREQ(from, "from");
}

TEST(FifoExpand, LeavesARingThatIsNotFullAlone) {
    for (const std::uint64_t slot_size : {0U, 8U})
        for (std::uint64_t held = 0; held < 4; held++) {
            number_ring ring(4, 1, 2, 8, slot_size);
            for (std::uint64_t i = 0; i < held; i++)
                ring.put(i);
            const fifo before = *ring.get();
            const std::vector<void *> slots(ring->slots, ring->slots + 4);
            EXPECT_EQ(fifo_expand(ring.get()), -1);
            EXPECT_TRUE(same_record(*ring.get(), before)) << held;
            EXPECT_EQ(std::vector<void *>(ring->slots, ring->slots + 4), slots);
            EXPECT_EQ(ring.take_all(), numbers_from(0, held));
        }
}

/* One growth of a full ring, wherever its oldest item is. */
void grow_once(number_ring &ring) {
    const fifo before = *ring.get();
    const std::vector<void *> slots(before.slots, before.slots + before.capacity);
    const std::uint64_t growth = std::min(before.step, before.max - before.capacity);
    ASSERT_EQ(fifo_expand(ring.get()), 0);
    ASSERT_EQ(ring->capacity, before.capacity + growth);
    EXPECT_EQ(ring->wr, before.wr);
    EXPECT_EQ(ring->rd, before.rd + growth);
    EXPECT_EQ(ring->count, before.count);
    EXPECT_EQ(ring->step, before.step);
    EXPECT_EQ(ring->max, before.max);
    EXPECT_EQ(ring->slot_size, before.slot_size);
    EXPECT_EQ(ring->expandable, ring->capacity == ring->max ? 0 : 1);
    for (std::uint64_t i = 0; i < ring->capacity; i++) {
        void *const slot = ring->slots[i];
        if (i < before.wr) {
            EXPECT_EQ(slot, slots[i]);
        } else if (i >= before.wr + growth) {
            EXPECT_EQ(slot, slots[i - growth]);
        } else if (ring->slot_size == 0) {
            EXPECT_EQ(slot, nullptr);
        } else {
            const std::vector<char> zeroes(ring->slot_size);
            ASSERT_NE(slot, nullptr);
            EXPECT_EQ(std::memcmp(slot, zeroes.data(), zeroes.size()), 0);
        }
    }
}

/* Grows until the ring is at its maximum, full each time. */
void grow_to_the_end(number_ring &ring, std::uint64_t rd) {
    ring.fill_from(rd);
    while (ring->expandable == 1) {
        grow_once(ring);
        if (testing::Test::HasFatalFailure())
            return;
        while (!ring.full())
            ring.put(ring->count);
    }
    EXPECT_EQ(ring->capacity, ring->max);
    EXPECT_EQ(ring.take_all(), numbers_from(0, ring->max));
}

TEST(FifoExpand, OpensTheGapBetweenNewestAndOldest) {
    for (const std::uint64_t slot_size : {0U, 24U})
        for (std::uint64_t init = 1; init <= 5; init++)
            for (std::uint64_t step = 1; step <= 4; step++)
                for (std::uint64_t max = init + 1; max <= init + 6; max++)
                    for (std::uint64_t rd = 0; rd < init; rd++) {
                        SCOPED_TRACE(testing::Message()
                                     << "size " << slot_size << ", " << init << " + " << step
                                     << " up to " << max << ", oldest in " << rd);
                        number_ring ring(init, 1, step, max, slot_size);
                        grow_to_the_end(ring, rd);
                        ASSERT_FALSE(testing::Test::HasFailure());
                    }
}

TEST(FifoExpand, EndsGrowthAtTheMaximum) {
    number_ring ring(4, 1, 10, 6);
    EXPECT_EQ(ring->step, 2U);
    ring.fill_from(0);
    EXPECT_EQ(fifo_expand(ring.get()), 0);
    EXPECT_EQ(ring->capacity, 6U);
    EXPECT_EQ(ring->expandable, 0);
    ring.put(4);
    ring.put(5);
    EXPECT_EQ(fifo_expand(ring.get()), 0);
    EXPECT_EQ(ring->capacity, 6U);
    EXPECT_EQ(ring->expandable, 0);
    EXPECT_EQ(ring.take_all(), numbers_from(0, 6));
    EXPECT_EQ(ring->expandable, 0);
}

/* A growth that is no positive signed 32-bit number is none. */
TEST(FifoExpand, GrowsByASigned32BitNumber) {
    constexpr std::uint64_t two_to_32 = UINT64_C(1) << 32;
    const struct {
        std::uint64_t step, max;
        std::uint64_t growth;
        int result;
    } rows[] = {
        {two_to_32 + 3, UINT64_MAX, 3, 0},  {two_to_32, UINT64_MAX, 0, 0},
        {two_to_32 / 2, UINT64_MAX, 0, -1}, {two_to_32 - 1, UINT64_MAX, 0, -1},
        {UINT64_MAX, two_to_32 + 1, 0, 0}, // what there is room for is bounded likewise
        {UINT64_MAX, two_to_32 + 3, 2, 0},  {UINT64_MAX, UINT64_MAX, 0, -1},
    };
    for (const auto &row : rows) {
        number_ring ring(1, 1, row.step, row.max);
        ring.fill_from(0);
        EXPECT_EQ(fifo_expand(ring.get()), row.result) << row.step;
        EXPECT_EQ(ring->capacity, 1 + row.growth) << row.step;
        EXPECT_EQ(ring->expandable, row.growth == 0 ? 0 : 1) << row.step;
        EXPECT_EQ(ring.take_all(), numbers_from(0, 1));
    }
}

TEST(FifoExpand, NeverPassesTheMaximum) {
    const struct {
        std::uint64_t init, step, max;
    } rows[] = {{0, 0, 0}, {1, 1, 0}, {4, 2, 4}, {4, 2, 3}, {4, 2, 0}, {4, UINT64_MAX, 1}};
    for (const auto &row : rows) {
        number_ring ring(row.init, 1, row.step, row.max);
        ring.fill_from(0);
        const fifo before = *ring.get();
        const int result = row.max == before.capacity ? 0 : -1;
        EXPECT_EQ(fifo_expand(ring.get()), result) << row.init << " " << row.step << " " << row.max;
        EXPECT_TRUE(same_record(*ring.get(), before));
        EXPECT_EQ(ring.take_all(), numbers_from(0, before.capacity));
    }
}

TEST(FifoSlotsResize, SameSizeChangesNothing) {
    for (const std::uint64_t slot_size : {8U, 100U}) {
        number_ring ring(4, 0, 0, 0, slot_size);
        ring.put(0);
        ring.take();
        ring.put(1);
        ring.put(2);
        const fifo before = *ring.get();
        EXPECT_EQ(fifo_slots_resize(ring.get(), slot_size), 0);
        EXPECT_TRUE(same_record(*ring.get(), before));
        EXPECT_EQ(ring.take_all(), numbers_from(1, 2));
    }
}

TEST(FifoSlotsResize, AnotherSizeDiscardsWhatWasQueued) {
    for (const std::uint64_t before : {0U, 8U, 100U})
        for (const std::uint64_t size : {1U, 9U, 16U, 4096U}) {
            number_ring ring(4, 1, 1, 9, before);
            ring.fill_from(3, 77);
            ring.take();
            ASSERT_EQ(fifo_slots_resize(ring.get(), size), 0);
            EXPECT_EQ(ring->wr, 0U);
            EXPECT_EQ(ring->rd, 0U);
            EXPECT_EQ(ring->count, 0U);
            EXPECT_EQ(ring->slot_size, size);
            EXPECT_EQ(ring->capacity, 4U);
            EXPECT_EQ(ring->expandable, 1);
            const std::vector<char> zeroes(size);
            for (std::uint64_t i = 0; i < 4; i++)
                EXPECT_EQ(std::memcmp(ring->slots[i], zeroes.data(), size), 0) << size;
        }
}

TEST(FifoSlotsResize, ToNothingReleasesEverySlot) {
    for (const std::uint64_t slot_size : {0U, 16U}) {
        number_ring ring(5, 1, 1, 9, slot_size);
        ring.fill_from(2);
        if (slot_size != 0)
            ring.take_all();
        const fifo before = *ring.get();
        EXPECT_EQ(fifo_slots_resize(ring.get(), 0), 0);
        EXPECT_TRUE(same_record(*ring.get(), before));
        for (std::uint64_t i = 0; i < 5; i++)
            EXPECT_EQ(ring->slots[i], nullptr);
        EXPECT_EQ(fifo_slots_resize(ring.get(), 0), 0);
    }
}

TEST(FifoSlotsResize, LooksAtNoSlotOfAnEmptyRingOfPointers) {
    const number_ring ring(2, 0, 0, 0);
    int thing = 0; // which nobody could free
    ring->slots[1] = &thing;
    EXPECT_EQ(fifo_slots_resize(ring.get(), 0), 0);
    EXPECT_EQ(ring->slots[1], &thing);
    ring->slots[1] = nullptr;
}

TEST(Fifo, KeepsTheOrderWhateverHappens) {
    for (const std::uint64_t slot_size : {0U, 8U, 33U})
        for (unsigned seed = 0; seed < 60; seed++) {
            std::mt19937 random(seed);
            number_ring ring(1 + random() % 5, 1, random() % 4, 1 + random() % 40, slot_size);
            std::deque<std::uint64_t> reference;
            std::uint64_t next = 0;
            for (int step = 0; step < 400; step++) {
                if (random() % 9 < 5) {
                    if (ring.full() && (fifo_expand(ring.get()) != 0 || ring.full()))
                        continue;
                    reference.push_back(next);
                    ring.put(next++);
                } else if (!reference.empty()) {
                    ASSERT_EQ(ring.take(), reference.front());
                    reference.pop_front();
                }
                ASSERT_EQ(ring->count, reference.size());
                ASSERT_EQ(ring->wr, (ring->rd + ring->count) % ring->capacity);
                ASSERT_LE(ring->count, ring->capacity);
            }
            const std::vector<std::uint64_t> rest(reference.begin(), reference.end());
            ASSERT_EQ(ring.take_all(), rest);
        }
}

} // namespace

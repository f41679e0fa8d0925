/* SPDX-License-Identifier: MIT */
#include "xfifo.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <limits>

#include "xmemory.h"

namespace {

/* Bytes of `slots` slots. More than there can be are more than memory holds: allocation says so. */
std::size_t size_of_slots(std::uint64_t slots) {
    constexpr std::size_t most = std::numeric_limits<std::ptrdiff_t>::max();
    return slots > most / sizeof(void *) ? most : slots * sizeof(void *);
}

void clear_slots(fifo &ring, std::uint64_t first, std::uint64_t slots) {
    std::memset(ring.slots + first, 0, size_of_slots(slots));
}

} // namespace

fifo *fifo_new(std::uint64_t init, std::int32_t expandable, std::uint64_t step, std::uint64_t max) {
    init = std::max<std::uint64_t>(init, 1);
    if (max > init)
        step = std::min(max - init, std::max<std::uint64_t>(step, 1));
    else
        expandable = 0;

    auto *ring = static_cast<fifo *>(xcalloc(0, sizeof(fifo)));
    ring->slots = static_cast<void **>(xcalloc(0, size_of_slots(init)));
    ring->capacity = init;
    ring->expandable = expandable;
    ring->step = step;
    ring->max = max;
    ring->read = fifo_slot_rdwr;
    ring->write = fifo_slot_rdwr;
    return ring;
}

int fifo_del(fifo *ring) {
    if (ring == nullptr)
        return -1;
    xfree(0, ring->slots);
    xfree(0, ring);
    return 0;
}

int fifo_expand(fifo *ring) {
    if (ring == nullptr)
        return -1;
    if (std::atomic_ref(ring->count).load(std::memory_order_acquire) != ring->capacity)
        return -1;
    const std::uint64_t allowed = ring->max - std::min(ring->max, ring->capacity);
    const auto growth = static_cast<std::int32_t>(std::min(ring->step, allowed));
    if (growth < 1) {
        ring->expandable = 0;
        return growth == 0 && ring->max >= ring->capacity ? 0 : -1;
    }

    const auto added = static_cast<std::uint64_t>(growth);
    const std::uint64_t capacity = ring->capacity + added;
    ring->slots = static_cast<void **>(xrealloc(0, ring->slots, size_of_slots(capacity)));
    void **oldest = ring->slots + ring->rd;
    std::memmove(oldest + added, oldest, size_of_slots(ring->capacity - ring->rd));
    clear_slots(*ring, ring->wr, added);
    if (ring->slot_size != 0)
        for (std::uint64_t i = ring->wr; i < ring->wr + added; i++)
            ring->slots[i] = xcalloc(0, ring->slot_size);
    ring->capacity = capacity;
    ring->rd += added;
    if (ring->capacity == ring->max)
        ring->expandable = 0;
    return 0;
}

int fifo_slots_resize(fifo *ring, std::uint64_t size) {
    if (ring == nullptr)
        return -1;
    if (size == 0) {
        if (ring->slot_size == 0 && ring->count == 0)
            return 0;
        for (std::uint64_t i = 0; i < ring->capacity; i++)
            xfree(0, ring->slots[i]);
        clear_slots(*ring, 0, ring->capacity);
        return 0;
    }
    if (size == ring->slot_size)
        return 0;
    for (std::uint64_t i = 0; i < ring->capacity; i++) {
        ring->slots[i] = xrealloc(0, ring->slots[i], size);
        std::memset(ring->slots[i], 0, size);
    }
    ring->wr = 0;
    ring->rd = 0;
    ring->count = 0;
    ring->slot_size = size;
    return 0;
}

void *fifo_slot_rdwr(void **dst, void **src, std::uint64_t size, std::va_list ap) {
    if (size == 0) {
        *dst = *src;
        *src = nullptr;
        return static_cast<void *>(src);
    }
    if (const auto copy = va_arg(ap, fifo_slot_function))
        return copy(dst, src, size, ap);
    std::memcpy(*dst, *src, size);
    return static_cast<void *>(src);
}

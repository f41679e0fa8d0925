/* SPDX-License-Identifier: MIT */
/**
 * @file xfifo.h
 * @brief A ring of slots that can grow in place: the storage under the ring queue of xqueue.h.
 *
 * A ring holds pointers that move in and out (slot size 0: while a pointer is inside, the ring owns
 * what it points to), or buffers of one fixed size that items are copied into and out of.
 *
 * A ring locks nothing: its user serialises the calls. Only `count` may be touched by a reader and
 * a writer at once, and only atomically. Memory that runs out ends the process, as xmemory.h says.
 *
 * @code{.c}
 * #include <stdlib.h>
 * #include <xfifo.h>
 *
 * static uint64_t put(fifo *ring, void *item, ...) { // one item into a ring of pointers
 *     va_list none;
 *     va_start(none, item);
 *     ring->write(&ring->slots[ring->wr], &item, ring->slot_size, none);
 *     va_end(none);
 *     ring->wr = (ring->wr + 1) % ring->capacity;
 *     return ++ring->count;
 * }
 *
 * int main(void) {
 *     fifo *ring = fifo_new(4, 1, 10, 6);
 *     while (put(ring, malloc(1)) < ring->capacity)
 *         ;
 *     int grown = fifo_expand(ring) == 0 && ring->capacity == 6 && ring->expandable == 0;
 *     fifo_slots_resize(ring, 0); // frees what the slots hold
 *     fifo_del(ring);
 *     return grown ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XFIFO_H
#define KEEL_XFIFO_H

#include <stdarg.h>
#include <stdint.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** Moves or copies one item from `*src` to `*dst`; `ap` holds what the user's call was given. */
typedef void *(*fifo_slot_function)(void **dst, void **src, uint64_t size, va_list ap);

/** A ring of slots. `wr` = (`rd` + `count`) mod `capacity` at all times. */
typedef struct fifo {
    uint64_t wr;              /**< index of the next slot to write */
    uint64_t rd;              /**< index of the next slot to read */
    uint64_t count;           /**< items held; changed and read atomically */
    uint64_t capacity;        /**< number of slots */
    uint64_t slot_size;       /**< bytes of each slot's buffer; 0: the slots hold moved pointers */
    void **slots;             /**< `capacity` pointers */
    int32_t expandable;       /**< 1 while the ring may still grow, else it is fixed */
    uint64_t step;            /**< slots that one growth adds at most */
    uint64_t max;             /**< the capacity at which growth ends */
    fifo_slot_function read;  /**< takes an item out of a slot: fifo_slot_rdwr() */
    fifo_slot_function write; /**< puts an item into a slot: fifo_slot_rdwr() */
} fifo;

/**
 * A new, empty ring of `init` pointer slots (0 counts as 1). Where `expandable` is 1 and `max` is
 * above `init` it may grow by up to `step` slots at a time (0 counts as 1; no more than `max` -
 * `init`) to `max`; where `max` is not above `init` it is fixed. Never null. The caller empties it
 * with fifo_slots_resize() and gives it back with fifo_del().
 */
KEEL_API fifo *fifo_new(uint64_t init, int32_t expandable, uint64_t step, uint64_t max);

/**
 * Frees the ring, but not what its slots hold: fifo_slots_resize(ring, 0) goes before. Returns 0;
 * -1 for null.
 */
KEEL_API int fifo_del(fifo *ring);

/**
 * Adds slots to a full ring, between the newest item and the oldest, so that the order stays. At
 * `max`, `expandable` drops to 0 for good. Returns 0, also where there is nothing to add any more;
 * -1, with nothing changed, where `ring` is null or not full. The growth is a signed 32-bit
 * quantity: one that comes out below 1 adds nothing and ends it (`expandable` 0), and where it
 * comes out negative, or there are more slots than `max`, the result is -1.
 */
KEEL_API int fifo_expand(fifo *ring);

/**
 * Gives each slot a zeroed buffer of `size` bytes, discards what was queued and resets the ring.
 * The size that it has already, other than 0, changes nothing. Size 0 is for teardown: every slot's
 * contents, buffers or held pointers, are freed and the slots set to null, the rest of the record
 * stays. Returns 0; -1 for null.
 */
KEEL_API int fifo_slots_resize(fifo *ring, uint64_t size);

/**
 * What a ring's `read` and `write` do. With `size` 0 the pointer moves from `*src` to `*dst`, and
 * `*src` becomes null. Otherwise the next argument of `ap` is a copy function like this one, or
 * null: null copies `size` bytes from the buffer `*src` to the buffer `*dst`, a function is called
 * with these four arguments. Returns `src`, or what the copy function returned.
 */
KEEL_API void *fifo_slot_rdwr(void **dst, void **src, uint64_t size, va_list ap);

KEEL_END_DECLS

#endif

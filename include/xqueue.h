/* SPDX-License-Identifier: MIT */
/**
 * @file xqueue.h
 * @brief A queue between threads, over the slot ring of xfifo.h: pushes and pops that wait for
 * ever, for some milliseconds, or not at all; a full ring may grow instead of making its pushers
 * wait.
 *
 * The items are pointers that move into the queue and out of it (slot size 0), or copies of one
 * fixed size. Any number of threads may push and pop at once: pushers take turns, poppers take
 * turns, and one of each work side by side. Nobody who waits is forgotten: a push or a pop that
 * makes an item or a vacant slot for somebody who sleeps signals under the sleeper's lock. A copy
 * function runs under a lock and so must not push to or pop from its own queue.
 *
 * Time-outs are in milliseconds: -1 waits without limit, 0 does not wait, below -1 is refused. A
 * wait is a cancellation point; a thread that is cancelled there has taken and put nothing, and
 * leaves the queue unlocked. Failures are reported by -1 alone, with nothing changed; memory that
 * runs out ends the process, as xmemory.h says.
 *
 * This queue is another one than that of xqueue2.h: the functions of one never take the other. In
 * C++ the names queue_push and queue_pop stand for both, told apart by the queue's type.
 *
 * @code{.c}
 * #include <stdlib.h>
 * #include <xqueue.h>
 *
 * int main(void) {
 *     ring_queue_param param = {.nslots = 2, .slot_size = 0, .expandable = 1, .step = 2, .max = 4};
 *     ring_queue *queue = queue_new(&param);
 *     void *item = malloc(100);
 *     int pushed = queue->push(queue, &item, 0) == 0 && item == NULL; // it has moved
 *     int popped = queue->pop(queue, &item, 20) == 0 && item != NULL; // and moved out again
 *     int empty = queue->pop(queue, &item, 20) == -1;                 // after 20 ms
 *     free(item);
 *     queue->del(queue);
 *     return pushed && popped && empty ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XQUEUE_H
#define KEEL_XQUEUE_H

#include <pthread.h>
#include <stdint.h>

#include "keel.h"
#include "xfifo.h"

KEEL_BEGIN_DECLS

/** What a new queue is to be like. */
typedef struct ring_queue_param {
    uint64_t nslots;    /**< slots at first; 0 counts as 1 */
    uint64_t slot_size; /**< bytes of an item that is copied; 0: items are pointers that move */
    int32_t expandable; /**< 1 lets the ring grow when it is full */
    uint64_t step;      /**< slots that one growth adds at most */
    uint64_t max;       /**< slots at most */
} ring_queue_param;

/** A queue, made by queue_new() alone. Whoever changes its ring directly, and not through the
 * queue, holds queue_lock() meanwhile. */
typedef struct ring_queue ring_queue;
struct ring_queue {
    struct fifo *fifo;        /**< the slots */
    pthread_cond_t not_empty; /**< what a pop waits on, under `rd_lock` */
    pthread_cond_t not_full;  /**< what a push waits on, under `wr_lock` */
    pthread_mutex_t rd_lock; /**< held by a pop, and by a push that grows the ring or wakes a pop */
    pthread_mutex_t wr_lock; /**< held by a push, and by a pop that wakes one */

    int (*del)(ring_queue *queue);                                     /**< queue_del() */
    int (*pop)(ring_queue *queue, void **out, int64_t timeout, ...);   /**< queue_pop() */
    int (*push)(ring_queue *queue, void **item, int64_t timeout, ...); /**< queue_push() */
    int (*lock)(ring_queue *queue);                                    /**< queue_lock() */
    int (*unlock)(ring_queue *queue);                                  /**< queue_unlock() */
    int (*slots_resize)(ring_queue *queue, uint64_t size);             /**< queue_slots_resize() */
};

/** A new queue, or null where `param` is null or the system has no lock left. Any thread. */
KEEL_API ring_queue *queue_new(const ring_queue_param *param);

/**
 * Frees the queue, and with xfree() the pointers that are still in it. No other thread may use it
 * any more: every push and pop has returned. Returns 0; -1 for null, or where a lock could not be
 * destroyed (the rest is freed all the same).
 */
KEEL_API int queue_del(ring_queue *queue);

/**
 * Puts an item in. Pointer slots: the pointer `*item` moves into the queue, and becomes null. Sized
 * slots: `slot_size` bytes are copied from the buffer `*item`, and one argument must follow: a copy
 * function that does it instead, or null (fifo_slot_rdwr()).
 *
 * A full ring that may grow does so; otherwise the push waits until a slot is vacant, for `timeout`
 * milliseconds at most. A timed wait is made once: whoever wakes to find the ring full again gives
 * up. Returns 0; -1 where nothing was put in, also for a null `queue`, `item` or `*item`. Any
 * thread, but not one that holds queue_lock().
 */
KEEL_API int queue_push(ring_queue *queue, void **item, int64_t timeout, ...);

/**
 * Takes the oldest item out. Pointer slots: its pointer is stored in `*out`, and the caller owns
 * what it points to. Sized slots: `*out` must point to a buffer of `slot_size` bytes, which the
 * item is copied into, and one argument must follow: a copy function that does it instead, or null.
 *
 * An empty queue makes the pop wait, as a full one a push. Returns 0; -1 where nothing was taken,
 * also for a null `queue` or `out` and, with sized slots, for a null `*out`. Any thread, but not
 * one that holds queue_lock().
 */
KEEL_API int queue_pop(ring_queue *queue, void **out, int64_t timeout, ...);

/** Holds back every push and pop, so that the caller can look at the queue as a whole. Returns 0;
 * -1 for null. Any thread; the same one calls queue_unlock(). */
KEEL_API int queue_lock(ring_queue *queue);

/** Lets the pops go on, then the pushes. Returns 0; -1 for null. */
KEEL_API int queue_unlock(ring_queue *queue);

/** fifo_slots_resize() on the queue's ring. Takes no lock and wakes nobody: nobody else may use the
 * queue meanwhile, or the caller holds queue_lock(). */
KEEL_API int queue_slots_resize(ring_queue *queue, uint64_t size);

/** 1 where `x` is a power of two, else 0. Rings do not ask for one. */
KEEL_API int is2power32(uint32_t x);

KEEL_END_DECLS

#endif

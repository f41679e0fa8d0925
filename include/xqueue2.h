/* SPDX-License-Identifier: MIT */
/**
 * @file xqueue2.h
 * @brief A bounded queue of byte messages of any length between threads.
 *
 * Each message is copied into the buffer of its slot, which grows to the longest message it has
 * held and is then used again: a steady stream allocates nothing.
 *
 * Any number of threads may put and get. Time-outs are in whole seconds on the wall clock: negative
 * waits without limit, 0 does not wait. Nothing is locked while a call waits; a wait is a
 * cancellation point. System failures, memory among them, end the process as xwrap.h says; a null
 * queue gives -1.
 *
 * This queue is another one than that of xqueue.h: the functions of one never take the other. In
 * C++ the names queue_push and queue_pop stand for both, told apart by the queue's type; in C they
 * are the ring queue's, and queue_timedput() and queue_timedget() do the same work here.
 *
 * @code{.c}
 * #include <string.h>
 * #include <xqueue2.h>
 *
 * int main(void) {
 *     blocking_queue queue;
 *     char text[16];
 *     queue_init(&queue, 8);
 *     queue_put(&queue, "ready", 6);
 *     int got = queue_get(&queue, text, sizeof text) == 6 && strcmp(text, "ready") == 0;
 *     int none = queue_tryget(&queue, text, sizeof text) == -1;
 *     queue_destroy(&queue);
 *     return got && none ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XQUEUE2_H
#define KEEL_XQUEUE2_H

#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** The place of one message. */
typedef struct blocking_queue_slot {
    void *buf;    /**< null until first used */
    uint64_t cap; /**< bytes allocated in `buf` */
    uint64_t len; /**< bytes of the message held */
} blocking_queue_slot;

/** A queue. The caller owns the record, and sets it up with queue_init(). */
typedef struct blocking_queue {
    uint64_t size;              /**< number of slots */
    blocking_queue_slot *slots; /**< `size` of them */
    uint64_t wr;                /**< next slot to fill */
    uint64_t rd;                /**< next slot to drain */
    sem_t vacant;               /**< free slots */
    sem_t filled;               /**< messages waiting */
    pthread_mutex_t wr_lock;    /**< producers take turns */
    pthread_mutex_t rd_lock;    /**< consumers take turns */
} blocking_queue;

/**
 * Sets up `queue` with `n` slots, at least 2 and at most as many as a semaphore counts. Returns 0.
 * The caller gives what it holds back with queue_destroy(), and may then set it up again.
 */
KEEL_API int queue_init(blocking_queue *queue, uint64_t n);

/** Frees what the queue holds, messages that still wait among it. No other thread may use it any
 * more. Returns 0. */
KEEL_API int queue_destroy(blocking_queue *queue);

/** Puts a message of `len` bytes in, waiting for a free slot without limit. Returns 0; -1 where
 * `data` is null, which it may be for an empty message alone. Any thread. */
KEEL_API int queue_put(blocking_queue *queue, const void *data, size_t len);

/** As queue_put(), without waiting: -1 when no slot is free. Any thread. */
KEEL_API int queue_tryput(blocking_queue *queue, const void *data, size_t len);

/** As queue_put(), waiting for `timeout` seconds at most: -1 when no slot became free. Any thread.
 */
KEEL_API int queue_timedput(blocking_queue *queue, const void *data, size_t len, int64_t timeout);

/**
 * Takes the oldest message out into `buf`, waiting for one without limit. Returns its length, 0 for
 * an empty one; -1 with errno ENOBUFS where it is longer than `bufsize`: it stays the oldest, and
 * `buf` is untouched. A null `buf` has room for nothing. Any thread.
 */
KEEL_API ssize_t queue_get(blocking_queue *queue, void *buf, size_t bufsize);

/** As queue_get(), without waiting: -1 when there is no message. Any thread. */
KEEL_API ssize_t queue_tryget(blocking_queue *queue, void *buf, size_t bufsize);

/** As queue_get(), waiting for `timeout` seconds at most: -1 when no message came. Any thread. */
KEEL_API ssize_t queue_timedget(blocking_queue *queue, void *buf, size_t bufsize, int64_t timeout);

/** Messages waiting; stale at once where others use the queue. Any thread. */
KEEL_API int queue_size(blocking_queue *queue);

KEEL_END_DECLS

#ifdef __cplusplus
/** C++ alone: queue_timedput() under the name that C leaves to the ring queue. */
KEEL_API int queue_push(blocking_queue *queue, const void *data, size_t len, int64_t timeout);

/** C++ alone: queue_timedget() under the name that C leaves to the ring queue. */
KEEL_API ssize_t queue_pop(blocking_queue *queue, void *buf, size_t bufsize, int64_t timeout);
#endif

#endif

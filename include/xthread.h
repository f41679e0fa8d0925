/* SPDX-License-Identifier: MIT */
/**
 * @file xthread.h
 * @brief Threads that can be stopped, and a pool of them that sizes itself.
 *
 * A `thread` is one system thread with its routine, its result and a "necrology": a semaphore that
 * is posted when the routine has ended, however it ended. Stopping a thread cancels it, unless it
 * has ended, and waits for that post.
 *
 * A `threadpool` runs tasks, each a routine with its argument, on between `min` and `max` detached
 * workers, by the rules of xpool.h. No thread manages it: each worker, when it comes back for work,
 * takes leave of those that have ended and adds or retires some.
 *
 * Cancellation is deferred: a routine is cancelled where it waits, sleeps or calls
 * pthread_testcancel(); its stack is unwound, its cleanup handlers run. A routine that never comes
 * to such a place is never stopped, and holds up whoever stops it.
 *
 * Results are 0, and -1 where something failed, a null record among it. Memory that runs out ends
 * the process, as xmemory.h says, or with the system's text behind "threadpool_new" or
 * "thread_run_for_pool" and exit status 1. A thread is not cancelled while it deletes a pool.
 *
 * @code{.c}
 * #include <semaphore.h>
 * #include <xthread.h>
 *
 * static sem_t done;
 *
 * static void *task(void *times) {
 *     ++*(int *)times;
 *     sem_post(&done);
 *     return NULL;
 * }
 *
 * int main(void) {
 *     int times = 0;
 *     sem_init(&done, 0, 0);
 *     threadpool *workers = threadpool_new(6, 12, 16, 16, 1024);
 *     if (workers == NULL || workers->exec(workers, task, &times) != 0)
 *         return 1;
 *     sem_wait(&done);
 *     workers->del(workers);
 *     return times == 1 ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XTHREAD_H
#define KEEL_XTHREAD_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include "keel.h"
#include "xpool.h"
#include "xqueue.h"

KEEL_BEGIN_DECLS

typedef struct thread thread;
typedef struct threadpool threadpool;

/** What a thread or a task runs. */
typedef void *(*thread_routine)(void *);

/** A code and its text. */
typedef struct stat_desc {
    int32_t code;     /**< the code, which is also its index */
    const char *text; /**< what it means */
} stat_desc;

/** The states of a thread: 0 "Idle", created; 1 "Busy", running; 2 "Hung", a pool's worker waiting
 * for a task; 3 "Stop", finished or retiring. */
extern KEEL_API const stat_desc thread_stat_descs[4];

/** The states of a pool: 0 "Active", 1 "Inactive", which is being deleted. */
extern KEEL_API const stat_desc threadpool_stat_descs[2];

/** A thread, made by thread_new() alone. */
struct thread {
    pthread_attr_t attr; /**< detached or not; system contention scope */
    pthread_t tid;       /**< the system's thread, once started */
    sem_t necrology;     /**< posted once when the routine has ended */
    void *retval;        /**< the routine's result; (void *)-1 before there is one */
    int32_t state;       /**< a code of `thread_stat_descs`; written by the thread, for display */
    struct threadpool *pool; /**< the pool that the thread works for, or null */
    thread_routine routine;  /**< what it runs */
    void *arg;               /**< what `routine` is given */

    int (*start)(thread *self, thread_routine routine, void *arg); /**< thread_start() */
    int (*stop)(thread *self);                                     /**< thread_stop() */
    int (*del)(thread *self);                                      /**< thread_del() */
    int (*detach)(thread *self);                                   /**< thread_detach() */
    int (*join)(thread *self, void **retval);                      /**< thread_join() */
};

/** A new thread that does not run yet, detached where `detached` is 1. Null where the system
 * refuses. The caller gives it back with thread_del(). */
KEEL_API thread *thread_new(uint32_t detached);

/** Runs `routine(arg)` on the thread. Returns 0, the system's error number, or -1 where `self` or
 * `routine` is null. */
KEEL_API int thread_start(thread *self, thread_routine routine, void *arg);

/**
 * Cancels the thread unless it has ended, and waits until it has. Returns 0; -1 where `self` is
 * null or was never started. Once only: the post of the necrology is consumed. Any other thread.
 */
KEEL_API int thread_stop(thread *self);

/** 0 where the thread has ended, and then once only: the post of the necrology is consumed. -1
 * where it has not, or `self` is null. Any thread; never cancels, never waits. */
KEEL_API int thread_trystop(thread *self);

/** Ends the calling thread, whose record `self` is, with `retval`: its stack is unwound. */
KEEL_API KEEL_NORETURN void thread_exit(thread *self, void *retval);

/** Frees the record of a thread that was stopped, or found to have ended, or never started. Returns
 * 0; -1 for null. */
KEEL_API int thread_del(thread *self);

/** The system's detach: 0 or its error number; -1 for null. */
KEEL_API int thread_detach(thread *self);

/** The system's join, with the result in `*retval` unless `retval` is null: 0 or its error number;
 * -1 for null. */
KEEL_API int thread_join(thread *self, void **retval);

/** What every thread runs: its routine, between the cleanup handlers below. Takes the record. */
KEEL_API void *thread_proc(void *self);

/** Cleanup handler, the last one: posts the thread's necrology. The record may be gone afterwards.
 */
KEEL_API void thread_necrology_to_self(void *self);

/** Cleanup handler: posts the pool's necrology for a worker that was asked to retire. Any other
 * thread is put into state 3. */
KEEL_API void thread_necrology_to_pool(void *self);

/** Cleanup handler, the first one: unlocks the pool's queue for a worker that was cancelled while
 * it waited there. */
KEEL_API void thread_unlock(void *self);

/** A running, detached worker for `workers`. Null, with
 * "thread_new_for_pool : error.\n" on standard error, where there is none or `workers` is null. */
KEEL_API thread *thread_new_for_pool(threadpool *workers);

/** thread_stop(), then thread_del(). -1 where either failed. */
KEEL_API int thread_del_for_pool(thread *self);

/** The task that retires the worker which runs it. Takes the worker's record; never returns. */
KEEL_API void *thread_exit_for_pool(void *self);

/** What every worker runs. Takes the worker's record; never returns. */
KEEL_API void *thread_run_for_pool(void *self);

/** One slot of a pool's queue. */
typedef struct threadpool_task {
    thread_routine routine; /**< what is run */
    void *arg;              /**< what it is given */
} threadpool_task;

/** A sparse table of a pool's workers. */
typedef struct vector {
    uint32_t empty;           /**< 1 until something is attached */
    int32_t top;              /**< one past the highest occupied index; 0 when empty */
    int32_t first;            /**< the lowest occupied index; -1 when none */
    int32_t next_free;        /**< the lowest free index */
    void **items;             /**< null where free */
    uint64_t capacity;        /**< number of `items` */
    uint64_t nfree;           /**< how many of them are free */
    int (*destroy)(thread *); /**< thread_del_for_pool() */
} vector;

/** A pool, made by threadpool_new() alone. */
struct threadpool {
    struct pool pool;         /**< its size, by the rules of xpool.h */
    pthread_mutex_t lock;     /**< guards `pool`, `threads` and `state` */
    sem_t necrology;          /**< one post for each worker that retired and is not freed yet */
    struct vector *threads;   /**< the workers */
    struct ring_queue *queue; /**< the tasks */
    int32_t state;            /**< a code of `threadpool_stat_descs` */

    int (*exec)(threadpool *self, thread_routine routine, void *arg); /**< threadpool_exec() */
    int (*del)(threadpool *self);                                     /**< threadpool_del() */
};

/**
 * A pool of `min` running workers that may grow to `max`, with a queue of `queue_init` tasks that
 * grows by `queue_step` to `queue_max`. Null where `min` is below 6, `max` below `min`, or the
 * system refuses. A worker that cannot be started is reported on standard error ("threadpool_new :
 * error.\n") and missing. The caller gives the pool back with threadpool_del(). Any thread.
 */
KEEL_API threadpool *threadpool_new(uint64_t min, uint64_t max, uint64_t queue_init,
                                    uint64_t queue_step, uint64_t queue_max);

/** Has a worker run `routine(arg)`, as soon as one is free. Returns 0 at once; -1 where the queue
 * holds as many tasks as it may, or `self` or `routine` is null. Any thread, workers too. */
KEEL_API int threadpool_exec(threadpool *self, thread_routine routine, void *arg);

/**
 * Stops the workers, cancelling tasks in the middle, drops the tasks still queued, and frees the
 * pool. Returns 0; -1 where `self` is null or a lock could not be destroyed. No other thread may
 * use the pool any more, and none of its workers may call this.
 */
KEEL_API int threadpool_del(threadpool *self);

KEEL_END_DECLS

#endif

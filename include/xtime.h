/* SPDX-License-Identifier: MIT */
/**
 * @file xtime.h
 * @brief A timer: runs routines after a delay, once, some times or for ever.
 *
 * One thread of the timer's own sleeps until the earliest task is due, and hands every task that is
 * due to the timer's pool of 10 to 20 workers (xthread.h): a slow routine delays no other. Routines
 * run side by side, and may call the timer's functions, but for timer_del().
 *
 * Up to 32768 tasks are scheduled at a time, each under an identifier of its own. A task that
 * repeats runs again `gap` milliseconds after it was handed over, so its runs drift. Times are on
 * the wall clock. Scheduling and cancelling cost about the same whatever the number of tasks.
 *
 * Every operation reports itself on standard output, each report in one piece. Results are as said
 * with each function; a null timer gives -1. Memory that runs out ends the process, as xmemory.h
 * and xthread.h say, or with the system's text behind "timer_new" or "timer_schedule" and exit
 * status 1. A thread is not cancelled while it deletes a timer.
 *
 * @code{.c}
 * #include <semaphore.h>
 * #include <xtime.h>
 *
 * static void *tick(void *ticks) {
 *     sem_post((sem_t *)ticks);
 *     return NULL;
 * }
 *
 * int main(void) {
 *     sem_t ticks;
 *     sem_init(&ticks, 0, 0);
 *     timer *clock = timer_new();
 *     int id = clock->schedule(clock, tick, &ticks, 5, -1, 10); // in 5 ms, then every 10 ms
 *     for (int i = 0; i < 3; i++)
 *         sem_wait(&ticks);
 *     int cancelled = clock->cancel(clock, id) == 0 && clock->cancel(clock, id) == -1;
 *     clock->del(clock);
 *     return id == 0 && cancelled ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XTIME_H
#define KEEL_XTIME_H

#include <pthread.h>
#include <stdint.h>

#include "keel.h"
#include "xid.h"
#include "xthread.h"

KEEL_BEGIN_DECLS

typedef struct timer timer;

/** What is to be done, and when. */
typedef struct timertask {
    thread_routine start_routine; /**< what runs */
    void *arg;                    /**< what it is given */
    int64_t sec;                  /**< due time on the wall clock: seconds */
    int64_t nsec;                 /**< and nanoseconds, below 1000000000 */
    char due[32];                 /**< due time in local time: "2024-03-05 14:07:09.042" */
    struct timer *timer;          /**< whose task it is */
    int64_t msec;                 /**< milliseconds to the first run */
    int32_t times;                /**< runs still to go; -1: without end */
    int64_t gap;                  /**< milliseconds from one run to the next */
    int32_t id;                   /**< identifier, 0 to 32767 */
} timertask;

/** A place in a list of tasks. */
typedef struct timer_node {
    struct timer_node *prev; /**< the place before it, or null */
    struct timer_node *next; /**< the place behind it, or null */
    timertask *data;         /**< the task */
} timer_node;

/** A list of tasks. */
typedef struct timer_list {
    timer_node *head;                                 /**< its first place, or null */
    timer_node *tail;                                 /**< its last place, or null */
    uint64_t count;                                   /**< how many places it has */
    void (*destroy)(timertask **data);                /**< timertask_del() */
    void (*copy)(timertask **data, timertask **item); /**< null: the pointer is stored as it is */
    int32_t (*compare)(timertask **a, timertask **b); /**< the order it is kept in, or null */
} timer_list;

/** A timer, made by timer_new() alone. */
struct timer {
    pthread_mutex_t lock;    /**< guards all below */
    pthread_cond_t wakeup;   /**< what the timer's thread sleeps on */
    idproducer *ids;         /**< the identifiers; a node is bound to each in use */
    struct threadpool *pool; /**< runs the routines */
    struct thread *thread;   /**< runs timer_run() */
    timer_list *ready;       /**< tasks that ran and will again, until the round is over */
    timer_list *tasks;       /**< the scheduled tasks, earliest first, the newest of equals first */

    int (*start)(timer *self, thread_routine routine, void *arg,
                 int64_t msec); /**< timer_start() */
    int (*schedule)(timer *self, thread_routine routine, void *arg, int64_t msec, int32_t times,
                    int64_t gap);           /**< timer_schedule() */
    int (*cancel)(timer *self, int32_t id); /**< timer_cancel() */
    int (*del)(timer *self);                /**< timer_del() */
};

/** A running timer, or null where the system refuses. Remarks on standard error that its producer
 * of identifiers frees no arguments. The caller gives it back with timer_del(). Any thread. */
KEEL_API timer *timer_new(void);

/**
 * Schedules `routine(arg)` to run in `msec` milliseconds, at least 1, and `times` times: at least
 * 1, or -1 for ever. What runs more than once needs a `gap` of at least 1 millisecond. Returns the
 * task's identifier; -1 for anything else, or, with "timertask_new : There has no timer id now.\n"
 * on standard error, where 32768 tasks are scheduled. Any thread.
 */
KEEL_API int timer_schedule(timer *self, thread_routine routine, void *arg, int64_t msec,
                            int32_t times, int64_t gap);

/** With `msec` 0 runs the routine now, timer_exec(): 0, or -1. Otherwise schedules it to run once:
 * its identifier, or -1. Any thread. */
KEEL_API int timer_start(timer *self, thread_routine routine, void *arg, int64_t msec);

/** Has a worker run `routine(arg)` as soon as one is free. Returns 0; -1 where `self` or `routine`
 * is null or too many tasks wait. Any thread. */
KEEL_API int timer_exec(timer *self, thread_routine routine, void *arg);

/** Cancels the scheduled task `id`. A run that a worker has already been handed is not recalled.
 * Returns 0; -1 where no such task is scheduled. Any thread. */
KEEL_API int timer_cancel(timer *self, int32_t id);

/** Stops the timer, cancels the routines that are running, drops all tasks and frees everything.
 * Returns 0; -1 for null. No other thread may use the timer any more, and no routine of its own may
 * call this. */
KEEL_API int timer_del(timer *self);

/** A new task, with an identifier, due in `msec` milliseconds; null, with a message, where no
 * identifier is left, and for a null timer. With the timer's lock held. */
KEEL_API timertask *timertask_new(timer *self, thread_routine routine, void *arg, int64_t msec,
                                  int32_t times, int64_t gap);

/** Frees the task and sets the caller's pointer to null. A null `task` does nothing. */
KEEL_API void timertask_del(timertask **task);

/**
 * The order of two tasks: negative where `*a` is due before `*b`, 0 at the same moment. The
 * difference of the seconds, or where they are equal of the nanoseconds, as 32 bits: due times that
 * lie 68 years apart compare the wrong way round.
 */
KEEL_API int32_t timertask_sort(timertask **a, timertask **b);

/** Cleanup handler of the timer's thread: unlocks the mutex. */
KEEL_API void timer_unlock(void *mutex);

/** What the timer's thread runs. Takes the timer; never returns. */
KEEL_API void *timer_run(void *self);

KEEL_END_DECLS

#endif

/* SPDX-License-Identifier: MIT */
/**
 * @file xthread_util.h
 * @brief Condition waits in milliseconds, and thread attributes in one call.
 *
 * Neither function ends the process or prints; both report by their result. Both may be called
 * from any thread.
 *
 * @code{.c}
 * #include <errno.h>
 * #include <xthread_util.h>
 *
 * int main(void) {
 *     pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
 *     pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
 *     pthread_mutex_lock(&lock);
 *     int result = 0;
 *     while (result == 0) // nobody signals, so only spurious wake-ups come before the time-out
 *         result = cond_timedwait(&changed, &lock, 20);
 *     pthread_mutex_unlock(&lock);
 *     return result == ETIMEDOUT ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XTHREAD_UTIL_H
#define KEEL_XTHREAD_UTIL_H

#include <pthread.h>
#include <stdint.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/**
 * Waits on `condition` for at most `milliseconds`, with `mutex` held by the caller and held
 * again on return, and also when the thread is cancelled here. The deadline is on the wall clock:
 * the condition variable must have kept its default clock.
 *
 * Returns 0 when signalled (or woken for no reason: test the condition again), ETIMEDOUT when
 * the time ran out, or pthread_cond_timedwait()'s other error number. -1, without waiting,
 * where `condition` or `mutex` is null or `milliseconds` is negative.
 */
KEEL_API int cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                            int64_t milliseconds);

/**
 * Sets up `attributes` for a new thread: detached where `detached` is exactly 1, with system
 * contention scope where `system_scope` is exactly 1, the defaults otherwise.
 *
 * Returns 0, and the caller destroys `attributes` once its thread is created; or -1 with
 * `attributes` not set up (null, or refused by the system).
 */
KEEL_API int attr_init(pthread_attr_t *attributes, int detached, int system_scope);

KEEL_END_DECLS

#endif

/* SPDX-License-Identifier: MIT */
#pragma once

#include <cerrno>
#include <pthread.h>

#include "ending.h"

namespace keel {

/* Holds a mutex for a scope. Releasing is not a cancellation point, so unwinding is safe. Fails as
 * Pthread_mutex_lock() and Pthread_mutex_unlock() do, less the calls. */
class mutex_lock {
  public:
    /* Where another holds the mutex, it is looked at so many times before the thread falls asleep:
     * falling asleep and being woken takes longer than a system call or two. */
    explicit mutex_lock(pthread_mutex_t &mutex, int looks = 0) : mutex_(mutex) {
        for (; looks > 0; looks--) {
            if (pthread_mutex_trylock(&mutex_) == 0)
                return;
            __builtin_ia32_pause();
        }
        check(pthread_mutex_lock(&mutex_), "pthread_mutex_lock");
    }
    ~mutex_lock() { check(pthread_mutex_unlock(&mutex_), "pthread_mutex_unlock"); }
    mutex_lock(const mutex_lock &) = delete;
    mutex_lock &operator=(const mutex_lock &) = delete;

  private:
    static void check(int error, const char *routine) {
        if (error == 0) [[likely]]
            return;
        errno = error;
        end_explained(routine);
    }

    pthread_mutex_t &mutex_;
};

} // namespace keel

/* SPDX-License-Identifier: MIT */
#pragma once

#include "xwrap.h"

namespace keel {

/* Holds a mutex for a scope. Releasing is not a cancellation point, so unwinding is safe. */
class mutex_lock {
  public:
    explicit mutex_lock(pthread_mutex_t &mutex) : mutex_(mutex) { Pthread_mutex_lock(&mutex_); }
    ~mutex_lock() { Pthread_mutex_unlock(&mutex_); }
    mutex_lock(const mutex_lock &) = delete;
    mutex_lock &operator=(const mutex_lock &) = delete;

  private:
    pthread_mutex_t &mutex_;
};

} // namespace keel

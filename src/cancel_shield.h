/* SPDX-License-Identifier: MIT */
#pragma once

#include <pthread.h>

namespace keel {

/* Holds back a thread's cancellation for a scope in which shared state is halfway changed, or in
 * which a destructor closes something: cancellation unwinds the stack, and a destructor that is
 * left by unwinding ends the process. */
class cancel_shield {
  public:
    cancel_shield() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
    ~cancel_shield() { pthread_setcancelstate(former_, nullptr); }
    cancel_shield(const cancel_shield &) = delete;
    cancel_shield &operator=(const cancel_shield &) = delete;

  private:
    int former_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace keel

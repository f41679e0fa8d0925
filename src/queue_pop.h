/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdarg>
#include <cstdint>

#include "xqueue.h"

namespace keel {

/* queue_pop() for a thread with cleanup handlers of its own: if it is cancelled while it waits,
 * `rd_lock` stays locked, and a handler unlocks it. */
int pop_leaving_lock(ring_queue &queue, void **out, std::int64_t timeout, ...);

} // namespace keel

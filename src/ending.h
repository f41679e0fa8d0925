/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdlib>

#include "cancel_shield.h"

namespace keel {

/* The last step of every fatal ending. Exit handlers flush streams, where a pending cancellation
 * would end this thread alone and leave the process half gone. Who prints first takes a
 * cancel_shield of its own before that, for the same reason. */
[[noreturn]] inline void end_process(int status) {
    const cancel_shield shield;
    std::exit(status);
}

} // namespace keel

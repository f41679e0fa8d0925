/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdio>
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

/* Ends the process as a failed system call does: with the system's text behind `prefix`. */
[[noreturn]] inline void end_explained(const char *prefix) {
    const cancel_shield shield;
    std::perror(prefix);
    end_process(1);
}

} // namespace keel

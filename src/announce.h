/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdarg>
#include <cstdio>

#include "cancel_shield.h"

namespace keel {

/* A message of the library's own on `stream`, whole also beside those of other threads: the stream
 * is locked for the call. A thread is not cancelled in the middle of it, which would lose the rest.
 */
[[gnu::format(printf, 2, 3)]] inline void announce(FILE *stream, const char *format, ...) {
    const cancel_shield shield;
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stream, format, arguments);
    va_end(arguments);
}

/* perror(), whole in the same way: by itself it may write past the stream's lock. */
inline void explain(const char *prefix) {
    const cancel_shield shield;
    flockfile(stderr);
    std::perror(prefix);
    funlockfile(stderr);
}

} // namespace keel

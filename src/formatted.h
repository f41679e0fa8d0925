/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdarg>
#include <cstdio>

#include "handles.h"

namespace keel {

/* A formatted string and its length. Null and -1 where the format is null or fails, or memory runs
 * out. */
struct formatted {
    __attribute__((format(printf, 2, 0))) formatted(const char *format, va_list arguments) {
        if (format == nullptr)
            return;
        char *made = nullptr;
        length = vasprintf(&made, format, arguments);
        if (length != -1) // on failure the pointer is not to be trusted
            text.reset(made);
    }

    unique_cstr text;
    int length = -1;
};

} // namespace keel

/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstddef>
#include <malloc.h>

/* There with the address and the thread sanitizer, whose heap mallinfo2() does not know. */
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak)); // NOLINT

namespace keel_test {

/* The bytes that are allocated. */
inline std::size_t heap_in_use() {
    return __sanitizer_get_current_allocated_bytes != nullptr
               ? __sanitizer_get_current_allocated_bytes()
               : mallinfo2().uordblks;
}

} // namespace keel_test

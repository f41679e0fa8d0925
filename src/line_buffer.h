/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdio>
#include <cstdlib>

#include "xstdio.h"

namespace keel {

/* The lines of a stream, one after the other, in a block that _fgets() grows. */
class line_buffer {
  public:
    line_buffer() = default;
    ~line_buffer() { std::free(text_); }
    line_buffer(const line_buffer &) = delete;
    line_buffer &operator=(const line_buffer &) = delete;

    /* The next line; null behind the last one. */
    char *read(FILE *stream) { return _fgets(&text_, &capacity_, stream, &length_); }

    std::size_t length() const { return static_cast<std::size_t>(length_); }

  private:
    char *text_ = nullptr;
    int capacity_ = 0;
    int length_ = 0;
};

} // namespace keel

/* SPDX-License-Identifier: MIT */
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace keel_fuzz {

/* An input taken apart: its first bytes decide how the rest is used. */
class fuzz_input {
  public:
    fuzz_input(const std::uint8_t *data, std::size_t size)
        : text_(reinterpret_cast<const char *>(data), size) {}

    /* The next byte, 0 where there is none. */
    unsigned byte() {
        return next_ < text_.size() ? static_cast<unsigned char>(text_[next_++]) : 0;
    }

    /* The text up to the next NUL byte. */
    std::string line() {
        const std::size_t end = std::min(text_.find('\0', next_), text_.size());
        const std::string text = text_.substr(next_, end - next_);
        next_ = std::min(end + 1, text_.size());
        return text;
    }

    /* All the rest, in which 0xff and a count stand for so many times 37 letters: long lines out of
     * short inputs. At most about `limit` bytes, since plain readers take their time. */
    std::string content(std::size_t limit) {
        std::string text;
        while (next_ < text_.size() && text.size() < limit) {
            const char c = text_[next_++];
            if (c == '\xff')
                text += std::string(37 * byte(), 'x');
            else
                text += c;
        }
        return text;
    }

  private:
    std::string text_;
    std::size_t next_ = 0;
};

/* Ends the fuzzer where the library and its plain counterpart differ. */
inline void require(bool same, const char *what) {
    if (same)
        return;
    std::fprintf(stderr, "DIFFERENT: %s\n", what);
    std::abort();
}

} // namespace keel_fuzz

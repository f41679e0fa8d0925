/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace keel_test {

/* Packing and unpacking as their contracts tell them, with no regard to speed: what a test holds
 * the library's own against. */

inline std::string plain_unpacked(const std::string &bytes) {
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%.2X", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

/* Of the digits that come first, as many as fill `capacity` bytes. */
inline std::string plain_packed(const std::string &text, std::size_t capacity, bool hexadecimal) {
    const char *const wanted = hexadecimal ? "0123456789abcdefABCDEF" : "0123456789";
    std::string digits = text.substr(0, text.find_first_not_of(wanted));
    if (digits.size() / 2 >= capacity)
        digits.resize(2 * capacity);
    if (digits.size() % 2 != 0)
        digits.insert(digits.begin(), '0');
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

} // namespace keel_test

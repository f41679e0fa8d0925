/* SPDX-License-Identifier: MIT */
#include "xconvert.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <emmintrin.h>

#include "digit_string.h"

namespace {

/* What each character stands for: a digit's value, or that it is none, as the closing NUL is. */
using digit_values = std::array<std::uint8_t, UCHAR_MAX + 1>;

constexpr std::uint8_t no_digit = 0xff;

constexpr digit_values values_of_digits(std::size_t base) {
    digit_values values{};
    values.fill(no_digit);
    for (std::size_t digit = 0; digit < base; digit++)
        for (const char character : {"0123456789ABCDEF"[digit], "0123456789abcdef"[digit]})
            values[static_cast<std::uint8_t>(character)] = static_cast<std::uint8_t>(digit);
    return values;
}

constexpr digit_values decimal = values_of_digits(10);
constexpr digit_values hexadecimal = values_of_digits(16);

/* The two digits of each byte. */
constexpr auto digit_pairs = [] {
    std::array<std::array<char, 2>, UCHAR_MAX + 1> pairs{};
    for (std::size_t byte = 0; byte < pairs.size(); byte++)
        pairs[byte] = {"0123456789ABCDEF"[byte >> 4], "0123456789ABCDEF"[byte & 0xf]};
    return pairs;
}();

std::uint8_t joined(unsigned high, unsigned low) {
    return static_cast<std::uint8_t>(high << 4 | (low & 0xf));
}

/* The last low nibble, which no digit filled, goes; all others move on by one. */
void align_right(std::uint8_t *bytes, std::size_t count) {
    for (std::size_t i = count - 1; i > 0; i--)
        bytes[i] = joined(bytes[i - 1], bytes[i] >> 4);
    bytes[0] >>= 4;
}

std::size_t pack(std::uint8_t *bytes, std::size_t capacity, const char *str,
                 const digit_values &values) {
    const auto *next = reinterpret_cast<const unsigned char *>(str);
    for (std::size_t count = 0; count < capacity; next += 2) {
        const unsigned high = values[next[0]];
        if (high == no_digit)
            return count;
        const unsigned low = values[next[1]];
        bytes[count++] = joined(high, low);
        if (low == no_digit) {
            align_right(bytes, count);
            return count;
        }
    }
    return capacity;
}

constexpr std::size_t block_size = sizeof(__m128i);

/* The character of each nibble. */
__m128i digits_of(__m128i nibbles) {
    const __m128i letters = _mm_cmpgt_epi8(nibbles, _mm_set1_epi8(9));
    const __m128i after_nine = _mm_and_si128(letters, _mm_set1_epi8('A' - '9' - 1));
    return _mm_add_epi8(_mm_add_epi8(nibbles, _mm_set1_epi8('0')), after_nine);
}

/* Sixteen bytes at once: that comes close to the cost of copying the text. */
void unpack_block(char *out, const std::uint8_t *bytes) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes));
    const __m128i nibble = _mm_set1_epi8(0xf);
    const __m128i high = digits_of(_mm_and_si128(_mm_srli_epi16(block, 4), nibble));
    const __m128i low = digits_of(_mm_and_si128(block, nibble));
    auto *text = reinterpret_cast<__m128i *>(out);
    _mm_storeu_si128(text, _mm_unpacklo_epi8(high, low));
    _mm_storeu_si128(text + 1, _mm_unpackhi_epi8(high, low));
}

} // namespace

int keel::convert_str2xxx(void *out, std::size_t capacity, const char *str, int mode) {
    if (str == nullptr || (out == nullptr && capacity > 0))
        return -1;
    if (capacity == 0 || *str == '\0')
        return 0;
    if (mode != 1 && mode != 2)
        return -1;
    return static_cast<int>(pack(static_cast<std::uint8_t *>(out),
                                 std::min<std::size_t>(capacity, INT_MAX), str,
                                 mode == 1 ? decimal : hexadecimal));
}

int convert_str2bcd(void *out, std::size_t capacity, const char *digits) {
    return keel::convert_str2xxx(out, capacity, digits, 1);
}

int convert_str2bch(void *out, std::size_t capacity, const char *digits) {
    return keel::convert_str2xxx(out, capacity, digits, 2);
}

int convert_bch2str(char *out, std::size_t capacity, const void *bytes, std::size_t count) {
    if (out == nullptr || (bytes == nullptr && count > 0))
        return -1;
    if (capacity == 0 || count > (capacity - 1) / 2) // 2 * count + 1 may be more than a size holds
        return -1;
    const auto *next = static_cast<const std::uint8_t *>(bytes);
    std::size_t i = 0;
    for (; count - i >= block_size; i += block_size)
        unpack_block(out + 2 * i, next + i);
    for (; i < count; i++)
        std::memcpy(out + 2 * i, digit_pairs[next[i]].data(), 2);
    out[2 * count] = '\0';
    return 0;
}

int convert_desc2enum(const convert_desc *table, std::size_t rows, const char *desc,
                      std::uint32_t *result) {
    if (table == nullptr || desc == nullptr || result == nullptr)
        return -1;
    for (std::size_t i = 0; i < rows; i++) {
        if (table[i].desc != nullptr && std::strcmp(table[i].desc, desc) == 0) {
            *result = table[i].value;
            return 0;
        }
    }
    return -1;
}

const char *convert_enum2desc(const convert_desc *table, std::size_t rows, std::uint32_t value) {
    if (table == nullptr)
        return nullptr;
    for (std::size_t i = 0; i < rows; i++)
        if (table[i].value == value)
            return table[i].desc;
    return nullptr;
}

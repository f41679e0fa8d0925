/* SPDX-License-Identifier: MIT */
/**
 * @file xconvert.h
 * @brief Digits packed two to a byte, bytes as hexadecimal text, values with descriptions.
 *
 * A string of digits packs into half as many bytes: decimal ones into binary-coded decimal,
 * hexadecimal ones into the bytes that they spell. Digits are those of ASCII, whatever the locale.
 * An odd number of them is packed as if a 0 stood before the first: "123" gives 0x01 0x23.
 *
 * A description table is an array of values, each with its text; it is searched from its first row
 * on, either way.
 *
 * Functions without state: any thread may call them. None ends the process or allocates. What a
 * call writes to must not overlap what it reads.
 *
 * @code{.c}
 * #include <stdint.h>
 * #include <string.h>
 * #include <xconvert.h>
 *
 * int main(void) {
 *     uint8_t bytes[8];
 *     char text[2 * sizeof bytes + 1];
 *     int count = convert_str2bch(bytes, sizeof bytes, "c0ffee");
 *     if (count != 3 || convert_bch2str(text, sizeof text, bytes, (size_t)count) == -1)
 *         return 1;
 *
 *     static const convert_desc states[] = {{0, "idle"}, {7, "busy"}};
 *     uint32_t state = 0;
 *     convert_desc2enum(states, 2, "busy", &state);
 *     int right = state == 7 && strcmp(convert_enum2desc(states, 2, 0), "idle") == 0;
 *     return right && strcmp(text, "C0FFEE") == 0 ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XCONVERT_H
#define KEEL_XCONVERT_H

#include <stddef.h>
#include <stdint.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** A row of a description table. */
typedef struct convert_desc {
    uint32_t value;   /**< what stands for it in a program */
    const char *desc; /**< null: a row that no description finds */
} convert_desc;

/**
 * Packs the decimal digits at the start of `digits` into `out`, which has room for `capacity`
 * bytes: the first of two in the high nibble. Ends, without complaint, at the first character that
 * is no digit and where `out` is full: "12x4" gives 0x12, and so does "1234" in a single byte.
 *
 * Returns the number of bytes written, at most INT_MAX, and leaves all behind them alone. -1, with
 * nothing written, where `digits` is null, or `out` is though it has a capacity.
 */
KEEL_API int convert_str2bcd(void *out, size_t capacity, const char *digits);

/** convert_str2bcd() for hexadecimal digits, capital and small. */
KEEL_API int convert_str2bch(void *out, size_t capacity, const char *digits);

/**
 * Writes `count` bytes to `out` as two capital hexadecimal digits each, and a NUL behind them.
 * Returns 0; -1, with nothing written, where `capacity` is less than 2 * `count` + 1, and where
 * `out` is null, or `bytes` is though there are some.
 */
KEEL_API int convert_bch2str(char *out, size_t capacity, const void *bytes, size_t count);

/**
 * Stores the value of the first of `rows` rows described as exactly `desc` in `*result`, and
 * returns 0. -1, with `*result` left alone, where there is none and where an argument is null.
 */
KEEL_API int convert_desc2enum(const convert_desc *table, size_t rows, const char *desc,
                               uint32_t *result);

/**
 * The description of the first of `rows` rows whose value is `value`: the table's own string. Null
 * where there is none or `table` is null.
 */
KEEL_API const char *convert_enum2desc(const convert_desc *table, size_t rows, uint32_t value);

KEEL_END_DECLS

#endif

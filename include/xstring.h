/* SPDX-License-Identifier: MIT */
/**
 * @file xstring.h
 * @brief Strings: trimming in place, building, splitting, "key=value" lists, comparing from the
 * end.
 *
 * Whitespace is what isspace() calls so in the current locale. Functions whose names begin with
 * `strdup_` return a new string that the caller frees with free(); the trimming functions work in
 * place and return their argument. Only str_startwithf() and strcmpf() can end the process.
 *
 * Functions without state: any thread may call them, on strings of its own.
 *
 * @code{.c}
 * #include <stdlib.h>
 * #include <string.h>
 * #include <xstring.h>
 *
 * int main(void) {
 *     char text[] = "  one \t two  ";
 *     if (strcmp(strtrim2(text), "one two") != 0)
 *         return 1;
 *
 *     char *port = strdup_extract1("host = localhost; port = 8080", "port", ';', '=');
 *     int right = strcmpf(port, "%d", 8080) == 0;
 *     free(port);
 *
 *     char fields[] = "a,b,c";
 *     char *field[2];
 *     return right && str_split(fields, ",", field, 2) == 3 ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XSTRING_H
#define KEEL_XSTRING_H

#include <stddef.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** Removes whitespace at both ends of `text`. Returns `text`; null for null. */
KEEL_API char *strtrim1(char *text);

/** strtrim1(), and each run of whitespace inside becomes one blank. Returns `text`. */
KEEL_API char *strtrim2(char *text);

/** Removes every whitespace character. Returns `text`; null for null or without memory. */
KEEL_API char *strtrim3(char *text);

/**
 * strtrim2(), and the blank before and the blank after the first `separator` go as well:
 * "name  =  value x" becomes "name=value x". Returns `text`; null, with `text` left alone,
 * where `text` is null or `separator` is not printable or is whitespace other than the blank.
 */
KEEL_API char *strtrim4(char *text, int separator);

/** The strings up to the closing null pointer joined, cut to `limit` characters. Null: no
 * memory. */
KEEL_API char *strdup_ncat(size_t limit, ...) KEEL_SENTINEL;

/** `first` and the strings up to the closing null pointer joined. Null: no memory, or no
 * `first`. */
KEEL_API char *strdup_cat(const char *first, ...) KEEL_SENTINEL;

/** A new formatted string. Null: no memory, or a format that fails. */
KEEL_API char *strdup_catf(const char *format, ...) KEEL_PRINTF(1, 2);

/**
 * A copy of `text` with `insert` before the character at `position`; the length of `text`
 * appends. Null: no memory, a null string, or a position beyond the end.
 */
KEEL_API char *strdup_insert(const char *text, size_t position, const char *insert);

/**
 * A copy of the value of `key` in a list such as "a=1; b=2": entries between
 * `entry_separator`s, each split at its first `value_separator`. Entries are tidied with
 * strtrim4() first, so runs of whitespace inside a value come back as one blank; where it
 * refuses the separator they are taken as they are. The first match counts; keys are matched
 * exactly. Null: no match, no memory, or a null string.
 */
KEEL_API char *strdup_extract1(const char *list, const char *key, char entry_separator,
                               int value_separator);

/**
 * The value that strdup_extract1() would find. With a `buffer` of more than one byte it is
 * written there, cut to `size` - 1 characters, with "%%" in the value shortened to "%", and
 * `buffer` is returned. Otherwise a new copy, to be freed with free(). Null: as
 * strdup_extract1().
 */
KEEL_API char *varbind_find(const char *list, const char *key, char entry_separator,
                            int value_separator, char *buffer, size_t size);

/**
 * Splits `text` in place at the characters of `delimiters`; neighbouring delimiters count as
 * one. Stores the first `capacity` fields in `fields` and returns the number of all of them,
 * which may be more than `capacity`. -1 where `text` or `delimiters` is null; a null array has
 * no capacity.
 */
KEEL_API int str_split(char *text, const char *delimiters, char **fields, size_t capacity);

/**
 * Compares from the last characters backwards, as far as the shorter string reaches: 1 where
 * the first difference is greater in `left` (as signed bytes), -1 where it is smaller, 0 where
 * there is none, so 0 wherever one string ends with the other. Null sorts before every string.
 */
KEEL_API int strrcmp(const char *left, const char *right);

/**
 * strrcmp() over a bounded number of characters: one less than the smallest of `limit` and the
 * two lengths plus one. A limit of 0 or 1 gives 0; 3 compares two characters.
 */
KEEL_API int strrncmp(const char *left, const char *right, size_t limit);

/**
 * Appends formatted text to the allocated string `*text`, which may move; a null `*text`
 * becomes a new string. Returns the number of characters appended. 0 for an empty text and -1
 * for a failure (format, memory, null `text`) leave `*text` as it was.
 */
KEEL_API int astrcatf(char **text, const char *format, ...) KEEL_PRINTF(2, 3);

/**
 * 1 where `text` begins with the formatted text, else 0; null begins with nothing. A format
 * that fails ends the process with status 1, without a word.
 */
KEEL_API int str_startwithf(const char *text, const char *format, ...) KEEL_PRINTF(2, 3);

/**
 * strcmp() of `text` against the formatted text; null sorts before every string. A format that
 * fails ends the process with status 1, without a word.
 */
KEEL_API int strcmpf(const char *text, const char *format, ...) KEEL_PRINTF(2, 3);

KEEL_END_DECLS

#endif

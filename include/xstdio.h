/* SPDX-License-Identifier: MIT */
/**
 * @file xstdio.h
 * @brief Streams and descriptors: lines of any length, lines backwards, hex dumps, flags.
 *
 * Functions without state: any thread may call them, on streams and buffers of its own.
 *
 * @code{.c}
 * #include <stdio.h>
 * #include <string.h>
 * #include <xstdio.h>
 *
 * int main(void) {
 *     FILE *file = tmpfile();
 *     fputs("first\r\nsecond\n", file);
 *
 *     rewind(file);
 *     char *line = NULL; // _fgets allocates, grows and at the end frees it
 *     int capacity = 0, length = 0, lines = 0;
 *     while (_fgets(&line, &capacity, file, &length) != NULL)
 *         lines += length;
 *
 *     char last[80];
 *     int64_t cursor = fsize(file);
 *     fseek(file, cursor, SEEK_SET);
 *     frgets(last, sizeof last, file, &cursor);
 *     hexdump(stdout, last, strlen(last));
 *     fclose(file);
 *     return lines == 13 && strcmp(last, "second\n") == 0 ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XSTDIO_H
#define KEEL_XSTDIO_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/**
 * Writes `length` bytes of `data` to `stream` as rows of 16: offset, bytes in hexadecimal, and
 * the printable characters, between two rules and below a banner. At most 4,294,967,295 bytes
 * are dumped; the banner shows the number dumped and the number given.
 *
 * Returns the number of bytes dumped, as an int; -1 where `stream` or `data` is null, `length` is 0
 * or the stream refused the text. Dumps are of less than 2 GB.
 */
KEEL_API int hexdump(FILE *stream, const void *data, size_t length);

/** The size in bytes of the stream's file, its position kept; -1 where it cannot be sought. */
KEEL_API long fsize(FILE *stream);

/**
 * The bytes between the stream's position, which is kept, and the end of its file: what others
 * have appended since the last read. -1 where the stream cannot be sought.
 */
KEEL_API long fappended(FILE *stream);

/**
 * Reads a file's lines from the last to the first. Seek the stream to its end, set `*cursor` to
 * that offset, and call until the result is null.
 *
 * Returns `buffer` with the next line from the end, with its newline as fgets() gives it. A
 * line longer than `size` - 1 characters comes in pieces, in reading order. Null when all lines
 * were returned, where the file cannot be read, and where `buffer`, `stream` or `cursor` is null or
 * `size` is below 2. A line that holds NUL bytes is taken for a piece, and what follows it comes
 * again: lines of text are meant.
 *
 * `*cursor` is the offset at which the scan continues, or a mark: -1 (the line above is an
 * empty first line), -2 (the line being returned begins the file), -3 (finished), -4 (an empty
 * first line is still to come). Leave it and the stream's position alone between the calls.
 */
KEEL_API char *frgets(char *buffer, int size, FILE *stream, int64_t *cursor);

/**
 * Reads one line of any length, its newline included and a carriage return before the newline
 * left out, into `*buffer`, which holds `*capacity` bytes and grows in steps of 80. Start with
 * a null buffer and capacity 0 and call until the result is null: then the buffer has been
 * freed, `*buffer` is null, `*capacity` and the length are 0. A caller that stops earlier frees
 * `*buffer` with free().
 *
 * Returns `*buffer`, with the line, its terminator and zeros up to the capacity, and stores the
 * line's length in `*length` unless that is null. Null at the end of the file and on a read
 * error. More than 4 KB behind a line, zeros that an earlier call left in this buffer are not
 * written again, so that reading stays linear: what somebody else has written there since may still
 * stand.
 *
 * Ends the process with status 1: with "_fgets: Invalid argument" where `buffer`, `capacity` or
 * `stream` is null; without a word where memory runs out, the line passes 2 GB or the capacity
 * is -80 or less; with "_fgets: Hopeless case" where it is -79, which leaves no room for a
 * character.
 */
KEEL_API char *_fgets(char **buffer, int *capacity, FILE *stream, int *length);

/** Adds the status flags `flags` (O_NONBLOCK and its kin) to `descriptor`. 0, or -1 with errno.
 */
KEEL_API int set_fl(int descriptor, int flags);

/** Removes the status flags `flags` from `descriptor`. 0, or -1 with errno. */
KEEL_API int clr_fl(int descriptor, int flags);

/** Adds the descriptor flags `flags` (FD_CLOEXEC) to `descriptor`. 0, or -1 with errno. */
KEEL_API int set_fd(int descriptor, int flags);

/** Removes the descriptor flags `flags` from `descriptor`. 0, or -1 with errno. */
KEEL_API int clr_fd(int descriptor, int flags);

KEEL_END_DECLS

#endif

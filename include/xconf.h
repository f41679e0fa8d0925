/* SPDX-License-Identifier: MIT */
/**
 * @file xconf.h
 * @brief Files: tests, paths, and whole-file operations that are on the disk when they return.
 *
 * Every file that is opened for writing here is opened with O_SYNC, so each write waits for the
 * disk. Failures are reported by the result, with errno as the failing call left it; a null path
 * counts as a path that cannot be opened. Nothing is printed. Only Fpath_dup() ends the process,
 * and file_sflush() where a line does not fit into memory.
 *
 * Functions without state: any thread may call them. Nothing guards against another process that
 * changes the same file between the steps of a call.
 *
 * @code{.c}
 * #include <stdlib.h>
 * #include <string.h>
 * #include <unistd.h>
 * #include <xconf.h>
 *
 * int main(void) {
 *     char directory[] = "/tmp/keel-example-XXXXXX";
 *     if (mkdtemp(directory) == NULL)
 *         return 1;
 *     char *path = fpath_dup(directory, "state");
 *     char text[16];
 *     int right = file_cover(path, "%d requests\n", 42) == 12 && fexist(path, 0) == 0 &&
 *                 file_sflush(path, text, sizeof text) == 12 && strcmp(text, "42 requests\n") == 0;
 *     unlink(path);
 *     rmdir(directory);
 *     free(path);
 *     return right ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XCONF_H
#define KEEL_XCONF_H

#include <stddef.h>

#include "keel_export.h"

KEEL_BEGIN_DECLS

/**
 * 0 where `path` exists and is of kind `type`, 1 where it exists and is of another kind, -1
 * where it does not exist, cannot be examined, or `type` is above 6. A symbolic link is never
 * followed.
 *
 * Kinds: 0 regular file, 1 directory, 2 character device, 3 block device, 4 FIFO, 5 symbolic
 * link, 6 socket. Mind the sense: 0 means yes.
 */
KEEL_API int fexist(const char *path, unsigned type);

/**
 * A new string, to be freed with free(): `directory` and `name` with a slash between them
 * unless `directory` ends in one. A null `name` counts as empty. Null: no memory, or no
 * `directory`.
 */
KEEL_API char *fpath_dup(const char *directory, const char *name);

/** fpath_dup(), but ends the process with status 1 where that returns null. */
KEEL_API char *Fpath_dup(const char *directory, const char *name);

/**
 * What became of a file that is open on `descriptor` and known as `path`: the sum of 1 (it
 * still has a name) or 2 (it was deleted) and 4 (something exists at `path`, the same file or
 * not) or 8 (nothing does). 0 where either cannot be told.
 */
KEEL_API int ftherein(int descriptor, const char *path);

/**
 * Tells whether `path` was modified since `*stamp`, the whole seconds of its modification time
 * as stored by the call before; start with 0. 1 with the new time stored, 0 where it is the
 * same, -1 where `path` cannot be examined. Two changes within one second look like one.
 */
KEEL_API int fmodified(const char *path, long *stamp);

/** Makes sure that `path` exists: an absent file is created empty, others keep their content.
 * 0, -1. */
KEEL_API int file_touch(const char *path);

/** Empties the file `path`, which must exist. 0, or -1. */
KEEL_API int file_clear(const char *path);

/**
 * Replaces the content of `path`, created if absent, with the formatted text. Returns the
 * number of characters written; a negative value where the file cannot be opened or a write
 * fails. A text that cannot be formatted leaves the file as it was.
 */
KEEL_API int file_cover(const char *path, const char *format, ...) KEEL_PRINTF(2, 3);

/** file_cover(), but adds the text at the end. */
KEEL_API int file_append(const char *path, const char *format, ...) KEEL_PRINTF(2, 3);

/**
 * Copies the bytes of `source` into `destination`, created if absent (mode 0666 less the umask)
 * and emptied first; owner, mode and times are not copied. 0; -1 where a file cannot be opened,
 * and where reading fails, as it does for a directory: then `destination` is removed. A write that
 * fails is not noticed: compare the sizes where that matters. A file that is copied onto itself is
 * emptied.
 */
KEEL_API int file_copy(const char *source, const char *destination);

/**
 * Reads the text of `path` into `buffer` of `size` bytes, cut to `size` - 1 characters,
 * terminated, the rest zeroed; a carriage return before a newline is left out. Returns the
 * number of characters stored; -1, with `buffer` left alone, where `path` cannot be opened,
 * `buffer` is null or `size` is 0.
 */
KEEL_API int file_sflush(const char *path, char *buffer, size_t size);

KEEL_END_DECLS

#endif

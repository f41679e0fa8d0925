/* SPDX-License-Identifier: MIT */
/**
 * @file xconf.h
 * @brief Files: tests and paths, whole-file operations, configuration files edited in place,
 * clean-up of directories by disk usage.
 *
 * Every file that is opened for writing here is opened with O_SYNC, so that the bytes that a call
 * writes are on the disk when it returns. Failures are reported by the result, with errno as the
 * failing call left it; a null path counts as a path that cannot be opened. Only fcleanup() prints,
 * and the process is ended only by Fpath_dup(), by fcleanup() without memory, and where a line that
 * is read whole does not fit into memory.
 *
 * Functions without state: any thread may call them, except for fcleanup(). Nothing guards against
 * another process or thread that changes the same file between the steps of a call; callers
 * serialise the edits of one file.
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
#include <stdint.h>

#include "keel.h"

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

/**
 * @name Settings, one a line: a key, a separator of one character, a value
 *
 * "#" begins a comment line. A line is read in pieces of at most 1023 characters, each of which
 * counts as a line. An edit writes the whole file anew into a side file, the path with "_bak"
 * behind it, and renames that over the edited one, which is thus a new file with the owner and
 * mode of one; until then it is left alone. Every line is written tidied: trimmed, each run of
 * whitespace one blank, no blanks round the first separator; a separator that is not printable, and
 * whitespace other than the blank, leaves lines as they are: their newline is then a part of them,
 * so that only a last line without one equals a setting. What stands behind a NUL byte stays with
 * its line.
 *
 * The editing functions return 0; -1, with the file as it was, where it is no regular file (a
 * symbolic link is none), `key` is null or empty, `separator` is NUL, `value` is empty, or null
 * where it may not be, the side file's name is longer than 255 characters, memory runs out, either
 * file cannot be opened, both are the same, the side file cannot be written whole, or renaming
 * fails. A side file that could be opened then stays, and the
 * next edit overwrites it. The file is read to its end, or to where reading it fails.
 * @{
 */

/** Writes the setting ahead of the first line with its key, or as the last line where no line has
 * it. A setting that is there already is left, and a line of blanks stands where it was to go;
 * what comes behind it is copied byte for byte. */
KEEL_API int finsert(const char *path, const char *key, char separator, const char *value);

/** Removes every line that holds this key with exactly this value; null: without a value. */
KEEL_API int fremove(const char *path, const char *key, char separator, const char *value);

/** Sets every line of the key to the value. Without such a line the file is tidied only. */
KEEL_API int fmodify(const char *path, const char *key, char separator, const char *value);

/** The edit with the number `operation`: 1 fmodify(), 2 finsert(), 3 fremove(). Others give -1. */
KEEL_API int foperate(const char *path, int operation, const char *key, char separator,
                      const char *value);

/**
 * Looks up the value of the first line with `key`, before whose separator whitespace may stand.
 * Returns `buffer` of `size` bytes with the value, trimmed, cut to `size` - 1 characters, the rest
 * zeroed. Null, with `buffer` left alone, where no line has the key, `path` cannot be opened, `key`
 * is null or empty, `buffer` is null or `size` is 0.
 */
KEEL_API char *flookup(const char *path, const char *key, char separator, char *buffer,
                       size_t size);

/**
 * Takes one item of a block; `index` counts those taken before. Must refuse, with a result other
 * than 0, what does not fit: the library does not check. `line` may be written to, and is the
 * callback's for the call only.
 */
typedef int (*bulk_item)(char *line, void *array, size_t size, size_t count, int index);

/**
 * Reads the first block of items whose line begins with `key`:
 *
 *     key {           # the brace here, or at the start of the next line
 *         one item    # each on a line of its own
 *         another }   # the brace here, or on a line of its own
 *
 * "#" begins a comment anywhere. Each item goes to `item` with whitespace folded; null takes them
 * all. `array`, `size` and `count` are handed through; an array that is not null is first
 * filled with `size` times `count` zero bytes.
 *
 * Returns the number of items taken, 0 where there is no such block; -1 where `key` is null or
 * empty, `path` cannot be opened, or the line behind the key begins without a brace.
 */
KEEL_API int bulk_lookup(const char *path, const char *key, void *array, size_t size, size_t count,
                         bulk_item item);

/** @} */

/**
 * @name Settings by a format: a key, any of a set of separators, a value
 *
 * Lines are of any length, and tidied as they are read: trimmed, each run of whitespace one blank.
 * The key is what stands before the first separator, trimmed. An edit writes a side file, the path
 * with ".bak" behind it, and renames it over the file as the edits above do; it returns 0, or -1
 * with the file as it was, also where an argument is null, the text cannot be formatted or the file
 * cannot be read to its end. The process ends with status 1 where a line of an edited file cannot
 * be copied for lack of memory.
 * @{
 */

/**
 * Scans the value of the first line of `key` as sscanf() does, "#" beginning a comment anywhere.
 * Returns 0, also where nothing was found or scanned: preset the variables. -1 where `path` cannot
 * be opened or an argument is null.
 */
KEEL_API int file_lookup_value(const char *path, const char *key, const char *separators,
                               const char *format, ...) KEEL_SCANF(4, 5);

/**
 * Replaces the value of every line of `key` by the formatted text and keeps the line's separator.
 * A line of the key alone gets its last character again as the separator.
 */
KEEL_API int file_replace_value(const char *path, const char *key, const char *separators,
                                const char *format, ...) KEEL_PRINTF(4, 5);

/**
 * Replaces field `index` of the value in every line of `key`, counted from 1. Any of
 * `field_separators` ends a field, several as one; the first of each run is kept. An `index` that
 * no field has replaces nothing.
 */
KEEL_API int file_replace_value_value(const char *path, const char *key, const char *separators,
                                      const char *field_separators, int index, const char *format,
                                      ...) KEEL_PRINTF(6, 7);

/** @} */

/**
 * @name Clean-up of directories by disk usage
 * @{
 */

/** What a clean-up is to reach. */
typedef struct fs_limit {
    uint32_t flags;     /**< Sum of the FS_LIMIT_... that apply. */
    uint32_t max_usage; /**< Highest use, in percent. */
    float min_free;     /**< Lowest free space, in gigabytes of 1073741824 bytes. */
    float min_age;      /**< Days since its last access that a file is kept at least. */
} fs_limit;

/* Flags of fs_limit: which limits apply. */
#define FS_LIMIT_USAGE 0x1u /**< fs_limit.max_usage applies */
#define FS_LIMIT_FREE 0x2u  /**< fs_limit.min_free applies */
#define FS_LIMIT_AGE 0x4u   /**< fs_limit.min_age applies */

/**
 * Measures the file system that holds `path`: its use in percent, rounded, the blocks reserved for
 * root left out; and its free space in gigabytes, as derived from that percentage and the whole
 * size. Results are stored where the pointer is not null. 0; -1 where it cannot be measured. A file
 * system that has no blocks gives 0 and stores nothing.
 */
KEEL_API int get_fs_info(const char *path, unsigned *usage, float *free_gb);

/** Measures and compares: 1 where a limit is broken, 0 where all that apply hold (one without
 * blocks breaks none), -1 where the file system cannot be measured or `limit` is null. */
KEEL_API int check_fs_info(const char *path, const fs_limit *limit);

/**
 * Deletes regular files below `directory`, whatever their file system, until that of `directory` is
 * within `limit`: the least recently accessed first, of those accessed within the same second the
 * larger. Directories, symbolic links and all else stay. Each deletion is told on standard output,
 * "fcleanup:remove PATH.", and each that fails on standard error; the next file is tried then.
 *
 * The tree is walked once and held in memory, one path and one status record a file, in n log n
 * time. (Seconds and sizes are compared by the low 32 bits of their difference: files accessed 2^31
 * seconds apart, or within one second but 2^31 bytes apart in size, cost n squared.) One clean-up
 * at a time: its list is the process's. Memory that runs out ends the process with status 1. A
 * thread is not cancelled during the walk, but between deletions.
 *
 * Returns 0 where the limits hold, at once or afterwards; -1 where they could not be reached,
 * measuring failed, an argument is null or `limit->flags` are above 7; the result of nftw() where
 * the walk failed, with nothing deleted.
 */
KEEL_API int fcleanup(const char *directory, const fs_limit *limit);

/** @} */

KEEL_END_DECLS

#endif

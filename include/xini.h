/* SPDX-License-Identifier: MIT */
/**
 * @file xini.h
 * @brief INI files: sections of "key = value" lines, read into one sorted table.
 *
 * A file holds sections and entries; "#" begins a comment anywhere. The separator between key and
 * value is the caller's choice. "[name]" begins a plain section. "{name}" begins a section that
 * stores each entry both ways, value to key as well, for tables that are searched from either side.
 * Entries before the first section belong to the section "DEFAULT".
 *
 *     interval = 5            # DEFAULT::interval
 *     [limits]
 *     cpu = 90
 *     {colour}
 *     red = 1                 # colour::red = 1 and colour::1 = red
 *
 * Whitespace round keys and values goes, and runs of it inside become one blank. A line that is
 * neither header nor entry is reported on standard error and skipped: "WARNING-Invalid entry(...),
 * ignore." or "WARNING-Empty section, ignore.". Lines are read in pieces of at most 2047
 * characters. Running out of memory ends the process: status 1 after "EMERG-Memory lack.", or as
 * xmemory.h says.
 *
 * A table is for one thread while it is loaded or unloaded; any number of threads may look things
 * up in it between.
 *
 * @code{.c}
 * #include <stdio.h>
 * #include <string.h>
 * #include <xini.h>
 *
 * int main(void) {
 *     char text[] = "interval = 5\n[limits]\ncpu = 90 # percent\n";
 *     FILE *file = fmemopen(text, strlen(text), "r");
 *     ini_table settings = {NULL, 0};
 *     ini_fload(&settings, file, "=");
 *     fclose(file);
 *     int right = strcmp(ini_get(&settings, "interval"), "5") == 0 &&
 *                 strcmp(ini_section_get(&settings, "limits", "cpu"), "90") == 0;
 *     ini_unload(&settings);
 *     return right ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XINI_H
#define KEEL_XINI_H

#include <stdint.h>
#include <stdio.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** One entry: `key` is the whole "section::key". Both strings belong to the table, which frees each
 * with xfree(). */
typedef struct ini_entry {
    char *key;   /**< "section::key" */
    char *value; /**< never null, perhaps empty */
} ini_entry;

/** A table of entries, sorted by key. Starts zeroed. */
typedef struct ini_table {
    ini_entry *entries; /**< sorted by key */
    uint64_t count;     /**< how many there are */
} ini_table;

/**
 * ini_fload() of the file at `path`. -1 where it cannot be opened for reading and where ini_fload()
 * gives it. A file whose reading fails, such as a directory, counts as empty from there on.
 */
KEEL_API int ini_load(ini_table *table, const char *path, const char *separators);

/**
 * Adds the entries that `stream` holds to `table` and sorts it. An entry is split at its first
 * character that is any of `separators`. A key that occurs twice is stored twice, and a lookup
 * may find either.
 *
 * A thread cancelled here leaves the table as it was.
 *
 * Returns 0; -1, with nothing read, where an argument is null or `separators` is empty or holds
 * any of "[]{}#".
 */
KEEL_API int ini_fload(ini_table *table, FILE *stream, const char *separators);

/** Frees all entries and leaves the table empty, ready to be loaded again. 0; -1 for null. */
KEEL_API int ini_unload(ini_table *table);

/** ini_section_get() in the section "DEFAULT". */
KEEL_API const char *ini_get(const ini_table *table, const char *key);

/**
 * The value of `key` in `section`, which stays the table's and valid until ini_unload(). Null where
 * there is none and where an argument is null or empty. Exact, case-sensitive, in time logarithmic
 * in the table's size.
 */
KEEL_API const char *ini_section_get(const ini_table *table, const char *section, const char *key);

/** Prints every entry as "section::key=value". Returns their number; -1 where an argument is
 * null. */
KEEL_API int ini_print(const ini_table *table, FILE *stream);

/**
 * Prints the first entry whose key begins with "section::", of which the first 2047 characters
 * count, in the table's order and returns 1, or prints "Can't find section [...]." and returns 0.
 * -1 where an argument is null.
 */
KEEL_API int ini_section_print(const ini_table *table, FILE *stream, const char *section);

KEEL_END_DECLS

#endif

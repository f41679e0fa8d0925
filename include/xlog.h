/* SPDX-License-Identifier: MIT */
/**
 * @file xlog.h
 * @brief Levelled logging into numbered, rotating files that are on the disk when a call returns.
 *
 * Records are lines such as
 *
 *     [2024-03-05 14:07:09.042] [    Error.4] disk full
 *
 * Until log_init() they go to standard output. Then they go to numbered logs, each a file of its
 * own in one directory: log 0 bears the program's name, log_open() adds others. On rotation, on
 * closing, and when a log opens whose file exists already, the file is renamed to an archive such
 * as app_2024.03.05_14.07.09.042.log; archives sort by time. A file that cannot be renamed is
 * reported on standard error ("log_rename error:...") and continued. The directory is the service's
 * own: a symbolic link in a log's place is followed, and a FIFO there is waited for.
 *
 * A level is one bit of a 32-bit value: 0x1 Emergency.1, 0x2 Alert.2, 0x4 Critical.3, 0x8 Error.4,
 * 0x10 Warning.5, 0x20 Notice.6, 0x40 Info.7, 0x80 Debug.8, 0x100 to 0x80000000 Debug-0 to
 * Debug-23.
 *
 * Files are opened with O_SYNC and close-on-exec, and each record is put together in memory (a dump
 * takes some five times its length) and is one write: it is whole, or, on a file system that is
 * full, reported by -1. Nothing here ends the process but an archive name for which there is no
 * memory, with status 1. Any thread may write, open and close logs at any time. log_init() and
 * log_destroy() must not overlap with any other call, nor with fork(). A thread may be cancelled
 * (deferred) while it logs: it ends after the record.
 *
 * A child that one of several threads forks may log as well, and so may handlers of
 * pthread_atfork() that were registered after keel was loaded: fork() waits for the records that
 * are being written, but no longer than a tenth of a second. A log that is rotated longer than that
 * refuses the child's records. The exception is another thread in a localtime() of the host's own
 * at the fork, whose lock the C library leaves taken. A child's records go to its parent's files.
 * Each counts its own, though, and rotates by that: of two that log on, one's records are found in
 * the archives of the other, and of two archives made in the same millisecond one is lost. So only
 * one of them logs on, the child where it becomes the daemon.
 *
 * @code{.c}
 * #include <stdlib.h>
 * #include <xlog.h>
 *
 * int main(int argc, char *argv[]) {
 *     (void)argc;
 *     char directory[] = "/tmp/keel-example-XXXXXX";
 *     if (mkdtemp(directory) == NULL)
 *         return 1;
 *     static log_conf settings; // zeroed
 *     settings.flags = LOG_CONF_WRMAX | LOG_CONF_MASK;
 *     settings.wrmax = 20000; // records a file
 *     settings.mask = 0x7f;   // Info and above
 *     if (log_init(argv, directory, &settings) == -1)
 *         return 1;
 *     log_print(0, 0x40, "up with %d workers", 4);
 *     log_dump(0, "PING", 4);
 *     return log_destroy(); // archives the file
 * }
 * @endcode
 */
#ifndef KEEL_XLOG_H
#define KEEL_XLOG_H

#include <stddef.h>
#include <stdint.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/* Bits of log_conf.flags: which fields count. */
#define LOG_CONF_NLOGS 0x1u       /**< log_conf.nlogs counts */
#define LOG_CONF_WRMAX 0x2u       /**< log_conf.wrmax counts */
#define LOG_CONF_LANG 0x4u        /**< log_conf.lang counts */
#define LOG_CONF_MASK 0x8u        /**< log_conf.mask counts */
#define LOG_CONF_RENAME_GAP 0x10u /**< log_conf.rename_gap counts */
#define LOG_CONF_SINGLETON 0x20u  /**< log_conf.singleton counts */

/** Settings for log_init(), which writes back the values that took effect. */
typedef struct log_conf {
    uint32_t flags;      /**< which of the fields below count */
    uint64_t nlogs;      /**< number of logs, 1 to 20; 1 if not given */
    uint64_t wrmax;      /**< records a file before rotation, 1000 to 30000; 5000 if not given */
    int32_t lang;        /**< level names: 0 English, else Chinese */
    uint64_t mask;       /**< levels that are written; all 32 if not given */
    uint64_t rename_gap; /**< microseconds between tries for a free archive name, 1000 to 1000000 */
    int32_t singleton;   /**< 0: the process id goes into each file name; 1 if not given */
} log_conf;

/**
 * Writes one record of `level` to log `id` (before log_init(): to standard output, whatever
 * `id` is). A newline is added unless `format` ends in one.
 *
 * Returns the number of characters of the message less four, a newline that was added not
 * counted: a message of three characters gives -1, too. -1 where the record was refused (no such
 * log, or its file could not be reopened; not exactly one level bit; a level outside the mask; a
 * format that fails; no memory) or could not be written.
 */
KEEL_API int log_print(int id, uint32_t level, const char *format, ...) KEEL_PRINTF(3, 4);

/**
 * Writes `length` bytes of `data` to log `id` as one record with a hex dump. Dumps have no
 * level and are never filtered. Returns hexdump()'s result; -1 where the record was refused (no
 * data, no such log, no file, no memory) or could not be written.
 */
KEEL_API int log_dump(int id, const void *data, size_t length);

/**
 * Sets logging up in `directory`, which must exist and not be a symbolic link, and opens log 0
 * under the name of the program, the last component of `argv[0]`. `conf` may be null; its values
 * are clamped to their ranges and written back, also on failure. Returns 0; 1 or more where only a
 * further log could open the file, which is that log's then. -1, with nothing set up, on any
 * failure, and with everything left as it is where logging is set up already.
 */
KEEL_API int log_init(char *const argv[], const char *directory, log_conf *conf);

/**
 * Opens the first free log for the file `name`, ".log" added unless it ends so. Returns its
 * number. -1 where logging is not set up, `name` is null or empty, a log has this very path
 * already, no log is free or the file cannot be opened; a file that existed may have been archived
 * then. Where log_init() was told `singleton` 0, ".4711", the process id, goes before the ".log".
 */
KEEL_API int log_open(const char *name);

/**
 * Closes log `id` and archives its file. 0, also while logging is not set up; -1 for log 0,
 * which only log_destroy() closes, and for a number out of range.
 */
KEEL_API int log_close(int id);

/** Closes and archives every log and restores the defaults of all settings. Returns 0. */
KEEL_API int log_destroy(void);

KEEL_END_DECLS

#endif

/* SPDX-License-Identifier: MIT */
/**
 * @file xinotify.h
 * @brief Checked inotify calls: a descriptor that works, or the silent end of the process.
 *
 * A failure exits with status 1 and prints nothing. All functions may be called from any thread.
 *
 * @code{.c}
 * #include <sys/inotify.h>
 * #include <unistd.h>
 * #include <xinotify.h>
 *
 * int main(void) {
 *     int events = Inotify_init(); // non-blocking and close-on-exec
 *     int watch = Inotify_add_watch(events, "/tmp", IN_CREATE | IN_DELETE);
 *     Inotify_rm_watch(events, watch);
 *     return close(events);
 * }
 * @endcode
 */
#ifndef KEEL_XINOTIFY_H
#define KEEL_XINOTIFY_H

#include <stdint.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** A new inotify descriptor, non-blocking and close-on-exec, the caller's to close. */
KEEL_API int Inotify_init(void);

/** Watches `path` for the events in `mask` (IN_MODIFY and its kin). Returns the watch. */
KEEL_API int Inotify_add_watch(int descriptor, const char *path, uint32_t mask);

/** Ends `watch`. Returns 0. */
KEEL_API int Inotify_rm_watch(int descriptor, int watch);

KEEL_END_DECLS

#endif

/* SPDX-License-Identifier: MIT */
/**
 * @file xutil.h
 * @brief Checked system calls that end the process without a word.
 *
 * Where one of these calls fails, the process exits with status 1 and nothing is written to any
 * stream: the text handed to err_sys() documents the failure at the call site only.
 *
 * All functions may be called from any thread.
 *
 * @code{.c}
 * #include <sys/socket.h>
 * #include <xutil.h>
 *
 * int main(void) {
 *     int endpoint = Socket(AF_UNIX, SOCK_DGRAM, 0);
 *     return Close(endpoint);
 * }
 * @endcode
 */
#ifndef KEEL_XUTIL_H
#define KEEL_XUTIL_H

#include <sys/types.h>

#include "keel_export.h"

KEEL_BEGIN_DECLS

/** Ends the process with status 1. Prints nothing: the message is for the reader of the code.
 */
KEEL_API void err_sys(const char *format, ...) KEEL_PRINTF(1, 2) KEEL_NORETURN;

/** Closes `descriptor`. Returns 0; a failure, an interruption included, is fatal. Cancellation
 * point. */
KEEL_API int Close(int descriptor);

/** Removes the name `path`. Returns 0; a failure, a missing name included, is fatal. */
KEEL_API int Unlink(const char *path);

/** ioctl() with one pointer argument. Returns the call's result; -1 is fatal. */
KEEL_API int Ioctl(int descriptor, int request, void *argument);

/** A new socket's descriptor, the caller's to close; a failure is fatal. */
KEEL_API int Socket(int domain, int type, int protocol);

/**
 * Makes the FIFO `path`. 0 with errno 0 when it was made or when anything exists at `path`
 * already; -1 with errno as mkfifo() left it otherwise. Never fatal.
 */
KEEL_API int Mkfifo(const char *path, mode_t mode);

KEEL_END_DECLS

#endif

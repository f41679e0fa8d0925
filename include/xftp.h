/* SPDX-License-Identifier: MIT */
/**
 * @file xftp.h
 * @brief FTP: uploads that resume, downloads that leave nothing half done, commands, renaming.
 *
 * Each call is a session of its own on libcurl's easy interface and waits for its end; a thread is
 * not cancelled meanwhile. The result is libcurl's code, 0 for success. Unless it is told otherwise
 * a call is chatty: it shows libcurl's verbose output and its progress meter on standard error.
 *
 * A host that calls one of these functions links libcurl, and calls curl_global_init() before it
 * starts threads; one that forgets to link it is told by its linker. Where a function is reached by
 * its address and libcurl is not there, it fails as where libcurl gives no handle. The calls are
 * macros, so their names stand alone: no "::" and no "." before them.
 *
 * Any thread may call the functions, on streams of its own.
 *
 * @code{.c}
 * #include <xftp.h>
 *
 * int main(void) {
 *     ftp_opt quiet = {5, 5, 0, 0, 0, NULL};
 *     CURLcode result = ftp_download("ftp://127.0.0.1:1/nothing", "/tmp/nothing", "user", "secret",
 *                                    &quiet);
 *     return result == CURLE_COULDNT_CONNECT ? 0 : 1; // nobody listens there
 * }
 * @endcode
 */
#ifndef KEEL_XFTP_H
#define KEEL_XFTP_H

#include <curl/curl.h>
#include <stdint.h>
#include <stdio.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** How a transfer is made. A null pointer stands for the values in brackets. */
typedef struct ftp_opt {
    int64_t connect_timeout;  /**< seconds to connect; libcurl's own limit where <= 0 [0] */
    int64_t response_timeout; /**< seconds to wait for an answer; likewise [0] */
    int64_t verbose;          /**< not 0: the session is shown on standard error [1] */
    int64_t progress;         /**< not 0: a progress meter is shown there [1] */
    int64_t overwrite;        /**< not 0: an upload sends the whole file in any case [0] */
    FILE *stream;             /**< used in place of the local file, and left open [null] */
} ftp_opt;

/**
 * Sends the file `local`, or the options' stream, to `url`; directories that are missing there are
 * created. Of a file that is there already and shorter only the rest is sent, and of one of the
 * same length nothing; what differs in the part they share is not seen. Longer ones are replaced.
 * Where a file cannot be read to its end, what was sent of it stays there.
 *
 * Returns libcurl's code; 52 (CURLE_GOT_NOTHING) where the file cannot be opened or libcurl gives
 * no handle; 42 (CURLE_ABORTED_BY_CALLBACK) where it cannot be read. Of user and password together
 * 254 characters count; a null user is "anonymous". Ends the process, its exit status being 1,
 * where the size of the file cannot be had.
 */
KEEL_API CURLcode ftp_upload(const char *url, const char *local, const char *user,
                             const char *password, const ftp_opt *opt);

/**
 * Fetches `url` into the file `local`, or behind what the options' stream holds. What is there
 * already counts as the beginning, and the rest is fetched; where it is longer than what `url`
 * holds, the file is emptied and fetched whole; where the server cannot begin in the middle at all,
 * that is a failure, 31 (CURLE_FTP_COULDNT_USE_REST). All is on the disk when the call returns; a
 * stream of the options is only flushed.
 *
 * Returns libcurl's code; 52 as for ftp_upload(); 23 (CURLE_WRITE_ERROR) where the disk does not
 * take it all. Where it fails, a file that was not there before is removed, another one cut back to
 * the length that it had, or to nothing where it had been emptied. User, password and endings as
 * for ftp_upload().
 */
KEEL_API CURLcode ftp_download(const char *url, const char *local, const char *user,
                               const char *password, const ftp_opt *opt);

/**
 * Sends commands, up to a closing null pointer, in the directory `url`, which ends with a slash; a
 * file that it names must be there. Returns libcurl's code; 21 (CURLE_QUOTE_ERROR) where a command
 * is refused and where libcurl gives no handle. User and password as for ftp_upload().
 */
KEEL_API CURLcode ftp_command(const char *url, const char *user, const char *password,
                              const ftp_opt *opt, ...) KEEL_SENTINEL;

/**
 * Renames `from` in the directory `url` to `to`, by "RNFR FROM" and "RNTO TO". Returns as
 * ftp_command(), 21 also for a null name. Ends the process, its exit status being 1, where memory
 * runs out.
 */
KEEL_API CURLcode ftp_rename(const char *url, const char *user, const char *password,
                             const ftp_opt *opt, const char *from, const char *to);

/** @cond linkage */
/* The library itself names libcurl weakly, for the sake of hosts that do without. This is what
 * makes an object that calls a function above need it. */
static inline __attribute__((__always_inline__)) void keel_needs_libcurl(void) {
    __asm__ volatile("" : : "r"(&curl_easy_init));
}

#define ftp_upload(...) (keel_needs_libcurl(), ftp_upload(__VA_ARGS__))
#define ftp_download(...) (keel_needs_libcurl(), ftp_download(__VA_ARGS__))
#define ftp_command(...) (keel_needs_libcurl(), ftp_command(__VA_ARGS__))
#define ftp_rename(...) (keel_needs_libcurl(), ftp_rename(__VA_ARGS__))
/** @endcond */

KEEL_END_DECLS

#endif

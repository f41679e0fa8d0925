/* SPDX-License-Identifier: MIT */
/**
 * @file keel.h
 * @brief The rules that hold in all of keel, its version, and the marks on its declarations.
 *
 * keel is a utility library for Linux programs that run for a long time: one shared library with a
 * plain C interface. A host includes the headers of the families that it uses, each of which
 * includes this one, and links `-lkeel`. Each header says what its functions take, give and own,
 * and otherwise these rules hold. Where a header departs from one, it says so.
 *
 * @section rules The rules
 *
 * 1. **Results.** 0 is success and -1 failure. A function that makes or finds something returns it,
 *    or null. A reader that counts returns how many there are, which may be more than the array
 *    that it was given holds. FTP functions return libcurl's result, the operations of a database
 *    connection the client library's error number. What a function fills in for its caller is
 *    filled in on success alone.
 * 2. **Bad input** gets the failure result. Null pointers, empty strings, negative sizes and lines
 *    of any length from a file are all input like any other: nothing is written outside of what the
 *    caller handed over. Formats are the program's own, and never input. What keel itself hands to
 *    threads, tables and lists, the routines, cleanup handlers and comparisons among its functions,
 *    takes what these give it, and no null.
 * 3. **Ownership.** What a `_new`, `_init`, `_open`, `_load` or `...Init` function gives belongs to
 *    the caller, who gives it back once through its `_del`, `_destroy`, `_close`, `_unload` or
 *    `destroy` operation. New strings are the caller's to free(). Arguments are copied if they are
 *    needed beyond the call; routines' arguments are not, and stay the caller's.
 * 4. **Fatal endings.** What no service can repair ends the process, through exit(), in one of four
 *    ways, and the headers say which call can end it in which. xwrap.h, and wherever a header
 *    speaks of the system's text or reason: a routine's name and the text of errno on standard
 *    error, status 1. xutil.h and xinotify.h, and wherever a header names the status alone:
 *    nothing, status 1. xmemory.h: "No memory!!!" on standard error, status 255. xini.h, xstdio.h
 *    and xgetopt.h: texts of their own, status 1.
 * 5. **Messages.** Diagnostics go to standard error, most of them behind the name of the function.
 *    Timers, sockets, UDP endpoints and directory clean-up report on standard output. A message is
 *    written in one piece.
 * 6. **Threads.** No thread is started when the library is loaded. A timer starts one thread and a
 *    pool of 10 to 20 workers, a pool its workers, a UDP endpoint one receiving thread. Functions
 *    without state may be called from any thread at any time, and so may the operations of logs,
 *    queues, pools and timers, except that nobody uses an object while it is deleted. Other records
 *    that a caller owns, rings of slots, producers of identifiers, the snapshot `ss`, process
 *    monitors and directory clean-up are for one thread at a time.
 * 7. **Locks** are taken in this order: a pool's before its queue's, a timer's before its pool's
 *    queue's, in a queue that of the pushes before that of the pops. No lock is held while a
 *    routine of the caller's runs, except a queue's while it calls a copy function.
 * 8. **Cancellation** is deferred, and unwinds the cancelled thread's stack: what keel holds in its
 *    own functions is given back, and a C++ host must let the unwinding pass (no `noexcept`, no
 *    `catch (...)` without `throw;`). Cancelled are waits, reads of streams that may wait, and what
 *    a header calls a cancellation point; writes of files, edits and log records are completed.
 * 9. **Signals.** keel installs no handler, and no function of its own is for one. system() and
 *    libcurl, which it calls, set some signals aside for as long as they run. Waits go on after a
 *    handler has run. The receiving thread of a UDP endpoint blocks the signals while it waits;
 *    other threads have the mask of the thread that started them, so a host that takes its signals
 *    in one thread blocks them before it starts anything.
 * 10. **Forks.** Every descriptor that keel opens is closed by exec from its first moment, but for
 *    those of Socket(), whose type says so, and of what does the work elsewhere: nftw() in
 *    directory clean-up, perror(), and client libraries. A child may log, whatever other threads do
 *    at the fork (xlog.h says how), and makes pools, timers, queues and endpoints of its own. Its
 *    parent's it leaves alone, whose threads it does not have, and does not delete them either; nor
 *    does it use, beside its parent, the snapshot `ss`, whose files they share. It ends with
 *    _exit(); what its parent had not flushed is printed again by exit(), and by records on
 *    standard output.
 * 11. **Clocks.** Time-outs are signed: negative without limit, 0 without waiting. They are
 *    milliseconds, and whole seconds in xqueue2.h, xftp.h and Sem_timedwait(). Deadlines are
 *    absolute on the wall clock, and setting it moves them.
 * 12. **Files** that keel writes are opened with O_SYNC: when a call returns, its data is on the
 *    disk. An edit writes a side file and renames it over the original, so that a failure at any
 *    moment leaves the original whole.
 * 13. **Settings** come through arguments and records alone. keel reads no environment variable and
 *    no file of its own; what it calls may, as the C library does for the time zone.
 * 14. **Versions** are semantic. Every name is there since 1.0.0, unless its comment names a later
 *    version.
 */
#ifndef KEEL_H
#define KEEL_H

/* The version of these headers. */
#define KEEL_VERSION_MAJOR 1 /**< another one: names were taken away, or mean something else */
#define KEEL_VERSION_MINOR 0 /**< a higher one: names were added */
#define KEEL_VERSION_PATCH 0 /**< a higher one: faults were mended */

/** An exported name: visible in libkeel.so, where everything else is hidden. */
#define KEEL_API __attribute__((__visibility__("default")))

/** Argument `format_index` is a printf format whose arguments begin at `first` (0: a va_list). */
#define KEEL_PRINTF(format_index, first)                                                           \
    __attribute__((__format__(__printf__, format_index, first)))

/** Argument `format_index` is a scanf format whose arguments begin at `first`. */
#define KEEL_SCANF(format_index, first) __attribute__((__format__(__scanf__, format_index, first)))

/** The call never returns. */
#define KEEL_NORETURN __attribute__((__noreturn__))

/** The variable arguments end with a null pointer. */
#define KEEL_SENTINEL __attribute__((__sentinel__))

#ifdef __cplusplus
#define KEEL_BEGIN_DECLS extern "C" { /**< Stands before what has C linkage. */
#define KEEL_END_DECLS }              /**< Stands behind what has C linkage. */
#else
#define KEEL_BEGIN_DECLS
#define KEEL_END_DECLS
#endif

#endif

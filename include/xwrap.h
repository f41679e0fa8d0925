/* SPDX-License-Identifier: MIT */
/**
 * @file xwrap.h
 * @brief Checked wrappers that explain themselves and end the process on failure.
 *
 * Each function bears the wrapped routine's name with a capital first letter. When the routine
 * fails in a way that a service cannot repair, the wrapper prints the routine's name and the text
 * of errno to standard error, as perror() does ("sem_post: Invalid argument"), and exits with
 * status 1. Results that a caller is expected to handle are returned; each comment names them.
 * A null argument that the routine cannot take counts as its failure with EINVAL.
 *
 * All functions may be called from any thread. Sem_wait(), Sem_timedwait(), System() and Systemf()
 * are cancellation points; an ending that has begun is not cancelled.
 *
 * @code{.c}
 * #include <xwrap.h>
 *
 * int main(void) {
 *     sem_t ready;
 *     Sem_init(&ready, 0, 0);
 *     if (Sem_trywait(&ready) != -1) // nothing posted yet
 *         return 1;
 *     Sem_post(&ready);
 *     Sem_wait(&ready);
 *     Sem_destroy(&ready);
 *     return Systemf("test %d -lt %d", 1, 2);
 * }
 * @endcode
 */
#ifndef KEEL_XWRAP_H
#define KEEL_XWRAP_H

#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** A new copy of `text`, to be freed with free(). Running out of memory is fatal: "strdup". */
KEEL_API char *Strdup(const char *text);

/** The first `character` in `text`. A character that is absent is fatal: "strchr". */
KEEL_API char *Strchr(const char *text, int character);

/** The last `character` in `text`. A character that is absent is fatal: "strrchr". */
KEEL_API char *Strrchr(const char *text, int character);

/**
 * The next token of `text` (null: of the text given before), cut in place, as strtok_r() does
 * it with `save` between the calls. Running out of tokens is fatal: "strtok_r".
 */
KEEL_API char *Strtok_r(char *text, const char *delimiters, char **save);

/**
 * Runs `command` in the shell and waits for it. 0 when it exited with status 0; -1 when it
 * exited with another status, was ended by a signal, could not be run or is null. Never fatal.
 */
KEEL_API int System(const char *command);

/**
 * System() of a formatted command. What is spliced in is not quoted: the caller answers for it.
 * Fatal when the command cannot be formatted: "Systemf".
 */
KEEL_API int Systemf(const char *format, ...) KEEL_PRINTF(1, 2);

/** A block of `size` bytes, to be freed with free(). No memory is fatal: "malloc". */
KEEL_API void *Malloc(size_t size);

/** A zeroed block of `count` times `size` bytes, freed with free(). No memory is fatal:
 * "calloc". */
KEEL_API void *Calloc(size_t count, size_t size);

/**
 * `block` with `size` bytes. No memory is fatal, and so is a size of 0, which frees an existing
 * block: "realloc".
 */
KEEL_API void *Realloc(void *block, size_t size);

/** Sets up `semaphore` with `value`; `shared` not 0: between processes. Returns 0. */
KEEL_API int Sem_init(sem_t *semaphore, int shared, unsigned value);

/** Returns 0. */
KEEL_API int Sem_destroy(sem_t *semaphore);

/** Adds one and wakes a waiter. Returns 0; a count at its maximum is fatal: "sem_post". */
KEEL_API int Sem_post(sem_t *semaphore);

/** Takes one, waiting without limit, through any number of signal handlers. Returns 0. */
KEEL_API int Sem_wait(sem_t *semaphore);

/** Takes one if there is one: 0. Otherwise -1 at once, with errno EAGAIN. */
KEEL_API int Sem_trywait(sem_t *semaphore);

/**
 * Takes one, waiting until `seconds` have passed on the wall clock: 0, or -1 with errno ETIMEDOUT
 * when the time ran out. Signal handlers do not extend the wait. With a time that is not positive
 * it takes one if there is one, and does not wait.
 */
KEEL_API int Sem_timedwait(sem_t *semaphore, int64_t seconds);

/** The system's limit or constant `name`. A limit that is not set is fatal too: "sysconf". */
KEEL_API long Sysconf(int name);

/** Sets up `mutex`, with default attributes where `attributes` is null. Returns 0. */
KEEL_API int Pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);

/** Returns 0; a mutex still held is fatal: "pthread_mutex_destroy". */
KEEL_API int Pthread_mutex_destroy(pthread_mutex_t *mutex);

/** Returns 0 with `mutex` held. */
KEEL_API int Pthread_mutex_lock(pthread_mutex_t *mutex);

/** Returns 0. */
KEEL_API int Pthread_mutex_unlock(pthread_mutex_t *mutex);

/** Returns 0 with `mutex` held, or -1 with errno EBUSY when it is taken. */
KEEL_API int Pthread_mutex_trylock(pthread_mutex_t *mutex);

KEEL_END_DECLS

#endif

/* SPDX-License-Identifier: MIT */
#include "xwrap.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <unistd.h>

#include "ending.h"
#include "formatted.h"

namespace {

using keel::end_explained;

template <class T>
T *pointer_or_die(T *result, const char *routine) {
    if (result == nullptr)
        end_explained(routine);
    return result;
}

/* For routines that cannot take null. */
void argument_or_die(const void *argument, const char *routine) {
    if (argument != nullptr)
        return;
    errno = EINVAL;
    end_explained(routine);
}

int success_or_die(int result, const char *routine) {
    if (result == -1)
        end_explained(routine);
    return 0;
}

/* The threads routines return their error number instead of setting errno. */
int no_error_or_die(int error, const char *routine) {
    if (error == 0)
        return 0;
    errno = error;
    end_explained(routine);
}

} // namespace

char *Strdup(const char *text) {
    argument_or_die(text, "strdup");
    return pointer_or_die(strdup(text), "strdup");
}

char *Strchr(const char *text, int character) {
    argument_or_die(text, "strchr");
    return const_cast<char *>(pointer_or_die(std::strchr(text, character), "strchr"));
}

char *Strrchr(const char *text, int character) {
    argument_or_die(text, "strrchr");
    return const_cast<char *>(pointer_or_die(std::strrchr(text, character), "strrchr"));
}

char *Strtok_r(char *text, const char *delimiters, char **save) {
    argument_or_die(delimiters, "strtok_r");
    argument_or_die(save, "strtok_r");
    if (text == nullptr)
        argument_or_die(*save, "strtok_r");
    return pointer_or_die(strtok_r(text, delimiters, save), "strtok_r");
}

int System(const char *command) {
    const int status = std::system(command);
    const bool ended_by_signal = (status & 0x7f) != 0;
    const bool exited_with_failure = (status & 0xff00) != 0;
    return status == -1 || ended_by_signal || exited_with_failure ? -1 : 0;
}

int Systemf(const char *format, ...) {
    argument_or_die(format, "Systemf");
    va_list arguments;
    va_start(arguments, format);
    const keel::formatted command(format, arguments);
    va_end(arguments);
    pointer_or_die(command.text.get(), "Systemf");
    return System(command.text.get());
}

void *Malloc(std::size_t size) {
    return pointer_or_die(std::malloc(size), "malloc");
}

void *Calloc(std::size_t count, std::size_t size) {
    return pointer_or_die(std::calloc(count, size), "calloc");
}

void *Realloc(void *block, std::size_t size) {
    return pointer_or_die(std::realloc(block, size), "realloc");
}

int Sem_init(sem_t *semaphore, int shared, unsigned value) {
    argument_or_die(semaphore, "sem_init");
    return success_or_die(sem_init(semaphore, shared, value), "sem_init");
}

int Sem_destroy(sem_t *semaphore) {
    argument_or_die(semaphore, "sem_destroy");
    return success_or_die(sem_destroy(semaphore), "sem_destroy");
}

int Sem_post(sem_t *semaphore) {
    argument_or_die(semaphore, "sem_post");
    return success_or_die(sem_post(semaphore), "sem_post");
}

int Sem_wait(sem_t *semaphore) {
    argument_or_die(semaphore, "sem_wait");
    while (sem_wait(semaphore) == -1) {
        if (errno != EINTR)
            end_explained("sem_wait");
    }
    return 0;
}

int Sem_trywait(sem_t *semaphore) {
    argument_or_die(semaphore, "sem_trywait");
    if (sem_trywait(semaphore) == 0)
        return 0;
    if (errno != EAGAIN)
        end_explained("sem_trywait");
    return -1;
}

int Sem_timedwait(sem_t *semaphore, std::int64_t seconds) {
    argument_or_die(semaphore, "sem_timedwait");
    timespec deadline{};
    success_or_die(clock_gettime(CLOCK_REALTIME, &deadline), "clock_gettime");
    if (__builtin_add_overflow(deadline.tv_sec, seconds, &deadline.tv_sec))
        deadline.tv_sec = std::numeric_limits<time_t>::max();
    while (sem_timedwait(semaphore, &deadline) == -1) {
        if (errno == ETIMEDOUT)
            return -1;
        if (errno != EINTR)
            end_explained("sem_timedwait");
    }
    return 0;
}

long Sysconf(int name) {
    errno = 0;
    const long value = sysconf(name);
    if (value == -1) // a limit that is merely not set counts too: nobody asks for such a one
        end_explained("sysconf");
    return value;
}

int Pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
    argument_or_die(mutex, "pthread_mutex_init");
    return no_error_or_die(pthread_mutex_init(mutex, attributes), "pthread_mutex_init");
}

int Pthread_mutex_destroy(pthread_mutex_t *mutex) {
    argument_or_die(mutex, "pthread_mutex_destroy");
    return no_error_or_die(pthread_mutex_destroy(mutex), "pthread_mutex_destroy");
}

int Pthread_mutex_lock(pthread_mutex_t *mutex) {
    argument_or_die(mutex, "pthread_mutex_lock");
    return no_error_or_die(pthread_mutex_lock(mutex), "pthread_mutex_lock");
}

int Pthread_mutex_unlock(pthread_mutex_t *mutex) {
    argument_or_die(mutex, "pthread_mutex_unlock");
    return no_error_or_die(pthread_mutex_unlock(mutex), "pthread_mutex_unlock");
}

int Pthread_mutex_trylock(pthread_mutex_t *mutex) {
    argument_or_die(mutex, "pthread_mutex_trylock");
    const int error = pthread_mutex_trylock(mutex);
    if (error == 0)
        return 0;
    errno = error;
    if (error != EBUSY)
        end_explained("pthread_mutex_trylock");
    return -1;
}

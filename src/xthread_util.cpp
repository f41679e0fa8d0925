/* SPDX-License-Identifier: MIT */
#include "xthread_util.h"

#include <cstdint>
#include <ctime>
#include <sys/time.h>

int cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex, std::int64_t milliseconds) {
    if (condition == nullptr || mutex == nullptr || milliseconds < 0)
        return -1;
    timeval now{};
    gettimeofday(&now, nullptr);
    const std::int64_t nanoseconds = milliseconds % 1000 * 1'000'000 + now.tv_usec * 1000;
    timespec deadline{};
    deadline.tv_sec = milliseconds / 1000 + now.tv_sec + nanoseconds / 1'000'000'000;
    deadline.tv_nsec = nanoseconds % 1'000'000'000;
    return pthread_cond_timedwait(condition, mutex, &deadline);
}

int attr_init(pthread_attr_t *attributes, int detached, int system_scope) {
    if (attributes == nullptr || pthread_attr_init(attributes) != 0)
        return -1;
    const bool refused =
        (detached == 1 && pthread_attr_setdetachstate(attributes, PTHREAD_CREATE_DETACHED) != 0) ||
        (system_scope == 1 && pthread_attr_setscope(attributes, PTHREAD_SCOPE_SYSTEM) != 0);
    if (!refused)
        return 0;
    pthread_attr_destroy(attributes);
    return -1;
}

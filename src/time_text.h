/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstring>
#include <ctime>
#include <pthread.h>

#include "mutex_lock.h"

namespace keel {

/* The C library takes a lock of its own in localtime_r(), and in a child of a process with several
 * threads it stays taken if another thread was in there. So none is while one forks: xlog.cpp then
 * holds this. */
inline pthread_mutex_t local_time_mutex = PTHREAD_MUTEX_INITIALIZER;

struct local_time {
    tm fields{};
    int milliseconds = 0;
};

inline local_time local_time_of(const timespec &time) {
    local_time local;
    const mutex_lock lock(local_time_mutex, 200);
    localtime_r(&time.tv_sec, &local.fields);
    local.milliseconds = static_cast<int>(time.tv_nsec / 1'000'000);
    return local;
}

inline local_time local_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return local_time_of(now);
}

/* These return the end of what they put, which they do not terminate. */

inline char *put_text(char *end, const char *text, std::size_t length) {
    std::memcpy(end, text, length);
    return end + length;
}

inline char *put_number(char *end, int number, int digits) {
    for (int i = digits; i-- > 0; number /= 10)
        end[i] = static_cast<char>('0' + number % 10);
    return end + digits;
}

inline char *put_year(char *end, int year) {
    int digits = 4;
    for (int rest = year / 10'000; rest > 0; rest /= 10)
        digits++;
    return put_number(end, year, digits);
}

/* "2024-03-05 14:07:09.042" with these separators. A year may take ten digits. */
inline char *put_time(char *end, const local_time &time, char in_date, char between, char in_time) {
    end = put_year(end, time.fields.tm_year + 1900);
    *end++ = in_date;
    end = put_number(end, time.fields.tm_mon + 1, 2);
    *end++ = in_date;
    end = put_number(end, time.fields.tm_mday, 2);
    *end++ = between;
    end = put_number(end, time.fields.tm_hour, 2);
    *end++ = in_time;
    end = put_number(end, time.fields.tm_min, 2);
    *end++ = in_time;
    end = put_number(end, time.fields.tm_sec, 2);
    *end++ = '.';
    return put_number(end, time.milliseconds, 3);
}

} // namespace keel

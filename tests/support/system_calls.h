/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstddef>
#include <cstdio>
#include <ctime>
#include <functional>
#include <sys/types.h>
#include <unistd.h>

namespace keel_test {

/* What a test puts between the library and the system. The program is linked with --wrap for each
 * of these calls; an empty one lets the call through. */
struct system_calls {
    std::function<ssize_t(int descriptor, const char *text, std::size_t length)> write;
    std::function<ssize_t(int descriptor, void *buffer, std::size_t size)> read;
    std::function<int(int descriptor)> close;
    std::function<int(int descriptor, int flags)> set_fl;
    std::function<FILE *(int descriptor, const char *mode)> fdopen;
    std::function<timespec()> clock;
    std::function<void(useconds_t microseconds)> usleep;
};

extern system_calls intercepted;

/* The way to set them, while no other thread runs. Lets all calls through again at its end. */
class interception {
  public:
    interception() = default;
    ~interception() { intercepted = {}; }
    system_calls *operator->() { return &intercepted; }
    interception(const interception &) = delete;
    interception &operator=(const interception &) = delete;
};

} // namespace keel_test

/* The system's own. */
extern "C" { // NOLINTBEGIN: the linker's names
ssize_t __real_write(int descriptor, const void *text, std::size_t length);
ssize_t __real_read(int descriptor, void *buffer, std::size_t size);
int __real_close(int descriptor);
int __real_set_fl(int descriptor, int flags);
FILE *__real_fdopen(int descriptor, const char *mode);
int __real_clock_gettime(clockid_t clock, timespec *time);
int __real_usleep(useconds_t microseconds);
} // NOLINTEND

/* SPDX-License-Identifier: MIT */
#include "system_calls.h"

namespace keel_test {

system_calls intercepted;

} // namespace keel_test

using keel_test::intercepted;

extern "C" { // NOLINTBEGIN: the linker's names
ssize_t __wrap_write(int descriptor, const void *text, std::size_t length) {
    return intercepted.write
               ? intercepted.write(descriptor, static_cast<const char *>(text), length)
               : __real_write(descriptor, text, length);
}

ssize_t __wrap_read(int descriptor, void *buffer, std::size_t size) {
    return intercepted.read ? intercepted.read(descriptor, buffer, size)
                            : __real_read(descriptor, buffer, size);
}

int __wrap_close(int descriptor) {
    return intercepted.close ? intercepted.close(descriptor) : __real_close(descriptor);
}

int __wrap_set_fl(int descriptor, int flags) {
    return intercepted.set_fl ? intercepted.set_fl(descriptor, flags)
                              : __real_set_fl(descriptor, flags);
}

FILE *__wrap_fdopen(int descriptor, const char *mode) {
    return intercepted.fdopen ? intercepted.fdopen(descriptor, mode)
                              : __real_fdopen(descriptor, mode);
}

int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    if (!intercepted.clock || clock != CLOCK_REALTIME)
        return __real_clock_gettime(clock, time);
    *time = intercepted.clock();
    return 0;
}

int __wrap_usleep(useconds_t microseconds) {
    if (!intercepted.usleep)
        return __real_usleep(microseconds);
    intercepted.usleep(microseconds);
    return 0;
}
} // NOLINTEND

/* SPDX-License-Identifier: MIT */
#pragma once

#include <cerrno>
#include <cstdarg>
#include <functional>
#include <utility>
#include <vector>

/* Stands between the library and ioctl(). For one source file of a test program that is linked with
 * --wrap for it. */

namespace keel_test {

using ioctl_call = std::function<int(int descriptor, unsigned long request, void *argument)>;

inline ioctl_call on_ioctl; // empty: the call goes through

/* The way to set it. Lets all calls through again at its end. */
class ioctl_watch {
  public:
    explicit ioctl_watch(ioctl_call call) { on_ioctl = std::move(call); }
    ~ioctl_watch() { on_ioctl = nullptr; }
    ioctl_watch(const ioctl_watch &) = delete;
    ioctl_watch &operator=(const ioctl_watch &) = delete;
};

/* The failure of a call. */
inline int failed(int error) {
    errno = error;
    return -1;
}

} // namespace keel_test

extern "C" { // NOLINTBEGIN: the linker's names
int __real_ioctl(int descriptor, unsigned long request, ...);
int __wrap_ioctl(int descriptor, unsigned long request, ...);

int __wrap_ioctl(int descriptor, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return keel_test::on_ioctl ? keel_test::on_ioctl(descriptor, request, argument)
                               : __real_ioctl(descriptor, request, argument);
}
} // NOLINTEND

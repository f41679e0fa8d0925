/* SPDX-License-Identifier: MIT */
#pragma once

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include "child.h"

namespace keel_test {

/* The ending that names the routine and the error. */
inline child_result explained(const std::string &routine, int error) {
    return exited(1, routine + ": " + std::strerror(error) + "\n");
}

/* How `body` ends that finds `error` in errno, as an earlier call may have left it. */
inline child_result ending_after(int error, const std::function<void()> &body) {
    return run_in_child([&] {
        errno = error;
        body();
    });
}

} // namespace keel_test

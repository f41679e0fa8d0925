/* SPDX-License-Identifier: MIT */
#pragma once

#include <cerrno>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>

#include "own_mounts.h"

namespace keel_test {

inline bool can_mount() {
    return geteuid() == 0;
}

/* Runs `body` on a thread that alone sees `directory` as a file system of `size`, such as "16k",
 * which is gone afterwards. Needs root. */
inline void on_small_disk(const std::string &directory, const std::string &size,
                          const std::function<void()> &body) {
    std::thread([&] {
        const std::string options = "size=" + size;
        if (!own_mounts() || mount("small", directory.c_str(), "tmpfs", 0, options.c_str()) != 0)
            FAIL() << "no small disk: " << std::strerror(errno);
        body();
    }).join();
}

} // namespace keel_test

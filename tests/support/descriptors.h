/* SPDX-License-Identifier: MIT */
#pragma once

#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <system_error>
#include <vector>

namespace keel_test {

/* The descriptors of this process that are open on `path`. */
inline std::vector<int> descriptors_of(const std::string &path) {
    std::vector<int> found;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the one that reads the directory
        if (std::filesystem::read_symlink(entry, gone) == path)
            found.push_back(std::stoi(entry.path().filename()));
    }
    return found;
}

inline std::ptrdiff_t count_descriptors() {
    const std::filesystem::directory_iterator first("/proc/self/fd");
    return std::distance(first, std::filesystem::directory_iterator());
}

/* In a child: from now on it gets no descriptor. */
inline void forbid_descriptors() {
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &descriptors);
}

} // namespace keel_test

/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "caught_output.h"
#include "plain_cleanup.h"
#include "xconf.h"

namespace keel_test {

constexpr fs_limit use_limit(unsigned percent) {
    return {FS_LIMIT_USAGE, percent, 0, 0};
}

constexpr fs_limit free_limit(float gigabytes) {
    return {FS_LIMIT_FREE, 0, gigabytes, 0};
}

/* No clean-up reaches it: all that can be deleted is. */
constexpr fs_limit out_of_reach = free_limit(1e30F);

constexpr fs_limit kept_for(fs_limit limit, float days) {
    return {limit.flags | FS_LIMIT_AGE, limit.max_usage, limit.min_free, days};
}

inline void make_file(const std::string &path, std::int64_t accessed, off_t size = 0,
                      long nanoseconds = 0) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    ASSERT_NE(file, -1) << path << ": " << std::strerror(errno);
    EXPECT_EQ(ftruncate(file, size), 0);
    const timespec times[2] = {{accessed, nanoseconds}, {0, UTIME_OMIT}};
    EXPECT_EQ(futimens(file, times), 0);
    close(file);
}

/* What a clean-up did. */
struct outcome {
    int result;
    std::string out;
    std::string err;

    bool operator==(const outcome &) const = default;
};

inline void PrintTo(const outcome &what, std::ostream *stream) {
    *stream << "result " << what.result << ", out \"" << what.out << "\", err \"" << what.err
            << "\"";
}

inline outcome clean_up(const std::string &directory, const fs_limit &limit) {
    const caught_stream out(stdout);
    const caught_stream err(stderr);
    const int result = fcleanup(directory.c_str(), &limit);
    return {result, out.text(), err.text()};
}

inline outcome nothing_done(int result) {
    return {result, "", ""};
}

inline outcome deleted(int result, const std::vector<std::string> &files,
                       const std::string &err = "") {
    return {result, told_of(files), err};
}

inline std::string told_failure(int error) {
    return "fcleanup:: " + std::string(std::strerror(error)) + "\n";
}

} // namespace keel_test

/* SPDX-License-Identifier: MIT */
#pragma once

#include <cerrno>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mount.h>

namespace keel_test {

inline bool any_mount_is_shared() {
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);)
        if (line.find(" shared:") != std::string::npos)
            return true;
    return false;
}

/* From now on what the calling thread mounts is seen by itself alone, and gone with it. Needs root.
 * False, with errno, where that cannot be had. Below a changed root that is no mount itself, what
 * is mounted there must be private already. */
inline bool own_mounts() {
    if (unshare(CLONE_NEWNS) != 0)
        return false;
    if (mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0)
        return true;
    const int reason = errno;
    const bool safe = reason == EINVAL && !any_mount_is_shared();
    errno = reason;
    return safe;
}

} // namespace keel_test

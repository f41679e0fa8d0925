/* SPDX-License-Identifier: MIT */
#include "xinotify.h"

#include <cstdint>
#include <cstdlib>
#include <sys/inotify.h>

#include "ending.h"

namespace {

int result_or_die(int result) {
    if (result == -1)
        keel::end_process(1);
    return result;
}

} // namespace

int Inotify_init() {
    /* With its flags at once: set_fd() would leave a moment in which a program that another thread
     * starts gets it. */
    return result_or_die(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
}

int Inotify_add_watch(int descriptor, const char *path, std::uint32_t mask) {
    return result_or_die(inotify_add_watch(descriptor, path, mask));
}

int Inotify_rm_watch(int descriptor, int watch) {
    return result_or_die(inotify_rm_watch(descriptor, watch));
}

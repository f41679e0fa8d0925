/* SPDX-License-Identifier: MIT */
#include "xinotify.h"

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/inotify.h>

#include "ending.h"
#include "xstdio.h"

namespace {

int result_or_die(int result) {
    if (result == -1)
        keel::end_process(1);
    return result;
}

} // namespace

int Inotify_init() {
    const int descriptor = result_or_die(inotify_init());
    set_fl(descriptor, O_NONBLOCK);
    set_fd(descriptor, FD_CLOEXEC);
    return descriptor;
}

int Inotify_add_watch(int descriptor, const char *path, std::uint32_t mask) {
    return result_or_die(inotify_add_watch(descriptor, path, mask));
}

int Inotify_rm_watch(int descriptor, int watch) {
    return result_or_die(inotify_rm_watch(descriptor, watch));
}

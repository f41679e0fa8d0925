/* SPDX-License-Identifier: MIT */
#pragma once

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <unistd.h>

#include "handles.h"
#include "xstdio.h"

namespace keel {

/* Opens a file whose writes are on the disk when they return. The flag has to be there at open():
 * fcntl() accepts O_SYNC on Linux, reports success and changes nothing. set_fl() stays, for kernels
 * that honour it. */
inline unique_fd open_sync(const char *path, int flags) {
    if (path == nullptr) {
        errno = EFAULT;
        return unique_fd();
    }
    unique_fd file(::open(path, flags | O_SYNC | O_CLOEXEC, 0666));
    if (file)
        set_fl(file.get(), O_SYNC);
    return file;
}

/* Writes all of `text`, in one write unless the kernel takes less at a time. False with errno when
 * it does not take it all. */
inline bool write_all(int descriptor, const char *text, std::size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(descriptor, text, length);
        if (written == -1 && errno == EINTR)
            continue;
        if (written == -1)
            return false;
        text += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

} // namespace keel

/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <utility>

#include "cancel_shield.h"

namespace keel {

struct free_block {
    void operator()(void *block) const { std::free(block); }
};

/* A string from the system allocator. */
using unique_cstr = std::unique_ptr<char, free_block>;

struct close_stream {
    void operator()(FILE *stream) const {
        const cancel_shield shield;
        std::fclose(stream);
    }
};

using unique_file = std::unique_ptr<FILE, close_stream>;

/* An open descriptor, or -1. */
class unique_fd {
  public:
    explicit unique_fd(int descriptor = -1) : descriptor_(descriptor) {}
    unique_fd(unique_fd &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~unique_fd() { close(); }

    explicit operator bool() const { return descriptor_ != -1; }
    int get() const { return descriptor_; }
    int release() { return std::exchange(descriptor_, -1); }

    /* Never retried on EINTR: Linux has let go of the descriptor by then, and another thread may
     * already hold its number. */
    int close() {
        if (descriptor_ == -1)
            return 0;
        const cancel_shield shield;
        return ::close(release());
    }

  private:
    int descriptor_;
};

/* Opens what makes nobody wait, such as a file of the kernel's or a device. It is not cancelled: in
 * a thread that is, the C library loses the descriptor of an open() that was just done. */
inline unique_fd open_uncancelled(const char *path, int flags) {
    const cancel_shield shield;
    return unique_fd(::open(path, flags | O_CLOEXEC));
}

/* An open file as a stream, or null. */
inline unique_file stream_on(unique_fd descriptor, const char *mode) {
    unique_file file(descriptor ? fdopen(descriptor.get(), mode) : nullptr);
    if (file != nullptr)
        descriptor.release();
    return file;
}

/* The file at `path` as a stream, or null; it may be one that has to be waited for. A thread that
 * is cancelled in fopen() leaves the stream behind, in open() a descriptor at worst. */
inline unique_file open_to_read(const char *path) {
    if (path == nullptr)
        return nullptr;
    return stream_on(unique_fd(::open(path, O_RDONLY | O_CLOEXEC)), "r");
}

} // namespace keel

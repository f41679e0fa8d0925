/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "temp_dir.h"

namespace keel_test {

/* While it lives, what the process writes to a stream goes to a file of its own. */
class caught_stream {
  public:
    explicit caught_stream(FILE *stream) : stream_(stream) {
        std::fflush(stream_);
        dup2(file_, fileno(stream_));
    }
    ~caught_stream() {
        std::fflush(stream_);
        dup2(original_, fileno(stream_));
        close(original_);
        close(file_);
    }
    caught_stream(const caught_stream &) = delete;
    caught_stream &operator=(const caught_stream &) = delete;

    std::string text() const {
        std::fflush(stream_);
        return content_of("/proc/self/fd/" + std::to_string(file_));
    }

  private:
    FILE *stream_;
    int file_ = memfd_create("caught", MFD_CLOEXEC);
    int original_ = fcntl(fileno(stream_), F_DUPFD_CLOEXEC, 0);
};

} // namespace keel_test

/* SPDX-License-Identifier: MIT */
#pragma once

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

namespace keel_test {

class umask_of {
  public:
    explicit umask_of(mode_t mask) : former_(umask(mask)) {}
    ~umask_of() { umask(former_); }
    umask_of(const umask_of &) = delete;
    umask_of &operator=(const umask_of &) = delete;

  private:
    mode_t former_;
};

/* Lets no file grow above `size` for a scope, and a write beyond it fail. */
class file_size_limit {
  public:
    explicit file_size_limit(rlim_t size) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &former_);
        const rlimit limit = {size, former_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~file_size_limit() {
        setrlimit(RLIMIT_FSIZE, &former_);
        std::signal(SIGXFSZ, handler_);
    }
    file_size_limit(const file_size_limit &) = delete;
    file_size_limit &operator=(const file_size_limit &) = delete;

  private:
    void (*handler_)(int);
    rlimit former_{};
};

} // namespace keel_test

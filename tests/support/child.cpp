/* SPDX-License-Identifier: MIT */
#include "child.h"

#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

/* There only with the address sanitizer: what a process leaves behind when it ends itself is not a
 * leak, but would change its exit status. */
extern "C" void __lsan_disable() __attribute__((weak)); // NOLINT: the sanitizer's name

namespace keel_test {

namespace {

std::string content_and_close(int descriptor) {
    std::string text;
    char block[4096];
    lseek(descriptor, 0, SEEK_SET);
    for (ssize_t n; (n = read(descriptor, block, sizeof block)) > 0;)
        text.append(block, static_cast<std::size_t>(n));
    close(descriptor);
    return text;
}

} // namespace

void PrintTo(const child_result &result, std::ostream *stream) {
    *stream << "status " << result.status << ", signal " << result.signal << ", out \""
            << result.out << "\", err \"" << result.err << "\"";
}

child_result run_in_child(const std::function<void()> &body) {
    std::fflush(nullptr);
    const int out = memfd_create("out", MFD_CLOEXEC);
    const int err = memfd_create("err", MFD_CLOEXEC);
    const pid_t child = fork();
    if (out == -1 || err == -1 || child == -1)
        throw std::runtime_error("no child process");
    if (child == 0) {
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        if (__lsan_disable != nullptr)
            __lsan_disable();
        body();
        std::fflush(nullptr);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0,
            content_and_close(out), content_and_close(err)};
}

} // namespace keel_test

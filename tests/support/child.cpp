/* SPDX-License-Identifier: MIT */
#include "child.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <ostream>
#include <regex>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

/* There with the address and the thread sanitizer. */
extern "C" std::size_t __sanitizer_get_heap_size() __attribute__((weak)); // NOLINT

/* A sanitizer too lets an allocation that cannot be had fail, as the system does, and does not end
 * the process for it. */
extern "C" const char *__asan_default_options(); // NOLINT
extern "C" const char *__tsan_default_options(); // NOLINT
const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256";
}
const char *__tsan_default_options() { // and children of several threads may start their own
    return "allocator_may_return_null=1:max_allocation_size_mb=256:die_after_fork=0";
}

namespace {
bool in_child = false;
}

/* What a child leaves behind when it ends itself is no leak, but would change its exit status; and
 * it may have given away what the search for leaks needs. */
extern "C" int __lsan_is_turned_off(); // NOLINT
int __lsan_is_turned_off() {
    return in_child;
}

namespace keel_test {

namespace {

/* Without the lines in which a sanitizer tells of an allocation that failed. */
std::string without_allocation_warnings(const std::string &text) {
    static const std::regex warning("==[0-9]+==WARNING: [A-Za-z]+ failed to allocate .*\n");
    return text.find("==WARNING: ") == text.npos ? text : std::regex_replace(text, warning, "");
}

std::string content_and_close(int descriptor) {
    std::string text;
    char block[4096];
    lseek(descriptor, 0, SEEK_SET);
    for (ssize_t n; (n = read(descriptor, block, sizeof block)) > 0;)
        text.append(block, static_cast<std::size_t>(n));
    close(descriptor);
    return text;
}

/* An exception must not get out: the test framework would go on with the next test, in the child.
 */
[[noreturn]] void run_and_exit(const std::function<void()> &body) {
    try {
        body();
    } catch (const std::exception &exception) {
        std::fprintf(stderr, "exception in the child: %s\n", exception.what());
        std::fflush(nullptr);
        _exit(70);
    }
    std::fflush(nullptr);
    _exit(0);
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
        in_child = true;
        run_and_exit(body);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            WIFSIGNALED(status) ? WTERMSIG(status) : 0, content_and_close(out),
            without_allocation_warnings(content_and_close(err))};
}

void limit_memory() {
    if (__sanitizer_get_heap_size != nullptr)
        return; // it has its limit, above, and could not live with another
    rlimit memory{};
    getrlimit(RLIMIT_DATA, &memory);
    memory.rlim_cur = 256 << 20;
    setrlimit(RLIMIT_DATA, &memory);
}

} // namespace keel_test

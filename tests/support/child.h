/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <string>

namespace keel_test {

/* How a child process ended, and all that it wrote. */
struct child_result {
    int status;      /* exit status; -1 where a signal ended the child */
    int signal;      /* the signal, or 0 */
    std::string out; /* standard output */
    std::string err; /* standard error */

    bool operator==(const child_result &) const = default;
};

/* Prints a result that a test did not expect. */
void PrintTo(const child_result &result, std::ostream *stream);

/* Runs `body` in a child process whose standard output and error are caught. A body that returns
 * ends the child with status 0, its streams flushed. */
child_result run_in_child(const std::function<void()> &body);

/* In a child: from now on no allocation of more than 256 MiB succeeds. */
void limit_memory();

/* The ending of a call that ends the process: this status, this text on standard error, nothing on
 * standard output. */
inline child_result exited(int status, const std::string &err = "") {
    return {status, 0, "", err};
}

} // namespace keel_test

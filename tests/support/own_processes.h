/* SPDX-License-Identifier: MIT */
#pragma once

#include <csignal>
#include <cstdio>
#include <functional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child.h"
#include "own_mounts.h"

namespace keel_test {

/* Runs `body` in a child process that is the first of a process table of its own, which /proc
 * shows: there are no processes but those that it starts, they are its children when their parents
 * have ended, and all end with it, as it does with the test. Needs root. */
inline child_result run_with_own_processes(const std::function<void()> &body) {
    return run_in_child([&] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        pid_t first = -1;
        if (!own_mounts() || unshare(CLONE_NEWPID) != 0 || (first = fork()) == -1) {
            std::perror("no process table of its own");
            _exit(125);
        }
        if (first != 0) {
            int status = 0;
            waitpid(first, &status, 0);
            _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setsid(); // a signal to its group is for none outside
        if (mount("proc", "/proc", "proc", 0, "") != 0) {
            std::perror("no /proc of its own");
            _exit(125);
        }
        body();
    });
}

} // namespace keel_test

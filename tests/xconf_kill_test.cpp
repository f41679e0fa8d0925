/* SPDX-License-Identifier: MIT */
#include "xconf.h"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include "edited_file.h"

namespace {

using keel_test::edited_file;
using keel_test::port_edit;
using keel_test::port_edits;
using keel_test::port_file;

/* Runs `body` in a child, which this process follows from one system call to the next. */
pid_t start_followed(const std::function<int()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        _exit(body());
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSTOPPED(status));
    return child;
}

/* Kills the child where it enters or leaves a system call, in all `stops` times. False where it
 * ended by itself before, with status 0. */
bool killed_at(int stops, const std::function<int()> &body) {
    const pid_t child = start_followed(body);
    int status = 0;
    for (; stops > 0; stops--) {
        EXPECT_EQ(ptrace(PTRACE_SYSCALL, child, nullptr, nullptr), 0);
        EXPECT_EQ(waitpid(child, &status, 0), child);
        if (!WIFSTOPPED(status)) {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
            return false;
        }
    }
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    return true;
}

class KilledEdit : public testing::TestWithParam<port_edit> {};

TEST_P(KilledEdit, LeavesTheOldTextOrTheNew) {
    const port_edit &edit = GetParam();
    const std::string before = port_file();
    const std::string after = edit.plain(before);
    edited_file file;
    int old_ones = 0;
    int new_ones = 0;
    bool killed = true;
    for (int stops = 1; killed; stops++) {
        file.write(before);
        killed = killed_at(stops, [&] { return edit.run(file.path()); });
        const std::string left = file.text();
        ASSERT_TRUE(left == before || left == after) << "killed at stop " << stops << ":\n" << left;
        (left == before ? old_ones : new_ones)++;
        ASSERT_EQ(edit.run(file.path()), 0) << "over what was left at stop " << stops;
        ASSERT_EQ(file.text(), edit.plain(left)) << stops;
        ASSERT_TRUE(file.alone()) << stops;
    }
    /* To open, read, write, close and rename takes two stops each. */
    EXPECT_GE(old_ones, 10);
    EXPECT_GE(new_ones, 2);
}

INSTANTIATE_TEST_SUITE_P(EveryFunction, KilledEdit, testing::ValuesIn(port_edits),
                         [](const auto &tested) { return std::string(tested.param.name); });

} // namespace

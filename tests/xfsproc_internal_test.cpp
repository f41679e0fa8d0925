/* SPDX-License-Identifier: MIT */
#include "xfsproc.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "allocation_faults.h"
#include "child.h"

namespace {

using keel_test::child_result;
using keel_test::exited;
using keel_test::failing_allocation;
using keel_test::run_in_child;

/* A stream's buffer comes from the checked allocation, the line buffer from the line reader. */
TEST(SnapshotMemory, TheFirstCallEndsWithoutIt) {
    constexpr int no_failure = 77;
    int without_line = 0;
    int without_memory = 0;
    for (int n = 1;; n++) {
        const child_result ending = run_in_child([n] {
            const failing_allocation failing(n);
            get_system_stat();
            if (!failing.happened())
                _exit(no_failure);
        });
        if (ending.status == no_failure)
            break;
        EXPECT_TRUE(ending == exited(1) || ending == exited(255, "No memory!!!\n"))
            << n << ": " << testing::PrintToString(ending);
        without_line += ending == exited(1);
        without_memory += ending.status == 255;
    }
    EXPECT_GE(without_line, 1);
    EXPECT_GE(without_memory, 1);
}

} // namespace

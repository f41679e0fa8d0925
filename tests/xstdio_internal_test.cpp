/* SPDX-License-Identifier: MIT */
#include "xstdio.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

#include "allocation_faults.h"
#include "child.h"
#include "plain_lines.h"

namespace {

using keel_test::exited;
using keel_test::failing_allocation;
using keel_test::file_of;
using keel_test::run_in_child;

/* Reads a line of `length` characters into a buffer of `size` bytes, or none. */
keel_test::child_result ending_without_memory(int size, std::size_t length) {
    FILE *file = file_of(std::string(length, 'x'));
    const auto ending = run_in_child([&] {
        char *buffer = size == 0 ? nullptr : static_cast<char *>(std::malloc(80));
        int capacity = size;
        const failing_allocation first(1);
        _fgets(&buffer, &capacity, file, nullptr);
        _exit(first.happened() ? 3 : 2);
    });
    std::fclose(file);
    return ending;
}

TEST(FgetsMemory, EndsWithoutAWordWhereThereIsNone) {
    EXPECT_EQ(ending_without_memory(0, 10), exited(1));
    EXPECT_EQ(ending_without_memory(10, 10), exited(1));
    EXPECT_EQ(ending_without_memory(-10, 10), exited(1));
    EXPECT_EQ(ending_without_memory(80, 79), exited(1)) << "the one step more at the file's end";
    EXPECT_EQ(ending_without_memory(80, 10), exited(2)) << "nothing to allocate";
}

} // namespace

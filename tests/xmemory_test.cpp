/* SPDX-License-Identifier: MIT */
#include "xmemory.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>

#include "child.h"

namespace {

using keel_test::exited;
using keel_test::run_in_child;

constexpr std::uint32_t tags[] = {0, 1, UINT32_MAX};

/* More than any machine has, and than the allocator takes for a size. */
volatile std::size_t too_much = PTRDIFF_MAX;

TEST(Xmemory, GivesBlocksWhateverTheTag) {
    for (const std::uint32_t tag : tags) {
        auto *block = static_cast<char *>(xmalloc(tag, 16));
        std::memset(block, 7, 16);
        block = static_cast<char *>(xrealloc(tag, block, 4096));
        EXPECT_EQ(block[0], 7);
        EXPECT_EQ(block[15], 7);
        xfree(tag, block);
    }
}

TEST(Xmemory, CallocZeroes) {
    auto *block = static_cast<char *>(xcalloc(0, 1000));
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(block[i], 0) << i;
    xfree(0, block);
}

TEST(Xmemory, ReallocOfNullAllocates) {
    void *block = xrealloc(0, nullptr, 8);
    EXPECT_NE(block, nullptr);
    xfree(0, block);
}

TEST(Xmemory, EmptyBlocksAreBlocks) {
    void *one = xmalloc(0, 0);
    void *other = xcalloc(0, 0);
    EXPECT_NE(one, nullptr);
    EXPECT_NE(other, nullptr);
    xfree(0, one);
    xfree(0, other);
}

TEST(Xmemory, FreeIgnoresNull) { xfree(0, nullptr); }

TEST(Xmemory, EndsWithoutMemory) {
    const auto no_memory = exited(255, "No memory!!!\n");
    EXPECT_EQ(run_in_child([] { xmalloc(0, too_much); }), no_memory);
    EXPECT_EQ(run_in_child([] { xcalloc(1, too_much); }), no_memory);
    EXPECT_EQ(run_in_child([] { xrealloc(2, nullptr, too_much); }), no_memory);
    EXPECT_EQ(run_in_child([] { xrealloc(0, xmalloc(0, 8), too_much); }), no_memory);
}

TEST(Xmemory, ReallocToNothingEnds) {
    EXPECT_EQ(run_in_child([] { xrealloc(0, xmalloc(0, 8), 0); }), exited(255, "No memory!!!\n"));
}

} // namespace

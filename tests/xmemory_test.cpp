/* SPDX-License-Identifier: MIT */
#include "xmemory.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "cancelled.h"
#include "child.h"

namespace {

using keel_test::exited;
using keel_test::run_cancelled;
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
    constexpr std::array<char, 1000> zeroes{};
    for (int i = 0; i < 10; i++) { // the later ones may be blocks that were in use
        void *block = xcalloc(0, zeroes.size());
        ASSERT_EQ(std::memcmp(block, zeroes.data(), zeroes.size()), 0);
        std::memset(block, 7, zeroes.size());
        xfree(0, block);
    }
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

TEST(Xmemory, FreeIgnoresNull) {
    xfree(0, nullptr);
}

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

/* Each write becomes a message of its own on the socket that takes standard error's place. */
TEST(Xmemory, SaysSoInOneWrite) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const auto without_memory = [&] {
        dup2(ends[1], STDERR_FILENO);
        xmalloc(0, too_much);
    };
    EXPECT_EQ(run_in_child(without_memory), exited(255));
    close(ends[1]);
    char message[64];
    ssize_t size;
    std::vector<std::string> messages; // a sanitizer may add some of its own
    while ((size = recv(ends[0], message, sizeof message, 0)) > 0)
        messages.emplace_back(message, static_cast<std::size_t>(size));
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "No memory!!!\n"), 1);
    close(ends[0]);
}

TEST(Xmemory, EndsAThreadsProcessThoughTheThreadIsCancelled) {
    const auto cancelled = [] {
        run_cancelled([] {
            std::fputs("pending", stdout);
            xmalloc(0, too_much);
        });
    };
    const keel_test::child_result whole = {255, 0, "pending", "No memory!!!\n"};
    EXPECT_EQ(run_in_child(cancelled), whole);
}

} // namespace

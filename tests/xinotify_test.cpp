/* SPDX-License-Identifier: MIT */
#include "xinotify.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/inotify.h>
#include <unistd.h>
#include <vector>

#include "cancelled.h"
#include "child.h"
#include "descriptors.h"
#include "temp_dir.h"

namespace {

using keel_test::exited;
using keel_test::run_cancelled;
using keel_test::run_in_child;
using keel_test::temp_dir;
using keel_test::write_file;

struct event {
    int watch;
    std::uint32_t mask;
    std::string name;

    bool operator==(const event &) const = default;
};

/* An inotify descriptor for one test, and what it has to tell. */
class Inotify : public testing::Test {
  protected:
    ~Inotify() override { close(events); }

    /* The events since the last call: they are there as soon as the call that caused them is over,
     * and the descriptor does not wait for more. */
    std::vector<event> news() {
        alignas(inotify_event) char block[4096];
        std::vector<event> all;
        ssize_t size;
        while ((size = read(events, block, sizeof block)) > 0) {
            for (ssize_t i = 0; i < size;) {
                inotify_event head{};
                std::memcpy(&head, block + i, sizeof head);
                const char *name = block + i + sizeof head;
                all.push_back({head.wd, head.mask, head.len > 0 ? name : ""});
                i += static_cast<ssize_t>(sizeof head + head.len);
            }
        }
        EXPECT_EQ(errno, EAGAIN);
        return all;
    }

    temp_dir dir;
    const int events = Inotify_init();
};

TEST_F(Inotify, DescriptorDoesNotBlockAndIsNotInherited) {
    EXPECT_EQ(fcntl(events, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(events, F_GETFD), FD_CLOEXEC);
    char block[512];
    EXPECT_EQ(read(events, block, sizeof block), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Inotify, TellsWhatTheMaskAsksFor) {
    const int watch = Inotify_add_watch(events, dir.path().c_str(), IN_CREATE | IN_DELETE);
    EXPECT_GT(watch, 0);
    write_file(dir / "file", "text");
    std::filesystem::rename(dir / "file", dir / "renamed");
    std::filesystem::remove(dir / "renamed");
    const std::vector<event> expected = {{watch, IN_CREATE, "file"}, {watch, IN_DELETE, "renamed"}};
    EXPECT_EQ(news(), expected);
}

TEST_F(Inotify, TellsTheWatchesApart) {
    write_file(dir / "one", "");
    write_file(dir / "other", "");
    const int one = Inotify_add_watch(events, (dir / "one").c_str(), IN_MODIFY);
    const int other = Inotify_add_watch(events, (dir / "other").c_str(), IN_CLOSE_WRITE);
    EXPECT_NE(one, other);
    write_file(dir / "one", "text");
    write_file(dir / "other", "text");
    const std::vector<event> expected = {{one, IN_MODIFY, ""}, {other, IN_CLOSE_WRITE, ""}};
    EXPECT_EQ(news(), expected);
    EXPECT_EQ(Inotify_add_watch(events, (dir / "one").c_str(), IN_OPEN), one) << "known already";
}

TEST_F(Inotify, TakesTheHighestBitOfTheMask) {
    const int watch = Inotify_add_watch(events, dir.path().c_str(), IN_CREATE | IN_ONESHOT);
    write_file(dir / "first", "");
    write_file(dir / "second", "");
    const std::vector<event> expected = {{watch, IN_CREATE, "first"}, {watch, IN_IGNORED, ""}};
    EXPECT_EQ(news(), expected);
}

TEST_F(Inotify, TellsNothingOfAWatchThatWasRemoved) {
    const int watch = Inotify_add_watch(events, dir.path().c_str(), IN_CREATE);
    EXPECT_EQ(Inotify_rm_watch(events, watch), 0);
    write_file(dir / "file", "");
    const std::vector<event> expected = {{watch, IN_IGNORED, ""}};
    EXPECT_EQ(news(), expected);
}

TEST_F(Inotify, EndsWithoutAWordWhereNothingCanBeWatched) {
    const std::string missing = dir / "missing";
    const std::string here = dir.path();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const struct {
        int descriptor;
        const char *path;
        std::uint32_t mask;
    } rows[] = {
        {events, missing.c_str(), IN_CREATE}, {events, "", IN_CREATE},
        {events, nullptr, IN_CREATE},         {events, here.c_str(), 0},
        {-1, here.c_str(), IN_CREATE},        {ends[0], here.c_str(), IN_CREATE},
    };
    for (const auto &row : rows) {
        const auto add = [&] { Inotify_add_watch(row.descriptor, row.path, row.mask); };
        EXPECT_EQ(run_in_child(add), exited(1)) << row.descriptor << " " << row.mask;
    }
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Inotify, EndsWithoutAWordWhereThereIsNoWatchToRemove) {
    const int watch = Inotify_add_watch(events, dir.path().c_str(), IN_CREATE);
    EXPECT_EQ(run_in_child([&] { Inotify_rm_watch(events, watch + 1); }), exited(1));
    EXPECT_EQ(run_in_child([&] { Inotify_rm_watch(events, -1); }), exited(1));
    EXPECT_EQ(run_in_child([&] { Inotify_rm_watch(-1, watch); }), exited(1));
    Inotify_rm_watch(events, watch);
    EXPECT_EQ(run_in_child([&] { Inotify_rm_watch(events, watch); }), exited(1)) << "twice";
}

TEST(InotifyInit, EndsWithoutAWordWhereThereIsNoDescriptor) {
    const auto without = [] {
        keel_test::forbid_descriptors();
        Inotify_init();
    };
    EXPECT_EQ(run_in_child(without), exited(1));
}

TEST(InotifyInit, EndsAThreadsProcessThoughTheThreadIsCancelled) {
    const auto cancelled = [] {
        run_cancelled([] {
            std::fputs("pending", stdout);
            keel_test::forbid_descriptors();
            Inotify_init();
        });
    };
    EXPECT_EQ(run_in_child(cancelled), (keel_test::child_result{1, 0, "pending", ""}));
}

} // namespace

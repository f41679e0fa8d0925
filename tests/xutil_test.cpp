/* SPDX-License-Identifier: MIT */
#include "xutil.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <linux/nsfs.h>
#include <linux/random.h>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cancelled.h"
#include "child.h"
#include "temp_dir.h"

namespace {

using keel_test::content_of;
using keel_test::exited;
using keel_test::run_cancelled;
using keel_test::run_in_child;
using keel_test::temp_dir;
using keel_test::write_file;

bool is_open(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

/* The kind of file that `path` itself is. */
mode_t kind_of(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

TEST(ErrSys, EndsWithoutAWordWhateverTheMessage) {
    void (*const end)(const char *, ...) = err_sys; // unseen by the compiler, which would object
    const std::function<void()> endings[] = {
        [] { err_sys("text"); },
        [] { err_sys("unlink error(%s)", "/tmp/name"); },
        [] { err_sys("%d %s %ld %c %f", 1, "two", 3L, '4', 5.0); },
        [] { err_sys("%s", std::string(100'000, 'x').c_str()); },
        [end] { end(""); },
        [end] { end(nullptr); },
        [end] { end("%s%n"); },
    };
    for (const auto &ending : endings)
        EXPECT_EQ(run_in_child(ending), exited(1));
}

TEST(ErrSys, EndsAThreadsProcessThoughTheThreadIsCancelled) {
    const auto cancelled = [] {
        run_cancelled([] {
            std::fputs("pending", stdout);
            err_sys("text");
        });
    };
    EXPECT_EQ(run_in_child(cancelled), (keel_test::child_result{1, 0, "pending", ""}));
}

TEST(Close, ClosesTheDescriptor) {
    const int descriptor = open("/dev/null", O_RDONLY);
    ASSERT_TRUE(is_open(descriptor));
    EXPECT_EQ(Close(descriptor), 0);
    EXPECT_FALSE(is_open(descriptor));
}

TEST(Close, EndsWithoutAWordForWhatIsNotOpen) {
    for (const int descriptor : {-1, -2, 1'000'000})
        EXPECT_EQ(run_in_child([=] { Close(descriptor); }), exited(1)) << descriptor;
    const auto twice = [] {
        const int descriptor = open("/dev/null", O_RDONLY);
        Close(descriptor);
        Close(descriptor);
    };
    EXPECT_EQ(run_in_child(twice), exited(1));
}

TEST(Unlink, RemovesTheName) {
    const temp_dir dir;
    write_file(dir / "file", "text");
    ASSERT_EQ(symlink("file", (dir / "link").c_str()), 0);
    EXPECT_EQ(Unlink((dir / "link").c_str()), 0);
    EXPECT_EQ(content_of(dir / "file"), "text") << "a link is removed, not what it points to";
    EXPECT_EQ(Unlink((dir / "file").c_str()), 0);
    EXPECT_EQ(dir.names().size(), 0U);
}

TEST(Unlink, EndsWithoutAWordForWhatCannotBeRemoved) {
    const temp_dir dir;
    const std::string too_long = dir / std::string(NAME_MAX + 1, 'x');
    const std::string missing = dir / "missing";
    const std::string itself = dir.path();
    for (const char *path : {missing.c_str(), itself.c_str(), too_long.c_str(), "",
                             static_cast<const char *>(nullptr)})
        EXPECT_EQ(run_in_child([=] { Unlink(path); }), exited(1)) << (path ? path : "null");
    EXPECT_TRUE(std::filesystem::is_directory(itself));
}

TEST(Ioctl, PassesTheArgument) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "12345", 5), 5);
    int unread = -1;
    EXPECT_EQ(Ioctl(ends[0], FIONREAD, &unread), 0);
    EXPECT_EQ(unread, 5);
    close(ends[0]);
    close(ends[1]);
}

TEST(Ioctl, TakesRequestsWithTheHighestBitSet) {
    static_assert(static_cast<int>(RNDGETENTCNT) < 0);
    const int descriptor = open("/dev/urandom", O_RDONLY);
    ASSERT_NE(descriptor, -1);
    int entropy = -1;
    EXPECT_EQ(Ioctl(descriptor, static_cast<int>(RNDGETENTCNT), &entropy), 0);
    EXPECT_GE(entropy, 0);
    close(descriptor);
}

TEST(Ioctl, ReturnsTheResult) {
    const int descriptor = open("/proc/self/ns/uts", O_RDONLY);
    ASSERT_NE(descriptor, -1);
    EXPECT_EQ(Ioctl(descriptor, NS_GET_NSTYPE, nullptr), CLONE_NEWUTS);
    close(descriptor);
}

TEST(Ioctl, EndsWithoutAWordForWhatIsNotDone) {
    int value = 0;
    const auto no_terminal = [&] {
        int ends[2];
        if (pipe(ends) == 0)
            Ioctl(ends[0], TCSBRK, nullptr);
    };
    EXPECT_EQ(run_in_child(no_terminal), exited(1));
    EXPECT_EQ(run_in_child([&] { Ioctl(-1, FIONREAD, &value); }), exited(1));
}

TEST(Socket, GivesADescriptor) {
    const int descriptor = Socket(AF_INET, SOCK_DGRAM, 0);
    int type = 0;
    socklen_t size = sizeof type;
    EXPECT_EQ(getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    EXPECT_EQ(getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &type, &size), 0);
    EXPECT_EQ(type, AF_INET);
    EXPECT_EQ(getsockopt(descriptor, SOL_SOCKET, SO_PROTOCOL, &type, &size), 0);
    EXPECT_EQ(type, IPPROTO_UDP);
    EXPECT_EQ(Close(descriptor), 0);
}

TEST(Socket, EndsWithoutAWordForWhatThereIsNot) {
    EXPECT_EQ(run_in_child([] { Socket(-1, SOCK_STREAM, 0); }), exited(1));
    EXPECT_EQ(run_in_child([] { Socket(AF_INET, -1, 0); }), exited(1));
    EXPECT_EQ(run_in_child([] { Socket(AF_INET, SOCK_STREAM, IPPROTO_UDP); }), exited(1));
}

TEST(Mkfifo, MakesAFifo) {
    const temp_dir dir;
    const std::string path = dir / "fifo";
    const mode_t former = umask(022);
    errno = EPERM;
    EXPECT_EQ(Mkfifo(path.c_str(), 0660), 0);
    EXPECT_EQ(errno, 0);
    umask(former);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFIFO | 0640U);
}

TEST(Mkfifo, SucceedsWhereAnythingExistsAndLeavesIt) {
    const temp_dir dir;
    write_file(dir / "file", "text");
    std::filesystem::create_directory(dir / "directory");
    std::filesystem::create_symlink("nowhere", dir / "link");
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    const struct {
        const char *name;
        mode_t kind;
    } rows[] = {{"file", S_IFREG}, {"directory", S_IFDIR}, {"link", S_IFLNK}, {"fifo", S_IFIFO}};
    for (const auto &row : rows) {
        const std::string path = dir / row.name;
        errno = EPERM;
        EXPECT_EQ(Mkfifo(path.c_str(), 0600), 0) << row.name;
        EXPECT_EQ(errno, 0) << row.name;
        EXPECT_EQ(kind_of(path), row.kind) << row.name;
    }
    EXPECT_EQ(content_of(dir / "file"), "text");
}

TEST(Mkfifo, FailsWithTheSystemsError) {
    const temp_dir dir;
    write_file(dir / "file", "text");
    const std::string no_directory = dir / "missing/fifo";
    const std::string below_a_file = dir / "file/fifo";
    const std::string too_long = dir / std::string(NAME_MAX + 1, 'x');
    const struct {
        const char *path;
        int error;
    } rows[] = {
        {no_directory.c_str(), ENOENT},
        {below_a_file.c_str(), ENOTDIR},
        {too_long.c_str(), ENAMETOOLONG},
        {"", ENOENT},
        {nullptr, EFAULT},
    };
    for (const auto &row : rows) {
        errno = 0;
        EXPECT_EQ(Mkfifo(row.path, 0600), -1) << (row.path ? row.path : "null");
        EXPECT_EQ(errno, row.error) << (row.path ? row.path : "null");
    }
    EXPECT_EQ(run_in_child([&] { Mkfifo(no_directory.c_str(), 0600); }), exited(0));
    EXPECT_EQ(dir.names().size(), 1U);
}

} // namespace

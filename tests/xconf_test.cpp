/* SPDX-License-Identifier: MIT */
#include "xconf.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "cancelled.h"
#include "child.h"
#include "descriptors.h"
#include "process_limits.h"
#include "small_disk.h"
#include "temp_dir.h"

namespace {

using keel_test::content_of;
using keel_test::count_descriptors;
using keel_test::exited;
using keel_test::file_size_limit;
using keel_test::run_in_child;
using keel_test::temp_dir;
using keel_test::umask_of;
using keel_test::write_file;
using std::filesystem::exists;

/* Hidden from the compiler, which knows what a format must not be. */
int (*volatile cover)(const char *, const char *, ...) = file_cover;
int (*volatile append)(const char *, const char *, ...) = file_append;

/* The writers that take a format, for what both have in common. */
constexpr int (*writers[])(const char *, const char *, ...) = {file_cover, file_append};

mode_t permissions_of(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::string repeated(const std::string &text, std::size_t size) {
    std::string all;
    while (all.size() < size)
        all += text;
    all.resize(size);
    return all;
}

/* ---- fexist --------------------------------------------------------------------------------- */

bool make_socket(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int socket_descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool made =
        bind(socket_descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    close(socket_descriptor);
    return made;
}

/* A file of that kind, or "" where it could not be made. */
std::string make_kind(const temp_dir &dir, unsigned kind) {
    const std::string path = dir / ("kind" + std::to_string(kind));
    const char *name = path.c_str();
    const bool made[] = {
        kind == 0 && (write_file(path, "text"), true),
        kind == 1 && mkdir(name, 0777) == 0,
        kind == 2 && mknod(name, S_IFCHR | 0600, makedev(1, 3)) == 0,
        kind == 3 && mknod(name, S_IFBLK | 0600, makedev(7, 200)) == 0,
        kind == 4 && mkfifo(name, 0600) == 0,
        kind == 5 && symlink("kind0", name) == 0,
        kind == 6 && make_socket(path),
    };
    return made[kind] ? path : "";
}

TEST(Fexist, TellsEachKindFromTheOthers) {
    if (geteuid() != 0)
        GTEST_SKIP() << "making device nodes needs root";
    const temp_dir dir;
    for (unsigned kind = 0; kind <= 6; kind++) {
        const std::string path = make_kind(dir, kind);
        ASSERT_NE(path, "") << kind << ": " << std::strerror(errno);
        for (unsigned type = 0; type <= 6; type++)
            EXPECT_EQ(fexist(path.c_str(), type), type == kind ? 0 : 1) << kind << " as " << type;
        for (const unsigned type : {7U, 8U, unsigned{INT_MAX}, UINT_MAX})
            EXPECT_EQ(fexist(path.c_str(), type), -1) << kind << " as " << type;
    }
}

TEST(Fexist, NeverFollowsALink) {
    const temp_dir dir;
    std::filesystem::create_directory_symlink(dir.path(), dir / "to_directory");
    std::filesystem::create_symlink("nowhere", dir / "dangling");
    for (const char *name : {"to_directory", "dangling"}) {
        EXPECT_EQ(fexist((dir / name).c_str(), 5), 0) << name;
        EXPECT_EQ(fexist((dir / name).c_str(), 1), 1) << name;
        EXPECT_EQ(fexist((dir / name).c_str(), 0), 1) << name;
    }
}

TEST(Fexist, FailsWhereNothingCanBeExamined) {
    const temp_dir dir;
    write_file(dir / "file", "");
    for (unsigned type = 0; type <= 7; type++) {
        EXPECT_EQ(fexist(nullptr, type), -1);
        EXPECT_EQ(fexist("", type), -1);
        EXPECT_EQ(fexist((dir / "missing").c_str(), type), -1);
        EXPECT_EQ(fexist((dir / "file/below").c_str(), type), -1);
        EXPECT_EQ(fexist((dir / std::string(300, 'x')).c_str(), type), -1);
    }
    errno = 0;
    EXPECT_EQ(fexist((dir / "missing").c_str(), 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(fexist((dir / "file/below").c_str(), 0), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

/* ---- fpath_dup ------------------------------------------------------------------------------ */

TEST(FpathDup, JoinsWithOneSlash) {
    struct row {
        const char *directory, *name, *path;
    };
    constexpr row rows[] = {
        {"/var/log/", "a.log", "/var/log/a.log"},
        {"/var/log", "a.log", "/var/log/a.log"},
        {"logs", "a.log", "logs/a.log"},
        {"logs/", "a.log", "logs/a.log"},
        {"/", "x", "/x"},
        {"/var/log", nullptr, "/var/log/"},
        {"/var/log/", nullptr, "/var/log/"},
        {"logs", nullptr, "logs/"},
        {"/", nullptr, "/"},
        {"/var/log", "", "/var/log/"},
        {"/var/log/", "", "/var/log/"},
        {"", "x", "/x"},
        {"", nullptr, "/"},
        {"", "", "/"},
        {"//", "x", "//x"},
        {"/a/b", "/c", "/a/b//c"},
        {"/a/b/", "/c", "/a/b//c"},
        {"a", "b/c/", "a/b/c/"},
        {".", "..", "./.."},
    };
    for (const row &r : rows)
        for (const auto join : {fpath_dup, Fpath_dup}) {
            char *path = join(r.directory, r.name);
            EXPECT_STREQ(path, r.path);
            std::free(path);
        }
}

TEST(FpathDup, TakesAnyLength) {
    const std::string directory(100000, 'd');
    const std::string name(200000, 'n');
    char *path = fpath_dup(directory.c_str(), name.c_str());
    EXPECT_EQ(path, directory + "/" + name);
    std::free(path);
}

TEST(FpathDup, HasNoPathWithoutADirectory) {
    EXPECT_EQ(fpath_dup(nullptr, "x"), nullptr);
    EXPECT_EQ(fpath_dup(nullptr, nullptr), nullptr);
}

TEST(FpathDup, CapitalOneEndsTheProcessWithoutAWord) {
    EXPECT_EQ(run_in_child([] { Fpath_dup(nullptr, "x"); }), exited(1));
}

/* ---- ftherein ------------------------------------------------------------------------------- */

class Ftherein : public testing::Test {
  protected:
    Ftherein() {
        write_file(path_, "text");
        descriptor_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    }
    ~Ftherein() override { close(descriptor_); }

    int told() const { return ftherein(descriptor_, path_.c_str()); }

    temp_dir dir_;
    std::string path_ = dir_ / "file";
    std::string elsewhere_ = dir_ / "elsewhere";
    int descriptor_ = -1;
};

TEST_F(Ftherein, FileInPlace) {
    EXPECT_EQ(told(), 5);
}

TEST_F(Ftherein, FileDeleted) {
    unlink(path_.c_str());
    EXPECT_EQ(told(), 10);
}

TEST_F(Ftherein, FileDeletedAndPathMadeAgain) {
    unlink(path_.c_str());
    write_file(path_, "another");
    EXPECT_EQ(told(), 6);
}

TEST_F(Ftherein, FileMovedAway) {
    rename(path_.c_str(), elsewhere_.c_str());
    EXPECT_EQ(told(), 9);
}

TEST_F(Ftherein, FileMovedAwayAndPathMadeAgain) {
    rename(path_.c_str(), elsewhere_.c_str());
    write_file(path_, "another");
    EXPECT_EQ(told(), 5);
}

TEST_F(Ftherein, OneOfTwoNamesDeleted) {
    EXPECT_EQ(link(path_.c_str(), elsewhere_.c_str()), 0);
    unlink(path_.c_str());
    EXPECT_EQ(told(), 9);
}

TEST_F(Ftherein, DanglingLinkIsThere) {
    unlink(path_.c_str());
    EXPECT_EQ(symlink("nowhere", path_.c_str()), 0);
    EXPECT_EQ(told(), 6);
}

TEST_F(Ftherein, TellsNothingWhereEitherFails) {
    std::filesystem::create_symlink("loop", dir_ / "loop");
    EXPECT_EQ(ftherein(-1, path_.c_str()), 0);
    EXPECT_EQ(ftherein(-1, elsewhere_.c_str()), 0);
    EXPECT_EQ(ftherein(1 << 20, path_.c_str()), 0);
    EXPECT_EQ(ftherein(descriptor_, (path_ + "/below").c_str()), 0);
    EXPECT_EQ(ftherein(descriptor_, (dir_ / "loop/below").c_str()), 0);
    EXPECT_EQ(ftherein(descriptor_, (dir_ / std::string(300, 'x')).c_str()), 0);
    EXPECT_EQ(ftherein(descriptor_, nullptr), 0);
}

/* ---- fmodified ------------------------------------------------------------------------------ */

bool set_modified(const std::string &path, time_t seconds, long nanoseconds = 0) {
    const timespec times[] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
    return utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

TEST(Fmodified, ReportsEachChangeOfTheSecondOnce) {
    const temp_dir dir;
    const std::string path = dir / "file";
    write_file(path, "text");
    struct row {
        time_t seconds;
        long nanoseconds;
        int result;
    };
    constexpr row rows[] = {
        {1700000000, 0, 1},         {1700000000, 0, 0}, {1700000000, 999999999, 0},
        {1700000001, 0, 1},         {1600000000, 0, 1}, // back in time is a change too
        {1600000000, 1, 0},         {-5, 0, 1},         {-5, 0, 0},
        {1700000000, 500000000, 1},
    };
    long stamp = 0;
    for (const row &r : rows) {
        ASSERT_TRUE(set_modified(path, r.seconds, r.nanoseconds));
        EXPECT_EQ(fmodified(path.c_str(), &stamp), r.result) << r.seconds << "." << r.nanoseconds;
        EXPECT_EQ(stamp, r.seconds);
    }
}

TEST(Fmodified, EveryFileHasAStampAfterTheFirstCall) {
    const temp_dir dir;
    const std::string path = dir / "file";
    write_file(path, "text");
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    long stamp = 0;
    EXPECT_EQ(fmodified(path.c_str(), &stamp), 1);
    EXPECT_EQ(stamp, status.st_mtim.tv_sec);
    EXPECT_EQ(fmodified(path.c_str(), &stamp), 0);
}

TEST(Fmodified, LooksAtALinkItself) {
    const temp_dir dir;
    write_file(dir / "file", "text");
    std::filesystem::create_symlink("file", dir / "link");
    ASSERT_TRUE(set_modified(dir / "file", 1111) && set_modified(dir / "link", 2222));
    long stamp = 0;
    EXPECT_EQ(fmodified((dir / "link").c_str(), &stamp), 1);
    EXPECT_EQ(stamp, 2222);
}

TEST(Fmodified, LeavesTheStampWhereItFails) {
    const temp_dir dir;
    long stamp = 42;
    EXPECT_EQ(fmodified((dir / "missing").c_str(), &stamp), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(fmodified(nullptr, &stamp), -1);
    EXPECT_EQ(fmodified("", &stamp), -1);
    EXPECT_EQ(stamp, 42);
    EXPECT_EQ(fmodified(dir.path().c_str(), nullptr), -1);
}

/* ---- What the writing operations have in common ---------------------------------------------- */

struct operation {
    const char *name;
    int (*run)(const char *path);
};

constexpr operation writing_operations[] = {
    {"touch", file_touch},
    {"clear", file_clear},
    {"cover", [](const char *path) { return file_cover(path, "text"); }},
    {"append", [](const char *path) { return file_append(path, "text"); }},
    {"copy", [](const char *path) { return file_copy("/proc/self/stat", path); }},
};

TEST(FileWriters, FailOnWhatCannotBeOpened) {
    const temp_dir dir;
    write_file(dir / "file", "text");
    const std::vector<std::string> paths = {dir / "no/such/file", dir.path(), dir / "file/below",
                                            dir / std::string(300, 'x'), ""};
    const auto before = count_descriptors();
    for (const operation &o : writing_operations) {
        for (const std::string &path : paths)
            EXPECT_EQ(o.run(path.c_str()), -1) << o.name << " " << path;
        EXPECT_EQ(o.run(nullptr), -1) << o.name;
        errno = 0;
        EXPECT_EQ(o.run((dir / "no/such/file").c_str()), -1);
        EXPECT_EQ(errno, ENOENT) << o.name;
    }
    EXPECT_EQ(count_descriptors(), before);
    EXPECT_EQ(dir.names(), std::vector<std::string>{"file"});
    EXPECT_EQ(content_of(dir / "file"), "text");
}

TEST(FileWriters, CreateWithTheDefaultPermissions) {
    const temp_dir dir;
    for (const mode_t mask : {0000U, 0022U, 0027U, 0777U}) {
        const umask_of scope(mask);
        for (const operation &o : writing_operations) {
            const std::string path = dir / o.name + std::to_string(mask);
            if (o.run(path.c_str()) == -1)
                EXPECT_STREQ(o.name, "clear"); // never creates
            else
                EXPECT_EQ(permissions_of(path), 0666U & ~mask) << o.name;
        }
        EXPECT_FALSE(exists(dir / "clear" + std::to_string(mask)));
    }
}

TEST(FileWriters, KeepPermissionsAndLeaveNothingOpen) {
    const temp_dir dir;
    const std::string path = dir / "file";
    write_file(path, "text");
    chmod(path.c_str(), 0751);
    const auto before = count_descriptors();
    for (const operation &o : writing_operations) {
        EXPECT_GE(o.run(path.c_str()), 0) << o.name;
        EXPECT_EQ(permissions_of(path), 0751U) << o.name;
    }
    EXPECT_EQ(count_descriptors(), before);
}

TEST(FileWriters, FollowLinks) {
    const temp_dir dir;
    std::filesystem::create_symlink("target", dir / "link");
    EXPECT_EQ(file_touch((dir / "link").c_str()), 0);
    EXPECT_EQ(file_cover((dir / "link").c_str(), "text"), 4);
    EXPECT_EQ(content_of(dir / "target"), "text");
    EXPECT_EQ(file_clear((dir / "link").c_str()), 0);
    EXPECT_EQ(content_of(dir / "target"), "");
    EXPECT_EQ(fexist((dir / "link").c_str(), 5), 0);
}

TEST(FileWriters, ThreadsMayUseThemAtOnceOnDifferentFiles) {
    const temp_dir dir;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([path = dir / std::to_string(i)] {
            for (int round = 0; round < 20; round++) {
                file_cover(path.c_str(), "%d", round);
                file_append(path.c_str(), " %s", path.c_str());
                file_copy(path.c_str(), (path + ".copy").c_str());
            }
        });
    for (auto &thread : threads)
        thread.join();
    for (int i = 0; i < 4; i++) {
        const std::string path = dir / std::to_string(i);
        EXPECT_EQ(content_of(path), "19 " + path);
        EXPECT_EQ(content_of(path + ".copy"), "19 " + path);
    }
}

TEST(FileWriters, CancelledThreadsLeaveNothingOpen) {
    const temp_dir dir;
    const std::string path = dir / "file";
    const auto before = count_descriptors();
    for (const operation &o : writing_operations)
        EXPECT_TRUE(keel_test::run_cancelled([&] { o.run(path.c_str()); })) << o.name;
    EXPECT_EQ(count_descriptors(), before);
    EXPECT_EQ(file_cover(path.c_str(), "text"), 4);
}

/* ---- file_touch, file_clear ----------------------------------------------------------------- */

TEST(FileTouch, CreatesAnEmptyFileAndKeepsContent) {
    const temp_dir dir;
    const std::string path = dir / "file";
    EXPECT_EQ(file_touch(path.c_str()), 0);
    EXPECT_EQ(content_of(path), "");
    EXPECT_EQ(fexist(path.c_str(), 0), 0);
    write_file(path, "text");
    EXPECT_EQ(file_touch(path.c_str()), 0);
    EXPECT_EQ(content_of(path), "text");
}

TEST(FileClear, EmptiesWhatExistsAndCreatesNothing) {
    const temp_dir dir;
    const std::string path = dir / "file";
    errno = 0;
    EXPECT_EQ(file_clear(path.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(exists(path));
    write_file(path, repeated("text", 100000));
    EXPECT_EQ(file_clear(path.c_str()), 0);
    EXPECT_EQ(fexist(path.c_str(), 0), 0);
    EXPECT_EQ(content_of(path), "");
    EXPECT_EQ(file_clear(path.c_str()), 0);
}

TEST(FileClear, MakesNoTargetForADanglingLink) {
    const temp_dir dir;
    std::filesystem::create_symlink("nowhere", dir / "link");
    EXPECT_EQ(file_clear((dir / "link").c_str()), -1);
    EXPECT_FALSE(exists(dir / "nowhere"));
}

/* ---- file_cover, file_append ---------------------------------------------------------------- */

TEST(FileCover, ReplacesAllOfTheContent) {
    const temp_dir dir;
    const std::string path = dir / "file";
    EXPECT_EQ(file_cover(path.c_str(), "%s=%d, %5.1f%%\n", "load", 42, 99.5), 16);
    EXPECT_EQ(content_of(path), "load=42,  99.5%\n");
    EXPECT_EQ(file_cover(path.c_str(), "x"), 1);
    EXPECT_EQ(content_of(path), "x");
    EXPECT_EQ(file_cover(path.c_str(), "%s", ""), 0);
    EXPECT_EQ(content_of(path), "");
}

TEST(FileAppend, AddsAtTheEnd) {
    const temp_dir dir;
    const std::string path = dir / "file";
    EXPECT_EQ(file_append(path.c_str(), "%s", ""), 0);
    EXPECT_EQ(fexist(path.c_str(), 0), 0);
    EXPECT_EQ(file_append(path.c_str(), "one %d\n", 1), 6);
    EXPECT_EQ(file_append(path.c_str(), "%s", "two\n"), 4);
    EXPECT_EQ(file_append(path.c_str(), "three"), 5);
    EXPECT_EQ(content_of(path), "one 1\ntwo\nthree");
}

TEST(FileCoverAndAppend, WriteTextsOfAnyLengthAndAnyByte) {
    const temp_dir dir;
    for (const auto write : writers)
        for (const unsigned size : {1U, 4095U, 4096U, 4097U, 1U << 20}) {
            const std::string path = dir / "file";
            unlink(path.c_str());
            const std::string text = repeated("0123456789\n", size);
            EXPECT_EQ(write(path.c_str(), "%s", text.c_str()), static_cast<int>(size));
            EXPECT_EQ(content_of(path), text);
            unlink(path.c_str());
            EXPECT_EQ(write(path.c_str(), "a%cb", 0), 3);
            EXPECT_EQ(content_of(path), std::string("a\0b", 3));
        }
}

TEST(FileCoverAndAppend, ShowTheCallersError) {
    const temp_dir dir;
    const std::string path = dir / "file";
    errno = EDOM;
    const std::string reason = std::strerror(EDOM);
    EXPECT_EQ(cover(path.c_str(), "%m"), static_cast<int>(reason.size()));
    EXPECT_EQ(content_of(path), reason);
    errno = EDOM;
    append(path.c_str(), ", %m");
    EXPECT_EQ(content_of(path), reason + ", " + reason);
}

TEST(FileCoverAndAppend, ATextThatCannotBeMadeLeavesTheFile) {
    const temp_dir dir;
    const std::string path = dir / "file";
    const std::string missing = dir / "missing";
    write_file(path, "text");
    const wchar_t impossible[] = {static_cast<wchar_t>(0x7fffffff), 0};
    for (const auto write : writers) {
        EXPECT_LT(write(path.c_str(), "%ls", impossible), 0);
        EXPECT_LT(write(path.c_str(), "%2147483648d", 1), 0);
        EXPECT_LT(write(path.c_str(), nullptr), 0);
        EXPECT_LT(write(missing.c_str(), nullptr), 0);
    }
    EXPECT_EQ(content_of(path), "text");
    EXPECT_FALSE(exists(missing));
}

TEST(FileCoverAndAppend, AreNegativeOnAFullDevice) {
    for (const auto write : writers) {
        errno = 0;
        EXPECT_LT(write("/dev/full", "%s", "x"), 0);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(write("/dev/full", "%s", ""), 0);
    }
}

TEST(FileCoverAndAppend, AreNegativeAboveTheFileSizeLimit) {
    const temp_dir dir;
    const std::string path = dir / "file";
    const std::string text = repeated("text", 20000);
    const file_size_limit scope(8192);
    for (const auto write : writers) {
        errno = 0;
        EXPECT_LT(write(path.c_str(), "%s", text.c_str()), 0);
        EXPECT_EQ(errno, EFBIG);
        EXPECT_EQ(content_of(path), text.substr(0, 8192));
    }
}

TEST(FileCoverAndAppend, AreNegativeOnAFullDisk) {
    if (!keel_test::can_mount())
        GTEST_SKIP() << "mounting needs root";
    const temp_dir dir;
    const std::string path = dir / "file";
    const std::string text = repeated("text", 60000);
    keel_test::on_small_disk(dir.path(), "16k", [&] {
        for (const auto write : writers) {
            EXPECT_EQ(write(path.c_str(), "%s", "short"), 5);
            errno = 0;
            EXPECT_LT(write(path.c_str(), "%s", text.c_str()), 0);
            EXPECT_EQ(errno, ENOSPC);
            unlink(path.c_str());
        }
    });
}

/* ---- file_copy ------------------------------------------------------------------------------ */

TEST(FileCopy, CopiesBytesOfAnySize) {
    const temp_dir dir;
    const std::string bytes("\0\n\r\xff text", 9);
    for (const std::size_t size : {0U, 1U, 1023U, 1024U, 1025U, 2048U, 5000U, 100000U}) {
        const std::string content = repeated(bytes, size);
        write_file(dir / "from", content);
        write_file(dir / "to", repeated("old", 3000)); // longer or shorter
        EXPECT_EQ(file_copy((dir / "from").c_str(), (dir / "to").c_str()), 0) << size;
        EXPECT_EQ(content_of(dir / "to"), content) << size;
        EXPECT_EQ(content_of(dir / "from"), content) << size;
        unlink((dir / "to").c_str());
        EXPECT_EQ(file_copy((dir / "from").c_str(), (dir / "to").c_str()), 0) << size;
        EXPECT_EQ(content_of(dir / "to"), content) << size;
    }
}

TEST(FileCopy, CopiesNeitherPermissionsNorTimes) {
    const temp_dir dir;
    const umask_of scope(0022);
    write_file(dir / "from", "text");
    chmod((dir / "from").c_str(), 04755);
    ASSERT_TRUE(set_modified(dir / "from", 1000));
    EXPECT_EQ(file_copy((dir / "from").c_str(), (dir / "to").c_str()), 0);
    EXPECT_EQ(permissions_of(dir / "to"), 0644U);
    long stamp = 1000;
    EXPECT_EQ(fmodified((dir / "to").c_str(), &stamp), 1);
}

TEST(FileCopy, LeavesTheDestinationWhereTheSourceCannotBeOpened) {
    const temp_dir dir;
    write_file(dir / "to", "text");
    for (const std::string &from : {dir / "missing", dir / "to/below", std::string()}) {
        EXPECT_EQ(file_copy(from.c_str(), (dir / "to").c_str()), -1);
        EXPECT_EQ(file_copy(from.c_str(), (dir / "new").c_str()), -1);
    }
    EXPECT_EQ(file_copy(nullptr, (dir / "to").c_str()), -1);
    EXPECT_EQ(file_copy(nullptr, nullptr), -1);
    EXPECT_EQ(content_of(dir / "to"), "text");
    EXPECT_FALSE(exists(dir / "new"));
}

TEST(FileCopy, RemovesTheDestinationWhereReadingFails) {
    const temp_dir dir;
    write_file(dir / "to", "text");
    const auto before = count_descriptors();
    for (const char *to : {"to", "new"}) {
        errno = 0;
        EXPECT_EQ(file_copy(dir.path().c_str(), (dir / to).c_str()), -1);
        EXPECT_EQ(errno, EISDIR);
        EXPECT_FALSE(exists(dir / to));
    }
    EXPECT_EQ(count_descriptors(), before);
}

TEST(FileCopy, DoesNotNoticeAWriteThatFails) {
    const temp_dir dir;
    const std::string content = repeated("text", 20000);
    write_file(dir / "from", content);
    EXPECT_EQ(file_copy((dir / "from").c_str(), "/dev/full"), 0);
    const file_size_limit scope(8192);
    EXPECT_EQ(file_copy((dir / "from").c_str(), (dir / "to").c_str()), 0);
    EXPECT_EQ(content_of(dir / "to"), content.substr(0, 8192));
}

TEST(FileCopy, KeepsWhatAFullDiskTook) {
    if (!keel_test::can_mount())
        GTEST_SKIP() << "mounting needs root";
    const temp_dir source;
    const temp_dir dir;
    const std::string content = repeated("text", 60000);
    write_file(source / "from", content);
    keel_test::on_small_disk(dir.path(), "16k", [&] {
        EXPECT_EQ(file_copy((source / "from").c_str(), (dir / "to").c_str()), 0);
        const std::string copied = content_of(dir / "to");
        EXPECT_EQ(copied, content.substr(0, copied.size()));
        EXPECT_GE(copied.size(), 1024U);
        EXPECT_LE(copied.size(), 16384U);
    });
}

TEST(FileCopy, ReadsAPipeToItsEnd) {
    const temp_dir dir;
    const std::string pipe = dir / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string content = repeated("0123456789", 300000);
    std::thread writer([&] { write_file(pipe, content); });
    EXPECT_EQ(file_copy(pipe.c_str(), (dir / "to").c_str()), 0);
    writer.join();
    EXPECT_EQ(content_of(dir / "to"), content);
}

/* ---- file_sflush ---------------------------------------------------------------------------- */

/* All of a buffer after a call that was told the first `size` bytes of it. */
std::string flushed_into(std::string buffer, std::size_t size, const std::string &path,
                         int expected) {
    EXPECT_EQ(file_sflush(path.c_str(), buffer.data(), size), expected) << "size " << size;
    return buffer;
}

/* Stored text is terminated, the rest zeroed, and nothing is written beyond. */
void expect_flushed(const std::string &path, const std::string &text, std::size_t size) {
    const std::string stored = text.substr(0, size - 1);
    const std::string expected = stored + std::string(size - stored.size(), '\0') + "~~~";
    EXPECT_EQ(flushed_into(std::string(size + 3, '~'), size, path, static_cast<int>(stored.size())),
              expected);
}

TEST(FileSflush, ReadsWhatFits) {
    struct row {
        std::string content, text;
    };
    const std::string long_line = repeated("0123456789", 10000);
    const row rows[] = {
        {"", ""},
        {"hello world", "hello world"},
        {"hello world\n", "hello world\n"},
        {"\n", "\n"},
        {"\n\n\n", "\n\n\n"},
        {"one\ntwo\nthree", "one\ntwo\nthree"},
        {"one\r\ntwo\r\n", "one\ntwo\n"},
        {"one\rtwo\r", "one\rtwo\r"},
        {"\r\n\r\r\n", "\n\r\n"},
        {std::string("a\0b\nc\0", 6), std::string("a\0b\nc\0", 6)},
        {long_line + "\nend", long_line + "\nend"},
    };
    const temp_dir dir;
    const std::string path = dir / "file";
    for (const row &r : rows) {
        write_file(path, r.content);
        for (std::size_t size = 1; size <= 20; size++)
            expect_flushed(path, r.text, size);
        for (std::size_t size = r.text.size(); size <= r.text.size() + 5; size++)
            expect_flushed(path, r.text, size + 1);
    }
}

TEST(FileSflush, FourOfElevenCharactersInFiveBytes) {
    const temp_dir dir;
    write_file(dir / "file", "hello world\n");
    EXPECT_EQ(flushed_into("-------", 5, dir / "file", 4), std::string("hell\0--", 7));
}

TEST(FileSflush, LeavesTheBufferWhereItFails) {
    const temp_dir dir;
    const std::string untouched = "-------";
    write_file(dir / "file", "text");
    EXPECT_EQ(flushed_into(untouched, 7, dir / "missing", -1), untouched);
    EXPECT_EQ(flushed_into(untouched, 7, dir / "file/below", -1), untouched);
    EXPECT_EQ(flushed_into(untouched, 7, "", -1), untouched);
    EXPECT_EQ(flushed_into(untouched, 0, dir / "file", -1), untouched);
    char buffer[] = "-------";
    EXPECT_EQ(file_sflush(nullptr, buffer, sizeof buffer), -1);
    EXPECT_EQ(buffer, untouched);
    EXPECT_EQ(file_sflush((dir / "file").c_str(), nullptr, 7), -1);
    errno = 0;
    EXPECT_EQ(file_sflush((dir / "missing").c_str(), buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FileSflush, ADirectoryHasNoText) {
    const temp_dir dir;
    const auto before = count_descriptors();
    EXPECT_EQ(flushed_into("----", 3, dir.path(), 0), std::string("\0\0\0-", 4));
    EXPECT_EQ(count_descriptors(), before);
}

} // namespace

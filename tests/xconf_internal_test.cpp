/* SPDX-License-Identifier: MIT */
#include "xconf.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <ftw.h>
#include <functional>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <string>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "allocation_faults.h"
#include "cancelled.h"
#include "caught_output.h"
#include "child.h"
#include "clean_up.h"
#include "descriptors.h"
#include "edited_file.h"
#include "explained.h"
#include "plain_cleanup.h"
#include "system_calls.h"
#include "temp_dir.h"

namespace {

using keel_test::content_of;
using keel_test::count_descriptors;
using keel_test::edited_file;
using keel_test::exited;
using keel_test::failing_allocation;
using keel_test::interception;
using keel_test::port_edit;
using keel_test::port_edits;
using keel_test::port_file;
using keel_test::temp_dir;
using keel_test::write_file;

bool synchronous(int descriptor) {
    return (fcntl(descriptor, F_GETFL) & O_SYNC) == O_SYNC;
}

bool close_on_exec(int descriptor) {
    return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0;
}

bool for_writing(int descriptor) {
    return (fcntl(descriptor, F_GETFL) & O_ACCMODE) != O_RDONLY;
}

/* Tells what is done with a descriptor, which must be synchronous at each step. */
class journal {
  public:
    enum heeds { all, writers };

    explicit journal(heeds heeded = all) : heeded_(heeded) {
        calls_->set_fl = [this](int descriptor, int flags) {
            note(flags == O_SYNC ? "sync" : "other flags", descriptor);
            return __real_set_fl(descriptor, flags);
        };
        calls_->write = [this](int descriptor, const char *text, std::size_t length) {
            note("write " + std::to_string(length), descriptor);
            return __real_write(descriptor, text, length);
        };
        calls_->close = [this](int descriptor) {
            note("close", descriptor);
            return __real_close(descriptor);
        };
    }

    std::string take() { return std::exchange(events_, ""); }

  private:
    void note(const std::string &event, int descriptor) {
        if (heeded_ == writers && !for_writing(descriptor))
            return;
        events_ += event + ", ";
        EXPECT_TRUE(synchronous(descriptor)) << event;
        EXPECT_TRUE(close_on_exec(descriptor)) << event;
    }

    heeds heeded_;
    interception calls_;
    std::string events_;
};

/* A disk that takes three bytes at a time, and is interrupted before each of them. */
std::function<ssize_t(int, const char *, std::size_t)> reluctant_write() {
    return [turn = 0](int descriptor, const char *text, std::size_t length) mutable -> ssize_t {
        if (turn++ % 2 == 0) {
            errno = EINTR;
            return -1;
        }
        return __real_write(descriptor, text, std::min<std::size_t>(length, 3));
    };
}

TEST(XconfInternal, EveryFileIsMadeSynchronousBeforeItIsWritten) {
    const temp_dir dir;
    const std::string path = dir / "file";
    const std::string source = dir / "source";
    write_file(source, std::string(2500, 'x'));
    const std::string large(100000, 'x');
    journal journal;

    EXPECT_EQ(file_touch(path.c_str()), 0);
    EXPECT_EQ(journal.take(), "sync, close, ");
    EXPECT_EQ(file_clear(path.c_str()), 0);
    EXPECT_EQ(journal.take(), "sync, close, ");
    EXPECT_EQ(file_cover(path.c_str(), "four"), 4);
    EXPECT_EQ(journal.take(), "sync, write 4, close, ");
    EXPECT_EQ(file_cover(path.c_str(), "%s", large.c_str()), 100000);
    EXPECT_EQ(journal.take(), "sync, write 100000, close, ");
    EXPECT_EQ(file_cover(path.c_str(), "%s", ""), 0);
    EXPECT_EQ(journal.take(), "sync, close, ");
    EXPECT_EQ(file_append(path.c_str(), "four"), 4);
    EXPECT_EQ(journal.take(), "sync, write 4, close, ");
    EXPECT_EQ(file_copy(source.c_str(), path.c_str()), 0);
    EXPECT_EQ(journal.take(), "sync, sync, write 1024, write 1024, write 452, close, close, ");
}

TEST(XconfInternal, AFlagThatCannotBeSetIsIgnored) {
    const temp_dir dir;
    const std::string path = dir / "file";
    const std::string copy = dir / "copy";
    interception calls;
    calls->set_fl = [](int, int) { return -1; };
    EXPECT_EQ(file_touch(path.c_str()), 0);
    EXPECT_EQ(file_cover(path.c_str(), "one"), 3);
    EXPECT_EQ(file_append(path.c_str(), "two"), 3);
    EXPECT_EQ(file_copy(path.c_str(), copy.c_str()), 0);
    EXPECT_EQ(content_of(copy), "onetwo");
    EXPECT_EQ(file_clear(copy.c_str()), 0);
    EXPECT_EQ(content_of(copy), "");
}

TEST(XconfInternal, ATextIsWrittenWholeThroughShortAndInterruptedWrites) {
    const temp_dir dir;
    const std::string path = dir / "file";
    interception calls;
    calls->write = reluctant_write();
    EXPECT_EQ(file_cover(path.c_str(), "0123456789"), 10);
    EXPECT_EQ(file_append(path.c_str(), "abcd"), 4);
    EXPECT_EQ(content_of(path), "0123456789abcd");
}

TEST(XconfInternal, AWriteThatFailsHalfwayIsReported) {
    const temp_dir dir;
    const std::string path = dir / "file";
    const auto before = count_descriptors();
    {
        interception calls;
        bool failing = false;
        calls->write = [&](int descriptor, const char *text, std::size_t length) -> ssize_t {
            if (!std::exchange(failing, !failing))
                return __real_write(descriptor, text, length / 2);
            errno = EIO;
            return -1;
        };
        EXPECT_LT(file_cover(path.c_str(), "0123456789"), 0);
        EXPECT_EQ(errno, EIO);
        EXPECT_LT(file_append(path.c_str(), "abcd"), 0);
    }
    EXPECT_EQ(content_of(path), "01234ab");
    EXPECT_EQ(count_descriptors(), before);
}

TEST(XconfInternal, ACopyNeitherRetriesNorReportsAWrite) {
    const temp_dir dir;
    const std::string source = dir / "source";
    const std::string copy = dir / "copy";
    write_file(source, std::string(1024, 'a') + std::string(1024, 'b') + std::string(100, 'c'));
    int writes = 0;
    interception calls;
    calls->write = [&](int descriptor, const char *text, std::size_t length) -> ssize_t {
        writes++;
        if (writes == 1)
            return __real_write(descriptor, text, 10);
        if (writes == 3)
            return __real_write(descriptor, text, length);
        errno = writes == 2 ? ENOSPC : EINTR;
        return -1;
    };
    EXPECT_EQ(file_copy(source.c_str(), copy.c_str()), 0);
    EXPECT_EQ(writes, 3);
    EXPECT_EQ(content_of(copy), std::string(10, 'a') + std::string(100, 'c'));
}

TEST(XconfInternal, ACopyIsReadInBlocksAndRemovedWhereReadingFailsHalfway) {
    const temp_dir dir;
    const std::string source = dir / "source";
    const std::string copy = dir / "copy";
    write_file(source, std::string(5000, 'x'));
    const auto before = count_descriptors();
    for (int good = 0; good < 5; good++) {
        interception calls;
        int left = good;
        calls->read = [&](int descriptor, void *buffer, std::size_t size) -> ssize_t {
            EXPECT_LE(size, 1024U);
            if (left-- > 0)
                return __real_read(descriptor, buffer, size);
            errno = EIO;
            return -1;
        };
        EXPECT_EQ(file_copy(source.c_str(), copy.c_str()), -1);
        EXPECT_EQ(errno, EIO);
        EXPECT_FALSE(std::filesystem::exists(copy));
    }
    EXPECT_EQ(count_descriptors(), before);
}

/* Cancellation comes in the very call, with the descriptors open. */
TEST(XconfInternal, AThreadCancelledInAReadOrWriteLeavesNothingOpen) {
    const temp_dir dir;
    const std::string source = dir / "source";
    const std::string path = dir / "file";
    write_file(source, std::string(5000, 'x'));
    const auto before = count_descriptors();
    {
        interception calls;
        calls->write = [](int descriptor, const char *text, std::size_t length) {
            pthread_cancel(pthread_self());
            return __real_write(descriptor, text, length);
        };
        EXPECT_TRUE(keel_test::ends_cancelled([&] { file_cover(path.c_str(), "text"); }));
        EXPECT_TRUE(keel_test::ends_cancelled([&] { file_append(path.c_str(), "text"); }));
        EXPECT_TRUE(keel_test::ends_cancelled([&] { file_copy(source.c_str(), path.c_str()); }));
    }
    {
        interception calls;
        calls->read = [](int descriptor, void *buffer, std::size_t size) {
            pthread_cancel(pthread_self());
            return __real_read(descriptor, buffer, size);
        };
        EXPECT_TRUE(keel_test::ends_cancelled([&] { file_copy(source.c_str(), path.c_str()); }));
    }
    EXPECT_EQ(count_descriptors(), before);
    EXPECT_EQ(content_of(path), "");
}

TEST(XconfInternal, WithoutMemoryThereIsNoPathAndTheCapitalOneEndsTheProcess) {
    for (const char *directory : {"/var/log", "/var/log/"}) {
        const failing_allocation fault(1);
        EXPECT_EQ(fpath_dup(directory, "x"), nullptr);
    }
    EXPECT_EQ(keel_test::run_in_child([] {
                  const failing_allocation fault(1);
                  Fpath_dup("/var/log", "x");
              }),
              exited(1));
}

TEST(XconfInternal, WithoutMemoryATextIsNotWritten) {
    const temp_dir dir;
    const std::string path = dir / "file";
    write_file(path, "text");
    for (const auto write : {file_cover, file_append}) {
        const failing_allocation fault(1);
        EXPECT_LT(write(path.c_str(), "%d", 1), 0);
        EXPECT_TRUE(fault.happened());
    }
    EXPECT_EQ(content_of(path), "text");
}

} // namespace

/* ---- Clean-up -------------------------------------------------------------------------------
 * The stand-ins below tell of a disk that is as a test wants it, walk as it wants, tell the time,
 * and refuse memory. */

namespace {

using keel_test::clean_up;
using keel_test::deleted;
using keel_test::failing_allocation;
using keel_test::kept_for;
using keel_test::make_file;
using keel_test::nothing_done;
using keel_test::out_of_reach;
using keel_test::told_failure;
using keel_test::use_limit;

struct cleanup_calls {
    std::function<int(struct statfs &)> statfs;
    std::function<int(const char *, __nftw_func_t, int, int)> nftw;
    std::time_t time = 0; // 0: the system's own

    static cleanup_calls told;
};

cleanup_calls cleanup_calls::told;

int news_left = 0; // of operator new, until one fails; 0: none does

bool new_fails() {
    if (news_left == 0 || --news_left > 0)
        return false;
    errno = ENOMEM;
    return true;
}

} // namespace

extern "C" { // NOLINTBEGIN: the linker's names
int __real_statfs(const char *path, struct statfs *figures);
int __real_nftw(const char *directory, __nftw_func_t each, int descriptors, int flags);
std::time_t __real_time(std::time_t *now);
void *__real__Znwm(std::size_t size);
void *__real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t &);

int __wrap_statfs(const char *path, struct statfs *figures);
int __wrap_nftw(const char *directory, __nftw_func_t each, int descriptors, int flags);
std::time_t __wrap_time(std::time_t *now);
void *__wrap__Znwm(std::size_t size);                                        // operator new
void *__wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t &t); // its quiet twin

int __wrap_statfs(const char *path, struct statfs *figures) {
    return cleanup_calls::told.statfs ? cleanup_calls::told.statfs(*figures)
                                      : __real_statfs(path, figures);
}

int __wrap_nftw(const char *directory, __nftw_func_t each, int descriptors, int flags) {
    return cleanup_calls::told.nftw ? cleanup_calls::told.nftw(directory, each, descriptors, flags)
                                    : __real_nftw(directory, each, descriptors, flags);
}

std::time_t __wrap_time(std::time_t *now) {
    if (cleanup_calls::told.time == 0)
        return __real_time(now);
    if (now != nullptr)
        *now = cleanup_calls::told.time;
    return cleanup_calls::told.time;
}

void *__wrap__Znwm(std::size_t size) {
    if (new_fails())
        throw std::bad_alloc();
    return __real__Znwm(size);
}

void *__wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t &t) {
    return new_fails() ? nullptr : __real__ZnwmRKSt9nothrow_t(size, t);
}
} // NOLINTEND

namespace {

class XconfCleanupInternal : public testing::Test {
  protected:
    ~XconfCleanupInternal() override { cleanup_calls::told = {}; }

    /* From now on the disk is found, measurement by measurement, 'b'eyond the limits, 'k'ept within
     * them, or 'f'ailing; the last one stays. `then` sees each number, counted from 1. */
    void find_disk(
        const std::string &states, std::function<void(int)> then = [](int) {}) {
        measured_ = 0;
        cleanup_calls::told.statfs = [this, states, then](struct statfs &figures) {
            const auto turn = static_cast<std::size_t>(measured_++);
            const char state = states[std::min(turn, states.size() - 1)];
            figures = {};
            figures.f_bsize = 4096;
            figures.f_blocks = 1000;
            figures.f_bfree = figures.f_bavail = state == 'b' ? 0 : 1000;
            then(measured_);
            errno = state == 'f' ? EIO : errno;
            return state == 'f' ? -1 : 0;
        };
    }

    /* Files below `dir`, accessed at these times. */
    std::vector<std::string> make_files(const std::vector<std::int64_t> &seconds) {
        std::vector<std::string> paths;
        for (const std::int64_t second : seconds) {
            paths.push_back(dir_ / std::to_string(paths.size()));
            make_file(paths.back(), second);
        }
        return paths;
    }

    void unmake_files() {
        for (const std::string &name : dir_.names())
            unlink((dir_ / name).c_str());
    }

    const fs_limit half_ = use_limit(50);
    temp_dir dir_;
    int measured_ = 0;
};

TEST_F(XconfCleanupInternal, FiguresAreTakenAsTheyAre) {
    struct row {
        std::uint64_t blocks, free, available, block;
        unsigned usage;
        float free_gb;
    };
    constexpr std::uint64_t huge = std::uint64_t{1} << 50;
    constexpr row rows[] = {
        {1000, 100, 50, 4096, 95, 0.00019073486328125F},
        {1000, 90, 90, 4096, 91, 0.00034332275390625F},
        {1000, 1000, 1, 4096, 0, 0.003814697265625F},
        {1000, 0, 0, 4096, 100, 0},
        {1000, 0, 1000, 4096, 50, 0.0019073486328125F}, // more available than free
        {0, 0, 5, 4096, 0, 0},
        {7, 3, 3, 512, 57, 1.4352798416439327e-06F},
        {268435456, 200000000, 190000000, 1024, 26, 189.44000244140625F},
        {66053021, 60471192, 19502468, 4096, 22, 196.5383758544922F},
        {huge, huge / 2, huge / 2 - 12345, 4096, 50, 2147483648.0F},
        {0, 0, 0, 4096, 4711, -1}, // nothing counted
        {100, 100, 0, 4096, 4711, -1}};
    for (const row &row : rows) {
        cleanup_calls::told.statfs = [&](struct statfs &figures) {
            figures = {};
            figures.f_bsize = static_cast<long>(row.block);
            figures.f_blocks = row.blocks;
            figures.f_bfree = row.free;
            figures.f_bavail = row.available;
            return 0;
        };
        unsigned usage = 4711;
        float free_gb = -1;
        EXPECT_EQ(get_fs_info("/", &usage, &free_gb), 0);
        EXPECT_EQ(usage, row.usage) << row.blocks;
        EXPECT_EQ(free_gb, row.free_gb) << row.blocks;
    }
}

TEST_F(XconfCleanupInternal, TheDiskIsMeasuredAfterEachDeletion) {
    struct row {
        const char *states;
        int result;
        std::size_t deletions; // of three files
        int measured;
    };
    constexpr row rows[] = {{"k", 0, 0, 1},    {"f", -1, 0, 1},    {"bk", 0, 1, 2},
                            {"bf", -1, 1, 2},  {"bbk", 0, 2, 3},   {"bbf", -1, 2, 3},
                            {"bbbk", 0, 3, 4}, {"bbbf", -1, 3, 4}, {"bbbb", -1, 3, 4}};
    for (const row &row : rows) {
        std::vector<std::string> files = make_files({1, 2, 3});
        files.resize(row.deletions);
        find_disk(row.states);
        EXPECT_EQ(clean_up(dir_.path(), half_), deleted(row.result, files)) << row.states;
        EXPECT_EQ(measured_, row.measured) << row.states;
        EXPECT_EQ(dir_.names().size(), 3 - row.deletions) << row.states;
        unmake_files();
    }
}

TEST_F(XconfCleanupInternal, AFileThatIsKeptEndsItWithWhatTheDiskIsThen) {
    struct row {
        const char *states;
        int result;
        std::size_t deletions; // of one old and one young file
        int measured;
    };
    constexpr row rows[] = {
        {"bbk", 0, 1, 3}, {"bbb", -1, 1, 3}, {"bbf", -1, 1, 3}, {"bk", 0, 1, 2}};
    for (const row &row : rows) {
        const std::vector<std::string> files = make_files({1000, std::time(nullptr)});
        find_disk(row.states);
        EXPECT_EQ(clean_up(dir_.path(), kept_for(half_, 7)), deleted(row.result, {files[0]}))
            << row.states;
        EXPECT_EQ(measured_, row.measured) << row.states;

        find_disk(row.states + 1);
        EXPECT_EQ(clean_up(dir_.path(), kept_for(half_, 7)),
                  nothing_done(row.states[1] == 'k' ? 0 : row.result))
            << row.states;
        unmake_files();
    }
}

TEST_F(XconfCleanupInternal, TheAgeLimitIsSinglePrecisionSecondsAndKeepsWhatIsYoungerAlone) {
    struct row {
        float days;
        std::int64_t youngest; // seconds since the last access of what is deleted
    };
    constexpr row rows[] = {{7, 604800},
                            {0.5F, 43200},
                            {0.1F, 8640},
                            {0, 0},
                            {-0.0F, 0},
                            {1e-5F, 0}, // 0.86 seconds
                            {1.2e-5F, 1},
                            {-1, -86400},
                            {-1e-5F, 0},
                            {777.77F, 67199336}, // seven more than in double precision
                            {12345.678F, 1066666560},
                            {20000.123F, 1728010496}};
    constexpr std::time_t now = 1'700'000'000;
    cleanup_calls::told.time = now;
    for (const row &row : rows) {
        const auto files = make_files({now - row.youngest, now - row.youngest + 1});
        find_disk("b");
        EXPECT_EQ(clean_up(dir_.path(), kept_for(half_, row.days)), deleted(-1, {files[0]}))
            << row.days;
        unmake_files();
    }
}

TEST_F(XconfCleanupInternal, AnAgeLimitBeyondAllTimesIsBorne) {
    constexpr std::time_t now = 1'700'000'000;
    cleanup_calls::told.time = now;
    find_disk("b");
    const auto files = make_files({-2'000'000'000, 0, now, 13'000'000'000});
    for (const float days : {1e9F, 1e30F, HUGE_VALF, NAN})
        EXPECT_EQ(clean_up(dir_.path(), kept_for(half_, days)), nothing_done(-1)) << days;
    unmake_files();
    for (const float days : {-1e9F, -1e30F, -HUGE_VALF}) {
        make_files({0, now, 2'000'000'000});
        EXPECT_EQ(clean_up(dir_.path(), kept_for(half_, days)),
                  deleted(-1, {files[0], files[1], files[2]}))
            << days;
    }
}

/* The file that is next goes, in one way or another, while the disk is measured. */
TEST_F(XconfCleanupInternal, FilesThatAreGoneByTheirTurnAreToldAndDropped) {
    const std::string new_name = dir_ / "new name";
    const std::function<void(const std::string &)> ways[] = {
        [](const std::string &path) { unlink(path.c_str()); },
        [&](const std::string &path) { std::rename(path.c_str(), new_name.c_str()); }};
    for (const auto &go : ways) {
        const auto files = make_files({1, 2, 3, 4});
        find_disk("bbbk", [&](int number) {
            if (number == 2 || number == 3)
                go(files[static_cast<std::size_t>(number - 1)]);
        });
        EXPECT_EQ(clean_up(dir_.path(), half_),
                  deleted(0, {files[0]}, told_failure(ENOENT) + told_failure(ENOENT)));
        EXPECT_EQ(measured_, 4);
        unmake_files();
    }
}

TEST_F(XconfCleanupInternal, TheTreeIsWalkedOnceByPhysicalPaths) {
    make_files({1, 2});
    find_disk("b");
    int walks = 0;
    cleanup_calls::told.nftw = [&](const char *directory, __nftw_func_t each, int descriptors,
                                   int flags) {
        walks++;
        EXPECT_EQ(directory, dir_.path());
        EXPECT_EQ(descriptors, 500);
        EXPECT_EQ(flags, FTW_PHYS);
        return __real_nftw(directory, each, descriptors, flags);
    };
    EXPECT_EQ(clean_up(dir_.path(), half_).result, -1);
    EXPECT_EQ(walks, 1);
    EXPECT_TRUE(dir_.names().empty());
}

TEST_F(XconfCleanupInternal, AWalkThatFailsPartWayGivesItsResultAndDeletesNothing) {
    const auto files = make_files({1, 2, 3});
    for (const int result : {-1, 1, 7, INT_MIN}) {
        find_disk("b");
        cleanup_calls::told.nftw = [&](const char *directory, __nftw_func_t each, int descriptors,
                                       int flags) {
            EXPECT_EQ(__real_nftw(directory, each, descriptors, flags), 0);
            return result;
        };
        EXPECT_EQ(clean_up(dir_.path(), half_), nothing_done(result));
        EXPECT_EQ(measured_, 1);
        EXPECT_EQ(dir_.names().size(), 3U);
    }
    cleanup_calls::told.nftw = nullptr;
    EXPECT_EQ(clean_up(dir_.path(), half_), deleted(-1, files));
}

TEST_F(XconfCleanupInternal, OnlyWhatTheWalkCallsAFileIsDeleted) {
    const auto files = make_files({1, 2});
    find_disk("b");
    cleanup_calls::told.nftw = [&](const char *, __nftw_func_t each, int, int) {
        struct stat status {};
        EXPECT_EQ(stat(files[0].c_str(), &status), 0);
        FTW place{};
        for (const int type : {FTW_D, FTW_DNR, FTW_DP, FTW_NS, FTW_SL, FTW_SLN})
            EXPECT_EQ(each(files[0].c_str(), &status, type, &place), 0);
        EXPECT_EQ(each(files[1].c_str(), &status, FTW_F, &place), 0);
        return 0;
    };
    EXPECT_EQ(clean_up(dir_.path(), half_), deleted(-1, {files[1]}));
}

/* What the walk hands over need not outlive the call; the order is that of the status handed. */
TEST_F(XconfCleanupInternal, PathAndStatusAreCopies) {
    const auto files = make_files({1, 2, 3});
    find_disk("b");
    cleanup_calls::told.nftw = [&](const char *, __nftw_func_t each, int, int) {
        FTW place{};
        for (std::size_t i = 0; i < files.size(); i++) {
            std::string path = files[i];
            struct stat status {};
            status.st_mode = S_IFREG;
            status.st_atim.tv_sec = -static_cast<std::time_t>(i);
            EXPECT_EQ(each(path.c_str(), &status, FTW_F, &place), 0);
            std::fill(path.begin(), path.end(), '?');
            status = {};
        }
        return 0;
    };
    EXPECT_EQ(clean_up(dir_.path(), half_), deleted(-1, {files[2], files[1], files[0]}));
}

/* One that compares each with each would take longer than this program may. */
TEST_F(XconfCleanupInternal, ManyFilesAreOrderedInNoTime) {
    constexpr int files = 300'000;
    using times = std::function<std::time_t(int)>;
    std::mt19937 random(1);
    const times orders[] = {[](int i) { return i; }, [](int i) { return -i; },
                            [](int) { return 0; }, [](int i) { return i % 10; },
                            [&](int) { return static_cast<std::time_t>(random() % files); }};
    for (const times &accessed : orders) {
        find_disk("b");
        cleanup_calls::told.nftw = [&](const char *, __nftw_func_t each, int, int) {
            FTW place{};
            struct stat status {};
            status.st_mode = S_IFREG;
            for (int i = 0; i < files; i++) {
                status.st_atim.tv_sec = 1'000'000 + accessed(i);
                status.st_size = i % 1000;
                each("file", &status, FTW_F, &place);
            }
            return 0;
        };
        EXPECT_EQ(clean_up(dir_.path(), kept_for(half_, 1e6F)), nothing_done(-1));
    }
}

/* How a clean-up of three files ends where the n-th allocation of a kind fails. */
keel_test::child_result ending_without(int *kind, int n, const std::string &directory) {
    return keel_test::run_in_child([&] {
        *kind = n;
        const int result = fcleanup(directory.c_str(), &out_of_reach);
        *kind = 0;
        std::printf("result %d\n", result);
    });
}

TEST_F(XconfCleanupInternal, WithoutMemoryForTheListOrANodeItEndsTheProcessAndSaysWhere) {
    make_files({1, 2, 3});
    EXPECT_EQ(ending_without(&news_left, 1, dir_.path()), keel_test::explained("fcleanup", ENOMEM));
    for (const int node : {2, 3, 4})
        EXPECT_EQ(ending_without(&news_left, node, dir_.path()),
                  keel_test::explained("nftw_func", ENOMEM));
    EXPECT_EQ(dir_.names().size(), 3U);
}

TEST_F(XconfCleanupInternal, WithoutMemoryForAPathItEndsTheProcess) {
    make_files({1, 2, 3});
    for (const int path : {1, 2, 3})
        EXPECT_EQ(ending_without(&keel_test::allocations_left, path, dir_.path()), exited(1));
    EXPECT_EQ(dir_.names().size(), 3U);
}

TEST_F(XconfCleanupInternal, WhereverMemoryRunsOutItEndsTheProcessBeforeTheFirstDeletion) {
    make_files({1, 2, 3});
    for (int *kind : {&news_left, &keel_test::allocations_left})
        for (int n = 1;; n++) {
            const keel_test::child_result ending = ending_without(kind, n, dir_.path());
            if (ending.status == 0 && ending.out.ends_with("result -1\n")) {
                EXPECT_GT(n, 3);
                make_files({1, 2, 3});
                break;
            }
            EXPECT_EQ(ending.status, 1) << n;
            EXPECT_EQ(ending.out, "") << n;
            ASSERT_EQ(dir_.names().size(), 3U) << n;
        }
}

/* Cancelled while it measures for the n-th time, or walks. */
TEST_F(XconfCleanupInternal, AThreadCancelledInTheMiddleLeavesNothingBehind) {
    for (int n = 0; n <= 4; n++) {
        const auto files = make_files({1, 2, 3});
        const auto before = count_descriptors();
        find_disk("b", [&](int number) {
            if (number == n)
                pthread_cancel(pthread_self());
        });
        cleanup_calls::told.nftw = [&](const char *directory, __nftw_func_t each, int descriptors,
                                       int flags) {
            if (n == 0)
                pthread_cancel(pthread_self());
            return __real_nftw(directory, each, descriptors, flags);
        };
        std::string told;
        {
            const keel_test::caught_stream out(stdout);
            EXPECT_TRUE(keel_test::ends_cancelled([&] { fcleanup(dir_.path().c_str(), &half_); }));
            told = out.text();
        }
        EXPECT_EQ(count_descriptors(), before);
        EXPECT_GE(dir_.names().size() + static_cast<std::size_t>(std::max(n, 1)), 3U) << n;
        find_disk("b");
        cleanup_calls::told.nftw = nullptr;
        const keel_test::outcome rest = clean_up(dir_.path(), half_);
        EXPECT_EQ(told + rest.out, keel_test::told_of(files)) << n;
        EXPECT_EQ(rest.result, -1);
    }
}

/* ---- Edits: the file is whole, whatever becomes of the side file ------------------------------
 */

TEST(XconfEdits, TheSideFileIsMadeSynchronousBeforeItIsWritten) {
    for (const port_edit &edit : port_edits) {
        const edited_file file(port_file());
        const std::string after = edit.plain(port_file());
        journal journal(journal::writers);
        EXPECT_EQ(edit.run(file.path()), 0) << edit.name;
        EXPECT_EQ(journal.take(), "sync, write " + std::to_string(after.size()) + ", close, ")
            << edit.name;
        EXPECT_EQ(file.text(), after) << edit.name;
    }
}

TEST(XconfEdits, AFlagThatCannotBeSetIsIgnored) {
    interception calls;
    calls->set_fl = [](int, int) { return -1; };
    for (const port_edit &edit : port_edits) {
        const edited_file file(port_file());
        EXPECT_EQ(edit.run(file.path()), 0) << edit.name;
        EXPECT_EQ(file.text(), edit.plain(port_file())) << edit.name;
    }
}

TEST(XconfEdits, AFileIsWrittenWholeThroughShortAndInterruptedWrites) {
    for (const port_edit &edit : port_edits) {
        const edited_file file(port_file(5000));
        interception calls;
        calls->write = reluctant_write();
        EXPECT_EQ(edit.run(file.path()), 0) << edit.name;
        EXPECT_EQ(file.text(), edit.plain(port_file(5000))) << edit.name;
        EXPECT_TRUE(file.alone()) << edit.name;
    }
}

/* The `n`-th write alone fails, each takes a part. Tells whether there was one. */
bool fails_at_write(const port_edit &edit, int n, int error) {
    const std::string before = port_file(3'000'000);
    const edited_file file(before);
    const auto descriptors = count_descriptors();
    int writes = 0;
    interception calls;
    calls->write = [&](int descriptor, const char *text, std::size_t length) -> ssize_t {
        if (++writes != n)
            return __real_write(descriptor, text, std::min<std::size_t>(length, 700'000));
        errno = error;
        return -1;
    };
    const int result = edit.run(file.path());
    const int reason = errno;
    EXPECT_EQ(count_descriptors(), descriptors) << edit.name;
    if (writes < n) {
        EXPECT_EQ(result, 0) << edit.name;
        EXPECT_TRUE(file.text() == edit.plain(before)) << edit.name;
        return false;
    }
    EXPECT_EQ(result, -1) << edit.name << ", write " << n;
    EXPECT_EQ(reason, error) << edit.name << ", write " << n;
    EXPECT_TRUE(file.text() == before) << edit.name << ", write " << n;
    EXPECT_TRUE(std::filesystem::exists(file.side(edit.suffix))) << edit.name;
    return true;
}

TEST(XconfEdits, AWriteThatFailsLeavesTheFileAsItWas) {
    constexpr int errors[] = {ENOSPC, EDQUOT, EIO};
    for (const port_edit &edit : port_edits) {
        int n = 1;
        while (fails_at_write(edit, n, errors[n % 3]))
            n++;
        EXPECT_GT(n, 5) << edit.name;
    }
}

TEST(XconfEdits, ACloseThatFailsLeavesTheFileAsItWas) {
    for (const port_edit &edit : port_edits)
        for (const int error : {ENOSPC, EDQUOT, EIO}) {
            const edited_file file(port_file());
            const auto descriptors = count_descriptors();
            interception calls;
            calls->close = [&](int descriptor) {
                if (!for_writing(descriptor))
                    return __real_close(descriptor);
                __real_close(descriptor);
                errno = error;
                return -1;
            };
            EXPECT_EQ(edit.run(file.path()), -1) << edit.name;
            EXPECT_EQ(errno, error) << edit.name;
            EXPECT_EQ(file.text(), port_file()) << edit.name;
            EXPECT_EQ(count_descriptors(), descriptors) << edit.name;
        }
}

/* The line editor reads on its own; the others through a stream. */
bool reads_lines_itself(const port_edit &edit) {
    return edit.suffix == std::string("_bak");
}

TEST(XconfEdits, AReadIsNeverTooShortNorAnInterruptedOneTheEnd) {
    const std::string before = port_file(5000);
    for (const port_edit &edit : port_edits) {
        const edited_file file(before);
        int turn = 0;
        interception calls;
        calls->read = [&](int descriptor, void *buffer, std::size_t size) -> ssize_t {
            if (turn++ % 2 == 0) {
                errno = EINTR;
                return -1;
            }
            return __real_read(descriptor, buffer, std::min<std::size_t>(size, 3));
        };
        EXPECT_EQ(edit.run(file.path()), 0) << edit.name;
        EXPECT_EQ(file.text(), edit.plain(before)) << edit.name;
        EXPECT_EQ(turn > 0, reads_lines_itself(edit)) << edit.name;
    }
}

/* Also where the next one would not fail. A line of which a part was read is none. */
TEST(XconfEdits, AReadThatFailsEndsAFileOfLinesLikeItsEnd) {
    const std::string before = port_file(500);
    for (const port_edit &edit : port_edits)
        for (std::size_t good = 0; reads_lines_itself(edit) && good < 5; good++) {
            const edited_file file(before);
            std::size_t reads = 0;
            interception calls;
            calls->read = [&](int descriptor, void *buffer, std::size_t size) -> ssize_t {
                if (reads++ != good)
                    return __real_read(descriptor, buffer, std::min<std::size_t>(size, 100));
                errno = EIO;
                return -1;
            };
            EXPECT_EQ(edit.run(file.path()), 0) << edit.name;
            const std::string read = before.substr(0, good * 100);
            EXPECT_EQ(file.text(), edit.plain(read.substr(0, read.rfind('\n') + 1))) << edit.name;
        }
}

TEST(XconfEdits, AReadThatFailsEndsALookup) {
    const edited_file file("hosts {\na\n}\n" + port_file());
    interception calls;
    int left = 1;
    calls->read = [&](int descriptor, void *buffer, std::size_t) -> ssize_t {
        if (left-- > 0)
            return __real_read(descriptor, buffer, 10);
        errno = EIO;
        return -1;
    };
    char value[] = "~~~";
    EXPECT_EQ(flookup(file.path(), "port", '=', value, 3), nullptr);
    EXPECT_STREQ(value, "~~~");
    left = 1;
    EXPECT_EQ(bulk_lookup(file.path(), "hosts", nullptr, 0, 0, nullptr), 1);
}

TEST(XconfEdits, AThreadCancelledInAReadOrWriteLeavesTheFileAsItWas) {
    const auto descriptors = count_descriptors();
    for (const port_edit &edit : port_edits) {
        const edited_file file(port_file());
        interception calls;
        calls->write = [](int descriptor, const char *text, std::size_t length) {
            pthread_cancel(pthread_self());
            return __real_write(descriptor, text, length);
        };
        EXPECT_TRUE(keel_test::ends_cancelled([&] { edit.run(file.path()); })) << edit.name;
        EXPECT_EQ(file.text(), port_file()) << edit.name;
        calls->write = nullptr;
        calls->read = [](int descriptor, void *buffer, std::size_t size) {
            pthread_cancel(pthread_self());
            return __real_read(descriptor, buffer, size);
        };
        if (reads_lines_itself(edit)) {
            EXPECT_TRUE(keel_test::ends_cancelled([&] { edit.run(file.path()); })) << edit.name;
        }
        EXPECT_EQ(file.text(), port_file()) << edit.name;
    }
    EXPECT_EQ(count_descriptors(), descriptors);
}

/* ---- Edits without memory -------------------------------------------------------------------- */

constexpr int no_failure = 77;
constexpr int told = 78;

/* How often the process ends where one allocation after the other fails; every other failure is
 * told by the result. */
int endings_without_memory(const port_edit &edit) {
    const edited_file file(port_file());
    int endings = 0;
    for (int n = 1;; n++) {
        const auto ending = keel_test::run_in_child([&] {
            const failing_allocation fault(n);
            const int result = edit.run(file.path());
            _exit(!fault.happened() ? no_failure : result == -1 ? told : 0);
        });
        if (ending == exited(no_failure))
            break;
        EXPECT_TRUE(ending == exited(told) || ending == exited(1))
            << edit.name << ", allocation " << n << ": " << testing::PrintToString(ending);
        EXPECT_EQ(file.text(), port_file()) << edit.name << ", allocation " << n;
        endings += ending == exited(1);
    }
    EXPECT_EQ(file.text(), edit.plain(port_file())) << edit.name;
    return endings;
}

/* Without a word: where the buffer for lines cannot grow, or one of the four settings in the file
 * cannot be copied. */
TEST(XconfEdits, WithoutMemoryTheProcessEndsWhereALineCannotBeHeld) {
    for (const port_edit &edit : port_edits)
        EXPECT_EQ(endings_without_memory(edit), reads_lines_itself(edit) ? 0 : 5) << edit.name;
}

} // namespace

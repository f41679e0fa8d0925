/* SPDX-License-Identifier: MIT */
#include "xconf.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <ostream>
#include <random>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "cancelled.h"
#include "caught_output.h"
#include "child.h"
#include "clean_up.h"
#include "descriptors.h"
#include "leaves_nothing.h"
#include "loop_disk.h"
#include "plain_cleanup.h"
#include "small_disk.h"
#include "temp_dir.h"
#include "threads.h"

namespace {

using namespace keel_test;
using std::filesystem::create_directories;
using std::filesystem::create_symlink;
using std::filesystem::exists;

using paths = std::vector<std::string>;

constexpr std::int64_t block = 4096;

/* The free space that a disk of so many blocks has at this use. */
float free_at(unsigned percent, std::int64_t blocks) {
    constexpr long double hundred_gigabytes = 100.0L * 1073741824;
    return static_cast<float>((100 - static_cast<int>(percent)) * blocks * block /
                              hundred_gigabytes);
}

/* A file that takes room: so many blocks. */
void make_full_file(const std::string &path, std::int64_t accessed, std::int64_t blocks) {
    make_file(path, accessed);
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_TRUE(blocks == 0 || posix_fallocate(file, 0, blocks * block) == 0);
    close(file);
}

std::int64_t accessed(const std::string &path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0);
    return status.st_atim.tv_sec;
}

void set_accessed(const std::string &path, std::int64_t second) {
    const timespec times[2] = {{second, 0}, {0, UTIME_OMIT}};
    EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

struct statfs figures_of(const std::string &path) {
    struct statfs figures {};
    EXPECT_EQ(statfs(path.c_str(), &figures), 0);
    return figures;
}

std::int64_t used_blocks(const struct statfs &figures) {
    return static_cast<std::int64_t>(figures.f_blocks - figures.f_bfree);
}

/* Rounded to the nearest. */
unsigned percent_of(const struct statfs &figures, std::int64_t used) {
    const std::int64_t counted = used_blocks(figures) + static_cast<std::int64_t>(figures.f_bavail);
    return static_cast<unsigned>((200 * used + counted) / (2 * counted));
}

class Cleanup : public LeavesNothing {
  protected:
    void SetUp() override {
        if (!can_mount())
            GTEST_SKIP() << "mounting needs root";
    }

    /* Runs `body` where `dir` is a disk of its own, in memory. */
    void on_disk(const std::string &size, const std::function<void()> &body) const {
        on_small_disk(dir.path(), size, [&] {
            create_directories(dir / "data");
            body();
        });
    }

    /* The path of what is to be cleaned up. */
    std::string data(const std::string &name) const { return dir / "data/" + name; }

    outcome clean_up_data(const fs_limit &limit) const { return clean_up(dir / "data", limit); }

    temp_dir dir;
};

using FsInfo = Cleanup;

/* ---- get_fs_info ---------------------------------------------------------------------------- */

/* The results must not depend on what was there before. */
void expect_info(const std::string &path, unsigned expected_usage, float expected_free) {
    unsigned usage = 4711;
    float free_gb = -1;
    EXPECT_EQ(get_fs_info(path.c_str(), &usage, &free_gb), 0);
    EXPECT_EQ(usage, expected_usage);
    EXPECT_EQ(free_gb, expected_free);
}

void expect_info_from_figures(const std::string &path) {
    const struct statfs figures = figures_of(path);
    const unsigned percent = percent_of(figures, used_blocks(figures));
    expect_info(path, percent, free_at(percent, static_cast<std::int64_t>(figures.f_blocks)));
}

TEST_F(FsInfo, IsTheUseRoundedToTheNearestPercentAndTheFreeSpaceThatFollowsFromIt) {
    struct row {
        int used;
        unsigned percent;
    };
    constexpr row rows[] = {{0, 0},    {4, 0},    {5, 1},     {14, 1},    {15, 2},
                            {494, 49}, {495, 50}, {904, 90},  {905, 91},  {914, 91},
                            {915, 92}, {994, 99}, {995, 100}, {999, 100}, {1000, 100}};
    for (const row &row : rows)
        on_disk("4000k", [&] {
            make_full_file(dir / "filler", 0, row.used);
            ASSERT_EQ(figures_of(dir.path()).f_blocks, 1000U);
            ASSERT_EQ(used_blocks(figures_of(dir.path())), row.used);
            expect_info(dir.path(), row.percent, free_at(row.percent, 1000));
            expect_info_from_figures(dir / "filler"); // any path on the file system will do
        });
}

TEST_F(FsInfo, IsRoundedAlsoWhereTheBlocksAreOdd) {
    for (const int used : {1, 5, 6, 15, 16, 500, 501, 996, 1001})
        on_disk("4004k", [&] {
            make_full_file(dir / "filler", 0, used);
            ASSERT_EQ(figures_of(dir.path()).f_blocks, 1001U);
            expect_info_from_figures(dir.path());
        });
}

TEST_F(FsInfo, LeavesTheBlocksReservedForRootOut) {
    if (!can_make_ext4())
        GTEST_SKIP() << mkfs_ext4 << " is not there";
    on_ext4_disk(dir.path(), 16 << 20, [&] {
        struct statfs figures = figures_of(dir.path());
        ASSERT_GT(figures.f_bfree, figures.f_bavail);
        expect_info_from_figures(dir.path());
        make_full_file(dir / "filler", 0, static_cast<std::int64_t>(figures.f_bavail / 2));
        expect_info_from_figures(dir.path());
        make_full_file(dir / "more", 0, static_cast<std::int64_t>(figures.f_bavail / 2));
        make_full_file(dir / "reserved", 0, 16); // root may
        figures = figures_of(dir.path());
        ASSERT_EQ(figures.f_bavail, 0U);
        ASSERT_GT(figures.f_bfree, 0U);
        expect_info(dir.path(), 100, 0);
    });
}

void expect_untouched(const char *path, int result) {
    unsigned usage = 4711;
    float free_gb = -1;
    EXPECT_EQ(get_fs_info(path, &usage, &free_gb), result);
    EXPECT_EQ(usage, 4711U);
    EXPECT_EQ(free_gb, -1);
}

TEST_F(FsInfo, OfAFileSystemWithoutBlocksIsNothing) {
    expect_untouched("/proc", 0);
    on_disk("0", [&] {
        ASSERT_EQ(figures_of(dir.path()).f_blocks, 0U);
        expect_untouched(dir.path().c_str(), 0);
    });
}

TEST_F(FsInfo, OfAPathThatCannotBeMeasuredIsNothing) {
    make_file(dir / "file", 0);
    create_symlink("loop", dir / "loop");
    for (const std::string &path :
         {dir / "missing", dir / "file/below", dir / "loop", std::string(),
          dir / std::string(300, 'x'), "/" + std::string(PATH_MAX, 'x')})
        expect_untouched(path.c_str(), -1);
    expect_untouched(nullptr, -1);
    EXPECT_EQ(get_fs_info(nullptr, nullptr, nullptr), -1);
}

TEST_F(FsInfo, NeedsNoPlaceForWhatIsNotWanted) {
    on_disk("4000k", [&] {
        make_full_file(dir / "filler", 0, 100);
        unsigned usage = 0;
        float free_gb = 0;
        EXPECT_EQ(get_fs_info(dir.path().c_str(), &usage, nullptr), 0);
        EXPECT_EQ(usage, 10U);
        EXPECT_EQ(get_fs_info(dir.path().c_str(), nullptr, &free_gb), 0);
        EXPECT_EQ(free_gb, free_at(90 - 80, 1000));
        EXPECT_EQ(get_fs_info(dir.path().c_str(), nullptr, nullptr), 0);
    });
}

/* ---- check_fs_info -------------------------------------------------------------------------- */

TEST_F(FsInfo, KeepsALimitThatItJustReaches) {
    on_disk("4000k", [&] {
        make_full_file(dir / "filler", 0, 904);
        const auto check = [&](fs_limit limit) {
            return check_fs_info(dir.path().c_str(), &limit);
        };
        for (const unsigned percent : {0U, 1U, 50U, 89U, 90U, 91U, 100U, 101U, UINT_MAX})
            EXPECT_EQ(check(use_limit(percent)), percent < 90 ? 1 : 0) << percent;

        const float free_gb = free_at(90, 1000);
        EXPECT_EQ(check(free_limit(free_gb)), 0);
        EXPECT_EQ(check(free_limit(std::nextafter(free_gb, HUGE_VALF))), 1);
        EXPECT_EQ(check(free_limit(std::nextafter(free_gb, 0.0F))), 0);
        for (const float enough : {0.0F, -0.0F, -1.0F, -HUGE_VALF})
            EXPECT_EQ(check(free_limit(enough)), 0) << enough;
        for (const float too_much : {1.0F, 1e30F, HUGE_VALF})
            EXPECT_EQ(check(free_limit(too_much)), 1) << too_much;
        EXPECT_EQ(check(free_limit(NAN)), 0);
    });
}

TEST_F(FsInfo, ComparesWithTheLimitsThatApplyAlone) {
    struct row {
        std::uint32_t flags;
        int use_broken, free_broken, both_broken;
    };
    constexpr row rows[] = {{0, 0, 0, 0}, {1, 1, 0, 1}, {2, 0, 1, 1},         {3, 1, 1, 1},
                            {4, 0, 0, 0}, {5, 1, 0, 1}, {6, 0, 1, 1},         {7, 1, 1, 1},
                            {8, 0, 0, 0}, {9, 1, 0, 1}, {UINT32_MAX, 1, 1, 1}};
    on_disk("4000k", [&] {
        make_full_file(dir / "filler", 0, 500);
        const auto check = [&](std::uint32_t flags, unsigned percent, float gigabytes) {
            const fs_limit limit = {flags, percent, gigabytes, 1e9F};
            return check_fs_info(dir.path().c_str(), &limit);
        };
        for (const row &row : rows) {
            EXPECT_EQ(check(row.flags, 100, 0), 0) << row.flags;
            EXPECT_EQ(check(row.flags, 49, 0), row.use_broken) << row.flags;
            EXPECT_EQ(check(row.flags, 100, 1), row.free_broken) << row.flags;
            EXPECT_EQ(check(row.flags, 49, 1), row.both_broken) << row.flags;
        }
    });
}

TEST_F(FsInfo, BreaksNoLimitWithoutBlocks) {
    for (const fs_limit limit : {use_limit(0), free_limit(0), out_of_reach}) {
        EXPECT_EQ(check_fs_info("/proc", &limit), 0);
        EXPECT_EQ(clean_up("/proc", limit), nothing_done(0));
    }
}

TEST_F(FsInfo, CannotBeComparedWhereItCannotBeMeasured) {
    const fs_limit limit = use_limit(100);
    const fs_limit none = {};
    EXPECT_EQ(check_fs_info((dir / "missing").c_str(), &limit), -1);
    EXPECT_EQ(check_fs_info((dir / "missing").c_str(), &none), -1);
    EXPECT_EQ(check_fs_info("", &limit), -1);
    EXPECT_EQ(check_fs_info(nullptr, &limit), -1);
    EXPECT_EQ(check_fs_info(dir.path().c_str(), nullptr), -1);
}

/* ---- When nothing is done ------------------------------------------------------------------- */

TEST_F(Cleanup, RefusesBadArguments) {
    on_disk("4000k", [&] {
        make_full_file(data("file"), 1, 500);
        EXPECT_EQ(fcleanup(nullptr, &out_of_reach), -1);
        EXPECT_EQ(fcleanup((dir / "data").c_str(), nullptr), -1);
        EXPECT_EQ(fcleanup(nullptr, nullptr), -1);
        for (const std::uint32_t flags : {8U, 9U, 15U, 16U, 0x100U, 0x80000000U, UINT32_MAX})
            EXPECT_EQ(clean_up_data({flags, 0, 1e30F, 0}), nothing_done(-1)) << flags;
        EXPECT_TRUE(exists(data("file")));
    });
}

TEST_F(Cleanup, FailsWhereTheDirectoryCannotBeMeasured) {
    make_file(dir / "file", 0);
    for (const std::string &path : {dir / "missing", dir / "file/below", std::string()})
        for (const fs_limit limit : {use_limit(100), out_of_reach, fs_limit{}})
            EXPECT_EQ(clean_up(path, limit), nothing_done(-1)) << path;
}

/* Whether a clean-up has read the directory shows in its access time. */
TEST_F(Cleanup, WalksOnlyWhereALimitIsBroken) {
    struct row {
        fs_limit limit;
        int result;
        bool walked;
    };
    constexpr fs_limit kept = {0, 50, 0, 0};
    constexpr fs_limit broken = {0, 49, 1, 0};
    const auto with = [](std::uint32_t flags, fs_limit limit) {
        limit.flags = flags;
        return limit;
    };
    std::vector<row> rows;
    for (std::uint32_t flags = 0; flags < 8; flags++) {
        rows.push_back({with(flags, kept), 0, false});
        const bool applies = (flags & (FS_LIMIT_USAGE | FS_LIMIT_FREE)) != 0;
        rows.push_back({with(flags, broken), applies ? -1 : 0, applies});
    }
    for (const row &row : rows)
        on_disk("4000k", [&] {
            make_full_file(dir / "filler", 0, 500);
            make_file(data("file"), 1);
            set_accessed(dir / "data", 1000);
            const outcome expected =
                row.walked ? deleted(row.result, {data("file")}) : nothing_done(row.result);
            EXPECT_EQ(clean_up_data(row.limit), expected) << row.limit.flags;
            EXPECT_EQ(exists(data("file")), !row.walked) << row.limit.flags;
            EXPECT_EQ(accessed(dir / "data") != 1000, row.walked) << row.limit.flags;
        });
}

TEST_F(Cleanup, FailsWhereNothingCanBeDeleted) {
    on_disk("4000k", [&] {
        EXPECT_EQ(clean_up_data(out_of_reach), nothing_done(-1));
        create_directories(data("one/two/three"));
        create_directories(data("four"));
        create_symlink("one", data("link"));
        create_symlink("missing", data("one/dangling"));
        EXPECT_EQ(clean_up_data(out_of_reach), nothing_done(-1));
        EXPECT_TRUE(exists(data("one/two/three")) && exists(data("four")));
        EXPECT_TRUE(is_symlink(std::filesystem::symlink_status(data("one/dangling"))));
        EXPECT_TRUE(is_symlink(std::filesystem::symlink_status(data("link"))));
    });
}

/* ---- How far it goes ------------------------------------------------------------------------ */

TEST_F(Cleanup, DeletesTheOldestUntilTheRoundedUseIsWithinTheLimit) {
    struct row {
        int used; // of 1000 blocks, the five files' four each among them
        unsigned limit;
        int result;
        std::size_t deletions;
    };
    constexpr row rows[] = {{904, 90, 0, 0},  {905, 90, 0, 1}, {908, 90, 0, 1},  {909, 90, 0, 2},
                            {914, 90, 0, 3},  {924, 90, 0, 5}, {925, 90, -1, 5}, {1000, 100, 0, 0},
                            {1000, 99, 0, 2}, {20, 0, 0, 4},   {24, 0, 0, 5},    {25, 0, -1, 5},
                            {20, 2, 0, 0},    {20, 1, 0, 2}};
    const paths by_age = {data("e"), data("d"), data("c"), data("b"), data("a")};
    for (const row &row : rows)
        on_disk("4000k", [&] {
            make_full_file(dir / "filler", 0, row.used - 20);
            int age = 100;
            for (const char *name : {"e", "c", "a", "d", "b"})
                make_full_file(data(name), 1'000'000'000 - 100 * (name[0] - 'a') + age++ % 7, 4);
            EXPECT_EQ(clean_up_data(use_limit(row.limit)),
                      deleted(row.result,
                              paths(by_age.begin(),
                                    by_age.begin() + static_cast<std::ptrdiff_t>(row.deletions))))
                << row.used;
            for (std::size_t i = 0; i < by_age.size(); i++)
                EXPECT_EQ(exists(by_age[i]), i >= row.deletions) << row.used << by_age[i];
            EXPECT_TRUE(exists(dir / "filler"));
        });
}

TEST_F(Cleanup, GoesOnUntilEveryLimitThatAppliesHolds) {
    struct row {
        fs_limit limit;
        std::size_t deletions; // of files of one percent each, from 95 percent on
    };
    const float at_90 = free_at(90, 1000);
    const float above_90 = std::nextafter(at_90, HUGE_VALF);
    const row rows[] = {{{FS_LIMIT_FREE, 0, at_90, 0}, 5},
                        {{FS_LIMIT_FREE, 0, above_90, 0}, 6},
                        {{FS_LIMIT_FREE | FS_LIMIT_USAGE, 93, at_90, 0}, 5},
                        {{FS_LIMIT_FREE | FS_LIMIT_USAGE, 88, at_90, 0}, 7},
                        {{FS_LIMIT_USAGE, 93, at_90, 0}, 2},
                        {{FS_LIMIT_FREE | FS_LIMIT_AGE, 0, at_90, 1}, 5}};
    for (const row &row : rows)
        on_disk("4000k", [&] {
            make_full_file(dir / "filler", 0, 850);
            paths files;
            for (int i = 0; i < 10; i++) {
                files.push_back(data(std::to_string(i)));
                make_full_file(files.back(), 1000 + i, 10);
            }
            files.resize(row.deletions);
            EXPECT_EQ(clean_up_data(row.limit), deleted(0, files)) << row.deletions;
        });
}

TEST_F(Cleanup, GoesOnWhereADeletionFreesNothing) {
    on_disk("4000k", [&] {
        make_full_file(dir / "filler", 0, 890);
        for (const char *name : {"1", "2", "3", "4", "5"})
            make_full_file(data(name), name[0], 4);
        const int held = open(data("1").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(link(data("2").c_str(), (dir / "other name").c_str()), 0);
        EXPECT_EQ(clean_up_data(use_limit(90)),
                  deleted(0, {data("1"), data("2"), data("3"), data("4")}));
        close(held);
    });
}

/* The directory's own file system is measured, whatever is below it. */
TEST_F(Cleanup, DeletesFilesOnFileSystemsBelow) {
    on_disk("4000k", [&] {
        make_full_file(dir / "filler", 0, 900);
        create_directories(data("below"));
        ASSERT_EQ(mount("below", data("below").c_str(), "tmpfs", 0, "size=4000k"), 0);
        make_full_file(data("below/first"), 1, 100);
        make_full_file(data("second"), 2, 10);
        make_full_file(data("below/third"), 3, 100);
        make_full_file(data("fourth"), 4, 10);
        make_full_file(data("below/fifth"), 5, 100);
        EXPECT_EQ(clean_up_data(use_limit(90)), deleted(0, {data("below/first"), data("second"),
                                                            data("below/third"), data("fourth")}));
        EXPECT_EQ(clean_up(data("below"), use_limit(10)), nothing_done(0));
    });
}

TEST_F(Cleanup, BringsAnExt4DiskBelowTheLimitPastFilesThatCannotBeDeleted) {
    if (!can_make_ext4())
        GTEST_SKIP() << mkfs_ext4 << " is not there";
    constexpr std::int64_t size = 16; // blocks of each file
    const auto immutable = [](int i) { return i == 0 || i == 2 || i == 3; };
    on_ext4_disk(dir.path(), 16 << 20, [&] {
        create_directories(dir / "data");
        for (int i = 0; i < 30; i++)
            make_full_file(data(std::to_string(i)), 1'000'000 * (i + 1), size);
        const auto set_immutable = [&](int i, bool on) {
            const int file = open(data(std::to_string(i)).c_str(), O_RDONLY | O_CLOEXEC);
            int flags = 0;
            EXPECT_EQ(ioctl(file, FS_IOC_GETFLAGS, &flags), 0);
            flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
            EXPECT_EQ(ioctl(file, FS_IOC_SETFLAGS, &flags), 0);
            close(file);
        };
        for (const int i : {0, 2, 3})
            set_immutable(i, true);

        const struct statfs figures = figures_of(dir.path());
        const unsigned limit = percent_of(figures, used_blocks(figures)) - 4;
        outcome expected = nothing_done(0);
        int next = 0;
        for (std::int64_t used = used_blocks(figures); percent_of(figures, used) > limit; next++)
            if (immutable(next)) {
                expected.err += told_failure(EPERM);
            } else {
                expected.out += told_of({data(std::to_string(next))});
                used -= size;
            }
        ASSERT_GT(next, 6);
        ASSERT_LT(next, 30);
        EXPECT_EQ(clean_up_data(use_limit(limit)), expected);
        for (int i = 0; i < 30; i++)
            EXPECT_EQ(exists(data(std::to_string(i))), i >= next || immutable(i)) << i;
        unsigned usage = 0;
        EXPECT_EQ(get_fs_info(dir.path().c_str(), &usage, nullptr), 0);
        EXPECT_EQ(usage, limit);

        for (int i = next; i < 30; i++)
            unlink(data(std::to_string(i)).c_str());
        EXPECT_EQ(clean_up_data(use_limit(0)),
                  deleted(-1, {}, told_failure(EPERM) + told_failure(EPERM) + told_failure(EPERM)));
        for (const int i : {0, 2, 3})
            set_immutable(i, false);
        EXPECT_EQ(clean_up_data(out_of_reach), deleted(-1, {data("0"), data("2"), data("3")}));
    });
}

/* ---- The age limit -------------------------------------------------------------------------- */

constexpr std::int64_t day = 86400;

TEST_F(Cleanup, KeepsFilesAccessedWithinTheAgeLimit) {
    on_disk("4000k", [&] {
        const std::int64_t now = std::time(nullptr);
        make_file(data("now"), now);
        make_file(data("of today"), now - day / 2);
        make_file(data("of this week"), now - 7 * day + 3600);
        make_file(data("of tomorrow"), now + day);
        EXPECT_EQ(clean_up_data(kept_for(out_of_reach, 7)), nothing_done(-1));
        make_file(data("of last week"), now - 7 * day - 3600);
        make_file(data("of last year"), now - 400 * day);
        EXPECT_EQ(clean_up_data(kept_for(out_of_reach, 7)),
                  deleted(-1, {data("of last year"), data("of last week")}));
        EXPECT_EQ(clean_up_data(kept_for(out_of_reach, 0.25F)),
                  deleted(-1, {data("of this week"), data("of today")}));
        EXPECT_EQ(clean_up_data(kept_for(out_of_reach, -2)),
                  deleted(-1, {data("now"), data("of tomorrow")}));
    });
}

TEST_F(Cleanup, ReachesTheLimitsWithOldFilesAlone) {
    on_disk("4000k", [&] {
        const std::int64_t now = std::time(nullptr);
        make_full_file(dir / "filler", 0, 900);
        make_full_file(data("older"), now - 9 * day, 10);
        make_full_file(data("old"), now - 8 * day, 10);
        make_full_file(data("young"), now - 6 * day, 10);
        EXPECT_EQ(clean_up_data(kept_for(use_limit(91), 7)),
                  deleted(0, {data("older"), data("old")}));
        EXPECT_TRUE(exists(data("young")));
    });
}

TEST_F(Cleanup, TakesTheAgeLimitForWhatItIsOnlyWhereItApplies) {
    on_disk("4000k", [&] {
        make_file(data("file"), std::time(nullptr));
        fs_limit limit = out_of_reach;
        limit.min_age = 7;
        EXPECT_EQ(clean_up_data(limit), deleted(-1, {data("file")}));
    });
}

/* Behind the first file to be kept there is none to be deleted, also where the order, which takes
 * times more than 68 years apart for the wrong way round, has older ones there. */
TEST_F(Cleanup, StopsAtTheFirstFileToBeKept) {
    on_disk("4000k", [&] {
        const std::int64_t now = std::time(nullptr);
        make_file(data("old"), now - 70 * 366 * day);
        make_file(data("young"), now);
        EXPECT_EQ(clean_up_data(kept_for(out_of_reach, 1)), nothing_done(-1));
    });
}

/* ---- Which files ---------------------------------------------------------------------------- */

TEST_F(Cleanup, DeletesRegularFilesOnly) {
    on_disk("4000k", [&] {
        make_file(dir / "outside", 1);
        create_directories(dir / "elsewhere");
        make_file(dir / "elsewhere/file", 1);
        create_directories(data("directory"));
        create_symlink(dir / "outside", data("link to a file"));
        create_symlink(dir / "elsewhere", data("link to a directory"));
        create_symlink("missing", data("dangling"));
        ASSERT_EQ(mkfifo(data("fifo").c_str(), 0600), 0);
        ASSERT_EQ(mknod(data("socket").c_str(), S_IFSOCK | 0600, 0), 0);
        ASSERT_EQ(mknod(data("character device").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
        ASSERT_EQ(mknod(data("block device").c_str(), S_IFBLK | 0600, makedev(7, 0)), 0);
        for (const auto &entry : std::filesystem::directory_iterator(dir / "data"))
            set_accessed(entry.path(), 1);
        make_file(data("directory/.hidden"), 3);
        make_file(data("directory/file"), 2);
        EXPECT_EQ(clean_up_data(out_of_reach),
                  deleted(-1, {data("directory/file"), data("directory/.hidden")}));

        const std::filesystem::directory_iterator entries(dir / "data");
        EXPECT_EQ(std::distance(begin(entries), end(entries)), 8);
        EXPECT_TRUE(exists(dir / "outside") && exists(dir / "elsewhere/file"));
    });
}

TEST_F(Cleanup, TakesAnyFormOfADirectorysPath) {
    on_disk("4000k", [&] {
        ASSERT_EQ(chdir(dir.path().c_str()), 0); // of this thread alone
        for (const std::string &path :
             {dir / "data", dir / "data/", dir / "data///", dir / "./data/../data",
              std::string("data"), std::string("./data//"), std::string(".")}) {
            create_directories("data/below");
            make_file("data/one", 1);
            make_file("data/below/two", 2);
            const paths expected = in_order_of_deletion(files_below(path));
            ASSERT_EQ(expected.size(), 2U);
            EXPECT_EQ(clean_up(path, out_of_reach), deleted(-1, expected)) << path;
            EXPECT_TRUE(exists("data/below") && !exists("data/one") && !exists("data/below/two"));
        }
    });
}

TEST_F(Cleanup, TakesAFileForATreeOfOneFileAndALinkForNone) {
    on_disk("4000k", [&] {
        make_file(data("file"), 1);
        create_symlink(dir / "data", dir / "link");
        EXPECT_EQ(clean_up(dir / "link", out_of_reach), nothing_done(-1));
        EXPECT_EQ(clean_up(data("file"), out_of_reach), deleted(-1, {data("file")}));
    });
}

TEST_F(Cleanup, TellsNamesAsTheyAre) {
    const std::string names[] = {
        "new\nline", std::string(255, 'n'), "%s%n%d", "-rf", " blank ", "\xff\xfe", "\x1b[31m",
        "dot.",      "tab\there",           "\\",     "*"};
    on_disk("4000k", [&] {
        paths files;
        for (const std::string &name : names) {
            files.push_back(data(name));
            make_file(files.back(), static_cast<std::int64_t>(files.size()));
        }
        EXPECT_EQ(clean_up_data(out_of_reach), deleted(-1, files));
        EXPECT_TRUE(std::filesystem::is_empty(dir / "data"));
    });
}

/* Makes a chain of `depth` directories from `path` on, in steps, for it may be longer than the
 * system takes at once. Gives the last one open; `path` is its path. */
int make_chain(std::string &path, const std::string &name, int depth) {
    int at = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < depth; i++) {
        EXPECT_EQ(mkdirat(at, name.c_str(), 0755), 0);
        const int next = openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(at);
        at = next;
        path += "/" + name;
    }
    return at;
}

std::string make_file_at(int directory, const std::string &name, std::int64_t second) {
    const int file = openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const timespec times[2] = {{second, 0}, {0, UTIME_OMIT}};
    EXPECT_EQ(futimens(file, times), 0);
    close(file);
    return name;
}

TEST_F(Cleanup, DeletesByPathsAsLongAsTheSystemTakes) {
    on_disk("4000k", [&] {
        std::string path = dir / "data";
        int at = make_chain(path, std::string(255, 'd'), 15);
        const std::size_t left = PATH_MAX - 1 - path.size() - 1;
        ASSERT_LT(left, 254U);
        make_file_at(at, std::string(left + 1, 'f'), 1);
        const std::string longest = path + "/" + make_file_at(at, std::string(left, 'f'), 2);
        close(at);
        close(make_chain(path, "e", 1)); // an empty one
        at = make_chain(path, std::string(255, 'd'), 2);
        make_file_at(at, "f", 3);
        close(at);
        make_file(data("last"), 4);
        EXPECT_EQ(clean_up_data(out_of_reach),
                  deleted(-1, {longest, data("last")},
                          told_failure(ENAMETOOLONG) + told_failure(ENAMETOOLONG)));
    });
}

TEST_F(Cleanup, GoesDeeperThanItHoldsDirectoriesOpen) {
    constexpr int depth = 600;
    on_disk("8m", [&] {
        std::string path = dir / "data";
        paths files(depth);
        for (int i = 0; i < depth; i++) {
            close(make_chain(path, "d", 1));
            const auto place = static_cast<std::size_t>(i * 7 % depth);
            files[place] = path + "/f";
            make_file(files[place], 1000 + static_cast<std::int64_t>(place));
        }
        EXPECT_EQ(clean_up_data(out_of_reach), deleted(-1, files));
        EXPECT_TRUE(exists(path));
    });
}

TEST_F(Cleanup, PassesOverWhatItMayNotReadOrDelete) {
    on_disk("4000k", [&] {
        struct row {
            const char *directory;
            mode_t mode;
        };
        int age = 0;
        for (const row row :
             {row{"locked", 0700}, {"readable", 0744}, {"kept", 0755}, {"open", 0777}}) {
            create_directories(data(row.directory));
            make_file(data(row.directory + std::string("/file")), ++age);
            chmod(data(row.directory).c_str(), row.mode);
        }
        make_file(dir / "in a sticky directory", ++age);
        const child_result result = run_in_child([&] {
            if (setegid(65534) != 0 || seteuid(65534) != 0)
                _exit(125);
            std::printf("result %d\n", fcleanup(dir.path().c_str(), &out_of_reach));
            std::printf("result %d\n", fcleanup(data("locked").c_str(), &out_of_reach));
            std::printf("result %d\n", fcleanup(data("locked/file").c_str(), &out_of_reach));
        });
        EXPECT_EQ(
            result,
            (child_result{0, 0, told_of({data("open/file")}) + "result -1\nresult -1\nresult -1\n",
                          told_failure(EACCES) + told_failure(EPERM)}));
        EXPECT_TRUE(exists(data("locked/file")) && exists(data("readable/file")));
    });
}

TEST_F(Cleanup, PassesOverFilesThatAreMountedToStay) {
    on_disk("4000k", [&] {
        create_directories(data("read only"));
        create_directories(dir / "source");
        make_file(dir / "source/file", 1);
        make_file(data("mount point"), 2);
        make_file(data("file"), 3);
        ASSERT_EQ(mount((dir / "source").c_str(), data("read only").c_str(), "", MS_BIND, ""), 0);
        ASSERT_EQ(mount("", data("read only").c_str(), "", MS_BIND | MS_REMOUNT | MS_RDONLY, ""),
                  0);
        ASSERT_EQ(mount(data("mount point").c_str(), data("mount point").c_str(), "", MS_BIND, ""),
                  0);
        EXPECT_EQ(clean_up_data(out_of_reach),
                  deleted(-1, {data("file")}, told_failure(EROFS) + told_failure(EBUSY)));
        EXPECT_TRUE(exists(dir / "source/file"));
    });
}

/* ---- The order ------------------------------------------------------------------------------ */

TEST_F(Cleanup, DeletesTheLargerFirstOfThoseAccessedInTheSameSecond) {
    on_disk("4000k", [&] {
        make_file(data("small"), 1000, 1, 1);
        make_file(data("empty"), 1000, 0, 0);
        make_file(data("large"), 1000, 100000, 999'999'999);
        make_file(data("older"), 999, 0, 999'999'999);
        make_file(data("younger"), 1001, 1'000'000, 0);
        make_file(data("medium"), 1000, 4096, 2);
        EXPECT_EQ(clean_up_data(out_of_reach),
                  deleted(-1, {data("older"), data("large"), data("medium"), data("small"),
                               data("empty"), data("younger")}));
    });
}

TEST_F(Cleanup, DeletesTheOneMetLaterFirstOfThoseThatAreEqual) {
    on_disk("4000k", [&] {
        create_directories(data("below/it"));
        for (const char *name : {"one", "two", "below/three", "below/it/four", "five"})
            make_file(data(name), 1000, 10);
        ASSERT_EQ(link(data("two").c_str(), data("below/other name of two").c_str()), 0);
        paths expected;
        for (const met_file &file : files_below(dir / "data"))
            expected.insert(expected.begin(), file.path);
        ASSERT_EQ(expected.size(), 6U);
        EXPECT_EQ(clean_up_data(out_of_reach), deleted(-1, expected));
    });
}

TEST_F(Cleanup, KeepsAFileThatIsReadTheLongest) {
    on_disk("4000k", [&] {
        for (const char *name : {"1", "2", "3"})
            make_full_file(data(name), name[0], 1);
        EXPECT_EQ(content_of(data("1")).size(), 4096U);
        EXPECT_EQ(clean_up_data(out_of_reach), deleted(-1, {data("2"), data("3"), data("1")}));
    });
}

constexpr std::int64_t two_gb = std::int64_t{1} << 31;

/* Trees of files whose times and sizes are taken from these, at random. */
struct forest {
    const char *name;
    std::vector<std::int64_t> seconds;
    std::vector<std::int64_t> sizes;
};

const forest forests[] = {
    {"few seconds and sizes", {100, 101, 102, 103}, {0, 1, 4096, 8192}},
    {"all alike", {5}, {4096}},
    {"sizes alone", {5}, {0, 1, 2, 3, 4095, 4096, two_gb - 1}},
    {"many seconds", {-3, -2, -1, 0, 1, 2, 3, 1000, 2000, 3000, 4000, 5000}, {0, 1}},
    {"2 GB and more", {7}, {0, 1, 4096, two_gb - 1, two_gb, two_gb + 1, two_gb + 4096}},
    {"4 GB and more", {7}, {0, 1, 2 * two_gb - 1, 2 * two_gb, 2 * two_gb + 1, 3 * two_gb}},
    {"2 GB and more in some seconds", {1, 2, 3}, {0, 1, 4096, two_gb, 3 * two_gb, 4 * two_gb}},
    {"as far apart as the order reaches", {-two_gb / 2, 0, 1, two_gb / 2 - 1}, {0, 1, 4096}},
    {"a second further", {-two_gb / 2, 0, 1, two_gb / 2}, {0, 1, 4096}},
    {"the same with large files", {-two_gb / 2, 0, two_gb / 2 - 1}, {0, 1, two_gb, 3 * two_gb}},
    {"from 1902 to 2400", {-2'145'916'800, 0, 1'700'000'000, 13'569'465'600}, {0, 1, 4096}},
    {"a multiple of the order's range apart",
     {0, 1, 2 * two_gb, 2 * two_gb + 1, 4 * two_gb},
     {0, 1}},
    {"everything wrong", {-two_gb, 0, two_gb, 2 * two_gb, 9}, {0, two_gb, 2 * two_gb, 3 * two_gb}}};

template <class List>
auto &any_of_these(const List &list, std::mt19937 &random) {
    return list[random() % list.size()];
}

void grow(const std::string &root, const forest &kind, std::mt19937 &random) {
    const paths places = {"", "a/", "b/", "a/c/", "a/d/", "a/c/e/"};
    for (const std::string &place : places)
        create_directories(root + "/" + place);
    for (int i = 0; i < 250; i++)
        make_file(root + "/" + any_of_these(places, random) + std::to_string(i),
                  any_of_these(kind.seconds, random), any_of_these(kind.sizes, random),
                  static_cast<long>(random() % 1'000'000'000));
}

TEST_F(Cleanup, HoldsTheOrderOfAListThatIsSearchedFromItsHead) {
    for (const forest &kind : forests)
        for (unsigned seed = 0; seed < 4; seed++)
            on_disk("16m", [&] {
                std::mt19937 random(seed);
                grow(dir / "data", kind, random);
                const paths expected = in_order_of_deletion(files_below(dir / "data"));
                ASSERT_EQ(expected.size(), 250U);
                const outcome result = clean_up_data(out_of_reach);
                EXPECT_EQ(result.result, -1);
                EXPECT_EQ(result.err, "");
                EXPECT_TRUE(result.out == told_of(expected)) << kind.name << ", seed " << seed;
            });
}

/* ---- Failures and interference -------------------------------------------------------------- */

/* The system calls of the walk need descriptors. */
TEST_F(Cleanup, DeletesNothingWhereTheWalkFailsPartWay) {
    for (const unsigned descriptors : {0U, 1U, 2U})
        on_disk("4000k", [&] {
            create_directories(data("one/two"));
            for (const char *name : {"file", "one/file", "one/two/file"})
                make_file(data(name), 1);
            const auto clean_up_with_few = [&] {
                rlimit limit{};
                getrlimit(RLIMIT_NOFILE, &limit);
                const rlim_t all = std::exchange(limit.rlim_cur, 3 + descriptors);
                setrlimit(RLIMIT_NOFILE, &limit);
                std::printf("result %d\n", fcleanup((dir / "data").c_str(), &out_of_reach));
                limit.rlim_cur = all;
                setrlimit(RLIMIT_NOFILE, &limit);
            };
            EXPECT_EQ(run_in_child(clean_up_with_few), (child_result{0, 0, "result -1\n", ""}));
            EXPECT_EQ(files_below(dir / "data").size(), 3U) << descriptors;
            const child_result again = run_in_child([&] {
                clean_up_with_few();
                std::printf("result %d\n", fcleanup((dir / "data").c_str(), &out_of_reach));
            });
            EXPECT_NE(again.out.find("result -1\nfcleanup:remove "), again.out.npos);
            EXPECT_TRUE(files_below(dir / "data").empty());
        });
}

std::size_t count_lines(const std::string &text, const std::string &line) {
    std::size_t count = 0;
    std::istringstream lines(text);
    for (std::string each; std::getline(lines, each);)
        if (each + "\n" == line)
            count++;
    return count;
}

TEST_F(Cleanup, BearsThatAnotherDeletesAtTheSameTime) {
    constexpr int files = 500;
    for (int round = 0; round < 5; round++)
        on_disk("8m", [&] {
            for (int i = 0; i < files; i++)
                make_file(data(std::to_string(i)), i);
            std::atomic<bool> started = false;
            std::size_t deleted_by_other = 0;
            std::jthread other([&] {
                started = true;
                for (int i = files; i-- > 0;)
                    if (unlink(data(std::to_string(i)).c_str()) == 0)
                        deleted_by_other++;
            });
            while (!started)
                sched_yield();
            const outcome result = clean_up_data(out_of_reach);
            other.join();
            EXPECT_EQ(result.result, -1);
            std::size_t told = 0;
            for (int i = 0; i < files; i++) {
                const std::size_t times =
                    count_lines(result.out, told_of({data(std::to_string(i))}));
                EXPECT_LE(times, 1U);
                told += times;
            }
            EXPECT_EQ(told + deleted_by_other, static_cast<std::size_t>(files));
            const std::string missed = told_failure(ENOENT);
            EXPECT_EQ(count_lines(result.err, missed) * missed.size(), result.err.size());
            EXPECT_TRUE(std::filesystem::is_empty(dir / "data"));
        });
}

TEST_F(Cleanup, TellsOnTheHostsOwnStandardOutput) {
    on_disk("4000k", [&] {
        make_file(data("file"), 1);
        const child_result result = run_in_child([&] {
            std::fputs("before ", stdout);
            fcleanup((dir / "data").c_str(), &out_of_reach);
            std::fputs("after", stdout);
        });
        EXPECT_EQ(result.out, "before " + told_of({data("file")}) + "after");
        EXPECT_EQ(result.err, "");
    });
}

TEST_F(Cleanup, DeletesAlsoWhereItCannotTell) {
    for (const char *stream : {"/dev/full", static_cast<const char *>(nullptr)})
        on_disk("4000k", [&] {
            make_file(data("one"), 1);
            make_file(data("two"), 2);
            const child_result result = run_in_child([&] {
                close(STDOUT_FILENO);
                close(STDERR_FILENO);
                if (stream != nullptr)
                    dup2(open(stream, O_WRONLY), STDERR_FILENO);
                std::setvbuf(stdout, nullptr, _IONBF, 0);
                std::_Exit(fcleanup((dir / "data").c_str(), &out_of_reach) == -1 ? 3 : 4);
            });
            EXPECT_EQ(result, (child_result{3, 0, "", ""}));
            EXPECT_TRUE(std::filesystem::is_empty(dir / "data"));
        });
}

TEST_F(Cleanup, StartsAnewEachTime) {
    on_disk("4000k", [&] {
        make_full_file(dir / "filler", 0, 900);
        for (int round = 0; round < 3; round++) {
            for (const char *name : {"1", "2", "3"})
                make_full_file(data(name), name[0], 10);
            EXPECT_EQ(clean_up_data(use_limit(92)), deleted(0, {data("1")}));
            EXPECT_EQ(clean_up_data(use_limit(92)), nothing_done(0));
            EXPECT_EQ(clean_up(dir / "missing", use_limit(92)), nothing_done(-1));
            EXPECT_EQ(clean_up_data(kept_for(use_limit(91), 1e6F)), nothing_done(-1));
            EXPECT_EQ(clean_up_data(use_limit(89)), deleted(-1, {data("2"), data("3")}));
        }
    });
}

/* ---- Cancellation --------------------------------------------------------------------------- */

TEST_F(Cleanup, EndsAtTheNextDeletionAtTheLatestWhereItsThreadIsCancelled) {
    on_disk("4000k", [&] {
        create_directories(data("below"));
        for (const char *name : {"1", "2", "below/3", "4"})
            make_file(data(name), 1000 + name[0]);
        const paths all = in_order_of_deletion(files_below(dir / "data"));
        std::string told;
        {
            const caught_stream out(stdout);
            EXPECT_TRUE(run_cancelled([&] { fcleanup((dir / "data").c_str(), &out_of_reach); }));
            told = out.text();
        }
        EXPECT_TRUE(told.empty() || told == told_of({all[0]}));
        EXPECT_GE(files_below(dir / "data").size(), 3U);
        const outcome rest = clean_up_data(out_of_reach);
        EXPECT_EQ(rest.result, -1);
        EXPECT_EQ(told + rest.out, told_of(all));
    });
}

TEST_F(Cleanup, TellsOfEachDeletionAlsoWhereItsThreadIsCancelled) {
    constexpr int files = 300;
    for (int round = 0; round < 10; round++)
        on_disk("8m", [&] {
            paths all;
            for (int i = 0; i < files; i++) {
                all.push_back(data(std::to_string(i)));
                make_file(all.back(), i);
            }
            std::string told;
            {
                const caught_stream out(stdout);
                worker cleaner([&] { fcleanup((dir / "data").c_str(), &out_of_reach); });
                while (exists(all[static_cast<std::size_t>(round)]))
                    sched_yield();
                cleaner.cancel(); // wherever it is by now
                cleaner.join();
                told = out.text();
            }
            const std::size_t left = files_below(dir / "data").size();
            EXPECT_EQ(told,
                      told_of(paths(all.begin(), all.end() - static_cast<std::ptrdiff_t>(left))));
            const outcome rest = clean_up_data(out_of_reach);
            EXPECT_EQ(rest.result, -1);
            EXPECT_EQ(told + rest.out, told_of(all));
        });
}

TEST_F(Cleanup, LeavesTheThreadsCancellationAsItWas) {
    on_disk("4000k", [&] {
        for (const int set : {PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}) {
            make_file(data("file"), 1);
            int state = -1;
            pthread_setcancelstate(set, &state);
            EXPECT_EQ(clean_up_data(out_of_reach), deleted(-1, {data("file")}));
            EXPECT_EQ(clean_up_data(out_of_reach), nothing_done(-1));
            pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
            EXPECT_EQ(state, set);
        }
    });
}

TEST_F(Cleanup, RunsToItsEndOnAThreadThatHoldsCancellationBack) {
    on_disk("4000k", [&] {
        for (const char *name : {"1", "2", "3"})
            make_file(data(name), name[0]);
        outcome result{};
        EXPECT_TRUE(run_cancelled([&] {
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
            result = clean_up_data(out_of_reach);
            pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        }));
        EXPECT_EQ(result, deleted(-1, {data("1"), data("2"), data("3")}));
    });
}

} // namespace

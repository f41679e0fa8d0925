/* SPDX-License-Identifier: MIT */
#include "xconf.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <utility>

#include "allocation_faults.h"
#include "cancelled.h"
#include "child.h"
#include "descriptors.h"
#include "system_calls.h"
#include "temp_dir.h"

namespace {

using keel_test::content_of;
using keel_test::count_descriptors;
using keel_test::interception;
using keel_test::temp_dir;
using keel_test::write_file;

bool synchronous(int descriptor) {
    return (fcntl(descriptor, F_GETFL) & O_SYNC) == O_SYNC;
}

bool close_on_exec(int descriptor) {
    return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0;
}

/* Tells what is done with a descriptor, which must be synchronous at each step. */
class journal {
  public:
    journal() {
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
        events_ += event + ", ";
        EXPECT_TRUE(synchronous(descriptor)) << event;
        EXPECT_TRUE(close_on_exec(descriptor)) << event;
    }

    interception calls_;
    std::string events_;
};

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
    int turn = 0;
    calls->write = [&](int descriptor, const char *text, std::size_t length) -> ssize_t {
        if (turn++ % 2 == 0) {
            errno = EINTR;
            return -1;
        }
        return __real_write(descriptor, text, std::min<std::size_t>(length, 3));
    };
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
        const keel_test::failing_allocation fault(1);
        EXPECT_EQ(fpath_dup(directory, "x"), nullptr);
    }
    EXPECT_EQ(keel_test::run_in_child([] {
                  const keel_test::failing_allocation fault(1);
                  Fpath_dup("/var/log", "x");
              }),
              keel_test::exited(1));
}

TEST(XconfInternal, WithoutMemoryATextIsNotWritten) {
    const temp_dir dir;
    const std::string path = dir / "file";
    write_file(path, "text");
    for (const auto write : {file_cover, file_append}) {
        const keel_test::failing_allocation fault(1);
        EXPECT_LT(write(path.c_str(), "%d", 1), 0);
        EXPECT_TRUE(fault.happened());
    }
    EXPECT_EQ(content_of(path), "text");
}

} // namespace

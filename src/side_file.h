/* SPDX-License-Identifier: MIT */
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/stat.h>

#include "handles.h"
#include "sync_file.h"

namespace keel {

/* The file that an edit writes, to be renamed over the edited one once it is whole. Its writes wait
 * for the disk, so they are gathered to large ones. A write that fails is told by replace(); the
 * side file stays then, and the edited one is as it was. */
class side_file {
  public:
    /* Creates or empties the side file of what is open on `edited`, which it must not be itself:
     * by a link it could. False with errno. `name` is kept. */
    bool open(const char *name, int edited) {
        name_ = name;
        struct stat one {};
        struct stat other {};
        if (fstat(edited, &one) == -1)
            return false;
        if (stat(name, &other) == 0 && one.st_dev == other.st_dev && one.st_ino == other.st_ino) {
            errno = EEXIST;
            return false;
        }
        gathered_.reset(static_cast<char *>(std::malloc(capacity)));
        if (gathered_ != nullptr)
            file_ = open_sync(name, O_WRONLY | O_CREAT | O_TRUNC);
        return static_cast<bool>(file_);
    }

    void put(std::string_view text) {
        while (!text.empty()) {
            if (length_ == capacity)
                flush();
            const std::size_t taken = std::min(text.size(), capacity - length_);
            std::memcpy(gathered_.get() + length_, text.data(), taken);
            length_ += taken;
            text.remove_prefix(taken);
        }
    }

    void put(char character) { put(std::string_view(&character, 1)); }

    /* Where the next text will stand. */
    off_t position() const { return flushed_ + static_cast<off_t>(length_); }

    /* Puts blanks where `length` characters stand, behind which nothing is put any more. */
    void blank_out(off_t position, std::size_t length) {
        if (position >= flushed_) {
            std::memset(gathered_.get() + (position - flushed_), ' ', length);
            return;
        }
        flush();
        if (lseek(file_.get(), position, SEEK_SET) == -1)
            fail();
        std::memset(gathered_.get(), ' ', std::min(length, capacity));
        while (length > 0) {
            length_ = std::min(length, capacity);
            length -= length_;
            flush();
        }
    }

    /* The last step: 0, or -1 with errno where the side file could not be written whole or cannot
     * be renamed. */
    int replace(const char *path) {
        flush();
        if (file_.close() == -1)
            fail();
        if (reason_ == 0)
            return std::rename(name_, path);
        errno = reason_;
        return -1;
    }

  private:
    static constexpr std::size_t capacity = std::size_t{1} << 20;

    void flush() {
        if (reason_ == 0 && !write_all(file_.get(), gathered_.get(), length_))
            fail();
        flushed_ += static_cast<off_t>(length_);
        length_ = 0;
    }

    void fail() {
        if (reason_ == 0)
            reason_ = errno;
    }

    const char *name_ = nullptr;
    unique_fd file_;
    unique_cstr gathered_;
    std::size_t length_ = 0; /* gathered so far */
    off_t flushed_ = 0;
    int reason_ = 0; /* why it is not whole */
};

} // namespace keel

/* SPDX-License-Identifier: MIT */
#include "xconf.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "ending.h"
#include "formatted.h"
#include "line_buffer.h"
#include "sync_file.h"
#include "xstring.h"

namespace {

using keel::open_sync;
using keel::unique_fd;

/* File-type bits of a mode, in the order of fexist()'s kinds. */
constexpr std::array<mode_t, 7> file_kinds = {S_IFREG, S_IFDIR, S_IFCHR, S_IFBLK,
                                              S_IFIFO, S_IFLNK, S_IFSOCK};

/* Formats first and opens then, so that a text that cannot be made leaves the file as it was; and
 * writes once, as each write waits for the disk. */
[[gnu::format(printf, 3, 0)]] int write_formatted(const char *path, int flags, const char *format,
                                                  va_list arguments) {
    const keel::formatted content(format, arguments);
    if (content.text == nullptr)
        return -1;
    unique_fd file = open_sync(path, O_WRONLY | O_CREAT | flags);
    if (!file)
        return -1;
    const auto length = static_cast<std::size_t>(content.length);
    const bool written = keel::write_all(file.get(), content.text.get(), length);
    return file.close() == 0 && written ? content.length : -1;
}

/* lstat(), to which null is not just another path without a file. */
bool examine(const char *path, struct stat &status) {
    if (path != nullptr)
        return lstat(path, &status) == 0;
    errno = EFAULT;
    return false;
}

int open_and_close(const char *path, int flags) {
    return open_sync(path, O_WRONLY | flags) ? 0 : -1;
}

} // namespace

int fexist(const char *path, unsigned type) {
    struct stat status {};
    if (!examine(path, status) || type >= file_kinds.size())
        return -1;
    return (status.st_mode & S_IFMT) == file_kinds[type] ? 0 : 1;
}

char *fpath_dup(const char *directory, const char *name) {
    if (directory == nullptr)
        return nullptr;
    const std::size_t length = std::strlen(directory) + (name == nullptr ? 0 : std::strlen(name));
    const char *slash = std::strrchr(directory, '/');
    if (slash != nullptr && slash[1] == '\0')
        return strdup_ncat(length, directory, name, nullptr);
    return strdup_ncat(length + 1, directory, "/", name, nullptr);
}

char *Fpath_dup(const char *directory, const char *name) {
    char *path = fpath_dup(directory, name);
    if (path == nullptr)
        keel::end_process(1);
    return path;
}

int ftherein(int descriptor, const char *path) {
    struct stat status {};
    if (fstat(descriptor, &status) == -1)
        return 0;
    const int open_file = status.st_nlink != 0 ? 1 : 2;
    if (examine(path, status))
        return open_file + 4;
    return errno == ENOENT ? open_file + 8 : 0;
}

int fmodified(const char *path, long *stamp) {
    struct stat status {};
    if (stamp == nullptr || !examine(path, status))
        return -1;
    if (status.st_mtim.tv_sec == *stamp)
        return 0;
    *stamp = status.st_mtim.tv_sec;
    return 1;
}

int file_touch(const char *path) {
    return open_and_close(path, O_CREAT | O_APPEND);
}

int file_clear(const char *path) {
    struct stat status {};
    if (path == nullptr || stat(path, &status) == -1)
        return -1;
    return open_and_close(path, O_TRUNC);
}

int file_cover(const char *path, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = write_formatted(path, O_TRUNC, format, arguments);
    va_end(arguments);
    return written;
}

int file_append(const char *path, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = write_formatted(path, O_APPEND, format, arguments);
    va_end(arguments);
    return written;
}

int file_copy(const char *source, const char *destination) {
    const unique_fd from = open_sync(source, O_RDONLY);
    if (!from)
        return -1;
    const unique_fd to = open_sync(destination, O_RDWR | O_CREAT | O_TRUNC);
    if (!to)
        return -1;
    char block[1024];
    for (;;) {
        const ssize_t length = read(from.get(), block, sizeof block);
        if (length == 0)
            return 0;
        if (length == -1) {
            const int reason = errno;
            unlink(destination);
            errno = reason;
            return -1;
        }
        /* Not checked on purpose: a copy is best effort, and what was written stays. */
        [[maybe_unused]] const auto written = write(to.get(), block, static_cast<size_t>(length));
    }
}

int file_sflush(const char *path, char *buffer, std::size_t size) {
    if (path == nullptr || buffer == nullptr || size == 0)
        return -1;
    const keel::unique_file file(std::fopen(path, "re"));
    if (file == nullptr)
        return -1;
    std::memset(buffer, 0, size);
    std::size_t room = size - 1;
    keel::line_buffer lines;
    while (room > 0) {
        const char *line = lines.read(file.get());
        if (line == nullptr)
            break;
        const std::size_t taken = std::min(lines.length(), room);
        std::memcpy(buffer + (size - 1 - room), line, taken);
        room -= taken;
    }
    return static_cast<int>(size - 1 - room);
}

/* SPDX-License-Identifier: MIT */
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <unistd.h>
#include <vector>

#include <sys/mman.h>

namespace keel_test {

/* The two line readers as their contracts tell them, one step after the other and with no regard to
 * speed: what a test holds the library's own against. */

inline void plain_grow(char *&buffer, int &capacity) {
    capacity += 80;
    const bool possible = capacity > 0;
    char *grown =
        possible ? static_cast<char *>(std::realloc(buffer, static_cast<std::size_t>(capacity)))
                 : nullptr;
    if (grown == nullptr)
        std::exit(1);
    buffer = grown;
}

inline char *plain_fgets(char **buffer, int *capacity, FILE *stream, int *length) {
    if (buffer == nullptr || capacity == nullptr) {
        errno = EINVAL;
        std::perror("_fgets");
        std::exit(1);
    }
    if (*capacity < 80)
        plain_grow(*buffer, *capacity);
    int end = 0; // where the terminator stands
    for (;;) {
        std::memset(*buffer + end, ' ', static_cast<std::size_t>(*capacity - end));
        if (std::fgets(*buffer + end, *capacity - end, stream) == nullptr)
            break;
        const int begin = end;
        end = *capacity - 1;
        while (end > begin && (*buffer)[end] != '\0')
            end--;
        if (end == begin) {
            std::fprintf(stderr, "%s: Hopeless case\n", "_fgets");
            std::exit(1);
        }
        if ((*buffer)[end - 1] == '\n') {
            if (end >= 2 && (*buffer)[end - 2] == '\r') {
                (*buffer)[end - 2] = '\n';
                end--;
            }
            break;
        }
        if (std::feof(stream) != 0)
            break;
        plain_grow(*buffer, *capacity);
    }
    if ((std::feof(stream) != 0 && end == 0) || std::ferror(stream) != 0) {
        std::free(*buffer);
        *buffer = nullptr;
        *capacity = 0;
        if (length != nullptr)
            *length = 0;
        return nullptr;
    }
    std::memset(*buffer + end, 0, static_cast<std::size_t>(*capacity - end));
    if (length != nullptr)
        *length = end;
    return *buffer;
}

/* One character backwards. False where the stream cannot go back any further. */
inline bool plain_step_back(FILE *stream, std::int64_t &cursor) {
    const int character = std::fgetc(stream);
    if (character == EOF) {
        if (fseeko(stream, -1, SEEK_CUR) != 0)
            return false;
        cursor = ftello(stream);
    } else if (character == '\n') {
        cursor = ftello(stream) - 2;
        if (cursor < 0)
            cursor = -1;
    } else if (fseeko(stream, -2, SEEK_CUR) == 0) {
        cursor = ftello(stream);
    } else {
        fseeko(stream, -1, SEEK_CUR);
        cursor = -2;
    }
    return true;
}

inline char *plain_frgets(char *buffer, int size, FILE *stream, std::int64_t *cursor) {
    if (buffer == nullptr || size < 2 || stream == nullptr || cursor == nullptr)
        return nullptr;
    if (*cursor == -3 && ftello(stream) == 0)
        return nullptr;
    while (*cursor != -4) {
        if (ftello(stream) != *cursor) {
            if (std::fgets(buffer, size, stream) != nullptr) {
                const std::size_t length = std::strlen(buffer);
                if (length == 0 || buffer[length - 1] != '\n')
                    return buffer;
                if (fseeko(stream, *cursor, SEEK_SET) == 0)
                    return buffer;
                std::rewind(stream);
                if (*cursor == -2)
                    *cursor = -3;
                else if (*cursor == -1)
                    *cursor = -4;
                return buffer;
            }
            if (fseeko(stream, *cursor, SEEK_SET) != 0) {
                std::rewind(stream);
                if (*cursor == -2) {
                    *cursor = -3;
                    return nullptr;
                }
                if (*cursor == -1)
                    break;
            }
        }
        if (!plain_step_back(stream, *cursor))
            return nullptr;
    }
    buffer[0] = '\n';
    buffer[1] = '\0';
    *cursor = -3;
    return buffer;
}

using line_reader = char *(*)(char **, int *, FILE *, int *);
using backward_reader = char *(*)(char *, int, FILE *, std::int64_t *);

/* What one call of a reader returned and left behind. */
struct line_call {
    bool returned;       /* a line, not null */
    std::string buffer;  /* all its bytes, up to the capacity */
    std::int64_t number; /* the capacity; for lines backwards the cursor */
    int length;          /* as stored */
    std::int64_t offset; /* of the stream */

    bool operator==(const line_call &) const = default;
};

/* Prints a call that a test did not expect; of a buffer the beginning. */
inline void PrintTo(const line_call &call, std::ostream *stream) {
    *stream << "\n    " << (call.returned ? "line" : "null") << ", capacity or cursor "
            << call.number << ", length " << call.length << ", offset " << call.offset
            << ", buffer ";
    for (const char c : call.buffer.substr(0, 100))
        if (c >= ' ' && c <= '~')
            *stream << c;
        else
            *stream << '\\' << static_cast<int>(c) << ';';
}

/* A file without a name that holds `content`, open at its beginning. */
inline FILE *file_of(const std::string &content) {
    const int descriptor = memfd_create("content", MFD_CLOEXEC);
    FILE *file = fdopen(descriptor, "r+");
    std::size_t done = 0;
    while (file != nullptr && done < content.size()) {
        const ssize_t written = write(descriptor, content.data() + done, content.size() - done);
        if (written <= 0)
            std::abort();
        done += static_cast<std::size_t>(written);
    }
    lseek(descriptor, 0, SEEK_SET);
    return file;
}

/* Reads all lines, from a buffer of `capacity` bytes on that holds other text. `between` may spoil
 * the buffer that a call left, or stands for nothing. */
template <typename Between>
std::vector<line_call> lines_of(line_reader reader, FILE *stream, int capacity, Between between) {
    std::vector<line_call> calls;
    char *buffer = nullptr;
    if (capacity > 0) {
        buffer = static_cast<char *>(std::malloc(static_cast<std::size_t>(capacity)));
        std::memset(buffer, 'x', static_cast<std::size_t>(capacity));
    }
    do {
        int length = -7;
        const char *line = reader(&buffer, &capacity, stream, &length);
        const std::string bytes =
            buffer == nullptr ? "" : std::string(buffer, static_cast<std::size_t>(capacity));
        calls.push_back(
            {line != nullptr && line == buffer, bytes, capacity, length, ftello(stream)});
        between(buffer, capacity);
    } while (calls.back().returned);
    std::free(buffer);
    return calls;
}

inline std::vector<line_call> lines_of(line_reader reader, FILE *stream, int capacity = 0) {
    return lines_of(reader, stream, capacity, [](char *, int) {});
}

/* Reads lines backwards into a buffer of `size` bytes until there are none, at most `limit` calls,
 * and one call more. */
inline std::vector<line_call> backward_lines_of(backward_reader reader, FILE *stream, int size,
                                                std::int64_t cursor, std::size_t limit) {
    std::vector<line_call> calls;
    std::string buffer(static_cast<std::size_t>(size), '~');
    bool ended = false;
    while (calls.size() <= limit) {
        const char *line = reader(buffer.data(), size, stream, &cursor);
        calls.push_back({line == buffer.data(), buffer, cursor, size, ftello(stream)});
        if (ended)
            break;
        ended = line == nullptr;
    }
    return calls;
}

} // namespace keel_test

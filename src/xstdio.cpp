/* SPDX-License-Identifier: MIT */
#include "xstdio.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/types.h>
#include <utility>

#include "char_class.h"

namespace {

/* ---- Hex dumps ------------------------------------------------------------------------------ */

#define RULE "------------------------------------------------------------------------------\n"

constexpr char hex_digits[] = "0123456789abcdef";
constexpr std::size_t row_bytes = 16;
constexpr std::size_t row_size =
    sizeof " 00000000 | 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f"
           " | 0123456789abcdef\n";

/* The offset is printed in 32 bits: a dump never reaches further. */
char *put_offset(char *end, std::size_t offset) {
    for (int shift = 28; shift >= 0; shift -= 4)
        *end++ = hex_digits[offset >> shift & 0xf];
    return end;
}

char *put_row(char *end, const unsigned char *bytes, std::size_t count, std::size_t offset,
              const keel::char_class &classes) {
    *end++ = ' ';
    end = put_offset(end, offset);
    *end++ = ' ';
    *end++ = '|';
    for (std::size_t i = 0; i < count; i++) {
        end[0] = ' ';
        end[1] = hex_digits[bytes[i] >> 4];
        end[2] = hex_digits[bytes[i] & 0xf];
        end += 3;
    }
    const std::size_t missing = 3 * (row_bytes - count);
    std::memset(end, ' ', missing);
    end += missing;
    std::memcpy(end, " | ", 3);
    end += 3;
    for (std::size_t i = 0; i < count; i++)
        *end++ = classes.print(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
    *end++ = '\n';
    return end;
}

/* ---- Lines backwards ------------------------------------------------------------------------ */

/* Marks that take the place of an offset in the cursor of frgets(). */
enum cursor_mark : std::int64_t {
    empty_first_line_above = -1,
    at_first_line = -2,
    finished = -3,
    empty_first_line_left = -4,
};

/* The offset of the last newline before `end`, or -1. Looks at pieces that double in size, so that
 * a short line costs little and a long one is still read in large blocks. */
std::int64_t newline_before(FILE *stream, std::int64_t end) {
    char block[16 * 1024];
    for (std::int64_t size = 256; end > 0; size = std::min<std::int64_t>(2 * size, sizeof block)) {
        const std::int64_t begin = std::max<std::int64_t>(end - size, 0);
        const auto length = static_cast<std::size_t>(end - begin);
        if (fseeko(stream, begin, SEEK_SET) != 0 || std::fread(block, 1, length, stream) != length)
            return -1;
        const void *newline = memrchr(block, '\n', length);
        if (newline != nullptr)
            return begin + (static_cast<const char *>(newline) - block);
        end = begin;
    }
    return -1;
}

/* The stream stands at or behind the end of its file: it and the cursor go to the last character.
 * False where there is none. */
bool step_back_from_end(FILE *stream, std::int64_t &cursor, std::int64_t position) {
    const std::int64_t end = std::min<std::int64_t>(position, fsize(stream));
    if (end > 0)
        return fseeko(stream, cursor = end - 1, SEEK_SET) == 0;
    if (position > 0)
        fseeko(stream, cursor = 0, SEEK_SET);
    return false;
}

/* Moves the stream back to the beginning of the line that it stands in, and the cursor to the last
 * character of the line above. At the end of the file it only steps onto the last character; false
 * where there is none. */
bool step_back(FILE *stream, std::int64_t &cursor) {
    const std::int64_t position = ftello(stream);
    const int character = std::fgetc(stream);
    if (character == EOF)
        return step_back_from_end(stream, cursor, position);
    const std::int64_t newline = character == '\n' ? position : newline_before(stream, position);
    if (newline >= 0 || character == '\n') {
        fseeko(stream, newline + 1, SEEK_SET);
        cursor = newline > 0 ? newline - 1 : empty_first_line_above;
    } else {
        fseeko(stream, 0, SEEK_SET);
        cursor = at_first_line;
    }
    return true;
}

char *give_empty_line(char *buffer, std::int64_t &cursor) {
    std::strcpy(buffer, "\n");
    cursor = finished;
    return buffer;
}

/* A whole line was read: the stream goes to where the scan continues. */
void seek_to_cursor(FILE *stream, std::int64_t &cursor) {
    if (fseeko(stream, cursor, SEEK_SET) == 0)
        return;
    std::rewind(stream);
    if (cursor == at_first_line)
        cursor = finished;
    else if (cursor == empty_first_line_above)
        cursor = empty_first_line_left;
}

/* ---- Lines of any length -------------------------------------------------------------------- */

constexpr int capacity_step = 80;

/* What this thread knows of the buffer that it filled last: all is zero behind the line. Zeroing it
 * all again for each short line after one long line would make reading quadratic. */
struct filled_buffer {
    const char *begin;
    int capacity;
    std::size_t used;
};
thread_local filled_buffer last_filled;

/* Up to here zeroing costs nothing worth saving, and nothing is assumed of what the caller did
 * to its buffer meanwhile. */
constexpr std::size_t always_zeroed = 4096;

void zero_behind(char *buffer, int capacity, std::size_t used, bool known) {
    auto end = static_cast<std::size_t>(capacity);
    if (known)
        end = std::min(end, std::max(last_filled.used, used + always_zeroed));
    if (end > used)
        std::memset(buffer + used, 0, end - used);
    last_filled = {buffer, capacity, used};
}

/* The capacity that steps of 80 reach for a line of `length` characters: room for its terminator,
 * and for one more where the line ends with the file, since only that shows the end. */
int capacity_for(int capacity, std::size_t length, bool ends_in_newline) {
    const std::size_t wanted = length + (ends_in_newline ? 1 : 2);
    const auto present = static_cast<std::size_t>(capacity);
    if (wanted <= present)
        return capacity;
    const std::size_t steps = (wanted - present + capacity_step - 1) / capacity_step;
    const std::size_t reached = present + steps * capacity_step;
    if (reached > INT_MAX)
        std::exit(1);
    return static_cast<int>(reached);
}

void grow(char *&buffer, int capacity) {
    char *grown = static_cast<char *>(std::realloc(buffer, static_cast<std::size_t>(capacity)));
    if (grown == nullptr)
        std::exit(1);
    buffer = grown;
}

/* Below 80 the capacity grows by one step, negative ones included. */
int grow_to_first_step(char *&buffer, int capacity) {
    if (buffer == nullptr)
        capacity = 0;
    if (capacity >= capacity_step)
        return capacity;
    capacity += capacity_step;
    grow(buffer, capacity);
    if (capacity == 1) {
        std::fprintf(stderr, "%s: Hopeless case\n", "_fgets");
        std::exit(1);
    }
    return capacity;
}

/* Ends the line with a newline alone where a carriage return stands before it. */
std::size_t drop_carriage_return(char *line, std::size_t length) {
    if (length < 2 || line[length - 2] != '\r' || line[length - 1] != '\n')
        return length;
    line[length - 2] = '\n';
    return length - 1;
}

/* ---- Flags ---------------------------------------------------------------------------------- */

int change_flags(int descriptor, int get, int set, int added, int removed) {
    const int flags = fcntl(descriptor, get);
    if (flags == -1)
        return -1;
    return fcntl(descriptor, set, (flags | added) & ~removed) == -1 ? -1 : 0;
}

} // namespace

int hexdump(FILE *stream, const void *data, std::size_t length) {
    if (stream == nullptr || data == nullptr || length == 0)
        return -1;
    const std::size_t count = std::min<std::size_t>(length, UINT32_MAX);
    std::fprintf(stream,
                 "HexDump(%u/%zu)\n" RULE
                 " ~ BOOM ~ |  0  1  2  3  4  5  6  7  8  9  A  B  C  D  E  F |\n" RULE,
                 static_cast<unsigned>(count), length);
    const keel::char_class classes;
    const auto *bytes = static_cast<const unsigned char *>(data);
    std::array<char, 256 * row_size> rows;
    char *end = rows.data();
    for (std::size_t offset = 0; offset < count; offset += row_bytes) {
        end = put_row(end, bytes + offset, std::min(row_bytes, count - offset), offset, classes);
        if (rows.data() + rows.size() - end < static_cast<std::ptrdiff_t>(row_size)) {
            std::fwrite(rows.data(), 1, static_cast<std::size_t>(end - rows.data()), stream);
            end = rows.data();
        }
    }
    std::fwrite(rows.data(), 1, static_cast<std::size_t>(end - rows.data()), stream);
    std::fputs(RULE, stream);
    return std::ferror(stream) != 0 ? -1 : static_cast<int>(count);
}

long fsize(FILE *stream) {
    if (stream == nullptr || std::fseek(stream, 0, SEEK_CUR) != 0)
        return -1;
    const long position = std::ftell(stream);
    std::fseek(stream, 0, SEEK_END);
    const long end = std::ftell(stream);
    std::fseek(stream, position, SEEK_SET);
    return end;
}

long fappended(FILE *stream) {
    const long end = fsize(stream);
    return end == -1 ? -1 : end - std::ftell(stream);
}

char *frgets(char *buffer, int size, FILE *stream, std::int64_t *cursor) {
    if (buffer == nullptr || size < 2 || stream == nullptr || cursor == nullptr)
        return nullptr;
    if (*cursor == finished && ftello(stream) == 0)
        return nullptr;
    if (*cursor == empty_first_line_left)
        return give_empty_line(buffer, *cursor);
    for (;;) {
        if (ftello(stream) != *cursor) { // a line begins here, or goes on
            if (std::fgets(buffer, size, stream) != nullptr) {
                if (std::strchr(buffer, '\n') != nullptr)
                    seek_to_cursor(stream, *cursor);
                return buffer;
            }
            if (fseeko(stream, *cursor, SEEK_SET) != 0) {
                std::rewind(stream);
                if (*cursor == empty_first_line_above)
                    return give_empty_line(buffer, *cursor);
                if (*cursor == at_first_line) {
                    *cursor = finished;
                    return nullptr;
                }
            }
        }
        if (!step_back(stream, *cursor))
            return nullptr;
    }
}

char *_fgets(char **buffer, int *capacity, FILE *stream, int *length) {
    if (buffer == nullptr || capacity == nullptr || stream == nullptr) {
        errno = EINVAL;
        std::perror("_fgets");
        std::exit(1);
    }
    const bool known = *buffer == last_filled.begin && *capacity == last_filled.capacity;
    const int present = grow_to_first_step(*buffer, *capacity);
    auto allocated = static_cast<std::size_t>(present);
    const ssize_t taken = getline(buffer, &allocated, stream);
    if (taken == -1 && std::feof(stream) == 0 && std::ferror(stream) == 0)
        std::exit(1); // no memory
    if (taken == -1 || std::ferror(stream) != 0) {
        std::free(std::exchange(*buffer, nullptr));
        *capacity = 0;
        if (length != nullptr)
            *length = 0;
        return nullptr;
    }
    auto used = static_cast<std::size_t>(taken);
    const int needed = capacity_for(present, used, (*buffer)[used - 1] == '\n');
    if (static_cast<std::size_t>(needed) > allocated)
        grow(*buffer, needed);
    used = drop_carriage_return(*buffer, used);
    zero_behind(*buffer, needed, used, known && needed == *capacity);
    *capacity = needed;
    if (length != nullptr)
        *length = static_cast<int>(used);
    return *buffer;
}

int set_fl(int descriptor, int flags) {
    return change_flags(descriptor, F_GETFL, F_SETFL, flags, 0);
}

int clr_fl(int descriptor, int flags) {
    return change_flags(descriptor, F_GETFL, F_SETFL, 0, flags);
}

int set_fd(int descriptor, int flags) {
    return change_flags(descriptor, F_GETFD, F_SETFD, flags, 0);
}

int clr_fd(int descriptor, int flags) {
    return change_flags(descriptor, F_GETFD, F_SETFD, 0, flags);
}

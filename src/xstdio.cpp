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
#include <iterator>
#include <optional>
#include <string_view>
#include <sys/types.h>
#include <utility>

#include "cancel_shield.h"
#include "char_class.h"
#include "ending.h"

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

bool put_rows(const char *begin, const char *end, FILE *stream) {
    const auto size = static_cast<std::size_t>(end - begin);
    return std::fwrite(begin, 1, size, stream) == size;
}

/* ---- Lines backwards ------------------------------------------------------------------------ */

/* Marks that take the place of an offset in the cursor of frgets(). */
enum cursor_mark : std::int64_t {
    empty_first_line_above = -1,
    at_first_line = -2,
    finished = -3,
    empty_first_line_left = -4,
};

/* What the C library has of the file in the stream's buffer. fseeko() asks the kernel even where
 * the place it goes to is in there, and that, several times a line, costs more than all the rest;
 * so a place in the buffer is reached by moving the stream's own read pointer, as fseeko() ends up
 * doing too. Text pushed back by ungetc() may stand elsewhere: then there is no window. */
class buffer_window {
  public:
    explicit buffer_window(FILE *stream) : stream_(stream) {
        if (stream->_IO_save_base != nullptr)
            return;
        begin = stream->_IO_read_base;
        position = stream->_IO_read_ptr;
        end = stream->_IO_read_end;
    }

    /* Nothing stands at the position; there may be text before it. */
    bool at_end() const { return position == end; }

    const char *newline_up_to_position() const {
        return find(memrchr(begin, '\n', static_cast<std::size_t>(position + 1 - begin)));
    }
    const char *newline_from(const char *from) const {
        return find(std::memchr(from, '\n', static_cast<std::size_t>(end - from)));
    }

    void move_to(const char *place) {
        stream_->_IO_read_ptr += place - position;
        stream_->_flags &= ~_IO_EOF_SEEN;
        position = place;
    }

    const char *begin = nullptr;
    const char *position = nullptr;
    const char *end = nullptr;

  private:
    static const char *find(const void *found) { return static_cast<const char *>(found); }

    FILE *stream_;
};

/* The offset of the last newline before `end`, or -1; nothing where the file cannot be read. Looks
 * at pieces that double in size, so that a short line costs little and a long one is still read in
 * large blocks. */
std::optional<std::int64_t> newline_before(FILE *stream, std::int64_t end) {
    char block[16 * 1024];
    for (std::int64_t size = 512; end > 0;) {
        const std::int64_t begin = std::max<std::int64_t>(end - size, 0);
        const auto length = static_cast<std::size_t>(end - begin);
        if (fseeko(stream, begin, SEEK_SET) != 0 ||
            std::fread(block, 1, length, stream) != length) {
            if (size == 1)
                return std::nullopt;
            size /= 2; // what can be read may begin behind this
            continue;
        }
        const void *newline = memrchr(block, '\n', length);
        if (newline != nullptr)
            return begin + (static_cast<const char *>(newline) - block);
        end = begin;
        size = std::min<std::int64_t>(2 * size, sizeof block);
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
 * where there is none, and where the file cannot be read. */
bool step_back(FILE *stream, std::int64_t &cursor) {
    const std::int64_t position = ftello(stream);
    const int character = std::fgetc(stream);
    if (character == EOF)
        return step_back_from_end(stream, cursor, position);
    if (character == '\n') { // it ends the line above; the stream stands behind it already
        cursor = position > 0 ? position - 1 : empty_first_line_above;
        return true;
    }
    const std::optional<std::int64_t> newline = newline_before(stream, position);
    if (!newline)
        return false;
    fseeko(stream, *newline + 1, SEEK_SET);
    if (*newline >= 0)
        cursor = *newline > 0 ? *newline - 1 : empty_first_line_above;
    else
        cursor = at_first_line;
    return true;
}

/* Stores a line that lies in two pieces; false where it is too long, or where a NUL byte in it
 * makes fgets() show less than was read. */
bool put_line(char *buffer, int size, std::string_view head, std::string_view rest) {
    const std::size_t length = head.size() + rest.size();
    if (length >= static_cast<std::size_t>(size) || head.find('\0') != head.npos ||
        rest.find('\0') != rest.npos)
        return false;
    head.copy(buffer, head.size());
    rest.copy(buffer + head.size(), rest.size());
    buffer[length] = '\0';
    return true;
}

std::string_view text_between(const char *begin, const char *end) {
    return {begin, static_cast<std::size_t>(end - begin)};
}

/* As take_buffered_line(), for a line that begins in the block before the one in the buffer. */
bool take_line_across_blocks(char *buffer, int size, FILE *stream, std::int64_t &cursor,
                             const buffer_window &window) {
    const char *newline = window.newline_from(window.position);
    const std::int64_t before = cursor - (window.position - window.begin) - 1;
    char rest[4096];
    if (newline == nullptr || newline - window.begin >= std::ssize(rest) || before < 0)
        return false;
    const auto length = static_cast<std::size_t>(newline + 1 - window.begin);
    std::memcpy(rest, window.begin, length);
    fseeko(stream, before, SEEK_SET);
    buffer_window block(stream);
    const char *above = block.at_end() ? nullptr : block.newline_up_to_position();
    if (above == nullptr || above == block.begin ||
        !put_line(buffer, size, text_between(above + 1, block.position + 1), {rest, length})) {
        fseeko(stream, cursor, SEEK_SET);
        return false;
    }
    cursor = before - (block.position - above) - 1;
    block.move_to(above - 1);
    return true;
}

/* The usual case, done in one go: the stream stands at the cursor, and the line behind it and the
 * newline of the line above lie in the stream's buffer. False, and nothing done, in any other. */
bool take_buffered_line(char *buffer, int size, FILE *stream, std::int64_t &cursor) {
    buffer_window window(stream);
    if (window.at_end())
        return false;
    const char *above = window.newline_up_to_position();
    if (above == nullptr)
        return take_line_across_blocks(buffer, size, stream, cursor, window);
    const char *newline = window.newline_from(std::max(window.position, above + 1));
    if (newline == nullptr || above == window.begin ||
        !put_line(buffer, size, text_between(above + 1, newline + 1), {}))
        return false;
    cursor -= window.position - above + 1;
    window.move_to(above - 1);
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

/* The long buffer that this thread filled last, which it left zero behind the line. Zeroing it all
 * again for each short line after one long line would make reading quadratic. */
struct filled_buffer {
    const char *begin;
    std::size_t capacity;
    std::size_t used;
};
thread_local filled_buffer last_filled;

/* Up to here zeroing costs nothing worth saving, and nothing is assumed of what the caller did
 * to its buffer meanwhile. */
constexpr std::size_t always_zeroed = 4096;

/* Whether the buffer seems to be zero from `begin` on, by as many bytes as may be looked at for
 * each line: what another thread has read into it, or another block in the place of a freed one,
 * shows in most cases. */
bool seems_zero(const char *buffer, std::size_t begin, std::size_t capacity) {
    constexpr std::size_t samples = 64;
    const auto is_zero = [](char c) { return c == '\0'; };
    if (!std::all_of(buffer + begin, buffer + std::min(begin + samples, capacity), is_zero))
        return false;
    for (std::size_t end = capacity; end > begin; end -= std::min(end, capacity / samples))
        if (!is_zero(buffer[end - 1]))
            return false;
    return true;
}

/* Where the bytes begin that an earlier line in the same long buffer left zero. */
std::size_t end_of_used(const char *buffer, std::size_t capacity, std::size_t used, bool grown) {
    const filled_buffer last = std::exchange(last_filled, {buffer, capacity, used});
    const std::size_t kept = std::max(last.used, used + always_zeroed);
    const bool known = !grown && last.begin == buffer && last.capacity == capacity;
    return known && kept < capacity && seems_zero(buffer, kept, capacity) ? kept : capacity;
}

void zero_behind(char *buffer, std::size_t capacity, std::size_t used, bool grown) {
    const std::size_t end =
        capacity > always_zeroed ? end_of_used(buffer, capacity, used, grown) : capacity;
    std::memset(buffer + used, 0, end - used);
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
        keel::end_process(1);
    return static_cast<int>(reached);
}

void grow(char *&buffer, int capacity) {
    char *grown = static_cast<char *>(std::realloc(buffer, static_cast<std::size_t>(capacity)));
    if (grown == nullptr)
        keel::end_process(1);
    buffer = grown;
}

/* Below 80 the capacity grows by one step, negative ones included. A null buffer has no room, even
 * where its capacity says so. */
int grow_to_first_step(char *&buffer, int capacity) {
    if (buffer == nullptr && capacity >= capacity_step)
        capacity = 0;
    if (capacity >= capacity_step)
        return capacity;
    capacity += capacity_step;
    if (capacity <= 0)
        keel::end_process(1);
    grow(buffer, capacity);
    if (capacity == 1) {
        const keel::cancel_shield shield;
        std::fprintf(stderr, "%s: Hopeless case\n", "_fgets");
        keel::end_process(1);
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
    if (std::fprintf(stream,
                     "HexDump(%u/%zu)\n" RULE
                     " ~ BOOM ~ |  0  1  2  3  4  5  6  7  8  9  A  B  C  D  E  F |\n" RULE,
                     static_cast<unsigned>(count), length) < 0)
        return -1;
    const keel::char_class classes;
    const auto *bytes = static_cast<const unsigned char *>(data);
    std::array<char, 256 * row_size> rows;
    char *end = rows.data();
    for (std::size_t offset = 0; offset < count; offset += row_bytes) {
        end = put_row(end, bytes + offset, std::min(row_bytes, count - offset), offset, classes);
        if (rows.data() + rows.size() - end < static_cast<std::ptrdiff_t>(row_size)) {
            if (!put_rows(rows.data(), end, stream))
                return -1;
            end = rows.data();
        }
    }
    if (!put_rows(rows.data(), end, stream) || std::fputs(RULE, stream) == EOF)
        return -1;
    return static_cast<int>(count);
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
    if (ftello(stream) == *cursor && take_buffered_line(buffer, size, stream, *cursor))
        return buffer;
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
        const keel::cancel_shield shield;
        errno = EINVAL;
        std::perror("_fgets");
        keel::end_process(1);
    }
    const int present = grow_to_first_step(*buffer, *capacity);
    auto allocated = static_cast<std::size_t>(present);
    const ssize_t taken = getline(buffer, &allocated, stream);
    if (taken == -1 && std::feof(stream) == 0 && std::ferror(stream) == 0)
        keel::end_process(1); // no memory
    if (taken == -1 || ferror_unlocked(stream) != 0) {
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
    zero_behind(*buffer, static_cast<std::size_t>(needed), used, needed != present);
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

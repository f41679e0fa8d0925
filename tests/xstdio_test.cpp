/* SPDX-License-Identifier: MIT */
#include "xstdio.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "plain_lines.h"
#include "temp_dir.h"

namespace {

using keel_test::backward_lines_of;
using keel_test::child_result;
using keel_test::exited;
using keel_test::file_of;
using keel_test::line_call;
using keel_test::lines_of;
using keel_test::plain_fgets;
using keel_test::plain_frgets;
using keel_test::run_in_child;
using keel_test::temp_dir;

struct close_file {
    void operator()(FILE *file) const { std::fclose(file); }
};
using unique_file = std::unique_ptr<FILE, close_file>;

unique_file stream_of(const std::string &content) {
    return unique_file(file_of(content));
}

unique_file opened(const std::string &path, const char *mode = "r") {
    return unique_file(std::fopen(path.c_str(), mode));
}

/* The reading end of a pipe that holds `content`, its writing end closed. */
unique_file pipe_of(const std::string &content) {
    int ends[2];
    if (pipe(ends) != 0 ||
        write(ends[1], content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        return nullptr;
    close(ends[1]);
    return unique_file(fdopen(ends[0], "r"));
}

/* A stream over `content` whose reads fail with `error` where it ends. */
struct failing_source {
    std::string content;
    int error;
    std::size_t offset = 0;

    static ssize_t read(void *cookie, char *buffer, std::size_t size) {
        auto &source = *static_cast<failing_source *>(cookie);
        const std::size_t left = source.content.size() - source.offset;
        if (left == 0) {
            errno = source.error;
            return -1;
        }
        const std::size_t taken = std::min(left, size);
        std::memcpy(buffer, source.content.data() + source.offset, taken);
        source.offset += taken;
        return static_cast<ssize_t>(taken);
    }
    unique_file stream() {
        return unique_file(fopencookie(this, "r", {read, nullptr, nullptr, nullptr}));
    }
};

/* What this process has read so far: bytes, and calls. */
struct reading_work {
    std::int64_t bytes = -1;
    std::int64_t calls = -1;

    static reading_work now() {
        reading_work work;
        std::ifstream io("/proc/self/io");
        for (std::string name; io >> name;) {
            std::int64_t value = 0;
            io >> value;
            if (name == "rchar:")
                work.bytes = value;
            else if (name == "syscr:")
                work.calls = value;
        }
        return work;
    }
    reading_work since(const reading_work &before) const {
        return {bytes - before.bytes, calls - before.calls};
    }
};

std::string repeated(const std::string &text, int times) {
    std::string all;
    for (int i = 0; i < times; i++)
        all += text;
    return all;
}

/* Text in which a byte out of place shows. */
std::string letters(std::size_t length) {
    std::string text(length, ' ');
    for (std::size_t i = 0; i < length; i++)
        text[i] = static_cast<char>('a' + (i + i / 26) % 26);
    return text;
}

/* ---- hexdump -------------------------------------------------------------------------------- */

const std::string rule(78, '-');

std::string banner(const std::string &count, const std::string &length) {
    return "HexDump(" + count + "/" + length + ")\n" + rule +
           "\n ~ BOOM ~ |  0  1  2  3  4  5  6  7  8  9  A  B  C  D  E  F |\n" + rule + "\n";
}

/* Everything that a dump of `bytes` is to print, byte by byte. */
std::string expected_dump(const std::string &bytes) {
    std::string text = banner(std::to_string(bytes.size()), std::to_string(bytes.size()));
    char piece[32];
    std::string shown;
    for (std::size_t i = 0; i < bytes.size(); i++) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        if (i % 16 == 0) {
            std::snprintf(piece, sizeof piece, " %08x |", static_cast<unsigned>(i));
            text += piece;
        }
        std::snprintf(piece, sizeof piece, " %.2x", byte);
        text += piece;
        shown += byte >= 0x20 && byte <= 0x7e ? bytes[i] : '.';
        if (shown.size() == 16 || i + 1 == bytes.size()) {
            text += std::string(3 * (16 - shown.size()), ' ') + " | " + shown + "\n";
            shown.clear();
        }
    }
    return text + rule + "\n";
}

struct dump {
    int result;
    std::string text;

    bool operator==(const dump &) const = default;
};

dump dump_of(const void *data, std::size_t length) {
    char *text = nullptr;
    std::size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    const int result = hexdump(stream, data, length);
    std::fclose(stream);
    dump made{result, {text, size}};
    std::free(text);
    return made;
}

TEST(Hexdump, ShowsAShortRow) {
    EXPECT_EQ(dump_of("AB\n", 3).text, banner("3", "3") + " 00000000 | 41 42 0a" +
                                           std::string(39, ' ') + " | AB.\n" + rule + "\n");
}

TEST(Hexdump, ShowsAFullRowWithoutPadding) {
    EXPECT_EQ(
        dump_of("0123456789abcdef", 16).text,
        banner("16", "16") +
            " 00000000 | 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 | 0123456789abcdef\n" +
            rule + "\n");
}

TEST(Hexdump, PadsTheLastRow) {
    EXPECT_EQ(dump_of("0123456789abcdefg", 17).text,
              banner("17", "17") +
                  " 00000000 | 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 | 0123456789abcdef\n"
                  " 00000010 | 67" +
                  std::string(45, ' ') + " | g\n" + rule + "\n");
}

TEST(Hexdump, ShowsEveryLengthAndEveryByte) {
    std::string bytes;
    for (int i = 0; i < 70'000; i++)
        bytes += static_cast<char>(i % 256 ^ i / 256);
    for (const std::size_t length :
         {1u,    2u,    15u,   16u,   17u,   31u,   32u,   33u,     255u,    256u,   257u,
          4095u, 4096u, 4097u, 4111u, 4112u, 4113u, 8192u, 65'536u, 65'537u, 70'000u}) {
        const std::string part = bytes.substr(0, length);
        EXPECT_EQ(dump_of(part.data(), length),
                  (dump{static_cast<int>(length), expected_dump(part)}))
            << length;
    }
}

TEST(Hexdump, RefusesNothing) {
    EXPECT_EQ(dump_of("x", 0), (dump{-1, ""}));
    EXPECT_EQ(dump_of(nullptr, 4), (dump{-1, ""}));
    EXPECT_EQ(hexdump(nullptr, "x", 1), -1);
}

TEST(Hexdump, FailsWhereTheStreamRefusesTheText) {
    const std::string bytes(100'000, 'x');
    const unique_file full = opened("/dev/full", "w");
    EXPECT_EQ(hexdump(full.get(), bytes.data(), bytes.size()), -1);

    const unique_file unbuffered = opened("/dev/full", "w");
    std::setvbuf(unbuffered.get(), nullptr, _IONBF, 0);
    EXPECT_EQ(hexdump(unbuffered.get(), "x", 1), -1);

    const unique_file reading = opened("/dev/null");
    EXPECT_EQ(hexdump(reading.get(), "x", 1), -1);
}

TEST(Hexdump, AnEarlierFailureOfTheStreamIsNotItsOwn) {
    const temp_dir dir;
    const unique_file file = opened(dir / "dump", "w");
    EXPECT_EQ(std::fgetc(file.get()), EOF); // not open for reading
    ASSERT_NE(std::ferror(file.get()), 0);
    EXPECT_EQ(hexdump(file.get(), "x", 1), 1);
    std::fflush(file.get());
    EXPECT_EQ(keel_test::content_of(dir / "dump"), expected_dump("x"));
}

/* Takes the first `room` bytes and refuses all others. */
struct small_sink {
    std::string taken;
    std::size_t room;

    static ssize_t write(void *cookie, const char *text, std::size_t size) {
        auto &sink = *static_cast<small_sink *>(cookie);
        if (sink.taken.size() + size > sink.room)
            return 0;
        sink.taken.append(text, size);
        return static_cast<ssize_t>(size);
    }
};

TEST(Hexdump, FailsWhereverItsTextIsCutOff) {
    const std::string bytes = "0123456789abcdefg";
    const std::string whole = expected_dump(bytes);
    for (std::size_t room = 0; room <= whole.size(); room++) {
        small_sink sink{"", room};
        const unique_file stream(
            fopencookie(&sink, "w", {nullptr, small_sink::write, nullptr, nullptr}));
        std::setvbuf(stream.get(), nullptr, _IONBF, 0);
        EXPECT_EQ(hexdump(stream.get(), bytes.data(), bytes.size()), room < whole.size() ? -1 : 17)
            << room;
    }
}

TEST(Hexdump, CountsAtMostFourGigabytesAndStopsWhereItCannotWrite) {
    const std::size_t length = std::size_t{UINT32_MAX} + 1;
    void *bytes =
        mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(bytes, MAP_FAILED);
    const std::string expected = banner("4294967295", "4294967296");
    small_sink sink{"", expected.size()};
    const unique_file stream(
        fopencookie(&sink, "w", {nullptr, small_sink::write, nullptr, nullptr}));
    std::setvbuf(stream.get(), nullptr, _IOLBF, 4096);
    EXPECT_EQ(hexdump(stream.get(), bytes, length), -1);
    EXPECT_EQ(sink.taken, expected);
    munmap(bytes, length);
}

/* ---- fsize, fappended ----------------------------------------------------------------------- */

TEST(Fsize, KeepsThePosition) {
    const unique_file file = stream_of(std::string(100, 'x'));
    std::string first(10, ' ');
    ASSERT_EQ(std::fread(first.data(), 1, 10, file.get()), 10u);
    EXPECT_EQ(fsize(file.get()), 100);
    EXPECT_EQ(std::ftell(file.get()), 10);
    EXPECT_EQ(fappended(file.get()), 90);
    EXPECT_EQ(std::ftell(file.get()), 10);
}

TEST(Fsize, KnowsEmptyFilesAndTheEnd) {
    const unique_file empty = stream_of("");
    EXPECT_EQ(fsize(empty.get()), 0);
    EXPECT_EQ(fappended(empty.get()), 0);

    const unique_file file = stream_of("abc");
    std::fseek(file.get(), 0, SEEK_END);
    EXPECT_EQ(fappended(file.get()), 0);
    std::fseek(file.get(), 10, SEEK_SET);
    EXPECT_EQ(fsize(file.get()), 3);
    EXPECT_EQ(fappended(file.get()), -7);
    EXPECT_EQ(std::ftell(file.get()), 10);
}

TEST(Fsize, SeesWhatOthersAppend) {
    const temp_dir dir;
    keel_test::write_file(dir / "log", "first\n");
    const unique_file reader = opened(dir / "log");
    char line[80];
    ASSERT_NE(std::fgets(line, sizeof line, reader.get()), nullptr);
    EXPECT_EQ(fappended(reader.get()), 0);
    std::ofstream(dir / "log", std::ios::app) << "second\n";
    EXPECT_EQ(fappended(reader.get()), 7);
    EXPECT_EQ(fsize(reader.get()), 13);
    ASSERT_NE(std::fgets(line, sizeof line, reader.get()), nullptr);
    EXPECT_STREQ(line, "second\n");
}

TEST(Fsize, CountsWhatItsOwnStreamHasNotFlushed) {
    const unique_file file = stream_of("");
    std::fputs("unflushed", file.get());
    EXPECT_EQ(fsize(file.get()), 9);
}

TEST(Fsize, FailsWhereNothingCanBeSought) {
    const unique_file pipe = pipe_of("abc");
    EXPECT_EQ(fsize(pipe.get()), -1);
    EXPECT_EQ(fappended(pipe.get()), -1);
    EXPECT_EQ(std::fgetc(pipe.get()), 'a');
    EXPECT_EQ(fsize(nullptr), -1);
    EXPECT_EQ(fappended(nullptr), -1);
}

/* ---- Lines of any length -------------------------------------------------------------------- */

/* The library and the plain reader do the same, call by call. */
void expect_plain_lines(const std::string &content, int capacity = 0) {
    const unique_file file = stream_of(content);
    const unique_file same = stream_of(content);
    EXPECT_EQ(lines_of(_fgets, file.get(), capacity), lines_of(plain_fgets, same.get(), capacity));
}

/* The only line of `content`, read from an empty buffer. */
line_call single_line(const std::string &content) {
    const unique_file file = stream_of(content);
    return lines_of(_fgets, file.get()).front();
}

std::string with_zeros(std::string text, std::size_t capacity) {
    text.resize(capacity, '\0');
    return text;
}

TEST(Fgets, ReadsLinesAndFreesTheBufferAtTheEnd) {
    const unique_file file = stream_of("a\r\nbb");
    const std::vector<line_call> expected{{true, with_zeros("a\n", 80), 80, 2, 3},
                                          {true, with_zeros("bb", 80), 80, 2, 5},
                                          {false, "", 0, 0, 5}};
    EXPECT_EQ(lines_of(_fgets, file.get()), expected);
}

TEST(Fgets, GrowsInStepsOfEighty) {
    struct {
        std::size_t length; // of the line, its newline included
        bool newline;
        int capacity;
    } const rows[] = {
        {1, true, 80},       {2, true, 80},      {78, true, 80},     {79, true, 80},
        {80, true, 160},     {81, true, 160},    {159, true, 160},   {160, true, 240},
        {1000, true, 1040},  {1001, true, 1040}, {1039, true, 1040}, {1040, true, 1120},
        {1, false, 80},      {77, false, 80},    {78, false, 80},    {79, false, 160},
        {80, false, 160},    {158, false, 160},  {159, false, 240},  {1038, false, 1040},
        {1039, false, 1120},
    };
    for (const auto &row : rows) {
        std::string line = letters(row.length);
        if (row.newline)
            line.back() = '\n';
        const auto capacity = static_cast<std::size_t>(row.capacity);
        EXPECT_EQ(single_line(line),
                  (line_call{true, with_zeros(line, capacity), row.capacity,
                             static_cast<int>(row.length), static_cast<std::int64_t>(row.length)}))
            << row.length;
    }
}

TEST(Fgets, GrowsFromTheCapacityThatItIsGiven) {
    struct {
        int capacity;
        std::size_t length;
        int grown;
    } const rows[] = {
        {1, 1, 81},    {79, 1, 159},   {80, 1, 80},     {81, 1, 81},     {81, 80, 81},
        {81, 81, 161}, {100, 99, 100}, {100, 100, 180}, {100, 180, 260}, {5000, 10, 5000},
        {-1, 78, 79},  {-1, 79, 159},  {-79 + 1, 1, 2}, {-78, 2, 82},
    };
    for (const auto &row : rows) {
        const unique_file file = stream_of(letters(row.length - 1) + "\n");
        EXPECT_EQ(lines_of(_fgets, file.get(), row.capacity).front().number, row.grown)
            << row.capacity << " " << row.length;
    }
}

TEST(Fgets, DoesWhatItsDescriptionSaysForEveryLength) {
    for (std::size_t length = 0; length <= 330; length++) {
        const std::string line = letters(length);
        for (const std::string end : {"", "\n", "\r\n", "\r", "\r\r\n", "\n\n", "\n\r", "\r\nx"})
            expect_plain_lines(line + end);
    }
}

TEST(Fgets, DoesWhatItsDescriptionSaysFromEveryCapacity) {
    const std::string contents[] = {"",
                                    "\n",
                                    "a",
                                    "a\r\nbb",
                                    letters(79),
                                    letters(80) + "\n",
                                    letters(300) + "\r\n\n" + letters(5)};
    for (const int capacity : {-78, -41, -2, -1, 0, 1, 2, 40, 79, 80, 81, 82, 159, 160, 161, 400})
        for (const std::string &content : contents)
            expect_plain_lines(content, capacity);
}

TEST(Fgets, KeepsNulBytes) {
    const auto nul = [](std::size_t count) { return std::string(count, '\0'); };
    const std::string contents[] = {
        nul(1),
        nul(1) + "\n",
        nul(500),
        nul(79) + "\r\n",
        "a" + nul(1) + "b\nc" + nul(2) + "\n" + nul(3),
        letters(78) + nul(1) + "\n",
        letters(79) + nul(1) + "x\n",
        letters(78) + nul(2) + "\r\n" + nul(81),
        letters(79) + "\r" + nul(1) + "\n",
    };
    for (const std::string &content : contents)
        expect_plain_lines(content);
    EXPECT_EQ(single_line(std::string("a\0b\n", 4)),
              (line_call{true, with_zeros(std::string("a\0b\n", 4), 80), 80, 4, 4}));
}

TEST(Fgets, DropsTheCarriageReturnAlsoWhereALineGrows) {
    for (const std::size_t length : {78u, 79u, 80u, 158u, 159u}) {
        const line_call call = single_line(letters(length) + "\r\n");
        EXPECT_EQ(call.length, static_cast<int>(length) + 1);
        EXPECT_EQ(call.buffer, with_zeros(letters(length) + "\n", call.buffer.size()));
    }
    EXPECT_EQ(single_line("\r\n").length, 1);
    EXPECT_EQ(single_line("\n").length, 1);
    EXPECT_EQ(single_line("a\r").length, 2);
}

TEST(Fgets, ZeroesTheBufferBehindEachLine) {
    const std::string content = letters(3000) + "\nshort\n" + letters(500) + "\r\n\n\nend";
    const auto spoil = [](char *buffer, int capacity) {
        if (buffer != nullptr)
            std::memset(buffer, 'x', static_cast<std::size_t>(capacity));
    };
    const unique_file file = stream_of(content);
    const unique_file same = stream_of(content);
    EXPECT_EQ(lines_of(_fgets, file.get(), 0, spoil), lines_of(plain_fgets, same.get(), 0, spoil));
    expect_plain_lines(letters(50'000) + "\n" + letters(10) + "\n" + letters(20'000) + "\n\n");
}

/* A block that the caller allocates may lie where an earlier buffer lay. */
TEST(Fgets, ZeroesABufferThatTheCallerBrings) {
    for (int i = 0; i < 4; i++) {
        const unique_file file = stream_of("short\n");
        const auto all = lines_of(_fgets, file.get(), 80'000);
        EXPECT_EQ(all.front().buffer, with_zeros("short\n", 80'000)) << i;
    }
}

TEST(Fgets, ZeroesABufferThatAnotherThreadFilled) {
    const unique_file file = stream_of("short\n" + letters(50'000) + "\nshort\n");
    char *buffer = static_cast<char *>(std::malloc(80'000));
    int capacity = 80'000;
    ASSERT_NE(_fgets(&buffer, &capacity, file.get(), nullptr), nullptr);
    std::thread([&] {
        ASSERT_NE(_fgets(&buffer, &capacity, file.get(), nullptr), nullptr);
    }).join();
    ASSERT_NE(_fgets(&buffer, &capacity, file.get(), nullptr), nullptr);
    EXPECT_EQ(std::string(buffer, 80'000), with_zeros("short\n", 80'000));
    std::free(buffer);
}

TEST(Fgets, LengthMayBeNull) {
    const unique_file file = stream_of("line\n");
    char *buffer = nullptr;
    int capacity = 0;
    ASSERT_NE(_fgets(&buffer, &capacity, file.get(), nullptr), nullptr);
    EXPECT_STREQ(buffer, "line\n");
    EXPECT_EQ(_fgets(&buffer, &capacity, file.get(), nullptr), nullptr);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(capacity, 0);
}

/* A null buffer holds nothing, whatever capacity stands beside it. */
TEST(Fgets, AllocatesANullBuffer) {
    for (const int capacity : {0, 1, 79, 80, 1000}) {
        const unique_file file = stream_of(letters(120) + "\n");
        char *buffer = nullptr;
        int given = capacity;
        int length = 0;
        ASSERT_NE(_fgets(&buffer, &given, file.get(), &length), nullptr) << capacity;
        EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(given)),
                  with_zeros(letters(120) + "\n", static_cast<std::size_t>(given)));
        EXPECT_EQ(length, 121);
        EXPECT_EQ(given, capacity >= 80        ? 160
                         : capacity + 80 > 121 ? capacity + 80
                                               : capacity + 160);
        std::free(buffer);
    }
}

TEST(Fgets, GoesOnWhereAFileGrows) {
    const temp_dir dir;
    keel_test::write_file(dir / "log", "half");
    const unique_file reader = opened(dir / "log");
    char *buffer = nullptr;
    int capacity = 0;
    ASSERT_NE(_fgets(&buffer, &capacity, reader.get(), nullptr), nullptr);
    EXPECT_STREQ(buffer, "half");
    std::ofstream(dir / "log", std::ios::app) << " line\n";
    std::clearerr(reader.get());
    ASSERT_NE(_fgets(&buffer, &capacity, reader.get(), nullptr), nullptr);
    EXPECT_STREQ(buffer, " line\n");
    std::free(buffer);
}

TEST(Fgets, ReadsPipes) {
    const std::string content = letters(200) + "\r\n\nlast";
    const unique_file file = pipe_of(content);
    const unique_file same = pipe_of(content);
    EXPECT_EQ(lines_of(_fgets, file.get()), lines_of(plain_fgets, same.get()));
}

void expect_failed_read(FILE *stream) {
    char *buffer = static_cast<char *>(std::malloc(200));
    int capacity = 200;
    int length = 5;
    EXPECT_EQ(_fgets(&buffer, &capacity, stream, &length), nullptr);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(capacity, 0);
    EXPECT_EQ(length, 0);
    EXPECT_NE(std::ferror(stream), 0);
}

TEST(Fgets, FailsWhereReadingFails) {
    const unique_file directory = opened("/tmp");
    expect_failed_read(directory.get());
    const unique_file hole = opened("/proc/self/mem");
    expect_failed_read(hole.get());
    const temp_dir dir;
    const unique_file writing = opened(dir / "file", "w");
    expect_failed_read(writing.get());
}

TEST(Fgets, ALineCutByAReadErrorIsNone) {
    for (const int error : {EIO, EAGAIN, EINTR}) {
        for (const std::size_t length : {1u, 79u, 80u, 500u}) {
            failing_source source{"whole\n" + letters(length), error};
            failing_source same = source;
            const unique_file stream = source.stream();
            const unique_file other = same.stream();
            const auto calls = lines_of(_fgets, stream.get());
            EXPECT_EQ(calls, lines_of(plain_fgets, other.get()));
            EXPECT_EQ(calls.size(), 2u);
        }
    }
}

/* An error flag that nobody cleared is an error still, though the next line could be read. */
TEST(Fgets, FailsWhereTheStreamHasFailedBefore) {
    for (const std::string &content : {letters(10) + "\nsecond\n", letters(200), std::string()}) {
        const temp_dir dir;
        keel_test::write_file(dir / "file", content);
        const unique_file file = opened(dir / "file");
        std::fputc('x', file.get()); // not open for writing
        ASSERT_NE(std::ferror(file.get()), 0);
        expect_failed_read(file.get());
        expect_failed_read(file.get());
    }
}

TEST(Fgets, EndsWithoutArguments) {
    const auto invalid = exited(1, "_fgets: Invalid argument\n");
    EXPECT_EQ(run_in_child([] {
                  int capacity = 0;
                  _fgets(nullptr, &capacity, stdin, nullptr);
              }),
              invalid);
    EXPECT_EQ(run_in_child([] {
                  char *buffer = nullptr;
                  _fgets(&buffer, nullptr, stdin, nullptr);
              }),
              invalid);
    EXPECT_EQ(run_in_child([] {
                  char *buffer = nullptr;
                  int capacity = 0;
                  _fgets(&buffer, &capacity, nullptr, nullptr);
              }),
              invalid);
}

child_result ending_from(keel_test::line_reader reader, int capacity, bool allocated,
                         const std::string &content) {
    return run_in_child([=] {
        char *buffer = allocated ? static_cast<char *>(std::malloc(100)) : nullptr;
        int given = capacity;
        reader(&buffer, &given, file_of(content), nullptr);
    });
}

TEST(Fgets, EndsWhereACapacityLeavesNoRoom) {
    for (const bool allocated : {false, true}) {
        for (const std::string content : {"", "a", "line\n"}) {
            EXPECT_EQ(ending_from(_fgets, -79, allocated, content),
                      exited(1, "_fgets: Hopeless case\n"));
            EXPECT_EQ(ending_from(plain_fgets, -79, allocated, content),
                      exited(1, "_fgets: Hopeless case\n"));
            for (const int capacity : {-80, -81, -1000, -2147483647, -2147483647 - 1})
                EXPECT_EQ(ending_from(_fgets, capacity, allocated, content), exited(1)) << capacity;
        }
    }
}

ssize_t read_endlessly(void *, char *buffer, std::size_t size) {
    std::memset(buffer, 'x', size);
    return static_cast<ssize_t>(size);
}

/* A line without an end takes all the memory that there is. */
TEST(Fgets, EndsWithoutAWordWhereMemoryRunsOut) {
    const auto ending = run_in_child([] {
        keel_test::limit_memory();
        FILE *endless = fopencookie(nullptr, "r", {read_endlessly, nullptr, nullptr, nullptr});
        char *buffer = nullptr;
        int capacity = 0;
        _fgets(&buffer, &capacity, endless, nullptr);
    });
    EXPECT_EQ(ending, exited(1));
}

TEST(Fgets, ReadsEachByteOnce) {
    struct {
        const char *name;
        std::string content;
        std::size_t lines;
    } const rows[] = {
        {"many short lines", repeated("a line\n", 100'000), 100'000},
        {"one long line", std::string(4 << 20, 'x'), 1},
        {"many after a long one", std::string(4 << 20, 'x') + repeated("\na", 20'000), 20'001},
    };
    for (const auto &row : rows) {
        const unique_file file = stream_of(row.content);
        char *buffer = nullptr;
        int capacity = 0;
        std::size_t lines = 0;
        const reading_work before = reading_work::now();
        ASSERT_GT(before.bytes, 0);
        while (_fgets(&buffer, &capacity, file.get(), nullptr) != nullptr)
            lines++;
        const reading_work work = reading_work::now().since(before);
        EXPECT_EQ(lines, row.lines) << row.name;
        const auto size = static_cast<std::int64_t>(row.content.size());
        EXPECT_GE(work.bytes, size) << row.name;
        EXPECT_LE(work.bytes, size + 4096) << row.name; // the counters' own file is in there
        EXPECT_LE(work.calls, size / 4096 + 10) << row.name;
    }
}

/* The pages between `begin` and `end` that stand in memory. */
std::ptrdiff_t pages_present(char *begin, char *end) {
    std::vector<unsigned char> present(static_cast<std::size_t>(end - begin) / 4096);
    mincore(begin, static_cast<std::size_t>(end - begin), present.data());
    return std::count_if(present.begin(), present.end(), [](auto p) { return (p & 1) != 0; });
}

/* After one long line, short ones must not cost what the long one did: what is zero behind them is
 * not written again, which shows in the pages that come back after they were given away. */
TEST(Fgets, ShortLinesStayCheapAfterALongOne) {
    const unique_file file = stream_of(std::string(64 << 20, 'x') + repeated("\nshort", 1000));
    char *buffer = nullptr;
    int capacity = 0;
    ASSERT_NE(_fgets(&buffer, &capacity, file.get(), nullptr), nullptr);
    ASSERT_NE(_fgets(&buffer, &capacity, file.get(), nullptr), nullptr);
    ASSERT_STREQ(buffer, "short\n");
    const auto whole_pages = [](char *at) {
        return at + (4096 - reinterpret_cast<std::uintptr_t>(at) % 4096) % 4096;
    };
    char *begin = whole_pages(buffer + 16'384);
    char *end = whole_pages(buffer + capacity - 16'384);
    ASSERT_EQ(madvise(begin, static_cast<std::size_t>(end - begin), MADV_NOHUGEPAGE), 0);
    ASSERT_EQ(madvise(begin, static_cast<std::size_t>(end - begin), MADV_DONTNEED), 0);
    ASSERT_EQ(pages_present(begin, end), 0);
    int lines = 0;
    while (lines < 900 && _fgets(&buffer, &capacity, file.get(), nullptr) != nullptr)
        lines++;
    EXPECT_EQ(lines, 900);
    EXPECT_LE(pages_present(begin, end), 100);
    EXPECT_TRUE(std::all_of(buffer + 6, buffer + capacity, [](char c) { return c == '\0'; }));
    std::free(buffer);
}

/* ---- Lines backwards ------------------------------------------------------------------------ */

std::int64_t seek_to_end(FILE *file) {
    fseeko(file, 0, SEEK_END);
    return ftello(file);
}

/* The texts that frgets() gives for a whole file. */
std::vector<std::string> lines_backwards(const std::string &content, int size = 80) {
    const unique_file file = stream_of(content);
    std::int64_t cursor = seek_to_end(file.get());
    std::vector<std::string> lines;
    std::string buffer(static_cast<std::size_t>(size), '~');
    while (frgets(buffer.data(), size, file.get(), &cursor) != nullptr)
        lines.emplace_back(buffer.c_str());
    EXPECT_EQ(frgets(buffer.data(), size, file.get(), &cursor), nullptr);
    return lines;
}

TEST(Frgets, GivesLinesFromTheLastToTheFirst) {
    using lines = std::vector<std::string>;
    struct {
        std::string content;
        lines expected;
    } const rows[] = {
        {"", {}},
        {"ab\ncd\n", {"cd\n", "ab\n"}},
        {"ab\ncd", {"cd", "ab\n"}},
        {"\nx\n", {"x\n", "\n"}},
        {"\nx", {"x", "\n"}},
        {"\n", {"\n"}},
        {"\n\n", {"\n", "\n"}},
        {"\n\n\n", {"\n", "\n", "\n"}},
        {"x", {"x"}},
        {"x\n", {"x\n"}},
        {"a\n\n\nb\n", {"b\n", "\n", "\n", "a\n"}},
        {"a\r\nb\r\n", {"b\r\n", "a\r\n"}},
        {"ab\ncd\nef\ngh\n", {"gh\n", "ef\n", "cd\n", "ab\n"}},
    };
    for (const auto &row : rows)
        EXPECT_EQ(lines_backwards(row.content), row.expected) << row.content;
}

TEST(Frgets, MovesTheCursorAsPromised) {
    struct step {
        const char *line;
        std::int64_t cursor;
        std::int64_t offset;
    };
    struct {
        const char *content;
        std::vector<step> steps;
    } const rows[] = {
        {"ab\ncd\n", {{"cd\n", 1, 1}, {"ab\n", -3, 0}, {nullptr, -3, 0}}},
        {"\nx\n", {{"x\n", -4, 0}, {"\n", -3, 0}, {nullptr, -3, 0}}},
        {"ab\ncd", {{"cd", 1, 5}, {"ab\n", -3, 0}, {nullptr, -3, 0}}},
        {"x", {{"x", -2, 1}, {nullptr, -3, 0}, {nullptr, -3, 0}}},
        {"\nx", {{"x", -1, 2}, {"\n", -3, 0}, {nullptr, -3, 0}}},
        {"", {{nullptr, 0, 0}, {nullptr, 0, 0}}},
    };
    for (const auto &row : rows) {
        const unique_file file = stream_of(row.content);
        std::int64_t cursor = seek_to_end(file.get());
        char buffer[80];
        for (const step &expected : row.steps) {
            const char *line = frgets(buffer, sizeof buffer, file.get(), &cursor);
            EXPECT_STREQ(line, expected.line) << row.content;
            EXPECT_EQ(cursor, expected.cursor) << row.content;
            EXPECT_EQ(ftello(file.get()), expected.offset) << row.content;
        }
    }
}

TEST(Frgets, GivesLongLinesInPieces) {
    using lines = std::vector<std::string>;
    EXPECT_EQ(lines_backwards("abcdefg\nxy\n", 4), (lines{"xy\n", "abc", "def", "g\n"}));
    EXPECT_EQ(lines_backwards("abc\nde", 2), (lines{"d", "e", "a", "b", "c", "\n"}));
    EXPECT_EQ(lines_backwards("abc\ndef\n", 5), (lines{"def\n", "abc\n"}));
}

/* A file of three lines of 20,000 characters whose beginning cannot be read. */
struct damaged_file {
    static constexpr off64_t line = 20'000;
    static constexpr off64_t size = 3 * line;
    off64_t offset = 0;

    static ssize_t read(void *self_, char *block, std::size_t length) {
        off64_t &offset = static_cast<damaged_file *>(self_)->offset;
        if (offset < line / 2) {
            errno = EIO;
            return -1;
        }
        const off64_t end = std::min(size, offset + static_cast<off64_t>(length));
        const ssize_t taken = end - offset;
        for (; offset < end; offset++)
            *block++ = offset % line == line - 1 ? '\n' : 'x';
        return taken;
    }
    static int seek(void *self_, off64_t *place, int whence) {
        off64_t &offset = static_cast<damaged_file *>(self_)->offset;
        offset = *place + (whence == SEEK_CUR ? offset : whence == SEEK_END ? size : 0);
        *place = offset;
        return 0;
    }
};

TEST(Frgets, EndsWhereTheFileCannotBeRead) {
    damaged_file damaged;
    const unique_file file(
        fopencookie(&damaged, "r", {damaged_file::read, nullptr, damaged_file::seek, nullptr}));
    std::int64_t cursor = seek_to_end(file.get());
    std::vector<char> buffer(2 * damaged_file::line);
    for (int i = 0; i < 2; i++) {
        const char *line =
            frgets(buffer.data(), static_cast<int>(buffer.size()), file.get(), &cursor);
        ASSERT_NE(line, nullptr) << i;
        EXPECT_EQ(std::strlen(line), damaged_file::line);
    }
    EXPECT_EQ(frgets(buffer.data(), static_cast<int>(buffer.size()), file.get(), &cursor), nullptr);
    EXPECT_NE(std::ferror(file.get()), 0);
}

TEST(Frgets, RefusesMissingArguments) {
    const unique_file file = stream_of("line\n");
    std::int64_t cursor = seek_to_end(file.get());
    char buffer[2] = {'x', 'y'};
    EXPECT_EQ(frgets(nullptr, 80, file.get(), &cursor), nullptr);
    EXPECT_EQ(frgets(buffer, 80, nullptr, &cursor), nullptr);
    EXPECT_EQ(frgets(buffer, 80, file.get(), nullptr), nullptr);
    for (const int size : {1, 0, -1, -2147483647 - 1})
        EXPECT_EQ(frgets(buffer, size, file.get(), &cursor), nullptr) << size;
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(cursor, 5);
    EXPECT_EQ(ftello(file.get()), 5);
}

/* Both readers over streams made alike, from the offset `start` with the cursor `cursor`. */
template <typename MakeStream>
void expect_plain_backwards(MakeStream make, int size, std::int64_t start, std::int64_t cursor,
                            const std::string &about, std::size_t limit = 2000) {
    const unique_file file = make();
    const unique_file same = make();
    fseeko(file.get(), start, SEEK_SET);
    fseeko(same.get(), start, SEEK_SET);
    const auto calls = backward_lines_of(frgets, file.get(), size, cursor, limit);
    const auto plain = backward_lines_of(plain_frgets, same.get(), size, cursor, limit);
    const auto [one, other] = std::mismatch(calls.begin(), calls.end(), plain.begin(), plain.end());
    if (one == calls.end() && other == plain.end())
        return;
    ADD_FAILURE() << about << ", size " << size << ", start " << start << ", cursor " << cursor
                  << ": call " << one - calls.begin() << " of " << calls.size() << " and "
                  << plain.size() << "\n"
                  << (one == calls.end() ? "none" : testing::PrintToString(*one)) << "\n"
                  << (other == plain.end() ? "none" : testing::PrintToString(*other));
}

void expect_plain_backwards(const std::string &content, int size, std::int64_t beyond = 0) {
    const auto end = static_cast<std::int64_t>(content.size()) + beyond;
    expect_plain_backwards([&] { return stream_of(content); }, size, end, end,
                           testing::PrintToString(content.substr(0, 100)));
}

TEST(Frgets, DoesWhatItsDescriptionSaysForEveryShortFile) {
    const char alphabet[] = {'a', '\n', '\0'};
    for (int length = 0; length <= 6; length++) {
        int files = 1;
        for (int i = 0; i < length; i++)
            files *= 3;
        for (int file = 0; file < files; file++) {
            std::string content;
            for (int i = 0, rest = file; i < length; i++, rest /= 3)
                content += alphabet[rest % 3];
            for (const int size : {2, 3, 4, 80})
                expect_plain_backwards(content, size);
        }
    }
}

/* Lines around the sizes of the blocks in which files are read. */
TEST(Frgets, DoesWhatItsDescriptionSaysAcrossBlocks) {
    std::vector<std::string> contents;
    for (const std::size_t length :
         {255u, 256u, 257u, 511u, 512u, 513u, 4094u, 4095u, 4096u, 4097u, 8191u, 8192u, 12'289u}) {
        contents.push_back(letters(length) + "\n");
        contents.push_back("\n" + letters(length) + "\nend\n");
        contents.push_back("begin\n" + letters(length) + "\n\n" + letters(length));
        contents.push_back(std::string(length, '\n') + "x\n");
        contents.push_back(letters(length) + std::string("\0\n\0x\n", 5) + letters(30) + "\n");
    }
    contents.push_back(repeated("a line of text\n", 1000));
    contents.push_back(repeated("x\n", 5000));
    contents.push_back(repeated(letters(97) + "\n\n", 300));
    for (const std::string &content : contents)
        for (const int size : {80, 20'000})
            expect_plain_backwards(content, size);
    expect_plain_backwards("begin\n" + letters(100'000) + "\nend\n", 200'000);
}

TEST(Frgets, ComesBackFromBeyondTheEnd) {
    for (const std::int64_t beyond : {1, 2, 5000})
        for (const std::string content : {"", "\n", "a", "ab\ncd\n", "ab\ncd", "\n\n"})
            expect_plain_backwards(content, 80, beyond);
    const unique_file file = stream_of("ab\n");
    std::int64_t cursor = std::int64_t{1} << 60; // a step per byte would take years
    ASSERT_EQ(fseeko(file.get(), cursor, SEEK_SET), 0);
    char buffer[80];
    EXPECT_STREQ(frgets(buffer, sizeof buffer, file.get(), &cursor), "ab\n");
    EXPECT_EQ(cursor, -3);
    cursor = INT64_MAX; // the stream stands at 0: a line forwards first, then from the end
    EXPECT_STREQ(frgets(buffer, sizeof buffer, file.get(), &cursor), "ab\n");
    EXPECT_STREQ(frgets(buffer, sizeof buffer, file.get(), &cursor), "ab\n");
    EXPECT_EQ(cursor, -3);
}

TEST(Frgets, DoesWhatItsDescriptionSaysWithAnyCursor) {
    const std::string contents[] = {
        "", "\n", "a", "ab\ncd\n", "ab\ncd", "\n\nx\n\n", letters(600) + "\n" + letters(600)};
    const std::int64_t cursors[] = {-1000, -6, -5, -4, -3, -2,  -1,  0,   1,    2,
                                    3,     4,  5,  6,  7,  600, 601, 700, 5000, INT64_MIN};
    for (const std::string &content : contents)
        for (const std::int64_t cursor : cursors)
            for (const std::int64_t start : {0, 1, 2, 3, 5, 6, 601, 1201})
                for (const int size : {2, 80})
                    expect_plain_backwards([&] { return stream_of(content); }, size, start, cursor,
                                           testing::PrintToString(content.substr(0, 20)), 40);
}

TEST(Frgets, ReadsWhatItCanFromAPipe) {
    for (const std::string content : {"", "\n", "a", "ab\ncd\n", "\n\nab\ncd", "ab\n\n"})
        for (const std::int64_t cursor : {-5, -4, -3, -2, -1, 0, 1, 100})
            expect_plain_backwards([&] { return pipe_of(content); }, 80, 0, cursor, content, 20);
}

/* Streams differ in how they hold the text that they have read. */
TEST(Frgets, ReadsAnyKindOfStream) {
    const std::string content = "\nfirst\n" + repeated(letters(70) + "\n\n", 150) + "last";
    const auto end = static_cast<std::int64_t>(content.size());
    const auto buffered = [&](int mode, std::size_t size) {
        return [&content, mode, size] {
            unique_file file = stream_of(content);
            std::setvbuf(file.get(), nullptr, mode, size);
            return file;
        };
    };
    for (const int size : {2, 10, 80, 1000}) {
        expect_plain_backwards(buffered(_IONBF, 0), size, end, end, "unbuffered", 20'000);
        for (const std::size_t buffer : {16u, 100u, 4096u, 65'536u})
            expect_plain_backwards(buffered(_IOFBF, buffer), size, end, end, "buffered", 20'000);
        const auto in_memory = [&] {
            return unique_file(fmemopen(const_cast<char *>(content.data()), content.size(), "r"));
        };
        expect_plain_backwards(in_memory, size, end, end, "in memory", 20'000);
        const auto just_written = [&] {
            unique_file file = stream_of("");
            std::fputs(content.c_str() + 1, file.get());
            std::rewind(file.get());
            std::fputs("\n", file.get());
            std::fputs(content.c_str() + 1, file.get());
            return file;
        };
        expect_plain_backwards(just_written, size, end, end, "just written", 20'000);
        const auto mapped = [&] {
            const temp_dir dir;
            keel_test::write_file(dir / "file", content);
            return opened(dir / "file", "rm");
        };
        expect_plain_backwards(mapped, size, end, end, "mapped", 20'000);
    }
}

/* What `reader` gives where its caller pushes `pushed` back before each call, and then tells it
 * the stream's new position or leaves the cursor alone. */
std::vector<line_call> with_text_pushed_back(keel_test::backward_reader reader, char pushed,
                                             bool tells) {
    const unique_file file = stream_of("one\ntwo\nthree\nfour\n");
    std::int64_t cursor = seek_to_end(file.get());
    std::vector<line_call> all;
    for (int i = 0; i < 10; i++) {
        char buffer[80] = "";
        std::ungetc(pushed, file.get());
        if (tells)
            cursor = ftello(file.get());
        const bool returned = reader(buffer, sizeof buffer, file.get(), &cursor) != nullptr;
        all.push_back({returned, buffer, cursor, 0, ftello(file.get())});
    }
    return all;
}

TEST(Frgets, HoldsTextPushedBackForText) {
    for (const char pushed : {'!', '\n', 'r'})
        for (const bool tells : {false, true})
            EXPECT_EQ(with_text_pushed_back(frgets, pushed, tells),
                      with_text_pushed_back(plain_frgets, pushed, tells))
                << pushed << tells;
}

/* As above, from a stream that stands inside of lines pushed back. */
std::vector<line_call> from_lines_pushed_back(keel_test::backward_reader reader) {
    const unique_file file = stream_of("one\ntwo\nthree\nfour\n");
    fseeko(file.get(), 14, SEEK_SET);
    for (const char c : {'!', '\n', 'b', 'a', '\n', 'z'})
        std::ungetc(c, file.get());
    for (int i = 0; i < 3; i++)
        std::fgetc(file.get());
    return backward_lines_of(reader, file.get(), 80, ftello(file.get()), 20);
}

TEST(Frgets, TakesNoLineOutOfTextPushedBack) {
    EXPECT_EQ(from_lines_pushed_back(frgets), from_lines_pushed_back(plain_frgets));
}

/* What `reader` gives while the file grows before each call. */
std::vector<line_call> from_growing_file(keel_test::backward_reader reader,
                                         const std::string &content, const std::string &added) {
    const temp_dir dir;
    keel_test::write_file(dir / "log", content);
    const unique_file file = opened(dir / "log");
    std::int64_t cursor = seek_to_end(file.get());
    std::vector<line_call> all;
    for (int i = 0; i < 12; i++) {
        std::ofstream(dir / "log", std::ios::app) << added;
        char buffer[80] = "";
        const bool returned = reader(buffer, sizeof buffer, file.get(), &cursor) != nullptr;
        all.push_back({returned, buffer, cursor, 0, ftello(file.get())});
    }
    return all;
}

TEST(Frgets, KeepsItsPlaceInAFileThatGrows) {
    for (const std::string content : {"", "one\ntwo\nthree\n", "one\ntwo", "\n", "x"})
        for (const std::string added : {"more\n", "more", "\n"})
            EXPECT_EQ(from_growing_file(frgets, content, added),
                      from_growing_file(plain_frgets, content, added))
                << content << "+" << added;
}

/* Reading backwards to the end costs so much. */
reading_work work_backwards(const std::string &content, int size, std::size_t calls) {
    const unique_file file = stream_of(content);
    std::int64_t cursor = seek_to_end(file.get());
    std::string buffer(static_cast<std::size_t>(size), ' ');
    std::size_t done = 0;
    const reading_work before = reading_work::now();
    while (frgets(buffer.data(), size, file.get(), &cursor) != nullptr)
        done++;
    EXPECT_EQ(done, calls);
    return reading_work::now().since(before);
}

/* Twice the file is twice the work, and the work is a few times the file. */
TEST(Frgets, StaysLinear) {
    struct row {
        const char *name;
        std::string (*content)(int);
        int size;
        std::size_t (*calls)(std::size_t);
    };
    const row rows[] = {
        {"short lines", [](int n) { return repeated("a line\n", 40'000 * n); }, 80,
         [](std::size_t n) { return 40'000 * n; }},
        {"lines of two characters", [](int n) { return repeated("x\n", 100'000 * n); }, 80,
         [](std::size_t n) { return 100'000 * n; }},
        {"empty lines", [](int n) { return repeated("\n", 200'000 * n); }, 80,
         [](std::size_t n) { return 200'000 * n; }},
        {"lines of 300", [](int n) { return repeated(letters(299) + "\n", 2000 * n); }, 400,
         [](std::size_t n) { return 2000 * n; }},
        {"lines of 100 KB", [](int n) { return repeated(letters(99'999) + "\n", 10 * n); }, 200'000,
         [](std::size_t n) { return 10 * n; }},
        {"one long line", [](int n) { return letters(1'000'000u * static_cast<unsigned>(n)); },
         3'000'000, [](std::size_t) { return std::size_t{1}; }},
        {"one long line in pieces",
         [](int n) { return letters(1'000'000u * static_cast<unsigned>(n)); }, 101,
         [](std::size_t n) { return 10'000 * n; }},
        {"short lines before a long one",
         [](int n) { return repeated("ab\n", 20'000 * n) + letters(500'000); }, 600'000,
         [](std::size_t n) { return 20'000 * n + 1; }},
        {"short lines after a long one",
         [](int n) { return letters(500'000) + repeated("\nab", 20'000 * n); }, 600'000,
         [](std::size_t n) { return 20'000 * n + 1; }},
    };
    for (const row &row : rows) {
        const std::string once = row.content(1);
        const std::string twice = row.content(2);
        const reading_work one = work_backwards(once, row.size, row.calls(1));
        const reading_work two = work_backwards(twice, row.size, row.calls(2));
        const auto size = static_cast<std::int64_t>(once.size());
        EXPECT_LE(two.bytes, 2 * one.bytes + one.bytes / 10 + 20'000) << row.name;
        EXPECT_LE(two.calls, 2 * one.calls + one.calls / 10 + 20) << row.name;
        EXPECT_LE(one.bytes, 6 * size + 100'000) << row.name;
        EXPECT_LE(one.calls, size / 500 + 100) << row.name;
    }
}

/* ---- Flags ---------------------------------------------------------------------------------- */

TEST(Flags, StatusFlagsAreAddedAndRemoved) {
    const temp_dir dir;
    const unique_file file = opened(dir / "file", "w");
    const int descriptor = fileno(file.get());
    const int before = fcntl(descriptor, F_GETFL);
    EXPECT_EQ(set_fl(descriptor, O_APPEND), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFL), before | O_APPEND);
    EXPECT_EQ(set_fl(descriptor, O_NONBLOCK), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFL), before | O_APPEND | O_NONBLOCK);
    EXPECT_EQ(set_fl(descriptor, O_NONBLOCK), 0);
    EXPECT_EQ(clr_fl(descriptor, O_APPEND), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFL), before | O_NONBLOCK);
    EXPECT_EQ(clr_fl(descriptor, O_APPEND | O_NONBLOCK), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFL), before);
    EXPECT_EQ(set_fl(descriptor, 0), 0);
    EXPECT_EQ(clr_fl(descriptor, 0), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFL), before);
}

TEST(Flags, DescriptorFlagsAreAddedAndRemoved) {
    const temp_dir dir;
    const unique_file file = opened(dir / "file", "w");
    const int descriptor = fileno(file.get());
    const int status = fcntl(descriptor, F_GETFL);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), 0);
    EXPECT_EQ(set_fd(descriptor, FD_CLOEXEC), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(clr_fd(descriptor, 0), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(clr_fd(descriptor, FD_CLOEXEC), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFL), status);
}

TEST(Flags, FailOnABadDescriptor) {
    for (const int descriptor : {-1, -2147483647 - 1, 1'000'000'000}) {
        for (const auto change : {set_fl, clr_fl, set_fd, clr_fd}) {
            errno = 0;
            EXPECT_EQ(change(descriptor, 1), -1);
            EXPECT_EQ(errno, EBADF);
        }
    }
}

/* Flags that can be read and not written: O_NOATIME is for the file's owner alone. */
TEST(Flags, FailWhereTheyCannotBeWritten) {
    const temp_dir dir;
    const unique_file file = opened(dir / "file", "w");
    const auto ending = run_in_child([&] {
        if (setuid(65534) != 0)
            _exit(2);
        const int before = fcntl(fileno(file.get()), F_GETFL);
        errno = 0;
        const int result = set_fl(fileno(file.get()), O_NOATIME);
        const bool kept = fcntl(fileno(file.get()), F_GETFL) == before;
        _exit(result == -1 && errno == EPERM && kept ? 0 : 1);
    });
    EXPECT_EQ(ending, exited(0));
}

} // namespace

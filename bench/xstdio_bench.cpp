/* SPDX-License-Identifier: MIT */
/* Streams: hex dumps, lines of any length, lines backwards. */
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>
#include <xstdio.h>

#include "command.h"
#include "files.h"
#include "table.h"

using bench::always;
using bench::job;
using bench::require;

namespace {

struct closer {
    void operator()(FILE *file) const { std::fclose(file); }
};

using stream = std::unique_ptr<FILE, closer>;

stream open_stream(const std::string &path, const char *mode = "r") {
    stream file(std::fopen(path.c_str(), mode));
    if (file == nullptr)
        bench::fail("cannot open " + path);
    return file;
}

/* A file in memory, its text and the number of its lines. */
struct sample {
    sample(const bench::scratch_dir &directory, const char *name, std::string content)
        : path(directory / name), text(std::move(content)) {
        for (const char c : text)
            lines += c == '\n';
        bench::write_file(path, text);
    }

    std::string path;
    std::string text;
    double lines = 0;
};

/* ---- Hex dumps ------------------------------------------------------------------------------ */

std::string all_bytes(std::size_t size) {
    std::mt19937 random(1);
    std::string bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

void keel_hexdump(const std::string &data) {
    const stream null = open_stream("/dev/null", "w");
    require(hexdump(null.get(), data.data(), data.size()) == static_cast<int>(data.size()),
            "hexdump failed");
}

/* The text is there already: what handing it over costs. */
std::function<job()> copy_of_dump(const std::string &data) {
    return [&data] {
        char *text = nullptr;
        std::size_t size = 0;
        {
            const stream memory(open_memstream(&text, &size));
            hexdump(memory.get(), data.data(), data.size());
        }
        const std::shared_ptr<char> owned(text, std::free);
        return job{.run = [owned, size] {
            const stream null = open_stream("/dev/null", "w");
            char rows[16 * 1024];
            for (std::size_t i = 0; i + sizeof rows <= size; i += sizeof rows) {
                std::memcpy(rows, owned.get() + i, sizeof rows);
                std::fwrite(rows, 1, sizeof rows, null.get());
            }
        }};
    };
}

bench::table dumping(const sample &data, const sample &nothing) {
    return {.title = "hexdump, 16 MiB to /dev/null",
            .item = "dump",
            .floor = "five characters of text for each byte",
            .contenders = {{"keel hexdump", always([&] { keel_hexdump(data.text); })},
                           {"xxd, the tool", always([&] {
                                bench::run_command({"xxd", data.path});
                            }),
                            0.25},
                           {"xxd of an empty file", always([&] {
                                bench::run_command({"xxd", nothing.path});
                            })},
                           {"the finished text copied and written", copy_of_dump(data.text)}}};
}

/* ---- Lines forwards ------------------------------------------------------------------------- */

void keel_lines(const sample &file) {
    const stream in = open_stream(file.path);
    char *line = nullptr;
    int capacity = 0;
    int length = 0;
    std::size_t total = 0;
    while (_fgets(&line, &capacity, in.get(), &length) != nullptr)
        total += static_cast<std::size_t>(length);
    require(total == file.text.size(), "_fgets lost characters");
}

void libc_lines(const sample &file) {
    const stream in = open_stream(file.path);
    char *line = nullptr;
    std::size_t capacity = 0;
    std::size_t total = 0;
    for (ssize_t length = 0; (length = getline(&line, &capacity, in.get())) != -1;)
        total += static_cast<std::size_t>(length);
    std::free(line);
    require(total == file.text.size(), "getline lost characters");
}

void plain_reads(const sample &file) {
    const stream in = open_stream(file.path);
    std::vector<char> block(64 * 1024);
    std::size_t total = 0;
    while (const std::size_t length = std::fread(block.data(), 1, block.size(), in.get()))
        total += length;
    require(total == file.text.size(), "fread lost characters");
}

bench::table reading(const char *title, const sample &file) {
    return {.title = title,
            .item = "line",
            .items = file.lines,
            .floor = "each line is copied once and the buffer zeroed behind it",
            .contenders = {{"keel _fgets", always([&] { keel_lines(file); })},
                           {"getline", always([&] { libc_lines(file); }), 1.5},
                           {"blocks of 64 KB", always([&] { plain_reads(file); })}}};
}

/* Lengths from 1 to 100 KB, each magnitude as often as the next. */
std::string mixed_lines(std::size_t size) {
    std::mt19937 random(1);
    std::uniform_real_distribution<double> magnitude(0, 5);
    std::string text;
    while (text.size() < size) {
        text.append(static_cast<std::size_t>(std::pow(10, magnitude(random))), 'x');
        text += '\n';
    }
    return text;
}

/* ---- Lines backwards ------------------------------------------------------------------------ */

constexpr int longest_line = 16 * 1024;

void keel_lines_backwards(const sample &file, FILE *out) {
    const stream in = open_stream(file.path);
    static char line[longest_line];
    std::int64_t cursor = fsize(in.get());
    std::fseek(in.get(), cursor, SEEK_SET);
    double lines = 0;
    while (frgets(line, sizeof line, in.get(), &cursor) != nullptr) {
        lines++;
        if (out != nullptr)
            std::fputs(line, out);
    }
    require(lines == file.lines, "frgets lost lines");
}

bench::table backwards(const char *title, const sample &file, double bar = 0) {
    return {.title = title,
            .item = "line",
            .items = file.lines,
            .floor = "the stream and the cursor stand where they are documented to after each line",
            .contenders = {{"keel frgets", always([&] { keel_lines_backwards(file, nullptr); })},
                           {"tac, the tool, to /dev/null", always([&] {
                                bench::run_command({"tac", file.path});
                            }),
                            bar},
                           {"keel frgets, its lines put to /dev/null", always([&] {
                                const stream null = open_stream("/dev/null", "w");
                                keel_lines_backwards(file, null.get());
                            })}}};
}

bench::table backwards_growth(const char *title, const sample &small, const sample &large) {
    return {.title = title,
            .item = "line",
            .items = large.lines,
            .contenders = {{"keel frgets, a file of 10 MB",
                            always([&] { keel_lines_backwards(large, nullptr); })},
                           {"keel frgets, ten times a file of 1 MB", always([&] {
                                for (int i = 0; i < 10; i++)
                                    keel_lines_backwards(small, nullptr);
                            }),
                            1.5}}};
}

} // namespace

int main(int argc, char *argv[]) {
    using bench::lines_of;
    const bench::scratch_dir directory(bench::memory_dir());
    constexpr std::size_t megabyte = 1'000'000;
    const sample nothing(directory, "nothing", "");
    const sample bytes(directory, "bytes", all_bytes(16 << 20));
    const sample short_lines(directory, "short", lines_of(80, 64 * megabyte));
    const sample mixed(directory, "mixed", mixed_lines(16 * megabyte));
    const sample long_lines(directory, "long", lines_of(10'000, 64 * megabyte));
    const sample short_1(directory, "short-1", lines_of(80, megabyte));
    const sample short_10(directory, "short-10", lines_of(80, 10 * megabyte));
    const sample long_1(directory, "long-1", lines_of(10'000, megabyte));
    const sample long_10(directory, "long-10", lines_of(10'000, 10 * megabyte));
    return bench::measure(
        argc, argv,
        {dumping(bytes, nothing), reading("Lines of 80 characters", short_10),
         reading("Lines of mixed lengths up to 100 KB", mixed),
         backwards("Lines backwards, 80 characters, 64 MB", short_lines, 1.0),
         backwards("Lines backwards, 10,000 characters, 64 MB", long_lines),
         backwards_growth("Lines backwards, 80 characters, growth", short_1, short_10),
         backwards_growth("Lines backwards, 10,000 characters, growth", long_1, long_10)});
}

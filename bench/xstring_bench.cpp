/* SPDX-License-Identifier: MIT */
/* Long strings: collapsing whitespace and splitting. */
#include <algorithm>
#include <cctype>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>
#include <xstring.h>

#include "table.h"

using bench::job;
using bench::require;

namespace {

/* Words of 1 to `longest` letters, after each one of `between` as many times as `runs` allows. */
std::string words(std::size_t size, unsigned longest, const std::string &between, unsigned runs) {
    std::mt19937 random(1);
    std::string text;
    while (text.size() < size) {
        text.append(1 + random() % longest, static_cast<char>('a' + random() % 26));
        for (unsigned i = 1 + static_cast<unsigned>(random() % runs); i > 0; i--)
            text += between[random() % between.size()];
    }
    text.resize(size);
    return text;
}

/* A job on a string that it changes: it starts from the same text each time. */
std::function<job()> on_copy_of(const std::string &text, std::function<void(std::string &)> work) {
    return [&text, work = std::move(work)] {
        const auto copy = std::make_shared<std::string>();
        return job{.run = [copy, work] { work(*copy); },
                   .prepare = [copy, &text] { *copy = text; }};
    };
}

void keel_trim(std::string &text) {
    strtrim2(text.data());
}

void std_unique(std::string &text) {
    const auto space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    text.erase(std::unique(text.begin(), text.end(),
                           [=](char left, char right) { return space(left) && space(right); }),
               text.end());
}

std::function<void(std::string &)> copied() {
    return [to = std::make_shared<std::string>()](std::string &text) { *to = text; };
}

/* The same bytes as short lines: were the cost not linear, these would be far cheaper. */
void keel_trim_pieces(std::string &text) {
    const std::size_t piece = text.size() / 16;
    for (std::size_t begin = 0; begin < text.size(); begin += piece) {
        text[begin + piece - 1] = '\0';
        strtrim2(text.data() + begin);
    }
}

bench::table trimming(const std::string &line) {
    return {.title = "strtrim2, a line of 1 MiB",
            .item = "line",
            .floor = "each byte is looked up in the locale's table and stored once",
            .contenders = {
                {"keel strtrim2", on_copy_of(line, keel_trim)},
                {"std::unique with isspace", on_copy_of(line, std_unique), 0.3},
                {"keel strtrim2, 16 lines of 64 KiB", on_copy_of(line, keel_trim_pieces), 1.2},
                {"memcpy of the line", on_copy_of(line, copied())}}};
}

struct fields {
    std::vector<char *> found = std::vector<char *>(1 << 20);
    std::size_t count = 0;
};

std::function<void(std::string &)> keel_split(const char *delimiters, std::size_t expected) {
    return [=, to = std::make_shared<fields>()](std::string &text) {
        const int count = str_split(text.data(), delimiters, to->found.data(), to->found.size());
        require(count == static_cast<int>(expected), "str_split lost a field");
    };
}

std::function<void(std::string &)> libc_strsep(const char *delimiters, std::size_t expected) {
    return [=, to = std::make_shared<fields>()](std::string &text) {
        to->count = 0;
        for (char *rest = text.data(); char *field = strsep(&rest, delimiters);)
            if (*field != '\0')
                to->found[to->count++] = field;
        require(to->count == expected, "strsep lost a field");
    };
}

bench::table splitting(const char *title, const std::string &text, const char *delimiters) {
    std::string copy = text;
    const int count = str_split(copy.data(), delimiters, nullptr, 0);
    const auto expected = static_cast<std::size_t>(count);
    return {.title = title,
            .item = "field",
            .items = static_cast<double>(count),
            .floor =
                "the processor cannot foresee in which block a long field ends; strsep searches "
                "with vectors of 32 characters, the x86-64 baseline has 16",
            .contenders = {{"keel str_split", on_copy_of(text, keel_split(delimiters, expected))},
                           {"strsep", on_copy_of(text, libc_strsep(delimiters, expected)), 0.5},
                           {"memcpy of the text", on_copy_of(text, copied())}}};
}

} // namespace

int main(int argc, char *argv[]) {
    constexpr std::size_t size = 1 << 20;
    const std::string line = words(size, 12, " \t", 4);
    const std::string csv = words(size, 15, ",", 1);
    const std::string mixed = words(size, 15, " ,;\t", 2);
    const std::string wide = words(size, 400, ",", 1);
    return bench::measure(
        argc, argv,
        {trimming(line), splitting("str_split, 1 MiB, fields up to 15, one delimiter", csv, ","),
         splitting("str_split, 1 MiB, fields up to 15, four delimiters", mixed, " ,;\t"),
         splitting("str_split, 1 MiB, fields up to 400, one delimiter", wide, ",")});
}

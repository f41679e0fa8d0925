/* SPDX-License-Identifier: MIT */

/* Input: the buffer's size, the stream's kind, where it stands, the cursor, then the file. */
#include "xstdio.h"

#include "fuzz_input.h"
#include "plain_lines.h"

namespace {

struct reading {
    int size;
    unsigned kind;
    std::int64_t offset;
    std::int64_t cursor;
    std::string content;
};

FILE *stream_for(const reading &with) {
    FILE *file = keel_test::file_of(with.content);
    if (with.kind == 1)
        std::setvbuf(file, nullptr, _IONBF, 0);
    else if (with.kind == 2)
        std::setvbuf(file, nullptr, _IOFBF, 64);
    fseeko(file, with.offset, SEEK_SET);
    if (with.kind == 3)
        std::ungetc('!', file);
    return file;
}

std::vector<keel_test::line_call> lines_of(keel_test::backward_reader reader, const reading &with) {
    FILE *file = stream_for(with);
    auto calls = keel_test::backward_lines_of(reader, file, with.size, with.cursor, 300);
    std::fclose(file);
    return calls;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    keel_fuzz::fuzz_input input(data, size);
    const unsigned width = input.byte();
    reading with{static_cast<int>(width < 128 ? width + 2 : 100 * width), input.byte(), 0, 0, ""};
    const unsigned place = input.byte();
    const unsigned mark = input.byte();
    with.content = input.content(10'000);
    /* Mostly as callers have it, at the end; a few bytes beyond it; or anywhere. */
    const auto end = static_cast<std::int64_t>(with.content.size());
    with.offset = place < 192 ? end : place < 200 ? end + place - 192 : (place - 200) % (end + 1);
    const std::int64_t pushed_back = with.kind == 3 ? 1 : 0;
    with.cursor = mark < 192   ? with.offset - pushed_back
                  : mark < 200 ? 191 - std::int64_t{mark}
                               : mark - 200;
    keel_fuzz::require(lines_of(frgets, with) == lines_of(keel_test::plain_frgets, with),
                       "lines backwards");
    return 0;
}

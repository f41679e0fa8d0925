/* SPDX-License-Identifier: MIT */

/* Input: how the buffer begins and what its caller does to it, then the file. */
#include "xstdio.h"

#include <cstring>

#include "fuzz_input.h"
#include "plain_lines.h"

using keel_test::line_call;

namespace {

/* Capacities at which a reader ends the process are for the unit tests. */
int first_capacity(unsigned choice) {
    constexpr int capacities[] = {0, 1, 2, 79, 80, 81, 160, 4000, -1, -40, -78};
    return choice < std::size(capacities) ? capacities[choice] : static_cast<int>(2 * choice);
}

std::vector<line_call> lines_of(keel_test::line_reader reader, const std::string &content,
                                int capacity, bool spoil) {
    FILE *file = keel_test::file_of(content);
    /* A large buffer's far end is the library's: it may count on it. */
    const auto between = [spoil](char *buffer, int size) {
        if (spoil && buffer != nullptr && size <= 4096)
            std::memset(buffer, '\n', static_cast<std::size_t>(size));
    };
    auto calls = keel_test::lines_of(reader, file, capacity, between);
    std::fclose(file);
    return calls;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    keel_fuzz::fuzz_input input(data, size);
    const int capacity = first_capacity(input.byte());
    const bool spoil = (input.byte() & 1) != 0;
    const std::string content = input.content(30'000);
    keel_fuzz::require(lines_of(_fgets, content, capacity, spoil) ==
                           lines_of(keel_test::plain_fgets, content, capacity, spoil),
                       "lines");
    return 0;
}

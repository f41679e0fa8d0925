/* SPDX-License-Identifier: MIT */

/* Input: two separators, two sizes, then three texts with a NUL byte behind each. */
#include "xstring.h"

#include <cstring>
#include <memory>

#include "fuzz_input.h"
#include "plain_strings.h"

using keel_fuzz::require;
using keel_test::plain_formatted;

namespace {

/* A writable copy in a block of just its size. */
std::unique_ptr<char[]> writable(const std::string &text) {
    auto copy = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

void check_trimming(const std::string &text, int separator) {
    const auto one = writable(text);
    require(strtrim1(one.get()) == one.get() && one.get() == keel_test::plain_trim1(text),
            "strtrim1");
    const auto two = writable(text);
    require(strtrim2(two.get()) == two.get() && two.get() == keel_test::plain_trim2(text),
            "strtrim2");
    const auto three = writable(text);
    require(strtrim3(three.get()) == three.get() && three.get() == keel_test::plain_trim3(text),
            "strtrim3");
    const auto four = writable(text);
    const auto expected = keel_test::plain_trim4(text, separator);
    require((strtrim4(four.get(), separator) == four.get()) == expected.has_value() &&
                four.get() == expected.value_or(text),
            "strtrim4");
}

void check_splitting(const std::string &text, const std::string &delimiters, std::size_t capacity) {
    std::string ours = text;
    std::string plain = text;
    std::vector<char *> fields(capacity);
    const int count = str_split(ours.data(), delimiters.c_str(), fields.data(), capacity);
    const auto expected = keel_test::plain_split(plain.data(), delimiters.c_str());
    require(count == static_cast<int>(expected.size()) && ours == plain, "str_split");
    for (std::size_t i = 0; i < std::min(capacity, expected.size()); i++)
        require(fields[i] - ours.data() == expected[i] - plain.data(), "a field of str_split");
}

void check_value(const std::string &list, const std::string &key, char entry_separator,
                 int separator, std::size_t size) {
    const auto expected = keel_test::plain_value(list, key, entry_separator, separator);
    char *made = strdup_extract1(list.c_str(), key.c_str(), entry_separator, separator);
    require(expected ? made != nullptr && made == *expected : made == nullptr, "strdup_extract1");
    std::free(made);

    const auto buffer = std::make_unique<char[]>(size);
    char *found =
        varbind_find(list.c_str(), key.c_str(), entry_separator, separator, buffer.get(), size);
    if (expected && size > 1)
        require(found == buffer.get() && found == plain_formatted(*expected, size), "varbind_find");
    else
        require(expected ? found != nullptr && found == *expected : found == nullptr,
                "varbind_find without a buffer");
    if (found != buffer.get())
        std::free(found);
}

void check_joining(const std::string &one, const std::string &other, std::size_t limit) {
    char *joined = strdup_ncat(limit, one.c_str(), other.c_str(), nullptr);
    require(joined == (one + other).substr(0, limit), "strdup_ncat");
    std::free(joined);
    char *inserted = strdup_insert(one.c_str(), limit, other.c_str());
    require(limit <= one.size() ? inserted == std::string(one).insert(limit, other)
                                : inserted == nullptr,
            "strdup_insert");
    std::free(inserted);
    require(strrcmp(one.c_str(), other.c_str()) ==
                keel_test::plain_compare_from_end(one, other, SIZE_MAX),
            "strrcmp");
    require(strrncmp(one.c_str(), other.c_str(), limit) ==
                keel_test::plain_compare_from_end(one, other, limit == 0 ? 0 : limit - 1),
            "strrncmp");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    keel_fuzz::fuzz_input input(data, size);
    const char entry_separator = static_cast<char>(input.byte());
    const int separator = static_cast<int>(input.byte());
    const std::size_t capacity = input.byte() % 16;
    const std::size_t room = input.byte();
    const std::string text = input.line();
    const std::string key = input.line();
    const std::string delimiters = input.line();
    check_trimming(text, separator);
    check_splitting(text, delimiters, capacity);
    check_value(text, key, entry_separator, separator, room);
    check_joining(text, delimiters, room);
    return 0;
}

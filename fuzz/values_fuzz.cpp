/* SPDX-License-Identifier: MIT */

/* Input: a format and the index of a field, then a key, separators, field separators and the new
 * text with a NUL byte behind each, then the file. */
#include "xconf.h"

#include <array>
#include <cstdio>

#include "fuzz_input.h"
#include "plain_conf.h"
#include "temp_dir.h"

using keel_fuzz::require;
using std::string;

namespace {

/* What a scan stores, preset. */
struct scanned {
    std::array<char, 16> text = {'~', '~', '~'};
    int number = -7;
    bool operator==(const scanned &) const = default;
};

void scan_plainly(const string &value, unsigned format, scanned &into) {
    if (format == 0)
        std::sscanf(value.c_str(), "%15s", into.text.data());
    else if (format == 1)
        std::sscanf(value.c_str(), "%d", &into.number);
    else
        std::sscanf(value.c_str(), " %7[^,],%d", into.text.data(), &into.number);
}

int look_up(const string &path, const string &key, const string &separators, unsigned format,
            scanned &into) {
    if (format == 0)
        return file_lookup_value(path.c_str(), key.c_str(), separators.c_str(), "%15s",
                                 into.text.data());
    if (format == 1)
        return file_lookup_value(path.c_str(), key.c_str(), separators.c_str(), "%d", &into.number);
    return file_lookup_value(path.c_str(), key.c_str(), separators.c_str(), " %7[^,],%d",
                             into.text.data(), &into.number);
}

void check_lookup(const string &path, const string &content, const string &key,
                  const string &separators, unsigned format) {
    scanned expected;
    if (const auto value = keel_test::plain_lookup_value(content, key, separators))
        scan_plainly(*value, format, expected);
    scanned found;
    require(look_up(path, key, separators, format, found) == 0, "result of a lookup");
    require(found == expected, "lookup");
}

void check_replacing(const string &path, const string &content, const string &key,
                     const string &separators, const string &text) {
    keel_test::write_file(path, content);
    require(file_replace_value(path.c_str(), key.c_str(), separators.c_str(), "%s", text.c_str()) ==
                0,
            "result of replacing");
    require(keel_test::content_of(path) ==
                keel_test::plain_replaced(content, key, separators, text),
            "replacing");
}

void check_replacing_a_field(const string &path, const string &content, const string &key,
                             const string &separators, const string &fields, int index,
                             const string &text) {
    keel_test::write_file(path, content);
    require(file_replace_value_value(path.c_str(), key.c_str(), separators.c_str(), fields.c_str(),
                                     index, "%s%c", text.c_str(), index) == 0,
            "result of replacing a field");
    require(keel_test::content_of(path) ==
                keel_test::plain_field_replaced(content, key, separators, fields, index,
                                                text + static_cast<char>(index)),
            "replacing a field");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const keel_test::temp_dir dir("/dev/shm");
    const string path = dir / "file";

    keel_fuzz::fuzz_input input(data, size);
    const unsigned format = input.byte() % 3;
    const int index = static_cast<int>(input.byte()) - 1;
    const string key = input.line();
    const string separators = input.line();
    const string fields = input.line();
    const string text = input.line();
    const string content = input.content(6'000);

    keel_test::write_file(path, content);
    check_lookup(path, content, key, separators, format);
    check_replacing(path, content, key, separators, text);
    check_replacing_a_field(path, content, key, separators, fields, index, text);
    return 0;
}

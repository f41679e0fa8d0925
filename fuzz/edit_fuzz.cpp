/* SPDX-License-Identifier: MIT */

/* Input: an operation, a separator, the size of a buffer and which items a block refuses, then a
 * key and a value with a NUL byte behind each, then the file. */
#include "xconf.h"

#include <cstring>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "plain_conf.h"
#include "temp_dir.h"

using keel_fuzz::require;
using std::string;

namespace {

void check_edit(const string &path, const string &content, int operation, const string &key,
                char separator, const string &value) {
    const bool bare = value.empty() && operation == keel_test::plain_edit::remove;
    const bool refused = key.empty() || (value.empty() && !bare);
    const int result =
        foperate(path.c_str(), operation, key.c_str(), separator, bare ? nullptr : value.c_str());
    require(result == (refused ? -1 : 0), "result of an edit");
    require(keel_test::content_of(path) ==
                (refused ? content
                         : keel_test::plain_edited(content, operation, key, separator, value)),
            "edit");
}

void check_lookup(const string &path, const string &content, const string &key, char separator,
                  std::size_t size) {
    const auto value =
        key.empty() || size == 0 ? std::nullopt : keel_test::plain_flookup(content, key, separator);
    string buffer(size + 1, '~');
    const char *found = flookup(path.c_str(), key.c_str(), separator, buffer.data(), size);
    string expected(size + 1, '~');
    if (value) {
        const string stored = value->substr(0, size - 1);
        expected = stored + string(size - stored.size(), '\0') + '~';
    }
    require(found == (value ? buffer.data() : nullptr), "lookup");
    require(buffer == expected, "buffer of a lookup");
}

using offered_items = std::vector<std::pair<string, int>>;

offered_items offered;

/* Refuses items of a length whose remainder by `size` is `count`. */
int take_item(char *line, void *, std::size_t size, std::size_t count, int index) {
    offered.emplace_back(line, index);
    const std::size_t length = std::strlen(line);
    std::memset(line, '}', length); // it may
    return length % size == count ? 1 : 0;
}

void check_block(const string &path, const string &content, const string &key,
                 std::size_t refused) {
    offered_items expected;
    keel_test::plain_block plain(key, [&](const string &line, int index) {
        expected.emplace_back(line, index);
        return line.size() % 4 != refused;
    });
    offered.clear();
    const int result = bulk_lookup(path.c_str(), key.c_str(), nullptr, 4, refused, take_item);
    require(result == (key.empty() ? -1 : plain.read(content)), "result of a block");
    require(offered == expected, "items");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const keel_test::temp_dir dir("/dev/shm");
    const string path = dir / "file";

    keel_fuzz::fuzz_input input(data, size);
    const int operation = 1 + static_cast<int>(input.byte() % 3);
    const char given = static_cast<char>(input.byte());
    const char separator = given == '\0' ? '=' : given;
    const std::size_t room = input.byte();
    const std::size_t refused = input.byte() % 5;
    const string key = input.line();
    const string value = input.line();
    const string content = input.content(6'000);

    keel_test::write_file(path, content);
    check_lookup(path, content, key, separator, room);
    check_block(path, content, key, refused);
    check_edit(path, content, operation, key, separator, value);
    return 0;
}

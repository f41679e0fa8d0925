/* SPDX-License-Identifier: MIT */

/* Input: whether to load twice, then the separators, a section and a key to look up with a NUL byte
 * behind each, then the file. */
#include "xini.h"

#include <cstring>

#include "fuzz_input.h"
#include "plain_ini.h"
#include "plain_lines.h"

using keel_fuzz::require;
using keel_test::plain_ini;

namespace {

/* What `write` says on the stream that it is given. */
template <class Write>
std::string text_of(Write write) {
    char *text = nullptr;
    std::size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    write(stream);
    std::fclose(stream);
    const std::string written(text, size);
    std::free(text);
    return written;
}

void load(ini_table &table, plain_ini &plain, const std::string &content,
          const std::string &separators) {
    FILE *file = keel_test::file_of(content);
    const bool usable = !separators.empty() && separators.find_first_of("[]{}#") == separators.npos;
    const std::string before = plain.warnings();
    int result = 1;
    const std::string warnings = text_of([&](FILE *stream) {
        FILE *const terminal = std::exchange(stderr, stream);
        result = ini_fload(&table, file, separators.c_str());
        stderr = terminal;
    });
    require(result == (usable ? 0 : -1), "result of ini_fload");
    if (usable)
        plain.load(content, separators);
    require(before + warnings == plain.warnings(), "warnings");
    require((std::fgetc(file) == EOF) == (usable || content.empty()), "what is left of the file");
    std::fclose(file);
}

void check_entries(const ini_table &table, const plain_ini &plain) {
    keel_test::ini_pairs entries;
    for (std::uint64_t i = 0; i < table.count; i++) {
        const ini_entry &entry = table.entries[i];
        require(i == 0 || std::strcmp(table.entries[i - 1].key, entry.key) <= 0, "order");
        entries.emplace_back(entry.key, entry.value);
    }
    std::sort(entries.begin(), entries.end());
    require(entries == plain.entries(), "entries");
}

void check_lookup(const ini_table &table, const plain_ini &plain, const std::string &section,
                  const std::string &key) {
    const char *found = ini_section_get(&table, section.c_str(), key.c_str());
    const auto values = section.empty() || key.empty() ? std::vector<std::string>()
                                                       : plain.values(section + "::" + key);
    require(found == nullptr ? values.empty()
                             : std::find(values.begin(), values.end(), found) != values.end(),
            "lookup");
    if (section == "DEFAULT")
        require(ini_get(&table, key.c_str()) == found, "lookup in the default section");
}

/* Also with the names divided elsewhere than where the file did. */
void check_lookups(const ini_table &table, const plain_ini &plain) {
    for (const auto &[full, value] : plain.entries()) {
        for (std::size_t at = full.find("::"); at != full.npos; at = full.find("::", at + 1))
            check_lookup(table, plain, full.substr(0, at), full.substr(at + 2));
        check_lookup(table, plain, full, value);
    }
}

void check_prints(const ini_table &table, const plain_ini &plain, const std::string &section) {
    std::string all;
    std::string first;
    const std::string prefix = (section + "::").substr(0, 2047);
    for (std::uint64_t i = 0; i < table.count; i++) {
        const std::string line =
            std::string(table.entries[i].key) + "=" + table.entries[i].value + "\n";
        all += line;
        if (first.empty() && line.compare(0, prefix.size(), prefix) == 0 &&
            std::strlen(table.entries[i].key) >= prefix.size())
            first = line;
    }
    int result = 0;
    require(text_of([&](FILE *stream) { result = ini_print(&table, stream); }) == all, "print");
    require(result == static_cast<int>(plain.entries().size()), "result of ini_print");
    const std::string missing = "Can't find section [" + section + "].\n";
    require(text_of([&](FILE *stream) {
                result = ini_section_print(&table, stream, section.c_str());
            }) == (first.empty() ? missing : first),
            "print of a section");
    require(result == (first.empty() ? 0 : 1), "result of ini_section_print");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    keel_fuzz::fuzz_input input(data, size);
    const bool twice = (input.byte() & 1) != 0;
    const std::string separators = input.line();
    const std::string section = input.line();
    const std::string key = input.line();
    const std::string content = input.content(20'000);

    ini_table table = {nullptr, 0};
    plain_ini plain;
    load(table, plain, content, separators);
    if (twice)
        load(table, plain, content, separators);
    check_entries(table, plain);
    check_lookup(table, plain, section, key);
    check_lookups(table, plain);
    check_prints(table, plain, section);
    require(ini_unload(&table) == 0 && table.entries == nullptr && table.count == 0, "unload");
    return 0;
}

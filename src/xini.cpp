/* SPDX-License-Identifier: MIT */
#include "xini.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "handles.h"
#include "xmemory.h"
#include "xstring.h"

namespace {

constexpr std::size_t line_size = 2048; /* of the line buffer and of a section's name */
constexpr char default_section[] = "DEFAULT";

int kv_compar(const ini_entry &left, const ini_entry &right) {
    return std::strcmp(left.key, right.key);
}

/* Compares an entry's key with "section::key" where it stands, without joining the two. */
int compare_key(const char *full, const char *section, std::size_t section_length,
                const char *key) {
    if (const int order = std::strncmp(full, section, section_length))
        return order;
    full += section_length;
    if (const int order = std::strncmp(full, "::", 2))
        return order;
    return std::strcmp(full + 2, key);
}

char *string_or_exit(char *made) {
    if (made == nullptr) {
        std::fputs("EMERG-Memory lack.\n", stderr);
        std::exit(1);
    }
    return made;
}

/* Whenever the count reaches a power of two, room is made for as many again: the table's record has
 * no field for a capacity, and growing by one for each entry would move a large table too often. */
void ini_add(ini_table &table, const char *section, const char *key, const char *value) {
    if (table.count == 0 || std::has_single_bit(table.count)) {
        const std::uint64_t capacity = std::max<std::uint64_t>(2 * table.count, 1);
        table.entries =
            static_cast<ini_entry *>(xrealloc(0, table.entries, capacity * sizeof *table.entries));
    }
    ini_entry &entry = table.entries[table.count];
    entry.key = string_or_exit(strdup_cat(section, "::", key, nullptr));
    entry.value = string_or_exit(strdup(value));
    table.count++;
}

void warn_invalid(const char *text) {
    std::fprintf(stderr, "WARNING-Invalid entry(%s), ignore.\n", text);
}

/* Reads a file's lines one by one into a table. */
class loader {
  public:
    loader(ini_table &table, const char *separators) : table_(table), separators_(separators) {}

    void take_line(char *line) {
        *strchrnul(line, '#') = '\0';
        strtrim2(line);
        const std::size_t length = std::strlen(line);
        if (length == 0)
            return;
        const char last = line[length - 1];
        if (*line == '[' && last == ']')
            take_header(line, length, false);
        else if (*line == '{' && last == '}')
            take_header(line, length, true);
        else
            take_entry(line);
    }

  private:
    /* An empty name keeps the section but not its mode, on purpose. */
    void take_header(char *line, std::size_t length, bool braces) {
        two_way_ = braces;
        line[length - 1] = '\0';
        const char *name = strtrim1(line + 1);
        if (*name == '\0')
            std::fputs("WARNING-Empty section, ignore.\n", stderr);
        else
            std::strcpy(section_, name); // as short as the line it came from
    }

    void take_entry(char *line) {
        char *separator = std::strpbrk(line, separators_);
        if (separator == nullptr)
            return warn_invalid(line);
        *separator = '\0';
        const char *key = strtrim1(line);
        const char *value = strtrim1(separator + 1);
        if (*key == '\0')
            return warn_invalid(key);
        ini_add(table_, section_, key, value);
        if (two_way_ && *value != '\0')
            ini_add(table_, section_, value, key);
    }

    ini_table &table_;
    const char *separators_;
    char section_[line_size] = "DEFAULT";
    bool two_way_ = false;
};

} // namespace

int ini_load(ini_table *table, const char *path, const char *separators) {
    const keel::unique_file file(path == nullptr ? nullptr : std::fopen(path, "re"));
    return file == nullptr ? -1 : ini_fload(table, file.get(), separators);
}

int ini_fload(ini_table *table, FILE *stream, const char *separators) {
    if (table == nullptr || stream == nullptr || separators == nullptr || *separators == '\0' ||
        std::strpbrk(separators, "[]{}#") != nullptr)
        return -1;
    loader entries(*table, separators);
    char line[line_size];
    while (std::fgets(line, sizeof line, stream) != nullptr)
        entries.take_line(line);
    std::stable_sort(
        table->entries, table->entries + table->count,
        [](const ini_entry &left, const ini_entry &right) { return kv_compar(left, right) < 0; });
    return 0;
}

int ini_unload(ini_table *table) {
    if (table == nullptr)
        return -1;
    for (std::uint64_t i = 0; i < table->count; i++) {
        xfree(0, table->entries[i].key);
        xfree(0, table->entries[i].value);
    }
    xfree(0, table->entries);
    *table = ini_table{nullptr, 0};
    return 0;
}

const char *ini_get(const ini_table *table, const char *key) {
    return ini_section_get(table, default_section, key);
}

const char *ini_section_get(const ini_table *table, const char *section, const char *key) {
    if (table == nullptr || table->count == 0 || section == nullptr || *section == '\0' ||
        key == nullptr || *key == '\0')
        return nullptr;
    const std::size_t section_length = std::strlen(section);
    const ini_entry *begin = table->entries;
    const ini_entry *end = begin + table->count;
    const ini_entry *found = std::partition_point(begin, end, [=](const ini_entry &entry) {
        return compare_key(entry.key, section, section_length, key) < 0;
    });
    if (found == end || compare_key(found->key, section, section_length, key) != 0)
        return nullptr;
    return found->value;
}

int ini_print(const ini_table *table, FILE *stream) {
    if (table == nullptr || stream == nullptr)
        return -1;
    for (std::uint64_t i = 0; i < table->count; i++)
        std::fprintf(stream, "%s=%s\n", table->entries[i].key, table->entries[i].value);
    return static_cast<int>(table->count);
}

int ini_section_print(const ini_table *table, FILE *stream, const char *section) {
    if (table == nullptr || stream == nullptr || section == nullptr)
        return -1;
    char prefix[line_size];
    std::snprintf(prefix, sizeof prefix, "%s::", section);
    const std::size_t length = std::strlen(prefix);
    for (std::uint64_t i = 0; i < table->count; i++) {
        const ini_entry &entry = table->entries[i];
        if (std::strncmp(entry.key, prefix, length) == 0) {
            std::fprintf(stream, "%s=%s\n", entry.key, entry.value);
            return 1; // the first one stands for the section
        }
    }
    std::fprintf(stream, "Can't find section [%s].\n", section);
    return 0;
}

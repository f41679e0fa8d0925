/* SPDX-License-Identifier: MIT */
#include "xini.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cancel_shield.h"
#include "ending.h"
#include "handles.h"
#include "xmemory.h"
#include "xstring.h"

namespace {

constexpr std::size_t line_size = 2048; /* of the line buffer and of a section's name */
constexpr char default_section[] = "DEFAULT";

int kv_compar(const char *left, const char *right) {
    return std::strcmp(left, right);
}

char *string_or_exit(void *made) {
    if (made == nullptr) {
        const keel::cancel_shield shield;
        std::fputs("EMERG-Memory lack.\n", stderr);
        keel::end_process(1);
    }
    return static_cast<char *>(made);
}

/* Clang takes it for granted that the functions of <cstdio> never unwind, and leaves out what a
 * destructor does when a thread is cancelled in one. So the one that may wait for long is called
 * through a pointer, and the warnings hold cancellation back. */
char *(*const volatile next_piece)(char *, int, FILE *) = std::fgets;

void warn_invalid(const char *text) {
    const keel::cancel_shield shield;
    std::fprintf(stderr, "WARNING-Invalid entry(%s), ignore.\n", text);
}

void warn_empty_section() {
    const keel::cancel_shield shield;
    std::fputs("WARNING-Empty section, ignore.\n", stderr);
}

/* An array that grows by doubling. */
template <class T>
class growing_array {
  public:
    /* Room for `added` more behind the end, which the caller fills and takes. */
    T *room(std::size_t added) {
        if (count_ + added > capacity_) {
            capacity_ = std::max(2 * capacity_, count_ + added + 64);
            data_.reset(static_cast<T *>(xrealloc(0, data_.release(), capacity_ * sizeof(T))));
        }
        return data_.get() + count_;
    }
    void take(std::size_t added) { count_ += added; }

    T *begin() { return data_.get(); }
    T *end() { return data_.get() + count_; }
    std::size_t size() const { return count_; }

  private:
    std::unique_ptr<T, keel::free_block> data_;
    std::size_t count_ = 0;
    std::size_t capacity_ = 0;
};

/* ---- Reading -------------------------------------------------------------------------------- */

/* The entries of a stream, in its order: for each the key and the value, terminated, one behind the
 * other. The table gets them when all is read, so that a load that is cancelled leaves it alone. */
class reader {
  public:
    explicit reader(const char *separators) : separators_(separators) {
        std::strcpy(section_, default_section);
    }

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

    growing_array<char> &texts() { return texts_; }
    std::size_t count() const { return count_; }

  private:
    /* An empty name keeps the section but not its mode, on purpose. */
    void take_header(char *line, std::size_t length, bool braces) {
        two_way_ = braces;
        line[length - 1] = '\0';
        const char *name = strtrim1(line + 1);
        if (*name == '\0')
            warn_empty_section();
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
        ini_add(key, value);
        if (two_way_ && *value != '\0')
            ini_add(value, key);
    }

    void ini_add(const char *key, const char *value) {
        const std::size_t size =
            std::strlen(section_) + std::strlen(key) + std::strlen(value) + sizeof "::" + 1;
        char *end = stpcpy(stpcpy(stpcpy(texts_.room(size), section_), "::"), key);
        std::strcpy(end + 1, value);
        texts_.take(size);
        count_++;
    }

    const char *separators_;
    char section_[line_size];
    bool two_way_ = false;
    growing_array<char> texts_;
    std::size_t count_ = 0;
};

/* ---- Sorting -------------------------------------------------------------------------------- */

/* An entry beside the first characters in which the keys of the table differ at all: they decide
 * most comparisons without a look at the keys, which lie all over the memory. */
struct sortable {
    std::uint64_t high;
    std::uint64_t low;
    ini_entry entry;
};

std::uint64_t characters(const char *text, std::size_t length) {
    std::uint64_t value = 0;
    std::memcpy(&value, text, length);
    return __builtin_bswap64(value); // the first character counts most
}

void note_characters(sortable &row, std::size_t skipped) {
    const char *text = row.entry.key + skipped;
    const std::size_t length = strnlen(text, 16);
    row.high = characters(text, std::min<std::size_t>(length, 8));
    row.low = length > 8 ? characters(text + 8, length - 8) : 0;
}

/* How many characters all keys begin with. */
std::size_t common_prefix(growing_array<sortable> &rows) {
    const char *first = rows.begin()->entry.key;
    std::size_t common = std::strlen(first);
    for (const sortable &row : rows) {
        std::size_t i = 0;
        while (i < common && row.entry.key[i] == first[i])
            i++;
        common = i;
    }
    return common;
}

/* Equal keys keep their order. */
void sort_by_key(growing_array<sortable> &rows) {
    const std::size_t skipped = common_prefix(rows);
    for (sortable &row : rows)
        note_characters(row, skipped);
    std::stable_sort(rows.begin(), rows.end(), [=](const sortable &left, const sortable &right) {
        if (left.high != right.high)
            return left.high < right.high;
        if (left.low != right.low)
            return left.low < right.low;
        return kv_compar(left.entry.key + skipped, right.entry.key + skipped) < 0;
    });
}

/* A string of the table's own. */
char *own(const char *read) {
    return string_or_exit(strdup(read));
}

void add_sorted(ini_table &table, reader &read) {
    growing_array<sortable> rows;
    const std::size_t count = table.count + read.count();
    sortable *row = rows.room(count);
    for (std::uint64_t i = 0; i < table.count; i++)
        *row++ = {0, 0, table.entries[i]};
    for (char *text = read.texts().begin(); text != read.texts().end();) {
        char *value = text + std::strlen(text) + 1;
        *row++ = {0, 0, {text, value}};
        text = value + std::strlen(value) + 1;
    }
    rows.take(count);
    if (count == 0)
        return;
    sort_by_key(rows);

    table.entries =
        static_cast<ini_entry *>(xrealloc(0, table.entries, count * sizeof *table.entries));
    const auto fresh = [&](const char *text) {
        return text >= read.texts().begin() && text < read.texts().end();
    };
    /* The keys first, in order: those that a search compares last lie side by side. */
    ini_entry *entry = table.entries;
    for (const auto &[high, low, read_entry] : rows)
        *entry++ = {fresh(read_entry.key) ? own(read_entry.key) : read_entry.key, read_entry.value};
    table.count = count;
    for (std::uint64_t i = 0; i < count; i++)
        if (fresh(table.entries[i].value))
            table.entries[i].value = own(table.entries[i].value);
}

/* ---- Lookup --------------------------------------------------------------------------------- */

/* "section::key", in place where it is of a usual size. */
class full_key {
  public:
    full_key(const char *section, const char *key) {
        const std::size_t size = std::strlen(section) + std::strlen(key) + sizeof "::";
        if (size > sizeof small_)
            large_.reset(static_cast<char *>(xcalloc(0, size)));
        text_ = large_ == nullptr ? small_ : large_.get();
        stpcpy(stpcpy(stpcpy(text_, section), "::"), key);
    }
    const char *text() const { return text_; }

  private:
    char small_[256];
    keel::unique_cstr large_;
    char *text_;
};

} // namespace

int ini_load(ini_table *table, const char *path, const char *separators) {
    const keel::unique_file file = keel::open_to_read(path);
    return file == nullptr ? -1 : ini_fload(table, file.get(), separators);
}

int ini_fload(ini_table *table, FILE *stream, const char *separators) {
    if (table == nullptr || stream == nullptr || separators == nullptr || *separators == '\0' ||
        std::strpbrk(separators, "[]{}#") != nullptr)
        return -1;
    reader read(separators);
    char line[line_size];
    while (next_piece(line, sizeof line, stream) != nullptr)
        read.take_line(line);
    add_sorted(*table, read);
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
    const full_key wanted(section, key);
    const auto is_below = [&](const ini_entry &entry) {
        return kv_compar(entry.key, wanted.text()) < 0;
    };
    const ini_entry *found = table->entries;
    for (std::size_t count = table->count; count > 1; count -= count / 2) {
        /* Either part that is searched next is as long as the other. The key in the middle of each
         * is fetched while this one is compared: most keys lie outside the cache. */
        const std::size_t half = count / 2;
        const std::size_t next = (count - half) / 2;
        __builtin_prefetch(found[next].key);
        __builtin_prefetch(found[half + next].key);
        if (is_below(found[half]))
            found += half;
    }
    found += is_below(*found);
    const ini_entry *end = table->entries + table->count;
    return found != end && kv_compar(found->key, wanted.text()) == 0 ? found->value : nullptr;
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

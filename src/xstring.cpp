/* SPDX-License-Identifier: MIT */
#include "xstring.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <emmintrin.h>

#include "char_class.h"
#include "ending.h"
#include "formatted.h"

namespace {

using keel::char_class;
using keel::formatted;
using keel::unique_cstr;

/* What strtrim4() can tidy: a printable byte that is not whitespace, or the blank. */
bool usable_separator(int separator) {
    return separator >= -128 && separator <= 255 && std::isprint(separator) != 0 &&
           (separator == ' ' || std::isspace(separator) == 0);
}

void remove_character(char *position) {
    std::memmove(position, position + 1, std::strlen(position));
}

/* The value of `key`, inside `list`, which is cut into pieces on the way; or null. */
char *find_value(char *list, const char *key, char entry_separator, int value_separator) {
    if (value_separator == '\0' || value_separator < SCHAR_MIN || value_separator > UCHAR_MAX)
        return nullptr;
    const char entry_end[] = {entry_separator, '\0'};
    char *rest = nullptr;
    for (char *entry = strtok_r(list, entry_end, &rest); entry != nullptr;
         entry = strtok_r(nullptr, entry_end, &rest)) {
        strtrim4(entry, value_separator); // leaves an entry alone that it cannot tidy
        char *separator = std::strchr(entry, value_separator);
        if (separator == nullptr)
            continue;
        *separator = '\0';
        if (std::strcmp(entry, key) == 0)
            return separator + 1;
    }
    return nullptr;
}

/* Copies `value`, cut to the buffer, with "%%" shortened to "%". Any other directive is text: a
 * value must not be able to read or write memory. */
char *copy_as_format(const char *value, char *buffer, std::size_t size) {
    char *end = buffer;
    for (; *value != '\0' && end < buffer + size - 1; value++) {
        if (value[0] == '%' && value[1] == '%')
            value++;
        *end++ = *value;
    }
    *end = '\0';
    return buffer;
}

/* Null sorts before every string, and two nulls are equal. */
int compare_nulls(const char *left, const char *right) {
    return static_cast<int>(left != nullptr) - static_cast<int>(right != nullptr);
}

/* Compares the last `count` characters, the very last one first. */
int compare_from_end(const char *left, std::size_t left_length, const char *right,
                     std::size_t right_length, std::size_t count) {
    for (std::size_t i = 1; i <= count; i++) {
        const auto l = static_cast<signed char>(left[left_length - i]);
        const auto r = static_cast<signed char>(right[right_length - i]);
        if (l != r)
            return l > r ? 1 : -1;
    }
    return 0;
}

/* Folds each run of whitespace to one blank, in place: what it takes lies at its end or behind. */
class blank_folder {
  public:
    static constexpr std::size_t block_size = sizeof(__m128i);

    explicit blank_folder(char *text) : begin_(text), end_(text) {}

    void take_block(const char *text) {
        const folding block(_mm_loadu_si128(reinterpret_cast<const __m128i *>(text)), after_space_);
        if (!block.is_simple)
            return take_each(text, block_size);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(end_), block.folded);
        move_on(block, block_size);
    }

    /* The rest of the text, less than a block. */
    void take_rest(const char *text, std::size_t length) {
        if (length == 0)
            return;
        __m128i rest = _mm_setzero_si128();
        std::memcpy(&rest, text, length);
        const folding block(rest, after_space_);
        if (!block.is_simple)
            return take_each(text, length);
        std::memcpy(end_, &block.folded, length);
        move_on(block, length);
    }

    void finish() {
        if (end_ > begin_ && after_space_)
            end_--;
        *end_ = '\0';
    }

  private:
    /* Most blocks are simple: without a run to be shortened, and without a byte beyond ASCII, whose
     * class is the locale's matter. Those are folded at once. */
    struct folding {
        folding(__m128i text, bool after_space) {
            const __m128i space =
                _mm_or_si128(_mm_and_si128(_mm_cmpgt_epi8(text, _mm_set1_epi8('\t' - 1)),
                                           _mm_cmplt_epi8(text, _mm_set1_epi8('\r' + 1))),
                             _mm_cmpeq_epi8(text, _mm_set1_epi8(' ')));
            spaces = _mm_movemask_epi8(space);
            const int surplus = spaces & (spaces << 1 | static_cast<int>(after_space));
            is_simple = (surplus | _mm_movemask_epi8(text)) == 0;
            folded = _mm_or_si128(_mm_andnot_si128(space, text),
                                  _mm_and_si128(space, _mm_set1_epi8(' ')));
        }

        __m128i folded;
        int spaces; // a bit for each character
        bool is_simple;
    };

    void move_on(const folding &block, std::size_t length) {
        end_ += length;
        after_space_ = (block.spaces >> (length - 1) & 1) != 0;
    }

    /* Each character is stored, and the place for the next one moves on unless this was one blank
     * too many: without a branch on the text, a long line costs a third. */
    void take_each(const char *text, std::size_t length) {
        for (const char *next = text; next < text + length; next++) {
            const char c = *next;
            const bool space = classes_.space(c);
            *end_ = space ? ' ' : c;
            end_ += !(space && after_space_);
            after_space_ = space;
        }
    }

    const char *begin_;
    char *end_;
    char_class classes_;
    bool after_space_ = true; // so that none is kept at the beginning
};

/* Finds the delimiters of a set in blocks of 64 characters: a bit for each, the first one lowest. A
 * few delimiters are compared with 16 characters at once, more are looked up. */
class delimiter_finder {
  public:
    static constexpr std::size_t block_size = 64;

    explicit delimiter_finder(const char *delimiters)
        : count_(std::strlen(delimiters)), few_(count_ > 0 && count_ <= most_compared) {
        if (!few_)
            std::memset(is_wanted_, 0, sizeof is_wanted_);
        for (std::size_t i = 0; i < count_; i++)
            if (few_)
                wanted_[i] = _mm_set1_epi8(delimiters[i]);
            else
                is_wanted_[static_cast<unsigned char>(delimiters[i])] = true;
    }

    /* Reads `size` characters at most; a block that is shorter goes on with delimiters. */
    std::uint64_t find(const char *block, std::size_t size) const {
        if (size >= block_size)
            return find(block);
        char copy[block_size] = {};
        std::memcpy(copy, block, size);
        return find(copy) | ~std::uint64_t{0} << size;
    }

  private:
    std::uint64_t find(const char *block) const { return few_ ? compare(block) : look_up(block); }

    /* Unrolled, so that the pieces stay in registers. */
    std::uint64_t compare(const char *block) const {
        __m128i text[pieces];
        __m128i equal[pieces];
#pragma GCC unroll 4
        for (std::size_t p = 0; p < pieces; p++) {
            text[p] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block) + p);
            equal[p] = _mm_cmpeq_epi8(text[p], wanted_[0]);
        }
        for (std::size_t i = 1; i < count_; i++)
#pragma GCC unroll 4
            for (std::size_t p = 0; p < pieces; p++)
                equal[p] = _mm_or_si128(equal[p], _mm_cmpeq_epi8(text[p], wanted_[i]));
        std::uint64_t found = 0;
#pragma GCC unroll 4
        for (std::size_t p = 0; p < pieces; p++)
            found |= static_cast<std::uint64_t>(_mm_movemask_epi8(equal[p])) << 16 * p;
        return found;
    }

    std::uint64_t look_up(const char *block) const {
        std::uint64_t found = 0;
        for (std::size_t i = 0; i < block_size; i++)
            found |= std::uint64_t{is_wanted_[static_cast<unsigned char>(block[i])]} << i;
        return found;
    }

    static constexpr std::size_t pieces = block_size / sizeof(__m128i);
    static constexpr std::size_t most_compared = 8;

    std::size_t count_;
    bool few_;
    __m128i wanted_[most_compared];
    bool is_wanted_[256];
};

template <class Action>
void for_each_bit(std::uint64_t bits, Action action) {
    for (; bits != 0; bits &= bits - 1)
        action(std::countr_zero(bits));
}

/* For comparisons, whose results leave no room for a failure. */
__attribute__((format(printf, 1, 0))) formatted formatted_or_exit(const char *format,
                                                                  va_list arguments) {
    formatted made(format, arguments);
    if (made.text == nullptr)
        keel::end_process(1);
    return made;
}

} // namespace

char *strtrim1(char *text) {
    if (text == nullptr)
        return nullptr;
    const char_class classes;
    const char *begin = text;
    while (classes.space(*begin))
        begin++;
    const char *end = begin + std::strlen(begin);
    while (end > begin && classes.space(end[-1]))
        end--;
    const auto length = static_cast<std::size_t>(end - begin);
    if (begin != text)
        std::memmove(text, begin, length);
    text[length] = '\0';
    return text;
}

char *strtrim2(char *text) {
    if (text == nullptr)
        return nullptr;
    const std::size_t length = std::strlen(text);
    blank_folder folder(text);
    std::size_t done = 0;
    for (; length - done >= blank_folder::block_size; done += blank_folder::block_size)
        folder.take_block(text + done);
    folder.take_rest(text + done, length - done);
    folder.finish();
    return text;
}

char *strtrim3(char *text) {
    if (text == nullptr)
        return nullptr;
    const std::size_t length = std::strlen(text);
    const unique_cstr scratch(static_cast<char *>(std::malloc(length + 1)));
    if (scratch == nullptr)
        return nullptr;
    const char_class classes;
    std::size_t kept = 0;
    for (const char *next = text; *next != '\0'; next++) {
        scratch.get()[kept] = *next;
        kept += !classes.space(*next);
    }
    if (kept < length) {
        std::memcpy(text, scratch.get(), kept);
        text[kept] = '\0';
    }
    return text;
}

char *strtrim4(char *text, int separator) {
    if (text == nullptr || !usable_separator(separator))
        return nullptr;
    strtrim2(text);
    char *found = std::strchr(text, separator);
    if (found == nullptr)
        return text;
    if (found > text && found[-1] == ' ')
        remove_character(--found);
    if (found[1] == ' ')
        remove_character(found + 1);
    return text;
}

char *strdup_ncat(std::size_t limit, ...) {
    if (limit + 1 == 0) // no room for the terminator
        return nullptr;
    unique_cstr made(static_cast<char *>(std::calloc(limit + 1, 1)));
    if (made == nullptr)
        return nullptr;
    std::size_t length = 0;
    va_list pieces;
    va_start(pieces, limit);
    while (length < limit) {
        const char *piece = va_arg(pieces, const char *);
        if (piece == nullptr)
            break;
        const std::size_t taken = strnlen(piece, limit - length);
        std::memcpy(made.get() + length, piece, taken);
        length += taken;
    }
    va_end(pieces);
    return made.release();
}

char *strdup_cat(const char *first, ...) {
    if (first == nullptr)
        return nullptr;
    va_list pieces;
    std::size_t size = std::strlen(first) + 1;
    va_start(pieces, first);
    while (const char *piece = va_arg(pieces, const char *))
        size += std::strlen(piece);
    va_end(pieces);

    unique_cstr made(static_cast<char *>(std::calloc(size, 1)));
    if (made == nullptr)
        return nullptr;
    char *end = stpcpy(made.get(), first);
    va_start(pieces, first);
    while (const char *piece = va_arg(pieces, const char *))
        end = stpcpy(end, piece);
    va_end(pieces);
    return made.release();
}

char *strdup_catf(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    formatted made(format, arguments);
    va_end(arguments);
    return made.text.release();
}

char *strdup_insert(const char *text, std::size_t position, const char *insert) {
    if (text == nullptr || insert == nullptr)
        return nullptr;
    const std::size_t length = std::strlen(text);
    if (position > length)
        return nullptr;
    const std::size_t inserted = std::strlen(insert);
    char *made = static_cast<char *>(std::malloc(length + inserted + 1));
    if (made == nullptr)
        return nullptr;
    std::memcpy(made, text, position);
    std::memcpy(made + position, insert, inserted);
    std::memcpy(made + position + inserted, text + position, length - position + 1);
    return made;
}

char *strdup_extract1(const char *list, const char *key, char entry_separator,
                      int value_separator) {
    return varbind_find(list, key, entry_separator, value_separator, nullptr, 0);
}

char *varbind_find(const char *list, const char *key, char entry_separator, int value_separator,
                   char *buffer, std::size_t size) {
    if (list == nullptr || key == nullptr)
        return nullptr;
    const unique_cstr copy(strdup(list));
    if (copy == nullptr)
        return nullptr;
    const char *value = find_value(copy.get(), key, entry_separator, value_separator);
    if (value == nullptr)
        return nullptr;
    return buffer != nullptr && size > 1 ? copy_as_format(value, buffer, size) : strdup(value);
}

int str_split(char *text, const char *delimiters, char **fields, std::size_t capacity) {
    if (text == nullptr || delimiters == nullptr)
        return -1;
    if (fields == nullptr)
        capacity = 0;
    const delimiter_finder finder(delimiters);
    const std::size_t length = std::strlen(text);
    std::size_t count = 0;
    std::uint64_t before = 1; // whether a delimiter stands before the block, or nothing
    for (std::size_t at = 0; at < length; at += finder.block_size) {
        char *block = text + at;
        const std::uint64_t found = finder.find(block, length - at);
        if ((found | before) == 0) // all inside a field
            continue;
        const std::uint64_t follows = found << 1 | before;
        for_each_bit(follows & ~found, [&](int begin) {
            if (count < capacity)
                fields[count] = block + begin;
            count++;
        });
        for_each_bit(found & ~follows, [&](int end) {
            if (block[end] != '\0') // a text without delimiters may be read-only
                block[end] = '\0';
        });
        before = found >> 63;
    }
    return static_cast<int>(count);
}

int strrcmp(const char *left, const char *right) {
    if (left == nullptr || right == nullptr)
        return compare_nulls(left, right);
    const std::size_t l = std::strlen(left);
    const std::size_t r = std::strlen(right);
    return compare_from_end(left, l, right, r, std::min(l, r));
}

int strrncmp(const char *left, const char *right, std::size_t limit) {
    if (left == nullptr || right == nullptr)
        return compare_nulls(left, right);
    if (limit == 0)
        return 0;
    const std::size_t l = std::strlen(left);
    const std::size_t r = std::strlen(right);
    /* One less than the limit, kept so: callers have always counted the terminator. */
    return compare_from_end(left, l, right, r, std::min({limit - 1, l, r}));
}

int astrcatf(char **text, const char *format, ...) {
    if (text == nullptr)
        return -1;
    va_list arguments;
    va_start(arguments, format);
    formatted added(format, arguments);
    va_end(arguments);
    if (added.length < 1)
        return added.length;
    if (*text == nullptr) {
        *text = added.text.release();
        return added.length;
    }
    const std::size_t length = std::strlen(*text);
    const std::size_t size = static_cast<std::size_t>(added.length) + 1;
    char *grown = static_cast<char *>(std::realloc(*text, length + size));
    if (grown == nullptr)
        return -1;
    std::memcpy(grown + length, added.text.get(), size);
    *text = grown;
    return added.length;
}

int str_startwithf(const char *text, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const formatted prefix = formatted_or_exit(format, arguments);
    va_end(arguments);
    const std::size_t length = std::strlen(prefix.text.get());
    return text != nullptr && std::strncmp(text, prefix.text.get(), length) == 0 ? 1 : 0;
}

int strcmpf(const char *text, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const formatted other = formatted_or_exit(format, arguments);
    va_end(arguments);
    return text == nullptr ? -1 : std::strcmp(text, other.text.get());
}

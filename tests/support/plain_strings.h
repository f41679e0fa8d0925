/* SPDX-License-Identifier: MIT */
#pragma once

#include <algorithm>
#include <cctype>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace keel_test {

/* The string functions as their contracts tell them, with no regard to speed: what a test holds the
 * library's own against. The texts hold no NUL byte. */

inline bool plain_space(char c) {
    return std::isspace(static_cast<signed char>(c)) != 0;
}

inline std::string plain_trim1(const std::string &text) {
    std::size_t begin = 0;
    while (begin < text.size() && plain_space(text[begin]))
        begin++;
    std::size_t end = text.size();
    while (end > begin && plain_space(text[end - 1]))
        end--;
    return text.substr(begin, end - begin);
}

inline std::string plain_trim2(const std::string &text) {
    std::string words;
    bool in_word = false;
    for (const char c : text) {
        if (plain_space(c)) {
            in_word = false;
            continue;
        }
        if (!in_word && !words.empty())
            words += ' ';
        in_word = true;
        words += c;
    }
    return words;
}

inline std::string plain_trim3(std::string text) {
    text.erase(std::remove_if(text.begin(), text.end(), plain_space), text.end());
    return text;
}

inline std::optional<std::string> plain_trim4(const std::string &text, int separator) {
    if (separator < -128 || separator > 255 || std::isprint(separator) == 0 ||
        (std::isspace(separator) != 0 && separator != ' '))
        return std::nullopt;
    std::string tidy = plain_trim2(text);
    std::size_t at = tidy.find(static_cast<char>(separator));
    if (at == tidy.npos)
        return tidy;
    if (at > 0 && tidy[at - 1] == ' ')
        tidy.erase(--at, 1);
    if (at + 1 < tidy.size() && tidy[at + 1] == ' ')
        tidy.erase(at + 1, 1);
    return tidy;
}

/* The fields of `text`; splits it in place. */
inline std::vector<char *> plain_split(char *text, const char *delimiters) {
    std::vector<char *> fields;
    char *rest = nullptr;
    for (char *field = strtok_r(text, delimiters, &rest); field != nullptr;
         field = strtok_r(nullptr, delimiters, &rest))
        fields.push_back(field);
    return fields;
}

/* The value of `key` in a list; an entry that cannot be tidied is taken as it is. */
inline std::optional<std::string> plain_value(std::string list, const std::string &key,
                                              char entry_separator, int value_separator) {
    if (value_separator == 0 || value_separator < -128 || value_separator > 255)
        return std::nullopt;
    const char entry_end[] = {entry_separator, '\0'};
    for (const char *field : plain_split(list.data(), entry_end)) {
        const std::string entry = plain_trim4(field, value_separator).value_or(field);
        const std::size_t at = entry.find(static_cast<char>(value_separator));
        if (at != entry.npos && entry.substr(0, at) == key)
            return entry.substr(at + 1);
    }
    return std::nullopt;
}

/* What a buffer of `size` bytes holds of `value` taken for a format without directives. */
inline std::string plain_formatted(const std::string &value, std::size_t size) {
    std::string text;
    for (std::size_t i = 0; i < value.size(); i++) {
        if (value[i] == '%' && i + 1 < value.size() && value[i + 1] == '%')
            i++;
        text += value[i];
    }
    return text.substr(0, size - 1);
}

/* From the last characters back, as signed bytes, over at most `count`. */
inline int plain_compare_from_end(std::string one, std::string other, std::size_t count) {
    std::reverse(one.begin(), one.end());
    std::reverse(other.begin(), other.end());
    for (std::size_t i = 0; i < std::min({one.size(), other.size(), count}); i++) {
        const int difference =
            static_cast<signed char>(one[i]) - static_cast<signed char>(other[i]);
        if (difference != 0)
            return difference > 0 ? 1 : -1;
    }
    return 0;
}

} // namespace keel_test

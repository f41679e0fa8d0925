/* SPDX-License-Identifier: MIT */
#pragma once

#include <initializer_list>
#include <iterator>
#include <random>
#include <string>

namespace keel_test {

/* Makes up configuration files full of what a reader may stumble over. */
class conf_maker {
  public:
    explicit conf_maker(unsigned seed) : engine_(seed) {}

    /* From 0 up to, but without, `limit`. */
    std::size_t number(std::size_t limit) { return engine_() % limit; }
    bool one_in(std::size_t n) { return number(n) == 0; }

    std::string one_of(std::initializer_list<std::string> texts) {
        return *std::next(texts.begin(), static_cast<std::ptrdiff_t>(number(texts.size())));
    }

    /* Lines about `key`, most of them with the value or a similar one. */
    std::string content(const std::string &key, const std::string &separators,
                        const std::string &value) {
        std::string text;
        for (std::size_t lines = number(9); lines > 0; lines--) {
            text += with_nul(line(key, separators, value));
            text += one_in(8) ? "\r\n" : "\n";
        }
        if (one_in(3))
            text += with_nul(line(key, separators, value));
        return text;
    }

  private:
    std::string line(const std::string &key, const std::string &separators,
                     const std::string &value) {
        switch (number(12)) {
        case 0:
            return blanks() + "#" + setting(key, separators, value);
        case 1:
            return blanks();
        case 2:
            return long_line(one_of({"x", " ", key, ","}));
        case 3:
            return long_line(setting(key, separators, value));
        case 4:
            return blanks() + one_of({"{", "}", key + " {", key + "{" + value + "}", "a }", "{}"});
        case 5:
            return one_of({key, separators, key + separators.substr(0, 1), "\xff\xe4\x01", "}"});
        default:
            return setting(key, separators, value);
        }
    }

    std::string blanks() { return one_of({"", "", " ", "   ", "\t", " \t ", "\v\f\r"}); }

    std::string setting(const std::string &key, const std::string &separators,
                        const std::string &value) {
        const std::string separator =
            separators.empty() ? "" : std::string(1, separators[number(separators.size())]);
        return blanks() + one_of({key, key, key, key + "s", "x" + key, "name"}) + blanks() +
               one_of({separator, separator, separator, separator + separator, ""}) + blanks() +
               one_of(
                   {value, value, value + " # new", value + "0", "", "a \t b", ",a,,b;", "1,2,3"}) +
               blanks();
    }

    /* Round the 1023 characters that are read at a time. */
    std::string long_line(const std::string &part) {
        const std::size_t length = one_in(6) ? 5000 : 1021 + number(5);
        std::string text(length, one_of({"x", " ", ",", "="}).front());
        return text.replace(one_in(2) ? 0 : length - part.size(), part.size(), part);
    }

    std::string with_nul(std::string text) {
        if (one_in(12))
            text.insert(number(text.size() + 1), 1, '\0');
        return text;
    }

    std::mt19937 engine_;
};

} // namespace keel_test

/* SPDX-License-Identifier: MIT */
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "plain_strings.h"

namespace keel_test {

/* Keys, which are the whole "section::key", and values. */
using ini_pairs = std::vector<std::pair<std::string, std::string>>;

/* INI files read as their contract tells, with no regard to speed: what a test holds the library's
 * own reader against. */
class plain_ini {
  public:
    void load(const std::string &text, const std::string &separators) {
        section_ = "DEFAULT";
        both_ways_ = false;
        for (std::size_t next = 0; next < text.size();) {
            const std::size_t end = std::min({text.find('\n', next), text.size() - 1, next + 2046});
            take_line(text.substr(next, end + 1 - next), separators);
            next = end + 1;
        }
        std::sort(entries_.begin(), entries_.end());
    }

    /* Sorted by key, and where keys are equal by value: the contract leaves their order open. */
    const ini_pairs &entries() const { return entries_; }
    const std::string &warnings() const { return warnings_; }

    /* All that a lookup of the full key may find. */
    std::vector<std::string> values(const std::string &full_key) const {
        std::vector<std::string> found;
        for (auto entry = std::lower_bound(entries_.begin(), entries_.end(),
                                           std::pair(full_key, std::string()));
             entry != entries_.end() && entry->first == full_key; ++entry)
            found.push_back(entry->second);
        return found;
    }

  private:
    void take_line(const std::string &read, const std::string &separators) {
        const std::string line = plain_trim2(read.substr(0, read.find_first_of({"\0#", 2})));
        if (line.empty())
            return;
        const bool square = line.front() == '[' && line.back() == ']';
        const bool curly = line.front() == '{' && line.back() == '}';
        if (square || curly)
            take_header(plain_trim1(line.substr(1, line.size() - 2)), curly);
        else
            take_entry(line, line.find_first_of(separators));
    }

    void take_header(const std::string &name, bool curly) {
        both_ways_ = curly;
        if (name.empty())
            warnings_ += "WARNING-Empty section, ignore.\n";
        else
            section_ = name;
    }

    void take_entry(const std::string &line, std::size_t separator) {
        if (separator == line.npos)
            return warn(line);
        const std::string key = plain_trim1(line.substr(0, separator));
        const std::string value = plain_trim1(line.substr(separator + 1));
        if (key.empty())
            return warn(key);
        entries_.emplace_back(section_ + "::" + key, value);
        if (both_ways_ && !value.empty())
            entries_.emplace_back(section_ + "::" + value, key);
    }

    void warn(const std::string &entry) {
        warnings_ += "WARNING-Invalid entry(" + entry + "), ignore.\n";
    }

    std::string section_;
    bool both_ways_ = false;
    ini_pairs entries_;
    std::string warnings_;
};

} // namespace keel_test

/* SPDX-License-Identifier: MIT */
#pragma once

#include <cctype>
#include <cstddef>
#include <filesystem>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "temp_dir.h"
#include "xlog.h"

namespace keel_test {

/* What stands before the level of a record, such as "[2024-03-05 14:07:09.042] ". */
inline bool is_time_stamp(std::string_view text) {
    constexpr std::string_view shape = "[0000-00-00 00:00:00.000] ";
    if (text.size() != shape.size())
        return false;
    for (std::size_t i = 0; i < shape.size(); i++)
        if (shape[i] == '0' ? std::isdigit(static_cast<unsigned char>(text[i])) == 0
                            : text[i] != shape[i])
            return false;
    return true;
}

constexpr std::size_t time_stamp_size = 26;

/* A line without its time stamp; a line that has none does not look like one that had. */
inline std::string without_stamp(const std::string &line) {
    return is_time_stamp(std::string_view(line).substr(0, time_stamp_size))
               ? line.substr(time_stamp_size)
               : "no time stamp: " + line;
}

/* The lines of a text, newlines left out; what stands behind the last newline is a line too. */
inline std::vector<std::string> split(const std::string &text) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

/* A text of one-line records without their time stamps. */
inline std::string without_stamps(const std::string &text) {
    std::string all;
    for (const std::string &line : split(text))
        all += without_stamp(line) + "\n";
    if (!text.empty() && text.back() != '\n')
        all.pop_back();
    return all;
}

/* A directory for logs. Logging ends with it. */
class log_home {
  public:
    ~log_home() { log_destroy(); }

    /* log_init() for a program. */
    int set_up(log_conf *conf = nullptr, const std::string &program = "/usr/bin/app") const {
        std::string name = program;
        char *const argv[] = {name.data(), nullptr};
        return log_init(argv, dir_.path().c_str(), conf);
    }

    const temp_dir &dir() const { return dir_; }
    std::string operator/(const std::string &name) const { return dir_ / name; }
    std::string content(const std::string &name) const { return content_of(dir_ / name); }

    /* The archives of NAME.log, in the order of their names. */
    std::vector<std::string> archives(const std::string &name) const {
        const std::regex shape(name + R"(_\d{4}\.\d\d\.\d\d_\d\d\.\d\d\.\d\d\.\d{3}\.log)");
        std::vector<std::string> found;
        for (const std::string &file : dir_.names())
            if (std::regex_match(file, shape))
                found.push_back(file);
        return found;
    }

    /* All that went to NAME.log: its archives, and what has not been archived. */
    std::string everything(const std::string &name) const {
        std::string text;
        for (const std::string &archive : archives(name))
            text += content(archive);
        return text + content(name + ".log");
    }

  private:
    temp_dir dir_;
};

/* Settings to be filled in, of which those in `flags` count. */
inline log_conf conf_with(std::uint32_t flags) {
    log_conf conf{};
    conf.flags = flags;
    return conf;
}

inline log_conf conf_of_slots(std::uint64_t nlogs) {
    log_conf conf = conf_with(LOG_CONF_NLOGS);
    conf.nlogs = nlogs;
    return conf;
}

/* Slots whose files hold as few records as can be, and are archived without much waiting. */
constexpr int fewest_records = 1000;

inline log_conf conf_of_short_files(std::uint64_t nlogs) {
    log_conf conf = conf_with(LOG_CONF_NLOGS | LOG_CONF_WRMAX | LOG_CONF_RENAME_GAP);
    conf.nlogs = nlogs;
    conf.wrmax = fewest_records;
    conf.rename_gap = 1000;
    return conf;
}

} // namespace keel_test

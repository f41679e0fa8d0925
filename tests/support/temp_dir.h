/* SPDX-License-Identifier: MIT */
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <stdlib.h>
#include <string>
#include <vector>

namespace keel_test {

/* A directory for one test, removed with all that is in it. */
class temp_dir {
  public:
    explicit temp_dir(const std::string &parent = "/tmp") : path_(parent + "/keel-test-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
    }
    ~temp_dir() { std::filesystem::remove_all(path_); }
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    std::string path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

    /* The names in it, sorted. */
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const auto &entry : std::filesystem::directory_iterator(path_))
            all.push_back(entry.path().filename());
        std::sort(all.begin(), all.end());
        return all;
    }

  private:
    std::string path_;
};

inline std::string content_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void write_file(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}

} // namespace keel_test

/* SPDX-License-Identifier: MIT */
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "child.h"
#include "fake_files.h"
#include "temp_dir.h"

namespace keel_test {

/* What an entry of /proc tells of a process. */
struct fake_process {
    std::string cmdline = std::string("/opt/bin/prog\0-x\0", 17);
    std::string stat = "7 (prog) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22\n";
    std::string cwd = "/work";
    std::string exe = "/opt/bin/prog";
    std::vector<std::pair<std::string, std::string>> descriptors = {}; /* names and links */
};

/* A /proc with nothing but what a test puts there, at any time. Needs root. */
class fake_proc {
  public:
    /* Lays what is there of it anew. */
    void lay(const std::string &entry, const fake_process &process = {}) const {
        const std::string directory = root_ / entry;
        std::filesystem::remove_all(directory);
        std::filesystem::create_directories(directory + "/fd");
        write_file(directory + "/cmdline", process.cmdline);
        write_file(directory + "/stat", process.stat);
        std::filesystem::create_symlink(process.cwd, directory + "/cwd");
        std::filesystem::create_symlink(process.exe, directory + "/exe");
        for (const auto &[name, link] : process.descriptors)
            std::filesystem::create_symlink(link, directory + "/fd/" + name);
    }

    void remove(const std::string &file) const { std::filesystem::remove_all(root_ / file); }

    /* Where a file of it lies for all processes. */
    std::string operator/(const std::string &file) const { return root_ / file; }

    /* Runs `body` in a child process for which this is /proc. */
    child_result show(const std::function<void()> &body) const {
        return run_with_fakes([&](fake_files &) {
            fake_files::bind(root_.path(), "/proc");
            body();
        });
    }

  private:
    temp_dir root_;
};

} // namespace keel_test

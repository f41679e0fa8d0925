/* SPDX-License-Identifier: MIT */
#include "files.h"

#include <cstdio>
#include <filesystem>
#include <linux/magic.h>
#include <stdlib.h>
#include <string>
#include <sys/vfs.h>

#include "table.h"

namespace bench {

namespace {

bool in_memory(const std::string &path) {
    struct statfs found {};
    require(statfs(path.c_str(), &found) == 0, "statfs failed");
    return found.f_type == TMPFS_MAGIC || found.f_type == RAMFS_MAGIC;
}

} // namespace

scratch_dir::scratch_dir(const std::string &parent) : path_(parent + "/keel-bench-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr)
        fail("no directory can be made in " + parent);
}

scratch_dir::~scratch_dir() {
    std::filesystem::remove_all(path_);
}

std::string memory_dir() {
    const std::string path = "/dev/shm";
    if (!in_memory(path))
        fail(path + " is not in memory");
    return path;
}

std::string disk_dir() {
    const std::string path = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    return in_memory(path) ? "" : path;
}

void write_file(const std::string &path, const std::string &text) {
    FILE *file = std::fopen(path.c_str(), "w");
    if (file == nullptr || std::fwrite(text.data(), 1, text.size(), file) != text.size() ||
        std::fclose(file) != 0)
        fail("cannot write " + path);
}

std::string lines_of(std::size_t length, std::size_t size) {
    std::string line;
    for (std::size_t i = 0; i + 1 < length; i++)
        line += static_cast<char>('a' + i % 26);
    line += '\n';
    std::string text;
    text.reserve(size);
    while (text.size() + length <= size)
        text += line;
    return text;
}

} // namespace bench

/* SPDX-License-Identifier: MIT */
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "plain_conf.h"
#include "temp_dir.h"
#include "xconf.h"

namespace keel_test {

/* A directory in memory: edits wait for the disk. */
constexpr char in_memory[] = "/dev/shm";

/* A file to be edited, alone in a directory of its own. */
class edited_file {
  public:
    explicit edited_file(const std::string &content = "", const std::string &parent = in_memory)
        : dir_(parent) {
        write(content);
    }

    void write(const std::string &content) { write_file(path_, content); }

    const temp_dir &dir() const { return dir_; }
    const char *path() const { return path_.c_str(); }
    std::string side(const std::string &suffix) const { return path_ + suffix; }
    std::string text() const { return content_of(path_); }

    /* Nothing else lies beside it. */
    bool alone() const { return dir_.names() == std::vector<std::string>{"file"}; }

  private:
    temp_dir dir_;
    std::string path_ = dir_ / "file";
};

/* An edit of the setting "port", and what it makes of a file. */
struct port_edit {
    const char *name;
    const char *suffix; /* of the side file */
    int (*run)(const char *path);
    std::string (*plain)(const std::string &content);
};

/* Each of the functions that rewrite a file. */
inline const port_edit port_edits[] = {
    {"finsert", "_bak", [](const char *path) { return finsert(path, "port", '=', "80"); },
     [](const std::string &content) {
         return plain_edited(content, plain_edit::insert, "port", '=', "80");
     }},
    {"fremove", "_bak", [](const char *path) { return fremove(path, "port", '=', "80"); },
     [](const std::string &content) {
         return plain_edited(content, plain_edit::remove, "port", '=', "80");
     }},
    {"fmodify", "_bak", [](const char *path) { return fmodify(path, "port", '=', "81"); },
     [](const std::string &content) {
         return plain_edited(content, plain_edit::modify, "port", '=', "81");
     }},
    {"file_replace_value", ".bak",
     [](const char *path) { return file_replace_value(path, "port", "=", "%d", 82); },
     [](const std::string &content) { return plain_replaced(content, "port", "=", "82"); }},
    {"file_replace_value_value", ".bak",
     [](const char *path) { return file_replace_value_value(path, "port", "=", ",", 1, "%d", 83); },
     [](const std::string &content) {
         return plain_field_replaced(content, "port", "=", ",", 1, "83");
     }},
};

/* A file that each of them changes, of about `size` bytes: the edited lines come last. */
inline std::string port_file(std::size_t size = 0) {
    std::string content = "# web\nname = a\n";
    while (content.size() < size)
        content += "# a line of comment to make the file as large as it has to be\n";
    return content + "port = 80\nport = 8080, 8081\nports = 1\n";
}

} // namespace keel_test

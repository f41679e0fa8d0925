/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstddef>
#include <string>

namespace bench {

/* A directory of its own below `parent`, removed with all that is in it. */
class scratch_dir {
  public:
    explicit scratch_dir(const std::string &parent);
    ~scratch_dir();
    scratch_dir(const scratch_dir &) = delete;
    scratch_dir &operator=(const scratch_dir &) = delete;

    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

/* A directory in memory: files there cost no disk. Ends the program where there is none. */
std::string memory_dir();

/* A directory on a disk, the bench's own; empty where it lies in memory. */
std::string disk_dir();

void write_file(const std::string &path, const std::string &text);

/* Lines of letters, `length` characters each with the newline, `size` bytes in all or a little
 * less. */
std::string lines_of(std::size_t length, std::size_t size);

} // namespace bench

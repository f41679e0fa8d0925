/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "files.h"

namespace bench {

/* A program that runs in the background, its output sent to a file, until the object is gone or the
 * bench has ended, be it killed. */
class server {
  public:
    server(const std::vector<std::string> &words, const std::string &output);
    ~server();
    server(const server &) = delete;
    server &operator=(const server &) = delete;

    /* Waits until it is ready. Ends the bench, with its output, where it is not within a minute, or
     * has ended. */
    void wait_until(const std::function<bool()> &ready);

  private:
    [[noreturn]] void give_up(const std::string &what) const;

    std::string name_;
    std::string output_;
    pid_t process_;
};

/* An FTP server on the loopback interface, its files in memory. Everyone may read and write. */
class ftp_server {
  public:
    ftp_server();

    std::string url(const std::string &file) const;
    std::string path(const std::string &file) const { return home_ / ("files/" + file); }

  private:
    scratch_dir home_;
    std::uint16_t port_;
    server program_;
};

} // namespace bench

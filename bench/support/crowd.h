/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstddef>
#include <sys/types.h>
#include <vector>

namespace bench {

/* Processes that sleep, called "sleeper-0", "sleeper-1" and so on, so that the system has a certain
 * number of processes. They end with the bench, however it ends. */
class crowd {
  public:
    crowd();
    ~crowd();
    crowd(const crowd &) = delete;
    crowd &operator=(const crowd &) = delete;

    /* Starts or ends sleepers until there are `size` processes in all. Ends the program where
     * others alone are that many. */
    void fill_to(std::size_t size);

    pid_t at(std::size_t i) const { return sleepers_.at(i); }

  private:
    void start_one();
    void shrink_to(std::size_t size);

    std::vector<pid_t> sleepers_;
    int silence_[2]; /* a pipe that they read from, and that nobody writes to */
};

} // namespace bench

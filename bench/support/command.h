/* SPDX-License-Identifier: MIT */
#pragma once

#include <string>
#include <vector>

namespace bench {

/* Runs a command from start to end; what it prints goes to /dev/null. Ends the program where the
 * command fails. */
void run_command(const std::vector<std::string> &words);

/* What a process held when it ended. */
struct footprint {
    double resident_kib = 0; /* at its highest */
    double objects = 0;      /* shared objects that were mapped, keel's own not counted */
};

/* Runs a program and looks at it in the moment before it is gone. (The maximum that wait4() gives
 * counts the memory of whoever started it as well.) */
footprint footprint_of(const std::string &program);

} // namespace bench

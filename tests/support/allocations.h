/* SPDX-License-Identifier: MIT */
#pragma once

#include <initializer_list>
#include <vector>

#include "memory_sweep.h"

namespace keel_test {

inline std::vector<sweep_row> joined(std::initializer_list<std::vector<sweep_row>> parts) {
    std::vector<sweep_row> all;
    for (const std::vector<sweep_row> &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

/* Queues, threads, timers, networks: allocations_objects.cpp. */
std::vector<sweep_row> rows_of_objects();

/* The machine, its processes, transfers, devices, a database: allocations_system.cpp. */
std::vector<sweep_row> rows_of_the_system();

} // namespace keel_test

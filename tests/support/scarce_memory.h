/* SPDX-License-Identifier: MIT */
#pragma once

/* Lets allocations of the whole process fail on demand, also those within the C and the C++
 * library: scarce_memory.cpp puts itself in the place of malloc() and its kin. Not for a sanitizer,
 * which is there already. */

namespace keel_test {

/* Which allocations fail: the `first`-th, and all that follow where it lasts. */
struct shortage {
    int first;
    bool lasts;
};

/* While it lives memory is short for the calling thread, or for all threads. */
class scarce_memory {
  public:
    scarce_memory(const shortage &which, bool everywhere);
    ~scarce_memory();
    scarce_memory(const scarce_memory &) = delete;
    scarce_memory &operator=(const scarce_memory &) = delete;

    /* There is enough again. */
    static void end();

    /* How many allocations have failed since forget_failures(), in child processes too. */
    static int failures();
    static void forget_failures();

    /* How many blocks this process holds. */
    static long blocks();
};

} // namespace keel_test

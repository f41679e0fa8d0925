/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

/* A piece of work that is done again and again: `run` is timed, `prepare`, before each run, is
 * not. */
struct job {
    std::function<void()> run = {};
    std::function<void()> prepare = {};
    /* In place of `run`: gives a figure of its own, in the table's unit. */
    std::function<double()> amount = {};
};

/* One row of a table. */
struct contender {
    std::string name;
    /* Called before each repetition; what its job holds ends with the repetition. */
    std::function<job()> make;
    /* Ours is to be at most so many times this one. 0: no bar, the row is there to compare with. */
    double bar = 0;
};

/* What is measured in one run and printed side by side. The first contender is ours. */
struct table {
    std::string title;
    std::string item;       /* what one figure stands for, such as "record" */
    double items = 1;       /* how many of them one job does */
    std::string floor = {}; /* what sets the limit; printed below the table where a bar is missed */
    std::vector<contender> contenders;
    std::string unit = {}; /* of jobs that give amounts; without one, times are measured */
};

/* A contender that needs nothing made: the job is the function itself. */
inline std::function<job()> always(std::function<void()> run) {
    return [run = std::move(run)] { return job{.run = run}; };
}

/* Measures all contenders of all tables, their repetitions in random order, and prints the tables.
 * Arguments are the framework's, such as --benchmark_filter=. Returns main()'s result, 1 only where
 * something could not be measured: no time makes a bench fail. */
int measure(int argc, char *argv[], std::vector<table> tables);

/* Ends the program with a message: what is to be measured cannot be. */
[[noreturn]] void fail(const std::string &what);

inline void require(bool right, const char *what) {
    if (!right)
        fail(what);
}

} // namespace bench

/* SPDX-License-Identifier: MIT */
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "child.h"
#include "descriptors.h"
#include "own_network.h"
#include "own_processes.h"
#include "scarce_memory.h"
#include "temp_dir.h"

/* Runs a call again and again, each time with its next allocation failing, up to where all succeed,
 * and looks at how each run ends. */

namespace keel_test {

/* One run: in a process of its own, whose end is looked at from outside. */
class trial {
  public:
    trial(const std::string &directory, std::optional<shortage> which)
        : directory_(directory), which_(which) {}

    /* Does the call while memory is short for the calling thread. */
    template <class Call>
    auto of(const Call &call) {
        return run(call, false);
    }

    /* Does the call while it is short for all threads. */
    template <class Call>
    auto everywhere(const Call &call) {
        return run(call, true);
    }

    /* Whether an allocation has failed. */
    bool failed() const { return scarce_memory::failures() > 0; }

    /* What is promised, whether memory was short or not. */
    void expect(bool as_promised, const char *file = __builtin_FILE(),
                int line = __builtin_LINE()) const {
        if (as_promised)
            return;
        std::fprintf(stderr, "not as promised: %s:%d\n", file, line);
        std::fflush(nullptr);
        _exit(70);
    }

    /* A file that is for this run alone. */
    std::string operator/(const std::string &name) const { return directory_ + "/" + name; }

  private:
    template <class Call>
    auto run(const Call &call, bool everywhere) {
        forget_messages();
        if (!which_)
            return call();
        const scarce_memory now(*which_, everywhere);
        return call();
    }

    /* Those of what went before are not looked at. */
    static void forget_messages() {
        std::fflush(stderr);
        if (ftruncate(STDERR_FILENO, 0) == 0)
            lseek(STDERR_FILENO, 0, SEEK_SET);
    }

    std::string directory_;
    std::optional<shortage> which_;
};

/* What a sweep is over. */
class sweep_row {
  public:
    using body = std::function<void(trial &)>;
    using names = std::vector<std::string>;

    /* `endings`: how a run may end whose memory was short, and each does at some allocation; none,
     * where nothing is allocated. What is on standard output does not count. */
    sweep_row(names of, std::vector<child_result> how, body what)
        : functions(std::move(of)), endings(std::move(how)), run(std::move(what)) {}

    /* What a run is about, where a function has several rows. */
    sweep_row where(const std::string &what) && { return with(&sweep_row::about, what); }

    /* How it ends where nothing fails. */
    sweep_row ends(const child_result &how) && { return with(&sweep_row::usual_ending, how); }

    /* Where it ends the process for want of memory, this file is as it was. */
    sweep_row keeps(const std::string &name, const std::string &content) && {
        return with(&sweep_row::kept, std::pair(name, content));
    }

    /* It is not run before to let the C library load what it loads once. */
    sweep_row cold() && { return with(&sweep_row::is_cold, true); }

    /* Something stays allocated, or open, for good. */
    sweep_row for_good() && { return std::move(*this).cold().with(&sweep_row::is_for_good, true); }

    /* It starts threads. The C library keeps something of them. */
    sweep_row with_threads() && {
        return std::move(*this).cold().with(&sweep_row::has_threads, true);
    }

    /* Other libraries have a part in it, and may lose blocks where memory runs out. They are made
     * ready once for all runs. */
    sweep_row with_others(const std::function<void()> &ready = [] {}) && {
        return with(&sweep_row::has_others, true).with(&sweep_row::make_ready, ready);
    }

    sweep_row in_own_network() && { return with(&sweep_row::has_own_network, true); }
    sweep_row among_own_processes() && { return with(&sweep_row::has_own_processes, true); }

    std::string title() const {
        std::string text = functions[0].substr(0, functions[0].find('('));
        return about.empty() ? text : text + "_" + about;
    }

    names functions;
    std::vector<child_result> endings;
    body run;
    std::string about;
    child_result usual_ending = exited(0);
    std::optional<std::pair<std::string, std::string>> kept;
    bool is_cold = false;
    bool is_for_good = false;
    bool has_threads = false;
    bool has_others = false;
    std::function<void()> make_ready = [] {};
    bool has_own_network = false;
    bool has_own_processes = false;

  private:
    template <class T, class Value>
    sweep_row with(T sweep_row::*field, const Value &value) {
        this->*field = value;
        return std::move(*this);
    }
};

inline void PrintTo(const sweep_row &row, std::ostream *stream) {
    *stream << row.title();
}

/* The endings of a process without memory. */
inline const child_result returns = exited(0);
inline const child_result silence = exited(1);
inline const child_result no_memory = exited(255, "No memory!!!\n");

inline child_result returns_after(const std::string &messages) {
    return {0, 0, "", messages};
}

inline child_result named(const std::string &routine) {
    return exited(1, routine + ": Cannot allocate memory\n");
}

/* Runs a row's body, and looks at what it leaves behind. */
inline void run_row(const sweep_row &row, const std::string &directory, const shortage &which) {
    alarm(120);
    std::atexit(scarce_memory::end); // what other libraries do at the end is not looked at
    std::optional<own_network> network;
    if (row.has_own_network)
        network.emplace();
    if (!row.is_cold) {
        trial first(directory, std::nullopt);
        row.run(first);
    }
    trial now(directory, which);
    const std::ptrdiff_t descriptors = count_descriptors();
    const long blocks = scarce_memory::blocks();
    row.run(now);
    if (!row.is_for_good && !row.has_threads && !row.has_others)
        now.expect(scarce_memory::blocks() == blocks);
    now.expect(row.is_for_good || count_descriptors() == descriptors);
}

/* How it ends, and what it keeps where it ends the process. */
inline child_result ending_of(const sweep_row &row, const shortage &which) {
    const temp_dir directory;
    scarce_memory::forget_failures();
    const auto body = [&] { run_row(row, directory.path(), which); };
    child_result ending = row.has_own_processes ? run_with_own_processes(body) : run_in_child(body);
    ending.out.clear();
    if (row.kept && ending.status != 0) {
        EXPECT_EQ(content_of(directory / row.kept->first), row.kept->second);
    }
    return ending;
}

/* Returns how many allocations failed. */
inline int sweep(const sweep_row &row) {
    constexpr int most = 3000;
    std::vector<bool> seen(row.endings.size());
    int failures = 0;
    row.make_ready();
    for (const bool lasts : {false, true})
        for (int n = 1; n < most && !testing::Test::HasFailure(); n++) {
            const child_result ending = ending_of(row, {n, lasts});
            if (scarce_memory::failures() == 0) {
                EXPECT_EQ(ending, row.usual_ending);
                break;
            }
            failures += scarce_memory::failures();
            const auto found = std::find(row.endings.begin(), row.endings.end(), ending);
            if (found != row.endings.end())
                seen[static_cast<std::size_t>(found - row.endings.begin())] = true;
            else
                ADD_FAILURE() << "allocation " << n << (lasts ? " and all that follow: " : ": ")
                              << testing::PrintToString(ending);
        }
    for (std::size_t i = 0; i < seen.size(); i++)
        EXPECT_TRUE(seen[i]) << "never ended: " << testing::PrintToString(row.endings[i]);
    return failures;
}

} // namespace keel_test

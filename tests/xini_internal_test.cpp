/* SPDX-License-Identifier: MIT */
#include "xini.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "allocation_faults.h"
#include "child.h"

namespace {

using keel_test::child_result;
using keel_test::exited;
using keel_test::failing_allocation;
using keel_test::run_in_child;

const child_result no_strings = exited(1, "EMERG-Memory lack.\n");
const child_result no_memory = exited(255, "No memory!!!\n");

constexpr int no_failure = 77;

void load(ini_table &table, const std::string &text) {
    std::string copy = text;
    FILE *file = fmemopen(copy.data(), copy.size(), "r");
    ini_fload(&table, file, "=");
    std::fclose(file);
}

/* Fails one allocation after the other while `further` is loaded onto `present`. */
void expect_endings(const std::string &present, const std::string &further) {
    int without_strings = 0;
    int without_memory = 0;
    for (int n = 1;; n++) {
        const child_result ending = run_in_child([&] {
            ini_table table = {nullptr, 0};
            load(table, present);
            const failing_allocation failing(n);
            load(table, further);
            if (!failing.happened())
                _exit(no_failure);
        });
        if (ending.status == no_failure)
            break;
        EXPECT_TRUE(ending == no_strings || ending == no_memory)
            << n << ": " << testing::PrintToString(ending);
        without_strings += ending == no_strings;
        without_memory += ending == no_memory;
    }
    EXPECT_GE(without_strings, 1);
    EXPECT_GE(without_memory, 1);
}

TEST(XiniMemory, LoadingEndsWithoutIt) {
    expect_endings("\n", "a=1\n[s]\nb=2\nc=3\n");
    expect_endings("\n", "{s}\nb=2\n");
    expect_endings("z=1\n[t]\na=2\n", "a=1\n[s]\nb=2\nc=3\n");
    expect_endings("\n", "a=" + std::string(2000, 'x') + "\n");
}

TEST(XiniMemory, LoadingNothingNeedsNone) {
    EXPECT_EQ(run_in_child([] {
                  ini_table table = {nullptr, 0};
                  const failing_allocation first(1);
                  load(table, "# nothing\n[s]\n");
                  if (!first.happened())
                      _exit(no_failure);
              }),
              exited(no_failure));
}

TEST(XiniMemory, LookingALongKeyUpEndsWithoutIt) {
    EXPECT_EQ(run_in_child([] {
                  ini_table table = {nullptr, 0};
                  load(table, "a=1\n");
                  const failing_allocation first(1);
                  ini_get(&table, std::string(10'000, 'k').c_str());
              }),
              no_memory);
}

} // namespace

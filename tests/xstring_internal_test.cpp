/* SPDX-License-Identifier: MIT */
#include "xstring.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

#include "allocation_faults.h"
#include "child.h"

namespace {

using keel_test::exited;
using keel_test::failing_allocation;
using keel_test::run_in_child;

struct making {
    const char *name;
    char *(*make)();
};

char buffer[8];

const making makers[] = {
    {"strdup_ncat", [] { return strdup_ncat(3, "ab", "cd", nullptr); }},
    {"strdup_cat", [] { return strdup_cat("ab", "cd", nullptr); }},
    {"strdup_catf", [] { return strdup_catf("%d", 5); }},
    {"strdup_insert", [] { return strdup_insert("abc", 1, "x"); }},
    {"strdup_extract1", [] { return strdup_extract1("a=1;b=2", "b", ';', '='); }},
    {"varbind_find", [] { return varbind_find("a=1;b=2", "b", ';', '=', nullptr, 0); }},
};

TEST(XstringMemory, NewStringsAreNullWithoutIt) {
    for (const auto &maker : makers) {
        int failures = 0;
        for (int n = 1;; n++) {
            const failing_allocation failing(n);
            char *made = maker.make();
            if (!failing.happened()) {
                EXPECT_NE(made, nullptr) << maker.name;
                std::free(made);
                break;
            }
            EXPECT_EQ(made, nullptr) << maker.name << " " << n;
            failures++;
        }
        EXPECT_GE(failures, 1) << maker.name;
    }
}

TEST(XstringMemory, AFoundValueNeedsItForTheListAlone) {
    {
        const failing_allocation first(1);
        std::strcpy(buffer, "kept");
        EXPECT_EQ(varbind_find("a=1", "a", ';', '=', buffer, sizeof buffer), nullptr);
        EXPECT_STREQ(buffer, "kept");
    }
    const failing_allocation second(2);
    EXPECT_EQ(varbind_find("a=1", "a", ';', '=', buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "1");
}

TEST(XstringMemory, Strtrim3LeavesTheTextAloneWithoutIt) {
    char text[] = "a b";
    const failing_allocation first(1);
    EXPECT_EQ(strtrim3(text), nullptr);
    EXPECT_STREQ(text, "a b");
}

TEST(XstringMemory, TrimmingInPlaceNeedsNone) {
    char text[] = " a  = b ";
    const failing_allocation first(1);
    EXPECT_EQ(strtrim4(text, '='), text);
    EXPECT_EQ(strtrim1(text), text);
    char *fields[2];
    EXPECT_EQ(str_split(text, "=", fields, 2), 2);
    EXPECT_EQ(strrcmp("ab", "b"), 0);
    EXPECT_FALSE(first.happened());
}

TEST(XstringMemory, AppendingLeavesTheStringAloneWithoutIt) {
    for (int n = 1; n <= 2; n++) {
        char *text = strdup("old");
        char *const before = text;
        {
            const failing_allocation failing(n);
            EXPECT_EQ(astrcatf(&text, "%s", "new"), -1) << n;
            EXPECT_TRUE(failing.happened()) << n;
        }
        EXPECT_EQ(text, before);
        EXPECT_STREQ(text, "old");
        std::free(text);
    }
    char *none = nullptr;
    const failing_allocation first(1);
    EXPECT_EQ(astrcatf(&none, "%s", "new"), -1);
    EXPECT_EQ(none, nullptr);
}

TEST(XstringMemory, ComparingEndsWithoutIt) {
    EXPECT_EQ(run_in_child([] {
                  const failing_allocation first(1);
                  str_startwithf("text", "%s", "t");
              }),
              exited(1));
    EXPECT_EQ(run_in_child([] {
                  const failing_allocation first(1);
                  strcmpf("text", "%s", "t");
              }),
              exited(1));
}

} // namespace

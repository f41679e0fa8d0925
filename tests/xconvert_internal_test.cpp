/* SPDX-License-Identifier: MIT */
#include <climits>
#include <gtest/gtest.h>

#include "digit_string.h"

namespace {

using keel::convert_str2xxx;

TEST(DigitString, HasOneModeForEachBase) {
    char out[] = "----";
    EXPECT_EQ(convert_str2xxx(out, 4, "616a", 1), 2);
    EXPECT_STREQ(out, "\x06\x16--");
    EXPECT_EQ(convert_str2xxx(out, 4, "616a", 2), 2);
    EXPECT_STREQ(out, "aj--");
}

TEST(DigitString, FailsInAnotherModeAtTheFirstCharacter) {
    char out[] = "----";
    for (const int mode : {0, 3, -1, 10, 16, INT_MAX, INT_MIN}) {
        for (const char *text : {"12", "a", "x"})
            EXPECT_EQ(convert_str2xxx(out, 4, text, mode), -1) << mode;
        EXPECT_EQ(convert_str2xxx(out, 4, "", mode), 0) << mode;
        EXPECT_EQ(convert_str2xxx(out, 0, "12", mode), 0) << "no room for any";
    }
    EXPECT_STREQ(out, "----");
}

} // namespace

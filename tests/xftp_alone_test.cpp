/* SPDX-License-Identifier: MIT */
/* A program that does without libcurl, and reaches what needs it all the same: past the macros that
 * would have the linker ask for it. */
#include "xftp.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "temp_dir.h"

namespace {

using keel_test::content_of;
using keel_test::temp_dir;
using keel_test::write_file;

constexpr ftp_opt quiet = {0, 0, 0, 0, 0, nullptr};
constexpr char url[] = "ftp://127.0.0.1:1/file";

TEST(WithoutLibcurl, LoadsNone) {
    EXPECT_EQ(content_of("/proc/self/maps").find("libcurl"), std::string::npos);
}

TEST(WithoutLibcurl, TransfersNothingAndSaysSo) {
    const temp_dir dir;
    const std::string local = dir / "local";
    EXPECT_EQ((ftp_download)(url, local.c_str(), "user", "secret", &quiet), CURLE_GOT_NOTHING);
    EXPECT_EQ(dir.names(), std::vector<std::string>{});
    write_file(local, "some text");
    EXPECT_EQ((ftp_download)(url, local.c_str(), "user", "secret", &quiet), CURLE_GOT_NOTHING);
    EXPECT_EQ((ftp_upload)(url, local.c_str(), "user", "secret", &quiet), CURLE_GOT_NOTHING);
    EXPECT_EQ(content_of(local), "some text");
}

TEST(WithoutLibcurl, SendsNoCommandAndSaysSo) {
    EXPECT_EQ((ftp_command)(url, "user", "secret", &quiet, "NOOP", nullptr), CURLE_QUOTE_ERROR);
    EXPECT_EQ((ftp_rename)(url, "user", "secret", &quiet, "a", "b"), CURLE_QUOTE_ERROR);
}

} // namespace

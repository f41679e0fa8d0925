/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdio>
#include <gtest/gtest.h>
#include <iostream>
#include <utility>

#include "leaves_nothing.h"

namespace keel_test {

/* A test in which nothing is heard of what the library prints. What the test has to say itself is
 * said at its end. */
class Speechless : public LeavesNothing {
  protected:
    ~Speechless() override { speak(); }

    void TearDown() override {
        speak();
        const testing::TestInfo &test = *testing::UnitTest::GetInstance()->current_test_info();
        for (int i = 0; i < test.result()->total_part_count(); i++)
            std::cout << test.result()->GetTestPartResult(i).file_name() << ":"
                      << test.result()->GetTestPartResult(i).line_number() << ": "
                      << test.result()->GetTestPartResult(i).message() << std::endl;
        LeavesNothing::TearDown();
    }

  private:
    void speak() {
        if (nowhere_ == nullptr)
            return;
        stdout = out_;
        stderr = err_;
        std::fclose(std::exchange(nowhere_, nullptr));
    }

    FILE *nowhere_ = std::fopen("/dev/null", "w");
    FILE *out_ = std::exchange(stdout, nowhere_);
    FILE *err_ = std::exchange(stderr, nowhere_);
};

} // namespace keel_test

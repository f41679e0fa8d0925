/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstddef>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>

#include "descriptors.h"
#include "threads.h"
#include "waiting.h"

namespace keel_test {

/* A sanitizer has a thread of its own once there are others. */
inline std::ptrdiff_t count_threads_of_idle_process() {
    std::string path;
    std::jthread([&] { path = "/proc/self/task/" + std::to_string(gettid()); }).join();
    eventually([&] { return !std::filesystem::exists(path); });
    return count_threads();
}

/* Whatever a test starts is gone when it ends, and it does not hang. */
class LeavesNothing : public testing::Test {
  protected:
    void TearDown() override {
        EXPECT_TRUE(eventually([&] { return count_threads() == threads_; }));
        EXPECT_EQ(count_descriptors(), descriptors_);
    }

  private:
    watchdog watchdog_{240};
    std::ptrdiff_t threads_ = count_threads_of_idle_process();
    std::ptrdiff_t descriptors_ = count_descriptors();
};

} // namespace keel_test

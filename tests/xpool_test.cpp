/* SPDX-License-Identifier: MIT */
#include "xpool.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>

namespace {

TEST(PoolCreate, CountsAllFirstWorkersAsIdle) {
    pool sizes{};
    ASSERT_EQ(pool_create(&sizes, 10, 21), 0);
    EXPECT_EQ(sizes.total, 10U);
    EXPECT_EQ(sizes.max, 21U);
    EXPECT_EQ(sizes.min, 10U);
    EXPECT_EQ(sizes.idle, 10U);
    EXPECT_EQ(sizes.high, 6U);
    EXPECT_EQ(sizes.low, 3U);
    EXPECT_EQ(sizes.step, 3U);
}

TEST(PoolCreate, RefusesTooFewAndTheWrongWayRound) {
    const struct {
        std::uint64_t min;
        std::uint64_t max;
        int result;
    } rows[] = {{0, 0, -1},
                {5, 10, -1},
                {6, 5, -1},
                {7, 6, -1},
                {6, 6, 0},
                {6, 7, 0},
                {UINT64_MAX, UINT64_MAX, 0},
                {UINT64_MAX, 6, -1}};
    for (const auto &row : rows) {
        pool sizes;
        std::memset(&sizes, 0x5a, sizeof sizes);
        const pool before = sizes;
        EXPECT_EQ(pool_create(&sizes, row.min, row.max), row.result) << row.min << " " << row.max;
        if (row.result == -1) {
            EXPECT_EQ(std::memcmp(&sizes, &before, sizeof sizes), 0) << "touched";
        }
    }
    EXPECT_EQ(pool_create(nullptr, 6, 12), -1);
}

TEST(Pool, FieldsStandInTheirOrder) {
    EXPECT_EQ(sizeof(pool), 7 * sizeof(std::uint64_t));
    const std::size_t offsets[] = {offsetof(pool, total), offsetof(pool, max),  offsetof(pool, min),
                                   offsetof(pool, idle),  offsetof(pool, high), offsetof(pool, low),
                                   offsetof(pool, step)};
    for (std::size_t i = 0; i < 7; i++)
        EXPECT_EQ(offsets[i], i * sizeof(std::uint64_t));
}

TEST(PoolResize, FollowsTheWatermarks) {
    const struct {
        std::uint64_t min;
        std::uint64_t max;
        std::uint64_t total;
        std::uint64_t idle;
        std::int32_t delta;
    } rows[] = {
        {6, 6, 6, 0, 0}, // never above max
        {6, 6, 6, 1, 0},
        {6, 6, 6, 6, 0},   // nor below min
        {6, 12, 6, 1, 2},  // below low
        {6, 12, 6, 2, 0},  // at low
        {6, 12, 6, 4, 0},  // at high
        {6, 12, 6, 5, 0},  // above high, but as few as there may be
        {6, 12, 8, 5, -2}, // above high
        {6, 12, 7, 5, -1}, // no fewer than min
        {6, 12, 10, 0, 2},
        {6, 12, 11, 0, 1}, // no more than max
        {6, 12, 12, 0, 0},
        {9, 20, 19, 1, 1},
        {9, 20, 10, 7, -1},
        {9, 20, 9, 2, 3},
        {9, 20, 9, 3, 0},
        {9, 20, 15, 6, 0},
        {9, 20, 15, 7, -3},
        {6, 12, 8, UINT64_MAX, -2}, // the counts are unsigned
        {6, 12, 12, UINT64_MAX - 2, -2},
        {6, 12, 13, 0, 0}, // beyond max: nothing to add
        {6, 12, 5, 5, 0},  // below min: nothing to retire
        {6, 12, 1, 5, -2}, // total less step is below 0, which is a very large number
    };
    for (const auto &row : rows) {
        pool sizes{};
        ASSERT_EQ(pool_create(&sizes, row.min, row.max), 0);
        sizes.total = row.total;
        sizes.idle = row.idle;
        const pool before = sizes;
        EXPECT_EQ(pool_resize(&sizes), row.delta)
            << row.min << " " << row.max << " " << row.total << " " << row.idle;
        EXPECT_EQ(std::memcmp(&sizes, &before, sizeof sizes), 0) << "changed";
    }
    EXPECT_EQ(pool_resize(nullptr), 0);
}

} // namespace

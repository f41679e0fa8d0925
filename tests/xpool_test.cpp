/* SPDX-License-Identifier: MIT */
#include "xpool.h"

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <ostream>
#include <type_traits>
#include <vector>

namespace {

constexpr std::uint64_t most = UINT64_MAX;

using fields = std::vector<std::uint64_t>;

fields fields_of(const pool &sizes) {
    return {sizes.total, sizes.max, sizes.min, sizes.idle, sizes.high, sizes.low, sizes.step};
}

pool created(std::uint64_t min, std::uint64_t max) {
    pool sizes{};
    EXPECT_EQ(pool_create(&sizes, min, max), 0);
    return sizes;
}

TEST(Pool, RecordHasItsFieldsInPlace) {
    const std::size_t offsets[] = {offsetof(pool, total), offsetof(pool, max),  offsetof(pool, min),
                                   offsetof(pool, idle),  offsetof(pool, high), offsetof(pool, low),
                                   offsetof(pool, step),  sizeof(pool)};
    std::size_t expected = 0;
    for (const std::size_t offset : offsets) {
        EXPECT_EQ(offset, expected);
        expected += sizeof(std::uint64_t);
    }
}

TEST(Pool, ResultsAreSigned32BitNumbers) {
    static_assert(std::is_same_v<decltype(pool_create(nullptr, 0, 0)), int>);
    static_assert(std::is_same_v<decltype(pool_resize(nullptr)), std::int32_t>);
}

TEST(PoolCreate, SetsEveryField) {
    const struct {
        std::uint64_t min, max;
        fields expected; // total, max, min, idle, high, low, step
    } rows[] = {
        {6, 6, {6, 6, 6, 6, 4, 2, 2}},
        {6, 7, {6, 7, 6, 6, 4, 2, 2}},
        {7, 100, {7, 100, 7, 7, 4, 2, 2}},
        {8, 8, {8, 8, 8, 8, 4, 2, 2}},
        {9, 20, {9, 20, 9, 9, 6, 3, 3}},
        {10, 20, {10, 20, 10, 10, 6, 3, 3}},
        {1'000, most, {1'000, most, 1'000, 1'000, 666, 333, 333}},
        {most, most, {most, most, most, most, most / 3 * 2, most / 3, most / 3}},
    };
    for (const auto &row : rows) {
        pool sizes = {most, most, 0, 0, most, 0, most};
        EXPECT_EQ(pool_create(&sizes, row.min, row.max), 0);
        EXPECT_EQ(fields_of(sizes), row.expected);
    }
}

TEST(PoolCreate, RefusesFewerThanSixAndLeavesTheRecordAlone) {
    const struct {
        std::uint64_t min, max;
    } rows[] = {
        {0, 0}, {0, most}, {1, 6},   {5, 5},    {5, 20},          {5, most},
        {6, 5}, {6, 0},    {20, 19}, {most, 6}, {most, most - 1},
    };
    for (const auto &row : rows) {
        pool sizes = {1, 2, 3, 4, 5, 6, 7};
        EXPECT_EQ(pool_create(&sizes, row.min, row.max), -1) << row.min << ' ' << row.max;
        EXPECT_EQ(fields_of(sizes), (fields{1, 2, 3, 4, 5, 6, 7}));
    }
}

TEST(Pool, RefusesNull) {
    EXPECT_EQ(pool_create(nullptr, 6, 6), -1);
    EXPECT_EQ(pool_resize(nullptr), 0);
}

struct resize_row {
    std::uint64_t min, max, total, idle;
    std::int32_t delta;
};

std::ostream &operator<<(std::ostream &stream, const resize_row &row) {
    return stream << "min " << row.min << ", max " << row.max << ", total " << row.total
                  << ", idle " << row.idle;
}

void expect_delta(const resize_row &row) {
    pool sizes = created(row.min, row.max);
    sizes.total = row.total;
    sizes.idle = row.idle;
    const fields before = fields_of(sizes);
    EXPECT_EQ(pool_resize(&sizes), row.delta) << row;
    EXPECT_EQ(fields_of(sizes), before) << row;
}

TEST(PoolResize, AddsWhereTooFewAreIdle) {
    const resize_row rows[] = {
        {9, 20, 9, 2, 3},
        {9, 20, 9, 0, 3},
        {9, 20, 16, 2, 3},
        {9, 20, 17, 2, 3}, // up to the maximum
        {9, 20, 18, 2, 2}, // no further
        {9, 20, 19, 1, 1},
        {9, 20, 20, 0, 0},
        {9, 20, 21, 0, 0}, // above the maximum none is added
        {9, 20, 1'000, 2, 0},
        {9, 20, 0, 0, 3},
        {6, 6, 6, 0, 0},
        {6, 6, 6, 1, 0},
        {6, 7, 6, 1, 1},
        {6, 8, 6, 1, 2},
        {6, 9, 6, 1, 2},
        {3'000, 3'999, 3'000, 999, 999},
        {3'000, 5'000, 3'000, 999, 1'000},
    };
    for (const auto &row : rows)
        expect_delta(row);
}

TEST(PoolResize, RetiresWhereTooManyAreIdle) {
    const resize_row rows[] = {
        {9, 20, 20, 7, -3},
        {9, 20, 20, 20, -3},
        {9, 20, 13, 7, -3},
        {9, 20, 12, 7, -3}, // down to the minimum
        {9, 20, 11, 7, -2}, // no further
        {9, 20, 10, 7, -1},
        {9, 20, 9, 7, 0},
        {9, 20, 9, 9, 0},
        {9, 20, 8, 7, 0}, // below the minimum none is retired
        {9, 20, 3, 7, 0},
        {9, 20, 1'000, 7, -3},
        {6, 6, 6, 6, 0},
        {6, 6, 7, 5, -1},
        {6, 6, 8, 5, -2},
        {6, 6, 9, 5, -2},
        {3'000, 5'000, 4'999, 2'001, -1'000},
        {3'000, 5'000, 3'999, 2'001, -999},
    };
    for (const auto &row : rows)
        expect_delta(row);
}

TEST(PoolResize, LeavesThePoolAloneBetweenTheWatermarks) {
    for (const std::uint64_t total : {0U, 3U, 9U, 12U, 20U, 21U})
        for (const std::uint64_t idle : {3U, 4U, 5U, 6U})
            expect_delta({9, 20, total, idle, 0});
    for (const std::uint64_t idle : {2U, 3U, 4U})
        expect_delta({6, 100, 50, idle, 0});
}

/* A counter that was taken below 0 is a very large one. */
TEST(PoolResize, ComparesWithoutSign) {
    const resize_row rows[] = {
        {9, 20, 20, most, -3},     {9, 20, 10, most, -1},
        {9, 20, 9, most, 0},       {9, 20, 20, most - 5, -3},
        {9, 20, 2, most, -3}, // 2 less 3 is not below the minimum
        {9, 20, 0, most, -3},      {9, 20, most, 7, -3},
        {9, 20, most, 0, 3}, // and this one plus 3 not above the maximum
        {9, 20, most - 2, 0, 3},   {9, 20, most - 3, 0, 24}, // from 4 below 0 up to the maximum
        {9, most, 9, 0, 3},        {9, most, most - 3, 0, 3},
        {9, most, most - 1, 2, 3}, {9, most, most, 2, 3},
    };
    for (const auto &row : rows)
        expect_delta(row);
}

/* Of all pools of a small size. */
TEST(PoolResize, NeverLeavesTheBoundsNorTakesALargerStep) {
    for (std::uint64_t min = 6; min <= 15; min++)
        for (std::uint64_t max = min; max <= min + 12; max++)
            for (std::uint64_t total = min; total <= max; total++)
                for (std::uint64_t idle = 0; idle <= total; idle++) {
                    pool sizes = created(min, max);
                    sizes.total = total;
                    sizes.idle = idle;
                    const std::int64_t delta = pool_resize(&sizes);
                    const auto step = static_cast<std::int64_t>(sizes.step);
                    const std::int64_t after = static_cast<std::int64_t>(total) + delta;
                    ASSERT_LE(-step, delta);
                    ASSERT_LE(delta, step);
                    ASSERT_LE(static_cast<std::int64_t>(min), after);
                    ASSERT_LE(after, static_cast<std::int64_t>(max));
                    ASSERT_EQ(delta > 0, idle < sizes.low && total < max);
                    ASSERT_EQ(delta<0, idle> sizes.high && total > min);
                }
}

/* Workers that only wait are retired down to the minimum; where all are busy it grows to the
 * maximum. */
TEST(PoolResize, ComesToRest) {
    for (const std::uint64_t busy : {0U, 40U})
        for (std::uint64_t start = 9; start <= 40; start++) {
            pool sizes = created(9, 40);
            sizes.total = start;
            std::int32_t delta = 1;
            for (int rounds = 0; delta != 0; rounds++) {
                ASSERT_LT(rounds, 40);
                sizes.idle = sizes.total > busy ? sizes.total - busy : 0;
                delta = pool_resize(&sizes);
                sizes.total += static_cast<std::uint64_t>(static_cast<std::int64_t>(delta));
            }
            EXPECT_EQ(sizes.total, busy == 0 ? 9U : 40U);
        }
}

} // namespace

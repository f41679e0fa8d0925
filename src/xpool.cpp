/* SPDX-License-Identifier: MIT */
#include "xpool.h"

#include <cstdint>

int pool_create(pool *sizes, std::uint64_t min, std::uint64_t max) {
    if (sizes == nullptr || min < 6 || max < min)
        return -1;
    const std::uint64_t step = min / 3;
    *sizes = {.total = min,
              .max = max,
              .min = min,
              .idle = min,
              .high = 2 * step,
              .low = step,
              .step = step};
    return 0;
}

std::int32_t pool_resize(const pool *sizes) {
    if (sizes == nullptr)
        return 0;
    const auto &[total, max, min, idle, high, low, step] = *sizes;
    if (idle < low) {
        const auto added = static_cast<std::int32_t>(total + step > max ? max - total : step);
        return added > 0 ? added : 0;
    }
    if (idle > high) {
        const auto retired = static_cast<std::int32_t>(total - step < min ? total - min : step);
        return retired > 0 ? -retired : 0;
    }
    return 0;
}

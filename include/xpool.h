/* SPDX-License-Identifier: MIT */
/**
 * @file xpool.h
 * @brief How many workers a thread pool should have: the rules that the pool of xthread.h follows.
 *
 * The functions compute and nothing more: whoever owns the record starts and retires the workers,
 * and keeps `total` and `idle` up to date under a lock of its own.
 *
 * @code{.c}
 * #include <xpool.h>
 *
 * int main(void) {
 *     pool sizes;
 *     if (pool_create(&sizes, 9, 20) != 0)
 *         return 1;
 *     sizes.idle = 2; // fewer than the low watermark, 3
 *     return pool_resize(&sizes) == 3 ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XPOOL_H
#define KEEL_XPOOL_H

#include <stdint.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** The workers of a pool, counted. The caller owns the record. */
typedef struct pool {
    uint64_t total; /**< workers that exist or are being created */
    uint64_t max;   /**< upper bound of `total` */
    uint64_t min;   /**< lower bound of `total` */
    uint64_t idle;  /**< workers that wait for work */
    uint64_t high;  /**< above so many idle ones, workers are retired: 2 * `step` */
    uint64_t low;   /**< below so many idle ones, workers are added: `step` */
    uint64_t step;  /**< workers that one adjustment adds or retires at most: `min` / 3 */
} pool;

/**
 * Fills the record for a pool of `min` workers, all idle, that may grow to `max`. Returns 0; -1,
 * with the record untouched, where it is null, `min` is below 6 or `max` below `min`.
 */
KEEL_API int pool_create(pool *sizes, uint64_t min, uint64_t max);

/**
 * By how many workers the pool should change: so many to add where positive, to retire where
 * negative; 0 for null. The record is only read.
 */
KEEL_API int32_t pool_resize(const pool *sizes);

KEEL_END_DECLS

#endif

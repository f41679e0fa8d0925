/* SPDX-License-Identifier: MIT */
/**
 * @file xfsproc.h
 * @brief System status from /proc: how busy the processors are, memory, swap, uptime.
 *
 * One record for the process, `ss`, refreshed by get_system_stat(). For one thread only: the record
 * and the files kept open behind it are unguarded by design. Those files are close-on-exec.
 *
 * @code{.c}
 * #include <stdio.h>
 * #include <xfsproc.h>
 *
 * int main(void) {
 *     get_system_stat();
 *     printf("%s %.1f%%, memory %.1f%%, up %.0f s\n", ss.cpu[0].name, ss.cpu[0].usage,
 * ss.mem_usage, ss.uptime); return ss.ncpu >= 2 && ss.mem_total > 0 ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XFSPROC_H
#define KEEL_XFSPROC_H

#include <stdint.h>

#include "keel_export.h"

KEEL_BEGIN_DECLS

/** The nine counters of a processor line, in ticks, in the file's order. */
enum {
    CPU_USER,
    CPU_NICE,
    CPU_SYSTEM,
    CPU_IDLE,
    CPU_IOWAIT,
    CPU_IRQ,
    CPU_SOFTIRQ,
    CPU_STEAL,
    CPU_GUEST,
    CPU_COUNTERS
};

/** A counter now and at the call before. */
typedef struct cpu_counter {
    uint64_t cur;
    uint64_t prev;
} cpu_counter;

/** One processor line. */
typedef struct cpu_usage {
    char name[32]; /**< "cpu" for all processors together, "cpu0", "cpu1", ... */
    double usage;  /**< percentage not idle since the call before; since boot at the first */
    cpu_counter counters[CPU_COUNTERS];
    int64_t delta[CPU_COUNTERS]; /**< ticks since the call before; never negative */
    int64_t total;               /**< sum of `delta`, at least 1 */
} cpu_usage;

/** Processor lines that a snapshot holds. */
#define SYS_STAT_CPUS 128

/** The snapshot. Memory figures are in kB. */
typedef struct sys_stat {
    uint64_t nprocessors;         /**< processors in /proc/cpuinfo, counted at the first call */
    uint64_t ncpu;                /**< processor lines in `cpu`; entries behind them are stale */
    cpu_usage cpu[SYS_STAT_CPUS]; /**< [0] all processors together, then one each */
    double uptime;                /**< seconds since boot */
    double idle;                  /**< idle seconds of all processors, summed */
    double mem_usage;             /**< percentage used */
    double swap_usage;            /**< percentage used; not a number where there is no swap */
    uint64_t mem_total;
    uint64_t mem_free;
    uint64_t mem_used; /**< total less free, buffers and cached */
    uint64_t buffers;
    uint64_t cached;
    uint64_t swap_total;
    uint64_t swap_free;
    uint64_t swap_used;
    uint64_t swap_cached;
} sys_stat;

/** The snapshot that get_system_stat() refreshes; all zero before the first call. */
extern KEEL_API sys_stat ss;

/**
 * Refreshes `ss`. Returns 0. Ends the process with status 1, without a word, where a kernel file
 * cannot be opened, the uptime or a processor line cannot be understood, or there are more than 128
 * processor lines; figures that a file does not hold keep their former values.
 */
KEEL_API int get_system_stat(void);

KEEL_END_DECLS

#endif

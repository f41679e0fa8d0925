/* SPDX-License-Identifier: MIT */
/**
 * @file xfsproc.h
 * @brief The state of the machine and of its processes, from /proc; a watch over named processes.
 *
 * - Readers that turn one kernel file each into a record of the caller's: uptime, processors,
 *   memory, network interfaces, disks, mounted file systems.
 * - A snapshot of the whole machine, `ss`, which get_system_stat() refreshes: percentages over the
 *   time since the call before.
 * - Processes: who has a file open, which processes run a program, what they use; pkill().
 * - A monitor: a list of processes, by name, that are told apart as running, started, restarted and
 *   stopped, and can be started and stopped.
 *
 * Any thread may call the readers and the process functions, on records and streams of its own. The
 * snapshot is for one thread only: the record and the files kept open behind it are unguarded by
 * design. Those files are close-on-exec. A monitor is for one thread at a time.
 *
 * Memory that runs out for a line ends the process as xstdio.h says, for an item of a monitor or a
 * stream of the snapshot as xmemory.h does. Where /proc itself cannot be read, the functions that
 * look through all processes end the process with status 1, without a word, and so does
 * get_system_stat(). Everything else is a result. A line of a kernel file that is not as expected
 * is no failure unless the function says so: what it does not tell is 0, or stays as it was in a
 * record that is not cleared. A name that is longer than its field is cut.
 *
 * @code{.c}
 * #include <stdio.h>
 * #include <unistd.h>
 * #include <xfsproc.h>
 *
 * int main(void) {
 *     static proc_stat self; // zeroed, as all these records are to be before their first use
 *     static net_dev_stat interfaces[8];
 *     get_system_stat();
 *     printf("%s %.1f%%, memory %.1f%%, up %.0f s\n", ss.cpu[0].name, ss.cpu[0].usage,
 *            ss.mem_usage, ss.uptime);
 *     if (get_stat_by_pid(getpid(), &self) != 0)
 *         return 1;
 *     get_process_stat(&self, &ss, 1);
 *     printf("this process: %.1f%% of the memory\n", self.mem_usage);
 *     return net_dev(NULL, interfaces, 8, NULL, 0) >= 0 && ss.ncpu >= 2 ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XFSPROC_H
#define KEEL_XFSPROC_H

#include <mntent.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/statfs.h>
#include <sys/types.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/**
 * @name Readers
 *
 * Those that take a stream read it from its beginning again, fresh from the kernel, and leave it
 * open: one that is kept saves opening the file each time. With a null stream they open the file
 * themselves; one that cannot be rewound is read from where it is. All give -1, and touch nothing,
 * where the record or number to fill is null or the file cannot be opened.
 *
 * net_dev() and diskstats() return how many they count, which may be more than the array's
 * capacity; fstab() does not go beyond it. A null array has no capacity, and so is only counted
 * for.
 * @{
 */

/** How long the system is up. */
typedef struct uptime_val {
    int64_t sec;  /**< whole seconds */
    int64_t nsec; /**< the kernel's hundredths times 1000000: a tenth of the true value */
} uptime_val;

/** When the system was started, on the wall clock. */
typedef struct boot_time {
    int64_t sec;  /**< seconds since the epoch */
    int64_t nsec; /**< and nanoseconds */
} boot_time;

/** Ticks that all processors together have spent. What an old kernel does not tell is 0. */
typedef struct cpu_stat {
    uint64_t user;    /**< in user mode */
    uint64_t nice;    /**< in user mode, with a priority lowered */
    uint64_t system;  /**< in the kernel */
    uint64_t idle;    /**< idle */
    uint64_t iowait;  /**< idle, with requests to disks outstanding */
    uint64_t irq;     /**< on interrupts */
    uint64_t softirq; /**< on what interrupts leave for later */
    uint64_t steal;   /**< wanted, while the hypervisor ran others */
    uint64_t guest;   /**< for guest systems; `user` counts it too */
} cpu_stat;

/** Memory, in kB. */
typedef struct mem_stat {
    uint64_t buffers;    /**< buffers of block devices */
    uint64_t cached;     /**< the page cache */
    uint64_t mem_free;   /**< memory that nothing uses */
    uint64_t mem_total;  /**< all memory */
    uint64_t mem_used;   /**< total less free: buffers and the cache count as used */
    uint64_t swap_free;  /**< swap space that nothing uses */
    uint64_t swap_total; /**< all swap space */
    uint64_t swap_used;  /**< total less free */
} mem_stat;

/** A network interface. Zero it before the first use. */
typedef struct net_dev_stat {
    uint64_t rx_bytes;   /**< bytes received */
    uint64_t rx_packets; /**< packets received */
    uint64_t tx_bytes;   /**< bytes sent */
    uint64_t tx_packets; /**< packets sent */
    char name[16];       /**< its name */
    uint16_t flags;      /**< IFF_UP and others */
    uint32_t prev_state; /**< what `state` was before */
    uint32_t state;      /**< 1: running, 2: not running, 0: never looked at */
    uint32_t addr;       /**< IPv4 address in network byte order; 0 where it is not running */
    uint32_t netmask;    /**< likewise */
} net_dev_stat;

/** A whole disk. */
typedef struct disk_stat {
    uint32_t major;           /**< major number of the device */
    uint32_t minor;           /**< minor number */
    uint64_t reads;           /**< reads completed */
    uint64_t reads_merged;    /**< reads that became part of others */
    uint64_t sectors_read;    /**< sectors read, of 512 bytes */
    uint64_t read_ms;         /**< milliseconds that the reads took, summed */
    uint64_t writes;          /**< writes completed */
    uint64_t writes_merged;   /**< writes that became part of others */
    uint64_t sectors_written; /**< sectors written, of 512 bytes */
    uint64_t write_ms;        /**< milliseconds that the writes took, summed */
    uint64_t io_ms;           /**< milliseconds in which it was busy */
    uint64_t weighted_io_ms;  /**< milliseconds that requests were under way, summed */
    char name[256];           /**< its name, such as sda */
} disk_stat;

/** A mounted file system. Not to be copied: `ent` points into `strbuf`. */
typedef struct mount_stat {
    struct statfs fs;  /**< what statfs() tells */
    struct mntent ent; /**< its line of the table */
    char strbuf[1024]; /**< a longer line of the table is cut */
} mount_stat;

/** Reads /proc/uptime. Returns 0; -1 also where it does not hold a number with a fraction. */
KEEL_API int uptime1(uptime_val *out);

/** The wall clock less uptime1(). Returns 0; -1 where one of them fails. */
KEEL_API int boottime1(boot_time *out);

/** Counts the processors of /proc/cpuinfo. Returns 0 or -1. */
KEEL_API int cpuinfo(FILE *fp, uint64_t *count);

/** Reads the ticks of all processors together from /proc/stat. Returns 0 or -1. */
KEEL_API int cpustat(FILE *fp, cpu_stat *out);

/** Reads /proc/meminfo; what it does not hold is 0. Returns 0 or -1. */
KEEL_API int meminfo(FILE *fp, mem_stat *out);

/**
 * Reads traffic, state and address of the interfaces in /proc/net/dev: of all whose line holds no
 * "lo", so not of "lo" itself, and not of "wlo1" either. With `nnames` > 0 only of those that are
 * called exactly like one of `names`; interfaces behind the `cap`-th are counted whatever they are
 * called. A null array of names has none, and null entries are passed over.
 *
 * The records are not cleared: given again, each tells the state that it held before, of whichever
 * interface, and what the system does not tell keeps its former value, as does the address of a
 * running interface that has none. With `names` the record behind the last one may hold name and
 * traffic of an interface that was left out. What xnet.h cannot find out it explains on standard
 * error.
 */
KEEL_API int net_dev(FILE *fp, net_dev_stat *arr, size_t cap, char **names, size_t nnames);

/**
 * Reads name and traffic of one interface, "lo" and others alike, and nothing else of the record.
 * Returns 0; -1 also where there is no such interface or the name is null.
 */
KEEL_API int net_dev_info(FILE *fp, const char *ifname, net_dev_stat *out);

/**
 * Reads the counters of the whole IDE and SCSI disks in /proc/diskstats that were ever read from:
 * partitions and everything else, such as NVMe, virtio and device mapper, are left out. Clears the
 * array first.
 */
KEEL_API int diskstats(FILE *fp, disk_stat *arr, size_t cap);

/**
 * Reads the mounted file systems that have blocks from /etc/mtab, and what statfs() tells of them.
 * Returns how many records are filled; with `cap` 0, how many there are; -1 where the table cannot
 * be opened. The record behind the last one, if there is room for one, is cleared. Waits for a file
 * server that does not answer, and is not cancelled meanwhile.
 */
KEEL_API int fstab(mount_stat *arr, size_t cap);

/** @} */

/**
 * @name The snapshot
 * @{
 */

/** The nine counters of a processor line, in ticks, in the file's order. */
enum {
    CPU_USER,    /**< as cpu_stat.user */
    CPU_NICE,    /**< as cpu_stat.nice */
    CPU_SYSTEM,  /**< as cpu_stat.system */
    CPU_IDLE,    /**< as cpu_stat.idle */
    CPU_IOWAIT,  /**< as cpu_stat.iowait */
    CPU_IRQ,     /**< as cpu_stat.irq */
    CPU_SOFTIRQ, /**< as cpu_stat.softirq */
    CPU_STEAL,   /**< as cpu_stat.steal */
    CPU_GUEST,   /**< as cpu_stat.guest */
    CPU_COUNTERS /**< how many there are */
};

/** A counter now and at the call before. */
typedef struct cpu_counter {
    uint64_t cur;  /**< now */
    uint64_t prev; /**< at the call before */
} cpu_counter;

/** One processor line. */
typedef struct cpu_usage {
    char name[32]; /**< "cpu" for all processors together, "cpu0", "cpu1", ... */
    double usage;  /**< percentage not idle since the call before; since boot at the first */
    cpu_counter counters[CPU_COUNTERS]; /**< the line's numbers */
    int64_t delta[CPU_COUNTERS];        /**< ticks since the call before; never negative */
    int64_t total;                      /**< sum of `delta`, at least 1 */
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
    uint64_t mem_total;           /**< all memory */
    uint64_t mem_free;            /**< memory that nothing uses */
    uint64_t mem_used;            /**< total less free, buffers and cached */
    uint64_t buffers;             /**< buffers of block devices */
    uint64_t cached;              /**< the page cache */
    uint64_t swap_total;          /**< all swap space */
    uint64_t swap_free;           /**< swap space that nothing uses */
    uint64_t swap_used;           /**< total less free */
    uint64_t swap_cached;         /**< memory that is in swap space as well */
} sys_stat;

/** The snapshot that get_system_stat() refreshes; all zero before the first call. */
extern KEEL_API sys_stat ss;

/**
 * Refreshes `ss`. Returns 0. Ends the process with status 1, without a word, where a kernel file
 * cannot be opened, the uptime or a processor line cannot be understood, or there are more than 128
 * processor lines; figures that a file does not hold keep their former values.
 */
KEEL_API int get_system_stat(void);

/** @} */

/**
 * @name Processes
 *
 * Processes come and go while they are looked at: one that is gone halfway through is none, and so
 * is one that there is no memory to look at. Those of other users may be hidden from a caller
 * without the right to look at them. Where an array of process identifiers is filled, the result is
 * the number found, which may be more than its capacity; a null array has no capacity.
 * @{
 */

/**
 * What the scheduler knows of a process. Zero it before the first use; a record that is read again
 * holds the ticks spent in between.
 */
typedef struct proc_stat {
    uint32_t state;       /**< a letter: 'R' runs, 'S' sleeps, 'Z' has ended */
    int32_t ppid;         /**< its parent */
    int32_t pgrp;         /**< its process group */
    int32_t session;      /**< its session */
    int32_t tty_nr;       /**< its terminal, or 0 */
    int32_t tpgid;        /**< the process group in the foreground of that terminal, or -1 */
    uint32_t flags;       /**< the kernel's flags */
    uint64_t minflt;      /**< page faults served without reading from a disk */
    uint64_t cminflt;     /**< those of children that have ended */
    uint64_t majflt;      /**< page faults that a page was read for */
    uint64_t cmajflt;     /**< those of children that have ended */
    uint64_t utime;       /**< in user mode; ticks, as all times here */
    uint64_t prev_utime;  /**< `utime` at the reading before */
    uint64_t stime;       /**< in the kernel */
    uint64_t prev_stime;  /**< `stime` at the reading before */
    int64_t cutime;       /**< in user mode, of children that have ended */
    int64_t prev_cutime;  /**< `cutime` at the reading before */
    int64_t cstime;       /**< in the kernel, of children that have ended */
    int64_t prev_cstime;  /**< `cstime` at the reading before */
    int64_t priority;     /**< as the kernel schedules it */
    int64_t nice;         /**< 19, the most yielding, to -20 */
    int64_t num_threads;  /**< its threads */
    int64_t itrealvalue;  /**< unused, 0 */
    uint64_t starttime;   /**< when it was started: ticks after boot */
    uint64_t vsize;       /**< its address space, in bytes */
    int64_t rss;          /**< its memory, in pages */
    int64_t delta_utime;  /**< `utime` since the reading before, never negative */
    int64_t delta_stime;  /**< likewise */
    int64_t delta_cutime; /**< likewise */
    int64_t delta_cstime; /**< likewise */
    int64_t delta_total;  /**< their sum */
    double cpu_usage;     /**< percentage; get_process_stat() sets it, and what follows */
    double mem_usage;     /**< percentage */
    uint64_t run_seconds; /**< since the process was started */
} proc_stat;

/** A process as it was found. */
typedef struct proc_info {
    char name[256];      /**< the base name of the command line's first word */
    char cwd[1024];      /**< its directory */
    char exe[1024];      /**< its program file */
    char cmdline[2048];  /**< its arguments, with a blank between each two */
    uint32_t state;      /**< as in proc_stat */
    int32_t pid;         /**< its identifier */
    uint64_t start_time; /**< seconds since the epoch */
} proc_info;

/**
 * Finds the processes that have the file `path` open, each of which counts once. -1 where the path
 * cannot be resolved.
 */
KEEL_API int fuser(const char *path, pid_t *pids, size_t cap);

/** 1 where a process has the file `path` open, 0 where none has; -1 as fuser(). */
KEEL_API int finuse(const char *path);

/**
 * Reads a process's command line, its arguments joined by blanks, into `buf` of `size` bytes. It is
 * empty for a kernel thread. Returns `buf`; null after one of these on standard error:
 *
 * - "get_cmdline_by_pid: illegal parameter.": `pid` < 1, `buf` null or `size` 0
 * - "get_cmdline_by_pid OPEN: " and the system's reason, as for a process that is gone
 * - "get_cmdline_by_pid READ: " and the system's reason
 * - "get_cmdline_by_pid READ: buffer too small.": what was read is left in `buf`, unterminated
 */
KEEL_API char *get_cmdline_by_pid(pid_t pid, char *buf, size_t size);

/**
 * Reads /proc/PID/stat. Returns 0; 1 where its line is not understood to the end, as of a program
 * whose name holds a ')', and then the fields behind that place keep their values; -1 where there
 * is no such process, its program's name holds a newline, or `st` is null.
 */
KEEL_API int get_stat_by_pid(pid_t pid, proc_stat *st);

/**
 * Takes a snapshot of a process. Returns 0; -1, with `out` untouched, where one of its parts cannot
 * be had: for a process that is gone, kernel threads, processes of others, one whose command line
 * is longer than the record, one whose program's name holds a ')' or a newline. For a command line
 * it may say why, as get_cmdline_by_pid().
 */
KEEL_API int proc_snapshot(pid_t pid, proc_info *out);

/**
 * Whether a process is called `name`: 0 where it is, -1 where not. That is its exact name, but for
 * "java": there the rest of the command line behind " -jar ", which must not be empty, must equal
 * `name`, or, without a " -jar ", " NAME" must occur in it.
 */
KEEL_API int pname_cmp(const proc_info *p, const char *name);

/**
 * Finds the processes that pname_cmp() says are called `name`, the caller's own among them, as far
 * as proc_snapshot() can take them; it may say why not.
 */
KEEL_API int find_pid_by_name(const char *name, pid_t *pids, size_t cap);

/**
 * Sends each process that is called `name` SIGTERM, SIGINT, SIGHUP and SIGKILL, one directly behind
 * the other: it is given no time. Returns how many there were, whether they could be signalled or
 * not.
 */
KEEL_API int pkill(const char *name);

/**
 * Sets `run_seconds`, `mem_usage` and `cpu_usage` of a process that get_stat_by_pid() read, against
 * a snapshot that get_system_stat() took, `ss`. Mode 0: the percentage of one processor between the
 * two last readings of both, which may be more than 100 for a process of several threads. Mode 1:
 * that since the process was started, 0 in its first second. Any other: 0. Children that have ended
 * count too. Returns 0; null arguments change nothing. A process younger than the snapshot has
 * `run_seconds` near 2^64; against a snapshot that was never taken the percentages are no numbers.
 */
KEEL_API int get_process_stat(proc_stat *st, const sys_stat *sys, int mode);

/** @} */

/**
 * @name The monitor
 * @{
 */

/** Whether a watched process runs: what proc_run_status() gives. */
enum {
    PROC_UNKNOWN,    /**< before the first refresh */
    PROC_RESTARTED,  /**< runs under another identifier than at the refresh before */
    PROC_STARTED,    /**< runs, and did not before */
    PROC_STOPPED,    /**< does not run, and did before */
    PROC_RUNNING,    /**< runs as before */
    PROC_NOT_RUNNING /**< does not run, nor did before */
};

/** What proc_monitor_operate() does. */
enum {
    PROC_OP_RESTART, /**< stops it where it runs, and starts it */
    PROC_OP_START,   /**< starts it */
    PROC_OP_STOP,    /**< stops it */
    PROC_OP_CREATE,  /**< adds it to the list */
    PROC_OP_REMOVE   /**< takes it off the list */
};

/** Messages of proc_monitor_operate()'s results. */
extern KEEL_API const char *const proc_operate_error_message[11];

/** A watched process. */
typedef struct proc_monitor_item {
    char name[256];      /**< what pname_cmp() is asked for */
    proc_info info;      /**< as last found; at first only its configured `cwd` and `cmdline` */
    uint32_t run_status; /**< PROC_UNKNOWN or another */
} proc_monitor_item;

/** A node of a list. */
typedef struct proc_node {
    struct proc_node *prev; /**< the node before it, or null */
    struct proc_node *next; /**< the node behind it, or null */
    void *data;             /**< here a proc_monitor_item */
} proc_node;

/** A list. Its hooks take addresses of data pointers, and null stands for none. */
typedef struct proc_list {
    proc_node *head;                         /**< its first node, or null */
    proc_node *tail;                         /**< its last node, or null */
    uint64_t count;                          /**< how many nodes it has */
    void (*free)(void **data);               /**< gives back a node's data */
    void (*each)(void **data);               /**< unused */
    void (*copy)(void **data, void *record); /**< stores a record its own way, and owns it then */
    int (*order)(const void *record, const void *other); /**< <= 0: `record` goes before `other` */
    int (*match)(const void *key, const void *data);     /**< 0 where they match */
} proc_list;

typedef struct proc_monitor proc_monitor;

/** A monitor. Its operations are the functions below. */
struct proc_monitor {
    proc_list *list;                 /**< in the order of the configuration */
    int (*destroy)(proc_monitor *m); /**< proc_monitor_destroy() */
    int (*refresh)(proc_monitor *m); /**< proc_monitor_refresh() */
    proc_monitor_item *(*search)(proc_monitor *m, const char *name); /**< proc_monitor_search() */
    int (*operate)(proc_monitor *m, const char *spec, unsigned op);  /**< proc_monitor_operate() */
};

/**
 * Makes a monitor of the processes that the file `path` names, one a line:
 *
 *     proc1 = mysrv, /opt/mysrv, bin/mysrv -d      # name, directory, command
 *
 * with `sep` for the "=". Keys begin with "proc", other lines are passed over; directory and
 * command may be missing. A line whose process cannot be added, as one whose name is there already,
 * is reported as "proc=mysrv, /opt/mysrv, bin/mysrv -d already exist." on standard error, with
 * `sep` for the "=". A comma ends the command. With a separator that strtrim4() refuses lines are
 * not trimmed, so their keys begin at once; "#" and NUL separate nothing. A line of more than 2047
 * characters counts as several.
 *
 * Returns 0; -1, with `m` untouched, where an argument is null or the file cannot be opened. Given
 * back with its `destroy`. Memory that runs out for the list ends the process, its exit status
 * being 1, after "proc_monitor_init" and the system's reason; that for an item, as for
 * proc_monitor_operate().
 */
KEEL_API int proc_monitor_init(proc_monitor *m, const char *path, char sep);

/** Frees the items and the list, which becomes null. Returns 0. */
KEEL_API int proc_monitor_destroy(proc_monitor *m);

/**
 * Looks for each process, and tells in `run_status` what became of it. Of several that have its
 * name the first in /proc counts. `info` is as it was found, no longer as it was configured; of one
 * that is not there, `cwd` and `cmdline` stay, to start it again. A process whose command line is
 * too long to be found is reported once an item, as get_cmdline_by_pid() does. Returns 0.
 */
KEEL_API int proc_monitor_refresh(proc_monitor *m);

/** The item called `name`, or null. It is the monitor's. */
KEEL_API proc_monitor_item *proc_monitor_search(proc_monitor *m, const char *name);

/**
 * Does `op` with the process that `spec` names: "name, directory, command", of which create takes
 * all and the others the name alone. Only a settled state is changed: what the last refresh found
 * running is stopped, what it found not running is started. `run_status` waits for the next
 * refresh.
 *
 * Returns an index of proc_operate_error_message:
 *
 * - 0: done; also for an unknown `op`
 * - 1, 2, 3: restart, start or stop failed, or the state is not settled
 * - 6, 7: to be started, but runs; to be stopped, but does not
 * - 8, 9: no such process; to be created, but is there, or in a state that does not exist
 * - 10: a null argument or no name
 *
 * Memory that runs out for a node ends the process, its exit status being 1, after
 * "proc_monitor_operate" and the system's reason.
 */
KEEL_API int proc_monitor_operate(proc_monitor *m, const char *spec, unsigned op);

/** What two process identifiers in turn, 0 for none, say about a process: PROC_RUNNING and others.
 */
KEEL_API int proc_run_status(int now_pid, int prev_pid);

/**
 * Runs an item's command in the shell, as DIRECTORY/COMMAND. Waits until it ends, so it should
 * become a daemon. What it writes to standard output breaks a pipe and so may end it: let it write
 * elsewhere. Returns what pclose() does: 0 where it ended well. -1 where the directory or the
 * command is empty, the two together are longer than 2046 characters, there is no shell to be had,
 * or SIGCHLD is ignored. Not a cancellation point.
 *
 * Of a process that was found running it is the command line and the directory as they were found,
 * so it comes back only if these two in a row name its program, as for a daemon that was started
 * under its full path and has gone to "/". They reach the shell as they are: who can run a program
 * under a watched name decides what is run with the caller's rights.
 */
KEEL_API int proc_start(proc_monitor_item *item);

/** kill() with SIGKILL, its result and its meaning of 0 and less included. */
KEEL_API int proc_stop(pid_t pid);

/** strcmp() of the strings that the pointers at `a` and `b` lead to. */
KEEL_API int proc_info_compar(const void *a, const void *b);

/** Frees the block that the pointer at `p` leads to. */
KEEL_API void proc_info_free(void **p);

/** @} */

KEEL_END_DECLS

#endif

/* SPDX-License-Identifier: MIT */
/**
 * @file xutil.h
 * @brief Checked system calls that end the process without a word; the network interfaces.
 *
 * Where one of these calls fails, the process exits with status 1 and nothing is written to any
 * stream: the text handed to err_sys() documents the failure at the call site only.
 *
 * All functions may be called from any thread; a list of interfaces is for one thread at a time.
 *
 * @code{.c}
 * #include <stddef.h>
 * #include <sys/socket.h>
 * #include <xutil.h>
 *
 * int main(void) {
 *     int endpoint = Socket(AF_UNIX, SOCK_DGRAM, 0);
 *     Close(endpoint);
 *     ifi_info *interfaces = get_ifi_info(AF_INET);
 *     int found = is_ifi_info_exist(interfaces, "lo");
 *     return free_ifi_info(interfaces) == NULL && found ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XUTIL_H
#define KEEL_XUTIL_H

#include <linux/ethtool.h>
#include <net/if.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** Ends the process with status 1. Prints nothing: the message is for the reader of the code.
 */
KEEL_API void err_sys(const char *format, ...) KEEL_PRINTF(1, 2) KEEL_NORETURN;

/** Closes `descriptor`. Returns 0; a failure, an interruption included, is fatal. Cancellation
 * point. */
KEEL_API int Close(int descriptor);

/** Removes the name `path`. Returns 0; a failure, a missing name included, is fatal. */
KEEL_API int Unlink(const char *path);

/** ioctl() with one pointer argument. Returns the call's result; -1 is fatal. */
KEEL_API int Ioctl(int descriptor, int request, void *argument);

/** A new socket's descriptor, the caller's to close; a failure is fatal. */
KEEL_API int Socket(int domain, int type, int protocol);

/**
 * Makes the FIFO `path`. 0 with errno 0 when it was made or when anything exists at `path`
 * already; -1 with errno as mkfifo() left it otherwise. Never fatal.
 */
KEEL_API int Mkfifo(const char *path, mode_t mode);

/** A network interface. Each pointer owns a block of its own. */
typedef struct ifi_info {
    char ifi_name[16];            /**< its name, or an alias of it such as eth0:1 */
    uint16_t ifi_mtu;             /**< largest packet, its low 16 bits: 0 for 65536 */
    int16_t ifi_flags;            /**< IFF_UP and others */
    struct ethtool_cmd *ifi_link; /**< speed, duplex, ...; null where it has none to tell */
    struct sockaddr *ifi_addr;    /**< IPv4 address */
    struct sockaddr *ifi_hwaddr;  /**< hardware address; null for "lo" */
    struct sockaddr *ifi_netmask; /**< netmask */
    struct sockaddr *ifi_brdaddr; /**< broadcast address, where it has one, or null */
    struct sockaddr *ifi_dstaddr; /**< address of the other end of a point-to-point link, or null */
    struct ifi_info *ifi_next;    /**< the next one, or null */
} ifi_info;

/**
 * Lists the interfaces of this machine: those with an IPv4 address first, an alias as one of its
 * own, then all others that /proc/net/dev names, if it can be opened, with nothing but their name.
 * Null where there is none. `family` is not looked at. Given back with free_ifi_info().
 *
 * The process ends where the system refuses an answer, as it does for an interface that vanishes
 * meanwhile: Socket(), Ioctl(), and Calloc() and Realloc() of xwrap.h say how.
 */
KEEL_API ifi_info *get_ifi_info(int family);

/** Frees a list and what its records own. Returns null, as for a null list. */
KEEL_API ifi_info *free_ifi_info(ifi_info *head);

/** Clears one record but for its name and what comes next, and frees what it owns. */
KEEL_API void release_ifi_info(ifi_info *ifi);

/** 1 where a record of the list has exactly that name, else 0. */
KEEL_API int is_ifi_info_exist(const ifi_info *head, const char *name);

/**
 * Appends a record to a list: `*tail` is where the pointer to it goes, neither of them null, and
 * moves on behind it. It has the first 15 characters of `name` and nothing else. Returns it.
 */
KEEL_API ifi_info *add_ifi_info(ifi_info ***tail, const char *name);

KEEL_END_DECLS

#endif

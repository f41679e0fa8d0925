/* SPDX-License-Identifier: MIT */
/**
 * @file xnet.h
 * @brief The IPv4 address, netmask and flags of a network interface; the address of a host name.
 *
 * There are two ways to the same: get_ifaddr() and set_ifaddr() take and give dotted-quad text and
 * refuse a name that no interface can have; the others take and give 32-bit numbers in network byte
 * order, and a name that is too long is cut to 15 characters there. A null name counts as an empty
 * one.
 *
 * All return 0, or -1 after the failing call was explained on standard error, as in
 * "get_if_addr(ioctl-SIOCGIFADDR): No such device"; hostname2addr() prints nothing. Then nothing is
 * stored. Setting needs the right to configure interfaces.
 *
 * Functions without state: any thread may call them.
 *
 * @code{.c}
 * #include <arpa/inet.h>
 * #include <net/if.h>
 * #include <stdio.h>
 * #include <xnet.h>
 *
 * int main(void) {
 *     unsigned short flags;
 *     unsigned address;
 *     char text[16];
 *     if (get_if_flags("lo", &flags) == -1)
 *         return 1;
 *     printf("lo is %s\n", (flags & IFF_UP) != 0 ? "up" : "down");
 *     int right = hostname2addr("127.0.0.1", text, sizeof text, &address) == 0 &&
 *                 address == htonl(INADDR_LOOPBACK);
 *     return right ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XNET_H
#define KEEL_XNET_H

#include <stddef.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/**
 * Stores the interface's address as text in `buffer` of `length` bytes, cut to `length` - 1
 * characters, the rest zeroed. A null `buffer` only asks whether there is an address.
 *
 * A name that is null, empty or longer than 15 characters gives -1 and
 * "get_ifaddr: Invalid eth_name(NAME)." on standard error.
 */
KEEL_API int get_ifaddr(const char *eth_name, char *buffer, size_t length);

/**
 * Sets the interface's address from text and brings it up, with multicast on. A text that is no
 * address sets 0.0.0.0. Names as for get_ifaddr().
 */
KEEL_API int set_ifaddr(const char *eth_name, const char *address);

/** Stores the interface's flags, IFF_UP and others. */
KEEL_API int get_if_flags(const char *eth_name, unsigned short *flags);

/** Stores the interface's address. */
KEEL_API int get_if_addr(const char *eth_name, unsigned *address);

/** Sets the interface's address and leaves its flags alone. */
KEEL_API int set_if_addr(const char *eth_name, unsigned address);

/** Stores the interface's netmask. */
KEEL_API int get_if_netmask(const char *eth_name, unsigned *netmask);

/** Sets the interface's netmask. */
KEEL_API int set_if_netmask(const char *eth_name, unsigned netmask);

/**
 * Resolves a host name to its first IPv4 address. Stores it in `*address` unless that is null, and
 * its text in `text` unless that is null: `length` characters at most, the rest zeroed, so without
 * a terminator where the text is not shorter than `length`: 16 bytes are enough for all. Waits for
 * name servers, and is not cancelled meanwhile.
 */
KEEL_API int hostname2addr(const char *name, char *text, size_t length, unsigned *address);

KEEL_END_DECLS

#endif

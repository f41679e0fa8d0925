/* SPDX-License-Identifier: MIT */
/**
 * @file xsocket.h
 * @brief A socket as a small record, and socket addresses.
 *
 * Every datagram socket made here may send to broadcast addresses. Sockets are closed in programs
 * that the process starts. Nothing ends the process, but for memory that runs out, as xmemory.h
 * says; failures are told on standard output.
 *
 * Any thread may call these functions; a record is for one thread at a time.
 *
 * @code{.c}
 * #include <sys/socket.h>
 * #include <xsocket.h>
 *
 * int main(void) {
 *     xsocket *endpoint = socket_open(AF_INET, SOCK_DGRAM, 0);
 *     xsockaddr here;
 *     socket_addr(&here.sa, AF_INET, "127.0.0.1", 0);
 *     int bound = bind(endpoint->fd, &here.sa, (socklen_t)socket_len(&here.sa)) == 0;
 *     return socket_close(endpoint) == 0 && bound ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XSOCKET_H
#define KEEL_XSOCKET_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** A socket address of 28 bytes, IPv4 or IPv6. */
typedef union xsockaddr {
    struct sockaddr sa;      /**< what the system's calls take */
    struct sockaddr_in in;   /**< IPv4 */
    struct sockaddr_in6 in6; /**< IPv6 */
} xsockaddr;

/** An open socket and what it was opened as. */
typedef struct xsocket {
    int32_t family;   /**< AF_INET or another */
    int32_t type;     /**< SOCK_STREAM, SOCK_DGRAM or another */
    int32_t protocol; /**< 0 for the family's own */
    int32_t fd;       /**< the descriptor */
} xsocket;

/**
 * A new socket, as of socket(), given back with socket_close(). Null, after "Open xsocket error!"
 * on standard output, where the system refuses.
 */
KEEL_API xsocket *socket_open(int family, int type, int protocol);

/**
 * Closes the socket and frees its record: 0. Where closing fails: -1, after "Close xsocket error!"
 * on standard output, and the record stays the caller's. -1 for null.
 */
KEEL_API int socket_close(xsocket *socket);

/** How long the address is, by its family: 16 for AF_INET, 28 for AF_INET6, else 0, also for
 * null. */
KEEL_API int socket_len(const struct sockaddr *address);

/**
 * Fills in an IPv4 address: 28 bytes at `address` are zeroed and the family, `port` and the address
 * that the dotted-quad text `ip` gives are set. A text that is none, or null, gives
 * 255.255.255.255. Returns 0; -1 where `family` is not AF_INET, with the bytes zeroed, and for a
 * null `address`.
 */
KEEL_API int socket_addr(struct sockaddr *address, int family, const char *ip, unsigned short port);

KEEL_END_DECLS

#endif

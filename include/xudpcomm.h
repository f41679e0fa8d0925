/* SPDX-License-Identifier: MIT */
/**
 * @file xudpcomm.h
 * @brief A bound UDP endpoint with a thread of its own that hands what arrives to a callback.
 *
 * Any thread sends through the same socket; a switch turns sending on and off, and counters keep
 * the traffic of both directions. What happens is told on standard output: "Recv message from
 * ADDRESS:PORT" for each datagram, "Recv end!" for an empty one, "Bind error!", "Start error!",
 * "Select error!", "Recv error!", "Socket exception happened!", and what xsocket.h says. The
 * receiving thread waits where standard output does, and so does whoever closes the endpoint.
 *
 * udpcomm_open() and udpcomm_start() are for one thread; then any thread may send and switch, until
 * one thread closes. The callback runs on the receiving thread with no lock held, and never after
 * udpcomm_close() has returned. The receiving thread is cancelled when the endpoint is closed, at
 * whatever cancellation point it is, also inside the callback. Memory that runs out ends the
 * process, as xmemory.h says.
 *
 * @code{.c}
 * #include <semaphore.h>
 * #include <string.h>
 * #include <xudpcomm.h>
 *
 * static int64_t take(udpcomm *endpoint, char *data, size_t size, struct sockaddr *peer) {
 *     (void)peer;
 *     if (size == 5 && strcmp(data, "hello") == 0)
 *         sem_post((sem_t *)endpoint->arg);
 *     return 0;
 * }
 *
 * int main(void) {
 *     sem_t arrived;
 *     sem_init(&arrived, 0, 0);
 *     udpcomm *endpoint = udpcomm_open(AF_INET, "127.0.0.1", 0);
 *     udpcomm_start(endpoint, take, &arrived);
 *     xsockaddr here; // which port the system chose
 *     socklen_t length = sizeof here;
 *     getsockname(endpoint->sock->fd, &here.sa, &length);
 *     int sent = udpcomm_send(endpoint, "hello", 5, &here.sa) == 5;
 *     sem_wait(&arrived);
 *     udpcomm_close(endpoint);
 *     sem_destroy(&arrived);
 *     return sent ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XUDPCOMM_H
#define KEEL_XUDPCOMM_H

#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include "keel.h"
#include "xsocket.h"

KEEL_BEGIN_DECLS

typedef struct udpcomm udpcomm;

/**
 * Takes a datagram: `size` bytes at `data`, behind which stands a NUL byte, and where it came from.
 * Both are the endpoint's, and for the call only. A datagram of more than 4095 bytes is cut. The
 * result is ignored.
 */
typedef int64_t (*udpcomm_callback)(udpcomm *u, char *data, size_t size, struct sockaddr *peer);

/** An endpoint, made by udpcomm_open() alone. */
struct udpcomm {
    xsockaddr local;          /**< the address the socket was to be bound to */
    xsockaddr peer;           /**< sender of the last datagram; the receiving thread's own */
    uint64_t send_bytes;      /**< sent in all; under `lock` */
    uint64_t recv_bytes;      /**< received in all; the receiving thread's own */
    uint64_t send_count;      /**< datagrams sent; under `lock` */
    uint64_t recv_count;      /**< datagrams received, empty ones left out */
    pthread_mutex_t lock;     /**< held for the whole of a send */
    pthread_attr_t attr;      /**< of the receiving thread: joinable, system scope */
    pthread_t thread;         /**< the receiving thread */
    udpcomm_callback on_recv; /**< as given to udpcomm_start() */
    void *arg;                /**< as given to udpcomm_start(), for the callback */
    xsocket *sock;            /**< the socket */
    int32_t enabled;          /**< 1: sending is on; under `lock` */
    sem_t done;               /**< posted when the receiving thread is cancelled */
};

/**
 * A new endpoint, bound to the address that `ip` and `port` give (socket_addr(); port 0: any).
 * Where binding fails it says so and comes unbound; where there is no socket the process ends, its
 * exit status being 1. Only AF_INET is bound. Given back with udpcomm_close().
 */
KEEL_API udpcomm *udpcomm_open(int family, const char *ip, unsigned short port);

/**
 * Turns sending on and starts the receiving thread. Returns 0; -1, after "Start error!", where
 * there is no thread to be had, and where one runs already, which changes nothing; -1 for a null
 * argument, but `arg` may be null. A thread that ended by an error may be started again.
 */
KEEL_API int udpcomm_start(udpcomm *u, udpcomm_callback on_recv, void *arg);

/**
 * Sends a datagram. Returns the bytes sent; -1 where sending is off, nothing said, and where it
 * fails. Where it fails or falls short, which counts as not sent, "len = N, nbytes = N, buf = TEXT"
 * goes to standard output, the text up to its first NUL byte, and "Send error: ..." to standard
 * error.
 */
KEEL_API int udpcomm_send(udpcomm *u, const void *buffer, size_t length, const struct sockaddr *to);

/** Turns sending on with 1, off with any other value. Returns 0; -1 for null. */
KEEL_API int udpcomm_switch(udpcomm *u, int on);

/**
 * Detaches the receiving thread. Returns what pthread_detach() does, EINVAL where no thread was
 * started or it is detached already; -1 for null.
 */
KEEL_API int udpcomm_detach(udpcomm *u);

/**
 * Ends the receiving thread and frees the endpoint. Only for one that was started and whose thread
 * still runs: on one that never started, or ended by "Select error!" or "Recv error!", this waits
 * for ever. Not from within the callback. Returns 0; -1 for null.
 */
KEEL_API int udpcomm_close(udpcomm *u);

KEEL_END_DECLS

#endif

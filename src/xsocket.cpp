/* SPDX-License-Identifier: MIT */
#include "xsocket.h"

#include <arpa/inet.h>
#include <cstring>
#include <unistd.h>

#include "announce.h"
#include "cancel_shield.h"
#include "xmemory.h"

xsocket *socket_open(int family, int type, int protocol) {
    const int descriptor = ::socket(family, type | SOCK_CLOEXEC, protocol);
    if (descriptor == -1) {
        keel::announce(stdout, "Open xsocket error!\n");
        return nullptr;
    }
    if ((type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK)) == SOCK_DGRAM) {
        const int on = 1;
        setsockopt(descriptor, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    }
    auto *opened = static_cast<xsocket *>(xcalloc(0, sizeof(xsocket)));
    *opened = {family, type, protocol, descriptor};
    return opened;
}

int socket_close(xsocket *socket) {
    if (socket == nullptr)
        return -1;
    const keel::cancel_shield shield; // else the record would be lost behind a closed descriptor
    if (close(socket->fd) == -1) {
        keel::announce(stdout, "Close xsocket error!\n");
        return -1;
    }
    xfree(0, socket);
    return 0;
}

int socket_len(const sockaddr *address) {
    if (address == nullptr)
        return 0;
    switch (address->sa_family) {
    case AF_INET:
        return sizeof(sockaddr_in);
    case AF_INET6:
        return sizeof(sockaddr_in6);
    default:
        return 0;
    }
}

int socket_addr(sockaddr *address, int family, const char *ip, unsigned short port) {
    if (address == nullptr)
        return -1;
    std::memset(static_cast<void *>(address), 0, sizeof(xsockaddr));
    if (family != AF_INET)
        return -1;
    auto *internet = reinterpret_cast<sockaddr_in *>(address);
    internet->sin_family = AF_INET;
    internet->sin_port = htons(port);
    internet->sin_addr.s_addr = ip == nullptr ? INADDR_NONE : inet_addr(ip);
    return 0;
}

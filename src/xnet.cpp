/* SPDX-License-Identifier: MIT */
#include "xnet.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <vector>

#include "announce.h"
#include "cancel_shield.h"
#include "handles.h"

namespace {

using keel::explain;
using keel::unique_fd;

/* One interface's request record and a socket to carry it. */
class interface_request {
  public:
    /* `complaint` is for a socket that cannot be had. */
    interface_request(const char *name, const char *complaint)
        : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        if (name != nullptr)
            std::memcpy(record.ifr_name, name, strnlen(name, sizeof record.ifr_name - 1));
        if (!socket_)
            explain(complaint);
    }

    /* 0, or -1 after `complaint`. */
    int issue(unsigned long request, const char *complaint) {
        if (!socket_)
            return -1;
        if (ioctl(socket_.get(), request, &record) == 0)
            return 0;
        explain(complaint);
        return -1;
    }

    sockaddr_in address() const {
        sockaddr_in address{};
        std::memcpy(&address, &record.ifr_addr, sizeof address);
        return address;
    }

    void set_address(in_addr value) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr = value;
        std::memcpy(&record.ifr_addr, &address, sizeof address);
    }

    ifreq record{};

  private:
    unique_fd socket_;
};

bool is_name(const char *name) {
    return name != nullptr && *name != '\0' && strnlen(name, IFNAMSIZ) < IFNAMSIZ;
}

int refuse_name(const char *function, const char *name) {
    keel::announce(stderr, "%s: Invalid eth_name(%s).\n", function,
                   name == nullptr ? "(null)" : name);
    return -1;
}

int store_address(interface_request &request, unsigned long which, const char *complaint,
                  unsigned *address) {
    const int result = request.issue(which, complaint);
    if (result == 0 && address != nullptr)
        *address = request.address().sin_addr.s_addr;
    return result;
}

int set_number(interface_request &request, unsigned long which, const char *complaint,
               unsigned address) {
    request.set_address({address});
    return request.issue(which, complaint);
}

/* Memory that runs out is a failure like others: nothing here ends the process. The C library would
 * lose a descriptor where its caller is cancelled. */
bool resolve(const char *name, in_addr &first) try {
    const keel::cancel_shield shield;
    std::vector<char> scratch(1024);
    hostent entry{};
    hostent *found = nullptr;
    int reason = 0;
    while (gethostbyname_r(name, &entry, scratch.data(), scratch.size(), &found, &reason) == ERANGE)
        scratch.resize(2 * scratch.size());
    if (found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr)
        return false;
    std::memcpy(&first, found->h_addr_list[0], sizeof first);
    return true;
} catch (const std::bad_alloc &) {
    return false;
}

} // namespace

int get_ifaddr(const char *eth_name, char *buffer, std::size_t length) {
    if (!is_name(eth_name))
        return refuse_name("get_ifaddr", eth_name);
    interface_request request(eth_name, "get_ifaddr(socket)");
    if (request.issue(SIOCGIFADDR, "get_ifaddr(ioctl)") == -1)
        return -1;
    if (buffer != nullptr && length > 0) {
        char text[INET_ADDRSTRLEN];
        const in_addr address = request.address().sin_addr;
        inet_ntop(AF_INET, &address, text, sizeof text);
        std::memset(buffer, 0, length);
        std::memcpy(buffer, text, strnlen(text, length - 1));
    }
    return 0;
}

int set_ifaddr(const char *eth_name, const char *address) {
    if (!is_name(eth_name))
        return refuse_name("set_ifaddr", eth_name);
    interface_request request(eth_name, "set_ifaddr(socket)");
    in_addr value{};
    if (address == nullptr || inet_aton(address, &value) == 0)
        value = {};
    request.set_address(value);
    if (request.issue(SIOCSIFADDR, "set_ifaddr(ioctl-SIOCSIFADDR)") == -1 ||
        request.issue(SIOCGIFFLAGS, "set_ifaddr(ioctl-SIOCGIFFLAGS)") == -1)
        return -1;
    request.record.ifr_flags =
        static_cast<short>(request.record.ifr_flags | IFF_UP | IFF_MULTICAST);
    return request.issue(SIOCSIFFLAGS, "set_ifaddr(ioctl-SIOCSIFFLAGS)");
}

int get_if_flags(const char *eth_name, unsigned short *flags) {
    interface_request request(eth_name, "get_if_flags(socket)");
    const int result = request.issue(SIOCGIFFLAGS, "get_if_flags(ioctl-SIOCGIFFLAGS)");
    if (result == 0 && flags != nullptr)
        *flags = static_cast<unsigned short>(request.record.ifr_flags);
    return result;
}

int get_if_addr(const char *eth_name, unsigned *address) {
    interface_request request(eth_name, "get_if_addr(socket)");
    return store_address(request, SIOCGIFADDR, "get_if_addr(ioctl-SIOCGIFADDR)", address);
}

int set_if_addr(const char *eth_name, unsigned address) {
    interface_request request(eth_name, "set_if_addr(socket)");
    return set_number(request, SIOCSIFADDR, "set_if_addr(ioctl-SIOCSIFADDR)", address);
}

int get_if_netmask(const char *eth_name, unsigned *netmask) {
    interface_request request(eth_name, "get_if_netmask(socket)");
    return store_address(request, SIOCGIFNETMASK, "get_if_netmask(ioctl-SIOCGIFNETMASK)", netmask);
}

int set_if_netmask(const char *eth_name, unsigned netmask) {
    interface_request request(eth_name, "set_if_netmask(socket)");
    return set_number(request, SIOCSIFNETMASK, "set_if_netmask(ioctl-SIOCSIFNETMASK)", netmask);
}

int hostname2addr(const char *name, char *text, std::size_t length, unsigned *address) {
    if (name == nullptr)
        return -1;
    in_addr first{};
    if (!resolve(name, first))
        return -1;
    if (address != nullptr)
        *address = first.s_addr;
    if (text != nullptr) {
        char quad[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &first, quad, sizeof quad);
        std::memset(text, 0, length);
        std::memcpy(text, quad, strnlen(quad, length));
    }
    return 0;
}

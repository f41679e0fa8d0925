/* SPDX-License-Identifier: MIT */
#include "xnet.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <net/if.h>
#include <new>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <vector>

#include "child.h"
#include "descriptors.h"
#include "ioctl_watch.h"
#include "own_network.h"

namespace {
int allocations_left = 0; // of operator new, until one fails; 0: none does
}

extern "C" { // NOLINTBEGIN: the linker's names
void *__real__Znwm(std::size_t size);
void *__wrap__Znwm(std::size_t size);

void *__wrap__Znwm(std::size_t size) {
    if (allocations_left > 0 && --allocations_left == 0)
        throw std::bad_alloc();
    return __real__Znwm(size);
}
} // NOLINTEND

namespace {

using keel_test::child_result;
using keel_test::failed;
using keel_test::ioctl_watch;
using keel_test::run_in_child;

using requests = std::vector<unsigned long>;

/* What the library asks of the system meanwhile. */
requests requests_of(const std::function<void()> &body) {
    requests made;
    const ioctl_watch watch([&](int descriptor, unsigned long request, void *argument) {
        int type = 0;
        socklen_t size = sizeof type;
        getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size);
        EXPECT_EQ(type, SOCK_DGRAM);
        getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &type, &size);
        EXPECT_EQ(type, AF_INET);
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC) << "no program inherits it";
        made.push_back(request);
        return __real_ioctl(descriptor, request, argument);
    });
    body();
    return made;
}

class Requests : public keel_test::OwnNetwork {};

TEST_F(Requests, AreThoseThatTheWorkTakes) {
    keel_test::ip("addr add 127.0.0.1/8 dev lo\n");
    char text[16];
    unsigned short flags = 0;
    unsigned number = 0;
    EXPECT_EQ(requests_of([&] { get_ifaddr("lo", text, sizeof text); }), (requests{SIOCGIFADDR}));
    EXPECT_EQ(requests_of([&] { set_ifaddr("lo", "127.0.0.2"); }),
              (requests{SIOCSIFADDR, SIOCGIFFLAGS, SIOCSIFFLAGS}));
    EXPECT_EQ(requests_of([&] { get_if_flags("lo", &flags); }), (requests{SIOCGIFFLAGS}));
    EXPECT_EQ(requests_of([&] { get_if_addr("lo", &number); }), (requests{SIOCGIFADDR}));
    EXPECT_EQ(requests_of([&] { set_if_addr("lo", number); }), (requests{SIOCSIFADDR}));
    EXPECT_EQ(requests_of([&] { get_if_netmask("lo", &number); }), (requests{SIOCGIFNETMASK}));
    EXPECT_EQ(requests_of([&] { set_if_netmask("lo", number); }), (requests{SIOCSIFNETMASK}));
    EXPECT_EQ(requests_of([] { get_ifaddr("sixteen-letters-", nullptr, 0); }), requests());
}

/* The interface vanishes between one request and the next. */
TEST_F(Requests, EachOfThoseThatSetAnAddressMayFail) {
    const struct {
        unsigned long request;
        const char *complaint;
        requests made;
    } rows[] = {
        {SIOCSIFADDR, "set_ifaddr(ioctl-SIOCSIFADDR)", {SIOCSIFADDR}},
        {SIOCGIFFLAGS, "set_ifaddr(ioctl-SIOCGIFFLAGS)", {SIOCSIFADDR, SIOCGIFFLAGS}},
        {SIOCSIFFLAGS, "set_ifaddr(ioctl-SIOCSIFFLAGS)", {SIOCSIFADDR, SIOCGIFFLAGS, SIOCSIFFLAGS}},
    };
    for (const auto &row : rows) {
        const auto body = [&] {
            keel_test::ip("link add eth0 type veth peer name eth1\n");
            const auto descriptors = keel_test::count_descriptors();
            requests made;
            const ioctl_watch watch([&](int descriptor, unsigned long request, void *argument) {
                made.push_back(request);
                if (request == row.request)
                    keel_test::ip("link del dev eth0\n");
                return __real_ioctl(descriptor, request, argument);
            });
            std::printf("%d", set_ifaddr("eth0", "10.1.2.3"));
            EXPECT_EQ(made, row.made);
            EXPECT_EQ(keel_test::count_descriptors(), descriptors);
        };
        EXPECT_EQ(run_in_child(body),
                  (child_result{0, 0, "-1", std::string(row.complaint) + ": No such device\n"}));
    }
}

/* Name, family and value as they were given, and nothing else. */
TEST_F(Requests, CarryNothingButWhatWasGiven) {
    ifreq expected{};
    std::string("eth0").copy(expected.ifr_name, sizeof expected.ifr_name);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = 0x04030201;
    std::memcpy(&expected.ifr_addr, &address, sizeof address);
    const ioctl_watch watch([&](int, unsigned long request, void *argument) {
        const bool carries = request == SIOCSIFADDR || request == SIOCSIFNETMASK;
        EXPECT_TRUE(!carries || std::memcmp(argument, &expected, sizeof expected) == 0);
        return 0;
    });
    EXPECT_EQ(set_if_addr("eth0", 0x04030201), 0);
    EXPECT_EQ(set_if_netmask("eth0", 0x04030201), 0);
    EXPECT_EQ(set_ifaddr("eth0", "1.2.3.4"), 0);
}

TEST_F(Requests, CarryALongNameCutAndTerminated) {
    int seen = 0;
    const ioctl_watch watch([&](int, unsigned long, void *argument) {
        EXPECT_EQ(std::string(static_cast<ifreq *>(argument)->ifr_name, IFNAMSIZ),
                  std::string("fifteen-letters", IFNAMSIZ));
        seen++;
        return failed(ENODEV);
    });
    unsigned number = 0;
    EXPECT_EQ(get_if_addr("fifteen-letters-and-more", &number), -1);
    EXPECT_EQ(set_if_netmask("fifteen-letters-and-more", number), -1);
    EXPECT_EQ(seen, 2);
}

TEST_F(Requests, AddTwoFlagsToThoseThatThereAre) {
    for (const int before : {0, 0x1, 0x1000, 0x1001, 0x8000, 0x6ffe, 0xffff}) {
        int after = -1;
        const ioctl_watch watch([&](int, unsigned long request, void *argument) {
            auto &record = *static_cast<ifreq *>(argument);
            if (request == SIOCGIFFLAGS)
                record.ifr_flags = static_cast<short>(before);
            if (request == SIOCSIFFLAGS)
                after = static_cast<unsigned short>(record.ifr_flags);
            return 0;
        });
        EXPECT_EQ(set_ifaddr("eth0", "1.2.3.4"), 0);
        EXPECT_EQ(after, before | 0x1001);
    }
}

/* However much or little of it there is for the resolver. */
TEST(HostNameMemory, WithoutItANameIsUnknown) {
    EXPECT_EQ(run_in_child([] {
                  unsigned address = 7;
                  char text[16] = "untouched";
                  allocations_left = 1;
                  const int result = hostname2addr("127.0.0.1", text, sizeof text, &address);
                  std::printf("%d %d %s", result, address, text);
              }),
              (child_result{0, 0, "-1 7 untouched", ""}));
}

} // namespace

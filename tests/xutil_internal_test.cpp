/* SPDX-License-Identifier: MIT */
#include "xutil.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "allocation_faults.h"
#include "child.h"
#include "explained.h"
#include "ioctl_watch.h"
#include "own_network.h"

namespace {

using keel_test::child_result;
using keel_test::exited;
using keel_test::explained;
using keel_test::failed;
using keel_test::failing_allocation;
using keel_test::ioctl_watch;
using keel_test::ip;
using keel_test::run_in_child;

/* "eth0", described by all requests but that for a peer, and "tun0" with that as well. */
class InterfaceRequests : public keel_test::OwnNetwork {
  protected:
    void SetUp() override {
        OwnNetwork::SetUp();
        if (IsSkipped())
            return;
        ip("link add eth0 type veth peer name eth1\n"
           "addr add 10.9.8.7/24 dev eth0\n");
        keel_test::add_point_to_point("tun0");
        ip("addr add 10.7.0.1 peer 10.7.0.2/32 dev tun0\n");
    }
};

/* The system answers with so many bytes in turn, all zero. `sizes` gets the room that it was
 * offered.
 */
ioctl_watch without_answers(std::vector<int> &sizes, const std::vector<int> &lengths) {
    return ioctl_watch([&](int, unsigned long request, void *argument) {
        EXPECT_EQ(request, static_cast<unsigned long>(SIOCGIFCONF));
        auto &answer = *static_cast<ifconf *>(argument);
        sizes.push_back(answer.ifc_len);
        answer.ifc_len = lengths[sizes.size() - 1];
        std::memset(answer.ifc_buf, 0, static_cast<std::size_t>(answer.ifc_len));
        return 0;
    });
}

/* Entries of another family than that of IPv4 are skipped: they are all zero here. */
TEST_F(InterfaceRequests, AskWithMoreRoomUntilTheAnswerStaysTheSame) {
    const struct {
        std::vector<int> lengths;
        std::vector<int> sizes;
    } rows[] = {
        {{40, 40}, {4000, 4400}},
        {{4000, 4000}, {4000, 4400}},
        {{4000, 4400, 4400}, {4000, 4400, 4800}},
        {{80, 40, 80, 80}, {4000, 4400, 4800, 5200}},
        {{0}, {4000}},
    };
    for (const auto &row : rows) {
        std::vector<int> sizes;
        const ioctl_watch watch = without_answers(sizes, row.lengths);
        ifi_info *head = get_ifi_info(AF_INET);
        EXPECT_EQ(sizes, row.sizes);
        EXPECT_EQ(is_ifi_info_exist(head, "eth0"), 1);
        for (const ifi_info *ifi = head; ifi != nullptr; ifi = ifi->ifi_next)
            EXPECT_EQ(ifi->ifi_addr, nullptr) << ifi->ifi_name;
        free_ifi_info(head);
    }
}

TEST_F(InterfaceRequests, GoThroughASocketThatNoProgramInherits) {
    int seen = 0;
    const ioctl_watch watch([&](int descriptor, unsigned long request, void *argument) {
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
        seen++;
        return __real_ioctl(descriptor, request, argument);
    });
    free_ifi_info(get_ifi_info(AF_INET));
    EXPECT_GT(seen, 2);
}

TEST_F(InterfaceRequests, AskForABroadcastAddressOrAPeerByTheFlags) {
    std::vector<std::string> asked;
    const ioctl_watch watch([&](int descriptor, unsigned long request, void *argument) {
        const auto about = [&] { return std::string(static_cast<ifreq *>(argument)->ifr_name); };
        if (request == SIOCGIFBRDADDR)
            asked.push_back(about() + " broadcast");
        if (request == SIOCGIFDSTADDR)
            asked.push_back(about() + " peer");
        return __real_ioctl(descriptor, request, argument);
    });
    free_ifi_info(get_ifi_info(AF_INET));
    EXPECT_EQ(asked, (std::vector<std::string>{"eth0 broadcast", "tun0 peer"}));
}

/* The list that it would have given goes with the process. */
TEST_F(InterfaceRequests, AnInterfaceThatVanishesMeanwhileEndsTheProcess) {
    constexpr unsigned long all[] = {SIOCGIFMTU,     SIOCGIFFLAGS,   SIOCGIFHWADDR,
                                     SIOCGIFNETMASK, SIOCGIFBRDADDR, SIOCETHTOOL};
    for (const unsigned long moment : all) {
        const auto body = [&] {
            ip("link add gone type veth peer name gone-too\n"
               "addr add 10.9.9.9/24 dev gone\n");
            const ioctl_watch watch([&](int descriptor, unsigned long request, void *argument) {
                if (request == moment &&
                    std::string(static_cast<ifreq *>(argument)->ifr_name) == "gone")
                    ip("link del dev gone\n");
                return __real_ioctl(descriptor, request, argument);
            });
            get_ifi_info(AF_INET);
        };
        EXPECT_EQ(run_in_child(body), exited(1)) << std::hex << moment;
    }
}

TEST_F(InterfaceRequests, AnyThatFailsEndsTheProcessButThatAboutTheLink) {
    constexpr unsigned long all[] = {SIOCGIFCONF,    SIOCGIFMTU,     SIOCGIFFLAGS,   SIOCGIFHWADDR,
                                     SIOCGIFNETMASK, SIOCGIFBRDADDR, SIOCGIFDSTADDR, SIOCETHTOOL};
    for (const unsigned long failing : all) {
        const auto body = [&] {
            const ioctl_watch watch([&](int descriptor, unsigned long request, void *argument) {
                return request == failing ? failed(EIO)
                                          : __real_ioctl(descriptor, request, argument);
            });
            ifi_info *head = get_ifi_info(AF_INET);
            for (const ifi_info *ifi = head; ifi != nullptr; ifi = ifi->ifi_next)
                std::printf("%s%s ", ifi->ifi_name, ifi->ifi_link != nullptr ? " link" : "");
        };
        const child_result expected =
            failing == SIOCETHTOOL ? child_result{0, 0, "eth0 tun0 lo eth1 ", ""} : exited(1);
        EXPECT_EQ(run_in_child(body), expected) << std::hex << failing;
    }
}

TEST_F(InterfaceRequests, EndTheProcessWithoutMemory) {
    constexpr int no_failure = 77;
    int reports[2] = {0, 0};
    for (int n = 1;; n++) {
        const child_result ending = run_in_child([n] {
            const failing_allocation failing(n);
            ifi_info *head = get_ifi_info(AF_INET);
            if (!failing.happened())
                _exit(no_failure);
            free_ifi_info(head);
        });
        if (ending.status == no_failure)
            break;
        reports[0] += ending == explained("realloc", ENOMEM);
        reports[1] += ending == explained("calloc", ENOMEM);
        EXPECT_TRUE(ending.status == 1) << n << ": " << testing::PrintToString(ending);
    }
    EXPECT_EQ(reports[0], 2) << "the room for the answers";
    EXPECT_EQ(reports[1], 4 + 2 * 5) << "four records, and what two of them own";
}

} // namespace

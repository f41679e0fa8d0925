/* SPDX-License-Identifier: MIT */
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <optional>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "descriptors.h"
#include "temp_dir.h"

namespace keel_test {

/* While it lives the calling thread is in a network of its own, with the threads and processes that
 * it starts meanwhile. At first there is nothing in it but "lo", which is down. It is gone with all
 * that was added to it. Needs root.
 *
 * /proc/net shows the network of a process's first thread. */
class own_network {
  public:
    own_network() : former_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
        if (former_ == -1 || unshare(CLONE_NEWNET) != 0)
            throw std::runtime_error(std::string("no network: ") + std::strerror(errno));
    }
    ~own_network() {
        if (setns(former_, CLONE_NEWNET) != 0)
            std::abort(); // else the tests that follow would be in the wrong one
        close(former_);
    }
    own_network(const own_network &) = delete;
    own_network &operator=(const own_network &) = delete;

  private:
    int former_;
};

/* Has the system's ip do these commands, one a line. */
inline void ip(const std::string &commands) {
    FILE *tool = popen("PATH=$PATH:/usr/sbin:/sbin ip -batch -", "we");
    ASSERT_NE(tool, nullptr);
    std::fputs(commands.c_str(), tool);
    ASSERT_EQ(pclose(tool), 0) << commands;
}

/* What the system's ip answers. */
inline std::string ip_tells(const std::string &question) {
    FILE *tool = popen(("PATH=$PATH:/usr/sbin:/sbin ip " + question).c_str(), "re");
    if (tool == nullptr)
        throw std::runtime_error(std::string("no ip: ") + std::strerror(errno));
    std::string answer;
    for (int c; (c = std::fgetc(tool)) != EOF;)
        answer += static_cast<char>(c);
    EXPECT_EQ(pclose(tool), 0) << question;
    return answer;
}

/* Whether the system's ip gives the interface, or an alias of one, this address among others: such
 * as "10.9.8.7/24". */
inline bool ip_tells_address(const std::string &name, const std::string &address) {
    const std::string device = name.substr(0, name.find(':'));
    const std::string answer = ip_tells("-o -4 addr show dev " + device + " label " + name);
    return answer.find(" inet " + address + " ") != answer.npos;
}

/* A point-to-point interface. Goes through a device node of its own, which is there also where
 * /dev has none. */
inline void add_point_to_point(const std::string &name) {
    const temp_dir dir;
    const std::string node = dir / "tun";
    ASSERT_EQ(mknod(node.c_str(), S_IFCHR | 0600, makedev(10, 200)), 0);
    int descriptor = open(node.c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor == -1) // where device nodes are good for nothing but in /dev
        descriptor = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    ASSERT_NE(descriptor, -1) << std::strerror(errno);
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    ASSERT_EQ(ioctl(descriptor, TUNSETIFF, &request), 0) << std::strerror(errno);
    ASSERT_EQ(ioctl(descriptor, TUNSETPERSIST, 1), 0) << std::strerror(errno);
    close(descriptor);
}

/* Each test has a network of its own, and leaves no descriptor behind. */
class OwnNetwork : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "a network of its own needs root";
        network_.emplace();
        descriptors_ = count_descriptors();
    }
    void TearDown() override {
        if (network_) {
            EXPECT_EQ(count_descriptors(), descriptors_);
        }
    }

  private:
    std::optional<own_network> network_;
    std::ptrdiff_t descriptors_ = 0;
};

} // namespace keel_test

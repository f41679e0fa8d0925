/* SPDX-License-Identifier: MIT */
#pragma once

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

#include "own_network.h"

namespace keel_test {

/* Two networks joined by a cable: "eth0" in each, with the addresses 10.55.0.1/24 and
 * 10.55.0.2/24. Gone with their sockets, and whoever is in them. Needs root. */
class two_networks {
  public:
    two_networks() {
        for (int &network : networks_)
            elsewhere([&] {
                if (unshare(CLONE_NEWNET) == 0)
                    network = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
            });
        if (networks_[0] == -1 || networks_[1] == -1)
            throw std::runtime_error(std::string("no networks: ") + std::strerror(errno));
        const std::string other =
            "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(networks_[1]);
        in(0, [&] { ip("link add eth0 type veth peer name eth0 netns " + other + "\n"); });
        for (std::size_t side = 0; side < networks_.size(); side++)
            in(side,
               [&] { ip("address add " + address(side) + "/24 dev eth0\nlink set eth0 up\n"); });
    }
    ~two_networks() {
        for (const int network : networks_)
            close(network);
    }
    two_networks(const two_networks &) = delete;
    two_networks &operator=(const two_networks &) = delete;

    static std::string address(std::size_t side) { return "10.55.0." + std::to_string(side + 1); }

    /* Runs `body` on a thread that is in network 0 or 1. */
    void in(std::size_t side, const std::function<void()> &body) const {
        elsewhere([&] {
            if (setns(networks_[side], CLONE_NEWNET) != 0)
                std::abort();
            body();
        });
    }

  private:
    static void elsewhere(const std::function<void()> &body) { std::jthread(body).join(); }

    std::array<int, 2> networks_ = {-1, -1};
};

} // namespace keel_test

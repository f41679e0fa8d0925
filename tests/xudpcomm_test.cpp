/* SPDX-License-Identifier: MIT */
#include "xudpcomm.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

#include "child.h"
#include "descriptors.h"
#include "leaves_nothing.h"
#include "speechless.h"
#include "threads.h"
#include "two_networks.h"
#include "udp.h"
#include "waiting.h"

namespace {

using keel_test::address_of;
using keel_test::child_result;
using keel_test::count_threads;
using keel_test::datagram;
using keel_test::eventually;
using keel_test::here;
using keel_test::home;
using keel_test::listener;
using keel_test::name_of;
using keel_test::open_at;
using keel_test::owned_endpoint;
using keel_test::plain_socket;
using keel_test::received_by;
using keel_test::recv_line;
using keel_test::rounds;
using keel_test::run_in_child;
using keel_test::sanitized;
using keel_test::semaphore;
using keel_test::sent_by;
using keel_test::text_of;
using keel_test::there;
using keel_test::traffic;
using keel_test::two_networks;
using keel_test::value_of;
using keel_test::worker;
using std::string;

/* Where a child's output is looked at, and where it is not. */
using UdpcommMessages = keel_test::LeavesNothing;
using Udpcomm = keel_test::Speechless;
using UdpcommStress = keel_test::Speechless;

/* A child that said this on standard output and this on standard error. */
child_result said(const string &out, const string &err = "") {
    return {0, 0, out, err};
}

string times(int count, const string &text) {
    string all;
    while (count-- > 0)
        all += text;
    return all;
}

std::int64_t ignore(udpcomm * /*u*/, char * /*data*/, std::size_t /*size*/, sockaddr * /*peer*/) {
    return 0;
}

/* An endpoint can be closed only once it was started. */
void start_and_close(udpcomm *u) {
    EXPECT_EQ(udpcomm_start(u, ignore, nullptr), 0);
    EXPECT_EQ(udpcomm_close(u), 0);
}

bool can_be_locked(pthread_mutex_t &mutex) {
    if (pthread_mutex_trylock(&mutex) != 0)
        return false;
    pthread_mutex_unlock(&mutex);
    return true;
}

/* ---- The record ---------------------------------------------------------------------------------
 */

static_assert(sizeof(xsockaddr) == 28);
static_assert(offsetof(udpcomm, local) == 0);
static_assert(offsetof(udpcomm, peer) == 28);
static_assert(offsetof(udpcomm, send_bytes) == 56);
static_assert(offsetof(udpcomm, recv_bytes) == 64);
static_assert(offsetof(udpcomm, send_count) == 72);
static_assert(offsetof(udpcomm, recv_count) == 80);
static_assert(offsetof(udpcomm, lock) == 88);
static_assert(offsetof(udpcomm, attr) == offsetof(udpcomm, lock) + sizeof(pthread_mutex_t));
static_assert(offsetof(udpcomm, thread) == offsetof(udpcomm, attr) + sizeof(pthread_attr_t));
static_assert(offsetof(udpcomm, on_recv) == offsetof(udpcomm, thread) + sizeof(pthread_t));
static_assert(offsetof(udpcomm, arg) == offsetof(udpcomm, on_recv) + 8);
static_assert(offsetof(udpcomm, sock) == offsetof(udpcomm, arg) + 8);
static_assert(offsetof(udpcomm, enabled) == offsetof(udpcomm, sock) + 8);
static_assert(offsetof(udpcomm, done) == offsetof(udpcomm, enabled) + 8);
static_assert(sizeof(udpcomm) == offsetof(udpcomm, done) + sizeof(sem_t));
static_assert(std::is_same_v<decltype(udpcomm::enabled), std::int32_t>);
static_assert(
    std::is_same_v<udpcomm_callback, std::int64_t (*)(udpcomm *, char *, std::size_t, sockaddr *)>);

bool all_zero(const xsockaddr &address) {
    static constexpr xsockaddr zero{};
    return std::memcmp(&address, &zero, sizeof zero) == 0;
}

/* ---- Opening ------------------------------------------------------------------------------------
 */

TEST_F(Udpcomm, IsBoundAndSwitchedOffWhenNew) {
    udpcomm *u = open_at(here);
    EXPECT_EQ(text_of(u->local), home + ":" + std::to_string(here));
    EXPECT_EQ(u->local.sa.sa_family, AF_INET);
    EXPECT_EQ(text_of(name_of(u->sock->fd)), text_of(u->local));
    EXPECT_TRUE(all_zero(u->peer));
    EXPECT_EQ(sent_by(u), traffic(0, 0));
    EXPECT_EQ(received_by(u), traffic(0, 0));
    EXPECT_EQ(u->enabled, 0);
    EXPECT_EQ(u->on_recv, nullptr);
    EXPECT_EQ(u->arg, nullptr);
    EXPECT_TRUE(can_be_locked(u->lock));
    EXPECT_EQ(value_of(u->done), 0);
    start_and_close(u);
}

TEST_F(Udpcomm, HasADatagramSocketForBroadcastsAndAThreadToBeJoined) {
    udpcomm *u = open_at(here);
    EXPECT_EQ(u->sock->family, AF_INET);
    EXPECT_EQ(u->sock->type, SOCK_DGRAM);
    EXPECT_EQ(u->sock->protocol, 0);
    int broadcast = 0;
    socklen_t length = sizeof broadcast;
    getsockopt(u->sock->fd, SOL_SOCKET, SO_BROADCAST, &broadcast, &length);
    EXPECT_EQ(broadcast, 1);
    int detach_state = -1;
    int scope = -1;
    pthread_attr_getdetachstate(&u->attr, &detach_state);
    pthread_attr_getscope(&u->attr, &scope);
    EXPECT_EQ(detach_state, PTHREAD_CREATE_JOINABLE);
    EXPECT_EQ(scope, PTHREAD_SCOPE_SYSTEM);
    const auto threads = count_threads();
    ASSERT_EQ(udpcomm_start(u, ignore, nullptr), 0);
    EXPECT_EQ(count_threads(), threads + 1);
    EXPECT_EQ(udpcomm_close(u), 0);
}

TEST_F(Udpcomm, TakesAnyPortForPort0) {
    udpcomm *u = open_at(0);
    EXPECT_EQ(text_of(u->local), home + ":0");
    EXPECT_NE(name_of(u->sock->fd).in.sin_port, 0);
    start_and_close(u);
}

/* Every program on the link may have bound it; it takes nothing away from them. */
TEST_F(Udpcomm, TakesATextThatIsNoAddressForTheBroadcastAddress) {
    const char *const texts[] = {"", "localhost", "1.2.3.4.5", "300.1.1.1", nullptr};
    for (const char *text : texts) {
        udpcomm *u = udpcomm_open(AF_INET, text, 0);
        EXPECT_EQ(text_of(u->local), "255.255.255.255:0");
        start_and_close(u);
    }
}

TEST_F(UdpcommMessages, APortInUseLeavesAnUnboundEndpoint) {
    const auto body = [] {
        const plain_socket occupant(here);
        const plain_socket peer(there);
        listener taken;
        const owned_endpoint u(taken);
        EXPECT_EQ(text_of(u->local), home + ":" + std::to_string(here));
        EXPECT_EQ(name_of(u->sock->fd).in.sin_port, 0);
        EXPECT_EQ(u.send("question"), 8); // which has the system find a port
        EXPECT_EQ(peer.receive(), "question");
        xsockaddr found = name_of(u->sock->fd);
        EXPECT_NE(found.in.sin_port, htons(here));
        found.in.sin_addr = u->local.in.sin_addr;
        EXPECT_TRUE(peer.send("answer", found));
        taken.wait();
        EXPECT_EQ(taken.taken().at(0).text, "answer");
    };
    EXPECT_EQ(run_in_child(body), said("Bind error!\n" + recv_line(there)));
}

TEST_F(UdpcommMessages, AForeignAddressCannotBeBound) {
    const auto body = [] { start_and_close(open_at(here, "192.0.2.1")); };
    EXPECT_EQ(run_in_child(body), said("Bind error!\n"));
}

TEST_F(UdpcommMessages, OnlyIPv4IsBound) {
    const auto body = [] {
        for (const int family : {AF_INET6, AF_UNIX}) {
            udpcomm *u = udpcomm_open(family, "127.0.0.1", here);
            EXPECT_TRUE(all_zero(u->local));
            EXPECT_EQ(u->sock->family, family);
            EXPECT_EQ(u->enabled, 0);
            start_and_close(u);
        }
    };
    EXPECT_EQ(run_in_child(body), said(times(2, "Bind error!\n")));
}

/* Nobody asks who it was. */
TEST_F(UdpcommMessages, WhoSendsOverIPv6IsNotTold) {
    const auto body = [] {
        xsockaddr to{};
        to.in6.sin6_family = AF_INET6;
        to.in6.sin6_addr = in6addr_loopback;
        listener taken;
        const owned_endpoint u(udpcomm_open(AF_INET6, "::1", 0), listener::take, &taken);
        to.in6.sin6_port = htons(9);
        EXPECT_EQ(u.send("x", to), 1); // which has the system find a port
        to.in6.sin6_port = name_of(u->sock->fd).in6.sin6_port;
        EXPECT_EQ(u.send("to myself", to), 9);
        taken.wait();
        EXPECT_EQ(taken.taken().at(0), (datagram{"to myself", "0.0.0.0:0"}));
    };
    EXPECT_EQ(run_in_child(body), said("Bind error!\n" + recv_line(0, "0.0.0.0")));
}

TEST_F(UdpcommMessages, EndsWithoutASocket) {
    const auto family = [] {
        std::fputs("before\n", stdout);
        udpcomm_open(1234, home.c_str(), here);
    };
    EXPECT_EQ(run_in_child(family), (child_result{1, 0, "before\nOpen xsocket error!\n", ""}));
    const auto descriptors = [] {
        keel_test::forbid_descriptors();
        open_at(here);
    };
    EXPECT_EQ(run_in_child(descriptors), (child_result{1, 0, "Open xsocket error!\n", ""}));
    const auto cancelled = [] { keel_test::run_cancelled([] { udpcomm_open(1234, "", 0); }); };
    EXPECT_EQ(run_in_child(cancelled), (child_result{1, 0, "Open xsocket error!\n", ""}));
}

/* ---- Starting -----------------------------------------------------------------------------------
 */

TEST_F(UdpcommMessages, NothingIsDoneToNull) {
    const auto body = [] {
        EXPECT_EQ(udpcomm_start(nullptr, ignore, nullptr), -1);
        EXPECT_EQ(udpcomm_send(nullptr, "x", 1, nullptr), -1);
        EXPECT_EQ(udpcomm_switch(nullptr, 1), -1);
        EXPECT_EQ(udpcomm_detach(nullptr), -1);
        EXPECT_EQ(udpcomm_close(nullptr), -1);
        udpcomm *u = open_at(here);
        EXPECT_EQ(udpcomm_start(u, nullptr, u), -1);
        EXPECT_EQ(u->enabled, 0);
        EXPECT_EQ(u->arg, nullptr);
        start_and_close(u);
    };
    EXPECT_EQ(run_in_child(body), said(""));
}

TEST_F(Udpcomm, StartKeepsWhatItIsGivenAndSwitchesOn) {
    int arg = 0;
    udpcomm *u = open_at(here);
    EXPECT_EQ(udpcomm_start(u, ignore, &arg), 0);
    EXPECT_EQ(u->enabled, 1);
    EXPECT_EQ(u->on_recv, ignore);
    EXPECT_EQ(u->arg, &arg);
    EXPECT_EQ(udpcomm_close(u), 0);
}

TEST_F(UdpcommMessages, WithoutAThreadItStillSends) {
    const auto body = [] {
        const plain_socket peer(there);
        listener taken;
        udpcomm *u = open_at(here);
        std::size_t stack_size = 0;
        pthread_attr_getstacksize(&u->attr, &stack_size);
        ASSERT_EQ(pthread_attr_setstacksize(&u->attr, std::size_t{1} << 50), 0);
        EXPECT_EQ(udpcomm_start(u, listener::take, &taken), -1);
        EXPECT_EQ(u->enabled, 1);
        EXPECT_EQ(u->on_recv, listener::take);
        EXPECT_EQ(u->arg, &taken);
        const xsockaddr to = address_of(there);
        EXPECT_EQ(udpcomm_send(u, "x", 1, &to.sa), 1);
        EXPECT_EQ(udpcomm_detach(u), EINVAL);
        pthread_attr_setstacksize(&u->attr, stack_size);
        EXPECT_TRUE(peer.send("in time"));
        EXPECT_EQ(udpcomm_start(u, listener::take, &taken), 0);
        taken.wait();
        EXPECT_EQ(udpcomm_close(u), 0);
    };
    EXPECT_EQ(run_in_child(body), said("Start error!\n" + recv_line(there)));
}

TEST_F(UdpcommMessages, ASecondThreadIsRefused) {
    const auto body = [] {
        const plain_socket peer(there);
        listener taken;
        const owned_endpoint u(taken);
        udpcomm_switch(u.get(), 0);
        EXPECT_EQ(udpcomm_start(u.get(), ignore, nullptr), -1);
        EXPECT_EQ(u->enabled, 0);
        EXPECT_EQ(u->arg, &taken);
        EXPECT_TRUE(peer.send("x"));
        taken.wait();
    };
    EXPECT_EQ(run_in_child(body), said("Start error!\n" + recv_line(there)));
}

/* ---- Receiving ----------------------------------------------------------------------------------
 */

/* A callback that is handed the first datagram, of ten bytes. */
struct first_of_ten {
    udpcomm *opened = open_at(here);
    semaphore done;

    static std::int64_t take(udpcomm *u, char *data, std::size_t size, sockaddr *peer) {
        auto &at = *static_cast<first_of_ten *>(u->arg);
        EXPECT_EQ(u, at.opened);
        EXPECT_EQ(size, 10U);
        EXPECT_STREQ(data, "0123456789");
        EXPECT_EQ(peer, &u->peer.sa);
        EXPECT_EQ(peer->sa_family, AF_INET);
        EXPECT_EQ(text_of(u->peer), home + ":" + std::to_string(there));
        EXPECT_EQ(received_by(u), traffic(1, 10)) << "it is counted already";
        std::puts("and handed on");
        at.done.post();
        return INT64_MIN;
    }
};

TEST_F(UdpcommMessages, ADatagramIsToldOfAndHandedOn) {
    const auto body = [] {
        const plain_socket peer(there);
        first_of_ten at;
        const owned_endpoint u(at.opened, first_of_ten::take, &at);
        EXPECT_TRUE(peer.send("0123456789"));
        at.done.wait();
    };
    EXPECT_EQ(run_in_child(body), said(recv_line(there) + "and handed on\n"));
}

TEST_F(Udpcomm, ADatagramIsCutAfter4095Bytes) {
    const plain_socket peer(there);
    listener taken;
    const owned_endpoint u(taken);
    std::uint64_t count = 0;
    std::uint64_t bytes = 0;
    for (const std::size_t size : {1U, 2U, 1472U, 4094U, 4095U, 4096U, 4097U, 9000U, 65'507U, 3U}) {
        string text(size, '\0');
        for (std::size_t i = 0; i < size; i++)
            text[i] = static_cast<char>(i * 7);
        ASSERT_TRUE(peer.send(text));
        taken.wait();
        text.resize(std::min<std::size_t>(size, 4095));
        EXPECT_EQ(taken.taken().back(), (datagram{text, home + ":" + std::to_string(there)}));
        count++;
        bytes += text.size();
        EXPECT_EQ(taken.counted(), traffic(count, bytes));
    }
}

TEST_F(UdpcommMessages, AnEmptyDatagramIsToldOfAndNothingElse) {
    const auto body = [] {
        const plain_socket peer(there);
        const plain_socket another(there + 1);
        listener taken;
        const owned_endpoint u(taken);
        EXPECT_TRUE(another.send(""));
        EXPECT_TRUE(another.send(""));
        EXPECT_TRUE(peer.send("x"));
        taken.wait();
        EXPECT_EQ(taken.taken().size(), 1U);
        EXPECT_EQ(received_by(u.get()), traffic(1, 1));
    };
    EXPECT_EQ(run_in_child(body), said(times(2, "Recv end!\n") + recv_line(there)));
}

TEST_F(UdpcommMessages, ArrivalsKeepTheirOrder) {
    constexpr int count = 100;
    const auto body = [] {
        const plain_socket peers[] = {plain_socket(there), plain_socket(there + 1)};
        udpcomm *u = open_at(here);
        for (int i = 0; i < count; i++) // they wait for the thread
            EXPECT_TRUE(peers[i % 2].send(i % 10 == 9 ? "" : std::to_string(i)));
        listener taken;
        const owned_endpoint started(u, listener::take, &taken);
        taken.wait(count / 10 * 9);
        std::size_t next = 0;
        for (int i = 0; i < count; i++) {
            if (i % 10 != 9) {
                EXPECT_EQ(taken.taken().at(next++).text, std::to_string(i));
            }
        }
    };
    string lines;
    for (int i = 0; i < count; i++)
        lines += i % 10 == 9 ? "Recv end!\n" : recv_line(i % 2 == 0 ? there : there + 1);
    lines.erase(lines.rfind("Recv end!")); // the last one may come too late
    const child_result seen = run_in_child(body);
    EXPECT_EQ(seen.status, 0);
    EXPECT_EQ(seen.err, "");
    EXPECT_EQ(seen.out.substr(0, lines.size()), lines);
}

TEST_F(Udpcomm, ReceivingIsNotTouchedByTheSwitchNorByTheLock) {
    const plain_socket peer(there);
    listener taken;
    const owned_endpoint u(taken);
    EXPECT_EQ(udpcomm_switch(u.get(), 0), 0);
    ASSERT_TRUE(peer.send("switched off"));
    taken.wait();
    pthread_mutex_lock(&u->lock);
    ASSERT_TRUE(peer.send("locked"));
    taken.wait();
    pthread_mutex_unlock(&u->lock);
    EXPECT_EQ(u->recv_count, 2U);
}

TEST_F(Udpcomm, ACallbackMaySendSwitchAndDetach) {
    const plain_socket peer(there);
    const auto answer = [](udpcomm *u, char *data, std::size_t size,
                           sockaddr *from) -> std::int64_t {
        EXPECT_TRUE(can_be_locked(u->lock));
        EXPECT_EQ(udpcomm_detach(u), 0);
        EXPECT_EQ(udpcomm_switch(u, 1), 0);
        return udpcomm_send(u, data, size, from);
    };
    const owned_endpoint u(open_at(here), answer);
    udpcomm_switch(u.get(), 0);
    ASSERT_TRUE(peer.send("there and back"));
    EXPECT_EQ(peer.receive(), "there and back");
}

/* ---- Sending ------------------------------------------------------------------------------------
 */

TEST_F(UdpcommMessages, NothingIsSentWhileSwitchedOff) {
    const auto body = [] {
        const plain_socket peer(there);
        const xsockaddr to = address_of(there);
        udpcomm *u = open_at(here);
        EXPECT_EQ(udpcomm_send(u, "early", 5, &to.sa), -1);
        const owned_endpoint started(u, ignore);
        for (const int off : {0, 2, -1, 3, 256, 257, INT_MAX, INT_MIN}) {
            EXPECT_EQ(udpcomm_switch(u, off), 0);
            EXPECT_EQ(u->enabled, off);
            EXPECT_EQ(started.send("off"), -1) << off;
            EXPECT_EQ(udpcomm_send(u, nullptr, 1, nullptr), -1);
            EXPECT_TRUE(peer.has_nothing());
        }
        EXPECT_EQ(sent_by(u), traffic(0, 0));
        EXPECT_EQ(udpcomm_switch(u, 1), 0);
        EXPECT_EQ(started.send("on"), 2);
        EXPECT_EQ(peer.receive(), "on");
        EXPECT_EQ(sent_by(u), traffic(1, 2));
    };
    EXPECT_EQ(run_in_child(body), said(""));
}

TEST_F(UdpcommMessages, WhatIsSentArrivesAndIsCounted) {
    const auto body = [] {
        const plain_socket peer(there);
        const owned_endpoint u(open_at(here), ignore);
        std::uint64_t count = 0;
        std::uint64_t bytes = 0;
        for (const std::size_t size : {10U, 0U, 1U, 4096U, 65'507U}) {
            const string text(size, '%');
            EXPECT_EQ(u.send(text), static_cast<int>(size));
            EXPECT_EQ(peer.receive(), text);
            count++;
            bytes += size;
            EXPECT_EQ(sent_by(u.get()), traffic(count, bytes));
            EXPECT_TRUE(can_be_locked(u->lock));
        }
        EXPECT_TRUE(peer.has_nothing());
    };
    EXPECT_EQ(run_in_child(body), said(""));
}

/* Sends what cannot be sent. */
child_result fail_to_send(const void *buffer, std::size_t length, const sockaddr *to) {
    return run_in_child([&] {
        const owned_endpoint u(open_at(here), ignore);
        EXPECT_EQ(udpcomm_send(u.get(), buffer, length, to), -1);
        EXPECT_EQ(sent_by(u.get()), traffic(0, 0));
        EXPECT_TRUE(can_be_locked(u->lock));
    });
}

child_result not_sent(const string &length, const string &text, int error) {
    return said("len = " + length + ", nbytes = -1, buf = " + text + "\n",
                string("Send error: ") + std::strerror(error) + "\n");
}

TEST_F(UdpcommMessages, AFailedSendTellsWhatItWas) {
    const xsockaddr to = address_of(there);
    xsockaddr other_family{};
    other_family.in6.sin6_family = AF_INET6;
    const xsockaddr no_family{};
    const xsockaddr no_port = address_of(0);
    const string large(65'508, 'x');
    const string binary("%s%n\0rest", 9);
    const struct {
        const void *buffer;
        std::size_t length;
        const sockaddr *to;
        child_result told;
    } rows[] = {
        {"hello", 5, nullptr, not_sent("5", "hello", EDESTADDRREQ)},
        {"hello", 5, &other_family.sa, not_sent("5", "hello", EAFNOSUPPORT)},
        {"hello", 5, &no_family.sa, not_sent("5", "hello", EINVAL)},
        {"hello", 5, &no_port.sa, not_sent("5", "hello", EINVAL)},
        {"", 1, nullptr, not_sent("1", "", EDESTADDRREQ)},
        {"", 0, nullptr, not_sent("0", "", EDESTADDRREQ)},
        {binary.data(), binary.size(), nullptr, not_sent("9", "%s%n", EDESTADDRREQ)},
        {large.data(), large.size(), &to.sa, not_sent("65508", large, EMSGSIZE)},
        {nullptr, 3, &to.sa, not_sent("3", "", EFAULT)},
        {"huge", SIZE_MAX, &to.sa, not_sent("18446744073709551615", "huge", EMSGSIZE)},
    };
    for (const auto &row : rows)
        EXPECT_EQ(fail_to_send(row.buffer, row.length, row.to), row.told);
}

/* The text may well stand in the middle of something, or at its very end. */
TEST_F(UdpcommMessages, AFailedSendReadsNoFurtherThanItsLength) {
    const std::unique_ptr<char[]> bytes(new char[3]{'a', 'b', 'c'});
    EXPECT_EQ(fail_to_send(bytes.get(), 3, nullptr), not_sent("3", "abc", EDESTADDRREQ));
    EXPECT_EQ(fail_to_send("abcdef", 2, nullptr), not_sent("2", "ab", EDESTADDRREQ));
}

TEST_F(Udpcomm, BroadcastsReachTheOtherEnds) {
    if (geteuid() != 0)
        GTEST_SKIP() << "networks of its own need root";
    const two_networks networks;
    listener taken;
    udpcomm *from = nullptr;
    udpcomm *to = nullptr;
    networks.in(0, [&] { from = open_at(here, two_networks::address(0)); });
    networks.in(1, [&] { to = open_at(there, "0.0.0.0"); });
    const owned_endpoint sending(from, ignore);
    const owned_endpoint receiving(to, listener::take, &taken);
    for (const char *ip : {"10.55.0.255", "10.55.0.2"}) {
        EXPECT_EQ(sending.send("to all", address_of(there, ip)), 6) << ip;
        taken.wait();
        EXPECT_EQ(taken.taken().back(), (datagram{"to all", "10.55.0.1:21987"}));
    }
    EXPECT_EQ(sent_by(from), traffic(2, 12));
    EXPECT_EQ(received_by(to), traffic(2, 12));
}

/* ---- Detaching and closing ----------------------------------------------------------------------
 */

TEST_F(Udpcomm, ADetachedThreadIsClosedAllTheSame) {
    const plain_socket peer(there);
    listener taken;
    owned_endpoint u(taken);
    EXPECT_EQ(udpcomm_detach(u.get()), 0);
    pthread_attr_t found;
    ASSERT_EQ(pthread_getattr_np(u->thread, &found), 0);
    int detach_state = -1;
    pthread_attr_getdetachstate(&found, &detach_state);
    pthread_attr_destroy(&found);
    EXPECT_EQ(detach_state, PTHREAD_CREATE_DETACHED);
    ASSERT_TRUE(peer.send("x"));
    taken.wait();
    EXPECT_EQ(u.close(), 0);
}

TEST_F(Udpcomm, OnlyAThreadThatRunsAndOnlyOnceIsDetached) {
    udpcomm *u = open_at(here);
    EXPECT_EQ(udpcomm_detach(u), EINVAL);
    ASSERT_EQ(udpcomm_start(u, ignore, nullptr), 0);
    EXPECT_EQ(udpcomm_detach(u), 0);
    EXPECT_EQ(udpcomm_detach(u), EINVAL);
    EXPECT_EQ(udpcomm_close(u), 0);
}

TEST_F(Udpcomm, ClosingReleasesThePort) {
    for (int i = 0; i < 20; i++) {
        listener taken;
        owned_endpoint u(taken);
        ASSERT_EQ(text_of(name_of(u->sock->fd)), home + ":" + std::to_string(here)) << i;
        EXPECT_EQ(u.close(), 0);
    }
}

/* A callback in which the thread stays until it is cancelled. */
struct stay {
    semaphore reached;
    std::atomic<bool> left = false;

    struct on_stack {
        stay &at;
        ~on_stack() { at.left = true; }
    };

    [[gnu::noinline]] void wait() {
        const on_stack object{*this};
        reached.post();
        semaphore never;
        never.wait();
    }

    static std::int64_t take(udpcomm *u, char * /*data*/, std::size_t /*size*/,
                             sockaddr * /*peer*/) {
        static_cast<stay *>(u->arg)->wait();
        return 0;
    }
};

TEST_F(Udpcomm, ClosingEndsACallbackThatWaitsAndUnwindsIt) {
    const plain_socket peer(there);
    for (const bool detached : {false, true}) {
        stay at;
        owned_endpoint u(open_at(here), stay::take, &at);
        if (detached)
            udpcomm_detach(u.get());
        ASSERT_TRUE(peer.send("x"));
        at.reached.wait();
        EXPECT_EQ(u.close(), 0);
        EXPECT_TRUE(at.left) << detached;
    }
}

TEST_F(UdpcommMessages, ClosingTellsOfADescriptorThatIsGone) {
    const auto body = [] {
        const plain_socket peer(there);
        stay at;
        owned_endpoint u(open_at(here), stay::take, &at);
        EXPECT_TRUE(peer.send("x"));
        at.reached.wait();
        close(u->sock->fd);
        EXPECT_EQ(u.close(), 0);
    };
    EXPECT_EQ(run_in_child(body), said(recv_line(there) + "Close xsocket error!\n"));
}

/* A callback in which the thread stays until it is let go, and cannot be cancelled. */
struct uncancellable {
    semaphore reached;
    semaphore go;
    std::atomic<bool> finished = false;

    static std::int64_t take(udpcomm *u, char * /*data*/, std::size_t /*size*/,
                             sockaddr * /*peer*/) {
        auto &at = *static_cast<uncancellable *>(u->arg);
        int former = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former);
        at.reached.post();
        at.go.wait();
        at.finished = true;
        pthread_setcancelstate(former, nullptr);
        return 0;
    }
};

TEST_F(Udpcomm, ClosingWaitsForACallbackThatCannotBeCancelled) {
    const plain_socket peer(there);
    uncancellable at;
    udpcomm *u = open_at(here);
    ASSERT_EQ(udpcomm_start(u, uncancellable::take, &at), 0);
    ASSERT_TRUE(peer.send("x"));
    at.reached.wait();
    worker closer([&] {
        EXPECT_EQ(udpcomm_close(u), 0);
        EXPECT_TRUE(at.finished);
    });
    EXPECT_TRUE(closer.falls_asleep());
    at.go.post();
}

TEST_F(Udpcomm, ACallbackMayEndItsThreadAsIfItWereCancelled) {
    const plain_socket peer(there);
    for (const bool detached : {false, true}) {
        udpcomm *u = open_at(here);
        const auto leave = [](udpcomm *, char *, std::size_t, sockaddr *) -> std::int64_t {
            pthread_exit(nullptr);
        };
        const auto threads = count_threads();
        ASSERT_EQ(udpcomm_start(u, leave, nullptr), 0);
        if (detached)
            udpcomm_detach(u);
        ASSERT_TRUE(peer.send("x"));
        EXPECT_TRUE(eventually([&] { return count_threads() == threads; }));
        EXPECT_EQ(value_of(u->done), 1);
        EXPECT_EQ(udpcomm_close(u), 0);
    }
}

TEST_F(Udpcomm, AThreadThatIsCancelledClosesAllTheSame) {
    udpcomm *u = open_at(here);
    ASSERT_EQ(udpcomm_start(u, ignore, nullptr), 0);
    EXPECT_TRUE(keel_test::run_cancelled([&] { EXPECT_EQ(udpcomm_close(u), 0); }));
}

/* Tells whether udpcomm_close() waits for a post of `done`, and gives it one. */
bool closes_when_posted(udpcomm *u) {
    worker closer([&] { udpcomm_close(u); });
    const bool waits = closer.falls_asleep();
    if (waits)
        sem_post(&u->done);
    closer.join();
    return waits;
}

/* Puts /dev/zero in the socket's place: there is something to read, and nothing to receive. */
void end_by_error(udpcomm *u, std::ptrdiff_t threads) {
    const int zero = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    dup2(zero, u->sock->fd);
    close(zero);
    EXPECT_TRUE(eventually([&] { return count_threads() < threads; }));
}

TEST_F(Udpcomm, ClosingWaitsForOneThatWasNeverStarted) {
    EXPECT_TRUE(closes_when_posted(open_at(here)));
}

TEST_F(Udpcomm, ClosingWaitsForOneThatHasEndedByItself) {
    for (const bool detached : {false, true}) {
        udpcomm *u = open_at(here);
        ASSERT_EQ(udpcomm_start(u, ignore, nullptr), 0);
        if (detached)
            udpcomm_detach(u);
        end_by_error(u, count_threads());
        EXPECT_TRUE(closes_when_posted(u)) << detached;
    }
}

TEST_F(Udpcomm, OneThatHasEndedByItselfCanBeStartedAgain) {
    const plain_socket peer(there);
    for (const bool detached : {false, true}) {
        udpcomm *u = open_at(here);
        ASSERT_EQ(udpcomm_start(u, ignore, nullptr), 0);
        if (detached)
            udpcomm_detach(u);
        const int socket = fcntl(u->sock->fd, F_DUPFD_CLOEXEC, 0);
        end_by_error(u, count_threads());
        dup2(socket, u->sock->fd);
        close(socket);
        listener taken;
        const owned_endpoint again(u, listener::take, &taken);
        ASSERT_TRUE(peer.send("again"));
        taken.wait();
    }
}

/* ---- Errors of the system -----------------------------------------------------------------------
 */

/* Has a callback spoil the socket, for which the thread ends, and mends it then. */
child_result run_spoilt(udpcomm_callback spoil) {
    return run_in_child([&] {
        const plain_socket peer(there);
        const xsockaddr to = address_of(there);
        udpcomm *u = open_at(here);
        const int socket = dup(u->sock->fd);
        ASSERT_EQ(udpcomm_start(u, spoil, nullptr), 0);
        EXPECT_TRUE(peer.send("x"));
        void *result = nullptr;
        EXPECT_EQ(pthread_join(u->thread, &result), 0);
        EXPECT_EQ(result, reinterpret_cast<void *>(-1));
        EXPECT_EQ(value_of(u->done), 0);
        dup2(socket, u->sock->fd);
        EXPECT_EQ(udpcomm_send(u, "alive", 5, &to.sa), 5);
        EXPECT_EQ(peer.receive(), "alive");
        EXPECT_EQ(udpcomm_switch(u, 0), 0);
        EXPECT_EQ(udpcomm_send(u, "alive", 5, &to.sa), -1);
    });
}

TEST_F(UdpcommMessages, AFailedWaitEndsTheThreadAlone) {
    const auto spoil = [](udpcomm *u, char *, std::size_t, sockaddr *) -> std::int64_t {
        return close(u->sock->fd);
    };
    EXPECT_EQ(run_spoilt(spoil), said(recv_line(there) + "Select error!\n"));
}

/* There is something to read, and nothing to receive. */
TEST_F(UdpcommMessages, AFailedReceiptEndsTheThreadAlone) {
    const auto spoil = [](udpcomm *u, char *, std::size_t, sockaddr *) -> std::int64_t {
        return dup2(open("/dev/zero", O_RDONLY | O_CLOEXEC), u->sock->fd);
    };
    EXPECT_EQ(run_spoilt(spoil), said(recv_line(there) + "Recv error!\n"));
}

std::atomic<int> signals;

TEST_F(UdpcommMessages, SignalHandlersDoNotEndTheThread) {
    constexpr int count = 100;
    const auto body = [] {
        struct sigaction action {};
        action.sa_handler = [](int) { signals++; };
        sigaction(SIGUSR1, &action, nullptr);
        const plain_socket peer(there);
        listener taken;
        const owned_endpoint u(taken);
        for (int i = 0; i < count; i++) {
            pthread_kill(u->thread, SIGUSR1);
            EXPECT_TRUE(peer.send("x"));
            taken.wait();
        }
        EXPECT_TRUE(eventually([] { return signals > 0; }));
    };
    EXPECT_EQ(run_in_child(body), said(times(count, recv_line(there))));
}

/* The C library tells every thread of new ids by a signal that cannot be blocked. */
TEST_F(UdpcommMessages, NewIdsOfTheProcessDoNotEndTheThread) {
    const auto body = [] {
        const plain_socket peer(there);
        listener taken;
        const owned_endpoint u(taken);
        EXPECT_EQ(setegid(getegid()), 0);
        EXPECT_TRUE(peer.send("x"));
        taken.wait();
    };
    EXPECT_EQ(run_in_child(body), said(recv_line(there)));
}

TEST_F(UdpcommMessages, AnInterfaceThatGoesDownFailsSendsUntilItIsUpAgain) {
    if (geteuid() != 0)
        GTEST_SKIP() << "networks of its own need root";
    const auto body = [] {
        const two_networks networks;
        const xsockaddr to = address_of(there, two_networks::address(1));
        udpcomm *from = nullptr;
        std::unique_ptr<plain_socket> peer;
        networks.in(0, [&] { from = open_at(here, two_networks::address(0)); });
        networks.in(
            1, [&] { peer = std::make_unique<plain_socket>(there, text_of(to).substr(0, 9)); });
        const owned_endpoint u(from, ignore);
        EXPECT_EQ(u.send("first", to), 5);
        EXPECT_EQ(peer->receive(), "first");
        networks.in(0, [] { keel_test::ip("link set eth0 down\n"); });
        EXPECT_EQ(u.send("second", to), -1);
        EXPECT_EQ(u.send("third", to), -1);
        EXPECT_EQ(sent_by(u.get()), traffic(1, 5));
        networks.in(0, [] { keel_test::ip("link set eth0 up\n"); });
        EXPECT_TRUE(eventually([&] { return u.send("fourth", to) == 6 && !peer->has_nothing(); }));
        EXPECT_EQ(peer->receive(), "fourth");
    };
    EXPECT_EQ(run_in_child(body), said("len = 6, nbytes = -1, buf = second\n"
                                       "len = 5, nbytes = -1, buf = third\n",
                                       times(2, "Send error: Network is unreachable\n")));
}

/* ---- Prints that do not get on ------------------------------------------------------------------
 */

/* Standard output, into a pipe that is full until somebody reads it. */
class full_pipe {
  public:
    full_pipe() {
        EXPECT_EQ(pipe2(ends_, O_CLOEXEC | O_NONBLOCK), 0);
        while (write(ends_[1], "", 1) == 1)
            filling_++;
        fcntl(ends_[1], F_SETFL, 0);
        stream_ = fdopen(ends_[1], "w");
        std::setvbuf(stream_, nullptr, _IONBF, 0);
        former_ = std::exchange(stdout, stream_);
    }
    ~full_pipe() {
        stdout = former_;
        std::fclose(stream_);
        close(ends_[0]);
    }
    full_pipe(const full_pipe &) = delete;
    full_pipe &operator=(const full_pipe &) = delete;

    /* Somebody prints, and cannot go on. */
    bool holds_somebody() const {
        return eventually([&] {
            if (ftrylockfile(stream_) != 0)
                return true;
            funlockfile(stream_);
            return false;
        });
    }

    /* Lets prints pass. */
    void empty() {
        string dump(filling_, '\0');
        EXPECT_EQ(read(ends_[0], dump.data(), filling_), static_cast<ssize_t>(filling_));
    }

    string printed() const {
        string text(1000, '\0');
        text.resize(static_cast<std::size_t>(read(ends_[0], text.data(), text.size())));
        return text;
    }

  private:
    int ends_[2] = {-1, -1};
    std::size_t filling_ = 0;
    FILE *stream_ = nullptr;
    FILE *former_ = nullptr;
};

TEST_F(Udpcomm, ClosingInTheMiddleOfAMessageLosesNothingOfIt) {
    const plain_socket peer(there);
    full_pipe output;
    udpcomm *u = open_at(here);
    ASSERT_EQ(udpcomm_start(u, ignore, nullptr), 0);
    ASSERT_TRUE(peer.send("x"));
    ASSERT_TRUE(output.holds_somebody());
    worker closer([&] { udpcomm_close(u); });
    EXPECT_TRUE(closer.falls_asleep());
    output.empty();
    closer.join();
    std::puts("and it can be used");
    EXPECT_EQ(output.printed(), recv_line(there) + "and it can be used\n");
}

TEST_F(Udpcomm, ASenderThatIsCancelledInAMessageLeavesTheLock) {
    full_pipe output;
    const owned_endpoint u(open_at(here), ignore);
    worker sending([&] { udpcomm_send(u.get(), "text", 4, nullptr); });
    ASSERT_TRUE(output.holds_somebody());
    sending.cancel();
    output.empty();
    EXPECT_TRUE(sending.join());
    EXPECT_TRUE(can_be_locked(u->lock));
    EXPECT_EQ(output.printed(), "len = 4, nbytes = -1, buf = text\n");
}

/* ---- Several of them ----------------------------------------------------------------------------
 */

TEST_F(UdpcommMessages, LinesOfSeveralEndpointsStayWhole) {
    constexpr int count = 500;
    constexpr std::uint16_t endpoints = 4;
    const auto body = [] {
        std::vector<std::jthread> threads;
        for (std::uint16_t i = 0; i < endpoints; i++)
            threads.emplace_back([i] {
                const auto to = static_cast<std::uint16_t>(here + 10 + i);
                const plain_socket peer(static_cast<std::uint16_t>(to + endpoints));
                listener taken;
                const owned_endpoint u(taken, to);
                for (int sent = 0; sent < count; sent++) {
                    EXPECT_TRUE(peer.send(sent % 2 == 0 ? "x" : "", address_of(to)));
                    if (sent % 2 == 0) {
                        taken.wait();
                    } else {
                        EXPECT_EQ(u.send("failing", {}), -1);
                    }
                }
                EXPECT_TRUE(peer.send("last", address_of(to)));
                taken.wait();
            });
    };
    const child_result seen = run_in_child(body);
    string out = seen.out;
    const auto take_away = [&](const string &line) {
        int found = 0;
        for (std::size_t at; (at = out.find(line)) != out.npos; found++)
            out.replace(at, line.size(), "\n");
        return found;
    };
    for (std::uint16_t i = 0; i < endpoints; i++)
        EXPECT_EQ(take_away(recv_line(static_cast<std::uint16_t>(here + 10 + endpoints + i))),
                  count / 2 + 1);
    EXPECT_EQ(take_away("Recv end!\n"), endpoints * count / 2);
    EXPECT_EQ(take_away("len = 7, nbytes = -1, buf = failing\n"), endpoints * count / 2);
    EXPECT_EQ(out.find_first_not_of('\n'), out.npos) << out;
    EXPECT_EQ(seen.err, times(endpoints * count / 2, "Send error: Invalid argument\n"));
    EXPECT_EQ(seen.status, 0);
}

TEST_F(UdpcommMessages, AThousandEndpointsHaveDescriptorsOfAnyNumber) {
    constexpr std::uint16_t count = 1100;
    const auto body = [] {
        rlimit descriptors{};
        getrlimit(RLIMIT_NOFILE, &descriptors);
        descriptors.rlim_cur = std::max<rlim_t>(descriptors.rlim_cur, 2 * count);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors), 0);
        listener taken;
        std::vector<std::unique_ptr<owned_endpoint>> all;
        for (std::uint16_t i = 0; i < count; i++)
            all.push_back(std::make_unique<owned_endpoint>(open_at(0), listener::take, &taken));
        EXPECT_GT((*all.back())->sock->fd, 1024);
        std::vector<datagram> expected;
        for (std::uint16_t i = 0; i < count; i++) {
            const owned_endpoint &next = *all[(i + 1U) % count];
            const string text = std::to_string(i);
            EXPECT_EQ(all[i]->send(text, name_of(next->sock->fd)), static_cast<int>(text.size()));
            taken.wait();
            EXPECT_EQ(taken.taken().back(),
                      (datagram{text, text_of(name_of((*all[i])->sock->fd))}));
            EXPECT_EQ(received_by(next.get()), traffic(1, text.size()));
        }
        stdout = std::fopen("/dev/null", "w"); // what was printed is not asked for
    };
    EXPECT_EQ(run_in_child(body).status, 0);
}

/* ---- Stress -------------------------------------------------------------------------------------
 */

constexpr std::size_t largest = 4095;

/* The content of a datagram follows from its size. */
class contents {
  public:
    contents() {
        std::minstd_rand random(7);
        for (char &byte : bytes_)
            byte = static_cast<char>(random());
    }
    const char *of(std::size_t size) const { return &bytes_[size % 64]; }

  private:
    std::array<char, largest + 64> bytes_;
};

/* An endpoint that sends datagrams of random sizes to another, no more of them at a time than a
 * socket holds, and keeps count of what comes from there. */
struct correspondent {
    udpcomm *u = nullptr;
    correspondent *other = nullptr;
    xsockaddr address{};
    semaphore room;
    std::vector<int> sent = std::vector<int>(largest + 1);
    std::vector<int> received = std::vector<int>(largest + 1);
    int spoilt = 0;

    static constexpr int at_a_time = 16;
    static inline const contents content;

    static std::int64_t take(udpcomm *u, char *data, std::size_t size, sockaddr *peer) {
        auto &self = *static_cast<correspondent *>(u->arg);
        if (std::memcmp(data, content.of(size), size) != 0 || data[size] != '\0' ||
            std::memcmp(peer, &self.other->address, sizeof(sockaddr_in)) != 0)
            self.spoilt++;
        self.received.at(size)++;
        self.other->room.post();
        return 0;
    }

    void send(int count, unsigned seed) {
        std::minstd_rand random(seed);
        for (int i = 0; i < count; i++) {
            room.wait();
            const std::size_t size = 1 + random() % largest;
            if (udpcomm_send(u, content.of(size), size, &other->address.sa) !=
                static_cast<int>(size))
                spoilt++;
            sent[size]++;
        }
        room.wait(at_a_time); // until all have arrived
    }
};

traffic total_of(const std::vector<int> &sizes) {
    traffic all;
    for (std::size_t size = 0; size < sizes.size(); size++) {
        all.first += static_cast<std::uint64_t>(sizes[size]);
        all.second += size * static_cast<std::uint64_t>(sizes[size]);
    }
    return all;
}

TEST_F(UdpcommStress, TwoNetworksExchangeAMillionDatagramsAndCountThemExactly) {
    if (geteuid() != 0)
        GTEST_SKIP() << "networks of its own need root";
    const int each = rounds(sanitized ? 20'000 : 1'000'000) / 2;
    const two_networks networks;
    std::array<correspondent, 2> sides;
    for (std::size_t i = 0; i < 2; i++) {
        sides[i].other = &sides[1 - i];
        sides[i].address = address_of(here, two_networks::address(i));
        for (int n = 0; n < correspondent::at_a_time; n++)
            sides[i].room.post();
        networks.in(i, [&] { sides[i].u = open_at(here, two_networks::address(i)); });
        const int plenty = 8 << 20; // for as long as the receiving thread is kept from running
        ASSERT_EQ(
            setsockopt(sides[i].u->sock->fd, SOL_SOCKET, SO_RCVBUFFORCE, &plenty, sizeof plenty),
            0);
    }
    for (correspondent &side : sides)
        ASSERT_EQ(udpcomm_start(side.u, correspondent::take, &side), 0);
    {
        const std::jthread forth([&] { sides[0].send(each, 1); });
        const std::jthread back([&] { sides[1].send(each, 2); });
    }
    for (correspondent &side : sides) {
        EXPECT_EQ(side.spoilt, 0);
        EXPECT_EQ(side.received, side.other->sent);
        EXPECT_EQ(sent_by(side.u), total_of(side.sent));
        EXPECT_EQ(received_by(side.u), total_of(side.other->sent));
        EXPECT_EQ(side.u->send_count, static_cast<std::uint64_t>(each));
    }
    for (const correspondent &side : sides)
        EXPECT_EQ(udpcomm_close(side.u), 0);
}

TEST_F(UdpcommMessages, SwitchingDuringTrafficLosesNothingThatWasAccepted) {
    static constexpr int count = 1000;
    const auto body = [] {
        listener taken;
        const owned_endpoint to(taken, there);
        const owned_endpoint from(open_at(here), ignore);
        std::atomic<bool> over = false;
        const std::jthread switching([&] {
            for (int on = 0; !over; on = (on + 1) % 3)
                EXPECT_EQ(udpcomm_switch(from.get(), on), 0);
            EXPECT_EQ(udpcomm_switch(from.get(), 1), 0);
        });
        const auto send = [&] {
            for (int accepted = 0; accepted < count / 2;) {
                const int result = from.send("text");
                if (result == -1)
                    continue;
                EXPECT_EQ(result, 4);
                accepted++;
                taken.wait(); // that of this thread, or that of the other
            }
        };
        {
            const std::jthread one(send);
            const std::jthread two(send);
        }
        over = true;
        EXPECT_EQ(sent_by(from.get()), traffic(count, 4 * count));
        EXPECT_EQ(received_by(to.get()), traffic(count, 4 * count));
    };
    EXPECT_EQ(run_in_child(body), said(times(count, recv_line(here))));
}

TEST_F(UdpcommStress, SendersShareTheCounters) {
    static constexpr int count = 5000;
    const owned_endpoint u(open_at(here), ignore);
    {
        std::vector<std::jthread> senders;
        for (std::size_t size = 1; size <= 4; size++)
            senders.emplace_back([&u, text = string(size, 'x')] {
                for (int i = 0; i < count; i++)
                    u.send(text);
            });
    }
    EXPECT_EQ(sent_by(u.get()), traffic(4 * count, count * (1 + 2 + 3 + 4)));
}

/* One that is closed while datagrams arrive and are answered. */
struct closing_round {
    semaphore arrived;
    std::atomic<bool> closed = false;
    std::atomic<bool> called_afterwards = false;

    static std::int64_t answer(udpcomm *u, char *data, std::size_t size, sockaddr *peer) {
        auto &at = *static_cast<closing_round *>(u->arg);
        at.arrived.post();
        udpcomm_send(u, data, size, peer);
        if (at.closed)
            at.called_afterwards = true;
        return 0;
    }
};

/* After as many datagrams as the round's number says, a few at most, joined or detached. */
void close_in_traffic(int round, closing_round &at) {
    udpcomm *u = open_at(here);
    if (udpcomm_start(u, closing_round::answer, &at) != 0)
        FAIL() << "no thread";
    if (round % 2 == 0) {
        EXPECT_EQ(udpcomm_detach(u), 0);
    }
    at.arrived.wait(round % 5);
    EXPECT_EQ(udpcomm_close(u), 0);
    at.closed = true;
}

TEST_F(UdpcommStress, ClosesAThousandTimesDuringTraffic) {
    std::vector<closing_round> all(static_cast<std::size_t>(rounds(1000)));
    const auto threads = count_threads();
    std::atomic<bool> over = false;
    std::jthread flood([&] {
        const plain_socket peer(there);
        while (!over)
            peer.send("flood");
    });
    for (std::size_t i = 0; i < all.size(); i++)
        close_in_traffic(static_cast<int>(i), all[i]);
    EXPECT_TRUE(eventually([&] { return count_threads() == threads + 1; }));
    over = true;
    flood.join();
    EXPECT_TRUE(std::none_of(all.begin(), all.end(),
                             [](const closing_round &at) { return at.called_afterwards.load(); }));
}

TEST_F(UdpcommStress, ClosesBeforeItsThreadHasBegun) {
    for (int i = 0; i < rounds(1000); i++) {
        udpcomm *u = open_at(0);
        ASSERT_EQ(udpcomm_start(u, ignore, nullptr), 0);
        if (i % 2 == 0) {
            ASSERT_EQ(udpcomm_detach(u), 0);
        }
        ASSERT_EQ(udpcomm_close(u), 0);
    }
}

} // namespace

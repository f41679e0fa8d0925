/* SPDX-License-Identifier: MIT */
#include "xsocket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "cancelled.h"
#include "child.h"
#include "descriptors.h"
#include "own_network.h"
#include "xmemory.h"

namespace {

using keel_test::child_result;
using keel_test::count_descriptors;
using keel_test::run_in_child;
using std::string;

int option(const xsocket *opened, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(opened->fd, SOL_SOCKET, name, &value, &size);
    return value;
}

bool is_open(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

/* ---- Sockets -------------------------------------------------------------------------------- */

TEST(SocketOpen, OpensWhatIsAskedForAndTellsWhatThatWas) {
    const struct {
        int family, type, protocol;
        int broadcast;
    } rows[] = {
        {AF_INET, SOCK_DGRAM, 0, 1},     {AF_INET, SOCK_DGRAM, IPPROTO_UDP, 1},
        {AF_INET6, SOCK_DGRAM, 0, 1},    {AF_UNIX, SOCK_DGRAM, 0, 1},
        {AF_INET, SOCK_STREAM, 0, 0},    {AF_INET, SOCK_STREAM, IPPROTO_TCP, 0},
        {AF_INET6, SOCK_STREAM, 0, 0},   {AF_UNIX, SOCK_STREAM, 0, 0},
        {AF_UNIX, SOCK_SEQPACKET, 0, 0},
    };
    const auto descriptors = count_descriptors();
    for (const auto &row : rows) {
        xsocket *opened = socket_open(row.family, row.type, row.protocol);
        ASSERT_NE(opened, nullptr);
        EXPECT_EQ(opened->family, row.family);
        EXPECT_EQ(opened->type, row.type);
        EXPECT_EQ(opened->protocol, row.protocol);
        EXPECT_EQ(option(opened, SO_DOMAIN), row.family);
        EXPECT_EQ(option(opened, SO_TYPE), row.type);
        EXPECT_TRUE(row.protocol == 0 || option(opened, SO_PROTOCOL) == row.protocol);
        EXPECT_EQ(option(opened, SO_BROADCAST), row.broadcast)
            << row.family << ", " << row.type << ", " << row.protocol;
        const int descriptor = opened->fd;
        EXPECT_EQ(socket_close(opened), 0);
        EXPECT_FALSE(is_open(descriptor));
    }
    EXPECT_EQ(count_descriptors(), descriptors);
}

TEST(SocketOpen, IsClosedInProgramsThatTheProcessStarts) {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        xsocket *opened = socket_open(AF_INET, type, 0);
        EXPECT_EQ(fcntl(opened->fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(fcntl(opened->fd, F_GETFL) & O_NONBLOCK, 0);
        socket_close(opened);
    }
}

TEST(SocketOpen, TakesTheSystemsFlagsBesideTheType) {
    for (const int flags : {+SOCK_NONBLOCK, +SOCK_CLOEXEC, SOCK_NONBLOCK | SOCK_CLOEXEC}) {
        xsocket *datagrams = socket_open(AF_INET, SOCK_DGRAM | flags, 0);
        xsocket *stream = socket_open(AF_INET, SOCK_STREAM | flags, 0);
        const bool blocks = (flags & SOCK_NONBLOCK) == 0;
        EXPECT_EQ((fcntl(datagrams->fd, F_GETFL) & O_NONBLOCK) == 0, blocks);
        EXPECT_EQ((fcntl(stream->fd, F_GETFL) & O_NONBLOCK) == 0, blocks);
        EXPECT_EQ(datagrams->type, SOCK_DGRAM | flags);
        EXPECT_EQ(option(datagrams, SO_BROADCAST), 1);
        EXPECT_EQ(option(stream, SO_BROADCAST), 0);
        EXPECT_EQ(socket_close(datagrams), 0);
        EXPECT_EQ(socket_close(stream), 0);
    }
}

TEST(SocketOpen, SaysNothingWhereItSucceeds) {
    EXPECT_EQ(run_in_child([] { socket_close(socket_open(AF_INET, SOCK_DGRAM, 0)); }),
              (child_result{0, 0, "", ""}));
}

TEST(SocketOpen, SaysOnStandardOutputWhereItFails) {
    const struct {
        int family, type, protocol;
        std::function<void()> prepare = [] {};
    } rows[] = {
        {-1, SOCK_DGRAM, 0},
        {AF_INET, -1, 0},
        {AF_INET, 0, 0},
        {AF_INET, SOCK_STREAM, IPPROTO_UDP},
        {AF_INET, SOCK_DGRAM, IPPROTO_TCP},
        {0, 0, 0},
        {AF_INET, SOCK_DGRAM, 0, keel_test::forbid_descriptors},
        {AF_INET, SOCK_RAW, IPPROTO_UDP, [] { EXPECT_EQ(seteuid(65534), 0); }},
    };
    for (const auto &row : rows) {
        const auto body = [&] {
            row.prepare();
            if (socket_open(row.family, row.type, row.protocol) != nullptr)
                std::printf("opened\n");
        };
        EXPECT_EQ(run_in_child(body), (child_result{0, 0, "Open xsocket error!\n", ""}))
            << row.family << ", " << row.type << ", " << row.protocol;
    }
}

/* A message follows what the program has printed before. */
TEST(SocketOpen, ItsMessageIsPartOfTheStream) {
    const auto body = [] {
        std::printf("before, ");
        socket_open(-1, 0, 0);
        std::printf("after");
    };
    EXPECT_EQ(run_in_child(body), (child_result{0, 0, "before, Open xsocket error!\nafter", ""}));
}

TEST(SocketClose, WhereItFailsTheRecordStays) {
    const auto body = [] {
        xsocket *opened = socket_open(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        const int descriptor = opened->fd;
        close(descriptor);
        const int first = socket_close(opened);
        const bool is_kept = opened->family == AF_INET && opened->type == SOCK_STREAM &&
                             opened->protocol == IPPROTO_TCP && opened->fd == descriptor;
        const int second = socket_close(opened);
        opened->fd = dup(STDOUT_FILENO);
        const int third = socket_close(opened);
        std::printf("%d, kept: %d, %d, %d", first, is_kept, second, third);
    };
    EXPECT_EQ(
        run_in_child(body),
        (child_result{0, 0, "Close xsocket error!\nClose xsocket error!\n-1, kept: 1, -1, 0", ""}));
}

TEST(SocketClose, ARecordThatIsKeptIsTheCallers) {
    auto *record = static_cast<xsocket *>(xcalloc(0, sizeof(xsocket)));
    record->fd = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(socket_close(record), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Close xsocket error!\n");
    xfree(0, record);
}

TEST(SocketClose, OfNullFailsWithoutAWord) {
    EXPECT_EQ(run_in_child([] { std::printf("%d", socket_close(nullptr)); }),
              (child_result{0, 0, "-1", ""}));
}

/* What is left, a search for leaks would find. */
TEST(SocketClose, CancelledItIsDoneWhole) {
    xsocket *opened = socket_open(AF_INET, SOCK_STREAM, 0);
    const int descriptor = opened->fd;
    int result = -1;
    EXPECT_TRUE(keel_test::run_cancelled([&] { result = socket_close(opened); }));
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(is_open(descriptor));
}

/* ---- Addresses ------------------------------------------------------------------------------ */

TEST(SocketLen, IsByTheFamily) {
    const struct {
        sa_family_t family;
        int length;
    } rows[] = {{AF_INET, 16}, {AF_INET6, 28},  {AF_UNSPEC, 0}, {AF_UNIX, 0}, {AF_PACKET, 0},
                {3, 0},        {AF_NETLINK, 0}, {0x0200, 0},    {0xffff, 0}};
    for (const auto &row : rows) {
        xsockaddr address{};
        address.sa.sa_family = row.family;
        EXPECT_EQ(socket_len(&address.sa), row.length) << row.family;
    }
    EXPECT_EQ(socket_len(nullptr), 0);
}

/* Nothing but the family is looked at. */
TEST(SocketLen, ReadsNoMoreThanTheShortestAddress) {
    sockaddr address{};
    address.sa_family = AF_INET6;
    EXPECT_EQ(socket_len(&address), 28);
}

/* 28 bytes, as socket_addr() leaves them, and some behind them. */
class addressed {
  public:
    addressed(int family, const char *ip, unsigned short port) {
        std::memset(bytes_, '#', sizeof bytes_);
        result = socket_addr(reinterpret_cast<sockaddr *>(bytes_), family, ip, port);
    }

    string address() const { return {bytes_, 28}; }
    bool nothing_else_touched() const { return string(bytes_ + 28, 12) == "############"; }

    int result;

  private:
    alignas(sockaddr_in6) char bytes_[40];
};

TEST(SocketAddr, SetsFamilyPortAndAddress) {
    const struct {
        const char *ip;
        unsigned short port;
        string bytes; // in network byte order: the port, then the address
    } rows[] = {
        {"1.2.3.4", 0x1234, "\x12\x34\x01\x02\x03\x04"},
        {"127.0.0.1", 80, string("\0\x50\x7f\0\0\x01", 6)},
        {"0.0.0.0", 0, string(6, '\0')},
        {"255.255.255.255", 65535, string(6, '\xff')},
        {"10.1", 1, string("\0\x01\x0a\0\0\x01", 6)},
        {"0x0a010203", 256, string("\x01\0\x0a\x01\x02\x03", 6)},
    };
    for (const auto &row : rows) {
        const addressed made(AF_INET, row.ip, row.port);
        EXPECT_EQ(made.result, 0) << row.ip;
        EXPECT_EQ(made.address(), string("\x02\0", 2) + row.bytes + string(20, '\0')) << row.ip;
        EXPECT_TRUE(made.nothing_else_touched()) << row.ip;
    }
}

TEST(SocketAddr, TextThatIsNoneGivesTheHighestAddress) {
    const string long_one(100'000, '1');
    for (const char *ip :
         {"", "text", "256.1.1.1", "1.2.3.4.5", "1.2.3.4x", " 1.2.3.4", "::1", "localhost",
          "1.2.3.-4", long_one.c_str(), static_cast<const char *>(nullptr)}) {
        const addressed made(AF_INET, ip, 0x5678);
        EXPECT_EQ(made.result, 0) << (ip == nullptr ? "null" : ip);
        EXPECT_EQ(made.address(), string("\x02\0\x56\x78\xff\xff\xff\xff", 8) + string(20, '\0'))
            << (ip == nullptr ? "null" : ip);
        EXPECT_TRUE(made.nothing_else_touched());
    }
}

TEST(SocketAddr, OtherFamiliesAreNotMadeAndTheBytesZeroed) {
    for (const int family : {AF_INET6, AF_UNSPEC, AF_UNIX, -1, AF_INET + 65536, 1 << 30}) {
        const addressed made(family, "1.2.3.4", 80);
        EXPECT_EQ(made.result, -1) << family;
        EXPECT_EQ(made.address(), string(28, '\0')) << family;
        EXPECT_TRUE(made.nothing_else_touched()) << family;
    }
}

TEST(SocketAddr, OfNullFails) {
    EXPECT_EQ(socket_addr(nullptr, AF_INET, "1.2.3.4", 80), -1);
    EXPECT_EQ(socket_addr(nullptr, AF_INET6, nullptr, 0), -1);
}

TEST(SocketAddr, SaysNothing) {
    EXPECT_EQ(run_in_child([] {
                  xsockaddr address;
                  socket_addr(&address.sa, AF_INET, "text", 1);
                  socket_addr(&address.sa, AF_INET6, "::1", 1);
                  socket_addr(nullptr, AF_INET, "1.2.3.4", 1);
              }),
              (child_result{0, 0, "", ""}));
}

/* ---- Both together -------------------------------------------------------------------------- */

TEST(Socket, BindsToAnAddressAndReceivesThere) {
    xsocket *receiver = socket_open(AF_INET, SOCK_DGRAM, 0);
    xsocket *sender = socket_open(AF_INET, SOCK_DGRAM, 0);
    xsockaddr address;
    ASSERT_EQ(socket_addr(&address.sa, AF_INET, "127.0.0.1", 0), 0);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(receiver->fd, &address.sa, static_cast<socklen_t>(socket_len(&address.sa))), 0);
    ASSERT_EQ(getsockname(receiver->fd, &address.sa, &size), 0);
    ASSERT_EQ(socket_addr(&address.sa, AF_INET, "127.0.0.1", ntohs(address.in.sin_port)), 0);
    EXPECT_EQ(sendto(sender->fd, "hello", 5, 0, &address.sa,
                     static_cast<socklen_t>(socket_len(&address.sa))),
              5);
    char text[8] = "";
    EXPECT_EQ(recv(receiver->fd, text, sizeof text, 0), 5);
    EXPECT_STREQ(text, "hello");
    socket_close(receiver);
    socket_close(sender);
}

class Broadcast : public keel_test::OwnNetwork {};

TEST_F(Broadcast, ADatagramSocketMaySendToAll) {
    keel_test::ip("link add eth0 type veth peer name eth0p\n"
                  "addr add 10.9.8.7/24 brd + dev eth0\n"
                  "link set dev eth0p up\n"
                  "link set dev eth0 up\n");
    xsockaddr all;
    socket_addr(&all.sa, AF_INET, "10.9.8.255", 9999);
    xsocket *opened = socket_open(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(sendto(opened->fd, "", 0, 0, &all.sa, sizeof all.in), 0) << std::strerror(errno);

    const int off = 0;
    setsockopt(opened->fd, SOL_SOCKET, SO_BROADCAST, &off, sizeof off);
    EXPECT_EQ(sendto(opened->fd, "", 0, 0, &all.sa, sizeof all.in), -1);
    EXPECT_EQ(errno, EACCES) << "it is the option that lets it";
    socket_close(opened);
}

} // namespace

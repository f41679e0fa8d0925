/* SPDX-License-Identifier: MIT */
#include "xutil.h"

#include <arpa/inet.h>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <set>
#include <string>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "fake_files.h"
#include "own_network.h"
#include "waiting.h"

namespace {

using keel_test::child_result;
using keel_test::eventually;
using keel_test::exited;
using keel_test::ip;
using keel_test::ip_tells;
using keel_test::run_in_child;
using std::string;

/* Programs are compiled against this. */
static_assert(sizeof(ifi_info) == 80 && offsetof(ifi_info, ifi_name) == 0);
static_assert(offsetof(ifi_info, ifi_mtu) == 16 && offsetof(ifi_info, ifi_flags) == 18);
static_assert(offsetof(ifi_info, ifi_link) == 24 && offsetof(ifi_info, ifi_addr) == 32);
static_assert(offsetof(ifi_info, ifi_hwaddr) == 40 && offsetof(ifi_info, ifi_netmask) == 48);
static_assert(offsetof(ifi_info, ifi_brdaddr) == 56 && offsetof(ifi_info, ifi_dstaddr) == 64);
static_assert(offsetof(ifi_info, ifi_next) == 72 && sizeof(ethtool_cmd) == 44);

/* ---- A list as text ------------------------------------------------------------------------- */

string internet(const char *what, const sockaddr *address) {
    if (address == nullptr)
        return "";
    sockaddr_in in{};
    std::memcpy(&in, address, sizeof in);
    if (in.sin_family != AF_INET)
        return string(what) + "of family " + std::to_string(in.sin_family);
    return what + string(inet_ntoa(in.sin_addr));
}

string hardware(const sockaddr *address) {
    if (address == nullptr)
        return "";
    char text[64];
    unsigned char bytes[6];
    std::memcpy(bytes, address->sa_data, sizeof bytes);
    std::snprintf(text, sizeof text, " hardware %d %02x:%02x:%02x:%02x:%02x:%02x",
                  address->sa_family, bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5]);
    return text;
}

string link_settings(const ethtool_cmd *link) {
    if (link == nullptr)
        return "";
    return " link " + std::to_string(ethtool_cmd_speed(link)) +
           (link->duplex == DUPLEX_FULL ? " full" : " not full");
}

/* All that a record holds; what is 0 or null is left out. */
string text_of(const ifi_info &ifi) {
    string text = ifi.ifi_name;
    if (ifi.ifi_mtu != 0)
        text += " mtu " + std::to_string(ifi.ifi_mtu);
    char flags[16];
    std::snprintf(flags, sizeof flags, " flags %04hx", static_cast<std::uint16_t>(ifi.ifi_flags));
    if (ifi.ifi_flags != 0)
        text += flags;
    return text + link_settings(ifi.ifi_link) + internet(" address ", ifi.ifi_addr) +
           hardware(ifi.ifi_hwaddr) + internet(" netmask ", ifi.ifi_netmask) +
           internet(" broadcast ", ifi.ifi_brdaddr) + internet(" peer ", ifi.ifi_dstaddr) + "\n";
}

string text_of(const ifi_info *head) {
    string text;
    for (; head != nullptr; head = head->ifi_next)
        text += text_of(*head);
    return text;
}

/* The interfaces of this network. */
string listing(int family = AF_INET) {
    ifi_info *head = get_ifi_info(family);
    string text = text_of(head);
    EXPECT_EQ(free_ifi_info(head), nullptr);
    return text;
}

/* ---- The interfaces ------------------------------------------------------------------------- */

class Interfaces : public keel_test::OwnNetwork {};

TEST_F(Interfaces, OneWithoutAnAddressIsANameAlone) {
    EXPECT_EQ(listing(), "lo\n");
    ip("link add eth0 type veth peer name eth1\n"
       "link set dev eth0 up\n"
       "addr add fd00::1/64 dev eth1\n");
    EXPECT_EQ(listing(), "lo\neth1\neth0\n");
}

/* It takes packets longer than a record's field can say. */
TEST_F(Interfaces, LoopbackHasNoHardwareAddress) {
    ip("link set dev lo up\n");
    EXPECT_EQ(listing(), "lo flags 0049 address 127.0.0.1 netmask 255.0.0.0\n");
    ip("link set dev lo mtu 65535\n");
    EXPECT_EQ(listing(), "lo mtu 65535 flags 0049 address 127.0.0.1 netmask 255.0.0.0\n");
    ip("link set dev lo mtu 65544\n");
    EXPECT_EQ(listing(), "lo mtu 8 flags 0049 address 127.0.0.1 netmask 255.0.0.0\n");
}

TEST_F(Interfaces, OneWithAnAddressIsDescribed) {
    ip("link add eth0 mtu 1400 address 02:00:00:00:00:07 type veth peer name eth1\n"
       "addr add 10.9.8.7/20 brd + dev eth0\n"
       "link set dev eth1 up\n"
       "link set dev eth0 up\n");
    ASSERT_TRUE(eventually(
        [] { return ip_tells("-o link show dev eth0").find(" state UP ") != string::npos; }));
    EXPECT_EQ(listing(), "eth0 mtu 1400 flags 1043 link 10000 full address 10.9.8.7 "
                         "hardware 1 02:00:00:00:00:07 netmask 255.255.240.0 "
                         "broadcast 10.9.15.255\n"
                         "lo\neth1\n");
}

/* The system lists it with its address all the same. */
TEST_F(Interfaces, OneThatIsDownHasItsAddress) {
    ip("link add eth0 address 02:00:00:00:00:07 type veth peer name eth1\n"
       "addr add 10.9.8.7/24 brd + dev eth0\n");
    EXPECT_EQ(listing(), "eth0 mtu 1500 flags 1002 link 10000 full address 10.9.8.7 "
                         "hardware 1 02:00:00:00:00:07 netmask 255.255.255.0 "
                         "broadcast 10.9.8.255\n"
                         "lo\neth1\n");
}

TEST_F(Interfaces, ABroadcastAddressThatWasNeverSetIsZero) {
    ip("link add eth0 address 02:00:00:00:00:07 type veth peer name eth1\n"
       "addr add 10.9.8.7/24 dev eth0\n");
    EXPECT_EQ(listing(), "eth0 mtu 1500 flags 1002 link 10000 full address 10.9.8.7 "
                         "hardware 1 02:00:00:00:00:07 netmask 255.255.255.0 "
                         "broadcast 0.0.0.0\n"
                         "lo\neth1\n");
}

TEST_F(Interfaces, TheHighestFlagMakesTheFieldNegative) {
    ip("link add eth0 type veth peer name eth1\n"
       "link set dev eth0 dynamic on\n"
       "addr add 10.9.8.7/24 dev eth0\n");
    ifi_info *head = get_ifi_info(AF_INET);
    EXPECT_EQ(head->ifi_flags, static_cast<std::int16_t>(0x9002));
    EXPECT_LT(head->ifi_flags, 0);
    free_ifi_info(head);
}

/* What the system itself answers about the link, or nothing. */
string system_link(const string &name) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    char settings[44] = {ETHTOOL_GSET};
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    request.ifr_data = settings;
    const int result = ioctl(descriptor, SIOCETHTOOL, &request);
    close(descriptor);
    return result == 0 ? string(settings, sizeof settings) : "";
}

TEST_F(Interfaces, LinkSettingsAreThoseOfTheSystem) {
    keel_test::add_point_to_point("tun0");
    ip("link add eth0 type veth peer name eth1\n"
       "link add br0 type bridge\n"
       "addr add 127.0.0.1/8 dev lo\n"
       "addr add 10.1.0.1/24 dev eth0\n"
       "addr add 10.1.1.1/24 dev br0\n"
       "addr add 10.1.2.1/24 dev tun0\n");
    ifi_info *head = get_ifi_info(AF_INET);
    std::set<string> names;
    for (const ifi_info *ifi = head; ifi != nullptr && ifi->ifi_addr != nullptr;
         ifi = ifi->ifi_next) {
        const string given =
            ifi->ifi_link == nullptr
                ? ""
                : string(reinterpret_cast<const char *>(ifi->ifi_link), sizeof *ifi->ifi_link);
        EXPECT_EQ(given, system_link(ifi->ifi_name)) << ifi->ifi_name;
        EXPECT_EQ(ifi->ifi_link == nullptr, string(ifi->ifi_name) == "lo") << ifi->ifi_name;
        names.insert(ifi->ifi_name);
    }
    EXPECT_EQ(names, (std::set<string>{"lo", "eth0", "br0", "tun0"}));
    free_ifi_info(head);
}

TEST_F(Interfaces, APointToPointLinkHasAPeer) {
    keel_test::add_point_to_point("tun0");
    ip("addr add 10.7.0.1 peer 10.7.0.2/32 dev tun0\n");
    ifi_info *head = get_ifi_info(AF_INET);
    ASSERT_NE(head->ifi_link, nullptr);
    const string link = link_settings(head->ifi_link);
    EXPECT_EQ(text_of(head), "tun0 mtu 1500 flags 1090" + link + " address 10.7.0.1 hardware " +
                                 std::to_string(ARPHRD_NONE) +
                                 " 00:00:00:00:00:00 netmask 255.255.255.255 peer 10.7.0.2\n"
                                 "lo\n");
    free_ifi_info(head);
}

/* A peer is told of such links only, a broadcast address not of them. */
TEST_F(Interfaces, APeerOnAnotherLinkIsNotTold) {
    ip("link add eth0 address 02:00:00:00:00:07 type veth peer name eth1\n"
       "addr add 10.6.0.1 peer 10.6.0.2/32 dev eth0\n");
    EXPECT_EQ(listing(), "eth0 mtu 1500 flags 1002 link 10000 full address 10.6.0.1 "
                         "hardware 1 02:00:00:00:00:07 netmask 255.255.255.255 "
                         "broadcast 0.0.0.0\n"
                         "lo\neth1\n");
}

TEST_F(Interfaces, AnAliasIsListedForItself) {
    ip("link add eth0 address 02:00:00:00:00:07 type veth peer name eth1\n"
       "addr add 10.9.8.7/24 brd + dev eth0\n"
       "addr add 172.16.1.1/25 brd + dev eth0 label eth0:7\n");
    EXPECT_EQ(listing(), "eth0 mtu 1500 flags 1002 link 10000 full address 10.9.8.7 "
                         "hardware 1 02:00:00:00:00:07 netmask 255.255.255.0 "
                         "broadcast 10.9.8.255\n"
                         "eth0:7 mtu 1500 flags 1002 link 10000 full address 172.16.1.1 "
                         "hardware 1 02:00:00:00:00:07 netmask 255.255.255.128 "
                         "broadcast 172.16.1.127\n"
                         "lo\neth1\n");
}

/* Only "lo" itself is without a hardware address. */
TEST_F(Interfaces, AnAliasOfLoopbackHasAHardwareAddress) {
    ip("addr add 127.0.0.1/8 dev lo\n"
       "addr add 127.1.0.1/16 dev lo label lo:1\n");
    EXPECT_EQ(listing(), "lo flags 0008 address 127.0.0.1 netmask 255.0.0.0\n"
                         "lo:1 flags 0008 address 127.1.0.1 hardware 772 00:00:00:00:00:00 "
                         "netmask 255.255.0.0\n");
}

/* Each with what belongs to it, also where the name is the same. */
TEST_F(Interfaces, FurtherAddressesWithoutAnAliasAreListedToo) {
    ip("link add eth0 address 02:00:00:00:00:07 type veth peer name eth1\n"
       "addr add 10.9.8.7/24 brd + dev eth0\n"
       "addr add 172.16.1.1/25 brd + dev eth0\n");
    EXPECT_EQ(listing(), "eth0 mtu 1500 flags 1002 link 10000 full address 10.9.8.7 "
                         "hardware 1 02:00:00:00:00:07 netmask 255.255.255.0 "
                         "broadcast 10.9.8.255\n"
                         "eth0 mtu 1500 flags 1002 link 10000 full address 172.16.1.1 "
                         "hardware 1 02:00:00:00:00:07 netmask 255.255.255.128 "
                         "broadcast 172.16.1.127\n"
                         "lo\neth1\n");
}

TEST_F(Interfaces, TheLongestNameIsWhole) {
    ip("link add fifteen-letters type veth peer name letters-fifteen\n"
       "addr add 10.9.8.7/24 dev fifteen-letters\n");
    ifi_info *head = get_ifi_info(AF_INET);
    EXPECT_STREQ(head->ifi_name, "fifteen-letters");
    EXPECT_EQ(is_ifi_info_exist(head, "letters-fifteen"), 1);
    free_ifi_info(head);
}

TEST_F(Interfaces, AnyFamilyGivesTheSame) {
    ip("link set dev lo up\n"
       "link add eth0 address 02:00:00:00:00:07 type veth peer name eth1\n"
       "addr add fd00::1/64 dev eth0\n");
    const string all = "lo flags 0049 address 127.0.0.1 netmask 255.0.0.0\neth1\neth0\n";
    for (const int family : {AF_INET, AF_INET6, 0, -1, AF_PACKET, 1 << 30})
        EXPECT_EQ(listing(family), all) << family;
}

/* The system gives 40 bytes for each, so that a hundred just fit at first. */
TEST_F(Interfaces, ThereIsRoomForAsManyAsThereAre) {
    int there = 0;
    for (const int count : {1, 99, 100, 101, 109, 110, 111, 300}) {
        string commands;
        for (; there < count; there++)
            commands += "addr add 10.5." + std::to_string(there / 256) + "." +
                        std::to_string(there % 256) + "/32 dev lo\n";
        ip(commands);
        ifi_info *head = get_ifi_info(AF_INET);
        std::set<string> addresses;
        int records = 0;
        for (const ifi_info *ifi = head; ifi != nullptr; ifi = ifi->ifi_next, records++)
            addresses.insert(internet("", ifi->ifi_addr));
        EXPECT_EQ(records, count);
        EXPECT_EQ(addresses.size(), static_cast<std::size_t>(count)) << "each is another";
        free_ifi_info(head);
    }
}

TEST_F(Interfaces, FortyAreListedInTheirOrder) {
    string commands = "link set dev lo up\n";
    string addressed = "lo flags 0049 address 127.0.0.1 netmask 255.0.0.0\n";
    string others;
    for (int i = 10; i < 30; i++) {
        const string number = std::to_string(i);
        commands += "link add a" + number + " address 02:00:00:00:00:" + number +
                    " type veth peer name b" + number + "\naddr add 10.0." + number +
                    ".1/24 dev a" + number + "\n";
        addressed += "a" + number + " mtu 1500 flags 1002 link 10000 full address 10.0." + number +
                     ".1 hardware 1 02:00:00:00:00:" + number +
                     " netmask 255.255.255.0 broadcast 0.0.0.0\n";
        others += "b" + number + "\n";
    }
    ip(commands);
    EXPECT_EQ(listing(), addressed + others);
}

TEST_F(Interfaces, SeveralThreadsListThemAtOnce) {
    ip("link set dev lo up\n"
       "link add eth0 type veth peer name eth1\n"
       "addr add 10.9.8.7/24 dev eth0\n");
    const auto list = [] {
        for (int i = 0; i < 50; i++) {
            ifi_info *head = get_ifi_info(AF_INET);
            EXPECT_EQ(is_ifi_info_exist(head, "eth0"), 1);
            free_ifi_info(head);
        }
    };
    std::jthread first(list);
    std::jthread second(list);
}

TEST_F(Interfaces, EndsWithoutAWordWhereThereIsNoSocket) {
    EXPECT_EQ(run_in_child([] {
                  keel_test::forbid_descriptors();
                  get_ifi_info(AF_INET);
              }),
              exited(1));
}

/* ---- The statistics file -------------------------------------------------------------------- */

/* What is listed where /proc/net is a directory of the test's own. */
child_result listing_with(const std::function<void(const string &directory)> &fill) {
    const keel_test::temp_dir net;
    fill(net.path());
    return keel_test::run_with_fakes([&](keel_test::fake_files &) {
        keel_test::fake_files::bind(net.path(), "/proc/self/net");
        std::fputs(listing().c_str(), stdout);
    });
}

child_result listing_with_lines(const string &lines) {
    return listing_with([&](const string &net) { keel_test::write_file(net + "/dev", lines); });
}

child_result listed(const string &list) {
    return {0, 0, list, ""};
}

constexpr char heading[] =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets\n";

TEST_F(Interfaces, NamesAreReadUpToTheColon) {
    const struct {
        string lines;
        string names;
    } rows[] = {
        {"", ""},
        {heading, ""},
        {heading + string("    lo: 1 2 3\n  eth0: 1 2 3\n"), "lo\neth0\n"},
        {"lo:1\neth0:\n", "lo\neth0\n"},
        {"eth0", ""},
        {"eth0:", "eth0\n"},
        {"eth0:1:2\n", "eth0\n"},
        {" \t\v\f\r eth0 \t : x\r\n", "eth0\n"},
        {"two words: x\n", "two words\n"},
        {":\n:eth0\n  :\n \t : eth0: x\n\n", ""},
        {"%s%n: x\n", "%s%n\n"},
        {"\xff\xfe: x\n", "\xff\xfe\n"},
        {"eth0: x\neth0: y\neth1: x\neth0: z\n", "eth0\neth1\n"},
        {"eth0: x\nETH0: x\neth: x\neth00: x\n", "eth0\nETH0\neth\neth00\n"},
        {"fifteen-letters: x\n", "fifteen-letters\n"},
        {"fifteen-letters+: x\nfifteen-letters: x\nfifteen-letters!: x\n", "fifteen-letters\n"},
        {string(500, 'x') + ": x\n", string(15, 'x') + "\n"},
        {string("\0:\neth0: x\n", 11), "eth0\n"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(listing_with_lines(row.lines), listed(row.names)) << row.lines;
}

/* A piece of 1023 characters counts as a line. */
TEST_F(Interfaces, LongLinesAreReadInPieces) {
    const string blanks(1023, ' ');
    const string values = " " + string(5000, '1') + "\n";
    EXPECT_EQ(listing_with_lines("eth0:" + values + "eth1:" + values), listed("eth0\neth1\n"));
    EXPECT_EQ(listing_with_lines(blanks + "eth0: x\n"), listed("eth0\n"));
    EXPECT_EQ(listing_with_lines(blanks.substr(2) + "eth0: x\n"), listed("h0\n"));
    EXPECT_EQ(listing_with_lines(string(1022, 'x') + ": y\n"), listed(string(15, 'x') + "\n"));
    EXPECT_EQ(listing_with_lines(string(1023, 'x') + ": y\n"), listed(""))
        << "nothing is named before the colon";
}

TEST_F(Interfaces, ThoseThatAreListedAlreadyAreNotNamedAgain) {
    ip("link set dev lo up\n"
       "link add eth0 address 02:00:00:00:00:07 type veth peer name eth1\n"
       "addr add 10.9.8.7/24 dev eth0 label eth0:7\n");
    EXPECT_EQ(listing_with_lines("lo: x\neth0:7: x\neth1: x\n"),
              listed("lo flags 0049 address 127.0.0.1 netmask 255.0.0.0\n"
                     "eth0:7 mtu 1500 flags 1002 link 10000 full address 10.9.8.7 "
                     "hardware 1 02:00:00:00:00:07 netmask 255.255.255.0 broadcast 0.0.0.0\n"
                     "eth0\neth1\n"));
}

TEST_F(Interfaces, AFileThatCannotBeReadIsSkipped) {
    const std::function<void(const string &)> ways[] = {
        [](const string &) {},
        [](const string &net) { mkdir((net + "/dev").c_str(), 0700); },
        [](const string &net) { mknod((net + "/dev").c_str(), S_IFSOCK | 0600, 0); },
    };
    for (const auto &way : ways)
        EXPECT_EQ(listing_with(way), listed(""));
    ip("link set dev lo up\n");
    for (const auto &way : ways)
        EXPECT_EQ(listing_with(way), listed("lo flags 0049 address 127.0.0.1 netmask 255.0.0.0\n"));
}

TEST_F(Interfaces, AListOfNoneIsNull) {
    const keel_test::temp_dir net;
    keel_test::write_file(net / "dev", heading);
    EXPECT_EQ(keel_test::run_with_fakes([&](keel_test::fake_files &) {
                  keel_test::fake_files::bind(net.path(), "/proc/self/net");
                  std::fputs(get_ifi_info(AF_INET) == nullptr ? "null" : "not null", stdout);
              }),
              listed("null"));
}

/* ---- Lists ---------------------------------------------------------------------------------- */

/* A list of these names. */
ifi_info *list_of(const std::vector<const char *> &names) {
    ifi_info *head = nullptr;
    ifi_info **tail = &head;
    for (const char *name : names)
        add_ifi_info(&tail, name);
    return head;
}

TEST(InterfaceList, ARecordIsAppendedWithItsNameAlone) {
    ifi_info *head = nullptr;
    ifi_info **tail = &head;
    ifi_info *first = add_ifi_info(&tail, "eth0");
    EXPECT_EQ(head, first);
    EXPECT_EQ(tail, &first->ifi_next);
    ifi_info *second = add_ifi_info(&tail, "eth1:1");
    EXPECT_EQ(first->ifi_next, second);
    EXPECT_EQ(tail, &second->ifi_next);
    EXPECT_EQ(head, first);
    EXPECT_EQ(text_of(head), "eth0\neth1:1\n");
    EXPECT_EQ(free_ifi_info(head), nullptr);
}

TEST(InterfaceList, ALongNameIsCut) {
    const string endless(1'000'000, 'x');
    ifi_info *head = list_of({"fifteen-letters", "sixteen-letters-", endless.c_str(), "", nullptr});
    EXPECT_EQ(text_of(head), "fifteen-letters\nsixteen-letters\n" + string(15, 'x') + "\n\n\n");
    free_ifi_info(head);
}

/* One that was made elsewhere is added to where it ends. */
TEST(InterfaceList, GrowsFromAnyEnd) {
    ifi_info *head = list_of({"a", "b"});
    ifi_info **tail = &head->ifi_next->ifi_next;
    add_ifi_info(&tail, "c");
    EXPECT_EQ(text_of(head), "a\nb\nc\n");
    free_ifi_info(head);
}

TEST(InterfaceList, ANameIsFoundWhereItIsExactlyThat) {
    ifi_info *head = list_of({"eth0", "eth0:1", "lo", "fifteen-letters"});
    for (const char *name : {"eth0", "eth0:1", "lo", "fifteen-letters"})
        EXPECT_EQ(is_ifi_info_exist(head, name), 1) << name;
    for (const char *name : {"eth", "eth00", "ETH0", "", " lo", "eth0:", "fifteen-letters-",
                             static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(is_ifi_info_exist(head, name), 0) << (name == nullptr ? "null" : name);
        EXPECT_EQ(is_ifi_info_exist(nullptr, name), 0);
    }
    free_ifi_info(head);
}

/* A record that owns all that it can own. */
ifi_info *full_record() {
    ifi_info *ifi = list_of({"eth0", "next"});
    ifi->ifi_mtu = 1500;
    ifi->ifi_flags = -1;
    ifi->ifi_link = static_cast<ethtool_cmd *>(std::malloc(sizeof(ethtool_cmd)));
    for (sockaddr **address : {&ifi->ifi_addr, &ifi->ifi_hwaddr, &ifi->ifi_netmask,
                               &ifi->ifi_brdaddr, &ifi->ifi_dstaddr})
        *address = static_cast<sockaddr *>(std::malloc(sizeof(sockaddr)));
    return ifi;
}

TEST(InterfaceList, AReleasedRecordKeepsItsNameAndItsPlace) {
    ifi_info *head = full_record();
    const ifi_info *next = head->ifi_next;
    for (int times = 0; times < 2; times++) {
        release_ifi_info(head);
        EXPECT_EQ(text_of(head), "eth0\nnext\n");
        EXPECT_EQ(head->ifi_next, next);
    }
    free_ifi_info(head);
    release_ifi_info(nullptr);
}

TEST(InterfaceList, IsFreedWithAllThatItOwns) {
    EXPECT_EQ(free_ifi_info(full_record()), nullptr);
    EXPECT_EQ(free_ifi_info(nullptr), nullptr);
}

} // namespace

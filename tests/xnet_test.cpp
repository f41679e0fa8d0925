/* SPDX-License-Identifier: MIT */
#include "xnet.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <net/if.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "cancelled.h"
#include "child.h"
#include "descriptors.h"
#include "fake_files.h"
#include "own_network.h"

namespace {

using keel_test::child_result;
using keel_test::ip;
using keel_test::ip_tells;
using keel_test::ip_tells_address;
using keel_test::run_in_child;
using std::string;

/* A number in network byte order. */
unsigned number(const char *quad) {
    return inet_addr(quad);
}

/* The ending of a body that returned, with all that it and the library wrote. */
child_result printed(const string &out, const string &err = "") {
    return {0, 0, out, err};
}

bool has_flag(const string &name, const string &flag) {
    const string shown = ip_tells("-o link show dev " + name);
    const auto begin = shown.find('<') + 1;
    const string flags = "," + shown.substr(begin, shown.find('>') - begin) + ",";
    return flags.find("," + flag + ",") != flags.npos;
}

/* "eth0" with an address, "bare" without one, and the longest name that there can be; all down. */
class InterfaceAddress : public keel_test::OwnNetwork {
  protected:
    void SetUp() override {
        OwnNetwork::SetUp();
        if (!IsSkipped())
            ip("link add eth0 type veth peer name bare\n"
               "addr add 10.9.8.7/20 brd + dev eth0\n"
               "link add fifteen-letters type veth peer name other\n"
               "addr add 192.168.100.200/24 dev fifteen-letters\n");
    }
};

using InterfaceNumbers = InterfaceAddress;

/* Each function, on an interface. It prints its result, and what it must leave alone. */
struct operation {
    const char *name;
    std::function<int(const char *name)> call;
};

const std::vector<operation> &operations() {
    static const std::vector<operation> all = {
        {"get_ifaddr",
         [](const char *name) {
             char text[] = "untouched";
             const int result = get_ifaddr(name, text, sizeof text);
             return result == -1 && string(text, sizeof text - 1) != "untouched" ? -2 : result;
         }},
        {"set_ifaddr", [](const char *name) { return set_ifaddr(name, "10.1.2.3"); }},
        {"get_if_flags",
         [](const char *name) {
             unsigned short flags = 0xabcd;
             const int result = get_if_flags(name, &flags);
             return result == -1 && flags != 0xabcd ? -2 : result;
         }},
        {"get_if_addr",
         [](const char *name) {
             unsigned address = 0xabcdabcd;
             const int result = get_if_addr(name, &address);
             return result == -1 && address != 0xabcdabcd ? -2 : result;
         }},
        {"set_if_addr", [](const char *name) { return set_if_addr(name, number("10.1.2.3")); }},
        {"get_if_netmask",
         [](const char *name) {
             unsigned netmask = 0xabcdabcd;
             const int result = get_if_netmask(name, &netmask);
             return result == -1 && netmask != 0xabcdabcd ? -2 : result;
         }},
        {"set_if_netmask",
         [](const char *name) { return set_if_netmask(name, number("255.255.0.0")); }},
    };
    return all;
}

/* Fails as expected, in a child that is prepared first. */
void expect_failure(
    const operation &tried, const char *name, const string &err,
    const std::function<void()> &prepare = [] {}) {
    const auto body = [&] {
        prepare();
        std::printf("%d\n", tried.call(name));
    };
    EXPECT_EQ(run_in_child(body), printed("-1\n", err))
        << tried.name << ", " << (name == nullptr ? "null" : string(name, strnlen(name, 99)));
}

/* How each says that its request failed, the first that it makes. */
string complaint_of(const string &function) {
    static const std::vector<std::pair<string, string>> all = {
        {"get_ifaddr", "get_ifaddr(ioctl)"},
        {"set_ifaddr", "set_ifaddr(ioctl-SIOCSIFADDR)"},
        {"get_if_flags", "get_if_flags(ioctl-SIOCGIFFLAGS)"},
        {"get_if_addr", "get_if_addr(ioctl-SIOCGIFADDR)"},
        {"set_if_addr", "set_if_addr(ioctl-SIOCSIFADDR)"},
        {"get_if_netmask", "get_if_netmask(ioctl-SIOCGIFNETMASK)"},
        {"set_if_netmask", "set_if_netmask(ioctl-SIOCSIFNETMASK)"},
    };
    for (const auto &[name, complaint] : all)
        if (name == function)
            return complaint;
    return "";
}

bool takes_text(const string &function) {
    return function == "get_ifaddr" || function == "set_ifaddr";
}

bool sets(const string &function) {
    return function.starts_with("set_");
}

/* ---- Failures ------------------------------------------------------------------------------- */

TEST_F(InterfaceAddress, AMissingInterfaceIsExplained) {
    for (const operation &each : operations())
        expect_failure(each, "missing", complaint_of(each.name) + ": No such device\n");
}

TEST_F(InterfaceAddress, ASocketThatCannotBeHadIsExplained) {
    for (const operation &each : operations())
        expect_failure(each, "eth0", string(each.name) + "(socket): Too many open files\n",
                       keel_test::forbid_descriptors);
}

TEST_F(InterfaceAddress, AnInterfaceWithoutOneIsExplained) {
    for (const operation &each : operations())
        if (string(each.name) != "get_if_flags" && !string(each.name).ends_with("addr"))
            expect_failure(each, "bare",
                           complaint_of(each.name) + ": Cannot assign requested address\n");
    expect_failure(operations()[0], "bare", "get_ifaddr(ioctl): Cannot assign requested address\n");
    expect_failure(operations()[3], "bare",
                   "get_if_addr(ioctl-SIOCGIFADDR): Cannot assign requested address\n");
}

TEST_F(InterfaceAddress, OthersThanRootReadButDoNotSet) {
    const auto give_up_root = [] {
        if (seteuid(65534) != 0)
            std::printf("still root\n");
    };
    for (const operation &each : operations()) {
        if (sets(each.name))
            expect_failure(each, "eth0", complaint_of(each.name) + ": Operation not permitted\n",
                           give_up_root);
        else
            EXPECT_EQ(run_in_child([&] {
                          give_up_root();
                          std::printf("%d\n", each.call("eth0"));
                      }),
                      printed("0\n"))
                << each.name;
    }
    EXPECT_TRUE(ip_tells_address("eth0", "10.9.8.7/20"));
    EXPECT_FALSE(has_flag("eth0", "UP"));
}

TEST_F(InterfaceAddress, TextFunctionsRefuseNamesThatThereCannotBe) {
    const string long_one(100'000, 'x');
    const struct {
        const char *name;
        const char *shown;
    } rows[] = {
        {nullptr, "(null)"},
        {"", ""},
        {"sixteen-letters-", "sixteen-letters-"},
        {"fifteen-letters-and-more", "fifteen-letters-and-more"},
        {"%s%n%s%n%s%n%s%n", "%s%n%s%n%s%n%s%n"},
        {long_one.c_str(), long_one.c_str()},
    };
    for (const operation &each : operations()) {
        if (!takes_text(each.name))
            continue;
        for (const auto &row : rows)
            expect_failure(each, row.name,
                           string(each.name) + ": Invalid eth_name(" + row.shown + ").\n");
        expect_failure(each, "sixteen-letters-",
                       string(each.name) + ": Invalid eth_name(sixteen-letters-).\n",
                       keel_test::forbid_descriptors);
    }
}

TEST_F(InterfaceNumbers, AnEmptyNameIsNoInterface) {
    for (const operation &each : operations())
        if (!takes_text(each.name))
            for (const char *name : {"", static_cast<const char *>(nullptr)})
                expect_failure(each, name, complaint_of(each.name) + ": No such device\n");
}

TEST_F(InterfaceAddress, NothingButFailuresIsTold) {
    EXPECT_EQ(run_in_child([] {
                  for (const operation &each : operations())
                      std::printf("%d", each.call("eth0"));
              }),
              printed("0000000"));
}

TEST_F(InterfaceAddress, AFailureIsToldWholeThoughTheThreadIsCancelled) {
    for (const operation &each : operations()) {
        const auto body = [&] {
            const auto descriptors = keel_test::count_descriptors();
            keel_test::run_cancelled([&] { each.call("missing"); });
            if (keel_test::count_descriptors() != descriptors)
                std::printf("a descriptor is left\n");
        };
        EXPECT_EQ(run_in_child(body), printed("", complaint_of(each.name) + ": No such device\n"));
    }
}

/* ---- As text -------------------------------------------------------------------------------- */

TEST_F(InterfaceAddress, IsCutToTheBuffer) {
    const struct {
        std::size_t length;
        string text;
    } rows[] = {
        {1, ""},
        {2, "1"},
        {8, "192.168"},
        {15, "192.168.100.20"},
        {16, "192.168.100.200"},
        {17, "192.168.100.200"},
        {40, "192.168.100.200"},
    };
    for (const auto &row : rows) {
        string buffer(48, '#');
        EXPECT_EQ(get_ifaddr("fifteen-letters", buffer.data(), row.length), 0);
        const string expected =
            row.text + string(row.length - row.text.size(), '\0') + string(48 - row.length, '#');
        EXPECT_EQ(buffer, expected) << row.length;
    }
}

TEST_F(InterfaceAddress, NeedsNoBuffer) {
    char nothing = '#';
    EXPECT_EQ(get_ifaddr("eth0", &nothing, 0), 0);
    EXPECT_EQ(nothing, '#');
    EXPECT_EQ(get_ifaddr("eth0", nullptr, 0), 0);
    EXPECT_EQ(get_ifaddr("eth0", nullptr, 16), 0);
    EXPECT_EQ(run_in_child([] { std::printf("%d", get_ifaddr("bare", nullptr, 16)); }),
              printed("-1", "get_ifaddr(ioctl): Cannot assign requested address\n"));
}

TEST_F(InterfaceAddress, IsSetAndTheInterfaceBroughtUp) {
    ip("link set dev eth0 multicast off\n"
       "link set dev eth0 promisc on\n");
    ASSERT_FALSE(has_flag("eth0", "MULTICAST"));
    EXPECT_EQ(set_ifaddr("eth0", "10.1.2.3"), 0);
    EXPECT_TRUE(ip_tells_address("eth0", "10.1.2.3/8"));
    EXPECT_FALSE(ip_tells_address("eth0", "10.9.8.7/20"));
    for (const char *flag : {"UP", "MULTICAST", "PROMISC", "BROADCAST"})
        EXPECT_TRUE(has_flag("eth0", flag)) << flag;
}

TEST_F(InterfaceAddress, IsSetWhereThereWasNone) {
    EXPECT_EQ(set_ifaddr("bare", "192.168.1.2"), 0);
    EXPECT_TRUE(ip_tells_address("bare", "192.168.1.2/24"));
    EXPECT_EQ(set_ifaddr("fifteen-letters", "172.16.1.2"), 0);
    EXPECT_TRUE(ip_tells_address("fifteen-letters", "172.16.1.2/16"));
    EXPECT_EQ(set_ifaddr("lo", "127.0.0.5"), 0);
    EXPECT_TRUE(ip_tells_address("lo", "127.0.0.5/8"));
    EXPECT_TRUE(has_flag("lo", "MULTICAST")) << "which it has not by itself";
}

TEST_F(InterfaceAddress, AnAliasHasItsOwn) {
    EXPECT_EQ(set_ifaddr("eth0:7", "10.9.10.1"), 0);
    EXPECT_TRUE(ip_tells_address("eth0:7", "10.9.10.1/8"));
    EXPECT_TRUE(ip_tells_address("eth0", "10.9.8.7/20"));
    EXPECT_EQ(set_if_netmask("eth0:7", number("255.255.255.128")), 0);
    EXPECT_TRUE(ip_tells_address("eth0:7", "10.9.10.1/25"));
    char text[16];
    EXPECT_EQ(get_ifaddr("eth0:7", text, sizeof text), 0);
    EXPECT_STREQ(text, "10.9.10.1");
    EXPECT_EQ(get_ifaddr("eth0", text, sizeof text), 0);
    EXPECT_STREQ(text, "10.9.8.7");
}

TEST_F(InterfaceAddress, TextIsReadAsTheSystemReadsIt) {
    const struct {
        const char *text;
        const char *address;
    } rows[] = {
        {"10.1", "10.0.0.1/8"},          {"0x0a010203", "10.1.2.3/8"}, {"012.1.2.3", "10.1.2.3/8"},
        {"10.1.2.3 rest", "10.1.2.3/8"}, {"10.1.2.4\n", "10.1.2.4/8"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(set_ifaddr("eth0", row.text), 0) << row.text;
        EXPECT_TRUE(ip_tells_address("eth0", row.address)) << row.text;
    }
}

/* To set 0.0.0.0 is to have none. */
TEST_F(InterfaceAddress, TextThatIsNoneSetsZero) {
    const string long_one(100'000, '1');
    for (const char *text : {"garbage", "", "10.1.2.3x", "256.1.1.1", "10.1.2.3.4", " 10.1.2.3",
                             "10.9.8.7%", long_one.c_str(), static_cast<const char *>(nullptr)}) {
        ip("addr flush dev eth0\n"
           "addr add 10.9.8.7/20 dev eth0\n"
           "link set dev eth0 down\n");
        EXPECT_EQ(set_ifaddr("eth0", text), 0) << (text == nullptr ? "null" : text);
        EXPECT_EQ(ip_tells("-o -4 addr show dev eth0"), "") << (text == nullptr ? "null" : text);
        EXPECT_TRUE(has_flag("eth0", "UP"));
    }
}

/* The address that is taken away takes the alias with it. */
TEST_F(InterfaceAddress, AnAliasThatIsGoneCannotBeBroughtUp) {
    const operation unset = {"set_ifaddr",
                             [](const char *name) { return set_ifaddr(name, "garbage"); }};
    expect_failure(unset, "eth0:7",
                   "set_ifaddr(ioctl-SIOCSIFFLAGS): Cannot assign requested address\n");
}

/* ---- As numbers ----------------------------------------------------------------------------- */

TEST_F(InterfaceNumbers, AreThoseOfTheInterface) {
    unsigned address = 0;
    unsigned netmask = 0;
    EXPECT_EQ(get_if_addr("eth0", &address), 0);
    EXPECT_EQ(address, number("10.9.8.7"));
    EXPECT_EQ(get_if_netmask("eth0", &netmask), 0);
    EXPECT_EQ(netmask, number("255.255.240.0"));
    EXPECT_EQ(get_if_addr("fifteen-letters", &address), 0);
    EXPECT_EQ(address, number("192.168.100.200"));
    EXPECT_EQ(get_if_netmask("fifteen-letters", &netmask), 0);
    EXPECT_EQ(netmask, number("255.255.255.0"));
}

TEST_F(InterfaceNumbers, FlagsAreThoseOfTheInterface) {
    ip("link set dev lo up\n"
       "link set dev eth0 promisc on\n"
       "link set dev bare dynamic on\n");
    const struct {
        const char *name;
        int flags;
    } rows[] = {
        {"lo", IFF_UP | IFF_LOOPBACK | IFF_RUNNING},
        {"eth0", IFF_BROADCAST | IFF_MULTICAST | IFF_PROMISC},
        {"bare", IFF_BROADCAST | IFF_MULTICAST | IFF_DYNAMIC},
    };
    for (const auto &row : rows) {
        unsigned short around[3] = {0x5555, 0x5555, 0x5555};
        EXPECT_EQ(get_if_flags(row.name, &around[1]), 0);
        EXPECT_EQ(around[1], row.flags) << row.name;
        EXPECT_EQ(around[0], 0x5555);
        EXPECT_EQ(around[2], 0x5555);
    }
}

TEST_F(InterfaceNumbers, NeedNotBeWanted) {
    EXPECT_EQ(get_if_flags("eth0", nullptr), 0);
    EXPECT_EQ(get_if_addr("eth0", nullptr), 0);
    EXPECT_EQ(get_if_netmask("eth0", nullptr), 0);
}

TEST_F(InterfaceNumbers, AnAddressIsSetAndTheFlagsLeftAlone) {
    ip("link set dev eth0 multicast off\n");
    EXPECT_EQ(set_if_addr("eth0", number("10.1.2.3")), 0);
    EXPECT_TRUE(ip_tells_address("eth0", "10.1.2.3/8"));
    EXPECT_EQ(set_if_addr("bare", number("192.168.1.2")), 0);
    EXPECT_TRUE(ip_tells_address("bare", "192.168.1.2/24"));
    EXPECT_FALSE(has_flag("eth0", "UP"));
    EXPECT_FALSE(has_flag("eth0", "MULTICAST"));
    EXPECT_FALSE(has_flag("bare", "UP"));

    EXPECT_EQ(set_if_addr("eth0", 0), 0) << "it has none any more";
    EXPECT_EQ(ip_tells("-o -4 addr show dev eth0"), "");
}

TEST_F(InterfaceNumbers, ANetmaskIsSet) {
    for (const char *netmask : {"255.255.255.0", "255.0.0.0", "255.255.255.255", "128.0.0.0"}) {
        const int bits = __builtin_popcount(number(netmask));
        unsigned now = 0;
        EXPECT_EQ(set_if_netmask("eth0", number(netmask)), 0) << netmask;
        EXPECT_TRUE(ip_tells_address("eth0", "10.9.8.7/" + std::to_string(bits))) << netmask;
        EXPECT_EQ(get_if_netmask("eth0", &now), 0);
        EXPECT_EQ(now, number(netmask));
    }
    EXPECT_FALSE(has_flag("eth0", "UP"));
}

TEST_F(InterfaceNumbers, ThoseThatCannotBeSetAreRefused) {
    const operation multicast = {
        "set_if_addr", [](const char *name) { return set_if_addr(name, number("224.0.0.1")); }};
    const operation holes = {"set_if_netmask", [](const char *name) {
                                 return set_if_netmask(name, number("255.0.255.0"));
                             }};
    for (const operation &each : {multicast, holes})
        expect_failure(each, "eth0", complaint_of(each.name) + ": Invalid argument\n");
    EXPECT_TRUE(ip_tells_address("eth0", "10.9.8.7/20"));
}

TEST_F(InterfaceNumbers, ALongNameIsCut) {
    const string endless = "fifteen-letters" + string(1'000'000, 'x');
    for (const string &name : {string("fifteen-letters!"), endless}) {
        unsigned short flags = 0;
        unsigned value = 0;
        EXPECT_EQ(get_if_flags(name.c_str(), &flags), 0);
        EXPECT_EQ(flags, IFF_BROADCAST | IFF_MULTICAST);
        EXPECT_EQ(set_if_addr(name.c_str(), number("10.3.2.1")), 0);
        EXPECT_EQ(get_if_addr(name.c_str(), &value), 0);
        EXPECT_EQ(value, number("10.3.2.1"));
        EXPECT_EQ(set_if_netmask(name.c_str(), number("255.255.0.0")), 0);
        EXPECT_EQ(get_if_netmask(name.c_str(), &value), 0);
        EXPECT_EQ(value, number("255.255.0.0"));
        EXPECT_TRUE(ip_tells_address("fifteen-letters", "10.3.2.1/16"));
        ip("addr flush dev fifteen-letters\n");
    }
}

TEST_F(InterfaceNumbers, SeveralThreadsAskAtOnce) {
    std::atomic<int> wrong = 0;
    const auto ask = [&wrong](const char *name, const char *expected) {
        for (int i = 0; i < 200; i++) {
            unsigned short flags = 0;
            unsigned address = 0;
            unsigned netmask = 0;
            if (get_if_flags(name, &flags) != 0 || get_if_addr(name, &address) != 0 ||
                get_if_netmask(name, &netmask) != 0 || address != number(expected) ||
                (flags & IFF_BROADCAST) == 0 || netmask == 0)
                wrong++;
        }
    };
    {
        std::vector<std::jthread> askers;
        for (int i = 0; i < 2; i++) {
            askers.emplace_back(ask, "eth0", "10.9.8.7");
            askers.emplace_back(ask, "fifteen-letters", "192.168.100.200");
        }
    }
    EXPECT_EQ(wrong, 0);
}

/* ---- Host names ----------------------------------------------------------------------------- */

/* Text that fills more than one of the buffers that the system's resolver may be given. */
string many_aliases() {
    string all;
    for (int i = 0; i < 400; i++)
        all += " an-alias-of-some-length-" + std::to_string(i);
    return all;
}

/* Runs `body` where no host has a name but those that are listed here. */
child_result with_hosts(const std::function<void()> &body) {
    const keel_test::temp_dir etc;
    keel_test::write_file(etc / "nsswitch.conf", "hosts: files\n");
    keel_test::write_file(etc / "host.conf", "multi on\n");
    keel_test::write_file(etc / "hosts", "127.0.0.1 localhost\n"
                                         "10.20.30.40 server.example server\n"
                                         "192.168.100.200 long\n"
                                         "10.0.0.9 two\n"
                                         "10.0.0.1 two\n"
                                         "fe80::1 six\n"
                                         "fe80::2 both\n"
                                         "10.6.6.6 both\n"
                                         "10.7.7.7 famous" +
                                             many_aliases() + "\n");
    return keel_test::run_with_fakes([&](keel_test::fake_files &) {
        keel_test::fake_files::bind(etc.path(), "/etc");
        body();
    });
}

class HostName : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "host names of its own need root";
    }
};

/* "10.20.30.40 10.20.30.40\n": as text, and what the number says. "failed\n" where nothing was
 * stored either. */
void tell_address(const char *name) {
    char text[16] = "untouched";
    unsigned address = 0xabcdabcd;
    const int result = hostname2addr(name, text, sizeof text, &address);
    if (result == 0)
        std::printf("%s %s\n", text, inet_ntoa({address}));
    else if (result == -1 && address == 0xabcdabcd && string(text) == "untouched")
        std::printf("failed\n");
    else
        std::printf("%d %s %x\n", result, text, address);
}

TEST_F(HostName, GivesTheFirstAddress) {
    const struct {
        const char *name;
        const char *address;
    } rows[] = {
        {"server.example", "10.20.30.40"},
        {"server", "10.20.30.40"},
        {"SERVER", "10.20.30.40"},
        {"localhost", "127.0.0.1"},
        {"two", "10.0.0.9"},
        {"both", "10.6.6.6"},
        {"famous", "10.7.7.7"},
        {"an-alias-of-some-length-399", "10.7.7.7"},
        {"10.1.2.3", "10.1.2.3"},
        {"10.1", "10.0.0.1"},
        {"255.255.255.255", "255.255.255.255"},
        {"0.0.0.0", "0.0.0.0"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(with_hosts([&] { tell_address(row.name); }),
                  printed(string(row.address) + " " + row.address + "\n"))
            << row.name;
}

TEST_F(HostName, ThatIsUnknownStoresNothingAndIsNotToldOf) {
    const string many_digits(100'000, '1');
    const string many_letters(100'000, 'x');
    for (const char *name : {"unknown", "", " ", "six", "server ", "server.example.", "256.1.1.1",
                             "fe80::1", "%s%n", "\xff\xfe", "server\n", many_digits.c_str(),
                             many_letters.c_str(), static_cast<const char *>(nullptr)})
        EXPECT_EQ(with_hosts([&] { tell_address(name); }), printed("failed\n"))
            << (name == nullptr ? "null" : string(name).substr(0, 40));
}

TEST_F(HostName, TextIsCutAndThenNotTerminated) {
    const struct {
        std::size_t length;
        string text;
    } rows[] = {
        {0, ""},
        {1, "1"},
        {8, "192.168."},
        {14, "192.168.100.20"},
        {15, "192.168.100.200"},
        {16, "192.168.100.200"},
        {24, "192.168.100.200"},
    };
    for (const auto &row : rows) {
        const string expected =
            row.text + string(row.length - row.text.size(), '\0') + string(32 - row.length, '#');
        const auto body = [&] {
            string buffer(32, '#');
            unsigned address = 0;
            if (hostname2addr("long", buffer.data(), row.length, &address) == 0 &&
                address == number("192.168.100.200"))
                std::fwrite(buffer.data(), 1, buffer.size(), stdout);
        };
        EXPECT_EQ(with_hosts(body), printed(expected)) << row.length;
    }
}

TEST_F(HostName, GivesWhatIsWanted) {
    const auto body = [] {
        const auto descriptors = keel_test::count_descriptors();
        char text[16];
        unsigned address = 0;
        const int nothing = hostname2addr("server", nullptr, 0, nullptr);
        const int long_nothing = hostname2addr("server", nullptr, 16, nullptr);
        const int unknown = hostname2addr("unknown", nullptr, 16, nullptr);
        const int as_text = hostname2addr("server", text, sizeof text, nullptr);
        const int as_number = hostname2addr("server", nullptr, 0, &address);
        std::printf("%d %d %d %d %s %d %s", nothing, long_nothing, unknown, as_text, text,
                    as_number, inet_ntoa({address}));
        if (keel_test::count_descriptors() != descriptors)
            std::printf(", and a descriptor is left");
    };
    EXPECT_EQ(with_hosts(body), printed("0 0 -1 0 10.20.30.40 0 10.20.30.40"));
}

} // namespace

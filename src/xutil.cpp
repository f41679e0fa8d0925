/* SPDX-License-Identifier: MIT */
#include "xutil.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cancel_shield.h"
#include "ending.h"
#include "handles.h"
#include "xstring.h"
#include "xwrap.h"

void err_sys(const char * /*format*/, ...) {
    keel::end_process(1);
}

int Close(int descriptor) {
    if (close(descriptor) == -1)
        err_sys("close error");
    return 0;
}

int Unlink(const char *path) {
    if (path == nullptr || unlink(path) == -1)
        err_sys("unlink error(%s)", path);
    return 0;
}

int Ioctl(int descriptor, int request, void *argument) {
    /* Requests are 32 bits without a sign; many have the highest one set. */
    const int result = ioctl(descriptor, static_cast<unsigned>(request), argument);
    if (result == -1)
        err_sys("ioctl error");
    return result;
}

int Socket(int domain, int type, int protocol) {
    const int descriptor = socket(domain, type, protocol);
    if (descriptor == -1)
        err_sys("socket error");
    return descriptor;
}

int Mkfifo(const char *path, mode_t mode) {
    if (path == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (mkfifo(path, mode) == -1 && errno != EEXIST)
        return -1;
    errno = 0;
    return 0;
}

/* ---- Network interfaces --------------------------------------------------------------------- */

namespace {

template <class Record>
Record *copy_of(const Record &record) {
    auto *copy = static_cast<Record *>(Calloc(1, sizeof(Record)));
    *copy = record;
    return copy;
}

template <class Pointer>
void free_and_clear(Pointer &block) {
    std::free(block);
    block = nullptr;
}

/* Every interface that has an address. */
struct configuration {
    keel::unique_cstr entries;
    std::size_t count = 0;

    ifreq entry(std::size_t index) const {
        ifreq one;
        std::memcpy(&one, entries.get() + index * sizeof one, sizeof one);
        return one;
    }
};

/* Asks with more and more room until the answer grows no more. */
configuration get_configuration(int descriptor) {
    configuration all;
    int length = 0;
    for (int size = 4000;; size += 400) {
        all.entries.reset(
            static_cast<char *>(Realloc(all.entries.release(), static_cast<std::size_t>(size))));
        ifconf request{};
        request.ifc_len = size;
        request.ifc_buf = all.entries.get();
        Ioctl(descriptor, SIOCGIFCONF, &request);
        if (request.ifc_len == length)
            break;
        length = request.ifc_len;
    }
    all.count = static_cast<std::size_t>(length) / sizeof(ifreq);
    return all;
}

/* The answer to one request about an interface. */
ifreq ask(int descriptor, ifreq about, int request) {
    Ioctl(descriptor, request, &about);
    return about;
}

ethtool_cmd *link_of(int descriptor, ifreq about) {
    ethtool_cmd settings{};
    settings.cmd = ETHTOOL_GSET;
    about.ifr_data = reinterpret_cast<char *>(&settings);
    return ioctl(descriptor, SIOCETHTOOL, &about) == 0 ? copy_of(settings) : nullptr;
}

void describe(int descriptor, const ifreq &entry, ifi_info &ifi) {
    ifi.ifi_mtu = static_cast<std::uint16_t>(ask(descriptor, entry, SIOCGIFMTU).ifr_mtu);
    ifi.ifi_flags = ask(descriptor, entry, SIOCGIFFLAGS).ifr_flags;
    ifi.ifi_link = link_of(descriptor, entry);
    ifi.ifi_addr = copy_of(entry.ifr_addr);
    if (std::strcmp(ifi.ifi_name, "lo") != 0)
        ifi.ifi_hwaddr = copy_of(ask(descriptor, entry, SIOCGIFHWADDR).ifr_hwaddr);
    ifi.ifi_netmask = copy_of(ask(descriptor, entry, SIOCGIFNETMASK).ifr_netmask);
    if ((ifi.ifi_flags & IFF_BROADCAST) != 0)
        ifi.ifi_brdaddr = copy_of(ask(descriptor, entry, SIOCGIFBRDADDR).ifr_broadaddr);
    if ((ifi.ifi_flags & IFF_POINTOPOINT) != 0)
        ifi.ifi_dstaddr = copy_of(ask(descriptor, entry, SIOCGIFDSTADDR).ifr_dstaddr);
}

/* Appends those that have no address. */
void add_others(const ifi_info *const &head, ifi_info **tail) {
    const keel::unique_file file(std::fopen("/proc/net/dev", "re"));
    char line[1024];
    while (file != nullptr && std::fgets(line, sizeof line, file.get()) != nullptr) {
        char *colon = std::strchr(line, ':');
        if (colon == nullptr)
            continue;
        *colon = '\0';
        char *name = strtrim1(line);
        name[strnlen(name, IFNAMSIZ - 1)] = '\0'; // as the record will have it
        if (*name != '\0' && is_ifi_info_exist(head, name) == 0)
            add_ifi_info(&tail, name);
    }
}

} // namespace

ifi_info *get_ifi_info(int /*family*/) {
    const keel::cancel_shield shield; // else the list would be lost
    const keel::unique_fd socket(Socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const configuration all = get_configuration(socket.get());
    ifi_info *head = nullptr;
    ifi_info **tail = &head;
    for (std::size_t i = 0; i < all.count; i++) {
        const ifreq entry = all.entry(i);
        if (entry.ifr_addr.sa_family == AF_INET)
            describe(socket.get(), entry, *add_ifi_info(&tail, entry.ifr_name));
    }
    add_others(head, tail);
    return head;
}

ifi_info *free_ifi_info(ifi_info *head) {
    while (head != nullptr) {
        ifi_info *next = head->ifi_next;
        release_ifi_info(head);
        std::free(head);
        head = next;
    }
    return nullptr;
}

void release_ifi_info(ifi_info *ifi) {
    if (ifi == nullptr)
        return;
    ifi->ifi_mtu = 0;
    ifi->ifi_flags = 0;
    free_and_clear(ifi->ifi_link);
    free_and_clear(ifi->ifi_addr);
    free_and_clear(ifi->ifi_hwaddr);
    free_and_clear(ifi->ifi_netmask);
    free_and_clear(ifi->ifi_brdaddr);
    free_and_clear(ifi->ifi_dstaddr);
}

int is_ifi_info_exist(const ifi_info *head, const char *name) {
    if (name == nullptr)
        return 0;
    for (; head != nullptr; head = head->ifi_next)
        if (std::strcmp(head->ifi_name, name) == 0)
            return 1;
    return 0;
}

ifi_info *add_ifi_info(ifi_info ***tail, const char *name) {
    auto *ifi = static_cast<ifi_info *>(Calloc(1, sizeof(ifi_info)));
    if (name != nullptr)
        std::memcpy(ifi->ifi_name, name, strnlen(name, sizeof ifi->ifi_name - 1));
    **tail = ifi;
    *tail = &ifi->ifi_next;
    return ifi;
}

/* SPDX-License-Identifier: MIT */
#pragma once

#include "xfsproc.h"
#include "xnet.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <net/if.h>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "plain_strings.h"

namespace keel_test {

/* The readers of kernel files as their contracts tell them, each from the text that a file holds,
 * with the C library's scanner and no regard to speed: what a test holds the library's own against.
 */

/* What fgets() gives of it, as the strings that they are. */
inline std::vector<std::string> plain_pieces(const std::string &text, std::size_t size = 2048) {
    std::vector<std::string> pieces;
    for (std::size_t next = 0; next < text.size();) {
        const std::size_t end = std::min({text.find('\n', next), text.size() - 1, next + size - 2});
        pieces.emplace_back(text.substr(next, end + 1 - next).c_str());
        next = end + 1;
    }
    return pieces;
}

/* As much as fits into the field. */
template <std::size_t Size>
void plain_store(char (&field)[Size], const std::string &text) {
    std::snprintf(field, Size, "%.*s", static_cast<int>(Size - 1), text.c_str());
}

inline bool plain_uptime(const std::string &text, uptime_val &to) {
    long seconds = 0;
    long fraction = 0;
    const auto pieces = plain_pieces(text, 512);
    if (pieces.empty() || std::sscanf(pieces[0].c_str(), "%ld.%ld", &seconds, &fraction) != 2)
        return false;
    to.sec = seconds;
    to.nsec = static_cast<std::int64_t>(1'000'000 * static_cast<std::uint64_t>(fraction));
    return true;
}

inline std::uint64_t plain_cpuinfo(const std::string &text) {
    std::uint64_t count = 0;
    for (const std::string &line : plain_pieces(text))
        count += line.rfind("processor\t:", 0) == 0;
    return count;
}

inline cpu_stat plain_cpustat(const std::string &text) {
    unsigned long long n[9] = {};
    for (const std::string &line : plain_pieces(text)) {
        if (line.rfind("cpu ", 0) != 0)
            continue;
        std::sscanf(line.c_str(), "cpu %llu %llu %llu %llu %llu %llu %llu %llu %llu", &n[0], &n[1],
                    &n[2], &n[3], &n[4], &n[5], &n[6], &n[7], &n[8]);
        break;
    }
    return {n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7], n[8]};
}

inline mem_stat plain_meminfo(const std::string &text) {
    std::map<std::string, std::uint64_t> figures;
    for (const std::string &line : plain_pieces(text))
        if (const auto colon = line.find(':'); colon != line.npos)
            figures[line.substr(0, colon)] = std::strtoul(line.c_str() + colon + 1, nullptr, 0);
    mem_stat memory{};
    memory.buffers = figures["Buffers"];
    memory.cached = figures["Cached"];
    memory.mem_free = figures["MemFree"];
    memory.mem_total = figures["MemTotal"];
    memory.mem_used = memory.mem_total - memory.mem_free;
    memory.swap_free = figures["SwapFree"];
    memory.swap_total = figures["SwapTotal"];
    memory.swap_used = memory.swap_total - memory.swap_free;
    return memory;
}

/* Scans the line into the record, but for the name, which it gives back as it stands there. */
inline std::string plain_scan_traffic(const std::string &line, net_dev_stat &to) {
    std::vector<char> name(line.size() + sizeof to.name);
    std::memcpy(name.data(), to.name, sizeof to.name);
    unsigned long long n[] = {to.rx_bytes, to.rx_packets, to.tx_bytes, to.tx_packets};
    std::sscanf(line.c_str(),
                "%[^:]: %llu %llu %*u %*u %*u %*u %*u %*u %llu %llu %*u %*u %*u %*u %*u %*u",
                name.data(), &n[0], &n[1], &n[2], &n[3]);
    to.rx_bytes = n[0];
    to.rx_packets = n[1];
    to.tx_bytes = n[2];
    to.tx_packets = n[3];
    return name.data();
}

inline void plain_take_state(net_dev_stat &to) {
    get_if_flags(to.name, &to.flags);
    to.prev_state = to.state;
    to.state = (to.flags & IFF_RUNNING) != 0 ? 1 : 2;
    if (to.state == 1) {
        get_if_addr(to.name, &to.addr);
        get_if_netmask(to.name, &to.netmask);
    } else {
        to.addr = 0;
        to.netmask = 0;
    }
}

/* The indentation does not count when a name is cut. */
inline int plain_net_dev(const std::string &text, std::vector<net_dev_stat> &records,
                         const std::vector<std::string> &names) {
    std::size_t i = 0;
    for (const std::string &line : plain_pieces(text)) {
        if (line.find(':') == line.npos || line.find("lo") != line.npos)
            continue;
        if (i < records.size()) {
            const std::string name = plain_scan_traffic(line, records[i]);
            plain_store(records[i].name,
                        name.substr(std::min(name.find_first_not_of(" \t\n\v\f\r"), name.size())));
            plain_store(records[i].name, plain_trim1(records[i].name));
            if (!names.empty() &&
                std::find(names.begin(), names.end(), records[i].name) == names.end())
                continue;
            plain_take_state(records[i]);
        }
        i++;
    }
    return static_cast<int>(i);
}

inline int plain_net_dev_info(const std::string &text, const std::string &name, net_dev_stat &to) {
    const std::string key = (name + ":").substr(0, 17);
    for (const std::string &piece : plain_pieces(text)) {
        const std::string line = plain_trim1(piece);
        if (piece.find(':') == piece.npos || line.rfind(key, 0) != 0)
            continue;
        plain_store(to.name, plain_scan_traffic(line, to));
        return 0;
    }
    return -1;
}

inline bool plain_whole_disk(unsigned major, unsigned minor) {
    static const std::set<unsigned> ide = {3, 22, 33, 34, 56, 57, 88, 89, 90, 91};
    static const std::set<unsigned> scsi = {8,   65,  66,  67,  68,  69,  70,  71,
                                            128, 129, 130, 131, 132, 133, 134, 135};
    return (ide.contains(major) && minor % 64 == 0) || (scsi.contains(major) && minor % 16 == 0);
}

inline int plain_diskstats(const std::string &text, std::vector<disk_stat> &records) {
    std::fill(records.begin(), records.end(), disk_stat{});
    std::size_t count = 0;
    for (const std::string &line : plain_pieces(text)) {
        std::vector<char> name(line.size() + 1);
        unsigned major = 0;
        unsigned minor = 0;
        unsigned long long n[10] = {};
        std::sscanf(line.c_str(), "%u %u %s %llu %llu %llu %llu %llu %llu %llu %llu %*u %llu %llu",
                    &major, &minor, name.data(), &n[0], &n[1], &n[2], &n[3], &n[4], &n[5], &n[6],
                    &n[7], &n[8], &n[9]);
        if (n[0] == 0 || !plain_whole_disk(major, minor))
            continue;
        if (count < records.size()) {
            records[count] = {major, minor, n[0], n[1], n[2], n[3], n[4],
                              n[5],  n[6],  n[7], n[8], n[9], ""};
            plain_store(records[count].name, name.data());
        }
        count++;
    }
    return static_cast<int>(count);
}

} // namespace keel_test

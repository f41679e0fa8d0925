/* SPDX-License-Identifier: MIT */
/* Hexadecimal text packed into bytes, and bytes unpacked into text: a long one, and short ones as
 * they stand in messages. */
#include <boost/algorithm/hex.hpp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <openssl/crypto.h>
#include <random>
#include <string>
#include <vector>
#include <xconvert.h>

#include "table.h"

using bench::job;
using bench::require;

namespace {

using bytes = std::vector<std::uint8_t>;

bytes random_bytes(std::size_t size) {
    std::mt19937 random(1);
    bytes all(size);
    for (auto &byte : all)
        byte = static_cast<std::uint8_t>(random());
    return all;
}

/* So many bytes, each of them and their text again and again. */
struct sample {
    sample(std::size_t size, std::size_t times)
        : data(random_bytes(size)), text(2 * size, '\0'), repeats(times) {
        for (std::size_t i = 0; i < size; i++) {
            text[2 * i] = "0123456789ABCDEF"[data[i] >> 4];
            text[2 * i + 1] = "0123456789ABCDEF"[data[i] & 0xf];
        }
    }

    bytes data;
    std::string text;
    std::size_t repeats;
};

/* A job that packs or unpacks a sample into room of its own, and did so rightly at least once. */
template <class Room, class Work>
auto converting(const sample &from, Room room, const Room &expected, Work work) {
    return [&from, room, expected, work] {
        const auto to = std::make_shared<Room>(room);
        work(from, *to);
        require(std::equal(expected.begin(), expected.end(), to->begin()), "converted wrongly");
        return job{.run = [&from, to, work] {
            for (std::size_t i = 0; i < from.repeats; i++)
                work(from, *to);
        }};
    };
}

template <class Work>
auto packing_with(const sample &from, Work work) {
    return converting(from, bytes(from.data.size()), from.data, work);
}

template <class Work>
auto unpacking_with(const sample &from, Work work) {
    return converting(from, std::string(from.text.size() + 1, '-'), from.text, work);
}

void keel_pack(const sample &from, bytes &to) {
    const int count = convert_str2bch(to.data(), to.size(), from.text.c_str());
    require(count == static_cast<int>(to.size()), "convert_str2bch lost bytes");
}

void openssl_pack(const sample &from, bytes &to) {
    std::size_t count = 0;
    require(OPENSSL_hexstr2buf_ex(to.data(), to.size(), &count, from.text.c_str(), '\0') == 1,
            "OPENSSL_hexstr2buf_ex failed");
}

void boost_pack(const sample &from, bytes &to) {
    boost::algorithm::unhex(from.text.begin(), from.text.end(), to.begin());
}

void sscanf_pack(const sample &from, bytes &to) {
    char pair[3] = {};
    for (std::size_t i = 0; i < to.size(); i++) {
        unsigned value = 0;
        std::memcpy(pair, from.text.data() + 2 * i, 2);
        require(std::sscanf(pair, "%2x", &value) == 1, "sscanf failed");
        to[i] = static_cast<std::uint8_t>(value);
    }
}

void copy_bytes(const sample &from, bytes &to) {
    std::memcpy(to.data(), from.data.data(), to.size());
}

void keel_unpack(const sample &from, std::string &to) {
    require(convert_bch2str(to.data(), to.size(), from.data.data(), from.data.size()) == 0,
            "convert_bch2str failed");
}

void openssl_unpack(const sample &from, std::string &to) {
    std::size_t length = 0;
    require(OPENSSL_buf2hexstr_ex(to.data(), to.size(), &length, from.data.data(), from.data.size(),
                                  '\0') == 1,
            "OPENSSL_buf2hexstr_ex failed");
}

void boost_unpack(const sample &from, std::string &to) {
    boost::algorithm::hex(from.data.begin(), from.data.end(), to.begin());
}

void snprintf_unpack(const sample &from, std::string &to) {
    for (std::size_t i = 0; i < from.data.size(); i++)
        std::snprintf(to.data() + 2 * i, 3, "%.2X", from.data[i]);
}

void copy_text(const sample &from, std::string &to) {
    std::memcpy(to.data(), from.text.data(), from.text.size());
}

bench::table packing(const char *title, const sample &from) {
    return {.title = title,
            .item = "byte",
            .items = static_cast<double>(from.data.size() * from.repeats),
            .floor = "two digits are looked up and tested for each byte",
            .contenders = {{"keel convert_str2bch", packing_with(from, keel_pack)},
                           {"OPENSSL_hexstr2buf_ex", packing_with(from, openssl_pack), 0.5},
                           {"Boost unhex", packing_with(from, boost_pack), 0.5},
                           {"sscanf of each byte", packing_with(from, sscanf_pack), 0.1},
                           {"memcpy of the bytes", packing_with(from, copy_bytes)}}};
}

bench::table unpacking(const char *title, const sample &from) {
    return {.title = title,
            .item = "byte",
            .items = static_cast<double>(from.data.size() * from.repeats),
            .floor = "two characters of text for each byte",
            .contenders = {{"keel convert_bch2str", unpacking_with(from, keel_unpack)},
                           {"OPENSSL_buf2hexstr_ex", unpacking_with(from, openssl_unpack), 0.5},
                           {"Boost hex", unpacking_with(from, boost_unpack), 0.5},
                           {"snprintf of each byte", unpacking_with(from, snprintf_unpack), 0.1},
                           {"memcpy of the text", unpacking_with(from, copy_text)}}};
}

} // namespace

int main(int argc, char *argv[]) {
    const sample large(1 << 20, 1);
    const sample key(16, 10'000);
    return bench::measure(argc, argv,
                          {packing("Packing 2 MiB of digits", large),
                           packing("Packing 32 digits", key), unpacking("Unpacking 1 MiB", large),
                           unpacking("Unpacking 16 bytes", key)});
}

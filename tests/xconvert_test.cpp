/* SPDX-License-Identifier: MIT */
#include "xconvert.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "plain_convert.h"

namespace {

using keel_test::plain_packed;
using keel_test::plain_unpacked;
using std::string;

using packer = int(void *out, std::size_t capacity, const char *digits);

constexpr char untouched = '\x5a';

/* What packing writes to room for just `capacity` bytes; it has to leave the rest as it was. */
string packed(packer *pack, const string &text, std::size_t capacity) {
    const std::vector<char> digits(text.c_str(), text.c_str() + text.size() + 1);
    std::vector<char> out(capacity, untouched);
    const int count = pack(out.data(), capacity, digits.data());
    if (count < 0 || static_cast<std::size_t>(count) > capacity) {
        ADD_FAILURE() << count << " bytes of " << capacity;
        return "";
    }
    EXPECT_EQ(std::count(out.begin() + count, out.end(), untouched), std::ssize(out) - count);
    return {out.data(), static_cast<std::size_t>(count)};
}

string decimal(const string &text, std::size_t capacity) {
    return packed(convert_str2bcd, text, capacity);
}

string hexadecimal(const string &text, std::size_t capacity) {
    return packed(convert_str2bch, text, capacity);
}

struct packing {
    const char *text;
    std::size_t capacity;
    string bytes;
};

TEST(Packing, TakesDecimalDigits) {
    const packing rows[] = {
        {"", 4, ""},
        {"7", 4, "\x07"},
        {"12", 4, "\x12"},
        {"123", 4, "\x01\x23"},
        {"1234", 4, "\x12\x34"},
        {"12345", 4, "\x01\x23\x45"},
        {"9876543210", 5, "\x98\x76\x54\x32\x10"},
        {"0", 1, string(1, '\0')},
        {"000", 2, string(2, '\0')},
        {"09", 1, "\x09"},
        {"12a", 4, "\x12"},
        {"12x4", 4, "\x12"},
        {"123A", 4, "\x01\x23"},
        {"a12", 4, ""},
        {" 12", 4, ""},
        {"+12", 4, ""},
        {"-12", 4, ""},
        {"1 2", 4, "\x01"},
        {"1.5", 4, "\x01"},
        {"12\n", 4, "\x12"},
    };
    for (const packing &row : rows)
        EXPECT_EQ(decimal(row.text, row.capacity), row.bytes) << row.text;
}

TEST(Packing, TakesHexadecimalDigits) {
    const packing rows[] = {
        {"", 4, ""},
        {"f", 4, "\x0f"},
        {"abc", 4, "\x0a\xbc"},
        {"c0FFee", 4, "\xc0\xff\xee"},
        {"0123456789abcdefABCDEF", 11, "\x01\x23\x45\x67\x89\xab\xcd\xef\xab\xcd\xef"},
        {"00", 1, string(1, '\0')},
        {"0x12", 4, string(1, '\0')},
        {"x12", 4, ""},
        {"12g4", 4, "\x12"},
        {"12G4", 4, "\x12"},
        {"ab:cd", 4, "\xab"},
        {"abc:d", 4, "\x0a\xbc"},
        {"12h", 4, "\x12"},
    };
    for (const packing &row : rows)
        EXPECT_EQ(hexadecimal(row.text, row.capacity), row.bytes) << row.text;
}

TEST(Packing, EndsWhereTheRoomDoes) {
    const packing rows[] = {
        {"abc", 1, "\xab"},
        {"abcd", 1, "\xab"},
        {"abcde", 2, "\xab\xcd"},
        {"abc", 2, "\x0a\xbc"},
        {"abcdefx", 2, "\xab\xcd"},
        {"a", 1, "\x0a"},
        {"abcx", 1, "\xab"},
        {"abcd", 0, ""},
        {"", 0, ""},
        {"x", 0, ""},
        {"123456", 3, "\x12\x34V"},
    };
    for (const packing &row : rows)
        EXPECT_EQ(hexadecimal(row.text, row.capacity), row.bytes) << row.text << row.capacity;
}

string random_of(const char *characters, std::size_t length, unsigned seed) {
    std::mt19937 random(seed);
    string text;
    while (text.size() < length)
        text += characters[random() % std::strlen(characters)];
    return text;
}

TEST(Packing, TakesEachLengthIntoEachCapacity) {
    const string tens = random_of("0123456789", 40, 1);
    const string sixteens = random_of("0123456789abcdefABCDEF", 40, 2);
    for (std::size_t length = 0; length <= tens.size(); length++) {
        for (std::size_t capacity = 0; capacity <= 22; capacity++) {
            const string ten = tens.substr(0, length);
            const string sixteen = sixteens.substr(0, length);
            EXPECT_EQ(decimal(ten, capacity), plain_packed(ten, capacity, false));
            EXPECT_EQ(decimal(sixteen, capacity), plain_packed(sixteen, capacity, false));
            EXPECT_EQ(hexadecimal(sixteen, capacity), plain_packed(sixteen, capacity, true));
        }
    }
}

/* Each byte but the closing NUL, in each place, first and last included. */
TEST(Packing, KnowsEachCharacter) {
    for (const char *digits : {"12", "123", "12345678"}) {
        for (std::size_t at = 0; at < std::strlen(digits); at++) {
            for (int byte = 1; byte <= UINT8_MAX; byte++) {
                string text = digits;
                text[at] = static_cast<char>(byte);
                EXPECT_EQ(decimal(text, 5), plain_packed(text, 5, false)) << text;
                EXPECT_EQ(hexadecimal(text, 5), plain_packed(text, 5, true)) << text;
            }
        }
    }
}

TEST(Packing, TakesCapacitiesOfWhichTwiceIsNoSize) {
    for (const std::size_t capacity :
         {SIZE_MAX, SIZE_MAX - 1, SIZE_MAX / 2 + 2, SIZE_MAX / 2 + 1, SIZE_MAX / 2,
          static_cast<std::size_t>(UINT32_MAX) + 1, static_cast<std::size_t>(INT32_MAX)}) {
        char out[] = "------";
        EXPECT_EQ(convert_str2bch(out, capacity, "6162636"), 4) << capacity;
        EXPECT_STREQ(out, "\x06\x16\x26\x36--") << capacity;
        EXPECT_EQ(convert_str2bcd(out, capacity, "717"), 2) << capacity;
        EXPECT_STREQ(out, "\x07\x17\x26\x36--") << capacity;
    }
}

TEST(Packing, TakesLongStrings) {
    for (const std::size_t length : {1'000'000UL, 1'000'001UL}) {
        const string text = random_of("0123456789abcdef", length, 3);
        EXPECT_EQ(hexadecimal(text, length) == plain_packed(text, length, true), true) << length;
    }
}

TEST(Packing, FailsWithoutAStringOrARoom) {
    char out[] = "--";
    for (packer *pack : {convert_str2bcd, convert_str2bch}) {
        EXPECT_EQ(pack(out, 2, nullptr), -1);
        EXPECT_EQ(pack(out, 0, nullptr), -1);
        EXPECT_EQ(pack(nullptr, 0, nullptr), -1);
        EXPECT_EQ(pack(nullptr, 2, "12"), -1);
        EXPECT_EQ(pack(nullptr, 2, ""), -1);
        EXPECT_EQ(pack(nullptr, 0, "12"), 0) << "nothing to be written";
        EXPECT_EQ(pack(out, 0, "12"), 0);
    }
    EXPECT_STREQ(out, "--");
}

/* What unpacking writes to room for just `capacity` characters, the terminator and what is behind
 * it included. */
string unpacked(const string &bytes, std::size_t capacity, int result = 0) {
    const std::vector<char> in(bytes.begin(), bytes.end());
    std::vector<char> out(capacity, untouched);
    EXPECT_EQ(convert_bch2str(out.data(), capacity, in.data(), in.size()), result);
    return {out.begin(), out.end()};
}

string with_end(const string &text) {
    return text + '\0';
}

TEST(Unpacking, WritesCapitalDigits) {
    EXPECT_EQ(unpacked("\x0a\x1b", 5), with_end("0A1B"));
    EXPECT_EQ(unpacked("", 1), with_end(""));
    EXPECT_EQ(unpacked(string(2, '\0'), 5), with_end("0000"));
    EXPECT_EQ(unpacked("\xff\x7f\x80", 7), with_end("FF7F80"));
}

TEST(Unpacking, WritesNothingThatDoesNotFit) {
    for (std::size_t count = 0; count <= 40; count++) {
        const string bytes = random_of("\x01\x9a\xf0\xff zZ", count, 4);
        for (std::size_t capacity = 0; capacity <= 2 * count; capacity++)
            EXPECT_EQ(unpacked(bytes, capacity, -1), string(capacity, untouched)) << count;
        EXPECT_EQ(unpacked(bytes, 2 * count + 1), with_end(plain_unpacked(bytes)));
        EXPECT_EQ(unpacked(bytes, 2 * count + 3),
                  with_end(plain_unpacked(bytes)) + string(2, untouched));
    }
}

TEST(Unpacking, RefusesCountsOfWhichTwiceIsNoSize) {
    char out[] = "--------";
    for (const std::size_t count :
         {SIZE_MAX, SIZE_MAX - 1, SIZE_MAX / 2 + 3, SIZE_MAX / 2 + 2, SIZE_MAX / 2 + 1})
        for (const std::size_t capacity : {sizeof out, std::size_t{0}, SIZE_MAX - 1, SIZE_MAX})
            EXPECT_EQ(convert_bch2str(out, capacity, "bytes", count), -1) << count;
    EXPECT_EQ(convert_bch2str(out, SIZE_MAX - 1, "bytes", SIZE_MAX / 2), -1);
    EXPECT_STREQ(out, "--------");
    EXPECT_EQ(convert_bch2str(out, SIZE_MAX, "by", 2), 0);
    EXPECT_STREQ(out, "6279");
}

TEST(Unpacking, WritesEachByteInEachPlace) {
    string bytes;
    for (int byte = 0; byte <= UINT8_MAX; byte++)
        bytes += static_cast<char>(byte);
    for (std::size_t from = 0; from < bytes.size(); from++) {
        const string rest = bytes.substr(from) + bytes.substr(0, from / 2);
        EXPECT_EQ(unpacked(rest, 2 * rest.size() + 1), with_end(plain_unpacked(rest))) << from;
    }
}

TEST(Unpacking, FailsWithoutBytesOrRoom) {
    char out[] = "----";
    EXPECT_EQ(convert_bch2str(out, 0, "", 0), -1);
    EXPECT_EQ(convert_bch2str(out, 0, "1", 1), -1);
    EXPECT_EQ(convert_bch2str(out, 4, nullptr, 1), -1);
    EXPECT_EQ(convert_bch2str(nullptr, 4, "1", 1), -1);
    EXPECT_EQ(convert_bch2str(nullptr, 0, "1", 1), -1);
    EXPECT_EQ(convert_bch2str(nullptr, 4, "", 0), -1);
    EXPECT_STREQ(out, "----");
    EXPECT_EQ(convert_bch2str(out, 4, nullptr, 0), 0) << "no bytes, an empty text";
    EXPECT_STREQ(out, "");
}

TEST(Unpacking, IsUndoneByPacking) {
    const string bytes = random_of("\x01\x23\x45\x67\x89\xab\xcd\xef", 1001, 5);
    const string text = unpacked(bytes, 2003);
    EXPECT_EQ(hexadecimal(text.c_str(), bytes.size()), bytes);
}

constexpr convert_desc states[] = {
    {0, "idle"},  {7, "busy"}, {UINT32_MAX, "gone"}, {7, "at work"}, {9, "idle"},
    {3, nullptr}, {4, ""},     {3, "late"},
};
constexpr std::size_t state_count = std::size(states);

static_assert(std::is_same_v<decltype(convert_desc::value), std::uint32_t>);
static_assert(offsetof(convert_desc, value) == 0 && offsetof(convert_desc, desc) == 8);

TEST(Descriptions, GiveTheirValues) {
    const struct {
        const char *desc;
        std::uint32_t value;
    } rows[] = {{"idle", 0},    {"busy", 7}, {"gone", UINT32_MAX},
                {"at work", 7}, {"", 4},     {"late", 3}};
    for (const auto &row : rows) {
        std::uint32_t value = 1;
        EXPECT_EQ(convert_desc2enum(states, state_count, row.desc, &value), 0) << row.desc;
        EXPECT_EQ(value, row.value) << row.desc;
    }
}

TEST(Descriptions, AreComparedWholeAndExactly) {
    std::uint32_t value = 1;
    for (const char *desc : {"Idle", "IDLE", "idl", "idle ", " idle", "at", "x"})
        EXPECT_EQ(convert_desc2enum(states, state_count, desc, &value), -1) << desc;
    EXPECT_EQ(convert_desc2enum(states, 2, "gone", &value), -1) << "behind the last row";
    EXPECT_EQ(convert_desc2enum(states, 0, "idle", &value), -1);
    EXPECT_EQ(value, 1U);
}

TEST(Descriptions, BelongToTheFirstRowOfAValue) {
    for (const int row : {0, 1, 2, 4, 6})
        EXPECT_EQ(convert_enum2desc(states, state_count, states[row].value), states[row].desc);
    EXPECT_EQ(convert_enum2desc(states, state_count, 3), nullptr) << "its first row has none";
    EXPECT_EQ(convert_enum2desc(states, state_count, 1), nullptr);
    EXPECT_EQ(convert_enum2desc(states, 2, UINT32_MAX), nullptr);
    EXPECT_EQ(convert_enum2desc(states, 0, 0), nullptr);
}

TEST(Descriptions, AreNotFoundWithoutATable) {
    std::uint32_t value = 1;
    EXPECT_EQ(convert_desc2enum(nullptr, 0, "idle", &value), -1);
    EXPECT_EQ(convert_desc2enum(nullptr, 2, "idle", &value), -1);
    EXPECT_EQ(convert_desc2enum(states, state_count, nullptr, &value), -1);
    EXPECT_EQ(convert_desc2enum(states, state_count, "idle", nullptr), -1);
    EXPECT_EQ(value, 1U);
    EXPECT_EQ(convert_enum2desc(nullptr, 0, 0), nullptr);
    EXPECT_EQ(convert_enum2desc(nullptr, 2, 0), nullptr);
}

} // namespace

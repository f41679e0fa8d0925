/* SPDX-License-Identifier: MIT */
#include "xconf.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "cancelled.h"
#include "child.h"
#include "conf_maker.h"
#include "descriptors.h"
#include "edited_file.h"
#include "own_mounts.h"
#include "process_limits.h"
#include "small_disk.h"
#include "waiting.h"

namespace {

using keel_test::content_of;
using keel_test::count_descriptors;
using keel_test::edited_file;
using keel_test::exited;
using keel_test::file_size_limit;
using keel_test::port_edit;
using keel_test::port_edits;
using keel_test::port_file;
using keel_test::umask_of;
using keel_test::write_file;
using std::string;

string times(std::size_t count, char character) {
    return string(count, character);
}

/* A text with NUL bytes. */
template <std::size_t size>
string bytes(const char (&text)[size]) {
    return string(text, size - 1);
}

/* ---- finsert, fmodify, fremove -------------------------------------------------------------- */

struct row {
    string before, after;
};

using line_edit = int (*)(const char *, const char *, char, const char *);

void expect_rows(line_edit edit, char separator, const char *value, const std::vector<row> &rows) {
    edited_file file;
    for (const row &r : rows) {
        file.write(r.before);
        EXPECT_EQ(edit(file.path(), "port", separator, value), 0) << r.before;
        EXPECT_EQ(file.text(), r.after) << "before:\n" << r.before;
        EXPECT_TRUE(file.alone());
    }
}

TEST(Finsert, AppendsWhatNoLineHas) {
    expect_rows(finsert, '=', "80",
                {
                    {"", "port=80\n"},
                    {"a=1\n", "a=1\nport=80\n"},
                    {"a=1", "a=1\nport=80\n"},
                    {"a=1\n\n", "a=1\n\nport=80\n"},
                    {"ports=80\nxport=80\nPort=80\n", "ports=80\nxport=80\nPort=80\nport=80\n"},
                    {"port", "port\nport=80\n"},
                    {"port:80\n", "port:80\nport=80\n"},
                    {"por t=80\n", "por t=80\nport=80\n"},
                    {"#port=80\n", "#port=80\nport=80\n"},
                    {"  # port=80\n", "# port=80\nport=80\n"},
                });
}

TEST(Finsert, PutsANewSettingAheadOfTheFirstOfItsKey) {
    expect_rows(finsert, '=', "80",
                {
                    {"port=8080\n", "port=80\nport=8080\n"},
                    {"a=1\nport=8080\nb=2\n", "a=1\nport=80\nport=8080\nb=2\n"},
                    {"port=1\nport=2\n", "port=80\nport=1\nport=2\n"},
                    {" port \t = 8080", "port=80\nport=8080\n"},
                    {"port=\n", "port=80\nport=\n"},
                    {"port=80 # web\n", "port=80\nport=80 # web\n"},
                    {"port=8 0\n", "port=80\nport=8 0\n"},
                    {"port = = 80\n", "port=80\nport== 80\n"},
                });
}

TEST(Finsert, LeavesALineOfBlanksWhereTheSettingWasThere) {
    expect_rows(finsert, '=', "80",
                {
                    {"port = 80\n", "       \nport=80\n"},
                    {"port=80", "       \nport=80\n"},
                    {"a = 1\nport=80\n", "a=1\n       \nport=80\n"},
                    {"port=8080\n\n  # c\nport=80\n", "       \nport=8080\n\n# c\nport=80\n"},
                });
}

TEST(Finsert, CopiesWhatComesBehindTheSettingByteForByte) {
    const string rest = bytes(" a  =  1 \r\n\t\n#  c\nport = 80\nport=1\n\0x\0 \n") +
                        times(5000, ' ') + "\n" + times(1023, 'x') + "\nend ";
    expect_rows(finsert, '=', "80",
                {
                    {"port = 80\n" + rest, "       \nport=80\n" + rest},
                    {"port=1\r\nport=80\r\n" + rest, "       \nport=1\nport=80\n" + rest},
                });
}

TEST(Finsert, RepeatedLeavesABlankLineEachTime) {
    const edited_file file("a=1\n");
    for (const char *after : {"a=1\nport=80\n", "a=1\n       \nport=80\n",
                              "a=1\n\n       \nport=80\n", "a=1\n\n\n       \nport=80\n"}) {
        EXPECT_EQ(finsert(file.path(), "port", '=', "80"), 0);
        EXPECT_EQ(file.text(), after);
    }
}

TEST(Fmodify, SetsEveryLineOfTheKey) {
    expect_rows(
        fmodify, '=', "81",
        {
            {"", ""},
            {"port=80\n", "port=81\n"},
            {"port=80\na=1\n port = 8080 # web", "port=81\na=1\nport=81\n"},
            {"port=\n", "port=81\n"},
            {"port==\n", "port=81\n"},
            {"port=81\n", "port=81\n"},
            {"ports=80\nxport=80\n#port=80\nport\n", "ports=80\nxport=80\n#port=80\nport\n"},
        });
}

TEST(Fmodify, TidiesTheFileWithoutTheKey) {
    expect_rows(fmodify, '=', "81",
                {
                    {" a  =  1 \n", "a=1\n"},
                    {"a \t b  =  c  =  d\r\n", "a b=c = d\n"},
                    {"\n \n\t\r\n", "\n\n\n"},
                    {"  #  a  comment  =  b  ", "# a comment=b\n"},
                    {"a", "a\n"},
                    {"\xff  \xe4 = \x01\n", "\xff \xe4=\x01\n"},
                    {"= 1\n =\n==\n", "=1\n=\n==\n"},
                });
}

TEST(Fremove, RemovesEveryLineWithKeyAndValue) {
    expect_rows(fremove, '=', "80",
                {
                    {"", ""},
                    {"port=80\n", ""},
                    {"port=80", ""},
                    {"port=80\na = 1\n port \t=  80 \r\nport=8080\n", "a=1\nport=8080\n"},
                    {"port=80 # web\nport=8 0\nport=\nport\nports=80\nxport=80\n#port=80\n",
                     "port=80 # web\nport=8 0\nport=\nport\nports=80\nxport=80\n#port=80\n"},
                    {"a=1\n\nport=80\n\n", "a=1\n\n\n"},
                });
}

TEST(Fremove, WithoutAValueOnlyTheKeyAndItsSeparator) {
    expect_rows(fremove, '=', nullptr,
                {
                    {"port=\nport = \n port\t=\t\n", ""},
                    {"port=80\nport\nport==\nports=\n", "port=80\nport\nport==\nports=\n"},
                });
}

/* ---- Separators ----------------------------------------------------------------------------- */

TEST(LineEdits, TakeAnyPrintableSeparator) {
    expect_rows(fmodify, ' ', "81", {{"port \t 80\n a  b  c \nport\n", "port 81\na b c\nport\n"}});
    expect_rows(finsert, ' ', "80", {{" port  80 \n x  y", "       \nport 80\n x  y"}});
    expect_rows(fremove, ' ', "80", {{"port\t80\nport 80 1\n", "port 80 1\n"}});
    expect_rows(fmodify, ':', "81", {{"port : 80\nport=80\n", "port:81\nport=80\n"}});
    expect_rows(fmodify, '#', "81", {{"port # 80\n# port\n", "port#81\n#port\n"}});
    expect_rows(fmodify, 'x', "81", {{"port x 80\na x b x c\n", "portx81\naxb x c\n"}});
}

/* Where the separator cannot be one, lines are not tidied, and a newline is a part of its line. */
TEST(LineEdits, LeaveLinesAsTheyAreWithAnUnusableSeparator) {
    for (const char separator : {'\t', '\n', '\v', '\x01', '\x7f', '\xe4', '\xff'}) {
        const string setting = string("port") + separator + "80";
        const string kept = "  a \t b  \r\n\n \n # c  \n# d  \n";
        edited_file file(kept + setting + "\n" + kept + " port");
        EXPECT_EQ(fmodify(file.path(), "name", separator, "80"), 0);
        EXPECT_EQ(file.text(), kept + setting + "\n" + kept + " port\n");
        if (separator == '\n')
            continue; // no line holds it in its middle

        file.write(kept + setting + "1\n" + setting + "2");
        EXPECT_EQ(fmodify(file.path(), "port", separator, "80"), 0);
        EXPECT_EQ(file.text(), kept + setting + "\n" + setting + "\n");

        file.write(setting + "\n" + kept + setting);
        EXPECT_EQ(fremove(file.path(), "port", separator, "80"), 0);
        EXPECT_EQ(file.text(), setting + "\n" + kept);
        EXPECT_EQ(finsert(file.path(), "port", separator, "80"), 0);
        EXPECT_EQ(file.text(), setting + "\n" + setting + "\n" + kept);

        file.write(kept + setting);
        EXPECT_EQ(finsert(file.path(), "port", separator, "80"), 0);
        EXPECT_EQ(file.text(), kept + "       \n" + setting + "\n");
    }
}

/* ---- Long lines, NUL bytes ------------------------------------------------------------------ */

TEST(LineEdits, TakeALongLineForSeveral) {
    const string full = times(1023, 'x');
    expect_rows(fmodify, '=', "81",
                {
                    {times(1022, 'x') + "\n", times(1022, 'x') + "\n"},
                    {full, full + "\n"},
                    {full + "\n", full + "\n\n"},
                    {full + "x\n", full + "\nx\n"},
                    {full + "xy\n", full + "\nxy\n"},
                    {times(5000, 'x') + "\n", full + "\n" + full + "\n" + full + "\n" + full +
                                                  "\n" + times(908, 'x') + "\n"},
                    {full + "port=80\n", full + "\nport=81\n"},
                    {full + "#  c\n", full + "\n# c\n"},
                    {times(1022, 'x') + "port=80\n", times(1022, 'x') + "p\nort=80\n"},
                    {times(1022, 'x') + " a\n", times(1022, 'x') + "\na\n"},
                    {times(2000, ' ') + "port=80\n", "\nport=81\n"},
                    {"port=" + times(2000, '1') + "\n", "port=81\n" + times(982, '1') + "\n"},
                    {"port" + times(1018, ' ') + "= 80\n", "port=81\n80\n"},
                    {"port" + times(1019, ' ') + "= 80\n", "port\n=80\n"},
                });
}

/* However the file is read. */
TEST(LineEdits, TakeALongLineForSeveralWhereverItBegins) {
    edited_file file;
    for (std::size_t begin = 7000; begin < 8300; begin++) {
        const string ahead(begin, '\n');
        file.write(ahead + times(1023, 'x') + "port=1");
        ASSERT_EQ(fmodify(file.path(), "port", '=', "81"), 0);
        ASSERT_EQ(file.text(), ahead + times(1023, 'x') + "\nport=81\n") << begin;
    }
}

TEST(LineEdits, TakeKeysAndValuesOfAnyLength) {
    const string key = times(5000, 'k');
    const string value = times(3000000, 'v');
    edited_file file("a = 1\n");
    EXPECT_EQ(finsert(file.path(), key.c_str(), '=', value.c_str()), 0);
    EXPECT_EQ(file.text(), "a=1\n" + key + "=" + value + "\n");

    /* No line is that long, so a long setting is never found again, but a short key is. */
    file.write("port=1\nport=80\n");
    EXPECT_EQ(finsert(file.path(), "port", '=', value.c_str()), 0);
    EXPECT_EQ(file.text(), "port=" + value + "\nport=1\nport=80\n");
}

TEST(LineEdits, KeepWhatStandsBehindANulByte) {
    const string plain = bytes("  a = 1 \0  b = 2 \n\0\n \0 c\n# \0 d\r\ne \0");
    const string tidy = bytes("a=1\0  b = 2 \n\0\n\0 c\n#\0 d\r\ne\0\n");
    expect_rows(fmodify, '=', "81",
                {
                    {plain, tidy},
                    {bytes("port\0=80\n"), bytes("port\0=80\n")},
                    {bytes("port=8\0 0\n"), "port=81\n"},
                    {times(1020, 'x') + bytes("\0 y\nport=1"),
                     times(1020, 'x') + bytes("\0 y\n\nport=81\n")},
                });
    expect_rows(fremove, '=', "80",
                {{bytes("port=80 \0hidden\nport=8\0"
                        "0\n"),
                  bytes("port=8\0"
                        "0\n")}});
    expect_rows(finsert, '=', "80",
                {
                    {bytes("port = 80 \0 x\n\0y z \n"), bytes("       \nport=80\0 x\n\0y z \n")},
                    {bytes("port = 1 \0 x\n"), bytes("port=80\nport=1\0 x\n")},
                    {bytes("\0"), bytes("\0\nport=80\n")},
                });
    expect_rows(fremove, '\t', "80",
                {{bytes(" a \0 b \nport\t80\0c\nport\t8\0d"), bytes(" a \0 b \nport\t8\0d\n")}});
}

/* ---- foperate ------------------------------------------------------------------------------- */

TEST(Foperate, DoesWhatTheNamedEditsDo) {
    const string before = "a = 1\nport = 80\nport = 8080\n";
    struct {
        int operation;
        line_edit edit;
    } constexpr operations[] = {{1, fmodify}, {2, finsert}, {3, fremove}};
    for (const auto &o : operations) {
        const edited_file one(before);
        const edited_file other(before);
        EXPECT_EQ(foperate(one.path(), o.operation, "port", '=', "80"), 0);
        EXPECT_EQ(o.edit(other.path(), "port", '=', "80"), 0);
        EXPECT_EQ(one.text(), other.text()) << o.operation;
        EXPECT_EQ(one.text(), keel_test::plain_edited(before, o.operation, "port", '=', "80"));
    }
}

TEST(Foperate, RefusesAnIncompleteSetting) {
    struct {
        int operation;
        const char *key;
        const char *value;
    } constexpr rows[] = {
        {1, nullptr, "80"},   {2, nullptr, "80"}, {3, nullptr, "80"}, {3, nullptr, nullptr},
        {1, "", "80"},        {2, "", "80"},      {3, "", "80"},      {3, "", nullptr},
        {1, "port", ""},      {2, "port", ""},    {3, "port", ""},    {1, "port", nullptr},
        {2, "port", nullptr},
    };
    const string before = " port = 80\n";
    const edited_file file(before);
    constexpr line_edit edits[] = {nullptr, fmodify, finsert, fremove};
    for (const auto &r : rows) {
        EXPECT_EQ(foperate(file.path(), r.operation, r.key, '=', r.value), -1) << r.operation;
        EXPECT_EQ(edits[r.operation](file.path(), r.key, '=', r.value), -1) << r.operation;
    }
    for (const line_edit edit : {fmodify, finsert, fremove})
        EXPECT_EQ(edit(file.path(), "port", '\0', "80"), -1);
    EXPECT_EQ(file.text(), before);
    EXPECT_TRUE(file.alone());
}

TEST(Foperate, RefusesAnOperationThatItDoesNotKnow) {
    const edited_file file(" port = 80\n");
    for (const int operation : {0, 4, 5, -1, INT_MAX, INT_MIN})
        for (const char *value : {"80", static_cast<const char *>(nullptr)})
            EXPECT_EQ(foperate(file.path(), operation, "port", '=', value), -1) << operation;
    EXPECT_EQ(file.text(), " port = 80\n");
    EXPECT_TRUE(file.alone());
}

TEST(Foperate, OnlyEditsRegularFiles) {
    const edited_file file(port_file());
    const keel_test::temp_dir dir;
    std::filesystem::create_symlink(file.path(), dir / "link");
    std::filesystem::create_symlink("nowhere", dir / "dangling");
    std::filesystem::create_directory(dir / "directory");
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    const auto names = dir.names();
    for (const string &path : {dir / "link", dir / "dangling", dir / "directory", dir / "fifo",
                               dir / "missing", dir / "link/below", string("/dev/null"), string()})
        for (const line_edit edit : {finsert, fmodify, fremove})
            EXPECT_EQ(edit(path.c_str(), "port", '=', "80"), -1) << path;
    for (const line_edit edit : {finsert, fmodify, fremove})
        EXPECT_EQ(edit(nullptr, "port", '=', "80"), -1);
    EXPECT_EQ(dir.names(), names);
    EXPECT_EQ(file.text(), port_file());
    EXPECT_TRUE(file.alone());
}

TEST(Foperate, RefusesASideFileNameAbove255Characters) {
    const keel_test::temp_dir dir;
    const std::size_t room = 255 - dir.path().size() - std::strlen("/_bak");
    for (const std::size_t length : {room, room + 1}) {
        const string path = dir / times(length, 'n');
        write_file(path, "port = 1\n");
        const bool fits = length == room;
        EXPECT_EQ(fmodify(path.c_str(), "port", '=', "80"), fits ? 0 : -1) << path.size();
        EXPECT_EQ(content_of(path), fits ? "port=80\n" : "port = 1\n");
    }
    EXPECT_EQ(dir.names().size(), 2U);
}

TEST(Foperate, EditsAsAPlainEditorDoes) {
    keel_test::conf_maker maker(52);
    edited_file file;
    for (int round = 0; round < 6000; round++) {
        const string separators =
            maker.one_of({"=", "=", ":", " ", "#", "p", "{", "\t", "\x01", "\xe4"});
        const string value = maker.one_of({"80", "80", "b", "8 0", "80 # new", "="});
        const string before = maker.content("port", separators, value);
        const int operation = 1 + static_cast<int>(maker.number(3));
        const bool bare = operation == keel_test::plain_edit::remove && maker.one_in(4);
        file.write(before);
        ASSERT_EQ(
            foperate(file.path(), operation, "port", separators[0], bare ? nullptr : value.c_str()),
            0);
        ASSERT_EQ(file.text(), keel_test::plain_edited(before, operation, "port", separators[0],
                                                       bare ? "" : value))
            << "round " << round << ", operation " << operation << ", separator \"" << separators
            << "\", value " << value << ", before:\n"
            << before;
    }
}

/* Lines, of just `size` bytes in all, that no edit changes. */
string filling(std::size_t size) {
    string text(size, '#');
    for (std::size_t end = 999; end < size; end += 1000)
        text[end] = '\n';
    if (!text.empty())
        text.back() = '\n';
    return text;
}

/* The setting is withdrawn wherever it stands, however large the file. */
TEST(Foperate, WithdrawsASettingAnywhere) {
    const string value = times(100, '8');
    const string setting = "port=" + value + "\n";
    edited_file file;
    for (const std::size_t size : {4096U, 65536U, 1U << 20})
        for (const std::size_t less : {0U, 1U, 50U, 105U, 106U, 107U, 112U, 113U, 114U, 219U})
            for (const std::size_t between : {0U, 1200000U}) {
                const string ahead = filling(size - less);
                const string behind = "port=1\n" + filling(between) + setting + "\n a";
                file.write(ahead + behind);
                ASSERT_EQ(finsert(file.path(), "port", '=', value.c_str()), 0);
                ASSERT_TRUE(file.text() == ahead + times(105, ' ') + "\n" + behind)
                    << size << " - " << less << ", then " << between;
            }
}

/* ---- flookup -------------------------------------------------------------------------------- */

/* All of a buffer after a lookup that was told the first `size` bytes of it. */
string looked_up(const char *path, const char *key, char separator, std::size_t size, bool found) {
    string buffer(size + 3, '~');
    const char *result = flookup(path, key, separator, buffer.data(), size);
    EXPECT_EQ(result, found ? buffer.data() : nullptr);
    return buffer;
}

/* The value is terminated, the rest zeroed, and nothing is written beyond. */
void expect_value(const char *path, const char *key, char separator, const string &value,
                  std::size_t size) {
    const string stored = value.substr(0, size - 1);
    EXPECT_EQ(looked_up(path, key, separator, size, true),
              stored + times(size - stored.size(), '\0') + "~~~");
}

struct lookup_row {
    string content, value;
};

TEST(Flookup, FindsTheFirstLineOfTheKey) {
    const lookup_row rows[] = {
        {"port=80\n", "80"},
        {"port=80", "80"},
        {"port=80\r\n", "80"},
        {" port \t = \t 80  81 \n", "80 81"},
        {"port =80\n", "80"},
        {"port= 80\n", "80"},
        {"a=1\n\n# c\nport=80\nport=81\n", "80"},
        {"port=\nport=81\n", ""},
        {"port = \n", ""},
        {"ports=1\nxport=2\n#port=3\n # port=4\nport\nport:5\nport = 80\n", "80"},
        {"port==\n", "="},
        {"port = = 80\n", "= 80"},
        {"port=80 # web\n", "80 # web"},
        {"port=\xff\x01\n", "\xff\x01"},
        {bytes("port = 80 \0 81\n"), "80"},
        {bytes("port\0=79\nport=80"), "80"},
        {times(1023, 'x') + "port=80\n", "80"},
        {"port=" + times(2000, '8'), times(1018, '8')},
    };
    for (const lookup_row &r : rows) {
        const edited_file file(r.content);
        for (const std::size_t size : {1U, 2U, 3U, 4U, 1018U, 1019U, 2000U})
            expect_value(file.path(), "port", '=', r.value, size);
        EXPECT_EQ(file.text(), r.content);
        EXPECT_TRUE(file.alone());
    }
}

TEST(Flookup, FindsByAnySeparator) {
    const lookup_row rows[] = {
        {" ", "port \t 80\n"},
        {" ", "port 80"},
        {":", "port:80\n"},
        {"#", "port # 80\n"},
        {"o", "port o80\n"},
        {"\x01", "port \x01 80\n"},
        {"\xe4", "port\xe4"
                 "80\n"},
    };
    for (const lookup_row &r : rows) {
        const edited_file file(r.value);
        expect_value(file.path(), "port", r.content[0], "80", 10);
    }
}

TEST(Flookup, SixCharactersInFourBytes) {
    const edited_file file("name = abcdef\n");
    EXPECT_EQ(looked_up(file.path(), "name", '=', 4, true), bytes("abc\0~~~"));
}

TEST(Flookup, LeavesTheBufferWhereNothingIsFound) {
    const string untouched = "~~~~~~~";
    for (const string &content :
         {string(), string("ports=80\nxport=80\n#port=80\nport\nport:80\nPORT=80\npo rt=80"),
          times(1022, 'x') + "port=80\n", bytes("port\0=80\n"), string("port . =80\n")}) {
        const edited_file file(content);
        EXPECT_EQ(looked_up(file.path(), "port", '=', 4, false), untouched) << content;
    }
    const edited_file file("port=80\nport\t80\n=1\n");
    const auto before = count_descriptors();
    EXPECT_EQ(looked_up(file.path(), "port", '\t', 4, false), untouched) << "tabs are folded";
    EXPECT_EQ(looked_up(file.path(), "port", '\0', 4, false), untouched);
    EXPECT_EQ(looked_up(file.path(), "", '=', 4, false), untouched);
    EXPECT_EQ(looked_up(file.path(), nullptr, '=', 4, false), untouched);
    EXPECT_EQ(looked_up(file.path(), "port", '=', 0, false), "~~~");
    EXPECT_EQ(looked_up(file.side("x").c_str(), "port", '=', 4, false), untouched);
    EXPECT_EQ(looked_up(file.side("/x").c_str(), "port", '=', 4, false), untouched);
    EXPECT_EQ(looked_up(file.dir().path().c_str(), "port", '=', 4, false), untouched);
    EXPECT_EQ(looked_up("", "port", '=', 4, false), untouched);
    EXPECT_EQ(looked_up(nullptr, "port", '=', 4, false), untouched);
    EXPECT_EQ(flookup(file.path(), "port", '=', nullptr, 4), nullptr);
    expect_value(file.path(), "port", '=', "80", 4);
    EXPECT_EQ(count_descriptors(), before);
}

TEST(Flookup, FindsWhatAPlainReaderFinds) {
    keel_test::conf_maker maker(521);
    edited_file file;
    for (int round = 0; round < 4000; round++) {
        const string separators = maker.one_of({"=", ":", " ", "#", "p", "\t", "\x01", "\xe4"});
        const string content = maker.content("port", separators, "80");
        file.write(content);
        const std::size_t size = 1 + maker.number(12);
        const auto value = keel_test::plain_flookup(content, "port", separators[0]);
        if (value)
            expect_value(file.path(), "port", separators[0], *value, size);
        else
            EXPECT_EQ(looked_up(file.path(), "port", separators[0], size, false),
                      times(size + 3, '~'));
        ASSERT_FALSE(HasFailure()) << "separator \"" << separators << "\" in:\n" << content;
    }
}

/* ---- bulk_lookup ---------------------------------------------------------------------------- */

/* What a callback was told of a line; the rest must be what the caller handed in. */
struct offered {
    string line;
    int index;
    bool operator==(const offered &) const = default;
};

void PrintTo(const offered &offer, std::ostream *stream) {
    *stream << "\"" << offer.line << "\" as " << offer.index;
}

std::vector<offered> offers;
keel_test::plain_takes takes; // those that it takes
constexpr std::size_t item_size = 3;
constexpr std::size_t item_count = 5;
char items[item_size * item_count];

int note_item(char *line, void *array, std::size_t size, std::size_t count, int index) {
    EXPECT_EQ(array, items);
    EXPECT_EQ(size, item_size);
    EXPECT_EQ(count, item_count);
    offers.push_back({line, index});
    const bool taken = takes(line, index);
    std::memset(line, 'X', std::strlen(line)); // it may
    return taken ? 0 : 7;
}

/* Reads the block "hosts", of which each item is taken that `which` tells. */
int read_block(const edited_file &file, const keel_test::plain_takes &which) {
    offers.clear();
    takes = which;
    std::memset(items, '~', sizeof items);
    const int taken = bulk_lookup(file.path(), "hosts", items, item_size, item_count, note_item);
    EXPECT_EQ(string(items, sizeof items), times(sizeof items, '\0')) << "the array is cleared";
    return taken;
}

struct block_row {
    string content;
    int result;
    std::vector<string> lines;
};

void expect_blocks(const std::vector<block_row> &rows) {
    const auto before = count_descriptors();
    for (const block_row &r : rows) {
        const edited_file file(r.content);
        EXPECT_EQ(read_block(file, [](const string &, int) { return true; }), r.result)
            << r.content;
        std::vector<offered> expected;
        for (const string &line : r.lines)
            expected.push_back({line, static_cast<int>(expected.size())});
        EXPECT_EQ(offers, expected) << r.content;
        EXPECT_EQ(bulk_lookup(file.path(), "hosts", nullptr, item_size, item_count, nullptr),
                  r.result)
            << r.content;
        EXPECT_EQ(file.text(), r.content);
    }
    EXPECT_EQ(count_descriptors(), before);
}

TEST(BulkLookup, ReadsABlock) {
    expect_blocks({
        {"hosts {\n10.0.0.1\n10.0.0.2 }\n", 2, {"10.0.0.1", "10.0.0.2"}},
        {"hosts {\n10.0.0.1\n10.0.0.2\n}\n", 2, {"10.0.0.1", "10.0.0.2"}},
        {"hosts\n{\n10.0.0.1\n10.0.0.2 }", 2, {"10.0.0.1", "10.0.0.2"}},
        {"hosts\n{ 10.0.0.1\n}\n", 1, {"10.0.0.1"}},
        {"hosts{a\nb}\n", 2, {"a", "b"}},
        {"hosts {a}\n", 1, {"a"}},
        {"hosts\n\n # brace to come\n { a }\n", 1, {"a"}},
        {"x\n\n hosts  {  # all\n  a \t b  # first\n#c\n\n  d}  # last\n e\n", 2, {"a b", "d"}},
        {"hosts {\r\na\r\n}\r\n", 1, {"a"}},
        {"hosts {\n{ a\n} b\n{\n}\n", 3, {"{ a", "} b", "{"}},
        {"hosts {\na }}\nb\n", 1, {"a }"}},
        {"hosts {\nhosts {\n}\n", 1, {"hosts {"}},
        {"hosts { { }\n", 1, {"{"}},
        {"hosts {\n}\nhosts {\na\n}\n", 0, {}},
        {"hosts {\na\n}\nhosts {\nb\n}\n", 1, {"a"}},
        {"hosts {\na", 1, {"a"}},
        {"hosts { a\n\n\n", 1, {"a"}},
        {"hosts name\n{\na\n}\n", 1, {"a"}},
        {bytes("hosts {\0 x\na \0 b\n\0c\n} \0\nd\n"), 1, {"a"}},
        {"hosts {\n" + times(1024, 'x') + "\n}\n", 2, {times(1023, 'x'), "x"}},
        {times(1023, 'x') + "hosts {\na\n}\n", 1, {"a"}},
    });
}

TEST(BulkLookup, HasNothingToReadWithoutABlock) {
    expect_blocks({
        {"", 0, {}},
        {"\n# hosts {\n", 0, {}},
        {"a\nhost {\nb\n}\n", 0, {}},
        {"x hosts {\nb\n}\n", 0, {}},
        {"hosts {}\n", 0, {}},
        {"hosts { }\na\n", 0, {}},
        {"hosts\n{\n}\n", 0, {}},
        {"hosts\n{}\n", 0, {}},
        {"hosts {", 0, {}},
        {"hosts", 0, {}},
        {"hosts\n\n# no brace\n", 0, {}},
    });
}

TEST(BulkLookup, FailsWithoutABrace) {
    expect_blocks({
        {"hosts\na\n{\nb\n}\n", -1, {}},
        {"hosts\nhosts {\nb\n}\n", -1, {}},
        {"hosts a\n\nb {\n}\n", -1, {}},
        {"hosts\n}\n", -1, {}},
        {"hostsname {\na\n}\n", -1, {}}, // begins with the key, and then with no brace
    });
}

TEST(BulkLookup, CountsWhatTheCallbackTakes) {
    const edited_file file("hosts {\na\nb\nc\nd\ne }\n");
    EXPECT_EQ(read_block(file, [](const string &line, int) { return line != "b" && line != "d"; }),
              3);
    EXPECT_EQ(offers, (std::vector<offered>{{"a", 0}, {"b", 1}, {"c", 1}, {"d", 2}, {"e", 2}}));
    EXPECT_EQ(read_block(file, [](const string &, int) { return false; }), 0);
    EXPECT_EQ(offers, (std::vector<offered>{{"a", 0}, {"b", 0}, {"c", 0}, {"d", 0}, {"e", 0}}));
    EXPECT_EQ(read_block(file, [](const string &, int index) { return index < 2; }), 2);
}

int store_item(char *line, void *array, std::size_t size, std::size_t count, int index) {
    if (static_cast<std::size_t>(index) >= count || std::strlen(line) >= size)
        return -1;
    std::strcpy(static_cast<char *>(array) + static_cast<std::size_t>(index) * size, line);
    return 0;
}

TEST(BulkLookup, FillsAnArray) {
    const edited_file file("hosts {\none\ntoo long\ntwo\nsix\n}\n");
    char hosts[3][4] = {"~~~", "~~~", "~~~"};
    EXPECT_EQ(bulk_lookup(file.path(), "hosts", hosts, 4, 2, store_item), 2);
    EXPECT_EQ(string(hosts[0], sizeof hosts), bytes("one\0two\0~~~\0"));
    EXPECT_EQ(bulk_lookup(file.path(), "missing", hosts, 4, 1, store_item), 0);
    EXPECT_EQ(string(hosts[0], sizeof hosts), bytes("\0\0\0\0two\0~~~\0"));
    EXPECT_EQ(bulk_lookup(file.path(), "hosts", hosts, 4, 0, store_item), 0);
    EXPECT_EQ(bulk_lookup(file.path(), "hosts", hosts, 0, 3, store_item), 0);
    EXPECT_EQ(string(hosts[0], sizeof hosts), bytes("\0\0\0\0two\0~~~\0"));
}

TEST(BulkLookup, LeavesTheArrayWhereItFails) {
    const edited_file file("hosts {\na\n}\n");
    char array[] = "~~~~";
    EXPECT_EQ(bulk_lookup(file.path(), nullptr, array, 1, 4, nullptr), -1);
    EXPECT_EQ(bulk_lookup(file.path(), "", array, 1, 4, nullptr), -1);
    EXPECT_EQ(bulk_lookup(file.side("x").c_str(), "hosts", array, 1, 4, nullptr), -1);
    EXPECT_EQ(bulk_lookup("", "hosts", array, 1, 4, nullptr), -1);
    EXPECT_EQ(bulk_lookup(nullptr, "hosts", array, 1, 4, nullptr), -1);
    EXPECT_STREQ(array, "~~~~");
    EXPECT_EQ(bulk_lookup(file.dir().path().c_str(), "hosts", array, 1, 4, nullptr), 0);
    EXPECT_EQ(string(array, 4), bytes("\0\0\0\0"));
}

TEST(BulkLookup, ReadsAsAPlainReaderDoes) {
    keel_test::conf_maker maker(522);
    edited_file file;
    for (int round = 0; round < 4000; round++) {
        const string content = maker.content("hosts", " ", maker.one_of({"a", "b}", "{", "}"}));
        const std::size_t refused = maker.number(4);
        const auto which = [&](const string &line, int) { return line.size() % 4 != refused; };
        std::vector<offered> expected;
        keel_test::plain_block plain("hosts", [&](const string &line, int index) {
            expected.push_back({line, index});
            return which(line, index);
        });
        const int result = plain.read(content);
        file.write(content);
        ASSERT_EQ(read_block(file, which), result) << content;
        ASSERT_EQ(offers, expected) << content;
    }
}

/* ---- What all edits of files have in common -------------------------------------------------- */

/* No edit can be made: each says so, sets errno and leaves the file as it is. */
void expect_failures(const edited_file &file, int error) {
    const string before = file.text();
    const auto descriptors = count_descriptors();
    for (const port_edit &edit : port_edits) {
        errno = 0;
        EXPECT_EQ(edit.run(file.path()), -1) << edit.name;
        EXPECT_EQ(errno, error) << edit.name << ": " << std::strerror(errno);
        EXPECT_TRUE(file.text() == before) << edit.name;
    }
    EXPECT_EQ(count_descriptors(), descriptors);
}

/* Every edit can be made. */
void expect_successes(edited_file &file) {
    const string before = file.text();
    const auto descriptors = count_descriptors();
    for (const port_edit &edit : port_edits) {
        file.write(before);
        EXPECT_EQ(edit.run(file.path()), 0) << edit.name << ": " << std::strerror(errno);
        EXPECT_NE(edit.plain(before), before);
        EXPECT_TRUE(file.text() == edit.plain(before)) << edit.name;
        EXPECT_TRUE(file.alone()) << edit.name;
    }
    EXPECT_EQ(count_descriptors(), descriptors);
}

struct stat status_of(const string &path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

TEST(FileEdits, PutANewFileInPlaceOfTheOld) {
    for (const port_edit &edit : port_edits)
        for (const mode_t mask : {0022U, 0077U, 0U}) {
            const umask_of scope(mask);
            const edited_file file(port_file());
            ASSERT_EQ(chmod(file.path(), 04751), 0);
            if (geteuid() == 0) {
                ASSERT_EQ(chown(file.path(), 1234, 1234), 0);
            }
            const int former = open(file.path(), O_RDONLY | O_CLOEXEC); // keeps its inode
            EXPECT_EQ(edit.run(file.path()), 0) << edit.name;
            struct stat before {};
            fstat(former, &before);
            const struct stat after = status_of(file.path());
            EXPECT_NE(before.st_ino, after.st_ino) << edit.name;
            EXPECT_EQ(before.st_nlink, 0U) << edit.name;
            EXPECT_EQ(after.st_mode, S_IFREG | (0666U & ~mask)) << edit.name;
            EXPECT_EQ(after.st_uid, geteuid()) << edit.name;
            EXPECT_EQ(content_of("/proc/self/fd/" + std::to_string(former)), port_file());
            EXPECT_EQ(file.text(), edit.plain(port_file())) << edit.name;
            EXPECT_TRUE(file.alone()) << edit.name;
            close(former);
        }
}

TEST(FileEdits, AnotherNameOfTheFileKeepsTheOldText) {
    for (const port_edit &edit : port_edits) {
        const edited_file file(port_file());
        std::filesystem::create_hard_link(file.path(), file.side("2"));
        EXPECT_EQ(edit.run(file.path()), 0) << edit.name;
        EXPECT_EQ(content_of(file.side("2")), port_file()) << edit.name;
        EXPECT_EQ(file.text(), edit.plain(port_file())) << edit.name;
    }
}

TEST(FileEdits, AnEmptyFileStaysOneOrGetsTheSetting) {
    const edited_file file;
    for (const port_edit &edit : port_edits) {
        EXPECT_EQ(edit.run(file.path()), 0) << edit.name;
        EXPECT_EQ(file.text(), edit.plain("")) << edit.name;
        EXPECT_EQ(fremove(file.path(), "port", '=', "80"), 0);
        EXPECT_EQ(file.text(), "");
    }
}

TEST(FileEdits, FailWithoutAFile) {
    const edited_file file(port_file());
    const auto descriptors = count_descriptors();
    for (const port_edit &edit : port_edits) {
        errno = 0;
        EXPECT_EQ(edit.run(file.side("missing").c_str()), -1) << edit.name;
        EXPECT_EQ(errno, ENOENT) << edit.name;
        EXPECT_EQ(edit.run(file.side("/below").c_str()), -1) << edit.name;
        EXPECT_EQ(errno, ENOTDIR) << edit.name;
        EXPECT_EQ(edit.run(""), -1) << edit.name;
        EXPECT_EQ(edit.run(nullptr), -1) << edit.name;
    }
    EXPECT_EQ(count_descriptors(), descriptors);
    EXPECT_EQ(file.text(), port_file());
    EXPECT_TRUE(file.alone());
}

TEST(FileEdits, OverwriteASideFileThatWasLeft) {
    edited_file file(port_file());
    for (const port_edit &edit : port_edits) {
        file.write(port_file());
        write_file(file.side(edit.suffix), times(100000, 'x'));
        EXPECT_EQ(edit.run(file.path()), 0) << edit.name;
        EXPECT_EQ(file.text(), edit.plain(port_file())) << edit.name;
        EXPECT_TRUE(file.alone()) << edit.name;
    }
}

TEST(FileEdits, FailWhereTheSideFileIsADirectory) {
    const edited_file file(port_file());
    for (const char *suffix : {"_bak", ".bak"})
        std::filesystem::create_directory(file.side(suffix));
    expect_failures(file, EISDIR);
    EXPECT_EQ(file.dir().names(), (std::vector<string>{"file", "file.bak", "file_bak"}));
}

TEST(FileEdits, FailWhereTheSideFileIsTheFileItself) {
    const edited_file file(port_file());
    for (const port_edit &edit : port_edits)
        for (const bool hard : {true, false}) {
            const string side = file.side(edit.suffix);
            if (hard)
                std::filesystem::create_hard_link(file.path(), side);
            else
                std::filesystem::create_symlink("file", side);
            EXPECT_EQ(edit.run(file.path()), -1) << edit.name;
            EXPECT_EQ(file.text(), port_file()) << edit.name;
            EXPECT_EQ(content_of(side), port_file()) << edit.name;
            EXPECT_EQ(status_of(file.path()).st_mode & S_IFMT, mode_t{S_IFREG});
            unlink(side.c_str());
        }
}

TEST(FileEdits, FailOnAFullDevice) {
    for (const std::size_t size : {0U, 3000000U}) {
        const edited_file file(port_file(size));
        for (const char *suffix : {"_bak", ".bak"})
            std::filesystem::create_symlink("/dev/full", file.side(suffix));
        expect_failures(file, ENOSPC);
        EXPECT_EQ(file.dir().names(), (std::vector<string>{"file", "file.bak", "file_bak"}));
    }
}

TEST(FileEdits, FailAboveTheFileSizeLimit) {
    for (const std::size_t size : {20000U, 3000000U}) {
        edited_file file(port_file(size));
        {
            const file_size_limit scope(8192);
            expect_failures(file, EFBIG);
        }
        EXPECT_EQ(std::filesystem::file_size(file.side("_bak")), 8192U) << "left beside it";
        EXPECT_EQ(std::filesystem::file_size(file.side(".bak")), 8192U);
        for (const char *suffix : {"_bak", ".bak"})
            unlink(file.side(suffix).c_str());
        expect_successes(file);
    }
}

TEST(FileEdits, FailOnAFullDisk) {
    if (!keel_test::can_mount())
        GTEST_SKIP() << "mounting needs root";
    const keel_test::temp_dir disk;
    for (const std::size_t size : {10000U, 3000000U})
        keel_test::on_small_disk(disk.path(), std::to_string(size * 3 / 2), [&] {
            const edited_file file(port_file(size), disk.path());
            expect_failures(file, ENOSPC);
        });
}

/* Runs `body` with the files below `directory` mounted onto themselves, for this thread only. */
void on_own_mount(const string &path, unsigned long flags, const std::function<void()> &body) {
    std::thread([&] {
        if (!keel_test::own_mounts() ||
            mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            mount(nullptr, path.c_str(), nullptr, MS_BIND | MS_REMOUNT | flags, nullptr) != 0)
            FAIL() << "no mount: " << std::strerror(errno);
        body();
        EXPECT_EQ(umount(path.c_str()), 0);
    }).join();
}

TEST(FileEdits, FailInADirectoryThatCannotBeWritten) {
    if (!keel_test::can_mount())
        GTEST_SKIP() << "mounting needs root";
    edited_file file(port_file());
    on_own_mount(file.dir().path(), MS_RDONLY, [&] { expect_failures(file, EROFS); });
    EXPECT_TRUE(file.alone());
    expect_successes(file);
}

/* A mount point cannot be renamed over. */
TEST(FileEdits, FailWhereTheFileCannotBeReplaced) {
    if (!keel_test::can_mount())
        GTEST_SKIP() << "mounting needs root";
    edited_file file(port_file());
    on_own_mount(file.path(), 0, [&] {
        expect_failures(file, EBUSY);
        for (const port_edit &edit : port_edits) {
            EXPECT_EQ(edit.run(file.path()), -1);
            EXPECT_EQ(content_of(file.side(edit.suffix)), edit.plain(port_file())) << edit.name;
        }
    });
    for (const port_edit &edit : port_edits) {
        file.write(port_file());
        EXPECT_EQ(edit.run(file.path()), 0) << "over the side file that was left";
        EXPECT_EQ(file.text(), edit.plain(port_file())) << edit.name;
    }
    EXPECT_TRUE(file.alone());
}

TEST(FileEdits, PrintNothing) {
    const edited_file file(port_file());
    const string directory = file.dir() / "directory";
    std::filesystem::create_directory(directory);
    EXPECT_EQ(keel_test::run_in_child([&] {
                  for (const port_edit &edit : port_edits) {
                      edit.run(file.path());
                      edit.run(file.side("missing").c_str());
                      edit.run(directory.c_str());
                  }
                  char buffer[10];
                  flookup(file.path(), "missing", '=', buffer, sizeof buffer);
                  bulk_lookup(file.path(), "name", nullptr, 0, 0, nullptr);
              }),
              exited(0));
}

TEST(FileEdits, ThreadsMayEditDifferentFilesAtOnce) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([i] {
            edited_file file;
            for (int round = 0; round < 50; round++)
                for (const port_edit &edit : port_edits) {
                    const string before = port_file() + std::to_string(i) + "\n";
                    file.write(before);
                    EXPECT_EQ(edit.run(file.path()), 0);
                    EXPECT_EQ(file.text(), edit.plain(before)) << edit.name;
                }
        });
    for (auto &thread : threads)
        thread.join();
}

TEST(FileEdits, ACancelledThreadLeavesTheFileWholeAndNothingOpen) {
    const auto descriptors = count_descriptors();
    for (const port_edit &edit : port_edits) {
        const edited_file file(port_file());
        EXPECT_TRUE(keel_test::run_cancelled([&] { edit.run(file.path()); })) << edit.name;
        const string after = file.text();
        EXPECT_TRUE(after == port_file() || after == edit.plain(port_file())) << edit.name;
        EXPECT_EQ(edit.run(file.path()), 0) << edit.name;
    }
    EXPECT_EQ(count_descriptors(), descriptors);
}

/* ---- Large files ---------------------------------------------------------------------------- */

long most_memory_in_kilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

/* A file of 100 megabytes is edited in a child, whose memory is watched, except for a sanitizer's:
 * that keeps for a while what was freed. */
TEST(FileEdits, HoldNoLargeFileInMemory) {
    const string line = "name = " + times(90, 'v') + "\n";
    string block;
    while (block.size() < 1000000)
        block += line;
    const edited_file file("", "/tmp");
    {
        std::ofstream stream(file.path(), std::ios::binary);
        stream << "port = 1\n";
        for (int i = 0; i < 100; i++)
            stream << block;
        stream << "port = 80";
    }
    EXPECT_EQ(keel_test::run_in_child([&] {
                  const long before = most_memory_in_kilobytes();
                  const bool edited = finsert(file.path(), "port", '=', "80") == 0 &&
                                      file_replace_value(file.path(), "name", "=", "%s", "w") == 0;
                  const long more = most_memory_in_kilobytes() - before;
                  if (!edited || (!keel_test::sanitized && more > 32 * 1024))
                      std::fprintf(stderr, "result %d, %ld kilobytes more\n", edited, more);
              }),
              exited(0));
    std::ifstream after(file.path(), std::ios::binary);
    string read;
    EXPECT_TRUE(std::getline(after, read) && read == "");
    EXPECT_TRUE(std::getline(after, read) && read == "port=1");
    std::size_t names = 0;
    while (std::getline(after, read) && read == "name=w")
        names++;
    EXPECT_EQ(names, 100 * block.size() / line.size());
    EXPECT_EQ(read, "port=80");
    EXPECT_FALSE(std::getline(after, read));
}

} // namespace

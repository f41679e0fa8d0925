/* SPDX-License-Identifier: MIT */
#include "xini.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "cancelled.h"
#include "child.h"
#include "descriptors.h"
#include "plain_ini.h"
#include "plain_lines.h"
#include "temp_dir.h"
#include "waiting.h"
#include "xmemory.h"

namespace {

using keel_test::child_result;
using keel_test::count_descriptors;
using keel_test::file_of;
using keel_test::ini_pairs;
using keel_test::plain_ini;
using keel_test::run_in_child;
using keel_test::temp_dir;
using keel_test::write_file;
using std::string;

/* A table, unloaded at its end. */
struct owned_table : ini_table {
    owned_table() : ini_table{nullptr, 0} {}
    explicit owned_table(const string &text, const char *separators = "=") : owned_table() {
        add(text, separators);
    }
    ~owned_table() { ini_unload(this); }
    owned_table(const owned_table &) = delete;
    owned_table &operator=(const owned_table &) = delete;

    void add(const string &text, const char *separators = "=") {
        FILE *file = file_of(text);
        EXPECT_EQ(ini_fload(this, file, separators), 0);
        EXPECT_EQ(std::fgetc(file), EOF) << "all of it is read, and the stream left open";
        std::fclose(file);
    }
};

ini_pairs pairs_of(const ini_table &table) {
    ini_pairs all;
    for (std::uint64_t i = 0; i < table.count; i++)
        all.emplace_back(table.entries[i].key, table.entries[i].value);
    return all;
}

bool sorted_by_key(const ini_table &table) {
    return std::is_sorted(table.entries, table.entries + table.count,
                          [](const ini_entry &left, const ini_entry &right) {
                              return std::strcmp(left.key, right.key) < 0;
                          });
}

/* What a print writes, which returns `result`. */
string printed(int result, const std::function<int(FILE *)> &print) {
    char *text = nullptr;
    std::size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    EXPECT_EQ(print(stream), result);
    std::fclose(stream);
    string written(text, size);
    std::free(text);
    return written;
}

/* Loads a text and prints the table. The warnings are what stands on standard error. */
child_result loading(const string &text, const char *separators) {
    return run_in_child([&] {
        const owned_table table(text, separators);
        ini_print(&table, stdout);
    });
}

child_result loaded(const string &table, const string &warnings = "") {
    return {0, 0, table, warnings};
}

string invalid(const string &entry) {
    return "WARNING-Invalid entry(" + entry + "), ignore.\n";
}

constexpr char empty_section[] = "WARNING-Empty section, ignore.\n";

struct row {
    string text;
    string table;
    string warnings = "";
};

void expect_rows(const char *separators, const std::vector<row> &rows) {
    for (const row &r : rows)
        EXPECT_EQ(loading(r.text, separators), loaded(r.table, r.warnings))
            << "separators \"" << separators << "\", text:\n"
            << r.text;
}

/* ---- Reading -------------------------------------------------------------------------------- */

TEST(IniEntries, OneSeparator) {
    expect_rows("=", {
                         {"", ""},
                         {"\n\n \t\n\r\n", ""},
                         {"a = 1\n[net]\nport=80 # web\n", "DEFAULT::a=1\nnet::port=80\n"},
                         {"a=1", "DEFAULT::a=1\n"},
                         {"a=b=c", "DEFAULT::a=b=c\n"},
                         {"a==b", "DEFAULT::a==b\n"},
                         {"two words = v", "DEFAULT::two words=v\n"},
                         {"msg = a   b", "DEFAULT::msg=a b\n"},
                         {" \t msg \v\f = \t a \t\r b \t ", "DEFAULT::msg=a b\n"},
                         {"k =", "DEFAULT::k=\n"},
                         {"k=", "DEFAULT::k=\n"},
                         {"a = 1\r\nb = 2\r\n", "DEFAULT::a=1\nDEFAULT::b=2\n"},
                         {"x::y=1", "DEFAULT::x::y=1\n"},
                         {"::=::", "DEFAULT::::=::\n"},
                         {"a=%s%n%d", "DEFAULT::a=%s%n%d\n"},
                         {"\xef\xbb\xbf\x61=\xe4\xff", "DEFAULT::\xef\xbb\xbf\x61=\xe4\xff\n"},
                         {"b=2\na=1\nC=3\n", "DEFAULT::C=3\nDEFAULT::a=1\nDEFAULT::b=2\n"},
                     });
}

TEST(IniEntries, ReportsWhatIsNone) {
    expect_rows("=",
                {
                    {"novalue", "", invalid("novalue")},
                    {"  no \t value ", "", invalid("no value")},
                    {"= v", "", invalid("")},
                    {"=", "", invalid("")},
                    {" = ", "", invalid("")},
                    {"==", "", invalid("")},
                    {"%s%n", "", invalid("%s%n")},
                    {"x\na=1\n=y\nz", "DEFAULT::a=1\n", invalid("x") + invalid("") + invalid("z")},
                });
}

TEST(IniEntries, CommentsRunToTheEndOfTheLine) {
    expect_rows("=", {
                         {"# a=1\n  # b=2\n#\n", ""},
                         {"a=1#2=3", "DEFAULT::a=1\n"},
                         {"a=#1", "DEFAULT::a=\n"},
                         {"a#=1", "", invalid("a")},
                         {"#a=1", ""},
                         {"a=\"x#y\"", "DEFAULT::a=\"x\n"},
                         {"a=x\\#y", "DEFAULT::a=x\\\n"},
                         {"[net] # web\nport=80", "net::port=80\n"},
                         {"[net # web]\nport=80", "DEFAULT::port=80\n", invalid("[net")},
                         {"[#]", "", invalid("[")},
                     });
}

TEST(IniEntries, TheFirstOfSeveralSeparatorsCounts) {
    const std::vector<row> rows = {
        {"x:y=z", "DEFAULT::x=y=z\n"},  {"x=y:z", "DEFAULT::x=y:z\n"},
        {"x := z", "DEFAULT::x== z\n"}, {":x=1", "", invalid("")},
        {"x y", "", invalid("x y")},
    };
    expect_rows(":=", rows);
    expect_rows("=:", rows);
    expect_rows("==:", rows);
}

TEST(IniEntries, ABlankSeparates) {
    const std::vector<row> rows = {
        {"key value of it", "DEFAULT::key=value of it\n"},
        {"  key\t\tvalue  ", "DEFAULT::key=value\n"},
        {"key", "", invalid("key")},
    };
    expect_rows(" ", rows);
    expect_rows("= ", rows);
    expect_rows(" ", {{"a  =  b", "DEFAULT::a== b\n"}});
    expect_rows(" =", {{"a = b", "DEFAULT::a== b\n"}, {"a=b c", "DEFAULT::a=b c\n"}});
}

/* Inside a line the tidying leaves no other whitespace than blanks. */
TEST(IniEntries, OtherWhitespaceNeverSeparates) {
    for (const char *separator : {"\t", "\n", "\r", "\v\f"})
        expect_rows(separator, {{"key\tvalue\v\fmore", "", invalid("key value more")}});
}

TEST(IniEntries, AnyOtherCharacterSeparates) {
    expect_rows("x", {{"axb", "DEFAULT::a=b\n"}});
    expect_rows("\xe4", {{"a\xe4\x62", "DEFAULT::a=b\n"}});
    expect_rows("%", {{"a % 1", "DEFAULT::a=1\n"}});
    expect_rows(";,", {{"a, 1; 2", "DEFAULT::a=1; 2\n"}});
}

TEST(IniSections, HeadersNameThem) {
    expect_rows("=", {
                         {"[s]\na=1", "s::a=1\n"},
                         {" [ s ] \na=1", "s::a=1\n"},
                         {"[\ttwo \t words ]\na=1", "two words::a=1\n"},
                         {"[s]\r\na=1\r\n", "s::a=1\n"},
                         {"[s]\na=1\n[t]\nb=2\n[s]\nc=3", "s::a=1\ns::c=3\nt::b=2\n"},
                         {"[s]\na=1\n[DEFAULT]\nb=2", "DEFAULT::b=2\ns::a=1\n"},
                         {"[a=b]\nc=1", "a=b::c=1\n"},
                         {"[a]=]\nc=1", "a]=::c=1\n"},
                         {"[a] b]\nc=1", "a] b::c=1\n"},
                         {"[[a]]\nc=1", "[a]::c=1\n"},
                         {"[{a}]\nc=1", "{a}::c=1\n"},
                         {"[a::b]\nc=1", "a::b::c=1\n"},
                         {"[%s]\nc=1", "%s::c=1\n"},
                         {"[s]", ""},
                     });
}

TEST(IniSections, OtherLinesAreEntries) {
    expect_rows("=", {
                         {"[", "", invalid("[")},
                         {"]", "", invalid("]")},
                         {"{", "", invalid("{")},
                         {"}", "", invalid("}")},
                         {"[a", "", invalid("[a")},
                         {"a]", "", invalid("a]")},
                         {"{a", "", invalid("{a")},
                         {"[a}", "", invalid("[a}")},
                         {"{a]", "", invalid("{a]")},
                         {"[a]}", "", invalid("[a]}")},
                         {"[a] b", "", invalid("[a] b")},
                         {"][", "", invalid("][")},
                         {"[a]=1", "DEFAULT::[a]=1\n"},
                         {"[a=b", "DEFAULT::[a=b\n"},
                         {"{a=b]", "DEFAULT::{a=b]\n"},
                         {"[x\nk={v}", "DEFAULT::k={v}\n", invalid("[x")},
                     });
}

TEST(IniSections, AnEmptyNameKeepsTheSection) {
    for (const char *header : {"[]", "[ ]", " [ \t ] ", "[]#", "[\v]"})
        expect_rows("=", {
                             {string(header) + "\na=1", "DEFAULT::a=1\n", empty_section},
                             {string("[s]\n") + header + "\na=1\n[t]", "s::a=1\n", empty_section},
                         });
}

TEST(IniSections, BracesStoreBothWays) {
    expect_rows("=", {
                         {"{map}\non = 1", "map::1=on\nmap::on=1\n"},
                         {"{ two  words }\na=b", "two words::a=b\ntwo words::b=a\n"},
                         {"{map}\non =\noff", "map::on=\n", invalid("off")},
                         {"{map}\n= 1", "", invalid("")},
                         {"{map}\na = b = c", "map::a=b = c\nmap::b = c=a\n"},
                         {"{map}\nx = x", "map::x=x\nmap::x=x\n"},
                         {"{map}\na=b\n[plain]\nc=d", "map::a=b\nmap::b=a\nplain::c=d\n"},
                         {"[plain]\na=b\n{map}\nc=d", "map::c=d\nmap::d=c\nplain::a=b\n"},
                         {"{one}\na=b\n{two}\nc=d", "one::a=b\none::b=a\ntwo::c=d\ntwo::d=c\n"},
                         {"{s}\na=b\n[s]\nc=d", "s::a=b\ns::b=a\ns::c=d\n"},
                     });
}

TEST(IniSections, AnEmptyNameChangesTheirModeAllTheSame) {
    expect_rows("=",
                {
                    {"{}\na=b", "DEFAULT::a=b\nDEFAULT::b=a\n", empty_section},
                    {"[s]\n{ }\na=b", "s::a=b\ns::b=a\n", empty_section},
                    {"{s}\n[]\na=b", "s::a=b\n", empty_section},
                    {"{s}\n{}\na=b", "s::a=b\ns::b=a\n", empty_section},
                    {"{s}\n[]\n{}\na=b", "s::a=b\ns::b=a\n", string(empty_section) + empty_section},
                });
}

TEST(IniSections, EachLoadBeginsWithTheDefaultOne) {
    owned_table table("{s}\na=b\n");
    table.add("c=d\n");
    EXPECT_EQ(pairs_of(table), (ini_pairs{{"DEFAULT::c", "d"}, {"s::a", "b"}, {"s::b", "a"}}));
}

TEST(IniLines, EndAtANulByte) {
    expect_rows("=", {
                         {{"a=1\0b=2\nc=3\n", 12}, "DEFAULT::a=1\nDEFAULT::c=3\n"},
                         {{"\0a=1\nb=2\n", 9}, "DEFAULT::b=2\n"},
                         {{"a\0=1\n", 5}, "", invalid("a")},
                         {{"[s\0]\na=1\0", 10}, "DEFAULT::a=1\n", invalid("[s")},
                         {{"\0\0\0", 3}, ""},
                     });
}

/* "k=vvv...", so many characters long, and a line behind it. */
string text_with_line_of(std::size_t length) {
    return "k=" + string(length - 2, 'v') + "\nz=1\n";
}

TEST(IniLines, LongOnesAreReadInPieces) {
    const auto value = [](std::size_t length) {
        return "DEFAULT::k=" + string(length, 'v') + "\nDEFAULT::z=1\n";
    };
    EXPECT_EQ(loading(text_with_line_of(2046), "="), loaded(value(2044)));
    EXPECT_EQ(loading(text_with_line_of(2047), "="), loaded(value(2045)));
    EXPECT_EQ(loading(text_with_line_of(2048), "="), loaded(value(2045), invalid("v")));
    EXPECT_EQ(loading(text_with_line_of(5000), "="),
              loaded(value(2045), invalid(string(2047, 'v')) + invalid(string(906, 'v'))));
}

TEST(IniLines, EachPieceIsParsedOnItsOwn) {
    EXPECT_EQ(loading(string(2047, ' ') + "a=1\n", "="), loaded("DEFAULT::a=1\n"));
    EXPECT_EQ(loading(string(2046, ' ') + "ab=1\n", "="), loaded("DEFAULT::b=1\n", invalid("a")));
    EXPECT_EQ(loading("#" + string(2046, 'x') + "a=1\n", "="), loaded("DEFAULT::a=1\n"))
        << "a comment ends with its piece";
    EXPECT_EQ(loading(string(2047, '\t') + "[s]" + "\na=1\n", "="), loaded("s::a=1\n"));
}

TEST(IniLines, TheLongestSectionNameFillsAPiece) {
    const string name(2045, 's');
    EXPECT_EQ(loading("[" + name + "]\na=1\n", "="), loaded(name + "::a=1\n"));
    EXPECT_EQ(loading("[" + name + "s]\na=1\n", "="),
              loaded("DEFAULT::a=1\n", invalid("[" + name + "s") + invalid("]")));
    EXPECT_EQ(loading("{" + name + "}\na=1\n", "="), loaded(name + "::1=a\n" + name + "::a=1\n"));
}

TEST(IniLines, UnreadableOnesEndTheFile) {
    owned_table table;
    const temp_dir dir;
    EXPECT_EQ(ini_load(&table, dir.path().c_str(), "="), 0) << "a directory opens";
    FILE *write_only = std::fopen((dir / "file").c_str(), "w");
    EXPECT_EQ(ini_fload(&table, write_only, "="), 0);
    std::fclose(write_only);
    EXPECT_EQ(table.count, 0U);
    EXPECT_EQ(table.entries, nullptr);
}

/* ---- Loading -------------------------------------------------------------------------------- */

TEST(IniLoad, BeginsWhereTheStreamStands) {
    FILE *file = file_of("a=1\nb=2\nc=3\n");
    std::fseek(file, 4, SEEK_SET);
    owned_table table;
    EXPECT_EQ(ini_fload(&table, file, "="), 0);
    EXPECT_EQ(pairs_of(table), (ini_pairs{{"DEFAULT::b", "2"}, {"DEFAULT::c", "3"}}));
    std::fclose(file);
}

TEST(IniLoad, UnusableArgumentsReadNothing) {
    const temp_dir dir;
    write_file(dir / "a.ini", "b=2\n");
    const string path = dir / "a.ini";
    FILE *file = std::fopen(path.c_str(), "r");
    owned_table table("a=1\n");
    const auto descriptors = count_descriptors();

    EXPECT_EQ(ini_fload(nullptr, file, "="), -1);
    EXPECT_EQ(ini_fload(&table, nullptr, "="), -1);
    EXPECT_EQ(ini_load(nullptr, path.c_str(), "="), -1);
    EXPECT_EQ(ini_load(&table, nullptr, "="), -1);
    EXPECT_EQ(ini_fload(&table, file, nullptr), -1);
    EXPECT_EQ(ini_load(&table, path.c_str(), nullptr), -1);
    for (const char *separators : {"", "[", "]", "{", "}", "#", "=#", "#=", ":[=", "={}", "a]b"}) {
        EXPECT_EQ(ini_fload(&table, file, separators), -1) << separators;
        EXPECT_EQ(ini_load(&table, path.c_str(), separators), -1) << separators;
    }
    EXPECT_EQ(std::ftell(file), 0);
    EXPECT_EQ(lseek(fileno(file), 0, SEEK_CUR), 0);
    EXPECT_EQ(pairs_of(table), (ini_pairs{{"DEFAULT::a", "1"}}));
    EXPECT_EQ(count_descriptors(), descriptors);
    std::fclose(file);
}

TEST(IniLoad, OpensAFileAndClosesIt) {
    const temp_dir dir;
    write_file(dir / "a.ini", "a=1\n[s]\nb=2\n");
    write_file(dir / "empty.ini", "");
    const auto descriptors = count_descriptors();
    owned_table table;
    EXPECT_EQ(ini_load(&table, (dir / "a.ini").c_str(), "="), 0);
    EXPECT_EQ(ini_load(&table, (dir / "empty.ini").c_str(), "="), 0);
    EXPECT_EQ(ini_load(&table, dir.path().c_str(), "="), 0);
    EXPECT_EQ(count_descriptors(), descriptors);
    EXPECT_EQ(pairs_of(table), (ini_pairs{{"DEFAULT::a", "1"}, {"s::b", "2"}}));
}

TEST(IniLoad, FailsWhereThereIsNoFile) {
    const temp_dir dir;
    owned_table table("a=1\n");
    const auto descriptors = count_descriptors();
    for (const string &path : {dir / "absent.ini", dir / "absent/a.ini", string()})
        EXPECT_EQ(ini_load(&table, path.c_str(), "="), -1) << path;
    EXPECT_EQ(count_descriptors(), descriptors);
    EXPECT_EQ(pairs_of(table), (ini_pairs{{"DEFAULT::a", "1"}}));
}

TEST(IniLoad, SaysNothingOfItsOwnFailures) {
    EXPECT_EQ(run_in_child([] {
                  owned_table table;
                  ini_load(&table, "/nonexistent/a.ini", "=");
                  ini_fload(&table, stdin, "#");
                  ini_fload(nullptr, stdin, "=");
              }),
              loaded(""));
}

TEST(IniLoad, AddsToWhatIsThere) {
    owned_table table("b = 1\nd = 2\n[s]\nx = 1\n");
    const char *kept = ini_get(&table, "b");
    table.add("a = 3\nc = 4\n[A]\ny = 5\n[s]\nw = 6\n");
    EXPECT_EQ(pairs_of(table), (ini_pairs{{"A::y", "5"},
                                          {"DEFAULT::a", "3"},
                                          {"DEFAULT::b", "1"},
                                          {"DEFAULT::c", "4"},
                                          {"DEFAULT::d", "2"},
                                          {"s::w", "6"},
                                          {"s::x", "1"}}));
    EXPECT_EQ(ini_get(&table, "b"), kept) << "a value stays where it is until the unloading";
    table.add("");
    EXPECT_EQ(table.count, 7U);
}

TEST(IniLoad, KeepsEveryDefinitionOfAKey) {
    owned_table table("a=1\nb=2\na=3\n[s]\nq=0\n[DEFAULT]\na=1\n");
    table.add("a=4\n");
    ini_pairs all = pairs_of(table);
    EXPECT_TRUE(sorted_by_key(table));
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, (ini_pairs{{"DEFAULT::a", "1"},
                              {"DEFAULT::a", "1"},
                              {"DEFAULT::a", "3"},
                              {"DEFAULT::a", "4"},
                              {"DEFAULT::b", "2"},
                              {"s::q", "0"}}));
    const string found = ini_get(&table, "a");
    EXPECT_TRUE(found == "1" || found == "3" || found == "4") << found;
    EXPECT_STREQ(ini_get(&table, "b"), "2");
}

TEST(IniLoad, AnotherOneDoesNotChangeTheOrderOfEqualKeys) {
    owned_table table("k=1\nk=2\nk=3\nk=4\nk=5\n");
    const ini_pairs first = pairs_of(table);
    const string found = ini_get(&table, "k");
    for (int round = 0; round < 3; round++) {
        table.add("other" + std::to_string(round) + "=0\n");
        ini_pairs all = pairs_of(table);
        all.resize(first.size());
        EXPECT_EQ(all, first);
        EXPECT_EQ(ini_get(&table, "k"), found);
    }
}

/* One key of each byte that a key can begin with, the longest first. */
TEST(IniLoad, SortsBytesWithoutASign) {
    string text;
    ini_pairs expected;
    for (int byte = 255; byte > 0; byte--) {
        const char c = static_cast<char>(byte);
        if (keel_test::plain_space(c) || c == '=' || c == '#')
            continue;
        for (const char *rest : {"\xff\xff", "\xff", "\x01", ""}) {
            text += string(1, c) + rest + "=v\n";
            expected.emplace_back("DEFAULT::" + string(1, c) + rest, "v");
        }
    }
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(pairs_of(owned_table(text)), expected);
}

/* Keys that are alike for longer and longer, and sections that begin alike. */
TEST(IniLoad, SortsKeysThatDifferLate) {
    string text;
    plain_ini plain;
    for (const string section : {"", "s", "section", "section name of some length"}) {
        if (!section.empty())
            text += "[" + section + "]\n";
        for (std::size_t length = 40; length > 0; length--)
            for (const char *end : {"b", "a", "", "\xe4"})
                text += string(length, 'k') + end + "=" + std::to_string(length) + end + "\n";
    }
    plain.load(text, "=");
    const owned_table table(text);
    EXPECT_TRUE(sorted_by_key(table));
    ini_pairs all = pairs_of(table);
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, plain.entries());
}

TEST(IniLoad, CancelledItLeavesTheTableAndNoDescriptor) {
    const temp_dir dir;
    const string path = dir / "fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    owned_table table("a=1\n");
    const auto descriptors = count_descriptors();
    int fifo = -1;
    EXPECT_TRUE(keel_test::ends_cancelled([&] { ini_load(&table, path.c_str(), "="); },
                                          [&](pthread_t thread) {
                                              fifo = open(path.c_str(), O_WRONLY | O_CLOEXEC);
                                              EXPECT_EQ(write(fifo, "b=2\n", 4), 4);
                                              keel_test::wait_until_read(fifo);
                                              pthread_cancel(thread);
                                          }));
    close(fifo);
    EXPECT_EQ(count_descriptors(), descriptors);
    EXPECT_EQ(pairs_of(table), (ini_pairs{{"DEFAULT::a", "1"}}));
}

/* ---- Unloading ------------------------------------------------------------------------------ */

TEST(IniUnload, LeavesAnEmptyTable) {
    ini_table table = {nullptr, 0};
    EXPECT_EQ(ini_unload(nullptr), -1);
    EXPECT_EQ(ini_unload(&table), 0);
    for (int round = 0; round < 3; round++) {
        FILE *file = file_of("a=1\n{s}\nb=2\n");
        EXPECT_EQ(ini_fload(&table, file, "="), 0);
        std::fclose(file);
        EXPECT_EQ(table.count, 3U);
        EXPECT_STREQ(ini_get(&table, "a"), "1");
        EXPECT_EQ(ini_unload(&table), 0);
        EXPECT_EQ(table.entries, nullptr);
        EXPECT_EQ(table.count, 0U);
        EXPECT_EQ(ini_get(&table, "a"), nullptr);
        EXPECT_EQ(ini_unload(&table), 0);
    }
}

TEST(IniUnload, FreesWhatAHostPutInAsWell) {
    owned_table table("k=1\n");
    xfree(0, table.entries[0].value);
    table.entries[0].value = static_cast<char *>(xmalloc(0, 100));
    std::strcpy(table.entries[0].value, "its own");
    EXPECT_STREQ(ini_get(&table, "k"), "its own");
}

/* ---- Looking up ----------------------------------------------------------------------------- */

TEST(IniGet, FindsExactlyWhatIsThere) {
    const owned_table table("a=1\n[s]\nkey=v\nempty=\nTwo words=w\n[default]\na=2\n{m}\non=1\n");
    EXPECT_STREQ(ini_get(&table, "a"), "1");
    const struct {
        const char *section;
        const char *key;
        const char *value;
    } rows[] = {
        {"DEFAULT", "a", "1"},     {"default", "a", "2"},   {"s", "key", "v"},
        {"s", "empty", ""},        {"s", "Two words", "w"}, {"m", "on", "1"},
        {"m", "1", "on"},          {"S", "key", nullptr},   {"s", "Key", nullptr},
        {"s", "ke", nullptr},      {"s", "keys", nullptr},  {"s", " key", nullptr},
        {"s ", "key", nullptr},    {"s", "a", nullptr},     {"s", "Two  words", nullptr},
        {"Default", "a", nullptr}, {"A", "a", nullptr},     {"zz", "zz", nullptr},
        {"s::key", "v", nullptr},  {"%s", "%n", nullptr},
    };
    for (const auto &r : rows)
        EXPECT_STREQ(ini_section_get(&table, r.section, r.key), r.value) << r.section << r.key;
    EXPECT_EQ(ini_get(&table, "key"), nullptr);
}

TEST(IniGet, OnlyTheWholeOfSectionAndKeyCounts) {
    const owned_table table("[a]\nb::c=1\n[x::y]\nz=2\n[:]\n:=3\n");
    EXPECT_STREQ(ini_section_get(&table, "a", "b::c"), "1");
    EXPECT_STREQ(ini_section_get(&table, "a::b", "c"), "1");
    EXPECT_STREQ(ini_section_get(&table, "x", "y::z"), "2");
    EXPECT_STREQ(ini_section_get(&table, "x::y", "z"), "2");
    EXPECT_STREQ(ini_section_get(&table, ":", ":"), "3");
    EXPECT_EQ(ini_section_get(&table, "a::", "b::c"), nullptr);
    EXPECT_EQ(ini_section_get(&table, "a:", ":b::c"), nullptr);
}

TEST(IniGet, NothingIsFoundWithoutTheArguments) {
    const owned_table table("a=1\n[s]\nb=2\n");
    const ini_table empty = {nullptr, 0};
    EXPECT_EQ(ini_get(nullptr, "a"), nullptr);
    EXPECT_EQ(ini_get(&empty, "a"), nullptr);
    EXPECT_EQ(ini_get(&table, nullptr), nullptr);
    EXPECT_EQ(ini_get(&table, ""), nullptr);
    EXPECT_EQ(ini_section_get(nullptr, "s", "b"), nullptr);
    EXPECT_EQ(ini_section_get(&empty, "s", "b"), nullptr);
    EXPECT_EQ(ini_section_get(&table, nullptr, "b"), nullptr);
    EXPECT_EQ(ini_section_get(&table, "", "b"), nullptr);
    EXPECT_EQ(ini_section_get(&table, "s", nullptr), nullptr);
    EXPECT_EQ(ini_section_get(&table, "s", ""), nullptr);
}

TEST(IniGet, KeysOfAnyLength) {
    for (std::size_t length = 1; length < 2044; length += length < 240 || length > 260 ? 17 : 1) {
        const string key(length, 'k');
        const owned_table table("[s]\n" + key + "=1\n");
        EXPECT_STREQ(ini_section_get(&table, "s", key.c_str()), "1") << length;
        EXPECT_EQ(ini_section_get(&table, "s", (key + "k").c_str()), nullptr) << length;
        EXPECT_EQ(ini_section_get(&table, "ss", key.c_str()), nullptr) << length;
    }
    const owned_table table("a=1\n");
    const string huge(1'000'000, 'k');
    EXPECT_EQ(ini_section_get(&table, huge.c_str(), huge.c_str()), nullptr);
}

TEST(IniGet, ManyThreadsAtOnce) {
    string text;
    for (int i = 0; i < 1000; i++)
        text += "key" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    const owned_table table(text);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&table] {
            for (int i = 0; i < 1000; i++)
                EXPECT_EQ(ini_get(&table, ("key" + std::to_string(i)).c_str()), std::to_string(i));
        });
    for (std::thread &thread : threads)
        thread.join();
}

/* ---- Printing ------------------------------------------------------------------------------- */

TEST(IniPrint, EveryEntryInOrder) {
    const owned_table table("b=1\na=\n[s]\nz=%d 3\ny=2=2\nx=1\nx=1\n[A]\nq=4\n");
    EXPECT_EQ(printed(7, [&](FILE *stream) { return ini_print(&table, stream); }),
              "A::q=4\nDEFAULT::a=\nDEFAULT::b=1\ns::x=1\ns::x=1\ns::y=2=2\ns::z=%d 3\n");
    const ini_table empty = {nullptr, 0};
    EXPECT_EQ(printed(0, [&](FILE *stream) { return ini_print(&empty, stream); }), "");
    EXPECT_EQ(ini_print(nullptr, stdout), -1);
    EXPECT_EQ(ini_print(&table, nullptr), -1);
}

string printed_section(const ini_table &table, int result, const string &section) {
    return printed(
        result, [&](FILE *stream) { return ini_section_print(&table, stream, section.c_str()); });
}

TEST(IniSectionPrint, TheFirstEntryOfItAlone) {
    const owned_table table("[s]\nz=3\ny=2\nx=1 %s\n[ss]\na=1\n[t::u]\nk=5\n");
    EXPECT_EQ(printed_section(table, 1, "s"), "s::x=1 %s\n");
    EXPECT_EQ(printed_section(table, 1, "ss"), "ss::a=1\n");
    EXPECT_EQ(printed_section(table, 1, "t"), "t::u::k=5\n") << "as far as its key tells";
    EXPECT_EQ(printed_section(table, 1, "t::u"), "t::u::k=5\n");
    for (const string section : {"u", "S", "sss", "", "s::", "s:", "s::x", "DEFAULT", "%s%n"})
        EXPECT_EQ(printed_section(table, 0, section), "Can't find section [" + section + "].\n");
    const ini_table empty = {nullptr, 0};
    EXPECT_EQ(printed_section(empty, 0, "s"), "Can't find section [s].\n");
}

TEST(IniSectionPrint, PrintsNothingWithoutTheArguments) {
    EXPECT_EQ(run_in_child([] {
                  const owned_table table("[s]\na=1\n");
                  EXPECT_EQ(ini_section_print(nullptr, stdout, "s"), -1);
                  EXPECT_EQ(ini_section_print(&table, nullptr, "s"), -1);
                  EXPECT_EQ(ini_section_print(&table, stdout, nullptr), -1);
              }),
              loaded(""));
}

/* With its colons a name counts for 2047 characters; the message shows all of it. */
TEST(IniSectionPrint, LongNamesAreCut) {
    const string longest(2045, 's');
    const owned_table table("[" + longest + "]\na=1\n");
    const string entry = longest + "::a=1\n";
    EXPECT_EQ(printed_section(table, 1, longest), entry);
    EXPECT_EQ(printed_section(table, 1, longest + ":"), entry);
    EXPECT_EQ(printed_section(table, 1, longest + "::"), entry);
    EXPECT_EQ(printed_section(table, 1, longest + "::" + string(10'000, 'x')), entry);
    for (const string &section : {longest + "s", longest + string(10'000, 's')})
        EXPECT_EQ(printed_section(table, 0, section), "Can't find section [" + section + "].\n");
    const string key(2042, 'k');
    EXPECT_EQ(printed_section(owned_table("[a]\n" + key + ":x=1\n"), 0, "a::" + key),
              "Can't find section [a::" + key + "].\n")
        << "both colons of a name of 2045 characters count";
}

/* ---- Against a plain reader ----------------------------------------------------------------- */

string random_ini(std::mt19937 &random) {
    static const string pieces[] = {"a",  "b",    "ab",   "::", ":",   "=",       " ",    "\t",
                                    "#",  "[",    "]",    "{",  "}",   "\n",      "\n",   "\n",
                                    "[s", "\n[a", "]\n",  "\r", "{b}", "\n{a}\n", "=b\n", "\xe4",
                                    "\v", "a=b",  "\nb=", "1",  "%s"};
    string text;
    for (auto left = random() % 100; left > 0; left--)
        text += pieces[random() % std::size(pieces)];
    return text;
}

void expect_lookup(const ini_table &table, const plain_ini &plain, const string &section,
                   const string &key) {
    const char *found = ini_section_get(&table, section.c_str(), key.c_str());
    const auto values =
        section.empty() || key.empty() ? std::vector<string>() : plain.values(section + "::" + key);
    if (found == nullptr)
        EXPECT_TRUE(values.empty()) << section << " | " << key;
    else
        EXPECT_NE(std::find(values.begin(), values.end(), found), values.end())
            << section << " | " << key << ": " << found;
}

TEST(IniRandom, TablesAndLookupsAgreeWithThePlainOnes) {
    std::mt19937 random(20'240'305);
    const string names[] = {"DEFAULT", "a", "b", "ab", "s", "a::b", ":", "\xe4", "1", ""};
    for (int round = 0; round < 3000; round++) {
        const char *separators = round % 3 == 0 ? "=" : round % 3 == 1 ? ":= " : " ";
        owned_table table;
        plain_ini plain;
        testing::internal::CaptureStderr();
        for (auto loads = 1 + random() % 2; loads > 0; loads--) {
            const string text = random_ini(random);
            table.add(text, separators);
            plain.load(text, separators);
        }
        ASSERT_EQ(testing::internal::GetCapturedStderr(), plain.warnings());
        ASSERT_TRUE(sorted_by_key(table));
        ini_pairs all = pairs_of(table);
        std::sort(all.begin(), all.end());
        ASSERT_EQ(all, plain.entries());
        for (const auto &[full, value] : all) {
            const std::size_t colons = full.find("::");
            expect_lookup(table, plain, full.substr(0, colons), full.substr(colons + 2));
        }
        for (const string &section : names)
            for (const string &key : names)
                expect_lookup(table, plain, section, key);
    }
}

TEST(IniRandom, AHundredThousandEntries) {
    constexpr int count = 100'000;
    string text;
    for (int i = 0; i < count; i++) {
        if (i % 1000 == 0)
            text += "[section" + std::to_string(i / 1000) + "]\n";
        text += "key" + std::to_string(i * 7919LL % count) + " = " + std::to_string(i) + "\n";
    }
    const owned_table table(text);
    ASSERT_EQ(table.count, static_cast<std::uint64_t>(count));
    ASSERT_TRUE(sorted_by_key(table));
    for (int i = 0; i < count; i++) {
        const string section = "section" + std::to_string(i / 1000);
        const string key = "key" + std::to_string(i * 7919LL % count);
        ASSERT_STREQ(ini_section_get(&table, section.c_str(), key.c_str()),
                     std::to_string(i).c_str());
        ASSERT_EQ(ini_section_get(&table, section.c_str(), (key + "x").c_str()), nullptr);
    }
}

} // namespace

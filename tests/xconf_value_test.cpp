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
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "cancelled.h"
#include "conf_maker.h"
#include "descriptors.h"
#include "edited_file.h"
#include "waiting.h"

namespace {

using keel_test::content_of;
using keel_test::count_descriptors;
using keel_test::edited_file;
using keel_test::temp_dir;
using keel_test::write_file;
using std::string;

/* Hidden from the compiler, which knows what a format must not be. */
int (*volatile look_up)(const char *, const char *, const char *, const char *,
                        ...) = file_lookup_value;
int (*volatile replace)(const char *, const char *, const char *, const char *,
                        ...) = file_replace_value;
int (*volatile replace_field)(const char *, const char *, const char *, const char *, int,
                              const char *, ...) = file_replace_value_value;

string times(std::size_t count, char character) {
    return string(count, character);
}

/* A text with NUL bytes. */
template <std::size_t size>
string bytes(const char (&text)[size]) {
    return string(text, size - 1);
}

/* ---- file_lookup_value ---------------------------------------------------------------------- */

constexpr char untouched[] = "~~~";

/* All that is to be scanned for "name" in a file, or the mark that says that nothing was. */
string scanned(const string &content, const char *separators) {
    const edited_file file(content);
    char value[8000] = "~~~";
    EXPECT_EQ(file_lookup_value(file.path(), "name", separators, "%7999[^\n]", value), 0);
    EXPECT_EQ(file.text(), content);
    EXPECT_TRUE(file.alone());
    return value;
}

struct row {
    string before, after;
};

TEST(FileLookupValue, FindsTheFirstLineOfTheKey) {
    const row rows[] = {
        {"name=a\n", "a"},
        {"name=a", "a"},
        {"name = a # comment\n", " a"},
        {"\t name \t = \t a \t b \r\n", " a b"},
        {"x=1\n\n# c\n#name=b\nname=a\nname=c\n", "a"},
        {"names=1\nxname=2\nNAME=3\nna me=4\nname a=5\nname=6\n", "6"},
        {"name==a\n", "=a"},
        {"name=a=b\n", "a=b"},
        {"==name=a\n", "a"},
        {"= name = a\n", " a"},
        {"name=\nname=a\n", untouched},
        {"name\nname=a\n", untouched},
        {"name # =a\nname=a\n", untouched},
        {"name=#a\nname=a\n", untouched},
        {"na#me\n=\n===\nname=a\n", "a"},
        {"name=\xff\xe4\x01\n", "\xff\xe4\x01"},
        {bytes("name=a\0b\nname=c\n"), "a"},
        {bytes("name\0=a\nname=c\n"), untouched},
        {times(1023, 'x') + "name=b\nname=a\n", "a"},
        {"name=" + times(5000, 'v') + "\n", times(5000, 'v')},
        {times(5000, ' ') + "name" + times(5000, ' ') + "=a\n", "a"},
        {"", untouched},
        {"\n\n=\n#name=a\nname:a\n", untouched},
    };
    for (const row &r : rows)
        EXPECT_EQ(scanned(r.before, "="), r.after) << r.before;
}

TEST(FileLookupValue, TakesAnyOfASetOfSeparators) {
    struct {
        const char *separators;
        row found;
    } const rows[] = {
        {"=:", {"name:a=b\n", "a=b"}},    {"=:", {"name=a:b\n", "a:b"}},
        {"=:", {":=name:=a\n", "=a"}},    {" ", {"name  \t a b\n", "a b"}},
        {" =", {"name = a\n", "= a"}},    {"\t", {"name\ta\n", untouched}}, // folded
        {"#", {"name # a\n", untouched}},                                   // a comment
        {"\xe4", {"name\xe4 a\n", " a"}}, {"", {"name=a\nname\n", untouched}},
    };
    for (const auto &r : rows)
        EXPECT_EQ(scanned(r.found.before, r.separators), r.found.after) << r.found.before;
}

TEST(FileLookupValue, FillsWhatTheFormatScans) {
    const edited_file file("size = 12, 34 # two\nword = a # comment\nspeed = 1.5 MB\n");
    int width = -1;
    int height = -2;
    EXPECT_EQ(file_lookup_value(file.path(), "size", "=", "%d, %d", &width, &height), 0);
    EXPECT_EQ(width, 12);
    EXPECT_EQ(height, 34);
    char word[16] = "preset";
    EXPECT_EQ(file_lookup_value(file.path(), "word", "=", "%15s", word), 0);
    EXPECT_STREQ(word, "a");
    double speed = 0;
    EXPECT_EQ(file_lookup_value(file.path(), "speed", "=", "%lf %2s", &speed, word), 0);
    EXPECT_EQ(speed, 1.5);
    EXPECT_STREQ(word, "MB");
}

/* The scan decides what is stored; the result does not tell. */
TEST(FileLookupValue, LeavesWhatTheFormatDoesNotScan) {
    const edited_file file("size = 12, x\nword = a\nnone =\n");
    int width = -1;
    int height = -2;
    EXPECT_EQ(file_lookup_value(file.path(), "size", "=", "%d, %d", &width, &height), 0);
    EXPECT_EQ(width, 12);
    EXPECT_EQ(height, -2);
    for (const char *key : {"word", "none", "missing", ""}) {
        EXPECT_EQ(file_lookup_value(file.path(), key, "=", "%d", &height), 0);
        EXPECT_EQ(height, -2) << key;
    }
    EXPECT_EQ(look_up(file.path(), "word", "=", ""), 0);
    EXPECT_EQ(look_up(file.path(), "word", "=", "%"), 0);
}

TEST(FileLookupValue, FailsWithoutAFile) {
    const edited_file file("name=a\n");
    const auto before = count_descriptors();
    char value[] = "~~~";
    for (const string &path : {file.side("missing"), file.side("/below"), string()}) {
        errno = 0;
        EXPECT_EQ(file_lookup_value(path.c_str(), "name", "=", "%3s", value), -1) << path;
        EXPECT_NE(errno, 0);
    }
    EXPECT_EQ(look_up(nullptr, "name", "=", "%3s", value), -1);
    EXPECT_EQ(look_up(file.path(), nullptr, "=", "%3s", value), -1);
    EXPECT_EQ(look_up(file.path(), "name", nullptr, "%3s", value), -1);
    EXPECT_EQ(look_up(file.path(), "name", "=", nullptr, value), -1);
    EXPECT_EQ(file_lookup_value(file.dir().path().c_str(), "name", "=", "%3s", value), 0)
        << "it can be opened, if not read";
    EXPECT_STREQ(value, untouched);
    EXPECT_EQ(count_descriptors(), before);
    EXPECT_TRUE(file.alone());
}

TEST(FileLookupValue, FindsWhatAPlainReaderFinds) {
    keel_test::conf_maker maker(53);
    for (int round = 0; round < 4000; round++) {
        const string separators = maker.one_of({"=", ":=", " ", "#", "n", "=\t", "\xe4", ""});
        const string content = maker.content("name", separators, "a");
        const auto value = keel_test::plain_lookup_value(content, "name", separators);
        ASSERT_EQ(scanned(content, separators.c_str()),
                  value && !value->empty() ? *value : untouched)
            << "round " << round << ", separators \"" << separators << "\" in:\n"
            << content;
    }
}

/* ---- file_replace_value --------------------------------------------------------------------- */

/* The value of "port" becomes 81. */
void expect_replaced(const char *separators, const std::vector<row> &rows) {
    edited_file file;
    const auto descriptors = count_descriptors();
    for (const row &r : rows) {
        file.write(r.before);
        EXPECT_EQ(file_replace_value(file.path(), "port", separators, "%d", 81), 0) << r.before;
        EXPECT_EQ(file.text(), r.after) << "separators \"" << separators << "\", before:\n"
                                        << r.before;
        EXPECT_TRUE(file.alone());
    }
    EXPECT_EQ(count_descriptors(), descriptors);
}

TEST(FileReplaceValue, ReplacesTheValueOfEveryLineOfTheKey) {
    expect_replaced("=", {
                             {"", ""},
                             {"port=80\n", "port=81\n"},
                             {"port=80", "port=81\n"},
                             {"port=80\r\n", "port=81\n"},
                             {"  port \t = \t 80 # web\n", "port=81\n"},
                             {"port=80\n# c\nport=8080\n", "port=81\n# c\nport=81\n"},
                             {"port=\n", "port=81\n"},
                             {"port==80\n", "port=81\n"},
                             {"==port=80\n", "port=81\n"},
                             {"= port = 80\n", "port=81\n"},
                             {"port=8,0=x\n", "port=81\n"},
                         });
}

TEST(FileReplaceValue, WritesAllOtherLinesTidied) {
    expect_replaced(
        "=", {
                 {" a \t =  1  # b \n", "a = 1 # b\n"},
                 {"a=1\r\n\r\n \t\n", "a=1\n\n\n"},
                 {"  #  a   comment\n#port=80\n # port=80", "# a comment\n#port=80\n# port=80\n"},
                 {"ports=80\nxport=80\nPORT=80\npo rt=80\nport a=80\nport:80\n",
                  "ports=80\nxport=80\nPORT=80\npo rt=80\nport a=80\nport:80\n"},
                 {"=\n = = \n===", "=\n= =\n===\n"},
                 {"\xff \t \x01\n", "\xff \x01\n"},
             });
}

TEST(FileReplaceValue, KeepsTheSeparatorOfEachLine) {
    expect_replaced("=:", {{"port=80\nport : 80\nport:=80\nport=:80\n",
                            "port=81\nport:81\nport:81\nport=81\n"}});
    expect_replaced(" ", {{"port \t 80 1\n port\n", "port 81\nportt81\n"}});
    expect_replaced(" =", {{"port = 80\n", "port 81\n"}});
    expect_replaced("#", {{"port # 80\n# port # 80\n", "port#81\n# port # 80\n"}});
    expect_replaced("\xe4\xff", {{"port\xff"
                                  "80\n",
                                  "port\xff"
                                  "81\n"}});
    expect_replaced("\t", {{"port\t80\n", "port 80\n"}});
}

/* There is no separator: what stands where it would is the key's own end. */
TEST(FileReplaceValue, RepeatsTheEndOfAKeyThatStandsAlone) {
    expect_replaced("=",
                    {{"port\n", "portt81\n"}, {" port \r\n", "portt81\n"}, {"=port", "portt81\n"}});
    expect_replaced("", {{"port\nport=80\n", "portt81\nport=80\n"}});
}

TEST(FileReplaceValue, ReadsLinesOfAnyLength) {
    std::vector<row> rows;
    for (const std::size_t length : {78U, 79U, 80U, 81U, 159U, 1022U, 1023U, 1024U, 1025U, 100000U})
        for (const char *end : {"", "\n", "\r\n"}) {
            const string line = times(length, 'x');
            rows.push_back(
                {line + end + "port=80", line + (*end == '\0' ? "port=80\n" : "\nport=81\n")});
            rows.push_back({"port=" + line + end, "port=81\n"});
            rows.push_back(
                {times(length, ' ') + "port" + times(length, '\t') + "=80" + end, "port=81\n"});
        }
    expect_replaced("=", rows);
}

TEST(FileReplaceValue, KeepsWhatStandsBehindANulByte) {
    expect_replaced("=", {
                             {bytes(" a = 1 \0  b \n\0\n # \0 c\r\nd\0"),
                              bytes("a = 1\0  b \n\0\n#\0 c\nd\0\n")},
                             {bytes("port = 80 \0 x \n"), bytes("port=81\0 x \n")},
                             {bytes("port\0=80\n"), bytes("portt81\0=80\n")},
                             {bytes("port=80\n\0port=80\n"), bytes("port=81\n\0port=80\n")},
                         });
}

TEST(FileReplaceValue, WritesAnyFormattedText) {
    const string before = "a = 1\nb=2\na : 3 # c\n";
    edited_file file(before);
    const auto expect = [&](const string &value) {
        EXPECT_TRUE(file.text() == "a=" + value + "\nb=2\na:" + value + "\n") << value;
        file.write(before);
    };
    EXPECT_EQ(file_replace_value(file.path(), "a", "=:", "%s-%d-%.2f", "x", 5, 0.25), 0);
    expect("x-5-0.25");
    EXPECT_EQ(file_replace_value(file.path(), "a", "=:", "%s", ""), 0);
    expect("");
    EXPECT_EQ(file_replace_value(file.path(), "a", "=:", "  %s  ", "# b  c"), 0);
    expect("  # b  c  ");
    EXPECT_EQ(file_replace_value(file.path(), "a", "=:", "%%"), 0);
    expect("%");
    EXPECT_EQ(replace(file.path(), "a", "=:", "x%cy", 0), 0);
    expect(bytes("x\0y"));
    EXPECT_EQ(file_replace_value(file.path(), "a", "=:", "%s", times(3000000, 'v').c_str()), 0);
    expect(times(3000000, 'v'));
    errno = EDOM;
    EXPECT_EQ(replace(file.path(), "a", "=:", "%m"), 0);
    expect(std::strerror(EDOM));
}

/* ---- file_replace_value_value --------------------------------------------------------------- */

struct field_row {
    string value;
    int index;
    string after;
};

/* Field `index` of "ports" becomes "N". */
void expect_field_replaced(const char *field_separators, const std::vector<field_row> &rows) {
    edited_file file;
    const auto descriptors = count_descriptors();
    for (const field_row &r : rows) {
        file.write("ports=" + r.value + "\n");
        EXPECT_EQ(file_replace_value_value(file.path(), "ports", "=", field_separators, r.index,
                                           "%s", "N"),
                  0);
        EXPECT_EQ(file.text(), "ports=" + r.after + "\n")
            << "index " << r.index << " in \"" << r.value << "\"";
        EXPECT_TRUE(file.alone());
    }
    EXPECT_EQ(count_descriptors(), descriptors);
}

TEST(FileReplaceValueValue, ReplacesOneField) {
    expect_field_replaced(",", {
                                   {"80,443,8080", 1, "N,443,8080"},
                                   {"80,443,8080", 2, "80,N,8080"},
                                   {"80,443,8080", 3, "80,443,N"},
                                   {"80", 1, "N"},
                                   {"80, 443 , 8080", 2, "80,N, 8080"},
                                   {" 80 , 443", 1, "N, 443"},
                                   {"80,443=1", 2, "80,N"},
                                   {"80,443 # c", 1, "N,443 # c"},
                               });
}

TEST(FileReplaceValueValue, CountsSeveralSeparatorsForOne) {
    expect_field_replaced(",", {
                                   {"a,,b", 0, "a,b"},
                                   {"a,,b", 2, "a,N"},
                                   {"a,,b", 3, "a,b"},
                                   {",,a,,,b,,", 1, "N,b,"},
                                   {",a", 1, "N"},
                                   {"a,", 0, "a"},
                                   {"a,", 2, "a"},
                                   {"a,,", 0, "a,"},
                                   {",", 1, ""},
                                   {"", 1, ""},
                               });
}

TEST(FileReplaceValueValue, ReplacesNothingWithAnIndexThatNoFieldHas) {
    for (const int index : {0, -1, 4, 5, INT_MAX, INT_MIN})
        expect_field_replaced(",", {{"80,443,8080", index, "80,443,8080"},
                                    {" 80,,443,8080 ", index, " 80,443,8080"}});
}

TEST(FileReplaceValueValue, KeepsTheSeparatorOfEachField) {
    expect_field_replaced(",;", {
                                    {"a;b,c", 2, "a;N,c"},
                                    {"a;,b,;c", 0, "a;b,c"},
                                    {"a;,b", 1, "N;b"},
                                });
    expect_field_replaced(" ", {{"a  b \t c", 2, "a N c"}, {" a b", 1, "N b"}});
    expect_field_replaced("=", {{"a==b", 2, "a=N"}});
    expect_field_replaced("", {{"a,b", 1, "N"}, {"a,b", 2, "a,b"}});
    expect_field_replaced("\xe4", {{"a\xe4\xe4z", 1, "N\xe4z"}});
}

TEST(FileReplaceValueValue, ReplacesInEveryLineOfTheKeyAndTidiesTheOthers) {
    const edited_file file(" ports = 80,443 \n# ports=1,2\nports:1,,2\r\n a  = 1,,2\nports\n=\n\n");
    EXPECT_EQ(file_replace_value_value(file.path(), "ports", "=:", ",", 2, "%d", 8443), 0);
    EXPECT_EQ(file.text(), "ports= 80,8443\n# ports=1,2\nports:1,8443\na = 1,,2\nportss\n=\n\n");
}

TEST(FileReplaceValueValue, WritesAnyFormattedTextAndKeepsWhatStandsBehindANulByte) {
    edited_file file(bytes("a=1,2,3\0 x\na:,,,\na:0"));
    EXPECT_EQ(file_replace_value_value(file.path(), "a", "=:", ",", 2, "%s", ""), 0);
    EXPECT_EQ(file.text(), bytes("a=1,,3\0 x\na:\na:0\n"));
    file.write(bytes("a=1,2,3\0 x\na:4,5\n"));
    EXPECT_EQ(replace_field(file.path(), "a", "=:", ",", 2, "x%c,%d", 0, 7), 0);
    EXPECT_EQ(file.text(), bytes("a=1,x\0,7,3\0 x\na:4,x\0,7\n"));
    file.write("a=1,2\na=3,4,5\n");
    const string longer = times(3000000, 'v');
    EXPECT_EQ(file_replace_value_value(file.path(), "a", "=", ",", 1, "%s%s", "<", longer.c_str()),
              0);
    EXPECT_EQ(file.text(), "a=<" + longer + ",2\na=<" + longer + ",4,5\n");
}

/* ---- What both have in common ---------------------------------------------------------------- */

TEST(FileReplaceValues, RefuseMissingArgumentsAndTextsThatCannotBeMade) {
    const string before = " port  = 80\n";
    const edited_file file(before);
    const char *path = file.path();
    const wchar_t impossible[] = {static_cast<wchar_t>(0x7fffffff), 0};
    EXPECT_EQ(replace(nullptr, "port", "=", "x"), -1);
    EXPECT_EQ(replace(path, nullptr, "=", "x"), -1);
    EXPECT_EQ(replace(path, "port", nullptr, "x"), -1);
    EXPECT_EQ(replace(path, "port", "=", nullptr), -1);
    EXPECT_EQ(replace(path, "port", "=", "%ls", impossible), -1);
    EXPECT_EQ(replace(path, "port", "=", "%2147483648d", 1), -1);
    EXPECT_EQ(replace_field(nullptr, "port", "=", ",", 1, "x"), -1);
    EXPECT_EQ(replace_field(path, nullptr, "=", ",", 1, "x"), -1);
    EXPECT_EQ(replace_field(path, "port", nullptr, ",", 1, "x"), -1);
    EXPECT_EQ(replace_field(path, "port", "=", nullptr, 1, "x"), -1);
    EXPECT_EQ(replace_field(path, "port", "=", ",", 1, nullptr), -1);
    EXPECT_EQ(replace_field(path, "port", "=", ",", 1, "%ls", impossible), -1);
    EXPECT_EQ(file.text(), before);
    EXPECT_TRUE(file.alone());
}

TEST(FileReplaceValues, ReplaceALinkByAFile) {
    for (const bool field : {false, true}) {
        const edited_file file("port = 80\n");
        const string link = file.side("link");
        std::filesystem::create_symlink("file", link);
        EXPECT_EQ(field ? file_replace_value_value(link.c_str(), "port", "=", ",", 1, "81")
                        : file_replace_value(link.c_str(), "port", "=", "81"),
                  0);
        EXPECT_EQ(fexist(link.c_str(), 0), 0);
        EXPECT_EQ(content_of(link), "port=81\n");
        EXPECT_EQ(file.text(), "port = 80\n");
    }
}

/* A directory can be opened, but not read; nor can the first bytes of a process's memory. */
TEST(FileReplaceValues, FailWhereReadingFails) {
    const temp_dir dir;
    const auto descriptors = count_descriptors();
    std::filesystem::create_directory(dir / "directory");
    std::filesystem::create_symlink("/proc/self/mem", dir / "memory");
    for (const auto &[name, error] : {std::pair("directory", EISDIR), std::pair("memory", EIO)}) {
        const string path = dir / name;
        errno = 0;
        EXPECT_EQ(file_replace_value(path.c_str(), "port", "=", "x"), -1) << name;
        EXPECT_EQ(errno, error) << name;
        errno = 0;
        EXPECT_EQ(file_replace_value_value(path.c_str(), "port", "=", ",", 1, "x"), -1) << name;
        EXPECT_EQ(errno, error) << name;
    }
    EXPECT_EQ(fexist((dir / "directory").c_str(), 1), 0);
    EXPECT_EQ(fexist((dir / "memory").c_str(), 5), 0);
    EXPECT_EQ(count_descriptors(), descriptors);
}

/* Cancels a thread that reads a pipe. */
void expect_cancelled_reading(const std::function<void(const char *)> &reader) {
    const temp_dir dir;
    const string path = dir / "fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const auto descriptors = count_descriptors();
    int fifo = -1;
    EXPECT_TRUE(keel_test::ends_cancelled([&] { reader(path.c_str()); },
                                          [&](pthread_t thread) {
                                              fifo = open(path.c_str(), O_WRONLY | O_CLOEXEC);
                                              EXPECT_EQ(write(fifo, "port = 80\n", 10), 10);
                                              keel_test::wait_until_read(fifo);
                                              pthread_cancel(thread);
                                          }));
    close(fifo);
    EXPECT_EQ(count_descriptors(), descriptors);
    EXPECT_EQ(fexist(path.c_str(), 4), 0);
}

TEST(FileValues, AThreadCancelledWhileItReadsLeavesNothingOpen) {
    expect_cancelled_reading([](const char *path) { file_replace_value(path, "port", "=", "81"); });
    expect_cancelled_reading(
        [](const char *path) { file_replace_value_value(path, "port", "=", ",", 1, "81"); });
    expect_cancelled_reading([](const char *path) {
        int port = 0;
        file_lookup_value(path, "name", "=", "%d", &port);
    });
}

TEST(FileReplaceValues, TakeAPathOfAnyLength) {
    const temp_dir dir;
    string path = dir.path();
    for (int i = 0; i < 5; i++)
        std::filesystem::create_directory(path += "/" + times(200, 'd'));
    path += "/file";
    write_file(path, "port = 80,81\n");
    EXPECT_EQ(file_replace_value_value(path.c_str(), "port", "=", ",", 1, "1"), 0);
    EXPECT_EQ(content_of(path), "port=1,81\n");
    EXPECT_EQ(file_replace_value(path.c_str(), "port", "=", "2"), 0);
    EXPECT_EQ(content_of(path), "port=2\n");

    const string too_long = dir / times(252, 'n'); // no room for the side file's name
    write_file(too_long, "port = 80\n");
    EXPECT_EQ(file_replace_value(too_long.c_str(), "port", "=", "2"), -1);
    EXPECT_EQ(content_of(too_long), "port = 80\n");
}

TEST(FileReplaceValues, EditAsAPlainEditorDoes) {
    keel_test::conf_maker maker(54);
    edited_file file;
    for (int round = 0; round < 6000; round++) {
        const string separators = maker.one_of({"=", ":=", " ", "#", "p", "=\t", "\xe4", ""});
        const string fields = maker.one_of({",", ",;", " ", "=", "", "\xe4"});
        const string text = maker.one_of({"81", "", "a,b", "# x", " "});
        const int index = static_cast<int>(maker.number(5)) - 1;
        const bool field = maker.one_in(2);
        const string before = maker.content("port", separators, maker.one_of({"80", "a,b;c,,d"}));
        file.write(before);
        ASSERT_EQ(
            field ? file_replace_value_value(file.path(), "port", separators.c_str(),
                                             fields.c_str(), index, "%s", text.c_str())
                  : file_replace_value(file.path(), "port", separators.c_str(), "%s", text.c_str()),
            0);
        ASSERT_EQ(file.text(), field ? keel_test::plain_field_replaced(before, "port", separators,
                                                                       fields, index, text)
                                     : keel_test::plain_replaced(before, "port", separators, text))
            << "round " << round << ", separators \"" << separators << "\", fields \"" << fields
            << "\", field " << (field ? index : -1) << ", before:\n"
            << before;
    }
}

} // namespace

/* SPDX-License-Identifier: MIT */
#include "xstring.h"

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "plain_strings.h"
#include "temp_dir.h"

namespace {

using keel_test::exited;
using keel_test::run_in_child;

/* A writable copy of a text, in a block of just its size, so that a sanitizer sees a byte too many.
 */
class writable {
  public:
    explicit writable(const std::string &text) : bytes_(new char[text.size() + 1]) {
        std::memcpy(bytes_.get(), text.c_str(), text.size() + 1);
    }
    char *get() { return bytes_.get(); }

  private:
    std::unique_ptr<char[]> bytes_;
};

/* Takes a new string over: its text, or nothing for null. */
std::optional<std::string> taken(char *made) {
    if (made == nullptr)
        return std::nullopt;
    std::string text = made;
    std::free(made);
    return text;
}

/* What a trimming function makes of a text; it returns its argument. */
std::string trimmed(char *(*trim)(char *), const std::string &text) {
    writable copy(text);
    EXPECT_EQ(trim(copy.get()), copy.get());
    return copy.get();
}

std::optional<std::string> trimmed_at(const std::string &text, int separator) {
    writable copy(text);
    const char *result = strtrim4(copy.get(), separator);
    if (result == nullptr) {
        EXPECT_EQ(copy.get(), text);
        return std::nullopt;
    }
    EXPECT_EQ(result, copy.get());
    return copy.get();
}

/* A text of bytes that matter to what is tested. */
std::string random_text(std::mt19937 &random, const std::string &alphabet, std::size_t longest) {
    std::string text(random() % (longest + 1), ' ');
    for (char &c : text)
        c = alphabet[random() % alphabet.size()];
    return text;
}

constexpr int random_rounds = 20'000;

/* ---- Trimming ------------------------------------------------------------------------------- */

TEST(Trim, Rows) {
    struct {
        const char *text;
        const char *ends;   // strtrim1
        const char *runs;   // strtrim2
        const char *spaces; // strtrim3
    } const rows[] = {
        {"", "", "", ""},
        {" ", "", "", ""},
        {"   ", "", "", ""},
        {" \t\n\v\f\r", "", "", ""},
        {"x", "x", "x", "x"},
        {"\tx\t", "x", "x", "x"},
        {"  x", "x", "x", "x"},
        {"x  ", "x", "x", "x"},
        {"a b\tc", "a b\tc", "a b c", "abc"},
        {"a\tb", "a\tb", "a b", "ab"},
        {"  a \t\t b  c ", "a \t\t b  c", "a b c", "abc"},
        {"a\n\n\nb\v", "a\n\n\nb", "a b", "ab"},
        {"\r\n a \r\n", "a", "a", "a"},
        {" \xe9 \x80 ", "\xe9 \x80", "\xe9 \x80", "\xe9\x80"},
        {"\x01\x1f\x7f\xff", "\x01\x1f\x7f\xff", "\x01\x1f\x7f\xff", "\x01\x1f\x7f\xff"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(trimmed(strtrim1, row.text), row.ends) << row.text;
        EXPECT_EQ(trimmed(strtrim2, row.text), row.runs) << row.text;
        EXPECT_EQ(trimmed(strtrim3, row.text), row.spaces) << row.text;
    }
}

TEST(Trim, NullGivesNull) {
    EXPECT_EQ(strtrim1(nullptr), nullptr);
    EXPECT_EQ(strtrim2(nullptr), nullptr);
    EXPECT_EQ(strtrim3(nullptr), nullptr);
    EXPECT_EQ(strtrim4(nullptr, '='), nullptr);
}

TEST(Trim, RandomTexts) {
    std::mt19937 random(1);
    for (int i = 0; i < random_rounds; i++) {
        const std::string text = random_text(random, " \t\n\r\v\fab=\xe9\xa0\x85\xff", 40);
        ASSERT_EQ(trimmed(strtrim1, text), keel_test::plain_trim1(text)) << text;
        ASSERT_EQ(trimmed(strtrim2, text), keel_test::plain_trim2(text)) << text;
        ASSERT_EQ(trimmed(strtrim3, text), keel_test::plain_trim3(text)) << text;
        ASSERT_EQ(trimmed_at(text, '='), keel_test::plain_trim4(text, '=')) << text;
        ASSERT_EQ(trimmed_at(text, ' '), keel_test::plain_trim4(text, ' ')) << text;
    }
}

TEST(Trim, LongTexts) {
    std::string text;
    for (int i = 0; i < 100'000; i++)
        text += "word \t ";
    EXPECT_EQ(trimmed(strtrim2, text), keel_test::plain_trim2(text));
    EXPECT_EQ(trimmed(strtrim3, text), keel_test::plain_trim3(text));
    EXPECT_EQ(trimmed(strtrim1, text), keel_test::plain_trim1(text));
}

/* Nothing behind the old terminator changes, and nothing before the string. */
TEST(Trim, StaysInsideTheString) {
    for (const auto trim : {strtrim1, strtrim2, strtrim3}) {
        char text[] = "<  a  b  \0>";
        EXPECT_EQ(trim(text + 1), text + 1);
        EXPECT_EQ(text[0], '<');
        EXPECT_EQ(text[10], '>');
    }
}

TEST(TrimAtSeparator, Rows) {
    struct {
        const char *text;
        char separator;
        const char *expected;
    } const rows[] = {
        {"name  =  value x", '=', "name=value x"},
        {"a = b = c", '=', "a=b = c"},
        {"a=b", '=', "a=b"},
        {"a =b", '=', "a=b"},
        {"a= b", '=', "a=b"},
        {" = ", '=', "="},
        {"= b", '=', "=b"},
        {"a =", '=', "a="},
        {"  a \t b  ", '=', "a b"},
        {"", '=', ""},
        {"   ", '=', ""},
        {"a  b  c", ' ', "a b c"},
        {"   ", ' ', ""},
        {"a == b", '=', "a== b"},
        {"x \t=\n y", '=', "x=y"},
        {"x ~ y", '~', "x~y"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(trimmed_at(row.text, row.separator), row.expected) << row.text;
}

TEST(TrimAtSeparator, RefusesUnusableSeparators) {
    for (const int separator :
         {int{'\t'}, int{'\n'}, int{'\v'}, int{'\f'}, int{'\r'}, 0,        1,    31,
          127,       128,       233,       255,       -1,        -2,       -128, -129,
          256,       256 + '=', 1000,      -1000,     INT32_MAX, INT32_MIN})
        EXPECT_EQ(trimmed_at(" a  = b\t", separator), std::nullopt) << separator;
}

TEST(TrimAtSeparator, TakesEveryPrintableOne) {
    for (int separator = ' '; separator < 127; separator++)
        EXPECT_EQ(
            trimmed_at(" a \t" + std::string(1, static_cast<char>(separator)) + " b ", separator),
            keel_test::plain_trim4(" a \t" + std::string(1, static_cast<char>(separator)) + " b ",
                                   separator));
}

/* A locale in which more bytes are whitespace: e acute, and y diaeresis, whose signed byte is
 * nonetheless EOF's and in no class. */
class spacious_locale {
  public:
    spacious_locale() {
        std::string map = "<code_set_name> EIGHT-BIT\n<comment_char> %\n<escape_char> /\n"
                          "<mb_cur_min> 1\n<mb_cur_max> 1\nCHARMAP\n";
        for (int byte = 0; byte < 256; byte++) {
            char line[40];
            std::snprintf(line, sizeof line, "<U%04X> /x%02x CHAR\n", static_cast<unsigned>(byte),
                          static_cast<unsigned>(byte));
            map += line;
        }
        keel_test::write_file(dir_ / "map", map + "END CHARMAP\n");
        keel_test::write_file(
            dir_ / "source",
            "comment_char %\nescape_char /\nLC_CTYPE\nupper <U0041>\nlower <U0061>;<U00E8>\n"
            "space <U0009>;<U000A>;<U000B>;<U000C>;<U000D>;<U0020>;<U00E9>;<U00FF>\n"
            "print <U0020>;<U0041>;<U0061>;<U00E8>\nEND LC_CTYPE\n");
        const std::string command = "localedef -c --no-archive -i " + (dir_ / "source") + " -f " +
                                    (dir_ / "map") + " " + (dir_ / "spacious") + " >/dev/null 2>&1";
        const int status = std::system(command.c_str());
        static_cast<void>(status); // warns of the categories that are missing
        setenv("LOCPATH", dir_.path().c_str(), 1);
        there_ = std::setlocale(LC_CTYPE, "spacious") != nullptr;
        unsetenv("LOCPATH");
    }
    ~spacious_locale() { std::setlocale(LC_CTYPE, "C"); }
    spacious_locale(const spacious_locale &) = delete;
    spacious_locale &operator=(const spacious_locale &) = delete;

    bool there() const { return there_; }

  private:
    keel_test::temp_dir dir_;
    bool there_;
};

TEST(Trim, WhitespaceIsTheLocales) {
    const std::string text = "\xe9 \xff\xe9\xe9 b\xe9\xe9";
    EXPECT_EQ(trimmed(strtrim1, text), text);
    EXPECT_EQ(trimmed_at("a \xe8 b", 0xe8), std::nullopt);
    {
        const spacious_locale locale;
        ASSERT_TRUE(locale.there());
        EXPECT_EQ(trimmed(strtrim1, text), "\xff\xe9\xe9 b");
        EXPECT_EQ(trimmed(strtrim2, text), "\xff b");
        EXPECT_EQ(trimmed(strtrim3, text), "\xff"
                                           "b");
        EXPECT_EQ(trimmed_at("a \xe8 b", 0xe8), "a\xe8"
                                                "b");
        EXPECT_EQ(trimmed_at("a \xe8 b", -0x18), "a\xe8"
                                                 "b");
        EXPECT_EQ(trimmed_at("a", 0xe9), std::nullopt);
    }
    EXPECT_EQ(trimmed(strtrim2, text), text);
}

/* ---- Building ------------------------------------------------------------------------------- */

TEST(Ncat, Cuts) {
    EXPECT_EQ(taken(strdup_ncat(3, "ab", "cd", nullptr)), "abc");
    EXPECT_EQ(taken(strdup_ncat(4, "ab", "cd", nullptr)), "abcd");
    EXPECT_EQ(taken(strdup_ncat(100, "ab", "cd", nullptr)), "abcd");
    EXPECT_EQ(taken(strdup_ncat(2, "ab", "cd", nullptr)), "ab");
    EXPECT_EQ(taken(strdup_ncat(1, "ab", nullptr)), "a");
    EXPECT_EQ(taken(strdup_ncat(0, "x", nullptr)), "");
    EXPECT_EQ(taken(strdup_ncat(5, nullptr)), "");
    EXPECT_EQ(taken(strdup_ncat(5, "", "a", "", "b", "", nullptr)), "ab");
}

TEST(Ncat, StopsWhereItIsFull) {
    /* What comes behind is not looked at: it could not be read. */
    EXPECT_EQ(taken(strdup_ncat(2, "ab", reinterpret_cast<const char *>(16), nullptr)), "ab");
    EXPECT_EQ(taken(strdup_ncat(0, reinterpret_cast<const char *>(16), nullptr)), "");
    const char unended[3] = {'a', 'b', 'c'};
    EXPECT_EQ(taken(strdup_ncat(3, unended, nullptr)), "abc");
}

TEST(Ncat, IsZeroBehindTheText) {
    char *made = strdup_ncat(10, "ab", nullptr);
    EXPECT_EQ(std::string(made, 11), std::string("ab\0\0\0\0\0\0\0\0\0", 11));
    std::free(made);
}

TEST(Ncat, FailsWithoutMemory) {
    for (const std::size_t limit : {SIZE_MAX, SIZE_MAX - 1, SIZE_MAX / 2})
        EXPECT_EQ(strdup_ncat(limit, "ab", nullptr), nullptr);
}

TEST(Cat, Joins) {
    EXPECT_EQ(taken(strdup_cat("ab", "cd", "", "e", nullptr)), "abcde");
    EXPECT_EQ(taken(strdup_cat("ab", nullptr)), "ab");
    EXPECT_EQ(taken(strdup_cat("", nullptr)), "");
    EXPECT_EQ(taken(strdup_cat("", "", "x", nullptr)), "x");
    EXPECT_EQ(strdup_cat(nullptr, "x", nullptr), nullptr);
    const std::string large(100'000, 'x');
    EXPECT_EQ(taken(strdup_cat(large.c_str(), large.c_str(), nullptr)), large + large);
}

/* A character that no locale in use here can write. */
const wchar_t unwritable[] = {0x7fffffff, 0};

TEST(Catf, Formats) {
    EXPECT_EQ(taken(strdup_catf("%s-%03d", "ab", 7)), "ab-007");
    EXPECT_EQ(taken(strdup_catf("%s", "")), "");
    EXPECT_EQ(taken(strdup_catf("%100000d", 1)), std::string(99'999, ' ') + "1");
}

TEST(Catf, FailsWithTheFormat) {
    EXPECT_EQ(strdup_catf("text %ls", unwritable), nullptr);
    char *(*const unchecked)(const char *, ...) = strdup_catf;
    EXPECT_EQ(unchecked(nullptr), nullptr);
}

TEST(Insert, Rows) {
    struct {
        const char *text;
        std::size_t position;
        const char *insert;
        std::optional<std::string> expected;
    } const rows[] = {
        {"abc", 0, "X", "Xabc"},
        {"abc", 1, "X", "aXbc"},
        {"abc", 2, "XYZ", "abXYZc"},
        {"abc", 3, "X", "abcX"},
        {"abc", 4, "X", std::nullopt},
        {"abc", SIZE_MAX, "X", std::nullopt},
        {"abc", 1, "", "abc"},
        {"", 0, "X", "X"},
        {"", 0, "", ""},
        {"", 1, "X", std::nullopt},
        {nullptr, 0, "X", std::nullopt},
        {"abc", 0, nullptr, std::nullopt},
        {nullptr, 0, nullptr, std::nullopt},
    };
    for (const auto &row : rows)
        EXPECT_EQ(taken(strdup_insert(row.text, row.position, row.insert)), row.expected)
            << row.position;
}

TEST(Append, GrowsTheString) {
    char *text = strdup("old");
    EXPECT_EQ(astrcatf(&text, "-%d", 12), 3);
    EXPECT_STREQ(text, "old-12");
    EXPECT_EQ(astrcatf(&text, "%s", text), 6); // the string may be an argument of its own
    EXPECT_STREQ(text, "old-12old-12");
    EXPECT_EQ(astrcatf(&text, "%50000d", 1), 50'000);
    EXPECT_EQ(std::strlen(text), 50'012u);
    std::free(text);
}

TEST(Append, CreatesTheString) {
    char *text = nullptr;
    EXPECT_EQ(astrcatf(&text, "%s", "new"), 3);
    EXPECT_EQ(taken(text), "new");
}

TEST(Append, LeavesTheStringAloneWhereNothingIsToBeAdded) {
    char *none = nullptr;
    EXPECT_EQ(astrcatf(&none, "%s", ""), 0);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(astrcatf(&none, "%ls", unwritable), -1);
    EXPECT_EQ(none, nullptr);
    char old[] = "old"; // not allocated: it must not be touched
    char *text = old;
    EXPECT_EQ(astrcatf(&text, "%s", ""), 0);
    EXPECT_EQ(astrcatf(&text, "%ls", unwritable), -1);
    int (*const unchecked)(char **, const char *, ...) = astrcatf;
    EXPECT_EQ(unchecked(&text, nullptr), -1);
    EXPECT_EQ(text, old);
    EXPECT_STREQ(text, "old");
    EXPECT_EQ(astrcatf(nullptr, "%s", "x"), -1);
}

/* ---- Key and value lists -------------------------------------------------------------------- */

TEST(ListValue, Rows) {
    struct {
        const char *list;
        const char *key;
        std::optional<std::string> expected;
    } const rows[] = {
        {"a=1;b=2;c=3", "a", "1"},
        {"a=1;b=2;c=3", "b", "2"},
        {"a=1;b=2;c=3", "c", "3"},
        {"a=1;b=2;c=3", "d", std::nullopt},
        {"x = 1; y=2", "y", "2"},
        {"x = 1; y=2", "x", "1"},
        {"a=1;a=2", "a", "1"},
        {"a;b=2", "a", std::nullopt},
        {"a;b=2", "b", "2"},
        {"A=1", "a", std::nullopt},
        {"ab=1", "a", std::nullopt},
        {"a=1", "ab", std::nullopt},
        {"a=", "a", ""},
        {"a = ", "a", ""},
        {"a=b=c", "a", "b=c"},
        {"a = b = c", "a", "b = c"},
        {"a=x  \t y", "a", "x y"},
        {"a b  c = d", "a b c", "d"},
        {";;;a=1;;b=2;;", "b", "2"},
        {"=5", "", "5"},
        {" = 5", "", "5"},
        {"", "a", std::nullopt},
        {";", "a", std::nullopt},
        {"a=100%%", "a", "100%%"},
        {"a=%s%n", "a", "%s%n"},
        {nullptr, "a", std::nullopt},
        {"a=1", nullptr, std::nullopt},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(taken(strdup_extract1(row.list, row.key, ';', '=')), row.expected) << row.list;
        EXPECT_EQ(taken(varbind_find(row.list, row.key, ';', '=', nullptr, 100)), row.expected);
        char small[1] = {'x'};
        EXPECT_EQ(taken(varbind_find(row.list, row.key, ';', '=', small, 1)), row.expected);
        EXPECT_EQ(taken(varbind_find(row.list, row.key, ';', '=', small, 0)), row.expected);
        EXPECT_EQ(small[0], 'x');
    }
}

TEST(ListValue, AnySeparators) {
    EXPECT_EQ(taken(strdup_extract1("a:1\nb : 2\n", "b", '\n', ':')), "2");
    EXPECT_EQ(taken(strdup_extract1("a 1, b  2", "b", ',', ' ')), "2");
    EXPECT_EQ(taken(strdup_extract1("a=1;b=2", "a", '\0', '=')), "1;b=2");
    EXPECT_EQ(taken(strdup_extract1("a=1=b=2", "b", '=', '=')), std::nullopt);
    EXPECT_EQ(taken(strdup_extract1("a;b", "a", ';', 0)), std::nullopt);
    for (const int separator : {256 + '=', -1000, INT32_MAX, INT32_MIN})
        EXPECT_EQ(taken(strdup_extract1("a=1", "a", ';', separator)), std::nullopt);
}

/* strtrim4() refuses such a separator; the entries are then taken as they are. */
TEST(ListValue, EntriesThatCannotBeTidiedStayAsTheyAre) {
    EXPECT_EQ(taken(strdup_extract1("a\t1;b\t 2 ", "b", ';', '\t')), " 2 ");
    EXPECT_EQ(taken(strdup_extract1("a\xe9"
                                    "1",
                                    "a", ';', 0xe9)),
              "1");
    EXPECT_EQ(taken(strdup_extract1("a\xe9"
                                    "1",
                                    "a", ';', '\xe9')),
              "1");
}

TEST(ListValue, LeavesTheListAlone) {
    const std::string list = " a = 1 ; b = 2 ";
    const std::string copy = list.c_str();
    EXPECT_EQ(taken(strdup_extract1(list.c_str(), "b", ';', '=')), "2");
    EXPECT_EQ(list, copy);
}

TEST(ListValue, IsWrittenAsAFormatWithoutDirectives) {
    struct {
        const char *value;
        const char *written;
    } const rows[] = {
        {"100%%", "100%"},    {"%%", "%"},     {"%%%%", "%%"},   {"%%%", "%%"},
        {"%", "%"},           {"50%", "50%"},  {"%n", "%n"},     {"%s%s%s", "%s%s%s"},
        {"%%n", "%n"},        {"%%%n", "%%n"}, {"%1$n", "%1$n"}, {"%.9999d", "%.9999d"},
        {"a%%b%%c", "a%b%c"}, {"", ""},
    };
    for (const auto &row : rows) {
        char buffer[32];
        const std::string list = std::string("k=") + row.value;
        EXPECT_EQ(varbind_find(list.c_str(), "k", ';', '=', buffer, sizeof buffer), buffer);
        EXPECT_STREQ(buffer, row.written) << row.value;
    }
}

TEST(ListValue, IsCutToTheBuffer) {
    const std::string value = "ab%%cd%%%e%";
    for (std::size_t size = 2; size <= value.size() + 2; size++) {
        std::string buffer(size + 4, '~');
        EXPECT_EQ(varbind_find(("k=" + value).c_str(), "k", ';', '=', buffer.data(), size),
                  buffer.data());
        EXPECT_EQ(std::string(buffer.c_str()), keel_test::plain_formatted(value, size)) << size;
        EXPECT_EQ(buffer.substr(size), "~~~~") << size;
    }
}

TEST(ListValue, LeavesTheBufferAloneWithoutAMatch) {
    char buffer[] = "kept";
    EXPECT_EQ(varbind_find("a=1", "b", ';', '=', buffer, sizeof buffer), nullptr);
    EXPECT_EQ(varbind_find(nullptr, "b", ';', '=', buffer, sizeof buffer), nullptr);
    EXPECT_EQ(varbind_find("a=1", nullptr, ';', '=', buffer, sizeof buffer), nullptr);
    EXPECT_STREQ(buffer, "kept");
}

TEST(ListValue, RandomLists) {
    std::mt19937 random(2);
    for (int i = 0; i < random_rounds; i++) {
        const std::string list = random_text(random, "abab==;; \t%\xe9", 30);
        const std::string key = random_text(random, "ab ", 2);
        const char entry_separator = ";, "[random() % 3];
        const int separator = "=; \t"[random() % 4];
        const auto expected = keel_test::plain_value(list, key, entry_separator, separator);
        ASSERT_EQ(taken(strdup_extract1(list.c_str(), key.c_str(), entry_separator, separator)),
                  expected)
            << list << " key " << key;
        char buffer[6];
        const char *found = varbind_find(list.c_str(), key.c_str(), entry_separator, separator,
                                         buffer, sizeof buffer);
        ASSERT_EQ(found != nullptr, expected.has_value());
        if (expected) {
            ASSERT_EQ(found, keel_test::plain_formatted(*expected, sizeof buffer)) << list;
        }
    }
}

/* ---- Splitting ------------------------------------------------------------------------------ */

TEST(Split, StoresWhatFitsAndCountsAll) {
    struct {
        const char *text;
        const char *delimiters;
        std::size_t capacity;
        int count;
        std::vector<std::string> stored;
    } const rows[] = {
        {"a,b,,c", ",", 2, 3, {"a", "b"}},
        {"a,b,,c", ",", 3, 3, {"a", "b", "c"}},
        {"a,b,,c", ",", 9, 3, {"a", "b", "c"}},
        {"a,b,,c", ",", 0, 3, {}},
        {"", ",", 2, 0, {}},
        {",,,", ",", 2, 0, {}},
        {"abc", ",", 2, 1, {"abc"}},
        {"abc", "", 2, 1, {"abc"}},
        {",a,", ",", 2, 1, {"a"}},
        {"a b\tc", " \t", 3, 3, {"a", "b", "c"}},
        {" a=1; b=2 ", "=; ", 4, 4, {"a", "1", "b", "2"}},
        {"a\xe9"
         "b",
         "\xe9",
         2,
         2,
         {"a", "b"}},
    };
    for (const auto &row : rows) {
        writable text(row.text);
        char untouched[] = "untouched";
        std::vector<char *> fields(10, untouched);
        EXPECT_EQ(str_split(text.get(), row.delimiters, fields.data(), row.capacity), row.count);
        for (std::size_t i = 0; i < fields.size(); i++)
            EXPECT_STREQ(fields[i], i < row.stored.size() ? row.stored[i].c_str() : untouched)
                << row.text << " " << i;
    }
}

TEST(Split, RefusesNull) {
    char text[] = "a,b";
    char *fields[2] = {text, text};
    EXPECT_EQ(str_split(nullptr, ",", fields, 2), -1);
    EXPECT_EQ(str_split(text, nullptr, fields, 2), -1);
    EXPECT_EQ(str_split(nullptr, nullptr, nullptr, 0), -1);
    EXPECT_EQ(fields[0], text);
    EXPECT_STREQ(text, "a,b");
    EXPECT_EQ(str_split(text, ",", nullptr, 2), 2);
}

/* Splits the text at `ours`, a copy of `text`, and expects what strtok_r() makes of it. */
void expect_plain_split(char *ours, const std::string &text, const std::string &delimiters) {
    std::string plain = text;
    std::vector<char *> fields(4, nullptr);
    const int count = str_split(ours, delimiters.c_str(), fields.data(), fields.size());
    const auto expected = keel_test::plain_split(plain.data(), delimiters.c_str());
    ASSERT_EQ(count, static_cast<int>(expected.size())) << text;
    ASSERT_EQ(std::string(ours, text.size()), plain) << "the same bytes are terminators now";
    for (std::size_t f = 0; f < fields.size(); f++) {
        if (f < expected.size())
            ASSERT_EQ(fields[f] - ours, expected[f] - plain.data()) << text;
        else
            ASSERT_EQ(fields[f], nullptr);
    }
}

TEST(Split, RandomTexts) {
    std::mt19937 random(3);
    for (int i = 0; i < random_rounds; i++) {
        const std::string text = random_text(random, "abc,,; \xe9\xff", 30);
        writable ours(text);
        expect_plain_split(ours.get(), text, random_text(random, ",; \xe9\xff", 3));
    }
}

/* Sets below, at and above the size from which characters are looked up one by one. */
const std::string delimiter_sets[] = {
    "", ",", ",;", ",;:|/+-", ",;:|/+-=", ",;:|/+-=!", ",,,,,,,,,,", ",;:|/+-=!?*#%&()<>\xff",
};

/* Texts longer than two blocks of those that are searched at once. */
TEST(Split, DelimitersAtEveryPlace) {
    for (const std::string &delimiters : delimiter_sets)
        for (const std::size_t length : {1U, 15U, 16U, 17U, 63U, 64U, 65U, 127U, 128U, 129U, 140U})
            for (std::size_t place = 0; place < length; place++)
                for (std::size_t run = 1; run <= 3; run++) {
                    std::string text(length, 'x');
                    for (std::size_t i = place; i < std::min(place + run, length); i++)
                        text[i] = delimiters.empty() ? ',' : delimiters.back();
                    writable ours(text);
                    expect_plain_split(ours.get(), text, delimiters);
                }
}

/* A page with no memory before and behind it. */
class lone_page {
  public:
    lone_page() {
        EXPECT_NE(begin_, MAP_FAILED);
        EXPECT_EQ(mprotect(begin(), size_, PROT_READ | PROT_WRITE), 0);
    }
    ~lone_page() { munmap(begin_, 3 * size_); }
    lone_page(const lone_page &) = delete;
    lone_page &operator=(const lone_page &) = delete;

    char *begin() { return static_cast<char *>(begin_) + size_; }
    char *end() { return begin() + size_; }

  private:
    std::size_t size_ = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void *begin_ = mmap(nullptr, 3 * size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
};

TEST(Split, StaysInsideTheText) {
    std::mt19937 random(4);
    lone_page page;
    for (const std::string &delimiters : delimiter_sets)
        for (std::size_t length = 0; length <= 200; length++) {
            std::string text(length, 'x');
            for (char &c : text)
                if (!delimiters.empty() && random() % 16 == 0)
                    c = delimiters[random() % delimiters.size()];
            for (char *ours : {page.begin(), page.end() - text.size() - 1}) {
                std::memcpy(ours, text.c_str(), text.size() + 1);
                expect_plain_split(ours, text, delimiters);
            }
        }
}

TEST(Split, WritesNothingWhereThereAreNoDelimiters) {
    static const char text[] = "as read-only as any literal";
    char *field = nullptr;
    EXPECT_EQ(str_split(const_cast<char *>(text), ",", &field, 1), 1);
    EXPECT_EQ(field, text);
}

TEST(Split, CountsAMillionFields) {
    std::string text;
    for (int i = 0; i < 1'000'000; i++)
        text += "x,";
    char *field = nullptr;
    EXPECT_EQ(str_split(text.data(), ",", &field, 1), 1'000'000);
    EXPECT_EQ(field, text.data());
}

/* ---- Comparing ------------------------------------------------------------------------------ */

TEST(CompareFromEnd, Rows) {
    struct {
        const char *left;
        const char *right;
        int expected;
    } const rows[] = {
        {"", "", 0},          {"", "anything", 0},   {"file.log", ".log", 0}, {"abc", "abc", 0},
        {"abc", "xbc", -1},   {"b", "a", 1},         {"abd", "abc", 1},       {"zza", "aab", -1},
        {"xab", "ab", 0},     {"b.log", "a.log", 1}, {"\xe9", "a", -1},       {"a\xe9", "aa", -1},
        {"\x80", "\x7f", -1}, {"\xff", "\x80", 1},   {"\xff", "\x01", -1},    {"aX", "bX", -1},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(strrcmp(row.left, row.right), row.expected) << row.left << " " << row.right;
        EXPECT_EQ(strrcmp(row.right, row.left), -row.expected) << row.left << " " << row.right;
        EXPECT_EQ(strrncmp(row.left, row.right, SIZE_MAX), row.expected);
        EXPECT_EQ(strrncmp(row.left, row.right, 0), 0);
        EXPECT_EQ(strrncmp(row.left, row.right, 1), 0);
    }
}

TEST(CompareFromEnd, CountsOneLessThanTheLimit) {
    EXPECT_EQ(strrncmp("abc", "xbc", 3), 0);
    EXPECT_EQ(strrncmp("abc", "xbc", 4), -1);
    EXPECT_EQ(strrncmp("abc", "xbc", 5), -1);
    EXPECT_EQ(strrncmp("abc", "abd", 1), 0);
    EXPECT_EQ(strrncmp("abc", "abd", 2), -1);
    EXPECT_EQ(strrncmp("", "abd", 5), 0);
}

TEST(CompareFromEnd, NullComesFirst) {
    EXPECT_EQ(strrcmp(nullptr, ""), -1);
    EXPECT_EQ(strrcmp("", nullptr), 1);
    EXPECT_EQ(strrcmp(nullptr, nullptr), 0);
    EXPECT_EQ(strrncmp(nullptr, "", 5), -1);
    EXPECT_EQ(strrncmp("", nullptr, 5), 1);
    EXPECT_EQ(strrncmp(nullptr, nullptr, 5), 0);
}

TEST(CompareFromEnd, RandomTexts) {
    std::mt19937 random(4);
    for (int i = 0; i < random_rounds; i++) {
        const std::string left = random_text(random, "ab\xe9\x7f", 5);
        const std::string right = random_text(random, "ab\xe9\x7f", 5);
        const std::size_t limit = random() % 8;
        ASSERT_EQ(strrcmp(left.c_str(), right.c_str()),
                  keel_test::plain_compare_from_end(left, right, SIZE_MAX));
        ASSERT_EQ(strrncmp(left.c_str(), right.c_str(), limit),
                  keel_test::plain_compare_from_end(left, right, limit == 0 ? 0 : limit - 1));
    }
}

TEST(CompareFormatted, TellsABeginning) {
    EXPECT_EQ(str_startwithf("text and more", "%s", "text"), 1);
    EXPECT_EQ(str_startwithf("text", "%s", "text"), 1);
    EXPECT_EQ(str_startwithf("tex", "%s", "text"), 0);
    EXPECT_EQ(str_startwithf("Text", "%s", "text"), 0);
    EXPECT_EQ(str_startwithf("item 12", "item %d", 1), 1);
    EXPECT_EQ(str_startwithf("anything", "%s", ""), 1);
    EXPECT_EQ(str_startwithf("", "%s", ""), 1);
    EXPECT_EQ(str_startwithf("", "%s", "x"), 0);
    EXPECT_EQ(str_startwithf(nullptr, "%s", "x"), 0);
}

TEST(CompareFormatted, IsStrcmp) {
    EXPECT_EQ(strcmpf("item 1", "item %d", 1), 0);
    EXPECT_EQ(strcmpf("", "%s", ""), 0);
    const char *const texts[] = {"", "a", "b", "ab", "\xe9", "a\xe9"};
    for (const char *left : texts)
        for (const char *right : texts)
            EXPECT_EQ(strcmpf(left, "%s", right), std::strcmp(left, right));
    EXPECT_LT(strcmpf(nullptr, "%s", "x"), 0);
}

TEST(CompareFormatted, EndsWithoutAWordWhereTheFormatFails) {
    EXPECT_EQ(run_in_child([] { str_startwithf("text", "%ls", unwritable); }), exited(1));
    EXPECT_EQ(run_in_child([] { strcmpf("text", "%ls", unwritable); }), exited(1));
    for (int (*const unchecked)(const char *, const char *, ...) : {str_startwithf, strcmpf})
        EXPECT_EQ(run_in_child([&] { unchecked("text", nullptr); }), exited(1));
}

} // namespace

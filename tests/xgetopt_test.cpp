/* SPDX-License-Identifier: MIT */
#include "xgetopt.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "cancelled.h"
#include "child.h"

namespace {

using keel_test::child_result;
using keel_test::exited;
using keel_test::run_in_child;
using std::string;

using handler = int(int value, int index);

/* Arguments as main() gets them, behind a program's name. */
class command_line {
  public:
    explicit command_line(const std::vector<string> &arguments) : words_{"prog"} {
        words_.insert(words_.end(), arguments.begin(), arguments.end());
        for (string &word : words_)
            argv_.push_back(word.data());
        argv_.push_back(nullptr);
    }

    int count() const { return static_cast<int>(words_.size()); }
    char *const *argv() const { return argv_.data(); }

    /* The arguments in their order of now. */
    std::vector<string> arguments() const { return {argv_.begin() + 1, argv_.end() - 1}; }

  private:
    std::vector<string> words_;
    std::vector<char *> argv_;
};

/* Tells value, index and argument. */
int print_option(int value, int index) {
    std::printf("%d/%d/%s\n", value, index, optarg == nullptr ? "-" : optarg);
    return 0;
}

string seen(int value, int index = 0, const string &argument = "-") {
    return std::to_string(value) + "/" + std::to_string(index) + "/" + argument + "\n";
}

string left_over(const string &arguments) {
    return "non-option ARGV-elements: " + arguments + "\n";
}

constexpr char usage_text[] = "usage: prog [options]\n";

int flagged;

constexpr option long_options[] = {
    {"alpha", no_argument, nullptr, 'a'},       {"alter", no_argument, nullptr, 'A'},
    {"file", required_argument, nullptr, 'f'},  {"filename", required_argument, nullptr, 'n'},
    {"level", optional_argument, nullptr, 300}, {"flagged", no_argument, &flagged, 'x'},
    {"zero", no_argument, nullptr, 0},          {"warnings", required_argument, nullptr, 'W'},
    {"same", no_argument, nullptr, 's'},        {"same-again", no_argument, nullptr, 's'},
    {"beyond", no_argument, nullptr, 1000},     {nullptr, 0, nullptr, 0},
};

/* How a program ends that parses its arguments and has nothing else to do. */
child_result parsing(const std::vector<string> &arguments, const char *shortopts,
                     const option *longopts = nullptr, handler *handle = print_option,
                     const char *text = usage_text) {
    return run_in_child([&] {
        const command_line line(arguments);
        xgetopt(line.count(), line.argv(), shortopts, longopts, handle, text);
    });
}

child_result parsed(const string &out) {
    return {0, 0, out, ""};
}

child_result rejected(const string &message, const string &options = "") {
    return {1, 0, options + usage_text, message + "\n"};
}

struct row {
    std::vector<string> arguments;
    const char *shortopts;
    string text; /* what is printed, or the message */
    string options = "";
};

string told(const std::vector<string> &arguments) {
    string text;
    for (const string &argument : arguments)
        text += argument + " ";
    return text;
}

void expect_parsed(const std::vector<row> &rows, const option *longopts = nullptr) {
    for (const row &r : rows)
        EXPECT_EQ(parsing(r.arguments, r.shortopts, longopts), parsed(r.text)) << told(r.arguments);
}

void expect_rejected(const std::vector<row> &rows, const option *longopts = nullptr) {
    for (const row &r : rows)
        EXPECT_EQ(parsing(r.arguments, r.shortopts, longopts), rejected(r.text, r.options))
            << told(r.arguments);
}

/* ---- What is accepted ----------------------------------------------------------------------- */

TEST(Options, GoToTheHandler) {
    expect_parsed({
        {{}, "ab", ""},
        {{}, nullptr, ""},
        {{"-a"}, "a", seen('a')},
        {{"-b", "-a", "-b"}, "ab", seen('b') + seen('a') + seen('b')},
        {{"-aba"}, "ab", seen('a') + seen('b') + seen('a')},
        {{"-a", "1"}, "a:", seen('a', 0, "1")},
        {{"-a1"}, "a:", seen('a', 0, "1")},
        {{"-ba", "1", "-b"}, "a:b", seen('b') + seen('a', 0, "1") + seen('b')},
        {{"-a", "-b"}, "a:b", seen('a', 0, "-b")},
        {{"-a", "--"}, "a:", seen('a', 0, "--")},
        {{"-a", ""}, "a:", seen('a', 0, "")},
        {{"-c", "-c1"}, "c::", seen('c') + seen('c', 0, "1")},
        {{"-7", "-\xe4"}, "7\xe4", seen('7') + seen('\xe4')},
    });
}

TEST(Options, LongOnesTellTheirIndex) {
    expect_parsed(
        {
            {{"--alter"}, "", seen('A', 1)},
            {{"--file", "x", "-a"}, "a", seen('f', 2, "x") + seen('a')},
            {{"--file=x=y", "--file="}, nullptr, seen('f', 2, "x=y") + seen('f', 2, "")},
            {{"--level", "--level=9"}, "", seen(300, 4) + seen(300, 4, "9")},
            {{"--zero", "--beyond"}, "", seen(0, 6) + seen(1000, 10)},
            {{"--filen", "x"}, "", seen('n', 3, "x")},
            {{"--le=2", "--alp", "--b"}, "", seen(300, 4, "2") + seen('a') + seen(1000, 10)},
            {{"--sam"}, "", seen('s', 8)},
        },
        long_options);
}

TEST(Options, LongOnesWithAFlagSetIt) {
    const auto flag_set = [] {
        const command_line line({"--flagged"});
        xgetopt(line.count(), line.argv(), "x", long_options, print_option, usage_text);
        std::printf("%d", flagged);
    };
    EXPECT_EQ(run_in_child(flag_set), parsed(seen(0, 5) + std::to_string('x')));
}

TEST(Options, WIsAcceptedUnseen) {
    expect_parsed({
        {{"-W", "foo"}, "", ""},
        {{"-Wfoo"}, nullptr, ""},
        {{"-aWfoo", "-a"}, "a", seen('a') + seen('a')},
        {{"-W", "-a"}, "a", ""},
        {{"-W", "foo"}, "W", ""},
        {{"-W", "foo"}, "W;", ""},
        {{"-W", "x", "y"}, "a", left_over("y")},
    });
    expect_parsed({{{"-W", "alpha"}, "", ""}, {{"--warnings", "x", "--warn=y"}, "", ""}},
                  long_options);
}

TEST(Options, AreAcceptedByANullHandler) {
    EXPECT_EQ(parsing({"-ab", "x", "--alpha"}, "ab:", long_options, nullptr), parsed(""));
    EXPECT_EQ(parsing({"-x"}, "a", nullptr, nullptr), rejected("invalid option -- 'x'"));
}

TEST(Options, MayFollowOtherArguments) {
    expect_parsed({
        {{"one", "-a", "two", "-b"}, "ab", seen('a') + seen('b') + left_over("one two")},
        {{"one", "-a", "two"}, "+a", seen('a') + left_over("one two")},
        {{"one", "-a", "two"}, "-a", seen('a') + left_over("one two")},
        {{"one", "-c", "1", "two"}, "c:", seen('c', 0, "1") + left_over("one two")},
    });
}

TEST(Options, EndWithTheFirstOtherArgumentWhereTheEnvironmentSaysSo) {
    const auto posix = [] {
        setenv("POSIXLY_CORRECT", "1", 1);
        const command_line line({"-a", "one", "-a"});
        xgetopt(line.count(), line.argv(), "a", nullptr, print_option, usage_text);
    };
    EXPECT_EQ(run_in_child(posix), parsed(seen('a') + left_over("one -a")));
}

TEST(OtherArguments, AreListed) {
    expect_parsed({
        {{"-a", "1", "file1", "file2"}, "a:", seen('a', 0, "1") + left_over("file1 file2")},
        {{"one"}, "", left_over("one")},
        {{"-"}, "a", left_over("-")},
        {{"", "x"}, "a", left_over(" x")},
        {{"%s%n"}, "", left_over("%s%n")},
        {{"--"}, "a", ""},
        {{"--", "-a"}, "a", left_over("-a")},
        {{"--", "--"}, "a", left_over("--")},
        {{"-a", "--", "-x", "--colour"}, "a", seen('a') + left_over("-x --colour")},
        {{"one", "-a", "--", "-x"}, "a", seen('a') + left_over("one -x")},
    });
}

TEST(OtherArguments, StandBehindTheOptionsAfterwards) {
    const auto aftermath = [] {
        const command_line line({"one", "-a", "two", "-b3"});
        xgetopt(line.count(), line.argv(), "ab:", nullptr, nullptr, usage_text);
        EXPECT_EQ(line.arguments(), (std::vector<string>{"-a", "-b3", "one", "two"}));
        std::printf("%d %d", optind, opterr);
    };
    EXPECT_EQ(run_in_child(aftermath), parsed(left_over("one two") + "5 0"));
}

/* ---- What is not ---------------------------------------------------------------------------- */

TEST(InvalidOptions, AreNamedByTheirCharacter) {
    expect_rejected({
        {{"-x"}, "a", "invalid option -- 'x'"},
        {{"-x"}, nullptr, "invalid option -- 'x'"},
        {{"-ax"}, "a", "invalid option -- 'x'", seen('a')},
        {{"-axa"}, "a", "invalid option -- 'x'", seen('a')},
        {{"-xa"}, "a", "invalid option -- 'x'"},
        {{"-a", "-x", "-a"}, "a", "invalid option -- 'x'", seen('a')},
        {{"one", "-a", "two", "-xy", "three"}, "a", "invalid option -- 'x'", seen('a')},
        {{"--file", "-x"}, "f", "invalid option -- 'file'"},
        {{"-A"}, "a", "invalid option -- 'A'"},
        {{"-a-"}, "a", "invalid option -- '-'", seen('a')},
        {{"-:"}, "a:", "invalid option -- ':'"},
        {{"-;"}, "a;", "invalid option -- ';'"},
        {{"-?"}, "a", "invalid option -- '?'"},
        {{"-%"}, "a", "invalid option -- '%'"},
        {{"-\x01"}, "a", "invalid option -- '\x01'"},
        {{"-\xe4"}, "a", "invalid option -- '\xe4'"},
        {{"-\xff"}, "a", "invalid option -- '\xff'"},
    });
}

TEST(InvalidOptions, AreNamedAsTheyWereTypedWhereLong) {
    expect_rejected({
        {{"--colour"}, "a", "invalid option -- 'colour'"},
        {{"--colour"}, nullptr, "invalid option -- 'colour'"},
        {{"--c"}, "c", "invalid option -- 'c'"},
        {{"--colour=red"}, "a", "invalid option -- 'colour=red'"},
        {{"--colour", "red"}, "a", "invalid option -- 'colour'"},
        {{"---x"}, "x", "invalid option -- '-x'"},
        {{"--="}, "a", "invalid option -- '='"},
        {{"--%s%n"}, "a", "invalid option -- '%s%n'"},
        {{"-a", "one", "--colour", "two"}, "a", "invalid option -- 'colour'", seen('a')},
        {{"one", "two", "--colour"}, "a", "invalid option -- 'colour'"},
    });
    const string endless(100'000, 'x');
    EXPECT_EQ(parsing({"--" + endless}, "a"), rejected("invalid option -- '" + endless + "'"));
}

TEST(InvalidOptions, AreThoseThatAreAmbiguous) {
    expect_rejected(
        {
            {{"--al"}, "", "invalid option -- 'al'"},
            {{"one", "--al=3", "two"}, "", "invalid option -- 'al=3'"},
            {{"--fil", "x"}, "", "invalid option -- 'fil'"},
            {{"--=x"}, "", "invalid option -- '=x'"},
            {{"--Alpha"}, "", "invalid option -- 'Alpha'"},
            {{"--alphabet"}, "", "invalid option -- 'alphabet'"},
        },
        long_options);
}

/* getopt_long() tells their value then; there is none to tell where it is 0. */
TEST(InvalidOptions, AreThoseWithAnArgumentThatTheyDoNotTake) {
    expect_rejected(
        {
            {{"--alpha=3"}, "", "invalid option -- 'a'"},
            {{"--alp=3", "-b"}, "b", "invalid option -- 'a'"},
            {{"--flagged="}, "", "invalid option -- 'x'"},
            {{"--zero=3"}, "", "invalid option -- 'zero=3'"},
            {{"one", "--z=3"}, "", "invalid option -- 'z=3'"},
            {{"--beyond=3"}, "", "invalid option -- '\xe8'"},
        },
        long_options);
}

/* What getopt_long() reports with and what an option stands for are one and the same then. */
TEST(InvalidOptions, AreThoseWhoseValuesAreReports) {
    constexpr option options[] = {{"help", no_argument, nullptr, '?'},
                                  {"colon", required_argument, nullptr, ':'},
                                  {nullptr, 0, nullptr, 0}};
    expect_rejected(
        {
            {{"--help"}, "a", "invalid option -- 'help'"},
            {{"-?"}, "a?", "invalid option -- '?'"},
            {{"-a?a"}, "a?", "invalid option -- '?'", seen('a')},
            {{"--colon=x"}, "a", "option requires an argument -- 'colon=x'"},
            {{"--colon", "x"}, "a", "option requires an argument -- ':'"},
        },
        options);
}

TEST(IncompleteOptions, AreNamedByTheirCharacter) {
    expect_rejected({
        {{"-a"}, "a:", "option requires an argument -- 'a'"},
        {{"-ba"}, "a:b", "option requires an argument -- 'a'", seen('b')},
        {{"one", "-a"}, "a:", "option requires an argument -- 'a'"},
        {{"-a", "1", "two", "-a"}, "a:", "option requires an argument -- 'a'", seen('a', 0, "1")},
        {{"-\xe4"}, "\xe4:", "option requires an argument -- '\xe4'"},
        {{"-W"}, "", "option requires an argument -- 'W'"},
        {{"-aW"}, "a", "option requires an argument -- 'W'", seen('a')},
    });
}

TEST(IncompleteOptions, AreNamedAsTheyWereTypedWhereLong) {
    expect_rejected(
        {
            {{"--file"}, "", "option requires an argument -- 'file'"},
            {{"--file"}, "f:", "option requires an argument -- 'file'"},
            {{"--filen"}, "", "option requires an argument -- 'filen'"},
            {{"one", "--filename"}, "", "option requires an argument -- 'filename'"},
            {{"-a", "one", "--warn"}, "a", "option requires an argument -- 'warn'", seen('a')},
            {{"--alpha", "-f"}, "f:", "option requires an argument -- 'f'", seen('a')},
        },
        long_options);
}

int reject_v(int value, int index) {
    print_option(value, index);
    return value == 'v' ? -1 : 0;
}

int reject_all(int, int) {
    return 1;
}

TEST(RejectedOptions, AreNamedByTheirValue) {
    EXPECT_EQ(parsing({"-v"}, "v", nullptr, reject_v),
              rejected("unknown option -- 'v'", seen('v')));
    EXPECT_EQ(parsing({"one", "-bva", "two"}, "abv", nullptr, reject_v),
              rejected("unknown option -- 'v'", seen('b') + seen('v')));
    const struct {
        const char *argument;
        string name;
    } rows[] = {{"-b", "b"},
                {"-\xe4", "\xe4"},
                {"--alter", "A"},
                {"--filen=x", "n"},
                {"--level", ","},
                {"--zero", string(1, '\0')},
                {"--flagged", string(1, '\0')}};
    for (const auto &r : rows)
        EXPECT_EQ(parsing({r.argument}, "b\xe4", long_options, reject_all),
                  rejected("unknown option -- '" + r.name + "'"))
            << r.argument;
    EXPECT_EQ(parsing({"-W", "x"}, "", nullptr, reject_all), parsed("")) << "it never sees -W";
}

TEST(Usage, IsPrintedAsItStands) {
    const string endless(100'000, 'x');
    for (const char *text : {"", "%s%d%n%%", "no newline", "two\nlines\n", endless.c_str()})
        EXPECT_EQ(parsing({"-x"}, "", nullptr, print_option, text),
                  (child_result{1, 0, text, "invalid option -- 'x'\n"}));
    EXPECT_EQ(parsing({"-x"}, "", nullptr, print_option, nullptr),
              exited(1, "invalid option -- 'x'\n"));
}

/* ---- Limits --------------------------------------------------------------------------------- */

TEST(ShortOptions, CountUpToTheirLimit) {
    const auto with_filling = [](std::size_t filling, const string &options,
                                 const std::vector<string> &arguments) {
        return parsing(arguments, (string(filling, 'b') + options).c_str());
    };
    EXPECT_EQ(with_filling(506, "a:", {"-a", "1"}), parsed(seen('a', 0, "1")));
    EXPECT_EQ(with_filling(507, "a:", {"-a", "1"}), parsed(seen('a') + left_over("1")));
    EXPECT_EQ(with_filling(508, "a:", {"-a", "1"}), rejected("invalid option -- 'a'"));
    EXPECT_EQ(with_filling(506, "c::", {"-c1"}), parsed(seen('c', 0, "1")));
    EXPECT_EQ(with_filling(506, "c::", {"-c"}), rejected("option requires an argument -- 'c'"));
    EXPECT_EQ(with_filling(1'000'000, "a", {"-b"}), parsed(seen('b')));
}

TEST(Arguments, MayBeMissing) {
    const auto without = [] {
        const command_line line({"-x"});
        xgetopt(2, nullptr, "a", nullptr, print_option, usage_text);
        xgetopt(0, nullptr, "a", nullptr, print_option, usage_text);
        xgetopt(0, line.argv(), "a", nullptr, print_option, usage_text);
        xgetopt(-1, line.argv(), "a", nullptr, print_option, usage_text);
        std::printf("%d %d", optind, opterr);
        xgetopt(1, line.argv(), "a", nullptr, print_option, usage_text);
    };
    EXPECT_EQ(run_in_child(without), parsed("1 1"));
}

/* ---- One parse after another ---------------------------------------------------------------- */

void parse(const std::vector<string> &arguments, handler *handle = print_option) {
    const command_line line(arguments);
    xgetopt(line.count(), line.argv(), "ab:c", long_options, handle, usage_text);
}

TEST(Parses, BeginAfreshWhereTheCallerSaysSo) {
    for (const int beginning : {0, 1}) {
        const auto twice = [&] {
            parse({"one", "-ac", "two", "--zero"});
            optind = beginning;
            parse({"-c", "three", "-b2", "four", "-a"});
            optind = beginning;
            parse({"--alter"});
        };
        EXPECT_EQ(run_in_child(twice),
                  parsed(seen('a') + seen('c') + seen(0, 6) + left_over("one two") + seen('c') +
                         seen('b', 0, "2") + seen('a') + left_over("three four") + seen('A', 1)));
    }
}

TEST(Parses, GoOnWhereTheCallerSaysSo) {
    const auto from_third = [] {
        optind = 3;
        parse({"-x", "-y", "-a", "one"});
    };
    EXPECT_EQ(run_in_child(from_third), parsed(seen('a') + left_over("one")));
}

int throw_at_a(int value, int index) {
    if (value == 'a')
        throw std::runtime_error("a");
    return print_option(value, index);
}

/* What is left of a cluster, whose memory is gone, belongs to no later parse. */
TEST(Parses, BeginAfreshAfterOneThatWasLeft) {
    const auto left = [] {
        EXPECT_THROW(parse({"-cac"}, throw_at_a), std::runtime_error);
        optind = 1;
        parse({"one", "-b", "2"});
    };
    EXPECT_EQ(run_in_child(left), parsed(seen('c') + seen('b', 0, "2") + left_over("one")));
}

TEST(Parses, BeginAfreshWhereThereIsNoSuchArgument) {
    for (const int beginning : {-1, 4, 1000}) {
        const auto beyond = [&] {
            parse({"one", "-a", "two"});
            optind = beginning;
            parse({"-a", "-c"});
        };
        EXPECT_EQ(run_in_child(beyond),
                  parsed(seen('a') + left_over("one two") + seen('a') + seen('c')))
            << beginning;
    }
}

TEST(Endings, AreWholeThoughTheThreadIsCancelled) {
    const auto invalid = [] {
        keel_test::run_cancelled([] {
            std::fputs("pending\n", stdout);
            parse({"-x"});
        });
    };
    EXPECT_EQ(run_in_child(invalid), rejected("invalid option -- 'x'", "pending\n"));
    const string endless(100'000, 'x');
    const auto listing = [&] { keel_test::run_cancelled([&] { parse({endless, "two"}); }); };
    EXPECT_EQ(run_in_child(listing), parsed(left_over(endless + " two")));
}

} // namespace

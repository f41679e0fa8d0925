/* SPDX-License-Identifier: MIT */
#include "xgetopt.h"

#include <cstdio>
#include <cstring>

#include "announce.h"
#include "cancel_shield.h"
#include "ending.h"

namespace {

constexpr option longopts_empty[] = {{nullptr, 0, nullptr, 0}};

/* The ":" makes getopt_long() tell a missing argument from an unknown option. */
struct short_options {
    explicit short_options(const char *callers) {
        std::snprintf(text, sizeof text, ":W:%.508s", callers == nullptr ? "" : callers);
    }

    char text[512];
};

[[noreturn]] void usage(const char *text) {
    keel::announce(stdout, "%s", text == nullptr ? "" : text);
    keel::end_process(1);
}

[[noreturn]] void reject(const char *complaint, int option, const char *usage_text) {
    keel::announce(stderr, "%s -- '%c'\n", complaint, option);
    usage(usage_text);
}

[[noreturn]] void reject(const char *complaint, const char *option, const char *usage_text) {
    keel::announce(stderr, "%s -- '%s'\n", complaint, option);
    usage(usage_text);
}

/* A long option is named as it was typed. `optopt` is 0 where that is none, and its value where it
 * was given an argument that it does not take. What is missing an argument is the last word; an
 * invalid short option may stand in the middle of one, which `optind` is not past yet. */
[[noreturn]] void reject_typed(int report, char *const argv[], const char *usage_text) {
    const bool incomplete = report == ':';
    const char *complaint = incomplete ? "option requires an argument" : "invalid option";
    if ((incomplete || optopt == 0) && std::strncmp(argv[optind - 1], "--", 2) == 0)
        reject(complaint, argv[optind - 1] + 2, usage_text);
    const bool accepted = optopt == 0; // so '?' was an option, and is not to be told from a report
    reject(complaint, accepted ? report : optopt, usage_text);
}

/* getopt_long() may still hold on to a word of an earlier parse, whose arguments may be gone. At 0
 * it forgets that, and goes on from 1. */
void begin_parse(int argc) {
    if (optind <= 1 || optind > argc)
        optind = 0;
    opterr = 0;
}

/* In one line, whole also beside those of other threads. */
void non_option_argv_elements(int argc, char *const argv[]) {
    if (optind >= argc)
        return;
    const keel::cancel_shield shield;
    flockfile(stdout);
    std::fputs("non-option ARGV-elements:", stdout);
    while (optind < argc)
        std::printf(" %s", argv[optind++]);
    std::putchar('\n');
    funlockfile(stdout);
}

} // namespace

void xgetopt(int argc, char *const argv[], const char *shortopts, const option *longopts,
             int (*handler)(int value, int index), const char *usage_text) {
    if (argv == nullptr || argc < 1)
        return;
    const short_options short_ones(shortopts);
    const option *long_ones = longopts == nullptr ? longopts_empty : longopts;
    begin_parse(argc);
    int index = 0;
    for (int value; (value = getopt_long(argc, argv, short_ones.text, long_ones, &index)) != -1;
         index = 0) {
        if (value == '?' || value == ':')
            reject_typed(value, argv, usage_text);
        if (value != 'W' && handler != nullptr && handler(value, index) != 0)
            reject("unknown option", value, usage_text);
    }
    non_option_argv_elements(argc, argv);
}

/* SPDX-License-Identifier: MIT */
/**
 * @file xgetopt.h
 * @brief Command-line options: each goes to a handler; a bad one ends the program with its usage.
 *
 * xgetopt() drives getopt_long() over a program's arguments, so short options may be clustered,
 * long ones abbreviated, "--" ends the options, and arguments that are none of them may stand
 * anywhere (or, with POSIXLY_CORRECT in the environment, end the options too). `optarg` is the
 * argument of the option that the handler is called for.
 *
 * What is wrong is said on standard error, in one line; then the usage text goes to standard output
 * and the process ends with status 1:
 *
 *     invalid option -- 'x'                  neither a short nor a long option
 *     option requires an argument -- 'file'
 *     unknown option -- 'v'                  the handler rejected it
 *
 * A long option that is missing an argument or is none at all is named as it was typed, without its
 * dashes; every other one by its value as a character, also one that was given an argument though
 * it takes none, unless its value is 0.
 *
 * Not thread-safe: `optind`, `opterr`, `optopt`, `optarg` and what getopt_long() remembers belong
 * to the whole process, and all of them are changed.
 *
 * @code{.c}
 * #include <stdlib.h>
 * #include <string.h>
 * #include <xgetopt.h>
 *
 * static int loudness;
 * static const char *settings;
 *
 * static int take_option(int value, int index) {
 *     (void)index;
 *     if (value == 'v')
 *         loudness++;
 *     if (value == 'f')
 *         settings = optarg;
 *     return 0;
 * }
 *
 * int main(void) {
 *     static const struct option options[] = {{"verbose", no_argument, NULL, 'v'},
 *                                             {"file", required_argument, NULL, 'f'},
 *                                             {NULL, 0, NULL, 0}};
 *     char words[4][16] = {"service", "-vv", "--file=a.conf", "--verbose"};
 *     char *argv[] = {words[0], words[1], words[2], words[3], NULL};
 *     xgetopt(4, argv, "vf:", options, take_option, "usage: service [-v] [-f FILE]\n");
 *     return loudness == 3 && strcmp(settings, "a.conf") == 0 ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XGETOPT_H
#define KEEL_XGETOPT_H

#include <getopt.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/**
 * Calls `handler` for each option in `argv`, in their order. Returns when all have been accepted;
 * the arguments that are left have then been listed on standard output, as in
 * "non-option ARGV-elements: a b\n", and `optind` is `argc`.
 *
 * `argv`: what main() was given: `argc` strings, the first of them the program's name. They may
 * come out in another order, with those that are no options behind the others.
 *
 * `shortopts`: as for getopt(), "ab:c::", or null. 508 characters of it count; a "+", "-" or ":" at
 * the beginning does not have the meaning that it has there. `longopts`: as for getopt_long(), or
 * null. "-W", with an argument, is always accepted and never reaches the handler, and neither do
 * long options whose value is 'W'; '?', ':' and -1 are no values for an option.
 *
 * `handler`: takes the option's character, or the value of a long one (0 where it has a flag, which
 * is set), and the index of a long one in `longopts` (0 for a short one). It returns 0 to accept
 * the option. Null accepts all of them.
 *
 * `usage_text`: printed as it stands; null prints nothing.
 *
 * The search begins at `optind`, which is 1 unless the caller has changed it. With 0, with 1, and
 * with what is no index of `argv`, it begins afresh, whatever was parsed before. Does nothing where
 * `argv` is null or `argc` is not positive.
 */
KEEL_API void xgetopt(int argc, char *const argv[], const char *shortopts,
                      const struct option *longopts, int (*handler)(int value, int index),
                      const char *usage_text);

KEEL_END_DECLS

#endif

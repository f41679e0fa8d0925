/* SPDX-License-Identifier: MIT */
/* What a program pays for being linked with keel, before it calls anything. */
#include <vector>

#include "command.h"
#include "table.h"

using bench::always;
using bench::footprint;

namespace {

constexpr int starts = 20;

bench::contender program_started(const char *name, const char *program, double bar = 0) {
    return {name, always([program] {
                for (int i = 0; i < starts; i++)
                    bench::run_command({program});
            }),
            bar};
}

bench::contender program_held(const char *name, const char *program, double footprint::*figure,
                              double bar = 0) {
    return {
        name,
        [=] { return bench::job{.amount = [=] { return bench::footprint_of(program).*figure; }}; },
        bar};
}

} // namespace

int main(int argc, char *argv[]) {
    const auto started = [](double bar) -> std::vector<bench::contender> {
        return {program_started("a program with keel", START_KEEL),
                program_started("an empty C++ program", START_EMPTY, bar),
                program_started("the same without the C++ run time", START_BARE),
                program_started("a program with keel, libcurl too", START_FTP)};
    };
    const auto held = [](double footprint::*figure, double bar) -> std::vector<bench::contender> {
        return {program_held("a program with keel", START_KEEL, figure),
                program_held("an empty C++ program", START_EMPTY, figure, bar),
                program_held("the same without the C++ run time", START_BARE, figure),
                program_held("a program with keel, libcurl too", START_FTP, figure)};
    };
    return bench::measure(argc, argv,
                          {{.title = "Program start, from spawn to exit",
                            .item = "start",
                            .items = starts,
                            .floor = "one more shared object for the loader to map",
                            .contenders = started(1.1)},
                           {.title = "Memory, the most that was resident",
                            .item = "process",
                            .floor = "one more shared object, its pages touched while it is loaded",
                            .contenders = held(&footprint::resident_kib, 1.1),
                            .unit = "KiB"},
                           {.title = "Shared objects loaded, keel's own not counted",
                            .item = "process",
                            .contenders = held(&footprint::objects, 1.0),
                            .unit = "objects"}});
}

/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdint>
#include <ftw.h>
#include <list>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace keel_test {

/* The order of deletion as its contract tells, with no regard to speed: what a test holds the
 * library's own against. */

struct met_file {
    std::string path;
    struct stat status;
};

/* The regular files below `directory` in the order of the walk. */
inline std::vector<met_file> files_below(const std::string &directory) {
    static std::vector<met_file> met;
    met.clear();
    nftw(
        directory.c_str(),
        [](const char *path, const struct stat *status, int type, FTW *) {
            if (type == FTW_F && S_ISREG(status->st_mode))
                met.push_back({path, *status});
            return 0;
        },
        500, FTW_PHYS);
    return met;
}

/* The low half of a difference is the difference of the low halves. */
inline std::int32_t low_difference(std::int64_t from, std::int64_t what) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(from) -
                                     static_cast<std::uint32_t>(what));
}

inline std::int32_t compare(const met_file &a, const met_file &b) {
    if (a.status.st_atim.tv_sec != b.status.st_atim.tv_sec)
        return low_difference(a.status.st_atim.tv_sec, b.status.st_atim.tv_sec);
    return low_difference(b.status.st_size, a.status.st_size);
}

/* The paths of `files`, each inserted by a linear search. */
inline std::vector<std::string> in_order_of_deletion(const std::vector<met_file> &files) {
    std::list<const met_file *> order;
    for (const met_file &next : files) {
        auto place = order.begin();
        while (place != order.end() && compare(next, **place) > 0)
            ++place;
        order.insert(place, &next);
    }
    std::vector<std::string> paths;
    for (const met_file *file : order)
        paths.push_back(file->path);
    return paths;
}

/* What is told on standard output where these files are deleted. */
inline std::string told_of(const std::vector<std::string> &paths) {
    std::string text;
    for (const std::string &path : paths)
        text += "fcleanup:remove " + path + ".\n";
    return text;
}

} // namespace keel_test

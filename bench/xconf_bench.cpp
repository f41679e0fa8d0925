/* SPDX-License-Identifier: MIT */
/* A large directory walked and put into the order of its clean-up; a large configuration file
 * edited in place. */
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <ftw.h>
#include <functional>
#include <glib.h>
#include <malloc.h>
#include <memory>
#include <random>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>
#include <xconf.h>

#include "files.h"
#include "table.h"

using bench::always;
using bench::job;
using bench::require;

namespace {

/* ---- Clean-up ------------------------------------------------------------------------------- */

constexpr int many_files = 100'000;
constexpr int few_files = 10'000;

/* Files last accessed at any time of the last year, a thousand in a directory. Made before anything
 * is measured: disks are slow where files come soon after others went. */
class tree {
  public:
    tree(const std::string &parent, int files) : directory_(parent) {
        std::mt19937 random(1);
        const std::time_t now = std::time(nullptr);
        for (int i = 0; i < files; i++) {
            const std::string below = directory_ / ("camera-" + std::to_string(i / 1000));
            std::filesystem::create_directory(below);
            make_file(below + "/recording-" + std::to_string(i) + ".dat",
                      now - static_cast<std::time_t>(random() % (365 * 86400)),
                      static_cast<off_t>(random() % 1'000'000));
        }
    }

    const std::string &path() const { return directory_.path(); }

  private:
    static void make_file(const std::string &path, std::time_t accessed, off_t size) {
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        const timespec times[2] = {{accessed, 0}, {accessed, 0}};
        require(ftruncate(file, size) == 0 && futimens(file, times) == 0, "cannot make a file");
        close(file);
    }

    bench::scratch_dir directory_;
};

/* Walks and orders; then the first file turns out to be too young, and nothing is deleted. */
void keel_order(const tree &files) {
    const fs_limit limit = {FS_LIMIT_FREE | FS_LIMIT_AGE, 0, 1e9F, 1000};
    require(fcleanup(files.path().c_str(), &limit) == -1, "fcleanup reached its limit");
}

struct entry {
    std::int64_t accessed;
    std::int64_t size;
    std::string path;
};

std::vector<entry> entries;

int take_entry(const char *path, const struct stat *status, int type, FTW *) {
    if (type == FTW_F && S_ISREG(status->st_mode))
        entries.push_back({status->st_atim.tv_sec, status->st_size, path});
    return 0;
}

void walk_and_sort(const tree &files) {
    require(nftw(files.path().c_str(), take_entry, 500, FTW_PHYS) == 0, "nftw failed");
    std::sort(entries.begin(), entries.end(), [](const entry &a, const entry &b) {
        return std::tie(a.accessed, b.size, a.path) < std::tie(b.accessed, a.size, b.path);
    });
    require(!entries.empty(), "nftw found nothing");
    entries = {};
}

void walk_alone(const tree &files) {
    static int met;
    const auto count = [](const char *, const struct stat *, int type, FTW *) {
        met += type == FTW_F ? 1 : 0;
        return 0;
    };
    met = 0;
    require(nftw(files.path().c_str(), count, 500, FTW_PHYS) == 0 && met > 0, "nftw failed");
}

bench::table ordering(const char *title, const tree &files) {
    return {.title = title,
            .item = "walk",
            .floor = "one status call a file, which is what the walk alone takes",
            .contenders = {
                {"keel fcleanup, up to the first deletion", always([&] { keel_order(files); })},
                {"nftw and std::sort", always([&] { walk_and_sort(files); }), 1.1},
                {"nftw alone", always([&] { walk_alone(files); })}}};
}

bench::table ordering_growth(const tree &few, const tree &many) {
    return {.title = "Clean-up, growth",
            .item = "file",
            .items = many_files,
            .floor = "what grows with the order alone: 17 comparisons a file for 14",
            .contenders = {{"keel fcleanup, 100,000 files", always([&] { keel_order(many); })},
                           {"keel fcleanup, ten times 10,000", always([&] {
                                for (int i = 0; i < many_files / few_files; i++)
                                    keel_order(few);
                            }),
                            1.5}}};
}

double kilobytes_of_process(const std::string &figure) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, figure.size() + 1, figure + ":") == 0)
            return std::stod(line.substr(figure.size() + 1));
    bench::fail("/proc/self/status has no " + figure);
}

/* Bytes a file, the most that was resident meanwhile above what was before. */
double memory_of(void (*run)(const tree &), const tree &files) {
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5"; // the highest is from now on
    const double before = kilobytes_of_process("VmRSS");
    run(files);
    return (kilobytes_of_process("VmHWM") - before) * 1024 / many_files;
}

bench::table memory(const tree &files) {
    const auto amount = [&](void (*run)(const tree &)) {
        return [&files, run] {
            return job{.amount = [&files, run] { return memory_of(run, files); }};
        };
    };
    return {.title = "Clean-up of 100,000 files, memory at its highest",
            .item = "file",
            .contenders = {{"keel fcleanup, a path and a status record each", amount(keel_order)},
                           {"nftw and std::sort, a path, a time and a size each",
                            amount(walk_and_sort)}},
            .unit = "bytes"};
}

/* ---- Edits ---------------------------------------------------------------------------------- */

constexpr int settings = 10'000;
constexpr char edited_key[] = "service.limit.5000";

/* A value that is never the one before it, of the same length. */
std::string next_value() {
    static int number = 100'000;
    number = number == 999'999 ? 100'000 : number + 1;
    return std::to_string(number);
}

std::string text_of_settings(const char *head) {
    std::string text = head;
    for (int i = 0; i < settings; i++)
        text += "service.limit." + std::to_string(i) + "=" + next_value() + "\n";
    return text;
}

class edited_file {
  public:
    explicit edited_file(const std::string &parent, const char *head = "")
        : directory_(parent), path_(directory_ / "settings.conf"), text_(text_of_settings(head)) {
        bench::write_file(path_, text_);
    }

    const char *path() const { return path_.c_str(); }

    void modify() const {
        require(fmodify(path(), edited_key, '=', next_value().c_str()) == 0, "fmodify failed");
    }

    void replace_value() const {
        require(file_replace_value(path(), edited_key, "=", "%s", next_value().c_str()) == 0,
                "file_replace_value failed");
    }

    /* The least that an edit by way of a side file can cost. */
    void write_and_rename() const {
        const std::string side = path_ + "_bak";
        const int file =
            open(side.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_SYNC | O_CLOEXEC, 0666);
        require(write(file, text_.data(), text_.size()) == static_cast<ssize_t>(text_.size()) &&
                    close(file) == 0 && std::rename(side.c_str(), path()) == 0,
                "cannot write and rename");
    }

  private:
    bench::scratch_dir directory_;
    std::string path_;
    std::string text_;
};

/* The peer, which holds the file in memory all the time. */
class glib_settings {
  public:
    explicit glib_settings(const std::string &parent) : edited_(parent, "[main]\n") {
        require(g_key_file_load_from_file(file_, edited_.path(), G_KEY_FILE_NONE, nullptr) != FALSE,
                "GKeyFile cannot load");
    }
    ~glib_settings() { g_key_file_free(file_); }
    glib_settings(const glib_settings &) = delete;
    glib_settings &operator=(const glib_settings &) = delete;

    void set_and_save() const {
        g_key_file_set_string(file_, "main", edited_key, next_value().c_str());
        require(g_key_file_save_to_file(file_, edited_.path(), nullptr) != FALSE,
                "GKeyFile cannot save");
    }

  private:
    edited_file edited_;
    GKeyFile *file_ = g_key_file_new();
};

template <class Settings>
std::function<job()> edit(const std::string &parent, void (Settings::*once)() const) {
    return [=] {
        return job{.run = [once, of = std::make_shared<Settings>(parent)] { (*of.*once)(); }};
    };
}

struct edit_bars {
    double floor, glib;
};

bench::table editing(const std::string &title, const char *name, void (edited_file::*ours)() const,
                     const std::string &parent, edit_bars bars) {
    return {.title = title,
            .item = "edit",
            .floor = "the synchronous write, which alone is a third of GLib's time and more, and a "
                     "pass over every line",
            .contenders = {{name, edit(parent, ours)},
                           {"one synchronous write and a rename",
                            edit(parent, &edited_file::write_and_rename), bars.floor},
                           {"GLib GKeyFile, set and saved",
                            edit(parent, &glib_settings::set_and_save), bars.glib}}};
}

void add_editing(std::vector<bench::table> &tables, const std::string &where,
                 const std::string &parent, edit_bars bars) {
    const std::string title = "One of 10,000 settings edited, " + where;
    tables.push_back(editing(title, "keel fmodify", &edited_file::modify, parent, bars));
    tables.push_back(editing(title + ", by a format", "keel file_replace_value",
                             &edited_file::replace_value, parent, bars));
}

} // namespace

int main(int argc, char *argv[]) {
    const std::string disk = bench::disk_dir();
    const tree few(bench::memory_dir(), few_files);
    const tree many(bench::memory_dir(), many_files);
    std::unique_ptr<tree> many_on_disk;

    std::vector<bench::table> tables = {ordering("Clean-up of 100,000 files, in memory", many),
                                        ordering_growth(few, many), memory(many)};
    add_editing(tables, "in memory", bench::memory_dir(), {});
    if (disk.empty()) {
        std::puts("not measured: what is on a disk; the bench itself lies in memory");
    } else {
        many_on_disk = std::make_unique<tree>(disk, many_files);
        tables.push_back(ordering("Clean-up of 100,000 files, on a disk", *many_on_disk));
        add_editing(tables, "on the disk when the call returns", disk, {1.3, 0.25});
    }
    return bench::measure(argc, argv, std::move(tables));
}

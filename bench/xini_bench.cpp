/* SPDX-License-Identifier: MIT */
/* A large INI file, loaded and searched. */
#include <INIReader.h>
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>
#include <xini.h>

#include "files.h"
#include "table.h"

using bench::job;
using bench::require;

namespace {

constexpr int sections = 100;
constexpr int keys_per_section = 1000;
constexpr int lookups = 1'000'000;

struct name {
    std::string section;
    std::string key;
};

/* The names of all entries in no order, as people write them. */
std::vector<name> make_names() {
    std::mt19937 random(1);
    std::vector<name> names;
    for (int section = 0; section < sections; section++) {
        const std::size_t first = names.size();
        for (int key = 0; key < keys_per_section; key++)
            names.push_back({"service-" + std::to_string(section * 7919 % 1000),
                             "limit." + std::to_string(key)});
        std::shuffle(names.begin() + static_cast<std::ptrdiff_t>(first), names.end(), random);
    }
    return names;
}

std::string text_of(const std::vector<name> &names) {
    std::string text;
    const std::string *section = nullptr;
    for (const name &each : names) {
        if (section == nullptr || *section != each.section)
            text += "[" + each.section + "]\n";
        section = &each.section;
        text += each.key + " = value of " + each.key + "\n";
    }
    return text;
}

struct keel_table {
    explicit keel_table(const std::string &path) {
        require(ini_load(&table, path.c_str(), "=") == 0, "ini_load failed");
        require(table.count == sections * keys_per_section, "ini_load: entries are missing");
    }
    ~keel_table() { ini_unload(&table); }
    keel_table(const keel_table &) = delete;
    keel_table &operator=(const keel_table &) = delete;

    bool has(const name &wanted) const {
        return ini_section_get(&table, wanted.section.c_str(), wanted.key.c_str()) != nullptr;
    }

    ini_table table = {nullptr, 0};
};

struct glib_file {
    explicit glib_file(const std::string &path) {
        require(g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, nullptr) != FALSE,
                "GKeyFile cannot load");
    }
    ~glib_file() { g_key_file_free(file); }
    glib_file(const glib_file &) = delete;
    glib_file &operator=(const glib_file &) = delete;

    bool has(const name &wanted) const {
        gchar *value =
            g_key_file_get_value(file, wanted.section.c_str(), wanted.key.c_str(), nullptr);
        const bool found = value != nullptr;
        g_free(value);
        return found;
    }

    GKeyFile *file = g_key_file_new();
};

struct inih_reader {
    explicit inih_reader(const std::string &path) : reader(path) {
        require(reader.ParseError() == 0, "inih cannot load");
    }

    bool has(const name &wanted) const {
        return !reader.Get(wanted.section, wanted.key, "").empty();
    }

    INIReader reader;
};

/* The least that a binary search can cost: whole keys, ready made, nothing to join or to split. */
struct sorted_keys {
    explicit sorted_keys(const std::vector<name> &names) {
        for (const name &each : names)
            owned.push_back(std::make_unique<std::string>(each.section + "::" + each.key));
        for (const auto &key : owned)
            keys.push_back(key->c_str());
        std::sort(keys.begin(), keys.end(),
                  [](const char *l, const char *r) { return std::strcmp(l, r) < 0; });
    }

    bool has(const std::string &wanted) const {
        const auto found = std::partition_point(keys.begin(), keys.end(), [&](const char *key) {
            return std::strcmp(key, wanted.c_str()) < 0;
        });
        return found != keys.end() && wanted == *found;
    }

    std::vector<std::unique_ptr<std::string>> owned;
    std::vector<const char *> keys;
};

void read_raw(const std::string &path) {
    static std::vector<char> text(16 << 20);
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    require(file != -1 && read(file, text.data(), text.size()) > 0, "read failed");
    close(file);
}

/* Loads and unloads. */
template <class Reader>
auto load(const std::string &path) {
    return bench::always([&path] { Reader reader(path); });
}

template <class Reader, class Names>
job look_up(std::shared_ptr<Reader> reader, const Names &order) {
    return {.run = [reader, &order] {
        for (const auto &wanted : order)
            require(reader->has(wanted), "an entry is missing");
    }};
}

template <class Reader>
auto look_up(const std::string &path, const std::vector<name> &order) {
    return [&path, &order] { return look_up(std::make_shared<Reader>(path), order); };
}

} // namespace

int main(int argc, char *argv[]) {
    const bench::scratch_dir directory(bench::memory_dir());
    const std::string path = directory / "settings.ini";
    const std::vector<name> names = make_names();
    bench::write_file(path, text_of(names));

    std::mt19937 random(2);
    std::vector<name> order;
    std::vector<std::string> whole_keys;
    while (order.size() < lookups) {
        order.push_back(names[random() % names.size()]);
        whole_keys.push_back(order.back().section + "::" + order.back().key);
    }
    const auto binary_search = [&] {
        return look_up(std::make_shared<sorted_keys>(names), whole_keys);
    };

    return bench::measure(
        argc, argv,
        {{.title = "INI load and unload, 100,000 entries",
          .item = "file",
          .floor = "two strings and a sorted place for each entry",
          .contenders = {{"keel ini_load", load<keel_table>(path)},
                         {"GLib GKeyFile", load<glib_file>(path), 1.0},
                         {"inih INIReader", load<inih_reader>(path)},
                         {"read(2) alone", bench::always([&] { read_raw(path); })}}},
         {.title = "INI lookup, 1,000,000 among 100,000 entries",
          .item = "lookup",
          .items = lookups,
          .floor =
              "a table that is searched by halves: 17 comparisons for 100,000 entries, most of "
              "them a miss of the cache",
          .contenders = {{"keel ini_section_get", look_up<keel_table>(path, order)},
                         {"GLib GKeyFile, which hashes", look_up<glib_file>(path, order), 1.3},
                         {"inih INIReader", look_up<inih_reader>(path, order), 0.35},
                         {"binary search of ready-made keys", binary_search}}}});
}

/* SPDX-License-Identifier: MIT */
#include "allocations.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "memory_sweep.h"
#include "xconf.h"
#include "xconvert.h"
#include "xgetopt.h"
#include "xini.h"
#include "xinotify.h"
#include "xlog.h"
#include "xmemory.h"
#include "xstdio.h"
#include "xstring.h"
#include "xthread_util.h"
#include "xutil.h"
#include "xwrap.h"

namespace keel_test {

namespace {

struct free_block {
    void operator()(void *block) const { std::free(block); }
};

using string_of_caller = std::unique_ptr<char, free_block>;

/* ---- Foundation ------------------------------------------------------------------------------ */

const std::vector<sweep_row> foundation = {
    {{"Strdup"},
     {named("strdup")},
     [](trial &memory) { const string_of_caller text(memory.of([] { return Strdup("text"); })); }},
    {{"Malloc"},
     {named("malloc")},
     [](trial &memory) { std::free(memory.of([] { return Malloc(10); })); }},
    {{"Calloc"},
     {named("calloc")},
     [](trial &memory) { std::free(memory.of([] { return Calloc(2, 10); })); }},
    {{"Realloc"},
     {named("realloc")},
     [](trial &memory) {
         void *block = std::malloc(10);
         std::free(memory.of([&] { return Realloc(block, 20); }));
     }},
    {{"Systemf"},
     {named("Systemf"), returns},
     [](trial &memory) {
         memory.expect(memory.of([] { return Systemf("test %d = 1", 1); }) == 0);
     }},
    {{"Strchr", "Strrchr", "Strtok_r", "System", "Sysconf"},
     {},
     [](trial &memory) {
         memory.of([] {
             char text[] = "a b";
             char *rest = nullptr;
             Strchr(text, 'a');
             Strrchr(text, 'b');
             Strtok_r(text, " ", &rest);
             System("true");
             Sysconf(_SC_PAGESIZE);
         });
     }},
    {{"Sem_init", "Sem_destroy", "Sem_post", "Sem_wait", "Sem_trywait", "Sem_timedwait"},
     {},
     [](trial &memory) {
         memory.of([] {
             sem_t semaphore;
             Sem_init(&semaphore, 0, 1);
             Sem_wait(&semaphore);
             Sem_post(&semaphore);
             Sem_trywait(&semaphore);
             Sem_timedwait(&semaphore, 0);
             Sem_destroy(&semaphore);
         });
     }},
    {{"Pthread_mutex_init", "Pthread_mutex_destroy", "Pthread_mutex_lock", "Pthread_mutex_unlock",
      "Pthread_mutex_trylock"},
     {},
     [](trial &memory) {
         memory.of([] {
             pthread_mutex_t mutex;
             Pthread_mutex_init(&mutex, nullptr);
             Pthread_mutex_lock(&mutex);
             Pthread_mutex_trylock(&mutex);
             Pthread_mutex_unlock(&mutex);
             Pthread_mutex_destroy(&mutex);
         });
     }},
    sweep_row({"err_sys"}, {}, [](trial &memory) { memory.of([] { err_sys("reason %d", 1); }); })
        .ends(silence)
        .cold(),
    {{"Close", "Unlink", "Ioctl", "Socket", "Mkfifo"},
     {},
     [](trial &memory) {
         const std::string path = memory / "fifo";
         memory.of([&] {
             Mkfifo(path.c_str(), 0600);
             Unlink(path.c_str());
             const int descriptor = Socket(AF_UNIX, SOCK_DGRAM, 0);
             int waiting = 0;
             Ioctl(descriptor, FIONREAD, &waiting);
             Close(descriptor);
         });
     }},
    sweep_row({"get_ifi_info"}, {returns, named("realloc"), named("calloc")},
              [](trial &memory) {
                  ip("link set lo up\n");
                  ifi_info *all = memory.of([] { return get_ifi_info(AF_INET); });
                  memory.expect(is_ifi_info_exist(all, "lo") == 1);
                  free_ifi_info(all);
              })
        .in_own_network(),
    {{"add_ifi_info"},
     {named("calloc")},
     [](trial &memory) {
         ifi_info *head = nullptr;
         ifi_info **tail = &head;
         memory.of([&] { return add_ifi_info(&tail, "a"); });
         free_ifi_info(head);
     }},
    {{"free_ifi_info", "release_ifi_info", "is_ifi_info_exist"},
     {},
     [](trial &memory) {
         ifi_info *head = nullptr;
         ifi_info **tail = &head;
         add_ifi_info(&tail, "a");
         memory.of([&] {
             is_ifi_info_exist(head, "b");
             release_ifi_info(head);
             free_ifi_info(head);
         });
     }},
    {{"xmalloc"},
     {no_memory},
     [](trial &memory) { xfree(0, memory.of([] { return xmalloc(0, 10); })); }},
    {{"xcalloc"},
     {no_memory},
     [](trial &memory) { xfree(0, memory.of([] { return xcalloc(0, 10); })); }},
    {{"xrealloc"},
     {no_memory},
     [](trial &memory) {
         void *block = xmalloc(0, 10);
         xfree(0, memory.of([&] { return xrealloc(0, block, 20); }));
     }},
    {{"xfree"},
     {},
     [](trial &memory) {
         void *block = xmalloc(0, 10);
         memory.of([&] { xfree(0, block); });
     }},
    {{"Inotify_init", "Inotify_add_watch", "Inotify_rm_watch"},
     {},
     [](trial &memory) {
         const int events = memory.of([] {
             const int made = Inotify_init();
             Inotify_rm_watch(made, Inotify_add_watch(made, "/tmp", IN_CREATE));
             return made;
         });
         close(events);
     }},
    {{"cond_timedwait", "attr_init"},
     {},
     [](trial &memory) {
         memory.of([] {
             pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
             pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
             pthread_mutex_lock(&mutex);
             cond_timedwait(&condition, &mutex, 0);
             pthread_mutex_unlock(&mutex);
             pthread_attr_t attributes;
             attr_init(&attributes, 1, 1);
             pthread_attr_destroy(&attributes);
         });
     }},
};

/* ---- Strings --------------------------------------------------------------------------------- */

/* A function that gives a new string, or null. */
sweep_row makes_string(const char *function, char *(*make)(), const std::string &expected) {
    return {{function}, {returns}, [=](trial &memory) {
                const string_of_caller text(memory.of(make));
                memory.expect(text != nullptr ? text.get() == expected : memory.failed());
            }};
}

const std::vector<sweep_row> strings = {
    {{"strtrim1", "strtrim2", "strtrim4", "str_split", "strrcmp", "strrncmp"},
     {},
     [](trial &memory) {
         memory.of([] {
             char text[] = " a  =  b ";
             char *fields[2];
             strtrim1(text);
             strtrim2(text);
             strtrim4(text, '=');
             strrcmp(text, "b");
             strrncmp(text, "b", 2);
             str_split(text, "=", fields, 2);
         });
     }},
    {{"strtrim3"},
     {returns},
     [](trial &memory) {
         char text[] = " a b ";
         const char *trimmed = memory.of([&] { return strtrim3(text); });
         memory.expect(trimmed == (memory.failed() ? nullptr : text));
         memory.expect(std::strcmp(text, memory.failed() ? " a b " : "ab") == 0);
     }},
    makes_string(
        "strdup_ncat", [] { return strdup_ncat(3, "ab", "cd", nullptr); }, "abc"),
    makes_string(
        "strdup_cat", [] { return strdup_cat("ab", "cd", nullptr); }, "abcd"),
    makes_string(
        "strdup_catf", [] { return strdup_catf("%0300d", 0); }, std::string(300, '0')),
    makes_string(
        "strdup_insert", [] { return strdup_insert("abc", 1, "-"); }, "a-bc"),
    makes_string(
        "strdup_extract1", [] { return strdup_extract1("a=1;b=2", "b", ';', '='); }, "2"),
    makes_string(
        "varbind_find", [] { return varbind_find("a=1;b=2", "b", ';', '=', nullptr, 0); }, "2"),
    {{"astrcatf"},
     {returns},
     [](trial &memory) {
         char *text = strdup("a");
         const int added = memory.of([&] { return astrcatf(&text, "%0300d", 0); });
         memory.expect(added == 300 || (memory.failed() && added == -1));
         memory.expect(std::strlen(text) == (added == 300 ? 301U : 1U));
         std::free(text);
     }},
    {{"str_startwithf"},
     {silence, returns},
     [](trial &memory) { memory.of([] { return str_startwithf("abc", "%s", "ab"); }); }},
    {{"strcmpf"},
     {silence, returns},
     [](trial &memory) { memory.of([] { return strcmpf("abc", "%s", "ab"); }); }},
    {{"convert_str2bcd", "convert_str2bch", "convert_bch2str", "convert_desc2enum",
      "convert_enum2desc"},
     {},
     [](trial &memory) {
         memory.of([] {
             static constexpr convert_desc table[] = {{1, "one"}};
             char text[16];
             std::uint32_t value = 0;
             convert_str2bcd(text, sizeof text, "123");
             convert_str2bch(text, sizeof text, "abc");
             convert_bch2str(text, sizeof text, "xyz", 3);
             convert_desc2enum(table, 1, "one", &value);
             convert_enum2desc(table, 1, 1);
         });
     }},
    {{"xgetopt"},
     {},
     [](trial &memory) {
         static constexpr option options[] = {{"verbose", no_argument, nullptr, 'v'},
                                              {"version", no_argument, nullptr, 'V'},
                                              {nullptr, 0, nullptr, 0}};
         char words[][16] = {"program", "rest", "-ab", "--verb", "-c"};
         char *argv[] = {words[0], words[1], words[2], words[3], words[4], nullptr};
         memory.of([&] { xgetopt(5, argv, "abc::", options, nullptr, nullptr); });
         memory.expect(optind == 5);
     }},
};

/* ---- Streams --------------------------------------------------------------------------------- */

/* Without a buffer of its own a stream is slower, and nothing else. */
void read_backwards(trial &memory) {
    write_file(memory / "lines", "first\nsecond\nlast\n");
    std::FILE *file = std::fopen((memory / "lines").c_str(), "r");
    std::string all;
    all.reserve(100);
    memory.of([&] {
        char line[80];
        std::int64_t cursor = fsize(file);
        std::fseek(file, cursor, SEEK_SET);
        while (frgets(line, sizeof line, file, &cursor) != nullptr)
            all += line;
        all += fappended(file) == 18 ? "." : "?";
    });
    std::fclose(file);
    memory.expect(all == "last\nsecond\nfirst\n.");
}

void dump(trial &memory) {
    char expected[1024] = "";
    char dumped[1024] = "";
    std::FILE *text = fmemopen(expected, sizeof expected, "w");
    hexdump(text, "PING", 4);
    std::fclose(text);
    std::FILE *file = std::fopen((memory / "dump").c_str(), "w");
    memory.expect(memory.of([&] { return hexdump(file, "PING", 4); }) == 4);
    std::fclose(file);
    std::ifstream(memory / "dump").read(dumped, sizeof dumped - 1);
    memory.expect(std::strcmp(dumped, expected) == 0);
}

void read_long_line(trial &memory) {
    write_file(memory / "lines", std::string(300, 'x') + "\n");
    std::FILE *file = std::fopen((memory / "lines").c_str(), "r");
    char *line = nullptr;
    int capacity = 0;
    int length = 0;
    memory.of([&] { return _fgets(&line, &capacity, file, &length); });
    memory.expect(length == 301 && line[299] == 'x');
    std::free(line);
    std::fclose(file);
}

const std::vector<sweep_row> streams = {
    {{"fsize", "fappended", "frgets"}, {returns}, read_backwards},
    {{"hexdump"}, {returns}, dump},
    {{"_fgets"}, {silence, returns}, read_long_line},
    {{"set_fl", "clr_fl", "set_fd", "clr_fd"},
     {},
     [](trial &memory) {
         const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
         memory.of([&] {
             set_fl(descriptor, O_NONBLOCK);
             clr_fl(descriptor, O_NONBLOCK);
             set_fd(descriptor, FD_CLOEXEC);
             clr_fd(descriptor, FD_CLOEXEC);
         });
         close(descriptor);
     }},
};

/* ---- INI files ------------------------------------------------------------------------------- */

constexpr char entries[] = "b = 2\na = 1\n[limits]\ncpu = 90\n{colour}\nred = 1\n";

const child_result lack = exited(1, "EMERG-Memory lack.\n");

/* A table as it is used: loaded, looked into, unloaded, and loaded again. */
void load(trial &memory, const std::function<int(ini_table &)> &how) {
    write_file(memory / "ini", entries);
    ini_table table = {nullptr, 0};
    const int loaded = memory.of([&] { return how(table); });
    memory.expect(loaded == 0 || (memory.failed() && loaded == -1));
    memory.expect(table.count == (loaded == 0 ? 5U : 0U));
    ini_unload(&table);
    memory.expect(how(table) == 0 && std::strcmp(ini_get(&table, "a"), "1") == 0);
    ini_unload(&table);
}

template <class Lookup>
sweep_row looks_up(const char *function, Lookup lookup) {
    return {{function}, {no_memory}, [lookup](trial &memory) {
                ini_table table = {nullptr, 0};
                const std::string long_name(300, 'k');
                write_file(memory / "ini", entries);
                ini_load(&table, (memory / "ini").c_str(), "=");
                memory.expect(memory.of([&] { return lookup(&table, long_name.c_str()); }) ==
                              nullptr);
                ini_unload(&table);
            }};
}

const std::vector<sweep_row> ini_files = {
    {{"ini_load"},
     {returns, no_memory, lack},
     [](trial &memory) {
         const std::string path = memory / "ini";
         load(memory, [&](ini_table &table) { return ini_load(&table, path.c_str(), "="); });
     }},
    {{"ini_fload"},
     {returns, no_memory, lack},
     [](trial &memory) {
         char text[sizeof entries];
         std::memcpy(text, entries, sizeof text);
         std::FILE *file = fmemopen(text, sizeof text - 1, "r");
         load(memory, [&](ini_table &table) {
             std::rewind(file);
             return ini_fload(&table, file, "=");
         });
         std::fclose(file);
     }},
    looks_up("ini_get", ini_get),
    looks_up("ini_section_get",
             [](const ini_table *table, const char *key) {
                 return ini_section_get(table, "limits", key);
             }),
    {{"ini_print", "ini_section_print", "ini_unload"},
     {},
     [](trial &memory) {
         write_file(memory / "ini", entries);
         ini_table table = {nullptr, 0};
         ini_load(&table, (memory / "ini").c_str(), "=");
         memory.of([&] {
             ini_print(&table, stdout);
             ini_section_print(&table, stdout, "limits");
             ini_unload(&table);
         });
     }},
};

/* ---- Logging --------------------------------------------------------------------------------- */

constexpr std::uint32_t warning = 0x10;

/* Logs of a service called "app", in the run's own directory. */
class logs {
  public:
    explicit logs(const trial &memory) : directory_(memory / "") {}
    ~logs() { log_destroy(); }
    logs(const logs &) = delete;
    logs &operator=(const logs &) = delete;

    int set_up(std::uint64_t number) {
        conf_.nlogs = number;
        return log_init(argv_, directory_.c_str(), &conf_);
    }

    bool works() { return log_print(0, warning, "works") == 1; }

  private:
    std::string directory_;
    char name_[4] = "app";
    char *argv_[2] = {name_, nullptr};
    log_conf conf_ = {LOG_CONF_NLOGS | LOG_CONF_WRMAX, 1, 1000, 0, 0, 0, 0};
};

/* What is not set up can be set up. */
void set_logs_up(trial &memory) {
    logs service(memory);
    const int made = memory.of([&] { return service.set_up(1); });
    memory.expect(made == (memory.failed() ? -1 : 0));
    memory.expect(log_open("other") == -1);
    memory.expect(made == 0 || service.set_up(1) == 0);
    memory.expect(service.works());
}

/* What there is no stream for in its own place takes the next. */
void set_two_logs_up(trial &memory) {
    logs service(memory);
    const int made = memory.of([&] { return service.set_up(2); });
    memory.expect(made == 0 || (memory.failed() && (made == -1 || made == 1)));
    memory.expect(made == -1 || log_print(made, warning, "works") == 1);
}

/* A log whose stream cannot be had leaves its place to the next. */
void open_log(trial &memory) {
    write_file(memory / "other.log", "of yesterday\n");
    logs service(memory);
    service.set_up(3);
    const int opened = memory.of([] { return log_open("other"); });
    memory.expect(opened == 1 || (memory.failed() && (opened == -1 || opened == 2)));
    memory.expect(opened == -1 || log_print(opened, warning, "works") == 1);
    memory.expect(log_open("third") >= 1 && service.works());
}

/* The last record that the file takes. What went before goes nowhere. */
void rotate(trial &memory) {
    std::filesystem::remove(memory / "app.log");
    std::filesystem::create_symlink("/dev/null", memory / "app.log");
    logs service(memory);
    service.set_up(1);
    for (int record = 1; record < 1000; record++)
        log_print(0, warning, "record");
    memory.expect(memory.of([] { return log_print(0, warning, "record"); }) == 2);
    memory.expect(service.works() == !memory.failed());
}

const std::vector<sweep_row> logging = {
    sweep_row({"log_print"}, {},
              [](trial &memory) {
                  logs service(memory);
                  service.set_up(1);
                  memory.of([] { return log_print(0, warning, "%d of %s", 1, "many"); });
                  memory.of([] { return log_print(0, warning, "%.3f", 0.5); });
              })
        .where("short"),
    sweep_row({"log_print"}, {returns},
              [](trial &memory) {
                  logs service(memory);
                  service.set_up(1);
                  const int printed = memory.of([] { return log_print(0, warning, "%05000d", 1); });
                  memory.expect(printed == (memory.failed() ? -1 : 4996));
                  memory.expect(service.works());
              })
        .where("long"),
    sweep_row({"log_print"}, {returns, silence}, rotate).where("rotation"),
    {{"log_dump"},
     {returns},
     [](trial &memory) {
         logs service(memory);
         service.set_up(1);
         const std::string data(3000, 'x');
         const int dumped = memory.of([&] { return log_dump(0, data.data(), data.size()); });
         memory.expect(dumped == 3000 || (memory.failed() && dumped == -1));
         memory.expect(service.works());
     }},
    {{"log_init"}, {returns}, set_logs_up},
    sweep_row({"log_init"}, {returns}, set_two_logs_up).where("of_two"),
    sweep_row({"log_init"}, {silence, returns},
              [](trial &memory) {
                  write_file(memory / "app.log", "of yesterday\n");
                  set_logs_up(memory);
              })
        .where("archiving"),
    sweep_row({"log_open"}, {returns, silence}, open_log).where("archiving"),
    {{"log_close"},
     {silence},
     [](trial &memory) {
         logs service(memory);
         service.set_up(2);
         log_open("other");
         memory.of([] { return log_close(1); });
     }},
    {{"log_destroy"},
     {silence},
     [](trial &memory) {
         logs service(memory);
         service.set_up(1);
         memory.of([] { return log_destroy(); });
     }},
};

/* ---- Files ----------------------------------------------------------------------------------- */

constexpr char settings[] = "a = 1\nkey = 1,2 # two\nb = 2\n";

/* A call that changes the settings and gives `done`, or -1 and changes nothing. */
sweep_row edits(const char *function, std::vector<child_result> endings,
                const std::function<int(const char *)> &edit, int done = 0) {
    return sweep_row({function}, std::move(endings),
                     [=](trial &memory) {
                         const std::string path = memory / "settings";
                         write_file(path, settings);
                         const int edited = memory.of([&] { return edit(path.c_str()); });
                         memory.expect(edited == done || (memory.failed() && edited == -1));
                         memory.expect((content_of(path) == settings) == (edited == -1));
                         memory.expect(edit(path.c_str()) == done);
                     })
        .keeps("settings", settings);
}

/* A call that reads them. `read` tells whether it gave what it should, -1 where it said so. */
sweep_row reads(const char *function, const std::function<int(const char *)> &read) {
    return {{function}, {returns, silence}, [=](trial &memory) {
                const std::string path = memory / "settings";
                write_file(path, settings);
                const int got = memory.of([&] { return read(path.c_str()); });
                memory.expect(got == 1 || (memory.failed() && got == -1));
            }};
}

int look_value_up(const char *path) {
    int number = 0;
    return file_lookup_value(path, "key", "=", "%d", &number) == -1 ? -1 : number;
}

int read_whole(const char *path) {
    char text[80];
    const int length = file_sflush(path, text, sizeof text);
    return length == -1 ? -1 : std::strcmp(text, settings) == 0;
}

/* All files go, without reaching the limit: or none does. */
void clean_up(trial &memory) {
    const std::string directory = memory / "below";
    std::filesystem::create_directories(directory + "/further");
    const std::vector<std::string> files = {directory + "/one", directory + "/two",
                                            directory + "/further/three"};
    for (const std::string &file : files)
        write_file(file, "content");
    const fs_limit out_of_reach = {FS_LIMIT_FREE, 0, 1e30F, 0};
    memory.expect(memory.of([&] { return fcleanup(directory.c_str(), &out_of_reach); }) == -1);
    for (const std::string &file : files)
        memory.expect(std::filesystem::exists(file) == memory.failed());
}

/* Those that take no memory. */
void use_files(trial &memory) {
    const std::string path = memory / "file";
    const std::string copy = memory / "copy";
    write_file(path, settings);
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    memory.of([&] {
        const char *name = path.c_str();
        long stamp = 0;
        unsigned usage = 0;
        const fs_limit limit = {FS_LIMIT_USAGE, 0, 0, 0};
        char text[80];
        bool right = fexist(name, 0) == 0 && ftherein(descriptor, name) == 5;
        right &= fmodified(name, &stamp) == 1 && file_touch(name) == 0;
        right &= flookup(name, "a", '=', text, sizeof text) == text;
        right &= bulk_lookup(name, "none", nullptr, 0, 0, nullptr) == 0;
        right &= file_copy(name, copy.c_str()) == 0 && file_clear(name) == 0;
        right &= get_fs_info(name, &usage, nullptr) == 0 && check_fs_info(name, &limit) == 1;
        memory.expect(right);
    });
    close(descriptor);
}

const std::vector<sweep_row> files = {
    {{"fexist", "ftherein", "fmodified", "file_touch", "flookup", "bulk_lookup", "file_copy",
      "file_clear", "get_fs_info", "check_fs_info"},
     {},
     use_files},
    makes_string(
        "fpath_dup", [] { return fpath_dup("/a", "b"); }, "/a/b"),
    {{"Fpath_dup"},
     {silence},
     [](trial &memory) {
         const string_of_caller path(memory.of([] { return Fpath_dup("/a", "b"); }));
     }},
    edits(
        "file_cover", {returns}, [](const char *path) { return file_cover(path, "%0300d", 1); },
        300),
    edits(
        "file_append", {returns}, [](const char *path) { return file_append(path, "%0300d", 1); },
        300),
    reads("file_sflush", read_whole),
    edits("finsert", {returns}, [](const char *path) { return finsert(path, "key", '=', "4"); }),
    edits("fremove", {returns}, [](const char *path) { return fremove(path, "a", '=', "1"); }),
    edits("fmodify", {returns}, [](const char *path) { return fmodify(path, "a", '=', "2"); }),
    edits("foperate", {returns}, [](const char *path) { return foperate(path, 1, "a", '=', "2"); }),
    reads("file_lookup_value", look_value_up),
    edits("file_replace_value", {returns, silence},
          [](const char *path) { return file_replace_value(path, "key", "=", "%0300d", 5); }),
    edits("file_replace_value_value", {returns, silence},
          [](const char *path) {
              return file_replace_value_value(path, "key", "=", ",", 2, "%d", 5);
          }),
    sweep_row({"fcleanup"}, {returns, silence, named("fcleanup"), named("nftw_func")}, clean_up)
        .keeps("below/one", "content"),
};

/* ---- All of them ----------------------------------------------------------------------------- */

std::vector<sweep_row> all_rows() {
    return joined({foundation, strings, streams, ini_files, logging, files, rows_of_objects(),
                   rows_of_the_system()});
}

/* A name as a programmer writes it. */
std::string readable(const std::string &symbol) {
    int status = 0;
    const string_of_caller name(abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status));
    return name != nullptr ? name.get() : symbol;
}

class Allocations : public testing::TestWithParam<sweep_row> {};

TEST_P(Allocations, EachThatFailsEndsAsPromised) {
    if (geteuid() != 0 && (GetParam().has_own_network || GetParam().has_own_processes))
        GTEST_SKIP() << "namespaces of its own need root";
    RecordProperty("failures", sweep(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Of, Allocations, testing::ValuesIn(all_rows()),
                         [](const auto &one) { return one.param.title(); });

TEST(AllocationRows, AreThereForEveryExportedFunction) {
    const std::set<std::string> data = {"proc_operate_error_message", "ss", "thread_stat_descs",
                                        "threadpool_stat_descs"};
    std::set<std::string> exported;
    std::ifstream list(KEEL_EXPORTS);
    for (std::string line; std::getline(list, line);)
        if (!line.starts_with('#') && !data.contains(line))
            exported.insert(readable(line));
    std::set<std::string> swept;
    for (const sweep_row &row : all_rows())
        swept.insert(row.functions.begin(), row.functions.end());
    EXPECT_EQ(swept, exported);
}

} // namespace

} // namespace keel_test

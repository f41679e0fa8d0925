/* SPDX-License-Identifier: MIT */
#include "xfsproc.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <stdexcept>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "cancelled.h"
#include "caught_output.h"
#include "child.h"
#include "descriptors.h"
#include "heap.h"
#include "lies_at.h"
#include "own_processes.h"
#include "processes.h"
#include "temp_dir.h"
#include "waiting.h"

namespace {

using keel_test::caught_stream;
using keel_test::child_result;
using keel_test::content_of;
using keel_test::count_descriptors;
using keel_test::heap_in_use;
using keel_test::process;
using keel_test::run_in_child;
using keel_test::temp_dir;
using keel_test::unique_program_name;
using keel_test::write_file;
using std::string;

using names = std::vector<string>;
using codes = std::vector<int>;

constexpr int no_error = 0;
constexpr int failed_restart = 1;
constexpr int failed_start = 2;
constexpr int failed_stop = 3;
constexpr int is_running = 6;
constexpr int is_stopped = 7;
constexpr int does_not_exist = 8;
constexpr int exists = 9;
constexpr int error = 10;

constexpr unsigned unknown_operation = 99;
constexpr unsigned operations[] = {
    PROC_OP_RESTART, PROC_OP_START, PROC_OP_STOP, PROC_OP_CREATE, PROC_OP_REMOVE, 5, 99, UINT_MAX,
};

/* ---- The records ---------------------------------------------------------------------------- */

LIES_AT(proc_monitor_item, name, char[256], 0);
LIES_AT(proc_monitor_item, info, proc_info, 256);
LIES_AT(proc_monitor_item, run_status, std::uint32_t, 256 + sizeof(proc_info));

LIES_AT(proc_node, prev, proc_node *, 0);
LIES_AT(proc_node, next, proc_node *, 8);
LIES_AT(proc_node, data, void *, 16);
static_assert(sizeof(proc_node) == 24);

LIES_AT(proc_list, head, proc_node *, 0);
LIES_AT(proc_list, tail, proc_node *, 8);
LIES_AT(proc_list, count, std::uint64_t, 16);
static_assert(offsetof(proc_list, free) == 24 && offsetof(proc_list, each) == 32 &&
              offsetof(proc_list, copy) == 40 && offsetof(proc_list, order) == 48 &&
              offsetof(proc_list, match) == 56 && sizeof(proc_list) == 64);

LIES_AT(proc_monitor, list, proc_list *, 0);
static_assert(offsetof(proc_monitor, destroy) == 8 && offsetof(proc_monitor, refresh) == 16 &&
              offsetof(proc_monitor, search) == 24 && offsetof(proc_monitor, operate) == 32 &&
              sizeof(proc_monitor) == 40);

static_assert(PROC_UNKNOWN == 0 && PROC_RESTARTED == 1 && PROC_STARTED == 2 && PROC_STOPPED == 3 &&
              PROC_RUNNING == 4 && PROC_NOT_RUNNING == 5);
static_assert(PROC_OP_RESTART == 0 && PROC_OP_START == 1 && PROC_OP_STOP == 2 &&
              PROC_OP_CREATE == 3 && PROC_OP_REMOVE == 4);

/* ---- Monitors ------------------------------------------------------------------------------- */

/* The monitor that a configuration of this text makes. */
class monitor {
  public:
    explicit monitor(const string &text = "", char separator = '=') {
        const temp_dir directory;
        write_file(directory / "conf", text);
        if (proc_monitor_init(&monitor_, (directory / "conf").c_str(), separator) != 0)
            throw std::runtime_error("no monitor");
    }
    ~monitor() { proc_monitor_destroy(&monitor_); }
    monitor(const monitor &) = delete;
    monitor &operator=(const monitor &) = delete;

    operator proc_monitor *() { return &monitor_; }
    proc_list &list() { return *monitor_.list; }

    int operate(const string &spec, unsigned operation) {
        return monitor_.operate(&monitor_, spec.c_str(), operation);
    }
    proc_monitor_item *search(const string &name) {
        return monitor_.search(&monitor_, name.c_str());
    }
    void refresh() { EXPECT_EQ(monitor_.refresh(&monitor_), 0); }

  private:
    proc_monitor monitor_{};
};

proc_monitor_item &item_of(const proc_node &node) {
    return *static_cast<proc_monitor_item *>(node.data);
}

/* The items, once the links between their nodes have been looked at. */
std::vector<proc_monitor_item *> items_of(const proc_list &list) {
    std::vector<proc_monitor_item *> items;
    const proc_node *before = nullptr;
    for (const proc_node *node = list.head; node != nullptr; node = node->next) {
        EXPECT_EQ(node->prev, before);
        items.push_back(&item_of(*node));
        before = node;
    }
    EXPECT_EQ(list.tail, before);
    EXPECT_EQ(list.count, items.size());
    return items;
}

names names_of(const proc_list &list) {
    names all;
    for (const proc_monitor_item *item : items_of(list))
        all.emplace_back(item->name);
    return all;
}

/* What is to be watched and how it is started, as "name|directory|command". */
names entries_of(const proc_list &list) {
    names all;
    for (const proc_monitor_item *item : items_of(list))
        all.push_back(string(item->name) + "|" + item->info.cwd + "|" + item->info.cmdline);
    return all;
}

/* ---- The configuration ---------------------------------------------------------------------- */

struct configuration {
    const char *what;
    string text;
    char separator;
    names entries;
    const char *err;
};

void expect_configured(const configuration &r) {
    const caught_stream caught(stderr);
    monitor made(r.text, r.separator);
    EXPECT_EQ(entries_of(made.list()), r.entries) << r.what;
    EXPECT_EQ(caught.text(), r.err) << r.what;
}

TEST(MonitorConfiguration, EntriesAreTakenApart) {
    const configuration rows[] = {
        {"an entry",
         "proc1=mysrv,/opt/mysrv,bin/mysrv -d\n",
         '=',
         {"mysrv|/opt/mysrv|bin/mysrv -d"},
         ""},
        {"blanks", "proc2 = a, /d, ./a\n", '=', {"a|/d|./a"}, ""},
        {"runs of white space",
         " \tproc1\t  = my \t srv ,  /d  e ,  ./a   -b\v\f c \r\n",
         '=',
         {"my srv|/d e|./a -b c"},
         ""},
        {"no newline at the end", "proc1=a\nproc2=b,/d", '=', {"a||", "b|/d|"}, ""},
        {"separators inside", "proc1=a,/d=e,./a --x=1 = 2", '=', {"a|/d=e|./a --x=1 = 2"}, ""},
        {"more than three fields", "proc1=a,/d,./a,more", '=', {"a|/d|./a"}, ""},
        {"nothing but a name", "proc1=app\n", '=', {"app||"}, ""},
        {"empty fields count for nothing", "proc1=,,a,,,b,\n", '=', {"a|b|"}, ""},
        {"blank fields count", "proc1=a, ,b\nproc2=c,/d, \n", '=', {"a||b", "c|/d|"}, ""},
        {"in the order of the lines",
         "proc9=z\nproc1=m\nproc5=a\n",
         '=',
         {"z||", "m||", "a||"},
         ""},
        {"nothing is formatted", "proc1=%s%n,%d,%%\n", '=', {"%s%n|%d|%%"}, ""},
    };
    for (const auto &r : rows)
        expect_configured(r);
}

TEST(MonitorConfiguration, OtherLinesArePassedOver) {
    const configuration rows[] = {
        {"an empty file", "", '=', {}, ""},
        {"keys",
         "proc=a\nproc1=b\nprocess_a=c\nproc_=d\nproc 1 2=e\nproc,=f\n",
         '=',
         {"a||", "b||", "c||", "d||", "e||", "f||"},
         ""},
        {"other keys", "pro=a\nPROC1=b\nProc=c\nxproc=d\nx proc=e\n=proc=f\n", '=', {}, ""},
        {"comments",
         "#proc1=a\n # proc2=b\nproc3=c # d\nproc4=d#,/x,y\nproc#5=e\nproc6=f,#\n",
         '=',
         {"c||", "d||", "f||"},
         ""},
        {"blank lines", "\n \n\t\r\n\nproc=a\n\n", '=', {"a||"}, ""},
        {"lines without a separator", "proc1 a\nproc2:b\nproc\n", '=', {}, ""},
        {"lines with a NUL", string("proc1\0=a\nproc2=b\0c,/d\n", 22), '=', {"b||"}, ""},
    };
    for (const auto &r : rows)
        expect_configured(r);
}

/* White space other than the blank, and what cannot be printed, leaves a line as it is read. */
TEST(MonitorConfiguration, Separators) {
    const configuration rows[] = {
        {"colon", "proc1 : a,/d,x=1:2\nproc2=b\n", ':', {"a|/d|x=1:2"}, ""},
        {"blank",
         " proc1   a,/d,./a  -x\nproc2\tb\nproc3\nproc 4 c\n",
         ' ',
         {"a|/d|./a -x", "b||", "4 c||"},
         ""},
        {"tab",
         "proc1\ta , /d\n proc2\tb\nproc3 c\nproc4 \t d\n#proc5\te\n",
         '\t',
         {"a|/d|", "d||"},
         ""},
        {"tab, an entry twice",
         "proc1\ta\nproc2\ta ,x\n",
         '\t',
         {"a||"},
         "proc\ta ,x\n already exist.\n"},
        {"NUL", string("proc1=a\nproc2\0b\nproc3", 21), '\0', {}, ""},
        {"the comment's", "proc1#a\nproc2=b\n", '#', {}, ""},
        {"the fields'", "proc1,a,/d,./a\n", ',', {"a|/d|./a"}, ""},
        {"a letter of the key", "proc1papp\n", 'p', {}, ""},
        {"a digit behind the key", "proc1a1\n", '1', {"a1||"}, ""},
        {"newline", "proc1\nproc2=a", '\n', {}, "proc\n already exist.\n"},
        {"unprintable", "proc1\001a\n proc2\001b\n", '\001', {"a||"}, ""},
        {"above 127", "proc1\377a\nproc2=b\n", '\377', {"a||"}, ""},
    };
    for (const auto &r : rows)
        expect_configured(r);
}

TEST(MonitorConfiguration, WhatCannotBeAddedIsReported) {
    const configuration rows[] = {
        {"a name twice",
         "proc1=a,/d\nproc2=b\nproc3 = a , /e ,x\nproc4=c\n",
         '=',
         {"a|/d|", "b||", "c||"},
         "proc=a , /e ,x already exist.\n"},
        {"the separator is shown",
         "proc1:a\nprocess:a\nproc3:a=1\n",
         ':',
         {"a||", "a=1||"},
         "proc:a already exist.\n"},
        {"no name",
         "proc1=\nproc2 = \nproc3=,\nproc4=,,, ,\nproc5=, ,/d\n",
         '=',
         {},
         "proc= already exist.\nproc= already exist.\nproc=, already exist.\n"
         "proc=,,, , already exist.\nproc=, ,/d already exist.\n"},
        {"nothing is formatted",
         "proc1=%s%n\nproc2=%s%n\n",
         '%',
         {"s%n||"},
         "proc%s%n already exist.\n"},
        {"nothing is formatted either",
         "proc1=%s%n\nproc2=%s%n\n",
         '=',
         {"%s%n||"},
         "proc=%s%n already exist.\n"},
    };
    for (const auto &r : rows)
        expect_configured(r);
}

/* As much of a line as the buffer takes, 2047 characters, is a line; so is what follows. */
TEST(MonitorConfiguration, LongLines) {
    const string start = "proc1=x,/d,";
    const string filler(2047 - start.size(), 'c');
    const configuration rows[] = {
        {"a full line", start + filler.substr(1) + "\n", '=', {"x|/d|" + filler.substr(1)}, ""},
        {"the newline alone is left",
         start + filler + "\nproc2=y\n",
         '=',
         {"x|/d|" + filler, "y||"},
         ""},
        {"the rest has no separator",
         start + filler + "ccc\nproc2=y\n",
         '=',
         {"x|/d|" + filler, "y||"},
         ""},
        {"the rest is an entry", start + filler + "proc2=y\n", '=', {"x|/d|" + filler, "y||"}, ""},
        {"the rest of a comment", "#" + string(2046, '-') + "proc2=y\n", '=', {"y||"}, ""},
        {"many buffers full", string(100'000, '-') + "\nproc2=y\n", '=', {"y||"}, ""},
        {"a long name", "proc1=" + string(3000, 'n') + "\n", '=', {string(255, 'n') + "||"}, ""},
    };
    for (const auto &r : rows)
        expect_configured(r);
}

TEST(MonitorInit, SetsListHooksAndOperations) {
    monitor made("proc1=a\nproc2=b\n");
    const proc_monitor &handle = *static_cast<proc_monitor *>(made);
    EXPECT_EQ(handle.destroy, proc_monitor_destroy);
    EXPECT_EQ(handle.refresh, proc_monitor_refresh);
    EXPECT_EQ(handle.search, proc_monitor_search);
    EXPECT_EQ(handle.operate, proc_monitor_operate);
    EXPECT_EQ(made.list().free, proc_info_free);
    EXPECT_EQ(made.list().match, proc_info_compar);
    EXPECT_EQ(made.list().each, nullptr);
    EXPECT_EQ(made.list().copy, nullptr);
    EXPECT_EQ(made.list().order, nullptr);
    EXPECT_EQ(names_of(made.list()), (names{"a", "b"}));
}

TEST(MonitorInit, ReadsWhateverCanBeOpened) {
    for (const char *path : {"/dev/null", "/tmp", "/proc/self/stat"}) {
        proc_monitor made{};
        const auto descriptors = count_descriptors();
        ASSERT_EQ(proc_monitor_init(&made, path, '='), 0) << path;
        EXPECT_EQ(count_descriptors(), descriptors) << path;
        EXPECT_TRUE(items_of(*made.list).empty()) << path;
        EXPECT_EQ(proc_monitor_destroy(&made), 0);
    }
}

TEST(MonitorInit, FailsAndTouchesNothing) {
    proc_monitor made;
    proc_monitor before;
    std::memset(&made, 0x5a, sizeof made);
    std::memset(&before, 0x5a, sizeof before);
    for (const char *path : {"/none/there", "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(proc_monitor_init(&made, path, '='), -1);
        EXPECT_EQ(std::memcmp(&made, &before, sizeof made), 0);
    }
    EXPECT_EQ(proc_monitor_init(nullptr, "/dev/null", '='), -1);
    EXPECT_EQ(proc_monitor_init(nullptr, nullptr, '='), -1);
}

/* ---- The list ------------------------------------------------------------------------------- */

void expect_item(monitor &watch, const char *name, const string &cwd, const string &cmdline) {
    const proc_monitor_item *item = watch.search(name);
    ASSERT_NE(item, nullptr);
    proc_monitor_item expected;
    std::memset(&expected, 0, sizeof expected);
    string(name).copy(expected.name, sizeof expected.name - 1);
    cwd.copy(expected.info.cwd, sizeof expected.info.cwd - 1);
    cmdline.copy(expected.info.cmdline, sizeof expected.info.cmdline - 1);
    EXPECT_EQ(std::memcmp(item, &expected, sizeof expected), 0) << "and zero else";
}

TEST(MonitorCreate, FillsTheItemAndCutsWhatIsTooLong) {
    const string name(300, 'n');
    const string cwd = "/" + string(1100, 'd');
    monitor watch;
    EXPECT_EQ(watch.operate(" a b ,/d\t\td, ./a  -x ,y", PROC_OP_CREATE), no_error);
    expect_item(watch, "a b", "/d d", "./a -x");
    EXPECT_EQ(watch.operate("bare", PROC_OP_CREATE), no_error);
    expect_item(watch, "bare", "", "");
    EXPECT_EQ(watch.operate(name + "," + cwd + "," + "./run", PROC_OP_CREATE), no_error);
    expect_item(watch, name.substr(0, 255).c_str(), cwd, "./run");
    EXPECT_EQ(watch.operate("c,d," + string(3000, 'x'), PROC_OP_CREATE), no_error);
    expect_item(watch, "c", "d", string(2043, 'x'));
    EXPECT_EQ(watch.operate(string(2046, ' ') + "yz", PROC_OP_CREATE), no_error);
    expect_item(watch, "y", "", "");
    EXPECT_EQ(watch.operate(string(2046, ',') + "z,d", PROC_OP_CREATE), no_error);
    expect_item(watch, "z", "", "");
    EXPECT_EQ(watch.list().count, 6U);
}

/* A name is looked up as it was given, not as it would be cut. */
TEST(MonitorCreate, ANameLongerThanItsFieldIsNotFoundAgain) {
    const string name(256, 'n');
    monitor watch;
    EXPECT_EQ(watch.operate(name, PROC_OP_CREATE), no_error);
    EXPECT_EQ(watch.search(name), nullptr);
    EXPECT_EQ(watch.operate(name, PROC_OP_REMOVE), does_not_exist);
    EXPECT_EQ(watch.operate(name.substr(1), PROC_OP_CREATE), exists);
    EXPECT_EQ(watch.operate(name.substr(1), PROC_OP_REMOVE), no_error);
    EXPECT_EQ(watch.list().count, 0U);
}

TEST(MonitorSearch, FindsTheFirstItemOfExactlyThatName) {
    monitor watch("proc1=one\nproc2=two\nproc3=three\n");
    EXPECT_EQ(watch.search("one"), &item_of(*watch.list().head));
    EXPECT_EQ(watch.search("two"), &item_of(*watch.list().head->next));
    EXPECT_EQ(watch.search("three"), &item_of(*watch.list().tail));
    for (const char *name : {"", "tw", "twoo", "Two", " two", "two,", "/two"})
        EXPECT_EQ(watch.search(name), nullptr) << name;
    EXPECT_EQ(proc_monitor_search(watch, nullptr), nullptr);
    EXPECT_EQ(proc_monitor_search(nullptr, "one"), nullptr);
    std::strcpy(watch.search("three")->name, "one");
    EXPECT_EQ(watch.search("one"), &item_of(*watch.list().head));
}

TEST(MonitorRemove, AnywhereInTheList) {
    const struct {
        names removed;
        names left;
    } rows[] = {
        {{"a"}, {"b", "c", "d"}}, {{"b"}, {"a", "c", "d"}},   {{"d"}, {"a", "b", "c"}},
        {{"a", "b"}, {"c", "d"}}, {{"d", "c"}, {"a", "b"}},   {{"b", "c"}, {"a", "d"}},
        {{"b", "a", "d"}, {"c"}}, {{"a", "b", "c", "d"}, {}}, {{"d", "c", "b", "a"}, {}},
    };
    for (const auto &r : rows) {
        monitor watch("proc1=a\nproc2=b\nproc3=c\nproc4=d\n");
        for (const string &name : r.removed) {
            EXPECT_EQ(watch.operate(" " + name + " ,x", PROC_OP_REMOVE), no_error);
            EXPECT_EQ(watch.operate(name, PROC_OP_REMOVE), does_not_exist);
        }
        EXPECT_EQ(names_of(watch.list()), r.left);
        names with_new = r.left;
        with_new.emplace_back("a new one");
        EXPECT_EQ(watch.operate("a new one", PROC_OP_CREATE), no_error);
        EXPECT_EQ(names_of(watch.list()), with_new) << "at the tail";
    }
}

TEST(MonitorDestroy, LeavesAMonitorThatHoldsNothing) {
    proc_monitor made{};
    ASSERT_EQ(proc_monitor_init(&made, "/dev/null", '='), 0);
    ASSERT_EQ(made.operate(&made, "a,b,c", PROC_OP_CREATE), no_error);
    ASSERT_EQ(made.operate(&made, "b", PROC_OP_CREATE), no_error);
    EXPECT_EQ(made.destroy(&made), 0);
    EXPECT_EQ(made.list, nullptr);
    EXPECT_EQ(made.destroy(&made), 0);
    EXPECT_EQ(made.refresh(&made), 0);
    EXPECT_EQ(made.search(&made, "a"), nullptr);
    for (const unsigned operation : operations)
        EXPECT_EQ(made.operate(&made, "a", operation), error);
    EXPECT_EQ(proc_monitor_destroy(nullptr), 0);
    EXPECT_EQ(proc_monitor_refresh(nullptr), 0);
    EXPECT_EQ(proc_monitor_init(&made, "/dev/null", '='), 0) << "and can be made again";
    EXPECT_EQ(made.destroy(&made), 0);
}

/* ---- Hooks ---------------------------------------------------------------------------------- */

const char *name_at(const void *data) {
    return (*static_cast<const proc_monitor_item *const *>(data))->name;
}

int by_length(const void *record, const void *other) {
    return static_cast<int>(std::strlen(name_at(record))) -
           static_cast<int>(std::strlen(name_at(other)));
}

int by_name_backwards(const void *record, const void *other) {
    return proc_info_compar(other, record);
}

int before_all(const void * /*record*/, const void * /*other*/) {
    return 0;
}

int behind_all(const void * /*record*/, const void * /*other*/) {
    return INT_MAX;
}

int behind_long_names(const void * /*record*/, const void *other) {
    return std::strlen(name_at(other)) > 1 ? 1 : -1;
}

TEST(MonitorOrder, ANewNodeGoesBeforeTheFirstThatItDoesNotFollow) {
    const struct {
        const char *what;
        int (*order)(const void *, const void *);
        names created;
        names kept;
    } rows[] = {
        {"none", nullptr, {"c", "a", "b"}, {"c", "a", "b"}},
        {"by name", proc_info_compar, {"c", "a", "d", "b", "aa"}, {"a", "aa", "b", "c", "d"}},
        {"backwards", by_name_backwards, {"c", "a", "d", "b"}, {"d", "c", "b", "a"}},
        {"a tie goes first",
         by_length,
         {"bb", "a", "cc", "b", "ccc"},
         {"b", "a", "cc", "bb", "ccc"}},
        {"each at the head", before_all, {"a", "b", "c"}, {"c", "b", "a"}},
        {"each at the tail", behind_all, {"a", "b", "c"}, {"a", "b", "c"}},
        {"the first one decides", behind_long_names, {"x", "yy", "z"}, {"yy", "z", "x"}},
    };
    for (const auto &r : rows) {
        monitor watch;
        watch.list().order = r.order;
        for (const string &name : r.created)
            EXPECT_EQ(watch.operate(name, PROC_OP_CREATE), no_error);
        EXPECT_EQ(names_of(watch.list()), r.kept) << r.what;
    }
}

std::vector<const void *> asked; // about these names, in turn

int by_name_watched(const void *record, const void *other) {
    asked.push_back(name_at(other));
    return proc_info_compar(record, other);
}

TEST(MonitorOrder, IsAskedNoFurtherThanTheFirst) {
    monitor watch("proc=a\nproc=c\nproc=e\nproc=g\n");
    watch.list().order = by_name_watched;
    asked.clear();
    EXPECT_EQ(watch.operate("d", PROC_OP_CREATE), no_error);
    EXPECT_EQ(asked, (std::vector<const void *>{watch.search("a")->name, watch.search("c")->name,
                                                watch.search("e")->name}));
}

std::vector<void **> freed;
std::vector<void **> copied;

void free_watched(void **data) {
    freed.push_back(data);
    proc_info_free(data);
}

/* The record is the hook's from here on. */
void copy_record(void **data, void *record) {
    copied.push_back(data);
    auto *copy = static_cast<proc_monitor_item *>(std::malloc(sizeof(proc_monitor_item)));
    std::memcpy(copy, record, sizeof *copy);
    copy->run_status = 1234;
    *data = copy;
    std::free(record);
}

TEST(MonitorHooks, CopyStoresTheRecord) {
    monitor watch("proc1=a\n");
    watch.list().copy = copy_record;
    watch.list().order = proc_info_compar;
    copied.clear();
    EXPECT_EQ(watch.operate("c,/d,x", PROC_OP_CREATE), no_error);
    EXPECT_EQ(watch.operate("b", PROC_OP_CREATE), no_error);
    EXPECT_EQ(watch.operate("b", PROC_OP_CREATE), exists);
    EXPECT_EQ(entries_of(watch.list()), (names{"a||", "b||", "c|/d|x"}));
    EXPECT_EQ(watch.search("a")->run_status, 0U);
    EXPECT_EQ(watch.search("b")->run_status, 1234U);
    EXPECT_EQ(copied,
              (std::vector<void **>{&watch.list().tail->data, &watch.list().head->next->data}));
}

TEST(MonitorHooks, FreeIsGivenTheAddressOfTheDataPointer) {
    proc_monitor made{};
    ASSERT_EQ(proc_monitor_init(&made, "/dev/null", '='), 0);
    made.list->free = free_watched;
    for (const char *name : {"a", "b", "c"})
        ASSERT_EQ(made.operate(&made, name, PROC_OP_CREATE), no_error);
    std::vector<void **> data;
    for (proc_node *node = made.list->head; node != nullptr; node = node->next)
        data.push_back(&node->data);

    freed.clear();
    EXPECT_EQ(made.operate(&made, "b", PROC_OP_REMOVE), no_error);
    EXPECT_EQ(freed, (std::vector<void **>{data[1]}));
    EXPECT_EQ(made.destroy(&made), 0);
    EXPECT_EQ(freed, (std::vector<void **>{data[1], data[0], data[2]}));
}

int match_letters(const void *key, const void *data) {
    return strcasecmp(*static_cast<const char *const *>(key), name_at(data));
}

TEST(MonitorHooks, MatchDecidesWhatANameFinds) {
    monitor watch("proc1=one\nproc2=two\n");
    EXPECT_EQ(watch.search("TWO"), nullptr);
    watch.list().match = match_letters;
    EXPECT_EQ(watch.search("TWO"), &item_of(*watch.list().tail));
    EXPECT_EQ(watch.operate("One", PROC_OP_CREATE), exists);
    EXPECT_EQ(watch.operate("One", PROC_OP_STOP), failed_stop);
    EXPECT_EQ(watch.operate("ONE,x", PROC_OP_REMOVE), no_error);
    EXPECT_EQ(names_of(watch.list()), (names{"two"}));
}

/* Nothing matches without a match hook, and nothing is freed without a free hook. */
TEST(MonitorHooks, MayAllBeMissing) {
    monitor watch("proc1=one\n");
    proc_monitor_item *item = watch.search("one");
    watch.list().free = nullptr;
    EXPECT_EQ(watch.operate("one", PROC_OP_REMOVE), no_error);
    EXPECT_EQ(names_of(watch.list()), names{});
    EXPECT_STREQ(item->name, "one");
    std::free(item);

    watch.list().free = proc_info_free;
    watch.list().match = nullptr;
    EXPECT_EQ(watch.operate("two", PROC_OP_CREATE), no_error);
    EXPECT_EQ(watch.operate("two", PROC_OP_REMOVE), does_not_exist);
    EXPECT_EQ(watch.search("two"), nullptr);
    EXPECT_EQ(names_of(watch.list()), names{"two"});
}

/* ---- Operations ----------------------------------------------------------------------------- */

TEST(MonitorMessages, ByIndex) {
    const char *const messages[] = {
        "No error.",
        "Failed restart.",
        "Failed start.",
        "Failed stop.",
        "Failed create.",
        "Failed remove.",
        "Process is running.",
        "Process is stopped.",
        "Process is not exist.",
        "Process is exist.",
        "Error.",
    };
    ASSERT_EQ(std::size(proc_operate_error_message), std::size(messages));
    for (std::size_t i = 0; i < std::size(messages); i++)
        EXPECT_STREQ(proc_operate_error_message[i], messages[i]) << i;
}

TEST(MonitorOperate, NeedsAMonitorAndAName) {
    monitor watch("proc1=a\n");
    proc_monitor zero{};
    for (const unsigned operation : operations) {
        for (const string spec : {"", " ", ",", ",,", " , x", "\t\n", " ,a", ",,, ,a"})
            EXPECT_EQ(watch.operate(spec, operation), error) << spec;
        EXPECT_EQ(watch.operate(string(2047, ' ') + "a", operation), error);
        EXPECT_EQ(watch.operate(string(5000, ','), operation), error);
        EXPECT_EQ(proc_monitor_operate(watch, nullptr, operation), error);
        EXPECT_EQ(proc_monitor_operate(nullptr, "a", operation), error);
        EXPECT_EQ(proc_monitor_operate(nullptr, nullptr, operation), error);
        EXPECT_EQ(proc_monitor_operate(&zero, "a", operation), error);
    }
    EXPECT_EQ(names_of(watch.list()), (names{"a"}));
}

TEST(MonitorOperate, AnUnknownNameIsToldForAllButCreate) {
    monitor watch("proc1=a\n");
    for (const unsigned operation : operations) {
        if (operation == PROC_OP_CREATE)
            continue;
        for (const char *spec : {"b", "A", "aa", "b,a", "/a"})
            EXPECT_EQ(watch.operate(spec, operation), does_not_exist) << spec;
    }
    EXPECT_EQ(names_of(watch.list()), (names{"a"}));
}

TEST(MonitorOperate, TakesTheNameAsCreateDoes) {
    monitor watch("proc1=a b\nproc2=c\n");
    for (const char *spec : {"a b", " a \t b ", "a b,x,y", ",,a b", "a b,", "\na b\n,"})
        EXPECT_EQ(watch.operate(spec, PROC_OP_CREATE), exists) << spec;
    EXPECT_EQ(watch.operate("c , b", PROC_OP_STOP), failed_stop);
}

/* An item of some status, and the process it is said to be. */
struct circumstances {
    std::uint32_t status;
    bool there;      /* whether the process is */
    int exit_status; /* of the command; -1: there is no command */
};

/* The code that an operation gives, and what it did. */
string outcome(const circumstances &of, unsigned operation) {
    const temp_dir directory;
    const string mark = directory / "started";
    monitor watch("proc1=other\nproc2=watched\nproc3=another\n");
    process fellow("/bin/sleep", {"sleep", "1000"});
    proc_monitor_item *item = watch.search("watched");
    item->run_status = of.status;
    item->info.pid = of.there ? fellow.pid() : INT_MAX;
    if (of.exit_status != -1) {
        std::strcpy(item->info.cwd, "/bin");
        const string command = "sh -c 'echo >>" + mark + "; exit " + std::to_string(of.exit_status);
        std::strcpy(item->info.cmdline, (command + "'").c_str());
    }
    proc_monitor_item before;
    std::memcpy(&before, item, sizeof before);

    string told = std::to_string(watch.operate("watched", operation));
    if (watch.search("watched") == nullptr)
        told += " removed";
    else if (std::memcmp(item, &before, sizeof before) != 0)
        told += " changed";
    kill(fellow.pid(), SIGTERM); // for a process that was killed before, too late
    if (WTERMSIG(fellow.wait()) == SIGKILL)
        told += " killed";
    if (std::filesystem::exists(mark))
        told += content_of(mark) == "\n" ? " started" : " started more than once";
    return told;
}

TEST(MonitorOperate, EveryStatusAndOperation) {
    const struct {
        std::uint32_t status;
        const char *restart;
        const char *start;
        const char *stop;
    } rows[] = {
        {PROC_UNKNOWN, "1", "2", "3"},
        {PROC_RESTARTED, "1", "6", "3"},
        {PROC_STARTED, "1", "6", "3"},
        {PROC_STOPPED, "1", "2", "7"},
        {PROC_RUNNING, "0 killed started", "6", "0 killed"},
        {PROC_NOT_RUNNING, "0 started", "0 started", "7"},
        {6, "1", "9", "9"},
        {7, "1", "9", "9"},
        {INT_MAX + 1U, "1", "9", "9"},
        {UINT32_MAX, "1", "9", "9"},
    };
    for (const auto &r : rows) {
        const circumstances of = {r.status, true, 0};
        EXPECT_EQ(outcome(of, PROC_OP_RESTART), r.restart) << r.status;
        EXPECT_EQ(outcome(of, PROC_OP_START), r.start) << r.status;
        EXPECT_EQ(outcome(of, PROC_OP_STOP), r.stop) << r.status;
        EXPECT_EQ(outcome(of, PROC_OP_CREATE), "9") << r.status;
        EXPECT_EQ(outcome(of, PROC_OP_REMOVE), "0 removed") << r.status;
        EXPECT_EQ(outcome(of, 5), "0") << r.status;
        EXPECT_EQ(outcome(of, unknown_operation), "0") << r.status;
    }
}

TEST(MonitorOperate, WhatFails) {
    const struct {
        const char *what;
        circumstances of;
        const char *restart;
        const char *start;
        const char *stop;
    } rows[] = {
        {"stopping: no such process", {PROC_RUNNING, false, 0}, "1", "6", "3"},
        {"the command fails", {PROC_RUNNING, true, 1}, "1 killed started", "6", "0 killed"},
        {"the command fails", {PROC_NOT_RUNNING, true, 255}, "1 started", "2 started", "7"},
        {"no command", {PROC_RUNNING, true, -1}, "1 killed", "6", "0 killed"},
        {"no command", {PROC_NOT_RUNNING, true, -1}, "1", "2", "7"},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(outcome(r.of, PROC_OP_RESTART), r.restart) << r.what;
        EXPECT_EQ(outcome(r.of, PROC_OP_START), r.start) << r.what;
        EXPECT_EQ(outcome(r.of, PROC_OP_STOP), r.stop) << r.what;
    }
}

TEST(MonitorOperate, AnItemWithoutACommandCannotBeStarted) {
    for (const char *spec : {"app", "app,/", "app,,true", "app, ,bin/true"}) {
        monitor watch;
        ASSERT_EQ(watch.operate(spec, PROC_OP_CREATE), no_error);
        proc_monitor_item *item = watch.search("app");
        item->run_status = PROC_NOT_RUNNING;
        EXPECT_EQ(proc_start(item), -1) << spec;
        EXPECT_EQ(watch.operate("app", PROC_OP_START), failed_start) << spec;
        EXPECT_EQ(watch.operate("app", PROC_OP_RESTART), failed_restart) << spec;
    }
}

/* ---- Their parts ---------------------------------------------------------------------------- */

TEST(ProcRunStatus, ComparesTwoIdentifiers) {
    const struct {
        int now;
        int before;
        int status;
    } rows[] = {
        {0, 0, PROC_NOT_RUNNING},
        {7, 7, PROC_RUNNING},
        {7, 0, PROC_STARTED},
        {0, 7, PROC_STOPPED},
        {8, 7, PROC_RESTARTED},
        {7, 8, PROC_RESTARTED},
        {1, 1, PROC_RUNNING},
        {-1, -1, PROC_RUNNING},
        {0, -1, PROC_STOPPED},
        {-1, 0, PROC_STARTED},
        {-1, 1, PROC_RESTARTED},
        {INT_MAX, 0, PROC_STARTED},
        {0, INT_MIN, PROC_STOPPED},
        {INT_MIN, INT_MIN, PROC_RUNNING},
        {INT_MIN, INT_MAX, PROC_RESTARTED},
    };
    for (const auto &r : rows)
        EXPECT_EQ(proc_run_status(r.now, r.before), r.status) << r.now << " " << r.before;
}

TEST(ProcInfoCompar, ComparesTheNamesThatPointersLeadTo) {
    proc_monitor_item a{};
    proc_monitor_item b{};
    const proc_monitor_item *one = &a;
    const proc_monitor_item *other = &b;
    const char *text = "mysrv";
    std::strcpy(a.name, "mysrv");
    std::strcpy(b.name, "mysrv2");
    EXPECT_EQ(proc_info_compar(&text, &one), 0);
    EXPECT_EQ(proc_info_compar(&one, &one), 0);
    EXPECT_LT(proc_info_compar(&one, &other), 0);
    EXPECT_GT(proc_info_compar(&other, &text), 0);
}

TEST(ProcInfoFree, FreesTheBlock) {
    void *block = std::malloc(100'000);
    void *none = nullptr;
    const std::size_t before = heap_in_use();
    proc_info_free(&block);
    EXPECT_LE(heap_in_use() + 100'000, before);
    proc_info_free(&none);
}

proc_monitor_item item_with(const string &cwd, const string &cmdline) {
    proc_monitor_item item{};
    cwd.copy(item.info.cwd, sizeof item.info.cwd - 1);
    cmdline.copy(item.info.cmdline, sizeof item.info.cmdline - 1);
    return item;
}

TEST(ProcStart, GivesWhatThePipesEndDoes) {
    const struct {
        const char *cmdline;
        int status;
    } rows[] = {
        {"sh -c 'exit 0'", 0},
        {"sh -c 'exit 7'", 7 << 8},
        {"sh -c 'exit 255'", 255 << 8},
        {"true; exit 3", 3 << 8},
        {"true; kill -TERM $$", SIGTERM},
        {"none-there 2>/dev/null", 127 << 8},
        {"", -1},
    };
    for (const auto &r : rows) {
        proc_monitor_item item = item_with("/bin", r.cmdline);
        EXPECT_EQ(proc_start(&item), r.status) << r.cmdline;
    }
}

TEST(ProcStart, RunsTheCommandBelowTheDirectoryInTheCallersOwn) {
    const temp_dir directory;
    const string out = directory / "out";
    proc_monitor_item item = item_with("/bin/..", "bin/sh -c 'echo $0 $1; pwd' a \"b c\" >" + out);
    item.info.pid = 5;
    item.run_status = PROC_RUNNING;
    EXPECT_EQ(proc_start(&item), 0);
    EXPECT_EQ(content_of(out), "a b c\n" + std::filesystem::current_path().string() + "\n");
    EXPECT_EQ(item.info.pid, 5);
    EXPECT_EQ(item.run_status, static_cast<std::uint32_t>(PROC_RUNNING));
}

TEST(ProcStart, NeedsDirectoryAndCommand) {
    proc_monitor_item nothing{};
    proc_monitor_item no_directory = item_with("", "/bin/true");
    proc_monitor_item no_command = item_with("/bin", "");
    EXPECT_EQ(proc_start(&nothing), -1);
    EXPECT_EQ(proc_start(&no_directory), -1);
    EXPECT_EQ(proc_start(&no_command), -1);
    EXPECT_EQ(proc_start(nullptr), -1);
}

/* The command that would be left of a longer one might be another. */
TEST(ProcStart, RunsNoCommandThatIsCut) {
    const temp_dir directory;
    const string mark = directory / "started";
    const string command = "touch " + mark + " #";
    const auto start_of_length = [&](std::size_t length) {
        const std::size_t rest = length - 5 - command.size(); // behind "/bin/"
        proc_monitor_item item = item_with("/bin", command + string(rest, '-'));
        return proc_start(&item);
    };
    EXPECT_EQ(start_of_length(2048), -1);
    proc_monitor_item longest = item_with("/" + string(1022, 'd'), string(2047, 'c'));
    EXPECT_EQ(proc_start(&longest), -1);
    EXPECT_FALSE(std::filesystem::exists(mark));
    EXPECT_EQ(start_of_length(2047), 0);
    EXPECT_TRUE(std::filesystem::exists(mark));
}

const child_result as_expected = {0, 0, "", ""};

TEST(ProcStart, WhatTheCommandPrintsIsNotSeen) {
    EXPECT_EQ(run_in_child([] {
                  proc_monitor_item item =
                      item_with("/bin", "sh -c 'trap \"\" PIPE; echo seen 2>/dev/null; exit 4'");
                  EXPECT_EQ(proc_start(&item), 4 << 8);
              }),
              as_expected);
}

TEST(ProcStart, TheCommandInheritsNothingOfTheLibrarys) {
    const temp_dir directory;
    const string out = directory / "out";
    EXPECT_EQ(run_in_child([&] {
                  close_range(3, ~0U, 0);
                  proc_monitor_item item = item_with("/bin", "ls /proc/self/fd >" + out);
                  EXPECT_EQ(proc_start(&item), 0);
                  EXPECT_EQ(count_descriptors(), 4) << "three streams, and that which counts";
              }),
              as_expected);
    EXPECT_EQ(content_of(out), "0\n1\n2\n3\n") << "three streams, and that which lists";
}

TEST(ProcStart, FailsWithoutAPipe) {
    EXPECT_EQ(run_in_child([] {
                  proc_monitor_item item = item_with("/bin", "true");
                  keel_test::forbid_descriptors();
                  EXPECT_EQ(proc_start(&item), -1);
              }),
              as_expected);
}

TEST(ProcStart, CannotTellWhileTheEndOfChildrenIsIgnored) {
    const temp_dir directory;
    const string mark = directory / "started";
    EXPECT_EQ(run_in_child([&] {
                  std::signal(SIGCHLD, SIG_IGN);
                  proc_monitor_item item = item_with("/bin", "touch " + mark);
                  EXPECT_EQ(proc_start(&item), -1);
              }),
              as_expected);
    EXPECT_TRUE(std::filesystem::exists(mark));
}

TEST(ProcStart, ReturnsWhenTheCommandEndsThoughADaemonStays) {
    const temp_dir directory;
    const string gate = directory / "gate";
    const string done = directory / "done";
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    proc_monitor_item item =
        item_with("/bin", "sh -c 'trap \"\" PIPE; read x <" + gate + "; echo >" + done + "' &");
    EXPECT_EQ(proc_start(&item), 0);
    EXPECT_FALSE(std::filesystem::exists(done));
    write_file(gate, "on\n"); // held up until the daemon reads
    EXPECT_TRUE(keel_test::eventually([&] { return content_of(done) == "\n"; }));
}

TEST(ProcStart, IsNoPlaceToBeCancelledAt) {
    int status = -1;
    EXPECT_TRUE(keel_test::run_cancelled([&] {
        proc_monitor_item item = item_with("/bin", "sh -c 'exit 6'");
        status = proc_start(&item);
    }));
    EXPECT_EQ(status, 6 << 8);
}

TEST(ProcStop, KillsAtOnce) {
    process fellow([] {
        std::signal(SIGTERM, SIG_IGN);
        for (;;)
            pause();
    });
    ASSERT_EQ(proc_stop(fellow.pid()), 0);
    EXPECT_EQ(fellow.wait(), SIGKILL);
}

TEST(ProcStop, GivesTheSystemsResult) {
    errno = 0;
    EXPECT_EQ(proc_stop(INT_MAX), -1);
    EXPECT_EQ(errno, ESRCH);
    if (geteuid() != 0)
        GTEST_SKIP() << "a process of another user needs root";
    EXPECT_EQ(run_in_child([] {
                  const pid_t tester = getppid();
                  EXPECT_EQ(seteuid(65534), 0);
                  EXPECT_EQ(setreuid(65534, 65534), 0);
                  EXPECT_EQ(proc_stop(tester), -1);
                  EXPECT_EQ(errno, EPERM);
              }),
              as_expected);
}

TEST(ProcStop, ANegativeIdentifierIsAGroup) {
    process fellow([] {
        for (;;)
            pause();
    });
    const pid_t group = fellow.pid();
    ASSERT_EQ(setpgid(group, group), 0);
    ASSERT_EQ(proc_stop(-group), 0);
    EXPECT_EQ(fellow.wait(), SIGKILL);
}

/* ---- Real daemons --------------------------------------------------------------------------- */

/* Tests with a process table of their own; what they start is theirs to reap. */
class Daemons : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "a process table of one's own needs root";
    }
};

void among_own_processes(const std::function<void()> &body, const string &err = "") {
    EXPECT_EQ(keel_test::run_with_own_processes(body), (child_result{0, 0, "", err}));
}

/* A directory of daemons, which all are the same program under different names. */
class daemons {
  public:
    string path() const { return directory_.path(); }
    string operator/(const string &name) const { return directory_ / name; }

    /* What is to be watched of one of them, which is there from now on. */
    string spec(const string &name, const string &arguments = " -d") {
        const string file = directory_ / name;
        if (!std::filesystem::exists(file))
            std::filesystem::create_symlink(KEEL_TEST_DAEMON, file);
        return name + ", " + path() + ", " + name + arguments;
    }

    /* The line of a configuration that says so. */
    string entry(const string &name, const string &arguments = " -d") {
        return "proc_" + name + " = " + spec(name, arguments) + "\n";
    }

  private:
    temp_dir directory_;
};

std::vector<std::uint32_t> statuses_of(const proc_list &list) {
    std::vector<std::uint32_t> all;
    for (const proc_monitor_item *item : items_of(list))
        all.push_back(item->run_status);
    return all;
}

/* How each is after a refresh. */
std::vector<std::uint32_t> refreshed(monitor &watch) {
    watch.refresh();
    return statuses_of(watch.list());
}

codes operate_on_all(monitor &watch, unsigned operation) {
    codes all;
    for (const string &name : names_of(watch.list()))
        all.push_back(watch.operate(name, operation));
    return all;
}

void reap(pid_t pid) {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, SIGKILL);
}

void kill_from_outside(const proc_monitor_item &item) {
    ASSERT_GT(item.info.pid, 0);
    ASSERT_EQ(kill(item.info.pid, SIGKILL), 0);
    reap(item.info.pid);
}

void start_from_outside(const string &command) {
    EXPECT_EQ(std::system(command.c_str()), 0); // NOLINT: of this test
}

template <class Value>
std::vector<Value> ten_times(Value value) {
    return std::vector<Value>(10, value);
}

/* From the configuration until all run steadily. */
void expect_to_come_up(monitor &watch) {
    EXPECT_EQ(statuses_of(watch.list()), ten_times<std::uint32_t>(PROC_UNKNOWN));
    EXPECT_EQ(operate_on_all(watch, PROC_OP_START), ten_times(failed_start));
    EXPECT_EQ(operate_on_all(watch, PROC_OP_STOP), ten_times(failed_stop));
    EXPECT_EQ(operate_on_all(watch, PROC_OP_RESTART), ten_times(failed_restart));
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(refreshed(watch), ten_times<std::uint32_t>(PROC_NOT_RUNNING));
    EXPECT_EQ(operate_on_all(watch, PROC_OP_STOP), ten_times(is_stopped));
    EXPECT_EQ(operate_on_all(watch, PROC_OP_START), ten_times(no_error));
    EXPECT_EQ(statuses_of(watch.list()), ten_times<std::uint32_t>(PROC_NOT_RUNNING));
    EXPECT_EQ(refreshed(watch), ten_times<std::uint32_t>(PROC_STARTED));
    EXPECT_EQ(operate_on_all(watch, PROC_OP_START), ten_times(is_running));
    EXPECT_EQ(operate_on_all(watch, PROC_OP_STOP), ten_times(failed_stop));
    EXPECT_EQ(operate_on_all(watch, PROC_OP_RESTART), ten_times(failed_restart));
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(refreshed(watch), ten_times<std::uint32_t>(PROC_RUNNING));
    EXPECT_EQ(operate_on_all(watch, PROC_OP_START), ten_times(is_running));
}

/* The first is killed, the second stopped, the third restarted, the fourth killed and started
 * without the monitor, the fifth no longer watched, and the second of two new ones runs already. */
void let_all_happen(monitor &watch, daemons &files) {
    const std::vector<proc_monitor_item *> items = items_of(watch.list());
    kill_from_outside(*items[0]);
    EXPECT_EQ(watch.operate(items[1]->name, PROC_OP_STOP), no_error);
    reap(items[1]->info.pid);
    EXPECT_EQ(watch.operate(items[2]->name, PROC_OP_RESTART), no_error);
    reap(items[2]->info.pid);
    kill_from_outside(*items[3]);
    start_from_outside(files / items[3]->name);
    const pid_t no_longer_watched = items[4]->info.pid;
    EXPECT_EQ(watch.operate(items[4]->name, PROC_OP_REMOVE), no_error);
    EXPECT_EQ(kill(no_longer_watched, 0), 0);
    for (const char *name : {"new", "newer"})
        EXPECT_EQ(watch.operate(files.spec(name), PROC_OP_CREATE), no_error);
    start_from_outside(files / "newer");
}

TEST_F(Daemons, TenFromTheirConfigurationToTheirEnd) {
    daemons files;
    string configured = "# What runs here\n";
    for (const char *name : {"mysrv", "collectd", "relay", "watcher", "spooler", "cron2", "named",
                             "gateway", "a-b_c.d", "x"})
        configured += files.entry(name);
    among_own_processes([&] {
        using all = std::vector<std::uint32_t>;
        monitor watch(configured);
        expect_to_come_up(watch);
        let_all_happen(watch, files);
        EXPECT_EQ(refreshed(watch), (all{3, 3, 1, 1, 4, 4, 4, 4, 4, 5, 2}));
        EXPECT_EQ(operate_on_all(watch, PROC_OP_START), (codes{2, 2, 6, 6, 6, 6, 6, 6, 6, 0, 6}));
        EXPECT_EQ(refreshed(watch), (all{5, 5, 4, 4, 4, 4, 4, 4, 4, 2, 4}));
        EXPECT_EQ(operate_on_all(watch, PROC_OP_START), (codes{0, 0, 6, 6, 6, 6, 6, 6, 6, 6, 6}));
        EXPECT_EQ(refreshed(watch), (all{2, 2, 4, 4, 4, 4, 4, 4, 4, 4, 4}));
        EXPECT_EQ(operate_on_all(watch, PROC_OP_STOP), (codes{3, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        for (const proc_monitor_item *item : items_of(watch.list())) {
            if (item->run_status == PROC_RUNNING)
                reap(item->info.pid);
        }
        EXPECT_EQ(refreshed(watch), (all{4, 4, 3, 3, 3, 3, 3, 3, 3, 3, 3}));
        EXPECT_EQ(refreshed(watch), (all{4, 4, 5, 5, 5, 5, 5, 5, 5, 5, 5}));
        EXPECT_EQ(operate_on_all(watch, PROC_OP_REMOVE), codes(11, no_error));
        EXPECT_EQ(watch.list().count, 0U);
    });
}

TEST_F(Daemons, ARestartedOneIsUnsettledForOneRefresh) {
    daemons files;
    const string configured = files.entry("mysrv");
    among_own_processes([&] {
        monitor watch(configured);
        const proc_monitor_item *item = watch.search("mysrv");
        start_from_outside(files / "mysrv");
        watch.refresh();
        watch.refresh();
        const pid_t former = item->info.pid;
        kill_from_outside(*item);
        start_from_outside(files / "mysrv");
        watch.refresh();
        EXPECT_EQ(item->run_status, static_cast<std::uint32_t>(PROC_RESTARTED));
        EXPECT_NE(item->info.pid, former);
        EXPECT_EQ(watch.operate("mysrv", PROC_OP_START), is_running);
        EXPECT_EQ(watch.operate("mysrv", PROC_OP_STOP), failed_stop);
        EXPECT_EQ(watch.operate("mysrv", PROC_OP_RESTART), failed_restart);
        watch.refresh();
        EXPECT_EQ(item->run_status, static_cast<std::uint32_t>(PROC_RUNNING));
    });
}

TEST_F(Daemons, TheStateIsThatOfTheLastRefresh) {
    daemons files;
    const string configured = files.entry("mysrv");
    among_own_processes([&] {
        monitor watch(configured);
        watch.refresh();
        EXPECT_EQ(watch.operate("mysrv", PROC_OP_START), no_error);
        EXPECT_EQ(watch.operate("mysrv", PROC_OP_START), no_error);
        EXPECT_EQ(find_pid_by_name("mysrv", nullptr, 0), 2);
        watch.refresh();
        watch.refresh();
        EXPECT_EQ(watch.operate("mysrv", PROC_OP_STOP), no_error);
        reap(watch.search("mysrv")->info.pid);
        EXPECT_EQ(find_pid_by_name("mysrv", nullptr, 0), 1) << "the other one";
    });
}

/* A process seldom changes between two looks at it: its state apart, which is what it does. */
void expect_snapshot(const proc_monitor_item &item, pid_t pid) {
    proc_info now{};
    ASSERT_EQ(proc_snapshot(pid, &now), 0);
    EXPECT_EQ(item.info.pid, pid);
    EXPECT_TRUE(item.info.state == 'S' || item.info.state == 'R') << item.info.state;
    now.state = item.info.state;
    EXPECT_EQ(std::memcmp(&item.info, &now, sizeof now), 0);
}

TEST_F(Daemons, LaterStartsUseWhatWasFoundLive) {
    daemons files;
    const string configured = files.entry("mysrv", " -d  -v");
    among_own_processes([&] {
        monitor watch(configured);
        const proc_monitor_item *item = watch.search("mysrv");
        watch.refresh();
        EXPECT_EQ(item->info.cwd, files.path());
        EXPECT_STREQ(item->info.cmdline, "mysrv -d -v");
        EXPECT_STREQ(item->info.name, "");
        EXPECT_EQ(watch.operate("mysrv", PROC_OP_START), no_error);
        watch.refresh();
        expect_snapshot(*item, item->info.pid);
        EXPECT_STREQ(item->name, "mysrv");
        EXPECT_STREQ(item->info.name, "mysrv");
        EXPECT_STREQ(item->info.cwd, "/") << "where a daemon goes";
        EXPECT_EQ(item->info.cmdline, files / "mysrv -d -v");
        EXPECT_EQ(item->info.exe, std::filesystem::canonical(KEEL_TEST_DAEMON));

        kill_from_outside(*item);
        watch.refresh();
        watch.refresh();
        EXPECT_EQ(watch.operate("mysrv", PROC_OP_START), no_error);
        watch.refresh();
        EXPECT_EQ(item->info.cmdline, "//" + (files / "mysrv -d -v"));
        expect_snapshot(*item, item->info.pid);
    });
}

TEST_F(Daemons, WhatIsGoneIsKnownStill) {
    daemons files;
    const string configured = files.entry("mysrv");
    among_own_processes([&] {
        monitor watch(configured);
        const proc_monitor_item *item = watch.search("mysrv");
        start_from_outside(files / "mysrv 1");
        watch.refresh();
        proc_monitor_item expected;
        std::memcpy(&expected, item, sizeof expected);
        EXPECT_NE(expected.info.start_time, 0U);
        kill_from_outside(*item);
        watch.refresh();
        expected.info.state = 0;
        expected.info.pid = 0;
        expected.info.start_time = 0;
        expected.run_status = PROC_STOPPED;
        EXPECT_EQ(std::memcmp(item, &expected, sizeof expected), 0);
        expected.run_status = PROC_NOT_RUNNING;
        watch.refresh();
        EXPECT_EQ(std::memcmp(item, &expected, sizeof expected), 0);
    });
}

/* Process identifiers grow, and /proc is in their order. */
TEST_F(Daemons, OfSeveralTheFirstCounts) {
    among_own_processes([] {
        monitor watch("proc=twin\n");
        const proc_monitor_item *item = watch.search("twin");
        process first("/bin/sleep", {"/x/y/twin", "1000"});
        const process second("/bin/sleep", {"twin", "1001"});
        watch.refresh();
        EXPECT_EQ(item->info.pid, first.pid());
        first.kill();
        watch.refresh();
        EXPECT_EQ(item->info.pid, second.pid());
        EXPECT_EQ(item->run_status, static_cast<std::uint32_t>(PROC_RESTARTED));
        EXPECT_STREQ(item->info.cmdline, "twin 1001");
    });
}

TEST_F(Daemons, OneThatHasEndedUnreapedRunsNoMore) {
    among_own_processes([] {
        monitor watch("proc=brief\n");
        const proc_monitor_item *item = watch.search("brief");
        const process fellow("/bin/sleep", {"brief", "1000"});
        watch.refresh();
        EXPECT_EQ(item->info.pid, fellow.pid());
        kill(fellow.pid(), SIGKILL);
        fellow.await_end();
        watch.refresh();
        EXPECT_EQ(item->run_status, static_cast<std::uint32_t>(PROC_STOPPED));
    });
}

TEST_F(Daemons, JavaIsKnownByWhatItRuns) {
    daemons files;
    files.spec("java");
    among_own_processes([&] {
        monitor watch("proc1=/opt/app.jar -v, " + files.path() +
                      ", java -Xmx1m -jar /opt/app.jar -v\nproc2=com.Main, " + files.path() +
                      ", java -cp x com.Main\nproc3=java\nproc4=app.jar\n");
        EXPECT_EQ(refreshed(watch), (std::vector<std::uint32_t>{5, 5, 5, 5}));
        EXPECT_EQ(watch.operate("/opt/app.jar -v", PROC_OP_START), no_error);
        EXPECT_EQ(refreshed(watch), (std::vector<std::uint32_t>{2, 5, 5, 5}));
        EXPECT_EQ(watch.operate("com.Main", PROC_OP_START), no_error);
        EXPECT_EQ(refreshed(watch), (std::vector<std::uint32_t>{4, 2, 5, 5}));
        EXPECT_STREQ(watch.search("com.Main")->info.name, "java");
    });
}

/* Nothing but a snapshot tells that a process runs. */
TEST_F(Daemons, OneThatCannotBeLookedAtIsNotThere) {
    daemons files;
    files.spec("a) b");
    files.spec("a");
    const struct {
        const char *what;
        string name;
        names arguments;
        const char *err;
    } rows[] = {
        {"a bracket in the program's name", "a) b", {"odd"}, ""},
        {"too many arguments",
         "a",
         {"odd", string(2044, 'x')}, // one byte more than there is room for
         "get_cmdline_by_pid READ: buffer too small.\n"},
    };
    for (const auto &r : rows)
        among_own_processes(
            [&] {
                std::vector<char *> argv;
                for (const string &argument : r.arguments)
                    argv.push_back(const_cast<char *>(argument.c_str()));
                argv.push_back(nullptr);
                if (const pid_t starter = fork(); starter == 0)
                    execv((files / r.name).c_str(), argv.data());
                else
                    waitpid(starter, nullptr, 0);
                monitor watch("proc=odd,/d,x\n");
                EXPECT_EQ(refreshed(watch), (std::vector<std::uint32_t>{5})) << r.what;
                EXPECT_EQ(entries_of(watch.list()), names{"odd|/d|x"});
            },
            r.err);
}

TEST_F(Daemons, ManyRefreshesLeaveNothingBehind) {
    among_own_processes([] {
        const process fellow("/bin/sleep", {"one", "1000"});
        const process java("/bin/sleep", {"java", "1000"});
        monitor watch("proc1=one\nproc2=two\nproc3=1000\n");
        const auto refresh_often = [&](int count) {
            for (int i = 0; i < count; i++)
                watch.refresh();
        };
        refresh_often(100); // until the allocator keeps no more of what it got back
        const auto descriptors = count_descriptors();
        const std::size_t heap = heap_in_use();
        refresh_often(10'000);
        EXPECT_EQ(count_descriptors(), descriptors);
        EXPECT_LT(heap_in_use(), heap + 10'000) << "not a byte a refresh";
        EXPECT_EQ(statuses_of(watch.list()), (std::vector<std::uint32_t>{4, 5, 4}));
    });
}

TEST_F(Daemons, ManyStartsAndStopsLeaveNothingBehind) {
    daemons files;
    const string configured = files.entry("mysrv");
    among_own_processes([&] {
        monitor watch(configured);
        const proc_monitor_item *item = watch.search("mysrv");
        const auto live_often = [&](int count) {
            for (int i = 0; i < count; i++) {
                watch.refresh();
                watch.refresh();
                EXPECT_EQ(watch.operate("mysrv", PROC_OP_START), no_error);
                watch.refresh();
                watch.refresh();
                const pid_t pid = item->info.pid;
                EXPECT_EQ(watch.operate("mysrv", PROC_OP_STOP), no_error);
                reap(pid);
                EXPECT_EQ(watch.operate("other,/,x", PROC_OP_CREATE), no_error);
                EXPECT_EQ(watch.operate("other", PROC_OP_REMOVE), no_error);
            }
        };
        live_often(3);
        const auto descriptors = count_descriptors();
        const std::size_t heap = heap_in_use();
        live_often(20);
        EXPECT_EQ(count_descriptors(), descriptors);
        EXPECT_LT(heap_in_use(), heap + 4096) << "not an item's worth";
    });
}

TEST(MonitorRefresh, FindsAProcessAmongAllOfTheMachine) {
    const string name = unique_program_name("watched");
    const caught_stream remarks(stderr); // on processes that end just now
    monitor watch("proc=" + name + "\n");
    const proc_monitor_item *item = watch.search(name);
    watch.refresh();
    EXPECT_EQ(item->run_status, static_cast<std::uint32_t>(PROC_NOT_RUNNING));
    process fellow("/bin/sleep", {name, "1000"}, "/tmp");
    watch.refresh();
    EXPECT_EQ(item->run_status, static_cast<std::uint32_t>(PROC_STARTED));
    ASSERT_EQ(item->info.pid, fellow.pid());
    EXPECT_STREQ(item->info.cwd, "/tmp");
    EXPECT_EQ(item->info.cmdline, name + " 1000");
    watch.refresh();
    EXPECT_EQ(item->run_status, static_cast<std::uint32_t>(PROC_RUNNING));
    ASSERT_EQ(watch.operate(name, PROC_OP_STOP), no_error);
    EXPECT_EQ(fellow.wait(), SIGKILL);
    watch.refresh();
    EXPECT_EQ(item->run_status, static_cast<std::uint32_t>(PROC_STOPPED));
}

} // namespace

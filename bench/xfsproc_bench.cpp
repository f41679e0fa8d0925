/* SPDX-License-Identifier: MIT */
/* The system snapshot, the readers and the processes, beside the plain reads they cannot do
 * without, libproc2 and the system's own tools. */
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <iterator>
#include <libproc2/meminfo.h>
#include <libproc2/misc.h>
#include <libproc2/pids.h>
#include <libproc2/stat.h>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>
#include <xfsproc.h>
#include <xstdio.h>

#include "command.h"
#include "crowd.h"
#include "files.h"
#include "table.h"

using bench::always;
using bench::job;
using bench::require;

namespace {

/* ---- The snapshot --------------------------------------------------------------------------- */

constexpr int snapshots = 100;

/* The three files, kept open. */
struct kernel_files {
    kernel_files() {
        for (std::size_t i = 0; i < paths.size(); i++)
            require((descriptors[i] = open(paths[i], O_RDONLY | O_CLOEXEC)) != -1, paths[i]);
    }
    ~kernel_files() {
        for (const int descriptor : descriptors)
            close(descriptor);
    }
    kernel_files(const kernel_files &) = delete;
    kernel_files &operator=(const kernel_files &) = delete;

    void read_all() {
        for (const int descriptor : descriptors)
            require(pread(descriptor, text.data(), text.size(), 0) > 0, "pread failed");
    }

    static constexpr std::array paths = {"/proc/stat", "/proc/uptime", "/proc/meminfo"};
    std::array<int, paths.size()> descriptors{};
    std::array<char, 32 * 1024> text{};
};

/* The same files as streams that are rewound, their lines read and no more. */
struct kept_streams {
    kept_streams() {
        for (std::size_t i = 0; i < streams.size(); i++)
            require((streams[i] = std::fopen(kernel_files::paths[i], "re")) != nullptr &&
                        std::setvbuf(streams[i], buffers[i].data(), _IOFBF, buffers[i].size()) == 0,
                    "cannot open a kernel file");
    }
    ~kept_streams() {
        for (FILE *stream : streams)
            std::fclose(stream);
        std::free(line);
    }
    kept_streams(const kept_streams &) = delete;
    kept_streams &operator=(const kept_streams &) = delete;

    bool next(std::size_t i) { return _fgets(&line, &capacity, streams[i], nullptr) != nullptr; }

    void read_all() {
        for (FILE *stream : streams) {
            std::rewind(stream);
            std::fflush(stream);
        }
        while (next(0) && std::strncmp(line, "cpu", 3) == 0)
            continue;
        require(next(1), "no uptime");
        while (next(2))
            continue;
    }

    std::array<FILE *, 3> streams{};
    std::array<std::array<char, 32 * 1024>, 3> buffers{};
    char *line = nullptr;
    int capacity = 0;
};

/* The same figures through libproc2. */
struct proc2 {
    proc2() {
        require(procps_stat_new(&stat) == 0 && procps_meminfo_new(&memory) == 0, "libproc2");
    }
    ~proc2() {
        procps_stat_unref(&stat);
        procps_meminfo_unref(&memory);
    }
    proc2(const proc2 &) = delete;
    proc2 &operator=(const proc2 &) = delete;

    void read_all() {
        double uptime = 0;
        double idle = 0;
        require(procps_stat_reap(stat, STAT_REAP_CPUS_ONLY, std::data(ticks),
                                 static_cast<int>(std::size(ticks))) != nullptr &&
                    procps_uptime(&uptime, &idle) >= 0 &&
                    procps_meminfo_select(memory, std::data(figures),
                                          static_cast<int>(std::size(figures))) != nullptr,
                "libproc2");
    }

    stat_info *stat = nullptr;
    meminfo_info *memory = nullptr;
    stat_item ticks[10] = {STAT_TIC_ID,     STAT_TIC_USER,   STAT_TIC_NICE, STAT_TIC_SYSTEM,
                           STAT_TIC_IDLE,   STAT_TIC_IOWAIT, STAT_TIC_IRQ,  STAT_TIC_SOFTIRQ,
                           STAT_TIC_STOLEN, STAT_TIC_GUEST};
    meminfo_item figures[7] = {MEMINFO_MEM_TOTAL,  MEMINFO_MEM_FREE,   MEMINFO_MEM_BUFFERS,
                               MEMINFO_MEM_CACHED, MEMINFO_SWAP_TOTAL, MEMINFO_SWAP_FREE,
                               MEMINFO_SWAP_CACHED};
};

template <class Reader>
job snapshots_by() {
    return {.run = [reader = std::make_shared<Reader>()] {
        for (int i = 0; i < snapshots; i++)
            reader->read_all();
    }};
}

void keel_snapshots() {
    for (int i = 0; i < snapshots; i++)
        get_system_stat();
}

bench::table snapshot() {
    return {.title = "System snapshot",
            .item = "snapshot",
            .items = snapshots,
            .floor =
                "three kernel files, which the kernel prints anew for each read; to rewind kept "
                "streams and read their lines, with the buffer zeroed behind each, takes the last "
                "row's time before any is looked at",
            .contenders = {
                {"keel get_system_stat", always(keel_snapshots)},
                {"pread of the three files, kept open", snapshots_by<kernel_files>, 1.2},
                {"libproc2 stat, uptime and meminfo", snapshots_by<proc2>, 1.1},
                {"lines of three kept streams by _fgets, unparsed", snapshots_by<kept_streams>}}};
}

/* ---- Readers, their stream kept ------------------------------------------------------------- */

constexpr int readings = 100;

/* Calls `read` on a stream that is opened once. */
std::function<job()> kept(const char *path, const std::function<void(FILE *)> &read) {
    return [=] {
        const std::shared_ptr<FILE> stream(std::fopen(path, "re"), std::fclose);
        require(stream != nullptr, path);
        return job{.run = [=] {
            for (int i = 0; i < readings; i++)
                read(stream.get());
        }};
    };
}

std::function<job()> kept_and_pread(const char *path) {
    return kept(path, [](FILE *stream) {
        static char text[64 * 1024];
        require(pread(fileno(stream), text, sizeof text, 0) > 0, "pread failed");
    });
}

bench::table network() {
    return {.title = "Network interfaces",
            .item = "reading",
            .items = readings,
            .contenders = {{"keel net_dev, state and address asked for",
                            kept("/proc/net/dev",
                                 [](FILE *stream) {
                                     net_dev_stat interfaces[64] = {};
                                     require(net_dev(stream, interfaces, 64, nullptr, 0) >= 0,
                                             "net_dev failed");
                                 })},
                           {"keel net_dev, counted alone",
                            kept("/proc/net/dev",
                                 [](FILE *stream) {
                                     require(net_dev(stream, nullptr, 0, nullptr, 0) >= 0,
                                             "net_dev failed");
                                 })},
                           {"keel net_dev_info of \"lo\"",
                            kept("/proc/net/dev",
                                 [](FILE *stream) {
                                     net_dev_stat loopback = {};
                                     require(net_dev_info(stream, "lo", &loopback) == 0,
                                             "net_dev_info failed");
                                 })},
                           {"pread of the file, kept open", kept_and_pread("/proc/net/dev")}}};
}

bench::table disks() {
    return {.title = "Disks",
            .item = "reading",
            .items = readings,
            .contenders = {{"keel diskstats", kept("/proc/diskstats",
                                                   [](FILE *stream) {
                                                       static disk_stat found[16];
                                                       require(diskstats(stream, found, 16) >= 0,
                                                               "diskstats failed");
                                                   })},
                           {"pread of the file, kept open", kept_and_pread("/proc/diskstats")}}};
}

/* ---- All processes -------------------------------------------------------------------------- */

constexpr char wanted[] = "sleeper-100";

std::unique_ptr<DIR, int (*)(DIR *)> open_directory(const std::string &path) {
    return {opendir(path.c_str()), closedir};
}

/* Calls `visit` with the directory of each process. */
template <class Visit>
void visit_processes(Visit visit) {
    const auto processes = open_directory("/proc");
    require(processes != nullptr, "there is no /proc");
    while (const dirent *entry = readdir(processes.get()))
        if (*entry->d_name >= '0' && *entry->d_name <= '9')
            visit("/proc/" + std::string(entry->d_name));
}

void keel_find() {
    require(find_pid_by_name(wanted, nullptr, 0) == 1, "find_pid_by_name failed");
}

/* What nobody who looks for a program can do without. */
void plain_find() {
    int found = 0;
    visit_processes([&](const std::string &process) {
        char text[2048];
        const int file = open((process + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC);
        if (file == -1)
            return;
        found += read(file, text, sizeof text) >= static_cast<ssize_t>(sizeof wanted) &&
                 std::memcmp(text, wanted, sizeof wanted) == 0;
        close(file);
    });
    require(found == 1, "the process is not found by its command line");
}

void proc2_find() {
    pids_item items[] = {PIDS_CMDLINE_V};
    pids_info *processes = nullptr;
    require(procps_pids_new(&processes, items, std::size(items)) == 0, "libproc2");
    int found = 0;
    while (const pids_stack *process = procps_pids_get(processes, PIDS_FETCH_TASKS_ONLY))
        found += std::strcmp(*process->head[0].result.strv, wanted) == 0;
    procps_pids_unref(&processes);
    require(found == 1, "libproc2 does not find the process");
}

/* `work`, while the system has `size` processes. */
std::function<job()> among(bench::crowd &others, std::size_t size,
                           const std::function<void()> &work) {
    return [=, &others] {
        others.fill_to(size);
        return job{.run = work};
    };
}

std::function<void()> tool(const std::vector<std::string> &words) {
    return [=] { bench::run_command(words); };
}

bench::table finding(const char *title, bench::crowd &others, std::size_t size) {
    return {.title = title,
            .item = "search",
            .floor = "the second row, which opens and reads one file of each process",
            .contenders = {
                {"keel find_pid_by_name", among(others, size, keel_find)},
                {"open, read and close each command line", among(others, size, plain_find), 1.5},
                {"pidof, the tool", among(others, size, tool({"pidof", wanted})), 0.3},
                {"true, the tool: to start one", among(others, size, tool({"true"}))},
                {"libproc2, command lines", among(others, size, proc2_find)}}};
}

bench::table finding_growth(bench::crowd &others) {
    constexpr std::size_t few = 500;
    constexpr std::size_t many = 2000;
    return {
        .title = "Find a process by name, growth",
        .item = "process",
        .items = many,
        .contenders = {{"keel find_pid_by_name, 2,000 processes", among(others, many, keel_find)},
                       {"keel find_pid_by_name, four times 500 processes",
                        among(others, few,
                              [] {
                                  for (std::size_t i = 0; i < many / few; i++)
                                      keel_find();
                              }),
                        1.5}}};
}

/* ---- Open files ----------------------------------------------------------------------------- */

void keel_fuser(const std::string &path) {
    require(fuser(path.c_str(), nullptr, 0) == 1, "fuser failed");
}

void plain_fuser(const std::string &path) {
    int found = 0;
    visit_processes([&](const std::string &process) {
        const auto descriptors = open_directory(process + "/fd");
        while (const dirent *entry =
                   descriptors != nullptr ? readdir(descriptors.get()) : nullptr) {
            char link[4096];
            const ssize_t length =
                readlinkat(dirfd(descriptors.get()), entry->d_name, link, sizeof link);
            found += length > 0 && path == std::string_view(link, static_cast<std::size_t>(length));
        }
    });
    require(found == 1, "the open file is not found");
}

bench::table open_files(bench::crowd &others, const std::string &path) {
    constexpr std::size_t size = 500;
    return {.title = "Who has a file open, 500 processes",
            .item = "search",
            .floor = "the third row, which reads all links to open files and nothing else",
            .contenders = {
                {"keel fuser", among(others, size, [&] { keel_fuser(path); })},
                {"fuser, the tool", among(others, size, tool({"fuser", "--silent", path})), 0.6},
                {"readdir and readlink of all descriptors",
                 among(others, size, [&] { plain_fuser(path); })}}};
}

/* ---- One process ---------------------------------------------------------------------------- */

void keel_statistics(pid_t pid) {
    proc_stat process = {};
    for (int i = 0; i < readings; i++)
        require(get_stat_by_pid(pid, &process) == 0, "get_stat_by_pid failed");
}

void plain_statistics(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    for (int i = 0; i < readings; i++) {
        char text[4096];
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        require(file != -1 && read(file, text, sizeof text) > 0, "cannot read the statistics");
        close(file);
    }
}

job proc2_statistics(unsigned pid) {
    struct reader {
        reader() {
            require(procps_pids_new(&processes, items, static_cast<int>(std::size(items))) == 0,
                    "libproc2");
        }
        ~reader() { procps_pids_unref(&processes); }
        pids_item items[5] = {PIDS_TICS_USER, PIDS_TICS_SYSTEM, PIDS_STATE, PIDS_VM_RSS,
                              PIDS_TICS_BEGAN};
        pids_info *processes = nullptr;
    };
    return {.run = [pid, of = std::make_shared<reader>()]() mutable {
        for (int i = 0; i < readings; i++)
            require(procps_pids_select(of->processes, &pid, 1, PIDS_SELECT_PID) != nullptr,
                    "libproc2");
    }};
}

bench::table statistics(bench::crowd &others) {
    constexpr std::size_t size = 500;
    const auto one = [&] {
        others.fill_to(size);
        return others.at(100);
    };
    return {
        .title = "Statistics of one process",
        .item = "reading",
        .items = readings,
        .floor = "three system calls, of which the kernel spends most printing the line",
        .contenders = {{"keel get_stat_by_pid",
                        [=] { return job{.run = [pid = one()] { keel_statistics(pid); }}; }},
                       {"open, read and close the file",
                        [=] { return job{.run = [pid = one()] { plain_statistics(pid); }}; }, 1.3},
                       {"libproc2, a few of the figures",
                        [=] { return proc2_statistics(static_cast<unsigned>(one())); }}}};
}

} // namespace

int main(int argc, char *argv[]) {
    bench::crowd others;
    const bench::scratch_dir directory(bench::memory_dir());
    const std::string open_file = directory / "open";
    bench::write_file(open_file, "");
    const std::unique_ptr<FILE, int (*)(FILE *)> held(std::fopen(open_file.c_str(), "re"),
                                                      std::fclose);
    return bench::measure(argc, argv,
                          {snapshot(), network(), disks(), statistics(others),
                           finding("Find a process by name, 500 processes", others, 500),
                           finding("Find a process by name, 2,000 processes", others, 2000),
                           finding_growth(others), open_files(others, open_file)});
}

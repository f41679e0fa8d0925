/* SPDX-License-Identifier: MIT */
/* The system snapshot beside the plain reads it cannot do without, and libproc2's own. */
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <libproc2/meminfo.h>
#include <libproc2/misc.h>
#include <libproc2/stat.h>
#include <memory>
#include <unistd.h>
#include <xfsproc.h>
#include <xstdio.h>

#include "table.h"

using bench::require;

namespace {

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
bench::job snapshots_by() {
    return {.run = [reader = std::make_shared<Reader>()] {
        for (int i = 0; i < snapshots; i++)
            reader->read_all();
    }};
}

} // namespace

int main(int argc, char *argv[]) {
    const auto keel_snapshots = bench::always([] {
        for (int i = 0; i < snapshots; i++)
            get_system_stat();
    });
    return bench::measure(
        argc, argv,
        {{.title = "System snapshot",
          .item = "snapshot",
          .items = snapshots,
          .floor = "three kernel files, which the kernel prints anew for each read; to rewind kept "
                   "streams and read their lines, with the buffer zeroed behind each, takes the "
                   "last row's time before any is looked at",
          .contenders = {
              {"keel get_system_stat", keel_snapshots},
              {"pread of the three files, kept open", snapshots_by<kernel_files>, 1.2},
              {"libproc2 stat, uptime and meminfo", snapshots_by<proc2>, 1.1},
              {"lines of three kept streams by _fgets, unparsed", snapshots_by<kept_streams>}}}});
}

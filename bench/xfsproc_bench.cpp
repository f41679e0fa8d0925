/* SPDX-License-Identifier: MIT */
/* The system snapshot beside the plain reads it cannot do without, and libproc2's own. */
#include <array>
#include <fcntl.h>
#include <iterator>
#include <libproc2/meminfo.h>
#include <libproc2/misc.h>
#include <libproc2/stat.h>
#include <memory>
#include <unistd.h>
#include <xfsproc.h>

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

bench::job plain_reads() {
    return {.run = [files = std::make_shared<kernel_files>()] {
        for (int i = 0; i < snapshots; i++)
            files->read_all();
    }};
}

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

bench::job libproc2() {
    return {.run = [reader = std::make_shared<proc2>()] {
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
          .floor = "three kernel files, which the kernel prints anew for each read",
          .contenders = {{"keel get_system_stat", keel_snapshots},
                         {"pread of the three files, kept open", plain_reads, 1.2},
                         {"libproc2 stat, uptime and meminfo", libproc2, 1.1}}}});
}

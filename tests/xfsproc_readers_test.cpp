/* SPDX-License-Identifier: MIT */
#include "xfsproc.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <net/if.h>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "caught_output.h"
#include "child.h"
#include "descriptors.h"
#include "fake_files.h"
#include "heap.h"
#include "lies_at.h"
#include "own_network.h"
#include "plain_lines.h"
#include "plain_proc.h"
#include "processes.h"
#include "temp_dir.h"
#include "waiting.h"

namespace {

using keel_test::caught_stream;
using keel_test::child_result;
using keel_test::content_of;
using keel_test::count_descriptors;
using keel_test::eventually;
using keel_test::fake_files;
using keel_test::heap_in_use;
using keel_test::ip;
using keel_test::ip_tells;
using keel_test::run_with_fakes;
using keel_test::temp_dir;
using keel_test::write_file;
using std::string;

/* ---- The records ---------------------------------------------------------------------------- */

LIES_AT(uptime_val, sec, std::int64_t, 0);
LIES_AT(uptime_val, nsec, std::int64_t, 8);
static_assert(sizeof(uptime_val) == 16);

LIES_AT(boot_time, sec, std::int64_t, 0);
LIES_AT(boot_time, nsec, std::int64_t, 8);
static_assert(sizeof(boot_time) == 16);

LIES_AT(cpu_stat, user, std::uint64_t, 0);
LIES_AT(cpu_stat, nice, std::uint64_t, 8);
LIES_AT(cpu_stat, system, std::uint64_t, 16);
LIES_AT(cpu_stat, idle, std::uint64_t, 24);
LIES_AT(cpu_stat, iowait, std::uint64_t, 32);
LIES_AT(cpu_stat, irq, std::uint64_t, 40);
LIES_AT(cpu_stat, softirq, std::uint64_t, 48);
LIES_AT(cpu_stat, steal, std::uint64_t, 56);
LIES_AT(cpu_stat, guest, std::uint64_t, 64);
static_assert(sizeof(cpu_stat) == 72);

LIES_AT(mem_stat, buffers, std::uint64_t, 0);
LIES_AT(mem_stat, cached, std::uint64_t, 8);
LIES_AT(mem_stat, mem_free, std::uint64_t, 16);
LIES_AT(mem_stat, mem_total, std::uint64_t, 24);
LIES_AT(mem_stat, mem_used, std::uint64_t, 32);
LIES_AT(mem_stat, swap_free, std::uint64_t, 40);
LIES_AT(mem_stat, swap_total, std::uint64_t, 48);
LIES_AT(mem_stat, swap_used, std::uint64_t, 56);
static_assert(sizeof(mem_stat) == 64);

LIES_AT(net_dev_stat, rx_bytes, std::uint64_t, 0);
LIES_AT(net_dev_stat, rx_packets, std::uint64_t, 8);
LIES_AT(net_dev_stat, tx_bytes, std::uint64_t, 16);
LIES_AT(net_dev_stat, tx_packets, std::uint64_t, 24);
LIES_AT(net_dev_stat, name, char[16], 32);
LIES_AT(net_dev_stat, flags, std::uint16_t, 48);
LIES_AT(net_dev_stat, prev_state, std::uint32_t, 52);
LIES_AT(net_dev_stat, state, std::uint32_t, 56);
LIES_AT(net_dev_stat, addr, std::uint32_t, 60);
LIES_AT(net_dev_stat, netmask, std::uint32_t, 64);
static_assert(sizeof(net_dev_stat) == 72);

LIES_AT(disk_stat, major, std::uint32_t, 0);
LIES_AT(disk_stat, minor, std::uint32_t, 4);
LIES_AT(disk_stat, reads, std::uint64_t, 8);
LIES_AT(disk_stat, reads_merged, std::uint64_t, 16);
LIES_AT(disk_stat, sectors_read, std::uint64_t, 24);
LIES_AT(disk_stat, read_ms, std::uint64_t, 32);
LIES_AT(disk_stat, writes, std::uint64_t, 40);
LIES_AT(disk_stat, writes_merged, std::uint64_t, 48);
LIES_AT(disk_stat, sectors_written, std::uint64_t, 56);
LIES_AT(disk_stat, write_ms, std::uint64_t, 64);
LIES_AT(disk_stat, io_ms, std::uint64_t, 72);
LIES_AT(disk_stat, weighted_io_ms, std::uint64_t, 80);
LIES_AT(disk_stat, name, char[256], 88);
static_assert(sizeof(disk_stat) == 344);

LIES_AT(mount_stat, fs, struct statfs, 0);
LIES_AT(mount_stat, ent, mntent, sizeof(struct statfs));
LIES_AT(mount_stat, strbuf, char[1024], sizeof(struct statfs) + sizeof(mntent));
static_assert(sizeof(mount_stat) == sizeof(struct statfs) + sizeof(mntent) + 1024);

/* ---- Files and records under watch ---------------------------------------------------------- */

/* A file whose text changes, open all the time. */
class kept_file {
  public:
    explicit kept_file(const string &text = "") {
        hold(text);
        stream_ = std::fopen(("/proc/self/fd/" + std::to_string(file_)).c_str(), "r");
    }
    ~kept_file() {
        std::fclose(stream_);
        close(file_);
    }
    kept_file(const kept_file &) = delete;
    kept_file &operator=(const kept_file &) = delete;

    void hold(const string &text) const {
        if (ftruncate(file_, 0) != 0 ||
            pwrite(file_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
            std::abort();
    }
    FILE *stream() const { return stream_; }

  private:
    int file_ = memfd_create("kept", MFD_CLOEXEC);
    FILE *stream_ = nullptr;
};

/* Fakes of the kernel's files. The kernel makes those of a network anew for whoever looks: they are
 * faked with their directory. */
class fake_kernel {
  public:
    explicit fake_kernel(fake_files &files) : files_(files) {}

    void lay(const string &path, const string &text) {
        if (path == "/proc/net/dev")
            write_file(network() / "dev", text);
        else
            files_.lay(path, text);
    }

    void block(const string &path) {
        if (path == "/proc/net/dev")
            ASSERT_EQ(mknod((network() / "dev").c_str(), S_IFSOCK | 0600, 0), 0);
        else
            files_.block(path);
    }

  private:
    const temp_dir &network() {
        if (!network_) {
            network_.emplace();
            fake_files::bind(network_->path(), "/proc/self/net");
        }
        return *network_;
    }

    fake_files &files_;
    std::optional<temp_dir> network_;
};

constexpr unsigned char junk = 0x5a;

template <class Record>
Record junk_record() {
    Record record;
    std::memset(static_cast<void *>(&record), junk, sizeof record);
    return record;
}

template <class Record>
bool is_junk(const Record &record) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(&record);
    return std::all_of(bytes, bytes + sizeof record, [](unsigned char b) { return b == junk; });
}

template <class Record>
bool is_zero(const Record &record) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(&record);
    return std::all_of(bytes, bytes + sizeof record, [](unsigned char b) { return b == 0; });
}

/* ---- Answers as text ------------------------------------------------------------------------ */

template <class... Numbers>
string numbers(Numbers... all) {
    string text;
    ((text += (text.empty() ? "" : " ") + std::to_string(all)), ...);
    return text;
}

string told(const uptime_val &up) {
    return numbers(up.sec, up.nsec);
}

string told(std::uint64_t count) {
    return numbers(count);
}

string told(const cpu_stat &cpu) {
    return numbers(cpu.user, cpu.nice, cpu.system, cpu.idle, cpu.iowait, cpu.irq, cpu.softirq,
                   cpu.steal, cpu.guest);
}

string told(const mem_stat &m) {
    return numbers(m.buffers, m.cached, m.mem_free, m.mem_total, m.mem_used, m.swap_free,
                   m.swap_total, m.swap_used);
}

string told(const net_dev_stat &net) {
    return string(net.name) + " " +
           numbers(net.rx_bytes, net.rx_packets, net.tx_bytes, net.tx_packets);
}

string told_state(const net_dev_stat &net) {
    return numbers(net.flags, net.prev_state, net.state, net.addr, net.netmask);
}

string told(const disk_stat &disk) {
    return numbers(disk.major, disk.minor) + " " + disk.name + " " +
           numbers(disk.reads, disk.reads_merged, disk.sectors_read, disk.read_ms, disk.writes,
                   disk.writes_merged, disk.sectors_written, disk.write_ms, disk.io_ms,
                   disk.weighted_io_ms);
}

/* A reader's result and the record that it filled. */
template <class Record>
string answer(int result, const Record &record) {
    if (is_junk(record))
        return std::to_string(result);
    return std::to_string(result) + ": " + told(record);
}

/* A reader's result and the records that it filled, of four; the fifth is behind the array. */
template <class Record>
string answers(int result, const std::array<Record, 5> &records) {
    string text = std::to_string(result);
    for (int i = 0; i < std::min(result, 4); i++)
        text += (i == 0 ? ": " : ", ") + told(records[static_cast<std::size_t>(i)]);
    return text + (is_junk(records[4]) ? "" : ", and wrote behind the array");
}

string ask_cpuinfo(FILE *stream) {
    auto count = junk_record<std::uint64_t>();
    const int result = cpuinfo(stream, &count);
    return answer(result, count);
}

string ask_cpustat(FILE *stream) {
    auto cpu = junk_record<cpu_stat>();
    const int result = cpustat(stream, &cpu);
    return answer(result, cpu);
}

string ask_meminfo(FILE *stream) {
    auto memory = junk_record<mem_stat>();
    const int result = meminfo(stream, &memory);
    return answer(result, memory);
}

/* Of interfaces that there are not: the complaints about them are not heard. */
string ask_net_dev(FILE *stream) {
    std::array<net_dev_stat, 5> records{};
    records[4] = junk_record<net_dev_stat>();
    const caught_stream complaints(stderr);
    const int result = net_dev(stream, records.data(), 4, nullptr, 0);
    return answers(result, records);
}

/* Of "eth0". */
string ask_net_dev_info(FILE *stream) {
    auto net = junk_record<net_dev_stat>();
    const int result = net_dev_info(stream, "eth0", &net);
    return answer(result, net);
}

string ask_diskstats(FILE *stream) {
    std::array<disk_stat, 5> records;
    records.fill(junk_record<disk_stat>());
    const int result = diskstats(stream, records.data(), 4);
    if (result == -1 && is_junk(records))
        return "-1";
    return answers(result, records);
}

struct text_and_answer {
    string text;
    string told;
};

/* A reader of streams, what its file may hold first, and what it then does. */
const struct {
    const char *path;
    string (*ask)(FILE *stream);
    text_and_answer first;
    text_and_answer second;
    string none; // of an empty file
} stream_readers[] = {
    {"/proc/cpuinfo",
     ask_cpuinfo,
     {"processor\t: 0\nmodel\t: x\n\nprocessor\t: 1\nmodel\t: x\n", "0: 2"},
     {"processor\t: 0\n", "0: 1"},
     "0: 0"},
    {"/proc/stat",
     ask_cpustat,
     {"cpu  1 2 3 4 5 6 7 8 9 10\ncpu0 1 2 3 4 5 6 7 8 9 10\nintr 5\n", "0: 1 2 3 4 5 6 7 8 9"},
     {"cpu  11 12 13 14\n", "0: 11 12 13 14 0 0 0 0 0"},
     "0: 0 0 0 0 0 0 0 0 0"},
    {"/proc/meminfo",
     ask_meminfo,
     {"MemTotal:  100 kB\nMemFree:  30 kB\nBuffers:  5 kB\nCached:  6 kB\nSwapTotal:  20 kB\n"
      "SwapFree:  9 kB\n",
      "0: 5 6 30 100 70 9 20 11"},
     {"MemTotal:  100 kB\nMemFree:  40 kB\n", "0: 0 0 40 100 60 0 0 0"},
     "0: 0 0 0 0 0 0 0 0"},
    {"/proc/net/dev",
     ask_net_dev,
     {"Inter-| Receive\n face |bytes\n  eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"
      "  eth1: 21 22 0 0 0 0 0 0 29 30 0 0 0 0 0 0\n",
      "2: eth0 1 2 9 10, eth1 21 22 29 30"},
     {"  eth1: 31 32 0 0 0 0 0 0 39 40 0 0 0 0 0 0\n", "1: eth1 31 32 39 40"},
     "0"},
    {"/proc/net/dev",
     ask_net_dev_info,
     {"  eth1: 21 22 0 0 0 0 0 0 29 30 0 0 0 0 0 0\n  eth0: 1 2 3 4 5 6 7 8 9 10\n",
      "0: eth0 1 2 9 10"},
     {"eth0: 31 32 0 0 0 0 0 0 39 40\n", "0: eth0 31 32 39 40"},
     "-1"},
    {"/proc/diskstats",
     ask_diskstats,
     {"   8       0 sda 1 2 3 4 5 6 7 8 9 10 11\n   8       1 sda1 1 2 3 4 5 6 7 8 9 10 11\n"
      "   3      64 hdb 21 22 23 24 25 26 27 28 29 30 31 32 33 34 35\n",
      "2: 8 0 sda 1 2 3 4 5 6 7 8 10 11, 3 64 hdb 21 22 23 24 25 26 27 28 30 31"},
     {"   8      16 sdb 2 2 3 4 5 6 7 8 9 10 11\n", "1: 8 16 sdb 2 2 3 4 5 6 7 8 10 11"},
     "0"},
};

/* One that says nothing and ends with 0 has met all that is expected in it. */
const child_result as_expected = {0, 0, "", ""};

class Readers : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "laying files over those of the kernel needs root";
    }
};

void with_fakes(const std::function<void(fake_kernel &)> &body) {
    EXPECT_EQ(run_with_fakes([&](fake_files &files) {
                  fake_kernel kernel(files);
                  body(kernel);
              }),
              as_expected);
}

/* ---- Streams, given and own ----------------------------------------------------------------- */

TEST_F(Readers, OpenTheirFileThemselvesAndCloseIt) {
    for (const auto &r : stream_readers)
        with_fakes([&](fake_kernel &files) {
            const auto before = count_descriptors();
            files.lay(r.path, r.first.text);
            EXPECT_EQ(r.ask(nullptr), r.first.told);
            files.lay(r.path, r.second.text);
            EXPECT_EQ(r.ask(nullptr), r.second.told);
            files.lay(r.path, "");
            EXPECT_EQ(r.ask(nullptr), r.none);
            const std::size_t heap = heap_in_use();
            for (int call = 0; call < 1000; call++)
                r.ask(nullptr);
            EXPECT_EQ(count_descriptors(), before) << r.path;
            EXPECT_LT(heap_in_use(), heap + 1000) << "not a byte a call";
        });
}

TEST(KeptStreams, ShowWhatTheFileHoldsNow) {
    for (const auto &r : stream_readers) {
        const kept_file file(r.first.text);
        const auto before = count_descriptors();
        EXPECT_EQ(r.ask(file.stream()), r.first.told);
        EXPECT_EQ(r.ask(file.stream()), r.first.told) << "again";
        file.hold(r.second.text);
        EXPECT_EQ(r.ask(file.stream()), r.second.told) << "shorter";
        file.hold(r.first.text);
        EXPECT_EQ(r.ask(file.stream()), r.first.told) << "longer";
        file.hold("");
        EXPECT_EQ(r.ask(file.stream()), r.none);
        file.hold(r.second.text);
        EXPECT_EQ(r.ask(file.stream()), r.second.told);
        EXPECT_EQ(count_descriptors(), before) << r.path;
    }
}

TEST(KeptStreams, AreReadFromTheirBeginningWhereverTheyStand) {
    for (const auto &r : stream_readers) {
        const kept_file file(r.first.text);
        std::fgetc(file.stream());
        EXPECT_EQ(r.ask(file.stream()), r.first.told) << "behind the first character";
        while (std::fgetc(file.stream()) != EOF)
            ;
        EXPECT_EQ(r.ask(file.stream()), r.first.told) << "at the end";
        std::fseek(file.stream(), 1'000'000, SEEK_SET);
        EXPECT_EQ(r.ask(file.stream()), r.first.told) << "behind it";
        std::ungetc('#', file.stream());
        EXPECT_EQ(r.ask(file.stream()), r.first.told) << "with a character put back";
    }
}

TEST(KeptStreams, StayOpenAndAreReadOnlyAsFarAsNeeded) {
    for (const auto &r : stream_readers) {
        const kept_file file(r.first.text);
        r.ask(file.stream());
        std::rewind(file.stream());
        string text;
        for (int c; (c = std::fgetc(file.stream())) != EOF;)
            text += static_cast<char>(c);
        EXPECT_EQ(text, r.first.text);
        EXPECT_EQ(std::ferror(file.stream()), 0);
    }
}

TEST(KeptStreams, PolledOftenShowEveryChange) {
    for (const auto &r : stream_readers) {
        const kept_file file(r.first.text);
        const auto before = count_descriptors();
        EXPECT_EQ(r.ask(file.stream()), r.first.told);
        const std::size_t heap = heap_in_use();
        for (int call = 0; call < 10'000; call++) {
            const text_and_answer &now = call % 2 == 0 ? r.second : r.first;
            file.hold(now.text);
            ASSERT_EQ(r.ask(file.stream()), now.told) << r.path << " " << call;
        }
        EXPECT_EQ(count_descriptors(), before);
        EXPECT_LT(heap_in_use(), heap + 10'000) << "not a byte a call";
    }
}

TEST(KeptStreams, ThatCannotBeReadHoldNothing) {
    for (const auto &r : stream_readers) {
        FILE *only_written = std::fopen("/dev/null", "w");
        EXPECT_EQ(r.ask(only_written), r.none) << r.path;
        std::fclose(only_written);
        FILE *directory = std::fopen("/proc", "r");
        ASSERT_NE(directory, nullptr);
        EXPECT_EQ(r.ask(directory), r.none) << r.path;
        std::fclose(directory);
    }
}

/* The system answers that there is no such process. */
TEST(KeptStreams, OfAProcessThatIsGoneHoldNothing) {
    for (const auto &r : stream_readers) {
        auto process = std::make_unique<keel_test::process>([] { pause(); });
        const string path = "/proc/" + std::to_string(process->pid()) + "/status";
        FILE *stream = std::fopen(path.c_str(), "r");
        ASSERT_NE(stream, nullptr);
        r.ask(stream);
        process.reset();
        EXPECT_EQ(r.ask(stream), r.none) << r.path;
        std::fclose(stream);
    }
}

TEST_F(Readers, FailWhereTheirFileCannotBeOpened) {
    for (const auto &r : stream_readers)
        with_fakes([&](fake_kernel &files) {
            const kept_file kept(r.first.text);
            files.block(r.path);
            const auto before = count_descriptors();
            EXPECT_EQ(r.ask(nullptr), "-1") << r.path;
            EXPECT_EQ(r.ask(kept.stream()), r.first.told) << "that one is open already";
            EXPECT_EQ(count_descriptors(), before);
        });
}

TEST_F(Readers, TouchNoRecordWhereTheirFileCannotBeOpened) {
    with_fakes([](fake_kernel &files) {
        for (const char *path : {"/proc/net/dev", "/proc/diskstats", "/etc/mtab"})
            files.block(path);
        std::array<net_dev_stat, 2> interfaces;
        interfaces.fill(junk_record<net_dev_stat>());
        EXPECT_EQ(net_dev(nullptr, interfaces.data(), 2, nullptr, 0), -1);
        EXPECT_TRUE(is_junk(interfaces));
        std::array<mount_stat, 2> mounts;
        mounts.fill(junk_record<mount_stat>());
        EXPECT_EQ(fstab(mounts.data(), 2), -1);
        EXPECT_EQ(fstab(nullptr, 0), -1);
        EXPECT_TRUE(is_junk(mounts));
        EXPECT_EQ(diskstats(nullptr, nullptr, 0), -1);
    });
}

TEST(ReaderArguments, ANullRecordIsRefused) {
    const auto before = count_descriptors();
    EXPECT_EQ(uptime1(nullptr), -1);
    EXPECT_EQ(boottime1(nullptr), -1);
    for (FILE *stream : {static_cast<FILE *>(nullptr), stdin}) {
        EXPECT_EQ(cpuinfo(stream, nullptr), -1);
        EXPECT_EQ(cpustat(stream, nullptr), -1);
        EXPECT_EQ(meminfo(stream, nullptr), -1);
        EXPECT_EQ(net_dev_info(stream, "lo", nullptr), -1);
    }
    auto record = junk_record<net_dev_stat>();
    EXPECT_EQ(net_dev_info(nullptr, nullptr, &record), -1);
    EXPECT_TRUE(is_junk(record));
    EXPECT_EQ(count_descriptors(), before);
}

TEST(ReaderArguments, ANullArrayIsOnlyCountedFor) {
    const kept_file disks("8 0 sda 1\n8 16 sdb 1\n8 32 sdc 1\n");
    const kept_file interfaces("eth0: 1 2\neth1: 3 4\n");
    char *names[] = {nullptr};
    for (const std::size_t capacity : {std::size_t{0}, std::size_t{1}, std::size_t{4000}}) {
        EXPECT_EQ(diskstats(disks.stream(), nullptr, capacity), 3);
        EXPECT_EQ(net_dev(interfaces.stream(), nullptr, capacity, nullptr, 0), 2);
        EXPECT_EQ(net_dev(interfaces.stream(), nullptr, capacity, names, 1), 2);
        EXPECT_EQ(fstab(nullptr, capacity), fstab(nullptr, 0));
    }
}

TEST(ReaderArguments, NothingIsWrittenWithoutCapacity) {
    const kept_file disks("8 0 sda 1\n");
    const kept_file interfaces("eth0: 1 2\n");
    auto disk = junk_record<disk_stat>();
    auto interface = junk_record<net_dev_stat>();
    auto mount = std::make_unique<mount_stat>(junk_record<mount_stat>());
    EXPECT_EQ(diskstats(disks.stream(), &disk, 0), 1);
    EXPECT_EQ(net_dev(interfaces.stream(), &interface, 0, nullptr, 0), 1);
    EXPECT_GT(fstab(mount.get(), 0), 0);
    EXPECT_TRUE(is_junk(disk) && is_junk(interface) && is_junk(*mount));
}

/* ---- This machine --------------------------------------------------------------------------- */

/* The lines of a text, less the newlines. */
std::vector<string> lines_of(const string &text) {
    std::istringstream stream(text);
    std::vector<string> lines;
    for (string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/* The words of a line from the `first` on, as numbers. */
std::vector<std::uint64_t> numbers_of(const string &line, std::size_t first) {
    std::istringstream stream(line);
    string word;
    for (std::size_t i = 0; i < first; i++)
        stream >> word;
    std::vector<std::uint64_t> all;
    for (std::uint64_t number = 0; stream >> number;)
        all.push_back(number);
    return all;
}

/* The kernel's hundredths, times a million each. */
std::int64_t scaled_uptime() {
    const string text = content_of("/proc/uptime");
    const auto point = text.find('.');
    return 1'000'000'000 * std::stoll(text) + 1'000'000 * std::stoll(text.substr(point + 1, 2));
}

std::int64_t clock_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return 1'000'000'000 * now.tv_sec + now.tv_nsec;
}

TEST(ThisMachine, IsUpAsLongAsTheKernelSays) {
    for (int call = 0; call < 100; call++) {
        const std::int64_t before = scaled_uptime();
        uptime_val up{};
        ASSERT_EQ(uptime1(&up), 0);
        const std::int64_t after = scaled_uptime();
        EXPECT_LE(before, 1'000'000'000 * up.sec + up.nsec);
        EXPECT_LE(1'000'000'000 * up.sec + up.nsec, after);
        EXPECT_LT(up.nsec, 100'000'000) << "a tenth of the truth";
        EXPECT_EQ(up.nsec % 1'000'000, 0);
    }
}

std::int64_t btime() {
    for (const string &line : lines_of(content_of("/proc/stat")))
        if (line.starts_with("btime "))
            return std::stoll(line.substr(6));
    return 0;
}

TEST(ThisMachine, WasStartedTheUptimeAgo) {
    const std::int64_t up_before = scaled_uptime();
    const std::int64_t before = clock_now();
    boot_time boot{};
    ASSERT_EQ(boottime1(&boot), 0);
    const std::int64_t after = clock_now();
    const std::int64_t up_after = scaled_uptime();
    const std::int64_t then = 1'000'000'000 * boot.sec + boot.nsec;
    EXPECT_LE(before - up_after, then);
    EXPECT_LE(then, after - up_before);
    EXPECT_GE(boot.nsec, 0);
    EXPECT_LT(boot.nsec, 1'000'000'000);
    EXPECT_NEAR(static_cast<double>(boot.sec), static_cast<double>(btime()), 2.0);
}

TEST(ThisMachine, HasTheProcessorsOfItsFile) {
    std::uint64_t expected = 0;
    for (const string &line : lines_of(content_of("/proc/cpuinfo")))
        expected += line.starts_with("processor") && line[9] == '\t';
    std::uint64_t count = 0;
    EXPECT_EQ(cpuinfo(nullptr, &count), 0);
    EXPECT_EQ(count, expected);
    EXPECT_EQ(count, static_cast<std::uint64_t>(sysconf(_SC_NPROCESSORS_ONLN)));
}

std::array<std::uint64_t, 9> fields_of(const cpu_stat &cpu) {
    return {cpu.user, cpu.nice,    cpu.system, cpu.idle, cpu.iowait,
            cpu.irq,  cpu.softirq, cpu.steal,  cpu.guest};
}

TEST(ThisMachine, HasSpentTheTicksOfItsFile) {
    const auto before = numbers_of(content_of("/proc/stat"), 1);
    cpu_stat cpu{};
    ASSERT_EQ(cpustat(nullptr, &cpu), 0);
    const auto after = numbers_of(content_of("/proc/stat"), 1);
    ASSERT_GE(before.size(), 9U);
    const auto fields = fields_of(cpu);
    for (std::size_t i = 0; i < 9; i++) {
        if (i == CPU_IDLE || i == CPU_IOWAIT) // these may go backwards
            continue;
        EXPECT_LE(before[i], fields[i]) << i;
        EXPECT_LE(fields[i], after[i]) << i;
    }
    EXPECT_GT(cpu.user, 0U);
    EXPECT_GT(cpu.idle, 0U);
}

TEST(ThisMachine, KeptStreamsFollowItsTicks) {
    FILE *stream = std::fopen("/proc/stat", "r");
    cpu_stat first{};
    cpu_stat now{};
    ASSERT_EQ(cpustat(stream, &first), 0);
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(cpustat(stream, &now), 0);
        return now.user + now.system + now.idle > first.user + first.system + first.idle + 10;
    }));
    std::fclose(stream);
}

std::uint64_t memory_figure(const string &text, const string &key) {
    for (const string &line : lines_of(text))
        if (line.starts_with(key + ":"))
            return numbers_of(line, 1).at(0);
    return 0;
}

TEST(ThisMachine, HasTheMemoryOfItsFile) {
    const string text = content_of("/proc/meminfo");
    const auto figure = [&](const string &key) { return memory_figure(text, key); };
    mem_stat memory{};
    ASSERT_EQ(meminfo(nullptr, &memory), 0);
    EXPECT_EQ(memory.mem_total, figure("MemTotal"));
    EXPECT_EQ(memory.swap_total, figure("SwapTotal"));
    EXPECT_EQ(memory.mem_used, memory.mem_total - memory.mem_free);
    EXPECT_GT(memory.mem_free, 0U);
    EXPECT_GT(memory.mem_used, 0U);
    const kept_file copy(text);
    EXPECT_EQ(ask_meminfo(copy.stream()),
              "0: " + numbers(figure("Buffers"), figure("Cached"), figure("MemFree"),
                              figure("MemTotal"), figure("MemTotal") - figure("MemFree"),
                              figure("SwapFree"), figure("SwapTotal"),
                              figure("SwapTotal") - figure("SwapFree")));
}

/* Name and counters of the interfaces in a text. */
std::map<string, std::vector<std::uint64_t>> traffic_in(const string &text) {
    std::map<string, std::vector<std::uint64_t>> all;
    for (const string &line : lines_of(text)) {
        const auto colon = line.find(':');
        if (colon != line.npos)
            all[line.substr(line.find_first_not_of(' '), colon - line.find_first_not_of(' '))] =
                numbers_of(line.substr(colon + 1), 0);
    }
    return all;
}

void expect_between(const net_dev_stat &net, const std::vector<std::uint64_t> &before,
                    const std::vector<std::uint64_t> &after) {
    ASSERT_EQ(before.size(), 16U) << net.name;
    ASSERT_EQ(after.size(), 16U) << net.name;
    const std::pair<std::size_t, std::uint64_t> figures[] = {
        {0, net.rx_bytes}, {1, net.rx_packets}, {8, net.tx_bytes}, {9, net.tx_packets}};
    for (const auto &[column, figure] : figures) {
        EXPECT_LE(before[column], figure) << net.name << " " << column;
        EXPECT_LE(figure, after[column]) << net.name << " " << column;
    }
}

TEST(ThisMachine, HasTheTrafficOfItsFile) {
    for (const auto &[name, any] : traffic_in(content_of("/proc/net/dev"))) {
        net_dev_stat net{};
        const auto before = traffic_in(content_of("/proc/net/dev"))[name];
        ASSERT_EQ(net_dev_info(nullptr, name.c_str(), &net), 0);
        EXPECT_EQ(net.name, name);
        expect_between(net, before, traffic_in(content_of("/proc/net/dev"))[name]);
    }
}

/* This machine need not have such a disk: so its devices are renumbered in a copy. */
TEST(ThisMachine, HasTheDisksOfItsFile) {
    const auto count = [](const string &text) {
        int disks = 0;
        for (const string &line : lines_of(text)) {
            const auto place = numbers_of(line, 0);
            disks += keel_test::plain_whole_disk(static_cast<unsigned>(place[0]),
                                                 static_cast<unsigned>(place[1])) &&
                     numbers_of(line, 3)[0] != 0;
        }
        return disks;
    };
    EXPECT_EQ(diskstats(nullptr, nullptr, 0), count(content_of("/proc/diskstats")));

    string copy;
    std::vector<string> expected;
    for (const string &line : lines_of(content_of("/proc/diskstats"))) {
        std::istringstream words(line);
        string major, minor, name;
        words >> major >> minor >> name;
        const auto n = numbers_of(line, 3);
        ASSERT_GE(n.size(), 11U) << line;
        copy += "   8      16 " + line.substr(line.find(name)) + "\n";
        if (n[0] != 0)
            expected.push_back(
                "8 16 " + name + " " +
                numbers(n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7], n[9], n[10]));
    }
    ASSERT_FALSE(expected.empty());
    std::vector<disk_stat> disks(expected.size() + 1);
    const kept_file file(copy);
    ASSERT_EQ(diskstats(file.stream(), disks.data(), disks.size()),
              static_cast<int>(expected.size()));
    for (std::size_t i = 0; i < expected.size(); i++)
        EXPECT_EQ(told(disks[i]), expected[i]);
}

TEST(ThisMachine, IsReadByManyThreadsAtOnce) {
    const auto read_all = [] {
        FILE *kept = std::fopen("/proc/meminfo", "r");
        std::vector<mount_stat> mounts(100);
        for (int call = 0; call < 50; call++) {
            uptime_val up{};
            boot_time boot{};
            std::uint64_t count = 0;
            cpu_stat cpu{};
            mem_stat memory{};
            net_dev_stat net{};
            EXPECT_EQ(uptime1(&up), 0);
            EXPECT_EQ(boottime1(&boot), 0);
            EXPECT_EQ(cpuinfo(nullptr, &count), 0);
            EXPECT_EQ(cpustat(nullptr, &cpu), 0);
            EXPECT_EQ(meminfo(kept, &memory), 0);
            EXPECT_GE(net_dev(nullptr, nullptr, 0, nullptr, 0), 0);
            EXPECT_EQ(net_dev_info(nullptr, "lo", &net), 0);
            EXPECT_GE(diskstats(nullptr, nullptr, 0), 0);
            EXPECT_GE(fstab(mounts.data(), mounts.size()), 1);
            EXPECT_GT(memory.mem_total, memory.mem_free);
        }
        std::fclose(kept);
    };
    const auto before = count_descriptors();
    {
        std::jthread threads[4];
        for (std::jthread &thread : threads)
            thread = std::jthread(read_all);
    }
    EXPECT_EQ(count_descriptors(), before);
}

/* ---- Uptime and boot time ------------------------------------------------------------------- */

string ask_uptime() {
    auto up = junk_record<uptime_val>();
    const int result = uptime1(&up);
    return answer(result, up);
}

TEST_F(Readers, UptimeIsANumberWithAFraction) {
    const text_and_answer rows[] = {
        {"350735.47 234388.90\n", "0: 350735 47000000"},
        {"0.00 0.00\n", "0: 0 0"},
        {"12.99 1.00", "0: 12 99000000"},
        {"7.5\n", "0: 7 5000000"},
        {"7.05\n", "0: 7 5000000"},
        {"7.500\n", "0: 7 500000000"},
        {"7.123456789\n", "0: 7 123456789000000"},
        {" \t7.5", "0: 7 5000000"},
        {"7. 5", "0: 7 5000000"},
        {"7.\n", "-1"},
        {"+7.+5", "0: 7 5000000"},
        {"-7.-5", "0: -7 -5000000"},
        {"7.5x9", "0: 7 5000000"},
        {"7.5.6", "0: 7 5000000"},
        {"99999999999999999999.1", "0: 9223372036854775807 1000000"},
        {"1.9223372036855", "0: 1 -9223372036854551616"},
        {"7.5\n8.6\n", "0: 7 5000000"},
        {"", "-1"},
        {"\n", "-1"},
        {"7\n", "-1"},
        {"7 5\n", "-1"},
        {"7,5\n", "-1"},
        {"7 .5\n", "-1"},
        {".5\n", "-1"},
        {"7.x\n", "-1"},
        {"up 7.5\n", "-1"},
        {"\n7.5\n", "-1"},
        {string("\0007.5\n", 5), "-1"},
        {string("7\0.5\n", 5), "-1"},
        {string(508, ' ') + "7.56", "0: 7 5000000"},
        {string(509, ' ') + "7.56", "-1"},
        {string(600, ' ') + "7.56", "-1"},
        {string(600, '7') + ".56", "-1"},
    };
    for (const auto &row : rows)
        with_fakes([&](fake_kernel &files) {
            files.lay("/proc/uptime", row.text);
            const auto before = count_descriptors();
            EXPECT_EQ(ask_uptime(), row.told) << row.text;
            EXPECT_EQ(uptime1(nullptr), -1);
            auto boot = junk_record<boot_time>();
            EXPECT_EQ(boottime1(&boot), row.told == "-1" ? -1 : 0) << row.text;
            EXPECT_EQ(is_junk(boot), row.told == "-1") << row.text;
            EXPECT_EQ(count_descriptors(), before);
            uptime_val plain{};
            EXPECT_EQ(row.told,
                      keel_test::plain_uptime(row.text, plain) ? "0: " + told(plain) : "-1");
        });
}

TEST_F(Readers, UptimeNeedsItsFile) {
    with_fakes([](fake_kernel &files) {
        files.block("/proc/uptime");
        const auto before = count_descriptors();
        EXPECT_EQ(ask_uptime(), "-1");
        auto boot = junk_record<boot_time>();
        EXPECT_EQ(boottime1(&boot), -1);
        EXPECT_TRUE(is_junk(boot));
        EXPECT_EQ(count_descriptors(), before);
    });
}

/* With a fraction of a second all is as on paper, and the nanoseconds are those of a second. */
TEST_F(Readers, BootTimeIsTheClockLessTheUptime) {
    for (const std::int64_t fraction : {0, 1, 47, 99, 250, 500, 750, 999})
        with_fakes([&](fake_kernel &files) {
            files.lay("/proc/uptime", "100." + std::to_string(fraction) + " 5.00\n");
            const std::int64_t up = 100'000'000'000 + fraction * 1'000'000;
            bool borrowed = false;
            bool kept = false;
            const auto once = [&] {
                const std::int64_t before = clock_now();
                boot_time boot{};
                EXPECT_EQ(boottime1(&boot), 0);
                const std::int64_t after = clock_now();
                const std::int64_t then = 1'000'000'000 * boot.sec + boot.nsec;
                EXPECT_LE(before - up, then);
                EXPECT_LE(then, after - up);
                EXPECT_TRUE(boot.nsec >= 0 && boot.nsec < 1'000'000'000) << boot.nsec;
                borrowed |= after % 1'000'000'000 < fraction * 1'000'000;
                kept |= before % 1'000'000'000 >= fraction * 1'000'000;
                return (borrowed || fraction < 250) && (kept || fraction > 750);
            };
            EXPECT_TRUE(eventually(once)) << "both sides of the fraction";
        });
}

/* There is no fraction like it: one second is borrowed, not more. */
TEST_F(Readers, BootTimeBorrowsOneSecond) {
    with_fakes([](fake_kernel &files) {
        files.lay("/proc/uptime", "100.5000\n");
        const std::int64_t before = clock_now();
        boot_time boot{};
        ASSERT_EQ(boottime1(&boot), 0);
        const std::int64_t after = clock_now();
        EXPECT_LT(boot.nsec, -3'000'000'000);
        EXPECT_GE(boot.nsec, -4'000'000'000);
        EXPECT_GE(boot.sec, before / 1'000'000'000 - 101);
        EXPECT_LE(boot.sec, after / 1'000'000'000 - 101);
    });
}

/* ---- Processors and memory ------------------------------------------------------------------ */

string repeated(const string &text, int count) {
    string all;
    for (int i = 0; i < count; i++)
        all += text;
    return all;
}

TEST(ReaderCpuinfo, CountsLinesThatBeginAsTheKernelWritesThem) {
    const text_and_answer rows[] = {
        {"processor\t: 0\n", "0: 1"},
        {"processor\t:", "0: 1"},
        {"processor\t:0\nprocessor\t: 0\nprocessor\t:\n", "0: 3"},
        {"processor: 0\nprocessor : 0\nprocessor\t\t: 0\nprocessor\t 0\n", "0: 0"},
        {" processor\t: 0\nxprocessor\t: 0\nProcessor\t: 0\nprocessor\t", "0: 0"},
        {"vendor_id\t: processor\t: 0\nprocessors\t: 5\n", "0: 0"},
        {"\n\n\n\nprocessor\t: 7\r\n", "0: 1"},
        {"%s%n\n%s%n%d\nprocessor\t:%n\n", "0: 1"},
        {string("processor\0\t: 0\n\0processor\t: 0\n", 31), "0: 0"},
        {repeated("processor\t: 1\nflags\t\t: fpu vme\n\n", 127), "0: 127"},
        {repeated("processor\t: 1\nflags\t\t: fpu vme\n\n", 129), "0: 129"},
        {repeated("processor\t: 1\nflags\t\t: fpu vme\n\n", 8192), "0: 8192"},
        {repeated("processor\t: 1\nflags\t\t:" + string(1900, 'x') + "\n\n", 64), "0: 64"},
    };
    for (const auto &row : rows) {
        const kept_file file(row.text);
        EXPECT_EQ(ask_cpuinfo(file.stream()), row.told) << row.text.substr(0, 200);
    }
}

/* A line is read in pieces of 2047 characters, each of which counts as one. */
TEST(ReaderCpuinfo, LongLinesAreReadInPieces) {
    const text_and_answer rows[] = {
        {string(2046, 'x') + "\nprocessor\t: 0\n", "0: 1"},
        {string(2047, 'x') + "processor\t: 0\n", "0: 1"},
        {string(2046, 'x') + "processor\t: 0\n", "0: 0"},
        {string(2048, 'x') + "processor\t: 0\n", "0: 0"},
        {string(3 * 2047, 'x') + "processor\t: 0\n", "0: 1"},
        {string(2047, 'x') + "\nprocessor\t: 0\n", "0: 1"},
        {repeated("processor\t:" + string(2036, 'x'), 100), "0: 100"},
        {string(1'000'000, 'x'), "0: 0"},
    };
    for (const auto &row : rows) {
        const kept_file file(row.text);
        EXPECT_EQ(ask_cpuinfo(file.stream()), row.told) << row.text.size();
    }
}

TEST(ReaderCpustat, ReadsTheLineOfAllProcessors) {
    const text_and_answer rows[] = {
        {"cpu  1 2 3 4\n", "0: 1 2 3 4 0 0 0 0 0"},
        {"cpu  1 2 3 4 5\n", "0: 1 2 3 4 5 0 0 0 0"},
        {"cpu  1 2 3 4 5 6 7\n", "0: 1 2 3 4 5 6 7 0 0"},
        {"cpu  1 2 3 4 5 6 7 8\n", "0: 1 2 3 4 5 6 7 8 0"},
        {"cpu  1 2 3 4 5 6 7 8 9\n", "0: 1 2 3 4 5 6 7 8 9"},
        {"cpu  1 2 3 4 5 6 7 8 9 10\n", "0: 1 2 3 4 5 6 7 8 9"},
        {"cpu 1 2 3 4 5 6 7 8 9", "0: 1 2 3 4 5 6 7 8 9"},
        {"cpu \t1\t2\t3 4 5 6 7 8 9\r\n", "0: 1 2 3 4 5 6 7 8 9"},
        {"cpu0 1 2 3 4\ncpu  5 6 7 8\ncpu 9 9 9 9\n", "0: 5 6 7 8 0 0 0 0 0"},
        {"intr 1 2 3\n\ncpu  5\n", "0: 5 0 0 0 0 0 0 0 0"},
        {"cpu0 1 2 3 4\ncpu1 1 2 3 4\n", "0: 0 0 0 0 0 0 0 0 0"},
        {"cpu\t1 2 3\n cpu 1 2 3\nCPU 1 2 3\ncpu\ncp 1\n", "0: 0 0 0 0 0 0 0 0 0"},
        {"cpu \ncpu 1 2 3\n", "0: 0 0 0 0 0 0 0 0 0"},
        {"cpu x 2 3\ncpu 1 2 3\n", "0: 0 0 0 0 0 0 0 0 0"},
        {"cpu 1 2 x 4 5\n", "0: 1 2 0 0 0 0 0 0 0"},
        {"cpu 1 2x 4 5\n", "0: 1 2 0 0 0 0 0 0 0"},
        {"cpu 1,2,3\n", "0: 1 0 0 0 0 0 0 0 0"},
        {"cpu 1.5 2\n", "0: 1 0 0 0 0 0 0 0 0"},
        {"cpu 0x10 2\n", "0: 0 0 0 0 0 0 0 0 0"},
        {"cpu 010 2\n", "0: 10 2 0 0 0 0 0 0 0"},
        {"cpu +5 -1 2\n", "0: 5 18446744073709551615 2 0 0 0 0 0 0"},
        {"cpu 18446744073709551615 18446744073709551616 2\n",
         "0: 18446744073709551615 18446744073709551615 2 0 0 0 0 0 0"},
        {"cpu 4294967296 2\n", "0: 4294967296 2 0 0 0 0 0 0 0"},
        {string("cpu 1\0 2 3\n", 11), "0: 1 0 0 0 0 0 0 0 0"},
        {string(2047, 'x') + "cpu 1 2\n", "0: 1 2 0 0 0 0 0 0 0"},
        {string(2046, 'x') + "cpu 1 2\n", "0: 0 0 0 0 0 0 0 0 0"},
        {"cpu " + string(2042, ' ') + "12 3\n", "0: 1 0 0 0 0 0 0 0 0"},
        {"cpu " + string(2043, ' ') + "12 3\n", "0: 0 0 0 0 0 0 0 0 0"},
    };
    for (const auto &row : rows) {
        const kept_file file(row.text);
        EXPECT_EQ(ask_cpustat(file.stream()), row.told) << row.text.substr(0, 200);
    }
}

/* It is a counter like any other: whoever takes differences has to know. */
TEST(ReaderCpustat, ACounterMayGoBackwards) {
    const kept_file file("cpu 100 2 3 4\n");
    EXPECT_EQ(ask_cpustat(file.stream()), "0: 100 2 3 4 0 0 0 0 0");
    file.hold("cpu 50 2 3 4\n");
    EXPECT_EQ(ask_cpustat(file.stream()), "0: 50 2 3 4 0 0 0 0 0");
}

TEST(ReaderCpustat, AsManyProcessorsAsThereAre) {
    for (const int count : {127, 129, 4096}) {
        const string each = repeated("cpu7 1 2 3 4 5 6 7 8 9 10\n", count);
        const kept_file file("cpu  9 8 7 6 5 4 3 2 1 0\n" + each);
        EXPECT_EQ(ask_cpustat(file.stream()), "0: 9 8 7 6 5 4 3 2 1");
        file.hold(each + "cpu  1 2 3 4\n");
        EXPECT_EQ(ask_cpustat(file.stream()), "0: 1 2 3 4 0 0 0 0 0");
    }
}

/* In the record's order: buffers, cached, then free, total and used of memory and of swap. */
TEST(ReaderMeminfo, ReadsSixFigures) {
    const text_and_answer rows[] = {
        {"MemTotal:       16309744 kB\nMemFree:          270848 kB\nMemAvailable:   8000000 kB\n"
         "Buffers:          123456 kB\nCached:          7654321 kB\nSwapCached:           17 kB\n"
         "Active:          1234567 kB\nInactive:        7654321 kB\nSwapTotal:             0 kB\n"
         "SwapFree:              0 kB\nDirty:               100 kB\n",
         "0: 123456 7654321 270848 16309744 16038896 0 0 0"},
        {"        total:    used:    free:\nMem:  1000 500 500\nSwap: 200 100 100\n"
         "MemTotal: 1000 kB\nMemFree: 500 kB\nMemShared: 0 kB\nSwapTotal: 200 kB\nSwapFree: 150 kB",
         "0: 0 0 500 1000 500 150 200 50"},
        {"SwapFree:1\nSwapTotal:2\nMemFree:3\nMemTotal:4\nCached:5\nBuffers:6\n",
         "0: 6 5 3 4 1 1 2 1"},
        {"MemFree: 1\n", "0: 0 0 1 0 18446744073709551615 0 0 0"},
        {"SwapFree: 5\nSwapTotal: 3\n", "0: 0 0 0 0 0 5 3 18446744073709551614"},
        {"Cached: 1\nCached: 2\n", "0: 0 2 0 0 0 0 0 0"},
        {"Cached: 1\nCached: x\n", "0: 0 0 0 0 0 0 0 0"},
        {"Cached: 0x1F kB\nBuffers: 010 kB\n", "0: 8 31 0 0 0 0 0 0"},
        {"Cached:\t \t12kB\r\nBuffers: 09\n", "0: 0 12 0 0 0 0 0 0"},
        {"Cached: -1\nBuffers: +7\n", "0: 7 18446744073709551615 0 0 0 0 0 0"},
        {"Cached: 18446744073709551616\nBuffers: 5:6\n", "0: 5 18446744073709551615 0 0 0 0 0 0"},
        {"Cached:\nBuffers:", "0: 0 0 0 0 0 0 0 0"},
        {"cached: 1\nCACHED: 1\n Cached: 1\nCached : 1\nCache: 1\nCachedX: 1\nXCached: 1\n"
         "SwapCached: 1\nCached 1\nCached\n: 1\n::\nCached(x): 1\nBuffer: 1\nMem: 1\nMemTota: 1\n",
         "0: 0 0 0 0 0 0 0 0"},
        {"A: 1\nzzz: 1\nAnonPages: 1\nD: 1\nN: 1\nSwapM: 1\n", "0: 0 0 0 0 0 0 0 0"},
        {"x: Cached: 5\nCached: 6 Buffers: 7\n", "0: 0 6 0 0 0 0 0 0"},
        {string("Cached\0: 5\nBuffers: 6\n", 22), "0: 6 0 0 0 0 0 0 0"},
        {string("\xff\xfe: 5\nBuffers: 6\n", 17), "0: 6 0 0 0 0 0 0 0"},
        {string(2047, 'x') + "Cached: 5\n", "0: 0 5 0 0 0 0 0 0"},
        {string(2046, 'x') + "Cached: 5\n", "0: 0 0 0 0 0 0 0 0"},
        {"Cached:" + string(2039, ' ') + "12\nBuffers: 3\n", "0: 3 1 0 0 0 0 0 0"},
        {string(5000, ':') + "\nCached: 5\n", "0: 0 5 0 0 0 0 0 0"},
    };
    for (const auto &row : rows) {
        const kept_file file(row.text);
        EXPECT_EQ(ask_meminfo(file.stream()), row.told) << row.text.substr(0, 200);
    }
}

/* ---- Interfaces in text --------------------------------------------------------------------- */

TEST(ReaderNetDev, ReadsLinesAsTheyCome) {
    const string long_name(100, 'n');
    const text_and_answer rows[] = {
        {"Inter-|   Receive\n face |bytes packets errs\n", "0"},
        {"eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n", "1: eth0 1 2 9 10"},
        {"eth0:1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16", "1: eth0 1 2 9 10"},
        {" \t eth0:\t1\t2 3 4 5 6 7 8 9 10\r\n", "1: eth0 1 2 9 10"},
        {" eth0 \t: 1 2 3 4 5 6 7 8 9 10\n", "1: eth0 1 2 9 10"},
        {"eth0: 1 2 3 4 5 6 7 8 9\n", "1: eth0 1 2 9 0"},
        {"eth0: 1 2 3 4 5 6 7 8 x 10\n", "1: eth0 1 2 0 0"},
        {"eth0: 1 2 3 4 5 6 7 x 9 10\n", "1: eth0 1 2 0 0"},
        {"eth0: 1 2\neth1: 3\neth2:\n", "3: eth0 1 2 0 0, eth1 3 0 0 0, eth2 0 0 0 0"},
        {"eth0: x 2\n", "1: eth0 0 0 0 0"},
        {"eth0: No statistics available.\n", "1: eth0 0 0 0 0"},
        {"eth0: -1 18446744073709551616 3 4 5 6 7 8 +9 010\n",
         "1: eth0 18446744073709551615 18446744073709551615 9 10"},
        {"eth0: 1 2 -3 99999999999999999999 5 6 7 8 9 10\n", "1: eth0 1 2 9 10"},
        {"eth0:1: 1 2 3 4 5 6 7 8 9 10\n", "1: eth0 1 0 0 0"},
        {"two words: 1 2\n", "1: two words 1 2 0 0"},
        {"%s%n: 1 2\n", "1: %s%n 1 2 0 0"},
        {": 1 2\n", "1:  0 0 0 0"},
        {"  : 1 2\n", "1:  1 2 0 0"},
        {"\xff\xfe: 1 2\n", "1: \xff\xfe 1 2 0 0"},
        {"fifteen-letters: 1 2\n", "1: fifteen-letters 1 2 0 0"},
        {"sixteen--letters: 1 2\n", "1: sixteen--letter 1 2 0 0"},
        {"    sixteen--letters: 1 2\n", "1: sixteen--letter 1 2 0 0"},
        {long_name + ": 1 2\n", "1: nnnnnnnnnnnnnnn 1 2 0 0"},
        {string(1000, ' ') + "eth0: 1 2\n", "1: eth0 1 2 0 0"},
        {"   lo: 1 2\n eth0: 3 4\n wlo1: 5 6\n", "1: eth0 3 4 0 0"},
        {"lo0: 1 2\nflow: 1 2\neth0: lo\neth1: 1 2 lo 4\neth2.lo: 1 2\n", "0"},
        {"LO: 1 2\nl o: 1 2\nol: 1 2\nl-o: 1 2\n",
         "4: LO 1 2 0 0, l o 1 2 0 0, ol 1 2 0 0, l-o 1 2 0 0"},
        {"a: 1\nb: 2\nc: 3\nd: 4\ne: 5\nf: 6\n", "6: a 1 0 0 0, b 2 0 0 0, c 3 0 0 0, d 4 0 0 0"},
        {string("eth0\0: 1 2\neth1: 3 4\n", 22), "1: eth1 3 4 0 0"},
        {string("eth0: 1\0 2\n", 11), "1: eth0 1 0 0 0"},
        {string(2047, 'x') + "eth0: 1 2\n", "1: eth0 1 2 0 0"},
        {string(2046, 'x') + "eth0: 1 2\n", "1: th0 1 2 0 0"},
        {"eth0:" + string(2041, ' ') + "12 3\n", "1: eth0 1 0 0 0"},
        {"eth0: 1" + string(2040, ' ') + "eth1: 2\n", "2: eth0 1 0 0 0, eth1 2 0 0 0"},
        {string(3000, ':') + "\n", "2:  0 0 0 0,  0 0 0 0"},
    };
    for (const auto &row : rows) {
        const kept_file file(row.text);
        EXPECT_EQ(ask_net_dev(file.stream()), row.told) << row.text.substr(0, 200);
    }
}

TEST(ReaderNetDev, WhatIsNotToldKeepsItsValue) {
    const kept_file file("eth0: 1 2 3 4 5 6 7 8 9 10\n");
    const caught_stream complaints(stderr);
    net_dev_stat net{};
    EXPECT_EQ(net_dev(file.stream(), &net, 1, nullptr, 0), 1);
    for (const char *text : {"eth0:\n", ":\n", "eth0: x\n", ": 7 8\n"}) {
        file.hold(text);
        EXPECT_EQ(net_dev(file.stream(), &net, 1, nullptr, 0), 1);
        EXPECT_EQ(told(net), "eth0 1 2 9 10") << text;
    }
    file.hold("eth1: 11 12 3 4\n");
    EXPECT_EQ(net_dev(file.stream(), &net, 1, nullptr, 0), 1);
    EXPECT_EQ(told(net), "eth1 11 12 9 10");
    file.hold("");
    EXPECT_EQ(net_dev(file.stream(), &net, 1, nullptr, 0), 0);
    EXPECT_EQ(told(net), "eth1 11 12 9 10");
}

TEST(ReaderNetDev, CountsBehindTheCapacity) {
    const kept_file file("eth0: 1\neth1: 2\nlo: 3\neth2: 4\n");
    const caught_stream complaints(stderr);
    for (std::size_t capacity = 0; capacity <= 4; capacity++) {
        std::vector<net_dev_stat> nets(5, junk_record<net_dev_stat>());
        EXPECT_EQ(net_dev(file.stream(), nets.data(), capacity, nullptr, 0), 3);
        for (std::size_t i = 0; i < nets.size(); i++)
            EXPECT_EQ(is_junk(nets[i]), i >= std::min<std::size_t>(capacity, 3)) << capacity;
    }
}

/* Array and names of a call with a filter. */
string filtered(const kept_file &file, std::size_t capacity, std::vector<const char *> names) {
    const caught_stream complaints(stderr);
    std::array<net_dev_stat, 5> records{};
    records[4] = junk_record<net_dev_stat>();
    std::vector<char *> wanted;
    for (const char *name : names)
        wanted.push_back(const_cast<char *>(name));
    const int result =
        net_dev(file.stream(), records.data(), capacity, wanted.data(), wanted.size());
    string text = std::to_string(result);
    for (std::size_t i = 0; i < 4 && records[i].name[0] != '\0'; i++)
        text += (i == 0 ? ": " : ", ") + told(records[i]) +
                (records[i].state == 0 ? " (passed over)" : "");
    return text + (is_junk(records[4]) ? "" : ", and wrote behind the array");
}

TEST(ReaderNetDev, AFilterUsesASlotAgain) {
    const kept_file file(" eth0: 1 2 3 4 5 6 7 8 9 10\n eth1: 21 22\n   lo: 0\n eth2: 31 32\n"
                         " eth10: 41 42\n");
    const struct {
        std::size_t capacity;
        std::vector<const char *> names;
        string told;
    } rows[] = {
        {4, {"eth0"}, "1: eth0 1 2 9 10, eth10 41 42 0 0 (passed over)"},
        {4, {"eth1"}, "1: eth1 21 22 9 10, eth10 41 42 0 0 (passed over)"},
        {4, {"eth10"}, "1: eth10 41 42 9 10"},
        {4, {"eth2", "eth0"}, "2: eth0 1 2 9 10, eth2 31 32 0 0, eth10 41 42 0 0 (passed over)"},
        {4, {"eth"}, "0: eth10 41 42 9 10 (passed over)"},
        {4, {"eth00", "ETH0", " eth0", "eth0 ", "eth0:", ""}, "0: eth10 41 42 9 10 (passed over)"},
        {4, {"lo"}, "0: eth10 41 42 9 10 (passed over)"},
        {4, {nullptr, "eth10"}, "1: eth10 41 42 9 10"},
        {4, {nullptr}, "0: eth10 41 42 9 10 (passed over)"},
        {4,
         {"eth10", "eth2", "eth1", "eth0"},
         "4: eth0 1 2 9 10, eth1 21 22 0 0, eth2 31 32 0 0, eth10 41 42 0 0"},
        {4, {}, "4: eth0 1 2 9 10, eth1 21 22 0 0, eth2 31 32 0 0, eth10 41 42 0 0"},
        {1, {"eth0"}, "4: eth0 1 2 9 10"},
        {1, {"eth2"}, "2: eth2 31 32 9 10"},
        {1, {"eth10"}, "1: eth10 41 42 9 10"},
        {2, {"eth1", "eth0"}, "4: eth0 1 2 9 10, eth1 21 22 0 0"},
        {0, {"eth0"}, "4"},
        {0, {"none"}, "4"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(filtered(file, row.capacity, row.names), row.told);
}

TEST(ReaderNetDev, WithoutNamesNothingIsFiltered) {
    const kept_file file("eth0: 1\neth1: 2\n");
    const caught_stream complaints(stderr);
    std::array<net_dev_stat, 2> nets{};
    char *names[] = {const_cast<char *>("eth1")};
    EXPECT_EQ(net_dev(file.stream(), nets.data(), 2, names, 0), 2);
    EXPECT_EQ(net_dev(file.stream(), nets.data(), 2, nullptr, 3), 2);
}

/* An interface that nobody knows is complained about by the functions that look for it. */
TEST(ReaderNetDev, ItHasNothingToSayItself) {
    const kept_file file("no-such-eth: 1 2\nbroken\neth lo x\n");
    net_dev_stat net{};
    const caught_stream output(stdout);
    const caught_stream complaints(stderr);
    EXPECT_EQ(net_dev(file.stream(), &net, 1, nullptr, 0), 1);
    EXPECT_EQ(complaints.text(), "get_if_flags(ioctl-SIOCGIFFLAGS): No such device\n");
    EXPECT_EQ(net_dev(file.stream(), nullptr, 0, nullptr, 0), 1);
    EXPECT_EQ(net_dev_info(file.stream(), "no-such-eth", &net), 0);
    EXPECT_EQ(complaints.text(), "get_if_flags(ioctl-SIOCGIFFLAGS): No such device\n");
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(told_state(net), "0 0 2 0 0");
}

string info_of(FILE *stream, const string &name) {
    auto net = junk_record<net_dev_stat>();
    const int result = net_dev_info(stream, name.c_str(), &net);
    if (is_junk(net))
        return std::to_string(result);
    auto rest = junk_record<net_dev_stat>();
    std::memcpy(static_cast<void *>(&rest), &net, offsetof(net_dev_stat, flags));
    EXPECT_EQ(std::memcmp(&rest, &net, sizeof net), 0) << "flags, states and addresses stay";
    return std::to_string(result) + ": " + told(net);
}

TEST(ReaderNetDevInfo, FindsAnInterfaceByItsName) {
    const kept_file file("Inter-| face: x\n    lo: 1 2 3 4 5 6 7 8 9 10 11 12\n"
                         "  eth0:11 12 3 4 5 6 7 8 19 20 21\r\n wlo1: 21 22 0 0 0 0 0 0 29 30\n"
                         " eth0: 1 1 1 1 1 1 1 1 1 1\n \t eth1: 31 32 0 0 0 0 0 0 39 40  \n"
                         "eth2 : 41 42 0 0 0 0 0 0 49 50\ntwo words: 51 52 0 0 0 0 0 0 59 60\n"
                         "eth10: 61 62 0 0 0 0 0 0 69 70");
    const struct {
        string name;
        string told;
    } rows[] = {
        {"lo", "0: lo 1 2 9 10"},
        {"eth0", "0: eth0 11 12 19 20"},
        {"wlo1", "0: wlo1 21 22 29 30"},
        {"eth1", "0: eth1 31 32 39 40"},
        {"eth2 ", "0: eth2  41 42 49 50"},
        {"two words", "0: two words 51 52 59 60"},
        {"eth10", "0: eth10 61 62 69 70"},
        {"eth", "-1"},
        {"eth2", "-1"},
        {"th0", "-1"},
        {" eth0", "-1"},
        {"ETH0", "-1"},
        {"eth00", "-1"},
        {"words", "-1"},
        {"", "-1"},
        {"%s", "-1"},
        {"eth3", "-1"},
        {string(5000, 'x'), "-1"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(info_of(file.stream(), row.name), row.told) << row.name;
}

/* A name of 16 characters is looked for with its colon, of a longer one the beginning. */
TEST(ReaderNetDevInfo, LongNames) {
    const kept_file file("abcdefghijklmno: 1 0 0 0 0 0 0 0 0 0\n"
                         "abcdefghijklmnop: 2 0 0 0 0 0 0 0 0 0\n"
                         "abcdefghijklmnopqr: 3 0 0 0 0 0 0 0 0 0\n"
                         "abcdefghijklmnopq: 4 0 0 0 0 0 0 0 0 0\n");
    const struct {
        string name;
        string told;
    } rows[] = {
        {"abcdefghijklmno", "0: abcdefghijklmno 1 0 0 0"},
        {"abcdefghijklmnop", "0: abcdefghijklmno 2 0 0 0"},
        {"abcdefghijklmnopq", "0: abcdefghijklmno 3 0 0 0"},
        {"abcdefghijklmnopqr", "0: abcdefghijklmno 3 0 0 0"},
        {"abcdefghijklmnopqXYZ", "0: abcdefghijklmno 3 0 0 0"},
        {"abcdefghijklmnoX", "-1"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(info_of(file.stream(), row.name), row.told) << row.name;
}

TEST(ReaderNetDevInfo, WhatIsNotToldKeepsItsValue) {
    const struct {
        string text;
        string name;
        string told;
    } rows[] = {
        {"eth0: 1 2\n", "eth0", "eth0 1 2 72 73"},
        {"eth0:\n", "eth0", "eth0 70 71 72 73"},
        {"eth0: x\neth0: 1 2\n", "eth0", "eth0 70 71 72 73"},
        {": 1 2\n", "", "old 70 71 72 73"},
        {"  :\n", "", "old 70 71 72 73"},
        {"eth0:1 2 3 4 5 6 7 8 9 x\n", "eth0", "eth0 1 2 9 73"},
    };
    for (const auto &row : rows) {
        const kept_file file(row.text);
        net_dev_stat net = {70, 71, 72, 73, "old", 74, 75, 76, 77, 78};
        EXPECT_EQ(net_dev_info(file.stream(), row.name.c_str(), &net), 0) << row.text;
        EXPECT_EQ(told(net), row.told) << row.text;
        EXPECT_EQ(told_state(net), "74 75 76 77 78");
    }
}

TEST(ReaderNetDevInfo, LongLinesAreReadInPieces) {
    const text_and_answer rows[] = {
        {string(2047, 'x') + "eth0: 1 2\n", "0: eth0 1 2 0 0"},
        {string(2046, 'x') + "eth0: 1 2\n", "-1"},
        {string(2042, ' ') + "eth0: 1 2\n", "0: eth0 0 0 0 0"},
        {string(2043, ' ') + "eth0: 1 2\n", "-1"},
        {string("eth0\0: 1\n", 9), "-1"},
    };
    for (const auto &row : rows) {
        const kept_file file(row.text);
        net_dev_stat net{};
        const int result = net_dev_info(file.stream(), "eth0", &net);
        EXPECT_EQ(result == 0 ? "0: " + told(net) : "-1", row.told) << row.text.size();
    }
}

/* ---- Interfaces of a network ---------------------------------------------------------------- */

class NetDev : public keel_test::OwnNetwork {};

bool is_running(const string &name) {
    return ip_tells("-o link show dev " + name).find(" state UP ") != string::npos;
}

void expect_running(const string &name, bool running) {
    EXPECT_TRUE(eventually([&] { return is_running(name) == running; })) << name;
}

/* The interfaces of this network, by name. */
std::map<string, net_dev_stat> interfaces(std::size_t capacity = 100) {
    const caught_stream complaints(stderr);
    std::vector<net_dev_stat> all(capacity);
    const int count = net_dev(nullptr, all.data(), capacity, nullptr, 0);
    std::map<string, net_dev_stat> found;
    for (int i = 0; i < count; i++)
        found[all[static_cast<std::size_t>(i)].name] = all[static_cast<std::size_t>(i)];
    EXPECT_EQ(found.size(), static_cast<std::size_t>(count));
    return found;
}

TEST_F(NetDev, TellsWhatTheSystemTells) {
    ip("link set dev lo up\n"
       "link add eth0 type veth peer name eth1\n"
       "addr add 10.9.8.7/20 dev eth0\n"
       "addr add 172.16.1.1/25 dev eth1\n"
       "link set dev eth0 up\nlink set dev eth1 up\n");
    expect_running("eth0", true);
    expect_running("eth1", true);
    const auto before = traffic_in(content_of("/proc/net/dev"));
    auto found = interfaces();
    const auto after = traffic_in(content_of("/proc/net/dev"));
    ASSERT_EQ(found.size(), 2U);
    for (const auto &[name, net] : found) {
        expect_between(net, before.at(name), after.at(name));
        EXPECT_EQ(net.flags, IFF_UP | IFF_BROADCAST | IFF_RUNNING | IFF_MULTICAST);
        EXPECT_EQ(net.state, 1U);
        EXPECT_EQ(net.prev_state, 0U);
    }
    EXPECT_EQ(found["eth0"].addr, inet_addr("10.9.8.7"));
    EXPECT_EQ(found["eth0"].netmask, inet_addr("255.255.240.0"));
    EXPECT_EQ(found["eth1"].addr, inet_addr("172.16.1.1"));
    EXPECT_EQ(found["eth1"].netmask, inet_addr("255.255.255.128"));
}

TEST_F(NetDev, EachCallTellsTheStateBefore) {
    ip("link add eth0 type veth peer name wlo1\n"
       "addr add 10.9.8.7/24 dev eth0\n");
    FILE *kept = std::fopen("/proc/net/dev", "r");
    net_dev_stat net{};
    const string address = numbers(inet_addr("10.9.8.7"), inet_addr("255.255.255.0"));
    const auto next = [&] {
        EXPECT_EQ(net_dev(kept, &net, 1, nullptr, 0), 1);
        EXPECT_STREQ(net.name, "eth0");
        return told_state(net);
    };
    EXPECT_EQ(next(), "4098 0 2 0 0") << "down";
    EXPECT_EQ(next(), "4098 2 2 0 0");
    ip("link set dev eth0 up\n");
    expect_running("eth0", false);
    EXPECT_EQ(next(), "4099 2 2 0 0") << "up, with nobody at the other end";
    ip("link set dev wlo1 up\n");
    expect_running("eth0", true);
    EXPECT_EQ(next(), "4163 2 1 " + address);
    EXPECT_EQ(next(), "4163 1 1 " + address);
    ip("link set dev wlo1 down\n");
    expect_running("eth0", false);
    EXPECT_EQ(next(), "4099 1 2 0 0");
    EXPECT_EQ(next(), "4099 2 2 0 0");
    std::fclose(kept);
}

TEST_F(NetDev, ARunningInterfaceMayHaveNoAddress) {
    ip("link add eth0 type veth peer name wlo1\n"
       "link set dev eth0 up\nlink set dev wlo1 up\n");
    expect_running("eth0", true);
    net_dev_stat net{};
    const caught_stream complaints(stderr);
    EXPECT_EQ(net_dev(nullptr, &net, 1, nullptr, 0), 1);
    EXPECT_EQ(told_state(net), "4163 0 1 0 0");
    EXPECT_EQ(complaints.text(),
              "get_if_addr(ioctl-SIOCGIFADDR): Cannot assign requested address\n"
              "get_if_netmask(ioctl-SIOCGIFNETMASK): Cannot assign requested address\n");
    ip("addr add 10.9.8.7/24 dev eth0\n");
    EXPECT_EQ(net_dev(nullptr, &net, 1, nullptr, 0), 1);
    ip("addr flush dev eth0\n");
    EXPECT_EQ(net_dev(nullptr, &net, 1, nullptr, 0), 1);
    EXPECT_EQ(told_state(net),
              "4163 1 1 " + numbers(inet_addr("10.9.8.7"), inet_addr("255.255.255.0")))
        << "what the system does not tell stays";
}

/* The flags stay as they were as well, and with them the state. */
TEST_F(NetDev, AnInterfaceThatIsGoneKeepsItsState) {
    ip("link add eth0 type veth peer name wlo1\n"
       "addr add 10.9.8.7/24 dev eth0\n"
       "link set dev eth0 up\nlink set dev wlo1 up\n");
    expect_running("eth0", true);
    const kept_file file("eth0: 1 2\n");
    net_dev_stat net{};
    EXPECT_EQ(net_dev(file.stream(), &net, 1, nullptr, 0), 1);
    ip("link del dev eth0\n");
    const caught_stream complaints(stderr);
    EXPECT_EQ(net_dev(file.stream(), &net, 1, nullptr, 0), 1);
    EXPECT_EQ(told_state(net),
              "4163 1 1 " + numbers(inet_addr("10.9.8.7"), inet_addr("255.255.255.0")));
    EXPECT_EQ(net_dev(nullptr, &net, 1, nullptr, 0), 0);
}

TEST_F(NetDev, LeavesOutAllWithLoInTheirLine) {
    ip("link set dev lo up\n");
    EXPECT_TRUE(interfaces().empty());
    ip("link add eth0 type veth peer name wlo1\n"
       "link add flow type veth peer name a.lo\n");
    const auto found = interfaces();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found.begin()->first, "eth0");
}

TEST_F(NetDev, CountsBehindTheCapacity) {
    ip("link add eth0 type veth peer name eth1\n"
       "link add eth2 type veth peer name wlo1\n");
    for (std::size_t capacity = 0; capacity < 5; capacity++) {
        std::vector<net_dev_stat> nets(5);
        EXPECT_EQ(net_dev(nullptr, nets.data(), capacity, nullptr, 0), 3) << capacity;
        for (std::size_t i = 0; i < nets.size(); i++)
            EXPECT_EQ(is_zero(nets[i]), i >= std::min<std::size_t>(capacity, 3)) << capacity;
    }
}

TEST_F(NetDev, NamesChooseInterfaces) {
    ip("link add eth0 type veth peer name eth1\n"
       "link add eth2 type veth peer name eth22\n"
       "addr add 10.9.8.7/24 dev eth2\n"
       "link set dev eth2 up\nlink set dev eth22 up\n");
    expect_running("eth2", true);
    char *names[] = {const_cast<char *>("eth2"), const_cast<char *>("none")};
    std::array<net_dev_stat, 4> nets{};
    EXPECT_EQ(net_dev(nullptr, nets.data(), 4, names, 2), 1);
    EXPECT_STREQ(nets[0].name, "eth2");
    EXPECT_EQ(nets[0].state, 1U);
    EXPECT_EQ(nets[0].addr, inet_addr("10.9.8.7"));
    for (std::size_t i = 1; i < nets.size(); i++)
        EXPECT_EQ(nets[i].state, 0U) << "never looked at";
    EXPECT_EQ(net_dev(nullptr, nets.data(), 4, names, 2), 1);
    EXPECT_EQ(nets[0].prev_state, 1U) << "the slot is used for passing over others, no more";
}

TEST_F(NetDev, TheLongestNameIsWhole) {
    ip("link add fifteen-letters type veth peer name wlo1\n"
       "addr add 10.9.8.7/24 dev fifteen-letters\n"
       "link set dev fifteen-letters up\nlink set dev wlo1 up\n");
    expect_running("fifteen-letters", true);
    auto found = interfaces();
    EXPECT_EQ(found["fifteen-letters"].addr, inet_addr("10.9.8.7"));
    net_dev_stat net{};
    EXPECT_EQ(net_dev_info(nullptr, "fifteen-letters", &net), 0);
    EXPECT_STREQ(net.name, "fifteen-letters");
    const kept_file file("   fifteen-letters-and-more: 1 2\n");
    EXPECT_EQ(net_dev(file.stream(), &net, 1, nullptr, 0), 1);
    EXPECT_STREQ(net.name, "fifteen-letters") << "cut at the field";
    EXPECT_EQ(net.addr, inet_addr("10.9.8.7"));
}

TEST_F(NetDev, AKeptStreamShowsInterfacesThatComeAndGo) {
    FILE *kept = std::fopen("/proc/net/dev", "r");
    std::vector<net_dev_stat> nets(300);
    const auto count = [&] { return net_dev(kept, nets.data(), nets.size(), nullptr, 0); };
    net_dev_stat net{};
    EXPECT_EQ(count(), 0);
    ip("link add eth0 type veth peer name eth1\n");
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(net_dev_info(kept, "eth1", &net), 0);
    string commands;
    for (int i = 0; i < 40; i++)
        commands +=
            "link add a" + std::to_string(i) + " type veth peer name b" + std::to_string(i) + "\n";
    ip(commands);
    EXPECT_EQ(count(), 82);
    ip("link del dev eth0\n");
    EXPECT_EQ(count(), 80);
    EXPECT_EQ(net_dev_info(kept, "eth1", &net), -1);
    EXPECT_EQ(interfaces().size(), 80U) << "all different";
    std::fclose(kept);
}

/* ---- Disks ---------------------------------------------------------------------------------- */

/* Every major with minors on both sides of each mask. */
TEST(ReaderDiskstats, OnlyWholeDisksOfTheseMajorsCount) {
    const std::set<unsigned> ide = {3, 22, 33, 34, 56, 57, 88, 89, 90, 91};
    const std::set<unsigned> scsi = {8,   65,  66,  67,  68,  69,  70,  71,
                                     128, 129, 130, 131, 132, 133, 134, 135};
    const std::set<unsigned> ide_minors = {0, 64, 128, 192, 1'048'512, 4'294'967'232};
    const std::set<unsigned> scsi_minors = {0,   16,  32,        48,        64,           128,
                                            192, 240, 1'048'512, 1'048'560, 4'294'967'232};
    const kept_file file;
    for (unsigned major = 0; major <= 300; major++)
        for (const unsigned minor :
             {0U,   1U,   2U,   8U,   15U,  16U,        17U,        31U,        32U,
              33U,  47U,  48U,  63U,  64U,  65U,        127U,       128U,       129U,
              191U, 192U, 193U, 240U, 255U, 1'048'512U, 1'048'560U, 1'048'575U, 4'294'967'232U}) {
            file.hold(numbers(major, minor) + " disk 1 2 3 4 5 6 7 8 9 10 11\n");
            const bool expected = (ide.contains(major) && ide_minors.contains(minor)) ||
                                  (scsi.contains(major) && scsi_minors.contains(minor));
            disk_stat disk{};
            ASSERT_EQ(diskstats(file.stream(), &disk, 1), expected ? 1 : 0)
                << major << " " << minor;
            ASSERT_EQ(disk.major, expected ? major : 0);
            ASSERT_EQ(disk.minor, expected ? minor : 0);
        }
}

TEST(ReaderDiskstats, ReadsLinesAsTheyCome) {
    const text_and_answer rows[] = {
        {"8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n", "1: 8 0 sda 1 2 3 4 5 6 7 8 10 11"},
        {"8 0 sda 1 2 3 4 5 6 7 8 9 10 11", "1: 8 0 sda 1 2 3 4 5 6 7 8 10 11"},
        {"  8\t0\tsda\t1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\r\n",
         "1: 8 0 sda 1 2 3 4 5 6 7 8 10 11"},
        {"8 0 sda 1 2 3 4 5 6 7 8 9 10\n", "1: 8 0 sda 1 2 3 4 5 6 7 8 10 0"},
        {"8 0 sda 1 2 3 4 5 6 7 8 9\n", "1: 8 0 sda 1 2 3 4 5 6 7 8 0 0"},
        {"8 0 sda 1 2 3 4 5 6 7 8 x 10 11\n", "1: 8 0 sda 1 2 3 4 5 6 7 8 0 0"},
        {"8 0 sda 1\n", "1: 8 0 sda 1 0 0 0 0 0 0 0 0 0"},
        {"8 0 sda 1 x 3\n", "1: 8 0 sda 1 0 0 0 0 0 0 0 0 0"},
        {"8 0 sda x 2 3\n8 0 sda\n8 0\n8\n\nsda\n", "0"},
        {"8 0 sda 0 2 3 4 5 6 7 8 9 10 11\n", "0"},
        {"8 1 sda1 1 2 3 4 5 6 7 8 9 10 11\n", "0"},
        {"253 0 dm-0 1 2 3 4 5 6 7 8 9 10 11\n259 0 nvme0n1 1 2 3 4 5 6 7 8 9 10 11\n"
         "7 0 loop0 1 2 3 4 5 6 7 8 9 10 11\n254 0 vda 1 2 3 4 5 6 7 8 9 10 11\n",
         "0"},
        {"8 1 sda1 4 5 6 7\n3 0 hda 5 6 7 8\n", "1: 3 0 hda 5 6 7 8 0 0 0 0 0 0"},
        {"8 0sda 1 2\n", "1: 8 0 sda 1 2 0 0 0 0 0 0 0 0"},
        {"8 0 1 2 3\n", "1: 8 0 1 2 3 0 0 0 0 0 0 0 0"},
        {"8 0 two words 1 2 3\n", "0"},
        {"8, 0 sda 1 2 3\n", "0"},
        {"+8 -16 sda 18446744073709551616 -1\n",
         "1: 8 4294967280 sda 18446744073709551615 18446744073709551615 0 0 0 0 0 0 0 0"},
        {"4294967304 4294967296 sda 1\n", "1: 8 0 sda 1 0 0 0 0 0 0 0 0 0"},
        {"99999999999999999999 0 sda 1\n", "0"},
        {"08 010 sda 1\n0x8 0 sda 1\n", "0"},
        {"08 016 sda 1\n", "1: 8 16 sda 1 0 0 0 0 0 0 0 0 0"},
        {"8 0 %s%n 1\n", "1: 8 0 %s%n 1 0 0 0 0 0 0 0 0 0"},
        {"8 0 " + string(255, 'd') + " 1 2\n",
         "1: 8 0 " + string(255, 'd') + " 1 2 0 0 0 0 0 0 0 0"},
        {"8 0 " + string(256, 'd') + " 1 2\n",
         "1: 8 0 " + string(255, 'd') + " 1 2 0 0 0 0 0 0 0 0"},
        {"8 0 " + string(2000, 'd') + " 1 2\n8 0 b 1\n",
         "2: 8 0 " + string(255, 'd') + " 1 2 0 0 0 0 0 0 0 0, 8 0 b 1 0 0 0 0 0 0 0 0 0"},
        {"8 0 " + string(3000, 'd') + " 1 2\n8 0 b 1\n", "1: 8 0 b 1 0 0 0 0 0 0 0 0 0"},
        {string(2047, 'x') + "8 0 sda 1\n", "1: 8 0 sda 1 0 0 0 0 0 0 0 0 0"},
        {string(2038, ' ') + "8 0 sda 12 3\n", "1: 8 0 sda 1 0 0 0 0 0 0 0 0 0"},
        {string("8 0 sda\0 1 2\n8 0 b 1\n", 21), "1: 8 0 b 1 0 0 0 0 0 0 0 0 0"},
        {string("8 0 sda 1\0 2\n", 13), "1: 8 0 sda 1 0 0 0 0 0 0 0 0 0"},
    };
    for (const auto &row : rows) {
        const kept_file file(row.text);
        EXPECT_EQ(ask_diskstats(file.stream()), row.told) << row.text.substr(0, 200);
    }
}

TEST(ReaderDiskstats, CountsBehindTheCapacityAndClearsTheArray) {
    const kept_file file("8 0 sda 1\n8 1 sda1 1\n8 16 sdb 1\n8 32 sdc 0\n8 48 sdd 1\n");
    for (std::size_t capacity = 0; capacity <= 5; capacity++) {
        std::vector<disk_stat> disks(6, junk_record<disk_stat>());
        EXPECT_EQ(diskstats(file.stream(), disks.data(), capacity), 3);
        for (std::size_t i = 0; i < disks.size(); i++) {
            const bool filled = i < std::min<std::size_t>(capacity, 3);
            EXPECT_EQ(is_junk(disks[i]), i >= capacity) << capacity << " " << i;
            EXPECT_EQ(is_zero(disks[i]), !filled && i < capacity) << capacity << " " << i;
            if (filled) {
                EXPECT_EQ(disks[i].name, string(i == 0 ? "sda" : i == 1 ? "sdb" : "sdd"));
            }
        }
    }
}

/* ---- Mounted file systems ------------------------------------------------------------------- */

string decoded(const string &field) {
    string text;
    for (std::size_t i = 0; i < field.size(); i++)
        if (field[i] == '\\') {
            text += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else
            text += field[i];
    return text;
}

struct mounted {
    string device;
    string directory;
    string type;
    string options;
    std::uint64_t blocks;

    bool operator==(const mounted &) const = default;
};

void PrintTo(const mounted &one, std::ostream *stream) {
    *stream << one.device << " " << one.directory << " " << one.type << " " << one.options << " "
            << one.blocks;
}

/* What a table and the system tell of the file systems that have blocks. */
std::vector<mounted> mounts_in(const string &table) {
    std::vector<mounted> all;
    for (const string &line : lines_of(table)) {
        std::istringstream words(line);
        mounted one{};
        words >> one.device >> one.directory >> one.type >> one.options;
        one.directory = decoded(one.directory);
        struct statvfs system {};
        if (statvfs(one.directory.c_str(), &system) == 0 && system.f_blocks != 0) {
            one.blocks = system.f_blocks;
            all.push_back(one);
        }
    }
    return all;
}

std::vector<mounted> filled(const std::vector<mount_stat> &records, int count) {
    std::vector<mounted> all;
    for (std::size_t i = 0; i < static_cast<std::size_t>(std::max(count, 0)); i++) {
        const mount_stat &one = records[i];
        for (const char *field :
             {one.ent.mnt_fsname, one.ent.mnt_dir, one.ent.mnt_type, one.ent.mnt_opts})
            EXPECT_TRUE(*field == '\0' ||
                        (field >= one.strbuf && field < one.strbuf + sizeof one.strbuf))
                << i;
        all.push_back({one.ent.mnt_fsname, one.ent.mnt_dir, one.ent.mnt_type, one.ent.mnt_opts,
                       one.fs.f_blocks});
    }
    return all;
}

/* A file system of 16 blocks. */
void mount_small(const string &directory) {
    std::filesystem::create_directories(directory);
    ASSERT_EQ(mount("small", directory.c_str(), "tmpfs", 0, "size=64k"), 0) << directory;
}

/* Others may mount and unmount meanwhile. */
TEST(ThisMachine, HasTheMountsOfItsTable) {
    const auto before = count_descriptors();
    std::vector<mounted> expected;
    std::vector<mounted> found;
    EXPECT_TRUE(eventually([&] {
        const string table = content_of("/etc/mtab");
        expected = mounts_in(table);
        std::vector<mount_stat> mounts(expected.size() + 10);
        const int count = fstab(mounts.data(), mounts.size());
        found = filled(mounts, count);
        return fstab(nullptr, 0) == count && content_of("/etc/mtab") == table;
    }));
    EXPECT_FALSE(expected.empty());
    EXPECT_EQ(found, expected);
    EXPECT_EQ(count_descriptors(), before);
}

TEST_F(Readers, FstabTellsOfHundredsOfMounts) {
    const temp_dir home;
    with_fakes([&](fake_kernel &) {
        const int before = fstab(nullptr, 0);
        for (int i = 0; i < 400; i++)
            mount_small(home / std::to_string(i));
        EXPECT_EQ(fstab(nullptr, 0), before + 400);
        std::vector<mount_stat> mounts(static_cast<std::size_t>(before) + 500);
        const int count = fstab(mounts.data(), mounts.size());
        EXPECT_EQ(count, before + 400);
        EXPECT_EQ(filled(mounts, count), mounts_in(content_of("/proc/self/mounts")));
        const mount_stat &last = mounts[static_cast<std::size_t>(count) - 1];
        EXPECT_EQ(last.ent.mnt_dir, home / "399");
        EXPECT_STREQ(last.ent.mnt_type, "tmpfs");
        EXPECT_EQ(last.fs.f_type, 0x01021994);
        EXPECT_EQ(last.fs.f_blocks, 16U);
        EXPECT_EQ(last.fs.f_bsize, 4096);
        EXPECT_EQ(umount(last.ent.mnt_dir), 0);
        EXPECT_EQ(fstab(mounts.data(), 390), 390) << "no more than there is room for";
        EXPECT_EQ(fstab(nullptr, 0), before + 399);
    });
}

/* A table of five file systems between others that have no blocks or are not there. */
string table_of_five(const string &home) {
    string table = "proc /proc proc rw 0 0\nnowhere " + home + "/none ext4 rw 0 0\n";
    for (const char *name : {"a", "b", "c", "d", "e"})
        table += "dev-" + string(name) + " " + home + "/" + name + " tmpfs rw,of=" + name +
                 " 1 2\nsysfs /sys sysfs rw 0 0\nproc /proc proc rw 0 0\n";
    return table;
}

TEST_F(Readers, FstabFillsNoMoreThanItsCapacity) {
    const temp_dir home;
    with_fakes([&](fake_kernel &files) {
        for (const char *name : {"a", "b", "c", "d", "e"})
            mount_small(home / name);
        files.lay("/etc/mtab", table_of_five(home.path()));
        for (std::size_t capacity = 0; capacity <= 7; capacity++) {
            std::vector<mount_stat> mounts(8, junk_record<mount_stat>());
            const int count = fstab(mounts.data(), capacity);
            EXPECT_EQ(count, capacity == 0 ? 5 : std::min<int>(static_cast<int>(capacity), 5));
            for (std::size_t i = 0; i < mounts.size(); i++) {
                const bool is_filled = i < std::min<std::size_t>(capacity, 5);
                const bool is_cleared = !is_filled && i == 5 && i < capacity;
                EXPECT_EQ(is_junk(mounts[i]), !is_filled && !is_cleared) << capacity << " " << i;
                EXPECT_EQ(is_zero(mounts[i]), is_cleared) << capacity << " " << i;
                if (!is_filled)
                    continue;
                const string name(1, static_cast<char>('a' + i));
                EXPECT_EQ(mounts[i].ent.mnt_fsname, "dev-" + name);
                EXPECT_EQ(mounts[i].ent.mnt_dir, home / name);
                EXPECT_EQ(mounts[i].ent.mnt_opts, "rw,of=" + name);
                EXPECT_EQ(mounts[i].ent.mnt_freq, 1);
                EXPECT_EQ(mounts[i].ent.mnt_passno, 2);
                EXPECT_EQ(mounts[i].fs.f_blocks, 16U);
            }
        }
    });
}

TEST_F(Readers, FstabDecodesNames) {
    const temp_dir home;
    with_fakes([&](fake_kernel &) {
        const int before = fstab(nullptr, 0);
        const std::vector<string> names = {"a blank", "a\ttab", "a\nline", "a\\backslash",
                                           "a#hash"};
        for (const string &name : names)
            mount_small(home / name);
        std::vector<mount_stat> mounts(static_cast<std::size_t>(before) + 10);
        ASSERT_EQ(fstab(mounts.data(), mounts.size()), before + 5);
        for (std::size_t i = 0; i < names.size(); i++)
            EXPECT_EQ(mounts[static_cast<std::size_t>(before) + i].ent.mnt_dir, home / names[i]);
        EXPECT_NE(content_of("/proc/self/mounts").find("/a\\040blank "), string::npos);
    });
}

/* A real one, whose directory is cut: there is no such file system then. */
TEST_F(Readers, FstabLeavesOutADirectoryThatDoesNotFit) {
    const temp_dir home;
    with_fakes([&](fake_kernel &) {
        const int before = fstab(nullptr, 0);
        string deep = home.path();
        for (int i = 0; i < 5; i++)
            deep += "/" + string(240, static_cast<char>('a' + i));
        mount_small(deep);
        ASSERT_EQ(fstab(nullptr, 0), before);
        mount_small(home / "b");
        EXPECT_EQ(fstab(nullptr, 0), before + 1) << "the rest of the line does not count";
        EXPECT_EQ(umount(deep.c_str()), 0);
    });
}

TEST_F(Readers, FstabReadsLinesAsTheyCome) {
    const temp_dir home;
    const string d = home / "d";
    const string full = "dev " + d + " tmpfs rw 0 0\n";
    const struct {
        string table;
        int count;
        string options; // of the last
    } rows[] = {
        {"", 0, ""},
        {"\n\n  \n", 0, ""},
        {"# dev " + d + " tmpfs rw 0 0\n", 0, ""},
        {full, 1, "rw"},
        {full + full + "#\n" + full, 3, "rw"},
        {"dev " + d + " tmpfs ro", 1, "ro"},
        {"dev " + d + " tmpfs\n", 1, ""},
        {"dev " + d, 1, ""},
        {"dev\n", 0, ""},
        {"dev\t " + d + "\t \ttmpfs  rw  x y\n", 1, "rw"},
        {"dev none tmpfs rw 0 0\n", 0, ""},
        {"dev /proc proc rw 0 0\ndev /sys sysfs rw 0 0\n", 0, ""},
        {"dev " + d + "/.. tmpfs rw 0 0\n", 1, "rw"},
        {"dev " + d + " tmpfs " + string(3000, 'o') + " 0 0\n" + full, 2, "rw"},
        {full + "dev " + d + " tmpfs " + string(3000, 'o') + " 0 0", 2,
         string(1023 - 11 - d.size(), 'o')},
        {string(3000, 'x') + " " + d + " tmpfs rw 0 0\n", 0, ""},
        {full + string("dev \0 tmpfs rw\n", 15), 1, "rw"},
        {string(100'000, ' ') + "\n" + full, 1, "rw"},
    };
    for (const auto &row : rows)
        with_fakes([&](fake_kernel &files) {
            mount_small(d);
            files.lay("/etc/mtab", row.table);
            const auto before = count_descriptors();
            std::vector<mount_stat> mounts(6, junk_record<mount_stat>());
            const int count = fstab(mounts.data(), 5);
            EXPECT_EQ(count, row.count) << row.table.substr(0, 200);
            EXPECT_TRUE(is_junk(mounts[5]));
            for (const mounted &one : filled(mounts, count))
                EXPECT_GT(one.blocks, 0U);
            if (count > 0) {
                EXPECT_EQ(mounts[static_cast<std::size_t>(count) - 1].ent.mnt_opts, row.options);
            }
            EXPECT_EQ(count_descriptors(), before);
        });
}

/* ---- Whatever a file holds ------------------------------------------------------------------ */

/* Text that is made of what kernel files are made of, in good and in bad order. */
class hostile_text {
  public:
    explicit hostile_text(unsigned seed) : random_(seed) {}

    string next() {
        string text;
        for (unsigned left = below(8); left > 0; left--)
            text += below(4) == 0 ? soup() : line();
        return text;
    }

    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

  private:
    string line() {
        switch (below(6)) {
        case 0:
            return "processor" + pick({"\t:", "\t: ", ":", " :"}) + number() + end();
        case 1:
            return pick({"cpu ", "cpu  ", "cpu0 ", "cpu", "cpu\t"}) + many_numbers() + end();
        case 2:
            return pick({"Buffers", "Cached", "MemFree", "MemTotal", "SwapFree", "SwapTotal",
                         "SwapCached", "Memtotal", "A", "z", ""}) +
                   pick({":", ": ", ":\t ", " :"}) + number() + pick({" kB", "kB", ""}) + end();
        case 3:
        case 4:
            return blanks() + name() + pick({":", ": ", " :", "\t: "}) + many_numbers() + end();
        default:
            return blanks() +
                   pick({"8", "8", "3", "22", "65", "71", "128", "135", "72", "253", "8,"}) + " " +
                   pick({"0", "0", "16", "64", "1", "15", "63", "128"}) + blanks() + " " +
                   pick({"sda", "hda", string(254, 'd'), string(300, 'd'), "7"}) + " " +
                   many_numbers() + end();
        }
    }

    string soup() {
        string text;
        for (unsigned left = below(30); left > 0; left--)
            text += pick({"cpu ",
                          "processor\t:",
                          "eth0",
                          "lo",
                          ":",
                          " ",
                          "\t",
                          "\n",
                          "\r",
                          "\v",
                          string(1, '\0'),
                          "\xff",
                          "%n",
                          "sda",
                          "MemTotal:",
                          "Cached",
                          ".",
                          "-",
                          "+",
                          "0x",
                          number(),
                          string(2030 + below(30), 'x')});
        return text;
    }

    string number() {
        return pick({"0", "1", std::to_string(random_()), std::to_string(below(100)), "-1", "+5",
                     "010", "0x1f", "18446744073709551615", "99999999999999999999", "4294967304",
                     "x", "5x", "-", "1.5", "5:6"});
    }

    string many_numbers() {
        string text;
        for (unsigned left = below(4) == 0 ? below(20) : 16; left > 0; left--)
            text += pick({" ", " ", " ", " ", "\t", "   ", ",", ""}) +
                    (below(20) == 0 ? number() : std::to_string(below(100'000)));
        return text;
    }

    string name() {
        return pick({"eth0", "eth1", "eth10", "wlo1", "lo", "two words", "", "e\tf",
                     "fifteen-letters", "sixteen--letters", string(40, 'n'),
                     "fourteen-chars  behind"});
    }

    string blanks() {
        return below(50) == 0 ? string(2020 + below(40), ' ') : pick({"", "  ", "    ", "\t"});
    }

    string end() { return pick({"\n", "\n", "\n", "\n", "\r\n", " \n", "", "\n\n"}); }

    string pick(const std::vector<string> &choices) {
        return choices[below(static_cast<unsigned>(choices.size()))];
    }

    std::mt19937_64 random_;
};

/* The library's answers about a file, and the plain ones about its text. */
class both_readers {
  public:
    void take(FILE *stream, const string &text, std::size_t capacity,
              const std::vector<string> &names) {
        EXPECT_EQ(ask_cpuinfo(stream), "0: " + told(keel_test::plain_cpuinfo(text)));
        EXPECT_EQ(ask_cpustat(stream), "0: " + told(keel_test::plain_cpustat(text)));
        EXPECT_EQ(ask_meminfo(stream), "0: " + told(keel_test::plain_meminfo(text)));
        take_interfaces(stream, text, capacity, names);
        for (const char *name :
             {"eth0", "lo", "two words", "", "sixteen--letters", "nnnnnnnnnnnnnnnnnnn"})
            take_info(stream, text, name);
        take_disks(stream, text, capacity);
        processors += keel_test::plain_cpuinfo(text);
        ticks += keel_test::plain_cpustat(text).user != 0;
        memory += told(keel_test::plain_meminfo(text)) != told(mem_stat{});
    }

    /* How much there was to see. */
    std::uint64_t processors = 0, ticks = 0, memory = 0, interfaces = 0, found = 0, disks = 0;

  private:
    /* The records are used for one text after the other. */
    void take_interfaces(FILE *stream, const string &text, std::size_t capacity,
                         const std::vector<string> &names) {
        std::vector<char *> wanted;
        for (const string &name : names)
            wanted.push_back(const_cast<char *>(name.c_str()));
        plain_nets_.resize(capacity);
        const int expected = keel_test::plain_net_dev(text, plain_nets_, names);
        EXPECT_EQ(net_dev(stream, nets_.data(), capacity, wanted.data(), wanted.size()), expected);
        for (std::size_t i = 0; i < capacity; i++) {
            EXPECT_EQ(told(nets_[i]), told(plain_nets_[i]));
            EXPECT_EQ(told_state(nets_[i]), told_state(plain_nets_[i]));
        }
        plain_nets_.resize(nets_.size());
        std::copy(nets_.begin(), nets_.end(), plain_nets_.begin());
        interfaces += static_cast<std::uint64_t>(expected);
    }

    void take_info(FILE *stream, const string &text, const char *name) {
        net_dev_stat plain = info_;
        const int expected = keel_test::plain_net_dev_info(text, name, plain);
        EXPECT_EQ(net_dev_info(stream, name, &info_), expected);
        EXPECT_EQ(told(info_), told(plain)) << name;
        EXPECT_EQ(told_state(info_), told_state(plain)) << name;
        found += expected == 0;
    }

    void take_disks(FILE *stream, const string &text, std::size_t capacity) {
        std::vector<disk_stat> plain(capacity);
        std::vector<disk_stat> records(capacity + 1, junk_record<disk_stat>());
        const int expected = keel_test::plain_diskstats(text, plain);
        EXPECT_EQ(diskstats(stream, records.data(), capacity), expected);
        for (std::size_t i = 0; i < capacity; i++)
            EXPECT_EQ(told(records[i]), told(plain[i]));
        EXPECT_TRUE(is_junk(records[capacity]));
        disks += static_cast<std::uint64_t>(expected);
    }

    std::array<net_dev_stat, 5> nets_{};
    std::vector<net_dev_stat> plain_nets_{5};
    net_dev_stat info_{};
};

TEST_F(NetDev, HostileTextIsReadAsAScannerReadsIt) {
    ip("link add eth0 type veth peer name eth1\n"
       "addr add 10.9.8.7/20 dev eth0\n"
       "link set dev eth0 up\nlink set dev eth1 up\n");
    expect_running("eth0", true);
    const std::vector<std::vector<string>> filters = {
        {}, {}, {"eth0"}, {"eth1", "two words"}, {"fifteen-letters", "nnnnnnnnnnnnnnn", ""}};
    const kept_file file;
    both_readers both;
    hostile_text texts(20'250'117);
    for (int turn = 0; turn < keel_test::rounds(10'000); turn++) {
        const string text = texts.next();
        file.hold(text);
        {
            const caught_stream complaints(stderr);
            both.take(file.stream(), text, texts.below(5), filters[texts.below(5)]);
        }
        ASSERT_FALSE(HasFailure()) << "turn " << turn << ":\n" << text;
    }
    const auto enough = static_cast<std::uint64_t>(keel_test::rounds(10'000)) / 30;
    EXPECT_GT(both.processors, enough);
    EXPECT_GT(both.ticks, enough);
    EXPECT_GT(both.memory, enough);
    EXPECT_GT(both.interfaces, enough);
    EXPECT_GT(both.found, enough);
    EXPECT_GT(both.disks, enough);
}

} // namespace

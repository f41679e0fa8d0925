/* SPDX-License-Identifier: MIT */

/* Input: a capacity and whether to read named interfaces alone, then two interfaces' names and what
 * the file held before with a NUL byte behind each, then the file. */
#include "xfsproc.h"

#include <cstring>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "fuzz_input.h"
#include "plain_lines.h"
#include "plain_proc.h"

using keel_fuzz::require;
using std::string;

namespace {

struct closer {
    void operator()(FILE *file) const { std::fclose(file); }
};

/* A kernel file that holds `content`, and was read from already. */
class kept_file {
  public:
    explicit kept_file(const string &content) : stream_(keel_test::file_of(content)) {
        std::fgetc(stream_.get());
    }
    FILE *stream() const { return stream_.get(); }

  private:
    std::unique_ptr<FILE, closer> stream_;
};

/* What `call` gives, while nothing is heard of the interfaces that the system does not have. */
template <class Call>
int in_silence(Call call) {
    static FILE *const nowhere = std::fopen("/dev/null", "w");
    FILE *const terminal = std::exchange(stderr, nowhere);
    const int result = call();
    stderr = terminal;
    return result;
}

/* A record whose fields hold something else than any reading leaves there. */
template <class Record>
Record spoilt() {
    Record record;
    std::memset(&record, 0x5a, sizeof record);
    return record;
}

template <class Record>
bool same_bytes(const Record &left, const Record &right) {
    static_assert(std::has_unique_object_representations_v<Record>);
    return std::memcmp(&left, &right, sizeof left) == 0;
}

void check_machine(const kept_file &file, const string &content) {
    std::uint64_t processors = 77;
    require(cpuinfo(file.stream(), &processors) == 0, "result of cpuinfo");
    require(processors == keel_test::plain_cpuinfo(content), "cpuinfo");
    auto ticks = spoilt<cpu_stat>();
    require(cpustat(file.stream(), &ticks) == 0, "result of cpustat");
    require(same_bytes(ticks, keel_test::plain_cpustat(content)), "cpustat");
    auto memory = spoilt<mem_stat>();
    require(meminfo(file.stream(), &memory) == 0, "result of meminfo");
    require(same_bytes(memory, keel_test::plain_meminfo(content)), "meminfo");
}

/* The array has room for just so many records: the sanitizer watches what is behind. */
void check_disks(const kept_file &file, const string &content, std::size_t capacity) {
    std::vector<disk_stat> expected(capacity);
    std::vector<disk_stat> found(capacity, spoilt<disk_stat>());
    require(diskstats(file.stream(), found.data(), capacity) ==
                keel_test::plain_diskstats(content, expected),
            "result of diskstats");
    require(std::equal(found.begin(), found.end(), expected.begin(), same_bytes<disk_stat>),
            "diskstats");
}

bool same_interface(const net_dev_stat &left, const net_dev_stat &right) {
    const auto fields = [](const net_dev_stat &of) {
        return std::tuple(of.rx_bytes, of.rx_packets, of.tx_bytes, of.tx_packets, string(of.name),
                          of.flags, of.prev_state, of.state, of.addr, of.netmask);
    };
    return fields(left) == fields(right);
}

/* None that the system has: what a reading leaves as it was shows. */
constexpr net_dev_stat some_interface = {1, 2, 3, 4, "before", 5, 6, 7, 8, 9};

/* The same records are read into one file after the other, as when one file is polled. */
class interfaces {
  public:
    interfaces(std::size_t capacity, const std::vector<string> &names)
        : found_(capacity, some_interface), expected_(found_), names_(names) {}

    void check(const kept_file &file, const string &content) {
        std::vector<char *> names;
        for (string &name : names_)
            names.push_back(name.data());
        const int count = in_silence([&] {
            return net_dev(file.stream(), found_.data(), found_.size(), names.data(), names.size());
        });
        require(count == in_silence(
                             [&] { return keel_test::plain_net_dev(content, expected_, names_); }),
                "result of net_dev");
        require(std::equal(found_.begin(), found_.end(), expected_.begin(), same_interface),
                "net_dev");
    }

  private:
    std::vector<net_dev_stat> found_;
    std::vector<net_dev_stat> expected_;
    std::vector<string> names_;
};

void check_interface(const kept_file &file, const string &content, const string &name) {
    net_dev_stat found = some_interface;
    net_dev_stat expected = some_interface;
    require(net_dev_info(file.stream(), name.c_str(), &found) ==
                keel_test::plain_net_dev_info(content, name, expected),
            "result of net_dev_info");
    require(same_interface(found, expected), "net_dev_info");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    keel_fuzz::fuzz_input input(data, size);
    const std::size_t capacity = input.byte() % 4;
    const bool named = (input.byte() & 1) != 0;
    const string name = input.line();
    const string other = input.line();
    const string former = input.line();
    const string content = input.content(20'000);

    const kept_file file(content);
    check_machine(file, content);
    check_disks(file, content, capacity);
    check_interface(file, content, name);
    interfaces polled(capacity, named ? std::vector{name, other} : std::vector<string>());
    polled.check(kept_file(former), former);
    polled.check(file, content);
    return 0;
}

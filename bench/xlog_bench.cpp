/* SPDX-License-Identifier: MIT */
/* Log records, each handed to the kernel before the call returns. */
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>
#include <xlog.h>

#include "empty_call.h"
#include "files.h"
#include "table.h"

using bench::job;
using bench::require;

namespace {

constexpr std::uint32_t info = 0x40;
constexpr std::uint32_t debug = 0x80;
constexpr int records_per_file = 1000;

/* As both loggers write it. */
constexpr char sample_record[] =
    "[2024-03-05 14:07:09.042] [     Info.7] request 123 took 4711 us\n";

/* Logging set up in a directory of its own. */
class keel_log {
  public:
    keel_log(const std::string &parent, std::uint64_t records) : directory_(parent) {
        char program[] = "bench";
        char *const arguments[] = {program, nullptr};
        log_conf settings = {};
        settings.flags = LOG_CONF_WRMAX | LOG_CONF_MASK | LOG_CONF_RENAME_GAP;
        settings.wrmax = records;
        settings.mask = debug - 1;
        settings.rename_gap = 1000;
        require(log_init(arguments, directory_.path().c_str(), &settings) == 0, "log_init failed");
    }
    ~keel_log() { log_destroy(); }
    keel_log(const keel_log &) = delete;
    keel_log &operator=(const keel_log &) = delete;

    void record(int number) const {
        require(log_print(0, info, "request %d took %d us", number, 4711) > 0, "log_print failed");
    }

  private:
    bench::scratch_dir directory_;
};

/* The peer, its line the same, its file flushed after each record. */
class spdlog_log {
  public:
    explicit spdlog_log(const std::string &parent, int records = 0) : directory_(parent) {
        const std::string path = directory_ / "bench.log";
        spdlog::sink_ptr sink;
        if (records == 0)
            sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path);
        else
            sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
                path, static_cast<std::size_t>(records) * (sizeof sample_record - 1), 3);
        logger_ = std::make_shared<spdlog::logger>("bench", sink);
        logger_->set_pattern("[%Y-%m-%d %H:%M:%S.%e] [%11l] %v");
        logger_->set_level(spdlog::level::info);
        logger_->flush_on(spdlog::level::trace);
    }

    void record(int number) const { logger_->info("request {} took {} us", number, 4711); }

    spdlog::logger &logger() const { return *logger_; }

  private:
    bench::scratch_dir directory_;
    std::shared_ptr<spdlog::logger> logger_;
};

/* A record that is ready made, written in one call: no flushed log can cost less. */
class raw_file {
  public:
    explicit raw_file(const std::string &parent)
        : directory_(parent), file_(open((directory_ / "raw").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC | O_SYNC | O_CLOEXEC, 0666)) {
        require(file_ != -1, "open failed");
    }
    ~raw_file() { close(file_); }
    raw_file(const raw_file &) = delete;
    raw_file &operator=(const raw_file &) = delete;

    void record(int) const {
        constexpr ssize_t size = sizeof sample_record - 1;
        require(write(file_, sample_record, static_cast<std::size_t>(size)) == size,
                "write failed");
    }

  private:
    bench::scratch_dir directory_;
    int file_;
};

template <class Log>
job write_records(std::shared_ptr<Log> log, int records) {
    return {.run = [log = std::move(log), records] {
        for (int i = 0; i < records; i++)
            log->record(i);
    }};
}

/* `records` in all, shared among the threads. */
template <class Log>
job write_from_threads(std::shared_ptr<Log> log, int threads, int records) {
    return {.run = [log = std::move(log), threads, records] {
        std::vector<std::jthread> writers;
        for (int t = 0; t < threads; t++)
            writers.emplace_back([&] {
                for (int i = 0; i < records / threads; i++)
                    log->record(i);
            });
    }};
}

bench::table one_thread(const std::string &memory) {
    constexpr int records = 2000;
    return {
        .title = "Log record, flushed, in memory, one thread",
        .item = "record",
        .items = records,
        .floor =
            "one write(2) a record; the clock and the local time, asked anew for each so that a "
            "change of the zone's rules shows at once, are 0.1 us of the rest",
        .contenders = {
            {"keel log_print",
             [=] { return write_records(std::make_shared<keel_log>(memory, 30000), records); }},
            {"spdlog, each record flushed",
             [=] { return write_records(std::make_shared<spdlog_log>(memory), records); }, 0.75},
            {"write(2), O_SYNC",
             [=] { return write_records(std::make_shared<raw_file>(memory), records); }, 1.4}}};
}

bench::table four_threads(const std::string &memory) {
    constexpr int records = 20000;
    constexpr int threads = 4;
    const auto shared = [](auto log) {
        return write_from_threads(std::move(log), threads, records);
    };
    return {
        .title = "Log record, flushed, in memory, four threads",
        .item = "record",
        .items = records,
        .floor = "one write(2) a record, one at a time for the order of the file: threads that do "
                 "nothing else take what the last row says",
        .contenders = {
            {"keel log_print", [=] { return shared(std::make_shared<keel_log>(memory, 30000)); }},
            {"spdlog, each record flushed",
             [=] { return shared(std::make_shared<spdlog_log>(memory)); }, 0.7},
            {"write(2), O_SYNC", [=] { return shared(std::make_shared<raw_file>(memory)); }}}};
}

bench::table on_disk(const std::string &disk) {
    constexpr int records = 50;
    return {.title = "Log record, on the disk when the call returns",
            .item = "record",
            .items = records,
            .floor = "one synchronous write a record; everything else is at the disk",
            .contenders = {
                {"keel log_print",
                 [=] { return write_records(std::make_shared<keel_log>(disk, 30000), records); }},
                {"write(2), O_SYNC",
                 [=] { return write_records(std::make_shared<raw_file>(disk), records); }, 1.05},
                {"spdlog, flushed, but not on the disk",
                 [=] { return write_records(std::make_shared<spdlog_log>(disk), records); }}}};
}

bench::table filtered(const std::string &memory) {
    constexpr int calls = 10000;
    const auto keel_calls = [=] {
        return job{.run = [log = std::make_shared<keel_log>(memory, 30000)] {
            for (int i = 0; i < calls; i++)
                log_print(0, debug, "request %d took %d us", i, 4711);
        }};
    };
    const auto spdlog_calls = [=] {
        return job{.run = [log = std::make_shared<spdlog_log>(memory)] {
            for (int i = 0; i < calls; i++)
                log->logger().debug("request {} took {} us", i, 4711);
        }};
    };
    const auto empty_calls = bench::always([] {
        for (int i = 0; i < calls; i++)
            bench::empty_call(0, debug, "request %d took %d us", i, 4711);
    });
    return {.title = "Log record that its level filters",
            .item = "call",
            .items = calls,
            .floor = "a call into a shared library and the test of one variable in it",
            .contenders = {{"keel log_print", keel_calls},
                           {"spdlog", spdlog_calls, 0.5},
                           {"an empty call with variable arguments", empty_calls, 2.5}}};
}

bench::table rotating(const std::string &memory) {
    constexpr int records = 20 * records_per_file;
    return {.title = "Log record, rotation every 1,000 records",
            .item = "record",
            .items = records,
            .floor = "archives bear the millisecond of their making and are never overwritten: no "
                     "more than one of them a millisecond, so 1 us a record",
            .contenders = {
                {"keel log_print",
                 [=] {
                     return write_records(std::make_shared<keel_log>(memory, records_per_file),
                                          records);
                 }},
                {"spdlog rotating sink, 3 files kept",
                 [=] {
                     return write_records(std::make_shared<spdlog_log>(memory, records_per_file),
                                          records);
                 },
                 0.7},
                {"write(2), O_SYNC, no rotation",
                 [=] { return write_records(std::make_shared<raw_file>(memory), records); }}}};
}

} // namespace

int main(int argc, char *argv[]) {
    const std::string memory = bench::memory_dir();
    const std::string disk = bench::disk_dir();
    std::vector<bench::table> tables = {one_thread(memory), four_threads(memory), filtered(memory),
                                        rotating(memory)};
    if (disk.empty())
        std::puts("not measured: records on a disk; the bench itself lies in memory");
    else
        tables.push_back(on_disk(disk));
    return bench::measure(argc, argv, std::move(tables));
}

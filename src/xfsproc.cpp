/* SPDX-License-Identifier: MIT */
#include "xfsproc.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "char_class.h"
#include "ending.h"
#include "handles.h"
#include "xmemory.h"
#include "xstdio.h"

sys_stat ss;

namespace {

/* Opened at the first call and kept, with the line buffer that all share. */
FILE *fp_proc_stat, *fp_proc_uptime, *fp_proc_meminfo, *fp_proc_cpuinfo;
char *buf;
int size;

/* A kernel file comes in one read when the stream's buffer holds it; the default is 1 KB. */
constexpr std::size_t stream_buffer = 32768;

void open_kept(FILE *&stream, const char *path) {
    stream = keel::open_to_read(path).release();
    if (stream == nullptr)
        keel::end_process(1);
    std::setvbuf(stream, static_cast<char *>(xmalloc(0, stream_buffer)), _IOFBF, stream_buffer);
}

/* rewind() alone may go on serving the text that the stream has buffered; the flush drops it. */
void open_or_rewind(FILE *&stream, const char *path) {
    if (stream == nullptr)
        return open_kept(stream, path);
    std::rewind(stream);
    std::fflush(stream);
}

char *next_line(FILE *stream) {
    return _fgets(&buf, &size, stream, nullptr);
}

void parse_or_exit(bool parsed) {
    if (!parsed)
        keel::end_process(1);
}

const char *skip_spaces(const char *text) {
    const keel::char_class classes;
    while (classes.space(*text))
        text++;
    return text;
}

/* Takes the first word of `text`, cut at the field's size. */
bool take_name(const char *&text, char (&name)[32]) {
    const keel::char_class classes;
    const char *begin = skip_spaces(text);
    for (text = begin; *text != '\0' && !classes.space(*text);)
        text++;
    const auto length =
        std::min<std::size_t>(static_cast<std::size_t>(text - begin), sizeof name - 1);
    std::memcpy(name, begin, length);
    std::memset(name + length, 0, sizeof name - length);
    return length > 0;
}

bool take_counter(const char *&text, std::uint64_t &value) {
    char *end = nullptr;
    value = std::strtoull(text, &end, 10);
    return std::exchange(text, end) != end;
}

/* The kernel writes a point whatever the locale's decimal separator is. */
bool take_seconds(const char *&text, double &value) {
    static const locale_t standard = newlocale(LC_ALL_MASK, "C", nullptr); // takes no memory
    char *end = nullptr;
    value = strtod_l(text, &end, standard);
    return std::exchange(text, end) != end;
}

void parse_cpu_line(const char *line, cpu_usage &cpu) {
    parse_or_exit(take_name(line, cpu.name));
    for (cpu_counter &counter : cpu.counters)
        parse_or_exit(take_counter(line, counter.cur));
}

/* The sum is made without a sign, so that no counters, however wild, overflow it. */
void measure_interval(cpu_usage &cpu) {
    std::uint64_t total = 0;
    for (int k = 0; k < CPU_COUNTERS; k++) {
        cpu_counter &counter = cpu.counters[k];
        const auto delta = static_cast<std::int64_t>(counter.cur - counter.prev);
        /* A counter goes backwards when its processor was taken away and came back. */
        cpu.delta[k] = std::max<std::int64_t>(delta, 0);
        total += static_cast<std::uint64_t>(cpu.delta[k]);
        counter.prev = counter.cur;
    }
    cpu.total = std::max<std::int64_t>(static_cast<std::int64_t>(total), 1);
    cpu.usage = static_cast<double>(cpu.total - cpu.delta[CPU_IDLE]) * 100.0 /
                static_cast<double>(cpu.total);
}

void read_cpus() {
    open_or_rewind(fp_proc_stat, "/proc/stat");
    std::uint64_t filled = 0;
    while (next_line(fp_proc_stat) != nullptr && std::strstr(buf, "cpu") != nullptr) {
        parse_or_exit(filled < SYS_STAT_CPUS);
        parse_cpu_line(buf, ss.cpu[filled]);
        measure_interval(ss.cpu[filled]);
        filled++;
    }
    ss.ncpu = filled;
}

void read_uptime() {
    open_or_rewind(fp_proc_uptime, "/proc/uptime");
    parse_or_exit(next_line(fp_proc_uptime) != nullptr);
    const char *text = buf;
    parse_or_exit(take_seconds(text, ss.uptime) && take_seconds(text, ss.idle));
}

struct sys_mem {
    const char *name;
    std::uint64_t *figure;
};

int sys_mem_compar(const void *left, const void *right) {
    const char *l = static_cast<const sys_mem *>(left)->name;
    const char *r = static_cast<const sys_mem *>(right)->name;
    return *l != *r ? *l - *r : std::strcmp(l, r); // most differ at once, and want no call
}

double percentage(std::uint64_t part, std::uint64_t whole) {
    return 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

void read_memory() {
    static constexpr sys_mem figures[] = {
        // sorted, for the search
        {"Buffers", &ss.buffers},     {"Cached", &ss.cached},          {"MemFree", &ss.mem_free},
        {"MemTotal", &ss.mem_total},  {"SwapCached", &ss.swap_cached}, {"SwapFree", &ss.swap_free},
        {"SwapTotal", &ss.swap_total}};
    open_or_rewind(fp_proc_meminfo, "/proc/meminfo");
    while (next_line(fp_proc_meminfo) != nullptr) {
        char *colon = std::strchr(buf, ':');
        if (colon == nullptr)
            continue;
        *colon = '\0';
        const sys_mem wanted = {buf, nullptr};
        const void *found =
            std::bsearch(&wanted, figures, std::size(figures), sizeof wanted, sys_mem_compar);
        if (found != nullptr)
            *static_cast<const sys_mem *>(found)->figure = std::strtoul(colon + 1, nullptr, 0);
    }
    ss.mem_used = ss.mem_total - ss.mem_free - ss.buffers - ss.cached;
    ss.swap_used = ss.swap_total - ss.swap_free;
    ss.mem_usage = percentage(ss.mem_used, ss.mem_total);
    ss.swap_usage = percentage(ss.swap_used, ss.swap_total);
}

void count_processors() {
    open_kept(fp_proc_cpuinfo, "/proc/cpuinfo");
    while (next_line(fp_proc_cpuinfo) != nullptr)
        ss.nprocessors += std::strstr(buf, "processor") != nullptr;
}

} // namespace

int get_system_stat() {
    read_cpus();
    read_uptime();
    read_memory();
    if (fp_proc_cpuinfo == nullptr)
        count_processors();
    return 0;
}

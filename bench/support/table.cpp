/* SPDX-License-Identifier: MIT */
#include "table.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <errno.h>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

namespace {

constexpr char amount_counter[] = "amount";

std::string full_name(const table &of, const contender &row) {
    return of.title + "/" + row.name;
}

double seconds_of(const std::function<void()> &run) {
    const auto begin = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void repeat(benchmark::State &state, const contender &row) {
    const job work = row.make();
    for ([[maybe_unused]] auto _ : state) {
        if (work.prepare)
            work.prepare();
        if (work.amount) {
            const double time = seconds_of(
                [&] { state.counters[amount_counter] = benchmark::Counter(work.amount()); });
            state.SetIterationTime(time);
        } else {
            state.SetIterationTime(seconds_of(work.run));
        }
    }
}

/* Keeps every repetition's figure, by the benchmark's name. */
class collector : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context &) override { return true; }

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs)
            if (run.run_type == Run::RT_Iteration)
                take(run);
    }

    /* Sorted; empty where nothing was measured. */
    std::vector<double> figures(const std::string &name) const {
        const auto found = figures_.find(name);
        std::vector<double> all = found == figures_.end() ? std::vector<double>() : found->second;
        std::sort(all.begin(), all.end());
        return all;
    }

  private:
    void take(const Run &run) {
        const auto amount = run.counters.find(amount_counter);
        figures_[run.run_name.function_name].push_back(
            amount != run.counters.end()
                ? static_cast<double>(amount->second)
                : run.real_accumulated_time / static_cast<double>(run.iterations));
    }

    std::map<std::string, std::vector<double>> figures_;
};

double quantile(const std::vector<double> &sorted, double part) {
    const double place = part * static_cast<double>(sorted.size() - 1);
    const auto below = static_cast<std::size_t>(place);
    const std::size_t above = std::min(below + 1, sorted.size() - 1);
    return std::lerp(sorted[below], sorted[above], place - static_cast<double>(below));
}

std::string text_of(int digits, double value, const char *unit) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*g %s", digits, value, unit);
    return text;
}

std::string time_text(double seconds) {
    static constexpr std::pair<double, const char *> units[] = {
        {1, "s"}, {1e-3, "ms"}, {1e-6, "us"}, {1e-9, "ns"}};
    for (const auto &[size, unit] : units)
        if (seconds >= size)
            return text_of(3, seconds / size, unit);
    return text_of(3, seconds / 1e-9, "ns");
}

std::string figure_text(const table &of, double figure) {
    return of.unit.empty() ? time_text(figure) : text_of(6, figure, of.unit.c_str());
}

/* One contender as it is printed. */
struct row {
    std::string name;
    double bar = 0;
    double median = 0;
    double spread = 0; /* half the distance between the quartiles, as a part of the median */
};

std::vector<row> rows_of(const table &of, const collector &measured) {
    std::vector<row> rows;
    for (const contender &each : of.contenders) {
        std::vector<double> figures = measured.figures(full_name(of, each));
        if (figures.empty())
            continue;
        for (double &figure : figures)
            figure /= of.items;
        const double median = quantile(figures, 0.5);
        const double spread = (quantile(figures, 0.75) - quantile(figures, 0.25)) / 2 / median;
        rows.push_back({each.name, each.bar, median, spread});
    }
    return rows;
}

/* Returns whether the bar is held. */
bool print_row(const table &of, const row &each, double ours, bool compared) {
    std::printf("  %-46s %10s  +-%2.0f %%", each.name.c_str(), figure_text(of, each.median).c_str(),
                100 * each.spread);
    const double ratio = ours / each.median;
    const bool held = each.bar <= 0 || ratio <= each.bar;
    if (compared && each.bar > 0)
        std::printf("  x %-7.3g bar %-6.3g %s", ratio, each.bar, held ? "held" : "MISSED");
    else if (compared)
        std::printf("  x %-7.3g", ratio);
    std::printf("\n");
    return held;
}

/* Ratios need both sides; with a filter one of them may not have been measured. */
void print_table(const table &of, const collector &measured) {
    const std::vector<row> rows = rows_of(of, measured);
    if (rows.empty())
        return;
    const bool ours_measured = rows.front().name == of.contenders.front().name;
    std::printf("\n%s: median per %s, ratio of ours to each\n", of.title.c_str(), of.item.c_str());
    bool held = true;
    for (std::size_t i = 0; i < rows.size(); i++)
        held &= print_row(of, rows[i], rows.front().median, ours_measured && i > 0);
    if (!held && !of.floor.empty())
        std::printf("  limit: %s\n", of.floor.c_str());
}

} // namespace

int measure(int argc, char *argv[], std::vector<table> tables) {
    for (const table &of : tables)
        for (const contender &each : of.contenders) {
            auto *registered = benchmark::RegisterBenchmark(
                full_name(of, each).c_str(),
                [&each](benchmark::State &state) { repeat(state, each); });
            registered->UseManualTime();
            if (!of.unit.empty()) // an amount is one, however long it takes to find out
                registered->Iterations(1);
        }

    char interleaving[] = "--benchmark_enable_random_interleaving=true";
    char repetitions[] = "--benchmark_repetitions=11";
    char shortest[] = "--benchmark_min_time=0.05";
    std::vector<char *> arguments = {argv[0], interleaving, repetitions, shortest};
    arguments.insert(arguments.end(), argv + 1, argv + argc); // given ones come later and win
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 1;

    collector measured;
    if (benchmark::RunSpecifiedBenchmarks(&measured) == 0)
        return 1;
    for (const table &of : tables)
        print_table(of, measured);
    return 0;
}

void fail(const std::string &what) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    std::exit(1);
}

} // namespace bench

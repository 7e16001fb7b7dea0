// Prints each benchmark's best and median time, and the ratio of each to the floor measured in the same run. Wants
// benchmarks with repetitions and a statistic "min", in any order of running.
#ifndef KZ_BENCH_RATIO_REPORTER_H
#define KZ_BENCH_RATIO_REPORTER_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

// What a benchmark is compared with.
struct ratio_base_t {
    std::string floor; // name of the benchmark that is 1.00; empty: not compared
    std::string minus; // name of one whose time is taken off first, or empty
};

// Several short runs, of which the reporter takes the best and the median: the machine is never quite quiet.
inline benchmark::internal::Benchmark *take_best(benchmark::internal::Benchmark *pBenchmark) {
    constexpr int NUM_RUNS = 15;
    return pBenchmark->Repetitions(NUM_RUNS)->ComputeStatistics(
        "min", [](const std::vector<double> &values) { return *std::min_element(values.begin(), values.end()); });
}

class ratio_reporter_t : public benchmark::BenchmarkReporter {
  public:
    explicit ratio_reporter_t(std::map<std::string, ratio_base_t> compared) : bases(std::move(compared)) {
    }

    bool ReportContext(const Context &) override {
        return true;
    }

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            line_t &line = lines[run.run_name.function_name];
            line.order = run.family_index;
            if (run.aggregate_name == "min") {
                line.best = run.GetAdjustedRealTime();
                for (const auto &[name, counter] : run.counters)
                    line.counters += "   lowest " + name + " " + std::to_string(counter.value).substr(0, 4);
            } else if (run.aggregate_name == "median") {
                line.median = run.GetAdjustedRealTime();
            }
        }
    }

    void Finalize() override {
        std::vector<std::pair<std::string, line_t>> sorted(lines.begin(), lines.end());
        std::sort(sorted.begin(), sorted.end(),
                  [](const auto &a, const auto &b) { return a.second.order < b.second.order; });
        printf("%-40s %9s %7s %11s %7s\n", "ns", "best", "ratio", "median", "ratio");
        for (const auto &[name, line] : sorted)
            print(name, line);
        fflush(stdout);
    }

  private:
    struct line_t {
        int64_t order = 0; // of registration
        double best = 0;
        double median = 0;
        std::string counters;
    };

    void print(const std::string &name, const line_t &line) const {
        printf("%-40s %9.2f", name.c_str(), line.best);
        const auto base = bases.find(name);
        const auto floor = base != bases.end() ? lines.find(base->second.floor) : lines.end();
        if (floor == lines.end()) {
            printf(" %7s %11.2f %7s", "", line.median, "");
        } else {
            const auto minus = lines.find(base->second.minus);
            const line_t off = minus != lines.end() ? minus->second : line_t{};
            printf(" %7.2f %11.2f %7.2f", (line.best - off.best) / floor->second.best, line.median,
                   (line.median - off.median) / floor->second.median);
        }
        printf("%s\n", line.counters.c_str());
    }

    std::map<std::string, ratio_base_t> bases;
    std::map<std::string, line_t> lines;
};

#endif

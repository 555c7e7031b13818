// Ratios of paired benchmarks, printed after the run: the reporter keeps each
// benchmark's time per iteration and hands them to the program's printer.
#ifndef KERM_BENCH_RATIO_H
#define KERM_BENCH_RATIO_H

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kerm_bench {

using Times = std::map<std::string, double>;  // benchmark name -> ns per iteration

class RatioReporter : public benchmark::ConsoleReporter {
public:
    // cpu_time: ratios from CPU time instead of real time (steadier on shared hosts).
    RatioReporter(std::function<void(const Times &)> print, bool cpu_time)
        : print_(std::move(print)), cpu_(cpu_time) {}
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto &r : runs)
            if (r.run_type == Run::RT_Iteration)
                times_[r.benchmark_name()] = cpu_ ? r.GetAdjustedCPUTime() : r.GetAdjustedRealTime();
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        print_(times_);
    }

private:
    std::function<void(const Times &)> print_;
    bool cpu_;
    Times times_;
};

// The benchmark program's main: run everything, then print the ratios.
inline int run_with_ratios(int argc, char **argv, std::function<void(const Times &)> print, bool cpu_time) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter(std::move(print), cpu_time);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace kerm_bench

#endif

// Ratios of paired benchmarks, printed after the run: the reporter keeps one
// figure per benchmark and hands them to the program's printer, which prints
// its pairs with print_ratio so every bench's ratio lines read the same.
#ifndef KERM_BENCH_RATIO_H
#define KERM_BENCH_RATIO_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kerm_bench {

using Times = std::map<std::string, double>;  // benchmark name -> ns per iteration (or the chosen counter)

enum class Metric {
    RealTime,
    CpuTime,  // steadier than wall time on shared hosts, for single-threaded runs
    PerItem,  // ns per item where the run counts items (1e9 / items_per_second), CPU time otherwise
};

struct Options {
    Metric metric = Metric::RealTime;
    const char *counter = nullptr;  // keep this counter's value instead of a time; runs without it are skipped
    const char *cut_at = nullptr;   // the name ends before the first occurrence, e.g. "/iterations:"
    bool function_name = false;     // name as registered, without arguments or run options
    bool fastest = false;           // keep the fastest repetition and show no aggregates
};

struct Results {
    Times ns;      // the chosen figure
    Times cpu_ns;  // CPU time of the runs the library timed (none for manual time)
    std::map<std::string, benchmark::UserCounters> counters;
};

using Printer = std::function<void(const Results &)>;

class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter(Printer print, Options opt) : print_(std::move(print)), opt_(opt) {}

    void ReportRuns(const std::vector<Run> &runs) override {
        std::vector<Run> shown;
        for (const auto &r : runs) {
            if (opt_.fastest && r.run_type != Run::RT_Iteration) continue;
            shown.push_back(r);
            if (r.run_type == Run::RT_Iteration && !r.error_occurred) record(r);
        }
        ConsoleReporter::ReportRuns(shown);
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        print_(results_);
    }

private:
    void record(const Run &r) {
        std::string name = opt_.function_name ? r.run_name.function_name : r.benchmark_name();
        if (opt_.cut_at != nullptr) name = name.substr(0, name.find(opt_.cut_at));
        // Times in the run's display unit; ratios and lines want one unit.
        const double to_ns = 1e9 / benchmark::GetTimeUnitMultiplier(r.time_unit);
        const double cpu = r.GetAdjustedCPUTime() * to_ns;
        double v;
        auto items = r.counters.find("items_per_second");
        if (opt_.counter != nullptr) {
            auto c = r.counters.find(opt_.counter);
            if (c == r.counters.end()) return;
            v = c->second.value;
        } else if (opt_.metric == Metric::CpuTime) {
            v = cpu;
        } else if (opt_.metric == Metric::PerItem) {
            v = items != r.counters.end() && items->second.value > 0 ? 1e9 / items->second.value : cpu;
        } else {
            v = r.GetAdjustedRealTime() * to_ns;
        }
        auto old = results_.ns.find(name);
        if (opt_.fastest && old != results_.ns.end() && old->second <= v) return;
        results_.ns[name] = v;
        if (r.benchmark_name().find("manual_time") == std::string::npos) results_.cpu_ns[name] = cpu;
        results_.counters[name] = r.counters;
    }

    Printer print_;
    Options opt_;
    Results results_;
};

// The benchmark program's main: run everything, then print the ratios.
inline int run_with_ratios(int argc, char **argv, Printer print, Options opt = {}) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter(std::move(print), opt);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

inline std::string format_ns(double ns) {
    char buf[32];
    if (ns < 10)
        snprintf(buf, sizeof buf, "%.2f ns", ns);
    else if (ns < 1e4)
        snprintf(buf, sizeof buf, "%.1f ns", ns);
    else if (ns < 1e7)
        snprintf(buf, sizeof buf, "%.1f us", ns / 1e3);
    else
        snprintf(buf, sizeof buf, "%.2f ms", ns / 1e6);
    return buf;
}

namespace detail {
inline bool pair_of(const Times &t, const std::string &a, const std::string &b) {
    auto ia = t.find(a), ib = t.find(b);
    return ia != t.end() && ib != t.end() && ia->second > 0 && ib->second > 0;
}
inline void line(const std::string &label, const char *what, double ratio, double ours, double theirs,
                 const char *per) {
    printf("ratio %-44s %s = %6.2f (%s vs %s%s%s)\n", label.c_str(), what, ratio, format_ns(ours).c_str(),
           format_ns(theirs).c_str(), per != nullptr ? " per " : "", per != nullptr ? per : "");
}
}  // namespace detail

// "ratio <label> kerm/peer = ours/theirs (times)": above 1 we are slower.
// Times shown divided by per_n, e.g. per key ("key", n); no line when either
// side did not run.
inline void print_ratio(const Times &t, const std::string &ours, const std::string &theirs, const std::string &label,
                        const char *per = nullptr, double per_n = 1) {
    if (!detail::pair_of(t, ours, theirs)) return;
    detail::line(label, "kerm/peer", t.at(ours) / t.at(theirs), t.at(ours) / per_n, t.at(theirs) / per_n, per);
}

// Same from times, as a speed ratio: theirs/ours, above 1 we are faster.
inline void print_speed_ratio(const Times &t, const std::string &ours, const std::string &theirs,
                              const std::string &label) {
    if (!detail::pair_of(t, ours, theirs)) return;
    detail::line(label, "kerm speed/peer", t.at(theirs) / t.at(ours), t.at(ours), t.at(theirs), nullptr);
}

}  // namespace kerm_bench

#endif

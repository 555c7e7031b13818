// The memory pool beside general-purpose allocators in the same run. A
// real-time allocator is judged by its worst case, so besides throughput
// every operation is timed on its own: median, p99, p99.99 and maximum.
//
// Workloads (fixed seed, sizes 8..4096 bytes, 1024 slots): "malloc+free"
// frees an occupied slot or fills an empty one; "realloc" resizes a slot.
// Allocators: malloc_ex/free_ex on an explicit pool, tlsf_* on the default
// pool (lock included), glibc (__libc_*, as jemalloc and mimalloc replace
// malloc in this program), jemalloc's mallocx on an arena of its own,
// mimalloc's mi_heap_*.
//
// After the benchmarks: one table with ratios to glibc, and the latency
// distributions as mempool_latency.dat / .png beside this program.
#include <benchmark/benchmark.h>
#include <jemalloc/jemalloc.h>
#include <mimalloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench_ratio.h"
#include "kerm_mempool.h"

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

extern "C" {
void *__libc_malloc(size_t);
void __libc_free(void *);
void *__libc_realloc(void *, size_t);
}

namespace {

constexpr size_t kSlots = 1024;
constexpr size_t kOps = size_t{1} << 20;  // per workload and allocator
constexpr size_t kPoolBytes = 32u << 20;

struct Allocator {
    const char *name;
    void *(*alloc)(size_t);
    void (*release)(void *);
    void *(*resize)(void *, size_t);
};

void *g_pool;
unsigned g_je_arena;
mi_heap_t *g_mi_heap;

const Allocator kAllocators[] = {
    {"malloc_ex", [](size_t n) { return malloc_ex(n, g_pool); }, [](void *p) { free_ex(p, g_pool); },
     [](void *p, size_t n) { return realloc_ex(p, n, g_pool); }},
    {"tlsf_*", tlsf_malloc, tlsf_free, tlsf_realloc},
    {"glibc", __libc_malloc, __libc_free, __libc_realloc},
    {"jemalloc", [](size_t n) { return mallocx(n, MALLOCX_ARENA(g_je_arena)); }, [](void *p) { dallocx(p, 0); },
     [](void *p, size_t n) { return p ? rallocx(p, n, MALLOCX_ARENA(g_je_arena)) : mallocx(n, MALLOCX_ARENA(g_je_arena)); }},
    {"mimalloc", [](size_t n) { return mi_heap_malloc(g_mi_heap, n); }, mi_free,
     [](void *p, size_t n) { return mi_heap_realloc(g_mi_heap, p, n); }},
};

// Cycle counter where there is one (calibrated to ns), else the steady clock.
double g_ns_per_tick = 1.0;
inline uint64_t ticks() {
#if defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#else
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + ts.tv_nsec;
#endif
}
uint64_t now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + ts.tv_nsec;
}
void calibrate() {
    const uint64_t n0 = now_ns(), t0 = ticks();
    while (now_ns() - n0 < 50000000) {
    }
    g_ns_per_tick = double(now_ns() - n0) / double(ticks() - t0);
}

enum Workload { kMallocFree, kRealloc };
const char *const kWorkloadName[] = {"malloc+free", "realloc"};

// A workload's state: the slots and the size sequence, so that a pass can be
// run in chunks.
struct Pass {
    const Allocator &a;
    Workload w;
    std::mt19937 rng{2026};
    std::uniform_int_distribution<size_t> size{8, 4096};
    std::vector<void *> slot = std::vector<void *>(kSlots, nullptr);
    size_t done = 0;

    Pass(const Allocator &alloc, Workload wl) : a(alloc), w(wl) {
        if (w == kRealloc)
            for (auto &s : slot) s = a.alloc(size(rng));
    }
    ~Pass() {
        for (void *s : slot)
            if (s != nullptr) a.release(s);
    }

    // `count` operations; when `lat` is given, each operation's ticks.
    void run(size_t count, uint32_t *lat) {
        for (size_t i = 0; i < count; ++i, ++done) {
            void *&s = slot[rng() % kSlots];
            const size_t n = size(rng);
            const uint64_t t0 = lat ? ticks() : 0;
            if (w == kRealloc) {
                s = a.resize(s, n);
            } else if (s != nullptr) {
                a.release(s);
                s = nullptr;
            } else {
                s = a.alloc(n);
            }
            if (lat) lat[i] = uint32_t(std::min<uint64_t>(ticks() - t0, UINT32_MAX));
            if (s == nullptr && w == kRealloc) abort();
            if (s != nullptr) static_cast<char *>(s)[0] = char(done);  // the caller touches what it gets
        }
    }
};

void BM_throughput(benchmark::State &state, const Allocator *a, Workload w) {
    for (auto _ : state) Pass(*a, w).run(kOps, nullptr);
    state.SetItemsProcessed(int64_t(state.iterations()) * kOps);
}

struct Row {
    double median, p99, p9999, max, mops;
};
std::map<std::string, Row> g_rows;  // "workload/allocator"
std::map<std::string, std::vector<uint32_t>> g_samples;

std::string key(Workload w, const Allocator &a) { return std::string(kWorkloadName[w]) + "/" + a.name; }

// Per-operation latencies of every allocator, measured in chunks taken in
// turn, so that a noisy moment on the machine falls on all of them alike.
void measure_latency(Workload w) {
    constexpr size_t kChunk = 4096;
    std::vector<std::unique_ptr<Pass>> passes;
    std::vector<std::vector<uint32_t>> lat;
    for (const Allocator &a : kAllocators) {
        Pass(a, w).run(kOps, nullptr);  // warm: pages touched, caches filled
        passes.push_back(std::make_unique<Pass>(a, w));
        lat.emplace_back(kOps);
    }
    for (size_t at = 0; at < kOps; at += kChunk)
        for (size_t i = 0; i < passes.size(); ++i) passes[i]->run(kChunk, lat[i].data() + at);
    for (size_t i = 0; i < passes.size(); ++i) {
        std::vector<uint32_t> &sorted = lat[i];
        std::sort(sorted.begin(), sorted.end());
        auto at = [&](double q) { return sorted[std::min(sorted.size() - 1, size_t(q * sorted.size()))] * g_ns_per_tick; };
        Row &row = g_rows[key(w, kAllocators[i])];
        row.median = at(0.5);
        row.p99 = at(0.99);
        row.p9999 = at(0.9999);
        row.max = sorted.back() * g_ns_per_tick;
        g_samples[key(w, kAllocators[i])] = std::move(sorted);
    }
}

std::string self_dir() {
    char buf[4096];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return ".";
    buf[n] = '\0';
    std::string s(buf);
    return s.substr(0, s.rfind('/'));
}

// Complementary distribution per allocator: share of operations slower than x ns.
void write_plot() {
    const std::string dir = self_dir(), dat = dir + "/mempool_latency.dat", png = dir + "/mempool_latency.png";
    FILE *f = fopen(dat.c_str(), "w");
    if (f == nullptr) return;
    for (int w = 0; w < 2; ++w)
        for (const Allocator &a : kAllocators) {
            const auto &s = g_samples[key(Workload(w), a)];
            fprintf(f, "# %s\n", key(Workload(w), a).c_str());
            for (size_t i = 0; i < s.size(); i += std::max<size_t>(1, (s.size() - i) / 400)) {
                fprintf(f, "%.1f %.3g\n", s[i] * g_ns_per_tick, double(s.size() - i) / s.size());
            }
            fprintf(f, "%.1f %.3g\n\n\n", s.back() * g_ns_per_tick, 1.0 / s.size());
        }
    fclose(f);
#ifdef KERM_BENCH_GNUPLOT
    std::string script = "set terminal png size 1100,480 font ',10' noenhanced\nset output '" + png +
                         "'\nset multiplot layout 1,2\nset logscale xy\nset format y '1e%L'\nset format x '%g'\n"
                         "set xlabel 'latency per operation (ns)'\nset ylabel 'share of operations slower'\n"
                         "set grid\nset key top right\n";
    int index = 0;
    for (int w = 0; w < 2; ++w) {
        script += std::string("set title '") + kWorkloadName[w] + ", sizes 8..4096, 1M operations each'\nplot ";
        for (size_t i = 0; i < std::size(kAllocators); ++i, ++index)
            script += (i ? ", " : "") + std::string("'") + dat + "' index " + std::to_string(index) +
                      " with steps lw 2 title '" + kAllocators[i].name + "'";
        script += "\n";
    }
    script += "unset multiplot\n";
    FILE *gp = popen(KERM_BENCH_GNUPLOT " 2>/dev/null", "w");
    if (gp != nullptr) {
        fputs(script.c_str(), gp);
        if (pclose(gp) == 0) printf("latency plot: %s\n", png.c_str());
    }
#endif
}

void print_table() {
    printf("\n%-12s %-10s %9s %9s %9s %10s %8s | vs glibc: %6s %6s %6s %6s\n", "workload", "allocator", "median",
           "p99", "p99.99", "max", "Mops/s", "median", "p99.99", "max", "Mops/s");
    for (int w = 0; w < 2; ++w) {
        const Row &g = g_rows[std::string(kWorkloadName[w]) + "/glibc"];
        for (const Allocator &a : kAllocators) {
            const Row &r = g_rows[key(Workload(w), a)];
            printf("%-12s %-10s %7.1fns %7.0fns %7.0fns %8.0fns %8.1f | %16.2f %6.2f %6.2f %6.2f\n", kWorkloadName[w],
                   a.name, r.median, r.p99, r.p9999, r.max, r.mops, r.median / g.median, r.p9999 / g.p9999,
                   r.max / g.max, r.mops / g.mops);
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    static std::vector<uint8_t> explicit_pool(kPoolBytes), default_pool(kPoolBytes);
    g_pool = explicit_pool.data();
    // The region initialised last is the default pool.
    init_memory_pool(explicit_pool.size(), explicit_pool.data());
    init_memory_pool(default_pool.size(), default_pool.data());
    size_t sz = sizeof g_je_arena;
    if (mallctl("arenas.create", &g_je_arena, &sz, nullptr, 0) != 0) {
        fprintf(stderr, "jemalloc: no arena\n");
        return 1;
    }
    g_mi_heap = mi_heap_new();
    calibrate();

    for (int w = 0; w < 2; ++w)
        for (const Allocator &a : kAllocators)
            benchmark::RegisterBenchmark(("BM_" + key(Workload(w), a)).c_str(), BM_throughput, &a, Workload(w))
                ->Unit(benchmark::kMillisecond)
                ->Iterations(4);
    // After the throughput runs: the latency pass, then the table and plot.
    auto after = [](const kerm_bench::Results &r) {
        for (const auto &[name, items_per_second] : r.ns) g_rows[name.substr(3)].mops = items_per_second / 1e6;
        for (int w = 0; w < 2; ++w) measure_latency(Workload(w));
        print_table();
        write_plot();
    };
    return kerm_bench::run_with_ratios(argc, argv, after, {.counter = "items_per_second", .function_name = true});
}

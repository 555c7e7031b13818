// The memory pool beside general-purpose allocators in the same run. A
// real-time allocator is judged by its worst case, so besides throughput
// every operation is timed on its own: median, p99, p99.99 and maximum.
//
// Workloads (fixed seed, sizes 8..4096 bytes, 1024 slots): "malloc+free"
// frees an occupied slot or fills an empty one; "realloc" resizes a slot.
// Allocators: malloc_ex/free_ex on an explicit pool, tlsf_* on the default
// pool (lock included), glibc, jemalloc's mallocx on an arena of its own,
// mimalloc's mi_heap_*. jemalloc and mimalloc both replace malloc in this
// program (mimalloc even defines __libc_malloc), so glibc's entry points are
// taken from libc.so.6's own symbol table.
//
// Tails on a shared host: every allocator runs the same operation sequence
// in several rounds, each from an empty heap and opened by untimed
// operations that bring it to its steady state; an operation's latency is
// its lowest over the rounds. An interrupt, a preemption or a neighbour's
// cache traffic rarely hits the same operation in every round, so it drops
// out; what the allocator does itself on that operation (a system call, a
// page fault, a long search) happens in every round and stays.
//
// Printed after the benchmarks: the table as markdown rows, the ratios to
// glibc and the targets; the latency distributions go to
// mempool_latency.dat / .png beside this program.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <gnu/lib-names.h>
#include <jemalloc/jemalloc.h>
#include <mimalloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench_ratio.h"
#include "kerm_mempool.h"

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace {

constexpr size_t kSlots = 1024;
constexpr size_t kOps = size_t{1} << 20;     // timed, per workload and allocator
constexpr size_t kSettle = size_t{1} << 14;  // untimed, opening each round
constexpr int kRounds = 5;
constexpr size_t kChunk = 4096;
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
struct {
    void *(*malloc)(size_t);
    void (*free)(void *);
    void *(*realloc)(void *, size_t);
} g_libc;

const Allocator kAllocators[] = {
    {"malloc_ex", [](size_t n) { return malloc_ex(n, g_pool); }, [](void *p) { free_ex(p, g_pool); },
     [](void *p, size_t n) { return realloc_ex(p, n, g_pool); }},
    {"tlsf_*", tlsf_malloc, tlsf_free, tlsf_realloc},
    {"glibc", [](size_t n) { return g_libc.malloc(n); }, [](void *p) { g_libc.free(p); },
     [](void *p, size_t n) { return g_libc.realloc(p, n); }},
    {"jemalloc", [](size_t n) { return mallocx(n, MALLOCX_ARENA(g_je_arena)); }, [](void *p) { dallocx(p, 0); },
     [](void *p, size_t n) { return p ? rallocx(p, n, MALLOCX_ARENA(g_je_arena)) : mallocx(n, MALLOCX_ARENA(g_je_arena)); }},
    {"mimalloc", [](size_t n) { return mi_heap_malloc(g_mi_heap, n); }, mi_free,
     [](void *p, size_t n) { return mi_heap_realloc(g_mi_heap, p, n); }},
};
constexpr size_t kCount = std::size(kAllocators);
constexpr size_t kGlibc = 2;

bool bind_glibc() {
    void *libc = dlopen(LIBC_SO, RTLD_NOW | RTLD_NOLOAD);
    if (libc == nullptr) return false;
    g_libc.malloc = reinterpret_cast<void *(*)(size_t)>(dlsym(libc, "malloc"));
    g_libc.free = reinterpret_cast<void (*)(void *)>(dlsym(libc, "free"));
    g_libc.realloc = reinterpret_cast<void *(*)(void *, size_t)>(dlsym(libc, "realloc"));
    Dl_info where{};
    return g_libc.malloc && g_libc.free && g_libc.realloc && dladdr(reinterpret_cast<void *>(g_libc.malloc), &where) &&
           strstr(where.dli_fname, LIBC_SO) != nullptr;
}

// A real-time program's pool region: page-aligned, every page faulted in
// and, where the process may, locked in memory.
void *rt_region(size_t bytes, bool *locked) {
    void *p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return nullptr;
    memset(p, 0, bytes);
    *locked = mlock(p, bytes) == 0;
    return p;
}

// Cycle counter where there is one (calibrated to ns), else the steady
// clock. The fences keep the operation inside the window and the harness's
// own work outside it.
double g_ns_per_tick = 1.0;
inline uint64_t tick_start() {
#if defined(__x86_64__) || defined(__i386__)
    _mm_lfence();
    const uint64_t t = __rdtsc();
    _mm_lfence();
    return t;
#else
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + ts.tv_nsec;
#endif
}
inline uint64_t tick_stop() {
#if defined(__x86_64__) || defined(__i386__)
    unsigned aux;
    const uint64_t t = __rdtscp(&aux);
    _mm_lfence();
    return t;
#else
    return tick_start();
#endif
}
uint64_t now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + ts.tv_nsec;
}
void calibrate() {
    const uint64_t n0 = now_ns(), t0 = tick_start();
    while (now_ns() - n0 < 50000000) {
    }
    g_ns_per_tick = double(now_ns() - n0) / double(tick_stop() - t0);
}

enum Workload { kMallocFree, kRealloc };
const char *const kWorkloadName[] = {"malloc+free", "realloc"};

// A workload's state: the slots and the size sequence, so that a round can
// be run in chunks. Same seed, same operations.
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

    // `count` operations; when `best` is given, each operation's ticks lower
    // its entry there.
    void run(size_t count, uint32_t *best) {
        for (size_t i = 0; i < count; ++i, ++done) {
            void *&s = slot[rng() % kSlots];
            const size_t n = size(rng);
            const uint64_t t0 = best ? tick_start() : 0;
            if (w == kRealloc) {
                s = a.resize(s, n);
            } else if (s != nullptr) {
                a.release(s);
                s = nullptr;
            } else {
                s = a.alloc(n);
            }
            if (best) best[i] = uint32_t(std::min<uint64_t>({tick_stop() - t0, best[i], UINT32_MAX}));
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
Row g_rows[2][kCount];
std::vector<uint32_t> g_best[2][kCount];  // per operation, sorted once measured

// Per-operation latencies of every allocator, best of kRounds; within a
// round the allocators take chunks in turn, so that a noisy moment on the
// machine falls on all of them alike.
void measure_latency(Workload w) {
    for (size_t i = 0; i < kCount; ++i) {
        Pass(kAllocators[i], w).run(kOps, nullptr);  // warm: code, pages, the allocator's own caches
        g_best[w][i].assign(kOps, UINT32_MAX);
    }
    for (int round = 0; round < kRounds; ++round) {
        std::vector<std::unique_ptr<Pass>> passes;
        for (const Allocator &a : kAllocators) {
            passes.push_back(std::make_unique<Pass>(a, w));
            passes.back()->run(kSettle, nullptr);
        }
        for (size_t at = 0; at < kOps; at += kChunk)
            for (size_t i = 0; i < kCount; ++i) passes[i]->run(kChunk, g_best[w][i].data() + at);
    }
    for (size_t i = 0; i < kCount; ++i) {
        std::vector<uint32_t> &sorted = g_best[w][i];
        std::sort(sorted.begin(), sorted.end());
        auto at = [&](double q) { return sorted[std::min(sorted.size() - 1, size_t(q * sorted.size()))] * g_ns_per_tick; };
        Row &row = g_rows[w][i];
        row.median = at(0.5);
        row.p99 = at(0.99);
        row.p9999 = at(0.9999);
        row.max = sorted.back() * g_ns_per_tick;
    }
}

// Median of an empty timed window: the timer's own share of every figure.
double timer_cost_ns() {
    std::vector<uint32_t> t(1 << 16);
    for (auto &x : t) {
        const uint64_t t0 = tick_start();
        x = uint32_t(tick_stop() - t0);
    }
    std::nth_element(t.begin(), t.begin() + t.size() / 2, t.end());
    return t[t.size() / 2] * g_ns_per_tick;
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
        for (size_t a = 0; a < kCount; ++a) {
            const auto &s = g_best[w][a];
            fprintf(f, "# %s/%s\n", kWorkloadName[w], kAllocators[a].name);
            for (size_t i = 0; i < s.size(); i += std::max<size_t>(1, (s.size() - i) / 400))
                fprintf(f, "%.1f %.3g\n", s[i] * g_ns_per_tick, double(s.size() - i) / s.size());
            fprintf(f, "%.1f %.3g\n\n\n", s.back() * g_ns_per_tick, 1.0 / s.size());
        }
    fclose(f);
#ifdef KERM_BENCH_GNUPLOT
    std::string script = "set terminal png size 1100,480 font ',10' noenhanced\nset output '" + png +
                         "'\nset multiplot layout 1,2\nset logscale xy\nset format y '1e%L'\nset format x '%g'\n"
                         "set xlabel 'latency per operation (ns), best of " + std::to_string(kRounds) +
                         " rounds'\nset ylabel 'share of operations slower'\nset grid\nset key top right\n";
    int index = 0;
    for (int w = 0; w < 2; ++w) {
        script += std::string("set title '") + kWorkloadName[w] + ", sizes 8..4096, 2^20 operations each'\nplot ";
        for (size_t i = 0; i < kCount; ++i, ++index)
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

std::string ns(double v) {
    char buf[32];
    snprintf(buf, sizeof buf, v < 100 ? "%.1f ns" : v < 1e4 ? "%.0f ns" : "%.1f us", v < 1e4 ? v : v / 1e3);
    return buf;
}

// The README's table as it stands, then the targets: median of malloc_ex no
// slower than glibc's; p99.99 and maximum the lowest of the pool, glibc,
// jemalloc and mimalloc (tlsf_* is the pool again, with its lock).
void print_table() {
    printf("\n| workload | allocator | median | p99 | p99.99 | max | Mops/s | median vs glibc | p99.99 vs glibc | max vs glibc |\n"
           "|---|---|---|---|---|---|---|---|---|---|\n");
    for (int w = 0; w < 2; ++w) {
        const Row &g = g_rows[w][kGlibc];
        for (size_t i = 0; i < kCount; ++i) {
            const Row &r = g_rows[w][i];
            printf("| %s | `%s` | %s | %s | %s | %s | %.1f | %.2f | %.2f | %.2f |\n", kWorkloadName[w],
                   kAllocators[i].name, ns(r.median).c_str(), ns(r.p99).c_str(), ns(r.p9999).c_str(),
                   ns(r.max).c_str(), r.mops, r.median / g.median, r.p9999 / g.p9999, r.max / g.max);
        }
    }
    printf("\n");
    for (int w = 0; w < 2; ++w) {
        const Row &pool = g_rows[w][0], &g = g_rows[w][kGlibc];
        bool tail = true, top = true;
        for (size_t i = kGlibc; i < kCount; ++i) {
            tail = tail && pool.p9999 <= g_rows[w][i].p9999;
            top = top && pool.max <= g_rows[w][i].max;
        }
        printf("target %-11s median malloc_ex <= glibc: %s (%.2f); p99.99 lowest: %s; max lowest: %s\n",
               kWorkloadName[w], pool.median <= g.median ? "met" : "NOT met", pool.median / g.median,
               tail ? "met" : "NOT met", top ? "met" : "NOT met");
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (!bind_glibc()) {
        fprintf(stderr, "glibc's malloc not found in %s\n", LIBC_SO);
        return 1;
    }
    bool locked[2];
    void *explicit_pool = rt_region(kPoolBytes, &locked[0]), *default_pool = rt_region(kPoolBytes, &locked[1]);
    if (explicit_pool == nullptr || default_pool == nullptr) return 1;
    g_pool = explicit_pool;
    // The region initialised last is the default pool.
    init_memory_pool(kPoolBytes, explicit_pool);
    init_memory_pool(kPoolBytes, default_pool);
    size_t sz = sizeof g_je_arena;
    if (mallctl("arenas.create", &g_je_arena, &sz, nullptr, 0) != 0) {
        fprintf(stderr, "jemalloc: no arena\n");
        return 1;
    }
    g_mi_heap = mi_heap_new();
    calibrate();

    for (int w = 0; w < 2; ++w)
        for (const Allocator &a : kAllocators)
            benchmark::RegisterBenchmark((std::string("BM_") + kWorkloadName[w] + "/" + a.name).c_str(), BM_throughput,
                                         &a, Workload(w))
                ->Unit(benchmark::kMillisecond)
                ->Iterations(4);
    // After the throughput runs: the latency rounds, then the table and plot.
    auto after = [&](const kerm_bench::Results &r) {
        for (int w = 0; w < 2; ++w)
            for (size_t i = 0; i < kCount; ++i) {
                auto it = r.ns.find(std::string("BM_") + kWorkloadName[w] + "/" + kAllocators[i].name);
                g_rows[w][i].mops = it != r.ns.end() ? it->second / 1e6 : 0;
            }
        for (int w = 0; w < 2; ++w) measure_latency(Workload(w));
        printf("\nper-operation latency: best of %d rounds of %zu operations (after %zu untimed) per allocator; "
               "timer %.1f ns included; pool regions %s\n",
               kRounds, kOps, kSettle, timer_cost_ns(), locked[0] && locked[1] ? "pre-faulted and locked" : "pre-faulted (mlock refused)");
        print_table();
        write_plot();
    };
    return kerm_bench::run_with_ratios(argc, argv, after, {.counter = "items_per_second", .function_name = true});
}

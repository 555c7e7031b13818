// Hash table beside two mutex-wrapped peers (std::unordered_map + std::mutex,
// absl::flat_hash_map + absl::Mutex): set, get hit, get miss and delete with
// 16- and 64-byte keys, at 10^3 and large_n() (10^6) items, on 1 and 2
// threads. Peers take the prebuilt std::string keys (no allocation in their
// lookups); the library takes pointer and length.
// Small tables: set fills fresh tables, delete empties loaded ones.
// Large tables are built once per key length and kept: each iteration works
// on a slice of kOpsPerIteration keys spread over the table (set puts the
// slice back after an untimed removal, delete removes it and the table is
// refilled untimed), and gets probe the same slice, in a random order.
// Only the threads' work is timed (manual time); every variant does the same
// number of operations, so times compare directly.
// Then the tagged list's walk by increasing position beside std::list with
// std::next from the front.
#include <absl/container/flat_hash_map.h>
#include <absl/synchronization/mutex.h>
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bench_ratio.h"
#include "kerm_ht.h"
#include "kerm_list.h"

namespace {

// ---- the three tables behind one small interface ----

struct Kerm {
    util_ht_t *t = util_ht_create(0, 0, nullptr);
    ~Kerm() { util_ht_destroy(t); }
    void set(const std::string &k, void *v) { util_ht_set(t, k.data(), uint32_t(k.size()), v, sizeof(void *)); }
    void *get(const std::string &k) { return util_ht_get(t, k.data(), uint32_t(k.size()), nullptr); }
    void del(const std::string &k) { util_ht_delete(t, k.data(), uint32_t(k.size()), nullptr, nullptr); }
};

struct StdPeer {
    std::mutex m;
    std::unordered_map<std::string, void *> map;
    void set(const std::string &k, void *v) {
        std::lock_guard<std::mutex> g(m);
        map.insert_or_assign(k, v);
    }
    void *get(const std::string &k) {
        std::lock_guard<std::mutex> g(m);
        auto it = map.find(k);
        return it == map.end() ? nullptr : it->second;
    }
    void del(const std::string &k) {
        std::lock_guard<std::mutex> g(m);
        map.erase(k);
    }
};

struct AbslPeer {
    absl::Mutex m;
    absl::flat_hash_map<std::string, void *> map;
    void set(const std::string &k, void *v) {
        absl::MutexLock g(&m);
        map.insert_or_assign(k, v);
    }
    void *get(const std::string &k) {
        absl::MutexLock g(&m);
        auto it = map.find(k);
        return it == map.end() ? nullptr : it->second;
    }
    void del(const std::string &k) {
        absl::MutexLock g(&m);
        map.erase(k);
    }
};

// Keys of one length: "hit" keys go into the table, "miss" keys never do.
const std::vector<std::string> &keys(size_t len, size_t n, bool miss) {
    static std::map<std::tuple<size_t, size_t, bool>, std::vector<std::string>> cache;
    auto &v = cache[{len, n, miss}];
    if (v.empty()) {
        v.reserve(n);
        for (size_t i = 0; i < n; ++i) {
            std::string k = (miss ? "miss:" : "item:") + std::to_string(i * 2654435761u % 1000000007u) + ":";
            k.resize(len, static_cast<char>('a' + i % 26));
            v.push_back(std::move(k));
        }
    }
    return v;
}

// Runs body(thread, first, last) on `threads` threads over [0, n) split in
// equal parts, started together; returns the seconds from start to the last join.
double timed(int threads, size_t n, const std::function<void(size_t, size_t)> &body) {
    std::atomic<bool> go{false};
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        size_t first = n * t / threads, last = n * (t + 1) / threads;
        pool.emplace_back([&, first, last] {
            while (!go.load(std::memory_order_acquire)) {
            }
            body(first, last);
        });
    }
    auto t0 = std::chrono::steady_clock::now();
    go.store(true, std::memory_order_release);
    for (auto &th : pool) th.join();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

enum Op { kSet, kGetHit, kGetMiss, kDelete };
const char *const kOpNames[] = {"set", "get_hit", "get_miss", "delete"};
constexpr size_t kOpsPerIteration = 100000;  // small tables repeat their work up to this

size_t large_n() {
    const char *env = getenv("KERM_BENCH_LARGE");
    return env != nullptr && atol(env) > 0 ? size_t(atol(env)) : 1000000;
}

int g_value;

// The loaded large table of this kind, kept from one benchmark to the next
// while the key length stays (the benchmarks run in registration order).
template <typename Table>
Table &large_table(size_t klen, size_t n) {
    static std::unique_ptr<Table> table;
    static size_t built_klen, built_n;
    if (table == nullptr || built_klen != klen || built_n != n) {
        table.reset();
        table = std::make_unique<Table>();
        for (auto &k : keys(klen, n, false)) table->set(k, &g_value);
        built_klen = klen;
        built_n = n;
    }
    return *table;
}

// The keys a large-table iteration works on: every (n / kOpsPerIteration)-th
// one, in a fixed random order. Walking them in insertion order would favour
// tables whose memory follows the insertion order (each next key's node a
// few hundred bytes further on) over ones whose buckets do not.
const std::vector<size_t> &slice_order(size_t n) {
    static std::map<size_t, std::vector<size_t>> cache;
    auto &v = cache[n];
    if (v.empty()) {
        for (size_t i = 0; i < kOpsPerIteration; ++i) v.push_back(i * (n / kOpsPerIteration));
        std::shuffle(v.begin(), v.end(), std::mt19937(12345));
    }
    return v;
}

template <typename Table>
void BM_ht(benchmark::State &state, Op op, size_t klen, size_t n, int threads) {
    const auto &hit = keys(klen, n, false);
    const auto &miss = keys(klen, n, true);
    const auto &probe = op == kGetMiss ? miss : hit;
    void *value = &g_value;
    if (n >= kOpsPerIteration) {
        Table &t = large_table<Table>(klen, n);
        const std::vector<size_t> &order = slice_order(n);
        auto slice = [&](size_t i) -> const std::string & { return probe[order[i]]; };
        for (auto _ : state) {
            if (op == kSet)
                for (size_t i = 0; i < kOpsPerIteration; ++i) t.del(slice(i));
            double secs = timed(threads, kOpsPerIteration, [&](size_t first, size_t last) {
                for (size_t i = first; i < last; ++i) {
                    if (op == kSet)
                        t.set(slice(i), value);
                    else if (op == kDelete)
                        t.del(slice(i));
                    else
                        benchmark::DoNotOptimize(t.get(slice(i)));
                }
            });
            if (op == kDelete)
                for (size_t i = 0; i < kOpsPerIteration; ++i) t.set(slice(i), value);
            state.SetIterationTime(secs);
        }
        state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(kOpsPerIteration));
        return;
    }
    size_t rounds = kOpsPerIteration / n;
    // Lookups share one loaded table across iterations.
    std::unique_ptr<Table> loaded;
    if (op == kGetHit || op == kGetMiss) {
        loaded = std::make_unique<Table>();
        for (auto &k : hit) loaded->set(k, value);
    }
    for (auto _ : state) {
        double secs = 0;
        if (op == kGetHit || op == kGetMiss) {
            Table *t = loaded.get();
            secs = timed(threads, n, [&](size_t first, size_t last) {
                for (size_t r = 0; r < rounds; ++r)
                    for (size_t i = first; i < last; ++i) benchmark::DoNotOptimize(t->get(probe[i]));
            });
        } else {
            // A row of fresh tables, each thread going through all of them,
            // so one timed run holds enough work.
            std::vector<std::unique_ptr<Table>> tables;
            for (size_t r = 0; r < rounds; ++r) {
                tables.push_back(std::make_unique<Table>());
                if (op == kDelete)
                    for (auto &k : hit) tables.back()->set(k, value);
            }
            secs = timed(threads, n, [&](size_t first, size_t last) {
                for (auto &t : tables)
                    if (op == kSet)
                        for (size_t i = first; i < last; ++i) t->set(hit[i], value);
                    else
                        for (size_t i = first; i < last; ++i) t->del(hit[i]);
            });
        }
        state.SetIterationTime(secs);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(n * rounds));
}

// ---- list walks by increasing position ----

void BM_list_walk_kerm(benchmark::State &state) {
    auto n = static_cast<uint32_t>(state.range(0));
    list_t *l = list_create();
    for (uint32_t i = 0; i < n; ++i) list_push_value(l, reinterpret_cast<void *>(uintptr_t(i) + 1));
    for (auto _ : state)
        for (uint32_t i = 0; i < n; ++i) benchmark::DoNotOptimize(list_pick_value(l, i));
    state.SetItemsProcessed(int64_t(state.iterations()) * n);
    list_destroy(l);
}

void BM_list_walk_peer(benchmark::State &state) {
    auto n = static_cast<size_t>(state.range(0));
    std::list<void *> l;
    for (size_t i = 0; i < n; ++i) l.push_back(reinterpret_cast<void *>(uintptr_t(i) + 1));
    for (auto _ : state)
        for (size_t i = 0; i < n; ++i) benchmark::DoNotOptimize(*std::next(l.begin(), long(i)));
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(n));
}

std::string ht_name(Op op, size_t klen, size_t n, int threads, const char *impl) {
    char buf[96];
    snprintf(buf, sizeof buf, "ht/%s/k%zu/n%zu/t%d/%s", kOpNames[op], klen, n, threads, impl);
    return buf;
}

void register_all() {
    for (size_t n : {size_t(1000), large_n()})
        for (size_t klen : {size_t(16), size_t(64)})
            for (Op op : {kSet, kGetHit, kGetMiss, kDelete})
                for (int threads : {1, 2}) {
                    // The fastest of a few repetitions: the build machine is shared.
                    int iters = 2, reps = 3;
                    benchmark::RegisterBenchmark(ht_name(op, klen, n, threads, "kerm").c_str(), BM_ht<Kerm>, op,
                                                 klen, n, threads)
                        ->UseManualTime()->Iterations(iters)->Repetitions(reps)->Unit(benchmark::kMillisecond);
                    benchmark::RegisterBenchmark(ht_name(op, klen, n, threads, "std_mutex").c_str(), BM_ht<StdPeer>,
                                                 op, klen, n, threads)
                        ->UseManualTime()->Iterations(iters)->Repetitions(reps)->Unit(benchmark::kMillisecond);
                    benchmark::RegisterBenchmark(ht_name(op, klen, n, threads, "absl_mutex").c_str(),
                                                 BM_ht<AbslPeer>, op, klen, n, threads)
                        ->UseManualTime()->Iterations(iters)->Repetitions(reps)->Unit(benchmark::kMillisecond);
                }
    for (long n : {100L, 1000L, 10000L}) {
        benchmark::RegisterBenchmark(("list_walk/kerm/" + std::to_string(n)).c_str(), BM_list_walk_kerm)->Arg(n);
        benchmark::RegisterBenchmark(("list_walk/std_list/" + std::to_string(n)).c_str(), BM_list_walk_peer)->Arg(n);
    }
}

// Below 1: the library is faster.
void print_ratios(const kerm_bench::Results &r) {
    for (size_t n : {size_t(1000), large_n()})
        for (size_t klen : {size_t(16), size_t(64)})
            for (Op op : {kSet, kGetHit, kGetMiss, kDelete})
                for (int threads : {1, 2})
                    for (const char *peer : {"std_mutex", "absl_mutex"}) {
                        char what[96];
                        snprintf(what, sizeof what, "%s k%zu n%zu t%d vs %s", kOpNames[op], klen, n, threads, peer);
                        kerm_bench::print_ratio(r.ns, ht_name(op, klen, n, threads, "kerm"),
                                                ht_name(op, klen, n, threads, peer), what);
                    }
    for (const char *n : {"100", "1000", "10000"})
        kerm_bench::print_ratio(r.ns, std::string("list_walk/kerm/") + n, std::string("list_walk/std_list/") + n,
                                std::string("list walk n") + n + " vs std::list");
}

}  // namespace

int main(int argc, char **argv) {
    register_all();
    // The fastest repetition of each, shown one by one (no aggregates).
    return kerm_bench::run_with_ratios(argc, argv, print_ratios, {.function_name = true, .fastest = true});
}

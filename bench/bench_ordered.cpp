// Heap and priority-queue costs beside standard containers in the same run:
// N int32 keys inserted and taken back by extreme (the heap copies each key
// and allocates a node per entry, the peers store keys inline), and the locked
// queue against std::priority_queue behind a std::mutex. Taking the top
// promotes a child that inherits its siblings, so the top's degree grows with
// every removal and draining is quadratic: N = 10^3, 10^4, 10^5 show the curve
// (10^5 only with KERM_BENCH_FULL=1: it runs once and takes tens of seconds).
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <mutex>
#include <queue>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "bench_ratio.h"
#include "kerm_binheap.h"
#include "kerm_pqueue.h"

namespace {

constexpr int kMaxKeys = 100000;
constexpr int kQueueKeys = 10000;

const std::vector<int32_t> &keys() {
    static const std::vector<int32_t> k = [] {
        std::mt19937 rng(42);
        std::vector<int32_t> v(kMaxKeys);
        // Within 2^30 of each other, so the wrapping 32-bit order is the true order.
        for (auto &x : v) x = static_cast<int32_t>(rng() % (1u << 30)) - (1 << 29);
        return v;
    }();
    return k;
}

// The first n keys.
struct Keys {
    size_t n;
    const int32_t *begin() const { return keys().data(); }
    const int32_t *end() const { return keys().data() + n; }
};
Keys first(const benchmark::State &state) { return Keys{static_cast<size_t>(state.range(0))}; }

void BM_kerm_heap_max(benchmark::State &state) {
    for (auto _ : state) {
        BinHeap *h = util_binheap_create(util_binheap_keys_callbacks_int32_t(), BINHEAP_MODE_MAX);
        for (int32_t k : first(state)) util_binheap_insert(h, &k, sizeof k, nullptr);
        void *v;
        while (util_binheap_delete_maximum(h, &v) == 0) benchmark::DoNotOptimize(v);
        util_binheap_destroy(h);
    }
}
BENCHMARK(BM_kerm_heap_max)->Unit(benchmark::kMillisecond)->Arg(1000)->Arg(10000);
// 10^5 takes most of a minute of CPU: run on request (KERM_BENCH_FULL=1).
const bool g_full = [] {
    const char *f = getenv("KERM_BENCH_FULL");
    if (f != nullptr && *f == '1') BENCHMARK(BM_kerm_heap_max)->Unit(benchmark::kMillisecond)->Arg(kMaxKeys)->Iterations(1);
    return true;
}();

void BM_std_priority_queue(benchmark::State &state) {
    for (auto _ : state) {
        std::priority_queue<int32_t> q;
        for (int32_t k : first(state)) q.push(k);
        while (!q.empty()) {
            benchmark::DoNotOptimize(q.top());
            q.pop();
        }
    }
}
BENCHMARK(BM_std_priority_queue)->Unit(benchmark::kMillisecond)->Arg(1000)->Arg(10000)->Arg(kMaxKeys);

// Both ends taken in turn: the heap's opposite end is its approximate search.
void BM_kerm_heap_minmax(benchmark::State &state) {
    for (auto _ : state) {
        BinHeap *h = util_binheap_create(util_binheap_keys_callbacks_int32_t(), BINHEAP_MODE_MAX);
        for (int32_t k : first(state)) util_binheap_insert(h, &k, sizeof k, nullptr);
        void *v;
        for (bool top = true; (top ? util_binheap_delete_maximum : util_binheap_delete_minimum)(h, &v) == 0; top = !top)
            benchmark::DoNotOptimize(v);
        util_binheap_destroy(h);
    }
}
BENCHMARK(BM_kerm_heap_minmax)->Unit(benchmark::kMillisecond)->Arg(kQueueKeys);

void BM_std_multiset_max(benchmark::State &state) {
    for (auto _ : state) {
        std::multiset<int32_t> s;
        for (int32_t k : first(state)) s.insert(k);
        while (!s.empty()) {
            auto it = std::prev(s.end());
            benchmark::DoNotOptimize(*it);
            s.erase(it);
        }
    }
}
BENCHMARK(BM_std_multiset_max)->Unit(benchmark::kMillisecond)->Arg(1000)->Arg(10000)->Arg(kMaxKeys);

void BM_std_multiset_minmax(benchmark::State &state) {
    for (auto _ : state) {
        std::multiset<int32_t> s;
        for (int32_t k : first(state)) s.insert(k);
        for (bool top = true; !s.empty(); top = !top) {
            auto it = top ? std::prev(s.end()) : s.begin();
            benchmark::DoNotOptimize(*it);
            s.erase(it);
        }
    }
}
BENCHMARK(BM_std_multiset_minmax)->Unit(benchmark::kMillisecond)->Arg(kQueueKeys);

void BM_kerm_pqueue(benchmark::State &state) {
    for (auto _ : state) {
        PQueue *q = util_pqueue_create(PQUEUE_MODE_HIGHEST_FIRST, kQueueKeys, nullptr);
        for (int32_t k : first(state)) util_pqueue_insert(q, static_cast<uint32_t>(k), &q);
        void *v;
        uint64_t prio;
        while (util_pqueue_pull_highest(q, &v, &prio) == 0) benchmark::DoNotOptimize(prio);
        util_pqueue_destroy(q);
    }
}
BENCHMARK(BM_kerm_pqueue)->Unit(benchmark::kMillisecond)->Arg(kQueueKeys);

void BM_std_priority_queue_mutex(benchmark::State &state) {
    struct Entry {
        uint64_t prio;
        void *value;
        bool operator<(const Entry &o) const { return prio < o.prio; }
    };
    for (auto _ : state) {
        std::mutex m;
        std::priority_queue<Entry> q;
        for (int32_t k : first(state)) {
            std::lock_guard<std::mutex> g(m);
            q.push({static_cast<uint32_t>(k), &m});
            if (q.size() > static_cast<size_t>(kQueueKeys)) q.pop();  // same bound check as the queue's
        }
        for (;;) {
            std::lock_guard<std::mutex> g(m);
            if (q.empty()) break;
            benchmark::DoNotOptimize(q.top().prio);
            q.pop();
        }
    }
}
BENCHMARK(BM_std_priority_queue_mutex)->Unit(benchmark::kMillisecond)->Arg(kQueueKeys);

void print_ratios(const kerm_bench::Results &r) {
    for (const char *n : {"1000", "10000", "100000"}) {
        std::string size = std::string("/") + n, what = std::string("N=") + n + " ";
        kerm_bench::print_ratio(r.ns, "BM_kerm_heap_max" + size, "BM_std_priority_queue" + size,
                                what + "heap vs std::priority_queue");
        kerm_bench::print_ratio(r.ns, "BM_kerm_heap_max" + size, "BM_std_multiset_max" + size,
                                what + "heap vs std::multiset (max end)");
    }
    kerm_bench::print_ratio(r.ns, "BM_kerm_heap_minmax/10000", "BM_std_multiset_minmax/10000",
                            "N=10000 heap vs std::multiset (both ends)");
    kerm_bench::print_ratio(r.ns, "BM_kerm_pqueue/10000", "BM_std_priority_queue_mutex/10000",
                            "N=10000 pqueue vs std::priority_queue+mutex");
}

}  // namespace

// CPU time: single-threaded runs, steadier than wall time on a shared machine.
int main(int argc, char **argv) {
    return kerm_bench::run_with_ratios(argc, argv, print_ratios,
                                       {.metric = kerm_bench::Metric::CpuTime, .cut_at = "/iterations:"});
}

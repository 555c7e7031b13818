// The ring queue and the double-ended queue beside peers in the same run:
// std::mutex + std::deque, boost::lockfree::queue, boost::lockfree::spsc_queue
// (one producer and one consumer only) and moodycamel::ConcurrentQueue.
// Throughput with 1 producer + 1 consumer and 2 + 2 (a thread that finds the
// queue empty or full yields), and single-threaded push+pop latency. Ratios
// of time per value (ours / peer; below 1 means ours is faster) at the end.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <stdio.h>

#include <atomic>
#include <boost/lockfree/queue.hpp>
#include <boost/lockfree/spsc_queue.hpp>
#include <concurrentqueue/concurrentqueue.h>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench_ratio.h"
#include "kerm_queue.h"
#include "kerm_rqueue.h"

namespace {

constexpr uint32_t kCapacity = 4096;
constexpr long kItemsPerProducer = 200000;

struct RingQueue {
    util_rqueue_t *q = util_rqueue_create(kCapacity, UTIL_RQUEUE_MODE_BLOCKING);
    ~RingQueue() { util_rqueue_destroy(q); }
    bool push(void *v) { return util_rqueue_write(q, v) == 0; }
    bool pop(void *&v) { return (v = util_rqueue_read(q)) != nullptr; }
};

struct Deque {
    util_queue_t *q = util_queue_create();
    ~Deque() { util_queue_destroy(q); }
    bool push(void *v) { return util_queue_push_right(q, v) == 0; }
    bool pop(void *&v) { return (v = util_queue_pop_left(q)) != nullptr; }
};

struct MutexDeque {
    std::mutex m;
    std::deque<void *> d;
    bool push(void *v) {
        std::lock_guard<std::mutex> lock(m);
        d.push_back(v);
        return true;
    }
    bool pop(void *&v) {
        std::lock_guard<std::mutex> lock(m);
        if (d.empty()) return false;
        v = d.front();
        d.pop_front();
        return true;
    }
};

struct BoostQueue {
    boost::lockfree::queue<void *> q{kCapacity};
    bool push(void *v) { return q.push(v); }
    bool pop(void *&v) { return q.pop(v); }
};

struct BoostSpsc {
    boost::lockfree::spsc_queue<void *, boost::lockfree::capacity<kCapacity>> q;
    bool push(void *v) { return q.push(v); }
    bool pop(void *&v) { return q.pop(v); }
};

struct Moodycamel {
    moodycamel::ConcurrentQueue<void *> q{kCapacity};
    bool push(void *v) { return q.enqueue(v); }
    bool pop(void *&v) { return q.try_dequeue(v); }
};

template <class Q>
void throughput(benchmark::State &state, int producers, int consumers) {
    for (auto _ : state) {
        Q q;
        const long total = producers * kItemsPerProducer;
        std::atomic<long> consumed{0};
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p)
            threads.emplace_back([&q, p] {
                for (long i = 0; i < kItemsPerProducer; ++i) {
                    void *v = reinterpret_cast<void *>(static_cast<uintptr_t>(p) << 24 | static_cast<uintptr_t>(i + 1));
                    while (!q.push(v)) sched_yield();
                }
            });
        for (int c = 0; c < consumers; ++c)
            threads.emplace_back([&] {
                void *v;
                while (consumed.load(std::memory_order_relaxed) < total) {
                    if (q.pop(v)) consumed.fetch_add(1, std::memory_order_relaxed);
                    else sched_yield();
                }
            });
        for (auto &t : threads) t.join();
    }
    state.SetItemsProcessed(state.iterations() * producers * kItemsPerProducer);
}

template <class Q>
void latency(benchmark::State &state) {
    Q q;
    void *v = reinterpret_cast<void *>(uintptr_t{42}), *out = nullptr;
    for (auto _ : state) {
        q.push(v);
        q.pop(out);
        benchmark::DoNotOptimize(out);
    }
}

template <class Q>
void register_queue(const std::string &name, bool multi_producer) {
    benchmark::RegisterBenchmark(("latency/" + name).c_str(), latency<Q>)->MinTime(0.2);
    benchmark::RegisterBenchmark(("1p1c/" + name).c_str(), [](benchmark::State &s) { throughput<Q>(s, 1, 1); })
        ->UseRealTime()
        ->Iterations(3)
        ->Unit(benchmark::kMillisecond);
    if (multi_producer)
        benchmark::RegisterBenchmark(("2p2c/" + name).c_str(), [](benchmark::State &s) { throughput<Q>(s, 2, 2); })
            ->UseRealTime()
            ->Iterations(3)
            ->Unit(benchmark::kMillisecond);
}

void print_ratios(const kerm_bench::Results &r) {
    const char *ours[] = {"ring", "deque"};
    const char *peers[] = {"mutex_deque", "boost_queue", "boost_spsc", "moodycamel"};
    for (const char *what : {"latency", "1p1c", "2p2c"})
        for (const char *o : ours)
            for (const char *p : peers)
                kerm_bench::print_ratio(r.ns, std::string(what) + "/" + o, std::string(what) + "/" + p,
                                        std::string(what) + " " + o + " vs " + p, "value");
}

}  // namespace

int main(int argc, char **argv) {
    register_queue<RingQueue>("ring", true);
    register_queue<Deque>("deque", true);
    register_queue<MutexDeque>("mutex_deque", true);
    register_queue<BoostQueue>("boost_queue", true);
    register_queue<BoostSpsc>("boost_spsc", false);
    register_queue<Moodycamel>("moodycamel", true);
    // Throughput runs: wall time per value; latency runs (one thread):
    // processor time per push+pop, steadier on a busy host.
    return kerm_bench::run_with_ratios(argc, argv, print_ratios,
                                       {.metric = kerm_bench::Metric::PerItem, .function_name = true});
}

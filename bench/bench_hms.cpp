// Error store: cost of one report round (insert N changes, then the client
// or server sync) against a peer store built from a mutex, a vector and a
// hash map, the obvious way to write the same merge.
#include <benchmark/benchmark.h>
#include <stdio.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "kerm_hms.h"

namespace {

std::map<std::string, double> g_ns_per_record;

void note(benchmark::State &state, const char *name, std::chrono::nanoseconds spent, int64_t records) {
    if (records > 0) g_ns_per_record[std::string(name) + "/" + std::to_string(state.range(0))] =
                         static_cast<double>(spent.count()) / static_cast<double>(records);
    state.SetItemsProcessed(records);
}

// Every round re-reports all N points with a new status: N changes per sync.
template <class Insert, class Sync>
void run_rounds(benchmark::State &state, const char *name, Insert insert, Sync sync) {
    const int n = static_cast<int>(state.range(0));
    uint8_t status = 1;
    int64_t records = 0;
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        status = static_cast<uint8_t>(status % 200 + 1);
        for (int i = 0; i < n; ++i)
            insert(vask_hms_err{static_cast<uint32_t>(0x1000 + i / 8), static_cast<uint8_t>(i % 8), status});
        sync();
        records += n;
    }
    note(state, name, std::chrono::steady_clock::now() - t0, records);
}

template <bool Server>
void BM_Store(benchmark::State &state) {
    vask_hms_pool pool{};
    vask_hms_data data{};
    vask_hms_pool_init(&pool, VASK_HMS_POOL_MAX);
    vask_hms_data_init(&data);
    run_rounds(
        state, Server ? "server" : "client", [&](const vask_hms_err &e) { vask_hms_data_insert(&data, &pool, &e); },
        [&] { Server ? vask_hms_data_server_sync(&data, &pool) : vask_hms_data_client_sync(&data, &pool); });
    vask_hms_data_deinit(&data);
    vask_hms_pool_deinit(&pool);
}

void BM_Peer(benchmark::State &state) {
    std::mutex recv_lock, state_lock;
    std::vector<vask_hms_err> recv, batch;
    std::unordered_map<uint64_t, uint8_t> active;
    run_rounds(
        state, "peer",
        [&](const vask_hms_err &e) {
            std::lock_guard<std::mutex> g(recv_lock);
            recv.push_back(e);
        },
        [&] {
            {
                std::lock_guard<std::mutex> g(recv_lock);
                batch.swap(recv);
            }
            std::lock_guard<std::mutex> g(state_lock);
            for (const auto &e : batch) {
                const uint64_t key = (uint64_t{e.code} << 8) | e.index;
                if (e.status == 0) active.erase(key);
                else active[key] = e.status;
            }
            batch.clear();
        });
    benchmark::DoNotOptimize(active.size());
}

BENCHMARK(BM_Store<false>)->Name("client_sync")->Arg(16)->Arg(64)->Arg(255);
BENCHMARK(BM_Store<true>)->Name("server_sync")->Arg(16)->Arg(64)->Arg(255);
BENCHMARK(BM_Peer)->Name("peer_mutex_hashmap")->Arg(16)->Arg(64)->Arg(255);

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // The store pays two semaphore round trips per insert and linear lookups;
    // the server sync's scan for duplicates within a batch grows with the
    // active list, so its ratio rises with N while the client sync's stays flat.
    for (int n : {16, 64, 255}) {
        const std::string k = std::to_string(n);
        const double peer = g_ns_per_record["peer/" + k];
        if (peer <= 0) continue;
        printf("N=%-4d client/peer %.2f  server/peer %.2f  (ns per record: client %.1f, server %.1f, peer %.1f)\n", n,
               g_ns_per_record["client/" + k] / peer, g_ns_per_record["server/" + k] / peer,
               g_ns_per_record["client/" + k], g_ns_per_record["server/" + k], peer);
    }
    return 0;
}

// Cost of the time-sync calls, which map and unmap the block on every call,
// against reading the same cell through one mapping kept open.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bench_ratio.h"
#include "kerm_sdr.h"

namespace {

// Substitute memory device: a sparse file reaching past the time-sync block.
struct SubstituteDevice {
    char root[64] = "/tmp/kerm-bench-sdr-XXXXXX";
    char path[96] = {};
    SubstituteDevice() {
        if (mkdtemp(root) == nullptr) abort();
        snprintf(path, sizeof path, "%s/dev", root);
        mkdir(path, 0700);
        snprintf(path, sizeof path, "%s/dev/mem", root);
        const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0600);
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(VASK_SYNC_PHYS_ADDR) + 4096) != 0) abort();
        const uint32_t latch = 0x00030010u;
        if (pwrite(fd, &latch, sizeof latch, static_cast<off_t>(VASK_SYNC_PHYS_ADDR) + VASK_SYNC_SSFN_LATCH) != 4)
            abort();
        close(fd);
        setenv("KERM_UTIL_ROOT", root, 1);
    }
    ~SubstituteDevice() {
        unlink(path);
        snprintf(path, sizeof path, "%s/dev", root);
        rmdir(path);
        rmdir(root);
    }
};


void BM_SsfnMsPerCallMapping(benchmark::State &state) {
    uint32_t ms = 0;
    for (auto _ : state) {
        vask_util_get_ssfn_ms_for_talvek(&ms);
        benchmark::DoNotOptimize(ms);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_ConvertSsfnPerCallMapping(benchmark::State &state) {
    uint32_t ms = 0;
    uint64_t local = 31000000;
    for (auto _ : state) {
        vask_util_get_convert_ssfn_for_talvek(local++, &ms);
        benchmark::DoNotOptimize(ms);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_SsfnMsKeptMapping(benchmark::State &state) {
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
    for (auto _ : state) {
        uint32_t ms = VASK_SSFN_MS(vask_util_get_shmem_u32(h, VASK_SYNC_SSFN_CNT));
        benchmark::DoNotOptimize(ms);
    }
    vask_util_release_shmem(h);
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_SsfnMsPerCallMapping);
BENCHMARK(BM_ConvertSsfnPerCallMapping);
BENCHMARK(BM_SsfnMsKeptMapping);

int main(int argc, char **argv) {
    SubstituteDevice dev;
    auto summary = [](const kerm_bench::Results &r) {
        auto per_call = r.ns.find("BM_SsfnMsPerCallMapping"), kept = r.ns.find("BM_SsfnMsKeptMapping");
        if (per_call != r.ns.end() && kept != r.ns.end() && kept->second > 0)
            printf("per-call mapping / kept mapping: %.0fx\n", per_call->second / kept->second);
    };
    return kerm_bench::run_with_ratios(argc, argv, summary);
}

// Throughput of each CRC calculator beside Boost.CRC's table-driven
// crc_optimal with the same parameters, on 64 B, 1 KiB and 1 MiB inputs.
// Ends with a table of kerm / Boost ratios (above 1.0: kerm is faster).
#include <benchmark/benchmark.h>

#include <boost/crc.hpp>

#include <stdio.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench_ratio.h"
#include "kerm_crc.h"

namespace {

const std::vector<uint8_t> &input() {
    static const std::vector<uint8_t> data = [] {
        std::vector<uint8_t> d(1u << 20);
        std::mt19937 rng(7);
        for (auto &b : d) b = static_cast<uint8_t>(rng());
        return d;
    }();
    return data;
}

template <typename Fn>
void run(benchmark::State &state, Fn fn) {
    const uint8_t *p = input().data();
    const auto n = static_cast<uint32_t>(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        auto crc = fn(p, n);
        benchmark::DoNotOptimize(crc);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * n);
}

template <typename Crc>
auto boost_fn() {
    return [](const uint8_t *p, uint32_t n) {
        Crc c;
        c.process_bytes(p, n);
        return c.checksum();
    };
}

using BoostCrc8 = boost::crc_optimal<8, 0x31, 0, 0, true, true>;
using BoostCrc16R = boost::crc_optimal<16, 0x1021, 0, 0, true, true>;
using BoostCrc16 = boost::crc_optimal<16, 0x1021, 0, 0, false, false>;

// The XMODEM calculator's contract stops at 65535 bytes: longer inputs are
// fed in chained pieces, as a conforming caller would.
uint16_t xmodem_chained(const uint8_t *p, uint32_t n) {
    uint16_t crc = 0;
    for (uint32_t off = 0; off < n; off += 65535) {
        uint32_t len = n - off < 65535 ? n - off : 65535;
        crc = vask_util_crc16_xmodem_calc(p + off, len, crc);
    }
    return crc;
}

}  // namespace

int main(int argc, char **argv) {
    using Fn = uint32_t (*)(const uint8_t *, uint32_t);
    struct Pair {
        const char *name;
        Fn kerm, peer;
    };
    const Pair pairs[] = {
        {"crc8", [](const uint8_t *p, uint32_t n) -> uint32_t { return vask_util_crc8_calc(p, n, 0); },
         [](const uint8_t *p, uint32_t n) -> uint32_t { return boost_fn<BoostCrc8>()(p, n); }},
        {"crc16", [](const uint8_t *p, uint32_t n) -> uint32_t { return vask_util_crc16_calc(p, n, 0); },
         [](const uint8_t *p, uint32_t n) -> uint32_t { return boost_fn<BoostCrc16R>()(p, n); }},
        // The augmented form has no crc_optimal twin; its peer is the direct
        // form of the same polynomial, which does the same work per byte.
        {"crc16_ccitt", [](const uint8_t *p, uint32_t n) -> uint32_t { return vask_util_crc16_ccitt_calc(p, n, 0); },
         [](const uint8_t *p, uint32_t n) -> uint32_t { return boost_fn<BoostCrc16>()(p, n); }},
        {"crc16_xmodem", [](const uint8_t *p, uint32_t n) -> uint32_t { return xmodem_chained(p, n); },
         [](const uint8_t *p, uint32_t n) -> uint32_t { return boost_fn<BoostCrc16>()(p, n); }},
    };
    const int64_t sizes[] = {64, 1024, 1 << 20};
    for (const auto &pair : pairs) {
        for (const char *who : {"kerm", "boost"}) {
            Fn fn = who[0] == 'k' ? pair.kerm : pair.peer;
            auto *b = benchmark::RegisterBenchmark((std::string(pair.name) + "/" + who).c_str(),
                                                   [fn](benchmark::State &s) { run(s, fn); });
            for (int64_t n : sizes) b->Arg(n);
        }
    }
    auto table = [&pairs, &sizes](const kerm_bench::Results &r) {
        const kerm_bench::Times &rate = r.ns;  // bytes per second
        printf("\n%-14s %8s %14s %14s %8s\n", "calculator", "size", "kerm MB/s", "boost MB/s", "ratio");
        for (const auto &pair : pairs)
            for (int64_t n : sizes) {
                const std::string tail = "/" + std::to_string(n);
                auto k = rate.find(std::string(pair.name) + "/kerm" + tail);
                auto b = rate.find(std::string(pair.name) + "/boost" + tail);
                if (k == rate.end() || b == rate.end() || b->second <= 0) continue;
                printf("%-14s %8lld %14.1f %14.1f %8.2f\n", pair.name, static_cast<long long>(n), k->second / 1e6,
                       b->second / 1e6, k->second / b->second);
            }
    };
    return kerm_bench::run_with_ratios(argc, argv, table, {.counter = "bytes_per_second"});
}

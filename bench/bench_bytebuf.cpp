// Byte ring write+read against plain memcpy of the same bytes (the limit) and
// boost::circular_buffer<uint8_t>; flexible-buffer formatted lines against
// fmt::format_to into a memory_buffer and std::string + snprintf.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <stdio.h>
#include <string.h>

#include <boost/circular_buffer.hpp>
#include <string>
#include <vector>

#include "kerm_fbuf.h"
#include "kerm_rbuf.h"
#include "bench_ratio.h"

namespace {

// Not a multiple of any chunk size, so copies regularly split at the wrap.
constexpr int32_t kRing = 64 * 1024 - 1000;

void BM_memcpy(benchmark::State &st) {
    const size_t n = static_cast<size_t>(st.range(0));
    std::vector<uint8_t> src(n, 0x5A), mid(static_cast<size_t>(kRing)), out(n);
    size_t at = 0;
    for (auto _ : st) {
        // In and out through an intermediate block: the two copies a ring makes.
        if (at + n > mid.size()) at = 0;
        memcpy(mid.data() + at, src.data(), n);
        benchmark::ClobberMemory();
        memcpy(out.data(), mid.data() + at, n);
        at += n;
        benchmark::DoNotOptimize(out.data());
    }
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * n));
}

void BM_rbuf(benchmark::State &st) {
    const uint32_t n = static_cast<uint32_t>(st.range(0));
    std::vector<uint8_t> src(n, 0x5A), out(n);
    util_rbuf_t *r = util_rbuf_create(kRing);
    for (auto _ : st) {
        util_rbuf_write(r, src.data(), n);
        benchmark::ClobberMemory();
        util_rbuf_read(r, out.data(), static_cast<int32_t>(n));
        benchmark::DoNotOptimize(out.data());
    }
    util_rbuf_destroy(r);
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * n));
}

void BM_boost_circular(benchmark::State &st) {
    const size_t n = static_cast<size_t>(st.range(0));
    std::vector<uint8_t> src(n, 0x5A), out(n);
    boost::circular_buffer<uint8_t> cb(static_cast<size_t>(kRing));
    for (auto _ : st) {
        cb.insert(cb.end(), src.begin(), src.end());
        benchmark::ClobberMemory();
        std::copy(cb.begin(), cb.begin() + static_cast<long>(n), out.begin());
        cb.erase_begin(n);
        benchmark::DoNotOptimize(out.data());
    }
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * n));
}

BENCHMARK(BM_memcpy)->Arg(64)->Arg(1024)->Arg(16384);
BENCHMARK(BM_rbuf)->Arg(64)->Arg(1024)->Arg(16384);
BENCHMARK(BM_boost_circular)->Arg(64)->Arg(1024)->Arg(16384);

// One formatted line per iteration, like a status or log line; the buffer is
// emptied every 256 lines so that it stays in the cache at a steady size.
constexpr unsigned kLines = 256;

void BM_fbuf_printf(benchmark::State &st) {
    util_fbuf_t *b = util_fbuf_create(0);
    unsigned i = 0;
    for (auto _ : st) {
        util_fbuf_printf(b, "frame %u pts %lld size %d type %s rate %.2f\n", i, 90000LL * i, 4096 + (i & 255), "IDR",
                         29.97);
        if (++i % kLines == 0) util_fbuf_clear(b);
    }
    benchmark::DoNotOptimize(util_fbuf_used(b));
    util_fbuf_free(b);
}

void BM_fmt_memory_buffer(benchmark::State &st) {
    fmt::memory_buffer b;
    unsigned i = 0;
    for (auto _ : st) {
        fmt::format_to(std::back_inserter(b), "frame {} pts {} size {} type {} rate {:.2f}\n", i, 90000LL * i,
                       4096 + (i & 255), "IDR", 29.97);
        if (++i % kLines == 0) b.clear();
    }
    benchmark::DoNotOptimize(b.size());
}

void BM_string_snprintf(benchmark::State &st) {
    std::string s;
    unsigned i = 0;
    char line[128];
    for (auto _ : st) {
        int n = snprintf(line, sizeof line, "frame %u pts %lld size %d type %s rate %.2f\n", i, 90000LL * i,
                         4096 + (i & 255), "IDR", 29.97);
        s.append(line, static_cast<size_t>(n));
        if (++i % kLines == 0) s.clear();
    }
    benchmark::DoNotOptimize(s.size());
}

BENCHMARK(BM_fbuf_printf);
BENCHMARK(BM_fmt_memory_buffer);
BENCHMARK(BM_string_snprintf);

// Ring lines: bandwidth as a speed ratio (above 1: we are faster); printf
// lines: time ratios (above 1: we are slower). CPU time: CI hosts are shared.
void print_ratios(const kerm_bench::Results &r) {
    for (std::string sz : {"64", "1024", "16384"})
        for (std::string peer : {"memcpy", "boost_circular"})
            kerm_bench::print_speed_ratio(r.ns, "BM_rbuf/" + sz, "BM_" + peer + "/" + sz,
                                          "ring vs " + peer + " chunk " + sz + " (bandwidth)");
    for (std::string peer : {"fmt_memory_buffer", "string_snprintf"})
        kerm_bench::print_ratio(r.ns, "BM_fbuf_printf", "BM_" + peer, "fbuf printf vs " + peer, "line");
}

}  // namespace

int main(int argc, char **argv) {
    return kerm_bench::run_with_ratios(argc, argv, print_ratios, {.metric = kerm_bench::Metric::CpuTime});
}

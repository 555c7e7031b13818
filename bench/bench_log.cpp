// Logging costs beside a peer logger in the same run: a filtered-out call
// (the common case in hot paths), a header with all fields, and a full line
// through the socket output; the peer's filtered-out check and a formatted
// line into a null sink.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <stdio.h>

#include <map>
#include <string>

#include "kerm_log.h"

namespace {

std::map<std::string, double> g_ns;  // per-benchmark nanoseconds per call, for the ratios

std::shared_ptr<spdlog::logger> peer() {
    static auto logger = std::make_shared<spdlog::logger>("peer", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger->set_level(spdlog::level::warn);
    return logger;
}

void BM_kerm_filtered_out(benchmark::State &state) {
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
    int i = 0;
    for (auto _ : state) {
        char head[VASK_LOG_HEAD_SIZE];
        if (vask_log_gen_head(0x53, VASK_LOG_TRACE, head, sizeof head, "utility/wlc_hls/NaluSei", __func__, __LINE__))
            vask_log_print(0x53, VASK_LOG_TRACE, head, "frame %d", i);
        benchmark::DoNotOptimize(++i);
    }
}
BENCHMARK(BM_kerm_filtered_out);

void BM_peer_filtered_out(benchmark::State &state) {
    auto logger = peer();
    int i = 0;
    for (auto _ : state) {
        logger->debug("frame {}", i);
        benchmark::DoNotOptimize(++i);
    }
}
BENCHMARK(BM_peer_filtered_out);

void BM_kerm_header_all_fields(benchmark::State &state) {
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
    vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, 0x1FF, 0);
    char head[VASK_LOG_HEAD_SIZE];
    for (auto _ : state) {
        benchmark::DoNotOptimize(vask_log_gen_head(0x53, VASK_LOG_ERROR, head, sizeof head, "utility/wlc_hls/NaluSei",
                                                   "wl_get_all_sei_nal_info", 120));
        benchmark::ClobberMemory();
    }
    vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_MODULE, 0);
}
BENCHMARK(BM_kerm_header_all_fields);

void BM_peer_formatted_null_sink(benchmark::State &state) {
    auto logger = peer();
    int i = 0;
    for (auto _ : state) {
        logger->error("no SEI, broken stream? frame {} len {}", i, 4096);
        ++i;
    }
}
BENCHMARK(BM_peer_formatted_null_sink);

void BM_kerm_socket_line(benchmark::State &state) {
    // Full line through the socket output, received by this process's collector.
    (void)unshare(CLONE_NEWNET);
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_SOCKET);
    bool collector = vask_log_server_initialize() == 0;
    char buf[512];
    int i = 0;
    for (auto _ : state) {
        char head[VASK_LOG_HEAD_SIZE];
        if (vask_log_gen_head(0x53, VASK_LOG_ERROR, head, sizeof head, "utility/wlc_hls/NaluSei", __func__, __LINE__))
            vask_log_print(0x53, VASK_LOG_ERROR, head, "no SEI, broken stream? frame %d len %d", i++, 4096);
        if (collector) benchmark::DoNotOptimize(vask_log_server_recv(buf, sizeof buf));
    }
    vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_CONSOLE, 0);
}
BENCHMARK(BM_kerm_socket_line);

// Prints kerm/peer ratios of the paired benchmarks after the run.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto &r : runs)
            if (r.run_type == Run::RT_Iteration) g_ns[r.benchmark_name()] = r.GetAdjustedRealTime();
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        auto ratio = [](const char *ours, const char *theirs, const char *what) {
            if (g_ns.count(ours) && g_ns.count(theirs) && g_ns[theirs] > 0)
                printf("ratio %-34s kerm/peer = %.2f (%.2f ns vs %.2f ns)\n", what, g_ns[ours] / g_ns[theirs],
                       g_ns[ours], g_ns[theirs]);
        };
        ratio("BM_kerm_filtered_out", "BM_peer_filtered_out", "filtered-out call");
        ratio("BM_kerm_header_all_fields", "BM_peer_formatted_null_sink", "header vs peer formatted line");
        ratio("BM_kerm_socket_line", "BM_peer_formatted_null_sink", "socket line vs peer null-sink line");
    }
};

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

// Logging costs beside peers in the same run: a filtered-out call (the common
// case in hot paths), a header with all fields, a full console line and a full
// socket line; the peers are a peer logger (filtered-out check, formatted line
// into a null sink, line to standard output) and a raw sendto of the same bytes
// to the same collector (alone, and with the per-line existence test of the
// Android mirror file). Then the socket path with 4 threads logging at once,
// timed per call (p50/p99/max).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench_ratio.h"
#include "kerm_log.h"

namespace {

constexpr const char *kFile = "utility/wlc_hls/NaluSei";
constexpr const char *kFunc = "wl_get_all_sei_nal_info";
constexpr const char *kFormat = "no SEI, broken stream? frame %d len %d";

std::shared_ptr<spdlog::logger> peer() {
    static auto logger = std::make_shared<spdlog::logger>("peer", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger->set_level(spdlog::level::warn);
    return logger;
}

uint64_t now_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Standard output goes to /dev/null while a console benchmark runs, so the
// report stays readable; the stdio buffer is the same as in normal use.
class StdoutToNull {
public:
    StdoutToNull() {
        fflush(stdout);
        saved_ = dup(1);
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        close(null);
    }
    ~StdoutToNull() {
        fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
    }

private:
    int saved_;
};

// The log socket's collector, in this process; abstract names are per network
// namespace, so a private one keeps the name free.
bool collector_up() {
    static bool up = [] {
        (void)unshare(CLONE_NEWNET);
        return vask_log_server_initialize() == 0;
    }();
    return up;
}

void log_line(uint32_t level, int i) {
    char head[VASK_LOG_HEAD_SIZE];
    if (vask_log_gen_head(0x53, level, head, sizeof head, kFile, kFunc, 120))
        vask_log_print(0x53, level, head, kFormat, i, 4096);
}

void BM_kerm_filtered_out(benchmark::State &state) {
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
    int i = 0;
    for (auto _ : state) {
        char head[VASK_LOG_HEAD_SIZE];
        if (vask_log_gen_head(0x53, VASK_LOG_TRACE, head, sizeof head, kFile, __func__, __LINE__))
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
        benchmark::DoNotOptimize(vask_log_gen_head(0x53, VASK_LOG_ERROR, head, sizeof head, kFile, kFunc, 120));
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

void BM_kerm_console_line(benchmark::State &state) {
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
    StdoutToNull quiet;
    int i = 0;
    for (auto _ : state) log_line(VASK_LOG_ERROR, i++);
}
BENCHMARK(BM_kerm_console_line);

void BM_peer_stdout_line(benchmark::State &state) {
    static auto logger = std::make_shared<spdlog::logger>("peer_stdout", std::make_shared<spdlog::sinks::stdout_sink_mt>());
    StdoutToNull quiet;
    int i = 0;
    for (auto _ : state) logger->error("no SEI, broken stream? frame {} len {}", i++, 4096);
}
BENCHMARK(BM_peer_stdout_line);

// The socket benchmarks time the send side only: each iteration's datagram is
// received by the collector outside the timed part (the kernel queues few).
template <class Send>
void timed_sends(benchmark::State &state, Send send) {
    const bool collector = collector_up();
    char buf[512];
    int i = 0;
    for (auto _ : state) {
        uint64_t t0 = now_ns();
        send(i++);
        state.SetIterationTime(static_cast<double>(now_ns() - t0) * 1e-9);
        if (collector) benchmark::DoNotOptimize(vask_log_server_recv(buf, sizeof buf));
    }
}

void BM_kerm_socket_line(benchmark::State &state) {
    collector_up();
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_SOCKET);
    timed_sends(state, [](int i) { log_line(VASK_LOG_ERROR, i); });
    vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_CONSOLE, 0);
}
BENCHMARK(BM_kerm_socket_line)->UseManualTime();

// A client socket like the library's, and one real line's bytes to send.
struct RawClient {
    int fd;
    struct sockaddr_un addr;
    std::string line;
    void send() const {
        sendto(fd, line.data(), line.size(), 0, reinterpret_cast<const struct sockaddr *>(&addr), 13);
    }
};

RawClient raw_client() {
    collector_up();
    RawClient c{};
    c.fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    fcntl(c.fd, F_SETFL, fcntl(c.fd, F_GETFL) | O_NONBLOCK);
    c.addr.sun_family = AF_UNIX;
    memcpy(c.addr.sun_path + 1, "/dev/aplog", 10);
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_SOCKET);
    log_line(VASK_LOG_ERROR, 1000);
    vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_CONSOLE, 0);
    char buf[512];
    int n = -1;
    for (int tries = 0; tries < 100 && n < 0; ++tries) n = vask_log_server_recv(buf, sizeof buf);
    c.line.assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
    return c;
}

void BM_raw_sendto_line(benchmark::State &state) {
    RawClient c = raw_client();
    timed_sends(state, [&c](int) { c.send(); });
    state.counters["bytes"] = static_cast<double>(c.line.size());
    close(c.fd);
}
BENCHMARK(BM_raw_sendto_line)->UseManualTime();

// The socket line must also test whether "/etc/enable_android_log" exists,
// on every line: the same send plus that test is the floor the line can reach.
void BM_raw_sendto_exists_line(benchmark::State &state) {
    RawClient c = raw_client();
    timed_sends(state, [&c](int) {
        c.send();
        benchmark::DoNotOptimize(access("/etc/enable_android_log", F_OK));
    });
    close(c.fd);
}
BENCHMARK(BM_raw_sendto_exists_line)->UseManualTime();

// 4 threads send at once while a collector thread drains; every call is timed.
template <class Send>
void tail_latency(benchmark::State &state, Send send) {
    constexpr int kThreads = 4, kCalls = 5000;
    std::vector<std::vector<uint32_t>> lat(kThreads, std::vector<uint32_t>(kCalls));
    char buf[512];
    for (auto _ : state) {
        std::atomic<bool> stop{false};
        std::thread drain([&] {
            while (!stop.load(std::memory_order_relaxed))
                if (vask_log_server_recv(buf, sizeof buf) < 0) sched_yield();
        });
        uint64_t t_start = now_ns();
        std::vector<std::thread> senders;
        for (int t = 0; t < kThreads; ++t)
            senders.emplace_back([&, t] {
                for (int i = 0; i < kCalls; ++i) {
                    uint64_t t0 = now_ns();
                    send(i);
                    lat[t][i] = static_cast<uint32_t>(std::min<uint64_t>(now_ns() - t0, UINT32_MAX));
                }
            });
        for (auto &s : senders) s.join();
        state.SetIterationTime(static_cast<double>(now_ns() - t_start) * 1e-9);
        stop = true;
        drain.join();
    }
    std::vector<uint32_t> all;
    for (auto &v : lat) all.insert(all.end(), v.begin(), v.end());
    std::sort(all.begin(), all.end());
    state.counters["p50_ns"] = all[all.size() / 2];
    state.counters["p99_ns"] = all[all.size() * 99 / 100];
    state.counters["max_ns"] = all.back();
}

void BM_kerm_socket_4threads(benchmark::State &state) {
    collector_up();
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_SOCKET);
    tail_latency(state, [](int i) { log_line(VASK_LOG_ERROR, i); });
    vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_CONSOLE, 0);
}
BENCHMARK(BM_kerm_socket_4threads)->UseManualTime()->Iterations(1);

void BM_raw_sendto_4threads(benchmark::State &state) {
    RawClient c = raw_client();
    tail_latency(state, [&c](int) { c.send(); });
    close(c.fd);
}
BENCHMARK(BM_raw_sendto_4threads)->UseManualTime()->Iterations(1);

// Wall-clock ratios, and CPU-time ones for the benchmarks timed by the library
// (on a loaded machine the CPU ratio is the steadier one).
void print_ratios(const kerm_bench::Results &r) {
    auto ratio = [&r](const char *ours, const char *theirs, const std::string &what) {
        kerm_bench::print_ratio(r.ns, ours, theirs, what);
        kerm_bench::print_ratio(r.cpu_ns, ours, theirs, what + ", cpu");
    };
    ratio("BM_kerm_filtered_out", "BM_peer_filtered_out", "filtered-out call");
    ratio("BM_kerm_header_all_fields", "BM_peer_formatted_null_sink", "header vs peer formatted line");
    ratio("BM_kerm_console_line", "BM_peer_stdout_line", "console line vs peer stdout line");
    ratio("BM_kerm_socket_line", "BM_raw_sendto_line", "socket line vs raw sendto");
    ratio("BM_kerm_socket_line", "BM_raw_sendto_exists_line", "socket line vs sendto + exists test");
    auto ours = r.counters.find("BM_kerm_socket_4threads"), theirs = r.counters.find("BM_raw_sendto_4threads");
    if (ours == r.counters.end() || theirs == r.counters.end()) return;
    for (const char *c : {"p50_ns", "p99_ns", "max_ns"}) {
        auto a = ours->second.find(c), b = theirs->second.find(c);
        if (a == ours->second.end() || b == theirs->second.end()) continue;
        kerm_bench::print_ratio({{"kerm", a->second.value}, {"raw", b->second.value}}, "kerm", "raw",
                                std::string("4 threads socket vs raw sendto ") + c);
    }
}

}  // namespace

int main(int argc, char **argv) {
    return kerm_bench::run_with_ratios(argc, argv, print_ratios, {.cut_at = "/"});
}

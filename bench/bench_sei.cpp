// SEI family: the chain walk on small and large frames with the same tail
// (its cost must not depend on the frame size), and each encoder and parser
// per call.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "bench_ratio.h"
#include "kerm_log.h"
#include "kerm_sei.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A frame of `video` bytes carrying a timing SEI, a live-view SEI and the tail.
struct Frame {
    Bytes b;
    size_t lv_at = 0;
    explicit Frame(size_t video, uint32_t codec = WL_CODEC_H264) {
        b.resize(video + 4096);
        for (size_t i = 0; i < video; ++i) b[i] = static_cast<uint8_t>(0x20 + i % 200);
        size_t pos = video;
        LiveviewMd lv;
        wl_init_lvstream_md(&lv);
        lv.module_info_on = 1;
        uint32_t lv_len = 0, dummy = 0;
        wl_enc_lvstream_sei(&b[pos], codec, 4096, static_cast<uint32_t>(pos), &lv, &lv_len, &dummy);
        lv_at = pos + dummy;
        pos += dummy + lv_len;
        TimingMd t;
        memset(&t, 0, sizeof t);
        for (uint32_t i = 0; i < 4; ++i) wl_insert_new_ts_md(&t, 0x10 + i, 1, 5000 + i);
        pos += wl_enc_timing_sei(&b[pos], codec, 4096, &t);
        OndIMd o;
        memset(&o, 0, sizeof o);
        o.frm_idx = 1;
        pos += wl_enc_ondI_sei(&b[pos], codec == WL_CODEC_H264, 4096, &o);
        uint8_t *p = &b[pos - 26];
        const uint8_t aud[] = {0, 0, 0, 1, static_cast<uint8_t>(codec ? 0x46 : 0x09), 1, 0x50};
        memcpy(&b[pos], aud, codec ? 7 : 6);
        pos += codec ? 7 : 6;
        p[22] = static_cast<uint8_t>(pos - lv_at);
        p[23] &= 0xF7;
        b.resize(pos);
    }
    uint32_t size() const { return static_cast<uint32_t>(b.size()); }
};

// A 1000-byte frame with its chain already walked: e[1] is the timing SEI.
struct Walked {
    Frame f{1000};
    SeiNalInfo e[16];
    uint32_t n = 0;
    Walked() { wl_get_all_sei_nal_info(f.b.data(), f.size(), 16, &n, e); }
};

void BM_Walk(benchmark::State &st) {
    Frame f(static_cast<size_t>(st.range(0)));
    SeiNalInfo e[16];
    uint32_t n = 0;
    for (auto _ : st) {
        benchmark::DoNotOptimize(wl_get_all_sei_nal_info(f.b.data(), f.size(), 16, &n, e));
        benchmark::DoNotOptimize(n);
    }
}
BENCHMARK(BM_Walk)->Arg(10 << 10)->Arg(1 << 20);

void BM_EncTiming(benchmark::State &st) {
    uint8_t d[256];
    TimingMd t;
    memset(&t, 0, sizeof t);
    for (uint32_t i = 0; i < 12; ++i) wl_insert_new_ts_md(&t, i + 4, 1, 1000 + i);
    for (auto _ : st) benchmark::DoNotOptimize(wl_enc_timing_sei(d, WL_CODEC_H264, sizeof d, &t));
}
BENCHMARK(BM_EncTiming);

void BM_ParseTiming(benchmark::State &st) {
    Walked w;
    SeiNalInfo *e = w.e;
    TimingMd t;
    for (auto _ : st) benchmark::DoNotOptimize(wl_parse_timing_sei(&e[1], &t));
}
BENCHMARK(BM_ParseTiming);

void BM_InsertTsStream(benchmark::State &st) {
    Walked w;
    SeiNalInfo *e = w.e;
    uint8_t *slot = e[1].payload_addr + 14 + 6 * 4;  // first free slot
    for (auto _ : st) {
        benchmark::DoNotOptimize(wl_insert_new_ts_stream(&e[1], 0x42, 1, 7000));
        *slot = 0xFF;  // free it again
    }
}
BENCHMARK(BM_InsertTsStream);

int32_t add_ms(uint64_t, int64_t ts, uint32_t, uint32_t *out, uint8_t *tb) {
    *out = static_cast<uint32_t>(ts + 1);
    *tb = 1;
    return 0;
}

void BM_TransformTiming(benchmark::State &st) {
    Walked w;
    SeiNalInfo *e = w.e;
    for (auto _ : st) benchmark::DoNotOptimize(wl_transform_timing_sei(&e[1], add_ms));
}
BENCHMARK(BM_TransformTiming);

void BM_EncOndI(benchmark::State &st) {
    uint8_t d[64];
    OndIMd o;
    memset(&o, 0, sizeof o);
    o.frm_idx = 99;
    for (auto _ : st) benchmark::DoNotOptimize(wl_enc_ondI_sei(d, 1, sizeof d, &o));
}
BENCHMARK(BM_EncOndI);

void BM_ParseOndemandI(benchmark::State &st) {
    Frame f(1000);
    SeiNalInfo info;
    OndIMd o;
    uint32_t tail = 0, codec = 0;
    uint8_t found = 0;
    for (auto _ : st) {
        codec = WL_CODEC_UNKNOWN;
        benchmark::DoNotOptimize(wl_parse_ondemandI_sei(f.b.data(), f.size(), &info, &o, &tail, &codec, &found));
    }
}
BENCHMARK(BM_ParseOndemandI);

void BM_EncLvstream(benchmark::State &st) {
    uint8_t d[512];
    LiveviewMd lv;
    wl_init_lvstream_md(&lv);
    lv.module_info_on = lv.codec_info_on = 1;
    lv.module_active_cnt = 5;
    uint32_t a = 0, b = 0;
    for (auto _ : st) benchmark::DoNotOptimize(wl_enc_lvstream_sei(d, WL_CODEC_H264, sizeof d, 0, &lv, &a, &b));
}
BENCHMARK(BM_EncLvstream);

void BM_ParseLvstream(benchmark::State &st) {
    Frame f(1000);
    LiveviewMd lv;
    SeiNalInfo info;
    for (auto _ : st) {
        wl_parse_lvstream_sei(f.b.data(), static_cast<int32_t>(f.size()), &lv, &info);
        benchmark::DoNotOptimize(lv.module_active_cnt);
    }
}
BENCHMARK(BM_ParseLvstream);

void BM_UpdateModuleinfo(benchmark::State &st) {
    Frame f(1000);
    // Restores the live-view SEI after each call (about 80 bytes), so the
    // table never fills up.
    const Bytes saved(f.b.begin() + static_cast<long>(f.lv_at), f.b.begin() + static_cast<long>(f.lv_at) + 96);
    for (auto _ : st) {
        benchmark::DoNotOptimize(wl_update_moduleinfo(f.b.data(), f.size(), 3, 1, 40, 0, nullptr));
        memcpy(&f.b[f.lv_at], saved.data(), saved.size());
    }
}
BENCHMARK(BM_UpdateModuleinfo);

}  // namespace

int main(int argc, char **argv) {
    vask_log_control(LOG_CTRL_ENABLE, 0, 0);  // measure the work, not the console
    auto summary = [](const kerm_bench::Results &r) {
        const auto small = r.ns.find("BM_Walk/10240"), big = r.ns.find("BM_Walk/1048576");
        if (small != r.ns.end() && big != r.ns.end() && small->second > 0)
            printf("chain walk, 1 MiB frame / 10 KiB frame: %.2fx (same tail; 1.00x means size-independent)\n",
                   big->second / small->second);
    };
    return kerm_bench::run_with_ratios(argc, argv, summary);
}

// Frame builders, byte spelling and log capture for the SEI tests.
#ifndef KERM_TEST_SEI_UTIL_H
#define KERM_TEST_SEI_UTIL_H

#include <gtest/gtest.h>

#include <sstream>

#include "support/scratch_dir.h"
#include "wlc_hls/nalu_sei_internal.h"  // with kerm_sei.h and kerm_log.h

using Bytes = std::vector<uint8_t>;
using Vals = std::vector<int64_t>;

// Bytes spelled "00 00 00 01 06"; hex_like spells as many as `want` names.
inline std::string hex(const uint8_t *p, size_t n) {
    std::string s;
    for (char b[4]; n--; s += b) snprintf(b, sizeof b, s.empty() ? "%02x" : " %02x", *p++);
    return s;
}
inline std::string hex_like(const uint8_t *p, const std::string &want) { return hex(p, (want.size() + 1) / 3); }

// A found SEI as {type, sei_len, span_len, payload_len, nal offset, payload offset}.
inline Vals info(const SeiNalInfo &i, const uint8_t *base) {
    return {i.type, i.sei_len, i.span_len, i.payload_len, i.nal_addr - base, i.payload_addr - base};
}

// Console lines fn writes, each spelled "53@1[function :message" (module, level) between newlines.
template <class F> std::string logs(F fn) {
    std::istringstream in(kerm_test::stdout_of(fn));
    std::string out = "\n";
    for (std::string l; std::getline(in, l);)
        if (size_t v = l.find("VASK"), b = l.find('[', v); b != std::string::npos)
            out += l.substr(v + 4, b - v - 3) + l.substr(l.find_first_not_of(' ', b + 1)) + "\n";
    return out;
}
#define EXPECT_LOGGED(log, line) EXPECT_NE((log).find("\n" + std::string(line) + "\n"), std::string::npos) << (log)
#define EXPECT_LOGS(stmt, line) EXPECT_LOGGED(logs([&] { stmt; }), line)
inline int count(const std::string &s, const std::string &x) {
    int n = 0;
    for (size_t p = s.find(x); p != std::string::npos; p = s.find(x, p + 1)) ++n;
    return n;
}

class SeiTest : public ::testing::TestWithParam<uint32_t> {
protected:
    void SetUp() override {
        vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_CONSOLE, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, VASK_LOG_ALL_MODULES, VASK_LOG_VERBOSE);
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_LEVEL | LOG_HDR_FUNC | LOG_HDR_MODULE, 0);
        vask_log_control(LOG_CTRL_ENABLE, 1, 0);
    }
    uint32_t codec() const { return GetParam(); }
    int h265() const { return GetParam() == WL_CODEC_H265; }
};

// A frame under construction: video bytes, then SEIs and the tail in encoder order.
struct Frame {
    uint32_t codec;
    Bytes b;
    explicit Frame(uint32_t c, size_t video = 40) : codec(c), b(video, 0x30) {}
    int h265() const { return codec == WL_CODEC_H265; }
    uint32_t size() const { return static_cast<uint32_t>(b.size()); }
    uint8_t *data() { return b.data(); }
    void add(const Bytes &x) { b.insert(b.end(), x.begin(), x.end()); }
    // Calls fn(dst, free) with 4 KiB of room; keeps the bytes it reports.
    template <class F> uint32_t put(F fn) {
        const size_t at = b.size();
        b.resize(at + 4096, 0xEE);
        b.resize(at + fn(b.data() + at, 4096));
        return static_cast<uint32_t>(b.size() - at);
    }
    void jumping(uint32_t len) {
        add(h265() ? Bytes{0, 0, 0, 1, 0x50, 1} : Bytes{0, 0, 0, 1, 6});
        add({0xEF, 2, uint8_t(len), uint8_t(len >> 8), 0x80});
    }
    // An SEI of `type` (> 254) with `size` (< 255) 0xFF payload bytes, then its jumping SEI.
    void chained(uint32_t type, int32_t size) {
        jumping(put([&](uint8_t *d, int32_t f) {
            return kerm::sei::wl_insert_initial_sei(d, codec, type, size, f) ? 0 : 9 + h265() + size;
        }));
    }
    void timing(const TimingMd &md) { put([&](uint8_t *d, int32_t f) { return wl_enc_timing_sei(d, codec, f, &md); }); }
    // The on-demand-I SEI for frame `idx`, then the AUD.
    void tail(uint32_t idx = 7) {
        const OndIMd md{idx};
        put([&](uint8_t *d, int32_t f) { return wl_enc_ondI_sei(d, !h265(), f, &md); });
        add(h265() ? Bytes{0, 0, 0, 1, 0x46, 1, 0x50} : Bytes{0, 0, 0, 1, 9, 0xF0});
    }
};

// The chain walk over a whole frame, with room for 20 records.
struct Walk {
    uint32_t count = 99;
    SeiNalInfo e[20];
    int32_t ret;
    explicit Walk(Frame &f, int32_t max_cnt = 16)
        : ret(wl_get_all_sei_nal_info(f.data(), f.size(), max_cnt, &count, e)) {}
};

// Items {0x10 + i, 1000 + i}, sensor time 1000 ms.
inline TimingMd timing_md(uint32_t items, uint32_t tb = 2) {
    TimingMd md{};
    for (uint32_t i = 0; i < items; ++i) wl_insert_new_ts_md(&md, 0x10 + i, tb, 1000 + i);
    return md;
}

inline TimingMd parsed(const SeiNalInfo &i) {
    TimingMd md;
    memset(&md, 0xAB, sizeof md);  // the parser clears it all
    EXPECT_EQ(wl_parse_timing_sei(&i, &md), 0);
    return md;
}

#define SEI_CODECS ::testing::Values(WL_CODEC_H264, WL_CODEC_H265)
#define SEI_CODEC_NAMES [](const auto &i) { return i.param == WL_CODEC_H265 ? "H265" : "H264"; }

#endif

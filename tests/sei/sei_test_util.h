// Frame builders and log capture for the SEI tests.
#ifndef KERM_TEST_SEI_UTIL_H
#define KERM_TEST_SEI_UTIL_H

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>
#include <string>
#include <vector>

#include "kerm_log.h"
#include "kerm_sei.h"
#include "wlc_hls/nalu_sei_internal.h"

using Bytes = std::vector<uint8_t>;

// Parsed console log lines: module id, level, function name, message.
struct LogLine {
    int module, level;
    std::string func, msg;
};

class SeiTest : public ::testing::TestWithParam<uint32_t> {
protected:
    void SetUp() override {
        vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_CONSOLE, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, VASK_LOG_ALL_MODULES, VASK_LOG_VERBOSE);
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_LEVEL | LOG_HDR_FUNC | LOG_HDR_MODULE, 0);
        vask_log_control(LOG_CTRL_ENABLE, 1, 0);
    }
    uint32_t codec() const { return GetParam(); }
    bool h265() const { return GetParam() == WL_CODEC_H265; }

    // Runs fn with standard output captured; returns the log lines it wrote.
    template <class F>
    std::vector<LogLine> logs(F fn) {
        fflush(stdout);
        ::testing::internal::CaptureStdout();
        fn();
        fflush(stdout);
        std::istringstream in(::testing::internal::GetCapturedStdout());
        std::vector<LogLine> out;
        for (std::string l; std::getline(in, l);) {
            size_t at = l.find('@'), br = l.find('[', at), sep = l.find(" :", br);
            if (at < 2 || br == std::string::npos || sep == std::string::npos) continue;
            size_t f = l.find_first_not_of(' ', br + 1);
            const int module = static_cast<int>(strtol(l.substr(at - 2, 2).c_str(), nullptr, 16));
            out.push_back({module, l[at + 1] - '0', l.substr(f, sep - f), l.substr(sep + 2)});
        }
        return out;
    }
    // `msg` as the code writes it; the console ends every line with one newline.
    // Every line of the family is logged as module 0x53.
    static bool has(const std::vector<LogLine> &v, int level, const std::string &func, std::string msg) {
        if (!msg.empty() && msg.back() == '\n') msg.pop_back();
        for (const auto &l : v)
            if (l.module == KERM_MOD_SEI && l.level == level && l.func == func && l.msg == msg) return true;
        return false;
    }
    static int count_msg(const std::vector<LogLine> &v, const std::string &prefix) {
        int n = 0;
        for (const auto &l : v) n += l.msg.rfind(prefix, 0) == 0;
        return n;
    }
};

// A frame under construction: video bytes, then the tail blocks appended in
// encoder order.
struct Frame {
    uint32_t codec;
    Bytes b;
    explicit Frame(uint32_t c, size_t video = 40) : codec(c) {
        if (video == 0) return;
        b = {0, 0, 0, 1, static_cast<uint8_t>(c == WL_CODEC_H265 ? 0x26 : 0x65)};
        for (size_t i = 0; b.size() < video; ++i) b.push_back(static_cast<uint8_t>(0x30 + i % 64));
    }
    bool h265() const { return codec == WL_CODEC_H265; }
    uint32_t jlen() const { return h265() ? 11 : 10; }
    // Calls fn(dst, free) with 4 KiB of room; keeps the bytes it reports.
    template <class F>
    uint32_t put(F fn) {
        size_t at = b.size();
        b.resize(at + 4096, 0xEE);
        uint32_t n = fn(b.data() + at, 4096);
        b.resize(at + n);
        return n;
    }
    void jumping(uint32_t len) {
        const uint8_t h4[] = {0, 0, 0, 1, 6, 0xEF, 2, uint8_t(len), uint8_t(len >> 8), 0x80};
        const uint8_t h5[] = {0, 0, 0, 1, 0x50, 1, 0xEF, 2, uint8_t(len), uint8_t(len >> 8), 0x80};
        if (h265())
            b.insert(b.end(), h5, h5 + sizeof h5);
        else
            b.insert(b.end(), h4, h4 + sizeof h4);
    }
    // An SEI of `type` with `size` 0xFF payload bytes plus its jumping SEI.
    void chained(uint32_t type, int32_t size) {
        uint32_t n = put([&](uint8_t *d, int32_t f) {
            EXPECT_EQ(kerm::sei::wl_insert_initial_sei(d, codec, type, size, f), 0);
            return uint32_t(kerm::sei::header_len(codec) + type / 255 + 1 + size / 255 + 1 + size + 1);
        });
        jumping(n);
    }
    void timing(const TimingMd &md) {
        put([&](uint8_t *d, int32_t f) { return wl_enc_timing_sei(d, codec, f, &md); });
    }
    void ondi(const OndIMd &md) {
        put([&](uint8_t *d, int32_t f) { return wl_enc_ondI_sei(d, h265() ? 0 : 1, f, &md); });
    }
    void aud() {
        if (h265())
            b.insert(b.end(), {0, 0, 0, 1, 0x46, 0x01, 0x50});
        else
            b.insert(b.end(), {0, 0, 0, 1, 0x09, 0xF0});
    }
    // The frame tail with an on-demand-I SEI for frame `idx`.
    void tail(uint32_t idx = 7) {
        OndIMd md{};
        md.frm_idx = idx;
        md.avgQPy = 30;
        ondi(md);
        aud();
    }
    uint32_t size() const { return static_cast<uint32_t>(b.size()); }
    uint8_t *data() { return b.data(); }
};

inline TimingMd timing_md(uint32_t items, uint32_t tb = 2) {
    TimingMd md{};
    for (uint32_t i = 0; i < items; ++i) wl_insert_new_ts_md(&md, 0x10 + i, tb, 1000 + i);
    return md;
}

#define SEI_CODECS ::testing::Values(WL_CODEC_H264, WL_CODEC_H265)
#define SEI_CODEC_NAMES [](const auto &i) { return i.param == WL_CODEC_H265 ? "H265" : "H264"; }

#endif

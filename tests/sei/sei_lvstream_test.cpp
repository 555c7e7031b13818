// Live-view stream SEI: layout, dummy-SEI alignment, module table updates.
#include <unistd.h>

#include "sei_test_util.h"

namespace {
uint8_t *ondi_payload(Frame &f) { return f.data() + f.size() - 32 - f.h265(); }

// Appends the live-view SEI (after any dummy SEI) and a tail whose on-demand-I
// SEI points at it; returns the live-view SEI's frame offset.
size_t add_lv(Frame &f, const LiveviewMd &md) {
    const uint32_t before = f.size();
    uint32_t lv = 0, dummy = 0;
    f.put([&](uint8_t *d, int32_t free_len) {
        EXPECT_EQ(wl_enc_lvstream_sei(d, f.codec, free_len, before, &md, &lv, &dummy), 0);
        return lv + dummy;
    });
    f.tail();
    ondi_payload(f)[22] = static_cast<uint8_t>(f.size() - before - dummy);
    ondi_payload(f)[23] &= static_cast<uint8_t>(~0x08);
    return before + dummy;
}

LiveviewMd lv_md(uint8_t modules_on, uint32_t start_time = 0) {
    LiveviewMd md;
    wl_init_lvstream_md(&md);
    md.module_info_on = modules_on, md.start_time = start_time;
    return md;
}

LiveviewMd parse(Frame &f) {
    LiveviewMd md;
    memset(&md, 0xCC, sizeof md);
    wl_parse_lvstream_sei(f.data(), static_cast<int32_t>(f.size()), &md, nullptr);
    return md;
}
}  // namespace

using SeiLiveview = SeiTest;

TEST_P(SeiLiveview, LayoutRoundTrip) {
    for (uint8_t lite : {0, 1}) {
        LiveviewMd md = lv_md(1, 0x11223344);
        md.time_base = 5, md.product_id = 0x2A, md.camera_id = 0xB, md.stream_id = 0x15, md.lite_mode = lite;
        md.extension_info_on = md.codec_info_on = md.sei_info_on = 1;
        md.codec_info_size = 0x54, md.frm_tar_len = 0x1234, md.err_strategy = 9, md.avg_qp = 40;
        md.module_active_cnt = 2, md.modules[0] = {0x15, 0xABC, 5}, md.modules[1] = {0x3F, 0x001, 2};
        Frame f(codec());
        const size_t at = add_lv(f, md);
        const uint8_t *q = f.data() + at + 8 + h265();
        // Bits no field owns keep the fill; codec_info_size stays in bits 2-6; lite items have no id byte.
        EXPECT_EQ(hex(q, 23), (lite ? "81 df" : "81 db") + std::string(" 44 33 ff 22 11 ea 56 ff d7 34 12 9f e8") +
                                  (lite ? " 74 e2 bc da ff 01 a0 ff" : " 74 e2 d5 bc da ff 01 a0"));
        // Every field fits its wire width, so the record comes back whole.
        const LiveviewMd b = parse(f);
        EXPECT_EQ(memcmp(&b, &md, offsetof(LiveviewMd, modules)), 0);
        EXPECT_EQ(Vals({b.modules[0].module_id, b.modules[0].time_diff, b.modules[0].err_code, b.modules[1].time_diff,
                        b.modules[1].err_code, b.modules[2].time_diff}),
                  Vals({lite ? 0 : 0x15, 0xABC, 5, 1, 2, 0}));
    }
}

TEST_F(SeiLiveview, DummySeiAlignment) {
    const std::string need = "53@5[wl_calu_dummysei_len :need to insert a dummy sei, length ", dummy10 =
        "00 00 00 01 06 ff fd 01 ff 80 ", abandon = "53@2[wl_calu_dummysei_len :abandon to insert a dummy sei due to ",
        no_lv = "\n53@1[wl_enc_lvstream_sei :insert dummy sei failed, abandon to insert lvstream sei";
    // {frame length, free, result, live-view and dummy lengths, bytes at dst, log lines}
    const struct { uint32_t frame_len; int32_t free, ret; uint32_t lv, dummy; std::string want, log; } rows[] = {
        {0, 600, 0, 19, 0, "00 00 00 01 06 ff 01 0a", "53@5[wl_calu_dummysei_len :donnot need to insert a dummy sei"},
        {2039, 600, 0, 19, 10, dummy10 + "00 00 00 01 06 ff 01 0a", need + "10"},  // payload never below 1 byte
        {0u - 254, 600, 0, 19, 254, "00 00 00 01 06 ff fd f5 ff", need + "254"},  // signed: past 2 GiB is negative
        {0u - 255, 600, -1001, 0, 0, "ee", abandon + "too long dummy info will waste channel resource" + no_lv},
        {2039, 9, -1001, 0, 0, "ee", abandon + "no mem" + no_lv},
        // Room for the dummy SEI only: it stays written, the call fails.
        {2039, 20, -1001, 0, 0, dummy10 + "ee", "53@1[wl_enc_lvstream_sei :the free memory is 20, not enough for insert"
                                                " dummy sei & lvstream sei which need 29 bytes space"},
    };
    const LiveviewMd md = lv_md(0);
    uint8_t d[600];
    uint32_t lv, dummy;
    for (auto &r : rows) {
        memset(d, 0xEE, sizeof d);
        lv = dummy = 9;
        EXPECT_LOGS(EXPECT_EQ(wl_enc_lvstream_sei(d, 0, r.free, r.frame_len, &md, &lv, &dummy), r.ret), r.log);
        EXPECT_EQ(Vals({lv, dummy}), Vals({r.lv, r.dummy})) << r.log;
        EXPECT_EQ(hex_like(d, r.want), r.want);
    }
    EXPECT_EQ(wl_enc_lvstream_sei(d, WL_CODEC_H264, 600, 0, nullptr, &lv, &dummy), -1003);
}

TEST_P(SeiLiveview, ModuleTableUpdates) {
    Frame f(codec());
    const size_t at = add_lv(f, lv_md(1, 1000));
    EXPECT_EQ(f.size() - at, 81u + (h265() ? 1 + 34 + 7 : 33 + 6));  // payload 72
    auto update = [&](uint32_t id, uint32_t tb, uint32_t end, uint8_t err, WlStartTimeConvertFn fn = nullptr) {
        return logs([&] { EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), id, tb, end, err, fn), 0); });
    };
    auto refuse = [](uint64_t *, uint64_t *new_us, uint8_t *ok, uint8_t *) -> int32_t { return *new_us = 1, *ok = 0; };
    EXPECT_LOGGED(update(70, 2, 2000, 0xF, refuse), "53@1[wl_update_timebase :failed to change time base 7 -> 2");
    EXPECT_EQ(parse(f).time_base, 7);
    auto twice = [](uint64_t *old_us, uint64_t *new_us, uint8_t *ok, uint8_t *ok2) -> int32_t {
        return *new_us = *old_us * (ok == ok2 ? 2 : 3), 0;  // the same flag byte comes twice
    };
    std::string l = update(1, 2, 2000 + 4095, 1, twice);
    EXPECT_LOGGED(l, "53@5[wl_update_timebase :time base is changing 7 -> 2, start time is changing 1000000 -> "
                     "2000000");
    EXPECT_EQ(count(l, "time diff"), 0);
    l = update(2, 0x102, 2000 + 4096, 0);  // only the low 8 bits of the timebase count
    EXPECT_LOGGED(l, "53@5[wl_update_timebase :time base is still 2");
    EXPECT_LOGGED(l, "53@2[wl_update_timediff :time diff 4096 is larger than the threshold 4095, or start time is "
                     "larger than end time [start 2000 end 6096]");
    update(3, 2, 1999, 0);
    update(4, 2, 2010, 0);
    const LiveviewMd b = parse(f);
    // Item 0 is timed against the unchanged start; item 3 ends before the start.
    EXPECT_EQ(Vals({b.start_time, b.module_active_cnt, b.modules[0].module_id, b.modules[0].time_diff,
                    b.modules[0].err_code, b.modules[1].time_diff, b.modules[2].time_diff, b.modules[3].time_diff,
                    b.modules[4].time_diff}),
              Vals({2000, 5, 70 & 63, 1000, 7, 4095, 4095, 4095, 10}));
    for (int i = 5; i < 20; ++i) update(i, 2, 2000, 0);
    EXPECT_LOGS(EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), 9, 2, 2000, 0, nullptr), -1001),
                "53@5[wl_update_moduleinfo :number of items touch to max value 20");
}

TEST_P(SeiLiveview, MissingOrMisplaced) {
    Frame f(codec(), 5);
    const size_t at = add_lv(f, lv_md(0));
    const int n = static_cast<int>(f.size()), lv = n - static_cast<int>(at);
    const std::string p = "53@1[wl_parse_lvstream_sei :", u = "53@5[wl_update_moduleinfo :";
    // {on-demand-I p22, p23 with the off bit, frame length, parser's line, update's line}
    const struct { int p22, p23, len; std::string parse, update; } rows[] = {
        {lv, 0xFF, n, p + "LvStreamInfoSEI is disabled", u + "LvStreamInfoSEI is disabled"},
        {lv, 0xF7, 0, "53@5[wl_parse_ondemandI_sei :failed to get Ondi sei\n" + p + "wl_parse_ondemandI_sei error",
         u + "wl_parse_ondemandI_sei error"},
        {0xF0, 0xF7, n, p + "find lvstream sei failed, offset " + std::to_string(n) + " is largen than the stream len "
                        "240",
         "53@1[wl_update_moduleinfo :get LvStreamInfoSEI failed, ret -1001 240"},
        {39 + 2 * h265(), 0xF7, n, "53@5[wl_parse_lvstream_sei :wl_get_lvstream_sei_info error",  // the on-demand-I SEI
         u + "wl_get_lvstream_sei_info error"},
        {lv, 0xF7, n, "53@5[wl_parse_lvstreamsei_header_payload :[LVDBG][HEADER INFO] parser: module_info_on     0",
         u + "module_info is off"},
    };
    for (auto &r : rows) {
        ondi_payload(f)[22] = static_cast<uint8_t>(r.p22), ondi_payload(f)[23] = static_cast<uint8_t>(r.p23);
        LiveviewMd md;
        EXPECT_LOGS(wl_parse_lvstream_sei(f.data(), r.len, &md, nullptr), r.parse);
        EXPECT_LOGS(EXPECT_EQ(wl_update_moduleinfo(f.data(), r.len, 1, 2, 0, 0, nullptr), -1001), r.update);
    }
}

TEST_P(SeiLiveview, ImpossibleTimebaseEndsTheProcess) {
    Frame f(codec());
    add_lv(f, lv_md(1));
    // Module 0, level 0, under the inlined step's name; the console goes to stderr for the death test.
    EXPECT_EXIT((fflush(stdout), dup2(STDERR_FILENO, STDOUT_FILENO),
                 wl_update_moduleinfo(f.data(), f.size(), 1, 0x107, 0, 0, nullptr)),
                ::testing::ExitedWithCode(255), "VASK00@0\\[ *wl_update_timebase :wl hls: invaild timebase 7");
}

INSTANTIATE_TEST_SUITE_P(Codecs, SeiLiveview, SEI_CODECS, SEI_CODEC_NAMES);

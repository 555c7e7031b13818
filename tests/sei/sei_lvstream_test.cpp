// Live-view stream SEI: layout, dummy-SEI alignment, module table updates.
#include <unistd.h>

#include "sei_test_util.h"

namespace {

// Appends the live-view SEI (after any dummy SEI) and a tail whose
// on-demand-I SEI points at it; returns the live-view SEI's frame offset.
size_t add_lv(Frame &f, const LiveviewMd &md) {
    const uint32_t before = f.size();
    uint32_t lv = 0, dummy = 0;
    f.put([&](uint8_t *d, int32_t free_len) {
        EXPECT_EQ(wl_enc_lvstream_sei(d, f.codec, free_len, before, &md, &lv, &dummy), 0);
        return lv + dummy;
    });
    f.tail();
    uint8_t *p = f.data() + f.size() - (f.h265() ? 7 + 34 - 8 : 6 + 33 - 7);
    p[22] = static_cast<uint8_t>(f.size() - before - dummy);
    p[23] &= static_cast<uint8_t>(~0x08);
    return before + dummy;
}

LiveviewMd full_md() {
    LiveviewMd md;
    wl_init_lvstream_md(&md);
    md.start_time = 0x11223344;
    md.time_base = 5;
    md.product_id = 0x2A;
    md.camera_id = 0xB;
    md.stream_id = 0x15;
    md.extension_info_on = md.module_info_on = md.codec_info_on = md.sei_info_on = 1;
    md.codec_info_size = 0x54;
    md.frm_tar_len = 0x1234;
    md.err_strategy = 9;
    md.avg_qp = 40;
    md.module_active_cnt = 2;
    md.modules[0] = {0x15, 0xABC, 5};
    md.modules[1] = {0x3F, 0x001, 2};
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
        LiveviewMd md = full_md();
        md.lite_mode = lite;
        Frame f(codec());
        const size_t at = add_lv(f, md);
        const uint8_t *q = f.data() + at + (h265() ? 9 : 8);
        // Bits no field owns keep the fill.
        EXPECT_EQ(q[0], 0x81);
        EXPECT_EQ(q[1], 0xDB | (lite << 2));
        EXPECT_EQ(q[4], 0xFF);
        EXPECT_EQ(q[9], 0xFF);
        EXPECT_EQ(q[10], 0xD7);  // codec_info_size 0x54 in bits 2-6
        // Every field fits its wire width, so the record comes back whole.
        const LiveviewMd back = parse(f);
        EXPECT_EQ(memcmp(&back, &md, offsetof(LiveviewMd, modules)), 0);
        EXPECT_EQ(back.modules[0].module_id, lite ? 0 : 0x15);
        EXPECT_EQ(back.modules[0].time_diff, 0xABC);
        EXPECT_EQ(back.modules[0].err_code, 5);
        EXPECT_EQ(back.modules[1].time_diff, 1);
        EXPECT_EQ(back.modules[1].err_code, 2);
        EXPECT_EQ(back.modules[2].time_diff, 0);  // cleared
    }
}

TEST_F(SeiLiveview, DummySeiAlignment) {
    LiveviewMd md;
    wl_init_lvstream_md(&md);
    uint8_t d[600];
    uint32_t lv = 9, dummy = 9;
    ASSERT_EQ(wl_enc_lvstream_sei(d, WL_CODEC_H264, 600, 0, &md, &lv, &dummy), 0);
    EXPECT_EQ(lv, 19u);
    EXPECT_EQ(dummy, 0u);
    // rest = need - 1: the dummy payload never drops below one byte.
    ASSERT_EQ(wl_enc_lvstream_sei(d, WL_CODEC_H264, 600, 2039, &md, &lv, &dummy), 0);
    EXPECT_EQ(dummy, 10u);
    EXPECT_EQ(Bytes(d, d + 15), (Bytes{0, 0, 0, 1, 6, 0xFF, 0xFD, 1, 0xFF, 0x80, 0, 0, 0, 1, 6}));
    // The sum is signed: frame lengths past 2 GiB give a negative rest.
    ASSERT_EQ(wl_enc_lvstream_sei(d, WL_CODEC_H264, 600, 0u - 254, &md, &lv, &dummy), 0);
    EXPECT_EQ(dummy, 254u);
    EXPECT_EQ(d[7], 245);
    memset(d, 0xEE, sizeof d);
    auto l = logs([&] { EXPECT_EQ(wl_enc_lvstream_sei(d, WL_CODEC_H264, 600, 0u - 255, &md, &lv, &dummy), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 2, "wl_calu_dummysei_len",
                    "abandon to insert a dummy sei due to too long dummy info will waste channel resource"));
    EXPECT_TRUE(has(l, 1, "wl_enc_lvstream_sei", "insert dummy sei failed, abandon to insert lvstream sei\n"));
    EXPECT_EQ(d[0], 0xEE);
    EXPECT_EQ(lv + dummy, 0u);

    l = logs([&] { EXPECT_EQ(wl_enc_lvstream_sei(d, WL_CODEC_H264, 9, 2039, &md, &lv, &dummy), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 2, "wl_calu_dummysei_len", "abandon to insert a dummy sei due to no mem"));
    // Room for the dummy SEI only: it stays written, the call fails.
    l = logs([&] { EXPECT_EQ(wl_enc_lvstream_sei(d, WL_CODEC_H264, 20, 2039, &md, &lv, &dummy), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 1, "wl_enc_lvstream_sei",
                    "the free memory is 20, not enough for insert dummy sei & lvstream sei which need 29 bytes space"));
    EXPECT_EQ(d[6], 0xFD);
    EXPECT_EQ(wl_enc_lvstream_sei(d, WL_CODEC_H264, 600, 0, nullptr, &lv, &dummy), KERM_ERR_PARAM);
}

namespace {
int32_t double_start(uint64_t *old_us, uint64_t *new_us, uint8_t *ok, uint8_t *ok2) {
    EXPECT_EQ(ok, ok2);
    *new_us = *old_us * 2;
    return 0;
}
int32_t refuse(uint64_t *, uint64_t *new_us, uint8_t *ok, uint8_t *) {
    *new_us = 1;
    *ok = 0;
    return 0;
}
}  // namespace

TEST_P(SeiLiveview, ModuleTableUpdates) {
    LiveviewMd md;
    wl_init_lvstream_md(&md);
    md.module_info_on = 1;
    md.start_time = 1000;
    Frame f(codec());
    const size_t at = add_lv(f, md);
    EXPECT_EQ(f.size() - at, 81u + (h265() ? 1 + 34 + 7 : 33 + 6));  // payload 72
    auto l = logs([&] { EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), 70, 2, 2000, 0xF, refuse), 0); });
    EXPECT_TRUE(has(l, 1, "wl_update_timebase", "failed to change time base 7 -> 2"));
    EXPECT_EQ(parse(f).time_base, 7);
    l = logs([&] { EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), 1, 2, 2000 + 4095, 1, double_start), 0); });
    EXPECT_TRUE(has(l, 5, "wl_update_timebase", "time base is changing 7 -> 2, start time is changing 1000000 -> 2000000"));
    EXPECT_EQ(count_msg(l, "time diff"), 0);
    // Only the low 8 bits of the timebase count: 0x102 is timebase 2.
    l = logs([&] { EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), 2, 0x102, 2000 + 4096, 0, nullptr), 0); });
    EXPECT_TRUE(has(l, 5, "wl_update_timebase", "time base is still 2"));
    EXPECT_TRUE(has(l, 2, "wl_update_timediff",
                    "time diff 4096 is larger than the threshold 4095, or start time is larger than end time [start "
                    "2000 end 6096]"));
    EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), 3, 2, 1999, 0, nullptr), 0);
    EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), 4, 2, 2010, 0, nullptr), 0);
    LiveviewMd back = parse(f);
    EXPECT_EQ(back.start_time, 2000u);
    EXPECT_EQ(back.module_active_cnt, 5);
    EXPECT_EQ(back.modules[0].module_id, 70 & 63);
    EXPECT_EQ(back.modules[0].time_diff, 1000);  // against the unchanged start
    EXPECT_EQ(back.modules[0].err_code, 7);
    EXPECT_EQ(back.modules[1].time_diff, 4095);
    EXPECT_EQ(back.modules[2].time_diff, 4095);
    EXPECT_EQ(back.modules[3].time_diff, 4095);  // end before start
    EXPECT_EQ(back.modules[4].time_diff, 10);
    for (int i = 5; i < 20; ++i) ASSERT_EQ(wl_update_moduleinfo(f.data(), f.size(), i, 2, 2000, 0, nullptr), 0);
    l = logs([&] { EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), 9, 2, 2000, 0, nullptr), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 5, "wl_update_moduleinfo", "number of items touch to max value 20"));
}

TEST_P(SeiLiveview, MissingOrMisplaced) {
    Frame plain(codec());
    plain.tail();
    auto l = logs([&] { parse(plain); });
    EXPECT_TRUE(has(l, 1, "wl_parse_lvstream_sei", "LvStreamInfoSEI is disabled"));
    l = logs([&] {
        LiveviewMd md;
        wl_parse_lvstream_sei(plain.data(), 0, &md, nullptr);
    });
    EXPECT_TRUE(has(l, 5, "wl_parse_ondemandI_sei", "failed to get Ondi sei"));
    EXPECT_TRUE(has(l, 1, "wl_parse_lvstream_sei", "wl_parse_ondemandI_sei error"));
    l = logs([&] { EXPECT_EQ(wl_update_moduleinfo(plain.data(), plain.size(), 1, 2, 0, 0, nullptr), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 5, "wl_update_moduleinfo", "LvStreamInfoSEI is disabled"));

    LiveviewMd md;
    wl_init_lvstream_md(&md);
    Frame f(codec(), 5);
    add_lv(f, md);
    uint8_t *p22 = f.data() + f.size() - (h265() ? 7 + 34 - 8 : 6 + 33 - 7) + 22;
    *p22 = 0xF0;
    const std::string len = std::to_string(f.size());
    l = logs([&] { parse(f); });
    EXPECT_TRUE(has(l, 1, "wl_parse_lvstream_sei", "find lvstream sei failed, offset " + len + " is largen than the stream len 240"));
    l = logs([&] { EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), 1, 2, 0, 0, nullptr), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 1, "wl_update_moduleinfo", "get LvStreamInfoSEI failed, ret -1001 240"));
    *p22 = static_cast<uint8_t>(h265() ? 41 : 39);  // the on-demand-I SEI itself
    l = logs([&] { parse(f); });
    EXPECT_TRUE(has(l, 5, "wl_parse_lvstream_sei", "wl_get_lvstream_sei_info error\n"));
    l = logs([&] { EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), 1, 2, 0, 0, nullptr), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 5, "wl_update_moduleinfo", "wl_get_lvstream_sei_info error"));
    *p22 = static_cast<uint8_t>(h265() ? 41 + 19 + 1 : 39 + 19);
    l = logs([&] { EXPECT_EQ(wl_update_moduleinfo(f.data(), f.size(), 1, 2, 0, 0, nullptr), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 5, "wl_update_moduleinfo", "module_info is off"));
}

TEST_P(SeiLiveview, ImpossibleTimebaseEndsTheProcess) {
    LiveviewMd md;
    wl_init_lvstream_md(&md);
    md.module_info_on = 1;
    Frame f(codec());
    add_lv(f, md);
    // The console line goes to stderr here so the death test can see it:
    // module 0, level 0, under the inlined step's name.
    EXPECT_EXIT(
        {
            fflush(stdout);
            dup2(STDERR_FILENO, STDOUT_FILENO);
            wl_update_moduleinfo(f.data(), f.size(), 1, 0x107, 0, 0, nullptr);
        },
        ::testing::ExitedWithCode(255), "VASK00@0\\[ *wl_update_timebase :wl hls: invaild timebase 7");
}

INSTANTIATE_TEST_SUITE_P(Codecs, SeiLiveview, SEI_CODECS, SEI_CODEC_NAMES);

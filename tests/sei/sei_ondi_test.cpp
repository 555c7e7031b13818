// On-demand-I SEI: encoder bytes, the encoder/parser asymmetry, the tail.
#include "sei_test_util.h"

using SeiOndI = SeiTest;

TEST_F(SeiOndI, EncoderBytes) {
    OndIMd md{};
    md.frm_idx = 0x00ABCDEF;
    md.avgQPy = 20;
    md.err_flag = 1;
    md.frm_len = 0x123456;
    md.exp_len = 0x81;
    md.frm_chs = 0xDEADBEEF;
    md.frm_gts = 0x01020304;
    md.extra = 0x5A;
    md.enc_time = 0x3ABC;
    md.is_I = 1;
    md.is_hdres = 1;
    uint8_t d[64];
    EXPECT_EQ(wl_enc_ondI_sei(d, 1, 33, &md), 0u);
    EXPECT_EQ(wl_enc_ondI_sei(d, 0, 33, &md), 0u);
    EXPECT_EQ(wl_enc_ondI_sei(nullptr, 1, 64, &md), 0u);
    memset(d, 0xEE, sizeof d);
    ASSERT_EQ(wl_enc_ondI_sei(d, 1, 34, &md), 33u);  // non-zero selects H.264
    const Bytes want = {0, 0, 0, 1, 6, 0xF0, 0x19, 0xEF, 0xCD, 0x29, 0xAB, 0x56, 0xFF, 0x34, 0x12, 0x81, 0xEF, 0xBE,
                        0xFF, 0xAD, 0xDE, 0xFF, 0x04, 0x03, 0xFF, 0x02, 0x01, 0xFF, 0x5A, 0xBC, 0xFF, 0xBA, 0x80, 0xEE};
    EXPECT_EQ(Bytes(d, d + 34), want);
    ASSERT_EQ(wl_enc_ondI_sei(d, 0, 34, &md), 34u);
    EXPECT_EQ(Bytes(d, d + 8), (Bytes{0, 0, 0, 1, 0x50, 1, 0xF0, 0x19}));
}

TEST_F(SeiOndI, ParserReadsTheNewerFields) {
    OndIMd md{};
    md.frm_idx = 0x01FFFFFF;  // 24 bits travel
    md.exp_len_lo = 5;
    md.exp_len = 0x81;
    md.enc_time = 0x2A7;
    uint8_t d[64];
    ASSERT_EQ(wl_enc_ondI_sei(d, 1, 64, &md), 33u);
    SeiNalInfo info{SEI_TYPE_ONDI, 33, 33, 25, d, d + 7};
    OndIMd back{};
    auto l = logs([&] { ASSERT_EQ(wl_parse_ondI_sei(&info, &back), 0); });
    EXPECT_EQ(back.frm_idx, 0xFFFFFFu);
    EXPECT_EQ(back.avgQPy, 127);  // p2 0 is sent as 0xFF
    EXPECT_EQ(back.err_flag, 1);
    EXPECT_EQ(back.err_flag2, 1);
    EXPECT_EQ(back.exp_len, 0x85);  // (5 + 0x81 * 128) & 0xFF
    EXPECT_EQ(back.err_strategy, 15);
    EXPECT_EQ(back.is_3d_lut, 127);
    EXPECT_EQ(back.is_disp, 1);
    EXPECT_EQ(back.codec_stat_off, 1);
    EXPECT_EQ(back.LvStreamInfoSEIOff, 1);
    EXPECT_EQ(back.is_normal_latency, 3);
    EXPECT_EQ(back.LvStreamInfoSEI_offset, 0xA7);  // the encode time's low byte
    EXPECT_EQ(back.enc_time, 0u);                  // never read back
    ASSERT_EQ(l.size(), 17u);
    EXPECT_EQ(l[0].msg, "[ONDI_SEI]parser: frm_idx                       16777215");
    EXPECT_EQ(l[16].msg, "[ONDI_SEI]parser: is_60fps                      0");

    ASSERT_EQ(wl_update_ondI_sei_enc_time_value(&info, 0x3F5A), 0);
    EXPECT_EQ(d[7 + 22], 0x5A);
    EXPECT_EQ(d[7 + 24], 0x3F);

    for (uint16_t bad : {24, 26}) {
        info.payload_len = bad;
        l = logs([&] { EXPECT_EQ(wl_parse_ondI_sei(&info, &back), KERM_ERR_DEST); });
        EXPECT_TRUE(has(l, 1, "wl_parse_ondI_sei", "the length of ondI is " + std::to_string(bad) + ", should be 26\n"));
    }
}

TEST_P(SeiOndI, FoundAtTheFrameEnd) {
    Frame f(codec());
    f.tail(0x4321);
    SeiNalInfo info{};
    OndIMd md{};
    uint32_t tail = 0, c = WL_CODEC_UNKNOWN;
    uint8_t found = 9;
    ASSERT_EQ(wl_parse_ondemandI_sei(f.data(), f.size(), &info, &md, &tail, &c, &found), 0);
    EXPECT_EQ(found, 1);
    EXPECT_EQ(c, codec());
    EXPECT_EQ(tail, h265() ? 41u : 39u);
    EXPECT_EQ(md.frm_idx, 0x4321u);

    f.b[f.size() - (h265() ? 7 : 6) - 28] = 0xF1;  // not an on-demand-I type
    c = WL_CODEC_UNKNOWN;
    auto l = logs([&] { EXPECT_EQ(wl_parse_ondemandI_sei(f.data(), f.size(), &info, &md, &tail, &c, &found), KERM_ERR_FAIL); });
    EXPECT_EQ(found, 0);
    EXPECT_TRUE(has(l, 5, "wl_parse_ondemandI_sei", "failed to get Ondi sei"));
}

INSTANTIATE_TEST_SUITE_P(Codecs, SeiOndI, SEI_CODECS, SEI_CODEC_NAMES);

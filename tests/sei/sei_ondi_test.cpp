// On-demand-I SEI: encoder bytes, the encoder/parser asymmetry, the tail.
#include "sei_test_util.h"

using SeiOndI = SeiTest;

TEST_F(SeiOndI, EncoderBytesAndParserView) {
    const OndIMd md{.frm_idx = 0x01ABCDEF /* 24 bits travel */, .avgQPy = 20, .err_flag = 1, .exp_len_lo = 5,
                    .frm_len = 0x123456, .exp_len = 0x81, .frm_chs = 0xDEADBEEF, .frm_gts = 0x01020304, .extra = 0x5A,
                    .enc_time = 0x3ABC, .is_I = 1, .is_hdres = 1};
    uint8_t d[40], d5[34];
    EXPECT_EQ(Vals({wl_enc_ondI_sei(d, 0, 33, &md), wl_enc_ondI_sei(d, 1, 33, &md),
                    wl_enc_ondI_sei(nullptr, 1, 40, &md)}), Vals({0, 0, 0}));
    memset(d, 0xEE, sizeof d);
    ASSERT_EQ(wl_enc_ondI_sei(d, 7, 34, &md), 33u);  // any non-zero value selects H.264
    EXPECT_EQ(hex(d, 34), "00 00 00 01 06 f0 19 ef cd 29 ab 56 05 34 12 81 ef be ff ad de ff 04 03 ff 02 01 ff 5a"
                          " bc ff ba 80 ee");
    ASSERT_EQ(wl_enc_ondI_sei(d5, 0, 34, &md), 34u);  // zero H.265
    EXPECT_EQ(hex(d5, 9) + " .. " + hex(d5 + 31, 3), "00 00 00 01 50 01 f0 19 ef .. ff ba 80");

    // The parser reads p17, p20, p22 and p23 as the newer fields.
    SeiNalInfo ondi{SEI_TYPE_ONDI, 33, 33, 25, d, d + 7};
    OndIMd b{};
    const std::string l = logs([&] { ASSERT_EQ(wl_parse_ondI_sei(&ondi, &b), 0); });
    EXPECT_EQ(Vals({b.frm_idx, b.avgQPy, b.err_flag, b.err_flag2, b.frm_len, b.exp_len, b.frm_chs, b.frm_gts, b.extra}),
              Vals({0xABCDEF, 20, 1, 1, 0x123456, 0x85, 0xDEADBEEF, 0x01020304, 0x5A}));
    EXPECT_EQ(Vals({b.err_strategy, b.is_3d_lut, b.LvStreamInfoSEI_offset, b.is_I, b.is_disp, b.codec_stat_off,
                    b.LvStreamInfoSEIOff, b.is_normal_latency, b.is_hdres, b.is_60fps, b.enc_time}),
              Vals({15, 127, 0xBC, 1, 1, 1, 1, 3, 1, 0, 0}));
    EXPECT_EQ(count(l, "\n53@5[wl_parse_ondI_sei :[ONDI_SEI]parser: "), 17);
    EXPECT_EQ(l.find("\n53@5[wl_parse_ondI_sei :[ONDI_SEI]parser: frm_idx                       11259375\n"), 0u);

    ASSERT_EQ(wl_update_ondI_sei_enc_time_value(&ondi, 0x3F5A), 0);
    EXPECT_EQ(hex(d + 7 + 22, 3), "5a ff bf");
    for (uint16_t bad : {24, 26}) {
        ondi.payload_len = bad;
        EXPECT_LOGS(EXPECT_EQ(wl_parse_ondI_sei(&ondi, &b), -1011),
                    "53@1[wl_parse_ondI_sei :the length of ondI is " + std::to_string(bad) + ", should be 26");
    }

    // Zero in p2, p5 and p8 is sent as 0xFF; the newer fields read back bit by bit.
    const OndIMd zero{};
    ASSERT_EQ(wl_enc_ondI_sei(d, 1, 34, &zero), 33u);
    EXPECT_EQ(hex(d + 7, 9), "00 00 ff 00 00 ff 00 00 ff");
    d[7 + 17] = 0x9F, d[7 + 20] = 0x85, d[7 + 23] = 0x2A, d[7 + 24] = 0x40;
    ondi.payload_len = 25;
    ASSERT_EQ(wl_parse_ondI_sei(&ondi, &b), 0);
    EXPECT_EQ(Vals({b.avgQPy, b.err_flag, b.exp_len, b.err_strategy, b.is_3d_lut, b.is_I, b.is_disp, b.codec_stat_off,
                    b.LvStreamInfoSEIOff, b.is_normal_latency, b.is_hdres, b.is_60fps}),
              Vals({127, 1, 0xFF, 9, 5, 0, 1, 0, 1, 2, 0, 1}));
}

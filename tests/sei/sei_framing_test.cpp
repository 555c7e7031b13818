// SEI framing, codec detection, the chain walk and its stop reasons.
#include "sei_test_util.h"

using namespace kerm::sei;

using SeiFraming = SeiTest;

TEST_F(SeiFraming, CodecFromClosingAud) {
    const uint8_t s[] = {0xAA, 0, 0, 0, 1, 0x46, 1, 0x50, 0, 0, 0, 1, 9, 0x10};
    // {start, length, codec, AUD length}: exactly seven bytes are never H.265; one byte more is.
    const uint32_t rows[][4] = {{7, 7, WL_CODEC_H264, 6}, {8, 6, WL_CODEC_UNKNOWN, 0}, {1, 7, WL_CODEC_UNKNOWN, 0},
                                {0, 8, WL_CODEC_H265, 7}, {0, 7, WL_CODEC_UNKNOWN, 0}};
    for (auto &r : rows) {
        uint32_t aud = 0, codec = WL_CODEC_UNKNOWN;
        wl_get_codec_type_by_aud(s + r[0], r[1], &aud, &codec);
        EXPECT_EQ(Vals({codec, aud}), Vals({r[2], r[3]})) << r[0] << "+" << r[1];
    }
}

TEST_F(SeiFraming, InitialSeiBytesAndSpace) {
    struct { uint32_t codec, type; int32_t size, free; const char *want; } rows[] = {
        {WL_CODEC_H264, SEI_TYPE_TIMING, 3, 12, "00 00 00 01 06 ff 02 03 ff ff ff 80 ee"},
        {WL_CODEC_H265, SEI_TYPE_DUMMY, 1, 11, "00 00 00 01 50 01 ff fd 01 ff 80 ee"},
        // 255 codes as FF 00 but is counted as one byte: one byte more than the space demanded.
        {WL_CODEC_H264, 255, 2, 10, "00 00 00 01 06 ff 00 02 ff ff 80 ee"},
        // From 255 payload bytes on the fill overwrites the stop byte.
        {WL_CODEC_H265, SEI_TYPE_DUMMY, 300, 320, "00 00 00 01 50 01 ff fd ff 2d ff"},
    };
    uint8_t d[320];
    for (auto &r : rows) {
        memset(d, 0xEE, sizeof d);
        ASSERT_EQ(wl_insert_initial_sei(d, r.codec, r.type, r.size, r.free), 0) << r.want;
        EXPECT_EQ(hex_like(d, r.want), r.want);
    }
    EXPECT_EQ(hex(d + 309, 2), "ff ee");
    SeiNalInfo i{0, 0, 77, 0, nullptr, nullptr};  // span_len is left alone
    ASSERT_EQ(wl_get_sei_info(d, &i, WL_CODEC_H265), 0);
    EXPECT_EQ(info(i, d), Vals({SEI_TYPE_DUMMY, 311, 77, 300, 0, 10}));
    EXPECT_LOGS(EXPECT_EQ(wl_get_sei_info(d, &i, WL_CODEC_H264), -1001),
                "53@1[wl_get_sei_info :no SEI, broken stream? first 12 bytes 00 00 00 01 50 01 ff fd ff 2d ff ff");

    EXPECT_LOGS(EXPECT_EQ(wl_insert_initial_sei(d, WL_CODEC_H265, SEI_TYPE_DUMMY, 1, 10), -1001),
                "53@1[check_sei_invalid_param :the free memory is 10, not enough for 508 sei which needs 11 bytes"
                " space\n53@1[wl_insert_initial_sei :failed to insert a 508 sei, wrong param, ret -1006");
    EXPECT_LOGS(EXPECT_EQ(wl_insert_initial_sei(nullptr, 0, 256, 1, 100), -1001),
                "53@1[wl_insert_initial_sei :failed to insert a 256 sei, wrong param, ret -1011");
}

using SeiChain = SeiTest;

TEST_P(SeiChain, WalksBackFromTheTailAndDumps) {
    Frame f(codec());
    f.chained(SEI_TYPE_DUMMY, 3);
    f.timing(timing_md(2));
    f.tail();
    const Walk w(f);
    ASSERT_EQ(Vals({w.ret, w.count}), Vals({0, 3}));
    const int h = h265(), ondi = 168 + 3 * h;
    EXPECT_EQ(info(w.e[0], f.data()), Vals({SEI_TYPE_ONDI, 33 + h, 33 + h, 25, ondi, ondi + 7 + h}));
    EXPECT_EQ(info(w.e[1], f.data()), Vals({SEI_TYPE_TIMING, 96, 106 + h, 87 - h, 62 + 2 * h, 70 + 3 * h}));
    EXPECT_EQ(info(w.e[2], f.data()), Vals({SEI_TYPE_DUMMY, 12 + h, 22 + 2 * h, 3, 40, 48 + h}));

    SeiNalInfo o;
    OndIMd md{};
    uint32_t tail = 0, c = WL_CODEC_UNKNOWN;
    uint8_t found = 9;
    ASSERT_EQ(wl_parse_ondemandI_sei(f.data(), f.size(), &o, &md, &tail, &c, &found), 0);
    EXPECT_EQ(Vals({found, c, tail, md.frm_idx}), Vals({1, codec(), 39 + 2 * h, 7}));

    const std::string l = logs([&] { wl_print_all_sei_info(w.e, 3, f.data()); });
    EXPECT_EQ(count(l, " sei: type 0101, payload len " + std::to_string(87 - h) + ", nal len 96, nal addr "), 1);
    EXPECT_EQ(count(l, ":ondI md:frm idx 7, len 0, "), 1);
    EXPECT_LOGGED(l, "53@1[wl_print_all_sei_info :print fun for sei 01fc is not ready");
}

TEST_P(SeiChain, BrokenChainEndsTheWalkWithSuccess) {
    const std::string miss = "53@1[wl_get_more_sei :no SEI indicated by juming sei, broken stream?";
    // {video bytes, jumping length (-1: a chained SEI whose size byte is one too big), log line}
    const struct { size_t video; int jump; std::string log; } rows[] = {
        {60, 0, "53@5[wl_get_more_sei :no jumping sei, stop parsing"},
        {10, 0, "53@1[wl_get_more_sei :the stream byte is too short to be parsed"},
        {40, -1, "53@1[wl_get_more_sei :sei payload: offset " + std::to_string(8 + h265()) + ", payload len 4, nal len "
                 + std::to_string(12 + h265()) + ", mismatch!!!"},
        {200, 20, miss},  // lands on video data, read as a unit without header: length mismatch
        {5, 5000, miss},  // before the buffer start: not read there
    };
    for (auto &r : rows) {
        Frame f(codec(), r.video);
        if (r.jump < 0) f.chained(SEI_TYPE_DUMMY, 3), f.b[r.video + 7 + h265()] = 4;
        if (r.jump > 0) f.jumping(r.jump);
        f.tail();
        EXPECT_LOGS(EXPECT_EQ(Vals({Walk(f).ret, Walk(f).count}), Vals({0, 1})) << r.log, r.log);
    }
}

TEST_P(SeiChain, MaxCountAndMissingTail) {
    Frame f(codec());
    for (int i = 0; i < 16; ++i) f.chained(SEI_TYPE_DUMMY, i + 1);
    f.tail();
    const Walk w(f, 17);
    EXPECT_EQ(Vals({w.ret, w.count, w.e[16].payload_len}), Vals({0, 17, 1}));
    EXPECT_LOGS(EXPECT_EQ(Vals({Walk(f, 16).ret, Walk(f, 16).count}), Vals({-1001, 0})),
                "53@1[wl_get_all_sei_nal_info :The total number of SEI is 16, exceed the max allowed cnt 16");
    EXPECT_LOGS(EXPECT_EQ(Walk(f, 0).ret, -1001),
                "53@1[wl_get_more_sei :can't parse sei, because exceed the max allowed cnt 0");
    // Exactly the tail's length is too short to hold the on-demand-I SEI.
    Frame t(codec(), 0);
    t.tail();
    EXPECT_LOGS(EXPECT_EQ(Walk(t).ret, -1001), "53@1[wl_get_more_sei :failed to get OndI sei");
    t.b.insert(t.b.begin(), 0);
    EXPECT_EQ(Walk(t).ret, 0);
    t.b[6 + h265()] = 0xF1;  // not an on-demand-I type
    EXPECT_EQ(Walk(t).ret, -1001);
}

INSTANTIATE_TEST_SUITE_P(Codecs, SeiChain, SEI_CODECS, SEI_CODEC_NAMES);

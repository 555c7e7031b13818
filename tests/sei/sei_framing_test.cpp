// SEI framing, codec detection, the chain walk and its stop reasons.
#include "sei_test_util.h"

using namespace kerm::sei;

namespace {

struct Walk {
    int32_t ret;
    uint32_t count;
    std::vector<SeiNalInfo> e;
};

Walk walk(Frame &f, int32_t max_cnt = 16, uint32_t len = 0) {
    Walk w{0, 99, std::vector<SeiNalInfo>(max_cnt > 0 ? max_cnt : 1)};
    w.ret = wl_get_all_sei_nal_info(f.data(), len ? len : f.size(), max_cnt, &w.count, w.e.data());
    return w;
}

}  // namespace

using SeiFraming = SeiTest;

TEST_F(SeiFraming, CodecFromClosingAud) {
    uint32_t aud = 0, codec = WL_CODEC_UNKNOWN;
    const uint8_t h264[] = {0xAA, 0, 0, 0, 1, 9, 0x10};
    wl_get_codec_type_by_aud(h264, 7, &aud, &codec);
    EXPECT_EQ(codec, WL_CODEC_H264);
    EXPECT_EQ(aud, 6u);
    // Exactly seven bytes are never taken for H.265; one byte more is.
    const uint8_t h265[] = {0xAA, 0, 0, 0, 1, 0x46, 1, 0x50};
    aud = 0, codec = WL_CODEC_UNKNOWN;
    wl_get_codec_type_by_aud(h265 + 1, 7, &aud, &codec);
    EXPECT_EQ(codec, WL_CODEC_UNKNOWN);
    EXPECT_EQ(aud, 0u);
    wl_get_codec_type_by_aud(h265, 8, &aud, &codec);
    EXPECT_EQ(codec, WL_CODEC_H265);
    EXPECT_EQ(aud, 7u);
    aud = 0, codec = WL_CODEC_UNKNOWN;
    wl_get_codec_type_by_aud(h264 + 1, 6, &aud, &codec);  // too short
    wl_get_codec_type_by_aud(h265, 7, &aud, &codec);      // no AUD at the end
    EXPECT_EQ(codec, WL_CODEC_UNKNOWN);
    EXPECT_EQ(aud, 0u);
}

TEST_F(SeiFraming, InitialSeiBytesAndSpace) {
    uint8_t d[600];
    memset(d, 0xEE, sizeof d);
    ASSERT_EQ(wl_insert_initial_sei(d, WL_CODEC_H264, SEI_TYPE_TIMING, 3, 12), 0);
    const uint8_t want4[] = {0, 0, 0, 1, 6, 0xFF, 2, 3, 0xFF, 0xFF, 0xFF, 0x80, 0xEE};
    EXPECT_EQ(Bytes(d, d + 13), Bytes(want4, want4 + 13));
    ASSERT_EQ(wl_insert_initial_sei(d, WL_CODEC_H265, SEI_TYPE_DUMMY, 1, 11), 0);
    const uint8_t want5[] = {0, 0, 0, 1, 0x50, 1, 0xFF, 0xFD, 1, 0xFF, 0x80};
    EXPECT_EQ(Bytes(d, d + 11), Bytes(want5, want5 + 11));

    auto l = logs([&] { EXPECT_EQ(wl_insert_initial_sei(d, WL_CODEC_H265, SEI_TYPE_DUMMY, 1, 10), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 1, "check_sei_invalid_param", "the free memory is 10, not enough for 508 sei which needs 11 bytes space"));
    EXPECT_TRUE(has(l, 1, "wl_insert_initial_sei", "failed to insert a 508 sei, wrong param, ret -1006"));
    l = logs([&] { EXPECT_EQ(wl_insert_initial_sei(nullptr, 0, 256, 1, 100), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 1, "wl_insert_initial_sei", "failed to insert a 256 sei, wrong param, ret -1011"));

    // Type 255 codes as FF 00 but is counted as one byte: the unit is one
    // byte longer than the space the test demanded.
    memset(d, 0xEE, sizeof d);
    ASSERT_EQ(wl_insert_initial_sei(d, WL_CODEC_H264, 255, 2, 10), 0);
    const uint8_t want255[] = {0, 0, 0, 1, 6, 0xFF, 0, 2, 0xFF, 0xFF, 0x80, 0xEE};
    EXPECT_EQ(Bytes(d, d + 12), Bytes(want255, want255 + 12));
    // From 255 payload bytes on the fill overwrites the stop byte.
    memset(d, 0xEE, sizeof d);
    ASSERT_EQ(wl_insert_initial_sei(d, WL_CODEC_H264, 256, 300, 600), 0);
    EXPECT_EQ(d[5 + 2 + 2 + 300 - 1], 0xFF);
    EXPECT_EQ(d[5 + 2 + 2 + 300], 0xEE);
}

TEST_F(SeiFraming, SeiInfoAtAddress) {
    Frame f(WL_CODEC_H265, 0);
    f.chained(SEI_TYPE_DUMMY, 300);
    SeiNalInfo i{};
    i.span_len = 77;
    ASSERT_EQ(wl_get_sei_info(f.data(), &i, WL_CODEC_H265), 0);
    EXPECT_EQ(i.type, SEI_TYPE_DUMMY);
    EXPECT_EQ(i.payload_len, 300);
    EXPECT_EQ(i.payload_addr - f.data(), 10);  // header 6, FF FD, FF 2D
    EXPECT_EQ(i.sei_len, 311);
    EXPECT_EQ(i.span_len, 77);  // untouched
    auto l = logs([&] { EXPECT_EQ(wl_get_sei_info(f.data(), &i, WL_CODEC_H264), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 1, "wl_get_sei_info", "no SEI, broken stream? first 12 bytes 00 00 00 01 50 01 ff fd ff 2d ff ff\n"));
    // The bounded form stops at the buffer end instead of reading on.
    EXPECT_EQ(get_sei_info_bounded(f.data(), 8, &i, WL_CODEC_H265), KERM_ERR_FAIL);
    EXPECT_EQ(get_sei_info_bounded(f.data(), 4, &i, WL_CODEC_H265), KERM_ERR_FAIL);
    EXPECT_EQ(get_sei_info_bounded(f.data(), 10, &i, WL_CODEC_H265), 0);
}

using SeiChain = SeiTest;

TEST_P(SeiChain, WalksBackFromTheTail) {
    Frame f(codec());
    f.chained(SEI_TYPE_DUMMY, 3);
    f.timing(timing_md(2));
    f.tail();
    Walk w = walk(f);
    ASSERT_EQ(w.ret, 0);
    ASSERT_EQ(w.count, 3u);
    const uint32_t ondi_len = h265() ? 34 : 33, aud = h265() ? 7 : 6;
    EXPECT_EQ(w.e[0].type, SEI_TYPE_ONDI);
    EXPECT_EQ(w.e[0].sei_len, ondi_len);
    EXPECT_EQ(w.e[0].span_len, ondi_len);
    EXPECT_EQ(w.e[0].payload_len, 25);
    EXPECT_EQ(w.e[0].nal_addr, f.data() + f.size() - ondi_len - aud);
    EXPECT_EQ(w.e[0].payload_addr, w.e[0].nal_addr + (h265() ? 8 : 7));
    EXPECT_EQ(w.e[1].type, SEI_TYPE_TIMING);
    EXPECT_EQ(w.e[1].sei_len, 96);
    EXPECT_EQ(w.e[1].span_len, 96 + f.jlen());
    EXPECT_EQ(w.e[1].payload_len, h265() ? 86 : 87);
    EXPECT_EQ(w.e[1].nal_addr, w.e[0].nal_addr - w.e[1].span_len);
    EXPECT_EQ(w.e[1].payload_addr, w.e[1].nal_addr + (h265() ? 9 : 8));
    EXPECT_EQ(w.e[2].type, SEI_TYPE_DUMMY);
    EXPECT_EQ(w.e[2].payload_len, 3);
    EXPECT_EQ(w.e[2].nal_addr, f.data() + 40);
}

TEST_P(SeiChain, StopsQuietlyOnABrokenChain) {
    Frame bare(codec(), 60);
    bare.tail();
    auto l = logs([&] {
        Walk w = walk(bare);
        EXPECT_EQ(w.ret, 0);
        EXPECT_EQ(w.count, 1u);
    });
    EXPECT_TRUE(has(l, 5, "wl_get_more_sei", "no jumping sei, stop parsing\n"));

    Frame tiny(codec(), 10);  // ten bytes before the tail
    tiny.tail();
    l = logs([&] { EXPECT_EQ(walk(tiny).count, 1u); });
    EXPECT_TRUE(has(l, 1, "wl_get_more_sei", "the stream byte is too short to be parsed\n"));

    Frame bad(codec());
    bad.timing(timing_md(1));
    bad.b[bad.size() - 3] = 97;  // jumping length one too long
    bad.tail();
    l = logs([&] {
        Walk w = walk(bad);
        EXPECT_EQ(w.ret, 0);
        EXPECT_EQ(w.count, 1u);
    });
    EXPECT_EQ(count_msg(l, "sei payload: offset "), 1);

    // A jump landing on video data: logged, then the unit is read from there
    // as if it had no header, which here fails the length test.
    Frame miss(codec(), 200);
    miss.jumping(20);
    miss.tail();
    l = logs([&] { EXPECT_EQ(walk(miss).count, 1u); });
    EXPECT_TRUE(has(l, 1, "wl_get_more_sei", "no SEI indicated by juming sei, broken stream?\n"));

    // A jump past the start of the buffer ends the walk without reading there.
    Frame past(codec(), 5);
    past.jumping(5000);
    past.tail();
    l = logs([&] { EXPECT_EQ(walk(past).count, 1u); });
    EXPECT_TRUE(has(l, 1, "wl_get_more_sei", "no SEI indicated by juming sei, broken stream?\n"));
}

TEST_P(SeiChain, MaxCountAndMissingTail) {
    Frame f(codec());
    for (int i = 0; i < 15; ++i) f.chained(SEI_TYPE_DUMMY, i + 1);
    f.tail();
    Walk w = walk(f, 16);
    EXPECT_EQ(w.ret, 0);
    EXPECT_EQ(w.count, 16u);
    EXPECT_EQ(w.e[15].payload_len, 1);

    Frame g(codec());
    for (int i = 0; i < 16; ++i) g.chained(SEI_TYPE_DUMMY, 1);
    g.tail();
    auto l = logs([&] {
        Walk x = walk(g, 16);
        EXPECT_EQ(x.ret, KERM_ERR_FAIL);
        EXPECT_EQ(x.count, 0u);
    });
    EXPECT_TRUE(has(l, 1, "wl_get_all_sei_nal_info", "The total number of SEI is 16, exceed the max allowed cnt 16\n"));
    l = logs([&] { EXPECT_EQ(walk(g, 0).ret, KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 1, "wl_get_more_sei", "can't parse sei, because exceed the max allowed cnt 0\n"));

    // Tail length exactly: too short to hold the on-demand-I SEI.
    Frame t(codec(), 0);
    t.tail();
    l = logs([&] { EXPECT_EQ(walk(t).ret, KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 1, "wl_get_more_sei", "failed to get OndI sei\n"));
    t.b.insert(t.b.begin(), 0);
    EXPECT_EQ(walk(t).ret, 0);
}

TEST_P(SeiChain, DumpNamesEveryEntry) {
    Frame f(codec());
    f.timing(timing_md(1));
    f.tail(0x123);
    Walk w = walk(f);
    auto l = logs([&] { wl_print_all_sei_info(w.e.data(), 2, f.data()); });
    EXPECT_EQ(count_msg(l, " sei: type 00f0, payload len 25, nal len "), 1);
    EXPECT_EQ(count_msg(l, " sei: type 0101, payload len "), 1);
    EXPECT_EQ(count_msg(l, "ondI md:frm idx 291, len 0"), 1);
    EXPECT_TRUE(has(l, 1, "wl_print_all_sei_info", "print fun for sei 0101 is not ready\n"));
}

INSTANTIATE_TEST_SUITE_P(Codecs, SeiChain, SEI_CODECS, SEI_CODEC_NAMES);

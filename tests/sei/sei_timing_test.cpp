// Timing SEI: record, wire bytes, in-place stamps and timebase conversion.
#include "sei_test_util.h"

using SeiTiming = SeiTest;

TEST_P(SeiTiming, WireBytes) {
    TimingMd md{};
    md.flags = 0xA3;
    md.flags2 = 0x7E;
    md.sensor_time = 0x0102030405060708ull;
    md.item_cnt = 2;
    md.items[0] = {0x1234, 0xA1B2C3D4};
    md.items[1] = {0x05, 0x00000010};
    uint8_t d[200];
    memset(d, 0xEE, sizeof d);
    EXPECT_EQ(wl_enc_timing_sei(d, codec(), 106, &md), 0u);
    EXPECT_EQ(d[0], 0xEE);
    ASSERT_EQ(wl_enc_timing_sei(d, codec(), 107, &md), h265() ? 107u : 106u);
    Bytes want = h265() ? Bytes{0, 0, 0, 1, 0x50, 1, 0xFF, 2, 86} : Bytes{0, 0, 0, 1, 6, 0xFF, 2, 87};
    const Bytes payload = {0x00, 0xA3, 0x7E, 0x08, 0x07, 0xFF, 0x06, 0x05, 0xFF, 0x04, 0x03, 0xFF, 0x02, 0x01,
                           0x34, 0xD4, 0xC3, 0xFF, 0xB2, 0xA1, 0x05, 0x10, 0x00, 0xFF, 0x00, 0x00};
    want.insert(want.end(), payload.begin(), payload.end());
    want.resize(95, 0xFF);
    want.push_back(0x80);
    const Bytes jump = h265() ? Bytes{0, 0, 0, 1, 0x50, 1, 0xEF, 2, 0x60, 0, 0x80} : Bytes{0, 0, 0, 1, 6, 0xEF, 2, 0x60, 0, 0x80};
    want.insert(want.end(), jump.begin(), jump.end());
    want.push_back(0xEE);
    EXPECT_EQ(Bytes(d, d + want.size()), want);
}

TEST_P(SeiTiming, TwelveSlotsOnTheWire) {
    TimingMd md = timing_md(20, 3);
    EXPECT_EQ(md.item_cnt, 20);
    Frame f(codec());
    auto l = logs([&] { f.timing(md); });
    EXPECT_EQ(count_msg(l, "timing sei is full, no enough space for new item idx 12"), 1);
    EXPECT_EQ(count_msg(l, "timing sei is full"), 1);
    f.tail();
    SeiNalInfo e[4];
    uint32_t n = 0;
    ASSERT_EQ(wl_get_all_sei_nal_info(f.data(), f.size(), 4, &n, e), 0);
    TimingMd back;
    memset(&back, 0xAB, sizeof back);
    ASSERT_EQ(wl_parse_timing_sei(&e[1], &back), 0);
    EXPECT_EQ(back.item_cnt, 12);
    EXPECT_EQ(back.flags, 0x13);  // timebase 3, sync
    EXPECT_EQ(back.sensor_time, 1000000u);
    EXPECT_EQ(back.items[11].dev, 0x1Bu);
    EXPECT_EQ(back.items[11].ts, 1011u);
    EXPECT_EQ(back.items[12].dev, 0u);  // cleared

    // A stamped frame is full: one more device cannot add itself.
    l = logs([&] { EXPECT_EQ(wl_insert_new_ts_direct(f.data(), f.size(), 9, 3, 5), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 1, "wl_insert_new_ts_stream", "no extra space for new timing info 9, ts 5\n"));
}

TEST_F(SeiTiming, RecordAppend) {
    TimingMd md{};
    md.flags = 0xE0;
    ASSERT_EQ(wl_insert_new_ts_md(&md, 1, 4, 0x80000005u), 0);
    EXPECT_EQ(md.flags, 0xF4);
    EXPECT_EQ(md.sensor_time, 0x80000005ull * 1000);  // 64-bit product of the unmasked ts
    EXPECT_EQ(md.items[0].ts, 5u);
    auto l = logs([&] { EXPECT_EQ(wl_insert_new_ts_md(&md, 2, 5, 9), 0); });
    EXPECT_TRUE(has(l, 2, "wl_insert_new_ts_md", "WARN: insert a timing md: ts 9, new base 5 is different from existed base 4\n"));
    EXPECT_EQ(md.flags & 0xF, 4);
    l = logs([&] { EXPECT_EQ(wl_insert_new_ts_md(&md, 2, 7, 9), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 1, "wl_insert_new_ts_md", "invalid timebase 7\n"));
    md.item_cnt = 32;
    EXPECT_EQ(wl_insert_new_ts_md(&md, 2, 4, 9), KERM_ERR_FAIL);
    EXPECT_EQ(wl_insert_new_ts_md(nullptr, 2, 4, 9), KERM_ERR_FAIL);
}

TEST_P(SeiTiming, StampsInPlace) {
    Frame f(codec());
    f.timing(timing_md(1));
    f.tail();
    // The wire path keeps all 32 bits of the timestamp.
    ASSERT_EQ(wl_insert_new_ts_direct(f.data(), f.size(), 0x42, 2, 0x80000005u), 0);
    SeiNalInfo e[4];
    uint32_t n = 0;
    ASSERT_EQ(wl_get_all_sei_nal_info(f.data(), f.size(), 4, &n, e), 0);
    TimingMd md;
    ASSERT_EQ(wl_parse_timing_sei(&e[1], &md), 0);
    ASSERT_EQ(md.item_cnt, 2);
    EXPECT_EQ(md.items[1].dev, 0x42u);
    EXPECT_EQ(md.items[1].ts, 0x80000005u);
    // Device 255 reads as a free slot: it and everything after it vanish.
    ASSERT_EQ(wl_insert_new_ts_stream(&e[1], 0xFF, 2, 1), 0);
    ASSERT_EQ(wl_insert_new_ts_stream(&e[1], 0x43, 2, 1), 0);  // lands on the same slot
    ASSERT_EQ(wl_parse_timing_sei(&e[1], &md), 0);
    EXPECT_EQ(md.item_cnt, 3);
    EXPECT_EQ(md.items[2].dev, 0x43u);

    SeiNalInfo empty = e[1];
    empty.payload_len = 0;
    EXPECT_EQ(wl_insert_new_ts_stream(&empty, 1, 2, 3), KERM_ERR_FAIL);

    Frame none(codec());
    none.tail();
    EXPECT_EQ(wl_insert_new_ts_direct(none.data(), none.size(), 1, 2, 3), KERM_ERR_FAIL);
}

namespace {
int g_calls;
int32_t shift_ts(uint64_t sensor_us, int64_t ts, uint32_t tb, uint32_t *out, uint8_t *new_tb) {
    if (++g_calls == 3) return -7;
    *out = static_cast<uint32_t>(ts + static_cast<int64_t>(sensor_us / 1000) + tb);
    *new_tb = 6;
    return 0;
}
}  // namespace

TEST_P(SeiTiming, TimebaseConversion) {
    Frame f(codec());
    TimingMd md = timing_md(4, 1);
    md.items[0].ts = 0xFFFFFFFEu;  // -2 as a signed timestamp
    f.timing(md);
    f.tail();
    SeiNalInfo e[4];
    uint32_t n = 0;
    ASSERT_EQ(wl_get_all_sei_nal_info(f.data(), f.size(), 4, &n, e), 0);
    uint8_t *filler = e[1].payload_addr + 20 + 3;  // item 1's filler byte: not a timestamp byte
    *filler = 0x5A;
    g_calls = 0;
    auto l = logs([&] { EXPECT_EQ(wl_transform_timing_sei(&e[1], shift_ts), KERM_ERR_FAIL); });
    EXPECT_TRUE(has(l, 1, "wl_transform_timing_sei", "failed to do timestamp transformation, ret -7\n"));
    TimingMd back;
    wl_parse_timing_sei(&e[1], &back);
    EXPECT_EQ(back.items[0].ts, 1000u - 2 + 1);
    EXPECT_EQ(back.items[1].ts, 1001u + 1000 + 1);
    EXPECT_EQ(back.items[2].ts, 1002u);  // the failing one stays
    EXPECT_EQ(*filler, 0x5A);
    EXPECT_EQ(back.flags & 0xF, 1);

    g_calls = -10;
    ASSERT_EQ(wl_transform_timing_sei(&e[1], shift_ts), 0);
    wl_parse_timing_sei(&e[1], &back);
    EXPECT_EQ(back.flags, 0x16);
    EXPECT_EQ(back.items[3].ts, 1003u + 1000 + 1);

    SeiNalInfo short_sei = e[1];
    short_sei.payload_len = 17;
    l = logs([&] { EXPECT_EQ(wl_transform_timing_sei(&short_sei, shift_ts), KERM_ERR_FAIL); });
    EXPECT_EQ(count_msg(l, "the payload len of timing sei is smaller than 18 bytes"), 1);
    EXPECT_EQ(wl_transform_timing_sei(&e[1], nullptr), KERM_ERR_FAIL);
}

INSTANTIATE_TEST_SUITE_P(Codecs, SeiTiming, SEI_CODECS, SEI_CODEC_NAMES);

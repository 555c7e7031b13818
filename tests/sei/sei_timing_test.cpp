// Timing SEI: record, wire bytes, in-place stamps and timebase conversion.
#include "sei_test_util.h"

using SeiTiming = SeiTest;

TEST_P(SeiTiming, WireBytes) {
    const TimingMd md{.flags = 0xA3, .flags2 = 0x7E, .sensor_time = 0x0102030405060708ull, .item_cnt = 2,
                      .items = {{0x1234, 0xA1B2C3D4}, {0x05, 0x00000010}}};
    uint8_t d[120];
    memset(d, 0xEE, sizeof d);
    EXPECT_EQ(wl_enc_timing_sei(d, codec(), 106, &md), 0u);
    EXPECT_EQ(d[0], 0xEE);
    ASSERT_EQ(wl_enc_timing_sei(d, codec(), 107, &md), 106u + h265());
    const std::string nal = h265() ? "00 00 00 01 50 01" : "00 00 00 01 06";
    std::string want = nal + (h265() ? " ff 02 56" : " ff 02 57") + " 00 a3 7e 08 07 ff 06 05 ff 04 03 ff 02 01"
                                                                  " 34 d4 c3 ff b2 a1 05 10 00 ff 00 00";
    for (int i = 34 + h265(); i < 95; ++i) want += " ff";
    want += " 80 " + nal + " ef 02 60 00 80 ee";
    EXPECT_EQ(hex_like(d, want), want);
}

TEST_F(SeiTiming, RecordAppend) {
    TimingMd md{.flags = 0xE0};
    ASSERT_EQ(wl_insert_new_ts_md(&md, 1, 4, 0x80000005u), 0);
    // The record keeps 31 bits of the timestamp, the sensor time the 64-bit product of all 32.
    EXPECT_EQ(Vals({md.flags, md.items[0].ts}), Vals({0xF4, 5}));
    EXPECT_EQ(md.sensor_time, 0x80000005ull * 1000);
    EXPECT_LOGS(EXPECT_EQ(wl_insert_new_ts_md(&md, 2, 5, 9), 0),
                "53@2[wl_insert_new_ts_md :WARN: insert a timing md: ts 9, new base 5 is different from existed "
                "base 4");
    EXPECT_EQ(md.flags, 0xF4);
    EXPECT_LOGS(EXPECT_EQ(wl_insert_new_ts_md(&md, 2, 7, 9), -1001), "53@1[wl_insert_new_ts_md :invalid timebase 7");
    md.item_cnt = 32;
    EXPECT_EQ(wl_insert_new_ts_md(&md, 2, 4, 9), -1001);
    EXPECT_EQ(wl_insert_new_ts_md(nullptr, 2, 4, 9), -1001);
}

TEST_P(SeiTiming, TwelveSlotsOnTheWire) {
    Frame f(codec());
    const std::string l = logs([&] { f.timing(timing_md(20, 3)); });
    EXPECT_EQ(count(l, "timing sei is full"), 1);
    EXPECT_LOGGED(l, "53@1[wl_enc_timing_sei :timing sei is full, no enough space for new item idx 12");
    f.tail();
    const TimingMd md = parsed(Walk(f).e[1]);
    EXPECT_EQ(Vals({md.item_cnt, md.flags, md.items[11].dev, md.items[11].ts, md.items[12].dev}),
              Vals({12, 0x13, 0x1B, 1011, 0}));  // timebase 3 with sync; the rest cleared
    EXPECT_EQ(md.sensor_time, 1000000u);
    // A stamped frame is full: one more device cannot add itself.
    EXPECT_LOGS(EXPECT_EQ(wl_insert_new_ts_direct(f.data(), f.size(), 9, 3, 5), -1001),
                "53@1[wl_insert_new_ts_stream :no extra space for new timing info 9, ts 5");
    Frame none(codec());
    none.tail();
    EXPECT_EQ(wl_insert_new_ts_direct(none.data(), none.size(), 1, 2, 3), -1001);
}

TEST_P(SeiTiming, StampsAndConversionInPlace) {
    Frame f(codec());
    TimingMd md = timing_md(3, 1);
    md.items[0].ts = 0xFFFFFFFEu;  // -2 as a signed timestamp
    f.timing(md);
    f.tail();
    // The wire path keeps all 32 bits of the timestamp.
    ASSERT_EQ(wl_insert_new_ts_direct(f.data(), f.size(), 0x42, 1, 0x80000005u), 0);
    SeiNalInfo t = Walk(f).e[1];
    md = parsed(t);
    EXPECT_EQ(Vals({md.item_cnt, md.items[3].dev, md.items[3].ts}), Vals({4, 0x42, 0x80000005u}));
    // Device 255 reads as a free slot: the next stamp lands on the same slot.
    ASSERT_EQ(wl_insert_new_ts_stream(&t, 0xFF, 1, 1), 0);
    ASSERT_EQ(wl_insert_new_ts_stream(&t, 0x43, 1, 1003), 0);
    EXPECT_EQ(Vals({parsed(t).item_cnt, parsed(t).items[4].dev}), Vals({5, 0x43}));

    static int calls;
    calls = 0;  // both codecs run this
    auto shift = [](uint64_t sensor_us, int64_t ts, uint32_t tb, uint32_t *out, uint8_t *new_tb) -> int32_t {
        *out = static_cast<uint32_t>(ts + static_cast<int64_t>(sensor_us / 1000) + tb), *new_tb = 6;
        return ++calls == 3 ? -7 : 0;
    };
    t.payload_addr[20 + 3] = 0x5A;  // item 1's filler byte: not a timestamp byte
    EXPECT_LOGS(EXPECT_EQ(wl_transform_timing_sei(&t, shift), -1001),
                "53@1[wl_transform_timing_sei :failed to do timestamp transformation, ret -7");
    // Converted items stay converted; the failing one and the timebase do not change.
    md = parsed(t);
    EXPECT_EQ(Vals({md.items[0].ts, md.items[1].ts, md.items[2].ts, md.flags, t.payload_addr[23]}),
              Vals({1000 - 2 + 1, 1001 + 1000 + 1, 1002, 0x11, 0x5A}));
    calls = -10;
    ASSERT_EQ(wl_transform_timing_sei(&t, shift), 0);
    md = parsed(t);
    EXPECT_EQ(Vals({md.flags, md.items[4].ts}), Vals({0x16, 1003 + 1000 + 1}));

    EXPECT_EQ(wl_transform_timing_sei(&t, nullptr), -1001);
    t.payload_len = 17;
    EXPECT_LOGS(EXPECT_EQ(wl_transform_timing_sei(&t, shift), -1001),
                "53@1[wl_transform_timing_sei :the payload len of timing sei is smaller than 18 bytes, invalid");
    t.payload_len = 0;
    EXPECT_EQ(wl_insert_new_ts_stream(&t, 1, 2, 3), -1001);
}

INSTANTIATE_TEST_SUITE_P(Codecs, SeiTiming, SEI_CODECS, SEI_CODEC_NAMES);

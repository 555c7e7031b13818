// TLV codecs: layout, walking, truncation, and the fatal overflow on add.
#include <string.h>
#include <sys/mman.h>

#include <utility>

#include "kerm_tlv.h"
#include "support/scratch_dir.h"

// Headers are in native order; the target is little-endian.
TEST(Tlv, RecordsPackBackToBackAndWalkBack) {
    uint8_t dd[17], ss[2 + 255 + 2], value[255], *cur = dd;
    memset(dd, 0xCC, sizeof dd);
    int32_t rem = 16;
    EXPECT_EQ(ddtlv_add(&cur, &rem, 0x0102, 3, "abc"), 9);
    EXPECT_EQ(ddtlv_add(&cur, &rem, 0xBEEF, 0, nullptr), 5);
    EXPECT_EQ(ddtlv_add(&cur, &rem, 7, 1, "z"), 0);  // exactly fills
    EXPECT_EQ(memcmp(dd, "\x02\x01\x03\x00" "abc" "\xEF\xBE\x00\x00" "\x07\x00\x01\x00" "z\xCC", 17), 0);
    cur = dd;
    rem = 16;
    for (int at : {0, 7, 11}) EXPECT_EQ(ddtlv_get_next(&cur, &rem), dd + at);
    EXPECT_EQ(rem, 0);
    EXPECT_EQ(ddtlv_get_next(&cur, &rem), nullptr);

    for (int i = 0; i < 255; ++i) value[i] = static_cast<uint8_t>(i);
    cur = ss;
    rem = sizeof ss;
    EXPECT_EQ(sstlv_add(&cur, &rem, 0xA5, 255, value), 2);  // the longest value
    EXPECT_EQ(sstlv_add(&cur, &rem, 0x5A, 0, nullptr), 0);
    EXPECT_EQ(memcmp(ss + 2, value, 255), 0);
    EXPECT_EQ(ss[0] << 8 | ss[1], 0xA5FF);
    EXPECT_EQ(ss[257] << 8 | ss[258], 0x5A00);
    cur = ss;
    rem = sizeof ss;
    EXPECT_EQ(sstlv_get_next(&cur, &rem), ss);
    EXPECT_EQ(sstlv_get_next(&cur, &rem), ss + 257);
}

TEST(Tlv, ShortTruncatedOrNullInputStopsWithoutMovingOrWriting) {
    // Fewer bytes than a header: nothing is read (the page is inaccessible).
    void *guard = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    uint8_t *cur = static_cast<uint8_t *>(guard);
    for (int32_t rem : {3, -5}) EXPECT_EQ(ddtlv_get_next(&cur, &rem), nullptr);
    int32_t rem = 1;
    EXPECT_EQ(sstlv_get_next(&cur, &rem), nullptr);
    munmap(guard, 4096);

    // Lengths running past the remaining bytes by one.
    uint8_t buf[8] = {1, 0, 5, 0, 'a', 'b', 'c', 'd'}, *none = nullptr;
    cur = buf;
    rem = 8;
    EXPECT_EQ(ddtlv_get_next(&cur, &rem), nullptr);
    EXPECT_EQ(std::pair(cur, rem), std::pair(buf, 8));
    cur = buf + 1;  // ss: type 0, length 5
    rem = 6;
    EXPECT_EQ(sstlv_get_next(&cur, &rem), nullptr);
    EXPECT_EQ(std::pair(cur, rem), std::pair(buf + 1, 6));
    EXPECT_EQ(ddtlv_add(nullptr, &rem, 1, 0, nullptr), KERM_ERR_PARAM);
    EXPECT_EQ(ddtlv_add(&none, &rem, 1, 0, nullptr), KERM_ERR_PARAM);
    EXPECT_EQ(ddtlv_add(&cur, nullptr, 1, 0, nullptr), KERM_ERR_PARAM);
    EXPECT_EQ(sstlv_add(&cur, &rem, 1, 2, nullptr), KERM_ERR_PARAM);
    EXPECT_EQ(memcmp(buf, "\x01\x00\x05\x00" "abcd", 8), 0);
    EXPECT_EQ(sstlv_get_next(&none, &rem), nullptr);
    EXPECT_EQ(ddtlv_get_next(&cur, nullptr), nullptr);
}

// Overflow: the record lands first (past the caller's count), then the
// process reports on stdout and exits. A shared page lets the parent see the
// write the child made.
TEST(TlvDeathTest, OverflowWritesTheRecordThenExits) {
    GTEST_FLAG_SET(death_test_style, "fast");
    auto *page = static_cast<uint8_t *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    uint8_t *cur = page;
    int32_t rem = 10;
    KERM_EXPECT_EXIT_PRINTING(ddtlv_add(&cur, &rem, 0x4242, 7, "1234567"), "^assert fail\n$");  // one byte too many
    EXPECT_EQ(memcmp(page, "\x42\x42\x07\x00" "1234567", 11), 0);
    cur = page + 100;
    rem = 2;
    KERM_EXPECT_EXIT_PRINTING(sstlv_add(&cur, &rem, 0x11, 1, "x"), "^assert fail\n$");
    EXPECT_EQ(memcmp(page + 100, "\x11\x01x", 3), 0);
    // A negative count (signed comparison) fails even an empty record.
    rem = -1;
    KERM_EXPECT_EXIT_PRINTING(ddtlv_add(&cur, &rem, 1, 0, nullptr), "^assert fail\n$");
    munmap(page, 4096);
}

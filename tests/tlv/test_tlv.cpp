// TLV codecs: layout, walking, truncation, and the fatal overflow on add.
#include <gtest/gtest.h>

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "kerm_tlv.h"

namespace {

uint16_t u16_at(const uint8_t *p) {
    uint16_t v;
    memcpy(&v, p, 2);
    return v;
}

TEST(Tlv, DdRecordsPackBackToBackAndWalkBack) {
    uint8_t buf[20];
    memset(buf, 0xCC, sizeof buf);
    uint8_t *cur = buf;
    int32_t rem = 16;
    EXPECT_EQ(ddtlv_add(&cur, &rem, 0x0102, 3, "abc"), 9);
    EXPECT_EQ(ddtlv_add(&cur, &rem, 0xBEEF, 0, nullptr), 5);
    EXPECT_EQ(ddtlv_add(&cur, &rem, 7, 1, "z"), 0);  // exactly fills
    EXPECT_EQ(cur, buf + 16);
    // Native-order header, value directly behind, no padding.
    EXPECT_EQ(u16_at(buf), 0x0102);
    EXPECT_EQ(u16_at(buf + 2), 3);
    EXPECT_EQ(memcmp(buf + 4, "abc", 3), 0);
    EXPECT_EQ(u16_at(buf + 7), 0xBEEF);
    EXPECT_EQ(u16_at(buf + 9), 0);
    EXPECT_EQ(buf[16], 0xCC);

    uint8_t *walk = buf;
    int32_t left = 16;
    EXPECT_EQ(ddtlv_get_next(&walk, &left), buf);
    EXPECT_EQ(ddtlv_get_next(&walk, &left), buf + 7);  // the empty record: header only
    EXPECT_EQ(ddtlv_get_next(&walk, &left), buf + 11);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(ddtlv_get_next(&walk, &left), nullptr);
}

TEST(Tlv, SsRoundTripWithLongestValue) {
    uint8_t value[255];
    for (int i = 0; i < 255; ++i) value[i] = static_cast<uint8_t>(i);
    uint8_t buf[2 + 255 + 2];
    uint8_t *cur = buf;
    int32_t rem = sizeof buf;
    EXPECT_EQ(sstlv_add(&cur, &rem, 0xA5, 255, value), 2);
    EXPECT_EQ(sstlv_add(&cur, &rem, 0x5A, 0, nullptr), 0);

    uint8_t *walk = buf;
    int32_t left = sizeof buf;
    EXPECT_EQ(sstlv_get_next(&walk, &left), buf);
    EXPECT_EQ(sstlv_get_next(&walk, &left), buf + 257);
    EXPECT_EQ(buf[0], 0xA5);
    EXPECT_EQ(buf[1], 255);
    EXPECT_EQ(memcmp(buf + 2, value, 255), 0);
    EXPECT_EQ(buf[257], 0x5A);
}

TEST(Tlv, ShortOrTruncatedRecordsStopWithoutMoving) {
    // Fewer bytes than a header: no read at all (the page is inaccessible).
    long page = sysconf(_SC_PAGESIZE);
    void *guard = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(guard, MAP_FAILED);
    uint8_t *cur = static_cast<uint8_t *>(guard);
    for (int32_t rem : {3, -5}) EXPECT_EQ(ddtlv_get_next(&cur, &rem), nullptr);
    int32_t one = 1;
    EXPECT_EQ(sstlv_get_next(&cur, &one), nullptr);
    munmap(guard, page);

    // Length runs past the remaining bytes.
    uint8_t dd[8] = {1, 0, 5, 0, 'a', 'b', 'c', 'd'};
    cur = dd;
    int32_t rem = 8;
    EXPECT_EQ(ddtlv_get_next(&cur, &rem), nullptr);
    EXPECT_EQ(cur, dd);
    EXPECT_EQ(rem, 8);
    uint8_t ss[4] = {1, 3, 'a', 'b'};
    cur = ss;
    rem = 4;
    EXPECT_EQ(sstlv_get_next(&cur, &rem), nullptr);
    EXPECT_EQ(cur, ss);
    EXPECT_EQ(rem, 4);
}

TEST(Tlv, NullArgumentsAreRefusedWithoutWriting) {
    uint8_t buf[8] = {};
    uint8_t *cur = buf, *none = nullptr;
    int32_t rem = 8;
    EXPECT_EQ(ddtlv_add(nullptr, &rem, 1, 0, nullptr), KERM_ERR_PARAM);
    EXPECT_EQ(ddtlv_add(&none, &rem, 1, 0, nullptr), KERM_ERR_PARAM);
    EXPECT_EQ(ddtlv_add(&cur, nullptr, 1, 0, nullptr), KERM_ERR_PARAM);
    EXPECT_EQ(sstlv_add(&cur, &rem, 1, 2, nullptr), KERM_ERR_PARAM);
    EXPECT_EQ(cur, buf);
    EXPECT_EQ(rem, 8);
    EXPECT_EQ(buf[0], 0);
    EXPECT_EQ(ddtlv_get_next(nullptr, &rem), nullptr);
    EXPECT_EQ(sstlv_get_next(&cur, nullptr), nullptr);
    EXPECT_EQ(sstlv_get_next(&none, &rem), nullptr);
}

// Overflow: the record lands first (past the caller's count), then the
// process reports on stdout and exits. A shared page lets the parent see the
// write; the child's stdout goes to stderr, where the death test looks.
class TlvOverflowDeathTest : public ::testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "fast");
        page_ = static_cast<uint8_t *>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(page_, MAP_FAILED);
    }
    void TearDown() override { munmap(page_, 4096); }
    uint8_t *page_ = nullptr;
};

// The add's stdout goes to stderr, where the death test looks.
#define EXPECT_OVERFLOW_EXIT(statement)                                                    \
    EXPECT_EXIT(                                                                           \
        {                                                                                  \
            dup2(STDERR_FILENO, STDOUT_FILENO);                                            \
            statement;                                                                     \
        },                                                                                 \
        ::testing::ExitedWithCode(255), "^assert fail\n$")

TEST_F(TlvOverflowDeathTest, OneByteTooManyWritesThenExits) {
    uint8_t *cur = page_;
    int32_t rem = 10;
    EXPECT_OVERFLOW_EXIT(ddtlv_add(&cur, &rem, 0x4242, 7, "1234567"));
    EXPECT_EQ(u16_at(page_), 0x4242);
    EXPECT_EQ(u16_at(page_ + 2), 7);
    EXPECT_EQ(memcmp(page_ + 4, "1234567", 7), 0);

    cur = page_ + 100;
    rem = 2;
    EXPECT_OVERFLOW_EXIT(sstlv_add(&cur, &rem, 0x11, 1, "x"));
    EXPECT_EQ(page_[100], 0x11);
    EXPECT_EQ(page_[102], 'x');

    // A negative count (signed comparison) fails even an empty record.
    cur = page_;
    rem = -1;
    EXPECT_OVERFLOW_EXIT(ddtlv_add(&cur, &rem, 1, 0, nullptr));
}

}  // namespace

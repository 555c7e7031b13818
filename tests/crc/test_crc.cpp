// CRC calculators: catalogue check values, frame append/verify placement, and
// a randomized comparison with Boost.CRC configured with the same parameters.
#include <gtest/gtest.h>

// Boost.CRC is header-only; a cross build without its headers keeps the
// check values and frame tests and skips the comparison.
#if __has_include(<boost/crc.hpp>)
#include <boost/crc.hpp>
#define KERM_HAVE_BOOST_CRC 1
#endif

#include <random>
#include <vector>

#include "kerm_crc.h"

namespace {

const uint8_t kDigits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};

TEST(CrcCheckValues, CatalogueValuesForEachCalculatorAndSeed) {
    EXPECT_EQ(vask_util_crc8_calc(kDigits, 9, 0x00), 0xA1);          // CRC-8/MAXIM
    EXPECT_EQ(vask_util_crc16_calc(kDigits, 9, 0x0000), 0x2189);     // CRC-16/KERMIT
    EXPECT_EQ(vask_util_crc16_calc(kDigits, 9, 0xFFFF), 0x6F91);     // CRC-16/MCRF4XX
    EXPECT_EQ(vask_util_crc16_ccitt_calc(kDigits, 9, 0x0000), 0xBEEF);
    EXPECT_EQ(vask_util_crc16_xmodem_calc(kDigits, 9, 0x0000), 0x31C3);  // CRC-16/XMODEM
    EXPECT_EQ(vask_util_crc16_xmodem_calc(kDigits, 9, 0xFFFF), 0x29B1);  // CRC-16/CCITT-FALSE
    // X.25 is the MCRF4XX register inverted by the caller.
    EXPECT_EQ(static_cast<uint16_t>(~vask_util_crc16_calc(kDigits, 9, 0xFFFF)), 0x906E);

    // The augmented form reaches the direct value only after two zero bytes.
    const uint8_t augmented[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9', 0, 0};
    EXPECT_EQ(vask_util_crc16_ccitt_calc(augmented, sizeof augmented, 0x0000), 0x31C3);
}

TEST(CrcCheckValues, EmptyOrNullDataReturnsTheSeed) {
    for (uint16_t seed : {0x0000, 0x1234, 0xFFFF}) {
        const uint8_t s8 = static_cast<uint8_t>(seed);
        EXPECT_EQ(vask_util_crc8_calc(kDigits, 0, s8), s8);
        EXPECT_EQ(vask_util_crc16_calc(kDigits, 0, seed), seed);
        EXPECT_EQ(vask_util_crc16_ccitt_calc(kDigits, 0, seed), seed);
        EXPECT_EQ(vask_util_crc16_xmodem_calc(kDigits, 0, seed), seed);
        EXPECT_EQ(vask_util_crc8_calc(nullptr, 5, s8), s8);
        EXPECT_EQ(vask_util_crc16_calc(nullptr, 5, seed), seed);
        EXPECT_EQ(vask_util_crc16_ccitt_calc(nullptr, 5, seed), seed);
        EXPECT_EQ(vask_util_crc16_xmodem_calc(nullptr, 5, seed), seed);
    }
}

TEST(CrcFrames, AppendPlacesTheChecksumAndVerifyCatchesAnyChange) {
    uint8_t f16[11] = {'1', '2', '3', '4', '5', '6', '7', '8', '9', 0xEE, 0xEE};
    EXPECT_EQ(vask_util_crc16_append(f16, sizeof f16, 0), 0x21);  // high byte only
    EXPECT_EQ(f16[9], 0x89);
    EXPECT_EQ(f16[10], 0x21);
    EXPECT_EQ(vask_util_crc16_verify(f16, sizeof f16, 0), KERM_OK);
    EXPECT_EQ(vask_util_crc16_verify(f16, sizeof f16, 0xFFFF), KERM_ERR_FAIL);

    uint8_t f8[10] = {'1', '2', '3', '4', '5', '6', '7', '8', '9', 0x00};
    EXPECT_EQ(vask_util_crc8_append(f8, sizeof f8, 0), 0xA1);
    EXPECT_EQ(f8[9], 0xA1);
    EXPECT_EQ(vask_util_crc8_verify(f8, sizeof f8, 0), KERM_OK);

    for (size_t i : {size_t{0}, size_t{8}, size_t{9}, size_t{10}}) {
        if (i < sizeof f8) {
            f8[i] ^= 0x80;
            EXPECT_EQ(vask_util_crc8_verify(f8, sizeof f8, 0), KERM_ERR_FAIL) << "byte " << i;
            f8[i] ^= 0x80;
        }
        f16[i] ^= 0x01;
        EXPECT_EQ(vask_util_crc16_verify(f16, sizeof f16, 0), KERM_ERR_FAIL) << "byte " << i;
        f16[i] ^= 0x01;
    }

    // A frame of only the checksum carries the seed.
    uint8_t one[1] = {0}, two[2] = {0, 0};
    EXPECT_EQ(vask_util_crc8_append(one, 1, 0x5A), 0x5A);
    EXPECT_EQ(one[0], 0x5A);
    EXPECT_EQ(vask_util_crc16_append(two, 2, 0xBEEF), 0xBE);
    EXPECT_EQ(two[0], 0xEF);
    EXPECT_EQ(two[1], 0xBE);
}

TEST(CrcFrames, TooShortOrNullFramesAreLeftAloneAndFailVerification) {
    uint8_t frame[2] = {0x11, 0x22};
    EXPECT_EQ(vask_util_crc8_append(frame, 0, 0x33), 0);
    EXPECT_EQ(vask_util_crc16_append(frame, 1, 0x3333), 0);
    EXPECT_EQ(frame[0], 0x11);
    EXPECT_EQ(frame[1], 0x22);
    EXPECT_EQ(vask_util_crc8_verify(frame, 0, 0), KERM_ERR_FAIL);
    EXPECT_EQ(vask_util_crc16_verify(frame, 1, 0), KERM_ERR_FAIL);
    EXPECT_EQ(vask_util_crc8_append(nullptr, 4, 0), 0);
    EXPECT_EQ(vask_util_crc16_append(nullptr, 4, 0), 0);
    EXPECT_EQ(vask_util_crc8_verify(nullptr, 4, 0), KERM_ERR_FAIL);
    EXPECT_EQ(vask_util_crc16_verify(nullptr, 4, 0), KERM_ERR_FAIL);
}

#if KERM_HAVE_BOOST_CRC
// Boost counts the initial remainder of a reflected CRC in unreflected order.
uint16_t reflect16(uint16_t v) {
    uint16_t r = 0;
    for (int i = 0; i < 16; ++i) r = static_cast<uint16_t>(r | (((v >> i) & 1u) << (15 - i)));
    return r;
}
uint8_t reflect8(uint8_t v) { return static_cast<uint8_t>(reflect16(v) >> 8); }

uint8_t boost_crc8(const std::vector<uint8_t> &d, uint8_t seed) {
    boost::crc_optimal<8, 0x31, 0, 0, true, true> c(reflect8(seed));
    c.process_bytes(d.data(), d.size());
    return c.checksum();
}
uint16_t boost_crc16(const std::vector<uint8_t> &d, uint16_t seed) {
    boost::crc_optimal<16, 0x1021, 0, 0, true, true> c(reflect16(seed));
    c.process_bytes(d.data(), d.size());
    return c.checksum();
}
uint16_t boost_xmodem(const std::vector<uint8_t> &d, uint16_t seed) {
    boost::crc_optimal<16, 0x1021, 0, 0, false, false> c(seed);
    c.process_bytes(d.data(), d.size());
    return c.checksum();
}

class CrcDifferential : public ::testing::Test {
protected:
    std::mt19937 rng{20240611u};

    std::vector<uint8_t> random_bytes(size_t n) {
        std::vector<uint8_t> v(n);
        for (auto &b : v) b = static_cast<uint8_t>(rng());
        return v;
    }

    // Every calculator on `d` with `seed` against Boost.
    void compare(const std::vector<uint8_t> &d, uint16_t seed) {
        const uint32_t n = static_cast<uint32_t>(d.size());
        const uint8_t s8 = static_cast<uint8_t>(seed);
        ASSERT_EQ(vask_util_crc8_calc(d.data(), n, s8), boost_crc8(d, s8)) << "len " << n;
        ASSERT_EQ(vask_util_crc16_calc(d.data(), n, seed), boost_crc16(d, seed)) << "len " << n;
        ASSERT_EQ(vask_util_crc16_xmodem_calc(d.data(), n, seed), boost_xmodem(d, seed)) << "len " << n;

        // Augmented with seed S over M + 00 00 is the direct CRC of S (two
        // bytes, high first) followed by M, from a zero register.
        std::vector<uint8_t> padded(d);
        padded.push_back(0);
        padded.push_back(0);
        std::vector<uint8_t> seeded{static_cast<uint8_t>(seed >> 8), static_cast<uint8_t>(seed)};
        seeded.insert(seeded.end(), d.begin(), d.end());
        ASSERT_EQ(vask_util_crc16_ccitt_calc(padded.data(), n + 2, seed), boost_xmodem(seeded, 0))
            << "len " << n;
        ASSERT_EQ(vask_util_crc16_ccitt_calc(d.data(), n, seed),
                  (boost::augmented_crc<16, 0x1021>(d.data(), d.size(), seed)))
            << "len " << n;
    }
};

TEST_F(CrcDifferential, RandomDataAndSeedsMatchBoost) {
    // Every length around the eight-byte blocks and the small-input path.
    for (size_t len = 0; len <= 80; ++len)
        for (int rep = 0; rep < 8; ++rep) compare(random_bytes(len), static_cast<uint16_t>(rng()));
    for (int rep = 0; rep < 40; ++rep)
        compare(random_bytes(rng() % 5000), static_cast<uint16_t>(rng()));
    for (uint16_t seed : {0x0000, 0xFFFF}) compare(random_bytes(300), seed);
}

TEST_F(CrcDifferential, XmodemBeyondSixteenBitLengthCoversEveryByte) {
    // Past the 65535-byte contract the result is still that of all the data,
    // never a wrapped position counter.
    for (size_t len : {size_t{65535}, size_t{65536}, size_t{65537}, size_t{200000}})
        compare(random_bytes(len), 0x1D0F);
}

#endif

}  // namespace

// CRC calculators: catalogue check values, frame append/verify placement, and
// a randomized comparison with Boost.CRC configured with the same parameters.
#include <gtest/gtest.h>
#include <string.h>

// Boost.CRC is header-only; a cross build without its headers keeps the
// check values and frame tests and skips the comparison.
#if __has_include(<boost/crc.hpp>)
#include <boost/crc.hpp>
#define KERM_HAVE_BOOST_CRC 1
#endif

#include <random>
#include <vector>

#include "kerm_crc.h"

const uint8_t kDigits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9', 0, 0};

using Calc = uint16_t (*)(const uint8_t *, uint32_t, uint16_t);
uint16_t crc8(const uint8_t *d, uint32_t n, uint16_t seed) {
    return vask_util_crc8_calc(d, n, static_cast<uint8_t>(seed));
}

TEST(Crc, CatalogueCheckValuesAndSeedPassThrough) {
    const struct { Calc calc; uint16_t seed; uint32_t len; uint16_t expected; } rows[] = {
        {crc8, 0, 9, 0xA1},                                // CRC-8/MAXIM
        {vask_util_crc16_calc, 0, 9, 0x2189},              // CRC-16/KERMIT
        {vask_util_crc16_calc, 0xFFFF, 9, 0x6F91},         // CRC-16/MCRF4XX, X.25 before inversion
        {vask_util_crc16_ccitt_calc, 0, 9, 0xBEEF},        // augmented
        {vask_util_crc16_ccitt_calc, 0, 11, 0x31C3},       // ... reaches the direct value after 00 00
        {vask_util_crc16_xmodem_calc, 0, 9, 0x31C3},       // CRC-16/XMODEM
        {vask_util_crc16_xmodem_calc, 0xFFFF, 9, 0x29B1},  // CRC-16/CCITT-FALSE
    };
    for (const auto &r : rows) {
        EXPECT_EQ(r.calc(kDigits, r.len, r.seed), r.expected) << std::hex << r.expected;
        EXPECT_EQ(r.calc(nullptr, 5, 0x5A), 0x5A);
    }
}

TEST(Crc, AppendPlacesTheChecksumLowByteFirstAndVerifyCatchesAnyChange) {
    uint8_t f16[11], f8[10];
    memcpy(f16, kDigits, sizeof f16);
    memcpy(f8, kDigits, sizeof f8);
    EXPECT_EQ(vask_util_crc16_append(f16, 11, 0), 0x21);  // the high byte is returned
    EXPECT_EQ(vask_util_crc8_append(f8, 10, 0), 0xA1);
    EXPECT_EQ(f16[9] | f16[10] << 8, 0x2189);
    EXPECT_EQ(f8[9], 0xA1);
    EXPECT_EQ(vask_util_crc16_verify(f16, 11, 0), KERM_OK);
    EXPECT_EQ(vask_util_crc8_verify(f8, 10, 0), KERM_OK);
    for (size_t i = 0; i < 11; ++i) {  // a flipped bit in data or checksum
        f16[i] ^= 0x80;
        f8[i % 10] ^= 0x80;
        EXPECT_EQ(vask_util_crc16_verify(f16, 11, 0), KERM_ERR_FAIL) << "byte " << i;
        EXPECT_EQ(vask_util_crc8_verify(f8, 10, 0), KERM_ERR_FAIL) << "byte " << i;
        f16[i] ^= 0x80;
        f8[i % 10] ^= 0x80;
    }
    // Frames without room for the checksum are left alone and never verify;
    // a frame of only the checksum carries the seed.
    EXPECT_EQ(vask_util_crc8_append(f8, 0, 0x33), 0);
    EXPECT_EQ(vask_util_crc16_append(nullptr, 4, 0), 0);
    EXPECT_EQ(vask_util_crc16_verify(f16, 1, 0), KERM_ERR_FAIL);
    EXPECT_EQ(vask_util_crc16_append(f16, 2, 0xBEEF), 0xBE);
    EXPECT_EQ(f16[0] | f16[1] << 8, 0xBEEF);
}

#if KERM_HAVE_BOOST_CRC
// Boost takes the initial remainder of a reflected CRC in unreflected order.
template <int W, unsigned Poly, bool Reflected>
uint16_t boost_crc(const std::vector<uint8_t> &d, uint16_t seed) {
    uint16_t init = Reflected ? 0 : seed;
    for (int i = 0; Reflected && i < W; ++i) init = static_cast<uint16_t>(init | ((seed >> i) & 1u) << (W - 1 - i));
    boost::crc_optimal<W, Poly, 0, 0, Reflected, Reflected> c(init);
    c.process_bytes(d.data(), d.size());
    return c.checksum();
}

// Every calculator on random data and seed against Boost.
void compare(std::mt19937 &rng, size_t len) {
    std::vector<uint8_t> d(len);
    for (auto &b : d) b = static_cast<uint8_t>(rng());
    const uint16_t seed = static_cast<uint16_t>(rng()), s8 = seed & 0xFF;
    const uint32_t n = static_cast<uint32_t>(len);
    ASSERT_EQ(vask_util_crc8_calc(d.data(), n, static_cast<uint8_t>(s8)), (boost_crc<8, 0x31, true>(d, s8))) << n;
    ASSERT_EQ(vask_util_crc16_calc(d.data(), n, seed), (boost_crc<16, 0x1021, true>(d, seed))) << n;
    ASSERT_EQ(vask_util_crc16_xmodem_calc(d.data(), n, seed), (boost_crc<16, 0x1021, false>(d, seed))) << n;
    ASSERT_EQ(vask_util_crc16_ccitt_calc(d.data(), n, seed), (boost::augmented_crc<16, 0x1021>(d.data(), len, seed)))
        << n;
}

TEST(Crc, RandomDataAndSeedsMatchBoost) {
    std::mt19937 rng{20240611u};
    // Every length around the eight-byte blocks and the small-input path.
    for (size_t len = 0; len <= 80; ++len)
        for (int rep = 0; rep < 8; ++rep) compare(rng, len);
    for (int rep = 0; rep < 40; ++rep) compare(rng, rng() % 5000);
    // Past 65535 bytes the result still covers all the data, never a wrapped counter.
    for (size_t len : {size_t{65535}, size_t{65536}, size_t{200000}}) compare(rng, len);
}
#endif

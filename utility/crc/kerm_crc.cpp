// CRC-8 / CRC-16 calculators, table-driven eight bytes at a time.
//
// Each family has one 256-entry byte table (the classic per-byte step) plus
// seven derived tables that fold eight input bytes per step. Table k maps a
// byte to its contribution after k further zero bytes, so a block of eight
// costs eight lookups and no serial dependency between them.
#include "kerm_crc.h"

#include <stddef.h>

namespace {

template <typename T>
struct CrcTables {
    T t[8][256];
};

// Reflected (LSB-first) tables of width 8 or 16; `rpoly` is the reversed
// polynomial.
template <typename T>
constexpr CrcTables<T> make_reflected(T rpoly) {
    CrcTables<T> r{};
    for (unsigned i = 0; i < 256; ++i) {
        T c = static_cast<T>(i);
        for (int b = 0; b < 8; ++b) c = static_cast<T>((c & 1u) ? (c >> 1) ^ rpoly : c >> 1);
        r.t[0][i] = c;
    }
    for (int k = 1; k < 8; ++k)
        for (unsigned i = 0; i < 256; ++i) {
            T prev = r.t[k - 1][i];
            r.t[k][i] = static_cast<T>((sizeof(T) == 1 ? 0u : unsigned(prev) >> 8) ^ r.t[0][prev & 0xFFu]);
        }
    return r;
}

// Not reflected (MSB-first) 16-bit tables.
constexpr CrcTables<uint16_t> make_msb16(uint16_t poly) {
    CrcTables<uint16_t> r{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned c = i << 8;
        for (int b = 0; b < 8; ++b) c = ((c & 0x8000u) ? (c << 1) ^ poly : c << 1) & 0xFFFFu;
        r.t[0][i] = static_cast<uint16_t>(c);
    }
    for (int k = 1; k < 8; ++k)
        for (unsigned i = 0; i < 256; ++i) {
            unsigned prev = r.t[k - 1][i];
            r.t[k][i] = static_cast<uint16_t>(((prev << 8) ^ r.t[0][prev >> 8]) & 0xFFFFu);
        }
    return r;
}

constexpr CrcTables<uint8_t> kCrc8 = make_reflected<uint8_t>(0x8C);
constexpr CrcTables<uint16_t> kCrc16R = make_reflected<uint16_t>(0x8408);
constexpr CrcTables<uint16_t> kCcitt = make_msb16(0x1021);

static_assert(kCrc8.t[0][1] == 0x5E && kCrc8.t[0][2] == 0xBC && kCrc8.t[0][3] == 0xE2);
static_assert(kCrc16R.t[0][1] == 0x1189 && kCrc16R.t[0][2] == 0x2312 && kCrc16R.t[0][3] == 0x329B);
static_assert(kCcitt.t[0][1] == 0x1021 && kCcitt.t[0][2] == 0x2042 && kCcitt.t[0][3] == 0x3063);

uint8_t crc8_update(uint8_t crc, const uint8_t *p, size_t len) noexcept {
    const auto &t = kCrc8.t;
    for (; len >= 8; len -= 8, p += 8)
        crc = t[7][p[0] ^ crc] ^ t[6][p[1]] ^ t[5][p[2]] ^ t[4][p[3]] ^ t[3][p[4]] ^ t[2][p[5]] ^
              t[1][p[6]] ^ t[0][p[7]];
    while (len--) crc = t[0][crc ^ *p++];
    return crc;
}

uint16_t crc16r_update(uint16_t crc, const uint8_t *p, size_t len) noexcept {
    const auto &t = kCrc16R.t;
    for (; len >= 8; len -= 8, p += 8)
        crc = t[7][p[0] ^ (crc & 0xFFu)] ^ t[6][p[1] ^ (crc >> 8)] ^ t[5][p[2]] ^ t[4][p[3]] ^
              t[3][p[4]] ^ t[2][p[5]] ^ t[1][p[6]] ^ t[0][p[7]];
    while (len--) crc = static_cast<uint16_t>(t[0][(crc ^ *p++) & 0xFFu] ^ (crc >> 8));
    return crc;
}

// Direct MSB-first form: crc = crc * x^8 + b * x^16 (mod G) per byte.
uint16_t direct16_update(uint16_t crc, const uint8_t *p, size_t len) noexcept {
    const auto &t = kCcitt.t;
    for (; len >= 8; len -= 8, p += 8)
        crc = t[7][p[0] ^ (crc >> 8)] ^ t[6][p[1] ^ (crc & 0xFFu)] ^ t[5][p[2]] ^ t[4][p[3]] ^
              t[3][p[4]] ^ t[2][p[5]] ^ t[1][p[6]] ^ t[0][p[7]];
    while (len--) crc = static_cast<uint16_t>((crc << 8) ^ t[0][(crc >> 8) ^ *p++]);
    return crc;
}

// Augmented form, one byte: crc = crc * x^8 + b (mod G).
constexpr uint16_t augmented_step(uint16_t crc, uint8_t b) noexcept {
    return static_cast<uint16_t>(((crc << 8) | b) ^ kCcitt.t[0][crc >> 8]);
}

// The augmented register after n bytes is (S x^8n + M) mod G. Splitting M into
// its head H (n - 2 bytes) and last two bytes L gives the direct CRC of H from
// the seed S x^16 mod G, plus L: the fast direct loop does the bulk.
uint16_t augmented_update(uint16_t crc, const uint8_t *p, size_t len) noexcept {
    if (len < 16) {
        while (len--) crc = augmented_step(crc, *p++);
        return crc;
    }
    uint16_t shifted = augmented_step(augmented_step(crc, 0), 0);
    uint16_t head = direct16_update(shifted, p, len - 2);
    return static_cast<uint16_t>(head ^ (p[len - 2] << 8) ^ p[len - 1]);
}

}  // namespace

extern "C" {

uint8_t vask_util_crc8_calc(const uint8_t *data, uint32_t len, uint8_t seed) noexcept {
    return data == nullptr ? seed : crc8_update(seed, data, len);
}

uint8_t vask_util_crc8_append(uint8_t *frame, uint32_t frame_len, uint8_t seed) noexcept {
    if (frame == nullptr || frame_len < 1) return 0;
    uint8_t crc = crc8_update(seed, frame, frame_len - 1);
    frame[frame_len - 1] = crc;
    return crc;
}

int32_t vask_util_crc8_verify(const uint8_t *frame, uint32_t frame_len, uint8_t seed) noexcept {
    if (frame == nullptr || frame_len < 1) return KERM_ERR_FAIL;
    return crc8_update(seed, frame, frame_len - 1) == frame[frame_len - 1] ? KERM_OK : KERM_ERR_FAIL;
}

uint16_t vask_util_crc16_calc(const uint8_t *data, uint32_t len, uint16_t seed) noexcept {
    return data == nullptr ? seed : crc16r_update(seed, data, len);
}

uint8_t vask_util_crc16_append(uint8_t *frame, uint32_t frame_len, uint16_t seed) noexcept {
    if (frame == nullptr || frame_len < 2) return 0;
    uint16_t crc = crc16r_update(seed, frame, frame_len - 2);
    frame[frame_len - 2] = static_cast<uint8_t>(crc & 0xFFu);
    frame[frame_len - 1] = static_cast<uint8_t>(crc >> 8);
    // Deliberate: only the high byte is returned; callers use the stored bytes.
    return static_cast<uint8_t>(crc >> 8);
}

int32_t vask_util_crc16_verify(const uint8_t *frame, uint32_t frame_len, uint16_t seed) noexcept {
    if (frame == nullptr || frame_len < 2) return KERM_ERR_FAIL;
    uint16_t crc = crc16r_update(seed, frame, frame_len - 2);
    if (frame[frame_len - 2] != (crc & 0xFFu)) return KERM_ERR_FAIL;
    if (frame[frame_len - 1] != (crc >> 8)) return KERM_ERR_FAIL;
    return KERM_OK;
}

uint16_t vask_util_crc16_ccitt_calc(const uint8_t *data, uint32_t len, uint16_t seed) noexcept {
    return data == nullptr ? seed : augmented_update(seed, data, len);
}

uint16_t vask_util_crc16_xmodem_calc(const uint8_t *data, uint32_t len, uint16_t seed) noexcept {
    return data == nullptr ? seed : direct16_update(seed, data, len);
}

}  // extern "C"

/** @file kerm_crc.h
 * @brief CRC-8 and CRC-16 checksums for message framing.
 *
 * Every calculator starts from the caller's seed and returns the raw register:
 * there is no final inversion. A zero length (or a null data pointer) returns
 * the seed unchanged. Results are chainable: feeding a message in pieces, each
 * piece seeded with the previous result, gives the result of the whole.
 *
 *   vask_util_crc8_calc          reflected, poly 0x31 (seed 0: CRC-8/MAXIM)
 *   vask_util_crc16_calc         reflected, poly 0x1021 (seed 0: CRC-16/KERMIT,
 *                                seed 0xFFFF: CRC-16/MCRF4XX; X.25 users invert)
 *   vask_util_crc16_ccitt_calc   augmented ("indirect") MSB-first form of 0x1021:
 *                                data bytes are shifted in at the bottom, so it
 *                                equals the direct CRC only after two more zero
 *                                bytes ("123456789" -> 0xBEEF; plus 00 00 -> 0x31C3)
 *   vask_util_crc16_xmodem_calc  direct MSB-first form of 0x1021 (seed 0:
 *                                CRC-16/XMODEM, seed 0xFFFF: CRC-16/CCITT-FALSE)
 */
#ifndef KERM_CRC_H
#define KERM_CRC_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** CRC-8, reflected, poly 0x31, over len bytes from seed.
 * @return the raw register (seed for a zero length or null data). */
KERM_API uint8_t vask_util_crc8_calc(const uint8_t *data, uint32_t len, uint8_t seed) KERM_NOEXCEPT;

/** CRC of frame[0 .. frame_len - 2], stored into frame[frame_len - 1] and
 * returned. A frame shorter than 1 byte (or null) is left alone; returns 0. */
KERM_API uint8_t vask_util_crc8_append(uint8_t *frame, uint32_t frame_len, uint8_t seed) KERM_NOEXCEPT;

/** 0 when frame[frame_len - 1] is the CRC of the bytes before it, else
 * KERM_ERR_FAIL (also for a null or empty frame). */
KERM_API int32_t vask_util_crc8_verify(const uint8_t *frame, uint32_t frame_len, uint8_t seed) KERM_NOEXCEPT;

/** CRC-16, reflected, poly 0x1021, over len bytes from seed.
 * @return the raw register (seed for a zero length or null data). */
KERM_API uint16_t vask_util_crc16_calc(const uint8_t *data, uint32_t len, uint16_t seed) KERM_NOEXCEPT;

/** CRC of frame[0 .. frame_len - 3], stored little-endian into the last two
 * bytes. Returns only the high byte of the CRC (the byte stored last); callers
 * read the stored bytes for the full value. A frame shorter than 2 bytes (or
 * null) is left alone; returns 0. */
KERM_API uint8_t vask_util_crc16_append(uint8_t *frame, uint32_t frame_len, uint16_t seed) KERM_NOEXCEPT;

/** 0 when the last two bytes hold the little-endian CRC of the bytes before
 * them, else KERM_ERR_FAIL (also for a null frame or one shorter than 2). */
KERM_API int32_t vask_util_crc16_verify(const uint8_t *frame, uint32_t frame_len, uint16_t seed) KERM_NOEXCEPT;

/** CRC-16 of poly 0x1021 in the augmented MSB-first form (equal to the direct
 * form only after two more zero bytes), over len bytes from seed.
 * @return the raw register (seed for a zero length or null data). */
KERM_API uint16_t vask_util_crc16_ccitt_calc(const uint8_t *data, uint32_t len, uint16_t seed) KERM_NOEXCEPT;

/** CRC-16 of poly 0x1021, direct MSB-first form, over len bytes from seed.
 *
 * The XMODEM calculator's contract limits len to 65535 bytes: the device's
 * callers count positions in 16 bits, and portable callers must split longer
 * data into chained calls. This implementation does not wrap: for len of
 * 65536 and more it still returns the CRC of all len bytes (never a hang and
 * never a partial result), identical to chaining shorter pieces. */
KERM_API uint16_t vask_util_crc16_xmodem_calc(const uint8_t *data, uint32_t len, uint16_t seed) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

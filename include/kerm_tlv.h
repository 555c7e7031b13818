/** @file kerm_tlv.h
 * @brief Type-length-value records packed back to back in a caller's byte buffer.
 *
 *   dd record: u16 type, u16 length, then `length` value bytes (header 4)
 *   ss record: u8 type,  u8 length,  then `length` value bytes (header 2)
 *
 * Multi-byte fields are in the processor's native byte order; there is no
 * padding between records. Both codecs work on a caller-owned cursor and
 * remaining-byte count, passed by address and advanced by every call.
 */
#ifndef KERM_TLV_H
#define KERM_TLV_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define DDTLV_HEAD_SIZE 4 /**< header bytes of a dd record (u16 type, u16 length) */
#define SSTLV_HEAD_SIZE 2 /**< header bytes of an ss record (u8 type, u8 length) */

/** @{ */
/** Appends one record at *cursor and returns the new remaining count.
 *
 * The record is written first and checked afterwards: when it does not fit
 * (len + header > *remaining, signed) it has already been written past the
 * buffer's end, so the process prints "assert fail" on standard output and
 * exits with status -1. Size buffers so that this never happens.
 *
 * A null cursor, *cursor or remaining (or a null value with len > 0) writes
 * nothing and returns KERM_ERR_PARAM; every successful call returns >= 0. */
KERM_API int32_t ddtlv_add(uint8_t **cursor, int32_t *remaining, uint16_t type, uint16_t len,
                           const void *value) KERM_NOEXCEPT;
KERM_API int32_t sstlv_add(uint8_t **cursor, int32_t *remaining, uint8_t type, uint8_t len,
                           const void *value) KERM_NOEXCEPT;
/** @} */

/** @{ */
/** Returns the header of the record at *cursor and steps past it, or null
 * (cursor and count unchanged) when the header or the value would run past
 * *remaining bytes. Null arguments also give null. */
KERM_API uint8_t *ddtlv_get_next(uint8_t **cursor, int32_t *remaining) KERM_NOEXCEPT;
KERM_API uint8_t *sstlv_get_next(uint8_t **cursor, int32_t *remaining) KERM_NOEXCEPT;
/** @} */

#ifdef __cplusplus
}
#endif

#endif

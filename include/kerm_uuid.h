/** @file kerm_uuid.h
 * @brief UUIDs: the library provides uuid_pack and uuid_unpack, which the shared
 * libuuid keeps internal, with libuuid's field layout; uuid_generate and
 * uuid_generate_random come from libuuid, which linking kerm_util brings in. */
#ifndef KERM_UUID_H
#define KERM_UUID_H

#include <stdint.h>
#include "kerm_export.h"

/** Where libuuid's header is installed it declares uuid_t and the generators:
 * take them from there, so uuid_t is declared once whichever of the two
 * headers a program includes first. */
#if defined(__has_include)
#if __has_include(<uuid/uuid.h>)
#include <uuid/uuid.h>
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

#if !defined(_UL_LIBUUID_UUID_H) && !defined(_UUID_UUID_H) && !defined(KERM_UUID_OWN_TYPES)
/** No libuuid header: the same declarations. Including <uuid/uuid.h> after
 * this repeats the identical typedef, which C11 and C++ accept. */
#define KERM_UUID_OWN_TYPES 1
typedef unsigned char uuid_t[16]; /**< a UUID in its packed, 16-byte form */
/** New UUID from libuuid (random where the system has a good random source). */
void uuid_generate(uuid_t out);
/** New random (version 4) UUID from libuuid. */
void uuid_generate_random(uuid_t out);
#endif

/** The unpacked form; packed big-endian into uuid_t in field order. */
struct uuid {
    uint32_t time_low;            /**< bytes 0-3 */
    uint16_t time_mid;            /**< bytes 4-5 */
    uint16_t time_hi_and_version; /**< bytes 6-7; version in the top 4 bits */
    uint16_t clock_seq;           /**< bytes 8-9; variant in the top bits */
    uint8_t node[6];              /**< bytes 10-15 */
};

/** Packs the fields of uu into the 16 bytes of ptr. Null arguments do nothing. */
KERM_API void uuid_pack(const struct uuid *uu, uuid_t ptr) KERM_NOEXCEPT;
/** Unpacks the 16 bytes of in into the fields of uu. Null arguments do nothing. */
KERM_API void uuid_unpack(const uuid_t in, struct uuid *uu) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

/* UUIDs: the library provides uuid_pack and uuid_unpack, which the shared
 * libuuid keeps internal, with libuuid's field layout; uuid_generate and
 * uuid_generate_random come from libuuid, which linking kerm_util brings in. */
#ifndef KERM_UUID_H
#define KERM_UUID_H

#include <stdint.h>
#include "kerm_export.h"

/* Where libuuid's header is installed it declares uuid_t and the generators:
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
/* No libuuid header: the same declarations. Including <uuid/uuid.h> after
 * this repeats the identical typedef, which C11 and C++ accept. */
#define KERM_UUID_OWN_TYPES 1
typedef unsigned char uuid_t[16];
void uuid_generate(uuid_t out);
void uuid_generate_random(uuid_t out);
#endif

/* The unpacked form; packed big-endian into uuid_t in field order. */
struct uuid {
    uint32_t time_low;
    uint16_t time_mid;
    uint16_t time_hi_and_version;
    uint16_t clock_seq;
    uint8_t node[6];
};

/* Null arguments do nothing. */
KERM_API void uuid_pack(const struct uuid *uu, uuid_t ptr);
KERM_API void uuid_unpack(const uuid_t in, struct uuid *uu);

#ifdef __cplusplus
}
#endif

#endif

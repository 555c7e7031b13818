// uuid_pack/uuid_unpack with libuuid's layout: the shared libuuid keeps them
// internal, and its static archive cannot go into a shared object.
#include "kerm_uuid.h"

#include <string.h>

extern "C" {

KERM_API void uuid_pack(const struct uuid *uu, uuid_t ptr) {
    if (uu == nullptr || ptr == nullptr) return;
    uint8_t *out = ptr;
    const uint32_t tl = uu->time_low;
    out[0] = static_cast<uint8_t>(tl >> 24);
    out[1] = static_cast<uint8_t>(tl >> 16);
    out[2] = static_cast<uint8_t>(tl >> 8);
    out[3] = static_cast<uint8_t>(tl);
    out[4] = static_cast<uint8_t>(uu->time_mid >> 8);
    out[5] = static_cast<uint8_t>(uu->time_mid);
    out[6] = static_cast<uint8_t>(uu->time_hi_and_version >> 8);
    out[7] = static_cast<uint8_t>(uu->time_hi_and_version);
    out[8] = static_cast<uint8_t>(uu->clock_seq >> 8);
    out[9] = static_cast<uint8_t>(uu->clock_seq);
    memcpy(out + 10, uu->node, sizeof uu->node);
}

KERM_API void uuid_unpack(const uuid_t in, struct uuid *uu) {
    if (in == nullptr || uu == nullptr) return;
    const uint8_t *p = in;
    uu->time_low = static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
                   static_cast<uint32_t>(p[2]) << 8 | p[3];
    uu->time_mid = static_cast<uint16_t>(p[4] << 8 | p[5]);
    uu->time_hi_and_version = static_cast<uint16_t>(p[6] << 8 | p[7]);
    uu->clock_seq = static_cast<uint16_t>(p[8] << 8 | p[9]);
    memcpy(uu->node, p + 10, sizeof uu->node);
}

}  // extern "C"

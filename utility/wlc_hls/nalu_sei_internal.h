// Internal pieces of the SEI family shared by its sources (and its tests).
#ifndef KERM_NALU_SEI_INTERNAL_H
#define KERM_NALU_SEI_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "common/kerm_internal.h"
#include "kerm_sei.h"

#define KERM_SEI_FILE "utility/wlc_hls/NaluSei"
#define SEI_LOG(level, ...) KERM_LOG(KERM_MOD_SEI, level, KERM_SEI_FILE, __VA_ARGS__)
#define SEI_LOGN(name, level, ...) KERM_LOGF(KERM_MOD_SEI, level, KERM_SEI_FILE, name, __VA_ARGS__)

namespace kerm::sei {

inline constexpr uint8_t kStartCode[4] = {0x00, 0x00, 0x00, 0x01};

// Start code plus NAL header: 5 bytes for H.264, 6 for H.265.
constexpr uint32_t header_len(uint32_t codec) { return codec == WL_CODEC_H265 ? 6u : 5u; }

// Writes 00 00 00 01 and the SEI NAL header; returns the bytes written.
uint32_t put_nal_header(uint8_t *dst, bool h265) noexcept;

// True when `p` begins with the SEI NAL header of `codec` (0 or 1 only).
bool is_sei_header(const uint8_t *p, uint32_t codec) noexcept;

// Decodes the SEI NAL unit at `nal`, reading at most `avail` bytes from it.
// Well-formed units decode exactly as wl_get_sei_info; a header or type/size
// coding that runs past `avail` fails with -1001.
int32_t get_sei_info_bounded(const uint8_t *nal, size_t avail, SeiNalInfo *info,
                             uint32_t codec) noexcept;

// Decodes one SEI NAL unit at `nal` (type/size scan without a bound).
int32_t wl_get_sei_info(const uint8_t *nal, SeiNalInfo *info, uint32_t codec) noexcept;

// Writes an SEI NAL unit of `type` with `size` payload bytes of 0xFF.
int32_t wl_insert_initial_sei(uint8_t *dst, uint32_t codec, uint32_t type, int32_t size,
                              int32_t free_len) noexcept;

// Decodes a live-view stream payload; reads at most `avail` bytes.
void parse_lvstream_payload(const uint8_t *payload, size_t avail, LiveviewMd *md) noexcept;
void wl_parse_lvstreamsei_payload(const uint8_t *payload, LiveviewMd *md) noexcept;

// The parsers' verbose field dump: one line per field, "<prefix><name padded
// to width><value><end>", logged under `function`.
struct Field {
    const char *name;
    uint32_t value;
};
void log_fields(const char *function, const char *prefix, int width, const char *end, const Field *fields,
                size_t count) noexcept;

inline uint16_t rd16(const uint8_t *p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

}  // namespace kerm::sei

#endif

/* Stream SEI metadata: private SEI NAL units written into encoded H.264/H.265
 * frames in place (timing, on-demand-I, live-view stream) and read back.
 *
 * Every frame handled here ends with a fixed tail: an on-demand-I SEI NAL unit
 * followed by an access unit delimiter. Further SEI NAL units are chained
 * backwards from that tail, each followed by a "jumping" SEI that gives the
 * length of the NAL unit before it. Nothing here allocates or keeps state;
 * all pointers returned in SeiNalInfo borrow the caller's frame buffer. */
#ifndef KERM_SEI_H
#define KERM_SEI_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Exported functions never throw; C++ callers may rely on it. */
#ifdef __cplusplus
#define WL_NOEXCEPT noexcept
#else
#define WL_NOEXCEPT
#endif

#if defined(__GNUC__) || defined(__clang__)
#define WL_PACKED __attribute__((packed))
#else
#define WL_PACKED
#endif

/* Codec codes. Callers preset a codec variable to WL_CODEC_UNKNOWN before
 * detection. */
#define WL_CODEC_H264 0u
#define WL_CODEC_H265 1u
#define WL_CODEC_UNKNOWN 0xFFFFFFFFu

/* SEI payload types. */
#define SEI_TYPE_JUMPING 239
#define SEI_TYPE_ONDI 240
#define SEI_TYPE_LVSTREAM 256
#define SEI_TYPE_TIMING 257
#define SEI_TYPE_DUMMY 508

/* Fixed NAL unit lengths. */
#define WL_AUD_LEN_H264 6
#define WL_AUD_LEN_H265 7
#define WL_JUMPING_SEI_LEN_H264 10
#define WL_JUMPING_SEI_LEN_H265 11
#define WL_ONDI_SEI_LEN_H264 33
#define WL_ONDI_SEI_LEN_H265 34
#define WL_ONDI_PAYLOAD_LEN 25
#define WL_TIMING_SEI_LEN 96
#define WL_TIMING_BLOCK_LEN_H264 106 /* timing SEI plus its jumping SEI */
#define WL_TIMING_BLOCK_LEN_H265 107
#define WL_TIMING_MAX_ITEMS 32      /* in the record */
#define WL_TIMING_WIRE_ITEMS 12     /* slots in an encoded timing SEI */
#define WL_LV_MAX_MODULES 64

/* One SEI NAL unit found in a frame (16 bytes on the 32-bit target). */
typedef struct SeiNalInfo {
    uint16_t type;        /* payload type */
    uint16_t sei_len;     /* start code .. trailing 0x80 inclusive */
    uint16_t span_len;    /* start of the NAL unit .. end of its jumping SEI */
    uint16_t payload_len; /* payload size */
    uint8_t *nal_addr;    /* first start-code byte, inside the caller's buffer */
    uint8_t *payload_addr; /* first payload byte, inside the caller's buffer */
} SeiNalInfo;

/* ---- timing SEI (type 257) ---- */

typedef struct TimingItem {
    uint32_t dev; /* device number; its low 8 bits travel */
    uint32_t ts;  /* milliseconds */
} TimingItem;

typedef struct TimingMd {
    uint8_t reserved;
    uint8_t flags;  /* bits 0-3 timebase (0..6), bit 4 sync, bits 5-7 carried */
    uint8_t flags2; /* the parser keeps bits 0-1 */
    uint64_t sensor_time; /* microseconds */
    uint16_t item_cnt;
    TimingItem items[WL_TIMING_MAX_ITEMS];
} TimingMd;

/* Converts one timestamp to another timebase; returns 0 on success. */
typedef int32_t (*WlTsConvertFn)(uint64_t sensor_time_us, int64_t ts_ms, uint32_t timebase,
                                 uint32_t *new_ts, uint8_t *new_timebase);

/* ---- on-demand-I SEI (type 240), the first element of every frame tail ---- */

typedef struct WL_PACKED OndIMd {
    uint32_t frm_idx; /* 24 bits travel */
    uint8_t avgQPy;   /* 7 bits */
    uint8_t err_flag; /* 1 bit */
    uint8_t exp_len_lo; /* encoder only */
    uint8_t err_flag2;  /* parser only */
    uint32_t frm_len;   /* 24 bits travel */
    uint8_t exp_len;
    uint32_t frm_chs;
    uint32_t frm_gts;
    uint8_t err_strategy; /* parser only, 4 bits */
    uint8_t is_3d_lut;    /* parser only, 7 bits */
    uint8_t extra;
    uint32_t enc_time; /* encoder only, 14 bits travel */
    uint8_t is_I;
    uint8_t is_disp;
    uint8_t LvStreamInfoSEIOff; /* 1: no live-view stream SEI in this frame */
    uint8_t codec_stat_off;
    uint8_t is_normal_latency; /* 2 bits */
    uint8_t is_hdres;
    uint8_t is_60fps;
    uint8_t LvStreamInfoSEI_offset; /* bytes from the frame end back to the live-view SEI */
} OndIMd;

/* ---- live-view stream SEI (type 256) ---- */

typedef struct WL_PACKED ModuleItem {
    uint8_t module_id;  /* 6 bits */
    uint16_t time_diff; /* 12 bits, milliseconds */
    uint8_t err_code;   /* 3 bits */
} ModuleItem;

typedef struct WL_PACKED LiveviewMd {
    uint8_t version_id; /* 7 bits */
    uint8_t time_base;  /* 3 bits, valid 0..6 */
    uint8_t sync_flag;
    uint8_t lite_mode; /* 1: module items without module id */
    uint32_t start_time; /* milliseconds */
    uint8_t product_id;  /* 6 bits */
    uint8_t camera_id;   /* 4 bits */
    uint8_t stream_id;   /* 6 bits */
    uint8_t extension_info_on;
    uint8_t module_info_on;
    uint8_t codec_info_on;
    uint8_t sei_info_on;
    uint8_t codec_info_size; /* bits 2-6 of its byte, unshifted */
    uint16_t frm_tar_len;
    uint8_t err_strategy; /* 4 bits */
    uint8_t avg_qp;       /* 6 bits */
    uint8_t module_item_size;  /* 3 bits */
    uint8_t module_max_cnt;    /* 5 bits: slots reserved in the SEI */
    uint8_t module_active_cnt; /* 5 bits: slots in use */
    ModuleItem modules[WL_LV_MAX_MODULES];
} LiveviewMd;

/* Receives the current start time (us) in both words, writes the start time
 * for the new timebase into the second and may clear the flag (the same byte
 * is passed twice). The result is ignored. */
typedef int32_t (*WlStartTimeConvertFn)(uint64_t *old_start_us, uint64_t *new_start_us,
                                        uint8_t *ok, uint8_t *ok_again);

/* ---- framing and the chain ---- */

/* Writes both outputs only when the buffer ends with an AUD. */
KERM_API void wl_get_codec_type_by_aud(const uint8_t *buf, uint32_t len, uint32_t *aud_len,
                                       uint32_t *codec) WL_NOEXCEPT;
/* 1 when the frame tail holds an on-demand-I SEI, else 0. Preset *codec. */
KERM_API uint32_t wl_get_OndI_sei_nal_info(SeiNalInfo *ondi, const uint8_t *buf, uint32_t len,
                                           uint32_t *tail_len, uint32_t *codec) WL_NOEXCEPT;
/* entries[0] is the on-demand-I SEI, entries[1..] the chained SEIs walking
 * back from the tail; `entries` holds max_cnt records. */
KERM_API int32_t wl_get_all_sei_nal_info(const uint8_t *buf, uint32_t len, int32_t max_cnt,
                                         uint32_t *count, SeiNalInfo *entries) WL_NOEXCEPT;
KERM_API uint32_t wl_print_all_sei_info(const SeiNalInfo *entries, int32_t count,
                                        const uint8_t *print_payloads) WL_NOEXCEPT;

/* ---- timing ---- */
KERM_API int32_t wl_insert_new_ts_md(TimingMd *md, uint32_t dev, uint32_t tb, uint32_t ts) WL_NOEXCEPT;
/* Returns the bytes written (106 H.264, 107 H.265) or 0. */
KERM_API uint32_t wl_enc_timing_sei(uint8_t *dst, uint32_t codec, int32_t free_len,
                                    const TimingMd *md) WL_NOEXCEPT;
KERM_API int32_t wl_parse_timing_sei(const SeiNalInfo *info, TimingMd *md) WL_NOEXCEPT;
KERM_API int32_t wl_insert_new_ts_stream(SeiNalInfo *info, uint32_t dev, uint32_t tb, uint32_t ts) WL_NOEXCEPT;
KERM_API int32_t wl_insert_new_ts_direct(uint8_t *buf, uint32_t len, uint32_t dev, uint32_t tb,
                                         uint32_t ts) WL_NOEXCEPT;
KERM_API int32_t wl_transform_timing_sei(SeiNalInfo *info, WlTsConvertFn fn) WL_NOEXCEPT;
KERM_API uint32_t wl_print_timing_sei_value(const TimingMd *md) WL_NOEXCEPT;

/* ---- on-demand-I ---- */
/* Non-zero `h264` selects H.264, zero H.265 (the reverse of the codec code).
 * Returns 33 or 34, or 0. */
KERM_API uint32_t wl_enc_ondI_sei(uint8_t *dst, uint32_t h264, int32_t free_len, const OndIMd *md) WL_NOEXCEPT;
KERM_API int32_t wl_update_ondI_sei_enc_time_value(SeiNalInfo *ondi, uint32_t enc_time) WL_NOEXCEPT;
KERM_API int32_t wl_parse_ondI_sei(const SeiNalInfo *ondi, OndIMd *md) WL_NOEXCEPT;
KERM_API int32_t wl_parse_ondemandI_sei(const uint8_t *buf, uint32_t len, SeiNalInfo *ondi,
                                        OndIMd *md, uint32_t *tail_len, uint32_t *codec,
                                        uint8_t *found) WL_NOEXCEPT;
KERM_API uint32_t wl_print_ondI_sei_value(const OndIMd *md) WL_NOEXCEPT;

/* ---- live-view stream ---- */
KERM_API void wl_init_lvstream_md(LiveviewMd *md) WL_NOEXCEPT;
/* `frame_len` is the number of frame bytes before `dst`. */
KERM_API int32_t wl_enc_lvstream_sei(uint8_t *dst, uint32_t codec, int32_t free_len,
                                     uint32_t frame_len, const LiveviewMd *md,
                                     uint32_t *lvstream_len, uint32_t *dummy_len) WL_NOEXCEPT;
KERM_API void wl_parse_lvstream_sei(const uint8_t *buf, int32_t len, LiveviewMd *md,
                                    SeiNalInfo *info) WL_NOEXCEPT;
KERM_API int32_t wl_update_moduleinfo(uint8_t *buf, uint32_t len, uint32_t module_id, uint32_t tb,
                                      uint32_t end_time, uint8_t err_code,
                                      WlStartTimeConvertFn fn) WL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

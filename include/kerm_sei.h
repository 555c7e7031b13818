/** @file kerm_sei.h
 * @brief Stream SEI metadata: private SEI NAL units written into encoded H.264/H.265
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

#if defined(__GNUC__) || defined(__clang__)
#define WL_PACKED __attribute__((packed))
#else
#define WL_PACKED
#endif

/** Codec codes. Callers preset a codec variable to WL_CODEC_UNKNOWN before
 * detection. */
#define WL_CODEC_H264 0u
#define WL_CODEC_H265 1u
#define WL_CODEC_UNKNOWN 0xFFFFFFFFu

/** SEI payload types. */
#define SEI_TYPE_JUMPING 239
#define SEI_TYPE_ONDI 240
#define SEI_TYPE_LVSTREAM 256
#define SEI_TYPE_TIMING 257
#define SEI_TYPE_DUMMY 508

/** Fixed NAL unit lengths. */
#define WL_AUD_LEN_H264 6
#define WL_AUD_LEN_H265 7
#define WL_JUMPING_SEI_LEN_H264 10
#define WL_JUMPING_SEI_LEN_H265 11
#define WL_ONDI_SEI_LEN_H264 33
#define WL_ONDI_SEI_LEN_H265 34
#define WL_ONDI_PAYLOAD_LEN 25
#define WL_TIMING_SEI_LEN 96
#define WL_TIMING_BLOCK_LEN_H264 106 /**< timing SEI plus its jumping SEI */
#define WL_TIMING_BLOCK_LEN_H265 107
#define WL_TIMING_MAX_ITEMS 32      /**< in the record */
#define WL_TIMING_WIRE_ITEMS 12     /**< slots in an encoded timing SEI */
#define WL_LV_MAX_MODULES 64

/** One SEI NAL unit found in a frame (16 bytes on the 32-bit target). */
typedef struct SeiNalInfo {
    uint16_t type;        /**< payload type */
    uint16_t sei_len;     /**< start code .. trailing 0x80 inclusive */
    uint16_t span_len;    /**< start of the NAL unit .. end of its jumping SEI */
    uint16_t payload_len; /**< payload size */
    uint8_t *nal_addr;    /**< first start-code byte, inside the caller's buffer */
    uint8_t *payload_addr; /**< first payload byte, inside the caller's buffer */
} SeiNalInfo;

/* ---- timing SEI (type 257) ---- */

/** One timestamp of a timing SEI. */
typedef struct TimingItem {
    uint32_t dev; /**< device number; its low 8 bits travel */
    uint32_t ts;  /**< milliseconds */
} TimingItem;

/** Timing SEI content: sensor time and up to WL_TIMING_MAX_ITEMS stamps. */
typedef struct TimingMd {
    uint8_t reserved;
    uint8_t flags;  /**< bits 0-3 timebase (0..6), bit 4 sync, bits 5-7 carried */
    uint8_t flags2; /**< the parser keeps bits 0-1 */
    uint64_t sensor_time; /**< microseconds */
    uint16_t item_cnt;
    TimingItem items[WL_TIMING_MAX_ITEMS];
} TimingMd;

/** Converts one timestamp to another timebase; returns 0 on success. */
typedef int32_t (*WlTsConvertFn)(uint64_t sensor_time_us, int64_t ts_ms, uint32_t timebase,
                                 uint32_t *new_ts, uint8_t *new_timebase);

/* ---- on-demand-I SEI (type 240), the first element of every frame tail ---- */

/** On-demand-I SEI content: frame index, length, checksum and flags. */
typedef struct WL_PACKED OndIMd {
    uint32_t frm_idx; /**< 24 bits travel */
    uint8_t avgQPy;   /**< 7 bits */
    uint8_t err_flag; /**< 1 bit */
    uint8_t exp_len_lo; /**< encoder only */
    uint8_t err_flag2;  /**< parser only */
    uint32_t frm_len;   /**< 24 bits travel */
    uint8_t exp_len;
    uint32_t frm_chs;
    uint32_t frm_gts;
    uint8_t err_strategy; /**< parser only, 4 bits */
    uint8_t is_3d_lut;    /**< parser only, 7 bits */
    uint8_t extra;
    uint32_t enc_time; /**< encoder only, 14 bits travel */
    uint8_t is_I;
    uint8_t is_disp;
    uint8_t LvStreamInfoSEIOff; /**< 1: no live-view stream SEI in this frame */
    uint8_t codec_stat_off;
    uint8_t is_normal_latency; /**< 2 bits */
    uint8_t is_hdres;
    uint8_t is_60fps;
    uint8_t LvStreamInfoSEI_offset; /**< bytes from the frame end back to the live-view SEI */
} OndIMd;

/* ---- live-view stream SEI (type 256) ---- */

/** One module item of the live-view stream SEI. */
typedef struct WL_PACKED ModuleItem {
    uint8_t module_id;  /**< 6 bits */
    uint16_t time_diff; /**< 12 bits, milliseconds */
    uint8_t err_code;   /**< 3 bits */
} ModuleItem;

/** Live-view stream SEI content: stream identity, codec and module info. */
typedef struct WL_PACKED LiveviewMd {
    uint8_t version_id; /**< 7 bits */
    uint8_t time_base;  /**< 3 bits, valid 0..6 */
    uint8_t sync_flag;
    uint8_t lite_mode; /**< 1: module items without module id */
    uint32_t start_time; /**< milliseconds */
    uint8_t product_id;  /**< 6 bits */
    uint8_t camera_id;   /**< 4 bits */
    uint8_t stream_id;   /**< 6 bits */
    uint8_t extension_info_on;
    uint8_t module_info_on;
    uint8_t codec_info_on;
    uint8_t sei_info_on;
    uint8_t codec_info_size; /**< bits 2-6 of its byte, unshifted */
    uint16_t frm_tar_len;
    uint8_t err_strategy; /**< 4 bits */
    uint8_t avg_qp;       /**< 6 bits */
    uint8_t module_item_size;  /**< 3 bits */
    uint8_t module_max_cnt;    /**< 5 bits: slots reserved in the SEI */
    uint8_t module_active_cnt; /**< 5 bits: slots in use */
    ModuleItem modules[WL_LV_MAX_MODULES];
} LiveviewMd;

/** Receives the current start time (us) in both words, writes the start time
 * for the new timebase into the second and may clear the flag (the same byte
 * is passed twice). The result is ignored. */
typedef int32_t (*WlStartTimeConvertFn)(uint64_t *old_start_us, uint64_t *new_start_us,
                                        uint8_t *ok, uint8_t *ok_again);

/* ---- framing and the chain ---- */

/** Recognises the codec by the access unit delimiter at the end of buf and
 * stores the AUD's length and the codec code (WL_CODEC_H264 or WL_CODEC_H265).
 * Writes both outputs only when the buffer ends with an AUD. */
KERM_API void wl_get_codec_type_by_aud(const uint8_t *buf, uint32_t len, uint32_t *aud_len,
                                       uint32_t *codec) KERM_NOEXCEPT;
/** Finds the on-demand-I SEI in the frame tail and describes it in ondi;
 * *tail_len receives the tail's length.
 * @return 1 when the frame tail holds an on-demand-I SEI, else 0. Preset
 * *codec to 0xFFFFFFFF. */
KERM_API uint32_t wl_get_OndI_sei_nal_info(SeiNalInfo *ondi, const uint8_t *buf, uint32_t len,
                                           uint32_t *tail_len, uint32_t *codec) KERM_NOEXCEPT;
/** Lists the SEIs of a frame: entries[0] is the on-demand-I SEI, entries[1..]
 * the chained SEIs walking back from the tail; `entries` holds max_cnt
 * records, *count receives how many were filled.
 * @return 0, or a negative status code when the frame has no readable tail. */
KERM_API int32_t wl_get_all_sei_nal_info(const uint8_t *buf, uint32_t len, int32_t max_cnt,
                                         uint32_t *count, SeiNalInfo *entries) KERM_NOEXCEPT;
/** Dumps the entries (and, where print_payloads[i] is set, their payloads) to
 * the log. The result carries no meaning. */
KERM_API uint32_t wl_print_all_sei_info(const SeiNalInfo *entries, int32_t count,
                                        const uint8_t *print_payloads) KERM_NOEXCEPT;

/* ---- timing ---- */
/** Appends one stamp (device, timebase, milliseconds) to an in-memory record;
 * the first stamp also sets the sync bit and the sensor time.
 * @return 0, or a negative status code (null record, record full). */
KERM_API int32_t wl_insert_new_ts_md(TimingMd *md, uint32_t dev, uint32_t tb, uint32_t ts) KERM_NOEXCEPT;
/** Writes the timing SEI of md and its jumping SEI at dst, within free_len.
 * @return the bytes written (106 H.264, 107 H.265) or 0. */
KERM_API uint32_t wl_enc_timing_sei(uint8_t *dst, uint32_t codec, int32_t free_len,
                                    const TimingMd *md) KERM_NOEXCEPT;
/** Decodes an encoded timing SEI found by the chain walk into md.
 * @return 0, or a negative status code. */
KERM_API int32_t wl_parse_timing_sei(const SeiNalInfo *info, TimingMd *md) KERM_NOEXCEPT;
/** Writes one stamp into the first free slot of an encoded timing SEI.
 * @return 0, or KERM_ERR_FAIL when all slots are used (or on bad input). */
KERM_API int32_t wl_insert_new_ts_stream(SeiNalInfo *info, uint32_t dev, uint32_t tb, uint32_t ts) KERM_NOEXCEPT;
/** Finds the timing SEI in the chain of a whole frame and writes one stamp
 * into it.
 * @return 0, or KERM_ERR_FAIL when the frame has no timing SEI or no free slot. */
KERM_API int32_t wl_insert_new_ts_direct(uint8_t *buf, uint32_t len, uint32_t dev, uint32_t tb,
                                         uint32_t ts) KERM_NOEXCEPT;
/** Converts every stamp of an encoded timing SEI in place with fn; stops at
 * the first failing conversion (earlier stamps stay converted).
 * @return 0, or a negative status code. */
KERM_API int32_t wl_transform_timing_sei(SeiNalInfo *info, WlTsConvertFn fn) KERM_NOEXCEPT;
/** Logs the record.
 * @return 0. */
KERM_API uint32_t wl_print_timing_sei_value(const TimingMd *md) KERM_NOEXCEPT;

/* ---- on-demand-I ---- */
/** Writes the on-demand-I SEI of md at dst, within free_len.
 * Non-zero `h264` selects H.264, zero H.265 (the reverse of the codec code).
 * @return 33 or 34 (bytes written), or 0. */
KERM_API uint32_t wl_enc_ondI_sei(uint8_t *dst, uint32_t h264, int32_t free_len, const OndIMd *md) KERM_NOEXCEPT;
/** Rewrites the encode time of an encoded on-demand-I SEI in place.
 * @return 0. */
KERM_API int32_t wl_update_ondI_sei_enc_time_value(SeiNalInfo *ondi, uint32_t enc_time) KERM_NOEXCEPT;
/** Decodes the payload of an on-demand-I SEI into md.
 * @return 0, or a negative status code. */
KERM_API int32_t wl_parse_ondI_sei(const SeiNalInfo *ondi, OndIMd *md) KERM_NOEXCEPT;
/** Finds the on-demand-I SEI at the end of a frame and decodes it; *found
 * tells whether there was one. Preset *codec to 0xFFFFFFFF.
 * @return 0, or a negative status code. */
KERM_API int32_t wl_parse_ondemandI_sei(const uint8_t *buf, uint32_t len, SeiNalInfo *ondi,
                                        OndIMd *md, uint32_t *tail_len, uint32_t *codec,
                                        uint8_t *found) KERM_NOEXCEPT;
/** Logs a summary of the record.
 * @return 0. */
KERM_API uint32_t wl_print_ondI_sei_value(const OndIMd *md) KERM_NOEXCEPT;

/* ---- live-view stream ---- */
/** Sets the record to the defaults of a live-view stream SEI. */
KERM_API void wl_init_lvstream_md(LiveviewMd *md) KERM_NOEXCEPT;
/** Writes an optional dummy SEI and the live-view stream SEI of md at dst;
 * *lvstream_len and *dummy_len receive the bytes of each (0: no dummy).
 * `frame_len` is the number of frame bytes before `dst`.
 * @return 0, or a negative status code. */
KERM_API int32_t wl_enc_lvstream_sei(uint8_t *dst, uint32_t codec, int32_t free_len,
                                     uint32_t frame_len, const LiveviewMd *md,
                                     uint32_t *lvstream_len, uint32_t *dummy_len) KERM_NOEXCEPT;
/** Finds and decodes the live-view stream SEI of a whole frame into md and
 * info. */
KERM_API void wl_parse_lvstream_sei(const uint8_t *buf, int32_t len, LiveviewMd *md,
                                    SeiNalInfo *info) KERM_NOEXCEPT;
/** In a whole frame's live-view stream SEI, brings the timebase up to tb
 * (converting the start time with fn) and appends one module item. A tb above
 * 6 ends the process after a backtrace.
 * @return 0, or a negative status code. */
KERM_API int32_t wl_update_moduleinfo(uint8_t *buf, uint32_t len, uint32_t module_id, uint32_t tb,
                                      uint32_t end_time, uint8_t err_code,
                                      WlStartTimeConvertFn fn) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

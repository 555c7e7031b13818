// The SEI fuzz targets' frame builder and the calls they make on a frame.
#ifndef KERM_SEI_FUZZ_H
#define KERM_SEI_FUZZ_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_log.h"
#include "kerm_sei.h"

namespace sei_fuzz {

inline int32_t convert_ts(uint64_t, int64_t ts, uint32_t, uint32_t *out, uint8_t *tb) {
    *out = static_cast<uint32_t>(ts) + 1;
    *tb = 3;
    return 0;
}

inline int32_t convert_start(uint64_t *, uint64_t *new_us, uint8_t *ok, uint8_t *) {
    *new_us += 1000;
    *ok = 1;
    return 0;
}

// Room a tail needs behind the frame body.
constexpr size_t kTailRoom = 64;

// Mode byte: bit 0 appends a well-formed tail (on-demand-I SEI and AUD) so
// that the chain and live-view paths are reached at once; bit 1 picks H.265;
// bit 2 lets the tail name a live-view SEI at an offset taken from the body's
// first byte. The body is already at buf[0, size); buf has kTailRoom more.
// Returns the frame's length.
inline size_t finish(uint8_t mode, uint8_t *buf, size_t size) {
    const bool tail = mode & 1, h265 = mode & 2;
    size_t len = size;
    if (tail) {
        OndIMd md;
        memset(&md, 0, sizeof md);
        md.frm_idx = static_cast<uint32_t>(size);
        len += wl_enc_ondI_sei(buf + len, h265 ? 0 : 1, static_cast<int32_t>(kTailRoom), &md);
        uint8_t *p = buf + len - 26;
        if (mode & 4) {
            p[22] = static_cast<uint8_t>(size > 0 ? buf[0] : 0);
            p[23] &= 0xF7;
        }
        const uint8_t aud[] = {0, 0, 0, 1, static_cast<uint8_t>(h265 ? 0x46 : 0x09), 1, 0x50};
        memcpy(buf + len, aud, h265 ? 7 : 6);
        len += h265 ? 7 : 6;
    }
    return len;
}

// The mode byte, then the body: a frame in an exactly sized heap block, so
// the sanitizer sees its true end.
inline size_t build(const uint8_t *data, size_t size, uint8_t **out) {
    uint8_t *buf = static_cast<uint8_t *>(malloc(size + kTailRoom));
    memcpy(buf, data + 1, size - 1);
    const size_t len = finish(data[0], buf, size - 1);
    uint8_t *exact = static_cast<uint8_t *>(malloc(len ? len : 1));
    memcpy(exact, buf, len);
    free(buf);
    *out = exact;
    return len;
}

// Every reader, then the in-place writers, over one exactly sized frame.
inline void exercise(uint8_t *buf, uint32_t len) {
    SeiNalInfo entries[16];
    uint32_t count = 0;
    if (wl_get_all_sei_nal_info(buf, len, 16, &count, entries) == 0) {
        for (uint32_t i = 1; i < count; ++i) {
            TimingMd md;
            wl_parse_timing_sei(&entries[i], &md);
            if (entries[i].type == SEI_TYPE_TIMING) {
                wl_insert_new_ts_stream(&entries[i], 5, 1, 77);
                wl_transform_timing_sei(&entries[i], convert_ts);
            }
        }
    }
    SeiNalInfo ondi;
    OndIMd omd;
    memset(&omd, 0, sizeof omd);
    uint32_t tail = 0, codec = WL_CODEC_UNKNOWN;
    uint8_t found = 0;
    wl_parse_ondemandI_sei(buf, len, &ondi, &omd, &tail, &codec, &found);

    LiveviewMd lv;
    SeiNalInfo info;
    wl_parse_lvstream_sei(buf, static_cast<int32_t>(len), &lv, &info);
    wl_update_moduleinfo(buf, len, 7, 2, 1234, 3, convert_start);
    wl_insert_new_ts_direct(buf, len, 9, 2, 99);
}

}  // namespace sei_fuzz


#endif

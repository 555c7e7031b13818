// Timing SEI (type 257): timebase, sync flag, sensor time and per-device
// timestamps. Devices along the path add their stamps into free slots of the
// encoded SEI in place. Payload fields never put more than two data bytes in
// a row: the 0xFF fillers stand in for emulation prevention.
#include <string.h>

#include "wlc_hls/nalu_sei_internal.h"

using namespace kerm::sei;

namespace {

constexpr uint32_t kTimingPayloadH264 = 87;
constexpr uint32_t kTimingPayloadH265 = 86;
constexpr uint32_t kFirstItem = 14;  // payload offset of item 0
constexpr uint32_t kItemLen = 6;
constexpr uint32_t kLastItemStart = 89;  // NAL offset beyond which no item starts
constexpr uint32_t kMaxTimebase = 7;

// The four timestamp bytes of the item at `p`; the filler p[3] is not touched.
void put_ts(uint8_t *p, uint32_t ts) {
    p[1] = static_cast<uint8_t>(ts);
    p[2] = static_cast<uint8_t>(ts >> 8);
    p[4] = static_cast<uint8_t>(ts >> 16);
    p[5] = static_cast<uint8_t>(ts >> 24);
}

// dev, ts bits 0-15, 0xFF, ts bits 16-31
void put_item(uint8_t *p, uint32_t dev, uint32_t ts) {
    p[0] = static_cast<uint8_t>(dev);
    p[3] = 0xFF;
    put_ts(p, ts);
}

uint32_t item_ts(const uint8_t *p) {
    return p[1] | (p[2] << 8) | (p[4] << 16) | (static_cast<uint32_t>(p[5]) << 24);
}

uint64_t read_sensor_time(const uint8_t *p) {
    const uint8_t b[8] = {p[3], p[4], p[6], p[7], p[9], p[10], p[12], p[13]};
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | b[i];
    return v;
}

}  // namespace

extern "C" int32_t wl_insert_new_ts_md(TimingMd *md, uint32_t dev, uint32_t tb, uint32_t ts) noexcept {
    if (md == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "the timing md cannot be NULL\n");
        return KERM_ERR_FAIL;
    }
    if (tb >= kMaxTimebase) {
        SEI_LOG(VASK_LOG_ERROR, "invalid timebase %u\n", tb);
        return KERM_ERR_FAIL;
    }
    if (md->item_cnt >= WL_TIMING_MAX_ITEMS) {
        SEI_LOG(VASK_LOG_ERROR, "no extra space for new timing info %d, ts %u\n", static_cast<int>(dev), ts);
        return KERM_ERR_FAIL;
    }
    const uint32_t base = md->flags & 0x0Fu;
    if (md->item_cnt > 0 && base != tb)
        SEI_LOG(VASK_LOG_WARNING, "WARN: insert a timing md: ts %u, new base %u is different from existed base %u\n",
                ts, tb, base);
    if (md->item_cnt == 0) {
        md->flags = static_cast<uint8_t>((md->flags & 0xF0u) | tb | 0x10u);
        md->sensor_time = static_cast<uint64_t>(ts) * 1000u;
    }
    md->items[md->item_cnt].dev = dev;
    md->items[md->item_cnt].ts = ts & 0x7FFFFFFFu;
    ++md->item_cnt;
    return KERM_OK;
}

extern "C" uint32_t wl_enc_timing_sei(uint8_t *dst, uint32_t codec, int32_t free_len,
                                      const TimingMd *md) noexcept {
    if (dst == nullptr || md == nullptr) return 0;
    if (free_len <= WL_TIMING_BLOCK_LEN_H264) {
        SEI_LOG(VASK_LOG_ERROR, "sei no extra space for venc to write timing sei\n");
        return 0;
    }
    const bool h265 = codec == WL_CODEC_H265;
    memset(dst, 0xFF, WL_TIMING_SEI_LEN);
    uint32_t pos = put_nal_header(dst, h265);
    dst[pos++] = 0xFF;  // type 257 = FF 02
    dst[pos++] = 0x02;
    dst[pos++] = static_cast<uint8_t>(h265 ? kTimingPayloadH265 : kTimingPayloadH264);
    dst[WL_TIMING_SEI_LEN - 1] = 0x80;
    uint8_t *p = dst + pos;
    const uint64_t st = md->sensor_time;
    p[0] = 0x00;
    p[1] = md->flags;
    p[2] = md->flags2;
    p[3] = static_cast<uint8_t>(st);
    p[4] = static_cast<uint8_t>(st >> 8);
    p[6] = static_cast<uint8_t>(st >> 16);
    p[7] = static_cast<uint8_t>(st >> 24);
    p[9] = static_cast<uint8_t>(st >> 32);
    p[10] = static_cast<uint8_t>(st >> 40);
    p[12] = static_cast<uint8_t>(st >> 48);
    p[13] = static_cast<uint8_t>(st >> 56);
    const uint32_t cnt = md->item_cnt < WL_TIMING_MAX_ITEMS ? md->item_cnt : WL_TIMING_MAX_ITEMS;
    for (uint32_t i = 0; i < cnt; ++i) {
        const uint32_t at = pos + kFirstItem + kItemLen * i;
        if (at > kLastItemStart) {
            // Deliberate: not an error; the first twelve items go out.
            SEI_LOG(VASK_LOG_ERROR, "timing sei is full, no enough space for new item idx %u\n", i);
            break;
        }
        put_item(dst + at, md->items[i].dev, md->items[i].ts);
    }
    uint8_t *j = dst + WL_TIMING_SEI_LEN;
    uint32_t jp = put_nal_header(j, h265);
    j[jp++] = SEI_TYPE_JUMPING;
    j[jp++] = 0x02;
    j[jp++] = WL_TIMING_SEI_LEN;
    j[jp++] = 0x00;
    j[jp++] = 0x80;
    return WL_TIMING_SEI_LEN + jp;
}

// Reads stay within payload_len + 5 bytes: an entry found by the chain walk
// always has its jumping SEI and the frame tail behind it.
extern "C" int32_t wl_parse_timing_sei(const SeiNalInfo *info, TimingMd *md) noexcept {
    if (info == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "the timing sei info cannot be NULL\n");
        return KERM_ERR_FAIL;
    }
    if (info->payload_addr == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "the payload in timing sei is NULL\n");
        return KERM_ERR_FAIL;
    }
    if (md == nullptr) return KERM_ERR_PARAM;
    const uint8_t *p = info->payload_addr;
    memset(md, 0, sizeof *md);
    md->flags = p[1];
    md->flags2 = p[2] & 3u;
    md->sensor_time = read_sensor_time(p);
    uint32_t n = 0;
    // The record holds 32 items; a forged payload length must not overrun it.
    for (uint32_t off = kFirstItem; off < info->payload_len && n < WL_TIMING_MAX_ITEMS; off += kItemLen) {
        if (p[off] == 0xFF) break;
        md->items[n].dev = p[off];
        md->items[n].ts = item_ts(p + off);
        ++n;
    }
    md->item_cnt = static_cast<uint16_t>(n);
    return KERM_OK;
}

extern "C" int32_t wl_insert_new_ts_stream(SeiNalInfo *info, uint32_t dev, uint32_t tb, uint32_t ts) noexcept {
    if (info == nullptr || info->payload_addr == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "the timing sei info cannot be NULL\n");
        return KERM_ERR_FAIL;
    }
    if (info->payload_len == 0) {
        SEI_LOG(VASK_LOG_ERROR, "the payload len of timing sei is 0\n");
        return KERM_ERR_FAIL;
    }
    if (tb >= kMaxTimebase) {
        SEI_LOG(VASK_LOG_ERROR, "invalid timebase %u\n", tb);
        return KERM_ERR_FAIL;
    }
    uint8_t *p = info->payload_addr;
    const uint32_t base = p[1] & 0x0Fu;
    if (base != tb)
        SEI_LOG(VASK_LOG_WARNING,
                "WARN:insert a timing md: ts %u, the new base %u is different from existed base %u\n", ts, tb,
                base);
    uint32_t off = kFirstItem;
    while (off < info->payload_len && p[off] != 0xFF) off += kItemLen;
    if (off + kItemLen > info->payload_len) {
        SEI_LOG(VASK_LOG_ERROR, "no extra space for new timing info %d, ts %u\n", static_cast<int>(dev), ts);
        return KERM_ERR_FAIL;
    }
    put_item(p + off, dev, ts);  // the whole ts: no 31-bit mask on the wire path
    SEI_LOG(VASK_LOG_VERBOSE, "insert a new timing item, offset %d, dev %u, ts %u\n", static_cast<int>(off), dev,
            ts);
    return KERM_OK;
}

extern "C" int32_t wl_insert_new_ts_direct(uint8_t *buf, uint32_t len, uint32_t dev, uint32_t tb,
                                           uint32_t ts) noexcept {
    constexpr int32_t kMax = 16;
    SeiNalInfo entries[kMax];
    uint32_t count = 0;
    const int32_t ret = wl_get_all_sei_nal_info(buf, len, kMax, &count, entries);
    if (ret != KERM_OK) return ret;
    for (uint32_t i = 0; i < count; ++i)
        if (entries[i].type == SEI_TYPE_TIMING) return wl_insert_new_ts_stream(&entries[i], dev, tb, ts);
    return KERM_ERR_FAIL;
}

extern "C" int32_t wl_transform_timing_sei(SeiNalInfo *info, WlTsConvertFn fn) noexcept {
    if (info == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "the timing sei info cannot be NULL\n");
        return KERM_ERR_FAIL;
    }
    if (fn == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "the timestamp convertion fun cannot be NULL\n");
        return KERM_ERR_FAIL;
    }
    if (info->payload_addr == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "the payload in timing sei is NULL\n");
        return KERM_ERR_FAIL;
    }
    if (info->payload_len <= 17) {
        SEI_LOG(VASK_LOG_ERROR, "the payload len of timing sei is smaller than 18 bytes, invalid\n");
        return KERM_ERR_FAIL;
    }
    uint8_t *p = info->payload_addr;
    const uint64_t sensor_time = read_sensor_time(p);
    const uint32_t timebase = p[1] & 0x0Fu;
    // With no item nothing is converted and the timebase stays.
    uint8_t new_tb = static_cast<uint8_t>(timebase);
    for (uint32_t off = kFirstItem; off < info->payload_len && p[off] != 0xFF; off += kItemLen) {
        const int32_t ts = static_cast<int32_t>(item_ts(p + off));
        uint32_t new_ts = 0;
        const int32_t ret = fn(sensor_time, ts, timebase, &new_ts, &new_tb);
        if (ret != 0) {
            SEI_LOG(VASK_LOG_ERROR, "failed to do timestamp transformation, ret %d\n", ret);
            return KERM_ERR_FAIL;
        }
        put_ts(p + off, new_ts);
    }
    p[1] = static_cast<uint8_t>((p[1] & 0xF0u) | new_tb);
    return KERM_OK;
}

extern "C" uint32_t wl_print_timing_sei_value(const TimingMd *md) noexcept {
    if (md == nullptr) return 0;
    SEI_LOG(VASK_LOG_ERROR, "timing md: tb %u, sync %d, sensor time %llu us, total items %u\n",
            md->flags & 0x0Fu, (md->flags >> 4) & 1, static_cast<unsigned long long>(md->sensor_time),
            static_cast<unsigned>(md->item_cnt));
    const uint32_t cnt = md->item_cnt < WL_TIMING_MAX_ITEMS ? md->item_cnt : WL_TIMING_MAX_ITEMS;
    for (uint32_t i = 0; i < cnt; ++i)
        SEI_LOG(VASK_LOG_ERROR, "timing md:dev %u, ts %u ms\n", md->items[i].dev, md->items[i].ts);
    return 0;
}

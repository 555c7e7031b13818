// Live-view stream SEI (type 256): stream header, optional codec information
// and a module table that the devices along the live-view path fill in one by
// one. It sits outside the jumping chain; the on-demand-I SEI of the frame
// tail gives its distance from the frame end.
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include "wlc_hls/nalu_sei_internal.h"

using namespace kerm::sei;

namespace {

constexpr size_t kHeaderLen = 10;    // q0..q9
constexpr size_t kCodecLen = 5;      // c0..c4
constexpr size_t kModuleHdrLen = 2;  // m0, m1
constexpr size_t kSlotLen = 3;
constexpr uint32_t kMaxTimebase = 7;
constexpr uint32_t kMaxTimeDiff = 4095;
constexpr int32_t kAlignUnit = 2040;
constexpr int32_t kMaxDummyLen = 254;

// Only the listed bits of a byte belong to a field; the rest keep the 0xFF
// the payload was filled with.
inline void set_bits(uint8_t *b, uint32_t mask, uint32_t shift, uint32_t v) {
    *b = static_cast<uint8_t>((*b & ~(mask << shift)) | ((v & mask) << shift));
}

inline size_t module_section(const uint8_t *q) { return (q[9] & 0x02u) ? kHeaderLen + kCodecLen : kHeaderLen; }

inline uint32_t read_start_time(const uint8_t *q) {
    return q[2] | (q[3] << 8) | (q[5] << 16) | (static_cast<uint32_t>(q[6]) << 24);
}

inline void write_start_time(uint8_t *q, uint32_t t) {
    q[2] = static_cast<uint8_t>(t);
    q[3] = static_cast<uint8_t>(t >> 8);
    q[5] = static_cast<uint8_t>(t >> 16);
    q[6] = static_cast<uint8_t>(t >> 24);
}

// time_diff bits 8-11 and err_code share one byte with a kept top bit.
inline void put_diff_hi(uint8_t *b, uint32_t diff, uint32_t err) {
    set_bits(b, 0x0F, 0, diff >> 8);
    set_bits(b, 0x07, 4, err);
}

uint32_t lv_payload_len(const LiveviewMd *md) {
    uint32_t size = kHeaderLen;
    if (md->codec_info_on == 1) size += kCodecLen;
    if (md->module_info_on == 1) size += kModuleHdrLen + kSlotLen * md->module_max_cnt;
    return size;
}

void log_cut_short(const char *function) {
    SEI_LOGN(function, VASK_LOG_ERROR, "lvstream sei is cut short by the frame end\n");
}

void wl_parse_lvstreamsei_header_payload(const uint8_t *q, LiveviewMd *md) {
    memset(md, 0, offsetof(LiveviewMd, codec_info_size));
    md->version_id = q[0] & 0x7Fu;
    md->time_base = (q[1] >> 4) & 7u;
    md->sync_flag = (q[1] >> 3) & 1u;
    md->lite_mode = (q[1] >> 2) & 1u;
    md->start_time = read_start_time(q);
    md->product_id = q[7] & 0x3Fu;
    md->camera_id = static_cast<uint8_t>((q[7] >> 6) | ((q[8] & 3u) << 2));
    md->stream_id = static_cast<uint8_t>(q[8] >> 2);
    md->sei_info_on = q[9] & 1u;
    md->codec_info_on = (q[9] >> 1) & 1u;
    md->module_info_on = (q[9] >> 2) & 1u;
    md->extension_info_on = (q[9] >> 6) & 1u;
    const Field fields[] = {
        {"version_id", md->version_id},       {"time_base", md->time_base},
        {"sync_flag", md->sync_flag},         {"lite_mode", md->lite_mode},
        {"start_time", md->start_time},       {"product_id", md->product_id},
        {"camera_id", md->camera_id},         {"stream_id", md->stream_id},
        {"sei_info_on", md->sei_info_on},     {"codec_info_on", md->codec_info_on},
        {"module_info_on", md->module_info_on}, {"extension_info_on", md->extension_info_on},
    };
    log_fields(__func__, "[LVDBG][HEADER INFO] parser: ", 19, "", fields, sizeof fields / sizeof fields[0]);
}

void wl_parse_lvstreamsei_codecinfo_payload(const uint8_t *c, LiveviewMd *md) {
    md->codec_info_size = c[0] & 0x7Cu;
    md->frm_tar_len = rd16(c + 1);
    md->err_strategy = static_cast<uint8_t>(c[3] >> 4);
    md->avg_qp = c[4] & 0x3Fu;
    const Field fields[] = {{"codec_info_size", md->codec_info_size},
                            {"frm_tar_len", md->frm_tar_len},
                            {"err_strategy", md->err_strategy},
                            {"avg_qp", md->avg_qp}};
    log_fields(__func__, "[LVDBG][CODEC INFO] parser: ", 24, "", fields, sizeof fields / sizeof fields[0]);
}

void wl_parse_lvstreamsei_moduleinfo_payload(const uint8_t *m, size_t avail, LiveviewMd *md) {
    memset(md->modules, 0, sizeof md->modules);
    md->module_max_cnt = m[0] & 0x1Fu;
    md->module_item_size = static_cast<uint8_t>(m[0] >> 5);
    md->module_active_cnt = m[1] & 0x1Fu;
    const Field fields[] = {{"module_max_cnt", md->module_max_cnt},
                            {"module_item_size", md->module_item_size},
                            {"module_active_cnt", md->module_active_cnt}};
    log_fields(__func__, "[LVDBG][MODULE INFO] parser: ", 23, "", fields, sizeof fields / sizeof fields[0]);
    if (md->module_active_cnt > md->module_max_cnt) {
        SEI_LOG(VASK_LOG_ERROR, "failed to parse module info, max cnt[%u] should larger than active cnt[%u]",
                static_cast<unsigned>(md->module_max_cnt), static_cast<unsigned>(md->module_active_cnt));
        return;
    }
    if (kModuleHdrLen + kSlotLen * md->module_active_cnt > avail) {
        log_cut_short(__func__);
        return;
    }
    const bool lite = md->lite_mode == 1;
    for (int i = 0; i < md->module_active_cnt; ++i) {
        const uint8_t *s = m + kModuleHdrLen + kSlotLen * static_cast<size_t>(i);
        ModuleItem &it = md->modules[i];
        if (!lite) {
            it.module_id = s[0] & 0x3Fu;
            ++s;
            SEI_LOG(VASK_LOG_VERBOSE, "[LVDBG][MODULE INFO] parser: id [%d] module_id       %u", i,
                    static_cast<unsigned>(it.module_id));
        }
        it.time_diff = static_cast<uint16_t>(s[0] | ((s[1] & 0x0Fu) << 8));
        it.err_code = (s[1] >> 4) & 7u;
        SEI_LOG(VASK_LOG_VERBOSE, "[LVDBG][MODULE INFO] parser: id [%d] time_diff       %u", i,
                static_cast<unsigned>(it.time_diff));
        SEI_LOG(VASK_LOG_VERBOSE, "[LVDBG][MODULE INFO] parser: id [%d] err_code        %u", i,
                static_cast<unsigned>(it.err_code));
    }
}

}  // namespace

namespace kerm::sei {

void parse_lvstream_payload(const uint8_t *q, size_t avail, LiveviewMd *md) noexcept {
    if (q == nullptr || md == nullptr) return;
    if (avail < kHeaderLen) {
        log_cut_short("wl_parse_lvstreamsei_header_payload");
        return;
    }
    wl_parse_lvstreamsei_header_payload(q, md);
    size_t mod = kHeaderLen;
    if (md->codec_info_on == 1) {
        if (avail < kHeaderLen + kCodecLen) {
            log_cut_short("wl_parse_lvstreamsei_codecinfo_payload");
            return;
        }
        wl_parse_lvstreamsei_codecinfo_payload(q + kHeaderLen, md);
        mod += kCodecLen;
    }
    if (md->module_info_on != 1) return;
    if (md->lite_mode > 1) {
        SEI_LOGN("wl_parse_lvstreamsei_moduleinfo_payload", VASK_LOG_ERROR,
                 "failed to parse module info, wrong lite mode value %u", static_cast<unsigned>(md->lite_mode));
        return;
    }
    if (avail < mod + kModuleHdrLen) {
        log_cut_short("wl_parse_lvstreamsei_moduleinfo_payload");
        return;
    }
    wl_parse_lvstreamsei_moduleinfo_payload(q + mod, avail - mod, md);
}

void wl_parse_lvstreamsei_payload(const uint8_t *payload, LiveviewMd *md) noexcept {
    parse_lvstream_payload(payload, SIZE_MAX, md);
}

}  // namespace kerm::sei

// ---------------------------------------------------------------------------

extern "C" void wl_init_lvstream_md(LiveviewMd *md) noexcept {
    if (md == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "liveview_md should not be null");
        return;
    }
    md->version_id = 1;
    md->time_base = 7;  // outside 0..6: the first valid update is a timebase change
    md->sync_flag = 1;
    md->lite_mode = 0;
    md->start_time = 0;
    md->product_id = 1;
    md->camera_id = 1;
    md->stream_id = 1;
    md->extension_info_on = 0;
    md->module_info_on = 0;
    md->codec_info_on = 0;
    md->sei_info_on = 0;
    md->codec_info_size = 0;
    md->frm_tar_len = 0;
    md->err_strategy = 15;
    md->avg_qp = 51;
    md->module_item_size = 3;
    md->module_max_cnt = 20;
    md->module_active_cnt = 0;
    for (int i = 0; i < 20; ++i) {
        md->modules[i].module_id = 63;
        md->modules[i].time_diff = 4095;
        md->modules[i].err_code = 0x70;  // its three wire bits are 0
    }
}

namespace {

// Writes the dummy SEI that pads the frame so that the trailing metadata
// does not straddle a 2040-byte unit.
int32_t wl_insert_dummy_sei(uint8_t *dst, uint32_t codec, int32_t payload, int32_t free_len) {
    const int32_t ret = wl_insert_initial_sei(dst, codec, SEI_TYPE_DUMMY, payload, free_len);
    if (ret != KERM_OK) SEI_LOG(VASK_LOG_ERROR, "failed to insert a dummy sei, ret %d", ret);
    return ret;
}

// Sets *d_len to the dummy SEI written (0 for none); false when the dummy
// step fails.
bool wl_calu_dummysei_len(uint8_t *dst, uint32_t codec, int32_t free_len, uint32_t frame_len, int32_t lv_len,
                          int32_t head, int32_t *d_len) {
    *d_len = 0;
    const int32_t ondi = codec == WL_CODEC_H265 ? WL_ONDI_SEI_LEN_H265 : WL_ONDI_SEI_LEN_H264;
    const int32_t aud = codec == WL_CODEC_H264 ? WL_AUD_LEN_H264 : WL_AUD_LEN_H265;
    const int32_t need = lv_len + ondi + aud;
    // Signed, as the sender computes it: frame lengths above 2 GiB wrap.
    const int32_t rest = static_cast<int32_t>(frame_len + static_cast<uint32_t>(need)) % kAlignUnit;
    if (rest >= need) {
        SEI_LOG(VASK_LOG_VERBOSE, "donnot need to insert a dummy sei");
        return true;
    }
    const int32_t deficit = need - rest;
    if (deficit > kMaxDummyLen) {
        SEI_LOG(VASK_LOG_WARNING,
                "abandon to insert a dummy sei due to too long dummy info will waste channel resource");
        return false;
    }
    int32_t d = deficit - head - 2;
    if (d < 1) d = 1;
    const int32_t len = head + 1 + d + 1;
    if (free_len < len) {
        SEI_LOG(VASK_LOG_WARNING, "abandon to insert a dummy sei due to no mem");
        return false;
    }
    SEI_LOG(VASK_LOG_VERBOSE, "need to insert a dummy sei, length %d", len);
    if (wl_insert_dummy_sei(dst, codec, d, free_len) != KERM_OK) return false;
    *d_len = len;
    return true;
}

int32_t wl_init_lvstreamsei(uint8_t *dst, uint32_t codec, int32_t size, int32_t free_len) {
    const int32_t ret = wl_insert_initial_sei(dst, codec, SEI_TYPE_LVSTREAM, size, free_len);
    if (ret != KERM_OK) SEI_LOG(VASK_LOG_ERROR, "failed to insert a lvstream sei, ret %d", ret);
    return ret;
}

void write_lvstream_payload(uint8_t *q, const LiveviewMd *md, size_t room) {
    set_bits(&q[0], 0x7F, 0, md->version_id);
    set_bits(&q[1], 0x07, 4, md->time_base);
    set_bits(&q[1], 0x01, 3, md->sync_flag);
    set_bits(&q[1], 0x01, 2, md->lite_mode);
    write_start_time(q, md->start_time);
    set_bits(&q[7], 0x3F, 0, md->product_id);
    set_bits(&q[7], 0x03, 6, md->camera_id);
    set_bits(&q[8], 0x03, 0, static_cast<uint32_t>(md->camera_id) >> 2);
    set_bits(&q[8], 0x3F, 2, md->stream_id);
    set_bits(&q[9], 0x01, 0, md->sei_info_on);
    set_bits(&q[9], 0x01, 1, md->codec_info_on);
    set_bits(&q[9], 0x01, 2, md->module_info_on);
    set_bits(&q[9], 0x01, 6, md->extension_info_on);
    size_t mod = kHeaderLen;
    if (md->codec_info_on == 1) {
        uint8_t *c = q + kHeaderLen;
        set_bits(&c[0], 0x1F, 2, static_cast<uint32_t>(md->codec_info_size) >> 2);
        c[1] = static_cast<uint8_t>(md->frm_tar_len);
        c[2] = static_cast<uint8_t>(md->frm_tar_len >> 8);
        set_bits(&c[3], 0x0F, 4, md->err_strategy);
        set_bits(&c[4], 0x3F, 0, md->avg_qp);
        mod += kCodecLen;
    }
    if (md->module_info_on != 1 || md->lite_mode >= 2) return;
    uint8_t *m = q + mod;
    set_bits(&m[0], 0x1F, 0, md->module_max_cnt);
    set_bits(&m[0], 0x07, 5, md->module_item_size);
    set_bits(&m[1], 0x1F, 0, md->module_active_cnt);
    // Deliberate: the active count is not held to the reserved slots; the items still
    // come from the record and stay inside the caller's free space.
    for (size_t i = 0; i < md->module_active_cnt && i < WL_LV_MAX_MODULES; ++i) {
        const size_t at = mod + kModuleHdrLen + kSlotLen * i;
        if (at + kSlotLen > room) break;
        uint8_t *s = q + at;
        const ModuleItem &it = md->modules[i];
        if (md->lite_mode == 0) {
            set_bits(&s[0], 0x3F, 0, it.module_id);
            ++s;
        }
        s[0] = static_cast<uint8_t>(it.time_diff);
        put_diff_hi(&s[1], it.time_diff, it.err_code);
    }
}

}  // namespace

extern "C" int32_t wl_enc_lvstream_sei(uint8_t *dst, uint32_t codec, int32_t free_len, uint32_t frame_len,
                                       const LiveviewMd *md, uint32_t *lvstream_len, uint32_t *dummy_len) noexcept {
    if (dst == nullptr || md == nullptr || lvstream_len == nullptr || dummy_len == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "wl_enc_lvstream_sei: invalid input parameters");
        return KERM_ERR_PARAM;
    }
    const int32_t size = static_cast<int32_t>(lv_payload_len(md));
    const int32_t head = codec == WL_CODEC_H265 ? 8 : 7;  // NAL header plus the two type bytes
    const int32_t lv_len = head + size / 255 + (size % 255 ? 1 : 0) + size + 1;
    int32_t d_len = 0;
    const bool dummy_ok = wl_calu_dummysei_len(dst, codec, free_len, frame_len, lv_len, head, &d_len);
    *lvstream_len = 0;
    *dummy_len = 0;
    if (!dummy_ok) {
        SEI_LOG(VASK_LOG_ERROR, "insert dummy sei failed, abandon to insert lvstream sei\n");
        return KERM_ERR_FAIL;
    }
    uint8_t *start = dst + d_len;
    if (free_len < d_len + lv_len) {
        SEI_LOG(VASK_LOG_ERROR,
                "the free memory is %d, not enough for insert dummy sei & lvstream sei which need %d bytes space",
                free_len, d_len + lv_len);
        return KERM_ERR_FAIL;
    }
    // Deliberate: the whole free space is passed again, not what the dummy SEI left; the
    // test above already holds both.
    const int32_t ret = wl_init_lvstreamsei(start, codec, size, free_len);
    if (ret != KERM_OK) {
        SEI_LOG(VASK_LOG_ERROR, "insert lvstream sei failed, ret %d\n", ret);
        return KERM_ERR_FAIL;
    }
    const int32_t q_off = head + size / 255 + 1;
    write_lvstream_payload(start + q_off, md, static_cast<size_t>(free_len - d_len - q_off));
    *lvstream_len = static_cast<uint32_t>(lv_len);
    *dummy_len = static_cast<uint32_t>(d_len);
    return KERM_OK;
}

namespace {

enum class LvFind { ok, no_tail, disabled, too_far, bad_sei, bad_type };

// Finds the live-view stream SEI of a whole frame through the frame tail.
// On success `info` describes it and *avail is the number of buffer bytes
// from its payload to the frame end.
LvFind find_lvstream(const uint8_t *buf, uint32_t len, bool check_len, SeiNalInfo *info, size_t *avail,
                     uint32_t *offset, int32_t *ret) {
    uint32_t codec = WL_CODEC_UNKNOWN, tail = 0;
    uint8_t found = 0;
    SeiNalInfo ondi;
    OndIMd omd;
    memset(&ondi, 0, sizeof ondi);
    memset(&omd, 0, sizeof omd);
    if (wl_parse_ondemandI_sei(buf, len, &ondi, &omd, &tail, &codec, &found) != KERM_OK) return LvFind::no_tail;
    if (omd.LvStreamInfoSEIOff == 1) return LvFind::disabled;
    *offset = omd.LvStreamInfoSEI_offset;
    if (len < *offset) {
        if (check_len) return LvFind::too_far;
        // An offset beyond the frame start names nothing in the buffer.
        *ret = KERM_ERR_FAIL;
        return LvFind::bad_sei;
    }
    const uint8_t *nal = buf + len - *offset;
    *ret = get_sei_info_bounded(nal, *offset, info, codec);
    if (*ret != KERM_OK) return LvFind::bad_sei;
    if (info->type != SEI_TYPE_LVSTREAM) return LvFind::bad_type;
    *avail = static_cast<size_t>(buf + len - info->payload_addr);
    return LvFind::ok;
}

}  // namespace

extern "C" void wl_parse_lvstream_sei(const uint8_t *buf, int32_t len, LiveviewMd *md, SeiNalInfo *info) noexcept {
    if (buf == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "the lvstream sei info cannot be NULL");
        return;
    }
    if (md == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "liveview_md should not be null");
        return;
    }
    SeiNalInfo local;
    if (info == nullptr) info = &local;
    size_t avail = 0;
    uint32_t offset = 0;
    int32_t ret = 0;
    // A negative length would read as a huge one: no frame tail there.
    const LvFind r = len < 0 ? LvFind::no_tail
                              : find_lvstream(buf, static_cast<uint32_t>(len), true, info, &avail, &offset, &ret);
    switch (r) {
    case LvFind::no_tail:
        SEI_LOG(VASK_LOG_ERROR, "wl_parse_ondemandI_sei error");
        return;
    case LvFind::disabled:
        SEI_LOG(VASK_LOG_ERROR, "LvStreamInfoSEI is disabled");
        return;
    case LvFind::too_far:
        // Deliberate: length first, offset second, whatever the words say.
        SEI_LOG(VASK_LOG_ERROR, "find lvstream sei failed, offset %d is largen than the stream len %d", len,
                static_cast<int>(offset));
        return;
    case LvFind::bad_sei:
        SEI_LOG(VASK_LOG_ERROR, "get LvStreamInfoSEI failed, ret %d %u", ret, offset);
        return;
    case LvFind::bad_type:
        SEI_LOG(VASK_LOG_VERBOSE, "wl_get_lvstream_sei_info error\n");
        return;
    case LvFind::ok:
        break;
    }
    parse_lvstream_payload(info->payload_addr, avail, md);
}

namespace {

// Brings the SEI's timebase to `tb`, converting its start time.
void wl_update_timebase(uint8_t *q, uint32_t tb_in, WlStartTimeConvertFn fn) {
    const uint32_t tb = tb_in & 0xFFu;
    if (tb >= kMaxTimebase) {
        // Deliberate: a timebase the radio cannot have means the caller's state is
        // corrupt; stamping on would poison every downstream device.
        KERM_LOGF(0, VASK_LOG_FATAL, KERM_SEI_FILE, __func__, "wl hls: invaild timebase %d", static_cast<int>(tb));
        vask_log_dump_backtrace("VASK:\t");
        exit(-1);
    }
    const uint32_t old_tb = (q[1] >> 4) & 7u;
    if (old_tb == tb) {
        SEI_LOG(VASK_LOG_VERBOSE, "time base is still %d", static_cast<int>(tb));
        return;
    }
    uint64_t old_us = static_cast<uint64_t>(read_start_time(q)) * 1000u;
    uint64_t new_us = old_us;
    uint8_t ok = 1;
    if (fn != nullptr) fn(&old_us, &new_us, &ok, &ok);
    if (ok == 0) {
        SEI_LOG(VASK_LOG_ERROR, "failed to change time base %u -> %u", old_tb, tb);
        return;
    }
    write_start_time(q, static_cast<uint32_t>(new_us / 1000u));
    set_bits(&q[1], 0x07, 4, tb);
    SEI_LOG(VASK_LOG_VERBOSE, "time base is changing %u -> %u, start time is changing %llu -> %llu", old_tb, tb,
            static_cast<unsigned long long>(old_us), static_cast<unsigned long long>(new_us));
}

void wl_update_timediff(const uint8_t *q, uint8_t *slot, uint32_t end_time, uint8_t err_code) {
    const uint32_t start = read_start_time(q);
    uint32_t diff = end_time - start;
    if (diff > kMaxTimeDiff || start > end_time) {
        SEI_LOG(VASK_LOG_WARNING,
                "time diff %u is larger than the threshold %u, or start time is larger than end time [start %u "
                "end %u]",
                diff, kMaxTimeDiff, start, end_time);
        diff = kMaxTimeDiff;
    }
    slot[1] = static_cast<uint8_t>(diff);
    put_diff_hi(&slot[2], diff, err_code);
}

}  // namespace

extern "C" int32_t wl_update_moduleinfo(uint8_t *buf, uint32_t len, uint32_t module_id, uint32_t tb,
                                        uint32_t end_time, uint8_t err_code, WlStartTimeConvertFn fn) noexcept {
    if (buf == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "the stream start addr cannot be NULL\n");
        return KERM_ERR_PARAM;
    }
    SeiNalInfo info;
    memset(&info, 0, sizeof info);
    size_t avail = 0;
    uint32_t offset = 0;
    int32_t ret = 0;
    switch (find_lvstream(buf, len, false, &info, &avail, &offset, &ret)) {
    case LvFind::no_tail:
        SEI_LOG(VASK_LOG_VERBOSE, "wl_parse_ondemandI_sei error\n");
        return KERM_ERR_FAIL;
    case LvFind::disabled:
        SEI_LOG(VASK_LOG_VERBOSE, "LvStreamInfoSEI is disabled");
        return KERM_ERR_FAIL;
    case LvFind::too_far:
    case LvFind::bad_sei:
        SEI_LOG(VASK_LOG_ERROR, "get LvStreamInfoSEI failed, ret %d %u", ret, offset);
        return KERM_ERR_FAIL;
    case LvFind::bad_type:
        SEI_LOG(VASK_LOG_VERBOSE, "wl_get_lvstream_sei_info error");
        return KERM_ERR_FAIL;
    case LvFind::ok:
        break;
    }
    uint8_t *q = info.payload_addr;
    if (avail < kHeaderLen) {
        log_cut_short(__func__);
        return KERM_ERR_FAIL;
    }
    if ((q[9] & 0x04u) == 0) {
        SEI_LOG(VASK_LOG_VERBOSE, "module_info is off");
        return KERM_ERR_FAIL;
    }
    const size_t mod = module_section(q);
    if (avail < mod + kModuleHdrLen) {
        log_cut_short(__func__);
        return KERM_ERR_FAIL;
    }
    uint8_t *m = q + mod;
    const uint32_t a = m[1] & 0x1Fu, max = m[0] & 0x1Fu;
    if (a >= max) {
        SEI_LOG(VASK_LOG_VERBOSE, "number of items touch to max value %d", static_cast<int>(max));
        return KERM_ERR_FAIL;
    }
    uint8_t *slot = m + kModuleHdrLen + kSlotLen * a;
    if (static_cast<size_t>(slot + kSlotLen - q) > avail) {
        log_cut_short(__func__);
        return KERM_ERR_FAIL;
    }
    wl_update_timebase(q, tb, fn);
    // Deliberate: always the normal layout here, whatever lite_mode says.
    set_bits(&slot[0], 0x3F, 0, module_id);
    wl_update_timediff(q, slot, end_time, err_code);
    set_bits(&m[1], 0x1F, 0, a + 1);
    LiveviewMd scratch;
    parse_lvstream_payload(q, avail, &scratch);
    return KERM_OK;
}

// SEI framing, the frame tail, the backward chain of SEIs and the on-demand-I
// SEI. Everything works in place on the caller's frame buffer; nothing here
// allocates, locks or keeps state.
#include <string.h>

#include "wlc_hls/nalu_sei_internal.h"

static_assert(sizeof(void *) != 4 || sizeof(SeiNalInfo) == 16, "SeiNalInfo is 16 bytes on target");
static_assert(sizeof(SeiNalInfo) == 8 + 2 * sizeof(void *), "SeiNalInfo: four u16 then two pointers");
static_assert(alignof(uint64_t) != 8 || sizeof(TimingMd) == 280, "TimingMd layout");
static_assert(sizeof(OndIMd) == 36, "OndIMd is packed");
static_assert(sizeof(ModuleItem) == 4 && sizeof(LiveviewMd) == 23 + 64 * 4, "LiveviewMd is packed");

namespace kerm::sei {

uint32_t put_nal_header(uint8_t *dst, bool h265) noexcept {
    memcpy(dst, kStartCode, 4);
    if (h265) {
        dst[4] = 0x50;  // nal_unit_type 40 (suffix SEI), layer 0
        dst[5] = 0x01;  // temporal id plus 1
        return 6;
    }
    dst[4] = 0x06;
    return 5;
}

bool is_sei_header(const uint8_t *p, uint32_t codec) noexcept {
    if (memcmp(p, kStartCode, 4) != 0) return false;
    if (codec == WL_CODEC_H264) return p[4] == 0x06;
    if (codec == WL_CODEC_H265) return p[4] == 0x50 && p[5] == 0x01;
    return false;
}

int32_t get_sei_info_bounded(const uint8_t *nal, size_t avail, SeiNalInfo *info,
                             uint32_t codec) noexcept {
    if (nal == nullptr || info == nullptr) return KERM_ERR_PARAM;
    const uint32_t hdr = header_len(codec);
    if (codec > WL_CODEC_H265 || avail < hdr || !is_sei_header(nal, codec)) {
        // A NAL unit near the end of a short buffer: show the bytes there are.
        uint8_t b[12] = {};
        memcpy(b, nal, avail < sizeof b ? avail : sizeof b);
        SEI_LOGN("wl_get_sei_info", VASK_LOG_ERROR,
                "no SEI, broken stream? first 12 bytes %02x %02x %02x %02x %02x %02x %02x %02x "
                "%02x %02x %02x %02x\n",
                b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11]);
        return KERM_ERR_FAIL;
    }
    // The type/size coding is bounded by the buffer: a run of 0xFF bytes up to
    // its end is a truncated unit, not a reason to read on.
    size_t pos = hdr;
    uint32_t type = 0, size = 0;
    while (pos < avail && nal[pos] == 0xFF) type += 255, ++pos;
    if (pos < avail) type += nal[pos++];
    while (pos < avail && nal[pos] == 0xFF) size += 255, ++pos;
    if (pos >= avail) {
        SEI_LOGN("wl_get_sei_info", VASK_LOG_ERROR, "sei type/size coding runs past the buffer end\n");
        return KERM_ERR_FAIL;
    }
    size += nal[pos++];
    const size_t off = pos;
    info->type = static_cast<uint16_t>(type);
    info->payload_len = static_cast<uint16_t>(size);
    info->sei_len = static_cast<uint16_t>(size + off + 1);
    info->nal_addr = const_cast<uint8_t *>(nal);
    info->payload_addr = const_cast<uint8_t *>(nal) + off;
    uint8_t p[6] = {};
    memcpy(p, nal + off, avail - off < sizeof p ? avail - off : sizeof p);
    SEI_LOGN("wl_get_sei_info", VASK_LOG_VERBOSE, "sei type %04x, sei_len %d, payload_len %d, payload %x %x %x %x %x %x\n",
            type, static_cast<int>(info->sei_len), static_cast<int>(size), p[0], p[1], p[2], p[3],
            p[4], p[5]);
    return KERM_OK;
}

int32_t wl_get_sei_info(const uint8_t *nal, SeiNalInfo *info, uint32_t codec) noexcept {
    return get_sei_info_bounded(nal, SIZE_MAX, info, codec);
}

namespace {

// The space test of wl_insert_initial_sei. Deliberate: the formula counts one byte too
// few for a type or size that is an exact multiple of 255; the family never
// writes such a unit, and receivers size their buffers by the same rule.
int32_t check_sei_invalid_param(const uint8_t *dst, uint32_t codec, uint32_t type, int32_t size,
                                int32_t free_len) {
    if (dst == nullptr) return KERM_ERR_DEST;
    const int32_t needed = static_cast<int32_t>(header_len(codec) + type / 255 + (type % 255 ? 1 : 0)) +
                           size / 255 + (size % 255 ? 1 : 0) + size + 1;
    if (free_len < needed) {
        SEI_LOG(VASK_LOG_ERROR, "the free memory is %d, not enough for %d sei which needs %d bytes space",
                free_len, static_cast<int>(type), needed);
        return KERM_ERR_NO_MEMORY;
    }
    return KERM_OK;
}

}  // namespace

int32_t wl_insert_initial_sei(uint8_t *dst, uint32_t codec, uint32_t type, int32_t size,
                              int32_t free_len) noexcept {
    const int32_t err = check_sei_invalid_param(dst, codec, type, size, free_len);
    if (err != KERM_OK) {
        SEI_LOG(VASK_LOG_ERROR, "failed to insert a %d sei, wrong param, ret %d", static_cast<int>(type), err);
        return KERM_ERR_FAIL;
    }
    uint32_t pos = put_nal_header(dst, codec == WL_CODEC_H265);
    uint32_t t = type;
    for (; t > 254; t -= 255) dst[pos++] = 0xFF;
    dst[pos++] = static_cast<uint8_t>(t);
    int32_t rest = size;
    for (; rest > 254; rest -= 255) dst[pos++] = 0xFF;
    dst[pos++] = static_cast<uint8_t>(rest);
    // Deliberate: for sizes of 255 and more the fill below overwrites this stop byte.
    dst[pos + rest] = 0x80;
    memset(dst + pos, 0xFF, static_cast<size_t>(size));
    return KERM_OK;
}

void log_fields(const char *function, const char *prefix, int width, const char *end, const Field *fields,
                size_t count) noexcept {
    for (size_t i = 0; i < count; ++i)
        SEI_LOGN(function, VASK_LOG_VERBOSE, "%s%-*s%u%s", prefix, width, fields[i].name, fields[i].value, end);
}

}  // namespace kerm::sei

using namespace kerm::sei;

// ---------------------------------------------------------------------------
// Frame tail and chain

extern "C" void wl_get_codec_type_by_aud(const uint8_t *buf, uint32_t len, uint32_t *aud_len,
                                         uint32_t *codec) noexcept {
    if (buf == nullptr || aud_len == nullptr || codec == nullptr || len <= 6) return;
    const uint8_t *e = buf + len;
    if (memcmp(e - 6, kStartCode, 4) == 0 && e[-2] == 0x09) {
        *codec = WL_CODEC_H264;
        *aud_len = WL_AUD_LEN_H264;
        return;
    }
    // Deliberate: a bare 7-byte buffer is never taken for an H.265 AUD.
    if (len == 7) return;
    if (memcmp(e - 7, kStartCode, 4) == 0 && e[-3] == 0x46) {
        *codec = WL_CODEC_H265;
        *aud_len = WL_AUD_LEN_H265;
    }
}

extern "C" uint32_t wl_get_OndI_sei_nal_info(SeiNalInfo *ondi, const uint8_t *buf, uint32_t len,
                                             uint32_t *tail_len, uint32_t *codec) noexcept {
    if (ondi == nullptr || buf == nullptr || tail_len == nullptr || codec == nullptr) return 0;
    uint32_t aud = 0;
    wl_get_codec_type_by_aud(buf, len, &aud, codec);
    if (*codec >= 2) {
        SEI_LOG(VASK_LOG_VERBOSE, "invalid codec type, can't find valid aud\n");
        return 0;
    }
    *tail_len = aud;
    const uint32_t ondi_len = *codec == WL_CODEC_H265 ? WL_ONDI_SEI_LEN_H265 : WL_ONDI_SEI_LEN_H264;
    if (len <= ondi_len + aud) return 0;
    const uint8_t *p = buf + len - ondi_len - aud;
    const uint32_t hdr = header_len(*codec);
    if (!is_sei_header(p, *codec) || p[hdr] != SEI_TYPE_ONDI) return 0;
    *tail_len = ondi_len + aud;
    ondi->type = SEI_TYPE_ONDI;
    ondi->sei_len = static_cast<uint16_t>(ondi_len);
    ondi->span_len = static_cast<uint16_t>(ondi_len);
    ondi->payload_len = WL_ONDI_PAYLOAD_LEN;
    ondi->nal_addr = const_cast<uint8_t *>(buf) + len - *tail_len;
    ondi->payload_addr = ondi->nal_addr + hdr + 2;
    return 1;
}

namespace {

enum class WalkEnd { stopped, full };

// Walks the jumping-SEI chain back from `consumed` bytes before the frame end,
// filling entries[*n..]. Every step reads the 10 or 11 bytes before the
// current end and jumps back by the recorded length; video data is never
// scanned.
WalkEnd wl_get_more_sei(const uint8_t *buf, uint32_t len, uint32_t consumed, uint32_t codec,
                        int32_t max_cnt, SeiNalInfo *entries, int32_t *n) {
    for (;;) {
        const uint32_t end = len - consumed;
        if (codec > WL_CODEC_H265) {
            SEI_LOG(VASK_LOG_ERROR, "unsupported codec type in SEI parsing\n");
            return WalkEnd::stopped;
        }
        if (end < 11) {
            SEI_LOG(VASK_LOG_ERROR, "the stream byte is too short to be parsed\n");
            return WalkEnd::stopped;
        }
        const uint32_t jlen = codec == WL_CODEC_H265 ? WL_JUMPING_SEI_LEN_H265 : WL_JUMPING_SEI_LEN_H264;
        if (!is_sei_header(buf + end - jlen, codec) || buf[end - 5] != SEI_TYPE_JUMPING) {
            SEI_LOG(VASK_LOG_VERBOSE, "no jumping sei, stop parsing\n");
            return WalkEnd::stopped;
        }
        const uint32_t jump = rd16(buf + end - 3);
        SEI_LOG(VASK_LOG_VERBOSE, "parse a jumping sei, jumping byte %d\n", static_cast<int>(jump));
        uint32_t span = jump + jlen;
        // A jump past the start of the buffer cannot name a unit in it; treat
        // it as the broken chain it is rather than read before `buf`.
        if (span > end) {
            SEI_LOG(VASK_LOG_ERROR, "no SEI indicated by juming sei, broken stream?\n");
            return WalkEnd::stopped;
        }
        const uint8_t *nal = buf + end - span;
        uint16_t pos = static_cast<uint16_t>(header_len(codec));
        if (!is_sei_header(nal, codec)) {
            SEI_LOG(VASK_LOG_ERROR, "no SEI indicated by juming sei, broken stream?\n");
            pos = 0;
            span = 0;
        }
        // The scan stays below jump - 1, so it reads at most nal[jump + 1],
        // well inside the jumping SEI that follows.
        const int32_t limit = static_cast<int32_t>(jump) - 1;
        uint16_t type = 0, size = 0;
        while (pos < limit && nal[pos] == 0xFF) type = static_cast<uint16_t>(type + 255), ++pos;
        type = static_cast<uint16_t>(type + nal[pos++]);
        while (pos < limit && nal[pos] == 0xFF) size = static_cast<uint16_t>(size + 255), ++pos;
        size = static_cast<uint16_t>(size + nal[pos++]);
        const uint16_t off = pos;
        if (static_cast<uint32_t>(off) + size + 1 != jump) {
            SEI_LOG(VASK_LOG_ERROR, "sei payload: offset %u, payload len %u, nal len %u, mismatch!!!\n",
                    static_cast<unsigned>(off), static_cast<unsigned>(size), jump);
            return WalkEnd::stopped;
        }
        const uint8_t *p = nal + off;
        SEI_LOG(VASK_LOG_VERBOSE, "sei type %04x, payload %x %x %x %x %x %x\n", static_cast<unsigned>(type),
                p[0], p[1], p[2], p[3], p[4], p[5]);
        if (*n == max_cnt) return WalkEnd::full;
        SeiNalInfo &e = entries[*n];
        e.type = type;
        e.sei_len = static_cast<uint16_t>(jump);
        e.span_len = static_cast<uint16_t>(span);
        e.payload_len = size;
        e.nal_addr = const_cast<uint8_t *>(nal);
        e.payload_addr = const_cast<uint8_t *>(p);
        ++*n;
        consumed += span;
    }
}

}  // namespace

extern "C" int32_t wl_get_all_sei_nal_info(const uint8_t *buf, uint32_t len, int32_t max_cnt,
                                           uint32_t *count, SeiNalInfo *entries) noexcept {
    if (count == nullptr || buf == nullptr || entries == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "invalid parameters\n");
        return KERM_ERR_PARAM;
    }
    // The walk, the on-demand-I lookup included, logs as the inlined
    // wl_get_more_sei; only the overflow line below stands in this function.
    *count = 0;
    if (max_cnt < 1) {
        SEI_LOGN("wl_get_more_sei", VASK_LOG_ERROR, "can't parse sei, because exceed the max allowed cnt %d\n",
                 max_cnt);
        return KERM_ERR_FAIL;
    }
    uint32_t codec = WL_CODEC_UNKNOWN, consumed = 0;
    if (wl_get_OndI_sei_nal_info(&entries[0], buf, len, &consumed, &codec) == 0) {
        SEI_LOGN("wl_get_more_sei", VASK_LOG_ERROR, "failed to get OndI sei\n");
        return KERM_ERR_FAIL;
    }
    int32_t n = 1;
    if (wl_get_more_sei(buf, len, consumed, codec, max_cnt, entries, &n) == WalkEnd::full) {
        SEI_LOG(VASK_LOG_ERROR, "The total number of SEI is %d, exceed the max allowed cnt %d\n", n, n);
        return KERM_ERR_FAIL;
    }
    *count = static_cast<uint32_t>(n);
    return KERM_OK;
}

extern "C" uint32_t wl_print_all_sei_info(const SeiNalInfo *entries, int32_t count,
                                          const uint8_t *print_payloads) noexcept {
    if (entries == nullptr) return 0;
    for (int32_t i = 0; i < count; ++i) {
        const SeiNalInfo &e = entries[i];
        SEI_LOG(VASK_LOG_ERROR, " sei: type %04x, payload len %u, nal len %d, nal addr %p, payload addr %p\n",
                static_cast<unsigned>(e.type), static_cast<unsigned>(e.payload_len), static_cast<int>(e.sei_len),
                static_cast<void *>(e.nal_addr), static_cast<void *>(e.payload_addr));
        if (print_payloads == nullptr) continue;
        if (e.type == SEI_TYPE_ONDI) {
            OndIMd md;
            memset(&md, 0, sizeof md);
            wl_parse_ondI_sei(&e, &md);
            wl_print_ondI_sei_value(&md);
        } else {
            SEI_LOG(VASK_LOG_ERROR, "print fun for sei %04x is not ready\n", static_cast<unsigned>(e.type));
        }
    }
    return 0;
}

// ---------------------------------------------------------------------------
// On-demand-I SEI. The encoder writes the older use of p17, p20, p22 and p23
// (fillers and the encode time); the parser reads the newer fields there.
// Deliberate: both stay as they are; deployed senders and receivers depend
// on each.

extern "C" uint32_t wl_enc_ondI_sei(uint8_t *dst, uint32_t h264, int32_t free_len,
                                    const OndIMd *md) noexcept {
    if (dst == nullptr || md == nullptr) return 0;
    if (free_len <= WL_ONDI_SEI_LEN_H264) {
        SEI_LOG(VASK_LOG_ERROR, "the free memory is %d, not enough for ondI sei", free_len);
        return 0;
    }
    // Deliberate: non-zero selects H.264 here, the reverse of the codec code
    // elsewhere.
    uint32_t pos = put_nal_header(dst, h264 == 0);
    dst[pos++] = SEI_TYPE_ONDI;
    dst[pos++] = WL_ONDI_PAYLOAD_LEN;
    uint8_t *p = dst + pos;
    const auto nz = [](uint32_t v) { return static_cast<uint8_t>(v == 0 ? 0xFF : v); };
    p[0] = static_cast<uint8_t>(md->frm_idx);
    p[1] = static_cast<uint8_t>(md->frm_idx >> 8);
    p[2] = nz(((static_cast<uint32_t>(md->avgQPy) << 1) + (md->err_flag & 1u)) & 0xFFu);
    p[3] = static_cast<uint8_t>(md->frm_idx >> 16);
    p[4] = static_cast<uint8_t>(md->frm_len);
    p[5] = nz(md->exp_len_lo);
    p[6] = static_cast<uint8_t>(md->frm_len >> 8);
    p[7] = static_cast<uint8_t>(md->frm_len >> 16);
    p[8] = nz(md->exp_len);
    p[9] = static_cast<uint8_t>(md->frm_chs);
    p[10] = static_cast<uint8_t>(md->frm_chs >> 8);
    p[11] = 0xFF;
    p[12] = static_cast<uint8_t>(md->frm_chs >> 16);
    p[13] = static_cast<uint8_t>(md->frm_chs >> 24);
    p[14] = 0xFF;
    p[15] = static_cast<uint8_t>(md->frm_gts);
    p[16] = static_cast<uint8_t>(md->frm_gts >> 8);
    p[17] = 0xFF;
    p[18] = static_cast<uint8_t>(md->frm_gts >> 16);
    p[19] = static_cast<uint8_t>(md->frm_gts >> 24);
    p[20] = 0xFF;
    p[21] = md->extra;
    p[22] = static_cast<uint8_t>(md->enc_time);
    p[23] = static_cast<uint8_t>(0xFE | (md->is_I & 1u));
    p[24] = static_cast<uint8_t>(((md->is_hdres & 1u) << 7) | ((md->is_60fps & 1u) << 6) |
                                 ((md->enc_time >> 8) & 0x3Fu));
    p[WL_ONDI_PAYLOAD_LEN] = 0x80;
    return pos + WL_ONDI_PAYLOAD_LEN + 1;
}

extern "C" int32_t wl_update_ondI_sei_enc_time_value(SeiNalInfo *ondi, uint32_t enc_time) noexcept {
    if (ondi == nullptr || ondi->payload_addr == nullptr) return KERM_ERR_PARAM;
    uint8_t *p = ondi->payload_addr;
    p[22] = static_cast<uint8_t>(enc_time);
    p[24] = static_cast<uint8_t>((p[24] & 0xC0u) | ((enc_time >> 8) & 0x3Fu));
    return KERM_OK;
}

extern "C" int32_t wl_parse_ondI_sei(const SeiNalInfo *ondi, OndIMd *md) noexcept {
    if (ondi == nullptr || md == nullptr || ondi->payload_addr == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "invalid parameters\n");
        return KERM_ERR_PARAM;
    }
    if (ondi->payload_len != WL_ONDI_PAYLOAD_LEN) {
        // Deliberate: the text has always said 26; log readers match on it.
        SEI_LOG(VASK_LOG_ERROR, "the length of ondI is %u, should be %d\n",
                static_cast<unsigned>(ondi->payload_len), 26);
        return KERM_ERR_DEST;
    }
    const uint8_t *p = ondi->payload_addr;
    md->frm_idx = p[0] | (p[1] << 8) | (p[3] << 16);
    md->err_flag = p[2] & 1u;
    md->avgQPy = static_cast<uint8_t>(p[2] >> 1);
    md->err_flag2 = p[2] & 1u;
    md->frm_len = p[4] | (p[6] << 8) | (p[7] << 16);
    md->exp_len = static_cast<uint8_t>((p[5] & 0x7Fu) + p[8] * 128u);
    md->frm_chs = p[9] | (p[10] << 8) | (p[12] << 16) | (static_cast<uint32_t>(p[13]) << 24);
    md->frm_gts = p[15] | (p[16] << 8) | (p[18] << 16) | (static_cast<uint32_t>(p[19]) << 24);
    md->err_strategy = static_cast<uint8_t>(p[17] >> 4);
    md->is_3d_lut = p[20] & 0x7Fu;
    md->extra = p[21];
    md->LvStreamInfoSEI_offset = p[22];
    md->is_I = p[23] & 1u;
    md->is_disp = (p[23] >> 1) & 1u;
    md->codec_stat_off = (p[23] >> 2) & 1u;
    md->LvStreamInfoSEIOff = (p[23] >> 3) & 1u;
    md->is_normal_latency = (p[23] >> 4) & 3u;
    md->is_hdres = (p[24] >> 7) & 1u;
    md->is_60fps = (p[24] >> 6) & 1u;
    const Field fields[] = {
        {"frm_idx", md->frm_idx},
        {"err_flag", md->err_flag},
        {"avgQPy", md->avgQPy},
        {"frm_len", md->frm_len},
        {"exp_len", md->exp_len},
        {"frm_chs", md->frm_chs},
        {"frm_gts", md->frm_gts},
        {"err_strategy", md->err_strategy},
        {"is_3d_lut", md->is_3d_lut},
        {"LvStreamInfoSEI_offset", md->LvStreamInfoSEI_offset},
        {"is_I", md->is_I},
        {"is_disp", md->is_disp},
        {"codec_stat_off", md->codec_stat_off},
        {"LvStreamInfoSEIOff", md->LvStreamInfoSEIOff},
        {"is_normal_latency", md->is_normal_latency},
        {"is_hdres", md->is_hdres},
        {"is_60fps", md->is_60fps},
    };
    log_fields(__func__, "[ONDI_SEI]parser: ", 30, "\n", fields, sizeof fields / sizeof fields[0]);
    return KERM_OK;
}

extern "C" int32_t wl_parse_ondemandI_sei(const uint8_t *buf, uint32_t len, SeiNalInfo *ondi,
                                          OndIMd *md, uint32_t *tail_len, uint32_t *codec,
                                          uint8_t *found) noexcept {
    if (ondi == nullptr || md == nullptr || found == nullptr) {
        SEI_LOG(VASK_LOG_ERROR, "invalid parameters\n");
        return KERM_ERR_PARAM;
    }
    *found = static_cast<uint8_t>(wl_get_OndI_sei_nal_info(ondi, buf, len, tail_len, codec));
    if (*found == 0) {
        SEI_LOG(VASK_LOG_VERBOSE, "failed to get Ondi sei");
        return KERM_ERR_FAIL;
    }
    const int32_t ret = wl_parse_ondI_sei(ondi, md);
    if (ret != KERM_OK) {
        SEI_LOG(VASK_LOG_ERROR, "failed to parse Ondi sei, ret %d", ret);
        return KERM_ERR_FAIL;
    }
    return KERM_OK;
}

extern "C" uint32_t wl_print_ondI_sei_value(const OndIMd *md) noexcept {
    if (md == nullptr) return 0;
    SEI_LOG(VASK_LOG_ERROR, "ondI md:frm idx %u, len %u, chs %08x, gts %u , enc time %u, isI %u\n",
            md->frm_idx, md->frm_len, md->frm_chs, md->frm_gts, md->enc_time, static_cast<unsigned>(md->is_I));
    return 0;
}

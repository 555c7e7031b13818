// kerm sei: stamp an Annex-B elementary stream the way the device's encoder
// does (timing SEI, optional live-view SEI, on-demand-I SEI, closing AUD),
// and dump what a stamped stream carries, frame by frame.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>
#include <vector>

#include "kerm_log.h"
#include "kerm_opts.h"
#include "kerm_sei.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kEncoderDev = 0x21;  // the encoder's own timing entry
constexpr uint32_t kRelayDev = 0x42;    // a device further down the path
constexpr uint32_t kTimebase = 1;
constexpr uint32_t kFirstTs = 0x12340;  // ms
constexpr uint32_t kFrameMs = 100;
constexpr uint32_t kRoom = 4096;  // free space behind each frame
constexpr int kMaxChain = 16;

bool g_verbose = false;  // -v: the library's SEI log lines on standard output

// Reads all of `path` (standard input for "-"); reports a failure.
bool read_file(const std::string &path, Bytes *out) {
    FILE *f = kerm_tool::open_input(path, "sei");
    if (f == nullptr) return false;
    uint8_t chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) out->insert(out->end(), chunk, chunk + n);
    const int err = ferror(f) != 0 ? errno : 0;
    kerm_tool::close_input(f);
    if (err != 0) kerm_tool::fail("sei", kerm_tool::input_name(path), strerror(err));
    return err == 0;
}

// ---- Annex-B scanning

struct Nal {
    size_t start;  // first start-code byte (a leading zero_byte included)
    size_t hdr;    // NAL header
};

std::vector<Nal> scan_nals(const Bytes &b) {
    std::vector<Nal> out;
    for (size_t i = 0; i + 3 <= b.size(); ++i) {
        if (b[i] != 0 || b[i + 1] != 0 || b[i + 2] != 1) continue;
        out.push_back({i > 0 && b[i - 1] == 0 ? i - 1 : i, i + 3});
        i += 2;
    }
    return out;
}

struct CodecRules {
    bool h265;
    unsigned type(const Bytes &b, size_t hdr) const { return h265 ? (b[hdr] >> 1) & 0x3F : b[hdr] & 0x1F; }
    bool vcl(unsigned t) const { return h265 ? t < 32 : t >= 1 && t <= 5; }
    bool key(unsigned t) const { return h265 ? t >= 16 && t <= 21 : t == 5; }
    // Non-VCL units that can only open an access unit.
    bool opens_au(unsigned t) const {
        if (h265) return (t >= 32 && t <= 35) || t == 39 || (t >= 41 && t <= 44) || (t >= 48 && t <= 55);
        return (t >= 6 && t <= 9) || (t >= 14 && t <= 18);
    }
    // A NAL header this codec defines for a single-layer stream. The other
    // codec's headers fail early: every H.264 slice and parameter set has
    // bit 0 set (a non-zero H.265 layer id), and H.265 parameter sets and
    // trailing pictures read as H.264 types 0 and 2-4, which no stream that
    // this tool stamps carries.
    bool plausible(const Bytes &b, size_t hdr) const {
        if ((b[hdr] & 0x80) != 0) return false;
        if (h265) return hdr + 1 < b.size() && (b[hdr] & 1) == 0 && (b[hdr + 1] >> 3) == 0 && (b[hdr + 1] & 7) != 0;
        const unsigned t = b[hdr] & 0x1F;
        return t == 1 || (t >= 5 && t <= 23);
    }
    // first_mb_in_slice == 0 / first_slice_segment_in_pic_flag
    bool first_slice(const Bytes &b, size_t hdr) const {
        const size_t at = hdr + (h265 ? 2 : 1);
        return at < b.size() && (b[at] & 0x80) != 0;
    }
};

struct Frame {
    size_t begin, end;
    bool key;
};

std::vector<Frame> split_access_units(const Bytes &b, const CodecRules &rules) {
    std::vector<Frame> frames;
    Frame cur{0, 0, false};
    bool seen_vcl = false;
    for (const Nal &n : scan_nals(b)) {
        if (n.hdr + 1 >= b.size()) break;
        const unsigned t = rules.type(b, n.hdr);
        const bool vcl = rules.vcl(t);
        if (seen_vcl && (rules.opens_au(t) || (vcl && rules.first_slice(b, n.hdr)))) {
            cur.end = n.start;
            frames.push_back(cur);
            cur = {n.start, 0, false};
            seen_vcl = false;
        }
        seen_vcl |= vcl;
        cur.key |= rules.key(t);
    }
    if (seen_vcl) {
        cur.end = b.size();
        frames.push_back(cur);
    }
    return frames;
}

// ---- what one frame carries

struct Stamp {
    OndIMd ondi;
    TimingMd timing;
    bool lv;
    LiveviewMd liveview;
};

uint32_t checksum(const uint8_t *p, size_t n) {
    uint32_t s = 0;
    for (size_t i = 0; i < n; ++i) s = s * 31 + p[i];
    return s;
}

cJSON *json_ondi(const OndIMd &o, bool full) {
    cJSON *j = cJSON_CreateObject();
    cJSON_AddNumberToObject(j, "frm_idx", o.frm_idx);
    cJSON_AddNumberToObject(j, "frm_len", o.frm_len);
    char chs[12];
    snprintf(chs, sizeof chs, "%08x", o.frm_chs);  // as the text shows it
    cJSON_AddStringToObject(j, "frm_chs", chs);
    cJSON_AddNumberToObject(j, "frm_gts", o.frm_gts);
    cJSON_AddNumberToObject(j, "is_I", o.is_I);
    if (full) {
        cJSON_AddNumberToObject(j, "avgQPy", o.avgQPy);
        cJSON_AddNumberToObject(j, "err_flag", o.err_flag);
        cJSON_AddNumberToObject(j, "exp_len", o.exp_len);
        cJSON_AddNumberToObject(j, "lv_off", o.LvStreamInfoSEIOff);
        cJSON_AddNumberToObject(j, "lv_offset", o.LvStreamInfoSEI_offset);
    }
    return j;
}

cJSON *json_timing(const TimingMd &t) {
    cJSON *j = cJSON_CreateObject();
    cJSON_AddNumberToObject(j, "tb", t.flags & 0xFu);
    cJSON_AddNumberToObject(j, "sync", (t.flags >> 4) & 1u);
    kerm_tool::json_u64(j, "sensor_time", t.sensor_time);
    cJSON *items = cJSON_AddArrayToObject(j, "items");
    for (unsigned i = 0; i < t.item_cnt && i < WL_TIMING_MAX_ITEMS; ++i) {
        cJSON *it = cJSON_CreateObject();
        cJSON_AddNumberToObject(it, "dev", t.items[i].dev);
        cJSON_AddNumberToObject(it, "ts", t.items[i].ts);
        cJSON_AddItemToArray(items, it);
    }
    return j;
}

cJSON *json_liveview(const LiveviewMd &m) {
    cJSON *j = cJSON_CreateObject();
    cJSON_AddNumberToObject(j, "version_id", m.version_id);
    cJSON_AddNumberToObject(j, "time_base", m.time_base);
    cJSON_AddNumberToObject(j, "start_time", m.start_time);
    cJSON_AddNumberToObject(j, "product_id", m.product_id);
    cJSON_AddNumberToObject(j, "camera_id", m.camera_id);
    cJSON_AddNumberToObject(j, "stream_id", m.stream_id);
    cJSON_AddNumberToObject(j, "frm_tar_len", m.frm_tar_len);
    cJSON_AddNumberToObject(j, "module_max_cnt", m.module_max_cnt);
    cJSON *mods = cJSON_AddArrayToObject(j, "modules");
    for (unsigned i = 0; i < m.module_active_cnt && i < WL_LV_MAX_MODULES; ++i) {
        cJSON *it = cJSON_CreateObject();
        cJSON_AddNumberToObject(it, "module_id", m.modules[i].module_id);
        cJSON_AddNumberToObject(it, "time_diff", m.modules[i].time_diff);
        cJSON_AddNumberToObject(it, "err_code", m.modules[i].err_code);
        cJSON_AddItemToArray(mods, it);
    }
    return j;
}

// ---- stamp

struct StampOptions {
    bool h265 = false, liveview = false;
    unsigned modules = 2;
    std::string codec, manifest, in, out;
};

// Appends the encoder's tail to `f` (the frame bytes) and then lets two more
// devices stamp the finished frame in place. Returns false on a library
// refusal; `s` receives what was meant to be stamped.
bool stamp_frame(Bytes &f, uint32_t idx, bool key, const StampOptions &o, Stamp *s) {
    const uint32_t codec = o.h265 ? WL_CODEC_H265 : WL_CODEC_H264;
    const uint32_t video = static_cast<uint32_t>(f.size());
    const uint32_t ts = kFirstTs + idx * kFrameMs;
    f.resize(video + kRoom);
    uint32_t pos = video;
    const auto room = [&] { return static_cast<int32_t>(f.size() - pos); };

    // The live-view SEI goes in front of the chain: the walk starts at the
    // on-demand-I SEI and any unit without a jumping SEI behind it ends it.
    uint32_t lv_at = 0;
    s->lv = o.liveview;
    if (o.liveview) {
        LiveviewMd &m = s->liveview;
        wl_init_lvstream_md(&m);
        m.start_time = ts;
        m.camera_id = 2;
        m.codec_info_on = 1;
        m.frm_tar_len = static_cast<uint16_t>(video);
        if (video > UINT16_MAX)
            fprintf(stderr, "kerm sei: frame %u: %u bytes wrap the 16-bit live-view target length (stored %u)\n", idx,
                    video, m.frm_tar_len);
        m.module_info_on = 1;
        uint32_t lv_len = 0, dummy = 0;
        if (wl_enc_lvstream_sei(f.data() + pos, codec, room(), pos, &m, &lv_len, &dummy) != 0) return false;
        lv_at = pos + dummy;
        pos += dummy + lv_len;
    }

    TimingMd &t = s->timing;
    memset(&t, 0, sizeof t);
    t.flags2 = 3;  // keeps p2 non-zero: no start-code emulation next to p0
    if (wl_insert_new_ts_md(&t, kEncoderDev, kTimebase, ts) != 0) return false;
    const uint32_t tn = wl_enc_timing_sei(f.data() + pos, codec, room(), &t);
    if (tn == 0) return false;
    pos += tn;

    OndIMd &d = s->ondi;
    memset(&d, 0, sizeof d);
    d.frm_idx = idx;
    d.avgQPy = 26;
    d.frm_len = video;
    d.frm_chs = checksum(f.data(), video);
    d.frm_gts = ts;
    d.enc_time = 3 + idx % 40;
    d.is_I = key;
    const uint32_t on = wl_enc_ondI_sei(f.data() + pos, o.h265 ? 0 : 1, room(), &d);
    if (on == 0) return false;
    uint8_t *p = f.data() + pos + on - 1 - WL_ONDI_PAYLOAD_LEN;
    pos += on;
    const uint8_t aud[2][7] = {{0, 0, 0, 1, 0x09, 0xF0}, {0, 0, 0, 1, 0x46, 0x01, 0x50}};
    const uint32_t aud_len = o.h265 ? WL_AUD_LEN_H265 : WL_AUD_LEN_H264;
    memcpy(f.data() + pos, aud[o.h265], aud_len);
    pos += aud_len;
    if (o.liveview) {
        // The encoder still writes the older p22/p23; the live-view fields
        // are filled in once the frame length is known.
        p[22] = static_cast<uint8_t>(pos - lv_at);
        p[23] &= static_cast<uint8_t>(~0x08u);
    }
    f.resize(pos);

    if (wl_insert_new_ts_direct(f.data(), pos, kRelayDev, kTimebase, ts + 7) != 0) return false;
    t.items[t.item_cnt++] = {kRelayDev, ts + 7};
    if (o.liveview) {
        LiveviewMd &m = s->liveview;
        m.time_base = kTimebase;  // the first update converts from the default
        for (unsigned i = 0; i < o.modules; ++i) {
            const ModuleItem it = {static_cast<uint8_t>(10 + i), static_cast<uint16_t>(5 * (i + 1)),
                                   static_cast<uint8_t>(i % 8)};
            if (wl_update_moduleinfo(f.data(), pos, it.module_id, kTimebase, ts + it.time_diff, it.err_code,
                                     nullptr) != 0)
                return false;
            m.modules[m.module_active_cnt++] = it;
        }
    }
    return true;
}

int stamp_all(const Bytes &in, const std::vector<Frame> &frames, const StampOptions &o, FILE *out, FILE *man);

StampOptions g_stamp;
bool g_dump_json = false;
std::string g_dump_in;

int run_stamp() {
    StampOptions &o = g_stamp;
    o.h265 = o.codec == "h265";
    Bytes in;
    if (!read_file(o.in, &in)) return 1;
    // Stamping the other codec's stream would write units its decoder
    // cannot place: refuse it whole.
    for (const Nal &n : scan_nals(in)) {
        if (n.hdr < in.size() && !CodecRules{o.h265}.plausible(in, n.hdr)) {
            char why[96];
            snprintf(why, sizeof why, "not an %s stream (NAL header %02x at offset %zu); check --codec",
                     o.h265 ? "H.265" : "H.264", in[n.hdr], n.hdr);
            return kerm_tool::fail("sei", kerm_tool::input_name(o.in), why);
        }
    }
    const std::vector<Frame> frames = split_access_units(in, CodecRules{o.h265});
    if (frames.empty()) {
        return kerm_tool::fail("sei", kerm_tool::input_name(o.in), "no access units");
    }
    const bool to_stdout = o.out == "-";
    FILE *out = to_stdout ? stdout : fopen(o.out.c_str(), "wb");
    if (out == nullptr) return kerm_tool::fail("sei", o.out, strerror(errno));
    FILE *man = o.manifest.empty() ? nullptr : fopen(o.manifest.c_str(), "w");
    if (!o.manifest.empty() && man == nullptr) {
        const int err = errno;
        if (!to_stdout) fclose(out);
        return kerm_tool::fail("sei", o.manifest, strerror(err));
    }
    int rc = 0;
    try {
        rc = stamp_all(in, frames, o, out, man);
    } catch (const std::bad_alloc &) {
        // No half-stamped output is left behind.
        if (!to_stdout) {
            fclose(out);
            remove(o.out.c_str());
        }
        if (man) fclose(man);
        throw;
    }
    if (!to_stdout && fclose(out) != 0 && rc == 0) rc = kerm_tool::fail("sei", o.out, strerror(errno));
    if (man && fclose(man) != 0 && rc == 0) rc = kerm_tool::fail("sei", o.manifest, strerror(errno));
    if (rc == 0) fprintf(stderr, "kerm sei: stamped %zu frames\n", frames.size());
    return rc;
}

int stamp_all(const Bytes &in, const std::vector<Frame> &frames, const StampOptions &o, FILE *out, FILE *man) {
    int rc = 0;
    for (size_t i = 0; i < frames.size() && rc == 0; ++i) {
        Bytes f(in.begin() + static_cast<long>(frames[i].begin), in.begin() + static_cast<long>(frames[i].end));
        Stamp s;
        if (!stamp_frame(f, static_cast<uint32_t>(i), frames[i].key, o, &s)) {
            fprintf(stderr, "kerm sei: frame %zu: the SEI encoder refused (run with -v for its log)\n", i);
            rc = 1;
            break;
        }
        if (fwrite(f.data(), 1, f.size(), out) != f.size())
            return kerm_tool::fail("sei", kerm_tool::input_name(o.out), strerror(errno));
        if (man) {
            cJSON *j = cJSON_CreateObject();
            cJSON_AddNumberToObject(j, "frame", static_cast<double>(i));
            cJSON_AddItemToObject(j, "ondi", json_ondi(s.ondi, false));
            cJSON *timing = cJSON_AddArrayToObject(j, "timing");
            cJSON_AddItemToArray(timing, json_timing(s.timing));
            if (s.lv) cJSON_AddItemToObject(j, "liveview", json_liveview(s.liveview));
            char *text = cJSON_PrintUnformatted(j);
            cJSON_Delete(j);
            if (text == nullptr) throw std::bad_alloc();
            const bool ok = fprintf(man, "%s\n", text) >= 0;
            cJSON_free(text);
            if (!ok) return kerm_tool::fail("sei", o.manifest, strerror(errno));
        }
    }
    return rc;
}

// ---- dump

struct Decoded {
    const uint8_t *base;  // first byte of the frame
    size_t begin, end;
    uint32_t codec, count;
    int32_t walk;
    SeiNalInfo chain[kMaxChain];
    OndIMd ondi;
    bool ondi_ok;
    std::vector<TimingMd> timing;
    bool lv;
    LiveviewMd liveview;
};

// A frame ends after an AUD that closes a frame tail.
std::vector<std::pair<size_t, size_t>> split_stamped(const Bytes &b) {
    // Most AUDs close no tail; probing them is not worth a log line each.
    vask_log_control(LOG_CTRL_ENABLE, 0, 0);
    std::vector<std::pair<size_t, size_t>> out;
    size_t begin = 0;
    for (const Nal &n : scan_nals(b)) {
        size_t end = 0;
        if (n.hdr + 2 <= b.size() && b[n.hdr] == 0x09)
            end = n.hdr + 2;
        else if (n.hdr + 3 <= b.size() && b[n.hdr] == 0x46 && b[n.hdr + 1] == 0x01)
            end = n.hdr + 3;
        if (end == 0 || end <= begin) continue;
        SeiNalInfo ondi;
        uint32_t tail = 0, codec = WL_CODEC_UNKNOWN;
        if (wl_get_OndI_sei_nal_info(&ondi, b.data() + begin, static_cast<uint32_t>(end - begin), &tail, &codec)) {
            out.emplace_back(begin, end);
            begin = end;
        }
    }
    vask_log_control(LOG_CTRL_ENABLE, g_verbose, 0);
    return out;
}

void decode(const Bytes &b, Decoded *d) {
    const uint8_t *f = d->base = b.data() + d->begin;
    const uint32_t len = static_cast<uint32_t>(d->end - d->begin);
    uint32_t aud = 0;
    d->codec = WL_CODEC_UNKNOWN;
    wl_get_codec_type_by_aud(f, len, &aud, &d->codec);
    d->walk = wl_get_all_sei_nal_info(f, len, kMaxChain, &d->count, d->chain);
    memset(&d->ondi, 0, sizeof d->ondi);
    d->ondi_ok = d->count > 0 && wl_parse_ondI_sei(&d->chain[0], &d->ondi) == 0;
    for (uint32_t i = 1; i < d->count; ++i) {
        if (d->chain[i].type != SEI_TYPE_TIMING) continue;
        TimingMd t;
        if (wl_parse_timing_sei(&d->chain[i], &t) == 0) d->timing.push_back(t);
    }
    d->lv = false;
    if (d->ondi_ok && d->ondi.LvStreamInfoSEIOff == 0) {
        SeiNalInfo info;
        memset(&info, 0, sizeof info);
        memset(&d->liveview, 0, sizeof d->liveview);
        wl_parse_lvstream_sei(f, static_cast<int32_t>(len), &d->liveview, &info);
        d->lv = info.type == SEI_TYPE_LVSTREAM;
    }
}

void print_json(size_t idx, const Decoded &d) {
    cJSON *j = cJSON_CreateObject();
    cJSON_AddNumberToObject(j, "frame", static_cast<double>(idx));
    cJSON_AddNumberToObject(j, "offset", static_cast<double>(d.begin));
    cJSON_AddNumberToObject(j, "size", static_cast<double>(d.end - d.begin));
    cJSON_AddStringToObject(j, "codec", d.codec == WL_CODEC_H265 ? "h265" : "h264");
    cJSON_AddNumberToObject(j, "walk", d.walk);
    cJSON *chain = cJSON_AddArrayToObject(j, "chain");
    for (uint32_t i = 0; i < d.count; ++i) {
        cJSON *c = cJSON_CreateObject();
        cJSON_AddNumberToObject(c, "type", d.chain[i].type);
        cJSON_AddNumberToObject(c, "sei_len", d.chain[i].sei_len);
        cJSON_AddNumberToObject(c, "span_len", d.chain[i].span_len);
        cJSON_AddNumberToObject(c, "payload_len", d.chain[i].payload_len);
        cJSON_AddNumberToObject(c, "nal_offset", static_cast<double>(d.chain[i].nal_addr - d.base));
        cJSON_AddItemToArray(chain, c);
    }
    if (d.ondi_ok) cJSON_AddItemToObject(j, "ondi", json_ondi(d.ondi, true));
    cJSON *timing = cJSON_AddArrayToObject(j, "timing");
    for (const TimingMd &t : d.timing) cJSON_AddItemToArray(timing, json_timing(t));
    if (d.lv) cJSON_AddItemToObject(j, "liveview", json_liveview(d.liveview));
    kerm_tool::emit_json(j);
}

void print_text(size_t idx, const Decoded &d) {
    printf("frame %zu: offset %zu, %zu bytes, %s\n", idx, d.begin, d.end - d.begin,
           d.codec == WL_CODEC_H265 ? "H.265" : "H.264");
    printf("  chain:");
    for (uint32_t i = 0; i < d.count; ++i)
        printf(" [type %u, nal %u, span %u, payload %u]", d.chain[i].type, d.chain[i].sei_len, d.chain[i].span_len,
               d.chain[i].payload_len);
    printf("%s\n", d.walk != 0 ? " (walk failed)" : "");
    if (d.ondi_ok) {
        const OndIMd &o = d.ondi;
        printf("  on-demand-I: idx %u, len %u, chs %08x, gts %u, I %u, qp %u", o.frm_idx, o.frm_len, o.frm_chs,
               o.frm_gts, o.is_I, o.avgQPy);
        if (o.LvStreamInfoSEIOff == 0) printf(", live-view SEI %u bytes from the end", o.LvStreamInfoSEI_offset);
        printf("\n");
    }
    for (const TimingMd &t : d.timing) {
        printf("  timing: tb %u, sync %u, sensor %llu us:", t.flags & 0xFu, (t.flags >> 4) & 1u,
               static_cast<unsigned long long>(t.sensor_time));
        for (unsigned i = 0; i < t.item_cnt; ++i) printf(" dev %u @ %u ms", t.items[i].dev, t.items[i].ts);
        printf("\n");
    }
    if (d.lv) {
        const LiveviewMd &m = d.liveview;
        printf("  live-view: v%u, tb %u, start %u ms, product %u, camera %u, stream %u, target %u, modules %u/%u:",
               m.version_id, m.time_base, m.start_time, m.product_id, m.camera_id, m.stream_id, m.frm_tar_len,
               m.module_active_cnt, m.module_max_cnt);
        for (unsigned i = 0; i < m.module_active_cnt && i < WL_LV_MAX_MODULES; ++i)
            printf(" [id %u +%u ms err %u]", m.modules[i].module_id, m.modules[i].time_diff, m.modules[i].err_code);
        printf("\n");
    }
}

int run_dump() {
    const std::string &in_path = g_dump_in;
    const bool json = g_dump_json;
    Bytes in;
    if (!read_file(in_path, &in)) return 1;
    const auto frames = split_stamped(in);
    for (size_t i = 0; i < frames.size(); ++i) {
        Decoded d;
        d.begin = frames[i].first;
        d.end = frames[i].second;
        decode(in, &d);
        if (json)
            print_json(i, d);
        else
            print_text(i, d);
    }
    const size_t rest = frames.empty() ? in.size() : in.size() - frames.back().second;
    if (rest != 0)
        fprintf(stderr, "kerm sei: %s: %zu trailing bytes without a frame tail\n", kerm_tool::input_name(in_path).c_str(),
                rest);
    if (frames.empty()) return kerm_tool::fail("sei", kerm_tool::input_name(in_path), "no stamped frame");
    return kerm_tool::kExitOk;
}

// Input, frames and their copies live in memory; when it runs short the
// command ends with a message and status 1, never on an uncaught exception.
template <class Fn>
int or_out_of_memory(Fn fn) {
    try {
        return fn();
    } catch (const std::bad_alloc &) {
        return kerm_tool::fail("sei", "input", "out of memory (it does not fit the memory available)");
    }
}

kerm_tool::Runner setup(CLI::App &app) {
    app.description("Stamps or dumps the SEI metadata of H.264/H.265 Annex-B streams.");
    app.require_subcommand(1);
    app.add_flag("-v,--verbose", g_verbose, "log the library's SEI lines (verbose) to standard output");
    CLI::App *stamp = app.add_subcommand(
        "stamp",
        "appends to every frame of IN the tail the device's encoder writes: a timing SEI with its jumping SEI\n"
        "(plus one relay stamp), optionally a live-view SEI (with N module entries), the on-demand-I SEI and a\n"
        "closing AUD");
    stamp->add_option("-c,--codec", g_stamp.codec, "codec of IN")
        ->required()
        ->check(CLI::IsMember({"h264", "h265"}))
        ->type_name("h264|h265");
    stamp->add_flag("--liveview", g_stamp.liveview, "add the live-view SEI");
    kerm_tool::add_number(*stamp, "--modules", g_stamp.modules, 0, 20, "live-view module entries (default 2)");
    stamp->add_option("--manifest", g_stamp.manifest, "write what was stamped, one JSON object per frame")
        ->type_name("FILE");
    stamp->add_option("IN", g_stamp.in, "input stream, - for standard input")->required();
    stamp->add_option("OUT", g_stamp.out, "stamped stream, - for standard output")->required();
    CLI::App *dump = app.add_subcommand("dump", "walks every frame's tail and prints the chain and the decoded metadata");
    kerm_tool::add_json_flag(*dump, g_dump_json);
    dump->add_option("IN", g_dump_in, "stamped stream, - for standard input")->required();
    for (CLI::App *sub : {stamp, dump}) {
        sub->fallthrough();  // -v after the action too
        sub->footer(kerm_tool::kExitStatusText);
    }
    return [stamp]() {
        // The library's SEI lines go to standard output; keep it for the data
        // unless asked.
        if (g_verbose) vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x53, VASK_LOG_VERBOSE);
        vask_log_control(LOG_CTRL_ENABLE, g_verbose, 0);
        return stamp->parsed() ? or_out_of_memory(run_stamp) : or_out_of_memory(run_dump);
    };
}

}  // namespace

KERM_COMMAND("sei", "stamp or dump the SEI metadata of H.264/H.265 streams", setup);

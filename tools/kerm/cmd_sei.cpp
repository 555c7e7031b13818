// kerm sei: stamp an Annex-B elementary stream the way the device's encoder
// does (timing SEI, optional live-view SEI, on-demand-I SEI, closing AUD),
// and dump what a stamped stream carries, frame by frame.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>
#include <vector>

#include "kerm_cmd.h"
#include "kerm_log.h"
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

void usage(FILE *out) {
    fprintf(out,
            "usage: kerm sei stamp --codec h264|h265 [--liveview] [--modules N] [--manifest FILE] IN OUT\n"
            "       kerm sei dump [--json] IN\n"
            "  stamp  appends to every frame of IN the tail the device's encoder writes: a timing\n"
            "         SEI with its jumping SEI (plus one relay stamp), optionally a live-view SEI\n"
            "         (with N module entries, default 2), the on-demand-I SEI and a closing AUD.\n"
            "         --manifest writes what was stamped, one JSON object per frame.\n"
            "  dump   walks every frame's tail and prints the chain and the decoded metadata.\n"
            "  -v     log the library's SEI lines (verbose) to standard output\n");
}

bool read_file(const char *path, Bytes *out) {
    FILE *f = fopen(path, "rb");
    if (f == nullptr) {
        perror(path);
        return false;
    }
    uint8_t chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) out->insert(out->end(), chunk, chunk + n);
    const bool ok = ferror(f) == 0;
    fclose(f);
    if (!ok) fprintf(stderr, "%s: read error\n", path);
    return ok;
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

void print_items(FILE *out, const TimingMd &t) {
    for (unsigned i = 0; i < t.item_cnt && i < WL_TIMING_MAX_ITEMS; ++i)
        fprintf(out, "%s{\"dev\":%u,\"ts\":%u}", i ? "," : "", t.items[i].dev, t.items[i].ts);
}

void json_ondi(FILE *out, const OndIMd &o, bool full) {
    fprintf(out, "\"ondi\":{\"frm_idx\":%u,\"frm_len\":%u,\"frm_chs\":%u,\"frm_gts\":%u,\"is_I\":%u", o.frm_idx,
            o.frm_len, o.frm_chs, o.frm_gts, o.is_I);
    if (full)
        fprintf(out, ",\"avgQPy\":%u,\"err_flag\":%u,\"exp_len\":%u,\"lv_off\":%u,\"lv_offset\":%u", o.avgQPy,
                o.err_flag, o.exp_len, o.LvStreamInfoSEIOff, o.LvStreamInfoSEI_offset);
    fputc('}', out);
}

void json_timing(FILE *out, const TimingMd &t) {
    fprintf(out, "{\"tb\":%u,\"sync\":%u,\"sensor_time\":%llu,\"items\":[", t.flags & 0xFu, (t.flags >> 4) & 1u,
            static_cast<unsigned long long>(t.sensor_time));
    print_items(out, t);
    fputs("]}", out);
}

void json_liveview(FILE *out, const LiveviewMd &m) {
    fprintf(out,
            "\"liveview\":{\"version_id\":%u,\"time_base\":%u,\"start_time\":%u,\"product_id\":%u,"
            "\"camera_id\":%u,\"stream_id\":%u,\"frm_tar_len\":%u,\"module_max_cnt\":%u,\"modules\":[",
            m.version_id, m.time_base, m.start_time, m.product_id, m.camera_id, m.stream_id, m.frm_tar_len,
            m.module_max_cnt);
    for (unsigned i = 0; i < m.module_active_cnt && i < WL_LV_MAX_MODULES; ++i)
        fprintf(out, "%s{\"module_id\":%u,\"time_diff\":%u,\"err_code\":%u}", i ? "," : "", m.modules[i].module_id,
                m.modules[i].time_diff, m.modules[i].err_code);
    fputs("]}", out);
}

// ---- stamp

struct StampOptions {
    bool h265 = false, liveview = false;
    unsigned modules = 2;
    const char *manifest = nullptr, *in = nullptr, *out = nullptr;
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

int run_stamp(int argc, char **argv) {
    StampOptions o;
    bool codec_given = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--codec" && i + 1 < argc) {
            const std::string c = argv[++i];
            if (c != "h264" && c != "h265") break;
            o.h265 = c == "h265";
            codec_given = true;
        } else if (a == "--liveview") {
            o.liveview = true;
        } else if (a == "--modules" && i + 1 < argc) {
            o.modules = static_cast<unsigned>(strtoul(argv[++i], nullptr, 10));
        } else if (a == "--manifest" && i + 1 < argc) {
            o.manifest = argv[++i];
        } else if (a[0] != '-' && o.in == nullptr) {
            o.in = argv[i];
        } else if (a[0] != '-' && o.out == nullptr) {
            o.out = argv[i];
        } else {
            o.out = nullptr;
            break;
        }
    }
    if (!codec_given || o.in == nullptr || o.out == nullptr || o.modules > 20) {
        usage(stderr);
        return 2;
    }
    Bytes in;
    if (!read_file(o.in, &in)) return 1;
    // Stamping the other codec's stream would write units its decoder
    // cannot place: refuse it whole.
    for (const Nal &n : scan_nals(in)) {
        if (n.hdr < in.size() && !CodecRules{o.h265}.plausible(in, n.hdr)) {
            fprintf(stderr, "kerm sei: %s is not an %s stream (NAL header %02x at offset %zu); check --codec\n", o.in,
                    o.h265 ? "H.265" : "H.264", in[n.hdr], n.hdr);
            return 1;
        }
    }
    const std::vector<Frame> frames = split_access_units(in, CodecRules{o.h265});
    if (frames.empty()) {
        fprintf(stderr, "kerm sei: no access units in %s\n", o.in);
        return 1;
    }
    FILE *out = fopen(o.out, "wb");
    FILE *man = o.manifest ? fopen(o.manifest, "w") : nullptr;
    if (out == nullptr || (o.manifest && man == nullptr)) {
        perror(out == nullptr ? o.out : o.manifest);
        if (out) fclose(out);
        return 1;
    }
    int rc = 0;
    try {
        rc = stamp_all(in, frames, o, out, man);
    } catch (const std::bad_alloc &) {
        // No half-stamped output is left behind.
        fclose(out);
        if (man) fclose(man);
        remove(o.out);
        throw;
    }
    if (fclose(out) != 0 || rc != 0) rc = 1;
    if (man && fclose(man) != 0) rc = 1;
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
        if (fwrite(f.data(), 1, f.size(), out) != f.size()) rc = 1;
        if (man) {
            fprintf(man, "{\"frame\":%zu,", i);
            json_ondi(man, s.ondi, false);
            fputs(",\"timing\":[", man);
            json_timing(man, s.timing);
            fputc(']', man);
            if (s.lv) {
                fputc(',', man);
                json_liveview(man, s.liveview);
            }
            fputs("}\n", man);
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
    printf("{\"frame\":%zu,\"offset\":%zu,\"size\":%zu,\"codec\":\"%s\",\"walk\":%d,\"chain\":[", idx, d.begin,
           d.end - d.begin, d.codec == WL_CODEC_H265 ? "h265" : "h264", d.walk);
    for (uint32_t i = 0; i < d.count; ++i)
        printf("%s{\"type\":%u,\"sei_len\":%u,\"span_len\":%u,\"payload_len\":%u,\"nal_offset\":%zu}", i ? "," : "",
               d.chain[i].type, d.chain[i].sei_len, d.chain[i].span_len, d.chain[i].payload_len,
               static_cast<size_t>(d.chain[i].nal_addr - d.base));
    fputs("]", stdout);
    if (d.ondi_ok) {
        fputc(',', stdout);
        json_ondi(stdout, d.ondi, true);
    }
    fputs(",\"timing\":[", stdout);
    for (size_t i = 0; i < d.timing.size(); ++i) {
        if (i) fputc(',', stdout);
        json_timing(stdout, d.timing[i]);
    }
    fputc(']', stdout);
    if (d.lv) {
        fputc(',', stdout);
        json_liveview(stdout, d.liveview);
    }
    fputs("}\n", stdout);
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

int run_dump(int argc, char **argv) {
    bool json = false;
    const char *in_path = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0)
            json = true;
        else if (argv[i][0] != '-' && in_path == nullptr)
            in_path = argv[i];
        else {
            usage(stderr);
            return 2;
        }
    }
    if (in_path == nullptr) {
        usage(stderr);
        return 2;
    }
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
    if (rest != 0) fprintf(stderr, "kerm sei: %zu trailing bytes without a frame tail\n", rest);
    return frames.empty() ? 1 : 0;
}

// Input, frames and their copies live in memory; when it runs short the
// command ends with a message and status 1, never on an uncaught exception.
template <class Fn>
int or_out_of_memory(Fn fn) {
    try {
        return fn();
    } catch (const std::bad_alloc &) {
        fprintf(stderr, "kerm sei: out of memory (the input does not fit the memory available)\n");
        return 1;
    }
}

int run_sei(int argc, char **argv) {
    // The library's SEI lines go to standard output; keep it for the dump
    // unless asked.
    std::vector<char *> args;
    for (int i = 0; i < argc; ++i) {
        if (strcmp(argv[i], "-v") == 0)
            g_verbose = true;
        else
            args.push_back(argv[i]);
    }
    if (g_verbose) vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x53, VASK_LOG_VERBOSE);
    vask_log_control(LOG_CTRL_ENABLE, g_verbose, 0);
    const int n = static_cast<int>(args.size());
    if (n >= 2 && strcmp(args[1], "stamp") == 0) return or_out_of_memory([&] { return run_stamp(n - 1, args.data() + 1); });
    if (n >= 2 && strcmp(args[1], "dump") == 0) return or_out_of_memory([&] { return run_dump(n - 1, args.data() + 1); });
    usage(n >= 2 && strcmp(args[1], "--help") == 0 ? stdout : stderr);
    return n >= 2 && strcmp(args[1], "--help") == 0 ? 0 : 2;
}

}  // namespace

KERM_COMMAND("sei", "stamp or dump the SEI metadata of H.264/H.265 streams", run_sei);

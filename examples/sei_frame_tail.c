/* Builds the tail of an H.264 frame the way an encoder does (timing SEI,
 * on-demand-I SEI, access unit delimiter), lets a relay add its timestamp in
 * place, and reads everything back as a receiver would. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kerm_sei.h"

int main(void) {
    static const uint8_t slice[] = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x21, 0xA0, 0x17, 0x3C, 0x52};
    static const uint8_t aud[WL_AUD_LEN_H264] = {0, 0, 0, 1, 0x09, 0xF0};
    uint8_t frame[512];
    uint32_t pos = sizeof slice, n, count = 0, i;
    SeiNalInfo chain[4];
    TimingMd timing;
    OndIMd ondi;

    memcpy(frame, slice, sizeof slice);
    memset(&timing, 0, sizeof timing);
    timing.flags2 = 3; /* keeps the payload free of start-code look-alikes */
    wl_insert_new_ts_md(&timing, 1, 0, 40000);
    n = wl_enc_timing_sei(frame + pos, WL_CODEC_H264, (int32_t)(sizeof frame - pos), &timing);
    pos += n;
    memset(&ondi, 0, sizeof ondi);
    ondi.frm_idx = 7;
    ondi.frm_len = sizeof slice;
    ondi.is_I = 1;
    pos += wl_enc_ondI_sei(frame + pos, 1, (int32_t)(sizeof frame - pos), &ondi); /* 1 = H.264 here */
    memcpy(frame + pos, aud, sizeof aud);
    pos += sizeof aud;
    printf("frame: %u video bytes + %u tail bytes\n", (unsigned)sizeof slice, pos - (uint32_t)sizeof slice);

    /* A relay stamps the finished frame without moving any byte. */
    if (wl_insert_new_ts_direct(frame, pos, 2, 0, 40007) != 0) return 1;

    if (wl_get_all_sei_nal_info(frame, pos, 4, &count, chain) != 0 || count < 1) return 1;
    memset(&ondi, 0, sizeof ondi);
    wl_parse_ondI_sei(&chain[0], &ondi);
    printf("on-demand-I: frame %u, %u bytes, I-frame %u\n", ondi.frm_idx, ondi.frm_len, ondi.is_I);
    for (i = 1; i < count; i++) {
        if (chain[i].type != SEI_TYPE_TIMING || wl_parse_timing_sei(&chain[i], &timing) != 0) continue;
        for (n = 0; n < timing.item_cnt; n++)
            printf("timing: device %u at %u ms\n", timing.items[n].dev, timing.items[n].ts);
    }
    return 0;
}

/* Stamps the current local time with the radio's SSFN time base and converts
 * it back, the way the video and flight-data programs do. Set KERM_UTIL_ROOT to
 * use a substitute "$KERM_UTIL_ROOT/dev/mem" on a development host. */
#define _POSIX_C_SOURCE 200809L
#include <inttypes.h>
#include <stdio.h>
#include <time.h>

#include "kerm_sdr.h"

int main(void) {
    struct timespec ts;
    uint64_t now_us, back_us = 0, count = 0;
    uint32_t ssfn_ms = 0;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    now_us = (uint64_t)ts.tv_sec * 1000000u + (uint64_t)(ts.tv_nsec / 1000);
    if (vask_util_get_ssfn_cnt_for_talvek(&count) != 0 ||
        vask_util_get_convert_ssfn_for_talvek(now_us, &ssfn_ms) != 0 ||
        vask_util_get_convert_fc_timeus_for_talvek(ssfn_ms, &back_us) != 0) {
        fprintf(stderr, "time-sync block unavailable\n");
        return 1;
    }
    printf("radio counter 0x%08" PRIX64 " (%u ms)\n", count, VASK_SSFN_MS(count));
    printf("local %" PRIu64 " us -> SSFN %u ms -> local %" PRIu64 " us\n", now_us, ssfn_ms, back_us);
    return 0;
}

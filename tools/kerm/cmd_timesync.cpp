// kerm timesync: read the radio's time-sync block and try the conversions
// between local microseconds and SSFN milliseconds by hand. KERM_UTIL_ROOT
// points it at a substitute "$KERM_UTIL_ROOT/dev/mem" file.
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kerm_cmd.h"
#include "kerm_sdr.h"

namespace {

void usage(FILE *out) {
    fprintf(out,
            "usage: kerm timesync show\n"
            "       kerm timesync set-delta LOCAL_US   store the offset of SSFN time from LOCAL_US\n"
            "       kerm timesync to-ssfn LOCAL_US     local microseconds -> SSFN milliseconds\n"
            "       kerm timesync to-local SSFN_MS     SSFN milliseconds -> local microseconds\n"
            "The memory device is /dev/mem, or $KERM_UTIL_ROOT/dev/mem when that is set.\n");
}

bool parse_u64(const char *text, uint64_t max, uint64_t *out) {
    if (text == nullptr || text[0] == '\0' || text[0] == '-') return false;
    errno = 0;
    char *end = nullptr;
    const unsigned long long v = strtoull(text, &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return false;
    *out = v;
    return true;
}

// The library reads the block without checking its mapping: make sure the
// device opens and, for a substitute file, covers the block, so a bad setup
// is an error message rather than a fault.
bool device_usable() {
    const char *root = getenv("KERM_UTIL_ROOT");
    char path[4096];
    snprintf(path, sizeof path, "%s/dev/mem", root != nullptr && root[0] != '\0' ? root : "");
    const int fd = open(path, O_RDWR | O_SYNC);
    if (fd < 0) {
        fprintf(stderr, "kerm timesync: cannot open %s: %s\n", path, strerror(errno));
        return false;
    }
    struct stat st;
    const bool ok = fstat(fd, &st) == 0 &&
                    (!S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) >= VASK_SYNC_PHYS_ADDR + VASK_SYNC_SIZE);
    close(fd);
    if (!ok) {
        fprintf(stderr, "kerm timesync: %s does not reach the time-sync block at 0x%X\n", path, VASK_SYNC_PHYS_ADDR);
        return false;
    }
    // Whatever the kind of file (a link to /dev/null, a FIFO), the block must
    // map: the library hands out a handle whose mapping failed.
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
    if (h == nullptr) {
        fprintf(stderr, "kerm timesync: out of memory\n");
        return false;
    }
    const bool mapped = h->base != MAP_FAILED;
    vask_util_release_shmem(h);
    if (!mapped) fprintf(stderr, "kerm timesync: cannot map the time-sync block through %s\n", path);
    return mapped;
}

void print_offset(vask_shmem *h) {
    const uint32_t sign = vask_util_get_shmem_u8(h, VASK_SYNC_DELTA_SIGN);
    printf("offset:     %s%" PRIu64 " us (sign %u)\n", sign == 1 ? "+" : "-", vask_util_get_shmem_u64(h, VASK_SYNC_DELTA),
           sign);
}

int show_block(bool offset_only) {
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
    if (h == nullptr) {
        fprintf(stderr, "kerm timesync: out of memory\n");
        return 1;
    }
    if (!offset_only) {
        const uint32_t cnt = vask_util_get_shmem_u32(h, VASK_SYNC_SSFN_CNT);
        const uint32_t latch = vask_util_get_shmem_u32(h, VASK_SYNC_SSFN_LATCH);
        printf("counter:    0x%08X (%u ms)\n", cnt, VASK_SSFN_MS(cnt));
        printf("latched:    0x%08X (%u ms)\n", latch, VASK_SSFN_MS(latch));
    }
    print_offset(h);
    if (!offset_only) {
        printf("sync index: %u\n", vask_util_get_shmem_u32(h, VASK_SYNC_INDEX));
        printf("sync local: %" PRIu64 " us\n", vask_util_get_shmem_u64(h, VASK_SYNC_LOCAL_TIME));
    }
    vask_util_release_shmem(h);
    return 0;
}

int run_timesync(int argc, char **argv) {
    if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "help") == 0) {
        usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    const char *sub = argv[1];
    const bool is_show = strcmp(sub, "show") == 0;
    const bool known = is_show || strcmp(sub, "set-delta") == 0 || strcmp(sub, "to-ssfn") == 0 ||
                       strcmp(sub, "to-local") == 0;
    if (!known || argc != (is_show ? 2 : 3)) {
        usage(stderr);
        return 2;
    }
    uint64_t value = 0;
    if (!is_show && !parse_u64(argv[2], strcmp(sub, "to-local") == 0 ? UINT32_MAX : UINT64_MAX, &value)) {
        fprintf(stderr, "kerm timesync: bad number '%s'\n", argv[2]);
        return 2;
    }
    if (!device_usable()) return 1;

    if (is_show) return show_block(false);
    int32_t rc;
    if (strcmp(sub, "set-delta") == 0) {
        rc = vask_util_set_ssfn_delta_for_talvek(value);
        if (rc == 0) return show_block(true);
    } else if (strcmp(sub, "to-ssfn") == 0) {
        uint32_t ms = 0;
        rc = vask_util_get_convert_ssfn_for_talvek(value, &ms);
        if (rc == 0) printf("%u\n", ms);
    } else {
        uint64_t us = 0;
        rc = vask_util_get_convert_fc_timeus_for_talvek(static_cast<uint32_t>(value), &us);
        if (rc == 0) printf("%" PRIu64 "\n", us);
    }
    if (rc != 0) fprintf(stderr, "kerm timesync: %s failed (%d)\n", sub, static_cast<int>(rc));
    return rc == 0 ? 0 : 1;
}

}  // namespace

KERM_COMMAND("timesync", "SSFN time sync: show the block, set the offset, convert times", run_timesync);

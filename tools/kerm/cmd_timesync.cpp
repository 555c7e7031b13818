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

#include "kerm_opts.h"
#include "kerm_sdr.h"

namespace {

struct TimesyncArgs {
    uint64_t value = 0;
    bool json = false;
} g_args;

// The library reads the block without checking its mapping: make sure the
// device opens and, for a substitute file, covers the block, so a bad setup
// is an error message rather than a fault.
bool device_usable() {
    const char *root = getenv("KERM_UTIL_ROOT");
    char path[4096];
    snprintf(path, sizeof path, "%s/dev/mem", root != nullptr && root[0] != '\0' ? root : "");
    const int fd = open(path, O_RDWR | O_SYNC);
    if (fd < 0) {
        kerm_tool::fail("timesync", path, strerror(errno));
        return false;
    }
    struct stat st;
    const bool ok = fstat(fd, &st) == 0 &&
                    (!S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) >= VASK_SYNC_PHYS_ADDR + VASK_SYNC_SIZE);
    close(fd);
    if (!ok) {
        char why[96];
        snprintf(why, sizeof why, "does not reach the time-sync block at 0x%X", VASK_SYNC_PHYS_ADDR);
        kerm_tool::fail("timesync", path, why);
        return false;
    }
    // Whatever the kind of file (a link to /dev/null, a FIFO), the block must
    // map: the library hands out a handle whose mapping failed.
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
    if (h == nullptr) {
        kerm_tool::fail("timesync", path, strerror(ENOMEM));
        return false;
    }
    const bool mapped = h->base != MAP_FAILED;
    vask_util_release_shmem(h);
    if (!mapped) kerm_tool::fail("timesync", path, "cannot map the time-sync block");
    return mapped;
}

int show_block(bool offset_only) {
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
    if (h == nullptr) return kerm_tool::fail("timesync", "/dev/mem", strerror(ENOMEM));
    const uint32_t sign = vask_util_get_shmem_u8(h, VASK_SYNC_DELTA_SIGN);
    const uint64_t delta = vask_util_get_shmem_u64(h, VASK_SYNC_DELTA);
    const uint32_t cnt = vask_util_get_shmem_u32(h, VASK_SYNC_SSFN_CNT);
    const uint32_t latch = vask_util_get_shmem_u32(h, VASK_SYNC_SSFN_LATCH);
    const uint32_t index = vask_util_get_shmem_u32(h, VASK_SYNC_INDEX);
    const uint64_t local = vask_util_get_shmem_u64(h, VASK_SYNC_LOCAL_TIME);
    vask_util_release_shmem(h);
    char offset[32];
    snprintf(offset, sizeof offset, "%s%" PRIu64, sign == 1 ? "+" : "-", delta);
    if (g_args.json) {
        cJSON *o = cJSON_CreateObject();
        if (!offset_only) {
            kerm_tool::json_hex(o, "counter", cnt, 8);
            cJSON_AddNumberToObject(o, "counter_ms", VASK_SSFN_MS(cnt));
            kerm_tool::json_hex(o, "latched", latch, 8);
            cJSON_AddNumberToObject(o, "latched_ms", VASK_SSFN_MS(latch));
        }
        cJSON_AddRawToObject(o, "offset_us", offset[0] == '+' ? offset + 1 : offset);
        cJSON_AddNumberToObject(o, "sign", sign);
        if (!offset_only) {
            cJSON_AddNumberToObject(o, "sync_index", index);
            kerm_tool::json_u64(o, "sync_local_us", local);
        }
        kerm_tool::emit_json(o);
        return kerm_tool::kExitOk;
    }
    if (!offset_only) {
        printf("counter:    0x%08X (%u ms)\n", cnt, VASK_SSFN_MS(cnt));
        printf("latched:    0x%08X (%u ms)\n", latch, VASK_SSFN_MS(latch));
    }
    printf("offset:     %s us (sign %u)\n", offset, sign);
    if (!offset_only) {
        printf("sync index: %u\n", index);
        printf("sync local: %" PRIu64 " us\n", local);
    }
    return kerm_tool::kExitOk;
}

// One converted time: a bare number, or {"NAME":N} with --json.
void print_time(const char *name, uint64_t value) {
    if (g_args.json) {
        cJSON *o = cJSON_CreateObject();
        kerm_tool::json_u64(o, name, value);
        kerm_tool::emit_json(o);
    } else {
        printf("%" PRIu64 "\n", value);
    }
}

int failed(const char *sub, int32_t rc) {
    return kerm_tool::fail("timesync", sub, "failed (" + std::to_string(rc) + ")");
}

kerm_tool::Runner setup(CLI::App &app) {
    app.description("SSFN time sync. The memory device is /dev/mem, or $KERM_UTIL_ROOT/dev/mem when that is set.");
    app.require_subcommand(1);
    kerm_tool::add_json_flag(app, g_args.json);
    CLI::App *show = app.add_subcommand("show", "print the time-sync block");
    CLI::App *set = app.add_subcommand("set-delta", "store the offset of SSFN time from LOCAL_US");
    CLI::App *to_ssfn = app.add_subcommand("to-ssfn", "local microseconds -> SSFN milliseconds");
    CLI::App *to_local = app.add_subcommand("to-local", "SSFN milliseconds -> local microseconds");
    kerm_tool::add_number(*set, "LOCAL_US", g_args.value, 0, UINT64_MAX, "local time in microseconds")->required();
    kerm_tool::add_number(*to_ssfn, "LOCAL_US", g_args.value, 0, UINT64_MAX, "local time in microseconds")->required();
    kerm_tool::add_number(*to_local, "SSFN_MS", g_args.value, 0, UINT32_MAX, "SSFN time in milliseconds")->required();
    for (CLI::App *sub : {show, set, to_ssfn, to_local}) {
        sub->fallthrough();  // --json after the action too
        sub->footer(kerm_tool::kExitStatusText);
    }
    return [show, set, to_ssfn]() {
        if (!device_usable()) return kerm_tool::kExitFailure;
        if (show->parsed()) return show_block(false);
        if (set->parsed()) {
            const int32_t rc = vask_util_set_ssfn_delta_for_talvek(g_args.value);
            return rc == 0 ? show_block(true) : failed("set-delta", rc);
        }
        if (to_ssfn->parsed()) {
            uint32_t ms = 0;
            const int32_t rc = vask_util_get_convert_ssfn_for_talvek(g_args.value, &ms);
            if (rc != 0) return failed("to-ssfn", rc);
            print_time("ssfn_ms", ms);
            return kerm_tool::kExitOk;
        }
        uint64_t us = 0;
        const int32_t rc = vask_util_get_convert_fc_timeus_for_talvek(static_cast<uint32_t>(g_args.value), &us);
        if (rc != 0) return failed("to-local", rc);
        print_time("local_us", us);
        return kerm_tool::kExitOk;
    };
}

}  // namespace

KERM_COMMAND("timesync", "SSFN time sync: show the block, set the offset, convert times", setup);

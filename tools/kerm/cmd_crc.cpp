// kerm crc: every checksum of the CRC family over a file or standard input.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "kerm_crc.h"
#include "kerm_opts.h"

namespace {

struct CrcArgs {
    unsigned seed = 0;
    std::string file;
    bool json = false;
} g_args;

int run() {
    const CrcArgs &a = g_args;
    FILE *in = kerm_tool::open_input(a.file, "crc");
    if (in == nullptr) return kerm_tool::kExitFailure;

    uint8_t c8 = static_cast<uint8_t>(a.seed);
    uint16_t c16 = static_cast<uint16_t>(a.seed), ccitt = c16, xmodem = c16;
    unsigned long long total = 0;
    // Chunks stay below 64 KiB, within the XMODEM calculator's length contract;
    // every calculator continues from its previous result.
    static uint8_t buf[32768];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, in)) > 0) {
        const uint32_t len = static_cast<uint32_t>(n);
        c8 = vask_util_crc8_calc(buf, len, c8);
        c16 = vask_util_crc16_calc(buf, len, c16);
        ccitt = vask_util_crc16_ccitt_calc(buf, len, ccitt);
        xmodem = vask_util_crc16_xmodem_calc(buf, len, xmodem);
        total += n;
    }
    const int err = ferror(in) != 0 ? errno : 0;
    kerm_tool::close_input(in);
    if (err != 0) return kerm_tool::fail("crc", kerm_tool::input_name(a.file), strerror(err));
    if (a.json) {
        cJSON *o = cJSON_CreateObject();
        kerm_tool::json_u64(o, "bytes", total);
        kerm_tool::json_hex(o, "crc8", c8, 2);
        kerm_tool::json_hex(o, "crc16", c16, 4);
        kerm_tool::json_hex(o, "crc16-ccitt", ccitt, 4);
        kerm_tool::json_hex(o, "crc16-xmodem", xmodem, 4);
        kerm_tool::emit_json(o);
        return kerm_tool::kExitOk;
    }
    printf("bytes         %llu\n", total);
    printf("crc8          0x%02x\n", c8);
    printf("crc16         0x%04x\n", c16);
    printf("crc16-ccitt   0x%04x\n", ccitt);
    printf("crc16-xmodem  0x%04x\n", xmodem);
    return kerm_tool::kExitOk;
}

kerm_tool::Runner setup(CLI::App &app) {
    app.description(
        "Prints CRC-8, CRC-16 (reflected), CRC-16 CCITT (augmented) and CRC-16 XMODEM of FILE\n"
        "(standard input when absent or -), each started from the seed (CRC-8 uses its low byte).");
    kerm_tool::add_number(app, "-s,--seed", g_args.seed, 0, 0xFFFF, "start value of every checksum (default 0)");
    kerm_tool::add_json_flag(app, g_args.json);
    app.add_option("FILE", g_args.file, "input file, - for standard input");
    return run;
}

}  // namespace

KERM_COMMAND("crc", "CRC-8/CRC-16 checksums of a file or stdin", setup);

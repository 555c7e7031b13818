// kerm crc: every checksum of the CRC family over a file or standard input.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_args.h"
#include "kerm_cmd.h"
#include "kerm_crc.h"
#include "kerm_opts.h"

namespace {

int run_crc(int argc, char **argv) {
    kerm_tool::ToolArgs opts;
    kerm_tool::Option options[] = {{"seed", "s", 1}};
    if (!kerm_tool::parse_tool_args("crc", argc, argv, options, 1, &opts)) return 2;
    if (opts.help) {
        printf("usage: kerm crc [--seed N] [FILE]\n"
               "Prints CRC-8, CRC-16 (reflected), CRC-16 CCITT (augmented) and CRC-16 XMODEM\n"
               "of FILE (standard input when absent or -), each started from N (default 0;\n"
               "CRC-8 uses its low byte).\n");
        return 0;
    }
    unsigned long seed = 0;
    const char *seed_text = options[0].value;
    if (seed_text != nullptr) {
        char *end = nullptr;
        errno = 0;
        seed = strtoul(seed_text, &end, 0);
        if (errno != 0 || end == seed_text || *end != '\0' || seed > 0xFFFF) {
            fprintf(stderr, "kerm crc: bad seed '%s' (0 .. 0xffff)\n", seed_text);
            return 2;
        }
    }
    FILE *in = kerm_tool::open_input(opts.file, "crc");
    if (in == nullptr) return 1;

    uint8_t c8 = static_cast<uint8_t>(seed);
    uint16_t c16 = static_cast<uint16_t>(seed), ccitt = c16, xmodem = c16;
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
    const bool failed = ferror(in) != 0;
    if (in != stdin) fclose(in);
    if (failed) {
        fprintf(stderr, "kerm crc: read error\n");
        return 1;
    }
    printf("bytes         %llu\n", total);
    printf("crc8          0x%02x\n", c8);
    printf("crc16         0x%04x\n", c16);
    printf("crc16-ccitt   0x%04x\n", ccitt);
    printf("crc16-xmodem  0x%04x\n", xmodem);
    return 0;
}

}  // namespace

KERM_COMMAND("crc", "CRC-8/CRC-16 checksums of a file or stdin", run_crc);

// kerm tlv: walks a file of dd or ss TLV records and prints each record.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_cmd.h"
#include "kerm_opts.h"
#include "kerm_tlv.h"

namespace {

// Whole input in one malloc'd buffer; records are walked in place.
uint8_t *read_all(FILE *in, size_t *size) {
    size_t cap = 65536, len = 0;
    auto *buf = static_cast<uint8_t *>(malloc(cap));
    while (buf != nullptr) {
        len += fread(buf + len, 1, cap - len, in);
        if (len < cap) break;
        if (cap >= 0x40000000u) {  // the walk counts remaining bytes in 32 bits
            free(buf);
            return nullptr;
        }
        auto *bigger = static_cast<uint8_t *>(realloc(buf, cap * 2));
        if (bigger == nullptr) free(buf);
        buf = bigger;
        cap *= 2;
    }
    if (buf != nullptr && ferror(in)) {
        free(buf);
        return nullptr;
    }
    *size = len;
    return buf;
}

int run_tlv(int argc, char **argv) {
    kerm_tool::ToolArgs opts;
    kerm_tool::Option options[] = {{"format", "f", 1}};
    if (!kerm_tool::parse_tool_args("tlv", argc, argv, options, 1, &opts)) return 2;
    if (opts.help) {
        printf("usage: kerm tlv [--format dd|ss] [FILE]\n"
               "Walks the TLV records of FILE (standard input when absent or -) and prints\n"
               "offset, type, length and value bytes of each. dd (default): 16-bit type and\n"
               "length; ss: 8-bit type and length; native byte order.\n");
        return 0;
    }
    const char *format = options[0].value;
    if (format == nullptr) format = "dd";
    const bool dd = strcmp(format, "dd") == 0;
    if (!dd && strcmp(format, "ss") != 0) {
        fprintf(stderr, "kerm tlv: unknown format '%s' (dd or ss)\n", format);
        return 2;
    }
    FILE *in = kerm_tool::open_input(opts.file, "tlv");
    if (in == nullptr) return 1;
    size_t size = 0;
    uint8_t *data = read_all(in, &size);
    if (in != stdin) fclose(in);
    if (data == nullptr) {
        fprintf(stderr, "kerm tlv: cannot read input\n");
        return 1;
    }

    uint8_t *cursor = data;
    int32_t remaining = static_cast<int32_t>(size);
    printf("offset    type    length  value\n");
    for (;;) {
        uint8_t *rec = dd ? ddtlv_get_next(&cursor, &remaining) : sstlv_get_next(&cursor, &remaining);
        if (rec == nullptr) break;
        unsigned type, len;
        if (dd) {
            uint16_t t, l;
            memcpy(&t, rec, 2);
            memcpy(&l, rec + 2, 2);
            type = t;
            len = l;
        } else {
            type = rec[0];
            len = rec[1];
        }
        const uint8_t *value = rec + (dd ? DDTLV_HEAD_SIZE : SSTLV_HEAD_SIZE);
        char type_text[8];
        snprintf(type_text, sizeof type_text, "0x%0*x", dd ? 4 : 2, type);
        printf("%-8zu  %-6s  %-6u ", static_cast<size_t>(rec - data), type_text, len);
        for (unsigned i = 0; i < len; ++i) printf(" %02x", value[i]);
        printf("\n");
    }
    int rc = 0;
    if (remaining > 0) {
        fprintf(stderr, "kerm tlv: %d trailing bytes at offset %zu are not a whole record\n", remaining,
                static_cast<size_t>(cursor - data));
        rc = 1;
    }
    free(data);
    return rc;
}

}  // namespace

KERM_COMMAND("tlv", "list the dd/ss TLV records of a file or stdin", run_tlv);

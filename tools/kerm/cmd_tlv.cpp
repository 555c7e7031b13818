// kerm tlv: walks a file of dd or ss TLV records and prints each record.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_opts.h"
#include "kerm_tlv.h"

namespace {

struct TlvArgs {
    std::string format = "dd";
    std::string file;
    bool json = false;
} g_args;

// Whole input in one malloc'd buffer; records are walked in place. On failure
// `err` is the errno to report.
uint8_t *read_all(FILE *in, size_t *size, int *err) {
    size_t cap = 65536, len = 0;
    auto *buf = static_cast<uint8_t *>(malloc(cap));
    while (buf != nullptr) {
        len += fread(buf + len, 1, cap - len, in);
        if (len < cap) break;
        if (cap >= 0x40000000u) {  // the walk counts remaining bytes in 32 bits
            free(buf);
            *err = EFBIG;
            return nullptr;
        }
        auto *bigger = static_cast<uint8_t *>(realloc(buf, cap * 2));
        if (bigger == nullptr) free(buf);
        buf = bigger;
        cap *= 2;
    }
    if (buf == nullptr) {
        *err = ENOMEM;
        return nullptr;
    }
    if (ferror(in)) {
        *err = errno;
        free(buf);
        return nullptr;
    }
    *size = len;
    return buf;
}

int run() {
    const TlvArgs &a = g_args;
    const bool dd = a.format == "dd";
    FILE *in = kerm_tool::open_input(a.file, "tlv");
    if (in == nullptr) return kerm_tool::kExitFailure;
    size_t size = 0;
    int err = 0;
    uint8_t *data = read_all(in, &size, &err);
    kerm_tool::close_input(in);
    if (data == nullptr) return kerm_tool::fail("tlv", kerm_tool::input_name(a.file), strerror(err));

    uint8_t *cursor = data;
    int32_t remaining = static_cast<int32_t>(size);
    if (!a.json) printf("offset    type    length  value\n");
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
        const size_t offset = static_cast<size_t>(rec - data);
        if (a.json) {
            cJSON *o = cJSON_CreateObject();
            cJSON_AddNumberToObject(o, "offset", static_cast<double>(offset));
            kerm_tool::json_hex(o, "type", type, dd ? 4 : 2);
            cJSON_AddNumberToObject(o, "length", len);
            std::string hex;
            char byte[4];
            for (unsigned i = 0; i < len; ++i) {
                snprintf(byte, sizeof byte, i ? " %02x" : "%02x", value[i]);
                hex += byte;
            }
            cJSON_AddStringToObject(o, "value", hex.c_str());
            kerm_tool::emit_json(o);
            continue;
        }
        char type_text[8];
        snprintf(type_text, sizeof type_text, "0x%0*x", dd ? 4 : 2, type);
        printf("%-8zu  %-6s  %-6u ", offset, type_text, len);
        for (unsigned i = 0; i < len; ++i) printf(" %02x", value[i]);
        printf("\n");
    }
    int rc = kerm_tool::kExitOk;
    if (remaining > 0) {
        fprintf(stderr, "kerm tlv: %s: %d trailing bytes at offset %zu are not a whole record\n",
                kerm_tool::input_name(a.file).c_str(), remaining, static_cast<size_t>(cursor - data));
        rc = kerm_tool::kExitFailure;
    }
    free(data);
    return rc;
}

kerm_tool::Runner setup(CLI::App &app) {
    app.description(
        "Walks the TLV records of FILE (standard input when absent or -) and prints offset, type,\n"
        "length and value bytes of each. dd: 16-bit type and length; ss: 8-bit type and length;\n"
        "native byte order.");
    app.add_option("-f,--format", g_args.format, "record layout (default dd)")
        ->check(CLI::IsMember({"dd", "ss"}))
        ->type_name("dd|ss");
    kerm_tool::add_json_flag(app, g_args.json);
    app.add_option("FILE", g_args.file, "input file, - for standard input");
    return run;
}

}  // namespace

KERM_COMMAND("tlv", "list the dd/ss TLV records of a file or stdin", setup);

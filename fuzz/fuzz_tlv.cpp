// Walks arbitrary bytes with both TLV codecs, and rebuilds what was found into
// an exactly sized buffer to check that add and walk agree.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_tlv.h"

namespace {

template <int Head, typename Next, typename Add>
void walk_and_rebuild(const uint8_t *data, size_t size, Next next, Add add) {
    // Exact-size copy so that any read past the end is caught.
    auto *buf = static_cast<uint8_t *>(malloc(size ? size : 1));
    if (size) memcpy(buf, data, size);
    uint8_t *cur = buf;
    int32_t rem = static_cast<int32_t>(size);
    size_t used = 0;
    while (uint8_t *rec = next(&cur, &rem)) {
        if (rec != buf + used) __builtin_trap();
        size_t len = Head == 4 ? size_t(rec[2] | rec[3] << 8) : rec[1];
        used += Head + len;
        if (cur != buf + used || rem != static_cast<int32_t>(size - used)) __builtin_trap();
    }
    if (rem < 0 || (rem >= Head && used + Head + (Head == 4 ? size_t(buf[used + 2] | buf[used + 3] << 8)
                                                            : buf[used + 1]) <= size))
        __builtin_trap();  // stopped although a whole record was left

    // Re-add every record found; the output must equal the input prefix.
    auto *out = static_cast<uint8_t *>(malloc(used ? used : 1));
    uint8_t *w = out;
    int32_t room = static_cast<int32_t>(used);
    for (size_t off = 0; off < used;) {
        const uint8_t *rec = buf + off;
        size_t len = Head == 4 ? size_t(rec[2] | rec[3] << 8) : rec[1];
        add(&w, &room, rec, len);
        off += Head + len;
    }
    if (room != 0 || (used && memcmp(out, buf, used) != 0)) __builtin_trap();
    free(out);
    free(buf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1u << 20) return 0;
    walk_and_rebuild<DDTLV_HEAD_SIZE>(data, size, ddtlv_get_next,
                                      [](uint8_t **w, int32_t *room, const uint8_t *rec, size_t len) {
                                          uint16_t type;
                                          memcpy(&type, rec, 2);
                                          ddtlv_add(w, room, type, static_cast<uint16_t>(len), rec + 4);
                                      });
    walk_and_rebuild<SSTLV_HEAD_SIZE>(data, size, sstlv_get_next,
                                      [](uint8_t **w, int32_t *room, const uint8_t *rec, size_t len) {
                                          sstlv_add(w, room, rec[0], static_cast<uint8_t>(len), rec + 2);
                                      });
    return 0;
}

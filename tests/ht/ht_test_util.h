// Helpers shared by the hash-table suites.
#ifndef KERM_HT_TEST_UTIL_H
#define KERM_HT_TEST_UTIL_H

#include <stdint.h>
#include <stdlib.h>

#include "support/emulator.h"

#include <string>

#include "kerm_ht.h"

namespace httest {

inline int set(util_ht_t *t, const std::string &k, void *v, uint32_t vlen) {
    return util_ht_set(t, k.data(), static_cast<uint32_t>(k.size()), v, vlen);
}
inline void *get(util_ht_t *t, const std::string &k, uint32_t *vlen = nullptr) {
    return util_ht_get(t, k.data(), static_cast<uint32_t>(k.size()), vlen);
}
inline int del(util_ht_t *t, const std::string &k, void **prev = nullptr, uint32_t *prev_len = nullptr) {
    return util_ht_delete(t, k.data(), static_cast<uint32_t>(k.size()), prev, prev_len);
}
inline void *V(uintptr_t v) { return reinterpret_cast<void *>(v); }
inline uintptr_t U(const void *v) { return reinterpret_cast<uintptr_t>(v); }

// The documented seeded one-at-a-time hash, written out independently.
inline uint32_t oaat(uint32_t seed, const std::string &k) {
    uint32_t h = seed + static_cast<uint32_t>(k.size());
    for (unsigned char c : k) {
        h += c;
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

using kerm_test::scaled;

}  // namespace httest

#endif

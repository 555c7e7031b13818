// Shared pieces of the ordered-map suites: key generation, a plain
// lexicographic comparator, a record of released values, iteration scaling.
#ifndef KERM_MAPS_TEST_UTIL_H
#define KERM_MAPS_TEST_UTIL_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include "support/emulator.h"

namespace maps_test {

// Fewer model steps under the emulator.
inline int steps(int host) { return kerm_test::scaled(host, 2); }

// Byte order, then shorter first: a strict weak order std::map can share.
inline int32_t lex_cmp(const void *a, uint32_t la, const void *b, uint32_t lb) {
    int c = memcmp(a, b, la < lb ? la : lb);
    if (c) return c < 0 ? -1 : 1;
    return la < lb ? -1 : la > lb ? 1 : 0;
}

struct LexLess {
    bool operator()(const std::string &a, const std::string &b) const {
        return lex_cmp(a.data(), uint32_t(a.size()), b.data(), uint32_t(b.size())) < 0;
    }
};

// Keys over a small alphabet and short lengths, so that hits, prefixes and
// equal keys are common.
inline std::string small_key(std::mt19937 &rng, size_t min_len = 0, size_t max_len = 4, char top = 'd') {
    size_t len = std::uniform_int_distribution<size_t>(min_len, max_len)(rng);
    std::string k;
    for (size_t i = 0; i < len; ++i) k += char(std::uniform_int_distribution<int>('a', top)(rng));
    return k;
}

// Values are small integers carried in the pointer.
inline void *val(uintptr_t v) { return reinterpret_cast<void *>(v); }

// Values handed to a free callback, in order.
inline std::vector<void *> &released() {
    static std::vector<void *> r;
    return r;
}
inline void record_release(void *v) { released().push_back(v); }

}  // namespace maps_test

#endif

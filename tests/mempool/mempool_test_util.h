// Helpers shared by the memory pool suites.
#ifndef KERM_MEMPOOL_TEST_UTIL_H
#define KERM_MEMPOOL_TEST_UTIL_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "mempool/mempool_internal.h"

namespace mempool_test {

using namespace kerm::mempool;

// Backing memory aligned beyond what the pool needs.
class Arena {
public:
    explicit Arena(size_t size) : size_(size), mem_(static_cast<uint8_t *>(aligned_alloc(64, (size + 63) / 64 * 64))) {
        memset(mem_, 0xA5, size_);
    }
    ~Arena() { free(mem_); }
    Arena(const Arena &) = delete;
    Arena &operator=(const Arena &) = delete;
    uint8_t *data() const { return mem_; }
    size_t size() const { return size_; }

private:
    size_t size_;
    uint8_t *mem_;
};

inline ::testing::AssertionResult PoolOk(void *pool, PoolStats *stats = nullptr) {
    char why[256];
    if (check_pool(pool, stats, why, sizeof why)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "pool check: " << why;
}

inline PoolStats stats_of(void *pool) {
    PoolStats st;
    EXPECT_TRUE(PoolOk(pool, &st));
    return st;
}

// Rounded size malloc gives a request, as the search mapping does.
inline uintptr_t granted(size_t size) {
    uintptr_t r = size < kMinBlock ? kMinBlock : (size + kAlign - 1) & ~(kAlign - 1);
    int fl, sl;
    mapping_search(&r, &fl, &sl);
    return r;
}

// Buffer contents derived from a seed, so a write by anyone else shows.
template <class T>
void stamp(T *p, size_t n, uint32_t seed) {
    for (size_t i = 0; i < n; ++i) p[i] = static_cast<T>(seed + i * 31);
}
template <class T>
bool stamped(const T *p, size_t n, uint32_t seed) {
    for (size_t i = 0; i < n; ++i)
        if (p[i] != static_cast<T>(seed + i * 31)) return false;
    return true;
}

inline bool under_emulator() {
    const char *e = getenv("KERM_TEST_EMULATOR");
    return e != nullptr && *e != '\0';
}

}  // namespace mempool_test

#endif

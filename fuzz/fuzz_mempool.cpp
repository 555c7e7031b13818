// Drives the memory pool with operation sequences read from the input:
// malloc, calloc, realloc, free on an explicit pool and the locked default
// pool, and areas added behind, in front of and apart from existing regions.
// The pool checker runs after every operation and live buffers keep a pattern
// that must survive everything done to other blocks.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_mempool.h"
#include "mempool/mempool_internal.h"

using namespace kerm::mempool;

namespace {

constexpr size_t K = 1024;
constexpr int kSlots = 64;
alignas(64) uint8_t g_arena[128 * K];

struct Slot {
    uint8_t *p;
    size_t size;
    uint8_t seed;
};

void fill(const Slot &s) {
    for (size_t i = 0; i < s.size; ++i) s.p[i] = static_cast<uint8_t>(s.seed ^ (i * 7));
}

void expect_intact(const Slot &s, size_t upto) {
    for (size_t i = 0; i < upto; ++i)
        if (s.p[i] != static_cast<uint8_t>(s.seed ^ (i * 7))) {
            fprintf(stderr, "buffer %p byte %zu overwritten\n", (void *)s.p, i);
            abort();
        }
}

void expect_consistent(void *pool) {
    char why[256];
    if (!check_pool(pool, nullptr, why, sizeof why)) {
        fprintf(stderr, "pool check: %s\n", why);
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    void *pool = g_arena;
    // First byte: the first region's size, 8..39 KiB.
    const size_t first = (8 + data[0] % 32) * K;
    destroy_memory_pool(pool);  // else init finds the last input's pool and keeps it
    if (init_memory_pool(first, pool) != first - kReserved - kRegionOverhead) abort();
    Slot slots[kSlots] = {};
    uint8_t seed = 1;
    // Areas that can be added once each: right behind the first region, two
    // pieces that meet each other, and one apart.
    struct Area {
        size_t at, size;
        bool added;
    } areas[] = {{first, 8 * K, false}, {72 * K, 8 * K, false}, {64 * K, 8 * K, false}, {96 * K, 32 * K, false}};
    for (size_t i = 1; i + 4 <= size; i += 4) {
        const uint8_t op = data[i];
        const size_t n = data[i + 1] | size_t(data[i + 2]) << 8;
        Slot &s = slots[data[i + 3] % kSlots];
        const bool locked = (op & 0x80) != 0;
        switch (op % 6) {
        case 0:
        case 1: {
            if (s.p != nullptr) break;
            const bool zeroed = op % 6 == 1;
            void *p = zeroed ? (locked ? tlsf_calloc(n, 1) : calloc_ex(n, 1, pool))
                             : (locked ? tlsf_malloc(n) : malloc_ex(n, pool));
            if (p == nullptr) break;
            if (reinterpret_cast<uintptr_t>(p) % kAlign != 0 || Block::of(p)->bytes() < n) abort();
            s = {static_cast<uint8_t *>(p), n, seed++};
            for (size_t j = 0; zeroed && j < n; ++j)
                if (s.p[j] != 0) abort();
            fill(s);
            break;
        }
        case 2: {
            if (s.p == nullptr) break;
            expect_intact(s, s.size);
            Block *b = Block::of(s.p);
            const uintptr_t r = n < kMinBlock ? kMinBlock : (n + kAlign - 1) & ~(kAlign - 1);
            const bool fits = r <= b->bytes() || (b->next()->is_free() && b->bytes() + b->next()->bytes() + kHdr >= r);
            auto *p = static_cast<uint8_t *>(locked ? tlsf_realloc(s.p, n) : realloc_ex(s.p, n, pool));
            if (n == 0) {
                if (p != nullptr) abort();
                s = {};
                break;
            }
            if (fits && p != s.p) abort();  // in-place resize must not move
            if (p == nullptr) break;
            const size_t kept = s.size < n ? s.size : n;
            s.p = p;
            expect_intact(s, kept);
            s.size = n;
            fill(s);
            break;
        }
        case 3:
        case 4:
            if (s.p == nullptr) break;
            expect_intact(s, s.size);
            if (locked) tlsf_free(s.p);
            else free_ex(s.p, pool);
            s = {};
            break;
        case 5: {
            Area &a = areas[n % 4];
            if (a.added) break;
            a.added = true;
            if (add_new_area(g_arena + a.at, a.size, pool) == 0) abort();
            break;
        }
        }
        expect_consistent(pool);
    }
    for (Slot &s : slots)
        if (s.p != nullptr) {
            expect_intact(s, s.size);
            free_ex(s.p, pool);
        }
    expect_consistent(pool);
    return 0;
}

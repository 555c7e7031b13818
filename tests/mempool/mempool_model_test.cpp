// Randomized model-based test: long mixed sequences of malloc, calloc,
// realloc and free against a model of what each live buffer holds, over a
// pool that grows by separate and by merging areas. After every step the pool
// is walked by the checker and every live buffer is compared with the model.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "kerm_mempool.h"
#include "mempool_test_util.h"

using namespace mempool_test;

namespace {

struct Live {
    uint8_t *p;
    size_t size;
    uint8_t seed;
};

class MempoolModel : public ::testing::TestWithParam<uint32_t> {
protected:
    // Layout of the backing memory (in KiB): pool 0-64, area B 64-80 (merges
    // behind the pool's region), area C 92-100 (merges in front of A), area A
    // 100-132, area D 160-200 (stands alone).
    static constexpr size_t K = 1024;
    Arena arena{200 * K};
    void *pool = arena.data();
    std::mt19937 rng{GetParam()};
    std::vector<Live> live;
    uint8_t next_seed = 1;

    size_t pick_size() {
        const uint32_t kind = rng() % 100;
        if (kind < 3) return 0;
        if (kind < 70) return 1 + rng() % 256;
        if (kind < 95) return 256 + rng() % 3841;
        return 4096 + rng() % 30000;
    }

    void add_area(size_t from_k, size_t size_k, bool merges) {
        const size_t regions = stats_of(pool).regions;
        ASSERT_GT(add_new_area(arena.data() + from_k * K, size_k * K, pool), 0u);
        EXPECT_EQ(stats_of(pool).regions, merges ? regions : regions + 1);
    }

    void check_all() {
        PoolStats st;
        ASSERT_TRUE(PoolOk(pool, &st));
        ASSERT_EQ(st.used_blocks, live.size());
        for (const Live &l : live) ASSERT_TRUE(stamped(l.p, l.size, l.seed)) << "live buffer " << (void *)l.p << " overwritten";
    }

    void step() {
        const uint32_t op = rng() % 100;
        const bool crowded = live.size() > 150;
        if (live.empty() || (!crowded && op < 45)) {
            const size_t size = pick_size();
            const bool zeroed = op % 4 == 0;
            const size_t largest = stats_of(pool).largest_free;
            auto *p = static_cast<uint8_t *>(zeroed ? calloc_ex(1, size, pool) : malloc_ex(size, pool));
            if (size == 0 && zeroed) {
                ASSERT_EQ(p, nullptr);
                return;
            }
            if (p == nullptr) {
                // Failing only when no free block of the search class exists.
                ASSERT_LT(largest, granted(size)) << "malloc(" << size << ") failed";
                return;
            }
            ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % kAlign, 0u);
            ASSERT_GE(Block::of(p)->bytes(), size);
            for (size_t i = 0; zeroed && i < size; ++i) ASSERT_EQ(p[i], 0);
            live.push_back({p, size, next_seed});
            stamp(p, size, next_seed++);
            return;
        }
        const size_t idx = rng() % live.size();
        Live &l = live[idx];
        if (op < 75) {
            free_ex(l.p, pool);
            live[idx] = live.back();
            live.pop_back();
            return;
        }
        const size_t size = pick_size();
        Block *b = Block::of(l.p);
        const uintptr_t r = size < kMinBlock ? kMinBlock : (size + kAlign - 1) & ~(kAlign - 1);
        const bool fits = r <= b->bytes() || (b->next()->is_free() && b->bytes() + b->next()->bytes() + kHdr >= r);
        auto *p = static_cast<uint8_t *>(realloc_ex(l.p, size, pool));
        if (size == 0) {
            ASSERT_EQ(p, nullptr);
            live[idx] = live.back();
            live.pop_back();
            return;
        }
        if (fits) {
            ASSERT_EQ(p, l.p) << "realloc moved a block that fitted in place";
        }
        if (p == nullptr) {
            ASSERT_FALSE(fits);
            return;  // the old block stays as it was
        }
        ASSERT_TRUE(stamped(p, std::min(l.size, size), l.seed));
        l.p = p;
        l.size = size;
        stamp(p, size, l.seed);
    }
};

TEST_P(MempoolModel, MixedOperationsKeepThePoolConsistent) {
    const int steps = under_emulator() ? 3000 : 6000;
    ASSERT_EQ(init_memory_pool(64 * K, pool), 64 * K - kReserved - kRegionOverhead);
    for (int i = 0; i < steps; ++i) {
        if (i == steps / 5) add_area(100, 32, false);       // A, separate
        if (i == 2 * steps / 5) add_area(64, 16, true);     // B, behind the first region
        if (i == 3 * steps / 5) add_area(92, 8, true);      // C, in front of A
        if (i == 4 * steps / 5) add_area(160, 40, false);   // D, separate
        ASSERT_NO_FATAL_FAILURE(step()) << "step " << i;
        ASSERT_NO_FATAL_FAILURE(check_all()) << "after step " << i;
    }
    // Everything back: each region ends as one free block.
    for (const Live &l : live) free_ex(l.p, pool);
    live.clear();
    PoolStats st;
    ASSERT_TRUE(PoolOk(pool, &st));
    EXPECT_EQ(st.regions, 3u);
    EXPECT_EQ(st.free_blocks, 3u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, MempoolModel, ::testing::Values(1u, 42u, 20261125u));

}  // namespace

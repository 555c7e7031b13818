// The pool's entry points one by one: figures per pointer width, refusals,
// printed diagnostics, realloc's three paths and the merging of added areas.
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>

#include <string>
#include <tuple>
#include <vector>

#include "kerm_mempool.h"
#include "mempool_test_util.h"

using namespace mempool_test;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const bool kTarget = sizeof(void *) == 4;

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

// What a call prints on stdout.
template <class F>
std::string printed(F f) {
    CaptureStdout();
    f();
    return GetCapturedStdout();
}

std::string block_line(void *user_ptr) {
    return printed([&] { print_block(Block::of(user_ptr)); });
}

Control *ctl(void *pool) { return static_cast<Control *>(pool); }

// Backing memory laid out as a pool; `big` is its one free block.
struct Pool : Arena {
    explicit Pool(size_t size) : Arena(size), big(init_memory_pool(size, data())) {}
    const size_t big;
};

// A copy of the bytes, to show a refused call wrote nothing.
struct Snapshot {
    explicit Snapshot(const Arena &a) : a(a), bytes(a.data(), a.data() + a.size()) {}
    bool unchanged() const { return memcmp(bytes.data(), a.data(), a.size()) == 0; }
    const Arena &a;
    std::vector<uint8_t> bytes;
};

// The class a block of `bytes` is listed in, and (rounded request, class) of a search.
std::pair<int, int> class_of(size_t bytes) {
    int fl, sl;
    mapping_insert(bytes, &fl, &sl);
    return {fl, sl};
}
std::tuple<uintptr_t, int, int> search_of(uintptr_t r) {
    int fl, sl;
    mapping_search(&r, &fl, &sl);
    return {r, fl, sl};
}

TEST(MempoolFigures, FollowThePointerWidth) {
    EXPECT_EQ(KERM_MEMPOOL_CONTROL_SIZE, kTarget ? 3184u : 6272u);
    EXPECT_EQ(KERM_MEMPOOL_MIN_REGION, kTarget ? 3248u : 6400u);
    EXPECT_EQ(kSplitMin, kTarget ? 16u : 32u);
    EXPECT_EQ(sizeof(Control::lock), 4u);

    Arena a(KERM_MEMPOOL_MIN_REGION);
    EXPECT_EQ(init_memory_pool(KERM_MEMPOOL_MIN_REGION, a.data()), kTarget ? 32u : 64u);
    EXPECT_TRUE(PoolOk(a.data()));
    const Snapshot before(a);
    // A second call finds the signature: the descriptor block's size, nothing rewritten.
    EXPECT_EQ(init_memory_pool(KERM_MEMPOOL_MIN_REGION, a.data()), kTarget ? 8u : 16u);
    EXPECT_TRUE(before.unchanged());

    void *one = malloc_ex(1, a.data());
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(Block::of(one)->bytes(), kTarget ? 8u : 16u);
}

TEST(MempoolFigures, SizeClassesAndBitHelpers) {
    EXPECT_EQ(search_of(200), std::make_tuple(uintptr_t{200}, 1, 18));  // 203 >> 2 = 50, 50 - 32 = 18
    EXPECT_EQ(class_of(104), std::make_pair(0, 26));
    EXPECT_EQ(std::get<0>(search_of(1000)), 1008u);  // step 16 at 512..1023

    for (int bit = 0; bit < 32; ++bit) {
        const uint32_t x = 1u << bit;
        EXPECT_EQ(msb(x), bit);
        EXPECT_EQ(msb(x | (x - 1)), bit);
        EXPECT_EQ(lsb(x | (bit < 31 ? x << 1 : 0)), bit);
    }
    EXPECT_EQ(msb(0), -1);
    EXPECT_EQ(lsb(0), -1);

    // The allocation paths scan with msb_nz/lsb_nz. The table's msb depends
    // only on which byte is the highest non-zero one and on that byte's value,
    // its lsb only on the lowest set bit: every word below 2^16, and above
    // that every (byte position, byte value) and every lowest bit under three
    // fillings of the other bits, cover every distinct answer.
    uint32_t first_bad = 0, bad = 0;
    auto same = [&](uint32_t x) {
        if (msb_nz(x) != msb(x) || lsb_nz(x) != lsb(x)) bad++, first_bad = first_bad ? first_bad : x;
    };
    const uint32_t fills[] = {0u, ~0u, 0x5A5A5A5Au};
    for (uint32_t x = 1; x < 0x10000; ++x) same(x);
    for (int shift = 16; shift <= 24; shift += 8)
        for (uint32_t top = 1; top < 256; ++top)
            for (uint32_t fill : fills) same((top << shift) | (fill & ((1u << shift) - 1)));
    for (int bit = 0; bit < 32; ++bit)
        for (uint32_t fill : fills) same((1u << bit) | (bit < 31 ? fill & (~0u << (bit + 1)) : 0));
    EXPECT_EQ(bad, 0u) << "first disagreement at 0x" << std::hex << first_bad;

    // Every aligned size lands in a class whose range holds it, and the search
    // class's smallest member is never smaller than the request.
    auto class_low = [](int f, int s) -> uintptr_t {
        return f == 0 ? uintptr_t(s) * 4 : uintptr_t(kSlCount + s) << (f + kFlOffset - kSlLog2);
    };
    for (uintptr_t size = kAlign; size < (uintptr_t{1} << 22); size += size < 8192 ? kAlign : 4093 * kAlign) {
        const auto [fl, sl] = class_of(size);
        ASSERT_LE(class_low(fl, sl), size);
        if (sl + 1 < kSlCount) {
            ASSERT_GT(class_low(fl, sl + 1), size);
        }
        const auto [want, sfl, ssl] = search_of(size);
        ASSERT_GE(class_low(sfl, ssl), size) << size;
        ASSERT_EQ(class_low(sfl, ssl), want < kSmallBlock ? class_low(sfl, ssl) : want) << size;
    }
}

TEST(MempoolFigures, HundredByteBlockListAndTwoHundredSearch) {
    Pool a(1 << 16);
    // Brace lists run left to right: the hundred bytes sit between two used blocks.
    void *p[] = {malloc_ex(8, a.data()), malloc_ex(100, a.data()), malloc_ex(8, a.data())}, *hundred = p[1];
    ASSERT_TRUE(p[0] && p[1] && p[2]);
    EXPECT_EQ(Block::of(hundred)->bytes(), kTarget ? 104u : 112u);
    free_ex(hundred, a.data());
    EXPECT_EQ(ctl(a.data())->lists[0][kTarget ? 26 : 28], Block::of(hundred));
    EXPECT_TRUE(PoolOk(a.data()));

    // A 192-byte free block sits in a list below where malloc(200) starts
    // searching: it is passed over for the block of the search class.
    Pool b(1 << 16);
    void *q[] = {malloc_ex(192, b.data()), malloc_ex(8, b.data()), malloc_ex(200, b.data()), malloc_ex(8, b.data())};
    void *y = q[2];
    ASSERT_TRUE(q[0] && q[1] && q[2] && q[3]);
    free_ex(q[0], b.data());
    free_ex(y, b.data());
    EXPECT_EQ(class_of(Block::of(y)->bytes()), std::make_pair(1, kTarget ? 18 : 20));
    EXPECT_EQ(malloc_ex(200, b.data()), y);
    EXPECT_TRUE(PoolOk(b.data()));
}

TEST(MempoolInit, RefusalsTouchNothingAndInitPrintsWhy) {
    Arena a(KERM_MEMPOOL_MIN_REGION + 64);
    const Snapshot before(a);
    const struct {
        size_t size;
        uint8_t *at;
        const char *line;
    } cases[] = {
        {KERM_MEMPOOL_MIN_REGION - 1, a.data(), "init_memory_pool (): memory_pool invalid\n"},
        {KERM_MEMPOOL_MIN_REGION, nullptr, "init_memory_pool (): memory_pool invalid\n"},
        {KERM_MEMPOOL_MIN_REGION, a.data() + 2, "init_memory_pool (): mem_pool must be aligned to a word"},
    };
    for (const auto &c : cases) {
        size_t got = 0;
        EXPECT_EQ(printed([&] { got = init_memory_pool(c.size, c.at); }), c.line);
        EXPECT_EQ(got, static_cast<size_t>(-1)) << c.line;
    }
    EXPECT_TRUE(before.unchanged());

    Pool pool(1 << 14);
    Arena area(256);
    const Snapshot pool_before(pool);
    EXPECT_EQ(add_new_area(nullptr, 256, pool.data()), 0u);
    EXPECT_EQ(add_new_area(area.data(), 256, nullptr), 0u);
    EXPECT_EQ(add_new_area(area.data() + 2, 250, pool.data()), 0u);
    EXPECT_EQ(add_new_area(area.data(), kRegionOverhead + kMinBlock - 1, pool.data()), 0u);
    EXPECT_TRUE(pool_before.unchanged());
    // The smallest area holds exactly one minimum block.
    EXPECT_EQ(add_new_area(area.data(), kRegionOverhead + kMinBlock, pool.data()), kMinBlock);
    EXPECT_EQ(stats_of(pool.data()).regions, 2u);
}

TEST(MempoolAlloc, BadRequestsChangeNothing) {
    Pool a(1 << 15);
    std::vector<void *> keep;
    for (int i = 0; i < 20; ++i) keep.push_back(malloc_ex(64 + 40 * i, a.data()));
    for (int i = 0; i < 20; i += 2) free_ex(keep[i], a.data());
    const Snapshot before(a);
    const size_t largest = stats_of(a.data()).largest_free;
    EXPECT_EQ(malloc_ex(largest + 1, a.data()), nullptr);
    EXPECT_EQ(malloc_ex(SIZE_MAX, a.data()), nullptr);
    EXPECT_EQ(malloc_ex(kMaxBlock + 1, a.data()), nullptr);
    EXPECT_EQ(calloc_ex(0, 16, a.data()), nullptr);
    EXPECT_EQ(calloc_ex(16, 0, a.data()), nullptr);
    EXPECT_EQ(realloc_ex(nullptr, 0, a.data()), nullptr);
    EXPECT_EQ(realloc_ex(keep[1], SIZE_MAX, a.data()), nullptr);
    EXPECT_EQ(realloc_ex(keep[1], largest * 2, a.data()), nullptr);
    free_ex(nullptr, a.data());
    EXPECT_EQ(malloc_ex(8, nullptr), nullptr);
    EXPECT_TRUE(before.unchanged());
    EXPECT_EQ(get_used_size(a.data()), 0u);
    EXPECT_EQ(get_max_size(a.data()), 0u);
}

TEST(MempoolAlloc, FreeingNeighboursLeavesOneBlock) {
    Pool a(1 << 14);
    void *p[4];
    for (auto &q : p) q = malloc_ex(48, a.data());
    // Free blocks after each free: with the tail, until p[3] joins everything.
    const struct {
        int i;
        size_t free_blocks;
    } steps[] = {{1, 2}, {2, 2}, {0, 2}, {3, 1}};
    for (const auto &s : steps) {
        free_ex(p[s.i], a.data());
        EXPECT_EQ(stats_of(a.data()).free_blocks, s.free_blocks) << "after freeing p[" << s.i << "]";
    }
    EXPECT_EQ(stats_of(a.data()).largest_free, a.big);
}

TEST(MempoolAlloc, SplitsOnlyWhenAHeaderAndAMinimumBlockRemain) {
    Pool a(1 << 14);
    void *hole = malloc_ex(64, a.data());
    void *guard = malloc_ex(8, a.data());
    free_ex(hole, a.data());
    for (const bool splits : {true, false}) {
        const uintptr_t want = 64 - kSplitMin + (splits ? 0 : kAlign);
        void *p = malloc_ex(want, a.data());
        ASSERT_EQ(p, hole);
        EXPECT_EQ(Block::of(p)->bytes(), splits ? want : 64u);
        EXPECT_EQ(Block::of(guard)->prev_free(), splits);
        if (splits) {
            EXPECT_EQ(Block::of(p)->next()->bytes(), kMinBlock);
        }
        EXPECT_TRUE(PoolOk(a.data()));
        free_ex(p, a.data());
    }
}

TEST(MempoolAlloc, CallocZeroes) {
    Pool a(1 << 14);
    void *dirty = malloc_ex(300, a.data());
    memset(dirty, 0xEE, 300);
    free_ex(dirty, a.data());
    auto *z = static_cast<uint8_t *>(calloc_ex(30, 10, a.data()));
    ASSERT_EQ(static_cast<void *>(z), dirty);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(z[i], 0) << i;
}

TEST(MempoolRealloc, ShrinkGrowInPlaceAndMove) {
    Pool a(1 << 14);
    auto *p = static_cast<uint8_t *>(malloc_ex(256, a.data()));
    void *guard = malloc_ex(8, a.data());
    for (int i = 0; i < 256; ++i) p[i] = static_cast<uint8_t>(i);

    // Shrink: same pointer, the tail becomes a free block before the guard.
    EXPECT_EQ(realloc_ex(p, 100, a.data()), p);
    const uintptr_t kept = (100 + kAlign - 1) & ~(kAlign - 1);
    EXPECT_EQ(Block::of(p)->bytes(), kept);
    EXPECT_TRUE(Block::of(p)->next()->is_free());
    EXPECT_TRUE(PoolOk(a.data()));

    // Grow into the free successor, header included: exactly fills it.
    EXPECT_EQ(realloc_ex(p, 256, a.data()), p);
    EXPECT_EQ(Block::of(p)->bytes(), 256u);
    EXPECT_EQ(Block::of(p)->next(), Block::of(guard));
    EXPECT_FALSE(Block::of(guard)->prev_free());
    EXPECT_TRUE(PoolOk(a.data()));

    // Same size with a free successor: it is taken in and split off again.
    void *q = malloc_ex(64, a.data());
    void *guard2 = malloc_ex(8, a.data());
    free_ex(guard, a.data());
    EXPECT_EQ(realloc_ex(p, 256, a.data()), p);
    EXPECT_TRUE(PoolOk(a.data()));

    // No room behind: the data moves, the old block is freed.
    void *moved = realloc_ex(q, 4000, a.data());
    ASSERT_NE(moved, nullptr);
    EXPECT_NE(moved, q);
    EXPECT_TRUE(Block::of(q)->is_free());
    for (int i = 0; i < 100; ++i) ASSERT_EQ(p[i], i);
    EXPECT_TRUE(PoolOk(a.data()));

    // Size 0 frees.
    EXPECT_EQ(realloc_ex(guard2, 0, a.data()), nullptr);
    EXPECT_TRUE(Block::of(guard2)->is_free() || Block::of(guard2)->prev_free());
    EXPECT_TRUE(PoolOk(a.data()));
}

// A request the search class lets out of a free block of `bytes`, leaving a free tail.
size_t leaving_a_tail(size_t bytes) {
    const uintptr_t step = uintptr_t{1} << (msb(static_cast<uint32_t>(bytes)) - kSlLog2);
    return (bytes & ~(step - 1)) - step;
}

TEST(MempoolRegions, AddedAreasMergeAtEitherEnd) {
    const size_t first = 16384, piece = 4096;
    Arena a(first + 8 * piece);
    uint8_t *base = a.data();
    const size_t big = init_memory_pool(first, base);
    void *pool = base;
    void *tail_user = malloc_ex(leaving_a_tail(big), pool);  // leaves the region's last block free
    ASSERT_NE(tail_user, nullptr);

    // Right behind the first region: its sentinel and the new descriptor become free space.
    const size_t free_tail = stats_of(pool).largest_free;
    EXPECT_EQ(add_new_area(base + first, piece, pool), free_tail + piece);
    PoolStats st = stats_of(pool);
    EXPECT_EQ(st.regions, 1u);
    EXPECT_EQ(st.largest_free, free_tail + piece);

    // A separate area, then one that ends where it begins.
    uint8_t *far = base + first + 4 * piece;
    EXPECT_EQ(add_new_area(far, piece, pool), piece - kRegionOverhead);
    EXPECT_EQ(stats_of(pool).regions, 2u);
    EXPECT_EQ(add_new_area(far - piece, piece, pool), 2 * piece - kRegionOverhead);
    st = stats_of(pool);
    EXPECT_EQ(st.regions, 2u);

    // The gap between the two regions closes: one region again.
    void *in_far = malloc_ex(leaving_a_tail(2 * piece - kRegionOverhead), pool);
    ASSERT_NE(in_far, nullptr);
    EXPECT_GE(add_new_area(base + first + piece, 2 * piece, pool), 2 * piece);
    st = stats_of(pool);
    EXPECT_EQ(st.regions, 1u);
    EXPECT_EQ(st.used_blocks, 2u);
    free_ex(tail_user, pool);
    free_ex(in_far, pool);
    st = stats_of(pool);
    EXPECT_EQ(st.free_blocks, 1u);
    // Everything behind the control record is one block but for the region's three headers.
    EXPECT_EQ(st.largest_free, first - kReserved + 5 * piece - kRegionOverhead);
}

TEST(MempoolDiagnostics, ExactLines) {
    Pool a(1 << 13);
    void *pool = a.data();
    void *used = malloc_ex(24, pool);
    void *freed = malloc_ex(40, pool);
    void *after = malloc_ex(16, pool);
    free_ex(freed, pool);
    Block *fb = Block::of(freed);
    Block *ub = Block::of(used);
    Block *ab = Block::of(after);

    EXPECT_EQ(block_line(used), fmt(">> [%p] (%lu bytes, used, prev used)\n", (void *)ub, (unsigned long)ub->bytes()));
    EXPECT_EQ(block_line(freed), fmt(">> [%p] (%lu bytes, free [%p, %p], prev used)\n", (void *)fb,
                                     (unsigned long)fb->bytes(), (void *)nullptr, (void *)nullptr));
    EXPECT_EQ(block_line(after), fmt(">> [%p] (%lu bytes, used, prev. free [%p])\n", (void *)ab,
                                     (unsigned long)ab->bytes(), (void *)fb));
    EXPECT_EQ(printed([] { print_block(nullptr); }), "");

    Block *tail = ab->next();
    Block *sentinel = tail->next();
    const auto [f1, s1] = class_of(fb->bytes());
    const auto [f2, s2] = class_of(tail->bytes());
    ASSERT_LT(f1, f2);
    std::string want = fmt("\nTLSF at %p\nFL bitmap: 0x%x\n\n", pool, (1u << f1) | (1u << f2));
    want += fmt("SL bitmap 0x%x\n-> [%d][%d]\n", 1u << s1, f1, s1) + block_line(freed);
    want += fmt("SL bitmap 0x%x\n-> [%d][%d]\n", 1u << s2, f2, s2);
    want += fmt(">> [%p] (%lu bytes, free [%p, %p], prev used)\n", (void *)tail, (unsigned long)tail->bytes(),
                (void *)nullptr, (void *)nullptr);
    EXPECT_EQ(printed([&] { print_tlsf(pool); }), want);

    Block *desc = reinterpret_cast<Block *>(a.data() + kReserved);
    std::string all = fmt("\nTLSF at %p\nALL BLOCKS\n\n", pool);
    all += fmt(">> [%p] (%lu bytes, used, prev used)\n", (void *)desc, (unsigned long)kMinBlock);
    for (Block *b = ub; b != sentinel; b = b->next()) all += block_line(b->buffer());
    all += fmt(">> [%p] (sentinel, used, prev. free [%p])\n", (void *)sentinel, (void *)tail);
    EXPECT_EQ(printed([&] { print_all_blocks(pool); }), all);
}

TEST(MempoolDiagnostics, DumpRunsToTheWordAfterTheEnd) {
    alignas(16) uint8_t bytes[32];
    for (int i = 0; i < 32; ++i) bytes[i] = static_cast<uint8_t>(i);
    const auto at = reinterpret_cast<unsigned long>(bytes);
    // From bytes[0] up to bytes[20].
    EXPECT_EQ(printed([&] { dump_memory_region(bytes + 1, 17); }), fmt("\nMemory region dumped: 0x%lx - 0x%lx\n\n0x%lx "
                                       "0001 0203 0405 0607 0809 0a0b 0c0d 0e0f \n0x%lx 1011 1213 \n\n",
                                       at, at + 20, at, at + 16));
}

TEST(MempoolDefault, LockedEntryPointsUseTheLastInitialisedPool) {
    Pool a(1 << 14), b(1 << 14);
    auto *p = static_cast<uint8_t *>(tlsf_calloc(4, 8));
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(p > b.data() && p < b.data() + b.size());
    for (int i = 0; i < 32; ++i) EXPECT_EQ(p[i], 0);
    p = static_cast<uint8_t *>(tlsf_realloc(p, 64));
    void *q = tlsf_malloc(10);
    EXPECT_TRUE(PoolOk(b.data()));
    tlsf_free(p);
    tlsf_free(q);
    tlsf_free(nullptr);
    EXPECT_EQ(stats_of(b.data()).free_blocks, 1u);
    EXPECT_EQ(ctl(b.data())->lock, 0u);

    // Destroyed: the signature is gone, the default pointer stays.
    destroy_memory_pool(b.data());
    EXPECT_EQ(ctl(b.data())->signature, 0u);
    void *still = tlsf_malloc(10);
    EXPECT_TRUE(still > b.data() && still < b.data() + b.size());
    // init on the destroyed region lays it out afresh.
    EXPECT_EQ(init_memory_pool(b.size(), b.data()), b.size() - kReserved - kRegionOverhead);
    EXPECT_EQ(stats_of(b.data()).used_blocks, 0u);
}

}  // namespace

// Ring buffer and memory pool with each allocation failing in turn. The ring
// allocates only when it is made; the pool never calls the system allocator
// (it serves from the caller's memory), so running out means its own region.
#include <stdint.h>
#include <string.h>

#include <vector>

#include "alloc_sweep.h"
#include "kerm_mempool.h"
#include "kerm_rbuf.h"

using alloc_fail::Attempt;

namespace {

TEST(AllocRbuf, Create) {
    for (const int32_t size : {0, 16}) {
        const unsigned runs = alloc_sweep::constructor(
            [&] { return util_rbuf_create(size); },
            [](util_rbuf_t *r) { EXPECT_EQ(util_rbuf_write(r, reinterpret_cast<const uint8_t *>("ab"), 2), 2u); },
            util_rbuf_destroy);
        EXPECT_EQ(runs, 2u);  // the record, then the block
    }
}

TEST(AllocRbuf, TransfersAllocateNothing) {
    util_rbuf_t *x = util_rbuf_create(16), *y = util_rbuf_create(16);
    uint8_t out[8];
    Attempt a(1);
    a.run([&] {
        util_rbuf_write(x, reinterpret_cast<const uint8_t *>("abc\ndef"), 7);
        util_rbuf_copy(x, y, 3);
        util_rbuf_move(x, y, 2);
        util_rbuf_read_until(x, '\n', out, sizeof out);
        util_rbuf_read(y, out, 4);
    });
    EXPECT_EQ(a.calls(), 0u);
    util_rbuf_destroy(x);
    util_rbuf_destroy(y);
}

TEST(AllocMempool, ServesWithoutTheSystemAllocator) {
    std::vector<uint64_t> region(1024), more(512);
    Attempt a(1);
    a.run([&] {
        ASSERT_NE(init_memory_pool(region.size() * 8, region.data()), static_cast<size_t>(-1));
        void *pool = region.data();
        add_new_area(more.data(), more.size() * 8, pool);
        void *p = malloc_ex(100, pool);
        void *q = calloc_ex(4, 8, pool);
        p = realloc_ex(p, 1000, pool);
        free_ex(q, pool);
        free_ex(p, pool);
        void *t = tlsf_malloc(64);
        t = tlsf_realloc(t, 200);
        tlsf_free(t);
        tlsf_free(tlsf_calloc(2, 16));
        destroy_memory_pool(pool);
    });
    EXPECT_EQ(a.calls(), 0u);
}

// The pool's own shortage: a failed move leaves the old block allocated and intact.
TEST(AllocMempool, ReallocShortageKeepsTheBlock) {
    std::vector<uint64_t> region(1024);
    void *pool = region.data();
    ASSERT_NE(init_memory_pool(region.size() * 8, pool), static_cast<size_t>(-1));
    auto *p = static_cast<char *>(malloc_ex(64, pool));
    ASSERT_NE(p, nullptr);
    strcpy(p, "kept");
    void *blocker = malloc_ex(8, pool);  // the next block is in use: growth must move
    EXPECT_EQ(realloc_ex(p, 1 << 20, pool), nullptr);
    EXPECT_STREQ(p, "kept");
    EXPECT_EQ(malloc_ex(1 << 20, pool), nullptr);
    free_ex(blocker, pool);
    free_ex(p, pool);
    destroy_memory_pool(pool);
}

}  // namespace

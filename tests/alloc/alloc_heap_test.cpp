// Heap and priority queue with each allocation failing in turn: a failed
// insert or removal changes nothing, a merge short of memory hands out none or a
// less balanced heap, and every
// entry is still there, in order, afterwards.
#include <stdint.h>

#include "alloc_sweep.h"
#include "kerm_binheap.h"
#include "kerm_pqueue.h"

using alloc_fail::Attempt;

namespace {

constexpr uint32_t kEntries = 11;  // several trees of different degree

BinHeap *heap_of(uint32_t first, uint32_t n) {
    BinHeap *h = util_binheap_create(util_binheap_keys_callbacks_uint32_t(), BINHEAP_MODE_MAX);
    for (uint32_t k = first; k < first + n; ++k) EXPECT_EQ(util_binheap_insert(h, &k, sizeof k, nullptr), 0);
    return h;
}

uint32_t max_key(BinHeap *h) {
    void *key = nullptr;
    uint32_t klen = 0;
    EXPECT_EQ(util_binheap_maximum(h, &key, &klen, nullptr), 0);
    return key != nullptr && klen == 4 ? *static_cast<uint32_t *>(key) : 0;
}

// Takes every entry out (armed runs are over): the keys come out descending
// from top and there are n of them.
void expect_drains(BinHeap *h, uint32_t top, uint32_t n) {
    ASSERT_EQ(util_binheap_count(h), n);
    for (uint32_t i = 0; i < n; ++i) {
        ASSERT_EQ(max_key(h), top - i);
        ASSERT_EQ(util_binheap_delete_maximum(h, nullptr), 0);
    }
    EXPECT_EQ(util_binheap_count(h), 0u);
}

TEST(AllocBinheap, Create) {
    alloc_sweep::constructor([] { return util_binheap_create(nullptr, BINHEAP_MODE_MIN); },
                             [](BinHeap *h) { EXPECT_EQ(util_binheap_insert(h, "a", 1, nullptr), 0); },
                             util_binheap_destroy);
}

// A failed link after the entry is in only costs balance: the insert then
// still succeeds. Either way no entry is lost.
TEST(AllocBinheap, Insert) {
    alloc_sweep::leak_free([](Attempt &a) {
        BinHeap *h = heap_of(0, kEntries);
        const uint32_t k = 100;
        const int32_t rc = a.run([&] { return util_binheap_insert(h, &k, sizeof k, nullptr); });
        if (a.injected() && rc == -1) {
            expect_drains(h, kEntries - 1, kEntries);
        } else {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(max_key(h), 100u);
            ASSERT_EQ(util_binheap_delete_maximum(h, nullptr), 0);
            expect_drains(h, kEntries - 1, kEntries);
        }
        util_binheap_destroy(h);
    });
}

TEST(AllocBinheap, DeleteExtremes) {
    for (const bool max : {true, false}) {
        SCOPED_TRACE(max ? "maximum" : "minimum");
        alloc_sweep::leak_free([&](Attempt &a) {
            BinHeap *h = heap_of(0, kEntries);
            const int32_t rc = a.run(
                [&] { return max ? util_binheap_delete_maximum(h, nullptr) : util_binheap_delete_minimum(h, nullptr); });
            if (a.injected() && rc == -1) {
                expect_drains(h, kEntries - 1, kEntries);  // nothing removed
            } else {
                EXPECT_EQ(rc, 0);
                expect_drains(h, max ? kEntries - 2 : kEntries - 1, kEntries - 1);
            }
            util_binheap_destroy(h);
        });
    }
}

TEST(AllocBinheap, Merge) {
    alloc_sweep::leak_free([](Attempt &a) {
        BinHeap *x = heap_of(0, 5), *y = heap_of(5, 6);
        BinHeap *m = a.run([&] { return util_binheap_merge(x, y); });
        // A failed link leaves equal-degree trees side by side (balance, not
        // entries, is lost) and the merge goes on; other failures give none.
        if (m == nullptr) {
            EXPECT_TRUE(a.injected());
            // Either untouched or (once the trees were taken) released whole.
            const uint32_t nx = util_binheap_count(x), ny = util_binheap_count(y);
            EXPECT_TRUE((nx == 5 && ny == 6) || (nx == 0 && ny == 0)) << nx << " " << ny;
            if (nx == 5) {
                expect_drains(x, 4, 5);
                expect_drains(y, 10, 6);
            }
        } else {
            ASSERT_NE(m, nullptr);
            EXPECT_EQ(util_binheap_count(x), 0u);
            expect_drains(m, 10, 11);
            util_binheap_destroy(m);
        }
        util_binheap_destroy(x);
        util_binheap_destroy(y);
    });
}

// The key callbacks allocate the stepped key; without it the entry keeps its key.
TEST(AllocBinheap, StepTopKey) {
    alloc_sweep::leak_free([](Attempt &a) {
        BinHeap *h = heap_of(0, kEntries);
        a.run([&] { util_binheap_increase_maximum(h, 5); });
        EXPECT_EQ(max_key(h), a.injected() ? kEntries - 1 : kEntries + 4);
        util_binheap_destroy(h);
    });
}

TEST(AllocPqueue, Create) {
    alloc_sweep::constructor([] { return util_pqueue_create(PQUEUE_MODE_HIGHEST_FIRST, 4, nullptr); },
                             [](PQueue *q) { EXPECT_EQ(util_pqueue_insert(q, 1, nullptr), 0); },
                             util_pqueue_destroy);
}

TEST(AllocPqueue, InsertKeepsTheQueue) {
    static int values[6];
    alloc_sweep::leak_free([](Attempt &a) {
        PQueue *q = util_pqueue_create(PQUEUE_MODE_HIGHEST_FIRST, 8, nullptr);
        for (uint64_t p = 0; p < 5; ++p) ASSERT_EQ(util_pqueue_insert(q, p, &values[p]), 0);
        const int32_t rc = a.run([&] { return util_pqueue_insert(q, 50, &values[5]); });
        const uint32_t n = a.injected() && rc == -1 ? 5 : 6;
        if (n == 6) {
            EXPECT_EQ(rc, 0);
        }
        ASSERT_EQ(util_pqueue_count(q), n);
        for (uint32_t i = 0; i < n; ++i) {
            void *v = nullptr;
            uint64_t prio = 0;
            ASSERT_EQ(util_pqueue_pull_highest(q, &v, &prio), 0);
            const uint64_t want = n == 6 ? (i == 0 ? 50 : 5 - i) : 4 - i;
            EXPECT_EQ(prio, want);
            EXPECT_EQ(v, want == 50 ? &values[5] : &values[want]);
        }
        util_pqueue_destroy(q);
    });
}

}  // namespace

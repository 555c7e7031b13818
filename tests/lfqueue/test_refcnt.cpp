// Reference-counted links: retirement, marked links, counts through the link
// operations, batched collection, the node pool, the full garbage queue, and
// threads sharing and releasing nodes through links.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <random>
#include <set>
#include <vector>

#include "kerm_refcnt.h"
#include "lf_test_util.h"

namespace {

std::mutex g_mu;
std::vector<void *> g_freed;
std::vector<std::pair<util_refcnt_node_t *, void *>> g_terminated;
void on_free(void *object) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_freed.push_back(object);
}
void on_terminate(util_refcnt_node_t *node, void *arg) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_terminated.emplace_back(node, arg);
}

void *obj(uintptr_t n) { return reinterpret_cast<void *>(n * 16); }

struct RefcntTest : testing::Test {
    void SetUp() override {
        g_freed.clear();
        g_terminated.clear();
        ctx = util_refcnt_create(10, on_terminate, on_free);
        ASSERT_NE(ctx, nullptr);
    }
    void TearDown() override { util_refcnt_destroy(ctx); }
    util_refcnt_t *ctx = nullptr;
};

TEST_F(RefcntTest, LastReleaseRetiresAndCollectionWaitsForTheThreshold) {
    util_refcnt_node_t *a = new_node(ctx, obj(1), obj(100));
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(get_node_refcount(a), 1u);
    EXPECT_EQ(get_node_ptr(a), obj(1));
    // Count 2 -> 1: not retired, handed back.
    EXPECT_EQ(retain_ref(ctx, a), a);
    EXPECT_EQ(release_ref(ctx, a), a);
    EXPECT_TRUE(g_terminated.empty());
    // 1 -> 0: retired now, freed only later.
    EXPECT_EQ(release_ref(ctx, a), nullptr);
    ASSERT_EQ(g_terminated.size(), 1u);
    EXPECT_EQ(g_terminated[0], std::make_pair(a, obj(100)));
    EXPECT_TRUE(g_freed.empty());
    // A retired node with count 0 can no longer be retained, nor retired again.
    EXPECT_EQ(retain_ref(ctx, a), nullptr);
    EXPECT_EQ(release_ref(ctx, a), a);
    EXPECT_EQ(g_terminated.size(), 1u);

    // With threshold 10 the eleventh waiting node starts a collection down to 5.
    for (uintptr_t i = 2; i <= 10; ++i) release_ref(ctx, new_node(ctx, obj(i), nullptr));
    EXPECT_TRUE(g_freed.empty());
    release_ref(ctx, new_node(ctx, obj(11), nullptr));
    EXPECT_EQ(g_freed, (std::vector<void *>{obj(1), obj(2), obj(3), obj(4), obj(5), obj(6)}));
    // Collected records come back from the pool.
    util_refcnt_node_t *again = new_node(ctx, obj(12), nullptr);
    EXPECT_EQ(again, a);
    EXPECT_EQ(get_node_refcount(again), 1u);
    EXPECT_EQ(get_node_ptr(again), obj(12));
    release_ref(ctx, again);
    // Destroy collects the rest: 7 .. 12.
    util_refcnt_destroy(ctx);
    ctx = nullptr;
    EXPECT_EQ(g_freed.size(), 12u);
    EXPECT_EQ(std::set<void *>(g_freed.begin(), g_freed.end()).size(), 12u);
}

TEST_F(RefcntTest, LinksCountTheirReferencesAndHonourTheMark) {
    util_refcnt_node_t *a = new_node(ctx, obj(1), nullptr), *b = new_node(ctx, obj(2), nullptr);
    util_refcnt_node_t *link = nullptr;
    EXPECT_EQ(deref_link(ctx, &link), nullptr);  // empty
    store_ref(ctx, &link, a);
    EXPECT_EQ(link, a);
    EXPECT_EQ(get_node_refcount(a), 2u);
    EXPECT_EQ(deref_link(ctx, &link), a);
    EXPECT_EQ(get_node_refcount(a), 3u);
    release_ref(ctx, a);

    // Marked: deref_link refuses, deref_link_d follows and counts.
    link = UTIL_REFCNT_MARK(a);
    EXPECT_EQ(deref_link(ctx, &link), nullptr);
    EXPECT_EQ(deref_link_internal(ctx, &link, 1), nullptr);
    EXPECT_EQ(deref_link_d(ctx, &link), a);
    EXPECT_EQ(get_node_refcount(a), 3u);
    release_ref(ctx, a);
    EXPECT_EQ(retain_ref(ctx, UTIL_REFCNT_MARK(a)), nullptr);

    // Stale expected: nothing changes.
    EXPECT_EQ(compare_and_swap_ref(ctx, &link, a, b), 0);
    EXPECT_EQ(link, UTIL_REFCNT_MARK(a));
    EXPECT_EQ(get_node_refcount(a), 2u);
    EXPECT_EQ(get_node_refcount(b), 1u);
    // Exact word, mark included: counts move, nothing retires.
    EXPECT_EQ(compare_and_swap_ref(ctx, &link, UTIL_REFCNT_MARK(a), b), 1);
    EXPECT_EQ(link, b);
    EXPECT_EQ(get_node_refcount(a), 1u);
    EXPECT_EQ(get_node_refcount(b), 2u);
    util_refcnt_node_t *c = new_node(ctx, obj(3), nullptr);
    util_refcnt_node_t *clink = c;
    EXPECT_EQ(compare_and_swap_ref(ctx, &clink, c, nullptr), 1);
    EXPECT_EQ(get_node_refcount(c), 0u);
    EXPECT_TRUE(g_terminated.empty());
    EXPECT_EQ(release_ref(ctx, c), nullptr);  // zero count: the follow-up release retires
    EXPECT_EQ(g_terminated.size(), 1u);

    // store_ref releases the old content: b drops to its own reference.
    store_ref(ctx, &link, nullptr);
    EXPECT_EQ(link, nullptr);
    EXPECT_EQ(get_node_refcount(b), 1u);
    EXPECT_EQ(release_ref(ctx, a), nullptr);
    EXPECT_EQ(release_ref(ctx, b), nullptr);
    EXPECT_EQ(g_terminated.size(), 3u);
}

TEST(RefcntEdgeTest, FullGarbageQueueCollectsTheNodeAtOnce) {
    g_freed.clear();
    // threshold + threshold/2 is negative as a signed number: the garbage
    // queue gets 256 slots and the threshold is never reached.
    util_refcnt_t *ctx = util_refcnt_create(0x60000000u, nullptr, on_free);
    ASSERT_NE(ctx, nullptr);
    for (uintptr_t i = 1; i <= 300; ++i) ASSERT_EQ(release_ref(ctx, new_node(ctx, obj(i), nullptr)), nullptr);
    EXPECT_EQ(g_freed.size(), 44u);  // the ones the queue refused
    util_refcnt_destroy(ctx);
    ASSERT_EQ(g_freed.size(), 300u);
    EXPECT_EQ(std::set<void *>(g_freed.begin(), g_freed.end()).size(), 300u);
}

TEST(RefcntEdgeTest, NullArgumentsAreRefused) {
    util_refcnt_node_t *link = nullptr;
    EXPECT_EQ(new_node(nullptr, obj(1), nullptr), nullptr);
    EXPECT_EQ(get_node_ptr(nullptr), nullptr);
    EXPECT_EQ(get_node_refcount(nullptr), 0u);
    EXPECT_EQ(deref_link(nullptr, &link), nullptr);
    EXPECT_EQ(release_ref(nullptr, nullptr), nullptr);
    EXPECT_EQ(retain_ref(nullptr, nullptr), nullptr);
    EXPECT_EQ(compare_and_swap_ref(nullptr, &link, nullptr, nullptr), 0);
    store_ref(nullptr, &link, nullptr);
    util_refcnt_destroy(nullptr);
    util_refcnt_t *ctx = util_refcnt_create(4, nullptr, nullptr);
    EXPECT_EQ(deref_link_d(ctx, nullptr), nullptr);
    EXPECT_EQ(release_ref(ctx, nullptr), nullptr);
    EXPECT_EQ(compare_and_swap_ref(ctx, nullptr, nullptr, nullptr), 0);
    store_ref(ctx, nullptr, nullptr);
    // The pool keeps more records than it can hold: the rest wait for destroy.
    std::vector<util_refcnt_node_t *> many;
    for (int i = 0; i < 70000; ++i) many.push_back(new_node(ctx, nullptr, nullptr));
    for (auto *n : many) release_ref(ctx, n);
    util_refcnt_destroy(ctx);
}

// Objects that know whether they were freed: a thread that reaches one
// through a link must never find it freed.
struct Tracked {
    std::atomic<int> freed{0};
};
std::atomic<int> g_tracked_freed{0};
void free_tracked(void *p) {
    auto *t = static_cast<Tracked *>(p);
    EXPECT_EQ(t->freed.fetch_add(1), 0);
    g_tracked_freed.fetch_add(1);
}

// Threads replace, follow and compare-and-swap a few shared links. Every
// object is freed exactly once, and never while a thread holds it.
TEST(RefcntThreadedTest, SharedLinksNeverHandOutFreedNodes) {
    const int iterations = lftest::scaled(40000), threads = 4, slots = 3;
    g_tracked_freed.store(0);
    util_refcnt_t *ctx = util_refcnt_create(8, nullptr, free_tracked);
    std::vector<Tracked> objects(threads * iterations + slots);
    util_refcnt_node_t *links[slots] = {};
    std::atomic<int> next_object{0};
    auto fresh = [&] { return new_node(ctx, &objects[next_object.fetch_add(1)], nullptr); };
    for (auto &l : links) {
        util_refcnt_node_t *n = fresh();
        store_ref(ctx, &l, n);
        release_ref(ctx, n);
    }
    lftest::run_threads(threads, [&](int t) {
        std::mt19937 rng(t);
        for (int i = 0; i < iterations; ++i) {
            util_refcnt_node_t **link = &links[rng() % slots];
            if (util_refcnt_node_t *held = deref_link(ctx, link)) {
                ASSERT_EQ(static_cast<Tracked *>(get_node_ptr(held))->freed.load(), 0);
                util_refcnt_node_t *n = fresh();
                // Either way the link's reference moves from held to n; our
                // own release of held then retires it when it was the last.
                if (rng() % 2) compare_and_swap_ref(ctx, link, held, n);
                else store_ref(ctx, link, n);
                release_ref(ctx, n);
                release_ref(ctx, held);
            }
        }
    });
    for (auto &l : links) store_ref(ctx, &l, nullptr);
    util_refcnt_destroy(ctx);
    EXPECT_EQ(g_tracked_freed.load(), next_object.load());
}

}  // namespace

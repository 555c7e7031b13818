// Double-ended queue: order at both ends, empty pops, count, clear and the
// stored-0 rule, the entry pool, embedded queues; threads pushing and popping
// at both ends (every value popped exactly once, count exact), and recorded
// histories checked for linearizability.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "kerm_queue.h"
#include "kerm_rqueue.h"
#include "lf_test_util.h"
#include "lincheck.h"

using lftest::value_of;

namespace {

void *v(uintptr_t n) { return reinterpret_cast<void *>(n); }

std::vector<void *> g_freed;
void record_freed(void *value) { g_freed.push_back(value); }

uint64_t pooled(util_queue_t *q) { return util_rqueue_write_count(q->bpool) - util_rqueue_read_count(q->bpool); }

struct QueueTest : testing::Test {
    void SetUp() override {
        g_freed.clear();
        q = util_queue_create();
        ASSERT_NE(q, nullptr);
    }
    void TearDown() override { util_queue_destroy(q); }
    util_queue_t *q = nullptr;
};

TEST_F(QueueTest, OrderAtBothEndsAndEmptyPops) {
    EXPECT_EQ(util_queue_pop_left(q), nullptr);
    EXPECT_EQ(util_queue_pop_right(q), nullptr);
    EXPECT_EQ(util_queue_count(q), 0u);
    // Pushed left, popped right: the order pushed. Popped left: reversed.
    for (uintptr_t i = 1; i <= 5; ++i) ASSERT_EQ(util_queue_push_left(q, v(i)), 0);
    EXPECT_EQ(util_queue_count(q), 5u);
    for (uintptr_t i = 1; i <= 3; ++i) EXPECT_EQ(util_queue_pop_right(q), v(i));
    EXPECT_EQ(util_queue_pop_left(q), v(5));
    EXPECT_EQ(util_queue_pop_left(q), v(4));
    EXPECT_EQ(util_queue_pop_left(q), nullptr);
    // The mirror image, and both ends mixed.
    for (uintptr_t i = 1; i <= 3; ++i) util_queue_push_right(q, v(i));
    util_queue_push_left(q, v(9));
    EXPECT_EQ(util_queue_pop_left(q), v(9));
    EXPECT_EQ(util_queue_pop_left(q), v(1));
    EXPECT_EQ(util_queue_pop_right(q), v(3));
    EXPECT_EQ(util_queue_count(q), 1u);
    EXPECT_EQ(util_queue_pop_right(q), v(2));
    EXPECT_EQ(util_queue_pop_right(q), nullptr);
    EXPECT_EQ(util_queue_count(q), 0u);
}

TEST_F(QueueTest, ClearHandsEachValueOverAndStopsAtAStoredZero) {
    util_queue_set_free_value_callback(q, record_freed);
    for (uintptr_t i : {1, 2, 3}) util_queue_push_right(q, v(i));
    util_queue_clear(q);
    EXPECT_EQ(g_freed, (std::vector<void *>{v(1), v(2), v(3)}));
    EXPECT_EQ(util_queue_count(q), 0u);

    g_freed.clear();
    for (uintptr_t i : {4, 0, 5, 0, 6}) util_queue_push_right(q, v(i));
    util_queue_clear(q);  // pops 4, then the 0 ends it
    EXPECT_EQ(g_freed, (std::vector<void *>{v(4)}));
    EXPECT_EQ(util_queue_count(q), 3u);
    util_queue_destroy(q);  // releases the rest, past the second 0 too
    q = nullptr;
    EXPECT_EQ(g_freed, (std::vector<void *>{v(4), v(5), v(6)}));
}

TEST_F(QueueTest, EntryPoolKeepsCollectedEntriesForReuse) {
    EXPECT_EQ(util_queue_set_bpool_size(q, 100), 0u);
    util_rqueue_t *pool = q->bpool;
    EXPECT_EQ(util_queue_set_bpool_size(q, 100), 100u);
    EXPECT_EQ(q->bpool, pool);  // same size: the pool stays
    // 1100 retired entries pass the threshold of 1024: collection down to 512
    // fills the pool; pushes never take from it.
    for (int round = 0; round < 2; ++round) {
        for (uintptr_t i = 1; i <= 550; ++i) util_queue_push_left(q, v(i));
        for (uintptr_t i = 1; i <= 550; ++i) ASSERT_EQ(util_queue_pop_right(q), v(i));
    }
    EXPECT_EQ(pooled(q), 100u);
    util_queue_entry_t *e = deutil_queue_reusable_entry(q);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(pooled(q), 99u);
    util_queue_reusable_entry(e);  // back through reclamation, not at once
    EXPECT_EQ(pooled(q), 99u);
    // A new size replaces the pool (its entries are freed).
    EXPECT_EQ(util_queue_set_bpool_size(q, 10), 100u);
    EXPECT_NE(q->bpool, pool);
    EXPECT_EQ(pooled(q), 0u);
    // Without a pool an entry is still made.
    util_queue_t *plain = util_queue_create();
    util_queue_entry_t *fresh = deutil_queue_reusable_entry(plain);
    EXPECT_NE(fresh, nullptr);
    util_queue_reusable_entry(fresh);
    util_queue_destroy(plain);
}

TEST(QueueEmbeddedTest, InitOnCallerMemoryIsNeverFreed) {
    g_freed.clear();
    struct {
        util_queue_t queue;
        uint32_t guard;
    } holder;
    holder.guard = 0xC0FFEE;
    ASSERT_EQ(util_queue_init(&holder.queue), 0);
    EXPECT_EQ(holder.queue.allocated, 0u);
    util_queue_set_free_value_callback(&holder.queue, record_freed);
    util_queue_push_left(&holder.queue, v(7));
    util_queue_push_right(&holder.queue, v(8));
    EXPECT_EQ(util_queue_count(&holder.queue), 2u);
    util_queue_destroy(&holder.queue);  // ASan would report freeing stack memory
    EXPECT_EQ(g_freed, (std::vector<void *>{v(7), v(8)}));
    EXPECT_EQ(holder.guard, 0xC0FFEEu);
    util_queue_destroy(&holder.queue);  // a destroyed record is left zeroed and ignored
}

TEST(QueueEdgeTest, NullQueueIsRefusedOrIgnored) {
    EXPECT_EQ(util_queue_init(nullptr), -1);
    EXPECT_EQ(util_queue_push_left(nullptr, v(1)), -1);
    EXPECT_EQ(util_queue_push_right(nullptr, v(1)), -1);
    EXPECT_EQ(util_queue_pop_left(nullptr), nullptr);
    EXPECT_EQ(util_queue_pop_right(nullptr), nullptr);
    EXPECT_EQ(util_queue_count(nullptr), 0u);
    EXPECT_EQ(util_queue_set_bpool_size(nullptr, 4), 0u);
    EXPECT_EQ(deutil_queue_reusable_entry(nullptr), nullptr);
    util_queue_reusable_entry(nullptr);
    util_queue_set_free_value_callback(nullptr, record_freed);
    util_queue_clear(nullptr);
    util_queue_destroy(nullptr);
}

// Four threads push and pop at random ends of a queue that stays short, so
// pushes and pops meet at the same end and pops at both ends meet on
// neighbouring entries; what is left is drained at the end.
TEST(QueueThreadedTest, MixedEndsKeepEveryValueOnce) {
    const int threads = 4, per_thread = lftest::scaled(20000);
    util_queue_t *q = util_queue_create();
    std::vector<std::vector<void *>> popped(threads + 1);
    lftest::run_threads(threads, [&](int t) {
        std::mt19937 rng(t + 1);
        for (int i = 0; i < per_thread; ++i) {
            if (rng() % 2) util_queue_push_left(q, value_of(t, i));
            else util_queue_push_right(q, value_of(t, i));
            void *x = rng() % 2 ? util_queue_pop_left(q) : util_queue_pop_right(q);
            if (x) popped[t].push_back(x);
        }
    });
    size_t in_lists = 0;
    for (auto &l : popped) in_lists += l.size();
    EXPECT_EQ(util_queue_count(q), threads * per_thread - in_lists);
    while (void *x = util_queue_pop_right(q)) popped[threads].push_back(x);
    EXPECT_EQ(util_queue_count(q), 0u);
    lftest::expect_each_once(popped, threads, per_thread, false);
    util_queue_destroy(q);
}

// Two pushers and two poppers, all at the left end (a stack), then pushers
// at the left and poppers at the right (a queue): per-pusher order holds.
TEST(QueueThreadedTest, SameEndAndOppositeEndsPassEveryValueOnce) {
    const int per_pusher = lftest::scaled(20000);
    for (bool opposite : {false, true}) {
        util_queue_t *q = util_queue_create();
        auto popped = lftest::pass_through(
            per_pusher, [&](void *x) { return util_queue_push_left(q, x); },
            [&] { return opposite ? util_queue_pop_right(q) : util_queue_pop_left(q); });
        EXPECT_EQ(util_queue_count(q), 0u);
        lftest::expect_each_once(popped, 2, per_pusher, opposite);
        util_queue_destroy(q);
    }
}

// Short histories of three threads doing random operations at random ends.
TEST(QueueThreadedTest, HistoriesAreLinearizable) {
    util_queue_t *q = util_queue_create();
    auto bad = lincheck::first_unexplained(
        lftest::scaled(400), 1000, lincheck::Model{}, [&] { while (util_queue_pop_left(q)) {} },
        [&](lincheck::Recorder &rec, int t, std::mt19937 &rng, int i) {
            uintptr_t x = reinterpret_cast<uintptr_t>(value_of(t, i));
            switch (rng() % 4) {
            case 0: rec.run(t, lincheck::kPushLeft, x, [&] { return util_queue_push_left(q, (void *)x); }); break;
            case 1: rec.run(t, lincheck::kPushRight, x, [&] { return util_queue_push_right(q, (void *)x); }); break;
            case 2: rec.run(t, lincheck::kPopLeft, 0, [&] { return (intptr_t)util_queue_pop_left(q); }); break;
            default: rec.run(t, lincheck::kPopRight, 0, [&] { return (intptr_t)util_queue_pop_right(q); });
            }
        });
    EXPECT_TRUE(bad.empty()) << lincheck::format(bad);
    util_queue_destroy(q);
}

}  // namespace

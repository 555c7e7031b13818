// Ring queue: order, capacity in both modes, counters, the stats text, the
// free-value callback, and concurrent writers and readers (every value read
// exactly once; histories checked for linearizability).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "kerm_rqueue.h"
#include "lf_test_util.h"
#include "lincheck.h"

using lftest::value_of;

namespace {

void *v(uintptr_t n) { return reinterpret_cast<void *>(n); }

// Records free-value callbacks (the callback has no user argument).
std::mutex g_freed_mu;
std::vector<std::pair<void *, void *>> g_freed;
void record_freed(void *value, void *new_value) {
    std::lock_guard<std::mutex> lock(g_freed_mu);
    g_freed.emplace_back(value, new_value);
}

struct RqueueTest : testing::Test {
    void SetUp() override { g_freed.clear(); }
};

TEST_F(RqueueTest, FirstInFirstOutAcrossManyLapsOfTheRing) {
    util_rqueue_t *q = util_rqueue_create(5, UTIL_RQUEUE_MODE_BLOCKING);
    uintptr_t next_in = 1, next_out = 1;
    // Fill levels from 0 to the capacity, so the head, the tail and the spare
    // page meet at every position of the ring.
    for (int lap = 0; lap < 40; ++lap) {
        int fill = lap % 6;
        for (int i = 0; i < fill; ++i) ASSERT_EQ(util_rqueue_write(q, v(next_in++)), 0);
        EXPECT_EQ(util_rqueue_isempty(q), fill == 0 ? 1 : 0);
        for (int i = 0; i < fill; ++i) ASSERT_EQ(util_rqueue_read(q), v(next_out++)) << "lap " << lap;
        EXPECT_EQ(util_rqueue_isempty(q), 1);
        EXPECT_EQ(util_rqueue_read(q), nullptr);
    }
    EXPECT_EQ(util_rqueue_write_count(q), next_in - 1);
    EXPECT_EQ(util_rqueue_read_count(q), next_out - 1);
    util_rqueue_destroy(q);
}

TEST_F(RqueueTest, BlockingWriteIntoFullQueueIsRefusedAndStoresNothing) {
    for (uint32_t size : {3u, 4u, 7u}) {
        util_rqueue_t *q = util_rqueue_create(size, UTIL_RQUEUE_MODE_BLOCKING);
        util_rqueue_set_free_value_callback(q, record_freed);
        for (uintptr_t i = 1; i <= size; ++i) ASSERT_EQ(util_rqueue_write(q, v(i)), 0);
        EXPECT_EQ(util_rqueue_write(q, v(99)), -2) << size;
        EXPECT_EQ(util_rqueue_write(q, v(98)), -2) << size;
        EXPECT_EQ(util_rqueue_write_count(q), size);
        // One read makes room for exactly one more.
        EXPECT_EQ(util_rqueue_read(q), v(1));
        EXPECT_EQ(util_rqueue_write(q, v(100)), 0);
        EXPECT_EQ(util_rqueue_write(q, v(101)), -2);
        for (uintptr_t i = 2; i <= size; ++i) EXPECT_EQ(util_rqueue_read(q), v(i));
        EXPECT_EQ(util_rqueue_read(q), v(100));
        EXPECT_EQ(util_rqueue_read(q), nullptr);
        EXPECT_TRUE(g_freed.empty());
        util_rqueue_destroy(q);
    }
}

TEST_F(RqueueTest, OverwriteDropsTheOldestAndHandsItOverWhenItsPageIsReused) {
    util_rqueue_t *q = util_rqueue_create(3, UTIL_RQUEUE_MODE_OVERWRITE);
    util_rqueue_set_free_value_callback(q, record_freed);
    for (uintptr_t i = 1; i <= 4; ++i) ASSERT_EQ(util_rqueue_write(q, v(i)), 0);
    EXPECT_TRUE(g_freed.empty());  // value 1 still sits in its page
    EXPECT_EQ(util_rqueue_read(q), v(2));
    ASSERT_EQ(util_rqueue_write(q, v(5)), 0);
    ASSERT_EQ(g_freed.size(), 1u);
    EXPECT_EQ(g_freed[0], std::make_pair(v(1), v(5)));
    // Full (3, 4, 5): writing 6 drops 3, writing 7 drops 4 and reuses the
    // page of 3; 4 waits in its page until destroy.
    ASSERT_EQ(util_rqueue_write(q, v(6)), 0);
    ASSERT_EQ(util_rqueue_write(q, v(7)), 0);
    ASSERT_EQ(g_freed.size(), 2u);
    EXPECT_EQ(g_freed[1], std::make_pair(v(3), v(7)));
    for (uintptr_t i : {5, 6, 7}) EXPECT_EQ(util_rqueue_read(q), v(i));
    EXPECT_EQ(util_rqueue_read(q), nullptr);
    EXPECT_EQ(util_rqueue_write_count(q), 7u);
    EXPECT_EQ(util_rqueue_read_count(q), 4u);
    util_rqueue_destroy(q);
    ASSERT_EQ(g_freed.size(), 3u);
    EXPECT_EQ(g_freed[2], std::make_pair(v(4), v(0)));
}

TEST_F(RqueueTest, DestroyHandsEveryHeldValueToTheCallbackOnce) {
    util_rqueue_t *q = util_rqueue_create(4, UTIL_RQUEUE_MODE_OVERWRITE);
    util_rqueue_set_free_value_callback(q, record_freed);
    for (uintptr_t i = 1; i <= 3; ++i) ASSERT_EQ(util_rqueue_write(q, v(i)), 0);
    util_rqueue_destroy(q);
    EXPECT_EQ(g_freed, (std::vector<std::pair<void *, void *>>{{v(1), nullptr}, {v(2), nullptr}, {v(3), nullptr}}));
}

TEST_F(RqueueTest, StatsTextNamesPagesCountersAndMode) {
    util_rqueue_t *q = util_rqueue_create(3, UTIL_RQUEUE_MODE_BLOCKING);
    util_rqueue_write(q, v(1));
    util_rqueue_write(q, v(2));
    util_rqueue_read(q);
    const std::string p = "(0x[0-9a-f]+|\\(nil\\)) \n";
    const std::string fixed = "reader:      " + p + "head:        " + p + "tail:        " + p + "tail_next:   " + p +
                              "commit:      " + p + "commit_next: " + p + "reads:       1 \nwrites:      2 \n";
    for (int32_t mode : {0, 1, 5}) {
        util_rqueue_set_mode(q, mode);
        char *text = util_rqueue_stats(q);
        ASSERT_NE(text, nullptr);
        std::string want = fixed + "mode:        " + (mode == 0 ? "blocking" : "overwrite") + " \n";
        EXPECT_TRUE(std::regex_match(text, std::regex(want))) << text;
        free(text);
    }
    util_rqueue_destroy(q);
}

TEST_F(RqueueTest, ShapeAndRefusedInputs) {
    EXPECT_EQ(util_rqueue_write(nullptr, v(1)), -1);
    EXPECT_EQ(util_rqueue_read(nullptr), nullptr);
    EXPECT_EQ(util_rqueue_isempty(nullptr), 1);
    EXPECT_EQ(util_rqueue_stats(nullptr), nullptr);
    EXPECT_EQ(util_rqueue_size(nullptr), 0u);
    EXPECT_EQ(util_rqueue_mode(nullptr), -1);
    EXPECT_EQ(util_rqueue_write_count(nullptr), 0u);
    EXPECT_EQ(util_rqueue_read_count(nullptr), 0u);
    util_rqueue_set_mode(nullptr, 1);
    util_rqueue_set_free_value_callback(nullptr, record_freed);
    util_rqueue_destroy(nullptr);

    // Sizes are raised to at least 3; the mode is kept and can be changed.
    util_rqueue_t *q = util_rqueue_create(1, UTIL_RQUEUE_MODE_BLOCKING);
    EXPECT_EQ(util_rqueue_size(q), 3u);
    EXPECT_EQ(util_rqueue_mode(q), UTIL_RQUEUE_MODE_BLOCKING);
    util_rqueue_set_mode(q, UTIL_RQUEUE_MODE_OVERWRITE);
    EXPECT_EQ(util_rqueue_mode(q), UTIL_RQUEUE_MODE_OVERWRITE);
    util_rqueue_destroy(q);
    q = util_rqueue_create(0, UTIL_RQUEUE_MODE_BLOCKING);
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(util_rqueue_size(q), 3u);
    EXPECT_EQ(util_rqueue_write(q, nullptr), -1);  // 0 marks an empty page
    EXPECT_EQ(util_rqueue_write(q, v(1)), -2);     // a size-0 ring holds nothing
    EXPECT_EQ(util_rqueue_read(q), nullptr);
    EXPECT_EQ(util_rqueue_write_count(q), 0u);
    util_rqueue_destroy(q);
}

// Two writers and two readers: every value read exactly once, each writer's
// values in the order written, counters exact at the end.
TEST_F(RqueueTest, ThreadedWritersAndReadersPassEveryValueOnce) {
    const int per_writer = lftest::scaled(20000);
    util_rqueue_t *q = util_rqueue_create(16, UTIL_RQUEUE_MODE_BLOCKING);
    auto got = lftest::pass_through(
        per_writer, [&](void *x) { return util_rqueue_write(q, x); }, [&] { return util_rqueue_read(q); });
    lftest::expect_each_once(got, 2, per_writer, true);
    EXPECT_EQ(util_rqueue_write_count(q), static_cast<uint64_t>(2 * per_writer));
    EXPECT_EQ(util_rqueue_read_count(q), static_cast<uint64_t>(2 * per_writer));
    EXPECT_EQ(util_rqueue_isempty(q), 1);
    util_rqueue_destroy(q);
}

// Overwrite mode under two writers and a reader: every value is read, or
// handed to the callback as dropped, or freed at destroy, exactly once.
TEST_F(RqueueTest, ThreadedOverwriteAccountsForEveryValue) {
    const int per_writer = lftest::scaled(20000);
    util_rqueue_t *q = util_rqueue_create(8, UTIL_RQUEUE_MODE_OVERWRITE);
    util_rqueue_set_free_value_callback(q, record_freed);
    std::atomic<int> writers_done{0};
    std::vector<void *> read;
    lftest::run_threads(3, [&](int t) {
        if (t < 2) {
            for (int i = 0; i < per_writer; ++i) ASSERT_EQ(util_rqueue_write(q, value_of(t, i)), 0);
            writers_done.fetch_add(1);
        } else {
            while (writers_done.load() < 2) {
                if (void *x = util_rqueue_read(q)) read.push_back(x);
            }
        }
    });
    const uint64_t reads = util_rqueue_read_count(q);
    EXPECT_EQ(reads, read.size());
    EXPECT_EQ(util_rqueue_write_count(q), static_cast<uint64_t>(2 * per_writer));
    util_rqueue_destroy(q);
    std::map<void *, int> count;
    for (void *x : read) ++count[x];
    for (auto &f : g_freed) {
        ++count[f.first];
        EXPECT_NE(f.first, f.second);
    }
    ASSERT_EQ(count.size(), static_cast<size_t>(2 * per_writer));
    for (auto &c : count) ASSERT_EQ(c.second, 1) << c.first;
}

// Short histories from three threads that both write and read a small
// queue, so it runs full and empty; each must be linearizable.
TEST_F(RqueueTest, HistoriesAreLinearizable) {
    util_rqueue_t *q = util_rqueue_create(4, UTIL_RQUEUE_MODE_BLOCKING);
    lincheck::Model model;
    model.capacity = 4;
    auto bad = lincheck::first_unexplained(
        lftest::scaled(150), 0, model, [&] { while (util_rqueue_read(q)) {} },
        [&](lincheck::Recorder &rec, int t, std::mt19937 &rng, int i) {
            void *x = value_of(t, i);
            if (rng() % 5 < 2)
                rec.run(t, lincheck::kWrite, reinterpret_cast<uintptr_t>(x), [&] { return util_rqueue_write(q, x); });
            else
                rec.run(t, lincheck::kRead, 0, [&] { return reinterpret_cast<intptr_t>(util_rqueue_read(q)); });
        });
    EXPECT_TRUE(bad.empty()) << lincheck::format(bad);
    util_rqueue_destroy(q);
}

TEST(LincheckTest, RejectsHistoriesNoOrderExplains) {
    using lincheck::Op;
    lincheck::Model fifo;
    fifo.capacity = 2;
    // Sequential: write 1, write 2, read -> 2 is not first-in first-out.
    std::vector<Op> h = {{0, lincheck::kWrite, 1, 0, 0, 1, false},
                         {0, lincheck::kWrite, 2, 0, 2, 3, false},
                         {0, lincheck::kRead, 0, 2, 4, 5, false}};
    EXPECT_FALSE(lincheck::check(h, fifo));
    // Overlapping writes may land in either order.
    h[1].call = 0;
    h[0].done = 3;
    EXPECT_TRUE(lincheck::check(h, fifo));
    // Full means -2 only at capacity.
    std::vector<Op> full = {{0, lincheck::kWrite, 1, 0, 0, 1, false}, {0, lincheck::kWrite, 2, -2, 2, 3, false}};
    EXPECT_FALSE(lincheck::check(full, fifo));
    // A value popped twice from a deque.
    std::vector<Op> twice = {{0, lincheck::kPushLeft, 7, 0, 0, 1, false},
                             {1, lincheck::kPopRight, 0, 7, 2, 5, false},
                             {2, lincheck::kPopLeft, 0, 7, 3, 4, false}};
    EXPECT_FALSE(lincheck::check(twice, lincheck::Model{}));
}

}  // namespace

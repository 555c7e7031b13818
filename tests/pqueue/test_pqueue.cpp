// Priority queue: the eviction example, both modes, the low-word order, a
// model run against std::multiset, walk and remove, and producers with
// consumers on one queue where every value ends exactly once.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "kerm_pqueue.h"
#include "support/emulator.h"

namespace {

// Values are malloc'ed ids; the free-value callback records which it released.
std::vector<int> g_freed;
void record_free(void *v) {
    g_freed.push_back(*static_cast<int *>(v));
    free(v);
}
int *boxed(int x) {
    int *p = static_cast<int *>(malloc(sizeof(int)));
    *p = x;
    return p;
}
int unbox(void *v) {
    int x = *static_cast<int *>(v);
    free(v);
    return x;
}

struct Queue {
    PQueue *q;
    Queue(uint32_t mode, uint32_t max_size, PQueueFreeValue fv = record_free)
        : q(util_pqueue_create(mode, max_size, fv)) {
        if (q == nullptr) abort();
        g_freed.clear();
    }
    ~Queue() { util_pqueue_destroy(q); }
};

TEST(PQueue, QueueOfTwoEvictsTheLowest) {
    Queue pq(PQUEUE_MODE_HIGHEST_FIRST, 2);
    for (int p : {5, 1, 9}) ASSERT_EQ(util_pqueue_insert(pq.q, static_cast<uint64_t>(p), boxed(p)), 0);
    EXPECT_EQ(g_freed, std::vector<int>{1});
    EXPECT_EQ(util_pqueue_count(pq.q), 2u);
    void *v;
    uint64_t prio;
    ASSERT_EQ(util_pqueue_pull_highest(pq.q, &v, &prio), 0);
    EXPECT_EQ(prio, 9u);
    EXPECT_EQ(unbox(v), 9);
    ASSERT_EQ(util_pqueue_pull_highest(pq.q, &v, &prio), 0);
    EXPECT_EQ(prio, 5u);
    EXPECT_EQ(unbox(v), 5);
    // Empty: -1 and neither output touched.
    v = &prio;
    prio = 77;
    EXPECT_EQ(util_pqueue_pull_highest(pq.q, &v, &prio), -1);
    EXPECT_EQ(util_pqueue_pull_lowest(pq.q, &v, &prio), -1);
    EXPECT_EQ(v, &prio);
    EXPECT_EQ(prio, 77u);
}

TEST(PQueue, ModesOutputsAndLowWordOrder) {
    {
        Queue pq(PQUEUE_MODE_LOWEST_FIRST, 10);
        for (int p : {30, 10, 20}) util_pqueue_insert(pq.q, static_cast<uint64_t>(p), boxed(p));
        uint64_t prio = 0;
        void *v;
        ASSERT_EQ(util_pqueue_pull_highest(pq.q, &v, &prio), 0);  // smallest number first
        EXPECT_EQ(prio, 10u);
        EXPECT_EQ(unbox(v), 10);
        // No value output: the value goes to free_value; no priority output is fine.
        ASSERT_EQ(util_pqueue_pull_highest(pq.q, nullptr, &prio), 0);
        EXPECT_EQ(prio, 20u);
        EXPECT_EQ(g_freed, std::vector<int>{20});
        ASSERT_EQ(util_pqueue_pull_lowest(pq.q, &v, nullptr), 0);
        EXPECT_EQ(unbox(v), 30);
    }
    {
        // Priorities order by their low 32-bit words: 2^32 + 5 ranks above 3.
        Queue pq(PQUEUE_MODE_HIGHEST_FIRST, 10);
        util_pqueue_insert(pq.q, 3, boxed(3));
        util_pqueue_insert(pq.q, (uint64_t{1} << 32) + 5, boxed(5));
        uint64_t prio;
        void *v;
        ASSERT_EQ(util_pqueue_pull_highest(pq.q, &v, &prio), 0);
        EXPECT_EQ(prio, (uint64_t{1} << 32) + 5);
        free(v);
    }
    {
        // max_size 0 keeps nothing: the insert evicts its own entry.
        Queue pq(PQUEUE_MODE_HIGHEST_FIRST, 0);
        EXPECT_EQ(util_pqueue_insert(pq.q, 1, boxed(1)), 0);
        EXPECT_EQ(util_pqueue_count(pq.q), 0u);
        EXPECT_EQ(g_freed, std::vector<int>{1});
    }
    EXPECT_EQ(util_pqueue_insert(nullptr, 1, nullptr), -1);
    EXPECT_EQ(util_pqueue_pull_highest(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(util_pqueue_count(nullptr), 0u);
    util_pqueue_destroy(nullptr);
}

// Model: priority per live value id. Highest pulls are exact; lowest pulls and
// evictions take some live entry; every value ends exactly once.
void run_model(uint32_t mode, uint32_t max_size, uint32_t seed) {
    SCOPED_TRACE(testing::Message() << "mode " << mode << " max " << max_size << " seed " << seed);
    Queue pq(mode, max_size);
    std::multiset<uint64_t> prios;
    std::map<int, uint64_t> live;
    std::mt19937 rng(seed);
    const bool high_big = mode == PQUEUE_MODE_HIGHEST_FIRST;
    auto drop = [&](int id, uint64_t prio) {
        auto it = live.find(id);
        ASSERT_NE(it, live.end()) << id;
        ASSERT_EQ(it->second, prio);
        prios.erase(prios.find(prio));
        live.erase(it);
    };
    int next = 0;
    size_t freed_seen = 0;
    for (int step = 0; step < 3000; ++step) {
        unsigned op = rng() % 10;
        if (op < 6) {
            uint64_t prio = rng() % 100;
            ASSERT_EQ(util_pqueue_insert(pq.q, prio, boxed(next)), 0);
            prios.insert(prio);
            live[next++] = prio;
            // Evicted values went to free_value, each a live entry.
            for (; freed_seen < g_freed.size(); ++freed_seen) drop(g_freed[freed_seen], live.at(g_freed[freed_seen]));
            ASSERT_LE(live.size(), max_size);
        } else {
            void *v = nullptr;
            uint64_t prio = 0;
            bool highest = op < 9;
            int32_t rc = (highest ? util_pqueue_pull_highest : util_pqueue_pull_lowest)(pq.q, &v, &prio);
            if (live.empty()) {
                ASSERT_EQ(rc, -1);
                continue;
            }
            ASSERT_EQ(rc, 0);
            if (highest) {
                ASSERT_EQ(prio, high_big ? *prios.rbegin() : *prios.begin());
            }
            drop(unbox(v), prio);
        }
        ASSERT_EQ(util_pqueue_count(pq.q), live.size());
    }
}

TEST(PQueue, FollowsMultisetModel) {
    for (uint32_t seed : {1u, 2u}) {
        run_model(PQUEUE_MODE_HIGHEST_FIRST, 1000000, seed);
        run_model(PQUEUE_MODE_LOWEST_FIRST, 1000000, seed);
        run_model(PQUEUE_MODE_HIGHEST_FIRST, 16, seed);
        run_model(7, 16, seed);  // any non-zero mode: smallest number first
    }
}

TEST(PQueue, WalkAndRemove) {
    Queue pq(PQUEUE_MODE_HIGHEST_FIRST, 100);
    for (int p = 1; p <= 6; ++p) util_pqueue_insert(pq.q, static_cast<uint64_t>(p), boxed(p));
    std::vector<PQueueItem *> items;
    int32_t n = util_pqueue_walk(
        pq.q,
        [](PQueue *, uint64_t prio, PQueueItem *item, void *p) -> int32_t {
            EXPECT_EQ(item->prio, prio);
            EXPECT_EQ(*static_cast<int *>(item->value), static_cast<int>(prio));
            static_cast<std::vector<PQueueItem *> *>(p)->push_back(item);
            return 1;
        },
        &items);
    ASSERT_EQ(n, 6);
    // The entry with priority 4 goes; the result is -1 all the same, and its
    // value is the caller's, not free_value's.
    PQueueItem *four = nullptr;
    for (auto *it : items)
        if (it->prio == 4) four = it;
    ASSERT_NE(four, nullptr);
    void *four_value = four->value;
    EXPECT_EQ(util_pqueue_remove(pq.q, four), -1);
    EXPECT_EQ(util_pqueue_count(pq.q), 5u);
    EXPECT_TRUE(g_freed.empty());
    free(four_value);
    PQueueItem stranger{nullptr, 3};
    EXPECT_EQ(util_pqueue_remove(pq.q, &stranger), -1);
    EXPECT_EQ(util_pqueue_count(pq.q), 5u);
    std::vector<uint64_t> order;
    uint64_t prio;
    while (util_pqueue_pull_highest(pq.q, nullptr, &prio) == 0) order.push_back(prio);
    EXPECT_EQ(order, (std::vector<uint64_t>{6, 5, 3, 2, 1}));
    // Destroy releases what is left through free_value.
    util_pqueue_insert(pq.q, 8, boxed(8));
    g_freed.clear();
}

TEST(PQueue, ProducersAndConsumersSeeEveryValueOnce) {
    const int per_producer = kerm_test::scaled(10000, 6);
    const int producers = 2, consumers = 2, total = producers * per_producer;
    for (uint32_t max_size : {1000000u, 64u}) {
        SCOPED_TRACE(max_size);
        static std::atomic<int> *ends;  // per value: pulled or freed
        std::vector<std::atomic<int>> counts(total);
        ends = counts.data();
        PQueue *q = util_pqueue_create(PQUEUE_MODE_HIGHEST_FIRST, max_size, [](void *v) {
            ends[*static_cast<int *>(v)]++;
            free(v);
        });
        ASSERT_NE(q, nullptr);
        std::atomic<int> producing{producers};
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p)
            threads.emplace_back([&, p] {
                for (int i = 0; i < per_producer; ++i) {
                    int id = p * per_producer + i;
                    ASSERT_EQ(util_pqueue_insert(q, static_cast<uint64_t>(id % 1000), boxed(id)), 0);
                }
                --producing;
            });
        for (int c = 0; c < consumers; ++c)
            threads.emplace_back([&, c] {
                for (;;) {
                    bool last_round = producing == 0;
                    void *v;
                    uint64_t prio;
                    int32_t rc = (c == 0 ? util_pqueue_pull_highest : util_pqueue_pull_lowest)(q, &v, &prio);
                    if (rc == 0) {
                        int id = *static_cast<int *>(v);
                        EXPECT_EQ(prio, static_cast<uint64_t>(id % 1000));
                        ends[id]++;
                        free(v);
                    } else if (last_round) {
                        break;
                    }
                }
            });
        for (auto &t : threads) t.join();
        EXPECT_EQ(util_pqueue_count(q), 0u);
        util_pqueue_destroy(q);
        int once = 0;
        for (auto &c : counts) once += c.load() == 1;
        EXPECT_EQ(once, total);
    }
}

}  // namespace

// Several threads set, get, delete and walk one table while it grows from
// its smallest size. Each thread owns a key range and keeps its own model;
// a shared counter key is bumped through util_ht_call by every thread.
#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ht/ht_test_util.h"

using httest::U;
using httest::V;

namespace {

std::atomic<int> g_released{0};
void count_release(void *) { g_released.fetch_add(1, std::memory_order_relaxed); }

int bump(util_ht_t *, const void *, uint32_t, void **value, uint32_t *, void *) {
    *value = V(U(*value) + 1);
    return 2;
}

int count_pair(util_ht_t *, const void *, uint32_t, void *, uint32_t, void *user) {
    ++*static_cast<int *>(user);
    return 1;
}

std::string key(int thread, int i) { return "t" + std::to_string(thread) + "/k" + std::to_string(i); }

TEST(HtThreads, ConcurrentWritersAndWalkersWhileGrowing) {
    util_ht_t *t = util_ht_create(0, 0, count_release);
    const int writers = 3, keys = httest::scaled(3000), ops = httest::scaled(12000);
    ASSERT_EQ(util_ht_set(t, "counter", 7, V(1), 0), 0);  // 1 so that it is never an emptied item
    std::vector<std::vector<uintptr_t>> model(writers, std::vector<uintptr_t>(keys, 0));
    std::vector<int> errors(writers + 1, 0), handed(writers, 0), bumps(writers, 0);
    std::atomic<int> done{0};
    std::vector<std::thread> pool;
    for (int w = 0; w < writers; ++w) {
        pool.emplace_back([&, w] {
            std::mt19937 rng(static_cast<unsigned>(w) * 7 + 1);
            auto &m = model[w];
            for (int i = 0; i < ops; ++i) {
                int k = static_cast<int>(rng() % keys);
                std::string ks = key(w, k);
                uintptr_t v = uintptr_t(i) + 1;
                switch (rng() % 6) {
                case 0:
                case 1:  // mostly inserts, so the table keeps growing
                    if (httest::set(t, ks, V(v), 0) != 0) ++errors[w];
                    if (m[k] != 0) ++handed[w];
                    m[k] = v;
                    break;
                case 2: {
                    void *prev = nullptr;
                    int rc = httest::del(t, ks, &prev);
                    if (rc != (m[k] ? 0 : -1) || U(prev) != m[k]) ++errors[w];
                    m[k] = 0;
                    break;
                }
                case 3:
                    if (U(httest::get(t, ks)) != m[k]) ++errors[w];
                    break;
                case 4:
                    if (util_ht_call(t, "counter", 7, bump, nullptr) != 2) ++errors[w];
                    ++bumps[w];
                    break;
                default: {
                    int rc = util_ht_set_if_not_exists(t, ks.data(), static_cast<uint32_t>(ks.size()), V(v), 0);
                    if (rc != (m[k] ? 1 : 0)) ++errors[w];
                    if (!m[k]) m[k] = v;
                    break;
                }
                }
            }
            done.fetch_add(1);
        });
    }
    // A walker and snapshot taker running beside the writers.
    pool.emplace_back([&] {
        while (done.load() < writers) {
            int n = 0;
            util_ht_foreach_pair(t, count_pair, &n);
            if (n < 1) ++errors[writers];
            list_t *snap = util_ht_get_all_keys(t);
            if (snap == nullptr || list_count(snap) < 1) ++errors[writers];
            list_destroy(snap);
            std::this_thread::yield();
        }
    });
    for (auto &th : pool) th.join();
    for (int w = 0; w <= writers; ++w) EXPECT_EQ(errors[w], 0) << "thread " << w;

    uint32_t expect_count = 1;
    int expect_released = 0;
    for (int w = 0; w < writers; ++w) {
        expect_released += handed[w];
        for (int k = 0; k < keys; ++k) {
            std::string ks = key(w, k);
            EXPECT_EQ(U(httest::get(t, ks)), model[w][k]) << ks;
            EXPECT_EQ(util_ht_exists(t, ks.data(), static_cast<uint32_t>(ks.size())), model[w][k] ? 1 : 0);
            expect_count += model[w][k] ? 1 : 0;
        }
    }
    EXPECT_EQ(util_ht_count(t), expect_count);
    int walked = 0;
    util_ht_foreach_pair(t, count_pair, &walked);
    EXPECT_EQ(static_cast<uint32_t>(walked), expect_count);
    EXPECT_EQ(g_released.load(), expect_released);  // each replaced value exactly once
    EXPECT_GE(t->size, 2048u);  // grew several times on the way
    EXPECT_EQ(U(util_ht_get(t, "counter", 7, nullptr)), uintptr_t(std::accumulate(bumps.begin(), bumps.end(), 1)));
    util_ht_set_free_item_callback(t, nullptr);
    util_ht_destroy(t);
}

}  // namespace

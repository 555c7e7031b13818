// Vector: a model run against std::vector, the sort and both searches, and
// threads pushing into one vector.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

#include "kerm_vector.h"
#include "support/emulator.h"

namespace {

int *boxed(int x) {
    int *p = static_cast<int *>(malloc(sizeof(int)));
    *p = x;
    return p;
}

int cmp_int(const void *a, const void *b) {
    int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
    return (x > y) - (x < y);
}

int at(util_vector_t *v, uint32_t i) { return *static_cast<int *>(util_vector_get_element(v, i)); }

struct Vec {
    util_vector_t *v = nullptr;
    Vec() {
        util_vector_init(&v);
        if (v == nullptr) abort();
    }
    ~Vec() { util_vector_deinit(&v); }
    void fill(const std::vector<int> &xs) {
        for (int x : xs) EXPECT_EQ(util_vector_push_back(v, boxed(x)), 0);
    }
};

TEST(Vector, FollowsModelThroughPushPopAndTake) {
    Vec vec;
    std::vector<int> model;
    std::mt19937 rng(7);
    for (int step = 0; step < 3000; ++step) {
        unsigned op = rng() % 8;
        if (op < 4) {
            int x = static_cast<int>(rng() % 1000);
            ASSERT_EQ(util_vector_push_back(vec.v, boxed(x)), 0);
            model.push_back(x);
        } else if (op < 6) {
            int *e = static_cast<int *>(util_vector_pop_back(vec.v));
            if (model.empty()) {
                ASSERT_EQ(e, nullptr);
            } else {
                ASSERT_NE(e, nullptr);
                ASSERT_EQ(*e, model.back());
                model.pop_back();
                free(e);
            }
        } else {
            // Indices up to one past the end: the past-the-end one is refused.
            uint32_t i = static_cast<uint32_t>(rng() % (model.size() + 1));
            int *e = static_cast<int *>(util_vector_take_element(vec.v, i));
            if (i == model.size()) {
                ASSERT_EQ(e, nullptr);
            } else {
                ASSERT_EQ(*e, model[i]);
                model.erase(model.begin() + i);
                free(e);
            }
        }
        ASSERT_EQ(util_vector_length(vec.v), model.size());
        if (!model.empty()) {
            uint32_t i = static_cast<uint32_t>(rng() % model.size());
            ASSERT_EQ(at(vec.v, i), model[i]);
            ASSERT_EQ(*static_cast<int *>(util_vector_get_element_lockfree(vec.v, i)), model[i]);
        }
    }
    // clean releases what is left (the leak checker would see anything else).
    EXPECT_EQ(util_vector_clean(vec.v), 0);
    EXPECT_EQ(util_vector_length(vec.v), 0u);
    EXPECT_EQ(util_vector_pop_back(vec.v), nullptr);
    vec.fill({1, 2, 3});  // deinit releases these
}

TEST(Vector, SortsAndFindsEveryElement) {
    std::mt19937 rng(11);
    for (uint32_t n = 0; n <= 40; ++n) {
        for (int pattern = 0; pattern < 4; ++pattern) {
            Vec vec;
            std::vector<int> xs(n);
            for (uint32_t i = 0; i < n; ++i) {
                switch (pattern) {
                case 0: xs[i] = static_cast<int>(rng() % 1000) * 2; break;  // even: odd keys are absent
                case 1: xs[i] = static_cast<int>(rng() % 4) * 2; break;     // many duplicates
                case 2: xs[i] = static_cast<int>(i) * 2; break;             // already sorted
                default: xs[i] = static_cast<int>(n - i) * 2; break;        // reversed
                }
            }
            vec.fill(xs);
            util_vector_qsort(vec.v, n, cmp_int);
            std::sort(xs.begin(), xs.end());
            for (uint32_t i = 0; i < n; ++i) ASSERT_EQ(at(vec.v, i), xs[i]) << "n=" << n << " pattern=" << pattern;
            for (int x : xs) {
                int32_t i = util_vector_bsearch_all(vec.v, &x, cmp_int);
                ASSERT_GE(i, 0);
                ASSERT_EQ(at(vec.v, static_cast<uint32_t>(i)), x);
                ASSERT_EQ(util_vector_bsearch(vec.v, &x, n, cmp_int), static_cast<uint32_t>(i));
            }
            for (int odd : {-1, 1, 3, 2001}) EXPECT_EQ(util_vector_bsearch_all(vec.v, &odd, cmp_int), -1);
            if (n > 0) {
                // A count beyond the length finds nothing, even a present key.
                EXPECT_EQ(util_vector_bsearch(vec.v, &xs[0], n + 1, cmp_int), UTIL_VECTOR_NOT_FOUND);
            }
        }
    }
}

TEST(Vector, SortLimitsAndSearchArgumentOrder) {
    Vec vec;
    vec.fill({9, 8, 7, 1, 0});
    util_vector_qsort(vec.v, 3, cmp_int);  // only the first three
    util_vector_qsort(vec.v, 5, nullptr);  // no comparator: untouched
    util_vector_qsort(vec.v, 99, nullptr);
    std::vector<int> got;
    for (uint32_t i = 0; i < 5; ++i) got.push_back(at(vec.v, i));
    EXPECT_EQ(got, (std::vector<int>{7, 8, 9, 1, 0}));

    // The key goes first for n = 1 and second otherwise.
    static const int key = 7;
    static int key_first, key_second;
    key_first = key_second = 0;
    auto spy = [](const void *a, const void *b) -> int {
        if (a == &key) ++key_first;
        if (b == &key) ++key_second;
        return cmp_int(a, b);
    };
    EXPECT_EQ(util_vector_bsearch(vec.v, &key, 1, spy), 0u);
    EXPECT_EQ(key_first, 1);
    EXPECT_EQ(util_vector_bsearch(vec.v, &key, 3, spy), 0u);
    EXPECT_EQ(key_first, 1);
    EXPECT_GE(key_second, 1);

    EXPECT_EQ(util_vector_bsearch(vec.v, &key, 0, cmp_int), UTIL_VECTOR_NOT_FOUND);
    EXPECT_EQ(util_vector_bsearch(vec.v, nullptr, 3, cmp_int), UTIL_VECTOR_NOT_FOUND);
    EXPECT_EQ(util_vector_bsearch(vec.v, &key, 3, nullptr), UTIL_VECTOR_NOT_FOUND);
    EXPECT_EQ(util_vector_bsearch_all(vec.v, nullptr, cmp_int), -1);
    EXPECT_EQ(util_vector_take_element(vec.v, 5), nullptr);
}

TEST(Vector, NullHandlesAreHarmless) {
    util_vector_t *none = nullptr;
    util_vector_init(nullptr);
    util_vector_deinit(nullptr);
    util_vector_deinit(&none);
    EXPECT_EQ(util_vector_push_back(nullptr, nullptr), -1);
    EXPECT_EQ(util_vector_length(nullptr), 0u);
    EXPECT_EQ(util_vector_pop_back(nullptr), nullptr);
    EXPECT_EQ(util_vector_clean(nullptr), 0);
}

TEST(Vector, ThreadsPushingIntoOneVectorKeepEveryValue) {
    const int threads = 4, per_thread = kerm_test::scaled(2000, 6);
    Vec vec;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            for (int i = 0; i < per_thread; ++i) {
                ASSERT_EQ(util_vector_push_back(vec.v, boxed(t * per_thread + i)), 0);
                // A locked read of the last slot while others grow the array.
                uint32_t n = util_vector_length(vec.v);
                ASSERT_GT(n, 0u);
                ASSERT_NE(util_vector_get_element(vec.v, n - 1), nullptr);
            }
        });
    for (auto &th : pool) th.join();
    ASSERT_EQ(util_vector_length(vec.v), static_cast<uint32_t>(threads * per_thread));
    std::vector<int> seen(threads * per_thread, 0);
    std::vector<int> last(threads, -1);  // each thread's values keep their order
    for (uint32_t i = 0; i < util_vector_length(vec.v); ++i) {
        int x = at(vec.v, i);
        ++seen[x];
        EXPECT_GT(x % per_thread, last[x / per_thread]);
        last[x / per_thread] = x % per_thread;
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), threads * per_thread);
}

}  // namespace

// Growth, key storage, emptied items, util_ht_call, snapshots and the walk
// result protocol.
#include <gtest/gtest.h>

#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "ht/ht_test_util.h"

using httest::U;
using httest::V;

namespace {

std::vector<uintptr_t> g_freed;
void record(void *v) { g_freed.push_back(U(v)); }

std::string key(int i) { return "key-" + std::to_string(i); }

TEST(HtRules, GrowthDoublesAfterOneThirdOverAndStopsAtTheMaximum) {
    struct Case {
        uint32_t initial, max;
        int inserts;
        uint32_t size_before, size_after;
    } cases[] = {
        {0, 0, 170, 128, 128},     // 170 is not above 128 + 42
        {0, 0, 171, 128, 256},
        {100, 200, 171, 128, 200}, // doubling capped at the maximum
        {0, 200, 2000, 128, 200},  // and never past it
        {0, 128, 1000, 128, 128},
        {500, 0, 1, 500, 500},
    };
    for (const auto &c : cases) {
        util_ht_t *t = util_ht_create(c.initial, c.max, nullptr);
        EXPECT_EQ(t->size, c.size_before);
        for (int i = 0; i < c.inserts; ++i) ASSERT_EQ(httest::set(t, key(i), V(i + 1), 0), 0);
        EXPECT_EQ(t->size, c.size_after) << c.inserts << " inserts, max " << c.max;
        EXPECT_EQ(util_ht_count(t), static_cast<uint32_t>(c.inserts));
        for (int i = 0; i < c.inserts; ++i) ASSERT_EQ(httest::get(t, key(i)), V(i + 1));
        util_ht_destroy(t);
    }
}

TEST(HtRules, KeysInlineAndSeparateEmptiedItemsAndBadInput) {
    util_ht_t *t = util_ht_create(0, 0, record);
    std::string k32(32, 'x'), k33(33, 'x'), k1("x");
    char v32[] = "v-32";
    ASSERT_EQ(httest::set(t, k32, v32, 4), 0);
    ASSERT_EQ(httest::set(t, k33, V(33), 4), 0);
    ASSERT_EQ(httest::set(t, k1, V(1), 4), 0);
    uint32_t vl = 0;
    EXPECT_EQ(httest::get(t, k32, &vl), v32);
    EXPECT_EQ(vl, 4u);
    EXPECT_EQ(httest::get(t, k33), V(33));
    EXPECT_EQ(httest::get(t, std::string(31, 'x')), nullptr);

    // The emptied item is found first and counts.
    g_freed.clear();
    EXPECT_EQ(util_ht_unset(t, "x", 1, nullptr, nullptr), 0);
    EXPECT_EQ(g_freed, std::vector<uintptr_t>{1});
    EXPECT_EQ(util_ht_exists(t, "x", 1), 1);
    EXPECT_EQ(httest::set(t, k1, V(2), 4), 0);
    EXPECT_EQ(httest::get(t, k1), nullptr);
    EXPECT_EQ(util_ht_count(t), 4u);
    EXPECT_EQ(httest::del(t, k1), 0);
    EXPECT_EQ(httest::get(t, k1), V(2));

    // A differing match reports the stored value and changes nothing.
    void *prev = nullptr;
    uint32_t plen = 0;
    EXPECT_EQ(util_ht_set_if_equals(t, k32.data(), 32, V(7), 4, "nope", 4, &prev, &plen), 1);
    EXPECT_EQ(prev, v32);
    EXPECT_EQ(plen, 4u);
    EXPECT_EQ(util_ht_set_if_equals(t, "absent", 6, V(7), 4, "nope", 4, &prev, &plen), -1);
    // No match given: set-if-not-exists.
    EXPECT_EQ(util_ht_set_if_equals(t, k32.data(), 32, V(7), 4, nullptr, 0, nullptr, nullptr), 1);
    EXPECT_EQ(util_ht_set_if_equals(t, "new", 3, V(7), 4, nullptr, 0, nullptr, nullptr), 0);

    // Bad input refused, nothing changed.
    uint32_t before = util_ht_count(t);
    EXPECT_EQ(util_ht_set(t, "k", 0, V(1), 1), -1);
    EXPECT_EQ(util_ht_set(t, nullptr, 3, V(1), 1), -1);
    EXPECT_EQ(util_ht_set(nullptr, "k", 1, V(1), 1), -1);
    EXPECT_EQ(util_ht_get(t, "k", 0, nullptr), nullptr);
    EXPECT_EQ(util_ht_exists(nullptr, "k", 1), 0);
    EXPECT_EQ(util_ht_delete(t, "", 0, nullptr, nullptr), -1);
    EXPECT_EQ(util_ht_call(t, "x", 1, nullptr, nullptr), -1);
    EXPECT_EQ(util_ht_get_all_keys(nullptr), nullptr);
    EXPECT_EQ(util_ht_count(t), before);
    util_ht_destroy(nullptr);
    util_ht_destroy(t);
}

void *dup_plus_one(void *v, uint32_t len, void *user) {
    ++*static_cast<int *>(user);
    auto *c = static_cast<char *>(malloc(len + 1));
    memcpy(c, v, len);
    c[len] = '!';
    return c;
}

int bump(util_ht_t *, const void *k, uint32_t kl, void **value, uint32_t *vlen, void *user) {
    EXPECT_EQ(std::string(static_cast<const char *>(k), kl), "n");
    *value = V(U(*value) + 1);
    *vlen += 1;
    return *static_cast<int *>(user);
}

TEST(HtRules, CopiesAndCall) {
    g_freed.clear();
    util_ht_t *t = util_ht_create(0, 0, record);
    ASSERT_EQ(util_ht_set_copy(t, "c", 1, "abc", 3, nullptr, nullptr), 0);
    uint32_t vl = 0;
    auto *copy = static_cast<char *>(util_ht_get_copy(t, "c", 1, &vl));
    ASSERT_EQ(vl, 3u);
    EXPECT_EQ(std::string(copy, 3), "abc");
    free(copy);
    int calls = 0;
    auto *deep = static_cast<char *>(util_ht_get_deep_copy(t, "c", 1, &vl, dup_plus_one, &calls));
    EXPECT_EQ(std::string(deep, 4), "abc!");
    EXPECT_EQ(calls, 1);
    free(deep);
    void *prev = nullptr;
    ASSERT_EQ(util_ht_set_copy(t, "c", 1, nullptr, 0, &prev, &vl), 0);  // zero bytes: stored value none
    free(prev);
    EXPECT_EQ(util_ht_get(t, "c", 1, nullptr), nullptr);

    ASSERT_EQ(util_ht_set(t, "n", 1, V(10), 1), 0);
    int result = 5;
    EXPECT_EQ(util_ht_call(t, "n", 1, bump, &result), 5);
    EXPECT_EQ(util_ht_get(t, "n", 1, &vl), V(11));
    EXPECT_EQ(vl, 2u);
    result = 1;  // removes without the free-item callback
    EXPECT_EQ(util_ht_call(t, "n", 1, bump, &result), 0);
    EXPECT_EQ(util_ht_exists(t, "n", 1), 0);
    EXPECT_EQ(util_ht_call(t, "n", 1, bump, &result), -1);
    EXPECT_TRUE(g_freed.empty());
    util_ht_destroy(t);
}

// Three keys that share one bucket of a 128-slot table, found with the
// documented hash and the table's seed.
std::vector<std::string> same_bucket(util_ht_t *t, int n) {
    std::map<uint32_t, std::vector<std::string>> by_slot;
    for (int i = 0;; ++i) {
        auto &v = by_slot[httest::oaat(t->seed, key(i)) % t->size];
        v.push_back(key(i));
        if (static_cast<int>(v.size()) == n) return v;
    }
}

struct WalkPlan {
    std::map<std::string, int> results;  // by key; others continue
    std::vector<std::string> seen;
};

int plan_cb(util_ht_t *, const void *k, uint32_t kl, void *, uint32_t, void *user) {
    auto *p = static_cast<WalkPlan *>(user);
    std::string key(static_cast<const char *>(k), kl);
    p->seen.push_back(key);
    auto it = p->results.find(key);
    return it == p->results.end() ? 1 : it->second;
}

TEST(HtRules, WalkResultsAndTheBucketSkip) {
    util_ht_t *t = util_ht_create(0, 0, record);
    auto trio = same_bucket(t, 3);
    for (auto &k : trio) httest::set(t, k, V(1), 1);
    httest::set(t, "other-a", V(2), 1);
    httest::set(t, "other-b", V(3), 1);

    // The bucket's items are visited together, in insertion order.
    WalkPlan all;
    ASSERT_EQ(util_ht_foreach_pair(t, plan_cb, &all), 0);
    ASSERT_EQ(all.seen.size(), 5u);
    auto at = std::find(all.seen.begin(), all.seen.end(), trio[0]);
    ASSERT_LE(at + 3, all.seen.end());
    EXPECT_EQ(std::vector<std::string>(at, at + 3), trio);

    // -1 on the first of the three removes it and skips the other two.
    g_freed.clear();
    WalkPlan skip;
    skip.results[trio[0]] = -1;
    util_ht_foreach_pair(t, plan_cb, &skip);
    EXPECT_EQ(skip.seen.size(), 3u);
    EXPECT_EQ(std::count(skip.seen.begin(), skip.seen.end(), trio[1]), 0);
    EXPECT_EQ(g_freed, std::vector<uintptr_t>{1});
    EXPECT_EQ(util_ht_count(t), 4u);

    // 0 stops at once; -2 removes and stops.
    for (int r : {0, -2}) {
        WalkPlan stop;
        for (const std::string &k : {trio[1], std::string("other-a"), std::string("other-b")}) stop.results[k] = r;
        util_ht_foreach_pair(t, plan_cb, &stop);
        EXPECT_EQ(stop.seen.size(), 1u);
        EXPECT_EQ(util_ht_count(t), r == 0 ? 4u : 3u);
    }

    // Snapshots: keys copied, values borrowed.
    list_t *keys = util_ht_get_all_keys(t);
    list_t *vals = util_ht_get_all_values(t);
    ASSERT_EQ(list_count(keys), 3u);
    ASSERT_EQ(list_count(vals), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        auto *ks = static_cast<util_ht_key_t *>(list_pick_value(keys, i));
        auto *vs = static_cast<util_ht_value_t *>(list_pick_value(vals, i));
        std::string k(static_cast<char *>(ks->key), ks->klen);
        EXPECT_EQ(std::string(static_cast<const char *>(vs->key), vs->klen), k);
        EXPECT_EQ(vs->value, httest::get(t, k));
        EXPECT_EQ(ks->vlen, 1u);
    }
    list_destroy(keys);
    list_destroy(vals);

    int n = 0;
    util_ht_foreach_key(t, [](util_ht_t *, const void *, uint32_t, void *u) { return ++*static_cast<int *>(u), 1; }, &n);
    util_ht_foreach_value(t, [](util_ht_t *, void *, uint32_t, void *u) { return ++*static_cast<int *>(u), 1; }, &n);
    EXPECT_EQ(n, 6);
    g_freed.clear();
    util_ht_clear(t);
    EXPECT_EQ(g_freed.size(), 3u);
    EXPECT_EQ(util_ht_count(t), 0u);
    EXPECT_EQ(t->size, 128u);
    ASSERT_EQ(httest::set(t, "after", V(9), 1), 0);  // usable after clearing
    EXPECT_EQ(httest::get(t, "after"), V(9));
    util_ht_destroy(t);
}

TEST(HtRules, EmbeddedTable) {
    util_ht_t t;
    ASSERT_EQ(util_ht_init(&t, 0, 0, nullptr), 0);
    for (int i = 0; i < 500; ++i) httest::set(&t, key(i), V(i + 1), 0);
    EXPECT_EQ(t.size, 512u);
    util_ht_deinit(&t);
}

}  // namespace

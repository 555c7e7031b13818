// AVL tree: the worked shapes (rotation, the 75 between-node insertion and its
// consequences), removal's choice of neighbour, the exact walk results, and
// random operation runs checked against the tree's own rules (side heights,
// balance, parent links) after every step rather than against key order,
// which the insertion shortcut does not keep.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "containers/maps_internal.h"
#include "maps/maps_test_util.h"

using namespace maps_test;

namespace {

int32_t int_cmp(const void *a, uint32_t, const void *b, uint32_t) {
    int32_t x, y;
    memcpy(&x, a, 4);
    memcpy(&y, b, 4);
    return x < y ? -1 : x > y ? 1 : 0;
}

int32_t key_of(const kerm_avl_node *n) {
    int32_t k;
    memcpy(&k, n->key, 4);
    return k;
}

// "k(left,right)" with "-" for a missing child; leaves print bare.
std::string shape(const kerm_avl_node *n) {
    if (!n) return "-";
    if (!n->left && !n->right) return std::to_string(key_of(n));
    return std::to_string(key_of(n)) + "(" + shape(n->left) + "," + shape(n->right) + ")";
}

util_avlt *build(std::initializer_list<int32_t> keys, util_avlt_free_fn free_value = nullptr) {
    util_avlt *t = util_avlt_create(int_cmp, free_value);
    for (int32_t k : keys) EXPECT_EQ(util_avlt_add(t, &k, 4, val(uintptr_t(k))), 0) << k;
    return t;
}

void expect_sound(const util_avlt *t) {
    const char *why = kerm::avlt_check(t);
    ASSERT_EQ(why, nullptr) << why;
}

struct Visit {
    std::vector<int32_t> keys;
    std::map<int32_t, int32_t> results;  // per key; 1 for the others
};

int32_t visit(util_avlt *, const void *key, uint32_t, void *, void *arg) {
    auto *v = static_cast<Visit *>(arg);
    int32_t k;
    memcpy(&k, key, 4);
    v->keys.push_back(k);
    auto it = v->results.find(k);
    return it == v->results.end() ? 1 : it->second;
}

using Entries = std::vector<std::pair<int32_t, uintptr_t>>;

int32_t collect(util_avlt *, const void *key, uint32_t, void *value, void *arg) {
    int32_t k;
    memcpy(&k, key, 4);
    static_cast<Entries *>(arg)->emplace_back(k, reinterpret_cast<uintptr_t>(value));
    return 1;
}

Entries in_order(util_avlt *t) {
    Entries e;
    util_avlt_walk_sorted(t, collect, &e);
    return e;
}

TEST(Avlt, ThirdAscendingKeyRotatesOnce) {
    util_avlt *t = build({10, 20, 30});
    EXPECT_EQ(shape(t->root), "20(10,30)");
    EXPECT_EQ(t->root->left_height, 1);
    EXPECT_EQ(t->root->right_height, 1);
    expect_sound(t);
    util_avlt_destroy(t);
}

TEST(Avlt, ExistingKeyOnThePathIsRefused) {
    util_avlt *t = build({10, 20, 30});
    int32_t k = 30;
    EXPECT_EQ(util_avlt_add(t, &k, 4, val(99)), -1);
    EXPECT_EQ(in_order(t), (Entries{{10, 10}, {20, 20}, {30, 30}}));
    util_avlt_destroy(t);
}

TEST(Avlt, RemovalTakesTheNeighbourOfTheHigherSide) {
    // Ascending keys never take the shortcut: 4 (2 (1, 3), 6 (5, 7)), then 0
    // makes 2's left side the higher one.
    util_avlt *t = build({1, 2, 3, 4, 5, 6, 7, 0});
    ASSERT_EQ(shape(t->root), "4(2(1(0,-),3),6(5,7))");
    int32_t k = 2;
    void *out = nullptr;
    EXPECT_EQ(util_avlt_remove(t, &k, 4, &out), 0);
    EXPECT_EQ(out, val(2));
    EXPECT_EQ(shape(t->root), "4(1(0,3),6(5,7))");  // predecessor
    k = 6;  // equal sides: successor
    EXPECT_EQ(util_avlt_remove(t, &k, 4, nullptr), 0);
    EXPECT_EQ(shape(t->root), "4(1(0,3),7(5,-))");
    k = 42;
    EXPECT_EQ(util_avlt_remove(t, &k, 4, nullptr), 0);  // absent: still 0
    expect_sound(t);
    util_avlt_destroy(t);
}

TEST(Avlt, BetweenNodeInsertionOf75) {
    // 100 (50 (25, 70 (60, 80)), 150 (125, 175)) cannot come from insertions
    // alone: any key between 50 and 100 would go between them. The extra key
    // 40 holds 50's place while 60, 70 and 80 descend; removing it lets its
    // successor 50 take the place.
    util_avlt *t = build({25, 40, 60, 70, 80, 50, 100, 125, 150, 175});
    int32_t k = 40;
    util_avlt_remove(t, &k, 4, nullptr);
    ASSERT_EQ(shape(t->root), "100(50(25,70(60,80)),150(125,175))");
    // 75 falls between 100 and 50 and goes there; 70 does not compare above
    // it, so 70 (with 80) stays under 50. Rebalancing then lifts 70.
    k = 75;
    EXPECT_EQ(util_avlt_add(t, &k, 4, val(75)), 0);
    expect_sound(t);
    EXPECT_EQ(shape(t->root), "100(70(50(25,60),75(80,-)),150(125,175))");
    Visit v;
    EXPECT_EQ(util_avlt_walk_sorted(t, visit, &v), 10);
    EXPECT_EQ(v.keys, (std::vector<int32_t>{25, 50, 60, 70, 80, 75, 100, 125, 150, 175}));
    // 80 is met only below 75's inner side: a second 80 goes in between 100
    // and 70, and removal by key finds just one of them.
    k = 80;
    EXPECT_EQ(util_avlt_add(t, &k, 4, val(800)), 0);
    expect_sound(t);
    Entries e = in_order(t);
    EXPECT_EQ(std::count_if(e.begin(), e.end(), [](auto &p) { return p.first == 80; }), 2);
    void *out = nullptr;
    util_avlt_remove(t, &k, 4, &out);
    e = in_order(t);
    EXPECT_EQ(std::count_if(e.begin(), e.end(), [](auto &p) { return p.first == 80; }), 1);
    EXPECT_TRUE(out == val(80) || out == val(800));
    util_avlt_destroy(t);
}

TEST(Avlt, WalkResults) {
    util_avlt *t = util_avlt_create(int_cmp, nullptr);
    Visit none;
    EXPECT_EQ(util_avlt_walk(t, visit, &none), 0);
    EXPECT_EQ(util_avlt_walk_sorted(t, visit, &none), 0);
    EXPECT_TRUE(none.keys.empty());
    util_avlt_destroy(t);

    auto run = [](bool sorted, std::map<int32_t, int32_t> results, int32_t want, std::vector<int32_t> keys) {
        util_avlt *tree = build({1, 2, 3, 4, 5, 6, 7});  // 4 (2 (1, 3), 6 (5, 7))
        Visit v{{}, results};
        EXPECT_EQ((sorted ? util_avlt_walk_sorted : util_avlt_walk)(tree, visit, &v), want);
        EXPECT_EQ(v.keys, keys);
        expect_sound(tree);
        util_avlt_destroy(tree);
    };
    run(false, {}, 7, {4, 2, 6, 1, 3, 5, 7});
    run(true, {}, 7, {1, 2, 3, 4, 5, 6, 7});
    run(false, {{6, 0}}, 2, {4, 2, 6});
    run(false, {{2, -2}}, 1, {4, 2});
    // In order, a stop ends only its own subtree: reported as 2 from a left
    // subtree (skipping the parent), as +1 from a right one.
    run(true, {{1, 0}}, 6, {1, 4, 5, 6, 7});
    run(true, {{3, 0}}, 7, {1, 2, 3, 4, 5, 6, 7});
    run(true, {{6, 0}}, 5, {1, 2, 3, 4, 5, 6});
    run(true, {{4, 0}}, -1, {1, 2, 3, 4});
    run(true, {{2, -2}}, 2, {1, 2});
}

TEST(Avlt, WalkRemovalsKeepTheStartingOrder) {
    released().clear();
    for (bool sorted : {false, true}) {
        util_avlt *t = build({1, 2, 3, 4, 5, 6, 7}, record_release);
        // The root and an inner node go (two children each), then a leaf; the
        // walk still visits each entry once in the order the tree had.
        Visit v{{}, {{4, -1}, {2, -1}, {7, -1}}};
        EXPECT_EQ((sorted ? util_avlt_walk_sorted : util_avlt_walk)(t, visit, &v), 7);
        std::vector<int32_t> want = {1, 2, 3, 4, 5, 6, 7};
        if (!sorted) want = {4, 2, 6, 1, 3, 5, 7};
        EXPECT_EQ(v.keys, want);
        expect_sound(t);
        EXPECT_EQ(in_order(t), (Entries{{1, 1}, {3, 3}, {5, 5}, {6, 6}}));
        util_avlt_destroy(t);
    }
    // Values of walk removals go back to the walk, not to free_value.
    std::sort(released().begin(), released().end());
    EXPECT_EQ(released(), (std::vector<void *>{val(1), val(1), val(3), val(3), val(5), val(5), val(6), val(6)}));
}

TEST(Avlt, DestroyReleasesEachNonNullValueOnce) {
    released().clear();
    util_avlt *t = util_avlt_create(int_cmp, record_release);
    for (int32_t k = 0; k < 50; ++k) util_avlt_add(t, &k, 4, k % 10 ? val(uintptr_t(k)) : nullptr);
    util_avlt_destroy(t);
    EXPECT_EQ(released().size(), 45u);
    std::sort(released().begin(), released().end());
    EXPECT_EQ(std::adjacent_find(released().begin(), released().end()), released().end());
}

bool ascending(const Entries &e) {
    return std::adjacent_find(e.begin(), e.end(), [](auto &a, auto &b) { return a.first >= b.first; }) == e.end();
}

// Random adds and removals: the tree's own rules after every step, and its
// entries against a multiset model. Where the in-order sequence happens to be
// in key order, removal by key must find a present key.
void run_random(uint32_t seed, int32_t key_range, int n) {
    std::mt19937 rng(seed);
    released().clear();
    util_avlt *t = util_avlt_create(int_cmp, record_release);
    Entries model, current;
    size_t expect_released = 0;
    for (int step = 1; step <= n; ++step) {
        int32_t k = std::uniform_int_distribution<int32_t>(0, key_range)(rng);
        uintptr_t v = uintptr_t(step);
        const Entries before = current;
        bool present = std::any_of(model.begin(), model.end(), [&](auto &p) { return p.first == k; });
        int op = std::uniform_int_distribution<int>(0, 9)(rng);
        if (op < 6) {
            int32_t rc = util_avlt_add(t, &k, 4, val(v));
            if (rc == 0) {
                model.emplace_back(k, v);
            } else {
                ASSERT_EQ(rc, -1);
                ASSERT_TRUE(present) << "refused " << k << " with no equal key stored";
            }
        } else {
            void *out = nullptr, *found = nullptr;
            bool with_out = op == 9;
            bool findable = util_avlt_find(t, &k, 4, &found) == 0;
            ASSERT_EQ(util_avlt_remove(t, &k, 4, with_out ? &out : nullptr), 0);
            Entries after = in_order(t);
            ASSERT_EQ(before.size() - after.size(), findable ? 1u : 0u);  // both descend alike
            if (with_out) {
                ASSERT_EQ(out, findable ? found : nullptr);
            }
            if (present && ascending(before)) {
                ASSERT_EQ(after.size() + 1, before.size()) << "missed " << k;
            }
            if (after.size() < before.size()) {
                // Which of several equal keys went shows in the difference.
                Entries b = before, a = after, gone;
                std::sort(b.begin(), b.end());
                std::sort(a.begin(), a.end());
                std::set_difference(b.begin(), b.end(), a.begin(), a.end(), std::back_inserter(gone));
                ASSERT_EQ(gone.size(), 1u);
                ASSERT_EQ(gone[0].first, k);
                if (with_out) {
                    ASSERT_EQ(val(gone[0].second), out);
                } else {
                    ++expect_released;
                    ASSERT_EQ(released().back(), val(gone[0].second));
                }
                auto it = std::find(model.begin(), model.end(), gone[0]);
                ASSERT_NE(it, model.end());
                model.erase(it);
            }
        }
        const char *why = kerm::avlt_check(t);
        ASSERT_EQ(why, nullptr) << why << " after step " << step;
        current = in_order(t);
        Entries got = current, want = model;
        std::sort(got.begin(), got.end());
        std::sort(want.begin(), want.end());
        ASSERT_EQ(got, want) << "after step " << step;
        ASSERT_EQ(released().size(), expect_released);
    }
    Visit bfs;
    EXPECT_EQ(util_avlt_walk(t, visit, &bfs), int32_t(model.size()));
    util_avlt_destroy(t);
}

TEST(Avlt, RandomRunsKeepTheTreeSound) {
    run_random(1, 40, steps(6000));      // dense keys: many equal keys and shortcuts
    run_random(2, 100000, steps(2000));  // sparse keys
}

TEST(Avlt, BadInput) {
    EXPECT_EQ(util_avlt_create(nullptr, nullptr), nullptr);
    EXPECT_EQ(util_avlt_add(nullptr, "a", 1, nullptr), -1);
    EXPECT_EQ(util_avlt_remove(nullptr, "a", 1, nullptr), 0);
    EXPECT_EQ(util_avlt_find(nullptr, "a", 1, nullptr), -1);
    EXPECT_EQ(util_avlt_walk(nullptr, visit, nullptr), 0);
    EXPECT_EQ(util_avlt_walk_sorted(nullptr, visit, nullptr), 0);
    util_avlt_destroy(nullptr);
    util_avlt *t = util_avlt_create(lex_cmp, nullptr);
    EXPECT_EQ(util_avlt_add(t, nullptr, 4, nullptr), -1);
    EXPECT_EQ(util_avlt_remove(t, "a", 1, nullptr), 0);  // empty tree
    EXPECT_EQ(util_avlt_find(t, "a", 1, nullptr), -1);
    EXPECT_EQ(util_avlt_add(t, "a", 1, val(7)), 0);
    void *v = nullptr;
    EXPECT_EQ(util_avlt_find(t, "a", 1, &v), 0);
    EXPECT_EQ(v, val(7));
    EXPECT_EQ(util_avlt_find(t, "b", 1, &v), -1);
    EXPECT_EQ(util_avlt_walk(t, nullptr, nullptr), 0);
    util_avlt_destroy(t);
}

}  // namespace

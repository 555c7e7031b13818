// Skip list: behaviour against std::map under random operations (replacement
// and value hand-over included) with the structure checked after every step,
// and level promotion at the percentage extremes.
#include <gtest/gtest.h>

#include <map>

#include "containers/maps_internal.h"
#include "maps/maps_test_util.h"

using namespace maps_test;

namespace {

int32_t level_links(const util_skiplist *l, int32_t lvl) {
    int32_t n = 0;
    for (kerm_sl_link *k = l->heads[lvl].first; k; k = k->next) ++n;
    return n;
}

struct Shape {
    int32_t levels;
    uint32_t percent;
};

class SkiplistModel : public ::testing::TestWithParam<Shape> {};

TEST_P(SkiplistModel, AgreesWithStdMap) {
    std::mt19937 rng(GetParam().levels * 131 + GetParam().percent);
    srandom(7);
    released().clear();
    util_skiplist *l = util_skiplist_create(GetParam().levels, GetParam().percent, lex_cmp, record_release);
    ASSERT_NE(l, nullptr);
    std::map<std::string, uintptr_t, LexLess> model;
    size_t expect_released = 0;
    for (int step = 1, n = steps(12000); step <= n; ++step) {
        std::string k = small_key(rng);
        uintptr_t v = uintptr_t(step);
        int op = std::uniform_int_distribution<int>(0, 9)(rng);
        if (op < 4) {
            auto it = model.find(k);
            int32_t want = it == model.end() ? 0 : 1;
            if (it != model.end()) ++expect_released;
            ASSERT_EQ(util_skiplist_insert(l, k.data(), uint32_t(k.size()), val(v)), want) << k;
            if (want) {
                ASSERT_EQ(released().back(), val(it->second));  // the replaced value, released
            }
            model[k] = v;
        } else if (op < 7) {
            auto it = model.find(k);
            void *got = util_skiplist_search(l, k.data(), uint32_t(k.size()));
            ASSERT_EQ(got, it == model.end() ? nullptr : val(it->second)) << k;
        } else {
            auto it = model.find(k);
            void *out = val(0xdead);
            bool with_out = op == 9;
            int32_t rc = util_skiplist_remove(l, k.data(), uint32_t(k.size()), with_out ? &out : nullptr);
            if (it == model.end()) {
                ASSERT_EQ(rc, -1) << k;
                ASSERT_EQ(out, val(0xdead));
            } else {
                ASSERT_EQ(rc, 0) << k;
                // Handed over unreleased, or released.
                ASSERT_EQ(with_out ? out : released().back(), val(it->second));
                expect_released += !with_out;
                model.erase(it);
            }
        }
        ASSERT_EQ(released().size(), expect_released);
        ASSERT_EQ(util_skiplist_count(l), int32_t(model.size()));
        const char *why = kerm::skiplist_check(l);
        ASSERT_EQ(why, nullptr) << why << " after step " << step;
    }
    // Level 0 lists the model's keys in order.
    auto it = model.begin();
    for (kerm_sl_link *k = l->heads[0].first; k; k = k->next, ++it)
        ASSERT_EQ(std::string(reinterpret_cast<char *>(k->owner->key), k->owner->len), it->first);
    released().clear();
    util_skiplist_destroy(l);
    EXPECT_EQ(released().size(), model.size());
}

INSTANTIATE_TEST_SUITE_P(Shapes, SkiplistModel,
                         ::testing::Values(Shape{1, 50}, Shape{4, 99}, Shape{8, 50}, Shape{16, 0}, Shape{40, 30}),
                         [](const auto &info) {
                             return "levels" + std::to_string(info.param.levels) + "_percent" +
                                    std::to_string(info.param.percent);
                         });

TEST(Skiplist, PromotionFollowsThePercentage) {
    // percent 99: random() % 100 never exceeds it, every node stays on level 0.
    util_skiplist *flat = util_skiplist_create(6, 99, lex_cmp, nullptr);
    // percent 0: each level is taken with chance 99/100, up to the top.
    util_skiplist *tall = util_skiplist_create(6, 0, lex_cmp, nullptr);
    for (uint32_t i = 0; i < 200; ++i) {
        ASSERT_EQ(util_skiplist_insert(flat, &i, sizeof i, val(i)), 0);
        ASSERT_EQ(util_skiplist_insert(tall, &i, sizeof i, val(i)), 0);
    }
    EXPECT_EQ(level_links(flat, 0), 200);
    for (int32_t lvl = 1; lvl < 6; ++lvl) EXPECT_EQ(level_links(flat, lvl), 0);
    EXPECT_GT(level_links(tall, 5), 180);  // 200 * 0.99^5 ~ 190
    EXPECT_EQ(kerm::skiplist_check(tall), nullptr);
    util_skiplist_destroy(flat);
    util_skiplist_destroy(tall);
}

int32_t first_byte_only(const void *a, uint32_t, const void *b, uint32_t) {
    return *static_cast<const uint8_t *>(a) - *static_cast<const uint8_t *>(b);
}

TEST(Skiplist, LengthsOrderOnlyThroughTheComparator) {
    util_skiplist *l = util_skiplist_create(3, 50, first_byte_only, nullptr);
    EXPECT_EQ(util_skiplist_insert(l, "abc", 3, val(1)), 0);
    EXPECT_EQ(util_skiplist_insert(l, "a", 1, val(2)), 1);  // equal to the comparator
    EXPECT_EQ(util_skiplist_search(l, "azzzz", 5), val(2));
    util_skiplist_destroy(l);
}

TEST(Skiplist, BadInput) {
    EXPECT_EQ(util_skiplist_create(0, 50, lex_cmp, nullptr), nullptr);
    EXPECT_EQ(util_skiplist_create(4, 50, nullptr, nullptr), nullptr);
    EXPECT_EQ(util_skiplist_insert(nullptr, "a", 1, val(1)), -1);
    EXPECT_EQ(util_skiplist_search(nullptr, "a", 1), nullptr);
    EXPECT_EQ(util_skiplist_remove(nullptr, "a", 1, nullptr), -1);
    EXPECT_EQ(util_skiplist_count(nullptr), 0);
    util_skiplist_destroy(nullptr);
    util_skiplist *l = util_skiplist_create(2, 50, lex_cmp, nullptr);
    EXPECT_EQ(util_skiplist_insert(l, nullptr, 3, val(1)), -1);
    EXPECT_EQ(util_skiplist_insert(l, nullptr, 0, val(1)), 0);  // the empty key
    EXPECT_EQ(util_skiplist_search(l, "", 0), val(1));
    EXPECT_EQ(util_skiplist_remove(l, "x", 1, nullptr), -1);
    util_skiplist_destroy(l);
}

}  // namespace

// Trie: the worked counter examples, subtree removal with upward pruning,
// borrowed versus copied data, and a model of nodes, data and counters under
// random operations with the structure checked after every step.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "containers/maps_internal.h"
#include "maps/maps_test_util.h"

using namespace maps_test;

namespace {

void expect_sound(const util_trie *t) {
    const char *why = kerm::trie_check(t);
    EXPECT_EQ(why, nullptr) << why;
}

TEST(Trie, WorkedCounterExamples) {
    released().clear();
    util_trie *t = util_trie_create(record_release);
    EXPECT_EQ(util_trie_insert(t, "ab", val(1), 0, 0), 2);
    EXPECT_EQ(util_trie_key_count(t), 1u);
    EXPECT_EQ(util_trie_node_count(t), 2u);
    // A prefix of an existing key creates nothing and is not counted, yet it
    // is found.
    EXPECT_EQ(util_trie_insert(t, "a", val(2), 0, 0), 0);
    EXPECT_EQ(util_trie_key_count(t), 1u);
    EXPECT_EQ(util_trie_find(t, "a", nullptr), val(2));
    // Removing "a" takes "ab" along; both held data, so the count wraps.
    EXPECT_EQ(util_trie_remove(t, "a", nullptr, nullptr), 2u);
    EXPECT_EQ(util_trie_key_count(t), 0xFFFFFFFFu);
    EXPECT_EQ(util_trie_node_count(t), 0u);
    EXPECT_EQ(util_trie_find(t, "ab", nullptr), nullptr);
    std::sort(released().begin(), released().end());
    EXPECT_EQ(released(), (std::vector<void *>{val(1), val(2)}));
    expect_sound(t);
    util_trie_destroy(t);
}

TEST(Trie, RemovalPrunesOnlyEmptyPathNodes) {
    util_trie *t = util_trie_create(nullptr);
    EXPECT_EQ(util_trie_insert(t, "ab", val(1), 0, 0), 2);
    EXPECT_EQ(util_trie_insert(t, "abc", val(2), 0, 0), 1);
    EXPECT_EQ(util_trie_remove(t, "abc", nullptr, nullptr), 1u);  // "ab" holds data: kept
    EXPECT_EQ(util_trie_find(t, "ab", nullptr), val(1));

    EXPECT_EQ(util_trie_insert(t, "xyzw", val(3), 0, 0), 4);
    EXPECT_EQ(util_trie_insert(t, "xyqr", val(4), 0, 0), 2);
    EXPECT_EQ(util_trie_remove(t, "xyqr", nullptr, nullptr), 2u);  // "xy" leads on to "xyzw"
    EXPECT_EQ(util_trie_node_count(t), 6u);
    EXPECT_EQ(util_trie_remove(t, "xyzw", nullptr, nullptr), 4u);  // up to the root
    EXPECT_EQ(util_trie_remove(t, "xyzw", nullptr, nullptr), 0u);
    EXPECT_EQ(util_trie_node_count(t), 2u);
    expect_sound(t);
    util_trie_destroy(t);
}

TEST(Trie, BorrowedAndCopiedData) {
    released().clear();
    util_trie *t = util_trie_create(record_release);
    char block[] = "payload";
    // A copy is the trie's own: it survives changes to the caller's block and
    // is freed (not passed to free_data) when replaced.
    EXPECT_EQ(util_trie_insert(t, "k", block, sizeof block, 1), 1);
    block[0] = 'P';
    uint32_t size = 0;
    auto *copy = static_cast<char *>(util_trie_find(t, "k", &size));
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, block);
    EXPECT_STREQ(copy, "payload");
    EXPECT_EQ(size, sizeof block);
    EXPECT_EQ(util_trie_insert(t, "k", val(5), 1, 0), 0);
    EXPECT_TRUE(released().empty());
    // A borrowed block is released through free_data when replaced, but not
    // when the same block is set again.
    EXPECT_EQ(util_trie_insert(t, "k", val(5), 1, 0), 0);
    EXPECT_TRUE(released().empty());
    void *old = nullptr;
    uint32_t old_size = 0;
    EXPECT_EQ(util_trie_find_and_insert(t, "k", val(6), 2, &old, &old_size, 0), 0);
    EXPECT_EQ(old, val(5));
    EXPECT_EQ(old_size, 1u);
    EXPECT_EQ(released(), std::vector<void *>{val(5)});
    // Removal with a data pointer hands borrowed data over unreleased.
    void *out = nullptr;
    EXPECT_EQ(util_trie_remove(t, "k", &out, &size), 1u);
    EXPECT_EQ(out, val(6));
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(released().size(), 1u);
    // With an owned copy the pointer only says that data was there (the copy
    // is freed; ASan would report a leak otherwise).
    EXPECT_EQ(util_trie_insert(t, "c", block, 4, 1), 1);
    out = nullptr;
    EXPECT_EQ(util_trie_remove(t, "c", &out, nullptr), 1u);
    EXPECT_NE(out, nullptr);
    EXPECT_EQ(util_trie_insert(t, "z", block, 0, 1), 1);  // an empty copy is still a block
    EXPECT_NE(util_trie_find(t, "z", &size), nullptr);
    EXPECT_EQ(size, 0u);
    util_trie_destroy(t);
    EXPECT_EQ(released().size(), 1u);
}

TEST(Trie, FindOrInsertLeavesExistingNodesAlone) {
    util_trie *t = util_trie_create(nullptr);
    EXPECT_EQ(util_trie_insert(t, "abc", val(1), 3, 0), 3);
    void *old = val(0xbad);
    uint32_t old_size = 7;
    // "ab" is a path node without data: found, nothing inserted.
    EXPECT_EQ(util_trie_find_or_insert(t, "ab", val(2), 1, &old, &old_size, 0), 0);
    EXPECT_EQ(old, nullptr);
    EXPECT_EQ(old_size, 0u);
    EXPECT_EQ(util_trie_find(t, "ab", nullptr), nullptr);
    EXPECT_EQ(util_trie_find_or_insert(t, "abc", val(2), 1, &old, &old_size, 0), 0);
    EXPECT_EQ(old, val(1));
    EXPECT_EQ(old_size, 3u);
    EXPECT_EQ(util_trie_find(t, "abc", nullptr), val(1));
    // Missing keys are inserted, with the insert's result.
    EXPECT_EQ(util_trie_find_or_insert(t, "abd", val(3), 1, nullptr, nullptr, 0), 1);
    EXPECT_EQ(util_trie_find_and_insert(t, "abde", val(4), 1, nullptr, nullptr, 0), 1);
    EXPECT_EQ(util_trie_find(t, "abde", nullptr), val(4));
    EXPECT_EQ(util_trie_key_count(t), 3u);
    util_trie_destroy(t);
}

TEST(Trie, EmptyKeyAndBadInput) {
    util_trie *t = util_trie_create(nullptr);
    // The empty key names the root: settable and findable, never removed.
    EXPECT_EQ(util_trie_insert(t, "", val(9), 1, 0), 0);
    EXPECT_EQ(util_trie_find(t, "", nullptr), val(9));
    EXPECT_EQ(util_trie_insert(t, "a", val(1), 1, 0), 1);
    void *out = nullptr;
    uint32_t size = 5;
    EXPECT_EQ(util_trie_remove(t, "", &out, &size), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(util_trie_find(t, "", nullptr), val(9));
    EXPECT_EQ(util_trie_find(t, "a", nullptr), val(1));
    EXPECT_EQ(util_trie_find(t, "ab", &size), nullptr);
    EXPECT_EQ(size, 5u);  // missing node: size untouched

    EXPECT_EQ(util_trie_insert(t, "b", nullptr, 4, 1), -1);  // nothing to copy
    EXPECT_EQ(util_trie_find(t, "b", nullptr), nullptr);
    EXPECT_EQ(util_trie_node_count(t), 1u);
    EXPECT_EQ(util_trie_insert(nullptr, "a", nullptr, 0, 0), -1);
    EXPECT_EQ(util_trie_insert(t, nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(util_trie_find(nullptr, "a", nullptr), nullptr);
    EXPECT_EQ(util_trie_find(t, nullptr, nullptr), nullptr);
    EXPECT_EQ(util_trie_remove(nullptr, "a", nullptr, nullptr), 0u);
    EXPECT_EQ(util_trie_remove(t, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(util_trie_find_or_insert(nullptr, "a", nullptr, 0, nullptr, nullptr, 0), -1);
    EXPECT_EQ(util_trie_find_and_insert(t, nullptr, nullptr, 0, nullptr, nullptr, 0), -1);
    EXPECT_EQ(util_trie_key_count(nullptr), 0u);
    EXPECT_EQ(util_trie_node_count(nullptr), 0u);
    util_trie_destroy(nullptr);
    expect_sound(t);
    util_trie_destroy(t);
}

TEST(Trie, LongKeysTearDownWithoutDeepRecursion) {
    const int len = steps(8000);
    std::string key(size_t(len), 'x');
    util_trie *t = util_trie_create(nullptr);
    EXPECT_EQ(util_trie_insert(t, key.c_str(), val(1), 0, 0), len);
    key[100] = 'y';
    EXPECT_EQ(util_trie_insert(t, key.c_str(), val(2), 0, 0), len - 100);
    // Everything below the 50th byte goes, and the empty path above it too.
    EXPECT_EQ(util_trie_remove(t, key.substr(0, 50).c_str(), nullptr, nullptr), uint32_t(2 * len - 100));
    EXPECT_EQ(util_trie_node_count(t), 0u);
    EXPECT_EQ(util_trie_insert(t, key.c_str(), val(1), 0, 0), len);
    util_trie_destroy(t);
}

// Reference model: the set of node paths, the data held, the counters.
struct Model {
    std::set<std::string> nodes;               // non-empty paths that have a node
    std::map<std::string, uintptr_t> data;     // paths holding data (borrowed values)
    uint32_t key_count = 0;
    std::vector<void *> released;

    bool exists(const std::string &k) const { return k.empty() || nodes.count(k); }
    int32_t insert(const std::string &k, uintptr_t v) {
        int32_t created = 0;
        for (size_t n = 1; n <= k.size(); ++n) created += nodes.insert(k.substr(0, n)).second;
        if (created) ++key_count;
        set(k, v);
        return created;
    }
    void set(const std::string &k, uintptr_t v) {
        auto it = data.find(k);
        if (it != data.end() && it->second != v) released.push_back(val(it->second));
        data[k] = v;
    }
    uint32_t remove(const std::string &k, bool hand_over) {
        uint32_t gone = 0;
        for (auto it = nodes.lower_bound(k); it != nodes.end() && it->compare(0, k.size(), k) == 0;) {
            auto d = data.find(*it);
            if (d != data.end()) {
                --key_count;
                if (!hand_over) released.push_back(val(d->second));
                data.erase(d);
            }
            it = nodes.erase(it);
            ++gone;
        }
        for (std::string up = k.substr(0, k.size() - 1); !up.empty(); up.pop_back()) {
            auto next = nodes.lower_bound(up + '\0');
            bool has_child = next != nodes.end() && next->compare(0, up.size(), up) == 0;
            if (data.count(up) || has_child) break;
            nodes.erase(up);
            ++gone;
        }
        return gone;
    }
};

TEST(Trie, AgreesWithModel) {
    std::mt19937 rng(11);
    released().clear();
    util_trie *t = util_trie_create(record_release);
    Model m;
    for (int step = 1, n = steps(6000); step <= n; ++step) {
        std::string k = small_key(rng, 0, 5, 'c');
        uintptr_t v = uintptr_t(step);
        int op = std::uniform_int_distribution<int>(0, 9)(rng);
        if (op < 4) {
            ASSERT_EQ(util_trie_insert(t, k.c_str(), val(v), uint32_t(k.size()), 0), m.insert(k, v)) << k;
        } else if (op < 6) {
            // An existing node: find_or_insert leaves its data, find_and_insert replaces it.
            const bool had = m.exists(k), replace = op == 5;
            void *old = val(0xbad), *want_old = had && m.data.count(k) ? val(m.data[k]) : nullptr;
            int32_t want = 0;
            if (!had)
                want = m.insert(k, v);
            else if (replace)
                m.set(k, v);
            const auto call = replace ? util_trie_find_and_insert : util_trie_find_or_insert;
            ASSERT_EQ(call(t, k.c_str(), val(v), uint32_t(k.size()), &old, nullptr, 0), want) << k;
            if (had) {
                ASSERT_EQ(old, want_old);
            }
        } else if (op < 8) {
            uint32_t size = 0;
            void *got = util_trie_find(t, k.c_str(), &size);
            ASSERT_EQ(got, m.data.count(k) ? val(m.data[k]) : nullptr) << k;
            if (got) {
                ASSERT_EQ(size, k.size());
            }
        } else if (!k.empty()) {
            bool hand_over = op == 9;
            void *out = val(0xbad);
            void *want_out = m.data.count(k) ? val(m.data[k]) : nullptr;
            bool had = m.exists(k);
            uint32_t want = had ? m.remove(k, hand_over) : 0;
            ASSERT_EQ(util_trie_remove(t, k.c_str(), hand_over ? &out : nullptr, nullptr), want) << k;
            if (hand_over && had) {
                ASSERT_EQ(out, want_out);
            }
        }
        ASSERT_EQ(util_trie_node_count(t), uint32_t(m.nodes.size()));
        ASSERT_EQ(util_trie_key_count(t), m.key_count);
        std::vector<void *> got = released(), want = m.released;
        std::sort(got.begin(), got.end());
        std::sort(want.begin(), want.end());
        ASSERT_EQ(got, want) << "after step " << step;
        const char *why = kerm::trie_check(t);
        ASSERT_EQ(why, nullptr) << why << " after step " << step;
    }
    util_trie_destroy(t);
    EXPECT_EQ(released().size(), m.released.size() + m.data.size());
}

}  // namespace

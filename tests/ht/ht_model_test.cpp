// Random sequences of every set/get/delete variant against a reference that
// keeps, per key, the items in insertion order (emptied items included).
// Values are heap tokens: the leak sanitizer proves each one is released
// exactly once, by the free-item callback or by the caller that took it.
#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "ht/ht_test_util.h"

namespace {

std::vector<uint64_t> g_released;  // ids the free-item callback received

void *token(uint64_t id) {
    auto *p = static_cast<uint64_t *>(malloc(sizeof id));
    *p = id;
    return p;
}
uint64_t id_of(const void *v) { return v == nullptr ? 0 : *static_cast<const uint64_t *>(v); }
void release(void *v) {
    g_released.push_back(id_of(v));
    free(v);
}
// A value taken over by the test (prev): checked and freed.
uint64_t take(void *v) {
    uint64_t id = id_of(v);
    free(v);
    return id;
}

struct Model {
    std::map<std::string, std::vector<uint64_t>> items;  // per key, 0 = emptied item
    size_t count() const {
        size_t n = 0;
        for (auto &kv : items) n += kv.second.size();
        return n;
    }
    uint64_t *first(const std::string &k) {
        auto it = items.find(k);
        return it == items.end() || it->second.empty() ? nullptr : &it->second.front();
    }
    void erase_first(const std::string &k) {
        auto &v = items[k];
        v.erase(v.begin());
        if (v.empty()) items.erase(k);
    }
};

std::vector<std::string> key_pool(std::mt19937 &rng) {
    std::vector<std::string> keys;
    for (int i = 0; i < 60; ++i) {
        size_t len = 1 + rng() % 40;  // inline and separate keys
        std::string k(len, 'k');
        for (auto &c : k) c = static_cast<char>('a' + rng() % 3);  // shared first bytes
        keys.push_back(k);
    }
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    return keys;
}

TEST(HtModel, RandomVariantSequences) {
    std::mt19937 rng(4242);
    uint64_t next_id = 1;
    for (int round = 0; round < httest::scaled(12); ++round) {
        util_ht_t *t = util_ht_create(0, round % 3 == 0 ? 128 : 0, release);
        auto keys = key_pool(rng);
        Model m;
        for (int step = 0; step < 1500; ++step) {
            const std::string &k = keys[rng() % keys.size()];
            const auto kl = static_cast<uint32_t>(k.size());
            uint64_t *cur = m.first(k);
            bool live = cur != nullptr && *cur != 0;  // present with a value
            std::vector<uint64_t> expect_released;
            int op = static_cast<int>(rng() % 11);
            SCOPED_TRACE(testing::Message() << "round " << round << " step " << step << " op " << op << " key " << k);
            g_released.clear();
            void *prev = reinterpret_cast<void *>(1);
            uint32_t plen = 99;
            switch (op) {
            case 0: {
                uint64_t id = next_id++;
                ASSERT_EQ(httest::set(t, k, token(id), 8), 0);
                if (live) {
                    expect_released.push_back(*cur);
                    *cur = id;
                } else {
                    m.items[k].push_back(id);
                }
                break;
            }
            case 1:
            case 2: {  // set-if-not-exists; get-or-set also shows the value kept (still the table's)
                uint64_t id = next_id++;
                void *v = token(id);
                int rc = op == 1 ? util_ht_set_if_not_exists(t, k.data(), kl, v, 8)
                                 : util_ht_get_or_set(t, k.data(), kl, v, 8, &prev, &plen);
                ASSERT_EQ(rc, live ? 1 : 0);
                if (op == 2) {
                    ASSERT_EQ(plen, live ? 8u : 0u);
                    ASSERT_EQ(live ? id_of(prev) : httest::U(prev), live ? *cur : 0);
                }
                if (live) free(v);
                else m.items[k].push_back(id);
                break;
            }
            case 3:
            case 4: {  // get-and-set, with and without prev
                uint64_t id = next_id++;
                bool want_prev = op == 3;
                ASSERT_EQ(util_ht_get_and_set(t, k.data(), kl, token(id), 8, want_prev ? &prev : nullptr, &plen), 0);
                if (live) {
                    ASSERT_EQ(plen, 8u);
                    if (want_prev) {
                        ASSERT_EQ(take(prev), *cur);
                    } else {
                        expect_released.push_back(*cur);
                    }
                    *cur = id;
                } else {
                    ASSERT_EQ(plen, 0u);
                    if (want_prev) {
                        ASSERT_EQ(prev, nullptr);
                    }
                    m.items[k].push_back(id);
                }
                break;
            }
            case 5: {  // copy: the stored value is a new block with the same bytes
                uint64_t id = next_id++;
                ASSERT_EQ(util_ht_set_copy(t, k.data(), kl, &id, 8, &prev, &plen), 0);
                if (live) {
                    ASSERT_EQ(take(prev), *cur);
                    *cur = id;
                } else {
                    ASSERT_EQ(prev, nullptr);
                    m.items[k].push_back(id);
                }
                ASSERT_NE(httest::get(t, k), &id);
                break;
            }
            case 6: {  // compare-and-swap against the right or a wrong value
                uint64_t id = next_id++, match = rng() % 2 && cur ? *cur : id + 1000000;
                uint32_t mlen = rng() % 5 == 0 ? 4 : 8;
                void *v = token(id);
                int rc = util_ht_set_if_equals(t, k.data(), kl, v, 8, &match, mlen, nullptr, &plen);
                if (cur == nullptr) {
                    ASSERT_EQ(rc, -1);
                    free(v);
                    break;
                }
                ASSERT_EQ(plen, *cur ? 8u : 0u);
                bool equal = *cur != 0 && mlen == 8 && match == *cur;
                ASSERT_EQ(rc, equal ? 0 : 1);
                if (equal) {
                    expect_released.push_back(*cur);
                    *cur = id;
                } else {
                    free(v);
                }
                break;
            }
            case 7: {  // delete, value to the caller or to the callback
                bool want_prev = rng() % 2;
                int rc = httest::del(t, k, want_prev ? &prev : nullptr, &plen);
                ASSERT_EQ(rc, cur ? 0 : -1);
                if (!cur) break;
                ASSERT_EQ(plen, *cur ? 8u : 0u);
                if (want_prev) {
                    ASSERT_EQ(take(prev), *cur);
                } else if (*cur) {
                    expect_released.push_back(*cur);
                }
                m.erase_first(k);
                break;
            }
            case 8: {  // unset leaves an emptied item
                ASSERT_EQ(util_ht_unset(t, k.data(), kl, nullptr, &plen), cur ? 0 : -1);
                if (!cur) break;
                if (*cur) expect_released.push_back(*cur);
                *cur = 0;
                break;
            }
            case 9: {
                uint64_t match = rng() % 2 && cur ? *cur : 0;
                int rc = util_ht_delete_if_equals(t, k.data(), kl, &match, 8);
                bool equal = cur && *cur && match == *cur;
                ASSERT_EQ(rc, equal ? 0 : -1);
                if (equal) {
                    expect_released.push_back(*cur);
                    m.erase_first(k);
                }
                break;
            }
            default:
                ASSERT_EQ(util_ht_exists(t, k.data(), kl), cur ? 1 : 0);
                break;
            }
            ASSERT_EQ(g_released, expect_released);
            ASSERT_EQ(util_ht_count(t), m.count());
            uint64_t *now = m.first(k);
            uint32_t vl = 77;
            void *got = httest::get(t, k, &vl);
            ASSERT_EQ(id_of(got), now ? *now : 0);
            if (now) {
                ASSERT_EQ(vl, *now ? 8u : 0u);
            }
        }
        // The keys snapshot holds every item, emptied ones too.
        list_t *snap = util_ht_get_all_keys(t);
        std::vector<std::string> seen, want;
        for (uint32_t i = 0; i < list_count(snap); ++i) {
            auto *ks = static_cast<util_ht_key_t *>(list_pick_value(snap, i));
            seen.emplace_back(static_cast<char *>(ks->key), ks->klen);
        }
        list_destroy(snap);
        for (auto &kv : m.items) want.insert(want.end(), kv.second.size(), kv.first);
        std::sort(seen.begin(), seen.end());
        EXPECT_EQ(seen, want);
        if (round % 3 == 0) {
            EXPECT_EQ(t->size, 128u);  // capped tables never grow
        }
        g_released.clear();
        util_ht_destroy(t);  // every remaining value goes to the callback
        size_t live_values = 0;
        for (auto &kv : m.items) live_values += std::count_if(kv.second.begin(), kv.second.end(), [](uint64_t v) { return v != 0; });
        EXPECT_EQ(g_released.size(), live_values);
    }
}

}  // namespace

// Positional operations against a std::vector reference, with the cursor
// checked after every step; sort and binary search on random data; walks.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "containers/list_internal.h"
#include "list/list_test_util.h"

using listtest::contents;
using listtest::U;
using listtest::V;

namespace {

// Links, count and cursor agree with each other and with the reference.
void check_structure(list_t *l, const std::vector<uintptr_t> &model) {
    ASSERT_EQ(l->count, model.size());
    list_entry_t *e = l->head;
    list_entry_t *prev = nullptr;
    for (size_t i = 0; i < model.size(); ++i) {
        ASSERT_NE(e, nullptr);
        ASSERT_EQ(e->prev, prev);
        ASSERT_EQ(e->owner, l);
        ASSERT_EQ(U(e->value), model[i]) << "position " << i;
        if (e == l->cursor) {
            ASSERT_EQ(l->cursor_pos, i) << "cursor names the wrong position";
        }
        prev = e;
        e = e->next;
    }
    ASSERT_EQ(e, nullptr);
    ASSERT_EQ(l->tail, prev);
    if (l->cursor != nullptr) {
        ASSERT_LT(l->cursor_pos, model.size());
    }
}

struct Walk {
    std::vector<int> results;  // callback results by call number
    std::vector<uintptr_t> seen;
};

int walk_cb(void *value, uint32_t index, void *user) {
    auto *w = static_cast<Walk *>(user);
    EXPECT_EQ(index, w->seen.size());
    w->seen.push_back(U(value));
    return index < w->results.size() ? w->results[index] : 1;
}

// What a slice walk does to the reference; returns the call count.
int model_walk(std::vector<uintptr_t> &m, uint32_t offset, uint32_t length, const Walk &w,
               std::vector<uintptr_t> &seen) {
    uint32_t pos = offset, i = 0;
    while (pos < m.size() && i < length) {
        int r = i < w.results.size() ? w.results[i] : 1;
        seen.push_back(m[pos]);
        ++i;
        if (r == -1 || r == -2) {
            m.erase(m.begin() + pos);
            --length;
            if (r == -2) break;
        } else if (r == 0) {
            break;
        } else {
            ++pos;
        }
    }
    return static_cast<int>(i);
}

TEST(ListModel, RandomPositionalSequences) {
    std::mt19937 rng(1234);
    const int rounds = listtest::scaled(40);
    for (int round = 0; round < rounds; ++round) {
        list_t *l = list_create();
        ASSERT_NE(l, nullptr);
        std::vector<uintptr_t> m;
        uintptr_t next = 1;
        auto pos_in = [&](uint32_t extra) {
            return static_cast<uint32_t>(rng() % (m.size() + extra + 1));
        };
        for (int step = 0; step < 400; ++step) {
            int op = static_cast<int>(rng() % 14);
            SCOPED_TRACE(testing::Message() << "round " << round << " step " << step << " op " << op);
            switch (op) {
            case 0:
                ASSERT_EQ(list_push_value(l, V(next)), 0);
                m.push_back(next++);
                break;
            case 1:
                ASSERT_EQ(list_unshift_value(l, V(next)), 0);
                m.insert(m.begin(), next++);
                break;
            case 2: {  // insert, sometimes past the end
                uint32_t p = pos_in(rng() % 4 == 0 ? 3 : 0);
                ASSERT_EQ(list_insert_value(l, V(next), p), 0);
                if (p > m.size()) m.resize(p, 0);
                m.insert(m.begin() + p, next++);
                break;
            }
            case 3:
                ASSERT_EQ(U(list_pop_value(l)), m.empty() ? 0 : m.back());
                if (!m.empty()) m.pop_back();
                break;
            case 4:
                ASSERT_EQ(U(list_shift_value(l)), m.empty() ? 0 : m.front());
                if (!m.empty()) m.erase(m.begin());
                break;
            case 5:
            case 6:
            case 7: {  // fetch takes the value out; picks walk the cursor around
                uint32_t p = pos_in(1);
                ASSERT_EQ(U(op == 5 ? list_fetch_value(l, p) : list_pick_value(l, p)), p < m.size() ? m[p] : 0);
                if (op == 5 && p < m.size()) m.erase(m.begin() + p);
                break;
            }
            case 8: {
                uint32_t p = pos_in(2);
                uintptr_t old = U(list_set_value(l, p, V(next)));
                if (p < m.size()) {
                    ASSERT_EQ(old, m[p]);
                    m[p] = next;
                } else {
                    ASSERT_EQ(old, 0u);
                    m.resize(p, 0);
                    m.push_back(next);
                }
                ++next;
                break;
            }
            case 9: {
                uint32_t p = pos_in(1);
                ASSERT_EQ(U(list_subst_value(l, p, V(next))), p < m.size() ? m[p] : 0);
                if (p < m.size()) m[p] = next;
                ++next;
                break;
            }
            case 10: {
                uint32_t from = pos_in(1), to = pos_in(1);
                int rc = list_move_value(l, from, to);
                if (from >= m.size()) {
                    ASSERT_EQ(rc, -1);
                    break;
                }
                ASSERT_EQ(rc, 0);
                uintptr_t v = m[from];
                m.erase(m.begin() + from);
                if (to > m.size()) m.resize(to, 0);
                m.insert(m.begin() + to, v);
                break;
            }
            case 11: {
                if (m.empty()) break;
                uint32_t a = static_cast<uint32_t>(rng() % m.size()), b = static_cast<uint32_t>(rng() % m.size());
                ASSERT_EQ(list_swap_values(l, a, b), a == b ? -1 : 0);
                std::swap(m[a], m[b]);
                break;
            }
            case 12: {  // slice walk with removals
                Walk w;
                for (int k = 0; k < 6; ++k) {
                    static const int kResults[] = {1, 1, 1, -1, 0, -2, 7};
                    w.results.push_back(kResults[rng() % 7]);
                }
                uint32_t off = pos_in(1), len = static_cast<uint32_t>(rng() % 8);
                slice_t *s = slice_create(l, off, len);
                ASSERT_NE(s, nullptr);
                std::vector<uintptr_t> seen;
                int expect = model_walk(m, off, len, w, seen);
                ASSERT_EQ(slice_foreach_value(s, walk_cb, &w), expect);
                ASSERT_EQ(w.seen, seen);
                slice_destroy(s);
                break;
            }
            case 13:  // clear now and then keeps the lists short
                if (rng() % 8 == 0) {
                    list_clear(l);
                    m.clear();
                }
                break;
            }
            check_structure(l, m);
            if (HasFatalFailure()) {
                list_destroy(l);
                return;
            }
        }
        list_destroy(l);
    }
}

TEST(ListModel, EdgePositions) {
    list_t *l = list_create();
    EXPECT_EQ(list_pop_value(l), nullptr);
    EXPECT_EQ(list_shift_value(l), nullptr);
    EXPECT_EQ(l->head, nullptr);
    EXPECT_EQ(l->tail, nullptr);

    list_push_value(l, V(1));
    list_push_value(l, V(2));
    EXPECT_EQ(list_insert_value(l, V(9), 5), 0);
    EXPECT_EQ(contents(l), (std::vector<uintptr_t>{1, 2, 0, 0, 0, 9}));
    EXPECT_EQ(list_set_value(l, 7, V(8)), nullptr);
    EXPECT_EQ(contents(l), (std::vector<uintptr_t>{1, 2, 0, 0, 0, 9, 0, 8}));
    EXPECT_EQ(list_swap_values(l, 3, 3), -1);
    EXPECT_EQ(list_subst_value(l, 8, V(5)), nullptr);
    EXPECT_EQ(list_move_value(l, 8, 0), -1);
    EXPECT_EQ(list_count(l), 8u);

    // -2 on the first entry removes it, stops, and counts one call.
    Walk w;
    w.results = {-2};
    EXPECT_EQ(list_foreach_value(l, walk_cb, &w), 1);
    EXPECT_EQ(list_pick_value(l, 0), V(2));
    // A walk that removes everything ends once the calls reach the shrinking length.
    Walk all;
    all.results.assign(10, -1);
    EXPECT_EQ(list_foreach_value(l, walk_cb, &all), 4);
    EXPECT_EQ(list_count(l), 3u);
    list_destroy(l);

    // Null lists change nothing and give the failure results.
    EXPECT_EQ(list_push_value(nullptr, V(1)), -1);
    EXPECT_EQ(list_insert_value(nullptr, V(1), 0), -1);
    EXPECT_EQ(list_pick_value(nullptr, 0), nullptr);
    EXPECT_EQ(list_count(nullptr), 0u);
    EXPECT_EQ(list_move_value(nullptr, 0, 1), -1);
    EXPECT_EQ(list_bsearch_all(nullptr, V(1), nullptr), LIST_NOT_FOUND);
    EXPECT_EQ(list_init(nullptr), -1);
    list_destroy(nullptr);
}

int desc_cmp(void *a, void *b) {
    intptr_t x = reinterpret_cast<intptr_t>(a), y = reinterpret_cast<intptr_t>(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

TEST(ListSort, SortThenSearchRandomData) {
    std::mt19937 rng(77);
    for (int round = 0; round < listtest::scaled(60); ++round) {
        list_t *l = list_create();
        size_t n = rng() % (round < 10 ? 4 : 300);
        std::vector<uintptr_t> m;
        for (size_t i = 0; i < n; ++i) {
            m.push_back(1 + rng() % (round % 2 ? 50 : 100000));  // odd rounds have many duplicates
            list_push_value(l, V(m.back()));
        }
        list_pick_value(l, static_cast<uint32_t>(n / 3));  // a cursor that the sort must clear
        ASSERT_EQ(list_sort_all(l, desc_cmp), 0);
        EXPECT_EQ(l->cursor, nullptr);
        std::sort(m.begin(), m.end(), std::greater<>());
        ASSERT_EQ(contents(l), m);
        check_structure(l, m);
        for (uintptr_t v : m) {
            uint32_t p = list_bsearch_all(l, V(v), desc_cmp);
            ASSERT_NE(p, LIST_NOT_FOUND) << v;
            ASSERT_EQ(m[p], v);
        }
        EXPECT_EQ(list_bsearch_all(l, V(200000), desc_cmp), LIST_NOT_FOUND);
        EXPECT_EQ(list_bsearch(l, V(m.empty() ? 1 : m[0]), 0, desc_cmp), LIST_NOT_FOUND);
        EXPECT_EQ(list_bsearch(l, V(1), static_cast<uint32_t>(n + 1), desc_cmp), LIST_NOT_FOUND);
        list_destroy(l);
    }
}

// Keys in the high bits, arrival order in the low ones, so that the place
// each of several equal keys ends up in can be checked.
int key_cmp(void *a, void *b) { return desc_cmp(V(U(a) >> 8), V(U(b) >> 8)); }

uintptr_t K(uintptr_t key, uintptr_t id) { return key << 8 | id; }

void fill(list_t *l, const std::vector<uintptr_t> &values) {
    for (uintptr_t v : values) list_push_value(l, V(v));
}

// Sorted by key (descending), the same values as before, links intact.
void expect_sorted_permutation(list_t *l, std::vector<uintptr_t> before, size_t n) {
    std::vector<uintptr_t> after = contents(l);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 1; i < n; ++i) ASSERT_GE(after[i - 1] >> 8, after[i] >> 8) << "position " << i;
    ASSERT_TRUE(std::equal(after.begin() + n, after.end(), before.begin() + n)) << "past the range";
    std::sort(before.begin(), before.end());
    std::sort(after.begin(), after.end());
    ASSERT_EQ(after, before);
    check_structure(l, contents(l));
}

TEST(ListSort, PrefixSort) {
    list_t *l = list_create();
    std::vector<uintptr_t> m;
    for (uintptr_t i = 0; i < 20; ++i) m.push_back(K((i * 7) % 5, i));
    fill(l, m);
    // A count reaching the end sorts nothing.
    list_pick_value(l, 15);
    EXPECT_EQ(list_sort(l, 20, key_cmp), 0);
    EXPECT_EQ(l->cursor, nullptr);
    EXPECT_EQ(contents(l), m);
    EXPECT_EQ(list_sort(l, 12, key_cmp), 0);
    expect_sorted_permutation(l, m, 12);
    EXPECT_EQ(list_sort_all(l, key_cmp), 0);
    expect_sorted_permutation(l, m, 20);
    list_destroy(l);
}

// Equal keys end where the quicksort's exchanges and relinks put them: the
// order callers of a non-total comparator see.
TEST(ListSort, EqualKeysFollowTheQuicksort) {
    struct Case {
        std::vector<uintptr_t> in, out;
    };
    const Case cases[] = {
        {{K(1, 0), K(1, 1)}, {K(1, 0), K(1, 1)}},                  // 2 equal: no exchange
        {{K(1, 0), K(2, 1)}, {K(2, 1), K(1, 0)}},                  // 2 ascending: exchanged
        {{K(3, 0), K(3, 1), K(3, 2)}, {K(3, 2), K(3, 1), K(3, 0)}},  // relinked before the pivot
        {{K(3, 0), K(3, 1), K(3, 2), K(3, 3)}, {K(3, 3), K(3, 2), K(3, 1), K(3, 0)}},
        {{K(1, 0), K(2, 1), K(1, 2), K(2, 3), K(1, 4)},
         {K(2, 3), K(2, 1), K(1, 4), K(1, 0), K(1, 2)}},
    };
    for (const Case &c : cases) {
        list_t *l = list_create();
        fill(l, c.in);
        ASSERT_EQ(list_sort_all(l, key_cmp), 0);
        EXPECT_EQ(contents(l), c.out);
        check_structure(l, c.out);
        list_destroy(l);
    }
}

// Shapes that break careless partitions: every size up to a few dozen, and
// long runs that would recurse once per entry or never stop.
TEST(ListSort, OrderedReversedEqualAndSawtoothInputs) {
    const std::vector<uintptr_t (*)(uintptr_t, uintptr_t)> shapes = {
        [](uintptr_t i, uintptr_t) { return i; },                         // ascending
        [](uintptr_t i, uintptr_t n) { return n - i; },                   // descending
        [](uintptr_t, uintptr_t) { return uintptr_t{7}; },                // all equal
        [](uintptr_t i, uintptr_t) { return i % 3; },                     // few keys
        [](uintptr_t i, uintptr_t n) { return i < n / 2 ? i : n - i; },  // organ pipe
        [](uintptr_t i, uintptr_t n) { return i < n / 2 ? n - i : i; },  // valley
    };
    auto run = [&](uintptr_t n) {
        for (auto shape : shapes) {
            list_t *l = list_create();
            std::vector<uintptr_t> m;
            for (uintptr_t i = 0; i < n; ++i) m.push_back(K(shape(i, n) + 1, i & 0xff));  // never a none value
            fill(l, m);
            ASSERT_EQ(list_sort_all(l, key_cmp), 0);
            expect_sorted_permutation(l, m, n);
            for (uintptr_t i = 0; i < n; i += 1 + n / 16) {
                uint32_t p = list_bsearch_all(l, V(m[i]), key_cmp);
                ASSERT_NE(p, LIST_NOT_FOUND);
                EXPECT_EQ(U(list_pick_value(l, p)) >> 8, m[i] >> 8);
            }
            list_destroy(l);
        }
    };
    for (uintptr_t n = 0; n <= 40; ++n) run(n);
    // Organ pipe and valley are quadratic for a middle pivot: kept moderate.
    run(static_cast<uintptr_t>(listtest::scaled(4000)));
}

TEST(ListSlices, ChainsOfSeveralSlices) {
    list_t *l = list_create();
    for (uintptr_t i = 1; i <= 10; ++i) list_push_value(l, V(i));
    slice_t *a = slice_create(l, 0, 3), *b = slice_create(l, 4, 2), *c = slice_create(l, 8, 5);
    Walk w;
    EXPECT_EQ(slice_foreach_value(c, walk_cb, &w), 2);
    EXPECT_EQ(w.seen, (std::vector<uintptr_t>{9, 10}));
    slice_destroy(b);  // middle of the chain
    w.seen.clear();
    EXPECT_EQ(slice_foreach_value(a, walk_cb, &w), 3);
    slice_destroy(a);
    slice_t *d = slice_create(l, 1, 1);
    slice_destroy(c);
    w.seen.clear();
    EXPECT_EQ(slice_foreach_value(d, walk_cb, &w), 1);
    EXPECT_EQ(w.seen, (std::vector<uintptr_t>{2}));
    slice_create(l, 2, 2);  // left for list_destroy
    list_destroy(l);  // frees d and the last slice (checked by the leak sanitizer)
}

}  // namespace

// Heap: the worked example and tie rule, a model run against std::multiset in
// both modes, merge, the walk's result rows, the key adjustments and bad input.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <map>
#include <random>
#include <set>
#include <vector>

#include "containers/binheap_internal.h"
#include "kerm_binheap.h"

namespace {

void *as_value(uintptr_t id) { return reinterpret_cast<void *>(id); }
uintptr_t as_id(void *v) { return reinterpret_cast<uintptr_t>(v); }

int32_t key_of(const void *k) {
    int32_t x;
    memcpy(&x, k, sizeof x);
    return x;
}

struct Heap {
    BinHeap *h;
    explicit Heap(uint32_t mode, const BinHeapKeyCallbacks *keys = util_binheap_keys_callbacks_int32_t())
        : h(util_binheap_create(keys, mode)) {
        if (h == nullptr) abort();
    }
    // Keys 1..n, each with itself as value.
    Heap(uint32_t mode, int32_t n) : Heap(mode) {
        for (int32_t k = 1; k <= n; ++k) add(k);
    }
    ~Heap() { util_binheap_destroy(h); }
    // Inserts key k with value k (ids are the keys unless given).
    void add(int32_t k) { ASSERT_EQ(util_binheap_insert(h, &k, sizeof k, as_value(static_cast<uintptr_t>(k))), 0); }
    std::vector<uint32_t> root_degrees() const {
        std::vector<uint32_t> d;
        for (uint32_t i = 0; i < list_count(h->roots); ++i)
            d.push_back(static_cast<uint32_t>(static_cast<BinHeapNode *>(list_pick_value(h->roots, i))->num_children));
        return d;
    }
    // Keys in walk order (root trees in list order, each in preorder).
    std::vector<int32_t> preorder() const {
        std::vector<int32_t> out;
        util_binheap_walk(
            h,
            [](BinHeap *, const void *k, uint32_t, void *, void *p) -> int32_t {
                static_cast<std::vector<int32_t> *>(p)->push_back(key_of(k));
                return 1;
            },
            &out);
        return out;
    }
    // Empties the heap through its own extreme; the keys in the order taken.
    std::vector<int32_t> drain() {
        std::vector<int32_t> out;
        void *k;
        while ((h->mode == BINHEAP_MODE_MAX ? util_binheap_maximum(h, &k, nullptr, nullptr)
                                            : util_binheap_minimum(h, &k, nullptr, nullptr)) == 0) {
            out.push_back(key_of(k));
            EXPECT_EQ((h->mode == BINHEAP_MODE_MAX ? util_binheap_delete_maximum : util_binheap_delete_minimum)(h, nullptr),
                      0);
        }
        EXPECT_EQ(util_binheap_count(h), 0u);
        return out;
    }
};

// Every parent dominates its children; parent links and the count agree.
void expect_heap_ordered(const BinHeap *h) {
    uint32_t seen = 0;
    std::vector<const BinHeapNode *> stack;
    for (uint32_t i = 0; i < list_count(h->roots); ++i) {
        auto *r = static_cast<const BinHeapNode *>(list_pick_value(h->roots, i));
        EXPECT_EQ(r->parent, nullptr);
        stack.push_back(r);
    }
    while (!stack.empty()) {
        const BinHeapNode *n = stack.back();
        stack.pop_back();
        ++seen;
        for (int32_t i = 0; i < n->num_children; ++i) {
            const BinHeapNode *c = n->children[i];
            EXPECT_EQ(c->parent, n);
            int32_t r = h->callbacks->compare(n->key, n->klen, c->key, c->klen);
            EXPECT_TRUE(h->mode == BINHEAP_MODE_MAX ? r >= 0 : r <= 0);
            stack.push_back(c);
        }
    }
    EXPECT_EQ(seen, h->count);
}

TEST(BinHeap, OneToSevenIntoAMaxHeap) {
    Heap heap(BINHEAP_MODE_MAX, 7);
    EXPECT_EQ(heap.root_degrees(), (std::vector<uint32_t>{0, 1, 2}));
    void *key = nullptr, *value = nullptr;
    uint32_t klen = 0;
    ASSERT_EQ(util_binheap_maximum(heap.h, &key, &klen, &value), 0);
    EXPECT_EQ(key_of(key), 7);
    EXPECT_EQ(klen, 4u);
    EXPECT_EQ(as_id(value), 7u);
    std::vector<uintptr_t> values;
    while (util_binheap_delete_maximum(heap.h, &value) == 0) values.push_back(as_id(value));
    EXPECT_EQ(values, (std::vector<uintptr_t>{7, 6, 5, 4, 3, 2, 1}));
}

TEST(BinHeap, NewerEqualKeyBecomesTheParent) {
    for (uint32_t mode : {BINHEAP_MODE_MAX, BINHEAP_MODE_MIN}) {
        Heap heap(mode);
        int32_t k = 42;
        ASSERT_EQ(util_binheap_insert(heap.h, &k, sizeof k, as_value(1)), 0);
        ASSERT_EQ(util_binheap_insert(heap.h, &k, sizeof k, as_value(2)), 0);
        auto *root = static_cast<BinHeapNode *>(list_pick_value(heap.h->roots, 0));
        ASSERT_EQ(root->num_children, 1);
        EXPECT_EQ(as_id(root->value), 2u);
        EXPECT_EQ(as_id(root->children[0]->value), 1u);
    }
}

// Model: the multiset of keys, and which key each live value carries.
struct Model {
    std::multiset<int32_t> keys;
    std::map<uintptr_t, int32_t> key_of_value;
    void add(uintptr_t id, int32_t k) {
        keys.insert(k);
        key_of_value[id] = k;
    }
    // The heap handed back value id whose key it reported as k.
    void take(uintptr_t id, int32_t k) {
        auto it = key_of_value.find(id);
        ASSERT_NE(it, key_of_value.end()) << "value " << id << " not in the heap";
        ASSERT_EQ(it->second, k);
        keys.erase(keys.find(k));
        key_of_value.erase(it);
    }
};

void run_model(uint32_t mode, uint32_t seed) {
    SCOPED_TRACE(testing::Message() << "mode " << mode << " seed " << seed);
    Heap heap(mode);
    Model m;
    std::mt19937 rng(seed);
    const bool max_mode = mode == BINHEAP_MODE_MAX;
    auto own = [&] { return max_mode ? *m.keys.rbegin() : *m.keys.begin(); };
    uintptr_t next_id = 1;
    for (int step = 0; step < 4000; ++step) {
        unsigned op = rng() % 16;
        void *k = nullptr, *v = nullptr;
        if (op < 7 || m.keys.empty()) {
            int32_t key = static_cast<int32_t>(rng() % 200) - 100;
            ASSERT_EQ(util_binheap_insert(heap.h, &key, sizeof key, as_value(next_id)), 0);
            m.add(next_id++, key);
        } else if (op < 10) {
            // The own extreme is exact: same key as the model's, and removed.
            ASSERT_EQ((max_mode ? util_binheap_maximum : util_binheap_minimum)(heap.h, &k, nullptr, &v), 0);
            ASSERT_EQ(key_of(k), own());
            int32_t key = key_of(k);
            ASSERT_EQ((max_mode ? util_binheap_delete_maximum : util_binheap_delete_minimum)(heap.h, &v), 0);
            m.take(as_id(v), key);
        } else if (op < 12) {
            // The opposite extreme is some entry of the heap, removed as reported.
            ASSERT_EQ((max_mode ? util_binheap_minimum : util_binheap_maximum)(heap.h, &k, nullptr, &v), 0);
            int32_t key = key_of(k);
            void *v2 = nullptr;
            ASSERT_EQ((max_mode ? util_binheap_delete_minimum : util_binheap_delete_maximum)(heap.h, &v2), 0);
            ASSERT_EQ(v2, v);
            m.take(as_id(v), key);
        } else if (op < 14) {
            // Delete by key: a missing key is never removed; the top key always is;
            // anything removed carried that key.
            int32_t key = op == 12 ? own() : static_cast<int32_t>(rng() % 240) - 120;
            bool present = m.keys.count(key) > 0;
            v = as_value(0);
            int32_t rc = util_binheap_delete(heap.h, &key, sizeof key, &v);
            if (!present) {
                ASSERT_EQ(rc, -1);
            }
            if (op == 12) {
                ASSERT_EQ(rc, 0);
            }
            if (rc == 0) {
                m.take(as_id(v), key);
            } else {
                ASSERT_EQ(as_id(v), 0u);
            }
        } else {
            // The walk sees every entry once, with the key it was given.
            std::map<uintptr_t, int32_t> walked;
            uint32_t n = util_binheap_walk(
                heap.h,
                [](BinHeap *, const void *kk, uint32_t, void *vv, void *p) -> int32_t {
                    (*static_cast<std::map<uintptr_t, int32_t> *>(p))[as_id(vv)] = key_of(kk);
                    return 1;
                },
                &walked);
            ASSERT_EQ(n, m.keys.size());
            ASSERT_EQ(walked, m.key_of_value);
        }
        ASSERT_EQ(util_binheap_count(heap.h), m.keys.size());
        if (step % 500 == 0) expect_heap_ordered(heap.h);
    }
    expect_heap_ordered(heap.h);
    std::vector<int32_t> expected(m.keys.begin(), m.keys.end());
    if (max_mode) std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(heap.drain(), expected);
}

TEST(BinHeap, FollowsMultisetModelInBothModes) {
    for (uint32_t seed : {1u, 2u, 3u}) {
        run_model(BINHEAP_MODE_MAX, seed);
        run_model(BINHEAP_MODE_MIN, seed);
    }
}

TEST(BinHeap, MergeMovesEveryEntry) {
    for (uint32_t mode : {BINHEAP_MODE_MAX, BINHEAP_MODE_MIN}) {
        std::mt19937 rng(mode + 5);
        Heap a(mode), b(mode);
        std::multiset<int32_t> all;
        for (int i = 0; i < 300; ++i) {
            int32_t k = static_cast<int32_t>(rng() % 1000);
            (i % 3 == 0 ? a : b).add(k);
            all.insert(k);
        }
        // Removals first, so that the root lists are no longer in binomial shape.
        for (int i = 0; i < 20; ++i) {
            void *v;
            ASSERT_EQ(util_binheap_delete_maximum(b.h, &v), 0);
            all.erase(all.find(static_cast<int32_t>(as_id(v))));
        }
        Heap merged(mode);
        util_binheap_destroy(merged.h);
        merged.h = util_binheap_merge(a.h, b.h);
        ASSERT_NE(merged.h, nullptr);
        EXPECT_EQ(util_binheap_count(a.h), 0u);
        EXPECT_EQ(util_binheap_count(b.h), 0u);
        EXPECT_EQ(util_binheap_maximum(a.h, nullptr, nullptr, nullptr), -1);
        EXPECT_EQ(list_count(b.h->roots), 0u);
        ASSERT_EQ(util_binheap_count(merged.h), all.size());
        expect_heap_ordered(merged.h);
        // The top is right at once, and after inserts that rely on it.
        void *k;
        ASSERT_EQ((mode == BINHEAP_MODE_MAX ? util_binheap_maximum : util_binheap_minimum)(merged.h, &k, nullptr, nullptr),
                  0);
        EXPECT_EQ(key_of(k), mode == BINHEAP_MODE_MAX ? *all.rbegin() : *all.begin());
        merged.add(500);
        all.insert(500);
        // Inputs stay usable.
        a.add(3);
        EXPECT_EQ(util_binheap_count(a.h), 1u);
        std::vector<int32_t> expected(all.begin(), all.end());
        if (mode == BINHEAP_MODE_MAX) std::reverse(expected.begin(), expected.end());
        EXPECT_EQ(merged.drain(), expected);
    }
}

TEST(BinHeap, MergeRefusesMixedModesAndChangesNeither) {
    Heap mx(BINHEAP_MODE_MAX), mn(BINHEAP_MODE_MIN);
    for (int32_t k : {4, 8, 1}) {
        mx.add(k);
        mn.add(k);
    }
    EXPECT_EQ(util_binheap_merge(mx.h, mn.h), nullptr);
    EXPECT_EQ(util_binheap_merge(mn.h, mx.h), nullptr);
    EXPECT_EQ(util_binheap_merge(mx.h, mx.h), nullptr);
    EXPECT_EQ(util_binheap_merge(mx.h, nullptr), nullptr);
    EXPECT_EQ(mx.drain(), (std::vector<int32_t>{8, 4, 1}));
    EXPECT_EQ(mn.drain(), (std::vector<int32_t>{1, 4, 8}));
}

// Walk over 1..7 in a max-heap (preorder 7 6 5 4 3 2 1) with a per-key result.
struct WalkRow {
    const char *what;
    std::map<int32_t, int32_t> results;  // key -> result; others 1
    uint32_t visited;
    std::vector<int32_t> left;  // keys left, descending
};

TEST(BinHeap, WalkResults) {
    const WalkRow rows[] = {
        {"all continue", {}, 7, {7, 6, 5, 4, 3, 2, 1}},
        {"all remove", {{7, -1}, {6, -1}, {5, -1}, {4, -1}, {3, -1}, {2, -1}, {1, -1}}, 7, {}},
        {"stop", {{5, 0}}, 3, {7, 6, 5, 4, 3, 2, 1}},
        {"remove and stop", {{5, -2}}, 3, {7, 6, 4, 3, 2, 1}},
        {"other value stops at once", {{6, 7}}, 2, {7, 6, 5, 4, 3, 2, 1}},
        {"parent removed although its child stopped", {{6, -1}, {5, 0}}, 3, {7, 5, 4, 3, 2, 1}},
        {"root with children removed", {{4, -1}}, 7, {7, 6, 5, 3, 2, 1}},
        {"inner node removed", {{2, -1}}, 7, {7, 6, 5, 4, 3, 1}},
        {"every other removed", {{7, -1}, {5, -1}, {3, -1}, {1, -1}}, 7, {6, 4, 2}},
    };
    for (const auto &row : rows) {
        Heap heap(BINHEAP_MODE_MAX, 7);
        ASSERT_EQ(heap.preorder(), (std::vector<int32_t>{7, 6, 5, 4, 3, 2, 1}));
        uint32_t n = util_binheap_walk(
            heap.h,
            [](BinHeap *, const void *k, uint32_t, void *, void *p) -> int32_t {
                auto &r = *static_cast<const std::map<int32_t, int32_t> *>(p);
                auto it = r.find(key_of(k));
                return it == r.end() ? 1 : it->second;
            },
            const_cast<std::map<int32_t, int32_t> *>(&row.results));
        EXPECT_EQ(n, row.visited) << row.what;
        EXPECT_EQ(util_binheap_count(heap.h), row.left.size()) << row.what;
        expect_heap_ordered(heap.h);
        EXPECT_EQ(heap.drain(), row.left) << row.what;
    }
}

TEST(BinHeap, KeyAdjustmentsSiftUpOnly) {
    {
        Heap heap(BINHEAP_MODE_MAX, 7);
        util_binheap_increase_maximum(heap.h, 10);
        util_binheap_increase_maximum(heap.h, 0);  // nothing
        EXPECT_EQ(heap.drain(), (std::vector<int32_t>{17, 6, 5, 4, 3, 2, 1}));
    }
    {
        // Lowering the top of a max-heap: no sift down, and the cached top
        // stays on the same entry with its new key.
        Heap heap(BINHEAP_MODE_MAX, 7);
        util_binheap_increase_maximum(heap.h, -4);  // negative: the other way
        void *k, *v;
        ASSERT_EQ(util_binheap_maximum(heap.h, &k, nullptr, &v), 0);
        EXPECT_EQ(key_of(k), 3);
        EXPECT_EQ(as_id(v), 7u);
        util_binheap_decrease_maximum(heap.h, -5);  // back above every other key
        EXPECT_EQ(heap.drain(), (std::vector<int32_t>{8, 6, 5, 4, 3, 2, 1}));
    }
    {
        // Raising the (approximate) minimum of a max-heap sifts it up its tree;
        // the values travel with the keys.
        Heap heap(BINHEAP_MODE_MAX, 7);
        void *k, *v;
        ASSERT_EQ(util_binheap_minimum(heap.h, &k, nullptr, &v), 0);
        EXPECT_EQ(key_of(k), 1);
        util_binheap_increase_minimum(heap.h, 2);  // 1 -> 3: above its parent 2, below 4
        expect_heap_ordered(heap.h);
        std::vector<std::pair<int32_t, uintptr_t>> kv;
        util_binheap_walk(
            heap.h,
            [](BinHeap *, const void *kk, uint32_t, void *vv, void *p) -> int32_t {
                static_cast<std::vector<std::pair<int32_t, uintptr_t>> *>(p)->emplace_back(key_of(kk), as_id(vv));
                return 1;
            },
            &kv);
        EXPECT_EQ(kv, (std::vector<std::pair<int32_t, uintptr_t>>{{7, 7}, {6, 6}, {5, 5}, {4, 4}, {3, 3}, {3, 1}, {2, 2}}));
    }
    {
        Heap heap(BINHEAP_MODE_MIN, 7);
        util_binheap_decrease_minimum(heap.h, 10);
        EXPECT_EQ(heap.drain(), (std::vector<int32_t>{-9, 2, 3, 4, 5, 6, 7}));
    }
    {
        // INT32_MIN has no 32-bit magnitude and still moves by 2^31.
        Heap heap(BINHEAP_MODE_MAX, util_binheap_keys_callbacks_int64_t());
        int64_t k = int64_t{1} << 40;
        ASSERT_EQ(util_binheap_insert(heap.h, &k, sizeof k, nullptr), 0);
        util_binheap_increase_maximum(heap.h, INT32_MIN);
        void *out;
        ASSERT_EQ(util_binheap_maximum(heap.h, &out, nullptr, nullptr), 0);
        memcpy(&k, out, sizeof k);
        EXPECT_EQ(k, (int64_t{1} << 40) - (int64_t{1} << 31));
        util_binheap_decrease_maximum(heap.h, INT32_MIN);
        ASSERT_EQ(util_binheap_maximum(heap.h, &out, nullptr, nullptr), 0);
        memcpy(&k, out, sizeof k);
        EXPECT_EQ(k, int64_t{1} << 40);
    }
}

TEST(BinHeap, DefaultKeysOrderByLengthThenBytes) {
    Heap heap(BINHEAP_MODE_MIN, nullptr);
    const char *words[] = {"pear", "fig", "apple", "kiwi", "", "banana", "date"};
    for (const char *w : words) ASSERT_EQ(util_binheap_insert(heap.h, w, static_cast<uint32_t>(strlen(w)), (void *)w), 0);
    std::vector<std::string> order;
    void *v;
    while (util_binheap_delete_minimum(heap.h, &v) == 0) order.emplace_back(static_cast<const char *>(v));
    EXPECT_EQ(order, (std::vector<std::string>{"", "fig", "date", "kiwi", "pear", "apple", "banana"}));
    // Stepping the top grows the key by its carry.
    const uint8_t ff[] = {0xFF};
    ASSERT_EQ(util_binheap_insert(heap.h, ff, 1, nullptr), 0);
    util_binheap_increase_minimum(heap.h, 1);
    void *k;
    uint32_t klen;
    ASSERT_EQ(util_binheap_minimum(heap.h, &k, &klen, nullptr), 0);
    ASSERT_EQ(klen, 2u);
    EXPECT_EQ(memcmp(k, "\x01\x00", 2), 0);
}

TEST(BinHeap, EmptyAndNullInputTouchNothing) {
    Heap heap(BINHEAP_MODE_MAX);
    void *k = as_value(9), *v = as_value(9);
    uint32_t klen = 9;
    EXPECT_EQ(util_binheap_maximum(heap.h, &k, &klen, &v), -1);
    EXPECT_EQ(util_binheap_minimum(heap.h, &k, &klen, &v), -1);
    EXPECT_EQ(util_binheap_delete_maximum(heap.h, &v), -1);
    EXPECT_EQ(util_binheap_delete_minimum(heap.h, &v), -1);
    int32_t key = 1;
    EXPECT_EQ(util_binheap_delete(heap.h, &key, sizeof key, &v), -1);
    EXPECT_EQ(k, as_value(9));
    EXPECT_EQ(v, as_value(9));
    EXPECT_EQ(klen, 9u);
    util_binheap_increase_maximum(heap.h, 5);
    util_binheap_decrease_minimum(heap.h, 5);
    EXPECT_EQ(util_binheap_walk(heap.h, [](BinHeap *, const void *, uint32_t, void *, void *) { return 1; }, nullptr),
              0u);
    EXPECT_EQ(util_binheap_walk(heap.h, nullptr, nullptr), 0u);
    EXPECT_EQ(util_binheap_insert(heap.h, nullptr, 4, nullptr), -1);
    EXPECT_EQ(util_binheap_count(heap.h), 0u);

    EXPECT_EQ(util_binheap_create(nullptr, 2), nullptr);
    EXPECT_EQ(util_binheap_insert(nullptr, &key, sizeof key, nullptr), -1);
    EXPECT_EQ(util_binheap_maximum(nullptr, &k, &klen, &v), -1);
    EXPECT_EQ(util_binheap_delete_minimum(nullptr, &v), -1);
    EXPECT_EQ(util_binheap_delete(nullptr, &key, sizeof key, &v), -1);
    EXPECT_EQ(util_binheap_count(nullptr), 0u);
    util_binheap_increase_minimum(nullptr, 1);
    util_binheap_destroy(nullptr);

    // A zero-length key is a key like any other.
    EXPECT_EQ(util_binheap_insert(heap.h, nullptr, 0, as_value(3)), 0);
    EXPECT_EQ(util_binheap_delete(heap.h, nullptr, 0, &v), 0);
    EXPECT_EQ(as_id(v), 3u);
}

}  // namespace

// Ordered maps (skip list, trie, red-black and AVL trees) with each
// allocation failing in turn: constructors hand out none, adds report -1 and
// leave the map as it was, and nothing leaks.
#include <string.h>

#include <string>
#include <vector>

#include "alloc_sweep.h"
#include "kerm_avlt.h"
#include "kerm_rbt.h"
#include "kerm_skiplist.h"
#include "kerm_trie.h"

using alloc_fail::Attempt;

namespace {

int32_t bytes_cmp(const void *a, uint32_t la, const void *b, uint32_t lb) {
    int r = memcmp(a, b, la < lb ? la : lb);
    return r != 0 ? r : static_cast<int32_t>(la) - static_cast<int32_t>(lb);
}

const char *const kKeys[] = {"m", "d", "t", "a", "h", "p", "x"};
const char kNewKey[] = "k";

int32_t count_rbt(util_rbt *, const void *, uint32_t, void *, void *arg) {
    ++*static_cast<int *>(arg);
    return 1;
}
int32_t count_avlt(util_avlt *, const void *, uint32_t, void *, void *arg) {
    ++*static_cast<int *>(arg);
    return 1;
}

// One table row per tree-like map: the calls the sweep needs, behind a
// common face so that every map gets the same checks.
struct MapOps {
    const char *name;
    void *(*create)();
    void (*destroy)(void *);
    int32_t (*add)(void *, const char *, void *);  // 0 new, -1 failure
    bool (*has)(void *, const char *);
    int (*count)(void *);
};

const MapOps kMaps[] = {
    {"skiplist",
     [] { return static_cast<void *>(util_skiplist_create(40, 50, bytes_cmp, nullptr)); },  // heap-held path
     [](void *m) { util_skiplist_destroy(static_cast<util_skiplist *>(m)); },
     [](void *m, const char *k, void *v) {
         return util_skiplist_insert(static_cast<util_skiplist *>(m), k, static_cast<uint32_t>(strlen(k)), v);
     },
     [](void *m, const char *k) {
         return util_skiplist_search(static_cast<util_skiplist *>(m), k, static_cast<uint32_t>(strlen(k))) != nullptr;
     },
     [](void *m) { return static_cast<int>(util_skiplist_count(static_cast<util_skiplist *>(m))); }},
    {"rbt", [] { return static_cast<void *>(util_rbt_create(bytes_cmp, nullptr)); },
     [](void *m) { util_rbt_destroy(static_cast<util_rbt *>(m)); },
     [](void *m, const char *k, void *v) {
         return util_rbt_add(static_cast<util_rbt *>(m), k, static_cast<uint32_t>(strlen(k)), v);
     },
     [](void *m, const char *k) {
         return util_rbt_find(static_cast<util_rbt *>(m), k, static_cast<uint32_t>(strlen(k)), nullptr) == 0;
     },
     [](void *m) {
         int n = 0;
         util_rbt_walk_sorted(static_cast<util_rbt *>(m), count_rbt, &n);
         return n;
     }},
    {"avlt", [] { return static_cast<void *>(util_avlt_create(bytes_cmp, nullptr)); },
     [](void *m) { util_avlt_destroy(static_cast<util_avlt *>(m)); },
     [](void *m, const char *k, void *v) {
         return util_avlt_add(static_cast<util_avlt *>(m), k, static_cast<uint32_t>(strlen(k)), v);
     },
     [](void *m, const char *k) {
         return util_avlt_find(static_cast<util_avlt *>(m), k, static_cast<uint32_t>(strlen(k)), nullptr) == 0;
     },
     [](void *m) {
         int n = 0;
         util_avlt_walk_sorted(static_cast<util_avlt *>(m), count_avlt, &n);
         return n;
     }},
    {"trie", [] { return static_cast<void *>(util_trie_create(nullptr)); },
     [](void *m) { util_trie_destroy(static_cast<util_trie *>(m)); },
     [](void *m, const char *k, void *v) {
         // A copied block: one more allocation than the path nodes.
         const int32_t rc = util_trie_insert(static_cast<util_trie *>(m), k, v, 4, 1);
         return rc > 0 ? 0 : rc;
     },
     [](void *m, const char *k) { return util_trie_find(static_cast<util_trie *>(m), k, nullptr) != nullptr; },
     [](void *m) { return static_cast<int>(util_trie_key_count(static_cast<util_trie *>(m))); }},
};

int g_value = 7;

void *filled(const MapOps &ops) {
    void *m = ops.create();
    for (const char *k : kKeys) EXPECT_EQ(ops.add(m, k, &g_value), 0) << ops.name << " " << k;
    return m;
}

TEST(AllocMaps, Create) {
    for (const MapOps &ops : kMaps) {
        SCOPED_TRACE(ops.name);
        alloc_sweep::constructor(ops.create, [&](void *m) { EXPECT_EQ(ops.add(m, "a", &g_value), 0); },
                                 ops.destroy);
    }
}

TEST(AllocMaps, AddLeavesTheMapAsItWas) {
    for (const MapOps &ops : kMaps) {
        SCOPED_TRACE(ops.name);
        alloc_sweep::operation([&] { return filled(ops); }, [&](void *m) { return ops.add(m, kNewKey, &g_value); },
                               -1, 0,
                               [&](void *m, bool failed) {
                                   if (failed) {
                                       EXPECT_FALSE(ops.has(m, kNewKey));
                                       EXPECT_EQ(ops.count(m), 7);
                                       EXPECT_EQ(ops.add(m, kNewKey, &g_value), 0);  // usable
                                   }
                                   for (const char *k : kKeys) EXPECT_TRUE(ops.has(m, k)) << k;
                                   EXPECT_TRUE(ops.has(m, kNewKey));
                                   EXPECT_EQ(ops.count(m), 8);
                               },
                               ops.destroy);
    }
}

// A long key below an existing prefix: several path nodes are built before
// the one that fails, and all of them must go.
TEST(AllocTrie, InsertDeepPathIsAllOrNothing) {
    const unsigned runs = alloc_sweep::operation(
        [] {
            util_trie *t = util_trie_create(nullptr);
            EXPECT_EQ(util_trie_insert(t, "ab", &g_value, 0, 0), 2);
            return t;
        },
        [](util_trie *t) { return util_trie_insert(t, "abcdefgh", &g_value, 0, 0); }, -1, 6,
        [](util_trie *t, bool failed) {
            if (failed) {
                EXPECT_EQ(util_trie_node_count(t), 2u);
                EXPECT_EQ(util_trie_key_count(t), 1u);
                EXPECT_EQ(util_trie_find(t, "abc", nullptr), nullptr);
            }
            EXPECT_EQ(util_trie_find(t, "ab", nullptr), &g_value);
        },
        util_trie_destroy);
    EXPECT_EQ(runs, 6u);
}

// Replacing the data of an existing node with a copy: a failed copy keeps
// the old data (find_and_insert) or the node reports it exists untouched
// (find_or_insert, which allocates nothing for an existing key).
TEST(AllocTrie, ReplaceWithCopy) {
    static char old_block[] = "old", new_block[] = "new";
    alloc_sweep::leak_free([](Attempt &a) {
        util_trie *t = util_trie_create(nullptr);
        ASSERT_EQ(util_trie_insert(t, "key", old_block, 4, 1), 3);
        void *old_data = nullptr;
        uint32_t old_size = 0;
        const int32_t rc =
            a.run([&] { return util_trie_find_and_insert(t, "key", new_block, 4, &old_data, &old_size, 1); });
        uint32_t size = 0;
        const char *now = static_cast<const char *>(util_trie_find(t, "key", &size));
        ASSERT_NE(now, nullptr);
        if (a.injected()) {
            EXPECT_EQ(rc, -1);
            EXPECT_STREQ(now, "old");
        } else {
            EXPECT_EQ(rc, 0);
            EXPECT_STREQ(now, "new");
        }
        EXPECT_EQ(size, 4u);
        util_trie_destroy(t);
    });
    util_trie *t = util_trie_create(nullptr);
    ASSERT_EQ(util_trie_insert(t, "key", old_block, 4, 1), 3);
    Attempt a(1);
    EXPECT_EQ(a.run([&] { return util_trie_find_or_insert(t, "key", new_block, 4, nullptr, nullptr, 1); }), 0);
    EXPECT_EQ(a.calls(), 0u);
    util_trie_destroy(t);
}

// Replacing an equal key: the skip list allocates nothing (beyond a deep
// list's path array); the red-black tree builds the replacing node first, so
// a failure keeps the old entry.
TEST(AllocMaps, Replace) {
    static int old_value = 1;
    alloc_sweep::leak_free([](Attempt &a) {
        util_skiplist *s = util_skiplist_create(4, 50, bytes_cmp, nullptr);
        util_rbt *r = util_rbt_create(bytes_cmp, nullptr);
        ASSERT_EQ(util_skiplist_insert(s, "k", 1, &old_value), 0);
        ASSERT_EQ(util_rbt_add(r, "k", 1, &old_value), 0);
        const int32_t rc = a.run([&] {
            EXPECT_EQ(util_skiplist_insert(s, "k", 1, &g_value), 1);
            return util_rbt_add(r, "k", 1, &g_value);
        });
        void *v = nullptr;
        EXPECT_EQ(util_rbt_find(r, "k", 1, &v), 0);
        EXPECT_EQ(v, a.injected() ? &old_value : &g_value);
        EXPECT_EQ(rc, a.injected() ? -1 : 1);
        EXPECT_EQ(util_skiplist_search(s, "k", 1), &g_value);
        util_skiplist_destroy(s);
        util_rbt_destroy(r);
    });
}

}  // namespace

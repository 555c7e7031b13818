// Hash table with each allocation failing in turn: setters report -1 and
// leave the key as it was, growth that cannot get its memory is abandoned
// with every item still found, copies and snapshots give none, and nothing
// leaks.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "alloc_sweep.h"
#include "kerm_ht.h"
#include "kerm_list.h"

using alloc_fail::Attempt;

namespace {

const std::string kLongKey(40, 'L');  // stored outside the item
char g_old[] = "old", g_new[] = "new";

util_ht_t *table_with(const char *key) {
    util_ht_t *t = util_ht_create(0, 0, nullptr);
    EXPECT_EQ(util_ht_set(t, key, static_cast<uint32_t>(strlen(key)), g_old, 4), 0);
    EXPECT_EQ(util_ht_set(t, "other", 5, g_old, 4), 0);
    return t;
}

void *get(util_ht_t *t, const std::string &k) { return util_ht_get(t, k.data(), static_cast<uint32_t>(k.size()), nullptr); }

TEST(AllocHt, Create) {
    alloc_sweep::constructor([] { return util_ht_create(0, 0, nullptr); },
                             [](util_ht_t *t) { EXPECT_EQ(util_ht_set(t, "k", 1, g_new, 4), 0); }, util_ht_destroy);
}

TEST(AllocHt, InitEmbedded) {
    alloc_fail::sweep([](Attempt &a) {
        util_ht_t t;
        const int rc = a.run([&] { return util_ht_init(&t, 256, 0, nullptr); });
        EXPECT_EQ(rc, a.injected() ? -1 : 0);
        if (rc == 0) util_ht_deinit(&t);
        EXPECT_EQ(a.leaked(), 0u);
    });
}

// Every setter adding an absent key, short (inline) and long (own buffer):
// a failure gives -1 and the key stays absent.
struct SetRow {
    const char *name;
    int (*set)(util_ht_t *, const std::string &, void *);
};
const SetRow kSetters[] = {
    {"set", [](util_ht_t *t, const std::string &k, void *v) { return util_ht_set(t, k.data(), uint32_t(k.size()), v, 4); }},
    {"set_if_not_exists",
     [](util_ht_t *t, const std::string &k, void *v) { return util_ht_set_if_not_exists(t, k.data(), uint32_t(k.size()), v, 4); }},
    {"get_or_set",
     [](util_ht_t *t, const std::string &k, void *v) {
         return util_ht_get_or_set(t, k.data(), uint32_t(k.size()), v, 4, nullptr, nullptr);
     }},
    {"get_and_set",
     [](util_ht_t *t, const std::string &k, void *v) {
         return util_ht_get_and_set(t, k.data(), uint32_t(k.size()), v, 4, nullptr, nullptr);
     }},
    {"set_copy", [](util_ht_t *t, const std::string &k, void *v) {
         return util_ht_set_copy(t, k.data(), uint32_t(k.size()), v, 4, nullptr, nullptr);
     }},
};

TEST(AllocHt, AddAbsentKey) {
    for (const SetRow &row : kSetters) {
        for (const std::string &key : {std::string("short"), kLongKey}) {
            SCOPED_TRACE(std::string(row.name) + " " + key);
            alloc_fail::sweep([&](Attempt &a) {
                util_ht_t *t = table_with("present");
                const int rc = a.run([&] { return row.set(t, key, g_new); });
                if (a.injected()) {
                    EXPECT_EQ(rc, -1);
                    EXPECT_EQ(util_ht_exists(t, key.data(), uint32_t(key.size())), 0);
                    EXPECT_EQ(util_ht_count(t), 2u);
                } else {
                    EXPECT_EQ(rc, 0);
                    EXPECT_EQ(util_ht_count(t), 3u);
                    void *v = get(t, key);
                    ASSERT_NE(v, nullptr);
                    EXPECT_STREQ(static_cast<char *>(v), "new");
                    if (v != g_new) free(v);  // the table's copy; no free-item callback
                }
                EXPECT_EQ(get(t, "present"), g_old);
                util_ht_destroy(t);
                EXPECT_EQ(a.leaked(), 0u);
            });
        }
    }
}

// Replacing by copy: the copy is made before anything changes, so a failure
// keeps the old value (its length is reported all the same).
TEST(AllocHt, ReplaceByCopy) {
    alloc_fail::sweep([](Attempt &a) {
        util_ht_t *t = table_with("k");
        void *prev = g_new;
        uint32_t prev_len = 0;
        const int rc = a.run([&] { return util_ht_set_copy(t, "k", 1, g_new, 4, &prev, &prev_len); });
        EXPECT_EQ(prev_len, 4u);
        void *now = get(t, "k");
        if (a.injected()) {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(now, g_old);
            EXPECT_EQ(prev, g_new);  // untouched
        } else {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(prev, g_old);
            EXPECT_STREQ(static_cast<char *>(now), "new");
            free(now);
        }
        util_ht_destroy(t);
        EXPECT_EQ(a.leaked(), 0u);
    });
}

// The insert that crosses the growth trigger: the item is in (or, when its
// own memory fails, out) and growth either completes or is abandoned whole.
TEST(AllocHt, GrowthIsAllOrNothing) {
    constexpr int kTrigger = 128 + 128 / 3 + 1;
    static int values[kTrigger];
    const unsigned runs = alloc_fail::sweep([](Attempt &a) {
        util_ht_t *t = util_ht_create(0, 0, nullptr);
        char key[16];
        for (int i = 0; i < kTrigger - 1; ++i) {
            snprintf(key, sizeof key, "key%d", i);
            ASSERT_EQ(util_ht_set(t, key, uint32_t(strlen(key)), &values[i], 4), 0);
        }
        ASSERT_EQ(t->size, 128u);
        const int rc = a.run([&] { return util_ht_set(t, "key-last", 8, &values[kTrigger - 1], 4); });
        const bool added = rc == 0;
        if (a.injected()) {
            EXPECT_TRUE(rc == 0 || rc == -1);
            EXPECT_EQ(t->size, 128u);
        } else {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(t->size, 256u);
        }
        EXPECT_EQ(util_ht_count(t), added ? uint32_t(kTrigger) : uint32_t(kTrigger - 1));
        for (int i = 0; i < kTrigger - 1; ++i) {
            snprintf(key, sizeof key, "key%d", i);
            EXPECT_EQ(util_ht_get(t, key, uint32_t(strlen(key)), nullptr), &values[i]) << key;
        }
        EXPECT_EQ(util_ht_get(t, "key-last", 8, nullptr), added ? &values[kTrigger - 1] : nullptr);
        // Still growable once memory is back.
        EXPECT_EQ(util_ht_set(t, "one-more", 8, g_new, 4), 0);
        EXPECT_EQ(t->size, 256u);
        util_ht_destroy(t);
        EXPECT_EQ(a.leaked(), 0u);
    });
    EXPECT_GT(runs, 10u);  // the new slots and the buckets that emptied ones cannot cover
}

TEST(AllocHt, GetCopy) {
    alloc_fail::sweep([](Attempt &a) {
        util_ht_t *t = table_with("k");
        uint32_t len = 0;
        void *copy = a.run([&] { return util_ht_get_copy(t, "k", 1, &len); });
        if (a.injected()) {
            EXPECT_EQ(copy, nullptr);
        } else {
            ASSERT_NE(copy, nullptr);
            EXPECT_STREQ(static_cast<char *>(copy), "old");
            free(copy);
        }
        EXPECT_EQ(get(t, "k"), g_old);
        util_ht_destroy(t);
        EXPECT_EQ(a.leaked(), 0u);
    });
}

TEST(AllocHt, Snapshots) {
    for (const bool keys : {true, false}) {
        SCOPED_TRACE(keys ? "keys" : "values");
        alloc_fail::sweep([&](Attempt &a) {
            util_ht_t *t = table_with(kLongKey.c_str());
            util_ht_set(t, "third", 5, g_new, 4);
            list_t *l = a.run([&] { return keys ? util_ht_get_all_keys(t) : util_ht_get_all_values(t); });
            if (a.injected()) {
                EXPECT_EQ(l, nullptr);
            } else {
                ASSERT_NE(l, nullptr);
                EXPECT_EQ(list_count(l), 3u);
                list_destroy(l);
            }
            EXPECT_EQ(util_ht_count(t), 3u);
            util_ht_destroy(t);
            EXPECT_EQ(a.leaked(), 0u);
        });
    }
}

}  // namespace

// Tagged list with each allocation failing in turn: a failed insertion
// reports its result and leaves the entries as they were (padding past the
// end excepted, which stays by design), tagged-value constructors hand out
// none, and nothing leaks.
#include <stdint.h>
#include <string.h>

#include <vector>

#include "alloc_sweep.h"
#include "kerm_list.h"

using alloc_fail::Attempt;

namespace {

int g_vals[8];

list_t *three() {
    list_t *l = list_create();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(list_push_value(l, &g_vals[i]), 0);
    return l;
}

std::vector<void *> contents(list_t *l) {
    std::vector<void *> out;
    for (uint32_t i = 0; i < list_count(l); ++i) out.push_back(list_pick_value(l, i));
    return out;
}

TEST(AllocList, Create) {
    alloc_sweep::constructor(list_create, [](list_t *l) { EXPECT_EQ(list_push_value(l, &g_vals[0]), 0); },
                             list_destroy);
}

// Each row adds g_vals[7] to [0 1 2] with one entry allocation; `at` is where it lands.
struct AddRow {
    const char *name;
    int (*add)(list_t *, void *);
    uint32_t at;
    int failed_rc;
};
const AddRow kAdds[] = {
    {"push", [](list_t *l, void *v) { return list_push_value(l, v); }, 3, -1},
    {"unshift", [](list_t *l, void *v) { return list_unshift_value(l, v); }, 0, -1},
    {"insert middle", [](list_t *l, void *v) { return list_insert_value(l, v, 1); }, 1, -1},
    {"insert end", [](list_t *l, void *v) { return list_insert_value(l, v, 3); }, 3, -1},
    // Inserting or not, set reports none.
    {"set past end", [](list_t *l, void *v) { return list_set_value(l, 3, v) == nullptr ? 0 : 1; }, 3, 0},
};

TEST(AllocList, AddsLeaveTheListAsItWas) {
    for (const AddRow &row : kAdds) {
        SCOPED_TRACE(row.name);
        alloc_fail::sweep([&](Attempt &a) {
            list_t *l = three();
            const std::vector<void *> before = contents(l);
            const int rc = a.run([&] { return row.add(l, &g_vals[7]); });
            if (a.injected()) {
                EXPECT_EQ(rc, row.failed_rc);
                EXPECT_EQ(contents(l), before);
            } else {
                EXPECT_EQ(rc, 0);
                std::vector<void *> want = before;
                want.insert(want.begin() + row.at, &g_vals[7]);
                EXPECT_EQ(contents(l), want);
            }
            list_destroy(l);
            EXPECT_EQ(a.leaked(), 0u);
        });
    }
}

// Past the end, padding entries come first: those made before the failure
// stay, the value itself is not added, and the list stays consistent.
TEST(AllocList, InsertPastTheEndKeepsPadding) {
    const unsigned runs = alloc_fail::sweep([](Attempt &a) {
        list_t *l = three();
        const int rc = a.run([&] { return list_insert_value(l, &g_vals[7], 6); });
        const uint32_t n = list_count(l);
        if (a.injected()) {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(n, 3 + (a.k() > 1 ? a.k() - 2 : 0));  // the value's entry comes first
        } else {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(n, 7u);
            EXPECT_EQ(list_pick_value(l, 6), &g_vals[7]);
        }
        for (uint32_t i = 3; i < n && i < 6; ++i) EXPECT_EQ(list_pick_value(l, i), nullptr);
        EXPECT_EQ(list_pop_value(l), n == 7 ? &g_vals[7] : n > 3 ? nullptr : &g_vals[2]);
        list_destroy(l);
        EXPECT_EQ(a.leaked(), 0u);
    });
    EXPECT_EQ(runs, 4u);
}

TEST(AllocList, MovePastTheEndPutsTheEntryBack) {
    alloc_fail::sweep([](Attempt &a) {
        list_t *l = three();
        const int rc = a.run([&] { return list_move_value(l, 0, 4); });
        if (a.injected()) {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(list_pick_value(l, 0), &g_vals[0]);
            EXPECT_EQ(list_pick_value(l, 1), &g_vals[1]);
        } else {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(list_pick_value(l, 0), &g_vals[1]);
            EXPECT_EQ(list_pick_value(l, 4), &g_vals[0]);
        }
        list_destroy(l);
        EXPECT_EQ(a.leaked(), 0u);
    });
}

// Moves and swaps inside the list relink entries and allocate nothing.
TEST(AllocList, RelinkingAllocatesNothing) {
    list_t *l = three();
    Attempt a(1);
    a.run([&] {
        EXPECT_EQ(list_move_value(l, 0, 2), 0);
        EXPECT_EQ(list_swap_values(l, 0, 2), 0);
        EXPECT_EQ(list_foreach_value(l, [](void *, uint32_t, void *) { return 1; }, nullptr), 3);
    });
    EXPECT_EQ(a.calls(), 0u);
    list_destroy(l);
}

struct TvRow {
    const char *name;
    list_tagged_value_t *(*make)();
};
const TvRow kTaggedValues[] = {
    {"bytes", [] { return list_create_tagged_value("t", "abc", 3); }},
    {"text", [] { return list_create_tagged_value("t", "abc", 0); }},
    {"nocopy", [] { return list_create_tagged_value_nocopy("t", &g_vals[0]); }},
    {"sublist", [] { return list_create_tagged_sublist("t", nullptr); }},
    {"untagged bytes", [] { return list_create_tagged_value(nullptr, "abc", 3); }},
};

TEST(AllocList, TaggedValueConstructors) {
    for (const TvRow &row : kTaggedValues) {
        SCOPED_TRACE(row.name);
        alloc_sweep::constructor(row.make, [](list_tagged_value_t *tv) { EXPECT_EQ(tv->value == nullptr, tv->type == LIST_TV_LIST); },
                                 list_destroy_tagged_value);
    }
}

// The sub-list is taken over only by a tagged value that was made: on
// failure it stays the caller's and intact.
TEST(AllocList, SublistStaysTheCallersOnFailure) {
    alloc_fail::sweep([](Attempt &a) {
        list_t *sub = three();
        list_tagged_value_t *tv = a.run([&] { return list_create_tagged_sublist("s", sub); });
        if (a.injected()) {
            EXPECT_EQ(tv, nullptr);
            EXPECT_EQ(list_count(sub), 3u);
            list_destroy(sub);
        } else {
            list_destroy_tagged_value(tv);
        }
        EXPECT_EQ(a.leaked(), 0u);
    });
}

// A failed entry allocation gives 0 and adds nothing; the tagged value stays
// the caller's (a failed padding of an insert gives -1 likewise).
TEST(AllocList, AddTaggedValue) {
    struct Row {
        const char *name;
        int (*add)(list_t *, list_tagged_value_t *);
        int failed_rc;
    };
    const Row rows[] = {
        {"push", list_push_tagged_value, 0},
        {"unshift", list_unshift_tagged_value, 0},
        {"insert", [](list_t *l, list_tagged_value_t *tv) { return list_insert_tagged_value(l, tv, 1); }, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        alloc_fail::sweep([&](Attempt &a) {
            list_t *l = three();
            list_tagged_value_t *tv = list_create_tagged_value("t", "abc", 0);
            const int rc = a.run([&] { return row.add(l, tv); });
            EXPECT_EQ(rc, a.injected() ? row.failed_rc : 0);
            EXPECT_EQ(list_get_tagged_value(l, "t"), a.injected() ? nullptr : tv);
            EXPECT_EQ(list_count(l), a.injected() ? 3u : 4u);
            if (a.injected()) list_destroy_tagged_value(tv);
            list_destroy(l);
            EXPECT_EQ(a.leaked(), 0u);
        });
    }
    alloc_fail::sweep([&](Attempt &a) {
        list_t *l = three();
        list_tagged_value_t *tv = list_create_tagged_value("t", "abc", 0);
        const int rc = a.run([&] { return list_insert_tagged_value(l, tv, 5); });
        if (a.injected()) {
            EXPECT_EQ(rc, a.k() == 1 ? 0 : -1);
            EXPECT_EQ(list_get_tagged_value(l, "t"), nullptr);
            list_destroy_tagged_value(tv);
        } else {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(list_pick_tagged_value(l, 5), tv);
        }
        list_destroy(l);
        EXPECT_EQ(a.leaked(), 0u);
    });
}

// Replacing a present tag builds the new tagged value first: when that
// fails the old one stays; appending a new tag drops the new value on failure.
TEST(AllocList, SetTaggedValue) {
    for (const bool present : {true, false}) {
        SCOPED_TRACE(present ? "replace" : "append");
        alloc_fail::sweep([&](Attempt &a) {
            list_t *l = three();
            list_tagged_value_t *old = list_create_tagged_value("t", "old", 0);
            if (present) {
                ASSERT_EQ(list_push_tagged_value(l, old), 0);
            }
            const intptr_t rc = a.run([&] { return list_set_tagged_value(l, "t", const_cast<char *>("new"), 0, 1); });
            list_tagged_value_t *now = list_get_tagged_value(l, "t");
            if (a.injected()) {
                EXPECT_EQ(rc, 0);
                EXPECT_EQ(now, present ? old : nullptr);
            } else {
                EXPECT_EQ(rc, present ? reinterpret_cast<intptr_t>(old) : 0);
                ASSERT_NE(now, nullptr);
                EXPECT_STREQ(static_cast<char *>(now->value), "new");
            }
            if (!present || (!a.injected())) list_destroy_tagged_value(old);
            list_destroy(l);
            EXPECT_EQ(a.leaked(), 0u);
        });
    }
}

TEST(AllocList, GetTaggedValuesSkipsTheFailedAppend) {
    alloc_fail::sweep([](Attempt &a) {
        list_t *l = list_create();
        for (int i = 0; i < 3; ++i) list_push_tagged_value(l, list_create_tagged_value_nocopy("t", &g_vals[i]));
        list_t *out = list_create();
        const int n = a.run([&] { return list_get_tagged_values(l, "t", out); });
        // The value whose append failed is skipped; the others still go.
        EXPECT_EQ(n, a.injected() ? 2 : 3);
        std::vector<void *> want;
        for (unsigned i = 0; i < 3; ++i)
            if (!a.injected() || i + 1 != a.k()) want.push_back(&g_vals[i]);
        EXPECT_EQ(contents(out), want);
        list_destroy(out);
        list_destroy(l);
        EXPECT_EQ(a.leaked(), 0u);
    });
}

TEST(AllocList, SliceCreate) {
    alloc_fail::sweep([](Attempt &a) {
        list_t *l = three();
        slice_t *s = a.run([&] { return slice_create(l, 1, 2); });
        if (a.injected()) {
            EXPECT_EQ(s, nullptr);
            EXPECT_EQ(l->slices, nullptr);
        } else {
            ASSERT_NE(s, nullptr);
            EXPECT_EQ(slice_foreach_value(s, [](void *, uint32_t, void *) { return 1; }, nullptr), 2);
        }
        list_destroy(l);  // also releases a slice left in the chain
        EXPECT_EQ(a.leaked(), 0u);
    });
}

}  // namespace

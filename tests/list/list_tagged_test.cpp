// Tagged values: constructors, ownership on clear and destroy, tag lookups
// and replacement.
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "kerm_list.h"
#include "list/list_test_util.h"

using listtest::U;
using listtest::V;

namespace {

std::vector<void *> g_freed;
void record_free(void *v) { g_freed.push_back(v); }

TEST(ListTagged, ConstructorsKindsAndLengths) {
    const unsigned char bytes[] = {1, 0, 2};
    struct Case {
        list_tagged_value_t *tv;
        const char *tag;
        uint32_t vlen, type;
    } cases[] = {
        {list_create_tagged_value("b", bytes, 3), "b", 3, LIST_TV_BYTES},
        {list_create_tagged_value("t", "text", 0), "t", 4, LIST_TV_TEXT},
        {list_create_tagged_value("e", "", 0), "e", 0, LIST_TV_TEXT},
        {list_create_tagged_value(nullptr, "x", 0), nullptr, 1, LIST_TV_TEXT},
    };
    for (auto &c : cases) {
        ASSERT_NE(c.tv, nullptr);
        EXPECT_STREQ(c.tv->tag, c.tag);  // both null for the untagged one
        EXPECT_EQ(c.tv->vlen, c.vlen);
        EXPECT_EQ(c.tv->type, c.type);
        EXPECT_EQ(static_cast<char *>(c.tv->value)[c.vlen], '\0');  // bytes are zero-terminated too
        list_destroy_tagged_value(c.tv);  // copies are freed (leak sanitizer)
    }
    EXPECT_EQ(memcmp(bytes, "\1\0\2", 3), 0);

    list_tagged_value_t *only_tag = list_create_tagged_value("k", nullptr, 5);
    ASSERT_NE(only_tag, nullptr);
    EXPECT_EQ(only_tag->value, nullptr);
    EXPECT_EQ(only_tag->vlen, 0u);
    list_destroy_tagged_value(only_tag);

    char borrowed[] = "on the stack";  // freeing it would be caught by the address sanitizer
    list_tagged_value_t *nc = list_create_tagged_value_nocopy("n", borrowed);
    EXPECT_EQ(nc->value, borrowed);
    EXPECT_EQ(nc->vlen, 0u);
    list_destroy_tagged_value(nc);
}

TEST(ListTagged, ClearHandsTheCallbackOnAndDestroysSublists) {
    g_freed.clear();
    list_t *l = list_create();
    list_t *sub = list_create();
    list_push_value(sub, V(0x51));
    char borrowed[] = "b";
    list_push_tagged_value(l, list_create_tagged_value_nocopy("a", borrowed));
    list_push_tagged_value(l, list_create_tagged_sublist("s", sub));
    list_push_value(l, V(0x77));
    list_insert_tagged_value(l, list_create_tagged_value_nocopy("p", V(0x99)), 5);  // padded to position 5
    EXPECT_EQ(list_count(l), 6u);
    // Without a callback the borrowed pointers survive and the sub-list goes.
    list_t *keep = list_create();
    list_push_tagged_value(keep, list_create_tagged_value_nocopy("a", borrowed));
    list_destroy(keep);

    list_set_free_value_callback(l, record_free);
    list_set_free_value_callback(sub, record_free);
    list_clear(l);
    // Borrowed values, the plain value and the padding reach the callback;
    // the sub-list is destroyed with the list's callback handed on to it.
    EXPECT_EQ(g_freed, (std::vector<void *>{borrowed, V(0x51), V(0x77), nullptr, nullptr, V(0x99)}));
    EXPECT_EQ(list_count(l), 0u);
    list_destroy(l);
}

TEST(ListTagged, LookupAndReplace) {
    list_t *l = list_create();
    EXPECT_EQ(list_push_tagged_value(l, nullptr), 0);
    EXPECT_EQ(list_count(l), 0u);
    list_push_tagged_value(l, list_create_tagged_value("k", "one", 0));
    list_push_value(l, V(5));
    list_push_tagged_value(l, list_create_tagged_value(nullptr, "untagged", 0));
    list_push_tagged_value(l, list_create_tagged_value("k", "two", 0));
    list_unshift_tagged_value(l, list_create_tagged_value("z", "zero", 0));

    EXPECT_STREQ(static_cast<char *>(list_get_tagged_value(l, "k")->value), "one");
    EXPECT_EQ(list_get_tagged_value(l, "none"), nullptr);
    list_t *out = list_create();
    EXPECT_EQ(list_get_tagged_values(l, "k", out), 2);
    EXPECT_STREQ(static_cast<char *>(list_pick_value(out, 1)), "two");
    list_destroy(out);

    // Replacing hands the old tagged value to the caller.
    intptr_t old = list_set_tagged_value(l, "k", const_cast<char *>("uno"), 0, 1);
    ASSERT_NE(old, 0);
    auto *oldtv = reinterpret_cast<list_tagged_value_t *>(old);
    EXPECT_STREQ(static_cast<char *>(oldtv->value), "one");
    list_destroy_tagged_value(oldtv);
    EXPECT_STREQ(static_cast<char *>(list_pick_tagged_value(l, 1)->value), "uno");
    EXPECT_EQ(list_count(l), 5u);

    // A new tag is appended and stays usable.
    EXPECT_EQ(list_set_tagged_value(l, "new", const_cast<char *>("abc"), 2, 1), 0);
    ASSERT_EQ(list_count(l), 6u);
    list_tagged_value_t *added = list_get_tagged_value(l, "new");
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(added->vlen, 2u);
    EXPECT_EQ(std::string(static_cast<char *>(added->value)), "ab");
    EXPECT_EQ(list_set_tagged_value(nullptr, "k", nullptr, 0, 0), 0);
    EXPECT_EQ(list_set_tagged_value(l, nullptr, nullptr, 0, 0), 0);

    // Head, tail, then the untagged one in the middle.
    using Taken = std::pair<list_tagged_value_t *, const char *>;
    for (auto [tv, tag] : {Taken{shift_tagged_value(l), "z"}, Taken{list_pop_tagged_value(l), "new"},
                           Taken{list_fetch_tagged_value(l, 2), nullptr}}) {
        EXPECT_STREQ(tv->tag, tag);
        list_destroy_tagged_value(tv);
    }
    list_destroy(l);
}

}  // namespace

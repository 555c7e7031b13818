// Layouts of the ordered maps (skip list, trie, red-black and AVL trees) and
// their structure checkers, shared by the sources, the tests and the fuzz
// target. Not installed.
#ifndef KERM_MAPS_INTERNAL_H
#define KERM_MAPS_INTERNAL_H

#include <stdint.h>

#include "kerm_avlt.h"
#include "kerm_rbt.h"
#include "kerm_skiplist.h"
#include "kerm_trie.h"

// ---- skip list ----
struct kerm_sl_node;
struct kerm_sl_link {
    kerm_sl_node *owner;
    kerm_sl_link *next;
    kerm_sl_link **prev_next;  // the previous link's next field (or the head's first)
};
struct kerm_sl_head {
    kerm_sl_link *first;
    kerm_sl_link **last_next;  // the last link's next field (or &first when empty)
};
struct kerm_sl_node {
    uint8_t *key;
    uint32_t len;
    void *value;
    uint8_t *present;  // 1 per level where the node is linked
    kerm_sl_link *links;
};
struct util_skiplist {
    int32_t levels;
    uint32_t percent;
    util_skiplist_cmp_fn compare;
    util_skiplist_free_fn free_value;
    kerm_sl_head *heads;
    int32_t count;
};

// ---- trie ----
struct kerm_trie_node {
    void *data;
    uint32_t size;
    uint32_t owned;
    uint32_t child_count;
    kerm_trie_node *children[256];
    kerm_trie_node *parent;
    uint8_t byte;
};
struct util_trie {
    uint32_t key_count;
    uint32_t node_count;
    kerm_trie_node *root;
    util_trie_free_fn free_data;
};

// ---- red-black tree ----
enum : uint32_t { KERM_RB_RED = 0, KERM_RB_BLACK = 1 };
struct kerm_rb_node {
    kerm_rb_node *left, *right, *parent;
    kerm_rb_node *walk_next;  // visiting order fixed at the start of a walk
    uint32_t color;
    uint32_t key_len;
    void *value;
    uint8_t key[];  // the key copy lives in the node's own allocation
};
struct util_rbt {
    kerm_rb_node *root;
    util_rbt_cmp_fn cmp;
    util_rbt_free_fn free_value;
};

// ---- AVL tree ----
struct kerm_avl_node {
    uint8_t *key;
    uint32_t key_len;
    void *value;
    kerm_avl_node *left, *right, *parent;
    int32_t left_height, right_height;
    // Walk bookkeeping, filled at the start of a walk: the breadth-first queue
    // (qnext) or the children the in-order walk follows (wleft, wright).
    kerm_avl_node *qnext;
    kerm_avl_node *wleft, *wright;
};
struct util_avlt {
    kerm_avl_node *root;
    util_avlt_cmp_fn cmp;
    util_avlt_free_fn free_value;
};

namespace kerm {

// Each checker returns null when the structure is sound, else a short text
// naming the first broken rule.

// Levels sorted by the comparator, back pointers, present flags, level 0
// holding every node, count.
const char *skiplist_check(const util_skiplist *list) noexcept;
// Parent links and bytes, child counts, node_count against the real node
// number (key_count is not checked: it may legitimately drift and wrap).
const char *trie_check(const util_trie *trie) noexcept;
// Root black, no red node with a red child, equal black height on every
// path, parent links; with `sorted`, also in-order strictly ascending by the
// tree's comparison.
const char *rbt_check(const util_rbt *tree, bool sorted) noexcept;
// Side heights equal to the children's real heights, balance within 1,
// parent links. Key order is deliberately not checked (insertion shortcut).
const char *avlt_check(const util_avlt *tree) noexcept;

// The tree's own comparison (its comparator, or the built-in one).
int32_t rbt_compare(const util_rbt *tree, const void *a, uint32_t la, const void *b, uint32_t lb) noexcept;

}  // namespace kerm

#endif

// Red-black tree with parent links; every key copy lives in its node's own
// allocation.
//
// The tree is a valid red-black tree after every operation (root black, no
// red node with a red child, equal black height on every path). Where the
// original step list could break that, this implementation follows the
// textbook repair instead, keeping every result callers see:
//  - insertion fix-up climbs from the grandparent in place instead of
//    re-adding the grandparent's entry, and paints the root black at the end
//    (re-adding could leave a red root that later insertions reported as
//    corrupted);
//  - removing a two-child node moves its neighbour node into its place with
//    the removed node's colour and repairs the neighbour's old spot (instead
//    of copying the neighbour's key and skipping the repair), so entries keep
//    their nodes, no key buffer is resized and removal cannot fail for memory;
//  - the removal fix-up's black sibling with two black children moves the
//    deficit upward when the parent was already black (stopping there is only
//    right for a red parent, where both agree).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "containers/maps_internal.h"

namespace {

using Node = kerm_rb_node;

// Two-child removals alternate process-wide: predecessor on even counts,
// successor on odd ones.
std::atomic<uint32_t> g_two_child_removals{0};

bool is_red(const Node *n) noexcept { return n && n->color == KERM_RB_RED; }

int32_t builtin_compare(const void *a, uint32_t la, const void *b, uint32_t lb) noexcept {
    const auto *x = static_cast<const uint8_t *>(a);
    const auto *y = static_cast<const uint8_t *>(b);
    uint32_t n = la < lb ? la : lb;
    int32_t diff = 0;
    for (uint32_t i = 0; i < n; ++i) {
        if (x[i] != y[i]) {
            diff = static_cast<int32_t>(x[i]) - static_cast<int32_t>(y[i]);
            break;
        }
    }
    // Deliberate: the byte difference and the length difference are added,
    // so they can cancel (0x62 equals 0x61 0x62) or flip; stored trees rely
    // on this order.
    return diff + static_cast<int32_t>(la - lb);
}

inline int32_t compare(const util_rbt *t, const void *a, uint32_t la, const void *b, uint32_t lb) noexcept {
    return t->cmp ? t->cmp(a, la, b, lb) : builtin_compare(a, la, b, lb);
}

Node *find_node(const util_rbt *t, const void *key, uint32_t len) noexcept {
    Node *n = t->root;
    while (n) {
        int32_t c = compare(t, n->key, n->key_len, key, len);
        if (c == 0) return n;
        n = c < 0 ? n->right : n->left;
    }
    return nullptr;
}

// Puts `v` (may be null) where `u` hangs.
void transplant(util_rbt *t, Node *u, Node *v) noexcept {
    if (!u->parent)
        t->root = v;
    else if (u == u->parent->left)
        u->parent->left = v;
    else
        u->parent->right = v;
    if (v) v->parent = u->parent;
}

void rotate_left(util_rbt *t, Node *x) noexcept {
    Node *r = x->right;
    x->right = r->left;
    if (r->left) r->left->parent = x;
    transplant(t, x, r);
    r->left = x;
    x->parent = r;
}

void rotate_right(util_rbt *t, Node *x) noexcept {
    Node *l = x->left;
    x->left = l->right;
    if (l->right) l->right->parent = x;
    transplant(t, x, l);
    l->right = x;
    x->parent = l;
}

void insert_fixup(util_rbt *t, Node *z) noexcept {
    while (is_red(z->parent)) {
        Node *p = z->parent;
        Node *g = p->parent;  // a red parent is never the root
        bool left = p == g->left;
        Node *u = left ? g->right : g->left;
        if (is_red(u)) {
            p->color = u->color = KERM_RB_BLACK;
            g->color = KERM_RB_RED;
            z = g;
            continue;
        }
        if (z == (left ? p->right : p->left)) {  // inner child: straighten first
            z = p;
            left ? rotate_left(t, z) : rotate_right(t, z);
            p = z->parent;
        }
        p->color = KERM_RB_BLACK;
        g->color = KERM_RB_RED;
        left ? rotate_right(t, g) : rotate_left(t, g);
    }
    t->root->color = KERM_RB_BLACK;
}

// `x` (may be null) sits where a black node left, one black short; `xp` is its parent.
void remove_fixup(util_rbt *t, Node *x, Node *xp) noexcept {
    while (x != t->root && !is_red(x)) {
        bool left = x == xp->left;
        Node *w = left ? xp->right : xp->left;  // exists: that side holds a black node more
        if (is_red(w)) {
            w->color = KERM_RB_BLACK;
            xp->color = KERM_RB_RED;
            left ? rotate_left(t, xp) : rotate_right(t, xp);
            w = left ? xp->right : xp->left;
        }
        if (!is_red(w->left) && !is_red(w->right)) {
            w->color = KERM_RB_RED;
            x = xp;  // a red parent turns black below and the loop ends
            xp = x->parent;
            continue;
        }
        if (left && !is_red(w->right)) {
            w->left->color = KERM_RB_BLACK;
            w->color = KERM_RB_RED;
            rotate_right(t, w);
            w = xp->right;
        } else if (!left && !is_red(w->left)) {
            w->right->color = KERM_RB_BLACK;
            w->color = KERM_RB_RED;
            rotate_left(t, w);
            w = xp->left;
        }
        w->color = xp->color;
        xp->color = KERM_RB_BLACK;
        (left ? w->right : w->left)->color = KERM_RB_BLACK;
        left ? rotate_left(t, xp) : rotate_right(t, xp);
        x = t->root;
    }
    if (x) x->color = KERM_RB_BLACK;
}

// Unlinks `z` and rebalances; `z` itself is not released.
void unlink_node(util_rbt *t, Node *z) noexcept {
    Node *x, *xp;
    uint32_t gone;  // colour of the position that disappears
    if (z->left && z->right) {
        bool pred = (g_two_child_removals.fetch_add(1, std::memory_order_relaxed) & 1u) == 0;
        Node *y = pred ? z->left : z->right;
        while (pred ? y->right : y->left) y = pred ? y->right : y->left;
        gone = y->color;
        x = pred ? y->left : y->right;
        if (y->parent == z) {
            xp = y;
        } else {
            xp = y->parent;
            transplant(t, y, x);
            if (pred) {
                y->left = z->left;
                y->left->parent = y;
            } else {
                y->right = z->right;
                y->right->parent = y;
            }
        }
        transplant(t, z, y);
        if (pred) {
            y->right = z->right;
            y->right->parent = y;
        } else {
            y->left = z->left;
            y->left->parent = y;
        }
        y->color = z->color;
    } else {
        x = z->left ? z->left : z->right;
        xp = z->parent;
        gone = z->color;
        transplant(t, z, x);
    }
    if (gone == KERM_RB_BLACK) remove_fixup(t, x, xp);
}

void drop_node(const util_rbt *t, Node *n, void **value_out) noexcept {
    if (value_out)
        *value_out = n->value;
    else if (t->free_value)
        t->free_value(n->value);
    free(n);
}

template <typename N>
N *leftmost(N *n) noexcept {
    while (n->left) n = n->left;
    return n;
}

// Threads the visiting order through walk_next so that removals during the
// walk cannot disturb it.
Node *thread_order(Node *root, bool sorted) noexcept {
    Node *head = nullptr, **tail = &head;
    Node *n = sorted ? leftmost(root) : root;
    while (n) {
        *tail = n;
        tail = &n->walk_next;
        if (sorted && n->right) {
            n = leftmost(n->right);
        } else if (!sorted && (n->left || n->right)) {
            n = n->left ? n->left : n->right;
        } else {
            // Climb to the next ancestor with an unvisited right side (sorted:
            // the first ancestor reached from its left).
            Node *from = n;
            n = n->parent;
            while (n && (sorted ? from != n->left : (from == n->right || !n->right))) {
                from = n;
                n = n->parent;
            }
            if (n && !sorted) n = n->right;
        }
    }
    *tail = nullptr;
    return head;
}

int32_t walk(util_rbt *t, util_rbt_walk_fn cb, void *arg, bool sorted) noexcept {
    if (!t || !t->root || !cb) return 0;
    int32_t count = 0;
    for (Node *n = thread_order(t->root, sorted); n;) {
        Node *next = n->walk_next;
        int32_t r = cb(t, n->key, n->key_len, n->value, arg);
        if (r == 0) break;
        if (r == -1 || r == -2) {
            unlink_node(t, n);
            drop_node(t, n, nullptr);
            if (r == -2) break;
        }
        ++count;
        n = next;
    }
    return count;
}

}  // namespace

extern "C" {

util_rbt *util_rbt_create(util_rbt_cmp_fn cmp, util_rbt_free_fn free_value) noexcept {
    auto *t = static_cast<util_rbt *>(calloc(1, sizeof(util_rbt)));
    if (!t) return nullptr;
    t->cmp = cmp;
    t->free_value = free_value;
    return t;
}

void util_rbt_destroy(util_rbt *tree) noexcept {
    if (!tree) return;
    Node *n = tree->root;
    while (n) {  // post order, detaching each released node from its parent
        if (n->left) {
            n = n->left;
        } else if (n->right) {
            n = n->right;
        } else {
            Node *p = n->parent;
            if (p) (p->left == n ? p->left : p->right) = nullptr;
            drop_node(tree, n, nullptr);
            n = p;
        }
    }
    free(tree);
}

int32_t util_rbt_add(util_rbt *tree, const void *key, uint32_t key_len, void *value) noexcept {
    if (!tree || (!key && key_len)) return -1;
    auto *z = static_cast<Node *>(malloc(sizeof(Node) + key_len));
    if (!z) return -1;
    if (key_len) memcpy(z->key, key, key_len);
    z->key_len = key_len;
    z->value = value;
    z->left = z->right = z->parent = z->walk_next = nullptr;
    z->color = KERM_RB_RED;
    if (!tree->root) {
        z->color = KERM_RB_BLACK;
        tree->root = z;
        return 0;
    }
    Node *parent = nullptr, *x = tree->root;
    int32_t c = 0;
    while (x) {
        // A parent link that does not lead back, or a red root, means the
        // tree was overwritten: refuse rather than build on it.
        if (x->parent != parent || (!parent && x->color != KERM_RB_BLACK)) {
            fputs("Corrupted tree\n", stderr);
            free(z);
            return -1;
        }
        c = compare(tree, x->key, x->key_len, key, key_len);
        if (c == 0) {
            // The new node takes the old one's place, colour and children.
            z->color = x->color;
            z->left = x->left;
            z->right = x->right;
            if (z->left) z->left->parent = z;
            if (z->right) z->right->parent = z;
            transplant(tree, x, z);
            if (x->value != value && tree->free_value) tree->free_value(x->value);
            free(x);
            return 1;
        }
        parent = x;
        x = c < 0 ? x->right : x->left;
    }
    z->parent = parent;
    (c < 0 ? parent->right : parent->left) = z;
    insert_fixup(tree, z);
    return 0;
}

int32_t util_rbt_find(util_rbt *tree, const void *key, uint32_t key_len, void **value_out) noexcept {
    if (!tree || (!key && key_len)) return -1;
    Node *n = find_node(tree, key, key_len);
    if (!n) return -1;
    if (value_out) *value_out = n->value;
    return 0;
}

int32_t util_rbt_remove(util_rbt *tree, const void *key, uint32_t key_len, void **value_out) noexcept {
    if (!tree || (!key && key_len)) return -1;
    Node *n = find_node(tree, key, key_len);
    if (!n) return -1;
    unlink_node(tree, n);
    drop_node(tree, n, value_out);
    return 0;
}

int32_t util_rbt_walk(util_rbt *tree, util_rbt_walk_fn callback, void *arg) noexcept {
    return walk(tree, callback, arg, false);
}

int32_t util_rbt_walk_sorted(util_rbt *tree, util_rbt_walk_fn callback, void *arg) noexcept {
    return walk(tree, callback, arg, true);
}

}  // extern "C"

int32_t kerm::rbt_compare(const util_rbt *tree, const void *a, uint32_t la, const void *b, uint32_t lb) noexcept {
    return compare(tree, a, la, b, lb);
}

namespace {

// Black height of the subtree, or -1 with `why` set at the first violation.
int32_t check_subtree(const util_rbt *t, const Node *n, const Node *parent, const char **why) noexcept {
    if (!n) return 1;
    if (n->parent != parent) {
        *why = "parent link broken";
        return -1;
    }
    if (n->color != KERM_RB_RED && n->color != KERM_RB_BLACK) {
        *why = "colour neither red nor black";
        return -1;
    }
    if (is_red(n) && (is_red(n->left) || is_red(n->right))) {
        *why = "red node with a red child";
        return -1;
    }
    int32_t l = check_subtree(t, n->left, n, why);
    if (l < 0) return -1;
    int32_t r = check_subtree(t, n->right, n, why);
    if (r < 0) return -1;
    if (l != r) {
        *why = "black heights differ";
        return -1;
    }
    return l + (n->color == KERM_RB_BLACK ? 1 : 0);
}

}  // namespace

const char *kerm::rbt_check(const util_rbt *t, bool sorted) noexcept {
    if (!t || !t->root) return nullptr;
    if (t->root->color != KERM_RB_BLACK) return "root not black";
    const char *why = nullptr;
    if (check_subtree(t, t->root, nullptr, &why) < 0) return why;
    if (sorted) {
        const Node *prev = nullptr;
        for (const Node *n = leftmost(t->root); n;) {
            if (prev && compare(t, prev->key, prev->key_len, n->key, n->key_len) >= 0) return "keys not ascending";
            prev = n;
            if (n->right) {
                n = leftmost(n->right);
            } else {
                while (n->parent && n == n->parent->right) n = n->parent;
                n = n->parent;
            }
        }
    }
    return nullptr;
}

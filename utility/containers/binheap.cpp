// Binomial-style heap over a root list, with typed key callbacks.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <limits>
#include <new>
#include <type_traits>
#include <vector>

#include "containers/binheap_internal.h"

namespace {

// ---- key callbacks -------------------------------------------------------

// Difference of two typed keys as the records define it.
template <typename T>
int32_t key_difference(T a, T b) noexcept {
    if constexpr (std::is_floating_point_v<T>) {
        // Deliberate: truncated toward zero, so keys less than 1 apart rank
        // equal; callers keep coarse floating priorities. Out of range
        // saturates and NaN gives 0, as the device's float-to-int conversion
        // does (C++ leaves those undefined).
        double d = static_cast<double>(static_cast<T>(a - b));
        if (d != d) return 0;
        if (d >= 2147483648.0) return std::numeric_limits<int32_t>::max();
        if (d <= -2147483649.0) return std::numeric_limits<int32_t>::min();
        return static_cast<int32_t>(d);
    } else if constexpr (sizeof(T) < sizeof(int32_t)) {
        return static_cast<int32_t>(a) - static_cast<int32_t>(b);
    } else {
        // Deliberate: wrapping difference of the low 32-bit words. Callers rely
        // on this order (sequence numbers that wrap compare by distance).
        return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
    }
}

// key + amount (up) or key - amount, wrapping/truncating to T; the amount is
// sign-extended for wide integers.
template <typename T>
T key_stepped(T key, int32_t amount, bool up) noexcept {
    if constexpr (std::is_floating_point_v<T>) {
        return up ? key + static_cast<T>(amount) : key - static_cast<T>(amount);
    } else {
        using U = std::make_unsigned_t<T>;
        using W = std::conditional_t<(sizeof(U) < sizeof(unsigned)), unsigned, U>;  // no promotion to int
        W k = static_cast<U>(key), a = static_cast<W>(static_cast<U>(static_cast<int64_t>(amount)));
        return static_cast<T>(static_cast<U>(up ? k + a : k - a));
    }
}

template <typename T>
struct TypedKeys {
    static int32_t compare(const void *k1, uint32_t len1, const void *k2, uint32_t len2) noexcept {
        if (len1 < sizeof(T) || len2 < sizeof(T) || len1 != len2) return static_cast<int32_t>(len1 - len2);
        T a, b;
        memcpy(&a, k1, sizeof a);  // keys carry no alignment promise
        memcpy(&b, k2, sizeof b);
        return key_difference(a, b);
    }

    static void step(const void *key, uint32_t len, void **new_key, uint32_t *new_len, int32_t amount,
                     bool up) noexcept {
        if (new_len != nullptr) *new_len = len;
        if (new_key == nullptr) return;
        *new_key = nullptr;
        if (len < sizeof(T)) return;
        auto *out = static_cast<uint8_t *>(malloc(len));
        if (out == nullptr) return;
        memcpy(out, key, len);
        T k;
        memcpy(&k, key, sizeof k);
        k = key_stepped(k, amount, up);
        memcpy(out, &k, sizeof k);
        *new_key = out;
    }
    static void increment(const void *key, uint32_t len, void **nk, uint32_t *nl, int32_t amount) noexcept {
        step(key, len, nk, nl, amount, true);
    }
    static void decrement(const void *key, uint32_t len, void **nk, uint32_t *nl, int32_t amount) noexcept {
        step(key, len, nk, nl, amount, false);
    }

    static constexpr BinHeapKeyCallbacks record{compare, increment, decrement};
};

// Default keys: byte strings ordered by length, then by memcmp; steps treat the
// key as a big-endian unsigned number.
int32_t bytes_compare(const void *k1, uint32_t len1, const void *k2, uint32_t len2) noexcept {
    if (len1 != len2) return static_cast<int32_t>(len1 - len2);
    return len1 == 0 ? 0 : memcmp(k1, k2, len1);
}

// Adds (up) or subtracts the magnitude from the last byte toward the first. A
// carry leaving the first byte is prepended as its own big-endian bytes (0x01
// for one); a borrow as the two's-complement bytes of its negation (0xFF for one).
void bytes_step(const void *key, uint32_t len, void **new_key, uint32_t *new_len, uint64_t magnitude,
                bool up) noexcept {
    uint8_t prefix[8];
    uint32_t plen = 0;
    uint8_t *body = static_cast<uint8_t *>(malloc(len + sizeof prefix));
    if (body == nullptr) {
        if (new_key != nullptr) *new_key = nullptr;
        if (new_len != nullptr) *new_len = len;
        return;
    }
    uint8_t *digits = body + sizeof prefix;
    if (len > 0) memcpy(digits, key, len);
    uint64_t carry = magnitude;
    for (uint32_t i = len; i-- > 0 && carry != 0;) {
        if (up) {
            uint64_t s = digits[i] + carry;
            digits[i] = static_cast<uint8_t>(s);
            carry = s >> 8;
        } else {
            uint64_t take = carry & 0xFF;
            carry >>= 8;
            if (digits[i] < take) ++carry;
            digits[i] = static_cast<uint8_t>(digits[i] - take);
        }
    }
    if (up) {
        for (uint64_t v = carry; v != 0; v >>= 8) prefix[sizeof prefix - 1 - plen++] = static_cast<uint8_t>(v);
    } else if (carry != 0) {
        // -borrow over the fewest bytes whose top bit still marks it negative.
        int64_t v = -static_cast<int64_t>(carry);
        uint8_t last;
        do {
            last = static_cast<uint8_t>(v);
            prefix[sizeof prefix - 1 - plen++] = last;
            v >>= 8;
        } while (v != -1 || !(last & 0x80));
    }
    memcpy(digits - plen, prefix + sizeof prefix - plen, plen);
    if (new_len != nullptr) *new_len = len + plen;
    if (new_key == nullptr) {
        free(body);
        return;
    }
    memmove(body, digits - plen, len + plen);
    *new_key = body;
}

// Signed amounts: a negative one steps the other way (INT32_MIN included).
void bytes_increment(const void *key, uint32_t len, void **nk, uint32_t *nl, int32_t amount) noexcept {
    int64_t a = amount;
    bytes_step(key, len, nk, nl, static_cast<uint64_t>(a < 0 ? -a : a), a >= 0);
}
void bytes_decrement(const void *key, uint32_t len, void **nk, uint32_t *nl, int32_t amount) noexcept {
    int64_t a = amount;
    bytes_step(key, len, nk, nl, static_cast<uint64_t>(a < 0 ? -a : a), a < 0);
}

constexpr BinHeapKeyCallbacks kBytesKeys{bytes_compare, bytes_increment, bytes_decrement};

// ---- heap ----------------------------------------------------------------

constexpr uint32_t kNoPos = 0xFFFFFFFFu;

int32_t compare_keys(const BinHeap *h, const void *k1, uint32_t l1, const void *k2, uint32_t l2) noexcept {
    return h->callbacks->compare(k1, l1, k2, l2);
}
int32_t compare_nodes(const BinHeap *h, const BinHeapNode *a, const BinHeapNode *b) noexcept {
    return compare_keys(h, a->key, a->klen, b->key, b->klen);
}

// Dominance in the heap's own order: x may stand above y.
bool dominates_key(const BinHeap *h, const void *k1, uint32_t l1, const void *k2, uint32_t l2) noexcept {
    int32_t r = compare_keys(h, k1, l1, k2, l2);
    return h->mode == BINHEAP_MODE_MAX ? r >= 0 : r <= 0;
}
bool dominates(const BinHeap *h, const BinHeapNode *x, const BinHeapNode *y) noexcept {
    return dominates_key(h, x->key, x->klen, y->key, y->klen);
}

BinHeapNode *root_at(const BinHeap *h, uint32_t pos) noexcept {
    return static_cast<BinHeapNode *>(list_pick_value(h->roots, pos));
}

bool grow_children(BinHeapNode *n, int32_t extra) noexcept {
    if (extra <= 0) return true;
    void *p = realloc(n->children, static_cast<size_t>(n->num_children + extra) * sizeof(BinHeapNode *));
    if (p == nullptr) return false;
    n->children = static_cast<BinHeapNode **>(p);
    return true;
}

// Appends child as parent's last child; false (nothing changed) when memory runs out.
bool link_under(BinHeapNode *parent, BinHeapNode *child) noexcept {
    if (!grow_children(parent, 1)) return false;
    parent->children[parent->num_children++] = child;
    child->parent = parent;
    return true;
}

// The child that dominates its siblings, later children winning ties.
int32_t dominating_child(const BinHeap *h, const BinHeapNode *n) noexcept {
    int32_t best = 0;
    for (int32_t i = 1; i < n->num_children; ++i)
        if (dominates(h, n->children[i], n->children[best])) best = i;
    return best;
}

// Extreme of a kind (BINHEAP_MODE_MAX: maximum, BINHEAP_MODE_MIN: minimum).
// *pos receives the root position of the result, or kNoPos when it is no root
// or came from the cache.
BinHeapNode *find_extreme(const BinHeap *h, uint32_t kind, bool use_cache, uint32_t *pos) noexcept {
    *pos = kNoPos;
    if (use_cache && kind == h->mode && h->top != nullptr) return h->top;
    BinHeapNode *best = nullptr;
    uint32_t n = list_count(h->roots), bpos = 0;
    for (uint32_t i = 0; i < n; ++i) {
        BinHeapNode *r = root_at(h, i);
        // The first of equal minima, the last of equal maxima.
        if (best == nullptr || (kind == BINHEAP_MODE_MIN ? compare_nodes(h, r, best) < 0 : compare_nodes(h, r, best) >= 0)) {
            best = r;
            bpos = i;
        }
    }
    if (best == nullptr) return nullptr;
    if (kind == h->mode || best->num_children == 0) {
        *pos = bpos;
        return best;
    }
    // Deliberate: the opposite extreme descends along the most extreme child
    // (later children winning ties) instead of searching the whole tree;
    // callers take it as "some low entry" (the queue evicts by it), not the lowest.
    BinHeapNode *node = best;
    while (node->num_children > 0) {
        BinHeapNode *pick = node->children[0];
        for (int32_t i = 1; i < node->num_children; ++i) {
            int32_t r = compare_nodes(h, node->children[i], pick);
            if (kind == BINHEAP_MODE_MIN ? r <= 0 : r >= 0) pick = node->children[i];
        }
        node = pick;
    }
    return node;
}

void refresh_top(BinHeap *h) noexcept {
    uint32_t pos;
    h->top = nullptr;
    h->top = find_extreme(h, h->mode, false, &pos);
}

void free_node(BinHeapNode *n) noexcept {
    free(n->key);
    free(n->children);
    free(n);
}

// Unhooks a node and releases it; its children go to its parent, or, for a
// root, under the promoted dominating child that takes its place in the root
// list. False (nothing changed) when the children array cannot grow.
bool remove_node(BinHeap *h, BinHeapNode *node, uint32_t root_pos) noexcept {
    BinHeapNode *repl = nullptr;
    int32_t from = 0;  // node's children from here on move to repl
    if (node->parent != nullptr) {
        BinHeapNode *p = node->parent;
        if (!grow_children(p, node->num_children - 1)) return false;
        int32_t i = 0;
        while (p->children[i] != node) ++i;
        memmove(&p->children[i], &p->children[i + 1], static_cast<size_t>(p->num_children - i - 1) * sizeof(BinHeapNode *));
        --p->num_children;
        repl = p;
    } else {
        uint32_t pos = root_pos;
        if (pos == kNoPos) {
            uint32_t n = list_count(h->roots);
            for (pos = 0; pos < n && root_at(h, pos) != node; ++pos) {
            }
            if (pos == n) return false;
        }
        if (node->num_children > 0) {
            int32_t ci = dominating_child(h, node);
            BinHeapNode *c = node->children[ci];
            if (!grow_children(c, node->num_children - 1)) return false;
            memmove(&node->children[ci], &node->children[ci + 1],
                    static_cast<size_t>(node->num_children - ci - 1) * sizeof(BinHeapNode *));
            --node->num_children;
            c->parent = nullptr;
            list_subst_value(h->roots, pos, c);
            repl = c;
        } else {
            list_fetch_value(h->roots, pos);
        }
    }
    for (; from < node->num_children; ++from) {
        BinHeapNode *ch = node->children[from];
        repl->children[repl->num_children++] = ch;
        ch->parent = repl;
    }
    --h->count;
    bool was_top = h->top == node;
    free_node(node);
    if (was_top) refresh_top(h);
    return true;
}

void free_tree(BinHeapNode *n) noexcept {
    for (int32_t i = 0; i < n->num_children; ++i) free_tree(n->children[i]);
    free_node(n);
}

int32_t delete_extreme(BinHeap *h, uint32_t kind, void **value_out) noexcept {
    if (h == nullptr) return -1;
    uint32_t pos;
    BinHeapNode *n = find_extreme(h, kind, true, &pos);
    if (n == nullptr) return -1;
    void *value = n->value;
    if (!remove_node(h, n, pos)) return -1;
    if (value_out != nullptr) *value_out = value;
    return 0;
}

int32_t peek_extreme(BinHeap *h, uint32_t kind, void **key_out, uint32_t *klen_out, void **value_out) noexcept {
    if (h == nullptr) return -1;
    uint32_t pos;
    BinHeapNode *n = find_extreme(h, kind, true, &pos);
    if (n == nullptr) return -1;
    if (key_out != nullptr) *key_out = n->key;
    if (klen_out != nullptr) *klen_out = n->klen;
    if (value_out != nullptr) *value_out = n->value;
    return 0;
}

// Adds (up) or subtracts amount to the key of the extreme of `kind`, then
// sifts the new key up by moving parents' keys and values down.
void adjust_extreme(BinHeap *h, uint32_t kind, int32_t amount, bool increase) noexcept {
    if (h == nullptr || amount == 0) return;
    uint32_t pos;
    BinHeapNode *node = find_extreme(h, kind, true, &pos);
    if (node == nullptr) return;
    // A negative amount steps the other way by its magnitude; INT32_MIN has
    // none in 32 bits and goes as it is, which every record reads as the same value.
    bool step_up = increase;
    if (amount < 0 && amount != std::numeric_limits<int32_t>::min()) {
        step_up = !step_up;
        amount = -amount;
    }
    void *nk = nullptr;
    uint32_t nl = 0;
    (step_up ? h->callbacks->increment : h->callbacks->decrement)(node->key, node->klen, &nk, &nl, amount);
    if (nk == nullptr) return;
    uint8_t *old_key = node->key;
    void *value = node->value;
    BinHeapNode *cur = node;
    // Deliberate: sift up only, and the cached top stays as it is. Callers
    // raise the top of a max-heap (or lower that of a min-heap); the other
    // directions leave the heap out of order and are theirs to avoid.
    while (cur->parent != nullptr && dominates_key(h, nk, nl, cur->parent->key, cur->parent->klen)) {
        cur->key = cur->parent->key;
        cur->klen = cur->parent->klen;
        cur->value = cur->parent->value;
        cur = cur->parent;
    }
    cur->key = static_cast<uint8_t *>(nk);
    cur->klen = nl;
    cur->value = value;
    free(old_key);
}

struct Walk {
    BinHeap *heap;
    BinHeapWalkCallback cb;
    void *priv;
    uint32_t visited;
};

// Preorder visit; returns true when the walk must stop. *removed tells whether
// the node was taken out (its later siblings then shift down one slot).
bool walk_node(Walk &w, BinHeapNode *node, uint32_t root_pos, bool *removed) noexcept {
    *removed = false;
    ++w.visited;
    int32_t r = w.cb(w.heap, node->key, node->klen, node->value, w.priv);
    bool descend = r == 1 || r == -1;
    bool remove = r == -1 || r == -2;
    bool stop = !descend;
    if (descend) {
        // Only the children present now: those a removed child hands up are
        // appended behind them and were visited already.
        int32_t n = node->num_children, i = 0;
        for (int32_t k = 0; k < n; ++k) {
            bool child_removed;
            bool child_stop = walk_node(w, node->children[i], kNoPos, &child_removed);
            if (!child_removed) ++i;
            if (child_stop) {
                stop = true;
                break;
            }
        }
    }
    if (remove) *removed = remove_node(w.heap, node, root_pos);
    return stop;
}

}  // namespace

extern "C" {

const BinHeapKeyCallbacks *util_binheap_keys_callbacks_int16_t(void) noexcept { return &TypedKeys<int16_t>::record; }
const BinHeapKeyCallbacks *util_binheap_keys_callbacks_uint16_t(void) noexcept { return &TypedKeys<uint16_t>::record; }
const BinHeapKeyCallbacks *util_binheap_keys_callbacks_int32_t(void) noexcept { return &TypedKeys<int32_t>::record; }
const BinHeapKeyCallbacks *util_binheap_keys_callbacks_uint32_t(void) noexcept { return &TypedKeys<uint32_t>::record; }
const BinHeapKeyCallbacks *util_binheap_keys_callbacks_int64_t(void) noexcept { return &TypedKeys<int64_t>::record; }
const BinHeapKeyCallbacks *util_binheap_keys_callbacks_uint64_t(void) noexcept { return &TypedKeys<uint64_t>::record; }
const BinHeapKeyCallbacks *util_binheap_keys_callbacks_float(void) noexcept { return &TypedKeys<float>::record; }
const BinHeapKeyCallbacks *util_binheap_keys_callbacks_double(void) noexcept { return &TypedKeys<double>::record; }
const BinHeapKeyCallbacks *util_binheap_keys_callbacks_default(void) noexcept { return &kBytesKeys; }

BinHeap *util_binheap_create(const BinHeapKeyCallbacks *callbacks, uint32_t mode) noexcept {
    if (mode != BINHEAP_MODE_MAX && mode != BINHEAP_MODE_MIN) return nullptr;
    auto *h = static_cast<BinHeap *>(calloc(1, sizeof(BinHeap)));
    if (h == nullptr) return nullptr;
    h->roots = list_create();
    if (h->roots == nullptr) {
        free(h);
        return nullptr;
    }
    h->callbacks = callbacks != nullptr ? callbacks : &kBytesKeys;
    h->mode = mode;
    return h;
}

void util_binheap_destroy(BinHeap *heap) noexcept {
    if (heap == nullptr) return;
    while (auto *r = static_cast<BinHeapNode *>(list_shift_value(heap->roots))) free_tree(r);
    list_destroy(heap->roots);
    free(heap);
}

int32_t util_binheap_insert(BinHeap *heap, const void *key, uint32_t klen, void *value) noexcept {
    if (heap == nullptr || (key == nullptr && klen > 0)) return -1;
    auto *node = static_cast<BinHeapNode *>(calloc(1, sizeof(BinHeapNode)));
    if (node == nullptr) return -1;
    node->key = static_cast<uint8_t *>(malloc(klen > 0 ? klen : 1));
    // The root-list entry is taken first so that nothing below can fail.
    if (node->key == nullptr || list_unshift_value(heap->roots, node) != 0) {
        free_node(node);
        return -1;
    }
    if (klen > 0) memcpy(node->key, key, klen);
    node->klen = klen;
    node->value = value;
    // Link with the following roots while degrees match; the new tree keeps
    // the front slot. Ties go to the new tree, so a newer equal key parents.
    BinHeapNode *tree = node;
    for (int32_t d = 0;; ++d) {
        BinHeapNode *r = root_at(heap, 1);
        if (r == nullptr || r->num_children != d) break;
        bool keep = dominates(heap, tree, r);
        BinHeapNode *parent = keep ? tree : r;
        // Out of memory: the two trees stay side by side, which only costs balance.
        if (!link_under(parent, keep ? r : tree)) break;
        list_fetch_value(heap->roots, 1);
        list_subst_value(heap->roots, 0, parent);
        tree = parent;
    }
    ++heap->count;
    if (heap->top != nullptr)
        refresh_top(heap);
    else
        heap->top = tree;
    return 0;
}

int32_t util_binheap_delete(BinHeap *heap, const void *key, uint32_t klen, void **value_out) noexcept {
    if (heap == nullptr) return -1;
    // Among the entries that may hold the key below them, the one closest to
    // it: the smallest such in a max-heap, the largest in a min-heap, later
    // ones winning ties.
    auto closer = [heap](const BinHeapNode *x, const BinHeapNode *best) {
        int32_t r = compare_nodes(heap, x, best);
        return heap->mode == BINHEAP_MODE_MAX ? r <= 0 : r >= 0;
    };
    BinHeapNode *cand = nullptr;
    uint32_t pos = kNoPos, n = list_count(heap->roots);
    for (uint32_t i = 0; i < n; ++i) {
        BinHeapNode *r = root_at(heap, i);
        if (dominates_key(heap, r->key, r->klen, key, klen) && (cand == nullptr || closer(r, cand))) {
            cand = r;
            pos = i;
        }
    }
    // Deliberate: one greedy path; an equal key in another subtree is not
    // found. Callers delete keys they know to be near the top.
    while (cand != nullptr && compare_keys(heap, cand->key, cand->klen, key, klen) != 0) {
        BinHeapNode *next = nullptr;
        for (int32_t i = 0; i < cand->num_children; ++i) {
            BinHeapNode *c = cand->children[i];
            if (dominates_key(heap, c->key, c->klen, key, klen) && (next == nullptr || closer(c, next))) next = c;
        }
        cand = next;
        pos = kNoPos;
    }
    if (cand == nullptr) return -1;
    void *value = cand->value;
    if (!remove_node(heap, cand, pos)) return -1;
    if (value_out != nullptr) *value_out = value;
    return 0;
}

int32_t util_binheap_maximum(BinHeap *heap, void **key_out, uint32_t *klen_out, void **value_out) noexcept {
    return peek_extreme(heap, BINHEAP_MODE_MAX, key_out, klen_out, value_out);
}

int32_t util_binheap_minimum(BinHeap *heap, void **key_out, uint32_t *klen_out, void **value_out) noexcept {
    return peek_extreme(heap, BINHEAP_MODE_MIN, key_out, klen_out, value_out);
}

int32_t util_binheap_delete_maximum(BinHeap *heap, void **value_out) noexcept {
    return delete_extreme(heap, BINHEAP_MODE_MAX, value_out);
}

int32_t util_binheap_delete_minimum(BinHeap *heap, void **value_out) noexcept {
    return delete_extreme(heap, BINHEAP_MODE_MIN, value_out);
}

uint32_t util_binheap_count(BinHeap *heap) noexcept { return heap != nullptr ? heap->count : 0; }

BinHeap *util_binheap_merge(BinHeap *a, BinHeap *b) noexcept {
    if (a == nullptr || b == nullptr || a == b || a->mode != b->mode) return nullptr;
    BinHeap *h = util_binheap_create(a->callbacks, a->mode);
    if (h == nullptr) return nullptr;
    std::vector<BinHeapNode *> trees;
    try {
        trees.reserve(list_count(a->roots) + list_count(b->roots));
    } catch (const std::bad_alloc &) {
        util_binheap_destroy(h);
        return nullptr;
    }
    for (BinHeap *src : {a, b}) {
        while (auto *r = static_cast<BinHeapNode *>(list_shift_value(src->roots))) trees.push_back(r);
        h->count += src->count;
        src->count = 0;
        src->top = nullptr;
    }
    // Union as binomial heaps do it: by increasing degree, equal degrees linked
    // (a's tree parents on equal keys), the result strictly increasing.
    std::stable_sort(trees.begin(), trees.end(),
                     [](const BinHeapNode *x, const BinHeapNode *y) { return x->num_children < y->num_children; });
    size_t out = 0;
    for (BinHeapNode *t : trees) {
        while (out > 0 && trees[out - 1]->num_children == t->num_children) {
            BinHeapNode *prev = trees[out - 1];
            bool keep = dominates(h, prev, t);
            if (!link_under(keep ? prev : t, keep ? t : prev)) break;
            t = keep ? prev : t;
            --out;
        }
        trees[out++] = t;
    }
    for (size_t i = 0; i < out; ++i) {
        if (list_push_value(h->roots, trees[i]) != 0) {
            for (size_t j = i; j < out; ++j) free_tree(trees[j]);
            util_binheap_destroy(h);
            return nullptr;
        }
    }
    refresh_top(h);
    return h;
}

void util_binheap_increase_maximum(BinHeap *heap, int32_t amount) noexcept {
    adjust_extreme(heap, BINHEAP_MODE_MAX, amount, true);
}
void util_binheap_decrease_maximum(BinHeap *heap, int32_t amount) noexcept {
    adjust_extreme(heap, BINHEAP_MODE_MAX, amount, false);
}
void util_binheap_increase_minimum(BinHeap *heap, int32_t amount) noexcept {
    adjust_extreme(heap, BINHEAP_MODE_MIN, amount, true);
}
void util_binheap_decrease_minimum(BinHeap *heap, int32_t amount) noexcept {
    adjust_extreme(heap, BINHEAP_MODE_MIN, amount, false);
}

uint32_t util_binheap_walk(BinHeap *heap, BinHeapWalkCallback callback, void *priv) noexcept {
    if (heap == nullptr || callback == nullptr) return 0;
    Walk w{heap, callback, priv, 0};
    for (uint32_t pos = 0; pos < list_count(heap->roots);) {
        uint32_t before = list_count(heap->roots);
        bool removed;
        bool stop = walk_node(w, root_at(heap, pos), pos, &removed);
        // A root removed without children leaves the list; one with children
        // is replaced in place by its promoted child, whose tree was visited.
        if (!removed || list_count(heap->roots) == before) ++pos;
        if (stop) break;
    }
    return w.visited;
}

}  // extern "C"

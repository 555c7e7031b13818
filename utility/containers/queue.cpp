// Lock-free double-ended queue: a doubly linked list between two sentinel
// entries, linked by reference-counted links whose bit 0 marks a deleted
// entry; retired entries are reclaimed in batches by the reference-count
// context (threshold 1024) and handed to util_queue_reusable_entry.
//
// What was added so that any number of threads may push and pop at both ends
// at once (a push and a pop at the same end, or pops at both ends on
// neighbouring entries, otherwise lose or duplicate values or hang):
// - The next links are the truth; prev links are hints. A push links the new
//   entry into its neighbour's next link first and fixes the prev link after;
//   a pop marks the entry's next link (the moment it is deleted), then its
//   prev link, and then unlinks it.
// - Helping: whoever finds a prev link that does not match (a push not yet
//   finished) repairs it, and whoever walks past an entry whose next link is
//   marked unlinks it first (help_insert). So no operation waits for another.
// - A finished pop moves its entry's own links off neighbours that are
//   deleted as well, so dead entries never keep each other alive.
// - An entry's links are released when its last reference goes (a terminate
//   callback) rather than at the end of the pop: another thread may still be
//   walking from it until then.
// - Every link holds one counted reference and so does every pointer a thread
//   works with; a reference is only taken through a link that still holds the
//   node (the link is read again after the count is raised).
// Pops no longer yield once at their end, and a lost compare-and-swap is
// followed by a short spin rather than a yield (the yield cost more than the
// contention it eased). Single-threaded results are unchanged.
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "containers/refcnt_internal.h"
#include "containers/rqueue_internal.h"
#include "kerm_queue.h"

struct util_queue_entry {
    util_refcnt_node_t *node;  // this entry's node (its object is the entry)
    util_refcnt_node_t *prev;  // link, bit 0: deleted
    util_refcnt_node_t *next;  // link, bit 0: deleted
    void *value;
    util_queue_t *queue;
};

static_assert(sizeof(void *) != 4 || sizeof(util_queue_entry) == 20, "entry is 20 bytes on the target");
static_assert(sizeof(void *) != 4 || sizeof(util_queue_t) == 32, "queue record is 32 bytes on the target");

namespace {

using Node = util_refcnt_node_t;

constexpr uint32_t kThreshold = 1024;

Node *node_at(uintptr_t w) { return reinterpret_cast<Node *>(w & ~uintptr_t{1}); }
uintptr_t bits(Node *n) { return reinterpret_cast<uintptr_t>(n); }
util_queue_entry *entry(Node *n) { return static_cast<util_queue_entry *>(kerm::refcnt_object(n)); }
Node **prev_of(Node *n) { return &entry(n)->prev; }
Node **next_of(Node *n) { return &entry(n)->next; }
uintptr_t load(Node **link) { return bits(std::atomic_ref<Node *>(*link).load()); }
bool mark(Node **link, uintptr_t expected) {
    Node *exp = reinterpret_cast<Node *>(expected);
    return std::atomic_ref<Node *>(*link).compare_exchange_strong(exp, reinterpret_cast<Node *>(expected | 1));
}
std::atomic_ref<uint32_t> count_of(util_queue_t *q) { return std::atomic_ref<uint32_t>(q->count); }
std::atomic_ref<util_rqueue_t *> pool_of(util_queue_t *q) { return std::atomic_ref<util_rqueue_t *>(q->bpool); }

// After a lost compare-and-swap: another thread made progress; let it
// finish its next step before trying again.
void backoff() {
    for (int i = 0; i < 16; ++i) kerm::cpu_relax();
}

struct Ctx {
    util_refcnt_t *rc;
    Node *read(Node **link) const { return deref_link(rc, link); }
    Node *read_del(Node **link) const { return deref_link_d(rc, link); }
    Node *copy(Node *n) const { return retain_ref(rc, n); }
    void release(Node *n) const {
        if (n) release_ref(rc, n);
    }
    bool swing(Node **link, uintptr_t expected, uintptr_t node) const {
        return kerm::refcnt_swing(rc, link, expected, node);
    }

    // store_ref on a link of an entry no other thread can reach yet (a push
    // before the swing that publishes it): a plain store does what the
    // exchange would, and the swing's full barrier publishes it. The caller
    // holds a reference on n, so retain_ref cannot refuse it.
    void set_unpublished(Node **link, Node *n) const {
        copy(n);
        std::atomic_ref<Node *> word(*link);
        Node *old = word.load(std::memory_order_relaxed);
        word.store(n, std::memory_order_relaxed);
        release(old);
    }

    // Marks the entry's prev link deleted (its next link already is).
    void mark_prev(Node *n) const {
        for (;;) {
            uintptr_t l = load(prev_of(n));
            if ((l & 1) || mark(prev_of(n), l)) return;
        }
    }

    // Finds the live entry before `node`, starting from `prev` and walking
    // right, unlinking deleted entries on the way, and points node's prev
    // link at it. Takes over the caller's reference on prev and returns a
    // reference on the entry found.
    Node *help_insert(Node *prev, Node *node) const {
        Node *last = nullptr;
        for (;;) {
            Node *prev2 = read(next_of(prev));
            if (!prev2) {
                // prev is deleted: unlink it behind the live entry we came
                // from, or step back when there is none.
                if (last) {
                    mark_prev(prev);
                    Node *next2 = read_del(next_of(prev));
                    swing(next_of(last), bits(prev), bits(next2));
                    release(next2);
                    release(prev);
                    prev = last;
                    last = nullptr;
                } else {
                    prev2 = read_del(prev_of(prev));
                    release(prev);
                    prev = prev2;
                }
                continue;
            }
            uintptr_t link1 = load(prev_of(node));
            if (link1 & 1) {  // node itself is being deleted: nothing to fix
                release(prev2);
                break;
            }
            if (prev2 != node) {
                release(last);
                last = prev;
                prev = prev2;
                continue;
            }
            release(prev2);
            if (swing(prev_of(node), link1, bits(prev))) {
                if (load(prev_of(prev)) & 1) continue;  // prev got deleted meanwhile
                break;
            }
            backoff();
        }
        release(last);
        return prev;
    }

    // Second half of a push: the right neighbour's prev link to the new entry.
    void push_end(Node *node, Node *next) const {
        for (;;) {
            uintptr_t link1 = load(prev_of(next));
            if ((link1 & 1) || load(next_of(node)) != bits(next)) break;
            if (swing(prev_of(next), link1, bits(node))) {
                if (load(prev_of(node)) & 1) release(help_insert(copy(node), next));
                break;
            }
            backoff();
        }
        release(next);
        release(node);
    }

    // A popped entry's links move off neighbours that are deleted too.
    void remove_cross_reference(Node *node) const {
        for (;;) {
            Node *prev = node_at(load(prev_of(node)));
            if (load(next_of(prev)) & 1) {
                Node *prev2 = read_del(prev_of(prev));
                store_ref(rc, prev_of(node), reinterpret_cast<Node *>(bits(prev2) | 1));
                release(prev2);
                continue;
            }
            Node *next = node_at(load(next_of(node)));
            if (load(next_of(next)) & 1) {
                Node *next2 = read_del(next_of(next));
                store_ref(rc, next_of(node), reinterpret_cast<Node *>(bits(next2) | 1));
                release(next2);
                continue;
            }
            return;
        }
    }
};

Node *head_node(util_queue_t *q) { return q->head->node; }
Node *tail_node(util_queue_t *q) { return q->tail->node; }

// A fresh zeroed entry with its node (count 1, held by the caller).
util_queue_entry *make_entry(util_queue_t *q, void *value) {
    auto *e = static_cast<util_queue_entry *>(calloc(1, sizeof(util_queue_entry)));
    if (!e) return nullptr;
    e->node = new_node(q->refcnt, e, nullptr);
    if (!e->node) {
        free(e);
        return nullptr;
    }
    e->value = value;
    e->queue = q;
    return e;
}

// Links a new entry between prev and next. At the left end prev is the head
// and a moved next is simply read again; at the right end next is the tail
// and the live entry before it is found by help_insert.
int32_t push(util_queue_t *q, void *value, bool left) {
    util_queue_entry *e = make_entry(q, value);
    if (!e) return -1;
    const Ctx c{q->refcnt};
    Node *node = e->node, *prev, *next;
    if (left) {
        prev = c.copy(head_node(q));
        next = c.read(next_of(prev));
    } else {
        next = c.copy(tail_node(q));
        prev = c.read(prev_of(next));
    }
    for (;;) {
        if (load(next_of(prev)) != bits(next)) {
            if (left) {
                c.release(next);
                next = c.read(next_of(prev));
            } else {
                prev = c.help_insert(prev, next);
            }
            continue;
        }
        c.set_unpublished(prev_of(node), prev);
        c.set_unpublished(next_of(node), next);
        if (c.swing(next_of(prev), bits(next), bits(node))) break;
        backoff();
    }
    c.push_end(node, next);
    c.release(prev);
    count_of(q).fetch_add(1);
    return 0;
}

// Pops tell an empty queue (false) from a stored 0.
bool pop_left(util_queue_t *q, void **value) {
    const Ctx c{q->refcnt};
    Node *prev = c.copy(head_node(q));
    Node *node;
    for (;;) {
        node = c.read(next_of(prev));
        if (node == tail_node(q)) {
            c.release(node);
            c.release(prev);
            return false;
        }
        uintptr_t link1 = load(next_of(node));
        if (link1 & 1) {  // deleted from the right end: finish unlinking it
            c.mark_prev(node);
            Node *next = c.read_del(next_of(node));
            c.swing(next_of(prev), bits(node), bits(next));
            c.release(next);
            c.release(node);
            continue;
        }
        if (mark(next_of(node), link1)) {
            c.mark_prev(node);
            Node *next = c.read_del(next_of(node));
            prev = c.help_insert(prev, next);
            c.release(prev);
            c.release(next);
            *value = entry(node)->value;
            break;
        }
        c.release(node);
        backoff();
    }
    c.remove_cross_reference(node);
    c.release(node);
    count_of(q).fetch_sub(1);
    return true;
}

bool pop_right(util_queue_t *q, void **value) {
    const Ctx c{q->refcnt};
    Node *next = c.copy(tail_node(q));
    Node *node = c.read(prev_of(next));
    for (;;) {
        if (load(next_of(node)) != bits(next)) {
            node = c.help_insert(node, next);
            continue;
        }
        if (node == head_node(q)) {
            c.release(node);
            c.release(next);
            return false;
        }
        if (mark(next_of(node), bits(next))) {
            c.mark_prev(node);
            Node *prev = c.read_del(prev_of(node));
            prev = c.help_insert(prev, next);
            c.release(prev);
            c.release(next);
            *value = entry(node)->value;
            break;
        }
        backoff();
    }
    c.remove_cross_reference(node);
    c.release(node);
    count_of(q).fetch_sub(1);
    return true;
}

// Terminate callback: a retired entry lets go of its neighbours at once, so
// popped entries never hold each other until a collection.
void terminate_entry(util_refcnt_node_t *node, void *) {
    util_queue_entry *e = entry(node);
    store_ref(e->queue->refcnt, &e->prev, nullptr);
    store_ref(e->queue->refcnt, &e->next, nullptr);
}

// Free callback of the reference-count context.
void collect_entry(void *object) { util_queue_reusable_entry(static_cast<util_queue_entry_t *>(object)); }

}  // namespace

extern "C" {

KERM_API int32_t util_queue_init(util_queue_t *queue) noexcept {
    if (!queue) return -1;
    memset(queue, 0, sizeof *queue);
    queue->refcnt = util_refcnt_create(kThreshold, terminate_entry, collect_entry);
    if (!queue->refcnt) return -1;
    util_queue_entry *head = make_entry(queue, nullptr), *tail = make_entry(queue, nullptr);
    if (!head || !tail) {
        if (head) release_ref(queue->refcnt, head->node);
        if (tail) release_ref(queue->refcnt, tail->node);
        util_refcnt_destroy(queue->refcnt);
        memset(queue, 0, sizeof *queue);
        return -1;
    }
    queue->head = head;
    queue->tail = tail;
    store_ref(queue->refcnt, &head->next, tail->node);
    store_ref(queue->refcnt, &tail->prev, head->node);
    // The sentinels live as long as the queue: every push and pop at an end
    // would otherwise write the same count.
    kerm::refcnt_pin(head->node, true);
    kerm::refcnt_pin(tail->node, true);
    return 0;
}

KERM_API util_queue_t *util_queue_create(void) noexcept {
    auto *q = static_cast<util_queue_t *>(malloc(sizeof(util_queue_t)));
    if (!q) return nullptr;
    if (util_queue_init(q) != 0) {
        free(q);
        return nullptr;
    }
    q->allocated = 1;
    return q;
}

KERM_API void util_queue_destroy(util_queue_t *queue) noexcept {
    if (!queue || !queue->refcnt) return;
    util_rqueue_destroy(pool_of(queue).exchange(nullptr));
    util_queue_clear(queue);
    // A stored 0 stopped the clear; the values behind it are released too.
    void *value;
    while (pop_left(queue, &value))
        if (value && queue->free_value) queue->free_value(value);
    util_refcnt_t *rc = queue->refcnt;
    kerm::refcnt_pin(queue->head->node, false);
    kerm::refcnt_pin(queue->tail->node, false);
    store_ref(rc, &queue->head->next, nullptr);
    store_ref(rc, &queue->tail->prev, nullptr);
    release_ref(rc, queue->head->node);
    release_ref(rc, queue->tail->node);
    util_refcnt_destroy(rc);
    if (queue->allocated) free(queue);
    else memset(queue, 0, sizeof *queue);
}

KERM_API void util_queue_clear(util_queue_t *queue) noexcept {
    if (!queue || !queue->refcnt) return;
    // Deliberate: stops at a stored 0, which a pop cannot tell from emptiness.
    while (void *value = util_queue_pop_left(queue)) {
        util_queue_free_value_callback_t cb =
            std::atomic_ref<util_queue_free_value_callback_t>(queue->free_value).load(std::memory_order_relaxed);
        if (cb) cb(value);
    }
}

KERM_API void util_queue_set_free_value_callback(util_queue_t *queue,
                                                 util_queue_free_value_callback_t callback) noexcept {
    if (queue)
        std::atomic_ref<util_queue_free_value_callback_t>(queue->free_value)
            .store(callback, std::memory_order_relaxed);
}

KERM_API uint32_t util_queue_count(util_queue_t *queue) noexcept { return queue ? count_of(queue).load() : 0; }

KERM_API int32_t util_queue_push_left(util_queue_t *queue, void *value) noexcept {
    return queue && queue->refcnt ? push(queue, value, true) : -1;
}

KERM_API int32_t util_queue_push_right(util_queue_t *queue, void *value) noexcept {
    return queue && queue->refcnt ? push(queue, value, false) : -1;
}

KERM_API void *util_queue_pop_left(util_queue_t *queue) noexcept {
    void *value = nullptr;
    return queue && queue->refcnt && pop_left(queue, &value) ? value : nullptr;
}

KERM_API void *util_queue_pop_right(util_queue_t *queue) noexcept {
    void *value = nullptr;
    return queue && queue->refcnt && pop_right(queue, &value) ? value : nullptr;
}

KERM_API uint32_t util_queue_set_bpool_size(util_queue_t *queue, uint32_t size) noexcept {
    if (!queue) return 0;
    auto pool_size = std::atomic_ref<uint32_t>(queue->bpool_size);
    uint32_t old_size = pool_size.load();
    if (old_size == size) return old_size;
    util_rqueue_t *fresh = util_rqueue_create(size, UTIL_RQUEUE_MODE_BLOCKING);
    if (!fresh) return old_size;
    util_rqueue_set_free_value_callback(fresh, kerm::rqueue_free_value);
    util_rqueue_t *current = pool_of(queue).load();
    if (pool_of(queue).compare_exchange_strong(current, fresh)) {
        pool_size.compare_exchange_strong(old_size, size);
        util_rqueue_destroy(current);  // frees the entries it held
        return old_size;
    }
    util_rqueue_destroy(fresh);
    return old_size;
}

KERM_API void util_queue_reusable_entry(util_queue_entry_t *entry) noexcept {
    if (!entry) return;
    util_queue_t *q = entry->queue;
    if (entry->node && !kerm::refcnt_retired(entry->node)) {
        // Handed back by a caller: its node retires and collection brings
        // the entry back here.
        release_ref(q->refcnt, entry->node);
        return;
    }
    entry->node = nullptr;
    util_rqueue_t *pool = pool_of(q).load();
    if (!pool || kerm::rqueue_write_budget(pool, entry, 1) != 0) free(entry);
}

KERM_API util_queue_entry_t *deutil_queue_reusable_entry(util_queue_t *queue) noexcept {
    if (!queue || !queue->refcnt) return nullptr;
    util_rqueue_t *pool = pool_of(queue).load();
    auto *e = pool ? static_cast<util_queue_entry *>(kerm::rqueue_read_budget(pool, 1)) : nullptr;
    if (!e) return make_entry(queue, nullptr);
    e->node = new_node(queue->refcnt, e, nullptr);
    if (!e->node) {
        free(e);
        return nullptr;
    }
    e->value = nullptr;
    e->queue = queue;
    return e;
}

}  // extern "C"

// Reference-counted links with deferred, batched reclamation through a
// garbage ring queue and a pool of node records.
//
// Safety of following a link rests on two things. Node records are never
// handed back to the allocator while the context lives (the pool keeps up to
// 65536; records it refuses wait on a list freed at destroy), so a thread
// that loaded a link just before its node retired may still raise and lower
// that record's count. And deref checks the link again after raising the
// count: a reference is only handed out for a node the link still holds.
// A release that loses the retiring flag to another release, whose count
// check then saw our stale reference, is caught by re-checking the count
// after the flag is dropped; the flag stays set once a node is retired, so no
// node retires twice.
//
// A link's reference on its new node is taken before the link is changed,
// not after: otherwise another thread could replace the link at once and
// release a reference that was never taken, retiring a node still in use.
#include <stdlib.h>

#include <atomic>
#include <new>

#include "containers/refcnt_internal.h"
#include "containers/rqueue_internal.h"
#include "kerm_refcnt.h"
#include "kerm_rqueue.h"

struct util_refcnt {
    util_refcnt_terminate_callback_t terminate = nullptr;
    util_refcnt_free_callback_t free_object = nullptr;
    util_rqueue_t *garbage = nullptr;  // retired nodes waiting for collection
    util_rqueue_t *pool = nullptr;     // node records ready for reuse
    uint32_t threshold = 0;
    std::atomic<util_refcnt_node *> refused{nullptr};  // records the pool had no room for
};

namespace {

constexpr uint32_t kPoolSlots = 65536;
constexpr uint32_t kMinGarbageSlots = 256;
// Internal pool and garbage-queue operations answer "full" or "empty" at
// once; a read that meets another reader spins a little, then gives up.
constexpr uint32_t kWriteAttempts = 1;
constexpr uint32_t kReadAttempts = 64;

// A collection running on this thread: releases made by the free callback
// retire nodes but leave collecting them to the loop already running.
thread_local bool t_collecting = false;

uintptr_t bits(util_refcnt_node_t *n) { return reinterpret_cast<uintptr_t>(n); }
util_refcnt_node_t *node_at(uintptr_t w) { return reinterpret_cast<util_refcnt_node_t *>(w & ~uintptr_t{1}); }
std::atomic_ref<util_refcnt_node_t *> link_of(util_refcnt_node_t **link) {
    return std::atomic_ref<util_refcnt_node_t *>(*link);
}

bool pinned(util_refcnt_node_t *n) { return n->pinned.load(std::memory_order_relaxed) != 0; }

void add_ref(util_refcnt_node_t *n) {
    if (n && !pinned(n)) n->count.fetch_add(1);
}

// Lowers a non-zero count by one; returns the count left (a pinned node's
// count stays as it is).
uint32_t drop_count(util_refcnt_node_t *n) {
    if (pinned(n)) return n->count.load();
    uint32_t c = n->count.load();
    while (c != 0 && !n->count.compare_exchange_weak(c, c - 1)) {
    }
    return c == 0 ? 0 : c - 1;
}

void keep_refused(util_refcnt_t *ctx, util_refcnt_node_t *n) {
    util_refcnt_node_t *top = ctx->refused.load();
    do {
        n->argument.store(top, std::memory_order_relaxed);
    } while (!ctx->refused.compare_exchange_weak(top, n));
}

void collect_node(util_refcnt_t *ctx, util_refcnt_node_t *n) {
    if (ctx->free_object) ctx->free_object(n->object.load());
    if (kerm::rqueue_write_budget(ctx->pool, n, kWriteAttempts) != 0) keep_refused(ctx, n);
}

void collect(util_refcnt_t *ctx, uint64_t limit) {
    const bool outer = !t_collecting;
    t_collecting = true;
    while (kerm::rqueue_pending(ctx->garbage) > limit) {
        auto *n = static_cast<util_refcnt_node_t *>(kerm::rqueue_read_budget(ctx->garbage, kReadAttempts));
        if (!n) break;
        collect_node(ctx, n);
    }
    if (outer) t_collecting = false;
}

void retire_now(util_refcnt_t *ctx, util_refcnt_node_t *n) {
    // The node reaches the garbage queue only after its terminate callback
    // returned: a collector elsewhere must not free what it still uses.
    if (ctx->terminate) ctx->terminate(n, n->argument.load(std::memory_order_relaxed));
    // A full garbage queue does not lose the node: it is collected now.
    if (kerm::rqueue_write_budget(ctx->garbage, n, kWriteAttempts) != 0) collect_node(ctx, n);
}

// Retirements caused by a terminate callback (a node dropping its links to
// other nodes) wait here and are run by the outermost retirement on this
// thread, so a long chain of nodes retires in a loop, not in deep recursion.
constexpr int kDeferred = 256;
thread_local util_refcnt_t *t_retiring_ctx = nullptr;
thread_local util_refcnt_node_t *t_deferred[kDeferred];
thread_local int t_deferred_count = 0;

void retire(util_refcnt_t *ctx, util_refcnt_node_t *n) {
    if (t_retiring_ctx == ctx && t_deferred_count < kDeferred) {
        t_deferred[t_deferred_count++] = n;
        return;
    }
    if (t_retiring_ctx) {  // another context, or the list is full
        retire_now(ctx, n);
        return;
    }
    t_retiring_ctx = ctx;
    retire_now(ctx, n);
    while (t_deferred_count > 0) retire_now(ctx, t_deferred[--t_deferred_count]);
    t_retiring_ctx = nullptr;
}

}  // namespace

namespace kerm {

bool refcnt_swing(util_refcnt_t *context, util_refcnt_node_t **link, uintptr_t expected, uintptr_t node) noexcept {
    auto *want = node_at(expected), *put = node_at(node);
    util_refcnt_node_t *exp = reinterpret_cast<util_refcnt_node_t *>(expected);
    if (put == want) return link_of(link).compare_exchange_strong(exp, reinterpret_cast<util_refcnt_node_t *>(node));
    add_ref(put);  // before the node is reachable through the link
    if (!link_of(link).compare_exchange_strong(exp, reinterpret_cast<util_refcnt_node_t *>(node))) {
        if (put) drop_count(put);  // the caller still holds its own reference
        return false;
    }
    if (want) release_ref(context, want);
    return true;
}

bool refcnt_retired(util_refcnt_node_t *node) noexcept { return node && node->retiring.load() == 1; }

void refcnt_pin(util_refcnt_node_t *node, bool pin) noexcept { node->pinned.store(pin ? 1 : 0); }

}  // namespace kerm

extern "C" {

KERM_API util_refcnt_t *util_refcnt_create(uint32_t threshold, util_refcnt_terminate_callback_t terminate_callback,
                                           util_refcnt_free_callback_t free_callback) noexcept {
    auto *ctx = new (std::nothrow) util_refcnt();
    if (!ctx) return nullptr;
    // Deliberate: the sum is compared as a signed number, so a threshold near
    // the top of the range gets the minimum queue; releases that find it full
    // collect their node at once.
    const int32_t wanted = static_cast<int32_t>(threshold + threshold / 2);
    const uint32_t slots = wanted > static_cast<int32_t>(kMinGarbageSlots) ? static_cast<uint32_t>(wanted)
                                                                           : kMinGarbageSlots;
    ctx->terminate = terminate_callback;
    ctx->free_object = free_callback;
    ctx->threshold = threshold;
    ctx->garbage = util_rqueue_create(slots, UTIL_RQUEUE_MODE_BLOCKING);
    ctx->pool = util_rqueue_create(kPoolSlots, UTIL_RQUEUE_MODE_BLOCKING);
    if (!ctx->garbage || !ctx->pool) {
        util_rqueue_destroy(ctx->garbage);
        util_rqueue_destroy(ctx->pool);
        delete ctx;
        return nullptr;
    }
    util_rqueue_set_free_value_callback(ctx->pool, kerm::rqueue_free_value);
    return ctx;
}

KERM_API void util_refcnt_destroy(util_refcnt_t *context) noexcept {
    if (!context) return;
    collect(context, 0);
    util_rqueue_destroy(context->garbage);
    util_rqueue_destroy(context->pool);
    for (util_refcnt_node_t *n = context->refused.load(); n;) {
        auto *next = static_cast<util_refcnt_node_t *>(n->argument.load(std::memory_order_relaxed));
        free(n);
        n = next;
    }
    delete context;
}

KERM_API util_refcnt_node_t *new_node(util_refcnt_t *context, void *object, void *callback_argument) noexcept {
    if (!context) return nullptr;
    auto *n = static_cast<util_refcnt_node_t *>(kerm::rqueue_read_budget(context->pool, 1));
    if (n) {
        // Published through a link's compare-and-swap later.
        n->object.store(object, std::memory_order_relaxed);
        n->argument.store(callback_argument, std::memory_order_relaxed);
        // Count before the flag: a late release by a thread that raised the
        // old count must not find flag 0 and count 0 and retire the new node.
        n->count.fetch_add(1);
        n->retiring.store(0, std::memory_order_release);
        return n;
    }
    void *raw = calloc(1, sizeof(util_refcnt_node_t));
    if (!raw) return nullptr;
    n = new (raw) util_refcnt_node_t();
    n->object.store(object);
    n->argument.store(callback_argument, std::memory_order_relaxed);
    n->count.store(1);
    return n;
}

KERM_API void *get_node_ptr(util_refcnt_node_t *node) noexcept {
    return node ? node_at(bits(node))->object.load() : nullptr;
}

KERM_API uint32_t get_node_refcount(util_refcnt_node_t *node) noexcept {
    return node ? node_at(bits(node))->count.load() : 0;
}

KERM_API util_refcnt_node_t *deref_link_internal(util_refcnt_t *context, util_refcnt_node_t **link,
                                                 int32_t skip_marked) noexcept {
    if (!context || !link) return nullptr;
    auto word = link_of(link);
    for (;;) {
        const uintptr_t w = bits(word.load());
        if ((w & 1) && skip_marked) return nullptr;
        util_refcnt_node_t *n = node_at(w);
        if (!n) return nullptr;
        if (pinned(n)) return n;  // never retires: no count, no second look
        if (n->retiring.load() == 1 && n->count.load() == 0) {
            if (bits(word.load()) == w) return nullptr;
            continue;  // the link moved on while we looked
        }
        n->count.fetch_add(1);
        if (node_at(bits(word.load())) == n) return n;
        release_ref(context, n);
    }
}

KERM_API util_refcnt_node_t *deref_link(util_refcnt_t *context, util_refcnt_node_t **link) noexcept {
    return deref_link_internal(context, link, 1);
}

KERM_API util_refcnt_node_t *deref_link_d(util_refcnt_t *context, util_refcnt_node_t **link) noexcept {
    return deref_link_internal(context, link, 0);
}

KERM_API util_refcnt_node_t *retain_ref(util_refcnt_t *, util_refcnt_node_t *node) noexcept {
    if (!node || (bits(node) & 1)) return nullptr;
    if (pinned(node)) return node;
    if (node->retiring.load() == 1 && node->count.load() == 0) return nullptr;
    node->count.fetch_add(1);
    return node;
}

KERM_API util_refcnt_node_t *release_ref(util_refcnt_t *context, util_refcnt_node_t *node) noexcept {
    if (!context || !node) return nullptr;
    node = node_at(bits(node));
    bool retired = false;
    // Others still hold it: only the release that leaves zero decides.
    for (bool decide = !pinned(node) && drop_count(node) == 0; decide;) {
        uint8_t idle = 0;
        if (!node->retiring.compare_exchange_strong(idle, 1)) break;  // another release decides
        if (node->count.load() == 0) {
            retire(context, node);
            retired = true;
            break;
        }
        node->retiring.store(0);
        // A release that found the flag held while we looked may have left
        // the count at zero: decide again rather than leave the node stranded.
        if (node->count.load() != 0) break;
    }
    if (kerm::rqueue_pending(context->garbage) > context->threshold && !t_collecting)
        collect(context, context->threshold / 2);
    return retired ? nullptr : node;
}

KERM_API void store_ref(util_refcnt_t *context, util_refcnt_node_t **link, util_refcnt_node_t *node) noexcept {
    if (!context || !link) return;
    add_ref(node_at(bits(node)));
    util_refcnt_node_t *old = link_of(link).exchange(node);
    if (node_at(bits(old))) release_ref(context, old);
}

KERM_API int32_t compare_and_swap_ref(util_refcnt_t *context, util_refcnt_node_t **link,
                                      util_refcnt_node_t *expected, util_refcnt_node_t *node) noexcept {
    if (!context || !link) return 0;
    util_refcnt_node_t *exp = expected;
    add_ref(node_at(bits(node)));
    if (!link_of(link).compare_exchange_strong(exp, node)) {
        if (node_at(bits(node))) drop_count(node_at(bits(node)));
        return 0;
    }
    if (node_at(bits(expected))) drop_count(node_at(bits(expected)));
    return 1;
}

}  // extern "C"

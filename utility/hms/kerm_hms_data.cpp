// Error node pool and error store of the health-monitoring family, and the
// packing of a client's report, which walks the store's active list.
//
// Every user of the store's two locks and of the pool lock is in this file.
// Lock order: recv_lock before the pool lock (insert, reset); state_lock
// before the pool lock (syncs and reset give nodes back) and before the
// client's timer lock (packing publishes the next period through the
// client's callback, kerm_hms.cpp). The pool lock is innermost. No operation
// holds recv_lock and state_lock at once.
#include <semaphore.h>
#include <stdlib.h>
#include <string.h>

#include "common/kerm_guard.h"
#include "common/kerm_internal.h"
#include "hms/kerm_hms_internal.h"
#include "kerm_hms.h"

namespace kerm::hms {

vask_hms_list *list_new() noexcept {
    auto *l = static_cast<vask_hms_list *>(calloc(1, sizeof(vask_hms_list)));
    if (l != nullptr) l->head.next = l->head.prev = &l->head;
    return l;
}

void list_append(vask_hms_list *l, vask_hms_node *n) noexcept {
    vask_hms_link *tail = l->head.prev;
    n->link.next = &l->head;
    n->link.prev = tail;
    tail->next = &n->link;
    l->head.prev = &n->link;
    l->count++;
}

void hms_list_unlink(vask_hms_node *n) noexcept {
    n->link.prev->next = n->link.next;
    n->link.next->prev = n->link.prev;
    n->link.next = reinterpret_cast<vask_hms_link *>(kPoisonNext);
    n->link.prev = reinterpret_cast<vask_hms_link *>(kPoisonPrev);
}

vask_hms_node *hms_list_find(vask_hms_list *l, const vask_hms_err *key) noexcept {
    if (l == nullptr || key == nullptr) return nullptr;
    for (vask_hms_link *p = l->head.next; p != &l->head; p = p->next) {
        vask_hms_node *n = node_of(p);
        if (n->err.code == key->code && n->err.index == key->index) return n;
    }
    return nullptr;
}

vask_hms_node *hms_node_take(vask_hms_pool *pool) noexcept {
    vask_hms_list *l = pool->free_list;
    if (l == nullptr || list_empty(l)) return nullptr;
    vask_hms_node *n = node_of(l->head.next);
    hms_list_unlink(n);
    l->count--;
    return n;
}

int32_t hms_node_give(vask_hms_pool *pool, vask_hms_node *n) noexcept {
    if (pool == nullptr || n == nullptr) return KERM_ERR_PARAM;
    SemGuard hold(&pool->lock);
    list_append(pool->free_list, n);
    return KERM_OK;
}

namespace {

// Frees every node of a list to the heap, then the list.
void list_free(vask_hms_list *l) noexcept {
    if (l == nullptr) return;
    while (!list_empty(l)) {
        vask_hms_node *n = node_of(l->head.next);
        hms_list_unlink(n);
        free(n);
    }
    free(l);
}

// Moves every node of a list back to the pool and leaves the count at 0.
void list_drain(vask_hms_list *l, vask_hms_pool *pool) noexcept {
    while (!list_empty(l)) {
        vask_hms_node *n = node_of(l->head.next);
        hms_list_unlink(n);
        l->count--;
        hms_node_give(pool, n);
    }
    l->count = 0;
}

// A store whose init failed has no lists and no usable semaphores; refusing
// it keeps every operation from waiting forever on a lock never made. The
// check runs before any lock is held, so the list pointers are stored and
// loaded atomically; under their locks they are used as plain pointers.
bool store_ready(const vask_hms_data *d) noexcept {
    return d != nullptr && __atomic_load_n(&d->recv, __ATOMIC_RELAXED) != nullptr &&
           __atomic_load_n(&d->active, __ATOMIC_RELAXED) != nullptr;
}

void set_list(vask_hms_list **slot, vask_hms_list *l) noexcept { __atomic_store_n(slot, l, __ATOMIC_RELAXED); }

void set_lists(vask_hms_data *d, vask_hms_list *recv, vask_hms_list *spare, vask_hms_list *active,
               vask_hms_list *standby) noexcept {
    set_list(&d->recv, recv);
    set_list(&d->spare, spare);
    set_list(&d->active, active);
    set_list(&d->standby, standby);
}

bool pool_ready(const vask_hms_pool *p) noexcept { return p != nullptr && p->free_list != nullptr; }

// Swaps the filled receive list out as the batch; nullptr when nothing came.
vask_hms_list *take_batch(vask_hms_data *d) noexcept {
    SemGuard hold(&d->recv_lock);
    if (list_empty(d->recv)) return nullptr;
    vask_hms_list *batch = d->recv;
    set_list(&d->recv, d->spare);
    set_list(&d->spare, batch);
    return batch;
}

// A held node met again: report a clear or a change of status, then release it.
void retire_held(vask_hms_data *d, vask_hms_pool *pool, vask_hms_list *owner, vask_hms_node *held,
                 const vask_hms_node *n) noexcept {
    if (n->err.status == 0) {
        if (d->on_cleared != nullptr) d->on_cleared(d->user, &n->err);
    } else if (n->err.status != held->err.status) {
        if (d->on_changed != nullptr) d->on_changed(d->user, &n->err);
    }
    // The worker never syncs mid-cycle, but a caller may: the cursor then
    // steps back rather than point at a node gone back to the pool.
    if (d->send_cursor == &held->link) d->send_cursor = held->link.prev;
    hms_list_unlink(held);
    owner->count--;
    hms_node_give(pool, held);
}

// The last step for a batch node: keep it as active (raising when new) or
// give it back.
void settle(vask_hms_data *d, vask_hms_pool *pool, vask_hms_list *into, vask_hms_node *n, bool was_held) noexcept {
    if (n->err.status != 0) {
        if (!was_held && d->on_raised != nullptr) d->on_raised(d->user, &n->err);
        list_append(into, n);
    } else {
        hms_node_give(pool, n);
    }
}

vask_hms_node *pop_head(vask_hms_list *l) noexcept {
    vask_hms_node *n = node_of(l->head.next);
    hms_list_unlink(n);
    l->count--;
    return n;
}

}  // namespace

uint16_t hms_data_pack(vask_hms_data *d, uint8_t *msg, size_t msg_size, uint32_t max_items,
                       void (*publish)(void *ctx, uint8_t *msg, bool more), void *ctx) noexcept {
    memset(msg, 0, msg_size);
    uint32_t len = VASK_HMS_MSG_HEADER;
    // A store whose init failed holds nothing: the message is a heartbeat.
    if (!store_ready(d)) {
        publish(ctx, msg, false);
        return static_cast<uint16_t>(len);
    }
    SemGuard hold(&d->state_lock);
    vask_hms_link *end = sentinel(d->active);
    vask_hms_link *cur = d->send_cursor;
    uint32_t items = 0;
    while (cur->next != end && items < max_items && len < VASK_HMS_MSG_MAX) {
        cur = cur->next;
        const vask_hms_err &e = node_of(cur)->err;
        uint8_t *entry = msg + len;
        memcpy(entry, &e.code, sizeof e.code);
        entry[4] = e.index;
        entry[5] = e.status;
        len += VASK_HMS_MSG_ENTRY;
        ++items;
    }
    const bool more = cur->next != end;
    d->send_cursor = more ? cur : end;
    publish(ctx, msg, more);
    return static_cast<uint16_t>(len);
}

}  // namespace kerm::hms

using namespace kerm;
using namespace kerm::hms;

extern "C" int32_t vask_hms_pool_init(vask_hms_pool *pool, uint32_t count) noexcept {
    if (pool == nullptr || count > VASK_HMS_POOL_MAX) return KERM_ERR_PARAM;
    vask_hms_list *l = list_new();
    if (l == nullptr) return KERM_ERR_NO_MEMORY;
    pool->free_list = l;
    int32_t rc = KERM_OK;
    for (uint32_t i = 0; i < count; ++i) {
        auto *n = static_cast<vask_hms_node *>(calloc(1, sizeof(vask_hms_node)));
        if (n == nullptr) {
            rc = KERM_ERR_NO_MEMORY;
            break;
        }
        list_append(l, n);
    }
    if (rc == KERM_OK) {
        rc = sem_init(&pool->lock, 0, 1);
        if (rc == 0) return KERM_OK;
    }
    list_free(l);
    pool->free_list = nullptr;
    return rc;
}

extern "C" int32_t vask_hms_pool_deinit(vask_hms_pool *pool) noexcept {
    if (!pool_ready(pool)) return KERM_ERR_PARAM;
    {
        SemGuard hold(&pool->lock);
        list_free(pool->free_list);
        pool->free_list = nullptr;
    }
    sem_destroy(&pool->lock);
    return KERM_OK;
}

extern "C" int32_t vask_hms_data_init(vask_hms_data *d) noexcept {
    if (d == nullptr) return KERM_ERR_PARAM;
    vask_hms_list *lists[4];
    for (auto &l : lists) l = list_new();
    auto release = [&]() {
        for (auto *l : lists) free(l);
        set_lists(d, nullptr, nullptr, nullptr, nullptr);
    };
    for (auto *l : lists) {
        if (l == nullptr) {
            release();
            return KERM_ERR_NO_MEMORY;
        }
    }
    set_lists(d, lists[0], lists[1], lists[2], lists[3]);
    d->send_cursor = sentinel(d->active);
    int32_t rc = sem_init(&d->recv_lock, 0, 1);
    if (rc != 0) {
        release();
        return rc;
    }
    rc = sem_init(&d->state_lock, 0, 1);
    if (rc != 0) {
        // Deliberate: recv_lock is posted once, not destroyed, before the
        // lists go; callers rely on this order.
        sem_post(&d->recv_lock);
        release();
        return rc;
    }
    return KERM_OK;
}

extern "C" int32_t vask_hms_data_deinit(vask_hms_data *d) noexcept {
    if (!store_ready(d)) return KERM_ERR_PARAM;
    {
        SemGuard hold(&d->recv_lock);
        list_free(d->recv);
        set_list(&d->recv, nullptr);
    }
    sem_destroy(&d->recv_lock);
    {
        // Nodes go to the heap, not to a pool.
        SemGuard hold(&d->state_lock);
        list_free(d->spare);
        list_free(d->standby);
        list_free(d->active);
        set_list(&d->spare, nullptr);
        set_list(&d->standby, nullptr);
        set_list(&d->active, nullptr);
        d->send_cursor = nullptr;
    }
    sem_destroy(&d->state_lock);
    return KERM_OK;
}

extern "C" int32_t vask_hms_data_insert(vask_hms_data *d, vask_hms_pool *pool, const vask_hms_err *err) noexcept {
    if (!store_ready(d) || !pool_ready(pool) || err == nullptr) return KERM_ERR_PARAM;
    SemGuard hold(&d->recv_lock);
    vask_hms_node *n;
    {
        SemGuard hold_pool(&pool->lock);
        n = hms_node_take(pool);
    }
    if (n == nullptr) return KERM_ERR_EXHAUSTED;
    n->err.code = err->code;
    n->err.index = err->index;
    n->err.status = err->status;
    list_append(d->recv, n);
    return KERM_OK;
}

extern "C" int32_t vask_hms_data_reset_recv(vask_hms_data *d, vask_hms_pool *pool) noexcept {
    if (!store_ready(d) || !pool_ready(pool)) return KERM_ERR_PARAM;
    SemGuard hold(&d->recv_lock);
    list_drain(d->recv, pool);
    return KERM_OK;
}

extern "C" int32_t vask_hms_data_reset(vask_hms_data *d, vask_hms_pool *pool) noexcept {
    if (!store_ready(d) || !pool_ready(pool)) return KERM_ERR_PARAM;
    {
        SemGuard hold(&d->recv_lock);
        list_drain(d->recv, pool);
    }
    SemGuard hold(&d->state_lock);
    list_drain(d->active, pool);
    list_drain(d->spare, pool);
    list_drain(d->standby, pool);
    d->send_cursor = sentinel(d->active);
    return KERM_OK;
}

extern "C" int32_t vask_hms_data_client_sync(vask_hms_data *d, vask_hms_pool *pool) noexcept {
    if (!store_ready(d) || !pool_ready(pool)) return KERM_ERR_PARAM;
    vask_hms_list *batch = take_batch(d);
    if (batch == nullptr) return KERM_OK;
    SemGuard hold(&d->state_lock);
    while (!list_empty(batch)) {
        vask_hms_node *n = pop_head(batch);
        vask_hms_node *held = hms_list_find(d->active, &n->err);
        if (held != nullptr) retire_held(d, pool, d->active, held, n);
        settle(d, pool, d->active, n, held != nullptr);
    }
    return KERM_OK;
}

extern "C" int32_t vask_hms_data_server_sync(vask_hms_data *d, vask_hms_pool *pool) noexcept {
    if (!store_ready(d) || !pool_ready(pool)) return KERM_ERR_PARAM;
    vask_hms_list *batch = take_batch(d);
    if (batch == nullptr) return KERM_OK;
    SemGuard hold(&d->state_lock);
    vask_hms_list *old_list = d->active;
    vask_hms_list *new_list = d->standby;
    set_list(&d->active, new_list);
    set_list(&d->standby, old_list);
    d->send_cursor = sentinel(new_list);
    while (!list_empty(batch)) {
        vask_hms_node *n = pop_head(batch);
        vask_hms_node *held = hms_list_find(old_list, &n->err);
        if (held != nullptr) retire_held(d, pool, old_list, held, n);
        // An earlier record for the same point within this batch.
        vask_hms_node *dup = hms_list_find(new_list, &n->err);
        if (dup != nullptr) retire_held(d, pool, new_list, dup, n);
        settle(d, pool, new_list, n, held != nullptr || dup != nullptr);
    }
    while (!list_empty(old_list)) {
        vask_hms_node *gone = pop_head(old_list);
        if (d->on_cleared != nullptr) d->on_cleared(d->user, &gone->err);
        hms_node_give(pool, gone);
    }
    return KERM_OK;
}

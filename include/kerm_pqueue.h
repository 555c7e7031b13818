/** @file kerm_pqueue.h
 * @brief Thread-safe bounded priority queue of caller values with 64-bit unsigned
 * priorities, layered over the heap of kerm_binheap.h.
 *
 * Priorities are the heap's keys under util_binheap_keys_callbacks_uint64_t,
 * so they order by the wrapping difference of their LOW 32-bit words: keep
 * the priorities in use within 2^31 of each other (priorities equal in their
 * low words rank equal).
 *
 * When an insert makes the queue exceed max_size, the lowest entries are
 * evicted and their values handed to free_value. The lowest entry is found by
 * the heap's opposite-extreme search: an approximation (a low entry, not
 * necessarily the lowest), which is what eviction and util_pqueue_pull_lowest
 * give. util_pqueue_pull_highest is exact.
 *
 * Insert, both pulls and count take the queue's mutex; walk and remove do
 * not and must not run concurrently with any other call on the queue. A
 * failing lock or unlock ends the process (abort). free_value runs outside
 * the lock in the pulls and inside it during eviction.
 */
#ifndef KERM_PQUEUE_H
#define KERM_PQUEUE_H

#include <stdint.h>
#include "kerm_binheap.h"
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define PQUEUE_MODE_HIGHEST_FIRST 0u /**< a larger number is a higher priority */
#define PQUEUE_MODE_LOWEST_FIRST 1u  /**< a smaller number is a higher priority (any non-zero mode) */

/** A queue (opaque). */
typedef struct PQueue PQueue;

/** One entry: the heap's value; its priority's 8 bytes are the heap key. */
typedef struct PQueueItem {
    void *value; /**< the caller's value */
    uint64_t prio;
} PQueueItem;

/** Releases a value the queue discards. */
typedef void (*PQueueFreeValue)(void *value);

/** Walk callback; its result reads as util_binheap_walk's does. An entry removed by
 *  the walk (-1, -2) leaves the heap but its item record is the caller's to free(). */
typedef int32_t (*PQueueWalkCallback)(PQueue *pq, uint64_t prio, PQueueItem *item, void *priv);

/**
 * @brief Creates an empty queue.
 * @param mode PQUEUE_MODE_HIGHEST_FIRST (0) or non-zero for lowest number first.
 * @param max_size the most entries kept (0 keeps none: every insert is evicted).
 * @param free_value releases discarded values; may be null.
 * @return the queue, or null on allocation failure (a mutex that cannot be set up aborts).
 */
KERM_API PQueue *util_pqueue_create(uint32_t mode, uint32_t max_size, PQueueFreeValue free_value) KERM_NOEXCEPT;

/** @brief Discards every entry (free_value on each value), then releases the queue. Null is ignored. */
KERM_API void util_pqueue_destroy(PQueue *pq) KERM_NOEXCEPT;

/**
 * @brief Adds a value, then evicts the lowest entries beyond max_size (possibly this one).
 * @return 0; -1 on allocation failure or a null queue (value not taken).
 */
KERM_API int32_t util_pqueue_insert(PQueue *pq, uint64_t prio, void *value) KERM_NOEXCEPT;

/**
 * @brief Removes the highest-priority entry. Its value goes to *value_out, or to
 * free_value when value_out is null; its priority to *prio_out when given.
 * @return 0, or -1 when the queue is empty (outputs untouched).
 */
KERM_API int32_t util_pqueue_pull_highest(PQueue *pq, void **value_out, uint64_t *prio_out) KERM_NOEXCEPT;

/**
 * @brief As util_pqueue_pull_highest for the lowest entry, found approximately (see above).
 * @return 0, or -1 when the queue is empty (outputs untouched).
 */
KERM_API int32_t util_pqueue_pull_lowest(PQueue *pq, void **value_out, uint64_t *prio_out) KERM_NOEXCEPT;

/**
 * @brief Walks the entries in heap order without the lock (see util_binheap_walk).
 * @return the number of entries visited.
 */
KERM_API int32_t util_pqueue_walk(PQueue *pq, PQueueWalkCallback callback, void *priv) KERM_NOEXCEPT;

/**
 * @brief Removes the entry whose item record is `item` and releases that record; the
 * value is not given to free_value (read item->value before the call). Takes no lock.
 * @return -1 in every case, also after a removal: check util_pqueue_count instead.
 */
KERM_API int32_t util_pqueue_remove(PQueue *pq, PQueueItem *item) KERM_NOEXCEPT;

/** @brief Number of entries, read under the lock. @return the count; 0 for a null queue. */
KERM_API uint32_t util_pqueue_count(PQueue *pq) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

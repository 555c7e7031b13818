/** @file kerm_queue.h
 * @brief Lock-free double-ended queue of pointer-sized values.
 *
 * Any number of threads may push and pop at either end at once, without a
 * mutex. The queue is a doubly linked list between two sentinel entries
 * whose links are reference-counted links (kerm_refcnt.h); a pop first marks
 * the entry's links as deleted and then unlinks it, and retired entries are
 * reclaimed in batches through the queue's reference-count context.
 *
 * A value of 0 (NULL) can be pushed, but a pop returns 0 for an empty queue
 * too, so a stored 0 cannot be told from emptiness: util_queue_clear stops at
 * it (destroy still releases everything).
 *
 * Every push allocates one entry; pops never allocate.
 */
#ifndef KERM_QUEUE_H
#define KERM_QUEUE_H

#include <stdint.h>
#include "kerm_export.h"
#include "kerm_refcnt.h"
#include "kerm_rqueue.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Opaque list entry (its node, prev and next links, value and queue). */
typedef struct util_queue_entry util_queue_entry_t;

/** Called with each value that util_queue_clear or destroy discards. */
typedef void (*util_queue_free_value_callback_t)(void *value);

/** The queue record: 32 bytes on the 32-bit target, so a caller may embed
 * it (util_queue_init). Its fields belong to the implementation. */
typedef struct util_queue {
    util_refcnt_t *refcnt;                       /* entries' reference-count context */
    util_queue_entry_t *head;                    /* left sentinel */
    util_queue_entry_t *tail;                    /* right sentinel */
    uint32_t count;                              /* number of values, changed atomically */
    uint32_t allocated;                          /* 1: made by util_queue_create */
    util_queue_free_value_callback_t free_value; /* or NULL */
    util_rqueue_t *bpool;                        /* pool of reusable entries, or NULL */
    uint32_t bpool_size;                         /* size last given to util_queue_set_bpool_size */
} util_queue_t;

/**
 * @brief Creates an empty queue.
 * @return the queue, or NULL when memory runs out.
 */
KERM_API util_queue_t *util_queue_create(void) KERM_NOEXCEPT;

/**
 * @brief Zeroes and prepares a queue record the caller owns.
 * @return 0, or -1 for NULL or when memory runs out (the record is then
 *         zeroed and must not be used).
 */
KERM_API int32_t util_queue_init(util_queue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Destroys the entry pool, hands every value still queued to the
 * free-value callback, releases the entries and frees the record when
 * util_queue_create made it. NULL is ignored. No other thread may use the
 * queue any more.
 */
KERM_API void util_queue_destroy(util_queue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Pops from the left until a pop yields 0, handing each value to the
 * free-value callback when one is set.
 */
KERM_API void util_queue_clear(util_queue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Sets (or with NULL clears) the free-value callback; set it before
 * the queue is shared.
 */
KERM_API void util_queue_set_free_value_callback(util_queue_t *queue,
                                                 util_queue_free_value_callback_t callback) KERM_NOEXCEPT;

/**
 * @brief Number of values; while operations run it may lag the list briefly.
 * @return the count, 0 for NULL.
 */
KERM_API uint32_t util_queue_count(util_queue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Adds a value at the left (head) end.
 * @return 0, or -1 for NULL or when memory runs out.
 */
KERM_API int32_t util_queue_push_left(util_queue_t *queue, void *value) KERM_NOEXCEPT;

/**
 * @brief Adds a value at the right (tail) end.
 * @return 0, or -1 for NULL or when memory runs out.
 */
KERM_API int32_t util_queue_push_right(util_queue_t *queue, void *value) KERM_NOEXCEPT;

/**
 * @brief Removes the value at the left end.
 * @return the value, or 0 when the queue is empty (or NULL).
 */
KERM_API void *util_queue_pop_left(util_queue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Removes the value at the right end.
 * @return the value, or 0 when the queue is empty (or NULL).
 */
KERM_API void *util_queue_pop_right(util_queue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Gives the queue a pool of `size` reusable entries, which collected
 * entries go back to instead of being freed. Pushes do not take from it;
 * deutil_queue_reusable_entry does. Set it before the queue is shared.
 * @return the previous pool size (0 at first, or for NULL); asking again for
 *         the same size keeps the existing pool.
 */
KERM_API uint32_t util_queue_set_bpool_size(util_queue_t *queue, uint32_t size) KERM_NOEXCEPT;

/**
 * @brief Gives an entry back: a collected entry goes to its queue's pool, or
 * is freed when there is no pool or the pool is full. An entry taken with
 * deutil_queue_reusable_entry has its node released first and comes back
 * through the queue's reclamation. NULL is ignored.
 */
KERM_API void util_queue_reusable_entry(util_queue_entry_t *entry) KERM_NOEXCEPT;

/**
 * @brief Takes an entry from the queue's pool (or makes a fresh one) and
 * attaches a new node to it.
 * @return the entry, or NULL for NULL or when memory runs out.
 */
KERM_API util_queue_entry_t *deutil_queue_reusable_entry(util_queue_t *queue) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

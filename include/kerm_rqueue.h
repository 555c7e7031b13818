/** @file kerm_rqueue.h
 * @brief Ring queue: a bounded first-in, first-out queue of pointer-sized values
 * passed between threads without a mutex.
 *
 * The values live in a fixed ring of pages plus one spare page: a read swaps
 * the spare page into the ring in place of the oldest page and walks off with
 * it, so nothing is allocated after creation. Writers serialise among
 * themselves on a spin flag, the single active reader on a second one (a
 * waiting thread spins briefly, then yields); a reader and a writer work on
 * different pages at the same time. The value 0 means "empty page" and
 * cannot be stored.
 *
 * A queue created with size N holds N values at once. Two modes decide what a
 * write into a full queue does: blocking mode retries 1000 times (yielding)
 * and then refuses it; overwrite mode drops the oldest unread value.
 */
#ifndef KERM_RQUEUE_H
#define KERM_RQUEUE_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Write modes. */
#define UTIL_RQUEUE_MODE_BLOCKING 0
#define UTIL_RQUEUE_MODE_OVERWRITE 1

/** Opaque ring queue. */
typedef struct util_rqueue util_rqueue_t;

/** Free-value callback. Called as (old value, new value) when an overwriting
 * write reuses the page of a value that was never read, and as (value, NULL)
 * for every value the queue still holds when it is destroyed. */
typedef void (*util_rqueue_free_value_callback_t)(void *value, void *new_value);

/**
 * @brief Creates a ring queue.
 * @param size number of values the queue holds; util_rqueue_size() reports at
 *        least 3, but the ring holds the values asked for (0 holds none).
 * @param mode UTIL_RQUEUE_MODE_BLOCKING or UTIL_RQUEUE_MODE_OVERWRITE.
 * @return the queue, or NULL when memory runs out.
 */
KERM_API util_rqueue_t *util_rqueue_create(uint32_t size, int32_t mode) KERM_NOEXCEPT;

/**
 * @brief Destroys a queue: hands every value still held to the free-value
 * callback (when set) and frees the pages. NULL is ignored. No other thread
 * may use the queue any more.
 */
KERM_API void util_rqueue_destroy(util_rqueue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Sets (or with NULL clears) the free-value callback.
 */
KERM_API void util_rqueue_set_free_value_callback(util_rqueue_t *queue,
                                                  util_rqueue_free_value_callback_t callback) KERM_NOEXCEPT;

/**
 * @brief Appends a value.
 * @param value any value but 0 (NULL).
 * @return 0 on success; -2 when the queue stayed full through 1000 attempts
 *         (blocking mode; nothing is stored); -1 for a NULL queue or value, or
 *         a broken ring.
 */
KERM_API int32_t util_rqueue_write(util_rqueue_t *queue, void *value) KERM_NOEXCEPT;

/**
 * @brief Removes the oldest value.
 * @return the value, or NULL when nothing could be read within 1000 attempts
 *         (the queue is empty, or another reader held it all that time).
 */
KERM_API void *util_rqueue_read(util_rqueue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Number of values written since creation (64-bit, read atomically).
 * @return the count, 0 for NULL.
 */
KERM_API uint64_t util_rqueue_write_count(util_rqueue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Number of values read since creation (64-bit, read atomically).
 * @return the count, 0 for NULL.
 */
KERM_API uint64_t util_rqueue_read_count(util_rqueue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Sets the write mode (any non-zero mode overwrites).
 */
KERM_API void util_rqueue_set_mode(util_rqueue_t *queue, int32_t mode) KERM_NOEXCEPT;

/**
 * @brief The write mode.
 * @return the mode last set, -1 for NULL.
 */
KERM_API int32_t util_rqueue_mode(util_rqueue_t *queue) KERM_NOEXCEPT;

/**
 * @brief The recorded size: the requested size raised to at least 3.
 * @return the size, 0 for NULL.
 */
KERM_API uint32_t util_rqueue_size(util_rqueue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Tells whether the queue holds no readable value.
 * @return 1 when empty (or NULL), else 0.
 */
KERM_API int32_t util_rqueue_isempty(util_rqueue_t *queue) KERM_NOEXCEPT;

/**
 * @brief Describes the queue's pages, counters and mode in a new 1024-byte
 * text ("reader:", "head:", "tail:", "tail_next:", "commit:", "commit_next:",
 * "reads:", "writes:", "mode:" lines).
 * @return the text, which the caller frees with free(); NULL for a NULL queue
 *         or when memory runs out.
 */
KERM_API char *util_rqueue_stats(util_rqueue_t *queue) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

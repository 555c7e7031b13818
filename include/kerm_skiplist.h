/** @file kerm_skiplist.h
 * @brief Ordered map from byte-string keys to pointer-sized values, kept as a skip
 * list with a fixed number of levels.
 *
 * Keys are copied into the list; values stay the caller's and are released
 * through the optional free-value callback whenever the list drops one
 * (replacement, removal without an output pointer, destroy). The order is the
 * caller's comparator over (key, length) pairs. A node rises one more level
 * while `random() % 100 > percent`, so the chance per level is
 * (99 - percent) / 100; the list never seeds random(). No locking: one list is
 * used by one thread at a time.
 */
#ifndef KERM_SKIPLIST_H
#define KERM_SKIPLIST_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Comparator: negative, zero or positive as key a sorts below, equal to or above key b. */
typedef int32_t (*util_skiplist_cmp_fn)(const void *key_a, uint32_t len_a, const void *key_b, uint32_t len_b);
/** Releases a value the list drops. */
typedef void (*util_skiplist_free_fn)(void *value);

/** A skip list (opaque). */
typedef struct util_skiplist util_skiplist;

/**
 * @brief Creates an empty list.
 * @param levels number of levels (1 or more), fixed for the list's life
 * @param percent promotion threshold: a node rises while random() % 100 > percent
 * @param compare key comparator (required)
 * @param free_value releases dropped values; may be null
 * @return the list, or null when levels < 1, compare is null or memory ran out
 */
KERM_API util_skiplist *util_skiplist_create(int32_t levels, uint32_t percent, util_skiplist_cmp_fn compare,
                                             util_skiplist_free_fn free_value) KERM_NOEXCEPT;

/**
 * @brief Looks a key up.
 * @return the value stored under an equal key, or null when there is none (or list/key is null)
 */
KERM_API void *util_skiplist_search(util_skiplist *list, const void *key, uint32_t len) KERM_NOEXCEPT;

/**
 * @brief Inserts or replaces an entry; the key bytes are copied.
 * @return 0 for a new node; 1 when an equal key existed (its old value went to
 *         free_value and the new value is stored); -1 when memory ran out or
 *         list is null (or key is null with len > 0): nothing changed
 */
KERM_API int32_t util_skiplist_insert(util_skiplist *list, const void *key, uint32_t len, void *value) KERM_NOEXCEPT;

/**
 * @brief Removes the entry with an equal key.
 * @param out receives the value (free_value is then not called); may be null,
 *        in which case the value goes to free_value
 * @return 0 when removed, -1 when no equal key exists (or list is null)
 */
KERM_API int32_t util_skiplist_remove(util_skiplist *list, const void *key, uint32_t len, void **out) KERM_NOEXCEPT;

/**
 * @brief Number of entries.
 * @return the entry count, 0 for a null list
 */
KERM_API int32_t util_skiplist_count(const util_skiplist *list) KERM_NOEXCEPT;

/**
 * @brief Releases every node (values through free_value), the level heads and the list. Null is ignored.
 */
KERM_API void util_skiplist_destroy(util_skiplist *list) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

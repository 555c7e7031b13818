/** @file kerm_ht.h
 * @brief Thread-safe hash table from byte-string keys to opaque values (pointer and
 * length).
 *
 * Keys are always copied (inline up to UTIL_HT_KEY_INLINE bytes); values are
 * stored as given, or copied by the *_copy variants. Locking is fine grained:
 * one mutex per bucket, a state word that locating threads pass together
 * (each counted in a reader slot of its own) and that bucket creation, growth
 * and clearing hold alone, and a table mutex for walks. Any number of threads may call any function at once; the item count
 * may be read without a lock. A lock or unlock that fails ends the process.
 *
 * The memory of removed items with keys of up to UTIL_HT_KEY_INLINE bytes is
 * kept for later insertions and released by util_ht_destroy()/util_ht_deinit().
 *
 * Callbacks (util_ht_call, get-deep-copy, the walks, and the free-item
 * callback on delete, walk and clear) run while a bucket mutex is held: they
 * must not call back into the same table.
 *
 * An item whose value is null (left by util_ht_unset) still exists: the
 * setting variants treat it as absent and append a second item with the same
 * key after it, which every lookup then finds second.
 *
 * Functions returning int give 0 on success and -1 on failure unless stated.
 * Keys are pointer and length; a null table or key or a zero key length gives
 * -1 (null for pointer results, 0 for util_ht_exists) and changes nothing.
 */
#ifndef KERM_HT_H
#define KERM_HT_H

#include <pthread.h>
#include <stdint.h>

#include "kerm_export.h"
#include "kerm_list.h"

#ifdef __cplusplus
extern "C" {
#endif

#define UTIL_HT_MIN_SIZE 128u  /**< fewest bucket slots */
#define UTIL_HT_KEY_INLINE 32u /**< keys up to this length live inside the item */

/** State word values. Locating threads are counted in per-thread reader slots, not here. */
#define UTIL_HT_STATE_CLEARING 0u
#define UTIL_HT_STATE_CREATING 1u
#define UTIL_HT_STATE_GROWING 2u
#define UTIL_HT_STATE_IDLE 3u

typedef struct util_ht_bucket_s util_ht_bucket_t;
typedef struct util_ht_shard_s util_ht_shard_t;
typedef struct util_ht_s util_ht_t;

/** Receives a value the table discards while holding it. */
typedef void (*util_ht_free_item_callback_t)(void *value);
/** util_ht_call() callback; may change *value and *vlen. Returning 1 removes the item. */
typedef int (*util_ht_call_callback_t)(util_ht_t *table, const void *key, uint32_t klen, void **value,
                                       uint32_t *vlen, void *user);
/** util_ht_get_deep_copy() callback: returns the caller's copy of the value. */
typedef void *(*util_ht_deep_copy_callback_t)(void *value, uint32_t vlen, void *user);
/** Walk callbacks: 1 continue; 0 stop; -2 remove the item and stop; any other result removes
 *  the item and goes on with the next bucket (the rest of this bucket is skipped). */
typedef int (*util_ht_pair_callback_t)(util_ht_t *table, const void *key, uint32_t klen, void *value,
                                       uint32_t vlen, void *user);
typedef int (*util_ht_key_callback_t)(util_ht_t *table, const void *key, uint32_t klen, void *user);
typedef int (*util_ht_value_callback_t)(util_ht_t *table, void *value, uint32_t vlen, void *user);

/** A table. Allocate with util_ht_create(), or embed one and call util_ht_init().
 *  The fields are the table's own: read them only through the functions. */
struct util_ht_s {
    /* read on every call */
    uint32_t size;     /**< bucket slots (atomic) */
    uint32_t max_size; /**< 0: no limit */
    uint32_t seed;
    util_ht_bucket_t **slots;
    util_ht_free_item_callback_t free_item_cb;
    util_ht_bucket_t *live_first;  /**< every bucket, in creation order */
    util_ht_bucket_t **live_tail;
    pthread_mutex_t lock;       /**< walks, clearing and growth */
    pthread_mutex_t live_lock;  /**< appends to the live-bucket chain against running walks */
    util_ht_shard_t *shards;    /**< reader counters and item pools, one per thread slot */
    /* written by exclusive work and by every insertion and removal: each on a cache line of its
     * own (the layout and size are those of the table without shards) */
    uint8_t pad_state[64 - sizeof(void *)];
    uint32_t state; /**< state word (compare-and-swap only) */
    uint8_t pad_count[64];
    uint32_t count; /**< items (atomic) */
    uint8_t pad_end[64];
};

/** Element of util_ht_get_all_keys(): a copy of the key. */
typedef struct util_ht_key_s {
    void *key; /**< own copy, not zero-terminated */
    uint32_t klen;
    uint32_t vlen;
} util_ht_key_t;

/** Element of util_ht_get_all_values(): borrowed key and value. */
typedef struct util_ht_value_s {
    const void *key; /**< the table's key bytes */
    uint32_t klen;
    void *value;
    uint32_t vlen;
} util_ht_value_t;

/* ---- lifetime ---- */

/** @brief New table of at least UTIL_HT_MIN_SIZE slots; max_size 0 means unlimited growth.
 *  @return the table, or null when memory runs out. */
KERM_API util_ht_t *util_ht_create(uint32_t initial_size, uint32_t max_size,
                                   util_ht_free_item_callback_t free_item_cb) KERM_NOEXCEPT;
/** @brief Prepares an embedded table. @return 0, or -1 when the slots cannot be allocated. */
KERM_API int util_ht_init(util_ht_t *table, uint32_t initial_size, uint32_t max_size,
                          util_ht_free_item_callback_t free_item_cb) KERM_NOEXCEPT;
/** @brief Removes every item (values go to the free-item callback); the slots keep their number. */
KERM_API void util_ht_clear(util_ht_t *table) KERM_NOEXCEPT;
/** @brief Clears and frees a table made by util_ht_create(). Null is ignored. */
KERM_API void util_ht_destroy(util_ht_t *table) KERM_NOEXCEPT;
/** @brief Clears an embedded table and releases what util_ht_init() allocated. */
KERM_API void util_ht_deinit(util_ht_t *table) KERM_NOEXCEPT;
/** @brief Replaces the free-item callback (atomically). */
KERM_API void util_ht_set_free_item_callback(util_ht_t *table, util_ht_free_item_callback_t cb) KERM_NOEXCEPT;
/** @brief Number of items, emptied ones included. @return the count, 0 for a null table. */
KERM_API uint32_t util_ht_count(util_ht_t *table) KERM_NOEXCEPT;

/* ---- setting ---- */

/** @brief Stores value; a replaced value goes to the free-item callback.
 *  @return 0, or -1 when memory runs out. */
KERM_API int util_ht_set(util_ht_t *table, const void *key, uint32_t klen, void *value,
                         uint32_t vlen) KERM_NOEXCEPT;
/** @brief Stores value unless the key holds a non-null value.
 *  @return 1 when present (nothing changed), 0 when added, -1 on failure. */
KERM_API int util_ht_set_if_not_exists(util_ht_t *table, const void *key, uint32_t klen, void *value,
                                       uint32_t vlen) KERM_NOEXCEPT;
/** @brief Reports the stored value into prev/prev_len (each optional) when present, else adds
 *  value (prev null, prev_len 0). @return 1 when present, 0 when added, -1 on failure. */
KERM_API int util_ht_get_or_set(util_ht_t *table, const void *key, uint32_t klen, void *value, uint32_t vlen,
                                void **prev, uint32_t *prev_len) KERM_NOEXCEPT;
/** @brief Stores value; the old value goes to prev when given (not freed), else to the
 *  free-item callback; prev_len receives its length (null and 0 when added).
 *  @return 0, or -1 on failure. */
KERM_API int util_ht_get_and_set(util_ht_t *table, const void *key, uint32_t klen, void *value, uint32_t vlen,
                                 void **prev, uint32_t *prev_len) KERM_NOEXCEPT;
/** @brief As util_ht_get_and_set() but stores a malloc'ed copy of the vlen bytes (null for vlen 0).
 *  @return 0, or -1 on failure. */
KERM_API int util_ht_set_copy(util_ht_t *table, const void *key, uint32_t klen, const void *value,
                              uint32_t vlen, void **prev, uint32_t *prev_len) KERM_NOEXCEPT;
/** @brief Compare-and-swap: prev/prev_len receive the stored value; when its length is
 *  match_len and its bytes equal match, value is stored (no copy) and the old one goes to
 *  prev, or to the free-item callback when prev is null. With match null and match_len 0 this
 *  is util_ht_set_if_not_exists(). @return 0 swapped, 1 the stored value differs, -1 absent. */
KERM_API int util_ht_set_if_equals(util_ht_t *table, const void *key, uint32_t klen, void *value, uint32_t vlen,
                                   const void *match, uint32_t match_len, void **prev,
                                   uint32_t *prev_len) KERM_NOEXCEPT;

/* ---- getting ---- */

/** @brief The stored value (still the table's); vlen_out (optional) receives its length.
 *  @return the value, or null when absent. */
KERM_API void *util_ht_get(util_ht_t *table, const void *key, uint32_t klen, uint32_t *vlen_out) KERM_NOEXCEPT;
/** @brief A malloc'ed copy of the value bytes, which the caller frees. @return it, or null. */
KERM_API void *util_ht_get_copy(util_ht_t *table, const void *key, uint32_t klen, uint32_t *vlen_out) KERM_NOEXCEPT;
/** @brief copy_cb(value, vlen, user) under the bucket's lock. @return its result, or null when absent. */
KERM_API void *util_ht_get_deep_copy(util_ht_t *table, const void *key, uint32_t klen, uint32_t *vlen_out,
                                     util_ht_deep_copy_callback_t copy_cb, void *user) KERM_NOEXCEPT;
/** @brief @return 1 when an item with the key exists (whatever its value), else 0. */
KERM_API int util_ht_exists(util_ht_t *table, const void *key, uint32_t klen) KERM_NOEXCEPT;

/* ---- deleting ---- */

/** @brief Removes the item; its value goes to prev when given, else to the free-item callback.
 *  @return 0, or -1 when absent. */
KERM_API int util_ht_delete(util_ht_t *table, const void *key, uint32_t klen, void **prev,
                            uint32_t *prev_len) KERM_NOEXCEPT;
/** @brief Hands the value on like util_ht_delete() but keeps the item with a null value.
 *  @return 0, or -1 when absent. */
KERM_API int util_ht_unset(util_ht_t *table, const void *key, uint32_t klen, void **prev,
                           uint32_t *prev_len) KERM_NOEXCEPT;
/** @brief Removes the item only when its value is match_len bytes equal to match (the value
 *  goes to the free-item callback). @return 0 removed, -1 absent or different. */
KERM_API int util_ht_delete_if_equals(util_ht_t *table, const void *key, uint32_t klen, const void *match,
                                      uint32_t match_len) KERM_NOEXCEPT;

/* ---- calling, snapshots and walks ---- */

/** @brief cb(table, key, klen, &value, &vlen, user) under the bucket's lock. A result of 1
 *  removes the item (the value is not handed to the free-item callback) and gives 0.
 *  @return the callback's other results as they are, or -1 when the key is absent. */
KERM_API int util_ht_call(util_ht_t *table, const void *key, uint32_t klen, util_ht_call_callback_t cb,
                          void *user) KERM_NOEXCEPT;
/** @brief A new list of util_ht_key_t copies; list_destroy() frees them.
 *  @return the list, or null when memory runs out. */
KERM_API list_t *util_ht_get_all_keys(util_ht_t *table) KERM_NOEXCEPT;
/** @brief A new list of util_ht_value_t records borrowing keys and values; list_destroy()
 *  frees the records. @return the list, or null when memory runs out. */
KERM_API list_t *util_ht_get_all_values(util_ht_t *table) KERM_NOEXCEPT;
/** @brief Calls cb for every item, bucket by bucket in creation order, items in insertion
 *  order, under the table mutex. @return 0, or -1 for a null table or callback. */
KERM_API int util_ht_foreach_pair(util_ht_t *table, util_ht_pair_callback_t cb, void *user) KERM_NOEXCEPT;
/** @brief util_ht_foreach_pair() with the key only. @return 0 or -1. */
KERM_API int util_ht_foreach_key(util_ht_t *table, util_ht_key_callback_t cb, void *user) KERM_NOEXCEPT;
/** @brief util_ht_foreach_pair() with the value only. @return 0 or -1. */
KERM_API int util_ht_foreach_value(util_ht_t *table, util_ht_value_callback_t cb, void *user) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

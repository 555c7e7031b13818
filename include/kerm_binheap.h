/** @file kerm_binheap.h
 * @brief Mergeable heap of (key, value) entries.
 *
 * Keys are byte strings of any length, copied into the heap (one allocation
 * per key besides the node itself); their order comes from a callbacks record
 * chosen at creation. Values are the caller's pointers and are never touched.
 * The heap is a max-heap (BINHEAP_MODE_MAX: largest key on top) or a min-heap
 * (BINHEAP_MODE_MIN). It is a forest of trees in a root list ordered by
 * degree, linked on insert and on merge as a binomial heap links them; a
 * removal promotes the dominating child instead of rebuilding binomial
 * shapes. The top of the heap's own order is cached.
 *
 * What callers can rely on, and what is approximate on purpose:
 * - util_binheap_maximum of a max-heap and util_binheap_minimum of a min-heap
 *   (and their delete_ forms) are exact.
 * - The opposite extreme (minimum of a max-heap, maximum of a min-heap) is
 *   found by scanning the roots and then descending along the most extreme
 *   child to a leaf: it is an entry of the heap, not necessarily the extreme.
 * - util_binheap_delete searches greedily along one path: an equal key in
 *   another subtree may be missed (-1). Keys equal to the top are always found.
 * - The increase/decrease calls only sift up and do not refresh the cached
 *   top: decreasing the top of a max-heap (increasing that of a min-heap), or
 *   moving an entry past the top, leaves the heap out of order.
 *
 * No locking: one heap is used by one thread at a time (see kerm_pqueue.h for
 * the locked layer).
 */
#ifndef KERM_BINHEAP_H
#define KERM_BINHEAP_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define BINHEAP_MODE_MAX 0u /**< largest key on top */
#define BINHEAP_MODE_MIN 1u /**< smallest key on top */

/** Key order: negative, zero or positive as k1 is below, equal to or above k2. */
typedef int32_t (*BinHeapKeyCompare)(const void *k1, uint32_t len1, const void *k2, uint32_t len2);

/** Key step: stores in *new_key a newly malloc'ed key = key + amount (increment) or
 *  key - amount (decrement) and its length in *new_len; either output may be null. */
typedef void (*BinHeapKeyStep)(const void *key, uint32_t len, void **new_key, uint32_t *new_len, int32_t amount);

/** The three key operations of a heap, in this order. */
typedef struct BinHeapKeyCallbacks {
    BinHeapKeyCompare compare;
    BinHeapKeyStep increment;
    BinHeapKeyStep decrement;
} BinHeapKeyCallbacks;

/** A heap (opaque). */
typedef struct BinHeap BinHeap;

/** Walk callback; see util_binheap_walk for what its result means. */
typedef int32_t (*BinHeapWalkCallback)(BinHeap *heap, const void *key, uint32_t klen, void *value, void *priv);

/** Typed key records. Every typed compare first checks the lengths: when
 * either is below the type's size or they differ, it returns len1 - len2.
 * Otherwise, kept exactly so (callers rely on these orders):
 *   int16_t, uint16_t  a - b in int arithmetic; steps truncate to 16 bits
 *   int32_t, uint32_t  a - b wrapping in 32 bits (keys more than 2^31 apart
 *                      order the wrong way); steps wrap
 *   int64_t, uint64_t  wrapping difference of the low 32-bit words only (keys
 *                      equal in their low words compare equal); steps add the
 *                      sign-extended amount
 *   float, double      a - b converted to int truncating toward zero (keys less
 *                      than 1 apart compare equal; differences beyond the int
 *                      range saturate, NaN gives 0, as the device's conversion
 *                      does); steps add the amount converted to the type
 * A step allocates a key of the old length (bytes past the type's size are
 * copied); a key shorter than the type gives no key (*new_key = null). */

/** @brief Record for int16_t keys. @return a static record. */
KERM_API const BinHeapKeyCallbacks *util_binheap_keys_callbacks_int16_t(void) KERM_NOEXCEPT;
/** @brief Record for uint16_t keys. @return a static record. */
KERM_API const BinHeapKeyCallbacks *util_binheap_keys_callbacks_uint16_t(void) KERM_NOEXCEPT;
/** @brief Record for int32_t keys. @return a static record. */
KERM_API const BinHeapKeyCallbacks *util_binheap_keys_callbacks_int32_t(void) KERM_NOEXCEPT;
/** @brief Record for uint32_t keys (same order as int32_t). @return a static record. */
KERM_API const BinHeapKeyCallbacks *util_binheap_keys_callbacks_uint32_t(void) KERM_NOEXCEPT;
/** @brief Record for int64_t keys (low words compared). @return a static record. */
KERM_API const BinHeapKeyCallbacks *util_binheap_keys_callbacks_int64_t(void) KERM_NOEXCEPT;
/** @brief Record for uint64_t keys (low words compared). @return a static record. */
KERM_API const BinHeapKeyCallbacks *util_binheap_keys_callbacks_uint64_t(void) KERM_NOEXCEPT;
/** @brief Record for float keys (truncated differences). @return a static record. */
KERM_API const BinHeapKeyCallbacks *util_binheap_keys_callbacks_float(void) KERM_NOEXCEPT;
/** @brief Record for double keys (truncated differences). @return a static record. */
KERM_API const BinHeapKeyCallbacks *util_binheap_keys_callbacks_double(void) KERM_NOEXCEPT;
/**
 * @brief The record used when util_binheap_create gets none: shorter keys order first
 * (len1 - len2), equal lengths by memcmp; steps treat the key as a big-endian
 * unsigned number (a negative amount steps the other way). A carry out of the
 * first byte makes the key longer by the carry's bytes (0x01 for a carry of one),
 * a borrow by its two's-complement bytes (0xFF for a borrow of one).
 * @return a static record.
 */
KERM_API const BinHeapKeyCallbacks *util_binheap_keys_callbacks_default(void) KERM_NOEXCEPT;

/**
 * @brief Creates an empty heap.
 * @param callbacks key operations, kept by pointer; null selects the default record.
 * @param mode BINHEAP_MODE_MAX or BINHEAP_MODE_MIN.
 * @return the heap; null on allocation failure or another mode.
 */
KERM_API BinHeap *util_binheap_create(const BinHeapKeyCallbacks *callbacks, uint32_t mode) KERM_NOEXCEPT;

/**
 * @brief Removes every entry (key copies released, values left to the caller) and releases the heap.
 * Null is ignored.
 */
KERM_API void util_binheap_destroy(BinHeap *heap) KERM_NOEXCEPT;

/**
 * @brief Inserts a copy of the key with the value. Equal keys are kept; a newer
 * entry becomes the parent of an older equal one when their trees link.
 * @return 0, or -1 on allocation failure or a null heap (or null key with klen > 0).
 */
KERM_API int32_t util_binheap_insert(BinHeap *heap, const void *key, uint32_t klen, void *value) KERM_NOEXCEPT;

/**
 * @brief Removes an entry whose key compares equal, found by the greedy one-path search
 * described above.
 * @param value_out receives the removed entry's value; may be null.
 * @return 0 when an entry was removed; -1 when none was found (nothing touched).
 */
KERM_API int32_t util_binheap_delete(BinHeap *heap, const void *key, uint32_t klen, void **value_out) KERM_NOEXCEPT;

/**
 * @brief Largest entry (exact in a max-heap, approximate in a min-heap), left in place.
 * @param key_out receives the heap's own key copy (valid until the entry goes); outputs may be null.
 * @return 0, or -1 when the heap is empty (outputs untouched).
 */
KERM_API int32_t util_binheap_maximum(BinHeap *heap, void **key_out, uint32_t *klen_out, void **value_out) KERM_NOEXCEPT;

/**
 * @brief Smallest entry (exact in a min-heap, approximate in a max-heap), left in place.
 * @return 0, or -1 when the heap is empty (outputs untouched).
 */
KERM_API int32_t util_binheap_minimum(BinHeap *heap, void **key_out, uint32_t *klen_out, void **value_out) KERM_NOEXCEPT;

/**
 * @brief Removes the entry util_binheap_maximum would return.
 * @param value_out receives its value; may be null.
 * @return 0, or -1 when the heap is empty (or memory for relinking runs out; nothing removed).
 */
KERM_API int32_t util_binheap_delete_maximum(BinHeap *heap, void **value_out) KERM_NOEXCEPT;

/**
 * @brief Removes the entry util_binheap_minimum would return.
 * @return 0, or -1 when the heap is empty (or memory for relinking runs out; nothing removed).
 */
KERM_API int32_t util_binheap_delete_minimum(BinHeap *heap, void **value_out) KERM_NOEXCEPT;

/** @brief Number of entries. @return the count; 0 for a null heap. */
KERM_API uint32_t util_binheap_count(BinHeap *heap) KERM_NOEXCEPT;

/**
 * @brief Moves the entries of both heaps into a new heap with a's callbacks and mode;
 * a and b are left empty (the caller still destroys them).
 * @return the new heap; null (both unchanged) when the modes differ, a heap is null,
 * a and b are the same heap, or the record cannot be allocated. When memory runs
 * out while the new root list is built, the merged entries are released and null is returned.
 */
KERM_API BinHeap *util_binheap_merge(BinHeap *a, BinHeap *b) KERM_NOEXCEPT;

/** @brief Adds amount to the key of the util_binheap_maximum entry (negative subtracts),
 *  then sifts it up. Zero does nothing. */
KERM_API void util_binheap_increase_maximum(BinHeap *heap, int32_t amount) KERM_NOEXCEPT;
/** @brief Subtracts amount from the key of the util_binheap_maximum entry (negative adds),
 *  then sifts it up only. */
KERM_API void util_binheap_decrease_maximum(BinHeap *heap, int32_t amount) KERM_NOEXCEPT;
/** @brief Adds amount to the key of the util_binheap_minimum entry, then sifts it up only. */
KERM_API void util_binheap_increase_minimum(BinHeap *heap, int32_t amount) KERM_NOEXCEPT;
/** @brief Subtracts amount from the key of the util_binheap_minimum entry, then sifts it up. */
KERM_API void util_binheap_decrease_minimum(BinHeap *heap, int32_t amount) KERM_NOEXCEPT;

/**
 * @brief Visits the root trees in list order, each in preorder (node, then its
 * children in order), calling callback(heap, key, klen, value, priv).
 * Callback result:  1 go on into the children;  -1 go on, remove this entry after
 * its children;  0 stop the walk;  -2 stop and remove this entry;  anything else
 * stops at once. A parent whose own result asked for removal is removed even when
 * a child's result stopped the walk. The callback must not otherwise change the heap.
 * @return the number of entries visited (callback calls); 0 for a null heap or callback.
 */
KERM_API uint32_t util_binheap_walk(BinHeap *heap, BinHeapWalkCallback callback, void *priv) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

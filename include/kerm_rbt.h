/** @file kerm_rbt.h
 * @brief Ordered map from byte-string keys to opaque pointer values, kept as a
 * red-black tree (height at most 2 log2(n + 1)).
 *
 * Keys are copied into the tree; values stay the caller's. Without a
 * comparator, keys compare by the difference of their first differing bytes
 * over the shorter length, plus (len_a - len_b): a byte difference and a
 * length difference of opposite signs can cancel or flip the result (0x62
 * against 0x61 0x62 compares equal). No locking: one tree is used by one
 * thread at a time, or under the caller's lock.
 *
 * Removing an entry with two children moves an in-order neighbour into its
 * place: the predecessor and the successor alternate, process-wide, from one
 * such removal to the next.
 */
#ifndef KERM_RBT_H
#define KERM_RBT_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A red-black tree (opaque). */
typedef struct util_rbt util_rbt;

/** Comparator: negative, zero or positive as key a sorts below, equal to or above key b. */
typedef int32_t (*util_rbt_cmp_fn)(const void *key_a, uint32_t len_a, const void *key_b, uint32_t len_b);
/** Releases a value the tree drops. */
typedef void (*util_rbt_free_fn)(void *value);
/** Walk callback: 1 continue, 0 stop, -1 remove the entry (value to free_value) and continue,
 *  -2 remove it and stop; other results continue. It may look entries up but must not add,
 *  remove or walk the same tree itself. */
typedef int32_t (*util_rbt_walk_fn)(util_rbt *tree, const void *key, uint32_t key_len, void *value, void *arg);

/**
 * @brief Creates an empty tree.
 * @param cmp key comparator; null selects the built-in byte-and-length comparison
 * @param free_value releases dropped values; may be null
 * @return the tree, or null when memory ran out
 */
KERM_API util_rbt *util_rbt_create(util_rbt_cmp_fn cmp, util_rbt_free_fn free_value) KERM_NOEXCEPT;

/**
 * @brief Releases every entry (values through free_value when set) and the tree. Null is ignored.
 */
KERM_API void util_rbt_destroy(util_rbt *tree) KERM_NOEXCEPT;

/**
 * @brief Adds an entry, or replaces the one with an equal key.
 *
 * On replacement the stored key becomes the new key's bytes, and the old
 * value goes to free_value when it differs from the new one.
 * @return 0 for a new key, 1 for a replacement, -1 when memory ran out, tree is
 *         null (or key is null with key_len > 0), or the tree's parent chain is
 *         broken ("Corrupted tree" on standard error); nothing changed then
 */
KERM_API int32_t util_rbt_add(util_rbt *tree, const void *key, uint32_t key_len, void *value) KERM_NOEXCEPT;

/**
 * @brief Looks a key up.
 * @param value_out receives the value when found; may be null
 * @return 0 when found, -1 when not (or tree is null)
 */
KERM_API int32_t util_rbt_find(util_rbt *tree, const void *key, uint32_t key_len, void **value_out) KERM_NOEXCEPT;

/**
 * @brief Removes the entry with an equal key.
 * @param value_out receives the value; when null the value goes to free_value (when set)
 * @return 0 when removed, -1 when the key is absent (or tree is null)
 */
KERM_API int32_t util_rbt_remove(util_rbt *tree, const void *key, uint32_t key_len, void **value_out) KERM_NOEXCEPT;

/**
 * @brief Visits the entries in pre-order (node, left subtree, right subtree).
 *
 * Entries are visited once each, in the order of the tree as it stood when
 * the walk began; removals asked for by the callback (-1, -2) take effect at
 * once (value to free_value) and do not change which entries are still to come.
 * @return the number of visits whose result let the walk go on (all but 0 and
 *         -2); 0 for an empty or null tree or a null callback
 */
KERM_API int32_t util_rbt_walk(util_rbt *tree, util_rbt_walk_fn callback, void *arg) KERM_NOEXCEPT;

/**
 * @brief Visits the entries in key order; otherwise as util_rbt_walk.
 * @return as util_rbt_walk
 */
KERM_API int32_t util_rbt_walk_sorted(util_rbt *tree, util_rbt_walk_fn callback, void *arg) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

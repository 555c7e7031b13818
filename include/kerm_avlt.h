/** @file kerm_avlt.h
 * @brief Ordered map from byte-string keys to opaque values, kept height-balanced
 * (AVL: at every node the two side heights differ by at most 1).
 *
 * Keys are copied; values are handed to the free-value callback on removal
 * unless the caller takes them back. The order is the caller's comparator.
 *
 * Insertion takes a shortcut: a key that falls between a node and its child
 * is linked directly between them instead of being carried down to a leaf,
 * and only the child's inner subtree root is compared to decide whether that
 * subtree moves under the new node. Callers rely on the resulting shapes, so
 * the consequences are part of the contract: the in-order walk need not come
 * out in key order, and a key comparing equal to one deeper in the tree can be
 * stored (an add returns -1 only when an equal key lies on its insertion path).
 * No locking.
 */
#ifndef KERM_AVLT_H
#define KERM_AVLT_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** An AVL tree (opaque). */
typedef struct util_avlt util_avlt;

/** Comparator: negative, zero or positive as key a sorts below, equal to or above key b. */
typedef int32_t (*util_avlt_cmp_fn)(const void *key_a, uint32_t len_a, const void *key_b, uint32_t len_b);
/** Releases a value the tree drops. */
typedef void (*util_avlt_free_fn)(void *value);
/** Walk callback: 0 stop, -1 remove the entry and go on, -2 remove it and stop, anything else go on.
 *  A removed entry's value is not passed to free_value. It may look entries up but must not add,
 *  remove or walk the same tree itself. */
typedef int32_t (*util_avlt_walk_fn)(util_avlt *tree, const void *key, uint32_t len, void *value, void *arg);

/**
 * @brief Creates an empty tree.
 * @param cmp key comparator (required)
 * @param free_value releases dropped values; may be null
 * @return the tree, or null when cmp is null or memory ran out
 */
KERM_API util_avlt *util_avlt_create(util_avlt_cmp_fn cmp, util_avlt_free_fn free_value) KERM_NOEXCEPT;

/**
 * @brief Adds an entry (the key bytes are copied).
 * @return 0 when added; -1 when an equal key is met on the insertion path,
 *         memory ran out, or tree is null (or key is null with len > 0): the
 *         tree is then unchanged
 */
KERM_API int32_t util_avlt_add(util_avlt *tree, const void *key, uint32_t len, void *value) KERM_NOEXCEPT;

/**
 * @brief Removes the first entry with an equal key met on a descent from the root.
 *
 * A node with two children is replaced by its in-order predecessor when its
 * left side is higher, else by its successor.
 * @param out_value receives the value (not destroyed); when null, a non-null
 *        value goes to free_value (when set)
 * @return 0, found or not
 */
KERM_API int32_t util_avlt_remove(util_avlt *tree, const void *key, uint32_t len, void **out_value) KERM_NOEXCEPT;

/**
 * @brief Looks a key up by the same descent as util_avlt_remove.
 * @param value_out receives the value when found; may be null
 * @return 0 when an equal key is met on the descent from the root, else -1
 *         (also for a null tree); after shortcut insertions a stored key can
 *         lie off that descent and is then not found
 */
KERM_API int32_t util_avlt_find(util_avlt *tree, const void *key, uint32_t len, void **value_out) KERM_NOEXCEPT;

/**
 * @brief Breadth-first walk: level by level, left to right.
 *
 * Nodes are visited in the order of the tree as it stood when the walk began.
 * @return the number of visited entries whose result let the walk go on
 *         (including those removed with -1); 0 for an empty or null tree
 */
KERM_API int32_t util_avlt_walk(util_avlt *tree, util_avlt_walk_fn cb, void *arg) KERM_NOEXCEPT;

/**
 * @brief In-order walk (left subtree, node, right subtree) over the shape of
 *        the tree as it stood when the walk began.
 *
 * The result is computed per subtree: a subtree walked to its end counts its
 * nodes. A stop (0 or -2) ends only the subtree of the node where it happened,
 * which reports -1; a parent whose left subtree reported -1 skips its own
 * visit and right subtree and reports 2, while a -1 from a right subtree
 * counts as 1; every enclosing walk goes on. So a walk with no stop returns
 * the number of entries, and a stop at the root returns -1.
 * @return that count; 0 for an empty or null tree
 */
KERM_API int32_t util_avlt_walk_sorted(util_avlt *tree, util_avlt_walk_fn cb, void *arg) KERM_NOEXCEPT;

/**
 * @brief Removes the root repeatedly (non-null values to free_value) until the
 *        tree is empty, then releases it. Null is ignored.
 */
KERM_API void util_avlt_destroy(util_avlt *tree) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

/** @file kerm_refcnt.h
 * @brief Reference-counted links: deferred reclamation for lock-free structures.
 *
 * A caller wraps each shared object in a node that carries a reference
 * count. A link is one pointer-sized word (util_refcnt_node_t *) holding a
 * node address; bit 0 set marks the link as logically deleted. Threads follow
 * links with deref_link (which takes a reference), change them with store_ref
 * and compare_and_swap_ref, and drop references with release_ref.
 *
 * A node whose count falls to zero is retired: the terminate callback runs,
 * the node waits on a garbage queue, and once more than `threshold` nodes
 * wait, a release collects them down to threshold/2: each object goes to the
 * free callback and the node record is kept in a 65536-slot pool for reuse.
 * Node records stay with the context until it is destroyed (records the pool
 * cannot take are kept aside), so a thread that read a link just before the
 * node was retired may still touch the record safely; deref_link checks the
 * link again after taking its reference and retries when it moved.
 *
 * Every function may be called from any number of threads at once.
 */
#ifndef KERM_REFCNT_H
#define KERM_REFCNT_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Opaque reference-count context. */
typedef struct util_refcnt util_refcnt_t;
/** Opaque node: an object pointer, a callback argument and a count. */
typedef struct util_refcnt_node util_refcnt_node_t;

/** Called as terminate(node, callback argument) when a node is retired. */
typedef void (*util_refcnt_terminate_callback_t)(util_refcnt_node_t *node, void *callback_argument);
/** Called as free(object pointer) when a retired node is collected. */
typedef void (*util_refcnt_free_callback_t)(void *object);

/** Link word helpers: set, test and clear the deletion mark (bit 0). */
#define UTIL_REFCNT_MARK(node) ((util_refcnt_node_t *)((uintptr_t)(node) | (uintptr_t)1))
#define UTIL_REFCNT_IS_MARKED(node) (((uintptr_t)(node) & (uintptr_t)1) != 0)
#define UTIL_REFCNT_UNMARK(node) ((util_refcnt_node_t *)((uintptr_t)(node) & ~(uintptr_t)1))

/**
 * @brief Creates a context.
 * @param threshold number of retired nodes allowed to wait before a release
 *        collects them (down to threshold/2).
 * @param terminate_callback called when a node is retired, or NULL.
 * @param free_callback called with the object of each collected node, or NULL.
 * @return the context, or NULL when memory runs out.
 */
KERM_API util_refcnt_t *util_refcnt_create(uint32_t threshold, util_refcnt_terminate_callback_t terminate_callback,
                                           util_refcnt_free_callback_t free_callback) KERM_NOEXCEPT;

/**
 * @brief Collects every retired node, then frees the pooled node records and
 * the context. NULL is ignored. Nodes still referenced are not touched.
 */
KERM_API void util_refcnt_destroy(util_refcnt_t *context) KERM_NOEXCEPT;

/**
 * @brief Wraps an object in a node with count 1 (a pooled record when the
 * pool has one).
 * @return the node, or NULL for a NULL context or when memory runs out.
 */
KERM_API util_refcnt_node_t *new_node(util_refcnt_t *context, void *object, void *callback_argument) KERM_NOEXCEPT;

/**
 * @brief The node's object pointer.
 * @return the object, or NULL for NULL.
 */
KERM_API void *get_node_ptr(util_refcnt_node_t *node) KERM_NOEXCEPT;

/**
 * @brief The node's reference count, read atomically.
 * @return the count, 0 for NULL.
 */
KERM_API uint32_t get_node_refcount(util_refcnt_node_t *node) KERM_NOEXCEPT;

/**
 * @brief Follows an unmarked link, taking a reference on its node.
 * @return the node, or NULL when the link is marked or empty, when it holds a
 *         retired node with count 0, or for a NULL context or link.
 */
KERM_API util_refcnt_node_t *deref_link(util_refcnt_t *context, util_refcnt_node_t **link) KERM_NOEXCEPT;

/**
 * @brief Like deref_link, but a marked link is followed too (mark stripped).
 * @return the node with a reference taken, or NULL as for deref_link.
 */
KERM_API util_refcnt_node_t *deref_link_d(util_refcnt_t *context, util_refcnt_node_t **link) KERM_NOEXCEPT;

/**
 * @brief The routine behind deref_link (skip_marked non-zero) and
 * deref_link_d (skip_marked 0).
 * @return the node with a reference taken, or NULL.
 */
KERM_API util_refcnt_node_t *deref_link_internal(util_refcnt_t *context, util_refcnt_node_t **link,
                                                 int32_t skip_marked) KERM_NOEXCEPT;

/**
 * @brief Takes one more reference on a node the caller already holds.
 * @return the node, or NULL for NULL, a marked address (bit 0 set) or a
 *         retired node with count 0.
 */
KERM_API util_refcnt_node_t *retain_ref(util_refcnt_t *context, util_refcnt_node_t *node) KERM_NOEXCEPT;

/**
 * @brief Drops one reference (a mark on the address is ignored). The call
 * that finds the count at zero retires the node, and any release that finds
 * more than `threshold` nodes waiting collects them.
 * @return NULL when this call retired the node (or for a NULL context or
 *         node), else the node.
 */
KERM_API util_refcnt_node_t *release_ref(util_refcnt_t *context, util_refcnt_node_t *node) KERM_NOEXCEPT;

/**
 * @brief Atomically replaces the link's content with node (which may be NULL
 * or marked), takes a reference on the new node and releases the old one.
 */
KERM_API void store_ref(util_refcnt_t *context, util_refcnt_node_t **link, util_refcnt_node_t *node) KERM_NOEXCEPT;

/**
 * @brief When the link holds exactly expected (mark included), replaces it
 * with node; node's count rises by one and expected's falls by one. This call
 * never retires expected: follow it with release_ref when that is needed.
 * @return 1 when the link was replaced, 0 when it held something else (or
 *         for a NULL context or link).
 */
KERM_API int32_t compare_and_swap_ref(util_refcnt_t *context, util_refcnt_node_t **link,
                                      util_refcnt_node_t *expected, util_refcnt_node_t *node) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

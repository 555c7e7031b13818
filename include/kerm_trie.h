/** @file kerm_trie.h
 * @brief Map from zero-terminated byte strings to data blocks, kept as a 256-way
 * trie: one node per key byte, each with a full table of 256 children.
 *
 * Data is either borrowed (copy = 0: the caller's pointer is kept and, when
 * the trie drops it, handed to the trie's free-data callback) or copied
 * (copy != 0: the trie keeps its own malloc'ed copy and frees it). Removing a
 * key removes the whole subtree below it, so removing "a" also removes "ab".
 * The empty key names the root. No locking.
 *
 * Counters: `key_count` grows by one only when an insert creates nodes, so
 * inserting a prefix of an existing key or the same key again leaves it alone;
 * every torn-down node that held data lowers it by one. It is not protected
 * against going below zero and then wraps (insert "ab", insert "a", remove "a"
 * leaves 0xFFFFFFFF). `node_count` counts the nodes below the root.
 */
#ifndef KERM_TRIE_H
#define KERM_TRIE_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Releases borrowed data the trie drops. */
typedef void (*util_trie_free_fn)(void *data);

/** A trie (opaque). */
typedef struct util_trie util_trie;

/**
 * @brief Creates an empty trie.
 * @param free_data releases borrowed data the trie drops; may be null
 * @return the trie, or null when memory ran out
 */
KERM_API util_trie *util_trie_create(util_trie_free_fn free_data) KERM_NOEXCEPT;

/**
 * @brief Tears the whole tree down (owned copies freed, borrowed data to
 *        free_data) and releases the trie. Null is ignored.
 */
KERM_API void util_trie_destroy(util_trie *trie) KERM_NOEXCEPT;

/**
 * @brief Creates the key's missing nodes and sets the data of its node.
 *
 * Data already at the node is released first (owned with free, borrowed
 * through free_data). With copy != 0, size bytes of data are copied.
 * @return the number of nodes created (0 when the key's node existed); -1 when
 *         trie or key is null, data is null while a copy of size > 0 is asked
 *         for, or memory ran out (the trie is then unchanged)
 */
KERM_API int32_t util_trie_insert(util_trie *trie, const char *key, void *data, uint32_t size,
                                  int32_t copy) KERM_NOEXCEPT;

/**
 * @brief Looks a key up.
 * @param size receives the data size when the key's node exists; may be null
 * @return the data at the key's node; null when the node is missing, holds no
 *         data, or trie/key is null
 */
KERM_API void *util_trie_find(util_trie *trie, const char *key, uint32_t *size) KERM_NOEXCEPT;

/**
 * @brief Removes the key's node and its whole subtree, pruning path nodes
 *        above it that hold no data and lead nowhere else.
 *
 * Without a data pointer every dropped block is released (owned with free,
 * borrowed through free_data). With one, the key node's data pointer is
 * stored there and no borrowed block is released (the caller takes them); an
 * owned copy is still freed, so the stored pointer then only tells that the
 * key held data and must not be dereferenced.
 *
 * The empty key is refused: it names the root, which stays for the trie's life.
 * @param size receives the key node's data size; may be null
 * @return the number of nodes removed; 0 when the node is missing, the key is
 *         empty, or trie/key is null
 */
KERM_API uint32_t util_trie_remove(util_trie *trie, const char *key, void **data, uint32_t *size) KERM_NOEXCEPT;

/**
 * @brief Inserts only when the key's node does not exist yet.
 *
 * When the node exists (even as a path node without data), its data and size
 * go to old_data and old_size (each when given) and nothing changes.
 * @return 0 when the node existed, else the util_trie_insert result
 */
KERM_API int32_t util_trie_find_or_insert(util_trie *trie, const char *key, void *data, uint32_t size,
                                          void **old_data, uint32_t *old_size, int32_t copy) KERM_NOEXCEPT;

/**
 * @brief Sets the key's data, reporting what was there.
 *
 * When the node exists, its current data and size go to old_data and old_size
 * (each when given) before the new data replaces them, which releases the old
 * block (so an owned old block is already freed when this returns).
 * @return 0 when the node existed (-1 if the copy could not be allocated: the
 *         old data then stays), else the util_trie_insert result
 */
KERM_API int32_t util_trie_find_and_insert(util_trie *trie, const char *key, void *data, uint32_t size,
                                           void **old_data, uint32_t *old_size, int32_t copy) KERM_NOEXCEPT;

/**
 * @brief Keys counted as inserted (see the counter rules above; may have wrapped).
 * @return key_count, 0 for a null trie
 */
KERM_API uint32_t util_trie_key_count(const util_trie *trie) KERM_NOEXCEPT;

/**
 * @brief Nodes below the root.
 * @return node_count, 0 for a null trie
 */
KERM_API uint32_t util_trie_node_count(const util_trie *trie) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

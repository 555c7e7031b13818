/** @file kerm_graph.h
 * @brief Directed graph of labelled nodes, indexed by label in a hash table.
 *
 * Each node keeps an ordered list of outgoing connections; a connection names
 * a target (any pointer-sized reference the caller chooses, handed back
 * unchanged) and may carry a scoring function, so that util_graph_node_next()
 * can pick the best-scoring transition. Errors are kept as a code in the graph
 * and turned into text by util_graph_strerror(). The graph has no lock of its
 * own: callers that share one serialise their calls.
 */
#ifndef KERM_GRAPH_H
#define KERM_GRAPH_H

#include <stdint.h>

#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Error codes kept in the graph. */
#define UTIL_GRAPH_OK 600u
#define UTIL_GRAPH_ENONODE 601u
#define UTIL_GRAPH_ENOLABEL 602u
#define UTIL_GRAPH_ENOMEM 603u
#define UTIL_GRAPH_EADD 604u
#define UTIL_GRAPH_ENOCONN 605u

typedef struct util_graph_s util_graph_t;
typedef struct util_graph_node_s util_graph_node_t;
typedef struct util_graph_conn_s util_graph_conn_t;

/** Releases a node's value when the node is released. */
typedef void (*util_graph_free_value_t)(void *value);
/** Scores a connection of node; the highest positive score wins. */
typedef int32_t (*util_graph_score_t)(util_graph_node_t *node, void *arg);

/** A node, owned by its graph. */
struct util_graph_node_s {
    char *label;         /**< own copy */
    util_graph_t *graph; /**< owner */
    void *value;         /**< caller's pointer, released through the graph's free_value */
    void *user;          /**< caller's pointer, stored and not used by the graph */
    util_graph_conn_t *conns;       /**< outgoing connections, in connection order */
    util_graph_conn_t **conns_tail; /**< the last connection's next field */
};

/** @brief New graph with an optional label (copied). @return the graph, or null when memory runs out. */
KERM_API util_graph_t *util_graph_create(const char *label, util_graph_free_value_t free_value) KERM_NOEXCEPT;
/** @brief Releases every node (values through free_value), the label and the graph. Null is ignored. */
KERM_API void util_graph_destroy(util_graph_t *graph) KERM_NOEXCEPT;

/** @brief Adds a node under label; a node already under that label is replaced and released.
 *  A null label or a failed node allocation ends the process (abort) after setting the
 *  error. @return the node; null for a null graph, or (error 604) when the table insert fails. */
KERM_API util_graph_node_t *util_graph_node_add(util_graph_t *graph, const char *label, void *value,
                                                void *user) KERM_NOEXCEPT;
/** @brief Node lookup by label. @return the node, or null. */
KERM_API util_graph_node_t *util_graph_node_get(util_graph_t *graph, const char *label) KERM_NOEXCEPT;
/** @brief @return a malloc'ed copy of the node's label (the caller frees it), or null. */
KERM_API char *util_graph_node_label_get(util_graph_node_t *node) KERM_NOEXCEPT;
/** @brief Appends a connection to target with an optional score function and its argument.
 *  @return 0, or -1 (error 603) when memory runs out or node is null. */
KERM_API int32_t util_graph_node_connect(util_graph_node_t *node, void *target, util_graph_score_t score,
                                         void *arg) KERM_NOEXCEPT;
/** @brief Removes the first connection to target. @return 0, or -1 (error 605) when there is none. */
KERM_API int32_t util_graph_node_disconnect(util_graph_node_t *node, void *target) KERM_NOEXCEPT;
/** @brief Copies up to max targets in connection order. @return how many were copied (0 for a null out). */
KERM_API uint32_t util_graph_node_connections_get(util_graph_node_t *node, void **out, int32_t max) KERM_NOEXCEPT;
/** @brief The target of the connection with the highest positive score (the first on a tie);
 *  connections without a score function count only while no positive score was seen, the
 *  last such one winning. @return the target, or null. */
KERM_API void *util_graph_node_next(util_graph_node_t *node) KERM_NOEXCEPT;
/** @brief Text of the graph's last error. @return "No error" and the others, or null for codes
 *  without a text (605) and for a null graph. */
KERM_API const char *util_graph_strerror(util_graph_t *graph) KERM_NOEXCEPT;
/** @brief Resets the graph's error to UTIL_GRAPH_OK. */
KERM_API void util_graph_error_reset(util_graph_t *graph) KERM_NOEXCEPT;
/** @brief Not implemented: deleting a single node is not supported and any call ends the
 *  process (abort). Nodes go when they are replaced or when the graph is destroyed. */
KERM_API void util_graph_node_delete(util_graph_node_t *node) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

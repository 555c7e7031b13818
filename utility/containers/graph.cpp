// Directed graph: nodes in a hash table keyed by label, ordered outgoing
// connections with optional score functions.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_graph.h"
#include "kerm_ht.h"

struct util_graph_conn_s {
    void *target;
    util_graph_score_t score;
    void *arg;
    util_graph_conn_t *next;
    util_graph_conn_t **prev_next;
};

struct util_graph_s {
    char *label;
    util_ht_t *nodes;
    util_graph_free_value_t free_value;
    uint32_t error;
};

namespace {

constexpr uint32_t kInitialNodes = 8;
constexpr uint32_t kMaxNodes = 65536;

const char *const kErrorTexts[] = {
    "No error",
    "No node has been found",
    "Label not present",
    "Allocation failed (OOM?)",
    "The connection hasn't been found",  // also what a failed node insert reports
};

// The node table's free-item callback.
void release_node(void *p) {
    auto *node = static_cast<util_graph_node_t *>(p);
    util_graph_t *g = node->graph;
    if (node->value != nullptr && g != nullptr && g->free_value != nullptr) g->free_value(node->value);
    for (util_graph_conn_t *c = node->conns; c != nullptr;) {
        util_graph_conn_t *next = c->next;
        free(c);
        c = next;
    }
    free(node->label);
    free(node);
}

// Deliberate: these faults end the process instead of returning; callers
// never pass a none label and treat allocation failure as fatal.
[[noreturn]] void fatal(util_graph_t *g, uint32_t code, const char *function) {
    g->error = code;
    fprintf(stderr, "%s: %s, aborting\n", function, kErrorTexts[code - UTIL_GRAPH_OK]);
    fflush(stderr);
    abort();
}

}  // namespace

extern "C" {

util_graph_t *util_graph_create(const char *label, util_graph_free_value_t free_value) noexcept {
    auto *g = static_cast<util_graph_t *>(calloc(1, sizeof(util_graph_t)));
    if (g == nullptr) return nullptr;
    if (label != nullptr && (g->label = strdup(label)) == nullptr) {
        free(g);
        return nullptr;
    }
    g->nodes = util_ht_create(kInitialNodes, kMaxNodes, release_node);
    if (g->nodes == nullptr) {
        free(g->label);
        free(g);
        return nullptr;
    }
    g->free_value = free_value;
    g->error = UTIL_GRAPH_OK;
    return g;
}

void util_graph_destroy(util_graph_t *graph) noexcept {
    if (graph == nullptr) return;
    util_ht_destroy(graph->nodes);
    free(graph->label);
    free(graph);
}

util_graph_node_t *util_graph_node_add(util_graph_t *graph, const char *label, void *value, void *user) noexcept {
    if (graph == nullptr) return nullptr;
    if (label == nullptr) fatal(graph, UTIL_GRAPH_ENOLABEL, __func__);
    auto *node = static_cast<util_graph_node_t *>(calloc(1, sizeof(util_graph_node_t)));
    if (node == nullptr || (node->label = strdup(label)) == nullptr) fatal(graph, UTIL_GRAPH_ENOMEM, __func__);
    node->graph = graph;
    node->value = value;
    node->user = user;
    node->conns_tail = &node->conns;
    // A node already under this label is replaced and released by the table.
    if (util_ht_set(graph->nodes, label, static_cast<uint32_t>(strlen(label)), node, sizeof(*node)) != 0) {
        graph->error = UTIL_GRAPH_EADD;
        release_node(node);
        return nullptr;
    }
    return node;
}

util_graph_node_t *util_graph_node_get(util_graph_t *graph, const char *label) noexcept {
    if (graph == nullptr || label == nullptr) return nullptr;
    return static_cast<util_graph_node_t *>(
        util_ht_get(graph->nodes, label, static_cast<uint32_t>(strlen(label)), nullptr));
}

char *util_graph_node_label_get(util_graph_node_t *node) noexcept {
    return node == nullptr || node->label == nullptr ? nullptr : strdup(node->label);
}

int32_t util_graph_node_connect(util_graph_node_t *node, void *target, util_graph_score_t score, void *arg) noexcept {
    if (node == nullptr) return -1;
    auto *c = static_cast<util_graph_conn_t *>(calloc(1, sizeof(util_graph_conn_t)));
    if (c == nullptr) {
        if (node->graph != nullptr) node->graph->error = UTIL_GRAPH_ENOMEM;
        return -1;
    }
    c->target = target;
    c->score = score;
    c->arg = arg;
    c->prev_next = node->conns_tail;
    *node->conns_tail = c;
    node->conns_tail = &c->next;
    return 0;
}

int32_t util_graph_node_disconnect(util_graph_node_t *node, void *target) noexcept {
    if (node == nullptr) return -1;
    for (util_graph_conn_t *c = node->conns; c != nullptr; c = c->next) {
        if (c->target != target) continue;
        *c->prev_next = c->next;
        if (c->next != nullptr)
            c->next->prev_next = c->prev_next;
        else
            node->conns_tail = c->prev_next;
        free(c);
        return 0;
    }
    if (node->graph != nullptr) node->graph->error = UTIL_GRAPH_ENOCONN;
    return -1;
}

uint32_t util_graph_node_connections_get(util_graph_node_t *node, void **out, int32_t max) noexcept {
    if (node == nullptr || out == nullptr) return 0;
    uint32_t n = 0;
    for (util_graph_conn_t *c = node->conns; c != nullptr && static_cast<int32_t>(n) < max; c = c->next)
        out[n++] = c->target;
    return n;
}

void *util_graph_node_next(util_graph_node_t *node) noexcept {
    if (node == nullptr) return nullptr;
    int32_t best = 0;
    void *result = nullptr;
    for (util_graph_conn_t *c = node->conns; c != nullptr; c = c->next) {
        if (c->score != nullptr) {
            int32_t s = c->score(node, c->arg);
            if (s > best) {
                result = c->target;
                best = s;
            }
        } else if (best == 0) {
            result = c->target;
        }
    }
    return result;
}

const char *util_graph_strerror(util_graph_t *graph) noexcept {
    if (graph == nullptr) return nullptr;
    uint32_t i = graph->error - UTIL_GRAPH_OK;
    return i < sizeof kErrorTexts / sizeof kErrorTexts[0] ? kErrorTexts[i] : nullptr;
}

void util_graph_error_reset(util_graph_t *graph) noexcept {
    if (graph != nullptr) graph->error = UTIL_GRAPH_OK;
}

void util_graph_node_delete(util_graph_node_t *) noexcept {
    // Deliberate: single-node deletion has no implementation and every call
    // is a fault; ending here beats writing through a null pointer.
    fputs("util_graph_node_delete: not supported, aborting\n", stderr);
    fflush(stderr);
    abort();
}

}  // extern "C"

// Graph: node replacement and release, connection order, the next-target
// rule, error texts and the deliberate aborts.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>
#include <vector>

#include "kerm_graph.h"

namespace {

std::vector<std::string> g_released;
void release_value(void *v) { g_released.emplace_back(static_cast<const char *>(v)); }

int32_t score_of(util_graph_node_t *, void *arg) { return static_cast<int32_t>(reinterpret_cast<intptr_t>(arg)); }
void *S(intptr_t s) { return reinterpret_cast<void *>(s); }

TEST(Graph, NodesReplacedUnderTheirLabelAndReleased) {
    g_released.clear();
    util_graph_t *g = util_graph_create("net", release_value);
    ASSERT_NE(g, nullptr);
    EXPECT_STREQ(util_graph_strerror(g), "No error");
    char first[] = "first", second[] = "second", other[] = "other";
    util_graph_node_t *a = util_graph_node_add(g, "a", first, S(1));
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->value, first);
    EXPECT_EQ(a->user, S(1));
    EXPECT_EQ(a->graph, g);
    util_graph_node_t *b = util_graph_node_add(g, "b", other, nullptr);
    EXPECT_EQ(util_graph_node_get(g, "a"), a);
    char *label = util_graph_node_label_get(a);
    EXPECT_STREQ(label, "a");
    free(label);

    util_graph_node_t *a2 = util_graph_node_add(g, "a", second, nullptr);
    EXPECT_EQ(util_graph_node_get(g, "a"), a2);
    EXPECT_EQ(g_released, std::vector<std::string>{"first"});
    EXPECT_EQ(util_graph_node_get(g, "missing"), nullptr);
    EXPECT_EQ(util_graph_node_get(g, nullptr), nullptr);
    EXPECT_EQ(util_graph_node_add(nullptr, "x", nullptr, nullptr), nullptr);
    util_graph_node_connect(a2, b, nullptr, nullptr);  // connections go with their node
    util_graph_destroy(g);
    EXPECT_EQ(g_released.size(), 3u);
    util_graph_destroy(nullptr);
}

TEST(Graph, NextTargetRule) {
    util_graph_t *g = util_graph_create(nullptr, nullptr);
    struct Conn {
        const char *target;
        bool scored;
        intptr_t score;
    };
    struct Case {
        std::vector<Conn> conns;
        const char *expect;
    } cases[] = {
        {{{"A", false, 0}, {"B", true, 0}, {"C", true, 3}}, "C"},
        {{{"A", false, 0}, {"B", true, 0}}, "A"},
        {{{"B", true, 0}, {"A", false, 0}}, "A"},
        {{{"A", true, 2}, {"B", true, 2}}, "A"},                      // first wins a tie
        {{{"A", false, 0}, {"B", false, 0}, {"C", true, 1}, {"D", false, 0}}, "C"},
        {{{"A", false, 0}, {"B", false, 0}, {"C", true, -4}}, "B"},   // last default before a positive score
        {{{"A", true, -1}}, nullptr},
        {{}, nullptr},
    };
    int n = 0;
    for (const auto &c : cases) {
        std::string label = "n" + std::to_string(n++);
        util_graph_node_t *node = util_graph_node_add(g, label.c_str(), nullptr, nullptr);
        for (const auto &conn : c.conns)
            ASSERT_EQ(util_graph_node_connect(node, const_cast<char *>(conn.target), conn.scored ? score_of : nullptr,
                                              S(conn.score)),
                      0);
        auto *next = static_cast<const char *>(util_graph_node_next(node));
        if (c.expect == nullptr)
            EXPECT_EQ(next, nullptr) << label;
        else
            EXPECT_STREQ(next, c.expect) << label;
    }
    util_graph_destroy(g);
}

TEST(Graph, ConnectionsAndErrors) {
    util_graph_t *g = util_graph_create("g", nullptr);
    util_graph_node_t *n = util_graph_node_add(g, "n", nullptr, nullptr);
    int t1, t2, t3;
    util_graph_node_connect(n, &t1, nullptr, nullptr);
    util_graph_node_connect(n, &t2, nullptr, nullptr);
    util_graph_node_connect(n, &t3, nullptr, nullptr);
    void *out[3] = {};
    EXPECT_EQ(util_graph_node_connections_get(n, out, 2), 2u);
    EXPECT_EQ(out[0], &t1);
    EXPECT_EQ(out[1], &t2);
    EXPECT_EQ(util_graph_node_connections_get(n, nullptr, 2), 0u);

    EXPECT_EQ(util_graph_node_disconnect(n, &t2), 0);
    EXPECT_EQ(util_graph_node_disconnect(n, &t3), 0);  // the tail: later appends must follow t1
    util_graph_node_connect(n, &t2, nullptr, nullptr);
    EXPECT_EQ(util_graph_node_connections_get(n, out, 3), 2u);
    EXPECT_EQ(out[1], &t2);

    EXPECT_EQ(util_graph_node_disconnect(n, &t3), -1);
    EXPECT_EQ(util_graph_strerror(g), nullptr);  // 605 has no text
    util_graph_error_reset(g);
    EXPECT_STREQ(util_graph_strerror(g), "No error");
    EXPECT_EQ(util_graph_strerror(nullptr), nullptr);
    util_graph_destroy(g);
}

TEST(GraphDeathTest, DeliberateFaultsAbort) {
    util_graph_t *g = util_graph_create("g", nullptr);
    util_graph_node_t *n = util_graph_node_add(g, "n", nullptr, nullptr);
    EXPECT_DEATH(util_graph_node_add(g, nullptr, nullptr, nullptr), "util_graph_node_add: Label not present");
    EXPECT_DEATH(util_graph_node_delete(n), "util_graph_node_delete: not supported");
    util_graph_destroy(g);
}

}  // namespace

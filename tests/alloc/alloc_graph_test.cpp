// Graph with each allocation failing in turn. Creation and connecting report
// the shortage; a node whose record cannot be had ends the process on
// purpose, so that path is a death test.
#include <stdlib.h>
#include <string.h>

#include "alloc_sweep.h"
#include "kerm_graph.h"

using alloc_fail::Attempt;

namespace {

TEST(AllocGraph, Create) {
    for (const char *label : {static_cast<const char *>(nullptr), "roads"}) {
        alloc_sweep::constructor([&] { return util_graph_create(label, nullptr); },
                                 [](util_graph_t *g) { EXPECT_NE(util_graph_node_add(g, "a", nullptr, nullptr), nullptr); },
                                 util_graph_destroy);
    }
}

TEST(AllocGraph, Connect) {
    static int targets[3];
    alloc_fail::sweep([](Attempt &a) {
        util_graph_t *g = util_graph_create("g", nullptr);
        util_graph_node_t *n = util_graph_node_add(g, "n", nullptr, nullptr);
        ASSERT_EQ(util_graph_node_connect(n, &targets[0], nullptr, nullptr), 0);
        const int32_t rc = a.run([&] { return util_graph_node_connect(n, &targets[1], nullptr, nullptr); });
        void *out[3] = {};
        if (a.injected()) {
            EXPECT_EQ(rc, -1);
            EXPECT_STREQ(util_graph_strerror(g), "Allocation failed (OOM?)");
            EXPECT_EQ(util_graph_node_connections_get(n, out, 3), 1u);
            util_graph_error_reset(g);
            EXPECT_EQ(util_graph_node_connect(n, &targets[1], nullptr, nullptr), 0);
        } else {
            EXPECT_EQ(rc, 0);
        }
        EXPECT_EQ(util_graph_node_connections_get(n, out, 3), 2u);
        EXPECT_EQ(out[1], &targets[1]);
        util_graph_destroy(g);
        EXPECT_EQ(a.leaked(), 0u);
    });
}

TEST(AllocGraph, LabelCopy) {
    alloc_fail::sweep([](Attempt &a) {
        util_graph_t *g = util_graph_create(nullptr, nullptr);
        util_graph_node_t *n = util_graph_node_add(g, "north", nullptr, nullptr);
        char *label = a.run([&] { return util_graph_node_label_get(n); });
        if (a.injected()) {
            EXPECT_EQ(label, nullptr);
        } else {
            EXPECT_STREQ(label, "north");
            free(label);
        }
        util_graph_destroy(g);
        EXPECT_EQ(a.leaked(), 0u);
    });
}

// Past the node record and its label, the table insert may fail: none,
// error 604, and the node released as a replaced one would be (its value
// through free_value). Calls 1 and 2 end the process (below).
TEST(AllocGraph, NodeAddTableInsert) {
    static int released;
    const util_graph_free_value_t count_release = [](void *) { ++released; };
    static int value;
    for (unsigned k = 3;; ++k) {
        SCOPED_TRACE(k);
        util_graph_t *g = util_graph_create(nullptr, count_release);
        released = 0;
        Attempt a(k);
        util_graph_node_t *n = a.run([&] { return util_graph_node_add(g, "fresh", &value, nullptr); });
        if (a.injected()) {
            EXPECT_EQ(n, nullptr);
            EXPECT_STREQ(util_graph_strerror(g), "The connection hasn't been found");
            EXPECT_EQ(released, 1);
            EXPECT_EQ(util_graph_node_get(g, "fresh"), nullptr);
        } else {
            EXPECT_NE(n, nullptr);
        }
        util_graph_destroy(g);
        EXPECT_EQ(a.leaked(), 0u);
        if (!a.injected() || ::testing::Test::HasFailure()) {
            EXPECT_GT(k, 3u);  // the table did allocate
            break;
        }
    }
}

TEST(AllocGraphDeathTest, NodeRecordShortageEndsTheProcess) {
    util_graph_t *g = util_graph_create(nullptr, nullptr);
    for (const unsigned k : {1u, 2u}) {  // the record, then the label copy
        EXPECT_DEATH(
            {
                alloc_fail::begin(k);
                util_graph_node_add(g, "a", nullptr, nullptr);
            },
            "");
    }
    util_graph_destroy(g);
}

}  // namespace

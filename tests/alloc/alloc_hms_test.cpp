// Health monitoring with each allocation failing in turn: pool, store and
// client creation report the shortage and leave nothing behind; the record
// paths allocate nothing at all.
#include <string.h>

#include "alloc_sweep.h"
#include "hms/hms_test_util.h"
#include "kerm_hms.h"

using alloc_fail::Attempt;
using hms_test::nodes_accounted;
using hms_test::walk_count;

namespace {

constexpr int32_t kNoMemory = -1006;
constexpr uint32_t kPoolNodes = 8;

TEST(AllocHms, PoolInit) {
    // The free list, then each node.
    EXPECT_EQ(alloc_sweep::leak_free([](Attempt &a) {
        vask_hms_pool pool{};
        const int32_t rc = a.run([&] { return vask_hms_pool_init(&pool, kPoolNodes); });
        if (a.injected()) {
            EXPECT_EQ(rc, kNoMemory);
            EXPECT_EQ(pool.free_list, nullptr);
            EXPECT_EQ(vask_hms_pool_deinit(&pool), -1003);  // nothing to release
        } else {
            ASSERT_EQ(rc, 0);
            EXPECT_EQ(walk_count(pool.free_list), kPoolNodes);
            EXPECT_EQ(vask_hms_pool_deinit(&pool), 0);
        }
    }), 1 + kPoolNodes);
}

TEST(AllocHms, StoreInit) {
    vask_hms_pool pool{};
    ASSERT_EQ(vask_hms_pool_init(&pool, kPoolNodes), 0);
    EXPECT_EQ(alloc_sweep::leak_free([&](Attempt &a) {
        vask_hms_data d{};
        const int32_t rc = a.run([&] { return vask_hms_data_init(&d); });
        const vask_hms_err e{7, 1, 2};
        if (a.injected()) {
            EXPECT_EQ(rc, kNoMemory);
            EXPECT_TRUE(d.recv == nullptr && d.spare == nullptr && d.active == nullptr && d.standby == nullptr);
            // Unusable, and says so: nothing waits on a lock never made.
            EXPECT_EQ(vask_hms_data_insert(&d, &pool, &e), -1003);
            EXPECT_EQ(vask_hms_data_client_sync(&d, &pool), -1003);
        } else {
            ASSERT_EQ(rc, 0);
            EXPECT_EQ(vask_hms_data_insert(&d, &pool, &e), 0);
            EXPECT_EQ(vask_hms_data_client_sync(&d, &pool), 0);
            EXPECT_EQ(vask_hms_data_reset(&d, &pool), 0);
            EXPECT_EQ(vask_hms_data_deinit(&d), 0);
        }
        EXPECT_EQ(walk_count(pool.free_list), kPoolNodes);
    }), 4u);
    EXPECT_EQ(vask_hms_pool_deinit(&pool), 0);
}

// Past init, records travel in pool nodes: no operation on the record path
// allocates, so none can fail for memory.
TEST(AllocHms, RecordPathAllocatesNothing) {
    vask_hms_pool pool{};
    vask_hms_data d{};
    ASSERT_EQ(vask_hms_pool_init(&pool, kPoolNodes), 0);
    ASSERT_EQ(vask_hms_data_init(&d), 0);
    Attempt a(1);
    a.run([&] {
        for (uint8_t i = 0; i < 4; ++i) {
            const vask_hms_err e{0x10, i, static_cast<uint8_t>(i % 2)};
            vask_hms_data_insert(&d, &pool, &e);
        }
        vask_hms_data_client_sync(&d, &pool);
        const vask_hms_err again{0x10, 1, 3};
        vask_hms_data_insert(&d, &pool, &again);
        vask_hms_data_server_sync(&d, &pool);
        vask_hms_data_reset_recv(&d, &pool);
        vask_hms_data_reset(&d, &pool);
        return 0;
    });
    EXPECT_EQ(a.calls(), 0u);
    EXPECT_EQ(nodes_accounted(&d, &pool), kPoolNodes);
    EXPECT_EQ(vask_hms_data_deinit(&d), 0);
    EXPECT_EQ(vask_hms_pool_deinit(&pool), 0);
}

uint8_t detect_nothing(void *, uint8_t) { return 0; }

// Client creation allocates the client, the subscriber table, the rule table
// with one status array per rule, the store's lists and the pool's nodes.
// Deliberate: a store that cannot be made is only logged and the client is
// created regardless; its records are then refused, and destroy still frees
// everything.
TEST(AllocHms, CreateClient) {
    const vask_hms_detect_rule rules[2] = {{1, detect_nothing, nullptr, 0x100, 0, 3},
                                           {1, detect_nothing, nullptr, 0x200, 5, 9}};
    vask_hms_config cfg{};
    cfg.period_us = cfg.busy_period_us = 1000000;
    cfg.rules = rules;
    cfg.rule_count = 2;
    cfg.pool_size = 6;
    // Client, subscribers, rules, two status arrays, four lists, the pool's
    // list and six nodes: sixteen calls.
    EXPECT_EQ(alloc_sweep::leak_free([&](Attempt &a) {
        vask_hms_client *c = nullptr;
        const int32_t rc = a.run([&] { return vask_hms_create_client(&cfg, &c); });
        const vask_hms_err e{0x300, 0, 1};
        if (rc != 0) {
            EXPECT_TRUE(a.injected());
            EXPECT_EQ(rc, kNoMemory);
            EXPECT_EQ(c, nullptr);
        } else if (a.injected()) {
            ASSERT_NE(c, nullptr);
            EXPECT_EQ(c->data.active, nullptr) << "a failure other than the store's was swallowed";
            EXPECT_EQ(vask_hms_insert_err(c, &e), -1003);
        } else {
            ASSERT_NE(c, nullptr);
            EXPECT_EQ(vask_hms_insert_err(c, &e), 0);
            EXPECT_EQ(nodes_accounted(&c->data, &c->pool), 6u);
        }
        if (c != nullptr) {
            EXPECT_EQ(vask_hms_set_subscriber(c, 0x0102, 1), 0);
            vask_hms_destroy_client(c);
        }
    }), 16u);
}

// A worker that cannot be started leaves a created client: its records are
// still taken and destroy releases it. (A started worker's stack and
// thread-local blocks are cached by the C library after it ends, so the
// completed run is not counted.)
TEST(AllocHms, StartClient) {
    signal(SIGUSR1, [](int) {});
    vask_hms_config cfg{};
    cfg.period_us = cfg.busy_period_us = 1000000;
    alloc_fail::sweep([&](Attempt &a) {
        vask_hms_client *c = nullptr;
        ASSERT_EQ(vask_hms_create_client(&cfg, &c), 0);
        const int32_t rc = a.run([&] { return vask_hms_start_client(c); });
        if (a.injected()) {
            EXPECT_NE(rc, 0);
            const vask_hms_err e{0x300, 0, 1};
            EXPECT_EQ(vask_hms_insert_err(c, &e), 0);
            EXPECT_EQ(nodes_accounted(&c->data, &c->pool), 255u);
        } else {
            EXPECT_EQ(rc, 0);
        }
        EXPECT_EQ(vask_hms_destroy_client(c), 0);
        if (a.injected()) {
            EXPECT_EQ(a.leaked(), 0u);
        }
    });
}

}  // namespace

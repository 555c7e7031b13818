// Node pool and error store: list rules, pool limits and order, and the
// client and server syncs.
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <thread>

#include "hms/kerm_hms_internal.h"
#include "hms_test_util.h"

using namespace hms_test;
using kerm::hms::hms_list_find;
using kerm::hms::hms_list_unlink;
using kerm::hms::hms_node_give;
using kerm::hms::hms_node_take;

namespace {

vask_hms_err E(uint32_t code, uint8_t index, uint8_t status) { return vask_hms_err{code, index, status}; }

class Store : public testing::Test {
protected:
    static constexpr uint32_t kNodes = 16;
    void SetUp() override {
        ASSERT_EQ(vask_hms_pool_init(&pool, kNodes), 0);
        ASSERT_EQ(vask_hms_data_init(&data), 0);
        events.attach(&data);
    }
    void TearDown() override {
        EXPECT_EQ(nodes_accounted(&data, &pool), kNodes);
        EXPECT_EQ(vask_hms_data_deinit(&data), 0);
        EXPECT_EQ(vask_hms_pool_deinit(&pool), 0);
    }
    void insert(std::initializer_list<vask_hms_err> errs) {
        for (const auto &e : errs) ASSERT_EQ(vask_hms_data_insert(&data, &pool, &e), 0);
    }
    std::vector<std::string> active() {
        std::vector<std::string> out;
        for (const auto &e : active_errs(&data)) out.push_back(str(e));
        return out;
    }
    using V = std::vector<std::string>;
    vask_hms_pool pool{};
    vask_hms_data data{};
    Events events;
};

TEST(HmsPool, SizeLimitIsUnsigned) {
    vask_hms_pool p{};
    EXPECT_EQ(vask_hms_pool_init(&p, 1025), -1003);
    EXPECT_EQ(vask_hms_pool_init(&p, static_cast<uint32_t>(-1)), -1003);
    EXPECT_EQ(p.free_list, nullptr);
    ASSERT_EQ(vask_hms_pool_init(&p, 1024), 0);
    EXPECT_EQ(pool_free(&p), 1024u);
    EXPECT_EQ(vask_hms_pool_deinit(&p), 0);
    EXPECT_EQ(vask_hms_pool_deinit(nullptr), -1003);
}

TEST(HmsPool, EmptyPoolDropsEveryInsert) {
    vask_hms_pool p{};
    vask_hms_data d{};
    ASSERT_EQ(vask_hms_pool_init(&p, 0), 0);
    ASSERT_EQ(vask_hms_data_init(&d), 0);
    vask_hms_err e{1, 2, 3};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(vask_hms_data_insert(&d, &p, &e), -1007);
    EXPECT_EQ(d.recv->count, 0u);
    EXPECT_EQ(vask_hms_data_client_sync(&d, &p), 0);
    EXPECT_EQ(nodes_accounted(&d, &p), 0u);
    EXPECT_EQ(vask_hms_data_deinit(&d), 0);
    EXPECT_EQ(vask_hms_pool_deinit(&p), 0);
}

TEST(HmsPool, NodesComeBackFirstInFirstOut) {
    vask_hms_pool p{};
    ASSERT_EQ(vask_hms_pool_init(&p, 3), 0);
    vask_hms_node *a = hms_node_take(&p);
    vask_hms_node *b = hms_node_take(&p);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(p.free_list->count, 1u);
    EXPECT_EQ(hms_node_give(&p, a), 0);
    EXPECT_EQ(hms_node_give(&p, b), 0);
    vask_hms_node *c = hms_node_take(&p);  // the one never handed out
    EXPECT_NE(c, a);
    EXPECT_NE(c, b);
    EXPECT_EQ(hms_node_take(&p), a);
    EXPECT_EQ(hms_node_take(&p), b);
    EXPECT_EQ(hms_node_take(&p), nullptr);
    EXPECT_EQ(hms_node_give(nullptr, nullptr), -1003);
    for (auto *n : {c, a, b}) hms_node_give(&p, n);
    EXPECT_EQ(pool_free(&p), 3u);
    vask_hms_pool_deinit(&p);
}

TEST_F(Store, UnlinkJoinsNeighboursAndLeavesCounts) {
    insert({E(1, 0, 1), E(2, 0, 1), E(3, 0, 1)});
    vask_hms_err key = E(2, 0, 9);  // status plays no part in a lookup
    vask_hms_node *mid = hms_list_find(data.recv, &key);
    ASSERT_NE(mid, nullptr);
    EXPECT_EQ(mid->err.status, 1);
    hms_list_unlink(mid);
    EXPECT_EQ(data.recv->count, 3u);
    data.recv->count--;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(mid->link.next), 0xDEADBEEFu);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(mid->link.prev), 0xBEEFDEADu);
    EXPECT_EQ(walk_count(data.recv), 2u);
    EXPECT_EQ(hms_list_find(data.recv, &key), nullptr);
    EXPECT_EQ(hms_list_find(data.recv, nullptr), nullptr);
    EXPECT_EQ(hms_list_find(nullptr, &key), nullptr);
    EXPECT_EQ(hms_list_find(data.active, &key), nullptr);
    hms_node_give(&pool, mid);
}

TEST_F(Store, ClientSyncRaisesChangesClearsAndMovesToTail) {
    insert({E(0x10, 1, 2), E(0x10, 2, 2), E(0x20, 0, 1)});
    ASSERT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
    EXPECT_EQ(events.take(), (V{"raised 10:1=2", "raised 10:2=2", "raised 20:0=1"}));
    EXPECT_EQ(data.send_cursor, &data.active->head);

    // Same status: silent, but the point moves to the tail. Changed status:
    // on_changed and also to the tail. Status 0: cleared and gone. Status 0
    // for an unknown point: nothing at all.
    insert({E(0x10, 1, 2), E(0x20, 0, 5), E(0x10, 2, 0), E(0x30, 3, 0)});
    ASSERT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
    EXPECT_EQ(events.take(), (V{"changed 20:0=5", "cleared 10:2=0"}));
    EXPECT_EQ(active(), (V{"10:1=2", "20:0=5"}));
    EXPECT_EQ(pool_free(&pool), kNodes - 2);

    // Two records for one point in one batch: only the later one stays.
    insert({E(0x40, 0, 1), E(0x40, 0, 3)});
    ASSERT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
    EXPECT_EQ(events.take(), (V{"raised 40:0=1", "changed 40:0=3"}));
    EXPECT_EQ(active(), (V{"10:1=2", "20:0=5", "40:0=3"}));

    // Nothing received: nothing changes.
    ASSERT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
    EXPECT_TRUE(events.take().empty());
    EXPECT_EQ(active().size(), 3u);
}

TEST_F(Store, ServerSyncTreatsEachBatchAsTheWholeList) {
    insert({E(1, 0, 1), E(1, 1, 1), E(2, 0, 4)});
    ASSERT_EQ(vask_hms_data_server_sync(&data, &pool), 0);
    EXPECT_EQ(events.take(), (V{"raised 1:0=1", "raised 1:1=1", "raised 2:0=4"}));

    // 1:1 is missing (cleared with its held record), 2:0 changes, 3:0 is new,
    // and 1:0 is reported twice within the batch.
    insert({E(2, 0, 5), E(1, 0, 1), E(3, 0, 1), E(1, 0, 2)});
    ASSERT_EQ(vask_hms_data_server_sync(&data, &pool), 0);
    EXPECT_EQ(events.take(), (V{"changed 2:0=5", "raised 3:0=1", "changed 1:0=2", "cleared 1:1=1"}));
    EXPECT_EQ(active(), (V{"2:0=5", "3:0=1", "1:0=2"}));
    EXPECT_EQ(data.standby->count, 0u);

    // An empty receive list is not an empty report: nothing is cleared.
    ASSERT_EQ(vask_hms_data_server_sync(&data, &pool), 0);
    EXPECT_TRUE(events.take().empty());
    EXPECT_EQ(active().size(), 3u);

    // A batch of only a status-0 record for an unknown point clears all.
    insert({E(9, 9, 0)});
    ASSERT_EQ(vask_hms_data_server_sync(&data, &pool), 0);
    EXPECT_EQ(events.take(), (V{"cleared 2:0=5", "cleared 3:0=1", "cleared 1:0=2"}));
    EXPECT_TRUE(active().empty());
    EXPECT_EQ(pool_free(&pool), kNodes);
}

TEST_F(Store, ResetReturnsEveryNodeAndRewindsTheCursor) {
    insert({E(1, 0, 1), E(2, 0, 1)});
    ASSERT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
    insert({E(3, 0, 1)});
    data.send_cursor = data.active->head.next;  // as if mid-cycle
    ASSERT_EQ(vask_hms_data_reset(&data, &pool), 0);
    EXPECT_EQ(data.send_cursor, &data.active->head);
    EXPECT_EQ(pool_free(&pool), kNodes);
    EXPECT_EQ(data.recv->count + data.active->count, 0u);

    // A sync that releases the node under the cursor moves the cursor back.
    insert({E(4, 0, 1), E(5, 0, 1), E(6, 0, 1)});
    ASSERT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
    data.send_cursor = data.active->head.next->next;  // 5:0
    insert({E(5, 0, 0)});
    ASSERT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
    EXPECT_EQ(data.send_cursor, data.active->head.next);  // 4:0
    ASSERT_EQ(vask_hms_data_reset(&data, &pool), 0);
    events.take();

    insert({E(4, 0, 1), E(5, 0, 1)});
    ASSERT_EQ(vask_hms_data_reset_recv(&data, &pool), 0);
    EXPECT_EQ(data.recv->count, 0u);
    EXPECT_EQ(pool_free(&pool), kNodes);
}

TEST_F(Store, DeinitFreesNodesHeldInLists) {
    insert({E(1, 0, 1), E(2, 0, 1)});
    ASSERT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
    insert({E(3, 0, 1)});
    // The nodes go to the heap, not back to the pool; LeakSanitizer checks.
    ASSERT_EQ(vask_hms_data_deinit(&data), 0);
    EXPECT_EQ(pool_free(&pool), kNodes - 3);
    // Refill what deinit took so that TearDown's accounting holds.
    for (uint32_t i = 0; i < 3; ++i) {
        auto *n = static_cast<vask_hms_node *>(calloc(1, sizeof(vask_hms_node)));
        hms_node_give(&pool, n);
    }
    ASSERT_EQ(vask_hms_data_init(&data), 0);
}

// Inserting threads race a syncing thread; every record either lands in the
// active list or is counted as dropped, and no node goes missing.
TEST(HmsStoreThreads, InsertsWhileSyncing) {
    constexpr int kThreads = 4;
    constexpr int kPoints = 8;
    constexpr int kRounds = 60;
    vask_hms_pool pool{};
    vask_hms_data data{};
    ASSERT_EQ(vask_hms_pool_init(&pool, 64), 0);
    ASSERT_EQ(vask_hms_data_init(&data), 0);
    std::atomic<int> running{kThreads};
    std::thread syncer([&] {
        while (running.load() > 0) {
            EXPECT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
            sched_yield();
        }
    });
    std::vector<std::thread> inserters;
    for (int t = 0; t < kThreads; ++t) {
        inserters.emplace_back([&, t] {
            for (int r = 1; r <= kRounds; ++r) {
                for (int k = 0; k < kPoints; ++k) {
                    // The last round clears the odd points and leaves the even ones at kRounds.
                    uint8_t status = (r == kRounds && (k & 1)) ? 0 : static_cast<uint8_t>(r);
                    vask_hms_err e{static_cast<uint32_t>(t), static_cast<uint8_t>(k), status};
                    while (vask_hms_data_insert(&data, &pool, &e) == -1007) sched_yield();
                }
            }
            running--;
        });
    }
    for (auto &th : inserters) th.join();
    syncer.join();
    ASSERT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
    auto act = active_errs(&data);
    EXPECT_EQ(act.size(), static_cast<size_t>(kThreads * kPoints / 2));
    for (const auto &e : act) {
        EXPECT_EQ(e.index % 2, 0);
        EXPECT_EQ(e.status, kRounds);
    }
    EXPECT_EQ(nodes_accounted(&data, &pool), 64u);
    vask_hms_data_deinit(&data);
    vask_hms_pool_deinit(&pool);
}

}  // namespace

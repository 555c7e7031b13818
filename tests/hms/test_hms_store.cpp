// Node pool and error store: pool limits and order, and the client and
// server syncs.
#include <sched.h>

#include <atomic>
#include <set>
#include <thread>

#include "hms/kerm_hms_internal.h"
#include "hms_test_util.h"

using namespace hms_test;
using namespace kerm::hms;

namespace {

vask_hms_err E(uint32_t code, uint8_t index, uint8_t status) { return vask_hms_err{code, index, status}; }

class Store : public testing::Test {
protected:
    // Room for every point of the threaded case at once, so no insert waits
    // on a pool that only the inserts could refill.
    static constexpr uint32_t kNodes = 64;
    void SetUp() override {
        ASSERT_EQ(vask_hms_pool_init(&pool, kNodes), 0);
        ASSERT_EQ(vask_hms_data_init(&data), 0);
        ev.attach(&data);
    }
    // Every node is back in the pool or held by a list.
    void TearDown() override {
        EXPECT_EQ(nodes_accounted(&data, &pool), kNodes);
        EXPECT_EQ(vask_hms_data_deinit(&data), 0);
        EXPECT_EQ(vask_hms_pool_deinit(&pool), 0);
    }
    void insert(std::initializer_list<vask_hms_err> errs) {
        for (const auto &e : errs) ASSERT_EQ(vask_hms_data_insert(&data, &pool, &e), 0);
    }
    // Syncs and returns the notifications it gave.
    V sync(bool server = false) {
        EXPECT_EQ(server ? vask_hms_data_server_sync(&data, &pool) : vask_hms_data_client_sync(&data, &pool), 0);
        return ev.take();
    }
    vask_hms_pool pool{};
    vask_hms_data data{};
    Events ev;
};

// The limit compares unsigned; nodes leave poisoned and come back first in,
// first out; an empty pool drops every insert.
TEST_F(Store, PoolLimitOrderAndEmptyPool) {
    vask_hms_pool p{};
    for (uint32_t n : {1025u, 0xFFFFFFFFu}) EXPECT_EQ(vask_hms_pool_init(&p, n), -1003) << n;
    EXPECT_EQ(vask_hms_pool_deinit(nullptr), -1003);
    ASSERT_EQ(vask_hms_pool_init(&p, 1024), 0);
    EXPECT_EQ(pool_free(&p), 1024u);
    EXPECT_EQ(vask_hms_pool_deinit(&p), 0);
    ASSERT_EQ(vask_hms_pool_init(&p, 3), 0);
    vask_hms_node *a = hms_node_take(&p), *b = hms_node_take(&p);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a->link.next), 0xDEADBEEFu);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a->link.prev), 0xBEEFDEADu);
    // Either null is refused and changes nothing.
    EXPECT_EQ(hms_node_give(&p, nullptr), -1003);
    EXPECT_EQ(hms_node_give(nullptr, a), -1003);
    EXPECT_EQ(hms_node_give(nullptr, nullptr), -1003);
    EXPECT_EQ(pool_free(&p), 1u);
    hms_node_give(&p, a), hms_node_give(&p, b);
    vask_hms_node *c = hms_node_take(&p);
    EXPECT_TRUE(c != a && c != b);
    EXPECT_EQ(hms_node_take(&p), a);
    EXPECT_EQ(hms_node_take(&p), b);
    vask_hms_err e = E(1, 2, 3);
    EXPECT_EQ(vask_hms_data_insert(&data, &p, &e), -1007);
    EXPECT_TRUE(sync().empty());
    for (auto *n : {c, a, b}) hms_node_give(&p, n);
    EXPECT_EQ(vask_hms_pool_deinit(&p), 0);
}

TEST_F(Store, ClientSyncRaisesChangesClearsAndMovesToTail) {
    insert({E(0x10, 1, 2), E(0x10, 2, 2), E(0x20, 0, 1), E(0x20, 1, 1)});
    vask_hms_list *filled = data.recv;
    EXPECT_EQ(sync(), (V{"raised 10:1=2", "raised 10:2=2", "raised 20:0=1", "raised 20:1=1"}));
    EXPECT_EQ(data.spare, filled);  // swapped out, then drained
    EXPECT_EQ(data.send_cursor, &data.active->head);

    // Same status: silent, to the tail. New status: changed, to the tail.
    // Status 0: cleared and gone; for an unknown point, nothing.
    insert({E(0x10, 1, 2), E(0x10, 2, 7), E(0x20, 0, 0), E(0x30, 3, 0)});
    EXPECT_EQ(sync(), (V{"changed 10:2=7", "cleared 20:0=0"}));
    EXPECT_EQ(active(&data), (V{"20:1=1", "10:1=2", "10:2=7"}));

    // Two records for one point in one batch: the later one stays.
    insert({E(0x40, 0, 1), E(0x40, 0, 3)});
    EXPECT_EQ(sync(), (V{"raised 40:0=1", "changed 40:0=3"}));
    EXPECT_TRUE(sync().empty());
    EXPECT_EQ(active(&data).size(), 4u);
}

TEST_F(Store, ServerSyncTreatsEachBatchAsTheWholeList) {
    insert({E(1, 0, 1), E(1, 1, 1), E(2, 0, 4)});
    EXPECT_EQ(sync(true), (V{"raised 1:0=1", "raised 1:1=1", "raised 2:0=4"}));

    // 1:1 is missing (cleared with its held record), 2:0 changes, 3:0 is new,
    // and 1:0 comes twice.
    insert({E(2, 0, 5), E(1, 0, 1), E(3, 0, 1), E(1, 0, 2)});
    EXPECT_EQ(sync(true), (V{"changed 2:0=5", "raised 3:0=1", "changed 1:0=2", "cleared 1:1=1"}));
    EXPECT_EQ(active(&data), (V{"2:0=5", "3:0=1", "1:0=2"}));
    EXPECT_EQ(data.standby->count, 0u);

    // Nothing received is no report: nothing is cleared. A batch of only an
    // unknown status-0 record clears everything.
    EXPECT_TRUE(sync(true).empty());
    insert({E(9, 9, 0)});
    EXPECT_EQ(sync(true), (V{"cleared 2:0=5", "cleared 3:0=1", "cleared 1:0=2"}));
    EXPECT_EQ(pool_free(&pool), kNodes);
}

TEST_F(Store, TheCursorNeverPointsAtAReleasedNode) {
    insert({E(4, 0, 1), E(5, 0, 1), E(6, 0, 1)});
    sync();
    data.send_cursor = data.active->head.next->next;  // mid-cycle, after 5:0
    insert({E(5, 0, 0)});
    sync();
    EXPECT_EQ(data.send_cursor, data.active->head.next);  // stepped back to 4:0
    insert({E(7, 0, 1)});
    ASSERT_EQ(vask_hms_data_reset(&data, &pool), 0);
    EXPECT_EQ(data.send_cursor, &data.active->head);
    insert({E(4, 0, 1)});
    ASSERT_EQ(vask_hms_data_reset_recv(&data, &pool), 0);
    EXPECT_EQ(pool_free(&pool), kNodes);
}

// Inserting threads race the syncing main thread; every point ends in its
// last state and no node goes missing. The store is torn down holding nodes,
// which LeakSanitizer checks are freed.
TEST_F(Store, InsertsWhileSyncing) {
    std::atomic<int> running{4};
    std::vector<std::thread> threads;
    std::set<std::string> want;
    for (uint32_t t = 0; t < 4; ++t) {
        for (uint8_t k = 0; k < 8; k += 2) want.insert(str(E(t, k, 60)));
        threads.emplace_back([&, t] {
            for (int r = 1; r <= 60; ++r) {
                // The last round clears the odd points.
                for (uint8_t k = 0; k < 8; ++k) {
                    vask_hms_err e = E(t, k, (r == 60 && (k & 1)) ? 0 : r);
                    while (vask_hms_data_insert(&data, &pool, &e) == -1007) sched_yield();
                }
            }
            running--;
        });
    }
    for (; running.load() > 0; sched_yield()) EXPECT_EQ(vask_hms_data_client_sync(&data, &pool), 0);
    for (auto &th : threads) th.join();
    sync();
    V got = active(&data);
    EXPECT_EQ(got.size(), want.size());
    EXPECT_EQ(std::set<std::string>(got.begin(), got.end()), want);
}

}  // namespace

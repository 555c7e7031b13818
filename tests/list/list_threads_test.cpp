// Threads sharing one list through positional operations and list_lock:
// every value pushed ends either in the list or in one thread's take-outs,
// exactly once.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

#include "kerm_list.h"
#include "list/list_test_util.h"

using listtest::U;
using listtest::V;

namespace {

int count_cb(void *, uint32_t, void *user) {
    ++*static_cast<int *>(user);
    return 1;
}

TEST(ListThreads, PositionalOpsAndHeldLock) {
    list_t *l = list_create();
    const int threads = 4, ops = listtest::scaled(4000);
    std::vector<std::vector<uintptr_t>> taken(threads), pushed(threads);
    std::vector<int> errors(threads, 0);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            std::mt19937 rng(static_cast<unsigned>(t) + 1);
            uintptr_t serial = 0;
            for (int i = 0; i < ops; ++i) {
                switch (rng() % 6) {
                case 0:
                case 1: {
                    uintptr_t v = (uintptr_t(t + 1) << 24) | ++serial;
                    if (rng() % 2)
                        list_push_value(l, V(v));
                    else
                        list_unshift_value(l, V(v));
                    pushed[t].push_back(v);
                    break;
                }
                case 2: {  // take a random entry out; the call may find the list shorter
                    uint32_t n = list_count(l);
                    if (n == 0) break;
                    void *v = list_fetch_value(l, static_cast<uint32_t>(rng() % n));
                    if (v != nullptr) taken[t].push_back(U(v));
                    break;
                }
                case 3: {  // a swap made atomic by the held lock
                    list_lock(l);
                    uint32_t n = list_count(l);
                    if (n >= 2) {
                        uint32_t a = static_cast<uint32_t>(rng() % n), b = static_cast<uint32_t>(rng() % n);
                        void *va = list_pick_value(l, a), *vb = list_pick_value(l, b);
                        list_swap_values(l, a, b);
                        if (list_pick_value(l, a) != vb || list_pick_value(l, b) != va || list_count(l) != n)
                            ++errors[t];
                    }
                    list_unlock(l);
                    break;
                }
                case 4: {  // walk by increasing position under the lock
                    list_lock(l);
                    uint32_t n = list_count(l);
                    int calls = 0;
                    for (uint32_t p = 0; p < n; p += 7)
                        if (list_pick_value(l, p) == nullptr) ++errors[t];
                    if (list_foreach_value(l, count_cb, &calls) != static_cast<int>(n) || calls != static_cast<int>(n))
                        ++errors[t];
                    list_unlock(l);
                    break;
                }
                default: {  // a move is two locked steps: past a shrinking end it would pad
                    list_lock(l);
                    uint32_t n = list_count(l);
                    if (n > 0) list_move_value(l, static_cast<uint32_t>(rng() % n), static_cast<uint32_t>(rng() % n));
                    list_unlock(l);
                    break;
                }
                }
            }
        });
    }
    for (auto &th : pool) th.join();
    for (int t = 0; t < threads; ++t) EXPECT_EQ(errors[t], 0) << "thread " << t;

    std::vector<uintptr_t> all, found = listtest::contents(l);
    for (int t = 0; t < threads; ++t) {
        all.insert(all.end(), pushed[t].begin(), pushed[t].end());
        found.insert(found.end(), taken[t].begin(), taken[t].end());
    }
    std::sort(all.begin(), all.end());
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, all);  // no value lost, none duplicated, no padding appeared
    list_destroy(l);
}

}  // namespace

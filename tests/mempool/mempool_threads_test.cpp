// The default pool's locked entry points from several threads at once, and
// the one-word lock under them (run under ThreadSanitizer).
#include <gtest/gtest.h>

#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "common/kerm_wordlock.h"
#include "kerm_mempool.h"
#include "mempool_test_util.h"

using namespace mempool_test;

namespace {

int scaled(int n) { return under_emulator() ? n / 5 : n; }

TEST(WordLock, CountsEveryIncrementOnce) {
    alignas(4) uint32_t word = 0;
    uint64_t counter = 0;
    const int threads = 4, rounds = scaled(100000);
    std::vector<std::thread> ts;
    for (int t = 0; t < threads; ++t)
        ts.emplace_back([&] {
            kerm::WordLock lock(word);
            for (int i = 0; i < rounds; ++i) {
                std::lock_guard<kerm::WordLock> hold(lock);
                ++counter;
            }
        });
    for (auto &t : ts) t.join();
    EXPECT_EQ(counter, uint64_t(threads) * rounds);
    EXPECT_EQ(word, 0u);
    kerm::WordLock lock(word);
    EXPECT_TRUE(lock.try_lock());
    EXPECT_FALSE(lock.try_lock());
    lock.unlock();
}

TEST(WordLockDeath, UnlockingAFreeWordEndsTheProcess) {
    alignas(4) uint32_t word = 0;
    kerm::WordLock lock(word);
    EXPECT_DEATH(lock.unlock(), "");
}

// Each thread keeps a handful of buffers stamped with its id and a sequence
// number; every buffer is checked when reallocated and when freed, so a block
// handed to two threads at once, or written by another, is caught.
TEST(MempoolThreads, DefaultPoolUnderContention) {
    Arena arena(1 << 20);
    const size_t big = init_memory_pool(arena.size(), arena.data());
    const int threads = 4, rounds = scaled(20000);
    std::vector<uint64_t> allocated(threads), freed(threads), corrupt(threads);
    std::vector<std::thread> ts;
    for (int t = 0; t < threads; ++t)
        ts.emplace_back([&, t] {
            struct Buf {
                uint32_t *p;
                size_t words;
                uint32_t stamp;
            };
            std::mt19937 rng(1000 + t);
            std::vector<Buf> mine;
            uint32_t seq = 0;
            for (int i = 0; i < rounds; ++i) {
                const uint32_t op = rng() % 10;
                const size_t words = 1 + rng() % 256;
                const uint32_t id = (uint32_t(t) << 24) | (++seq & 0xFFFFFF);
                if (mine.size() < 4 || (op < 4 && mine.size() < 32)) {
                    void *p = op % 2 ? tlsf_calloc(words, 4) : tlsf_malloc(words * 4);
                    if (p == nullptr) continue;
                    ++allocated[t];
                    mine.push_back({static_cast<uint32_t *>(p), words, id});
                    stamp(mine.back().p, words, id);
                } else if (op < 7) {
                    Buf &b = mine[rng() % mine.size()];
                    void *p = tlsf_realloc(b.p, words * 4);
                    if (p == nullptr) continue;
                    if (!stamped(static_cast<uint32_t *>(p), std::min(words, b.words), b.stamp)) ++corrupt[t];
                    b = {static_cast<uint32_t *>(p), words, id};
                    stamp(b.p, words, id);
                } else {
                    const size_t k = rng() % mine.size();
                    if (!stamped(mine[k].p, mine[k].words, mine[k].stamp)) ++corrupt[t];
                    tlsf_free(mine[k].p);
                    ++freed[t];
                    mine[k] = mine.back();
                    mine.pop_back();
                }
            }
            for (const Buf &b : mine) {
                if (!stamped(b.p, b.words, b.stamp)) ++corrupt[t];
                tlsf_free(b.p);
                ++freed[t];
            }
        });
    for (auto &t : ts) t.join();
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(corrupt[t], 0u) << "thread " << t;
        EXPECT_EQ(allocated[t], freed[t]) << "thread " << t;
        EXPECT_GT(allocated[t], 0u);
    }
    PoolStats st;
    ASSERT_TRUE(PoolOk(arena.data(), &st));
    EXPECT_EQ(st.free_blocks, 1u);
    EXPECT_EQ(st.largest_free, big);
    EXPECT_EQ(static_cast<Control *>(static_cast<void *>(arena.data()))->lock, 0u);
}

}  // namespace

// The injection layer itself: it fails exactly the armed call of the arming
// thread, and it sees what an operation leaves behind.
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/alloc_fail.h"

using alloc_fail::Attempt;

namespace {

// Kept out of the optimiser's reach, so every call really allocates.
void *(*volatile g_malloc)(size_t) = malloc;
char *(*volatile g_strdup)(const char *) = strdup;
void *(*volatile g_realloc)(void *, size_t) = realloc;

TEST(AllocLayer, FailsTheArmedCallOnlyAndCountsWhatStays) {
    void *kept[3] = {};
    // Another thread, allocating while this one is armed, is neither failed
    // nor counted.
    std::atomic<int> step{0};
    void *other = nullptr;
    std::thread t([&] {
        while (step.load() == 0) std::this_thread::yield();
        other = g_malloc(8);
        step = 2;
    });
    Attempt a(2);
    a.run([&] {
        kept[0] = g_malloc(8);
        step = 1;
        while (step.load() != 2) std::this_thread::yield();
        kept[1] = g_strdup("second");
        kept[2] = calloc(1, 8);
        return 0;
    });
    t.join();
    EXPECT_NE(other, nullptr);
    free(other);
    EXPECT_TRUE(a.injected());
    EXPECT_NE(kept[0], nullptr);
    EXPECT_EQ(kept[1], nullptr);
    EXPECT_NE(kept[2], nullptr);
    EXPECT_EQ(a.calls(), 3u);
    EXPECT_EQ(a.leaked(), 2u);
    free(kept[0]);
    EXPECT_EQ(a.leaked(), 1u);
    free(kept[2]);
    EXPECT_EQ(a.leaked(), 0u);
}

TEST(AllocLayer, FailedReallocKeepsTheBlockAndMovedOneIsFollowed) {
    Attempt first(1);
    char *p = static_cast<char *>(first.run([] { return g_malloc(4); }));
    EXPECT_EQ(p, nullptr);
    Attempt grow(2);
    void *moved = grow.run([&] {
        p = static_cast<char *>(g_malloc(4));
        memcpy(p, "abc", 4);
        return g_realloc(p, 1 << 20);
    });
    EXPECT_EQ(moved, nullptr);
    EXPECT_STREQ(p, "abc");
    EXPECT_EQ(grow.leaked(), 1u);
    Attempt again(0);
    p = static_cast<char *>(again.run([&] { return g_realloc(p, 1 << 20); }));
    EXPECT_STREQ(p, "abc");
    EXPECT_EQ(again.leaked(), 1u);
    free(p);
    EXPECT_EQ(again.leaked(), 0u);
}

// The sweep ends with the first run that made fewer calls than its k.
TEST(AllocLayer, SweepRunsEveryCallThenTheCompleteRun) {
    std::vector<unsigned> ks;
    EXPECT_EQ(alloc_fail::sweep([&](Attempt &a) {
        ks.push_back(a.k());
        a.run([] {
            for (int i = 0; i < 3; ++i) free(g_malloc(16));
            return 0;
        });
    }), 3u);
    EXPECT_EQ(ks, (std::vector<unsigned>{0, 1, 2, 3, 4}));
}

}  // namespace

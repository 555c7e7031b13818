// Allocation tracking: the live list, the leak report and threaded use.
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "kerm_memcheck.h"

// The leak report goes to the Android log, which on a host lands on stderr.
std::string report() {
    testing::internal::CaptureStderr();
    ut_memory_dumpleak();
    return testing::internal::GetCapturedStderr();
}

// Where the report names the block (npos: nowhere).
size_t leak_at(const std::string &out, const char *file, int line, long size, const void *p) {
    char text[256];
    snprintf(text, sizeof text, "LEAKED: %s (%4d): %ld bytes at %p\n", file, line, size, p);
    return out.find(text);
}

class MemcheckTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ut_memcheck_init(), 0); }
    void TearDown() override {
        EXPECT_EQ(ut_memory_checkleak(), 0) << report();
        EXPECT_EQ(ut_memcheck_deinit(), 0);
    }
};

TEST_F(MemcheckTest, ReportListsSurvivorsNewestFirstAtFatalPriority) {
    EXPECT_EQ(report(), "");
    void *a = ut_malloc(24, "a.c", 12), *b = ut_malloc(8, "b.c", 7), *c = ut_calloc(2, 5, "c.c", 1234);
    ut_free(b);
    EXPECT_EQ(ut_memory_checkleak(), -1);

    const std::string out = report();
    // Newest first; b is unlinked.
    EXPECT_LT(leak_at(out, "c.c", 1234, 10, c), leak_at(out, "a.c", 12, 24, a)) << out;
    EXPECT_NE(leak_at(out, "a.c", 12, 24, a), std::string::npos) << out;
    EXPECT_EQ(out.find("b.c"), std::string::npos) << out;
    EXPECT_TRUE(out.find("F/VASK44") != std::string::npos || out.find("VASK44 F") != std::string::npos) << out;
    ut_free(a);
    EXPECT_EQ(ut_memory_checkleak(), -1);
    ut_free(c);
    ut_free(nullptr);
}

TEST_F(MemcheckTest, CallocZeroesAndRecordsTheWrappedProduct) {
    void *z = ut_calloc(100, 3, "z.c", 5);
    EXPECT_EQ(memcmp(z, std::string(300, '\0').data(), 300), 0);
    // 0x10000 * 0x10001 wraps to 0x10000 in 32 bits.
    void *w = ut_calloc(0x10000u, 0x10001u, "w.c", 6);
    EXPECT_NE(leak_at(report(), "w.c", 6, 0x10000, w), std::string::npos);
    ut_free(w);
    ut_free(z);
    // On the 32-bit target adding the header must not wrap.
    EXPECT_EQ(sizeof(size_t) == 4 ? ut_malloc(0xFFFFFFFFu, "big.c", 1) : nullptr, nullptr);
}

TEST_F(MemcheckTest, ReallocNeverShrinksAndMovesToGrow) {
    auto *r = static_cast<char *>(ut_malloc(32, "r.c", 1));
    memset(r, 'r', 32);
    EXPECT_EQ(ut_realloc(r, 16, "s.c", 2), r);
    EXPECT_EQ(ut_realloc(r, 32, "s.c", 2), r);
    EXPECT_NE(leak_at(report(), "r.c", 1, 32, r), std::string::npos);
    auto *g = static_cast<char *>(ut_realloc(r, 64, "t.c", 3));
    EXPECT_EQ(std::string(g, 32), std::string(32, 'r'));
    const std::string out = report();
    EXPECT_NE(leak_at(out, "t.c", 3, 64, g), std::string::npos) << out;
    EXPECT_EQ(out.find("r.c"), std::string::npos) << out;
    EXPECT_EQ(ut_realloc(g, 0, "u.c", 4), nullptr);  // frees
}

TEST_F(MemcheckTest, ThreadsAllocateAndReleaseConcurrently) {
    void *kept[4];
    std::vector<std::thread> threads;
    for (void *&keep : kept)
        threads.emplace_back([&keep] {
            void *live[16] = {};
            for (int i = 0; i < 2000; ++i) {
                ut_free(live[i % 16]);
                live[i % 16] = ut_realloc(ut_malloc(8 + i % 64, "thread.c", 1), i % 3 ? 1 : 200, "grown.c", 2);
            }
            for (int i = 1; i < 16; ++i) ut_free(live[i]);
            keep = live[0];
        });
    for (auto &th : threads) th.join();
    EXPECT_EQ(ut_memory_dumpleak(), 4);
    for (void *p : kept) ut_free(p);
}

// The report walks the list while other threads link and unlink blocks: each
// report sees a consistent list (checked under the sanitizers).
TEST_F(MemcheckTest, ReportRunsWhileThreadsRelease) {
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&done] {
            for (int i = 0; i < 3000 || !done; ++i) ut_free(ut_malloc(16 + i % 32, "churn.c", 1));
        });
    testing::internal::CaptureStderr();
    int reported = 0;
    for (int i = 0; i < 300; ++i) reported += ut_memory_dumpleak();
    done = true;
    for (auto &th : threads) th.join();
    const std::string out = testing::internal::GetCapturedStderr();
    EXPECT_LE(reported, 600);
    size_t lines = 0;
    for (size_t at = out.find("LEAKED: churn.c"); at != std::string::npos; at = out.find("LEAKED: churn.c", at + 1))
        ++lines;
    EXPECT_EQ(lines, static_cast<size_t>(reported));
}

// Allocation tracking: the live list, the leak report and threaded use.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "kerm_memcheck.h"

namespace {

// The leak report goes to the Android log, which on a host lands on stderr.
std::string report() {
    fflush(stderr);
    testing::internal::CaptureStderr();
    ut_memory_dumpleak();
    fflush(stderr);
    return testing::internal::GetCapturedStderr();
}

std::string leak_line(const char *file, int line, long size, const void *p) {
    char text[256];
    snprintf(text, sizeof text, "LEAKED: %s (%4d): %ld bytes at %p", file, line, size, p);
    return text;
}

// The header directly before each user block: five words on the target.
struct Header {
    const char *file;
    uint32_t line;
    int32_t size;
    const Header *next;  // older
    const Header *prev;  // newer
};
static_assert(sizeof(void *) != 4 || sizeof(Header) == 20);
const Header *header_of(const void *user) { return static_cast<const Header *>(user) - 1; }

class MemcheckTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ut_memcheck_init(), 0);
        ASSERT_EQ(ut_memory_checkleak(), 0);
    }
    void TearDown() override {
        EXPECT_EQ(ut_memory_checkleak(), 0) << report();
        EXPECT_EQ(ut_memcheck_deinit(), 0);
    }
};

TEST_F(MemcheckTest, NothingLiveReportsNothing) {
    EXPECT_EQ(report(), "");
    ut_free(nullptr);
    void *p = ut_malloc(10, "x.c", 1);
    ut_free(p);
    EXPECT_EQ(ut_memory_checkleak(), 0);
    EXPECT_EQ(report(), "");
}

TEST_F(MemcheckTest, ReportListsSurvivorsNewestFirstAtFatalPriority) {
    static const char a_file[] = "a.c";
    void *a = ut_malloc(24, a_file, 12);
    void *b = ut_malloc(8, "b.c", 7);
    void *c = ut_calloc(2, 5, "c.c", 1234);
    ut_free(b);
    EXPECT_EQ(ut_memory_checkleak(), -1);

    // b is unlinked; the file text is kept by pointer.
    const Header *ha = header_of(a), *hc = header_of(c);
    EXPECT_EQ(ha->file, a_file);
    EXPECT_EQ(ha->line, 12u);
    EXPECT_EQ(ha->size, 24);
    EXPECT_EQ(hc->size, 10);
    EXPECT_EQ(hc->next, ha);
    EXPECT_EQ(hc->prev, nullptr);
    EXPECT_EQ(ha->prev, hc);
    EXPECT_EQ(ha->next, nullptr);

    const std::string out = report();
    const size_t at_c = out.find(leak_line("c.c", 1234, 10, c));
    const size_t at_a = out.find(leak_line("a.c", 12, 24, a));
    ASSERT_NE(at_c, std::string::npos) << out;
    ASSERT_NE(at_a, std::string::npos) << out;
    EXPECT_LT(at_c, at_a);
    EXPECT_EQ(out.find("b.c"), std::string::npos) << out;
    EXPECT_TRUE(out.find("F/VASK44") != std::string::npos || out.find("VASK44 F") != std::string::npos) << out;

    ut_free(a);
    EXPECT_EQ(ut_memory_checkleak(), -1);
    ut_free(c);
}

TEST_F(MemcheckTest, CallocZeroesAndRecordsTheWrappedProduct) {
    auto *z = static_cast<unsigned char *>(ut_calloc(100, 3, "z.c", 5));
    ASSERT_NE(z, nullptr);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(z[i], 0) << i;
    // 0x10000 * 0x10001 wraps to 0x10000 in 32 bits.
    void *w = ut_calloc(0x10000u, 0x10001u, "w.c", 6);
    ASSERT_NE(w, nullptr);
    EXPECT_NE(report().find(leak_line("w.c", 6, 0x10000, w)), std::string::npos);
    ut_free(w);
    ut_free(z);
}

TEST_F(MemcheckTest, ReallocNeverShrinksAndMovesToGrow) {
    auto *r = static_cast<char *>(ut_malloc(32, "r.c", 1));
    memset(r, 'r', 32);
    EXPECT_EQ(ut_realloc(r, 16, "s.c", 2), r);
    EXPECT_EQ(ut_realloc(r, 32, "s.c", 2), r);
    EXPECT_NE(report().find(leak_line("r.c", 1, 32, r)), std::string::npos);

    auto *g = static_cast<char *>(ut_realloc(r, 64, "t.c", 3));
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(std::string(g, 32), std::string(32, 'r'));
    const std::string out = report();
    EXPECT_NE(out.find(leak_line("t.c", 3, 64, g)), std::string::npos) << out;
    EXPECT_EQ(out.find("r.c"), std::string::npos) << out;

    EXPECT_EQ(ut_realloc(g, 0, "u.c", 4), nullptr);
    EXPECT_EQ(ut_memory_checkleak(), 0);

    void *e = ut_realloc(nullptr, 0, "e.c", 9);
    ASSERT_NE(e, nullptr);
    EXPECT_NE(report().find(leak_line("e.c", 9, 0, e)), std::string::npos);
    ut_free(e);
}

TEST_F(MemcheckTest, SizesPastTheAddressSpaceFailWithoutRecording) {
    // Only a 32-bit size_t can wrap when the header is added.
    if (sizeof(size_t) != 4) GTEST_SKIP() << "64-bit host";
    EXPECT_EQ(ut_malloc(0xFFFFFFFFu, "big.c", 1), nullptr);
    EXPECT_EQ(ut_calloc(0xFFFFu, 0x10001u, "big.c", 2), nullptr);
    EXPECT_EQ(ut_memory_checkleak(), 0);
}

TEST_F(MemcheckTest, ThreadsAllocateAndReleaseConcurrently) {
    constexpr int kThreads = 4;
    std::vector<void *> kept(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &kept] {
            std::vector<void *> live;
            for (int i = 0; i < 2000; ++i) {
                live.push_back(ut_malloc(static_cast<uint32_t>(8 + i % 64), "thread.c", static_cast<uint32_t>(t)));
                if (i % 3 == 0) live.back() = ut_realloc(live.back(), 200, "grown.c", static_cast<uint32_t>(t));
                if (live.size() > 16) {
                    ut_free(live.front());
                    live.erase(live.begin());
                }
            }
            kept[static_cast<size_t>(t)] = live.back();
            live.pop_back();
            for (void *p : live) ut_free(p);
        });
    }
    for (auto &th : threads) th.join();
    EXPECT_EQ(ut_memory_dumpleak(), kThreads);
    for (void *p : kept) ut_free(p);
}

}  // namespace

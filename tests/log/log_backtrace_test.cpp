#include <string.h>

#include <string>

#include "kerm_log.h"
#include <gtest/gtest.h>

namespace {
__attribute__((noinline)) std::string capture_here(char *dst, int32_t size) {
    vask_log_copy_backtrace(dst, size);
    asm volatile("" ::: "memory");  // keep this frame a real call
    return std::string(dst);
}
}  // namespace

TEST(LogBacktrace, BufferHandling) {
    // Sizes below 2 store exactly one zero byte and capture nothing.
    for (int32_t size : {1, 0, -5}) {
        char buf[4] = {'a', 'b', 'c', 'd'};
        EXPECT_EQ(vask_log_copy_backtrace(buf, size), 0u);
        EXPECT_EQ(std::string(buf, 4), std::string("\0bcd", 4)) << size;
    }
    // Every frame line carries the prefix; the capturing call is not a frame.
    char full[8192];
    std::string text = capture_here(full, sizeof full);
    ASSERT_FALSE(text.empty());
    for (size_t start = 0; start < text.size(); start = text.find('\n', start) + 1) {
        EXPECT_EQ(text.compare(start, 5, "\t    "), 0) << text;
        if (text.find('\n', start) == std::string::npos) break;
    }
    EXPECT_EQ(text.find("vask_log_copy_backtrace"), std::string::npos) << text;
    // A longer text is cut at size - 1 and terminated, nothing written past it.
    char buf[16];
    memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(capture_here(buf, 10).size(), 9u);
    EXPECT_EQ(buf[10], 'Z');
    EXPECT_EQ(vask_log_dump_backtrace("kerm-test"), 0u);
}

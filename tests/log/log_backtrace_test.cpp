#include <string.h>

#include <string>

#include "kerm_log.h"
#include <gtest/gtest.h>

namespace {
__attribute__((noinline)) void capture_here(char *dst, int32_t size) {
    vask_log_copy_backtrace(dst, size);
    asm volatile("" ::: "memory");  // keep this frame a real call
}
}  // namespace

TEST(LogBacktrace, TinyBuffersGetExactlyOneZeroByte) {
    char buf[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(vask_log_copy_backtrace(buf, 1), 0u);
    EXPECT_EQ(std::string(buf, 4), std::string("\0bcd", 4));
    buf[0] = 'a';
    vask_log_copy_backtrace(buf, 0);
    EXPECT_EQ(std::string(buf, 4), std::string("\0bcd", 4));
    buf[0] = 'a';
    vask_log_copy_backtrace(buf, -5);
    EXPECT_EQ(buf[0], '\0');
}

TEST(LogBacktrace, FramesArePrefixedAndStartAtTheCaller) {
    char buf[8192];
    capture_here(buf, sizeof buf);
    std::string text(buf);
    ASSERT_FALSE(text.empty());
    size_t start = 0;
    while (start < text.size()) {
        EXPECT_EQ(text.compare(start, 5, "\t    "), 0) << text;
        size_t nl = text.find('\n', start);
        if (nl == std::string::npos) break;
        start = nl + 1;
    }
    // The capturing call itself is not among the frames.
    EXPECT_EQ(text.find("vask_log_copy_backtrace"), std::string::npos) << text;
}

TEST(LogBacktrace, LongTextIsCutAndTerminated) {
    char full[8192];
    capture_here(full, sizeof full);
    char buf[16];
    memset(buf, 'Z', sizeof buf);
    capture_here(buf, 10);
    EXPECT_EQ(buf[9], '\0');
    EXPECT_EQ(strlen(buf), strlen(full) >= 9 ? 9u : strlen(full));
    EXPECT_EQ(buf[10], 'Z');
    EXPECT_EQ(vask_log_dump_backtrace("kerm-test"), 0u);
}

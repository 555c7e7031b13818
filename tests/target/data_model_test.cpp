// The data model the library is written for: ILP32 ARM EABI on the device,
// LP64 on the development host. These cases fail when a build silently picks
// the wrong model; the families' own suites pin their record sizes, 32-bit
// wraps and 64-bit file offsets (the time-sync mapping above 2 GiB).
#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

#if defined(__arm__)
constexpr size_t kWord = 4;
#elif defined(__x86_64__) || defined(__aarch64__)
constexpr size_t kWord = 8;
#else
#error "unknown build machine: add its word size"
#endif

TEST(DataModel, WordSizesFollowTheArch) {
    EXPECT_EQ(sizeof(void *), kWord);
    EXPECT_EQ(sizeof(long), kWord);
    EXPECT_EQ(sizeof(size_t), kWord);
    // A u32 that carries a pointer is uintptr_t: exactly as wide as a pointer.
    EXPECT_EQ(sizeof(uintptr_t), sizeof(void *));
    EXPECT_EQ(UINTPTR_MAX, kWord == 4 ? uintmax_t{UINT32_MAX} : uintmax_t{UINT64_MAX});
    EXPECT_EQ(sizeof(int), 4u);
    EXPECT_EQ(sizeof(long long), 8u);
#if defined(__arm__)
    // glibc's armhf ABI keeps a 32-bit time_t unless _TIME_BITS=64 is asked for:
    // tv_sec * 1000000 overflows a signed 32-bit value after 35 minutes.
    EXPECT_EQ(sizeof(time_t), 4u);
    // Plain char is unsigned on ARM: code that stores -1 or tests c < 0 in a
    // char behaves differently from the host.
    EXPECT_EQ(CHAR_MIN, 0);
#else
    EXPECT_EQ(sizeof(time_t), 8u);
    EXPECT_LT(CHAR_MIN, 0);
#endif
}

// The families test deliberate process ends (exit status -1) as death tests;
// this proves the mechanism itself works on the build being tested, which
// under user-mode emulation is not a given.
TEST(DeathTest, ExitMinusOneIsStatus255) {
    EXPECT_EXIT(exit(-1), ::testing::ExitedWithCode(255), "");
    EXPECT_DEATH(abort(), "");
}

}  // namespace

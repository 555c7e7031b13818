// The data model the library is written for: ILP32 ARM EABI on the device,
// LP64 on the development host. These cases fail when a build silently picks
// the wrong model, and pin the arithmetic the record layouts and the 32-bit
// counters depend on.
#include <gtest/gtest.h>

#include <atomic>
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

TEST(DataModel, PointerRoundTripsThroughU32OnlyOnTarget) {
    int object = 0;
    uintptr_t wide = reinterpret_cast<uintptr_t>(&object);
    uint32_t narrow = static_cast<uint32_t>(wide);
    EXPECT_EQ(reinterpret_cast<int *>(wide), &object);
    if (kWord == 4) {
        EXPECT_EQ(uintptr_t{narrow}, wide);
    }
}

TEST(DataModel, SixtyFourBitMembersAreEightAligned) {
    // The EABI aligns 64-bit members to 8 inside records (unlike i386), so
    // record sizes are equal on the target and the LP64 host when they hold
    // no pointers; pointer members alone make the sizes differ.
    struct U32ThenU64 { uint32_t a; uint64_t b; };
    struct U32ThenPtr { uint32_t a; void *p; };
    EXPECT_EQ(alignof(uint64_t), 8u);
    EXPECT_EQ(alignof(double), 8u);
    EXPECT_EQ(sizeof(U32ThenU64), 16u);
    EXPECT_EQ(offsetof(U32ThenU64, b), 8u);
    EXPECT_EQ(sizeof(U32ThenPtr), 2 * kWord);
}

// A microsecond stamp kept in 32 bits: seconds * 1000000 + ns / 1000, taken
// modulo 2^32. Computed in unsigned 32-bit it is defined everywhere and agrees
// with the exact 64-bit value reduced; it wraps every 4294.967296 s.
uint32_t stamp_u32(uint32_t sec, uint32_t nsec) {
    return sec * 1000000u + nsec / 1000u;
}

TEST(Wrap, UnsignedThirtyTwoBitArithmeticIsModular) {
    const uint32_t secs[] = {0, 2147, 4294, 4295, 86400, 1700000000u, UINT32_MAX};
    for (uint32_t s : secs) {
        for (uint32_t ns : {0u, 999u, 1000u, 999999999u}) {
            uint64_t exact = uint64_t{s} * 1000000u + ns / 1000u;
            EXPECT_EQ(stamp_u32(s, ns), static_cast<uint32_t>(exact)) << s << "s " << ns << "ns";
        }
    }
    // Elapsed time between two stamps survives one wrap when subtracted unsigned.
    uint32_t before = stamp_u32(4294, 900000000u);  // 4294.9 s, just before the wrap
    uint32_t after = stamp_u32(4295, 100000000u);   // 4295.1 s, just after it
    EXPECT_LT(after, before);
    EXPECT_EQ(static_cast<uint32_t>(after - before), 200000u);
    // Ring indices: free-running 32-bit head/tail counters keep their distance
    // across UINT32_MAX, and a power-of-two mask stays continuous.
    uint32_t tail = UINT32_MAX - 2, head = tail + 5;
    EXPECT_EQ(head, 2u);
    EXPECT_EQ(head - tail, 5u);
    EXPECT_EQ(head & 63u, ((tail & 63u) + 5) & 63u);
}

TEST(Wrap, ThirtyTwoBitAtomicsAreLockFreeAndWrap) {
    static_assert(std::atomic<uint32_t>::is_always_lock_free);
    std::atomic<uint32_t> counter{UINT32_MAX};
    EXPECT_EQ(counter.fetch_add(1), UINT32_MAX);
    EXPECT_EQ(counter.load(), 0u);
    uint32_t expected = 0;
    EXPECT_TRUE(counter.compare_exchange_strong(expected, 7u));
    expected = 0;
    EXPECT_FALSE(counter.compare_exchange_strong(expected, 9u));
    EXPECT_EQ(expected, 7u);
}

// The families test deliberate process ends (exit status -1) as death tests;
// this proves the mechanism itself works on the build being tested, which
// under user-mode emulation is not a given.
TEST(DeathTest, ExitMinusOneIsStatus255) {
    EXPECT_EXIT(exit(-1), ::testing::ExitedWithCode(255), "");
    EXPECT_DEATH(abort(), "");
}

}  // namespace

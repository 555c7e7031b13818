// SSFN time sync against the substitute device file: the cells the radio
// processor writes are poked with file I/O, the offset the library writes is
// read back the same way.

#include "devmem_file.h"
#include "kerm_sdr.h"

namespace {

constexpr uint64_t kBlock = VASK_SYNC_PHYS_ADDR;

// Packs a millisecond count the way the radio processor does.
constexpr uint32_t pack(uint32_t ms) {
    return ((ms / VASK_SSFN_PERIOD_MS) << 16) | (ms % VASK_SSFN_PERIOD_MS);
}

class TimeSyncTest : public sdr_test::DevMemTest {
protected:
    static void latch(uint32_t packed) { mem().put<uint32_t>(kBlock + VASK_SYNC_SSFN_LATCH, packed); }
    static void offset(uint8_t sign, uint64_t delta) {
        mem().put<uint8_t>(kBlock + VASK_SYNC_DELTA_SIGN, sign);
        mem().put<uint64_t>(kBlock + VASK_SYNC_DELTA, delta);
    }
    static uint8_t sign() { return mem().at<uint8_t>(kBlock + VASK_SYNC_DELTA_SIGN); }
    static uint64_t delta() { return mem().at<uint64_t>(kBlock + VASK_SYNC_DELTA); }
    static uint32_t to_ssfn(uint64_t local_us) {
        uint32_t ms = 0xDEADBEEF;
        EXPECT_EQ(vask_util_get_convert_ssfn_for_talvek(local_us, &ms), 0);
        return ms;
    }
    static uint64_t to_local(uint32_t ssfn_ms) {
        uint64_t us = 0xDEADBEEF;
        EXPECT_EQ(vask_util_get_convert_fc_timeus_for_talvek(ssfn_ms, &us), 0);
        return us;
    }
};

TEST_F(TimeSyncTest, CounterIsReadPackedAndAsMilliseconds) {
    struct {
        uint32_t packed, ms;
    } const cases[] = {{0x00030010u, 30736u}, {0x0000FFFFu, 65535u}, {0xFFFFFFFFu, 65535u + 10240u * 65535u}};
    for (const auto &c : cases) {
        mem().put<uint32_t>(kBlock + VASK_SYNC_SSFN_CNT, c.packed);
        uint64_t count = ~0ull;
        uint32_t ms = 0;
        ASSERT_EQ(vask_util_get_ssfn_cnt_for_talvek(&count), 0);
        ASSERT_EQ(vask_util_get_ssfn_ms_for_talvek(&ms), 0);
        EXPECT_EQ(count, c.packed);
        EXPECT_EQ(ms, c.ms) << std::hex << c.packed;
    }
}

TEST_F(TimeSyncTest, SsfnAheadOfLocalTimeStoresSignOne) {
    latch(0x00030010u);  // 30 736 ms
    mem().put<uint8_t>(kBlock + VASK_SYNC_DELTA - 1, 0x77);
    mem().put<uint8_t>(kBlock + VASK_SYNC_DELTA_SIGN + 1, 0x77);
    ASSERT_EQ(vask_util_set_ssfn_delta_for_talvek(30000000u), 0);
    EXPECT_EQ(sign(), 1);
    EXPECT_EQ(delta(), 736000u);
    // Offset and sign are 9 bytes together: their neighbours keep their contents.
    EXPECT_EQ(mem().at<uint8_t>(kBlock + VASK_SYNC_DELTA - 1), 0x77);
    EXPECT_EQ(mem().at<uint8_t>(kBlock + VASK_SYNC_DELTA_SIGN + 1), 0x77);

    EXPECT_EQ(to_ssfn(31000000u), 31736u);
    EXPECT_EQ(to_local(31736u), 31000000u);
    EXPECT_EQ(to_ssfn(31000999u), 31736u);  // truncating division

    // Equal times still count as "at or after": sign 1, offset 0.
    ASSERT_EQ(vask_util_set_ssfn_delta_for_talvek(30736000u), 0);
    EXPECT_EQ(sign(), 1);
    EXPECT_EQ(delta(), 0u);
}

TEST_F(TimeSyncTest, LocalTimeAheadOfSsfnStoresSignZero) {
    latch(0x00030010u);
    offset(1, 12345);
    ASSERT_EQ(vask_util_set_ssfn_delta_for_talvek(40000000u), 0);
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(delta(), 9264000u);
    EXPECT_EQ(to_ssfn(40000000u), 30736u);
    EXPECT_EQ(to_local(30736u), 40000000u);
}

TEST_F(TimeSyncTest, ProductsAndSumsAreSixtyFourBit) {
    // 5 000 000 ms of SSFN time is 5e9 us, beyond 32 bits.
    latch(pack(5000000u));
    ASSERT_EQ(vask_util_set_ssfn_delta_for_talvek(0), 0);
    EXPECT_EQ(sign(), 1);
    EXPECT_EQ(delta(), 5000000000ull);
    EXPECT_EQ(to_ssfn(0), 5000000u);
    EXPECT_EQ(to_local(5000000u), 0u);
    EXPECT_EQ(to_local(5000001u), 1000u);

    // The quotient is taken in 64 bits and only then cut to 32 bits.
    offset(1, 0);
    EXPECT_EQ(to_ssfn(5000000123456ull), static_cast<uint32_t>(5000000123ull));
    EXPECT_EQ(to_local(4294967295u), 4294967295000ull);

    // Sums wrap modulo 2^64 rather than saturating.
    offset(0, 2000);
    EXPECT_EQ(to_ssfn(1000), static_cast<uint32_t>((~0ull - 999) / 1000));
    EXPECT_EQ(to_local(1), 3000u);
    offset(1, 2000);
    EXPECT_EQ(to_local(1), ~0ull - 999);
}

TEST_F(TimeSyncTest, SyncTimeProductWrapsAtThirtyTwoBits) {
    mem().put<uint32_t>(kBlock + VASK_SYNC_INDEX, 0xC0FFEE01u);
    mem().put<uint64_t>(kBlock + VASK_SYNC_LOCAL_TIME, 0x0123456789ABCDEFull);
    latch(pack(30736u));
    uint32_t index = 0;
    uint64_t local = 0, ssfn_us = 0;
    ASSERT_EQ(vask_util_get_synctime_from_shmem(&index, &local, &ssfn_us), 0);
    EXPECT_EQ(index, 0xC0FFEE01u);
    EXPECT_EQ(local, 0x0123456789ABCDEFull);
    EXPECT_EQ(ssfn_us, 30736000u);

    // 5e9 us wraps to 5e9 - 2^32; the delta from the same latch does not.
    latch(pack(5000000u));
    ASSERT_EQ(vask_util_get_synctime_from_shmem(&index, &local, &ssfn_us), 0);
    EXPECT_EQ(ssfn_us, 705032704u);
    ASSERT_EQ(vask_util_set_ssfn_delta_for_talvek(0), 0);
    EXPECT_EQ(delta(), 5000000000ull);

    // Outputs the caller does not want may be null.
    EXPECT_EQ(vask_util_get_synctime_from_shmem(nullptr, nullptr, &ssfn_us), 0);
    EXPECT_EQ(vask_util_get_convert_ssfn_for_talvek(0, nullptr), 0);
}

}  // namespace

// The process-wide SDR register region: init/get/deinit state machine.
#include "devmem_file.h"
#include "kerm_sdr.h"

namespace {

// The parameter cell sits 304 + 52 bytes into physical memory.
constexpr uint64_t kParamCell = 304 + VASK_SYNC_SSFN_CNT;
// A 32-bit process cannot map the 0xFFFC2000-byte region.
constexpr bool kRegionFits = sizeof(void *) > 4;

class SdrRegionTest : public sdr_test::DevMemTest {
protected:
    static int32_t get(uint32_t id, uint32_t len, uint32_t *out) { return vask_util_sdr_get_param(id, out, len); }
};

TEST_F(SdrRegionTest, RefusesEverythingBeforeInit) {
    uint32_t v = 0;
    EXPECT_EQ(vask_util_sdr_get_param(0, nullptr, 4), KERM_ERR_PARAM);
    EXPECT_EQ(get(0, 0, &v), KERM_ERR_PARAM);
    EXPECT_EQ(get(0, 4, &v), KERM_ERR_NOT_INIT);
    EXPECT_EQ(get(1, 4, &v), KERM_ERR_NOT_INIT);
    EXPECT_EQ(vask_util_sdr_deinit(), KERM_ERR_FAIL);
}

TEST_F(SdrRegionTest, ThirtyTwoBitProcessCannotMapTheRegion) {
    if (kRegionFits) GTEST_SKIP() << "64-bit process: the region fits";
    uint32_t v = 0;
    EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL);
    EXPECT_EQ(get(0, 4, &v), KERM_ERR_NOT_INIT);
}

TEST_F(SdrRegionTest, ReadsTheCounterCellOnceMapped) {
    if (!kRegionFits) GTEST_SKIP() << "32-bit process: the region cannot be mapped";
    mem().put<uint32_t>(kParamCell, 0x00030010u);
    ASSERT_EQ(vask_util_sdr_init(), 0);

    uint32_t buf[2] = {0, 0xAAAAAAAAu};
    EXPECT_EQ(get(1, 4, buf), KERM_ERR_UNSUPPORTED);
    EXPECT_EQ(get(0, 2, buf), KERM_ERR_PARAM);
    EXPECT_EQ(get(0, 3, buf), KERM_ERR_PARAM);
    EXPECT_EQ(buf[0], 0u);
    EXPECT_EQ(get(0, 8, buf), 0);
    EXPECT_EQ(buf[0], 0x00030010u);
    EXPECT_EQ(buf[1], 0xAAAAAAAAu);  // only the one u32 is copied

    // A second init is refused and keeps the first mapping, which stays live.
    EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL);
    mem().put<uint32_t>(kParamCell, 0x00040020u);
    EXPECT_EQ(get(0, 4, buf), 0);
    EXPECT_EQ(buf[0], 0x00040020u);

    EXPECT_EQ(vask_util_sdr_deinit(), 0);
    EXPECT_EQ(get(0, 4, buf), KERM_ERR_NOT_INIT);
    EXPECT_EQ(vask_util_sdr_deinit(), KERM_ERR_FAIL);
    // Deinit cleared the state: it can be set up again.
    EXPECT_EQ(vask_util_sdr_init(), 0);
    EXPECT_EQ(vask_util_sdr_deinit(), 0);
}

}  // namespace

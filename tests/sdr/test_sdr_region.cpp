// The process-wide SDR register region: init/get/deinit state machine.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>

#include "devmem_file.h"
#include "kerm_sdr.h"

using sdr_test::DevMemFile;

namespace {

// The parameter cell sits 304 + 52 bytes into physical memory.
constexpr uint64_t kParamCell = 304 + VASK_SYNC_SSFN_CNT;
// A 32-bit process cannot map the 0xFFFC2000-byte region.
constexpr bool kRegionFits = sizeof(void *) > 4;

class SdrRegionTest : public ::testing::Test {
protected:
    void SetUp() override {
        mem().use();
        mem().clear();
    }
    void TearDown() override {
        vask_util_sdr_deinit();
        sdr_test::set_root("");
    }
    static const DevMemFile &mem() { return DevMemFile::instance(); }
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

TEST_F(SdrRegionTest, FailedOpenOrMappingLeavesItUninitialised) {
    uint32_t v = 0;
    sdr_test::set_root(sdr_test::make_scratch_dir("sdr-nodev"));
    EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL);
    EXPECT_EQ(get(0, 4, &v), KERM_ERR_NOT_INIT);

    // A FIFO opens read-write but cannot be mapped.
    const std::string root = sdr_test::make_scratch_dir("sdr-fifo");
    ASSERT_EQ(mkdir((root + "/dev").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((root + "/dev/mem").c_str(), 0600), 0);
    sdr_test::set_root(root);
    EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL);
    EXPECT_EQ(get(0, 4, &v), KERM_ERR_NOT_INIT);
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

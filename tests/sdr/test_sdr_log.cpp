// Log lines of the SDR and time-sync functions: module 0, level 1, the fixed
// source path text and the function name.
#include <errno.h>
#include <string.h>

#include <functional>
#include <string>

#include "devmem_file.h"
#include "kerm_log.h"
#include "kerm_sdr.h"

namespace {

class SdrLogTest : public sdr_test::DevMemTest {
protected:
    void SetUp() override {
        DevMemTest::SetUp();
        ASSERT_EQ(vask_log_control(LOG_CTRL_GET_HEAD_FLAGS, reinterpret_cast<uintptr_t>(&flags_), 0), 0);
        ASSERT_EQ(vask_log_control(LOG_CTRL_GET_MODULE_LEVEL, kSdrModule, reinterpret_cast<uintptr_t>(&level_)),
                  0);
    }
    void TearDown() override {
        DevMemTest::TearDown();
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, flags_, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, kSdrModule, level_);
    }

    // Console output of fn with the given header fields and module-0 threshold.
    static std::string capture(uint32_t head, uint32_t threshold, const std::function<void()> &fn) {
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, head, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, kSdrModule, threshold);
        ::testing::internal::CaptureStdout();
        fn();
        return ::testing::internal::GetCapturedStdout();
    }
    static constexpr uint32_t kSdrModule = 0;
    static constexpr uint32_t kModLevel = LOG_HDR_MODULE | LOG_HDR_LEVEL;

private:
    uint32_t flags_ = 0, level_ = 0;
};

// A failed init is logged and leaves the region uninitialised.
TEST_F(SdrLogTest, InitFailuresAreLoggedAtErrorLevelOfModuleZero) {
    use_missing_device();
    const auto init = [] {
        uint32_t v;
        EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL);
        EXPECT_EQ(vask_util_sdr_get_param(0, &v, 4), KERM_ERR_NOT_INIT);
        EXPECT_EQ(vask_util_sdr_deinit(), KERM_ERR_FAIL);
    };
    EXPECT_EQ(capture(kModLevel, 0, init), "");
    std::string out = capture(kModLevel, 1, init);
    EXPECT_NE(out.find("VASK00@1 :util sdr open dev/mem failed No such file or directory\n"), std::string::npos)
        << out;

    use_fifo_device();
    out = capture(LOG_HDR_FUNC, 1, init);
    EXPECT_NE(out.find("[      vask_util_sdr_init :util sdr mmap2 \n"), std::string::npos) << out;
    // A 32-bit process runs out of address space before the device is asked.
    const std::string why = strerror(sizeof(void *) == 4 ? ENOMEM : ENODEV);
    EXPECT_NE(out.find("[      vask_util_sdr_init :util sdr mmap failed res " + why + "\n"), std::string::npos) << out;
}

TEST_F(SdrLogTest, RepeatedInitIsLogged) {
    if (sizeof(void *) == 4) GTEST_SKIP() << "32-bit process: the region cannot be mapped";
    ASSERT_EQ(vask_util_sdr_init(), 0);
    const std::string out = capture(LOG_HDR_FILE, 1, [] { EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL); });
    EXPECT_NE(out.find("utility/sdr/kerm_sdr :util sdr init again\n"), std::string::npos) << out;
}

TEST_F(SdrLogTest, SyncTimeLogsItsReadings) {
    mem().put<uint32_t>(VASK_SYNC_PHYS_ADDR + VASK_SYNC_INDEX, 7);
    mem().put<uint64_t>(VASK_SYNC_PHYS_ADDR + VASK_SYNC_LOCAL_TIME, 123456789012ull);
    mem().put<uint32_t>(VASK_SYNC_PHYS_ADDR + VASK_SYNC_SSFN_LATCH, 0x00030010u);
    const std::string out = capture(kModLevel | LOG_HDR_FUNC, 1, [] {
        uint32_t index;
        uint64_t local, ssfn;
        EXPECT_EQ(vask_util_get_synctime_from_shmem(&index, &local, &ssfn), 0);
    });
    EXPECT_EQ(out.substr(out.find("VASK00")),
              "VASK00@1[vask_util_get_synctime_from_shmem :index = 7 localtime = 123456789012 ssfn = 30736000\r\n");
}

}  // namespace

// Log lines of the SDR and time-sync functions: module 0, level 1, the fixed
// source path text and the function name.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>

#include "devmem_file.h"
#include "kerm_log.h"
#include "kerm_sdr.h"

using sdr_test::DevMemFile;

namespace {

class SdrLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(vask_log_control(LOG_CTRL_GET_HEAD_FLAGS, reinterpret_cast<uintptr_t>(&flags_), 0), 0);
        ASSERT_EQ(vask_log_control(LOG_CTRL_GET_MODULE_LEVEL, kSdrModule, reinterpret_cast<uintptr_t>(&level_)),
                  0);
        DevMemFile::instance().use();
        DevMemFile::instance().clear();
    }
    void TearDown() override {
        vask_util_sdr_deinit();
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, flags_, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, kSdrModule, level_);
        sdr_test::set_root("");
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

TEST_F(SdrLogTest, InitFailuresAreLoggedAtErrorLevelOfModuleZero) {
    sdr_test::set_root(sdr_test::make_scratch_dir("sdr-nodev"));
    const auto init = [] { EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL); };
    EXPECT_EQ(capture(kModLevel, 0, init), "");
    std::string out = capture(kModLevel, 1, init);
    EXPECT_NE(out.find("VASK00@1 :util sdr open dev/mem failed No such file or directory\n"), std::string::npos)
        << out;

    const std::string root = sdr_test::make_scratch_dir("sdr-fifo");
    ASSERT_EQ(mkdir((root + "/dev").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((root + "/dev/mem").c_str(), 0600), 0);
    sdr_test::set_root(root);
    out = capture(LOG_HDR_FUNC, 1, init);
    EXPECT_NE(out.find("[      vask_util_sdr_init :util sdr mmap2 \n"), std::string::npos) << out;
    EXPECT_NE(out.find("[      vask_util_sdr_init :util sdr mmap failed res No such device\n"), std::string::npos)
        << out;
}

TEST_F(SdrLogTest, RepeatedInitIsLogged) {
    if (sizeof(void *) == 4) GTEST_SKIP() << "32-bit process: the region cannot be mapped";
    ASSERT_EQ(vask_util_sdr_init(), 0);
    const std::string out = capture(LOG_HDR_FILE, 1, [] { EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL); });
    EXPECT_NE(out.find("utility/sdr/kerm_sdr :util sdr init again\n"), std::string::npos) << out;
}

TEST_F(SdrLogTest, SyncTimeLogsItsReadings) {
    const DevMemFile &mem = DevMemFile::instance();
    mem.put<uint32_t>(VASK_SYNC_PHYS_ADDR + VASK_SYNC_INDEX, 7);
    mem.put<uint64_t>(VASK_SYNC_PHYS_ADDR + VASK_SYNC_LOCAL_TIME, 123456789012ull);
    mem.put<uint32_t>(VASK_SYNC_PHYS_ADDR + VASK_SYNC_SSFN_LATCH, 0x00030010u);
    const std::string out = capture(kModLevel | LOG_HDR_FUNC, 1, [] {
        uint32_t index;
        uint64_t local, ssfn;
        EXPECT_EQ(vask_util_get_synctime_from_shmem(&index, &local, &ssfn), 0);
    });
    EXPECT_EQ(out.substr(out.find("VASK00")),
              "VASK00@1[vask_util_get_synctime_from_shmem :index = 7 localtime = 123456789012 ssfn = 30736000\r\n");
}

}  // namespace

// Physical-memory cells, SSFN time sync and the SDR region against a substitute
// memory device: a sparse file of a little over 4 GiB at "$KERM_UTIL_ROOT/dev/mem",
// poked and read with plain file I/O at physical offsets.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "kerm_log.h"
#include "kerm_sdr.h"
#include "support/scratch_dir.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
constexpr uint64_t kBlock = VASK_SYNC_PHYS_ADDR;
constexpr uint32_t kHead = LOG_HDR_MODULE | LOG_HDR_LEVEL | LOG_HDR_FUNC;

// Packs a millisecond count the way the radio processor does.
constexpr uint32_t pack(uint32_t ms) { return ((ms / VASK_SSFN_PERIOD_MS) << 16) | (ms % VASK_SSFN_PERIOD_MS); }

// One device file for the whole suite: every test pokes the cells it reads.
class SdrTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new kerm_test::ScratchDir;
        root_ = dir_->root();
        fd_ = open(dir_->write("dev/mem", "").c_str(), O_RDWR);
        ASSERT_EQ(ftruncate(fd_, 0x100001000ll), 0) << root_;  // one page past 4 GiB
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0, 1);  // errors only
    }
    static void TearDownTestSuite() {
        close(fd_);
        delete dir_;
    }
    void SetUp() override { use_root(root_); }
    void TearDown() override { vask_util_sdr_deinit(); }

    static void use_root(const std::string &root) { setenv("KERM_UTIL_ROOT", root.c_str(), 1); }
    static void poke(uint64_t phys, const void *p, size_t n) { ASSERT_EQ(pwrite(fd_, p, n, off_t(phys)), ssize_t(n)); }
    static void peek(uint64_t phys, void *p, size_t n) { ASSERT_EQ(pread(fd_, p, n, off_t(phys)), ssize_t(n)); }
    template <typename T>
    static void put(uint64_t phys, T v) { poke(phys, &v, sizeof v); }
    template <typename T>
    static T at(uint64_t phys) {
        T v{};
        peek(phys, &v, sizeof v);
        return v;
    }
    // Console output of fn with the given header fields.
    template <typename F>
    static std::string logged(uint32_t head, F fn) {
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, head, 0);
        return kerm_test::stdout_of(fn);
    }
    static inline kerm_test::ScratchDir *dir_;
    static inline std::string root_;
    static inline int fd_ = -1;
};

TEST_F(SdrTest, CellsAreNativeBytesAtAnyOffsetFromThePageOffsetInWholePages) {
    uint8_t bytes[32];
    for (uint8_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<uint8_t>(0xF0 - i);
    poke(kBlock, bytes, sizeof bytes);
    put<uint8_t>(0xFFFC1FFEu, 0xF0);
    put<uint32_t>(kBlock & ~0xFFFull, 0x50414745u);  // first word of the page above 2 GiB
    // {address, size, page offset, mapped length}: the size rounds up without the page offset.
    const uint32_t rows[][4] = {{0xFFFC1FFEu, 1, 0xFFE, 4096}, {0xFFFC1FFEu, 4096, 0xFFE, 4096},
                                {0xFFFC1FFEu, 4097, 0xFFE, 8192}, {0xFFFC1100u, 304, 0x100, 4096}};
    vask_shmem *h = nullptr;
    for (const auto &r : rows) {
        vask_util_release_shmem(h);  // null at first: nothing to release
        h = vask_util_create_shmem(r[0], r[1]);
        ASSERT_NE(h, nullptr);
        ASSERT_NE(h->base, MAP_FAILED);
        EXPECT_EQ(h->size, r[1]);
        EXPECT_EQ(h->page_offset, r[2]);
        EXPECT_EQ(h->map_len, r[3]) << r[1];
        EXPECT_EQ(*static_cast<const uint32_t *>(h->base), 0x50414745u);
        EXPECT_EQ(vask_util_get_shmem_u8(h, 0), 0xF0u);
    }
    // The last handle holds the time-sync block.
    EXPECT_EQ(vask_util_get_shmem_u8(h, 1), 0xEFu);
    EXPECT_EQ(vask_util_get_shmem_u16(h, 3), 0xECEDu);
    EXPECT_EQ(vask_util_get_shmem_u32(h, 7), 0xE6E7E8E9u);
    EXPECT_EQ(vask_util_get_shmem_u64(h, 13), 0xDCDDDEDFE0E1E2E3ull);
    vask_util_set_shmem_u8(h, 1, 0x123456ABu);  // only the low byte/half is stored
    vask_util_set_shmem_u16(h, 3, 0xDEADBEEFu);
    vask_util_set_shmem_u32(h, 7, 0x01020304u);
    vask_util_set_shmem_u64(h, 13, 0x1122334455667788ull);
    vask_util_set_shmem(h, 26, 3, reinterpret_cast<const uint8_t *>("\1\2\3"));
    // The pattern with those writes in place; every neighbour keeps its byte.
    const char want[] = "\xF0\xAB\xEE\xEF\xBE\xEB\xEA\4\3\2\1\xE5\xE4\x88\x77\x66\x55\x44\x33\x22\x11"
                        "\xDB\xDA\xD9\xD8\xD7\1\2\3\xD3\xD2\xD1";
    vask_util_get_shmem(h, 0, sizeof bytes, bytes);
    EXPECT_EQ(0, memcmp(bytes, want, sizeof bytes));
    peek(kBlock, bytes, sizeof bytes);  // on the device while the handle lives
    EXPECT_EQ(0, memcmp(bytes, want, sizeof bytes));
    vask_util_release_shmem(h);
}

// The stored offset is applied in both directions with 64-bit products and
// quotients, sums wrapping modulo 2^64 and truncating division.
TEST_F(SdrTest, DeltaIsTheSignedOffsetOfTheLatchedSsfnTimeAndDrivesTheConversions) {
    put<uint8_t>(kBlock + VASK_SYNC_DELTA_SIGN + 1, 0x77);
    // {latched counter, local us} -> {sign, offset}; then local us -> SSFN ms and SSFN ms -> local us.
    // Equal times count as "at or after".
    const uint64_t rows[][8] = {{0x00030010u, 30000000, 1, 736000, 31000999, 31736, 31736, 31000000},
                                {0x00030010u, 30736000, 1, 0, 5000000123456, 5000000123 & 0xFFFFFFFF, 0xFFFFFFFF,
                                 4294967295000},
                                {0x00030010u, 40000000, 0, 9264000, 40000000, 30736, 30736, 40000000},
                                {pack(5000000), 0, 1, 5000000000, 0, 5000000, 5000001, 1000},
                                {0, 2000, 0, 2000, 1000, uint32_t((~0ull - 999) / 1000), 1, 3000},
                                {pack(2), 0, 1, 2000, ~0ull - 999, 1, 1, ~0ull - 999}};
    for (const auto &r : rows) {
        put(kBlock + VASK_SYNC_SSFN_LATCH, uint32_t(r[0]));
        ASSERT_EQ(vask_util_set_ssfn_delta_for_talvek(r[1]), 0);
        EXPECT_EQ(at<uint8_t>(kBlock + VASK_SYNC_DELTA_SIGN), r[2]) << r[1];
        EXPECT_EQ(at<uint64_t>(kBlock + VASK_SYNC_DELTA), r[3]) << r[1];
        uint32_t ms = 0xDEADBEEF;
        uint64_t us = 0xDEADBEEF;
        ASSERT_EQ(vask_util_get_convert_ssfn_for_talvek(r[4], &ms), 0);
        ASSERT_EQ(vask_util_get_convert_fc_timeus_for_talvek(uint32_t(r[6]), &us), 0);
        EXPECT_EQ(ms, r[5]) << r[4];
        EXPECT_EQ(us, r[7]) << r[6];
    }
    EXPECT_EQ(at<uint8_t>(kBlock + VASK_SYNC_DELTA_SIGN + 1), 0x77);
    EXPECT_EQ(vask_util_get_convert_ssfn_for_talvek(0, nullptr), 0);
}

// Both counters count milliseconds in the low half and 10240 ms periods in the
// high half; the sync time's microseconds are a 32-bit product that wraps.
TEST_F(SdrTest, CountersAreReadPackedAndAsMilliseconds) {
    const uint64_t rows[][3] = {{0x00030010u, 30736, 30736000}, {0x0000FFFFu, 65535, 65535000},
                                {0xFFFFFFFFu, 671143935, 1129036824}, {pack(5000000), 5000000, 705032704}};
    for (const auto &r : rows) {
        put(kBlock + VASK_SYNC_SSFN_CNT, uint32_t(r[0]));
        put(kBlock + VASK_SYNC_SSFN_LATCH, uint32_t(r[0]));
        uint64_t count = ~0ull, ssfn_us = 0;
        uint32_t ms = 0;
        ASSERT_EQ(vask_util_get_ssfn_cnt_for_talvek(&count), 0);
        ASSERT_EQ(vask_util_get_ssfn_ms_for_talvek(&ms), 0);
        ASSERT_EQ(vask_util_get_synctime_from_shmem(nullptr, nullptr, &ssfn_us), 0);
        EXPECT_EQ(count, r[0]);
        EXPECT_EQ(ms, r[1]) << std::hex << r[0];
        EXPECT_EQ(ssfn_us, r[2]) << std::hex << r[0];
    }
    put<uint32_t>(kBlock + VASK_SYNC_INDEX, 7);
    put<uint64_t>(kBlock + VASK_SYNC_LOCAL_TIME, 123456789012ull);
    uint32_t index = 0;
    uint64_t local = 0;
    EXPECT_THAT(logged(kHead, [&] { EXPECT_EQ(vask_util_get_synctime_from_shmem(&index, &local, nullptr), 0); }),
                HasSubstr("VASK00@1[vask_util_get_synctime_from_shmem :index = 7 localtime = 123456789012 "
                          "ssfn = 705032704\r\n"));
    EXPECT_EQ(index, 7u);
    EXPECT_EQ(local, 123456789012ull);
}

TEST_F(SdrTest, RegionInitGetDeinit) {
    uint32_t buf[2] = {0, 0xAAAAAAAAu};
    EXPECT_EQ(vask_util_sdr_get_param(0, nullptr, 4), KERM_ERR_PARAM);
    EXPECT_EQ(vask_util_sdr_get_param(0, buf, 0), KERM_ERR_PARAM);
    EXPECT_EQ(vask_util_sdr_get_param(1, buf, 4), KERM_ERR_NOT_INIT);
    EXPECT_EQ(vask_util_sdr_deinit(), KERM_ERR_FAIL);
    if (sizeof(void *) == 4) {  // no room for the 0xFFFC2000-byte region
        EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL);
        return;
    }
    put(304 + VASK_SYNC_SSFN_CNT, 0x00030010u);  // counter in the parameter block
    ASSERT_EQ(vask_util_sdr_init(), 0);
    EXPECT_EQ(vask_util_sdr_get_param(1, buf, 4), KERM_ERR_UNSUPPORTED);
    EXPECT_EQ(vask_util_sdr_get_param(0, buf, 3), KERM_ERR_PARAM);
    EXPECT_EQ(vask_util_sdr_get_param(0, buf, 8), 0);
    EXPECT_EQ(buf[0], 0x00030010u);
    EXPECT_EQ(buf[1], 0xAAAAAAAAu);  // only the one u32 is copied
    // A second init is refused and logged.
    EXPECT_THAT(logged(LOG_HDR_FILE, [] { EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL); }),
                HasSubstr("utility/sdr/kerm_sdr :util sdr init again\n"));
    EXPECT_EQ(vask_util_sdr_deinit(), 0);
    EXPECT_EQ(vask_util_sdr_get_param(0, buf, 4), KERM_ERR_NOT_INIT);
}

TEST_F(SdrTest, MissingOrUnmappableDeviceIsReportedNotFatal) {
    use_root(root_ + "/nodev");
    // Neither the open nor the mapping is checked: the caller still gets a handle.
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, 4097);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->fd, -1);
    EXPECT_EQ(h->base, MAP_FAILED);
    EXPECT_EQ(h->map_len, 8192u);
    vask_util_release_shmem(h);

    const auto init = [] { EXPECT_EQ(vask_util_sdr_init(), KERM_ERR_FAIL); };
    EXPECT_THAT(logged(kHead, init), HasSubstr("VASK00@1[      vask_util_sdr_init :util sdr open dev/mem failed "
                                               "No such file or directory\n"));
    const std::string fifo = root_ + "/fifo";  // opens, cannot be mapped
    ASSERT_EQ(mkdir(fifo.c_str(), 0700), 0);
    ASSERT_EQ(mkdir((fifo + "/dev").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((fifo + "/dev/mem").c_str(), 0600), 0);
    use_root(fifo);
    // A 32-bit process runs out of address space before the device is asked.
    const std::string why = strerror(sizeof(void *) == 4 ? ENOMEM : ENODEV);
    EXPECT_THAT(logged(kHead, init), AllOf(HasSubstr("VASK00@1[      vask_util_sdr_init :util sdr mmap2 \n"),
                                           HasSubstr("vask_util_sdr_init :util sdr mmap failed res " + why + "\n")));
    EXPECT_EQ(vask_util_sdr_deinit(), KERM_ERR_FAIL);  // nothing was left to undo
}

}  // namespace

// Physical-memory cells, checked against the substitute device file.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>

#include "devmem_file.h"
#include "kerm_sdr.h"

using sdr_test::DevMemFile;

namespace {

constexpr uint64_t kBlock = VASK_SYNC_PHYS_ADDR;

class ShmemTest : public ::testing::Test {
protected:
    void SetUp() override {
        DevMemFile::instance().use();
        DevMemFile::instance().clear();
    }
    void TearDown() override { sdr_test::set_root(""); }
    const DevMemFile &mem() const { return DevMemFile::instance(); }
};

TEST_F(ShmemTest, MapsWholePagesFromThePageHoldingTheAddress) {
    mem().put<uint32_t>(kBlock & ~0xFFFull, 0x50414745u);  // first word of the page
    mem().put<uint32_t>(kBlock, 0x43454C4Cu);              // cell offset 0
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
    ASSERT_NE(h, nullptr);
    EXPECT_GE(h->fd, 0);
    ASSERT_NE(h->base, MAP_FAILED);
    EXPECT_EQ(h->size, 304u);
    EXPECT_EQ(h->page_offset, 0x100u);
    EXPECT_EQ(h->map_len, 4096u);
    uint32_t page_word;
    memcpy(&page_word, h->base, sizeof page_word);
    EXPECT_EQ(page_word, 0x50414745u);
    EXPECT_EQ(vask_util_get_shmem_u32(h, 0), 0x43454C4Cu);
    vask_util_release_shmem(h);

    struct {
        uint32_t size, map_len;
    } const cases[] = {{1, 4096}, {4096, 4096}, {4097, 8192}, {8192, 8192}};
    for (const auto &c : cases) {
        h = vask_util_create_shmem(0xFFFC1FFEu, c.size);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->map_len, c.map_len) << c.size;
        EXPECT_EQ(h->page_offset, 0xFFEu);
        EXPECT_NE(h->base, MAP_FAILED);
        vask_util_release_shmem(h);
    }
}

TEST_F(ShmemTest, TypedWritesLandByteForByteAndTouchNothingElse) {
    const uint8_t fill[32] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
                              0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
                              0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    mem().write(kBlock, fill, sizeof fill);
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
    ASSERT_NE(h, nullptr);
    // Odd offsets: no alignment is needed; only the low byte/half is stored.
    vask_util_set_shmem_u8(h, 1, 0x123456ABu);
    vask_util_set_shmem_u16(h, 3, 0xDEADBEEFu);
    vask_util_set_shmem_u32(h, 7, 0x01020304u);
    vask_util_set_shmem_u64(h, 13, 0x1122334455667788ull);
    vask_util_release_shmem(h);

    uint8_t got[32];
    mem().read(kBlock, got, sizeof got);
    uint8_t want[32];
    memcpy(want, fill, sizeof want);
    want[1] = 0xAB;
    const uint16_t v16 = 0xBEEF;
    const uint32_t v32 = 0x01020304u;
    const uint64_t v64 = 0x1122334455667788ull;
    memcpy(want + 3, &v16, 2);
    memcpy(want + 7, &v32, 4);
    memcpy(want + 13, &v64, 8);
    EXPECT_EQ(0, memcmp(got, want, sizeof want));
}

TEST_F(ShmemTest, TypedReadsSeeFileWritesZeroExtended) {
    const uint8_t bytes[] = {0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA, 0xF9, 0xF8, 0xF7, 0xF6};
    mem().write(kBlock + 0x20, bytes, sizeof bytes);
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
    ASSERT_NE(h, nullptr);
    uint16_t v16;
    uint32_t v32;
    uint64_t v64;
    memcpy(&v16, bytes + 1, 2);
    memcpy(&v32, bytes + 1, 4);
    memcpy(&v64, bytes + 1, 8);
    EXPECT_EQ(vask_util_get_shmem_u8(h, 0x20), 0xFFu);
    EXPECT_EQ(vask_util_get_shmem_u16(h, 0x21), static_cast<uint32_t>(v16));
    EXPECT_EQ(vask_util_get_shmem_u32(h, 0x21), v32);
    EXPECT_EQ(vask_util_get_shmem_u64(h, 0x21), v64);
    uint8_t raw[sizeof bytes] = {};
    vask_util_get_shmem(h, 0x20, sizeof raw, raw);
    EXPECT_EQ(0, memcmp(raw, bytes, sizeof raw));

    // The mapping is shared both ways while the handle lives.
    mem().put<uint32_t>(kBlock + 0x40, 0xA5A55A5Au);
    EXPECT_EQ(vask_util_get_shmem_u32(h, 0x40), 0xA5A55A5Au);
    const uint8_t out[3] = {1, 2, 3};
    vask_util_set_shmem(h, 0x41, sizeof out, out);
    uint8_t back[4];
    mem().read(kBlock + 0x40, back, sizeof back);
    const uint32_t before = 0xA5A55A5Au;
    EXPECT_EQ(back[0], *reinterpret_cast<const uint8_t *>(&before));
    EXPECT_EQ(0, memcmp(back + 1, out, sizeof out));
    vask_util_release_shmem(h);
}

TEST_F(ShmemTest, MissingDeviceStillYieldsAHandle) {
    sdr_test::set_root(sdr_test::make_scratch_dir("sdr-nodev"));
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->fd, -1);
    EXPECT_EQ(h->base, MAP_FAILED);
    EXPECT_EQ(h->size, 304u);
    EXPECT_EQ(h->page_offset, 0x100u);
    EXPECT_EQ(h->map_len, 4096u);
    vask_util_release_shmem(h);
    vask_util_release_shmem(nullptr);
}

using ShmemDeathTest = ShmemTest;

TEST_F(ShmemDeathTest, ReadingThroughAFailedMappingFaults) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    sdr_test::set_root(sdr_test::make_scratch_dir("sdr-nodev"));
    EXPECT_DEATH(
        {
            vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
            if (h != nullptr) printf("%u\n", vask_util_get_shmem_u32(h, 0));
        },
        "");
}

}  // namespace

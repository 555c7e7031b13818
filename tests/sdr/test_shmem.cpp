// Physical-memory cells, checked against the substitute device file.
#include <string.h>
#include <sys/mman.h>

#include "devmem_file.h"

namespace {

constexpr uint64_t kBlock = VASK_SYNC_PHYS_ADDR;
using ShmemTest = sdr_test::DevMemTest;

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
    EXPECT_EQ(*static_cast<const uint32_t *>(h->base), 0x50414745u);
    EXPECT_EQ(vask_util_get_shmem_u32(h, 0), 0x43454C4Cu);
    vask_util_release_shmem(h);

    // The length is the size rounded up, without the page offset.
    const uint32_t cases[][2] = {{1, 4096}, {4096, 4096}, {4097, 8192}};
    for (const auto &c : cases) {
        h = vask_util_create_shmem(0xFFFC1FFEu, c[0]);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->map_len, c[1]) << c[0];
        EXPECT_EQ(h->page_offset, 0xFFEu);
        EXPECT_NE(h->base, MAP_FAILED);
        vask_util_release_shmem(h);
    }
}

TEST_F(ShmemTest, TypedCellsAreNativeBytesAtAnyOffset) {
    uint8_t want[32];
    for (uint8_t i = 0; i < sizeof want; ++i) want[i] = static_cast<uint8_t>(0xF0 - i);
    mem().write(kBlock, want, sizeof want);
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
    ASSERT_NE(h, nullptr);
    uint16_t v16;
    uint32_t v32;
    uint64_t v64;
    memcpy(&v16, want + 3, 2);
    memcpy(&v32, want + 7, 4);
    memcpy(&v64, want + 13, 8);
    EXPECT_EQ(vask_util_get_shmem_u8(h, 1), 0xEFu);  // zero-extended
    EXPECT_EQ(vask_util_get_shmem_u16(h, 3), static_cast<uint32_t>(v16));
    EXPECT_EQ(vask_util_get_shmem_u32(h, 7), v32);
    EXPECT_EQ(vask_util_get_shmem_u64(h, 13), v64);

    // Only the low byte/half of the argument is stored; neighbours stay.
    vask_util_set_shmem_u8(h, 1, 0x123456ABu);
    vask_util_set_shmem_u16(h, 3, 0xDEADBEEFu);
    vask_util_set_shmem_u32(h, 7, v32 = 0x01020304u);
    vask_util_set_shmem_u64(h, 13, v64 = 0x1122334455667788ull);
    const uint8_t raw[3] = {1, 2, 3};
    vask_util_set_shmem(h, 26, sizeof raw, raw);
    v16 = 0xBEEF;
    want[1] = 0xAB;
    memcpy(want + 3, &v16, 2);
    memcpy(want + 7, &v32, 4);
    memcpy(want + 13, &v64, 8);
    memcpy(want + 26, raw, 3);
    uint8_t got[32];
    mem().read(kBlock, got, sizeof got);  // visible while the handle lives
    EXPECT_EQ(0, memcmp(got, want, sizeof want));
    uint8_t back[32] = {};
    vask_util_get_shmem(h, 0, sizeof back, back);
    EXPECT_EQ(0, memcmp(back, want, sizeof want));
    vask_util_release_shmem(h);
}

TEST_F(ShmemTest, MissingDeviceStillYieldsAHandle) {
    use_missing_device();
    vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, 4097);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->fd, -1);
    EXPECT_EQ(h->base, MAP_FAILED);
    EXPECT_EQ(h->size, 4097u);
    EXPECT_EQ(h->page_offset, 0x100u);
    EXPECT_EQ(h->map_len, 8192u);
    vask_util_release_shmem(h);
    vask_util_release_shmem(nullptr);
}

using ShmemDeathTest = ShmemTest;

TEST_F(ShmemDeathTest, ReadingThroughAFailedMappingFaults) {
    use_missing_device();
    EXPECT_DEATH(
        {
            vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
            if (h != nullptr) printf("%u\n", vask_util_get_shmem_u32(h, 0));
        },
        "");
}

}  // namespace

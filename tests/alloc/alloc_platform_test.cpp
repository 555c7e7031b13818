// Files, physical-memory cells and time sync, allocation tracking and
// hardware identity with each allocation failing in turn; SEI never
// allocates.
#include <dirent.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "alloc_sweep.h"
#include "kerm_file.h"
#include "kerm_hwinfo.h"
#include "kerm_memcheck.h"
#include "kerm_sdr.h"
#include "kerm_sei.h"
#include "support/scratch_dir.h"

using alloc_fail::Attempt;
using kerm_test::ScratchDir;
using kerm_test::stdout_of;

namespace {

constexpr int32_t kNoMemory = -1006;


int open_fds() {
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
    }
    return n;
}

// Platform paths below a scratch root for the whole suite.
class AllocPlatform : public testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new ScratchDir;
        setenv("KERM_UTIL_ROOT", dir_->root().c_str(), 1);
    }
    static void TearDownTestSuite() {
        unsetenv("KERM_UTIL_ROOT");
        delete dir_;
    }
    static ScratchDir *dir_;
};
ScratchDir *AllocPlatform::dir_ = nullptr;

TEST_F(AllocPlatform, LoadFile) {
    const std::string path = dir_->write("load.bin", "0123456789");
    EXPECT_EQ(1u, alloc_sweep::leak_free([&](Attempt &a) {
        const int fds = open_fds();
        uint32_t len = 77;
        void *buf = a.run([&] { return vask_load_file(path.c_str(), 2, 0, &len); });
        if (a.injected()) {
            EXPECT_EQ(buf, nullptr);
            EXPECT_EQ(len, 0u);
        } else {
            ASSERT_NE(buf, nullptr);
            EXPECT_EQ(std::string(static_cast<char *>(buf), len), "23456789");
        }
        free(buf);
        EXPECT_EQ(open_fds(), fds);
    }));
}

// The mapped file works on descriptors and mappings only.
TEST_F(AllocPlatform, MappedFileAllocatesNothing) {
    const std::string path = dir_->path("mapped.bin");
    Attempt a(1);
    const int32_t rc = a.run([&] {
        MmapFile f{};
        int32_t r = vask_mmap_file_open(VASK_MMAP_FILE_WRITE, path.c_str(), 64, &f);
        const uint8_t data[4] = {1, 2, 3, 4};
        if (r == 0) r = vask_mmap_file_write(&f, data, sizeof data);
        if (r == 0) r = vask_mmap_file_close(&f);
        return r;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(a.calls(), 0u);
    EXPECT_EQ(ScratchDir::read(path), std::string("\1\2\3\4"));
}

class AllocSync : public AllocPlatform {
protected:
    void SetUp() override {
        // Sparse: only the time-sync page is ever touched.
        const std::string mem = dir_->write("dev/mem", "");
        ASSERT_EQ(truncate(mem.c_str(), VASK_SYNC_PHYS_ADDR + 0x1000ull), 0);
        vask_shmem *h = vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE);
        ASSERT_TRUE(h != nullptr && h->base != MAP_FAILED);
        vask_util_set_shmem_u32(h, VASK_SYNC_SSFN_CNT, 0x00040020u);
        vask_util_set_shmem_u32(h, VASK_SYNC_SSFN_LATCH, 0x00030010u);
        vask_util_release_shmem(h);
        ASSERT_EQ(vask_util_set_ssfn_delta_for_talvek(30000000), 0);
    }
    static uint64_t offset() {
        uint64_t us = 0;
        EXPECT_EQ(vask_util_get_convert_fc_timeus_for_talvek(0, &us), 0);
        return us;
    }
};

TEST_F(AllocSync, CellHandle) {
    EXPECT_EQ(1u, alloc_sweep::leak_free([&](Attempt &a) {
        const int fds = open_fds();
        vask_shmem *h = a.run([] { return vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE); });
        if (a.injected()) {
            EXPECT_EQ(h, nullptr);
        } else {
            ASSERT_NE(h, nullptr);
            EXPECT_EQ(vask_util_get_shmem_u32(h, VASK_SYNC_SSFN_LATCH), 0x00030010u);
            vask_util_release_shmem(h);
        }
        EXPECT_EQ(open_fds(), fds);
    }));
}

// Every time-sync call maps the block through a fresh handle: without one it
// returns -1006, leaves its outputs and the block alone.
TEST_F(AllocSync, TimeSyncCalls) {
    const uint64_t before = offset();
    constexpr uint32_t kUntouched = 0xA5A5A5A5u;
    using Call = int32_t (*)(uint32_t *out32, uint64_t *out64, uint32_t *idx);
    const Call calls[] = {
        [](uint32_t *, uint64_t *, uint32_t *) { return vask_util_set_ssfn_delta_for_talvek(40000000); },
        [](uint32_t *o, uint64_t *, uint32_t *) { return vask_util_get_convert_ssfn_for_talvek(31000000, o); },
        [](uint32_t *, uint64_t *o, uint32_t *) { return vask_util_get_convert_fc_timeus_for_talvek(31736, o); },
        [](uint32_t *, uint64_t *o, uint32_t *) { return vask_util_get_ssfn_cnt_for_talvek(o); },
        [](uint32_t *o, uint64_t *, uint32_t *) { return vask_util_get_ssfn_ms_for_talvek(o); },
        [](uint32_t *, uint64_t *o, uint32_t *i) {
            uint64_t local = kUntouched;
            return vask_util_get_synctime_from_shmem(i, &local, o);
        },
    };
    for (size_t n = 0; n < sizeof calls / sizeof calls[0]; ++n) {
        SCOPED_TRACE("time-sync call " + std::to_string(n));
        EXPECT_EQ(1u, alloc_fail::sweep([&](Attempt &a) {
            uint32_t out32 = kUntouched, idx = kUntouched;
            uint64_t out64 = kUntouched;
            const int32_t rc = a.run([&] { return calls[n](&out32, &out64, &idx); });
            if (a.injected()) {
                EXPECT_EQ(rc, kNoMemory);
                EXPECT_TRUE(out32 == kUntouched && out64 == kUntouched && idx == kUntouched);
                EXPECT_EQ(offset(), before);
            } else {
                EXPECT_EQ(rc, 0);
                EXPECT_TRUE(out32 != kUntouched || out64 != kUntouched || n == 0);
            }
            EXPECT_EQ(a.leaked(), 0u);
            ASSERT_EQ(vask_util_set_ssfn_delta_for_talvek(30000000), 0);
        }));
    }
}

class AllocMemcheck : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ut_memcheck_init(), 0); }
    void TearDown() override {
        EXPECT_EQ(ut_memory_checkleak(), 0);
        EXPECT_EQ(ut_memcheck_deinit(), 0);
    }
};

// A refused block is not recorded; the list stays as it was.
TEST_F(AllocMemcheck, TrackedAllocations) {
    using Alloc = void *(*)();
    const Alloc allocs[] = {[] { return ut_malloc(24, "m.c", 1); }, [] { return ut_calloc(3, 8, "c.c", 2); },
                            [] { return ut_realloc(nullptr, 24, "r.c", 3); }};
    for (Alloc alloc : allocs) {
        EXPECT_EQ(1u, alloc_sweep::leak_free([&](Attempt &a) {
            void *p = a.run(alloc);
            if (a.injected()) {
                EXPECT_EQ(p, nullptr);
                EXPECT_EQ(ut_memory_checkleak(), 0);
            } else {
                ASSERT_NE(p, nullptr);
                EXPECT_EQ(ut_memory_checkleak(), -1);
            }
            ut_free(p);
        }));
    }
}

// A refused growth keeps the old block, its contents and its record.
TEST_F(AllocMemcheck, GrowingRealloc) {
    EXPECT_EQ(1u, alloc_sweep::leak_free([&](Attempt &a) {
        auto *old = static_cast<char *>(ut_malloc(16, "old.c", 1));
        ASSERT_NE(old, nullptr);
        memset(old, 'o', 16);
        auto *grown = static_cast<char *>(a.run([&] { return ut_realloc(old, 64, "new.c", 2); }));
        char *kept = grown;
        if (a.injected()) {
            EXPECT_EQ(grown, nullptr);
            kept = old;
        } else {
            ASSERT_NE(grown, nullptr);
        }
        EXPECT_EQ(std::string(kept, 16), std::string(16, 'o'));
        testing::internal::CaptureStderr();
        EXPECT_EQ(ut_memory_dumpleak(), 1);
        const std::string report = testing::internal::GetCapturedStderr();
        EXPECT_NE(report.find(a.injected() ? "old.c" : "new.c"), std::string::npos) << report;
        ut_free(kept);
    }));
}

// Deliberate: a successful call keeps the parsed tree (and the descriptor)
// for the process's life; only the failing runs are held to leaking nothing.
TEST_F(AllocPlatform, HardwareString) {
    dir_->write("etc/nox.json", R"({"platform": {"hw_str": "board-7", "rev": [1, 2, 3]}, "other": {"a": "b"}})");
    EXPECT_GT(alloc_fail::sweep([&](Attempt &a) {
        char hw[16];
        memset(hw, 'x', sizeof hw);
        int32_t rc = 0;
        stdout_of([&] { rc = a.run([&] { return get_hw_str(hw, sizeof hw); }); });
        if (a.injected()) {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(std::string(hw, sizeof hw), std::string(sizeof hw, 'x'));
            EXPECT_EQ(a.leaked(), 0u);
        } else {
            EXPECT_EQ(rc, 0);
            EXPECT_STREQ(hw, "board-7");
        }
    }), 2u);
}

// The command line is read through stdio: a stream that cannot be opened
// holds no key (an empty text); a buffer the C library cannot get leaves it
// reading unbuffered, with the same result.
TEST_F(AllocPlatform, SerialNumbers) {
    dir_->write("proc/cmdline", "console=ttyS0 chip_sn=ABC123 quiet\n");
    EXPECT_GE(alloc_sweep::leak_free([&](Attempt &a) {
        uint8_t sn[16];
        memset(sn, 'x', sizeof sn);
        uint32_t n = 0;
        stdout_of([&] { n = a.run([&] { return get_chip_sn(sn, sizeof sn); }); });
        const std::string got(reinterpret_cast<char *>(sn));
        EXPECT_TRUE((n == 6 && got == "ABC123") || (a.injected() && n == 0 && got.empty())) << n << " " << got;
    }), 1u);
}

// The SEI family works in the caller's frame buffer only.
TEST(AllocSei, EncodeAndWalkAllocateNothing) {
    uint8_t frame[512] = {};
    Attempt a(1);
    const uint32_t count = a.run([&] {
        TimingMd md{};
        wl_insert_new_ts_md(&md, 1, 1, 1000);
        uint32_t len = wl_enc_timing_sei(frame, WL_CODEC_H264, sizeof frame, &md);
        OndIMd ondi{};
        len += wl_enc_ondI_sei(frame + len, 1, static_cast<int32_t>(sizeof frame - len), &ondi);
        const uint8_t aud[6] = {0, 0, 0, 1, 0x09, 0xF0};
        memcpy(frame + len, aud, sizeof aud);
        len += sizeof aud;
        wl_insert_new_ts_direct(frame, len, 2, 1, 1010);
        SeiNalInfo chain[4];
        uint32_t n = 0;
        wl_get_all_sei_nal_info(frame, len, 4, &n, chain);
        return n;
    });
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(a.calls(), 0u);
}

}  // namespace

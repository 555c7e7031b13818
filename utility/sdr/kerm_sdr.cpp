// Physical-memory cells shared with the radio processor, the SDR register
// region and the conversions between local time and the radio's super-frame
// number (SSFN) time base.
#include "kerm_sdr.h"

#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include "common/kerm_guard.h"
#include "common/kerm_internal.h"

// The handle is five 32-bit words on the target.
static_assert(sizeof(void *) != 4 || sizeof(vask_shmem) == 20, "vask_shmem layout");
// Physical pages above 2 GiB are mapped: the device offset must not be a
// signed 32-bit number.
static_assert(sizeof(off_t) == 8, "library objects need 64-bit file offsets");

namespace {

constexpr const char *kFile = "utility/sdr/kerm_sdr";
constexpr const char *kDevMem = "/dev/mem";
constexpr uint32_t kPageSize = 4096;
constexpr uint32_t kPageMask = kPageSize - 1;
constexpr size_t kPathMax = 4096;

// SDR register region: physical memory from 0 up to and including the
// time-sync page, with the parameter block 304 bytes in.
constexpr size_t kSdrMapLen = 0xFFFC2000u;
constexpr uint32_t kSdrParamOffset = 304;

struct SdrState {
    int fd;
    void *addr;
    uint32_t param_offset;
    size_t map_len;
    bool initialised;
};
SdrState g_sdr = {};

int open_dev_mem() noexcept {
    char buf[kPathMax];
    return open(kerm::platform_path(kDevMem, buf, sizeof buf), O_RDWR | O_SYNC);
}

uint8_t *cell(const vask_shmem *h, uint32_t offset) noexcept {
    // Integer arithmetic: a failed mapping leaves base at -1 and the fault
    // belongs to the access, not to the address computation.
    return reinterpret_cast<uint8_t *>(reinterpret_cast<uintptr_t>(h->base) + h->page_offset + offset);
}

// Typed cells go through the byte copies: native order, any alignment.
template <typename T>
void put_cell(vask_shmem *h, uint32_t offset, T value) noexcept {
    vask_util_set_shmem(h, offset, sizeof value, reinterpret_cast<const uint8_t *>(&value));
}

template <typename T>
T get_cell(vask_shmem *h, uint32_t offset) noexcept {
    T value = 0;
    vask_util_get_shmem(h, offset, sizeof value, &value);
    return value;
}

uint32_t ssfn_ms(uint32_t c) noexcept { return VASK_SSFN_MS(c); }

// Maps the time-sync block for the duration of one call.
class SyncBlock {
public:
    SyncBlock() noexcept : h_(vask_util_create_shmem(VASK_SYNC_PHYS_ADDR, VASK_SYNC_SIZE)) {}
    ~SyncBlock() {
        if (h_ != nullptr) vask_util_release_shmem(h_);
    }
    SyncBlock(const SyncBlock &) = delete;
    SyncBlock &operator=(const SyncBlock &) = delete;

    bool ok() const noexcept { return h_ != nullptr; }
    vask_shmem *get() const noexcept { return h_; }
    // Applies the stored offset (sign read first, then magnitude), with
    // 64-bit wrapping arithmetic, in either direction; microseconds.
    uint64_t local_to_ssfn_us(uint64_t local_us) const noexcept {
        return delta_positive() ? local_us + delta() : local_us - delta();
    }
    uint64_t ssfn_to_local_us(uint64_t ssfn_us) const noexcept {
        return delta_positive() ? ssfn_us - delta() : ssfn_us + delta();
    }

private:
    bool delta_positive() const noexcept { return vask_util_get_shmem_u8(h_, VASK_SYNC_DELTA_SIGN) == 1; }
    uint64_t delta() const noexcept { return vask_util_get_shmem_u64(h_, VASK_SYNC_DELTA); }
    vask_shmem *h_;
};

template <typename T>
void store(T *out, T value) noexcept {
    if (out != nullptr) *out = value;
}

}  // namespace

extern "C" {

vask_shmem *vask_util_create_shmem(uint32_t phys_addr, uint32_t size) noexcept {
    kerm::FdGuard fd(open_dev_mem());
    vask_shmem *h = static_cast<vask_shmem *>(calloc(1, sizeof *h));
    if (h == nullptr) return nullptr;
    // Deliberate: neither the open nor the mapping is checked; a handle with
    // descriptor -1 or mapping -1 is still handed out, and the time-sync
    // callers test only for a null handle.
    h->fd = fd.release();
    h->size = size;
    h->page_offset = phys_addr & kPageMask;
    h->map_len = (size + kPageMask) & ~kPageMask;
    // Widen before use: 0xFFFC1000 must reach mmap as a positive 64-bit offset.
    const off_t page_start = static_cast<off_t>(static_cast<uint64_t>(phys_addr & ~kPageMask));
    h->base = mmap(nullptr, h->map_len, PROT_READ | PROT_WRITE, MAP_SHARED, h->fd, page_start);
    return h;
}

void vask_util_release_shmem(vask_shmem *h) noexcept {
    if (h == nullptr) return;
    munmap(h->base, h->map_len);
    close(h->fd);
    free(h);
}

void vask_util_set_shmem(vask_shmem *h, uint32_t offset, uint32_t len, const uint8_t *src) noexcept {
    memcpy(cell(h, offset), src, len);
}

void vask_util_get_shmem(vask_shmem *h, uint32_t offset, uint32_t len, void *dst) noexcept {
    memcpy(dst, cell(h, offset), len);
}

void vask_util_set_shmem_u8(vask_shmem *h, uint32_t offset, uint32_t value) noexcept {
    put_cell(h, offset, static_cast<uint8_t>(value));
}

void vask_util_set_shmem_u16(vask_shmem *h, uint32_t offset, uint32_t value) noexcept {
    put_cell(h, offset, static_cast<uint16_t>(value));
}

void vask_util_set_shmem_u32(vask_shmem *h, uint32_t offset, uint32_t value) noexcept { put_cell(h, offset, value); }

void vask_util_set_shmem_u64(vask_shmem *h, uint32_t offset, uint64_t value) noexcept { put_cell(h, offset, value); }

uint32_t vask_util_get_shmem_u8(vask_shmem *h, uint32_t offset) noexcept { return get_cell<uint8_t>(h, offset); }

uint32_t vask_util_get_shmem_u16(vask_shmem *h, uint32_t offset) noexcept { return get_cell<uint16_t>(h, offset); }

uint32_t vask_util_get_shmem_u32(vask_shmem *h, uint32_t offset) noexcept { return get_cell<uint32_t>(h, offset); }

uint64_t vask_util_get_shmem_u64(vask_shmem *h, uint32_t offset) noexcept { return get_cell<uint64_t>(h, offset); }

int32_t vask_util_set_ssfn_delta_for_talvek(uint64_t local_us) noexcept {
    SyncBlock b;
    if (!b.ok()) return KERM_ERR_NO_MEMORY;
    const uint64_t s = static_cast<uint64_t>(ssfn_ms(vask_util_get_shmem_u32(b.get(), VASK_SYNC_SSFN_LATCH))) * 1000u;
    const bool positive = s >= local_us;
    // Sign first: readers in other processes take the sign, then the offset.
    vask_util_set_shmem_u8(b.get(), VASK_SYNC_DELTA_SIGN, positive ? 1u : 0u);
    vask_util_set_shmem_u64(b.get(), VASK_SYNC_DELTA, positive ? s - local_us : local_us - s);
    return KERM_OK;
}

int32_t vask_util_get_convert_ssfn_for_talvek(uint64_t local_us, uint32_t *ssfn_ms_out) noexcept {
    SyncBlock b;
    if (!b.ok()) return KERM_ERR_NO_MEMORY;
    store(ssfn_ms_out, static_cast<uint32_t>(b.local_to_ssfn_us(local_us) / 1000u));
    return KERM_OK;
}

int32_t vask_util_get_convert_fc_timeus_for_talvek(uint32_t ssfn_ms_in, uint64_t *local_us) noexcept {
    SyncBlock b;
    if (!b.ok()) return KERM_ERR_NO_MEMORY;
    store(local_us, b.ssfn_to_local_us(static_cast<uint64_t>(ssfn_ms_in) * 1000u));
    return KERM_OK;
}

int32_t vask_util_get_ssfn_cnt_for_talvek(uint64_t *count) noexcept {
    SyncBlock b;
    if (!b.ok()) return KERM_ERR_NO_MEMORY;
    store(count, static_cast<uint64_t>(vask_util_get_shmem_u32(b.get(), VASK_SYNC_SSFN_CNT)));
    return KERM_OK;
}

int32_t vask_util_get_ssfn_ms_for_talvek(uint32_t *ms) noexcept {
    SyncBlock b;
    if (!b.ok()) return KERM_ERR_NO_MEMORY;
    store(ms, ssfn_ms(vask_util_get_shmem_u32(b.get(), VASK_SYNC_SSFN_CNT)));
    return KERM_OK;
}

int32_t vask_util_get_synctime_from_shmem(uint32_t *index, uint64_t *local_time, uint64_t *ssfn_us) noexcept {
    SyncBlock b;
    if (!b.ok()) return KERM_ERR_NO_MEMORY;
    const uint64_t local = vask_util_get_shmem_u64(b.get(), VASK_SYNC_LOCAL_TIME);
    const uint32_t idx = vask_util_get_shmem_u32(b.get(), VASK_SYNC_INDEX);
    // Deliberate: a 32-bit product; existing readers of this value expect it to
    // wrap after 2^32 microseconds.
    const uint32_t us32 = ssfn_ms(vask_util_get_shmem_u32(b.get(), VASK_SYNC_SSFN_LATCH)) * 1000u;
    store(local_time, local);
    store(index, idx);
    store(ssfn_us, static_cast<uint64_t>(us32));
    KERM_LOG(KERM_MOD_SDR, VASK_LOG_ERROR, kFile, "index = %u localtime = %lld ssfn = %lld\r\n", idx,
             static_cast<long long>(local), static_cast<long long>(us32));
    return KERM_OK;
}

int32_t vask_util_sdr_init(void) noexcept {
    if (g_sdr.initialised) {
        KERM_LOG(KERM_MOD_SDR, VASK_LOG_ERROR, kFile, "util sdr init again\n");
        return KERM_ERR_FAIL;
    }
    kerm::FdGuard fd(open_dev_mem());
    if (fd.get() < 0) {
        const int err = errno;
        KERM_LOG(KERM_MOD_SDR, VASK_LOG_ERROR, kFile, "util sdr open dev/mem failed %s\n", strerror(err));
        return KERM_ERR_FAIL;
    }
    KERM_LOG(KERM_MOD_SDR, VASK_LOG_ERROR, kFile, "util sdr mmap2 \n");
    void *addr = mmap(nullptr, kSdrMapLen, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (addr == MAP_FAILED) {
        const int err = errno;
        // Deliberate: the descriptor stays open, as existing callers expect.
        fd.release();
        KERM_LOG(KERM_MOD_SDR, VASK_LOG_ERROR, kFile, "util sdr mmap failed res %s\n", strerror(err));
        return KERM_ERR_FAIL;
    }
    g_sdr = {fd.release(), addr, kSdrParamOffset, kSdrMapLen, true};
    return KERM_OK;
}

int32_t vask_util_sdr_get_param(uint32_t id, void *buf, uint32_t len) noexcept {
    if (buf == nullptr || len == 0) return KERM_ERR_PARAM;
    if (!g_sdr.initialised) return KERM_ERR_NOT_INIT;
    if (id != VASK_SDR_PARAM_SSFN) return KERM_ERR_UNSUPPORTED;
    if (len < sizeof(uint32_t)) return KERM_ERR_PARAM;
    memcpy(buf, static_cast<const uint8_t *>(g_sdr.addr) + g_sdr.param_offset + VASK_SYNC_SSFN_CNT,
           sizeof(uint32_t));
    return KERM_OK;
}

int32_t vask_util_sdr_deinit(void) noexcept {
    if (!g_sdr.initialised) return KERM_ERR_FAIL;
    munmap(g_sdr.addr, g_sdr.map_len);
    close(g_sdr.fd);
    g_sdr = {};
    return KERM_OK;
}

}  // extern "C"

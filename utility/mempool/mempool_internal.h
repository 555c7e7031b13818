// Layout and helpers of the segregated-fit pool, shared by the allocator, its
// diagnostics and the tests. Not installed.
#ifndef KERM_MEMPOOL_INTERNAL_H
#define KERM_MEMPOOL_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "kerm_mempool.h"

namespace kerm::mempool {

constexpr uintptr_t kAlign = KERM_MEMPOOL_ALIGN;
constexpr uintptr_t kHdr = KERM_MEMPOOL_HDR_SIZE;
constexpr uintptr_t kMinBlock = KERM_MEMPOOL_MIN_BLOCK;
constexpr uintptr_t kSplitMin = kHdr + kMinBlock;  // a split-off remainder is a header and a minimum block
constexpr uintptr_t kSmallBlock = 128;             // sizes below share first level 0
constexpr int kSlLog2 = 5;
constexpr int kSlCount = KERM_MEMPOOL_SL_COUNT;
constexpr int kFlOffset = 6;
constexpr int kFlCount = KERM_MEMPOOL_FL_COUNT;
constexpr uintptr_t kMaxBlock = (uintptr_t{1} << (kFlCount + kFlOffset)) - kAlign;
constexpr uintptr_t kFreeBit = KERM_MEMPOOL_BLOCK_FREE;
constexpr uintptr_t kPrevFreeBit = KERM_MEMPOOL_PREV_FREE;
constexpr uintptr_t kSizeMask = KERM_MEMPOOL_SIZE_MASK;
constexpr size_t kReserved = KERM_MEMPOOL_CONTROL_SIZE;
// Descriptor block (header + two pointers), big block header, sentinel header.
constexpr uintptr_t kRegionOverhead = 3 * kHdr + kMinBlock;

struct Block;
struct FreeLinks {
    Block *prev;
    Block *next;
};

struct Block {
    Block *prev_hdr;
    uintptr_t size;

    uintptr_t bytes() const noexcept { return size & kSizeMask; }
    bool is_free() const noexcept { return (size & kFreeBit) != 0; }
    bool prev_free() const noexcept { return (size & kPrevFreeBit) != 0; }
    uint8_t *buffer() noexcept { return reinterpret_cast<uint8_t *>(this) + kHdr; }
    FreeLinks *links() noexcept { return reinterpret_cast<FreeLinks *>(buffer()); }
    Block *next() noexcept { return reinterpret_cast<Block *>(buffer() + bytes()); }
    static Block *of(void *ptr) noexcept { return reinterpret_cast<Block *>(static_cast<uint8_t *>(ptr) - kHdr); }
};

// Lives in the buffer of each region's first block.
struct Region {
    Block *end;    // the sentinel
    Region *next;  // next region's descriptor
};

struct Control {
    uint32_t signature;
    uint32_t lock;  // kerm::WordLock word
    Region *regions;
    uint32_t fl_bitmap;
    uint32_t sl_bitmap[kFlCount];
    Block *lists[kFlCount][kSlCount];
};

static_assert(sizeof(Block) == kHdr && sizeof(FreeLinks) == kMinBlock && sizeof(Region) <= kMinBlock);
static_assert(sizeof(Block) == sizeof(kerm_mempool_block));
static_assert(sizeof(Control::lock) == 4, "the platform mutex is one 32-bit word");
static_assert((sizeof(Control) + kAlign - 1) / kAlign * kAlign == kReserved);
static_assert(sizeof(void *) != 4 || (kReserved == 3184 && KERM_MEMPOOL_MIN_REGION == 3248));

// Bit scans by a 256-entry table of floor(log2) over the highest non-zero
// byte; -1 for 0.
int msb(uint32_t x) noexcept;
int lsb(uint32_t x) noexcept;
// The same answers for x != 0 in one or two instructions (count leading or
// trailing zeros): what the allocation paths use, as they never scan 0. The
// tests hold them to the table helpers.
inline int msb_nz(uint32_t x) noexcept { return 31 - __builtin_clz(x); }
inline int lsb_nz(uint32_t x) noexcept { return __builtin_ctz(x); }

// Class of a free block of r bytes.
inline void mapping_insert(uintptr_t r, int *fl, int *sl) noexcept {
    if (r < kSmallBlock) {
        *fl = 0;
        *sl = static_cast<int>(r / (kSmallBlock / kSlCount));
        return;
    }
    const int f = msb_nz(static_cast<uint32_t>(r));
    *sl = static_cast<int>(r >> (f - kSlLog2)) - kSlCount;
    *fl = f - kFlOffset;
}

// Rounds *r up to its class step so that every block of the class found fits.
inline void mapping_search(uintptr_t *r, int *fl, int *sl) noexcept {
    if (*r >= kSmallBlock) {
        const uintptr_t step = (uintptr_t{1} << (msb_nz(static_cast<uint32_t>(*r)) - kSlLog2)) - 1;
        *r = (*r + step) & ~step;
    }
    mapping_insert(*r, fl, sl);
}

struct PoolStats {
    size_t regions = 0;
    size_t used_blocks = 0;  // descriptor blocks not counted
    size_t used_bytes = 0;
    size_t free_blocks = 0;
    size_t free_bytes = 0;
    size_t largest_free = 0;
};

// Walks every region and every list and checks that they agree: blocks
// contiguous up to each sentinel, sizes aligned, free and previous-free bits
// and prev_hdr consistent, no two neighbouring free blocks, every free block
// on exactly the list its size maps to, bitmaps matching the lists. On
// failure writes the reason to `why` and returns false.
bool check_pool(void *pool, PoolStats *stats, char *why, size_t why_size) noexcept;

}  // namespace kerm::mempool

#endif

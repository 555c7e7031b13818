// Two-level segregated-fit allocator over caller memory: malloc and free find
// a block through two bitmaps and a list head, and merge with at most the two
// physical neighbours, so both finish in bounded time.
#include <stdio.h>
#include <string.h>

#include <array>
#include <atomic>
#include <mutex>

#include "common/kerm_wordlock.h"
#include "mempool/mempool_internal.h"

namespace kerm::mempool {
namespace {

// floor(log2(i)) of one byte, -1 for 0.
constexpr std::array<int8_t, 256> make_log2_table() {
    std::array<int8_t, 256> t{};
    t[0] = -1;
    for (int i = 1; i < 256; ++i) t[i] = static_cast<int8_t>(i >= 2 ? t[i / 2] + 1 : 0);
    return t;
}
constexpr std::array<int8_t, 256> kLog2 = make_log2_table();

std::atomic<Control *> g_default{nullptr};

Control *control(void *pool) noexcept { return static_cast<Control *>(pool); }

bool word_aligned(const void *p) noexcept { return (reinterpret_cast<uintptr_t>(p) & (sizeof(void *) - 1)) == 0; }

uintptr_t request_size(size_t size) noexcept {
    return size < kMinBlock ? kMinBlock : (static_cast<uintptr_t>(size) + kAlign - 1) & ~(kAlign - 1);
}

// The hot paths below are inlined into each entry point and work from what
// they have already read: a block's size word is read once and its class
// computed from that, a block taken from a list head has that list's class,
// and the successor of a block that was free already has its previous-free
// bit. Links of a block leaving the lists are not cleared: its buffer becomes
// the caller's or part of a neighbour's.
#define KERM_HOT inline __attribute__((always_inline))

// Puts free block b of `bytes` bytes at the head of its list.
KERM_HOT void insert_free(Control *c, Block *b, uintptr_t bytes) noexcept {
    int fl, sl;
    mapping_insert(bytes, &fl, &sl);
    Block *head = c->lists[fl][sl];
    FreeLinks *l = b->links();
    l->prev = nullptr;
    l->next = head;
    if (head != nullptr) head->links()->prev = b;
    c->lists[fl][sl] = b;
    c->sl_bitmap[fl] |= 1u << sl;
    c->fl_bitmap |= 1u << fl;
}

// List [fl][sl] lost its last block.
KERM_HOT void list_emptied(Control *c, int fl, int sl) noexcept {
    c->sl_bitmap[fl] &= ~(1u << sl);
    if (c->sl_bitmap[fl] == 0) c->fl_bitmap &= ~(1u << fl);
}

// Takes free block b of `bytes` bytes off its list.
KERM_HOT void unlink_free(Control *c, Block *b, uintptr_t bytes) noexcept {
    const FreeLinks l = *b->links();
    if (l.next != nullptr) l.next->links()->prev = l.prev;
    if (l.prev != nullptr) {
        l.prev->links()->next = l.next;
        return;
    }
    int fl, sl;
    mapping_insert(bytes, &fl, &sl);
    c->lists[fl][sl] = l.next;
    if (l.next == nullptr) list_emptied(c, fl, sl);
}

// Used block b, whose size word is `word`, keeps r bytes and hands the rest
// to a new free block when that can hold one. Its successor already knows a
// free predecessor when b was free before.
KERM_HOT void split_tail(Control *c, Block *b, uintptr_t word, uintptr_t r, bool after_knows_free) noexcept {
    const uintptr_t bytes = word & kSizeMask;
    const uintptr_t spare = bytes - r;
    if (spare < kSplitMin) return;
    auto *rest = reinterpret_cast<Block *>(b->buffer() + r);
    auto *after = reinterpret_cast<Block *>(b->buffer() + bytes);
    rest->size = (spare - kHdr) | kFreeBit;
    b->size = r | (word & kPrevFreeBit);
    insert_free(c, rest, spare - kHdr);
    after->prev_hdr = rest;
    if (!after_knows_free) after->size |= kPrevFreeBit;
}

// Used block b takes in its free successor.
KERM_HOT void absorb_next(Control *c, Block *b) noexcept {
    Block *next = b->next();
    const uintptr_t add = next->bytes();
    unlink_free(c, next, add);
    b->size += add + kHdr;
    b->next()->size &= ~kPrevFreeBit;
}

KERM_HOT void *pool_malloc(Control *c, size_t size) noexcept {
    if (__builtin_expect(size > kMaxBlock, 0)) return nullptr;
    uintptr_t r = request_size(size);
    int fl, sl;
    mapping_search(&r, &fl, &sl);
    if (__builtin_expect(fl >= kFlCount, 0)) return nullptr;
    // The lowest non-empty list at (fl, sl) or above: first within level fl,
    // then the lowest non-empty level above it.
    uint32_t bits = c->sl_bitmap[fl] & (~0u << sl);
    if (bits == 0) {
        const uint32_t levels = c->fl_bitmap & (~0u << (fl + 1));
        if (levels == 0) return nullptr;
        fl = lsb_nz(levels);
        bits = c->sl_bitmap[fl];
    }
    sl = lsb_nz(bits);
    Block *b = c->lists[fl][sl];
    Block *next = b->links()->next;
    c->lists[fl][sl] = next;
    if (next != nullptr) next->links()->prev = nullptr;
    else list_emptied(c, fl, sl);
    const uintptr_t word = b->size & ~kFreeBit;
    if ((word & kSizeMask) - r >= kSplitMin) {
        split_tail(c, b, word, r, true);
    } else {
        b->size = word;
        b->next()->size &= ~kPrevFreeBit;
    }
    return b->buffer();
}

// Returns the block that went onto a list (ptr's, or a neighbour that took it in).
KERM_HOT Block *pool_free(Control *c, void *ptr) noexcept {
    Block *b = Block::of(ptr);
    uintptr_t word = b->size | kFreeBit;
    Block *next = b->next();
    const uintptr_t next_word = next->size;
    const bool next_free = (next_word & kFreeBit) != 0;
    if (next_free) {
        unlink_free(c, next, next_word & kSizeMask);
        word += (next_word & kSizeMask) + kHdr;
    }
    b->size = word;
    uintptr_t bytes = word & kSizeMask;
    if (word & kPrevFreeBit) {
        Block *prev = b->prev_hdr;
        const uintptr_t prev_word = prev->size;
        unlink_free(c, prev, prev_word & kSizeMask);
        bytes += (prev_word & kSizeMask) + kHdr;
        prev->size = prev_word + (word & kSizeMask) + kHdr;
        b = prev;
    }
    insert_free(c, b, bytes);
    // A block that followed the free successor already has the bit.
    next = reinterpret_cast<Block *>(b->buffer() + bytes);
    if (!next_free) next->size = next_word | kPrevFreeBit;
    next->prev_hdr = b;
    return b;
}

void *pool_realloc(Control *c, void *ptr, size_t size) noexcept {
    if (ptr == nullptr) return size != 0 ? pool_malloc(c, size) : nullptr;
    if (size == 0) {
        pool_free(c, ptr);
        return nullptr;
    }
    if (size > kMaxBlock) return nullptr;
    const uintptr_t r = request_size(size);
    Block *b = Block::of(ptr);
    const uintptr_t cur = b->bytes();
    Block *next = b->next();
    // The successor's header becomes usable space too when it is taken in.
    if (r <= cur || (next->is_free() && cur + next->bytes() + kHdr >= r)) {
        if (next->is_free()) absorb_next(c, b);
        split_tail(c, b, b->size, r, false);
        return ptr;
    }
    void *moved = pool_malloc(c, r);
    if (moved == nullptr) return nullptr;
    memcpy(moved, ptr, cur < r ? cur : r);
    pool_free(c, ptr);
    return moved;
}

void *pool_calloc(Control *c, size_t count, size_t size) noexcept {
    if (count == 0 || size == 0) return nullptr;
    // Deliberate: the product is not checked for overflow; callers size their
    // arrays themselves, as they do with the platform's allocator.
    const size_t bytes = count * size;
    void *p = pool_malloc(c, bytes);
    if (p != nullptr) memset(p, 0, bytes);
    return p;
}

// Lays out descriptor block, big block (used for now) and sentinel; returns
// the descriptor block. The usable part is capped at the largest block size.
Block *lay_out_region(void *area, size_t size) noexcept {
    uintptr_t n = static_cast<uintptr_t>(size) & ~(kAlign - 1);
    if (n > kMaxBlock) n = kMaxBlock;
    auto *ib = static_cast<Block *>(area);
    ib->prev_hdr = nullptr;
    ib->size = kMinBlock;
    Block *b = ib->next();
    b->prev_hdr = nullptr;
    b->size = n - kRegionOverhead;
    Block *lb = b->next();
    lb->prev_hdr = b;
    lb->size = kPrevFreeBit;
    auto *region = reinterpret_cast<Region *>(ib->buffer());
    region->end = lb;
    region->next = nullptr;
    return ib;
}

uintptr_t span(const Block *first, const Block *sentinel) noexcept {
    return reinterpret_cast<uintptr_t>(sentinel) + kHdr - reinterpret_cast<uintptr_t>(first);
}

template <class F>
auto with_default(F &&op) noexcept -> decltype(op(static_cast<Control *>(nullptr))) {
    Control *c = g_default.load(std::memory_order_acquire);
    if (c == nullptr) return decltype(op(c))();
    WordLock lock(c->lock);
    std::lock_guard<WordLock> hold(lock);
    return op(c);
}

}  // namespace

int msb(uint32_t x) noexcept {
    const int shift = x < 0x100 ? 0 : x < 0x10000 ? 8 : x < 0x1000000 ? 16 : 24;
    return kLog2[x >> shift] + shift;
}

int lsb(uint32_t x) noexcept { return msb(x & (0u - x)); }

}  // namespace kerm::mempool

using namespace kerm::mempool;

extern "C" {

size_t init_memory_pool(size_t size, void *region) noexcept {
    if (region == nullptr || size < KERM_MEMPOOL_MIN_REGION) {
        fputs("init_memory_pool (): memory_pool invalid\n", stdout);
        return static_cast<size_t>(-1);
    }
    if (!word_aligned(region)) {
        // Deliberate: no newline after this refusal; it is the text callers' logs match.
        fputs("init_memory_pool (): mem_pool must be aligned to a word", stdout);
        return static_cast<size_t>(-1);
    }
    Control *c = control(region);
    auto *base = static_cast<uint8_t *>(region);
    if (c->signature == KERM_MEMPOOL_SIGNATURE) {
        g_default.store(c, std::memory_order_release);
        return reinterpret_cast<Block *>(base + kReserved)->bytes();
    }
    memset(c, 0, kReserved);  // also the lock word: zero is unlocked
    c->signature = KERM_MEMPOOL_SIGNATURE;
    Block *ib = lay_out_region(base + kReserved, size - kReserved);
    c->regions = reinterpret_cast<Region *>(ib->buffer());
    Block *big = pool_free(c, ib->next()->buffer());
    g_default.store(c, std::memory_order_release);
    return big->bytes();
}

size_t add_new_area(void *area, size_t size, void *pool) noexcept {
    if (pool == nullptr || area == nullptr || !word_aligned(area) || size < kRegionOverhead + kMinBlock) return 0;
    Control *c = control(pool);
    memset(area, 0, size);
    Block *ib0 = lay_out_region(area, size);
    Block *b0 = ib0->next();
    Block *lb0 = b0->next();
    for (Region **link = &c->regions; *link != nullptr;) {
        Region *r = *link;
        Block *ib1 = Block::of(r);
        Block *lb1 = r->end;
        if (reinterpret_cast<uint8_t *>(lb0) + kHdr == reinterpret_cast<uint8_t *>(ib1) &&
            span(ib0, lb1) <= kMaxBlock) {
            // The new area ends where r begins: our sentinel and r's descriptor
            // block become part of our big block.
            *link = r->next;
            b0->size += 2 * kHdr + ib1->bytes();
            lb0 = lb1;
            link = &c->regions;
            continue;
        }
        if (reinterpret_cast<uint8_t *>(lb1) + kHdr == reinterpret_cast<uint8_t *>(ib0) &&
            span(ib1, lb0) <= kMaxBlock) {
            // r ends where the new area begins: r's sentinel grows over our
            // descriptor block and big block (it keeps its previous-free bit).
            *link = r->next;
            lb1->size = (2 * kHdr + ib0->bytes() + b0->bytes()) | (lb1->size & kPrevFreeBit);
            b0 = lb1;
            ib0 = ib1;
            link = &c->regions;
            continue;
        }
        link = &r->next;
    }
    auto *region = reinterpret_cast<Region *>(ib0->buffer());
    region->end = lb0;
    region->next = c->regions;
    c->regions = region;
    // Freeing sets the successor's prev_hdr and merges with free neighbours.
    return pool_free(c, b0->buffer())->bytes();
}

void *malloc_ex(size_t size, void *pool) noexcept { return pool != nullptr ? pool_malloc(control(pool), size) : nullptr; }

void free_ex(void *ptr, void *pool) noexcept {
    if (ptr != nullptr && pool != nullptr) pool_free(control(pool), ptr);
}

void *realloc_ex(void *ptr, size_t size, void *pool) noexcept {
    return pool != nullptr ? pool_realloc(control(pool), ptr, size) : nullptr;
}

void *calloc_ex(size_t count, size_t size, void *pool) noexcept {
    return pool != nullptr ? pool_calloc(control(pool), count, size) : nullptr;
}

void *tlsf_malloc(size_t size) noexcept {
    return with_default([&](Control *c) { return pool_malloc(c, size); });
}

void tlsf_free(void *ptr) noexcept {
    if (ptr == nullptr) return;
    with_default([&](Control *c) { pool_free(c, ptr); });
}

void *tlsf_realloc(void *ptr, size_t size) noexcept {
    return with_default([&](Control *c) { return pool_realloc(c, ptr, size); });
}

void *tlsf_calloc(size_t count, size_t size) noexcept {
    return with_default([&](Control *c) { return pool_calloc(c, count, size); });
}

// Deliberate: the default-pool pointer survives; tlsf_* keep working on the
// caller's memory until init_memory_pool names a region again.
void destroy_memory_pool(void *pool) noexcept {
    if (pool == nullptr) return;
    control(pool)->signature = 0;
    // The word lock owns no resources: nothing else to tear down.
}

size_t get_used_size(void *) noexcept { return 0; }

size_t get_max_size(void *pool) noexcept { return get_used_size(pool); }

}  // extern "C"

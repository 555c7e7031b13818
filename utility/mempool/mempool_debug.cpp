// Diagnostics of the segregated-fit pool: the printed views of blocks, lists
// and regions, and the consistency walk the tests and the fuzzer run.
#include <stdarg.h>
#include <stdio.h>

#include <algorithm>
#include <new>
#include <vector>

#include "mempool/mempool_internal.h"

using namespace kerm::mempool;

namespace kerm::mempool {
namespace {

bool fail(char *why, size_t n, const char *fmt, ...) noexcept {
    if (why != nullptr && n > 0) {
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(why, n, fmt, ap);
        va_end(ap);
    }
    return false;
}

// Bounds any walk over memory that corruption could have turned into a loop.
constexpr size_t kMaxSteps = size_t{1} << 26;

bool check_lists(Control *c, std::vector<Block *> *on_lists, char *why, size_t n) {
    if ((c->fl_bitmap >> kFlCount) != 0) return fail(why, n, "FL bitmap 0x%x has bits beyond level %d", c->fl_bitmap, kFlCount - 1);
    for (int f = 0; f < kFlCount; ++f) {
        if (((c->fl_bitmap >> f) & 1u) != (c->sl_bitmap[f] != 0 ? 1u : 0u))
            return fail(why, n, "FL bit %d disagrees with SL bitmap 0x%x", f, c->sl_bitmap[f]);
        for (int s = 0; s < kSlCount; ++s) {
            Block *b = c->lists[f][s];
            if (((c->sl_bitmap[f] >> s) & 1u) != (b != nullptr ? 1u : 0u))
                return fail(why, n, "SL bit [%d][%d] disagrees with its list", f, s);
            Block *prev = nullptr;
            for (size_t steps = 0; b != nullptr; b = b->links()->next) {
                if (++steps > kMaxSteps) return fail(why, n, "list [%d][%d] does not end", f, s);
                if (!b->is_free()) return fail(why, n, "used block %p on list [%d][%d]", (void *)b, f, s);
                if (b->links()->prev != prev) return fail(why, n, "block %p on list [%d][%d]: bad prev link", (void *)b, f, s);
                int bf, bs;
                mapping_insert(b->bytes(), &bf, &bs);
                if (bf != f || bs != s)
                    return fail(why, n, "block %p of %lu bytes on list [%d][%d], belongs on [%d][%d]", (void *)b,
                                (unsigned long)b->bytes(), f, s, bf, bs);
                on_lists->push_back(b);
                prev = b;
            }
        }
    }
    return true;
}

bool check_region(Region *r, std::vector<Block *> *free_blocks, PoolStats *st, char *why, size_t n) {
    Block *b = Block::of(r);
    if (b->is_free() || b->prev_free() || b->bytes() != kMinBlock)
        return fail(why, n, "region %p: bad descriptor block", (void *)r);
    Block *prev = nullptr;
    for (size_t steps = 0;; prev = b, b = b->next()) {
        if (++steps > kMaxSteps) return fail(why, n, "region %p does not end", (void *)r);
        if ((b->size & (kAlign - 1) & kSizeMask) != 0)
            return fail(why, n, "block %p: size %lu not a multiple of %lu", (void *)b, (unsigned long)b->bytes(),
                        (unsigned long)kAlign);
        const bool prev_is_free = prev != nullptr && prev->is_free();
        if (b->prev_free() != prev_is_free) return fail(why, n, "block %p: previous-free bit wrong", (void *)b);
        if (prev_is_free && b->prev_hdr != prev) return fail(why, n, "block %p: prev_hdr %p, want %p", (void *)b, (void *)b->prev_hdr, (void *)prev);
        if (b->bytes() == 0) {
            if (b != r->end) return fail(why, n, "region %p: sentinel %p, descriptor says %p", (void *)r, (void *)b, (void *)r->end);
            if (b->is_free()) return fail(why, n, "sentinel %p marked free", (void *)b);
            return true;
        }
        if (b->is_free()) {
            if (prev_is_free) return fail(why, n, "free blocks %p and %p are neighbours", (void *)prev, (void *)b);
            if (b->bytes() < kMinBlock) return fail(why, n, "free block %p below the minimum", (void *)b);
            free_blocks->push_back(b);
            st->free_blocks++;
            st->free_bytes += b->bytes();
            st->largest_free = std::max<size_t>(st->largest_free, b->bytes());
        } else if (prev != nullptr) {
            st->used_blocks++;
            st->used_bytes += b->bytes();
        }
    }
}

}  // namespace

bool check_pool(void *pool, PoolStats *stats, char *why, size_t why_size) noexcept {
    if (pool == nullptr) return fail(why, why_size, "no pool");
    Control *c = static_cast<Control *>(pool);
    if (c->signature != KERM_MEMPOOL_SIGNATURE) return fail(why, why_size, "signature 0x%x", c->signature);
    try {
        std::vector<Block *> on_lists, in_regions;
        if (!check_lists(c, &on_lists, why, why_size)) return false;
        PoolStats st;
        size_t count = 0;
        for (Region *r = c->regions; r != nullptr; r = r->next) {
            if (++count > kMaxSteps) return fail(why, why_size, "region list does not end");
            if (!check_region(r, &in_regions, &st, why, why_size)) return false;
            st.regions++;
        }
        std::sort(on_lists.begin(), on_lists.end());
        std::sort(in_regions.begin(), in_regions.end());
        auto dup = std::adjacent_find(on_lists.begin(), on_lists.end());
        if (dup != on_lists.end()) return fail(why, why_size, "block %p listed twice", (void *)*dup);
        if (on_lists != in_regions)
            return fail(why, why_size, "%zu blocks on lists, %zu free blocks in the regions", on_lists.size(), in_regions.size());
        if (stats != nullptr) *stats = st;
        return true;
    } catch (const std::bad_alloc &) {
        return fail(why, why_size, "out of memory while checking");
    }
}

}  // namespace kerm::mempool

extern "C" {

void print_block(const void *block) noexcept {
    if (block == nullptr) return;
    auto *b = const_cast<Block *>(static_cast<const Block *>(block));
    printf(">> [%p] (", block);
    if (b->bytes() != 0) printf("%lu bytes, ", static_cast<unsigned long>(b->bytes()));
    else printf("sentinel, ");
    if (b->is_free()) printf("free [%p, %p], ", (void *)b->links()->prev, (void *)b->links()->next);
    else printf("used, ");
    if (b->prev_free()) printf("prev. free [%p])\n", (void *)b->prev_hdr);
    else printf("prev used)\n");
}

void print_tlsf(void *pool) noexcept {
    if (pool == nullptr) return;
    Control *c = static_cast<Control *>(pool);
    printf("\nTLSF at %p\n", pool);
    printf("FL bitmap: 0x%x\n\n", c->fl_bitmap);
    for (int f = 0; f < kFlCount; ++f) {
        if (c->sl_bitmap[f] != 0) printf("SL bitmap 0x%x\n", c->sl_bitmap[f]);
        for (int s = 0; s < kSlCount; ++s) {
            if (c->lists[f][s] == nullptr) continue;
            printf("-> [%d][%d]\n", f, s);
            for (Block *b = c->lists[f][s]; b != nullptr; b = b->links()->next) print_block(b);
        }
    }
}

void print_all_blocks(void *pool) noexcept {
    if (pool == nullptr) return;
    Control *c = static_cast<Control *>(pool);
    printf("\nTLSF at %p\nALL BLOCKS\n\n", pool);
    for (Region *r = c->regions; r != nullptr; r = r->next) {
        Block *b = Block::of(r);
        for (;; b = b->next()) {
            print_block(b);
            if (b->bytes() == 0) break;
        }
    }
}

void dump_memory_region(const uint8_t *start, size_t size) noexcept {
    if (start == nullptr) return;
    uintptr_t at = reinterpret_cast<uintptr_t>(start) & ~uintptr_t{3};
    // Deliberate: the dump runs to the word after the end, rounded down;
    // callers reading a block's header and buffer together rely on the extra word.
    const uintptr_t end = ((reinterpret_cast<uintptr_t>(start) + size) & ~uintptr_t{3}) + 4;
    printf("\nMemory region dumped: 0x%lx - 0x%lx\n\n", static_cast<unsigned long>(at), static_cast<unsigned long>(end));
    printf("0x%lx ", static_cast<unsigned long>(at));
    int column = 0;
    while (at < end) {
        const auto *p = reinterpret_cast<const uint8_t *>(at);
        printf("%02x", p[0]);
        printf("%02x ", p[1]);
        at += 2;
        if (++column == 8) {
            printf("\n0x%lx ", static_cast<unsigned long>(at));
            column = 0;
        }
    }
    printf("\n\n");
}

}  // extern "C"

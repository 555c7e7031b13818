/** @file kerm_mempool.h
 * @brief Real-time memory pool: a two-level segregated-fit allocator over memory the
 * caller supplies.
 *
 * Free blocks sit in 24 x 32 size-class lists (first level: the power of two
 * of the size; second level: 32 linear steps within it) with one bitmap per
 * level, so malloc and free take constant time: two bitmap searches, list-head
 * operations and at most two merges, never a walk along a list.
 *
 * The pool's control record is written at the start of the caller's first
 * region; further regions can be added. Every block carries a header of two
 * pointer-sized words in front of the user buffer (kerm_mempool_block); a
 * region holds a descriptor block, one big free block and a zero-sized
 * sentinel that ends it. All widths derive from the pointer size:
 *
 *                                     32-bit target   64-bit host
 *   alignment / block header                 8 / 8       16 / 16
 *   minimum block (requests below become)        8            16
 *   split only when at least this remains       16            32
 *   control record (KERM_MEMPOOL_CONTROL_SIZE) 3184         6272
 *   minimum region (KERM_MEMPOOL_MIN_REGION)   3248         6400
 *   init_memory_pool(minimum region) returns     32           64
 *   repeated init_memory_pool returns             8           16
 *   malloc(1) / malloc(100) block size        8 / 104     16 / 112
 *   malloc(100) block when freed: list        [0][26]      [0][28]
 *   malloc(200) searches from list            [1][18]      [1][20]
 *
 * Requests of 128 bytes and more are rounded up to their size class's step
 * (1/32 of their power of two), so that the head of the class found always
 * fits. The largest block is 2^30 bytes less one alignment step; a region's
 * usable part is capped there (memory beyond the cap stays unused), larger
 * requests return null.
 *
 * Locking: only tlsf_malloc/tlsf_free/tlsf_realloc/tlsf_calloc lock, and only
 * the default pool's lock (one 32-bit word of the control record, a
 * non-recursive mutex; zero means unlocked). The explicit-pool functions, and
 * add_new_area and destroy_memory_pool, take no lock: their callers serialise.
 */
#ifndef KERM_MEMPOOL_H
#define KERM_MEMPOOL_H

#include <stddef.h>
#include <stdint.h>

#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** First word of an initialised pool. */
#define KERM_MEMPOOL_SIGNATURE 0x2A59FA59u
/** Block sizes are multiples of this; user buffers are aligned to it when the region is. */
#define KERM_MEMPOOL_ALIGN (2 * sizeof(void *))
/** Bytes of the header in front of every user buffer. */
#define KERM_MEMPOOL_HDR_SIZE (2 * sizeof(void *))
/** Smallest block: room for the two free-list links. */
#define KERM_MEMPOOL_MIN_BLOCK (2 * sizeof(void *))
/** Number of first levels and of second-level lists per first level. */
#define KERM_MEMPOOL_FL_COUNT 24
#define KERM_MEMPOOL_SL_COUNT 32
#define KERM_MEMPOOL_ROUND_UP_(x, a) (((x) + (a) - 1) & ~((a) - 1))
/** Bytes reserved at the start of the first region for the control record:
 * signature, lock, region list, first-level bitmap, 24 second-level bitmaps,
 * then the 24 x 32 list heads (padded to the alignment). */
#define KERM_MEMPOOL_CONTROL_SIZE                                                                 \
    KERM_MEMPOOL_ROUND_UP_(KERM_MEMPOOL_ROUND_UP_(12 + 4 * KERM_MEMPOOL_FL_COUNT + sizeof(void *), \
                                                  sizeof(void *)) +                                \
                               KERM_MEMPOOL_FL_COUNT * KERM_MEMPOOL_SL_COUNT * sizeof(void *),     \
                           KERM_MEMPOOL_ALIGN)
/** Smallest region init_memory_pool accepts. */
#define KERM_MEMPOOL_MIN_REGION (KERM_MEMPOOL_CONTROL_SIZE + 8 * KERM_MEMPOOL_HDR_SIZE)
/** Bits of kerm_mempool_block.size below the byte count. */
#define KERM_MEMPOOL_BLOCK_FREE 0x1u
#define KERM_MEMPOOL_PREV_FREE 0x2u
#define KERM_MEMPOOL_SIZE_MASK (~(uintptr_t)3)

/** The header in front of every user buffer, for tools that walk a region:
 * the next block starts at (char *)(block + 1) + (size & KERM_MEMPOOL_SIZE_MASK);
 * a size of 0 is the sentinel that ends a region. A free block keeps its
 * list links (previous, next) in the first two words of its buffer. */
typedef struct kerm_mempool_block {
    struct kerm_mempool_block *prev_hdr; /**< physically previous block; valid only when it is free */
    uintptr_t size; /**< buffer bytes, plus KERM_MEMPOOL_BLOCK_FREE and KERM_MEMPOOL_PREV_FREE */
} kerm_mempool_block;

/**
 * @brief Sets up a pool at the start of @p region and makes it the default pool.
 *
 * The control record is written first, the rest (rounded down to the
 * alignment) becomes one region. A region that already starts with the
 * signature is left untouched and only becomes the default pool again.
 * Refusals print one line on standard output: "init_memory_pool (): memory_pool
 * invalid" for a null region or one smaller than KERM_MEMPOOL_MIN_REGION,
 * "init_memory_pool (): mem_pool must be aligned to a word" (no newline) for a
 * region not aligned to a pointer.
 * @return the size of the big free block (of the descriptor block, on a
 *         repeated call), or (size_t)-1 on refusal.
 */
KERM_API size_t init_memory_pool(size_t size, void *region) KERM_NOEXCEPT;

/**
 * @brief Adds @p area (zeroed, then laid out as a region) to @p pool.
 *
 * An area that begins right after an existing region's sentinel, or ends
 * right where an existing region begins, is merged with it: the boundary
 * headers become free space. Areas must not overlap the pool's memory. Takes
 * no lock and does not check the signature.
 * @return the size of the free block inserted, or 0 for a null pool or area,
 *         an area not aligned to a pointer or too small for one block.
 */
KERM_API size_t add_new_area(void *area, size_t size, void *pool) KERM_NOEXCEPT;

/**
 * @brief Allocates @p size bytes from @p pool (no lock).
 * @return the buffer, or null when no free block fits (the pool is unchanged).
 */
KERM_API void *malloc_ex(size_t size, void *pool) KERM_NOEXCEPT;

/** @brief Returns @p ptr's block to @p pool, merging it with free neighbours (no lock); null is ignored. */
KERM_API void free_ex(void *ptr, void *pool) KERM_NOEXCEPT;

/**
 * @brief Resizes @p ptr's block (no lock): shrinks and grows in place when the
 * following block allows, otherwise moves the data to a new block.
 * Null @p ptr acts as malloc_ex; @p size 0 frees and returns null.
 * @return the (possibly moved) buffer, or null when no block fits (the old
 *         block then stays allocated and unchanged).
 */
KERM_API void *realloc_ex(void *ptr, size_t size, void *pool) KERM_NOEXCEPT;

/**
 * @brief Allocates @p count * @p size zeroed bytes from @p pool (no lock).
 * The product is not checked for overflow: callers that take counts from
 * outside check it themselves.
 * @return the buffer, or null when either argument is 0 or no block fits.
 */
KERM_API void *calloc_ex(size_t count, size_t size, void *pool) KERM_NOEXCEPT;

/** @brief malloc_ex on the default pool under its lock. @return the buffer, or null (also without a default pool). */
KERM_API void *tlsf_malloc(size_t size) KERM_NOEXCEPT;

/** @brief free_ex on the default pool under its lock; null is ignored. */
KERM_API void tlsf_free(void *ptr) KERM_NOEXCEPT;

/** @brief realloc_ex on the default pool under its lock. @return as realloc_ex; null without a default pool. */
KERM_API void *tlsf_realloc(void *ptr, size_t size) KERM_NOEXCEPT;

/** @brief calloc_ex on the default pool under its lock. @return as calloc_ex; null without a default pool. */
KERM_API void *tlsf_calloc(size_t count, size_t size) KERM_NOEXCEPT;

/**
 * @brief Clears the pool's signature; the memory stays the caller's.
 * The default-pool pointer is kept: tlsf_* calls keep using that memory
 * until init_memory_pool names another (or the same) region.
 */
KERM_API void destroy_memory_pool(void *pool) KERM_NOEXCEPT;

/** @brief Usage statistics are not kept. @return always 0. */
KERM_API size_t get_used_size(void *pool) KERM_NOEXCEPT;

/** @brief Usage statistics are not kept. @return always 0. */
KERM_API size_t get_max_size(void *pool) KERM_NOEXCEPT;

/**
 * @brief Prints one block header on standard output:
 * ">> [header] (N bytes, " (or "sentinel, "), "free [prev, next], " or
 * "used, ", then "prev. free [prev_hdr])" or "prev used)" and a newline.
 * Nothing for null.
 */
KERM_API void print_block(const void *block) KERM_NOEXCEPT;

/** @brief Prints the pool's bitmaps and every non-empty list with its blocks on standard output. */
KERM_API void print_tlsf(void *pool) KERM_NOEXCEPT;

/** @brief Prints every block of every region, sentinels included, on standard output. */
KERM_API void print_all_blocks(void *pool) KERM_NOEXCEPT;

/**
 * @brief Hex dump on standard output, 16 bytes a line, each line headed by its
 * address. Covers @p start rounded down to 4 up to the word after
 * (start + size) rounded down to 4: the range must stay readable that far.
 */
KERM_API void dump_memory_region(const uint8_t *start, size_t size) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

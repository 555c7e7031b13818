/** @file kerm_rbuf.h
 * @brief Byte ring buffer of fixed capacity.
 *
 * Writes append at the tail, reads take from the head; both wrap around the
 * end of one heap block. The mode decides what a write does when the data does
 * not fit: UTIL_RBUF_MODE_FIT (0, the default) takes what fits, and
 * UTIL_RBUF_MODE_OVERWRITE (1) drops the oldest bytes to make room. There is
 * no locking: one thread at a time, or the caller's lock.
 *
 * Positions: `head` and `tail` may stand at `size` itself (not wrapped to 0)
 * after a read, skip or write that ends exactly at the end of the block; every
 * operation accepts that position.
 *
 * Quirks that callers rely on (each marked in the function's comment):
 *   - an overwriting write larger than the ring reports the whole count;
 *   - util_rbuf_find also looks at the byte at `tail`, one past the data;
 *   - util_rbuf_read_until's first stretch runs to the end of the block;
 *   - util_rbuf_move / util_rbuf_copy set the destination's count, they do
 *     not add to it: they are meant for an emptied destination.
 */
#ifndef KERM_RBUF_H
#define KERM_RBUF_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define UTIL_RBUF_DEFAULT_SIZE 4096
#define UTIL_RBUF_MODE_FIT 0u
#define UTIL_RBUF_MODE_OVERWRITE 1u

/** The ring record. Allocated by util_rbuf_create; the fields are readable
 * (for diagnostics) but only the util_rbuf_* functions change them. */
typedef struct util_rbuf {
    uint8_t *data; /**< heap block of `size` bytes (one more, zeroed, guards the search) */
    int32_t size;  /**< capacity in bytes */
    int32_t used;  /**< bytes stored */
    int32_t head;  /**< index of the oldest stored byte (read position), 0..size */
    int32_t tail;  /**< index where the next byte is written, 0..size */
    uint32_t mode; /**< 1: overwrite; any other value: write what fits */
} util_rbuf_t;

/** @brief Creates an empty ring in mode 0.
 * @param size capacity in bytes; 0 means UTIL_RBUF_DEFAULT_SIZE (4096).
 * @return the ring, or NULL when size is negative or an allocation fails. */
KERM_API util_rbuf_t *util_rbuf_create(int32_t size) KERM_NOEXCEPT;

/** @brief Frees the block, then the record. NULL is ignored. */
KERM_API void util_rbuf_destroy(util_rbuf_t *ring) KERM_NOEXCEPT;

/** @brief Capacity of the ring. @return `size`, or 0 for NULL. */
KERM_API uint32_t util_rbuf_size(const util_rbuf_t *ring) KERM_NOEXCEPT;

/** @brief Free space. @return `size` - `used`, or 0 for NULL. */
KERM_API uint32_t util_rbuf_available(const util_rbuf_t *ring) KERM_NOEXCEPT;

/** @brief Stored byte count (the record's `used`). @return `used`, or 0 for NULL. */
KERM_API uint32_t util_rbuf_used(const util_rbuf_t *ring) KERM_NOEXCEPT;

/** @brief Empties the ring: `used`, `head` and `tail` become 0. NULL is ignored. */
KERM_API void util_rbuf_clear(util_rbuf_t *ring) KERM_NOEXCEPT;

/** @brief Current mode word. @return `mode`, or 0 for NULL. */
KERM_API uint32_t util_rbuf_mode(const util_rbuf_t *ring) KERM_NOEXCEPT;

/** @brief Stores the mode word (1 overwrite, anything else write-what-fits). */
KERM_API void util_rbuf_set_mode(util_rbuf_t *ring, uint32_t mode) KERM_NOEXCEPT;

/** @brief Appends n bytes at the tail.
 *
 * Mode 0 takes what fits. Mode 1 drops the oldest bytes to make room.
 * Deliberate: in mode 1 a write larger than the ring keeps only its last
 * `size` bytes (head = tail = 0) and still reports the whole n.
 * @return bytes accepted (n in mode 1); 0 for a NULL ring or src, or n = 0. */
KERM_API uint32_t util_rbuf_write(util_rbuf_t *ring, const uint8_t *src, uint32_t n) KERM_NOEXCEPT;

/** @brief Takes up to n bytes from the head into dst.
 * @return bytes read; 0 for a NULL ring or dst, or n < 1. */
KERM_API int32_t util_rbuf_read(util_rbuf_t *ring, uint8_t *dst, int32_t n) KERM_NOEXCEPT;

/** @brief Drops up to n bytes from the head; n >= `used` empties the ring
 * (head moves to tail). A negative n or NULL ring does nothing. */
KERM_API void util_rbuf_skip(util_rbuf_t *ring, int32_t n) KERM_NOEXCEPT;

/** @brief Distance from the head of the first stored byte equal to `byte`.
 *
 * The whole 32-bit value is compared, so values above 255 never match.
 * Deliberate: the byte at `tail`, one past the data, is searched too, so a
 * stale byte there can be reported at distance `used`.
 * @return the distance, or -1 (empty ring, no match, NULL ring). */
KERM_API int32_t util_rbuf_find(const util_rbuf_t *ring, uint32_t byte) KERM_NOEXCEPT;

/** @brief Copies bytes from the head into dst up to and including `delim`, at
 * most max bytes, and consumes what was copied. No terminating zero is written.
 *
 * Without the delimiter the ring ends up empty. Deliberate: the first stretch
 * (head to the end of the block) is copied without regard to the stored count,
 * so stale bytes past the data are copied, may end the search, and count in
 * the result; dst must hold max bytes.
 * @return bytes copied and consumed; 0 for a NULL ring or dst. */
KERM_API uint32_t util_rbuf_read_until(util_rbuf_t *ring, uint32_t delim, uint8_t *dst, int32_t max) KERM_NOEXCEPT;

/** @brief Moves min(src `used`, dst free space, n) bytes from src into dst.
 *
 * Deliberate: dst `used` is set to the moved count, not increased; the call is
 * meant for an emptied destination (after util_rbuf_clear the bytes land at
 * the block start with head 0 and tail = used = count).
 * @return bytes moved; 0 for NULL rings, n < 1 or src == dst. */
KERM_API uint32_t util_rbuf_move(util_rbuf_t *src, util_rbuf_t *dst, int32_t n) KERM_NOEXCEPT;

/** @brief As util_rbuf_move, but src is left unchanged.
 *
 * Deliberate: dst `used` is set to the copied count, not increased; callers
 * copy whole contents into an emptied destination.
 * @return bytes copied; 0 for NULL rings, n = 0 or src == dst. */
KERM_API uint32_t util_rbuf_copy(const util_rbuf_t *src, util_rbuf_t *dst, uint32_t n) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

/** @file kerm_fbuf.h
 * @brief Flexible buffer: a growable, always zero-terminated byte and text buffer.
 *
 * The content is data[offset .. offset + used) and data[offset + used] is 0
 * whenever a block exists. Removal from the front only advances `offset`; the
 * content is moved back to the block start lazily (when `offset` reaches half
 * the block, or when room is needed). Growth: the first block is `minlen`
 * (128) bytes, the next jumps to `fastgrowsize` (16384), then `slowgrowsize`
 * (1024) at a time. An optional `maxlen` bounds the content length (0 means
 * unbounded). No locking; only the counter that numbers buffers is shared,
 * and it is advanced atomically.
 *
 * Functions that can fail set no code of their own: they return -1 (or 0
 * where the result is a size), and a refused growth sets errno to ENOMEM.
 * Pointers handed in (src, strings) must not point into the same buffer
 * unless a function says otherwise.
 *
 * Quirks that callers rely on (each marked in the function's comment):
 *   - util_fbuf_extend does not release the old block when it grows a buffer
 *     whose content starts at an offset (the one deliberate leak);
 *   - util_fbuf_maxlen(b, 0) on a buffer with a block cuts it to empty
 *     content in a 1-byte block, though maxlen 0 means unbounded for growth;
 *   - util_fbuf_concat appends the source's terminator as content;
 *   - util_fbuf_attach keeps the given `len` when it enlarges the block;
 *   - util_fbuf_read_ln checks for a line end before it reads.
 */
#ifndef KERM_FBUF_H
#define KERM_FBUF_H

#include <stdint.h>
#include <stdio.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define UTIL_FBUF_MINLEN 128u
#define UTIL_FBUF_FASTGROWSIZE 16384u
#define UTIL_FBUF_SLOWGROWSIZE 1024u
/** util_fbuf_maxlen argument that only queries. */
#define UTIL_FBUF_MAXLEN_QUERY 0xFFFFFFFFu

#if defined(__GNUC__) || defined(__clang__)
#define UTIL_FBUF_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define UTIL_FBUF_PRINTF(f, a)
#endif

/** The buffer record, fields in this order. Readable; changed only by the
 * util_fbuf_* functions. Zero settings stand for their defaults. */
typedef struct util_fbuf {
    uint32_t id;           /**< number from the process-wide counter (starts at 0) */
    uint8_t *data;         /**< heap block of `len` bytes, or NULL */
    uint32_t len;          /**< block size */
    uint32_t maxlen;       /**< upper bound on the content length; 0 unbounded */
    uint32_t minlen;       /**< first block size and floor when shrinking */
    uint32_t fastgrowsize; /**< size the block jumps to after its first size */
    uint32_t slowgrowsize; /**< growth step beyond fastgrowsize */
    uint32_t used;         /**< content length */
    uint32_t offset;       /**< where the content starts in the block */
} util_fbuf_t;

/* ---- Lifecycle ---------------------------------------------------------- */

/** @brief Creates an empty buffer (no block yet) with the default settings.
 * @param maxlen bound on the content length; 0 means unbounded.
 * @return the buffer, or NULL when out of memory. */
KERM_API util_fbuf_t *util_fbuf_create(uint32_t maxlen) KERM_NOEXCEPT;

/** @brief Releases the block and the record. NULL is ignored. */
KERM_API void util_fbuf_free(util_fbuf_t *buf) KERM_NOEXCEPT;

/** @brief Releases only the block; `data`, `offset`, `len` and `used` become
 * 0 and the record stays usable. */
KERM_API void util_fbuf_destroy(util_fbuf_t *buf) KERM_NOEXCEPT;

/** @brief Empties the content (`used` = `offset` = 0), keeping the block. */
KERM_API void util_fbuf_clear(util_fbuf_t *buf) KERM_NOEXCEPT;

/** @brief New buffer with the same `maxlen` and a copy of the content.
 * @return the copy, or NULL (NULL buf, out of memory). */
KERM_API util_fbuf_t *util_fbuf_duplicate(const util_fbuf_t *buf) KERM_NOEXCEPT;

/** @brief Moves src into dst: dst's block is released, the whole record (its
 * `id` included) is copied, and src is left empty with zero settings (the
 * defaults) and a new `id`.
 * @return 0; -1 for a NULL argument. src == dst does nothing. */
KERM_API int32_t util_fbuf_move(util_fbuf_t *src, util_fbuf_t *dst) KERM_NOEXCEPT;

/** @brief Exchanges two records whole, `id` included. */
KERM_API void util_fbuf_swap(util_fbuf_t *a, util_fbuf_t *b) KERM_NOEXCEPT;

/* ---- Settings (each returns the previous value; 0 for a NULL buf) -------- */

/** @brief Sets `fastgrowsize` when v != 0. @return the previous value. */
KERM_API uint32_t util_fbuf_fastgrowsize(util_fbuf_t *buf, uint32_t v) KERM_NOEXCEPT;

/** @brief Sets `slowgrowsize` when v != 0. @return the previous value. */
KERM_API uint32_t util_fbuf_slowgrowsize(util_fbuf_t *buf, uint32_t v) KERM_NOEXCEPT;

/** @brief Sets `minlen` (v 0 only queries); when `used` < v < `len` the block
 * is reallocated down to v bytes (content moved to the block start first).
 * @return the previous value, or 0 when that reallocation fails. */
KERM_API uint32_t util_fbuf_minlen(util_fbuf_t *buf, uint32_t v) KERM_NOEXCEPT;

/** @brief Sets `maxlen` (UTIL_FBUF_MAXLEN_QUERY only queries). When the block
 * is then larger than maxlen, the buffer is shrunk, the block reallocated to
 * maxlen + 1 bytes and the content cut to maxlen bytes.
 * Deliberate: storing 0 on a buffer with a block cuts it to empty content in
 * a 1-byte block, while 0 still means unbounded for later growth.
 * @return the previous value, or 0 when the reallocation fails. */
KERM_API uint32_t util_fbuf_maxlen(util_fbuf_t *buf, uint32_t v) KERM_NOEXCEPT;

/* ---- Access ------------------------------------------------------------- */

/** @brief Start of the content (`data` + `offset`); NULL when there is no block. */
KERM_API uint8_t *util_fbuf_data(const util_fbuf_t *buf) KERM_NOEXCEPT;

/** @brief End of the content (its terminator); NULL when there is no block. */
KERM_API uint8_t *util_fbuf_end(const util_fbuf_t *buf) KERM_NOEXCEPT;

/** @brief Block size. @return `len`, 0 for NULL. */
KERM_API uint32_t util_fbuf_len(const util_fbuf_t *buf) KERM_NOEXCEPT;

/** @brief Content length. @return `used`, 0 for NULL. */
KERM_API uint32_t util_fbuf_used(const util_fbuf_t *buf) KERM_NOEXCEPT;

/* ---- Content ------------------------------------------------------------ */

/** @brief Appends n bytes. @return n; -1 for n < 1, NULL src or when the
 * buffer cannot grow (errno ENOMEM past `maxlen`). */
KERM_API int32_t util_fbuf_add_binary(util_fbuf_t *buf, const uint8_t *src, int32_t n) KERM_NOEXCEPT;

/** @brief Appends a string. @return its length; 0 for NULL or ""; -1 on failure. */
KERM_API int32_t util_fbuf_add(util_fbuf_t *buf, const char *s) KERM_NOEXCEPT;

/** @brief Appends a string and "\n" (an empty or NULL string still gets the
 * line end). @return the sum of both counts, or -1 if either failed. */
KERM_API int32_t util_fbuf_add_ln(util_fbuf_t *buf, const char *s) KERM_NOEXCEPT;

/** @brief Puts n bytes in front of the content; when the freed front (the
 * offset) is large enough they go there without moving the content.
 * @return n; 0 for n < 1 or NULL src; -1 when the buffer cannot grow. */
KERM_API int32_t util_fbuf_prepend_binary(util_fbuf_t *buf, const uint8_t *src, int32_t n) KERM_NOEXCEPT;

/** @brief Puts a string in front of the content. @return as util_fbuf_prepend_binary. */
KERM_API int32_t util_fbuf_prepend(util_fbuf_t *buf, const char *s) KERM_NOEXCEPT;

/** @brief Appends src's content and its terminator to dst (src may be dst).
 * Deliberate: the terminator becomes part of dst's content and is counted, so
 * joined pieces stay separated by 0 bytes.
 * @return src `used` + 1; 0 when src is empty; -1 on failure or NULL. */
KERM_API int32_t util_fbuf_concat(util_fbuf_t *dst, const util_fbuf_t *src) KERM_NOEXCEPT;

/** @brief Replaces dst's content with a copy of src's.
 * @return the new `used`; -1 on failure or NULL. */
KERM_API int32_t util_fbuf_copy(const util_fbuf_t *src, util_fbuf_t *dst) KERM_NOEXCEPT;

/** @brief Replaces the content with a string, keeping the current `offset`
 * when the string fits behind it. @return its length; -1 on failure or NULL s. */
KERM_API int32_t util_fbuf_set(util_fbuf_t *buf, const char *s) KERM_NOEXCEPT;

/** @brief Appends formatted text with room for n characters.
 * The caller's n should bound the text: room is made for n, and text beyond
 * the room is cut (the content then grows only by what was stored).
 * @return the full formatted length (as vsnprintf), or -1 on failure. */
KERM_API UTIL_FBUF_PRINTF(3, 4) int32_t util_fbuf_nprintf(util_fbuf_t *buf, uint32_t n, const char *format,
                                                         ...) KERM_NOEXCEPT;

/** @brief Appends formatted text of any length. Room for `used` + 128 is made
 * first (so a buffer bounded below that fails), more when the text needs it.
 * @return the formatted length, or -1 on failure (content unchanged). */
KERM_API UTIL_FBUF_PRINTF(2, 3) int32_t util_fbuf_printf(util_fbuf_t *buf, const char *format, ...) KERM_NOEXCEPT;

/** @brief Removes n bytes from the front (n >= `used` empties the content).
 * @return the remaining `used`. */
KERM_API uint32_t util_fbuf_remove(util_fbuf_t *buf, uint32_t n) KERM_NOEXCEPT;

/** @brief Cuts the content to n bytes when n < `used`. @return `used`. */
KERM_API uint32_t util_fbuf_set_used(util_fbuf_t *buf, uint32_t n) KERM_NOEXCEPT;

/** @brief Removes leading white space (isspace).
 * @return the count removed (the whole length when all is white space). */
KERM_API uint32_t util_fbuf_trim(util_fbuf_t *buf) KERM_NOEXCEPT;

/** @brief Drops trailing white space. @return the count dropped. */
KERM_API int32_t util_fbuf_rtrim(util_fbuf_t *buf) KERM_NOEXCEPT;

/** @brief Replaces the block with the caller's malloc'ed block of len bytes
 * holding used content bytes; a 0 is written at block[used] (the block is
 * first reallocated to used + 1 bytes when used >= len). The buffer owns the
 * block afterwards.
 * Deliberate: `len` keeps the given value even when the block was enlarged.
 * @return the previous `used`; 0 when the reallocation fails (the buffer is
 * then empty and the block still the caller's) or for negative sizes. */
KERM_API uint32_t util_fbuf_attach(util_fbuf_t *buf, uint8_t *block, int32_t len, int32_t used) KERM_NOEXCEPT;

/** @brief Hands the block (content at its start, zero-terminated) to the
 * caller, who frees it with free(); the buffer is left empty without a block.
 * An empty buffer returns 0 and leaves *block untouched.
 * @param len receives the block size when not NULL.
 * @return the content length. */
KERM_API uint32_t util_fbuf_detach(util_fbuf_t *buf, uint8_t **block, uint32_t *len) KERM_NOEXCEPT;

/* ---- Input and output --------------------------------------------------- */

/** @brief One read() of up to n bytes (0 means 1024) appended to the content.
 * @return read()'s raw result (a positive count is added); -1 when the
 * buffer cannot grow. */
KERM_API int32_t util_fbuf_read(util_fbuf_t *buf, int fd, uint32_t n) KERM_NOEXCEPT;

/** @brief One fread() of up to n bytes (0 means 1024) appended to the content.
 * @return fread()'s raw result; -1 when the buffer cannot grow. */
KERM_API int32_t util_fbuf_fread(util_fbuf_t *buf, FILE *stream, uint32_t n) KERM_NOEXCEPT;

/** @brief Reads one byte at a time up to a line feed and appends the line
 * without its line end (LF or CR LF).
 * Deliberate: the line end test comes before the first read, so content that
 * already ends with a line feed returns at once with it dropped (result -1,
 * or -2 when a CR precedes it).
 * @return bytes added; -1 at end of input or on a read error (the bytes read
 * so far stay in the content) or when the buffer cannot grow. */
KERM_API int32_t util_fbuf_read_ln(util_fbuf_t *buf, int fd) KERM_NOEXCEPT;

/** @brief As util_fbuf_read_ln, from a stdio stream. */
KERM_API int32_t util_fbuf_fread_ln(util_fbuf_t *buf, FILE *stream) KERM_NOEXCEPT;

/** @brief One write() of min(n, `used`) bytes (all of it when n is 0); what
 * was written is removed from the front.
 * @return the bytes written, or write()'s raw result when below 1 (so -1
 * arrives as 0xFFFFFFFF). */
KERM_API uint32_t util_fbuf_write(util_fbuf_t *buf, int fd, uint32_t n) KERM_NOEXCEPT;

/* ---- Storage ------------------------------------------------------------ */

/** @brief Makes room for content of n bytes plus its terminator (compacting,
 * or growing by the growth steps).
 * Deliberate: growing a buffer whose content starts at an offset allocates a
 * new block and does not release the old one.
 * @return the block size, or 0 on failure (errno ENOMEM past `maxlen`). */
KERM_API uint32_t util_fbuf_extend(util_fbuf_t *buf, uint32_t n) KERM_NOEXCEPT;

/** @brief Compacts and shrinks the block by the growth steps while the content
 * still fits, not below `minlen`; an empty buffer loses its block.
 * @return the new block size (the old one when reallocation fails). */
KERM_API uint32_t util_fbuf_shrink(util_fbuf_t *buf) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

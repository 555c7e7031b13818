// Flexible buffer: growable zero-terminated content with a lazily compacted
// front offset.
#include "kerm_fbuf.h"

#include <ctype.h>
#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

namespace {

std::atomic<uint32_t> g_next_id{0};

uint32_t next_id() noexcept { return g_next_id.fetch_add(1, std::memory_order_relaxed); }

// Zero settings stand for the defaults (a moved-from buffer has all zero).
uint32_t minlen_of(const util_fbuf_t *b) noexcept { return b->minlen ? b->minlen : UTIL_FBUF_MINLEN; }
uint32_t fast_of(const util_fbuf_t *b) noexcept { return b->fastgrowsize ? b->fastgrowsize : UTIL_FBUF_FASTGROWSIZE; }
uint32_t slow_of(const util_fbuf_t *b) noexcept { return b->slowgrowsize ? b->slowgrowsize : UTIL_FBUF_SLOWGROWSIZE; }

inline uint8_t *content(const util_fbuf_t *b) noexcept { return b->data + b->offset; }
inline void terminate(util_fbuf_t *b) noexcept { b->data[b->offset + b->used] = 0; }
inline char *end_of(const util_fbuf_t *b) noexcept { return reinterpret_cast<char *>(content(b) + b->used); }
// Bytes from the content end to the block end (the terminator's place included).
inline uint32_t room_after(const util_fbuf_t *b) noexcept { return b->len - b->offset - b->used; }

// memcpy/memmove want valid pointers even for 0 bytes; an empty buffer has none.
inline void move_bytes(void *dst, const void *src, uint64_t n) noexcept {
    if (n) memmove(dst, src, static_cast<size_t>(n));
}

// Content and terminator to the block start.
void compact(util_fbuf_t *b) noexcept {
    if (b->used == 0)
        b->data[0] = 0;
    else
        memmove(b->data, content(b), static_cast<size_t>(b->used) + 1);
    b->offset = 0;
}

// Room for content of n bytes plus the terminator. 64-bit so that sums of
// counts cannot wrap into a small request.
uint32_t extend(util_fbuf_t *b, uint64_t n) noexcept {
    const uint64_t need = n + 1;
    if (need <= b->len - b->offset) return b->len;
    if (b->offset != 0 && need <= b->len) {
        compact(b);
        return b->len;
    }
    if ((b->maxlen != 0 && need > uint64_t{b->maxlen} + 1) || need > UINT32_MAX) {
        errno = ENOMEM;
        return 0;
    }
    const uint64_t fast = fast_of(b);
    uint64_t len = b->len;
    while (len < need) {
        if (len == 0)
            len = minlen_of(b);
        else if (len < fast)
            len = fast;
        else
            len += slow_of(b);
    }
    if (b->maxlen != 0 && len > b->maxlen) len = uint64_t{b->maxlen} + 1;
    if (len > UINT32_MAX) {
        errno = ENOMEM;
        return 0;
    }
    if (b->offset == 0) {
        auto *p = static_cast<uint8_t *>(realloc(b->data, static_cast<size_t>(len)));
        if (!p) return 0;
        if (!b->data) p[0] = 0;
        b->data = p;
    } else {
        auto *p = static_cast<uint8_t *>(malloc(static_cast<size_t>(len)));
        if (!p) return 0;
        move_bytes(p, content(b), b->used);
        p[b->used] = 0;
        // Deliberate: the old block is not released on this path, so a
        // pointer a caller took from the buffer before this growth still
        // reads valid (old) memory.
        b->data = p;
        b->offset = 0;
    }
    b->len = static_cast<uint32_t>(len);
    return b->len;
}

// Shared by read_ln and fread_ln: `get(p)` reads one byte to p and returns the
// raw result of the read.
template <class Get>
int32_t read_line(util_fbuf_t *b, Get get) noexcept {
    const int64_t start = b->used;
    // Deliberate: the line end test comes first, so content that already ends
    // with a line feed is returned as a (negative-length) line without reading.
    while (b->used == 0 || content(b)[b->used - 1] != '\n') {
        if (extend(b, uint64_t{b->used} + 1) == 0) return -1;
        if (get(content(b) + b->used) < 1) {
            terminate(b);
            return -1;
        }
        ++b->used;
        terminate(b);
    }
    --b->used;
    if (b->used > 0 && content(b)[b->used - 1] == '\r') --b->used;
    terminate(b);
    return static_cast<int32_t>(int64_t{b->used} - start);
}

}  // namespace

extern "C" {

util_fbuf_t *util_fbuf_create(uint32_t maxlen) noexcept {
    auto *b = static_cast<util_fbuf_t *>(calloc(1, sizeof(util_fbuf_t)));
    if (!b) return nullptr;
    b->id = next_id();
    b->maxlen = maxlen;
    b->minlen = UTIL_FBUF_MINLEN;
    b->fastgrowsize = UTIL_FBUF_FASTGROWSIZE;
    b->slowgrowsize = UTIL_FBUF_SLOWGROWSIZE;
    return b;
}

void util_fbuf_free(util_fbuf_t *buf) noexcept {
    if (!buf) return;
    free(buf->data);
    free(buf);
}

void util_fbuf_destroy(util_fbuf_t *buf) noexcept {
    if (!buf) return;
    free(buf->data);
    buf->data = nullptr;
    buf->offset = buf->len = buf->used = 0;
}

void util_fbuf_clear(util_fbuf_t *buf) noexcept {
    if (!buf) return;
    buf->used = buf->offset = 0;
    if (buf->len > 0) buf->data[0] = 0;
}

util_fbuf_t *util_fbuf_duplicate(const util_fbuf_t *buf) noexcept {
    if (!buf) return nullptr;
    util_fbuf_t *copy = util_fbuf_create(buf->maxlen);
    if (copy && buf->used > 0 && util_fbuf_add_binary(copy, content(buf), static_cast<int32_t>(buf->used)) < 0) {
        util_fbuf_free(copy);
        return nullptr;
    }
    return copy;
}

int32_t util_fbuf_move(util_fbuf_t *src, util_fbuf_t *dst) noexcept {
    if (!src || !dst) return -1;
    if (src == dst) return 0;
    free(dst->data);
    *dst = *src;
    *src = util_fbuf_t{};
    src->id = next_id();
    return 0;
}

void util_fbuf_swap(util_fbuf_t *a, util_fbuf_t *b) noexcept {
    if (a && b) std::swap(*a, *b);
}

uint32_t util_fbuf_fastgrowsize(util_fbuf_t *buf, uint32_t v) noexcept {
    if (!buf) return 0;
    uint32_t prev = buf->fastgrowsize;
    if (v) buf->fastgrowsize = v;
    return prev;
}

uint32_t util_fbuf_slowgrowsize(util_fbuf_t *buf, uint32_t v) noexcept {
    if (!buf) return 0;
    uint32_t prev = buf->slowgrowsize;
    if (v) buf->slowgrowsize = v;
    return prev;
}

uint32_t util_fbuf_minlen(util_fbuf_t *buf, uint32_t v) noexcept {
    if (!buf) return 0;
    uint32_t prev = buf->minlen;
    if (v == 0) return prev;
    buf->minlen = v;
    if (buf->used < v && v < buf->len) {
        // The cut keeps content and terminator only when they start at 0.
        if (buf->offset) compact(buf);
        auto *p = static_cast<uint8_t *>(realloc(buf->data, v));
        if (!p) return 0;
        buf->data = p;
        buf->len = v;
    }
    return prev;
}

uint32_t util_fbuf_maxlen(util_fbuf_t *buf, uint32_t v) noexcept {
    if (!buf) return 0;
    uint32_t prev = buf->maxlen;
    if (v == UTIL_FBUF_MAXLEN_QUERY) return prev;
    buf->maxlen = v;
    if (buf->len > v) {
        // Deliberate: v = 0 lands here too and leaves empty content in a
        // 1-byte block, although 0 means unbounded for later growth.
        util_fbuf_shrink(buf);
        auto *p = static_cast<uint8_t *>(realloc(buf->data, size_t{v} + 1));
        if (!p) return 0;
        buf->data = p;
        buf->len = v + 1;
        if (buf->used > v) buf->used = v;
        p[v] = 0;
        terminate(buf);  // the shrink may have released the block
    }
    return prev;
}

uint8_t *util_fbuf_data(const util_fbuf_t *buf) noexcept { return buf && buf->data ? content(buf) : nullptr; }

uint8_t *util_fbuf_end(const util_fbuf_t *buf) noexcept {
    return buf && buf->data ? content(buf) + buf->used : nullptr;
}

uint32_t util_fbuf_len(const util_fbuf_t *buf) noexcept { return buf ? buf->len : 0; }

uint32_t util_fbuf_used(const util_fbuf_t *buf) noexcept { return buf ? buf->used : 0; }

int32_t util_fbuf_add_binary(util_fbuf_t *buf, const uint8_t *src, int32_t n) noexcept {
    if (!buf || !src || n < 1) return -1;
    if (extend(buf, uint64_t{buf->used} + static_cast<uint32_t>(n)) == 0) return -1;
    memcpy(content(buf) + buf->used, src, static_cast<size_t>(n));
    buf->used += static_cast<uint32_t>(n);
    terminate(buf);
    return n;
}

int32_t util_fbuf_add(util_fbuf_t *buf, const char *s) noexcept {
    if (!buf) return -1;
    if (!s || !*s) return 0;
    return util_fbuf_add_binary(buf, reinterpret_cast<const uint8_t *>(s), static_cast<int32_t>(strlen(s)));
}

int32_t util_fbuf_add_ln(util_fbuf_t *buf, const char *s) noexcept {
    int32_t a = util_fbuf_add(buf, s);
    if (a < 0) return -1;
    int32_t b = util_fbuf_add_binary(buf, reinterpret_cast<const uint8_t *>("\n"), 1);
    return b < 0 ? -1 : a + b;
}

int32_t util_fbuf_prepend_binary(util_fbuf_t *buf, const uint8_t *src, int32_t n) noexcept {
    if (!buf || !src || n < 1) return 0;
    const uint32_t k = static_cast<uint32_t>(n);
    if (buf->offset >= k) {
        buf->offset -= k;
        memcpy(content(buf), src, k);
    } else {
        if (extend(buf, uint64_t{buf->used} + k) == 0) return -1;
        memmove(content(buf) + k, content(buf), size_t{buf->used} + 1);
        memcpy(content(buf), src, k);
    }
    buf->used += k;
    return n;
}

int32_t util_fbuf_prepend(util_fbuf_t *buf, const char *s) noexcept {
    if (!s) return 0;
    return util_fbuf_prepend_binary(buf, reinterpret_cast<const uint8_t *>(s), static_cast<int32_t>(strlen(s)));
}

int32_t util_fbuf_concat(util_fbuf_t *dst, const util_fbuf_t *src) noexcept {
    if (!dst || !src) return -1;
    if (src->used == 0) return 0;
    // Deliberate: the terminator travels as content and is counted.
    const uint64_t n = uint64_t{src->used} + 1;
    if (n > INT32_MAX || extend(dst, dst->used + n) == 0) return -1;
    // src may be dst: its fields are read after the extension moved things.
    memmove(content(dst) + dst->used, content(src), static_cast<size_t>(n));
    dst->used += static_cast<uint32_t>(n);
    terminate(dst);
    return static_cast<int32_t>(n);
}

int32_t util_fbuf_copy(const util_fbuf_t *src, util_fbuf_t *dst) noexcept {
    if (!src || !dst) return -1;
    if (src == dst) return static_cast<int32_t>(dst->used);
    if (extend(dst, src->used) == 0) return -1;
    util_fbuf_clear(dst);
    move_bytes(dst->data, src->data ? content(src) : nullptr, src->used);
    dst->used = src->used;
    terminate(dst);
    return static_cast<int32_t>(dst->used);
}

int32_t util_fbuf_set(util_fbuf_t *buf, const char *s) noexcept {
    if (!buf || !s) return -1;
    const size_t n = strlen(s);
    if (extend(buf, n) == 0) return -1;
    move_bytes(content(buf), s, n);
    buf->used = static_cast<uint32_t>(n);
    terminate(buf);
    return static_cast<int32_t>(n);
}

int32_t util_fbuf_nprintf(util_fbuf_t *buf, uint32_t n, const char *format, ...) noexcept {
    if (!buf || !format || extend(buf, uint64_t{buf->used} + n) == 0) return -1;
    va_list ap;
    va_start(ap, format);
    const uint32_t room = room_after(buf);
    int r = vsnprintf(end_of(buf), room, format, ap);
    va_end(ap);
    // A text longer than the room was cut by vsnprintf: the content grows by
    // what was stored, the result still tells the full length.
    if (r > 0) buf->used += std::min(static_cast<uint32_t>(r), room - 1);
    terminate(buf);
    return r < 0 ? -1 : r;
}

int32_t util_fbuf_printf(util_fbuf_t *buf, const char *format, ...) noexcept {
    if (!buf || !format || extend(buf, uint64_t{buf->used} + 128) == 0) return -1;
    va_list ap, again;
    va_start(ap, format);
    va_copy(again, ap);
    int r = vsnprintf(end_of(buf), room_after(buf), format, ap);
    va_end(ap);
    if (r >= 0 && static_cast<uint32_t>(r) >= room_after(buf)) {
        terminate(buf);  // the cut text stays out of the content on failure
        if (extend(buf, uint64_t{buf->used} + static_cast<uint32_t>(r)) == 0)
            r = -1;
        else
            r = vsnprintf(end_of(buf), room_after(buf), format, again);
    }
    va_end(again);
    if (r > 0) buf->used += static_cast<uint32_t>(r);
    terminate(buf);
    return r < 0 ? -1 : r;
}

uint32_t util_fbuf_remove(util_fbuf_t *buf, uint32_t n) noexcept {
    if (!buf) return 0;
    if (n >= buf->used) {
        buf->used = buf->offset = 0;
        if (buf->data) buf->data[0] = 0;
        return 0;
    }
    if (n == 0) return buf->used;
    buf->offset += n;
    buf->used -= n;
    if (buf->offset >= buf->len / 2) compact(buf);
    return buf->used;
}

uint32_t util_fbuf_set_used(util_fbuf_t *buf, uint32_t n) noexcept {
    if (!buf) return 0;
    if (n < buf->used) {
        buf->used = n;
        terminate(buf);
    }
    return buf->used;
}

uint32_t util_fbuf_trim(util_fbuf_t *buf) noexcept {
    if (!buf) return 0;
    uint32_t i = 0;
    while (i < buf->used && isspace(content(buf)[i])) ++i;
    util_fbuf_remove(buf, i);
    return i;
}

int32_t util_fbuf_rtrim(util_fbuf_t *buf) noexcept {
    if (!buf || !buf->data) return 0;
    uint32_t before = buf->used;
    while (buf->used > 0 && isspace(content(buf)[buf->used - 1])) --buf->used;
    terminate(buf);
    return static_cast<int32_t>(before - buf->used);
}

uint32_t util_fbuf_attach(util_fbuf_t *buf, uint8_t *block, int32_t len, int32_t used) noexcept {
    if (!buf || !block || len < 0 || used < 0) return 0;
    const uint32_t prev = buf->used;
    util_fbuf_destroy(buf);
    if (used >= len) {
        auto *p = static_cast<uint8_t *>(realloc(block, static_cast<size_t>(used) + 1));
        if (!p) return 0;
        block = p;
    }
    buf->data = block;
    // Deliberate: `len` keeps the caller's value even when the block was just
    // enlarged; it only understates the block, and growth corrects it.
    buf->len = static_cast<uint32_t>(len);
    buf->used = static_cast<uint32_t>(used);
    block[used] = 0;
    return prev;
}

uint32_t util_fbuf_detach(util_fbuf_t *buf, uint8_t **block, uint32_t *len) noexcept {
    if (!buf || !block || buf->used == 0) return 0;
    if (buf->offset != 0) util_fbuf_shrink(buf);
    *block = buf->data;
    if (len) *len = buf->len;
    const uint32_t used = buf->used;
    buf->data = nullptr;
    buf->len = buf->used = buf->offset = 0;
    return used;
}

int32_t util_fbuf_read(util_fbuf_t *buf, int fd, uint32_t n) noexcept {
    if (!buf) return -1;
    n = std::min<uint32_t>(n ? n : 1024, INT32_MAX);
    if (extend(buf, uint64_t{buf->used} + n) == 0) return -1;
    ssize_t r = ::read(fd, content(buf) + buf->used, n);
    if (r > 0) buf->used += static_cast<uint32_t>(r);
    terminate(buf);
    return static_cast<int32_t>(r);
}

int32_t util_fbuf_fread(util_fbuf_t *buf, FILE *stream, uint32_t n) noexcept {
    if (!buf || !stream) return -1;
    n = std::min<uint32_t>(n ? n : 1024, INT32_MAX);
    if (extend(buf, uint64_t{buf->used} + n) == 0) return -1;
    size_t r = fread(content(buf) + buf->used, 1, n, stream);
    buf->used += static_cast<uint32_t>(r);
    terminate(buf);
    return static_cast<int32_t>(r);
}

int32_t util_fbuf_read_ln(util_fbuf_t *buf, int fd) noexcept {
    if (!buf) return -1;
    return read_line(buf, [fd](uint8_t *p) noexcept { return ::read(fd, p, 1); });
}

int32_t util_fbuf_fread_ln(util_fbuf_t *buf, FILE *stream) noexcept {
    if (!buf || !stream) return -1;
    return read_line(buf, [stream](uint8_t *p) noexcept { return static_cast<ssize_t>(fread(p, 1, 1, stream)); });
}

uint32_t util_fbuf_write(util_fbuf_t *buf, int fd, uint32_t n) noexcept {
    if (!buf) return static_cast<uint32_t>(-1);
    const uint32_t k = n == 0 ? buf->used : std::min(n, buf->used);
    ssize_t r = ::write(fd, buf->data ? content(buf) : reinterpret_cast<const uint8_t *>(""), k);
    if (r < 1) return static_cast<uint32_t>(r);
    util_fbuf_remove(buf, static_cast<uint32_t>(r));
    return static_cast<uint32_t>(r);
}

uint32_t util_fbuf_extend(util_fbuf_t *buf, uint32_t n) noexcept { return buf ? extend(buf, n) : 0; }

uint32_t util_fbuf_shrink(util_fbuf_t *buf) noexcept {
    if (!buf) return 0;
    if (buf->offset != 0) compact(buf);
    const int64_t fast = fast_of(buf), slow = slow_of(buf), floor = buf->minlen, need = int64_t{buf->used} + 1;
    auto next = [&](int64_t s) { return s > fast ? s - slow : s / 2; };
    int64_t size = buf->used ? buf->len : 0;
    while (size > floor && next(size) >= need) size = next(size);
    if (size == buf->len) return buf->len;
    if (size == 0) {
        free(buf->data);
        buf->data = nullptr;
    } else {
        auto *p = static_cast<uint8_t *>(realloc(buf->data, static_cast<size_t>(size)));
        if (!p) return buf->len;
        buf->data = p;
    }
    buf->len = static_cast<uint32_t>(size);
    return buf->len;
}

}  // extern "C"

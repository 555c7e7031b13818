// Byte ring buffer: one heap block, head/tail indices that wrap at `size`.
#include "kerm_rbuf.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace {

// Copies that may be empty: a zero-length copy at `data + size` is legal here
// but memcpy's contract wants valid pointers, so skip it outright.
inline void copy_bytes(uint8_t *dst, const uint8_t *src, int32_t n) noexcept {
    if (n > 0) memcpy(dst, src, static_cast<size_t>(n));
}

// Where a move or copy of `m` bytes lands in `dst`: one piece at the tail when
// the contiguous room there is enough, else the room at the tail and the rest
// at the block start. `fetch(p, k)` supplies the next k source bytes.
template <class Fetch>
void place(util_rbuf_t *dst, int32_t m, Fetch fetch) noexcept {
    int32_t room = (dst->tail > dst->head ? dst->size : dst->head) - dst->tail;
    if (room >= m) {
        fetch(dst->data + dst->tail, m);
        dst->tail += m;
    } else {
        fetch(dst->data + dst->tail, room);
        fetch(dst->data, m - room);
        dst->tail = m - room;
    }
    // Deliberate: set, not increased; callers hand in an emptied destination.
    dst->used = m;
}

int32_t transfer_count(const util_rbuf_t *src, const util_rbuf_t *dst, uint32_t n) noexcept {
    uint32_t m = std::min(static_cast<uint32_t>(src->used), static_cast<uint32_t>(dst->size - dst->used));
    return static_cast<int32_t>(std::min(m, n));
}

}  // namespace

extern "C" {

util_rbuf_t *util_rbuf_create(int32_t size) noexcept {
    if (size < 0) return nullptr;
    if (size == 0) size = UTIL_RBUF_DEFAULT_SIZE;
    auto *ring = static_cast<util_rbuf_t *>(calloc(1, sizeof(util_rbuf_t)));
    if (!ring) return nullptr;
    // One zeroed byte past the capacity: the search looks at the byte at
    // `tail`, which may stand at `size`.
    ring->data = static_cast<uint8_t *>(calloc(static_cast<size_t>(size) + 1, 1));
    if (!ring->data) {
        free(ring);
        return nullptr;
    }
    ring->size = size;
    return ring;
}

void util_rbuf_destroy(util_rbuf_t *ring) noexcept {
    if (!ring) return;
    free(ring->data);
    free(ring);
}

uint32_t util_rbuf_size(const util_rbuf_t *ring) noexcept { return ring ? static_cast<uint32_t>(ring->size) : 0; }

uint32_t util_rbuf_available(const util_rbuf_t *ring) noexcept {
    return ring ? static_cast<uint32_t>(ring->size - ring->used) : 0;
}

uint32_t util_rbuf_used(const util_rbuf_t *ring) noexcept { return ring ? static_cast<uint32_t>(ring->used) : 0; }

void util_rbuf_clear(util_rbuf_t *ring) noexcept {
    if (!ring) return;
    ring->used = ring->head = ring->tail = 0;
}

uint32_t util_rbuf_mode(const util_rbuf_t *ring) noexcept { return ring ? ring->mode : 0; }

void util_rbuf_set_mode(util_rbuf_t *ring, uint32_t mode) noexcept {
    if (ring) ring->mode = mode;
}

uint32_t util_rbuf_write(util_rbuf_t *ring, const uint8_t *src, uint32_t n) noexcept {
    if (!ring || !src || n == 0) return 0;
    const uint32_t size = static_cast<uint32_t>(ring->size);
    uint32_t m = std::min(size - static_cast<uint32_t>(ring->used), n);
    if (m < n && ring->mode == UTIL_RBUF_MODE_OVERWRITE) {
        if (n > size) {
            // Deliberate: the whole count is reported although only the last
            // `size` bytes are kept; streaming writers count what they sent.
            ring->head = ring->tail = 0;
            memcpy(ring->data, src + (n - size), size);
            ring->used = ring->size;
            return n;
        }
        int32_t d = static_cast<int32_t>(n - m);
        ring->head += d;
        if (ring->head >= ring->size) ring->head -= ring->size;
        ring->used -= d;
        m = n;
    }
    const int32_t k = static_cast<int32_t>(m);
    const int32_t first = ring->size - ring->tail;
    if (k <= first) {
        copy_bytes(ring->data + ring->tail, src, k);
        ring->tail += k;
    } else {
        copy_bytes(ring->data + ring->tail, src, first);
        copy_bytes(ring->data, src + first, k - first);
        ring->tail = k - first;
    }
    ring->used += k;
    return m;
}

int32_t util_rbuf_read(util_rbuf_t *ring, uint8_t *dst, int32_t n) noexcept {
    if (!ring || !dst || n < 1) return 0;
    const int32_t m = std::min(ring->used, n);
    const int32_t first = ring->size - ring->head;
    if (m <= first) {
        copy_bytes(dst, ring->data + ring->head, m);
        ring->head += m;
    } else {
        copy_bytes(dst, ring->data + ring->head, first);
        copy_bytes(dst + first, ring->data, m - first);
        ring->head = m - first;
    }
    ring->used -= m;
    return m;
}

void util_rbuf_skip(util_rbuf_t *ring, int32_t n) noexcept {
    if (!ring || n < 0) return;
    if (n < ring->used) {
        ring->used -= n;
        if (n > ring->size - ring->head)
            ring->head = ring->head + n - ring->size;
        else
            ring->head += n;  // may reach `size`
    } else {
        ring->used = 0;
        ring->head = ring->tail;
    }
}

int32_t util_rbuf_find(const util_rbuf_t *ring, uint32_t byte) noexcept {
    if (!ring || ring->used == 0) return -1;
    const uint8_t *d = ring->data;
    // Deliberate: both stretches include the byte at `tail` (the block has a
    // guard byte, so `tail` = `size` is readable).
    if (ring->tail > ring->head) {
        for (int32_t p = ring->head; p <= ring->tail; ++p)
            if (d[p] == byte) return p - ring->head;
        return -1;
    }
    for (int32_t p = ring->head; p < ring->size; ++p)
        if (d[p] == byte) return p - ring->head;
    for (int32_t p = 0; p <= ring->tail; ++p)
        if (d[p] == byte) return ring->size - ring->head + p;
    return -1;
}

uint32_t util_rbuf_read_until(util_rbuf_t *ring, uint32_t delim, uint8_t *dst, int32_t max) noexcept {
    if (!ring || !dst) return 0;
    int32_t remaining = ring->used;
    int32_t i = 0;
    // Deliberate: this stretch runs to the end of the block without looking at
    // `remaining`; bytes past the data are copied and counted like stored ones.
    const uint8_t *p = ring->data + ring->head;
    for (; ring->head + i < ring->size && i < max; ++i) {
        dst[i] = p[i];
        --remaining;
        if (dst[i] == delim) {
            int32_t count = ring->used - remaining;
            util_rbuf_skip(ring, count);
            return static_cast<uint32_t>(count);
        }
    }
    for (int32_t j = 0; remaining > 0 && i < max; ++j) {
        dst[i] = ring->data[j];
        --remaining;
        if (dst[i++] == delim) break;
    }
    int32_t count = ring->used - remaining;
    util_rbuf_skip(ring, count);
    return static_cast<uint32_t>(count);
}

uint32_t util_rbuf_move(util_rbuf_t *src, util_rbuf_t *dst, int32_t n) noexcept {
    if (!src || !dst || src == dst || n < 1) return 0;
    const int32_t m = transfer_count(src, dst, static_cast<uint32_t>(n));
    place(dst, m, [src](uint8_t *to, int32_t k) noexcept { util_rbuf_read(src, to, k); });
    return static_cast<uint32_t>(m);
}

uint32_t util_rbuf_copy(const util_rbuf_t *src, util_rbuf_t *dst, uint32_t n) noexcept {
    if (!src || !dst || src == dst || n == 0) return 0;
    const int32_t m = transfer_count(src, dst, n);
    // The source is read through a private cursor: first the stretch from its
    // head to the end of its block, then from its block start.
    int32_t at = src->head;
    place(dst, m, [src, &at](uint8_t *to, int32_t k) noexcept {
        const int32_t first = std::min(k, src->size - at);
        copy_bytes(to, src->data + at, first);
        at += first;
        if (k > first) {
            copy_bytes(to + first, src->data, k - first);
            at = k - first;
        }
    });
    return static_cast<uint32_t>(m);
}

}  // extern "C"

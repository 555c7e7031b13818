// Reference models of the byte ring and the flexible buffer, shared by the
// model-based tests and the fuzz targets. Each harness applies one decoded
// operation to the real buffer and to its model and compares them; the first
// difference is kept in `fail`.
//
// The ring model is a deque (what a FIFO must hold) plus the position rules
// worked byte by byte on a shadow block (where the bytes must land, which
// stale bytes the search and read-until see). The flexible-buffer model is a
// std::string plus the len/offset arithmetic of growth, compaction and shrink.
#ifndef KERM_TEST_BYTEBUF_MODEL_H
#define KERM_TEST_BYTEBUF_MODEL_H

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "kerm_fbuf.h"
#include "kerm_rbuf.h"

#if defined(__SANITIZE_ADDRESS__)
#define KERM_TEST_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KERM_TEST_LSAN 1
#endif
#endif
#ifdef KERM_TEST_LSAN
#include <sanitizer/lsan_interface.h>
#endif

namespace kerm_test {

// The one leak the flexible buffer keeps on purpose: growing a buffer whose
// content starts at an offset does not release the old block. Tests that
// reach it hand the old block here so the leak checker accepts exactly that.
inline void accept_deliberate_leak(const void *block) {
#ifdef KERM_TEST_LSAN
    __lsan_ignore_object(block);
#else
    (void)block;
#endif
}

// Operation source: random numbers for the tests, fuzz input for the fuzzers.
template <class Next>
struct Source {
    Next next;  // returns the next byte (0..255)
    uint32_t u8() { return next() & 0xFF; }
    uint32_t u16() { return u8() | (u8() << 8); }
    uint32_t below(uint32_t n) { return n ? u16() % n : 0; }
};
template <class Next>
Source<Next> make_source(Next n) {
    return Source<Next>{n};
}

// ---------------------------------------------------------------- ring ----

struct RingModel {
    int32_t size;
    std::vector<uint8_t> block;  // size + 1: the guard byte the search may look at
    int32_t head = 0, tail = 0, used = 0;
    uint32_t mode = 0;
    std::deque<uint8_t> fifo;

    explicit RingModel(int32_t cap) : size(cap), block(static_cast<size_t>(cap) + 1, 0) {}

    int32_t wrap(int32_t p) const { return p >= size ? p - size : p; }
    void put(uint8_t v) {  // one byte at the tail, which may stand at `size`
        tail = wrap(tail);
        block[static_cast<size_t>(tail++)] = v;
    }
    void clear() { head = tail = used = 0, fifo.clear(); }

    uint32_t write(const uint8_t *src, uint32_t n) {
        if (n == 0) return 0;
        uint32_t m = std::min<uint32_t>(static_cast<uint32_t>(size - used), n);
        if (m < n && mode == 1) {
            if (n > static_cast<uint32_t>(size)) {
                fifo.assign(src + (n - size), src + n);
                for (int32_t i = 0; i < size; ++i) block[static_cast<size_t>(i)] = fifo[static_cast<size_t>(i)];
                head = tail = 0, used = size;
                return n;
            }
            int32_t d = static_cast<int32_t>(n - m);
            head = wrap(head + d), used -= d;
            fifo.erase(fifo.begin(), fifo.begin() + d);
            m = n;
        }
        if (m == 0) return 0;
        for (uint32_t i = 0; i < m; ++i) put(src[i]), fifo.push_back(src[i]);
        used += static_cast<int32_t>(m);
        return m;
    }
    // Bytes the rules take from the head (consuming), as read does.
    std::vector<uint8_t> take(int32_t m) {
        std::vector<uint8_t> out;
        for (int32_t i = 0; i < m; ++i) {
            head = wrap(head);
            out.push_back(block[static_cast<size_t>(head++)]);
        }
        used -= m;
        fifo.erase(fifo.begin(), fifo.begin() + m);
        return out;
    }
    void skip(int32_t n) {
        if (n < 0) return;
        if (n < used) {
            for (int32_t i = 0; i < n; ++i) head = wrap(head) + 1;
            used -= n;
            fifo.erase(fifo.begin(), fifo.begin() + n);
        } else {
            used = 0, head = tail;
            fifo.clear();
        }
    }
    // What the search must report, from the FIFO content and the stale byte at
    // the tail (one past the data).
    int32_t find(uint32_t v) const {
        if (used == 0) return -1;
        auto it = std::find_if(fifo.begin(), fifo.end(), [v](uint8_t b) { return b == v; });
        if (it != fifo.end()) return static_cast<int32_t>(it - fifo.begin());
        return block[static_cast<size_t>(tail)] == v ? used : -1;
    }
    // Read-until by the rules; `out` receives the copied bytes.
    uint32_t read_until(uint32_t delim, int32_t max, std::vector<uint8_t> &out) {
        out.clear();
        int32_t i = 0;
        bool hit = false;
        for (; head + i < size && i < max && !hit; ++i) {
            out.push_back(block[static_cast<size_t>(head + i)]);
            hit = out.back() == delim;
        }
        for (int32_t j = 0; !hit && i < max && static_cast<int32_t>(out.size()) < used; ++j, ++i) {
            out.push_back(block[static_cast<size_t>(j)]);
            hit = out.back() == delim;
        }
        int32_t count = static_cast<int32_t>(out.size());
        skip(count);
        return static_cast<uint32_t>(count);
    }
    // Destination side of move/copy into an emptied (cleared) ring.
    void receive(const std::vector<uint8_t> &bytes) {
        clear();
        for (uint8_t v : bytes) put(v), fifo.push_back(v);
        used = static_cast<int32_t>(bytes.size());
    }
};

// The first difference of a harness run, with its step number.
struct Harness {
    std::string fail;
    unsigned steps = 0;
    Harness() = default;
    Harness(const Harness &) = delete;
    Harness &operator=(const Harness &) = delete;
    void expect(bool ok, const char *what) {
        if (!ok && fail.empty()) fail = std::string("step ") + std::to_string(steps) + ": " + what;
    }
};

struct RingHarness : Harness {
    util_rbuf_t *ring[2];
    std::vector<RingModel> model;

    RingHarness(int32_t cap_a, int32_t cap_b)
        : ring{util_rbuf_create(cap_a), util_rbuf_create(cap_b)}, model{RingModel(cap_a), RingModel(cap_b)} {}
    ~RingHarness() {
        util_rbuf_destroy(ring[0]);
        util_rbuf_destroy(ring[1]);
    }
    void compare(int k) {
        const util_rbuf_t *r = ring[k];
        const RingModel &m = model[static_cast<size_t>(k)];
        expect(r->head == m.head && r->tail == m.tail && r->used == m.used, "positions differ");
        expect(util_rbuf_used(r) == static_cast<uint32_t>(m.used), "used accessor");
        expect(util_rbuf_available(r) == static_cast<uint32_t>(m.size - m.used), "available");
        expect(memcmp(r->data, m.block.data(), m.block.size()) == 0, "block bytes differ");
        expect(static_cast<size_t>(m.used) == m.fifo.size(), "model count");
        // The stored bytes, walked from the head, are the FIFO content.
        for (int32_t i = 0, p = r->head; i < r->used && fail.empty(); ++i, ++p) {
            if (p >= r->size) p -= r->size;
            expect(r->data[p] == m.fifo[static_cast<size_t>(i)], "stored bytes are not the FIFO content");
        }
    }

    template <class S>
    void step(S &s) {
        ++steps;
        const int k = static_cast<int>(s.u8() & 1);
        util_rbuf_t *r = ring[k];
        RingModel &m = model[static_cast<size_t>(k)];
        const int32_t cap = m.size;
        uint8_t bytes[64];
        switch (s.below(9)) {
            case 0: {  // write, sometimes larger than the ring
                uint32_t n = s.below(static_cast<uint32_t>(std::min(cap * 2 + 2, 64)));
                for (uint32_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(s.below(6));
                uint32_t want = m.write(bytes, n);
                expect(util_rbuf_write(r, bytes, n) == want, "write result");
                break;
            }
            case 1: {  // read
                int32_t n = static_cast<int32_t>(s.below(static_cast<uint32_t>(cap + 3))) - 1;
                uint8_t out[64];
                int32_t got = util_rbuf_read(r, out, std::min(n, 64));
                int32_t want = n < 1 ? 0 : std::min({m.used, n, 64});
                expect(got == want, "read result");
                std::deque<uint8_t> front(m.fifo.begin(), m.fifo.begin() + std::max(want, 0));
                std::vector<uint8_t> ruled = m.take(std::max(want, 0));
                expect(std::equal(front.begin(), front.end(), out) && std::equal(ruled.begin(), ruled.end(), out),
                       "read bytes");
                break;
            }
            case 2: {
                int32_t n = static_cast<int32_t>(s.below(static_cast<uint32_t>(cap + 3))) - 1;
                util_rbuf_skip(r, n);
                m.skip(n);
                break;
            }
            case 3: {
                uint32_t v = s.below(8) == 0 ? 0x100u + s.below(6) : s.below(6);
                expect(util_rbuf_find(r, v) == m.find(v), "find result");
                break;
            }
            case 4: {  // read until a delimiter
                uint32_t delim = s.below(6);
                int32_t max = static_cast<int32_t>(s.below(static_cast<uint32_t>(std::min(cap + 2, 64))));
                uint8_t out[64];
                std::vector<uint8_t> want;
                std::deque<uint8_t> front = m.fifo;
                uint32_t want_n = m.read_until(delim, max, want);
                uint32_t got = util_rbuf_read_until(r, delim, out, max);
                expect(got == want_n && std::equal(want.begin(), want.end(), out), "read_until result");
                // Up to the stored count the copy is the FIFO front.
                size_t stored = std::min<size_t>(got, front.size());
                expect(std::equal(front.begin(), front.begin() + static_cast<long>(stored), out), "read_until bytes");
                break;
            }
            case 5:
            case 6: {  // move or copy into the other ring, cleared first
                int o = 1 - k;
                util_rbuf_clear(ring[o]);
                model[static_cast<size_t>(o)].clear();
                RingModel &d = model[static_cast<size_t>(o)];
                uint32_t n = s.below(static_cast<uint32_t>(cap + 2));
                int32_t want = std::min({m.used, d.size, static_cast<int32_t>(n)});
                bool move = (s.u8() & 1) != 0;
                uint32_t got = move ? util_rbuf_move(r, ring[o], static_cast<int32_t>(n)) : util_rbuf_copy(r, ring[o], n);
                expect(got == static_cast<uint32_t>(want), "move/copy result");
                std::vector<uint8_t> moved(m.fifo.begin(), m.fifo.begin() + want);
                if (move) m.take(want);
                d.receive(moved);
                compare(o);
                break;
            }
            case 7:
                util_rbuf_clear(r);
                m.clear();
                break;
            default: {
                uint32_t mode = s.below(3);
                util_rbuf_set_mode(r, mode);
                m.mode = mode;
                expect(util_rbuf_mode(r) == mode, "mode");
                break;
            }
        }
        compare(k);
    }
};

// --------------------------------------------------------- flexible -------

struct FbufModel {
    std::string text;  // the content
    uint32_t len = 0, offset = 0, maxlen = 0;
    uint32_t minlen = 128, fast = 16384, slow = 1024;
    bool leaked = false;  // an extension took the offset path (the block was kept)

    uint32_t used() const { return static_cast<uint32_t>(text.size()); }
    void compact() { offset = 0; }
    // Growth and compaction arithmetic; returns the block size or 0.
    uint32_t extend(uint64_t n) {
        uint64_t need = n + 1;
        if (need <= len - offset) return len;
        if (offset != 0 && need <= len) return compact(), len;
        if ((maxlen != 0 && need > uint64_t{maxlen} + 1) || need > UINT32_MAX) return 0;
        uint64_t l = len;
        while (l < need) l = l == 0 ? (minlen ? minlen : 128) : l < (fast ? fast : 16384) ? (fast ? fast : 16384) : l + (slow ? slow : 1024);
        if (maxlen != 0 && l > maxlen) l = uint64_t{maxlen} + 1;
        leaked = leaked || offset != 0;  // cleared by the harness once handled
        offset = 0;
        len = static_cast<uint32_t>(l);
        return len;
    }
    uint32_t shrink() {
        offset = 0;
        int64_t f = fast ? fast : 16384, sl = slow ? slow : 1024, need = int64_t{used()} + 1;
        auto next = [&](int64_t s) { return s > f ? s - sl : s / 2; };
        int64_t size = text.empty() ? 0 : len;
        while (size > minlen && next(size) >= need) size = next(size);
        len = static_cast<uint32_t>(size);
        return len;
    }
    void remove(uint32_t n) {
        if (n >= used()) {
            text.clear(), offset = 0;
        } else if (n) {
            text.erase(0, n), offset += n;
            if (offset >= len / 2) offset = 0;
        }
    }
};

struct FbufHarness : Harness {
    util_fbuf_t *buf[2];
    FbufModel model[2];
    unsigned leaks = 0;  // times the deliberate leak path was taken

    // Settings for both buffers: tiny values make growth, compaction and
    // shrinking happen on nearly every step.
    FbufHarness(uint32_t minlen, uint32_t fast, uint32_t slow, uint32_t maxlen) {
        for (int k = 0; k < 2; ++k) {
            buf[k] = util_fbuf_create(maxlen);
            util_fbuf_minlen(buf[k], minlen);
            util_fbuf_fastgrowsize(buf[k], fast);
            util_fbuf_slowgrowsize(buf[k], slow);
            // Zero arguments leave the defaults: take what the record holds.
            model[k].maxlen = maxlen, model[k].minlen = buf[k]->minlen;
            model[k].fast = buf[k]->fastgrowsize, model[k].slow = buf[k]->slowgrowsize;
        }
    }
    ~FbufHarness() {
        util_fbuf_free(buf[0]);
        util_fbuf_free(buf[1]);
    }
    void compare(int k) {
        const util_fbuf_t *b = buf[k];
        const FbufModel &m = model[k];
        expect(b->len == m.len && b->offset == m.offset && b->used == m.used(), "len/offset/used differ");
        expect(b->maxlen == m.maxlen && b->minlen == m.minlen, "settings differ");
        expect((b->data == nullptr) == (b->len == 0), "block presence");
        if (b->data) {
            expect(b->offset + b->used < b->len, "content and terminator outside the block");
            expect(memcmp(util_fbuf_data(b), m.text.data(), m.text.size()) == 0, "content differs");
            expect(*util_fbuf_end(b) == 0, "terminator missing");
        }
    }
    // Runs `op` on buffer k; when the model says the old block was kept on
    // purpose, the leak checker is told about that block.
    template <class Op>
    void growing(int k, Op op) {
        uint8_t *before = buf[k]->data;
        op();
        if (model[k].leaked) {
            expect(before != nullptr && buf[k]->data != before, "offset growth kept the block");
            accept_deliberate_leak(before);
            model[k].leaked = false;
            ++leaks;
        }
    }

    template <class S>
    void step(S &s) {
        ++steps;
        const int k = static_cast<int>(s.u8() & 1);
        util_fbuf_t *b = buf[k];
        FbufModel &m = model[k];
        char text[80];
        auto fill = [&](uint32_t n) {
            for (uint32_t i = 0; i < n; ++i) text[i] = " \tab\nxyz\r"[s.below(9)];
            text[n] = 0;
        };
        switch (s.below(16)) {
            case 0: {  // add_binary, bad counts included
                int32_t n = static_cast<int32_t>(s.below(40)) - 1;
                fill(static_cast<uint32_t>(std::max(n, 0)));
                int32_t want = -1;
                growing(k, [&] {
                    if (n >= 1 && m.extend(m.used() + uint64_t(n)) != 0) m.text.append(text, static_cast<size_t>(n)), want = n;
                    expect(util_fbuf_add_binary(b, reinterpret_cast<uint8_t *>(text), n) == want, "add_binary result");
                });
                break;
            }
            case 1: {  // add_ln
                uint32_t n = s.below(20);
                fill(n);
                growing(k, [&] {
                    int32_t want = -1;
                    std::string line = std::string(text, n) + "\n";
                    if (n == 0 || m.extend(m.used() + uint64_t{n}) != 0) {
                        if (n) m.text.append(text, n);
                        if (m.extend(m.used() + 1u) != 0) m.text += '\n', want = static_cast<int32_t>(n + 1);
                    }
                    expect(util_fbuf_add_ln(b, text) == want, "add_ln result");
                });
                break;
            }
            case 2: {  // prepend
                int32_t n = static_cast<int32_t>(s.below(20));
                fill(static_cast<uint32_t>(n));
                growing(k, [&] {
                    int32_t want = 0;
                    if (n >= 1) {
                        if (m.offset >= static_cast<uint32_t>(n))
                            m.offset -= static_cast<uint32_t>(n), want = n;
                        else
                            want = m.extend(m.used() + uint64_t(n)) ? n : -1;
                        if (want > 0) m.text.insert(0, text, static_cast<size_t>(n));
                    }
                    expect(util_fbuf_prepend_binary(b, reinterpret_cast<uint8_t *>(text), n) == want, "prepend result");
                });
                break;
            }
            case 3: {  // remove
                uint32_t n = s.below(m.used() + 3);
                m.remove(n);
                expect(util_fbuf_remove(b, n) == m.used(), "remove result");
                break;
            }
            case 4: {  // printf, sometimes past the first 128 bytes of room
                uint32_t reps = s.below(8) == 0 ? 30 + s.below(40) : s.below(4);
                std::string want = "<" + std::to_string(reps) + ">" + std::string(reps * 5, '#');
                growing(k, [&] {
                    int32_t r = -1;
                    if (m.extend(m.used() + 128u) != 0) {
                        if (want.size() >= m.len - m.offset - m.used() && m.extend(m.used() + want.size()) == 0) {
                            r = -1;
                        } else {
                            m.text += want;
                            r = static_cast<int32_t>(want.size());
                        }
                    }
                    expect(util_fbuf_printf(b, "<%u>%s", reps, std::string(reps * 5, '#').c_str()) == r, "printf result");
                });
                break;
            }
            case 5: {  // nprintf with a bounding n
                uint32_t v = s.u16();
                std::string want = "v=" + std::to_string(v);
                uint32_t n = static_cast<uint32_t>(want.size()) + s.below(4);
                growing(k, [&] {
                    int32_t r = -1;
                    if (m.extend(m.used() + uint64_t{n}) != 0) m.text += want, r = static_cast<int32_t>(want.size());
                    expect(util_fbuf_nprintf(b, n, "v=%u", v) == r, "nprintf result");
                });
                break;
            }
            case 6: {  // trim / rtrim / set_used
                uint32_t which = s.below(3);
                if (which == 0) {
                    size_t lead = m.text.find_first_not_of(" \t\n\r");
                    uint32_t want = lead == std::string::npos ? m.used() : static_cast<uint32_t>(lead);
                    m.remove(want);
                    expect(util_fbuf_trim(b) == want, "trim result");
                } else if (which == 1) {
                    size_t last = m.text.find_last_not_of(" \t\n\r");
                    size_t keep = last == std::string::npos ? 0 : last + 1;
                    int32_t want = b->data ? static_cast<int32_t>(m.text.size() - keep) : 0;
                    m.text.resize(keep);
                    expect(util_fbuf_rtrim(b) == want, "rtrim result");
                } else {
                    uint32_t n = s.below(m.used() + 2);
                    if (n < m.used()) m.text.resize(n);
                    expect(util_fbuf_set_used(b, n) == m.used(), "set_used result");
                }
                break;
            }
            case 7: {  // set
                uint32_t n = s.below(30);
                fill(n);
                growing(k, [&] {
                    int32_t want = -1;
                    if (m.extend(n) != 0) m.text.assign(text, n), want = static_cast<int32_t>(n);
                    expect(util_fbuf_set(b, text) == want, "set result");
                });
                break;
            }
            case 8:
                m.shrink();
                expect(util_fbuf_shrink(b) == m.len, "shrink result");
                break;
            case 9: {
                uint32_t n = s.below(60);
                growing(k, [&] { expect(util_fbuf_extend(b, n) == m.extend(n), "extend result"); });
                break;
            }
            case 10: {  // concat (possibly onto itself) or copy from the other buffer
                int o = static_cast<int>(s.u8() & 1);
                if (m.used() + model[o].used() > 4096) break;  // self-concat doubles: keep sizes small
                if (s.u8() & 1) {
                    std::string add = model[o].text;
                    growing(k, [&] {
                        int32_t want = 0;
                        if (!add.empty()) {
                            want = -1;
                            if (m.extend(m.used() + add.size() + 1) != 0) {
                                m.text += add;
                                m.text += '\0';
                                want = static_cast<int32_t>(add.size() + 1);
                            }
                        }
                        expect(util_fbuf_concat(b, buf[o]) == want, "concat result");
                    });
                } else if (o != k) {
                    growing(k, [&] {
                        int32_t want = -1;
                        if (m.extend(model[o].used()) != 0) m.text = model[o].text, m.offset = 0, want = static_cast<int32_t>(m.used());
                        expect(util_fbuf_copy(buf[o], b) == want, "copy result");
                    });
                }
                break;
            }
            case 11: {  // settings
                uint32_t which = s.below(3);
                if (which == 0) {
                    uint32_t v = s.below(12);
                    uint32_t prev = m.minlen;
                    if (v) {
                        m.minlen = v;
                        if (m.used() < v && v < m.len) m.offset = 0, m.len = v;
                    }
                    expect(util_fbuf_minlen(b, v) == prev, "minlen result");
                } else if (which == 1) {
                    static const uint32_t bounds[] = {0, 1, 2, 3, 8, 40, 200, UTIL_FBUF_MAXLEN_QUERY};
                    uint32_t v = bounds[s.below(8)];
                    uint32_t prev = m.maxlen;
                    if (v != UTIL_FBUF_MAXLEN_QUERY) {
                        m.maxlen = v;
                        if (m.len > v) {
                            m.shrink();
                            m.len = v + 1;
                            if (m.used() > v) m.text.resize(v);
                        }
                    }
                    expect(util_fbuf_maxlen(b, v) == prev, "maxlen result");
                } else {
                    uint32_t v = s.below(6);
                    uint32_t prev = m.slow;
                    if (v) m.slow = v;
                    expect(util_fbuf_slowgrowsize(b, v) == prev, "slowgrowsize result");
                }
                break;
            }
            case 12:
                if (s.u8() & 1) {
                    util_fbuf_clear(b);
                    m.text.clear(), m.offset = 0;
                } else {
                    util_fbuf_destroy(b);
                    m.text.clear(), m.offset = 0, m.len = 0;
                }
                break;
            case 13: {  // detach and attach back
                uint8_t *block = nullptr;
                uint32_t len = 0;
                uint32_t want = m.used();
                if (want && m.offset) m.shrink();
                uint32_t mlen = m.len;
                uint32_t got = util_fbuf_detach(b, &block, &len);
                expect(got == want, "detach result");
                if (got) {
                    expect(len == mlen && block != nullptr && memcmp(block, m.text.data(), got) == 0, "detached block");
                    expect(b->data == nullptr && b->used == 0 && b->len == 0, "detach leaves an empty record");
                    expect(util_fbuf_attach(b, block, static_cast<int32_t>(len), static_cast<int32_t>(got)) == 0,
                           "attach result");
                    m.len = mlen, m.offset = 0;
                }
                break;
            }
            case 14: {  // duplicate
                util_fbuf_t *d = util_fbuf_duplicate(b);
                expect(d != nullptr && d->used == m.used() && d->maxlen == m.maxlen, "duplicate");
                if (d && d->used) expect(memcmp(util_fbuf_data(d), m.text.data(), d->used) == 0, "duplicate content");
                util_fbuf_free(d);
                break;
            }
            default: {  // swap or move between the two buffers
                if (s.u8() & 1) {
                    uint32_t ida = buf[0]->id, idb = buf[1]->id;
                    util_fbuf_swap(buf[0], buf[1]);
                    std::swap(model[0], model[1]);
                    expect(buf[0]->id == idb && buf[1]->id == ida, "swap ids");
                } else {
                    int o = 1 - k;
                    uint32_t id = b->id;
                    expect(util_fbuf_move(b, buf[o]) == 0, "move result");
                    expect(buf[o]->id == id && b->id != id, "move ids");
                    model[o] = m;
                    m = FbufModel{};
                    m.minlen = m.fast = m.slow = 0;
                    expect(b->data == nullptr && b->minlen == 0 && b->maxlen == 0, "moved-from record");
                    compare(o);
                }
                compare(1 - k);
                break;
            }
        }
        compare(k);
    }
};

}  // namespace kerm_test

#endif

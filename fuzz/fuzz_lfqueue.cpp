// Drives a ring queue and a double-ended queue from the input bytes, one
// thread, against std::deque references: every result, count and emptiness
// answer is checked, and so is what reaches the free-value callbacks (an
// overwritten ring value exactly once, with the value that replaced it; at
// destroy, exactly the values still held).
// First byte: ring size (bits 0-2) and mode (bit 3). Then one byte per
// operation: bit 7 picks the queue, bits 0-2 the operation; some operations
// take the next byte as an argument.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <vector>

#include "containers/rqueue_internal.h"
#include "kerm_queue.h"
#include "kerm_rqueue.h"

namespace {

[[noreturn]] void fail(const char *what, unsigned long long got, unsigned long long want) {
    fprintf(stderr, "lfqueue model mismatch: %s: got %llu, want %llu\n", what, got, want);
    abort();
}
void expect(const char *what, unsigned long long got, unsigned long long want) {
    if (got != want) fail(what, got, want);
}

void *val(uintptr_t n) { return reinterpret_cast<void *>(n); }
uintptr_t num(void *p) { return reinterpret_cast<uintptr_t>(p); }

// What the callbacks saw; the callbacks carry no user argument.
std::vector<uintptr_t> g_ring_dropped;  // overwritten, not yet handed over
std::vector<uintptr_t> g_ring_freed;    // handed over at destroy
uintptr_t g_ring_writing;               // the value a write is storing
std::vector<uintptr_t> g_deque_freed;

void take(std::vector<uintptr_t> &from, uintptr_t v, const char *what) {
    auto it = std::find(from.begin(), from.end(), v);
    if (it == from.end()) fail(what, v, 0);
    from.erase(it);
}

void ring_freed(void *value, void *new_value) {
    if (new_value) {
        expect("ring callback's new value", num(new_value), g_ring_writing);
        take(g_ring_dropped, num(value), "ring callback on a value not dropped");
    } else {
        g_ring_freed.push_back(num(value));
    }
}

void deque_freed(void *value) { g_deque_freed.push_back(num(value)); }

std::vector<uintptr_t> sorted(std::vector<uintptr_t> v) {
    std::sort(v.begin(), v.end());
    return v;
}

void expect_same(const char *what, const std::vector<uintptr_t> &got, const std::vector<uintptr_t> &want) {
    if (sorted(got) != sorted(want)) fail(what, got.size(), want.size());
}

struct Ring {
    uint32_t capacity;
    bool overwrite;
    util_rqueue_t *q;
    std::deque<uintptr_t> model;
    uint64_t writes = 0, reads = 0;

    Ring(uint32_t cap, bool ow)
        : capacity(cap), overwrite(ow),
          q(util_rqueue_create(cap, ow ? UTIL_RQUEUE_MODE_OVERWRITE : UTIL_RQUEUE_MODE_BLOCKING)) {
        if (!q) abort();
        util_rqueue_set_free_value_callback(q, ring_freed);
        g_ring_dropped.clear();
        g_ring_freed.clear();
    }

    void write(uintptr_t v) {
        // Refused: a full ring in blocking mode, and a ring of size 0 (no page
        // to write to) in either mode.
        const bool refused = model.size() >= capacity && (!overwrite || capacity == 0);
        g_ring_writing = v;
        // A refused write spends its whole budget yielding: the public call
        // only where it will succeed, one attempt where it must fail.
        int32_t rc = refused ? kerm::rqueue_write_budget(q, val(v), 1) : util_rqueue_write(q, val(v));
        g_ring_writing = 0;
        if (refused) return expect("write into a full ring refused", rc == -2, 1);
        expect("ring write", rc, 0);
        ++writes;
        model.push_back(v);
        if (model.size() > capacity) {
            g_ring_dropped.push_back(model.front());
            model.pop_front();
        }
    }

    void read() {
        void *got = model.empty() ? kerm::rqueue_read_budget(q, 1) : util_rqueue_read(q);
        expect("ring read", num(got), model.empty() ? 0 : model.front());
        if (model.empty()) return;
        model.pop_front();
        ++reads;
    }

    void check() {
        expect("ring isempty", util_rqueue_isempty(q), model.empty());
        expect("ring write count", util_rqueue_write_count(q), writes);
        expect("ring read count", util_rqueue_read_count(q), reads);
        expect("ring size", util_rqueue_size(q), std::max(capacity, 3u));
    }

    void stats() {
        char *text = util_rqueue_stats(q);
        if (!text) abort();
        if (!strstr(text, overwrite ? "mode:        overwrite" : "mode:        blocking")) fail("ring stats mode", 0, 1);
        free(text);
    }

    void destroy() {
        util_rqueue_destroy(q);
        std::vector<uintptr_t> held(model.begin(), model.end());
        held.insert(held.end(), g_ring_dropped.begin(), g_ring_dropped.end());
        expect_same("ring values handed over at destroy", g_ring_freed, held);
    }
};

struct Deque {
    util_queue_t *q = util_queue_create();
    std::deque<uintptr_t> model;
    uint32_t pool_size = 0;

    Deque() {
        if (!q) abort();
        util_queue_set_free_value_callback(q, deque_freed);
        g_deque_freed.clear();
    }

    void push(uintptr_t v, bool left) {
        expect("deque push", left ? util_queue_push_left(q, val(v)) : util_queue_push_right(q, val(v)), 0);
        if (left) model.push_front(v);
        else model.push_back(v);
    }

    void pop(bool left) {
        uintptr_t got = num(left ? util_queue_pop_left(q) : util_queue_pop_right(q));
        uintptr_t want = model.empty() ? 0 : left ? model.front() : model.back();
        expect(left ? "deque pop left" : "deque pop right", got, want);
        if (model.empty()) return;
        if (left) model.pop_front();
        else model.pop_back();
    }

    // Clear pops from the left until a pop yields 0: an empty queue or a
    // stored 0, which goes too.
    void clear() {
        std::vector<uintptr_t> gone;
        while (!model.empty()) {
            uintptr_t v = model.front();
            model.pop_front();
            if (!v) break;
            gone.push_back(v);
        }
        g_deque_freed.clear();
        util_queue_clear(q);
        expect_same("deque values freed by clear", g_deque_freed, gone);
    }

    void set_pool(uint32_t size) {
        expect("deque pool size", util_queue_set_bpool_size(q, size), pool_size);
        pool_size = size;
    }

    // An entry taken from the pool (or made) and handed back unused.
    void cycle_entry() {
        util_queue_entry_t *e = deutil_queue_reusable_entry(q);
        if (!e) abort();
        util_queue_reusable_entry(e);
    }

    void check() { expect("deque count", util_queue_count(q), model.size()); }

    void destroy() {
        std::vector<uintptr_t> held;
        for (uintptr_t v : model)
            if (v) held.push_back(v);
        g_deque_freed.clear();
        util_queue_destroy(q);
        expect_same("deque values freed at destroy", g_deque_freed, held);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const uint32_t sizes[] = {0, 1, 2, 3, 4, 5, 8, 64};
    if (size < 1) return 0;
    Ring ring(sizes[data[0] & 7], (data[0] >> 3) & 1);
    Deque deque;
    uintptr_t next = 1;
    for (size_t pos = 1; pos < size; ++pos) {
        const uint8_t op = data[pos];
        const uint8_t arg = pos + 1 < size ? data[pos + 1] : 0;
        if (op & 0x80) {
            switch (op & 7) {
            case 0: case 1: case 2: ring.write(next++); break;
            case 3: case 4: case 5: ring.read(); break;
            case 6: ring.stats(); break;
            default:
                expect("ring mode", util_rqueue_mode(ring.q), ring.overwrite);
                break;
            }
            ring.check();
        } else {
            switch (op & 7) {
            case 0: deque.push(next++, true); break;
            case 1: deque.push(next++, false); break;
            case 2: deque.pop(true); break;
            case 3: deque.pop(false); break;
            case 4: deque.push(0, op & 8); break;  // a stored 0
            case 5: deque.clear(); break;
            case 6: deque.set_pool(arg); ++pos; break;
            default: deque.cycle_entry(); break;
            }
            deque.check();
        }
    }
    ring.destroy();
    deque.destroy();
    return 0;
}

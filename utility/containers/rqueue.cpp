// Ring queue: a fixed ring of pages plus one spare page that a read swaps in
// place of the head page, so a value never moves and nothing is allocated
// after creation.
//
// A page's next pointer with bit 0 set says "the page after me is the head":
// writers claim pages up to that mark, the reader takes pages up to commit
// (the page last written). Writers share a spin flag, readers another; an
// overwriting writer also takes the read flag while it moves the head.
//
// All pages (ring and spare) come from one allocation: creation either fully
// succeeds or leaves nothing behind, and destruction frees one block. The
// ring is closed in both directions, so the first read can splice the spare
// page in behind the first page; the spare page itself starts with no prev.
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <new>
#include <numeric>

#include "containers/rqueue_internal.h"
#include "kerm_rqueue.h"

namespace {

constexpr uint32_t kAttempts = 1000;
constexpr uint32_t kMinSize = 3;
constexpr unsigned kSpins = 16;       // on a busy flag, before yielding
constexpr unsigned kEmptyYield = 64;  // on an empty queue, one yield per this many looks
constexpr unsigned kFullPause = 256;  // on a full ring, spin-wait hints past the yield...
constexpr unsigned kFullWaits = 8;     // ...on the first this many waits of a write
constexpr uintptr_t kMark = 1;  // on next: the following page is the head
constexpr uintptr_t kBit1 = 2;  // never set here; cleared whenever a pointer is followed

struct Page {
    std::atomic<uintptr_t> value{0};  // 0: empty page
    std::atomic<uintptr_t> next{0};   // page address, bit 0 = mark
    std::atomic<uintptr_t> prev{0};   // page address
};

uintptr_t word(const Page *p) { return reinterpret_cast<uintptr_t>(p); }
Page *page_at(uintptr_t w) { return reinterpret_cast<Page *>(w & ~(kMark | kBit1)); }

}  // namespace

// Fields sit on four cache lines by who writes and who reads them: a
// writer's flag and a reader's flag are touched only by their own side, so
// taking one does not steal the line the other side is reading; tail,
// commit and writes (written by writers, read by readers to see what is
// published) and head and reader (the other way round) each have their own.
struct util_rqueue {
    std::atomic<util_rqueue_free_value_callback_t> free_value{nullptr};
    uint32_t size = 0;   // recorded size, at least 3
    uint32_t pages = 0;  // ring pages: requested size + 1
    std::atomic<int32_t> mode{UTIL_RQUEUE_MODE_BLOCKING};
    Page *block = nullptr;  // ring pages, then the spare page

    // Writers only; writers changes only under the write flag.
    alignas(kerm::kCacheLine) std::atomic<uint32_t> write_flag{0};
    std::atomic<uint32_t> writers{0};

    // Written by writers (writes only under the write flag).
    alignas(kerm::kCacheLine) std::atomic<Page *> tail{nullptr};  // next page a writer claims
    std::atomic<Page *> commit{nullptr};                           // page last written and published
    std::atomic<uint64_t> writes{0};

    // Readers only (and an overwriting writer); reads changes only under the read flag.
    alignas(kerm::kCacheLine) std::atomic<uint32_t> read_flag{0};
    std::atomic<uint64_t> reads{0};

    // Written by the reader.
    alignas(kerm::kCacheLine) std::atomic<Page *> head{nullptr};  // oldest unread value
    std::atomic<Page *> reader{nullptr};                           // spare page outside the ring
};

static_assert(std::atomic<uint64_t>::is_always_lock_free, "64-bit counters must be lock-free atomics");

namespace {

// Test before test-and-set: a busy flag is only read, so waiting threads
// do not pull its cache line away from the holder.
bool try_flag(std::atomic<uint32_t> &flag) {
    uint32_t expected = 0;
    return flag.load(std::memory_order_relaxed) == 0 &&
           flag.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed);
}

void drop_flag(std::atomic<uint32_t> &flag) { flag.store(0, std::memory_order_release); }

// Between attempts: spin briefly, then yield, so that a flag holder that
// lost its processor can run (two cores are often shared by more threads
// than that). Waiting for a writer to fill an empty queue yields only now
// and then: a read of an empty queue stays short, yet gives writers a turn.
void wait_turn(unsigned attempt, bool flag_busy = true) {
    if (flag_busy ? attempt < kSpins : attempt % kEmptyYield != kEmptyYield - 1) kerm::cpu_relax();
    else sched_yield();
}

// A counter only its flag holder changes: a plain atomic store (still one
// 64-bit access on 32-bit targets) instead of a locked read-modify-write.
template <class T>
void bump(std::atomic<T> &counter, T by) {
    counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_release);
}

// A writer holds the flag for a few dozen instructions: spin briefly, then
// yield so that a holder that lost its processor can finish.
void take_write_flag(util_rqueue *q) {
    for (unsigned spins = 0; !try_flag(q->write_flag); ++spins) wait_turn(spins);
    bump(q->writers, 1u);
}

void leave_write(util_rqueue *q) {
    bump(q->writers, ~0u);
    drop_flag(q->write_flag);
}

// Lets readers run while the ring is full. On its first few waits the
// writer also spins a while past the yield before it looks again: the page
// it looks at (the one before the head) is the one a reader stores into on
// every read, and a busy reader then frees a run of pages instead of one at
// a time. A ring that stays full has no busy reader: from then on the
// writer only yields, so a refused write is not drawn out.
void pause_write(util_rqueue *q, uint32_t attempt) {
    leave_write(q);
    sched_yield();
    if (attempt < kFullWaits)
        for (unsigned i = 0; i < kFullPause; ++i) kerm::cpu_relax();
    take_write_flag(q);
}

bool is_empty(util_rqueue *q) {
    Page *h = q->head.load(), *c = q->commit.load(), *t = q->tail.load();
    if (q->reader.load() == c || (h == t && c != h)) return true;
    return q->writes.load() == 0;
}

// Full ring in overwrite mode: drop the oldest unread value by moving the
// head one page on. The dropped value stays in its page until a writer
// claims that page again (the free-value callback sees it then) or the queue
// is destroyed. Returns false when a reader held the read flag.
bool overwrite_oldest(util_rqueue *q, Page *t) {
    if (!try_flag(q->read_flag)) return false;
    Page *h = q->head.load();
    uintptr_t hn = h->next.load();
    // A read between our look at the ring and taking the flag may have made room.
    if (t->next.load() == (word(h) | kMark) && !(hn & kMark) && h->next.compare_exchange_strong(hn, hn | kMark)) {
        uintptr_t marked = word(h) | kMark;
        t->next.compare_exchange_strong(marked, word(h));
        q->head.store(page_at(hn), std::memory_order_release);
    }
    drop_flag(q->read_flag);
    return true;
}

int32_t write_value(util_rqueue *q, void *value, uint32_t budget) {
    if (!q || !value) return -1;
    take_write_flag(q);
    uint32_t attempts = 0;
    for (;;) {
        Page *t = q->tail.load(), *c = q->commit.load();
        uintptr_t tn = t->next.load();
        Page *n = page_at(tn);
        if (tn < 4) {
            leave_write(q);
            return -1;
        }
        bool blocking = q->mode.load(std::memory_order_relaxed) == UTIL_RQUEUE_MODE_BLOCKING;
        bool moved = false;
        // The head is read only where it decides something: readers store
        // it on every read, so loading it on every write would pull its
        // line across to the writer each time.
        Page *h = blocking && c == t ? q->head.load() : nullptr;
        if (h && t != h && n != h) {
            // Commit caught at the tail: step the tail on without storing and
            // try again; the skipped page reads as empty.
            if (attempts >= budget) {
                leave_write(q);
                return -2;
            }
            q->tail.store(n, std::memory_order_release);
            pause_write(q, attempts);
            ++attempts;
            continue;
        }
        // The mark sits on the page before the head, so an unmarked next
        // pointer never leads to the head: N differs from H here.
        if (!(tn & kMark)) {
            // Only the write flag's holder moves the tail, so a plain store
            // does what a compare-and-swap from T would.
            if (!(t->next.load() & kMark)) {
                q->tail.store(n, std::memory_order_release);
                moved = true;
            }
        } else if (!blocking && c->next.load() == word(t)) {
            if (!overwrite_oldest(q, t)) sched_yield();
            continue;
        } else {
            // Full: refused once the budget is spent; nothing was stored.
            if (++attempts >= budget) {
                leave_write(q);
                return -2;
            }
            pause_write(q, attempts);
            continue;
        }
        if (moved) {
            // T left the reader's reach before it came back into the ring,
            // and only the write flag's holder stores into it: a plain load
            // and store do what an exchange would (commit publishes it).
            uintptr_t old = t->value.load(std::memory_order_relaxed);
            t->value.store(reinterpret_cast<uintptr_t>(value), std::memory_order_relaxed);
            util_rqueue_free_value_callback_t cb = q->free_value.load(std::memory_order_relaxed);
            if (old && cb) cb(reinterpret_cast<void *>(old), value);
            bump(q->writes, uint64_t{1});
            // Publishes the value to the reader.
            if (q->writers.load(std::memory_order_relaxed) == 1) q->commit.store(t, std::memory_order_release);
            leave_write(q);
            return 0;
        }
        if (attempts >= budget) {
            leave_write(q);
            return -1;
        }
    }
}

void *read_value(util_rqueue *q, uint32_t budget) {
    if (!q) return nullptr;
    bool busy = false;
    unsigned empties = 0, busies = 0;
    for (uint32_t attempts = 0; attempts < budget; ++attempts) {
        if (attempts) wait_turn(busy ? busies++ : empties++, busy);
        // Emptiness is checked again under the flag; looking first keeps
        // readers of an empty queue off the flag's cache line.
        busy = false;
        if (q->reader.load(std::memory_order_relaxed) == q->commit.load(std::memory_order_acquire) || is_empty(q))
            continue;
        busy = !try_flag(q->read_flag);
        if (busy) continue;
        Page *h = q->head.load(), *c = q->commit.load(), *r = q->reader.load();
        uintptr_t hn = h->next.load(), rn = r->next.load();
        Page *hp = page_at(h->prev.load());
        if (r == c || is_empty(q) || !hp) {
            drop_flag(q->read_flag);
            continue;
        }
        // The spare page and the head pointer change only under the read
        // flag: plain stores do what compare-and-swaps from the values just
        // loaded would (the swap of hp's next below publishes them).
        r->next.store((hn & ~kBit1) | kMark, std::memory_order_relaxed);
        r->prev.store(word(hp), std::memory_order_release);
        // Next pointers change only under the read flag (an overwriting
        // writer takes it too), so the check and the store cannot be split.
        if (hp->next.load(std::memory_order_relaxed) == (word(h) | kMark)) {
            hp->next.store(word(r), std::memory_order_release);
        } else {
            fputs("head swap failed\n", stderr);
            r->next.store(rn, std::memory_order_relaxed);
            sched_yield();
            drop_flag(q->read_flag);
            continue;
        }
        Page *n = page_at(hn);
        q->head.store(n, std::memory_order_release);
        n->prev.store(word(r), std::memory_order_release);
        q->reader.store(h, std::memory_order_release);
        // H is the spare page now: no writer can claim it until a later
        // read splices it back in, so clearing it needs no compare-and-swap.
        uintptr_t v = h->value.load(std::memory_order_acquire);
        if (v == 0) {
            drop_flag(q->read_flag);
            continue;
        }
        h->value.store(0, std::memory_order_relaxed);
        bump(q->reads, uint64_t{1});
        drop_flag(q->read_flag);
        return reinterpret_cast<void *>(v);
    }
    return nullptr;
}

}  // namespace

namespace kerm {

int32_t rqueue_write_budget(util_rqueue_t *queue, void *value, uint32_t attempts) noexcept {
    return write_value(queue, value, attempts ? attempts : 1);
}

void *rqueue_read_budget(util_rqueue_t *queue, uint32_t attempts) noexcept { return read_value(queue, attempts); }

uint64_t rqueue_pending(util_rqueue_t *queue) noexcept {
    return queue ? queue->writes.load() - queue->reads.load() : 0;
}

void rqueue_free_value(void *value, void *) noexcept { free(value); }

}  // namespace kerm

extern "C" {

KERM_API util_rqueue_t *util_rqueue_create(uint32_t size, int32_t mode) noexcept {
    // Ring pages (size + 1) and the spare page in one block.
    const size_t pages = static_cast<size_t>(size) + 1;
    if (pages + 1 < pages || pages + 1 > SIZE_MAX / sizeof(Page)) return nullptr;
    auto *q = new (std::nothrow) util_rqueue();
    if (!q) return nullptr;
    q->block = new (std::nothrow) Page[pages + 1];
    if (!q->block) {
        delete q;
        return nullptr;
    }
    // The reader works on the head page and its neighbours while a writer
    // fills the page behind them: neighbours in the ring are laid out a
    // cache line apart, so the two sides do not share a line through them.
    // Reads shift pages by one place per lap, which keeps that property.
    size_t stride = (kerm::kCacheLine + sizeof(Page) - 1) / sizeof(Page);
    while (std::gcd(stride, pages) != 1) ++stride;
    stride %= pages;
    Page *first = &q->block[0], *last = nullptr;
    for (size_t i = 0, slot = 0; i < pages; ++i) {
        Page *p = &q->block[slot];
        if (last) {
            p->prev.store(word(last), std::memory_order_relaxed);
            last->next.store(word(p), std::memory_order_relaxed);
        }
        last = p;
        slot += stride;
        if (slot >= pages) slot -= pages;
    }
    last->next.store(word(first) | kMark, std::memory_order_relaxed);
    first->prev.store(word(last), std::memory_order_relaxed);
    Page *spare = &q->block[pages];
    spare->next.store(word(first));
    q->head.store(first);
    q->tail.store(first);
    q->commit.store(first);
    q->reader.store(spare);
    q->size = size < kMinSize ? kMinSize : size;
    q->pages = static_cast<uint32_t>(pages);
    q->mode.store(mode);
    return q;
}

KERM_API void util_rqueue_destroy(util_rqueue_t *queue) noexcept {
    if (!queue) return;
    util_rqueue_free_value_callback_t cb = queue->free_value.load();
    // Oldest first: the ring from the head, then the spare page.
    Page *p = queue->head.load();
    for (uint32_t i = 0; i < queue->pages; ++i) {
        uintptr_t v = p->value.load();
        if (v && cb) cb(reinterpret_cast<void *>(v), nullptr);
        p = page_at(p->next.load());
    }
    uintptr_t v = queue->reader.load()->value.load();
    if (v && cb) cb(reinterpret_cast<void *>(v), nullptr);
    delete[] queue->block;
    delete queue;
}

KERM_API void util_rqueue_set_free_value_callback(util_rqueue_t *queue,
                                                  util_rqueue_free_value_callback_t callback) noexcept {
    if (queue) queue->free_value.store(callback, std::memory_order_relaxed);
}

KERM_API int32_t util_rqueue_write(util_rqueue_t *queue, void *value) noexcept {
    return write_value(queue, value, kAttempts);
}

KERM_API void *util_rqueue_read(util_rqueue_t *queue) noexcept { return read_value(queue, kAttempts); }

KERM_API uint64_t util_rqueue_write_count(util_rqueue_t *queue) noexcept {
    return queue ? queue->writes.load() : 0;
}

KERM_API uint64_t util_rqueue_read_count(util_rqueue_t *queue) noexcept { return queue ? queue->reads.load() : 0; }

KERM_API void util_rqueue_set_mode(util_rqueue_t *queue, int32_t mode) noexcept {
    if (queue) queue->mode.store(mode, std::memory_order_relaxed);
}

KERM_API int32_t util_rqueue_mode(util_rqueue_t *queue) noexcept {
    return queue ? queue->mode.load(std::memory_order_relaxed) : -1;
}

KERM_API uint32_t util_rqueue_size(util_rqueue_t *queue) noexcept { return queue ? queue->size : 0; }

KERM_API int32_t util_rqueue_isempty(util_rqueue_t *queue) noexcept { return !queue || is_empty(queue) ? 1 : 0; }

KERM_API char *util_rqueue_stats(util_rqueue_t *queue) noexcept {
    if (!queue) return nullptr;
    constexpr size_t kStatsSize = 1024;
    char *text = static_cast<char *>(malloc(kStatsSize));
    if (!text) return nullptr;
    Page *tail = queue->tail.load(), *commit = queue->commit.load();
    snprintf(text, kStatsSize,
             "reader:      %p \nhead:        %p \ntail:        %p \ntail_next:   %p \ncommit:      %p \n"
             "commit_next: %p \nreads:       %lld \nwrites:      %lld \nmode:        %s \n",
             static_cast<void *>(queue->reader.load()), static_cast<void *>(queue->head.load()),
             static_cast<void *>(tail), reinterpret_cast<void *>(tail->next.load()), static_cast<void *>(commit),
             reinterpret_cast<void *>(commit->next.load()), static_cast<long long>(queue->reads.load()),
             static_cast<long long>(queue->writes.load()),
             queue->mode.load(std::memory_order_relaxed) == UTIL_RQUEUE_MODE_BLOCKING ? "blocking" : "overwrite");
    return text;
}

}  // extern "C"

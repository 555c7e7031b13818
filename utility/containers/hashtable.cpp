// Hash table with per-bucket mutexes, a shared state word and per-thread
// reader slots.
//
// Lock order: the state word (locating, or exclusive work), then the table
// mutex, then a bucket mutex, then a shard's pool mutex or the live-chain
// mutex. Locating threads count themselves in a reader slot (a shard) while
// they read the slot array and lock the bucket; after that the bucket mutex
// alone protects the item chain. Exclusive work (bucket creation, growth,
// clearing) claims the state word and then waits until every reader slot is
// empty, so growth and clearing touch buckets only after locking them, and
// nobody can reach a bucket without being counted first: a bucket never
// disappears under a thread that holds or waits for its mutex.
#include <sched.h>
#include <stdlib.h>
#include <string.h>

#include "common/kerm_cpu.h"
#include "common/kerm_guard.h"
#include "kerm_ht.h"

namespace {

// Short-key items come from the table's pools, one cache line each on 64-bit
// hosts (what a lookup reads: hash, length, key bytes, value, next); an item
// with a longer key is one malloc'ed block holding the key behind the record.
// The chain is singly linked: a bucket holds about one item, and removal
// follows a lookup that has just walked the same few items.
struct Item {
    uint32_t hash;  // kept so that growth never hashes a key again
    uint32_t klen;
    uint32_t vlen;
    uint8_t inline_key[UTIL_HT_KEY_INLINE];
    void *value;
    Item *next;  // also the link of a free list
};

constexpr size_t kItemAlign = kerm::kCacheLine;

uint8_t *key_of(Item *it) {
    return it->klen <= UTIL_HT_KEY_INLINE ? it->inline_key : reinterpret_cast<uint8_t *>(it + 1);
}

// A block of pooled items, freed when the table goes.
struct Chunk {
    Chunk *next;
};

}  // namespace

// What a lookup reads comes first.
struct util_ht_bucket_s {
    pthread_mutex_t lock;
    Item *first;
    Item **last_next;
    Item *spare;  // removed short-key items, reused by the next insertion here
    uint32_t index;
    util_ht_bucket_t *next;  // live-bucket chain
};

// One per thread slot. The reader counter is written by locating threads of
// this slot only (mostly one thread), so it stays in that core's cache; the
// shards are far enough apart that no two counters share a cache line.
struct util_ht_shard_s {
    uint32_t readers;
    pthread_mutex_t pool_lock;
    Item *free_items;
    Item *carve, *carve_end;  // the unused rest of the newest chunk
    Chunk *chunks;
    uint32_t chunk_items;  // size of the next chunk
};

namespace {

using kerm::MutexGuard;

uint32_t load(const uint32_t *p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }

// The one-at-a-time step h = (h + b) * 1025, h ^= h >> 6 written as
// h + (h << 10) + b * 1025: the byte's product is off the dependency chain,
// which leaves shift/add then shift/xor per byte (4 cycles instead of 5).
// The empty asm keeps the compiler from folding the product back.
inline uint32_t oaat_step(uint32_t h, uint8_t byte) {
    uint32_t b = byte * 1025u;
    __asm__("" : "+r"(b));
    h = (h + b) + (h << 10);
    return h ^ (h >> 6);
}

uint32_t hash_key(uint32_t seed, const void *key, uint32_t klen) {
    const auto *p = static_cast<const uint8_t *>(key);
    const uint8_t *end = p + klen;
    uint32_t h = seed + klen;
    for (; end - p >= 4; p += 4) {
        h = oaat_step(h, p[0]);
        h = oaat_step(h, p[1]);
        h = oaat_step(h, p[2]);
        h = oaat_step(h, p[3]);
    }
    for (; p < end; ++p) h = oaat_step(h, *p);
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

// hash modulo size; sizes are mostly powers of two (128 doubled), where a
// mask gives the same slot without a division.
inline uint32_t slot_of(uint32_t hash, uint32_t size) {
    return (size & (size - 1)) == 0 ? hash & (size - 1) : hash % size;
}

// ---- the state word and the reader slots ----

constexpr uint32_t kShards = 16;
// Shards are this far apart, so that their counters never share a cache
// line (nor an adjacent-line prefetch pair).
constexpr size_t kShardPair = 2 * kerm::kCacheLine;
constexpr size_t kShardStride = (sizeof(util_ht_shard_t) + kShardPair - 1) / kShardPair * kShardPair;

util_ht_shard_t *shard_at(util_ht_t *t, uint32_t i) {
    return reinterpret_cast<util_ht_shard_t *>(reinterpret_cast<uint8_t *>(t->shards) + i * kShardStride);
}

// The calling thread's shard. Threads run on stacks of their own, so the
// stack address picks a shard that stays with one thread without any
// thread-local storage; sharing a shard is only slower, never wrong.
util_ht_shard_t *my_shard(util_ht_t *t) {
    auto sp = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    auto x = static_cast<uint32_t>(sp >> 20) * 0x9E3779B1u;
    return shard_at(t, x >> 28);
}
static_assert(kShards == 16, "my_shard keeps the top 4 bits");

// Counts the thread in its reader slot while the word is idle. The counter
// and the word are both sequentially consistent, so either exclusive work
// sees the reader or the reader sees the work and steps back.
util_ht_shard_t *enter_locating(util_ht_t *t) {
    util_ht_shard_t *s = my_shard(t);
    for (;;) {
        __atomic_fetch_add(&s->readers, 1, __ATOMIC_SEQ_CST);
        if (__atomic_load_n(&t->state, __ATOMIC_SEQ_CST) == UTIL_HT_STATE_IDLE) return s;
        __atomic_fetch_sub(&s->readers, 1, __ATOMIC_RELEASE);
        while (__atomic_load_n(&t->state, __ATOMIC_ACQUIRE) != UTIL_HT_STATE_IDLE) sched_yield();
    }
}

void leave_locating(util_ht_shard_t *s) { __atomic_fetch_sub(&s->readers, 1, __ATOMIC_RELEASE); }

bool readers_gone(util_ht_t *t) {
    for (uint32_t i = 0; i < kShards; ++i)
        if (__atomic_load_n(&shard_at(t, i)->readers, __ATOMIC_SEQ_CST) != 0) return false;
    return true;
}

void leave_exclusive(util_ht_t *t, uint32_t work) {
    uint32_t w = work;
    if (!__atomic_compare_exchange_n(&t->state, &w, UTIL_HT_STATE_IDLE, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED))
        abort();  // only the holder may leave exclusive work
}

// Claims the word from idle and waits a little for the readers to leave.
// The claim is given back when they stay: a reader may be waiting for a
// bucket whose holder is itself about to locate another key (callbacks may
// call into the table for other buckets), so exclusive work never waits for
// readers while it holds the word for long. `once`: no second claim.
bool enter_exclusive(util_ht_t *t, uint32_t work, bool once = false) {
    for (;;) {
        uint32_t idle = UTIL_HT_STATE_IDLE;
        if (__atomic_compare_exchange_n(&t->state, &idle, work, false, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED)) {
            for (int spin = 0; spin < 64; ++spin) {
                if (readers_gone(t)) return true;
                sched_yield();
            }
            leave_exclusive(t, work);
        }
        if (once) return false;
        sched_yield();
    }
}

// ---- items and buckets ----

// Pooled items are carved from chunks that grow from 16 to 1024 items.
constexpr uint32_t kFirstChunk = 16, kLastChunk = 1024;

Item *pool_take(util_ht_shard_t *s) {
    MutexGuard g(&s->pool_lock);
    if (Item *it = s->free_items) {
        s->free_items = it->next;
        return it;
    }
    if (s->carve == s->carve_end) {
        uint32_t n = s->chunk_items == 0 ? kFirstChunk : s->chunk_items;
        auto *c = static_cast<Chunk *>(malloc(sizeof(Chunk) + kItemAlign - 1 + size_t(n) * sizeof(Item)));
        if (c == nullptr) return nullptr;
        c->next = s->chunks;
        s->chunks = c;
        auto first = (reinterpret_cast<uintptr_t>(c + 1) + kItemAlign - 1) & ~uintptr_t(kItemAlign - 1);
        s->carve = reinterpret_cast<Item *>(first);
        s->carve_end = s->carve + n;
        s->chunk_items = n < kLastChunk ? n * 2 : n;
    }
    return s->carve++;
}

// Hands a list of pooled items (linked through next) to the caller's shard.
void pool_give(util_ht_t *t, Item *first) {
    if (first == nullptr) return;
    Item *last = first;
    while (last->next != nullptr) last = last->next;
    util_ht_shard_t *s = my_shard(t);
    MutexGuard g(&s->pool_lock);
    last->next = s->free_items;
    s->free_items = first;
}

// A fresh item for klen key bytes to go into bucket b (locked): a removed
// one of the same bucket when there is one, so that removal and insertion
// in one bucket cost no further lock.
Item *item_new(util_ht_t *t, util_ht_bucket_t *b, uint32_t klen) {
    Item *it;
    if (klen > UTIL_HT_KEY_INLINE) {
        it = static_cast<Item *>(malloc(sizeof(Item) + klen));
    } else if ((it = b->spare) != nullptr) {
        b->spare = it->next;
    } else {
        it = pool_take(my_shard(t));
    }
    if (it != nullptr) it->klen = klen;  // places the key
    return it;
}

void item_free(util_ht_bucket_t *b, Item *it) {
    if (it->klen > UTIL_HT_KEY_INLINE) {
        free(it);
        return;
    }
    it->next = b->spare;
    b->spare = it;
}

util_ht_bucket_t *new_bucket(uint32_t index) {
    auto *b = static_cast<util_ht_bucket_t *>(calloc(1, sizeof(util_ht_bucket_t)));
    if (b == nullptr) return nullptr;
    b->last_next = &b->first;
    b->index = index;
    kerm::mutex_init_or_abort(&b->lock);
    return b;
}

void free_bucket(util_ht_t *t, util_ht_bucket_t *b) {
    pool_give(t, b->spare);
    if (pthread_mutex_destroy(&b->lock) != 0) abort();
    free(b);
}

// Chain links are stored atomically because locate() reads a bucket's first
// item before locking it, only to start fetching that item early.
void set_link(Item **link, Item *it) { __atomic_store_n(link, it, __ATOMIC_RELAXED); }

void append_item(util_ht_bucket_t *b, Item *it) {
    it->next = nullptr;
    set_link(b->last_next, it);
    b->last_next = &it->next;
}

void unlink_item(util_ht_bucket_t *b, Item *it) {
    Item **link = &b->first;
    while (*link != it) link = &(*link)->next;
    set_link(link, it->next);
    if (it->next == nullptr) b->last_next = link;
}

// Unlinks, frees and uncounts an item; its value is the caller's business.
void remove_item(util_ht_t *t, util_ht_bucket_t *b, Item *it) {
    unlink_item(b, it);
    item_free(b, it);
    __atomic_fetch_sub(&t->count, 1, __ATOMIC_RELAXED);
}

// Keys are mostly short: eight bytes at a time inline beats a call to memcmp.
bool same_bytes(const uint8_t *a, const uint8_t *b, uint32_t n) {
    if (n > UTIL_HT_KEY_INLINE) return memcmp(a, b, n) == 0;
    uint64_t x, y;
    for (; n >= 8; a += 8, b += 8, n -= 8) {
        memcpy(&x, a, 8);
        memcpy(&y, b, 8);
        if (x != y) return false;
    }
    for (; n > 0; --n)
        if (*a++ != *b++) return false;
    return true;
}

Item *find_item(util_ht_bucket_t *b, uint32_t hash, const void *key, uint32_t klen) {
    const auto *k = static_cast<const uint8_t *>(key);
    for (Item *it = b->first; it != nullptr; it = it->next)
        if (it->hash == hash && it->klen == klen) {
            const uint8_t *ik = key_of(it);
            if (ik[0] == k[0] && same_bytes(ik, k, klen)) return it;
        }
    return nullptr;
}

bool value_equals(const Item *it, const void *match, uint32_t match_len) {
    if (it->vlen != match_len) return false;
    if (match_len == 0) return true;
    if (it->value == nullptr || match == nullptr) return false;
    const auto *a = static_cast<const uint8_t *>(it->value);
    const auto *b = static_cast<const uint8_t *>(match);
    return a[0] == b[0] && memcmp(a, b, match_len) == 0;
}

util_ht_free_item_callback_t free_cb(util_ht_t *t) {
    return __atomic_load_n(&t->free_item_cb, __ATOMIC_ACQUIRE);
}

void release_value(util_ht_t *t, void *value) {
    if (value == nullptr) return;
    if (util_ht_free_item_callback_t cb = free_cb(t)) cb(value);
}

// The bucket for hash, locked, or null when its slot is empty.
util_ht_bucket_t *locate(util_ht_t *t, uint32_t hash) {
    // Starts fetching the slot before entering, whose atomic would otherwise
    // hold the load back; a stale guess (growth under way) costs nothing.
    util_ht_bucket_t **guess = __atomic_load_n(&t->slots, __ATOMIC_RELAXED);
    __builtin_prefetch(guess + slot_of(hash, __atomic_load_n(&t->size, __ATOMIC_RELAXED)));
    util_ht_shard_t *s = enter_locating(t);
    util_ht_bucket_t *b = t->slots[slot_of(hash, t->size)];
    if (b != nullptr) {
        // The item is fetched while the lock is taken; a stale guess is harmless.
        __builtin_prefetch(__atomic_load_n(&b->first, __ATOMIC_RELAXED));
        kerm::lock_or_abort(&b->lock);
    }
    leave_locating(s);
    return b;
}

void live_append(util_ht_t *t, util_ht_bucket_t *b) {
    MutexGuard g(&t->live_lock);
    b->next = nullptr;
    *t->live_tail = b;
    t->live_tail = &b->next;
}

util_ht_bucket_t *live_next(util_ht_t *t, util_ht_bucket_t *b) {
    MutexGuard g(&t->live_lock);
    return b == nullptr ? t->live_first : b->next;
}

// The bucket for hash, locked, created when missing; null when memory runs out.
util_ht_bucket_t *locate_or_create(util_ht_t *t, uint32_t hash) {
    for (;;) {
        if (util_ht_bucket_t *b = locate(t, hash)) return b;
        util_ht_bucket_t *nb = new_bucket(0);
        if (nb == nullptr) return nullptr;
        kerm::lock_or_abort(&nb->lock);
        enter_exclusive(t, UTIL_HT_STATE_CREATING);
        // The size may have changed while the bucket was allocated.
        uint32_t index = slot_of(hash, t->size);
        if (t->slots[index] == nullptr) {
            nb->index = index;
            t->slots[index] = nb;
            // Joins the walks' chain before growth can run, so growth always sees it.
            live_append(t, nb);
            leave_exclusive(t, UTIL_HT_STATE_CREATING);
            return nb;
        }
        // Another thread was first: use its bucket through the normal path,
        // without waiting for a bucket mutex while the state word is held.
        leave_exclusive(t, UTIL_HT_STATE_CREATING);
        kerm::unlock_or_abort(&nb->lock);
        free_bucket(t, nb);
    }
}

// Doubles the slots (capped at the maximum) and moves every item by its
// stored hash. Runs only when no other thread is locating, creating, growing
// or clearing. The buckets are reused: each old bucket, once emptied, serves
// the next new slot that needs one, and only the shortfall is allocated,
// before anything moves, so that a failed allocation leaves the table as it
// was. The new live chain lists the buckets in the order of their first item.
void grow(util_ht_t *t) {
    uint32_t size = __atomic_load_n(&t->size, __ATOMIC_RELAXED);
    uint32_t count = __atomic_load_n(&t->count, __ATOMIC_RELAXED);
    if (count <= size + size / 3 || (t->max_size != 0 && size >= t->max_size)) return;
    uint64_t wanted = uint64_t(size) * 2;
    if (t->max_size != 0 && wanted > t->max_size) wanted = t->max_size;
    if (wanted > 0x80000000u) return;
    auto new_size = static_cast<uint32_t>(wanted);
    auto **slots = static_cast<util_ht_bucket_t **>(calloc(new_size, sizeof(util_ht_bucket_t *)));
    if (slots == nullptr) return;
    // Marks a new slot that will need a bucket, until the move gives it one.
    static util_ht_bucket_t wanted_mark;

    MutexGuard g(&t->lock);
    // The largest number of buckets needed beyond those already emptied, at
    // any point of the move below (which goes in the same order).
    size_t needed = 0, emptied = 0, shortfall = 0;
    for (util_ht_bucket_t *b = t->live_first; b != nullptr; b = b->next) {
        // Waits for a thread that located the bucket before growth began;
        // after this nobody else can reach it.
        MutexGuard bg(&b->lock);
        ++emptied;
        for (Item *it = b->first; it != nullptr; it = it->next) {
            util_ht_bucket_t **slot = &slots[slot_of(it->hash, new_size)];
            if (*slot != nullptr) continue;
            *slot = &wanted_mark;
            if (++needed > emptied + shortfall) shortfall = needed - emptied;
        }
    }
    util_ht_bucket_t *spare = nullptr;
    for (size_t i = 0; i < shortfall; ++i) {
        util_ht_bucket_t *nb = new_bucket(0);
        if (nb == nullptr) {
            while (spare != nullptr) {
                util_ht_bucket_t *next = spare->next;
                free_bucket(t, spare);
                spare = next;
            }
            free(slots);
            return;
        }
        nb->next = spare;
        spare = nb;
    }
    util_ht_bucket_t *first = nullptr;
    util_ht_bucket_t **tail = &first;
    for (util_ht_bucket_t *b = t->live_first; b != nullptr;) {
        util_ht_bucket_t *next_old = b->next;
        Item *it = b->first;
        set_link(&b->first, nullptr);
        b->last_next = &b->first;
        b->next = spare;
        spare = b;
        while (it != nullptr) {
            Item *next = it->next;
            uint32_t index = slot_of(it->hash, new_size);
            if (slots[index] == &wanted_mark) {
                util_ht_bucket_t *nb = spare;
                spare = nb->next;
                nb->index = index;
                nb->next = nullptr;
                *tail = nb;
                tail = &nb->next;
                slots[index] = nb;
            }
            append_item(slots[index], it);
            it = next;
        }
        b = next_old;
    }
    while (spare != nullptr) {  // buckets of slots that merged
        util_ht_bucket_t *next = spare->next;
        free_bucket(t, spare);
        spare = next;
    }
    util_ht_bucket_t **old = t->slots;
    {
        MutexGuard lg(&t->live_lock);
        t->live_first = first;
        t->live_tail = first == nullptr ? &t->live_first : tail;
    }
    __atomic_store_n(&t->slots, slots, __ATOMIC_RELAXED);  // read early by locate()
    __atomic_store_n(&t->size, new_size, __ATOMIC_RELAXED);
    free(old);
}

void maybe_grow(util_ht_t *t) {
    uint32_t size = __atomic_load_n(&t->size, __ATOMIC_RELAXED);
    if (__atomic_load_n(&t->count, __ATOMIC_RELAXED) <= size + size / 3) return;
    if (t->max_size != 0 && size >= t->max_size) return;
    // One attempt: when the word is busy another thread is working and will
    // see the count later.
    if (!enter_exclusive(t, UTIL_HT_STATE_GROWING, true)) return;
    grow(t);
    leave_exclusive(t, UTIL_HT_STATE_GROWING);
}

enum class SetMode { Set, IfNotExists, GetOrSet, GetAndSet, Copy };

void put_prev(void **prev, uint32_t *prev_len, void *v, uint32_t len) {
    if (prev != nullptr) *prev = v;
    if (prev_len != nullptr) *prev_len = len;
}

bool bad_key(util_ht_t *t, const void *key, uint32_t klen) { return t == nullptr || key == nullptr || klen == 0; }

int set_item(util_ht_t *t, const void *key, uint32_t klen, void *value, uint32_t vlen, SetMode mode, void **prev,
             uint32_t *prev_len) {
    if (bad_key(t, key, klen)) return -1;
    uint32_t hash = hash_key(t->seed, key, klen);
    util_ht_bucket_t *b = locate_or_create(t, hash);
    if (b == nullptr) return -1;
    void *old = nullptr;
    bool hand_old = false, added = false;
    int rc = 0;
    Item *it = find_item(b, hash, key, klen);
    if (it != nullptr && it->value != nullptr) {
        switch (mode) {
        case SetMode::IfNotExists:
            rc = 1;
            break;
        case SetMode::GetOrSet:
            put_prev(prev, prev_len, it->value, it->vlen);
            rc = 1;
            break;
        case SetMode::Copy: {
            if (prev_len != nullptr) *prev_len = it->vlen;
            void *copy = nullptr;
            if (vlen > 0) {
                copy = malloc(vlen);
                if (copy == nullptr) {
                    rc = -1;
                    break;
                }
                memcpy(copy, value, vlen);
            }
            value = copy;
        }
            [[fallthrough]];
        case SetMode::Set:
        case SetMode::GetAndSet:
            old = it->value;
            if (mode != SetMode::Set) put_prev(nullptr, prev_len, nullptr, it->vlen);
            it->value = value;
            it->vlen = vlen;
            hand_old = true;
            break;
        }
    } else {
        void *stored = value;
        bool copy_failed = false;
        if (mode == SetMode::Copy) {
            stored = nullptr;
            if (vlen > 0 && (stored = malloc(vlen)) != nullptr) memcpy(stored, value, vlen);
            copy_failed = vlen > 0 && stored == nullptr;
        }
        Item *ni = copy_failed ? nullptr : item_new(t, b, klen);
        if (ni == nullptr) {
            if (mode == SetMode::Copy) free(stored);
            rc = -1;
        } else {
            ni->hash = hash;
            memcpy(key_of(ni), key, klen);
            ni->value = stored;
            ni->vlen = vlen;
            append_item(b, ni);
            __atomic_fetch_add(&t->count, 1, __ATOMIC_RELAXED);
            added = true;
            if (mode != SetMode::Set && mode != SetMode::IfNotExists) put_prev(prev, prev_len, nullptr, 0);
        }
    }
    kerm::unlock_or_abort(&b->lock);
    if (added) maybe_grow(t);
    if (hand_old) {
        if (prev != nullptr && mode != SetMode::Set)
            *prev = old;
        else
            release_value(t, old);
    }
    return rc;
}

// Runs fn(bucket, item) on the first item with the key, under its bucket's
// lock; returns `absent` when there is none.
template <typename R, typename Fn>
R with_item(util_ht_t *t, const void *key, uint32_t klen, R absent, Fn fn) {
    if (bad_key(t, key, klen)) return absent;
    uint32_t hash = hash_key(t->seed, key, klen);
    util_ht_bucket_t *b = locate(t, hash);
    if (b == nullptr) return absent;
    MutexGuard g(&b->lock, kerm::adopt_lock);
    Item *it = find_item(b, hash, key, klen);
    return it == nullptr ? absent : fn(b, it);
}

// A list of one malloc'ed record per item, made by make(); the list frees
// them. Null, with nothing left behind, when memory runs out.
list_t *snapshot(util_ht_t *t, void *(*make)(const void *key, uint32_t klen, void *value, uint32_t vlen)) {
    if (t == nullptr) return nullptr;
    list_t *out = list_create();
    if (out == nullptr) return nullptr;
    list_set_free_value_callback(out, free);
    struct Ctx {
        list_t *out;
        void *(*make)(const void *, uint32_t, void *, uint32_t);
        bool oom;
    } ctx{out, make, false};
    util_ht_foreach_pair(
        t,
        [](util_ht_t *, const void *k, uint32_t kl, void *v, uint32_t vl, void *u) {
            auto *c = static_cast<Ctx *>(u);
            void *snap = c->make(k, kl, v, vl);
            if (snap == nullptr || list_push_value(c->out, snap) != 0) {
                free(snap);
                c->oom = true;
                return 0;
            }
            return 1;
        },
        &ctx);
    if (ctx.oom) {
        list_destroy(out);
        return nullptr;
    }
    return out;
}

}  // namespace

extern "C" {

int util_ht_init(util_ht_t *table, uint32_t initial_size, uint32_t max_size,
                 util_ht_free_item_callback_t free_item_cb) noexcept {
    if (table == nullptr) return -1;
    uint32_t size = initial_size < UTIL_HT_MIN_SIZE ? UTIL_HT_MIN_SIZE : initial_size;
    memset(table, 0, sizeof(*table));
    table->slots = static_cast<util_ht_bucket_t **>(calloc(size, sizeof(util_ht_bucket_t *)));
    table->shards = static_cast<util_ht_shard_t *>(calloc(kShards, kShardStride));
    if (table->slots == nullptr || table->shards == nullptr) {
        free(table->slots);
        free(table->shards);
        table->slots = nullptr;
        table->shards = nullptr;
        return -1;
    }
    for (uint32_t i = 0; i < kShards; ++i) kerm::mutex_init_or_abort(&shard_at(table, i)->pool_lock);
    table->size = size;
    table->max_size = max_size;
    table->state = UTIL_HT_STATE_IDLE;
    auto seed = static_cast<uint32_t>(random());
    table->seed = seed == UINT32_MAX ? 0 : seed;
    table->free_item_cb = free_item_cb;
    table->live_tail = &table->live_first;
    kerm::mutex_init_or_abort(&table->lock);
    kerm::mutex_init_or_abort(&table->live_lock);
    return 0;
}

util_ht_t *util_ht_create(uint32_t initial_size, uint32_t max_size, util_ht_free_item_callback_t free_item_cb) noexcept {
    auto *t = static_cast<util_ht_t *>(calloc(1, sizeof(util_ht_t)));
    if (t != nullptr && util_ht_init(t, initial_size, max_size, free_item_cb) != 0) {
        free(t);
        return nullptr;
    }
    return t;
}

void util_ht_clear(util_ht_t *table) noexcept {
    if (table == nullptr) return;
    enter_exclusive(table, UTIL_HT_STATE_CLEARING);
    {
        MutexGuard g(&table->lock);
        util_ht_free_item_callback_t cb = free_cb(table);
        for (util_ht_bucket_t *b = table->live_first; b != nullptr;) {
            kerm::lock_or_abort(&b->lock);
            while (Item *it = b->first) {
                void *v = it->value;
                remove_item(table, b, it);
                if (cb != nullptr && v != nullptr) cb(v);
            }
            kerm::unlock_or_abort(&b->lock);
            table->slots[b->index] = nullptr;
            util_ht_bucket_t *next = b->next;
            free_bucket(table, b);
            b = next;
        }
        MutexGuard lg(&table->live_lock);
        table->live_first = nullptr;
        table->live_tail = &table->live_first;
    }
    leave_exclusive(table, UTIL_HT_STATE_CLEARING);
}

void util_ht_deinit(util_ht_t *table) noexcept {
    if (table == nullptr || table->slots == nullptr) return;
    util_ht_clear(table);
    free(table->slots);
    table->slots = nullptr;
    for (uint32_t i = 0; i < kShards; ++i) {
        util_ht_shard_t *s = shard_at(table, i);
        while (Chunk *c = s->chunks) {
            s->chunks = c->next;
            free(c);
        }
        if (pthread_mutex_destroy(&s->pool_lock) != 0) abort();
    }
    free(table->shards);
    table->shards = nullptr;
    if (pthread_mutex_destroy(&table->lock) != 0 || pthread_mutex_destroy(&table->live_lock) != 0) abort();
}

void util_ht_destroy(util_ht_t *table) noexcept {
    if (table == nullptr) return;
    util_ht_deinit(table);
    free(table);
}

void util_ht_set_free_item_callback(util_ht_t *table, util_ht_free_item_callback_t cb) noexcept {
    if (table != nullptr) __atomic_store_n(&table->free_item_cb, cb, __ATOMIC_RELEASE);
}

uint32_t util_ht_count(util_ht_t *table) noexcept { return table == nullptr ? 0 : load(&table->count); }

int util_ht_set(util_ht_t *table, const void *key, uint32_t klen, void *value, uint32_t vlen) noexcept {
    return set_item(table, key, klen, value, vlen, SetMode::Set, nullptr, nullptr);
}

int util_ht_set_if_not_exists(util_ht_t *table, const void *key, uint32_t klen, void *value, uint32_t vlen) noexcept {
    return set_item(table, key, klen, value, vlen, SetMode::IfNotExists, nullptr, nullptr);
}

int util_ht_get_or_set(util_ht_t *table, const void *key, uint32_t klen, void *value, uint32_t vlen, void **prev,
                       uint32_t *prev_len) noexcept {
    return set_item(table, key, klen, value, vlen, SetMode::GetOrSet, prev, prev_len);
}

int util_ht_get_and_set(util_ht_t *table, const void *key, uint32_t klen, void *value, uint32_t vlen, void **prev,
                        uint32_t *prev_len) noexcept {
    return set_item(table, key, klen, value, vlen, SetMode::GetAndSet, prev, prev_len);
}

int util_ht_set_copy(util_ht_t *table, const void *key, uint32_t klen, const void *value, uint32_t vlen,
                     void **prev, uint32_t *prev_len) noexcept {
    if (value == nullptr && vlen > 0) return -1;
    return set_item(table, key, klen, const_cast<void *>(value), vlen, SetMode::Copy, prev, prev_len);
}

int util_ht_set_if_equals(util_ht_t *table, const void *key, uint32_t klen, void *value, uint32_t vlen,
                          const void *match, uint32_t match_len, void **prev, uint32_t *prev_len) noexcept {
    if (match == nullptr && match_len == 0) return util_ht_set_if_not_exists(table, key, klen, value, vlen);
    void *old = nullptr;
    int rc = with_item(table, key, klen, -1, [&](util_ht_bucket_t *, Item *it) {
        put_prev(prev, prev_len, it->value, it->vlen);
        if (!value_equals(it, match, match_len)) return 1;
        old = it->value;
        it->value = value;
        it->vlen = vlen;
        if (prev == nullptr) release_value(table, old);
        return 0;
    });
    return rc;
}

void *util_ht_get(util_ht_t *table, const void *key, uint32_t klen, uint32_t *vlen_out) noexcept {
    return with_item(table, key, klen, static_cast<void *>(nullptr), [&](util_ht_bucket_t *, Item *it) {
        if (vlen_out != nullptr) *vlen_out = it->vlen;
        return it->value;
    });
}

void *util_ht_get_copy(util_ht_t *table, const void *key, uint32_t klen, uint32_t *vlen_out) noexcept {
    return with_item(table, key, klen, static_cast<void *>(nullptr), [&](util_ht_bucket_t *, Item *it) -> void * {
        if (it->value == nullptr) return nullptr;
        void *copy = malloc(it->vlen ? it->vlen : 1);
        if (copy == nullptr) return nullptr;
        memcpy(copy, it->value, it->vlen);
        if (vlen_out != nullptr) *vlen_out = it->vlen;
        return copy;
    });
}

void *util_ht_get_deep_copy(util_ht_t *table, const void *key, uint32_t klen, uint32_t *vlen_out,
                            util_ht_deep_copy_callback_t copy_cb, void *user) noexcept {
    if (copy_cb == nullptr) return nullptr;
    return with_item(table, key, klen, static_cast<void *>(nullptr), [&](util_ht_bucket_t *, Item *it) {
        if (vlen_out != nullptr) *vlen_out = it->vlen;
        return copy_cb(it->value, it->vlen, user);
    });
}

int util_ht_exists(util_ht_t *table, const void *key, uint32_t klen) noexcept {
    return with_item(table, key, klen, 0, [](util_ht_bucket_t *, Item *) { return 1; });
}

int util_ht_delete(util_ht_t *table, const void *key, uint32_t klen, void **prev, uint32_t *prev_len) noexcept {
    return with_item(table, key, klen, -1, [&](util_ht_bucket_t *b, Item *it) {
        void *v = it->value;
        put_prev(prev, prev_len, v, it->vlen);
        remove_item(table, b, it);
        if (prev == nullptr) release_value(table, v);
        return 0;
    });
}

int util_ht_unset(util_ht_t *table, const void *key, uint32_t klen, void **prev, uint32_t *prev_len) noexcept {
    return with_item(table, key, klen, -1, [&](util_ht_bucket_t *, Item *it) {
        void *v = it->value;
        put_prev(prev, prev_len, v, it->vlen);
        it->value = nullptr;
        it->vlen = 0;
        if (prev == nullptr) release_value(table, v);
        return 0;
    });
}

int util_ht_delete_if_equals(util_ht_t *table, const void *key, uint32_t klen, const void *match,
                             uint32_t match_len) noexcept {
    return with_item(table, key, klen, -1, [&](util_ht_bucket_t *b, Item *it) {
        if (!value_equals(it, match, match_len)) return -1;
        void *v = it->value;
        remove_item(table, b, it);
        release_value(table, v);
        return 0;
    });
}

int util_ht_call(util_ht_t *table, const void *key, uint32_t klen, util_ht_call_callback_t cb, void *user) noexcept {
    if (cb == nullptr) return -1;
    return with_item(table, key, klen, -1, [&](util_ht_bucket_t *b, Item *it) {
        int r = cb(table, key_of(it), it->klen, &it->value, &it->vlen, user);
        if (r != 1) return r;
        remove_item(table, b, it);
        return 0;
    });
}

int util_ht_foreach_pair(util_ht_t *table, util_ht_pair_callback_t cb, void *user) noexcept {
    if (table == nullptr || cb == nullptr) return -1;
    MutexGuard g(&table->lock);
    bool stop = false;
    for (util_ht_bucket_t *b = live_next(table, nullptr); b != nullptr && !stop; b = live_next(table, b)) {
        MutexGuard bg(&b->lock);
        for (Item *it = b->first; it != nullptr;) {
            int r = cb(table, key_of(it), it->klen, it->value, it->vlen, user);
            if (r == 1) {
                it = it->next;
                continue;
            }
            if (r == 0) {
                stop = true;
                break;
            }
            void *v = it->value;
            remove_item(table, b, it);
            release_value(table, v);
            // Deliberate: after a removal the rest of this bucket is skipped;
            // callers that remove many items walk again until none goes.
            stop = r == -2;
            break;
        }
    }
    return 0;
}

int util_ht_foreach_key(util_ht_t *table, util_ht_key_callback_t cb, void *user) noexcept {
    if (cb == nullptr) return -1;
    struct Ctx {
        util_ht_key_callback_t cb;
        void *user;
    } ctx{cb, user};
    return util_ht_foreach_pair(
        table,
        [](util_ht_t *t, const void *k, uint32_t kl, void *, uint32_t, void *u) {
            auto *c = static_cast<Ctx *>(u);
            return c->cb(t, k, kl, c->user);
        },
        &ctx);
}

int util_ht_foreach_value(util_ht_t *table, util_ht_value_callback_t cb, void *user) noexcept {
    if (cb == nullptr) return -1;
    struct Ctx {
        util_ht_value_callback_t cb;
        void *user;
    } ctx{cb, user};
    return util_ht_foreach_pair(
        table,
        [](util_ht_t *t, const void *, uint32_t, void *v, uint32_t vl, void *u) {
            auto *c = static_cast<Ctx *>(u);
            return c->cb(t, v, vl, c->user);
        },
        &ctx);
}

list_t *util_ht_get_all_keys(util_ht_t *table) noexcept {
    return snapshot(table, [](const void *k, uint32_t kl, void *, uint32_t vl) -> void * {
        // One block: the record, then its key copy, freed together.
        auto *snap = static_cast<util_ht_key_t *>(malloc(sizeof(util_ht_key_t) + kl));
        if (snap != nullptr) {
            snap->key = snap + 1;
            memcpy(snap->key, k, kl);
            snap->klen = kl;
            snap->vlen = vl;
        }
        return snap;
    });
}

list_t *util_ht_get_all_values(util_ht_t *table) noexcept {
    return snapshot(table, [](const void *k, uint32_t kl, void *v, uint32_t vl) -> void * {
        auto *snap = static_cast<util_ht_value_t *>(malloc(sizeof(util_ht_value_t)));
        if (snap != nullptr) *snap = util_ht_value_t{k, kl, v, vl};
        return snap;
    });
}

}  // extern "C"

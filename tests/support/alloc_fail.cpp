// The allocator replacement behind alloc_fail.h: the C library's own entry
// points do the work, this layer counts, fails and remembers.
#include "support/alloc_fail.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void __libc_free(void *ptr);
}

namespace {

// Per thread, so only the arming thread is failed and counted. Plain
// initial-exec TLS of the program: no allocation to reach it.
__thread bool t_armed;
__thread bool t_fired;
__thread unsigned t_fail_at;
__thread unsigned t_calls;

// Blocks allocated while armed: open addressing on the address, removal by
// backward shift. Far more slots than any operation under test makes.
constexpr size_t kSlots = size_t{1} << 15;
uintptr_t g_slots[kSlots];
std::atomic<size_t> g_live{0};
std::atomic_flag g_lock = ATOMIC_FLAG_INIT;

struct Spin {
    Spin() {
        while (g_lock.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~Spin() { g_lock.clear(std::memory_order_release); }
};

size_t home(uintptr_t p) { return static_cast<size_t>((p >> 4) * 2654435761u) & (kSlots - 1); }

void remember(void *ptr) {
    if (ptr == nullptr) return;
    const auto p = reinterpret_cast<uintptr_t>(ptr);
    Spin s;
    if (g_live.load(std::memory_order_relaxed) >= kSlots / 2) {
        fputs("alloc_fail: too many live blocks to remember\n", stderr);
        abort();
    }
    size_t i = home(p);
    while (g_slots[i] != 0) i = (i + 1) & (kSlots - 1);
    g_slots[i] = p;
    g_live.fetch_add(1, std::memory_order_relaxed);
}

void forget(void *ptr) {
    if (ptr == nullptr || g_live.load(std::memory_order_relaxed) == 0) return;
    const auto p = reinterpret_cast<uintptr_t>(ptr);
    Spin s;
    size_t i = home(p);
    while (g_slots[i] != 0 && g_slots[i] != p) i = (i + 1) & (kSlots - 1);
    if (g_slots[i] == 0) return;
    // Backward shift: pull later members of the probe run into the hole.
    for (size_t j = (i + 1) & (kSlots - 1); g_slots[j] != 0; j = (j + 1) & (kSlots - 1)) {
        const size_t h = home(g_slots[j]);
        const bool reachable = i <= j ? (h <= i || h > j) : (h <= i && h > j);
        if (reachable) {
            g_slots[i] = g_slots[j];
            i = j;
        }
    }
    g_slots[i] = 0;
    g_live.fetch_sub(1, std::memory_order_relaxed);
}

// Counts the call; true when it is the one to fail.
bool fail_now() {
    if (!t_armed) return false;
    if (++t_calls != t_fail_at) return false;
    t_fired = true;
    errno = ENOMEM;
    return true;
}

void *granted(void *p) {
    if (t_armed) remember(p);
    return p;
}

}  // namespace

extern "C" {

void *malloc(size_t size) noexcept { return fail_now() ? nullptr : granted(__libc_malloc(size)); }

void *calloc(size_t count, size_t size) noexcept { return fail_now() ? nullptr : granted(__libc_calloc(count, size)); }

void *realloc(void *ptr, size_t size) noexcept {
    if (ptr == nullptr) return malloc(size);
    // A failed realloc leaves the old block as it was.
    if (fail_now()) return nullptr;
    void *moved = __libc_realloc(ptr, size);
    if (moved != nullptr || size == 0) forget(ptr);
    return granted(moved);
}

void free(void *ptr) noexcept {
    forget(ptr);
    __libc_free(ptr);
}

char *strdup(const char *s) noexcept {
    const size_t n = strlen(s) + 1;
    auto *copy = static_cast<char *>(malloc(n));
    if (copy != nullptr) memcpy(copy, s, n);
    return copy;
}

}  // extern "C"

namespace alloc_fail {

void begin(unsigned k) {
    {
        Spin s;
        memset(g_slots, 0, sizeof g_slots);
        g_live.store(0, std::memory_order_relaxed);
    }
    t_calls = 0;
    t_fired = false;
    t_fail_at = k;
    t_armed = true;
}

void end() { t_armed = false; }

unsigned calls() { return t_calls; }

bool fired() { return t_fired; }

size_t leaked() { return g_live.load(std::memory_order_relaxed); }

}  // namespace alloc_fail

// Allocation tracking: every tracked block carries a header naming the
// allocating file and line, and all live blocks hang on one list.
//
// The list's mutex is the only lock; every user is in this file and none
// takes another lock while holding it.
#include "kerm_memcheck.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include "common/kerm_guard.h"
#include "common/kerm_internal.h"
#include "log/android_backend.h"

namespace {

// Placed directly before the caller's address.
struct BlockHeader {
    const char *file;
    uint32_t line;
    // Bitwise complement (negative) while the block is being released, so
    // the unlocked scans skip it.
    int32_t size;
    BlockHeader *next;  // older
    BlockHeader *prev;  // newer; null for the head
};
static_assert(sizeof(void *) != 4 || sizeof(BlockHeader) == 20);

constexpr int kPrioFatal = 7;
constexpr const char *kLeakTag = "VASK44";

// Statically initialised too, so tracking before ut_memcheck_init is safe.
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
BlockHeader *g_head = nullptr;

BlockHeader *header_of(void *user) { return reinterpret_cast<BlockHeader *>(static_cast<char *>(user)) - 1; }
void *user_of(BlockHeader *h) { return h + 1; }

// The scans read sizes without the lock while a release may be flipping one.
int32_t recorded_size(const BlockHeader *h) { return __atomic_load_n(&h->size, __ATOMIC_RELAXED); }

void *track(BlockHeader *h, uint32_t size, const char *file, uint32_t line) {
    h->file = file;
    h->line = line;
    h->size = static_cast<int32_t>(size);
    h->prev = nullptr;
    kerm::MutexGuard hold(&g_lock);
    h->next = g_head;
    if (g_head != nullptr) g_head->prev = h;
    g_head = h;
    return user_of(h);
}

// Only a 32-bit size_t can overflow here.
bool fits(uint32_t size) { return sizeof(BlockHeader) <= SIZE_MAX - static_cast<size_t>(size); }

}  // namespace

extern "C" {

KERM_API int32_t ut_memcheck_init(void) noexcept {
    if (pthread_mutex_init(&g_lock, nullptr) != 0) abort();
    return 0;
}

KERM_API int32_t ut_memcheck_deinit(void) noexcept { return pthread_mutex_destroy(&g_lock); }

KERM_API void *ut_malloc(uint32_t size, const char *file, uint32_t line) noexcept {
    void *raw = fits(size) ? malloc(sizeof(BlockHeader) + size) : nullptr;
    if (raw == nullptr) return nullptr;
    return track(static_cast<BlockHeader *>(raw), size, file, line);
}

KERM_API void *ut_calloc(uint32_t count, uint32_t size, const char *file, uint32_t line) noexcept {
    // Deliberate: the product wraps at 32 bits, as on the target.
    const uint32_t total = count * size;
    void *raw = fits(total) ? calloc(1, sizeof(BlockHeader) + total) : nullptr;
    if (raw == nullptr) return nullptr;
    return track(static_cast<BlockHeader *>(raw), total, file, line);
}

KERM_API void ut_free(void *ptr) noexcept {
    if (ptr == nullptr) return;
    BlockHeader *h = header_of(ptr);
    // Deliberate: flipped before the lock is taken, so a scan that meets the
    // block mid-release skips it.
    __atomic_store_n(&h->size, ~h->size, __ATOMIC_RELAXED);
    {
        kerm::MutexGuard hold(&g_lock);
        if (h->prev != nullptr) h->prev->next = h->next;
        else g_head = h->next;
        if (h->next != nullptr) h->next->prev = h->prev;
    }
    free(h);
}

KERM_API void *ut_realloc(void *ptr, uint32_t size, const char *file, uint32_t line) noexcept {
    if (ptr == nullptr) return ut_malloc(size, file, line);
    if (size == 0) {
        ut_free(ptr);
        return nullptr;
    }
    const int32_t old_size = header_of(ptr)->size;
    // Deliberate: blocks never shrink; the old block, its size, file and line
    // stay.
    if (static_cast<int64_t>(size) <= old_size) return ptr;
    void *fresh = ut_malloc(size, file, line);
    if (fresh == nullptr) return nullptr;
    if (old_size > 0) memcpy(fresh, ptr, static_cast<size_t>(old_size));
    ut_free(ptr);
    return fresh;
}

KERM_API int32_t ut_memory_dumpleak(void) noexcept {
    int32_t reported = 0;
    // Under the lock: a release on another thread cannot free the block the
    // walk stands on.
    kerm::MutexGuard hold(&g_lock);
    for (BlockHeader *h = g_head; h != nullptr; h = h->next) {
        const int32_t size = recorded_size(h);
        if (size < 0) continue;
        char text[256];
        memset(text, 0, sizeof text);
        snprintf(text, sizeof text - 1, "%s: %s (%4d): %zd bytes at %p\n", "LEAKED",
                 h->file != nullptr ? h->file : "(null)", static_cast<int>(h->line), static_cast<ssize_t>(size),
                 user_of(h));
        kerm::android_log_write(kPrioFatal, kLeakTag, text);
        ++reported;
    }
    return reported;
}

// Deliberate: no lock, as callers expect of a check made when the process is
// quiescent (at exit); a block being released shows a negative size.
KERM_API int32_t ut_memory_checkleak(void) noexcept {
    for (const BlockHeader *h = g_head; h != nullptr; h = h->next)
        if (recorded_size(h) >= 0) return -1;
    return 0;
}

}  // extern "C"

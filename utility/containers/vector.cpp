// Pointer vector: an exact-size array reallocated on every change, guarded by
// a recursive mutex so that locked calls (and comparators) may nest.
#include <stdlib.h>
#include <string.h>

#include "common/kerm_guard.h"
#include "containers/vector_internal.h"

namespace {

// Shrinks (or releases, at 0) the array after a removal. A failing shrink
// keeps the larger block, which is still valid.
void shrink_to_count(util_vector *v) noexcept {
    if (v->count == 0) {
        free(v->items);
        v->items = nullptr;
        return;
    }
    void *p = realloc(v->items, v->count * sizeof(void *));
    if (p != nullptr) v->items = static_cast<void **>(p);
}

void swap_items(void **a, void **b) noexcept {
    void *t = *a;
    *a = *b;
    *b = t;
}

// Quicksort of items[lo..hi] (inclusive) with the last element as pivot; the
// smaller part recurses, the larger one loops, so depth stays logarithmic.
void quicksort(void **items, uint32_t lo, uint32_t hi, util_vector_cmp_t cmp) noexcept {
    while (lo < hi) {
        void *pivot = items[hi];
        uint32_t i = lo;
        uint32_t j = hi - 1;
        for (;;) {
            while (i < hi && cmp(items[i], pivot) < 0) ++i;
            while (j > lo && cmp(pivot, items[j]) < 0) --j;
            if (i >= j) break;
            swap_items(&items[i], &items[j]);
            ++i;
            if (j > lo) --j;
        }
        swap_items(&items[i], &items[hi]);
        // Left part [lo, i-1], right part [i+1, hi].
        if (i - lo < hi - i) {
            if (i > lo) quicksort(items, lo, i - 1, cmp);
            lo = i + 1;
        } else {
            if (i < hi) quicksort(items, i + 1, hi, cmp);
            if (i == lo) break;
            hi = i - 1;
        }
    }
}

uint32_t bsearch_locked(util_vector *v, const void *key, uint32_t n, util_vector_cmp_t cmp) noexcept {
    if (n == 0 || n > v->count) return UTIL_VECTOR_NOT_FOUND;
    // Deliberate: the key goes first for a single element and second
    // otherwise; callers' comparators accept it in either place.
    if (n == 1) return cmp(key, v->items[0]) == 0 ? 0 : UTIL_VECTOR_NOT_FOUND;
    uint32_t lo = 0, hi = n, mid = n / 2;
    for (;;) {
        int r = cmp(v->items[mid], key);
        if (r == 0) return mid;
        if (r < 0)
            lo = mid + 1;
        else
            hi = mid;
        if (lo >= hi) return UTIL_VECTOR_NOT_FOUND;
        mid = lo + (hi - lo) / 2;
    }
}

}  // namespace

extern "C" {

void util_vector_init(util_vector_t **out) noexcept {
    if (out == nullptr) return;
    auto *v = static_cast<util_vector *>(calloc(1, sizeof(util_vector)));
    if (v == nullptr) return;
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) {
        free(v);
        return;
    }
    bool ok = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 && pthread_mutex_init(&v->lock, &attr) == 0;
    pthread_mutexattr_destroy(&attr);
    if (!ok) {
        free(v);
        return;
    }
    *out = v;
}

void util_vector_deinit(util_vector_t **h) noexcept {
    if (h == nullptr || *h == nullptr) return;
    util_vector *v = *h;
    util_vector_clean(v);
    // Taken once so that a call still inside finishes first; destroyed after
    // the release because destroying a held mutex is undefined.
    kerm::lock_or_abort(&v->lock);
    kerm::unlock_or_abort(&v->lock);
    pthread_mutex_destroy(&v->lock);
    free(v);
    *h = nullptr;
}

int32_t util_vector_clean(util_vector_t *v) noexcept {
    if (v == nullptr) return 0;
    kerm::MutexGuard g(&v->lock);
    for (uint32_t i = 0; i < v->count; ++i) free(v->items[i]);
    free(v->items);
    v->items = nullptr;
    v->count = 0;
    return 0;
}

uint32_t util_vector_length(util_vector_t *v) noexcept {
    if (v == nullptr) return 0;
    kerm::MutexGuard g(&v->lock);
    return v->count;
}

void *util_vector_get_element(util_vector_t *v, uint32_t i) noexcept {
    kerm::MutexGuard g(&v->lock);
    return v->items[i];
}

void *util_vector_get_element_lockfree(util_vector_t *v, uint32_t i) noexcept { return v->items[i]; }

int32_t util_vector_push_back(util_vector_t *v, void *element) noexcept {
    if (v == nullptr) return -1;
    kerm::MutexGuard g(&v->lock);
    void *p = realloc(v->items, (v->count + 1) * sizeof(void *));
    if (p == nullptr) return -1;
    v->items = static_cast<void **>(p);
    v->items[v->count++] = element;
    return 0;
}

void *util_vector_pop_back(util_vector_t *v) noexcept {
    if (v == nullptr) return nullptr;
    kerm::MutexGuard g(&v->lock);
    if (v->count == 0) return nullptr;
    void *e = v->items[v->count - 1];
    v->items[--v->count] = nullptr;
    shrink_to_count(v);
    return e;
}

void *util_vector_take_element(util_vector_t *v, uint32_t i) noexcept {
    if (v == nullptr) return nullptr;
    kerm::MutexGuard g(&v->lock);
    if (i >= v->count) return nullptr;
    void *e = v->items[i];
    memmove(&v->items[i], &v->items[i + 1], (v->count - i - 1) * sizeof(void *));
    v->items[--v->count] = nullptr;
    shrink_to_count(v);
    return e;
}

void util_vector_qsort(util_vector_t *v, uint32_t n, util_vector_cmp_t cmp) noexcept {
    if (v == nullptr || cmp == nullptr) return;
    kerm::MutexGuard g(&v->lock);
    if (n > v->count) n = v->count;
    if (n < 2) return;
    quicksort(v->items, 0, n - 1, cmp);
}

uint32_t util_vector_bsearch(util_vector_t *v, const void *key, uint32_t n, util_vector_cmp_t cmp) noexcept {
    if (v == nullptr || key == nullptr || cmp == nullptr) return UTIL_VECTOR_NOT_FOUND;
    kerm::MutexGuard g(&v->lock);
    return bsearch_locked(v, key, n, cmp);
}

int32_t util_vector_bsearch_all(util_vector_t *v, const void *key, util_vector_cmp_t cmp) noexcept {
    if (v == nullptr || key == nullptr || cmp == nullptr) return -1;
    kerm::MutexGuard g(&v->lock);
    return static_cast<int32_t>(bsearch_locked(v, key, v->count, cmp));
}

}  // extern "C"

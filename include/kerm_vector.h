/** @file kerm_vector.h
 * @brief Growable array of element pointers guarded by one recursive mutex.
 *
 * The vector owns its elements: util_vector_clean and util_vector_deinit
 * release each of them with free(), so elements must come from malloc,
 * calloc or realloc. The array holds exactly `length` slots and is
 * reallocated on every push and removal; that keeps the record small and
 * suits short tables (such as state tables), not bulk storage.
 *
 * Every call except util_vector_get_element_lockfree takes the mutex, which
 * is recursive: a comparator or a caller holding the vector through another
 * call may call back into the same vector from the same thread. A failing
 * lock or unlock ends the process (abort).
 *
 * Index arguments are NOT checked by the element accessors
 * (util_vector_get_element, util_vector_get_element_lockfree): an index at or
 * beyond the length reads past the array, and the vector must not be null.
 * Check util_vector_length first.
 */
#ifndef KERM_VECTOR_H
#define KERM_VECTOR_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The vector record; reached through a handle variable set by util_vector_init. */
typedef struct util_vector util_vector_t;

/** Element comparator: negative, zero or positive as a is below, equal to or above b. */
typedef int (*util_vector_cmp_t)(const void *a, const void *b);

/** Result of util_vector_bsearch when nothing compares equal. */
#define UTIL_VECTOR_NOT_FOUND 0xFFFFFFFFu

/**
 * @brief Creates an empty vector and stores its handle in *out.
 * On any failure (memory, mutex) nothing is allocated and *out is left as it was.
 * @param out where the handle is stored; null is ignored.
 */
KERM_API void util_vector_init(util_vector_t **out) KERM_NOEXCEPT;

/**
 * @brief Releases every element (free), the array, the mutex and the record; sets *h to null.
 * The mutex is taken once before it is destroyed so that no other call is still inside.
 * @param h the handle variable; a null h or *h is ignored.
 */
KERM_API void util_vector_deinit(util_vector_t **h) KERM_NOEXCEPT;

/**
 * @brief Releases every element (free) and the array; the length becomes 0.
 * @return 0 (also for a null vector).
 */
KERM_API int32_t util_vector_clean(util_vector_t *v) KERM_NOEXCEPT;

/**
 * @brief Number of elements, read under the lock.
 * @return the length; 0 for a null vector.
 */
KERM_API uint32_t util_vector_length(util_vector_t *v) KERM_NOEXCEPT;

/**
 * @brief Element at index i, read under the lock. The index is not checked.
 * @return the element pointer.
 */
KERM_API void *util_vector_get_element(util_vector_t *v, uint32_t i) KERM_NOEXCEPT;

/**
 * @brief Element at index i without taking the lock (for callers that already
 * hold it, e.g. inside a comparator). The index is not checked.
 * @return the element pointer.
 */
KERM_API void *util_vector_get_element_lockfree(util_vector_t *v, uint32_t i) KERM_NOEXCEPT;

/**
 * @brief Appends an element, growing the array by one slot.
 * @return 0; -1 for a null vector or when the array cannot grow (vector unchanged).
 */
KERM_API int32_t util_vector_push_back(util_vector_t *v, void *element) KERM_NOEXCEPT;

/**
 * @brief Removes the last element and hands it to the caller; the array shrinks by one slot
 * (a shrink that cannot reallocate keeps the larger array, so removal never fails for memory).
 * @return the element, or null when the vector is empty.
 */
KERM_API void *util_vector_pop_back(util_vector_t *v) KERM_NOEXCEPT;

/**
 * @brief Removes the element at index i, shifting the later ones down, and hands it to the caller.
 * @return the element, or null when the vector is empty or i is not below the length.
 */
KERM_API void *util_vector_take_element(util_vector_t *v, uint32_t i) KERM_NOEXCEPT;

/**
 * @brief Sorts elements [0, n) in place so that cmp(earlier, later) <= 0 (quicksort,
 * last element as pivot, logarithmic recursion depth).
 * A null comparator does nothing; n is the caller's count and is cut to the length.
 */
KERM_API void util_vector_qsort(util_vector_t *v, uint32_t n, util_vector_cmp_t cmp) KERM_NOEXCEPT;

/**
 * @brief Binary search of elements [0, n) sorted by util_vector_qsort.
 * The comparator receives the key first when n is 1 and second otherwise, so it
 * must accept the key in either argument.
 * @return the index of an element comparing equal to key, or UTIL_VECTOR_NOT_FOUND
 * (also for a null key or comparator, n of 0, or n above the length).
 */
KERM_API uint32_t util_vector_bsearch(util_vector_t *v, const void *key, uint32_t n,
                                      util_vector_cmp_t cmp) KERM_NOEXCEPT;

/**
 * @brief util_vector_bsearch over the whole vector, as one locked call.
 * @return the index, or -1 when not found (or for a null key or comparator).
 */
KERM_API int32_t util_vector_bsearch_all(util_vector_t *v, const void *key, util_vector_cmp_t cmp) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

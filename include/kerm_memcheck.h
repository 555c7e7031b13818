/** @file kerm_memcheck.h
 * @brief Allocation tracking: allocation calls that record the caller's file and line
 * for every live block, and a report of the blocks still alive (the leaks) to
 * the Android log. */
#ifndef KERM_MEMCHECK_H
#define KERM_MEMCHECK_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Call before the first tracked allocation; 0 (aborts if the mutex cannot be
 * initialised). */
KERM_API int32_t ut_memcheck_init(void) KERM_NOEXCEPT;
/** Call after the last tracked release; the mutex destruction's result. */
KERM_API int32_t ut_memcheck_deinit(void) KERM_NOEXCEPT;

/** `file` is kept as a pointer, not copied: pass a string literal (__FILE__). */
KERM_API void *ut_malloc(uint32_t size, const char *file, uint32_t line) KERM_NOEXCEPT;
/** count * size is taken modulo 2^32, as the 32-bit target computes it. */
KERM_API void *ut_calloc(uint32_t count, uint32_t size, const char *file, uint32_t line) KERM_NOEXCEPT;
/** Only pointers from ut_malloc/ut_calloc/ut_realloc; null is ignored. */
KERM_API void ut_free(void *ptr) KERM_NOEXCEPT;
/** Null ptr: ut_malloc. Size 0: ut_free and null. A size not above the current
 * one returns ptr unchanged (blocks never shrink). Otherwise a new block with
 * the new file and line; on failure null and the old block stays. */
KERM_API void *ut_realloc(void *ptr, uint32_t size, const char *file, uint32_t line) KERM_NOEXCEPT;

/** Writes one "LEAKED: file (line): n bytes at p" line per live block, newest
 * first, to the Android log (priority fatal, tag "VASK44"). Reads the list
 * without the lock: call it when no other thread allocates. Returns the
 * number of lines written. */
KERM_API int32_t ut_memory_dumpleak(void) KERM_NOEXCEPT;
/** -1 if any live block exists, else 0. Same locking caveat. */
KERM_API int32_t ut_memory_checkleak(void) KERM_NOEXCEPT;

#define UT_MALLOC(size) ut_malloc((size), __FILE__, __LINE__)
#define UT_CALLOC(count, size) ut_calloc((count), (size), __FILE__, __LINE__)
#define UT_REALLOC(ptr, size) ut_realloc((ptr), (size), __FILE__, __LINE__)
#define UT_FREE(ptr) ut_free(ptr)

#ifdef __cplusplus
}
#endif

#endif

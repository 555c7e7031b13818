// Ring-queue entry points with a caller-chosen attempt budget, for the
// library's own pools: a pool that is full or empty answers at once instead
// of spending the public 1000-attempt budget (and its yields). Not installed.
#ifndef KERM_RQUEUE_INTERNAL_H
#define KERM_RQUEUE_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include <new>

#include "kerm_rqueue.h"

namespace kerm {

int32_t rqueue_write_budget(util_rqueue_t *queue, void *value, uint32_t attempts) noexcept;
void *rqueue_read_budget(util_rqueue_t *queue, uint32_t attempts) noexcept;
// writes - reads: the number of values waiting.
uint64_t rqueue_pending(util_rqueue_t *queue) noexcept;

// The free-value callback that hands each value to free().
void rqueue_free_value(void *value, void *new_value) noexcept;

// Data written by different threads goes on separate lines of this size so
// that one side's stores do not steal the line the other side is reading.
// It only lays out records private to the library, so the compiler's warning
// that the value may differ between compiler versions does not apply.
#ifdef __cpp_lib_hardware_interference_size
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winterference-size"
inline constexpr size_t kCacheLine = std::hardware_destructive_interference_size;
#pragma GCC diagnostic pop
#else
inline constexpr size_t kCacheLine = 64;  // compilers that do not tell: the common line size
#endif

// Tells the processor this is a spin-wait loop.
inline void cpu_relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

}  // namespace kerm

#endif

// Processor facts shared by the lock-free and the sharded containers: the
// cache-line size that keeps data of different writers apart, and the hint
// for a spin-wait loop.
#ifndef KERM_CPU_H
#define KERM_CPU_H

#include <stddef.h>

#include <new>

namespace kerm {

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

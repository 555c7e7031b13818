// Process-wide logging state shared by the header builder, the control call
// and the outputs.
#ifndef KERM_LOG_INTERNAL_H
#define KERM_LOG_INTERNAL_H

#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <time.h>

#include "kerm_log.h"

namespace kerm::log {

using WriteFn = void (*)(uint32_t module, uint32_t level, const char *head, const char *format, va_list ap);

struct LogState {
    uint8_t enabled;
    uint32_t head_flags;
    int32_t pid;
    uint32_t level;
    uint32_t output;
    WriteFn write;
    struct Thresholds {
        uint8_t v[VASK_LOG_MODULE_MAX];
    } module_level;
    pthread_rwlock_t lock;
};

extern LogState g_state;

// enabled, head_flags and the thresholds are read without the lock by the
// header builder; relaxed atomics keep those reads well defined.
template <class T>
inline T load(const T &v) {
    return __atomic_load_n(&v, __ATOMIC_RELAXED);
}
template <class T>
inline void store(T &v, T x) {
    __atomic_store_n(&v, x, __ATOMIC_RELAXED);
}

inline bool passes(uint32_t module, uint32_t level) {
    return load(g_state.enabled) != 0 && module < VASK_LOG_MODULE_MAX &&
           level <= load(g_state.module_level.v[module]);
}

// Level letter; levels above 5 are not message levels and print as '?'.
inline char level_letter(uint32_t level) { return level <= VASK_LOG_VERBOSE ? "FEWITV"[level] : '?'; }
// Index into the per-level tables, clamped so an invalid level never reads past them.
inline uint32_t clamp_level(uint32_t level) { return level <= VASK_LOG_VERBOSE ? level : VASK_LOG_VERBOSE; }

pid_t current_tid();

// Monotonic stamp of the header: microseconds in 32-bit unsigned arithmetic,
// so it wraps every 2^32 us (about 71.6 minutes).
inline uint32_t mono_stamp_us(const struct timespec &ts) {
    return static_cast<uint32_t>(ts.tv_sec) * 1000000u + static_cast<uint32_t>(ts.tv_nsec / 1000);
}

// Console writer: the output selected before any initialisation.
void console_write(uint32_t module, uint32_t level, const char *head, const char *format, va_list ap);

// Output table (log_output.cpp). Called with the state lock held for writing,
// or from initialise.
WriteFn output_write(uint32_t index);
void output_start_if_stopped(uint32_t index);
void output_stop_if_started(uint32_t index);

}  // namespace kerm::log

#endif

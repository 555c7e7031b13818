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

// The process id and the kernel thread id, asked once (per process, per
// thread) and forgotten in a forked child: every console and socket line and
// the tid header column need them.
pid_t current_pid();
pid_t current_tid();

// Clock of the header stamp (CLOCK_MONOTONIC) and of the line time texts
// (CLOCK_REALTIME). Tests point it at an injected clock; nothing else sets it.
using ClockFn = int (*)(clockid_t, struct timespec *);
extern ClockFn g_clock;

// get_local_time into `dst` bounded by `size` (as snprintf does); returns the
// number of characters written. The date and time text is made once per
// second per thread and reused, so a time-zone change shows from the next
// second on.
uint32_t local_time_text(char *dst, uint32_t size);

// "%s %5d %5d" of get_local_time with room 39, the process id and the thread
// id: the start of every console and socket line. `out` holds at least
// kLinePrefixMax + 1 bytes; returns the length.
constexpr uint32_t kLinePrefixMax = 38 + 1 + 11 + 1 + 11;
uint32_t line_prefix(char *out);

// printf's "%<width>d" / "%<width>u" into `out` (at least width + 11 bytes);
// returns the number of characters. put_zero_padded is "%0<width>u".
inline uint32_t put_number(char *out, uint32_t magnitude, bool negative, uint32_t width, char fill = ' ') {
    char digits[12];
    char *p = digits + sizeof digits;
    do {
        *--p = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (negative) *--p = '-';
    const uint32_t n = static_cast<uint32_t>(digits + sizeof digits - p);
    const uint32_t pad = n < width ? width - n : 0;
    for (uint32_t i = 0; i < pad; ++i) out[i] = fill;
    for (uint32_t i = 0; i < n; ++i) out[pad + i] = p[i];
    return pad + n;
}
inline uint32_t put_int(char *out, int32_t v, uint32_t width) {
    return put_number(out, v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v), v < 0, width);
}
inline uint32_t put_uint(char *out, uint32_t v, uint32_t width) { return put_number(out, v, false, width); }
inline uint32_t put_zero_padded(char *out, uint32_t v, uint32_t width) { return put_number(out, v, false, width, '0'); }

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

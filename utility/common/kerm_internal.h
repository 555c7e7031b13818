// Internal helpers shared by the library's families. Not installed.
#ifndef KERM_INTERNAL_H
#define KERM_INTERNAL_H

#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "kerm_export.h"
#include "kerm_log.h"

// The two-step log call every family uses: build the header, print only if it
// passed the filter. `file` is the family's fixed source path text.
#define KERM_LOGF(module, level, file, function, ...)                                     \
    do {                                                                                  \
        char kerm_head_[VASK_LOG_HEAD_SIZE];                                              \
        if (vask_log_gen_head((module), (level), kerm_head_, VASK_LOG_HEAD_SIZE, (file),  \
                              (function), __LINE__) != 0)                                 \
            vask_log_print((module), (level), kerm_head_, __VA_ARGS__);                   \
    } while (0)
#define KERM_LOG(module, level, file, ...) KERM_LOGF(module, level, file, __func__, __VA_ARGS__)

// Module ids used inside the library.
#define KERM_MOD_SDR 0x00u
#define KERM_MOD_HMS_TASK 0x40u
#define KERM_MOD_SEI 0x53u
#define KERM_MOD_FILE 0x70u
#define KERM_MOD_HMS 0x86u

namespace kerm {

// Fixed platform paths ("/etc/nox.json", "/proc/cmdline", "/dev/mem", ...) are
// looked up below the directory named by KERM_UTIL_ROOT when that variable is
// set and non-empty, so tests never touch the real files. Returns `out`, or
// `fixed` itself when there is no override. Read on every call.
const char *platform_path(const char *fixed, char *out, size_t out_size) noexcept;

// Lock and unlock calls whose failure means a corrupted lock: end the process.
// Inline: the containers take a lock on every call.
inline void lock_or_abort(pthread_mutex_t *m) noexcept {
    if (pthread_mutex_lock(m) != 0) abort();
}
inline void unlock_or_abort(pthread_mutex_t *m) noexcept {
    if (pthread_mutex_unlock(m) != 0) abort();
}

// sem_wait retried while interrupted by a signal.
int sem_wait_nointr(sem_t *s) noexcept;

}  // namespace kerm

#endif

#include "common/kerm_internal.h"
#include "common/kerm_guard.h"

#include <stdio.h>
#include <string.h>

namespace kerm {

const char *platform_path(const char *fixed, char *out, size_t out_size) noexcept {
    const char *root = getenv("KERM_UTIL_ROOT");
    if (root == nullptr || root[0] == '\0' || out == nullptr || out_size == 0) return fixed;
    int n = snprintf(out, out_size, "%s%s", root, fixed);
    if (n < 0 || static_cast<size_t>(n) >= out_size) return fixed;
    return out;
}

void recursive_mutex_init_or_abort(pthread_mutex_t *m) noexcept {
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) abort();
    if (pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) != 0 || pthread_mutex_init(m, &attr) != 0) abort();
    pthread_mutexattr_destroy(&attr);
}

void mutex_init_or_abort(pthread_mutex_t *m) noexcept {
    if (pthread_mutex_init(m, nullptr) != 0) abort();
}

int sem_wait_nointr(sem_t *s) noexcept {
    int rc;
    do {
        rc = sem_wait(s);
    } while (rc != 0 && errno == EINTR);
    return rc;
}

}  // namespace kerm

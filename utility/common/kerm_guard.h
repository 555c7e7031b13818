// Scope guards for the library's locks, descriptors and heap blocks. Not
// installed.
#ifndef KERM_GUARD_H
#define KERM_GUARD_H

#include <pthread.h>
#include <semaphore.h>
#include <stdlib.h>
#include <unistd.h>

#include "common/kerm_internal.h"

namespace kerm {

// Holds a pthread mutex for the scope. A failing lock or unlock means a
// corrupted lock: the process ends (lock_or_abort).
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t *m) noexcept : m_(m) { lock_or_abort(m_); }
    ~MutexGuard() { unlock_or_abort(m_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    pthread_mutex_t *m_;
};

// Tries a pthread reader-writer lock for reading without waiting and holds
// it for the scope if that worked; status() is the try's result. For callers
// that drop their work rather than wait.
class RwTryReadGuard {
public:
    explicit RwTryReadGuard(pthread_rwlock_t *l) noexcept : l_(l), rc_(pthread_rwlock_tryrdlock(l)) {}
    ~RwTryReadGuard() { (void)unlock(); }
    RwTryReadGuard(const RwTryReadGuard &) = delete;
    RwTryReadGuard &operator=(const RwTryReadGuard &) = delete;
    int status() const noexcept { return rc_; }
    // Releases early; returns the release's result (0 when not held).
    int unlock() noexcept {
        if (rc_ != 0 || l_ == nullptr) return 0;
        pthread_rwlock_t *l = l_;
        l_ = nullptr;
        return pthread_rwlock_unlock(l);
    }

private:
    pthread_rwlock_t *l_;
    int rc_;
};

// Holds a process-private semaphore of initial value 1, used as a lock, for
// the scope: waits (again after a signal) and posts at the end. A wait that
// fails otherwise means a semaphore never made or already destroyed: the
// process ends, as for a failing mutex.
class SemGuard {
public:
    explicit SemGuard(sem_t *s) noexcept : s_(s) {
        if (sem_wait_nointr(s_) != 0) abort();
    }
    ~SemGuard() { sem_post(s_); }
    SemGuard(const SemGuard &) = delete;
    SemGuard &operator=(const SemGuard &) = delete;

private:
    sem_t *s_;
};

// Owns a block from malloc/calloc; frees it at the end of the scope unless
// released.
template <class T>
class MallocGuard {
public:
    explicit MallocGuard(T *p = nullptr) noexcept : p_(p) {}
    ~MallocGuard() { free(p_); }
    MallocGuard(const MallocGuard &) = delete;
    MallocGuard &operator=(const MallocGuard &) = delete;
    T *get() const noexcept { return p_; }
    T *release() noexcept {
        T *p = p_;
        p_ = nullptr;
        return p;
    }

private:
    T *p_;
};

// Initialises a recursive pthread mutex (the containers' default); aborts on
// failure like every other lock operation of the containers.
void recursive_mutex_init_or_abort(pthread_mutex_t *m) noexcept;

// Owns a descriptor; closes it at the end of the scope unless released.
class FdGuard {
public:
    explicit FdGuard(int fd = -1) noexcept : fd_(fd) {}
    ~FdGuard() {
        if (fd_ >= 0) ::close(fd_);
    }
    FdGuard(const FdGuard &) = delete;
    FdGuard &operator=(const FdGuard &) = delete;
    int get() const noexcept { return fd_; }
    int release() noexcept {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

}  // namespace kerm

#endif

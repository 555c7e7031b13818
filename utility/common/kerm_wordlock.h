// A non-recursive mutex in one 32-bit word that lives in someone else's
// memory (a record the caller zeroes and owns). Not installed.
//
// 0 = free, 1 = held, 2 = held with sleepers. Zero-initialised memory is an
// unlocked lock and nothing needs destroying. Waiters sleep on the word with
// a private futex and the unlocking thread wakes one. (The C++20 atomic wait
// would do the same, but its shared waiter table is a symbol the library
// would have to export.) Ordering comes from the acquire/release operations
// on the word, which is what the thread sanitizer follows.
// Uncontended, lock is one compare-and-swap and unlock one exchange: the
// unlock has to see the value it replaces to learn of a sleeper, and a plain
// store could miss one that announced itself a moment before.
// Meets BasicLockable, so std::lock_guard<kerm::WordLock> guards it.
#ifndef KERM_WORDLOCK_H
#define KERM_WORDLOCK_H

#include <linux/futex.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace kerm {

class WordLock {
public:
    explicit WordLock(uint32_t &word) noexcept : word_(&word), w_(word) {}

    void lock() noexcept {
        uint32_t c = kFree;
        if (w_.compare_exchange_strong(c, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) return;
        // Announce a sleeper before sleeping so the holder's unlock wakes us.
        if (c != kContended) c = w_.exchange(kContended, std::memory_order_acquire);
        while (c != kFree) {
            if (c > kContended) abort();  // not a lock word: corrupted memory
            futex(FUTEX_WAIT_PRIVATE, kContended);  // returns at once if the word moved on
            c = w_.exchange(kContended, std::memory_order_acquire);
        }
    }

    bool try_lock() noexcept {
        uint32_t c = kFree;
        return w_.compare_exchange_strong(c, kHeld, std::memory_order_acquire, std::memory_order_relaxed);
    }

    // Unlocking a free word means a broken caller or corrupted memory: the
    // process ends, like every other failing lock operation of the library.
    void unlock() noexcept {
        const uint32_t prev = w_.exchange(kFree, std::memory_order_release);
        if (prev == kContended) futex(FUTEX_WAKE_PRIVATE, 1);
        else if (prev != kHeld) abort();
    }

private:
    static constexpr uint32_t kFree = 0, kHeld = 1, kContended = 2;

    void futex(int op, uint32_t value) noexcept { syscall(SYS_futex, word_, op, value, nullptr, nullptr, 0); }

    uint32_t *word_;
    std::atomic_ref<uint32_t> w_;
};

}  // namespace kerm

#endif

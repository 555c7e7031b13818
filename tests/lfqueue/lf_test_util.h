// Shared helpers of the lock-free queue suites. Not installed.
#ifndef KERM_TEST_LF_UTIL_H
#define KERM_TEST_LF_UTIL_H

#include <gtest/gtest.h>
#include <sched.h>
#include <stdint.h>
#include <stdlib.h>

#include <atomic>
#include <thread>
#include <vector>

namespace lftest {

// Iteration counts shrink under the 32-bit emulator and ThreadSanitizer,
// where every atomic costs many times more; the interleavings stay varied.
inline int scaled(int n) {
    int div = 1;
    if (getenv("KERM_TEST_EMULATOR")) div *= 8;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    div *= 4;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    div *= 4;
#endif
#endif
    return n / div > 0 ? n / div : 1;
}

// Distinct non-zero values: thread in the high bits, sequence below.
inline void *value_of(int thread, int seq) {
    return reinterpret_cast<void *>(static_cast<uintptr_t>(thread + 1) << 20 | static_cast<uintptr_t>(seq + 1));
}
inline int thread_of(void *v) { return static_cast<int>((reinterpret_cast<uintptr_t>(v) >> 20) - 1); }
inline int seq_of(void *v) { return static_cast<int>((reinterpret_cast<uintptr_t>(v) & 0xFFFFF) - 1); }

// Runs f(thread index) on n threads that start together.
template <class F>
void run_threads(int n, F &&f) {
    std::atomic<int> arrived{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t)
        threads.emplace_back([&, t] {
            arrived.fetch_add(1);
            while (arrived.load() < n) std::this_thread::yield();
            f(t);
        });
    for (auto &th : threads) th.join();
}

// Two producers each put(value) per_producer values (retried while put
// refuses) and two consumers take() until all are taken: the values each
// consumer got, in the order got.
template <class Put, class Take>
std::vector<std::vector<void *>> pass_through(int per_producer, Put &&put, Take &&take) {
    std::atomic<int> taken{0};
    std::vector<std::vector<void *>> got(2);
    run_threads(4, [&](int t) {
        if (t < 2) {
            for (int i = 0; i < per_producer; ++i)
                while (put(value_of(t, i)) != 0) sched_yield();
            return;
        }
        while (taken.load() < 2 * per_producer) {
            if (void *x = take()) {
                got[t - 2].push_back(x);
                taken.fetch_add(1);
            } else {
                sched_yield();  // two cores: let the producers run
            }
        }
    });
    return got;
}

// Every value of `threads` x `per_thread` taken exactly once across the
// lists; with in_order, each list holds each thread's values in the order made.
inline void expect_each_once(const std::vector<std::vector<void *>> &lists, int threads, int per_thread,
                             bool in_order) {
    std::vector<int> seen(threads * per_thread, 0);
    for (const auto &list : lists) {
        std::vector<int> last(threads, -1);
        for (void *x : list) {
            int t = thread_of(x), s = seq_of(x);
            ASSERT_TRUE(t >= 0 && t < threads && s >= 0 && s < per_thread) << x;
            if (in_order) {
                ASSERT_GT(s, last[t]) << "thread " << t << " out of order";
            }
            last[t] = s;
            ++seen[t * per_thread + s];
        }
    }
    for (size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i], 1) << "value " << i;
}

}  // namespace lftest

#endif

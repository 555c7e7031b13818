// Shared helpers of the health-monitoring tests.
#ifndef HMS_TEST_UTIL_H
#define HMS_TEST_UTIL_H

#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "kerm_hms.h"
#include "kerm_log.h"

namespace hms_test {

// Generous: the suites also run under emulation and sanitizers.
inline constexpr std::chrono::seconds kWait{60};

inline uint32_t walk_count(const vask_hms_list *l) {
    uint32_t n = 0;
    const vask_hms_link *prev = &l->head;
    for (const vask_hms_link *p = l->head.next; p != &l->head; prev = p, p = p->next) {
        EXPECT_EQ(p->prev, prev) << "broken back link";
        ++n;
    }
    EXPECT_EQ(l->head.prev, prev) << "sentinel does not point at the tail";
    EXPECT_EQ(n, l->count) << "count disagrees with the links";
    return n;
}

inline uint32_t pool_free(vask_hms_pool *pool) {
    sem_wait(&pool->lock);
    uint32_t n = walk_count(pool->free_list);
    sem_post(&pool->lock);
    return n;
}

// Every node is somewhere: in the pool or in one of the store's lists. Takes
// the locks in the library's order, so it may run while a worker is busy.
inline uint32_t nodes_accounted(vask_hms_data *d, vask_hms_pool *pool) {
    sem_wait(&d->recv_lock);
    sem_wait(&d->state_lock);
    uint32_t n = walk_count(d->recv) + walk_count(d->spare) + walk_count(d->active) + walk_count(d->standby);
    n += pool_free(pool);
    sem_post(&d->state_lock);
    sem_post(&d->recv_lock);
    return n;
}

inline std::vector<vask_hms_err> active_errs(vask_hms_data *d) {
    std::vector<vask_hms_err> out;
    sem_wait(&d->state_lock);
    for (vask_hms_link *p = d->active->head.next; p != &d->active->head; p = p->next)
        out.push_back(reinterpret_cast<vask_hms_node *>(p)->err);
    sem_post(&d->state_lock);
    return out;
}

inline std::string str(const vask_hms_err &e) {
    char b[40];
    snprintf(b, sizeof b, "%x:%u=%u", static_cast<unsigned>(e.code), e.index, e.status);
    return b;
}

// Records the store's notifications as "raised 10:1=2" and so on.
struct Events {
    std::mutex m;
    std::vector<std::string> list;
    void add(const char *what, const vask_hms_err *e) {
        std::lock_guard<std::mutex> g(m);
        list.push_back(std::string(what) + " " + str(*e));
    }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> g(m);
        return std::move(list);
    }
    void attach(vask_hms_data *d) {
        d->user = this;
        d->on_raised = [](void *u, const vask_hms_err *e) { static_cast<Events *>(u)->add("raised", e); };
        d->on_changed = [](void *u, const vask_hms_err *e) { static_cast<Events *>(u)->add("changed", e); };
        d->on_cleared = [](void *u, const vask_hms_err *e) { static_cast<Events *>(u)->add("cleared", e); };
    }
};

// Log lines of modules 0x86 and 0x40 down to info level, with a header of
// module, level and function only, captured from the console output.
class LogCapture {
public:
    LogCapture() {
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_MODULE | LOG_HDR_LEVEL | LOG_HDR_FUNC, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x86, VASK_LOG_INFO);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x40, VASK_LOG_INFO);
        fflush(stdout);
        testing::internal::CaptureStdout();
    }
    ~LogCapture() {
        if (!done_) finish();
    }
    const std::string &finish() {
        fflush(stdout);
        text_ = testing::internal::GetCapturedStdout();
        done_ = true;
        return text_;
    }
    // A line with this module, level, function and message text.
    static std::string line(unsigned module, int level, const char *function, const char *text) {
        char b[512];
        snprintf(b, sizeof b, "VASK%02X@%d[%24s :%s", module, level, function, text);
        return b;
    }
    bool has(unsigned module, int level, const char *function, const char *text) {
        if (!done_) finish();
        return text_.find(line(module, level, function, text)) != std::string::npos;
    }
    const std::string &text() { return done_ ? text_ : finish(); }

private:
    std::string text_;
    bool done_ = false;
};

// Waits on cv until pred holds; false after the generous bound.
template <class Pred>
bool wait_until(std::unique_lock<std::mutex> &lk, std::condition_variable &cv, Pred pred) {
    return cv.wait_for(lk, kWait, pred);
}

// The library wakes its worker with SIGUSR1 and installs no handler.
inline void install_sigusr1() {
    struct sigaction sa {};
    sa.sa_handler = [](int) {};
    sigemptyset(&sa.sa_mask);
    sigaction(SIGUSR1, &sa, nullptr);
}

}  // namespace hms_test

#endif

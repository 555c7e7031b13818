// Shared helpers of the health-monitoring tests.
#ifndef HMS_TEST_UTIL_H
#define HMS_TEST_UTIL_H

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "kerm_hms.h"
#include "kerm_log.h"

namespace hms_test {

using V = std::vector<std::string>;

// Generous: the suites also run under emulation and sanitizers.
inline constexpr std::chrono::seconds kWait{60};

// Polls until pred holds; false once the bound has passed.
template <class Pred>
bool eventually(Pred pred) {
    for (auto end = std::chrono::steady_clock::now() + kWait; !pred(); usleep(1000))
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

// Walks a list checking the back links and the count.
inline uint32_t walk_count(const vask_hms_list *l) {
    uint32_t n = 0;
    const vask_hms_link *prev = &l->head;
    for (const vask_hms_link *p = l->head.next; p != &l->head; prev = p, p = p->next, ++n)
        EXPECT_EQ(p->prev, prev) << "broken back link";
    EXPECT_EQ(l->head.prev, prev) << "sentinel does not point at the tail";
    EXPECT_EQ(n, l->count) << "count disagrees with the links";
    return n;
}

// Callers hold the store's locks or run alone.
inline uint32_t pool_free(vask_hms_pool *pool) { return walk_count(pool->free_list); }

// Every node is in the pool or in one of the store's lists. The two store
// locks, taken in the library's order, keep a running worker off the pool.
inline uint32_t nodes_accounted(vask_hms_data *d, vask_hms_pool *pool) {
    sem_wait(&d->recv_lock);
    sem_wait(&d->state_lock);
    uint32_t n = walk_count(d->recv) + walk_count(d->spare) + walk_count(d->active) + walk_count(d->standby);
    n += pool_free(pool);
    sem_post(&d->state_lock);
    sem_post(&d->recv_lock);
    return n;
}

inline std::string str(const vask_hms_err &e) {
    char b[40];
    snprintf(b, sizeof b, "%x:%u=%u", static_cast<unsigned>(e.code), e.index, e.status);
    return b;
}

inline V active(vask_hms_data *d) {
    V out;
    sem_wait(&d->state_lock);
    for (vask_hms_link *p = d->active->head.next; p != &d->active->head; p = p->next)
        out.push_back(str(reinterpret_cast<vask_hms_node *>(p)->err));
    sem_post(&d->state_lock);
    return out;
}

// Records the store's notifications as "raised 10:1=2" and so on.
struct Events {
    std::mutex m;
    V list;
    V take() {
        std::lock_guard<std::mutex> g(m);
        return std::move(list);
    }
    template <int K>
    static void add(void *user, const vask_hms_err *e) {
        static const char *const kWhat[] = {"raised ", "changed ", "cleared "};
        auto *ev = static_cast<Events *>(user);
        std::lock_guard<std::mutex> g(ev->m);
        ev->list.push_back(kWhat[K] + str(*e));
    }
    void attach(vask_hms_data *d) {
        d->user = this;
        d->on_raised = add<0>, d->on_changed = add<1>, d->on_cleared = add<2>;
    }
};

// Console log lines of the health module down to info level, headed by
// module, level and function only.
struct LogCapture {
    std::string text;
    bool done = false;
    LogCapture() {
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_MODULE | LOG_HDR_LEVEL | LOG_HDR_FUNC, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x86, VASK_LOG_INFO);
        fflush(stdout);
        testing::internal::CaptureStdout();
    }
    ~LogCapture() { has(0, "", ""); }
    bool has(int level, const char *function, const char *msg) {
        if (!done) fflush(stdout), text = testing::internal::GetCapturedStdout(), done = true;
        char b[512];
        snprintf(b, sizeof b, "VASK86@%d[%24s :%s", level, function, msg);
        return text.find(b) != std::string::npos;
    }
};

}  // namespace hms_test

#endif

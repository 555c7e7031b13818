// Health client: configuration, detection rules, subscribers and the worker
// thread that detects, syncs and sends report messages.
//
// Every user of the client's timer lock is in this file. It is innermost:
// the worker's re-arm and start take it alone, and the report packing
// (kerm_hms_data.cpp) takes it, through publish_report, inside the store's
// state_lock. The store's own locks are used only through the store's
// functions.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include "common/kerm_guard.h"
#include "common/kerm_internal.h"
#include "hms/kerm_hms_internal.h"
#include "kerm_hms.h"

namespace kerm::hms {

std::atomic<void (*)(vask_hms_client *)> g_before_wait_hook{nullptr};

namespace {

constexpr const char *kFile = "utility/hms/kerm_hms";
constexpr uint8_t kDefaultMaxItems = 5;
constexpr int16_t kDefaultPoolSize = 255;
constexpr uint8_t kDefaultSubscribers = 3;
constexpr size_t kMsgBuffer = 1028;
constexpr long kNsPerSec = 1000000000L;

// The worker's own client, so destroy can refuse to join the calling thread
// without relying on when pthread_create publishes the handle.
thread_local vask_hms_client *t_worker_client = nullptr;

// Request and status bytes and subscriber fields are written by the caller's
// threads and read by the worker without a lock: single-byte (or halfword)
// atomic accesses keep them plain bytes without tearing.
inline uint8_t load8(const uint8_t *p) noexcept { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
inline void store8(uint8_t *p, uint8_t v) noexcept { __atomic_store_n(p, v, __ATOMIC_RELEASE); }

void ts_add_us(struct timespec *t, uint32_t us) noexcept {
    t->tv_sec += us / 1000000u;
    t->tv_nsec += static_cast<long>(us % 1000000u) * 1000L;
    if (t->tv_nsec > kNsPerSec - 1) {
        t->tv_sec += 1;
        t->tv_nsec -= kNsPerSec;
    }
}

bool ts_later(const struct timespec &a, const struct timespec &b) noexcept {
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

int32_t hms_err_detect_init(vask_hms_client *c) noexcept {
    const int32_t n = c->cfg.rule_count;
    // No table can be made for a negative count; an empty one is no table.
    if (n < 0) return KERM_ERR_NO_MEMORY;
    if (n == 0) return KERM_OK;
    c->rules = static_cast<vask_hms_rule_state *>(calloc(static_cast<size_t>(n), sizeof(vask_hms_rule_state)));
    if (c->rules == nullptr) return KERM_ERR_NO_MEMORY;
    for (int32_t i = 0; i < n; ++i) {
        vask_hms_rule_state *r = &c->rules[i];
        r->rule = c->cfg.rules[i];
        if (r->rule.first_index > r->rule.last_index) {
            KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "config(%08x) error:%d > %d\n", r->rule.code,
                     r->rule.first_index, r->rule.last_index);
            return KERM_ERR_NO_MEMORY;
        }
        r->prev_status = static_cast<uint8_t *>(calloc(r->rule.last_index - r->rule.first_index + 1u, 1));
        if (r->prev_status == nullptr) {
            KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "calloc(prev_status) failed\n");
            return KERM_ERR_NO_MEMORY;
        }
    }
    return KERM_OK;
}

// Frees the rule table with every prev_status made so far.
int32_t hms_err_detect_deinit(vask_hms_client *c) noexcept {
    if (c->rules != nullptr) {
        for (int32_t i = 0; i < c->cfg.rule_count; ++i) free(c->rules[i].prev_status);
        free(c->rules);
        c->rules = nullptr;
    }
    return KERM_OK;
}

// Fixed-rate re-arm: advance from the previous wake time, and skip (not make
// up) every tick that already passed.
void rearm(vask_hms_client *c) noexcept {
    const uint32_t period = c->period_now;
    SemGuard timer(&c->timer_lock);
    ts_add_us(&c->wake, period);
    struct timespec now;
    int rc = clock_gettime(CLOCK_MONOTONIC, &now);
    if (rc != 0) {
        KERM_LOGF(KERM_MOD_HMS_TASK, VASK_LOG_WARNING, kFile, "hms_client_task", "Timer get fail! %d, %d", rc, errno);
    } else if (period == 0) {
        // Nothing to step by: catching up would never end.
        if (ts_later(now, c->wake)) c->wake = now;
    } else {
        while (ts_later(now, c->wake)) ts_add_us(&c->wake, period);
    }
}

void hms_err_detect(vask_hms_client *c) noexcept {
    if (c->rules == nullptr || c->cfg.rule_count < 1) return;
    struct timespec now;
    int rc = clock_gettime(CLOCK_MONOTONIC, &now);
    if (rc != 0) {
        KERM_LOG(KERM_MOD_HMS_TASK, VASK_LOG_WARNING, kFile, "Timer get fail! %d, %d", rc, errno);
        return;
    }
    if (ts_later(c->next_detect, now)) return;
    for (int32_t i = 0; i < c->cfg.rule_count; ++i) {
        vask_hms_rule_state *r = &c->rules[i];
        const uint8_t injected = load8(&r->injected);
        if (injected != 0 || r->rule.enabled == 0) {
            KERM_LOG(KERM_MOD_HMS, VASK_LOG_INFO, kFile, "detect[%d]need skip %d %d\n", i, injected,
                     r->rule.enabled);
            continue;
        }
        if (r->rule.first_index > r->rule.last_index) {
            KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "detect[%d] %d > %d need skip\n", i,
                     r->rule.first_index, r->rule.last_index);
            continue;
        }
        if (r->rule.detect == nullptr) continue;
        for (unsigned k = r->rule.first_index; k <= r->rule.last_index; ++k) {
            const uint8_t status = r->rule.detect(r->rule.arg, static_cast<uint8_t>(k));
            uint8_t *prev = &r->prev_status[k - r->rule.first_index];
            if (status == *prev) continue;
            *prev = status;
            const vask_hms_err e{r->rule.code, static_cast<uint8_t>(k), status};
            const int32_t ins = vask_hms_insert_err(c, &e);
            if (ins != KERM_OK)
                KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "hms_err_list_update failed: %d\n", ins);
        }
    }
    // From the previous detection time, so a late detection is caught up.
    ts_add_us(&c->next_detect, c->cfg.period_us);
}

// Called by the packing under the store's state_lock: the header, the cycle
// state and the next period for the message just packed.
void publish_report(void *ctx, uint8_t *msg, bool more) noexcept {
    auto *c = static_cast<vask_hms_client *>(ctx);
    msg[0] = 0;
    msg[1] = c->cycle_seq;
    msg[2] = c->packet_index & VASK_HMS_MSG_INDEX;
    uint32_t next_period;
    if (more) {
        store8(&c->cycle_busy, 1);
        c->packet_index = static_cast<uint8_t>((c->packet_index + 1) & VASK_HMS_MSG_INDEX);
        next_period = c->cfg.busy_period_us;
    } else {
        msg[2] |= VASK_HMS_MSG_LAST;
        store8(&c->cycle_busy, 0);
        c->packet_index = 0;
        c->cycle_seq++;
        next_period = c->cfg.period_us;
    }
    SemGuard timer(&c->timer_lock);
    c->period_now = next_period;
}

void hms_err_send(vask_hms_client *c, const uint8_t *msg, uint16_t len) noexcept {
    if (c->cfg.send_cb == nullptr) return;
    for (uint32_t i = 0; i < c->cfg.subscriber_max; ++i) {
        vask_hms_subscriber *s = &c->subs[i];
        if (load8(&s->in_use) == 0) continue;
        const uint16_t host = __atomic_load_n(&s->host, __ATOMIC_RELAXED);
        const int32_t rc = c->cfg.send_cb(c->cfg.user, host, msg, len);
        if (rc != 0) KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "msg_send_cb failed:%d\n", rc);
    }
}

void restart_state(vask_hms_client *c) noexcept {
    if (c->rules != nullptr) {
        for (int32_t i = 0; i < c->cfg.rule_count; ++i) {
            const vask_hms_detect_rule &r = c->rules[i].rule;
            if (r.first_index <= r.last_index) memset(c->rules[i].prev_status, 0, r.last_index - r.first_index + 1u);
        }
    }
    vask_hms_data_reset(&c->data, &c->pool);
    store8(&c->restart_req, 0);
}

// Sleeps until `until` (monotonic) or until destroy's signal. The worker runs
// with SIGUSR1 blocked from its first instruction (start blocks it around
// pthread_create), so a signal sent at any moment, also between the stop
// check and this wait, stays pending until the wait takes it: the wake-up
// cannot be missed. Another signal's handler repeats the wait while the stop
// byte is 0.
void wait_until(vask_hms_client *c, const struct timespec &until) noexcept {
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, SIGUSR1);
    while (load8(&c->stop_req) == 0) {
        struct timespec now;
        if (clock_gettime(CLOCK_MONOTONIC, &now) != 0 || !ts_later(until, now)) return;
        struct timespec left{until.tv_sec - now.tv_sec, until.tv_nsec - now.tv_nsec};
        if (left.tv_nsec < 0) {
            left.tv_sec -= 1;
            left.tv_nsec += kNsPerSec;
        }
        const int sig = sigtimedwait(&wake, nullptr, &left);
        if (sig == SIGUSR1) return;
        if (sig < 0 && errno != EINTR && errno != EAGAIN) return;
    }
}

void *hms_client_task(void *arg) {
    auto *c = static_cast<vask_hms_client *>(arg);
    t_worker_client = c;
    prctl(PR_SET_NAME, "hms_ctx_thread");
    struct timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    ts_add_us(&now, c->cfg.start_delay_us);
    wait_until(c, now);
    clock_gettime(CLOCK_MONOTONIC, &now);
    {
        SemGuard timer(&c->timer_lock);
        c->wake = now;
    }
    c->next_detect = now;
    uint8_t msg[kMsgBuffer];
    while (load8(&c->stop_req) == 0) {
        rearm(c);
        if (auto hook = g_before_wait_hook.load(std::memory_order_acquire)) hook(c);
        // The wake time is written only by this thread; the timer lock keeps
        // it consistent for readers.
        wait_until(c, c->wake);
        if (load8(&c->suspended) != 0) continue;
        if (load8(&c->restart_req) != 0) restart_state(c);
        hms_err_detect(c);
        if (load8(&c->cycle_busy) == 0) {
            const int32_t rc = vask_hms_data_client_sync(&c->data, &c->pool);
            if (rc != 0) KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "hms_err_sync failed: %d\n", rc);
        }
        const uint16_t len = hms_data_pack(&c->data, msg, sizeof msg, c->cfg.max_items, publish_report, c);
        hms_err_send(c, msg, len);
    }
    return nullptr;
}

int32_t set_flag(vask_hms_client *c, uint8_t vask_hms_client::*field, uint8_t value, const char *function) noexcept {
    if (c == nullptr) {
        KERM_LOGF(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, function, "parameter is NULL\n");
        return KERM_ERR_PARAM;
    }
    store8(&(c->*field), value);
    return KERM_OK;
}

void free_client(vask_hms_client *c) noexcept {
    free(c->subs);
    free(c);
}

}  // namespace
}  // namespace kerm::hms

using namespace kerm::hms;

extern "C" int32_t vask_hms_create_client(const vask_hms_config *cfg, vask_hms_client **out) noexcept {
    if (cfg == nullptr || out == nullptr) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "Parameter NULL!\n");
        return KERM_ERR_PARAM;
    }
    auto *c = static_cast<vask_hms_client *>(calloc(1, sizeof(vask_hms_client)));
    if (c == nullptr) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "no memory!\n");
        return KERM_ERR_NO_MEMORY;
    }
    c->cfg = *cfg;
    if (c->cfg.subscriber_max == 0) c->cfg.subscriber_max = kDefaultSubscribers;
    if (c->cfg.max_items == 0) c->cfg.max_items = kDefaultMaxItems;
    if (c->cfg.pool_size == 0) c->cfg.pool_size = kDefaultPoolSize;
    c->subs = static_cast<vask_hms_subscriber *>(calloc(c->cfg.subscriber_max, sizeof(vask_hms_subscriber)));
    if (c->subs == nullptr) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "no memory!\n");
        free(c);
        return KERM_ERR_NO_MEMORY;
    }
    if (c->cfg.rules != nullptr) {
        int32_t rc = hms_err_detect_init(c);
        if (rc != KERM_OK) {
            hms_err_detect_deinit(c);
            KERM_LOGF(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "hms_err_detect_init", "hms_err_detect_init failed:%d\n",
                      rc);
            free_client(c);
            return KERM_ERR_NO_MEMORY;
        }
    }
    // Deliberate: a store that cannot be made is only logged; the client is
    // created regardless and refuses records.
    int32_t rc = vask_hms_data_init(&c->data);
    if (rc != KERM_OK) KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "vask_hms_data_init failed:%d\n", rc);
    // Sign-extended, so a negative size is refused like one above the limit.
    rc = vask_hms_pool_init(&c->pool, static_cast<uint32_t>(static_cast<int32_t>(c->cfg.pool_size)));
    if (rc != KERM_OK) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "vask_hms_pool_init failed:%d\n", rc);
        vask_hms_pool_deinit(&c->pool);
        vask_hms_data_deinit(&c->data);
        hms_err_detect_deinit(c);
        free_client(c);
        return rc;
    }
    *out = c;
    return KERM_OK;
}

extern "C" int32_t vask_hms_start_client(vask_hms_client *c) noexcept {
    if (c == nullptr) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "parameter is NULL\n");
        return KERM_ERR_PARAM;
    }
    int rc = sem_init(&c->timer_lock, 0, 1);
    if (rc != 0) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "Create hms pool mutex fail! %d, %d\n", rc, errno);
        return KERM_ERR_EXHAUSTED;
    }
    c->period_now = c->cfg.period_us;
    // The worker inherits the blocked SIGUSR1 (see wait_until).
    sigset_t wake, old;
    sigemptyset(&wake);
    sigaddset(&wake, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &wake, &old);
    rc = pthread_create(&c->thread, nullptr, hms_client_task, c);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    // No worker: destroy must not join whatever a failed create left here.
    if (rc != 0) memset(&c->thread, 0, sizeof c->thread);
    return rc;
}

extern "C" int32_t vask_hms_suspend_client(vask_hms_client *c) noexcept {
    return set_flag(c, &vask_hms_client::suspended, 1, __func__);
}

extern "C" int32_t vask_hms_resume_client(vask_hms_client *c) noexcept {
    return set_flag(c, &vask_hms_client::suspended, 0, __func__);
}

extern "C" int32_t vask_hms_restart_client(vask_hms_client *c) noexcept {
    return set_flag(c, &vask_hms_client::restart_req, 1, __func__);
}

extern "C" int32_t vask_hms_destroy_client(vask_hms_client *c) noexcept {
    if (c == nullptr) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "Parameter NULL!\n");
        return KERM_ERR_PARAM;
    }
    if (t_worker_client == c) return KERM_ERR_FAIL;
    KERM_LOG(KERM_MOD_HMS, VASK_LOG_INFO, kFile, "Destroy timer, sending_status signal, thread = %lu\n",
             static_cast<unsigned long>(c->thread));
    store8(&c->stop_req, 1);
    // A client that was never started has no worker to wake and join.
    static const pthread_t kNoThread{};
    if (memcmp(&c->thread, &kNoThread, sizeof kNoThread) != 0) {
        pthread_kill(c->thread, SIGUSR1);
        pthread_join(c->thread, nullptr);
    }
    int32_t rc = vask_hms_data_deinit(&c->data);
    if (rc != KERM_OK) KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "vask_hms_data_deinit failed: %d\n", rc);
    rc = vask_hms_pool_deinit(&c->pool);
    if (rc != KERM_OK) KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "vask_hms_pool_deinit failed: %d\n", rc);
    rc = hms_err_detect_deinit(c);
    if (rc != KERM_OK) KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "vask_hms_pool_deinit failed: %d\n", rc);
    free_client(c);
    return rc;
}

extern "C" int32_t vask_hms_set_subscriber(vask_hms_client *c, uint16_t host, uint8_t value) noexcept {
    if (c == nullptr) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "parameter is NULL\n");
        return KERM_ERR_PARAM;
    }
    if (value == 0) {
        // Deliberate: one host's unsubscribe ends the reports to every host.
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_FATAL, kFile, "hms subscriber clear by host 0x%04x\n", host);
        for (uint32_t i = 0; i < c->cfg.subscriber_max; ++i) store8(&c->subs[i].in_use, 0);
        return KERM_OK;
    }
    vask_hms_subscriber *slot = nullptr;
    for (uint32_t i = 0; i < c->cfg.subscriber_max && slot == nullptr; ++i) {
        vask_hms_subscriber *s = &c->subs[i];
        if (load8(&s->in_use) == 0 || __atomic_load_n(&s->host, __ATOMIC_RELAXED) == host) slot = s;
    }
    if (slot == nullptr) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_FATAL, kFile, "hms set subscriber:%04x %d failed\n", host, value);
        return KERM_ERR_EXHAUSTED;
    }
    KERM_LOG(KERM_MOD_HMS, VASK_LOG_FATAL, kFile, "hms set subscriber:%04x %d\n", host, value);
    // Host first and in_use last: the worker reads the slot without a lock.
    __atomic_store_n(&slot->host, host, __ATOMIC_RELAXED);
    __atomic_store_n(&slot->value, value, __ATOMIC_RELAXED);
    store8(&slot->in_use, 1);
    return KERM_OK;
}

extern "C" int32_t vask_hms_insert_err(vask_hms_client *c, const vask_hms_err *err) noexcept {
    if (c == nullptr || err == nullptr) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "parameter is NULL\n");
        return KERM_ERR_PARAM;
    }
    return vask_hms_data_insert(&c->data, &c->pool, err);
}

extern "C" int32_t vask_hms_inject_err(vask_hms_client *c, const vask_hms_err *err) noexcept {
    if (c == nullptr || err == nullptr) {
        KERM_LOG(KERM_MOD_HMS, VASK_LOG_ERROR, kFile, "parameter is NULL\n");
        return KERM_ERR_PARAM;
    }
    if (c->rules != nullptr) {
        for (int32_t i = 0; i < c->cfg.rule_count; ++i) {
            if (c->rules[i].rule.code == err->code) {
                store8(&c->rules[i].injected, err->status != 0 ? 1 : 0);
                break;
            }
        }
    }
    return vask_hms_data_insert(&c->data, &c->pool, err);
}

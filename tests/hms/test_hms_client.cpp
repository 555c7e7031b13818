// Health client: refused calls and subscribers, then the worker thread seen
// through a capturing send callback: message layout, cycles, detection, flags
// and faults.
#include <signal.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>

#include "hms/kerm_hms_internal.h"
#include "hms_test_util.h"

using namespace hms_test;

namespace {

constexpr uint16_t kHost = 0x0A0B;
constexpr uint32_t kPeriod = 20000, kBusy = 2000;
constexpr int64_t kPeriodNs = int64_t{kPeriod} * 1000;

int64_t ns(const struct timespec &t) { return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec; }
int64_t mono_ns() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return ns(t);
}

// One message as sent, with the worker's timer state at that moment.
struct Sent {
    uint16_t host;
    std::vector<uint8_t> b;
    uint32_t period_after;  // period chosen for the next tick
    struct timespec wake;   // wake time of the sending tick
    // The entries, each the code in native order then index and status, as
    // "code:index=status"; checks the frame on the way.
    V entries() const {
        EXPECT_TRUE(b.size() >= 3 && b.size() <= 1005 && (b.size() - 3) % 6 == 0 && b[0] == 0) << b.size();
        V out;
        for (size_t off = 3; off + 6 <= b.size(); off += 6) {
            vask_hms_err e{0, b[off + 4], b[off + 5]};
            memcpy(&e.code, &b[off], 4);
            EXPECT_NE(e.status, 0) << "cleared error in a report";
            out.push_back(str(e));
        }
        return out;
    }
};

struct Detector {
    std::atomic<uint8_t> status[8] = {};
    std::atomic<int> calls{0};
    std::function<void(uint8_t index)> hook;  // runs on the worker
    static uint8_t detect(void *arg, uint8_t index) {
        auto *d = static_cast<Detector *>(arg);
        if (++d->calls, d->hook) d->hook(index);
        return d->status[index].load();
    }
};

// The worker thread, named by the library, is asleep.
bool worker_sleeping() {
    for (const auto &t : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string stat;
        std::getline(std::ifstream(t.path() / "stat"), stat);
        if (stat.find("(hms_ctx_thread) S") != std::string::npos) return true;
    }
    return false;
}

class Hms : public testing::Test {
protected:
    // The library wakes its worker with SIGUSR1 and installs no handler. A
    // handler's return never restarts clock_nanosleep.
    static void SetUpTestSuite() { signal(SIGUSR1, [](int) {}); }
    void SetUp() override { cfg = vask_hms_config{kBusy, kPeriod, 0, nullptr, 0, 0, 0, 0, this, &Hms::send}; }
    void TearDown() override { if (c != nullptr) finish(); }
    // Every node is back in the pool or held by a list, then the client goes.
    void finish() {
        EXPECT_EQ(nodes_accounted(&c->data, &c->pool), static_cast<uint32_t>(c->cfg.pool_size));
        EXPECT_EQ(vask_hms_destroy_client(c), 0);
        c = nullptr;
    }
    void create() {
        ASSERT_EQ(vask_hms_create_client(&cfg, &c), 0);
        ASSERT_EQ(vask_hms_set_subscriber(c, kHost, 1), 0);
    }
    void start() { ASSERT_EQ(vask_hms_start_client(c), 0); }
    void use_rule(uint32_t code, uint8_t first, uint8_t last) {
        rule = vask_hms_detect_rule{1, &Detector::detect, &det, code, first, last};
        cfg.rules = &rule;
        cfg.rule_count = 1;
    }
    // Errors code:i with status i + 1.
    void insert(uint32_t code, int count) {
        for (int i = 0; i < count; ++i) {
            vask_hms_err e{code, static_cast<uint8_t>(i), static_cast<uint8_t>(i + 1)};
            ASSERT_EQ(vask_hms_insert_err(c, &e), 0);
        }
    }
    std::vector<Sent> snapshot() {
        std::lock_guard<std::mutex> g(m);
        return sent;
    }
    bool wait_sent(size_t n) { return eventually([&] { return snapshot().size() >= n; }); }
    static int32_t send(void *user, uint16_t host, const uint8_t *bytes, uint16_t len) {
        auto *w = static_cast<Hms *>(user);
        std::unique_lock<std::mutex> g(w->m);
        w->sent.push_back(Sent{host, std::vector<uint8_t>(bytes, bytes + len), w->c->period_now, w->c->wake});
        const size_t n = w->sent.size();
        g.unlock();
        return w->hook ? w->hook(n) : 0;
    }

    vask_hms_config cfg{};
    vask_hms_client *c = nullptr;
    std::mutex m;
    std::vector<Sent> sent;
    std::function<int32_t(size_t n)> hook;  // runs on the worker after the n-th send
    // What the worker's callbacks touch lives as long as the client.
    Detector det;
    vask_hms_detect_rule rule{};
    Events ev;
    std::atomic<int64_t> stamp{0};
    std::vector<int64_t> due;
};

TEST_F(Hms, RefusedCallsAreLogged) {
    vask_hms_detect_rule rules[2] = {{1, Detector::detect, &det, 0x41, 0, 0}, {1, Detector::detect, &det, 0x42, 7, 3}};
    auto create_with = [&](int32_t rule_count, int16_t pool_size) {
        cfg.rules = rules, cfg.rule_count = rule_count, cfg.pool_size = pool_size;
        return vask_hms_create_client(&cfg, &c);
    };
    vask_hms_err e{1, 1, 1};
    LogCapture log;
    const struct { const char *function; int32_t rc, want; const char *line; } calls[] = {
        {"hms_err_detect_init", create_with(2, 0), -1006, "config(00000042) error:7 > 3"},
        {"hms_err_detect_init", create_with(-1, 0), -1006, "hms_err_detect_init failed:-1006"},
        {"vask_hms_create_client", create_with(0, 1025), -1003, "vask_hms_pool_init failed:-1003"},
        {"vask_hms_create_client", create_with(0, -1), -1003, "vask_hms_pool_init failed:-1003"},
        {"vask_hms_create_client", vask_hms_create_client(nullptr, &c), -1003, "Parameter NULL!"},
        {"vask_hms_suspend_client", vask_hms_suspend_client(nullptr), -1003, "parameter is NULL"},
        {"vask_hms_insert_err", vask_hms_insert_err(nullptr, &e), -1003, "parameter is NULL"},
    };
    ASSERT_EQ(c, nullptr);
    for (const auto &k : calls) {
        EXPECT_EQ(k.rc, k.want) << k.line;
        EXPECT_TRUE(log.has(1, k.function, k.line)) << k.function << "\n" << log.text;
    }
}

// Up to three hosts each get every message; a known host keeps its slot; any
// host's unsubscribe empties the whole table.
TEST_F(Hms, SubscribersGetEveryHeartbeat) {
    create();
    LogCapture log;
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0202, 2), 0);
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0303, 3), 0);
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0404, 4), -1007);
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0202, 9), 0);
    c->cycle_seq = 255;
    start();
    ASSERT_TRUE(wait_sent(6));
    const uint16_t hosts[] = {kHost, 0x0202, 0x0303};
    auto s = snapshot();
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(s[i].host, hosts[i % 3]) << i;
        EXPECT_EQ(s[i].b, (std::vector<uint8_t>{0, uint8_t(255 + i / 3), 0x80})) << i;  // a heartbeat
    }
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0303, 0), 0);
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0404, 4), 0);
    EXPECT_TRUE(c->subs[0].host == 0x0404 && !c->subs[1].in_use && !c->subs[2].in_use);
    EXPECT_TRUE(log.has(0, "vask_hms_set_subscriber", "hms set subscriber:0404 4 failed")) << log.text;
    EXPECT_TRUE(log.has(0, "vask_hms_set_subscriber", "hms subscriber clear by host 0x0303"));
}

// A cycle goes out max_items entries (5 by default, 167 at most) per message
// at the busy period; the last message carries the last bit; the packet index
// has 7 bits; the next cycle starts again at the head.
TEST_F(Hms, CyclesSplitIntoMessages) {
    for (auto [items, count] : {std::pair<uint8_t, int>{0, 12}, {255, 200}, {1, 130}}) {
        cfg.max_items = items;
        create();
        insert(0x00C0FFEE, count);
        start();
        const size_t per = items == 0 ? 5 : std::min<size_t>(items, 167);
        const size_t msgs = (count + per - 1) / per;
        ASSERT_TRUE(wait_sent(msgs + 1));
        finish();
        V all, want;
        for (size_t i = 0; i < msgs; ++i) {
            SCOPED_TRACE(testing::Message() << int{items} << " items, message " << i);
            EXPECT_EQ(sent[i].b[1], sent[0].b[1]);
            EXPECT_EQ(sent[i].b[2], static_cast<int>(i % 128) | (i + 1 == msgs ? 0x80 : 0));
            EXPECT_EQ(sent[i].period_after, i + 1 == msgs ? kPeriod : kBusy);
            V e = sent[i].entries();
            EXPECT_EQ(e.size(), i + 1 == msgs ? count - i * per : per);
            all.insert(all.end(), e.begin(), e.end());
        }
        for (int i = 0; i < count; ++i) want.push_back(str({0x00C0FFEE, uint8_t(i), uint8_t(i + 1)}));
        EXPECT_EQ(all, want);
        EXPECT_EQ(sent[msgs].b[1], uint8_t(sent[0].b[1] + 1));
        EXPECT_EQ(sent[msgs].b[2], msgs == 1 ? 0x80 : 0);
        EXPECT_EQ(sent[msgs].entries().at(0), want[0]);
        sent.clear();
    }
}

TEST_F(Hms, SteadyStatusIsInsertedOnceAndAgainAfterRestart) {
    det.status[2] = 4;
    use_rule(0x77, 2, 3);
    cfg.pool_size = 1;  // a second insert of the same status would find no node
    create();
    ev.attach(&c->data);
    LogCapture log;
    start();
    ASSERT_TRUE(wait_sent(5));
    EXPECT_EQ(snapshot()[4].entries(), V{"77:2=4"});
    const size_t before = snapshot().size();
    ASSERT_EQ(vask_hms_restart_client(c), 0);
    ASSERT_TRUE(wait_sent(before + 3));
    EXPECT_EQ(ev.take(), (V{"raised 77:2=4", "raised 77:2=4"}));  // forgotten, then reported again
    EXPECT_EQ(snapshot()[before + 2].entries(), V{"77:2=4"});
    finish();
    EXPECT_FALSE(log.has(1, "hms_err_detect", "hms_err_list_update failed: -1007")) << log.text;
}

// A suspended client keeps its timer but neither detects nor sends. After
// resume a send blocks for ten periods: the ticks it missed are skipped, while
// detection steps on from its own previous time.
TEST_F(Hms, SuspendAndMissedTicks) {
    hook = [&](size_t n) {
        if (n == 2) usleep(10 * kPeriod), stamp = mono_ns();
        return 0;
    };
    det.hook = [&](uint8_t) { due.push_back(ns(c->next_detect)); };
    use_rule(0x2, 0, 0);
    create();
    ASSERT_EQ(vask_hms_suspend_client(c), 0);
    const int64_t t0 = mono_ns();
    start();
    // The timer keeps ticking: wait until its wake time has moved five periods.
    auto wake = [&] {
        sem_wait(&c->timer_lock);
        const int64_t v = ns(c->wake);
        return sem_post(&c->timer_lock), v;
    };
    ASSERT_TRUE(eventually([&] { return wake() >= t0 + 5 * kPeriodNs; }));
    EXPECT_EQ(det.calls.load(), 0);
    EXPECT_TRUE(snapshot().empty());
    ASSERT_EQ(vask_hms_resume_client(c), 0);
    ASSERT_TRUE(wait_sent(5));
    finish();  // joins the worker, the only writer of `due`
    EXPECT_GE(ns(sent[2].wake), stamp.load());
    const int64_t step = ns(sent[3].wake) - ns(sent[2].wake);
    EXPECT_TRUE(step > 0 && step % kPeriodNs == 0) << step;
    ASSERT_GE(due.size(), 4u);
    for (size_t i = 1; i < due.size(); ++i) EXPECT_EQ(due[i] - due[i - 1], kPeriodNs) << i;
}

// Inject matches a rule by code only, stores its record like an insert, and
// silences the rule until a status-0 inject.
TEST_F(Hms, InjectedRuleIsSkippedAndItsRecordReported) {
    det.status[0] = 2;
    use_rule(0x90, 0, 0);
    create();
    rule.enabled = 0;  // the client runs its own copy
    LogCapture log;
    start();
    ASSERT_TRUE(wait_sent(2));
    vask_hms_err e{0x90, 5, 7};
    ASSERT_EQ(vask_hms_inject_err(c, &e), 0);
    const int calls = det.calls.load();
    size_t n = snapshot().size();
    ASSERT_TRUE(wait_sent(n + 3));
    EXPECT_EQ(snapshot()[n + 2].entries(), (V{"90:0=2", "90:5=7"}));
    EXPECT_LE(det.calls.load(), calls + 1);  // at most the tick in progress
    e.status = 0;
    ASSERT_EQ(vask_hms_inject_err(c, &e), 0);
    ASSERT_TRUE(eventually([&] { return det.calls.load() > calls + 1; }));
    finish();
    EXPECT_TRUE(log.has(3, "hms_err_detect", "detect[0]need skip 1 1")) << log.text;
    EXPECT_TRUE(log.has(3, "vask_hms_destroy_client", "Destroy timer, sending_status signal, thread = "));
}

// Faults at once, at zero periods (nothing to step by: the worker ticks back
// to back and must still stop): eight sub-indices flip at every detection and
// overflow a pool of 6 nodes, every send fails, and the callback tries to
// destroy the client. Records are dropped and logged but no node is lost, no
// message is sent twice, and the destroy is refused.
TEST_F(Hms, FaultsAtZeroPeriods) {
    det.hook = [&](uint8_t k) { det.status[k] = det.status[k] ? 0 : 3; };
    hook = [&](size_t n) {
        if (n == 2) stamp = vask_hms_destroy_client(c);
        return -5;
    };
    use_rule(0xF0, 0, 7);
    cfg.pool_size = 6;
    cfg.period_us = cfg.busy_period_us = 0;
    create();
    LogCapture log;
    start();
    ASSERT_TRUE(wait_sent(20));
    finish();
    for (size_t i = 1; i < 20; ++i) {
        EXPECT_LE(sent[i].entries().size(), 5u);
        EXPECT_NE(std::make_pair(sent[i].b[1], sent[i].b[2]), std::make_pair(sent[i - 1].b[1], sent[i - 1].b[2]));
    }
    EXPECT_EQ(stamp.load(), -1001);
    EXPECT_TRUE(log.has(1, "hms_err_send", "msg_send_cb failed:-5")) << log.text;
    EXPECT_TRUE(log.has(1, "hms_err_detect", "hms_err_list_update failed: -1007"));
}

// Destroy wakes a worker asleep for a long busy period mid-cycle.
TEST_F(Hms, DestroyWakesTheWorkerMidCycle) {
    cfg.max_items = 2;
    cfg.busy_period_us = 2 * 1000000 * static_cast<uint32_t>(kWait.count());
    create();
    insert(0x33, 9);
    start();
    ASSERT_TRUE(wait_sent(1));
    ASSERT_TRUE(eventually(worker_sleeping));
    const int64_t t0 = mono_ns();
    finish();
    EXPECT_LT(mono_ns() - t0, std::chrono::nanoseconds(kWait).count());
    for (size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(size_t{sent[i].b[2]}, i) << "not one cycle in order";
}

// Destroy's signal lands after the worker checked its stop byte and before it
// waits: the hook holds the worker there until the signal has been either
// handled on it or left pending for it. The wait must still end at once.
std::atomic<bool> g_window_armed{false}, g_in_window{false};
std::atomic<int> g_usr1_handled{0};

void hold_in_window(vask_hms_client *) {
    if (!g_window_armed.exchange(false)) return;
    g_in_window = true;
    EXPECT_TRUE(eventually([] {
        sigset_t pending;
        sigpending(&pending);
        return g_usr1_handled.load() > 0 || sigismember(&pending, SIGUSR1) == 1;
    }));
}

TEST_F(Hms, DestroyWakesTheWorkerBetweenStopCheckAndWait) {
    cfg.period_us = cfg.busy_period_us = 2 * 1000000 * static_cast<uint32_t>(kWait.count());
    signal(SIGUSR1, [](int) { g_usr1_handled++; });
    kerm::hms::g_before_wait_hook = hold_in_window;
    g_window_armed = true;
    create();
    start();
    ASSERT_TRUE(eventually([] { return g_in_window.load(); }));
    const int64_t t0 = mono_ns();
    finish();
    EXPECT_LT(mono_ns() - t0, std::chrono::nanoseconds(kWait).count());
    kerm::hms::g_before_wait_hook = nullptr;
    signal(SIGUSR1, [](int) {});
}

}  // namespace

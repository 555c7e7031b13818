// The client's worker thread, observed through a capturing send callback:
// message layout and order, cycles, detection, flags and faults.
#include <gtest/gtest.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "hms_test_util.h"

using namespace hms_test;

namespace {

const bool kSignalReady = (install_sigusr1(), true);

constexpr uint16_t kHost = 0x0A0B;
constexpr uint32_t kPeriod = 20000;
constexpr uint32_t kBusy = 2000;

struct Sent {
    uint16_t host;
    std::vector<uint8_t> bytes;
    uint32_t period_after;       // period the worker chose for the next tick
    struct timespec wake;        // wake time of the tick that sent it
    const void *first_active;    // head node of the active list
};

struct Msg {
    uint8_t seq = 0;
    uint8_t index = 0;
    bool last = false;
    std::vector<std::string> entries;
};

Msg parse(const std::vector<uint8_t> &b) {
    Msg m;
    EXPECT_GE(b.size(), 3u);
    EXPECT_EQ((b.size() - 3) % 6, 0u);
    EXPECT_LE(b.size(), 1005u);
    EXPECT_EQ(b[0], 0);
    m.seq = b[1];
    m.index = b[2] & 0x7F;
    m.last = (b[2] & 0x80) != 0;
    for (size_t off = 3; off + 6 <= b.size(); off += 6) {
        vask_hms_err e{};
        memcpy(&e.code, &b[off], 4);
        e.index = b[off + 4];
        e.status = b[off + 5];
        EXPECT_NE(e.status, 0) << "cleared error in a report";
        m.entries.push_back(str(e));
    }
    return m;
}

int64_t ns(const struct timespec &t) { return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec; }

int64_t mono_ns() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return ns(t);
}

void sleep_us(uint32_t us) { usleep(us); }

struct Detector {
    std::atomic<uint8_t> status[8] = {};
    std::atomic<int> calls{0};
    std::function<void(int call, uint8_t index)> hook;  // on the worker
    static uint8_t detect(void *arg, uint8_t index) {
        auto *d = static_cast<Detector *>(arg);
        int n = ++d->calls;
        if (d->hook) d->hook(n, index);
        return d->status[index].load();
    }
};

class Worker : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(kSignalReady);
        cfg.period_us = kPeriod;
        cfg.busy_period_us = kBusy;
        cfg.user = this;
        cfg.send_cb = &Worker::send;
    }
    void TearDown() override {
        if (c != nullptr) finish();
    }
    // Every node is accounted for, then the client goes.
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
    // One rule polling `det` over first..last.
    void use_rule(uint32_t code, uint8_t first, uint8_t last) {
        rule = vask_hms_detect_rule{1, &Detector::detect, &det, code, first, last};
        cfg.rules = &rule;
        cfg.rule_count = 1;
    }
    void insert(uint32_t code, int count, uint8_t status_base = 1) {
        for (int i = 0; i < count; ++i) {
            vask_hms_err e{code, static_cast<uint8_t>(i), static_cast<uint8_t>(status_base + i)};
            ASSERT_EQ(vask_hms_insert_err(c, &e), 0);
        }
    }
    bool wait_sent(size_t n) {
        std::unique_lock<std::mutex> lk(m);
        return wait_until(lk, cv, [&] { return sent.size() >= n; });
    }
    std::vector<Sent> snapshot() {
        std::lock_guard<std::mutex> g(m);
        return sent;
    }
    Msg msg(size_t i) {
        std::lock_guard<std::mutex> g(m);
        return parse(sent.at(i).bytes);
    }
    static int32_t send(void *user, uint16_t host, const uint8_t *bytes, uint16_t len) {
        auto *w = static_cast<Worker *>(user);
        // Worker-thread fields, read on the worker itself.
        Sent s{host, std::vector<uint8_t>(bytes, bytes + len), w->c->period_now, w->c->wake, nullptr};
        if (w->c->data.active->count != 0) s.first_active = w->c->data.active->head.next;
        size_t n;
        {
            std::lock_guard<std::mutex> g(w->m);
            w->sent.push_back(std::move(s));
            n = w->sent.size();
        }
        w->cv.notify_all();
        return w->hook ? w->hook(n) : 0;
    }

    vask_hms_config cfg{};
    vask_hms_client *c = nullptr;
    std::mutex m;
    std::condition_variable cv;
    std::vector<Sent> sent;
    std::function<int32_t(size_t)> hook;  // runs on the worker after each send
    // State the worker's callbacks touch lives as long as the client.
    Detector det;
    vask_hms_detect_rule rule{};
    Events ev;
    std::atomic<int64_t> unblocked{0};
    std::atomic<int32_t> result{0};
    std::vector<int64_t> due;
};

TEST_F(Worker, HeartbeatsCarryAWrappingSequenceToEverySubscriber) {
    create();
    ASSERT_EQ(vask_hms_set_subscriber(c, 0x0C0D, 2), 0);
    c->cycle_seq = 254;
    start();
    ASSERT_TRUE(wait_sent(8));
    auto s = snapshot();
    const uint8_t want[] = {254, 255, 0, 1};
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(s[i].host, i % 2 == 0 ? kHost : 0x0C0D) << i;
        EXPECT_EQ(s[i].bytes, (std::vector<uint8_t>{0, want[i / 2], 0x80})) << i;
        EXPECT_EQ(s[i].period_after, kPeriod);
    }
}

TEST_F(Worker, CycleSplitsOverMessagesAtTheBusyPeriod) {
    create();
    insert(0x00C0FFEE, 12);
    start();
    ASSERT_TRUE(wait_sent(6));
    auto s = snapshot();
    // Entries are the code in native order, then index and status.
    EXPECT_EQ(std::vector<uint8_t>(s[0].bytes.begin() + 3, s[0].bytes.begin() + 9),
              (std::vector<uint8_t>{0xEE, 0xFF, 0xC0, 0x00, 0, 1}));
    const uint8_t seq = s[0].bytes[1];
    for (int cycle = 0; cycle < 2; ++cycle) {
        std::vector<std::string> all;
        for (int k = 0; k < 3; ++k) {
            const Sent &one = s[cycle * 3 + k];
            Msg mm = parse(one.bytes);
            EXPECT_EQ(mm.seq, static_cast<uint8_t>(seq + cycle));
            static constexpr uint8_t kByte2[] = {0x00, 0x01, 0x82};
            EXPECT_EQ(one.bytes[2], kByte2[k]);
            EXPECT_EQ(mm.entries.size(), k < 2 ? 5u : 2u);
            EXPECT_EQ(one.period_after, k < 2 ? kBusy : kPeriod);
            all.insert(all.end(), mm.entries.begin(), mm.entries.end());
        }
        ASSERT_EQ(all.size(), 12u);
        for (int i = 0; i < 12; ++i) {
            vask_hms_err e{0x00C0FFEE, static_cast<uint8_t>(i), static_cast<uint8_t>(i + 1)};
            EXPECT_EQ(all[i], str(e));
        }
    }
}

TEST_F(Worker, MessagesHoldAtMost167Entries) {
    cfg.max_items = 255;
    create();
    insert(0x7, 200);
    start();
    ASSERT_TRUE(wait_sent(2));
    auto s = snapshot();
    EXPECT_EQ(s[0].bytes.size(), 1005u);
    EXPECT_EQ(s[0].bytes[2], 0x00);
    EXPECT_EQ(s[1].bytes.size(), 3u + 6u * 33u);
    EXPECT_EQ(s[1].bytes[2], 0x81);
}

TEST_F(Worker, PacketIndexWrapsInSevenBits) {
    cfg.max_items = 1;
    cfg.busy_period_us = 500;
    create();
    insert(0x8, 130);
    start();
    ASSERT_TRUE(wait_sent(130));
    auto s = snapshot();
    for (size_t i = 0; i < 130; ++i) {
        const uint8_t want = static_cast<uint8_t>(i % 128) | (i == 129 ? 0x80 : 0);
        ASSERT_EQ(s[i].bytes[2], want) << i;
        ASSERT_EQ(s[i].bytes[1], s[0].bytes[1]) << i;
    }
}

TEST_F(Worker, SteadyStatusIsInsertedOnceAndAgainAfterRestart) {
    det.status[2] = 4;
    use_rule(0x77, 2, 3);
    create();
    ev.attach(&c->data);
    start();
    ASSERT_TRUE(wait_sent(5));
    auto s = snapshot();
    // One insert: the same node stays at the head tick after tick.
    for (size_t i = 1; i < 5; ++i) EXPECT_EQ(s[i].first_active, s[0].first_active) << i;
    EXPECT_EQ(msg(4).entries, (std::vector<std::string>{"77:2=4"}));
    EXPECT_EQ(ev.take(), (std::vector<std::string>{"raised 77:2=4"}));

    const size_t before = snapshot().size();
    ASSERT_EQ(vask_hms_restart_client(c), 0);
    ASSERT_TRUE(wait_sent(before + 3));
    EXPECT_EQ(ev.take(), (std::vector<std::string>{"raised 77:2=4"}));
    EXPECT_EQ(c->restart_req, 0);
    EXPECT_EQ(msg(before + 2).entries, (std::vector<std::string>{"77:2=4"}));
}

TEST_F(Worker, SuspendedClientDetectsAndSendsNothing) {
    use_rule(0x1, 0, 0);
    cfg.period_us = 2000;
    create();
    ASSERT_EQ(vask_hms_suspend_client(c), 0);
    start();
    // The timer keeps ticking: wait for its wake time to move on.
    auto wake_ns = [&] {
        sem_wait(&c->timer_lock);
        int64_t v = ns(c->wake);
        sem_post(&c->timer_lock);
        return v;
    };
    const int64_t deadline = mono_ns() + std::chrono::nanoseconds(kWait).count();
    int64_t first = 0;
    while (mono_ns() < deadline && (first == 0 || wake_ns() < first + 5 * int64_t{cfg.period_us} * 1000)) {
        if (first == 0) first = wake_ns();
        sleep_us(1000);
    }
    ASSERT_GE(wake_ns(), first + 5 * int64_t{cfg.period_us} * 1000);
    EXPECT_EQ(det.calls.load(), 0);
    EXPECT_TRUE(snapshot().empty());
    const int64_t resumed = mono_ns();
    ASSERT_EQ(vask_hms_resume_client(c), 0);
    ASSERT_TRUE(wait_sent(3));
    EXPECT_GT(det.calls.load(), 0);
    // No burst of made-up ticks: every tick after resume lies past it.
    for (const auto &one : snapshot()) EXPECT_GE(ns(one.wake), resumed - int64_t{cfg.period_us} * 1000);
}

TEST_F(Worker, MissedTicksAreSkippedNotMadeUp) {
    hook = [&](size_t n) {
        if (n == 2) {
            sleep_us(10 * kPeriod);
            unblocked = mono_ns();
        }
        return 0;
    };
    create();
    start();
    ASSERT_TRUE(wait_sent(4));
    auto s = snapshot();
    // The tick after the blocked call re-armed from a time past the block.
    EXPECT_GE(ns(s[2].wake), unblocked.load());
    const int64_t step = ns(s[3].wake) - ns(s[2].wake);
    EXPECT_TRUE(step > 0 && step % (int64_t{kPeriod} * 1000) == 0) << step;
}

TEST_F(Worker, DetectionAdvancesFromItsPreviousTime) {
    det.hook = [&](int call, uint8_t) {
        due.push_back(ns(c->next_detect));
        if (call == 2) sleep_us(5 * kPeriod);
    };
    use_rule(0x2, 0, 0);
    create();
    start();
    ASSERT_TRUE(wait_sent(10));
    finish();  // joins the worker, which alone wrote `due`
    ASSERT_GE(due.size(), 8u);
    for (size_t i = 1; i < due.size(); ++i) EXPECT_EQ(due[i] - due[i - 1], int64_t{kPeriod} * 1000) << i;
}

TEST_F(Worker, InjectedRuleIsSkippedAndItsRecordReported) {
    det.status[0] = 2;
    use_rule(0x90, 0, 0);
    create();
    LogCapture log;
    start();
    ASSERT_TRUE(wait_sent(2));
    vask_hms_err e{0x90, 5, 7};
    ASSERT_EQ(vask_hms_inject_err(c, &e), 0);
    const int calls = det.calls.load();
    const size_t n = snapshot().size();
    ASSERT_TRUE(wait_sent(n + 3));
    EXPECT_EQ(msg(n + 2).entries, (std::vector<std::string>{"90:0=2", "90:5=7"}));
    // At most the tick in progress still polled the rule.
    EXPECT_LE(det.calls.load(), calls + 1);
    finish();
    EXPECT_TRUE(log.has(0x86, 3, "hms_err_detect", "detect[0]need skip 1 1")) << log.text();
    EXPECT_TRUE(log.has(0x86, 3, "vask_hms_destroy_client", "Destroy timer, sending_status signal, thread = "));
}

TEST_F(Worker, FailingSendIsLoggedAndNotRetried) {
    hook = [](size_t) { return -5; };
    create();
    LogCapture log;
    start();
    ASSERT_TRUE(wait_sent(3));
    auto s = snapshot();
    EXPECT_EQ(static_cast<uint8_t>(s[1].bytes[1] - s[0].bytes[1]), 1);
    EXPECT_EQ(static_cast<uint8_t>(s[2].bytes[1] - s[1].bytes[1]), 1);
    finish();
    EXPECT_TRUE(log.has(0x86, 1, "hms_err_send", "msg_send_cb failed:-5")) << log.text();
}

// Eight sub-indices flip at every detection; a pool of 6 nodes cannot hold a
// tick's changes, so records are dropped and logged, never lost as nodes.
TEST_F(Worker, FlappingDetectorsWithATinyPool) {
    det.hook = [&](int, uint8_t index) { det.status[index % 8] = det.status[index % 8] ? 0 : 3; };
    use_rule(0xF0, 0, 7);
    cfg.pool_size = 6;
    cfg.period_us = 2000;
    create();
    LogCapture log;
    start();
    ASSERT_TRUE(wait_sent(20));
    for (const auto &one : snapshot()) {
        Msg mm = parse(one.bytes);
        EXPECT_LE(mm.entries.size(), 5u);
    }
    finish();
    EXPECT_TRUE(log.has(0x86, 1, "hms_err_detect", "hms_err_list_update failed: -1007")) << log.text();
}

TEST_F(Worker, DestroyFromTheWorkerIsRefused) {
    hook = [&](size_t n) {
        if (n == 2) result = vask_hms_destroy_client(c);
        return 0;
    };
    create();
    start();
    ASSERT_TRUE(wait_sent(4));
    EXPECT_EQ(result.load(), -1001);
}

TEST_F(Worker, DestroyMidCycleReturns) {
    cfg.max_items = 2;
    cfg.busy_period_us = 200000;
    create();
    insert(0x33, 9);
    start();
    ASSERT_TRUE(wait_sent(1));
    EXPECT_EQ(msg(0).index, 0);
    EXPECT_FALSE(msg(0).last);
    finish();
    // Whatever went out, it was one cycle in order.
    auto s = snapshot();
    for (size_t i = 0; i < s.size(); ++i) EXPECT_EQ(parse(s[i].bytes).index, i);
}

// Zero periods leave nothing to catch up by: the worker ticks back to back
// and still stops.
TEST_F(Worker, ZeroPeriodsStillTickAndStop) {
    cfg.period_us = 0;
    cfg.busy_period_us = 0;
    create();
    start();
    ASSERT_TRUE(wait_sent(3));
    EXPECT_EQ(msg(2).seq, static_cast<uint8_t>(msg(1).seq + 1));
}

}  // namespace

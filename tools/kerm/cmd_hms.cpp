// kerm hms-monitor: receives health report messages over UDP on the loopback
// address and prints the errors each reporter raises, changes and clears.
// kerm hms-demo: a health client whose detectors follow a script of error
// states, reporting by UDP to a monitor.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "kerm_hms.h"
#include "kerm_opts.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void on_stop(int) { g_stop = 1; }

// Handlers without SA_RESTART, so a blocking call returns on the signal.
void install_handler(int sig, void (*fn)(int)) {
    struct sigaction sa {};
    sa.sa_handler = fn;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, nullptr);
}

int64_t now_ms() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t{t.tv_sec} * 1000 + t.tv_nsec / 1000000;
}

constexpr uint64_t kMaxMs = 24ull * 3600 * 1000;  // a day: far beyond any useful wait
// A reporter that sent nothing for this long gives up its slot (its report
// period is far shorter: every normal period brings at least a heartbeat).
constexpr long kDefaultReporterIdleMs = 10000;

struct MonitorArgs {
    unsigned port = 0;
    long idle_exit_ms = 0, timeout_ms = 0, reporter_idle_ms = kDefaultReporterIdleMs;
    bool json = false;
} g_mon;

struct DemoArgs {
    unsigned port = 0, host = 1, max_items = 5;
    int cycles_per_step = 2;
    long period_ms = 50, busy_ms = 5, timeout_ms = 60000;
    std::string script;
} g_demo;

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// ---------------------------------------------------------------- monitor

constexpr int kMaxReporters = 16;
// A status-0 record for a point nobody reports: it makes an empty report a
// non-empty batch, so the server sync clears everything the reporter held.
constexpr vask_hms_err kEmptyReportMarker{0xFFFFFFFFu, 0xFF, 0};

struct Reporter {
    bool used;
    sockaddr_in addr;
    char name[32];
    int64_t last_rx_ms;
    vask_hms_data store;
    bool in_cycle;     // index 0 seen, last packet not yet
    uint8_t seq;       // cycle sequence being collected
    uint8_t next_index;
    uint32_t entries;  // entries received in this cycle
};

struct Monitor {
    vask_hms_pool pool;
    Reporter reporters[kMaxReporters];
    long idle_ms;
};

void print_event(void *user, const char *what, const vask_hms_err *e) {
    const char *name = static_cast<Reporter *>(user)->name;
    if (g_mon.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "reporter", name);
        cJSON_AddStringToObject(o, "event", what);
        kerm_tool::json_hex(o, "code", e->code, 8);
        cJSON_AddNumberToObject(o, "index", e->index);
        cJSON_AddNumberToObject(o, "status", e->status);
        kerm_tool::emit_json(o);
    } else {
        printf("[%s] %s code=0x%08x index=%u status=%u\n", name, what, static_cast<unsigned>(e->code), e->index,
               e->status);
    }
    fflush(stdout);
}

void name_of(const sockaddr_in &a, char *out, size_t size) {
    char ip[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &a.sin_addr, ip, sizeof ip);
    snprintf(out, size, "%s:%u", ip, ntohs(a.sin_port));
}

// A report message by its frame: whole entries, within the size cap.
bool well_formed(const uint8_t *b, size_t len) {
    return len >= VASK_HMS_MSG_HEADER && len <= VASK_HMS_MSG_MAX &&
           (len - VASK_HMS_MSG_HEADER) % VASK_HMS_MSG_ENTRY == 0 && b[0] == 0;
}

// The store's nodes go back to the shared pool before the store goes.
void forget(Monitor *m, Reporter *r) {
    vask_hms_data_reset(&r->store, &m->pool);
    vask_hms_data_deinit(&r->store);
    r->used = false;
}

void expire_idle(Monitor *m, int64_t now) {
    for (Reporter &r : m->reporters) {
        if (!r.used || now - r.last_rx_ms < m->idle_ms) continue;
        fprintf(stderr, "kerm hms-monitor: reporter %s silent for %lld ms, forgotten\n", r.name,
                static_cast<long long>(now - r.last_rx_ms));
        forget(m, &r);
    }
}

// The sender's reporter. A new sender gets a free slot only with a message
// that starts a cycle; the caller has checked the frame.
Reporter *reporter_for(Monitor *m, const sockaddr_in &from, const uint8_t *b) {
    Reporter *free_slot = nullptr;
    for (Reporter &r : m->reporters) {
        if (r.used && r.addr.sin_addr.s_addr == from.sin_addr.s_addr && r.addr.sin_port == from.sin_port) return &r;
        if (!r.used && free_slot == nullptr) free_slot = &r;
    }
    if ((b[2] & VASK_HMS_MSG_INDEX) != 0) return nullptr;
    if (free_slot == nullptr) {
        fprintf(stderr, "kerm hms-monitor: too many reporters\n");
        return nullptr;
    }
    Reporter *r = free_slot;
    memset(r, 0, sizeof *r);
    if (vask_hms_data_init(&r->store) != 0) return nullptr;
    r->used = true;
    r->addr = from;
    name_of(from, r->name, sizeof r->name);
    r->store.user = r;
    r->store.on_raised = [](void *u, const vask_hms_err *e) { print_event(u, "raised", e); };
    r->store.on_changed = [](void *u, const vask_hms_err *e) { print_event(u, "changed", e); };
    r->store.on_cleared = [](void *u, const vask_hms_err *e) { print_event(u, "cleared", e); };
    return r;
}

// Feeds one well-formed report message into its reporter's store; a complete
// cycle is the reporter's whole list of active errors and runs the server sync.
void take_report(Monitor *m, Reporter *r, const uint8_t *b, size_t len) {
    const uint8_t index = b[2] & VASK_HMS_MSG_INDEX;
    // The index wraps in 7 bits: a 0 that carries on the current cycle's
    // sequence is its 129th message, not a new cycle.
    const bool wrapped = r->in_cycle && b[1] == r->seq && r->next_index == 0;
    if (index == 0 && !wrapped) {
        if (r->in_cycle) vask_hms_data_reset_recv(&r->store, &m->pool);
        r->in_cycle = true;
        r->seq = b[1];
        r->entries = 0;
    } else if (!r->in_cycle || b[1] != r->seq || index != r->next_index) {
        // A lost message would make the batch look like cleared errors.
        if (r->in_cycle) fprintf(stderr, "kerm hms-monitor: incomplete cycle from %s dropped\n", r->name);
        vask_hms_data_reset_recv(&r->store, &m->pool);
        r->in_cycle = false;
        return;
    }
    r->next_index = static_cast<uint8_t>((index + 1) & VASK_HMS_MSG_INDEX);
    for (size_t off = VASK_HMS_MSG_HEADER; off < len; off += VASK_HMS_MSG_ENTRY) {
        vask_hms_err e;
        memcpy(&e.code, b + off, sizeof e.code);
        e.index = b[off + 4];
        e.status = b[off + 5];
        if (vask_hms_data_insert(&r->store, &m->pool, &e) != 0)
            fprintf(stderr, "kerm hms-monitor: no room for an entry from %s\n", r->name);
        r->entries++;
    }
    if ((b[2] & VASK_HMS_MSG_LAST) == 0) return;
    if (r->entries == 0) vask_hms_data_insert(&r->store, &m->pool, &kEmptyReportMarker);
    vask_hms_data_server_sync(&r->store, &m->pool);
    r->in_cycle = false;
}

int run_monitor() {
    const unsigned port = g_mon.port;
    const long idle_exit_ms = g_mon.idle_exit_ms;
    const long timeout_ms = g_mon.timeout_ms;
    const long reporter_idle_ms = g_mon.reporter_idle_ms;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr = loopback(static_cast<uint16_t>(port));
    socklen_t alen = sizeof addr;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &alen) != 0) {
        kerm_tool::fail("hms-monitor", "socket", strerror(errno));
        if (fd >= 0) close(fd);
        return kerm_tool::kExitFailure;
    }
    static Monitor m;
    m.idle_ms = reporter_idle_ms;
    if (vask_hms_pool_init(&m.pool, VASK_HMS_POOL_MAX) != 0) {
        close(fd);
        return kerm_tool::fail("hms-monitor", "pool", strerror(ENOMEM));
    }
    install_handler(SIGINT, on_stop);
    install_handler(SIGTERM, on_stop);
    if (g_mon.json) {
        cJSON *o = cJSON_CreateObject();
        char where[32];
        snprintf(where, sizeof where, "127.0.0.1:%u", ntohs(addr.sin_port));
        cJSON_AddStringToObject(o, "listening", where);
        kerm_tool::emit_json(o);
    } else {
        printf("listening 127.0.0.1:%u\n", ntohs(addr.sin_port));
    }
    fflush(stdout);
    const int64_t start = now_ms();
    int64_t last_rx = -1;  // the idle bound runs from the first message on
    while (!g_stop) {
        const int64_t now = now_ms();
        if (timeout_ms > 0 && now - start >= timeout_ms) break;
        if (idle_exit_ms > 0 && last_rx >= 0 && now - last_rx >= idle_exit_ms) break;
        expire_idle(&m, now);
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        uint8_t buf[VASK_HMS_MSG_MAX + 64];
        sockaddr_in from{};
        socklen_t flen = sizeof from;
        ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &flen);
        if (n < 0) continue;
        last_rx = now_ms();
        // Checked before any slot is given: junk never holds or takes one.
        if (!well_formed(buf, static_cast<size_t>(n))) {
            char name[32];
            name_of(from, name, sizeof name);
            fprintf(stderr, "kerm hms-monitor: malformed message of %zd bytes from %s\n", n, name);
            continue;
        }
        Reporter *r = reporter_for(&m, from, buf);
        if (r == nullptr) continue;
        r->last_rx_ms = last_rx;
        take_report(&m, r, buf, static_cast<size_t>(n));
    }
    for (Reporter &r : m.reporters)
        if (r.used) forget(&m, &r);
    vask_hms_pool_deinit(&m.pool);
    close(fd);
    return 0;
}

// ---------------------------------------------------------------- demo

constexpr int kMaxSteps = 32;
constexpr int kMaxEntries = 256;
constexpr int kMaxRules = 16;

struct Step {
    int count;
    vask_hms_err errs[kMaxEntries];
};

struct Demo {
    Step steps[kMaxSteps];
    int step_count;
    std::atomic<int> step;  // advanced by the worker, read by the detectors
    int cycles_in_step;
    int cycles_per_step;
    vask_hms_detect_rule rules[kMaxRules];
    uint32_t codes[kMaxRules];
    int rule_count;
    int fd;
    sockaddr_in to;
    uint16_t host;
    sem_t done;
};

// Steps separated by ';', entries by ','; an entry is CODE:INDEX=STATUS or
// CODE:FIRST-LAST=STATUS. An empty step has no active error.
bool parse_script(Demo *d, const char *text) {
    d->step_count = 0;
    const char *p = text;
    for (;;) {
        if (d->step_count == kMaxSteps) return false;
        Step *s = &d->steps[d->step_count++];
        s->count = 0;
        while (*p != '\0' && *p != ';') {
            char *end;
            unsigned long code = strtoul(p, &end, 0);
            if (*end != ':') return false;
            unsigned long first = strtoul(end + 1, &end, 0), last = first;
            if (*end == '-') last = strtoul(end + 1, &end, 0);
            if (*end != '=' || first > last || last > 255) return false;
            unsigned long status = strtoul(end + 1, &end, 0);
            if (status > 255) return false;
            for (unsigned long k = first; k <= last; ++k) {
                if (s->count == kMaxEntries) return false;
                s->errs[s->count++] = vask_hms_err{static_cast<uint32_t>(code), static_cast<uint8_t>(k),
                                                   static_cast<uint8_t>(status)};
            }
            p = end;
            if (*p == ',') ++p;
            else if (*p != '\0' && *p != ';') return false;
        }
        if (*p == '\0') return true;
        ++p;
    }
}

struct RuleArg {
    Demo *demo;
    uint32_t code;
};
RuleArg g_rule_args[kMaxRules];

uint8_t demo_detect(void *arg, uint8_t index) {
    auto *ra = static_cast<RuleArg *>(arg);
    const Step &s = ra->demo->steps[ra->demo->step.load()];
    for (int i = 0; i < s.count; ++i)
        if (s.errs[i].code == ra->code && s.errs[i].index == index) return s.errs[i].status;
    return 0;
}

// One rule per code, covering every index the script uses with it.
bool build_rules(Demo *d) {
    d->rule_count = 0;
    for (int si = 0; si < d->step_count; ++si) {
        for (int i = 0; i < d->steps[si].count; ++i) {
            const vask_hms_err &e = d->steps[si].errs[i];
            int r = 0;
            while (r < d->rule_count && d->codes[r] != e.code) ++r;
            if (r == d->rule_count) {
                if (r == kMaxRules) return false;
                d->codes[r] = e.code;
                g_rule_args[r] = RuleArg{d, e.code};
                d->rules[r] = vask_hms_detect_rule{1, demo_detect, &g_rule_args[r], e.code, e.index, e.index};
                d->rule_count++;
            }
            vask_hms_detect_rule &rule = d->rules[r];
            if (e.index < rule.first_index) rule.first_index = e.index;
            if (e.index > rule.last_index) rule.last_index = e.index;
        }
    }
    return true;
}

int32_t demo_send(void *user, uint16_t host, const uint8_t *msg, uint16_t len) {
    auto *d = static_cast<Demo *>(user);
    if (host != d->host) return -1;
    ssize_t n = sendto(d->fd, msg, len, 0, reinterpret_cast<const sockaddr *>(&d->to), sizeof d->to);
    // Each step is reported by whole cycles: the detectors see the next step
    // only after the current one went out cycles_per_step times.
    if ((msg[2] & VASK_HMS_MSG_LAST) != 0 && ++d->cycles_in_step >= d->cycles_per_step) {
        d->cycles_in_step = 0;
        const int next = d->step.load() + 1;
        if (next < d->step_count) {
            d->step.store(next);
            fprintf(stderr, "kerm hms-demo: step %d\n", next);
        } else if (next == d->step_count) {
            d->cycles_per_step = 1 << 30;  // hold the last state until destroyed
            sem_post(&d->done);
        }
    }
    return n == static_cast<ssize_t>(len) ? 0 : -errno;
}

constexpr const char *kDefaultScript =
    ";0x100:0=1,0x100:1=2;0x100:0=3;0x100:0=3,0x200:0-11=5;0x200:0-5=5,0x200:6-11=6;";

int run_demo() {
    const DemoArgs &a = g_demo;
    const unsigned port = a.port;
    static Demo d;
    d.host = static_cast<uint16_t>(a.host);
    d.cycles_per_step = a.cycles_per_step;
    const long period_ms = a.period_ms, busy_ms = a.busy_ms, max_items = a.max_items, timeout_ms = a.timeout_ms;
    if (!parse_script(&d, a.script.empty() ? kDefaultScript : a.script.c_str()))
        throw kerm_tool::UsageError{"--script", "'" + a.script + "' is not a script of CODE:INDEX=STATUS entries"};
    if (!build_rules(&d))
        throw kerm_tool::UsageError{"--script", "more than " + std::to_string(kMaxRules) + " distinct codes"};
    d.fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (d.fd < 0) return kerm_tool::fail("hms-demo", "socket", strerror(errno));
    d.to = loopback(static_cast<uint16_t>(port));
    sem_init(&d.done, 0, 0);
    // The client wakes its worker with SIGUSR1 on destroy.
    install_handler(SIGUSR1, [](int) {});
    install_handler(SIGINT, on_stop);
    install_handler(SIGTERM, on_stop);

    vask_hms_config cfg{};
    cfg.period_us = static_cast<uint32_t>(period_ms * 1000);
    cfg.busy_period_us = static_cast<uint32_t>(busy_ms * 1000);
    cfg.rules = d.rule_count > 0 ? d.rules : nullptr;
    cfg.rule_count = d.rule_count;
    cfg.max_items = static_cast<uint8_t>(max_items);
    cfg.user = &d;
    cfg.send_cb = demo_send;
    vask_hms_client *client = nullptr;
    int rc = vask_hms_create_client(&cfg, &client);
    if (rc == 0) rc = vask_hms_set_subscriber(client, d.host, 1);
    if (rc == 0) rc = vask_hms_start_client(client);
    if (rc != 0) {
        close(d.fd);
        return kerm_tool::fail("hms-demo", "client setup", "failed (" + std::to_string(rc) + ")");
    }
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += timeout_ms / 1000;
    until.tv_nsec += (timeout_ms % 1000) * 1000000;
    if (until.tv_nsec >= 1000000000) {
        until.tv_sec++;
        until.tv_nsec -= 1000000000;
    }
    int finished;
    do {
        finished = sem_timedwait(&d.done, &until);
    } while (finished != 0 && errno == EINTR && !g_stop);
    vask_hms_destroy_client(client);
    close(d.fd);
    if (finished != 0) {
        return kerm_tool::fail("hms-demo", "script", g_stop ? "interrupted" : "did not finish in time");
    }
    fprintf(stderr, "kerm hms-demo: script done (%d steps)\n", d.step_count);
    return 0;
}

kerm_tool::Runner setup_monitor(CLI::App &app) {
    app.description(
        "Receives health report messages by UDP on 127.0.0.1 and prints, per reporter, the\n"
        "errors raised, changed and cleared. Prints 'listening 127.0.0.1:PORT' first.");
    kerm_tool::add_number(app, "-p,--port", g_mon.port, 0, 65535, "UDP port (default 0: any free port)");
    kerm_tool::add_number(app, "--idle-exit-ms", g_mon.idle_exit_ms, 0, kMaxMs,
                          "exit once no message came for MS after the first (0: never)");
    kerm_tool::add_number(app, "--timeout-ms", g_mon.timeout_ms, 0, kMaxMs, "exit after MS (0: never)");
    kerm_tool::add_number(app, "--reporter-idle-ms", g_mon.reporter_idle_ms, 1, kMaxMs,
                          "forget a reporter silent for MS (default 10000)");
    kerm_tool::add_json_flag(app, g_mon.json);
    return run_monitor;
}

kerm_tool::Runner setup_demo(CLI::App &app) {
    app.description(
        "A health client whose detectors follow a script of error states, reporting by UDP to a\n"
        "monitor on 127.0.0.1:PORT. Script: steps separated by ';', entries separated by ',',\n"
        "each CODE:INDEX=STATUS or CODE:FIRST-LAST=STATUS; an empty step has no active error.");
    kerm_tool::add_number(app, "-p,--port", g_demo.port, 1, 65535, "the monitor's UDP port")->required();
    kerm_tool::add_number(app, "--host", g_demo.host, 0, 65535, "subscriber index the client reports to (default 1)");
    app.add_option("--script", g_demo.script, "the script of error states")->type_name("S");
    kerm_tool::add_number(app, "--cycles-per-step", g_demo.cycles_per_step, 1, 1000000,
                          "report cycles sent per step (default 2)");
    kerm_tool::add_number(app, "--period-ms", g_demo.period_ms, 1, 3600000, "report period (default 50)");
    kerm_tool::add_number(app, "--busy-ms", g_demo.busy_ms, 1, 3600000, "period while a report is split (default 5)");
    kerm_tool::add_number(app, "--max-items", g_demo.max_items, 1, 255, "entries per message (default 5)");
    kerm_tool::add_number(app, "--timeout-ms", g_demo.timeout_ms, 1, kMaxMs, "give up after MS (default 60000)");
    return run_demo;
}

}  // namespace

KERM_COMMAND("hms-monitor", "receive health reports by UDP on 127.0.0.1 and print error events", setup_monitor);
KERM_COMMAND("hms-demo", "run a scripted health client that reports by UDP to 127.0.0.1", setup_demo);

// Log state, level filter, run-time control, the line header and the time texts.
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "log/log_internal.h"

namespace kerm::log {

namespace {
constexpr const char *kLevelNames[VASK_LOG_LEVEL_MAX + 1] = {
    "LOG_NONE",        "VASK_LOG_FATAL", "VASK_LOG_ERROR",  "VASK_LOG_WARNING",
    "VASK_LOG_INFO",   "VASK_LOG_TRACE", "VASK_LOG_VERBOSE"};

constexpr LogState::Thresholds default_thresholds() {
    LogState::Thresholds t{};
    for (auto &m : t.v) m = VASK_LOG_WARNING;
    return t;
}

const char *level_name(uint32_t level) { return level <= VASK_LOG_LEVEL_MAX ? kLevelNames[level] : "?"; }
}  // namespace

// Constant-initialised: logging works before any initialisation call, even
// from other libraries' static constructors.
constinit LogState g_state = {1, LOG_HDR_MODULE, 0, VASK_LOG_WARNING, LOG_OUT_CONSOLE, console_write,
                              default_thresholds(), PTHREAD_RWLOCK_INITIALIZER};

ClockFn g_clock = clock_gettime;

namespace {
// Per-process and per-thread id caches. A forked child starts with the forking
// thread's values, so the child clears them.
int32_t g_pid = 0;
thread_local pid_t t_tid = 0;
void forget_ids_in_child() {
    store(g_pid, 0);
    t_tid = 0;
}
const int g_atfork = pthread_atfork(nullptr, nullptr, forget_ids_in_child);
}  // namespace

pid_t current_pid() {
    (void)g_atfork;
    int32_t pid = load(g_pid);
    if (pid == 0) {
        pid = static_cast<int32_t>(getpid());
        store(g_pid, pid);
    }
    return pid;
}

pid_t current_tid() {
    (void)g_atfork;
    if (t_tid == 0) t_tid = static_cast<pid_t>(syscall(SYS_gettid));
    return t_tid;
}

namespace {
// A date and time text of one wall-clock second, kept per thread: localtime_r
// and strftime run once a second instead of on every line.
struct SecondText {
    bool valid;
    time_t sec;
    uint32_t len;
    char text[40];
};
thread_local SecondText t_full_text, t_short_text;

// Wall-clock time as `format` in a zeroed text of N bytes, then ".mmm", into
// `dst` bounded by `size`; returns the characters written.
template <size_t N>
uint32_t format_local_time(const char *format, SecondText &cache, char *dst, uint32_t size) {
    static_assert(N <= sizeof cache.text);
    struct timespec ts;
    g_clock(CLOCK_REALTIME, &ts);
    if (!cache.valid || cache.sec != ts.tv_sec) {
        struct tm tm {};
        char text[N] = {0};
        localtime_r(&ts.tv_sec, &tm);
        strftime(text, sizeof text, format, &tm);
        cache.len = static_cast<uint32_t>(strlen(text));
        memcpy(cache.text, text, cache.len);
        cache.sec = ts.tv_sec;
        cache.valid = true;
    }
    if (dst == nullptr || size == 0) return 0;
    char full[sizeof cache.text + 4];
    memcpy(full, cache.text, cache.len);
    full[cache.len] = '.';
    put_zero_padded(full + cache.len + 1, static_cast<uint32_t>(ts.tv_nsec / 1000000), 3);
    const uint32_t n = cache.len + 4 < size ? cache.len + 4 : size - 1;
    memcpy(dst, full, n);
    dst[n] = '\0';
    return n;
}
}  // namespace

uint32_t local_time_text(char *dst, uint32_t size) {
    return format_local_time<40>("%Y-%m-%d %H:%M:%S", t_full_text, dst, size);
}

uint32_t line_prefix(char *out) {
    uint32_t n = local_time_text(out, 39);
    out[n++] = ' ';
    n += put_int(out + n, current_pid(), 5);
    out[n++] = ' ';
    n += put_int(out + n, current_tid(), 5);
    out[n] = '\0';
    return n;
}

namespace {
// Lays the header fields down in fixed columns. Each field is written at pos
// and pos then moves by the field's column width, whatever the field's
// length: a longer field is cut by the next one, the last one is not. As with
// a bounded print of room size - pos - 1 per field, the text keeps at most
// size - 2 characters, and once pos passes that no further field is written.
class HeadWriter {
public:
    HeadWriter(char *buf, uint32_t size) : buf_(buf), limit_(size - 2) {}
    bool full() const { return pos_ > limit_; }
    // Field text of n characters.
    void put(const char *text, uint32_t n) { write_at(pos_, text, n, 0); }
    // "%<width>s" after a one-character lead ("" when lead is 0).
    void put_string(char lead, const char *s, uint32_t width) {
        uint32_t at = pos_;
        if (lead != 0 && at < limit_) buf_[at++] = lead;
        // Only what fits is measured: a caller's text may be long.
        const uint32_t room = at < limit_ ? limit_ - at : 0;
        const uint32_t n = static_cast<uint32_t>(strnlen(s, room > width ? room : width));
        write_at(at, s, n, n < width ? width - n : 0);
    }
    void advance(uint32_t width) { pos_ += width; }
    void finish() { buf_[end_] = '\0'; }

private:
    // `pad` blanks and then the text, at `at`, cut at the limit.
    void write_at(uint32_t at, const char *text, uint32_t n, uint32_t pad) {
        for (; pad > 0 && at < limit_; --pad) buf_[at++] = ' ';
        const uint32_t take = at < limit_ ? (n < limit_ - at ? n : limit_ - at) : 0;
        memcpy(buf_ + at, text, take);
        end_ = at + take;
    }

    char *buf_;
    uint32_t limit_;  // characters go at offsets below this
    uint32_t pos_ = 0;
    uint32_t end_ = 0;
};

constexpr const char kColors[VASK_LOG_VERBOSE + 1][8] = {"\033[31;1m", "\033[35;1m", "\033[33;1m",
                                                         "\033[32;1m", "\033[36;1m", "\033[37;1m"};
}  // namespace

}  // namespace kerm::log

using namespace kerm::log;

extern "C" {

KERM_API uint32_t vask_log_gen_head(uint32_t module, uint32_t level, char *buf, uint32_t size, const char *file,
                                    const char *function, int32_t line) noexcept {
    if (!passes(module, level)) return 0;
    if (buf == nullptr || size == 0) return 1;
    if (size < 2) {
        buf[0] = '\0';
        return 1;
    }
    const uint32_t flags = load(g_state.head_flags);
    HeadWriter w(buf, size);
    char num[24];
    // One field: written while room is left, then the column advance.
    auto field = [&](uint32_t flag, uint32_t advance, auto &&write) {
        if ((flags & flag) == 0 || w.full()) return;
        write();
        w.advance(advance);
    };
    auto bracketed = [&](char open, int32_t v, char close) {
        num[0] = open;
        uint32_t n = 1 + put_int(num + 1, v, 4);
        num[n++] = close;
        w.put(num, n);
    };
    field(LOG_HDR_COLOR, 7, [&] { w.put(kColors[clamp_level(level)], 7); });
    field(LOG_HDR_TIME, 12, [&] {
        struct timespec ts;
        g_clock(CLOCK_MONOTONIC, &ts);
        num[0] = '-';
        w.put(num, 1 + put_uint(num + 1, mono_stamp_us(ts), 11));
    });
    field(LOG_HDR_MODULE, 6, [&] {
        // Filtered modules are below 139: always two hex digits.
        const char hex[] = "0123456789ABCDEF";
        const char text[6] = {'V', 'A', 'S', 'K', hex[(module >> 4) & 0xF], hex[module & 0xF]};
        w.put(text, 6);
    });
    field(LOG_HDR_LEVEL, 2, [&] {
        num[0] = '@';
        w.put(num, 1 + put_int(num + 1, static_cast<int32_t>(level), 1));
    });
    field(LOG_HDR_PID, 6, [&] { bracketed('<', load(g_state.pid), '>'); });
    field(LOG_HDR_TID, 6, [&] { bracketed('(', current_tid(), ')'); });
    field(LOG_HDR_FILE, 16, [&] { w.put_string(0, file ? file : "(null)", 16); });
    field(LOG_HDR_FUNC, 25, [&] { w.put_string('[', function ? function : "(null)", 24); });
    field(LOG_HDR_LINE, 6, [&] { bracketed(':', line, ']'); });
    field(LOG_HDR_COLOR, 0, [&] { w.put("\033[0m ", 5); });
    w.finish();
    return 1;
}

KERM_API int32_t vask_log_control(uint32_t command, uintptr_t arg, uintptr_t value_or_ptr) noexcept {
    if (pthread_rwlock_wrlock(&g_state.lock) != 0) return KERM_ERR_PARAM;
    int32_t rc = 0;
    switch (command) {
    case LOG_CTRL_ENABLE:
        store(g_state.enabled, static_cast<uint8_t>(arg != 0 ? 1 : 0));
        break;
    case LOG_CTRL_LEVEL_UP:
    case LOG_CTRL_LEVEL_DOWN: {
        const bool up = command == LOG_CTRL_LEVEL_UP;
        if (up ? g_state.level < VASK_LOG_LEVEL_MAX : g_state.level > 0) {
            g_state.level = up ? g_state.level + 1 : g_state.level - 1;
            for (auto &m : g_state.module_level.v) store(m, static_cast<uint8_t>(g_state.level));
        }
        printf(up ? "[DEBUG]Debug Level Up(Level=%d, %s)\n" : "[DEBUG]Debug Level Down(Level=%d, %s)\n",
               static_cast<int>(g_state.level), level_name(g_state.level));
        if (arg != 0) *reinterpret_cast<uint32_t *>(arg) = g_state.level;
        break;
    }
    case LOG_CTRL_SET_MODULE_LEVEL: {
        const uint32_t module = arg & 0xFFu;
        const uint8_t value = static_cast<uint8_t>(value_or_ptr & 0xFFu);
        if (module < VASK_LOG_MODULE_MAX) {
            store(g_state.module_level.v[module], value);
        } else if (module == VASK_LOG_ALL_MODULES) {
            for (auto &m : g_state.module_level.v) store(m, value);
        } else {
            rc = KERM_ERR_PARAM;
        }
        break;
    }
    case LOG_CTRL_GET_MODULE_LEVEL: {
        const uint32_t module = arg & 0xFFu;
        if (module >= VASK_LOG_MODULE_MAX || value_or_ptr == 0) {
            rc = KERM_ERR_PARAM;
        } else {
            *reinterpret_cast<uint32_t *>(value_or_ptr) = load(g_state.module_level.v[module]);
        }
        break;
    }
    case LOG_CTRL_GET_MODULE_COUNT:
        if (arg == 0) rc = KERM_ERR_PARAM;
        else *reinterpret_cast<uint8_t *>(arg) = VASK_LOG_MODULE_MAX;
        break;
    case LOG_CTRL_SET_HEAD_FLAGS:
        store(g_state.head_flags, static_cast<uint32_t>(arg));
        break;
    case LOG_CTRL_GET_HEAD_FLAGS:
        if (arg == 0) rc = KERM_ERR_PARAM;
        else *reinterpret_cast<uint32_t *>(arg) = load(g_state.head_flags);
        break;
    case LOG_CTRL_SET_OUTPUT:
        if (arg >= LOG_OUT_COUNT) {
            rc = KERM_ERR_PARAM;
        } else {
            // Selecting the current output again stops and restarts it.
            output_stop_if_started(g_state.output);
            g_state.output = static_cast<uint32_t>(arg);
            g_state.write = output_write(g_state.output);
            output_start_if_stopped(g_state.output);
        }
        break;
    case LOG_CTRL_GET_OUTPUT:
        if (arg == 0) rc = KERM_ERR_PARAM;
        else *reinterpret_cast<uint32_t *>(arg) = g_state.output;
        break;
    default:
        rc = KERM_ERR_PARAM;
        break;
    }
    pthread_rwlock_unlock(&g_state.lock);
    return rc;
}

KERM_API uint32_t vask_log_initialize(uint32_t level, uint32_t output) noexcept {
    for (auto &m : g_state.module_level.v) store(m, static_cast<uint8_t>(level));
    g_state.level = level;
    g_state.output = output < LOG_OUT_COUNT ? output : LOG_OUT_CONSOLE;
    store(g_state.pid, static_cast<int32_t>(getpid()));
    g_state.write = output_write(g_state.output);
    // Re-initialised on every call, as process-private: callers initialise
    // before their threads start logging.
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setpshared(&attr, PTHREAD_PROCESS_PRIVATE);
    pthread_rwlock_init(&g_state.lock, &attr);
    pthread_rwlockattr_destroy(&attr);
    // A previously selected output is left running: only the control call stops outputs.
    output_start_if_stopped(g_state.output);
    return 0;
}

KERM_API char *get_local_time(char *dst, uint32_t size) noexcept {
    local_time_text(dst, size);
    return dst;
}

KERM_API char *get_local_time_no_year(char *dst, uint32_t size) noexcept {
    format_local_time<32>("%m-%d %H:%M:%S", t_short_text, dst, size);
    return dst;
}

}  // extern "C"

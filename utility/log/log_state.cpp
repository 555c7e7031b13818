// Log state, level filter, run-time control and the line header.
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/time.h>
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

namespace {
// The kernel thread id, asked once per thread: the header and the console and
// socket lines need it on every message. A forked child starts with the
// forking thread's cache, so the child clears it.
thread_local pid_t t_tid = 0;
void forget_tid_in_child() { t_tid = 0; }
const int g_atfork = pthread_atfork(nullptr, nullptr, forget_tid_in_child);
}  // namespace

pid_t current_tid() {
    (void)g_atfork;
    if (t_tid == 0) t_tid = static_cast<pid_t>(syscall(SYS_gettid));
    return t_tid;
}

namespace {
// Wall-clock time as `format` in a zeroed text of N bytes, then ".mmm".
template <size_t N>
char *format_local_time(const char *format, char *dst, uint32_t size) {
    struct timeval tv;
    struct tm tm;
    char text[N] = {0};
    gettimeofday(&tv, nullptr);
    localtime_r(&tv.tv_sec, &tm);
    strftime(text, sizeof text, format, &tm);
    if (dst != nullptr) snprintf(dst, size, "%s.%03ld", text, static_cast<long>(tv.tv_usec / 1000));
    return dst;
}
}  // namespace

}  // namespace kerm::log

using namespace kerm::log;

extern "C" {

KERM_API uint32_t vask_log_gen_head(uint32_t module, uint32_t level, char *buf, uint32_t size, const char *file,
                                    const char *function, int32_t line) noexcept {
    if (!passes(module, level)) return 0;
    if (buf == nullptr || size == 0) return 1;
    buf[0] = '\0';
    const uint32_t flags = load(g_state.head_flags);
    uint32_t pos = 0;
    // Each field goes at pos with room size - pos - 1 and then pos moves by the
    // field's fixed column width, whatever was printed: a longer field is cut
    // by the next one. Fields stop once no room is left.
    auto room = [&]() -> uint32_t { return pos + 1 < size ? size - pos - 1 : 0; };
#define KERM_HEAD_FIELD(flag, advance, ...)                            \
    if ((flags & (flag)) != 0) {                                       \
        if (room() == 0) return 1;                                     \
        snprintf(buf + pos, room(), __VA_ARGS__);                      \
        pos += (advance);                                              \
    }
    static constexpr const char *colors[VASK_LOG_VERBOSE + 1] = {"\033[31;1m", "\033[35;1m", "\033[33;1m",
                                                                 "\033[32;1m", "\033[36;1m", "\033[37;1m"};
    KERM_HEAD_FIELD(LOG_HDR_COLOR, 7, "%s", colors[clamp_level(level)])
    if ((flags & LOG_HDR_TIME) != 0) {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        KERM_HEAD_FIELD(LOG_HDR_TIME, 12, "-%11u", mono_stamp_us(ts))
    }
    KERM_HEAD_FIELD(LOG_HDR_MODULE, 6, "VASK%02X", module)
    KERM_HEAD_FIELD(LOG_HDR_LEVEL, 2, "@%1d", static_cast<int>(level))
    KERM_HEAD_FIELD(LOG_HDR_PID, 6, "<%4d>", static_cast<int>(load(g_state.pid)))
    KERM_HEAD_FIELD(LOG_HDR_TID, 6, "(%4d)", static_cast<int>(current_tid()))
    KERM_HEAD_FIELD(LOG_HDR_FILE, 16, "%16s", file ? file : "(null)")
    KERM_HEAD_FIELD(LOG_HDR_FUNC, 25, "[%24s", function ? function : "(null)")
    KERM_HEAD_FIELD(LOG_HDR_LINE, 6, ":%4d]", static_cast<int>(line))
    KERM_HEAD_FIELD(LOG_HDR_COLOR, 0, "%s", "\033[0m ")
#undef KERM_HEAD_FIELD
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
    return format_local_time<40>("%Y-%m-%d %H:%M:%S", dst, size);
}

KERM_API char *get_local_time_no_year(char *dst, uint32_t size) noexcept {
    return format_local_time<32>("%m-%d %H:%M:%S", dst, size);
}

}  // extern "C"

// Log outputs, the print calls and the log socket (client and collector).
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "common/kerm_guard.h"
#include "common/kerm_internal.h"
#include "log/android_backend.h"
#include "log/log_internal.h"

namespace kerm::log {

namespace {

constexpr int kAndroidPrio[VASK_LOG_VERBOSE + 1] = {7, 6, 5, 4, 3, 2};
// Trace and verbose go to syslog at emergency priority: the last two rows are 0 on purpose.
constexpr int kSyslogPrio[VASK_LOG_VERBOSE + 1] = {LOG_EMERG, LOG_ERR, LOG_WARNING, LOG_INFO, 0, 0};

constexpr char kSocketName[] = "/dev/aplog";
// Family, the leading zero of the abstract name, and the 10 name characters.
constexpr socklen_t kSocketAddrLen = 13;
static_assert(kSocketAddrLen == sizeof(sa_family_t) + 1 + sizeof kSocketName - 1);

int g_client_fd = -1;
int g_server_fd = -1;
struct sockaddr_un g_last_sender;
char g_process_name[16];

struct sockaddr_un socket_address() {
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, kSocketName, sizeof kSocketName - 1);
    return addr;
}

void syslog_start() {
    openlog("", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    prctl(PR_GET_NAME, g_process_name, 0, 0, 0);
}

void syslog_stop() { closelog(); }

void socket_start() {
    if (g_client_fd >= 0) close(g_client_fd);
    g_client_fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (g_client_fd >= 0) fcntl(g_client_fd, F_SETFL, fcntl(g_client_fd, F_GETFL) | O_NONBLOCK);
}

void socket_stop() {
    if (g_client_fd >= 0) close(g_client_fd);
    g_client_fd = -1;
}

void syslog_write(uint32_t, uint32_t level, const char *head, const char *format, va_list ap) {
    char buf[256] = {0};
    size_t used = 0;
    if (head != nullptr) {
        int n = snprintf(buf, sizeof buf, "%s %c:", head, level_letter(level));
        used = n < 0 ? 0 : (static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
    }
    vsnprintf(buf + used, sizeof buf - used, format ? format : "", ap);
    syslog(kSyslogPrio[clamp_level(level)], "%s", buf);
}

void android_write(int bufid, uint32_t level, const char *head, const char *format, va_list ap) {
    char buf[256] = {0};
    vsnprintf(buf, 255, format ? format : "", ap);
    const int prio = kAndroidPrio[clamp_level(level)];
    if (bufid == kAndroidLogMain) android_log_write(prio, head, buf);
    else android_log_buf_write(bufid, prio, head, buf);
}

void android_main_write(uint32_t, uint32_t level, const char *head, const char *format, va_list ap) {
    android_write(kAndroidLogMain, level, head, format, ap);
}
void android_radio_write(uint32_t, uint32_t level, const char *head, const char *format, va_list ap) {
    android_write(kAndroidLogRadio, level, head, format, ap);
}
void android_system_write(uint32_t, uint32_t level, const char *head, const char *format, va_list ap) {
    android_write(kAndroidLogSystem, level, head, format, ap);
}

bool android_mirror_enabled() {
    char path[512];
    return access(platform_path("/etc/enable_android_log", path, sizeof path), F_OK) == 0;
}

void socket_write(uint32_t module, uint32_t level, const char *head, const char *format, va_list ap) {
    // Room for 253 characters and the terminator; a longer line is cut and
    // then carries no newline. `total` counts what each part would have
    // written uncut, as the bounded prints of the line report it.
    constexpr size_t kRoom = 254;
    char buf[256];
    size_t pos = line_prefix(buf);  // always shorter than the room
    size_t total = pos;
    auto append = [&](const char *text, size_t n) {
        const size_t take = n < kRoom - 1 - pos ? n : kRoom - 1 - pos;
        memcpy(buf + pos, text, take);
        total += n;
        pos = total < kRoom - 1 ? total : kRoom - 1;
    };
    const char tail[4] = {' ', level_letter(level), ' ', ':'};
    if (head != nullptr) {
        append(" ", 1);
        append(head, strnlen(head, kRoom));
    }
    append(tail, sizeof tail);
    buf[pos] = '\0';
    va_list mirror;
    va_copy(mirror, ap);
    const int n = vsnprintf(buf + pos, kRoom - pos, format ? format : "", ap);
    if (n > 0) total += static_cast<size_t>(n);
    if (total < kRoom && buf[total - 1] != '\n') {
        buf[total] = '\n';
        buf[total + 1] = '\0';
    }
    if (g_client_fd >= 0) {
        static const struct sockaddr_un addr = socket_address();
        sendto(g_client_fd, buf, strlen(buf), 0, reinterpret_cast<const struct sockaddr *>(&addr), kSocketAddrLen);
    }
    if (android_mirror_enabled()) android_main_write(module, level, head, format, mirror);
    va_end(mirror);
}

struct LogOutput {
    uint8_t started;
    void (*start)();
    void (*stop)();
    WriteFn write;
};

LogOutput g_outputs[LOG_OUT_COUNT] = {
    {0, nullptr, nullptr, console_write},
    {0, syslog_start, syslog_stop, syslog_write},
    {0, nullptr, nullptr, android_main_write},
    {0, nullptr, nullptr, android_radio_write},
    {0, nullptr, nullptr, android_system_write},
    {0, socket_start, socket_stop, socket_write},
};

}  // namespace

void console_write(uint32_t, uint32_t, const char *head, const char *format, va_list ap) {
    // The prefix is cut at 49 characters; then " head :" or " :", and the
    // message as a second write.
    constexpr size_t kPrefixMax = 49;
    char line[kLinePrefixMax + 1 + 2];
    size_t n = line_prefix(line);
    if (n > kPrefixMax) n = kPrefixMax;
    line[n++] = ' ';
    if (head == nullptr) line[n++] = ':';
    // One locked stretch, so no other thread's output lands inside the prefix.
    flockfile(stdout);
    fwrite_unlocked(line, 1, n, stdout);
    if (head != nullptr) {
        fputs_unlocked(head, stdout);
        fwrite_unlocked(" :", 1, 2, stdout);
    }
    funlockfile(stdout);
    // The format text, not the message, gets the closing newline.
    char fmt[256];
    size_t len = format != nullptr ? strnlen(format, 254) : 0;
    memcpy(fmt, format != nullptr ? format : "", len);
    if (len == 0 || fmt[len - 1] != '\n') fmt[len++] = '\n';
    fmt[len] = '\0';
    vprintf(fmt, ap);
}

WriteFn output_write(uint32_t index) { return g_outputs[index].write; }

void output_start_if_stopped(uint32_t index) {
    LogOutput &o = g_outputs[index];
    if (o.started) return;
    o.started = 1;
    if (o.start) o.start();
}

void output_stop_if_started(uint32_t index) {
    LogOutput &o = g_outputs[index];
    if (!o.started) return;
    o.started = 0;
    if (o.stop) o.stop();
}

}  // namespace kerm::log

using namespace kerm::log;

extern "C" {

KERM_API int32_t vask_log_print(uint32_t module, uint32_t level, const char *head, const char *format, ...) noexcept {
    // A busy lock means a control command is running: drop, never wait.
    kerm::RwTryReadGuard guard(&g_state.lock);
    if (guard.status() != 0) return guard.status();
    if (passes(module, level)) {
        va_list ap;
        va_start(ap, format);
        g_state.write(module, level, head, format, ap);
        va_end(ap);
    }
    return guard.unlock();
}

KERM_API void vask_log_print_syslog(uint32_t module, uint32_t level, const char *head, const char *format,
                                    ...) noexcept {
    va_list ap;
    va_start(ap, format);
    g_outputs[LOG_OUT_SYSLOG].write(module, level, head, format, ap);
    va_end(ap);
}

KERM_API int32_t vask_log_server_initialize(void) noexcept {
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0) return KERM_ERR_FAIL;
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    struct sockaddr_un addr = socket_address();
    // The path text starts with the zero byte of the abstract name, so this
    // removes nothing; the abstract name leaves no file behind.
    unlink(addr.sun_path);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), kSocketAddrLen) != 0) {
        close(fd);
        g_server_fd = -1;
        return KERM_ERR_FAIL;
    }
    g_server_fd = fd;
    return 0;
}

KERM_API int32_t vask_log_server_recv(void *buf, uint32_t len) noexcept {
    socklen_t alen = static_cast<socklen_t>(3 + strnlen(g_last_sender.sun_path + 1, sizeof g_last_sender.sun_path - 1));
    if (alen > sizeof g_last_sender) alen = sizeof g_last_sender;
    ssize_t n = recvfrom(g_server_fd, buf, len, 0, reinterpret_cast<struct sockaddr *>(&g_last_sender), &alen);
    return n < 0 ? -1 : static_cast<int32_t>(n);
}

KERM_API uint32_t vask_log_copy_backtrace(char *dst, int32_t size) noexcept {
    if (dst == nullptr) return 0;
    if (size < 2) {
        dst[0] = '\0';
        return 0;
    }
    kerm::callstack_copy(1, "\t    ", dst, static_cast<size_t>(size));
    return 0;
}

KERM_API uint32_t vask_log_dump_backtrace(const char *logtag) noexcept {
    kerm::callstack_log(1, logtag, kerm::kAndroidPrioDebug);
    return 0;
}

}  // extern "C"

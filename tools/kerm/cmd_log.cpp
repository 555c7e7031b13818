// kerm logcat: the log collector. kerm log-demo: logs through the socket.
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "kerm_cmd.h"
#include "kerm_log.h"

namespace {

volatile sig_atomic_t g_stop = 0;
void on_signal(int) { g_stop = 1; }

// Appends lines to a file and rotates it to FILE.1 once it would pass max_bytes.
struct RotatingFile {
    const char *path = nullptr;
    long max_bytes = 0;
    FILE *f = nullptr;
    long size = 0;

    bool open_file() {
        f = fopen(path, "a");
        if (f == nullptr) return false;
        struct stat st;
        size = fstat(fileno(f), &st) == 0 ? static_cast<long>(st.st_size) : 0;
        return true;
    }
    void write(const char *line, size_t len) {
        if (f == nullptr) return;
        if (max_bytes > 0 && size > 0 && size + static_cast<long>(len) > max_bytes) {
            fclose(f);
            char old[4096];
            snprintf(old, sizeof old, "%s.1", path);
            rename(path, old);
            if (!open_file()) return;
        }
        fwrite(line, 1, len, f);
        fflush(f);
        size += static_cast<long>(len);
    }
};

int logcat(int argc, char **argv) {
    static const struct option opts[] = {{"output", required_argument, nullptr, 'o'},
                                         {"max-bytes", required_argument, nullptr, 'm'},
                                         {"count", required_argument, nullptr, 'c'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    RotatingFile out;
    long count = -1;
    int c;
    while ((c = getopt_long(argc, argv, "o:m:c:h", opts, nullptr)) != -1) {
        switch (c) {
        case 'o': out.path = optarg; break;
        case 'm': out.max_bytes = strtol(optarg, nullptr, 0); break;
        case 'c': count = strtol(optarg, nullptr, 0); break;
        default:
            fprintf(c == 'h' ? stdout : stderr,
                    "usage: kerm logcat [--output FILE [--max-bytes N]] [--count N]\n"
                    "Collects the lines that processes log through the socket output.\n");
            return c == 'h' ? 0 : 2;
        }
    }
    if (out.path != nullptr && !out.open_file()) {
        fprintf(stderr, "kerm logcat: cannot open %s: %s\n", out.path, strerror(errno));
        return 1;
    }
    if (vask_log_server_initialize() != 0) {
        fprintf(stderr, "kerm logcat: cannot bind the log socket (is another collector running?)\n");
        return 1;
    }
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    fprintf(stderr, "kerm logcat: collecting\n");
    char buf[4096];
    while (!g_stop && count != 0) {
        int n = vask_log_server_recv(buf, sizeof buf - 1);
        if (n < 0) {
            // The socket is non-blocking: idle briefly rather than spin.
            struct timespec ts = {0, 5 * 1000 * 1000};
            nanosleep(&ts, nullptr);
            continue;
        }
        // Lines cut at the sender's limit arrive without their newline.
        if (n == 0 || buf[n - 1] != '\n') buf[n++] = '\n';
        fwrite(buf, 1, static_cast<size_t>(n), stdout);
        fflush(stdout);
        out.write(buf, static_cast<size_t>(n));
        if (count > 0) --count;
    }
    if (out.f != nullptr) fclose(out.f);
    return 0;
}

int log_demo(int argc, char **argv) {
    (void)argc;
    (void)argv;
    vask_log_initialize(VASK_LOG_VERBOSE, LOG_OUT_SOCKET);
    vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_MODULE | LOG_HDR_LEVEL | LOG_HDR_FUNC | LOG_HDR_LINE, 0);
    static const struct {
        uint32_t module;
        const char *name;
    } modules[] = {{0x00, "time sync"}, {0x53, "SEI"}, {0x70, "files"}, {0x86, "health client"}};
    static const char *levels[] = {"fatal", "error", "warning", "info", "trace", "verbose"};
    int sent = 0;
    for (const auto &m : modules) {
        for (uint32_t level = 0; level <= VASK_LOG_VERBOSE; ++level) {
            char head[VASK_LOG_HEAD_SIZE];
            if (vask_log_gen_head(m.module, level, head, sizeof head, "tools/kerm/log", __func__, __LINE__)) {
                vask_log_print(m.module, level, head, "%s message from the %s module", levels[level], m.name);
                ++sent;
            }
            // The socket output never waits: pace the lines so the collector's
            // small datagram queue keeps up.
            usleep(3000);
        }
    }
    printf("kerm log-demo: logged %d lines through the socket output\n", sent);
    return 0;
}

}  // namespace

KERM_COMMAND("logcat", "collect log socket lines (--output FILE, --max-bytes N, --count N)", logcat);
KERM_COMMAND("log-demo", "log one line per level from several modules through the socket", log_demo);

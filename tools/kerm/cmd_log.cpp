// kerm logcat: the log collector. kerm log-demo: logs through the socket.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kerm_log.h"
#include "kerm_opts.h"

namespace {

volatile sig_atomic_t g_stop = 0;
void on_signal(int) { g_stop = 1; }

constexpr char kLetters[] = "FEWITV";  // index = level
constexpr int kSilent = -1;            // threshold that lets nothing through

// Appends lines to a file; once it would pass max_bytes it becomes FILE.1,
// FILE.1 becomes FILE.2 and so on up to FILE.keep (the oldest is dropped).
struct RotatingFile {
    std::string path;
    long max_bytes = 0;
    unsigned keep = 1;
    FILE *f = nullptr;
    long size = 0;

    bool open_file() {
        f = fopen(path.c_str(), "a");
        if (f == nullptr) return false;
        struct stat st;
        size = fstat(fileno(f), &st) == 0 ? static_cast<long>(st.st_size) : 0;
        return true;
    }
    std::string numbered(unsigned i) const { return path + "." + std::to_string(i); }
    void rotate() {
        for (unsigned i = keep; i > 1; --i) rename(numbered(i - 1).c_str(), numbered(i).c_str());
        rename(path.c_str(), numbered(1).c_str());
    }
    // False when the line could not be written.
    bool write(const char *line, size_t len) {
        if (f == nullptr) return true;
        if (max_bytes > 0 && size > 0 && size + static_cast<long>(len) > max_bytes) {
            fclose(f);
            f = nullptr;
            rotate();
            if (!open_file()) return false;
        }
        const bool ok = fwrite(line, 1, len, f) == len && fflush(f) == 0;
        size += static_cast<long>(len);
        return ok;
    }
};

// Which lines pass: a threshold per module and one for the rest. A line
// passes when its level is at or above the threshold's severity (F is the
// most severe, V the least).
struct LevelFilter {
    int def = VASK_LOG_VERBOSE;
    std::vector<std::pair<unsigned, int>> modules;

    int threshold(int module) const {
        for (const auto &m : modules)
            if (static_cast<int>(m.first) == module) return m.second;
        return def;
    }
    bool passes(int module, int level) const { return level < 0 || level <= threshold(module); }
};

// A level letter; `what` names where it came from in the message.
int level_of(const std::string &what, const std::string &text) {
    if (text.size() == 1) {
        if (text[0] == 'S' || text[0] == 's') return kSilent;
        const char *p = strchr(kLetters, toupper(static_cast<unsigned char>(text[0])));
        if (p != nullptr && *p != '\0') return static_cast<int>(p - kLetters);
    }
    throw kerm_tool::UsageError{what, "'" + text + "' is not a level (F, E, W, I, T, V or S)"};
}

unsigned module_of(const std::string &what, const std::string &text) {
    // Module ids are hexadecimal in the line head (VASK86): take them so.
    const std::string hex = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? text : "0x" + text;
    uint64_t v = 0;
    std::string why;
    if (!kerm_tool::parse_number(hex, 0, 0xFF, &v, &why))
        throw kerm_tool::UsageError{what, "'" + text + "' is not a module id (hexadecimal, 0 .. ff)"};
    return static_cast<unsigned>(v);
}

struct LogcatArgs {
    std::string output, format = "long", level;
    std::vector<std::string> modules, filters;
    long max_bytes = 0;
    unsigned rotate = 1;
    long count = -1;
} g_logcat;

LevelFilter build_filter(const LogcatArgs &a) {
    LevelFilter f;
    const int level = a.level.empty() ? VASK_LOG_VERBOSE : level_of("--level", a.level);
    if (a.modules.empty()) {
        f.def = level;
    } else {
        f.def = kSilent;  // --module: only those modules
        for (const std::string &m : a.modules) f.modules.emplace_back(module_of("--module", m), level);
    }
    for (const std::string &filter : a.filters) {
        const size_t colon = filter.find(':');
        if (colon == std::string::npos)
            throw kerm_tool::UsageError{"'" + filter + "'", "a filter is MODULE:LEVEL or *:LEVEL"};
        const int l = level_of("'" + filter + "'", filter.substr(colon + 1));
        const std::string mod = filter.substr(0, colon);
        if (mod == "*") f.def = l;
        else f.modules.insert(f.modules.begin(), {module_of("'" + filter + "'", mod), l});
    }
    return f;
}

// What the collector knows of a received line: "DATE TIME PID TID HEAD L :text".
struct Parsed {
    int module = -1, level = -1;
    const char *message;  // after the level letter's " :"
};

Parsed parse_line(const char *line) {
    Parsed p;
    p.message = line;
    // The level letter closes the head: the first " L :" after the date.
    for (const char *c = line; c[0] != '\0' && c[1] != '\0' && c[2] != '\0' && c[3] != '\0'; ++c) {
        if (c[0] == ' ' && c[2] == ' ' && c[3] == ':' && c[1] != '\0' && strchr(kLetters, c[1]) != nullptr) {
            p.level = static_cast<int>(strchr(kLetters, c[1]) - kLetters);
            p.message = c + 4;
            const char *vask = strstr(line, " VASK");
            if (vask != nullptr && vask < c && isxdigit(static_cast<unsigned char>(vask[5])) &&
                isxdigit(static_cast<unsigned char>(vask[6])))
                p.module = static_cast<int>(strtoul(std::string(vask + 5, 2).c_str(), nullptr, 16));
            break;
        }
    }
    return p;
}

// brief: "L/MM: text" (module "--" when the head has none); raw: the text
// alone; long: the line as it came.
std::string formatted(const std::string &format, const char *line, const Parsed &p) {
    if (format == "long" || p.level < 0) return line;
    if (format == "raw") return p.message;
    char tag[8];
    if (p.module >= 0) snprintf(tag, sizeof tag, "%c/%02X: ", kLetters[p.level], p.module);
    else snprintf(tag, sizeof tag, "%c/--: ", kLetters[p.level]);
    return tag + std::string(p.message);
}

int logcat() {
    const LogcatArgs &a = g_logcat;
    const LevelFilter filter = build_filter(a);  // before anything binds or opens
    RotatingFile out;
    out.path = a.output;
    out.max_bytes = a.max_bytes;
    out.keep = a.rotate;
    if (!out.path.empty() && !out.open_file()) return kerm_tool::fail("logcat", out.path, strerror(errno));
    if (vask_log_server_initialize() != 0) {
        if (out.f != nullptr) fclose(out.f);
        return kerm_tool::fail("logcat", "log socket", "cannot bind (is another collector running?)");
    }
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);  // a closed reader is a write error, reported below
    fprintf(stderr, "kerm logcat: collecting\n");
    char buf[4096];
    long count = a.count;
    int rc = kerm_tool::kExitOk;
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
        buf[n] = '\0';
        const Parsed p = parse_line(buf);
        if (!filter.passes(p.module, p.level)) continue;
        const std::string line = formatted(a.format, buf, p);
        if (fwrite(line.data(), 1, line.size(), stdout) != line.size() || fflush(stdout) != 0) {
            rc = kerm_tool::fail("logcat", "standard output", strerror(errno));
            break;
        }
        if (!out.write(line.data(), line.size())) {
            rc = kerm_tool::fail("logcat", out.path, strerror(errno));
            break;
        }
        if (count > 0) --count;
    }
    if (out.f != nullptr && fclose(out.f) != 0 && rc == kerm_tool::kExitOk)
        rc = kerm_tool::fail("logcat", out.path, strerror(errno));
    return rc;
}

kerm_tool::Runner setup_logcat(CLI::App &app) {
    LogcatArgs &a = g_logcat;
    app.description(
        "Collects the lines that processes log through the socket output and prints them.\n"
        "FILTER is MODULE:LEVEL or *:LEVEL (MODULE hexadecimal, LEVEL one of F E W I T V, or S\n"
        "for none); a line passes when its level is at least as severe as its module's filter,\n"
        "e.g. '86:V *:W'. Formats: long (the line as logged), brief ('L/MM: text'), raw (text).");
    app.add_option("-l,--level", a.level, "show lines of this level and more severe (F E W I T V)")->type_name("L");
    app.add_option("-M,--module", a.modules, "show only this module (hexadecimal id; repeatable)")->type_name("ID");
    app.add_option("-F,--format", a.format, "output format (default long)")
        ->check(CLI::IsMember({"long", "brief", "raw"}))
        ->type_name("long|brief|raw");
    CLI::Option *output = app.add_option("-o,--output", a.output, "also append the lines to FILE")->type_name("FILE");
    CLI::Option *max = kerm_tool::add_number(app, "-m,--max-bytes", a.max_bytes, 1, 0x7FFFFFFF,
                                             "rotate FILE once it would pass N bytes");
    kerm_tool::add_number(app, "-r,--rotate", a.rotate, 1, 99, "keep N rotated files FILE.1 .. FILE.N (default 1)")
        ->needs(max);
    max->needs(output);
    kerm_tool::add_number(app, "-c,--count", a.count, 1, 0x7FFFFFFF, "exit after N lines");
    app.add_option("FILTER", a.filters, "per-module filters, e.g. 86:V *:W");
    return logcat;
}

int log_demo() {
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
    return kerm_tool::kExitOk;
}

kerm_tool::Runner setup_demo(CLI::App &app) {
    app.description("Logs one line per level from four modules through the socket output.");
    return log_demo;
}

}  // namespace

KERM_COMMAND("logcat", "collect log socket lines: filters, formats, rotating output", setup_logcat);
KERM_COMMAND("log-demo", "log one line per level from several modules through the socket", setup_demo);

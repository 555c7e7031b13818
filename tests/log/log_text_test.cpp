// The header, the time texts and the console and socket lines, compared with
// a plain bounded-snprintf formatting of the same rules over many random
// times, levels, flags, texts and buffer sizes. The clock is injected.
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "log/log_internal.h"
#include "log_fixture.h"
#include "support/emulator.h"

namespace {

struct timespec g_real, g_mono;
int fake_clock(clockid_t id, struct timespec *ts) {
    *ts = id == CLOCK_MONOTONIC ? g_mono : g_real;
    return 0;
}

// ---- The rules, formatted the plain way. ----

const char *const kColors[] = {"\033[31;1m", "\033[35;1m", "\033[33;1m", "\033[32;1m", "\033[36;1m", "\033[37;1m"};

struct HeadArgs {
    uint32_t flags, module, level, size;
    const char *file, *function;
    int32_t line, pid;
};

// Every field is a bounded print at pos with room size - pos - 1; pos then
// moves by the column width; no field once the room is gone.
std::string reference_head(const HeadArgs &a) {
    std::vector<char> buf(a.size + 64, '\0');
    uint32_t pos = 0;
    bool stopped = false;
    auto field = [&](uint32_t flag, uint32_t advance, const char *fmt, auto... args) {
        if (stopped || (a.flags & flag) == 0) return;
        if (pos + 1 >= a.size) {
            stopped = true;
            return;
        }
        snprintf(buf.data() + pos, a.size - pos - 1, fmt, args...);
        pos += advance;
    };
    const uint32_t stamp = static_cast<uint32_t>(g_mono.tv_sec) * 1000000u + static_cast<uint32_t>(g_mono.tv_nsec / 1000);
    field(LOG_HDR_COLOR, 7, "%s", kColors[a.level < 6 ? a.level : 5]);
    field(LOG_HDR_TIME, 12, "-%11u", stamp);
    field(LOG_HDR_MODULE, 6, "VASK%02X", a.module);
    field(LOG_HDR_LEVEL, 2, "@%1d", static_cast<int>(a.level));
    field(LOG_HDR_PID, 6, "<%4d>", a.pid);
    field(LOG_HDR_TID, 6, "(%4d)", static_cast<int>(gettid()));
    field(LOG_HDR_FILE, 16, "%16s", a.file ? a.file : "(null)");
    field(LOG_HDR_FUNC, 25, "[%24s", a.function ? a.function : "(null)");
    field(LOG_HDR_LINE, 6, ":%4d]", a.line);
    field(LOG_HDR_COLOR, 0, "%s", "\033[0m ");
    return buf.data();
}

std::string reference_time(bool year, uint32_t size) {
    struct tm tm;
    localtime_r(&g_real.tv_sec, &tm);
    char text[40] = {0};
    strftime(text, year ? 40 : 32, year ? "%Y-%m-%d %H:%M:%S" : "%m-%d %H:%M:%S", &tm);
    std::vector<char> out(size + 1, '\0');
    snprintf(out.data(), size, "%s.%03ld", text, static_cast<long>(g_real.tv_nsec / 1000 / 1000));
    return out.data();
}

std::string reference_prefix() {
    std::string now = reference_time(true, 39);
    char prefix[50];
    snprintf(prefix, sizeof prefix, "%s %5d %5d", now.c_str(), static_cast<int>(getpid()), static_cast<int>(gettid()));
    return prefix;
}

char letter(uint32_t level) { return level < 6 ? "FEWITV"[level] : '?'; }

// The socket line: three bounded prints with room 254 in all, a newline at
// the reported length when it is below the room and not already there.
template <class Arg>
std::string reference_socket_line(uint32_t level, const char *head, const char *fmt, Arg arg) {
    char buf[256] = {0};
    long total = 0;
    size_t pos = 0;
    auto add = [&](int n) {
        total += n;
        pos = total < 253 ? static_cast<size_t>(total) : 253;
    };
    add(snprintf(buf, 254, "%s", reference_prefix().c_str()));
    if (head) add(snprintf(buf + pos, 254 - pos, " %s %c %s", head, letter(level), ":"));
    else add(snprintf(buf + pos, 254 - pos, " %c %s", letter(level), ":"));
    add(snprintf(buf + pos, 254 - pos, fmt, arg));
    if (total < 254 && buf[total - 1] != '\n') buf[total] = '\n';
    return buf;
}

// The console line: prefix and head in one print, then the format (cut at
// 254 characters, newline added unless it ends in one) with its argument.
template <class Arg>
std::string reference_console_line(const char *head, const char *fmt, Arg arg) {
    std::string out = reference_prefix() + (head ? std::string(" ") + head + " :" : std::string(" :"));
    char copy[256] = {0};
    strncpy(copy, fmt, 254);
    size_t len = strlen(copy);
    if (len == 0 || copy[len - 1] != '\n') copy[len] = '\n';
    char msg[1024];
    int n = snprintf(msg, sizeof msg, copy, arg);
    return out + std::string(msg, static_cast<size_t>(n));
}

// ---- Random inputs. ----

class LogTextTest : public LogTest {
protected:
    void SetUp() override {
        LogTest::SetUp();
        kerm::log::g_clock = fake_clock;
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);  // a zone with summer time
        tzset();
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, VASK_LOG_ALL_MODULES, 255);
    }
    void TearDown() override {
        kerm::log::g_clock = clock_gettime;
        LogTest::TearDown();
    }
    std::mt19937 rng{20261125};
    uint32_t pick(uint32_t n) { return static_cast<uint32_t>(rng() % n); }
    std::string text(uint32_t max_len) {
        std::string s(pick(max_len + 1), ' ');
        for (char &c : s) c = static_cast<char>('!' + pick(94));
        return s;
    }
    int32_t any_int() {
        static const int32_t edges[] = {0, 7, 9999, 10000, -1, -999, -1000, INT32_MAX, INT32_MIN, 123456};
        return pick(3) == 0 ? edges[pick(10)] : static_cast<int32_t>(rng()) >> pick(31);
    }
    // Random seconds, and seconds on minute, midnight, new year and summer
    // time edges, with every millisecond range.
    void random_wall_time() {
        static const time_t edges[] = {
            1798757999,  // last second of 2026 (UTC+1: 23:59:59 on 31 Dec)
            1774746000,  // summer time starts (2026-03-29 01:00 UTC)
            1792890000,  // summer time ends (2026-10-25 01:00 UTC)
            946681199,   // last second of 1999, local
            86399,       // the first local midnight after the epoch
        };
        time_t sec = pick(3) == 0 ? edges[pick(5)] + static_cast<time_t>(pick(3)) - 1
                                  : static_cast<time_t>(rng() % 0x7FFFFFFFu);
        long ms[] = {0, 9, 10, 99, 100, 999, static_cast<long>(pick(1000))};
        g_real = {sec, ms[pick(7)] * 1000000 + static_cast<long>(pick(1000000))};
    }
};

TEST_F(LogTextTest, HeaderMatchesThePlainFormatting) {
    static const uint32_t sizes[] = {1, 2, 3, 7, 8, 19, 20, 60, 85, 90, 91, 92, 100, 127, 128};
    for (int i = 0; i < kerm_test::scaled(20000, 8); ++i) {
        std::string file = text(24), function = text(40);
        HeadArgs a{pick(0x200),
                   pick(VASK_LOG_MODULE_MAX),
                   pick(4) == 0 ? pick(256) : pick(6),
                   pick(2) ? sizes[pick(15)] : 1 + pick(160),
                   pick(10) == 0 ? nullptr : file.c_str(),
                   pick(10) == 0 ? nullptr : function.c_str(),
                   any_int(),
                   any_int()};
        kerm::log::g_state.pid = a.pid;
        g_mono = {static_cast<time_t>(pick(2) ? rng() % 10000 : 4294 + pick(2)), static_cast<long>(pick(1000000000))};
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, a.flags, 0);
        std::vector<char> buf(a.size + 8, 'Z');
        ASSERT_EQ(vask_log_gen_head(a.module, a.level, buf.data(), a.size, a.file, a.function, a.line), 1u);
        ASSERT_EQ(std::string(buf.data()), reference_head(a))
            << "flags " << a.flags << " size " << a.size << " level " << a.level << " line " << a.line;
        for (size_t k = a.size; k < buf.size(); ++k) ASSERT_EQ(buf[k], 'Z') << "size " << a.size;
    }
}

TEST_F(LogTextTest, TimeTextsMatchStrftimeAcrossSecondDayAndYearEdges) {
    auto check = [&](uint32_t size) {
        char full[72], no_year[72];
        memset(full, 'Z', sizeof full);
        memset(no_year, 'Z', sizeof no_year);
        EXPECT_EQ(get_local_time(full, size), full);
        EXPECT_EQ(std::string(full), reference_time(true, size)) << g_real.tv_sec << "." << g_real.tv_nsec;
        EXPECT_EQ(full[size], 'Z');
        get_local_time_no_year(no_year, size);
        EXPECT_EQ(std::string(no_year), reference_time(false, size)) << g_real.tv_sec;
        EXPECT_EQ(no_year[size], 'Z');
    };
    for (int i = 0; i < kerm_test::scaled(3000, 8); ++i) {
        random_wall_time();
        uint32_t size = pick(4) == 0 ? 1 + pick(30) : 64;
        check(size);
        // The same second again, and the next one, from the reused text.
        g_real.tv_nsec = static_cast<long>(pick(1000000000));
        check(64);
        g_real = {g_real.tv_sec + 1, 999999999};
        check(64);
    }
    EXPECT_EQ(get_local_time(nullptr, 10), nullptr);
    // A zone change shows from the next second on.
    g_real = {1798757999, 5000000};
    check(64);
    setenv("TZ", "JST-9", 1);
    tzset();
    g_real.tv_sec += 1;
    check(64);
    // Each thread keeps its own text.
    std::thread other([&] {
        g_real.tv_sec += 3600;
        check(64);
    });
    other.join();
    g_real.tv_sec -= 3600;
    check(64);
}

TEST_F(LogTextTest, ConsoleAndSocketLinesMatchThePlainFormatting) {
    (void)unshare(CLONE_NEWNET);  // a private abstract name space for the collector
    ASSERT_EQ(vask_log_server_initialize(), 0);
    for (int i = 0; i < kerm_test::scaled(400, 8); ++i) {
        random_wall_time();
        const uint32_t level = pick(4) == 0 ? 6 + pick(250) : pick(6);
        std::string head = text(pick(8) == 0 ? 300 : 100);
        const char *h = pick(6) == 0 ? nullptr : head.c_str();
        std::string message = text(pick(3) == 0 ? 300 : 60);
        // Formats ending in a newline, empty ones, long ones, and an embedded zero byte.
        const char *formats[] = {"%s", "%s\n", "", "\n", "%.0s", "ab%cd", "tail %s end\n"};
        const char *fmt = formats[pick(7)];
        std::string fmt_long = std::string(pick(300), 'x') + (pick(2) ? "\n" : "");
        if (pick(8) == 0) fmt = fmt_long.c_str();
        auto check = [&](auto arg) {
            vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_CONSOLE, 0);
            std::string out = stdout_of([&] { vask_log_print(1, level, h, fmt, arg); });
            ASSERT_EQ(out, reference_console_line(h, fmt, arg)) << "case " << i;

            vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_SOCKET, 0);
            ASSERT_EQ(vask_log_print(1, level, h, fmt, arg), 0);
            char buf[512];
            int n = -1;
            for (int tries = 0; tries < 200 && n < 0; ++tries, usleep(500)) n = vask_log_server_recv(buf, sizeof buf);
            ASSERT_GT(n, 0) << "case " << i;
            ASSERT_EQ(std::string(buf, static_cast<size_t>(n)), reference_socket_line(level, h, fmt, arg))
                << "case " << i;
        };
        if (strcmp(fmt, "ab%cd") == 0) check(0);
        else check(message.c_str());
        // Lines around the 253-character cut, with and without a closing newline.
        if (i < 16) {
            const size_t base = reference_prefix().size() + (h ? strlen(h) + 5 : 4);
            if (base + 8 > 253) continue;
            message.assign(253 - base - 4 + static_cast<size_t>(i % 8), 'm');
            fmt = i % 2 ? "%s\n" : "%s";
            check(message.c_str());
        }
    }
}

}  // namespace

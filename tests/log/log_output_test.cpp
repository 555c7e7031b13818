#include <errno.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <regex>
#include <string>

#include "log_fixture.h"

namespace {

// Abstract socket names are per network namespace: a private one keeps the
// collector's name free of other test runs on the same machine.
class PrivateNetwork : public ::testing::Environment {
    void SetUp() override { (void)unshare(CLONE_NEWNET); }
};
const auto *g_net = ::testing::AddGlobalTestEnvironment(new PrivateNetwork);

const std::string kStamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +\d+)";

std::string recv_line(size_t len = 1024) {
    std::string buf(len, '#');
    for (int i = 0; i < 200; ++i, usleep(1000)) {
        int n = vask_log_server_recv(buf.data(), static_cast<uint32_t>(len));
        if (n >= 0) return buf.substr(0, static_cast<size_t>(n));
    }
    return "<nothing>";
}

bool matches(const std::string &text, const std::string &re) { return std::regex_match(text, std::regex(re)); }

}  // namespace

TEST_F(LogTest, ConsoleLineLayout) {
    std::string out = stdout_of([&] {
        vask_log_print(0x53, 1, "VASK53", "value %d", 42);
        vask_log_print(0x53, 1, "VASK53", "ends in newline\n");
        vask_log_print(0x53, 1, nullptr, "no head");
        vask_log_print(0x53, 3, "VASK53", "filtered");
        vask_log_print(0x53, 1, "VASK53", nullptr);
        // The format text, not the message, is cut at 254 characters.
        vask_log_print(1, 0, nullptr, std::string(300, 'x').c_str(), 0);
    });
    EXPECT_TRUE(matches(out, "(" + kStamp + " VASK53 :value 42\n)(" + kStamp + " VASK53 :ends in newline\n)(" +
                                 kStamp + " :no head\n)(" + kStamp + " VASK53 :\n)(" + kStamp + " :x{254}\n)"))
        << out;
}

TEST_F(LogTest, SocketOutputAndCollector) {
    char buf[64];
    // No collector yet: receiving fails, and socket lines are silently lost.
    EXPECT_EQ(vask_log_server_recv(buf, sizeof buf), -1);
    ASSERT_EQ(vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_SOCKET, 0), 0);
    EXPECT_EQ(vask_log_print(0x53, 1, "VASK53", "lost"), 0);

    ASSERT_EQ(vask_log_server_initialize(), 0);
    errno = 0;
    EXPECT_EQ(vask_log_server_recv(buf, sizeof buf), -1);
    EXPECT_EQ(errno, EAGAIN);

    vask_log_print(0x53, 1, "VASK53", "no SEI, broken stream? %d", 3);
    EXPECT_TRUE(matches(recv_line(), kStamp + " VASK53 E :no SEI, broken stream\\? 3\n"));
    vask_log_print(0x53, 2, nullptr, "no head\n");
    EXPECT_TRUE(matches(recv_line(), kStamp + " W :no head\n"));
    vask_log_print(0x53, 0, "H", "%s", "");
    EXPECT_TRUE(matches(recv_line(), kStamp + " H F :\n"));
    vask_log_print(0x53, 5, "VASK53", "filtered");
    // One datagram per receive, cut to the caller's length, no terminator added
    // (the cut of long lines at 253 characters is LogTextTest's).
    vask_log_print(0x53, 1, "VASK53", "abc");
    char small[8];
    memset(small, '#', sizeof small);
    int n = -1;
    for (int i = 0; i < 200 && n < 0; ++i, usleep(1000)) n = vask_log_server_recv(small, 4);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(small[4], '#');
    EXPECT_EQ(vask_log_server_recv(buf, sizeof buf), -1);  // the rest of it was discarded

    // A second collector fails at bind (the name is taken) and leaves the
    // library without a server descriptor.
    EXPECT_EQ(vask_log_server_initialize(), KERM_ERR_FAIL);
    vask_log_print(0x53, 1, "VASK53", "after");
    errno = 0;
    EXPECT_EQ(vask_log_server_recv(buf, sizeof buf), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(LogTest, SocketLinesAreMirroredToTheAndroidLogWhenEnabled) {
    const char *tmp = getenv("KERM_TEST_TMP");
    std::string root = std::string(tmp ? tmp : "/tmp") + "/log_mirror_" + std::to_string(getpid());
    ASSERT_EQ(system(("mkdir -p " + root + "/etc").c_str()), 0);
    setenv("KERM_UTIL_ROOT", root.c_str(), 1);
    vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_SOCKET, 0);
    ::testing::internal::CaptureStderr();
    vask_log_print(0x53, 1, "VASK53", "not mirrored");
    fclose(fopen((root + "/etc/enable_android_log").c_str(), "w"));
    vask_log_print(0x53, 1, "VASK53", "mirrored %d", 5);
    fflush(stderr);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.find("not mirrored"), std::string::npos) << err;
    EXPECT_NE(err.find("mirrored 5"), std::string::npos) << err;
    EXPECT_NE(err.find("VASK53"), std::string::npos) << err;
    unsetenv("KERM_UTIL_ROOT");
    EXPECT_EQ(system(("rm -rf " + root).c_str()), 0);
}

TEST_F(LogTest, EveryOutputSwitchesAndWritesWithoutFault) {
    for (uint32_t out : {1u, 1u, 2u, 3u, 4u, 5u, 5u, 0u}) {
        ASSERT_EQ(vask_log_control(LOG_CTRL_SET_OUTPUT, out, 0), 0);
        EXPECT_EQ(vask_log_print(0x53, 0, "VASK53", "%s %d", "line", 1), 0);
    }
    vask_log_print_syslog(0x53, 4, "VASK53", "syslog line %d", 1);
    vask_log_print_syslog(0x53, 99, nullptr, "%s", "huge level");
}

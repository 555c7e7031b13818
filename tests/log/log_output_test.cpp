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

const char kStamp[] = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +\d+)";

std::string recv_line() {
    char buf[1024];
    for (int i = 0; i < 200; ++i) {
        int n = vask_log_server_recv(buf, sizeof buf);
        if (n >= 0) return std::string(buf, static_cast<size_t>(n));
        usleep(1000);
    }
    return "<nothing>";
}

}  // namespace

TEST_F(LogTest, ConsoleLineLayout) {
    char h[VASK_LOG_HEAD_SIZE];
    ASSERT_EQ(vask_log_gen_head(0x53, 1, h, sizeof h, "f", "fn", 1), 1u);
    std::string out = capture_stdout([&] {
        vask_log_print(0x53, 1, h, "value %d", 42);
        vask_log_print(0x53, 1, h, "ends in newline\n");
        vask_log_print(0x53, 1, nullptr, "no head");
        vask_log_print(0x53, 3, h, "filtered");
        vask_log_print(0x53, 1, h, nullptr);
    });
    std::regex re(std::string("(") + kStamp + " VASK53 :value 42\n)(" + kStamp + " VASK53 :ends in newline\n)(" +
                  kStamp + " :no head\n)(" + kStamp + " VASK53 :\n)");
    EXPECT_TRUE(std::regex_match(out, re)) << out;
}

TEST_F(LogTest, ConsoleCutsTheFormatNotTheMessage) {
    std::string fmt(300, 'x');
    std::string out = capture_stdout([&] { vask_log_print(1, 0, nullptr, fmt.c_str(), 0); });
    EXPECT_NE(out.find(" :" + std::string(254, 'x') + "\n"), std::string::npos);
    EXPECT_EQ(out.find(std::string(255, 'x')), std::string::npos);
}

TEST_F(LogTest, SocketOutputAndCollector) {
    char buf[64];
    // No collector yet: receiving fails, and socket lines are silently lost.
    errno = 0;
    EXPECT_EQ(vask_log_server_recv(buf, sizeof buf), -1);
    ASSERT_EQ(vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_SOCKET, 0), 0);
    EXPECT_EQ(vask_log_print(0x53, 1, "VASK53", "lost"), 0);

    ASSERT_EQ(vask_log_server_initialize(), 0);
    errno = 0;
    EXPECT_EQ(vask_log_server_recv(buf, sizeof buf), -1);
    EXPECT_EQ(errno, EAGAIN);

    vask_log_print(0x53, 1, "VASK53", "no SEI, broken stream? %d", 3);
    EXPECT_TRUE(std::regex_match(recv_line(), std::regex(std::string(kStamp) + " VASK53 E :no SEI, broken stream\\? 3\n")));
    vask_log_print(0x53, 2, nullptr, "no head\n");
    EXPECT_TRUE(std::regex_match(recv_line(), std::regex(std::string(kStamp) + " W :no head\n")));
    vask_log_print(0x53, 0, "H", "%s", "");
    EXPECT_TRUE(std::regex_match(recv_line(), std::regex(std::string(kStamp) + " H F :\n")));

    // Long lines are cut to 253 characters and carry no newline.
    std::string body(400, 'y');
    vask_log_print(0x53, 1, "VASK53", "%s", body.c_str());
    std::string line = recv_line();
    EXPECT_EQ(line.size(), 253u);
    EXPECT_EQ(line.back(), 'y');
    // A line of exactly 253 characters ending in a newline is kept whole.
    vask_log_print(0x53, 1, "VASK53", "%s", "z");
    size_t fixed = recv_line().size() - 2;  // what precedes "z\n"
    std::string exact(253 - fixed - 1, 'z');
    vask_log_print(0x53, 1, "VASK53", "%s\n", exact.c_str());
    line = recv_line();
    EXPECT_EQ(line.size(), 253u);
    EXPECT_EQ(line.back(), '\n');

    // Filtered messages never reach the socket.
    vask_log_print(0x53, 5, "VASK53", "filtered");
    EXPECT_EQ(vask_log_server_recv(buf, sizeof buf), -1);

    // The recv is one datagram cut to the caller's length, with no terminator added.
    vask_log_print(0x53, 1, "VASK53", "abc");
    char small[8];
    memset(small, '#', sizeof small);
    int n = -1;
    for (int i = 0; i < 200 && n < 0; ++i, usleep(1000)) n = vask_log_server_recv(small, 4);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(small[4], '#');

    // A second collector fails at bind (the name is taken) and leaves the
    // library without a server descriptor.
    EXPECT_EQ(vask_log_server_initialize(), KERM_ERR_FAIL);
    vask_log_print(0x53, 1, "VASK53", "after");
    usleep(10000);
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
    FILE *f = fopen((root + "/etc/enable_android_log").c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    vask_log_print(0x53, 1, "VASK53", "mirrored %d", 5);
    fflush(stderr);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.find("not mirrored"), std::string::npos) << err;
    EXPECT_NE(err.find("mirrored 5"), std::string::npos) << err;
    EXPECT_NE(err.find("VASK53"), std::string::npos) << err;
    unsetenv("KERM_UTIL_ROOT");
    system(("rm -rf " + root).c_str());
}

TEST_F(LogTest, OtherOutputsSwitchCleanly) {
    for (uint32_t out : {1u, 1u, 2u, 3u, 4u, 5u, 5u, 0u}) {
        ASSERT_EQ(vask_log_control(LOG_CTRL_SET_OUTPUT, out, 0), 0);
        EXPECT_EQ(vask_log_print(0x53, 5, "VASK53", "%s", "filtered everywhere"), 0);
    }
    vask_log_print_syslog(0x53, 4, "VASK53", "syslog line %d", 1);
    vask_log_print_syslog(0x53, 99, nullptr, "%s", "huge level");
}

// Hardware identity read from substitute files below KERM_UTIL_ROOT.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "kerm_hwinfo.h"
#include "support/scratch_dir.h"

namespace {

using kerm_test::ScratchDir;

template <class F>
std::string stdout_of(F &&f) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    f();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

class HwinfoTest : public testing::Test {
protected:
    void SetUp() override { setenv("KERM_UTIL_ROOT", dir_.root().c_str(), 1); }
    void TearDown() override { unsetenv("KERM_UTIL_ROOT"); }
    void config(const std::string &text) { dir_.write("etc/nox.json", text); }
    void cmdline(const std::string &text) { dir_.write("proc/cmdline", text); }

    ScratchDir dir_;
};

TEST_F(HwinfoTest, HwStrIsCopiedWithABoundedCopy) {
    config(R"({"version": 3, "platform": {"board": "x", "hw_str": "nox-v2"}})");
    char buf[16];
    memset(buf, '#', sizeof buf);
    std::string out = stdout_of([&] { EXPECT_EQ(get_hw_str(buf, sizeof buf), 0); });
    EXPECT_STREQ(buf, "nox-v2");
    EXPECT_EQ(buf[15], '\0');  // the copy pads the rest
    EXPECT_EQ(out, "Get the hw_str nox-v2\n");

    // A text as long as the buffer fills it without a terminator.
    memset(buf, '#', sizeof buf);
    out = stdout_of([&] { EXPECT_EQ(get_hw_str(buf, 3), 0); });
    EXPECT_EQ(std::string(buf, 4), "nox#");
    EXPECT_EQ(out, "Get the hw_str nox\n");
}

TEST_F(HwinfoTest, HwStrFailuresPrintTheirLineAndLeaveTheBufferAlone) {
    struct Case {
        const char *file;  // null: no file
        const char *printed;
    } cases[] = {
        {nullptr, "Open file failed! -1"},
        {"", "Read file failed! 0"},
        {"{\"platform\": ", "Parse json file fail please check your json file!\n {\"platform\": "},
        {R"({"hw_str": "top-level"})", "Can't find platform domain\n"},
        {R"({"platform": {"hw": "x"}})", "Can't find platform:hw_str domain!, exit"},
        {R"({"platform": {"hw_str": 42}})", "Can't find platform:hw_str domain!, exit"},
        {R"({"platform": {"hw_str": null}})", "Can't find platform:hw_str domain!, exit"},
    };
    for (const Case &c : cases) {
        if (c.file != nullptr) config(c.file);
        else unlink(dir_.path("etc/nox.json").c_str());
        char buf[8] = "unset";
        std::string out = stdout_of([&] { EXPECT_EQ(get_hw_str(buf, sizeof buf), -1) << c.printed; });
        EXPECT_EQ(out, c.printed);
        EXPECT_STREQ(buf, "unset");
    }
    EXPECT_EQ(stdout_of([] { EXPECT_EQ(get_hw_str(nullptr, 8), -1); }).empty(), false);
}

TEST_F(HwinfoTest, ConfigIsReadOnlyUpToTheLimitAndTerminated) {
    // The string stays open up to the 0x18000-byte limit and only closes
    // beyond it: a reader that went past the limit would find a valid file.
    std::string text = R"({"platform": {"hw_str": ")";
    text.append(0x18000 - text.size(), 'a');
    text += R"("}})";
    config(text);
    char buf[8];
    std::string out = stdout_of([&] { EXPECT_EQ(get_hw_str(buf, sizeof buf), -1); });
    EXPECT_EQ(out.rfind("Parse json file fail", 0), 0u);
}

TEST_F(HwinfoTest, SerialNumberStopsAtBlankAndPrintsEachCharacter) {
    cmdline("console=ttyS0 chip_sn=ABC123 quiet\n");
    uint8_t buf[16];
    memset(buf, '#', sizeof buf);
    std::string out = stdout_of([&] { EXPECT_EQ(get_chip_sn(buf, sizeof buf), 6u); });
    EXPECT_STREQ(reinterpret_cast<char *>(buf), "ABC123");
    EXPECT_EQ(out, "char 41\nchar 42\nchar 43\nchar 31\nchar 32\nchar 33\n");
}

TEST_F(HwinfoTest, SerialNumberAtTheEndKeepsTheNewline) {
    // Tabs and newlines do not end a value; only NUL and blank do.
    cmdline("chip_sn=C1 console=ttyS0 board_sn=B\t7\n");
    uint8_t buf[16];
    std::string out = stdout_of([&] { EXPECT_EQ(get_board_sn(buf, sizeof buf), 4u); });
    EXPECT_STREQ(reinterpret_cast<char *>(buf), "B\t7\n");
    EXPECT_EQ(out, "char 42\nchar  9\nchar 37\nchar  a\n");
    EXPECT_EQ(stdout_of([&] { EXPECT_EQ(get_chip_sn(buf, sizeof buf), 2u); }), "char 43\nchar 31\n");
    EXPECT_STREQ(reinterpret_cast<char *>(buf), "C1");
}

TEST_F(HwinfoTest, SerialNumberIsFoundPastTheFirstPieceOfALongLine) {
    cmdline(std::string(5000, 'x') + " chip_sn=LATE");
    uint8_t buf[16];
    stdout_of([&] { EXPECT_EQ(get_chip_sn(buf, sizeof buf), 4u); });
    EXPECT_STREQ(reinterpret_cast<char *>(buf), "LATE");
}

TEST_F(HwinfoTest, MissingKeyOrFileGivesAnEmptyText) {
    uint8_t buf[8] = {'z', 'z', 0};
    EXPECT_EQ(get_chip_sn(buf, sizeof buf), 0u);  // no command line at all
    EXPECT_EQ(buf[0], 0);
    cmdline("console=ttyS0 quiet board_sn=\n");
    buf[0] = 'z';
    EXPECT_EQ(get_chip_sn(buf, sizeof buf), 0u);
    EXPECT_EQ(buf[0], 0);
}

using HwinfoDeathTest = HwinfoTest;

// The message goes to standard output; the death test matches standard error.
#define EXPECT_EXITS_SAYING(call, text)                 \
    EXPECT_EXIT(                                        \
        {                                               \
            fflush(stdout);                             \
            dup2(STDERR_FILENO, STDOUT_FILENO);         \
            call;                                       \
        },                                              \
        testing::ExitedWithCode(255), text)

TEST_F(HwinfoDeathTest, TooSmallSerialBufferEndsTheProcess) {
    cmdline("console=ttyS0 chip_sn=ABC123 board_sn=B-77\n");
    uint8_t buf[16];
    EXPECT_EXITS_SAYING(get_chip_sn(buf, 6), "should set enough size for chip_sn");
    EXPECT_EXITS_SAYING(get_board_sn(buf, 5), "should set enough size for board_sn");
    EXPECT_EXITS_SAYING(get_chip_sn(buf, -1), "should set enough size for chip_sn");
    stdout_of([&] { EXPECT_EQ(get_chip_sn(buf, 7), 6u); });

    cmdline("console=ttyS0\n");
    EXPECT_EXITS_SAYING(get_chip_sn(buf, 0), "should set enough size for chip_sn");
    EXPECT_EQ(get_chip_sn(buf, 1), 0u);
}

}  // namespace

// Hardware identity read from substitute files below KERM_UTIL_ROOT.
#include <string.h>

#include "kerm_hwinfo.h"
#include "support/scratch_dir.h"

using kerm_test::stdout_of;

class HwinfoTest : public testing::Test {
protected:
    void SetUp() override { setenv("KERM_UTIL_ROOT", dir_.root().c_str(), 1); }
    // Writes (or, for null, removes) a substitute file.
    void put(const char *rel, const char *text) {
        if (text != nullptr) dir_.write(rel, text);
        else unlink(dir_.path(rel).c_str());
    }
    kerm_test::ScratchDir dir_;
};

TEST_F(HwinfoTest, HwStrIsCopiedBoundedOrEachFailurePrintsItsLine) {
    const char *good = R"({"version": 3, "platform": {"board": "x", "hw_str": "nox-v2"}})";
    // The string stays open up to the 0x18000-byte read limit and only closes
    // beyond it: a reader that went past the limit would find a valid file.
    std::string too_long = R"({"platform": {"hw_str": ")";
    too_long.append(0x18000 - too_long.size(), 'a') += R"("}})";
    // A null file is removed; failures leave the buffer alone.
    const struct {
        const char *file;
        std::string printed;
        int32_t rc = -1;
        uint32_t len = 8;
        std::string buf = "unset###";
    } rows[] = {
        {good, "Get the hw_str nox-v2\n", 0, 8, {"nox-v2\0\0", 8}},  // the copy pads the rest
        {good, "Get the hw_str nox\n", 0, 3, "noxet###"},             // or fills it unterminated
        {nullptr, "Open file failed! -1"},
        {"", "Read file failed! 0"},
        {"{\"platform\": ", "Parse json file fail please check your json file!\n {\"platform\": "},
        {too_long.c_str(), "Parse json file fail please check your json file!\n " + too_long.substr(0, 0x18000)},
        {R"({"hw_str": "top-level"})", "Can't find platform domain\n"},
        {R"({"platform": {"hw": "x"}})", "Can't find platform:hw_str domain!, exit"},
        {R"({"platform": {"hw_str": 42}})", "Can't find platform:hw_str domain!, exit"},
    };
    for (const auto &r : rows) {
        put("etc/nox.json", r.file);
        char buf[8] = {'u', 'n', 's', 'e', 't', '#', '#', '#'};
        EXPECT_EQ(stdout_of([&] { EXPECT_EQ(get_hw_str(buf, r.len), r.rc); }), r.printed);
        EXPECT_EQ(std::string(buf, 8), r.buf) << r.printed;
    }
    EXPECT_EQ(stdout_of([] { EXPECT_EQ(get_hw_str(nullptr, 8), -1); }), "get_hw_str: null destination\n");
}

TEST_F(HwinfoTest, SerialNumbersEndOnlyAtBlankOrEndAndPrintEachCharacter) {
    const std::string late = std::string(5000, 'x') + " chip_sn=LATE";  // past the first piece read
    // A null command line is removed.
    const struct { const char *cmdline; uint32_t (*get)(uint8_t *, int32_t); const char *value, *printed; } rows[] = {
        {"console=ttyS0 chip_sn=ABC123 quiet\n", get_chip_sn, "ABC123",
         "char 41\nchar 42\nchar 43\nchar 31\nchar 32\nchar 33\n"},
        // Tabs and the kernel's newline do not end a value.
        {"chip_sn=C1 console=ttyS0 board_sn=B\t7\n", get_board_sn, "B\t7\n", "char 42\nchar  9\nchar 37\nchar  a\n"},
        {"chip_sn=C1 console=ttyS0 board_sn=B\t7\n", get_chip_sn, "C1", "char 43\nchar 31\n"},
        {nullptr, get_chip_sn, "", ""},
        {"console=ttyS0 quiet board_sn=\n", get_chip_sn, "", ""},
        {late.c_str(), get_chip_sn, "LATE", "char 4c\nchar 41\nchar 54\nchar 45\n"},
    };
    for (const auto &r : rows) {
        put("proc/cmdline", r.cmdline);
        uint8_t buf[16];
        memset(buf, '#', sizeof buf);
        EXPECT_EQ(stdout_of([&] { EXPECT_EQ(r.get(buf, sizeof buf), strlen(r.value)); }), r.printed);
        EXPECT_STREQ(reinterpret_cast<char *>(buf), r.value);
    }
}

using HwinfoDeathTest = HwinfoTest;

TEST_F(HwinfoDeathTest, TooSmallSerialBufferEndsTheProcess) {
    put("proc/cmdline", "console=ttyS0 chip_sn=ABC123 board_sn=B-77\n");
    uint8_t buf[16];
    KERM_EXPECT_EXIT_PRINTING(get_chip_sn(buf, 6), "should set enough size for chip_sn");
    KERM_EXPECT_EXIT_PRINTING(get_board_sn(buf, 5), "should set enough size for board_sn");  // "B-77\n"
    KERM_EXPECT_EXIT_PRINTING(get_chip_sn(buf, -1), "should set enough size for chip_sn");
    stdout_of([&] { EXPECT_EQ(get_chip_sn(buf, 7), 6u); });
    // Even an empty value needs room for its terminator.
    put("proc/cmdline", "console=ttyS0\n");
    KERM_EXPECT_EXIT_PRINTING(get_chip_sn(buf, 0), "should set enough size for chip_sn");
    EXPECT_EQ(get_chip_sn(buf, 1), 0u);
}

// File helpers: results, logged lines, load slices and mapped-file writes.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "kerm_file.h"
#include "kerm_log.h"
#include "support/scratch_dir.h"

namespace {

using kerm_test::ScratchDir;

// Runs f and returns what the console log output printed meanwhile.
template <class F>
std::string console_of(F &&f) {
    testing::internal::CaptureStdout();
    f();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// The console text of one file-helper message: module 0x70, the level, the
// source path cut to its 16-column field, the function name, the message.
std::string logged(int level, const char *function, const std::string &text) {
    char head[64];
    snprintf(head, sizeof head, "VASK70@%dutility/file/uti[%24s :", level, function);
    return head + text;
}

off_t size_on_disk(const std::string &p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 ? st.st_size : -1;
}

class FileTest : public testing::Test {
protected:
    void SetUp() override {
        vask_log_control(LOG_CTRL_GET_HEAD_FLAGS, reinterpret_cast<uintptr_t>(&saved_flags_), 0);
        // Module, level, file and function in the header; traces of 0x70 shown.
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_MODULE | LOG_HDR_LEVEL | LOG_HDR_FILE | LOG_HDR_FUNC, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x70, VASK_LOG_TRACE);
        digits_ = dir_.write("digits", "0123456789");
    }
    void TearDown() override {
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, saved_flags_, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x70, VASK_LOG_WARNING);
    }

    // Loads and returns the bytes (or "<null>"), with the length seen.
    std::string load(uint32_t offset, uint32_t max_len, uint32_t *len) {
        void *buf = vask_load_file(digits_.c_str(), offset, max_len, len);
        if (buf == nullptr) return "<null>";
        std::string s(static_cast<char *>(buf), *len);
        free(buf);
        return s;
    }

    ScratchDir dir_;
    std::string digits_;
    uint32_t saved_flags_ = 0;
};

TEST_F(FileTest, AccessAndSizeReportMissingFilesByCodeAndLogLine) {
    EXPECT_EQ(vask_access_file(digits_.c_str()), 0);
    EXPECT_EQ(vask_get_file_size(digits_.c_str()), 10);
    EXPECT_EQ(vask_get_file_size(dir_.write("empty", "").c_str()), 0);

    const std::string missing = dir_.path("missing");
    std::string out = console_of([&] { EXPECT_EQ(vask_access_file(missing.c_str()), KERM_ERR_FAIL); });
    EXPECT_NE(out.find(logged(1, "vask_access_file", "Cannot open file " + missing + "\n")), std::string::npos)
        << out;

    out = console_of([&] { EXPECT_EQ(vask_get_file_size(missing.c_str()), -1); });
    EXPECT_NE(out.find(logged(1, "vask_get_file_size", "Cannot open file " + missing + "\n")), std::string::npos)
        << out;

    out = console_of([] {
        EXPECT_EQ(vask_access_file(nullptr), KERM_ERR_FAIL);
        EXPECT_EQ(vask_get_file_size(nullptr), -1);
    });
    EXPECT_NE(out.find("Cannot open file (null)"), std::string::npos) << out;
}

TEST_F(FileTest, LoadSlicesFollowOffsetAndLengthRules) {
    uint32_t len = 99;
    EXPECT_EQ(load(0, 0, &len), "0123456789");
    EXPECT_EQ(len, 10u);
    EXPECT_EQ(load(0, 0xFFFFFFFFu, &len), "0123456789");
    EXPECT_EQ(load(3, 4, &len), "3456");
    EXPECT_EQ(load(8, 100, &len), "89");
    EXPECT_EQ(load(9, 0, &len), "9");
    // Offset at the end: an empty load, still a buffer.
    len = 99;
    EXPECT_EQ(load(10, 0, &len), "");
    EXPECT_EQ(len, 0u);

    void *buf = vask_load_file(digits_.c_str(), 2, 3, nullptr);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(std::string(static_cast<char *>(buf), 3), "234");
    free(buf);
}

TEST_F(FileTest, LoadFailuresLogAndSetLengthOnlyAfterOpen) {
    uint32_t len = 99;
    std::string out = console_of([&] { EXPECT_EQ(load(11, 0, &len), "<null>"); });
    EXPECT_EQ(len, 0u);
    EXPECT_NE(out.find(logged(4, "vask_load_file", "load file: " + digits_ + "...\n")), std::string::npos) << out;
    EXPECT_NE(out.find(logged(1, "vask_load_file", "parameter error, offset(11) > filesize(10)\n")),
              std::string::npos)
        << out;

    // A failed open leaves the length alone; the trace line comes first.
    const std::string missing = dir_.path("missing");
    len = 77;
    out = console_of([&] { EXPECT_EQ(vask_load_file(missing.c_str(), 0, 0, &len), nullptr); });
    EXPECT_EQ(len, 77u);
    const size_t trace = out.find(logged(4, "vask_load_file", "load file: " + missing + "...\n"));
    const size_t error = out.find(logged(1, "vask_load_file", "Cannot open file " + missing + "\n"));
    ASSERT_NE(trace, std::string::npos) << out;
    ASSERT_NE(error, std::string::npos) << out;
    EXPECT_LT(trace, error);

    // A directory opens but cannot be read.
    len = 77;
    out = console_of([&] { EXPECT_EQ(vask_load_file(dir_.root().c_str(), 0, 0, &len), nullptr); });
    EXPECT_EQ(len, 0u);
    EXPECT_NE(out.find(logged(1, "vask_load_file", "Reading file " + dir_.root() + " failed\n")), std::string::npos)
        << out;

    out = console_of([] { EXPECT_EQ(vask_load_file(nullptr, 0, 0, nullptr), nullptr); });
    EXPECT_NE(out.find("Cannot open file (null)"), std::string::npos) << out;
}

TEST_F(FileTest, WriteModeFillsUpToSizeAndCloseCutsToWrittenLength) {
    const std::string p = dir_.path("out.bin");
    MmapFile f{};
    ASSERT_EQ(vask_mmap_file_open(VASK_MMAP_FILE_WRITE, p.c_str(), 4096, &f), 0);
    EXPECT_EQ(f.size, 4096u);
    EXPECT_EQ(f.used, 0u);
    EXPECT_EQ(f.path, p.c_str());
    EXPECT_EQ(size_on_disk(p), 4096);

    const uint8_t ten[10] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j'};
    EXPECT_EQ(vask_mmap_file_write(&f, ten, 6), 0);
    EXPECT_EQ(vask_mmap_file_write(&f, ten + 6, 4), 0);
    EXPECT_EQ(vask_mmap_file_write(&f, nullptr, 0), 0);
    EXPECT_EQ(f.used, 10u);
    EXPECT_EQ(vask_mmap_file_write(&f, ten, -1), KERM_ERR_NO_MEMORY);
    EXPECT_EQ(f.used, 10u);
    ASSERT_EQ(vask_mmap_file_close(&f), 0);
    EXPECT_EQ(size_on_disk(p), 10);
    EXPECT_EQ(ScratchDir::read(p), "abcdefghij");
    // Closed: a second close is refused instead of reaching a reused descriptor.
    EXPECT_EQ(vask_mmap_file_close(&f), KERM_ERR_EXHAUSTED);
}

TEST_F(FileTest, WriteExactlyToTheEndThenOneByteMoreIsRefused) {
    const std::string p = dir_.path("full.bin");
    MmapFile f{};
    ASSERT_EQ(vask_mmap_file_open(VASK_MMAP_FILE_WRITE, p.c_str(), 16, &f), 0);
    const std::string data = "0123456789abcdef";
    EXPECT_EQ(vask_mmap_file_write(&f, reinterpret_cast<const uint8_t *>(data.data()), 15), 0);
    EXPECT_EQ(vask_mmap_file_write(&f, reinterpret_cast<const uint8_t *>("xy"), 2), KERM_ERR_NO_MEMORY);
    EXPECT_EQ(vask_mmap_file_write(&f, reinterpret_cast<const uint8_t *>("f"), 1), 0);
    EXPECT_EQ(vask_mmap_file_write(&f, reinterpret_cast<const uint8_t *>("g"), 1), KERM_ERR_NO_MEMORY);
    EXPECT_EQ(f.used, 16u);
    ASSERT_EQ(vask_mmap_file_close(&f), 0);
    EXPECT_EQ(ScratchDir::read(p), data);
}

TEST_F(FileTest, ReadModeMapsDespiteSizeMismatchAfterLogging) {
    MmapFile f{};
    std::string out = console_of([&] { ASSERT_EQ(vask_mmap_file_open(0, digits_.c_str(), 4096, &f), 0); });
    EXPECT_NE(out.find(logged(1, "vask_mmap_file_open",
                              "Alloc file size is not matched with the expected_size " + digits_ + " 10 4096")),
              std::string::npos)
        << out;
    EXPECT_EQ(std::string(reinterpret_cast<char *>(f.base), 10), "0123456789");
    // Nothing may be written through a read mapping.
    EXPECT_EQ(vask_mmap_file_write(&f, reinterpret_cast<const uint8_t *>("x"), 1), KERM_ERR_NO_MEMORY);
    ASSERT_EQ(vask_mmap_file_close(&f), 0);
    EXPECT_EQ(ScratchDir::read(digits_), "0123456789");

    // Any mode other than 2 reads; an exact size logs nothing.
    out = console_of([&] { ASSERT_EQ(vask_mmap_file_open(7, digits_.c_str(), 10, &f), 0); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(f.base[9], '9');
    ASSERT_EQ(vask_mmap_file_close(&f), 0);
}

TEST_F(FileTest, WriteModeRefusesAFileItCannotSize) {
    // fallocate never shrinks: a longer existing file stays longer.
    const std::string p = dir_.write("long.bin", std::string(100, 'z'));
    MmapFile f{};
    std::string out =
        console_of([&] { EXPECT_EQ(vask_mmap_file_open(VASK_MMAP_FILE_WRITE, p.c_str(), 10, &f), KERM_ERR_SIZE); });
    EXPECT_NE(out.find(logged(1, "vask_mmap_file_open", "Alloc file size is not matched with the expected_size " +
                                                             p + " 100 10")),
              std::string::npos)
        << out;
    EXPECT_EQ(f.fd, 0);
    EXPECT_EQ(size_on_disk(p), 100);
}

TEST_F(FileTest, OpenFailuresReturnTheirCodesSilently) {
    MmapFile f{};
    std::string out = console_of([&] {
        EXPECT_EQ(vask_mmap_file_open(0, nullptr, 10, &f), KERM_ERR_EXHAUSTED);
        EXPECT_EQ(vask_mmap_file_open(0, digits_.c_str(), 10, nullptr), KERM_ERR_EXHAUSTED);
        EXPECT_EQ(vask_mmap_file_open(0, dir_.path("missing").c_str(), 10, &f), KERM_ERR_FAIL);
        EXPECT_EQ(vask_mmap_file_open(VASK_MMAP_FILE_WRITE, dir_.path("no/such/dir").c_str(), 10, &f),
                  KERM_ERR_FAIL);
        // A zero-length mapping is refused by the system.
        EXPECT_EQ(vask_mmap_file_open(VASK_MMAP_FILE_WRITE, dir_.path("zero").c_str(), 0, &f), KERM_ERR_EXHAUSTED);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(f.fd, 0);
    // Size 0 must not have grown the file to the 4 GiB edge.
    EXPECT_EQ(size_on_disk(dir_.path("zero")), 0);
}

TEST_F(FileTest, CloseStopsAtTheFirstFailingStep) {
    EXPECT_EQ(vask_mmap_file_close(nullptr), KERM_ERR_EXHAUSTED);
    MmapFile never_opened{};
    EXPECT_EQ(vask_mmap_file_close(&never_opened), KERM_ERR_EXHAUSTED);
    EXPECT_EQ(vask_mmap_file_write(nullptr, reinterpret_cast<const uint8_t *>("x"), 1), KERM_ERR_PARAM);

    // The path vanished: the cut fails and the mapping and descriptor stay.
    const std::string p = dir_.path("gone.bin");
    MmapFile f{};
    ASSERT_EQ(vask_mmap_file_open(VASK_MMAP_FILE_WRITE, p.c_str(), 64, &f), 0);
    ASSERT_EQ(vask_mmap_file_write(&f, reinterpret_cast<const uint8_t *>("keep"), 4), 0);
    ASSERT_EQ(unlink(p.c_str()), 0);
    EXPECT_EQ(vask_mmap_file_close(&f), KERM_ERR_FAIL);
    EXPECT_NE(f.fd, 0);
    EXPECT_EQ(f.base[0], 'k');
    // Once the path exists again the close completes, cutting that file.
    dir_.write("gone.bin", std::string(64, 'q'));
    EXPECT_EQ(vask_mmap_file_close(&f), 0);
    EXPECT_EQ(ScratchDir::read(p), "qqqq");
}

}  // namespace

// File helpers: results, logged lines, load slices and mapped-file writes.
#include <string.h>

#include "kerm_file.h"
#include "kerm_log.h"
#include "support/scratch_dir.h"

using kerm_test::ScratchDir;
using kerm_test::stdout_of;

// One console message of the file helpers: module 0x70, the level, the source
// path cut to its 16-column field, the function, the text.
struct Logged {
    int level;
    const char *function;
    std::string text;
};

// Each message appears whole (right after the time and thread ids), in order.
void expect_logged(const std::string &out, std::initializer_list<Logged> lines) {
    size_t at = 0;
    for (const Logged &l : lines) {
        char head[64];
        snprintf(head, sizeof head, " VASK70@%dutility/file/uti[%24s :", l.level, l.function);
        at = out.find(head + l.text, at);
        ASSERT_NE(at, std::string::npos) << head << l.text << "\nnot in:\n" << out;
    }
}

int32_t put(MmapFile *f, const char *text) {
    return vask_mmap_file_write(f, reinterpret_cast<const uint8_t *>(text), static_cast<int32_t>(strlen(text)));
}

const std::string kSizeMismatch = "Alloc file size is not matched with the expected_size ";

class FileTest : public testing::Test {
protected:
    void SetUp() override {
        // Module, level, file and function in each header; this module's traces shown.
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_MODULE | LOG_HDR_LEVEL | LOG_HDR_FILE | LOG_HDR_FUNC, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x70, VASK_LOG_TRACE);
    }
    ScratchDir dir_;
    const std::string digits_ = dir_.write("digits", "0123456789"), missing_ = dir_.path("missing");
};

TEST_F(FileTest, AccessAndSizeReportMissingFilesByCodeAndLogLine) {
    EXPECT_EQ(vask_access_file(digits_.c_str()), 0);
    EXPECT_EQ(vask_get_file_size(digits_.c_str()), 10);
    const std::string out = stdout_of([&] {
        EXPECT_EQ(vask_access_file(missing_.c_str()), KERM_ERR_FAIL);
        EXPECT_EQ(vask_get_file_size(nullptr), -1);
    });
    expect_logged(out, {{1, "vask_access_file", "Cannot open file " + missing_ + "\n"},
                        {1, "vask_get_file_size", "Cannot open file (null)\n"}});
}

TEST_F(FileTest, LoadSlicesFollowOffsetAndLengthRules) {
    const struct { uint32_t offset, max_len; const char *expected; } rows[] = {
        {0, 0, "0123456789"}, {0, 0xFFFFFFFFu, "0123456789"}, {3, 4, "3456"}, {8, 100, "89"}, {9, 0, "9"},
        {10, 0, ""},  // offset at the end: an empty load, still a buffer
    };
    for (const auto &r : rows) {
        uint32_t len = 99;
        char *buf = static_cast<char *>(vask_load_file(digits_.c_str(), r.offset, r.max_len, &len));
        ASSERT_NE(buf, nullptr) << r.offset;
        EXPECT_EQ(std::string(buf, len), r.expected) << r.offset << "+" << r.max_len;
        free(buf);
    }
    char *buf = static_cast<char *>(vask_load_file(digits_.c_str(), 2, 3, nullptr));
    EXPECT_EQ(std::string(buf, 3), "234");
    free(buf);
}

TEST_F(FileTest, LoadFailuresLogAfterTheTraceAndSetLengthOnlyAfterOpen) {
    const struct { std::string path; uint32_t offset, len_after; std::string error; } rows[] = {
        {digits_, 11, 0, "parameter error, offset(11) > filesize(10)\n"},
        {missing_, 0, 77, "Cannot open file " + missing_ + "\n"},
        {dir_.root(), 0, 0, "Reading file " + dir_.root() + " failed\n"},  // a directory opens but cannot be read
    };
    for (const auto &r : rows) {
        uint32_t len = 77;
        const std::string out =
            stdout_of([&] { EXPECT_EQ(vask_load_file(r.path.c_str(), r.offset, 0, &len), nullptr); });
        expect_logged(out, {{4, "vask_load_file", "load file: " + r.path + "...\n"}, {1, "vask_load_file", r.error}});
        EXPECT_EQ(len, r.len_after) << r.error;
    }
}

TEST_F(FileTest, WriteModeFillsUpToSizeAndCloseCutsToWrittenLength) {
    const std::string p = dir_.path("out.bin");
    MmapFile f{};
    ASSERT_EQ(vask_mmap_file_open(VASK_MMAP_FILE_WRITE, p.c_str(), 16, &f), 0);
    EXPECT_EQ(ScratchDir::read(p).size(), 16u);
    EXPECT_EQ(put(&f, "abcdef"), 0);
    EXPECT_EQ(put(&f, "ghij"), 0);
    EXPECT_EQ(vask_mmap_file_write(&f, reinterpret_cast<const uint8_t *>("x"), -1), KERM_ERR_NO_MEMORY);
    ASSERT_EQ(vask_mmap_file_close(&f), 0);
    EXPECT_EQ(ScratchDir::read(p), "abcdefghij");
    // Closed: a second close is refused instead of reaching a reused descriptor.
    EXPECT_EQ(vask_mmap_file_close(&f), KERM_ERR_EXHAUSTED);

    // Exactly to the end, then not one byte more.
    ASSERT_EQ(vask_mmap_file_open(VASK_MMAP_FILE_WRITE, p.c_str(), 16, &f), 0);
    EXPECT_EQ(put(&f, "0123456789abcde"), 0);
    EXPECT_EQ(put(&f, "xy"), KERM_ERR_NO_MEMORY);
    EXPECT_EQ(put(&f, "f"), 0);
    EXPECT_EQ(put(&f, "g"), KERM_ERR_NO_MEMORY);
    ASSERT_EQ(vask_mmap_file_close(&f), 0);
    EXPECT_EQ(ScratchDir::read(p), "0123456789abcdef");
}

TEST_F(FileTest, SizeMismatchIsLoggedAndRefusedOnlyForWriting) {
    // Read mode maps a file of another size; nothing is written through it.
    MmapFile f{};
    std::string out = stdout_of([&] { ASSERT_EQ(vask_mmap_file_open(0, digits_.c_str(), 4096, &f), 0); });
    expect_logged(out, {{1, "vask_mmap_file_open", kSizeMismatch + digits_ + " 10 4096"}});
    EXPECT_EQ(std::string(reinterpret_cast<char *>(f.base), 10), "0123456789");
    EXPECT_EQ(put(&f, "x"), KERM_ERR_NO_MEMORY);
    ASSERT_EQ(vask_mmap_file_close(&f), 0);

    // Any mode but 2 reads; the record keeps the mode given, and still refuses
    // writes. A value that only truncates to 2 stays a read mode.
    for (const uint32_t mode : {1u, 3u, 0xFFu, 0x102u}) {
        stdout_of([&] { ASSERT_EQ(vask_mmap_file_open(mode, digits_.c_str(), 10, &f), 0); });
        EXPECT_EQ(f.mode, mode == 0x102u ? VASK_MMAP_FILE_READ : mode) << mode;
        EXPECT_EQ(put(&f, "x"), KERM_ERR_NO_MEMORY) << mode;
        ASSERT_EQ(vask_mmap_file_close(&f), 0);
        EXPECT_EQ(ScratchDir::read(digits_), "0123456789") << mode;
    }

    // fallocate never shrinks: a longer existing file is refused for writing, and kept.
    const std::string longer = dir_.write("long.bin", std::string(100, 'z'));
    out = stdout_of([&] { EXPECT_EQ(vask_mmap_file_open(VASK_MMAP_FILE_WRITE, longer.c_str(), 10, &f), KERM_ERR_SIZE); });
    expect_logged(out, {{1, "vask_mmap_file_open", kSizeMismatch + longer + " 100 10"}});
    EXPECT_EQ(ScratchDir::read(longer).size(), 100u);
}

TEST_F(FileTest, OpenFailuresReturnTheirCodes) {
    MmapFile f{};
    EXPECT_EQ(vask_mmap_file_open(0, nullptr, 10, &f), KERM_ERR_EXHAUSTED);
    EXPECT_EQ(vask_mmap_file_open(0, digits_.c_str(), 10, nullptr), KERM_ERR_EXHAUSTED);
    EXPECT_EQ(vask_mmap_file_open(0, missing_.c_str(), 10, &f), KERM_ERR_FAIL);
    // A zero-length mapping is refused, without growing the file to the 4 GiB edge.
    EXPECT_EQ(vask_mmap_file_open(VASK_MMAP_FILE_WRITE, missing_.c_str(), 0, &f), KERM_ERR_EXHAUSTED);
    EXPECT_EQ(ScratchDir::read(missing_).size(), 0u);
    EXPECT_EQ(vask_mmap_file_close(&f), KERM_ERR_EXHAUSTED);  // never opened
}

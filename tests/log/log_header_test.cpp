#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <thread>

#include "log_fixture.h"

TEST_F(LogTest, DefaultStateFiltersAtOneLevelMoreThanTheThresholdName) {
    // Threshold 2 ("VASK_LOG_ERROR") admits warnings, not info.
    EXPECT_EQ(head(0x53, VASK_LOG_WARNING), "VASK53");
    EXPECT_EQ(head(0x53, VASK_LOG_INFO), "<filtered>");
    // Threshold 0 still lets fatal messages through.
    vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x70, 0);
    EXPECT_EQ(head(0x70, VASK_LOG_FATAL), "VASK70");
    EXPECT_EQ(head(0x70, VASK_LOG_ERROR), "<filtered>");
    // Module ids past the table never pass; huge levels never pass a real threshold.
    EXPECT_EQ(head(139, 0), "<filtered>");
    EXPECT_EQ(head(0xFFFFFFFFu, 0), "<filtered>");
    EXPECT_EQ(head(0x53, 0xFFFFFFFFu), "<filtered>");
    // The master switch silences everything.
    vask_log_control(LOG_CTRL_ENABLE, 0, 0);
    EXPECT_EQ(head(0x53, VASK_LOG_FATAL), "<filtered>");
}

TEST_F(LogTest, AllFieldsKeepTheirFixedColumns) {
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
    vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, 0x1FF, 0);
    std::string h = head(0x53, VASK_LOG_ERROR, "utility/file/util_file", "vask_load_file", 42);
    // Colour, stamp, module, level, pid, tid, 16 columns of path cut by the
    // function column, 24 columns of function, line, reset and a blank.
    std::regex re(
        "\033\\[35;1m-[ 0-9]{11}VASK53@1<(?:[ 0-9]{4}>|[0-9]{5})\\((?:[ 0-9]{4}\\)|[0-9]{5})"
        "utility/file/uti\\[          vask_load_file:  42\\]\033\\[0m ");
    EXPECT_TRUE(std::regex_match(h, re)) << h;
    // Overruns at every buffer size are LogTextTest's; a null buffer is no fault.
    EXPECT_EQ(vask_log_gen_head(0x53, 0, nullptr, 0, "f", "fn", 1), 1u);
}

TEST_F(LogTest, ColumnsCutLongFieldsAndColoursFollowTheLevel) {
    vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, VASK_LOG_ALL_MODULES, 255);
    const char *path = "a/very/long/source/path";
    struct Row {
        uint32_t flags, level;
        int32_t line;
        const char *expected;
    } rows[] = {
        // A field longer than its column is cut by the next field, not when last.
        {LOG_HDR_FILE | LOG_HDR_LINE, 0, 9, "a/very/long/sour:   9]"},
        {LOG_HDR_FILE, 0, 9, "a/very/long/source/path"},
        {LOG_HDR_LINE | LOG_HDR_COLOR, 0, 123456, "\033[31;1m:12345\033[0m "},
        // One colour row per level; an invalid level never reads past the table.
        {LOG_HDR_COLOR | LOG_HDR_MODULE, 1, 0, "\033[35;1mVASK01\033[0m "},
        {LOG_HDR_COLOR, 2, 0, "\033[33;1m\033[0m "},
        {LOG_HDR_COLOR, 3, 0, "\033[32;1m\033[0m "},
        {LOG_HDR_COLOR, 4, 0, "\033[36;1m\033[0m "},
        {LOG_HDR_COLOR, 5, 0, "\033[37;1m\033[0m "},
        {LOG_HDR_COLOR | LOG_HDR_LEVEL, 200, 0, "\033[37;1m@2\033[0m "},  // "@200" cut by the reset
    };
    for (const Row &r : rows) {
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, r.flags, 0);
        EXPECT_EQ(head(1, r.level, path, "fn", r.line), r.expected) << r.flags << "/" << r.level;
    }
}

TEST_F(LogTest, ThreadIdColumnIsThisThreadsEvenInAForkedChild) {
    vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_TID, 0);
    auto tid_column = [] {
        char want[16];
        snprintf(want, sizeof want, "(%4d)", static_cast<int>(gettid()));
        return head(1, 0) == want;
    };
    EXPECT_TRUE(tid_column());
    pid_t child = fork();
    if (child == 0) _exit(tid_column() ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::thread other([&] { EXPECT_TRUE(tid_column()); });
    other.join();
}

#include "log_fixture.h"

namespace {
uint32_t module_level(uint32_t module) {
    uint32_t v = 0xDEAD;
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_MODULE_LEVEL, module, reinterpret_cast<uintptr_t>(&v)), 0);
    return v;
}
uintptr_t ptr(void *p) { return reinterpret_cast<uintptr_t>(p); }
}  // namespace

TEST_F(LogTest, LevelUpAndDownMoveEveryModuleAndAlwaysPrintTheirLine) {
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
    vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x53, 0);
    uint32_t level = 0;
    std::string out = stdout_of([&] {
        for (int i = 0; i < 6; ++i) EXPECT_EQ(vask_log_control(LOG_CTRL_LEVEL_UP, ptr(&level), 0), 0);
    });
    EXPECT_EQ(level, 6u);
    EXPECT_EQ(out,
              "[DEBUG]Debug Level Up(Level=3, VASK_LOG_WARNING)\n[DEBUG]Debug Level Up(Level=4, VASK_LOG_INFO)\n"
              "[DEBUG]Debug Level Up(Level=5, VASK_LOG_TRACE)\n[DEBUG]Debug Level Up(Level=6, VASK_LOG_VERBOSE)\n"
              "[DEBUG]Debug Level Up(Level=6, VASK_LOG_VERBOSE)\n[DEBUG]Debug Level Up(Level=6, VASK_LOG_VERBOSE)\n");
    EXPECT_EQ(module_level(0x53), 6u);  // the per-module setting is discarded

    out = stdout_of([&] {
        for (int i = 0; i < 7; ++i) vask_log_control(LOG_CTRL_LEVEL_DOWN, 0, 0);
    });
    EXPECT_EQ(module_level(0), 0u);
    EXPECT_EQ(module_level(138), 0u);
    EXPECT_NE(out.find("Down(Level=1, VASK_LOG_FATAL)\n[DEBUG]Debug Level Down(Level=0, LOG_NONE)\n"
                       "[DEBUG]Debug Level Down(Level=0, LOG_NONE)\n"),
              std::string::npos)
        << out;
}

TEST_F(LogTest, ControlCommandsAndTheirFailures) {
    uint32_t u32 = 77;
    uint8_t u8 = 0;
    struct Row {
        uint32_t command;
        uintptr_t arg, value;
        int32_t rc;
    } rows[] = {
        {LOG_CTRL_SET_MODULE_LEVEL, 0x86, 5, 0},
        {LOG_CTRL_SET_MODULE_LEVEL, 0x100 | 0x10, 0x103, 0},  // only the low 8 bits count
        {LOG_CTRL_SET_MODULE_LEVEL, 140, 1, KERM_ERR_PARAM},
        {LOG_CTRL_SET_MODULE_LEVEL, 255, 1, KERM_ERR_PARAM},
        {LOG_CTRL_GET_MODULE_LEVEL, VASK_LOG_ALL_MODULES, ptr(&u32), KERM_ERR_PARAM},
        {LOG_CTRL_GET_MODULE_LEVEL, 0, 0, KERM_ERR_PARAM},
        {LOG_CTRL_GET_MODULE_COUNT, ptr(&u8), 0, 0},
        {LOG_CTRL_GET_MODULE_COUNT, 0, 0, KERM_ERR_PARAM},
        {LOG_CTRL_GET_HEAD_FLAGS, 0, 0, KERM_ERR_PARAM},
        {LOG_CTRL_SET_OUTPUT, 6, 0, KERM_ERR_PARAM},
        {LOG_CTRL_GET_OUTPUT, 0, 0, KERM_ERR_PARAM},
        {10, 0, 0, KERM_ERR_PARAM},
        {0xFFFFFFFFu, 0, 0, KERM_ERR_PARAM},
    };
    for (const Row &r : rows) EXPECT_EQ(vask_log_control(r.command, r.arg, r.value), r.rc) << r.command << "/" << r.arg;
    EXPECT_EQ(u32, 77u);
    EXPECT_EQ(u8, 139);
    EXPECT_EQ(module_level(0x86), 5u);
    EXPECT_EQ(module_level(0x10), 3u);
    EXPECT_EQ(module_level(0x85), 2u);
    // 139 sets every module and leaves the failures above without effect.
    EXPECT_EQ(vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, VASK_LOG_ALL_MODULES, 4), 0);
    EXPECT_EQ(module_level(0), 4u);
    EXPECT_EQ(module_level(138), 4u);

    EXPECT_EQ(vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, 0xFFFFFFFFu, 0), 0);  // unchecked
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_HEAD_FLAGS, ptr(&u32), 0), 0);
    EXPECT_EQ(u32, 0xFFFFFFFFu);
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_OUTPUT, ptr(&u32), 0), 0);
    EXPECT_EQ(u32, static_cast<uint32_t>(LOG_OUT_CONSOLE));
    // Every failure path released the lock: printing still gets it.
    EXPECT_EQ(vask_log_print(1, 0, nullptr, "%s", ""), 0);
}

TEST_F(LogTest, InitializeResetsThresholdsAndFallsBackToConsole) {
    vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 7, 0);
    EXPECT_EQ(vask_log_initialize(4, 9), 0u);
    uint32_t out = 99;
    vask_log_control(LOG_CTRL_GET_OUTPUT, ptr(&out), 0);
    EXPECT_EQ(out, 0u);
    EXPECT_EQ(module_level(7), 4u);
    EXPECT_EQ(head(7, VASK_LOG_TRACE), "VASK07");
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
}

#include "log_fixture.h"

namespace {
uint32_t module_level(uint32_t module) {
    uint32_t v = 0xDEAD;
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_MODULE_LEVEL, module, reinterpret_cast<uintptr_t>(&v)), 0);
    return v;
}
}  // namespace

TEST_F(LogTest, LevelUpAndDownMoveEveryModuleAndPrintTheirLine) {
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
    vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x53, 0);
    uint32_t level = 0;
    std::string out = capture_stdout([&] {
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(vask_log_control(LOG_CTRL_LEVEL_UP, reinterpret_cast<uintptr_t>(&level), 0), 0);
    });
    EXPECT_EQ(level, 6u);
    EXPECT_EQ(out,
              "[DEBUG]Debug Level Up(Level=3, VASK_LOG_WARNING)\n"
              "[DEBUG]Debug Level Up(Level=4, VASK_LOG_INFO)\n"
              "[DEBUG]Debug Level Up(Level=5, VASK_LOG_TRACE)\n"
              "[DEBUG]Debug Level Up(Level=6, VASK_LOG_VERBOSE)\n"
              "[DEBUG]Debug Level Up(Level=6, VASK_LOG_VERBOSE)\n"
              "[DEBUG]Debug Level Up(Level=6, VASK_LOG_VERBOSE)\n");
    // The per-module setting was overwritten by the global step.
    EXPECT_EQ(module_level(0x53), 6u);

    out = capture_stdout([&] {
        for (int i = 0; i < 8; ++i) vask_log_control(LOG_CTRL_LEVEL_DOWN, 0, 0);
    });
    EXPECT_EQ(module_level(0), 0u);
    EXPECT_EQ(module_level(138), 0u);
    EXPECT_NE(out.find("[DEBUG]Debug Level Down(Level=0, LOG_NONE)\n[DEBUG]Debug Level Down(Level=0, LOG_NONE)\n"),
              std::string::npos)
        << out;
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
}

TEST_F(LogTest, ModuleLevelCommands) {
    EXPECT_EQ(vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x86, 5), 0);
    EXPECT_EQ(module_level(0x86), 5u);
    EXPECT_EQ(module_level(0x85), 2u);
    // Only the low 8 bits of module and value count.
    EXPECT_EQ(vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 0x100 | 0x10, 0x103), 0);
    EXPECT_EQ(module_level(0x10), 3u);
    // 139 sets every module; 140..255 fail and change nothing.
    EXPECT_EQ(vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, VASK_LOG_ALL_MODULES, 4), 0);
    EXPECT_EQ(module_level(0), 4u);
    EXPECT_EQ(module_level(138), 4u);
    EXPECT_EQ(vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 140, 1), KERM_ERR_PARAM);
    EXPECT_EQ(vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 255, 1), KERM_ERR_PARAM);
    EXPECT_EQ(module_level(0), 4u);
    uint32_t v = 77;
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_MODULE_LEVEL, VASK_LOG_ALL_MODULES, reinterpret_cast<uintptr_t>(&v)),
              KERM_ERR_PARAM);
    EXPECT_EQ(v, 77u);
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_MODULE_LEVEL, 0, 0), KERM_ERR_PARAM);
}

TEST_F(LogTest, GettersSettersAndInvalidCommands) {
    uint8_t count = 0;
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_MODULE_COUNT, reinterpret_cast<uintptr_t>(&count), 0), 0);
    EXPECT_EQ(count, 139);
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_MODULE_COUNT, 0, 0), KERM_ERR_PARAM);

    uint32_t flags = 0;
    EXPECT_EQ(vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, 0xFFFFFFFFu, 0), 0);  // unchecked
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_HEAD_FLAGS, reinterpret_cast<uintptr_t>(&flags), 0), 0);
    EXPECT_EQ(flags, 0xFFFFFFFFu);
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_HEAD_FLAGS, 0, 0), KERM_ERR_PARAM);

    uint32_t out = 99;
    EXPECT_EQ(vask_log_control(LOG_CTRL_SET_OUTPUT, 6, 0), KERM_ERR_PARAM);
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_OUTPUT, reinterpret_cast<uintptr_t>(&out), 0), 0);
    EXPECT_EQ(out, static_cast<uint32_t>(LOG_OUT_CONSOLE));
    EXPECT_EQ(vask_log_control(LOG_CTRL_GET_OUTPUT, 0, 0), KERM_ERR_PARAM);
    EXPECT_EQ(vask_log_control(10, 0, 0), KERM_ERR_PARAM);
    EXPECT_EQ(vask_log_control(0xFFFFFFFFu, 0, 0), KERM_ERR_PARAM);
    // The lock was released on every failure path.
    EXPECT_EQ(vask_log_print(1, 0, nullptr, "%s", ""), 0);
}

TEST_F(LogTest, InitializeResetsThresholdsAndFallsBackToConsole) {
    vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, 7, 0);
    EXPECT_EQ(vask_log_initialize(4, 9), 0u);
    uint32_t out = 99;
    vask_log_control(LOG_CTRL_GET_OUTPUT, reinterpret_cast<uintptr_t>(&out), 0);
    EXPECT_EQ(out, 0u);
    EXPECT_EQ(module_level(7), 4u);
    EXPECT_EQ(head(7, VASK_LOG_TRACE), "VASK07");
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
}

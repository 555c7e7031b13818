// Puts the process-wide log state back to its load-time defaults.
#ifndef KERM_TEST_LOG_FIXTURE_H
#define KERM_TEST_LOG_FIXTURE_H

#include <gtest/gtest.h>
#include <stdio.h>

#include <string>

#include "kerm_log.h"
#include "support/scratch_dir.h"

using kerm_test::stdout_of;

class LogTest : public ::testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset() {
        vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_CONSOLE, 0);
        vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, VASK_LOG_ALL_MODULES, VASK_LOG_WARNING);
        vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_MODULE, 0);
        vask_log_control(LOG_CTRL_ENABLE, 1, 0);
    }
    static std::string head(uint32_t module, uint32_t level, const char *file = "f.c", const char *fn = "fn",
                            int32_t line = 7) {
        char buf[VASK_LOG_HEAD_SIZE];
        if (vask_log_gen_head(module, level, buf, sizeof buf, file, fn, line) == 0) return "<filtered>";
        return buf;
    }
};

#endif

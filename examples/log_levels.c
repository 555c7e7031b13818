/* Logging in two steps, as every part of the library does it: build the line
 * header (only when the message passes the module's threshold), then print.
 * The default output is the console; thresholds change at run time. */
#include <stdint.h>
#include <stdio.h>

#include "kerm_log.h"

#define APP_MODULE 0x21u

#define APP_LOG(level, ...)                                                                    \
    do {                                                                                       \
        char head_[VASK_LOG_HEAD_SIZE];                                                        \
        if (vask_log_gen_head(APP_MODULE, (level), head_, sizeof head_, __FILE__, __func__, __LINE__)) \
            vask_log_print(APP_MODULE, (level), head_, __VA_ARGS__);                           \
    } while (0)

int main(void) {
    uint32_t level = 0;

    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_CONSOLE);
    APP_LOG(VASK_LOG_ERROR, "link lost on channel %d\n", 3);
    APP_LOG(VASK_LOG_INFO, "not shown: info is above the threshold\n");

    vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, APP_MODULE, VASK_LOG_INFO);
    vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, LOG_HDR_MODULE | LOG_HDR_LEVEL | LOG_HDR_FUNC, 0);
    APP_LOG(VASK_LOG_INFO, "info now passes for module 0x%02X\n", APP_MODULE);

    vask_log_control(LOG_CTRL_GET_MODULE_LEVEL, APP_MODULE, (uintptr_t)&level);
    printf("module 0x%02X threshold %u\n", APP_MODULE, level);
    return 0;
}

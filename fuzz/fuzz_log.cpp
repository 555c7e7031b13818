// Header building and the socket and syslog lines with arbitrary flags,
// levels, modules, texts and buffer sizes: never writes outside a buffer.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 12) return 0;
    uint32_t flags, module, level;
    memcpy(&flags, data, 4);
    memcpy(&module, data + 4, 4);
    memcpy(&level, data + 8, 4);
    data += 12;
    size -= 12;
    uint32_t buf_size = size > 0 ? data[0] % 160 + 1 : 1;
    size_t text_len = size > 1 ? size - 1 : 0;
    char *text = static_cast<char *>(malloc(text_len + 1));
    if (text_len) memcpy(text, data + 1, text_len);
    text[text_len] = '\0';
    for (size_t i = 0; i < text_len; ++i)
        if (text[i] == '%') text[i] = '_';  // the text is a message, not a format

    // Lines go through the socket output; with no collector bound the sends fail quietly.
    static const int32_t socket_output = vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_SOCKET, 0);
    (void)socket_output;
    vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, VASK_LOG_ALL_MODULES, 255);
    vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, flags, 0);
    char *head = static_cast<char *>(malloc(buf_size));
    if (vask_log_gen_head(module % 300, level % 12, head, buf_size, text, text, static_cast<int32_t>(module))) {
        vask_log_print_syslog(module % 300, level % 12, head, "%s", text);
        vask_log_print(module % 300, level % 12, (flags & 0x200) ? nullptr : head, "%s", text);
    }
    free(head);
    free(text);
    return 0;
}

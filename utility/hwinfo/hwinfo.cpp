// Hardware identity from the system configuration file and the kernel
// command line. Diagnostics go to standard output, not to the log.
#include "kerm_hwinfo.h"

#include <cJSON.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "common/kerm_guard.h"
#include "common/kerm_internal.h"

namespace {

constexpr const char *kConfigPath = "/etc/nox.json";
constexpr const char *kCmdlinePath = "/proc/cmdline";
constexpr size_t kConfigReadMax = 0x18000;
constexpr int kCmdlinePiece = 4096;  // fgets: 4095 characters a time

// Scans the kernel command line for `key` (e.g. "chip_sn=") and copies its
// value to dst. `what` names the value in the fatal message.
uint32_t cmdline_value(const char *key, const char *what, uint8_t *dst, int32_t size) {
    char pathbuf[PATH_MAX];
    const char *path = kerm::platform_path(kCmdlinePath, pathbuf, sizeof pathbuf);
    // An unreadable command line holds no key.
    FILE *fp = fopen(path, "r");
    char line[kCmdlinePiece];
    const char *value = nullptr;
    uint32_t n = 0;
    while (fp != nullptr && fgets(line, sizeof line, fp) != nullptr) {
        const char *hit = strstr(line, key);
        if (hit == nullptr) continue;
        value = hit + strlen(key);
        // Deliberate: only NUL and blank end the value (c & 0xDF == 0): the kernel's
        // trailing newline stays part of a value at the end of the line.
        for (unsigned char c; (c = static_cast<unsigned char>(value[n])) & 0xDF; ++n) printf("char %2x\n", c);
        break;
    }
    if (fp != nullptr) fclose(fp);
    // Deliberate: a buffer that cannot hold the value is a build fault of the
    // caller; the process ends.
    if (static_cast<int64_t>(n) >= size) {
        printf("should set enough size for %s\n", what);
        exit(-1);
    }
    if (dst == nullptr) return 0;
    if (n != 0) memcpy(dst, value, n);
    dst[n] = 0;
    return n;
}

}  // namespace

extern "C" {

KERM_API int32_t get_hw_str(char *dst, uint32_t len) noexcept {
    if (dst == nullptr && len != 0) {
        puts("get_hw_str: null destination");
        return -1;
    }
    char pathbuf[PATH_MAX];
    const char *path = kerm::platform_path(kConfigPath, pathbuf, sizeof pathbuf);
    // Deliberate: the descriptor and the parsed tree are kept for the
    // process's life, on every path; the call is made once, at start-up.
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        printf("Open file failed! %d", fd);
        return -1;
    }
    cJSON *root;
    {
        kerm::MallocGuard<char> text(static_cast<char *>(malloc(kConfigReadMax + 1)));
        if (text.get() == nullptr) {
            puts("get_hw_str: out of memory");
            return -1;
        }
        const ssize_t got = read(fd, text.get(), kConfigReadMax);
        if (got <= 0) {
            printf("Read file failed! %d", static_cast<int>(got));
            return -1;
        }
        // A file of kConfigReadMax bytes or more is cut there.
        text.get()[got] = '\0';
        root = cJSON_Parse(text.get());
        if (root == nullptr) {
            printf("Parse json file fail please check your json file!\n %s", text.get());
            return -1;
        }
    }
    const cJSON *platform = cJSON_GetObjectItem(root, "platform");
    if (platform == nullptr) {
        puts("Can't find platform domain");
        return -1;
    }
    const cJSON *hw = cJSON_GetObjectItem(platform, "hw_str");
    if (hw == nullptr || !cJSON_IsString(hw) || hw->valuestring == nullptr) {
        printf("Can't find platform:hw_str domain!, exit");
        return -1;
    }
    if (len != 0) strncpy(dst, hw->valuestring, len);
    // dst is unterminated when the text filled it: print no more than len.
    printf("Get the hw_str %.*s\n", static_cast<int>(len < INT_MAX ? len : INT_MAX), dst != nullptr ? dst : "");
    return 0;
}

KERM_API uint32_t get_chip_sn(uint8_t *dst, int32_t size) noexcept {
    return cmdline_value("chip_sn=", "chip_sn", dst, size);
}

KERM_API uint32_t get_board_sn(uint8_t *dst, int32_t size) noexcept {
    return cmdline_value("board_sn=", "board_sn", dst, size);
}

}  // extern "C"

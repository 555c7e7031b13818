// kerm hwinfo: the hardware string and the serial numbers, as the library
// reads them (below $KERM_UTIL_ROOT when that is set).
#include <stdio.h>
#include <string.h>

#include <string>

#include "kerm_hwinfo.h"
#include "kerm_opts.h"

namespace {

// The kernel command line is at most a page, so no value can outgrow this
// and end the process.
constexpr int kSerialMax = 4096;

bool g_json = false;

// A value at the end of the command line carries its newline; show it without.
std::string trimmed(const uint8_t *value, uint32_t len) {
    while (len > 0 && value[len - 1] == '\n') --len;
    return std::string(reinterpret_cast<const char *>(value), len);
}

int run() {
    char hw[256] = {0};
    int32_t hw_rc;
    static uint8_t chip[kSerialMax], board[kSerialMax];
    std::string chip_sn, board_sn;
    {
        kerm_tool::LibraryOutputToStderr quiet(g_json);
        hw_rc = get_hw_str(hw, sizeof hw - 1);
        chip_sn = trimmed(chip, get_chip_sn(chip, kSerialMax));
        board_sn = trimmed(board, get_board_sn(board, kSerialMax));
    }
    if (g_json) {
        cJSON *o = cJSON_CreateObject();
        if (hw_rc == 0) cJSON_AddStringToObject(o, "hw_str", hw);
        else cJSON_AddNullToObject(o, "hw_str");
        cJSON_AddStringToObject(o, "chip_sn", chip_sn.c_str());
        cJSON_AddStringToObject(o, "board_sn", board_sn.c_str());
        kerm_tool::emit_json(o);
    } else {
        printf("\nhw_str: %s\n", hw_rc == 0 ? hw : "(unavailable)");
        printf("chip_sn: %.*s\n", static_cast<int>(chip_sn.size()), chip_sn.data());
        printf("board_sn: %.*s\n", static_cast<int>(board_sn.size()), board_sn.data());
    }
    if (hw_rc != 0) fprintf(stderr, "kerm hwinfo: hw_str: unavailable (%d)\n", static_cast<int>(hw_rc));
    return hw_rc == 0 ? kerm_tool::kExitOk : kerm_tool::kExitFailure;
}

kerm_tool::Runner setup(CLI::App &app) {
    app.description("Prints the hardware string and the chip and board serial numbers.");
    kerm_tool::add_json_flag(app, g_json);
    return run;
}

}  // namespace

KERM_COMMAND("hwinfo", "print the hardware string and the chip and board serial numbers", setup);

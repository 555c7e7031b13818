// kerm hwinfo: the hardware string and the serial numbers, as the library
// reads them (below $KERM_UTIL_ROOT when that is set).
#include <stdio.h>
#include <string.h>

#include "kerm_cmd.h"
#include "kerm_hwinfo.h"

namespace {

// The kernel command line is at most a page, so no value can outgrow this
// and end the process.
constexpr int kSerialMax = 4096;

// A value at the end of the command line carries its newline; show it without.
void show(const char *name, const uint8_t *value, uint32_t len) {
    while (len > 0 && value[len - 1] == '\n') --len;
    printf("%s: %.*s\n", name, static_cast<int>(len), reinterpret_cast<const char *>(value));
}

int run_hwinfo(int argc, char **argv) {
    if (argc > 1) {
        fprintf(stderr, "usage: kerm %s\n  prints the hardware string and the chip and board serial numbers\n",
                argv[0]);
        return strcmp(argv[1], "--help") == 0 ? 0 : 2;
    }
    char hw[256] = {0};
    const int32_t hw_rc = get_hw_str(hw, sizeof hw - 1);
    static uint8_t chip[kSerialMax], board[kSerialMax];
    const uint32_t chip_len = get_chip_sn(chip, kSerialMax);
    const uint32_t board_len = get_board_sn(board, kSerialMax);
    printf("\nhw_str: %s\n", hw_rc == 0 ? hw : "(unavailable)");
    show("chip_sn", chip, chip_len);
    show("board_sn", board, board_len);
    return hw_rc == 0 ? 0 : 1;
}

}  // namespace

KERM_COMMAND("hwinfo", "print the hardware string and the chip and board serial numbers", run_hwinfo);

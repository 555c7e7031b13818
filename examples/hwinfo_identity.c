/* Hardware identity: the hardware string from the system configuration and
 * the serial numbers from the kernel command line. On a development host set
 * KERM_UTIL_ROOT to a folder with substitute etc/nox.json and proc/cmdline.
 * The calls print their own diagnostics on standard output. */
#include <stdint.h>
#include <stdio.h>

#include "kerm_hwinfo.h"

int main(void) {
    char hw[64] = {0};
    uint8_t chip[64], board[64];
    uint32_t n;

    /* The copy is bounded, not terminated at the bound: leave room for one. */
    if (get_hw_str(hw, sizeof hw - 1) != 0) {
        fprintf(stderr, "no hardware string\n");
        return 1;
    }
    printf("hardware: %s\n", hw);
    /* A serial of sizeof buffer characters or more would end the process. */
    n = get_chip_sn(chip, (int32_t)sizeof chip);
    printf("chip serial: %s (%u characters)\n", (const char *)chip, n);
    n = get_board_sn(board, (int32_t)sizeof board);
    printf("board serial: %s (%u characters)\n", (const char *)board, n);
    return 0;
}

/** @file kerm_hwinfo.h
 * @brief Hardware identity: the hardware string from the system configuration file
 * and the chip and board serial numbers from the kernel command line. These
 * calls print their diagnostics to standard output. */
#ifndef KERM_HWINFO_H
#define KERM_HWINFO_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Copies platform.hw_str of "/etc/nox.json" into dst with a bounded copy of
 * len characters (no terminator when the text has len characters or more).
 * 0 on success, -1 on any failure (each failure prints a line). The file stays
 * open and the parsed tree is kept: call it once per process. */
KERM_API int32_t get_hw_str(char *dst, uint32_t len) KERM_NOEXCEPT;

/** Copies the value of "chip_sn=" on the kernel command line into dst and
 * terminates it; returns its length. The value ends at a blank or the end of
 * the line, so a value at the end keeps the command line's newline. Prints one
 * "char %2x" line per character. 0 and an empty text when the key is absent.
 * A value of size characters or more (or size <= 0) ENDS THE PROCESS with
 * status -1 after printing "should set enough size for chip_sn". */
KERM_API uint32_t get_chip_sn(uint8_t *dst, int32_t size) KERM_NOEXCEPT;

/** The same for "board_sn=". */
KERM_API uint32_t get_board_sn(uint8_t *dst, int32_t size) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

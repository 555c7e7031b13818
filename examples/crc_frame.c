/* Checksums for message framing: append a CRC to a frame, verify it on the
 * other side, and see a flipped bit caught. Calculators chain: a message fed
 * in pieces, each seeded with the previous result, gives the same CRC. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kerm_crc.h"

int main(void) {
    const uint8_t check[] = "123456789";
    uint8_t frame[8] = {0x7E, 0x01, 0x22, 0x10, 0x00, 0x05}; /* 6 bytes + room for a CRC-16 */
    uint16_t whole, pieces;

    printf("CRC-8/MAXIM   of 123456789: 0x%02X\n", vask_util_crc8_calc(check, 9, 0));
    printf("CRC-16/KERMIT of 123456789: 0x%04X\n", vask_util_crc16_calc(check, 9, 0));
    printf("CRC-16/XMODEM of 123456789: 0x%04X\n", vask_util_crc16_xmodem_calc(check, 9, 0));

    whole = vask_util_crc16_xmodem_calc(check, 9, 0);
    pieces = vask_util_crc16_xmodem_calc(check + 4, 5, vask_util_crc16_xmodem_calc(check, 4, 0));
    printf("chained in two pieces: %s\n", whole == pieces ? "same" : "DIFFERENT");

    vask_util_crc16_append(frame, sizeof frame, 0xFFFF); /* last two bytes, little-endian */
    printf("frame with CRC: verify %d\n", vask_util_crc16_verify(frame, sizeof frame, 0xFFFF));
    frame[2] ^= 0x04;
    printf("one bit flipped: verify %d\n", vask_util_crc16_verify(frame, sizeof frame, 0xFFFF));
    return 0;
}

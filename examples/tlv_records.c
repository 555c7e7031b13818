/* Type-length-value records packed back to back: write a few into a buffer,
 * then walk them. The buffer must be sized for what is written: an add that
 * does not fit ends the process. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kerm_tlv.h"

int main(void) {
    uint8_t buf[64];
    uint8_t *cursor = buf, *rec;
    int32_t remaining = (int32_t)sizeof buf, used;
    uint16_t type, len;
    const uint32_t bitrate = 8000;
    const char name[] = "cam-2";

    ddtlv_add(&cursor, &remaining, 1, sizeof bitrate, &bitrate);
    ddtlv_add(&cursor, &remaining, 2, sizeof name, name);
    remaining = ddtlv_add(&cursor, &remaining, 3, 0, NULL); /* a flag: type only */
    used = (int32_t)sizeof buf - remaining;
    printf("3 records in %d bytes, %d left\n", used, remaining);

    cursor = buf;
    while ((rec = ddtlv_get_next(&cursor, &used)) != NULL) {
        memcpy(&type, rec, 2); /* native byte order */
        memcpy(&len, rec + 2, 2);
        printf("type %u, %u value bytes", type, len);
        if (type == 2) printf(": %s", (const char *)(rec + DDTLV_HEAD_SIZE));
        printf("\n");
    }
    return 0;
}

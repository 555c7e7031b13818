/* UUIDs: generate one through libuuid, unpack it into its fields and pack it
 * back. The version sits in the top 4 bits of time_hi_and_version. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kerm_uuid.h"

int main(void) {
    static const uint8_t fixed[16] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0x4D, 0xEF,
                                      0x81, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
    uuid_t id, back;
    struct uuid uu;

    uuid_unpack(fixed, &uu);
    printf("time_low %08x time_mid %04x version %u clock_seq %04x node %02x..%02x\n", (unsigned)uu.time_low,
           (unsigned)uu.time_mid, (unsigned)(uu.time_hi_and_version >> 12), (unsigned)uu.clock_seq, uu.node[0],
           uu.node[5]);

    uuid_generate_random(id);
    uuid_unpack(id, &uu);
    printf("random UUID: version %u\n", (unsigned)(uu.time_hi_and_version >> 12));
    uuid_pack(&uu, back);
    printf("pack(unpack(id)) == id: %s\n", memcmp(id, back, sizeof back) == 0 ? "yes" : "no");
    return 0;
}

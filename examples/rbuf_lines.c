/* A byte ring buffer as a line assembler: data arrives in arbitrary pieces,
 * complete lines are taken out at their newline. In overwrite mode a full ring
 * drops its oldest bytes instead of refusing new ones. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kerm_rbuf.h"

int main(void) {
    static const char *pieces[] = {"GPS 47.3", "7N 8.54E\nALT ", "412m\n"};
    util_rbuf_t *ring = util_rbuf_create(64);
    uint8_t line[64];
    int32_t at;
    int i;

    if (ring == NULL) return 1;
    for (i = 0; i < 3; i++) {
        util_rbuf_write(ring, (const uint8_t *)pieces[i], (uint32_t)strlen(pieces[i]));
        /* Take out every complete line (the newline included). */
        while ((at = util_rbuf_find(ring, '\n')) >= 0 && (uint32_t)at < util_rbuf_used(ring)) {
            int32_t n = util_rbuf_read(ring, line, at + 1);
            printf("line: %.*s", (int)n, (const char *)line);
        }
    }
    printf("%u of %u bytes in use\n", util_rbuf_used(ring), util_rbuf_size(ring));

    util_rbuf_clear(ring);
    util_rbuf_set_mode(ring, UTIL_RBUF_MODE_OVERWRITE);
    for (i = 0; i < 10; i++) util_rbuf_write(ring, (const uint8_t *)"0123456789", 10);
    at = util_rbuf_read(ring, line, (int32_t)sizeof line);
    printf("overwrite mode keeps the newest %d bytes, from '%c'\n", at, line[0]);
    util_rbuf_destroy(ring);
    return 0;
}

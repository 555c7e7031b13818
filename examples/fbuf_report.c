/* A flexible buffer grows as text is added and keeps its content
 * zero-terminated, so it can be printed at any time. */
#include <stdint.h>
#include <stdio.h>

#include "kerm_fbuf.h"

int main(void) {
    util_fbuf_t *report = util_fbuf_create(0); /* 0: no upper bound */
    util_fbuf_t *bounded = util_fbuf_create(16);
    int i;

    if (report == NULL || bounded == NULL) return 1;
    util_fbuf_add_ln(report, "link report");
    for (i = 0; i < 3; i++) util_fbuf_printf(report, "  channel %d: %d dBm\n", i, -60 - 7 * i);
    util_fbuf_prepend(report, "== ");
    printf("%s", (const char *)util_fbuf_data(report));
    printf("%u bytes used in a %u-byte block\n", util_fbuf_used(report), util_fbuf_len(report));

    util_fbuf_set(report, "   padded text   ");
    util_fbuf_trim(report);  /* leading white space */
    util_fbuf_rtrim(report); /* trailing white space */
    printf("trimmed: '%s'\n", (const char *)util_fbuf_data(report));

    /* A bounded buffer refuses content beyond its maximum length. */
    printf("add 10 bytes: %d\n", util_fbuf_add(bounded, "0123456789"));
    printf("add 10 more: %d (used %u)\n", util_fbuf_add(bounded, "0123456789"), util_fbuf_used(bounded));
    util_fbuf_free(bounded);
    util_fbuf_free(report);
    return 0;
}

/* A program that knows kerm_util only through its installed headers and
 * pkg-config file. */
#include <stdio.h>
#include <string.h>

#include "kerm_log.h"

int main(void) {
    char head[VASK_LOG_HEAD_SIZE];
    if (vask_log_gen_head(0x53, VASK_LOG_WARNING, head, sizeof head, "f", "main", 1) != 1) return 1;
    if (strcmp(head, "VASK53") != 0) return 2;
    puts("consumer ok");
    return 0;
}

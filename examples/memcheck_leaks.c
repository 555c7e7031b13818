/* Allocation tracking: blocks taken through the UT_ macros remember the file
 * and line that allocated them, so a leak check at exit can name them. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kerm_memcheck.h"

int main(void) {
    char *config, *scratch;

    ut_memcheck_init();
    config = (char *)UT_MALLOC(64);
    scratch = (char *)UT_CALLOC(16, 4);
    if (config == NULL || scratch == NULL) return 1;
    strcpy(config, "bitrate=8000");
    config = (char *)UT_REALLOC(config, 128); /* grows; the content is kept */
    printf("config: %s\n", config);

    UT_FREE(scratch);
    printf("leak check with one block alive: %d\n", ut_memory_checkleak());
    /* The report goes to the device log, one "LEAKED: file (line)" per block. */
    printf("blocks reported: %d\n", ut_memory_dumpleak());
    UT_FREE(config);
    printf("leak check after freeing: %d\n", ut_memory_checkleak());
    ut_memcheck_deinit();
    return 0;
}

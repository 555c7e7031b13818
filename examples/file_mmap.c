/* File helpers: write a file sequentially through a mapping, then query and
 * load it (whole or a slice) into a heap buffer the caller frees. The file
 * lives in a scratch folder: $TMPDIR, or /tmp. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_file.h"

int main(void) {
    const char *dir = getenv("TMPDIR");
    char path[256];
    MmapFile out;
    const char *lines[] = {"frame 1 ok\n", "frame 2 ok\n", "frame 3 lost\n"};
    uint32_t len = 0;
    char *text;
    int i;

    snprintf(path, sizeof path, "%s/kerm_file_example.log", dir && *dir ? dir : "/tmp");
    memset(&out, 0, sizeof out);
    /* Reserve 4 KiB; close cuts the file to what was written. */
    if (vask_mmap_file_open(VASK_MMAP_FILE_WRITE, path, 4096, &out) != 0) return 1;
    for (i = 0; i < 3; i++) vask_mmap_file_write(&out, (const uint8_t *)lines[i], (int32_t)strlen(lines[i]));
    vask_mmap_file_close(&out);

    printf("exists: %s, size %d bytes\n", vask_access_file(path) == 0 ? "yes" : "no", vask_get_file_size(path));
    text = (char *)vask_load_file(path, 11, 11, &len); /* the second line only */
    if (text == NULL) return 1;
    printf("slice at 11: %.*s", (int)len, text);
    free(text);
    text = (char *)vask_load_file(path, 0, 0, &len); /* 0: up to the end */
    if (text == NULL) return 1;
    printf("whole file (%u bytes):\n%.*s", len, (int)len, text);
    free(text);
    remove(path);
    return 0;
}

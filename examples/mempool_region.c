/* A real-time memory pool over a static region: constant-time malloc and free
 * without touching the system heap. The pool's control record lives at the
 * start of the region; a second region can be added later. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kerm_mempool.h"

static uint64_t region[8192]; /* 64 KiB, aligned to a pointer */
static uint64_t extra[2048];

int main(void) {
    size_t free_block = init_memory_pool(sizeof region, region);
    char *name, *frame, *big;

    if (free_block == (size_t)-1) return 1;
    printf("pool ready, first free block %lu bytes\n", (unsigned long)free_block);
    name = (char *)malloc_ex(32, region);
    frame = (char *)calloc_ex(100, 4, region);
    if (name == NULL || frame == NULL) return 1;
    strcpy(name, "frame buffer");
    printf("%s at offset %ld, zeroed: %s\n", name, (long)(frame - (char *)region), frame[399] == 0 ? "yes" : "no");
    name = (char *)realloc_ex(name, 200, region); /* the text moves along */
    printf("after realloc: %s\n", name);
    free_ex(frame, region);
    free_ex(name, region);

    /* A request larger than any free block fails until another region joins. */
    big = (char *)malloc_ex(60000, region);
    printf("60000 bytes: %s\n", big ? "granted" : "refused");
    free_ex(big, region);
    add_new_area(extra, sizeof extra, region);
    /* The default pool (the last one initialised) is used by tlsf_malloc, under a lock. */
    big = (char *)tlsf_malloc(1000);
    printf("tlsf_malloc(1000): %s\n", big ? "granted" : "refused");
    tlsf_free(big);
    destroy_memory_pool(region);
    return 0;
}

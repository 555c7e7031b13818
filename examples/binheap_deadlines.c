/* A min-heap of deadlines with typed keys: the int32_t key record orders the
 * keys, and the heap keeps its own copy of each key. Values stay the caller's. */
#include <stdint.h>
#include <stdio.h>

#include "kerm_binheap.h"

int main(void) {
    static const int32_t due[] = {300, 120, 450, 120, 60};
    static const char *jobs[] = {"upload log", "rotate keys", "sync clock", "flush cache", "send beacon"};
    BinHeap *heap = util_binheap_create(util_binheap_keys_callbacks_int32_t(), BINHEAP_MODE_MIN);
    void *key = NULL, *job = NULL;
    uint32_t klen = 0;
    int i;

    if (heap == NULL) return 1;
    for (i = 0; i < 5; i++) util_binheap_insert(heap, &due[i], sizeof due[i], (void *)jobs[i]);
    if (util_binheap_minimum(heap, &key, &klen, &job) == 0)
        printf("next: %s at %d ms (%u entries)\n", (const char *)job, *(const int32_t *)key, util_binheap_count(heap));
    /* Cancel a job by its key; the heap hands its value back. */
    if (util_binheap_delete(heap, &due[2], sizeof due[2], &job) == 0)
        printf("cancelled: %s\n", (const char *)job);
    while (util_binheap_minimum(heap, &key, &klen, &job) == 0) {
        printf("  %4d ms  %s\n", *(const int32_t *)key, (const char *)job);
        util_binheap_delete_minimum(heap, NULL);
    }
    util_binheap_destroy(heap);
    return 0;
}

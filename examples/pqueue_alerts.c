/* A bounded priority queue of alerts: at most three are kept, and an insert
 * beyond that evicts the lowest priority (through free_value, here a print). */
#include <stdint.h>
#include <stdio.h>

#include "kerm_pqueue.h"

static void dropped(void *value) { printf("evicted: %s\n", (const char *)value); }

int main(void) {
    static const char *alerts[] = {"battery low", "link lost", "sd card full", "fan slow"};
    static const uint64_t prio[] = {5, 9, 7, 2};
    PQueue *pq = util_pqueue_create(PQUEUE_MODE_HIGHEST_FIRST, 3, dropped);
    void *alert = NULL;
    uint64_t p = 0;
    int i;

    if (pq == NULL) return 1;
    for (i = 0; i < 4; i++) util_pqueue_insert(pq, prio[i], (void *)alerts[i]);
    printf("%u alerts queued\n", util_pqueue_count(pq));
    while (util_pqueue_pull_highest(pq, &alert, &p) == 0)
        printf("  priority %llu: %s\n", (unsigned long long)p, (const char *)alert);
    util_pqueue_destroy(pq);
    return 0;
}

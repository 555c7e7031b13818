/* Two threads share one hash table: a producer stores readings under their
 * sensor names while a consumer takes them out again. The table locks per
 * bucket, so neither thread needs a lock of its own. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_ht.h"

#define READINGS 1000

static util_ht_t *table;

static void *producer(void *arg) {
    char key[32];
    int i;
    (void)arg;
    for (i = 0; i < READINGS; ++i) {
        int *value = malloc(sizeof *value);
        if (value == NULL) break;
        *value = i * 10;
        snprintf(key, sizeof key, "sensor-%d", i);
        util_ht_set(table, key, (uint32_t)strlen(key), value, sizeof *value);
    }
    return NULL;
}

static void *consumer(void *arg) {
    long taken = 0, sum = 0;
    char key[32];
    (void)arg;
    while (taken < READINGS) {
        int i;
        for (i = 0; i < READINGS; ++i) {
            void *value = NULL;
            snprintf(key, sizeof key, "sensor-%d", i);
            /* delete hands the value to us instead of the free callback */
            if (util_ht_delete(table, key, (uint32_t)strlen(key), &value, NULL) == 0) {
                sum += *(int *)value;
                free(value);
                ++taken;
            }
        }
    }
    printf("consumer took %ld readings, sum %ld\n", taken, sum);
    return NULL;
}

int main(void) {
    pthread_t p, c;
    table = util_ht_create(0, 0, free);
    if (table == NULL) return 1;
    pthread_create(&p, NULL, producer, NULL);
    pthread_create(&c, NULL, consumer, NULL);
    pthread_join(p, NULL);
    pthread_join(c, NULL);
    printf("left in the table: %u\n", util_ht_count(table));
    util_ht_destroy(table);
    return 0;
}

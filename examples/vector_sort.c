/* A vector of element pointers: it owns its elements (clean and deinit free
 * them), so they come from malloc. Sort, search, take one out. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "kerm_vector.h"

static int by_value(const void *a, const void *b) {
    int x = *(const int *)a, y = *(const int *)b;
    return (x > y) - (x < y);
}

int main(void) {
    static const int readings[] = {42, 7, 19, 88, 3};
    util_vector_t *v = NULL;
    int key = 19, *taken;
    uint32_t i;

    util_vector_init(&v);
    if (v == NULL) return 1;
    for (i = 0; i < 5; i++) {
        int *element = (int *)malloc(sizeof *element);
        if (element == NULL) break;
        *element = readings[i];
        util_vector_push_back(v, element);
    }
    util_vector_qsort(v, util_vector_length(v), by_value);
    printf("sorted:");
    for (i = 0; i < util_vector_length(v); i++) printf(" %d", *(int *)util_vector_get_element(v, i));
    printf("\n19 is at index %d\n", util_vector_bsearch_all(v, &key, by_value));
    taken = (int *)util_vector_take_element(v, 0); /* now the caller's to free */
    printf("took %d, %u left\n", taken ? *taken : -1, util_vector_length(v));
    free(taken);
    util_vector_deinit(&v);
    return 0;
}

/* The tagged linked list: plain values addressed by position, and tagged
 * values (a tag text with a copied value) looked up by tag. The list owns its
 * tagged values and destroys them with itself. */
#include <stdint.h>
#include <stdio.h>

#include "kerm_list.h"

static int by_number(void *a, void *b) { return (int)((intptr_t)a - (intptr_t)b); }

static int print_value(void *value, uint32_t index, void *user) {
    (void)user;
    printf(" [%u]=%ld", index, (long)(intptr_t)value);
    return 1; /* go on */
}

int main(void) {
    list_t *numbers = list_create(), *settings = list_create();
    list_tagged_value_t *tv;
    intptr_t i;

    if (numbers == NULL || settings == NULL) return 1;
    for (i = 1; i <= 5; i++) list_push_value(numbers, (void *)(i * i % 7));
    list_unshift_value(numbers, (void *)(intptr_t)9);
    list_sort_all(numbers, by_number); /* larger values first for an a - b comparator */
    printf("sorted:");
    list_foreach_value(numbers, print_value, NULL);
    printf("\nhead %ld, ", (long)(intptr_t)list_shift_value(numbers));
    printf("tail %ld\n", (long)(intptr_t)list_pop_value(numbers));

    list_push_tagged_value(settings, list_create_tagged_value("codec", "h265", 0));
    list_push_tagged_value(settings, list_create_tagged_value("bitrate", "8000", 0));
    list_push_tagged_value(settings, list_create_tagged_value("fps", "60", 0));
    tv = list_get_tagged_value(settings, "bitrate");
    printf("bitrate = %s (%u settings)\n", tv ? (const char *)tv->value : "?", list_count(settings));
    list_destroy(settings);
    list_destroy(numbers);
    return 0;
}

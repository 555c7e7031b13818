/* An ordered map kept as a red-black tree: add, replace, look up, and walk the
 * entries in key order. A null comparator orders keys by bytes, then length. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kerm_rbt.h"

static int32_t print_entry(util_rbt *tree, const void *key, uint32_t len, void *value, void *arg) {
    (void)tree;
    (void)arg;
    printf("  %.*s: %lu\n", (int)len, (const char *)key, (unsigned long)(uintptr_t)value);
    return 1; /* go on */
}

int main(void) {
    static const char *parts[] = {"lens", "battery", "gimbal", "antenna"};
    util_rbt *stock = util_rbt_create(NULL, NULL);
    void *count = NULL;
    uintptr_t i;

    if (stock == NULL) return 1;
    for (i = 0; i < 4; i++) util_rbt_add(stock, parts[i], (uint32_t)strlen(parts[i]), (void *)(i + 2));
    printf("replace battery: %d\n", util_rbt_add(stock, "battery", 7, (void *)12));
    if (util_rbt_find(stock, "gimbal", 6, &count) == 0)
        printf("gimbal: %lu\n", (unsigned long)(uintptr_t)count);
    util_rbt_remove(stock, "lens", 4, NULL);
    printf("in key order:\n");
    util_rbt_walk_sorted(stock, print_entry, NULL);
    util_rbt_destroy(stock);
    return 0;
}

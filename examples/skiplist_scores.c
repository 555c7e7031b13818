/* An ordered map from names to scores kept as a skip list. Keys are byte
 * strings compared by the caller's comparator; values are pointer-sized. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kerm_skiplist.h"

static int32_t by_bytes(const void *a, uint32_t la, const void *b, uint32_t lb) {
    int c = memcmp(a, b, la < lb ? la : lb);
    return c != 0 ? c : (int32_t)la - (int32_t)lb;
}

int main(void) {
    static const char *names[] = {"mike", "alice", "zoe", "bob"};
    util_skiplist *scores = util_skiplist_create(8, 50, by_bytes, NULL);
    void *old = NULL;
    uintptr_t i;

    if (scores == NULL) return 1;
    for (i = 0; i < 4; i++)
        util_skiplist_insert(scores, names[i], (uint32_t)strlen(names[i]), (void *)(10 * (i + 1)));
    /* An equal key replaces the value (1 = replaced). */
    printf("bob again: %d\n", util_skiplist_insert(scores, "bob", 3, (void *)99));
    for (i = 0; i < 4; i++)
        printf("%-5s -> %lu\n", names[i],
               (unsigned long)(uintptr_t)util_skiplist_search(scores, names[i], (uint32_t)strlen(names[i])));
    if (util_skiplist_remove(scores, "zoe", 3, &old) == 0)
        printf("removed zoe (%lu), %d left\n", (unsigned long)(uintptr_t)old, util_skiplist_count(scores));
    util_skiplist_destroy(scores);
    return 0;
}

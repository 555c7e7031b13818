/* An ordered map kept height-balanced (AVL). Values here are heap strings the
 * tree owns: free_value releases them when the tree drops an entry. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_avlt.h"

static int32_t by_number(const void *a, uint32_t la, const void *b, uint32_t lb) {
    uint32_t x, y;
    (void)la;
    (void)lb;
    memcpy(&x, a, sizeof x);
    memcpy(&y, b, sizeof y);
    return x < y ? -1 : x > y;
}

static char *text(const char *s) {
    char *copy = (char *)malloc(strlen(s) + 1);
    if (copy != NULL) strcpy(copy, s);
    return copy;
}

static int32_t print_session(util_avlt *tree, const void *key, uint32_t len, void *value, void *arg) {
    uint32_t id;
    (void)tree;
    (void)len;
    (void)arg;
    memcpy(&id, key, sizeof id);
    printf("  session %u: %s\n", id, (const char *)value);
    return 1;
}

int main(void) {
    static const uint32_t ids[] = {42, 7, 19, 3};
    static const char *users[] = {"pilot", "camera", "ground", "relay"};
    util_avlt *sessions = util_avlt_create(by_number, free);
    void *user = NULL;
    int i;

    if (sessions == NULL) return 1;
    for (i = 0; i < 4; i++) util_avlt_add(sessions, &ids[i], sizeof ids[i], text(users[i]));
    printf("add 7 again: %d (keys are unique)\n", util_avlt_add(sessions, &ids[1], sizeof ids[1], NULL));
    if (util_avlt_find(sessions, &ids[2], sizeof ids[2], &user) == 0) printf("session 19 is %s\n", (char *)user);
    util_avlt_remove(sessions, &ids[0], sizeof ids[0], NULL); /* value freed by the tree */
    printf("by id:\n");
    util_avlt_walk_sorted(sessions, print_session, NULL);
    util_avlt_destroy(sessions);
    return 0;
}

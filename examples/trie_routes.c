/* A trie from path texts to handlers' data: one node per key byte, so every
 * prefix of a stored key is a node, and removing a key removes its subtree. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kerm_trie.h"

int main(void) {
    static const char *routes[] = {"/video", "/video/live", "/video/clip", "/telemetry"};
    util_trie *trie = util_trie_create(NULL);
    uint32_t size = 0, i;
    const char *found;

    if (trie == NULL) return 1;
    for (i = 0; i < 4; i++) {
        /* copy = 1: the trie keeps its own copy of the text (with its terminator). */
        int32_t made = util_trie_insert(trie, routes[i], (void *)routes[i], (uint32_t)strlen(routes[i]) + 1, 1);
        printf("insert %-12s new nodes %d\n", routes[i], made);
    }
    found = (const char *)util_trie_find(trie, "/video/live", &size);
    printf("find /video/live: %s (%u bytes)\n", found ? found : "(none)", size);
    printf("find /vid: %s\n", util_trie_find(trie, "/vid", NULL) ? "data" : "path node only");
    printf("remove /video: %u nodes\n", util_trie_remove(trie, "/video", NULL, NULL));
    printf("find /video/clip after it: %s\n", util_trie_find(trie, "/video/clip", NULL) ? "found" : "gone");
    printf("nodes left %u\n", util_trie_node_count(trie));
    util_trie_destroy(trie);
    return 0;
}

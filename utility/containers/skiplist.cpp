// Skip list: every level is a sorted doubly linked list of links; level 0
// holds every node. A node, its links, its level flags and its key copy share
// one allocation.
#include <stdlib.h>
#include <string.h>

#include "containers/maps_internal.h"

namespace {

constexpr int32_t kStackLevels = 32;  // predecessor arrays up to this size live on the stack

kerm_sl_node *search_path(const util_skiplist *l, const void *key, uint32_t len, kerm_sl_node **preds) noexcept {
    kerm_sl_node *pred = nullptr;
    for (int32_t lvl = l->levels - 1; lvl >= 0; --lvl) {
        kerm_sl_link *link = pred ? pred->links[lvl].next : l->heads[lvl].first;
        while (link && l->compare(link->owner->key, link->owner->len, key, len) <= 0) {
            pred = link->owner;
            link = link->next;
        }
        if (preds) preds[lvl] = pred;
    }
    return pred;
}

void link_after(kerm_sl_head *head, kerm_sl_node *pred, int32_t lvl, kerm_sl_link *link) noexcept {
    kerm_sl_link **at = pred ? &pred->links[lvl].next : &head->first;
    link->next = *at;
    link->prev_next = at;
    *at = link;
    if (link->next)
        link->next->prev_next = &link->next;
    else
        head->last_next = &link->next;
}

void unlink_node(util_skiplist *l, kerm_sl_node *n) noexcept {
    for (int32_t lvl = 0; lvl < l->levels && n->present[lvl]; ++lvl) {
        kerm_sl_link *link = &n->links[lvl];
        *link->prev_next = link->next;
        if (link->next)
            link->next->prev_next = link->prev_next;
        else
            l->heads[lvl].last_next = link->prev_next;
    }
}

void release_node(const util_skiplist *l, kerm_sl_node *n, void **out) noexcept {
    if (out)
        *out = n->value;
    else if (l->free_value)
        l->free_value(n->value);
    free(n);
}

}  // namespace

extern "C" {

util_skiplist *util_skiplist_create(int32_t levels, uint32_t percent, util_skiplist_cmp_fn compare,
                                    util_skiplist_free_fn free_value) noexcept {
    if (levels < 1 || !compare) return nullptr;
    auto *l = static_cast<util_skiplist *>(calloc(1, sizeof(util_skiplist)));
    if (!l) return nullptr;
    l->heads = static_cast<kerm_sl_head *>(calloc(static_cast<size_t>(levels), sizeof(kerm_sl_head)));
    if (!l->heads) {
        free(l);
        return nullptr;
    }
    for (int32_t i = 0; i < levels; ++i) l->heads[i].last_next = &l->heads[i].first;
    l->levels = levels;
    l->percent = percent;
    l->compare = compare;
    l->free_value = free_value;
    return l;
}

void *util_skiplist_search(util_skiplist *list, const void *key, uint32_t len) noexcept {
    if (!list || (!key && len)) return nullptr;
    kerm_sl_node *n = search_path(list, key, len, nullptr);
    return n && list->compare(n->key, n->len, key, len) == 0 ? n->value : nullptr;
}

int32_t util_skiplist_insert(util_skiplist *list, const void *key, uint32_t len, void *value) noexcept {
    if (!list || (!key && len)) return -1;
    kerm_sl_node *stack_preds[kStackLevels] = {};
    kerm_sl_node **preds = stack_preds;
    if (list->levels > kStackLevels) {
        preds = static_cast<kerm_sl_node **>(calloc(static_cast<size_t>(list->levels), sizeof(*preds)));
        if (!preds) return -1;
    }
    int32_t rc = -1;
    kerm_sl_node *found = search_path(list, key, len, preds);
    if (found && list->compare(found->key, found->len, key, len) == 0) {
        if (list->free_value) list->free_value(found->value);
        found->value = value;
        rc = 1;
    } else {
        // The node's height is drawn first so that it is allocated at its size.
        int32_t height = 1;
        while (height < list->levels && static_cast<uint32_t>(random() % 100) > list->percent) ++height;
        size_t links_at = sizeof(kerm_sl_node);
        size_t present_at = links_at + static_cast<size_t>(height) * sizeof(kerm_sl_link);
        size_t key_at = present_at + static_cast<size_t>(list->levels);
        auto *raw = static_cast<uint8_t *>(malloc(key_at + len));
        if (raw) {
            auto *n = reinterpret_cast<kerm_sl_node *>(raw);
            n->links = reinterpret_cast<kerm_sl_link *>(raw + links_at);
            n->present = raw + present_at;
            n->key = raw + key_at;
            n->len = len;
            n->value = value;
            if (len) memcpy(n->key, key, len);
            memset(n->present, 0, static_cast<size_t>(list->levels));
            for (int32_t lvl = 0; lvl < height; ++lvl) {
                n->links[lvl].owner = n;
                link_after(&list->heads[lvl], lvl == 0 ? found : preds[lvl], lvl, &n->links[lvl]);
                n->present[lvl] = 1;
            }
            ++list->count;
            rc = 0;
        }
    }
    if (preds != stack_preds) free(preds);
    return rc;
}

int32_t util_skiplist_remove(util_skiplist *list, const void *key, uint32_t len, void **out) noexcept {
    if (!list || (!key && len)) return -1;
    kerm_sl_node *n = search_path(list, key, len, nullptr);
    if (!n || list->compare(n->key, n->len, key, len) != 0) return -1;
    unlink_node(list, n);
    release_node(list, n, out);
    --list->count;
    return 0;
}

int32_t util_skiplist_count(const util_skiplist *list) noexcept { return list ? list->count : 0; }

void util_skiplist_destroy(util_skiplist *list) noexcept {
    if (!list) return;
    while (kerm_sl_link *first = list->heads[0].first) {
        kerm_sl_node *n = first->owner;
        unlink_node(list, n);
        release_node(list, n, nullptr);
    }
    free(list->heads);
    free(list);
}

}  // extern "C"

const char *kerm::skiplist_check(const util_skiplist *l) noexcept {
    if (!l) return nullptr;
    int32_t below = 0;  // links on the level below
    int64_t flags = 0, all_links = 0;
    for (kerm_sl_link *k = l->heads[0].first; k; k = k->next)
        for (int32_t lvl = 0; lvl < l->levels; ++lvl) flags += k->owner->present[lvl];
    for (int32_t lvl = 0; lvl < l->levels; ++lvl) {
        const kerm_sl_head &h = l->heads[lvl];
        kerm_sl_link *const *expect_prev = &h.first;
        const kerm_sl_node *prev = nullptr;
        int32_t links = 0;
        for (kerm_sl_link *k = h.first; k; k = k->next) {
            const kerm_sl_node *n = k->owner;
            if (k != &n->links[lvl]) return "link does not belong to its level";
            if (k->prev_next != expect_prev) return "back pointer broken";
            if (!n->present[lvl]) return "linked node not marked present";
            if (lvl > 0 && !n->present[lvl - 1]) return "node missing on a lower level";
            if (prev && l->compare(prev->key, prev->len, n->key, n->len) >= 0) return "level not ascending";
            expect_prev = &k->next;
            prev = n;
            ++links;
        }
        if (h.last_next != expect_prev) return "last pointer broken";
        if (lvl == 0 && links != l->count) return "count differs from level 0";
        if (lvl > 0 && links > below) return "upper level longer than the one below";
        below = links;
        all_links += links;
    }
    if (flags != all_links) return "node marked present where it is not linked";
    return nullptr;
}

// Tagged linked list: positional doubly linked list with a cached cursor,
// tagged values, sort, binary search and slice walks.
#include <stdlib.h>
#include <string.h>

#include <utility>

#include "common/kerm_guard.h"
#include "containers/list_internal.h"

namespace {

using kerm::MutexGuard;

list_entry_t *new_entry(void *value, uint32_t tagged) {
    auto *e = static_cast<list_entry_t *>(calloc(1, sizeof(list_entry_t)));
    if (e != nullptr) {
        e->value = value;
        e->tagged = tagged;
    }
    return e;
}

// Entry at pos, reached from the cursor when it is nearer than either end.
// The found entry becomes the cursor. Caller holds the lock.
list_entry_t *entry_at(list_t *l, uint32_t pos) {
    if (pos >= l->count) return nullptr;
    uint32_t half = l->count / 2;
    list_entry_t *e;
    if (l->cursor != nullptr) {
        uint32_t cp = l->cursor_pos;
        uint32_t diff = pos > cp ? pos - cp : cp - pos;
        if (diff < half) {
            e = l->cursor;
            if (pos < cp)
                for (uint32_t i = cp; i > pos; --i) e = e->prev;
            else
                for (uint32_t i = cp; i < pos; ++i) e = e->next;
            l->cursor = e;
            l->cursor_pos = pos;
            return e;
        }
    }
    if (pos <= half) {
        e = l->head;
        for (uint32_t i = 0; i < pos; ++i) e = e->next;
    } else {
        e = l->tail;
        for (uint32_t i = l->count - 1; i > pos; --i) e = e->prev;
    }
    l->cursor = e;
    l->cursor_pos = pos;
    return e;
}

void link_head(list_t *l, list_entry_t *e) {
    e->owner = l;
    e->prev = nullptr;
    e->next = l->head;
    if (l->head != nullptr) l->head->prev = e;
    l->head = e;
    if (l->tail == nullptr) l->tail = e;
    ++l->count;
    if (l->cursor != nullptr) ++l->cursor_pos;
}

void link_tail(list_t *l, list_entry_t *e) {
    e->owner = l;
    e->next = nullptr;
    e->prev = l->tail;
    if (l->tail != nullptr) l->tail->next = e;
    l->tail = e;
    if (l->head == nullptr) l->head = e;
    ++l->count;
}

// Unlinks e, known to stand at pos, and keeps the cursor pointing at the
// entry it named before.
void unlink_at(list_t *l, list_entry_t *e, uint32_t pos) {
    if (e == l->head) {
        if (l->cursor == e)
            l->cursor = nullptr;
        else if (l->cursor_pos != 0)
            --l->cursor_pos;
    } else if (e == l->tail) {
        if (l->cursor == e) l->cursor = nullptr;
    } else if (l->cursor == e) {
        l->cursor = nullptr;
        l->cursor_pos = 0;
    } else if (l->cursor != nullptr && l->cursor_pos > pos) {
        --l->cursor_pos;
    }
    if (e->prev != nullptr) e->prev->next = e->next;
    if (e->next != nullptr) e->next->prev = e->prev;
    if (l->head == e) l->head = e->next;
    if (l->tail == e) l->tail = e->prev;
    if (--l->count == 0) l->head = l->tail = nullptr;
    e->owner = nullptr;
    e->prev = e->next = nullptr;
}

// Links an allocated entry so that it ends up at pos, padding with empty
// entries past the end. Caller holds the lock. -1 leaves the padding added.
int insert_entry(list_t *l, list_entry_t *e, uint32_t pos) {
    if (pos == 0) {
        link_head(l, e);
        return 0;
    }
    if (pos == l->count) {
        link_tail(l, e);
        return 0;
    }
    if (pos > l->count) {
        while (l->count < pos) {
            list_entry_t *pad = new_entry(nullptr, 0);
            if (pad == nullptr) return -1;
            link_tail(l, pad);
        }
        link_tail(l, e);
        return 0;
    }
    list_entry_t *before = entry_at(l, pos - 1);
    // The cursor now stands at pos-1; entries from pos on move up by one.
    e->owner = l;
    e->prev = before;
    e->next = before->next;
    before->next->prev = e;
    before->next = e;
    ++l->count;
    return 0;
}

int insert_value(list_t *l, void *value, uint32_t pos, uint32_t tagged) {
    list_entry_t *e = new_entry(value, tagged);
    if (e == nullptr) return -1;
    MutexGuard g(&l->lock);
    if (insert_entry(l, e, pos) != 0) {
        free(e);
        return -1;
    }
    return 0;
}

// Takes the entry at pos out of the list (caller holds the lock).
list_entry_t *take_entry(list_t *l, uint32_t pos) {
    list_entry_t *e = pos == 0 ? l->head : pos + 1 == l->count ? l->tail : entry_at(l, pos);
    if (pos >= l->count || e == nullptr) return nullptr;
    unlink_at(l, e, pos);
    return e;
}

void *take_value(list_t *l, uint32_t pos) {
    list_entry_t *e;
    {
        MutexGuard g(&l->lock);
        e = take_entry(l, pos);
    }
    if (e == nullptr) return nullptr;
    void *v = e->value;
    free(e);
    return v;
}

// Replaces the value at pos; with insert set, an absent position is filled
// as by list_insert_value. Returns the old value or null.
void *replace_value(list_t *l, uint32_t pos, void *value, uint32_t tagged, bool insert, bool *done) {
    MutexGuard g(&l->lock);
    list_entry_t *e = entry_at(l, pos);
    if (e != nullptr) {
        void *old = e->value;
        e->value = value;
        e->tagged = tagged;
        if (done) *done = true;
        return old;
    }
    if (insert) {
        int rc = insert_value(l, value, pos, tagged);
        if (done) *done = rc == 0;
    }
    return nullptr;
}

list_tagged_value_t *new_tagged(const char *tag) {
    auto *tv = static_cast<list_tagged_value_t *>(calloc(1, sizeof(list_tagged_value_t)));
    if (tv == nullptr || tag == nullptr) return tv;
    tv->tag = strdup(tag);
    if (tv->tag == nullptr) {
        free(tv);
        return nullptr;
    }
    return tv;
}

void destroy_tagged(list_tagged_value_t *tv, list_free_value_callback_t cb) {
    if (tv == nullptr) return;
    free(tv->tag);
    if (tv->value != nullptr) {
        if (tv->type == LIST_TV_LIST)
            list_destroy(static_cast<list_t *>(tv->value));
        else if (cb != nullptr)
            cb(tv->value);
        else if (tv->vlen != 0 || tv->owned)
            free(tv->value);
    }
    free(tv);
}

void discard_entry(list_entry_t *e, list_free_value_callback_t cb) {
    if (e->tagged && e->value != nullptr)
        destroy_tagged(static_cast<list_tagged_value_t *>(e->value), cb);
    else if (!e->tagged && cb != nullptr)
        cb(e->value);
    free(e);
}

// Pushes or unshifts a tagged value; a null one or a failed entry
// allocation adds nothing and still gives 0.
int add_tagged(list_t *l, list_tagged_value_t *tv, void (*link)(list_t *, list_entry_t *)) {
    if (l == nullptr) return -1;
    if (tv == nullptr) return 0;
    list_entry_t *e = new_entry(tv, 1);
    if (e == nullptr) return 0;
    MutexGuard g(&l->lock);
    link(l, e);
    return 0;
}

bool tag_matches(const list_entry_t *e, const char *tag) {
    if (!e->tagged || e->value == nullptr) return false;
    const char *t = static_cast<const list_tagged_value_t *>(e->value)->tag;
    return t != nullptr && t[0] == tag[0] && strcmp(t, tag) == 0;
}

// Detaches e from its neighbours and links it again just before or just after
// at (the same list); head and tail follow, count, owner and cursor stay.
void detach(list_t *l, list_entry_t *e) {
    if (e->prev != nullptr)
        e->prev->next = e->next;
    else
        l->head = e->next;
    if (e->next != nullptr)
        e->next->prev = e->prev;
    else
        l->tail = e->prev;
}

void relink_before(list_t *l, list_entry_t *e, list_entry_t *at) {
    detach(l, e);
    e->next = at;
    e->prev = at->prev;
    if (at->prev != nullptr)
        at->prev->next = e;
    else
        l->head = e;
    at->prev = e;
}

void relink_after(list_t *l, list_entry_t *e, list_entry_t *at) {
    detach(l, e);
    e->prev = at;
    e->next = at->next;
    if (at->next != nullptr)
        at->next->prev = e;
    else
        l->tail = e;
    at->next = e;
}

list_entry_t *forward(list_entry_t *e, uint32_t steps) {
    while (steps-- > 0 && e != nullptr) e = e->next;
    return e;
}

// Quicksort of the n linked entries from first to last (caller holds the
// lock). The pivot is the entry at position n/2-1 of the range. Values are
// exchanged between the scans; an entry met while the other scan waits on the
// pivot is relinked to the pivot's other side. Leaves comparator(earlier,
// later) never negative, so a "smaller is negative" comparator gives
// descending order, the order list_bsearch expects.
void quick_sort(list_t *l, list_entry_t *first, list_entry_t *last, uint32_t n, list_comparator_t cmp) {
    while (n > 1 && first != nullptr && last != nullptr) {
        if (n == 2) {
            if (cmp(first->value, last->value) < 0) std::swap(first->value, last->value);
            return;
        }
        list_entry_t *pivot = forward(first, n / 2 - 1);
        void *p = pivot->value;
        // The left scan stays between first and the pivot, the right one
        // between the pivot and last; they can only meet on the pivot.
        list_entry_t *lo = first, *hi = last;
        for (;;) {
            while (lo != nullptr && lo != pivot && cmp(lo->value, p) > 0) lo = lo->next;
            while (hi != nullptr && hi != pivot && cmp(hi->value, p) < 0) hi = hi->prev;
            if (lo == nullptr || hi == nullptr || lo == hi) break;
            if (lo != pivot && hi != pivot) {
                std::swap(lo->value, hi->value);
                lo = lo->next;
                hi = hi->prev;
            } else if (lo == pivot) {
                list_entry_t *back = hi->prev;
                if (hi == last) last = back;
                relink_before(l, hi, pivot);
                if (first == pivot) first = hi;
                hi = back;
            } else {
                list_entry_t *ahead = lo->next;
                if (lo == first) first = ahead;
                relink_after(l, lo, pivot);
                if (last == pivot) last = lo;
                lo = ahead;
            }
        }
        uint32_t k = 0;
        for (list_entry_t *e = first; e != pivot; e = e->next) ++k;
        uint32_t right_n = n - 1 - k;
        list_entry_t *left_last = pivot->prev, *right_first = pivot->next;
        // Both parts are sorted independently, so the order in which they are
        // done does not change the result. The smaller part is recursed into
        // and the larger one iterated, which bounds the stack depth by log2(n);
        // always recursing on the left would let a skewed input recurse once
        // per entry and overflow the stack.
        if (k <= right_n) {
            if (k > 1) quick_sort(l, first, left_last, k, cmp);
            first = right_first;
            n = right_n;
        } else {
            if (right_n > 1) quick_sort(l, right_first, last, right_n, cmp);
            last = left_last;
            n = k;
        }
    }
}

// Sorts positions 0..n-1 in place, then clears the cursor.
void sort_prefix(list_t *l, uint32_t n, list_comparator_t cmp) {
    if (n > 1) quick_sort(l, l->head, forward(l->head, n - 1), n, cmp);
    l->cursor = nullptr;
    l->cursor_pos = 0;
}

}  // namespace

extern "C" {

list_t *list_create(void) noexcept {
    auto *l = static_cast<list_t *>(calloc(1, sizeof(list_t)));
    if (l != nullptr && list_init(l) != 0) {
        free(l);
        return nullptr;
    }
    return l;
}

int list_init(list_t *list) noexcept {
    if (list == nullptr) return -1;
    kerm::recursive_mutex_init_or_abort(&list->lock);
    return 0;
}

void list_destroy(list_t *list) noexcept {
    if (list == nullptr) return;
    while (list->slices != nullptr) slice_destroy(static_cast<slice_t *>(list->slices->value));
    list_clear(list);
    if (pthread_mutex_destroy(&list->lock) != 0) abort();
    free(list);
}

void list_clear(list_t *list) noexcept {
    if (list == nullptr) return;
    MutexGuard g(&list->lock);
    while (list->head != nullptr) {
        list_entry_t *e = list->head;
        unlink_at(list, e, 0);
        discard_entry(e, list->free_value_cb);
    }
}

void list_set_free_value_callback(list_t *list, list_free_value_callback_t cb) noexcept {
    if (list == nullptr) return;
    MutexGuard g(&list->lock);
    list->free_value_cb = cb;
}

uint32_t list_count(list_t *list) noexcept {
    if (list == nullptr) return 0;
    MutexGuard g(&list->lock);
    return list->count;
}

void list_lock(list_t *list) noexcept {
    if (list != nullptr) kerm::lock_or_abort(&list->lock);
}

void list_unlock(list_t *list) noexcept {
    if (list != nullptr) kerm::unlock_or_abort(&list->lock);
}

int list_push_value(list_t *list, void *value) noexcept {
    if (list == nullptr) return -1;
    list_entry_t *e = new_entry(value, 0);
    if (e == nullptr) return -1;
    MutexGuard g(&list->lock);
    link_tail(list, e);
    return 0;
}

int list_unshift_value(list_t *list, void *value) noexcept {
    if (list == nullptr) return -1;
    list_entry_t *e = new_entry(value, 0);
    if (e == nullptr) return -1;
    MutexGuard g(&list->lock);
    link_head(list, e);
    return 0;
}

int list_insert_value(list_t *list, void *value, uint32_t pos) noexcept {
    return list == nullptr ? -1 : insert_value(list, value, pos, 0);
}

void *list_pop_value(list_t *list) noexcept {
    if (list == nullptr) return nullptr;
    MutexGuard g(&list->lock);
    return list->count == 0 ? nullptr : take_value(list, list->count - 1);
}

void *list_shift_value(list_t *list) noexcept { return list == nullptr ? nullptr : take_value(list, 0); }

void *list_fetch_value(list_t *list, uint32_t pos) noexcept {
    return list == nullptr ? nullptr : take_value(list, pos);
}

void *list_pick_value(list_t *list, uint32_t pos) noexcept {
    if (list == nullptr) return nullptr;
    MutexGuard g(&list->lock);
    list_entry_t *e = entry_at(list, pos);
    return e == nullptr ? nullptr : e->value;
}

void *list_set_value(list_t *list, uint32_t pos, void *value) noexcept {
    return list == nullptr ? nullptr : replace_value(list, pos, value, 0, true, nullptr);
}

void *list_subst_value(list_t *list, uint32_t pos, void *value) noexcept {
    return list == nullptr ? nullptr : replace_value(list, pos, value, 0, false, nullptr);
}

int list_move_value(list_t *list, uint32_t from, uint32_t to) noexcept {
    if (list == nullptr) return -1;
    MutexGuard g(&list->lock);
    list_entry_t *e = take_entry(list, from);
    if (e == nullptr) return -1;
    if (insert_entry(list, e, to) != 0) {
        insert_entry(list, e, from);
        return -1;
    }
    return 0;
}

int list_swap_values(list_t *list, uint32_t pos1, uint32_t pos2) noexcept {
    if (list == nullptr || pos1 == pos2) return -1;
    uint32_t a = pos1 < pos2 ? pos1 : pos2;
    uint32_t b = pos1 < pos2 ? pos2 : pos1;
    // Two moves, each locked on its own; failures are not reported.
    list_move_value(list, b, a);
    list_move_value(list, a + 1, b);
    return 0;
}

list_tagged_value_t *list_create_tagged_value(const char *tag, const void *value, uint32_t len) noexcept {
    list_tagged_value_t *tv = new_tagged(tag);
    if (tv == nullptr || value == nullptr) return tv;
    if (len > 0) {
        auto *buf = static_cast<char *>(malloc(size_t(len) + 1));
        if (buf == nullptr) {
            free(tv->tag);
            free(tv);
            return nullptr;
        }
        memcpy(buf, value, len);
        buf[len] = '\0';
        tv->value = buf;
        tv->vlen = len;
        tv->type = LIST_TV_BYTES;
    } else {
        char *text = strdup(static_cast<const char *>(value));
        if (text == nullptr) {
            free(tv->tag);
            free(tv);
            return nullptr;
        }
        tv->value = text;
        tv->vlen = static_cast<uint32_t>(strlen(text));
        tv->type = LIST_TV_TEXT;
    }
    tv->owned = 1;
    return tv;
}

list_tagged_value_t *list_create_tagged_value_nocopy(const char *tag, void *value) noexcept {
    list_tagged_value_t *tv = new_tagged(tag);
    if (tv != nullptr) {
        tv->value = value;
        tv->type = LIST_TV_TEXT;
    }
    return tv;
}

list_tagged_value_t *list_create_tagged_sublist(const char *tag, list_t *sublist) noexcept {
    list_tagged_value_t *tv = new_tagged(tag);
    if (tv != nullptr) {
        tv->value = sublist;
        tv->type = LIST_TV_LIST;
    }
    return tv;
}

void list_destroy_tagged_value(list_tagged_value_t *tv) noexcept { destroy_tagged(tv, nullptr); }

int list_push_tagged_value(list_t *list, list_tagged_value_t *tv) noexcept {
    return add_tagged(list, tv, link_tail);
}

int list_unshift_tagged_value(list_t *list, list_tagged_value_t *tv) noexcept {
    return add_tagged(list, tv, link_head);
}

int list_insert_tagged_value(list_t *list, list_tagged_value_t *tv, uint32_t pos) noexcept {
    if (list == nullptr) return -1;
    if (tv == nullptr) return 0;
    list_entry_t *e = new_entry(tv, 1);
    if (e == nullptr) return 0;
    MutexGuard g(&list->lock);
    if (insert_entry(list, e, pos) != 0) {
        free(e);
        return -1;
    }
    return 0;
}

list_tagged_value_t *list_pop_tagged_value(list_t *list) noexcept {
    return static_cast<list_tagged_value_t *>(list_pop_value(list));
}

list_tagged_value_t *shift_tagged_value(list_t *list) noexcept {
    return static_cast<list_tagged_value_t *>(list_shift_value(list));
}

list_tagged_value_t *list_pick_tagged_value(list_t *list, uint32_t pos) noexcept {
    return static_cast<list_tagged_value_t *>(list_pick_value(list, pos));
}

list_tagged_value_t *list_fetch_tagged_value(list_t *list, uint32_t pos) noexcept {
    return static_cast<list_tagged_value_t *>(list_fetch_value(list, pos));
}

list_tagged_value_t *list_get_tagged_value(list_t *list, const char *tag) noexcept {
    if (list == nullptr || tag == nullptr) return nullptr;
    MutexGuard g(&list->lock);
    for (list_entry_t *e = list->head; e != nullptr; e = e->next)
        if (tag_matches(e, tag)) return static_cast<list_tagged_value_t *>(e->value);
    return nullptr;
}

int list_get_tagged_values(list_t *list, const char *tag, list_t *out) noexcept {
    if (list == nullptr || tag == nullptr || out == nullptr) return 0;
    MutexGuard g(&list->lock);
    int found = 0;
    for (list_entry_t *e = list->head; e != nullptr; e = e->next)
        if (tag_matches(e, tag) && list_push_value(out, static_cast<list_tagged_value_t *>(e->value)->value) == 0)
            ++found;
    return found;
}

intptr_t list_set_tagged_value(list_t *list, const char *tag, void *value, uint32_t len, int copy) noexcept {
    if (list == nullptr || tag == nullptr) return 0;
    list_tagged_value_t *tv =
        copy ? list_create_tagged_value(tag, value, len) : list_create_tagged_value_nocopy(tag, value);
    if (tv == nullptr) return 0;
    // Lookup and replacement under one hold of the lock, so the entry found
    // is the one replaced.
    MutexGuard g(&list->lock);
    uint32_t pos = 0;
    for (list_entry_t *e = list->head; e != nullptr; e = e->next, ++pos) {
        if (!tag_matches(e, tag)) continue;
        bool done = false;
        void *old = replace_value(list, pos, tv, 1, false, &done);
        if (!done) {
            destroy_tagged(tv, nullptr);
            return 0;
        }
        return reinterpret_cast<intptr_t>(old);
    }
    // A new tag is appended and stays valid in the list; only a failed
    // append drops the new tagged value (nothing else refers to it then).
    list_entry_t *e = new_entry(tv, 1);
    if (e == nullptr) {
        destroy_tagged(tv, nullptr);
        return 0;
    }
    link_tail(list, e);
    return 0;
}

int list_sort_all(list_t *list, list_comparator_t comparator) noexcept {
    if (list == nullptr || comparator == nullptr) return -1;
    MutexGuard g(&list->lock);
    sort_prefix(list, list->count, comparator);
    return 0;
}

int list_sort(list_t *list, uint32_t count, list_comparator_t comparator) noexcept {
    if (list == nullptr || comparator == nullptr) return -1;
    MutexGuard g(&list->lock);
    // Deliberate: a count reaching the end of the list sorts nothing, only
    // the cursor is cleared; callers sort whole lists with list_sort_all.
    sort_prefix(list, count < list->count ? count : 0, comparator);
    return 0;
}

uint32_t list_bsearch(list_t *list, void *key, uint32_t count, list_comparator_t comparator) noexcept {
    if (list == nullptr || key == nullptr || comparator == nullptr || count == 0) return LIST_NOT_FOUND;
    MutexGuard g(&list->lock);
    if (count > list->count) return LIST_NOT_FOUND;
    if (count == 1) return comparator(key, entry_at(list, 0)->value) == 0 ? 0 : LIST_NOT_FOUND;
    uint32_t lo = 0, hi = count, mid = count / 2;
    while (lo < hi) {
        int r = comparator(key, entry_at(list, mid)->value);
        if (r == 0) return mid;
        if (r < 0)
            lo = mid + 1;
        else
            hi = mid;
        mid = (lo + hi) / 2;
    }
    return LIST_NOT_FOUND;
}

uint32_t list_bsearch_all(list_t *list, void *key, list_comparator_t comparator) noexcept {
    if (list == nullptr) return LIST_NOT_FOUND;
    MutexGuard g(&list->lock);
    return list_bsearch(list, key, list->count, comparator);
}

int list_foreach_value(list_t *list, list_item_callback_t cb, void *user) noexcept {
    if (list == nullptr) return -1;
    slice_t whole{list, 0, list_count(list)};
    return slice_foreach_value(&whole, cb, user);
}

slice_t *slice_create(list_t *list, uint32_t offset, uint32_t length) noexcept {
    if (list == nullptr) return nullptr;
    auto *s = static_cast<slice_t *>(malloc(sizeof(slice_t)));
    if (s == nullptr) return nullptr;
    list_entry_t *link = new_entry(s, 0);
    if (link == nullptr) {
        free(s);
        return nullptr;
    }
    *s = slice_t{list, offset, length};
    // The chain is doubly linked so that any slice of it can leave alone.
    MutexGuard g(&list->lock);
    link->next = list->slices;
    if (list->slices != nullptr) list->slices->prev = link;
    list->slices = link;
    return s;
}

void slice_destroy(slice_t *slice) noexcept {
    if (slice == nullptr) return;
    list_t *l = slice->list;
    {
        MutexGuard g(&l->lock);
        for (list_entry_t *e = l->slices; e != nullptr; e = e->next) {
            if (e->value != slice) continue;
            if (e->prev != nullptr)
                e->prev->next = e->next;
            else
                l->slices = e->next;
            if (e->next != nullptr) e->next->prev = e->prev;
            free(e);
            break;
        }
    }
    free(slice);
}

int slice_foreach_value(slice_t *slice, list_item_callback_t cb, void *user) noexcept {
    if (slice == nullptr || slice->list == nullptr || cb == nullptr) return -1;
    list_t *l = slice->list;
    MutexGuard g(&l->lock);
    uint32_t pos = slice->offset;
    list_entry_t *e = entry_at(l, pos);
    uint32_t i = 0;
    // Deliberate: i counts calls, not positions, and a removal also lowers
    // the length, so a walk that removes entries ends early; callers that
    // remove many entries walk again.
    while (e != nullptr && i < slice->length) {
        int r = cb(e->value, i, user);
        ++i;
        list_entry_t *next = e->next;
        if (r == -1 || r == -2) {
            unlink_at(l, e, pos);
            free(e);
            --slice->length;
            if (r == -2) break;
        } else if (r == 0) {
            break;
        } else {
            ++pos;
        }
        e = next;
    }
    return static_cast<int>(i);
}

}  // extern "C"

/** @file kerm_list.h
 * @brief Tagged linked list: a doubly linked list of opaque values addressed by
 * position, shared safely between threads.
 *
 * Every operation takes the list's recursive mutex, so single calls are
 * atomic and a caller may hold the lock across several calls with
 * list_lock()/list_unlock(). Composite calls (move, swap, the tag lookups)
 * are sequences of locked steps: wrap them in list_lock() when they must be
 * atomic. A lock or unlock that fails ends the process (abort).
 *
 * A cursor remembers the entry last reached by position, so walks by
 * increasing or decreasing position cost one step per call.
 *
 * Tagged values pair a copied text tag with a copied text, copied bytes, a
 * borrowed pointer or a whole sub-list; the list owns the tagged values that
 * were added through the *_tagged_value calls and destroys them on clear.
 *
 * Positions are 0-based; functions returning int give 0 on success and -1 on
 * failure unless stated; functions returning a value give null when there is
 * none. A null list is refused with those results and changes nothing.
 */
#ifndef KERM_LIST_H
#define KERM_LIST_H

#include <pthread.h>
#include <stdint.h>

#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Kinds of a tagged value. */
#define LIST_TV_TEXT 0u  /**< zero-terminated text (copied, or borrowed by nocopy) */
#define LIST_TV_BYTES 1u /**< copied bytes, followed by one zero byte */
#define LIST_TV_LIST 2u  /**< a sub-list owned by the tagged value */

/** Result of list_bsearch()/list_bsearch_all() when the key is not found. */
#define LIST_NOT_FOUND 0xFFFFFFFFu

/** One entry of a list (internal to the list). */
typedef struct list_entry_s list_entry_t;

/** Called with a value the list discards while it still holds it. */
typedef void (*list_free_value_callback_t)(void *value);
/** Ordering: negative when a is smaller. The sort leaves larger values first. */
typedef int (*list_comparator_t)(void *a, void *b);
/** Walk callback: 1 (or any other value) continue, 0 stop,
 *  -1 remove the entry and continue, -2 remove it and stop. */
typedef int (*list_item_callback_t)(void *value, uint32_t index, void *user);

/** A list. Allocate with list_create(), or embed a zeroed one and call list_init(). */
typedef struct list_s {
    list_entry_t *head;
    list_entry_t *tail;
    list_entry_t *cursor;     /**< entry last reached by position, or null */
    uint32_t cursor_pos;      /**< position of the cursor entry */
    uint32_t count;
    pthread_mutex_t lock;     /**< recursive */
    list_free_value_callback_t free_value_cb;
    list_entry_t *slices;     /**< chain of the slices created on this list */
} list_t;

/** A tagged value: a tag text and a value of one of the LIST_TV_* kinds. */
typedef struct list_tagged_value_s {
    char *tag;      /**< owned copy of the tag, or null */
    void *value;    /**< the value, or null */
    uint32_t vlen;  /**< bytes of a copied value; 0 for a borrowed pointer or a sub-list */
    uint32_t type;  /**< LIST_TV_TEXT, LIST_TV_BYTES or LIST_TV_LIST */
    uint32_t owned; /**< non-zero when the value buffer belongs to the tagged value */
} list_tagged_value_t;

/** A run of positions of one list, walked by slice_foreach_value(). */
typedef struct slice_s {
    list_t *list;
    uint32_t offset; /**< first position */
    uint32_t length; /**< number of positions; lowered by removals during a walk */
} slice_t;

/* ---- lifetime and locking ---- */

/** @brief Creates an empty list. @return the list, or null when memory runs out. */
KERM_API list_t *list_create(void) KERM_NOEXCEPT;
/** @brief Prepares an embedded, zeroed list. @return 0, or -1 for a null list. */
KERM_API int list_init(list_t *list) KERM_NOEXCEPT;
/** @brief Destroys every slice, clears the list, destroys its mutex and frees it. Null is ignored. */
KERM_API void list_destroy(list_t *list) KERM_NOEXCEPT;
/** @brief Removes every entry from the head. Tagged values are destroyed with the
 *  free-value callback handed on; plain values go to the callback when one is set. */
KERM_API void list_clear(list_t *list) KERM_NOEXCEPT;
/** @brief Sets (or with null removes) the free-value callback. */
KERM_API void list_set_free_value_callback(list_t *list, list_free_value_callback_t cb) KERM_NOEXCEPT;
/** @brief Number of entries, read under the lock. @return the count, 0 for a null list. */
KERM_API uint32_t list_count(list_t *list) KERM_NOEXCEPT;
/** @brief Takes the list's recursive mutex (held across calls until list_unlock()). */
KERM_API void list_lock(list_t *list) KERM_NOEXCEPT;
/** @brief Releases the list's recursive mutex. */
KERM_API void list_unlock(list_t *list) KERM_NOEXCEPT;

/* ---- plain values ---- */

/** @brief Appends a value at the tail. @return 0, or -1 when no entry can be allocated. */
KERM_API int list_push_value(list_t *list, void *value) KERM_NOEXCEPT;
/** @brief Inserts a value at the head. @return 0 or -1. */
KERM_API int list_unshift_value(list_t *list, void *value) KERM_NOEXCEPT;
/** @brief Inserts so that the value ends up at pos; past the end, null entries pad the gap
 *  (padding added before a failure stays). @return 0 or -1. */
KERM_API int list_insert_value(list_t *list, void *value, uint32_t pos) KERM_NOEXCEPT;
/** @brief Removes the tail. @return its value (now the caller's), or null when empty. */
KERM_API void *list_pop_value(list_t *list) KERM_NOEXCEPT;
/** @brief Removes the head. @return its value (now the caller's), or null when empty. */
KERM_API void *list_shift_value(list_t *list) KERM_NOEXCEPT;
/** @brief Removes the entry at pos. @return its value (now the caller's), or null. */
KERM_API void *list_fetch_value(list_t *list, uint32_t pos) KERM_NOEXCEPT;
/** @brief The value at pos, left in place. @return the value, or null. */
KERM_API void *list_pick_value(list_t *list, uint32_t pos) KERM_NOEXCEPT;
/** @brief Replaces the value at pos, or inserts it there (as list_insert_value) when pos
 *  has no entry. @return the replaced value, or null when it was inserted. */
KERM_API void *list_set_value(list_t *list, uint32_t pos, void *value) KERM_NOEXCEPT;
/** @brief Replaces the value at pos only. @return the old value, or null (nothing changed). */
KERM_API void *list_subst_value(list_t *list, uint32_t pos, void *value) KERM_NOEXCEPT;
/** @brief Moves the entry at from so that it ends up at to (positions counted after the
 *  removal). @return 0; -1 when from has no entry or the insertion fails (entry put back). */
KERM_API int list_move_value(list_t *list, uint32_t from, uint32_t to) KERM_NOEXCEPT;
/** @brief Exchanges the entries at two positions (two separate moves).
 *  @return -1 when the positions are equal, else 0. */
KERM_API int list_swap_values(list_t *list, uint32_t pos1, uint32_t pos2) KERM_NOEXCEPT;

/* ---- tagged values ---- */

/** @brief New tagged value: len > 0 copies len bytes (plus a zero byte, LIST_TV_BYTES);
 *  len 0 copies the text (LIST_TV_TEXT). A null tag stays unset; a null value gives a
 *  tagged value with only the tag. @return the tagged value, or null when memory runs out. */
KERM_API list_tagged_value_t *list_create_tagged_value(const char *tag, const void *value,
                                                       uint32_t len) KERM_NOEXCEPT;
/** @brief New tagged value borrowing value (never freed unless a free-value callback is
 *  given when it is destroyed). @return the tagged value, or null. */
KERM_API list_tagged_value_t *list_create_tagged_value_nocopy(const char *tag, void *value) KERM_NOEXCEPT;
/** @brief New tagged value that takes the sub-list over (destroyed with it). @return it, or null. */
KERM_API list_tagged_value_t *list_create_tagged_sublist(const char *tag, list_t *sublist) KERM_NOEXCEPT;
/** @brief Destroys a tagged value without a callback (a sub-list is destroyed too). */
KERM_API void list_destroy_tagged_value(list_tagged_value_t *tv) KERM_NOEXCEPT;

/** @brief Appends a tagged value, which the list then owns.
 *  @return 0, also when tv is null or no entry could be allocated (nothing is added). */
KERM_API int list_push_tagged_value(list_t *list, list_tagged_value_t *tv) KERM_NOEXCEPT;
/** @brief Inserts a tagged value at the head. @return 0 (see list_push_tagged_value()). */
KERM_API int list_unshift_tagged_value(list_t *list, list_tagged_value_t *tv) KERM_NOEXCEPT;
/** @brief Inserts a tagged value at pos (padding past the end).
 *  @return 0 (see list_push_tagged_value()), or -1 when the insertion fails. */
KERM_API int list_insert_tagged_value(list_t *list, list_tagged_value_t *tv, uint32_t pos) KERM_NOEXCEPT;
/** @brief Removes the tail. @return its tagged value (now the caller's), or null. */
KERM_API list_tagged_value_t *list_pop_tagged_value(list_t *list) KERM_NOEXCEPT;
/** @brief Removes the head. @return its tagged value (now the caller's), or null. */
KERM_API list_tagged_value_t *shift_tagged_value(list_t *list) KERM_NOEXCEPT;
/** @brief The tagged value at pos, left in place. @return it, or null. */
KERM_API list_tagged_value_t *list_pick_tagged_value(list_t *list, uint32_t pos) KERM_NOEXCEPT;
/** @brief Removes the entry at pos. @return its tagged value (now the caller's), or null. */
KERM_API list_tagged_value_t *list_fetch_tagged_value(list_t *list, uint32_t pos) KERM_NOEXCEPT;
/** @brief First tagged value whose tag equals tag. @return it (still the list's), or null. */
KERM_API list_tagged_value_t *list_get_tagged_value(list_t *list, const char *tag) KERM_NOEXCEPT;
/** @brief Appends to out the value of every tagged value whose tag equals tag, in order.
 *  @return how many were appended. */
KERM_API int list_get_tagged_values(list_t *list, const char *tag, list_t *out) KERM_NOEXCEPT;
/** @brief Replaces the tagged value of the first entry with this tag by a new one built from
 *  value (copied with list_create_tagged_value() when copy is non-zero, else borrowed).
 *  Use it to replace; add new tags with list_push_tagged_value().
 *  @return the replaced tagged value as an integer (the caller now owns it); 0 when the tag
 *  was not present (the new tagged value is appended), or for a null list or tag. */
KERM_API intptr_t list_set_tagged_value(list_t *list, const char *tag, void *value, uint32_t len,
                                        int copy) KERM_NOEXCEPT;

/* ---- sorting and search ---- */

/** @brief Sorts the whole list so that comparator(earlier, later) is never negative
 *  (descending for an a-b comparator); entries are relinked, then the cursor is cleared.
 *  @return 0, or -1 for a null list or comparator. */
KERM_API int list_sort_all(list_t *list, list_comparator_t comparator) KERM_NOEXCEPT;
/** @brief Sorts positions 0 to count-1. A count at or above the length sorts nothing (only
 *  the cursor is cleared): use list_sort_all() for the whole list. @return 0 or -1. */
KERM_API int list_sort(list_t *list, uint32_t count, list_comparator_t comparator) KERM_NOEXCEPT;
/** @brief Binary search over positions 0 to count-1 of a list sorted by list_sort_all();
 *  comparator(key, value) is called under the lock.
 *  @return the position, or LIST_NOT_FOUND (also for count 0 or above the length). */
KERM_API uint32_t list_bsearch(list_t *list, void *key, uint32_t count, list_comparator_t comparator) KERM_NOEXCEPT;
/** @brief list_bsearch() over the whole list. @return the position or LIST_NOT_FOUND. */
KERM_API uint32_t list_bsearch_all(list_t *list, void *key, list_comparator_t comparator) KERM_NOEXCEPT;

/* ---- walking ---- */

/** @brief Walks the whole list with slice_foreach_value(). @return the number of callback calls. */
KERM_API int list_foreach_value(list_t *list, list_item_callback_t cb, void *user) KERM_NOEXCEPT;
/** @brief New slice of length positions from offset, kept in the list's slice chain until
 *  slice_destroy() or list_destroy(). @return the slice, or null. */
KERM_API slice_t *slice_create(list_t *list, uint32_t offset, uint32_t length) KERM_NOEXCEPT;
/** @brief Unlinks a slice from its list's chain and frees it. Null is ignored. */
KERM_API void slice_destroy(slice_t *slice) KERM_NOEXCEPT;
/** @brief Calls cb(value, i, user) for the slice's entries under the list's lock, i counting
 *  the calls. A removal (-1/-2) frees the entry without the free-value callback and lowers
 *  the slice's length; the walk ends when i reaches the current length.
 *  @return the number of callback calls, or -1 for a null slice or callback. */
KERM_API int slice_foreach_value(slice_t *slice, list_item_callback_t cb, void *user) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

// Internal list and pool operations shared by the health-monitoring sources.
#ifndef KERM_HMS_INTERNAL_H
#define KERM_HMS_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "kerm_hms.h"

// Record sizes on the 32-bit target; other widths derive from the pointer size.
static_assert(sizeof(vask_hms_err) == 6);
static_assert(sizeof(void *) != 4 || sizeof(vask_hms_link) == 8);
static_assert(sizeof(void *) != 4 || sizeof(vask_hms_node) == 16);
static_assert(sizeof(void *) != 4 || sizeof(vask_hms_list) == 12);
static_assert(sizeof(vask_hms_node) == ((2 * sizeof(void *) + sizeof(vask_hms_err) + sizeof(void *) - 1) /
                                        sizeof(void *)) * sizeof(void *));
static_assert(sizeof(vask_hms_subscriber) == 4);

namespace kerm::hms {

// Poison left in an unlinked node's links, so a stale use shows at once.
inline constexpr uintptr_t kPoisonNext = 0xDEADBEEFu;
inline constexpr uintptr_t kPoisonPrev = 0xBEEFDEADu;

inline vask_hms_link *sentinel(vask_hms_list *l) noexcept { return &l->head; }

// Links are the node's first member, so a non-sentinel link is its node.
inline vask_hms_node *node_of(vask_hms_link *l) noexcept { return reinterpret_cast<vask_hms_node *>(l); }

inline bool list_empty(const vask_hms_list *l) noexcept { return l->head.next == &l->head; }

// Zero-filled list whose sentinel points at itself; nullptr when out of memory.
vask_hms_list *list_new() noexcept;

// Appends at the tail and counts the node.
void list_append(vask_hms_list *l, vask_hms_node *n) noexcept;

// Joins the neighbours and poisons the node's links; counts are left alone.
void hms_list_unlink(vask_hms_node *n) noexcept;

// First node with the key's code and index, or nullptr.
vask_hms_node *hms_list_find(vask_hms_list *l, const vask_hms_err *key) noexcept;

// Takes the pool's first node (caller holds the pool lock); nullptr when empty.
vask_hms_node *hms_node_take(vask_hms_pool *pool) noexcept;

// Gives a node back at the pool's tail under the pool lock; -1003 when
// either is null.
int32_t hms_node_give(vask_hms_pool *pool, vask_hms_node *n) noexcept;

// Packs one report message under the store's state_lock: zeroes msg (of
// msg_size bytes), copies the active entries after send_cursor from offset 3
// until the list ends, max_items are in or the length reaches the cap, and
// moves send_cursor to the last entry copied, or back to the sentinel when
// none remain. Still holding the lock it calls publish(ctx, msg, more), which
// writes the header and the client's cycle state (and takes the timer lock).
// Returns the message length.
uint16_t hms_data_pack(vask_hms_data *d, uint8_t *msg, size_t msg_size, uint32_t max_items,
                       void (*publish)(void *ctx, uint8_t *msg, bool more), void *ctx) noexcept;

// Test hook: when set, the worker calls it after the stop check of each tick,
// right before it waits, so a test can make destroy's signal land exactly
// there. Never set outside tests.
extern std::atomic<void (*)(vask_hms_client *)> g_before_wait_hook;

}  // namespace kerm::hms

#endif

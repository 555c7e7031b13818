// Link operations the lock-free queue needs beyond the public ones. Not installed.
#ifndef KERM_REFCNT_INTERNAL_H
#define KERM_REFCNT_INTERNAL_H

#include <stdint.h>

#include <atomic>

#include "kerm_refcnt.h"

struct util_refcnt_node {
    std::atomic<void *> object{nullptr};
    // The terminate callback's argument; while the record waits on the
    // refused-records list, the next record of that list.
    std::atomic<void *> argument{nullptr};
    std::atomic<uint32_t> count{0};
    std::atomic<uint8_t> retiring{0};
    // 1: a node that lives as long as its structure (a queue's sentinels).
    // Taking and dropping references on it changes nothing, so the threads
    // at one end of a queue do not all write its count; set before the
    // structure is shared and cleared before it is torn down.
    std::atomic<uint8_t> pinned{0};
};

static_assert(sizeof(void *) != 4 || sizeof(util_refcnt_node) == 16, "node record is 16 bytes on the target");

namespace kerm {

// One compare-and-swap of the link word; on success the link's reference
// moves from expected's node to node's (the old node is released, and so may
// retire). Marks in either word are kept in the link and ignored for counts.
bool refcnt_swing(util_refcnt_t *context, util_refcnt_node_t **link, uintptr_t expected, uintptr_t node) noexcept;

// True once the node has been retired (until a new_node reuses its record).
bool refcnt_retired(util_refcnt_node_t *node) noexcept;

// Pins (or unpins) a node: see util_refcnt_node::pinned. Its count is left
// as it was and counts again once it is unpinned.
void refcnt_pin(util_refcnt_node_t *node, bool pin) noexcept;

// get_node_ptr without the call (the queue asks for it at every step).
inline void *refcnt_object(util_refcnt_node_t *node) noexcept {
    return reinterpret_cast<util_refcnt_node_t *>(reinterpret_cast<uintptr_t>(node) & ~uintptr_t{1})->object.load();
}

}  // namespace kerm

#endif

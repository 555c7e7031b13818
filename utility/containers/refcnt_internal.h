// Link operations the lock-free queue needs beyond the public ones. Not installed.
#ifndef KERM_REFCNT_INTERNAL_H
#define KERM_REFCNT_INTERNAL_H

#include <stdint.h>

#include "kerm_refcnt.h"

namespace kerm {

// One compare-and-swap of the link word; on success the link's reference
// moves from expected's node to node's (the old node is released, and so may
// retire). Marks in either word are kept in the link and ignored for counts.
bool refcnt_swing(util_refcnt_t *context, util_refcnt_node_t **link, uintptr_t expected, uintptr_t node) noexcept;

// True once the node has been retired (until a new_node reuses its record).
bool refcnt_retired(util_refcnt_node_t *node) noexcept;

}  // namespace kerm

#endif

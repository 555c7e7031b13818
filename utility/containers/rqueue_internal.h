// Ring-queue entry points with a caller-chosen attempt budget, for the
// library's own pools: a pool that is full or empty answers at once instead
// of spending the public 1000-attempt budget (and its yields). Not installed.
#ifndef KERM_RQUEUE_INTERNAL_H
#define KERM_RQUEUE_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "common/kerm_cpu.h"
#include "kerm_rqueue.h"

namespace kerm {

int32_t rqueue_write_budget(util_rqueue_t *queue, void *value, uint32_t attempts) noexcept;
void *rqueue_read_budget(util_rqueue_t *queue, uint32_t attempts) noexcept;
// writes - reads: the number of values waiting.
uint64_t rqueue_pending(util_rqueue_t *queue) noexcept;

// The free-value callback that hands each value to free().
void rqueue_free_value(void *value, void *new_value) noexcept;

}  // namespace kerm

#endif

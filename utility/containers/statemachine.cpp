// State machine over a vector of (id, handler) entries; the vector's
// recursive mutex serialises every call, so handlers may call back in.
#include <sched.h>
#include <stdlib.h>

#include "common/kerm_guard.h"
#include "containers/vector_internal.h"
#include "kerm_statemachine.h"

namespace {

struct StateEntry {
    uint32_t id;  // stored wide, compared by its low byte
    util_statemachine_handler_t handler;
};

// Index of the entry whose id byte is `id`, or count when there is none. The
// walk stops at an empty slot, as the table never holds one. Caller holds the lock.
uint32_t find_entry(const util_vector *v, uint8_t id) noexcept {
    uint32_t i = 0;
    for (; i < v->count && v->items[i] != nullptr; ++i)
        if (static_cast<uint8_t>(static_cast<const StateEntry *>(v->items[i])->id) == id) return i;
    return v->count;
}

}  // namespace

extern "C" {

void util_statemachine_init(util_statemachine_t *machine, uint8_t initial) noexcept {
    if (machine == nullptr) return;
    machine->current = initial;
    machine->states = nullptr;
    util_vector_init(&machine->states);
}

void util_statemachine_deinit(util_statemachine_t *machine) noexcept {
    if (machine == nullptr) return;
    util_vector_deinit(&machine->states);
}

int32_t util_statemachine_add(util_statemachine_t *machine, uint8_t id, util_statemachine_handler_t handler) noexcept {
    if (machine == nullptr || machine->states == nullptr || handler == nullptr) return -1;
    util_vector *v = machine->states;
    {
        kerm::MutexGuard g(&v->lock);
        if (find_entry(v, id) != v->count) return -1;
    }
    auto *e = static_cast<StateEntry *>(calloc(1, sizeof(StateEntry)));
    if (e == nullptr) return -1;
    e->id = id;
    e->handler = handler;
    if (util_vector_push_back(v, e) != 0) {
        free(e);
        return -1;
    }
    return 0;
}

int32_t util_statemachine_remove(util_statemachine_t *machine, uint8_t id) noexcept {
    if (machine == nullptr || machine->states == nullptr) return -1;
    util_vector *v = machine->states;
    kerm::MutexGuard g(&v->lock);
    uint32_t i = find_entry(v, id);
    if (i == v->count) return -1;
    free(util_vector_take_element(v, i));
    return 0;
}

int32_t util_statemachine_change_to(util_statemachine_t *machine, uint8_t state) noexcept {
    if (machine == nullptr || machine->states == nullptr) return -1;
    kerm::MutexGuard g(&machine->states->lock);
    machine->current = state;
    return 0;
}

int32_t util_statemachine_poll(util_statemachine_t *machine, void *arg) noexcept {
    if (machine == nullptr || machine->states == nullptr) return -1;
    util_vector *v = machine->states;
    {
        kerm::MutexGuard g(&v->lock);
        // Deliberate: the current state is an index into the table, not an id;
        // callers add ids 0, 1, 2, ... in order. Past the end there is no handler.
        if (machine->current < v->count) {
            auto *e = static_cast<const StateEntry *>(util_vector_get_element_lockfree(v, machine->current));
            if (e != nullptr) {
                machine->current = e->handler(arg, machine->current);
                return 0;
            }
        }
    }
    // Yielded after the release, so that the thread which adds the state gets the lock.
    sched_yield();
    return 0;
}

}  // extern "C"

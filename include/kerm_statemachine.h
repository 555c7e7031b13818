/** @file kerm_statemachine.h
 * @brief Table-driven state machine: each state is a number with a handler; a poll
 * runs the handler of the current state once and takes its result as the
 * next state.
 *
 * The states live in a vector (kerm_vector.h) in the order they were added,
 * and the current state is used as an INDEX into that vector, not as a search
 * key: state number k is the k-th entry added. Add states with ids 0, 1, 2,
 * ... in that order; removing an entry shifts the later ones down.
 *
 * Every call takes the vector's recursive mutex, so calls are serialised
 * across threads and a handler may call util_statemachine_change_to (or any
 * other call on its machine) without deadlock. A failing lock or unlock ends
 * the process (abort).
 */
#ifndef KERM_STATEMACHINE_H
#define KERM_STATEMACHINE_H

#include <stdint.h>
#include "kerm_export.h"
#include "kerm_vector.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Handler of a state: receives the poll's argument and the current state; returns the next state. */
typedef uint8_t (*util_statemachine_handler_t)(void *arg, uint32_t state);

/** The machine record, owned by the caller; set up by util_statemachine_init. */
typedef struct util_statemachine {
    uint8_t current;        /**< current state: index of the entry the next poll runs */
    util_vector_t *states;  /**< the state entries, in the order they were added */
} util_statemachine_t;

/**
 * @brief Sets the current state and creates the (empty) state table.
 * @param machine the caller's record; null is ignored. When the table cannot be
 * created, machine->states stays null and every later call is refused or does nothing.
 */
KERM_API void util_statemachine_init(util_statemachine_t *machine, uint8_t initial) KERM_NOEXCEPT;

/**
 * @brief Releases the state table and every entry; the record itself stays the caller's.
 */
KERM_API void util_statemachine_deinit(util_statemachine_t *machine) KERM_NOEXCEPT;

/**
 * @brief Appends a state entry. The check for an existing id and the append are
 * two separate locked steps.
 * @return 0; -1 when an entry with the same id exists, on allocation failure,
 * or for a null machine or handler.
 */
KERM_API int32_t util_statemachine_add(util_statemachine_t *machine, uint8_t id,
                                       util_statemachine_handler_t handler) KERM_NOEXCEPT;

/**
 * @brief Removes the entry with this id; later entries shift down one index.
 * @return 0; -1 when there is no such entry.
 */
KERM_API int32_t util_statemachine_remove(util_statemachine_t *machine, uint8_t id) KERM_NOEXCEPT;

/**
 * @brief Sets the current state under the lock (also from inside a handler).
 * @return 0; -1 for a null machine.
 */
KERM_API int32_t util_statemachine_change_to(util_statemachine_t *machine, uint8_t state) KERM_NOEXCEPT;

/**
 * @brief Runs one step: the handler of the entry at index `current` is called with
 * (arg, current) and its result becomes `current`; a change made by the handler
 * through util_statemachine_change_to is overwritten by that result. When there
 * is no entry at that index the caller's processor is yielded (sched_yield) and
 * `current` stays.
 * @return 0; -1 for a null machine.
 */
KERM_API int32_t util_statemachine_poll(util_statemachine_t *machine, void *arg) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

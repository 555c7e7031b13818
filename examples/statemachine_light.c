/* A traffic light as a table-driven state machine: each poll runs the handler
 * of the current state, and the handler's result is the next state. The poll
 * runs the entry at index `current`, so states are added in id order. */
#include <stdint.h>
#include <stdio.h>

#include "kerm_statemachine.h"

enum { RED, GREEN, YELLOW };

static uint8_t on_red(void *arg, uint32_t state) {
    (void)state;
    printf("tick %d: red\n", ++*(int *)arg);
    return GREEN;
}

static uint8_t on_green(void *arg, uint32_t state) {
    (void)state;
    printf("tick %d: green\n", ++*(int *)arg);
    return YELLOW;
}

static uint8_t on_yellow(void *arg, uint32_t state) {
    (void)state;
    printf("tick %d: yellow\n", ++*(int *)arg);
    return RED;
}

int main(void) {
    util_statemachine_t light;
    int ticks = 0, i;

    util_statemachine_init(&light, RED);
    if (util_statemachine_add(&light, RED, on_red) != 0 || util_statemachine_add(&light, GREEN, on_green) != 0 ||
        util_statemachine_add(&light, YELLOW, on_yellow) != 0) {
        fprintf(stderr, "cannot build the state table\n");
        util_statemachine_deinit(&light);
        return 1;
    }
    for (i = 0; i < 4; i++) util_statemachine_poll(&light, &ticks);
    /* An outside event forces a state; the next poll runs from there. */
    util_statemachine_change_to(&light, YELLOW);
    util_statemachine_poll(&light, &ticks);
    util_statemachine_deinit(&light);
    return ticks == 5 ? 0 : 1;
}

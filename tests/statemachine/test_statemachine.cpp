// State machine: the cycling example, the table edits, handlers that call
// back in, and a machine polled from two threads while a third changes state.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <thread>
#include <vector>

#include "kerm_statemachine.h"
#include "support/emulator.h"

namespace {

struct Trace {
    std::vector<std::pair<int, uint32_t>> calls;  // (handler id, state passed)
    util_statemachine_t *machine = nullptr;
};

template <int Id>
uint8_t next_mod3(void *arg, uint32_t state) {
    static_cast<Trace *>(arg)->calls.emplace_back(Id, state);
    return static_cast<uint8_t>((state + 1) % 3);
}

struct Machine {
    util_statemachine_t m{};
    explicit Machine(uint8_t initial) {
        util_statemachine_init(&m, initial);
        if (m.states == nullptr) abort();
    }
    ~Machine() { util_statemachine_deinit(&m); }
};

TEST(StateMachine, ThreeStatesCycle) {
    Machine sm(0);
    ASSERT_EQ(util_statemachine_add(&sm.m, 0, next_mod3<0>), 0);
    ASSERT_EQ(util_statemachine_add(&sm.m, 1, next_mod3<1>), 0);
    ASSERT_EQ(util_statemachine_add(&sm.m, 2, next_mod3<2>), 0);
    Trace t;
    std::vector<uint8_t> seen{sm.m.current};
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(util_statemachine_poll(&sm.m, &t), 0);
        seen.push_back(sm.m.current);
    }
    EXPECT_EQ(seen, (std::vector<uint8_t>{0, 1, 2, 0, 1}));
    EXPECT_EQ(t.calls, (std::vector<std::pair<int, uint32_t>>{{0, 0}, {1, 1}, {2, 2}, {0, 0}}));
}

TEST(StateMachine, TableEditsAndIndexing) {
    Machine sm(0);
    Trace t;
    ASSERT_EQ(util_statemachine_add(&sm.m, 0, next_mod3<0>), 0);
    ASSERT_EQ(util_statemachine_add(&sm.m, 1, next_mod3<1>), 0);
    EXPECT_EQ(util_statemachine_add(&sm.m, 1, next_mod3<2>), -1);  // id already there
    ASSERT_EQ(util_statemachine_add(&sm.m, 2, next_mod3<2>), 0);
    EXPECT_EQ(util_vector_length(sm.m.states), 3u);

    // Past the table's end: nothing runs, the state stays.
    ASSERT_EQ(util_statemachine_change_to(&sm.m, 3), 0);
    ASSERT_EQ(util_statemachine_poll(&sm.m, &t), 0);
    EXPECT_EQ(sm.m.current, 3);
    EXPECT_TRUE(t.calls.empty());

    // Removing id 0 shifts: index 0 now runs the handler added as 1.
    EXPECT_EQ(util_statemachine_remove(&sm.m, 0), 0);
    EXPECT_EQ(util_statemachine_remove(&sm.m, 0), -1);
    EXPECT_EQ(util_statemachine_remove(&sm.m, 7), -1);
    util_statemachine_change_to(&sm.m, 0);
    util_statemachine_poll(&sm.m, &t);
    ASSERT_EQ(t.calls.size(), 1u);
    EXPECT_EQ(t.calls[0], (std::pair<int, uint32_t>{1, 0}));
    EXPECT_EQ(sm.m.current, 1);
    // The removed id may come back; it is appended at the end.
    ASSERT_EQ(util_statemachine_add(&sm.m, 0, next_mod3<0>), 0);
    util_statemachine_change_to(&sm.m, 2);
    util_statemachine_poll(&sm.m, &t);
    EXPECT_EQ(t.calls.back(), (std::pair<int, uint32_t>{0, 2}));

    EXPECT_EQ(util_statemachine_add(nullptr, 0, next_mod3<0>), -1);
    EXPECT_EQ(util_statemachine_add(&sm.m, 9, nullptr), -1);
    EXPECT_EQ(util_statemachine_poll(nullptr, nullptr), -1);
}

uint8_t change_inside(void *arg, uint32_t) {
    auto *t = static_cast<Trace *>(arg);
    // Re-enters the machine's lock from the handler: must not deadlock.
    util_statemachine_change_to(t->machine, 0);
    t->calls.emplace_back(9, util_vector_length(t->machine->states));
    return 1;  // overwrites the change just made
}

TEST(StateMachine, HandlerChangesStateWithoutDeadlock) {
    Machine sm(0);
    Trace t;
    t.machine = &sm.m;
    ASSERT_EQ(util_statemachine_add(&sm.m, 0, change_inside), 0);
    ASSERT_EQ(util_statemachine_poll(&sm.m, &t), 0);
    EXPECT_EQ(sm.m.current, 1);
    EXPECT_EQ(t.calls.size(), 1u);
}

// Each handler keeps its state; a plain counter proves the calls never overlap.
struct Shared {
    long calls = 0;
    long by_state[4] = {};
};

template <int Id>
uint8_t stay(void *arg, uint32_t state) {
    auto *s = static_cast<Shared *>(arg);
    ++s->calls;
    if (state == Id) ++s->by_state[Id];
    return static_cast<uint8_t>(Id);
}

TEST(StateMachine, PolledFromTwoThreadsWhileAThirdChangesState) {
    const int polls = kerm_test::scaled(20000, 10);
    Machine sm(0);
    ASSERT_EQ(util_statemachine_add(&sm.m, 0, stay<0>), 0);
    ASSERT_EQ(util_statemachine_add(&sm.m, 1, stay<1>), 0);
    ASSERT_EQ(util_statemachine_add(&sm.m, 2, stay<2>), 0);
    ASSERT_EQ(util_statemachine_add(&sm.m, 3, stay<3>), 0);
    Shared shared;
    std::atomic<int> pollers_left{2};
    auto poller = [&] {
        for (int i = 0; i < polls; ++i) util_statemachine_poll(&sm.m, &shared);
        --pollers_left;
    };
    std::thread a(poller), b(poller);
    std::thread changer([&] {
        for (uint8_t s = 0; pollers_left > 0; s = static_cast<uint8_t>((s + 1) % 4)) util_statemachine_change_to(&sm.m, s);
    });
    a.join();
    b.join();
    changer.join();
    // Every poll ran exactly one handler, always the one at the current index.
    EXPECT_EQ(shared.calls, 2L * polls);
    EXPECT_EQ(shared.by_state[0] + shared.by_state[1] + shared.by_state[2] + shared.by_state[3], 2L * polls);
}

}  // namespace

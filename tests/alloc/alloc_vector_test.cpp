// Vector and state machine with each allocation failing in turn: creation
// leaves the caller's handle alone, appends report -1 with the contents as
// they were, and removals always hand the element out.
#include <stdlib.h>

#include "alloc_sweep.h"
#include "kerm_statemachine.h"
#include "kerm_vector.h"

using alloc_fail::Attempt;

namespace {

uint32_t *element(uint32_t i) {
    auto *e = static_cast<uint32_t *>(malloc(sizeof(uint32_t)));
    *e = i;
    return e;
}

util_vector_t *vector_of(uint32_t n) {
    util_vector_t *v = nullptr;
    util_vector_init(&v);
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(util_vector_push_back(v, element(i)), 0);
    return v;
}

void deinit(util_vector_t *v) { util_vector_deinit(&v); }

void expect_elements(util_vector_t *v, uint32_t n) {
    ASSERT_EQ(util_vector_length(v), n);
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(*static_cast<uint32_t *>(util_vector_get_element(v, i)), i);
}

TEST(AllocVector, Init) {
    alloc_sweep::leak_free([](Attempt &a) {
        util_vector_t *sentinel = reinterpret_cast<util_vector_t *>(&a);
        util_vector_t *v = sentinel;
        a.run([&] { util_vector_init(&v); });
        if (a.injected()) {
            EXPECT_EQ(v, sentinel);
        } else {
            ASSERT_NE(v, sentinel);
            util_vector_deinit(&v);
        }
    });
}

TEST(AllocVector, PushBack) {
    uint32_t *e = nullptr;
    alloc_sweep::operation([&] { return e = element(3), vector_of(3); },
                           [&](util_vector_t *v) { return util_vector_push_back(v, e); }, -1, 0,
                           [&](util_vector_t *v, bool failed) {
                               if (failed) {
                                   expect_elements(v, 3);
                                   EXPECT_EQ(util_vector_push_back(v, e), 0);  // usable
                               }
                               expect_elements(v, 4);
                           },
                           deinit);
}

// The array shrinks on removal; when that reallocation fails the larger
// block is kept, and the removal happens all the same.
TEST(AllocVector, Removal) {
    for (const bool take : {false, true}) {
        SCOPED_TRACE(take ? "take_element" : "pop_back");
        alloc_sweep::leak_free([&](Attempt &a) {
            util_vector_t *v = vector_of(4);
            void *e = a.run([&] { return take ? util_vector_take_element(v, 3) : util_vector_pop_back(v); });
            ASSERT_NE(e, nullptr);
            EXPECT_EQ(*static_cast<uint32_t *>(e), 3u);
            free(e);
            expect_elements(v, 3);
            util_vector_deinit(&v);
        });
    }
}

uint8_t stay(void *, uint32_t state) { return static_cast<uint8_t>(state); }

TEST(AllocStatemachine, Init) {
    alloc_sweep::leak_free([](Attempt &a) {
        util_statemachine_t m{};
        a.run([&] { util_statemachine_init(&m, 0); });
        if (a.injected()) {
            EXPECT_EQ(m.states, nullptr);
            EXPECT_EQ(util_statemachine_add(&m, 1, stay), -1);  // refused, not a crash
        } else {
            ASSERT_NE(m.states, nullptr);
            EXPECT_EQ(util_statemachine_add(&m, 1, stay), 0);
        }
        util_statemachine_deinit(&m);
    });
}

TEST(AllocStatemachine, Add) {
    const unsigned runs = alloc_sweep::leak_free([](Attempt &a) {
        util_statemachine_t m{};
        util_statemachine_init(&m, 0);
        ASSERT_EQ(util_statemachine_add(&m, 1, stay), 0);
        const int32_t rc = a.run([&] { return util_statemachine_add(&m, 2, stay); });
        if (a.injected()) {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(util_vector_length(m.states), 1u);
            EXPECT_EQ(util_statemachine_remove(&m, 2), -1);
            EXPECT_EQ(util_statemachine_add(&m, 2, stay), 0);
        } else {
            EXPECT_EQ(rc, 0);
        }
        EXPECT_EQ(util_vector_length(m.states), 2u);
        util_statemachine_deinit(&m);
    });
    EXPECT_EQ(runs, 2u);  // the entry, then the table slot
}

}  // namespace

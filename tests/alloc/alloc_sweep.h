// Shared shapes of the sweeps: whatever call fails, the run reports the
// described failure, leaves a usable object and nothing behind.
#ifndef KERM_TEST_ALLOC_SWEEP_H
#define KERM_TEST_ALLOC_SWEEP_H

#include "support/alloc_fail.h"

namespace alloc_sweep {

// alloc_fail::sweep, with every run (failed or complete) held to leaving
// nothing behind.
template <class Body>
unsigned leak_free(Body body) {
    return alloc_fail::sweep([&](alloc_fail::Attempt &a) {
        body(a);
        EXPECT_EQ(a.leaked(), 0u);
    });
}

// Sweeps make(): none on every injected failure, an object on the complete
// run; use() exercises the object before destroy() releases it. Returns the
// number of allocation calls of the complete run.
template <class Make, class Use, class Destroy>
unsigned constructor(Make make, Use use, Destroy destroy) {
    return leak_free([&](alloc_fail::Attempt &a) {
        auto *obj = a.run(make);
        if (a.injected()) {
            EXPECT_EQ(obj, nullptr);
        } else {
            ASSERT_NE(obj, nullptr);
            use(obj);
            destroy(obj);
        }
    });
}

// Sweeps op(obj) on a fresh obj = make() per run: it returns `failed` when a
// call was refused and `done` on the complete run; check(obj, injected) then
// looks at the object (unchanged, still usable) before destroy(obj).
template <class Make, class Op, class R, class Check, class Destroy>
unsigned operation(Make make, Op op, R failed, R done, Check check, Destroy destroy) {
    return leak_free([&](alloc_fail::Attempt &a) {
        auto *obj = make();
        const auto rc = a.run([&] { return op(obj); });
        EXPECT_EQ(rc, a.injected() ? failed : done);
        check(obj, a.injected());
        destroy(obj);
    });
}

}  // namespace alloc_sweep

#endif

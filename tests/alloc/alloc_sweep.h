// Shared shapes of the container sweeps: a constructor either hands out a
// working object or none and nothing left behind.
#ifndef KERM_TEST_ALLOC_SWEEP_H
#define KERM_TEST_ALLOC_SWEEP_H

#include "support/alloc_fail.h"

namespace alloc_sweep {

// Sweeps make(): none on every injected failure, an object on the complete
// run; use() exercises the object before destroy() releases it. Returns the
// number of allocation calls of the complete run.
template <class Make, class Use, class Destroy>
unsigned constructor(Make make, Use use, Destroy destroy) {
    return alloc_fail::sweep([&](alloc_fail::Attempt &a) {
        auto *obj = a.run(make);
        if (a.injected()) {
            EXPECT_EQ(obj, nullptr);
        } else {
            ASSERT_NE(obj, nullptr);
            use(obj);
            destroy(obj);
        }
        EXPECT_EQ(a.leaked(), 0u);
    });
}

}  // namespace alloc_sweep

#endif

// Allocation-failure injection for tests.
//
// A test program linked with the object library `kerm_alloc_fail`
// (tests/support/alloc_fail.cpp) replaces malloc, calloc, realloc, free and
// strdup for the whole process, the library included. Nothing changes until
// a test arms it: then the calling thread's k-th allocation call fails
// (returns null with ENOMEM) and every block that thread allocates is
// remembered until it is released, wherever the release happens. Calls on
// other threads are neither failed nor counted (a worker's thread-local
// storage must not fail under it). The sanitizers replace the allocator
// themselves, so sanitizer builds leave these suites out.
//
// Adding a family's cases: drop `tests/alloc/alloc_<family>_test.cpp` (the
// folder's CMakeLists.txt picks up every source there) and write, for every
// exported operation that allocates, one sweep (the shapes are in
// tests/alloc/alloc_sweep.h; alloc_fail::sweep with an Attempt is the raw form
// for operations they do not fit):
//
//   TEST(AllocVector, Push) {
//       alloc_sweep::operation(
//           [] { return make_vector_with_three(); },               // not armed
//           [](util_vector *v) { return util_vector_push(v, 4); },  // armed
//           -1, 0,                           // the described failure, the complete run
//           [](util_vector *v, bool failed) {  // unchanged and usable, or grown
//               EXPECT_EQ(util_vector_size(v), failed ? 3u : 4u);
//           },
//           util_vector_destroy);            // and nothing left behind either way
//   }
//
// sweep() runs the body with k = 0 (nothing fails: a plain run that also
// warms lazily made state such as stdio buffers and the time zone), then
// k = 1, 2, ... until a run in which the operation made fewer than k calls,
// i.e. completed with every allocation granted. An operation that must not
// allocate at all asserts `a.calls() == 0`. Where a family deliberately
// leaves an allocation result unchecked, say so in the family's public header
// and leave that operation out.

#ifndef KERM_TEST_ALLOC_FAIL_H
#define KERM_TEST_ALLOC_FAIL_H

#include <gtest/gtest.h>
#include <stddef.h>

#include <string>

namespace alloc_fail {

// Arms the calling thread: its k-th allocation call from now fails (k = 0:
// none) and the blocks it allocates are remembered. Forgets the blocks of
// the previous run.
void begin(unsigned k);
// Disarms; the blocks stay remembered until released.
void end();
// Allocation calls of the calling thread since begin().
unsigned calls();
// The armed failure happened.
bool fired();
// Blocks allocated while armed and not released since.
size_t leaked();

// One run of an operation with the k-th allocation call failing.
class Attempt {
public:
    explicit Attempt(unsigned k) : k_(k) {}
    // Runs op armed and returns its result.
    template <class Op>
    auto run(Op op) -> decltype(op()) {
        struct Disarm {
            Attempt *a;
            ~Disarm() {
                a->calls_ = alloc_fail::calls();
                a->injected_ = alloc_fail::fired();
                end();
            }
        } disarm{this};
        begin(k_);
        return op();
    }
    unsigned k() const { return k_; }
    bool injected() const { return injected_; }
    unsigned calls() const { return calls_; }
    size_t leaked() const { return alloc_fail::leaked(); }

private:
    unsigned k_;
    unsigned calls_ = 0;
    bool injected_ = false;
};

// Runs body(Attempt) for k = 0, 1, 2, ... until a run completes without an
// injected failure; stops at the first failed expectation. Returns the
// number of runs with a failure injected (the allocation calls of the
// completed run).
template <class Body>
unsigned sweep(Body body, unsigned max_k = 10000) {
    for (unsigned k = 0; k <= max_k; ++k) {
        SCOPED_TRACE("allocation call " + std::to_string(k) + " failing");
        Attempt a(k);
        body(a);
        if (::testing::Test::HasFailure()) return k;
        if (k > 0 && !a.injected()) return k - 1;
    }
    ADD_FAILURE() << "still allocating after " << max_k << " calls";
    return max_k;
}

}  // namespace alloc_fail

#endif

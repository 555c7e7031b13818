// Helpers shared by the list suites.
#ifndef KERM_LIST_TEST_UTIL_H
#define KERM_LIST_TEST_UTIL_H

#include <stdint.h>
#include <stdlib.h>

#include "support/emulator.h"

#include <vector>

#include "kerm_list.h"

namespace listtest {

inline void *V(uintptr_t v) { return reinterpret_cast<void *>(v); }
inline uintptr_t U(void *v) { return reinterpret_cast<uintptr_t>(v); }

// The list's values from head to tail, read by position.
inline std::vector<uintptr_t> contents(list_t *l) {
    std::vector<uintptr_t> out;
    for (uint32_t i = 0, n = list_count(l); i < n; ++i) out.push_back(U(list_pick_value(l, i)));
    return out;
}

// Iteration counts shrink under the ARM emulator.
using kerm_test::scaled;

}  // namespace listtest

#endif

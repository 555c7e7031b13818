// Iteration counts for the ARM emulator, which the armhf test runs set
// through KERM_TEST_EMULATOR.
#ifndef KERM_TEST_EMULATOR_H
#define KERM_TEST_EMULATOR_H

#include <stdlib.h>

namespace kerm_test {

// n, or n / divisor (a quarter by default) under the emulator.
inline int scaled(int n, int divisor = 4) {
    const char *emu = getenv("KERM_TEST_EMULATOR");
    return emu != nullptr && emu[0] != '\0' ? n / divisor : n;
}

}  // namespace kerm_test

#endif

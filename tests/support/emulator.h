// Iteration counts for the ARM emulator, which the armhf test runs set
// through KERM_TEST_EMULATOR.
#ifndef KERM_TEST_EMULATOR_H
#define KERM_TEST_EMULATOR_H

#include <stdlib.h>

namespace kerm_test {

// n, or a quarter of it under the emulator.
inline int scaled(int n) {
    const char *emu = getenv("KERM_TEST_EMULATOR");
    return emu != nullptr && emu[0] != '\0' ? n / 4 : n;
}

}  // namespace kerm_test

#endif

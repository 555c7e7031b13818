// Decodes operation sequences on two byte rings and checks every step against
// the reference model the tests use. First byte: the two capacities.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "support/bytebuf_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int32_t caps[] = {1, 2, 3, 8, 13, 64, 5, 200};
    if (size < 1) return 0;
    size_t pos = 1;
    auto src = kerm_test::make_source([&] { return pos < size ? data[pos++] : 0u; });
    kerm_test::RingHarness h(caps[data[0] & 7], caps[(data[0] >> 3) & 7]);
    while (pos < size && h.fail.empty()) h.step(src);
    if (!h.fail.empty()) {
        fprintf(stderr, "ring model mismatch: %s\n", h.fail.c_str());
        abort();
    }
    return 0;
}

// Decodes operation sequences on two flexible buffers and checks every step
// against the reference model the tests use. First bytes: the settings.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "support/bytebuf_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const uint32_t minlens[] = {1, 2, 3, 8, 16, 128, 0, 5};
    static const uint32_t fasts[] = {2, 3, 8, 16, 64, 16384, 0, 7};
    static const uint32_t slows[] = {1, 2, 3, 1024};
    static const uint32_t maxlens[] = {0, 0, 1, 2, 3, 8, 40, 300};
    if (size < 2) return 0;
    size_t pos = 2;
    auto src = kerm_test::make_source([&] { return pos < size ? data[pos++] : 0u; });
    // The harness hands the deliberately kept blocks to the leak checker.
    kerm_test::FbufHarness h(minlens[data[0] & 7], fasts[(data[0] >> 3) & 7], slows[data[0] >> 6],
                             maxlens[data[1] & 7]);
    while (pos < size && h.fail.empty()) h.step(src);
    if (!h.fail.empty()) {
        fprintf(stderr, "flexible buffer model mismatch: %s\n", h.fail.c_str());
        abort();
    }
    return 0;
}

// Arbitrary frames through the SEI readers (and the in-place writers that
// follow a successful walk). Every frame sits in an exactly sized heap block
// so that any read past its end is caught.
#include "sei_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool quiet = (vask_log_control(LOG_CTRL_ENABLE, 0, 0), true);
    (void)quiet;
    if (size < 1 || size > 70000) return 0;
    uint8_t *buf = nullptr;
    const uint32_t len = static_cast<uint32_t>(sei_fuzz::build(data, size, &buf));
    sei_fuzz::exercise(buf, len);
    free(buf);
    return 0;
}

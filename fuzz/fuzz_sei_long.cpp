// Frames up to 1 MiB through the same SEI calls as fuzz_sei: a run of filler
// bytes, as long as the input asks, is spliced into the input where it says,
// so chain lengths, live-view offsets and positions pass the 16-bit marks
// while the inputs themselves stay small.
#include <sanitizer/asan_interface.h>

#include "sei_fuzz.h"

namespace {

constexpr size_t kFrameMax = size_t{1} << 20;
// Mode byte, 3-byte filler length, filler byte, 2-byte splice position.
constexpr size_t kHeader = 7;
constexpr size_t kArena = kFrameMax + sei_fuzz::kTailRoom;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool quiet = (vask_log_control(LOG_CTRL_ENABLE, 0, 0), true);
    (void)quiet;
    // One block for every run: a fresh megabyte each time costs more in page
    // faults than the calls under test. What lies past the frame is poisoned,
    // so a read beyond its end is still caught.
    static uint8_t *const arena = static_cast<uint8_t *>(malloc(kArena));
    if (size < kHeader || size > 70000) return 0;
    const uint8_t mode = data[0];
    const size_t rest_len = size - kHeader;
    const size_t fill = (data[1] | size_t{data[2]} << 8 | size_t{data[3]} << 16) % (kFrameMax - rest_len);
    const uint8_t *rest = data + kHeader;
    const size_t at = (data[5] | size_t{data[6]} << 8) % (rest_len + 1);

    ASAN_UNPOISON_MEMORY_REGION(arena, kArena);
    memcpy(arena, rest, at);
    memset(arena + at, data[4], fill);
    memcpy(arena + at + fill, rest + at, rest_len - at);
    const size_t len = sei_fuzz::finish(mode, arena, rest_len + fill);
    ASAN_POISON_MEMORY_REGION(arena + len, kArena - len);
    sei_fuzz::exercise(arena, static_cast<uint32_t>(len));
    return 0;
}

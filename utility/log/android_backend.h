// The Android log and call-stack interfaces, behind one small seam: the
// platform's liblog/libutils where the build found them, else a built-in
// backend that writes the same priority, tag and text to standard error and
// captures stacks with the C library's backtrace facility.
#ifndef KERM_ANDROID_BACKEND_H
#define KERM_ANDROID_BACKEND_H

#include <stddef.h>

namespace kerm {

// Android log buffer ids and priorities used by the library.
enum : int { kAndroidLogMain = 0, kAndroidLogRadio = 1, kAndroidLogSystem = 3 };
enum : int { kAndroidPrioDebug = 3 };

int android_log_write(int prio, const char *tag, const char *text) noexcept;
int android_log_buf_write(int bufid, int prio, const char *tag, const char *text) noexcept;

// Captures the caller's stack, skipping `skip` frames above the caller of
// this function, and renders one frame per line each starting with `prefix`
// (null: no prefix). Copies at most size - 1 characters and terminates;
// size must be at least 1.
void callstack_copy(int skip, const char *prefix, char *dst, size_t size) noexcept;
// Captures the caller's stack the same way and writes it to the Android main
// log under `tag` at `prio`, with no line prefix.
void callstack_log(int skip, const char *tag, int prio) noexcept;

}  // namespace kerm

#endif

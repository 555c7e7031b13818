#include "log/android_backend.h"

#include <stdio.h>
#include <string.h>

#if KERM_ANDROID_SYSTEM
#include <log/log.h>
#include <utils/CallStack.h>
#include <utils/String8.h>
#else
#include <execinfo.h>
#include <stdlib.h>
#endif

namespace kerm {

#if KERM_ANDROID_SYSTEM

int android_log_write(int prio, const char *tag, const char *text) noexcept {
    return __android_log_write(prio, tag, text);
}

int android_log_buf_write(int bufid, int prio, const char *tag, const char *text) noexcept {
    return __android_log_buf_write(bufid, prio, tag, text);
}

// Never inlined, so that skipping one more frame always skips exactly this one.
__attribute__((noinline)) void callstack_copy(int skip, const char *prefix, char *dst, size_t size) noexcept {
    try {
        android::CallStack stack;
        stack.update(skip + 3, -1);  // also past update() and this function
        android::String8 text = stack.toString(prefix);
        strncpy(dst, text.c_str(), size - 1);
        dst[size - 1] = '\0';
    } catch (...) {
        dst[0] = '\0';
    }
}

__attribute__((noinline)) void callstack_log(int skip, const char *tag, int prio) noexcept {
    try {
        android::CallStack stack;
        stack.update(skip + 3, -1);  // also past update() and this function
        stack.log(tag, static_cast<android_LogPriority>(prio), nullptr);
    } catch (...) {
    }
}

#else

namespace {
char prio_letter(int prio) {
    static const char letters[] = "??VDIWEF";
    return (prio >= 0 && prio < 8) ? letters[prio] : '?';
}

// Renders frames [first, n) of a capture, one per line with the prefix.
size_t render(void **frames, int first, int n, const char *prefix, char *dst, size_t size) {
    char **names = backtrace_symbols(frames, n);
    size_t used = 0;
    dst[0] = '\0';
    for (int i = first; i < n && used + 1 < size; ++i) {
        int w = snprintf(dst + used, size - used, "%s#%02d pc %p  %s\n", prefix ? prefix : "", i - first,
                         frames[i], names ? names[i] : "?");
        if (w < 0) break;
        used += static_cast<size_t>(w);
        if (used >= size) used = size - 1;
    }
    free(names);
    return used;
}
}  // namespace

int android_log_write(int prio, const char *tag, const char *text) noexcept {
    return fprintf(stderr, "%c/%s: %s\n", prio_letter(prio), tag ? tag : "", text ? text : "") < 0 ? -1 : 1;
}

int android_log_buf_write(int bufid, int prio, const char *tag, const char *text) noexcept {
    (void)bufid;
    return android_log_write(prio, tag, text);
}

__attribute__((noinline)) void callstack_copy(int skip, const char *prefix, char *dst, size_t size) noexcept {
    void *frames[64];
    int n = backtrace(frames, 64);
    // Frame 0 is this function; the caller asked to skip `skip` frames above it.
    render(frames, 1 + skip, n, prefix, dst, size);
    dst[size - 1] = '\0';
}

__attribute__((noinline)) void callstack_log(int skip, const char *tag, int prio) noexcept {
    void *frames[64];
    char text[4096];
    int n = backtrace(frames, 64);
    render(frames, 1 + skip, n, nullptr, text, sizeof text);
    char *line = text;
    while (*line != '\0') {
        char *end = strchr(line, '\n');
        if (end != nullptr) *end = '\0';
        android_log_write(prio, tag, line);
        if (end == nullptr) break;
        line = end + 1;
    }
}

#endif

}  // namespace kerm

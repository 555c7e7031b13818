// Parses arbitrary argument vectors (NUL-separated words) against a table
// with every parameter limit, checking what the handlers receive.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kerm_args.h"

namespace {

volatile size_t sink;

struct Seen {
    int32_t limit;
    int calls;
};

void touch(void *data, char **pars, int32_t count) {
    auto *seen = static_cast<Seen *>(data);
    // A flag's own limit, or one parameter for the "name=value" form.
    const int32_t most = seen->limit > 1 ? seen->limit : 1;
    if (count < 0 || (seen->limit >= 0 && count > most)) __builtin_trap();
    for (int32_t i = 0; i < count; ++i) sink = sink + strlen(pars[i]);  // every parameter is a readable string
    ++seen->calls;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    // Words separated by NUL, each in its own exact allocation; argv[0] first.
    char *argv[130];
    int argc = 0;
    argv[argc++] = strdup("prog");
    size_t start = 0;
    for (size_t i = 0; i <= size && argc < 129; ++i) {
        if (i == size || data[i] == 0) {
            auto *w = static_cast<char *>(malloc(i - start + 1));
            memcpy(w, data + start, i - start);
            w[i - start] = '\0';
            argv[argc++] = w;
            start = i + 1;
        }
    }
    argv[argc] = nullptr;

    Seen s0{-1, 0}, sa{0, 0}, sb{1, 0}, sc{2, 0}, sl{1, 0}, sx{3, 0}, se{1, 0}, sn{0, 0};  // limit -1: no check
    const ArgoatSprig sprigs[] = {
        {nullptr, 0, &s0, touch}, {"a", 0, &sa, touch},   {"b", 1, &sb, touch},    {"c", 2, &sc, touch},
        {"long", 1, &sl, touch},  {"x", 3, &sx, touch},   {"", 1, &se, touch},     {"neg", -2, &sn, touch},
        {"b", 5, &sb, touch},  // shadowed by the first "b"
    };
    char *unflagged[4];
    Argoat args{sprigs, sizeof sprigs / sizeof sprigs[0], unflagged, 0, 4};
    argoat_graze(&args, argc, argv);
    if (args.unflagged_count < 0 || args.unflagged_count > 4 || s0.calls != 1) __builtin_trap();
    for (int32_t i = 0; i < args.unflagged_count; ++i) sink = sink + strlen(unflagged[i]);

    for (int i = 0; i < argc; ++i) free(argv[i]);
    return 0;
}

// Argument parser: one pass over argv, handlers called per flag.
#include "kerm_args.h"

#include <stddef.h>
#include <string.h>

namespace {

// First table entry (entry 0 excluded) whose flag is exactly name[0..n).
const ArgoatSprig *find_sprig(const Argoat *args, const char *name, size_t n) noexcept {
    if (args->sprigs == nullptr) return nullptr;
    for (int32_t i = 1; i < args->count; ++i) {
        const char *f = args->sprigs[i].flag;
        if (f != nullptr && strncmp(f, name, n) == 0 && f[n] == '\0') return &args->sprigs[i];
    }
    return nullptr;
}

}  // namespace

extern "C" {

int32_t argoat_increment_pars(Argoat *args, const char *flag, char *par) {
    if (flag != nullptr) return 1;
    if (args != nullptr && args->unflagged != nullptr && args->unflagged_count >= 0 &&
        args->unflagged_count < args->unflagged_max)
        args->unflagged[args->unflagged_count++] = par;
    return 0;
}

void argoat_sacrifice(Argoat *args, const char *flag, char **pars, int32_t count) {
    if (args == nullptr || flag == nullptr) return;
    const char *eq = strchr(flag, '=');
    const size_t n = eq != nullptr ? static_cast<size_t>(eq - flag) : strlen(flag);
    const ArgoatSprig *sprig = find_sprig(args, flag, n);
    if (sprig == nullptr) return;

    int32_t limit = sprig->pars;
    if (pars == nullptr) count = 0;
    if (eq != nullptr) {
        if (pars == nullptr || pars[-1] == nullptr) return;
        // The flag text lives inside pars[-1]; the value moves to its start so
        // that the slot reads as the flag's first parameter.
        --pars;
        memmove(pars[0], eq + 1, strlen(eq + 1) + 1);
        ++count;
        limit = 1;
    }
    if (limit < 0) limit = 0;
    if (count > limit) {
        for (int32_t i = limit; i < count; ++i) argoat_increment_pars(args, nullptr, pars[i]);
        count = limit;
    }
    if (sprig->func != nullptr) sprig->func(sprig->data, pars, count);
}

void argoat_compound(Argoat *args, char **arg) {
    if (arg == nullptr || *arg == nullptr || **arg == '\0') return;
    for (const char *c = *arg + 1; *c != '\0'; ++c) {
        const char flag[2] = {*c, '\0'};
        argoat_sacrifice(args, flag, arg, 0);
    }
}

void argoat_unflagged_sacrifice(Argoat *args) {
    if (args == nullptr || args->sprigs == nullptr || args->count < 1) return;
    const ArgoatSprig &all = args->sprigs[0];
    if (all.func != nullptr) all.func(all.data, args->unflagged, args->unflagged_count);
}

void argoat_graze(Argoat *args, int32_t argc, char **argv) {
    if (args == nullptr || argv == nullptr) return;
    const char *flag = nullptr;
    char **pars = nullptr;
    int32_t count = 0;
    for (int32_t i = 1; i < argc; ++i) {
        char *a = argv[i];
        const bool dashed = a != nullptr && a[0] == '-' && a[1] != '\0';
        if (dashed && a[1] != '-') {
            argoat_sacrifice(args, flag, pars, count);
            pars = &argv[i + 1];
            count = 0;
            if (a[2] != '=' && a[2] != '\0') {
                flag = nullptr;
                argoat_compound(args, &argv[i]);
            } else {
                flag = a + 1;
            }
        } else if (dashed && a[2] != '\0') {
            argoat_sacrifice(args, flag, pars, count);
            pars = &argv[i + 1];
            count = 0;
            flag = a + 2;
        } else {
            count += argoat_increment_pars(args, flag, a);
        }
    }
    argoat_sacrifice(args, flag, pars, count);
    if (args->unflagged_max > 0) argoat_unflagged_sacrifice(args);
}

}  // extern "C"

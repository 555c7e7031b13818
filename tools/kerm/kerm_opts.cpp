#include "kerm_opts.h"

#include <errno.h>
#include <initializer_list>
#include <string.h>

#include "kerm_args.h"

namespace kerm_tool {
namespace {

constexpr int kMaxOptions = 16;

void on_option(void *data, char **pars, int32_t count) {
    auto *o = static_cast<Option *>(data);
    o->seen = true;
    if (o->pars > 0) {
        if (count > 0) o->value = pars[0];
        else o->missing = true;
    }
}

void on_help(void *data, char **, int32_t) { *static_cast<bool *>(data) = true; }

bool known(const char *name, size_t n, const Option *opts, int count) {
    if ((n == 1 && name[0] == 'h') || (n == 4 && strncmp(name, "help", 4) == 0)) return true;
    for (int i = 0; i < count; ++i)
        for (const char *o : {opts[i].name, opts[i].alias})
            if (o != nullptr && strlen(o) == n && strncmp(o, name, n) == 0) return true;
    return false;
}

// The parser ignores unknown flags by design; a tool should say so instead.
bool check_flags(const char *cmd, int argc, char **argv, const Option *opts, int count) {
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        if (a[0] != '-' || a[1] == '\0' || strcmp(a, "--") == 0) continue;
        const bool compound = a[1] != '-' && a[2] != '\0' && a[2] != '=';
        if (compound) {
            for (const char *c = a + 1; *c != '\0'; ++c)
                if (!known(c, 1, opts, count)) {
                    fprintf(stderr, "kerm %s: unknown option '-%c'\n", cmd, *c);
                    return false;
                }
            continue;
        }
        const char *name = a + (a[1] == '-' ? 2 : 1);
        if (!known(name, strcspn(name, "="), opts, count)) {
            fprintf(stderr, "kerm %s: unknown option '%s'\n", cmd, a);
            return false;
        }
    }
    return true;
}

}  // namespace

bool parse_tool_args(const char *cmd, int argc, char **argv, Option *opts, int count, ToolArgs *out) {
    if (count > kMaxOptions || !check_flags(cmd, argc, argv, opts, count)) return false;
    ArgoatSprig sprigs[2 * kMaxOptions + 3] = {};
    int32_t n = 1;
    sprigs[n++] = {"h", 0, &out->help, on_help};
    sprigs[n++] = {"help", 0, &out->help, on_help};
    for (int i = 0; i < count; ++i) {
        sprigs[n++] = {opts[i].name, opts[i].pars, &opts[i], on_option};
        if (opts[i].alias != nullptr) sprigs[n++] = {opts[i].alias, opts[i].pars, &opts[i], on_option};
    }
    char *positional[2] = {};
    Argoat args{sprigs, n, positional, 0, 2};
    argoat_graze(&args, argc, argv);
    for (int i = 0; i < count; ++i)
        if (opts[i].missing) {
            fprintf(stderr, "kerm %s: option '%s' needs a value\n", cmd, opts[i].name);
            return false;
        }
    if (args.unflagged_count > 1) {
        fprintf(stderr, "kerm %s: unexpected argument '%s'\n", cmd, positional[1]);
        return false;
    }
    out->file = args.unflagged_count == 1 ? positional[0] : nullptr;
    return true;
}

FILE *open_input(const char *path, const char *cmd) {
    if (path == nullptr || strcmp(path, "-") == 0) return stdin;
    FILE *f = fopen(path, "rb");
    if (f == nullptr) fprintf(stderr, "kerm %s: %s: %s\n", cmd, path, strerror(errno));
    return f;
}

}  // namespace kerm_tool

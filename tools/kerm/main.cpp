// kerm: command-line front end to kerm_util.
#include <stdio.h>
#include <string.h>

#include "kerm_cmd.h"
#include "kerm_version.h"

namespace kerm_tool {
namespace {
constexpr int kMaxCommands = 64;
Command g_commands[kMaxCommands];
int g_count = 0;

void usage(FILE *out) {
    fprintf(out, "usage: kerm <command> [options]\n       kerm --version | --help\n\n"
                 "The command-line tool of the kerm_util device library.\n\ncommands:\n");
    for (int i = 0; i < g_count; ++i) fprintf(out, "  %-14s %s\n", g_commands[i].name, g_commands[i].summary);
    fprintf(out, "\nexit status: 0 success, 1 failure, 2 usage error\n");
}
}  // namespace

Registrar::Registrar(const Command &cmd) {
    if (g_count < kMaxCommands) g_commands[g_count++] = cmd;
}

}  // namespace kerm_tool

int main(int argc, char **argv) {
    using namespace kerm_tool;
    if (argc >= 2 && (strcmp(argv[1], "--version") == 0 || strcmp(argv[1], "-V") == 0)) {
        printf("kerm (kerm_util) %s\n", KERM_UTIL_VERSION_STRING);
        return 0;
    }
    if (argc < 2 || strcmp(argv[1], "help") == 0 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    for (int i = 0; i < g_count; ++i)
        if (strcmp(g_commands[i].name, argv[1]) == 0) return g_commands[i].run(argc - 1, argv + 1);
    fprintf(stderr, "kerm: unknown command '%s'\n", argv[1]);
    usage(stderr);
    return 2;
}

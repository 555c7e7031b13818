// Option handling shared by kerm subcommands, on top of the argoat parser.
#ifndef KERM_OPTS_H
#define KERM_OPTS_H

#include <stdint.h>
#include <stdio.h>

namespace kerm_tool {

struct Option {
    const char *name;             // without dashes
    const char *alias;            // a second name (e.g. one letter), or null
    int32_t pars;                 // 0 (switch) or 1 (takes a value)
    const char *value = nullptr;  // the value given, if any
    bool seen = false;
    bool missing = false;  // given without its value
};

struct ToolArgs {
    const char *file = nullptr;  // the one positional argument, if any
    bool help = false;           // -h / --help
};

// Parses argv[1..] of a subcommand against `opts`, plus -h/--help and at most
// one positional argument. Reports unknown flags, missing values and extra
// arguments on stderr (prefixed with `cmd`) and returns false for them.
bool parse_tool_args(const char *cmd, int argc, char **argv, Option *opts, int count, ToolArgs *out);

// The named file, or standard input for null or "-". Reports failures.
FILE *open_input(const char *path, const char *cmd);

}  // namespace kerm_tool

#endif

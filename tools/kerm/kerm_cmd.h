// Subcommand registry of the kerm tool: each cmd_*.cpp registers itself.
#ifndef KERM_CMD_H
#define KERM_CMD_H

namespace kerm_tool {

struct Command {
    const char *name;     // first argument that selects it
    const char *summary;  // one line for `kerm help`
    int (*run)(int argc, char **argv);  // argv[0] is the subcommand name
};

struct Registrar {
    explicit Registrar(const Command &cmd);
};

}  // namespace kerm_tool

#define KERM_COMMAND(name, summary, fn) \
    static ::kerm_tool::Registrar kerm_registrar_##fn(::kerm_tool::Command{name, summary, fn})

#endif

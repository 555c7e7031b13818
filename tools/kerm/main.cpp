// kerm: command-line front end to kerm_util.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <memory>
#include <vector>

#include "kerm_opts.h"
#include "kerm_version.h"

namespace kerm_tool {
namespace {

std::vector<Command> &commands() {
    static std::vector<Command> list;
    return list;
}

const Command *find_command(const std::string &name) {
    for (const Command &c : commands())
        if (name == c.name) return &c;
    return nullptr;
}

void usage(FILE *out) {
    fprintf(out,
            "Usage: kerm COMMAND [OPTIONS] [ARGS]\n"
            "       kerm help [COMMAND]\n"
            "       kerm --version | --help\n\n"
            "The command-line tool of the kerm_util device library.\n\n"
            "Options:\n"
            "  -h, --help     print this help and exit\n"
            "  -V, --version  print the version and exit\n\n"
            "commands:\n");
    for (const Command &c : commands()) fprintf(out, "  %-14s %s\n", c.name, c.summary);
    fprintf(out,
            "\nEvery command takes --help. Options take their value as --opt VALUE or\n"
            "--opt=VALUE; numbers are decimal or 0x-hexadecimal; -- ends the options;\n"
            "- names standard input where a file is read. Errors go to standard error as\n"
            "\"kerm COMMAND: what: why\".\n\n%s\n",
            kExitStatusText);
}

// The deepest subcommand the parse reached ("timesync show", "sei dump").
CLI::App *selected(CLI::App *app) {
    for (;;) {
        std::vector<CLI::App *> subs = app->get_subcommands();
        if (subs.empty()) return app;
        app = subs.front();
    }
}

std::string command_path(CLI::App *root, CLI::App *leaf) {
    std::string path;
    for (CLI::App *a = leaf; a != nullptr && a != root; a = a->get_parent())
        path = path.empty() ? a->get_name() : a->get_name() + " " + path;
    return path;
}

// CLI11 says "The following argument was not expected: X"; say which
// argument and why in the tool's own form.
std::string describe(const CLI::ParseError &e) {
    const std::string msg = e.what();
    const size_t colon = msg.find(": ");
    if (dynamic_cast<const CLI::ExtrasError *>(&e) != nullptr && colon != std::string::npos) {
        const std::string arg = msg.substr(colon + 2);
        return arg + (arg.size() > 1 && arg[0] == '-' ? ": unknown option" : ": unexpected argument");
    }
    return msg;
}

int usage_error(const std::string &cmd, const std::string &message) {
    fprintf(stderr, "kerm %s: %s\nTry 'kerm %s --help'.\n", cmd.c_str(), message.c_str(), cmd.c_str());
    return kExitUsage;
}

// Success only when everything printed reached its file: a full disk or a
// closed pipe makes the run a failure.
int finish(const std::string &cmd, int rc) {
    const bool bad = fflush(stdout) != 0 || ferror(stdout) != 0 || json_failed();
    const int err = errno;
    if (fclose(stdout) != 0 || bad) {
        fprintf(stderr, "kerm%s%s: standard output: %s\n", cmd.empty() ? "" : " ", cmd.c_str(),
                json_failed() ? "out of memory" : strerror(err));
        return rc == kExitOk ? kExitFailure : rc;
    }
    return rc;
}

int run(int argc, char **argv) {
    if (argc < 2) {
        usage(stderr);
        return kExitUsage;
    }
    const std::string first = argv[1];
    if (first == "--version" || first == "-V") {
        printf("kerm (kerm_util) %s\n", KERM_UTIL_VERSION_STRING);
        return finish("", kExitOk);
    }
    if (first == "--help" || first == "-h") {
        usage(stdout);
        return finish("", kExitOk);
    }

    CLI::App app{"The command-line tool of the kerm_util device library.", "kerm"};
    app.set_help_flag();
    app.require_subcommand(1);
    std::vector<std::pair<CLI::App *, Runner>> runners;
    for (const Command &c : commands()) {
        CLI::App *sub = app.add_subcommand(c.name, c.summary);
        sub->set_help_flag("-h,--help", "print this help and exit");
        sub->footer(kExitStatusText);
        runners.emplace_back(sub, c.setup(*sub));
    }
    if (first == "help") {
        if (argc > 3) return usage_error("help", std::string(argv[3]) + ": unexpected argument");
        if (argc == 2) {
            usage(stdout);
            return finish("help", kExitOk);
        }
        if (find_command(argv[2]) == nullptr)
            return usage_error("help", std::string(argv[2]) + ": unknown command");
        fputs(app.get_subcommand(argv[2])->help("kerm").c_str(), stdout);
        return finish("help", kExitOk);
    }
    if (find_command(first) == nullptr) {
        fprintf(stderr, "kerm: %s: unknown command\nTry 'kerm --help'.\n", first.c_str());
        return kExitUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        fputs(app.help().c_str(), stdout);  // the selected subcommand's, under its full name
        return finish(first, kExitOk);
    } catch (const CLI::ParseError &e) {
        return usage_error(command_path(&app, selected(&app)), describe(e));
    }
    CLI::App *leaf = selected(&app);
    const std::string path = command_path(&app, leaf);
    for (auto &r : runners) {
        if (r.first != app.get_subcommands().front()) continue;
        int rc;
        try {
            rc = r.second();
        } catch (const UsageError &e) {
            return usage_error(path, e.what + ": " + e.why);
        } catch (const std::bad_alloc &) {
            fprintf(stderr, "kerm %s: %s\n", path.c_str(), strerror(ENOMEM));
            rc = kExitFailure;
        }
        return finish(path, rc);
    }
    return kExitUsage;
}

}  // namespace

Registrar::Registrar(const Command &cmd) { commands().push_back(cmd); }

}  // namespace kerm_tool

int main(int argc, char **argv) { return kerm_tool::run(argc, argv); }

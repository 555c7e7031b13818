// The one option layer of the kerm tool: every subcommand declares its options
// on a CLI11 app, and shares the number parsing, input opening, error
// reporting and JSON output here.
#ifndef KERM_OPTS_H
#define KERM_OPTS_H

#include <stdint.h>
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include <cJSON.h>

namespace kerm_tool {

// Exit status of every subcommand.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

constexpr const char *kExitStatusText = "Exit status: 0 success, 1 failure, 2 usage error.";

// What a subcommand runs once its options are parsed into the state `setup`
// bound them to.
using Runner = std::function<int()>;

struct Command {
    const char *name;                  // first argument that selects it
    const char *summary;               // one line for `kerm help`
    Runner (*setup)(CLI::App &app);    // declares the options on `app`
};

struct Registrar {
    explicit Registrar(const Command &cmd);
};

// Thrown by a runner for a usage error found after parsing (conflicting
// values and the like); main reports it as one and exits 2.
struct UsageError {
    std::string what, why;
};

// Decimal or 0x-hexadecimal unsigned number within [min, max]. On failure
// `why` says what is wrong with `text`.
bool parse_number(const std::string &text, uint64_t min, uint64_t max, uint64_t *out, std::string *why);

// Checks a number option and hands it on in decimal, so CLI11's conversion
// never sees a malformed or out-of-range value.
CLI::Validator number_check(uint64_t min, uint64_t max);

template <class T>
CLI::Option *add_number(CLI::App &app, const std::string &flags, T &var, uint64_t min, uint64_t max,
                        const std::string &desc) {
    return app.add_option(flags, var, desc)->transform(number_check(min, max))->type_name("N");
}

// --json: one JSON object per record instead of the text lines.
CLI::Option *add_json_flag(CLI::App &app, bool &json);

// "kerm CMD: what: why" on standard error; returns kExitFailure.
int fail(const char *cmd, const std::string &what, const std::string &why);

// Standard input for "" or "-", else the named file; directories refused.
// Reports failures and returns null for them.
FILE *open_input(const std::string &path, const char *cmd);
// The name of `path` in messages.
std::string input_name(const std::string &path);
// Closes what open_input opened (not standard input).
void close_input(FILE *f);

// For its scope, what the library itself prints on standard output goes to
// standard error, so that with --json standard output carries records only.
class LibraryOutputToStderr {
public:
    explicit LibraryOutputToStderr(bool active);
    ~LibraryOutputToStderr();
    LibraryOutputToStderr(const LibraryOutputToStderr &) = delete;
    LibraryOutputToStderr &operator=(const LibraryOutputToStderr &) = delete;

private:
    int saved_ = -1;
};

// Writes `obj` on one line of standard output and frees it.
void emit_json(cJSON *obj);
// Whether a record could not be printed (out of memory).
bool json_failed();
// A number as the text output shows it in hexadecimal ("0x%0*llx").
void json_hex(cJSON *obj, const char *name, unsigned long long value, int digits);
// A 64-bit number written exactly (a JSON double would round it).
void json_u64(cJSON *obj, const char *name, unsigned long long value);

}  // namespace kerm_tool

#define KERM_COMMAND(name, summary, setup) \
    static ::kerm_tool::Registrar kerm_registrar_##setup(::kerm_tool::Command{name, summary, setup})

#endif

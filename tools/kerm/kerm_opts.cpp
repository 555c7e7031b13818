#include "kerm_opts.h"

#include <ctype.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>


namespace kerm_tool {

bool parse_number(const std::string &text, uint64_t min, uint64_t max, uint64_t *out, std::string *why) {
    const char *s = text.c_str();
    const bool hex = s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    const char *digits = hex ? s + 2 : s;
    // strtoull alone would take blanks, a sign and an octal zero.
    if (*digits == '\0' || !(hex ? isxdigit(static_cast<unsigned char>(*digits)) : isdigit(static_cast<unsigned char>(*digits)))) {
        *why = "'" + text + "' is not a number";
        return false;
    }
    errno = 0;
    char *end = nullptr;
    const unsigned long long v = strtoull(digits, &end, hex ? 16 : 10);
    if (*end != '\0') {
        *why = "'" + text + "' is not a number";
        return false;
    }
    if (errno == ERANGE || v < min || v > max) {
        *why = "'" + text + "' is out of range (" + std::to_string(min) + " .. " + std::to_string(max) + ")";
        return false;
    }
    *out = v;
    return true;
}

CLI::Validator number_check(uint64_t min, uint64_t max) {
    return CLI::Validator(
        [min, max](std::string &value) {
            uint64_t v = 0;
            std::string why;
            if (!parse_number(value, min, max, &v, &why)) return why;
            value = std::to_string(v);
            return std::string();
        },
        "in " + std::to_string(min) + " .. " + std::to_string(max));
}

CLI::Option *add_json_flag(CLI::App &app, bool &json) {
    return app.add_flag("--json", json, "one JSON object per record, same fields as the text");
}

int fail(const char *cmd, const std::string &what, const std::string &why) {
    fprintf(stderr, "kerm %s: %s: %s\n", cmd, what.c_str(), why.c_str());
    return kExitFailure;
}

std::string input_name(const std::string &path) {
    return path.empty() || path == "-" ? "standard input" : path;
}

FILE *open_input(const std::string &path, const char *cmd) {
    if (path.empty() || path == "-") return stdin;
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr) {
        fail(cmd, path, strerror(errno));
        return nullptr;
    }
    // A directory opens for reading on Linux and fails only at the first read.
    struct stat st;
    if (fstat(fileno(f), &st) == 0 && S_ISDIR(st.st_mode)) {
        fclose(f);
        fail(cmd, path, strerror(EISDIR));
        return nullptr;
    }
    return f;
}

void close_input(FILE *f) {
    if (f != nullptr && f != stdin) fclose(f);
}

LibraryOutputToStderr::LibraryOutputToStderr(bool active) {
    if (!active) return;
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    if (saved_ >= 0 && dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        close(saved_);
        saved_ = -1;
    }
}

LibraryOutputToStderr::~LibraryOutputToStderr() {
    if (saved_ < 0) return;
    fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
}

namespace {
bool g_json_failed = false;
}  // namespace

bool json_failed() { return g_json_failed; }

void emit_json(cJSON *obj) {
    char *text = obj != nullptr ? cJSON_PrintUnformatted(obj) : nullptr;
    if (text != nullptr) {
        fputs(text, stdout);
        fputc('\n', stdout);
        cJSON_free(text);
    } else {
        // A record lost to a full heap makes the run a failure, not a gap.
        g_json_failed = true;
    }
    cJSON_Delete(obj);
}

void json_hex(cJSON *obj, const char *name, unsigned long long value, int digits) {
    char text[24];
    snprintf(text, sizeof text, "0x%0*llx", digits, value);
    cJSON_AddStringToObject(obj, name, text);
}

void json_u64(cJSON *obj, const char *name, unsigned long long value) {
    char text[24];
    snprintf(text, sizeof text, "%llu", value);
    cJSON_AddRawToObject(obj, name, text);
}

}  // namespace kerm_tool

// kerm pool: replays an allocation trace against a memory pool of a given
// size, to find out how large a region a program needs.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "kerm_mempool.h"
#include "kerm_opts.h"

namespace {

const char kDescription[] =
    "Replays the allocation trace TRACE (standard input when absent or -) against a memory pool\n"
    "of N bytes (suffix k or m for KiB, MiB). With --areas K the N bytes are K separate regions:\n"
    "the first set up by init_memory_pool, the others added with add_new_area. --map prints the\n"
    "block map at the end.\n"
    "\n"
    "Trace: one operation per line, fields separated by blanks; '#' starts a comment.\n"
    "  m ID SIZE      malloc SIZE bytes, known as ID from then on\n"
    "  c ID N SIZE    calloc N elements of SIZE bytes\n"
    "  r ID SIZE      realloc ID's buffer to SIZE bytes (0 frees it; an ID not\n"
    "                 allocated yet gets a new buffer)\n"
    "  f ID           free ID's buffer\n"
    "ID is any word. A failed allocation leaves ID unallocated (a failed realloc\n"
    "keeps the old buffer).\n"
    "\n"
    "Reports failed operations (line and size), the peak of bytes in use, the\n"
    "largest free block at the end and at its smallest, and the fragmentation of\n"
    "the free space at the end (1 - largest free block / all free bytes).\n"
    "Here status 1 means some operation failed; a bad trace line is status 2.";

constexpr size_t kAreaGap = 64;  // keeps areas from merging into one region

struct Live {
    void *p;
    size_t size;
};

struct FreeSpace {
    size_t largest = 0, total = 0, blocks_used = 0;
};

// Walks one region through the block headers up to its sentinel; the
// descriptor block (the first) is the pool's own.
void walk(uint8_t *first, FreeSpace *fs) {
    auto *b = reinterpret_cast<kerm_mempool_block *>(first);
    for (bool descriptor = true;; descriptor = false) {
        const size_t bytes = b->size & KERM_MEMPOOL_SIZE_MASK;
        if (bytes == 0) return;
        if (b->size & KERM_MEMPOOL_BLOCK_FREE) {
            fs->largest = std::max(fs->largest, bytes);
            fs->total += bytes;
        } else if (!descriptor) {
            fs->blocks_used += bytes + KERM_MEMPOOL_HDR_SIZE;
        }
        b = reinterpret_cast<kerm_mempool_block *>(reinterpret_cast<uint8_t *>(b + 1) + bytes);
    }
}

bool parse_size(const char *text, size_t *out) {
    if (text == nullptr || *text < '0' || *text > '9') return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text, &end, 10);
    if (errno != 0) return false;
    unsigned long long scale = 1;
    if (*end == 'k' || *end == 'K') scale = 1024, ++end;
    else if (*end == 'm' || *end == 'M') scale = 1024 * 1024, ++end;
    if (*end != '\0' || v > SIZE_MAX / scale) return false;
    *out = static_cast<size_t>(v * scale);
    return true;
}

std::vector<std::string> split(const char *line) {
    std::vector<std::string> words;
    std::string w;
    for (const char *c = line;; ++c) {
        if (*c == '\0' || *c == '#' || *c == ' ' || *c == '\t' || *c == '\n' || *c == '\r') {
            if (!w.empty()) words.push_back(w);
            w.clear();
            if (*c == '\0' || *c == '#') return words;
        } else {
            w += *c;
        }
    }
}

class Replay {
public:
    Replay(uint8_t *base, std::vector<uint8_t *> firsts) : pool_(base), firsts_(std::move(firsts)) {}

    // Returns false (after reporting) on a bad line.
    bool line(unsigned long no, const char *text) {
        std::vector<std::string> w = split(text);
        if (w.empty()) return true;
        const std::string &op = w[0];
        const size_t want = op == "m" || op == "r" ? 3 : op == "c" ? 4 : op == "f" ? 2 : 0;
        if (want == 0) return bad(no, "unknown operation '" + op + "' (m, c, r or f)");
        if (w.size() != want)
            return bad(no, "'" + op + "' takes " + std::to_string(want - 1) + " fields, found " + std::to_string(w.size() - 1));
        size_t n = 1, size = 0;
        if (op != "f" && !parse_size(w.back().c_str(), &size)) return bad(no, "bad size '" + w.back() + "'");
        if (op == "c" && !parse_size(w[2].c_str(), &n)) return bad(no, "bad count '" + w[2] + "'");
        if (op == "c" && size != 0 && n > SIZE_MAX / size) return bad(no, "calloc size overflows");
        auto it = live_.find(w[1]);
        const bool known = it != live_.end();
        ++ops_;
        if (op == "f") {
            if (!known) return bad(no, "free of '" + w[1] + "', which is not allocated");
            free_ex(it->second.p, pool_);
            in_use_ -= it->second.size;
            live_.erase(it);
            return true;
        }
        if (op != "r" && known) return bad(no, "'" + w[1] + "' is already allocated");
        void *p;
        if (op == "m") p = malloc_ex(size, pool_);
        else if (op == "c") p = calloc_ex(n, size, pool_);
        else p = realloc_ex(known ? it->second.p : nullptr, size, pool_);
        const size_t bytes = n * size;
        if (op == "r" && size == 0) {
            if (known) {
                in_use_ -= it->second.size;
                live_.erase(it);
            }
        } else if (p == nullptr) {
            if (bytes != 0) failures_.push_back({no, op, bytes});  // calloc of nothing gives nothing
        } else {
            if (known) in_use_ -= it->second.size;
            live_[w[1]] = {p, bytes};
            in_use_ += bytes;
        }
        peak_ = std::max(peak_, in_use_);
        observe(no);
        return true;
    }

    int report(bool map, bool json) {
        const FreeSpace end = space();
        if (json) return report_json(end);
        printf("operations:       %lu\n", ops_);
        printf("failures:         %zu\n", failures_.size());
        const char *name[] = {"malloc", "calloc", "realloc"};
        for (size_t i = 0; i < failures_.size() && i < 20; ++i) {
            const Failure &f = failures_[i];
            printf("  line %lu: %s of %zu bytes failed\n", f.line, name[f.op == "m" ? 0 : f.op == "c" ? 1 : 2], f.size);
        }
        if (failures_.size() > 20) printf("  ... and %zu more\n", failures_.size() - 20);
        printf("peak in use:      %zu bytes requested, %zu bytes in blocks with headers\n", peak_, peak_blocks_);
        printf("in use at end:    %zu bytes in %zu buffers\n", in_use_, live_.size());
        printf("largest free:     %zu bytes at end, %zu bytes at its smallest (line %lu)\n", end.largest,
               worst_largest_, worst_line_);
        printf("free at end:      %zu bytes, fragmentation %.1f%%\n", end.total,
               end.total ? 100.0 * (1.0 - double(end.largest) / double(end.total)) : 0.0);
        if (map) print_all_blocks(pool_);
        fflush(stdout);
        return failures_.empty() ? 0 : 1;
    }

    void start(bool json) {
        const FreeSpace fs = space();
        worst_largest_ = fs.largest;
        start_ = fs;
        if (json) return;
        printf("regions:          %zu, %zu bytes free to allocate (largest block %zu)\n", firsts_.size(), fs.total,
               fs.largest);
    }

private:
    // One object with the figures of the text report, under its labels.
    int report_json(const FreeSpace &end) const {
        static const char *const name[] = {"malloc", "calloc", "realloc"};
        cJSON *o = cJSON_CreateObject();
        cJSON_AddNumberToObject(o, "regions", static_cast<double>(firsts_.size()));
        cJSON_AddNumberToObject(o, "free_to_allocate", static_cast<double>(start_.total));
        cJSON_AddNumberToObject(o, "operations", static_cast<double>(ops_));
        cJSON *fails = cJSON_AddArrayToObject(o, "failures");
        for (const Failure &f : failures_) {
            cJSON *j = cJSON_CreateObject();
            cJSON_AddNumberToObject(j, "line", static_cast<double>(f.line));
            cJSON_AddStringToObject(j, "op", name[f.op == "m" ? 0 : f.op == "c" ? 1 : 2]);
            cJSON_AddNumberToObject(j, "size", static_cast<double>(f.size));
            cJSON_AddItemToArray(fails, j);
        }
        cJSON_AddNumberToObject(o, "peak_in_use", static_cast<double>(peak_));
        cJSON_AddNumberToObject(o, "peak_in_blocks", static_cast<double>(peak_blocks_));
        cJSON_AddNumberToObject(o, "in_use_at_end", static_cast<double>(in_use_));
        cJSON_AddNumberToObject(o, "buffers_at_end", static_cast<double>(live_.size()));
        cJSON_AddNumberToObject(o, "largest_free", static_cast<double>(end.largest));
        cJSON_AddNumberToObject(o, "largest_free_smallest", static_cast<double>(worst_largest_));
        cJSON_AddNumberToObject(o, "largest_free_smallest_line", static_cast<double>(worst_line_));
        cJSON_AddNumberToObject(o, "free_at_end", static_cast<double>(end.total));
        char frag[16];
        snprintf(frag, sizeof frag, "%.1f",
                 end.total ? 100.0 * (1.0 - double(end.largest) / double(end.total)) : 0.0);
        cJSON_AddRawToObject(o, "fragmentation_percent", frag);
        kerm_tool::emit_json(o);
        return failures_.empty() ? kerm_tool::kExitOk : kerm_tool::kExitFailure;
    }

    struct Failure {
        unsigned long line;
        std::string op;
        size_t size;
    };

    bool bad(unsigned long no, const std::string &what) {
        fprintf(stderr, "kerm pool: line %lu: %s\n", no, what.c_str());
        return false;
    }

    FreeSpace space() const {
        FreeSpace fs;
        for (uint8_t *first : firsts_) walk(first, &fs);
        return fs;
    }

    // Only allocations shrink the largest free block; frees are not walked.
    void observe(unsigned long no) {
        const FreeSpace fs = space();
        peak_blocks_ = std::max(peak_blocks_, fs.blocks_used);
        if (fs.largest < worst_largest_) {
            worst_largest_ = fs.largest;
            worst_line_ = no;
        }
    }

    void *pool_;
    std::vector<uint8_t *> firsts_;
    std::map<std::string, Live> live_;
    std::vector<Failure> failures_;
    FreeSpace start_;
    size_t in_use_ = 0, peak_ = 0, peak_blocks_ = 0, worst_largest_ = 0;
    unsigned long ops_ = 0, worst_line_ = 0;
};

struct PoolArgs {
    size_t total = 0, areas = 1;
    bool map = false, json = false;
    std::string trace;
} g_args;

// --size: bytes, or KiB / MiB with k / m.
CLI::Validator size_check() {
    return CLI::Validator(
        [](std::string &value) {
            size_t v = 0;
            if (!parse_size(value.c_str(), &v)) return "'" + value + "' is not a size (bytes, or a number with k or m)";
            value = std::to_string(v);
            return std::string();
        },
        "");
}

int run_pool() {
    const size_t total = g_args.total, areas = g_args.areas;
    const size_t piece = total / areas / KERM_MEMPOOL_ALIGN * KERM_MEMPOOL_ALIGN;
    if (piece < KERM_MEMPOOL_MIN_REGION) {
        throw kerm_tool::UsageError{"--size", std::to_string(total) + " bytes in " + std::to_string(areas) +
                                                  " areas: each needs at least " +
                                                  std::to_string(static_cast<size_t>(KERM_MEMPOOL_MIN_REGION)) + " bytes"};
    }
    FILE *in = kerm_tool::open_input(g_args.trace, "pool");
    if (in == nullptr) return kerm_tool::kExitFailure;

    std::vector<uint8_t> memory(areas * (piece + kAreaGap) + 64);
    uint8_t *base = memory.data() + (64 - reinterpret_cast<uintptr_t>(memory.data()) % 64) % 64;
    init_memory_pool(piece, base);
    std::vector<uint8_t *> firsts{base + KERM_MEMPOOL_CONTROL_SIZE};
    for (size_t i = 1; i < areas; ++i) {
        uint8_t *area = base + i * (piece + kAreaGap);
        add_new_area(area, piece, base);
        firsts.push_back(area);
    }
    Replay replay(base, firsts);
    replay.start(g_args.json);
    char *line = nullptr;
    size_t cap = 0;
    unsigned long no = 0;
    bool ok = true;
    while (ok && getline(&line, &cap, in) >= 0) ok = replay.line(++no, line);
    free(line);
    const int err = ferror(in) != 0 ? errno : 0;
    kerm_tool::close_input(in);
    if (err != 0) return kerm_tool::fail("pool", kerm_tool::input_name(g_args.trace), strerror(err));
    if (!ok) return kerm_tool::kExitUsage;
    return replay.report(g_args.map, g_args.json);
}

kerm_tool::Runner setup(CLI::App &app) {
    app.description(kDescription);
    app.add_option("-s,--size", g_args.total, "pool size in bytes (k, m suffixes)")
        ->required()
        ->transform(size_check())
        ->type_name("N");
    kerm_tool::add_number(app, "-a,--areas", g_args.areas, 1, 1024, "split the pool into K regions (default 1)");
    CLI::Option *map = app.add_flag("--map", g_args.map, "print the block map at the end");
    kerm_tool::add_json_flag(app, g_args.json)->excludes(map);
    app.add_option("TRACE", g_args.trace, "allocation trace, - for standard input");
    return run_pool;
}

}  // namespace

KERM_COMMAND("pool", "replay an allocation trace against a memory pool", setup);

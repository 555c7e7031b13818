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

#include "kerm_cmd.h"
#include "kerm_mempool.h"
#include "kerm_opts.h"

namespace {

const char kHelp[] =
    "usage: kerm pool --size N [--areas K] [--map] [TRACE]\n"
    "Replays the allocation trace TRACE (standard input when absent or -) against\n"
    "a memory pool of N bytes (suffix k or m for KiB, MiB). With --areas K the N\n"
    "bytes are K separate regions: the first set up by init_memory_pool, the others\n"
    "added with add_new_area. --map prints the block map at the end.\n"
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
    "Exit status: 0 all operations served, 1 some failed, 2 bad usage or trace.\n";

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

    int report(bool map) {
        const FreeSpace end = space();
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

    void start() {
        const FreeSpace fs = space();
        worst_largest_ = fs.largest;
        printf("regions:          %zu, %zu bytes free to allocate (largest block %zu)\n", firsts_.size(), fs.total,
               fs.largest);
    }

private:
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
    size_t in_use_ = 0, peak_ = 0, peak_blocks_ = 0, worst_largest_ = 0;
    unsigned long ops_ = 0, worst_line_ = 0;
};

int run_pool(int argc, char **argv) {
    kerm_tool::ToolArgs opts;
    kerm_tool::Option options[] = {{"size", "s", 1}, {"areas", "a", 1}, {"map", nullptr, 0}};
    if (!kerm_tool::parse_tool_args("pool", argc, argv, options, 3, &opts)) return 2;
    if (opts.help) {
        fputs(kHelp, stdout);
        return 0;
    }
    size_t total = 0, areas = 1;
    if (!parse_size(options[0].value, &total)) {
        fprintf(stderr, "kerm pool: --size N is required (bytes, or with k/m)\n");
        return 2;
    }
    if (options[1].value != nullptr && (!parse_size(options[1].value, &areas) || areas == 0 || areas > 1024)) {
        fprintf(stderr, "kerm pool: bad --areas '%s' (1 .. 1024)\n", options[1].value);
        return 2;
    }
    const size_t piece = total / areas / KERM_MEMPOOL_ALIGN * KERM_MEMPOOL_ALIGN;
    if (piece < KERM_MEMPOOL_MIN_REGION) {
        fprintf(stderr, "kerm pool: %zu bytes in %zu areas: the first needs at least %zu bytes\n", total, areas,
                (size_t)KERM_MEMPOOL_MIN_REGION);
        return 2;
    }
    FILE *in = kerm_tool::open_input(opts.file, "pool");
    if (in == nullptr) return 2;

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
    replay.start();
    char *line = nullptr;
    size_t cap = 0;
    unsigned long no = 0;
    bool ok = true;
    while (ok && getline(&line, &cap, in) >= 0) ok = replay.line(++no, line);
    free(line);
    if (in != stdin) fclose(in);
    if (!ok) return 2;
    return replay.report(options[2].seen);
}

}  // namespace

KERM_COMMAND("pool", "replay an allocation trace against a memory pool", run_pool);

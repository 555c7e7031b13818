// Linearizability checking for the lock-free queues: threads record each
// operation's invocation and response on one global clock, and a history is
// accepted only when some order of the operations that respects real time
// (an operation that returned before another was invoked comes first)
// explains every result on a sequential queue. The search is Wing and Gong's
// with Lowe's memoisation of (linearized set, model state).
#ifndef KERM_TEST_LINCHECK_H
#define KERM_TEST_LINCHECK_H

#include <stdint.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "lf_test_util.h"

namespace lincheck {

enum Kind { kPushLeft, kPushRight, kPopLeft, kPopRight, kWrite, kRead };

struct Op {
    int thread;
    Kind kind;
    uintptr_t arg;   // value pushed or written
    intptr_t ret;    // value popped or read (0: none), or the write's status
    uint64_t call, done;
    bool contended;  // a read that overlapped another read may find nothing
};

// One clock for all threads: its order is real-time order.
class Recorder {
public:
    explicit Recorder(int threads) : per_thread_(threads) {}
    template <class F>
    void run(int thread, Kind kind, uintptr_t arg, F &&f) {
        Op op{thread, kind, arg, 0, clock_.fetch_add(1), 0, false};
        op.ret = f();
        op.done = clock_.fetch_add(1);
        per_thread_[thread].push_back(op);
    }
    std::vector<Op> history() const {
        std::vector<Op> all;
        for (const auto &v : per_thread_) all.insert(all.end(), v.begin(), v.end());
        for (auto &a : all)
            for (const auto &b : all)
                if (&a != &b && a.kind == kRead && b.kind == kRead && a.call < b.done && b.call < a.done)
                    a.contended = true;
        return all;
    }

private:
    std::atomic<uint64_t> clock_{0};
    std::vector<std::vector<Op>> per_thread_;
};

// Sequential model: a double-ended queue, or for the ring queue a bounded
// first-in first-out queue of `capacity` values whose full writes answer -2.
struct Model {
    size_t capacity = SIZE_MAX;
    bool apply(const Op &op, std::vector<uintptr_t> &s) const {
        switch (op.kind) {
        case kPushLeft: s.insert(s.begin(), op.arg); return true;
        case kPushRight: s.push_back(op.arg); return true;
        case kPopLeft:
        case kPopRight: {
            if (s.empty()) return op.ret == 0;
            uintptr_t &end = op.kind == kPopLeft ? s.front() : s.back();
            if (static_cast<uintptr_t>(op.ret) != end) return false;
            if (op.kind == kPopLeft) s.erase(s.begin());
            else s.pop_back();
            return true;
        }
        case kWrite:
            if (op.ret == -2) return s.size() >= capacity;
            if (op.ret != 0 || s.size() >= capacity) return false;
            s.push_back(op.arg);
            return true;
        case kRead:
            if (op.ret == 0) return s.empty() || op.contended;
            if (s.empty() || s.front() != static_cast<uintptr_t>(op.ret)) return false;
            s.erase(s.begin());
            return true;
        }
        return false;
    }
};

inline const char *kind_name(Kind k) {
    static const char *names[] = {"push_left", "push_right", "pop_left", "pop_right", "write", "read"};
    return names[k];
}

inline std::string format(const std::vector<Op> &ops) {
    std::vector<Op> sorted = ops;
    std::sort(sorted.begin(), sorted.end(), [](const Op &a, const Op &b) { return a.call < b.call; });
    std::string out;
    char line[160];
    for (const auto &op : sorted) {
        snprintf(line, sizeof line, "  t%d [%6llu,%6llu] %-10s arg=%-6lu ret=%ld\n", op.thread,
                 static_cast<unsigned long long>(op.call), static_cast<unsigned long long>(op.done),
                 kind_name(op.kind), static_cast<unsigned long>(op.arg), static_cast<long>(op.ret));
        out += line;
    }
    return out;
}

// True when the history is linearizable with respect to the model.
inline bool check(const std::vector<Op> &ops, const Model &model) {
    const size_t n = ops.size();
    // Events in clock order, as a doubly linked list the search lifts
    // linearized operations out of (index 0 is the list head).
    struct Event {
        size_t op;
        bool call;
        uint64_t time;
        size_t prev, next, match;
    };
    std::vector<Event> ev(1);
    ev.reserve(2 * n + 1);
    for (size_t i = 0; i < n; ++i) {
        ev.push_back({i, true, ops[i].call, 0, 0, 0});
        ev.push_back({i, false, ops[i].done, 0, 0, 0});
    }
    std::sort(ev.begin() + 1, ev.end(), [](const Event &a, const Event &b) { return a.time < b.time; });
    std::vector<size_t> call_at(n), done_at(n);
    for (size_t i = 1; i < ev.size(); ++i) {
        ev[i].prev = i - 1;
        ev[i - 1].next = i;
        (ev[i].call ? call_at : done_at)[ev[i].op] = i;
    }
    ev.back().next = 0;
    for (size_t i = 0; i < n; ++i) ev[call_at[i]].match = done_at[i];
    auto unlink = [&](size_t e) {
        ev[ev[e].prev].next = ev[e].next;
        if (ev[e].next) ev[ev[e].next].prev = ev[e].prev;
    };
    auto relink = [&](size_t e) {
        ev[ev[e].prev].next = e;
        if (ev[e].next) ev[ev[e].next].prev = e;
    };
    auto lift = [&](size_t c) {
        unlink(c);
        unlink(ev[c].match);
    };
    auto unlift = [&](size_t c) {
        relink(ev[c].match);
        relink(c);
    };

    std::vector<uint64_t> done_set((n + 63) / 64, 0);
    std::vector<uintptr_t> state;
    std::unordered_set<std::string> seen;
    auto key = [&](const std::vector<uint64_t> &bits, const std::vector<uintptr_t> &s) {
        std::string k(reinterpret_cast<const char *>(bits.data()), bits.size() * sizeof(uint64_t));
        k.append(reinterpret_cast<const char *>(s.data()), s.size() * sizeof(uintptr_t));
        return k;
    };
    struct Frame {
        size_t call;
        std::vector<uintptr_t> state;
    };
    std::vector<Frame> stack;
    size_t e = ev[0].next;
    while (ev[0].next) {
        if (e && ev[e].call) {
            const Op &op = ops[ev[e].op];
            std::vector<uintptr_t> next_state = state;
            if (model.apply(op, next_state)) {
                done_set[ev[e].op / 64] |= uint64_t{1} << (ev[e].op % 64);
                if (seen.insert(key(done_set, next_state)).second) {
                    stack.push_back({e, state});
                    state = std::move(next_state);
                    lift(e);
                    e = ev[0].next;
                    continue;
                }
                done_set[ev[e].op / 64] &= ~(uint64_t{1} << (ev[e].op % 64));
            }
            e = ev[e].next;
        } else {
            // A response whose operation was not placed yet (or the end of
            // the list): undo the last choice and try the next candidate.
            if (stack.empty()) return false;
            Frame f = std::move(stack.back());
            stack.pop_back();
            state = std::move(f.state);
            done_set[ev[f.call].op / 64] &= ~(uint64_t{1} << (ev[f.call].op % 64));
            unlift(f.call);
            e = ev[f.call].next;
        }
    }
    return true;
}

// Records `rounds` short histories of three threads on one queue, emptied
// by drain() before each; every thread makes 70 calls of step(rec, thread,
// rng, i). Returns the first history no order explains (empty: all pass).
template <class Drain, class Step>
std::vector<Op> first_unexplained(int rounds, unsigned seed, const Model &model, Drain &&drain, Step &&step) {
    for (int round = 0; round < rounds; ++round) {
        drain();
        Recorder rec(3);
        lftest::run_threads(3, [&](int t) {
            std::mt19937 rng(seed + round * 3 + t);
            for (int i = 0; i < 70; ++i) step(rec, t, rng, i);
        });
        auto history = rec.history();
        if (!check(history, model)) return history;
    }
    return {};
}

}  // namespace lincheck

#endif

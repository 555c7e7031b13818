// Drives a heap pair with byte-coded operations (insert, both extremes, delete
// by key, walks that remove, raising the top, merge) against a multiset: the
// own extreme must stay exact and every value must come back exactly once.
#include <stdint.h>
#include <string.h>

#include <map>
#include <set>

#include "kerm_binheap.h"

namespace {

struct Side {
    BinHeap *h;
    std::multiset<int32_t> keys;
    std::map<uintptr_t, int32_t> live;  // value -> key
};

void take(Side &s, void *v, int32_t key) {
    auto it = s.live.find(reinterpret_cast<uintptr_t>(v));
    if (it == s.live.end() || it->second != key) __builtin_trap();
    s.keys.erase(s.keys.find(key));
    s.live.erase(it);
}

int32_t key_at(const void *k) {
    int32_t x;
    memcpy(&x, k, sizeof x);
    return x;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint32_t mode = data[0] & 1;
    const bool max_mode = mode == BINHEAP_MODE_MAX;
    Side sides[2];
    for (auto &s : sides) s.h = util_binheap_create(util_binheap_keys_callbacks_int32_t(), mode);
    uintptr_t next = 1;
    for (size_t i = 1; i + 1 < size; i += 2) {
        Side &s = sides[data[i] >> 7];
        const int32_t arg = static_cast<int8_t>(data[i + 1]);  // small keys: the wrapping order is exact
        void *k = nullptr, *v = nullptr;
        switch (data[i] & 7) {
        case 0:
        case 1:
            util_binheap_insert(s.h, &arg, sizeof arg, reinterpret_cast<void *>(next));
            s.keys.insert(arg);
            s.live[next++] = arg;
            break;
        case 2:  // own extreme: exact
            if ((max_mode ? util_binheap_maximum : util_binheap_minimum)(s.h, &k, nullptr, nullptr) != 0) {
                if (!s.keys.empty()) __builtin_trap();
                break;
            }
            if (key_at(k) != (max_mode ? *s.keys.rbegin() : *s.keys.begin())) __builtin_trap();
            {
                int32_t key = key_at(k);
                if ((max_mode ? util_binheap_delete_maximum : util_binheap_delete_minimum)(s.h, &v) != 0) __builtin_trap();
                take(s, v, key);
            }
            break;
        case 3:  // opposite extreme: some entry
            if ((max_mode ? util_binheap_minimum : util_binheap_maximum)(s.h, &k, nullptr, &v) == 0) {
                int32_t key = key_at(k);
                if ((max_mode ? util_binheap_delete_minimum : util_binheap_delete_maximum)(s.h, nullptr) != 0)
                    __builtin_trap();
                take(s, v, key);
            }
            break;
        case 4:
            if (util_binheap_delete(s.h, &arg, sizeof arg, &v) == 0)
                take(s, v, arg);
            else if (!s.keys.empty() && arg == (max_mode ? *s.keys.rbegin() : *s.keys.begin()))
                __builtin_trap();  // the top's key is always found
            break;
        case 5: {  // walk removing entries whose key has the argument's low bit
            struct Ctx {
                Side *s;
                int32_t bit;
                std::map<uintptr_t, int32_t> removed;
            } c{&s, arg & 1, {}};
            uint32_t n = util_binheap_walk(
                s.h,
                [](BinHeap *, const void *kk, uint32_t, void *vv, void *p) -> int32_t {
                    auto *c = static_cast<Ctx *>(p);
                    if ((key_at(kk) & 1) != c->bit) return 1;
                    c->removed[reinterpret_cast<uintptr_t>(vv)] = key_at(kk);
                    return -1;
                },
                &c);
            if (n != s.keys.size()) __builtin_trap();
            for (auto [id, key] : c.removed) take(s, reinterpret_cast<void *>(id), key);
            break;
        }
        case 6:  // the top moves further out: order and cache stay right
            if (!s.keys.empty()) {
                int32_t amount = (arg & 15) + 1;
                int32_t top = max_mode ? *s.keys.rbegin() : *s.keys.begin();
                (max_mode ? util_binheap_increase_maximum : util_binheap_decrease_minimum)(s.h, amount);
                void *val;
                (max_mode ? util_binheap_maximum : util_binheap_minimum)(s.h, nullptr, nullptr, &val);
                take(s, val, top);
                int32_t moved = max_mode ? top + amount : top - amount;
                s.keys.insert(moved);
                s.live[reinterpret_cast<uintptr_t>(val)] = moved;
            }
            break;
        default: {  // merge the other side into this one
            Side &o = sides[1 - (data[i] >> 7)];
            BinHeap *m = util_binheap_merge(s.h, o.h);
            if (m == nullptr) __builtin_trap();
            util_binheap_destroy(s.h);
            s.h = m;
            s.keys.merge(o.keys);
            s.live.merge(o.live);
            if (util_binheap_count(o.h) != 0) __builtin_trap();
            break;
        }
        }
        if (util_binheap_count(s.h) != s.keys.size()) __builtin_trap();
    }
    for (auto &s : sides) {
        void *v;
        void *k;
        while ((max_mode ? util_binheap_maximum : util_binheap_minimum)(s.h, &k, nullptr, nullptr) == 0) {
            int32_t key = key_at(k);
            if (key != (max_mode ? *s.keys.rbegin() : *s.keys.begin())) __builtin_trap();
            (max_mode ? util_binheap_delete_maximum : util_binheap_delete_minimum)(s.h, &v);
            take(s, v, key);
        }
        if (!s.live.empty()) __builtin_trap();
        util_binheap_destroy(s.h);
    }
    return 0;
}

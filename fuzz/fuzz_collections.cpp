// Drives the hash table and the tagged list from operation bytes and checks
// every result against std::map / std::vector references.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "kerm_ht.h"
#include "kerm_list.h"

namespace {

struct Reader {
    const uint8_t *p;
    size_t n;
    uint8_t byte() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
};

void check(bool ok) {
    if (!ok) __builtin_trap();
}

int g_released;
void release(void *v) {
    ++g_released;
    free(v);
}
void *token(uint32_t id) {
    auto *p = static_cast<uint32_t *>(malloc(4));
    *p = id;
    return p;
}
uint32_t id_of(const void *v) { return v ? *static_cast<const uint32_t *>(v) : 0; }

void ht_op(Reader &r, util_ht_t *t, std::map<std::string, std::vector<uint32_t>> &m, uint32_t &next) {
    uint8_t op = r.byte();
    std::string k(1 + r.byte() % 40, 'a');
    k[0] = static_cast<char>('a' + r.byte() % 4);
    k.back() = static_cast<char>('a' + r.byte() % 4);
    auto kl = static_cast<uint32_t>(k.size());
    auto it = m.find(k);
    uint32_t *cur = it == m.end() ? nullptr : &it->second.front();
    bool live = cur && *cur;
    int before = g_released;
    void *prev = nullptr;
    switch (op % 7) {
    case 0: {  // set
        uint32_t id = ++next;
        check(util_ht_set(t, k.data(), kl, token(id), 4) == 0);
        if (live) {
            *cur = id;
            check(g_released == before + 1);
        } else {
            m[k].push_back(id);
        }
        break;
    }
    case 1: {  // get-and-set with prev
        uint32_t id = ++next;
        check(util_ht_get_and_set(t, k.data(), kl, token(id), 4, &prev, nullptr) == 0);
        check(id_of(prev) == (live ? *cur : 0));
        free(prev);
        if (live) *cur = id;
        else m[k].push_back(id);
        break;
    }
    case 2: {  // compare-and-swap
        uint32_t id = ++next, match = op & 0x40 && cur ? *cur : 0xFFFFFFFF;
        void *v = token(id);
        int rc = util_ht_set_if_equals(t, k.data(), kl, v, 4, &match, 4, nullptr, nullptr);
        bool eq = live && match == *cur;
        check(rc == (cur == nullptr ? -1 : eq ? 0 : 1));
        if (eq) *cur = id;
        else free(v);
        break;
    }
    case 3:  // delete
        check(util_ht_delete(t, k.data(), kl, nullptr, nullptr) == (cur ? 0 : -1));
        if (cur) {
            check(g_released == before + (live ? 1 : 0));
            it->second.erase(it->second.begin());
            if (it->second.empty()) m.erase(it);
        }
        break;
    case 4:  // unset
        check(util_ht_unset(t, k.data(), kl, nullptr, nullptr) == (cur ? 0 : -1));
        if (cur) *cur = 0;
        break;
    case 5: {  // walk removing one key's items where the callback says so
        struct Ctx {
            std::string key;
            int removed;
        } ctx{k, 0};
        util_ht_foreach_pair(
            t,
            [](util_ht_t *, const void *kk, uint32_t kkl, void *, uint32_t, void *u) {
                auto *c = static_cast<Ctx *>(u);
                if (std::string(static_cast<const char *>(kk), kkl) != c->key) return 1;
                ++c->removed;
                return -2;
            },
            &ctx);
        check(ctx.removed == (cur ? 1 : 0));
        if (cur) {
            it->second.erase(it->second.begin());
            if (it->second.empty()) m.erase(it);
        }
        break;
    }
    default:
        check(id_of(util_ht_get(t, k.data(), kl, nullptr)) == (cur ? *cur : 0));
        check(util_ht_exists(t, k.data(), kl) == (cur ? 1 : 0));
        break;
    }
    size_t count = 0;
    for (auto &kv : m) count += kv.second.size();
    check(util_ht_count(t) == count);
}

int walk_cb(void *, uint32_t index, void *user) {
    auto *plan = static_cast<std::vector<int> *>(user);
    return index < plan->size() ? (*plan)[index] : 1;
}

int cmp(void *a, void *b) {
    auto x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

void list_op(Reader &r, list_t *l, std::vector<uintptr_t> &m, uintptr_t &next) {
    uint8_t op = r.byte();
    auto pos = static_cast<uint32_t>(r.byte() % (m.size() + 3));
    auto V = [](uintptr_t v) { return reinterpret_cast<void *>(v); };
    auto at = [&](uint32_t p) { return p < m.size() ? m[p] : 0; };
    switch (op % 8) {
    case 0:
        check(list_insert_value(l, V(++next), pos) == 0);
        if (pos > m.size()) m.resize(pos, 0);
        m.insert(m.begin() + pos, next);
        break;
    case 1:
        check(reinterpret_cast<uintptr_t>(list_fetch_value(l, pos)) == at(pos));
        if (pos < m.size()) m.erase(m.begin() + pos);
        break;
    case 2:
        check(reinterpret_cast<uintptr_t>(list_set_value(l, pos, V(++next))) == at(pos));
        if (pos >= m.size()) m.resize(pos + 1, 0);
        m[pos] = next;
        break;
    case 3: {
        auto to = static_cast<uint32_t>(r.byte() % (m.size() + 2));
        int rc = list_move_value(l, pos, to);
        check(rc == (pos < m.size() ? 0 : -1));
        if (rc == 0) {
            uintptr_t v = m[pos];
            m.erase(m.begin() + pos);
            if (to > m.size()) m.resize(to, 0);
            m.insert(m.begin() + to, v);
        }
        break;
    }
    case 4: {  // walk with removals from the next bytes
        std::vector<int> plan;
        for (int i = 0; i < 4; ++i) plan.push_back(static_cast<int>(r.byte() % 4) - 2);
        auto len = static_cast<uint32_t>(r.byte() % 6);
        slice_t *s = slice_create(l, pos, len);
        int calls = slice_foreach_value(s, walk_cb, &plan);
        slice_destroy(s);
        uint32_t p = pos, i = 0;
        while (p < m.size() && i < len) {
            int res = i < plan.size() ? plan[i] : 1;
            ++i;
            if (res == -1 || res == -2) {
                m.erase(m.begin() + p);
                --len;
                if (res == -2) break;
            } else if (res == 0) {
                break;
            } else {
                ++p;
            }
        }
        check(calls == static_cast<int>(i));
        break;
    }
    case 5:
        check(list_sort_all(l, cmp) == 0);
        std::sort(m.begin(), m.end(), std::greater<>());
        if (!m.empty()) {
            uintptr_t key = m[pos % m.size()];
            uint32_t found = list_bsearch_all(l, V(key), cmp);
            // A null key (padding) is refused; every other value is found.
            check(key == 0 ? found == LIST_NOT_FOUND : found < m.size() && m[found] == key);
        }
        break;
    default:
        check(reinterpret_cast<uintptr_t>(list_pick_value(l, pos)) == at(pos));
        break;
    }
    check(list_count(l) == m.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    Reader r{data, size};
    g_released = 0;
    util_ht_t *t = util_ht_create(0, r.byte() & 1 ? 128 : 0, release);
    list_t *l = list_create();
    std::map<std::string, std::vector<uint32_t>> hm;
    std::vector<uintptr_t> lm;
    uint32_t next_id = 0;
    uintptr_t next_val = 0;
    while (r.n > 0) {
        if (r.byte() & 1)
            ht_op(r, t, hm, next_id);
        else
            list_op(r, l, lm, next_val);
    }
    for (uint32_t i = 0; i < lm.size(); ++i) check(reinterpret_cast<uintptr_t>(list_pick_value(l, i)) == lm[i]);
    util_ht_destroy(t);
    list_destroy(l);
    return 0;
}

// Drives the skip list, the trie, the red-black tree and the AVL tree from
// operation bytes, with each structure's checker after every operation. The
// skip list and the red-black tree (with an ordering comparator) are also
// held against std::map; their values are heap blocks released through
// free_value, so ownership mistakes show as leaks or double frees.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>

#include "maps/maps_test_util.h"
#include "containers/maps_internal.h"

namespace {

using maps_test::lex_cmp;
using maps_test::LexLess;

void check(const char *why) {
    if (why) __builtin_trap();
}

void *block(uint8_t tag) {
    auto *p = static_cast<uint8_t *>(malloc(1));
    *p = tag;
    return p;
}

using Model = std::map<std::string, uint8_t, LexLess>;

// A removal's result and handed-out value against the model, which then
// forgets the key.
void removed(int32_t rc, void *out, Model &model, const std::string &key) {
    auto it = model.find(key);
    if (rc != (it == model.end() ? -1 : 0)) __builtin_trap();
    if (out && *static_cast<uint8_t *>(out) != it->second) __builtin_trap();
    free(out);
    if (it != model.end()) model.erase(it);
}

struct Walk {
    const uint8_t *results;
    size_t left;
    Model *model;  // entries the walk removes leave it too (may be null)
};

int32_t next_result(Walk *w) {
    if (!w->left) return 1;
    --w->left;
    static const int32_t kResults[] = {1, 1, 1, 0, -1, -2};
    return kResults[*w->results++ % 6];
}

int32_t rbt_cb(util_rbt *, const void *key, uint32_t len, void *, void *arg) {
    auto *w = static_cast<Walk *>(arg);
    int32_t r = next_result(w);
    if (r == -1 || r == -2) w->model->erase(std::string(static_cast<const char *>(key), len));
    return r;
}
int32_t avlt_cb(util_avlt *, const void *, uint32_t, void *, void *arg) { return next_result(static_cast<Walk *>(arg)); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    util_skiplist *sl = util_skiplist_create(1 + data[0] % 8, data[1] % 100, lex_cmp, free);
    util_trie *trie = util_trie_create(nullptr);
    util_rbt *rbt = util_rbt_create(lex_cmp, free);
    util_rbt *rbt_builtin = util_rbt_create(nullptr, nullptr);
    util_avlt *avlt = util_avlt_create(lex_cmp, nullptr);
    Model sl_model, rbt_model;
    data += 2;
    size -= 2;
    // Each operation: op byte, key length byte (0..7), key bytes.
    for (int ops = 0; size >= 2 && ops < 512; ++ops) {
        uint8_t op = data[0];
        size_t len = data[1] % 8;
        data += 2;
        size -= 2;
        if (len > size) len = size;
        std::string key(reinterpret_cast<const char *>(data), len);
        data += len;
        size -= len;
        const uint32_t klen = uint32_t(len);
        uint8_t tag = op;
        switch (op % 12) {
            case 0: {
                int32_t rc = util_skiplist_insert(sl, key.data(), klen, block(tag));
                if (rc != (sl_model.count(key) ? 1 : 0)) __builtin_trap();
                sl_model[key] = tag;
                break;
            }
            case 1: {
                void *out = nullptr;
                removed(util_skiplist_remove(sl, key.data(), klen, op & 0x80 ? &out : nullptr), out, sl_model, key);
                if (util_skiplist_search(sl, key.data(), klen)) __builtin_trap();
                break;
            }
            case 2: {
                int32_t rc = util_rbt_add(rbt, key.data(), klen, block(tag));
                if (rc != (rbt_model.count(key) ? 1 : 0)) __builtin_trap();
                rbt_model[key] = tag;
                util_rbt_add(rbt_builtin, key.data(), klen, nullptr);
                break;
            }
            case 3: {
                void *out = nullptr;
                removed(util_rbt_remove(rbt, key.data(), klen, op & 0x80 ? &out : nullptr), out, rbt_model, key);
                util_rbt_remove(rbt_builtin, key.data(), klen, nullptr);
                break;
            }
            case 4: {
                // The walk results come from the key bytes.
                Walk w{reinterpret_cast<const uint8_t *>(key.data()), key.size(), &rbt_model};
                (op & 0x80 ? util_rbt_walk_sorted : util_rbt_walk)(rbt, rbt_cb, &w);
                break;
            }
            case 5:
            case 6:
                util_avlt_add(avlt, key.data(), klen, reinterpret_cast<void *>(uintptr_t(tag)));
                break;
            case 7:
                util_avlt_remove(avlt, key.data(), klen, nullptr);
                break;
            case 8: {
                Walk w{reinterpret_cast<const uint8_t *>(key.data()), key.size(), nullptr};
                (op & 0x80 ? util_avlt_walk_sorted : util_avlt_walk)(avlt, avlt_cb, &w);
                break;
            }
            case 9: {
                std::string k(key.c_str());  // up to the first zero byte
                uint8_t copy_src[4] = {tag, tag, tag, tag};
                int32_t copy = op & 0x40;
                if (op & 0x80)
                    util_trie_find_and_insert(trie, k.c_str(), copy ? copy_src : nullptr, copy ? 4 : 0, nullptr,
                                              nullptr, copy);
                else if (op & 0x20)
                    util_trie_find_or_insert(trie, k.c_str(), copy_src, 4, nullptr, nullptr, copy);
                else
                    util_trie_insert(trie, k.c_str(), copy ? copy_src : nullptr, copy ? 4 : 0, copy);
                break;
            }
            case 10: {
                std::string k(key.c_str());
                void *out = nullptr;
                uint32_t before = util_trie_node_count(trie);
                uint32_t gone = util_trie_remove(trie, k.c_str(), op & 0x80 ? &out : nullptr, nullptr);
                if (util_trie_node_count(trie) != before - gone) __builtin_trap();
                if (util_trie_find(trie, k.c_str(), nullptr) && !k.empty()) __builtin_trap();
                break;
            }
            default: {
                uint32_t size_out = 0;
                std::string k(key.c_str());
                util_trie_find(trie, k.c_str(), &size_out);
                void *v = util_skiplist_search(sl, key.data(), klen);
                auto it = sl_model.find(key);
                if ((v != nullptr) != (it != sl_model.end())) __builtin_trap();
                if (v && *static_cast<uint8_t *>(v) != it->second) __builtin_trap();
                break;
            }
        }
        // The structure the operation touched is checked after it.
        switch (op % 12) {
            case 0: case 1: check(kerm::skiplist_check(sl)); break;
            case 2: case 3: case 4:
                check(kerm::rbt_check(rbt, true));
                check(kerm::rbt_check(rbt_builtin, false));
                break;
            case 5: case 6: case 7: case 8: check(kerm::avlt_check(avlt)); break;
            case 9: case 10: check(kerm::trie_check(trie)); break;
            default: break;
        }
        if (util_skiplist_count(sl) != int32_t(sl_model.size())) __builtin_trap();
    }
    struct Count {
        static int32_t cb(util_rbt *, const void *, uint32_t, void *, void *) { return 1; }
    };
    if (util_rbt_walk(rbt, Count::cb, nullptr) != int32_t(rbt_model.size())) __builtin_trap();
    for (auto &e : rbt_model) {
        void *v = nullptr;
        if (util_rbt_find(rbt, e.first.data(), uint32_t(e.first.size()), &v) != 0) __builtin_trap();
        if (*static_cast<uint8_t *>(v) != e.second) __builtin_trap();
    }
    util_skiplist_destroy(sl);
    util_trie_destroy(trie);
    util_rbt_destroy(rbt);
    util_rbt_destroy(rbt_builtin);
    util_avlt_destroy(avlt);
    return 0;
}

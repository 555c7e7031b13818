// Error store driven by arbitrary operation sequences and checked against a
// model: after every sync the active list holds, in order, what the records
// imply; no node is ever lost from the pool.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "kerm_hms.h"

namespace {

using Point = std::pair<uint32_t, uint8_t>;
struct Entry {
    Point point;
    uint8_t status;
    bool operator==(const Entry &o) const { return point == o.point && status == o.status; }
};

uint32_t count_list(const vask_hms_list *l) {
    uint32_t n = 0;
    for (const vask_hms_link *p = l->head.next; p != &l->head; p = p->next) {
        if (p->next->prev != p) abort();
        ++n;
    }
    if (n != l->count) abort();
    return n;
}

std::vector<Entry> active_of(const vask_hms_data *d) {
    std::vector<Entry> out;
    for (const vask_hms_link *p = d->active->head.next; p != &d->active->head; p = p->next) {
        const vask_hms_err &e = reinterpret_cast<const vask_hms_node *>(p)->err;
        out.push_back(Entry{{e.code, e.index}, e.status});
    }
    return out;
}

// A record replaces its point's entry (moving it to the tail) or removes it.
void apply(std::vector<Entry> &list, const Entry &e) {
    list.erase(std::remove_if(list.begin(), list.end(), [&](const Entry &x) { return x.point == e.point; }),
               list.end());
    if (e.status != 0) list.push_back(e);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint32_t nodes = data[0] % 24;
    vask_hms_pool pool{};
    vask_hms_data store{};
    if (vask_hms_pool_init(&pool, nodes) != 0 || vask_hms_data_init(&store) != 0) abort();
    std::vector<Entry> pending, model;
    for (size_t i = 1; i + 1 < size; i += 2) {
        const uint8_t op = data[i], arg = data[i + 1];
        switch (op % 5) {
        case 0:
        case 1: {
            Entry e{{arg % 3u, static_cast<uint8_t>((arg >> 2) % 3)}, static_cast<uint8_t>((arg >> 4) % 3)};
            vask_hms_err rec{e.point.first, e.point.second, e.status};
            int32_t rc = vask_hms_data_insert(&store, &pool, &rec);
            if (rc == 0) pending.push_back(e);
            else if (rc != -1007) abort();
            break;
        }
        case 2:
            vask_hms_data_client_sync(&store, &pool);
            for (const auto &e : pending) apply(model, e);
            pending.clear();
            break;
        case 3:
            vask_hms_data_server_sync(&store, &pool);
            if (!pending.empty()) model.clear();  // a batch is the whole list
            for (const auto &e : pending) apply(model, e);
            pending.clear();
            break;
        default:
            if (arg & 1) {
                vask_hms_data_reset(&store, &pool);
                model.clear();
            } else {
                vask_hms_data_reset_recv(&store, &pool);
            }
            pending.clear();
            break;
        }
        if (!(active_of(&store) == model)) abort();
        if (store.send_cursor != &store.active->head) abort();
        const uint32_t held = count_list(store.recv) + count_list(store.spare) + count_list(store.active) +
                              count_list(store.standby) + count_list(pool.free_list);
        if (held != nodes) abort();
    }
    vask_hms_data_deinit(&store);
    vask_hms_pool_deinit(&pool);
    return 0;
}

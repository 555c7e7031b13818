// The heap's records, for the families and tests that look inside. Not installed.
#ifndef KERM_BINHEAP_INTERNAL_H
#define KERM_BINHEAP_INTERNAL_H

#include <stdint.h>

#include "kerm_binheap.h"
#include "kerm_list.h"

struct BinHeapNode {
    uint8_t *key;  // the heap's own copy
    uint32_t klen;
    void *value;
    BinHeapNode *parent;     // null for a root
    BinHeapNode **children;  // grown one slot per added child
    int32_t num_children;    // the degree
};

struct BinHeap {
    list_t *roots;  // BinHeapNode pointers, front = lowest degree
    BinHeapNode *top;  // cached extreme of the heap's own mode, or null
    const BinHeapKeyCallbacks *callbacks;
    uint32_t count;
    uint32_t mode;
};

#endif

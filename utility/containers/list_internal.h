// Entry layout of the tagged list, shared with the white-box tests. Not installed.
#ifndef KERM_LIST_INTERNAL_H
#define KERM_LIST_INTERNAL_H

#include "kerm_list.h"

struct list_entry_s {
    list_t *owner;
    list_entry_t *prev;
    list_entry_t *next;
    void *value;
    uint32_t tagged; /* 1 when value is a tagged value the list owns */
};

#endif

// The vector's record, shared with the families built on it (the state
// machine holds the vector's lock across a lookup and a removal). Not installed.
#ifndef KERM_VECTOR_INTERNAL_H
#define KERM_VECTOR_INTERNAL_H

#include <pthread.h>
#include <stdint.h>

#include "kerm_vector.h"

struct util_vector {
    uint32_t count;
    void **items;          // exactly `count` slots; null when empty
    pthread_mutex_t lock;  // recursive
};

#endif

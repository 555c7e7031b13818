/* Two producers hand numbered jobs to two consumers through the lock-free
 * double-ended queue, and the consumers report each finished job back
 * through a ring queue; the main thread checks that every job came back
 * exactly once. */
#include <pthread.h>
#include <sched.h>
#include <stdint.h>
#include <stdio.h>

#include "kerm_queue.h"
#include "kerm_rqueue.h"

#define JOBS_PER_PRODUCER 5000

static util_queue_t *jobs;
static util_rqueue_t *done;

static void *produce(void *arg) {
    uintptr_t base = (uintptr_t)arg * JOBS_PER_PRODUCER;
    for (uintptr_t i = 1; i <= JOBS_PER_PRODUCER; ++i) util_queue_push_right(jobs, (void *)(base + i));
    return NULL;
}

static void *consume(void *arg) {
    (void)arg;
    for (;;) {
        void *job = util_queue_pop_left(jobs);
        if (!job) {
            sched_yield();
            continue;
        }
        if (job == (void *)UINTPTR_MAX) return NULL; /* stop sign */
        while (util_rqueue_write(done, job) != 0) sched_yield();
    }
}

int main(void) {
    static unsigned char seen[2 * JOBS_PER_PRODUCER + 1];
    pthread_t producers[2], consumers[2];
    unsigned long received = 0, twice = 0;
    int i;

    jobs = util_queue_create();
    done = util_rqueue_create(256, UTIL_RQUEUE_MODE_BLOCKING);
    if (!jobs || !done) return 1;
    for (i = 0; i < 2; ++i) {
        pthread_create(&producers[i], NULL, produce, (void *)(uintptr_t)i);
        pthread_create(&consumers[i], NULL, consume, NULL);
    }
    while (received < 2 * JOBS_PER_PRODUCER) {
        uintptr_t job = (uintptr_t)util_rqueue_read(done);
        if (!job) {
            sched_yield();
            continue;
        }
        twice += seen[job]++ != 0;
        ++received;
    }
    for (i = 0; i < 2; ++i) {
        pthread_join(producers[i], NULL);
        util_queue_push_right(jobs, (void *)UINTPTR_MAX);
    }
    for (i = 0; i < 2; ++i) pthread_join(consumers[i], NULL);
    printf("jobs done: %lu, done twice: %lu, left in the queue: %u\n", received, twice, util_queue_count(jobs));
    printf("ring queue: %llu written, %llu read\n", (unsigned long long)util_rqueue_write_count(done),
           (unsigned long long)util_rqueue_read_count(done));
    util_rqueue_destroy(done);
    util_queue_destroy(jobs);
    return twice != 0;
}

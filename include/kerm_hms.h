/** @file kerm_hms.h
 * @brief Health monitoring: error records, the node pool and the error store, the
 * health client with its worker thread, and the report message layout. */
#ifndef KERM_HMS_H
#define KERM_HMS_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <time.h>

#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** One error point's state: the 6-byte record, packed so that arrays of it
 * have the same layout as the report entries. Two records denote the same
 * error point when code and index are equal. */
typedef struct vask_hms_err {
    uint32_t code;  /**< error code of the rule or of the injected error */
    uint8_t index;  /**< sub-index within the code's range */
    uint8_t status; /**< 0 = no error / cleared */
} __attribute__((packed)) vask_hms_err;

/** List links; a list's sentinel is one of these, so an empty list's links
 * point at the sentinel itself. */
typedef struct vask_hms_link {
    struct vask_hms_link *next;
    struct vask_hms_link *prev;
} vask_hms_link;

/** List node: the links, then the record (16 bytes on a 32-bit target). */
typedef struct vask_hms_node {
    vask_hms_link link;
    vask_hms_err err;
} vask_hms_node;

/** Counted, sentinel-headed doubly linked list: append at the tail, take from
 * the head. */
typedef struct vask_hms_list {
    uint32_t count;
    vask_hms_link head;
} vask_hms_list;

/** Most nodes a pool can hold. */
#define VASK_HMS_POOL_MAX 1024u
/** Fixed supply of nodes, handed out first in, first out. */
typedef struct vask_hms_pool {
    sem_t lock;
    vask_hms_list *free_list;
} vask_hms_pool;

/** Store callback: called with the record that raised, changed or cleared an error. */
typedef void (*vask_hms_notify_fn)(void *user, const vask_hms_err *err);

/** Error store. The caller fills user and the three callbacks itself; init
 * leaves them alone. */
typedef struct vask_hms_data {
    sem_t recv_lock;        /**< guards recv and spare */
    vask_hms_list *recv;    /**< insert appends here */
    vask_hms_list *spare;   /**< swapped with recv at each sync */
    sem_t state_lock;       /**< guards active, standby and send_cursor */
    vask_hms_list *active;  /**< errors currently raised */
    vask_hms_list *standby; /**< server sync only; empty between syncs */
    vask_hms_link *send_cursor; /**< last packed node, or active's sentinel */
    void *user;
    vask_hms_notify_fn on_raised;
    vask_hms_notify_fn on_changed;
    vask_hms_notify_fn on_cleared;
} vask_hms_data;

/** Detection rule: detect(arg, k) is polled for k in first_index..last_index. */
typedef uint8_t (*vask_hms_detect_fn)(void *arg, uint8_t index);
/** One rule of the client's detection table. */
typedef struct vask_hms_detect_rule {
    uint8_t enabled; /**< 0 = skipped */
    vask_hms_detect_fn detect;
    void *arg;
    uint32_t code;
    uint8_t first_index;
    uint8_t last_index; /**< inclusive */
} vask_hms_detect_rule;

/** Sends one report message to one host; 0 = sent. */
typedef int32_t (*vask_hms_send_fn)(void *user, uint16_t host, const uint8_t *msg, uint16_t len);

/** Client configuration; copied whole (rules included) by create. */
typedef struct vask_hms_config {
    uint32_t busy_period_us; /**< tick period while a cycle spans several messages */
    uint32_t period_us;      /**< normal tick period and detection period */
    uint32_t start_delay_us; /**< worker sleep before its first tick */
    const vask_hms_detect_rule *rules; /**< NULL = no detection */
    int32_t rule_count;
    uint8_t max_items;      /**< entries per message; 0 = 5 */
    int16_t pool_size;      /**< pool nodes, at most 1024; 0 = 255 */
    uint8_t subscriber_max; /**< subscriber slots; 0 = 3 */
    void *user;             /**< first argument of send_cb */
    vask_hms_send_fn send_cb;
} vask_hms_config;

/** A rule as the client runs it. */
typedef struct vask_hms_rule_state {
    vask_hms_detect_rule rule;
    uint8_t injected;     /**< set by inject: the rule is skipped */
    uint8_t *prev_status; /**< last status per sub-index */
} vask_hms_rule_state;

/** Subscriber slot: a host that receives the reports. */
typedef struct vask_hms_subscriber {
    uint8_t in_use;
    uint8_t value;
    uint16_t host;
} vask_hms_subscriber;

/** Health client, made by vask_hms_create_client(); callers only pass it back. */
typedef struct vask_hms_client {
    vask_hms_config cfg;
    pthread_t thread;
    struct timespec wake;       /**< next wake time, CLOCK_MONOTONIC */
    sem_t timer_lock;           /**< guards wake and period_now */
    uint32_t period_now;        /**< current tick period, microseconds */
    uint8_t restart_req;
    uint8_t suspended;
    uint8_t stop_req;
    uint8_t cycle_busy;         /**< a report cycle is partly sent */
    struct timespec next_detect;
    vask_hms_rule_state *rules;
    vask_hms_subscriber *subs;
    vask_hms_data data;
    vask_hms_pool pool;
    uint8_t cycle_seq;
    uint8_t packet_index;
} vask_hms_client;

/** Report message: 3-byte header, then 6-byte entries {code (native order),
 * index, status}. */
#define VASK_HMS_MSG_HEADER 3u
#define VASK_HMS_MSG_ENTRY 6u
#define VASK_HMS_MSG_MAX 1005u
#define VASK_HMS_MSG_MAX_ENTRIES 167u
#define VASK_HMS_MSG_LAST 0x80u  /**< byte 2: last message of the cycle */
#define VASK_HMS_MSG_INDEX 0x7Fu /**< byte 2: packet index within the cycle */

/** Node pool: allocates count nodes (at most 1024) and the pool's lock.
 * @return 0, KERM_ERR_PARAM (count above 1024) or KERM_ERR_NO_MEMORY; on a
 * failure nothing stays allocated. */
KERM_API int32_t vask_hms_pool_init(vask_hms_pool *pool, uint32_t count) KERM_NOEXCEPT;
/** Frees every node of the pool and its lock.
 * @return 0, or KERM_ERR_PARAM for a null pool. */
KERM_API int32_t vask_hms_pool_deinit(vask_hms_pool *pool) KERM_NOEXCEPT;

/** Error store: allocates its four lists and its two locks; the callbacks and
 * user stay as the caller set them.
 * @return 0, KERM_ERR_NO_MEMORY, or -1 when a lock cannot be made. */
KERM_API int32_t vask_hms_data_init(vask_hms_data *data) KERM_NOEXCEPT;
/** Frees the store's nodes (to the heap, not to a pool), lists and locks.
 * @return 0, or KERM_ERR_PARAM for a null store. */
KERM_API int32_t vask_hms_data_deinit(vask_hms_data *data) KERM_NOEXCEPT;
/** Queues a copy of err on the receive list, in a node taken from pool; the
 * next sync applies it.
 * @return 0, KERM_ERR_PARAM, or KERM_ERR_EXHAUSTED when the pool is empty (the
 * record is dropped). */
KERM_API int32_t vask_hms_data_insert(vask_hms_data *data, vask_hms_pool *pool, const vask_hms_err *err) KERM_NOEXCEPT;
/** Gives every node of the receive list back to pool.
 * @return 0, or KERM_ERR_PARAM for a null store. */
KERM_API int32_t vask_hms_data_reset_recv(vask_hms_data *data, vask_hms_pool *pool) KERM_NOEXCEPT;
/** Gives every node of every list back to pool: the store forgets all errors.
 * @return 0, or KERM_ERR_PARAM for a null store. */
KERM_API int32_t vask_hms_data_reset(vask_hms_data *data, vask_hms_pool *pool) KERM_NOEXCEPT;
/** Reporter side: applies the received records one by one to the active list
 * (raise, change, clear), calling the store's callbacks.
 * @return 0, or KERM_ERR_PARAM. */
KERM_API int32_t vask_hms_data_client_sync(vask_hms_data *data, vask_hms_pool *pool) KERM_NOEXCEPT;
/** Receiving side: takes a non-empty batch of received records as the
 * reporter's complete list of active errors; errors missing from it are
 * cleared. An empty receive list changes nothing.
 * @return 0, or KERM_ERR_PARAM. */
KERM_API int32_t vask_hms_data_server_sync(vask_hms_data *data, vask_hms_pool *pool) KERM_NOEXCEPT;

/** Creates a client (not yet running) from a copy of cfg, with its store,
 * pool, rule table and subscriber slots. The worker is woken by signal 10
 * (SIGUSR1) on destroy: the process must handle or ignore that signal first.
 * @return 0 with *out set, KERM_ERR_PARAM, KERM_ERR_NO_MEMORY, or the pool's
 * failure. */
KERM_API int32_t vask_hms_create_client(const vask_hms_config *cfg, vask_hms_client **out) KERM_NOEXCEPT;
/** Starts the worker thread that detects, syncs and reports every period.
 * Call once per client.
 * @return 0, KERM_ERR_PARAM, KERM_ERR_EXHAUSTED (no timer lock), or the
 * thread creation's error. */
KERM_API int32_t vask_hms_start_client(vask_hms_client *client) KERM_NOEXCEPT;
/** @{ */
/** Suspend, resume or restart the worker: each only sets a flag that the
 * worker acts on at its next tick.
 * @return 0, or KERM_ERR_PARAM for a null client. */
KERM_API int32_t vask_hms_suspend_client(vask_hms_client *client) KERM_NOEXCEPT;
KERM_API int32_t vask_hms_resume_client(vask_hms_client *client) KERM_NOEXCEPT;
KERM_API int32_t vask_hms_restart_client(vask_hms_client *client) KERM_NOEXCEPT;
/** @} */
/** Stops and joins the worker (waking it with SIGUSR1) and frees the client.
 * @return 0, KERM_ERR_PARAM, or KERM_ERR_FAIL when called on the worker
 * thread itself (nothing is done then). */
KERM_API int32_t vask_hms_destroy_client(vask_hms_client *client) KERM_NOEXCEPT;
/** Subscribes host to the reports (value not 0), taking the first slot that is
 * free or already the host's. value 0 unsubscribes every host, whoever asks.
 * @return 0, KERM_ERR_PARAM, or KERM_ERR_EXHAUSTED when no slot is left. */
KERM_API int32_t vask_hms_set_subscriber(vask_hms_client *client, uint16_t host, uint8_t value) KERM_NOEXCEPT;
/** Reports err directly, as a detector would; status 0 clears it.
 * @return vask_hms_data_insert()'s result, or KERM_ERR_PARAM. */
KERM_API int32_t vask_hms_insert_err(vask_hms_client *client, const vask_hms_err *err) KERM_NOEXCEPT;
/** Like vask_hms_insert_err(), and also marks the first rule with err's code as
 * injected while err's status is not 0: the worker skips that rule's detector
 * until a record with status 0 is injected.
 * @return vask_hms_data_insert()'s result, or KERM_ERR_PARAM. */
KERM_API int32_t vask_hms_inject_err(vask_hms_client *client, const vask_hms_err *err) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif

/* Receiving side of health monitoring: listens for report messages by UDP on
 * 127.0.0.1, keeps one error store per reporter (by sender address) and runs
 * the server sync at each message that ends a report cycle, printing what
 * was raised, changed and cleared.
 *
 *   example_hms_monitor PORT      (Ctrl-C to stop)
 *
 * Messages of one cycle are expected in order; a cycle with a missing message
 * is dropped rather than read as a list of cleared errors. */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kerm_hms.h"

#define MAX_REPORTERS 8

struct reporter {
    struct sockaddr_in addr;
    char name[32];
    vask_hms_data store;
    int in_cycle;
    uint8_t seq, next_index;
    uint32_t entries;
};

static struct reporter reporters[MAX_REPORTERS];
static int reporter_count;
static vask_hms_pool pool;
static volatile sig_atomic_t stop;

static void on_signal(int sig) {
    (void)sig;
    stop = 1;
}

static void print_event(void *user, const char *what, const vask_hms_err *e) {
    printf("[%s] %s code=0x%08x index=%u status=%u\n", ((struct reporter *)user)->name, what, (unsigned)e->code,
           e->index, e->status);
    fflush(stdout);
}
static void on_raised(void *u, const vask_hms_err *e) { print_event(u, "raised", e); }
static void on_changed(void *u, const vask_hms_err *e) { print_event(u, "changed", e); }
static void on_cleared(void *u, const vask_hms_err *e) { print_event(u, "cleared", e); }

static struct reporter *find_reporter(const struct sockaddr_in *from) {
    int i;
    for (i = 0; i < reporter_count; ++i)
        if (reporters[i].addr.sin_addr.s_addr == from->sin_addr.s_addr && reporters[i].addr.sin_port == from->sin_port)
            return &reporters[i];
    if (reporter_count == MAX_REPORTERS) return NULL;
    struct reporter *r = &reporters[reporter_count];
    memset(r, 0, sizeof *r);
    if (vask_hms_data_init(&r->store) != 0) return NULL;
    reporter_count++;
    r->addr = *from;
    snprintf(r->name, sizeof r->name, "%s:%u", inet_ntoa(from->sin_addr), ntohs(from->sin_port));
    r->store.user = r;
    r->store.on_raised = on_raised;
    r->store.on_changed = on_changed;
    r->store.on_cleared = on_cleared;
    return r;
}

static void take_report(struct reporter *r, const uint8_t *b, size_t len) {
    /* An empty report means "nothing active": a status-0 record for a point
     * nobody reports turns it into a batch that clears everything held. */
    static const vask_hms_err nothing_active = {0xFFFFFFFFu, 0xFF, 0};
    size_t off;
    uint8_t index;
    if (len < VASK_HMS_MSG_HEADER || len > VASK_HMS_MSG_MAX || (len - VASK_HMS_MSG_HEADER) % VASK_HMS_MSG_ENTRY)
        return;
    index = b[2] & VASK_HMS_MSG_INDEX;
    /* The index wraps in 7 bits: 0 on the current cycle's sequence carries on. */
    if (index == 0 && !(r->in_cycle && b[1] == r->seq && r->next_index == 0)) {
        vask_hms_data_reset_recv(&r->store, &pool);
        r->in_cycle = 1;
        r->seq = b[1];
        r->entries = 0;
    } else if (!r->in_cycle || b[1] != r->seq || index != r->next_index) {
        vask_hms_data_reset_recv(&r->store, &pool);
        r->in_cycle = 0;
        return;
    }
    r->next_index = (uint8_t)((index + 1) & VASK_HMS_MSG_INDEX);
    for (off = VASK_HMS_MSG_HEADER; off < len; off += VASK_HMS_MSG_ENTRY, r->entries++) {
        vask_hms_err e;
        memcpy(&e.code, b + off, sizeof e.code);
        e.index = b[off + 4];
        e.status = b[off + 5];
        vask_hms_data_insert(&r->store, &pool, &e);
    }
    if (b[2] & VASK_HMS_MSG_LAST) {
        if (r->entries == 0) vask_hms_data_insert(&r->store, &pool, &nothing_active);
        vask_hms_data_server_sync(&r->store, &pool);
        r->in_cycle = 0;
    }
}

int main(int argc, char **argv) {
    struct sockaddr_in addr;
    struct sigaction sa;
    int fd, i;
    if (argc != 2) {
        fprintf(stderr, "usage: %s PORT\n", argv[0]);
        return 2;
    }
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)atoi(argv[1]));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0 || bind(fd, (struct sockaddr *)&addr, sizeof addr) != 0) {
        perror("bind");
        return 1;
    }
    if (vask_hms_pool_init(&pool, VASK_HMS_POOL_MAX) != 0) return 1;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal; /* no SA_RESTART: recvfrom returns on Ctrl-C */
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);
    while (!stop) {
        uint8_t buf[VASK_HMS_MSG_MAX + 64];
        struct sockaddr_in from;
        socklen_t flen = sizeof from;
        ssize_t n = recvfrom(fd, buf, sizeof buf, 0, (struct sockaddr *)&from, &flen);
        struct reporter *r;
        if (n < 0) continue;
        r = find_reporter(&from);
        if (r != NULL) take_report(r, buf, (size_t)n);
    }
    for (i = 0; i < reporter_count; ++i) vask_hms_data_deinit(&reporters[i].store);
    vask_hms_pool_deinit(&pool);
    close(fd);
    return 0;
}

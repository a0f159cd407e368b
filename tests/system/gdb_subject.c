/* SPDX-License-Identifier: Apache-2.0 */
/* Fills one of everything that the gdb extension shows, then ends with a core file. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <utils/evlog.h>
#include <utils/hash.h>
#include <utils/log_cache.h>
#include <utils/lst.h>
#include <utils/msgq.h>
#include <utils/qel_string.h>
#include <utils/timer_r.h>

struct port {
    NODE link;
    int number;
};

LIST ports;
LIST damaged;
LIST no_nodes;
msgQHandle events, no_messages;
timerHandle every, once, idle;
qelString *text, *no_text;
Buffer bytes, no_bytes;
hash_table *table, *no_keys;
qel_evlog_db logs, no_logs;
qel_evlog_handle *no_events;

static void on_timer(uintptr_t number, uintptr_t unused) {
    (void)number;
    (void)unused;
}

int main(void) {
    lstInit(&ports);
    lstInit(&damaged);
    for (int i = 0; i < 3; ++i) {
        struct port *port = calloc(2, sizeof *port);
        port[0].number = 40 + i;
        lstAdd(&ports, &port[0].link);
        lstAdd(&damaged, &port[1].link);
    }
    damaged.tail->next = damaged.head;
    events = msgQCreate(8, sizeof(timer_message), 0, "events");
    msgQSend(events, "hello", 6);
    timer_message expiry = {.type = TIMER_MESSAGE_TYPE, .time_ms = 4711};
    msgQSend(events, &expiry, sizeof expiry);
    every = timer_create_periodic_r(events, on_timer, 7, 0);
    once = timer_create_r(NULL, on_timer, 8, 9);
    idle = timer_create_r(events, on_timer, 0, 0);
    timer_set_r(every, 3600000);
    timer_set_r(once, 1800000);
    text = qelStringInit(0, 0);
    text->ops->appendf(text, "port %d says \"%s\"", 41, "ready");
    initBuffer(&bytes, 16);
    appendBuffer(&bytes, "raw", 3);
    table = create_hash_table(pid_hash, pid_cmp);
    add_to_hash(1234, 0x51, table);
    add_to_hash(1234, 0x52, table);
    lstInit(&no_nodes);
    no_messages = msgQCreate(8, sizeof(timer_message), 0, "silence");
    no_text = qelStringInit(0, 0);
    initBuffer(&no_bytes, 16);
    no_keys = create_hash_table(pid_hash, pid_cmp);
    qel_evlog_init(&no_logs);
    qel_evlog_init(&logs);
    qel_evlog_handle *log = qel_evlog_newHandle(&logs, 4, "fabric", "fab");
    for (int i = 1; i <= 6; ++i)
        qel_evlog(log, "event %d of 6\n", i);
    no_events = qel_evlog_newHandle(&logs, 4, "quiet", "quiet");
    log->entries[1].seconds = INT32_MIN; /* in 2038 */
    log_cache_init("subject");
    for (int i = 0; i < 2000; ++i)
        log_cache_write("line %d of the cache\n", i);
    abort();
}

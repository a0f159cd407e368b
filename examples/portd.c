/* portd: a small daemon that watches the network ports of the machine. It keeps no thread of its
   own: its timers post their expiry messages to one queue, and the main loop receives them and runs
   their handlers. It exits 0 only when every expiry that it expects has come. */
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <utils/clock.h>
#include <utils/msgq.h>
#include <utils/task.h>
#include <utils/timer_r.h>

enum { MAX_PORTS = 32, ROUND_MS = 500, ROUNDS = 8, GREETING_MS = 1200 };

struct port {
    char name[32];
    uint64_t rx, tx;
};

struct daemon {
    msgQHandle events;
    struct port ports[MAX_PORTS];
    int port_count;
    int rounds;
    int greetings;
    uint32_t last_ms;
};

static struct port *find_port(struct daemon *d, const char *name) {
    for (int i = 0; i < d->port_count; ++i)
        if (strcmp(d->ports[i].name, name) == 0)
            return &d->ports[i];
    if (d->port_count == MAX_PORTS)
        return NULL;
    struct port *port = &d->ports[d->port_count++];
    snprintf(port->name, sizeof port->name, "%s", name);
    return port;
}

/* Reads the counters of every port and prints those that changed since the last round. */
static void read_counters(struct daemon *d, uint32_t elapsed_ms) {
    FILE *table = fopen("/proc/net/dev", "r");
    char line[512], name[32];
    uint64_t rx, tx;
    int changed = 0;
    while (table != NULL && fgets(line, sizeof line, table) != NULL) {
        if (sscanf(line, " %31[^:]: %" SCNu64 " %*u %*u %*u %*u %*u %*u %*u %" SCNu64, name, &rx,
                   &tx) != 3)
            continue;
        struct port *port = find_port(d, name);
        if (port == NULL)
            continue;
        if (elapsed_ms > 0 && (rx != port->rx || tx != port->tx)) {
            printf("portd:   %-8s received %8" PRIu64 " bytes/s, sent %8" PRIu64 " bytes/s\n", name,
                   (rx - port->rx) * 1000 / elapsed_ms, (tx - port->tx) * 1000 / elapsed_ms);
            ++changed;
        }
        port->rx = rx;
        port->tx = tx;
    }
    if (table != NULL)
        fclose(table);
    if (elapsed_ms > 0 && changed == 0)
        printf("portd:   no port has moved a byte\n");
}

static void on_round(uintptr_t daemon_word, uintptr_t time_ms_word) {
    struct daemon *d = (struct daemon *)daemon_word;
    uint32_t now = msSysClk();
    (void)time_ms_word;
    printf("portd: round %d of %d, %" PRIu32 " ms after the one before\n", ++d->rounds, ROUNDS,
           now - d->last_ms);
    read_counters(d, now - d->last_ms);
    d->last_ms = now;
}

static void on_greeting(uintptr_t daemon_word, uintptr_t unused) {
    struct daemon *d = (struct daemon *)daemon_word;
    (void)unused;
    ++d->greetings;
    printf("portd: the one-shot timer of %d ms has fired\n", GREETING_MS);
}

int main(void) {
    static struct daemon d;
    printf("portd: task %d\n", taskInit("portd"));
    d.events = msgQCreate(16, TIMER_MESSAGE_LENGTH, 0, "portd");
    timerHandle round = timer_create_periodic_r(d.events, on_round, (uintptr_t)&d, 0);
    timerHandle greeting = timer_create_r(d.events, on_greeting, (uintptr_t)&d, 0);
    if (d.events == NULL || round == NULL || greeting == NULL) {
        fprintf(stderr, "portd: cannot start\n");
        return 1;
    }
    d.last_ms = msSysClk();
    read_counters(&d, 0);
    timer_set_r(round, ROUND_MS);
    timer_set_r(greeting, GREETING_MS);
    while (d.rounds < ROUNDS) {
        timer_message event;
        if (msgQReceive(d.events, &event, sizeof event, 4 * ROUND_MS) != 0) {
            fprintf(stderr, "portd: an expiry is missing\n");
            return 1;
        }
        if (event.type == TIMER_MESSAGE_TYPE)
            event.handler(event.arg1, event.arg2);
    }
    msgQShow(d.events);
    timer_delete_r(round);
    timer_delete_r(greeting);
    timer_close_r();
    printf("portd: %d rounds and %d greeting, as expected\n", d.rounds, d.greetings);
    return d.greetings == 1 ? 0 : 1;
}

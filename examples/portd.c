/* SPDX-License-Identifier: Apache-2.0 */
/* portd: a daemon that watches the network ports of the machine, and that qelctl can operate.
   Every change of a port goes through the callback registry.
     portd [-s SWITCH] [-n NAME] [-r ROUNDS] [-p PERIOD_MS]
   With ROUNDS it ends by itself, with 0 only if every expiry that it expects has come. */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <utils/daemon.h>
#include <utils/utils.h>

enum { MAX_PORTS = 32, GREETING_MS = 700 };

/* What the registry routes: a port that moved, and one that kept still. */
enum { PORT_EVENTS = 0x504F5254, PORT_GROUP = 1, PORT_MOVED = 1, PORT_QUIET = 2, MOVED = 9 };

struct port {
    char name[32];
    unsigned long long rx, tx, rx_rate, tx_rate;
};

struct port_message {
    uint8_t type, unset[3];
    uint32_t port, reserved, time_ms; /* the registry stamps the time */
    uint8_t rest[40];
};

static struct port ports[MAX_PORTS];
static int port_count, rounds, greetings, wanted_rounds, period_ms = 500;
static char table_path[128];
static uint32_t last_round_ms;
static qel_evlog_handle *port_log, *command_log;
static procrwlock_t table_lock;

/* ---- Counters: read every round, dispatched as events, written to a table for all to read. ----
 */

static int32_t classify_port(void *argument) {
    const struct port *p = argument;
    return p->rx_rate + p->tx_rate > 0 ? PORT_MOVED : PORT_QUIET;
}

static const cb_ops port_classifier = {NULL, classify_port};

static int note_moved(void *argument) {
    const struct port *p = argument;
    qel_evlog(port_log, "%s: in %llu B/s, out %llu B/s\n", p->name, p->rx_rate, p->tx_rate);
    return 0;
}

static struct port *find_port(const char *port_name) {
    for (int i = 0; i < port_count; ++i)
        if (strcmp(ports[i].name, port_name) == 0)
            return &ports[i];
    if (port_count == MAX_PORTS)
        return NULL;
    snprintf(ports[port_count].name, sizeof ports[0].name, "%s", port_name);
    return &ports[port_count++];
}

static void read_counters(uint32_t elapsed_ms) {
    FILE *file = fopen("/proc/net/dev", "re");
    char line[512], word[32];
    unsigned long long rx, tx;
    while (file != NULL && fgets(line, sizeof line, file) != NULL) {
        if (sscanf(line, " %31[^:]: %llu %*u %*u %*u %*u %*u %*u %*u %llu", word, &rx, &tx) != 3)
            continue;
        struct port *port = find_port(word);
        if (port != NULL && elapsed_ms > 0) {
            port->rx_rate = (rx - port->rx) * 1000 / elapsed_ms;
            port->tx_rate = (tx - port->tx) * 1000 / elapsed_ms;
            struct port_message message = {.type = MOVED, .port = (uint32_t)(port - ports)};
            if (cb_dispatch(PORT_EVENTS, PORT_GROUP, &message, port) != 0)
                log_cache_write("%s: the queue has refused an event\n", port->name);
        }
        if (port != NULL)
            port->rx = rx, port->tx = tx;
    }
    if (file != NULL)
        fclose(file);
}

/* The table is shared with other processes, so it is written under the process lock. It is made
   anew, since anybody may have put something into its place. */
static void write_table(void) {
    if (procrwlock_wrlock(&table_lock) != 0)
        return;
    unlink(table_path);
    int fd = open(table_path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    FILE *file = fd >= 0 ? fdopen(fd, "w") : NULL;
    for (int i = 0; file != NULL && i < port_count; ++i)
        fprintf(file, "%-10s in %10llu B/s  out %10llu B/s\n", ports[i].name, ports[i].rx_rate,
                ports[i].tx_rate);
    if (file != NULL)
        fclose(file);
    procrwlock_wrunlock(&table_lock);
}

static void on_round(uintptr_t unused1, uintptr_t unused2) {
    uint32_t now = msSysClk(), elapsed = now - last_round_ms;
    (void)unused1, (void)unused2;
    last_round_ms = now;
    printf("%s: round %d, %u ms after the one before\n", daemon_name(), ++rounds,
           (unsigned)elapsed);
    read_counters(elapsed > 0 ? elapsed : 1);
    write_table();
    log_cache_write("round %d\n", rounds);
    if (rounds == wanted_rounds)
        daemon_stop(greetings == 1 ? 0 : 1);
}

static void on_greeting(uintptr_t unused1, uintptr_t unused2) {
    (void)unused1, (void)unused2;
    ++greetings;
    printf("%s: the one-shot timer of %d ms has fired\n", daemon_name(), GREETING_MS);
}

/* ---- Commands: each runs on its client's thread and writes to its client's stream. ---- */

static int cmd_ports(int argc, char **argv, FILE *out) {
    (void)argc, (void)argv;
    if (procrwlock_rdlock(&table_lock) != 0)
        return 1;
    FILE *file = fopen(table_path, "re");
    for (int c; file != NULL && (c = getc(file)) != EOF;)
        putc(c, out);
    if (file != NULL)
        fclose(file);
    return procrwlock_rdunlock(&table_lock);
}

static int cmd_sleep(int argc, char **argv, FILE *out) {
    int seconds = 1;
    if (argc > 1 && clafGetInt(argv[1], &seconds) != 0)
        return fprintf(out, "not a number: %s\n", argv[1]), 1;
    taskDelay(seconds * TASK_TICKS_PER_SECOND);
    return fprintf(out, "slept %d s\n", seconds) < 0;
}

static const daemon_command commands[] = {
    {"ports", NULL, "the rates of every port", cmd_ports, 0},
    {"events", NULL, "the event logs", daemon_cmd_events, 0},
    {"log", NULL, "the log cache", daemon_cmd_log, 0},
    {"stats", NULL, "append the service statistics to the report", daemon_cmd_stats, 0},
    {"sleep", "[SECONDS]", "sleep, then say so", cmd_sleep, 0},
    {NULL, NULL, NULL, NULL, 0}};

/* ---- Start and end. ---- */

static int start(void *unused) {
    (void)unused;
    snprintf(table_path, sizeof table_path, DAEMON_FILE_FORMAT, daemon_name(), getMySwitch(),
             "table");
    int lock = daemon_own_file("table.lock");
    if (lock < 0 || procrwlock_init(&table_lock, lock) != 0)
        return daemon_refuse("lock of the table");
    cb_register(PORT_EVENTS, PORT_GROUP, &port_classifier, PORT_MOVED, note_moved, daemon_queue());
    last_round_ms = msSysClk();
    read_counters(0);
    uint32_t period = period_ms < 50 ? 50 : (uint32_t)period_ms;
    if (timer_set_r(daemon_new_timer("round", 1, on_round, 0, 0), period) != 0 ||
        timer_set_r(daemon_new_timer("greeting", 0, on_greeting, 0, 0), GREETING_MS) != 0)
        return daemon_refuse("timers");
    printf("%s: task %d serves switch %d\n", daemon_name(), taskIdSelf(), getMySwitch());
    qel_evlog(command_log, "started as process %d\n", taskIdSelf());
    return 0;
}

static void on_message(const void *message, void *unused) {
    const struct port *p = &ports[((const struct port_message *)message)->port];
    (void)unused;
    printf("%s:   %-8s in %8llu B/s, out %8llu B/s\n", daemon_name(), p->name, p->rx_rate,
           p->tx_rate);
}

int main(int argc, char **argv) {
    static const claFltrEntry options[] = {{'r', "rounds", clafGetInt, &wanted_rounds},
                                           {'p', "period", clafGetInt, &period_ms},
                                           {0, NULL, NULL, NULL}};
    static const daemon_log logs[] = {{"ports", "ports", 200, &port_log, 0},
                                      {"cmds", "cmds", 100, &command_log, DAEMON_LOG_COMMANDS},
                                      {NULL, NULL, 0, NULL, 0}};
    static const daemon_table portd = {.name = "portd",
                                       .version = "1.0",
                                       .usage = "[-r ROUNDS] [-p PERIOD_MS]",
                                       .options = options,
                                       .commands = commands,
                                       .logs = logs,
                                       .start = start,
                                       .message = on_message};
    int status = daemon_run(&portd, argc, argv);
    if (rounds > 0)
        printf("%s: %d rounds and %d greeting\n", daemon_name(), rounds, greetings);
    return status;
}

/* portd: a daemon that watches the network ports of the machine, written the way a product daemon
   is. Timers post to its one queue, and the main loop receives the messages and runs their
   handlers. Every change of a port goes through the callback registry. Operators reach it by the
   command socket, whose commands run on threads of their own, and by redirect and exit requests.
     portd [-s SWITCH] [-n NAME] [-r ROUNDS] [-p PERIOD_MS]
   With ROUNDS it ends by itself, with 0 only if every expiry that it expects has come. */
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <utils/daemon_codes.h>
#include <utils/platform/posix/ipc_server.h>
#include <utils/platform/timebase.h>
#include <utils/utils.h>

enum {
    MAX_PORTS = 32,
    MAX_CLIENTS = 16,
    QUEUE_DEPTH = 256,
    GREETING_MS = 700,
    CLIENT_SECONDS = 5,
    ACCEPT_PAUSE_MS = 50
};

/* What the registry routes: a port that moved, and one that kept still. */
enum {
    PORT_EVENTS = 0x504F5254,
    PORT_GROUP = 1,
    PORT_MOVED = 1,
    PORT_QUIET = 2,
    MESSAGE_PORT_MOVED = 9
};

struct port {
    char name[32];
    uint64_t rx, tx, rx_rate, tx_rate;
};

struct port_message {
    uint8_t type, unset[3];
    uint32_t port, reserved, time_ms; /* the registry stamps the time */
    uint8_t rest[40];
};

static struct port ports[MAX_PORTS];
static int port_count, rounds, greetings, wanted_rounds, period_ms = 500;
static char name[32] = "portd", command_path[64], table_path[64];
static uint32_t last_round_ms;
static msgQHandle events;
static qel_evlog_db logs;
static qel_evlog_handle *port_log, *command_log;
static procrwlock_t table_lock;

/* ---- Counters: read every round, dispatched as events, written to a table that all may read. ----
 */

static int32_t classify_port(void *argument) {
    const struct port *port = argument;
    return port->rx_rate + port->tx_rate > 0 ? PORT_MOVED : PORT_QUIET;
}

static const cb_ops port_classifier = {NULL, classify_port};

static int note_moved_port(void *argument) {
    const struct port *port = argument;
    qel_evlog(port_log, "%s: in %" PRIu64 " B/s, out %" PRIu64 " B/s\n", port->name, port->rx_rate,
              port->tx_rate);
    return 0;
}

static struct port *find_port(const char *port_name) {
    for (int i = 0; i < port_count; ++i)
        if (strcmp(ports[i].name, port_name) == 0)
            return &ports[i];
    if (port_count == MAX_PORTS)
        return NULL;
    snprintf(ports[port_count].name, sizeof ports[port_count].name, "%s", port_name);
    return &ports[port_count++];
}

static void read_counters(uint32_t elapsed_ms) {
    FILE *file = fopen("/proc/net/dev", "re");
    char line[512], port_name[32];
    uint64_t rx, tx;
    while (file != NULL && fgets(line, sizeof line, file) != NULL) {
        if (sscanf(line, " %31[^:]: %" SCNu64 " %*u %*u %*u %*u %*u %*u %*u %" SCNu64, port_name,
                   &rx, &tx) != 3)
            continue;
        struct port *port = find_port(port_name);
        if (port == NULL)
            continue;
        if (elapsed_ms > 0) {
            port->rx_rate = (rx - port->rx) * 1000 / elapsed_ms;
            port->tx_rate = (tx - port->tx) * 1000 / elapsed_ms;
            struct port_message message = {.type = MESSAGE_PORT_MOVED,
                                           .port = (uint32_t)(port - ports)};
            if (cb_dispatch(PORT_EVENTS, PORT_GROUP, &message, port) != 0)
                log_cache_write("%s: the queue has refused an event\n", port->name);
        }
        port->rx = rx;
        port->tx = tx;
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
        fprintf(file, "%-10s in %10" PRIu64 " B/s  out %10" PRIu64 " B/s\n", ports[i].name,
                ports[i].rx_rate, ports[i].tx_rate);
    if (file != NULL)
        fclose(file);
    procrwlock_wrunlock(&table_lock);
}

static void on_round(uintptr_t unused1, uintptr_t unused2) {
    uint32_t now = msSysClk(), elapsed = now - last_round_ms;
    (void)unused1, (void)unused2;
    last_round_ms = now;
    printf("%s: round %d, %" PRIu32 " ms after the one before\n", name, ++rounds, elapsed);
    read_counters(elapsed > 0 ? elapsed : 1);
    write_table();
    log_cache_write("round %d\n", rounds);
}

static void on_greeting(uintptr_t unused1, uintptr_t unused2) {
    (void)unused1, (void)unused2;
    ++greetings;
    printf("%s: the one-shot timer of %d ms has fired\n", name, GREETING_MS);
}

/* ---- Commands: each runs on its client's thread and writes to its client's stream. ---- */

static int cmd_help(int argc, char **argv, FILE *out);

static int cmd_ports(int argc, char **argv, FILE *out) {
    char line[128];
    (void)argc, (void)argv;
    if (procrwlock_rdlock(&table_lock) != 0)
        return 1;
    FILE *file = fopen(table_path, "re");
    while (file != NULL && fgets(line, sizeof line, file) != NULL)
        fputs(line, out);
    if (file != NULL)
        fclose(file);
    return procrwlock_rdunlock(&table_lock);
}

static int cmd_events(int argc, char **argv, FILE *out) {
    (void)argc, (void)argv;
    qel_evlog_db_dump(out, &logs, 1);
    return 0;
}

static int cmd_log(int argc, char **argv, FILE *out) {
    static const int size = 128 * 1024 + 16;
    (void)argc, (void)argv;
    char *text = malloc((size_t)size);
    int length = text != NULL ? log_cache_dump_buf(text, size) : 0;
    for (int i = 0; i < length; ++i)
        if (text[i] != '\0')
            fputc(text[i], out);
    free(text);
    return length < 0;
}

static int cmd_stats(int argc, char **argv, FILE *out);

static int cmd_sleep(int argc, char **argv, FILE *out) {
    int seconds = 1;
    if (argc > 1 && clafGetInt(argv[1], &seconds) != 0)
        return fprintf(out, "not a number: %s\n", argv[1]);
    taskDelay(seconds * TASK_TICKS_PER_SECOND);
    return fprintf(out, "slept %d s\n", seconds);
}

static const struct {
    const char *word, *help;
    qelTnetCommand run;
} commands[] = {{"help", "what there is", cmd_help},
                {"ports", "the rates of every port", cmd_ports},
                {"events", "the event logs", cmd_events},
                {"log", "the log cache", cmd_log},
                {"stats", "append the service statistics to the report", cmd_stats},
                {"sleep", "sleep SECONDS, then say so", cmd_sleep}};
enum { COMMANDS = sizeof commands / sizeof commands[0] };

static pthread_mutex_t stats_lock = PTHREAD_MUTEX_INITIALIZER;
static int clients, reporting; /* under stats_lock too */

static int cmd_help(int argc, char **argv, FILE *out) {
    (void)argc, (void)argv;
    for (int i = 0; i < COMMANDS; ++i)
        fprintf(out, "%-8s %s\n", commands[i].word, commands[i].help);
    return 0;
}

static int cmd_stats(int argc, char **argv, FILE *out) {
    const char *words[COMMANDS];
    (void)argc, (void)argv;
    for (int i = 0; i < COMMANDS; ++i)
        words[i] = commands[i].word;
    pthread_mutex_lock(&stats_lock);
    int busy = reporting;
    reporting = 1;
    pthread_mutex_unlock(&stats_lock);
    if (busy)
        return fprintf(out, "another report is being written\n");
    /* The report's file may be locked by others, so no lock is held here. */
    serviceStat_stop(name, words, getMySwitch());
    pthread_mutex_lock(&stats_lock);
    reporting = 0;
    serviceStatIsOn = 1;
    pthread_mutex_unlock(&stats_lock);
    return fprintf(out, "appended to " SERVICE_STAT_FILE "\n", getMySwitch());
}

static void count_service(int code, uint64_t ticks) {
    pthread_mutex_lock(&stats_lock);
    if (!reporting && serviceStatIsOn && serviceStats != NULL) {
        serviceStat *record = &serviceStats[code];
        ++record->calls;
        record->total_service_time += ticks;
        if (ticks > record->highest_service_time)
            record->highest_service_time = ticks;
        if (ticks < record->lowest_service_time)
            record->lowest_service_time = ticks;
    }
    pthread_mutex_unlock(&stats_lock);
}

static int run_command(int argc, char **argv, FILE *out) {
    for (int i = 0; argc > 0 && i < COMMANDS; ++i) {
        if (strequ(argv[0], commands[i].word)) {
            uint64_t begin = timebase_read();
            qel_evlog(command_log, "command %s\n", argv[0]);
            int result = commands[i].run(argc, argv, out);
            count_service(i, timebase_read() - begin);
            return result;
        }
    }
    return fprintf(out, "unknown command; try help\n");
}

static void *serve_client(void *socket_word) {
    int client = (int)(intptr_t)socket_word;
    struct timeval limit = {CLIENT_SECONDS, 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    qelTnetCmdCB(client, run_command);
    close(client);
    pthread_mutex_lock(&stats_lock);
    --clients;
    pthread_mutex_unlock(&stats_lock);
    return NULL;
}

/* Commands come from root and from the daemon's own user only. */
static int is_trusted(int client) {
    struct ucred peer;
    socklen_t size = sizeof peer;
    return getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == 0 || peer.uid == geteuid());
}

/* Runs on the watch thread, which must not wait for anybody. A client that cannot be accepted for
   lack of descriptors stays in the queue, and the listener readable: a pause keeps the thread from
   spinning meanwhile. */
static int on_connection(int listener) {
    static const char busy[] = "too many commands at once\n";
    pthread_t thread;
    int client = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
    if (client < 0)
        return errno == EAGAIN ? -1 : poll(NULL, 0, ACCEPT_PAUSE_MS);
    if (!is_trusted(client))
        return close(client);
    pthread_mutex_lock(&stats_lock);
    int taken = clients < MAX_CLIENTS &&
                pthread_create(&thread, NULL, serve_client, (void *)(intptr_t)client) == 0;
    clients += taken;
    pthread_mutex_unlock(&stats_lock);
    if (taken)
        return pthread_detach(thread);
    send(client, busy, sizeof busy - 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    return close(client);
}

static int listen_for_commands(void) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    snprintf(command_path, sizeof command_path, "/run/korin/%s.%d.cmd", name, getMySwitch());
    snprintf(address.sun_path, sizeof address.sun_path, "%s", command_path);
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    unlink(command_path);
    if (listener < 0 || bind(listener, (struct sockaddr *)&address, sizeof address) != 0 ||
        listen(listener, 64) != 0)
        return -1;
    return listener;
}

/* ---- Start and end. ---- */

static void clean_up(void) {
    char pid_file[64];
    snprintf(pid_file, sizeof pid_file, "/var/run/%s.%d.pid", name, getMySwitch());
    unlink(command_path);
    unlink(pid_file);
}

static int take_name(const char *text, void *out) {
    snprintf(out, sizeof name, "%s", text);
    return 0;
}

static void fail(const char *what) {
    console_printf("%s: cannot start: %s: %s\n", name, what, strerror(errno));
    fprintf(stderr, "%s: cannot start: %s: %s\n", name, what, strerror(errno));
    exit(1);
}

/* A lock that another user can open, that user can hold for ever. */
static void open_table_lock(void) {
    char path[80];
    struct stat status;
    snprintf(path, sizeof path, "%s.lock", table_path);
    int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 || fstat(fd, &status) != 0)
        fail(path);
    errno = EPERM;
    if (status.st_uid != geteuid() || fchmod(fd, 0600) != 0 ||
        procrwlock_init(&table_lock, fd) != 0)
        fail(path);
}

static void start_services(void) {
    qel_sigdefaults(name);
    qel_sigcleanup_set(clean_up);
    signal(SIGTERM, qel_sighandler);
    if (stor_pid(name, getMySwitch()) != 0)
        fail("pid file");
    atexit(clean_up);
    if (log_cache_init(name) != 0)
        fail("log cache");
    qel_evlog_init(&logs); /* without the system device the platform code is 0, which serves */
    port_log = qel_evlog_newHandle(&logs, 200, "ports", "ports");
    command_log = qel_evlog_newHandle(&logs, 100, "cmds", "cmds");
    if (port_log == NULL || command_log == NULL)
        fail("event logs");
    if (serviceStat_init(COMMANDS) != 0)
        fail("statistics");
    serviceStatIsOn = 1;

    snprintf(table_path, sizeof table_path, "/run/korin/%s.%d.table", name, getMySwitch());
    open_table_lock();
    events = msgQCreate(QUEUE_DEPTH, TIMER_MESSAGE_LENGTH, 0, name);
    if (events == NULL || timer_init_r() != 0)
        fail("timers");

    int listener = listen_for_commands();
    if (listener < 0)
        fail(command_path);
    iot_init(NULL);
    if (iot_add(listener, on_connection, 1) != 0 || iot_start() != 0)
        fail("watch thread");
    cb_register(PORT_EVENTS, PORT_GROUP, &port_classifier, PORT_MOVED, note_moved_port, events);

    ipc_address own = {myNode(), (uint16_t)getMySwitch(), ""};
    snprintf(own.name, sizeof own.name, "%s", name);
    ipc_register(IPC_CODE_REDIRECT_OUTPUT, ipcCbQelDRedirectOutput);
    ipc_register(IPC_CODE_EXIT, ipcCbQelDExitHandler);
    if (ipc_open(&own) != 0)
        fail("request socket");
}

static void handle(const timer_message *event) {
    if (event->type == TIMER_MESSAGE_TYPE) {
        event->handler(event->arg1, event->arg2);
    } else if (event->type == MESSAGE_PORT_MOVED) {
        struct port_message moved;
        memcpy(&moved, event, sizeof moved);
        const struct port *port = &ports[moved.port];
        printf("%s:   %-8s in %8" PRIu64 " B/s, out %8" PRIu64 " B/s\n", name, port->name,
               port->rx_rate, port->tx_rate);
    }
}

int main(int argc, char **argv) {
    int16_t switch_no = -1;
    claFltrEntry options[] = {{'s', "switch", clafGetShort, &switch_no},
                              {'n', "name", take_name, name},
                              {'r', "rounds", clafGetInt, &wanted_rounds},
                              {'p', "period", clafGetInt, &period_ms},
                              {0, NULL, NULL, NULL}};
    claFltr(options, &argc, argv);
    if (argc != 1 || (switch_no != -1 && setMySwitch(switch_no) != 0)) {
        fprintf(stderr, "usage: %s [-s SWITCH] [-n NAME] [-r ROUNDS] [-p PERIOD_MS]\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    taskInit(name);
    start_services();
    timerHandle round = timer_create_periodic_r(events, on_round, 0, 0);
    timerHandle greeting = timer_create_r(events, on_greeting, 0, 0);
    if (round == NULL || greeting == NULL)
        fail("timers");
    last_round_ms = msSysClk();
    read_counters(0);
    timer_set_r(round, (uint32_t)(period_ms < 50 ? 50 : period_ms));
    timer_set_r(greeting, GREETING_MS);
    printf("%s: task %d serves switch %d\n", name, taskIdSelf(), getMySwitch());
    qel_evlog(command_log, "started as process %d\n", taskIdSelf());

    timer_message event;
    while (wanted_rounds == 0 || rounds < wanted_rounds) {
        if (msgQReceive(events, &event, sizeof event, 10 * period_ms) == 0)
            handle(&event);
        else if (wanted_rounds > 0)
            break;
    }
    printf("%s: %d rounds and %d greeting\n", name, rounds, greetings);
    ipc_close();
    timer_close_r();
    return rounds == wanted_rounds && greetings == 1 ? 0 : 1;
}

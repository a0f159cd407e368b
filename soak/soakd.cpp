// SPDX-License-Identifier: Apache-2.0
// The soak's daemon and its requesters: every subsystem at work on what requests bring.
//   soakd daemon            serves "soakd" until it is asked to exit
//   soakd client NUMBER     sends requests until SIGTERM, and notes which were accepted
//   soakd measure           prints the daemon's live blocks, live bytes, descriptors and lost
//   wake-ups
// A request is accepted when its status is 0. The daemon writes its text to JOURNAL before it
// answers, the requester to ACCEPTED.NUMBER afterwards; both with one write(), which a kill cannot
// undo.
#include <fcntl.h>
#include <malloc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "base/big_endian.h"
#include "utils/daemon.h"
#include "utils/daemon_codes.h"
#include "utils/platform/posix/ipc_server.h"
#include "utils/utils.h"

// ---- live memory

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
}

namespace {

std::atomic<long> live_blocks, live_bytes;

void *counted(void *block, int sign = 1) {
    if (block != nullptr) {
        live_blocks += sign;
        live_bytes += sign * static_cast<long>(malloc_usable_size(block));
    }
    return block;
}

}  // namespace

extern "C" void *malloc(size_t size) {
    return counted(__libc_malloc(size));
}
extern "C" void *calloc(size_t count, size_t size) {
    return counted(__libc_calloc(count, size));
}
extern "C" void free(void *block) {
    __libc_free(counted(block, -1));
}
extern "C" void *realloc(void *block, size_t size) {
    counted(block, -1);
    void *fresh = __libc_realloc(block, size);
    counted(fresh != nullptr || size == 0 ? fresh : block);
    return fresh;
}

namespace {

constexpr int kRequest = IPC_CODE_OWN, kMeasure = IPC_CODE_OWN + 1;
constexpr uint32_t kLimit[2] = {10, 0};
constexpr size_t kIdSize = 32;
const char *const kTable = "/run/korin/soak.table";  // two equal numbers, under the process lock

ipc_address soakd() {
    return {myNode(), static_cast<uint16_t>(getMySwitch()), "soakd"};
}

[[noreturn]] void fail(const char *what) {
    fprintf(stderr, "soakd: %s: %s\n", what, strerror(errno));
    abort();
}

void demand(bool holds, const char *what) {
    if (!holds)
        fail(what);
}

void note(int fd, const std::string &line) {
    demand(write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()), "journal");
}

// ---- the process lock and what it guards

procrwlock_t table_lock;
int table = -1;

void open_table() {
    int lock = open("/run/korin/soak.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    table = open(kTable, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    demand(lock >= 0 && table >= 0 && procrwlock_init(&table_lock, lock) == 0, "lock");
}

// Whoever is killed between the two writes leaves the numbers one apart; the next writer mends
// that.
void write_table() {
    uint64_t numbers[2] = {};
    demand(procrwlock_wrlock(&table_lock) == 0, "write lock");
    demand(pread(table, numbers, sizeof numbers, 0) >= 0, "table");
    demand(numbers[0] == numbers[1] || numbers[0] == numbers[1] + 1, "two writers at once");
    if (numbers[0] == numbers[1])
        ++numbers[0];
    demand(pwrite(table, &numbers[0], 8, 0) == 8 && pwrite(table, &numbers[0], 8, 8) == 8, "table");
    demand(procrwlock_wrunlock(&table_lock) == 0, "write unlock");
}

void read_table() {
    uint64_t first[2] = {}, second[2] = {};
    demand(procrwlock_rdlock(&table_lock) == 0, "read lock");
    demand(pread(table, first, sizeof first, 0) >= 0 && pread(table, second, sizeof second, 0) >= 0,
           "table");
    demand(memcmp(first, second, sizeof first) == 0, "a writer beside a reader");
    demand(procrwlock_rdunlock(&table_lock) == 0, "read unlock");
}

// ---- the daemon's subsystems

struct Job {
    ipc_address requester;
    int32_t code;
    char id[kIdSize];
};

msgQHandle jobs, events;
semaHandle rounds;  // given by the watch thread after each wake
hash_table *recent;
qel_evlog_db logs;
qel_evlog_handle *job_log;
int wake[2], data[2], journal;
std::atomic<int> clients, threads_born, ticks, bytes_sent, bytes_seen, events_sent, events_seen;
long base_blocks;
pthread_mutex_t work_lock = PTHREAD_MUTEX_INITIALIZER;

int32_t classify(void *) {
    return 7;
}
int count_event(void *) {
    return ++events_seen, 0;
}
const cb_ops kOps = {nullptr, classify};

int drain(int fd) {
    char bytes[64];
    ssize_t n = read(fd, bytes, sizeof bytes);
    bytes_seen += fd == data[0] && n > 0 ? static_cast<int>(n) : 0;
    return fd == wake[0] ? semaGive(rounds) : 0;
}

// Lets the watch thread take a new look at its descriptors.
void new_round() {
    demand(write(wake[1], "w", 1) == 1 && semaTake(rounds, 10000) == 0, "the watch thread sleeps");
}

// A descriptor that comes, is readable, and goes.
void watch_a_while() {
    demand(pipe2(data, O_CLOEXEC) == 0 && iot_add(data[0], drain, 1) == 0, "pipe");
    int before = bytes_seen;
    demand(write(data[1], "abc", 3) == 3, "pipe");
    bytes_sent += 3;
    new_round();
    for (int i = 0; i < 10000 && bytes_seen < before + 3; ++i)
        usleep(1000);
    iot_del(data[0]);
    new_round();
    close(data[0]);
    close(data[1]);
}

void through_compressor(const char *text) {
    unsigned char stream[1024];
    char line[LOG_COMPRESS_LINE_SIZE];
    log_compressor *out = log_createCompressor(stream, sizeof stream);
    demand(out != nullptr && log_compressLine(out, strcpy(line, text)) == 0, "compressor");
    memset(stream + log_getCompressorOlen(out), LOG_COMPRESS_END_OF_LINE,
           sizeof stream - static_cast<size_t>(log_getCompressorOlen(out)));
    log_deleteCompressor(out);
    log_decompressor *in = log_createDecompressor(stream, sizeof stream);
    demand(log_decompressGetLine(in, line) == static_cast<int>(strlen(text)) && strequ(line, text),
           "decompressor");
    log_deleteDecompressor(in);
}

void on_timer(uintptr_t, uintptr_t) {
    ++ticks;
}

void work_on(const Job &job) {
    static unsigned count = 0;
    char message[CB_MESSAGE_SIZE] = {};
    uintptr_t *found = nullptr;
    auto key = reinterpret_cast<uintptr_t>(job.id);
    demand(add_to_hash(key, 1, recent) >= 0 && get_from_hash(key, &found, recent) > 0, "hash");
    free(found);
    demand(delete_from_hash(key, recent) >= 0 && is_hashlist_empty(recent), "hash");
    qelString *text = qelStringInit(0, 0);
    text->ops->appendf(text, "job %s\n", job.id);
    through_compressor(text->ops->get(text));
    qel_evlog(job_log, "%s", text->ops->get(text));
    log_cache_write_string(text->ops->get(text));
    text->ops->free(text);
    ++events_sent;
    demand(cb_dispatch(1, 2, message, nullptr) == 0, "dispatch");
    timerHandle brief = timer_create_r(events, on_timer, 0, 0);
    demand(
        timer_set_r(brief, 60000) == 0 && timer_cancel_r(brief) == 0 && timer_delete_r(brief) == 0,
        "timer");
    ++count % 4 == 0 ? write_table() : read_table();
    if (count % 16 == 0)
        watch_a_while();
    note(journal, std::string(job.id) + "\n");
}

void work() {
    for (Job job;;) {
        if (msgQReceive(jobs, &job, sizeof job, -1) != 0)
            continue;
        pthread_mutex_lock(&work_lock);
        work_on(job);
        pthread_mutex_unlock(&work_lock);
        int32_t status = 0;
        ipcSend(&job.requester, job.code, &status, sizeof status, kLimit);
    }
}

void handle_events() {
    for (timer_message event;;) {
        if (msgQReceive(events, &event, sizeof event, 10000) != 0)
            fail("the timers sleep");
        if (event.type == TIMER_MESSAGE_TYPE)
            event.handler(event.arg1, event.arg2);
    }
}

// A request: its text, and a filler whose every byte is the text's length.
int on_request(void *requester, int code, void *message) {
    Job job{*static_cast<ipc_address *>(requester), code, {}};
    int32_t status = -22;
    auto *block = reinterpret_cast<qelIpcArgBlock *>(static_cast<char *>(message) + 4);
    if (message != nullptr)
        qelIpcArgsReceived(block);
    if (message != nullptr && qelIpcArgsDecode(block) == 0) {
        auto *bytes = static_cast<const char *>(qelIpcArgsData(block));
        uint32_t size = qelIpcArgsDataLength(block);
        demand(size >= kIdSize, "a cut request");
        memcpy(job.id, bytes, kIdSize - 1);
        for (uint32_t i = kIdSize; i + 3 < size; ++i)
            demand(bytes[i] == static_cast<char>(strlen(job.id)), "a damaged request");
        qelIpcArgsDestroy(block);
        status = msgQSend(jobs, &job, sizeof job);
    }
    return status == 0 ? 0 : ipcSend(requester, code, &status, sizeof status, kLimit);
}

int on_measure(void *requester, int code, void *) {
    int descriptors = 0;
    for (auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        descriptors += !entry.path().empty();
    int64_t result[5] = {live_blocks - base_blocks, live_bytes, descriptors - 1,
                         (bytes_sent - bytes_seen) + (events_sent - events_seen) + clients, ticks};
    return ipcSend(requester, code, result, sizeof result, kLimit);
}

// ---- the command socket

int show_events(FILE *out) {
    pthread_mutex_lock(&work_lock);
    qel_evlog_db_dump(out, &logs, 1);
    return pthread_mutex_unlock(&work_lock);
}

int run_command(int argc, char **argv, FILE *out) {
    static const char *const kNames[] = {"command"};
    if (argc > 0 && strequ(argv[0], "log"))
        return log_cache_reset();
    if (argc > 0 && strequ(argv[0], "events"))
        return show_events(out);
    if (argc > 0 && strequ(argv[0], "stats"))
        serviceStat_stop("soakd", kNames, getMySwitch());
    for (int i = 0; i < 200; ++i)
        fprintf(out, "%d arguments, line %d\n", argc, i);
    return 0;
}

int on_connection(int listener) {
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0 || clients >= 8)
        return close(fd);
    ++clients;
    std::thread([fd] {
        timeval limit{2, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        qelTnetCmdCB(fd, run_command);
        close(fd);
        --clients;
    }).detach();
    return 0;
}

int listen_for_commands() {
    sockaddr_un name{AF_UNIX, {}};
    snprintf(name.sun_path, sizeof name.sun_path, DAEMON_FILE_FORMAT, "soakd", getMySwitch(),
             "cmd");
    unlink(name.sun_path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    demand(bind(fd, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0 && listen(fd, 32) == 0,
           "command socket");
    return fd;
}

// Everything that grows up to a limit and stays is at its limit from the start: spare nodes, thread
// stacks.
void reach_limits() {
    std::thread all[12];
    for (std::thread &one : all)
        one = std::thread([] {
            for (++threads_born; threads_born < 12;)
                usleep(1000);
        });
    for (std::thread &one : all)
        one.join();
    Job job{};
    for (msgQHandle queue : {jobs, events}) {
        for (int i = 0; i < MSGQ_SPARE_MAX; ++i)
            demand(msgQSend(queue, &job, TIMER_MESSAGE_LENGTH) == 0, "queue");
        while (msgQReceive(queue, &job, sizeof job, 0) == 0) {
        }
    }
}

void clean_up() {
    char path[PATH_MAX];
    snprintf(path, sizeof path, DAEMON_FILE_FORMAT, "soakd", getMySwitch(), "cmd");
    unlink(path);
    snprintf(path, sizeof path, PID_FILE_FORMAT, "soakd", getMySwitch());
    unlink(path);
    pthread_mutex_lock(&work_lock);  // for good: nobody uses the logs any more
    qel_evlog_free(&logs);
}

int serve() {
    qel_sigdefaults("soakd");
    taskInit("soakd");
    demand(stor_pid("soakd", getMySwitch()) == 0 && log_cache_init("soakd") == 0, "pid file");
    qel_evlog_init(&logs);
    job_log = qel_evlog_newHandle(&logs, 100, "jobs", "jobs");
    journal = open("/tmp/journal", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    jobs = msgQCreate(128, sizeof(Job), 0, "jobs");
    events = msgQCreate(128, TIMER_MESSAGE_LENGTH, 0, "events");
    rounds = semaCreate(SEMA_EMPTY);
    recent = create_hash_table(name_hash, name_cmp);
    demand(job_log != nullptr && journal >= 0 && jobs != nullptr && events != nullptr &&
               rounds != nullptr && recent != nullptr && serviceStat_init(1) == 0 &&
               pipe2(wake, O_CLOEXEC) == 0,
           "start");
    serviceStatIsOn = 1;
    open_table();
    reach_limits();
    atexit(clean_up);
    iot_init(nullptr);
    demand(iot_add(listen_for_commands(), on_connection, 1) == 0 &&
               iot_add(wake[0], drain, 1) == 0 && iot_start() == 0,
           "watch thread");
    cb_register(1, 2, &kOps, 7, count_event, nullptr);
    for (uint32_t period : {50u, 70u, 110u})
        demand(timer_set_r(timer_create_periodic_r(events, on_timer, 0, 0), period) == 0, "timer");
    ipc_register(IPC_CODE_REDIRECT_OUTPUT, ipcCbQelDRedirectOutput);
    ipc_register(IPC_CODE_EXIT, ipcCbQelDExitHandler);
    ipc_register(kRequest, on_request);
    ipc_register(kMeasure, on_measure);
    ipc_address own = soakd();
    demand(ipc_open(&own) == 0, "request socket");
    std::thread(work).detach();
    handle_events();
    return 0;
}

// ---- requesters

volatile sig_atomic_t ended = 0;

int send_requests(int number) {
    std::mt19937 random(static_cast<unsigned>(getpid()));
    int accepted = open(("/tmp/accepted." + std::to_string(number)).c_str(),
                        O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    open_table();
    signal(SIGTERM, [](int) { ended = 1; });
    for (int i = 0; ended == 0; ++i) {
        std::string id = std::to_string(number) + "." + std::to_string(i);
        std::string request = id + std::string(kIdSize - id.size(), '\0');
        request.append(random() % 3 == 0 ? random() % 20000 : random() % 100,
                       static_cast<char>(id.size()));
        qelIpcArg piece{request.data(), static_cast<uint32_t>(request.size())};
        qelIpcArgs pieces{&piece, 1};
        qelIpcArgBlock *block = nullptr;
        int size = qelIpcArgsEncode(&pieces, &block);
        demand(size > 0, "encode");
        ipc_address to = soakd();
        int32_t status = -1;
        uint32_t length = sizeof status;
        int result =
            ipcSendRcv(&to, kRequest, block, static_cast<uint32_t>(size), &status, &length, kLimit);
        if (result == 0 && status == 0)
            note(accepted, id + "\n");
        // A segment that nobody has received stays its sender's.
        if (result != 0 && size == QEL_IPC_ARGS_SHM_SIZE)
            shmctl(static_cast<int>(utils::load_be32(reinterpret_cast<char *>(block) +
                                                     QEL_IPC_ARGS_HEADER_SIZE)),
                   IPC_RMID, nullptr);
        free(block);
        random() % 8 == 0 ? write_table() : read_table();
        if (result != 0)
            usleep(20000);
    }
    return 0;
}

int measure() {
    ipc_address to = soakd();
    int64_t result[5] = {};
    uint32_t length = sizeof result;
    if (ipcSendRcv(&to, kMeasure, nullptr, 0, result, &length, kLimit) != 0)
        return 1;
    for (int64_t value : result)
        printf("%" PRId64 " ", value);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    base_blocks = live_blocks;
    std::string what = argc > 1 ? argv[1] : "";
    if (what == "daemon")
        return serve();
    if (what == "client" && argc > 2)
        return send_requests(atoi(argv[2]));
    if (what == "measure")
        return measure();
    fprintf(stderr, "usage: soakd daemon | client NUMBER | measure\n");
    return 2;
}

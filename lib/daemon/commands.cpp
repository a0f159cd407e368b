// SPDX-License-Identifier: Apache-2.0
// Clients of the command socket: a thread each, which receives one command line, runs the command
// and keeps its result for the client's process, which asks for it over a second connection. Who
// may not command the daemon is sent away unheard. `clients_mutex` guards everything here and is not held
// while a command runs.
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "base/deadline.h"
#include "base/descriptor.h"
#include "base/heap.h"
#include "base/thread.h"
#include "base/time_base.h"
#include "commands.h"
#include "utils/identity.h"
#include "utils/service_stat.h"

namespace utils::service {
namespace {

constexpr int kResultsKept = 64;  // more than clients that have yet to ask
constexpr int kRoundMs = 20;
constexpr int kUnknownCommand = 127;  // as shells have it
constexpr int kStackSize = 512 * 1024;

struct Result {
    pid_t pid;
    int result;
};

struct Client {
    int fd;  // -1 in a free entry
    pid_t pid;
};

// A command that runs on the loop's thread while its client's thread waits.
struct InLoop {
    const daemon_command *command;
    int argc;
    char **argv;
    FILE *out;
    int result;
    bool done;
};

Mutex clients_mutex;
pthread_cond_t changed = PTHREAD_COND_INITIALIZER;  // a command in the loop is done
Client clients[DAEMON_CLIENTS_MAX] UTILS_GUARDED_BY(clients_mutex);
Result results[kResultsKept] UTILS_GUARDED_BY(clients_mutex);
int next_result UTILS_GUARDED_BY(clients_mutex) = 0;
bool reporting UTILS_GUARDED_BY(clients_mutex) = false;

int command_count = 0;
const char **words = nullptr;  // of every command, for the report
thread_local pid_t client_pid;

void keep_result(pid_t pid, int result) {
    if (pid <= 0)
        return;
    MutexLock lock(clients_mutex);
    for (Result &kept : results) {
        if (kept.pid == pid)
            kept.pid = 0;
    }
    results[next_result] = {pid, result};
    next_result = (next_result + 1) % kResultsKept;
}

void count_call(int number, uint64_t ticks) {
    MutexLock lock(clients_mutex);
    if (reporting || serviceStatIsOn == 0 || serviceStats == nullptr)
        return;
    serviceStat &record = serviceStats[number];
    ++record.calls;
    record.total_service_time += ticks;
    if (ticks > record.highest_service_time)
        record.highest_service_time = ticks;
    if (ticks < record.lowest_service_time)
        record.lowest_service_time = ticks;
}

void run_deferred_command(void *argument) {
    auto &job = *static_cast<InLoop *>(argument);
    int result = job.command->run(job.argc, job.argv, job.out);
    MutexLock lock(clients_mutex);
    job.result = result;
    job.done = true;
    pthread_cond_broadcast(&changed);
}

// What the command says is collected first: a client that does not read must not hold up the loop.
int run_in_loop(const daemon_command &command, int argc, char **argv, FILE *out) {
    Collected collected;
    if (collected.stream() == nullptr)
        return fprintf(out, "out of memory\n"), 1;
    InLoop job{&command, argc, argv, collected.stream(), 1, false};
    if (daemon_defer(run_deferred_command, &job) == 0) {
        MutexLock lock(clients_mutex);
        while (!job.done)
            pthread_cond_wait(&changed, clients_mutex.native());
    } else {
        fprintf(collected.stream(), "the daemon ends\n");
    }
    collected.give_to(out);
    return job.result;
}

void note_command(const char *word) {
    for (const daemon_log *log = table->logs; log != nullptr && log->name != nullptr; ++log) {
        if ((log->flags & DAEMON_LOG_COMMANDS) != 0 && log->place != nullptr)
            qel_evlog(*log->place, "command %.50s\n", word);
    }
}

int find_command(const char *word) {
    for (int i = 0; i < command_count; ++i) {
        if (strcmp(words[i], word) == 0)
            return i;
    }
    return -1;
}

// A command table's function for whatever the client has sent.
int run_command(int argc, char **argv, FILE *out) {
    int number = argc > 0 ? find_command(argv[0]) : -1;
    if (number < 0) {
        keep_result(client_pid, kUnknownCommand);
        return fprintf(out, "unknown command; try help\n");
    }
    const daemon_command &command = *command_at(number);
    if (command.run == cmd_result)
        return cmd_result(argc, argv, out);
    uint64_t begin = time_base();
    note_command(command.word);
    bool in_loop = (command.flags & DAEMON_IN_LOOP) != 0;
    int result = in_loop ? run_in_loop(command, argc, argv, out) : command.run(argc, argv, out);
    count_call(number, time_base() - begin);
    keep_result(client_pid, result);
    return result;
}

// The thread of one client: a command, its output, the end of the connection.
void *serve_client(void *entry) {
    auto &client = *static_cast<Client *>(entry);
    int fd = -1;
    {
        MutexLock lock(clients_mutex);
        fd = client.fd;
        client_pid = client.pid;
    }
    daemon_guard_thread();
    timeval limit{DAEMON_SILENCE_SECONDS, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    qelTnetCmdCB(fd, run_command);
    MutexLock lock(clients_mutex);
    close(fd);
    client.fd = -1;
    return nullptr;
}

// Commands take signals as the daemon's own threads do, on a stack that does for output.
int start_thread(Client &client) {
    pthread_attr_t attributes;
    // GCOVR_EXCL_START: for a C library whose attributes need memory
    if (int error = pthread_attr_init(&attributes); error != 0)
        return error;
    // GCOVR_EXCL_STOP
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, kStackSize);
    // The watching thread, whose mask the new one would have, has all signals blocked.
    sigset_t none, before;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, &before);
    pthread_t thread;
    int error = pthread_create(&thread, &attributes, serve_client, &client);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return error;
}

// Whether a thread serves the client from here on.
bool start_client(int fd, pid_t pid) {
    MutexLock lock(clients_mutex);
    for (Client &client : clients) {
        if (client.fd >= 0)
            continue;
        client = {fd, pid};
        if (start_thread(client) == 0)
            return true;
        client.fd = -1;
        return false;
    }
    return false;
}

}  // namespace

bool prepare_commands() {
    MutexLock lock(clients_mutex);
    for (Client &client : clients)
        client.fd = -1;
    while (command_at(command_count) != nullptr)
        ++command_count;
    words = static_cast<const char **>(calloc(static_cast<size_t>(command_count), sizeof *words));
    for (int i = 0; words != nullptr && i < command_count; ++i)
        words[i] = command_at(i)->word;
    bool done = words != nullptr && serviceStat_init(command_count) == 0;
    serviceStatIsOn = done;
    return done;
}

// Takes the next client, if it is one of ours. False when the listener is of no more use.
bool accept_client(int listener) {
    static const char kBusy[] = "too many commands at once\n";
    Descriptor fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!fd)
        return errno == EAGAIN || errno == ECONNABORTED || errno == EINTR;
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
        (peer.uid != 0 && peer.uid != geteuid()))
        return true;
    if (start_client(fd.get(), peer.pid)) {
        fd.release();
        return true;
    }
    keep_result(peer.pid, 1);
    send(fd.get(), kBusy, sizeof kBusy - 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    return true;
}

// Waits for running commands until `end`; those for the loop run meanwhile.
void end_clients(int64_t end) {
    for (bool busy = true; busy && monotonic_ms() < end;) {
        run_deferred();
        busy = false;
        {
            MutexLock lock(clients_mutex);
            for (Client &client : clients) {
                if (client.fd >= 0) {
                    shutdown(client.fd, SHUT_RD);  // who has not asked yet is not heard
                    busy = true;
                }
            }
        }
        if (busy)
            poll(nullptr, 0, kRoundMs);
    }
}

// A client that has its result asks no more for it.
int cmd_result(int, char **, FILE *out) {
    int result = 0;
    {
        MutexLock lock(clients_mutex);
        for (Result &kept : results) {
            if (kept.pid == client_pid && kept.pid != 0) {
                result = kept.result;
                kept.pid = 0;
            }
        }
    }
    fprintf(out, "%d\n", result);
    return 0;
}

}  // namespace utils::service

using namespace utils::service;

int daemon_cmd_stats(int, char **, FILE *out) {
    {
        utils::MutexLock lock(clients_mutex);
        if (reporting)
            return fprintf(out, "another report is being written\n"), 1;
        reporting = true;
    }
    // The report's file may be locked by others, so no lock is held here.
    serviceStat_stop(name, words, getMySwitch());
    {
        utils::MutexLock lock(clients_mutex);
        reporting = false;
        serviceStatIsOn = 1;
    }
    fprintf(out, "appended to " SERVICE_STAT_FILE "\n", getMySwitch());
    return 0;
}

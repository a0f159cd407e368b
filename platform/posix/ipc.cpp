// SPDX-License-Identifier: Apache-2.0
// Messages between processes: one Unix sequential-packet socket a daemon, and here the daemon's
// side. One thread accepts, receives and runs the handlers; it alone closes connections. `server_mutex`
// guards the tables, is never held while a handler runs or anything waits, and no other lock is
// taken under it. A forked child drops its copies of the sockets, so that they end with the daemon.
// A connection whose requester waits for an answer is the requester's to end; of the others those
// idle longest make room for newcomers, which wait in the listener's queue while there is none.
#include "utils/platform/posix/ipc_server.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "base/deadline.h"
#include "base/descriptor.h"
#include "base/thread.h"
#include "ipc_name.h"
#include "ipc_packet.h"
#include "ipc_request.h"

namespace utils::ipc {
namespace {

constexpr int kConnections = 32;
constexpr int64_t kGraceMs = 500;   // a connection's time for its first request
constexpr int64_t kRetryMs = 20;    // between looks for room, with newcomers waiting
constexpr uint16_t kReplyNode = 0;  // marks a reply address: slot as switch, SERIAL.NUMBER as name

struct Connection {
    int fd;
    uint32_t serial;   // 0 in a free entry
    uint32_t pending;  // the last request's number, until it is answered
    bool asked;        // has had a request
    bool ending;       // takes no more requests
    int64_t last_ms;
};

struct Handler {
    int code;
    ipc_handler function;  // null in a free entry
};

struct Sockets {
    int listener;
    int wake;
};

Mutex server_mutex;
Handler handlers[IPC_HANDLERS_MAX] UTILS_GUARDED_BY(server_mutex);
Connection connections[kConnections] UTILS_GUARDED_BY(server_mutex);
uint32_t next_serial UTILS_GUARDED_BY(server_mutex) = 1;
bool opening UTILS_GUARDED_BY(server_mutex) = false;
bool serving UTILS_GUARDED_BY(server_mutex) = false;
bool closing UTILS_GUARDED_BY(server_mutex) = false;
bool fork_watched UTILS_GUARDED_BY(server_mutex) = false;
pthread_t server UTILS_GUARDED_BY(server_mutex);
Sockets sockets UTILS_GUARDED_BY(server_mutex);
sockaddr_un own_path UTILS_GUARDED_BY(server_mutex);

// Answers the requester behind a reply address, if it still waits.
int send_reply(const ipc_address &address, int code, const void *data, uint32_t length) {
    if (length > IPC_REPLY_MAX)
        return -EMSGSIZE;
    char *rest;
    auto serial = static_cast<uint32_t>(strtoul(address.name, &rest, 10));
    uint32_t number = *rest == '.' ? static_cast<uint32_t>(strtoul(rest + 1, nullptr, 10)) : 0;
    MutexLock lock(server_mutex);
    if (address.switch_no >= kConnections)
        return -EINVAL;
    Connection &connection = connections[address.switch_no];
    if (connection.serial != serial || serial == 0)
        return -ENOTCONN;
    if (connection.pending == number)
        connection.pending = 0;
    connection.last_ms = monotonic_ms();
    Packet packet(code, number, data, length);
    if (packet.send_on(connection.fd, MSG_DONTWAIT) >= 0)
        return 0;
    int error = errno;
    shutdown(connection.fd, SHUT_RDWR);
    return -error;
}

void drop(Connection &connection) UTILS_REQUIRES(server_mutex) {
    close(connection.fd);
    connection = Connection{};
}

// Ends a connection that waits for no answer. A request that has come before is served first; a
// later one is refused where it is sent, so that its requester knows it has not arrived.
void retire(Connection &connection) UTILS_REQUIRES(server_mutex) {
    char byte;
    shutdown(connection.fd, SHUT_RD);
    connection.ending = recv(connection.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
    if (!connection.ending)
        drop(connection);
}

// Retires the connection that has been silent longest, of those that wait for no answer and have
// had their time to ask. False when there is none.
bool retire_oldest() UTILS_REQUIRES(server_mutex) {
    int64_t now = monotonic_ms();
    Connection *oldest = nullptr;
    for (Connection &connection : connections) {
        if (connection.serial != 0 && connection.pending == 0 && !connection.ending &&
            (connection.asked || now - connection.last_ms >= kGraceMs) &&
            (oldest == nullptr || connection.last_ms < oldest->last_ms))
            oldest = &connection;
    }
    if (oldest != nullptr)
        retire(*oldest);
    return oldest != nullptr;
}

// A free entry, for which an old connection may have to go; null when none can.
Connection *free_entry() UTILS_REQUIRES(server_mutex) {
    do {
        for (Connection &connection : connections) {
            if (connection.serial == 0)
                return &connection;
        }
    } while (retire_oldest());
    return nullptr;
}

bool peer_is_trusted(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == geteuid() || peer.uid == 0);
}

// False when there is no room for the next requester, or no descriptor.
bool accept_requester(int listener) {
    MutexLock lock(server_mutex);
    Connection *entry = free_entry();
    if (entry == nullptr)
        return false;
    Descriptor fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!fd)
        return errno == EAGAIN || errno == ECONNABORTED || retire_oldest();
    if (!peer_is_trusted(fd.get()))
        return true;
    *entry = {fd.release(), next_serial, 0, false, false, monotonic_ms()};
    next_serial = next_serial == UINT32_MAX ? 1 : next_serial + 1;
    return true;
}

// The handler of a request, which is now its connection's pending one; null for an unknown code.
ipc_handler accept_request(int slot, const Packet &packet) {
    MutexLock lock(server_mutex);
    for (const Handler &entry : handlers) {
        if (entry.function == nullptr || entry.code != packet.code())
            continue;
        connections[slot].asked = true;
        connections[slot].pending = packet.number();
        return entry.function;
    }
    return nullptr;
}

// Receives one request and runs its handler. False ends the connection.
bool serve_request(int slot, const Connection &connection) {
    alignas(8) Packet packet;
    ssize_t received =
        recv(connection.fd, packet.bytes, kHeadSize + IPC_REQUEST_MAX, MSG_DONTWAIT | MSG_TRUNC);
    if (received < 0)
        return errno == EAGAIN || errno == EINTR;
    size_t size = static_cast<size_t>(received);
    if (size < kHeadSize || size > kHeadSize + IPC_REQUEST_MAX)
        return false;
    ipc_handler handler = accept_request(slot, packet);
    if (handler == nullptr)
        return false;
    ipc_address reply{kReplyNode, static_cast<uint16_t>(slot), {}};
    snprintf(reply.name, sizeof reply.name, "%u.%u", connection.serial, packet.number());
    auto length = static_cast<uint32_t>(size - kHeadSize);
    memset(packet.message() + length, 0, IPC_MESSAGE_SIZE - length);
    // The platform's word in front of the message takes the number's place.
    unsigned char *message = packet.message() - sizeof length;
    memcpy(message, &length, sizeof length);
    handler(&reply, packet.code(), length > 0 ? message : nullptr);
    return true;
}

// What the server waits for: as few entries as there are descriptors, since poll() refuses more
// than the process may have.
struct Work {
    pollfd set[2 + kConnections];  // the wake descriptor, the listener, the connections
    int slot[2 + kConnections];
    nfds_t count;
};

// Lists what is to be waited for; a listener that must wait itself is passed over. Returns for how
// long at most.
int list_work(const Sockets &own, bool accepting, Work &work) {
    work.count = 2;
    work.set[0] = {own.wake, POLLIN, 0};
    work.set[1] = {accepting ? own.listener : -1, POLLIN, 0};
    MutexLock lock(server_mutex);
    int64_t now = monotonic_ms();
    for (int slot = 0; slot < kConnections; ++slot) {
        Connection &connection = connections[slot];
        if (connection.serial != 0 && connection.pending == 0 && !connection.ending &&
            now - connection.last_ms >= kIdleLimitMs)
            retire(connection);
        if (connection.serial == 0)
            continue;
        // One that is ending looks readable; while its answer is due, its requester alone ends it.
        bool waits = connection.ending && connection.pending != 0;
        work.slot[work.count] = slot;
        work.set[work.count++] = {connection.fd, static_cast<short>(waits ? 0 : POLLIN), 0};
    }
    return !accepting ? static_cast<int>(kRetryMs) : work.count > 2 ? 1000 : -1;
}

// Waits for work; false when asked to stop.
bool wait_for_work(const Sockets &own, bool accepting, Work &work) {
    int limit_ms = list_work(own, accepting, work);
    if (poll(work.set, work.count, limit_ms) < 0) {
        // The limit of descriptors may have been lowered below what is open.
        if (errno != EINTR) {
            poll(nullptr, 0, static_cast<int>(kRetryMs));
            MutexLock lock(server_mutex);
            retire_oldest();
        }
        for (pollfd &entry : work.set)
            entry.revents = 0;
    }
    return (work.set[0].revents & POLLIN) == 0;
}

// Forgets everything that belongs to an open socket.
void close_all() UTILS_REQUIRES(server_mutex) {
    for (Connection &connection : connections) {
        if (connection.serial != 0)
            drop(connection);
    }
    close(sockets.listener);
    close(sockets.wake);
    serving = false;
    closing = false;
}

// Serves what has come on one connection. False when that has ended it.
bool serve_connection(int slot) {
    Connection connection;
    {
        MutexLock lock(server_mutex);
        connections[slot].last_ms = monotonic_ms();
        connection = connections[slot];
    }
    if (serve_request(slot, connection))
        return true;
    MutexLock lock(server_mutex);
    drop(connections[slot]);
    return false;
}

// The service thread: requests first, then newcomers, who wait when descriptors run short.
void *serve(void *) {
    Sockets own;
    {
        MutexLock lock(server_mutex);
        own = sockets;
    }
    Work work;
    int64_t accept_ms = 0;
    while (wait_for_work(own, monotonic_ms() >= accept_ms, work)) {
        for (nfds_t i = 2; i < work.count; ++i) {
            if (work.set[i].revents != 0 && !serve_connection(work.slot[i]))
                accept_ms = 0;
        }
        if (work.set[1].revents != 0 && !accept_requester(own.listener))
            accept_ms = monotonic_ms() + kRetryMs;
    }
    MutexLock lock(server_mutex);
    unlink(own_path.sun_path);
    close_all();
    return nullptr;
}

// Starts the thread with every signal blocked: signals belong to the daemon's own threads.
int start_thread(pthread_t *thread) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int error = pthread_create(thread, nullptr, serve, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return -error;
}

// Opens the socket and starts its thread; the name is locked.
int start_serving(const sockaddr_un &path) UTILS_REQUIRES(server_mutex) {
    Descriptor listener(listen_at(path));
    if (!listener)
        return listener.get();
    Descriptor wake(eventfd(0, EFD_CLOEXEC));
    sockets = {listener.get(), wake.get()};
    int error = wake ? start_thread(&server) : -errno;
    if (error != 0) {
        unlink(path.sun_path);
        return error;
    }
    listener.release();
    wake.release();
    own_path = path;
    serving = true;
    return 0;
}

void before_fork() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    server_mutex.lock();
}
void after_fork() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    server_mutex.unlock();
}
void after_fork_in_child() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    if (serving)
        close_all();
    opening = false;
    server_mutex.unlock();
}

__attribute__((destructor)) void remove_socket() {
    MutexLock lock(server_mutex);
    if (serving)
        unlink(own_path.sun_path);
}

}  // namespace
}  // namespace utils::ipc

using namespace utils;
using namespace utils::ipc;

int ipcSend(void *address, int code, const void *data, uint32_t length, const uint32_t timeout[2]) {
    if (address == nullptr || (data == nullptr && length > 0))
        return -EINVAL;
    const ipc_address &to = *static_cast<ipc_address *>(address);
    if (to.node == kReplyNode)
        return send_reply(to, code, data, length);
    return send_one_way(to, code, data, length, timeout);
}

int ipc_open(const ipc_address *own) {
    sockaddr_un path{};
    if (own == nullptr || own->node == kReplyNode || !socket_path(*own, path))
        return -EINVAL;
    {
        MutexLock lock(server_mutex);
        if (serving || opening)
            return -EALREADY;
        if (!fork_watched)
            fork_watched = pthread_atfork(before_fork, after_fork, after_fork_in_child) == 0;
        opening = true;
    }
    NameLock name(path);
    int error = name.acquire();
    MutexLock lock(server_mutex);
    opening = false;
    return error == 0 ? start_serving(path) : error;
}

int ipc_register(int code, ipc_handler handler) {
    if (handler == nullptr)
        return -EINVAL;
    MutexLock lock(server_mutex);
    Handler *place = nullptr;
    for (Handler &entry : handlers) {
        if (entry.function != nullptr && entry.code == code) {
            place = &entry;
            break;
        }
        if (entry.function == nullptr && place == nullptr)
            place = &entry;
    }
    if (place == nullptr)
        return -ENOSPC;
    *place = {code, handler};
    return 0;
}

int ipc_unregister(int code) {
    MutexLock lock(server_mutex);
    for (Handler &entry : handlers) {
        if (entry.function != nullptr && entry.code == code) {
            entry.function = nullptr;
            return 0;
        }
    }
    return -ENOENT;
}

void ipc_close(void) {
    pthread_t thread;
    {
        MutexLock lock(server_mutex);
        uint64_t one = 1;
        if (!serving || closing || write(sockets.wake, &one, sizeof one) < 0)
            return;
        closing = true;
        thread = server;
    }
    if (pthread_equal(thread, pthread_self()))
        pthread_detach(thread);
    else
        pthread_join(thread, nullptr);
}

// Messages between processes: one Unix sequential-packet socket a daemon, and here the daemon's
// side. One thread accepts, receives and runs the handlers; it alone closes connections. `lock`
// guards the tables, is never held while a handler runs or anything waits, and no other lock is
// taken under it. A forked child drops its copies of the sockets, so that they end with the daemon.
#include "utils/platform/posix/ipc_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>

#include "base/thread.h"
#include "ipc_packet.h"

namespace {

using namespace utils::ipc;
using utils::Descriptor;
using utils::monotonic_ms;
using utils::Mutex;
using utils::MutexLock;

constexpr int kConnections = 32;
constexpr int kBacklog = 128;
constexpr int64_t kIdleLimitMs = 20000;  // then a silent connection is ended
constexpr uint16_t kReplyNode = 0;  // marks a reply address: slot as switch, serial number as name

struct Connection {
    int fd;
    uint32_t serial;  // 0 in a free entry
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

Mutex lock;
Handler handlers[IPC_HANDLERS_MAX] UTILS_GUARDED_BY(lock);
Connection connections[kConnections] UTILS_GUARDED_BY(lock);
uint32_t next_serial UTILS_GUARDED_BY(lock) = 1;
bool serving UTILS_GUARDED_BY(lock) = false;
bool closing UTILS_GUARDED_BY(lock) = false;
bool fork_watched UTILS_GUARDED_BY(lock) = false;
pthread_t server UTILS_GUARDED_BY(lock);
Sockets sockets UTILS_GUARDED_BY(lock);
sockaddr_un own_path UTILS_GUARDED_BY(lock);

// Answers the requester behind a reply address, if it still waits.
int send_reply(const ipc_address &address, int code, const void *data, uint32_t length) {
    if (length > IPC_REPLY_MAX)
        return -EMSGSIZE;
    auto serial = static_cast<uint32_t>(strtoul(address.name, nullptr, 10));
    MutexLock hold(lock);
    if (address.switch_no >= kConnections)
        return -EINVAL;
    Connection &connection = connections[address.switch_no];
    if (connection.serial != serial || serial == 0)
        return -ENOTCONN;
    int result = send_packet(connection.fd, code, data, length, MSG_DONTWAIT);
    if (result != 0)
        shutdown(connection.fd, SHUT_RDWR);
    return result;
}

ipc_handler handler_of(int code) {
    MutexLock hold(lock);
    for (const Handler &entry : handlers) {
        if (entry.function != nullptr && entry.code == code)
            return entry.function;
    }
    return nullptr;
}

void drop(Connection &connection) UTILS_REQUIRES(lock) {
    close(connection.fd);
    connection = Connection{};
}

// Ends the connection that has been silent longest. False when there is none.
bool drop_oldest() UTILS_REQUIRES(lock) {
    Connection *oldest = nullptr;
    for (Connection &connection : connections) {
        if (connection.serial != 0 && (oldest == nullptr || connection.last_ms < oldest->last_ms))
            oldest = &connection;
    }
    if (oldest != nullptr)
        drop(*oldest);
    return oldest != nullptr;
}

// Out of descriptors: ends a connection, or at least does not spin while there is none to end.
void make_room() {
    bool ended;
    {
        MutexLock hold(lock);
        ended = drop_oldest();
    }
    if (!ended)
        poll(nullptr, 0, 10);
}

bool peer_is_trusted(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == geteuid() || peer.uid == 0);
}

void accept_requester(int listener) {
    Descriptor fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!fd) {
        if (errno == EMFILE || errno == ENFILE)
            make_room();
        return;
    }
    if (!peer_is_trusted(fd.get()))
        return;
    MutexLock hold(lock);
    for (;;) {
        for (Connection &connection : connections) {
            if (connection.serial != 0)
                continue;
            connection = {fd.release(), next_serial, monotonic_ms()};
            next_serial = next_serial == UINT32_MAX ? 1 : next_serial + 1;
            return;
        }
        drop_oldest();
    }
}

// Receives one request and runs its handler. False ends the connection.
bool serve_request(int slot, const Connection &connection) {
    struct {
        uint32_t platform_word;
        unsigned char body[IPC_MESSAGE_SIZE];
    } message{};
    Packet packet(0, message.body, IPC_REQUEST_MAX);
    ssize_t received = recvmsg(connection.fd, &packet.header, MSG_DONTWAIT);
    if (received < 0)
        return errno == EAGAIN || errno == EINTR;
    if (received < static_cast<ssize_t>(kCodeSize) || (packet.header.msg_flags & MSG_TRUNC) != 0)
        return false;
    int code = static_cast<int>(utils::load_be32(packet.code));
    ipc_handler handler = handler_of(code);
    if (handler == nullptr)
        return false;
    message.platform_word = static_cast<uint32_t>(received) - kCodeSize;
    ipc_address reply{kReplyNode, static_cast<uint16_t>(slot), {}};
    snprintf(reply.name, sizeof reply.name, "%u", connection.serial);
    handler(&reply, code, message.platform_word > 0 ? &message : nullptr);
    return true;
}

// Waits for the wake descriptor, the listener and every connection; false when asked to stop.
bool wait_for_work(const Sockets &own, pollfd (&set)[2 + kConnections]) {
    int open = 0;
    set[0] = {own.wake, POLLIN, 0};
    set[1] = {own.listener, POLLIN, 0};
    {
        MutexLock hold(lock);
        int64_t now = monotonic_ms();
        for (int slot = 0; slot < kConnections; ++slot) {
            Connection &connection = connections[slot];
            if (connection.serial != 0 && now - connection.last_ms > kIdleLimitMs)
                drop(connection);
            bool used = connection.serial != 0;
            set[2 + slot] = {used ? connection.fd : -1, POLLIN, 0};
            open += used;
        }
    }
    if (poll(set, 2 + kConnections, open > 0 ? 1000 : -1) < 0) {
        for (pollfd &entry : set)
            entry.revents = 0;
    }
    return (set[0].revents & POLLIN) == 0;
}

// Forgets everything that belongs to an open socket.
void close_all() UTILS_REQUIRES(lock) {
    while (drop_oldest()) {
    }
    close(sockets.listener);
    close(sockets.wake);
    serving = false;
    closing = false;
}

void *serve(void *) {
    Sockets own;
    {
        MutexLock hold(lock);
        own = sockets;
    }
    pollfd set[2 + kConnections];
    while (wait_for_work(own, set)) {
        for (int slot = 0; slot < kConnections; ++slot) {
            if (set[2 + slot].revents == 0)
                continue;
            Connection connection;
            {
                MutexLock hold(lock);
                connections[slot].last_ms = monotonic_ms();
                connection = connections[slot];
            }
            if (!serve_request(slot, connection)) {
                MutexLock hold(lock);
                drop(connections[slot]);
            }
        }
        if (set[1].revents != 0)
            accept_requester(own.listener);
    }
    MutexLock hold(lock);
    unlink(own_path.sun_path);
    close_all();
    return nullptr;
}

// A listening socket at `path`, in the place of a dead daemon's. The directory is locked, so that
// two daemons that start at once do not remove each other's socket.
int listen_at(const sockaddr_un &path) {
    Descriptor directory(open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Descriptor fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!directory || !fd || flock(directory.get(), LOCK_EX) != 0)
        return -errno;
    auto *name = reinterpret_cast<const sockaddr *>(&path);
    if (bind(fd.get(), name, sizeof path) != 0) {
        if (errno != EADDRINUSE)
            return -errno;
        Descriptor probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!probe)
            return -errno;
        if (connect(probe.get(), name, sizeof path) == 0 || errno != ECONNREFUSED)
            return -EADDRINUSE;
        unlink(path.sun_path);
        if (bind(fd.get(), name, sizeof path) != 0)
            return -errno;
    }
    if (listen(fd.get(), kBacklog) != 0)
        return -errno;
    return fd.release();
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

void before_fork() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    lock.lock();
}
void after_fork() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    lock.unlock();
}
void after_fork_in_child() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    if (serving)
        close_all();
    lock.unlock();
}

__attribute__((destructor)) void remove_socket() {
    MutexLock hold(lock);
    if (serving)
        unlink(own_path.sun_path);
}

}  // namespace

int ipcSendRcv(void *address, int code, const void *request, uint32_t requestLength, void *reply,
               uint32_t *replyLength, const uint32_t timeout[2]) {
    if (address == nullptr || replyLength == nullptr || (reply == nullptr && *replyLength > 0))
        return -EINVAL;
    WaitLimit limit(timeout);
    Descriptor fd(
        send_request(*static_cast<ipc_address *>(address), code, request, requestLength, limit));
    return fd ? receive_reply(fd.get(), reply, replyLength, limit) : fd.get();
}

int ipcSend(void *address, int code, const void *data, uint32_t length, const uint32_t timeout[2]) {
    if (address == nullptr || (data == nullptr && length > 0))
        return -EINVAL;
    const ipc_address &to = *static_cast<ipc_address *>(address);
    if (to.node == kReplyNode)
        return send_reply(to, code, data, length);
    Descriptor fd(send_request(to, code, data, length, WaitLimit(timeout)));
    return fd ? 0 : fd.get();
}

int ipc_open(const ipc_address *own) {
    sockaddr_un path{};
    if (own == nullptr || own->node == kReplyNode || !socket_path(*own, path))
        return -EINVAL;
    MutexLock hold(lock);
    if (serving)
        return -EALREADY;
    if (!fork_watched)
        fork_watched = pthread_atfork(before_fork, after_fork, after_fork_in_child) == 0;
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

int ipc_register(int code, ipc_handler handler) {
    if (handler == nullptr)
        return -EINVAL;
    MutexLock hold(lock);
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
    MutexLock hold(lock);
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
        MutexLock hold(lock);
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

// Messages between processes: one Unix sequential-packet socket a daemon, and here the daemon's
// side. One thread accepts, receives and runs the handlers; it alone closes connections. `lock`
// guards the tables, is never held while a handler runs or anything waits, and no other lock is
// taken under it. A forked child drops its copies of the sockets, so that they end with the daemon.
// A connection whose requester waits for an answer is the requester's to end; newcomers that find
// no room wait in the listener's queue.
#include "utils/platform/posix/ipc_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "base/deadline.h"
#include "base/descriptor.h"
#include "base/thread.h"
#include "ipc_packet.h"
#include "ipc_request.h"

namespace {

using namespace utils::ipc;
using utils::Descriptor;
using utils::monotonic_ms;
using utils::Mutex;
using utils::MutexLock;

constexpr int kConnections = 32;
constexpr int kBacklog = 128;
constexpr int64_t kIdleLimitMs = 20000;  // then a connection without a request is ended
constexpr int64_t kGraceMs = 500;        // that long it is safe from newcomers
constexpr int64_t kRetryMs = 20;         // between looks for room, with newcomers waiting
constexpr int64_t kNameLimitMs = 20000;  // for another process that opens the same name
constexpr int kNamePollMs = 10;
constexpr uint16_t kReplyNode = 0;  // marks a reply address: slot as switch, serial number as name

struct Connection {
    int fd;
    uint32_t serial;  // 0 in a free entry
    uint32_t unanswered;
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
bool opening UTILS_GUARDED_BY(lock) = false;
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
    if (connection.unanswered > 0)
        --connection.unanswered;
    connection.last_ms = monotonic_ms();
    Packet packet(code, const_cast<void *>(data), length);
    if (sendmsg(connection.fd, &packet.header, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0)
        return 0;
    int error = errno;
    shutdown(connection.fd, SHUT_RDWR);
    return -error;
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

// Ends the connection that has been silent longest, of those that wait for no answer and have had
// their time to ask. False when there is none.
bool drop_oldest() UTILS_REQUIRES(lock) {
    Connection *oldest = nullptr;
    for (Connection &connection : connections) {
        if (connection.serial != 0 && connection.unanswered == 0 &&
            (oldest == nullptr || connection.last_ms < oldest->last_ms))
            oldest = &connection;
    }
    if (oldest == nullptr || monotonic_ms() - oldest->last_ms < kGraceMs)
        return false;
    drop(*oldest);
    return true;
}

// A free entry, for which an old connection may have to go; null when none can.
Connection *free_entry() UTILS_REQUIRES(lock) {
    do {
        for (Connection &connection : connections) {
            if (connection.serial == 0)
                return &connection;
        }
    } while (drop_oldest());
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
    MutexLock hold(lock);
    Connection *entry = free_entry();
    if (entry == nullptr)
        return false;
    Descriptor fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!fd)
        return errno == EAGAIN || errno == ECONNABORTED || drop_oldest();
    if (!peer_is_trusted(fd.get()))
        return true;
    *entry = {fd.release(), next_serial, 0, monotonic_ms()};
    next_serial = next_serial == UINT32_MAX ? 1 : next_serial + 1;
    return true;
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
    {
        MutexLock hold(lock);
        ++connections[slot].unanswered;
    }
    message.platform_word = static_cast<uint32_t>(received) - kCodeSize;
    ipc_address reply{kReplyNode, static_cast<uint16_t>(slot), {}};
    snprintf(reply.name, sizeof reply.name, "%u", connection.serial);
    handler(&reply, code, message.platform_word > 0 ? &message : nullptr);
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
    MutexLock hold(lock);
    int64_t now = monotonic_ms();
    for (int slot = 0; slot < kConnections; ++slot) {
        Connection &connection = connections[slot];
        if (connection.serial != 0 && connection.unanswered == 0 &&
            now - connection.last_ms > kIdleLimitMs)
            drop(connection);
        if (connection.serial == 0)
            continue;
        work.slot[work.count] = slot;
        work.set[work.count++] = {connection.fd, POLLIN, 0};
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
            MutexLock hold(lock);
            drop_oldest();
        }
        for (pollfd &entry : work.set)
            entry.revents = 0;
    }
    return (work.set[0].revents & POLLIN) == 0;
}

// Forgets everything that belongs to an open socket.
void close_all() UTILS_REQUIRES(lock) {
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
        MutexLock hold(lock);
        connections[slot].last_ms = monotonic_ms();
        connection = connections[slot];
    }
    if (serve_request(slot, connection))
        return true;
    MutexLock hold(lock);
    drop(connections[slot]);
    return false;
}

void *serve(void *) {
    Sockets own;
    {
        MutexLock hold(lock);
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
    MutexLock hold(lock);
    unlink(own_path.sun_path);
    close_all();
    return nullptr;
}

// The lock that one process holds while it takes a name, so that two daemons that start at once do
// not remove each other's socket. A file that nobody else can open, and that its holder removes: it
// counts as locked only while it still stands in its place.
class NameLock {
  public:
    explicit NameLock(const sockaddr_un &socket) {
        snprintf(path_, sizeof path_, "%s.lock", socket.sun_path);
    }
    ~NameLock() {
        if (file_)
            unlink(path_);
    }
    NameLock(const NameLock &) = delete;
    NameLock &operator=(const NameLock &) = delete;

    // Waits for the lock. Returns 0, or a negated errno value.
    int acquire() {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        for (int64_t end_ms = monotonic_ms() + kNameLimitMs;;) {
            int error = file_ ? 0 : open_file();
            if (error == 0 && fcntl(file_.get(), F_SETLK, &whole) == 0) {
                if (is_in_place())
                    return 0;
                file_.reset();
                continue;
            }
            if (error == 0 && errno != EAGAIN && errno != EACCES)
                error = -errno;
            if (error == 0 && monotonic_ms() >= end_ms)
                error = -ETIMEDOUT;
            if (error != 0) {
                file_.reset();
                return error;
            }
            poll(nullptr, 0, kNamePollMs);
        }
    }

  private:
    // What another user has put in the file's place, to hold us up, is removed.
    int open_file() {
        int error = 0;
        for (int attempt = 0; attempt < 3; ++attempt) {
            file_.reset(open(path_, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
            struct stat status {};
            if (file_ && fstat(file_.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                status.st_uid == geteuid() && (status.st_mode & 077) == 0)
                return 0;
            error = file_ ? EACCES : errno;
            file_.reset();
            if ((error != EACCES && error != ELOOP && error != ENXIO) || unlink(path_) != 0)
                break;
        }
        return -error;
    }
    bool is_in_place() const {
        struct stat held {
        }, named{};
        return fstat(file_.get(), &held) == 0 && stat(path_, &named) == 0 &&
               held.st_ino == named.st_ino && held.st_dev == named.st_dev;
    }

    char path_[sizeof sockaddr_un::sun_path + 8];
    Descriptor file_;
};

// A listening socket at `path`, in the place of a dead daemon's. The name is locked.
int listen_at(const sockaddr_un &path) {
    Descriptor fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
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

// Opens the socket and starts its thread; the name is locked.
int start_serving(const sockaddr_un &path) UTILS_REQUIRES(lock) {
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
    lock.lock();
}
void after_fork() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    lock.unlock();
}
void after_fork_in_child() UTILS_NO_THREAD_SAFETY_ANALYSIS {
    if (serving)
        close_all();
    opening = false;
    lock.unlock();
}

__attribute__((destructor)) void remove_socket() {
    MutexLock hold(lock);
    if (serving)
        unlink(own_path.sun_path);
}

}  // namespace

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
        MutexLock hold(lock);
        if (serving || opening)
            return -EALREADY;
        if (!fork_watched)
            fork_watched = pthread_atfork(before_fork, after_fork, after_fork_in_child) == 0;
        opening = true;
    }
    NameLock name(path);
    int error = name.acquire();
    MutexLock hold(lock);
    opening = false;
    return error == 0 ? start_serving(path) : error;
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

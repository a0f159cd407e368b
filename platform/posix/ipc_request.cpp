// The requester's side of the messages between processes: it connects anew for each request.
// Results are 0 (or a descriptor), or a negated errno value.
#include "ipc_request.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

#include "base/deadline.h"
#include "base/descriptor.h"
#include "ipc_packet.h"

namespace utils::ipc {
namespace {

// The end of a wait: a moment of the monotonic clock, or none.
class WaitLimit {
  public:
    explicit WaitLimit(const uint32_t timeout[2]) : limited_(timeout != nullptr) {
        if (limited_)
            end_ms_ = monotonic_ms() + int64_t{timeout[0]} * 1000 + (timeout[1] + 999) / 1000;
    }
    int poll_ms() const {
        if (!limited_)
            return -1;
        int64_t left = end_ms_ - monotonic_ms();
        return left <= 0 ? 0 : left > 1000000000 ? 1000000000 : static_cast<int>(left);
    }
    bool is_over() const { return poll_ms() == 0; }
    // Lets calls that send on `fd`, or connect it, wait no longer than until the end. As a socket
    // option, zero would mean no limit.
    void apply_to(int fd) const {
        int ms = poll_ms();
        timeval left{ms / 1000, ms == 0 ? 1 : ms % 1000 * 1000};
        if (limited_)
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &left, sizeof left);
    }

  private:
    bool limited_;
    int64_t end_ms_ = 0;
};

// Runs `call`, which waits on `fd`, until it succeeds or the limit is over. A signal starts it
// again with what is left of the limit.
template <typename Call>
int within(const WaitLimit &limit, int fd, Call call) {
    do {
        limit.apply_to(fd);
        if (call() >= 0)
            return 0;
        if (errno == EAGAIN)
            return -ETIMEDOUT;
        if (errno != EINTR)
            return -errno;
    } while (!limit.is_over());
    return -ETIMEDOUT;
}

// A connection to the daemon at `path`, or a negated errno value.
int connect_to(const sockaddr_un &path, const WaitLimit &limit) {
    Descriptor fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd)
        return -errno;
    auto *name = reinterpret_cast<const sockaddr *>(&path);
    int result = within(limit, fd.get(), [&] { return connect(fd.get(), name, sizeof path); });
    return result == 0 ? fd.release() : result;
}

int send_request(const ipc_address &address, int code, const void *data, uint32_t length,
                 const WaitLimit &limit) {
    sockaddr_un path{};
    if (!socket_path(address, path) || (data == nullptr && length > 0))
        return -EINVAL;
    if (length > IPC_REQUEST_MAX)
        return -EMSGSIZE;
    Descriptor fd(connect_to(path, limit));
    if (!fd)
        return fd.get();
    Packet packet(code, const_cast<void *>(data), length);
    int result =
        within(limit, fd.get(), [&] { return sendmsg(fd.get(), &packet.header, MSG_NOSIGNAL); });
    return result == 0 ? fd.release() : result;
}

int receive_reply(int fd, void *reply, uint32_t *length, const WaitLimit &limit) {
    Packet packet(0, reply, *length);
    ssize_t received;
    while ((received = recvmsg(fd, &packet.header, MSG_DONTWAIT)) < 0) {
        if (errno != EAGAIN && errno != EINTR)
            return -errno;
        if (limit.is_over())
            return -ETIMEDOUT;
        pollfd readable{fd, POLLIN, 0};
        poll(&readable, 1, limit.poll_ms());
    }
    if (received < static_cast<ssize_t>(kCodeSize))
        return -ECONNRESET;
    *length = static_cast<uint32_t>(received) - kCodeSize;
    return 0;
}

}  // namespace

int send_one_way(const ipc_address &address, int code, const void *data, uint32_t length,
                 const uint32_t timeout[2]) {
    Descriptor fd(send_request(address, code, data, length, WaitLimit(timeout)));
    return fd ? 0 : fd.get();
}

}  // namespace utils::ipc

using namespace utils::ipc;

int ipcSendRcv(void *address, int code, const void *request, uint32_t requestLength, void *reply,
               uint32_t *replyLength, const uint32_t timeout[2]) {
    if (address == nullptr || replyLength == nullptr || (reply == nullptr && *replyLength > 0))
        return -EINVAL;
    WaitLimit limit(timeout);
    utils::Descriptor fd(
        send_request(*static_cast<ipc_address *>(address), code, request, requestLength, limit));
    return fd ? receive_reply(fd.get(), reply, replyLength, limit) : fd.get();
}

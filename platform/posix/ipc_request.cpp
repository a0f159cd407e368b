// SPDX-License-Identifier: Apache-2.0
// The requester's side of the messages between processes. A request goes over the connection that
// its thread has kept to the daemon. When that refuses it, nothing has reached the daemon, and a
// new connection takes it; after anything else it is not repeated. A message that nobody answers
// has a connection of its own. Results are 0 (or a descriptor), or a negated errno value.
#include "ipc_request.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

#include "base/deadline.h"
#include "base/descriptor.h"
#include "ipc_kept.h"
#include "ipc_packet.h"

namespace utils::ipc {
namespace {

// The end of a wait: a moment of the monotonic clock, or none.
class WaitLimit {
  public:
    explicit WaitLimit(const uint32_t timeout[2]) : start_ms_(monotonic_ms()) {
        if (timeout != nullptr)
            total_ms_ = int64_t{timeout[0]} * 1000 + (timeout[1] + 999) / 1000;
    }
    int64_t start_ms() const { return start_ms_; }
    int64_t total_ms() const { return total_ms_; }
    int poll_ms() const {
        if (total_ms_ == kNoLimit)
            return -1;
        int64_t left = start_ms_ + total_ms_ - monotonic_ms();
        return left <= 0 ? 0 : left > 1000000000 ? 1000000000 : static_cast<int>(left);
    }
    bool is_over() const { return poll_ms() == 0; }
    // Lets calls on `fd` wait no longer than until the end: SO_SNDTIMEO for those that connect or
    // send, SO_RCVTIMEO for those that receive. There zero would mean no limit.
    void apply_to(int fd, int option) const {
        int ms = poll_ms();
        timeval left{ms / 1000, ms == 0 ? 1 : ms % 1000 * 1000};
        if (ms < 0)
            left = {0, 0};
        setsockopt(fd, SOL_SOCKET, option, &left, sizeof left);
    }

  private:
    int64_t start_ms_;
    int64_t total_ms_ = kNoLimit;
};

// Runs `call`, which waits on `fd`, until it succeeds or the limit is over. A signal starts it
// again with what is left of the limit.
template <typename Call>
int within(const WaitLimit &limit, int fd, Call call) {
    do {
        limit.apply_to(fd, SO_SNDTIMEO);
        if (call() >= 0)
            return 0;
        if (errno == EAGAIN)
            return -ETIMEDOUT;
        if (errno != EINTR)
            return -errno;
    } while (!limit.is_over());
    return -ETIMEDOUT;
}

int connect_to(const ipc_address &address, int fd, const WaitLimit &limit) {
    sockaddr_un path{};
    socket_path(address, path);
    auto *name = reinterpret_cast<const sockaddr *>(&path);
    return within(limit, fd, [&] { return connect(fd, name, sizeof path); });
}

int check(const ipc_address &address, const void *data, uint32_t length) {
    if (!is_valid(address) || (data == nullptr && length > 0))
        return -EINVAL;
    return length > IPC_REQUEST_MAX ? -EMSGSIZE : 0;
}

// Any failure but a time-out comes before the daemon could receive anything.
int send_request(Line &line, int code, const void *data, uint32_t length, const WaitLimit &limit) {
    line.number = line.number == UINT32_MAX ? 1 : line.number + 1;
    Packet packet(code, line.number, data, length);
    if (packet.send_on(line.fd, MSG_DONTWAIT) >= 0)
        return 0;
    if (errno != EAGAIN && errno != EINTR)
        return -errno;
    line.wait_ms = kNoLimit;  // part of the limit is gone
    return within(limit, line.fd, [&] { return packet.send_on(line.fd, 0); });
}

// Waits in recv() first, where the wait costs least, and in poll() for what is left of the limit
// after a signal or a reply to an earlier request.
int receive_reply(Line &line, void *reply, uint32_t *length, const WaitLimit &limit) {
    Packet packet;
    size_t room = kHeadSize + (*length < IPC_REPLY_MAX ? *length : IPC_REPLY_MAX);
    if (line.wait_ms != limit.total_ms())
        limit.apply_to(line.fd, SO_RCVTIMEO);
    line.wait_ms = limit.total_ms();
    for (int flags = 0;; flags = MSG_DONTWAIT) {
        ssize_t received = recv(line.fd, packet.bytes, room, flags);
        if (received < 0 && errno != EAGAIN && errno != EINTR)
            return -errno;
        if (received >= 0 && received < static_cast<ssize_t>(kHeadSize))
            return -ECONNRESET;
        if (received >= 0 && packet.number() == line.number) {
            *length = static_cast<uint32_t>(received) - kHeadSize;
            if (*length > 0)
                memcpy(reply, packet.message(), *length);
            return 0;
        }
        if (limit.is_over())
            return -ETIMEDOUT;
        pollfd readable{line.fd, POLLIN, 0};
        if (received < 0)
            poll(&readable, 1, limit.poll_ms());
    }
}

}  // namespace

int send_one_way(const ipc_address &address, int code, const void *data, uint32_t length,
                 const uint32_t timeout[2]) {
    if (int error = check(address, data, length); error != 0)
        return error;
    WaitLimit limit(timeout);
    Descriptor fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd)
        return -errno;
    Packet packet(code, 0, data, length);
    int result = connect_to(address, fd.get(), limit);
    if (result == 0)
        result = within(limit, fd.get(), [&] { return packet.send_on(fd.get(), 0); });
    return result;
}

}  // namespace utils::ipc

using namespace utils::ipc;

int ipcSendRcv(void *address, int code, const void *request, uint32_t requestLength, void *reply,
               uint32_t *replyLength, const uint32_t timeout[2]) {
    if (address == nullptr || replyLength == nullptr || (reply == nullptr && *replyLength > 0))
        return -EINVAL;
    const ipc_address &to = *static_cast<ipc_address *>(address);
    if (int error = check(to, request, requestLength); error != 0)
        return error;
    WaitLimit limit(timeout);
    Line spare;
    Line *line = find_line(to, limit.start_ms());
    int result = -EPIPE;
    if (line != nullptr)
        result = send_request(*line, code, request, requestLength, limit);
    if (result < 0 && result != -ETIMEDOUT) {
        if (line != nullptr)
            end_line(*line);
        line = &new_line(to, spare);
        result = line->fd < 0 ? line->fd : connect_to(to, line->fd, limit);
        if (result == 0)
            result = send_request(*line, code, request, requestLength, limit);
    }
    if (result == 0)
        result = receive_reply(*line, reply, replyLength, limit);
    if (result == 0)
        keep_line(*line);
    else
        end_line(*line);
    return result;
}

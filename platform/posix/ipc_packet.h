// SPDX-License-Identifier: Apache-2.0
// The packets between requesters and daemons, in both directions, on the daemon's socket: the code
// and the request's number as big-endian words, followed by the message. A reply bears its
// request's number, so that none is taken for another's; 0 is a message that nobody answers.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/big_endian.h"
#include "utils/platform/posix/ipc_server.h"

namespace utils::ipc {

constexpr uint32_t kHeadSize = 8;
constexpr int64_t kIdleLimitMs = 5000;  // then either side ends a connection

static_assert(offsetof(ipc_address, switch_no) == 2 && offsetof(ipc_address, name) == 4);

// Whether the name can be a socket's.
inline bool is_valid(const ipc_address &address) {
    size_t length = strnlen(address.name, IPC_NAME_SIZE);
    return length > 0 && length < IPC_NAME_SIZE && memchr(address.name, '/', length) == nullptr;
}

// The socket's path, or false for a name that cannot be one.
inline bool socket_path(const ipc_address &address, sockaddr_un &path) {
    if (!is_valid(address))
        return false;
    path.sun_family = AF_UNIX;
    snprintf(path.sun_path, sizeof path.sun_path, IPC_SOCKET_FORMAT, address.node,
             address.switch_no, address.name);
    return true;
}

// A packet in one piece, which costs less than parts do. The message stays uninitialized.
struct Packet {
    unsigned char bytes[kHeadSize + IPC_MESSAGE_SIZE];  // code, number, message

    Packet() {}
    Packet(int code, uint32_t number, const void *data, size_t length) : size(kHeadSize + length) {
        utils::store_be32(bytes, static_cast<uint32_t>(code));
        utils::store_be32(bytes + 4, number);
        if (length > 0)
            memcpy(message(), data, length);
    }
    ssize_t send_on(int fd, int flags) const { return send(fd, bytes, size, MSG_NOSIGNAL | flags); }
    int code() const { return static_cast<int>(utils::load_be32(bytes)); }
    unsigned char *message() { return bytes + kHeadSize; }
    uint32_t number() const { return utils::load_be32(bytes + 4); }

    size_t size = 0;
};
static_assert(IPC_MESSAGE_SIZE >= IPC_REPLY_MAX && IPC_MESSAGE_SIZE >= IPC_REQUEST_MAX);

}  // namespace utils::ipc

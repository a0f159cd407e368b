// The packets between requesters and daemons: a big-endian code word followed by the message, in
// both directions, on the daemon's socket.
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

constexpr const char *kDirectory = "/run/korin";
constexpr uint32_t kCodeSize = 4;

static_assert(offsetof(ipc_address, switch_no) == 2 && offsetof(ipc_address, name) == 4);

// The socket's path, or false for a name that cannot be one.
inline bool socket_path(const ipc_address &address, sockaddr_un &path) {
    size_t length = strnlen(address.name, IPC_NAME_SIZE);
    if (length == 0 || length == IPC_NAME_SIZE || memchr(address.name, '/', length) != nullptr)
        return false;
    path.sun_family = AF_UNIX;
    snprintf(path.sun_path, sizeof path.sun_path, "%s/%u.%u.%s.ipc", kDirectory, address.node,
             address.switch_no, address.name);
    return true;
}

// A packet's two parts for sendmsg() and recvmsg().
struct Packet {
    unsigned char code[kCodeSize];
    iovec parts[2];
    msghdr header{};

    Packet(int packet_code, void *data, size_t length) : parts{{code, kCodeSize}, {data, length}} {
        utils::store_be32(code, static_cast<uint32_t>(packet_code));
        header.msg_iov = parts;
        header.msg_iovlen = 2;
    }
};

}  // namespace utils::ipc

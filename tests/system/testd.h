// SPDX-License-Identifier: Apache-2.0
// A daemon for tests, in a process of its own, and what a requester needs to talk to it.
#pragma once

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <thread>
#include <tuple>

#include "base/big_endian.h"
#include "support/wire.h"
#include "utils/daemon_codes.h"
#include "utils/daemon_ctl.h"
#include "utils/identity.h"
#include "utils/ipc_args.h"
#include "utils/platform/posix/ipc_server.h"
#include "utils/tnet_cmd.h"

namespace support {

enum Code {
    kSum = 1,
    kPoke,
    kDie,
    kEcho,
    kNothing,
    kDefer,
    kRelease,
    kRecord,
    kTwice,
    kFork,
    kUnknown
};

constexpr int kRedirect = IPC_CODE_REDIRECT_OUTPUT, kExit = IPC_CODE_EXIT;
inline const uint32_t kLong[2] = {20, 0}, kBrief[2] = {0, 50000};
inline const std::string kCommands = "/run/korin/testd.0.cmd",
                         kGood = inline_block(words({0xCAFEF00D}));

// Whether loops are to be cut down: each exchange costs much more here.
inline bool slow() {
#ifdef __SANITIZE_THREAD__
    return true;
#else
    return support::emulated();
#endif
}

inline ipc_address testd(const char *name = "testd") {
    ipc_address address{myNode(), static_cast<uint16_t>(getMySwitch()), {}};
    memcpy(address.name, name, strlen(name));
    return address;
}

// From here on, this process takes those that connect for a user's.
inline uid_t peers_user = 0;
inline void see_peers_of(uid_t user) {
    peers_user = user;
    replace_call("getsockopt", [](int fd, int level, int name, void *value, socklen_t *size) {
        int result = getsockopt(fd, level, name, value, size);
        if (result == 0 && name == SO_PEERCRED)
            static_cast<ucred *>(value)->uid = peers_user;
        return result;
    });
}

inline int stream_at(const std::string &path, int type,
                     int (*attach)(int, const sockaddr *, socklen_t)) {
    sockaddr_un name{AF_UNIX, {}};
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    EXPECT_TRUE(eventually([&] {
        return attach(fd, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0;
    })) << path;
    return fd;
}

inline std::string socket_of_testd() {
    return "/run/korin/" + std::to_string(myNode()) + "." + std::to_string(getMySwitch()) +
           ".testd.ipc";
}

inline int packets_to_daemon() {
    return stream_at(socket_of_testd(), SOCK_SEQPACKET, connect);
}

inline int answer(void *to, int code, const std::string &data) {
    return ipcSend(to, code, data.data(), static_cast<uint32_t>(data.size()), nullptr);
}

inline std::string native(int32_t word) {
    return {reinterpret_cast<char *>(&word), sizeof word};
}

// The payload of a request, or its status.
inline std::string received(void *message) {
    auto *block = reinterpret_cast<qelIpcArgBlock *>(static_cast<char *>(message) + 4);
    qelIpcArgsReceived(block);
    if (int status = qelIpcArgsDecode(block); status != 0)
        return std::to_string(status);
    std::string data(static_cast<char *>(qelIpcArgsData(block)), qelIpcArgsDataLength(block));
    qelIpcArgsDestroy(block);
    return data;
}

inline void serve_everything() {
    static ipc_address deferred;
    ipc_register(kRedirect, ipcCbQelDRedirectOutput);
    ipc_register(kExit, ipcCbQelDExitHandler);
    ipc_register(kSum, [](void *to, int code, void *message) {
        int32_t total = 0;
        for (char byte : received(message))
            total += static_cast<unsigned char>(byte);
        return answer(to, code, native(total));
    });
    ipc_register(kPoke, [](void *to, int code, void *) {
        return answer(to, code, native(write(1, "out\n", 4) == 4 && write(2, "err\n", 4) == 4));
    });
    ipc_register(kDie, [](void *, int, void *) { return kill(getpid(), SIGKILL); });
    ipc_register(kEcho, [](void *to, int code, void *m) { return answer(to, code, received(m)); });
    ipc_register(kFork, [](void *to, int code, void *) {
        pid_t child = fork();
        return child != 0 ? answer(to, code, native(child)) : pause();
    });
    ipc_register(kNothing, [](void *, int, void *) { return 0; });
    ipc_register(kDefer, [](void *to, int, void *) {
        deferred = *static_cast<ipc_address *>(to);
        return utils_testing_advance_clock(
            CLOCK_MONOTONIC, 100 * support::kSecond);  // longer than a connection may be idle
    });
    ipc_register(kRelease, [](void *to, int code, void *) {
        answer(&deferred, code, kGood);
        return answer(to, code, "");
    });
    ipc_register(kRecord, [](void *to, int code, void *message) {
        support::write_file("/tmp/request", received(message));
        return answer(to, code, native(-11));
    });
    ipc_register(kTwice, [](void *to, int code, void *) {
        return answer(to, code, native(1)) + answer(to, code, native(2));
    });
}

inline void serve_commands() {
    unlink(kCommands.c_str());
    int listener = stream_at(kCommands, SOCK_STREAM, bind);
    listen(listener, 128);
    std::thread([listener] {
        for (;;) {
            std::thread([fd = accept(listener, nullptr, nullptr)] {
                qelTnetCmdCB(fd, [](int argc, char **argv, FILE *out) {
                    for (int i = 0; i < argc; ++i)
                        fprintf(out, "%zu ", strlen(argv[i]));
                    return fprintf(out, "%d", argc);
                });
                close(fd);
            }).detach();
        }
    }).detach();
}

// A daemon in a process of its own, which may have `descriptors` (0: as many as the test), after `before`.
struct Daemon : Process {
    explicit Daemon(
        rlim_t descriptors = 0, const std::function<void()> &before = [] {})
        : Process([&](auto &ready) {
              ipc_address own = testd();
              rlimit few{descriptors, descriptors};
              before();
              serve_everything();
              if (descriptors != 0)
                  setrlimit(RLIMIT_NOFILE, &few);
              else
                  serve_commands();
              if (int error = ipc_open(&own); error != 0)
                  return -error;
              for (ready();;)
                  pause();
          }) {}
};

// The result of an exchange, and the first word of the answer.
using Answer = std::pair<int, int32_t>;
inline Answer ask(int code, std::string data, const uint32_t timeout[2] = kLong,
                  const char *daemon = "testd") {
    ipc_address to = testd(daemon);
    int32_t word = 0;
    uint32_t length = sizeof word;
    int result = qelIpcSendOne(&to, code, data.data(), static_cast<uint32_t>(data.size()), &word,
                               &length, timeout);
    return {result, word};
}

// Sends a block as it is; the answer's status.
inline int32_t send_block(int fd, int code, const std::string &block) {
    static uint32_t number = 0x80000000;
    std::string head = words({static_cast<uint32_t>(code), ++number});
    std::string packet = head + block.substr(0, IPC_REQUEST_MAX);
    int32_t reply[3] = {};
    EXPECT_EQ(send(fd, packet.data(), packet.size(), 0), static_cast<ssize_t>(packet.size()));
    EXPECT_EQ(recv(fd, reply, sizeof reply, 0), 12);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(reply), 8), head);
    return reply[2];
}

inline std::string redirect(uint32_t kind, uint32_t offset, uint32_t length, std::string text,
                            uint32_t port = 0) {
    return words({kind, offset, length, port}) + text.append(4 - text.size() % 4, '\0');
}

// What is answered to the bytes of a command message, until the connection's end.
inline std::string send_command(const std::string &message, const std::string &path = kCommands) {
    int fd = stream_at(path, SOCK_STREAM, connect);
    send(fd, message.data(), message.size(), MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    std::string reply(512, '\0');
    ssize_t n = recv(fd, reply.data(), reply.size(), MSG_WAITALL);
    close(fd);
    return reply.substr(0, n > 0 ? static_cast<size_t>(n) : 0);
}

}  // namespace support

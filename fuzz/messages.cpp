// SPDX-License-Identifier: Apache-2.0
// Fuzz targets: what other processes send.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <thread>

#include "base/big_endian.h"
#include "fuzz/fuzz.h"
#include "utils/daemon_ctl.h"
#include "utils/identity.h"
#include "utils/ipc_args.h"
#include "utils/platform/posix/ipc_server.h"
#include "utils/tnet_cmd.h"

namespace fuzz {
namespace {

constexpr size_t kHead = 8;  // of a packet: code, number

// Reads every text that the message claims to hold.
int touch(int argc, char **argv, FILE *out) {
    size_t length = 0;
    for (int i = 0; i < argc; ++i)
        length += strlen(argv[i]);
    require(argv[argc] == nullptr);
    fprintf(out, "%zu", length);
    return 0;
}

// Decodes, reads and releases a received block.
int consume(qelIpcArgBlock *block) {
    static volatile uint32_t total;  // what is read must not be optimised away
    qelIpcArgsReceived(block);
    int result = qelIpcArgsDecode(block);
    if (result != 0)
        return result;
    auto *bytes = static_cast<const unsigned char *>(qelIpcArgsData(block));
    for (uint32_t i = 0; i < qelIpcArgsDataLength(block); ++i)
        total = total + bytes[i];
    return qelIpcArgsDestroy(block);
}

qelIpcArgBlock *block_at(void *message) {
    return reinterpret_cast<qelIpcArgBlock *>(static_cast<char *>(message) + 4);
}

// Runs the handler with the output that it may redirect kept aside.
void redirect(void *message) {
    int output = dup(STDOUT_FILENO), errors = dup(STDERR_FILENO);
    ipc_address nobody{0, 0xFFFF, ""};
    faked_path = "/dev/null";
    ipcCbQelDRedirectOutput(&nobody, 1, message);
    faked_path = nullptr;
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    close(output);
    close(errors);
}

// A received request, which memory of a handler holds behind a word of the platform.
std::unique_ptr<char[]> message_of(std::string_view request) {
    auto message = exact(std::string(4, '\0').append(request), IPC_MESSAGE_SIZE - request.size());
    return message;
}

ipc_address address_of(const char *name) {
    ipc_address address{myNode(), 0, ""};
    strncpy(address.name, name, sizeof address.name - 1);
    return address;
}

int stream(const char *name, int (*attach)(int, const sockaddr *, socklen_t)) {
    sockaddr_un path{AF_UNIX, {}};
    snprintf(path.sun_path, sizeof path.sun_path, "/run/korin/%u.0.%s.ipc", myNode(), name);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    require(attach(fd, reinterpret_cast<sockaddr *>(&path), sizeof path) == 0);
    return fd;
}

// Packets, each behind its length in two bytes.
std::vector<std::string> split(Input in) {
    std::vector<std::string> all;
    while (!in.rest.empty() && all.size() < 8) {
        size_t high = in.byte(), size = high << 8 | in.byte();
        all.emplace_back(in.take(size));
    }
    return all;
}

void serve() {
    ipc_address own = address_of("fuzz");
    require(ipc_open(&own) == 0);
    ipc_register(1, [](void *to, int code, void *message) {
        int32_t status = message != nullptr ? consume(block_at(message)) : 1;
        return ipcSend(to, code, &status, sizeof status, nullptr);
    });
    ipc_register(2, [](void *, int, void *) { return 0; });
    ipc_register(3, [](void *to, int code, void *message) {
        ipcSend(to, code, message, message != nullptr ? IPC_REPLY_MAX : 0, nullptr);
        return ipcSend(to, code, nullptr, 0, nullptr);
    });
}

std::mutex answers_mutex;
std::vector<std::string> answers;  // of the hostile daemon

// The answers until now; `next` takes their place.
std::vector<std::string> take_answers(const std::vector<std::string> *next = nullptr) {
    std::lock_guard lock(answers_mutex);
    std::vector<std::string> before = answers;
    if (next != nullptr)
        answers = *next;
    return before;
}

// Answers each request with `answers`, the number 0 in them replaced by the request's, and hangs
// up.
void serve_badly() {
    int listener = stream("bad", bind);
    listen(listener, 8);
    std::thread([listener] {
        for (;;) {
            int fd = accept(listener, nullptr, nullptr);
            char request[kHead + IPC_REQUEST_MAX];
            if (recv(fd, request, sizeof request, 0) >= static_cast<ssize_t>(kHead)) {
                for (std::string packet : take_answers()) {
                    if (packet.size() >= kHead && utils::load_be32(&packet[4]) == 0)
                        packet.replace(4, 4, request + 4, 4);
                    send(fd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
                }
            }
            close(fd);
        }
    }).detach();
}

}  // namespace

// What a client sends before it hangs up.
void command(Input in) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    bool sent = send(ends[0], in.rest.data(), in.rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
                static_cast<ssize_t>(in.rest.size());
    shutdown(ends[0], SHUT_WR);
    if (sent)
        qelTnetCmdCB(ends[1], touch);
    close(ends[0]);
    close(ends[1]);
}

// A received block; when it says that its payload is in segment 0, what follows is in a real one.
void arguments(Input in) {
    for (auto use : {+[](void *message) { consume(block_at(message)); }, redirect}) {
        std::string request(in.rest.substr(0, IPC_REQUEST_MAX));
        int id = -1;
        if (request.size() > QEL_IPC_ARGS_SHM_SIZE && utils::load_be32(&request[20]) == 0) {
            std::string_view payload = in.rest.substr(QEL_IPC_ARGS_SHM_SIZE);
            id = shmget(IPC_PRIVATE, payload.size(), IPC_CREAT | 0600);
            void *at = shmat(id, nullptr, 0);
            require(id != -1);
            payload.copy(static_cast<char *>(at), payload.size());
            shmdt(at);
            utils::store_be32(&request[20], static_cast<uint32_t>(id));
        }
        use(message_of(request).get());
        shmctl(id, IPC_RMID, nullptr);
    }
}

// What a requester sends to a daemon before it hangs up: every answer is to a request of its own.
void packets(Input in) {
    static bool serving = (serve(), true);
    int fd = stream("fuzz", connect);
    std::vector<std::string> sent = split(in);
    for (const std::string &packet : sent)
        send(fd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    shutdown(fd, SHUT_WR);
    char answer[kHead + IPC_REPLY_MAX + 1];
    for (ssize_t size; serving && (size = recv(fd, answer, sizeof answer, 0)) > 0;) {
        require(size >= static_cast<ssize_t>(kHead) && size < static_cast<ssize_t>(sizeof answer));
        require(std::any_of(sent.begin(), sent.end(), [&](const std::string &packet) {
            return packet.compare(0, kHead, answer, kHead) == 0;
        }));
    }
    close(fd);
}

// What a daemon answers to a requester.
void replies(Input in) {
    static bool serving = (serve_badly(), true);
    const uint32_t brief[2] = {1, 0};
    ipc_address bad = address_of("bad");
    uint32_t room = in.byte() * 8 + in.byte() % 16, length = room;
    std::vector<std::string> next = split(in);
    take_answers(&next);
    auto reply = exact("", room);
    int result = ipcSendRcv(&bad, 1, "", 0, reply.get(), &length, brief);
    require(serving && result <= 0 && length <= room);
    qelIpcArg piece{reply.get(), result == 0 ? length : 0};
    qelIpcArgs pieces{&piece, 1};
    qelIpcArgBlock *request = nullptr, *block = nullptr;
    // A block that is not answered is lost, by design: only what has an answer asks again.
    if (result == 0 && qelIpcArgsEncode(&pieces, &request) > 0 &&
        qelIpcSendRcv(&bad, 1, request, &block, brief) == 0)
        consume(block);
    free(request);
    free(block);
}

}  // namespace fuzz

// SPDX-License-Identifier: Apache-2.0
// Output redirection and exit of daemons: the requester's side, the daemon's message handlers, and
// what they do. A request may lie in memory that its sender can still change, so every word is
// copied before it is checked and texts are copied before they are used. No state, no locks.
#include "utils/daemon_ctl.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "base/big_endian.h"
#include "base/descriptor.h"
#include "base/heap.h"
#include "base/text.h"
#include "end_process.h"
#include "utils/identity.h"
#include "utils/ipc_args.h"
#include "utils/platform/ipc.h"

namespace utils {
namespace {

constexpr uint32_t kTimeout[2] = {QELD_TIMEOUT_SECONDS, 0};

// The record at the start of a redirect payload; big-endian words, the text follows.
struct RedirectRecord {
    unsigned char kind[4];
    unsigned char text_offset[4];
    unsigned char text_length[4];
    unsigned char port[4];
};
static_assert(sizeof(RedirectRecord) == 16 && offsetof(RedirectRecord, port) == 12);

// A product's address may hold more than these three, and hold them elsewhere.
static_assert(std::is_integral_v<decltype(ipc_address::node)>);
static_assert(std::is_integral_v<decltype(ipc_address::switch_no)>);
static_assert(std::is_array_v<decltype(ipc_address::name)> && sizeof(*ipc_address::name) == 1);

// A path longer than the system takes fails to open just as its first PATH_MAX characters do.
using Text = char[PATH_MAX + 1];

// ---- requester

// Sends the pieces to the daemon and returns its answer, or 0 when the exchange fails. A name that
// the address does not hold in full is nobody's: cut, it could be another daemon's.
int request(qelIpcArg *pieces, uint32_t count, const char *daemon, int code) {
    if (strlen(daemon) >= sizeof ipc_address::name)
        return UTILS_OK;
    qelIpcArgs args{pieces, count};
    qelIpcArgBlock *encoded = nullptr;
    int length = qelIpcArgsEncode(&args, &encoded);
    if (length < 0)
        return UTILS_ENOMEM;
    HeapBlock<qelIpcArgBlock> block(encoded);
    ipc_address address{};
    address.node = static_cast<decltype(address.node)>(myNode());
    address.switch_no = static_cast<decltype(address.switch_no)>(getMySwitch());
    copy_text(address.name, daemon);
    int32_t reply = 0;
    uint32_t reply_length = sizeof reply;
    ipcSendRcv(&address, code, block.get(), static_cast<uint32_t>(length), &reply, &reply_length,
               kTimeout);
    return reply;
}

int request_redirect(uint32_t kind, const char *text, int port, const char *daemon, int code) {
    if (text == nullptr || daemon == nullptr)
        return UTILS_EINVAL;
    auto length = static_cast<uint32_t>(strlen(text) + 1);
    RedirectRecord record;
    store_be32(record.kind, kind);
    store_be32(record.text_offset, sizeof record);
    store_be32(record.text_length, length);
    store_be32(record.port, static_cast<uint32_t>(port));
    qelIpcArg pieces[] = {{&record, sizeof record}, {const_cast<char *>(text), length}};
    return request(pieces, 2, daemon, code);
}

// ---- daemon

// The block of a received message: behind the platform's word.
qelIpcArgBlock *block_in(void *message) {
    auto *block = reinterpret_cast<qelIpcArgBlock *>(static_cast<unsigned char *>(message) + 4);
    qelIpcArgsReceived(block);
    return block;
}

// Copies the record's text, if it lies inside the payload
// and ends in NUL. `text` is null without one.
bool copy_request_text(const qelIpcArgBlock *block, const RedirectRecord &record, Text &room,
                       const char *&text) {
    uint32_t offset = load_be32(record.text_offset);
    uint32_t length = load_be32(record.text_length);
    uint32_t size = qelIpcArgsDataLength(block);
    text = nullptr;
    if (length == 0)
        return true;
    if (offset > size || length > size - offset)
        return false;
    auto *from = static_cast<const char *>(qelIpcArgsData(block)) + offset;
    if (from[length - 1] != '\0')
        return false;
    size_t copied = length < sizeof room ? length : sizeof room;
    memcpy(room, from, copied);
    room[copied - 1] = '\0';
    text = room;
    return true;
}

// Everything in the record is the sender's word and checked before it is used.
int redirect_as_asked(const qelIpcArgBlock *block) {
    RedirectRecord record;
    if (qelIpcArgsDataLength(block) < sizeof record)
        return UTILS_EINVAL;
    memcpy(&record, qelIpcArgsData(block), sizeof record);
    Text room;
    const char *text;
    if (!copy_request_text(block, record, room, text))
        return UTILS_EINVAL;
    switch (load_be32(record.kind)) {
        case QELD_REDIRECT_PATH:
            return qelDRedirectOutput_impl(text);
        case QELD_REDIRECT_SERVER:
            return qelDRedirOutputToSocket_impl(text, static_cast<int>(load_be32(record.port)));
        default:
            return UTILS_EINVAL;
    }
}

uint32_t mode_asked(const qelIpcArgBlock *block) {
    if (qelIpcArgsDataLength(block) < 4)
        return 0;
    return load_be32(qelIpcArgsData(block));
}

int answer(void *reply_address, int code, int32_t status) {
    return ipcSend(reply_address, code, &status, sizeof status, kTimeout);
}

bool stand_in_for_output(int fd) {
    return dup2(fd, STDOUT_FILENO) >= 0 && dup2(fd, STDERR_FILENO) >= 0;
}

// Closes a descriptor that stands in for the output now; 0 stays open, and 1 and 2 are the output.
void close_original(int fd) {
    if (fd > STDERR_FILENO)
        close(fd);
    else if (fd != STDIN_FILENO)
        fcntl(fd, F_SETFD, 0);
}

void make_nonblocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

// A connected socket, or -1 with the reason on standard error.
int connect_to_server(const char *host, int port) {
    Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        fprintf(stderr, "sw%d: failed to create stream socket\n", getMySwitch());
        return -1;
    }
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(port));
    server.sin_addr.s_addr = inet_addr(host);
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&server), sizeof server) != 0) {
        fprintf(stderr, "sw%d: failed to connect to server(%s)\n", getMySwitch(), host);
        return -1;
    }
    return fd.release();
}

}  // namespace
}  // namespace utils

using namespace utils;

int qelDRedirectOutput(const char *path, const char *daemon, int code) {
    return request_redirect(QELD_REDIRECT_PATH, path, 0, daemon, code);
}

int qelDRedirOutputToSocket(const char *host, int port, const char *daemon, int code) {
    return request_redirect(QELD_REDIRECT_SERVER, host, port, daemon, code);
}

int qelDExitRequest(const char *daemon, int code, int mode) {
    if (daemon == nullptr)
        return UTILS_EINVAL;
    unsigned char word[4];
    store_be32(word, static_cast<uint32_t>(mode));
    qelIpcArg piece{word, sizeof word};
    return request(&piece, 1, daemon, code);
}

int ipcCbQelDRedirectOutput(void *reply_address, int code, void *message) {
    int status = QELD_NO_MESSAGE;
    if (message != nullptr) {
        qelIpcArgBlock *block = block_in(message);
        status = qelIpcArgsDecode(block);
        if (status == UTILS_OK) {
            status = redirect_as_asked(block);
            qelIpcArgsDestroy(block);
        }
    }
    return answer(reply_address, code, status);
}

int ipcCbQelDExitHandler(void *reply_address, int code, void *message) {
    int status = QELD_NO_MESSAGE;
    uint32_t mode = 0;
    if (message != nullptr) {
        qelIpcArgBlock *block = block_in(message);
        status = qelIpcArgsDecode(block);
        if (status == UTILS_OK) {
            mode = mode_asked(block);
            if (mode == 0 || mode > QELD_EXIT_ABORT)
                status = UTILS_EINVAL;
            qelIpcArgsDestroy(block);
        }
    }
    int result = answer(reply_address, code, status);
    if (mode == QELD_EXIT_NORMAL)
        end_process(0);
    if (mode == QELD_EXIT_ABORT)
        abort();
    return result;
}

int qelDRedirectOutput_impl(const char *path) {
    int fd =
        path != nullptr
            ? open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666)
            : -1;
    // Kept: a path that cannot be opened is not an error.
    if (fd < 0)
        return 0;
    bool done = stand_in_for_output(fd);
    if (done) {
        lseek(STDOUT_FILENO, 0, SEEK_END);
        lseek(STDERR_FILENO, 0, SEEK_END);
    }
    close_original(fd);
    return done ? 0 : -1;
}

int qelDRedirOutputToSocket_impl(const char *host, int port) {
    if (host == nullptr || port == 0)
        return -1;
    int fd = connect_to_server(host, port);
    if (fd < 0)
        return -1;
    bool done = stand_in_for_output(fd);
    if (done) {
        make_nonblocking(STDOUT_FILENO);
        make_nonblocking(STDERR_FILENO);
        printf("\nINFO+++ sw%d: pid(%d), output redirected to host(%s), port(%d)\n", getMySwitch(),
               getpid(), host, port);
        fflush(stdout);
    }
    close_original(fd);
    return done ? 0 : -1;
}

// SPDX-License-Identifier: Apache-2.0
// The remote command channel. The client frames a command line and relays the daemon's output; the
// daemon's side checks the message byte for byte before it becomes an argument vector. Each call
// owns what it allocates; there is no shared state and no lock.
#include "utils/tnet_cmd.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/big_endian.h"
#include "base/deadline.h"
#include "base/heap.h"
#include "base/held_signal.h"
#include "tnet_relay.h"
#include "utils/daemon_ctl.h"
#include "utils/identity.h"

static_assert(offsetof(qelTnetCmdDesc, command) == sizeof(void *));
static_assert(offsetof(qelTnetRedirArgs, kind) == 4 && offsetof(qelTnetRedirArgs, text) >= 12);

namespace utils {
namespace {

constexpr size_t kWord = 4;

// ---- the message

// The bytes that follow the length word, or 0 when they are more than a receiver takes.
size_t command_length(int argc, char **argv) {
    if (argc > static_cast<int>(QEL_TNET_COMMAND_MAX / kWord))
        return 0;
    size_t length = kWord * static_cast<size_t>(argc) + 2 * kWord;
    for (int i = 0; i < argc && length <= QEL_TNET_COMMAND_MAX; ++i)
        length += strlen(argv[i]) + 1;
    return length <= QEL_TNET_COMMAND_MAX ? length : 0;
}

// Fills the message of `length` bytes and its length word.
// False when a text changed its length meanwhile.
bool frame_command(unsigned char *message, size_t length, int argc, char **argv) {
    store_be32(message, static_cast<uint32_t>(length));
    unsigned char *block = message + kWord;
    unsigned char *word = block;
    store_be32(word, static_cast<uint32_t>(argc));
    size_t at = kWord * static_cast<size_t>(argc) + 2 * kWord;
    for (int i = 0; i < argc; ++i) {
        size_t size = strlen(argv[i]) + 1;
        if (size > length - at)
            return false;
        store_be32(word += kWord, static_cast<uint32_t>(at));
        memcpy(block + at, argv[i], size);
        at += size;
    }
    store_be32(word + kWord, 0);
    return at == length;
}

bool send_command(int socket, int argc, char **argv) {
    size_t length = command_length(argc, argv);
    if (length == 0)
        return false;
    size_t size = length + kWord;
    HeapBlock<unsigned char> message(static_cast<unsigned char *>(malloc(size)));
    return message && frame_command(message.get(), length, argc, argv) &&
           send(socket, message.get(), size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

// ---- the client's side

bool selectable(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

// ---- the daemon's side

// The moment at which the socket's own time limit for receiving ends, if it has one.
int64_t receive_end_ms(int socket) {
    timeval limit{};
    socklen_t size = sizeof limit;
    getsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, &size);
    if (limit.tv_sec == 0 && limit.tv_usec == 0)
        return INT64_MAX;
    return monotonic_ms() + int64_t{limit.tv_sec} * 1000 + (limit.tv_usec + 999) / 1000;
}

// Receives exactly `size` bytes, as long as the connection and its time limit last: a signal cuts
// what a call gives, even one that waits for all.
bool receive_exactly(int socket, void *to, size_t size) {
    auto *at = static_cast<unsigned char *>(to);
    for (int64_t end_ms = receive_end_ms(socket);;) {
        ssize_t n = recv(socket, at, size, MSG_WAITALL);
        bool is_empty = n < 0 && errno == EAGAIN;
        if (n == 0 || (n < 0 && !is_empty && errno != EINTR))
            return false;
        if (n == static_cast<ssize_t>(size))
            return true;
        if (n > 0) {
            at += n;
            size -= static_cast<size_t>(n);
        }
        int64_t left = end_ms - monotonic_ms();
        if (left <= 0)
            return false;
        pollfd readable{socket, POLLIN, 0};
        if (is_empty)  // a socket that does not block
            poll(&readable, 1, static_cast<int>(left < INT_MAX ? left : INT_MAX));
    }
}

// Whether every offset gives a text that ends inside the message. They may have any order, share
// texts and leave gaps.
bool is_consistent(const unsigned char *block, uint32_t length) {
    uint32_t argc = load_be32(block);
    if (argc > (length - 2 * kWord) / kWord || load_be32(block + kWord + kWord * argc) != 0)
        return false;
    auto *last_end = static_cast<const unsigned char *>(memrchr(block, '\0', length));
    for (uint32_t i = 0; i < argc; ++i) {
        if (load_be32(block + kWord + kWord * i) > static_cast<uint32_t>(last_end - block))
            return false;
    }
    return true;
}

// A received command: the bytes behind the length word, and the vector that points into them.
struct Command {
    unsigned char *block = nullptr;
    char **argv = nullptr;
    int argc = 0;

    Command() = default;
    ~Command() {
        free(block);
        free(argv);
    }
    Command(const Command &) = delete;
    Command &operator=(const Command &) = delete;
};

// Reads one message and makes its argument vector, when lengths and offsets agree.
bool receive_command(int socket, Command &command) {
    unsigned char word[kWord];
    if (!receive_exactly(socket, word, sizeof word))
        return false;
    uint32_t length = load_be32(word);
    if (length < 2 * kWord || length > QEL_TNET_COMMAND_MAX)
        return false;
    command.block = static_cast<unsigned char *>(malloc(length));
    if (command.block == nullptr || !receive_exactly(socket, command.block, length) ||
        !is_consistent(command.block, length))
        return false;
    uint32_t argc = load_be32(command.block);
    command.argc = static_cast<int>(argc);
    command.argv = static_cast<char **>(calloc(argc + 1, sizeof *command.argv));
    if (command.argv == nullptr)
        return false;
    for (uint32_t i = 0; i < argc; ++i) {
        uint32_t offset = load_be32(command.block + kWord + kWord * i);
        command.argv[i] = reinterpret_cast<char *>(command.block + offset);
    }
    return true;
}

// Runs the command with a stream on a copy of the socket.
// Returns the text of an internal failure, or null.
const char *run_command(int socket, Command &command, qelTnetCommand function) {
    int copy = fcntl(socket, F_DUPFD_CLOEXEC, 0);
    if (copy < 0)
        return "qelTcmdCB: unable to dup socket!\n";
    FILE *out = fdopen(copy, "w");
    if (out == nullptr) {
        close(copy);
        return "qelTcmdCB: unable to fdopen descriptor!\n";
    }
    function(command.argc, command.argv, out);
    fclose(out);
    return nullptr;
}

// ---- requests to daemons

int redirect_to_file(const qelTnetCmdDesc &daemon, const qelTnetRedirArgs &args) {
    // Kept: the number is this process's switch, not the instance asked for.
    printf("Redirecting instance%d stdout/err to file %s...\n", getMySwitch(), args.text);
    int result = qelDRedirectOutput(args.text, daemon.daemon, daemon.code);
    if (result >= 0)
        return result;
    fprintf(stderr, "\nFailed to send output to file %s\n", args.text);
    return -1;
}

int redirect_to_terminal(const qelTnetCmdDesc &daemon, const qelTnetRedirArgs &args) {
    char path[256] = {};
    if (readlink("/proc/self/fd/0", path, sizeof path - 1) < 0) {
        fprintf(stderr, "\nFailed to get current terminal\n");
        return 0;
    }
    printf("Redirecting instance%d stdout/err to terminal %s...\n", args.instance, path);
    int result = qelDRedirectOutput(path, daemon.daemon, daemon.code);
    if (result < 0)
        fprintf(stderr, "\nFailed to set tty\n");
    return result;
}

int redirect_to_server(const qelTnetCmdDesc &daemon, const qelTnetRedirArgs &args) {
    const char *host = args.text != nullptr ? args.text : "(null)";
    int result = qelDRedirOutputToSocket(args.text, args.port, daemon.daemon, daemon.code);
    if (result < 0)
        fprintf(stderr, "Failed to redirect instance%d output to server(%s), port(%d)\n",
                args.instance, host, args.port);
    else
        printf("Redirecting instance%d stdout/err to server(%s), port(%d) ...\n", args.instance,
               host, args.port);
    return result;
}

}  // namespace
}  // namespace utils

using namespace utils;

void qelTnetCmd(int socket, int argc, char **argv, int out) {
    if (!selectable(socket) || !selectable(out) || argc < 0 || (argv == nullptr && argc > 0))
        return;
    if (send_command(socket, argc, argv))
        relay_output(socket, out);
}

void qelTnetCmdCB(int socket, qelTnetCommand command) {
    if (command == nullptr)
        return;
    HeldSignal sigpipe(SIGPIPE);
    sigpipe.raised();  // for all we know: the command writes as it likes
    Command received;
    if (!receive_command(socket, received))
        return;
    if (const char *error = run_command(socket, received, command); error != nullptr)
        send(socket, error, strlen(error), MSG_NOSIGNAL);
}

void qelTnetCmdCBwrapper(int socket, qelTnetCmdDesc *descriptor) {
    if (descriptor != nullptr)
        qelTnetCmdCB(socket, descriptor->command);
}

int qelTnetCmdRedirHdlr(qelTnetCmdDesc *descriptor, void *args) {
    if (descriptor == nullptr || args == nullptr)
        return UTILS_EINVAL;
    const auto &redirect = *static_cast<qelTnetRedirArgs *>(args);
    if (redirect.kind == QELD_REDIRECT_SERVER)
        return redirect_to_server(*descriptor, redirect);
    if (redirect.kind != QELD_REDIRECT_PATH)
        return UTILS_EINVAL;
    return redirect.text != nullptr ? redirect_to_file(*descriptor, redirect)
                                    : redirect_to_terminal(*descriptor, redirect);
}

int qelTnetCmdExitHdlr(qelTnetCmdDesc *descriptor, void *args) {
    if (descriptor == nullptr || args == nullptr)
        return UTILS_EINVAL;
    int result = qelDExitRequest(descriptor->daemon, descriptor->code, *static_cast<int *>(args));
    if (result < 0)
        fprintf(stderr, "Failed to request daemon to exit\n");
    return result;
}

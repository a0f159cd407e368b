// SPDX-License-Identifier: Apache-2.0
// Requests from other processes. The platform's thread only checks and copies what has come; the
// handler runs on the loop's thread and answers from there, so that it needs no locks against the
// daemon's own code, and a loop that hangs leaves redirect and exit working.
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "state.h"
#ifdef UTILS_DAEMON_REQUESTS
#include "base/big_endian.h"
#include "base/heap.h"
#include "base/text.h"
#include "utils/daemon_codes.h"
#include "utils/daemon_ctl.h"
#include "utils/identity.h"
#include "utils/ipc_args.h"
#include "utils/platform/posix/ipc_server.h"
#endif

namespace utils::service {

#ifdef UTILS_DAEMON_REQUESTS
namespace {

// A request on its way to the loop; its payload follows.
struct Request {
    ipc_address from;
    const daemon_request *row;
    uint32_t length;
};

struct Reply {
    alignas(8) unsigned char bytes[IPC_REPLY_MAX];
};

unsigned char *payload(Request *request) {
    return reinterpret_cast<unsigned char *>(request + 1);
}

int answer(void *to, int code, int32_t status) {
    return ipcSend(to, code, &status, sizeof status, nullptr);
}

// Calls the row's handler in the loop and sends what it gives.
void serve(void *argument) {
    HeapBlock<Request> request(static_cast<Request *>(argument));
    HeapBlock<Reply> reply(allocate_zeroed<Reply>());
    const daemon_request &row = *request->row;
    uint32_t length = 0;
    int32_t status = UTILS_ENOMEM;
    if (reply)
        status = row.handle(request->length > 0 ? payload(request.get()) : nullptr, request->length,
                            reply->bytes, &length, row.argument);
    if (length > 0 && length <= IPC_REPLY_MAX)
        ipcSend(&request->from, row.code, reply->bytes, length, nullptr);
    else
        answer(&request->from, row.code, status);
}

const daemon_request *row_of(int code) {
    const daemon_request *row = table->requests;
    while (row->handle != nullptr && row->code != code)
        ++row;
    return row;
}

// The payload of the block in a message, copied so that its sender cannot change it any more.
int copy_request(void *message, const daemon_request &row, Request *&copied) {
    auto *block = reinterpret_cast<qelIpcArgBlock *>(static_cast<unsigned char *>(message) +
                                                     IPC_MESSAGE_WORD_SIZE);
    qelIpcArgsReceived(block);
    if (int status = qelIpcArgsDecode(block); status != 0)
        return status;
    uint32_t length = qelIpcArgsDataLength(block);
    int status = length < row.least || length > row.most ? UTILS_EINVAL : 0;
    if (status == 0) {
        copied = allocate_zeroed<Request>(length);
        status = copied != nullptr ? 0 : UTILS_ENOMEM;
    }
    if (status == 0) {
        copied->row = &row;
        copied->length = length;
        if (length > 0)
            memcpy(payload(copied), qelIpcArgsData(block), length);
    }
    qelIpcArgsDestroy(block);
    return status;
}

// On the platform's thread: the request is copied and handed to the loop, or refused.
int on_request(void *reply_address, int code, void *message) {
    if (message == nullptr)
        return answer(reply_address, code, QELD_NO_MESSAGE);
    Request *copied = nullptr;
    int status = copy_request(message, *row_of(code), copied);
    HeapBlock<Request> request(copied);
    if (status == 0) {
        request->from = *static_cast<ipc_address *>(reply_address);
        status = daemon_defer(serve, request.get());
    }
    if (status != 0)
        return answer(reply_address, code, status);
    request.release();
    return 0;
}

constexpr daemon_request kExit = {IPC_CODE_EXIT, 4, QEL_IPC_ARGS_INLINE_MAX, nullptr, nullptr};

// Exit asks for the orderly end; an abort is one at once, and wants the stacks as they are.
int on_exit_request(void *reply_address, int code, void *message) {
    Request *copied = nullptr;
    int status = message != nullptr ? copy_request(message, kExit, copied) : QELD_NO_MESSAGE;
    HeapBlock<Request> request(copied);
    uint32_t mode = status == 0 ? load_be32(payload(request.get())) : 0;
    if (status == 0 && mode != QELD_EXIT_NORMAL && mode != QELD_EXIT_ABORT)
        status = UTILS_EINVAL;
    int result = answer(reply_address, code, status);
    if (mode == QELD_EXIT_ABORT)
        abort();
    if (mode == QELD_EXIT_NORMAL)
        daemon_stop(0);
    return result;
}

}  // namespace

bool open_requests() {
    int error = ipc_register(IPC_CODE_REDIRECT_OUTPUT, ipcCbQelDRedirectOutput);
    if (error == 0)
        error = ipc_register(IPC_CODE_EXIT, on_exit_request);
    for (const daemon_request *row = table->requests; row != nullptr && row->handle != nullptr;
         ++row)
        if (error == 0)
            error = ipc_register(row->code, on_request);
    ipc_address own{};
    own.node = static_cast<decltype(own.node)>(myNode());
    own.switch_no = static_cast<decltype(own.switch_no)>(getMySwitch());
    copy_text(own.name, name);
    if (error == 0)
        error = ipc_open(&own);
    if (error == 0) {
        char path[sizeof(sockaddr_un::sun_path)];
        snprintf(path, sizeof path, IPC_SOCKET_FORMAT, own.node, own.switch_no, own.name);
        note_request_socket(path);
    }
    errno = -error;
    return error == 0;
}

void close_requests() {
    ipc_close();
    note_request_socket(nullptr);
}

#else

// A platform whose daemons have another way to be asked.
bool open_requests() {
    errno = ENOSYS;
    return table->requests == nullptr;
}

void close_requests() {}

#endif

}  // namespace utils::service

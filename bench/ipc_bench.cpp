// SPDX-License-Identifier: Apache-2.0
// A request and its reply through the stand-in's messages, beside the same bytes over a connected
// socket pair. The server is a thread of this process.
#include <sys/socket.h>

#include <cstring>
#include <thread>

#include "bench.h"
#include "utils/platform/ipc.h"
#include "utils/platform/posix/ipc_server.h"

namespace {

constexpr int kCode = 1;
constexpr uint32_t kRequest = 64;
constexpr uint32_t kReply = 4;

int answer(void *reply_address, int, void *) {
    const uint32_t status = 1, timeout[2] = {1, 0};
    return ipcSend(reply_address, kCode, &status, sizeof status, timeout);
}

void ours(benchmark::State &state) {
    static ipc_address address = {5, 0, "bench"};
    static const int opened = ipc_register(kCode, answer) | ipc_open(&address);
    if (opened != 0)
        return state.SkipWithError("the stand-in does not open");
    const char request[kRequest] = {};
    const uint32_t timeout[2] = {1, 0};
    for (auto _ : state) {
        char reply[IPC_REPLY_MAX];
        uint32_t length = sizeof reply;
        if (ipcSendRcv(&address, kCode, request, sizeof request, reply, &length, timeout) != 0)
            return state.SkipWithError("no reply");
    }
}

void socket_pair(benchmark::State &state) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        abort();
    std::thread server([end = ends[1]] {
        char buffer[2048];
        while (recv(end, buffer, sizeof buffer, 0) > 0)
            send(end, buffer, kReply, 0);
    });
    char request[kRequest] = {}, reply[2048];
    for (auto _ : state) {
        if (send(ends[0], request, sizeof request, 0) < 0 ||
            recv(ends[0], reply, sizeof reply, 0) != kReply)
            abort();
    }
    shutdown(ends[0], SHUT_RDWR);
    server.join();
    close(ends[0]);
    close(ends[1]);
}

BENCHMARK(ours)->Name("round_trip/ours")->UseRealTime();
BENCHMARK(socket_pair)->Name("round_trip/socket")->UseRealTime();

}  // namespace

BENCH_MAIN(nullptr)

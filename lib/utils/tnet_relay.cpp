// SPDX-License-Identifier: Apache-2.0
// Relays a daemon's output through a queue of chunks, so that a slow output never holds the daemon
// up. The output does not block meanwhile; it gets its own flags back for the rest.
#include "tnet_relay.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "base/deadline.h"
#include "base/heap.h"
#include "base/retry.h"
#include "utils/tnet_cmd.h"

namespace utils {
namespace {

constexpr int kDrainAttempts = 100;
constexpr int kRoomWaitMs = 100;

struct Chunk {
    unsigned char data[QEL_TNET_CHUNK_SIZE];
    int32_t held;
    int32_t written;
    Chunk *next;
};

// Output that waits to be written. The last chunk is empty and receives the next read.
struct Queue {
    Chunk *first;
    Chunk *last;
};

bool holds_data(const Queue &queue) {
    return queue.first->held > 0;
}

void free_queue(Queue &queue) {
    while (queue.first != nullptr) {
        Chunk *next = queue.first->next;
        free(queue.first);
        queue.first = next;
    }
}

// Writes the rest of the first chunk and drops it when that is done. Returns the write's result.
ssize_t write_first(Queue &queue, int out, bool &complete) {
    Chunk *chunk = queue.first;
    ssize_t n =
        write(out, chunk->data + chunk->written, static_cast<size_t>(chunk->held - chunk->written));
    complete = n == chunk->held - chunk->written;
    if (complete) {
        queue.first = chunk->next;
        free(chunk);
    } else if (n > 0) {
        chunk->written += static_cast<int32_t>(n);
    }
    return n;
}

// Receives into the last chunk. False when the daemon has finished, or memory has.
bool receive_chunk(Queue &queue, int socket) {
    Chunk *chunk = queue.last;
    auto *empty = allocate_zeroed<Chunk>();
    if (empty == nullptr)
        return false;
    ssize_t n = retry([=] { return recv(socket, chunk->data, sizeof chunk->data, 0); });
    if (n <= 0) {
        free(empty);
        return false;
    }
    chunk->held = static_cast<int32_t>(n);
    chunk->next = empty;
    queue.last = empty;
    return true;
}

// Writes what the output takes without waiting. False for an error that will not pass.
bool write_ready(Queue &queue, int out) {
    bool complete = true;
    while (complete && holds_data(queue)) {
        if (retry([&] { return write_first(queue, out, complete); }) < 0 && errno != EAGAIN)
            return false;
    }
    return true;
}

enum class Relay { kFinished, kWriteFailed, kSelectFailed };

// Moves data until the daemon has finished.
// The output is waited for only while there is something to write.
Relay relay(Queue &queue, int socket, int out) {
    for (;;) {
        fd_set readable, writable;
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        FD_SET(socket, &readable);
        if (holds_data(queue))
            FD_SET(out, &writable);
        int ready =
            select((socket > out ? socket : out) + 1, &readable, &writable, nullptr, nullptr);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return Relay::kSelectFailed;
        if (FD_ISSET(socket, &readable) && !receive_chunk(queue, socket))
            return Relay::kFinished;
        if (FD_ISSET(out, &writable) && !write_ready(queue, out))
            return Relay::kWriteFailed;
    }
}

// Waits for room in an output that does not block; a signal does not end the wait.
void wait_for_room(int out) {
    int64_t end_ms = monotonic_ms() + kRoomWaitMs;
    pollfd writable{out, POLLOUT, 0};
    for (int64_t left = kRoomWaitMs; left > 0; left = end_ms - monotonic_ms()) {
        if (poll(&writable, 1, static_cast<int>(left)) >= 0 || errno != EINTR)
            return;
    }
}

// Writes the rest with the output's own flags;
// gives up after more than 100 attempts without progress.
void drain(Queue &queue, int out) {
    int attempts = 0;
    while (holds_data(queue) && attempts <= kDrainAttempts) {
        bool complete;
        ssize_t n = write_first(queue, out, complete);
        if (complete)
            attempts = 0;
        else if (n == 0 || (n < 0 && (errno == EINTR || errno == EAGAIN)))
            ++attempts;
        else if (n < 0)
            return;
        if (n < 0 && errno == EAGAIN)
            wait_for_room(out);
    }
}

}  // namespace

void relay_output(int socket, int out) {
    int flags = fcntl(out, F_GETFL);
    if (flags == -1 || fcntl(out, F_SETFL, flags | O_NONBLOCK) == -1)
        return;
    auto *empty = allocate_zeroed<Chunk>();
    Queue queue{empty, empty};
    Relay end = empty != nullptr ? relay(queue, socket, out) : Relay::kWriteFailed;
    if (end == Relay::kSelectFailed)
        return;  // as it stands, queue and flags included
    if (fcntl(out, F_SETFL, flags) != -1 && end == Relay::kFinished)
        drain(queue, out);
    free_queue(queue);
}

}  // namespace utils

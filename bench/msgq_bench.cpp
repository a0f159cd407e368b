// SPDX-License-Identifier: Apache-2.0
// Message queues beside a std::deque of messages with its mutex and condition variable, and beside
// the limit, which is two threads that hand one word to and fro with nothing but futexes.
//
// - one_thread_N: a message of N bytes is sent and received by one thread.
// - ping_pong: a message to another thread and its answer.
// - one_to_one, producers_N: N threads send 64 bytes each time, never more than the 64 messages
// that
//   the queue holds ahead of the one that receives; one item is one message. one_to_one_deep: with
//   room for 1,000 messages. A queue keeps no more than 64 spare nodes: the others are allocated
//   and freed.
//
// Where several threads take part they share one processor, and its time is what counts: nobody
// else's work on the machine shows.
#include "utils/msgq.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"

namespace {

constexpr int kRoom = 64, kDeepRoom = 1000;

// Each queue takes messages of any length up to kSize.
template <size_t kSize, int kMessages = kRoom>
class Ours {
  public:
    static constexpr int kCapacity = kMessages;
    Ours() : queue_(msgQCreate(kMessages, kSize, 0, "bench")) {}
    ~Ours() { msgQDelete(queue_); }
    bool send(const void *message, size_t length) {
        return msgQSend(queue_, message, static_cast<unsigned>(length), 0, 1) == 0;
    }
    void receive(void *buffer, size_t size) {
        while (msgQReceive(queue_, buffer, static_cast<unsigned>(size), UTILS_WAIT_FOREVER) != 0) {
        }
    }

  private:
    msgQHandle queue_;
};

template <size_t kSize, int kMessages = kRoom>
class Deque {
  public:
    static constexpr int kCapacity = kMessages;
    bool send(const void *message, size_t length) {
        {
            std::lock_guard lock(mutex_);
            if (messages_.size() >= kMessages || length > kSize)
                return false;
            Slot &slot = messages_.emplace_back();
            slot.length = length;
            memcpy(slot.bytes, message, length);
        }
        not_empty_.notify_one();
        return true;
    }
    void receive(void *buffer, size_t size) {
        std::unique_lock lock(mutex_);
        not_empty_.wait(lock, [this] { return !messages_.empty(); });
        const Slot &slot = messages_.front();
        memcpy(buffer, slot.bytes, std::min(slot.length, size));
        messages_.pop_front();
    }

  private:
    struct Slot {
        size_t length;
        unsigned char bytes[kSize];
        Slot() {}  // the bytes are written at once
    };

    std::mutex mutex_;
    std::condition_variable not_empty_;
    std::deque<Slot> messages_;
};

// The same with messages that are structs and go in and out by value.
template <size_t kSize>
class DequeOfStructs {
  public:
    bool send(const void *message, size_t length) {
        Message sent;
        sent.length = length;
        memcpy(sent.bytes, message, length);
        {
            std::lock_guard lock(mutex_);
            if (messages_.size() >= kRoom)
                return false;
            messages_.push_back(sent);
        }
        not_empty_.notify_one();
        return true;
    }
    void receive(void *buffer, size_t size) {
        std::unique_lock lock(mutex_);
        not_empty_.wait(lock, [this] { return !messages_.empty(); });
        Message got = messages_.front();
        messages_.pop_front();
        lock.unlock();
        memcpy(buffer, got.bytes, std::min(got.length, size));
    }

  private:
    struct Message {
        size_t length;
        unsigned char bytes[kSize];
    };

    std::mutex mutex_;
    std::condition_variable not_empty_;
    std::deque<Message> messages_;
};

template <typename Queue, size_t kSize>
void one_thread(benchmark::State &state) {
    Queue queue;
    unsigned char message[kSize] = {};
    size_t length = kSize;
    for (auto _ : state) {
        benchmark::DoNotOptimize(length);
        queue.send(message, length);
        queue.receive(message, length);
        benchmark::DoNotOptimize(message);
    }
}

template <typename Queue>
void ping_pong(benchmark::State &state) {
    Queue there, back;
    unsigned char message[64] = {};
    std::thread partner([&] {
        unsigned char got[64];
        do {
            there.receive(got, sizeof got);
            back.send(got, sizeof got);
        } while (got[0] == 0);
    });
    for (auto _ : state) {
        there.send(message, sizeof message);
        back.receive(message, sizeof message);
    }
    message[0] = 1;
    there.send(message, sizeof message);
    partner.join();
}

// One word, 0 or 1, and its futex.
class Word {
  public:
    void wait_until(uint32_t value) {
        while (word_.load(std::memory_order_acquire) != value)
            syscall(SYS_futex, &word_, FUTEX_WAIT_PRIVATE, 1 - value, nullptr);
    }
    void set(uint32_t value) {
        word_.store(value, std::memory_order_release);
        syscall(SYS_futex, &word_, FUTEX_WAKE_PRIVATE, 1);
    }

  private:
    std::atomic<uint32_t> word_{0};
};

void ping_pong_limit(benchmark::State &state) {
    Word there, back;
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        while (!stop) {
            there.wait_until(1);
            there.set(0);
            back.set(1);
        }
    });
    for (auto _ : state) {
        there.set(1);
        back.wait_until(1);
        back.set(0);
    }
    stop = true;
    there.set(1);
    partner.join();
}

template <typename Queue>
void many_to_one(benchmark::State &state) {
    constexpr uint32_t kBatch = 4096;
    auto producers = static_cast<size_t>(state.range(0));
    Queue queue;
    std::atomic<uint32_t> wanted{0}, sent{0}, received{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> others;
    auto produce_one = [&] {
        // A ticket says whose turn it is to send, and that there is room.
        uint32_t ticket = sent.load(std::memory_order_relaxed);
        if (ticket == wanted.load(std::memory_order_acquire) ||
            ticket - received.load(std::memory_order_acquire) >= Queue::kCapacity ||
            !sent.compare_exchange_strong(ticket, ticket + 1))
            return false;
        unsigned char message[64] = {};
        return queue.send(message, sizeof message);
    };
    for (size_t i = 1; i < producers; ++i)
        others.emplace_back([&] {
            while (!stop) {
                if (!produce_one())
                    std::this_thread::yield();
            }
        });
    std::thread consumer([&] {
        unsigned char message[64] = {};
        for (uint32_t got = 0; message[0] == 0; received.store(++got, std::memory_order_release))
            queue.receive(message, sizeof message);
    });
    for (auto _ : state) {
        wanted += kBatch;
        while (received.load(std::memory_order_acquire) != wanted) {
            if (!produce_one())
                std::this_thread::yield();
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    stop = true;
    for (std::thread &other : others)
        other.join();
    unsigned char last[64] = {1};
    queue.send(last, sizeof last);
    consumer.join();
}

template <size_t kSize>
void add_one_thread() {
    std::string group = "one_thread_" + std::to_string(kSize);
    benchmark::RegisterBenchmark((group + "/ours").c_str(), one_thread<Ours<kSize>, kSize>);
    benchmark::RegisterBenchmark((group + "/std").c_str(), one_thread<Deque<kSize>, kSize>);
    benchmark::RegisterBenchmark((group + "/std-structs").c_str(),
                                 one_thread<DequeOfStructs<kSize>, kSize>);
}

template <typename OurQueue, typename TheirQueue>
void add_many_to_one(const std::string &group, int producers) {
    benchmark::RegisterBenchmark((group + "/ours").c_str(), many_to_one<OurQueue>)
        ->Arg(producers)
        ->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark((group + "/std").c_str(), many_to_one<TheirQueue>)
        ->Arg(producers)
        ->MeasureProcessCPUTime();
}

void prepare() {
    add_one_thread<16>();
    add_one_thread<64>();
    add_one_thread<512>();
    add_one_thread<4096>();
    benchmark::RegisterBenchmark("ping_pong/ours", ping_pong<Ours<64>>)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("ping_pong/std", ping_pong<Deque<64>>)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("ping_pong/limit", ping_pong_limit)->MeasureProcessCPUTime();
    add_many_to_one<Ours<64>, Deque<64>>("one_to_one", 1);
    add_many_to_one<Ours<64, kDeepRoom>, Deque<64, kDeepRoom>>("one_to_one_deep", 1);
    for (int producers : {1, 2, 4, 8})
        add_many_to_one<Ours<64>, Deque<64>>("producers_" + std::to_string(producers), producers);
}

}  // namespace

BENCH_MAIN(prepare)

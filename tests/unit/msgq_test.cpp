// SPDX-License-Identifier: Apache-2.0
// Message queues: their limits and reports, waits, contexts, memory, and many threads at once.
#include "utils/msgq.h"

#include "support/support.h"
#include "utils/platform/context.h"

namespace {

using support::captured;

struct Queue {
    msgQHandle handle;
    Queue(int messages, unsigned length, const char *name, int options = 0)
        : handle(msgQCreate(messages, length, options, name)) {}
    ~Queue() { EXPECT_EQ(msgQDelete(handle), 0); }
    operator msgQHandle() const { return handle; }
    msgQHandle operator->() const { return handle; }

    int send(std::string_view message) const {
        return msgQSend(handle, message.data(), static_cast<unsigned>(message.size()));
    }
    // What a refused message is answered with, on standard output.
    std::string refused(std::string_view message) const {
        return captured(1, [&] { EXPECT_EQ(send(message), -1); });
    }
};

void set_context(char fill) {
    ep_context(std::string(sizeof_geps(), fill).data(), nullptr);
}

std::string context() {
    std::string block(sizeof_geps(), '\0');
    ep_context(nullptr, block.data());
    return block;
}

TEST(MsgQ, ShowsItselfAndReportsTheFirstAndEvery128thMiss) {
    Queue queue(2, 4, "q1", 3);
    EXPECT_EQ(captured(1, [&] { EXPECT_EQ(msgQShow(queue), 0); }),
              "queue name: q1, high water: 0\n"
              "Task Queuing     : FIFO (do not support MSG_Q_PRIORITY)\n"
              "Message Byte Len : 4\n"
              "Messages Max     : 2\n"
              "Messages Queued  : 0\n");
    EXPECT_EQ(queue->options, 3);
    EXPECT_EQ(msgQSend(queue, "a", 1, 0, 1), 0);
    EXPECT_EQ(queue.send("b"), 0);
    for (int miss = 1; miss <= 300; ++miss) {
        std::string report = "queue q1: queue full (miss=" + std::to_string(miss) + ")\n";
        EXPECT_EQ(queue.refused("c"), miss % 128 == 1 ? report : "");
    }
    EXPECT_EQ(queue->highWater, 2);
    EXPECT_EQ(queue->missCount, 300);
    queue->missCount = INT32_MAX;
    EXPECT_EQ(queue.refused("c"), "");
    EXPECT_EQ(queue->missCount, 0);
    char byte = 0;
    EXPECT_EQ(msgQReceive(queue, &byte, 1, 0), 0);
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(msgQShow(nullptr), -1);
    EXPECT_EQ(msgQSend(nullptr, "a", 1), -1);
    EXPECT_EQ(msgQReceive(nullptr, &byte, 1, -1), 1);
    EXPECT_EQ(msgQDelete(nullptr), -1);
}

TEST(MsgQ, BoundsLengthsAtBothEnds) {
    Queue big(10, 100000, "big"), queue(10, 10, "a name that is far longer than its field");
    std::string message(40000, 'Z'), received(40000, '\0');
    EXPECT_EQ(big.send(message.substr(0, MSGQ_LENGTH_MAX)), 0);
    EXPECT_EQ(big.refused(message.substr(0, 32768)), "queue big: msg too long (len=32768)\n");
    EXPECT_EQ(msgQReceive(big, received.data(), 40000, 0), 0);
    EXPECT_EQ(received, std::string(MSGQ_LENGTH_MAX, 'Z').append(40000 - MSGQ_LENGTH_MAX, '\0'));

    EXPECT_EQ(queue.send("0123456789"), 0);
    EXPECT_EQ(queue.refused("0123456789a"),
              "queue a name that is far long: msg too long (len=11)\n");
    char text[11] = "..........";
    for (int result : {0, 1}) {
        EXPECT_EQ(msgQReceive(queue, text, 4, 0), result);
        EXPECT_STREQ(text, "0123......") << "a short buffer gets the start, the rest is lost";
    }
    EXPECT_EQ(msgQSend(queue, nullptr, 0), 0);
    EXPECT_EQ(msgQReceive(queue, nullptr, 0, UTILS_WAIT_FOREVER), 0);
}

TEST(MsgQ, MessagesOfEveryLengthStandBesideTheirContexts) {
    for (unsigned length = 1; length <= 40; ++length) {
        Queue queue(1, length, "exact");
        std::string sent(length, 'z'), received(length, '\0');
        EXPECT_EQ(queue.send(sent), 0);
        EXPECT_EQ(msgQReceive(queue, received.data(), length, 0), 0);
        EXPECT_EQ(received, sent);
    }
}

TEST(MsgQ, TimedReceiveWaitsItsFullTimeAndTakesOnTheSendersContext) {
    Queue queue(1, 4, "slow");
    char text[4];
    for (int timeout : {950, 99, -5}) {  // one passes the end of a second, -5 is over at once
        int64_t begin = support::monotonic_ms();
        EXPECT_EQ(msgQReceive(queue, text, 4, timeout), 1);
        EXPECT_GE(support::monotonic_ms() - begin, timeout - 1);
    }
    set_context('r');
    std::string own = context(), senders;
    std::thread sender([&] {
        set_context('s');
        senders = context();
        queue.send({"now", 4});
    });
    EXPECT_EQ(context(), own);
    EXPECT_EQ(msgQReceive(queue, text, 4, 30000), 0);
    sender.join();
    EXPECT_STREQ(text, "now");
    EXPECT_EQ(context(), senders);

    std::thread locking([&, locks = utils_testing_count_calls("pthread_mutex_lock")] {
        EXPECT_EQ(queue.send("now"), 0);
        EXPECT_GT(utils_testing_count_calls("pthread_mutex_lock"), locks) << "sent without a lock";
    });
    locking.join();
}

TEST(MsgQ, AllocatesWhileItGrowsOnlyAndRefusesWithoutMemory) {
    Queue queue(200, 64, "steady"), poor(2, 64, "poor");
    char message[64] = {};
    auto fill_and_drain = [&](int count) {
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(msgQSend(queue, message, sizeof message), 0);
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(msgQReceive(queue, message, sizeof message, 0), 0);
    };
    fill_and_drain(100);
    EXPECT_EQ(queue->spare.count, MSGQ_SPARE_MAX);
    EXPECT_EQ(queue->highWater, 100);
    utils_testing_reset();
    for (int round = 0; round < 1000; ++round)
        fill_and_drain(MSGQ_SPARE_MAX);
    EXPECT_EQ(utils_testing_count_calls("malloc"), 0);
    EXPECT_EQ(support::without_memory([] { return msgQCreate(2, 64, 0, "none"); }), nullptr);
    EXPECT_EQ(support::without_memory([&] { return poor.send("a"); }), -1);
    EXPECT_EQ(poor->queued.count, 0);
    EXPECT_EQ(poor->missCount, 0);
    EXPECT_EQ(poor.send("a"), 0);
}

TEST(MsgQ, WhoReceivesMayDeleteTheQueueWhileItsSenderStillSignals) {
    for (int i = 0; i < (support::emulated() ? 50 : 1000); ++i) {
        msgQHandle queue = msgQCreate(1, 4, 0, "brief");
        std::thread sender([queue] { msgQSend(queue, "now", 4); });
        char text[4] = "";
        EXPECT_EQ(msgQReceive(queue, text, 4, UTILS_WAIT_FOREVER), 0);
        EXPECT_STREQ(text, "now");
        EXPECT_EQ(msgQDelete(queue), 0);
        sender.join();
    }
}

// Every message arrives once, and at each receiver those of one sender in their order.
TEST(MsgQ, FourSendersAndFourReceiversLoseAndDuplicateNothing) {
    const int kThreads = 4, kAll = kThreads * (support::emulated() ? 10000 : 50000);
    Queue queue(500, sizeof(int), "traffic");
    std::vector<int> received[kThreads];
    std::vector<std::thread> threads;
    std::atomic<int> sending{kThreads};
    auto send = [&](int sender) {
        for (int i = sender; i < kAll; i += kThreads) {
            while (msgQSend(queue, &i, sizeof i) != 0)
                std::this_thread::yield();
        }
        --sending;
    };
    auto receive = [&](std::vector<int> &mine) {
        for (bool last = false; !last;) {
            last = sending == 0;
            for (int message; msgQReceive(queue, &message, sizeof message, 20) == 0; last = false)
                mine.push_back(message);
        }
    };
    support::captured(1, [&] {  // the reports of a full queue are not of interest
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back(send, t);
            threads.emplace_back(receive, std::ref(received[t]));
        }
        for (std::thread &thread : threads)
            thread.join();
    });
    std::vector<int> times(static_cast<size_t>(kAll));
    for (auto &some : received) {
        int last[kThreads] = {-1, -1, -1, -1};
        for (int message : some) {
            ASSERT_LT(last[message % kThreads], message);
            last[message % kThreads] = message;
            ++times[static_cast<size_t>(message)];
        }
    }
    EXPECT_EQ(times, std::vector<int>(times.size(), 1));
    EXPECT_LE(queue->highWater, 500);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
#include "utils/msgq.h"

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "support/support.h"
#include "utils/platform/context.h"

namespace {

void set_context(char fill) {
    ep_context(std::string(sizeof_geps(), fill).data(), nullptr);
}

char context() {
    std::string block(sizeof_geps(), '\0');
    ep_context(nullptr, block.data());
    return block.back();
}

TEST(MsgQ, RefusesWhenFullAndReportsEvery128thMiss) {
    msgQHandle queue = msgQCreate(2, 4, 0, "q1");
    EXPECT_EQ(msgQSend(queue, "a", 1, 0, 1), 0);
    EXPECT_EQ(msgQSend(queue, "b", 1), 0);
    std::string expected;
    for (int miss = 1; miss <= 300; ++miss) {
        if (miss == 1 || miss == 129 || miss == 257)
            expected += "queue q1: queue full (miss=" + std::to_string(miss) + ")\n";
    }
    EXPECT_EQ(support::captured(1,
                                [&] {
                                    for (int miss = 1; miss <= 300; ++miss)
                                        EXPECT_EQ(msgQSend(queue, "c", 1), -1);
                                }),
              expected);
    EXPECT_EQ(queue->highWater, 2);
    EXPECT_EQ(queue->missCount, 300);
    msgQDelete(queue);
}

TEST(MsgQ, BoundsLengthsAtBothEnds) {
    msgQHandle queue = msgQCreate(10, 100000, 0, "big");
    std::vector<unsigned char> message(40000, 0x5A), received(40000, 0);
    EXPECT_EQ(msgQSend(queue, message.data(), MSGQ_LENGTH_MAX), 0);
    EXPECT_EQ(support::captured(1, [&] { EXPECT_EQ(msgQSend(queue, message.data(), 32768), -1); }),
              "queue big: msg too long (len=32768)\n");
    EXPECT_EQ(msgQReceive(queue, received.data(), 40000, 0), 0);
    EXPECT_EQ(received[MSGQ_LENGTH_MAX - 1], 0x5A);
    EXPECT_EQ(received[MSGQ_LENGTH_MAX], 0);
    msgQDelete(queue);

    queue = msgQCreate(10, 10, 0, "a name that is far longer than its field");
    EXPECT_STREQ(queue->name, "a name that is far long");
    EXPECT_EQ(msgQSend(queue, "0123456789", 10), 0);
    EXPECT_EQ(support::captured(1, [&] { EXPECT_EQ(msgQSend(queue, "0123456789a", 11), -1); }),
              "queue a name that is far long: msg too long (len=11)\n");
    char text[11] = "..........";
    EXPECT_EQ(msgQReceive(queue, text, 4, 0), 0);
    EXPECT_STREQ(text, "0123......") << "a short buffer gets the start, the rest is lost";
    EXPECT_EQ(msgQReceive(queue, text, 4, 0), 1);
    EXPECT_STREQ(text, "0123......");
    EXPECT_EQ(msgQSend(queue, nullptr, 0), 0);
    EXPECT_EQ(msgQReceive(queue, nullptr, 0, UTILS_WAIT_FOREVER), 0);
    msgQDelete(queue);
}

TEST(MsgQ, ShowsItself) {
    msgQHandle queue = msgQCreate(10, 32, 3, "q1");
    EXPECT_EQ(support::captured(1, [&] { msgQShow(queue); }),
              "queue name: q1, high water: 0\n"
              "Task Queuing     : FIFO (do not support MSG_Q_PRIORITY)\n"
              "Message Byte Len : 32\n"
              "Messages Max     : 10\n"
              "Messages Queued  : 0\n");
    EXPECT_EQ(queue->options, 3);
    EXPECT_EQ(msgQDelete(queue), 0);
}

TEST(MsgQ, NullQueuesAreRefused) {
    EXPECT_EQ(msgQSend(nullptr, "a", 1), -1);
    EXPECT_EQ(msgQReceive(nullptr, nullptr, 0, -1), 1);
    EXPECT_EQ(msgQDelete(nullptr), -1);
}

TEST(MsgQ, TimedReceiveWaitsItsFullTimeAcrossTheSecond) {
    msgQHandle queue = msgQCreate(1, 4, 0, "slow");
    char text[4];
    for (int timeout : {950, 99}) {  // one of them passes the end of a second
        int64_t begin = support::monotonic_ms();
        EXPECT_EQ(msgQReceive(queue, text, 4, timeout), 1);
        EXPECT_GE(support::monotonic_ms() - begin, timeout - 1);
    }
    EXPECT_EQ(msgQReceive(queue, text, 4, -5), 1) << "a negative time-out but -1 is over at once";
    std::thread sender([&] { msgQSend(queue, "now", 4); });
    EXPECT_EQ(msgQReceive(queue, text, 4, 30000), 0);
    sender.join();
    EXPECT_STREQ(text, "now");
    msgQDelete(queue);
}

TEST(MsgQ, MessagesCarryTheSendersContext) {
    if (sizeof_geps() == 0)
        GTEST_SKIP() << "the platform has no contexts";
    msgQHandle queue = msgQCreate(2, 4, 0, "ctx");
    set_context(1);
    std::thread([&] {
        set_context(77);
        msgQSend(queue, "a", 1);
    }).join();
    EXPECT_EQ(context(), 1);
    char byte;
    EXPECT_EQ(msgQReceive(queue, &byte, 1, 0), 0);
    EXPECT_EQ(context(), 77);
    msgQDelete(queue);
}

TEST(MsgQ, SteadyStateAllocatesNothingAndSparesAreCapped) {
    msgQHandle queue = msgQCreate(200, 64, 0, "steady");
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
    msgQDelete(queue);
}

TEST(MsgQ, OutOfMemoryRefusesAndChangesNothing) {
    msgQHandle queue = msgQCreate(2, 64, 0, "oom");
    EXPECT_EQ(support::without_memory([] { return msgQCreate(2, 64, 0, "none"); }), nullptr);
    EXPECT_EQ(support::without_memory([&] { return msgQSend(queue, "a", 1); }), -1);
    EXPECT_EQ(queue->queued.count, 0);
    EXPECT_EQ(queue->missCount, 0);
    EXPECT_EQ(msgQSend(queue, "a", 1), 0);
    msgQDelete(queue);
}

TEST(MsgQ, WhoReceivesMayDeleteTheQueueWhileItsSenderStillSignals) {
    for (int i = 0; i < (support::emulated() ? 50 : 1000); ++i) {
        msgQHandle queue = msgQCreate(1, 4, 0, "brief");
        std::thread sender([queue] { msgQSend(queue, "now", 4); });
        char text[4] = "";
        EXPECT_EQ(msgQReceive(queue, text, 4, UTILS_WAIT_FOREVER), 0);
        EXPECT_STREQ(text, "now");
        msgQDelete(queue);
        sender.join();
    }
}

// Every message arrives once, and those of one sender in their order.
TEST(MsgQ, FourSendersAndFourReceiversLoseAndDuplicateNothing) {
    const int kSenders = 4, kReceivers = 4, kEach = support::emulated() ? 10000 : 50000;
    struct Message {
        int sender, number;
    };
    msgQHandle queue = msgQCreate(500, sizeof(Message), 0, "traffic");
    std::vector<std::vector<Message>> received(kReceivers);
    std::vector<std::thread> senders, receivers;
    std::atomic<bool> done{false};
    support::captured(1, [&] {  // the reports of a full queue are not of interest
        for (int s = 0; s < kSenders; ++s) {
            senders.emplace_back([&, s] {
                for (int i = 0; i < kEach; ++i) {
                    Message message{s, i};
                    while (msgQSend(queue, &message, sizeof message) != 0)
                        std::this_thread::yield();
                }
            });
        }
        for (int r = 0; r < kReceivers; ++r) {
            receivers.emplace_back([&, r] {
                Message message{};
                while (true) {
                    bool last = done;
                    if (msgQReceive(queue, &message, sizeof message, 20) == 0)
                        received[static_cast<size_t>(r)].push_back(message);
                    else if (last)
                        return;
                }
            });
        }
        for (std::thread &sender : senders)
            sender.join();
        done = true;
        for (std::thread &receiver : receivers)
            receiver.join();
    });
    std::vector<std::vector<bool>> seen(kSenders, std::vector<bool>(static_cast<size_t>(kEach)));
    size_t total = 0;
    for (auto &messages : received) {
        std::vector<int> last(kSenders, -1);
        for (Message &message : messages) {
            auto sender = static_cast<size_t>(message.sender);
            ASSERT_LT(last[sender], message.number)
                << "one receiver sees a sender's messages in order";
            last[sender] = message.number;
            ASSERT_FALSE(seen[sender][static_cast<size_t>(message.number)]);
            seen[sender][static_cast<size_t>(message.number)] = true;
            ++total;
        }
    }
    EXPECT_EQ(total, static_cast<size_t>(kSenders * kEach));
    EXPECT_LE(queue->highWater, 500);
    msgQDelete(queue);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The stand-in's messages between processes: its server and its requesters, with peers that answer
// late or never, descriptors that run short, signals and locks held by others.
#include <sys/file.h>
#include <sys/resource.h>

#include "testd.h"

namespace {

using namespace support;

TEST(Ipc, PeersAnswerWellShortLateOrNever) {
    Daemon daemon;
    auto exchange = [](int code, std::string data, const uint32_t timeout[2] = kLong) {
        ipc_address to = testd();
        qelIpcArg piece{data.data(), static_cast<uint32_t>(data.size())};
        qelIpcArgs args{&piece, 1};
        qelIpcArgBlock *block, *reply = reinterpret_cast<qelIpcArgBlock *>(&args);
        EXPECT_GE(qelIpcArgsEncode(&args, &block), 20);
        int result = qelIpcSendRcv(&to, code, block, &reply, timeout);
        EXPECT_EQ(reply != nullptr && utils::load_be32(qelIpcArgsData(reply)) == 0xCAFEF00D,
                  result == 0);
        free(reply);
        free(block);
        return result;
    };
    std::tuple<int, std::string, const uint32_t *, int> cases[] = {
        {kEcho, kGood, kLong, 0},
        {kEcho, words({5, 0x7FFF, 0xFFFF0000, 20, 4, 0xCAFEF00D}), kLong, 0},  // "decoded"
        {kEcho, words({1, 0, 0, 20}), kLong, -22},                             // short
        {kEcho, words({1, 0, 0, 20, 8, 0xCAFEF00D}), kLong, -22},  // body longer than the reply
        {kEcho, words({8, 0, 0, 20, 0}), kLong, -22},
        {kEcho, words({2, 0, 0, 20, 8, 1}), kLong, -22},
        {kNothing, "", kBrief, -ETIMEDOUT},
        {kDefer, "", kBrief, -ETIMEDOUT},
        {kRelease, "", kLong, -22},          // empty: the late answer reaches nobody
        {kUnknown, "", kLong, -ECONNRESET},  // refused at once
    };
    for (auto &[code, data, timeout, result] : cases)
        EXPECT_EQ(exchange(code, data, timeout), result) << testing::PrintToString(data);
    std::atomic<bool> done{false};
    std::thread patient([&] {
        EXPECT_EQ(exchange(kDefer, ""), 0);
        done = true;
    });
    EXPECT_TRUE(eventually([&] { return exchange(kRelease, "") == -22 && done; }));
    patient.join();
    ipc_address to = testd();
    char raw[] = "#######";
    uint32_t length = 4;
    EXPECT_EQ(qelIpcSendOne(&to, kEcho, raw, 7, raw, &length, kLong), 0);
    EXPECT_EQ(length, 4u);  // a longer answer is cut
    EXPECT_EQ(ask(kNothing, "", kBrief), (Answer{-ETIMEDOUT, 0}));
    to.name[0] = '/';
    EXPECT_EQ(qelIpcSendOne(&to, kEcho, raw, 4, raw, &length, kLong), -EINVAL);
}

TEST(Ipc, DeadDaemonsGiveTheirRequestersAnErrorAndTheirNamesAway) {
    support::leaves({.descriptors = 1, .segments = 1});  // the kept connection; a killed daemon's
    {
        Daemon first, second;
        ASSERT_TRUE(first.ready);
        EXPECT_FALSE(second.ready);
        EXPECT_EQ(WEXITSTATUS(second.ending()), EADDRINUSE);
        EXPECT_EQ(ask(kDie, std::string(5000, 'x')).first, -ECONNRESET);
        EXPECT_EQ(WTERMSIG(first.ending()), SIGKILL);
        EXPECT_EQ(ask(kSum, "").first, -ECONNREFUSED);
    }
    Daemon third;
    EXPECT_EQ(ask(kSum, "a"), (Answer{0, 'a'}));
    EXPECT_EQ(ask(kExit, words({QELD_EXIT_ABORT})), (Answer{0, 0}));
    EXPECT_EQ(WTERMSIG(third.ending()), SIGABRT);
}

TEST(Ipc, DaemonMayCloseAndOpenAgain) {
    ipc_address own = testd();
    ipc_register(kEcho, [](void *to, int code, void *m) { return answer(to, code, received(m)); });
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(ipc_open(&own), 0);
        EXPECT_EQ(ipc_open(&own), -EALREADY);
        EXPECT_EQ(ask(kEcho, native(5)), (Answer{0, 5}));
        EXPECT_TRUE(support::passes_in_child([] {
            EXPECT_EQ(ask(kEcho, native(6)), (Answer{0, 6}));
        }));
        ipc_close();
        ipc_close();
        EXPECT_EQ(ask(kEcho, ""), (Answer{-ENOENT, 0}));
    }
    memset(own.name, 'n', sizeof own.name - 1);
    ASSERT_EQ(ipc_open(&own), 0);
    std::string longest(own.name);
    EXPECT_NE(qelDExitRequest(longest.c_str(), kEcho, QELD_EXIT_ABORT), 0);
    EXPECT_EQ(qelDExitRequest((longest + 'n').c_str(), kEcho, QELD_EXIT_ABORT), 0);
    ipc_close();
    EXPECT_EQ(ipc_unregister(kEcho), 0);
    EXPECT_EQ(ipc_unregister(kEcho), -ENOENT);
}

// Those that have had an answer go at once, those that have not asked yet after their time.
TEST(Ipc, FewDescriptorsAreSharedByManyRequesters) {
    support::leaves({.descriptors = 1});  // the kept connection
    for (rlim_t descriptors : {24U, 0U}) {
        Daemon daemon(descriptors);
        const timeval short_of_grace{0, 450000};
        int served[40], silent[40];
        for (int &fd : served) {
            fd = packets_to_daemon();
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &short_of_grace, sizeof short_of_grace);
            send_block(fd, kExit, "");
        }
        for (int &fd : silent)
            fd = packets_to_daemon();
        EXPECT_EQ(ask(kSum, "a"), (Answer{0, 'a'}));
        EXPECT_EQ(send(served[0], "", 0, MSG_NOSIGNAL), -1);
        for (int i = 0; i < 40; ++i)
            EXPECT_EQ(close(served[i]) + close(silent[i]), 0);
    }
}

TEST(Ipc, ConnectionsAreKeptUntilIdleAndForTheirThreadAlone) {
    Daemon daemon;
    ipc_address nobody = testd();
    nobody.name[0] = 'n';
    const Answer kGotA{0, 'a'};
    auto ask_a = [&] { EXPECT_EQ(ask(kSum, "a"), kGotA); };
    auto ask_nobody = [&] {
        uint32_t length = 0;
        EXPECT_EQ(ipcSendRcv(&nobody, kSum, nullptr, 0, nullptr, &length, kLong), -ENOENT);
    };
    utils_testing_advance_clock(CLOCK_MONOTONIC, 5 * support::kSecond);
    ask_nobody();
    int before = open_descriptors(), kept = dup(0);
    close(kept);
    for (int i = 0; i < 3; ++i) {
        ask_a();
        EXPECT_EQ(open_descriptors(), before + 1);
        std::thread(ask_a).join();
        EXPECT_EQ(open_descriptors(), before + 1) << "a thread leaves its connection behind";
        EXPECT_TRUE(support::passes_in_child([&] {
            EXPECT_EQ(fcntl(kept, F_GETFD), -1) << "a child has its parent's connection";
            ask_a();
        }));
    }
    int other[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, other), 0);
    EXPECT_EQ(dup2(other[0], kept), kept);  // what the program puts in its place is the program's
    ask_a();
    EXPECT_EQ(open_descriptors(), before + 4);
    for (int fd : {other[0], other[1], kept})
        close(fd);
    utils_testing_advance_clock(CLOCK_MONOTONIC, 5 * support::kSecond);
    EXPECT_EQ(ipcSend(&nobody, kSum, nullptr, 0, kLong), -ENOENT);
    EXPECT_EQ(open_descriptors(), before + 1) << "a message is no request";
    ask_nobody();
    EXPECT_EQ(open_descriptors(), before) << "idle for 5 seconds";
    ask_a();
    int raw = packets_to_daemon();
    char byte;
    std::thread([] { EXPECT_EQ(ask(kDefer, "", kBrief), (Answer{-ETIMEDOUT, 0})); }).join();
    EXPECT_EQ(recv(raw, &byte, 1, 0), 0);  // the daemon has ended what was idle
    close(raw);
    ask_a();
    EXPECT_EQ(ask(kTwice, ""), (Answer{0, 1}));
    ask_a();
    EXPECT_EQ(open_descriptors(), before + 1);
    EXPECT_EQ(ask(kUnknown, ""), (Answer{-ECONNRESET, 0}));
    EXPECT_EQ(open_descriptors(), before) << "after an error";
}

// The daemon's side by hand: what is refused comes again over a new connection, what was received
// does not, and an answer with a foreign number is none.
TEST(Ipc, RequestsThatMayHaveArrivedAreNotRepeated) {
    unlink(socket_of_testd().c_str());
    int listener = stream_at(socket_of_testd(), SOCK_SEQPACKET, bind);
    listen(listener, 1);
    std::thread server([&] {
        char packet[64];
        for (int last : {SHUT_RD, SHUT_RDWR}) {
            int fd = accept(listener, nullptr, nullptr);
            EXPECT_EQ(recv(fd, packet, sizeof packet, 0), 8 + 20);
            std::string number(packet + 4, 4), foreign = native(~0) + native(~0) + native(1);
            EXPECT_EQ(send(fd, foreign.data(), 12, 0), 12);
            std::string own = native(0) + number + native(2);
            shutdown(fd, last == SHUT_RD ? SHUT_RD : -1);
            EXPECT_EQ(send(fd, own.data(), 12, 0), 12);
            if (last == SHUT_RDWR) {
                EXPECT_EQ(recv(fd, packet, sizeof packet, 0), 8 + 20);
            }
            close(fd);
        }
    });
    EXPECT_EQ(ask(kSum, ""), (Answer{0, 2}));
    EXPECT_EQ(ask(kSum, ""), (Answer{0, 2}));
    EXPECT_EQ(ask(kSum, "", kLong), (Answer{-ECONNRESET, 0}));
    server.join();
    EXPECT_EQ(fcntl(listener, F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(accept(listener, nullptr, nullptr), -1) << "the request came twice";
    close(listener);
    EXPECT_EQ(ask(kSum, "", kLong), (Answer{-ECONNREFUSED, 0}));
}

TEST(Ipc, SignalsDoNotProlongARequest) {
    unlink(socket_of_testd().c_str());
    int listener = stream_at(socket_of_testd(), SOCK_SEQPACKET, bind);
    listen(listener, 0);
    int first = packets_to_daemon();  // the queue is full
    support::let_interrupt(SIGALRM);
    itimerval often{{0, 5000}, {0, 5000}}, never{};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(ask(kSum, "", kBrief), (Answer{-ETIMEDOUT, 0}));
    setitimer(ITIMER_REAL, &never, nullptr);
    close(first);
    close(listener);
}

// Strangers lock the directory and put a file in the place of the name's lock. Then the lock is in
// the hands of a process of our own, for which ipc_open() waits in spite of signals.
TEST(Ipc, OpeningHoldsNobodyUpAndIsHeldUpByNoStranger) {
    ipc_address own = testd();
    std::string lock = socket_of_testd() + ".lock";
    int directory = open("/run/korin", O_RDONLY | O_DIRECTORY), ends[2];
    flock(directory, LOCK_SH);
    support::write_file(lock, "");
    EXPECT_EQ(ipc_open(&own), 0);
    EXPECT_NE(access(lock.c_str(), F_OK), 0) << "the lock's file stays";
    ipc_close();
    char byte;
    ASSERT_EQ(pipe(ends), 0);
    pid_t holder = fork();
    if (holder == 0) {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        fcntl(open(lock.c_str(), O_RDWR | O_CREAT, 0600), F_SETLK, &whole);
        _exit(write(ends[1], "x", 1) == 1 ? pause() : 1);
    }
    ASSERT_EQ(read(ends[0], &byte, 1), 1);
    support::let_interrupt(SIGUSR1);
    std::atomic<int> results{0};
    auto opener = [&] { results += ipc_open(&own); };
    std::thread threads[] = {std::thread(opener), std::thread(opener)};
    EXPECT_TRUE(eventually([&] { return results == -EALREADY; }));  // one waits
    EXPECT_EQ(ipc_unregister(kUnknown), -ENOENT);
    for (std::thread &thread : threads)
        pthread_kill(thread.native_handle(), SIGUSR1);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(results, -EALREADY);
    ipc_close();
    EXPECT_EQ(fchmod(directory, 0777), 0);
    EXPECT_EQ(ipc_open(&own), -EPERM) << "anyone could put a socket in place of ours";
    EXPECT_EQ(fchmod(directory, 01777), 0);
    EXPECT_EQ(ipc_open(&own), 0);
    ipc_close();
    for (int fd : {directory, ends[0], ends[1]})
        close(fd);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The messages of the stand-in between processes: peers that answer late, wrongly or never, strangers,
// descriptors that run short, signals and locks held by others.
#include <poll.h>
#include <sys/file.h>
#include <sys/time.h>

#include <atomic>

#include "testd.h"

namespace {

using namespace support;

const auto open_now = utils_testing_open_descriptors;

// Lets the daemon's clock stand, and its waits with an end be short.
void let_time_stand() {
    utils_testing_set_clock(CLOCK_MONOTONIC, 1000 * kSecond);
    replace_call("poll", [](pollfd *set, nfds_t count, int limit_ms) {
        return poll(set, count, std::min(limit_ms, 20));
    });
}

// Whether the daemon ends the connection, for which it has time.
bool is_ended(int fd) {
    const timeval patience{20, 0};
    char byte;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ssize_t received = recv(fd, &byte, 1, 0);
    return received == 0 || (received < 0 && errno == ECONNRESET);
}

std::string packet_of(int code, size_t length) {
    return words({static_cast<uint32_t>(code), 1}) + std::string(length, 'x');
}

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
    const uint32_t short_of_idle[2] = {4, 0};
    std::tuple<int, std::string, const uint32_t *, int> cases[] = {
        {kEcho, kGood, kLong, 0},
        {kEcho, words({5, 0x7FFF, 0xFFFF0000, 20, 4, 0xCAFEF00D}), kLong, 0},  // "decoded"
        {kEcho, words({1, 0, 0, 20}), kLong, -22},                             // short
        {kEcho, words({1, 0, 0, 20, 8, 0xCAFEF00D}), kLong, -22},  // body longer than the reply
        {kEcho, words({8, 0, 0, 20, 0}), kLong, -22},
        {kEcho, words({2, 0, 0, 20, 8, 1}), kLong, -22},
        {kNothing, "", kBrief, -ETIMEDOUT},
        {kDefer, "", kBrief, -ETIMEDOUT},
        {kRelease, "", kLong, -22},                  // empty: the late answer reaches nobody
        {kUnknown, "", short_of_idle, -ECONNRESET},  // refused at once
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
    const uint32_t microsecond[2] = {0, 1};
    for (const uint32_t *limit : {kBrief, microsecond})
        EXPECT_EQ(ask(kNothing, "", limit), (Answer{-ETIMEDOUT, 0}));
}

TEST(Ipc, CallsSayWhatIsWrongWithThem) {
    Daemon daemon;
    ipc_address to = testd(), no_name = testd(""), path = testd("a/b"), reply{0, 99, "1.1"};
    char data[IPC_REQUEST_MAX + 1] = {};
    uint32_t none = 0, one = 1;
    auto request = [&](ipc_address *address, const char *bytes, uint32_t size, uint32_t *room) {
        return ipcSendRcv(address, kSum, bytes, size, nullptr, room, kLong);
    };
    auto message = [&](ipc_address *address, const char *bytes, uint32_t size) {
        return ipcSend(address, kNothing, bytes, size, kLong);
    };
    EXPECT_EQ(request(nullptr, data, 1, &none), -EINVAL);
    EXPECT_EQ(request(&to, data, 1, nullptr), -EINVAL);
    EXPECT_EQ(request(&to, data, 1, &one), -EINVAL);
    EXPECT_EQ(request(&to, nullptr, 1, &none), -EINVAL);
    EXPECT_EQ(request(&no_name, data, 1, &none), -EINVAL);
    EXPECT_EQ(request(&path, data, 1, &none), -EINVAL);
    EXPECT_EQ(request(&to, data, sizeof data, &none), -EMSGSIZE);
    EXPECT_EQ(message(nullptr, data, 1), -EINVAL);
    EXPECT_EQ(message(&to, nullptr, 1), -EINVAL);
    EXPECT_EQ(message(&path, data, 1), -EINVAL);
    EXPECT_EQ(message(&to, data, sizeof data), -EMSGSIZE);
    EXPECT_EQ(message(&to, data, sizeof data - 1), 0);
    EXPECT_EQ(message(&reply, data, IPC_REPLY_MAX + 1), -EMSGSIZE);
    EXPECT_EQ(message(&reply, data, 1), -EINVAL);
    reply.switch_no = 31;
    EXPECT_EQ(message(&reply, data, 1), -ENOTCONN);
    for (const ipc_address *own : {&path, &reply, static_cast<ipc_address *>(nullptr)})
        EXPECT_EQ(ipc_open(own), -EINVAL);
    EXPECT_EQ(ipc_register(1, nullptr), -EINVAL);
    auto handler = [](void *, int, void *) { return 0; };
    for (int code = 0; code < IPC_HANDLERS_MAX + 2; ++code)
        EXPECT_EQ(ipc_register(code, handler), code < IPC_HANDLERS_MAX ? 0 : -ENOSPC);
    EXPECT_EQ(ipc_register(7, handler), 0) << "in its own place";
    for (int code = 0; code < IPC_HANDLERS_MAX; ++code)
        EXPECT_EQ(ipc_unregister(code), 0);
    EXPECT_EQ(ipc_unregister(7), -ENOENT);
}

TEST(Ipc, DeadDaemonsGiveTheirRequestersAnErrorAndTheirNamesAway) {
    support::leaves({.descriptors = 1, .segments = 1});  // the kept connection; a killed daemon's
    {
        Daemon first, second;
        ASSERT_TRUE(first.is_ready());
        EXPECT_FALSE(second.is_ready());
        EXPECT_EQ(WEXITSTATUS(second.ending()), EADDRINUSE);
        pid_t child = ask(kFork, "").second;
        EXPECT_EQ(ask(kDie, std::string(5000, 'x')).first, -ECONNRESET);
        EXPECT_EQ(WTERMSIG(first.ending()), SIGKILL);
        EXPECT_TRUE(eventually([] { return ask(kSum, "").first == -ECONNREFUSED; }))
            << "its child holds the socket";
        kill(child, SIGKILL);
    }
    Daemon third;
    EXPECT_EQ(ask(kSum, "a"), (Answer{0, 'a'}));
    EXPECT_EQ(ask(kExit, words({QELD_EXIT_ABORT})), (Answer{0, 0}));
    EXPECT_EQ(WTERMSIG(third.ending()), SIGABRT);
}

// How many signals other threads take that this one blocks.
int taken_for(int number) {
    sigset_t blocked, pending;
    sigemptyset(&blocked);
    sigaddset(&blocked, number);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    support::let_interrupt(number);
    kill(getpid(), number);
    sigpending(&pending);
    pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    return sigismember(&pending, number) == 0;
}

// A child is a requester as before, and no daemon before it opens itself.
void ask_and_open() {
    EXPECT_EQ(ask(kEcho, native(6)), (Answer{0, 6}));
#ifndef __SANITIZE_THREAD__  // lets no child start threads, no more than an emulator does
    if (support::emulated())
        return;
    ipc_address another = testd("another");
    EXPECT_EQ(ipc_open(&another), 0);
    ipc_close();
#endif
}

TEST(Ipc, DaemonMayCloseAndOpenAgain) {
    ipc_address own = testd();
    ipc_register(kEcho, [](void *to, int code, void *m) { return answer(to, code, received(m)); });
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(ipc_open(&own), 0);
        EXPECT_EQ(ipc_open(&own), -EALREADY);
        EXPECT_EQ(ask(kEcho, native(5)), (Answer{0, 5}));
        EXPECT_EQ(taken_for(SIGUSR2), 0) << "the service's thread takes signals";
        EXPECT_TRUE(support::passes_in_child(ask_and_open));
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
}

TEST(Ipc, OnlyTheOwnUserAndRootAreHeard) {
    for (auto [user, heard] : {std::pair(geteuid(), true), {0, true}, {4711, false}}) {
        Daemon daemon(0, [user = user] { see_peers_of(user); });
        EXPECT_EQ(ask(kSum, "a").first == 0, heard) << user;
    }
    Daemon unsure(0, [] { utils_testing_fail_call("getsockopt", 1, ENOPROTOOPT, 99); });
    EXPECT_NE(ask(kSum, "a").first, 0);
}

TEST(Ipc, PacketsOfAWrongSizeEndTheirConnection) {
    Daemon daemon;
    for (auto [size, ended] : {std::pair(0u, true),
                               {7, true},
                               {8 + IPC_REQUEST_MAX + 1, true},
                               {8 + IPC_REQUEST_MAX, false},
                               {8, false}}) {
        int fd = packets_to_daemon();
        std::string packet = packet_of(kTwice, IPC_REQUEST_MAX + 1).substr(0, size);
        EXPECT_EQ(send(fd, packet.data(), packet.size(), 0), static_cast<ssize_t>(size));
        EXPECT_EQ(is_ended(fd), ended) << size;
        close(fd);
    }
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

TEST(Ipc, SilentConnectionsHaveTheirTimeAndNoMore) {
    Daemon daemon(0, let_time_stand);
    int silent[40];
    for (int &fd : silent)
        fd = packets_to_daemon();
    EXPECT_EQ(ask(kSum, "a", kBrief), (Answer{-ETIMEDOUT, 0})) << "they have no time left";
    std::string deferred = packet_of(kDefer, 0);
    EXPECT_EQ(write(silent[0], deferred.data(), deferred.size()), 8);  // moves the clock on
    EXPECT_EQ(ask(kSum, "a"), (Answer{0, 'a'}));
    EXPECT_TRUE(is_ended(silent[1]));
    char byte;
    EXPECT_EQ(recv(silent[0], &byte, 1, MSG_DONTWAIT), -1) << "its answer is due";
    for (int fd : silent)
        close(fd);
}

TEST(Ipc, WhatIsIdleEndsWithoutAnEvent) {
    Daemon daemon(0, [] {
        let_time_stand();
        utils_testing_step_clock(CLOCK_MONOTONIC, kSecond);
    });
    int idle = packets_to_daemon();
    EXPECT_TRUE(is_ended(idle));
    close(idle);
}

TEST(Ipc, ConnectionsAreKeptUntilIdleAndForTheirThreadAlone) {
    Daemon daemon;
    ipc_address nobody = testd("nobody");
    auto ask_a = [&] { EXPECT_EQ(ask(kSum, "a"), (Answer{0, 'a'})); };
    auto ask_nobody = [&] {
        uint32_t length = 0;
        EXPECT_EQ(ipcSendRcv(&nobody, kSum, nullptr, 0, nullptr, &length, kLong), -ENOENT);
    };
    utils_testing_advance_clock(CLOCK_MONOTONIC, 5 * support::kSecond);
    ask_nobody();
    int before = open_now(), kept = dup(0);
    close(kept);
    for (int i = 0; i < 3; ++i) {
        ask_a();
        EXPECT_EQ(open_now(), before + 1);
        std::thread(ask_a).join();
        EXPECT_EQ(open_now(), before + 1) << "a thread leaves its connection behind";
        EXPECT_TRUE(support::passes_in_child([&] {
            EXPECT_EQ(fcntl(kept, F_GETFD), -1) << "a child has its parent's connection";
            ask_a();
        }));
    }
    int other[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, other), 0);
    EXPECT_EQ(dup2(other[0], kept), kept);  // what the program puts in its place is the program's
    ask_a();
    EXPECT_EQ(open_now(), before + 4);
    for (int fd : {other[0], other[1], kept})
        close(fd);
    utils_testing_advance_clock(CLOCK_MONOTONIC, 5 * support::kSecond);
    EXPECT_EQ(ipcSend(&nobody, kSum, nullptr, 0, kLong), -ENOENT);
    EXPECT_EQ(open_now(), before + 1) << "a message is no request";
    ask_nobody();
    EXPECT_EQ(open_now(), before) << "idle for 5 seconds";
    ask_a();
    int raw = packets_to_daemon();
    std::thread([] { EXPECT_EQ(ask(kDefer, "", kBrief), (Answer{-ETIMEDOUT, 0})); }).join();
    EXPECT_TRUE(is_ended(raw));
    close(raw);
    ask_a();
    utils_testing_fail_call("socket", 1, EMFILE, 1);
    ask_nobody();
    EXPECT_EQ(open_now(), before) << "nothing idle when descriptors run short";
    ask_a();
    EXPECT_EQ(ask(kTwice, ""), (Answer{0, 1}));
    ask_a();
    EXPECT_EQ(open_now(), before + 1);
    EXPECT_EQ(ask(kUnknown, ""), (Answer{-ECONNRESET, 0}));
    EXPECT_EQ(open_now(), before) << "after an error";
    int input = dup(0);
    close(0);
    ask_a();
    EXPECT_EQ(fcntl(0, F_GETFD), -1) << "in the place of the standard input";
    EXPECT_EQ(dup2(input, 0), 0);
    close(input);
    std::atomic<int> asked{0};
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 20; ++i)
            threads.emplace_back(
                [&] { ask_a(), ++asked, eventually([&] { return asked == 99; }); });
        EXPECT_TRUE(eventually([&] { return asked == 20; }));
        EXPECT_EQ(open_now(), before + 16) << "no more than the pool holds";
        asked = 99;
    }
    ask_a();
    EXPECT_EQ(open_now(), before + 1);
    replace_call("geteuid", [] { return uid_t{4711}; });
    ask_a();
    utils_testing_replace_call("geteuid", nullptr);
    EXPECT_EQ(open_now(), before + 1) << "another user's connection";
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
                EXPECT_EQ(send(fd, own.data(), 7, 0), 7);  // less than an answer's head
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
    int64_t begin = monotonic_ms();
    EXPECT_EQ(ask(kSum, "", kBrief), (Answer{-ETIMEDOUT, 0}));
    EXPECT_GE(monotonic_ms() - begin, 49) << "nor shorten it";
    setitimer(ITIMER_REAL, &never, nullptr);
    close(first);
    close(listener);
}

// Strangers lock the directory, and a file in the place of the name's lock that they can open. Then the
// lock is in the hands of a process of our own, for which ipc_open() waits in spite of signals.
TEST(Ipc, OpeningHoldsNobodyUpAndIsHeldUpByNoStranger) {
    ipc_address own = testd();
    std::string lock = socket_of_testd() + ".lock";
    int directory = open("/run/korin", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    flock(directory, LOCK_SH);
    auto hold = [&](mode_t mode) {
        return std::make_unique<Process>([&, mode](auto &ready) {
            struct flock whole {};
            whole.l_type = F_WRLCK;
            int fd = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode);
            if (fchmod(fd, mode) == 0 && fcntl(fd, F_SETLK, &whole) == 0)
                ready();
            return pause();
        });
    };
    for (mode_t mode : {0604u, 0640u, 0601u, 0602u}) {
        auto stranger = hold(mode);
        EXPECT_TRUE(stranger->is_ready());
        EXPECT_EQ(ipc_open(&own), 0) << mode;
        EXPECT_NE(access(lock.c_str(), F_OK), 0) << "the lock's file stays";
        ipc_close();
    }
    auto holder = hold(0600);
    utils_testing_step_clock(CLOCK_MONOTONIC, 9 * kSecond);
    EXPECT_EQ(ipc_open(&own), -ETIMEDOUT);
    EXPECT_EQ(access(lock.c_str(), F_OK), 0) << "its holder's file is gone";
    utils_testing_release_clock(CLOCK_MONOTONIC);
    support::let_interrupt(SIGUSR1);
    std::atomic<int> results{0};
    auto opener = [&] { results += ipc_open(&own); };
    std::thread threads[] = {std::thread(opener), std::thread(opener)};
    EXPECT_TRUE(eventually([&] { return results == -EALREADY; }));  // one waits
    for (std::thread &thread : threads)
        pthread_kill(thread.native_handle(), SIGUSR1);
    holder.reset();
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(results, -EALREADY);
    ipc_close();
    for (auto [mode, result] : {std::pair(0777u, -EPERM), {01777, 0}}) {
        EXPECT_EQ(fchmod(directory, mode), 0);
        EXPECT_EQ(ipc_open(&own), result) << "anyone could put a socket in place of ours";
        ipc_close();
    }
    close(directory);
}

}  // namespace

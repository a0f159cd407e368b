// Requesters and daemons as separate processes: the IPC stand-in, argument blocks, redirection and
// exit, with real files, terminals and servers, and whatever arrives: the daemon goes on serving,
// and at the end it exits without a complaint of the sanitizers.
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <random>
#include <thread>
#include <tuple>

#include "base/big_endian.h"
#include "support/clock.h"
#include "support/heap.h"
#include "support/wire.h"
#include "utils/daemon_codes.h"
#include "utils/daemon_ctl.h"
#include "utils/identity.h"
#include "utils/ipc_args.h"
#include "utils/platform/posix/ipc_server.h"
#include "utils/tnet_cmd.h"

namespace {

using support::eventually;
using support::inline_block;
using support::words;

enum Code { kSum = 1, kPoke, kDie, kEcho, kNothing, kDefer, kRelease, kRecord, kTwice, kUnknown };

constexpr int kRedirect = IPC_CODE_REDIRECT_OUTPUT, kExit = IPC_CODE_EXIT;
const uint32_t kLong[2] = {20, 0}, kBrief[2] = {0, 50000};
const std::string kCommands = "/run/korin/testd.0.cmd", kGood = inline_block(words({0xCAFEF00D}));

// Whether loops are to be cut down: each exchange costs much more here.
bool slow() {
#ifdef __SANITIZE_THREAD__
    return true;
#else
    return support::emulated();
#endif
}

ipc_address testd() {
    return {myNode(), static_cast<uint16_t>(getMySwitch()), "testd"};
}

int stream_at(const std::string &path, int type, int (*attach)(int, const sockaddr *, socklen_t)) {
    sockaddr_un name{AF_UNIX, {}};
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    EXPECT_TRUE(eventually([&] {
        return attach(fd, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0;
    })) << path;
    return fd;
}

std::string socket_of_testd() {
    return "/run/korin/" + std::to_string(myNode()) + "." + std::to_string(getMySwitch()) +
           ".testd.ipc";
}

int packets_to_daemon() {
    return stream_at(socket_of_testd(), SOCK_SEQPACKET, connect);
}

int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 64; ++fd)
        count += fcntl(fd, F_GETFD) != -1;
    return count;
}

int answer(void *to, int code, const std::string &data) {
    return ipcSend(to, code, data.data(), static_cast<uint32_t>(data.size()), nullptr);
}

std::string native(int32_t word) {
    return {reinterpret_cast<char *>(&word), sizeof word};
}

// The payload of a request, or its status.
std::string received(void *message) {
    auto *block = reinterpret_cast<qelIpcArgBlock *>(static_cast<char *>(message) + 4);
    qelIpcArgsReceived(block);
    if (int status = qelIpcArgsDecode(block); status != 0)
        return std::to_string(status);
    std::string data(static_cast<char *>(qelIpcArgsData(block)), qelIpcArgsDataLength(block));
    qelIpcArgsDestroy(block);
    return data;
}

void serve_everything() {
    static ipc_address deferred;
    ipc_register(kRedirect, ipcCbQelDRedirectOutput);
    ipc_register(kExit, ipcCbQelDExitHandler);
    ipc_register(kSum, [](void *to, int code, void *message) {
        int32_t total = 0;
        for (char byte : received(message))
            total += static_cast<unsigned char>(byte);
        return answer(to, code, native(total));
    });
    ipc_register(kPoke, [](void *to, int code, void *) {
        return answer(to, code, native(write(1, "out\n", 4) == 4 && write(2, "err\n", 4) == 4));
    });
    ipc_register(kDie, [](void *, int, void *) { return kill(getpid(), SIGKILL); });
    ipc_register(kEcho, [](void *to, int code, void *m) { return answer(to, code, received(m)); });
    ipc_register(kNothing, [](void *, int, void *) { return 0; });
    ipc_register(kDefer, [](void *to, int, void *) {
        deferred = *static_cast<ipc_address *>(to);
        return support::ahead_s += 100, 0;  // longer than a connection may be idle
    });
    ipc_register(kRelease, [](void *to, int code, void *) {
        answer(&deferred, code, kGood);
        return answer(to, code, "");
    });
    ipc_register(kRecord, [](void *to, int code, void *message) {
        support::write_file("/tmp/request", received(message));
        return answer(to, code, native(-11));
    });
    ipc_register(kTwice, [](void *to, int code, void *) {
        return answer(to, code, native(1)) + answer(to, code, native(2));
    });
}

void serve_commands() {
    unlink(kCommands.c_str());
    int listener = stream_at(kCommands, SOCK_STREAM, bind);
    listen(listener, 128);
    std::thread([listener] {
        for (;;) {
            std::thread([fd = accept(listener, nullptr, nullptr)] {
                qelTnetCmdCB(fd, [](int argc, char **argv, FILE *out) {
                    for (int i = 0; i < argc; ++i)
                        fprintf(out, "%zu ", strlen(argv[i]));
                    return fprintf(out, "%d", argc);
                });
                close(fd);
            }).detach();
        }
    }).detach();
}

// A daemon in a process of its own, ready when the constructor returns; it dies with the object.
struct Daemon {
    pid_t pid;
    bool ready;
    int status = -1;

    explicit Daemon(rlim_t descriptors = 0) {
        int ends[2];
        char byte;
        EXPECT_EQ(pipe(ends), 0);
        fflush(nullptr);
        pid = fork();
        if (pid == 0) {
            ipc_address own = testd();
            rlimit few{descriptors, descriptors};
            serve_everything();
            if (descriptors != 0)
                setrlimit(RLIMIT_NOFILE, &few);
            else
                serve_commands();
            int result = ipc_open(&own);
            if (result != 0 || write(ends[1], "r", 1) != 1)
                _exit(-result);
            for (;;)
                pause();
        }
        close(ends[1]);
        ready = read(ends[0], &byte, 1) == 1;
        close(ends[0]);
    }
    ~Daemon() {
        if (status == -1)
            kill(pid, SIGKILL);
        ending();
    }
    int ending() {
        if (status == -1)
            waitpid(pid, &status, 0);
        return status;
    }
};

// The result of an exchange, and the first word of the answer.
using Answer = std::pair<int, int32_t>;
Answer ask(int code, std::string data, const uint32_t timeout[2] = kLong) {
    ipc_address to = testd();
    int32_t word = 0;
    uint32_t length = sizeof word;
    int result = qelIpcSendOne(&to, code, data.data(), static_cast<uint32_t>(data.size()), &word,
                               &length, timeout);
    return {result, word};
}

// Sends a block as it is; the answer's status.
int32_t send_block(int fd, int code, const std::string &block) {
    static uint32_t number = 0x80000000;
    std::string head = words({static_cast<uint32_t>(code), ++number});
    std::string packet = head + block.substr(0, IPC_REQUEST_MAX);
    int32_t reply[3] = {};
    EXPECT_EQ(send(fd, packet.data(), packet.size(), 0), static_cast<ssize_t>(packet.size()));
    EXPECT_EQ(recv(fd, reply, sizeof reply, 0), 12);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(reply), 8), head);
    return reply[2];
}

std::string redirect(uint32_t kind, uint32_t offset, uint32_t length, std::string text,
                     uint32_t port = 0) {
    return words({kind, offset, length, port}) + text.append(4 - text.size() % 4, '\0');
}

std::string send_command(const std::string &message) {
    int fd = stream_at(kCommands, SOCK_STREAM, connect);
    send(fd, message.data(), message.size(), MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    std::string reply(256, '\0');
    ssize_t n = recv(fd, reply.data(), reply.size(), MSG_WAITALL);
    close(fd);
    return reply.substr(0, n > 0 ? static_cast<size_t>(n) : 0);
}

TEST(Ipc, RequestsHaveTheirFormatAndHandlersTrustNothing) {
    Daemon daemon;
    auto request = [] { return support::read_file("/tmp/request"); };
    EXPECT_EQ(qelDRedirectOutput("/tmp/xyz", "testd", kRecord), -11);
    EXPECT_EQ(request(), redirect(1, 16, 9, "/tmp/xyz"));
    EXPECT_EQ(qelDRedirOutputToSocket("10.0.0.1", 2301, "testd", kRecord), -11);
    EXPECT_EQ(request(), redirect(2, 16, 9, "10.0.0.1", 2301));
    EXPECT_EQ(qelDExitRequest("testd", kRecord, 2), -11);
    EXPECT_EQ(request(), words({2}));
    EXPECT_EQ(qelDRedirectOutput(nullptr, "testd", kRecord), -22);
    EXPECT_EQ(qelDRedirectOutput("/tmp/x", nullptr, kRecord), -22);
    EXPECT_EQ(qelDRedirOutputToSocket(nullptr, 1, "testd", kRecord), -22);
    EXPECT_EQ(qelDExitRequest(nullptr, kRecord, 1), -22);
#ifdef UTILS_FAKE_HEAP
    support::refuse_after = 0;
    int refused = qelDRedirectOutput("/tmp/x", "testd", kRecord);
    support::refuse_after = -1;
    EXPECT_EQ(refused, -12);
#endif
    std::string text = "/no/such/path";
    std::tuple<int, std::string, int32_t> cases[] = {
        {kRedirect, inline_block(redirect(1, 16, 14, text)), 0},  // cannot be opened: no error
        {kRedirect, inline_block(redirect(1, 16, 0, text)), 0},
        {kRedirect, inline_block(redirect(2, 16, 0, text)), -1},
        {kRedirect, inline_block(redirect(3, 16, 14, text)), -22},
        {kRedirect, inline_block(redirect(1, 16, 13, text)), -22},  // no NUL at its end
        {kRedirect, inline_block(redirect(1, 16, 17, text)), -22},
        {kRedirect, inline_block(redirect(1, 33, 1, text)), -22},
        {kRedirect, inline_block(redirect(1, 0xFFFFFFF0, 0x20, text)), -22},
        {kRedirect, inline_block(words({1, 16, 0})), -22},
        {kExit, inline_block(words({0})), -22},
        {kExit, inline_block(words({3})), -22},
        {kExit, inline_block(words({0x80000001})), -22},
    };
    int fd = packets_to_daemon();
    for (auto &[code, block, status] : cases)
        EXPECT_EQ(send_block(fd, code, block), status) << testing::PrintToString(block);
    for (int code : {kRedirect, kExit}) {
        EXPECT_EQ(send_block(fd, code, ""), -6);
        EXPECT_EQ(send_block(fd, code, words({9, 0, 0, 20, 4, 1})), -11);
        EXPECT_EQ(send_block(fd, code, words({0, 0, 0, 20, 4, 1})), -22);
        // "Decoded" and an address, both the sender's words.
        EXPECT_EQ(send_block(fd, code, words({5, 0x7FFF, 0xFFFFFFF0, 20, 0})), -22);
    }
    close(fd);
}

TEST(Ipc, OutputOfADaemonGoesToAFileATerminalAndAServer) {
    Daemon daemon;
    const Answer kPoked{0, 1};
    // The path is long enough for shared memory the second time.
    for (std::string path : {std::string("/tmp/out"), "/tmp" + std::string(3000, '/') + "out"}) {
        EXPECT_EQ(qelDRedirectOutput(path.c_str(), "testd", kRedirect), 0);
        EXPECT_EQ(ask(kPoke, ""), kPoked);
    }
    EXPECT_EQ(support::read_file("/tmp/out"), "out\nerr\nout\nerr\n");
    EXPECT_EQ(support::segments(), 0);

    int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    EXPECT_EQ(qelDRedirectOutput(ptsname(terminal), "testd", kRedirect), 0);
    EXPECT_EQ(ask(kPoke, ""), kPoked);
    std::string seen, part(100, '\0');
    while (seen.size() < 10)
        seen.append(part, 0, static_cast<size_t>(read(terminal, part.data(), part.size())));
    EXPECT_EQ(seen, "out\r\nerr\r\n");

    // A server that is somebody else's program.
    FILE *server =
        popen("exec socat -u TCP-LISTEN:2301,bind=127.0.0.1,reuseaddr CREATE:/tmp/server", "r");
    EXPECT_TRUE(eventually(
        [] { return qelDRedirOutputToSocket("127.0.0.1", 2301, "testd", kRedirect) == 0; }));
    EXPECT_EQ(ask(kPoke, ""), kPoked);
    std::string sw = "sw" + std::to_string(getMySwitch()) + ": ";
    std::string expected = "\nINFO+++ " + sw + "pid(" + std::to_string(daemon.pid) +
                           "), output redirected to host(127.0.0.1), port(2301)\nout\nerr\n";
    expected += sw + "failed to connect to server(127.0.0.1)\n";
    EXPECT_EQ(qelDRedirOutputToSocket("127.0.0.1", 9, "testd", kRedirect), -1);
    EXPECT_EQ(qelDRedirOutputToSocket("127.0.0.1", 0, "testd", kRedirect), -1);
    EXPECT_TRUE(eventually([&] { return support::read_file("/tmp/server") == expected; }))
        << support::read_file("/tmp/server");
    EXPECT_EQ(ask(kExit, words({QELD_EXIT_NORMAL})), (Answer{0, 0}));
    EXPECT_EQ(daemon.ending(), 0);
    EXPECT_EQ(ask(kSum, ""), (Answer{-ENOENT, 0}));
    EXPECT_EQ(qelDExitRequest("testd", kExit, QELD_EXIT_NORMAL), 0);  // nobody there
    EXPECT_EQ(pclose(server), 0);
    close(terminal);
}

TEST(Ipc, RedirectionAppendsWhateverIsOpenAndNeverBlocks) {
    for (int closed : {-1, 1, 2}) {
        unlink("/tmp/output");
        for (int round = 0; round < 2; ++round) {
            auto ending = support::in_child([&] {
                int before = open_descriptors();
                close(closed);
                return qelDRedirectOutput_impl("/tmp/output") != 0 ||
                       (fcntl(1, F_GETFL) & O_NONBLOCK) == 0 || fcntl(1, F_GETFD) != 0 ||
                       open_descriptors() != before ||
                       write(1, "out\n", 4) + write(2, "err\n", 4) != 8;
            });
            EXPECT_EQ(ending.status, 0) << closed;
        }
        EXPECT_EQ(support::read_file("/tmp/output"), "out\nerr\nout\nerr\n");
    }
}

TEST(Ipc, ManyRequestsBySharedMemoryLeaveNoSegment) {
    Daemon daemon;
    for (int i = 0; i < (slow() ? 2000 : 10000); ++i) {
        std::string data(2100 + static_cast<size_t>(i % 7000), static_cast<char>(i % 100));
        data.resize(data.size() / 4 * 4);
        ASSERT_EQ(ask(kSum, data), (Answer{0, static_cast<int32_t>(data.size()) * (i % 100)}));
    }
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(system("ipcs -m | grep -c 0x"), 256); }), "0\n");
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
    for (rlim_t descriptors : {24, 0}) {
        Daemon daemon(descriptors);
        const uint32_t short_of_grace[2] = {0, 450000};
        int served[40], silent[40];
        for (int &fd : served) {
            fd = packets_to_daemon();
            send_block(fd, kExit, "");
        }
        EXPECT_EQ(ask(kSum, "a", short_of_grace), (Answer{0, 'a'}));
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
    support::ahead_s += 5;
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
    EXPECT_EQ(dup2(0, kept), kept);  // what the program puts in its place is the program's
    ask_a();
    EXPECT_EQ(open_descriptors(), before + 2);
    close(kept);
    support::ahead_s += 5;
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
                close(fd);
            }
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
    for (int fd : {directory, ends[0], ends[1]})
        close(fd);
}

std::string mutated(std::string bytes) {
    static std::mt19937 random(1);
    static const uint32_t kWords[] = {0, 1, 2, 4, 7, 8, 20, 0x7FFFFFFF, 0xFFFFFFF0, 0xFFFFFFFF};
    for (size_t n = 1 + random() % 4; n > 0 && !bytes.empty(); --n) {
        size_t at = random() % bytes.size(), kind = random() % 5;
        if (kind == 0)
            bytes[at] = static_cast<char>(bytes[at] ^ 1 << random() % 8);
        else if (kind == 1)
            bytes[at] = static_cast<char>(random());
        else if (kind == 2)
            bytes.replace(at / 4 * 4, 4, words({kWords[random() % std::size(kWords)]}));
        else if (kind == 3)
            bytes.resize(at);
        else
            bytes.insert(at, bytes.substr(0, random() % 64));
    }
    return bytes;
}

// Of the 100,000 mutations, commands, blocks and redirects get a third each.
TEST(Ipc, TruncatedAndMutatedInputLeavesTheDaemonServing) {
    Daemon daemon;
    int segments = support::segments();  // the killed daemon could not remove its own
    EXPECT_EQ(qelDRedirectOutput("/dev/null", "testd", kRedirect), 0);
    std::string command = support::command_message({"portshow", "-s", "12", "", "slot/7"});
    std::string redirects[] = {redirect(1, 16, 15, "/no/such/place"),
                               redirect(2, 16, 10, "127.0.0.1", 9)};
    std::string blocks[] = {inline_block(std::string(2024, 'x')), inline_block("abcdefgh"),
                            words({5, 0x7FFF, 0x12345678, 20, 4, 0})};
    int fd = packets_to_daemon();
    std::vector<int> stalled;  // senders that stop in the middle of a message hold up nobody
    for (size_t length = 0; length < command.size(); ++length) {
        ASSERT_EQ(send_command(command.substr(0, length)), "") << length;
        if (length % 3 == 0) {
            stalled.push_back(stream_at(kCommands, SOCK_STREAM, connect));
            EXPECT_EQ(write(stalled.back(), command.data(), length), static_cast<ssize_t>(length));
        }
    }
    for (size_t kind = 0; kind < 40; ++kind) {
        int silent = packets_to_daemon();
        std::string packet(kind % 2 != 0 ? 7 : 8 + IPC_REQUEST_MAX + 1, 'x');
        EXPECT_TRUE(kind % 3 == 0 || send(silent, packet.data(), packet.size(), 0) > 0);
        ASSERT_EQ(ask(kSum, "a"), (Answer{0, 'a'}));
    }
    close(fd);  // the newcomers have driven it out
    fd = packets_to_daemon();
    for (const std::string &block : blocks) {
        for (size_t length = 1; length < block.size(); ++length)
            send_block(fd, kSum, block.substr(0, length));
        ASSERT_FALSE(HasFailure());
    }
    for (const std::string &valid : redirects) {
        for (size_t length = 1; length < valid.size(); ++length) {
            bool whole = length >= 16 + utils::load_be32(&valid[8]);
            EXPECT_EQ(send_block(fd, kRedirect, inline_block(valid.substr(0, length))) != -22,
                      whole);
        }
    }
    for (size_t i = 0; i < (slow() ? 2000 : 33334); ++i) {
        send_command(mutated(command));
        std::string payload = mutated(redirects[i % 2]), block = blocks[i % 3];
        send_block(fd, kRedirect,
                   i % 4 == 0 ? mutated(inline_block(payload)) + "x" : inline_block(payload));
        ASSERT_FALSE(HasFailure()) << i;
        int id = i % 50 == 0 ? shmget(IPC_PRIVATE, 3000, IPC_CREAT | 0600) : -1;
        if (id >= 0)
            block = words({2, 0, 0, 20, 8, static_cast<uint32_t>(id), 3000});
        send_block(fd, kSum, mutated(block) + "x");
        shmctl(id, IPC_RMID, nullptr);
    }
    EXPECT_EQ(support::segments(), segments);
    EXPECT_EQ(send_command(support::command_message({"ab", "c"})), "2 1 2");
    EXPECT_EQ(ask(kSum, "abc"), (Answer{0, 294}));
    EXPECT_EQ(ask(kExit, words({QELD_EXIT_NORMAL})), (Answer{0, 0}));
    EXPECT_EQ(daemon.ending(), 0);
}

}  // namespace

// Requesters and daemons as separate processes: the IPC stand-in, argument blocks, redirection and
// exit, with real files, terminals and servers.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "internal/big_endian.h"
#include "support/daemon.h"
#include "support/wire.h"
#include "utils/daemon_ctl.h"
#include "utils/ipc_args.h"

namespace {

using support::Daemon;

enum Code { kSum = 1, kPoke, kDie, kShort, kNothing, kDefer, kRelease, kBlock, kIsNull, kUnknown };

const uint32_t kLong[2] = {20, 0}, kBrief[2] = {0, 50000};
ipc_address deferred;

qelIpcArgBlock *block_of(void *message) {
    return reinterpret_cast<qelIpcArgBlock *>(static_cast<char *>(message) + 4);
}

int answer(void *to, int code, uint32_t word) {
    return ipcSend(to, code, &word, sizeof word, nullptr);
}

// Adds up the payload's bytes.
int sum(void *reply, int code, void *message) {
    uint32_t total = 0;
    if (qelIpcArgsDecode(block_of(message)) == 0) {
        auto *bytes = static_cast<unsigned char *>(qelIpcArgsData(block_of(message)));
        for (uint32_t i = 0; i < qelIpcArgsDataLength(block_of(message)); ++i)
            total += bytes[i];
    }
    qelIpcArgsDestroy(block_of(message));
    return answer(reply, code, total);
}

int poke(void *reply, int code, void *) {
    bool both = write(1, "out\n", 4) == 4 && write(2, "err\n", 4) == 4;
    return answer(reply, code, both);
}

int reply_block(void *reply, int code, void *) {
    std::string block = support::inline_block(support::word(0xCAFEF00D));
    return ipcSend(reply, code, block.data(), static_cast<uint32_t>(block.size()), nullptr);
}

int defer(void *reply, int, void *) {
    deferred = *static_cast<ipc_address *>(reply);
    return 0;
}

int release(void *reply, int code, void *) {
    reply_block(&deferred, code, nullptr);
    return reply_block(reply, code, nullptr);
}

void serve_everything() {
    ipc_register(IPC_CODE_REDIRECT_OUTPUT, ipcCbQelDRedirectOutput);
    ipc_register(IPC_CODE_EXIT, ipcCbQelDExitHandler);
    ipc_register(kSum, sum);
    ipc_register(kPoke, poke);
    ipc_register(kBlock, reply_block);
    ipc_register(kDefer, defer);
    ipc_register(kRelease, release);
    ipc_register(kDie, [](void *, int, void *) { return kill(getpid(), SIGKILL); });
    ipc_register(kNothing, [](void *, int, void *) { return 0; });
    ipc_register(kShort, [](void *to, int code, void *) {
        return ipcSend(to, code, "0123456789", 10, nullptr);
    });
    ipc_register(kIsNull,
                 [](void *to, int code, void *m) { return answer(to, code, m == nullptr); });
}

// Sends `data` and returns the answer's word; `result` is the exchange's.
uint32_t ask(int code, const std::string &data, int &result, const uint32_t timeout[2] = kLong) {
    ipc_address to = support::address_of("testd");
    uint32_t word = 0, length = sizeof word;
    result = qelIpcSendOne(&to, code, const_cast<char *>(data.data()),
                           static_cast<uint32_t>(data.size()), &word, &length, timeout);
    return word;
}

TEST(Ipc, OutputOfADaemonGoesToAFileATerminalAndAServer) {
    Daemon daemon("testd", serve_everything);
    ASSERT_TRUE(daemon.ready());
    int result;
    auto poked = [&] { return ask(kPoke, "", result) == 1; };
    // The path is long enough for shared memory the second time.
    for (std::string path : {std::string("/tmp/out"), "/tmp" + std::string(3000, '/') + "out"}) {
        EXPECT_EQ(qelDRedirectOutput(path.c_str(), "testd", IPC_CODE_REDIRECT_OUTPUT), 0);
        EXPECT_TRUE(poked());
    }
    EXPECT_EQ(support::read_file("/tmp/out"), "out\nerr\nout\nerr\n");

    int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    EXPECT_EQ(qelDRedirectOutput(ptsname(terminal), "testd", IPC_CODE_REDIRECT_OUTPUT), 0);
    EXPECT_TRUE(poked());
    std::string seen;
    char part[100];
    while (seen.size() < 10) {
        ssize_t n = read(terminal, part, sizeof part);
        ASSERT_GT(n, 0);
        seen.append(part, static_cast<size_t>(n));
    }
    EXPECT_EQ(seen, "out\r\nerr\r\n");

    // A server that is somebody else's program.
    FILE *server =
        popen("exec socat -u TCP-LISTEN:2301,bind=127.0.0.1,reuseaddr CREATE:/tmp/server", "r");
    ASSERT_NE(server, nullptr);
    EXPECT_TRUE(support::eventually([] {
        return qelDRedirOutputToSocket("127.0.0.1", 2301, "testd", IPC_CODE_REDIRECT_OUTPUT) == 0;
    }));
    EXPECT_TRUE(poked());
    std::string greeting = "\nINFO+++ sw" + std::to_string(getMySwitch()) + ": pid(" +
                           std::to_string(daemon.pid()) +
                           "), output redirected to host(127.0.0.1), port(2301)\n";
    EXPECT_TRUE(support::eventually([&] {
        return support::read_file("/tmp/server") == greeting + "out\nerr\n";
    })) << support::read_file("/tmp/server");
    EXPECT_EQ(qelDRedirOutputToSocket("127.0.0.1", 9, "testd", IPC_CODE_REDIRECT_OUTPUT), -1);

    EXPECT_EQ(qelDExitRequest("testd", IPC_CODE_EXIT, 3), -22);
    EXPECT_EQ(ask(kSum, "abc", result), 294u);
    EXPECT_EQ(qelDExitRequest("testd", IPC_CODE_EXIT, QELD_EXIT_NORMAL), 0);
    EXPECT_EQ(daemon.ending(), 0);
    ask(kSum, "abc", result);
    EXPECT_EQ(result, -ENOENT);
    EXPECT_EQ(qelDExitRequest("testd", IPC_CODE_EXIT, QELD_EXIT_NORMAL), 0);  // nobody there
    EXPECT_EQ(pclose(server), 0);
    close(terminal);
}

TEST(Ipc, ManyRequestsBySharedMemoryLeaveNoSegment) {
    Daemon daemon("testd", serve_everything);
    int rounds = support::slow() ? 2000 : 10000, result = 0;
    for (int i = 0; i < rounds; ++i) {
        std::string data(2100 + static_cast<size_t>(i % 7000), static_cast<char>(i % 100));
        ASSERT_EQ(ask(kSum, data, result), data.size() * static_cast<size_t>(i % 100));
        ASSERT_EQ(result, 0);
    }
    EXPECT_EQ(support::segments(), 0);
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(system("ipcs -m | grep -c 0x"), 256); }), "0\n");
}

TEST(Ipc, PeersAnswerWellShortLateOrNever) {
    Daemon daemon("testd", serve_everything);
    ipc_address to = support::address_of("testd");
    qelIpcArg piece{&to, 4};
    qelIpcArgs args{&piece, 1};
    qelIpcArgBlock *block, *reply;
    ASSERT_EQ(qelIpcArgsEncode(&args, &block), 24);
    auto exchange = [&](int code, const uint32_t timeout[2]) {
        reply = block;
        int result = qelIpcSendRcv(&to, code, block, &reply, timeout);
        EXPECT_EQ(reply != nullptr && utils::load_be32(qelIpcArgsData(reply)) == 0xCAFEF00D,
                  result == 0);
        free(reply);
        return result;
    };
    EXPECT_EQ(exchange(kBlock, kLong), 0);
    EXPECT_EQ(exchange(kShort, kLong), -22);
    EXPECT_EQ(exchange(kNothing, kBrief), -ETIMEDOUT);
    EXPECT_EQ(exchange(kUnknown, kLong), -ECONNRESET);  // refused at once
    EXPECT_EQ(exchange(kDefer, kBrief), -ETIMEDOUT);
    EXPECT_EQ(exchange(kRelease, kLong), 0);  // the late answer reaches nobody
    std::atomic<bool> done{false};
    std::thread patient([&] {
        int result;
        uint32_t word = ask(kDefer, "x", result);
        EXPECT_EQ(utils::load_be32(&word), 1u);
        done = true;
    });
    EXPECT_TRUE(support::eventually([&] { return exchange(kRelease, kLong) == 0 && done; }));
    patient.join();

    int result;
    char raw[8] = "#######";
    uint32_t length = 4;
    EXPECT_EQ(qelIpcSendOne(&to, kShort, nullptr, 0, raw, &length, kLong),
              0);  // a longer answer is cut
    EXPECT_EQ(length, 4u);
    EXPECT_STREQ(raw, "0123###");
    length = sizeof raw;
    EXPECT_EQ(ipcSendRcv(&to, kIsNull, nullptr, 0, raw, &length, kLong), 0);
    EXPECT_EQ(raw[0] + raw[3], 1);
    ask(kNothing, "", result, kBrief);
    EXPECT_EQ(result, -ETIMEDOUT);
    to.name[0] = '/';
    EXPECT_EQ(exchange(kBlock, kLong), -EINVAL);
    to = support::address_of("nobody");
    EXPECT_EQ(exchange(kBlock, kLong), -ENOENT);
    free(block);
}

TEST(Ipc, DeadDaemonsGiveTheirRequestersAnErrorAndTheirNamesAway) {
    {
        Daemon first("testd", serve_everything);
        ASSERT_TRUE(first.ready());
        Daemon second("testd", serve_everything);
        EXPECT_FALSE(second.ready());
        EXPECT_EQ(WEXITSTATUS(second.ending()), EADDRINUSE);
        int result;
        ask(kDie, std::string(5000, 'x'), result);
        EXPECT_EQ(result, -ECONNRESET);
        EXPECT_EQ(WTERMSIG(first.ending()), SIGKILL);
        ask(kSum, "", result);
        EXPECT_EQ(result, -ECONNREFUSED);
        EXPECT_EQ(qelDExitRequest("testd", IPC_CODE_EXIT, 1), 0);
    }
    Daemon third("testd", serve_everything);
    int result;
    EXPECT_EQ(ask(kSum, "a", result), 97u);
    EXPECT_EQ(qelDExitRequest("testd", IPC_CODE_EXIT, QELD_EXIT_ABORT), 0);
    EXPECT_EQ(WTERMSIG(third.ending()), SIGABRT);
}

TEST(Ipc, SilentAndTalkativeConnectionsDoNotKeepOthersOut) {
    Daemon daemon("testd", serve_everything);
    ipc_address to = support::address_of("testd");
    sockaddr_un path{};
    path.sun_family = AF_UNIX;
    snprintf(path.sun_path, sizeof path.sun_path, "/run/korin/%u.%u.testd.ipc", to.node,
             to.switch_no);
    std::string packets[] = {"", "x", std::string(4 + IPC_REQUEST_MAX + 1, 'x')};
    for (int i = 0; i < 200; ++i) {
        int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&path), sizeof path), 0);
        const std::string &packet = packets[i % 3];
        ssize_t sent = packet.empty() ? 0 : send(fd, packet.data(), packet.size(), 0);
        EXPECT_EQ(sent, static_cast<ssize_t>(packet.size()));
        int result;
        ASSERT_EQ(ask(kSum, "a", result), 97u);
    }
}

TEST(Ipc, DaemonMayCloseAndOpenAgain) {
    ipc_address own = support::address_of("testd");
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(ipc_open(&own), 0);
        EXPECT_EQ(ipc_open(&own), -EALREADY);
        EXPECT_EQ(ipc_register(kSum, sum), 0);
        int result;
        EXPECT_EQ(ask(kSum, "a", result), 97u);
        EXPECT_EQ(support::in_child([&] { return ask(kSum, "b", result) == 98 ? 0 : 1; }).status,
                  0);
        EXPECT_EQ(ipc_unregister(kSum), 0);
        EXPECT_EQ(ipc_unregister(kSum), -ENOENT);
        ipc_close();
        ipc_close();
        ask(kSum, "a", result);
        EXPECT_EQ(result, -ENOENT);
    }
    for (int code = 0; code < IPC_HANDLERS_MAX; ++code)
        EXPECT_EQ(ipc_register(code, sum), 0);
    EXPECT_EQ(ipc_register(0, sum), 0);
    EXPECT_EQ(ipc_register(IPC_HANDLERS_MAX, sum), -ENOSPC);
}

}  // namespace

#include "utils/daemon_ctl.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "platform/ipc.h"
#include "support/heap.h"
#include "support/wire.h"
#include "utils/identity.h"
#include "utils/ipc_args.h"

namespace {

using support::words;

struct {
    std::string request;
    ipc_address address;
    int sent = 0;
    int result = 0;
    int32_t answer = 0;
} exchange;
int32_t replied;
int reply_result = 0;

}  // namespace

uint16_t myNode(void) {
    return 5;
}
int getMySwitch(void) {
    return 3;
}

int ipcSendRcv(void *address, int code, const void *request, uint32_t length, void *reply,
               uint32_t *reply_length, const uint32_t timeout[2]) {
    EXPECT_EQ(code, IPC_CODE_REDIRECT_OUTPUT);
    EXPECT_EQ(*reply_length, 4u);
    EXPECT_TRUE(timeout[0] == 20 && timeout[1] == 0);
    exchange.address = *static_cast<ipc_address *>(address);
    exchange.request.assign(static_cast<const char *>(request), length);
    ++exchange.sent;
    if (exchange.result == 0)
        memcpy(reply, &exchange.answer, 4);
    return exchange.result;
}

int ipcSend(void *address, int code, const void *data, uint32_t length, const uint32_t timeout[2]) {
    EXPECT_EQ(address, &exchange);
    EXPECT_EQ(code, 8);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(timeout[0], 20u);
    memcpy(&replied, data, 4);
    return reply_result;
}

namespace {

// The message as a handler gets it: the platform's word and the block in zeroed memory.
std::string message(const std::string &block) {
    std::string bytes = support::word(0xDDDDDDDD) + block;
    bytes.resize(4 + IPC_MESSAGE_SIZE);
    return bytes;
}

int32_t status_of(int (*handler)(void *, int, void *), std::string bytes) {
    replied = 12345;
    EXPECT_EQ(handler(&exchange, 8, bytes.data()), reply_result);
    return replied;
}

TEST(DaemonCtl, RequestsHaveTheirFormatAndReturnTheAnswer) {
    exchange = {};
    exchange.answer = -11;
    auto payload = [] { return exchange.request.substr(20); };
    EXPECT_EQ(qelDRedirectOutput("/tmp/xyz", "portd", IPC_CODE_REDIRECT_OUTPUT), -11);
    EXPECT_EQ(payload(), words({1, 16, 9, 0}) + std::string("/tmp/xyz\0\0\0\0", 12));
    EXPECT_EQ(exchange.address.node, 5);
    EXPECT_EQ(exchange.address.switch_no, 3);
    EXPECT_STREQ(exchange.address.name, "portd");
    EXPECT_EQ(qelDRedirOutputToSocket("10.0.0.1", 2301, "portd", IPC_CODE_REDIRECT_OUTPUT), -11);
    EXPECT_EQ(payload(), words({2, 16, 9, 2301}) + std::string("10.0.0.1\0\0\0\0", 12));
    EXPECT_EQ(qelDExitRequest(std::string(100, 'n').c_str(), IPC_CODE_REDIRECT_OUTPUT, 2), -11);
    EXPECT_EQ(payload(), words({2}));
    EXPECT_EQ(exchange.address.name, std::string(IPC_NAME_SIZE - 1, 'n'));
    exchange.result = -110;
    EXPECT_EQ(qelDExitRequest("portd", IPC_CODE_REDIRECT_OUTPUT, 1), 0);
    exchange.sent = 0;
    EXPECT_EQ(qelDRedirectOutput(nullptr, "portd", 1), -22);
    EXPECT_EQ(qelDRedirectOutput("/tmp/x", nullptr, 1), -22);
    EXPECT_EQ(qelDRedirOutputToSocket(nullptr, 1, "portd", 1), -22);
    EXPECT_EQ(qelDExitRequest(nullptr, 1, 1), -22);
    support::refuse_after = 0;
    int refused = qelDRedirectOutput("/tmp/x", "portd", 1);
    support::refuse_after = -1;
    EXPECT_EQ(refused, -12);
    EXPECT_EQ(exchange.sent, 0);
}

TEST(DaemonCtl, HandlersAnswerWhatTheyGetAndTrustNothing) {
    auto redirect = [](const std::string &payload) {
        return status_of(ipcCbQelDRedirectOutput, message(support::inline_block(payload)));
    };
    auto text = [](uint32_t offset, uint32_t length, uint32_t kind = 1) {
        return words({kind, offset, length, 0}) + std::string("/no/such/path\0\0\0", 16);
    };
    struct {
        std::string payload;
        int32_t status;
    } cases[] = {
        {text(16, 14), 0},  // cannot be opened, which is no error
        {text(16, 0), 0},
        {text(16, 0, 2), -1},
        {text(16, 14, 3), -22},
        {text(16, 13), -22},  // no NUL at its end
        {text(16, 17), -22},
        {text(33, 1), -22},
        {text(0xFFFFFFF0, 0x20), -22},
        {words({1, 16, 0}), -22},
        {"", -22},
    };
    for (auto &[payload, status] : cases)
        EXPECT_EQ(redirect(payload), status) << payload.size();
    reply_result = -107;
    for (auto handler : {ipcCbQelDRedirectOutput, ipcCbQelDExitHandler}) {
        replied = 0;
        EXPECT_EQ(handler(&exchange, 8, nullptr), -107);
        EXPECT_EQ(replied, -6);
        EXPECT_EQ(status_of(handler, message(words({9, 0, 0, 20, 4, 1}))), -11);
        EXPECT_EQ(status_of(handler, message(words({0, 0, 0, 20, 4, 1}))), -22);
        // "Decoded" and an address, both the sender's words.
        EXPECT_EQ(status_of(handler, message(words({5, 0x7FFF, 0xFFFFFFF0, 20, 0}))), -22);
    }
    reply_result = 0;
    for (uint32_t mode : {0u, 3u, 0x80000001u})
        EXPECT_EQ(status_of(ipcCbQelDExitHandler, message(support::inline_block(words({mode})))),
                  -22);
}

TEST(DaemonCtl, ExitHandlerAnswersBeforeItEndsTheProcess) {
    for (uint32_t mode : {1u, 2u}) {
        auto ending = support::in_child([mode] {
            atexit([] { EXPECT_EQ(replied, 0); });
            status_of(ipcCbQelDExitHandler, message(support::inline_block(words({mode}))));
            return 77;
        });
        EXPECT_EQ(ending.exited, mode == 1);
        EXPECT_EQ(ending.status, mode == 1 ? 0 : SIGABRT);
    }
}

// From 2008 characters on the request travels by shared memory; the handler removes the segment.
TEST(DaemonCtl, LongPathsTravelBySharedMemory) {
    for (size_t length : {2007u, 2008u, 5000u, 20000u}) {
        exchange = {};
        std::string path = "/tmp/" + std::string(length - 5, '/');
        EXPECT_EQ(qelDRedirectOutput(path.c_str(), "portd", IPC_CODE_REDIRECT_OUTPUT), 0);
        EXPECT_EQ(exchange.request.size(), length == 2007 ? 2044u : 28u);
        EXPECT_EQ(support::segments(), length == 2007 ? 0 : 1);
        EXPECT_EQ(status_of(ipcCbQelDRedirectOutput, message(exchange.request)), 0);
        EXPECT_EQ(support::segments(), 0);
    }
}

int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 64; ++fd)
        count += fcntl(fd, F_GETFD) != -1;
    return count;
}

// Writes through a fresh redirection, with one descriptor closed before; which step failed, or 0.
int write_redirected(int closed) {
    int before = open_descriptors();
    close(closed);
    if (qelDRedirectOutput_impl("/tmp/output") != 0)
        return 1;
    if ((fcntl(1, F_GETFL) & O_NONBLOCK) == 0 || fcntl(1, F_GETFD) != 0 ||
        open_descriptors() != before)
        return 2;
    return write(1, "out\n", 4) == 4 && write(2, "err\n", 4) == 4 ? 0 : 3;
}

TEST(DaemonCtl, RedirectionAppendsAndNeverBlocks) {
    for (int closed : {-1, 1, 2}) {
        unlink("/tmp/output");
        umask(022);
        for (int round = 0; round < 2; ++round)
            EXPECT_EQ(support::in_child([closed] { return write_redirected(closed); }).status, 0)
                << closed;
        EXPECT_EQ(support::read_file("/tmp/output"), "out\nerr\nout\nerr\n");
        struct stat file;
        ASSERT_EQ(stat("/tmp/output", &file), 0);
        EXPECT_EQ(file.st_mode & 07777, 0644u);
    }
    EXPECT_EQ(qelDRedirectOutput_impl(nullptr), 0);
    EXPECT_EQ(qelDRedirOutputToSocket_impl(nullptr, 1), -1);
    EXPECT_EQ(qelDRedirOutputToSocket_impl("127.0.0.1", 0), -1);
    EXPECT_EQ(
        support::captured(2, [] { EXPECT_EQ(qelDRedirOutputToSocket_impl("127.0.0.1", 9), -1); }),
        "sw3: failed to connect to server(127.0.0.1)\n");
    EXPECT_EQ(support::in_child([] {
                  rlimit none{4, 4};
                  setrlimit(RLIMIT_NOFILE, &none);
                  while (dup(2) >= 0) {
                  }
                  return qelDRedirOutputToSocket_impl("127.0.0.1", 9) == -1 ? 0 : 1;
              }).err,
              "sw3: failed to create stream socket\n");
}

}  // namespace

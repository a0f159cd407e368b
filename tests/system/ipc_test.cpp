// SPDX-License-Identifier: Apache-2.0
// Requesters and daemons as separate processes: argument blocks, redirection and exit, with real
// files, terminals and servers, and whatever arrives: the daemon goes on serving, and at the end it
// exits without a complaint of the sanitizers.
#include <sys/shm.h>

#include "testd.h"

namespace {

using namespace support;

TEST(Ipc, RequestsHaveTheirFormatAndHandlersTrustNothing) {
    support::leaves({.descriptors = 1});  // the kept connection
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
    auto redirect_all = [] { return qelDRedirectOutput("/tmp/x", "testd", kRecord); };
    EXPECT_EQ(support::without_memory(redirect_all), -12);
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
    FILE *server = popen("exec nc -l -s 127.0.0.1 -p 2301 </dev/null >/tmp/server", "r");
    EXPECT_TRUE(eventually(
        [] { return qelDRedirOutputToSocket("127.0.0.1", 2301, "testd", kRedirect) == 0; }));
    EXPECT_EQ(ask(kPoke, ""), kPoked);
    std::string sw = "sw" + std::to_string(getMySwitch()) + ": ";
    std::string expected = "\nINFO+++ " + sw + "pid(" + std::to_string(daemon.pid()) +
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
                int before = utils_testing_open_descriptors();
                close(closed);
                return qelDRedirectOutput_impl("/tmp/output") != 0 ||
                       (fcntl(1, F_GETFL) & O_NONBLOCK) == 0 || fcntl(1, F_GETFD) != 0 ||
                       utils_testing_open_descriptors() != before ||
                       write(1, "rotated\n", 8) != 8 || truncate("/tmp/output", round * 8) != 0 ||
                       write(1, "out\n", 4) + write(2, "err\n", 4) != 8;
            });
            EXPECT_EQ(ending.status, 0) << closed;
        }
        EXPECT_EQ(support::read_file("/tmp/output"), "out\nerr\nout\nerr\n");
    }
}

TEST(Ipc, ManyRequestsBySharedMemoryLeaveNoSegment) {
    support::leaves({.descriptors = 1});  // the kept connection
    Daemon daemon;
    for (int i = 0; i < (slow() ? 2000 : 10000); ++i) {
        std::string data(2100 + static_cast<size_t>(i % 7000), static_cast<char>(i % 100));
        data.resize(data.size() / 4 * 4);
        ASSERT_EQ(ask(kSum, data), (Answer{0, static_cast<int32_t>(data.size()) * (i % 100)}));
    }
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(system("ipcs -m | grep -c 0x"), 256); }), "0\n");
}

TEST(Ipc, TruncatedInputLeavesTheDaemonServing) {
    support::leaves({.descriptors = 64});  // senders that stall, to the end
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
    EXPECT_EQ(support::segments(), segments);
    EXPECT_EQ(send_command(support::command_message({"ab", "c"})), "2 1 2");
    EXPECT_EQ(ask(kSum, "abc"), (Answer{0, 294}));
    EXPECT_EQ(ask(kExit, words({QELD_EXIT_NORMAL})), (Answer{0, 0}));
    EXPECT_EQ(daemon.ending(), 0);
}

}  // namespace

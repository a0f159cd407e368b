// SPDX-License-Identifier: Apache-2.0
// Peers of connections, locks of whole files, and pid files.
#include "utils/ppname.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include "support/support.h"

namespace {

TEST(PpName, ReadsTheInodeOutOfTheLinksMiddle) {
    std::pair<const char *, long> cases[] = {
        {"/tmp/abc4711]", 4711}, {"/tmp/abc0x10]", 16}, {"/tmp/abc010]", 8},
        {"/dev/null", 0},        {"/tmp/words", 0},     {"/tmp/1", -1},
    };
    for (auto &row : cases) {
        EXPECT_TRUE(support::passes_in_child([&] {
            auto [path, inode] = row;
            dup2(open(path, O_RDWR | O_CREAT, 0600), 0);
            EXPECT_EQ(ppnameGetInode(getpid()), inode);
            char text[16] = "unchanged";
            EXPECT_EQ(ppnamePeerAddr(getpid(), sizeof text, text), -1);
            utils_testing_fail_call("fopen", 1, EACCES, 1);
            EXPECT_EQ(ppnamePeerAddr(getpid(), sizeof text, text), -1);
            EXPECT_STREQ(text, "unchanged");
        })) << row.first;
    }
    EXPECT_EQ(ppnameGetInode(999999), -1);
}

TEST(PpName, FindsTheAddressOfARealConnection) {
    // Under the emulator the table is the host's, with its byte order.
    bool swapped = support::emulated() && htons(1) == 1;
    const char *expected = swapped ? "8.9.0.127" : "127.0.9.8";
    sockaddr_in name{AF_INET, 0, {INADDR_ANY}, {}};  // the listener has a line of its own
    socklen_t size = sizeof name;
    auto *address = reinterpret_cast<sockaddr *>(&name);
    int listener = socket(AF_INET, SOCK_STREAM, 0), client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, address, size), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    getsockname(listener, address, &size);
    name.sin_addr.s_addr = inet_addr("127.0.9.8");
    ASSERT_EQ(connect(client, address, size), 0);
    int accepted = accept(listener, nullptr, nullptr);
    EXPECT_TRUE(support::passes_in_child([&] {
        dup2(accepted, 0);
        pid_t daemon = getpid();
        EXPECT_TRUE(support::passes_in_child([&] {
            char text[16] = "###############";
            EXPECT_EQ(ppnamePeerAddr(daemon, 5, text), 0);
            EXPECT_EQ(std::string(text, 6), std::string(expected, 5) + "#");
            EXPECT_EQ(ppnamePeerAddr(daemon, sizeof text, text), 0);
            EXPECT_STREQ(text, expected);
            EXPECT_EQ(ppnamePeerAddr(daemon, -1, text), -1);
            EXPECT_EQ(ppnamePeerAddr(daemon, 5, nullptr), -1);
        }));
    }));
    for (int fd : {listener, client, accepted})
        close(fd);
}

TEST(PpName, LocksWholeFilesAgainstOtherProcesses) {
    support::write_file("/tmp/lock", "");
    int fd = open("/tmp/lock", O_RDWR);
    auto other = [&](int mode) {
        return support::in_child([&] { return fileLock(fd, mode) == 0 ? 0 : errno; }).status;
    };
    EXPECT_EQ(fileLock(fd, FILE_LOCK_READ_TRY), 0);
    EXPECT_EQ(other(FILE_LOCK_READ_TRY), 0);
    EXPECT_EQ(other(FILE_LOCK_WRITE_TRY), EAGAIN);
    EXPECT_EQ(fileLock(fd, FILE_LOCK_WRITE), 0);
    EXPECT_EQ(other(FILE_LOCK_READ_TRY), EAGAIN);
    EXPECT_EQ(fileUnlock(fd), 0);
    EXPECT_EQ(other(FILE_LOCK_WRITE_TRY), 0);
    EXPECT_EQ(fileLock(fd, 3), -1);
    close(fd);
}

TEST(PpName, WritesThePidFileForOthersAndFollowsNoLink) {
    support::write_file("/var/run/nsd.0.pid", "a much longer text than a pid\n");
    utils_testing_fail_call("write", 1, EINTR, 2);
    EXPECT_EQ(stor_pid("nsd", 0), 0);
    EXPECT_EQ(support::captured(1, [] { ASSERT_EQ(system("cat /var/run/nsd.0.pid"), 0); }),
              std::to_string(getpid()) + "\n");
    support::write_file("/tmp/victim", "precious");
    ASSERT_EQ(symlink("/tmp/victim", "/var/run/trap.0.pid"), 0);
    std::pair<std::string, const char *> cases[] = {
        {"trap", "opening the pid file: Too many levels of symbolic links\n"},
        {"no/such/place", "opening the pid file: No such file or directory\n"},
        {std::string(5000, 'n'), "opening the pid file: File name too long\n"},
        {"full", ""},  // no file may grow, nor may the one that captures
    };
    signal(SIGXFSZ, SIG_IGN);
    for (auto &[name, message] : cases) {
        auto ending = support::in_child([&, path = name.c_str()] {
            rlimit none{0, 0};
            return path[0] == 'f' ? setrlimit(RLIMIT_FSIZE, &none) : 0, stor_pid(path, 0);
        });
        EXPECT_EQ(ending.status, 255);
        EXPECT_EQ(ending.err, message);
    }
    EXPECT_EQ(support::read_file("/tmp/victim"), "precious");
}

}  // namespace

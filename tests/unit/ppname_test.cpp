#include "utils/ppname.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "support/support.h"

namespace {

std::string link_text;  // stands for the link of descriptor 0 when not empty
std::string table;      // stands for the TCP table when not empty
bool fail_write;

}  // namespace

// What the library calls under the flags of this build: fopen64.
extern "C" FILE *fopen(const char *path, const char *mode) {
    using Open = FILE *(*)(const char *, const char *);
    if (strcmp(path, "/proc/net/tcp") == 0 && !table.empty())
        return table == "none" ? nullptr : fmemopen(table.data(), table.size(), "r");
    return reinterpret_cast<Open>(dlsym(RTLD_NEXT, "fopen64"))(path, mode);
}

// Under its own name the fortified header has one already.
extern "C" ssize_t fake_readlink(const char *path, char *buffer, size_t size) __asm__("readlink");
ssize_t fake_readlink(const char *path, char *buffer, size_t size) {
    using Readlink = ssize_t (*)(const char *, char *, size_t);
    if (link_text.empty())
        return reinterpret_cast<Readlink>(dlsym(RTLD_NEXT, "readlink"))(path, buffer, size);
    EXPECT_STREQ(path, "/proc/4711/fd/0");
    size_t length = std::min(size, link_text.size());
    memcpy(buffer, link_text.data(), length);
    return static_cast<ssize_t>(length);
}

extern "C" ssize_t write(int fd, const void *data, size_t size) {
    using Write = ssize_t (*)(int, const void *, size_t);
    errno = ENOSPC;
    return fail_write ? -1 : reinterpret_cast<Write>(dlsym(RTLD_NEXT, "write"))(fd, data, size);
}

namespace {

TEST(PpName, ReadsTheInodeOutOfTheLinksMiddle) {
    struct {
        std::string link;
        long inode;
    } cases[] = {{"socket:[4711]", 4711}, {"/dev/pts/0", 0},
                 {"socket:[0x10]", 16},   {"socket:[010]", 8},
                 {"/dev/tty", -1},        {"socket:[]", 0},
                 {"/some/long/path", 0},  {std::string(600, '7'), 0x7fffffff}};
    for (auto &[link, inode] : cases) {
        link_text = link;
        long found = ppnameGetInode(4711);
        EXPECT_EQ(link.size() > 511 ? std::min(found, inode) : found, inode) << link;
    }
    link_text.clear();
    EXPECT_EQ(ppnameGetInode(999999), -1);
}

// Columns as the kernel writes them; the address is the word of a machine of this byte order.
TEST(PpName, FindsTheAddressInTheTable) {
    char address[9];
    snprintf(address, sizeof address, "%08X", static_cast<unsigned>(inet_addr("10.20.30.40")));
    std::string rest =
        ":1F90 0100007F:0016 01 00000000:00000000 00:00000000 00000000     0        0 ";
    std::string header = "  sl  local_address rem_address   st\n";
    std::string line = "   1: " + std::string(address) + rest + "4711 1 0000 20 4 30 10 -1\n";
    std::string other = "   0: 0100007F" + rest + "4710 1 0000 20 4 30 10 -1\n";
    std::string later = "   2: 01020304" + rest + "4711 1 0000\n";
    link_text = "socket:[4711]";
    char text[20] = "unchanged";
    table = "none";
    EXPECT_EQ(ppnamePeerAddr(4711, sizeof text, text), -1);
    table = line + other;  // the first line is the header, whatever it says
    EXPECT_EQ(ppnamePeerAddr(4711, sizeof text, text), -1);
    table = header + other + "   1: " + address + ":1F90 0100007F:0016 01 4711\ngarbage\n";
    EXPECT_EQ(ppnamePeerAddr(4711, sizeof text, text), -1);
    EXPECT_EQ(ppnamePeerAddr(4711, -1, text), -1);
    EXPECT_STREQ(text, "unchanged");
    table = header + other + std::string(9000, 'x') + "\n" + line + later;
    EXPECT_EQ(ppnamePeerAddr(4711, sizeof text, text), 0);
    EXPECT_STREQ(text, "10.20.30.40");
    memset(text, '#', sizeof text);
    EXPECT_EQ(ppnamePeerAddr(4711, 5, text), 0);
    EXPECT_EQ(std::string(text, 6), "10.20#");
    link_text = "-";
    EXPECT_EQ(ppnamePeerAddr(4711, sizeof text, text), -1);
    link_text.clear();
    table.clear();
}

TEST(PpName, FindsTheAddressOfARealConnection) {
    if (support::emulated())
        GTEST_SKIP() << "the table shows the host's byte order here";
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = inet_addr("127.0.9.8");
    socklen_t size = sizeof name;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&name), size), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    getsockname(listener, reinterpret_cast<sockaddr *>(&name), &size);
    int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr *>(&name), size), 0);
    int accepted = accept(listener, nullptr, nullptr);
    pid_t child = fork();
    if (child == 0) {
        dup2(accepted, 0);
        send(accepted, "r", 1, 0);
        pause();
        _exit(0);
    }
    char byte, text[16];
    ASSERT_EQ(recv(client, &byte, 1, 0), 1);
    EXPECT_EQ(ppnamePeerAddr(child, sizeof text, text), 0);
    EXPECT_STREQ(text, "127.0.9.8");
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
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
    EXPECT_EQ(fileLock(fd, -1), -1);
    close(fd);
}

TEST(PpName, WritesThePidFileForOthersAndFollowsNoLink) {
    std::string mine = std::to_string(getpid()) + "\n";
    support::write_file("/var/run/nsd.0.pid", "a much longer text than a pid\n");
    EXPECT_EQ(stor_pid("nsd", 0), 0);
    EXPECT_EQ(support::captured(1, [] { ASSERT_EQ(system("cat /var/run/nsd.0.pid"), 0); }), mine);
    support::write_file("/tmp/victim", "precious");
    ASSERT_EQ(symlink("/tmp/victim", "/var/run/trap.0.pid"), 0);
    struct {
        std::string name, message;
    } cases[] = {{"trap", "opening the pid file: Too many levels of symbolic links\n"},
                 {"no/such/place", "opening the pid file: No such file or directory\n"},
                 {std::string(5000, 'n'), "opening the pid file: File name too long\n"}};
    for (auto &c : cases)
        EXPECT_EQ(support::captured(2, [&] { EXPECT_EQ(stor_pid(c.name.c_str(), 0), -1); }),
                  c.message);
    EXPECT_EQ(support::read_file("/tmp/victim"), "precious");
    EXPECT_EQ(support::in_child([] {
                  fail_write = true;
                  int result = stor_pid("nsd", 1);
                  fail_write = false;
                  return result == -1 ? 0 : 1;
              }).status,
              0);
}

}  // namespace

// Hostile input against a real daemon: it serves argument blocks and redirect requests through the
// IPC stand-in, and commands on a socket of its own with a time limit. Whatever arrives, it goes on
// serving, and at the end it exits without a complaint of the sanitizers.
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cstring>
#include <random>
#include <thread>

#include "support/daemon.h"
#include "support/wire.h"
#include "utils/daemon_ctl.h"
#include "utils/ipc_args.h"
#include "utils/tnet_cmd.h"

namespace {

enum Code { kSum = 1 };

sockaddr_un path_of(const std::string &path) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    memcpy(name.sun_path, path.c_str(), path.size() + 1);
    return name;
}

int connected(int type, const std::string &path) {
    sockaddr_un name = path_of(path);
    int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    while (connect(fd, reinterpret_cast<sockaddr *>(&name), sizeof name) != 0) {
        if (errno != EAGAIN) {
            close(fd);
            return -1;
        }
    }
    return fd;
}

std::string ipc_path() {
    ipc_address own = support::address_of("target");
    return "/run/korin/" + std::to_string(own.node) + "." + std::to_string(own.switch_no) +
           ".target.ipc";
}
const char kCommandPath[] = "/run/korin/target.0.cmd";

// Touches every byte that the block claims.
int sum(void *reply, int code, void *message) {
    auto *block = reinterpret_cast<qelIpcArgBlock *>(static_cast<char *>(message) + 4);
    qelIpcArgsReceived(block);
    int32_t total = qelIpcArgsDecode(block);
    if (total == 0) {
        auto *bytes = static_cast<unsigned char *>(qelIpcArgsData(block));
        for (uint32_t i = 0; i < qelIpcArgsDataLength(block); ++i)
            total += bytes[i];
        qelIpcArgsDestroy(block);
    }
    return ipcSend(reply, code, &total, sizeof total, nullptr);
}

int measure(int argc, char **argv, FILE *out) {
    size_t length = 0;
    for (int i = 0; i < argc; ++i)
        length += strlen(argv[i]);
    fprintf(out, "%d %zu", argc, length + (argv[argc] != nullptr));
    return 0;
}

void serve() {
    ipc_register(kSum, sum);
    ipc_register(IPC_CODE_REDIRECT_OUTPUT, ipcCbQelDRedirectOutput);
    ipc_register(IPC_CODE_EXIT, ipcCbQelDExitHandler);
    dup2(open("/dev/null", O_WRONLY), 1);
    unlink(kCommandPath);
    sockaddr_un name = path_of(kCommandPath);
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<sockaddr *>(&name), sizeof name) != 0 ||
        listen(listener, 128) != 0)
        _exit(99);
    std::thread([listener] {
        for (;;) {
            int fd = accept(listener, nullptr, nullptr);
            std::thread([fd] {
                timeval limit{5, 0};
                setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
                setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
                qelTnetCmdCB(fd, measure);
                close(fd);
            }).detach();
        }
    }).detach();
}

class Mutator {
  public:
    explicit Mutator(unsigned seed) : random_(seed) {}

    std::string operator()(std::string bytes) {
        static const uint32_t kWords[] = {0,  1,          2,          4,          7,         8,
                                          20, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, 0xFFFFFFFF};
        for (size_t n = 1 + below(4); n > 0 && !bytes.empty(); --n) {
            size_t at = below(bytes.size());
            switch (below(5)) {
                case 0:
                    bytes[at] = static_cast<char>(bytes[at] ^ 1 << below(8));
                    break;
                case 1:
                    bytes[at] = static_cast<char>(random_());
                    break;
                case 2:
                    bytes.replace(at / 4 * 4, 4, support::word(kWords[below(std::size(kWords))]));
                    break;
                case 3:
                    bytes.resize(at);
                    break;
                default:
                    bytes.insert(at, bytes.substr(0, below(64)));
            }
        }
        return bytes;
    }
    size_t below(size_t limit) { return random_() % limit; }

  private:
    std::mt19937 random_;
};

class Target : public support::Daemon {
  public:
    Target() : Daemon("target", serve) { expect_serving(); }

    // One packet on a connection that is kept as long as the daemon keeps it; the answer's status.
    int32_t send_block(int code, const std::string &block) {
        std::string packet = support::word(static_cast<uint32_t>(code)) + block;
        packet.resize(std::min(packet.size(), size_t{4 + IPC_REQUEST_MAX}));
        char answer[64];
        ssize_t n = -1;
        for (int attempt = 0; attempt < 2 && n < 8; ++attempt) {
            if (ipc_ < 0)
                ipc_ = connected(SOCK_SEQPACKET, ipc_path());
            n = send(ipc_, packet.data(), packet.size(), MSG_NOSIGNAL);
            n = n < 0 ? n : recv(ipc_, answer, sizeof answer, 0);
            if (n < 8) {
                close(ipc_);
                ipc_ = -1;
            }
        }
        EXPECT_EQ(n, 8);
        int32_t status;
        memcpy(&status, answer + 4, sizeof status);
        return status;
    }

    static std::string send_command(const std::string &message) {
        int fd = connected(SOCK_STREAM, kCommandPath);
        send(fd, message.data(), message.size(), MSG_NOSIGNAL);
        shutdown(fd, SHUT_WR);
        std::string answer;
        char part[256];
        for (ssize_t n; (n = recv(fd, part, sizeof part, 0)) > 0;)
            answer.append(part, static_cast<size_t>(n));
        close(fd);
        return answer;
    }

    void expect_serving() {
        EXPECT_EQ(send_block(kSum, support::inline_block("abcd")), 'a' + 'b' + 'c' + 'd');
        EXPECT_EQ(send_command(support::command_message({"ab", "c"})), "2 3");
    }

    void expect_clean_end() {
        expect_serving();
        EXPECT_EQ(qelDExitRequest("target", IPC_CODE_EXIT, QELD_EXIT_NORMAL), 0);
        EXPECT_EQ(ending(), 0);
    }

  private:
    int ipc_ = -1;
};

// Of the 100,000 each kind gets a third; under the emulator and the thread sanitizer there are
// fewer.
int mutations() {
    return support::slow() ? 2000 : 33334;
}

TEST(Hostile, TruncatedAndMutatedCommandsLeaveTheDaemonServing) {
    Target daemon;
    std::string valid = support::command_message({"portshow", "-s", "12", "", "slot/7"});
    for (size_t length = 0; length < valid.size(); ++length)
        ASSERT_EQ(Target::send_command(valid.substr(0, length)), "") << length;
    // Senders that stall in the middle of a message hold up nobody.
    std::vector<int> stalled;
    for (size_t length = 0; length < valid.size(); length += 3) {
        stalled.push_back(connected(SOCK_STREAM, kCommandPath));
        ASSERT_EQ(send(stalled.back(), valid.data(), length, 0), static_cast<ssize_t>(length));
    }
    Mutator mutate(1);
    for (int i = 0; i < mutations(); ++i)
        Target::send_command(mutate(valid));
    daemon.expect_clean_end();
    for (int fd : stalled)
        close(fd);
}

TEST(Hostile, TruncatedAndMutatedBlocksLeaveTheDaemonServing) {
    Target daemon;
    Mutator mutate(2);
    auto in_segment = [](const std::string &payload) {
        int id = shmget(IPC_PRIVATE, payload.size(), IPC_CREAT | 0600);
        void *at = shmat(id, nullptr, 0);
        memcpy(at, payload.data(), payload.size());
        shmdt(at);
        return support::words(
            {2, 0, 0, 20, 8, static_cast<uint32_t>(id), static_cast<uint32_t>(payload.size())});
    };
    std::string blocks[] = {support::inline_block(std::string(2024, 'x')),
                            support::inline_block("abcdefgh"),
                            support::words({5, 0x7FFF, 0x12345678, 20, 4, 0})};
    for (const std::string &valid : blocks) {
        for (size_t length = 1; length<valid.size(); length += valid.size()> 100 ? 7 : 1)
            daemon.send_block(kSum, valid.substr(0, length));
    }
    for (int i = 0; i < mutations(); ++i) {
        bool segment = i % 50 == 0;
        std::string valid = segment ? in_segment(std::string(3000, 's')) : blocks[i % 3];
        std::string sent = mutate(valid);
        daemon.send_block(kSum, sent.empty() ? "x" : sent);
        if (segment)
            shmctl(static_cast<int>(support::word_at(valid, 20)), IPC_RMID, nullptr);
    }
    EXPECT_EQ(support::segments(), 0);
    daemon.expect_clean_end();
}

TEST(Hostile, TruncatedAndMutatedRedirectsLeaveTheDaemonServing) {
    Target daemon;
    Mutator mutate(3);
    std::string payloads[] = {support::redirect_payload(1, "/no/such/place", 0),
                              support::redirect_payload(2, "127.0.0.1", 9)};
    for (const std::string &valid : payloads) {
        for (size_t length = 1; length < valid.size(); ++length) {
            int32_t status = daemon.send_block(IPC_CODE_REDIRECT_OUTPUT,
                                               support::inline_block(valid.substr(0, length)));
            EXPECT_EQ(status == -22, length < 16 + support::word_at(valid, 8)) << length;
        }
        for (int i = 0; i < mutations() / 2; ++i) {
            std::string payload = mutate(valid);
            std::string block = support::inline_block(payload);
            daemon.send_block(IPC_CODE_REDIRECT_OUTPUT, i % 4 == 0 ? mutate(block) + "x" : block);
        }
    }
    daemon.expect_clean_end();
}

}  // namespace

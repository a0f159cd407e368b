// SPDX-License-Identifier: Apache-2.0
// libutils-daemon from the inside: the loop, requests, commands and the ends of a daemon, each in a
// process of its own.
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <set>
#include <vector>

#include "testd.h"
#include "utils/daemon.h"

namespace {

bool stranger = false;  // whether peers are another user's
const daemon_table *running = nullptr;

using namespace support;

[[maybe_unused]] const bool faked = [] {
    replace_call("getsockopt", [](int fd, int level, int name, void *value, socklen_t *size) {
        int result = getsockopt(fd, level, name, value, size);
        if (result == 0 && stranger && name == SO_PEERCRED)
            static_cast<ucred *>(value)->uid = 4711;
        return result;
    });
    return true;
}();

int run(const daemon_table &table, std::vector<std::string> words = {}) {
    std::string program = "test";
    std::vector<char *> argv = {program.data()};
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    running = &table;
    return daemon_run(&table, static_cast<int>(argv.size()) - 1, argv.data());
}

// What 40 descriptors, a full queue and deferred calls have come to.
struct Seen {
    int ends[40][2];
    std::set<int> served;
    int messages, refused, deferred, alien;
    pthread_t loop;
} seen;

void stop_when_seen() {
    if (seen.served.size() >= 39 && seen.deferred == 1 && seen.messages == 5)
        daemon_stop(7);
}

void on_pipe(int fd, uint32_t events, void *argument) {
    auto *pipe = static_cast<int *>(argument);
    char byte;
    seen.alien += fd != pipe[0] || (events & DAEMON_READABLE) == 0 ||
                  pthread_equal(seen.loop, pthread_self()) == 0;
    if (read(fd, &byte, 1) == 1)
        seen.served.insert(fd);
    else
        daemon_unwatch(fd), close(fd);
    // A descriptor that was taken out in the same round is not served any more.
    if (fd == seen.ends[0][0])
        daemon_unwatch(seen.ends[39][0]);
    stop_when_seen();
}

TEST(Daemon, LoopServesAnyNumberOfDescriptorsBesideAFullQueue) {
    daemon_table table{};
    table.name = "looped";
    table.queue_depth = 4;
    table.start = [](void *) {
        seen.loop = pthread_self();
        for (auto &end : seen.ends)
            if (pipe2(end, O_CLOEXEC) != 0 || daemon_watch(end[0], DAEMON_READABLE, on_pipe, end))
                return 9;
        const char message[TIMER_MESSAGE_LENGTH] = {77};
        for (int i = 0; i < 10; ++i)
            seen.refused += msgQSend(daemon_queue(), message, sizeof message) != 0;
        for (auto &end : seen.ends)
            if (write(end[1], "x", 1) != 1)
                return 9;
        std::thread([] {
            daemon_defer(
                [](void *) {
                    ++seen.deferred;
                    seen.alien += pthread_equal(seen.loop, pthread_self()) == 0;
                    close(seen.ends[5][1]);  // the next event comes to an empty queue
                },
                nullptr);
        }).join();
        return 0;
    };
    table.message = [](const void *message, void *) {
        seen.messages += *static_cast<const char *>(message) == 77;
        stop_when_seen();
    };
    table.stop = [](void *) {
        // The companion's own wakes have taken no place and were never refused.
        printf("%d %d %d %d %d\n", seen.messages, seen.refused, seen.alien,
               static_cast<int>(daemon_queue()->missCount), seen.deferred);
        printf("%d %d\n",
               daemon_watch(open("/dev/null", O_RDONLY | O_CLOEXEC), 8, on_pipe, nullptr),
               daemon_defer([](void *) {}, nullptr));
    };
    Ending ending = in_child([&] { return run(table); });
    EXPECT_EQ(ending.status, 7) << ending.err;
    EXPECT_THAT(ending.out, testing::HasSubstr("5 5 0 5 1\n-22 -11\n"));
}

TEST(Daemon, WrongCommandLinesAndRefusalsEndWithTheirStatus) {
    static const struct {
        std::vector<std::string> words;
        int status;
        const char *text;
    } kCases[] = {{{"-s", "241"}, 2, "usage: test [-s SWITCH] [-n NAME] [-x N]\n"},
                  {{"-n", "a.b"}, 2, "usage: "},
                  {{"-n", ""}, 2, "usage: "},
                  {{"-n", std::string(64, 'n')}, 2, "usage: "},
                  {{"-x", "no"}, 2, "usage: "},
                  {{"-x3", "-n", "chosen"}, 43, ""},
                  {{"-x4"}, 1, "plain: cannot start: log cache: "}};
    static int x = 0;
    static const claFltrEntry kOptions[] = {{'x', "x", clafGetInt, &x},
                                            {0, nullptr, nullptr, nullptr}};
    daemon_table table{};
    table.name = "plain";
    table.usage = "[-x N]";
    table.options = kOptions;
    table.start = [](void *) {
        errno = ENOSPC;
        return x == 4 ? daemon_refuse("log cache") : 40 + x;
    };
    for (const auto &one : kCases) {
        Ending ending = in_child([&] { return run(table, one.words); });
        EXPECT_EQ(ending.status, one.status) << testing::PrintToString(one.words);
        EXPECT_THAT(ending.err, testing::HasSubstr(one.text));
    }
}

TEST(Daemon, TheSixteenthLogIsRefusedOnceAndNeverHangs) {
    daemon_table table{};
    table.name = "logged";
    table.start = [](void *) {
        for (int i = 0; i < 15; ++i)
            if (daemon_new_log(1, "log", "log") == nullptr)
                return 9;
        bool refused = daemon_new_log(1, "log", "log") == nullptr;
        return refused && daemon_new_log(1, "log", "log") == nullptr &&
                       daemon_cmd_events(0, nullptr, stdout) == 1
                   ? 33
                   : 9;
    };
    EXPECT_EQ(in_child([&] { return run(table); }).status, 33);
}

// A daemon in a process of its own, ready when the constructor returns.
struct Running {
    pid_t pid = 0;
    explicit Running(
        const daemon_table &table, const std::function<void()> &before = [] {}) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            rlimit none{0, 0};
            setrlimit(RLIMIT_CORE, &none);
            before();
            std::vector<char> name(1);
            char program[] = "test", *argv[] = {program, nullptr};
            int argc = 1;
            int status = daemon_open(&table, &argc, argv);
            if (status == 0)
                status = daemon_ready();
            if (status != 0 || write(ends[1], "r", 1) != 1)
                _exit(99);
            status = daemon_loop();
            daemon_close();
            exit(status);
        }
        close(ends[1]);
        char byte;
        EXPECT_EQ(read(ends[0], &byte, 1), 1);
        close(ends[0]);
    }
    int ending() {
        int status = -1;
        waitpid(pid, &status, 0);
        pid = 0;
        return status;
    }
    ~Running() {
        if (pid > 0)
            kill(pid, SIGKILL), ending();
    }
};

std::string said(const std::string &name, const std::vector<std::string> &words) {
    std::string offsets, texts;
    for (const std::string &word : words) {
        offsets += support::words({static_cast<uint32_t>(8 + 4 * words.size() + texts.size())});
        texts += word + '\0';
    }
    std::string body = support::words({static_cast<uint32_t>(words.size())}) + offsets +
                       support::words({0}) + texts;
    std::string message = support::words({static_cast<uint32_t>(body.size())}) + body, answer;
    int fd = stream_at("/run/korin/" + name + ".0.cmd", SOCK_STREAM, connect);
    send(fd, message.data(), message.size(), MSG_NOSIGNAL);
    char bytes[512];
    for (ssize_t n; (n = recv(fd, bytes, sizeof bytes, 0)) > 0;)
        answer.append(bytes, static_cast<size_t>(n));
    close(fd);
    return answer;
}

pid_t main_thread() {
    return static_cast<pid_t>(syscall(SYS_gettid)) == getpid();
}

int tell_thread(int argc, char **, FILE *out) {
    fprintf(out, "%d", main_thread());
    return argc + 40;
}

TEST(Daemon, CommandsRunWhereTheTableSaysAndResultsWaitForTheirClient) {
    static const daemon_command kCommands[] = {{"in", nullptr, "", tell_thread, DAEMON_IN_LOOP},
                                               {"out", nullptr, "", tell_thread, 0},
                                               {nullptr, nullptr, nullptr, nullptr, 0}};
    daemon_table table{};
    table.name = "commanded";
    table.commands = kCommands;
    Running daemon(table);
    EXPECT_EQ(said("commanded", {"in", "x"}), "1");
    pid_t other = fork();
    if (other == 0)
        _exit(said("commanded", {"out"}) == "0" && said("commanded", {"result"}) == "41\n" ? 0 : 1);
    int status = -1;
    waitpid(other, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(said("commanded", {"result"}), "42\n");
    EXPECT_EQ(said("commanded", {"result"}), "0\n");
    EXPECT_EQ(said("commanded", {"nothing"}), "unknown command; try help\n");
    EXPECT_EQ(said("commanded", {}), "unknown command; try help\n");
    kill(daemon.pid, SIGTERM);
    EXPECT_EQ(daemon.ending(), 0);
}

TEST(Daemon, StrangersAreNotHeard) {
    daemon_table table{};
    table.name = "guarded";
    Running daemon(table, [] { stranger = true; });
    EXPECT_EQ(said("guarded", {"version"}), "");
}

TEST(Daemon, OfSeventeenSilentClientsOneIsRefusedAndTheOthersGoInTime) {
    if (sizeof(time_t) > sizeof(long) && support::emulated())
        GTEST_SKIP() << "the emulator does not tell a socket's time-out in 64-bit time";
    daemon_table table{};
    table.name = "many";
    Running daemon(table);
    int clients[DAEMON_CLIENTS_MAX + 1];
    for (int &client : clients)
        client = stream_at("/run/korin/many.0.cmd", SOCK_STREAM, connect);
    char text[64] = {};
    EXPECT_EQ(recv(clients[DAEMON_CLIENTS_MAX], text, sizeof text, 0), 26);
    EXPECT_STREQ(text, "too many commands at once\n");
    EXPECT_EQ(recv(clients[0], text, sizeof text, 0), 0) << "silent for too long";
    for (int client : clients)
        close(client);
    EXPECT_TRUE(eventually([] { return said("many", {"result"}) == "1\n"; }));
}

int32_t add_up(const void *data, uint32_t length, void *reply, uint32_t *reply_length, void *) {
    int32_t sum = main_thread() ? 0 : -99;
    for (uint32_t i = 0; i < length; ++i)
        sum += static_cast<const unsigned char *>(data)[i];
    if (sum == 8) {
        memcpy(reply, "long", 4);
        *reply_length = 4;
    }
    return sum;
}

TEST(Daemon, RequestsComeWithinTheirBounds) {
    support::leaves({.descriptors = 1});  // the kept connection
    static const daemon_request kRequests[] = {{0x4500, 8, 3000, add_up, nullptr},
                                               {0, 0, 0, nullptr, nullptr}};
    daemon_table table{};
    table.name = "requested";
    table.requests = kRequests;
    Running daemon(table);
    auto ask = [](int code, size_t size, char fill) {
        ipc_address to{myNode(), 0, "requested"};
        std::string data(size, fill);
        int32_t word = 0;
        uint32_t length = sizeof word;
        qelIpcSendOne(&to, code, data.data(), static_cast<uint32_t>(size), &word, &length, kLong);
        return word;
    };
    int32_t text = 0;
    memcpy(&text, "long", 4);
    EXPECT_EQ(ask(0x4500, 4, 1), UTILS_EINVAL);
    EXPECT_EQ(ask(0x4500, 8, 1), text);
    EXPECT_EQ(ask(0x4500, 12, 1), 12);
    EXPECT_EQ(ask(0x4500, 3000, 1), 3000) << "in shared memory";
    EXPECT_EQ(ask(0x4500, 3004, 1), UTILS_EINVAL);
    EXPECT_EQ(ask(IPC_CODE_EXIT, 4, 9), UTILS_EINVAL);
    EXPECT_EQ(qelDExitRequest("requested", IPC_CODE_EXIT, QELD_EXIT_NORMAL), 0);
    EXPECT_EQ(daemon.ending(), 0);
}

TEST(Daemon, AForkedChildRemovesNothing) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer keeps signals from a forked child";
#endif
    daemon_table table{};
    table.name = "forked";
    static const daemon_command kCommands[] = {
        {"fork", nullptr, "",
         [](int, char **, FILE *out) {
             pid_t pid = fork();
             if (pid == 0)
                 kill(getpid(), SIGUSR1), _exit(0);
             int status = 0;
             waitpid(pid, &status, 0);
             fprintf(out, "%d %d", WTERMSIG(status), access("/run/korin/forked.0.cmd", F_OK));
             return 0;
         },
         0},
        {nullptr, nullptr, nullptr, nullptr, 0}};
    table.commands = kCommands;
    Running daemon(table);
    EXPECT_EQ(said("forked", {"fork"}), std::to_string(SIGUSR1) + " 0");
}

__attribute__((noinline)) int overflow(int depth) {
    volatile char room[4096] = {};
    return depth == INT32_MAX ? 0 : overflow(depth + 1) + room[depth % 4096];
}

TEST(Daemon, AnOverflownStackLeavesNoSocket) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer has the signal";
#endif
    if (support::emulated())
        GTEST_SKIP() << "the emulator itself ends by a signal on another stack";
    daemon_table table{};
    table.name = "deep";
    static const daemon_command kCommands[] = {
        {"deep", nullptr, "", [](int argc, char **, FILE *) { return overflow(argc); }, 0},
        {nullptr, nullptr, nullptr, nullptr, 0}};
    table.commands = kCommands;
    Running daemon(table);
    said("deep", {"deep"});
    EXPECT_EQ(WTERMSIG(daemon.ending()), SIGSEGV);
    EXPECT_EQ(access("/run/korin/deep.0.cmd", F_OK), -1);
    EXPECT_EQ(access("/var/run/deep.0.pid", F_OK), -1);
    EXPECT_EQ(access("/run/korin/deep.0.lock", F_OK), 0);
}

}  // namespace

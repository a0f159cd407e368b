// SPDX-License-Identifier: Apache-2.0
// libutils-daemon from the inside: the loop, requests, commands and the ends of a daemon, each in a
// process of its own.
#include <sys/syscall.h>

#include <set>

#include "testd.h"
#include "utils/daemon.h"

namespace {

using namespace support;

int run(const daemon_table &table, std::vector<std::string> words = {}) {
    std::string program = "test";
    std::vector<char *> argv = {program.data()};
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return daemon_run(&table, static_cast<int>(argv.size()) - 1, argv.data());
}

// The daemon of a test, in a process of its own once the table is complete.
struct Companion : testing::Test {
    daemon_table table{};
    std::unique_ptr<Process> process;
    const std::string commands = "/run/korin/served.0.cmd";

    Companion() { table.name = "served"; }
    void start(const std::function<void()> &before = [] {}) {
        process = std::make_unique<Process>([&](auto &ready) {
            before();
            char program[] = "test", *argv[] = {program, nullptr};
            int argc = 1;
            int status = daemon_open(&table, &argc, argv);
            if (status == 0)
                status = daemon_ready();
            if (status != 0)
                return 99;
            ready();
            status = daemon_loop();
            daemon_close();
            exit(status);
        });
        EXPECT_TRUE(process->is_ready());
    }
    void start_with(const daemon_command &command) {
        static daemon_command list[2];
        list[0] = command;
        table.commands = list;
        start();
    }
    std::string told(const std::vector<std::string> &words) {
        return send_command(command_message(words), commands);
    }
};

// What 40 descriptors, a full queue and deferred calls have come to.
struct Seen {
    int ends[40][2];
    std::set<int> served;
    int messages, refused, deferred, alien, stopped;
    pthread_t loop;
} seen;

void stop_when_seen() {
    if (seen.served.size() >= 39 && seen.deferred == 1 && seen.messages == 5)
        daemon_stop(7);
}

void on_pipe(int fd, uint32_t events, void *argument) {
    auto *pipe = static_cast<int *>(argument);
    char byte;
    EXPECT_EQ(fd, pipe[0]);
    EXPECT_NE(events & DAEMON_READABLE, 0u);
    seen.alien += pthread_equal(seen.loop, pthread_self()) == 0;
    if (read(fd, &byte, 1) == 1)
        seen.served.insert(fd);
    else
        daemon_unwatch(fd), close(fd);
    // A descriptor that was taken out in the same round is not served any more.
    if (fd == seen.ends[0][0])
        daemon_unwatch(seen.ends[39][0]);
    stop_when_seen();
}

TEST_F(Companion, LoopServesAnyNumberOfDescriptorsBesideAFullQueue) {
    table.queue_depth = 4;
    table.start = [](void *) {
        seen.loop = pthread_self();
        for (auto &end : seen.ends) {
            EXPECT_EQ(pipe2(end, O_CLOEXEC), 0);
            EXPECT_EQ(daemon_watch(end[0], DAEMON_READABLE, on_pipe, end), 0);
        }
        const char message[TIMER_MESSAGE_LENGTH] = {77};
        for (int i = 0; i < 10; ++i)
            seen.refused += msgQSend(daemon_queue(), message, sizeof message) != 0;
        for (auto &end : seen.ends)
            EXPECT_EQ(write(end[1], "x", 1), 1);
        auto deferred = [](void *) {
            ++seen.deferred;
            seen.alien += pthread_equal(seen.loop, pthread_self()) == 0;
            close(seen.ends[5][1]);  // the next event comes to an empty queue
        };
        std::thread([=] { daemon_defer(deferred, nullptr); }).join();
        return 0;
    };
    table.message = [](const void *message, void *) {
        seen.messages += *static_cast<const char *>(message) == 77;
        stop_when_seen();
    };
    table.stop = [](void *) {
        ++seen.stopped;
        EXPECT_EQ(seen.messages, 5);
        EXPECT_EQ(seen.refused, 5);
        EXPECT_EQ(seen.alien, 0) << "not on the loop's thread";
        EXPECT_EQ(daemon_queue()->missCount, 5) << "the companion's own wakes take no place";
        EXPECT_EQ(seen.deferred, 1);
        EXPECT_EQ(daemon_watch(open("/dev/null", O_RDONLY | O_CLOEXEC), 8, on_pipe, nullptr), -22);
        EXPECT_EQ(daemon_defer([](void *) {}, nullptr), -11);
    };
    EXPECT_TRUE(passes_in_child([&] {
        EXPECT_EQ(run(table), 7);
        EXPECT_EQ(seen.stopped, 1);
    }));
}

TEST_F(Companion, WrongCommandLinesAndRefusalsEndWithTheirStatus) {
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
                  {{"-x4"}, 1, "served: cannot start: log cache: "}};
    static int x = 0;
    static const claFltrEntry kOptions[] = {{'x', "x", clafGetInt, &x},
                                            {0, nullptr, nullptr, nullptr}};
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

TEST_F(Companion, TheSixteenthLogIsRefusedOnceAndNeverHangs) {
    table.start = [](void *) {
        for (int i = 0; i < 17; ++i)
            EXPECT_EQ(daemon_new_log(1, "log", "log") != nullptr, i < 15) << i;
        EXPECT_EQ(daemon_cmd_events(0, nullptr, stdout), 1);
        return 33;
    };
    EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(run(table), 33); }));
}

pid_t main_thread() {
    return static_cast<pid_t>(syscall(SYS_gettid)) == getpid();
}

int tell_thread(int argc, char **, FILE *out) {
    fprintf(out, "%d", main_thread());
    return argc + 40;
}

TEST_F(Companion, CommandsRunWhereTheTableSaysAndResultsWaitForTheirClient) {
    static const daemon_command kCommands[] = {{"in", nullptr, "", tell_thread, DAEMON_IN_LOOP},
                                               {"out", nullptr, "", tell_thread, 0},
                                               {nullptr, nullptr, nullptr, nullptr, 0}};
    table.commands = kCommands;
    start();
    EXPECT_EQ(told({"in", "x"}), "1");
    EXPECT_TRUE(passes_in_child([&] {
        EXPECT_EQ(told({"out"}), "0");
        EXPECT_EQ(told({"result"}), "41\n");
    }));
    EXPECT_EQ(told({"result"}), "42\n");
    EXPECT_EQ(told({"result"}), "0\n");
    EXPECT_EQ(told({"nothing"}), "unknown command; try help\n");
    EXPECT_EQ(told({}), "unknown command; try help\n");
    kill(process->pid(), SIGTERM);
    EXPECT_EQ(process->ending(), 0);
}

TEST_F(Companion, StrangersAreNotHeard) {
    start([] { see_peers_of(4711); });
    EXPECT_EQ(told({"version"}), "");
}

TEST_F(Companion, OfSeventeenSilentClientsOneIsRefusedAndTheOthersGoInTime) {
    if (sizeof(time_t) > sizeof(long) && support::emulated())
        GTEST_SKIP() << "the emulator does not tell a socket's time-out in 64-bit time";
    start();
    int clients[DAEMON_CLIENTS_MAX + 1];
    for (int &client : clients)
        client = stream_at(commands, SOCK_STREAM, connect);
    char text[64] = {};
    EXPECT_EQ(recv(clients[DAEMON_CLIENTS_MAX], text, sizeof text, 0), 26);
    EXPECT_STREQ(text, "too many commands at once\n");
    EXPECT_EQ(recv(clients[0], text, sizeof text, 0), 0) << "silent for too long";
    for (int client : clients)
        close(client);
    EXPECT_TRUE(eventually([&] { return told({"result"}) == "1\n"; }));
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

TEST_F(Companion, RequestsComeWithinTheirBounds) {
    support::leaves({.descriptors = 1});  // the kept connection
    static const daemon_request kRequests[] = {{0x4500, 8, 3000, add_up, nullptr},
                                               {0, 0, 0, nullptr, nullptr}};
    table.requests = kRequests;
    start();
    int32_t text = 0;
    memcpy(&text, "long", 4);
    const struct {
        int code;
        size_t size;
        char fill;
        int32_t answer;
    } cases[] = {{0x4500, 4, 1, UTILS_EINVAL},
                 {0x4500, 8, 1, text},
                 {0x4500, 12, 1, 12},
                 {0x4500, 3000, 1, 3000},  // in shared memory
                 {0x4500, 3004, 1, UTILS_EINVAL},
                 {IPC_CODE_EXIT, 4, 9, UTILS_EINVAL}};
    for (auto &one : cases)
        EXPECT_EQ(ask(one.code, std::string(one.size, one.fill), kLong, "served").second,
                  one.answer)
            << one.size;
    EXPECT_EQ(qelDExitRequest("served", IPC_CODE_EXIT, QELD_EXIT_NORMAL), 0);
    EXPECT_EQ(process->ending(), 0);
}

TEST_F(Companion, AForkedChildRemovesNothing) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer keeps signals from a forked child";
#endif
    auto fork_and_end = [](int, char **, FILE *out) {
        pid_t pid = fork();
        if (pid == 0)
            kill(getpid(), SIGUSR1), _exit(0);
        int status = 0;
        waitpid(pid, &status, 0);
        return fprintf(out, "%d", WTERMSIG(status));
    };
    start_with({"fork", nullptr, "", fork_and_end, 0});
    EXPECT_EQ(told({"fork"}), std::to_string(SIGUSR1));
    EXPECT_EQ(access(commands.c_str(), F_OK), 0);
}

__attribute__((noinline)) int overflow(int depth) {
    volatile char room[4096] = {};
    return depth == INT32_MAX ? 0 : overflow(depth + 1) + room[depth % 4096];
}

TEST_F(Companion, AnOverflownStackLeavesNoSocket) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer has the signal";
#endif
    if (support::emulated())
        GTEST_SKIP() << "the emulator itself ends by a signal on another stack";
    start_with({"deep", nullptr, "", [](int argc, char **, FILE *) { return overflow(argc); }, 0});
    told({"deep"});
    EXPECT_EQ(WTERMSIG(process->ending()), SIGSEGV);
    EXPECT_EQ(access(commands.c_str(), F_OK), -1);
    EXPECT_EQ(access("/var/run/served.0.pid", F_OK), -1);
    EXPECT_EQ(access("/run/korin/served.0.lock", F_OK), 0);
}

}  // namespace

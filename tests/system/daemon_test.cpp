// SPDX-License-Identifier: Apache-2.0
// libutils-daemon from the inside: the loop, requests, commands and the ends of a daemon, each in a
// process of its own.
#include <sys/eventfd.h>
#include <sys/file.h>

#include <set>

#include "companion.h"
#include "utils/task.h"

namespace {

using namespace support;

// What 40 descriptors, a full queue and deferred calls have come to.
struct Seen {
    int ends[40][2];
    std::set<int> served;
    int messages, refused, deferred, alien, stopped;
    pthread_t loop;
} seen;

void stop_when_seen() {
    if (seen.served.size() >= 39 && seen.deferred == 2 && seen.messages == 5)
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
        return daemon_defer([](void *) { ++seen.deferred; }, nullptr);
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
        EXPECT_EQ(seen.deferred, 2);
        EXPECT_EQ(daemon_watch(open("/dev/null", O_RDONLY | O_CLOEXEC), 8, on_pipe, nullptr), -22);
        EXPECT_EQ(daemon_defer([](void *) {}, nullptr), -11);
        EXPECT_EQ(daemon_defer(nullptr, nullptr), -22);
        EXPECT_EQ(daemon_watch(0, DAEMON_READABLE, nullptr, nullptr), -22);
        EXPECT_EQ(daemon_watch(-1, DAEMON_READABLE, on_pipe, nullptr), -EBADF);
        EXPECT_EQ(daemon_watch(seen.ends[1][0], DAEMON_WRITABLE, on_pipe, nullptr), 0) << "again";
        EXPECT_EQ(daemon_unwatch(1000), UTILS_ENOENT);
        EXPECT_EQ(daemon_add_queue(nullptr), -22);
        EXPECT_EQ(daemon_add_timer(nullptr, "timer"), -22);
        stack_t before{}, after{};
        sigaltstack(nullptr, &before);
        EXPECT_EQ(daemon_guard_thread(), 0) << "again";
        sigaltstack(nullptr, &after);
        EXPECT_EQ(before.ss_sp, after.ss_sp);
        EXPECT_EQ(daemon_step(0), 1);
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
    daemon_table nameless{}, dotted{}, fat = table;
    dotted.name = "a.b";
    fat.message_size = MSGQ_LENGTH_MAX + 1;
    for (const auto *wrong : {&nameless, &dotted, &fat})
        EXPECT_EQ(in_child([&] { return run(*wrong); }).status, 1);
    fat.message_size = 0;
    fat.start = [](void *) {
        utils_testing_this_thread_only(1);  // a sanitizer needs memory to start the others
        utils_testing_fail_allocation(2, UTILS_TESTING_ONCE);  // that of the loop's wake
        return daemon_defer([](void *) { daemon_stop(6); }, nullptr);
    };
    EXPECT_EQ(in_child([&] { return daemon_close(), run(fat); }).status, 6);
    fat.start = nullptr;
    EXPECT_EQ(in_child([&] { return daemon_stop(7), run(fat); }).status, 7) << "asked early";
    EXPECT_EQ(in_child([&] { return daemon_open(nullptr, nullptr, nullptr); }).status, 1);
    int other = stream_at(commands, SOCK_STREAM, bind);
    listen(other, 1);
    EXPECT_EQ(in_child([&] { return run(table); }).status, 1) << "beside one without the library";
    EXPECT_EQ(unlink(commands.c_str()), 0);
    close(other);
}

TEST_F(Companion, ALoopThatHangsIsEndedInTime) {
    auto hang = [](int, char **, FILE *) -> int {
        for (;; usleep(1000)) {
            daemon_stop(0);
            utils_testing_advance_clock(CLOCK_MONOTONIC, kSecond);
        }
    };
    start_with({"hang", nullptr, "", hang, DAEMON_IN_LOOP});
    told({"hang"});
    EXPECT_EQ(WEXITSTATUS(process->ending()), 1);
    EXPECT_EQ(access(commands.c_str(), F_OK), -1);
    process.reset();
}

TEST_F(Companion, TellsItsManagerAndMakesOneReportAtATime) {
    sockaddr_un name{AF_UNIX, "\0managed"};
    int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&name), 10), 0);
    start_with({"stats", nullptr, "", daemon_cmd_stats, 0}, [] {
        sigset_t all;
        pthread_sigmask(SIG_BLOCK, (sigfillset(&all), &all), nullptr);
        setenv("NOTIFY_SOCKET", "@managed", 1);
        setenv("WATCHDOG_USEC", "1", 1);
    });
    int report = open("/var/log/serviceStat.sw0", O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    flock(report, LOCK_EX);
    std::atomic<int> refused{0};
    in_threads(2, [&](int) {
        if (told({"stats"}) == "another report is being written\n")
            ++refused, flock(report, LOCK_UN);
    });
    EXPECT_EQ(refused, 1);
    close(report);
    std::string texts;
    for (char text[100]; texts.find("STOPPING=1") == std::string::npos;) {
        ssize_t n = recv(manager, text, sizeof text, 0);
        texts.append(text, n > 0 ? static_cast<size_t>(n) : 0) += '\n';
        if (texts.find("WATCHDOG=1\nWATCHDOG=1\n") != std::string::npos)
            kill(process->pid(), SIGTERM);
    }
    EXPECT_THAT(texts, testing::StartsWith("READY=1\n"));
    close(manager);
}

TEST_F(Companion, TheSixteenthLogIsRefusedOnceAndNeverHangs) {
    table.start = [](void *) {
        for (int entries : {0, QEL_EVLOG_MAX_ENTRIES + 1})
            EXPECT_EQ(daemon_new_log(entries, "log", "log"), nullptr);
        for (int i = 0; i < 17; ++i)
            EXPECT_EQ(daemon_new_log(1, "log", "log") != nullptr, i < 15) << i;
        EXPECT_EQ(daemon_cmd_events(0, nullptr, stdout), 1);
        EXPECT_STREQ(taskName(taskIdSelf()), "served");
        int64_t begin = monotonic_ms();
        EXPECT_EQ(daemon_step(20), 0) << "without a manager that wants to be told";
        EXPECT_GE(monotonic_ms() - begin, 20);
        static int alone = eventfd(0, EFD_CLOEXEC);
        auto once = [](int fd, uint32_t, void *) { daemon_unwatch(fd), close(fd), alone = -1; };
        EXPECT_EQ(daemon_watch(alone, DAEMON_WRITABLE, once, nullptr), 0);
        EXPECT_EQ(daemon_step(1000), 0);
        EXPECT_EQ(alone, -1) << "served";
        return 33;
    };
    EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(run(table), 33); }));
}

TEST_F(Companion, CommandsRunWhereTheTableSaysAndResultsWaitForTheirClient) {
    static const daemon_command kCommands[] = {{"in", nullptr, "", tell_thread, DAEMON_IN_LOOP},
                                               {"out", nullptr, "", tell_thread, 0},
                                               {nullptr, nullptr, nullptr, nullptr, 0}};
    table.commands = kCommands;
    start([] { signal(SIGHUP, SIG_IGN); });
    kill(process->pid(), SIGHUP);  // as under nohup(1)
    EXPECT_EQ(told({"in", "x"}), "1");
    EXPECT_TRUE(passes_in_child([&] {
        EXPECT_EQ(told({"out"}), "0");
        EXPECT_EQ(told({"result"}), "41\n");
    }));
    EXPECT_EQ(told({"result"}), "42\n");
    EXPECT_EQ(told({"result"}), "0\n");
    EXPECT_EQ(told({"nothing"}), "unknown command; try help\n");
    int silent = stream_at(commands, SOCK_STREAM, connect);
    EXPECT_EQ(told({}), "unknown command; try help\n");
    kill(process->pid(), SIGTERM);
    EXPECT_EQ(process->ending(), 0) << "beside a client that has yet to ask";
    close(silent);
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

TEST_F(Companion, RequestsComeWithinTheirBounds) {
    support::leaves({.descriptors = 1});  // the kept connection
    static const daemon_request kRequests[] = {{0x4501, 0, 8, add_up, nullptr},
                                               {0x4500, 8, 3000, add_up, nullptr},
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
    } cases[] = {
        {0x4500, 4, 1, UTILS_EINVAL},    {0x4500, 8, 1, text}, {0x4500, 12, 1, 12},
        {0x4500, 3000, 1, 3000},  // in shared memory
        {0x4500, 3004, 1, UTILS_EINVAL}, {0x4501, 0, 1, 0},    {IPC_CODE_EXIT, 4, 9, UTILS_EINVAL}};
    for (auto &[code, size, fill, answer] : cases)
        EXPECT_EQ(ask(code, std::string(size, fill), kLong, "served").second, answer) << size;
    for (int code : {0x4500, static_cast<int>(IPC_CODE_EXIT)}) {
        ipc_address to = testd("served");
        int32_t word = 0;
        uint32_t length = sizeof word;
        EXPECT_EQ(ipcSendRcv(&to, code, "no block", 8, &word, &length, kLong), 0);
        EXPECT_EQ(word, UTILS_EINVAL);
    }
    EXPECT_EQ(qelDExitRequest("served", IPC_CODE_EXIT, QELD_EXIT_NORMAL), 0);
    EXPECT_EQ(process->ending(), 0);
    start();
    qelDExitRequest("served", IPC_CODE_EXIT, QELD_EXIT_ABORT);
    EXPECT_EQ(WTERMSIG(process->ending()), SIGABRT);
    process.reset();
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
    process.reset();
}

}  // namespace

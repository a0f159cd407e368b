// SPDX-License-Identifier: Apache-2.0
// A daemon each of whose calls of the system fails once: it refuses to start, or goes on.
#include "companion.h"
#include "utils/log_cache.h"

namespace {

using namespace support;

const struct {
    int error;
    std::vector<const char *> functions;
} kFaults[] = {
    {ENOMEM, {"malloc", "open_memstream", "mmap", "pthread_mutex_init", "pthread_cond_init"}},
    {EMFILE, {"socket", "open", "openat", "eventfd", "accept4", "fopen", "opendir"}},
    {EACCES, {"bind", "listen", "fchmod", "fcntl", "fstat", "lstat", "getsockopt", "unlink"}},
    {EAGAIN, {"pthread_create", "connect"}},
    {EINTR, {"poll", "read", "recv", "accept4"}},
    {ENOSPC, {"fclose", "ftruncate"}},
};

// What is asked of the daemon, and a part of its answer.
const std::pair<std::vector<std::string>, const char *> kQuestions[] = {
    {{"help"}, "built in as well: version queues timers logs memory result\nin             \n"},
    {{"version"}, "served\n"},
    {{"queues"}, "extra"},
    {{"timers"}, "idle                    idle     -\n"},
    {{"logs"}, "command timers"},
    {{"logs", "cache"}, "a cached line\n"},
    {{"logs", "none"}, "no log none\n"},
    {{"memory"}, "Descriptors:"},
    {{"stats"}, "appended to /var/log/serviceStat.sw0\n"},
    {{"in", "x"}, "1"},
    {{"result"}, "42\n"}};

// Uses what a start function may; what fails is done without.
void use_everything() {
    static int ends[2];
    [[maybe_unused]] static timerHandle idle;
    auto nothing = [](uintptr_t, uintptr_t) {};
    auto once = [](int fd, uint32_t, void *) { daemon_unwatch(fd); };
    daemon_new_queue(2, 8, "extra");
    idle = daemon_new_timer("idle", 0, nothing, 0, 0);
    if (timerHandle gone = daemon_new_timer("gone", 0, nothing, 0, 0); gone != nullptr)
        daemon_delete_timer(gone);
    if (pipe2(ends, O_CLOEXEC) == 0)
        daemon_watch(ends[1], DAEMON_WRITABLE, once, nullptr);
    log_cache_write("a cached %s\n", "line");
    const char message[TIMER_MESSAGE_LENGTH] = {77};
    msgQSend(daemon_queue(), message, sizeof message);
    daemon_step(0);
    daemon_status("line\nfeed");
}

TEST_F(Companion, RefusesToStartOrGoesOnWhateverFails) {
    static qel_evlog_handle *log = nullptr;
    static const daemon_log kLogs[] = {{"log", "l", 5, &log, DAEMON_LOG_COMMANDS},
                                       {"plain", "p", 5, nullptr, DAEMON_LOG_COMMANDS},
                                       {nullptr, nullptr, 0, nullptr, 0}};
    static const daemon_command kCommands[] = {
        {"in", nullptr, nullptr, tell_thread, DAEMON_IN_LOOP},
        {"stats", "", "", daemon_cmd_stats, 0},
        {nullptr, nullptr, nullptr, nullptr, 0}};
    static const daemon_request kRequests[] = {{0x4501, 8, 8, add_up, nullptr},
                                               {0x4500, 8, 8, add_up, nullptr},
                                               {0, 0, 0, nullptr, nullptr}};
    support::leaves({.descriptors = 1});  // the kept connection
    table.logs = kLogs;
    table.commands = kCommands;
    table.requests = kRequests;
    setenv("NOTIFY_SOCKET", "/nobody", 1);
    setenv("WATCHDOG_USEC", "8000000000", 1);
#ifdef UTILS_TESTING_SANITIZED
    const int step = 9;  // a process takes its time there
#else
    const int step = support::emulated() ? 9 : 1;
#endif
    int points = 0;
    auto survives = [&](const char *function, int error, int nth) {
        Process daemon([&](auto &ready) -> int {
            alarm(20);
#ifdef UTILS_TESTING_SANITIZED
            utils_testing_this_thread_only(1);  // a thread's start is not to fail beside it
#endif
            utils_testing_fail_call(function, nth, error, 1);
            int status = serve(ready, use_everything);
            status = utils_testing_failures() == 0 ? 50 : status;
            utils_testing_reset();
            exit(status);
        });
        std::vector<std::string> answers;
        for (auto &[words, part] : kQuestions)
            answers.push_back(daemon.is_ready() ? told(words) : "");
        if (daemon.is_ready())
            ask(0x4500, std::string(8, 1), kLong, "served");
        kill(daemon.pid(), SIGTERM);
        int status =
            WIFEXITED(daemon.ending()) ? WEXITSTATUS(daemon.ending()) : -WTERMSIG(daemon.ending());
        for (size_t i = 0; status == 50 && i < answers.size(); ++i) {
            EXPECT_THAT(answers[i], testing::HasSubstr(kQuestions[i].second));
            EXPECT_THAT(answers[i], testing::Not(testing::HasSubstr("gone"))) << "deleted";
        }
        if (status == 50)
            return false;
        EXPECT_EQ(status, daemon.is_ready() ? 0 : 1) << function << " " << nth;
        for (auto &file : std::filesystem::directory_iterator("/run/korin")) {
            EXPECT_TRUE(file.path().extension() == ".lock" || function[0] == 'u') << file << nth;
            std::filesystem::remove(file);
        }
        EXPECT_EQ(read_file("/var/run/served.0.pid"), "");
        return ++points > 0;
    };
    for (auto &[error, functions] : kFaults)
        for (const char *function : functions)
            for (int nth = 1; survives(function, error, nth); nth += step)
                continue;
    printf("daemon: %d points\n", points);
}

}  // namespace

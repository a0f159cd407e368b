// SPDX-License-Identifier: Apache-2.0
// Core file set-up, the handler of ending signals, and its report.
#include "utils/signals.h"

#include <poll.h>

#include "support/crash.h"
#include "support/support.h"

namespace {

rlimit limit_set{};
bool reader_leaves = false;  // between the question for room and the write

[[maybe_unused]] const bool faked = [] {
    support::replace_call("poll", [](pollfd *fds, nfds_t count, int) {
        int ready = poll(fds, count, 0);
        if (reader_leaves)
            fds->revents = POLLOUT;
        return ready;
    });
    // The limit is only noted: no core files.
    support::replace_call("getrlimit", [](int, rlimit *limit) { return *limit = {}, 0; });
    support::replace_call("setrlimit",
                          [](int, const rlimit *limit) { return limit_set = *limit, 0; });
    return true;
}();

using std::filesystem::current_path;

TEST(Signals, CoreEnvironmentIsADirectoryOfItsOwnAndARaisedLimit) {
    EXPECT_TRUE(support::passes_in_child([] {
        for (std::string call : {"getrlimit", "setrlimit"}) {
            utils_testing_fail_call(call.c_str(), 1, EPERM, 1);
            EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(qel_coreenv_set("limited"), 21); }),
                      call + ":limited/-1\n");
            EXPECT_FALSE(std::filesystem::exists("/core_files/limited"));
        }
        // The second time the directory exists. What others have planted or may write is refused.
        std::filesystem::create_directory_symlink("/tmp", "/core_files/link");
        umask(0);
        for (auto [name, mode] : {std::pair("open", 0777u), {"group", 0775u}, {"sticky", 01777u}})
            mkdir((std::string("/core_files/") + name).c_str(), mode);
        std::string longest(200, 'n');
        std::tuple<const char *, int, std::string> cases[] = {
            {"portd", 0, "/core_files/portd"},
            {"missing/parent", -1, "/core_files/portd"},
            {"link", -1, "/core_files/portd"},
            {"link/portd", -1, "/core_files/portd"},
            {"open", -1, "/core_files/portd"},
            {"group", -1, "/core_files/portd"},
            {"sticky/portd", 0, "/core_files/sticky/portd"},
            {"portd", 0, "/core_files/portd"},
            {longest.c_str(), 0, "/core_files/" + longest.substr(0, 115)}};
        for (auto &[name, result, directory] : cases) {
            EXPECT_EQ(qel_coreenv_set(name), result);
            EXPECT_EQ(current_path(), directory);
        }
        EXPECT_EQ(limit_set.rlim_cur, 0x7FFFFFFFu);
        EXPECT_EQ(qel_pwddefault(), 0);
        EXPECT_EQ(current_path(), "/core_files");
        chmod("/core_files", 0777);
        current_path("/tmp");
        EXPECT_EQ(qel_pwddefault(), -1);
        EXPECT_EQ(qel_coreenv_set("portd"), -1);
        EXPECT_EQ(current_path(), "/tmp");
        chmod("/core_files", 0755);
    }));
}

TEST(Signals, HandlerActsByNumber) {
    std::tuple<int, bool, int> cases[] = {
        {SIGINT, true, 2},    {SIGQUIT, true, 3}, {SIGPIPE, true, 77}, {16, false, SIGABRT},
        {27, false, SIGABRT}, {28, true, 28},     {0, true, 0},        {SIGTERM, true, SIGTERM}};
    for (auto &[number, exits, status] : cases) {
        support::Ending ending = support::in_child([raised = number] {
            dprintf(2, "%d", getpid());
            qel_sigdefaults("a name of more than thirty-one characters");
            signal(28, qel_sighandler);
            signal(SIGTERM, qel_sighandler);
            signal(SIGABRT, SIG_IGN);
            qel_sigcleanup_set([] {
                dprintf(1, "cleanup\n");
                qel_sighandler(SIGQUIT);  // one that comes meanwhile
            });
            errno = 77;
            raised == 0 ? qel_sighandler(0) : static_cast<void>(raise(raised));
            return errno;
        });
        std::string name = "a name of more than thirty-one ", digits = std::to_string(number);
        std::string pid = support::own_words(ending);
        std::string report = name + ": (pid=" + pid + "), signal=";
        EXPECT_EQ(ending.out,
                  report + digits + "\n" +
                      (!exits ? "\nApplication '" + name + "'(pid " + pid + ") got exception " +
                                    digits + ".\nwill dump core under /core_files\n" + '\0'
                       : number != SIGPIPE ? "cleanup\n" + report + "3\n"
                                           : ""));
        EXPECT_EQ(ending.exited, exits) << number;
        EXPECT_EQ(ending.status, status) << number;
    }
}

TEST(Signals, ReportToAPipeWithoutReaderLeavesOnlyWhatWasPending) {
    for (int bits = 0; bits < 4; ++bits) {
        support::Ending ending = support::in_child([=] {
            int ends[2];
            sigset_t set;
            sigemptyset(&set), sigaddset(&set, SIGPIPE), sigprocmask(SIG_BLOCK, &set, nullptr);
            if (pipe(ends) != 0 || close(ends[0]) != 0 || dup2(ends[1], 1) != 1)
                return 2;
            if ((bits & 1) != 0)
                kill(getpid(), SIGPIPE);
            reader_leaves = bits & 2;
            qel_sighandler(SIGPIPE);
            sigpending(&set);
            return sigismember(&set, SIGPIPE);
        });
        EXPECT_EQ(ending.status, bits & 1) << bits;
    }
}

TEST(Signals, BeforeSetUpTheProgramIsUnknownAndNothingIsCleanedUp) {
    support::Ending ending = support::in_child([] {
        qel_sigcleanup_set([] { dprintf(1, "cleanup\n"); });
        qel_sigcleanup_set(nullptr);
        qel_sighandler(-5);
        return 0;
    });
    EXPECT_EQ(ending.status, 251);
    EXPECT_THAT(ending.out, testing::MatchesRegex("Unknown: \\(pid=[0-9]+\\), signal=-5\n"));
}

}  // namespace

#include "utils/signals.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "support/support.h"

extern "C" const char *__asan_default_options() {
    return "handle_abort=0:disable_coredump=0";
}
extern "C" const char *__tsan_default_options() {
    return "report_signal_unsafe=0";
}

namespace {
int fail_limit = 0;       // 1: reading it, 2: setting it
bool keep_limit = false;  // setting it succeeds and changes nothing: no core files
}  // namespace

extern "C" int getrlimit(__rlimit_resource_t resource, struct rlimit *limit) noexcept {
    return fail_limit == 1 ? -1
                           : prlimit(0, static_cast<__rlimit_resource>(resource), nullptr, limit);
}
extern "C" int setrlimit(__rlimit_resource_t resource, const struct rlimit *limit) noexcept {
    return fail_limit == 2 ? -1
           : keep_limit    ? 0
                           : prlimit(0, static_cast<__rlimit_resource>(resource), limit, nullptr);
}

namespace {

std::string working_directory() {
    char path[PATH_MAX] = "";
    return getcwd(path, sizeof path) != nullptr ? path : "";
}

TEST(Signals, CoreEnvironmentIsADirectoryOfItsOwnAndARaisedLimit) {
    support::Ending ending = support::in_child(
        [] {
            EXPECT_EQ(qel_coreenv_set("portd"), 0);
            EXPECT_EQ(working_directory(), "/core_files/portd");
            rlimit limit{};
            prlimit(0, RLIMIT_CORE, nullptr, &limit);
            EXPECT_EQ(limit.rlim_cur, 0x7FFFFFFFu);
            EXPECT_EQ(qel_pwddefault(), 0);
            EXPECT_EQ(working_directory(), "/core_files");
            EXPECT_EQ(qel_coreenv_set("portd"), 0);  // the directory exists now
            EXPECT_EQ(qel_coreenv_set("missing/parent"), -1);
            EXPECT_EQ(working_directory(), "/core_files/portd");
            EXPECT_EQ(qel_coreenv_set(std::string(200, 'n').c_str()), 0);
            EXPECT_EQ(working_directory().size(), 127u);
            return testing::Test::HasFailure();
        },
        true);
    EXPECT_EQ(ending.status, 0) << ending.out;
}

TEST(Signals, LimitFailuresArePrintedAndStopTheSetUp) {
    for (int which : {1, 2}) {
        support::Ending ending = support::in_child([which] {
            fail_limit = which;
            std::string before = working_directory();
            int result = qel_coreenv_set("limited");
            return working_directory() == before ? result : -1;
        });
        EXPECT_EQ(ending.out, which == 1 ? "getrlimit:limited/-1\n" : "setrlimit:limited/-1\n");
        EXPECT_EQ(ending.status, 21);
        EXPECT_NE(access("/core_files/limited", F_OK), 0);
    }
}

TEST(Signals, HandlerActsByNumber) {
    struct {
        int number;
        bool exits;
        int status;
    } cases[] = {{SIGINT, true, 2},    {SIGQUIT, true, 3},      {SIGPIPE, true, 55},
                 {16, false, SIGABRT}, {27, false, SIGABRT},    {28, true, 28},
                 {0, true, 0},         {SIGTERM, true, SIGTERM}};
    for (auto &c : cases) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        support::Ending ending = support::in_child([&] {
            dprintf(ends[1], "%d", getpid());
            keep_limit = true;
            qel_sigdefaults("a name of more than thirty-one characters");
            signal(28, qel_sighandler);
            signal(SIGTERM, qel_sighandler);
            signal(SIGABRT, SIG_IGN);
            qel_sigcleanup_set([] { dprintf(1, "cleanup\n"); });
            errno = 77;
            if (c.number == 0)
                qel_sighandler(0);
            raise(c.number);
            return errno == 77 ? 55 : 56;
        });
        char digits[20] = "";
        EXPECT_GT(read(ends[0], digits, sizeof digits - 1), 0);
        close(ends[0]);
        close(ends[1]);
        std::string pid = digits, name = "a name of more than thirty-one ",
                    number = std::to_string(c.number);
        std::string expected = name + ": (pid=" + pid + "), signal=" + number + "\n";
        if (c.exits && c.status != 55)
            expected += "cleanup\n";
        if (!c.exits)
            expected += "\nApplication '" + name + "'(pid " + pid + ") got exception " + number +
                        ".\nwill dump core under /core_files\n" + std::string(1, '\0');
        EXPECT_EQ(ending.out, expected) << c.number;
        EXPECT_EQ(ending.exited, c.exits) << c.number;
        EXPECT_EQ(ending.status, c.status) << c.number;
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

TEST(Signals, AFailedWriteToABrokenPipeReturnsItsError) {
    support::Ending ending = support::in_child(
        [] {
            qel_sigdefaults("pipes");
            int ends[2];
            if (pipe(ends) != 0)
                return 1;
            close(ends[0]);
            return write(ends[1], "x", 1) == -1 && errno == EPIPE ? 0 : 2;
        },
        true);
    EXPECT_EQ(ending.status, 0);
    EXPECT_THAT(ending.out, testing::MatchesRegex("pipes: \\(pid=[0-9]+\\), signal=13\n"));
}

}  // namespace

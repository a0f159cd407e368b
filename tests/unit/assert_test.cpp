#include "utils/assert.h"

#include <execinfo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <set>

#include "platform/rasevt.h"
#include "support/support.h"

// Crashes are what is tested: the sanitizers leave the signal to the kernel.
extern "C" const char *__asan_default_options() {
    return "handle_segv=0";
}
extern "C" const char *__tsan_default_options() {
    return "handle_segv=0";
}
extern "C" const char *__ubsan_default_options() {
    return "handle_segv=0";
}

// The platform's event log: one line per event on standard error.
int rasevt_log(const char *file, const char *function, int line, int zero1, int zero2,
               unsigned code, ...) {
    va_list values;
    va_start(values, code);
    const char *text = code == 0x0141000D ? va_arg(values, const char *) : "";
    va_end(values);
    return dprintf(2, "%s %s %d %d%d %08X %s|", file, function, line > 0, zero1, zero2, code, text);
}

namespace {

using testing::HasSubstr;

constexpr const char *kConsole = "/dev/console";
constexpr unsigned kFatal = QEL_CHECK_ASSERT;

void set_switches(const char *asserts, const char *panic) {
    support::write_file("/etc/config/suppress_asserts", asserts);
    support::write_file("/etc/config/suppress_panic_mode", panic);
}

class Assert : public testing::Test {
  protected:
    void SetUp() override {
        set_switches("on\n", "on\n");
        support::write_file(kConsole, "");
    }
};

std::string events(const std::string &message, const char *code) {
    return "assert do_assert 1 00 0141000D " + message + "|assert do_assert 1 00 " + code + " |";
}

TEST_F(Assert, SwitchesAndConsoleDecideEveryReport) {
    for (int bits = 0; bits < 16; ++bits) {
        bool fatal = bits & 1, quiet = bits & 2, no_panic = bits & 4, console = bits & 8;
        SCOPED_TRACE(testing::Message()
                     << "fatal " << fatal << " asserts suppressed " << quiet << " panic suppressed "
                     << no_panic << " console " << console);
        set_switches(quiet ? "on\n" : "off\n", no_panic ? "on\n" : "");
        unlink(kConsole);
        if (console)
            support::write_file(kConsole, "");
        bool crash = fatal && !no_panic;
        bool echo = !quiet || crash;
        support::Ending ending = support::in_child([&] {
            errno = 77;
            int result = do_assert("x == 1", "port.c", (fatal ? kFatal : 0) | 5u << 24 | 42, 1u, 2u,
                                   3u, 4u, 5u);
            return result == 0 && errno == 77 ? 5 : 6;
        });
        ending.err = ending.err.substr(0, ending.err.find("qemu: "));  // the emulator's own word
        EXPECT_EQ(ending.exited, !crash);
        EXPECT_EQ(ending.status, crash ? SIGSEGV : 5);
        EXPECT_EQ(ending.out, crash ? "do_assert: forcing segv to get core file\n\n"
                              : fatal && no_panic && !quiet
                                  ? "do_assert: no abort, MOX_SUPRESS_PANIC_MODE\n"
                                  : "");
        std::string kind = fatal ? "ASSERT" : "VERIFY";
        std::string values = "         args = 1, 2, 3, 4, 5\n";
        EXPECT_EQ(ending.err,
                  events(kind +
                             " - Failed expression: x == 1,         file = port.c, line = 42, "
                             "user mode " +
                             values,
                         fatal ? "00410005" : "00410004"));
        EXPECT_EQ(access(kConsole, F_OK) == 0, console);
        std::string shown = support::read_file(kConsole);
        std::string head =
            kind +
            " - Failed expression: x == 1,\n         file = port.c, line = 42, user mode\n " +
            values + "Call backtrace:\n";
        ASSERT_EQ(shown.substr(0, head.size()), echo && console ? head : "");
        auto lines = std::count(shown.begin(), shown.end(), '\n');
        EXPECT_EQ(lines >= 7, echo && console) << shown;
    }
}

TEST_F(Assert, SwitchFilesMustHoldExactlyOnAndANewline) {
    struct {
        std::string content;
        bool suppresses;
    } cases[] = {{"on\n", true},    {std::string("on\n\0x", 5), true},
                 {"on", false},     {"ON\n", false},
                 {"on\n\n", false}, {"on\nx", false},
                 {"off", false},    {"", false}};
    for (auto &c : cases) {
        set_switches(c.content.c_str(), "on\n");
        support::write_file("/etc/config/suppress_asserts", c.content);
        support::write_file(kConsole, "");
        support::captured(2, [] { do_assert("e", "f", 1); });
        EXPECT_EQ(support::read_file(kConsole).empty(), c.suppresses) << c.content;
    }
}

TEST_F(Assert, BoundsItsTextsAndItsCount) {
    auto report = [](const char *expr, const char *file, unsigned info) {
        std::string text = support::captured(2, [&] { do_assert(expr, file, info, 1u, 2u); });
        return text.substr(31, text.find('|') - 31);
    };
    for (unsigned count = 11; count <= 15; ++count)
        EXPECT_EQ(report("e", "f", count << 24 | 0xFFFFFF),
                  "VERIFY - Failed expression: e,         file = f, line = 16777215, user mode ");
    EXPECT_EQ(report(nullptr, nullptr, 3),
              "VERIFY - Failed expression: unavailable(null pointer),         "
              "file = unavailable(null pointer), line = 3, user mode ");
    EXPECT_EQ(report(std::string(300, 'e').c_str(), "f", 3),
              "VERIFY - Failed expression: " + std::string(255 - 28, 'e'));
    set_switches("", "");
    report(std::string(300, 'e').c_str(), "f", 3);
    EXPECT_THAT(support::read_file(kConsole),
                HasSubstr("VERIFY - Failed expression: " + std::string(255 - 28, 'e') +
                          "Call backtrace:\n"));
}

TEST_F(Assert, WrappersPassTheirValuesAndReportTheirOwnLine) {
    constexpr unsigned kCallers = 7777;
    std::set<std::string> lines;
    int n = 0;
    auto check = [&](int fatal, auto call) {
        int result = -1;
        std::string text = support::captured(2, [&] { result = call(); });
        EXPECT_EQ(result, fatal);
        std::string args = n == 0 ? "" : "         args = 1";
        for (int i = 2; i <= n; ++i)
            args += ", " + std::to_string(i);
        EXPECT_THAT(text, HasSubstr((fatal ? "ASSERT - " : "VERIFY - ") +
                                    std::string("Failed expression: e")));
        EXPECT_THAT(text, HasSubstr("user mode " + args + (n == 0 ? "|" : "\n|")));
        size_t at = text.find("line = ");
        lines.insert(text.substr(at, text.find(',', at) - at));
        n += 1 - fatal;
    };
#define CHECK_BOTH(N, ...)                                                  \
    check(1, [] { return dbg_assert##N("e", "f", kCallers __VA_ARGS__); }); \
    check(0, [] { return dbg_verify##N("e", "f", kCallers __VA_ARGS__); })
    CHECK_BOTH(0);
    CHECK_BOTH(1, , 1);
    CHECK_BOTH(2, , 1, 2);
    CHECK_BOTH(3, , 1, 2, 3);
    CHECK_BOTH(4, , 1, 2, 3, 4);
    CHECK_BOTH(5, , 1, 2, 3, 4, 5);
    CHECK_BOTH(6, , 1, 2, 3, 4, 5, 6);
    CHECK_BOTH(7, , 1, 2, 3, 4, 5, 6, 7);
    CHECK_BOTH(8, , 1, 2, 3, 4, 5, 6, 7, 8);
    CHECK_BOTH(9, , 1, 2, 3, 4, 5, 6, 7, 8, 9);
    CHECK_BOTH(10, , 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
    EXPECT_EQ(lines.size(), 22u);
    EXPECT_EQ(lines.count("line = 7777"), 0u);
}

TEST_F(Assert, MacrosReportTheCallersPlaceAndGiveTheTruth) {
    int evaluated = 0;
    std::string text = support::captured(2, [&] {
        EXPECT_EQ(QEL_VERIFY(++evaluated == 1), 1);
        EXPECT_EQ(QEL_VERIFY_VALUES(evaluated == 1, 5), 1);
        QEL_ASSERT(evaluated == 1);
    });
    EXPECT_EQ(text, "");
    text =
        support::captured(2, [&] { EXPECT_EQ(QEL_VERIFY_VALUES(evaluated == 2, -1, 2L, 'c'), 0); });
    int line = __LINE__ - 1;
    EXPECT_THAT(
        text, HasSubstr("VERIFY - Failed expression: evaluated == 2,         file = " __FILE__
                        ", line = " +
                        std::to_string(line) + ", user mode          args = 4294967295, 2, 99\n|"));
    text = support::captured(
        2, [&] { QEL_ASSERT_VALUES(evaluated == 2, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10); });
    EXPECT_THAT(text, HasSubstr("ASSERT - Failed expression: evaluated == 2"));
    EXPECT_THAT(text, HasSubstr("args = 1, 2, 3, 4, 5, 6, 7, 8, 9, 10\n|"));
}

TEST_F(Assert, SelfTestRunsTheCheckItsCountSelects) {
    struct {
        int count;
        const char *expected;
    } cases[] = {
        {0, "ASSERT - Failed expression: 5 < 3, "}, {1, "expression: 'a' == 'L', "},
        {2, "user mode          args = 1, 2\n"},    {5, "file = test null expr"},
        {6, "expression: test null file"},          {7, "VERIFY - Failed expression: (5%3) == 3"}};
    for (auto &c : cases) {
        support::Ending ending = support::in_child([&] { return dbg_test_assert(c.count); });
        std::string number = std::to_string(c.count) + "\n";
        EXPECT_EQ(ending.status, 0);
        EXPECT_THAT(ending.err, HasSubstr(c.expected));
        EXPECT_THAT(ending.out,
                    testing::StartsWith("user dbg_test_assert entry: count = " + number));
        EXPECT_THAT(ending.out, testing::EndsWith("user dbg_test_assert exit: count = " + number));
        EXPECT_EQ(ending.out.find("VERIFY returned *FALSE*\n") != std::string::npos, c.count == 7);
    }
}

}  // namespace

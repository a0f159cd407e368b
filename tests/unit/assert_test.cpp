// SPDX-License-Identifier: Apache-2.0
// The reports of failed checks: switches, console, texts, values, wrappers, macros, the self-test.
#include "utils/assert.h"

#include <dlfcn.h>

#include <set>

#include "support/crash.h"
#include "support/support.h"
#include "utils/platform/rasevt.h"

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

using support::captured;
using support::write_file;
using testing::HasSubstr;

constexpr const char *kConsole = "/dev/console";

void set_switches(std::string_view asserts, std::string_view panic) {
    write_file("/etc/config/suppress_asserts", asserts);
    write_file("/etc/config/suppress_panic_mode", panic);
    write_file(kConsole, "");
}

TEST(Assert, SwitchesAndConsoleDecideEveryReport) {
    for (int bits = 0; bits < 16; ++bits) {
        bool fatal = bits & 1, quiet = bits & 2, no_panic = bits & 4, console = bits & 8;
        SCOPED_TRACE(bits);
        set_switches(quiet ? "on\n" : "off\n", no_panic ? "on\n" : "");
        if (!console)
            unlink(kConsole);
        bool crash = fatal && !no_panic;
        support::Ending ending = support::in_child([&] {
            errno = 77;
            unsigned info = (fatal ? QEL_CHECK_ASSERT : 0) | 5u << 24 | 42;
            return do_assert("x == 1", "port.c", info, 1u, 2u, 3u, 4u, 5u) == 0 ? errno : 1;
        });
        EXPECT_EQ(std::pair(ending.exited, ending.status), std::pair(!crash, crash ? SIGSEGV : 77));
        EXPECT_EQ(ending.out, crash             ? "do_assert: forcing segv to get core file\n\n"
                              : fatal && !quiet ? "do_assert: no abort, MOX_SUPRESS_PANIC_MODE\n"
                                                : "");
        std::string expr =
            std::string(fatal ? "ASSERT" : "VERIFY") + " - Failed expression: x == 1,";
        std::string place = "         file = port.c, line = 42, user mode";
        std::string values = "          args = 1, 2, 3, 4, 5\n";
        EXPECT_EQ(support::own_words(ending), "assert do_assert 1 00 0141000D " + expr + place +
                                                  values + "|assert do_assert 1 00 " +
                                                  (fatal ? "00410005 |" : "00410004 |"));
        EXPECT_EQ(access(kConsole, F_OK) == 0, console);
        EXPECT_THAT(support::read_file(kConsole),
                    testing::MatchesRegex(console && (!quiet || crash)
                                              ? expr + "\n" + place + "\n" + values +
                                                    "Call backtrace:\n(.*\n){3,}"
                                              : ""));
    }
}

TEST(Assert, SwitchFilesMustHoldExactlyOnAndANewline) {
    using namespace std::literals;
    std::pair<std::string_view, bool> cases[] = {
        {"on\n", true},    {"on\n\0x"sv, true}, {"on", false},  {"ON\n", false},
        {"on\n\n", false}, {"on\nx", false},    {"off", false}, {"", false}};
    for (auto [content, suppresses] : cases) {
        set_switches(content, "on\n");
        captured(2, [] { do_assert("e", "f", 1); });
        EXPECT_EQ(support::read_file(kConsole).empty(), suppresses) << content;
    }
}

TEST(Assert, BoundsItsTextsAndItsCount) {
    set_switches("", "");
    const std::string head = "VERIFY - Failed expression: ", e(300, 'e');
    const struct {
        const char *expr, *file;
        unsigned info;
        std::string text;
    } cases[] = {
        {"e", "f", 11u << 24 | 0xFFFFFF, "e,         file = f, line = 16777215, user mode "},
        {"e", nullptr, 15u << 24,
         "e,         file = unavailable(null pointer), line = 0, user mode "},
        {nullptr, "f", 3, "unavailable(null pointer),         file = f, line = 3, user mode "},
        {e.c_str(), "f", 3, e.substr(head.size() + 45)},
    };
    for (const auto &c : cases)
        EXPECT_THAT(captured(2, [&] { do_assert(c.expr, c.file, c.info, 1u, 2u); }),
                    HasSubstr("0141000D " + head + c.text + "|"));
    EXPECT_THAT(support::read_file(kConsole),
                HasSubstr(head + cases[3].text + "Call backtrace:\n"));
}

// The platform's own log, which stands behind the one above.
TEST(RasEvent, IsOneLineHoweverLongItsTexts) {
    if (!support::is_stand_in("rasevt_log"))
        GTEST_SKIP() << "where events go is the platform's own";
    auto log = reinterpret_cast<decltype(&rasevt_log)>(dlsym(RTLD_NEXT, "rasevt_log"));
    const std::string x(5000, 'x'), event = "0x0141000D f:g:7 ";
    const struct {
        const char *function;
        std::string text, shown;
    } cases[] = {{"g", "a\nb\r\n", event + "a b"},
                 {"g", x, event + x.substr(0, 639 - event.size())},
                 {x.c_str(), "", "0x0141000D f:" + x.substr(0, 626)}};
    for (const auto &c : cases) {
        unlink("/var/log/rasevt");
        EXPECT_EQ(log("f", c.function, 7, 0, 0, RASEVT_ASSERT_MESSAGE, c.text.c_str()), 0);
        std::string line = support::read_file("/var/log/rasevt");
        EXPECT_EQ(line.substr(std::min(line.find("] "), line.size())), "] " + c.shown + "\n");
    }
    EXPECT_EQ(log(nullptr, nullptr, 7, 0, 0, RASEVT_ASSERT_MESSAGE, nullptr), 0);
    EXPECT_THAT(support::read_file("/var/log/rasevt"), testing::EndsWith("] 0x0141000D ::7\n"));
}

TEST(Assert, WrappersPassTheirValuesAndReportTheirOwnLine) {
    set_switches("on\n", "on\n");
    std::set<std::string> lines{"line = 7777,"};
    auto check = [&]<typename... Values>(
                     int (*wrapper)(const char *, const char *, unsigned, Values...), int fatal) {
        std::string args;
        [[maybe_unused]] auto next = [&, n = 0u]() mutable {
            args += (n == 0 ? "         args = " : ", ") + std::to_string(n + 1);
            return ++n;
        };
        std::tuple<const char *, const char *, unsigned, Values...> values{"e", "f", 7777,
                                                                           Values(next())...};
        std::string text = captured(2, [&] { EXPECT_EQ(std::apply(wrapper, values), fatal); });
        EXPECT_THAT(text, HasSubstr(fatal ? "ASSERT - Failed expression: e,"
                                          : "VERIFY - Failed expression: e,"));
        EXPECT_THAT(text, HasSubstr("user mode " + args + (args.empty() ? "|" : "\n|")));
        lines.insert(text.substr(text.find("line = "), 12));
    };
#define BOTH(N) check(dbg_assert##N, 1), check(dbg_verify##N, 0)
    BOTH(0), BOTH(1), BOTH(2), BOTH(3), BOTH(4), BOTH(5), BOTH(6), BOTH(7), BOTH(8), BOTH(9),
        BOTH(10);
    EXPECT_EQ(lines.size(), 23u);
}

TEST(Assert, MacrosReportTheCallersPlaceAndGiveTheTruth) {
    set_switches("on\n", "on\n");
    const std::string event = "assert do_assert 1 00 ", line = std::to_string(__LINE__ + 5);
    std::string text = captured(2, [calls = 0]() mutable {
        EXPECT_EQ(QEL_VERIFY(++calls == 1), 1);
        EXPECT_EQ(QEL_VERIFY_VALUES(calls == 1, 5), 1);
        QEL_ASSERT(calls == 1);
        EXPECT_EQ(QEL_VERIFY_VALUES(calls == 2, -1, 2L, 'c'), 0);
        QEL_ASSERT_VALUES(calls == 3, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
    });
    EXPECT_EQ(text.find(event +
                        "0141000D VERIFY - Failed expression: calls == 2,         file = " __FILE__
                        ", line = " +
                        line + ", user mode          args = 4294967295, 2, 99\n|" + event +
                        "00410004 |" + event + "0141000D ASSERT - Failed expression: calls == 3,"),
              0u)
        << text;
    EXPECT_THAT(text, HasSubstr("args = 1, 2, 3, 4, 5, 6, 7, 8, 9, 10\n|"));
}

TEST(Assert, SelfTestRunsTheCheckItsCountSelects) {
    set_switches("on\n", "on\n");
    const char *expected[] = {"ASSERT - Failed expression: 5 < 3, ",
                              "expression: 'a' == 'L', ",
                              "user mode          args = 1, 2\n",
                              "args = 1, 2, 3\n",
                              "args = 1, 2, 3, 4\n",
                              "file = test null expr",
                              "expression: test null file",
                              "VERIFY - Failed expression: (5%3) == 3",
                              ""};
    for (int count = 0; count <= 8; ++count) {
        support::Ending ending = support::in_child([&] { return dbg_test_assert(count); });
        EXPECT_THAT(ending.err, HasSubstr(expected[count]));
        EXPECT_THAT(ending.err, HasSubstr(count == 7 ? "args = 1, 2, 3, 4\n" : ""));
        std::string end = " count = " + std::to_string(count) + "\n";
        std::string verify =
            "(VERIFY returned .FALSE.\n){7}VERIFY returned .TRUE.\nVERIFY returned .FALSE.\n";
        EXPECT_THAT(ending.out, testing::MatchesRegex("user dbg_test_assert entry:" + end +
                                                      (count == 7 ? verify : "") +
                                                      "user dbg_test_assert exit:" + end));
    }
}

}  // namespace

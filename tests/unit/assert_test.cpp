#include "utils/assert.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <set>

#include "platform/rasevt.h"
#include "support/crash.h"
#include "support/support.h"

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
        // What the emulator says of a crash stands behind the events.
        EXPECT_EQ(ending.err.substr(0, ending.err.find("qemu: ")),
                  "assert do_assert 1 00 0141000D " + expr + place + values +
                      "|assert do_assert 1 00 " + (fatal ? "00410005 |" : "00410004 |"));
        EXPECT_EQ(access(kConsole, F_OK) == 0, console);
        EXPECT_THAT(support::read_file(kConsole),
                    testing::MatchesRegex(console && (!quiet || crash)
                                              ? expr + "\n" + place + "\n" + values +
                                                    "Call backtrace:\n(.*\n){2,}"
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
    std::string head = "VERIFY - Failed expression: ", e(300, 'e');
    std::tuple<const char *, const char *, unsigned, std::string> cases[] = {
        {"e", "f", 11u << 24 | 0xFFFFFF, "e,         file = f, line = 16777215, user mode "},
        {"e", "f", 15u << 24 | 3, "e,         file = f, line = 3, user mode "},
        {nullptr, nullptr, 3,
         "unavailable(null pointer),         file = unavailable(null pointer), line = 3, user "
         "mode "},
        {e.c_str(), "f", 3, e.substr(0, 255 - head.size())},
    };
    for (auto &[expr, file, info, expected] : cases) {
        std::string text = captured(2, [&, &expr = expr, &file = file, &info = info] {
            do_assert(expr, file, info, 1u, 2u);
        });
        EXPECT_EQ(text.substr(31, text.find('|') - 31), head + expected);
    }
    EXPECT_THAT(support::read_file(kConsole),
                HasSubstr(head + e.substr(0, 255 - head.size()) + "Call backtrace:\n"));
}

std::set<std::string> wrapper_lines;

// Calls a wrapper with as many values as it takes: 1, 2, ...
template <typename... Values>
void expect_reports(int (*wrapper)(const char *, const char *, unsigned, Values...), int fatal) {
    unsigned i = 0;
    [[maybe_unused]] auto next = [&] { return ++i; };
    std::tuple<const char *, const char *, unsigned, Values...> values{"e", "f", 7777,
                                                                       Values(next())...};
    std::string text = captured(2, [&] { EXPECT_EQ(std::apply(wrapper, values), fatal); }), args;
    for (unsigned n = 1; n <= sizeof...(Values); ++n)
        args += (n == 1 ? "         args = " : ", ") + std::to_string(n) + (n == i ? "\n" : "");
    EXPECT_THAT(text, HasSubstr(fatal ? "ASSERT - Failed expression: e,"
                                      : "VERIFY - Failed expression: e,"));
    EXPECT_THAT(text, HasSubstr("user mode " + args + "|"));
    wrapper_lines.insert(text.substr(text.find("line = "), 12));
}

template <typename... Wrappers>
void expect_all_report(int fatal, Wrappers... wrappers) {
    (expect_reports(wrappers, fatal), ...);
}

TEST(Assert, WrappersPassTheirValuesAndReportTheirOwnLine) {
    set_switches("on\n", "on\n");
    expect_all_report(1, dbg_assert0, dbg_assert1, dbg_assert2, dbg_assert3, dbg_assert4,
                      dbg_assert5, dbg_assert6, dbg_assert7, dbg_assert8, dbg_assert9,
                      dbg_assert10);
    expect_all_report(0, dbg_verify0, dbg_verify1, dbg_verify2, dbg_verify3, dbg_verify4,
                      dbg_verify5, dbg_verify6, dbg_verify7, dbg_verify8, dbg_verify9,
                      dbg_verify10);
    EXPECT_EQ(wrapper_lines.size(), 22u);
    EXPECT_EQ(wrapper_lines.count("line = 7777,"), 0u);
}

TEST(Assert, MacrosReportTheCallersPlaceAndGiveTheTruth) {
    set_switches("on\n", "on\n");
    int evaluated = 0;
    EXPECT_EQ(captured(2,
                       [&] {
                           EXPECT_EQ(QEL_VERIFY(++evaluated == 1), 1);
                           EXPECT_EQ(QEL_VERIFY_VALUES(evaluated == 1, 5), 1);
                           QEL_ASSERT(evaluated == 1);
                       }),
              "");
    int line = __LINE__ + 1;
    auto verify = [&] { EXPECT_EQ(QEL_VERIFY_VALUES(evaluated == 2, -1, 2L, 'c'), 0); };
    EXPECT_THAT(
        captured(2, verify),
        HasSubstr("VERIFY - Failed expression: evaluated == 2,         file = " __FILE__
                  ", line = " +
                  std::to_string(line) + ", user mode          args = 4294967295, 2, 99\n|"));
    std::string text =
        captured(2, [&] { QEL_ASSERT_VALUES(evaluated == 2, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10); });
    EXPECT_THAT(text, HasSubstr("ASSERT - Failed expression: evaluated == 2"));
    EXPECT_THAT(text, HasSubstr("args = 1, 2, 3, 4, 5, 6, 7, 8, 9, 10\n|"));
}

TEST(Assert, SelfTestRunsTheCheckItsCountSelects) {
    set_switches("on\n", "on\n");
    std::pair<int, const char *> cases[] = {
        {0, "ASSERT - Failed expression: 5 < 3, "}, {1, "expression: 'a' == 'L', "},
        {2, "user mode          args = 1, 2\n"},    {5, "file = test null expr"},
        {6, "expression: test null file"},          {7, "VERIFY - Failed expression: (5%3) == 3"}};
    for (auto [count, expected] : cases) {
        support::Ending ending =
            support::in_child([count = count] { return dbg_test_assert(count); });
        EXPECT_EQ(ending.status, 0);
        EXPECT_THAT(ending.err, HasSubstr(expected));
        std::string number = std::to_string(count);
        EXPECT_THAT(
            ending.out,
            testing::MatchesRegex("user dbg_test_assert entry: count = " + number + "\n" +
                                  (count == 7 ? "(VERIFY returned [*]FALSE[*]\n){7}VERIFY returned "
                                                "[*]TRUE[*]\nVERIFY returned [*]FALSE[*]\n"
                                              : "") +
                                  "user dbg_test_assert exit: count = " + number + "\n"));
    }
}

}  // namespace

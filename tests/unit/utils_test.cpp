// SPDX-License-Identifier: Apache-2.0
// Console output and switch files.

#include "support/support.h"
#include "utils/console.h"

namespace {

const char *terminal = nullptr;  // its name, on standard output

int named_terminal(int descriptor, char *name, size_t size) {
    if (descriptor != 1 || terminal == nullptr)
        return ENOTTY;
    snprintf(name, size, "%s", terminal);
    return 0;
}

constexpr const char *kConsole = "/dev/console";

TEST(Console, VerbosePrintsOnStandardOutputTooUnlessThatIsTheConsole) {
    support::replace_call("ttyname_r", named_terminal);
    for (auto [name, on_both] : {std::pair<const char *, bool>(nullptr, true),
                                 {"/dev/pts/0", true},
                                 {"/dev/ttyS2", true},
                                 {kConsole, false},
                                 {"/dev/ttyS0", false},
                                 {"/dev/ttyS1", false}}) {
        terminal = name;
        support::write_file(kConsole, "older text");
        auto print = [both = on_both] {
            EXPECT_EQ(console_printf("port %d\n", 7), 0);
            EXPECT_EQ(verbose_printf("x=%d\n", 5), both ? 4 : 0);
        };
        EXPECT_EQ(support::captured(1, print), on_both ? "x=5\n" : "");
        EXPECT_EQ(support::read_file(kConsole), "x=5\n");
    }
    terminal = nullptr;
    EXPECT_EQ(console_printf("port %d\n", 7), 0);
    EXPECT_EQ(support::read_file(kConsole), "port 7\n");
}

TEST(Console, AConsoleThatCannotBeUsedCostsItsCopyOnly) {
    unlink(kConsole);
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(verbose_printf("seen\n"), 5); }), "seen\n");
    EXPECT_NE(access(kConsole, F_OK), 0);
    support::write_file(kConsole, "");
    int result = 0;
    utils_testing_fail_call("fclose", 1, ENOSPC, 1);
    std::string text = support::captured(2, [&] { result = console_printf("lost\n"); });
    EXPECT_THAT(text, testing::MatchesRegex("fclose failed utils [0-9]+ errno 28\n"));
    EXPECT_EQ(result, static_cast<int>(text.size()));
}

TEST(Console, SwitchFilesAreOnWhenMissingOrBeginningWithOn) {
    for (auto [content, on] :
         {std::pair("ONwards", 1), {"on", 1}, {"", 0}, {"o", 0}, {" on", 0}, {"no", 0}}) {
        support::write_file("/etc/config/feature", content);
        support::read_late("/etc/config/feature");
        EXPECT_EQ(check_config_onoff("feature"), on) << content;
    }
    std::string endless(5000, 'x');
    for (auto [name, on] : {std::pair("missing", 1), {endless.c_str(), 1}, {".", 0}, {nullptr, 0}})
        EXPECT_EQ(check_config_onoff(name), on);
}

}  // namespace

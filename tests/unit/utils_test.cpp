#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "support/support.h"
#include "utils/console.h"

namespace {
const char *terminal = nullptr;
bool fail_close = false;
}  // namespace

// The name of the terminal on standard output.
extern "C" int fake_ttyname(int, char *, size_t) __asm__("ttyname_r");
int fake_ttyname(int descriptor, char *name, size_t size) {
    if (descriptor != 1 || terminal == nullptr)
        return ENOTTY;
    snprintf(name, size, "%s", terminal);
    return 0;
}

extern "C" int fclose(FILE *stream) {
    static auto real = reinterpret_cast<int (*)(FILE *)>(dlsym(RTLD_NEXT, "fclose"));
    int result = real(stream);
    errno = ENOSPC;
    return fail_close ? EOF : result;
}

namespace {

constexpr const char *kConsole = "/dev/console";

TEST(Console, PrintsOnTheConsoleOnly) {
    support::write_file(kConsole, "older text");
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(console_printf("port %d %s\n", 7, "down"), 0); }),
              "");
    EXPECT_EQ(support::read_file(kConsole), "port 7 down\n");
}

TEST(Console, VerbosePrintsOnStandardOutputTooUnlessThatIsTheConsole) {
    struct {
        const char *terminal;
        bool both;
    } cases[] = {{nullptr, true},         {"/dev/pts/0", true},  {"/dev/ttyS2", true},
                 {"/dev/console", false}, {"/dev/ttyS0", false}, {"/dev/ttyS1", false}};
    for (auto &c : cases) {
        terminal = c.terminal;
        support::write_file(kConsole, "");
        EXPECT_EQ(
            support::captured(1, [&] { EXPECT_EQ(verbose_printf("x=%d\n", 5), c.both ? 4 : 0); }),
            c.both ? "x=5\n" : "");
        EXPECT_EQ(support::read_file(kConsole), "x=5\n");
    }
    terminal = nullptr;
}

TEST(Console, AConsoleThatCannotBeUsedCostsItsCopyOnly) {
    unlink(kConsole);
    EXPECT_EQ(console_printf("nobody sees this\n"), 0);
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(verbose_printf("seen\n"), 5); }), "seen\n");
    EXPECT_NE(access(kConsole, F_OK), 0);
    support::write_file(kConsole, "");
    int result = 0;
    std::string text = support::captured(2, [&] {
        fail_close = true;
        result = console_printf("lost\n");
        fail_close = false;
    });
    EXPECT_THAT(text, testing::MatchesRegex("fclose failed utils [0-9]+ errno " +
                                            std::to_string(ENOSPC) + "\n"));
    EXPECT_EQ(result, static_cast<int>(text.size()));
}

TEST(Console, SwitchFilesAreOnWhenMissingOrBeginningWithOn) {
    struct {
        const char *content;
        int on;
    } cases[] = {{"on\n", 1}, {"ONwards", 1}, {"On", 1},  {"", 0},
                 {"o", 0},    {"off\n", 0},   {" on", 0}, {"no", 0}};
    for (auto &c : cases) {
        support::write_file("/etc/config/feature", c.content);
        EXPECT_EQ(check_config_onoff("feature"), c.on) << c.content;
    }
    EXPECT_EQ(check_config_onoff(nullptr), 0);
    EXPECT_EQ(check_config_onoff("missing"), 1);
    std::vector<char> endless(5000, 'x');
    endless.back() = 0;
    EXPECT_EQ(check_config_onoff(endless.data()), 1);
    EXPECT_EQ(check_config_onoff("."), 0) << "a directory cannot be read";
    if (chmod("/etc/config/feature", 0) == 0 && geteuid() != 0) {
        EXPECT_EQ(check_config_onoff("feature"), 1);
    }
}

}  // namespace

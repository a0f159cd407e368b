#include "utils/identity.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "support/support.h"

namespace {

const char *uptime_file;        // stands in for /proc/uptime
size_t write_limit = SIZE_MAX;  // most bytes of one write(); 0 makes it fail
bool formatting_fails;

int next_vsnprintf(char *to, size_t size, const char *format, va_list values) {
    using Function = int (*)(char *, size_t, const char *, va_list);
    static auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "vsnprintf"));
    return formatting_fails ? -1 : next(to, size, format, values);
}

}  // namespace

extern "C" {
int fake_open(const char *path, int flags, int mode) __asm__("open64");
int fake_open(const char *path, int flags, int mode) {
    if (uptime_file != nullptr && std::string_view(path) == "/proc/uptime")
        path = uptime_file;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}
ssize_t fake_write(int fd, const void *bytes, size_t count) __asm__("write");
ssize_t fake_write(int fd, const void *bytes, size_t count) {
    return write_limit == 0 ? 0 : syscall(SYS_write, fd, bytes, std::min(count, write_limit));
}
int fake_vsnprintf(char *, size_t, const char *, va_list) __asm__("vsnprintf");
int fake_vsnprintf(char *to, size_t size, const char *format, va_list values) {
    return next_vsnprintf(to, size, format, values);
}
int fake_vsnprintf_chk(char *, size_t, int, size_t, const char *,
                       va_list) __asm__("__vsnprintf_chk");
int fake_vsnprintf_chk(char *to, size_t size, int, size_t, const char *format, va_list values) {
    return next_vsnprintf(to, size, format, values);
}
}

namespace {

TEST(Identity, NodeIsFiveOnlyWhenTheFileSaysSo) {
    using namespace std::string_literals;
    struct {
        std::string file;
        int node;
    } cases[] = {{"\1\2\3\4\0\5\0\0\0\0\0\0more"s, 5},
                 {"\0\0\0\0\0\7\0\0\0\0\0\0"s, 6},
                 {"\0\0\0\0\5\0\0\0\0\0\0\0"s, 6},
                 {"\0\5\0\5\1\5\0\5\0\0\0\0"s, 6},
                 {"\0\0\0\0\0\5"s, 5},
                 {"\0\0\0\0\0"s, 6},
                 {""s, 6}};
    for (const auto &c : cases) {
        support::write_file("/config/haconfig", c.file);
        support::Ending ending = support::in_child([] { return myNode() * 10 + peerNode(); });
        EXPECT_EQ(ending.status, c.node == 5 ? 56 : 65);
        EXPECT_EQ(ending.err, "");
    }
    unlink("/config/haconfig");
    support::Ending ending = support::in_child([] {
        myNode();
        support::write_file("/config/haconfig", "\0\0\0\0\0\5"s);
        return myNode() * 10 + peerNode();
    });
    EXPECT_EQ(ending.status, 65);
    EXPECT_EQ(ending.err, "open haconfig:: No such file or directory\n");
}

TEST(Identity, NumbersComeFromTheEnvironmentOnceAndBadOnesAreZero) {
    struct {
        const char *text;
        int switch_number, slot;
    } cases[] = {{nullptr, 0, 0}, {"", 0, 0},          {"x", 0, 0},   {"-1", 0, 0},
                 {"3", 3, 3},     {"16", 16, 16},      {"17", 17, 0}, {"240", 240, 0},
                 {"241", 0, 0},   {"4294967295", 0, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text != nullptr ? c.text : "(unset)");
        const char *variables[] = {IDENTITY_ENV_SWITCH, IDENTITY_ENV_SLOT, IDENTITY_ENV_PIC};
        auto set_all = [&](const char *text) {
            for (const char *variable : variables)
                text != nullptr ? setenv(variable, text, 1) : unsetenv(variable);
        };
        set_all(c.text);
        support::Ending ending = support::in_child([&] {
            for (int turn = 0; turn < 2; ++turn, set_all("9"))
                printf("%d %d %d\n", getMySwitch(), getMySlot(), getMyPic());
            return 0;
        });
        std::string line = std::to_string(c.switch_number) + " " + std::to_string(c.slot) + " " +
                           std::to_string(c.slot) + "\n";
        EXPECT_EQ(ending.out, line + line);
    }
}

TEST(Identity, SetMySwitchChangesThisProcessAndThoseItStarts) {
    setenv(IDENTITY_ENV_SWITCH, "4", 1);
    support::Ending ending = support::in_child([] {
        EXPECT_EQ(getMySwitch(), 4);
        EXPECT_EQ(setMySwitch(241), -7);
        EXPECT_EQ(setMySwitch(-1), -7);
        EXPECT_EQ(exportMySwitch(241), -7);
        EXPECT_EQ(getMySwitch(), 4);
        EXPECT_EQ(setMySwitch(7), 0);
        EXPECT_EQ(exportMySwitch(3), 0);
        fflush(stdout);
        formatting_fails = true;
        int result = setMySwitch(8);
        formatting_fails = false;
        EXPECT_EQ(result, -1);
        EXPECT_EQ(getMySwitch(), 7);
        fflush(stdout);
        return testing::Test::HasFailure() ? 1 : system("echo $KORIN_SWITCHNO");
    });
    EXPECT_EQ(ending.status, 0) << ending.out;
    EXPECT_EQ(
        ending.out,
        "export KORIN_SWITCHNO=3setMySwitch: snprintf(%s=%d, KORIN_SWITCHNO, 8) returned -1\n7\n");
}

TEST(Identity, HandlersStoreWhatTheyAccept) {
    int16_t number = -5;
    int32_t slot = -5, pic = -5;
    EXPECT_EQ(clafMySwitch("12", &number), -7);
    EXPECT_EQ(number, 12);
    EXPECT_EQ(clafMySwitch("65537", &number), -7);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(clafMySwitch("x", &number), -7);
    EXPECT_EQ(clafMySwitch("3", nullptr), -7);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(clafMySlot("99", &slot), 0);
    EXPECT_EQ(clafMySlot("x", &slot), 1);
    EXPECT_EQ(slot, 99);
    for (const char *bad : {"B", "AA", "", "!"})
        EXPECT_EQ(clafMyPic(bad, &pic), 1);
    EXPECT_EQ(pic, -5);
    for (const char *good : {"A", "a"}) {
        pic = -5;
        EXPECT_EQ(clafMyPic(good, &pic), 0);
        EXPECT_EQ(pic, 1);
    }
}

TEST(Identity, StartTimeIsACopyOfTheUptimeThatKeepsALongerTail) {
    constexpr const char *kFirst = "/etc/korin/datefile0", *kSecond = "/etc/korin/datefile1";
    EXPECT_EQ(setSwitchStarttime(0), 0);
    float up = 0, idle = 0;
    EXPECT_EQ(sscanf(support::read_file(kFirst).c_str(), "%f %f\n", &up, &idle), 2);
    EXPECT_NE(access(kSecond, F_OK), 0);
    struct stat status {};
    ASSERT_EQ(stat(kFirst, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644U);

    uptime_file = "/tmp/uptime";
    std::string long_text;
    for (int n = 0; long_text.size() < 700; ++n)
        long_text += std::to_string(n) + " ";
    support::write_file(uptime_file, long_text);
    write_limit = 7;
    EXPECT_EQ(setStartall(), 0);
    write_limit = SIZE_MAX;
    EXPECT_EQ(support::read_file(kSecond), long_text);
    support::write_file(uptime_file, "12.3 4\n");
    EXPECT_EQ(setSwitchStarttime(1), 0);
    EXPECT_EQ(support::read_file(kSecond), long_text.replace(0, 7, "12.3 4\n"));

    write_limit = 0;
    int result = setSwitchStarttime(0);
    write_limit = SIZE_MAX;
    EXPECT_EQ(result, -1);
    unlink(kFirst);
    unlink(kSecond);
    EXPECT_EQ(setSwitchStarttime(2), -1);
    EXPECT_EQ(setSwitchStarttime(-1), -1);
    uptime_file = "/tmp";  // opens, but cannot be read
    EXPECT_EQ(setSwitchStarttime(1), -1);
    uptime_file = "/tmp/none";
    EXPECT_EQ(setSwitchStarttime(0), -1);
    EXPECT_NE(access(kFirst, F_OK), 0);
    uptime_file = nullptr;
    ASSERT_EQ(symlink("/tmp/victim", kFirst), 0);
    unlink(kSecond);
    EXPECT_EQ(setStartall(), -1);
    EXPECT_NE(access("/tmp/victim", F_OK), 0);
    EXPECT_NE(access(kSecond, F_OK), 0) << "the second file is not attempted";
    unlink(kFirst);
}

}  // namespace

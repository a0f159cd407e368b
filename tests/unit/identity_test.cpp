// SPDX-License-Identifier: Apache-2.0
// Node, switch, slot and pic of the process, and the files of its start times.
#include "utils/identity.h"

#include <dlfcn.h>
#include <sys/syscall.h>

#include "support/support.h"

namespace {
bool formatting_fails;
}  // namespace

extern "C" {
using Format = int(char *, size_t, const char *, va_list);
Format fake_vsnprintf __asm__("vsnprintf");
int fake_vsnprintf(char *to, size_t size, const char *format, va_list values) {
    static auto next = reinterpret_cast<Format *>(dlsym(RTLD_NEXT, "vsnprintf"));
    return formatting_fails ? -1 : next(to, size, format, values);
}
int checked(char *, size_t, int, size_t, const char *, va_list) __asm__("__vsnprintf_chk");
int checked(char *to, size_t size, int, size_t, const char *format, va_list values) {
    return fake_vsnprintf(to, size, format, values);
}
}

namespace {

using namespace std::string_literals;

TEST(Identity, NodeIsFiveOnlyWhenTheFileSaysSo) {
    const std::pair<std::string, int> cases[] = {
        {"\1\2\3\4\0\5\0\0\0\0\0\0more"s, 56}, {"\0\0\0\0\0\5"s, 56}, {"\0\0\0\0\5\0\0\0"s, 65},
        {"\0\5\0\5\1\5\0\5\0\0\0\0"s, 65},     {"\0\0\0\0\0"s, 65},   {"none", 65}};
    for (const auto &[file, nodes] : cases) {
        support::write_file("/config/haconfig", file);
        if (file == "none")
            unlink("/config/haconfig");
        support::Ending ending = support::in_child([] {
            int node = myNode();
            unlink("/config/haconfig");  // which is read once
            return node * 10 + peerNode();
        });
        EXPECT_EQ(ending.status, nodes);
        EXPECT_EQ(ending.err, file != "none" ? "" : "open haconfig:: No such file or directory\n");
    }
}

TEST(Identity, NumbersComeFromTheEnvironmentOnceAndBadOnesAreZero) {
    support::leaves({.blocks = 40});  // the environment's
    const std::pair<const char *, const char *> cases[] = {
        {"none", "0 0 0\n"}, {"x", "0 0 0\n"},     {"-1", "0 0 0\n"},  {"16", "16 16 16\n"},
        {"17", "17 0 0\n"},  {"240", "240 0 0\n"}, {"241", "0 0 0\n"}, {"4294967295", "0 0 0\n"}};
    for (const auto &[text, line] : cases) {
        for (const char *variable : {IDENTITY_ENV_SWITCH, IDENTITY_ENV_SLOT, IDENTITY_ENV_PIC})
            text != "none"s ? setenv(variable, text, 1) : unsetenv(variable);
        support::Ending ending = support::in_child([] {
            for (int turn = 0; turn < 2; ++turn, clearenv())
                printf("%d %d %d\n", getMySwitch(), getMySlot(), getMyPic());
            return 0;
        });
        EXPECT_EQ(ending.out, line + std::string(line));
    }
}

TEST(Identity, SetMySwitchChangesThisProcessAndThoseItStarts) {
    support::Ending ending = support::in_child([] {
        unsetenv(IDENTITY_ENV_SWITCH);
        EXPECT_EQ(getMySwitch(), 0);  // known from here on
        for (auto [set, n, result] : {std::tuple(&setMySwitch, 7, 0),
                                      {&setMySwitch, 241, -7},
                                      {&setMySwitch, -1, -7},
                                      {&exportMySwitch, 241, -7},
                                      {&exportMySwitch, 3, 0}})
            EXPECT_EQ(set(n), result) << n;
        formatting_fails = true;
        EXPECT_EQ(setMySwitch(8), -1);
        formatting_fails = false;
        EXPECT_EQ(getMySwitch(), 7);
        fflush(stdout);
        return testing::Test::HasFailure() ? 1 : system("echo $KORIN_SWITCHNO");
    });
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(
        ending.out,
        "export KORIN_SWITCHNO=3setMySwitch: snprintf(%s=%d, KORIN_SWITCHNO, 8) returned -1\n7\n");
}

TEST(Identity, HandlersStoreWhatTheyAccept) {
    const std::tuple<int (*)(const char *, void *), const char *, int, int32_t> cases[] = {
        {clafMySlot, "99", 0, 99}, {clafMySlot, "x", 1, -5}, {clafMyPic, "A", 0, 1},
        {clafMyPic, "a", 0, 1},    {clafMyPic, "B", 1, -5},  {clafMyPic, "AA", 1, -5},
        {clafMyPic, "", 1, -5},    {clafMyPic, "!", 1, -5},  {clafMySwitch, "x", -7, -5}};
    for (const auto &[handler, text, result, stored] : cases) {
        int32_t value = -5;
        EXPECT_EQ(handler(text, &value), result) << text;
        EXPECT_EQ(value, stored) << text;
    }
    int16_t number[] = {-5, -5};
    EXPECT_EQ(clafMySwitch("65537", number), -7);
    EXPECT_THAT(number, testing::ElementsAre(1, -5));
    EXPECT_EQ(clafMySwitch("3", nullptr), -7);
    EXPECT_EQ(clafMyPic(nullptr, number), 1);
    EXPECT_EQ(clafMyPic("a", nullptr), 0);
}

TEST(Identity, StartTimeIsACopyOfTheUptimeThatKeepsALongerTail) {
    constexpr const char *kFirst = "/etc/korin/datefile0", *kSecond = "/etc/korin/datefile1";
    EXPECT_EQ(setSwitchStarttime(0), 0);
    float up = 0, idle = 0;
    EXPECT_EQ(sscanf(support::read_file(kFirst).c_str(), "%f %f\n", &up, &idle), 2);
    struct stat status {};
    EXPECT_EQ(stat(kFirst, &status), 0);
    EXPECT_EQ(access(kSecond, F_OK), -1);
    EXPECT_EQ(status.st_mode & 0777, 0644U);

    static const char *uptime_file = "/tmp/uptime";
    support::replace_call("open", [](const char *path, int flags, uintptr_t mode) {
        return open(path == "/proc/uptime"s ? uptime_file : path, flags, static_cast<mode_t>(mode));
    });
    std::string long_text(700, '7');
    support::write_file(uptime_file, long_text);
    utils_testing_short_io(7);
    EXPECT_EQ(setStartall(), 0);
    support::write_file(uptime_file, "12.3 4\n");
    EXPECT_EQ(setSwitchStarttime(1), 0);
    support::replace_call("write", [](int, const void *, size_t) -> ssize_t { return 0; });
    EXPECT_EQ(setSwitchStarttime(1), -1);
    utils_testing_replace_call("write", nullptr);
    utils_testing_short_io(0);
    EXPECT_EQ(support::read_file(kFirst), long_text);
    EXPECT_EQ(support::read_file(kSecond), "12.3 4\n" + long_text.substr(7));

    EXPECT_EQ(setSwitchStarttime(2), -1);
    EXPECT_EQ(setSwitchStarttime(-1), -1);
    unlink(kFirst);
    unlink(kSecond);
    uptime_file = "/tmp";  // opens, but cannot be read
    EXPECT_EQ(setSwitchStarttime(1), -1);
    uptime_file = "/tmp/none";
    EXPECT_EQ(setSwitchStarttime(0), -1);
    EXPECT_NE(access(kFirst, F_OK), 0);
    utils_testing_reset();
    unlink(kSecond);
    EXPECT_EQ(symlink(kSecond, kFirst), 0);
    EXPECT_EQ(setSwitchStarttime(0), 0);
    EXPECT_EQ(access(kSecond, F_OK), 0) << "a link is followed";
    unlink(kSecond);
    unlink(kFirst);
    EXPECT_EQ(symlink(kFirst, kFirst), 0);
    EXPECT_EQ(setStartall(), -1);
    EXPECT_NE(access(kSecond, F_OK), 0) << "nor is the second file attempted";
    unlink(kFirst);
}

}  // namespace

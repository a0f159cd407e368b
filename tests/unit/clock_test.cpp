// SPDX-License-Identifier: Apache-2.0
#include "utils/clock.h"

#include <sys/stat.h>
#include <sys/times.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "support/support.h"
#include "utils/platform/release.h"
#include "utils/platform/timebase.h"
#include "utils/ticks.h"

namespace {

uint64_t time_base;

int set_time(int64_t seconds) {
    return utils_testing_set_clock(CLOCK_REALTIME, seconds * support::kSecond);
}

int64_t ticks_now;
const char *instead;  // what is opened in place of any file
std::string piped;
std::vector<int> statuses;  // what system() answers; when empty, the real one

}  // namespace

uint64_t timebase_read(void) {
    return time_base;
}

namespace {

[[maybe_unused]] const bool faked = [] {
    support::replace_call("times", [](tms *) { return static_cast<clock_t>(ticks_now); });
    support::replace_call("fopen", [](const char *path, const char *mode) {
        return fopen(instead != nullptr ? instead : path, mode);
    });
    support::replace_call("popen", [](const char *command, const char *mode) {
        return popen((piped = command).c_str(), mode);
    });
    return true;
}();

// system() shows what it is given.
void show_commands() {
    support::replace_call("system", [](const char *command) {
        printf("%s\n", command);
        if (statuses.empty())
            return system(command);
        int status = statuses.front();
        statuses.erase(statuses.begin());
        return status;
    });
}

// How often, of many moments, the millisecond clock differs from the division that it stands for.
int wrong_milliseconds() {
    std::mt19937_64 random(1);
    const auto rate = static_cast<uint64_t>(std::max(tb_ticks_p_msec, 1));
    int wrong = 0;
    for (int i = 0; i < 100000; ++i) {
        perf_record record;
        time_base = random() >> random() % 64;
        if (i % 2 == 0)
            time_base = time_base / rate * rate - static_cast<unsigned>(i) % 4 / 2;
        perf_start(&record);
        wrong += record.start != static_cast<uint32_t>(time_base / rate);
    }
    return wrong;
}

// Started anew with a word in the environment, the program only does what that says, and prints it.
const bool started_anew = [] {
    const char *task = getenv("CLOCK_TASK");
    if (task == nullptr)
        return false;
    show_commands();
    if (*task == 't')
        printf("%d %d %d %d %d, %d wrong\n", msec_per_jiffy, tb_ticks_per_jiffy, tb_ticks_p_msec,
               tb_ticks_p_usec, tb_ticks_p_sec, wrong_milliseconds());
    else
        printf("%d\n", syncDateAndTime());
    fflush(stdout);
    _exit(0);
}();

// What this program prints when it is started anew behind `launcher`.
std::string printed_anew(const std::string &task, const std::string &launcher = "") {
    char self[PATH_MAX] = {};
    EXPECT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    std::string command = "CLOCK_TASK=" + task + " " + launcher + support::runnable(self);
    EXPECT_EQ(system((command + " > /tmp/printed").c_str()), 0);
    return support::read_file("/tmp/printed");
}

TEST(Clock, TickGlobalsAreSetFromTheFileBeforeAnyCodeOfTheProgram) {
    constexpr const char *kTickFile = "/etc/korin/tb_ticks_per_jiffy";
    auto word = [](int32_t value) {
        return std::string(reinterpret_cast<const char *>(&value), sizeof value);
    };
    const char *defaults = "10 2000000 200000 200 200000000, 0 wrong\n";
    const std::pair<std::string, const char *> cases[] = {
        {"", defaults},
        {"abc", defaults},
        {word(-1), defaults},
        {word(333333) + "tail", "10 333333 33333 33 33333000, 0 wrong\n"},
        {word(0), "10 0 0 0 0, 0 wrong\n"},
        {word(INT32_MAX), "10 2147483647 214748364 214748 2147483647, 0 wrong\n"}};
    std::string kept = support::read_file(kTickFile);
    for (const auto &[file, printed] : cases) {
        support::write_file(kTickFile, file);
        EXPECT_EQ(printed_anew("ticks"), printed);
    }
    unlink(kTickFile);
    EXPECT_EQ(printed_anew("ticks"), defaults);
    if (!kept.empty())
        support::write_file(kTickFile, kept);
}

TEST(Clock, IntervalsAreCountedAndAShortestOfZeroCountsAsUnset) {
    // Each interval and what the record holds behind it; the last one spans the wrap of 32 bits.
    struct {
        uint64_t from, to;
        perf_record after;
    } cases[] = {{0, 70, {0, 70, 70, 70, 1}},
                 {100, 100, {100, 70, 0, 70, 2}},
                 {100, 105, {100, 70, 5, 75, 3}},
                 {100, 200, {100, 100, 5, 175, 4}},
                 {0xfffffffe, 0x100000003, {0xfffffffe, 100, 5, 180, 5}}};
    perf_record record;
    memset(&record, 0xff, sizeof record);
    perf_init(&record);
    for (const auto &c : cases) {
        time_base = c.from * static_cast<uint64_t>(tb_ticks_p_msec);
        if (c.from > 0)  // the first is measured from time 0 without a start
            perf_start(&record);
        time_base = c.to * static_cast<uint64_t>(tb_ticks_p_msec);
        EXPECT_EQ(perf_stop(&record), c.to - c.from);
        EXPECT_EQ(memcmp(&record, &c.after, sizeof record), 0) << c.after.count;
    }
    for (int32_t rate : {1, 7, tb_ticks_p_msec}) {  // a program may write to the globals
        tb_ticks_p_msec = rate;
        EXPECT_EQ(wrong_milliseconds(), 0) << rate;
    }
    perf_start(nullptr);
    EXPECT_EQ(perf_stop(nullptr), 0U);
}

TEST(Clock, QelTimesFollowsTimesWithOneCallInTwelveThousandTicks) {
    const struct {
        int jiffies;
        int64_t ticks;
        int32_t result;
        int64_t calls;
    } cases[] = {
        {500, -1, -1, 1},
        {500, 1000000, 1000000, 2},
        {501, 0, 1000001, 2},
        {12500, 0, 1012000, 2},
        {12501, 2000000, 1012001, 2},  // past the anchor: still the old line, then a new one
        {12501, 2000000, 2000000, 3},
        {12500, -2, 1999999, 3},  // before the anchoring
        {12500, -2, -2, 4},
        {12501, 0, 0, 4},   // -1 would look like an error
        {12600, 0, 98, 4},  // signed differences across the wrap
    };
    for (const auto &c : cases) {
        time_base = static_cast<uint64_t>(c.jiffies) * static_cast<uint64_t>(tb_ticks_per_jiffy);
        ticks_now = c.ticks;
        EXPECT_EQ(qel_times(), c.result);
        EXPECT_EQ(utils_testing_count_calls("times"), c.calls);
    }
}

constexpr bool k32BitHost = sizeof(void *) == 4;

TEST(Clock, CountersPrintAndFormat) {
    auto now = static_cast<uint32_t>(time(nullptr)) * 1000U;
    EXPECT_LT(msSysClk() - now, 5000U);
    EXPECT_TRUE(sysProbe(0) == 0 && sysProbe(UINTPTR_MAX) == 1);
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(msClock(), 0); }),
              "Not ported. Use msSysClk() \n");
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(rtClock(), 21); }), "rtClock() not ported\n");
    char text[CLOCK_MS_TIME_ROOM];
    const std::tuple<const char *, timeval, const char *> times[] = {
        {"XYZ-2", {86399, 999999}, "Jan 02 01:59:59.000"},
        {"UTC0", {0, 2500000}, "Jan 01 00:00:00.002"},  // a changed zone is noticed
        {"UTC0", {INT64_C(0x80000000), 1}, "Jan 19 03:14:08.000"},
        // Exported, it takes 32 bits of the seconds where a pointer has no more.
        {"UTC0",
         {INT64_C(0x100015180), 0},
         k32BitHost ? "Jan 02 00:00:00.000" : "Feb 08 06:28:16.000"}};
    for (const auto &[zone, moment, expected] : times) {
        setenv("TZ", zone, 1);
        EXPECT_EQ(get_ms_time(&moment, text), 4);
        EXPECT_STREQ(text, expected);
        EXPECT_EQ(get_time(moment.tv_sec, text), 15);
        EXPECT_EQ(text, std::string(expected, 15));
    }
    EXPECT_EQ(get_time(0, nullptr) + get_ms_time(nullptr, text), 0);
}

TEST(Clock, BootDateIsNowLessTheUptimeInWholeSeconds) {
    setenv("TZ", "UTC0", 1);
    EXPECT_NE(dateBooted(), nullptr);
    set_time(1000);
    EXPECT_STREQ(dateCurrent(), "Thu Jan  1 00:16:40 1970\n");
    set_time(INT64_C(0x80000000));
    EXPECT_STREQ(dateCurrent(), "Tue Jan 19 03:14:08 2038\n");
    EXPECT_EQ(std::string(dateBooted()).substr(20), "2038\n");
    set_time(1000);
    instead = "/tmp/uptime";
    EXPECT_EQ(dateBooted(), nullptr) << "no such file";
    const std::pair<const char *, const char *> cases[] = {
        {"100.75 3.2\n", "Thu Jan  1 00:14:59 1970\n"},
        {"1000 1", "Thu Jan  1 00:00:00 1970\n"},
        {"1000.5 1", nullptr},
        {"12.3\n", nullptr},
        {"up 1", nullptr}};
    for (const auto &[uptime, date] : cases) {
        support::write_file("/tmp/uptime", uptime);
        EXPECT_STREQ(dateBooted(), date);
    }
    utils_testing_release_clock(CLOCK_REALTIME);
    instead = nullptr;
}

void write_program(const std::string &path, const std::string &text) {
    support::write_file(path, "#!/bin/sh\n" + text);
    chmod(path.c_str(), 0755);
}

TEST(Clock, PackageDatesAreTheFirstLineOfTheQuery) {
    mkdir("/tmp/bin", 0755);
    write_program("/tmp/bin/rpm", "printf '[%s]' \"$@\" > /tmp/asked\ncat /tmp/answer\n");
    setenv("PATH", (std::string("/tmp/bin:") + getenv("PATH")).c_str(), 1);
    const std::string cases[] = {" Mon 02 Jan 2006", "one\ntwo\n", "", std::string(500, 'x')};
    const std::string dates[] = {" Mon 02 Jan 2006", "one\n", "", std::string(199, 'x')};
    const std::string query = "rpm -q --queryformat \"% {INSTALLTIME:date}\" ",
                      asked = "[-q][--queryformat][% {INSTALLTIME:date}]";
    auto check = [&](char *(*date)(), const std::string &command, const std::string &words) {
        for (size_t n = 0; n < std::size(cases); ++n) {
            support::write_file("/tmp/answer", cases[n]);
            EXPECT_EQ(date(), dates[n]);
            EXPECT_EQ(piped, query + command);
            EXPECT_EQ(support::read_file("/tmp/asked"), asked + words);
        }
        utils_testing_fail_call("popen", 1, EMFILE, UTILS_TESTING_FROM_THEN_ON);
        EXPECT_EQ(date(), nullptr);
        utils_testing_fail_call("popen", 1, EMFILE, 0);
    };
    check(dateBootProm, "--whatprovides prom", "[--whatprovides][prom]");
    check(dateFirmwareLoaded, "korin", "[korin]");
    EXPECT_NE(dateBootProm(), dateFirmwareLoaded()) << "each has a buffer of its own";
}

// The release record of a host is "Release " and what its file says.
TEST(Clock, FirmwareVersionIsCutOutOfTheReleaseName) {
    const std::pair<const char *, const char *> cases[] = {
        {"NAME=x\nVERSION_ID=\"12\"\nVERSION_ID=13\n", "v12"},
        {"VERSION_ID='Fabric  OS\tx7.1_rc1 beta'", "v7.1_rc1"},
        {"VERSION_ID=Name\n", "v"},
        {"VERSION_ID=\"\"\nOTHER_VERSION_ID=1\n", nullptr},
        {"VERSION_ID=11111111112222222222333333333344444444445555555555666666666677\n",
         "v111111111122222222223333333333444444444455555555556666"}};
    instead = "/tmp/os-release";
    EXPECT_STREQ(getFirmwareVersion(), nullptr) << "no such file";
    for (const auto &[file, version] : cases) {
        support::write_file("/tmp/os-release", file);
        EXPECT_STREQ(getFirmwareVersion(), version);
    }
    instead = nullptr;
    release_info info{};
    EXPECT_NE(get_release_info(1, &info), 0);
}

// Node 6, whose peer is 5, and the other way round; the addresses are the documented defaults.
const std::tuple<std::string, std::string, std::string> kDirections[] = {
    {{"\0\0\0\0\0\6", 6},
     "/usr/bin/rsh 127.0.5.1 rdate -s 127.0.6.1\n",
     "/usr/bin/rsh 127.0.5.1 /sbin/hwclock -w\n"},
    {{"\0\0\0\0\0\5", 6},
     "/usr/bin/rsh 127.0.6.1 rdate -s 127.0.5.1\n",
     "/usr/bin/rsh 127.0.6.1 /sbin/hwclock -w\n"}};

TEST(Clock, SyncDateRunsTheSecondCommandUnlessTheFirstAnswersMinusOneOrOne) {
    const std::pair<std::vector<int>, int> cases[] = {{{0, 0}, 0},     {{256, 7}, 7}, {{0, -1}, -1},
                                                      {{0, 256}, 256}, {{-1}, -1},    {{1}, -1}};
    for (const auto &[node_file, set, store] : kDirections) {
        support::write_file("/config/haconfig", node_file);
        for (const auto &[answers, result] : cases) {
            support::Ending ending = support::in_child([&, expected = result, a = answers] {
                show_commands();
                statuses = a;
                return syncDateAndTime() == expected && statuses.empty() ? 0 : 1;
            });
            EXPECT_EQ(ending.status, 0);
            EXPECT_EQ(ending.out, answers.size() == 2 ? set + store : set);
        }
    }
}

// In a view of the system in which /usr/bin has an rsh that writes down what it was asked.
TEST(Clock, SyncDateReachesTheRemoteShellAtItsPath) {
    write_program("/tmp/view", R"(set -e
mkdir -p /tmp/real /tmp/usrbin
mount --bind /usr/bin /tmp/real
cp -rs /tmp/real/. /tmp/usrbin
mv /tmp/rsh /tmp/usrbin/rsh
mount --bind /tmp/usrbin /usr/bin
exec "$@"
)");
    for (const auto &[node_file, set, store] : kDirections) {
        support::write_file("/config/haconfig", node_file);
        write_program("/tmp/rsh", "echo \"$0 $*\" >> /tmp/rsh.log\nexit 3\n");
        support::write_file("/tmp/rsh.log", "");
        ASSERT_EQ(system("rm -rf /tmp/usrbin"), 0);
        EXPECT_EQ(printed_anew("sync", "unshare --map-root-user --mount /tmp/view "),
                  set + store + "768\n");
        EXPECT_EQ(support::read_file("/tmp/rsh.log"), set + store);
    }
}

}  // namespace

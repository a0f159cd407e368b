// SPDX-License-Identifier: Apache-2.0
// Counters and interval records of a set time base, and dates that files, packages and system() give.
#include "utils/clock.h"

#include <locale.h>
#include <sys/times.h>

#include "support/support.h"
#include "utils/cla.h"
#include "utils/platform/release.h"
#include "utils/platform/timebase.h"
#include "utils/ticks.h"

namespace {
uint64_t time_base;
}  // namespace

uint64_t timebase_read(void) {
    return time_base;
}

namespace {

int64_t ticks_now;
const char *instead;  // what is opened in place of any file
std::string piped;
std::vector<int> statuses;  // what system() answers, after it has shown what it is given

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

int set_time(int64_t seconds) {
    return utils_testing_set_clock(CLOCK_REALTIME, seconds * support::kSecond);
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

// Started anew with a word in the environment, the program only prints what it finds then.
const bool started_anew = [] {
    if (getenv("CLOCK_TASK") == nullptr)
        return false;
    printf("%d %d %d %d %d, %d wrong\n", msec_per_jiffy, tb_ticks_per_jiffy, tb_ticks_p_msec,
           tb_ticks_p_usec, tb_ticks_p_sec, wrong_milliseconds());
    fflush(stdout);
    _exit(0);
}();

std::string printed_anew() {
    char self[PATH_MAX] = {};
    EXPECT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    return support::captured(
        1, [&] { EXPECT_EQ(system(("CLOCK_TASK=1 " + support::runnable(self)).c_str()), 0); });
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
        EXPECT_EQ(printed_anew(), printed);
    }
    unlink(kTickFile);
    EXPECT_EQ(printed_anew(), defaults);
    if (!kept.empty())
        support::write_file(kTickFile, kept);
}

TEST(Clock, IntervalsAreCountedAndAShortestOfZeroCountsAsUnset) {
    // Each interval and what the record holds behind it; the last one spans the wrap of 32 bits.
    struct {
        uint64_t from, to;
        perf_record after;
    } cases[] = {{0, 1, {0, 1, 1, 1, 1}},
                 {100, 100, {100, 1, 0, 1, 2}},
                 {100, 105, {100, 5, 5, 6, 3}},
                 {100, 200, {100, 100, 5, 106, 4}},
                 {0xfffffffe, 0x100000003, {0xfffffffe, 100, 5, 111, 5}}};
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
    EXPECT_EQ(sysProbe(0), 0);
    EXPECT_EQ(sysProbe(UINTPTR_MAX), 1);
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(msClock(), 0); }),
              "Not ported. Use msSysClk() \n");
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(rtClock(), 21); }), "rtClock() not ported\n");
    char text[CLOCK_MS_TIME_ROOM];
    const std::tuple<const char *, timeval, std::string> times[] = {
        {"XYZ-2", {86399, 999999}, "Jan 02 01:59:59.000"},
        {"UTC0", {0, 2500000}, "Jan 01 00:00:00.002"},  // a changed zone is noticed
        {"UTC0", {INT64_C(0x80000000), 1}, "Jan 19 03:14:08.000"},
        // Exported, it takes 32 bits of the seconds where a pointer has no more.
        {"UTC0",
         {INT64_C(0x100015180), 0},
         k32BitHost ? "Jan 02 00:00:00.000" : "Feb 08 06:28:16.000"},
        // Beyond all years there is no date.
        {"UTC0", {INT64_MAX, 0}, k32BitHost ? "Feb 07 06:28:15.000" : ".000"}};
    for (const auto &[zone, moment, expected] : times) {
        setenv("TZ", zone, 1);
        EXPECT_EQ(get_ms_time(&moment, text), 4);
        EXPECT_EQ(text, expected);
        EXPECT_EQ(get_time(moment.tv_sec, text), static_cast<int>(expected.size()) - 4);
        EXPECT_EQ(text, expected.substr(0, expected.size() - 4));
    }
    EXPECT_EQ(get_time(0, nullptr), 0);
    EXPECT_EQ(get_ms_time(nullptr, text), 0);
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

TEST(Clock, NoLocaleChangesWhatTheSystemReads) {
    setenv("LOCPATH", "/tmp", 1);
    if (system("localedef -i tr_TR -f UTF-8 /tmp/tr_TR.UTF-8") != 0 ||
        !support::passes_in_child([] { ASSERT_NE(setlocale(LC_ALL, "tr_TR.UTF-8"), nullptr); }))
        GTEST_SKIP() << "there is no Turkish locale";
    EXPECT_TRUE(support::passes_in_child([] {
        setlocale(LC_ALL, "tr_TR.UTF-8");
        char word[] = "TITLE", *words[] = {word};
        EXPECT_EQ(clafArgPresent(1, words, "title"), 1);
        EXPECT_EQ(clafArgPresent(1, words, "titles"), 0);
        EXPECT_NE(dateBooted(), nullptr);
    }));
}

TEST(Clock, PackageDatesAreTheFirstLineOfTheQuery) {
    mkdir("/tmp/bin", 0755);
    support::write_file("/tmp/bin/rpm", R"(#!/bin/sh
printf '[%s]' "$@" > /tmp/asked
cat /tmp/answer
)");
    chmod("/tmp/bin/rpm", 0755);
    setenv("PATH", (std::string("/tmp/bin:") + getenv("PATH")).c_str(), 1);
    const std::pair<std::string, std::string> cases[] = {
        {" Mon 02 Jan 2006", " Mon 02 Jan 2006"},
        {"one\ntwo\n", "one\n"},
        {"", ""},
        {std::string(500, 'x'), std::string(199, 'x')}};
    for (auto [date, command, words] :
         {std::tuple(&dateBootProm, "--whatprovides prom", "[--whatprovides][prom]"),
          {&dateFirmwareLoaded, "korin", "[korin]"}}) {
        for (const auto &[answer, line] : cases) {
            support::write_file("/tmp/answer", answer);
            EXPECT_EQ(date(), line);
            EXPECT_EQ(piped,
                      std::string("rpm -q --queryformat \"% {INSTALLTIME:date}\" ") + command);
            EXPECT_EQ(support::read_file("/tmp/asked"),
                      std::string("[-q][--queryformat][% {INSTALLTIME:date}]") + words);
        }
        utils_testing_fail_call("popen", 1, EMFILE, UTILS_TESTING_FROM_THEN_ON);
        EXPECT_EQ(date(), nullptr);
        utils_testing_fail_call("popen", 1, EMFILE, 0);
    }
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

// The addresses are the documented defaults.
TEST(Clock, SyncDateRunsTheSecondCommandUnlessTheFirstAnswersMinusOneOrOne) {
    const std::pair<std::vector<int>, int> cases[] = {{{0, 0}, 0},     {{256, 7}, 7}, {{0, -1}, -1},
                                                      {{0, 256}, 256}, {{-1}, -1},    {{1}, -1}};
    for (std::string node : {"5", "6"}) {
        std::string shell = node == "5" ? "/usr/bin/rsh 127.0.6.1 " : "/usr/bin/rsh 127.0.5.1 ";
        std::string set = shell + "rdate -s 127.0." + node + ".1\n";
        support::write_file("/config/haconfig", std::string(5, '\0') + char(node[0] - '0'));
        EXPECT_TRUE(support::passes_in_child([&] {
            support::replace_call("system", [](const char *command) {
                printf("%s\n", command);
                int status = statuses.at(0);
                statuses.erase(statuses.begin());
                return status;
            });
            for (const auto &[answers, expected] : cases) {
                statuses = answers;
                auto sync = [result = expected] { EXPECT_EQ(syncDateAndTime(), result); };
                EXPECT_EQ(support::captured(1, sync),
                          answers.size() == 1 ? set : set + shell + "/sbin/hwclock -w\n");
                EXPECT_TRUE(statuses.empty());
            }
        }));
    }
}

}  // namespace

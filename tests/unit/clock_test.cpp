#include "utils/clock.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/times.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "platform/release.h"
#include "platform/timebase.h"
#include "support/support.h"

namespace {

template <typename Function>
Function *next(const char *name, Function *) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

uint64_t time_base;
int64_t ticks_now, times_calls;
time_t set_time;  // 0: the real one
std::map<std::string, std::string> files;
std::vector<std::string> piped;
bool pipes_fail;
std::vector<int> statuses;  // what system() answers; when empty, the real one
const char *release_name;   // null: the platform's

}  // namespace

uint64_t timebase_read(void) {
    return time_base;
}

int get_release_info(int which, release_info *info) {
    if (release_name == nullptr)
        return next("get_release_info", get_release_info)(which, info);
    if (which != 0 || *release_name == '\0')
        return -1;
    memcpy(info->name, release_name, std::min(strlen(release_name), sizeof info->name));
    return 0;
}

extern "C" {
clock_t fake_times(tms *) __asm__("times");
clock_t fake_times(tms *) {
    ++times_calls;
    return static_cast<clock_t>(ticks_now);
}
time_t fake_time(time_t *) __asm__("time");
time_t fake_time(time_t *out) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    time_t result = set_time != 0 ? set_time : now.tv_sec;
    if (out != nullptr)
        *out = result;
    return result;
}
FILE *fake_fopen(const char *path, const char *mode) __asm__("fopen64");
FILE *fake_fopen(const char *path, const char *mode) {
    auto found = files.find(path);
    return next("fopen64", fake_fopen)(found != files.end() ? found->second.c_str() : path, mode);
}
FILE *fake_popen(const char *command, const char *mode) __asm__("popen");
FILE *fake_popen(const char *command, const char *mode) {
    piped.emplace_back(command);
    return pipes_fail ? nullptr : next("popen", fake_popen)(command, mode);
}
int fake_system(const char *command) __asm__("system");
int fake_system(const char *command) {
    printf("%s\n", command);
    if (statuses.empty())
        return next("system", fake_system)(command);
    int status = statuses.front();
    statuses.erase(statuses.begin());
    return status;
}
}

namespace {

constexpr const char *kTickFile = "/etc/korin/tb_ticks_per_jiffy";

// Started anew with a word in the environment, the program only does what that says, and prints it.
const bool started_anew = [] {
    const char *task = getenv("CLOCK_TASK");
    if (task == nullptr)
        return false;
    if (*task == 't')
        printf("%d %d %d %d %d\n", msec_per_jiffy, tb_ticks_per_jiffy, tb_ticks_p_msec,
               tb_ticks_p_usec, tb_ticks_p_sec);
    else
        printf("%d\n", syncDateAndTime());
    fflush(stdout);
    _exit(0);
}();

// What this program prints when it is started anew behind `launcher`.
std::string printed_anew(const std::string &task, const std::string &launcher = "") {
    char self[PATH_MAX] = {}, line[200];
    EXPECT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    std::string command = "CLOCK_TASK=" + task + " " + launcher + support::runnable(self), all;
    FILE *pipe = next("popen", popen)(command.c_str(), "r");
    while (fgets(line, sizeof line, pipe) != nullptr)
        all += line;
    EXPECT_EQ(pclose(pipe), 0);
    return all;
}

TEST(Clock, TickGlobalsAreSetFromTheFileBeforeAnyCodeOfTheProgram) {
    ASSERT_EQ(sysconf(_SC_CLK_TCK), 100);
    auto word = [](int32_t value) {
        return std::string(reinterpret_cast<const char *>(&value), sizeof value);
    };
    const char *defaults = "10 2000000 200000 200 200000000\n";
    struct {
        std::string file, printed;
    } cases[] = {{"", defaults},
                 {"abc", defaults},
                 {word(-1), defaults},
                 {word(333333) + "tail", "10 333333 33333 33 33333000\n"},
                 {word(0), "10 0 0 0 0\n"},
                 {word(INT32_MAX), "10 2147483647 214748364 214748 2147483647\n"}};
    std::string kept = support::read_file(kTickFile);
    for (const auto &c : cases) {
        unlink(kTickFile);
        if (!c.file.empty())
            support::write_file(kTickFile, c.file);
        EXPECT_EQ(printed_anew("ticks"), c.printed);
    }
    kept.empty() ? void(unlink(kTickFile)) : support::write_file(kTickFile, kept);
}

TEST(Clock, IntervalsAreCountedAndAShortestOfZeroCountsAsUnset) {
    auto ms = [](uint64_t n) { time_base = n * static_cast<uint64_t>(tb_ticks_p_msec); };
    // Each interval and what the record holds behind it; the last one spans the wrap of 32 bits.
    const struct {
        uint64_t from, to;
        uint32_t interval, max, min, total;
    } cases[] = {{0, 70, 70, 70, 70, 70},
                 {100, 100, 0, 70, 0, 70},
                 {100, 105, 5, 70, 5, 75},
                 {100, 200, 100, 100, 5, 175},
                 {0xfffffffe, 0x100000003, 5, 100, 5, 180}};
    perf_record record;
    memset(&record, 0xff, sizeof record);
    perf_init(&record);
    uint32_t count = 0;
    for (const auto &c : cases) {
        ms(c.from);
        if (count > 0)  // the first is measured from time 0 without a start
            perf_start(&record);
        ms(c.to);
        EXPECT_EQ(perf_stop(&record), c.interval);
        const perf_record expected{static_cast<uint32_t>(c.from), c.max, c.min, c.total, ++count};
        EXPECT_EQ(memcmp(&record, &expected, sizeof record), 0) << count;
    }
    perf_start(nullptr);
    EXPECT_EQ(perf_stop(nullptr), 0U);
}

TEST(Clock, QelTimesFollowsTimesWithOneCallInTwelveThousandTicks) {
    auto base = [](int64_t jiffies) {
        time_base = static_cast<uint64_t>(jiffies) * static_cast<uint64_t>(tb_ticks_per_jiffy);
    };
    base(500);
    ticks_now = -1;
    EXPECT_EQ(qel_times(), -1);
    ticks_now = 1000000;
    EXPECT_EQ(qel_times(), 1000000);
    EXPECT_EQ(times_calls, 2);
    for (int64_t jiffies = 501; jiffies <= 12500; ++jiffies) {
        base(jiffies);
        ASSERT_EQ(qel_times(), 999500 + jiffies);
    }
    EXPECT_EQ(times_calls, 2);
    ticks_now = 2000000;
    base(12501);
    EXPECT_EQ(qel_times(), 1012001)
        << "past the anchor: still the old line, the next call re-anchors";
    EXPECT_EQ(qel_times(), 2000000);
    EXPECT_EQ(times_calls, 3);
    base(12500);
    EXPECT_EQ(qel_times(), 1999999) << "before the anchoring";
    ticks_now = -2;
    EXPECT_EQ(qel_times(), -2);
    base(12501);
    EXPECT_EQ(qel_times(), 0) << "-1 would look like an error";
    base(12600);
    EXPECT_EQ(qel_times(), 98) << "signed differences across the wrap";
    EXPECT_EQ(times_calls, 4);
}

TEST(Clock, CountersPrintAndFormat) {
    timeval now{};
    gettimeofday(&now, nullptr);
    auto expected = static_cast<uint32_t>(int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000);
    EXPECT_LT(msSysClk() - expected, 5000U);
    EXPECT_EQ(sysProbe(0), 0);
    EXPECT_EQ(sysProbe(UINTPTR_MAX), 1);
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(msClock(), 0); }),
              "Not ported. Use msSysClk() \n");
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(rtClock(), 21); }), "rtClock() not ported\n");

    setenv("TZ", "XYZ-2", 1);
    char text[CLOCK_MS_TIME_ROOM];
    EXPECT_EQ(get_time(86399, text), 15);
    EXPECT_STREQ(text, "Jan 02 01:59:59");
    for (suseconds_t microseconds : {0, 999999, 2500000}) {
        timeval moment{0, microseconds};
        EXPECT_EQ(get_ms_time(&moment, text), 4);
        EXPECT_STREQ(text, microseconds < 1000000 ? "Jan 01 02:00:00.000" : "Jan 01 02:00:00.002");
    }
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ(get_time(0, text), 15);
    EXPECT_STREQ(text, "Jan 01 00:00:00") << "a changed zone is noticed";
    EXPECT_EQ(get_time(0, nullptr), 0);
    set_time = 951782400;
    EXPECT_STREQ(dateCurrent(), "Tue Feb 29 00:00:00 2000\n");
    set_time = 0;
}

TEST(Clock, BootDateIsNowLessTheUptimeInWholeSeconds) {
    setenv("TZ", "UTC0", 1);
    EXPECT_NE(dateBooted(), nullptr);
    set_time = 1000;
    files["/proc/uptime"] = "/tmp/uptime";
    EXPECT_EQ(dateBooted(), nullptr) << "no such file";
    auto booted = [](const char *uptime) {
        support::write_file("/tmp/uptime", uptime);
        return dateBooted();
    };
    EXPECT_STREQ(booted("100.75 3.2\n"), "Thu Jan  1 00:14:59 1970\n");
    EXPECT_STREQ(booted("1000 1"), "Thu Jan  1 00:00:00 1970\n");
    for (const char *bad : {"1000.5 1", "12.3\n", "up 1", ""})
        EXPECT_EQ(booted(bad), nullptr) << bad;
    set_time = 0;
    files.clear();
}

void write_program(const std::string &path, const std::string &text) {
    support::write_file(path, "#!/bin/sh\n" + text);
    chmod(path.c_str(), 0755);
}

TEST(Clock, PackageDatesAreTheFirstLineOfTheQuery) {
    mkdir("/tmp/bin", 0755);
    write_program("/tmp/bin/rpm",
                  "for word; do echo \"[$word]\"; done > /tmp/asked\ncat /tmp/answer\n");
    std::string path = getenv("PATH");
    setenv("PATH", ("/tmp/bin:" + path).c_str(), 1);
    struct {
        std::string answer, date;
    } cases[] = {{" Mon 02 Jan 2006", " Mon 02 Jan 2006"},
                 {"one\ntwo\nthree\n", "one\n"},
                 {"", ""},
                 {std::string(500, 'x'), std::string(199, 'x')}};
    struct {
        char *(*query)();
        const char *command, *words;
    } queries[] = {
        {dateBootProm, "rpm -q --queryformat \"% {INSTALLTIME:date}\" --whatprovides prom",
         "[-q]\n[--queryformat]\n[% {INSTALLTIME:date}]\n[--whatprovides]\n[prom]\n"},
        {dateFirmwareLoaded, "rpm -q --queryformat \"% {INSTALLTIME:date}\" korin",
         "[-q]\n[--queryformat]\n[% {INSTALLTIME:date}]\n[korin]\n"}};
    for (const auto &q : queries) {
        for (const auto &c : cases) {
            support::write_file("/tmp/answer", c.answer);
            piped.clear();
            EXPECT_EQ(q.query(), c.date);
            EXPECT_EQ(piped, std::vector<std::string>{q.command});
            EXPECT_EQ(support::read_file("/tmp/asked"), q.words);
        }
        pipes_fail = true;
        EXPECT_EQ(q.query(), nullptr);
        pipes_fail = false;
    }
    EXPECT_NE(dateBootProm(), dateFirmwareLoaded()) << "each has a buffer of its own";
    setenv("PATH", path.c_str(), 1);
}

TEST(Clock, FirmwareVersionIsCutOutOfTheReleaseName) {
    struct {
        const char *name, *version;
    } cases[] = {{"Release 3.2.0", "v3.2.0"},
                 {"Fabric  OS\tx7.1_rc1 beta", "v7.1_rc1"},
                 {"3.2", "v3.2"},
                 {"Release", "v"},
                 {"", nullptr},
                 {"R 1111111111222222222233333333334444444444555555555566666666667777",
                  "v11111111112222222222333333333344444444445555555555666666666677"}};
    for (const auto &c : cases) {
        release_name = c.name;
        EXPECT_STREQ(getFirmwareVersion(), c.version);
    }
    release_name = nullptr;
    struct {
        const char *file, *version;
    } hosts[] = {{"NAME=x\nVERSION_ID=\"12\"\nVERSION_ID=13\n", "v12"},
                 {"VERSION_ID='3.18.4'\n", "v3.18.4"},
                 {"VERSION_ID=40", "v40"},
                 {"VERSION_ID=\"\"\n", nullptr},
                 {"OTHER_VERSION_ID=1\n", nullptr}};
    files["/etc/os-release"] = "/tmp/os-release";
    EXPECT_STREQ(getFirmwareVersion(), nullptr) << "no such file";
    for (const auto &h : hosts) {
        support::write_file("/tmp/os-release", h.file);
        EXPECT_STREQ(getFirmwareVersion(), h.version);
    }
    files.clear();
    release_info info{};
    EXPECT_NE(get_release_info(1, &info), 0);
}

struct Direction {
    const char *node_file, *set, *store;
};
// Node 6, whose peer is 5, and the other way round; the addresses are the documented defaults.
const Direction kDirections[] = {{"\0\0\0\0\0\6", "/usr/bin/rsh 127.0.5.1 rdate -s 127.0.6.1\n",
                                  "/usr/bin/rsh 127.0.5.1 /sbin/hwclock -w\n"},
                                 {"\0\0\0\0\0\5", "/usr/bin/rsh 127.0.6.1 rdate -s 127.0.5.1\n",
                                  "/usr/bin/rsh 127.0.6.1 /sbin/hwclock -w\n"}};

TEST(Clock, SyncDateRunsTheSecondCommandUnlessTheFirstAnswersMinusOneOrOne) {
    struct {
        std::vector<int> statuses;
        int result;
    } cases[] = {{{0, 0}, 0}, {{256, 7}, 7}, {{0, -1}, -1}, {{0, 256}, 256}, {{-1}, -1}, {{1}, -1}};
    for (const Direction &d : kDirections) {
        support::write_file("/config/haconfig", std::string(d.node_file, 6));
        for (const auto &c : cases) {
            support::Ending ending = support::in_child([&] {
                statuses = c.statuses;
                return syncDateAndTime() == c.result && statuses.empty() ? 0 : 1;
            });
            EXPECT_EQ(ending.status, 0);
            EXPECT_EQ(ending.out, c.statuses.size() == 2 ? std::string(d.set) + d.store : d.set);
        }
    }
}

// A view of the system in which /usr/bin has an rsh that writes down what it was asked.
constexpr const char *kEnterView = R"(set -e
mount --bind /usr/bin /tmp/real
cp -rs /tmp/real/. /tmp/usrbin
cp /tmp/rsh /tmp/usrbin/rsh
mount --bind /tmp/usrbin /usr/bin
exec "$@"
)";

TEST(Clock, SyncDateReachesTheRemoteShellAtItsPath) {
    write_program("/tmp/view", kEnterView);
    write_program(
        "/tmp/rsh",
        "echo \"/usr/bin/rsh $*\" >> /tmp/rsh.log\nread status < /tmp/rsh.status\nexit $status\n");
    mkdir("/tmp/real", 0755);
    for (const Direction &d : kDirections) {
        support::write_file("/config/haconfig", std::string(d.node_file, 6));
        for (int status : {0, 3}) {
            support::write_file("/tmp/rsh.log", "");
            support::write_file("/tmp/rsh.status", std::to_string(status) + "\n");
            EXPECT_EQ(system("rm -rf /tmp/usrbin; mkdir /tmp/usrbin"), 0);
            EXPECT_EQ(printed_anew("sync", "unshare --map-root-user --mount /tmp/view "),
                      std::string(d.set) + d.store + std::to_string(status << 8) + "\n");
            EXPECT_EQ(support::read_file("/tmp/rsh.log"), std::string(d.set) + d.store);
        }
    }
}

}  // namespace

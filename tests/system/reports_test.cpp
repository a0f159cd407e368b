// Files that several processes append to at the same time.
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <sstream>

#include "platform/rasevt.h"
#include "support/support.h"
#include "utils/service_stat.h"

namespace {

constexpr int kProcesses = 6, kRuns = 60, kCodes = 5;

// Runs `body` in several processes that start together; true when all end with status 0.
bool together(const std::function<void(int)> &body) {
    int gate[2];
    if (pipe(gate) != 0)
        return false;
    for (int p = 0; p < kProcesses; ++p) {
        if (fork() == 0) {
            char byte;
            close(gate[1]);
            while (read(gate[0], &byte, 1) > 0) {
            }
            body(p);
            _exit(0);
        }
    }
    close(gate[0]);
    close(gate[1]);
    bool fine = true;
    for (int p = 0, status = 0; p < kProcesses; ++p)
        fine = wait(&status) > 0 && status == 0 && fine;
    return fine;
}

TEST(Reports, StatisticsOfSeveralDaemonsNeverMix) {
    static const char *const names[kCodes] = {"zero", "one", "two", "three", "four"};
    ASSERT_TRUE(together([](int process) {
        serviceStat_init(kCodes);
        std::string label = "D" + std::to_string(process);
        for (int run = 0; run < kRuns; ++run) {
            for (int code = 0; code < kCodes; ++code) {
                serviceStats[code].calls = run;
                serviceStats[code].lowest_service_time = 0;
            }
            serviceStat_stop(label.c_str(), names, 9);
        }
    }));
    std::istringstream report(support::read_file("/var/log/serviceStat.sw9"));
    std::string line;
    for (int i = 0; i < 7; ++i)
        std::getline(report, line);
    std::map<int, int> runs;
    for (int i = 0; i < kProcesses * kRuns; ++i) {
        int process = -1;
        for (int code = 0; code < kCodes; ++code) {
            std::getline(report, line);
            ASSERT_EQ(line.size(), 124u) << line;
            int from = -1, calls = -1;
            char name[36];
            ASSERT_EQ(sscanf(line.c_str(), "D%d %35s %d", &from, name, &calls), 3) << line;
            ASSERT_TRUE(process == -1 || process == from) << line;
            process = from;
            ASSERT_STREQ(name, names[code]);
            ASSERT_EQ(calls, runs[process]) << line;
        }
        ++runs[process];
    }
    EXPECT_FALSE(std::getline(report, line)) << line;
}

TEST(Reports, RasEventsOfSeveralProcessesAreWholeLines) {
    ASSERT_TRUE(together([](int process) {
        std::string text(200, static_cast<char>('a' + process));
        text += '\n';
        for (int run = 0; run < kRuns; ++run) {
            rasevt_log("file", "function", 12, 0, 0, RASEVT_ASSERT_MESSAGE, text.c_str());
            rasevt_log("file", nullptr, 13, 0, 0, RASEVT_VERIFY);
        }
    }));
    std::istringstream events(support::read_file("/var/log/rasevt"));
    int count = 0;
    for (std::string line; std::getline(events, line); ++count)
        ASSERT_THAT(line,
                    testing::MatchesRegex(
                        "[0-9]+-[0-9]+-[0-9]+ [0-9:]+ reports_test\\[[0-9]+\\] "
                        "(0x0141000D file:function:12 (a+|b+|c+|d+|e+|f+)|0x00410004 file::13)"));
    EXPECT_EQ(count, 2 * kProcesses * kRuns);
}

}  // namespace

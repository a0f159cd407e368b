// SPDX-License-Identifier: Apache-2.0
// Files that several processes append to at the same time.
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "support/support.h"
#include "utils/platform/rasevt.h"
#include "utils/service_stat.h"

namespace {

constexpr int kProcesses = 6, kRuns = 60, kCodes = 5;

// Runs `body` in several processes that start together, and gives the file they append to.
std::istringstream written_together(const char *file, const std::function<void(int)> &body) {
    int gate[2];
    EXPECT_EQ(pipe(gate), 0);
    for (int p = 0; p < kProcesses; ++p) {
        if (fork() == 0) {
            char byte;
            close(gate[1]);
            _exit(read(gate[0], &byte, 1) == 0 ? (body(p), 0) : 1);
        }
    }
    close(gate[0]);
    close(gate[1]);
    for (int p = 0, status = 1; p < kProcesses; ++p) {
        EXPECT_GT(wait(&status), 0);
        EXPECT_EQ(status, 0);
    }
    return std::istringstream(support::read_file(file));
}

TEST(Reports, StatisticsOfSeveralDaemonsNeverMix) {
    static const char *const names[kCodes] = {"zero", "one", "two", "three", "four"};
    auto report = written_together("/var/log/serviceStat.sw9", [](int process) {
        serviceStat_init(kCodes);
        for (int run = 0; run < kRuns; ++run) {
            for (serviceStat *stat = serviceStats; stat < serviceStats + kCodes; ++stat) {
                stat->calls = run;
                stat->lowest_service_time = 0;
            }
            serviceStat_stop(("D" + std::to_string(process)).c_str(), names, 9);
        }
    });
    std::string line;
    for (int i = 0; i < 7; ++i)
        std::getline(report, line);
    int rows[kProcesses] = {};
    for (int i = 0; i < kProcesses * kRuns * kCodes; ++i) {
        std::getline(report, line);
        unsigned from = kProcesses;
        int calls = -1;
        char name[36];
        ASSERT_EQ(sscanf(line.c_str(), "D%u %35s %d", &from, name, &calls), 3) << line;
        ASSERT_TRUE(line.size() == 124 && from < kProcesses) << line;
        // No row of another process stands between those of one run.
        ASSERT_STREQ(name, names[i % kCodes]);
        ASSERT_EQ(rows[from]++, calls * kCodes + i % kCodes) << line;
    }
    EXPECT_FALSE(std::getline(report, line)) << line;
}

TEST(Reports, RasEventsOfSeveralProcessesAreWholeLines) {
    auto events = written_together("/var/log/rasevt", [](int process) {
        std::string text(200, static_cast<char>('a' + process));
        for (int run = 0; run < kRuns; ++run) {
            rasevt_log("file", "function", 12, 0, 0, RASEVT_ASSERT_MESSAGE, (text + "\n").c_str());
            rasevt_log("file", nullptr, 13, 0, 0, RASEVT_VERIFY);
        }
    });
    int count = 0;
    for (std::string line; std::getline(events, line); ++count)
        ASSERT_THAT(line,
                    testing::MatchesRegex(
                        "[0-9]+-[0-9]+-[0-9]+ [0-9:]+ reports_test\\[[0-9]+\\] "
                        "(0x0141000D file:function:12 (a+|b+|c+|d+|e+|f+)|0x00410004 file::13)"));
    EXPECT_EQ(count, 2 * kProcesses * kRuns);
}

}  // namespace

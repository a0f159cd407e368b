#include "utils/service_stat.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/heap.h"
#include "support/support.h"
#include "utils/clock.h"

namespace {

const char *const kNames[] = {"NS_QUERY", "NS_REGISTER", nullptr};

// The table stays the library's when it makes a new one; the test returns it.
class ServiceStat : public testing::Test {
  protected:
    void TearDown() override {
        free(serviceStats);
        serviceStats = nullptr;
        std::filesystem::remove("/var/log/serviceStat.sw3");
    }
    static std::string report() { return support::read_file("/var/log/serviceStat.sw3"); }
};

void expect_cleared(int count, uint64_t lowest) {
    for (int i = 0; i < count; ++i) {
        const serviceStat &s = serviceStats[i];
        EXPECT_EQ(s.lowest_service_time, lowest);
        EXPECT_EQ(s.total_service_time | s.highest_service_time | static_cast<uint64_t>(s.calls) |
                      s.total_queue_time | s.queue_samples,
                  0u);
        EXPECT_EQ(s.rejects | s.drops | s.highest_queue_time, 0);
    }
}

TEST_F(ServiceStat, ReportHasItsHeadingOnceAndRowsOfEveryRun) {
    serviceStatIsOn = 1;
    ASSERT_EQ(serviceStat_init(3), 0);
    EXPECT_EQ(serviceStatIsOn, 0);
    expect_cleared(3, UINT64_MAX);
    auto usec = static_cast<uint64_t>(tb_ticks_p_usec);
    serviceStats[0] = {7000000000 * usec, 4999999 * usec, 3 * usec, 700, 2, 3, 100, 60, 7};
    serviceStats[1] = {0, 0, 0, 0, 5, -1, 0, 0, 0};
    serviceStatIsOn = 1;
    serviceStat_stop("NS", kNames, 3);
    EXPECT_EQ(serviceStatIsOn, 0);
    expect_cleared(3, UINT64_MAX);
    serviceStat_stop("longlabel", nullptr, 3);
    std::string text = report();
    ASSERT_EQ(text.substr(0, 100),
              "                                        SWITCH SERVICE REQUEST RESPONSE TIMES       "
              "                ");
    tm date{};
    char *end = strptime(text.c_str() + 100, "%a %b %e %H:%M:%S %Y\n", &date);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(end - text.c_str(), 127);
    std::string ruler =
        "=======+=======+=======+===================================+========================\n";
    EXPECT_EQ(text.substr(124), "\n\n\n=======================================+" + ruler +
                                    "                 REQUEST                 CALLS   RJT/   Drop/ "
                                    "          Service Times (usec)        "
                                    "   Queue Times (msec)   \n"
                                    "Service   Req Code                                 BSY    "
                                    "Retry     Avg         High        Low     "
                                    "    Avg         High    \n"
                                    "=======================================+" +
                                    ruler +
                                    "NS   NS_QUERY                                700       2      "
                                    " 3    10000000     4999999           3"
                                    "          14          60\n"
                                    "NS   NS_REGISTER                               0       5      "
                                    "-1           0           0           0"
                                    "           0           0\n"
                                    "NS                                             0       0      "
                                    " 0           0           0           0"
                                    "           0           0\n" +
                                    "longlabel                                          0       0  "
                                    "     0           0           0"
                                    "           0           0           0\n"
                                    "longlabel                                          0       0  "
                                    "     0           0           0"
                                    "           0           0           0\n"
                                    "longlabel                                          0       0  "
                                    "     0           0           0"
                                    "           0           0           0\n");
}

TEST_F(ServiceStat, LostReportZeroesTheWholeTable) {
    ASSERT_EQ(serviceStat_init(2), 0);
    serviceStats[1].calls = 3;
    support::write_file("/tmp/victim", "precious");
    std::filesystem::create_symlink("/tmp/victim", "/var/log/serviceStat.sw3");
    EXPECT_EQ(support::captured(1, [] { serviceStat_stop("NS", kNames, 3); }),
              "\nfailed to open file /var/log/serviceStat.sw3\n");
    expect_cleared(2, 0);
    EXPECT_EQ(support::read_file("/tmp/victim"), "precious");
}

TEST_F(ServiceStat, WithoutATableOnlyTheHeadingIsWritten) {
    for (int count : {0, -1}) {
        EXPECT_EQ(serviceStat_init(count), 0);
        EXPECT_EQ(serviceStats, nullptr);
    }
#ifdef UTILS_FAKE_HEAP
    support::refuse_after = 0;
    EXPECT_EQ(serviceStat_init(2), -1);
    support::refuse_after = -1;
    EXPECT_EQ(serviceStats, nullptr);
#endif
    serviceStat_stop("NS", kNames, 3);
    std::string text = report();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 7);
    serviceStat_stop("NS", kNames, 3);
    EXPECT_EQ(report(), text);
}

}  // namespace

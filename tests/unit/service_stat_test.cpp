// SPDX-License-Identifier: Apache-2.0
// The report of service statistics and the table behind it.
#include "utils/service_stat.h"

#include <sys/file.h>

#include "support/support.h"
#include "utils/clock.h"

namespace {

constexpr const char *kReport = "/var/log/serviceStat.sw3";
const char *const kNames[] = {"NS_QUERY", "NS_REGISTER", nullptr};

void expect_cleared(int count, uint64_t lowest) {
    for (int i = 0; i < count; ++i) {
        serviceStat cleared{};
        cleared.lowest_service_time = lowest;
        EXPECT_EQ(memcmp(&serviceStats[i], &cleared, sizeof cleared), 0) << i;
    }
}

TEST(ServiceStat, ReportHasItsHeadingOnceAndRowsOfEveryRun) {
    ASSERT_EQ(serviceStat_init(3), 0);
    expect_cleared(3, UINT64_MAX);
    auto usec = static_cast<uint64_t>(tb_ticks_p_usec);
    serviceStats[0] = {
        7000000000 * usec, 5000000000 * usec, 3000000000 * usec, 700, 2, 3, 100, 60, 7};
    serviceStats[1] = {0, 0, 0, 0, 5, -1, 0, 0, 0};
    int reader = -1;
    support::write_file(kReport, "");
    support::read_late(kReport);
    utils_testing_reset();
    utils_testing_fail_call("write", 1, EINTR, 1);
    utils_testing_step_clock(CLOCK_MONOTONIC, 1000000000);
    for (auto [label, names] : {std::pair("NS", kNames), {"longlabel", nullptr}}) {
        serviceStatIsOn = 1;
        int before = utils_testing_count_calls("clock_gettime");
        serviceStat_stop(label, names, 3);
        int looks = utils_testing_count_calls("clock_gettime") - before;  // sanitizers look, too
        EXPECT_EQ(looks > 2, reader != -1) << "a reader's lock is waited for; looks: " << looks;
        close(reader);
        reader = open(kReport, O_RDONLY);
        flock(reader, LOCK_SH);
        EXPECT_EQ(serviceStatIsOn, 0);
        expect_cleared(3, UINT64_MAX);
    }
    close(reader);
    EXPECT_EQ(utils_testing_count_calls("write"), 3)
        << "each report at once, the interrupted one again";
    std::string text = support::read_file(kReport);
    const char *date = text.c_str() + 100;
    tm parsed{};
    EXPECT_EQ(strptime(date, "%a %b %e %H:%M:%S %Y\n\n\n", &parsed), date + 27);
    std::string sp(40, ' '), rule(39, '='),
        none =
            "       0       0       0           0           0           0           0           "
            "0\n";
    rule +=
        "+=======+=======+=======+===================================+========================\n";
    std::string longlabel = "longlabel" + sp.substr(5) + none;
    EXPECT_EQ(
        text.erase(100, 24),
        sp + "SWITCH SERVICE REQUEST RESPONSE TIMES                       \n\n\n" + rule +
            "                 REQUEST                 CALLS   RJT/   Drop/   "
            "        Service Times (usec)           Queue Times (msec)   \n"
            "Service   Req Code                                 BSY    Retry "
            "    Avg         High        Low         Avg         High    \n" +
            rule +
            "NS   NS_QUERY                           "
            "     700       2       3    10000000  5000000000  3000000000          14          60\n"
            "NS   NS_REGISTER                        "
            "       0       5      -1           0           0           0           0           0\n"
            "NS" +
            sp.substr(2) + none + longlabel + longlabel + longlabel);
    free(serviceStats);
}

TEST(ServiceStat, LostReportZeroesTheWholeTableAndWithoutATableOnlyTheHeadingIsWritten) {
    ASSERT_EQ(serviceStat_init(2), 0);
    serviceStats[1].calls = 3;
    std::filesystem::remove(kReport);
    support::write_file("/tmp/victim", "precious");
    std::filesystem::create_symlink("/tmp/victim", kReport);
    auto stop = [] { serviceStat_stop("NS", kNames, 3); };
    EXPECT_EQ(support::captured(1, stop), "\nfailed to open file /var/log/serviceStat.sw3\n");
    expect_cleared(2, 0);
    EXPECT_EQ(support::read_file("/tmp/victim"), "precious");
    free(serviceStats);
    std::filesystem::remove(kReport);
    for (int count : {0, -1, 2}) {
        auto init = [=] { return serviceStat_init(count); };
        EXPECT_EQ(support::without_memory(init), count > 0 ? -1 : 0);
        EXPECT_EQ(serviceStats, nullptr);
        stop();
        EXPECT_EQ(support::read_file(kReport).size(), 127u + 4 * 125);
    }
}

}  // namespace

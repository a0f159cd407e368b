// SPDX-License-Identifier: Apache-2.0
#include "utils/log_cache.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <thread>
#include <vector>

#include "support/crash.h"
#include "support/support.h"

namespace {

// The clock stands still, so that stamps can be foretold.
using support::kSecond;
[[maybe_unused]] const int stopped =
    utils_testing_set_clock(CLOCK_REALTIME, (9 * 3600 + 34 * 60 + 56) * kSecond);

// The cache of a process can be made but not unmade, so each test runs in a child.
support::Ending with_cache(const std::function<void()> &body) {
    return support::in_child([&] {
        setenv("TZ", "EAST-3", 1);
        log_cache_init("cache");
        body();
        return testing::Test::HasFailure();
    });
}

void expect_passes(const std::function<void()> &body) {
    support::Ending ending = with_cache(body);
    EXPECT_TRUE(ending.exited && ending.status == 0) << ending.out << ending.err;
}

std::string dumped() {
    EXPECT_EQ(log_cache_dump(), 0);
    return support::read_file("/tmp/cache");
}

std::string stamp(const std::string &clock = "12:34:56") {
    return clock + " " + std::to_string(gettid()) + " ";
}

TEST(LogCache, WithoutABufferWritesAreIgnoredAndDumpsSaySo) {
    support::Ending ending = support::in_child([] {
        std::vector<int> results;
        // Each step is followed by a dump of either kind.
        auto step = [&](bool refuse, int (*call)()) {
            char buffer[100];
            int result = refuse ? support::without_memory(call) : call();
            log_cache_write_string("ignored while there is no buffer\n");
            for (int next : {result, log_cache_dump(), log_cache_dump_buf(buffer, 100)})
                results.push_back(next);
        };
        auto init = [] { return log_cache_init("cache"); };
        auto resize = [] { return log_cache_resize(40000); };
        log_cache_write("%s", std::string(600, 'x').c_str());
        step(false, log_cache_reset);
        step(true, init);
        step(false, init);
        step(true, resize);
        step(false, log_cache_reset);
        step(false, resize);
        auto length = static_cast<int>(stamp().size()) + 35;
        EXPECT_EQ(results, (std::vector{0, -3, -3, -2, -3, -3, 0, 0, length, -2, -3, -3, 0, -3, -3,
                                        0, 0, length}));
        return testing::Test::HasFailure();
    });
    EXPECT_EQ(ending.status, 0) << ending.out;
    std::string missing = "(Cache NOT Instantiated. Cannot dump cache\n)";
    std::string no_memory = "Insufficient system resources: log_cache - [0-9]+\n";
    EXPECT_THAT(ending.out, testing::MatchesRegex(missing + "{2}" + no_memory + missing + "{2}" +
                                                  no_memory + missing + "{5}"));
}

TEST(LogCache, FullCacheStartsAgainAndDumpsTheOlderLinesFirst) {
    // The last size is filled to its last byte.
    for (auto sizes : {std::pair(1000, 32768u), {200000, 131072u}, {40001, 40001u}}) {
        expect_passes([sizes] {
            ASSERT_EQ(log_cache_resize(sizes.first), 0);
            size_t size = sizes.second;
            auto expect_copy = [&](const std::string &text) {
                std::vector<char> buffer(size + 10);
                auto length = static_cast<int>(text.size());
                EXPECT_EQ(log_cache_dump_buf(buffer.data(), length), -5);
                EXPECT_EQ(log_cache_dump_buf(buffer.data(), length + 1), length);
                EXPECT_TRUE(std::string(buffer.data(), text.size() + 1) == text + "\n");
            };
            size_t lines = (size - 1) / 100;
            std::string older, newer;
            for (size_t i = 0; i < lines + 3; ++i) {
                if (i == lines)
                    expect_copy(older + std::string(2, '\0'));
                std::string line = stamp() + std::to_string(i) + ":%s";
                line.resize(99, '.');
                line += '\n';
                log_cache_write_string(line.c_str() + stamp().size());
                (i < lines ? older : newer) += line;
            }
            // One byte of the place of the next line belongs to a dump.
            EXPECT_TRUE(dumped() == older.substr(300) + std::string((size - 1) % 100, '\0') +
                                        newer + older[300]);
            expect_copy(newer + older.substr(300, 2));
            log_cache_reset();
            log_cache_write("port %d is %s\n", 3, "up");
            EXPECT_EQ(dumped(), stamp() + "port 3 is up\n.");
        });
    }
}

TEST(LogCache, StampsFollowThreadsSecondsZonesAndForks) {
    expect_passes([] {
        std::string expected;
        auto write = [&](const char *clock) {
            log_cache_write_string("x\n");
            expected += stamp(clock) + "x\n";
        };
        write("12:34:56");
        std::thread(write, "12:34:56").join();
        setenv("TZ", "WEST4", 1);
        write("12:34:56");
        utils_testing_advance_clock(CLOCK_REALTIME, kSecond);
        write("05:34:57");
        EXPECT_TRUE(support::passes_in_child([&] {
            write("05:34:57");
            EXPECT_EQ(dumped(), expected + '\0');
        }));
        write("05:34:57");
        EXPECT_EQ(dumped(), expected + '\0');
    });
}

TEST(LogCache, OverLongLinesAndNullNamesAbort) {
    auto write = [](size_t length) {
        log_cache_write_string(std::string(length - stamp().size(), 'x').c_str());
    };
    EXPECT_EQ(with_cache([&] { write(511); }).status, 0);
    EXPECT_EQ(with_cache([&] { write(512); }).status, SIGABRT);
    EXPECT_EQ(with_cache([] { log_cache_write("%512s", "x"); }).status, SIGABRT);
    EXPECT_EQ(with_cache([] { log_cache_init(nullptr); }).status, SIGABRT);
}

TEST(LogCache, DumpWritesThroughNoPlantedFile) {
    expect_passes([] {
        log_cache_write("secret\n");
        support::write_file("/tmp/victim", "precious");
        support::read_late("/tmp/victim");
        for (auto plant :
             {+[] { std::filesystem::create_symlink("/tmp/victim", "/tmp/cache"); },
              +[] { std::filesystem::create_hard_link("/tmp/victim", "/tmp/cache"); },
              +[] { std::filesystem::create_directory("/tmp/cache"); },
              +[] { close(open("/tmp/cache", O_CREAT, 0600)), chmod("/tmp/cache", 0622); },
              +[] { mkfifo("/tmp/cache", 0600); }}) {
            std::filesystem::remove("/tmp/cache");
            plant();
            EXPECT_EQ(log_cache_dump(), -4);
            EXPECT_EQ(support::read_file("/tmp/victim"), "precious");
        }
        std::filesystem::remove("/tmp/cache");
        EXPECT_EQ(dumped(), stamp() + "secret\n" + '\0');
    });
}

TEST(LogCache, DumpThatFindsNoRoomKeepsTheOldFileAndAResizeGoesOn) {
    expect_passes([] {
        log_cache_write("old\n");
        std::string old = dumped();
        log_cache_write("new\n");
        // The limit's signal, which would end the process, is held back.
        for (rlim_t limit : {20U, 0U, 20U}) {
            rlimit limits{limit, RLIM_INFINITY};
            setrlimit(RLIMIT_FSIZE, &limits);
            int result = limit == 0 ? log_cache_resize(50000) : log_cache_dump();
            limits.rlim_cur = RLIM_INFINITY;
            setrlimit(RLIMIT_FSIZE, &limits);
            EXPECT_EQ(result, limit == 0 ? 0 : -4);
            EXPECT_EQ(support::read_file("/tmp/cache"), old);
            log_cache_write("%100s\n", "");
        }
        EXPECT_NE(system("ls /tmp/cache.* 2>/dev/null"), 0);
    });
}

TEST(LogCache, StampsFollowTheZoneWithTheNextSecond) {
    expect_passes([] {
        log_cache_write("east\n");
        setenv("TZ", "WEST+5", 1);
        utils_testing_advance_clock(CLOCK_REALTIME, kSecond);
        log_cache_write("west\n");
        std::string tid = " " + std::to_string(gettid());
        EXPECT_EQ(dumped(), "12:34:56" + tid + " east\n04:34:57" + tid + " west\n" + '\0');
    });
}

TEST(LogCache, EightWritersLoseNothingWhileAnotherResizesAndDumps) {
    const int kWriters = 8, kLines = (support::emulated() ? 40000 : 1000000) / kWriters;
    expect_passes([&] {
        std::atomic<int> running{kWriters}, written{0}, allowed{1000};
        std::vector<std::thread> writers;
        auto write = [&](int w) {
            for (int n = 0; n < kLines; ++n, ++written) {
                // Asleep, so that a single processor is left to the dumps.
                for (int limit = allowed; written > limit; limit = allowed)
                    allowed.wait(limit);
                log_cache_write("w%d n%d-%d\n", w, n, n);
            }
            --running;
        };
        for (int w = 0; w < kWriters; ++w)
            writers.emplace_back(write, w);
        int next[kWriters] = {};          // of each writer's numbers
        bool overwritten[kWriters] = {};  // whether a full ring may have lost its next ones
        int complete = 0;
        size_t size = LOG_CACHE_SIZE_DEFAULT;
        bool done = false;
        for (int dumps = 0; !done; ++dumps) {
            // Dump at times before, at times after the ring is full, while the writers go on.
            while (running != 0 && written < allowed)
                sched_yield();
            allowed = written + 300 + dumps % 10 * 400;
            allowed.notify_all();
            done = running == 0;
            int next_size = LOG_CACHE_SIZE_DEFAULT + dumps % 7 * 16384;
            ASSERT_EQ(log_cache_resize(next_size), 0);
            std::string text = support::read_file("/tmp/cache"), line;
            // Behind the lines stands the one byte of the place of the next.
            ASSERT_EQ(text.rfind('\n', text.size() - 2) + 2, text.size());
            bool full = text.size() >= size;
            size = static_cast<size_t>(next_size);
            std::istringstream lines(text.substr(0, text.size() - 1));
            if (full && std::getline(lines, line))  // the rest of an overwritten one
                std::fill_n(overwritten, kWriters, true);
            complete += !full;
            while (std::getline(lines, line)) {
                line.erase(0, line.find_first_not_of('\0'));
                unsigned w = 0;
                int n = -1, again = -2, length = -1;
                sscanf(line.c_str(), "12:34:56 %*d w%u n%d-%d%n", &w, &n, &again, &length);
                ASSERT_TRUE(n == again && w < kWriters && length == static_cast<int>(line.size()))
                    << "torn: " << line;
                ASSERT_TRUE(n == next[w] || (n > next[w] && overwritten[w])) << line << next[w];
                next[w] = n + 1;
                overwritten[w] = false;
            }
        }
        for (std::thread &writer : writers)
            writer.join();
        for (int w = 0; w < kWriters; ++w)
            EXPECT_TRUE(next[w] == kLines || overwritten[w]) << w << " " << next[w];
        EXPECT_GT(complete, 0);
    });
}

}  // namespace

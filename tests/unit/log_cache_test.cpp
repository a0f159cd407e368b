// SPDX-License-Identifier: Apache-2.0
// The log cache: its buffer's states, ring and stamps, dumps to files of every kind, many writers.
#include "utils/log_cache.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "support/crash.h"
#include "support/support.h"

namespace {

// The clock stands still, so that stamps can be foretold.
using support::kSecond;
[[maybe_unused]] const int stopped =
    utils_testing_set_clock(CLOCK_REALTIME, (9 * 3600 + 34 * 60 + 56) * kSecond);

// The cache of a process can be made but not unmade, so each one has a child, which ends by `signal`.
void with_cache(const std::function<void()> &body, int signal = 0) {
    support::Ending ending = support::in_child([&] {
        setenv("TZ", "EAST-3", 1);
        log_cache_init("cache");
        body();
        return testing::Test::HasFailure();
    });
    EXPECT_EQ(ending.status, signal) << ending.out << ending.err;
}

std::string dumped() {
    EXPECT_EQ(log_cache_dump(), 0);
    return support::read_file("/tmp/cache");
}

std::string stamp(const std::string &clock = "12:34:56") {
    return clock + " " + std::to_string(gettid()) + " ";
}

TEST(LogCache, WithoutABufferWritesAreIgnoredAndDumpsSaySo) {
    EXPECT_EQ(logCacheReqCode, 0);
    EXPECT_EQ(logCacheRespCode, 0);
    support::Ending ending = support::in_child([] {
        auto init = [] { return log_cache_init("cache"); };
        auto resize = [] { return log_cache_resize(40000); };
        const auto length = static_cast<int>(stamp().size()) + 13;
        const struct {
            bool refused;
            int (*call)();
            int result, dump, copy;
        } steps[] = {
            {false, log_cache_reset, 0, -3, -3}, {true, init, -2, -3, -3},
            {false, init, 0, 0, length},         {true, init, -2, 0, 2 * length - 2},
            {true, resize, -2, -3, -3},          {false, log_cache_reset, 0, -3, -3},
            {false, resize, 0, 0, length},
        };
        log_cache_write("%s", std::string(600, 'x').c_str());
        for (const auto &step : steps) {
            char buffer[100];
            EXPECT_EQ(step.refused ? support::without_memory(step.call) : step.call(), step.result);
            log_cache_write_string("one line..\n");
            EXPECT_EQ(log_cache_dump(), step.dump);
            EXPECT_EQ(log_cache_dump_buf(buffer, 100), step.copy);
        }
        return testing::Test::HasFailure();
    });
    EXPECT_EQ(ending.status, 0) << ending.out;
    std::string missing = "(Cache NOT Instantiated. Cannot dump cache\n)";
    std::string no_memory = "Insufficient system resources: log_cache - [0-9]+\n";
    EXPECT_THAT(ending.out, testing::MatchesRegex(missing + "{2}" + no_memory + missing + "{2}" +
                                                  no_memory + no_memory + missing + "{5}"));
}

TEST(LogCache, FullCacheStartsAgainAndDumpsTheOlderLinesFirst) {
    // The last size is filled to its last byte.
    for (auto sizes : {std::pair(1000, 32768u), {200000, 131072u}, {40001, 40001u}}) {
        with_cache([sizes] {
            ASSERT_EQ(log_cache_resize(sizes.first), 0);
            size_t size = sizes.second, lines = (size - 1) / 100;
            auto expect_copy = [&](const std::string &text) {
                std::vector<char> buffer(size + 10);
                auto length = static_cast<int>(text.size());
                EXPECT_EQ(log_cache_dump_buf(buffer.data(), length), -5);
                EXPECT_EQ(log_cache_dump_buf(buffer.data(), length + 1), length);
                EXPECT_TRUE(std::string(buffer.data(), text.size() + 1) == text + "\n");
            };
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
    with_cache([] {
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

TEST(LogCache, OverLongLinesAndNullNamesAbortAndNullTextsAreIgnored) {
    auto write = [](size_t length) {
        log_cache_write_string(std::string(length - stamp().size(), 'x').c_str());
    };
    with_cache([&] { write(511); });
    with_cache([&] { write(512); }, SIGABRT);
    with_cache([] { log_cache_write("%512s", "x"); }, SIGABRT);
    with_cache([] { log_cache_init(nullptr); }, SIGABRT);
    with_cache([] {
        log_cache_write_string(nullptr);
        log_cache_write(nullptr);  // NOLINT(clang-diagnostic-nonnull)
        EXPECT_EQ(dumped(), std::string(1, '\0'));
    });
}

TEST(LogCache, DumpWritesThroughNoPlantedFile) {
    with_cache([] {
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
        struct stat status {};
        EXPECT_EQ(stat("/tmp/cache", &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | 0644u);
    });
}

TEST(LogCache, DumpThatFindsNoRoomKeepsTheOldFileAndAResizeGoesOn) {
    with_cache([] {
        rlimit before{};
        ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
        log_cache_write("old\n");
        std::string old = dumped();
        log_cache_write("new\n");
        // The limit's signal, which would end the process, is held back.
        for (rlim_t limit : {20U, 0U, 20U}) {
            rlimit limits{limit, before.rlim_max};
            ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limits), 0);
            int result = limit == 0 ? log_cache_resize(50000) : log_cache_dump();
            setrlimit(RLIMIT_FSIZE, &before);
            EXPECT_EQ(result, limit == 0 ? 0 : -4);
            EXPECT_EQ(support::read_file("/tmp/cache"), old);
            log_cache_write("%100s\n", "");
        }
        EXPECT_NE(system("ls /tmp/cache.* 2>/dev/null"), 0);
    });
}

TEST(LogCache, EightWritersLoseNothingWhileAnotherResizes) {
    constexpr int kWriters = 8;
    const int each = support::emulated() ? 5000 : 100000;
    with_cache([=] {
        std::atomic<int> running{kWriters}, written{0}, allowed{0};
        std::vector<std::thread> writers;
        for (int w = 0; w < kWriters; ++w) {
            writers.emplace_back([&, w] {
                for (int n = 0; n < each; ++n, ++written) {
                    // Asleep, so that a single processor is left to the dumps.
                    for (int limit = allowed; written >= limit; limit = allowed)
                        allowed.wait(limit);
                    log_cache_write("w%d n%d\n", w, n);
                }
                --running;
            });
        }
        std::vector<int> next(kWriters);
        for (bool done = false; !done;) {
            while (running != 0 && written < allowed)
                sched_yield();
            done = running == 0;
            allowed = written + 400;  // of the 1000 lines or more that fit into a buffer
            allowed.notify_all();
            ASSERT_EQ(log_cache_resize(LOG_CACHE_SIZE_DEFAULT + allowed % 7 * 16384), 0);
            std::istringstream lines(support::read_file("/tmp/cache"));
            // Behind the lines stands the one byte of the place of the next.
            for (std::string line; std::getline(lines, line) && line != std::string(1, '\0');) {
                size_t w = kWriters;
                int n = -1, length = -1;
                sscanf(line.c_str(), "12:34:56 %*d w%zu n%d%n", &w, &n, &length);
                ASSERT_EQ(length, static_cast<int>(line.size())) << "torn: " << line;
                ASSERT_EQ(n, next.at(w)++) << line;
            }
        }
        for (std::thread &writer : writers)
            writer.join();
        EXPECT_EQ(next, std::vector(kWriters, each));
    });
}

}  // namespace

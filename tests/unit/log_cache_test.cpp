#include "utils/log_cache.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <map>
#include <thread>
#include <vector>

#include "support/heap.h"
#include "support/support.h"

extern "C" const char *__asan_default_options() {
    return "handle_abort=0";
}

namespace {

using testing::MatchesRegex;

// The cache of a process can be made but not unmade, so each test runs in a child.
support::Ending with_cache(const std::function<void()> &body) {
    return support::in_child([&] {
        log_cache_init("cache");
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
}

void expect_passes(const std::function<void()> &body) {
    support::Ending ending = with_cache(body);
    printf("%s", ending.out.c_str());
    EXPECT_TRUE(ending.exited && ending.status == 0) << ending.status << ending.err;
}

std::string dumped() {
    EXPECT_EQ(log_cache_dump(), 0);
    return support::read_file("/tmp/cache");
}

// A text that makes a line of 100 characters with its stamp.
std::string filler(int number) {
    std::string text = std::to_string(number) + ":";
    return text + std::string(100 - 10 - std::to_string(gettid()).size() - text.size() - 1, '.') +
           "\n";
}

TEST(LogCache, BeforeInitWritesAreIgnoredAndDumpsSaySo) {
    const std::string message = "Cache NOT Instantiated. Cannot dump cache\n";
    support::Ending ending = support::in_child([] {
        char buffer[100];
        log_cache_write("%s", std::string(600, 'x').c_str());
        log_cache_write_string("x");
        bool right = log_cache_dump() == -3 && log_cache_dump_buf(buffer, 100) == -3 &&
                     log_cache_reset() == 0 && log_cache_resize(0) == 0 &&
                     log_cache_init("cache") == 0 && dumped() == std::string(1, '\0');
        return right && logCacheReqCode == 0 && logCacheRespCode == 0 ? 0 : 1;
    });
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.out, message + message + message);
}

TEST(LogCache, StampsLinesWithLocalTimeAndKernelThread) {
    expect_passes([] {
        log_cache_write("port %d is %s\n", 3, "up");
        log_cache_write_string("100%s\n");
        std::string stamp = "[0-2][0-9]:[0-5][0-9]:[0-6][0-9] " + std::to_string(gettid()) + " ";
        std::string text = dumped();
        EXPECT_EQ(text.back(), '\0');
        text.pop_back();
        EXPECT_THAT(text, MatchesRegex(stamp + "port 3 is up\n" + stamp + "100%s\n"));
        log_cache_reset();
        EXPECT_EQ(dumped(), text.substr(0, 1));  // the one byte at the place of the next line
    });
}

TEST(LogCache, FullCacheStartsAgainAndDumpsTheOlderLinesFirst) {
    for (int size : {1000, 40000, 131072, 200000}) {
        expect_passes([&] {
            ASSERT_EQ(log_cache_resize(size), 0);
            int bytes = std::clamp(size, 32768, 131072);
            int lines = (bytes - 1) / 100;
            for (int i = 0; i < lines; ++i)
                log_cache_write_string(filler(i).c_str());
            std::vector<char> buffer(static_cast<size_t>(bytes) + 10);
            int used = lines * 100;
            EXPECT_EQ(log_cache_dump_buf(buffer.data(), used + 2), -5);
            EXPECT_EQ(log_cache_dump_buf(buffer.data(), used + 3), used + 2);
            EXPECT_EQ(buffer[static_cast<size_t>(used) + 2], '\n');
            for (int i = lines; i < lines + 3; ++i)
                log_cache_write_string(filler(i).c_str());
            EXPECT_EQ(log_cache_dump_buf(buffer.data(), bytes + 10), 302);
            std::string text = dumped();
            ASSERT_EQ(text.size(), static_cast<size_t>(bytes));
            // Older: lines 3 to the last, then the zeroed rest; newer: the three lines and one
            // byte.
            size_t older = static_cast<size_t>(lines - 3) * 100;
            size_t zeros = static_cast<size_t>(bytes - 1 - used);
            for (int i = 3; i < lines; ++i)
                ASSERT_EQ(text.substr(static_cast<size_t>(i - 3) * 100 + 100 - filler(i).size(),
                                      filler(i).size()),
                          filler(i));
            EXPECT_EQ(text.substr(older, zeros), std::string(zeros, '\0'));
            EXPECT_EQ(text.substr(older + zeros + 300 - filler(lines + 2).size(),
                                  filler(lines + 2).size()),
                      filler(lines + 2));
            EXPECT_EQ(text.substr(older + zeros, 300), std::string(buffer.data(), 300));
        });
    }
}

TEST(LogCache, OverLongLinesAndNullNamesAbort) {
    auto ending = [](auto body) {
        support::Ending end = with_cache(body);
        return end.exited ? -end.status : end.status;
    };
    EXPECT_EQ(ending([] { log_cache_init(nullptr); }), SIGABRT);
    EXPECT_EQ(ending([] { log_cache_write("%512s", "x"); }), SIGABRT);
    size_t longest = 511 - 10 - std::to_string(gettid() + 1).size();
    for (size_t extra : {size_t{0}, size_t{1}}) {
        std::string text(longest + extra, 'x');
        EXPECT_EQ(ending([&] {
                      // The child's id may have one digit more or less than was thought.
                      text.resize(511 - 10 - std::to_string(gettid()).size() + extra, 'x');
                      log_cache_write_string(text.c_str());
                  }),
                  extra == 0 ? 0 : SIGABRT);
    }
}

TEST(LogCache, DumpWritesThroughNoPlantedFile) {
    expect_passes([] {
        log_cache_write("secret\n");
        support::write_file("/tmp/victim", "precious");
        std::filesystem::remove("/tmp/cache");
        for (auto plant : {+[] { std::filesystem::create_symlink("/tmp/victim", "/tmp/cache"); },
                           +[] { std::filesystem::create_hard_link("/tmp/victim", "/tmp/cache"); },
                           +[] { std::filesystem::create_directory("/tmp/cache"); },
                           +[] { mkfifo("/tmp/cache", 0600); }}) {
            plant();
            EXPECT_EQ(log_cache_dump(), -4);
            EXPECT_EQ(support::read_file("/tmp/victim"), "precious");
            std::filesystem::remove("/tmp/cache");
        }
        EXPECT_EQ(dumped().substr(dumped().size() - 8), std::string("secret\n\0", 8));
    });
}

#ifdef UTILS_FAKE_HEAP
TEST(LogCache, WithoutMemoryItSaysSoAndDoesNotCrash) {
    support::Ending ending = support::in_child([] {
        char buffer[100];
        support::refuse_after = 0;
        bool right = log_cache_init("cache") == -2 && log_cache_dump() == -3;
        support::refuse_after = -1;
        right = right && log_cache_init("cache") == 0;
        support::refuse_after = 0;
        right = right && log_cache_resize(40000) == -2;
        log_cache_write("ignored\n");
        right = right && log_cache_dump() == -3 && log_cache_dump_buf(buffer, 100) == -3 &&
                log_cache_reset() == 0;
        support::refuse_after = -1;
        return right && log_cache_resize(40000) == 0 && dumped().size() == 1 ? 0 : 1;
    });
    EXPECT_EQ(ending.status, 0);
    EXPECT_THAT(ending.out, MatchesRegex("Insufficient system resources: log_cache - [0-9]+\n"
                                         "Cache NOT Instantiated.*\n"
                                         "Insufficient system resources: log_cache - [0-9]+\n"
                                         "(Cache NOT Instantiated.*\n)+"));
}
#endif

// The lines of a dump: each writer's numbers, in order. Nothing but whole lines may stand in it,
// except for zeros and the rest of one overwritten line before the first newline of a full cache.
using Numbers = std::map<int, std::vector<int>>;

Numbers parse(const std::string &text, bool full) {
    Numbers numbers;
    size_t at = full ? text.find('\n') + 1 : 0;
    while (at + 1 < text.size()) {
        if (text[at] == '\0') {
            ++at;
            continue;
        }
        size_t end = text.find('\n', at);
        int hour, minute, second, tid, writer, number, again, length = -1;
        if (end == std::string::npos ||
            sscanf(text.c_str() + at, "%2d:%2d:%2d %d w%d n%d-%d\n%n", &hour, &minute, &second,
                   &tid, &writer, &number, &again, &length) != 7 ||
            number != again) {
            // What stands behind the last newline is the one byte at the place of the next line.
            ADD_FAILURE() << "torn: " << text.substr(at, 60);
            return numbers;
        }
        numbers[writer].push_back(number);
        at = end + 1;
    }
    return numbers;
}

TEST(LogCache, EightWritersLoseNothingWhileAnotherResizesAndDumps) {
    const int kWriters = 8, kLines = (support::emulated() ? 40000 : 1000000) / kWriters;
    expect_passes([&] {
        std::atomic<int> running{kWriters}, written{0}, allowed{1000};
        std::vector<std::thread> writers;
        for (int w = 0; w < kWriters; ++w) {
            writers.emplace_back([&, w] {
                for (int n = 0; n < kLines; ++n) {
                    while (written > allowed)
                        sched_yield();
                    log_cache_write("w%d n%d-%d\n", w, n, n);
                    written.fetch_add(1, std::memory_order_relaxed);
                }
                --running;
            });
        }
        std::map<int, int> last;          // of each writer's numbers seen so far
        std::map<int, bool> overwritten;  // whether its newest lines may have been, by a full ring
        int dumps = 0, complete = 0, size = LOG_CACHE_SIZE_DEFAULT;
        size_t seen = 0;
        bool done = false;
        while (!done) {
            // Dump at times before, at times after the ring is full, while the writers go on.
            while (running != 0 && written < allowed)
                sched_yield();
            allowed = written + 300 + dumps % 10 * 400;
            done = running == 0;
            int next = LOG_CACHE_SIZE_DEFAULT + dumps % 7 * 16384;
            ASSERT_EQ(log_cache_resize(next), 0);
            std::string text = support::read_file("/tmp/cache");
            bool full = text.size() >= static_cast<size_t>(size);
            size = next;
            ++dumps;
            complete += !full;
            for (int w = 0; full && w < kWriters; ++w)
                overwritten[w] = true;
            for (auto &[writer, numbers] : parse(text, full)) {
                // A full ring has overwritten lines, of this dump or of the one before.
                int before = last.count(writer) ? last[writer] : -1;
                ASSERT_TRUE(overwritten[writer] ? numbers[0] > before : numbers[0] == before + 1)
                    << before << " " << numbers[0];
                for (size_t i = 1; i < numbers.size(); ++i)
                    ASSERT_EQ(numbers[i], numbers[i - 1] + 1);
                last[writer] = numbers.back();
                overwritten[writer] = false;
                seen += numbers.size();
            }
        }
        for (std::thread &writer : writers)
            writer.join();
        for (auto &[writer, number] : last)
            EXPECT_TRUE(number == kLines - 1 || overwritten[writer]) << writer << " " << number;
        printf("%d lines, %d dumps, %d of them before the ring was full; %zu lines seen\n",
               kWriters * kLines, dumps, complete, seen);
        EXPECT_GT(complete, 0) << dumps;
        log_cache_write("w0 n1-1\n");
        EXPECT_EQ(parse(dumped(), false).at(0), std::vector<int>{1});
    });
}

}  // namespace

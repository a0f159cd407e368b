// SPDX-License-Identifier: Apache-2.0
#include "utils/evlog.h"

#include <dlfcn.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <thread>
#include <vector>

#include "support/support.h"
#include "utils/platform/posix/trace_files.h"

namespace {
int32_t platform_code = 0;
bool refuse_section = false;
std::string last_section;
}  // namespace

int trace_data_init(int *handle, int kind, unsigned size, const char *name, int section,
                    void **address, int code) {
    static auto real =
        reinterpret_cast<decltype(&trace_data_init)>(dlsym(RTLD_NEXT, "trace_data_init"));
    last_section = name + std::string("/") + std::to_string(kind) + "/" + std::to_string(code);
    return refuse_section ? -1 : real(handle, kind, size, name, section, address, code);
}

namespace {

using support::captured;
using testing::HasSubstr;
using testing::MatchesRegex;

// The system device stays open.
constexpr support::Holdings kDevice{.descriptors = 1};

// Serves the system device's one request; each look at the clock is in a second of its own.
[[maybe_unused]] const bool faked = [] {
    support::replace_call("ioctl", [](int, unsigned long request, int32_t *code) {
        *code = platform_code;
        return request == 0x4004DF06 && platform_code >= 0 ? 0 : -1;
    });
    utils_testing_set_clock(CLOCK_REALTIME, support::kSecond);
    utils_testing_step_clock(CLOCK_REALTIME, support::kSecond);
    return true;
}();

class Evlog : public testing::TestWithParam<int> {
  protected:
    void SetUp() override {
        support::write_file("/dev/moxsys", "");
        platform_code = GetParam();
        last_section = "";
        support::leaves(kDevice);
        ASSERT_EQ(qel_evlog_init(&db), 0);
    }
    void TearDown() override { EXPECT_EQ(qel_evlog_free(&db), 0); }
    bool on_heap() const { return GetParam() != 1; }
    qel_evlog_db db;
};

INSTANTIATE_TEST_SUITE_P(Platforms, Evlog, testing::Values(1, 26, 27, 34));

// What `body` prints, every time replaced by "T".
std::string timeless(const std::function<void()> &body) {
    std::string text = captured(1, body);
    for (size_t at = 12; (at = text.find(' ', at)) != std::string::npos; ++at) {
        if (text[at - 4] == '.' && text[at - 10] == ':')
            text.replace(at - 12, 12, "T");
    }
    return text;
}

std::string dump_of(qel_evlog_handle *log, int level = 0) {
    return timeless([&] { EXPECT_EQ(qel_evlog_dump(stdout, log, level), 0); });
}

TEST_P(Evlog, KeepsTheNewestEventsAndDumpsThemInOrder) {
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 5, "ring", "R");
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(log->trace_handle == QEL_EVLOG_HEAP, on_heap());
    EXPECT_EQ(last_section, on_heap() ? "" : "ring 1/136/1");
    auto expect_dump = [&](int current, int wrapped, const std::string &events, int level = 0) {
        EXPECT_EQ(dump_of(log, level),
                  "evt log            :ring\nshortcut           :R\ntotal entries      :5\n"
                  "current            :" +
                      std::to_string(current) + "\nwrapped            :" + std::to_string(wrapped) +
                      "\ntrace hndl         :" + std::to_string(log->trace_handle) + "\n" + events +
                      "------------------------------------------------------\n");
    };
    expect_dump(0, 0, "");
    for (int i = 1; i <= 7; ++i)
        EXPECT_EQ(qel_evlog(log, "event %d\n", i), log->entries[(i - 1) % 5].text);
    expect_dump(2, 1, "T event 3\nT event 4\nT event 5\nT event 6\nT event 7\n");
    expect_dump(2, 1, "", -1);
    qel_evlog_clear(log);
    expect_dump(0, 0, "");
    EXPECT_EQ(log->entries[4].text[0], 0);
    for (int i = 0; i < 5 * 256 + 1; ++i)
        qel_evlog(log, "x\n");
    expect_dump(1, 0, "T x\n");
}

TEST_P(Evlog, CutsLongTextsWhenStoringAndWhenDumping) {
    std::string name(50, 'n'), cut(40, 'n'), x(99, 'x'), y(66, 'y');
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 10, name.c_str(), "0123456789abc");
    EXPECT_EQ(last_section, on_heap() ? "" : "nnnnn/136/1");
    EXPECT_EQ(qel_evlog(log, "%s", x.c_str()), x.substr(0, 67));
    for (const char *text : {y.c_str(), "no newline", ""})
        qel_evlog(log, "%s", text);
    std::string dump = dump_of(log);
    x.replace(65, 99, "\nT "), y.replace(65, 1, "\nT ");
    EXPECT_THAT(dump, HasSubstr("T " + x + y + "no newlin\nT --"));
    EXPECT_THAT(dump, HasSubstr(" :" + cut + "\nshortcut           :0123456789\n"));
    EXPECT_EQ(captured(1, [&] { qel_evlog_db_list(stdout, &db); }),
              "Listing all the handles:\n[" + cut + "]\t[0123456789]\n");
}

TEST_P(Evlog, FindsEchoesAndClearsByShortcut) {
    qel_evlog_handle *first = qel_evlog_newHandle(&db, 3, "first", "FaB");
    qel_evlog_handle *second = qel_evlog_newHandle(&db, 3, "second", "0123456789");
    EXPECT_EQ(qel_evlog_findByShortCut(&db, "fAb"), first);
    EXPECT_EQ(qel_evlog_findByShortCut(&db, "012345678"), nullptr);
    char name[] = "0123456789", *argv[] = {name, name, name};
    auto log_both = [&] { qel_evlog(first, "one\n"), qel_evlog(second, "two"); };
    for (int argc : {2, 3, 2, 3}) {
        bool before = second->echo != 0;
        qel_evlog_private_toggleShow(argc, argv);
        EXPECT_EQ(captured(1, log_both), before != (argc == 3) ? "second:two\n" : "");
    }
    qel_evlog_db_clear(&db);
    EXPECT_EQ(first->current + second->current + first->wrapped + second->wrapped, 0);
    EXPECT_EQ(timeless([&] { qel_evlog_db_dump(stdout, &db, 0); }),
              dump_of(first) + dump_of(second));
}

TEST_P(Evlog, RefusesWhatItCannotHoldAndAFailureLeavesTheDatabaseLocked) {
    std::string text;
    auto refused = [&](int entries, bool failing = false) {
        auto make = [&] {
            refuse_section = failing;
            auto create = [&] { return qel_evlog_newHandle(&db, entries, "n", "s"); };
            bool starve = failing && on_heap();
            EXPECT_EQ(starve ? support::without_memory(create) : create(), nullptr);
            refuse_section = false;
        };
        text = captured(1, make);
        int locked = pthread_mutex_trylock(&db.lock);
        pthread_mutex_unlock(&db.lock);
        return locked == EBUSY;
    };
    for (int entries : {5001, 0, -1}) {
        EXPECT_FALSE(refused(entries));
        EXPECT_EQ(text, "Exceed supported evlog entries=" + std::to_string(entries) + "\n");
    }
    EXPECT_TRUE(refused(2, true));
    EXPECT_THAT(text,
                MatchesRegex(on_heap() ? "EVLOG: error in getting a section\n"
                                       : "EVLOG: /.*/evlog_test error in getting a section=1\n"));
    for (int i = 1; i <= 15; ++i)
        ASSERT_NE(qel_evlog_newHandle(&db, i == 2 ? 5000 : 1, nullptr, nullptr), nullptr);
    EXPECT_TRUE(refused(2));
    EXPECT_EQ(text, "Exceed supported trace section section=16\n");
}

TEST(EvlogArguments, NullAndForeignOnesAreRefused) {
    support::leaves(kDevice);
    qel_evlog_db db;
    support::write_file("/dev/moxsys", "");
    for (int code : {-1, 0}) {
        platform_code = code;
        EXPECT_EQ(qel_evlog_init(&db), -1);
        unlink("/dev/moxsys");
    }
    EXPECT_NE(qel_evlog_newHandle(&db, 2, "usable", "u"), nullptr);
    EXPECT_EQ(qel_evlog_free(&db), 0);
    std::vector<char> memory(400, 'x');
    auto *foreign = reinterpret_cast<qel_evlog_handle *>(memory.data());
    for (qel_evlog_handle *log : {static_cast<qel_evlog_handle *>(nullptr), foreign})
        EXPECT_EQ(captured(1, [&] { EXPECT_EQ(qel_evlog_dump(stdout, log, 0), -22); }),
                  "not valid handle\n");
    for (int result :
         {qel_evlog_init(nullptr), qel_evlog_free(nullptr), qel_evlog_dbInsert(&db, nullptr)})
        EXPECT_EQ(result, -22);
}

TEST(EvlogSelfTest, ShowsTwoLogsAndNamesTheStepThatFails) {
    support::leaves({.descriptors = 2});
    EXPECT_EQ(captured(1, qel_evlog_test), "error in eventlog init()\n");
    support::write_file("/dev/moxsys", "");
    refuse_section = true;
    EXPECT_THAT(captured(1, qel_evlog_test),
                HasSubstr(" section=1\nerror in eventlog get new handle()\n"));
    refuse_section = false;
    EXPECT_THAT(timeless(qel_evlog_test),
                MatchesRegex("-------------\nevt log            :General 1\n(.*\n)*no "
                             "verbose-------------\n(.*\n)*verbose-----------\n(.*\n)*T event 3 of "
                             "7\nT event 4 of 7\n(.*\n)*"));
}

TEST(EvlogOfAKilledDaemon, IsReadFromItsSectionByAnotherProcess) {
    if (!support::is_stand_in("trace_data_init"))
        GTEST_SKIP() << "where sections lie is the platform's own";
    support::Ending daemon = support::in_child([] {
        dprintf(1, "%d", getpid());
        qel_evlog_db db;
        qel_evlog_init(&db);
        qel_evlog_handle *log = qel_evlog_newHandle(&db, 50, "protocol", "p");
        for (int i = 1; i <= 120; ++i)
            qel_evlog(log, "step %d\n", i);
        return raise(SIGKILL);
    });
    ASSERT_EQ(std::pair(daemon.exited, daemon.status), std::pair(false, SIGKILL));
    std::string block =
        support::read_file(TRACE_DIRECTORY "/" + daemon.out + ".1.evlog_test.proto");
    auto *log = reinterpret_cast<qel_evlog_handle *>(block.data());
    ASSERT_EQ(block.size(), sizeof *log + 50 * sizeof(qel_evlog_entry) + sizeof(trace_owner));
    log->entries = reinterpret_cast<qel_evlog_entry *>(log + 1);
    pthread_mutex_init(&log->lock, nullptr);
    std::string events;
    for (int i = 71; i <= 120; ++i)
        events += "T step " + std::to_string(i) + "\n";
    EXPECT_THAT(dump_of(log), HasSubstr("current            :20\nwrapped            :2\n"));
    EXPECT_THAT(dump_of(log), HasSubstr("\n" + events + "---"));
}

TEST(EvlogInAChild, NeitherItsDeathNorItsFreeStopsTheParent) {
    support::leaves(kDevice);
    qel_evlog_db db;
    support::write_file("/dev/moxsys", "");
    platform_code = 0;
    ASSERT_EQ(qel_evlog_init(&db), 0);
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 5, "shared", "s");
    EXPECT_EQ(support::in_child([&] { return qel_evlog_free(&db); }).status, 0);
    EXPECT_EQ(pthread_mutex_trylock(&log->lock), 0);
    pthread_mutex_unlock(&log->lock);
    if (support::emulated())
        GTEST_SKIP() << "the emulator has no robust mutexes";
    auto die = [=] { return pthread_mutex_lock(&log->lock) + raise(SIGKILL); };
    support::in_child(die);
    int left = pthread_mutex_trylock(&log->lock);
    if (left == 0 && !support::is_stand_in("trace_data_init"))
        GTEST_SKIP() << "the platform's sections are not shared";
    ASSERT_EQ(left, EOWNERDEAD) << "not to be waited for below";
    pthread_mutex_consistent(&log->lock);
    pthread_mutex_unlock(&log->lock);
    support::in_child(die);
    for (const char *text : {"after\n", "again\n"})
        EXPECT_STREQ(qel_evlog(log, "%s", text), text);
    EXPECT_EQ(qel_evlog_free(&db), 0);
}

TEST(EvlogEntry, IsShownInTheZoneOfTheMoment) {
    for (auto [zone, seconds, shown] : {std::tuple("EAST-3", 0, "03:00:00.000 x\n"),
                                        {"WEST+5", 0, "19:00:00.000 x\n"},
                                        {"UTC0", INT32_MIN, "03:14:08.000 x\n"}}) {  // in 2038
        qel_evlog_entry entry{seconds, 0, "x\n"};
        char line[QEL_EVLOG_LINE_SIZE];
        setenv("TZ", zone, 1);
        qel_evlog_entry_dump(stdout, line, &entry, 0);
        EXPECT_STREQ(line, shown);
    }
}

TEST_P(Evlog, ThreadsLoseNoEventWhileOthersDump) {
    constexpr int kThreads = 4, kEvents = 1200;
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 5000, "busy", "b");
    auto write = [=](int t) {
        for (int i = 0; i < kEvents; ++i)
            qel_evlog(log, "%d %d\n", t, i);
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back(write, t);
    for (int i = 0; i < 5; ++i)
        dump_of(log);
    for (std::thread &thread : threads)
        thread.join();
    ASSERT_EQ(log->current, kThreads * kEvents);
    int next[kThreads] = {};
    for (int entry = 0, t = 0, i = 0; entry < log->current; ++entry) {
        ASSERT_EQ(sscanf(log->entries[entry].text, "%d %d", &t, &i), 2);
        EXPECT_EQ(i, next[t]++);
    }
}

}  // namespace

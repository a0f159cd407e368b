// SPDX-License-Identifier: Apache-2.0
// Event logs on the heap and in sections: their rings, dumps and database, misuse, children, threads.
#include "utils/evlog.h"

#include <dlfcn.h>

#include "support/support.h"
#include "utils/platform/trace.h"

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

// Serves the system device's one request; the clock stands still.
#define NOW "03:00:01.250 "
[[maybe_unused]] const bool faked = [] {
    support::replace_call("ioctl", [](int, unsigned long request, int32_t *code) {
        *code = platform_code;
        return request == 0x4004DF06 && platform_code >= 0 ? 0 : -1;
    });
    setenv("TZ", "EAST-3", 1);
    utils_testing_set_clock(CLOCK_REALTIME, support::kSecond * 5 / 4);
    support::write_file("/dev/moxsys", "");
    return true;
}();

class Evlog : public testing::TestWithParam<int> {
  protected:
    void SetUp() override {
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

std::string dump_of(qel_evlog_handle *log, int level = 0) {
    return captured(1, [&] { EXPECT_EQ(qel_evlog_dump(stdout, log, level), 0); });
}

TEST_P(Evlog, KeepsTheNewestEventsAndDumpsThemInOrder) {
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 5, "ring", "R");
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(log->trace_handle == QEL_EVLOG_HEAP, on_heap());
    EXPECT_EQ(last_section, on_heap() ? "" : "ring 1/136/1");
    auto expect_dump = [&](const std::string &place, const std::string &events, int level = 0) {
        EXPECT_EQ(dump_of(log, level),
                  "evt log            :ring\nshortcut           :R\ntotal entries      :5\n" +
                      place + "trace hndl         :" + std::to_string(log->trace_handle) + "\n" +
                      events + "------------------------------------------------------\n");
    };
    const char *empty = "current            :0\nwrapped            :0\n";
    const char *wrapped = "current            :2\nwrapped            :1\n";
    expect_dump(empty, "");
    for (int i = 1; i <= 7; ++i)
        EXPECT_EQ(qel_evlog(log, "event %d\n", i), log->entries[(i - 1) % 5].text);
    expect_dump(wrapped,
                NOW "event 3\n" NOW "event 4\n" NOW "event 5\n" NOW "event 6\n" NOW "event 7\n");
    expect_dump(wrapped, "", -1);
    qel_evlog_clear(log);
    expect_dump(empty, "");
    EXPECT_EQ(log->entries[4].text[0], 0);
    for (int i = 0; i < 5 * 256 + 1; ++i)
        qel_evlog(log, "x\n");
    expect_dump("current            :1\nwrapped            :0\n", NOW "x\n");
}

TEST_P(Evlog, CutsLongTextsWhenStoringAndWhenDumping) {
    std::string name(50, 'n'), cut(40, 'n'), x(99, 'x'), y(66, 'y');
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 10, name.c_str(), "0123456789abc");
    EXPECT_EQ(last_section, on_heap() ? "" : "nnnnn/136/1");
    EXPECT_EQ(qel_evlog(log, "%s", x.c_str()), x.substr(0, 67));
    for (const char *text : {y.c_str(), "no newline", ""})
        qel_evlog(log, "%s", text);
    std::string dump = dump_of(log);
    x.replace(65, 99, "\n" NOW), y.replace(65, 1, "\n" NOW);
    EXPECT_THAT(dump, HasSubstr(NOW + x + y + "no newlin\n" NOW "--"));
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
    for (auto [argc, echo] :
         {std::pair(2, ""), {3, "second:two\n"}, {2, "second:two\n"}, {3, ""}}) {
        qel_evlog_private_toggleShow(argc, argv);
        EXPECT_EQ(captured(1, [&] { qel_evlog(first, "one\n"), qel_evlog(second, "two"); }), echo);
    }
    qel_evlog_db_clear(&db);
    for (qel_evlog_handle *log : {first, second}) {
        EXPECT_EQ(log->current, 0);
        EXPECT_EQ(log->wrapped, 0);
    }
    EXPECT_EQ(captured(1, [&] { qel_evlog_db_dump(stdout, &db, 0); }),
              dump_of(first) + dump_of(second));
}

TEST_P(Evlog, RefusesWhatItCannotHoldAndAFailureLeavesTheDatabaseLocked) {
    bool starved = false, locked = false;
    auto refusal = [&](int entries) {
        auto make = [&] { return qel_evlog_newHandle(&db, entries, "n", "s"); };
        std::string text = captured(
            1, [&] { EXPECT_EQ(starved ? support::without_memory(make) : make(), nullptr); });
        locked = pthread_mutex_trylock(&db.lock) == EBUSY;
        pthread_mutex_unlock(&db.lock);
        return text;
    };
    for (int entries : {5001, 0, -1}) {
        EXPECT_EQ(refusal(entries),
                  "Exceed supported evlog entries=" + std::to_string(entries) + "\n");
        EXPECT_FALSE(locked);
    }
    (on_heap() ? starved : refuse_section) = true;
    EXPECT_THAT(refusal(2),
                MatchesRegex(on_heap() ? "EVLOG: error in getting a section\n"
                                       : "EVLOG: /.*/evlog_test error in getting a section=1\n"));
    EXPECT_TRUE(locked);
    starved = refuse_section = false;
    for (int i = 1; i <= 15; ++i)
        ASSERT_NE(qel_evlog_newHandle(&db, i == 2 ? 5000 : 1, nullptr, nullptr), nullptr);
    EXPECT_EQ(refusal(2), "Exceed supported trace section section=16\n");
    EXPECT_TRUE(locked);
}

TEST(EvlogArguments, NullAndForeignOnesAreRefused) {
    support::leaves(kDevice);
    qel_evlog_db db;
    platform_code = -1;
    EXPECT_EQ(qel_evlog_init(&db), -1);
    utils_testing_fail_call("open", 1, ENOENT, UTILS_TESTING_ONCE);
    platform_code = 0;
    EXPECT_EQ(qel_evlog_init(&db), -1);
    qel_evlog_handle *usable = qel_evlog_newHandle(&db, 2, "usable", "u");
    qel_evlog_db other{};
    EXPECT_EQ(qel_evlog_dbInsert(&other, usable), 0);
    EXPECT_EQ(other.tail, usable);
    EXPECT_EQ(qel_evlog_free(&db), 0);
    std::vector<char> memory(400, 'x');
    for (void *log : {static_cast<void *>(nullptr), static_cast<void *>(memory.data())}) {
        auto dump = [&] { return qel_evlog_dump(stdout, static_cast<qel_evlog_handle *>(log), 0); };
        EXPECT_EQ(captured(1, [&] { EXPECT_EQ(dump(), -22); }), "not valid handle\n");
    }
    EXPECT_EQ(qel_evlog_init(nullptr), -22);
    EXPECT_EQ(qel_evlog_free(nullptr), -22);
}

TEST(EvlogSelfTest, ShowsTwoLogsAndNamesTheStepThatFails) {
    support::leaves({.descriptors = 3});
    platform_code = -1;
    EXPECT_EQ(captured(1, qel_evlog_test), "error in eventlog init()\n");
    platform_code = 0;
    refuse_section = true;
    EXPECT_THAT(captured(1, qel_evlog_test),
                HasSubstr(" section=1\nerror in eventlog get new handle()\n"));
    refuse_section = false;
    EXPECT_THAT(
        captured(1, qel_evlog_test),
        MatchesRegex(
            "-------------\nevt log            :General 1\n(.*\n)*.*first event\n(.*\n)*.* after a second\n(.*\n)*no "
            "verbose-------------\n([^0].*\n)*verbose-----------\n(.*\n)*"
            "total entries      :5\n(.*\n){3}" NOW "event 3 of 7\n(.*\n){3}" NOW
            "event 7 of 7\n-+\n"));
}

TEST(EvlogInAChild, NeitherItsDeathNorItsFreeStopsTheParent) {
    support::leaves(kDevice);
    qel_evlog_db db;
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

TEST(EvlogEntry, SecondsReachBeyond2038) {
    qel_evlog_entry entry{INT32_MIN, 250999, "x\n"};
    char line[QEL_EVLOG_LINE_SIZE];
    qel_evlog_entry_dump(stdout, line, &entry, 0);
    EXPECT_STREQ(line, "06:14:08.250 x\n");
}

TEST(EvlogThreads, LoseNoEventWhileOthersDump) {
    constexpr int kThreads = 4, kEvents = 1200;
    support::leaves(kDevice);
    qel_evlog_db db;
    platform_code = 26;
    ASSERT_EQ(qel_evlog_init(&db), 0);
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 5000, "busy", "b");
    support::in_threads(kThreads + 1, [=](int t) {
        for (int i = 0; i < 5 && t == kThreads; ++i)
            dump_of(log);
        for (int i = 0; i < kEvents && t < kThreads; ++i)
            qel_evlog(log, "%d %d\n", t, i);
    });
    std::vector<int> next(kThreads);
    for (int entry = 0, t = 0, i = 0; entry < log->current; ++entry) {
        ASSERT_EQ(sscanf(log->entries[entry].text, "%d %d", &t, &i), 2);
        EXPECT_EQ(i, next.at(static_cast<size_t>(t))++);
    }
    EXPECT_EQ(next, std::vector(kThreads, kEvents));
    EXPECT_EQ(qel_evlog_free(&db), 0);
}

}  // namespace

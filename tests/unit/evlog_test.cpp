#include "utils/evlog.h"

#include <dlfcn.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <thread>
#include <vector>

#include "platform/trace.h"
#include "support/heap.h"
#include "support/support.h"

namespace {
int32_t platform_code = 0;
int ioctl_result = 0;
bool refuse_section = false;
std::string last_section;
}  // namespace

// The system device's one request.
extern "C" int ioctl(int, unsigned long request, ...) noexcept {
    va_list values;
    va_start(values, request);
    auto *code = va_arg(values, int32_t *);
    va_end(values);
    if (request != 0x4004DF06)
        return -1;
    *code = platform_code;
    return ioctl_result;
}

int trace_data_init(int *handle, int kind, unsigned size, const char *name, int section,
                    void **address, int code) {
    static auto real =
        reinterpret_cast<decltype(&trace_data_init)>(dlsym(RTLD_NEXT, "trace_data_init"));
    last_section = name + std::string("/") + std::to_string(kind) + "/" + std::to_string(code);
    return refuse_section ? -1 : real(handle, kind, size, name, section, address, code);
}

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

class Evlog : public testing::TestWithParam<int> {
  protected:
    void SetUp() override {
        support::write_file("/dev/moxsys", "");
        platform_code = GetParam();
        ioctl_result = 0;
        refuse_section = false;
        ASSERT_EQ(qel_evlog_init(&db), 0);
    }
    void TearDown() override { EXPECT_EQ(qel_evlog_free(&db), 0); }
    qel_evlog_db db;
};

// A trace section, and heap memory.
INSTANTIATE_TEST_SUITE_P(Platforms, Evlog, testing::Values(1, 27));

std::string dumped(const std::function<void(FILE *)> &body) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    body(stream);
    fclose(stream);
    std::string result(text, size);
    free(text);
    return result;
}

std::string dump_of(qel_evlog_handle *log, int level = 0) {
    return dumped([&](FILE *stream) { EXPECT_EQ(qel_evlog_dump(stream, log, level), 0); });
}

// A dump with every time replaced by "T ".
std::string without_times(const std::string &dump) {
    std::string text = dump;
    for (size_t at = 0; (at = text.find('.', at)) != std::string::npos; ++at) {
        if (at >= 8 && text[at - 3] == ':' && text[at + 4] == ' ')
            text.replace(at - 8, 13, "T ");
    }
    return text;
}

TEST_P(Evlog, KeepsTheNewestEventsAndDumpsThemInOrder) {
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 5, "ring", "R");
    ASSERT_NE(log, nullptr);
    bool heap = GetParam() == 27;
    EXPECT_EQ(log->trace_handle == QEL_EVLOG_HEAP, heap);
    if (!heap) {
        EXPECT_EQ(last_section, "ring 1/136/1");
    }
    std::string head = "evt log            :ring\nshortcut           :R\ntotal entries      :5\n";
    std::string tail = "trace hndl         :" + std::to_string(log->trace_handle) + "\n";
    std::string end = "------------------------------------------------------\n";
    EXPECT_EQ(dump_of(log), head + "current            :0\nwrapped            :0\n" + tail + end);
    for (int i = 1; i <= 7; ++i) {
        char *text = qel_evlog(log, "event %d\n", i);
        EXPECT_EQ(text, log->entries[(i - 1) % 5].text);
    }
    EXPECT_EQ(log->current, 2);
    EXPECT_EQ(log->wrapped, 1);
    std::string position = "current            :2\nwrapped            :1\n";
    EXPECT_EQ(
        without_times(dump_of(log)),
        head + position + tail + "T event 3\nT event 4\nT event 5\nT event 6\nT event 7\n" + end);
    EXPECT_EQ(dump_of(log, -1), head + position + tail + end);
    qel_evlog_clear(log);
    EXPECT_EQ(dump_of(log), head + "current            :0\nwrapped            :0\n" + tail + end);
    EXPECT_EQ(log->entries[4].text[0], 0);
    for (int i = 0; i < 5 * 256 + 1; ++i)
        qel_evlog(log, "x\n");
    EXPECT_EQ(log->wrapped, 0);
    EXPECT_EQ(log->current, 1);
}

TEST_P(Evlog, CutsLongTextsWhenStoringAndWhenDumping) {
    qel_evlog_handle *log =
        qel_evlog_newHandle(&db, 10, std::string(50, 'n').c_str(), "0123456789abc");
    std::string text = std::string(99, 'x') + "\n";
    EXPECT_EQ(qel_evlog(log, "%s", text.c_str()), std::string(67, 'x'));
    qel_evlog(log, "%s", std::string(66, 'y').c_str());
    qel_evlog(log, "no newline");
    qel_evlog(log, "%s", "");
    EXPECT_THAT(without_times(dump_of(log)),
                HasSubstr("T " + std::string(65, 'x') + "\nT " + std::string(65, 'y') +
                          "\nT no newlin\nT --"));
    EXPECT_THAT(dump_of(log), HasSubstr("evt log            :" + std::string(40, 'n') +
                                        "\nshortcut           :0123456789\n"));
    EXPECT_EQ(dumped([&](FILE *stream) { qel_evlog_db_list(stream, &db); }),
              "Listing all the handles:\n[" + std::string(40, 'n') + "]\t[0123456789]\n");
    EXPECT_EQ(qel_evlog_findByShortCut(&db, "0123456789"), log);
    if (GetParam() != 27) {
        EXPECT_EQ(last_section, "nnnnn/136/1");
    }
}

TEST_P(Evlog, FindsEchoesAndClearsByShortcut) {
    qel_evlog_handle *first = qel_evlog_newHandle(&db, 3, "first", "FaB");
    qel_evlog_handle *second = qel_evlog_newHandle(&db, 3, "second", "zoo");
    EXPECT_EQ(qel_evlog_findByShortCut(&db, "fAb"), first);
    EXPECT_EQ(qel_evlog_findByShortCut(&db, "ZOO"), second);
    EXPECT_EQ(qel_evlog_findByShortCut(&db, "zo"), nullptr);
    char program[] = "show", command[] = "evlog", name[] = "ZOO";
    char *argv[] = {program, command, name};
    auto log_both = [&] {
        qel_evlog(first, "one\n");
        qel_evlog(second, "two");
    };
    qel_evlog_private_toggleShow(2, argv);
    EXPECT_EQ(support::captured(1, log_both), "");
    qel_evlog_private_toggleShow(3, argv);
    EXPECT_EQ(support::captured(1, log_both), "second:two\n");
    qel_evlog_handle_toggleShow(second);
    EXPECT_EQ(support::captured(1, log_both), "");
    EXPECT_EQ(second->echo, 0);
    qel_evlog_db_clear(&db);
    EXPECT_EQ(dumped([&](FILE *stream) { qel_evlog_db_dump(stream, &db, 0); }),
              dump_of(first) + dump_of(second));
    EXPECT_EQ(first->current + second->current + first->wrapped + second->wrapped, 0);
}

TEST_P(Evlog, RefusesSizesThatALogCannotHave) {
    EXPECT_NE(qel_evlog_newHandle(&db, 5000, "most", "m"), nullptr);
    for (int entries : {5001, 0, -1}) {
        EXPECT_EQ(support::captured(
                      1, [&] { EXPECT_EQ(qel_evlog_newHandle(&db, entries, "n", "s"), nullptr); }),
                  "Exceed supported evlog entries=" + std::to_string(entries) + "\n");
    }
    EXPECT_NE(qel_evlog_newHandle(&db, 1, nullptr, nullptr), nullptr);
}

TEST_P(Evlog, FailedCreationLeavesTheDatabaseLocked) {
    bool heap = GetParam() == 27;
    bool refuse_memory = false;
    auto fails = [&](const std::string &message) {
        qel_evlog_handle *log = nullptr;
        std::string text = support::captured(1, [&] {
            support::refuse_after = refuse_memory ? 0 : -1;
            log = qel_evlog_newHandle(&db, 2, "n", "s");
            support::refuse_after = -1;
        });
        EXPECT_EQ(log, nullptr);
        EXPECT_THAT(text, MatchesRegex(message));
        EXPECT_EQ(pthread_mutex_trylock(&db.lock), EBUSY);
        pthread_mutex_unlock(&db.lock);
    };
    if (!heap) {
        refuse_section = true;
        fails("EVLOG: /.*/evlog_test error in getting a section=1\n");
        refuse_section = false;
    }
#ifdef UTILS_FAKE_HEAP
    if (heap) {
        refuse_memory = true;
        fails("EVLOG: error in getting a section\n");
        refuse_memory = false;
    }
#endif
    for (int i = 1; i <= 15; ++i)
        ASSERT_NE(qel_evlog_newHandle(&db, 2, ("log" + std::to_string(i)).c_str(), "s"), nullptr);
    fails("Exceed supported trace section section=16\n");
}

TEST(EvlogArguments, NullAndForeignOnesAreRefused) {
    qel_evlog_db db;
    EXPECT_EQ(qel_evlog_init(nullptr), -22);
    ioctl_result = -1;
    support::write_file("/dev/moxsys", "");
    EXPECT_EQ(qel_evlog_init(&db), -1);
    unlink("/dev/moxsys");
    EXPECT_EQ(qel_evlog_init(&db), -1);
    EXPECT_NE(qel_evlog_newHandle(&db, 2, "usable", "u"), nullptr);
    EXPECT_EQ(qel_evlog_free(&db), 0);
    std::vector<char> memory(400, 'x');
    auto *foreign = reinterpret_cast<qel_evlog_handle *>(memory.data());
    for (qel_evlog_handle *log : {static_cast<qel_evlog_handle *>(nullptr), foreign}) {
        EXPECT_EQ(dumped([&](FILE *stream) { EXPECT_EQ(qel_evlog_dump(stream, log, 0), -22); }),
                  "not valid handle\n");
    }
    EXPECT_EQ(qel_evlog(nullptr, "x"), nullptr);
    EXPECT_EQ(qel_evlog_newHandle(nullptr, 1, "n", "s"), nullptr);
    EXPECT_EQ(qel_evlog_findByShortCut(nullptr, "s"), nullptr);
    EXPECT_EQ(qel_evlog_dump(nullptr, foreign, 0), -22);
    EXPECT_EQ(qel_evlog_free(nullptr), -22);
    EXPECT_EQ(qel_evlog_dbInsert(&db, nullptr), -22);
    qel_evlog_clear(nullptr);
    qel_evlog_db_clear(nullptr);
    qel_evlog_handle_toggleShow(nullptr);
    qel_evlog_handle_free(nullptr);
    qel_evlog_entry entry{1, 41999, "text\n"};
    char line[80] = "untouched";
    qel_evlog_entry_dump(nullptr, line, &entry, 0);
    qel_evlog_entry_dump(stdout, line, &entry, -1);
    qel_evlog_entry_dump(stdout, line, nullptr, 0);
    EXPECT_STREQ(line, "untouched");
    qel_evlog_entry_dump(stdout, line, &entry, 0);
    EXPECT_THAT(line, MatchesRegex("..:..:01\\.041 text\n"));
}

TEST(EvlogSelfTest, ShowsTwoLogsAndNamesTheStepThatFails) {
    EXPECT_EQ(support::captured(1, qel_evlog_test), "error in eventlog init()\n");
    support::write_file("/dev/moxsys", "");
    ioctl_result = 0;
    platform_code = 26;
    std::string text = without_times(support::captured(1, qel_evlog_test));
    EXPECT_THAT(text, testing::StartsWith("-------------\nevt log            :General 1\n"));
    EXPECT_THAT(text, HasSubstr("no verbose-------------\n"));
    size_t verbose = text.find("\nverbose-----------\n");
    ASSERT_NE(verbose, std::string::npos);
    EXPECT_THAT(text.substr(verbose), HasSubstr("T event 3 of 7\nT event 4 of 7\n"));
    platform_code = 0;
    refuse_section = true;
    EXPECT_THAT(support::captured(1, qel_evlog_test),
                MatchesRegex("EVLOG: .* section=1\nerror in eventlog get new handle\\(\\)\n"));
    refuse_section = false;
}

TEST_P(Evlog, ThreadsLoseNoEventWhileOthersDumpAndToggle) {
    constexpr int kThreads = 4, kEvents = 1200;
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 5000, "busy", "b");
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEvents; ++i)
                qel_evlog(log, "%d %d\n", t, i);
        });
    }
    for (int i = 0; i < 5; ++i)
        dump_of(log);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(log->total * log->wrapped + log->current, kThreads * kEvents);
    std::vector<int> next(kThreads, 0);
    int t = 0, i = 0;
    for (int entry = 0; entry < std::min(kThreads * kEvents, log->total); ++entry) {
        ASSERT_EQ(sscanf(log->entries[entry].text, "%d %d", &t, &i), 2);
        EXPECT_EQ(i, next[static_cast<size_t>(t)]++);
    }
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The reader/writer lock between processes: its states, waits, priority and errors, and six
// processes of four threads at it.
#include "utils/proc_rwlock.h"

#include <sys/mman.h>

#include <optional>

#include "support/support.h"

namespace {

using support::eventually;

// The process's nice value, as the library sees it.
int nice_value;
bool fail_set;
std::vector<int> changes;

[[maybe_unused]] const bool faked = [] {
    support::replace_call("getpriority", [](int which, id_t who) {
        return which == PRIO_PROCESS && who == 0 ? nice_value : 19;
    });
    support::replace_call("setpriority", [](int which, id_t who, int value) {
        changes.push_back(which == PRIO_PROCESS && who == 0 ? value : 19);
        errno = EACCES;
        return fail_set ? -1 : 0;
    });
    return true;
}();

struct Lock : procrwlock_t {
    Lock() { EXPECT_EQ(procrwlock_init(this, open("/tmp/lock", O_RDWR | O_CREAT, 0600)), 0); }
    ~Lock() { close(l_fd); }
    // Whether the other threads bring the field to the value.
    bool gets(uint32_t procrwlock_t::*field, uint32_t value) {
        return eventually([&] {
            pthread_mutex_lock(&l_mutex);
            bool same = this->*field == value;
            pthread_mutex_unlock(&l_mutex);
            return same;
        });
    }
};

using Op = int (*)(procrwlock_t *);
const Op kRead = procrwlock_rdlock, kTryRead = procrwlock_rdlock_trylock,
         kEndRead = procrwlock_rdunlock;
const Op kWrite = procrwlock_wrlock, kTryWrite = procrwlock_wrlock_trylock,
         kEndWrite = procrwlock_wrunlock;

// One call after another: what each gives and sets errno to, 77 when it leaves that alone.
struct Call {
    const char *what;
    Op call;
    int result, error = 77;
};
void expect_calls(procrwlock_t *lock, std::initializer_list<Call> calls) {
    for (const Call &c : calls) {
        errno = 77;
        EXPECT_EQ(c.call(lock), c.result) << c.what;
        EXPECT_EQ(errno, c.error) << c.what;
    }
}

pid_t process(const std::function<void()> &body) {
    pid_t child = fork();
    if (child != 0)
        return child;
    body();
    _exit(testing::Test::HasFailure());
}

// Another process, stopped while it holds the lock, until it is killed.
struct Holder {
    pid_t child;
    explicit Holder(Op take) {
        child = process([=] {
            Lock lock;
            take(&lock) == 0 ? raise(SIGSTOP) : 0;
        });
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, WUNTRACED), child);
        EXPECT_TRUE(WIFSTOPPED(status)) << status;
    }
    ~Holder() {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
};

// Each case begins with a fresh priority record, in a child: this test comes first.
TEST(ProcRwlock, RaisesThePriorityFromTheFirstLockToTheLast) {
    using Values = std::vector<int>;
    EXPECT_TRUE(support::passes_in_child([] {
        nice_value = 1;
        Lock lock, second;
        for (int round = 1; round <= 2; ++round) {
            changes.clear();
            expect_calls(&lock, {{"free", kWrite, 0}, {"taken", kTryWrite, -1}});
            expect_calls(&second, {{"another record", kRead, 0}});
            expect_calls(&lock, {{"not the last one", kEndWrite, 0}});
            EXPECT_EQ(changes, (Values{0, 0, 0}));
            expect_calls(&second, {{"the last one", kEndRead, 0}});
            EXPECT_EQ(changes, (Values{0, 0, 0, 1}));
            EXPECT_EQ(utils_testing_count_calls("getpriority"), round);
        }
        fail_set = true;
        expect_calls(&lock, {{"a failed raise is ignored", kWrite, 0},
                             {"a failed return is not", kEndWrite, -1, EACCES}});
        EXPECT_EQ(lock.l_state, PROCRWLOCK_FREE);
    }));
    // While another process reads and the user may not raise priorities; `second` is held all the
    // time.
    EXPECT_TRUE(support::passes_in_child([] {
        nice_value = 10;
        Lock lock, second;
        Holder holder(kRead);
        expect_calls(&second, {{"second", kRead, 0}});
        fail_set = true;
        expect_calls(&lock, {{"busy at the file", kTryWrite, -1, EAGAIN},
                             {"busy inside", kTryWrite, -1},
                             {"busy inside", kTryRead, -1},
                             {"not reading", kEndRead, -1, EPERM},
                             {"kept by the failed call", kEndWrite, 0},
                             {"free", kEndWrite, 0},
                             {"shared", kTryRead, 0},
                             {"read inside", kTryWrite, -1},
                             {"read", kEndRead, 0}});
        // A reader that fails after its wait.
        for (Op unlock : {kEndRead, kEndWrite}) {
            Lock waited;
            int file = std::exchange(waited.l_fd, -1);
            waited.l_state = PROCRWLOCK_WRITE;
            std::thread reader([&] {
                expect_calls(&waited, {{"no file", kRead, -1, EBADF}, {"", unlock, -1, EBADF}});
            });
            EXPECT_TRUE(waited.gets(&procrwlock_t::l_rwaiting, 1));
            waited.l_lowered = 1;  // as after a write lock that failed
            EXPECT_EQ(kEndWrite(&waited), -1);
            reader.join();
            waited.l_fd = file;
        }
        EXPECT_EQ(std::count(changes.begin(), changes.end(), 10), 0);
        fail_set = false;
        expect_calls(&second, {{"second", kEndRead, 0}});
        EXPECT_EQ(changes.back(), 10);
    }));
    // A nice value of 0 or below, and one that cannot be asked for, is sampled once.
    for (auto [normal, error] : {std::pair(0, 0), {-5, 0}, {-1, 0}, {10, ESRCH}}) {
        EXPECT_TRUE(support::passes_in_child([value = normal, failure = error] {
            Lock lock;
            nice_value = value;
            if (failure != 0) {
                utils_testing_fail_call("getpriority", 1, failure, 1);
                expect_calls(&lock, {{"cannot be asked", kRead, -1, failure}});
            }
            for (int round = 0; round < 3; ++round)
                expect_calls(&lock, {{"taken", kRead, 0}, {"given back", kEndRead, 0}});
            EXPECT_EQ(changes, Values{});
            EXPECT_EQ(utils_testing_count_calls("getpriority"), 1);
        })) << normal;
    }
}

TEST(ProcRwlock, TryLocksFollowTheStateAndBrokenRecordsAreRefused) {
    const struct {
        Op own, foreign, attempt;  // what this process and another one took before
        int result;
        uint16_t state;
        uint32_t readers;
    } cases[] = {
        {nullptr, nullptr, kTryRead, 0, PROCRWLOCK_READ, 1},
        {nullptr, nullptr, kTryWrite, 0, PROCRWLOCK_WRITE, 0},
        {kRead, nullptr, kTryRead, 0, PROCRWLOCK_READ, 2},
        {kRead, nullptr, kTryWrite, -1, PROCRWLOCK_READ, 1},
        {kWrite, nullptr, kTryRead, -1, PROCRWLOCK_WRITE, 0},
        {kWrite, nullptr, kTryWrite, -1, PROCRWLOCK_WRITE, 0},
        {nullptr, kRead, kTryRead, 0, PROCRWLOCK_READ, 1},
        {nullptr, kWrite, kTryRead, -1, PROCRWLOCK_FREE, 0},
        // The failed write try-lock keeps its state, until the unlock that follows it.
        {nullptr, kRead, kTryWrite, -1, PROCRWLOCK_WRITE, 0},
        {nullptr, kWrite, kTryWrite, -1, PROCRWLOCK_WRITE, 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        Lock lock;
        std::optional<Holder> holder;
        if (c.foreign != nullptr)
            holder.emplace(c.foreign);
        EXPECT_EQ(c.own != nullptr ? c.own(&lock) : 0, 0);
        std::thread([&] { EXPECT_EQ(c.attempt(&lock), c.result); }).join();
        EXPECT_EQ(lock.l_state, c.state);
        EXPECT_EQ(lock.l_readers, c.readers);
        holder.reset();
        if (c.state == PROCRWLOCK_WRITE)
            expect_calls(&lock, {{"written", kTryRead, -1}, {"written", kEndWrite, 0}});
        EXPECT_EQ(kTryWrite(&lock), c.readers > 0 ? -1 : 0);
    }
    for (Op each : {kRead, kTryRead, kEndRead, kWrite, kTryWrite, kEndWrite})
        expect_calls(nullptr, {{"no record", each, -1, EINVAL}});
    Lock lock;
    expect_calls(nullptr,
                 {{"no record", [](auto *l) { return procrwlock_init(l, 1); }, -1, EINVAL}});
    expect_calls(&lock, {{"no file", [](auto *l) { return procrwlock_init(l, -1); }, -1, EINVAL},
                         {"any file", [](auto *l) { return procrwlock_init(l, 0); }, 0}});
    const std::pair<Op, std::string> fatal[] = {
        {kRead, "195: procrwlock_rdlock"},
        {kTryRead, "195: procrwlock_rdlock"},
        {kWrite, "358: procrwlock_wrlock"},
    };
    for (auto &[broken, where] : fatal) {
        lock.l_readers = 1;
        lock.l_state = PROCRWLOCK_WRITE;
        auto ending = support::in_child([&, take = broken] { return take(&lock); });
        EXPECT_EQ(ending.status, SIGABRT);
        std::string report = "_internal: Assertion `lck->l_state == 1' failed.";
        EXPECT_THAT(ending.err, testing::HasSubstr("proc_rwlock:" + where + report));
    }
    Lock interrupted;
    for (Op each : {kRead, kEndRead, kTryWrite, kEndWrite}) {
        utils_testing_fail_call("fcntl", 1, EINTR, 3);
        expect_calls(&interrupted, {{"interrupted", each, 0}});
        EXPECT_EQ(utils_testing_failures(), 3);
    }
}

TEST(ProcRwlock, OwnerWaitsForTheOtherReadersAndReadersComeFirst) {
    Lock lock;
    std::string order;  // guarded by the lock
    auto in_thread = [&](Op take, Op release, char name) {
        return std::thread([&, take, release, name] {
            EXPECT_EQ(take(&lock), 0);
            order += name;
            EXPECT_EQ(release(&lock), 0);
        });
    };
    EXPECT_EQ(kRead(&lock), 0);
    std::thread reader([&] {
        EXPECT_EQ(kRead(&lock), 0);
        EXPECT_TRUE(lock.gets(&procrwlock_t::l_wwaiting, 1));
        EXPECT_EQ(kTryRead(&lock), -1);
        in_thread(kRead, kEndRead, 'r').join();
        EXPECT_TRUE(lock.gets(&procrwlock_t::l_readers, 1));  // the owner waits for this one
        EXPECT_EQ(order, "r");
        EXPECT_TRUE(support::passes_in_child([] {
            Lock other;
            EXPECT_EQ(kTryWrite(&other), -1);
        }));
        EXPECT_EQ(kEndRead(&lock), 0);
    });
    EXPECT_TRUE(lock.gets(&procrwlock_t::l_readers, 2));
    std::thread writer = in_thread(kWrite, kEndWrite, 'w');
    EXPECT_TRUE(lock.gets(&procrwlock_t::l_wwaiting, 1));
    EXPECT_EQ(kEndRead(&lock), 0);
    reader.join();
    writer.join();
    EXPECT_EQ(lock.l_owner, static_cast<pthread_t>(-1));
    expect_calls(&lock, {{"nobody reads", kEndRead, -1, EPERM}, {"free", kWrite, 0}});
    std::thread second = in_thread(kWrite, kEndWrite, 'W');
    EXPECT_TRUE(lock.gets(&procrwlock_t::l_wwaiting, 1));
    std::thread first = in_thread(kRead, kEndRead, 'R');
    EXPECT_TRUE(lock.gets(&procrwlock_t::l_rwaiting, 1));
    EXPECT_EQ(kEndWrite(&lock), 0);
    first.join();
    second.join();
    EXPECT_EQ(order, "rwRW");
}

struct Shared {
    std::atomic<uint32_t> writes, refused, torn, errors;
    uint32_t data[64];  // guarded by the lock: all words are equal, but for a write under way
};

void work(Lock &lock, Shared &shared, unsigned seed) {
    std::mt19937 random(seed);
    for (int round = support::emulated() ? 500 : 5000; round > 0; --round) {
        auto dice = random() % 10;
        bool writes = dice < 2;
        if ((writes ? kWrite : dice < 6 ? kRead : kTryRead)(&lock) != 0) {
            ++(dice < 6 ? shared.errors : shared.refused);
            continue;
        }
        uint32_t first = shared.data[0];
        for (uint32_t &word : shared.data) {
            shared.torn += word != first;
            if (writes)
                ++word;
        }
        shared.writes += writes;
        shared.errors += (writes ? kEndWrite : kEndRead)(&lock) != 0;
    }
}

TEST(ProcRwlock, SixProcessesSeeNoHalfMadeWrite) {
    void *map =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Shared &shared = *new (map) Shared{};
    pid_t children[6];
    for (pid_t &child : children) {
        child = process([&] {
            Lock lock;
            std::vector<std::thread> threads;
            for (unsigned t = 0; t < 4; ++t)
                threads.emplace_back(work, std::ref(lock), std::ref(shared),
                                     static_cast<unsigned>(getpid()) * 4 + t);
            for (std::thread &thread : threads)
                thread.join();
        });
    }
    for (pid_t child : children) {
        int status;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(shared.torn, 0u);
    EXPECT_EQ(shared.errors, 0u);
    EXPECT_GT(shared.refused, 0u);
    for (uint32_t word : shared.data)
        EXPECT_EQ(word, shared.writes);
    munmap(map, sizeof(Shared));
}

}  // namespace

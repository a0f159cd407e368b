// SPDX-License-Identifier: Apache-2.0
#include "utils/proc_rwlock.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <optional>
#include <random>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/support.h"

namespace {

// The process's nice value, as the library sees it.
int nice_value, sampled;
bool fail_set;
std::vector<int> changes;

[[maybe_unused]] const bool faked = [] {
    support::replace_call("getpriority", [](int, id_t) {
        ++sampled;
        return nice_value;
    });
    support::replace_call("setpriority", [](int, id_t, int value) {
        changes.push_back(value);
        errno = EACCES;
        return fail_set ? -1 : 0;
    });
    return true;
}();

using support::eventually;

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
const Op kRead = procrwlock_rdlock, kTryRead = procrwlock_rdlock_trylock;
const Op kWrite = procrwlock_wrlock, kTryWrite = procrwlock_wrlock_trylock;

template <typename Body>
pid_t process(Body body) {
    pid_t child = fork();
    if (child != 0)
        return child;
    body();
    _exit(testing::Test::HasFailure());
}

// Another process that holds the lock until it is killed.
struct Holder {
    pid_t child;
    explicit Holder(Op take) {
        int ready[2];
        char byte;
        EXPECT_EQ(pipe(ready), 0);
        child = process([&] {
            Lock lock;
            if (take(&lock) == 0 && write(ready[1], "r", 1) == 1)
                pause();
        });
        close(ready[1]);
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
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
        nice_value = 10;
        Lock lock, second;
        for (int round = 1; round <= 2; ++round) {
            changes.clear();
            EXPECT_EQ(procrwlock_wrlock(&lock), 0);
            EXPECT_EQ(procrwlock_wrlock_trylock(&lock), -1);
            EXPECT_EQ(procrwlock_rdlock(&second), 0);
            EXPECT_EQ(procrwlock_wrunlock(&lock), 0);
            EXPECT_EQ(changes, (Values{0, 0, 0}));
            EXPECT_EQ(procrwlock_rdunlock(&second), 0);
            EXPECT_EQ(changes, (Values{0, 0, 0, 10}));
            EXPECT_EQ(sampled, round);
        }
        fail_set = true;
        EXPECT_EQ(procrwlock_wrlock(&lock), 0);  // a failed raise is ignored
        EXPECT_EQ(procrwlock_wrunlock(&lock), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(lock.l_state, PROCRWLOCK_FREE);
    }));
    // Every call in turn, what it gives and sets errno to (77: nothing) while another process reads
    // and the user may not raise priorities; `second` is held all the time.
    EXPECT_TRUE(support::passes_in_child([] {
        nice_value = 10;
        Lock lock, second;
        Holder holder(kRead);
        EXPECT_EQ(procrwlock_rdlock(&second), 0);
        fail_set = true;
        std::tuple<const char *, Op, int, int> calls[] = {
            {"busy at the file", kTryWrite, -1, EAGAIN},
            {"busy inside", kTryWrite, -1, 77},
            {"busy inside", kTryRead, -1, 77},
            {"not reading", procrwlock_rdunlock, -1, EPERM},
            {"kept by the failed call", procrwlock_wrunlock, 0, 77},
            {"free", procrwlock_wrunlock, 0, 77},
            {"shared", kTryRead, 0, 77},
            {"read inside", kTryWrite, -1, 77},
            {"read", procrwlock_rdunlock, 0, 77},
        };
        for (auto &[what, call, result, error] : calls) {
            errno = 77;
            EXPECT_EQ(call(&lock), result) << what;
            EXPECT_EQ(errno, error) << what;
        }
        // A reader that fails after its wait.
        for (Op unlock : {procrwlock_rdunlock, procrwlock_wrunlock}) {
            Lock waited;
            int file = std::exchange(waited.l_fd, -1);
            waited.l_state = PROCRWLOCK_WRITE;
            std::thread reader(
                [&] { EXPECT_EQ(procrwlock_rdlock(&waited) + unlock(&waited), -2); });
            EXPECT_TRUE(waited.gets(&procrwlock_t::l_rwaiting, 1));
            waited.l_lowered = 1;  // as after a write lock that failed
            EXPECT_EQ(procrwlock_wrunlock(&waited), -1);
            reader.join();
            waited.l_fd = file;
        }
        EXPECT_EQ(std::count(changes.begin(), changes.end(), 10), 0);
        fail_set = false;
        EXPECT_EQ(procrwlock_rdunlock(&second), 0);
        EXPECT_EQ(changes.back(), 10);
    }));
    for (int normal : {0, -5, -1}) {
        EXPECT_TRUE(support::passes_in_child([normal] {
            Lock lock;
            nice_value = normal;
            for (int round = 0; round < 3; ++round)
                EXPECT_TRUE(procrwlock_rdlock(&lock) == 0 && procrwlock_rdunlock(&lock) == 0);
            EXPECT_EQ(changes, Values{});
            EXPECT_EQ(sampled, 1);
        })) << normal;
    }
}

TEST(ProcRwlock, TryLocksFollowTheStateOfThreadsAndProcesses) {
    // Taken before by this process and by another; the attempt, its result, the state and the
    // readers then.
    std::tuple<Op, Op, Op, int, uint16_t, uint32_t> cases[] = {
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
    for (auto &[own, foreign, attempt, expected, state, readers] : cases) {
        SCOPED_TRACE(&own - &std::get<0>(cases[0]));
        Lock lock;
        std::optional<Holder> holder;
        if (foreign != nullptr)
            holder.emplace(foreign);
        EXPECT_EQ(own != nullptr ? own(&lock) : 0, 0);
        int result = 1;
        std::thread([&, take = attempt] { result = take(&lock); }).join();
        EXPECT_EQ(std::tie(result, lock.l_state, lock.l_readers),
                  std::tie(expected, state, readers));
        holder.reset();
        if (state == PROCRWLOCK_WRITE) {
            EXPECT_EQ(procrwlock_rdlock_trylock(&lock), -1);
            EXPECT_EQ(procrwlock_wrunlock(&lock), 0);
        }
        EXPECT_EQ(procrwlock_wrlock_trylock(&lock), readers > 0 ? -1 : 0);
    }
    procrwlock_t lock;
    EXPECT_EQ(procrwlock_init(nullptr, 1), -1);
    errno = 0;
    EXPECT_EQ(procrwlock_init(&lock, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(procrwlock_rdlock(nullptr), -1);
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
    EXPECT_EQ(procrwlock_rdlock(&lock), 0);
    std::thread reader([&] {
        EXPECT_EQ(procrwlock_rdlock(&lock), 0);
        EXPECT_TRUE(lock.gets(&procrwlock_t::l_wwaiting, 1));
        EXPECT_EQ(procrwlock_rdlock_trylock(&lock), -1);
        in_thread(procrwlock_rdlock, procrwlock_rdunlock, 'r').join();
        EXPECT_TRUE(lock.gets(&procrwlock_t::l_readers, 1));  // the owner waits for this one
        EXPECT_EQ(order, "r");
        EXPECT_TRUE(support::passes_in_child([] {
            Lock other;
            EXPECT_EQ(procrwlock_wrlock_trylock(&other), -1);
        }));
        EXPECT_EQ(procrwlock_rdunlock(&lock), 0);
    });
    EXPECT_TRUE(lock.gets(&procrwlock_t::l_readers, 2));
    std::thread writer = in_thread(procrwlock_wrlock, procrwlock_wrunlock, 'w');
    EXPECT_TRUE(lock.gets(&procrwlock_t::l_wwaiting, 1));
    EXPECT_EQ(procrwlock_rdunlock(&lock), 0);
    reader.join();
    writer.join();
    EXPECT_EQ(lock.l_owner, static_cast<pthread_t>(-1));
    EXPECT_EQ(procrwlock_rdunlock(&lock), -1);  // nobody reads
    EXPECT_EQ(procrwlock_wrlock(&lock), 0);
    std::thread second = in_thread(procrwlock_wrlock, procrwlock_wrunlock, 'W');
    EXPECT_TRUE(lock.gets(&procrwlock_t::l_wwaiting, 1));
    std::thread first = in_thread(procrwlock_rdlock, procrwlock_rdunlock, 'R');
    EXPECT_TRUE(lock.gets(&procrwlock_t::l_rwaiting, 1));
    EXPECT_EQ(procrwlock_wrunlock(&lock), 0);
    first.join();
    second.join();
    EXPECT_EQ(order, "rwRW");
}

TEST(ProcRwlock, BrokenRecordIsFatal) {
    std::pair<Op, std::string> cases[] = {{kRead, "195: procrwlock_rdlock"},
                                          {kTryRead, "195: procrwlock_rdlock"},
                                          {kWrite, "358: procrwlock_wrlock"}};
    for (auto &[broken, where] : cases) {
        auto ending = support::in_child([take = broken] {
            Lock lock;
            lock.l_readers = 1;
            lock.l_state = PROCRWLOCK_WRITE;
            return take(&lock);
        });
        EXPECT_EQ(ending.status, SIGABRT);
        EXPECT_THAT(ending.err, testing::HasSubstr("proc_rwlock:" + where +
                                                   "_internal: Assertion "
                                                   "`lck->l_state == 1' failed."));
    }
}

struct Shared {
    std::atomic<bool> stop;
    std::atomic<uint32_t> reads, writes, refused, torn, errors;
    uint32_t data[64];  // guarded by the lock: all words are equal, but for a write under way
};

void work(Lock &lock, Shared &shared, unsigned seed) {
    std::mt19937 random(seed);
    while (!shared.stop) {
        auto dice = random() % 10;
        if (dice < 2) {
            shared.errors += procrwlock_wrlock(&lock) != 0;
            for (uint32_t &word : shared.data)
                ++word;
            ++shared.writes;
            shared.errors += procrwlock_wrunlock(&lock) != 0;
        } else if ((dice < 6 ? procrwlock_rdlock : procrwlock_rdlock_trylock)(&lock) == 0) {
            for (uint32_t word : shared.data)
                shared.torn += word != shared.data[63];
            ++shared.reads;
            shared.errors += procrwlock_rdunlock(&lock) != 0;
        } else {
            ++(dice < 6 ? shared.errors : shared.refused);
        }
    }
}

TEST(ProcRwlock, SixProcessesSeeNoHalfMadeWriteAndTheDeadDoNotBlock) {
    support::write_file("/tmp/data", std::string(sizeof(Shared), '\0'));
    int file = open("/tmp/data", O_RDWR);
    void *map = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    Shared &shared = *new (map) Shared;
    std::vector<pid_t> children;
    for (unsigned p = 0; p < 6; ++p) {
        children.push_back(process([&] {
            Lock lock;
            std::vector<std::thread> threads;
            for (unsigned t = 0; t < 4; ++t)
                threads.emplace_back(work, std::ref(lock), std::ref(shared), p * 4 + t);
            for (std::thread &thread : threads)
                thread.join();
        }));
    }
    auto progress = [&] {
        uint32_t reads = shared.reads + 100, writes = shared.writes + 10;
        return eventually([&] { return shared.reads > reads && shared.writes > writes; }, 30000);
    };
    int64_t end = support::monotonic_ms() + 3000;
    for (Op take : {kWrite, kRead}) {
        EXPECT_TRUE(progress());
        Holder holder(take);
        uint32_t writes = shared.writes;
        usleep(20000);  // long enough for a writer that the held lock would let in
        EXPECT_EQ(shared.writes, writes);
    }
    EXPECT_TRUE(progress());
    EXPECT_TRUE(eventually([&] { return support::monotonic_ms() > end; }));
    shared.stop = true;
    for (pid_t child : children) {
        int status;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    printf("%u reads, %u writes, %u try-locks refused\n", shared.reads.load(), shared.writes.load(),
           shared.refused.load());
    EXPECT_EQ(shared.torn + shared.errors, 0u);
    EXPECT_GT(shared.refused, 0u);
    for (uint32_t word : shared.data)
        EXPECT_EQ(word, shared.writes);
}

}  // namespace

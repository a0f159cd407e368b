#include "utils/proc_rwlock.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <thread>
#include <vector>

#include "support/support.h"

namespace {

// The process's nice value, as the library sees it.
int nice_value;
int sampled;
bool fail_get, fail_set;
std::vector<int> changes;

const char *const kFile = "/tmp/lockfile";

}  // namespace

extern "C" int getpriority(__priority_which_t, id_t) noexcept {
    ++sampled;
    errno = fail_get ? EPERM : errno;
    return fail_get ? -1 : nice_value;
}

extern "C" int setpriority(__priority_which_t, id_t, int value) noexcept {
    changes.push_back(value);
    errno = EACCES;
    return fail_set ? -1 : 0;
}

namespace {

struct Lock : procrwlock_t {
    Lock() { EXPECT_EQ(procrwlock_init(this, open(kFile, O_RDWR | O_CREAT, 0600)), 0); }
    ~Lock() { close(l_fd); }
    // A field as the other threads see it.
    template <typename T>
    T see(T procrwlock_t::*field) {
        pthread_mutex_lock(&l_mutex);
        T value = this->*field;
        pthread_mutex_unlock(&l_mutex);
        return value;
    }
};

// Another process that holds the lock until it is told to go.
class Holder {
  public:
    explicit Holder(int (*take)(procrwlock_t *)) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        child_ = fork();
        if (child_ == 0) {
            Lock lock;
            EXPECT_EQ(take(&lock), 0);
            EXPECT_EQ(::write(ready[1], "r", 1), 1);
            pause();
        }
        char byte;
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
    }
    ~Holder() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }

  private:
    pid_t child_ = -1;
};

// Each case begins with a fresh priority record, in a child: this test comes first.
TEST(ProcRwlock, RaisesThePriorityFromTheFirstLockToTheLast) {
    auto in_fresh_process = [](const std::function<void()> &body) {
        EXPECT_EQ(support::in_child([&] {
                      body();
                      return testing::Test::HasFailure() ? 1 : 0;
                  }).status,
                  0);
    };
    using Values = std::vector<int>;
    in_fresh_process([] {
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
    });
    for (int normal : {0, -5, -1}) {
        in_fresh_process([normal] {
            nice_value = normal;
            Lock lock;
            for (int round = 0; round < 3; ++round) {
                EXPECT_EQ(procrwlock_rdlock(&lock), 0);
                EXPECT_EQ(procrwlock_rdunlock(&lock), 0);
            }
            EXPECT_EQ(changes, Values{});
            EXPECT_EQ(sampled, 1);
        });
    }
    in_fresh_process([] {
        fail_get = true;
        Lock lock;
        EXPECT_EQ(procrwlock_rdlock(&lock), -1);
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(lock.l_state, PROCRWLOCK_FREE);
        EXPECT_EQ(procrwlock_rdlock(&lock), 0);  // not sampled again
        EXPECT_EQ(sampled, 1);
    });
}

TEST(ProcRwlock, TryLocksFollowTheStateOfThreadsAndProcesses) {
    using Op = int (*)(procrwlock_t *);
    struct {
        Op own, foreign;  // taken before
        Op attempt;
        int result;
        uint16_t state;  // afterwards
    } cases[] = {
        {nullptr, nullptr, procrwlock_rdlock_trylock, 0, PROCRWLOCK_READ},
        {nullptr, nullptr, procrwlock_wrlock_trylock, 0, PROCRWLOCK_WRITE},
        {procrwlock_rdlock, nullptr, procrwlock_rdlock_trylock, 0, PROCRWLOCK_READ},
        {procrwlock_rdlock, nullptr, procrwlock_wrlock_trylock, -1, PROCRWLOCK_READ},
        {procrwlock_wrlock, nullptr, procrwlock_rdlock_trylock, -1, PROCRWLOCK_WRITE},
        {procrwlock_wrlock, nullptr, procrwlock_wrlock_trylock, -1, PROCRWLOCK_WRITE},
        {nullptr, procrwlock_rdlock, procrwlock_rdlock_trylock, 0, PROCRWLOCK_READ},
        {nullptr, procrwlock_wrlock, procrwlock_rdlock_trylock, -1, PROCRWLOCK_FREE},
        // The failed write try-lock keeps its state, until the unlock that follows it.
        {nullptr, procrwlock_rdlock, procrwlock_wrlock_trylock, -1, PROCRWLOCK_WRITE},
        {nullptr, procrwlock_wrlock, procrwlock_wrlock_trylock, -1, PROCRWLOCK_WRITE},
    };
    for (auto &c : cases) {
        Lock lock;
        {
            std::optional<Holder> holder;
            if (c.foreign != nullptr)
                holder.emplace(c.foreign);
            EXPECT_EQ(c.own != nullptr ? c.own(&lock) : 0, 0);
            int result = 1;
            std::thread([&] { result = c.attempt(&lock); }).join();
            EXPECT_EQ(result, c.result) << &c - cases;
            EXPECT_EQ(lock.l_state, c.state) << &c - cases;
            EXPECT_EQ(lock.l_readers,
                      c.state == PROCRWLOCK_READ ? (c.own && !result ? 2u : 1u) : 0u);
            if (c.state == PROCRWLOCK_WRITE && c.own == nullptr) {
                EXPECT_EQ(procrwlock_rdlock_trylock(&lock), -1);
                EXPECT_EQ(procrwlock_wrunlock(&lock), 0);
            }
        }
        // The other process's death has freed the file.
        bool gone = c.foreign != nullptr && c.state != PROCRWLOCK_READ;
        EXPECT_EQ(gone ? procrwlock_wrlock_trylock(&lock) : 0, 0) << &c - cases;
    }
    procrwlock_t lock;
    EXPECT_EQ(procrwlock_init(nullptr, 1), -1);
    EXPECT_EQ(procrwlock_init(&lock, -1), -1);
    EXPECT_EQ(procrwlock_rdlock(nullptr), -1);
}

TEST(ProcRwlock, OwnerWaitsForTheOtherReadersAndReadersJoinAheadOfAWaitingWriter) {
    Lock lock;
    std::atomic<bool> owner_out{false}, wrote{false};
    std::atomic<int> step{0};
    std::thread owner([&] {
        EXPECT_EQ(procrwlock_rdlock(&lock), 0);
        step = 1;
        EXPECT_TRUE(support::eventually([&] { return step == 2; }));
        EXPECT_EQ(procrwlock_rdunlock(&lock), 0);
        owner_out = true;
    });
    EXPECT_TRUE(support::eventually([&] { return step == 1; }));
    EXPECT_EQ(procrwlock_rdlock(&lock), 0);
    std::thread writer([&] {
        EXPECT_EQ(procrwlock_wrlock(&lock), 0);
        wrote = true;
        EXPECT_TRUE(owner_out || lock.l_readers == 0);
        EXPECT_EQ(procrwlock_wrunlock(&lock), 0);
    });
    EXPECT_TRUE(support::eventually([&] { return lock.see(&procrwlock_t::l_wwaiting) == 1; }));
    EXPECT_EQ(procrwlock_rdlock_trylock(&lock), -1);
    std::thread([&] {
        EXPECT_EQ(procrwlock_rdlock(&lock), 0);
        EXPECT_EQ(procrwlock_rdunlock(&lock), 0);
    }).join();
    step = 2;
    EXPECT_TRUE(support::eventually([&] { return lock.see(&procrwlock_t::l_readers) == 1; }));
    EXPECT_FALSE(owner_out);
    EXPECT_FALSE(wrote);
    EXPECT_EQ(support::in_child([] {
                  Lock other;
                  return procrwlock_wrlock_trylock(&other);
              }).status,
              255);
    EXPECT_EQ(procrwlock_rdunlock(&lock), 0);
    owner.join();
    writer.join();
    EXPECT_EQ(lock.l_state, PROCRWLOCK_FREE);
    EXPECT_EQ(lock.l_owner, static_cast<pthread_t>(-1));
    EXPECT_EQ(procrwlock_rdunlock(&lock), -1);  // nobody reads
}

TEST(ProcRwlock, ReadersComeFirstAfterAWrite) {
    Lock lock;
    std::vector<char> order;
    EXPECT_EQ(procrwlock_wrlock(&lock), 0);
    std::thread writer([&] {
        EXPECT_EQ(procrwlock_wrlock(&lock), 0);
        order.push_back('w');
        EXPECT_EQ(procrwlock_wrunlock(&lock), 0);
    });
    EXPECT_TRUE(support::eventually([&] { return lock.see(&procrwlock_t::l_wwaiting) == 1; }));
    std::thread reader([&] {
        EXPECT_EQ(procrwlock_rdlock(&lock), 0);
        order.push_back('r');
        EXPECT_EQ(procrwlock_rdunlock(&lock), 0);
    });
    EXPECT_TRUE(support::eventually([&] { return lock.see(&procrwlock_t::l_rwaiting) == 1; }));
    EXPECT_EQ(procrwlock_wrunlock(&lock), 0);
    reader.join();
    writer.join();
    EXPECT_EQ(order, (std::vector<char>{'r', 'w'}));
}

TEST(ProcRwlock, BrokenRecordIsFatal) {
    struct {
        int (*take)(procrwlock_t *);
        std::string where;
    } cases[] = {{procrwlock_rdlock, "proc_rwlock:195: procrwlock_rdlock_internal"},
                 {procrwlock_rdlock_trylock, "proc_rwlock:195: procrwlock_rdlock_internal"},
                 {procrwlock_wrlock, "proc_rwlock:358: procrwlock_wrlock_internal"}};
    for (auto &[take, where] : cases) {
        auto ending = support::in_child([take = take] {
            Lock lock;
            lock.l_readers = 1;
            lock.l_state = PROCRWLOCK_WRITE;
            return take(&lock);
        });
        EXPECT_FALSE(ending.exited);
        EXPECT_EQ(ending.status, SIGABRT);
        EXPECT_THAT(ending.err,
                    testing::HasSubstr(where + ": Assertion `lck->l_state == 1' failed."));
    }
}

}  // namespace

// One reader/writer lock between six processes of four threads each.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <random>
#include <thread>
#include <vector>

#include "support/support.h"
#include "utils/proc_rwlock.h"

namespace {

constexpr int kProcesses = 6, kThreads = 4, kWords = 64;

struct Shared {
    std::atomic<bool> stop;
    std::atomic<uint32_t> reads, writes, refused, torn, errors;
    uint32_t data[kWords];  // guarded by the lock: all words are equal, but for a write under way
};

procrwlock_t lock;

void work(Shared &shared, unsigned seed) {
    std::mt19937 random(seed);
    while (!shared.stop) {
        auto dice = random() % 10;
        if (dice < 2) {
            shared.errors += procrwlock_wrlock(&lock) != 0;
            for (uint32_t &word : shared.data)
                ++word;
            ++shared.writes;
            shared.errors += procrwlock_wrunlock(&lock) != 0;
        } else {
            if (dice >= 6 && procrwlock_rdlock_trylock(&lock) != 0) {
                ++shared.refused;
                continue;
            }
            if (dice < 6)
                shared.errors += procrwlock_rdlock(&lock) != 0;
            for (uint32_t word : shared.data)
                shared.torn += word != shared.data[kWords - 1];
            shared.errors += procrwlock_rdunlock(&lock) != 0;
            ++shared.reads;
        }
    }
}

// A process that opens the lock for itself and runs `body`.
template <typename Body>
pid_t process(Body body) {
    pid_t child = fork();
    if (child == 0) {
        body(procrwlock_init(&lock, open("/tmp/shared.lock", O_RDWR | O_CREAT, 0600)) == 0);
        _exit(0);
    }
    return child;
}

TEST(RwlockBetweenProcesses, NobodySeesAHalfMadeWriteAndTheDeadDoNotBlock) {
    support::write_file("/tmp/shared.data", std::string(sizeof(Shared), '\0'));
    int file = open("/tmp/shared.data", O_RDWR);
    void *map = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ASSERT_NE(map, MAP_FAILED);
    Shared &shared = *new (map) Shared;
    std::vector<pid_t> children;
    for (unsigned p = 0; p < kProcesses; ++p) {
        children.push_back(process([&](bool ready) {
            std::vector<std::thread> threads;
            for (unsigned t = 0; ready && t < kThreads; ++t)
                threads.emplace_back(work, std::ref(shared), p * kThreads + t);
            for (std::thread &thread : threads)
                thread.join();
        }));
    }
    auto progress = [&](uint32_t by) {
        uint32_t reads = shared.reads + by, writes = shared.writes + by / 10;
        return support::eventually([&] { return shared.reads > reads && shared.writes > writes; },
                                   30000);
    };
    EXPECT_TRUE(progress(100));
    for (auto take : {procrwlock_wrlock, procrwlock_rdlock}) {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_t victim = process([&](bool opened) {
            if (opened && take(&lock) == 0 && write(ready[1], "r", 1) == 1)
                pause();
        });
        char byte;
        ASSERT_EQ(read(ready[0], &byte, 1), 1);
        uint32_t writes = shared.writes;
        usleep(20000);  // long enough for a writer that the held lock would let in
        EXPECT_EQ(shared.writes, writes);
        kill(victim, SIGKILL);
        waitpid(victim, nullptr, 0);
        EXPECT_TRUE(progress(100));
    }
    int64_t end = support::monotonic_ms() + (support::emulated() ? 2000 : 3000);
    while (support::monotonic_ms() < end)
        usleep(100000);
    shared.stop = true;
    for (pid_t child : children) {
        int status;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    printf("%u reads, %u writes, %u try-locks refused\n", shared.reads.load(), shared.writes.load(),
           shared.refused.load());
    EXPECT_EQ(shared.torn, 0u);
    EXPECT_EQ(shared.errors, 0u);
    EXPECT_GT(shared.refused, 0u);
    for (uint32_t word : shared.data)
        EXPECT_EQ(word, shared.writes);
}

}  // namespace

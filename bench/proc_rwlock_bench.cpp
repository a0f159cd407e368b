// SPDX-License-Identifier: Apache-2.0
// The lock between processes beside the bare fcntl() calls beneath it, and a further reader in a
// process that reads already beside a process-shared lock of the C library in the same state.
#include <fcntl.h>
#include <sys/mman.h>

#include <new>
#include <thread>

#include "bench.h"
#include "utils/proc_rwlock.h"

namespace {

int lock_file() {
    static const int file = open("/tmp/bench.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    return file;
}

void lock_ours(benchmark::State &state) {
    procrwlock_t lock;
    procrwlock_init(&lock, lock_file());
    for (auto _ : state) {
        if (procrwlock_wrlock(&lock) != 0 || procrwlock_wrunlock(&lock) != 0)
            abort();
    }
}

void lock_fcntl(benchmark::State &state) {
    for (auto _ : state) {
        struct flock whole {};
        whole.l_whence = SEEK_SET;
        whole.l_type = F_WRLCK;
        if (fcntl(lock_file(), F_SETLKW, &whole) != 0)
            abort();
        whole.l_type = F_UNLCK;
        if (fcntl(lock_file(), F_SETLKW, &whole) != 0)
            abort();
    }
}

// While another thread reads.
void reader_ours(benchmark::State &state) {
    procrwlock_t lock;
    procrwlock_init(&lock, lock_file());
    std::thread([&] { procrwlock_rdlock(&lock); }).join();
    for (auto _ : state) {
        if (procrwlock_rdlock(&lock) != 0 || procrwlock_rdunlock(&lock) != 0)
            abort();
    }
    struct flock whole {};
    whole.l_type = F_UNLCK;
    fcntl(lock_file(), F_SETLK, &whole);
}

void reader_rwlock(benchmark::State &state) {
    pthread_rwlockattr_t shared;
    pthread_rwlockattr_init(&shared);
    pthread_rwlockattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
    static void *const memory = mmap(nullptr, sizeof(pthread_rwlock_t), PROT_READ | PROT_WRITE,
                                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *lock = new (memory) pthread_rwlock_t;
    pthread_rwlock_init(lock, &shared);
    std::thread([&] { pthread_rwlock_rdlock(lock); }).join();
    for (auto _ : state) {
        if (pthread_rwlock_rdlock(lock) != 0 || pthread_rwlock_unlock(lock) != 0)
            abort();
    }
}

BENCHMARK(lock_ours)->Name("lock/ours");
BENCHMARK(lock_fcntl)->Name("lock/fcntl");
BENCHMARK(reader_ours)->Name("second_reader/ours");
BENCHMARK(reader_rwlock)->Name("second_reader/rwlock");

}  // namespace

BENCH_MAIN(nullptr)

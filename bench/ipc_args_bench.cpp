// SPDX-License-Identifier: Apache-2.0
// A payload handed over in a shared-memory segment, beside a memory file: packed on one side,
// mapped, looked at (a byte of each page) and removed on the other, both in this thread. The limit
// is a segment whose pages are had in the same way, and nothing is copied.
#include <sys/mman.h>
#include <sys/shm.h>

#include <cstring>
#include <string>
#include <vector>

#include "bench.h"
#include "utils/ipc_args.h"

namespace {

std::vector<char> data_of(size_t size) {
    return std::vector<char>(size, 'd');
}

unsigned look_at(const void *data, size_t size) {
    unsigned sum = 0;
    for (size_t i = 0; i < size; i += 4096)
        sum += static_cast<const unsigned char *>(data)[i];
    return sum;
}

void ours(benchmark::State &state, size_t size) {
    std::vector<char> data = data_of(size);
    qelIpcArg piece = {data.data(), static_cast<uint32_t>(size)};
    qelIpcArgs args = {&piece, 1};
    for (auto _ : state) {
        qelIpcArgBlock *block = nullptr;
        if (qelIpcArgsEncode(&args, &block) < 0 || qelIpcArgsDecode(block) != 0)
            abort();
        benchmark::DoNotOptimize(look_at(qelIpcArgsData(block), size));
        qelIpcArgsDestroy(block);
        free(block);
    }
}

void memfd(benchmark::State &state, size_t size) {
    std::vector<char> data = data_of(size);
    for (auto _ : state) {
        int file = memfd_create("payload", MFD_CLOEXEC);
        if (file < 0 || ftruncate(file, static_cast<off_t>(size)) != 0)
            abort();
        void *at = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        memcpy(at, data.data(), size);
        munmap(at, size);
        at = mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
        benchmark::DoNotOptimize(look_at(at, size));
        munmap(at, size);
        close(file);
    }
}

// The same with one system call for the copy.
void memfd_write(benchmark::State &state, size_t size) {
    std::vector<char> data = data_of(size);
    for (auto _ : state) {
        int file = memfd_create("payload", MFD_CLOEXEC);
        if (file < 0 || write(file, data.data(), size) != static_cast<ssize_t>(size))
            abort();
        void *at = mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
        benchmark::DoNotOptimize(look_at(at, size));
        munmap(at, size);
        close(file);
    }
}

void limit(benchmark::State &state, size_t size) {
    for (auto _ : state) {
        int id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
        for (int advice : {MADV_POPULATE_WRITE, MADV_POPULATE_READ}) {
            void *at = shmat(id, nullptr, 0);
            madvise(at, size, advice);
            shmdt(at);
        }
        shmctl(id, IPC_RMID, nullptr);
    }
}

void offer() {
    for (size_t size : {4096U, 16384U, 65536U, 262144U, 1048576U}) {
        auto name = [size](const char *side) {
            return "segment_" + std::to_string(size) + "/" + side;
        };
        benchmark::RegisterBenchmark(name("ours").c_str(), ours, size);
        benchmark::RegisterBenchmark(name("memfd").c_str(), memfd, size);
        benchmark::RegisterBenchmark(name("memfd-write").c_str(), memfd_write, size);
        benchmark::RegisterBenchmark(name("limit").c_str(), limit, size);
    }
}

}  // namespace

BENCH_MAIN(offer)

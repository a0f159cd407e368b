// SPDX-License-Identifier: Apache-2.0
// Semaphores beside sem_t and the standard library's: a round trip between two threads on one
// processor, whose time counts, and a give and take by one thread.
#include "utils/sema.h"

#include <semaphore.h>

#include <atomic>
#include <semaphore>
#include <thread>

#include "bench.h"

namespace {

class Ours {
  public:
    void give() { semaGive(sem_); }
    void take() { semaTake(sem_, UTILS_WAIT_FOREVER); }
    ~Ours() { semaDelete(sem_); }

  private:
    semaHandle sem_ = semaCreate(SEMA_COUNTING_EMPTY);
};

class Posix {
  public:
    Posix() { sem_init(&sem_, 0, 0); }
    ~Posix() { sem_destroy(&sem_); }
    void give() { sem_post(&sem_); }
    void take() {
        while (sem_wait(&sem_) != 0) {
        }
    }

  private:
    sem_t sem_;
};

class Standard {
  public:
    void give() { sem_.release(); }
    void take() { sem_.acquire(); }

  private:
    std::counting_semaphore<> sem_{0};
};

template <typename Semaphore>
void ping_pong(benchmark::State &state) {
    Semaphore there, back;
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        while (!stop) {
            there.take();
            back.give();
        }
    });
    for (auto _ : state) {
        there.give();
        back.take();
    }
    stop = true;
    there.give();
    partner.join();
}

template <typename Semaphore>
void one_thread(benchmark::State &state) {
    Semaphore semaphore;
    for (auto _ : state) {
        semaphore.give();
        semaphore.take();
    }
}

BENCHMARK_TEMPLATE(ping_pong, Ours)->Name("ping_pong/ours")->MeasureProcessCPUTime();
BENCHMARK_TEMPLATE(ping_pong, Posix)->Name("ping_pong/sem_t")->MeasureProcessCPUTime();
BENCHMARK_TEMPLATE(ping_pong, Standard)->Name("ping_pong/std")->MeasureProcessCPUTime();
BENCHMARK_TEMPLATE(one_thread, Ours)->Name("one_thread/ours");
BENCHMARK_TEMPLATE(one_thread, Posix)->Name("one_thread/sem_t");
BENCHMARK_TEMPLATE(one_thread, Standard)->Name("one_thread/std");

}  // namespace

BENCH_MAIN(nullptr)

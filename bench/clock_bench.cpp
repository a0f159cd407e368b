// SPDX-License-Identifier: Apache-2.0
// Interval statistics and the millisecond clock beside clock_gettime().
#include "bench.h"
#include "utils/clock.h"

namespace {

void perf_ours(benchmark::State &state) {
    perf_record record;
    perf_init(&record);
    for (auto _ : state) {
        perf_start(&record);
        benchmark::DoNotOptimize(perf_stop(&record));
    }
}

void perf_peer(benchmark::State &state) {
    for (auto _ : state) {
        timespec begin{}, end{};
        clock_gettime(CLOCK_MONOTONIC, &begin);
        clock_gettime(CLOCK_MONOTONIC, &end);
        benchmark::DoNotOptimize(end.tv_nsec - begin.tv_nsec);
    }
}

void ms_clock_ours(benchmark::State &state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(msSysClk());
}

void ms_clock_peer(benchmark::State &state) {
    for (auto _ : state) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        benchmark::DoNotOptimize(now.tv_sec * 1000 + now.tv_nsec / 1000000);
    }
}

BENCHMARK(perf_ours)->Name("perf/ours");
BENCHMARK(perf_peer)->Name("perf/clock_gettime");
BENCHMARK(ms_clock_ours)->Name("ms_clock/ours");
BENCHMARK(ms_clock_peer)->Name("ms_clock/clock_gettime");

}  // namespace

BENCH_MAIN(nullptr)

// SPDX-License-Identifier: Apache-2.0
// A memory dump into a discarded stream; its goal is a time for each byte. The limit writes the
// same number of lines, made before.
#include "bench.h"

#include <vector>

#include "utils/paging.h"

namespace {

constexpr int kBytes = 4096;

template <typename Dump>
void dumps(benchmark::State &state, Dump dump) {
    static FILE *null = fopen("/dev/null", "we");
    FILE *before = stdout;
    stdout = null;
    for (auto _ : state)
        dump();
    stdout = before;
    state.SetItemsProcessed(state.iterations() * kBytes);
    state.counters["ns_per_byte"] = benchmark::Counter(
        kBytes * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void dump_ours(benchmark::State &state) {
    std::vector<unsigned char> bytes(kBytes);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(i * 7);
    dumps(state, [&] { memDump(bytes.data(), kBytes, 1); });
}

void write_lines(benchmark::State &state) {
    const std::string line(79, 'x');
    dumps(state, [&] {
        for (int i = 0; i < kBytes / 16; ++i)
            fwrite(line.data(), 1, line.size(), stdout);
    });
}

BENCHMARK(dump_ours)->Name("memdump/ours");
BENCHMARK(write_lines)->Name("memdump/limit");

}  // namespace

BENCH_MAIN(nullptr)

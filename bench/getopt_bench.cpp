// SPDX-License-Identifier: Apache-2.0
// The option scanner beside glibc's getopt(): one command line of a tool.
#include <getopt.h>

#include "bench.h"
#include "utils/getopt.h"

namespace {

constexpr const char *kLetters = "abc:n:vx";
char *arguments[] = {
    const_cast<char *>("tool"),  const_cast<char *>("-a"),     const_cast<char *>("-n12"),
    const_cast<char *>("-bv"),   const_cast<char *>("-c"),     const_cast<char *>("config"),
    const_cast<char *>("first"), const_cast<char *>("second"), nullptr};
constexpr int kArguments = 8;

void ours(benchmark::State &state) {
    auto take = [](void *sum, qelGetOptState *scan) {
        *static_cast<int *>(sum) += qelGetOpt_opt(scan);
        return qelGetOpt_ind(scan);
    };
    for (auto _ : state) {
        int sum = 0;
        qelGetOpt(kArguments, arguments, kLetters, take, &sum);
        benchmark::DoNotOptimize(sum);
    }
}

void glibc(benchmark::State &state) {
    for (auto _ : state) {
        int sum = 0;
        optind = 0;  // a new scan
        for (int option = 0; option != -1; sum += option)
            option = getopt(kArguments, arguments, kLetters);
        benchmark::DoNotOptimize(sum);
    }
}

BENCHMARK(ours)->Name("scan/ours");
BENCHMARK(glibc)->Name("scan/glibc");

}  // namespace

BENCH_MAIN(nullptr)

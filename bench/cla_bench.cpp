// SPDX-License-Identifier: Apache-2.0
// The filter of common options beside glibc's getopt_long(): a command line with two of them.
#include <getopt.h>

#include <cstring>

#include "bench.h"
#include "utils/cla.h"

namespace {

char words[][16] = {"tool", "--switch", "2", "-n", "6", "show", "ports", "all"};
constexpr int kWords = 8;

void fill(char **arguments) {
    for (int i = 0; i < kWords; ++i)
        arguments[i] = words[i];
    arguments[kWords] = nullptr;
}

void ours(benchmark::State &state) {
    int32_t switch_no = 0;
    int32_t node = 0;
    claFltrEntry table[] = {{'s', "switch", clafGetInt, &switch_no},
                            {'n', "node", clafGetInt, &node},
                            {0, nullptr, nullptr, nullptr}};
    for (auto _ : state) {
        char *arguments[kWords + 1];
        int count = kWords;
        fill(arguments);
        claFltr(table, &count, arguments);
        benchmark::DoNotOptimize(switch_no + node + count);
    }
}

void glibc(benchmark::State &state) {
    const option table[] = {{"switch", required_argument, nullptr, 's'},
                            {"node", required_argument, nullptr, 'n'},
                            {nullptr, 0, nullptr, 0}};
    for (auto _ : state) {
        char *arguments[kWords + 1];
        int32_t numbers[2] = {};
        fill(arguments);
        optind = 0;  // a new scan
        for (int option = 0; option != -1;) {
            option = getopt_long(kWords, arguments, "s:n:", table, nullptr);
            if (option != -1)
                numbers[option == 's'] = static_cast<int32_t>(strtol(optarg, nullptr, 0));
        }
        benchmark::DoNotOptimize(numbers[0] + numbers[1] + optind);
    }
}

BENCHMARK(ours)->Name("filter/ours");
BENCHMARK(glibc)->Name("filter/glibc");

}  // namespace

BENCH_MAIN(nullptr)

// SPDX-License-Identifier: Apache-2.0
// The frame of the benchmark programs: conditions that are the same for ours and for its peers, and
// their record in the output. Programs run inside scripts/sandbox, as scripts/bench does it.
#pragma once

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "utils/lst.h"

namespace bench {

// Lets the calling thread run on one processor, the last of those it may use, or on all of them
// again. Threads started later inherit it.
inline cpu_set_t &allowed_processors() {
    static cpu_set_t allowed = [] {
        cpu_set_t set;
        sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    return allowed;
}

inline int pin() {
    int last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(last, &allowed_processors()))
        --last;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(last, &one);
    sched_setaffinity(0, sizeof one, &one);
    return last;
}

// For the time of a benchmark that needs several processors.
class Unpinned {
  public:
    Unpinned() { sched_setaffinity(0, sizeof(cpu_set_t), &allowed_processors()); }
    ~Unpinned() { pin(); }
    Unpinned(const Unpinned &) = delete;
    Unpinned &operator=(const Unpinned &) = delete;
};

// The C library skips the atomic part of locks while a process has one thread: daemons have more.
inline void park_second_thread() {
    pthread_t parked{};
    auto wait = [](void *) -> void * {
        for (;;)
            pause();
    };
    if (pthread_create(&parked, nullptr, wait, nullptr) != 0)
        abort();
    pthread_detach(parked);
}

inline std::string processor_name() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        auto colon = line.find(": ");
        if (colon != std::string::npos &&
            (line.starts_with("model name") || line.starts_with("cpu\t")))
            return line.substr(colon + 2);
    }
    return "unknown";
}

inline void record_conditions(int processor) {
    Dl_info library{};
    dladdr(reinterpret_cast<void *>(dlsym(RTLD_DEFAULT, "lstInit")), &library);
    const char *zone = getenv("TZ");
    benchmark::AddCustomContext("processor",
                                processor_name() + ", number " + std::to_string(processor));
    benchmark::AddCustomContext("threads", "a second one, parked");
    benchmark::AddCustomContext("TZ", zone);
    benchmark::AddCustomContext("build", BENCH_BUILD_TYPE ", " __VERSION__);
    benchmark::AddCustomContext("library", library.dli_fname != nullptr ? library.dli_fname : "?");
}

// `prepare` registers the benchmarks that are not registered by macros.
inline int run(int argc, char **argv, void (*prepare)()) {
    if (getenv("UTILS_SANDBOX") == nullptr) {
        fprintf(stderr, "%s: runs inside scripts/sandbox only; see scripts/bench\n", argv[0]);
        return 99;
    }
    setenv("TZ", "UTC0", 0);
    allowed_processors();
    park_second_thread();
    record_conditions(pin());
    if (prepare != nullptr)
        prepare();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace bench

#define BENCH_MAIN(prepare)                     \
    int main(int argc, char **argv) {           \
        return bench::run(argc, argv, prepare); \
    }

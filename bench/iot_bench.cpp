// SPDX-License-Identifier: Apache-2.0
// From a byte in a pipe to the handler on the watching thread and back by another pipe: the watch
// thread beside the loops of libevent and libuv, and a thread that only reads.
#include <thread>

#include "bench.h"
#include "utils/iot.h"

#ifdef BENCH_LIBEVENT
#include <event2/event.h>
#endif
#ifdef BENCH_LIBUV
#include <uv.h>
#endif

namespace {

struct Pipes {
    int to[2], back[2];
    Pipes() {
        if (pipe(to) != 0 || pipe(back) != 0)
            abort();
    }
};

template <Pipes &(*pipes)()>
int serve(int descriptor) {
    char byte = 0;
    return read(descriptor, &byte, 1) == 1 && write(pipes().back[1], &byte, 1) == 1;
}

void wake(benchmark::State &state, const Pipes &pipes) {
    for (auto _ : state) {
        char byte = 0;
        if (write(pipes.to[1], "!", 1) != 1 || read(pipes.back[0], &byte, 1) != 1)
            abort();
    }
}

template <int>
Pipes &pipes() {
    static Pipes pair;
    return pair;
}

// Every side's thread lives on, asleep, once it was asked for.
bool start(void (*body)()) {
    std::thread(body).detach();
    return true;
}

void ours(benchmark::State &state) {
    static const int started =
        iot_init(nullptr) | iot_add(pipes<0>().to[0], serve<pipes<0>>, 1) | iot_start();
    if (started != 0)
        abort();
    wake(state, pipes<0>());
}

#ifdef BENCH_LIBEVENT
void libevent(benchmark::State &state) {
    static const bool started = start([] {
        event_base *base = event_base_new();
        event *readable = event_new(
            base, pipes<1>().to[0], EV_READ | EV_PERSIST,
            [](evutil_socket_t descriptor, short, void *) { serve<pipes<1>>(descriptor); },
            nullptr);
        event_add(readable, nullptr);
        event_base_dispatch(base);
    });
    benchmark::DoNotOptimize(started);
    wake(state, pipes<1>());
}
BENCHMARK(libevent)->Name("wake/libevent")->UseRealTime();
#endif

#ifdef BENCH_LIBUV
void libuv(benchmark::State &state) {
    static const bool started = start([] {
        uv_loop_t loop;
        uv_poll_t readable;
        uv_loop_init(&loop);
        uv_poll_init(&loop, &readable, pipes<2>().to[0]);
        uv_poll_start(&readable, UV_READABLE,
                      [](uv_poll_t *, int, int) { serve<pipes<2>>(pipes<2>().to[0]); });
        uv_run(&loop, UV_RUN_DEFAULT);
    });
    benchmark::DoNotOptimize(started);
    wake(state, pipes<2>());
}
BENCHMARK(libuv)->Name("wake/libuv")->UseRealTime();
#endif

void limit(benchmark::State &state) {
    static const bool started = start([] {
        while (serve<pipes<3>>(pipes<3>().to[0]) != 0) {
        }
    });
    benchmark::DoNotOptimize(started);
    wake(state, pipes<3>());
}

BENCHMARK(ours)->Name("wake/ours")->UseRealTime();
BENCHMARK(limit)->Name("wake/limit")->UseRealTime();

}  // namespace

BENCH_MAIN(nullptr)

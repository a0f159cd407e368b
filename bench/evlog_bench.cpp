// SPDX-License-Identifier: Apache-2.0
// An entry of an event log beside one of spdlog's ring of messages; and the formatter of log lines
// beside the C library's.
#include "bench.h"

#include <cstdarg>

#ifdef BENCH_SPDLOG
#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>
#endif

#include "base/format.h"
#include "utils/evlog.h"

namespace {

constexpr int kEntries = 1000;
#define EVENT "port %d: state %s -> %s, reason 0x%x\n"

void entry_ours(benchmark::State &state) {
    static qel_evlog_handle *log = [] {
        static qel_evlog_db db;
        qel_evlog_init(&db);
        return qel_evlog_newHandle(&db, kEntries, "bench", "bench");
    }();
    int port = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(qel_evlog(log, EVENT, port & 0xFF, "online", "offline", port));
        ++port;
    }
}

#ifdef BENCH_SPDLOG
void entry_spdlog(benchmark::State &state) {
    static spdlog::logger log("bench",
                              std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(kEntries));
    int port = 0;
    for (auto _ : state) {
        log.info("port {}: state {} -> {}, reason 0x{:x}\n", port & 0xFF, "online", "offline",
                 port);
        ++port;
    }
}
BENCHMARK(entry_spdlog)->Name("entry/spdlog");
#endif

template <int (*formatter)(char *, size_t, const char *, va_list)>
__attribute__((noinline, format(printf, 3, 4))) int formatted(char *to, size_t size,
                                                              const char *format, ...) {
    va_list values;
    va_start(values, format);
    int length = formatter(to, size, format, values);
    va_end(values);
    return length;
}

template <int (*formatter)(char *, size_t, const char *, va_list)>
void format(benchmark::State &state) {
    char text[QEL_EVLOG_TEXT_SIZE];
    int port = 0;
    for (auto _ : state) {
        formatted<formatter>(text, sizeof text, EVENT, port & 0xFF, "online", "offline", port);
        benchmark::DoNotOptimize(text);
        ++port;
    }
}

BENCHMARK(entry_ours)->Name("entry/ours");
BENCHMARK(format<utils::format_text>)->Name("format/ours");
BENCHMARK(format<vsnprintf>)->Name("format/vsnprintf");

}  // namespace

BENCH_MAIN(nullptr)

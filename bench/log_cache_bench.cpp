// SPDX-License-Identifier: Apache-2.0
// A line into the log cache beside spdlog with a sink that keeps its lines in memory; and a text
// that is formatted already beside what the cache did before it kept its stamps.
#include "bench.h"

#include <cstring>
#include <ctime>
#include <mutex>

#ifdef BENCH_SPDLOG
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#endif

#include "utils/log_cache.h"

namespace {

constexpr const char *kText = "port 17: state online -> offline, reason 0x1f\n";

void prepare() {
    log_cache_init("bench");
}

void line_ours(benchmark::State &state) {
    int port = 0;
    for (auto _ : state) {
        log_cache_write("port %d: state %s -> %s, reason 0x%x\n", port & 0xFF, "online", "offline",
                        port);
        ++port;
    }
}

void write_string_ours(benchmark::State &state) {
    for (auto _ : state)
        log_cache_write_string(kText);
}

// A buffer that starts again at its beginning when a line does not fit.
class Ring {
  public:
    void add(const char *text, size_t length) {
        if (length > sizeof bytes_ - used_)
            used_ = 0;
        memcpy(bytes_ + used_, text, length);
        used_ += length;
    }

  private:
    char bytes_[LOG_CACHE_SIZE_DEFAULT];
    size_t used_ = 0;
};

void write_string_former(benchmark::State &state) {
    static std::mutex lock;
    static Ring ring;
    for (auto _ : state) {
        char stamp[64];
        time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        int length = snprintf(stamp, sizeof stamp, "%02d:%02d:%02d %d ", local.tm_hour,
                              local.tm_min, local.tm_sec, static_cast<int>(gettid()));
        size_t text_length = strlen(kText);
        std::lock_guard guard(lock);
        ring.add(stamp, static_cast<size_t>(length));
        ring.add(kText, text_length);
    }
}

#ifdef BENCH_SPDLOG
class MemorySink final : public spdlog::sinks::base_sink<std::mutex> {
  private:
    void sink_it_(const spdlog::details::log_msg &message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        ring_.add(line.data(), line.size());
    }
    void flush_() override {}

    Ring ring_;
};

void line_spdlog(benchmark::State &state) {
    static spdlog::logger log = [] {
        spdlog::logger logger("bench", std::make_shared<MemorySink>());
        logger.set_pattern("%H:%M:%S %t %v");
        return logger;
    }();
    int port = 0;
    for (auto _ : state) {
        log.info("port {}: state {} -> {}, reason 0x{:x}", port & 0xFF, "online", "offline", port);
        ++port;
    }
}
BENCHMARK(line_spdlog)->Name("line/spdlog");
#endif

BENCHMARK(line_ours)->Name("line/ours");
BENCHMARK(write_string_ours)->Name("write_string/ours");
BENCHMARK(write_string_former)->Name("write_string/former");

}  // namespace

BENCH_MAIN(prepare)

// The time base: the processor's own registers on PowerPC, elsewhere the monotonic clock scaled to
// the rate that the tick file states, so that every rate derived from it is right.
#include "utils/platform/timebase.h"

#ifdef __powerpc__

#include "base/time_base_registers.h"

uint64_t timebase_read(void) {
    return timebase_read_registers();
}

#else

#include <unistd.h>

#include <atomic>
#include <ctime>

#include "base/tick_rate.h"

namespace {

constexpr uint64_t kNanoseconds = 1000000000;

// Read once, when the stand-in is loaded; a constructor that runs before it reads the file itself.
std::atomic<int32_t> ticks_per_jiffy{0};

int32_t read_rate() {
    int32_t ticks = utils::ticks_from_file();
    ticks = ticks > 0 ? ticks : utils::kDefaultTicksPerJiffy;
    ticks_per_jiffy.store(ticks, std::memory_order_relaxed);
    return ticks;
}

__attribute__((constructor)) void read_rate_at_load() {
    read_rate();
}

uint64_t ticks_per_second() {
    int32_t ticks = ticks_per_jiffy.load(std::memory_order_relaxed);
    return static_cast<uint64_t>(sysconf(_SC_CLK_TCK)) *
           static_cast<uint64_t>(ticks > 0 ? ticks : read_rate());
}

}  // namespace

uint64_t timebase_read(void) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    uint64_t rate = ticks_per_second();
    uint64_t nanoseconds = static_cast<uint64_t>(now.tv_nsec);
    // Split, so that no product leaves 64 bits at any rate of the tick file.
    return static_cast<uint64_t>(now.tv_sec) * rate + rate / kNanoseconds * nanoseconds +
           rate % kNanoseconds * nanoseconds / kNanoseconds;
}

#endif

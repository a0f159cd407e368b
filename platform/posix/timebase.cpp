// The time base: the processor's own registers on PowerPC, elsewhere the monotonic clock scaled to
// the rate that the tick globals state, so that every rate derived from them is right.
#include "platform/timebase.h"

#include <unistd.h>

#include <ctime>

#ifdef __powerpc__

uint64_t timebase_read(void) {
    return timebase_read_registers();
}

#else

// Weak: the library that owns them loads this one, and a program may use the stand-in alone.
extern "C" {
extern __attribute__((weak)) int32_t tb_ticks_per_jiffy;
}

namespace {

constexpr uint64_t kNanoseconds = 1000000000;
constexpr uint64_t kDefaultTicksPerJiffy = 2000000;

uint64_t ticks_per_second() {
    static const uint64_t jiffies = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    bool known = &tb_ticks_per_jiffy != nullptr && tb_ticks_per_jiffy > 0;
    return jiffies * (known ? static_cast<uint64_t>(tb_ticks_per_jiffy) : kDefaultTicksPerJiffy);
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

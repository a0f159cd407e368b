// SPDX-License-Identifier: Apache-2.0
// Our timer_create and timer_delete beside the C library's, in one process.
#include <time.h>

#include "support/support.h"
#include "utils/timer.h"

extern "C" int posix_timer_works(void);

namespace {

TEST(TimerNames, EachCallerGetsItsOwnLibrarysTimer) {
    timerHandle ours = timer_create(nullptr, 0, 0);
    ASSERT_NE(ours, nullptr);
    EXPECT_EQ(ours->magicHead, TIMER_MAGIC_HEAD);
    EXPECT_EQ(posix_timer_works(), 1);
    EXPECT_EQ(timer_delete(ours), 0);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Identity and delays of the one task that a process is. The two globals are written by taskInit
// alone, before other threads run.
#include "utils/task.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "base/deadline.h"
#include "base/retry.h"
#include "base/text.h"

using namespace utils;

int32_t taskId = -1;
char task_name[12];

int taskInit(const char *name) {
    copy_text(task_name, name);
    taskId = getpid();
    return taskId;
}

int taskIdSelf(void) {
    return taskId;
}

char *taskName(int id) {
    return id == taskId ? task_name : nullptr;
}

int taskNameToId(const char *name) {
    return name != nullptr && strcmp(name, task_name) == 0 ? taskId : -1;
}

int taskPriority(int nice_value) {
    setpriority(PRIO_PROCESS, 0, nice_value);
    return 0;
}

int taskDelay(int ticks) {
    // 32-bit arithmetic, cut toward zero, as programs of the task API expect it.
    int32_t ms = static_cast<int32_t>(static_cast<uint32_t>(ticks) * 1000u) / TASK_TICKS_PER_SECOND;
    if (ms <= 0)
        return 0;
    timespec end = deadline_after(ms);
    retry_error([&] { return clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr); });
    return 0;
}

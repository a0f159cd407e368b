/* SPDX-License-Identifier: Apache-2.0 */
/* A process names itself and sleeps a tenth of a second. */
#include <stdio.h>
#include <utils/task.h>

int main(void) {
    taskInit("sleeper");
    printf("task %s has id %d\n", taskName(taskIdSelf()), taskNameToId("sleeper"));
    return taskDelay(TASK_TICKS_PER_SECOND / 10);
}

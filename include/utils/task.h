/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file task.h
 * @brief Name, id, priority and delays of the one task that a process is.
 *
 * A tick is 1/60 second throughout this family.
 *
 * Threads: taskInit() belongs to start-up,
 * before other threads run; the rest may be called anywhere.
 */
#ifndef UTILS_TASK_H
#define UTILS_TASK_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define TASK_TICKS_PER_SECOND 60 /**< ticks of taskDelay() in a second */

/** The process id after taskInit(), -1 before. */
extern int32_t taskId;

/** The task's name, at most 11 characters and the terminator. */
extern char task_name[12];

/**
 * Registers the process under @p name. A longer name than 11 characters is cut; null counts as "".
 * @return the process id, which taskId holds from now on
 */
int taskInit(const char *name);

/** @return taskId */
int taskIdSelf(void);

/** @return task_name when @p id is this task's id, otherwise null */
char *taskName(int id);

/** @return taskId when @p name is this task's name to the letter, otherwise -1 */
int taskNameToId(const char *name);

/** Asks for the nice value @p nice_value; a refusal is ignored. @return 0 */
int taskPriority(int nice_value);

/**
 * Sleeps for @p ticks of 1/60 s, counted in whole milliseconds (5 ticks are 83 ms). 0 returns at
 * once, a negative number too; 2147483 ticks (ten hours) are the most. Signals do not shorten it.
 * @return 0
 */
int taskDelay(int ticks);

UTILS_END_DECLS

#endif

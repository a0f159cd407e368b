/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file utils.h
 * @brief Every header of the library, and the conventions that all of them follow.
 *
 * 1. Everything is plain C: C11 and later, C++17 and later. Names carry their family's prefix.
 * 2. Results are integers. The tasking layer and the timers give 0 or -1; the inter-process calls
 *    give negated errno values (-22, -12, -11, -2), 0 or a length; each function says its own.
 * 3. Handles are pointers to heap records that the library allocates and a call of the same family
 *    frees. Arrays and blocks that a function hands to its caller are freed with free().
 * 4. A "word" is a uintptr_t: a number or a pointer. Function types are exact; the ready-made
 *    callbacks need no cast.
 * 5. Time-outs are milliseconds; -1 waits without limit, 0 does not wait. Ticks are 1/60 s.
 * 6. Messages go to standard output in one line; console messages open "/dev/console" afresh.
 * 7. Formats that leave the process are big-endian 32-bit words on every host.
 * 8. Each header says what its calls lock. Threads that use the library must not be cancelled: a
 *    lock held at that moment would stay locked.
 * 9. After fork() the child has neither the timer service's thread nor the I/O watch thread. Lists,
 *    strings, hash tables, checksums and parsers may be used there freely; queues, logs and locks
 *    only when no other thread of the parent could hold their mutex at the fork.
 * 10. Descriptors that the library opens for itself are close-on-exec.
 * 11. A program's own function named like one of ours is never called by the library. In C++ beware
 *     of less() beside std::less and "using namespace std", and of the macros timer_create,
 *     timer_delete and iot_notify, which reach members of those names too.
 */
#ifndef UTILS_UTILS_H
#define UTILS_UTILS_H

#include <utils/assert.h>
#include <utils/cla.h>
#include <utils/clock.h>
#include <utils/console.h>
#include <utils/daemon_ctl.h>
#include <utils/evlog.h>
#include <utils/getopt.h>
#include <utils/getval.h>
#include <utils/hash.h>
#include <utils/identity.h>
#include <utils/iot.h>
#include <utils/ipc_args.h>
#include <utils/iso_chksum.h>
#include <utils/log_cache.h>
#include <utils/log_compress.h>
#include <utils/lst.h>
#include <utils/msgq.h>
#include <utils/paging.h>
#include <utils/ppname.h>
#include <utils/proc_rwlock.h>
#include <utils/qel_string.h>
#include <utils/register.h>
#include <utils/sema.h>
#include <utils/service_stat.h>
#include <utils/signals.h>
#include <utils/task.h>
#include <utils/ticks.h>
#include <utils/timer.h>
#include <utils/timer_r.h>
#include <utils/tnet_cmd.h>
#include <utils/version.h>
#include <utils/wwn.h>

#endif

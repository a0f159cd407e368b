/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file trace_files.h
 * @brief The stand-in's trace sections: a file each, mapped shared.
 *
 * Other processes can read a section while its writer
 * runs and after it has ended, however it ended.
 *
 * A section is the file "PID.SECTION.PROGRAM.NAME" in TRACE_DIRECTORY: the writing process, the
 * section's number, the program's name with every '.', '/' and blank replaced by '_', and the
 * section's name with every '/' replaced by '_' (it may hold blanks and dots, "proto 1" for
 * instance). Where that name is taken "+1" is appended, then "+2" and so on, at last a number that
 * nobody can foretell; a file that an earlier program of the same process has left gives way. The
 * file holds the section's bytes from its first on, as the writer's memory has them, as many as
 * were asked for, and ends with a trace_owner.
 *
 * Releasing a section removes its file; otherwise it stays when its process ends. Of the dead
 * processes of one program, switch and user the newest TRACE_FILES_KEPT files stay, and all of the
 * process that started last; older ones are removed when a new section is made. The files of a
 * living process stay: one whose number and start are those in the file.
 *
 * A directory that belongs to neither root nor the process's user, or that others may write and
 * that is not sticky, is refused: then there are no sections.
 */
#ifndef UTILS_PLATFORM_POSIX_TRACE_FILES_H
#define UTILS_PLATFORM_POSIX_TRACE_FILES_H

#include <utils/platform/trace.h>

/** directory of the section files; world-writable and sticky */
#define TRACE_DIRECTORY "/dev/shm/trace"
#define TRACE_FILES_KEPT 16   /**< section files kept of a program's dead processes on a switch */
#define TRACE_PROGRAM_SIZE 32 /**< room for a program's name and its terminator */
#define TRACE_NAME_SIZE 64    /**< room for a section's name and its terminator */
/** File name as printf() writes it: int pid, int section, program, name. */
#define TRACE_FILE_FORMAT "%d.%d.%s.%s"
/** File name as sscanf() reads it into the same four, the texts with TRACE_PROGRAM_SIZE and
 *  TRACE_NAME_SIZE bytes of room; a section file gives 4. */
#define TRACE_FILE_SCAN "%d.%d.%31[^.].%63[^\n]"
#define TRACE_OWNER_MAGIC 0x4F574E52u /**< first word of a trace_owner */

/** The last 24 bytes of a section file: whose it is. In the byte order of its writer. */
typedef struct trace_owner {
    uint32_t magic;    /**< TRACE_OWNER_MAGIC */
    int32_t pid;       /**< the process that made the section */
    int32_t switch_no; /**< its switch when it did, by the environment's KORIN_SWITCHNO: 0 to 240 */
    uint32_t unused;   /**< 0 */
    uint64_t start;    /**< when it started, in clock ticks since the system did, as field 22 of
                            "/proc/PID/task/PID/stat" has it; 0 when that could not be read */
} trace_owner;

#endif

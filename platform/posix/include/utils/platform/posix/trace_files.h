/**
 * @file trace_files.h
 * @brief The stand-in's trace sections: a file each, mapped shared.
 *
 * Other processes can read a section while its writer runs and after it has ended, however it
 * ended.
 *
 * A section is the file "PID.SECTION.PROGRAM.NAME" in TRACE_DIRECTORY: the writing process, the
 * section's number, the program's name with every '.', '/' and blank replaced by '_', and the
 * section's name with every '/' replaced by '_' (it may hold blanks and dots, "proto 1" for
 * instance). A second section of the same process, number and name has "+1" appended, the next
 * "+2" and so on. The file holds the section's bytes from its first on, as the writer's memory has
 * them; its length is the size asked for.
 *
 * Releasing a section removes its file; otherwise it stays when its process ends. Of each program
 * (the files of one user) the newest TRACE_FILES_KEPT stay, older ones are removed when a new
 * section is made.
 */
#ifndef UTILS_PLATFORM_POSIX_TRACE_FILES_H
#define UTILS_PLATFORM_POSIX_TRACE_FILES_H

#include <utils/platform/trace.h>

#define TRACE_DIRECTORY \
    "/dev/shm/trace"          /**< directory of the section files; world-writable and sticky */
#define TRACE_FILES_KEPT 16   /**< section files kept of a program */
#define TRACE_PROGRAM_SIZE 32 /**< room for a program's name and its terminator */
#define TRACE_NAME_SIZE 64    /**< room for a section's name and its terminator */
/** File name as printf() writes it: int pid, int section, program, name. */
#define TRACE_FILE_FORMAT "%d.%d.%s.%s"
/** File name as sscanf() reads it into the same four, the texts with TRACE_PROGRAM_SIZE and
 *  TRACE_NAME_SIZE bytes of room; a section file gives 4. */
#define TRACE_FILE_SCAN "%d.%d.%31[^.].%63[^\n]"

#endif

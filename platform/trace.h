/**
 * @file trace.h
 * @brief Platform: trace sections, memory that outlives the process that writes it.
 *
 * The stand-in keeps every section in a file of its own, mapped shared, so that other processes can
 * read it while its writer runs and after it has ended, however it ended.
 */
#ifndef UTILS_PLATFORM_TRACE_H
#define UTILS_PLATFORM_TRACE_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define TRACE_KIND_EVENT_LOG \
    136 /**< kind of a section that holds an event log, see utils/evlog.h */

/**
 * Obtains a zero-filled section.
 * @param handle        receives the trace handle, never negative
 * @param kind          TRACE_KIND_EVENT_LOG
 * @param size          bytes wanted
 * @param name          the section's name
 * @param section       its number, 1 to 15
 * @param address       receives the section's address
 * @param platform_code the platform's code
 * @return 0, or non-zero on failure
 */
int trace_data_init(int *handle, int kind, unsigned size, const char *name, int section,
                    void **address, int platform_code);

/** Releases a section and its memory. @return 0, or non-zero for an unknown handle */
int trace_module_cleanup(int handle);

/** @name Section files of the stand-in
 *
 *  A section is the file "PID.SECTION.PROGRAM.NAME" in TRACE_DIRECTORY: the writing process, the
 *  section's number, the program's name with every '.', '/' and blank replaced by '_', and the
 *  section's name with every '/' replaced by '_' (it may hold blanks and dots, "proto 1" for
 *  instance). A second section of the same process, number and name has "+1" appended, the next
 *  "+2" and so on. The file holds the section's bytes from its first on, as the writer's memory has
 *  them; its length is the size asked for.
 *
 *  Releasing a section removes its file; otherwise it stays when its process ends. Of each program
 *  (the files of one user) the newest TRACE_FILES_KEPT stay, older ones are removed when a new
 *  section is made. @{ */
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
/** @} */

UTILS_END_DECLS

#endif

/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file evlog.h
 * @brief Named rings of short time-stamped events, cheap enough for every step of a protocol.
 *
 * A log is one block of memory, a header and its ring of entries. On most platforms the block is a
 * trace section of the platform, so that it can be read while its process runs and after it has
 * died; on three platform codes it is heap memory. A daemon groups its logs in a database.
 *
 * To read a log of another process: copy the whole section (the stand-in's are files, see
 * utils/platform/posix/trace_files.h), check magic and total against its size, point the copy's @c
 * entries behind its header, make its mutex with pthread_mutex_init(), clear @c next, and give it
 * to qel_evlog_dump(). While the writer runs, the entry at @c current may be half written.
 *
 * Not for texts longer than 67 characters; those are cut. End event texts with a newline: a dump
 * overwrites the last character of a text that has none.
 *
 * Threads: any thread may log, dump, clear and toggle. A log's mutex is held while it prints, so a
 * thread that uses these calls is not to be cancelled. Lock order: database, then log. Freeing
 * needs the log to be out of use. After fork() the child may go on writing to a log in a trace
 * section: both write to the same ring, one that is killed meanwhile holds up nobody, and freeing
 * in the child takes nothing from its parent. Not for signal handlers.
 */
#ifndef UTILS_EVLOG_H
#define UTILS_EVLOG_H

#include <pthread.h>
#include <stdio.h>
#include <utils/base.h>

UTILS_BEGIN_DECLS

#define QEL_EVLOG_MAGIC 0xAA55AA55u /**< first word of every log */
#define QEL_EVLOG_MAX_ENTRIES 5000  /**< most entries of a log */
#define QEL_EVLOG_MAX_SECTIONS 15   /**< most logs ever created in a database */
#define QEL_EVLOG_TEXT_SIZE 68      /**< room for an event's text and its terminator */
#define QEL_EVLOG_NAME_SIZE 40      /**< most characters of a log's name */
#define QEL_EVLOG_SHORTCUT_SIZE 10  /**< most characters of a shortcut */
#define QEL_EVLOG_LINE_SIZE 80      /**< room for one formatted entry */
#define QEL_EVLOG_HEAP (-1)         /**< trace handle of a log in heap memory */

/** One event; 76 bytes. */
typedef struct qel_evlog_entry {
    int32_t seconds;                /**< time of day, seconds; read as unsigned */
    int32_t microseconds;           /**< time of day, microseconds */
    char text[QEL_EVLOG_TEXT_SIZE]; /**< the event, terminated; empty when the entry was never
                                       written */
} qel_evlog_entry;

/**
 * A log: this header, 104 bytes on the target, and at once behind it its entries. Public for tools
 * that read it; to be changed only by the calls below.
 */
typedef struct qel_evlog_handle {
    uint32_t magic;                         /**< QEL_EVLOG_MAGIC */
    int32_t total;                          /**< number of entries */
    int32_t current;                        /**< index of the entry that is written next */
    uint8_t wrapped;                        /**< how often the ring has wrapped, modulo 256 */
    char name[QEL_EVLOG_NAME_SIZE];         /**< without terminator when it has 40 characters */
    char shortcut[QEL_EVLOG_SHORTCUT_SIZE]; /**< without terminator when it has 10 characters */
    pthread_mutex_t lock;                   /**< guards the ring and the echo flag */
    qel_evlog_entry *entries;               /**< the first entry, in the owner's address space */
    struct qel_evlog_handle *next; /**< next log of the database, in the owner's address space */
    int32_t echo;         /**< non-zero: each new event is also printed on standard output */
    int32_t trace_handle; /**< the platform's handle of the section, or QEL_EVLOG_HEAP */
} qel_evlog_handle;

/** A group of logs; the caller places it anywhere and prepares it with qel_evlog_init(). */
typedef struct qel_evlog_db {
    pthread_mutex_t lock;   /**< guards the fields below; not recursive */
    qel_evlog_handle *head; /**< first log in the order of creation, or null */
    qel_evlog_handle *tail; /**< last log, or null */
    int32_t next_section;   /**< section number of the next log, from 1 on */
} qel_evlog_db;

/**
 * Prepares a database, makes it the current one of the process and reads the platform's code from
 * the system device, which stays open.
 * @return 0; -22 for a null database; -1 when the device cannot be read: the database can be used
 *         all the same, the code keeps its value (0 at first: trace sections)
 */
int qel_evlog_init(qel_evlog_db *db);

/**
 * Creates a log, released by qel_evlog_free() or qel_evlog_handle_free(). A failure that is found
 * when the database is already locked (16th log, no section, no memory) is printed and leaves it
 * locked, on purpose: the database cannot be used any further.
 * @param db       the database
 * @param entries  size of the ring, 1 to QEL_EVLOG_MAX_ENTRIES; others are refused and printed
 * @param name     the log's name, cut to 40 characters; null counts as ""
 * @param shortcut a short name to find it by, cut to 10 characters; null counts as ""
 * @return the log, or null
 */
qel_evlog_handle *qel_evlog_newHandle(qel_evlog_db *db, int entries, const char *name,
                                      const char *shortcut);

/**
 * Adds an event with the time of day; the oldest entry of a full ring is overwritten.
 * @param handle the log
 * @param format printf format of the text, which is cut to 67 characters
 * @return the stored text inside the ring, or null for a null handle
 */
char *qel_evlog(qel_evlog_handle *handle, const char *format, ...) UTILS_PRINTF(2, 3);

/**
 * Prints a log's header and its events, oldest first. The header is read without the log's lock.
 * After every 256th wrap, whose count is 0 again, the entries older than the wrap are left out
 * until the next one.
 * @param stream where to
 * @param handle the log
 * @param level  detail; only its sign matters: below 0 the events are left out
 * @return 0, or -22 when @p handle is null or does not begin with the magic (printed on @p stream)
 */
int qel_evlog_dump(FILE *stream, qel_evlog_handle *handle, int level);

/**
 * Formats one entry as "14:03:27.041 text" in local time; prints nothing. A text of more than 66
 * characters is cut to 65 and a newline. The last character of a shorter text becomes a newline. An
 * entry without text gives its time only.
 * @param stream nothing happens when it is null
 * @param line   receives the line, QEL_EVLOG_LINE_SIZE bytes of room
 * @param entry  the entry
 * @param level  nothing happens below 0
 */
void qel_evlog_entry_dump(FILE *stream, char *line, qel_evlog_entry *entry, int level);

/** Appends @p handle to the logs of @p db. REQUIRES: the caller holds the lock of @p db.
 * @return 0, or -22 for a null argument */
int qel_evlog_dbInsert(qel_evlog_db *db, qel_evlog_handle *handle);

/** Dumps every log of @p db on @p stream in the order of creation;
 * @p level as for qel_evlog_dump(). */
void qel_evlog_db_dump(FILE *stream, qel_evlog_db *db, int level);

/** Prints name and shortcut of every log of @p db on @p stream. */
void qel_evlog_db_list(FILE *stream, qel_evlog_db *db);

/** @return the first log whose shortcut is @p shortcut in upper or lower case, or null */
qel_evlog_handle *qel_evlog_findByShortCut(qel_evlog_db *db, const char *shortcut);

/** Empties every log of @p db. */
void qel_evlog_db_clear(qel_evlog_db *db);

/** Empties one log; null is ignored. */
void qel_evlog_clear(qel_evlog_handle *handle);

/** Releases every log of @p db; their section numbers are
 * not given out again. @return 0, or -22 for null */
int qel_evlog_free(qel_evlog_db *db);

/** Releases one log without taking it off its database; null is ignored. */
void qel_evlog_handle_free(qel_evlog_handle *handle);

/** Switches the printing of new events on or off; null is ignored. */
void qel_evlog_handle_toggleShow(qel_evlog_handle *handle);

/** Command entry: toggles the log of the current database whose shortcut is the third of the
 * @p argc words in @p argv. */
void qel_evlog_private_toggleShow(int argc, char **argv);

/** Self-test: two logs, a few events, dumps on standard output. Takes a second. */
void qel_evlog_test(void);

UTILS_END_DECLS

#endif

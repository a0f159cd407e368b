/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file log_cache.h
 * @brief One in-memory cache of recent log lines per process, written to a file on demand.
 *
 * Each line is stamped with the local time and the kernel's id of the writing thread:
 * "09:15:02 1026 text". The caller's text brings its own newline. When the buffer is full it is
 * written from its beginning again, so that the cache always holds the most recent lines.
 *
 * Not for lines of more than 511 characters with their stamp: those abort the process.
 *
 * Threads: every call may be made by any thread at any time; lines are never interleaved. A dump
 * and a resize hold the cache's lock while they write the file. After fork() the child has a cache
 * of its own with the lines so far, as long as no other thread was inside a call at that moment.
 * Not for signal handlers.
 */
#ifndef UTILS_LOG_CACHE_H
#define UTILS_LOG_CACHE_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define LOG_CACHE_SIZE_DEFAULT 32768 /**< bytes of a new cache, and the smallest size */
#define LOG_CACHE_SIZE_MAX 131072    /**< largest size in bytes */
#define LOG_CACHE_LINE_MAX 511       /**< longest line in characters, its stamp included */

/** @name Results
 *  @{ */
#define LOG_CACHE_NO_MEMORY (-2)        /**< no memory for the buffer */
#define LOG_CACHE_NOT_INSTANTIATED (-3) /**< there is no cache yet */
#define LOG_CACHE_NO_FILE (-4)          /**< the file cannot be written */
#define LOG_CACHE_TOO_SMALL (-5)        /**< the caller's buffer is too small */
/** @} */

/** @name Codes a program publishes
 *  Where a program says on which request code it answers requests for its log cache, and with which
 *  code. The library neither reads nor writes them. @{ */
extern int32_t logCacheReqCode;  /**< request code, 0 at first */
extern int32_t logCacheRespCode; /**< code of the reply, 0 at first */
/** @} */

/**
 * Creates the cache with LOG_CACHE_SIZE_DEFAULT bytes. A second call starts an empty cache; the
 * previous buffer is not released.
 * @param name file name of dumps under "/tmp/", cut to 122 characters; null aborts the process
 * @return 0, or LOG_CACHE_NO_MEMORY (which is printed)
 */
int log_cache_init(const char *name);

/**
 * Writes a formatted line. Nothing happens before log_cache_init() and while a failed resize has
 * left the cache without a buffer. A line longer than LOG_CACHE_LINE_MAX aborts the process.
 * @param format printf format of the text
 */
void log_cache_write(const char *format, ...) UTILS_PRINTF(1, 2);

/** Writes @p text as log_cache_write() would; null is ignored. */
void log_cache_write_string(const char *text);

/**
 * Writes the cache to its file, the older lines first. Zero bytes may stand where the cache started
 * again, and one half line where it was overwritten. The lines go to a new file beside the old one
 * and take its place when all are written: when that fails (a full disk, the limit on file sizes)
 * the old file stays. A link or special file in its place is refused, and so is a file that belongs
 * to neither root nor this process's user or that others may write.
 * @return 0; LOG_CACHE_NOT_INSTANTIATED without a cache (which is printed); LOG_CACHE_NO_FILE
 */
int log_cache_dump(void);

/**
 * Copies what was written since the cache last started at its beginning, its two following bytes
 * and a newline.
 * @param buf room for the copy
 * @param len bytes of room
 * @return the bytes copied without the newline; LOG_CACHE_NOT_INSTANTIATED (which is printed);
 *         LOG_CACHE_TOO_SMALL, then @p buf is untouched
 */
int log_cache_dump_buf(char *buf, int len);

/**
 * Dumps the cache to its file, then gives it an empty buffer of another size. No line is lost
 * between the two, but a dump that fails does not hold up the resize: the lines are gone then.
 * @param size bytes, up to LOG_CACHE_SIZE_MAX; less than LOG_CACHE_SIZE_DEFAULT counts as that
 * @return 0, or LOG_CACHE_NO_MEMORY (which is printed); then the cache has no buffer until a later
 *         resize succeeds: lines are ignored, dumps answer LOG_CACHE_NOT_INSTANTIATED
 */
int log_cache_resize(int size);

/** Empties the cache; the old bytes stay in memory until they are overwritten. @return 0 */
int log_cache_reset(void);

UTILS_END_DECLS

#endif

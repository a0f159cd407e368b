/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file ppname.h
 * @brief The address a process's connection arrived on, whole-file locks, and pid files.
 *
 * Threads: all calls may be made from any thread. The file locks are fcntl() locks and belong to
 * the process: they do not exclude its own threads, a child made by fork() does not inherit them,
 * and the system drops them as soon as the process closes any descriptor of the file.
 */
#ifndef UTILS_PPNAME_H
#define UTILS_PPNAME_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @name Modes of fileLock()
 *  @{ */
#define FILE_LOCK_READ_TRY 0  /**< read lock, without waiting */
#define FILE_LOCK_WRITE 1     /**< write lock, waiting for it */
#define FILE_LOCK_WRITE_TRY 2 /**< write lock, without waiting */
/** @} */

/**
 * Reads the inode number of the socket that is the standard input of process @p pid.
 * @return the number; 0 or another number that is no socket's when standard input is something else
 *         with a name of nine characters or more; -1 when its name is shorter or cannot be read
 */
long ppnameGetInode(int pid);

/**
 * Finds the local IPv4 address of the TCP connection that is the standard input of process @p pid:
 * the address on which a login arrived, for instance.
 * @param pid    the process
 * @param size   bytes of room in @p buffer; 16 hold any address
 * @param buffer receives the address in dotted form, filled up with zeros; not terminated when the
 *               text fills it
 * @return 0, or -1 when standard input is no TCP connection of IPv4 or the system's table cannot be
 *         read
 * @note Standard input that is no socket usually counts as inode 0, and so do connections without
 *       an owner, those in TIME_WAIT for instance: while the table has one, the result is 0 and the
 *       address that connection's.
 */
int ppnamePeerAddr(int pid, int size, char *buffer);

/**
 * Locks the whole file behind @p fd.
 * @param fd   open for reading (FILE_LOCK_READ_TRY) or writing
 * @param mode FILE_LOCK_...
 * @return 0, or -1 with errno from fcntl(): EAGAIN or EACCES when another process has the lock,
 * EINTR when a signal ended the wait; errno is not set for an unknown mode
 */
int fileLock(int fd, int mode);

/** Releases the lock that fileLock() took on @p fd. @return 0, or -1 with errno from fcntl() */
int fileUnlock(int fd);

/** A pid file as printf() writes its path: the daemon's name, int instance. */
#define PID_FILE_FORMAT "/var/run/%s.%d.pid"

/**
 * Writes this process's id and a line end into "/var/run/NAME.INSTANCE.pid", in place of what was
 * there. A link of either kind, or anything but a regular file, in that place is refused.
 * @param name     the daemon's name
 * @param instance its instance
 * @return 0, or -1 with the reason on standard error
 */
int stor_pid(const char *name, int instance);

UTILS_END_DECLS

#endif

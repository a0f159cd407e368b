/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file paging.h
 * @brief Page prompt, key test, memory dumps, 64-bit numbers and small helpers of console commands.
 *
 * Everything prints on standard output. The entry points that this platform does not have say so
 * when they are called.
 *
 * C++: after "using namespace std" the name less also means std::less; call ::less() then.
 *
 * Threads: the paging switch may be set and read by any thread; the rest has no state. Two threads
 * must not prompt at the same time.
 */
#ifndef UTILS_PAGING_H
#define UTILS_PAGING_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define MORE_OFF_TICKS 15 /**< how long more() pauses while paging is off, in ticks of 1/60 s */
#define SPRINT64_ROOM 65  /**< room for the longest text of sprint64(), its terminator included */

/**
 * Asks whether to go on with a long output, and reads the answer from standard input. While paging
 * is off it asks nothing and pauses for a quarter of a second.
 * @return 0 to stop (an answer that begins with q or Q, or the end of the input), else 1
 */
int more(void);

/** Turns paging off in this process. */
void moreDisable(void);

/** Turns paging on again, as it is at the start. */
void moreEnable(void);

/**
 * Waits for input on descriptor 0. Characters that stdio has read already are not seen.
 * @param seconds longest wait; 0 asks and returns at once
 * @return 1 when input is ready, 0 on a time-out or an error
 */
int kbhit(int seconds);

/**
 * Dumps memory: lines of 16 bytes, each with its address, the units in hexadecimal, and the
 * characters between stars. The last line is filled
 * with blank fields, but its characters are shown.
 * @param address first byte; null prints nothing
 * @param count   number of units; 0 or less counts as 256
 * @param width   bytes in a unit: 1, 2 or 4, in the machine's byte order; 0 or less counts as 1.
 *                Units of any other width print as 0, with 2 * @p width digits.
 * @warning memory is read up to the end of the last line of 16 bytes
 */
void memDump(void *address, int count, int width);

/**
 * As memDump(), but prints nothing when @p address is null, @p count is negative, or @p width is
 * above 2 and neither 4 nor 8.
 */
void display_mem(void *address, int count, int width);

/**
 * Dumps memory as 32-bit words in the machine's byte order
 * and as characters, 16 bytes a line, without addresses.
 * @param address first byte; null prints nothing
 * @param len     number of bytes
 * @warning @p len is rounded up to a multiple of 4, so up to 3 bytes more are read and shown
 */
void printMem(void *address, int len);

/**
 * Writes a 64-bit number as text. Base 16 has the prefix "0x". Numbers of at most 32 bits have base
 * 16, 8 or else 10; larger ones have any base, and a digit above 9 is written as a decimal number.
 * @param text room for SPRINT64_ROOM characters
 * @param high upper 32 bits
 * @param low  lower 32 bits
 * @param base the base; 0 or less means 10, and so does 1, in which no number can be written
 * @return the length of the text; 0 when @p text is null
 */
int sprint64(char *text, unsigned high, unsigned low, int base);

/** As sprint64(), on standard output. @return the number of characters */
int print64(unsigned high, unsigned low, int base);

/**
 * Reads a number: hexadecimal behind 0x or 0X, else decimal. Both take a sign, the hexadecimal one
 * behind its prefix: "0x-5" is -5. A number beyond 32 bits counts as the nearest one of 32 bits, a
 * hexadecimal one of either sign as 0xffffffff.
 * @return the number; 0 for null and for a text that begins with no number
 */
int str2num(const char *text);

/** @return 1 when the texts @p a and @p b are equal, else 0; null equals nothing */
int strequ(const char *a, const char *b);

/** @return @p text, or an empty text for null */
const char *val(const char *text);

/** @return @p x unchanged: the target has the network's byte order */
unsigned eswap(unsigned x);

/** @return 0 when the effective user is root, else -1 */
int chkAccess(void);

/** @return 0 always */
int utilGetUserLevel(void);

/** @return 1 when @p x is non-zero, else 0; no memory is touched */
int probe(uintptr_t x);

/** Not ported; prints that. @return 0 */
int getLine(void);

/** Not ported; prints that. @return the print's result */
int less(void);

/** Not ported; prints that. @return 0 */
int peek(void);

/** Not ported; prints that. @return 0 */
int peekl(void);

/** Not ported; prints that. @return 0 */
int poke(void);

/** Not supported; prints that. @return 0 */
int pokel(void);

UTILS_END_DECLS

#endif

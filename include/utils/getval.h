/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file getval.h
 * @brief Asks the operator for one value of a given type on the console.
 *
 * For interactive configuration commands, one call for each setting. Values that come from a
 * command line are parsed with utils/cla.h instead.
 *
 * Threads: no locks and no state, but standard input and output are used directly; do not prompt
 * from two threads at the same time.
 */
#ifndef UTILS_GETVAL_H
#define UTILS_GETVAL_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @name Types of a value
 *  "number" is an int32_t, "text" a character array with room for @c max characters and a
 *  terminator. Numbers lie between @c min and @c max; texts have a length between them.
 *  Codes from 1 to 23 that are not listed are reserved: they return 0 at once. @{ */
#define GETVAL_INT 1             /**< number: decimal, a multiple of @c multiple */
#define GETVAL_HEX 2             /**< as GETVAL_INT; hexadecimal behind 0x, octal behind 0 */
#define GETVAL_TRUE_FALSE 3      /**< number 1 or 0: true, t, false, f in any case */
#define GETVAL_YES_NO 4          /**< number 1 or 0: yes, y, no, n in any case */
#define GETVAL_ON_OFF 5          /**< number 1 or 0: on, off in any case */
#define GETVAL_STRING 6          /**< text, blanks kept */
#define GETVAL_PORT_ID 7         /**< as GETVAL_INT; hexadecimal with or without 0x */
#define GETVAL_STRING_TRIM 11    /**< text, leading blanks and tabs removed */
#define GETVAL_IP_HOST 12        /**< dotted IPv4 address, first and last number 1 to 254 */
#define GETVAL_IP_HOST_13 13     /**< the same as GETVAL_IP_HOST */
#define GETVAL_IP_NET 15         /**< dotted IPv4 address, first number 1 to 254 */
#define GETVAL_KEY_LEN 16        /**< number: a key length in bits, 40, 56 or 128 */
#define GETVAL_WWN 21            /**< 8 bytes, each from @c min to @c max: a world wide name */
#define GETVAL_WORD 22           /**< text without any blank, leading ones removed */
#define GETVAL_STRING_TRIM_23 23 /**< the same as GETVAL_STRING_TRIM */
/** @} */

/**
 * Room for the text of GETVAL_IP_HOST and GETVAL_IP_NET that holds whatever is accepted: the
 * operator's text is stored as typed, and it may have leading zeros and blanks in front of its
 * numbers. "0.0.0.0" is accepted as well.
 */
#define GETVAL_IP_ROOM 300

/** One value to ask for. */
typedef struct getvalDesc {
    int32_t type; /**< one of the types above */
    void *value;  /**< the caller's variable: shown as the current value, receives the new one */
    int32_t min;  /**< smallest number, shortest length, or smallest byte */
    int32_t max;  /**< largest number, longest length, or largest byte */
    int32_t multiple; /**< numbers must be a multiple of it; 1 and 0 accept every number */
} getvalDesc;

/**
 * Prompts on standard output with the label, what is accepted and the current value, and reads one
 * line (at most 299 characters) from standard input, until it is acceptable: what is wrong with a
 * line is said, and the prompt comes again. Enter alone and the end of the input keep the value.
 *
 * Every call makes backspace the erase character of the terminal at descriptor 0, and leaves it so.
 * @param label what the operator is asked for
 * @param desc  type, variable and bounds; min must not be greater than max, whatever the type
 * @return 1 when a new value was stored (for GETVAL_WWN: whenever a name was entered); 0 when
 * nothing changed; -1 when a pointer is null or the bounds are reversed, without asking
 */
int getval(const char *label, getvalDesc *desc);

UTILS_END_DECLS

#endif

/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file cla.h
 * @brief Takes the common options out of a command line, and parses the values that commands take.
 *
 * A program first lets claFltr() remove the options that every tool of the system has (which
 * switch, slot or processor it works for) and then parses what is left by itself. For a program's
 * own single-letter options see utils/getopt.h.
 *
 * Numbers are converted with automatic base: 0x begins a hexadecimal number, 0 an octal one,
 * anything else is decimal; a number beyond 32 bits counts as the nearest one of 32 bits.
 *
 * Threads: no state and no locks; the argument vectors and their texts belong to the caller and are
 * changed in place, as said below.
 */
#ifndef UTILS_CLA_H
#define UTILS_CLA_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @name Results of this family
 *  @{ */
#define CLA_NOT_A_NUMBER 1     /**< clafGetInt(), clafGetShort(): the text is not a number */
#define CLA_ERR_FORM (-7)      /**< bad arguments or bad form */
#define CLA_ERR_NO_PORT (-8)   /**< nothing follows the slash */
#define CLA_ERR_NO_ARGS (-22)  /**< claReparse(): no arguments */
#define CLA_ERR_TOO_MANY (-33) /**< claReparse(): more tokens than the output vector holds */
/** @} */

/**
 * What an option's value is given to. clafGetInt(), clafGetShort() and the handlers of
 * utils/identity.h have exactly this type.
 * @param text the value; it points into the caller's argv, so it may be kept as long as that lives
 * @param arg  the record's @c arg
 * @return 0 when the value is accepted, which consumes the option;
 * anything else: not for this record
 */
typedef int (*claHandler)(const char *text, void *arg);

/** One option; a table of them ends with a record whose handler is null. */
typedef struct claFltrEntry {
    char letter;        /**< matched behind a single '-'; 0 when the option has a long name only */
    const char *name;   /**< matched behind two dashes, to the letter; null when there is none */
    claHandler handler; /**< takes the value; null ends the table */
    void *arg;          /**< passed to the handler, usually the variable to fill */
} claFltrEntry;

/**
 * Takes every option of @p table, with its value, out of @p argv: "-s 2", "-s2" and "--switch 2"
 * are the forms. What no record accepts stays where it is.
 * A path in argv[0] is cut to its last name.
 *
 * Each argument that begins with '-' is compared with the records in their order. A record whose
 * letter matched but whose handler refused leaves the comparison one character further on, so that
 * a later record sees the next character of the same argument.
 * @param table the options, ended by a record without a handler
 * @param argc  number of arguments; lowered by what was taken out
 * @param argv  the arguments, ended by null
 * @return 0, or CLA_ERR_FORM when a pointer is null or the table is empty
 */
int claFltr(claFltrEntry *table, int *argc, char **argv);

/**
 * Reads a number that begins with a decimal digit and ends at a blank, tab, line end, comma or the
 * end of the text: "08" is none, "0x1F" is 31.
 * @param text the text; null is no number
 * @param out  an int32_t; written only on success
 * @return 0, or CLA_NOT_A_NUMBER
 */
int clafGetInt(const char *text, void *out);

/** As clafGetInt(), with the low 16 bits stored in the int16_t (or uint16_t) behind @p out. */
int clafGetShort(const char *text, void *out);

/**
 * @return 1 when one of argv[0] to argv[argc-1] is @p keyword, ignoring case; 0 when none is;
 *         CLA_ERR_FORM when @p argc is below 1
 */
int clafArgPresent(int argc, char **argv, const char *keyword);

/**
 * Finds the first argument of the form slot/port. On a match its entry in @p argv points to the
 * port text behind the slash from then on (without leading zeros), and the slot is stored. "0/007"
 * gives slot 0 and the port text "7"; a hexadecimal slot does not match.
 * @param argc number of arguments
 * @param argv the arguments
 * @param slot set on a match only
 * @return 0, match or not; CLA_ERR_FORM when @p argc is below 1
 */
int clafSlotSlashPort(int argc, char **argv, int *slot);

/**
 * Takes the first argument with a slash as slot/port, slot/pic/port or pic/port. Its entry in
 * @p argv points to the port text from then on: what follows the last slash, without leading zeros;
 * it is not looked at, and may be empty behind a pic. What stands between the pic's slash and the
 * last one is ignored. A pic is one character: A or a is 1, B or b is 2; an empty one is not
 * stored. When argv[0] is "portName" (ignoring case) and there are more than two arguments, only
 * the first two are examined, since the others are free text.
 * @param argc number of arguments
 * @param argv the arguments
 * @param slot set when the argument names one
 * @param pic  set when the argument names one
 * @return 0, with or without a match; CLA_ERR_FORM when @p argc is below 1 or the form is bad;
 *         CLA_ERR_NO_PORT when nothing follows the slot's slash. Nothing is stored on an error.
 */
int clafSlotSlashPicSlashPort(int argc, char **argv, int *slot, int *pic);

/**
 * Splits arguments at separators. The texts are split in place; the tokens point into them.
 * @param argc       number of arguments
 * @param argv       the arguments
 * @param out        room for @p capacity tokens and the null that always ends them
 * @param capacity   most tokens to store
 * @param separators the separating characters; null means blank, tab and comma
 * @return the number of tokens; CLA_ERR_NO_ARGS when @p argc is below 1; CLA_ERR_TOO_MANY when
 * there are more than @p capacity (as many as fit are stored)
 */
int claReparse(int argc, char **argv, char **out, int capacity, const char *separators);

UTILS_END_DECLS

#endif

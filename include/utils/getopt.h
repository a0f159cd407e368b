/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file getopt.h
 * @brief A reentrant scanner for single-letter options.
 *
 * For a program's own options; the options that every tool has are taken out first, by claFltr()
 * of utils/cla.h. There are no long options here.
 *
 * Threads: fully reentrant; any number of threads may scan at the same time.
 */
#ifndef UTILS_GETOPT_H
#define UTILS_GETOPT_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @name What qelGetOpt_opt() tells besides an option letter
 *  @{ */
#define QELGETOPT_END (-1)    /**< the final call: no further option */
#define QELGETOPT_UNKNOWN '?' /**< an unknown option, or an argument is missing */
#define QELGETOPT_MISSING ':' /**< an argument is missing, and messages are silenced by a ':' */
/** @} */

/** Where a scan stands; it lives during qelGetOpt() only and must not be kept by the callback. */
typedef struct qelGetOptState {
    int err;     /**< print messages on standard error; a callback may set it to 0 */
    int ind;     /**< index of the next argument to examine */
    int opt;     /**< the option just found, or one of the values above */
    char *arg;   /**< the option's argument, or null */
    char *place; /**< position inside the current argument */
} qelGetOptState;

/**
 * Takes one option.
 * @param cbArg the word given to qelGetOpt()
 * @param state where the scan stands; read it with the three calls below
 * @return ignored, except that of the final call
 */
typedef int (*qelGetOptCallback)(void *cbArg, qelGetOptState *state);

/**
 * Calls @p callback for each option from argv[1] on, and once more with QELGETOPT_END. Scanning
 * ends at the first argument that is no option, and behind any argument that begins with two
 * dashes; qelGetOpt_ind() tells the final callback where the program's arguments begin. A lone '-'
 * that is not among the letters ends scanning too.
 *
 * Unknown options and missing arguments are reported on standard
 * error and given to the callback as QELGETOPT_UNKNOWN.
 * @param argc      number of arguments
 * @param argv      the arguments
 * @param optstring option letters, each followed by ':' when it takes an argument (the rest of the
 *                  word, or else the next word). A ':' at the very front silences all messages and
 *                  gives QELGETOPT_MISSING for a missing argument.
 * @param callback  called for each option
 * @param cbArg     passed to the callback
 * @return what the final call of @p callback returned; -1 when @p callback is null
 */
int qelGetOpt(int argc, char **argv, const char *optstring, qelGetOptCallback callback,
              void *cbArg);

/** @return the index of the next argument to examine */
int qelGetOpt_ind(qelGetOptState *state);

/** @return the option letter, or QELGETOPT_END, QELGETOPT_UNKNOWN, QELGETOPT_MISSING */
int qelGetOpt_opt(qelGetOptState *state);

/**
 * @return the option's argument, pointing into argv; null for a letter without one, for
 *         QELGETOPT_UNKNOWN, QELGETOPT_MISSING and QELGETOPT_END
 */
char *qelGetOpt_arg(qelGetOptState *state);

UTILS_END_DECLS

#endif

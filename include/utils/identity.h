/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file identity.h
 * @brief Where this process runs: control processor (node), logical switch, slot and pic.
 *
 * The numbers come from "/config/haconfig" (node) and from the environment variables that the
 * launcher of the daemon sets. Each is read once, on the first call that needs it, and kept for the
 * life of the process; later changes of the environment are not seen.
 *
 * Threads: no locks. Two threads that ask for a number first at the same moment both compute it.
 * setMySwitch() belongs to start-up, since it changes the environment.
 */
#ifndef UTILS_IDENTITY_H
#define UTILS_IDENTITY_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define IDENTITY_SWITCH_MAX 240 /**< highest logical switch number */
#define IDENTITY_SLOT_MAX 16    /**< highest slot number */
#define IDENTITY_PIC_MAX 16     /**< highest pic number */
#define IDENTITY_NODE_A 5       /**< the first control processor */
#define IDENTITY_NODE_B 6       /**< the second control processor */
#define IDENTITY_ERR_RANGE (-7) /**< the number is out of its range */

/** @name Environment variables
 *  Numbers with automatic base, as clafGetInt() of utils/cla.h reads them: "0x10" and "020" are 16.
 *  @{ */
#define IDENTITY_ENV_SWITCH "KORIN_SWITCHNO" /**< logical switch, 0 to 240 */
#define IDENTITY_ENV_SLOT "KORIN_SLOTNO"     /**< slot, 0 to 16 */
#define IDENTITY_ENV_PIC "KORIN_PICNO"       /**< pic, 0 to 16 */
/** @} */

/**
 * The control processor that this process runs on. It is 5 when "/config/haconfig" says so, in its
 * third big-endian 16-bit word; in every other case 6. A file that cannot be opened is reported on
 * standard error once.
 * @return 5 or 6
 */
uint16_t myNode(void);

/** @return the other control processor: 6 when myNode() is 5, else 5 */
uint16_t peerNode(void);

/** @return the logical switch, 0 to 240; 0 when the environment has none or a bad one */
int getMySwitch(void);

/**
 * Sets the logical switch of this process and, through the environment, of programs it starts.
 * @param n 0 to 240
 * @return 0; IDENTITY_ERR_RANGE when @p n is out of range; the result of snprintf() (0 or less)
 *         when it cannot format the variable, after a message on standard output
 */
int setMySwitch(int n);

/**
 * Prints "export KORIN_SWITCHNO=n" on standard output, without a line end, for a shell that
 * evaluates the program's output.
 * @return 0, or IDENTITY_ERR_RANGE
 */
int exportMySwitch(int n);

/** @return the slot, 0 to 16; 0 when the environment has none or a bad one */
int getMySlot(void);

/** @return the pic, 0 to 16; 0 when the environment has none or a bad one */
int getMyPic(void);

/**
 * Handler for claFltr(): a logical switch, not checked for its range.
 * @param text a number as clafGetInt() reads it
 * @param out  an int16_t (or uint16_t); the low 16 bits are stored when the text is a number
 * @return -7 always, so claFltr() leaves the option in place; callers judge success by @p out
 */
int clafMySwitch(const char *text, void *out);

/**
 * Handler for claFltr(): a slot number, not checked for its range.
 * @param text the number
 * @param out  an int32_t
 * @return what clafGetInt() returns
 */
int clafMySlot(const char *text, void *out);

/**
 * Handler for claFltr(): a pic letter.
 * @param text "A" or "a"
 * @param out  an int32_t, set to 1 on success
 * @return 0, or 1 for any other text
 */
int clafMyPic(const char *text, void *out);

/**
 * Records the start of the switch: copies "/proc/uptime" into "/etc/korin/datefile0" or
 * "/etc/korin/datefile1". The file is created when missing, but not shortened: the tail of a longer
 * old text stays. A symbolic link at that name is followed.
 * @param which 0 or 1
 * @return 0, or -1 on any failure
 */
int setSwitchStarttime(int which);

/** setSwitchStarttime() for 0 and then 1. @return 0, or -1 as soon as one fails */
int setStartall(void);

UTILS_END_DECLS

#endif

/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file iso_chksum.h
 * @brief The two-byte ISO 8473 checksum (Fletcher,
 * modulo 255) of data units, and a test for zero bytes.
 *
 * The checksum finds accidental changes; it is no protection against deliberate ones.
 *
 * iszero() is also the name of a classification macro (C) or template (C++) of <math.h>. In C this
 * header includes <math.h> itself and lets the number of arguments decide, so a program may include
 * both in either order and use both: `iszero(bytes, len)` is ours, `iszero(x)` that of <math.h>.
 *
 * Threads: no state; any thread may call at any time.
 */
#ifndef UTILS_ISO_CHKSUM_H
#define UTILS_ISO_CHKSUM_H

#ifndef __cplusplus
#include <math.h>
#ifdef iszero
#undef iszero
#define UTILS_ISZERO_BY_ARGUMENTS
#endif
#endif
#include <utils/base.h>

UTILS_BEGIN_DECLS

/**
 * Fills the checksum field of a data unit, so that isoChksumOk() accepts the unit. Neither byte of
 * a computed checksum is 0.
 * @param data first covered byte
 * @param len  number of covered bytes
 * @param chk  the two bytes of the field, inside the covered bytes
 */
void computeIsoChksum(unsigned char *data, unsigned len, unsigned char *chk);

/**
 * Verifies a data unit.
 * @param data first covered byte
 * @param len  number of covered bytes
 * @param chk  the two bytes of the field, inside the covered bytes
 * @return 1 when the unit verifies, carries no checksum (both bytes are 0) or is empty; else 0
 */
int isoChksumOk(const unsigned char *data, unsigned len, const unsigned char *chk);

/** @return 1 when all @p len bytes are zero (or @p len is 0), else 0 */
int iszero(const void *bytes, unsigned len);

UTILS_END_DECLS

/** @cond */
#ifdef UTILS_ISZERO_BY_ARGUMENTS
#define iszero(...) \
    UTILS_ISZERO_PICK(__VA_ARGS__, UTILS_ISZERO_BYTES, UTILS_ISZERO_MATH, )(__VA_ARGS__)
#define UTILS_ISZERO_PICK(first, second, picked, ...) picked
#define UTILS_ISZERO_BYTES(bytes, len) (iszero)(bytes, len)
#define UTILS_ISZERO_MATH(x) (fpclassify(x) == FP_ZERO)
#endif
/** @endcond */

#endif

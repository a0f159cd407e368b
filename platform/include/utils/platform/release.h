/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file release.h
 * @brief Platform: the firmware release record.
 */
#ifndef UTILS_PLATFORM_RELEASE_H
#define UTILS_PLATFORM_RELEASE_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** The release record. */
typedef struct release_info {
    char name[64]; /**< release name, a word and a version: "Release 3.2.0" */
} release_info;

/** Fills the record of release @p which (0: the running one). @return 0, or non-zero on failure */
int get_release_info(int which, release_info *info);

UTILS_END_DECLS

#endif

/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file qel_string.h
 * @brief Text that grows while it is built (qelString), and growing byte buffers (Buffer).
 *
 * A qelString carries a table of its operations: `s->ops->append(s, "text")`. It can be told to
 * repeat every allocation until it succeeds, for daemons that must not fail on a passing shortage
 * of memory. A Buffer is a plain record of the caller; it ends the process when memory runs out, so
 * it is for commands rather than for daemons.
 *
 * Threads: no locks; an object belongs to one thread at a time.
 */
#ifndef UTILS_QEL_STRING_H
#define UTILS_QEL_STRING_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define QEL_STRING_DEFAULT_SIZE 4 /**< bytes of a string whose size was given as 0 or less */

typedef struct qelString qelString;       /**< text that grows */
typedef struct qelStringOps qelStringOps; /**< what can be done with it */

/**
 * The operations; every string points to the same constant table.
 *
 * A null object is refused with null or -1 (0 from length). When memory runs out in the
 * middle of growing, and the string does not retry, the old text is lost: get() is null then, every
 * appending operation fails, and set() starts the string anew. A string never grows beyond 2^31 - 1
 * bytes: that is refused and the text stays.
 * A text to append or set may be part of the string's own.
 */
struct qelStringOps {
    /** Appends a text. @return the whole text, or null */
    char *(*append)(qelString *string, const char *text);
    /** Appends one character. @return the whole text, or null */
    char *(*appendChar)(qelString *string, char character);
    /** Replaces the text. @return the whole text, or null */
    char *(*set)(qelString *string, const char *text);
    /** @return the text; it belongs to the string, and the next growing operation may move it */
    char *(*get)(qelString *string);
    /** Appends formatted text as printf() makes it. @return the number of characters appended, or
     * -1 */
    int (*appendf)(qelString *string, const char *format, ...) UTILS_PRINTF(2, 3);
    /** Frees the text and the object. */
    void (*free)(qelString *string);
    /** Makes the text empty and fills all its bytes with zeros; keeps the room. */
    void (*clear)(qelString *string);
    /** @return the length of the text */
    int (*length)(qelString *string);
};

/** A string; made by qelStringInit(), released by its operation free. Read the fields, change none.
 */
struct qelString {
    char *buf;               /**< the text, always terminated; null once it was lost */
    const qelStringOps *ops; /**< the operations */
    uint32_t size;           /**< bytes allocated for buf */
    uint32_t avail; /**< characters that still fit, `size` - 1 - length. After set() replaced a
                         longer text it understates the room (as a signed number, it may be
                         below 0) until another operation refreshes it. */
    int retry;      /**< non-zero: allocations are repeated, without a pause, until they succeed */
};

/**
 * Makes an empty string.
 * @param size  bytes to begin with, the terminator included; 0 or less means
 *              QEL_STRING_DEFAULT_SIZE
 * @param retry non-zero: never fail for lack of memory, try again instead
 * @return the string, or null when memory runs out
 */
qelString *qelStringInit(int size, int retry);

/** A byte buffer; the caller places it anywhere. The bytes are not terminated. */
typedef struct Buffer {
    char *data;   /**< the bytes */
    int32_t size; /**< bytes allocated */
    int32_t used; /**< bytes filled */
} Buffer;

/**
 * Sets up @p buffer with room for @p size bytes (from 1; less counts as 1). The old content of the
 * record is not looked at. Ends the process with exit(-1) when memory runs out.
 */
void initBuffer(Buffer *buffer, int size);

/**
 * Appends @p len bytes and doubles the room as often as needed. The copy stops at a NUL among them:
 * the bytes from there on are written as zeros. Ends the process with exit(-1) when memory runs out
 * or the buffer would exceed 2^31 - 1 bytes.
 * @param buffer the buffer
 * @param bytes  what to append; may lie in the buffer itself
 * @param len    number of bytes, not negative
 * @return where the bytes were copied to (valid until the next call); null for null @p bytes or a
 *         negative @p len; the pointer value 1 for a null @p buffer
 */
char *appendBuffer(Buffer *buffer, const char *bytes, int len);

/** Frees the bytes and clears the record; initBuffer() can set it up again. */
void freeBuffer(Buffer *buffer);

UTILS_END_DECLS

#endif

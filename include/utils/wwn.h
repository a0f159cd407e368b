/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file wwn.h
 * @brief Values out of tagged text, and the two spellings of a World Wide Name.
 *
 * getStrElement() picks one value out of simple markup without a parser: it knows attributes
 * (`ISN="..."`) and elements (`<Tag>...</Tag>`), a backslash before a character that would
 * otherwise end the value, and the text that ends a record. It does not know nesting or entities;
 * for documents from outside the switch, use a real parser.
 *
 * Threads: no state; any thread may call at any time.
 */
#ifndef UTILS_WWN_H
#define UTILS_WWN_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

/** @name Modes of getStrElement()
 *  @{ */
#define STR_ELEMENT_ADVANCE 101 /**< move the cursor past what was read */
#define STR_ELEMENT_KEEP 102    /**< leave the cursor (as any other number does) */
/** @} */

/** @name Failures of getStrElement()
 *  @{ */
/** null argument, empty start tag, or no room for prefix and suffix */
#define STR_ELEMENT_BAD_ARGUMENT (-2)
#define STR_ELEMENT_NO_START (-3) /**< no start tag before the end tag */
#define STR_ELEMENT_NO_END (-4)   /**< no end tag */
#define STR_ELEMENT_UNCLOSED (-5) /**< the value is not closed before the end tag */
/** @} */

#define WWN_TEXT_SIZE 24 /**< a WWN in colon form and its terminator */
#define WWN_TAG_SIZE 25  /**< room for each output of getWwnTagData() */

/**
 * Reads one value out of a record of tagged text.
 *
 * An opener ending in '>' is an element: the value lies between the first '>' and the next '<'. Any
 * other is an attribute: the value lies between double quotes. A backslash is dropped and the
 * character after it taken as it is. A value that does not fit is cut without an error.
 *
 * @param dst      receives prefix, value and suffix. The suffix brings the terminator: pass "" for
 *                 a terminated text, null for a bare one. It needs @p maxLen bytes, one more with a
 *                 suffix. Nothing is written for an empty value.
 * @param cursor   the text; with STR_ELEMENT_ADVANCE it is left on the character that closed the
 *                 value (where the value was cut, if it was; behind the opener in a presence test)
 * @param startTag opener of the value, "ISN=" or "<Tag>" for instance
 * @param endTag   the text that ends the record; nothing behind it is looked at
 * @param maxLen   most characters to write, prefix and suffix included; 0 asks only whether the
 *                 start tag is there
 * @param prefix   written before the value, or null
 * @param suffix   written behind the value, or null
 * @param mode     STR_ELEMENT_ADVANCE or STR_ELEMENT_KEEP
 * @return number of characters written; 1 for a presence test that found the tag; 0 for an empty
 *         value; or a failure from above. A text that turns out to be unclosed may have been
 *         written in part.
 */
int getStrElement(char *dst, char **cursor, const char *startTag, const char *endTag, int maxLen,
                  const char *prefix, const char *suffix, int mode);

/**
 * Converts a WWN: text with a colon in it becomes plain ("1000001122AB1234"), other text becomes
 * pairs with colons ("10:00:00:11:22:AB:12:34"), where characters that are no hexadecimal digits
 * become 'X'. Case is kept.
 * @param src    the text
 * @param dst    receives the result, cut to @p dstLen characters, and a terminator behind them: it
 *               needs @p dstLen + 1 bytes, unless @p src is known to be a well-formed WWN
 * @param dstLen most characters to write, at least WWN_TEXT_SIZE
 * @return characters written plus one, or -1 for a null text or a @p dstLen that is too small
 */
int formatWwn(const char *src, char *dst, int dstLen);

/**
 * Reads the attributes ISN and WWN of a switch record (closed by "</Switch>"), in any order, both
 * in plain form.
 * @param cursor the text; does not move
 * @param isn    receives the ISN; WWN_TAG_SIZE bytes
 * @param wwn    receives the WWN; WWN_TAG_SIZE bytes
 * @return 0, or -1 with both outputs untouched: a null argument, or a value missing or empty
 */
int getWwnTagData(char **cursor, char *isn, char *wwn);

UTILS_END_DECLS

#endif

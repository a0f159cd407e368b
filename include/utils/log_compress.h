/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file log_compress.h
 * @brief Compact storage of text lines that repeat themselves, coded against the lines before them.
 *
 * A compressor fills the caller's buffer with one stream of coded lines; a decompressor takes such
 * a stream apart again. Runs of at least three characters that stand at the same column in one of
 * the last 127 lines become two bytes. There is no header and no checksum: keep the buffers'
 * lengths elsewhere, and give every buffer a compressor and a decompressor of its own.
 *
 * Not for binary data: lines are plain 7-bit text of up to 255 characters, and must not be empty
 * (an empty line is not seen by the decompressor, whose later lines are wrong then).
 *
 * The stream, one line after the other: bytes 0x00 to 0x7F are characters; 0x83 to 0xFF and the
 * byte that follows copy (byte & 0x7F) characters from the same column of the line that stands that
 * many lines further back (0: the previous one); 0x80 ends the line.
 *
 * Threads: a compressor or decompressor belongs to one thread at a time.
 */
#ifndef UTILS_LOG_COMPRESS_H
#define UTILS_LOG_COMPRESS_H

#include <utils/base.h>

UTILS_BEGIN_DECLS

#define LOG_COMPRESS_LINE_MAX 255     /**< longest line in characters, a newline included */
#define LOG_COMPRESS_LINE_SIZE 256    /**< room for a decoded line and its terminator */
#define LOG_COMPRESS_BUFFER_MIN 256   /**< smallest buffer of either side, in bytes */
#define LOG_COMPRESS_END_OF_LINE 0x80 /**< ends a line; also what short streams are padded with */
#define LOG_COMPRESS_RUN_MIN 3        /**< shortest run of characters that is copied */
#define LOG_COMPRESS_RUN_MAX 127      /**< longest */

typedef struct log_compressor log_compressor;     /**< one stream being written */
typedef struct log_decompressor log_decompressor; /**< one stream being read */

/**
 * Starts a stream.
 * @param obuf     receives the stream; stays the caller's
 * @param capacity its bytes, at least LOG_COMPRESS_BUFFER_MIN
 * @return the compressor, released by log_deleteCompressor(); null for a null or too small buffer
 * or when memory runs out
 */
log_compressor *log_createCompressor(unsigned char *obuf, int capacity);

/**
 * Codes one line. A line of more than 255 characters is cut in the caller's memory, by a terminator
 * at index 255. Characters with the top bit set lose it.
 * @param compressor the stream
 * @param line       the line
 * @return 0, or -1 when fewer than 257 bytes of room remain; nothing is written then, and a new
 *         buffer with a new compressor takes the line
 */
int log_compressLine(log_compressor *compressor, char *line);

/** @return the buffer that was given to log_createCompressor() */
unsigned char *log_getCompressorObuf(log_compressor *compressor);

/** @return the bytes written so far */
int log_getCompressorOlen(log_compressor *compressor);

/** Releases the compressor, not its buffer; null is ignored. */
void log_deleteCompressor(log_compressor *compressor);

/**
 * Opens a stream for reading.
 * @param ibuf   the stream; stays the caller's, unchanged until the decompressor is deleted
 * @param length its bytes, at least LOG_COMPRESS_BUFFER_MIN; pad a shorter stream with 0x80
 * @return the decompressor, released by log_deleteDecompressor(); null for a null or too short
 *         buffer or when memory runs out
 */
log_decompressor *log_createDecompressor(const unsigned char *ibuf, int length);

/**
 * Decodes the next line. Safe for any input: after -1 the rest of the stream is of no use, but may
 * be read on.
 * @param decompressor the stream
 * @param out          receives the line, terminated; LOG_COMPRESS_LINE_SIZE bytes of room, where
 *                     those behind the terminator are left undefined
 * @return the line's length; 0 at the end of the stream; -1 for a copy that refers to no line, a
 * cut copy, or a line of more than 255 characters
 */
int log_decompressGetLine(log_decompressor *decompressor, char *out);

/** Releases the decompressor, not its buffer; null is ignored. */
void log_deleteDecompressor(log_decompressor *decompressor);

/** Prints the lines of a whole stream, @p length bytes at @p ibuf,
 * between two headings on standard output. */
void log_showDecompressedData(const unsigned char *ibuf, int length);

UTILS_END_DECLS

#endif
